/*
** providers.cpp -- GNOME Shell's and KRunner's search interfaces over DesktopSearch.
*/
#include "providers.h"

#include "desktop_search.h"

#include <QDBusMetaType>
#include <QFileInfo>
#include <QUrl>

namespace
{

const char kMorePrefix[] = "more:";

// The snippet as one short line for a desktop's result row.
QString oneLine(const QString &snippet)
{
    QString line = snippet.simplified();
    if (line.size() > 120) {
        line = line.left(119) + QChar(0x2026);
    }
    return line;
}

// "notes.md:12", what a result row is called.
QString titleOf(const QString &path, int line)
{
    return QFileInfo(path).fileName() + QLatin1Char(':') + QString::number(line);
}

} // namespace

void registerProviderTypes()
{
    qDBusRegisterMetaType<QList<QVariantMap>>();
    qDBusRegisterMetaType<RemoteMatch>();
    qDBusRegisterMetaType<QList<RemoteMatch>>();
    qDBusRegisterMetaType<RemoteAction>();
    qDBusRegisterMetaType<QList<RemoteAction>>();
}

// --- GNOME Shell ------------------------------------------------------------------------------

GnomeSearchProvider::GnomeSearchProvider(QObject *object, DesktopSearch *search,
                                         std::function<void()> activity)
    : QDBusAbstractAdaptor(object), m_search(search), m_activity(std::move(activity))
{
}

QStringList GnomeSearchProvider::GetInitialResultSet(const QStringList &terms)
{
    m_activity();
    QStringList ids;
    m_metas.clear();
    for (const SearchResult &r : m_search->search(terms, kDesktopResults)) {
        const QString id = DesktopSearch::idOf(r);
        ids.append(id);
        QVariantMap meta;
        meta.insert(QStringLiteral("id"), id);
        meta.insert(QStringLiteral("name"), titleOf(r.filePath, r.lineNumber));
        meta.insert(QStringLiteral("description"),
                    oneLine(r.snippet) + QStringLiteral(" \u2014 ") + QFileInfo(r.filePath).path());
        meta.insert(QStringLiteral("gicon"), QStringLiteral("org.tarnwick.Tarnwick"));
        m_metas.insert(id, meta);
    }
    return ids;
}

QStringList GnomeSearchProvider::GetSubsearchResultSet(const QStringList &,
                                                       const QStringList &terms)
{
    // A narrower query can rank other passages first: searched afresh, as fast as a filter.
    return GetInitialResultSet(terms);
}

QList<QVariantMap> GnomeSearchProvider::GetResultMetas(const QStringList &identifiers)
{
    m_activity();
    QList<QVariantMap> metas;
    for (const QString &id : identifiers) {
        QVariantMap meta = m_metas.value(id);
        QString path;
        int line = 0;
        if (meta.isEmpty() && DesktopSearch::parseId(id, &path, &line)) {
            meta.insert(QStringLiteral("id"), id);
            meta.insert(QStringLiteral("name"), titleOf(path, line));
            meta.insert(QStringLiteral("description"), QFileInfo(path).path());
            meta.insert(QStringLiteral("gicon"), QStringLiteral("org.tarnwick.Tarnwick"));
        }
        if (!meta.isEmpty()) {
            metas.append(meta);
        }
    }
    return metas;
}

void GnomeSearchProvider::ActivateResult(const QString &identifier, const QStringList &, uint)
{
    m_activity();
    m_search->open(identifier);
}

void GnomeSearchProvider::LaunchSearch(const QStringList &terms, uint)
{
    m_activity();
    m_search->launchApplication(terms);
}

// --- KRunner ----------------------------------------------------------------------------------

QDBusArgument &operator<<(QDBusArgument &argument, const RemoteMatch &match)
{
    argument.beginStructure();
    argument << match.id << match.text << match.iconName << match.type << match.relevance
             << match.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, RemoteMatch &match)
{
    argument.beginStructure();
    argument >> match.id >> match.text >> match.iconName >> match.type >> match.relevance
        >> match.properties;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const RemoteAction &action)
{
    argument.beginStructure();
    argument << action.id << action.text << action.iconName;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, RemoteAction &action)
{
    argument.beginStructure();
    argument >> action.id >> action.text >> action.iconName;
    argument.endStructure();
    return argument;
}

KRunnerRunner::KRunnerRunner(QObject *object, DesktopSearch *search, std::function<void()> activity)
    : QDBusAbstractAdaptor(object), m_search(search), m_activity(std::move(activity))
{
}

QList<RemoteAction> KRunnerRunner::Actions()
{
    m_activity();
    return {};
}

QList<RemoteMatch> KRunnerRunner::Match(const QString &query)
{
    m_activity();
    const QList<SearchResult> results = m_search->search({query}, kDesktopResults);
    QList<RemoteMatch> matches;
    for (qsizetype i = 0; i < results.size(); i++) {
        const SearchResult &r = results[i];
        RemoteMatch m;
        m.id = DesktopSearch::idOf(r);
        m.text = titleOf(r.filePath, r.lineNumber);
        m.iconName = QStringLiteral("org.tarnwick.Tarnwick");
        m.type = 30; // a possible match: KRunner ranks it among other runners' by relevance
        m.relevance = 0.9 - 0.5 * double(i) / double(results.size());
        m.properties.insert(QStringLiteral("subtext"), oneLine(r.snippet));
        m.properties.insert(QStringLiteral("urls"),
                            QStringList{QUrl::fromLocalFile(r.filePath).toString()});
        matches.append(m);
    }
    if (!results.isEmpty()) {
        RemoteMatch more;
        more.id = QLatin1String(kMorePrefix) + query;
        more.text = QStringLiteral("Search Tarnwick for \u201c%1\u201d").arg(query);
        more.iconName = QStringLiteral("org.tarnwick.Tarnwick");
        more.type = 30;
        more.relevance = 0.3;
        matches.append(more);
    }
    return matches;
}

void KRunnerRunner::Run(const QString &matchId, const QString &)
{
    m_activity();
    if (matchId.startsWith(QLatin1String(kMorePrefix))) {
        m_search->launchApplication({matchId.mid(int(sizeof kMorePrefix) - 1)});
    } else {
        m_search->open(matchId);
    }
}

void KRunnerRunner::Teardown()
{
    m_activity();
}
