/*
** A training run against stand-in trainers (small shell scripts that record their command line
** and behave as each case needs): corpus size limit, command lines, progress lines, every
** failure message, and cancelling. After every case, however the run ended, no corpus is left in
** the temporary folder.
*/
#include "training_manager.h"

#include "test_support.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

class TestTrainingManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void corpusOfAtLeast101BytesProceeds_data();
    void corpusOfAtLeast101BytesProceeds();
    void commandLine_data();
    void commandLine();
    void stepLinesBecomeProgress_data();
    void stepLinesBecomeProgress();
    void trainerFailures_data();
    void trainerFailures();
    void tokenizerFailures_data();
    void tokenizerFailures();
    void missingTrainerChangesNothing();
    void aTrainerThatCannotBeLaunchedFailsTheRun();
    void cancelLeavesTheProfileAsItWas_data();
    void cancelLeavesTheProfileAsItWas();
    void destroyedMidRunLeavesNothing_data();
    void destroyedMidRunLeavesNothing();

private:
    TrainingProfile makeProfile(int textBytes);
    bool runToEnd(const TrainingProfile &profile);
    QStringList recordedArgs(const QString &file) const;

    QStringList corporaLeft() const;

    std::unique_ptr<QTemporaryDir> m_temp; // TMPDIR of the whole test, where runs write corpora
    std::unique_ptr<IsolatedEnvironment> m_env;
    std::unique_ptr<QTemporaryDir> m_work;
    std::unique_ptr<TrainingManager> m_manager;
    QString m_bin;
};

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

static void writeScript(const QString &path, const QByteArray &body)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("#!/bin/sh\n" + body);
    file.close();
    QVERIFY(file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                | QFileDevice::ExeOwner));
}

void TestTrainingManager::initTestCase()
{
    m_temp = std::make_unique<QTemporaryDir>();
    QVERIFY(m_temp->isValid());
    qputenv("TMPDIR", QFile::encodeName(m_temp->path()));
    QCOMPARE(QDir::tempPath(), m_temp->path());
    m_env = std::make_unique<IsolatedEnvironment>();
}

void TestTrainingManager::init()
{
    m_work = std::make_unique<QTemporaryDir>();
    m_bin = m_work->filePath(QStringLiteral("bin"));
    QDir().mkpath(m_bin);
    writeScript(m_bin + QStringLiteral("/trainer"),
                "printf '%s\\n' \"$@\" > \"$FAKE_DIR/trainer.args\"\n"
                "cp \"$1\" \"$FAKE_DIR/corpus.seen\"\n"
                "echo 'warming up'\n"
                "echo 'step 1/2 loss 6.0'\n"
                "printf '  step 2/2 loss 5.0  \\n'\n"
                // A slow run has begun its loss log before it is cancelled.
                "if [ -n \"$FAKE_SLEEP\" ]; then echo 1,9.9 > \"${2%.tten}.loss\";"
                " exec sleep \"$FAKE_SLEEP\"; fi\n"
                "if [ \"$FAKE_WRITE\" = 1 ]; then echo weights > \"$2\"; fi\n"
                "exit ${FAKE_EXIT:-0}\n");
    writeScript(m_bin + QStringLiteral("/train_bpe"),
                "printf '%s\\n' \"$@\" > \"$FAKE_DIR/train_bpe.args\"\n"
                "if [ -n \"$FAKE_BPE_SLEEP\" ]; then sleep \"$FAKE_BPE_SLEEP\"; fi\n"
                "exit ${FAKE_BPE_EXIT:-0}\n");
    qputenv("FAKE_DIR", QFile::encodeName(m_work->path()));
    qputenv("FAKE_WRITE", "1");
    qunsetenv("FAKE_EXIT");
    qunsetenv("FAKE_SLEEP");
    qunsetenv("FAKE_BPE_EXIT");
    qunsetenv("FAKE_BPE_SLEEP");
    m_env->settings()->remove(QStringLiteral("trainingProfiles"));
    // Profiles of the same name share a weights file; start each case without one.
    QDir(TrainingManager::weightsDirectory()).removeRecursively();
    m_manager = std::make_unique<TrainingManager>(m_env->settings());
    m_manager->setTrainerDirectory(m_bin);
}

