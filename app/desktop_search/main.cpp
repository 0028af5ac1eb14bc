/*
** main.cpp -- tarnwick-search-provider: the desktop's searches answered from Tarnwick's indexes.
**
** Started by the session bus when GNOME Shell or KRunner first asks (D-Bus activation, see the
** .service file), it owns the name org.tarnwick.Tarnwick.SearchProvider with the GNOME provider
** at /org/tarnwick/Tarnwick/SearchProvider and the KRunner runner at /org/tarnwick/Tarnwick/Runner.
** It quits after a few minutes without calls, so an idle desktop holds no index in memory (the
** next search starts it again), and when the bus goes away.
*/
#include "desktop_search.h"
#include "index_handle.h"
#include "providers.h"
#include "settings.h"
#include "training_manager.h"

#include <QDBusConnection>
#include <QGuiApplication>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

const char kServiceName[] = "org.tarnwick.Tarnwick.SearchProvider";
constexpr int kIdleQuitMs = 5 * 60 * 1000;

} // namespace

int main(int argc, char **argv)
{
    // Opening a result may need the desktop's services (a platform plugin); a session bus
    // without a display still gets its answers.
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QCoreApplication::setApplicationName(QStringLiteral("Tarnwick"));
    setEngineVerbose(false);
    registerProviderTypes();

    const std::unique_ptr<Settings> settings = Settings::openUserSettings();
    TrainingManager training(settings.get());
    DesktopSearch search(settings.get(), &training);
    QTimer idle;
    idle.setSingleShot(true);
    idle.setInterval(kIdleQuitMs);
    QObject::connect(&idle, &QTimer::timeout, &application, &QCoreApplication::quit);
    auto activity = [&idle] {
        idle.start();
    };

    QObject gnome;
    QObject runner;
    new GnomeSearchProvider(&gnome, &search, activity);
    new KRunnerRunner(&runner, &search, activity);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        std::fputs("tarnwick: no D-Bus session bus\n", stderr);
        return 1;
    }
    if (!bus.registerObject(QStringLiteral("/org/tarnwick/Tarnwick/SearchProvider"),
                            &gnome,
                            QDBusConnection::ExportAdaptors)
        || !bus.registerObject(QStringLiteral("/org/tarnwick/Tarnwick/Runner"),
                               &runner,
                               QDBusConnection::ExportAdaptors)) {
        std::fputs("tarnwick: cannot export the search provider on the session bus\n", stderr);
        return 1;
    }
    if (!bus.registerService(QLatin1String(kServiceName))) {
        std::fprintf(stderr, "tarnwick: %s is already running\n", kServiceName);
        return 1;
    }
    idle.start();
    // A bus that goes away (the session ended) takes its activated services with it.
    QTimer busCheck;
    QObject::connect(&busCheck, &QTimer::timeout, &application, [&application] {
        if (!QDBusConnection::sessionBus().isConnected()) {
            application.quit();
        }
    });
    busCheck.start(1000);
    return application.exec();
}
