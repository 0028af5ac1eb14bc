/*
** Settings and the stored JSON records: defaults, the below-1 rule, change signals, per-directory
** keys that round-trip for any path, and records that do not decode counting as absent.
*/
#include "settings.h"

#include "json_coding.h"
#include "records.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void effectiveChunkingFallsBackToTheDefaults_data();
    void effectiveChunkingFallsBackToTheDefaults();
    void invalidChunkingIsRefusedAndNothingChanges();
    void walkSettingsFallBackToTheDefaults();
    void settersSignalOnlyOnChange();
    void directoryKeysRoundTrip_data();
    void directoryKeysRoundTrip();
    void directoryKeysAreDistinct();
    void activeTabPathCanBeRemoved();
    void appearanceRule_data();
    void appearanceRule();
    void historyJsonHasTheFourKeys();
    void pinnedJsonHasExactlySevenKeys();
    void undecodableRecordsAreAbsent_data();
    void undecodableRecordsAreAbsent();
    void datesDecodeFromNumbersAndIsoText();

private:
    std::unique_ptr<Settings> reopen();

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Settings> m_settings;
};

void TestSettings::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_settings = reopen();
}

void TestSettings::cleanup()
{
    m_settings.reset();
    m_dir.reset();
}

std::unique_ptr<Settings> TestSettings::reopen()
{
    return std::make_unique<Settings>(
        new QSettings(m_dir->filePath(QStringLiteral("s.ini")), QSettings::IniFormat));
}

// A blank pattern list or a size that is not a positive number would index everything, or
// nothing: both read as the defaults.
void TestSettings::walkSettingsFallBackToTheDefaults()
{
    const QStringList defaults = m_settings->effectiveExcludePatterns();
    const qint64 defaultSize = m_settings->effectiveMaxFileSize();
    QVERIFY(defaults.contains(QStringLiteral(".git")));
    QVERIFY(defaultSize > 0);
    m_settings->setExcludePatterns(QStringLiteral(" , "));
    QCOMPARE(m_settings->effectiveExcludePatterns(), defaults);
    m_settings->setExcludePatterns(QStringLiteral(" *.tmp ,, vendor/ "));
    QCOMPARE(m_settings->effectiveExcludePatterns(),
             QStringList({QStringLiteral("*.tmp"), QStringLiteral("vendor/")}));
    m_settings->setValue(QStringLiteral("maxFileSizeMB"), QStringLiteral("huge"));
    QCOMPARE(m_settings->effectiveMaxFileSize(), defaultSize);
    m_settings->setMaxFileSizeMB(-5);
    QCOMPARE(m_settings->effectiveMaxFileSize(), defaultSize);
    m_settings->setMaxFileSizeMB(3);
    QCOMPARE(reopen()->effectiveMaxFileSize(), qint64(3) * 1024 * 1024);
}

void TestSettings::effectiveChunkingFallsBackToTheDefaults_data()
{
    QTest::addColumn<QVariant>("storedChunkSize");
    QTest::addColumn<QVariant>("storedOverlap");
    QTest::addColumn<int>("chunkSize");
    QTest::addColumn<int>("overlap");
    QTest::newRow("zero") << QVariant(0) << QVariant(0) << 800 << 200;
    QTest::newRow("negative") << QVariant(-3) << QVariant(-3) << 800 << 200;
    QTest::newRow("not a number") << QVariant(QStringLiteral("lots"))
                                  << QVariant(QStringLiteral("x")) << 800 << 200;
    QTest::newRow("a real pair") << QVariant(1200) << QVariant(300) << 1200 << 300;
    QTest::newRow("overlap zero reads as 200") << QVariant(1200) << QVariant(0) << 1200 << 200;
    QTest::newRow("chunks of one byte") << QVariant(1) << QVariant(1) << 800 << 200;
    QTest::newRow("overlap of 799 with 800") << QVariant(800) << QVariant(799) << 800 << 200;
    QTest::newRow("chunks above the limit") << QVariant(70000) << QVariant(100) << 800 << 200;
    QTest::newRow("default overlap too large") << QVariant(300) << QVariant(0) << 800 << 200;
}

void TestSettings::effectiveChunkingFallsBackToTheDefaults()
{
    QFETCH(QVariant, storedChunkSize);
    QFETCH(QVariant, storedOverlap);
    m_settings->setValue(QStringLiteral("chunkSize"), storedChunkSize);
    m_settings->setValue(QStringLiteral("overlap"), storedOverlap);
    QTEST(m_settings->effectiveChunkSize(), "chunkSize");
    QTEST(m_settings->effectiveOverlap(), "overlap");
}

