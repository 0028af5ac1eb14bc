/*
** search_bar.h -- the search bar shared by all tabs: the search field (Return searches the
** active tab), the recent searches of the active tab, the mode picker, the copy button whose
** menu "Results to include in prompt" copies the prompt for one of the three scopes, and under
** the field the filter chips (filter_chips.h).
**
** The field and the picker mirror AppState's query and searchMode both ways. Under the field, the
** active tab's queryError says why a query could not run.
*/
#ifndef TRN_UI_SEARCH_BAR_H
#define TRN_UI_SEARCH_BAR_H

#include "app_state.h"
#include "directory_state.h"
#include "search_results.h"

#include <QPointer>
#include <QWidget>

class FilterChips;
class QAbstractButton;
class QAction;
class QButtonGroup;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;

class SearchBar : public QWidget
{
    Q_OBJECT

public:
    SearchBar(AppState *app, QWidget *parent = nullptr);

    QLineEdit *field() const { return m_field; }
    QPushButton *copyButton() const { return m_copyButton; }
    QAbstractButton *modeButton(SearchMode mode) const;
    QLabel *errorLabel() const { return m_error; }
    FilterChips *filterChips() const { return m_chips; }

signals:
    // Down was pressed in the field: the results list should take the focus.
    void focusResultsRequested();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void syncFromModel();
    void fillHistoryMenu();
    void stylePicker();
    void followActiveState();
    void syncError();
    void styleError();

    QPointer<AppState> m_app;
    QLineEdit *m_field;
    QAction *m_historyAction;
    QMenu *m_historyMenu;
    QWidget *m_picker = nullptr;
    QButtonGroup *m_modes;
    QPushButton *m_copyButton;
    QLabel *m_error;
    QLabel *m_note; // the active tab's resultsNote
    FilterChips *m_chips;
    QPointer<DirectoryState> m_state;
    QObject *m_stateLink = nullptr; // context of the connections to m_state
};

#endif
