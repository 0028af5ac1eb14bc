/*
** screenshots.cpp -- renders the README's pictures: the main window with results and the
** preview pane, the file scope window, the settings window and the loss chart, in the light and the
** dark appearance.
**
**   tarnwick-screenshots SAMPLES_DIR OUT_DIR [LOSS_LOG]
**
** Runs the real windows on a copy of SAMPLES_DIR, with settings and home in a temporary
** directory. The loss chart shows LOSS_LOG (a log the trainer wrote) as the log of a sample
** profile, because a training run takes far longer than rendering pictures should. Meant to run
** with QT_QPA_PLATFORM=offscreen; the window decorations are drawn here, since no window manager
** draws them offscreen.
*/
#include "app_state.h"
#include "appearance.h"
#include "directory_state.h"
#include "file_scope_window.h"
#include "icons.h"
#include "loss_chart_window.h"
#include "main_window.h"
#include "results_model.h"
#include "results_view.h"
#include "settings.h"
#include "settings_window.h"
#include "system_clipboard.h"
#include "training_manager.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QPainter>
#include <QPainterPath>
#include <QSettings>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QThread>

#include <cstdio>
#include <functional>

namespace
{

bool waitFor(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        QThread::msleep(10);
    }
    return true;
}

void settle()
{
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
}

bool copyTree(const QString &from, const QString &to)
{
    QDir().mkpath(to);
    const QDir source(from);
    for (const QFileInfo &entry :
         source.entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString target = to + QLatin1Char('/') + entry.fileName();
        if (entry.isDir()) {
            if (!copyTree(entry.filePath(), target)) {
                return false;
            }
        } else if (!QFile::copy(entry.filePath(), target)) {
            return false;
        }
    }
    return true;
}

