/*
** Windows that fit: on a virtual screen smaller than the windows' own sizes (the offscreen
** platform with a screen of 1200 x 640 beginning at 100,50), every window opens with its whole
** frame on the screen, a saved frame that no longer fits is not restored, and maximised the
** preview stays beside the results list and the search bar, never over them.
*/
#include "file_scope_window.h"
#include "help_window.h"
#include "loss_chart_window.h"
#include "main_window.h"
#include "preview_pane.h"
#include "results_view.h"
#include "search_bar.h"
#include "settings_window.h"
#include "ui_test_support.h"
#include "window_frames.h"

#include <QApplication>
#include <QScreen>

namespace
{

const QRect kScreen(100, 50, 1200, 640);

QRect globalRect(const QWidget *w)
{
    return QRect(w->mapToGlobal(QPoint(0, 0)), w->size());
}

} // namespace

class TestWindowFit : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        QCOMPARE(QGuiApplication::primaryScreen()->availableGeometry(), kScreen);
    }

    void everyWindowOpensWhollyOnTheScreen()
    {
        auto w = openAppWindow(m_home->settings());
        MainWindow &window = w->window;
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QVERIFY2(kScreen.contains(window.frameGeometry()),
                 qPrintable(QDebug::toString(window.frameGeometry())));

        window.showSettings();
        window.showHelp();
        TrainingProfile profile;
        profile.name = QStringLiteral("fit");
        profile.weightsPath = m_home->home() + QStringLiteral("/fit.tten");
        auto *chart = new LossChartWindow(profile, m_home->settings(), &window);
        showOnScreen(chart, &window);
        const QList<QWidget *> windows = {window.settingsWindow(), window.helpWindow(), chart};
        for (QWidget *w : windows) {
            QVERIFY(QTest::qWaitForWindowExposed(w));
            QVERIFY2(kScreen.contains(w->frameGeometry()), qPrintable(w->objectName()));
        }
    }

    void aSavedFrameOffTheScreenIsNotRestored()
    {
        {
            // A frame saved on a wider monitor, right of this screen.
            QWidget big;
            big.setGeometry(1500, 80, 700, 500);
            m_home->settings()->setValue(QStringLiteral("TarnwickSettingsWindow"),
                                         big.saveGeometry());
        }
        SettingsWindow settings(m_home->training(), m_home->settings());
        showOnScreen(&settings, nullptr);
        QVERIFY(QTest::qWaitForWindowExposed(&settings));
        QVERIFY(kScreen.contains(settings.frameGeometry()));
        m_home->settings()->remove(QStringLiteral("TarnwickSettingsWindow"));
    }

    void maximisedThePreviewStaysBesideTheResults()
    {
        TabFolder dir;
        QVERIFY(writeFile(dir.path(), QStringLiteral("notes.txt"), numberedLines(40)));
        auto w = openAppWindow(m_home->settings());
        MainWindow &window = w->window;
        w->app.addTab(dir.path());
        window.showMaximized();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTRY_VERIFY(window.previewPane()->isVisible());
        QVERIFY(kScreen.contains(window.frameGeometry()));
        const QRect results = globalRect(window.resultsView()->parentWidget());
        const QRect pane = globalRect(window.previewPane());
        QVERIFY2(!pane.intersects(results), "the preview covers the results");
        QVERIFY2(!pane.intersects(globalRect(window.searchBar())),
                 "the preview covers the search bar");
        QVERIFY(kScreen.contains(pane));
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
};

int main(int argc, char **argv)
{
    // The offscreen platform with one small screen, described in a file it reads at start.
    QTemporaryDir config;
    const QString path = config.filePath(QStringLiteral("screens.json"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)
        || file.write(QStringLiteral("{\"screens\": [{\"name\": \"small\", \"x\": %1, \"y\": %2, "
                                     "\"width\": %3, \"height\": %4, \"logicalDpi\": 96}]}")
                          .arg(kScreen.x())
                          .arg(kScreen.y())
                          .arg(kScreen.width())
                          .arg(kScreen.height())
                          .toUtf8())
               < 0) {
        return 1;
    }
    file.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + QFile::encodeName(path));
    QApplication application(argc, argv);
    TestWindowFit test;
    return QTest::qExec(&test, argc, argv);
}

#include "window_fit_test.moc"