void TestTrainingManager::cleanup()
{
    m_manager.reset();
    QThreadPool::globalInstance()->waitForDone();
    m_work.reset();
    QCOMPARE(corporaLeft(), QStringList());
}

QStringList TestTrainingManager::corporaLeft() const
{
    return QDir(m_temp->path()).entryList({QStringLiteral("tarnwick_corpus_*")}, QDir::Files);
}

TrainingProfile TestTrainingManager::makeProfile(int textBytes)
{
    const QString source = m_work->filePath(QStringLiteral("source"));
    // The picture is not indexable.
    if (!writeFile(source, QStringLiteral("text.md"), QByteArray(textBytes, 'w'))
        || !writeFile(source, QStringLiteral("image.png"), QByteArray(4096, 'p'))) {
        QTest::qFail("cannot write the source directory", __FILE__, __LINE__);
    }
    TrainingProfile draft;
    draft.name = QStringLiteral("Run ") + QString::number(textBytes);
    draft.sourceDirectories = {source};
    return m_manager->createProfile(draft);
}

bool TestTrainingManager::runToEnd(const TrainingProfile &profile)
{
    QSignalSpy finished(m_manager.get(), &TrainingManager::trainingFinished);
    m_manager->train(profile);
    return finished.wait(10000);
}

QStringList TestTrainingManager::recordedArgs(const QString &file) const
{
    QFile f(m_work->filePath(file));
    if (!f.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList lines = QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'));
    lines.removeLast(); // after the final newline
    return lines;
}

void TestTrainingManager::corpusOfAtLeast101BytesProceeds_data()
{
    QTest::addColumn<int>("bytes");
    QTest::addColumn<QString>("progress");
    QTest::newRow("100 bytes") << 100
                               << "Corpus too small (100 bytes). Add more source directories.";
    QTest::newRow("101 bytes") << 101 << "Training complete";
}

void TestTrainingManager::corpusOfAtLeast101BytesProceeds()
{
    QFETCH(int, bytes);
    QFETCH(QString, progress);
    const TrainingProfile profile = makeProfile(bytes);
    QVERIFY(runToEnd(profile));
    QCOMPARE(m_manager->trainingProgress(), progress);
    QVERIFY(!m_manager->isTraining());
    // The trainer saw the text and its separator; the picture is left out.
    QCOMPARE(readFile(m_work->filePath(QStringLiteral("corpus.seen"))),
             bytes > 100 ? QByteArray(bytes, 'w') + "\n\n" : QByteArray("(missing)"));
    const TrainingStatus expected = bytes > 100 ? TrainingStatus::Trained : TrainingStatus::Failed;
    QCOMPARE(m_manager->profile(profile.id)->status, expected);
    QCOMPARE(m_manager->profile(profile.id)->lastTrained.has_value(), bytes > 100);
}

void TestTrainingManager::commandLine_data()
{
    QTest::addColumn<int>("threads");
    QTest::addColumn<bool>("useBPE");
    QTest::addColumn<bool>("shipped");     // a built-in encoder lies beside the trainers
    QTest::addColumn<bool>("fromBuiltIn"); // the profile starts from it
    QTest::newRow("one thread") << 1 << false << false << true;
    QTest::newRow("four threads") << 4 << false << true << false;
    QTest::newRow("tokenizer, one thread") << 1 << true << false << true;
    QTest::newRow("tokenizer, two threads") << 2 << true << true << false;
    QTest::newRow("from the built-in") << 1 << false << true << true;
    QTest::newRow("from the built-in, its tokenizer") << 2 << true << true << true;
}

void TestTrainingManager::commandLine()
{
    QFETCH(int, threads);
    QFETCH(bool, useBPE);
    QFETCH(bool, shipped);
    QFETCH(bool, fromBuiltIn);
    const QString builtIn = m_bin + QStringLiteral("/default.tten");
    if (shipped) {
        QVERIFY(writeFile(m_bin, QStringLiteral("default.tten"), "TTEN"));
    }
    QCOMPARE(m_manager->builtInWeightsPath(), shipped ? builtIn : QString());
    TrainingProfile profile = makeProfile(500);
    profile.threads = threads;
    profile.useBPE = useBPE;
    profile.startFromBuiltIn = fromBuiltIn;
    profile.steps = 1000;
    profile.batchSize = 4;
    profile.learningRate = 0.001f;
    profile.heads = 16;
    profile.layers = 12;
    m_manager->updateProfile(profile);
    QVERIFY(runToEnd(profile));
    QCOMPARE(m_manager->trainingProgress(), QStringLiteral("Training complete"));

    // The corpus is a file of the run's own in the temporary folder.
    const QStringList args = recordedArgs(QStringLiteral("trainer.args"));
    QVERIFY(!args.isEmpty());
    const QString corpus = args.first();
    QCOMPARE(QFileInfo(corpus).path(), m_temp->path());
    QVERIFY(QFileInfo(corpus).fileName().startsWith(QStringLiteral("tarnwick_corpus_")));
    QVERIFY(corpus.endsWith(QStringLiteral(".txt")));
    const bool init = shipped && fromBuiltIn;
    // a run from the built-in encoder trains its word rows alone: no model steps
    QStringList expected = {
        corpus, profile.weightsPath, init ? "0" : "1000", "4", "0.001", "16", "12"};
    if (useBPE && !init) {
        expected << "--bpe" << profile.bpePath();
        QCOMPARE(recordedArgs(QStringLiteral("train_bpe.args")),
                 QStringList({corpus, profile.bpePath(), "7740"}));
    } else {
        // the built-in encoder brings its tokenizer: none is trained
        QVERIFY(!QFileInfo::exists(m_work->filePath(QStringLiteral("train_bpe.args"))));
    }
    if (threads >= 2) {
        expected << "--threads" << QString::number(threads);
    }
    if (init) {
        expected << "--init" << builtIn << "--bag"
                 << "200,128,0.003"
                 << "--half";
    }
    QCOMPARE(args, expected);
}

void TestTrainingManager::stepLinesBecomeProgress_data()
{
    const QString preparing = QString::fromUtf8("Preparing corpus\xe2\x80\xa6");
    const QStringList steps = {"step 1/2 loss 6.0", "step 2/2 loss 5.0", "Training complete"};
    QTest::addColumn<bool>("useBPE");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("built-in tokenizer") << false << (QStringList{preparing} + steps);
    QTest::newRow("own tokenizer")
        << true
        << (QStringList{preparing,
                        QString::fromUtf8("Training BPE tokenizer\xe2\x80\xa6"),
                        QString::fromUtf8("BPE ready. Training encoder\xe2\x80\xa6")}
            + steps);
}

void TestTrainingManager::stepLinesBecomeProgress()
{
    QFETCH(bool, useBPE);
    TrainingProfile profile = makeProfile(300);
    profile.useBPE = useBPE;
    m_manager->updateProfile(profile);
    qputenv("FAKE_BPE_SLEEP", "0.3"); // longer than the manager waits between looks at it
    QStringList seen;
    connect(m_manager.get(), &TrainingManager::trainingProgressChanged, this, [this, &seen] {
        seen.append(m_manager->trainingProgress());
    });
    QSignalSpy training(m_manager.get(), &TrainingManager::isTrainingChanged);
    m_manager->train(profile);
    QVERIFY(m_manager->isTraining());
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Training);
    m_manager->train(profile); // ignored while a run is under way
    QSignalSpy finished(m_manager.get(), &TrainingManager::trainingFinished);
    QVERIFY(finished.wait(10000));
    QCOMPARE(training.count(), 2);
    QTEST(seen, "expected");
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Trained);
}

