/*
** The index handle and the value types around it: indexing with the settings' walk, searching,
** the file scope's reason for every file, a PDF hit's page, and file sizes.
*/
#include "index_handle.h"

#include "training_manager.h"

#include "test_support.h"

#include <QDateTime>
#include <QDir>
#include <QMap>
#include <QPainter>
#include <QPdfWriter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtConcurrent>
#include <QtTest>

#include <atomic>

#include <sched.h>

class TestIndexHandle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void extraExtensionsAreTrimmedAndLowerCased();
    void walkSkipsHiddenEntriesAndTheIndex();
    void idleIndexingHasAThreadOfItsOwnAndPausesWithTheLockOpen();
    void indexIsPrivateAndHugeFilesAreNeverRead();
    void searchCopiesRecordsAndKZeroReturnsNothing();
    void groupingKeepsEachFilesBestPassage();
    void searchAcrossNamesEachRowsFolder();
    void fileListGivesTheReasonForEveryFile();
    void clearAndReopenDiscardsTheIndex();
    void pdfPageForLine();
    void fileCategory_data();
    void fileCategory();
    void formatFileSize_data();
    void formatFileSize();
    void modeNamesDecodeOldAndNewHistories_data();
    void modeNamesDecodeOldAndNewHistories();

private:
    std::unique_ptr<IsolatedEnvironment> m_env;
    QTemporaryDir m_dir;
};

void TestIndexHandle::initTestCase()
{
    m_env = std::make_unique<IsolatedEnvironment>();
}

void TestIndexHandle::init()
{
    m_env->settings()->remove(QStringLiteral("extraExtensions"));
}

void TestIndexHandle::extraExtensionsAreTrimmedAndLowerCased()
{
    m_env->settings()->setExtraExtensions(QStringLiteral(" JSON ,, toml,\tIni , "));
    const QSet<QString> expected = {
        QStringLiteral("json"), QStringLiteral("toml"), QStringLiteral("ini")};
    QCOMPARE(m_env->settings()->effectiveExtraExtensions(), expected);

    // Without the setting, the default list applies; "csv" is not in it but is plain text.
    m_env->settings()->remove(QStringLiteral("extraExtensions"));
    QVERIFY(m_env->settings()->effectiveExtraExtensions().contains(QStringLiteral("yaml")));
    m_env->settings()->setExtraExtensions(QString());
    QVERIFY(m_env->settings()->effectiveExtraExtensions().isEmpty());
}

void TestIndexHandle::walkSkipsHiddenEntriesAndTheIndex()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.path(), QStringLiteral("visible.txt"), "visible words here\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral(".hidden.txt"), "hidden words here\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral(".secret/inner.txt"), "inner hidden words\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("sub/deep/nested.md"), "nested visible words\n"));
    IndexHandle engine(dir.path(), QString());
    QVERIFY(engine.isOpen());
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral(".tarnwick"))).isDir());

    QList<QList<int>> progress;
    const int chunks =
        engine.ingestDirectory(800, 200, *m_env->walk(), [&progress](const IndexingProgress &p) {
            progress.append({p.filesDone,
                             p.filesFound,
                             p.chunksDone,
                             p.meaning,
                             int(p.chunksEmbedded),
                             p.filesIndexed});
        });
    QCOMPARE(chunks, 2);
    // (0 of 2) after the walk, then one step per file with the chunks so far; then the meaning
    // phase before its one group of vectors and after it, the file counts kept.
    const QList<QList<int>> expected = {{0, 2, 0, 0, 0, 0},
                                        {1, 2, 1, 0, 0, 0},
                                        {2, 2, 2, 0, 0, 0},
                                        {2, 2, 2, 1, 0, 2},
                                        {2, 2, 2, 1, 2, 2}};
    QCOMPARE(progress, expected);
    uint64_t embedded = 0, all = 0;
    QVERIFY(!engine.meaningProgress(&embedded, &all));
    QCOMPARE(embedded, uint64_t(2));
    QCOMPARE(engine.search(QStringLiteral("hidden"), SearchMode::Text, 10).size(), 0);
    QCOMPARE(engine.search(QStringLiteral("visible"), SearchMode::Text, 10).size(), 2);
}

