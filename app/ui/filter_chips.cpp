/*
** filter_chips.cpp -- Type, Folder and Modified chips over the query's filter words.
*/
#include "filter_chips.h"

#include "directory_state.h"

#include <QDateEdit>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QMenu>
#include <QToolButton>

namespace
{

// How many subfolders the Folder menu lists before "Choose Folder…".
constexpr int kMaxFolderItems = 40;

QString typeTitle(const QString &name)
{
    static const QHash<QString, QString> titles = {
        {QStringLiteral("pdf"), FilterChips::tr("PDF")},
        {QStringLiteral("docx"), FilterChips::tr("Word")},
        {QStringLiteral("odt"), FilterChips::tr("OpenDocument")},
        {QStringLiteral("epub"), FilterChips::tr("E-book")},
        {QStringLiteral("html"), FilterChips::tr("HTML")},
        {QStringLiteral("markdown"), FilterChips::tr("Markdown")},
        {QStringLiteral("text"), FilterChips::tr("Plain text")},
        {QStringLiteral("source"), FilterChips::tr("Source code")}};
    return titles.value(name.toLower(), name);
}

// The named spans of the Modified menu, newest first: (title, first day counted).
QList<std::pair<QString, QDate>> recentSpans(const QDate &today)
{
    return {{FilterChips::tr("today"), today},
            {FilterChips::tr("past week"), today.addDays(-7)},
            {FilterChips::tr("past month"), today.addMonths(-1)},
            {FilterChips::tr("past year"), today.addYears(-1)}};
}

} // namespace

FilterChips::FilterChips(AppState *app, QWidget *parent) : QWidget(parent), m_app(app)
{
    setObjectName(QStringLiteral("filterChips"));
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    const auto makeChip = [this, layout](const QString &name, const QString &tip) {
        auto *chip = new QToolButton(this);
        chip->setObjectName(name);
        chip->setPopupMode(QToolButton::InstantPopup);
        chip->setToolTip(tip);
        chip->setMenu(new QMenu(chip));
        chip->setFocusPolicy(Qt::TabFocus);
        layout->addWidget(chip);
        return chip;
    };
    m_type = makeChip(QStringLiteral("typeChip"),
                      tr("Only these kinds of file (type: in the query, e.g. type:pdf,docx)"));
    m_folder = makeChip(QStringLiteral("folderChip"),
                        tr("Only files in this folder (in: in the query, e.g. in:notes/2024)"));
    m_modified = makeChip(QStringLiteral("modifiedChip"),
                          tr("Only files changed in this time (modified: in the query, e.g. "
                             "modified:>=2024-01-01)"));
    layout->addSpacing(10);
    m_allTabs = new QToolButton(this);
    m_allTabs->setObjectName(QStringLiteral("allTabsChip"));
    m_allTabs->setText(tr("All tabs"));
    m_allTabs->setCheckable(true);
    m_allTabs->setFocusPolicy(Qt::TabFocus);
    m_allTabs->setToolTip(tr("Search the folders of every open tab at once"));
    layout->addWidget(m_allTabs);
    connect(m_allTabs, &QToolButton::toggled, this, [this](bool on) {
        if (m_app) {
            m_app->setSearchAllTabs(on);
        }
    });
    connect(app, &AppState::searchAllTabsChanged, this, &FilterChips::sync);
    connect(app, &AppState::tabsChanged, this, &FilterChips::sync);
    connect(m_type->menu(), &QMenu::aboutToShow, this, &FilterChips::fillTypeMenu);
    connect(m_folder->menu(), &QMenu::aboutToShow, this, &FilterChips::fillFolderMenu);
    connect(m_modified->menu(), &QMenu::aboutToShow, this, &FilterChips::fillModifiedMenu);
    connect(app, &AppState::queryChanged, this, &FilterChips::sync);
    connect(app, &AppState::activeTabIdChanged, this, &FilterChips::sync);
    sync();
}

QToolButton *FilterChips::chip(FilterKind kind) const
{
    switch (kind) {
    case FilterKind::Type:
        return m_type;
    case FilterKind::Folder:
        return m_folder;
    case FilterKind::Modified:
        break;
    }
    return m_modified;
}

