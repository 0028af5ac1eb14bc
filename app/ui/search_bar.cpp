/*
** search_bar.cpp -- search field, mode picker and prompt copy button.
*/
#include "search_bar.h"

#include "app_state.h"
#include "directory_state.h"
#include "filter_chips.h"
#include "icons.h"
#include "prompt_builder.h"

#include <QAction>
#include <QButtonGroup>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

SearchBar::SearchBar(AppState *app, QWidget *parent) : QWidget(parent), m_app(app)
{
    setObjectName(QStringLiteral("searchBar"));
    // The row of controls, and under it the reason a query could not run.
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(10, 8, 10, 8);
    column->setSpacing(4);
    auto *layout = new QHBoxLayout();
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);
    column->addLayout(layout);
    auto *narrowing = new QHBoxLayout();
    narrowing->setContentsMargins(0, 0, 0, 0);
    narrowing->setSpacing(8);
    m_chips = new FilterChips(app, this);
    narrowing->addWidget(m_chips);
    narrowing->addStretch(1);
    column->addLayout(narrowing);
    m_error = new QLabel(this);
    m_error->setObjectName(QStringLiteral("queryErrorLabel"));
    m_error->setWordWrap(true);
    m_error->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_error->hide();
    column->addWidget(m_error);
    m_note = new QLabel(this);
    m_note->setObjectName(QStringLiteral("resultsNoteLabel"));
    m_note->setEnabled(false); // drawn dimmed: it qualifies the results, it asks for nothing
    m_note->hide();
    column->addWidget(m_note);

    m_field = new QLineEdit(this);
    m_field->setObjectName(QStringLiteral("searchField"));
    m_field->setClearButtonEnabled(true);
    m_field->setMinimumWidth(240);
    m_field->setToolTip(tr("Search the active directory (Ctrl+F); Return runs the search"));
    const QIcon findIcon = themedIcon(QStringLiteral("edit-find"));
    if (!findIcon.isNull()) {
        m_field->addAction(findIcon, QLineEdit::LeadingPosition);
    }
    m_historyMenu = new QMenu(this);
    m_historyMenu->setObjectName(QStringLiteral("historyMenu"));
    QIcon historyIcon = themedIcon(QStringLiteral("document-open-recent"));
    if (historyIcon.isNull()) {
        historyIcon = themedIcon(QString(), QStyle::SP_ArrowDown);
    }
    m_historyAction = m_field->addAction(historyIcon, QLineEdit::TrailingPosition);
    m_historyAction->setObjectName(QStringLiteral("historyAction"));
    m_historyAction->setToolTip(tr("Recent searches"));
    connect(m_historyAction, &QAction::triggered, this, [this] {
        fillHistoryMenu();
        if (!m_historyMenu->isEmpty()) {
            m_historyMenu->popup(m_field->mapToGlobal(QPoint(0, m_field->height())));
        }
    });
    m_field->installEventFilter(this);
    layout->addWidget(m_field, 1);

    // The mode picker: five exclusive buttons drawn as one segmented control.
    auto *picker = new QWidget(this);
    picker->setObjectName(QStringLiteral("modePicker"));
    auto *pickerLayout = new QHBoxLayout(picker);
    pickerLayout->setContentsMargins(0, 0, 0, 0);
    pickerLayout->setSpacing(0);
    m_modes = new QButtonGroup(this);
    m_modes->setExclusive(true);
    const auto tipFor = [](SearchMode mode) {
        switch (mode) {
        case SearchMode::Hybrid:
            return SearchBar::tr("Find passages by their words and by meaning together");
        case SearchMode::Semantic:
            return SearchBar::tr("Find passages by meaning");
        case SearchMode::Keyword:
            return SearchBar::tr("Find passages with the most of the query's words");
        case SearchMode::Text:
            return SearchBar::tr("Find text, ignoring case");
        case SearchMode::Regex:
            return SearchBar::tr("Find matches of a regular expression");
        }
        return QString();
    };
    for (SearchMode mode : allSearchModes()) {
        auto *button = new QToolButton(picker);
        button->setText(searchModeName(mode));
        button->setObjectName(QStringLiteral("mode") + searchModeName(mode));
        button->setCheckable(true);
        button->setAutoRaise(false);
        button->setToolButtonStyle(Qt::ToolButtonTextOnly);
        button->setToolTip(tipFor(mode));
        button->setMinimumWidth(76);
        button->setFocusPolicy(Qt::TabFocus);
        m_modes->addButton(button, static_cast<int>(mode));
        pickerLayout->addWidget(button);
    }
    connect(m_modes, &QButtonGroup::idClicked, this, [this](int id) {
        if (m_app) {
            m_app->setSearchMode(static_cast<SearchMode>(id));
        }
    });
    layout->addWidget(picker);
    m_picker = picker;
    stylePicker();

    // The prompt copy button and its scope menu.
    m_copyButton = new QPushButton(this);
    m_copyButton->setObjectName(QStringLiteral("copyPromptButton"));
    m_copyButton->setToolTip(tr("Copy search results as RAG prompt (Ctrl+Shift+C)"));
    const QIcon copyIcon = themedIcon(QStringLiteral("edit-copy"));
    m_copyButton->setIcon(copyIcon);
    m_copyButton->setText(tr("Copy Prompt"));
    m_copyButton->setAutoDefault(false);
    auto *scopeMenu = new QMenu(m_copyButton);
    scopeMenu->setObjectName(QStringLiteral("promptScopeMenu"));
    scopeMenu->setTitle(tr("Results to include in prompt"));
    scopeMenu->addSection(tr("Results to include in prompt"));
    for (PromptScope scope : allPromptScopes()) {
        QAction *action = scopeMenu->addAction(promptScopeName(scope));
        action->setObjectName(QStringLiteral("scope") + promptScopeName(scope).remove(' '));
        connect(action, &QAction::triggered, this, [this, scope] {
            if (m_app && m_app->activeState()) {
                m_app->copyPrompt(scope);
            }
        });
    }
    m_copyButton->setMenu(scopeMenu);
    layout->addWidget(m_copyButton);

    connect(m_field, &QLineEdit::textChanged, this, [this](const QString &text) {
        if (m_app) {
            m_app->setQuery(text);
        }
    });
    connect(m_field, &QLineEdit::returnPressed, this, [this] {
        if (m_app) {
            m_app->performSearch();
        }
    });
    connect(app, &AppState::queryChanged, this, &SearchBar::syncFromModel);
    connect(app, &AppState::searchModeChanged, this, &SearchBar::syncFromModel);
    connect(app, &AppState::activeTabIdChanged, this, &SearchBar::syncFromModel);
    connect(app, &AppState::tabsChanged, this, &SearchBar::syncFromModel);
    connect(app, &AppState::activeTabIdChanged, this, &SearchBar::followActiveState);
    connect(app, &AppState::tabsChanged, this, &SearchBar::followActiveState);
    syncFromModel();
    followActiveState();
}

