/*
** main.cpp -- the Tarnwick desktop application.
**
**   tarnwick [DIR...]
**
** Restores the tabs of the last session, then opens each DIR as a tab (a directory that is open
** already is only selected). Closing the main window quits.
*/
#include "app_state.h"
#include "appearance.h"
#include "icons.h"
#include "main_window.h"
#include "settings.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>

#include <cstdio>

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationVersion(QStringLiteral(TRN_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("tarnwick"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Searches the contents of local directories by meaning."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("directories"),
                                 QStringLiteral("Directories to open as tabs."),
                                 QStringLiteral("[DIR...]"));
    parser.process(application);

    QStringList directories;
    for (const QString &argument : parser.positionalArguments()) {
        const QFileInfo info(argument);
        if (!info.isDir()) {
            std::fprintf(stderr, "tarnwick: not a directory: %s\n", qPrintable(argument));
            continue;
        }
        directories.append(QDir::cleanPath(info.absoluteFilePath()));
    }

    installIconThemeFallback();
    Appearance appearance(Settings::standard());
    AppState state;
    MainWindow window(&state);
    // The saved tabs come back on the first turn of the event loop; the directories named on the
    // command line open after them, so the last one named is the active tab.
    QObject::connect(&state, &AppState::stateRestored, &window, [&state, directories] {
        if (!directories.isEmpty()) {
            state.openDirectory(directories);
        }
    });
    window.show();
    return application.exec();
}
