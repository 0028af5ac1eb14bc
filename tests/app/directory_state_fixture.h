/*
** What the tests of one tab's model share: an isolated environment, a scratch folder per test,
** and tabs opened on it, closed after each test once their background jobs let go.
*/
#pragma once

#include "directory_state.h"
#include "test_support.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtTest>

#include <memory>

class DirectoryStateFixture : public QObject
{
protected:
    void setUpCase() { m_env = std::make_unique<IsolatedEnvironment>(); }

    bool setUp()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        return m_dir->isValid();
    }

    void tearDown()
    {
        closeStates();
        // Background jobs may still hold an engine; it writes its store when they let go.
        QThreadPool::globalInstance()->waitForDone();
        m_dir.reset();
    }

    void closeStates()
    {
        qDeleteAll(m_states);
        m_states.clear();
    }

    // A tab opened with given weights uses them; the others ask the training manager.
    DirectoryState *openState(const QString &path, const QString &weights = QString())
    {
        DirectoryTab tab{QUuid::createUuid(), path, QFileInfo(path).fileName()};
        auto fixed = std::make_shared<FixedWeights>(weights);
        const EncoderChoice *encoders = m_env->training();
        if (!weights.isEmpty()) {
            m_fixed.append(fixed);
            encoders = fixed.get();
        }
        auto *state = new DirectoryState(tab, encoders, m_env->settings());
        m_states.append(state);
        return state;
    }

    static bool waitForIngest(DirectoryState *state)
    {
        QSignalSpy done(state, &DirectoryState::ingestFinished);
        return done.wait(20000);
    }

    static bool waitForSearch(DirectoryState *state)
    {
        QSignalSpy done(state, &DirectoryState::searchFinished);
        return done.wait(10000);
    }

    // Indexes the tab's folder with the chunking most tests use; false when it did not end.
    static bool indexed(DirectoryState *state)
    {
        state->ingest(800, 200);
        return waitForIngest(state);
    }

    // Runs a search and waits for its answer; false when none came.
    static bool searched(DirectoryState *state, const QString &query, SearchMode mode)
    {
        state->search(query, mode);
        return waitForSearch(state);
    }

    std::unique_ptr<IsolatedEnvironment> m_env;
    std::unique_ptr<QTemporaryDir> m_dir;
    QList<DirectoryState *> m_states;
    QList<std::shared_ptr<FixedWeights>> m_fixed;
};
