/*
** main.cpp -- the Tarnwick desktop application.
**
**   tarnwick [DIR | FILE]...
**
** Restores the tabs of the last session, then opens each DIR as a tab (a directory that is open
** already is only selected); a FILE opens the directory that holds it. Closing the main window
** quits. --help and --version answer without a display.
*/
#include "app_state.h"
#include "appearance.h"
#include "command_line.h"
#include "icons.h"
#include "main_window.h"
#include "settings.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include <cstdio>
#include <cstring>

namespace
{

const char kQuitAfterStart[] = "quit-after-start";

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

    QCommandLineParser parser;
    describeCommandLine(parser);
    parser.process(application);
    const bool quitAfterStart = parser.isSet(QString::fromLatin1(kQuitAfterStart));

    const LaunchTargets targets = launchTargets(parser.positionalArguments());
    for (const QString &argument : targets.unusable) {
        std::fprintf(stderr, "tarnwick: no such file or directory: %s\n", qPrintable(argument));
    }
    const QStringList directories = targets.directories;

    installIconThemeFallback();
    Appearance appearance(Settings::standard());
    AppState state;
    MainWindow window(&state);
    // The saved tabs come back on the first turn of the event loop; the directories named on the
    // command line open after them, so the last one named is the active tab.
    QObject::connect(
        &state, &AppState::stateRestored, &window, [&state, directories, quitAfterStart] {
            if (!directories.isEmpty()) {
                state.openDirectory(directories);
            }
            if (quitAfterStart) {
                QTimer::singleShot(0, qApp, &QCoreApplication::quit);
            }
        });
    window.show();
    return application.exec();
}