void FilterChips::setFilter(FilterKind kind, const QString &value)
{
    if (!m_app) {
        return;
    }
    const QString query = withFilter(m_app->query(), kind, value);
    m_app->setQuery(query);
    if (!withoutFilters(query).isEmpty()) {
        m_app->performSearch();
    }
}

QString FilterChips::chipLabel(FilterKind kind, const QString &value, const QDate &today)
{
    switch (kind) {
    case FilterKind::Type: {
        if (value.isEmpty()) {
            return tr("Type");
        }
        QStringList titles;
        for (const QString &name : value.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            titles.append(typeTitle(name));
        }
        return tr("Type: %1").arg(titles.join(QStringLiteral(", ")));
    }
    case FilterKind::Folder:
        return value.isEmpty() ? tr("Folder") : tr("Folder: %1").arg(value);
    case FilterKind::Modified:
        break;
    }
    if (value.isEmpty()) {
        return tr("Modified");
    }
    for (const auto &[title, since] : recentSpans(today)) {
        if (value == modifiedSince(since)) {
            return tr("Modified: %1").arg(title);
        }
    }
    QString shown = value;
    shown.replace(QStringLiteral(".."), QStringLiteral(" \u2013 "));
    shown.replace(QStringLiteral(">="), QStringLiteral("\u2265 "));
    shown.replace(QStringLiteral("<="), QStringLiteral("\u2264 "));
    return tr("Modified: %1").arg(shown);
}

void FilterChips::sync()
{
    const QString query = m_app ? m_app->query() : QString();
    const bool hasTab = m_app && m_app->activeTab();
    for (FilterKind kind : {FilterKind::Type, FilterKind::Folder, FilterKind::Modified}) {
        const QString value = filterValue(query, kind);
        QToolButton *c = chip(kind);
        c->setText(chipLabel(kind, value, QDate::currentDate()) + QStringLiteral(" \u25be"));
        c->setProperty("inUse", !value.isEmpty());
        c->setEnabled(hasTab);
    }
    const bool across = m_app && m_app->searchAllTabs();
    if (m_allTabs->isChecked() != across) {
        const QSignalBlocker quiet(m_allTabs);
        m_allTabs->setChecked(across);
    }
    m_allTabs->setProperty("inUse", across);
    m_allTabs->setVisible(m_app && m_app->tabs().size() > 1);
    style();
}

void FilterChips::style()
{
    // Rounded chips; one in use is filled with the highlight colour.
    const QPalette pal = palette();
    QColor border = pal.color(QPalette::WindowText);
    border.setAlphaF(0.25f);
    setStyleSheet(QStringLiteral("QToolButton { border: 1px solid %1; border-radius: 10px;"
                                 " padding: 1px 10px; background: %2; color: %3; }"
                                 "QToolButton::menu-indicator { image: none; width: 0; }"
                                 "QToolButton[inUse=\"true\"] { background: %4; color: %5;"
                                 " border-color: %4; }")
                      .arg(border.name(QColor::HexArgb),
                           pal.color(QPalette::Button).name(),
                           pal.color(QPalette::ButtonText).name(),
                           pal.color(QPalette::Highlight).name(),
                           pal.color(QPalette::HighlightedText).name()));
}

void FilterChips::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        style();
    }
    QWidget::changeEvent(event);
}

void FilterChips::fillTypeMenu()
{
    QMenu *menu = m_type->menu();
    menu->clear();
    const QString query = m_app ? m_app->query() : QString();
    const QStringList chosen =
        filterValue(query, FilterKind::Type).toLower().split(QLatin1Char(','), Qt::SkipEmptyParts);
    menu->addAction(tr("Any type"), this, [this] {
        setFilter(FilterKind::Type, QString());
    });
    menu->addSeparator();
    for (const QString &name : filterTypeNames()) {
        QAction *action = menu->addAction(typeTitle(name));
        action->setObjectName(QStringLiteral("type_") + name);
        action->setCheckable(true);
        action->setChecked(chosen.contains(name));
        connect(action, &QAction::triggered, this, [this, name, chosen](bool on) {
            QStringList types = chosen;
            types.removeAll(name);
            if (on) {
                types.append(name);
            }
            setFilter(FilterKind::Type, types.join(QLatin1Char(',')));
        });
    }
}

