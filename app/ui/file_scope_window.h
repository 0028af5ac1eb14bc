/*
** file_scope_window.h -- "Show File Scope": the files of a tab's directory with their name,
** folder, type, size, chunk count and index status.
**
** The table's header sorts by Name, Type, Size or Status (a second click on the same column
** reverses the order); the filter field keeps the files whose name or relative path contains its
** text, ignoring case. While the listing runs, "Scanning directory…" stands in for the table.
** The window follows one tab at a time and closes when that tab closes.
*/
#ifndef TRN_UI_FILE_SCOPE_WINDOW_H
#define TRN_UI_FILE_SCOPE_WINDOW_H

#include "directory_state.h"
#include "file_list_model.h"

#include <QAbstractTableModel>
#include <QPointer>
#include <QWidget>

class QLabel;
class QLineEdit;
class QStackedWidget;
class QTableView;

// FileListModel's rows as table columns.
class FileTableModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { NameColumn, FolderColumn, TypeColumn, SizeColumn, ChunksColumn, StatusColumn };
    static constexpr int kColumnCount = 6;

    explicit FileTableModel(QObject *parent = nullptr);
    void setSource(FileListModel *source);
    FileListModel *source() const { return m_source; }

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

    // The sort key of a column, or nullopt for a column that does not sort.
    static std::optional<FileSortKey> sortKeyFor(int column);
    static int columnFor(FileSortKey key);

private:
    QPointer<FileListModel> m_source;
    QObject *m_sourceLink = nullptr;
};

class FileScopeWindow : public QWidget
{
    Q_OBJECT

public:
    // settings (the editor that opens a file, the window's frame) outlive the window.
    explicit FileScopeWindow(Settings *settings, QWidget *parent = nullptr);

    // Shows state's files (it should be listing them: loadFileList()).
    void setState(DirectoryState *state);
    DirectoryState *state() const { return m_state; }
    FileListModel *fileModel() const { return m_files; }
    QTableView *table() const { return m_table; }
    QLineEdit *filterField() const { return m_filter; }
    // True while "Scanning directory…" is shown.
    bool isScanning() const;

private:
    void syncLoading();
    void syncSummary();
    void syncSortIndicator();

    Settings *m_settings;
    QPointer<DirectoryState> m_state;
    QObject *m_stateLink = nullptr;
    FileListModel *m_files = nullptr;
    FileTableModel *m_tableModel;
    QLabel *m_title;
    QLabel *m_summary;
    QLineEdit *m_filter;
    QStackedWidget *m_pages;
    QTableView *m_table;
};

#endif
