/*
** app_state.cpp -- tabs, the shared search field, menu commands and the saved tab set.
*/
#include "app_state.h"

#include "clipboard.h"
#include "directory_state.h"
#include "settings.h"
#include "tab_records.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>

#include <algorithm>

AppState::AppState(Settings *settings, const EncoderChoice *encoders, QObject *parent)
    : QObject(parent), m_settings(settings), m_encoders(encoders)
{
    QPointer<AppState> self(this);
    QMetaObject::invokeMethod(
        this,
        [self] {
            if (self) {
                self->restoreState();
            }
        },
        Qt::QueuedConnection);
}

AppState::~AppState() = default;

void AppState::setQuery(const QString &query)
{
    if (m_query == query) {
        return;
    }
    m_query = query;
    emit queryChanged();
}

void AppState::setSearchMode(SearchMode mode)
{
    if (m_searchMode == mode) {
        return;
    }
    m_searchMode = mode;
    emit searchModeChanged();
    // The results on screen belong to the old mode; whatever the new mode is, ask again.
    if (!m_query.isEmpty()) {
        performSearch();
    }
}

void AppState::setActiveTabId(const QUuid &id)
{
    if (m_activeTabId == id) {
        return;
    }
    m_activeTabId = id;
    emit activeTabIdChanged();
}

std::optional<DirectoryTab> AppState::activeTab() const
{
    for (const DirectoryTab &tab : m_tabs) {
        if (tab.id == m_activeTabId) {
            return tab;
        }
    }
    return std::nullopt;
}

DirectoryState *AppState::activeState() const
{
    return m_tabStates.value(m_activeTabId, nullptr);
}

DirectoryState *AppState::stateFor(const QUuid &tabId) const
{
    return m_tabStates.value(tabId, nullptr);
}

DirectoryTab AppState::makeTab(const QString &path)
{
    return DirectoryTab{QUuid::createUuid(), path, QFileInfo(path).fileName()};
}

DirectoryState *AppState::createState(const DirectoryTab &tab)
{
    auto *state = new DirectoryState(tab, m_encoders, m_settings, this);
    m_tabStates.insert(tab.id, state);
    return state;
}

void AppState::openDirectory(const QStringList &paths)
{
    for (const QString &path : paths) {
        addTab(path);
    }
}

void AppState::addTab(const QString &path)
{
    for (const DirectoryTab &tab : m_tabs) {
        if (tab.path == path) {
            setActiveTabId(tab.id);
            return;
        }
    }
    const DirectoryTab tab = makeTab(path);
    m_tabs.append(tab);
    DirectoryState *state = createState(tab);
    emit tabsChanged();
    setActiveTabId(tab.id);
    // A busy or damaged index is not indexed over: the tab says why (and retries a busy one).
    if (!state->isIndexed() && state->engine()->isOpen() && !state->isIngesting()) {
        state->ingest(m_settings->effectiveChunkSize(), m_settings->effectiveOverlap());
    }
    saveState();
}

void AppState::selectTab(const QUuid &tabId)
{
    setActiveTabId(tabId);
    DirectoryState *state = stateFor(tabId);
    if (state && !m_query.isEmpty()) {
        searchIn(state);
    }
    saveState();
}

void AppState::setSearchAllTabs(bool value)
{
    if (m_searchAllTabs == value) {
        return;
    }
    m_searchAllTabs = value;
    emit searchAllTabsChanged();
    if (!m_query.isEmpty()) {
        performSearch();
    }
}

void AppState::searchIn(DirectoryState *state)
{
    QList<std::shared_ptr<IndexHandle>> engines;
    if (m_searchAllTabs && m_tabs.size() > 1) {
        // The tab searched from first, then the others in tab order.
        engines.append(state->engine());
        for (const DirectoryTab &tab : m_tabs) {
            DirectoryState *other = stateFor(tab.id);
            if (other && other != state) {
                engines.append(other->engine());
            }
        }
    }
    state->search(m_query, m_searchMode, engines);
}

void AppState::closeTab(const QUuid &tabId)
{
    DirectoryState *state = m_tabStates.take(tabId);
    if (state) {
        state->engine()->checkpoint();
        delete state; // the engine closes when the last background job lets go of it
    }
    const qsizetype removed = m_tabs.removeIf([&tabId](const DirectoryTab &tab) {
        return tab.id == tabId;
    });
    if (removed > 0) {
        emit tabsChanged();
    }
    if (m_activeTabId == tabId) {
        setActiveTabId(m_tabs.isEmpty() ? QUuid() : m_tabs.last().id);
    }
    saveState();
}