void TestIndexHandle::idleIndexingHasAThreadOfItsOwnAndPausesWithTheLockOpen()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.path(), QStringLiteral("a.txt"), "alpha words of the first file\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("b.txt"), "bravo words of the second file\n"));
    IndexHandle engine(dir.path(), QString());
    engine.setIdlePriority(true);
    engine.setPaused(true);
    std::atomic<int> indexerPolicy{-1}, callerPolicy{-1}, filesDone{-1};
    QFuture<int> run = QtConcurrent::run([&] {
        const int n =
            engine.ingestDirectory(800, 200, *m_env->walk(), [&](const IndexingProgress &progress) {
                indexerPolicy = sched_getscheduler(0);
                filesDone = progress.filesDone;
            });
        callerPolicy = sched_getscheduler(0);
        return n;
    });
    // Paused once the walk found the files: none is read, and searches still get the lock.
    QTRY_COMPARE_WITH_TIMEOUT(filesDone.load(), 0, 60000);
    QVERIFY(engine.search(QStringLiteral("alpha"), SearchMode::Text, 10).isEmpty());
    QVERIFY(!run.isFinished());
    engine.setPaused(false);
    QCOMPARE(run.result(), 2);
    QCOMPARE(filesDone.load(), 2);
    QCOMPARE(indexerPolicy.load(), SCHED_IDLE);
    // The pool thread that asked is not lowered: it runs searches later.
    QCOMPARE(callerPolicy.load(), SCHED_OTHER);
    QCOMPARE(engine.search(QStringLiteral("alpha"), SearchMode::Text, 10).size(), 1);
}

void TestIndexHandle::indexIsPrivateAndHugeFilesAreNeverRead()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.path(), QStringLiteral("small.txt"), "a small file that is indexed\n"));
    QFile huge(dir.filePath(QStringLiteral("huge.txt")));
    QVERIFY(huge.open(QIODevice::WriteOnly));
    QVERIFY(huge.resize(qint64(2) << 30)); // sparse: reading it would take 2 GiB
    huge.close();
    QFile over(dir.filePath(QStringLiteral("over.txt")));
    QVERIFY(over.open(QIODevice::WriteOnly));
    QVERIFY(over.resize(qint64(TRN_FILE_SIZE_MAX) + 1));
    over.close();

    IndexHandle engine(dir.path(), QString());
    QCOMPARE(engine.ingestDirectory(800, 200, *m_env->walk()), 1);
    QVERIFY(engine.checkpoint());
    int tooLarge = 0;
    for (const FileInfo &f : engine.fileList(*m_env->walk())) {
        tooLarge += f.status == TRN_FILE_STATUS_TOO_LARGE ? 1 : 0; // listed, never read
    }
    QCOMPARE(tooLarge, 2);
    const QString corpus = dir.filePath(QStringLiteral(".corpus"));
    QVERIFY(TrainingManager::prepareCorpus({dir.path()}, *m_env->walk(), corpus) < 100);

    const QString index = dir.filePath(QStringLiteral(".tarnwick"));
    QCOMPARE(QFile::permissions(index),
             QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadUser
                 | QFile::WriteUser | QFile::ExeUser);
    for (const char *name : {"/tarnwick.bin", "/tarnwick.wal"}) {
        QCOMPARE(QFile::permissions(index + QLatin1String(name)),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
    }
}

