/*
** main_window_actions.cpp -- the main window's actions (with their shortcuts and icons) and its
** menus; the window itself is in main_window.cpp.
*/
#include "main_window.h"

#include "app_state.h"
#include "directory_chooser.h"
#include "directory_state.h"
#include "file_scope_window.h"
#include "help_window.h"
#include "icons.h"
#include "preview_pane.h"
#include "result_opener.h"
#include "results_model.h"
#include "results_view.h"
#include "search_bar.h"
#include "settings.h"
#include "settings_window.h"
#include "status_bar.h"
#include "tab_strip.h"
#include "window_frames.h"

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QToolBar>
#include <QVBoxLayout>

void MainWindow::buildActions()
{
    auto make = [this](const QString &name,
                       const QString &text,
                       const QKeySequence &key,
                       const QString &icon,
                       auto slot) {
        const QIcon themed = themedIcon(icon.split(QLatin1Char('|')));
        auto *action = new QAction(themed, text, this);
        m_sourceIcons.insert(action, themed);
        action->setObjectName(name);
        action->setShortcut(key);
        action->setShortcutContext(Qt::WindowShortcut);
        connect(action, &QAction::triggered, this, slot);
        addAction(action);
        return action;
    };
    QAction *open = make(QStringLiteral("openDirectoryAction"),
                         tr("Open Directory\u2026"),
                         QKeySequence(QStringLiteral("Ctrl+Shift+O")),
                         QStringLiteral("document-open"),
                         [this] {
                             openDirectory();
                         });
    open->setToolTip(tr("Open Directory (Ctrl+Shift+O)"));
    open->setIconText(tr("Open"));
    QAction *close = make(QStringLiteral("closeTabAction"),
                          tr("Close Tab"),
                          QKeySequence(QStringLiteral("Ctrl+W")),
                          QStringLiteral("window-close"),
                          [this] {
                              if (m_app) {
                                  m_app->closeActiveTab();
                              }
                          });
    close->setToolTip(tr("Close Tab (Ctrl+W)"));
    close->setIconText(tr("Close Tab"));
    QAction *reindex = make(QStringLiteral("reindexAction"),
                            tr("Re-index"),
                            QKeySequence(QStringLiteral("Ctrl+Shift+R")),
                            QStringLiteral("view-refresh"),
                            [this] {
                                DirectoryState *state = m_app ? m_app->activeState() : nullptr;
                                if (state && !state->isIngesting()) {
                                    m_app->reindexActive();
                                }
                            });
    QAction *rebuild = make(QStringLiteral("rebuildIndexAction"),
                            tr("Rebuild Index…"),
                            QKeySequence(QStringLiteral("Ctrl+Shift+B")),
                            QStringLiteral("edit-clear-all|view-refresh"),
                            [this] {
                                confirmRebuild();
                            });
    QAction *scope = make(QStringLiteral("fileScopeAction"),
                          tr("Show File Scope"),
                          QKeySequence(QStringLiteral("Ctrl+I")),
                          QStringLiteral("view-list-details|view-list|x-office-spreadsheet"),
                          [this] {
                              showFileScope();
                          });
    scope->setIconText(tr("Files"));
    scope->setToolTip(tr("Show File Scope (Ctrl+I)"));
    QAction *copy = make(QStringLiteral("copyPromptAction"),
                         tr("Copy Prompt"),
                         QKeySequence(QStringLiteral("Ctrl+Shift+C")),
                         QStringLiteral("edit-copy"),
                         [this] {
                             if (m_app) {
                                 m_app->copyPrompt(PromptScope::Top5);
                             }
                         });
    make(QStringLiteral("findAction"),
         tr("Find"),
         QKeySequence::Find,
         QStringLiteral("edit-find"),
         [this] {
             m_search->field()->setFocus();
             m_search->field()->selectAll();
         });
    QAction *previewPane =
        make(QStringLiteral("previewPaneAction"),
             tr("Preview Pane"),
             QKeySequence(Qt::Key_F8),
             QStringLiteral("view-preview|sidebar-show-right-symbolic|view-dual-symbolic"),
             [this] {
                 m_settings->setPreviewPane(!m_settings->previewPane());
             });
    previewPane->setCheckable(true);
    previewPane->setIconText(tr("Preview"));
    previewPane->setToolTip(tr("Show or hide the preview (F8)"));
    QAction *below = make(QStringLiteral("previewBelowAction"),
                          tr("Preview Under Results"),
                          QKeySequence(),
                          QString(),
                          [this] {
                              m_settings->setPreviewBelow(!m_settings->previewBelow());
                          });
    below->setCheckable(true);
    QAction *passages = make(QStringLiteral("allPassagesAction"),
                             tr("Every Passage"),
                             QKeySequence(),
                             QString(),
                             [this] {
                                 m_settings->setAllPassages(!m_settings->allPassages());
                                 if (m_app && !m_app->query().isEmpty()) {
                                     m_app->performSearch(); // laid out the other way
                                 }
                             });
    passages->setCheckable(true);
    passages->setChecked(m_settings->allPassages());
    passages->setToolTip(tr("List every matching passage instead of one row per file"));
    connect(m_settings, &Settings::allPassagesChanged, passages, [this, passages] {
        passages->setChecked(m_settings->allPassages());
    });
    make(QStringLiteral("helpAction"),
         tr("Tarnwick Help"),
         QKeySequence(QStringLiteral("Ctrl+/")),
         QStringLiteral("help-browser"),
         [this] {
             showHelp();
         });
    QAction *settings = make(QStringLiteral("settingsAction"),
                             tr("Settings\u2026"),
                             QKeySequence(QStringLiteral("Ctrl+,")),
                             QStringLiteral("preferences-system"),
                             [this] {
                                 showSettings();
                             });
    settings->setMenuRole(QAction::PreferencesRole);
    settings->setIconText(tr("Settings"));
    make(QStringLiteral("quitAction"),
         tr("Quit"),
         QKeySequence::Quit,
         QStringLiteral("application-exit"),
         [] {
             QApplication::closeAllWindows();
         });
    make(QStringLiteral("nextTabAction"),
         tr("Next Tab"),
         QKeySequence(QStringLiteral("Ctrl+PgDown")),
         QString(),
         [this] {
             if (m_tabs->count() > 1) {
                 m_tabs->setCurrentIndex((m_tabs->currentIndex() + 1) % m_tabs->count());
             }
         });
    make(QStringLiteral("previousTabAction"),
         tr("Previous Tab"),
         QKeySequence(QStringLiteral("Ctrl+PgUp")),
         QString(),
         [this] {
             if (m_tabs->count() > 1) {
                 m_tabs->setCurrentIndex((m_tabs->currentIndex() + m_tabs->count() - 1)
                                         % m_tabs->count());
             }
         });
    make(QStringLiteral("aboutAction"),
         tr("About Tarnwick"),
         QKeySequence(),
         QStringLiteral("help-about"),
         [this] {
             QMessageBox::about(
                 this,
                 tr("About Tarnwick"),
                 tr("<h3>Tarnwick %1</h3><p>Searches the contents of local directories by "
                    "meaning, by text and by regular expression. Everything stays on this "
                    "computer: each directory keeps its index in a hidden <tt>.tarnwick</tt> "
                    "folder.</p>")
                     .arg(QApplication::applicationVersion()));
         });
    m_tabActions = {close, reindex, rebuild, scope, copy};

    tintIcons();

    auto *toolbar = addToolBar(tr("Main Toolbar"));
    toolbar->setObjectName(QStringLiteral("mainToolbar"));
    toolbar->setMovable(false);
    toolbar->setFloatable(false);
    toolbar->setIconSize(QSize(20, 20));
    toolbar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    toolbar->addAction(open);
    toolbar->addAction(close);
    toolbar->addSeparator();
    toolbar->addAction(scope);
    toolbar->addAction(previewPane);
    auto *spacer = new QWidget(toolbar);
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    toolbar->addWidget(spacer);
    toolbar->addAction(settings);
}