// An overlap of 799 with chunks of 800 made indexing step one byte at a time; such a pair is
// never saved, whichever setter tries.
void TestSettings::invalidChunkingIsRefusedAndNothingChanges()
{
    QVERIFY(m_settings->setChunking(1000, 100));
    QSignalSpy chunk(m_settings.get(), &Settings::chunkSizeChanged);
    QSignalSpy overlap(m_settings.get(), &Settings::overlapChanged);
    QVERIFY(!m_settings->setChunking(800, 799));
    QVERIFY(!m_settings->setChunking(63, 0));
    m_settings->setOverlap(501);   // above half of 1000
    m_settings->setChunkSize(150); // 100 is more than half of it
    QCOMPARE(chunk.count(), 0);
    QCOMPARE(overlap.count(), 0);
    QCOMPARE(m_settings->chunkSize(), 1000);
    QCOMPARE(m_settings->overlap(), 100);
    QVERIFY(Settings::chunkingProblem(800, 799).contains(QStringLiteral("400")));
    QVERIFY(Settings::chunkingProblem(800, 400).isEmpty());

    m_settings->setChunkSize(200);
    QCOMPARE(chunk.count(), 1);
    QCOMPARE(m_settings->effectiveChunkSize(), 200);
}

void TestSettings::settersSignalOnlyOnChange()
{
    QSignalSpy chunk(m_settings.get(), &Settings::chunkSizeChanged);
    QSignalSpy hover(m_settings.get(), &Settings::hoverPreviewChanged);
    QSignalSpy appearance(m_settings.get(), &Settings::appearanceChanged);
    m_settings->setChunkSize(800); // the default: no change
    m_settings->setChunkSize(400);
    m_settings->setChunkSize(400);
    m_settings->setHoverPreview(true);
    m_settings->setHoverPreview(false);
    m_settings->setAppearance(QStringLiteral("dark"));
    QCOMPARE(chunk.count(), 1);
    QCOMPARE(hover.count(), 1);
    QCOMPARE(appearance.count(), 1);

    m_settings->sync();
    std::unique_ptr<Settings> again = reopen();
    QCOMPARE(again->chunkSize(), 400);
    QCOMPARE(again->hoverPreview(), false);
    QCOMPARE(again->appearance(), QStringLiteral("dark"));
}

void TestSettings::directoryKeysRoundTrip_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("plain") << "/home/user/notes";
    QTest::newRow("spaces and unicode") << QString::fromUtf8("/home/user/Mina dokument/Åsa ✓");
    QTest::newRow("escape-looking text") << "/tmp/a%2Fb/%25/%5C";
    QTest::newRow("backslashes") << "/tmp/back\\slash\\\\";
    QTest::newRow("ini syntax") << "/tmp/[General]/a=b;c#d\"e'";
    QTest::newRow("trailing slash") << "/tmp/dir/";
    QTest::newRow("double slashes") << "//net//share";
    QTest::newRow("root") << "/";
}

void TestSettings::directoryKeysRoundTrip()
{
    QFETCH(QString, path);
    const QByteArray history = "[{\"marker\":1}]";
    m_settings->setSearchHistoryData(path, history);
    m_settings->setPinnedResultsData(path, "[]");
    m_settings->setEncoderOverride(path, QStringLiteral("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"));
    m_settings->sync();
    m_settings.reset();

    std::unique_ptr<Settings> again = reopen();
    QCOMPARE(again->searchHistoryData(path), history);
    QCOMPARE(again->pinnedResultsData(path), QByteArray("[]"));
    QCOMPARE(again->encoderOverride(path),
             std::optional<QString>(QStringLiteral("E621E1F8-C36C-495A-93FC-0C247A3E6E5F")));
    // A neighbouring path sees none of it.
    QVERIFY(again->searchHistoryData(path + QStringLiteral("x")).isEmpty());
    again->setEncoderOverride(path, std::nullopt);
    QCOMPARE(again->encoderOverride(path), std::nullopt);
}

void TestSettings::directoryKeysAreDistinct()
{
    // Paths that a careless escape would merge: each keeps its own value.
    const QStringList paths = {QStringLiteral("/a/b"),
                               QStringLiteral("/a%2Fb"),
                               QStringLiteral("/a\\b"),
                               QStringLiteral("/a%5Cb"),
                               QStringLiteral("/a%252Fb")};
    for (qsizetype i = 0; i < paths.size(); i++) {
        m_settings->setSearchHistoryData(paths.at(i), QByteArray::number(i));
    }
    for (qsizetype i = 0; i < paths.size(); i++) {
        QCOMPARE(m_settings->searchHistoryData(paths.at(i)), QByteArray::number(i));
    }
    QVERIFY(Settings::directoryKey(QStringLiteral("searchHistory_"), QStringLiteral("/x/y"))
                .startsWith(QStringLiteral("searchHistory_")));
}

void TestSettings::activeTabPathCanBeRemoved()
{
    m_settings->setSavedTabPaths({QStringLiteral("/a"), QStringLiteral("/b c")});
    m_settings->setActiveTabPath(QStringLiteral("/b c"));
    m_settings->sync();
    std::unique_ptr<Settings> again = reopen();
    QCOMPARE(again->savedTabPaths(), QStringList({QStringLiteral("/a"), QStringLiteral("/b c")}));
    QCOMPARE(again->activeTabPath(), std::optional<QString>(QStringLiteral("/b c")));
    again->setActiveTabPath(std::nullopt);
    QVERIFY(!again->contains(QStringLiteral("activeTabPath")));
}

