/*
** main_window_test.cpp -- the main window driven like a user would: opening directories,
** searching in each mode, paging, pinning, opening results, the tab strip, the prompt button,
** the status bar and the menu commands.
*/
#include "filter_chips.h"
#include "icons.h"
#include "main_window.h"
#include "missing_folder_bar.h"
#include "result_opener.h"
#include "results_model.h"
#include "results_view.h"
#include "search_bar.h"
#include "status_bar.h"
#include "tab_strip.h"
#include "ui_test_support.h"

#include <QAbstractButton>
#include <QAction>
#include <QClipboard>
#include <QComboBox>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>

#include <memory>

namespace
{

// A small directory: three text files and a source file.
void writeSample(const QString &dir)
{
    QVERIFY(writeFile(dir,
                      QStringLiteral("notes/marmalade.txt"),
                      "Seville oranges make the best marmalade.\nBoil the peel for two hours "
                      "before the sugar goes in.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("colours.txt"),
                      "The colour of the sky at dusk,\nand the color of the sea at dawn.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("garden.md"),
                      "# Garden\n\nThe raised beds get the most sun in June.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("src/tool.c"),
                      "int main(void)\n{\n    return 0; /* nothing to do yet */\n}\n"));
}

DirectoryState *openAndIndex(AppWindow &h, const QString &dir)
{
    h.app.addTab(dir);
    DirectoryState *state = h.app.activeState();
    if (state) {
        if (!QTest::qWaitFor(
                [state] {
                    return !state->isIngesting();
                },
                60000)) {
            return nullptr;
        }
    }
    return state;
}

void search(AppWindow &h, const QString &query, SearchMode mode)
{
    QLineEdit *field = h.window.searchBar()->field();
    field->clear();
    // The mode first: with text in the field a change of mode would search at once.
    h.window.searchBar()->modeButton(mode)->click();
    QTest::keyClicks(field, query);
    DirectoryState *state = h.app.activeState();
    QSignalSpy finished(state, &DirectoryState::searchFinished);
    QTest::keyClick(field, Qt::Key_Return);
    QVERIFY(finished.wait(30000));
}

QStringList shownFileNames(const AppWindow &h)
{
    QStringList names;
    QAbstractItemModel *model = h.window.resultsView()->model();
    for (int row = 0; model && row < model->rowCount(); ++row) {
        names.append(model->index(row, 0).data(ResultsModel::FileNameRole).toString());
    }
    return names;
}

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

class MainWindowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        m_home->settings()->setAppearance(QStringLiteral("light"));
    }
    void init()
    {
        m_home->settings()->setHoverPreview(false); // these tests are not about previews
        setDesktopServices({});
    }

    // The window icon is drawn at each size the desktop asks for, not scaled from one.
    void applicationIconHoldsEverySize()
    {
        const QIcon icon = applicationIcon();
        for (int size : {16, 24, 32, 48, 64, 128, 256}) {
            QVERIFY2(icon.availableSizes().contains(QSize(size, size)),
                     qPrintable(QString::number(size)));
            const QImage image(QStringLiteral(":/icons/app/%1.png").arg(size));
            QCOMPARE(image.size(), QSize(size, size));
        }
    }

    void withoutTabsTheWindowInvitesOpeningADirectory()
    {
        auto h = openAppWindow(m_home->settings());
        QVERIFY(h->window.isShowingEmptyState());
        QVERIFY(!h->window.searchBar()->field()->isEnabled());
        QVERIFY(!h->window.action(QStringLiteral("closeTabAction"))->isEnabled());
        // Nothing in the status bar belongs to a directory yet.
        StatusBarView *bar = h->window.statusBarView();
        QVERIFY(!bar->branchLabel()->isVisibleTo(&h->window));
        QVERIFY(!bar->encoderPicker()->isVisibleTo(&h->window));
        QVERIFY(!bar->reindexButton()->isVisibleTo(&h->window));
        QCOMPARE(bar->statusLabel()->text(), QStringLiteral("No directory open"));

        TabFolder dir;
        writeSample(dir.path());
        h->window.setDirectoryChooser([&dir](QWidget *) {
            return QStringList{dir.path()};
        });
        auto *open = h->window.findChild<QPushButton *>(QStringLiteral("emptyOpenButton"));
        QVERIFY(open);
        open->click();
        QCOMPARE(h->app.tabs().size(), 1);
        QVERIFY(!h->window.isShowingEmptyState());
        QCOMPARE(h->window.tabStrip()->tabText(0), QFileInfo(dir.path()).fileName());
        QVERIFY(h->window.searchBar()->field()->isEnabled());
        QVERIFY(h->window.windowTitle().startsWith(QFileInfo(dir.path()).fileName()));

        h->window.action(QStringLiteral("closeTabAction"))->trigger();
        QVERIFY(h->app.tabs().isEmpty());
        QVERIFY(h->window.isShowingEmptyState());
    }

    // A saved tab whose folder is gone is named above the results; Locate opens it where it went.
    void aSavedFolderThatIsGoneIsNamedUntilItIsLocated()
    {
        TabFolder root;
        const QString gone = root.filePath(QStringLiteral("harbour notes"));
        const QString found = root.filePath(QStringLiteral("elsewhere"));
        QVERIFY(QDir().mkpath(found));
        m_home->settings()->setSavedTabPaths({gone});
        auto h = std::make_unique<AppWindow>(m_home->settings());
        QSignalSpy restored(&h->app, &AppState::stateRestored);
        h->window.show();
        QVERIFY(!restored.isEmpty() || restored.wait(2000));
        MissingFolderBar *bar = h->window.missingFolderBar();
        QVERIFY(bar->isVisibleTo(&h->window));
        QVERIFY(h->window.isShowingEmptyState());
        const auto *text = bar->findChild<QLabel *>(QStringLiteral("missingFolderText"));
        QVERIFY(text->text().contains(QStringLiteral("\u201charbour notes\u201d")));
        QString asked;
        bar->setLocator([&asked, found](QWidget *, const QString &missing) {
            asked = missing;
            return found;
        });
        bar->findChild<QPushButton *>(QStringLiteral("locateMissingButton"))->click();
        QCOMPARE(asked, gone);
        QCOMPARE(h->app.tabs().size(), 1);
        QVERIFY(!bar->isVisibleTo(&h->window));
        QVERIFY(!h->window.isShowingEmptyState());
        QCOMPARE(m_home->settings()->savedTabPaths(), QStringList({found}));
        h->app.closeActiveTab();
    }

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
        QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("notes")));
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

    void draggingATabReordersTheTabsLive()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder root;
        QStringList names = {
            QStringLiteral("alpha"), QStringLiteral("bravo"), QStringLiteral("charlie")};
        for (const QString &name : names) {
            QVERIFY(QDir(root.path()).mkpath(name));
            h->app.addTab(root.filePath(name));
        }
        TabStrip *strip = h->window.tabStrip();
        auto order = [strip] {
            QStringList texts;
            for (int i = 0; i < strip->count(); ++i) {
                texts.append(strip->tabText(i));
            }
            return texts;
        };
        QCOMPARE(order(), names);

        // alpha onto charlie: bravo charlie alpha, while the button is still down.
        const QPoint start = strip->tabRect(0).center();
        sendMouse(strip, QEvent::MouseButtonPress, start);
        sendMouse(
            strip, QEvent::MouseMove, strip->tabRect(1).center() + QPoint(4, 0), Qt::NoButton);
        QCOMPARE(order(), (QStringList{"bravo", "alpha", "charlie"}));
        sendMouse(
            strip, QEvent::MouseMove, strip->tabRect(2).center() + QPoint(4, 0), Qt::NoButton);
        QCOMPARE(order(), (QStringList{"bravo", "charlie", "alpha"}));
        QCOMPARE(strip->draggedTabId(), h->app.tabs().last().id);
        sendMouse(strip,
                  QEvent::MouseButtonRelease,
                  strip->tabRect(2).center(),
                  Qt::LeftButton,
                  Qt::NoButton);
        QVERIFY(strip->draggedTabId().isNull());
        QCOMPARE(h->app.tabs().last().name, QStringLiteral("alpha"));

        // A move that does not pass the middle of the neighbour leaves the order alone.
        sendMouse(strip, QEvent::MouseButtonPress, strip->tabRect(2).center());
        const QRect neighbour = strip->tabRect(1);
        sendMouse(strip,
                  QEvent::MouseMove,
                  QPoint(neighbour.right() - 2, neighbour.center().y()),
                  Qt::NoButton);
        QCOMPARE(order(), (QStringList{"bravo", "charlie", "alpha"}));
        sendMouse(
            strip, QEvent::MouseMove, strip->tabRect(0).center() - QPoint(4, 0), Qt::NoButton);
        QCOMPARE(order(), (QStringList{"alpha", "bravo", "charlie"}));
        sendMouse(strip,
                  QEvent::MouseButtonRelease,
                  strip->tabRect(0).center(),
                  Qt::LeftButton,
                  Qt::NoButton);
    }

    void clickingATabSelectsItAndItsCloseButtonClosesIt()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder root;
        for (const char *name : {"one", "two", "three"}) {
            QVERIFY(QDir(root.path()).mkpath(name));
            h->app.addTab(root.filePath(name));
        }
        TabStrip *strip = h->window.tabStrip();
        QTest::mouseClick(strip, Qt::LeftButton, Qt::NoModifier, strip->tabRect(0).center());
        QCOMPARE(h->app.activeTab()->name, QStringLiteral("one"));
        QCOMPARE(strip->currentIndex(), 0);

        auto *close = qobject_cast<QToolButton *>(strip->tabButton(1, QTabBar::RightSide));
        QVERIFY(close);
        close->click();
        QCOMPARE(h->app.tabs().size(), 2);
        QCOMPARE(strip->count(), 2);
        QCOMPARE(strip->tabText(1), QStringLiteral("three"));
        QCOMPARE(h->app.activeTab()->name, QStringLiteral("one")); // not the closed one
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

    void statusBarShowsTheActiveTabAndReindexes()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        DirectoryState *state = openAndIndex(*h, dir.path());
        QVERIFY(state);
        StatusBarView *bar = h->window.statusBarView();
        QCOMPARE(bar->statusLabel()->text(), state->statusText());
        QVERIFY(bar->statusLabel()->text().endsWith(QStringLiteral(" files")));
        QCOMPARE(bar->encoderPicker()->itemText(0), QStringLiteral("Default"));
        QVERIFY(!bar->progressBar()->isVisible());

        // Re-index updates at once; Rebuild asks first, naming what is discarded.
        QSignalSpy done(state, &DirectoryState::ingestFinished);
        bar->reindexButton()->click();
        QVERIFY(state->isIngesting());
        QVERIFY(!bar->reindexButton()->isEnabled());
        QVERIFY(done.wait(60000));
        QVERIFY(bar->reindexButton()->isEnabled());
        QCOMPARE(bar->statusLabel()->text(), state->statusText());

        QString question;
        bool answer = false;
        h->window.setConfirmer(
            [&question, &answer](QWidget *, const QString &, const QString &text) {
                question = text;
                return answer;
            });
        QAction *rebuild = h->window.action(QStringLiteral("rebuildIndexAction"));
        rebuild->trigger();
        QVERIFY2(question.contains(QStringLiteral(" chunks from ")), qPrintable(question));
        QVERIFY(!state->isIngesting());
        answer = true;
        rebuild->trigger();
        QVERIFY(bar->progressBar()->isVisible());
        QVERIFY(!bar->reindexButton()->isEnabled());
        QVERIFY(done.wait(60000));
        QVERIFY(!bar->progressBar()->isVisible());
        QCOMPARE(bar->statusLabel()->text(), state->statusText());
    }

    // Nothing pressed: an edit saved in the open directory reaches the results once it settled.
    void anOpenTabFollowsEditsOfItsDirectory()
    {
        m_home->settings()->setValue(QStringLiteral("watchSettleMs"), 100);
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        writeSample(dir.path());
        DirectoryState *state = openAndIndex(*h, dir.path());
        QVERIFY(state);
        QVERIFY(state->isWatching());
        search(*h, QStringLiteral("quince"), SearchMode::Text);
        QVERIFY(shownFileNames(*h).isEmpty());

        QVERIFY(writeFile(dir.path(), QStringLiteral("garden.md"), "# Garden\n\nA quince tree.\n"));
        QVERIFY(
            writeFile(dir.path(), QStringLiteral("notes/new.txt"), "Quince jelly sets well.\n"));
        // The search on screen runs again by itself once the update is done.
        QTRY_COMPARE_WITH_TIMEOUT(shownFileNames(*h).size(), 2, 30000);
        QStringList names = shownFileNames(*h);
        names.sort();
        QCOMPARE(names, (QStringList{QStringLiteral("garden.md"), QStringLiteral("new.txt")}));
        QCOMPARE(state->stats().file_count, 5u);
        // A deleted file leaves the results, and its chunk the count on the status bar.
        const int chunksBefore = state->statusText().section(QLatin1Char(' '), 0, 0).toInt();
        QVERIFY(QFile::remove(dir.filePath(QStringLiteral("notes/new.txt"))));
        QTRY_COMPARE_WITH_TIMEOUT(
            shownFileNames(*h), QStringList{QStringLiteral("garden.md")}, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(
            state->statusText().section(QLatin1Char(' '), 0, 0).toInt(), chunksBefore - 1, 10000);
        m_home->settings()->remove(QStringLiteral("watchSettleMs"));
    }

    void gitBranchShowsWhenTheDirectoryIsInARepository()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder dir;
        QVERIFY(writeFile(dir.path(), QStringLiteral(".git/HEAD"), "ref: refs/heads/feature/x\n"));
        QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("docs")));
        h->app.addTab(dir.filePath(QStringLiteral("docs")));
        QLabel *branch = h->window.statusBarView()->branchLabel();
        QCOMPARE(branch->text(), QStringLiteral("feature/x"));
        QVERIFY(branch->isVisibleTo(&h->window));
    }

    void menuCommandsCarryTheirShortcuts_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("shortcut");
        QTest::newRow("open") << "openDirectoryAction"
                              << "Ctrl+Shift+O";
        QTest::newRow("close tab") << "closeTabAction"
                                   << "Ctrl+W";
        QTest::newRow("re-index") << "reindexAction"
                                  << "Ctrl+Shift+R";
        QTest::newRow("rebuild index") << "rebuildIndexAction"
                                       << "Ctrl+Shift+B";
        QTest::newRow("file scope") << "fileScopeAction"
                                    << "Ctrl+I";
        QTest::newRow("copy prompt") << "copyPromptAction"
                                     << "Ctrl+Shift+C";
        QTest::newRow("help") << "helpAction"
                              << "Ctrl+/";
    }
    void menuCommandsCarryTheirShortcuts()
    {
        QFETCH(QString, action);
        QFETCH(QString, shortcut);
        auto h = openAppWindow(m_home->settings());
        QAction *command = h->window.action(action);
        QVERIFY(command);
        QCOMPARE(command->shortcut().toString(), shortcut);
        // A help text that names a shortcut names this one.
        if (command->toolTip().endsWith(QLatin1Char(')'))) {
            QVERIFY2(command->toolTip().endsWith(" (" + shortcut + ")"),
                     qPrintable(command->toolTip()));
        }
        // Every command is reachable from the menu bar, not only by its key.
        bool inMenu = false;
        for (QAction *top : h->window.menuBar()->actions()) {
            inMenu = inMenu || top->menu()->actions().contains(command);
        }
        QVERIFY(inMenu);
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
};

QTEST_MAIN(MainWindowTest)
#include "main_window_test.moc"
