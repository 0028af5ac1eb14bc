/*
** main_window.cpp -- the main window and its commands.
*/
#include "main_window.h"

#include "app_state.h"
#include "directory_chooser.h"
#include "directory_state.h"
#include "file_scope_window.h"
#include "help_window.h"
#include "icons.h"
#include "missing_folder_bar.h"
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

namespace
{

QFrame *separatorLine(QWidget *parent)
{
    auto *line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setFixedHeight(1);
    line->setForegroundRole(QPalette::Mid);
    return line;
}

} // namespace

MainWindow::MainWindow(AppState *app, TrainingManager *training, QWidget *parent)
    : QMainWindow(parent), m_app(app), m_training(training), m_settings(app->settings())
{
    setObjectName(QStringLiteral("mainWindow"));
    setWindowTitle(QStringLiteral("Tarnwick"));
    setWindowIcon(themedIcon(QStringLiteral("system-search"), QStyle::SP_FileDialogContentsView));
    setAcceptDrops(true);
    resize(1040, 700);
    setMinimumSize(680, 440);
    m_chooser = [](QWidget *owner) {
        return chooseDirectories(owner, tr("Select directories to index"));
    };
    m_confirmer = [](QWidget *owner, const QString &title, const QString &text) {
        QMessageBox box(QMessageBox::Question, title, text, QMessageBox::Cancel, owner);
        box.setObjectName(QStringLiteral("rebuildQuestion"));
        QPushButton *go = box.addButton(tr("Rebuild"), QMessageBox::AcceptRole);
        box.setDefaultButton(go);
        fitOnceShown(&box, owner);
        box.exec();
        return box.clickedButton() == go;
    };

    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_tabs = new TabStrip(app, central);
    layout->addWidget(m_tabs);
    m_search = new SearchBar(app, central);
    layout->addWidget(m_search);
    m_missing = new MissingFolderBar(app, central);
    layout->addWidget(m_missing);
    layout->addWidget(separatorLine(central));
    m_pages = new QStackedWidget(central);
    m_pages->addWidget(buildEmptyState());
    m_pages->addWidget(buildResultsArea());
    layout->addWidget(m_pages, 1);
    setCentralWidget(central);

    m_status = new StatusBarView(app, training, this);
    setStatusBar(m_status);
    connect(m_status, &StatusBarView::reindexRequested, this, [this] {
        if (m_app) {
            m_app->reindexActive();
        }
    });

    buildActions();
    buildMenus();
    applyPreviewLayout();

    connect(m_search, &SearchBar::focusResultsRequested, this, [this] {
        if (m_results->model() && m_results->model()->rowCount() > 0) {
            m_results->setFocus();
            if (!m_results->currentIndex().isValid()) {
                m_results->setCurrentIndex(m_results->model()->index(0, 0));
            }
        }
    });
    connect(m_results, &ResultsView::focusSearchRequested, this, [this] {
        m_search->field()->setFocus();
    });
    connect(m_results, &ResultsView::previewRequested, this, &MainWindow::previewRow);
    connect(m_preview, &PreviewPane::openRequested, this, [this](const SearchResult &result) {
        if (m_state) {
            openResult(result, *m_settings, m_state);
        }
    });
    connect(m_preview, &PreviewPane::hideRequested, this, [this] {
        m_settings->setPreviewPane(false);
    });
    connect(m_split, &QSplitter::splitterMoved, this, [this] {
        const QList<int> sizes = m_split->sizes();
        const int total = sizes.value(0) + sizes.value(1);
        if (sizes.value(1) == 0) {
            m_settings->setPreviewPane(false); // dragged shut
        } else if (total > 0) {
            m_settings->setPreviewShare(double(sizes.value(1)) / total);
        }
    });
    connect(m_settings, &Settings::previewPaneChanged, this, &MainWindow::applyPreviewLayout);
    connect(m_settings, &Settings::previewBelowChanged, this, &MainWindow::applyPreviewLayout);
    connect(app, &AppState::promptCopied, this, [this](const QString &message) {
        m_status->showMessage(message, 5000);
    });
    connect(app, &AppState::activeTabIdChanged, this, &MainWindow::followActiveState);
    connect(app, &AppState::tabsChanged, this, &MainWindow::followActiveState);
    followActiveState();

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickMainWindow"), m_settings);
    if (!frame->restore()) {
        fitOnScreen(this, nullptr); // the default size on a small screen
    }
}

