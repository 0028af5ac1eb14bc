/*
** main.cpp -- the Tarnwick desktop application.
**
**   tarnwick [DIR...]
**
** Restores the tabs of the last session, then opens each DIR as a tab (a directory that is open
** already is only selected). Closing the main window quits. An unknown option is shown in a
** message box and exits with status 2; a DIR that is not a directory is shown in a message box
** over the main window, and the others still open.
*/
#include "app_state.h"
#include "appearance.h"
#include "icons.h"
#include "main_window.h"
#include "settings.h"
#include "tarnwick_engine.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QMessageBox>

#include <cstdio>

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationVersion(QStringLiteral(TRN_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("tarnwick"));

    // The engine's informational lines ("opened", "built doc index") are for the command line's
    // --verbose; the application shows what matters in its status bar.
    TarnwickEngine::setVerbose(false);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Searches the contents of local directories by meaning."));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("directories"),
                                 QStringLiteral("Directories to open as tabs."),
                                 QStringLiteral("[DIR...]"));
    // A desktop launch has no terminal to read: what cannot be understood is shown in a message
    // box as well as on standard error.
    if (!parser.parse(QApplication::arguments())) {
        const QString text = parser.errorText();
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
        QMessageBox::critical(nullptr,
                              QStringLiteral("Tarnwick"),
                              text + QStringLiteral("\n\nUsage: tarnwick [DIR...]"));
        return 2;
    }
    if (parser.isSet(help)) {
        parser.showHelp(0);
    }
    if (parser.isSet(version)) {
        parser.showVersion();
    }

    QStringList directories;
    QStringList refused;
    for (const QString &argument : parser.positionalArguments()) {
        const QFileInfo info(argument);
        if (!info.isDir()) {
            std::fprintf(stderr, "tarnwick: not a directory: %s\n", qPrintable(argument));
            refused.append(argument);
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
    if (!refused.isEmpty()) {
        // After show(), so the box sits over the main window; the other directories still open.
        QMetaObject::invokeMethod(
            &window,
            [&window, refused] {
                QMessageBox::warning(&window,
                                     QStringLiteral("Tarnwick"),
                                     (refused.size() == 1
                                          ? QStringLiteral("Not a directory, so not opened:\n")
                                          : QStringLiteral("Not directories, so not opened:\n"))
                                         + refused.join(QLatin1Char('\n')));
            },
            Qt::QueuedConnection);
    }
    return application.exec();
}
