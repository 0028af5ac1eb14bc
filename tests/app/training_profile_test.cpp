/*
** Training profiles: the file stem rule, JSON with missing optional keys, the profile operations
** of the manager (create, edit, delete, default), and loss logs.
*/
#include "training_profile.h"

#include "json_coding.h"
#include "test_support.h"
#include "training_manager.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

class TestTrainingProfile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void fileStem_data();
    void fileStem();
    void jsonRoundTrip();
    void missingOptionalKeysDecodeWithDefaults();
    void missingRequiredKeyFailsTheWholeList_data();
    void missingRequiredKeyFailsTheWholeList();
    void learningRateText();
    void firstProfileBecomesDefault();
    void defaultWeightsNeedATrainedDefault();
    void editKeepsIdentityAndFiles();
    void deleteRemovesThreeFilesAndLeavesTheDefaultId();
    void undecodableStoredProfilesGiveAnEmptyList();
    void parseLossFile();

private:
    std::unique_ptr<IsolatedEnvironment> m_env;
    std::unique_ptr<TrainingManager> m_manager;
};

void TestTrainingProfile::initTestCase()
{
    m_env = std::make_unique<IsolatedEnvironment>();
}

void TestTrainingProfile::init()
{
    m_env->settings()->remove(QStringLiteral("trainingProfiles"));
    m_env->settings()->remove(QStringLiteral("defaultTrainingProfile"));
    m_manager = std::make_unique<TrainingManager>(m_env->settings());
}

void TestTrainingProfile::fileStem_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("stem");
    QTest::newRow("every replaced character") << "My Docs: v1.2"
                                              << "my_docs__v1_2";
    QTest::newRow("slashes") << "a/b\\c"
                             << "a_b_c";
    QTest::newRow("unicode lower-cased")
        << QString::fromUtf8("Åsa Ö") << QString::fromUtf8("åsa_ö");
    QTest::newRow("other punctuation stays") << "x-y+z"
                                             << "x-y+z";
}

void TestTrainingProfile::fileStem()
{
    QFETCH(QString, name);
    QTEST(TrainingProfile::fileStem(name), "stem");
}

static TrainingProfile sampleProfile()
{
    TrainingProfile p;
    p.id = QUuid::createUuid();
    p.name = QStringLiteral("Mixed");
    p.sourceDirectories = {QStringLiteral("/a"), QStringLiteral("/b c")};
    p.steps = 5000;
    p.batchSize = 16;
    p.learningRate = 0.0003f;
    p.heads = 4;
    p.layers = 6;
    p.threads = 4;
    p.useBPE = true;
    p.startFromBuiltIn = false; // not the default, so a lost key shows
    p.weightsPath = QStringLiteral("/home/u/.tarnwick/weights/mixed.tten");
    p.status = TrainingStatus::Trained;
    p.lastTrained = QDateTime::fromMSecsSinceEpoch(1700000000123, QTimeZone::utc());
    return p;
}

void TestTrainingProfile::jsonRoundTrip()
{
    const TrainingProfile p = sampleProfile();
    const QByteArray json = TrainingProfile::encodeList({p});
    const QJsonObject object = QJsonDocument::fromJson(json).array().first().toObject();
    QStringList keys = object.keys();
    keys.sort();
    QCOMPARE(keys,
             QStringList({"batchSize",
                          "heads",
                          "id",
                          "lastTrained",
                          "layers",
                          "learningRate",
                          "name",
                          "sourceDirectories",
                          "startFromBuiltIn",
                          "status",
                          "steps",
                          "threads",
                          "useBPE",
                          "weightsPath"}));
    // The float's shortest text, not the nearest double's 0.00030000001...
    QCOMPARE(object.value(QStringLiteral("learningRate")).toDouble(), 0.0003);
    QVERIFY(json.contains("\"status\":\"Trained\""));
    const std::optional<QList<TrainingProfile>> back = TrainingProfile::decodeList(json);
    QVERIFY(back);
    QCOMPARE(back->first(), p);
    QCOMPARE(p.bpePath(), QStringLiteral("/home/u/.tarnwick/weights/mixed.bpe"));
    QCOMPARE(p.lossPath(), QStringLiteral("/home/u/.tarnwick/weights/mixed.loss"));

    TrainingProfile never = p;
    never.lastTrained.reset();
    QVERIFY(!TrainingProfile::encodeList({never}).contains("lastTrained"));
}