void SearchBar::followActiveState()
{
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (state == m_state && (state || !m_stateLink)) {
        return;
    }
    delete m_stateLink;
    m_stateLink = nullptr;
    m_state = state;
    if (state) {
        m_stateLink = new QObject(this);
        connect(state, &DirectoryState::queryErrorChanged, m_stateLink, [this] {
            syncError();
        });
        connect(state, &DirectoryState::resultsNoteChanged, m_stateLink, [this] {
            syncError();
        });
    }
    syncError();
}

void SearchBar::syncError()
{
    const QString error = m_state ? m_state->queryError() : QString();
    m_error->setText(error);
    m_error->setVisible(!error.isEmpty());
    const QString note = m_state && error.isEmpty() ? m_state->resultsNote() : QString();
    m_note->setText(note);
    m_note->setVisible(!note.isEmpty());
    styleError();
}

void SearchBar::styleError()
{
    // A red that reads on both a light and a dark window.
    const bool dark = palette().color(QPalette::Window).lightness() < 128;
    m_error->setStyleSheet(QStringLiteral("color: %1;").arg(dark ? "#ff8a80" : "#c62828"));
}

void SearchBar::stylePicker()
{
    // One segmented control: joined buttons, the chosen mode filled with the highlight colour.
    const QPalette pal = palette();
    const QColor button = pal.color(QPalette::Button);
    QColor border = pal.color(QPalette::WindowText);
    border.setAlphaF(0.25f);
    const QString sheet =
        QStringLiteral("QToolButton { border: 1px solid %1; border-left: none; padding: 3px 10px;"
                       " background: %2; color: %3; }"
                       "QToolButton:hover:!checked { background: %4; }"
                       "QToolButton:checked { background: %5; color: %6; border-color: %5; }"
                       "QToolButton#modeSemantic { border-left: 1px solid %1;"
                       " border-top-left-radius: 4px; border-bottom-left-radius: 4px; }"
                       "QToolButton#modeSemantic:checked { border-left-color: %5; }"
                       "QToolButton#modeRegex { border-top-right-radius: 4px;"
                       " border-bottom-right-radius: 4px; }")
            .arg(border.name(QColor::HexArgb),
                 button.name(),
                 pal.color(QPalette::ButtonText).name(),
                 button.lighter(button.lightness() < 128 ? 130 : 104).name(),
                 pal.color(QPalette::Highlight).name(),
                 pal.color(QPalette::HighlightedText).name());
    m_picker->setStyleSheet(sheet);
}

void SearchBar::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange && m_picker) {
        stylePicker();
        styleError();
    }
    QWidget::changeEvent(event);
}

QAbstractButton *SearchBar::modeButton(SearchMode mode) const
{
    return m_modes->button(static_cast<int>(mode));
}

void SearchBar::syncFromModel()
{
    if (!m_app) {
        return;
    }
    if (m_field->text() != m_app->query()) {
        m_field->setText(m_app->query());
    }
    if (QAbstractButton *button = modeButton(m_app->searchMode())) {
        button->setChecked(true);
    }
    const std::optional<DirectoryTab> tab = m_app->activeTab();
    const bool hasTab = tab.has_value();
    m_field->setEnabled(hasTab);
    m_copyButton->setEnabled(hasTab);
    m_historyAction->setEnabled(hasTab);
    m_field->setPlaceholderText(hasTab ? tr("Search %1").arg(tab->name)
                                       : tr("Open a directory to search it"));
}

void SearchBar::fillHistoryMenu()
{
    m_historyMenu->clear();
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (!state || state->searchHistory().isEmpty()) {
        return;
    }
    m_historyMenu->addSection(tr("Recent Searches"));
    for (const SearchHistoryEntry &entry : state->searchHistory()) {
        QAction *action = m_historyMenu->addAction(entry.query + QStringLiteral("  \u2014  ")
                                                   + searchModeName(entry.mode));
        const QString query = entry.query;
        const SearchMode chosen = entry.mode;
        connect(action, &QAction::triggered, this, [this, query, chosen] {
            if (m_app) {
                m_app->setQuery(query);
                if (m_app->searchMode() != chosen) {
                    m_app->setSearchMode(chosen); // runs the search in the new mode
                } else {
                    m_app->performSearch();
                }
            }
        });
    }
}

bool SearchBar::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_field && event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Down && key->modifiers() == Qt::NoModifier) {
            emit focusResultsRequested();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}