MainWindow::~MainWindow() = default;

QWidget *MainWindow::buildEmptyState()
{
    auto *page = new QWidget(this);
    page->setObjectName(QStringLiteral("emptyState"));
    auto *layout = new QVBoxLayout(page);
    layout->addStretch(3);
    auto *icon = new QLabel(page);
    const QIcon folder = themedIcon(QStringLiteral("folder-open"), QStyle::SP_DirOpenIcon);
    icon->setPixmap(folder.pixmap(72, 72));
    icon->setAlignment(Qt::AlignCenter);
    layout->addWidget(icon);
    auto *title = new QLabel(tr("No directory open"), page);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.6);
    titleFont.setWeight(QFont::DemiBold);
    title->setFont(titleFont);
    title->setAlignment(Qt::AlignCenter);
    layout->addWidget(title);
    auto *text = new QLabel(tr("Open a directory to index its documents and source code,\n"
                               "then search them by meaning, by text or with a regular "
                               "expression."),
                            page);
    text->setAlignment(Qt::AlignCenter);
    text->setForegroundRole(QPalette::PlaceholderText);
    layout->addSpacing(4);
    layout->addWidget(text);
    layout->addSpacing(14);
    auto *open = new QPushButton(
        themedIcon(QStringLiteral("document-open")), tr("Open Directory\u2026"), page);
    open->setObjectName(QStringLiteral("emptyOpenButton"));
    open->setDefault(true);
    open->setMinimumWidth(180);
    connect(open, &QPushButton::clicked, this, &MainWindow::openDirectory);
    auto *row = new QHBoxLayout();
    row->addStretch(1);
    row->addWidget(open);
    row->addStretch(1);
    layout->addLayout(row);
    auto *hint = new QLabel(tr("or drop a folder here \u00b7 Ctrl+Shift+O"), page);
    hint->setAlignment(Qt::AlignCenter);
    hint->setForegroundRole(QPalette::PlaceholderText);
    layout->addSpacing(6);
    layout->addWidget(hint);
    layout->addStretch(4);
    return page;
}

QWidget *MainWindow::buildResultsArea()
{
    m_split = new QSplitter(Qt::Horizontal, this);
    m_split->setObjectName(QStringLiteral("resultsSplitter"));
    m_split->setChildrenCollapsible(true);
    auto *page = new QWidget(m_split);
    page->setObjectName(QStringLiteral("resultsColumn"));
    page->setMinimumSize(300, 160);
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_results = new ResultsView(m_settings, page);
    layout->addWidget(m_results, 1);

    auto *footer = new QWidget(page);
    footer->setObjectName(QStringLiteral("resultsFooter"));
    auto *footerLayout = new QHBoxLayout(footer);
    footerLayout->setContentsMargins(14, 6, 10, 6);
    m_summary = new QLabel(footer);
    m_summary->setObjectName(QStringLiteral("resultsSummary"));
    m_summary->setForegroundRole(QPalette::PlaceholderText);
    footerLayout->addWidget(m_summary, 1);
    m_loadMore = new QPushButton(tr("Load More Results"), footer);
    m_loadMore->setObjectName(QStringLiteral("loadMoreButton"));
    m_loadMore->setIcon(themedIcon(QStringLiteral("go-down"), QStyle::SP_ArrowDown));
    connect(m_loadMore, &QPushButton::clicked, this, [this] {
        if (m_state) {
            m_state->loadMore();
        }
    });
    footerLayout->addWidget(m_loadMore);
    layout->addWidget(separatorLine(page));
    layout->addWidget(footer);

    m_preview = new PreviewPane(m_split);
    m_split->addWidget(page);
    m_split->addWidget(m_preview);
    // The results never give way to the preview: only the pane can be dragged shut.
    m_split->setCollapsible(0, false);
    m_split->setCollapsible(1, true);
    m_split->setStretchFactor(0, 1);
    m_split->setStretchFactor(1, 1);
    return m_split;
}

