/*
** providers.h -- the D-Bus interfaces through which the desktop searches Tarnwick's indexes:
** GNOME Shell's org.gnome.Shell.SearchProvider2 and KRunner's org.kde.krunner1, both answering
** from one DesktopSearch.
**
** Each call is answered on the main thread before the next is read; a search over the kept
** handles takes milliseconds, so the desktop's own time limits are met without threads. Every
** call counts as activity, which keeps the D-Bus-activated service from quitting while in use.
*/
#ifndef TRN_DESKTOP_SEARCH_PROVIDERS_H
#define TRN_DESKTOP_SEARCH_PROVIDERS_H

#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QList>
#include <QStringList>
#include <QVariantMap>

#include <functional>

class DesktopSearch;

// How many results each provider shows: the desktops show a handful per provider.
constexpr int kDesktopResults = 10;

class GnomeSearchProvider : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.gnome.Shell.SearchProvider2")

public:
    GnomeSearchProvider(QObject *object, DesktopSearch *search, std::function<void()> activity);

public slots:
    QStringList GetInitialResultSet(const QStringList &terms);
    QStringList GetSubsearchResultSet(const QStringList &previousResults, const QStringList &terms);
    // aa{sv}: id, name (file name and line), description (the snippet's first words), gicon.
    QList<QVariantMap> GetResultMetas(const QStringList &identifiers);
    void ActivateResult(const QString &identifier, const QStringList &terms, uint timestamp);
    void LaunchSearch(const QStringList &terms, uint timestamp);

private:
    DesktopSearch *m_search;
    std::function<void()> m_activity;
    QMap<QString, QVariantMap> m_metas; // of the last results, by id
};

// One match of KRunner's Match: a(sssida{sv}).
struct RemoteMatch {
    QString id;
    QString text;
    QString iconName;
    int type = 0; // KRunner's category: 30 "possible", 100 "exact"
    double relevance = 0;
    QVariantMap properties; // "subtext", "urls"
};
// One action of KRunner's Actions: a(sss).
struct RemoteAction {
    QString id;
    QString text;
    QString iconName;
};
Q_DECLARE_METATYPE(RemoteMatch)
Q_DECLARE_METATYPE(RemoteAction)
QDBusArgument &operator<<(QDBusArgument &argument, const RemoteMatch &match);
const QDBusArgument &operator>>(const QDBusArgument &argument, RemoteMatch &match);
QDBusArgument &operator<<(QDBusArgument &argument, const RemoteAction &action);
const QDBusArgument &operator>>(const QDBusArgument &argument, RemoteAction &action);

class KRunnerRunner : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.krunner1")

public:
    KRunnerRunner(QObject *object, DesktopSearch *search, std::function<void()> activity);

public slots:
    QList<RemoteAction> Actions();
    // The results, then one match that opens the application with the query ("more:" id).
    QList<RemoteMatch> Match(const QString &query);
    void Run(const QString &matchId, const QString &actionId);
    void Teardown();

private:
    DesktopSearch *m_search;
    std::function<void()> m_activity;
};

// Registers the D-Bus types above; call once before exporting the objects.
void registerProviderTypes();

#endif