void TestTrainingProfile::missingOptionalKeysDecodeWithDefaults()
{
    // A profile stored before threads, useBPE, startFromBuiltIn and lastTrained existed: it
    // trained from random weights and goes on doing so.
    const QByteArray old = "[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"name\":\"Old\","
                           "\"sourceDirectories\":[\"/docs\"],\"steps\":2000,\"batchSize\":8,"
                           "\"learningRate\":0.001,\"heads\":8,\"layers\":2,"
                           "\"weightsPath\":\"/w/old.tten\",\"status\":\"Training\xe2\x80\xa6\"}]";
    const std::optional<QList<TrainingProfile>> list = TrainingProfile::decodeList(old);
    QVERIFY(list);
    const TrainingProfile p = list->first();
    QCOMPARE(p.threads, 1);
    QCOMPARE(p.useBPE, false);
    QCOMPARE(p.startFromBuiltIn, false);
    QCOMPARE(p.lastTrained, std::nullopt);
    QCOMPARE(p.status, TrainingStatus::Training);
    QCOMPARE(p.learningRate, 0.001f);
    QCOMPARE(p.id, QUuid(QStringLiteral("{e621e1f8-c36c-495a-93fc-0c247a3e6e5f}")));
}

void TestTrainingProfile::missingRequiredKeyFailsTheWholeList_data()
{
    QTest::addColumn<QString>("key");
    for (const char *key : {"id",
                            "name",
                            "sourceDirectories",
                            "steps",
                            "batchSize",
                            "learningRate",
                            "heads",
                            "layers",
                            "weightsPath",
                            "status"}) {
        QTest::newRow(key) << QString::fromLatin1(key);
    }
}

void TestTrainingProfile::missingRequiredKeyFailsTheWholeList()
{
    QFETCH(QString, key);
    QJsonObject good = sampleProfile().toJson();
    QJsonObject bad = good;
    bad.remove(key);
    const QByteArray json = QJsonDocument(QJsonArray({good, bad})).toJson();
    QCOMPARE(TrainingProfile::decodeList(json), std::nullopt);
}

void TestTrainingProfile::learningRateText()
{
    QCOMPARE(TrainingProfile::parseLearningRate(QStringLiteral("1e-4")), 1e-4f);
    QCOMPARE(TrainingProfile::parseLearningRate(QStringLiteral(" 0.0005 ")), 0.0005f);
    QCOMPARE(TrainingProfile::parseLearningRate(QStringLiteral("fast")), 0.001f);
    QCOMPARE(TrainingProfile::parseLearningRate(QString()), 0.001f);
}

void TestTrainingProfile::firstProfileBecomesDefault()
{
    QSignalSpy defaultChanged(m_manager.get(), &TrainingManager::defaultProfileIdChanged);
    TrainingProfile draft;
    draft.name = QStringLiteral("My Docs: v1.2");
    draft.sourceDirectories = {QStringLiteral("/docs")};
    draft.status = TrainingStatus::Trained; // ignored: a new profile is untrained
    const TrainingProfile first = m_manager->createProfile(draft);
    QCOMPARE(first.weightsPath,
             m_env->home() + QStringLiteral("/.tarnwick/weights/my_docs__v1_2.tten"));
    QVERIFY(QFileInfo(m_env->home() + QStringLiteral("/.tarnwick/weights")).isDir());
    QCOMPARE(first.status, TrainingStatus::Untrained);
    QCOMPARE(m_manager->defaultProfileId(), first.id);
    QCOMPARE(defaultChanged.count(), 1);

    draft.name = QStringLiteral("second");
    const TrainingProfile second = m_manager->createProfile(draft);
    QCOMPARE(m_manager->defaultProfileId(), first.id);
    QCOMPARE(m_manager->profiles().size(), 2);
    QVERIFY(first.id != second.id);

    // A second manager over the same settings sees the same list.
    TrainingManager again(m_env->settings());
    QCOMPARE(again.profiles(), m_manager->profiles());
    QCOMPARE(m_env->settings()->defaultTrainingProfile(),
             std::optional<QString>(JsonCoding::uuidText(first.id)));
}