void MainWindow::applyPreviewLayout()
{
    const bool shown = m_settings->previewPane();
    m_split->setOrientation(m_settings->previewBelow() ? Qt::Vertical : Qt::Horizontal);
    m_preview->setVisible(shown);
    if (QAction *toggle = action(QStringLiteral("previewPaneAction"))) {
        toggle->setChecked(shown);
    }
    if (QAction *below = action(QStringLiteral("previewBelowAction"))) {
        below->setChecked(m_settings->previewBelow());
    }
    if (shown) {
        applyPreviewShare();
        previewRow(m_results->currentIndex().isValid() ? m_results->currentIndex().row() : -1,
                   false);
    }
}

void MainWindow::applyPreviewShare()
{
    // Sizes in proportion: the splitter spreads them over whatever length it has.
    const double share = m_settings->previewShare();
    m_split->setSizes({int((1.0 - share) * 10000), int(share * 10000)});
}

void MainWindow::previewRow(int row, bool reveal)
{
    if (reveal && !m_settings->previewPane()) {
        m_settings->setPreviewPane(true); // shows the pane on the current row
    }
    if (!m_preview->isVisibleTo(this)) {
        return;
    }
    if (!m_state || row < 0 || row >= m_state->resultsModel()->rowCount()) {
        m_preview->showMessage();
        return;
    }
    m_preview->showResult(
        m_state->resultsModel()->result(row), m_state->lastQuery(), m_state->lastMode());
}

void MainWindow::resizeEvent(QResizeEvent *event)
{
    QMainWindow::resizeEvent(event);
    if (m_preview->isVisibleTo(this)) {
        applyPreviewShare();
    }
}

bool MainWindow::isShowingEmptyState() const
{
    return m_pages->currentIndex() == 0;
}

void MainWindow::followActiveState()
{
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (state != m_state || (!state && m_stateLink)) {
        delete m_stateLink;
        m_stateLink = nullptr;
        m_state = state;
        if (state) {
            m_stateLink = new QObject(this);
            connect(state, &DirectoryState::hasMoreResultsChanged, m_stateLink, [this] {
                syncFooter();
            });
            connect(state, &DirectoryState::isLoadingMoreChanged, m_stateLink, [this] {
                syncFooter();
            });
            connect(state, &DirectoryState::displayResultsChanged, m_stateLink, [this] {
                syncFooter();
            });
            connect(state, &DirectoryState::isSearchingChanged, m_stateLink, [this] {
                syncFooter();
            });
        }
        m_preview->setDirectory(state ? state->directoryPath() : QString());
        m_results->setState(state);
    }
    syncFooter();
    syncWindow();
}

void MainWindow::syncFooter()
{
    const bool more = m_state && m_state->hasMoreResults();
    m_loadMore->setVisible(more);
    const bool loading = m_state && m_state->isLoadingMore();
    m_loadMore->setEnabled(!loading);
    m_loadMore->setText(loading ? tr("Loading\u2026") : tr("Load More Results"));
    QString summary;
    if (m_state) {
        const int shown = m_state->resultsModel()->count();
        const int pinned = static_cast<int>(m_state->pinnedResults().size());
        if (m_state->isSearching() && !loading) {
            summary = tr("Searching\u2026");
        } else if (shown > 0) {
            summary = shown == 1 ? tr("1 result") : tr("%1 results").arg(shown);
            if (pinned > 0) {
                summary += tr(" \u00b7 %1 pinned").arg(pinned);
            }
        }
    }
    m_summary->setText(summary);
    m_summary->parentWidget()->setVisible(m_state && (more || !summary.isEmpty()));
}