void TestTrainingManager::trainerFailures_data()
{
    QTest::addColumn<QByteArray>("exitCode");
    QTest::addColumn<QByteArray>("writes");
    QTest::addColumn<QString>("message"); // %1 is the weights path
    QTest::newRow("non-zero exit")
        << QByteArray("3") << QByteArray("0") << "Training failed (exit 3, file missing: %1)";
    QTest::newRow("exit 0 without weights")
        << QByteArray("0") << QByteArray("0") << "Training failed (exit 0, file missing: %1)";
    QTest::newRow("non-zero exit with weights")
        << QByteArray("1") << QByteArray("1") << "Training failed (exit 1, file exists: %1)";
}

void TestTrainingManager::trainerFailures()
{
    QFETCH(QByteArray, exitCode);
    QFETCH(QByteArray, writes);
    QFETCH(QString, message);
    qputenv("FAKE_EXIT", exitCode);
    qputenv("FAKE_WRITE", writes);
    const TrainingProfile profile = makeProfile(300);
    QVERIFY(runToEnd(profile));
    QCOMPARE(m_manager->trainingProgress(), message.arg(profile.weightsPath));
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Failed);
    QVERIFY(!m_manager->isTraining());
    QFile::remove(profile.weightsPath);
}

void TestTrainingManager::tokenizerFailures_data()
{
    QTest::addColumn<bool>("bpeInstalled");
    QTest::addColumn<QString>("message");
    QTest::newRow("train_bpe missing") << false << "train_bpe not found beside the application";
    QTest::newRow("train_bpe fails") << true << "BPE training failed";
}

