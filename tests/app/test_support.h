/*
** test_support.h -- what the model and view tests share: settings and a home directory of their
** own, and small file helpers.
*/
#ifndef TRN_TEST_SUPPORT_H
#define TRN_TEST_SUPPORT_H

#include "settings.h"
#include "training_manager.h"
#include "walk_options.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// Points HOME at a fresh temporary directory and opens settings in it. Call from initTestCase(),
// before anything reads HOME.
class IsolatedEnvironment
{
public:
    IsolatedEnvironment()
    {
        QVERIFY2(m_home.isValid(), "no temporary directory");
        qputenv("HOME", QFile::encodeName(m_home.path()));
        m_settings =
            std::make_unique<Settings>(new QSettings(settingsPath(), QSettings::IniFormat));
        // At idle priority the tests' indexing would wait for every other process of a busy
        // machine; IndexHandle's own test covers it.
        m_settings->setValue(QStringLiteral("indexAtIdlePriority"), false);
        m_training = std::make_unique<TrainingManager>(m_settings.get());
    }
    QString home() const { return m_home.path(); }
    QString settingsPath() const { return m_home.filePath(QStringLiteral("settings.ini")); }
    Settings *settings() const { return m_settings.get(); }
    // What a tab walks with under these settings.
    std::unique_ptr<FileWalkOptions> walk() const
    {
        return FileWalkOptions::fromSettings(*m_settings);
    }
    // The training manager over these settings, as the application object owns one.
    TrainingManager *training() const { return m_training.get(); }

private:
    QTemporaryDir m_home;
    std::unique_ptr<Settings> m_settings;
    std::unique_ptr<TrainingManager> m_training;
};

// An EncoderChoice that gives every directory the same weights (empty: the untrained encoder).
class FixedWeights : public EncoderChoice
{
public:
    explicit FixedWeights(const QString &path) : m_path(path) {}
    QString weightsPathFor(const QUuid &) const override { return m_path; }

private:
    QString m_path;
};

// Writes bytes to path, creating folders on the way; false when it cannot.
[[nodiscard]] inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
           && file.write(bytes) == bytes.size();
}

// Writes bytes to dir/relative, creating folders on the way; false when it cannot.
[[nodiscard]] inline bool writeFile(const QString &dir, const QString &relative,
                                    const QByteArray &bytes)
{
    return writeFile(dir + QLatin1Char('/') + relative, bytes);
}

#endif