void MainWindow::syncWindow()
{
    const std::optional<DirectoryTab> tab = m_app ? m_app->activeTab() : std::nullopt;
    m_pages->setCurrentIndex(tab ? 1 : 0);
    setWindowTitle(tab ? tab->name + QStringLiteral(" \u2014 Tarnwick")
                       : QStringLiteral("Tarnwick"));
    setWindowFilePath(QString());
    for (QAction *a : m_tabActions) {
        a->setEnabled(tab.has_value());
    }
    m_tabs->setVisible(m_app && !m_app->tabs().isEmpty());
    if (tab && !m_search->field()->hasFocus() && !m_results->hasFocus()) {
        m_search->field()->setFocus();
    }
}

QString MainWindow::rebuildQuestion(const QString &name, const DirectoryState &state)
{
    const TrnStats stats = state.stats();
    QString text = tr("The index of \u201c%1\u201d (%2 chunks from %3 files) is discarded and "
                      "built again from the files.")
                       .arg(name)
                       .arg(stats.chunk_count - stats.deleted_count)
                       .arg(stats.file_count);
    const double seconds = state.reindexEstimateSeconds();
    if (seconds > 0) {
        text += tr(" At the speed of the last indexing that takes about %1.")
                    .arg(durationText(seconds));
    } else {
        text += tr(" No indexing speed has been measured yet; the status bar shows the time left "
                   "once it runs.");
    }
    text += tr(" Until it is done, searches find only what has been indexed again.");
    return text;
}

void MainWindow::confirmRebuild()
{
    const std::optional<DirectoryTab> tab = m_app ? m_app->activeTab() : std::nullopt;
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (!tab || !state || state->isIngesting()) {
        return;
    }
    if (m_confirmer(
            this, tr("Rebuild the index of %1?").arg(tab->name), rebuildQuestion(tab->name, *state))
        && m_app && m_app->activeState() == state) {
        m_app->rebuildActive();
    }
}

void MainWindow::openDirectory()
{
    const QStringList paths = m_chooser(this);
    if (m_app && !paths.isEmpty()) {
        m_app->openDirectory(paths);
    }
}

void MainWindow::focusSearch(const QString &query)
{
    if (!query.isEmpty()) {
        m_app->setQuery(query);
        m_app->performSearch();
    }
    raise();
    activateWindow();
    m_search->field()->setFocus(Qt::OtherFocusReason);
    m_search->field()->selectAll();
}

void MainWindow::showFileScope()
{
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (!state) {
        return;
    }
    state->loadFileList();
    if (!m_fileScope) {
        m_fileScope = new FileScopeWindow(m_settings, this);
    }
    m_fileScope->setState(state);
    showOnScreen(m_fileScope, this);
}

void MainWindow::showSettings()
{
    if (!m_settingsWindow) {
        m_settingsWindow = new SettingsWindow(m_training, m_settings, this);
    }
    showOnScreen(m_settingsWindow, this);
}

void MainWindow::showHelp()
{
    if (!m_help) {
        m_help = new HelpWindow(m_settings, this);
    }
    m_help->showPage(QStringLiteral("index.html"));
    showOnScreen(m_help, this);
}

void MainWindow::tintIcons()
{
    for (auto it = m_sourceIcons.cbegin(); it != m_sourceIcons.cend(); ++it) {
        it.key()->setIcon(paletteIcon(it.value(), palette()));
    }
}

void MainWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        tintIcons();
    }
    QMainWindow::changeEvent(event);
}

void MainWindow::dragEnterEvent(QDragEnterEvent *event)
{
    if (event->mimeData()->hasUrls()) {
        for (const QUrl &url : event->mimeData()->urls()) {
            if (url.isLocalFile() && QFileInfo(url.toLocalFile()).isDir()) {
                event->acceptProposedAction();
                return;
            }
        }
    }
}

void MainWindow::dropEvent(QDropEvent *event)
{
    QStringList paths;
    for (const QUrl &url : event->mimeData()->urls()) {
        const QFileInfo info(url.toLocalFile());
        if (url.isLocalFile() && info.isDir()) {
            paths.append(info.absoluteFilePath());
        }
    }
    if (m_app && !paths.isEmpty()) {
        m_app->openDirectory(paths);
        event->acceptProposedAction();
    }
}