void TestTrainingManager::tokenizerFailures()
{
    QFETCH(bool, bpeInstalled);
    if (!bpeInstalled) {
        QVERIFY(QFile::remove(m_bin + QStringLiteral("/train_bpe")));
    }
    qputenv("FAKE_BPE_EXIT", "1");
    TrainingProfile profile = makeProfile(300);
    profile.useBPE = true;
    m_manager->updateProfile(profile);
    QVERIFY(runToEnd(profile));
    QTEST(m_manager->trainingProgress(), "message");
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Failed);
    // The encoder trainer never started.
    QVERIFY(!QFile::exists(m_work->filePath(QStringLiteral("trainer.args"))));
}

void TestTrainingManager::missingTrainerChangesNothing()
{
    QVERIFY(QFile::remove(m_bin + QStringLiteral("/trainer")));
    const TrainingProfile profile = makeProfile(300);
    QSignalSpy training(m_manager.get(), &TrainingManager::isTrainingChanged);
    m_manager->train(profile);
    QCOMPARE(m_manager->trainingProgress(), QStringLiteral("Trainer not executable"));
    QCOMPARE(training.count(), 0);
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Untrained);

    // A file without execute permission is no trainer either.
    QVERIFY(writeFile(m_bin, QStringLiteral("trainer"), "#!/bin/sh\nexit 0\n"));
    m_manager->train(profile);
    QCOMPARE(m_manager->trainingProgress(), QStringLiteral("Trainer not executable"));
    QVERIFY(!m_manager->isTraining());
}

void TestTrainingManager::aTrainerThatCannotBeLaunchedFailsTheRun()
{
    // Executable, but its interpreter does not exist: the system refuses to start it.
    const QString trainer = m_bin + QStringLiteral("/trainer");
    QVERIFY(writeFile(trainer, "#!/nonexistent/interpreter\n"));
    QVERIFY(QFile::setPermissions(trainer, QFileDevice::ReadOwner | QFileDevice::ExeOwner));
    const TrainingProfile profile = makeProfile(300);
    QVERIFY(runToEnd(profile));
    QVERIFY2(m_manager->trainingProgress().startsWith(QStringLiteral("Failed to launch trainer: ")),
             qPrintable(m_manager->trainingProgress()));
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Failed);
    QVERIFY(!m_manager->isTraining());
}

void TestTrainingManager::cancelLeavesTheProfileAsItWas_data()
{
    QTest::addColumn<bool>("wasTrained");
    QTest::addColumn<bool>("useBPE");
    QTest::newRow("untrained stays untrained") << false << false;
    QTest::newRow("trained keeps its weights, log and tokenizer") << true << true;
}