QAction *MainWindow::action(const QString &objectName) const
{
    return findChild<QAction *>(objectName);
}

void MainWindow::buildMenus()
{
    QMenu *file = menuBar()->addMenu(tr("&File"));
    file->addAction(action(QStringLiteral("openDirectoryAction")));
    file->addAction(action(QStringLiteral("closeTabAction")));
    file->addAction(action(QStringLiteral("reindexAction")));
    file->addAction(action(QStringLiteral("rebuildIndexAction")));
    file->addSeparator();
    file->addAction(action(QStringLiteral("settingsAction")));
    file->addSeparator();
    file->addAction(action(QStringLiteral("quitAction")));
    QMenu *edit = menuBar()->addMenu(tr("&Edit"));
    edit->addAction(action(QStringLiteral("findAction")));
    edit->addAction(action(QStringLiteral("copyPromptAction")));
    QMenu *view = menuBar()->addMenu(tr("&View"));
    view->addAction(action(QStringLiteral("fileScopeAction")));
    view->addSeparator();
    view->addAction(action(QStringLiteral("previewPaneAction")));
    view->addAction(action(QStringLiteral("previewBelowAction")));
    view->addAction(action(QStringLiteral("allPassagesAction")));
    view->addSeparator();
    view->addAction(action(QStringLiteral("nextTabAction")));
    view->addAction(action(QStringLiteral("previousTabAction")));
    QMenu *help = menuBar()->addMenu(tr("&Help"));
    help->addAction(action(QStringLiteral("helpAction")));
    help->addSeparator();
    help->addAction(action(QStringLiteral("aboutAction")));
}
