/*
** The file scope list: filtering by name or relative path and the four sort keys, both ways.
*/
#include "file_list_model.h"

#include <QAbstractItemModelTester>
#include <QtTest>

class TestFileListModel : public QObject
{
    Q_OBJECT

private slots:
    void sortAndFilter_data();
    void sortAndFilter();
    void modelReordersOnPropertyChanges();
};

static FileInfo file(const QString &relative, const QString &type, qint64 size, int chunks,
                     bool indexable)
{
    FileInfo f;
    f.path = QStringLiteral("/root/") + relative;
    f.id = f.path;
    f.name = relative.section(QLatin1Char('/'), -1);
    f.fileType = type;
    f.fileSize = size;
    f.chunkCount = chunks;
    f.isIndexed = chunks > 0;
    f.isIndexable = indexable;
    return f;
}

static QList<FileInfo> sample()
{
    return {file(QStringLiteral("b.txt"), QStringLiteral("Text"), 30, 1, true),
            file(QStringLiteral("docs/A.md"), QStringLiteral("Markdown"), 10, 0, true),
            file(QStringLiteral("c.png"), QStringLiteral("Binary"), 20, 0, false),
            file(QStringLiteral("docs/a2.txt"), QStringLiteral("Text"), 10, 2, true)};
}

void TestFileListModel::sortAndFilter_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<bool>("ascending");
    QTest::addColumn<QString>("filter");
    QTest::addColumn<QStringList>("names");

    QTest::newRow("name ignores case") << int(FileSortKey::Name) << true << ""
                                       << QStringList({"A.md", "a2.txt", "b.txt", "c.png"});
    QTest::newRow("name descending") << int(FileSortKey::Name) << false << ""
                                     << QStringList({"c.png", "b.txt", "a2.txt", "A.md"});
    QTest::newRow("type keeps listed order among equals")
        << int(FileSortKey::Type) << true << ""
        << QStringList({"c.png", "A.md", "b.txt", "a2.txt"});
    QTest::newRow("size") << int(FileSortKey::Size) << true << ""
                          << QStringList({"A.md", "a2.txt", "c.png", "b.txt"});
    QTest::newRow("size descending") << int(FileSortKey::Size) << false << ""
                                     << QStringList({"b.txt", "c.png", "A.md", "a2.txt"});
    QTest::newRow("status: indexed, indexable, other")
        << int(FileSortKey::Status) << true << ""
        << QStringList({"b.txt", "a2.txt", "A.md", "c.png"});
    QTest::newRow("filter on the relative path")
        << int(FileSortKey::Name) << true << "DOCS/" << QStringList({"A.md", "a2.txt"});
    QTest::newRow("filter on the name")
        << int(FileSortKey::Size) << true << ".TXT" << QStringList({"a2.txt", "b.txt"});
    QTest::newRow("filter ignores the directory itself")
        << int(FileSortKey::Name) << true << "root" << QStringList();
}

void TestFileListModel::sortAndFilter()
{
    QFETCH(int, key);
    QFETCH(bool, ascending);
    QFETCH(QString, filter);
    const QList<FileInfo> files = FileListModel::filterAndSort(
        sample(), QStringLiteral("/root"), filter, FileSortKey(key), ascending);
    QStringList names;
    for (const FileInfo &f : files) {
        names.append(f.name);
    }
    QTEST(names, "names");
}

void TestFileListModel::modelReordersOnPropertyChanges()
{
    FileListModel model(nullptr);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    QCOMPARE(model.rowCount(), 0);
    QSignalSpy count(&model, &FileListModel::countChanged);
    model.setFilterText(QStringLiteral("x"));
    model.setSortKey(FileSortKey::Size);
    model.setSortAscending(false);
    QCOMPARE(model.rowCount(), 0);
    QCOMPARE(count.count(), 0); // the file scope's title follows count: no change, no signal
    QStringList keys;
    for (FileSortKey k : allFileSortKeys()) {
        keys.append(fileSortKeyName(k));
    }
    QCOMPARE(keys, QStringList({"Name", "Type", "Size", "Status"}));
}

QTEST_GUILESS_MAIN(TestFileListModel)
#include "file_list_model_test.moc"