// The window's content under a plain title bar with its title and a close button, as a desktop
// would frame it.
QImage framed(QWidget *window)
{
    const QPixmap content = window->grab();
    const QPalette pal = window->palette();
    const bool dark = pal.color(QPalette::Window).lightness() < 128;
    const int titleHeight = 36;
    const int margin = 18;
    QImage image(content.width() + 2 * margin,
                 content.height() + titleHeight + 2 * margin,
                 QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF frame(margin, margin, content.width(), content.height() + titleHeight);
    // A soft shadow.
    for (int i = 0; i < margin; ++i) {
        QColor shadow(0, 0, 0, static_cast<int>(26.0 * (margin - i) / margin));
        p.setPen(QPen(shadow, 1.0));
        p.setBrush(Qt::NoBrush);
        p.drawRoundedRect(frame.adjusted(-i, -i + 3, i, i + 3), 10 + i, 10 + i);
    }
    QPainterPath outline;
    outline.addRoundedRect(frame, 10, 10);
    p.setClipPath(outline);
    const QColor bar =
        dark ? pal.color(QPalette::Window).lighter(118) : pal.color(QPalette::Window).darker(106);
    p.fillRect(QRectF(frame.left(), frame.top(), frame.width(), titleHeight), bar);
    QFont titleFont = window->font();
    titleFont.setWeight(QFont::DemiBold);
    p.setFont(titleFont);
    p.setPen(pal.color(QPalette::WindowText));
    p.drawText(QRectF(frame.left() + 60, frame.top(), frame.width() - 120, titleHeight),
               Qt::AlignCenter,
               window->windowTitle());
    const QPointF close(frame.right() - 22, frame.top() + titleHeight / 2.0);
    QColor button = pal.color(QPalette::WindowText);
    button.setAlphaF(0.12f);
    p.setPen(Qt::NoPen);
    p.setBrush(button);
    p.drawEllipse(close, 11, 11);
    p.setPen(QPen(pal.color(QPalette::WindowText), 1.5));
    p.drawLine(close + QPointF(-4, -4), close + QPointF(4, 4));
    p.drawLine(close + QPointF(-4, 4), close + QPointF(4, -4));
    p.drawPixmap(QPointF(frame.left(), frame.top() + titleHeight), content);
    p.setClipping(false);
    QColor edge = pal.color(QPalette::WindowText);
    edge.setAlphaF(dark ? 0.35f : 0.22f);
    p.setPen(QPen(edge, 1.0));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(frame.adjusted(0.5, 0.5, -0.5, -0.5), 10, 10);
    return image;
}

bool save(QWidget *window, const QString &outDir, const QString &name)
{
    settle();
    const QString path = outDir + QLatin1Char('/') + name;
    if (!framed(window).save(path)) {
        std::fprintf(stderr, "tarnwick-screenshots: cannot write %s\n", qPrintable(path));
        return false;
    }
    std::printf("%s\n", qPrintable(path));
    return true;
}

int fail(const char *message)
{
    std::fprintf(stderr, "tarnwick-screenshots: %s\n", message);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir home;
    if (!home.isValid()) {
        return fail("no temporary directory");
    }
    // Nothing of the user's is read or written: settings, weights and windows live in home.
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral(".config"))));

    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    const QStringList args = QApplication::arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: tarnwick-screenshots SAMPLES_DIR OUT_DIR [LOSS_LOG]\n");
        return 2;
    }
    const QString samples = args.at(1);
    const QString outDir = QDir(args.at(2)).absolutePath();
    const QString lossLog = args.size() > 3 ? args.at(3) : QString();
    QDir().mkpath(outDir);

    Settings settingsFile(
        new QSettings(home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat));
    Settings *settings = &settingsFile;
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
    QApplication::setStyle(QStringLiteral("Fusion"));
    installIconThemeFallback();
    Appearance appearance(settings);

    const QString sample = home.filePath(QStringLiteral("sample"));
    if (!copyTree(samples, sample)) {
        return fail("cannot copy the samples");
    }

    TrainingManager training(settings);
    AppState app(settings, &training);
    SystemClipboard clipboard;
    app.setClipboard(&clipboard);
    MainWindow window(&app, &training);
    window.resize(1200, 720);
    window.show();
    if (!waitFor(
            [&app] {
                return app.tabs().isEmpty();
            },
            1000)) {
        return fail("unexpected saved tabs");
    }
    settle();
    app.addTab(sample);
    DirectoryState *state = app.activeState();
    if (!state
        || !waitFor(
            [state] {
                return !state->isIngesting();
            },
            300000)) {
        return fail("indexing the samples did not finish");
    }

    // Two training profiles: one with the log of a real trainer run, one never trained.
    TrainingManager *manager = &training;
    TrainingProfile draft;
    draft.name = QStringLiteral("Kitchen and Garden Notes");
    draft.sourceDirectories = {sample + QStringLiteral("/notes")};
    draft.steps = 100; // the steps of the run that wrote LOSS_LOG
    TrainingProfile notes = manager->createProfile(draft);
    if (!lossLog.isEmpty()) {
        QDir().mkpath(QFileInfo(notes.lossPath()).path());
        QFile::copy(lossLog, notes.lossPath());
    }
    notes.status = TrainingStatus::Trained;
    notes.lastTrained = QDateTime::currentDateTime().addSecs(-3 * 3600);
    manager->updateProfile(notes);
    draft.name = QStringLiteral("Source Code");
    draft.sourceDirectories = {sample + QStringLiteral("/src")};
    draft.steps = 5000;
    draft.threads = 4;
    manager->createProfile(draft);

    struct Look {
        QString name;
        QString suffix;
        QString query;
        SearchMode mode;
    };
    const QList<Look> looks = {{QStringLiteral("light"),
                                QString(),
                                QStringLiteral("how long does the bread rise"),
                                SearchMode::Semantic},
                               {QStringLiteral("dark"),
                                QStringLiteral("-dark"),
                                QStringLiteral("flour"),
                                SearchMode::Text}};
    const auto search = [&app, state](const QString &query, SearchMode mode) {
        app.setQuery(query);
        app.setSearchMode(mode);
        app.performSearch();
        return waitFor(
            [state] {
                return !state->isSearching();
            },
            60000);
    };
    bool pinned = false;
    for (const Look &look : looks) {
        settings->setAppearance(look.name);
        settle();

        // The main window with results, the first result selected, one result pinned.
        if (!search(look.query, look.mode)) {
            return fail("the search did not finish");
        }
        if (!pinned && state->resultsModel()->count() > 2) {
            state->togglePin(state->resultsModel()->result(2));
            pinned = true;
        }
        ResultsView *results = window.resultsView();
        if (results->model() && results->model()->rowCount() > 0) {
            results->setCurrentIndex(results->model()->index(1, 0));
        }
        if (!save(&window, outDir, QStringLiteral("main-window%1.png").arg(look.suffix))) {
            return 1;
        }

        // The preview pane on a source file, searched in text mode.
        if (!search(QStringLiteral("head"), SearchMode::Text)) {
            return fail("the search did not finish");
        }
        for (int row = 0; row < state->resultsModel()->count(); ++row) {
            if (state->resultsModel()->result(row).filePath.endsWith(
                    QStringLiteral("ring_buffer.c"))) {
                results->setCurrentIndex(results->model()->index(row, 0));
                break;
            }
        }
        if (!save(&window, outDir, QStringLiteral("preview-pane%1.png").arg(look.suffix))) {
            return 1;
        }

        // The file scope window, largest files first.
        window.showFileScope();
        FileScopeWindow *scope = window.fileScopeWindow();
        if (!scope
            || !waitFor(
                [state] {
                    return !state->isLoadingFileList();
                },
                60000)) {
            return fail("the file listing did not finish");
        }
        scope->fileModel()->setSortKey(FileSortKey::Size);
        scope->fileModel()->setSortAscending(false);
        scope->resize(780, 420);
        if (!save(scope, outDir, QStringLiteral("file-scope%1.png").arg(look.suffix))) {
            return 1;
        }
        scope->hide();

        // The settings window, both pages.
        window.showSettings();
        SettingsWindow *prefs = window.settingsWindow();
        prefs->resize(720, 560);
        prefs->tabs()->setCurrentIndex(0);
        if (!save(prefs, outDir, QStringLiteral("settings-general%1.png").arg(look.suffix))) {
            return 1;
        }
        prefs->showTrainingPage();
        if (!save(prefs, outDir, QStringLiteral("settings-training%1.png").arg(look.suffix))) {
            return 1;
        }
        prefs->hide();

        // The loss chart of the profile with a log.
        LossChartWindow chart(manager->profile(notes.id).value_or(notes), settings);
        chart.resize(640, 400);
        chart.show();
        if (!save(&chart, outDir, QStringLiteral("loss-chart%1.png").arg(look.suffix))) {
            return 1;
        }
        chart.hide();
    }
    return 0;
}