void FilterChips::fillFolderMenu()
{
    QMenu *menu = m_folder->menu();
    menu->clear();
    DirectoryState *state = m_app ? m_app->activeState() : nullptr;
    if (!state) {
        return;
    }
    const QString current = filterValue(m_app->query(), FilterKind::Folder);
    menu->addAction(tr("Any folder"), this, [this] {
        setFilter(FilterKind::Folder, QString());
    });
    menu->addSeparator();
    const QDir root(state->directoryPath());
    const QStringList folders = root.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &folder : folders.mid(0, kMaxFolderItems)) {
        QAction *action = menu->addAction(folder);
        action->setCheckable(true);
        action->setChecked(folder == current);
        connect(action, &QAction::triggered, this, [this, folder] {
            setFilter(FilterKind::Folder, folder);
        });
    }
    menu->addSeparator();
    const QString rootPath = root.absolutePath();
    menu->addAction(tr("Choose Folder\u2026"), this, [this, rootPath] {
        const QString chosen =
            QFileDialog::getExistingDirectory(this, tr("Search only in this folder"), rootPath);
        const QString relative =
            chosen.isEmpty() ? QString() : QDir(rootPath).relativeFilePath(chosen);
        if (!relative.isEmpty() && !relative.startsWith(QLatin1String(".."))) {
            setFilter(FilterKind::Folder, relative == QLatin1String(".") ? QString() : relative);
        }
    });
}

void FilterChips::fillModifiedMenu()
{
    QMenu *menu = m_modified->menu();
    menu->clear();
    const QString current = m_app ? filterValue(m_app->query(), FilterKind::Modified) : QString();
    menu->addAction(tr("Any time"), this, [this] {
        setFilter(FilterKind::Modified, QString());
    });
    menu->addSeparator();
    for (const auto &[title, since] : recentSpans(QDate::currentDate())) {
        const QString value = modifiedSince(since);
        QAction *action = menu->addAction(title.left(1).toUpper() + title.mid(1));
        action->setCheckable(true);
        action->setChecked(value == current);
        connect(action, &QAction::triggered, this, [this, value] {
            setFilter(FilterKind::Modified, value);
        });
    }
    menu->addSeparator();
    menu->addAction(tr("Between Dates\u2026"), this, &FilterChips::chooseRange);
}

void FilterChips::chooseRange()
{
    QDialog dialog(this);
    dialog.setObjectName(QStringLiteral("dateRangeDialog"));
    dialog.setWindowTitle(tr("Files changed between"));
    dialog.setMinimumWidth(340);
    auto *form = new QFormLayout(&dialog);
    auto *first = new QDateEdit(QDate::currentDate().addMonths(-1), &dialog);
    auto *last = new QDateEdit(QDate::currentDate(), &dialog);
    for (QDateEdit *edit : {first, last}) {
        edit->setCalendarPopup(true);
        edit->setDisplayFormat(QStringLiteral("yyyy-MM-dd"));
    }
    // A range typed or chosen before is offered again.
    const QString current = m_app ? filterValue(m_app->query(), FilterKind::Modified) : QString();
    const QStringList ends = current.split(QStringLiteral(".."));
    if (ends.size() == 2) {
        first->setDate(QDate::fromString(ends.at(0), Qt::ISODate));
        last->setDate(QDate::fromString(ends.at(1), Qt::ISODate));
    }
    form->addRow(tr("From:"), first);
    form->addRow(tr("To:"), last);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    form->addRow(buttons);
    if (dialog.exec() == QDialog::Accepted) {
        const QDate a = qMin(first->date(), last->date());
        const QDate b = qMax(first->date(), last->date());
        setFilter(FilterKind::Modified, modifiedBetween(a, b));
    }
}
