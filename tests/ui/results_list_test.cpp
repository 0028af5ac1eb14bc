/*
** results_list_test.cpp -- searching from the main window like a user would: each mode, a
** launched search, the filter chips, a file's passages, paging, pins, opening a result and the
** prompt button.
*/
#include "filter_chips.h"
#include "main_window_fixture.h"
#include "status_bar.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>

namespace
{

// Pixels of the yellow match marks in a rendering of the results list.
int markPixels(ResultsView *view)
{
    view->doItemsLayout(); // the list lays its rows out lazily
    const QImage image = view->viewport()->grab().toImage();
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.red() > 230 && c.green() > 200 && c.blue() < 200 && c.red() - c.blue() > 60) {
                ++count;
            }
        }
    }
    return count;
}

} // namespace

class ResultsListTest : public MainWindowFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUpCase(); }
    void init() { setUp(); }

    void searchRunsInTheChosenMode_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<bool>("marked");
        QTest::newRow("text ignores case")
            << "MARMALADE" << int(SearchMode::Text) << QStringList{"marmalade.txt"} << true;
        QTest::newRow("regex") << "colou?r of the s[a-z]+" << int(SearchMode::Regex)
                               << QStringList{"colours.txt"} << true;
        QTest::newRow("text without a match")
            << "quince" << int(SearchMode::Text) << QStringList{} << false;
        QTest::newRow("keyword finds the words apart")
            << "sugar PEEL" << int(SearchMode::Keyword) << QStringList{"marmalade.txt"} << true;
        // Semantic hits come in the encoder's order: only that there are some is checked.
        QTest::newRow("semantic finds passages without marking them")
            << "marmalade" << int(SearchMode::Semantic) << QStringList{} << false;
    }

    void searchRunsInTheChosenMode()
    {
        QFETCH(QString, query);
        QFETCH(int, mode);
        QFETCH(QStringList, expected);
        QFETCH(bool, marked);
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        search(*h, query, static_cast<SearchMode>(mode));
        QCOMPARE(h->app.searchMode(), static_cast<SearchMode>(mode));
        if (mode == int(SearchMode::Semantic)) {
            QVERIFY(!shownFileNames(*h).isEmpty());
        } else {
            QCOMPARE(shownFileNames(*h), expected);
        }
        h->window.resultsView()->clearSelection();
        QCOMPARE(markPixels(h->window.resultsView()) > 0, marked);
    }

    // "tarnwick --query WORDS" (the desktop search's "more results") and "--search" (a file
    // manager's "Search in Tarnwick") end here: the words searched, the field ready for typing.
    void launchedSearchFillsTheFieldAndSearches()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        QLineEdit *field = h->window.searchBar()->field();
        QSignalSpy finished(h->app.activeState(), &DirectoryState::searchFinished);
        h->window.focusSearch(QStringLiteral("marmalade"));
        QVERIFY(finished.wait(30000));
        QCOMPARE(field->text(), QStringLiteral("marmalade"));
        QVERIFY(shownFileNames(*h).contains(QStringLiteral("marmalade.txt")));
        QTRY_VERIFY(field->hasFocus());
        QCOMPARE(field->selectedText(), QStringLiteral("marmalade"));
    }

    // The chips write their filter words into the field and search again; a filter typed into
    // the field shows on its chip.
    void filterChipsEditTheQueryText()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        QLineEdit *field = h->window.searchBar()->field();
        FilterChips *chips = h->window.searchBar()->filterChips();
        QToolButton *type = chips->chip(FilterKind::Type);
        QToolButton *folder = chips->chip(FilterKind::Folder);
        const auto choose = [](QToolButton *chip, const QString &name) {
            emit chip->menu()->aboutToShow();
            for (QAction *action : chip->menu()->actions()) {
                if (action->objectName() == name || action->text() == name) {
                    action->trigger();
                    return true;
                }
            }
            return false;
        };
        QTest::keyClicks(field, QStringLiteral("sugar"));
        QSignalSpy finished(h->app.activeState(), &DirectoryState::searchFinished);
        QVERIFY(choose(type, QStringLiteral("type_pdf")));
        QCOMPARE(field->text(), QStringLiteral("sugar type:pdf"));
        QVERIFY(finished.wait(30000));
        QCOMPARE(h->app.activeState()->lastQuery(), QStringLiteral("sugar type:pdf"));
        QCOMPARE(type->text(), QStringLiteral("Type: PDF \u25be"));
        QVERIFY(choose(type, QStringLiteral("type_docx")));
        QCOMPARE(field->text(), QStringLiteral("sugar type:pdf,docx"));
        QVERIFY(choose(type, QStringLiteral("type_pdf"))); // unticked
        QCOMPARE(field->text(), QStringLiteral("sugar type:docx"));

        field->setText(QStringLiteral("in:notes sugar"));
        QCOMPARE(folder->text(), QStringLiteral("Folder: notes \u25be"));
        QVERIFY(folder->property("inUse").toBool());
        QCOMPARE(type->text(), QStringLiteral("Type \u25be"));
        QVERIFY(!type->property("inUse").toBool());
        QVERIFY(choose(folder, QStringLiteral("Any folder")));
        QCOMPARE(field->text(), QStringLiteral("sugar"));
    }

    // One row per file; its other passages open under it from the link or the Right key, and
    // close again from a passage with Left. Every passage lists once, under its own file.
    void aFileRowOpensItsOtherPassagesInPlace()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        QByteArray long_;
        for (int i = 1; i <= 40; ++i) {
            long_ += "Paragraph " + QByteArray::number(i)
                     + " lights the lantern again and waits "
                       "for the ferry to cross the bay in the evening fog.\n";
        }
        QVERIFY(writeFile(dir.path(), QStringLiteral("log.txt"), long_));
        QVERIFY(writeFile(dir.path(), QStringLiteral("short.txt"), "One lantern only.\n"));
        QVERIFY(openAndIndex(*h, dir.path()));
        search(*h, QStringLiteral("lantern"), SearchMode::Text);
        ResultsView *view = h->window.resultsView();
        QAbstractItemModel *model = view->model();
        QCOMPARE(shownFileNames(*h), (QStringList{"log.txt", "short.txt"}));
        const int more = model->index(0, 0).data(ResultsModel::MoreInFileRole).toInt();
        QVERIFY2(more >= 3, qPrintable(QString::number(more)));
        QCOMPARE(model->index(1, 0).data(ResultsModel::MoreInFileRole).toInt(), 0);

        view->doItemsLayout();
        QStyleOptionViewItem option;
        option.initFrom(view);
        option.rect = view->visualRect(model->index(0, 0));
        const QRect link = ResultDelegate::moreRect(option, model->index(0, 0));
        QVERIFY(link.isValid());
        QSignalSpy expanded(h->app.activeState(), &DirectoryState::expandedFilesChanged);
        QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier, link.center());
        QVERIFY(expanded.wait(30000));
        QCOMPARE(model->rowCount(), 2 + more);
        QSet<QString> ids{model->index(0, 0).data(ResultsModel::IdRole).toString()};
        for (int row = 1; row <= more; ++row) {
            const QModelIndex passage = model->index(row, 0);
            QVERIFY(passage.data(ResultsModel::IsPassageRole).toBool());
            QCOMPARE(passage.data(ResultsModel::FileNameRole).toString(),
                     QStringLiteral("log.txt"));
            ids.insert(passage.data(ResultsModel::IdRole).toString());
        }
        QCOMPARE(ids.size(), 1 + more);
        QCOMPARE(model->index(1 + more, 0).data(ResultsModel::FileNameRole).toString(),
                 QStringLiteral("short.txt"));

        // Left on a passage closes the file and goes back to its row.
        view->setFocus();
        view->setCurrentIndex(model->index(2, 0));
        QTest::keyClick(view, Qt::Key_Left);
        QCOMPARE(model->rowCount(), 2);
        QCOMPARE(view->currentIndex().row(), 0);
        QTest::keyClick(view, Qt::Key_Right);
        QVERIFY(expanded.wait(30000));
        QCOMPARE(model->rowCount(), 2 + more);

        // A new search starts with every file closed; "Every Passage" lists them all.
        h->window.action(QStringLiteral("allPassagesAction"))->trigger();
        QSignalSpy finished(h->app.activeState(), &DirectoryState::searchFinished);
        QVERIFY(finished.wait(30000));
        QCOMPARE(model->rowCount(), 2 + more);
        QVERIFY(!model->index(1, 0).data(ResultsModel::IsPassageRole).toBool());
        QCOMPARE(model->index(0, 0).data(ResultsModel::MoreInFileRole).toInt(), 0);
        h->window.action(QStringLiteral("allPassagesAction"))->trigger();
        QVERIFY(finished.wait(30000));
        QCOMPARE(model->rowCount(), 2);
    }

    void loadMoreResultsPagesUntilTheAnswerIsShort()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        // 25 small files that all mention the word: 25 matching chunks.
        for (int i = 0; i < 25; ++i) {
            QVERIFY(writeFile(dir.path(),
                              QStringLiteral("lamp%1.txt").arg(i),
                              "An oil lantern, number " + QByteArray::number(i) + ".\n"));
        }
        QVERIFY(openAndIndex(*h, dir.path()));
        QPushButton *more = h->window.loadMoreButton();
        search(*h, QStringLiteral("lantern"), SearchMode::Text);
        QCOMPARE(h->window.resultsView()->model()->rowCount(), 10);
        QVERIFY(more->isVisible());
        QCOMPARE(more->text(), QStringLiteral("Load More Results"));

        DirectoryState *state = h->app.activeState();
        QSignalSpy finished(state, &DirectoryState::searchFinished);
        more->click();
        QVERIFY(!more->isEnabled()); // while the page loads
        QVERIFY(finished.wait(30000));
        QCOMPARE(h->window.resultsView()->model()->rowCount(), 20);
        QVERIFY(more->isVisible());
        more->click();
        QVERIFY(finished.wait(30000));
        QCOMPARE(h->window.resultsView()->model()->rowCount(), 25);
        QVERIFY(!more->isVisible());
        // Paging re-runs the search; it is not a new history entry.
        QCOMPARE(state->searchHistory().size(), 1);
    }

    void pinnedResultsStayFirstAcrossSearches()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        search(*h, QStringLiteral("the"), SearchMode::Text);
        ResultsView *view = h->window.resultsView();
        QVERIFY(view->model()->rowCount() >= 2);
        const QModelIndex second = view->model()->index(1, 0);
        const QString pinnedName = second.data(ResultsModel::FileNameRole).toString();
        const QPoint pin = ResultDelegate::pinRect(view->visualRect(second)).center();
        sendMouse(view->viewport(), QEvent::MouseButtonPress, pin);
        sendMouse(view->viewport(), QEvent::MouseButtonRelease, pin, Qt::LeftButton, Qt::NoButton);
        QCOMPARE(view->model()->index(0, 0).data(ResultsModel::FileNameRole).toString(),
                 pinnedName);
        QVERIFY(view->model()->index(0, 0).data(ResultsModel::IsPinnedRole).toBool());

        search(*h, QStringLiteral("marmalade"), SearchMode::Text);
        QStringList names = shownFileNames(*h);
        QCOMPARE(names.first(), pinnedName);
        QCOMPARE(names.count(pinnedName), 1);

        // Ctrl+D on the pinned row unpins it.
        view->setFocus();
        view->setCurrentIndex(view->model()->index(0, 0));
        QTest::keyClick(view, Qt::Key_D, Qt::ControlModifier);
        names = shownFileNames(*h);
        if (pinnedName != QLatin1String("marmalade.txt")) {
            QVERIFY(!names.contains(pinnedName));
        }
        QVERIFY(h->app.activeState()->pinnedResults().isEmpty());
    }

    void returnOpensTheResultInTheEditorAtItsLine()
    {
        QStringList started;
        DesktopServices desktop;
        desktop.startDetached = [&started](const QString &program, const QStringList &args) {
            started = QStringList{program} + args;
            return true;
        };
        setDesktopServices(desktop);
        m_home->settings()->setOpenTextFilesWith(QStringLiteral("custom"));
        m_home->settings()->setEditorCommand(QStringLiteral("my-editor --line={line} {file}"));
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        search(*h, QStringLiteral("marmalade"), SearchMode::Text);
        ResultsView *view = h->window.resultsView();
        view->setFocus();
        view->setCurrentIndex(view->model()->index(0, 0));
        QTest::keyClick(view, Qt::Key_Return);
        QCOMPARE(started.size(), 3);
        QCOMPARE(started.at(0), QStringLiteral("my-editor"));
        QCOMPARE(started.at(1), QStringLiteral("--line=1"));
        QVERIFY(started.at(2).endsWith(QStringLiteral("marmalade.txt")));

        // An editor that does not start and no application for the file: the status bar says so.
        desktop.startDetached = [](const QString &, const QStringList &) {
            return false;
        };
        desktop.openUrl = [](const QUrl &) {
            return false;
        };
        setDesktopServices(desktop);
        QTest::keyClick(view, Qt::Key_Return);
        QVERIFY2(h->window.statusBarView()->statusLabel()->text().startsWith(
                     QStringLiteral("Could not start \"my-editor\"")),
                 qPrintable(h->window.statusBarView()->statusLabel()->text()));
        m_home->settings()->remove(QStringLiteral("openTextFilesWith"));
        m_home->settings()->remove(QStringLiteral("editorCommand"));
        setDesktopServices({});
    }

    void copyButtonOffersTheThreePromptScopes()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        QVERIFY(openAndIndex(*h, dir.path()));
        search(*h, QStringLiteral("marmalade"), SearchMode::Text);

        QPushButton *copy = h->window.searchBar()->copyButton();
        const QKeySequence key = h->window.action(QStringLiteral("copyPromptAction"))->shortcut();
        QVERIFY(copy->toolTip().endsWith(" (" + key.toString() + ")"));
        QMenu *menu = copy->menu();
        QVERIFY(menu);
        QStringList scopes;
        for (QAction *action : menu->actions()) {
            if (!action->isSeparator()) {
                scopes.append(action->text());
            }
        }
        QCOMPARE(scopes, (QStringList{"Pinned", "Top 5", "All Visible"}));

        auto scope = [menu](const QString &text) {
            for (QAction *action : menu->actions()) {
                if (action->text() == text) {
                    return action;
                }
            }
            return static_cast<QAction *>(nullptr);
        };
        scope(QStringLiteral("Pinned"))->trigger();
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QStringLiteral("No results to include in prompt."));
        scope(QStringLiteral("All Visible"))->trigger();
        const QString prompt = QGuiApplication::clipboard()->text();
        QVERIFY(prompt.contains(QStringLiteral("[notes/marmalade.txt, line 1]")));
        QVERIFY(prompt.endsWith(QStringLiteral("--- Question ---\n\nmarmalade\n")));

        // The menu command copies the top five.
        QGuiApplication::clipboard()->clear();
        h->window.action(QStringLiteral("copyPromptAction"))->trigger();
        QCOMPARE(QGuiApplication::clipboard()->text(), prompt);
    }
};

QTEST_MAIN(ResultsListTest)
#include "results_list_test.moc"