void TestTrainingProfile::defaultWeightsNeedATrainedDefault()
{
    TrainingProfile p = m_manager->createProfile(TrainingProfile{});
    QCOMPARE(m_manager->defaultWeightsPath(), QString());
    p.status = TrainingStatus::Trained;
    m_manager->updateProfile(p);
    QCOMPARE(m_manager->defaultWeightsPath(), p.weightsPath);
    QCOMPARE(m_manager->trainedProfiles().size(), 1);
    m_manager->setDefaultProfileId(QUuid());
    QVERIFY(!m_env->settings()->contains(QStringLiteral("defaultTrainingProfile")));
    QCOMPARE(m_manager->defaultWeightsPath(), QString());
    m_env->settings()->setDefaultTrainingProfile(QStringLiteral("garbage"));
    QVERIFY(m_manager->defaultProfileId().isNull());

    // Without a trained default, tabs get the encoder that ships beside the trainers.
    QTemporaryDir bin;
    m_manager->setTrainerDirectory(bin.path());
    QCOMPARE(m_manager->defaultWeightsPath(), QString());
    QVERIFY(writeFile(bin.path(), QStringLiteral("default.tten"), "TTEN"));
    QCOMPARE(m_manager->defaultWeightsPath(), bin.filePath(QStringLiteral("default.tten")));
    m_manager->setDefaultProfileId(p.id);
    QCOMPARE(m_manager->defaultWeightsPath(), p.weightsPath);

    // Updating an unknown id changes nothing.
    TrainingProfile stranger = p;
    stranger.id = QUuid::createUuid();
    QSignalSpy changed(m_manager.get(), &TrainingManager::profilesChanged);
    m_manager->updateProfile(stranger);
    QCOMPARE(changed.count(), 0);
}

void TestTrainingProfile::editKeepsIdentityAndFiles()
{
    TrainingProfile draft;
    draft.name = QStringLiteral("Before");
    TrainingProfile p = m_manager->createProfile(draft);
    p.status = TrainingStatus::Trained;
    p.lastTrained = QDateTime::currentDateTimeUtc();
    m_manager->updateProfile(p);

    TrainingProfile edited = p;
    edited.name = QStringLiteral("After");
    edited.steps = 1000;
    edited.weightsPath = QStringLiteral("/elsewhere.tten");
    edited.status = TrainingStatus::Untrained;
    edited.lastTrained.reset();
    m_manager->editProfile(edited);
    const TrainingProfile stored = *m_manager->profile(p.id);
    QCOMPARE(stored.name, QStringLiteral("After"));
    QCOMPARE(stored.steps, 1000);
    QCOMPARE(stored.weightsPath, p.weightsPath);
    QCOMPARE(stored.status, TrainingStatus::Trained);
    QCOMPARE(stored.lastTrained, p.lastTrained);
}

void TestTrainingProfile::deleteRemovesThreeFilesAndLeavesTheDefaultId()
{
    TrainingProfile draft;
    draft.name = QStringLiteral("Only");
    const TrainingProfile p = m_manager->createProfile(draft);
    for (const QString &path : {p.weightsPath, p.bpePath(), p.lossPath()}) {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
    }
    const QString neighbour = p.weightsPath + QStringLiteral(".keep");
    QVERIFY(QFile(neighbour).open(QIODevice::WriteOnly));
    m_manager->deleteProfile(p);
    QVERIFY(!QFile::exists(p.weightsPath));
    QVERIFY(!QFile::exists(p.bpePath()));
    QVERIFY(!QFile::exists(p.lossPath()));
    QVERIFY(QFile::exists(neighbour));
    QVERIFY(m_manager->profiles().isEmpty());
    QCOMPARE(m_manager->defaultProfileId(), p.id);
    QCOMPARE(m_manager->defaultWeightsPath(), QString());
    // Deleting again, with the files already gone, is harmless.
    m_manager->deleteProfile(p);
    QCOMPARE(TrainingProfile::decodeList(m_env->settings()->trainingProfilesData())->size(), 0);
}

void TestTrainingProfile::undecodableStoredProfilesGiveAnEmptyList()
{
    m_env->settings()->setTrainingProfilesData("{not json");
    TrainingManager manager(m_env->settings());
    QVERIFY(manager.profiles().isEmpty());
    manager.createProfile(TrainingProfile{});
    QCOMPARE(TrainingProfile::decodeList(m_env->settings()->trainingProfilesData())->size(), 1);
}

void TestTrainingProfile::parseLossFile()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.path(),
                      QStringLiteral("a.loss"),
                      "step,loss\n10,6.2\n20,5.9\n\n30\n40,abc\n50,1,2\nfifty,1.0\n60,5.5"));
    const QList<LossDataPoint> points =
        TrainingManager::parseLossFile(dir.filePath(QStringLiteral("a.loss")));
    const QList<LossDataPoint> expected = {{10, 6.2f}, {20, 5.9f}, {60, 5.5f}};
    QCOMPARE(points, expected);
    QVERIFY(TrainingManager::parseLossFile(dir.filePath(QStringLiteral("missing.loss"))).isEmpty());
}

QTEST_GUILESS_MAIN(TestTrainingProfile)
#include "training_profile_test.moc"
