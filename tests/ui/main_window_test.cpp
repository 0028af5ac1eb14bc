/*
** main_window_test.cpp -- the main window driven like a user would: its icon, opening and
** locating directories, the tab strip, the status bar and the menu commands.
*/
#include "icons.h"
#include "main_window.h"
#include "main_window_fixture.h"
#include "missing_folder_bar.h"
#include "status_bar.h"
#include "tab_strip.h"

#include <QAction>
#include <QComboBox>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>

#include <utility>

class MainWindowTest : public MainWindowFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUpCase(); }
    void init() { setUp(); }

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

    // A click selects a tab, a drag reorders the tabs while the button is down, and a tab's close
    // button closes that tab alone. The tabs are folders inside a repository.
    void tabsAreSelectedReorderedAndClosedWithTheMouse()
    {
        auto h = openAppWindow(m_home->settings());
        TabFolder root;
        QVERIFY(writeFile(root.path(), QStringLiteral(".git/HEAD"), "ref: refs/heads/feature/x\n"));
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
        QTest::mouseClick(strip, Qt::LeftButton, Qt::NoModifier, strip->tabRect(0).center());
        QCOMPARE(h->app.activeTab()->name, QStringLiteral("alpha"));
        QCOMPARE(strip->currentIndex(), 0);
        QLabel *branch = h->window.statusBarView()->branchLabel(); // of the repository around them
        QCOMPARE(branch->text(), QStringLiteral("feature/x"));
        QVERIFY(branch->isVisibleTo(&h->window));

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

        auto *close = qobject_cast<QToolButton *>(strip->tabButton(1, QTabBar::RightSide));
        QVERIFY(close);
        close->click();
        QCOMPARE(h->app.tabs().size(), 2);
        QCOMPARE(order(), (QStringList{"alpha", "charlie"}));
        QCOMPARE(h->app.activeTab()->name, QStringLiteral("alpha")); // not the closed one
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

    void menuCommandsCarryTheirShortcuts()
    {
        auto h = openAppWindow(m_home->settings());
        const std::pair<const char *, const char *> commands[] = {
            {"openDirectoryAction", "Ctrl+Shift+O"},
            {"closeTabAction", "Ctrl+W"},
            {"reindexAction", "Ctrl+Shift+R"},
            {"rebuildIndexAction", "Ctrl+Shift+B"},
            {"fileScopeAction", "Ctrl+I"},
            {"copyPromptAction", "Ctrl+Shift+C"},
            {"helpAction", "Ctrl+/"}};
        for (const auto &[name, shortcut] : commands) {
            QAction *command = h->window.action(QLatin1String(name));
            QVERIFY2(command, name);
            QCOMPARE(command->shortcut().toString(), QLatin1String(shortcut));
            // A help text that names a shortcut names this one.
            if (command->toolTip().endsWith(QLatin1Char(')'))) {
                QVERIFY2(command->toolTip().endsWith(" (" + QLatin1String(shortcut) + ")"),
                         qPrintable(command->toolTip()));
            }
            // Every command is reachable from the menu bar, not only by its key.
            bool inMenu = false;
            for (QAction *top : h->window.menuBar()->actions()) {
                inMenu = inMenu || top->menu()->actions().contains(command);
            }
            QVERIFY2(inMenu, name);
        }
    }
};

QTEST_MAIN(MainWindowTest)
#include "main_window_test.moc"
