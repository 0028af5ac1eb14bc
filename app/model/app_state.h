/*
** app_state.h -- the application-wide model: the ordered tabs, the active tab, the search field
** and mode shared by all tabs, one DirectoryState per tab, and the menu commands.
**
** The open tabs are saved as "savedTabPaths" (tab order) and "activeTabPath" after a tab is
** added, selected or closed, and restored on the first turn of the event loop after
** construction. Restored tabs open their existing index and are not re-indexed. A saved directory
** that is gone is looked for beside its old place (a rename or a move within its parent, found
** by its index's place record) and opened there; one not found stays in missingTabPaths, and in
** the saved list, until the person locates it elsewhere or forgets it.
*/
#ifndef TRN_APP_APP_STATE_H
#define TRN_APP_APP_STATE_H

#include "prompt_builder.h"
#include "records.h"
#include "search_results.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <memory>
#include <optional>

class Clipboard;
class DirectoryState;
class EncoderChoice;
class Settings;

class AppState : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QList<DirectoryTab> tabs READ tabs NOTIFY tabsChanged)
    // Null when no tab is active.
    Q_PROPERTY(QUuid activeTabId READ activeTabId NOTIFY activeTabIdChanged)
    Q_PROPERTY(QString query READ query WRITE setQuery NOTIFY queryChanged)
    Q_PROPERTY(SearchMode searchMode READ searchMode WRITE setSearchMode NOTIFY searchModeChanged)
    // The scope "All tabs": a search runs over every open tab's index, in one ranking.
    Q_PROPERTY(
        bool searchAllTabs READ searchAllTabs WRITE setSearchAllTabs NOTIFY searchAllTabsChanged)
    // Saved tabs whose directory was not found at restore, in saved order.
    Q_PROPERTY(QStringList missingTabPaths READ missingTabPaths NOTIFY missingTabPathsChanged)

public:
    // settings (never NULL) and encoders (NULL: the untrained encoder for every tab) are handed
    // to each tab and must outlive this object. Schedules restoreState() on the event loop.
    explicit AppState(Settings *settings, const EncoderChoice *encoders = nullptr,
                      QObject *parent = nullptr);
    ~AppState() override;

    QList<DirectoryTab> tabs() const { return m_tabs; }
    QUuid activeTabId() const { return m_activeTabId; }
    QString query() const { return m_query; }
    void setQuery(const QString &query);
    SearchMode searchMode() const { return m_searchMode; }
    // A change of mode re-runs a non-empty query in the active tab.
    void setSearchMode(SearchMode mode);
    Settings *settings() const { return m_settings; }
    bool searchAllTabs() const { return m_searchAllTabs; }
    QStringList missingTabPaths() const { return m_missingTabPaths; }
    // The missing tab's directory is now at newPath: opens it there with the history, pins and
    // encoder choice kept at missingPath, and saves.
    void locateMissingTab(const QString &missingPath, const QString &newPath);
    // Drops a missing tab from the saved list.
    void forgetMissingTab(const QString &missingPath);
    // A change re-runs a non-empty query in the new scope.
    void setSearchAllTabs(bool value);

    std::optional<DirectoryTab> activeTab() const;
    // The active tab's state, or NULL.
    DirectoryState *activeState() const;
    // The state of a tab, or NULL. AppState owns it; it is deleted when the tab closes.
    DirectoryState *stateFor(const QUuid &tabId) const;

    // "Open Directory…": addTab for each chosen path, in order (the view shows the chooser).
    void openDirectory(const QStringList &paths);
    // Selects the tab when the path is open already; else opens a tab, makes it active, indexes
    // it unless its index holds chunks, and saves.
    void addTab(const QString &path);
    // Makes a tab active, re-runs the shared query there when it is not empty, and saves.
    void selectTab(const QUuid &tabId);
    // Checkpoints and closes a tab; when it was active the last remaining tab becomes active.
    void closeTab(const QUuid &tabId);
    // "Close Tab".
    void closeActiveTab();
    // Moves tab `from` into the place of tab `to` (drag and drop); not saved by itself.
    void moveTab(const QUuid &from, const QUuid &to);
    // Searches the active tab with query and searchMode (with searchAllTabs, every tab's index
    // from the active tab).
    void performSearch();
    // "Re-index": brings the active tab's index up to date, reading only what changed.
    void reindexActive();
    // "Rebuild Index": discards the active tab's index and builds it again.
    void rebuildActive();
    // "Copy Prompt": the active tab's prompt for query in scope, onto the clipboard, and says so
    // in promptCopied. Does nothing without an active tab or a clipboard.
    void copyPrompt(PromptScope scope = PromptScope::Top5);
    // Where copyPrompt puts its text (the application hands in the system clipboard); not owned,
    // and must outlive this object. NULL (the default): nowhere.
    void setClipboard(Clipboard *clipboard);

    // Writes "savedTabPaths" and "activeTabPath".
    void saveState();

signals:
    void tabsChanged();
    void activeTabIdChanged();
    void queryChanged();
    void searchModeChanged();
    void searchAllTabsChanged();
    void missingTabPathsChanged();
    // copyPrompt put a prompt on the clipboard; message says how many results it holds ("Copied
    // a prompt with 5 results", or that there were none to include).
    void promptCopied(const QString &message);
    // restoreState() ran (also when nothing was saved).
    void stateRestored();

private:
    void restoreState();
    // Runs the query in state, over every tab when searchAllTabs.
    void searchIn(DirectoryState *state);
    void setActiveTabId(const QUuid &id);
    DirectoryState *createState(const DirectoryTab &tab);
    static DirectoryTab makeTab(const QString &path);

    Settings *m_settings;
    const EncoderChoice *m_encoders; // handed to every tab
    Clipboard *m_clipboard = nullptr;
    QList<DirectoryTab> m_tabs;
    QUuid m_activeTabId;
    QString m_query;
    SearchMode m_searchMode = SearchMode::Hybrid;
    bool m_searchAllTabs = false;
    QStringList m_missingTabPaths;
    QHash<QUuid, DirectoryState *> m_tabStates; // children of this object
};

#endif
