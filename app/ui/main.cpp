/*
** main.cpp -- the Tarnwick desktop application.
**
**   tarnwick [--search] [--query WORDS] [DIR | FILE]...
**
** Restores the tabs of the last session, then opens each DIR as a tab (a directory that is open
** already is only selected); a FILE opens the directory that holds it. --search focuses the
** search bar (a file manager's "Search in Tarnwick"); --query also searches the active tab for
** WORDS (the desktop search's "more results"). Closing the main window quits. --help and
** --version answer without a display. An unknown option is shown in a message box and exits with
** status 2; a path that names nothing is shown in a message box over the main window, and the
** others still open.
*/
#include "app_state.h"
#include "appearance.h"
#include "command_line.h"
#include "icons.h"
#include "index_handle.h"
#include "main_window.h"
#include "settings.h"
#include "system_clipboard.h"
#include "training_manager.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <memory>

namespace
{

const char kQuitAfterStart[] = "quit-after-start";
const char kSearch[] = "search";
const char kQuery[] = "query";

void describeCommandLine(QCommandLineParser &parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Searches the contents of local directories by meaning."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(
        QStringLiteral("paths"),
        QStringLiteral("Directories to open as tabs; a file opens the directory that holds it."),
        QStringLiteral("[DIR | FILE...]"));
    parser.addOption(QCommandLineOption(
        QString::fromLatin1(kSearch),
        QStringLiteral("Focus the search bar once the tabs are open, to search the last DIR.")));
    parser.addOption(QCommandLineOption(QString::fromLatin1(kQuery),
                                        QStringLiteral("Search the active tab for WORDS."),
                                        QStringLiteral("WORDS")));
    // Quits once the window is up and the tabs are open: lets scripts check that an installed
    // application starts. Not shown in the help.
    QCommandLineOption quit(QString::fromLatin1(kQuitAfterStart));
    quit.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOption(quit);
}

void setIdentity()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QCoreApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QCoreApplication::setApplicationVersion(versionText());
}

// True when the command line asks only for text (help or version), which needs no display.
bool asksForTextOnly(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        const char *arg = argv[i];
        if (std::strcmp(arg, "--") == 0) {
            return false;
        }
        for (const char *option : {"-h", "--help", "--help-all", "-v", "--version"}) {
            if (std::strcmp(arg, option) == 0) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    if (asksForTextOnly(argc, argv)) {
        QCoreApplication core(argc, argv);
        setIdentity();
        QCommandLineParser parser;
        describeCommandLine(parser);
        parser.process(core); // prints the help or the version and exits
        return 0;
    }

    QApplication application(argc, argv);
    setIdentity();
    QApplication::setDesktopFileName(QStringLiteral("org.tarnwick.Tarnwick"));
    QApplication::setWindowIcon(applicationIcon());

    // The engine's informational lines ("opened", "built doc index") are for the command line's
    // --verbose; the application shows what matters in its status bar.
    setEngineVerbose(false);

    QCommandLineParser parser;
    describeCommandLine(parser);
    // A desktop launch has no terminal to read: what cannot be understood is shown in a message
    // box as well as on standard error.
    if (!parser.parse(QApplication::arguments())) {
        const QString text = parser.errorText();
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
        QMessageBox::critical(nullptr,
                              QStringLiteral("Tarnwick"),
                              text + QStringLiteral("\n\nUsage: tarnwick [DIR | FILE]..."));
        return 2;
    }
    const bool quitAfterStart = parser.isSet(QString::fromLatin1(kQuitAfterStart));
    const QString query = parser.value(QString::fromLatin1(kQuery)).trimmed();
    const bool focusSearch = parser.isSet(QString::fromLatin1(kSearch)) || !query.isEmpty();

    const LaunchTargets targets = launchTargets(parser.positionalArguments());
    for (const QString &argument : targets.unusable) {
        std::fprintf(stderr, "tarnwick: no such file or directory: %s\n", qPrintable(argument));
    }
    const QStringList directories = targets.directories;

    installIconThemeFallback();
    const std::unique_ptr<Settings> settings = Settings::openUserSettings();
    Appearance appearance(settings.get());
    TrainingManager training(settings.get());
    AppState state(settings.get(), &training);
    SystemClipboard clipboard;
    state.setClipboard(&clipboard);
    MainWindow window(&state, &training);
    // The saved tabs come back on the first turn of the event loop; the directories named on the
    // command line open after them, so the last one named is the active tab.
    QObject::connect(&state,
                     &AppState::stateRestored,
                     &window,
                     [&state, &window, directories, quitAfterStart, focusSearch, query] {
                         if (!directories.isEmpty()) {
                             state.openDirectory(directories);
                         }
                         if (focusSearch) {
                             window.focusSearch(query);
                         }
                         if (quitAfterStart) {
                             QTimer::singleShot(0, qApp, &QCoreApplication::quit);
                         }
                     });
    window.show();
    const QStringList refused = targets.unusable;
    if (!refused.isEmpty() && !quitAfterStart) {
        // After show(), so the box sits over the main window; the other directories still open.
        QMetaObject::invokeMethod(
            &window,
            [&window, refused] {
                QMessageBox::warning(&window,
                                     QStringLiteral("Tarnwick"),
                                     QStringLiteral("No such file or directory, so not opened:\n")
                                         + refused.join(QLatin1Char('\n')));
            },
            Qt::QueuedConnection);
    }
    return application.exec();
}