void TestTrainingManager::cancelLeavesTheProfileAsItWas()
{
    QFETCH(bool, wasTrained);
    QFETCH(bool, useBPE);
    qputenv("FAKE_SLEEP", "30");
    TrainingProfile profile = makeProfile(300);
    profile.useBPE = useBPE;
    const QDateTime trainedAt = QDateTime::currentDateTimeUtc().addDays(-3);
    if (wasTrained) {
        profile.status = TrainingStatus::Trained;
        profile.lastTrained = trainedAt;
        QVERIFY(writeFile(profile.weightsPath, "old weights"));
        QVERIFY(writeFile(profile.lossPath(), "step,loss\n10,1.5\n"));
        QVERIFY(writeFile(profile.bpePath(), "old merges"));
    }
    m_manager->updateProfile(profile);
    // The stand-in tokenizer trainer replaces the merges file, as the real one does.
    writeScript(m_bin + QStringLiteral("/train_bpe"), "echo new merges > \"$2\"\n");

    QSignalSpy finished(m_manager.get(), &TrainingManager::trainingFinished);
    m_manager->train(profile);
    QTRY_COMPARE(m_manager->trainingProgress(), QStringLiteral("step 2/2 loss 5.0"));
    QCOMPARE(m_manager->profile(profile.id)->status, TrainingStatus::Training);
    m_manager->cancelTraining();
    QCOMPARE(m_manager->trainingProgress(), QStringLiteral("Cancelled"));
    QVERIFY(!m_manager->isTraining());
    QVERIFY(finished.wait(10000));

    QCOMPARE(m_manager->trainingProgress(), QStringLiteral("Cancelled"));
    const std::optional<TrainingProfile> after = m_manager->profile(profile.id);
    QVERIFY(after);
    QCOMPARE(after->status, wasTrained ? TrainingStatus::Trained : TrainingStatus::Untrained);
    QCOMPARE(after->lastTrained.has_value(), wasTrained);
    if (wasTrained) {
        QCOMPARE(*after->lastTrained, trainedAt);
        QCOMPARE(readFile(profile.weightsPath), QByteArray("old weights"));
        QCOMPARE(readFile(profile.lossPath()), QByteArray("step,loss\n10,1.5\n"));
        QCOMPARE(readFile(profile.bpePath()), QByteArray("old merges"));
    } else {
        QVERIFY(!QFileInfo::exists(profile.weightsPath));
        QVERIFY(!QFileInfo::exists(profile.lossPath())); // the cancelled run's log is gone
    }
}

void TestTrainingManager::destroyedMidRunLeavesNothing_data()
{
    QTest::addColumn<QString>("stage"); // the progress text at which the manager goes
    QTest::newRow("corpus being written") << QString();
    QTest::newRow("tokenizer training") << QString::fromUtf8("Training BPE tokenizer\xe2\x80\xa6");
    QTest::newRow("encoder training") << QStringLiteral("step 2/2 loss 5.0");
}

void TestTrainingManager::destroyedMidRunLeavesNothing()
{
    QFETCH(QString, stage);
    qputenv("FAKE_SLEEP", "30");
    // A tokenizer trainer left running would write its marker once its sleep ends.
    writeScript(m_bin + QStringLiteral("/train_bpe"),
                "if [ -n \"$FAKE_BPE_SLEEP\" ]; then sleep \"$FAKE_BPE_SLEEP\";"
                " echo done > \"$FAKE_DIR/bpe.done\"; fi\n");
    if (!stage.startsWith(QLatin1String("step "))) {
        qputenv("FAKE_BPE_SLEEP", "5");
    }
    TrainingProfile profile = makeProfile(300);
    profile.useBPE = true;
    m_manager->updateProfile(profile);
    m_manager->train(profile);
    if (!stage.isEmpty()) {
        QTRY_COMPARE(m_manager->trainingProgress(), stage);
    }
    m_manager.reset(); // as the application quits mid-run
    QThreadPool::globalInstance()->waitForDone();
    QCOMPARE(corporaLeft(), QStringList());
    QVERIFY(!QFile::exists(m_work->filePath(QStringLiteral("bpe.done"))));
}

QTEST_GUILESS_MAIN(TestTrainingManager)
#include "training_manager_test.moc"
