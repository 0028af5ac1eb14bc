/*
** results_view.h -- the results list of the active tab.
**
** Shows DirectoryState::resultsModel(): per row the file's name, its path relative to the
** directory, the line, the score, a two-line snippet with the query's matches marked (text and
** regex modes) and a pin toggle; pinned rows carry an accent bar and a filled pin.
**
** A file's row says how many more of its passages matched; clicking that (or Right) shows them
** under the row, indented, and clicking again (or Left) hides them.
**
** Keys: the arrows move, Return (or a double click) opens the result in its application, Space
** shows it in the preview (showing the pane if hidden), Ctrl+D pins or unpins it, Escape hands
** the focus back to the search field.
**
** The preview follows the current row: when the rows are replaced (a new search, more results, a
** pin) the same result stays current when it is still there, else the first row becomes current.
** Resting the pointer on a row for 0.6 s previews that row too when "hoverPreview" is on; leaving
** the row earlier cancels that.
*/
#ifndef TRN_UI_RESULTS_VIEW_H
#define TRN_UI_RESULTS_VIEW_H

#include "directory_state.h"
#include "search_results.h"

#include <QListView>
#include <QPointer>
#include <QStyledItemDelegate>
#include <QTimer>

class ResultDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    explicit ResultDelegate(QObject *parent = nullptr);

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // The query whose matches are marked in snippets.
    void setQuery(const QString &query, SearchMode mode);
    // The directory that relative paths are shown against.
    void setDirectory(const QString &directoryPath) { m_directory = directoryPath; }
    // Each row names its folder first (a search over every tab).
    void setShowFolders(bool show) { m_showFolders = show; }
    // Where the pin toggle of a row drawn in rect sits.
    static QRect pinRect(const QRect &rowRect);
    // Where a file's "n more in this file" link sits; invalid when it has no more passages.
    static QRect moreRect(const QStyleOptionViewItem &option, const QModelIndex &index);
    // "3 more in this file", or "hide 3 more" while they are shown.
    static QString moreText(int more, bool expanded);
    // Where a hit stands: "p. 3, line 12" in a PDF, its headings in a document, else its line.
    static QString locationText(const QModelIndex &index);

private:
    QString m_query;
    SearchMode m_mode = SearchMode::Semantic;
    QString m_directory;
    bool m_showFolders = false;
};

class ResultsView : public QListView
{
    Q_OBJECT

public:
    static constexpr int kHoverDelayMs = 600;

    // settings (never NULL: whether the pointer's rest previews, the editor that opens a result)
    // outlive the view.
    explicit ResultsView(const Settings *settings, QWidget *parent = nullptr);

    // Shows state's results (NULL: nothing).
    void setState(DirectoryState *state);
    DirectoryState *state() const { return m_state; }
    ResultDelegate *resultDelegate() const { return m_delegate; }
    // True while a hover preview is pending.
    bool isHoverPending() const { return m_hoverTimer.isActive(); }

    void openResult(const QModelIndex &index);
    void previewRow(int row);
    void togglePin(int row);
    // Opens or closes the other passages of the row's file (a passage row: closes its file).
    void toggleFile(int row);

signals:
    // Escape was pressed in the list.
    void focusSearchRequested();
    // The preview should show row (-1: no result); reveal: show the pane when it is hidden.
    void previewRequested(int row, bool reveal);

protected:
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;
    void currentChanged(const QModelIndex &current, const QModelIndex &previous) override;

private:
    // After the rows changed: the remembered result current again, else the first row.
    void keepCurrentResult();
    QRect moreLinkRect(const QModelIndex &index) const;
    void refreshQuery();
    void hoverRow(int row);
    SearchResult resultAt(int row) const;

    const Settings *m_settings;
    QPointer<DirectoryState> m_state;
    ResultDelegate *m_delegate;
    QTimer m_hoverTimer;
    int m_hoverRow = -1;
    QString m_currentId;            // the id of the current row's result
    QObject *m_stateLink = nullptr; // context of the connections to m_state
};

#endif
