/*
** main_window.h -- the main window: toolbar, tab strip, search bar, results list with "Load More
** Results", the preview pane beside or under the results (a splitter: the pane can be narrowed
** or dragged shut but never covers the list), status bar, and the menu commands. With no tab
** open it shows an invitation to open a directory instead of the results.
**
** Menu commands and shortcuts:
**   File   Open Directory… (Ctrl+Shift+O), Close Tab (Ctrl+W), Re-index (Ctrl+Shift+R: an
**          update, reading only what changed), Rebuild Index… (Ctrl+Shift+B: asks, then discards
**          the index and builds it again), Settings… (Ctrl+,), Quit (Ctrl+Q)
**   Edit   Find (Ctrl+F), Copy Prompt (Ctrl+Shift+C, the top five results)
**   View   Show File Scope (Ctrl+I), Preview Pane (F8), Preview Under Results, Next Tab
**          (Ctrl+Page Down), Previous Tab (Ctrl+Page Up)
**   Help   Tarnwick Help (Ctrl+/), About Tarnwick
** Directories dropped on the window open as tabs.
*/
#ifndef TRN_UI_MAIN_WINDOW_H
#define TRN_UI_MAIN_WINDOW_H

#include "app_state.h"
#include "directory_state.h"
#include "file_scope_window.h"
#include "help_window.h"
#include "settings_window.h"

#include <QHash>
#include <QIcon>
#include <QMainWindow>
#include <QPointer>

#include <functional>

class QAction;
class QLabel;
class PreviewPane;
class QPushButton;
class QSplitter;
class QStackedWidget;
class ResultsView;
class MissingFolderBar;
class SearchBar;
class StatusBarView;
class TabStrip;

class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    using DirectoryChooser = std::function<QStringList(QWidget *parent)>;
    // Asks the user to confirm (title, text); true to go ahead.
    using Confirmer =
        std::function<bool(QWidget *parent, const QString &title, const QString &text)>;

    // training is the application's training manager (the encoder picker, the settings window);
    // both it and app must outlive the window.
    MainWindow(AppState *app, TrainingManager *training, QWidget *parent = nullptr);
    ~MainWindow() override;

    AppState *app() const { return m_app; }
    TabStrip *tabStrip() const { return m_tabs; }
    SearchBar *searchBar() const { return m_search; }
    ResultsView *resultsView() const { return m_results; }
    StatusBarView *statusBarView() const { return m_status; }
    QPushButton *loadMoreButton() const { return m_loadMore; }
    PreviewPane *previewPane() const { return m_preview; }
    MissingFolderBar *missingFolderBar() const { return m_missing; }
    QSplitter *resultsSplitter() const { return m_split; }
    // True while the invitation to open a directory is shown.
    bool isShowingEmptyState() const;

    // The menu command with that object name ("openDirectoryAction", "closeTabAction",
    // "reindexAction", "rebuildIndexAction", "fileScopeAction", "copyPromptAction", "helpAction",
    // "settingsAction", "previewPaneAction", "previewBelowAction").
    QAction *action(const QString &objectName) const;

    // Replaces the folder chooser of "Open Directory…" (tests).
    void setDirectoryChooser(DirectoryChooser chooser) { m_chooser = std::move(chooser); }
    // Replaces the question "Rebuild the index of ...?" (tests).
    void setConfirmer(Confirmer confirmer) { m_confirmer = std::move(confirmer); }

    // "Rebuild Index": asks first, with the time the last indexing speed predicts, then discards
    // the active tab's index and builds it again.
    void confirmRebuild();
    // The question confirmRebuild asks for a tab of that name and state.
    static QString rebuildQuestion(const QString &name, const DirectoryState &state);

    void openDirectory();
    // What "tarnwick --search" and "--query WORDS" ask once the tabs are open: the window raised
    // with the search bar focused and, given words, the active tab searched for them.
    void focusSearch(const QString &query);
    void showFileScope();
    void showSettings();
    void showHelp();

    FileScopeWindow *fileScopeWindow() const { return m_fileScope; }
    SettingsWindow *settingsWindow() const { return m_settingsWindow; }
    HelpWindow *helpWindow() const { return m_help; }

protected:
    void changeEvent(QEvent *event) override;
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void buildActions();
    void buildMenus();
    QWidget *buildEmptyState();
    QWidget *buildResultsArea();
    void followActiveState();
    void syncFooter();
    void syncWindow();
    void tintIcons();
    // The pane shown or hidden, beside or under the results, at its remembered share.
    void applyPreviewLayout();
    void applyPreviewShare();
    void previewRow(int row, bool reveal);

    QPointer<AppState> m_app;
    TrainingManager *m_training;
    Settings *m_settings; // the application's, from app; outlives the window
    QPointer<DirectoryState> m_state;
    QObject *m_stateLink = nullptr;
    DirectoryChooser m_chooser;
    Confirmer m_confirmer;
    TabStrip *m_tabs;
    SearchBar *m_search;
    MissingFolderBar *m_missing;
    QStackedWidget *m_pages;
    ResultsView *m_results;
    QLabel *m_summary;
    QPushButton *m_loadMore;
    QSplitter *m_split;
    PreviewPane *m_preview;
    StatusBarView *m_status;
    QPointer<FileScopeWindow> m_fileScope;
    QPointer<SettingsWindow> m_settingsWindow;
    QPointer<HelpWindow> m_help;
    QList<QAction *> m_tabActions;         // enabled only while a tab is open
    QHash<QAction *, QIcon> m_sourceIcons; // the theme's icons, before tintIcons()
};

#endif