void TestSettings::appearanceRule_data()
{
    QTest::addColumn<QString>("appearance");
    QTest::addColumn<bool>("systemDark");
    QTest::addColumn<int>("expected"); // -1 follow the system, 0 light, 1 dark
    QTest::newRow("system") << "system" << true << -1;
    QTest::newRow("unknown value follows the system") << "purple" << false << -1;
    QTest::newRow("light") << "light" << true << 0;
    QTest::newRow("dark") << "dark" << false << 1;
    QTest::newRow("opposite of dark") << "opposite" << true << 0;
    QTest::newRow("opposite of light") << "opposite" << false << 1;
}

void TestSettings::appearanceRule()
{
    QFETCH(QString, appearance);
    QFETCH(bool, systemDark);
    const std::optional<bool> dark = appearanceIsDark(appearance, systemDark);
    QTEST(dark ? int(*dark) : -1, "expected");
}

void TestSettings::historyJsonHasTheFourKeys()
{
    const SearchHistoryEntry entry{
        QUuid::createUuid(),
        QStringLiteral("foo \"bar\""),
        SearchMode::Text,
        QDateTime::fromSecsSinceEpoch(978307200 + 100, QTimeZone::utc())};
    const QByteArray json = SearchHistoryEntry::encodeList({entry});
    QVERIFY(!json.contains('\n')); // compact
    const QJsonObject object = QJsonDocument::fromJson(json).array().first().toObject();
    QCOMPARE(object.keys(),
             QStringList({QStringLiteral("date"),
                          QStringLiteral("id"),
                          QStringLiteral("mode"),
                          QStringLiteral("query")}));
    QCOMPARE(object.value(QStringLiteral("date")).toDouble(), 100.0);
    QCOMPARE(object.value(QStringLiteral("id")).toString(),
             entry.id.toString(QUuid::WithoutBraces).toUpper());
    const std::optional<QList<SearchHistoryEntry>> back = SearchHistoryEntry::decodeList(json);
    QVERIFY(back);
    QCOMPARE(back->size(), 1);
    QCOMPARE(back->first(), entry);
}

void TestSettings::pinnedJsonHasExactlySevenKeys()
{
    PinnedResult pin;
    pin.id = QStringLiteral("/a/b.txt:3");
    pin.filePath = QStringLiteral("/a/b.txt");
    pin.snippet = QStringLiteral("snippet\nline");
    pin.score = 0.1f;
    pin.chunkIndex = 3;
    pin.lineNumber = 17;
    pin.fileType = 5;
    const QByteArray json = PinnedResult::encodeList({pin});
    const QJsonObject object = QJsonDocument::fromJson(json).array().first().toObject();
    QStringList keys = object.keys();
    keys.sort();
    QCOMPARE(keys,
             QStringList({QStringLiteral("chunkIndex"),
                          QStringLiteral("filePath"),
                          QStringLiteral("fileType"),
                          QStringLiteral("id"),
                          QStringLiteral("lineNumber"),
                          QStringLiteral("score"),
                          QStringLiteral("snippet")}));
    // The float is written as its shortest text, not as the nearest double's digits.
    QVERIFY2(json.contains("\"score\":0.1"), json.constData());
    QVERIFY(!json.contains("0.100000001"));
    QCOMPARE(PinnedResult::decodeList(json)->first(), pin);
}

void TestSettings::undecodableRecordsAreAbsent_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("not json") << QByteArray("[{\"id\":");
    QTest::newRow("an object, not an array") << QByteArray("{}");
    QTest::newRow("a key missing") << QByteArray(
        "[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"query\":\"q\",\"mode\":\"Text\"}]");
    QTest::newRow("bad uuid") << QByteArray(
        "[{\"id\":\"nope\",\"query\":\"q\",\"mode\":\"Text\",\"date\":1}]");
    QTest::newRow("one good, one bad")
        << QByteArray("[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"query\":\"q\","
                      "\"mode\":\"Text\",\"date\":1},{\"query\":3}]");
}

void TestSettings::undecodableRecordsAreAbsent()
{
    QFETCH(QByteArray, json);
    QCOMPARE(SearchHistoryEntry::decodeList(json), std::nullopt);
    QCOMPARE(PinnedResult::decodeList(json), std::nullopt);
}

void TestSettings::datesDecodeFromNumbersAndIsoText()
{
    const QDateTime expected = QDateTime(QDate(2024, 5, 1), QTime(12, 0), QTimeZone::utc());
    const double seconds = double(expected.toSecsSinceEpoch() - 978307200);
    QCOMPARE(JsonCoding::dateFromJson(QJsonValue(seconds)), std::optional<QDateTime>(expected));
    QCOMPARE(JsonCoding::dateFromJson(QJsonValue(QStringLiteral("2024-05-01T12:00:00Z"))),
             std::optional<QDateTime>(expected));
    QCOMPARE(JsonCoding::dateFromJson(QJsonValue(QStringLiteral("yesterday"))), std::nullopt);
    QCOMPARE(JsonCoding::dateFromJson(QJsonValue(true)), std::nullopt);
}

QTEST_GUILESS_MAIN(TestSettings)
#include "settings_test.moc"
