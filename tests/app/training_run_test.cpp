/*
** A whole training run with the real trainers from the build (bin/train_bpe and bin/trainer):
** a small corpus, a few steps, a tokenizer, and a tab that then searches with the new weights.
** Labelled slow.
*/
#include "app_state.h"
#include "directory_state.h"
#include "json_coding.h"
#include "test_support.h"
#include "training_manager.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtTest>

class TestTrainingRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void trainedProfileSuppliesTheWeightsOfATab();

private:
    std::unique_ptr<IsolatedEnvironment> m_env;
};

void TestTrainingRun::initTestCase()
{
    m_env = std::make_unique<IsolatedEnvironment>();
    const QString bin = QStringLiteral(TRN_BIN_DIR);
    if (!QFileInfo(bin + QStringLiteral("/trainer")).isExecutable()
        || !QFileInfo(bin + QStringLiteral("/train_bpe")).isExecutable()) {
        QSKIP("the trainers are not built in bin/");
    }
    m_env->training()->setTrainerDirectory(bin);
}

void TestTrainingRun::trainedProfileSuppliesTheWeightsOfATab()
{
    QTemporaryDir docs;
    const char *topics[] = {"rivers flow to the sea through valleys and plains",
                            "compilers translate source code into machine instructions",
                            "bread rises when yeast ferments the sugar in the dough",
                            "planets orbit the sun along elliptical paths"};
    for (int i = 0; i < 24; i++) {
        QByteArray text;
        for (int line = 0; line < 6; line++) {
            text += QByteArray(topics[(i + line) % 4]) + " (note " + QByteArray::number(i) + ")\n";
        }
        QVERIFY(writeFile(docs.path(), QStringLiteral("note%1.txt").arg(i), text));
    }

    TrainingManager *manager = m_env->training();
    TrainingProfile draft;
    draft.name = QStringLiteral("Tiny Run");
    draft.sourceDirectories = {docs.path()};
    draft.steps = 3;
    draft.batchSize = 2;
    draft.useBPE = true;
    draft.startFromBuiltIn = false;
    const TrainingProfile profile = manager->createProfile(draft);
    QCOMPARE(manager->defaultProfileId(), profile.id);
    // untrained, the default profile leaves the tabs with the built-in encoder, if one is built
    QCOMPARE(manager->defaultWeightsPath(), manager->builtInWeightsPath());

    QStringList progress;
    connect(manager, &TrainingManager::trainingProgressChanged, this, [manager, &progress] {
        progress.append(manager->trainingProgress());
    });
    QSignalSpy finished(manager, &TrainingManager::trainingFinished);
    manager->train(profile);
    QVERIFY(finished.wait(300000));
    QVERIFY2(manager->trainingProgress() == QLatin1String("Training complete"),
             qPrintable(progress.join(QStringLiteral(" | "))));
    QVERIFY(progress.contains(QString::fromUtf8("Training BPE tokenizer\xe2\x80\xa6")));
    QVERIFY(progress.contains(QString::fromUtf8("BPE ready. Training encoder\xe2\x80\xa6")));
    bool sawStep = false;
    for (const QString &line : progress) {
        sawStep = sawStep || line.startsWith(QStringLiteral("step "));
    }
    QVERIFY2(sawStep, qPrintable(progress.join(QStringLiteral(" | "))));

    const TrainingProfile trained = *manager->profile(profile.id);
    QCOMPARE(trained.status, TrainingStatus::Trained);
    QVERIFY(trained.lastTrained);
    QVERIFY(QFileInfo(trained.weightsPath).size() > 0);
    QVERIFY(QFileInfo::exists(trained.bpePath()));
    const QList<LossDataPoint> loss = TrainingManager::parseLossFile(trained.lossPath());
    QVERIFY(!loss.isEmpty());
    QVERIFY(loss.last().step <= 3);
    QCOMPARE(manager->defaultWeightsPath(), trained.weightsPath);

    // A new tab opens its engine with the trained weights and searches with them.
    AppState app(m_env->settings(), m_env->training());
    QSignalSpy restored(&app, &AppState::stateRestored);
    QVERIFY(restored.wait(5000));
    app.addTab(docs.path());
    DirectoryState *state = app.activeState();
    QCOMPARE(state->effectiveWeightsPath(), trained.weightsPath);
    QTRY_VERIFY_WITH_TIMEOUT(!state->isIngesting(), 60000);
    QCOMPARE(state->statusText(), QStringLiteral("24 chunks from 24 files"));
    app.setQuery(QStringLiteral("yeast and dough"));
    app.performSearch();
    QTRY_COMPARE_WITH_TIMEOUT(state->results().size(), 10, 20000);
    QVERIFY(state->hasMoreResults());

    manager->deleteProfile(trained);
    QThreadPool::globalInstance()->waitForDone();
}

QTEST_GUILESS_MAIN(TestTrainingRun)
#include "training_run_test.moc"
