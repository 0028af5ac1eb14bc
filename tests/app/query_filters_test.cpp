/*
** query_filters_test.cpp -- the filter words the chips write into a query and read back out.
*/
#include "query_filters.h"

#include <QtTest>

class QueryFiltersTest : public QObject
{
    Q_OBJECT

private slots:
    void chipsComposeTheQuery_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("composed");
        const int type = int(FilterKind::Type);
        const int folder = int(FilterKind::Folder);
        const int modified = int(FilterKind::Modified);
        QTest::newRow("added at the end") << "bread rise" << type << "pdf"
                                          << "bread rise type:pdf";
        QTest::newRow("replaces, whatever the key's case") << "TYPE:md bread" << type << "pdf,docx"
                                                           << "bread type:pdf,docx";
        QTest::newRow("every word of its kind goes") << "type:pdf bread type:odt" << type << "epub"
                                                     << "bread type:epub";
        QTest::newRow("empty value removes") << "bread in:notes rise" << folder << ""
                                             << "bread rise";
        QTest::newRow("folder with a space is quoted") << "bread" << folder << "my notes/2024"
                                                       << "bread in:\"my notes/2024\"";
        QTest::newRow("quoted folder replaced whole") << "in:\"my notes\" bread" << folder << "src"
                                                      << "bread in:src";
        QTest::newRow("other kinds and syntax stay")
            << "\"exact phrase\" -draft type:pdf" << modified << ">=2024-01-01"
            << "\"exact phrase\" -draft type:pdf modified:>=2024-01-01";
        QTest::newRow("a filter inside a phrase is words") << "\"see in:docs\"" << folder << "src"
                                                           << "\"see in:docs\" in:src";
        QTest::newRow("an excluded word is not a filter") << "-in:docs bread" << folder << ""
                                                          << "-in:docs bread";
        QTest::newRow("quotes in a value are dropped") << "bread" << folder << "a\"b"
                                                       << "bread in:ab";
    }
    void chipsComposeTheQuery()
    {
        QFETCH(QString, query);
        QFETCH(int, kind);
        QFETCH(QString, value);
        QFETCH(QString, composed);
        QCOMPARE(withFilter(query, FilterKind(kind), value), composed);
        // And the chip reads back what it wrote.
        QString clean = value;
        clean.remove(QLatin1Char('"'));
        QCOMPARE(filterValue(composed, FilterKind(kind)), clean);
    }

    void typedFiltersShowOnTheirChips()
    {
        const QString query = QStringLiteral(
            "rise type:pdf in:\"kitchen notes\" type:docx modified:2024-01-01..2024-06-30 "
            "modified:>=2025-02-01 \"in:phrase\"");
        QCOMPARE(filterValue(query, FilterKind::Type), QStringLiteral("pdf,docx"));
        QCOMPARE(filterValue(query, FilterKind::Folder), QStringLiteral("kitchen notes"));
        QCOMPARE(filterValue(query, FilterKind::Modified), QStringLiteral(">=2025-02-01"));
        QCOMPARE(withoutFilters(query), QStringLiteral("rise \"in:phrase\""));
        QCOMPARE(filterValue(QStringLiteral("type: in:"), FilterKind::Type), QString());
    }

    void onlyWhatIsSearchedForIsMarked()
    {
        QCOMPARE(searchedText(QStringLiteral("rye  bread")), QStringLiteral("rye  bread"));
        QCOMPARE(searchedText(QStringLiteral("rye \"white bread\" -crust in:notes type:pdf")),
                 QStringLiteral("rye white bread"));
        QCOMPARE(searchedText(QStringLiteral("-Wall")), QStringLiteral("-Wall"));
    }

    void datesAreWrittenAsTheEngineReadsThem()
    {
        QCOMPARE(modifiedSince(QDate(2024, 3, 7)), QStringLiteral(">=2024-03-07"));
        QCOMPARE(modifiedBetween(QDate(2024, 1, 1), QDate(2024, 6, 30)),
                 QStringLiteral("2024-01-01..2024-06-30"));
    }
};

QTEST_GUILESS_MAIN(QueryFiltersTest)
#include "query_filters_test.moc"