void TestIndexHandle::searchCopiesRecordsAndKZeroReturnsNothing()
{
    QTemporaryDir dir;
    QVERIFY(
        writeFile(dir.path(), QStringLiteral("a.txt"), "first line\nsecond line has the needle\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("b.txt"), "nothing to see in this one\n"));
    IndexHandle engine(dir.path(), QString());
    QVERIFY(engine.ingestDirectory(800, 200, *m_env->walk()) > 0);

    QVERIFY(engine.search(QStringLiteral("needle"), SearchMode::Text, 0).isEmpty());
    const QList<SearchResult> hits = engine.search(QStringLiteral("NEEDLE"), SearchMode::Text, 5);
    QCOMPARE(hits.size(), 1);
    const SearchResult hit = hits.first();
    QCOMPARE(hit.filePath, dir.filePath(QStringLiteral("a.txt")));
    QCOMPARE(hit.chunkIndex, 0);
    QCOMPARE(hit.lineNumber, 2); // the line of the match, not of the chunk
    QCOMPARE(hit.fileType, int(TRN_FILE_TYPE_TEXT));
    QVERIFY(hit.snippet.contains(QStringLiteral("needle")));
    QVERIFY(hit.id.startsWith(hit.filePath));

    // The copy outlives the engine's snippet buffers.
    engine.search(QStringLiteral("nothing"), SearchMode::Text, 5);
    QVERIFY(hit.snippet.contains(QStringLiteral("needle")));

    const QList<SearchResult> regex = engine.search(QStringLiteral("sec.nd"), SearchMode::Regex, 5);
    QCOMPARE(regex.size(), 1);
    QCOMPARE(engine.search(QStringLiteral("anything"), SearchMode::Semantic, 5).size(), 2);
}

// Two tabs searched as one: text hits take turns, narrowing words reach every index, and each
// row names the folder that holds its file.
void TestIndexHandle::searchAcrossNamesEachRowsFolder()
{
    QTemporaryDir first, second;
    QVERIFY(writeFile(first.path(), QStringLiteral("a.txt"), "a needle in the first folder\n"));
    QVERIFY(writeFile(second.path(), QStringLiteral("b.txt"), "a needle in the second one\n"));
    QVERIFY(writeFile(second.path(), QStringLiteral("c.md"), "another needle, in Markdown\n"));
    IndexHandle a(first.path(), QString());
    IndexHandle b(second.path(), QString());
    QVERIFY(a.ingestDirectory(800, 200, *m_env->walk()) > 0);
    QVERIFY(b.ingestDirectory(800, 200, *m_env->walk()) > 0);
    const auto files = [](const QList<SearchResult> &hits) {
        QStringList out;
        for (const SearchResult &hit : hits) {
            if (!hit.filePath.startsWith(hit.folder + QLatin1Char('/'))) {
                out.append(QStringLiteral("wrong folder ") + hit.folder);
            }
            out.append(QFileInfo(hit.filePath).fileName());
        }
        return out;
    };
    QCOMPARE(files(IndexHandle::searchAcross(
                 {&a, &b}, QStringLiteral("needle"), SearchMode::Text, 10, ResultLayout::ByFile)),
             (QStringList{"a.txt", "b.txt", "c.md"}));
    QCOMPARE(files(IndexHandle::searchAcross({&b, &a},
                                             QStringLiteral("needle type:text -second"),
                                             SearchMode::Keyword,
                                             10,
                                             ResultLayout::ByFile)),
             (QStringList{"a.txt"}));
}

// The file scope view's words for every kind of file, after indexing, an edit and an addition.
// Against a brute force over random rankings: one row per file, in the order of each file's
// best passage, the row being that passage, with the count of the file's other passages.
void TestIndexHandle::groupingKeepsEachFilesBestPassage()
{
    QRandomGenerator random(27);
    for (int round = 0; round < 200; ++round) {
        QList<SearchResult> ranked;
        const int n = random.bounded(40);
        for (int i = 0; i < n; ++i) {
            SearchResult r;
            r.filePath = QStringLiteral("/d/f%1.txt").arg(random.bounded(6));
            r.id = r.filePath + QLatin1Char(':') + QString::number(i);
            r.score = 1.0f - float(i) / 64.0f;
            r.moreInFile = 99; // whatever came in is replaced
            ranked.append(r);
        }
        const int k = 1 + random.bounded(6);
        const QList<SearchResult> files = ::groupByFile(ranked, k);
        QStringList order;
        for (const SearchResult &r : ranked) {
            if (!order.contains(r.filePath)) {
                order.append(r.filePath);
            }
        }
        QCOMPARE(files.size(), qMin<qsizetype>(k, order.size()));
        for (int row = 0; row < files.size(); ++row) {
            const QString path = order.at(row);
            const auto first = std::find_if(ranked.cbegin(), ranked.cend(), [&path](auto &r) {
                return r.filePath == path;
            });
            QCOMPARE(files.at(row).id, first->id);
            QCOMPARE(files.at(row).moreInFile,
                     int(std::count_if(ranked.cbegin(), ranked.cend(), [&path](auto &r) {
                         return r.filePath == path;
                     })) - 1);
        }
    }
}

void TestIndexHandle::fileListGivesTheReasonForEveryFile()
{
    QTemporaryDir dir;
    const QByteArray words = "words worth indexing in this file\n";
    QVERIFY(writeFile(dir.path(), QStringLiteral("notes.txt"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral("long.txt"), QByteArray(250, 'x')));
    QVERIFY(writeFile(dir.path(), QStringLiteral("edited.md"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral("README.Debian"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral(".gitignore"), "*.log\n"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("run.log"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral("node_modules/dep/index.js"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral("big.txt"), QByteArray(2 * 1024 * 1024, 'y')));
    QVERIFY(writeFile(dir.path(), QStringLiteral("image.png"), words));
    QVERIFY(writeFile(dir.path(), QStringLiteral("latin1.txt"), "caf\xe9 caf\xe9 caf\xe9 caf\xe9"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("tiny.txt"), "tiny"));
    QVERIFY(writeFile(dir.path(), QStringLiteral("broken.docx"), "PK not really a document"));
    m_env->settings()->setMaxFileSizeMB(1);
    IndexHandle engine(dir.path(), QString());
    QVERIFY(engine.ingestDirectory(100, 20, *m_env->walk()) > 0);
    QVERIFY(engine.checkpoint());
    // Written after the index: one file edited, one new.
    QFile edited(dir.filePath(QStringLiteral("edited.md")));
    QVERIFY(edited.open(QIODevice::ReadWrite));
    QVERIFY(edited.setFileTime(QDateTime::currentDateTime().addSecs(60),
                               QFileDevice::FileModificationTime));
    edited.close();
    QVERIFY(writeFile(dir.path(), QStringLiteral("new.txt"), words));

    QMap<QString, QString> said;
    for (const FileInfo &f : engine.fileList(*m_env->walk())) {
        said.insert(QDir(dir.path()).relativeFilePath(f.path), fileStatusText(f));
    }
    m_env->settings()->remove(QStringLiteral("maxFileSizeMB"));
    const QMap<QString, QString> expected = {
        {QStringLiteral("notes.txt"), QStringLiteral("Indexed (1 chunk)")},
        // 250 bytes in windows of 100 bytes every 80: at 0 and 80; a third would run past the end.
        {QStringLiteral("long.txt"), QStringLiteral("Indexed (3 chunks)")},
        {QStringLiteral("README.Debian"), QStringLiteral("Indexed (1 chunk)")},
        {QStringLiteral("edited.md"), QStringLiteral("Changed since indexing")},
        {QStringLiteral("new.txt"), QStringLiteral("Not indexed yet")},
        {QStringLiteral(".gitignore"), QStringLiteral("Excluded by hidden name")},
        {QStringLiteral("run.log"), QStringLiteral("Excluded by .gitignore:1: *.log")},
        {QStringLiteral("node_modules"), QStringLiteral("Excluded by global pattern node_modules")},
        {QStringLiteral("big.txt"), QStringLiteral("Too large")},
        {QStringLiteral("image.png"), QStringLiteral("Binary")},
        {QStringLiteral("latin1.txt"), QStringLiteral("Indexed (1 chunk), read as ISO-8859-1")},
        {QStringLiteral("tiny.txt"), QStringLiteral("Too short")},
        {QStringLiteral("broken.docx"), QStringLiteral("Unreadable")},
    };
    QCOMPARE(said, expected);
}

void TestIndexHandle::clearAndReopenDiscardsTheIndex()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.path(), QStringLiteral("a.txt"), "some words worth indexing\n"));
    {
        IndexHandle engine(dir.path(), QString());
        QVERIFY(engine.ingestDirectory(800, 200, *m_env->walk()) > 0);
    }
    IndexHandle engine(dir.path(), QString());
    QCOMPARE(engine.stats().chunk_count, 1u);
    engine.clearAndReopen(QString());
    QVERIFY(engine.isOpen());
    QCOMPARE(engine.stats().chunk_count, 0u);
    // A missing store is no error either.
    engine.clearAndReopen(QString());
    QCOMPARE(engine.stats().chunk_count, 0u);
}

// Writes a PDF whose pages hold the given lines.
static void writePdf(const QString &path, const QList<QStringList> &pages)
{
    QPdfWriter writer(path);
    writer.setResolution(72);
    QPainter painter(&writer);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPointSize(12);
    painter.setFont(font);
    for (qsizetype p = 0; p < pages.size(); p++) {
        if (p > 0) {
            writer.newPage();
        }
        for (qsizetype i = 0; i < pages.at(p).size(); i++) {
            painter.drawText(40, 60 + int(i) * 40, pages.at(p).at(i));
        }
    }
}

void TestIndexHandle::pdfPageForLine()
{
    QTemporaryDir dir;
    const QString pdf = dir.filePath(QStringLiteral("two.pdf"));
    writePdf(pdf,
             {{QStringLiteral("alpha"), QStringLiteral("beta"), QStringLiteral("gamma")},
              {QStringLiteral("one"),
               QStringLiteral("two"),
               QStringLiteral("three"),
               QStringLiteral("four"),
               QStringLiteral("five")}});
    // Page one is its form feed line and 3 lines; line 5, page two's form feed, shows nothing.
    QCOMPARE(::pdfPageForLine(pdf, 0), std::optional<int>(1));
    QCOMPARE(::pdfPageForLine(pdf, 4), std::optional<int>(1));
    QCOMPARE(::pdfPageForLine(pdf, 6), std::optional<int>(2));
    QCOMPARE(::pdfPageForLine(pdf, 500), std::optional<int>(2));

    QVERIFY(writeFile(dir.path(), QStringLiteral("fake.pdf"), "not a pdf at all"));
    QCOMPARE(::pdfPageForLine(dir.filePath(QStringLiteral("fake.pdf")), 3), std::nullopt);

    // The walk ingests the PDF's text.
    IndexHandle engine(dir.path(), QString());
    QVERIFY(engine.ingestDirectory(800, 200, *m_env->walk()) > 0);
    QCOMPARE(engine.search(QStringLiteral("gamma"), SearchMode::Text, 5).size(), 1);
    // A hit carries the engine's page and line on it, which the preview and opener go to.
    const QList<SearchResult> four = engine.search(QStringLiteral("four"), SearchMode::Text, 5);
    QCOMPARE(four.size(), 1);
    QCOMPARE(four.first().page, 2);
    QCOMPARE(four.first().pageLine, 4);
}

void TestIndexHandle::fileCategory_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("category");
    QTest::newRow("pdf") << "/a/b.PDF" << int(FileCategory::Pdf);
    QTest::newRow("html") << "/a/b.htm" << int(FileCategory::Html);
    QTest::newRow("markdown") << "/a/b.markdown" << int(FileCategory::Markdown);
    QTest::newRow("office and e-books") << "/a/b.odt" << int(FileCategory::Document);
    QTest::newRow("source") << "/a/b.cpp" << int(FileCategory::Plain);
    QTest::newRow("no extension") << "/a/Makefile" << int(FileCategory::Plain);
}

void TestIndexHandle::fileCategory()
{
    QFETCH(QString, path);
    SearchResult result;
    result.filePath = path;
    QTEST(int(::fileCategory(result)), "category");
}

void TestIndexHandle::formatFileSize_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("zero") << qint64(0) << "0 B";
    QTest::newRow("1023") << qint64(1023) << "1023 B";
    QTest::newRow("1024") << qint64(1024) << "1.0 KB";
    QTest::newRow("1536") << qint64(1536) << "1.5 KB";
    QTest::newRow("just below a megabyte") << qint64(1048575) << "1024.0 KB";
    QTest::newRow("1 MB") << qint64(1048576) << "1.0 MB";
    QTest::newRow("5.5 GB in MB") << qint64(5905580032) << "5632.0 MB";
}

void TestIndexHandle::formatFileSize()
{
    QFETCH(qint64, bytes);
    QTEST(::formatFileSize(bytes), "text");
}

void TestIndexHandle::modeNamesDecodeOldAndNewHistories_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("engineMode"); // -1: not a mode
    // Histories written before the keyword modes hold only Semantic, Text and Regex; the
    // application's Semantic searches every file.
    QTest::newRow("Hybrid") << "Hybrid" << int(TRN_SEARCH_HYBRID);
    QTest::newRow("Semantic") << "Semantic" << int(TRN_SEARCH_SEMANTIC_ALL);
    QTest::newRow("Keyword") << "Keyword" << int(TRN_SEARCH_KEYWORD);
    QTest::newRow("Text") << "Text" << int(TRN_SEARCH_TEXT);
    QTest::newRow("Regex") << "Regex" << int(TRN_SEARCH_REGEX);
    QTest::newRow("wrong case") << "semantic" << -1;
    QTest::newRow("unknown") << "Fuzzy" << -1;
}

void TestIndexHandle::modeNamesDecodeOldAndNewHistories()
{
    QFETCH(QString, name);
    QFETCH(int, engineMode);
    const std::optional<SearchMode> mode = searchModeFromName(name);
    QCOMPARE(mode.has_value(), engineMode >= 0);
    if (mode) {
        QCOMPARE(int(*mode), engineMode);
        QCOMPARE(searchModeName(*mode), name);
        QVERIFY(allSearchModes().contains(*mode));
    }
}

QTEST_MAIN(TestIndexHandle)
#include "index_handle_test.moc"
