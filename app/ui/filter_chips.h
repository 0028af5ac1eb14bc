/*
** filter_chips.h -- the chips under the search field that narrow a search: Type, Folder and
** Modified.
**
** Each chip opens a menu; a choice rewrites the filter words of AppState's query
** (query_filters.h) and runs the search again when the query has words to search for. The chips
** read their labels back from the query, so a filter typed into the field shows on its chip
** ("Type: PDF, Word"), and a chip in use is drawn filled. "Any ..." removes the filter.
**
** Beside them the scope chip "All tabs" (AppState::searchAllTabs) searches every open tab's
** folder at once; it is offered while more than one tab is open.
*/
#ifndef TRN_UI_FILTER_CHIPS_H
#define TRN_UI_FILTER_CHIPS_H

#include "app_state.h"
#include "query_filters.h"

#include <QPointer>
#include <QWidget>

class QMenu;
class QToolButton;

class FilterChips : public QWidget
{
    Q_OBJECT

public:
    explicit FilterChips(AppState *app, QWidget *parent = nullptr);

    QToolButton *chip(FilterKind kind) const;
    QToolButton *allTabsChip() const { return m_allTabs; }
    // What a chip's menu does: the filter of that kind set to value ("" removes it).
    void setFilter(FilterKind kind, const QString &value);
    // "Type: PDF", "Folder: notes", "Modified: past week"; the bare name when not in use.
    static QString chipLabel(FilterKind kind, const QString &value, const QDate &today);

protected:
    void changeEvent(QEvent *event) override;

private:
    void sync();
    void fillTypeMenu();
    void fillFolderMenu();
    void fillModifiedMenu();
    void chooseRange();
    void style();

    QPointer<AppState> m_app;
    QToolButton *m_type;
    QToolButton *m_folder;
    QToolButton *m_modified;
    QToolButton *m_allTabs;
};

#endif
