/*
** What the status bar says while a tab indexes.
*/
#include "indexing_text.h"

#include <QtTest>

class TestIndexingText : public QObject
{
    Q_OBJECT

private slots:
    void indexingProgressText_data();
    void indexingProgressText();
    void bytesTellTheTimeLeftWhenKnown();
    void meaningTellsItsShareAndTheTimeLeftAtItsOwnPace();
};

void TestIndexingText::indexingProgressText_data()
{
    QTest::addColumn<int>("done");
    QTest::addColumn<int>("found");
    QTest::addColumn<int>("chunks");
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("expected");
    QTest::newRow("walking") << 0 << 0 << 0 << 0.5 << "Indexing: looking for files...";
    QTest::newRow("no total while walking and indexing at once")
        << 3 << 0 << 30 << 10.0 << "Indexing 3 files, 30 chunks, 3.0 chunks/s";
    QTest::newRow("nothing done yet: no estimate")
        << 0 << 40 << 0 << 0.5 << "Indexing 0 of 40 files, 0 chunks";
    QTest::newRow("a quarter done in 5 s leaves 15 s")
        << 10 << 40 << 100 << 5.0
        << "Indexing 10 of 40 files, 100 chunks, 20.0 chunks/s, about 15 s left";
    QTest::newRow("minutes are rounded")
        << 1 << 10 << 50 << 20.0
        << "Indexing 1 of 10 files, 50 chunks, 2.5 chunks/s, about 3 min left";
    QTest::newRow("hours and minutes")
        << 1 << 200 << 9 << 30.0
        << "Indexing 1 of 200 files, 9 chunks, 0.3 chunks/s, about 1 h 40 min left";
    QTest::newRow("all done: no time left")
        << 40 << 40 << 400 << 8.0 << "Indexing 40 of 40 files, 400 chunks, 50.0 chunks/s";
}

void TestIndexingText::indexingProgressText()
{
    QFETCH(int, done);
    QFETCH(int, found);
    QFETCH(int, chunks);
    QFETCH(double, seconds);
    QFETCH(QString, expected);
    QCOMPARE(::indexingProgressText(IndexingProgress{done, found, chunks}, seconds), expected);
}

void TestIndexingText::bytesTellTheTimeLeftWhenKnown()
{
    // One large file done of four: its bytes say the rest is nearly nothing, the count a third.
    IndexingProgress progress{1, 4, 90};
    QCOMPARE(::indexingProgressText(progress, 10.0),
             QStringLiteral("Indexing 1 of 4 files, 90 chunks, 9.0 chunks/s, about 30 s left"));
    progress.bytesDone = 900;
    progress.bytesAll = 1000;
    QCOMPARE(::indexingProgressText(progress, 10.0),
             QStringLiteral("Indexing 1 of 4 files, 90 chunks, 9.0 chunks/s, about 1 s left"));
    progress.bytesDone = 100; // a small file first: nine times as long to come
    QCOMPARE(::indexingProgressText(progress, 10.0),
             QStringLiteral("Indexing 1 of 4 files, 90 chunks, 9.0 chunks/s, about 2 min left"));
}

void TestIndexingText::meaningTellsItsShareAndTheTimeLeftAtItsOwnPace()
{
    IndexingProgress progress;
    progress.meaning = true;
    progress.filesIndexed = 551;
    progress.chunksAll = 1000;
    // 380 of 1000 embedded, 80 of them in the 40 s since the phase began: 620 more take 310 s.
    progress.chunksEmbedded = 380;
    QCOMPARE(meaningProgressText(progress, 300, 40.0),
             QStringLiteral("words: all 551 files \u00b7 meaning: 38%, about 5 min left"));
    // Nothing embedded since the phase began: no pace yet, no time left.
    QCOMPARE(meaningProgressText(progress, 380, 40.0),
             QStringLiteral("words: all 551 files \u00b7 meaning: 38%"));
    // 999 of 1000 is not done: the share is rounded down.
    progress.chunksEmbedded = 999;
    QVERIFY(meaningProgressText(progress, 0, 10.0).contains(QStringLiteral("meaning: 99%")));
    // Results say they are partial in the modes that rank by meaning, only while a vector is
    // missing.
    QVERIFY(partialResultsText(380, 1000, SearchMode::Hybrid).startsWith("Meaning: 38% "));
    QVERIFY(!partialResultsText(380, 1000, SearchMode::Semantic).isEmpty());
    QVERIFY(partialResultsText(380, 1000, SearchMode::Keyword).isEmpty());
    QVERIFY(partialResultsText(1000, 1000, SearchMode::Hybrid).isEmpty());
}

QTEST_GUILESS_MAIN(TestIndexingText)
#include "indexing_text_test.moc"