void AppState::closeActiveTab()
{
    if (!m_activeTabId.isNull() && activeTab()) {
        closeTab(m_activeTabId);
    }
}

void AppState::moveTab(const QUuid &from, const QUuid &to)
{
    qsizetype f = -1;
    qsizetype t = -1;
    for (qsizetype i = 0; i < m_tabs.size(); i++) {
        if (m_tabs.at(i).id == from) {
            f = i;
        }
        if (m_tabs.at(i).id == to) {
            t = i;
        }
    }
    if (f < 0 || t < 0 || f == t) {
        return;
    }
    // The dragged tab takes exactly the target's place; the tabs between shift by one.
    m_tabs.move(f, t);
    emit tabsChanged();
}

void AppState::performSearch()
{
    DirectoryState *state = activeState();
    if (state) {
        searchIn(state);
    }
}

void AppState::reindexActive()
{
    DirectoryState *state = activeState();
    if (state) {
        state->update();
    }
}

void AppState::rebuildActive()
{
    DirectoryState *state = activeState();
    if (state) {
        state->rebuild();
    }
}

void AppState::copyPrompt(PromptScope scope)
{
    DirectoryState *state = activeState();
    if (!state || !m_clipboard) {
        return;
    }
    m_clipboard->setText(state->buildPrompt(m_query, scope));
    const int count = state->promptResultCount(scope);
    emit promptCopied(count == 0   ? QStringLiteral("No results to include: copied only the "
                                                    "message saying so")
                      : count == 1 ? QStringLiteral("Copied a prompt with 1 result")
                                   : QStringLiteral("Copied a prompt with %1 results").arg(count));
}

void AppState::setClipboard(Clipboard *clipboard)
{
    m_clipboard = clipboard;
}

void AppState::saveState()
{
    QStringList paths;
    for (const DirectoryTab &tab : m_tabs) {
        paths.append(tab.path);
    }
    paths.append(m_missingTabPaths); // kept until located or forgotten
    m_settings->setSavedTabPaths(paths);
    const std::optional<DirectoryTab> active = activeTab();
    m_settings->setActiveTabPath(active ? std::optional<QString>(active->path) : std::nullopt);
}

void AppState::locateMissingTab(const QString &missingPath, const QString &newPath)
{
    if (!m_missingTabPaths.contains(missingPath) || !QFileInfo(newPath).isDir()) {
        return;
    }
    m_missingTabPaths.removeAll(missingPath);
    emit missingTabPathsChanged();
    TabRecords::adoptRecords(m_settings, missingPath, newPath);
    addTab(newPath);
    saveState(); // also when newPath was open already
}

void AppState::forgetMissingTab(const QString &missingPath)
{
    if (m_missingTabPaths.removeAll(missingPath) > 0) {
        emit missingTabPathsChanged();
        saveState();
    }
}

void AppState::restoreState()
{
    const QStringList paths = m_settings->savedTabPaths();
    if (paths.isEmpty()) {
        emit stateRestored();
        return;
    }
    const std::optional<QString> activePath = m_settings->activeTabPath();
    QUuid active;
    bool added = false;
    QStringList missing;
    for (const QString &saved : paths) {
        QString path = saved;
        if (!QFileInfo::exists(path)) {
            path = TabRecords::movedTo(saved); // its records follow through the place record
            if (path.isEmpty()) {
                if (!missing.contains(saved)) {
                    missing.append(saved);
                }
                continue;
            }
        }
        const bool alreadyOpen =
            std::any_of(m_tabs.cbegin(), m_tabs.cend(), [path](const DirectoryTab &open) {
                return open.path == path;
            });
        if (alreadyOpen) {
            continue; // opened before the restore ran, or saved twice: one tab per directory
        }
        const DirectoryTab tab = makeTab(path);
        m_tabs.append(tab);
        createState(tab);
        added = true;
        if (active.isNull() && activePath && *activePath == saved) {
            active = tab.id;
        }
    }
    if (added) {
        emit tabsChanged();
    }
    if (missing != m_missingTabPaths) {
        m_missingTabPaths = missing;
        emit missingTabPathsChanged();
    }
    if (active.isNull() && !m_tabs.isEmpty()) {
        active = m_tabs.first().id;
    }
    setActiveTabId(active);
    emit stateRestored();
}
