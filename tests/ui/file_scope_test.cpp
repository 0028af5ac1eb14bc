/*
** file_scope_test.cpp -- the file scope window: scanning state, columns, sorting by each key in
** both directions from the header, the filter, and closing with its tab.
*/
#include "file_scope_window.h"
#include "main_window.h"
#include "ui_test_support.h"

#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QTableView>

#include <memory>

namespace
{

QStringList column(QTableView *table, int col)
{
    QStringList values;
    for (int row = 0; row < table->model()->rowCount(); ++row) {
        values.append(table->model()->index(row, col).data().toString());
    }
    return values;
}

void clickHeader(QTableView *table, int section)
{
    QHeaderView *header = table->horizontalHeader();
    const QPoint at(header->sectionViewportPosition(section) + header->sectionSize(section) / 2,
                    header->height() / 2);
    QTest::mouseClick(header->viewport(), Qt::LeftButton, Qt::NoModifier, at);
}

} // namespace

class FileScopeTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        m_home->settings()->remove(QStringLiteral("savedTabPaths"));
        QVERIFY(m_dir.isValid());
        // Sizes 120, 60 and 30 bytes; a binary file; a file too short to index.
        QVERIFY(writeFile(m_dir.path(), QStringLiteral("banana.txt"), QByteArray(119, 'b') + "\n"));
        QVERIFY(writeFile(m_dir.path(), QStringLiteral("Apple.md"), QByteArray(59, 'a') + "\n"));
        QVERIFY(writeFile(
            m_dir.path(), QStringLiteral("Notes/cherry.txt"), QByteArray(29, 'c') + "\n"));
        QVERIFY(
            writeFile(m_dir.path(), QStringLiteral("image.bin"), QByteArray("\x00\x01\x02", 3)));
        QVERIFY(writeFile(m_dir.path(), QStringLiteral("tiny.txt"), "short\n"));

        m_open = openAppWindow(m_home->settings());
        m_app = &m_open->app;
        m_window = &m_open->window;
        m_app->addTab(m_dir.path());
        DirectoryState *state = m_app->activeState();
        QVERIFY(state);
        QVERIFY(QTest::qWaitFor(
            [state] {
                return !state->isIngesting();
            },
            60000));
    }
    void cleanupTestCase() { m_open.reset(); }

    void showsScanningUntilTheListingArrives()
    {
        m_window->action(QStringLiteral("fileScopeAction"))->trigger();
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QVERIFY(scope && scope->isVisible());
        QVERIFY(scope->isScanning());
        QVERIFY(scope->findChild<QLabel *>(QStringLiteral("scanningLabel"))->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!scope->isScanning(), 10000);
        QCOMPARE(scope->table()->model()->rowCount(), 5);
        QVERIFY(scope->windowTitle().endsWith(QFileInfo(m_dir.path()).fileName()));
    }

    void columnsShowTypeSizeChunksAndStatus()
    {
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QTableView *table = scope->table();
        QLineEdit *filter = scope->filterField();
        filter->clear();
        QTest::keyClicks(filter, QStringLiteral("banana"));
        QCOMPARE(table->model()->rowCount(), 1);
        QCOMPARE(table->model()->index(0, FileTableModel::TypeColumn).data().toString(),
                 QStringLiteral("Text"));
        QCOMPARE(table->model()->index(0, FileTableModel::SizeColumn).data().toString(),
                 QStringLiteral("120 B"));
        QCOMPARE(table->model()->index(0, FileTableModel::ChunksColumn).data().toString(),
                 QStringLiteral("1"));
        QCOMPARE(table->model()->index(0, FileTableModel::StatusColumn).data().toString(),
                 QStringLiteral("Indexed (1 chunk)"));
        filter->clear();
        QTest::keyClicks(filter, QStringLiteral("tiny"));
        QCOMPARE(table->model()->index(0, FileTableModel::StatusColumn).data().toString(),
                 QStringLiteral("Too short"));
        filter->clear();
        QTest::keyClicks(filter, QStringLiteral("image"));
        QCOMPARE(table->model()->index(0, FileTableModel::StatusColumn).data().toString(),
                 QStringLiteral("Binary"));
        QCOMPARE(table->model()->index(0, FileTableModel::ChunksColumn).data().toString(),
                 QString());
        filter->clear();
    }

    void headerSortsEachKeyBothWays_data()
    {
        QTest::addColumn<int>("section");
        QTest::addColumn<QStringList>("ascending");
        QTest::newRow("name ignores case")
            << int(FileTableModel::NameColumn)
            << QStringList{"Apple.md", "banana.txt", "cherry.txt", "image.bin", "tiny.txt"};
        QTest::newRow("size")
            << int(FileTableModel::SizeColumn)
            << QStringList{"image.bin", "tiny.txt", "cherry.txt", "Apple.md", "banana.txt"};
    }
    void headerSortsEachKeyBothWays()
    {
        QFETCH(int, section);
        QFETCH(QStringList, ascending);
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QTableView *table = scope->table();
        // Start from another key so the first click sorts ascending.
        scope->fileModel()->setSortKey(section == FileTableModel::NameColumn ? FileSortKey::Size
                                                                             : FileSortKey::Name);
        clickHeader(table, section);
        QCOMPARE(column(table, FileTableModel::NameColumn), ascending);
        QCOMPARE(table->horizontalHeader()->sortIndicatorSection(), section);
        QCOMPARE(table->horizontalHeader()->sortIndicatorOrder(), Qt::AscendingOrder);
        clickHeader(table, section);
        QStringList descending = ascending;
        std::reverse(descending.begin(), descending.end());
        QCOMPARE(column(table, FileTableModel::NameColumn), descending);
        QCOMPARE(table->horizontalHeader()->sortIndicatorOrder(), Qt::DescendingOrder);
    }

    // The order by status is the model's own (file_list_model_test); the header picks it.
    void statusHeaderSortsByStatus()
    {
        FileScopeWindow *scope = m_window->fileScopeWindow();
        scope->fileModel()->setSortKey(FileSortKey::Name);
        clickHeader(scope->table(), FileTableModel::StatusColumn);
        QCOMPARE(scope->fileModel()->sortKey(), FileSortKey::Status);
    }

    void columnsWithoutAKeyDoNotSort()
    {
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QTableView *table = scope->table();
        scope->fileModel()->setSortKey(FileSortKey::Size);
        scope->fileModel()->setSortAscending(true);
        const QStringList before = column(table, FileTableModel::NameColumn);
        clickHeader(table, FileTableModel::ChunksColumn);
        QCOMPARE(column(table, FileTableModel::NameColumn), before);
        QCOMPARE(table->horizontalHeader()->sortIndicatorSection(),
                 int(FileTableModel::SizeColumn));
    }

    void filterMatchesNameOrRelativePathIgnoringCase()
    {
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QTableView *table = scope->table();
        scope->fileModel()->setSortKey(FileSortKey::Name);
        scope->fileModel()->setSortAscending(true);
        QLineEdit *filter = scope->filterField();
        filter->clear();
        QTest::keyClicks(filter, QStringLiteral("NOTES/"));
        QCOMPARE(column(table, FileTableModel::NameColumn), QStringList{"cherry.txt"});
        QCOMPARE(table->model()->index(0, FileTableModel::FolderColumn).data().toString(),
                 QStringLiteral("Notes"));
        filter->clear();
        QTest::keyClicks(filter, QStringLiteral(".TXT"));
        QCOMPARE(column(table, FileTableModel::NameColumn),
                 (QStringList{"banana.txt", "cherry.txt", "tiny.txt"}));
        filter->clear();
        QCOMPARE(table->model()->rowCount(), 5);
    }

    void closesWhenItsTabCloses()
    {
        FileScopeWindow *scope = m_window->fileScopeWindow();
        QVERIFY(scope->isVisible());
        m_app->closeActiveTab();
        QVERIFY(!scope->isVisible());
        QCOMPARE(scope->table()->model()->rowCount(), 0);
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
    QTemporaryDir m_dir;
    std::unique_ptr<AppWindow> m_open;
    AppState *m_app = nullptr;
    MainWindow *m_window = nullptr;
};

QTEST_MAIN(FileScopeTest)
#include "file_scope_test.moc"
