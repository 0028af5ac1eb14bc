/*
** file_list_model.h -- the file scope view's list: a tab's files filtered and sorted.
**
** The filter keeps files whose name or path relative to the directory contains filterText,
** ignoring case (an empty filter keeps all). The sort is stable, by one key:
**   Name    names compared by the locale's collation, ignoring case
**   Type    type names compared as plain strings
**   Size    sizes compared as integers
**   Status  0 indexed, 1 waiting (indexable but not indexed, or changed since), 2 not indexable
** Descending order reverses the comparison (files that compare equal keep their listed order).
*/
#ifndef TRN_APP_FILE_LIST_MODEL_H
#define TRN_APP_FILE_LIST_MODEL_H

#include "index_handle.h"

#include <QAbstractListModel>
#include <QList>
#include <QPointer>
#include <QString>

class DirectoryState;

enum class FileSortKey { Name, Type, Size, Status };

// "Name", "Type", "Size", "Status".
QString fileSortKeyName(FileSortKey key);
QList<FileSortKey> allFileSortKeys();

class FileListModel : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(FileSortKey sortKey READ sortKey WRITE setSortKey NOTIFY sortKeyChanged)
    Q_PROPERTY(
        bool sortAscending READ sortAscending WRITE setSortAscending NOTIFY sortAscendingChanged)
    Q_PROPERTY(QString filterText READ filterText WRITE setFilterText NOTIFY filterTextChanged)
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        PathRole = Qt::UserRole + 1,
        NameRole,
        RelativePathRole,
        FileTypeRole,      // FileInfo::fileType, the type's name
        FileTypeValueRole, // FileInfo::type, a TrnFileType
        IsDirectoryRole,
        FileSizeRole,     // qint64
        FileSizeTextRole, // formatFileSize (file_info.h)
        ChunkCountRole,
        IsIndexedRole,
        IsIndexableRole,
        StatusTextRole, // fileStatusText: "Indexed (3 chunks)", "Excluded by ...", ...
        StatusRankRole  // 0, 1 or 2 as above
    };

    // Follows state's fileList; state may be NULL (an empty list).
    explicit FileListModel(DirectoryState *state, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    // Qt::DisplayRole gives the name.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    FileSortKey sortKey() const { return m_sortKey; }
    void setSortKey(FileSortKey key);
    bool sortAscending() const { return m_sortAscending; }
    void setSortAscending(bool ascending);
    QString filterText() const { return m_filterText; }
    void setFilterText(const QString &text);
    int count() const { return static_cast<int>(m_files.size()); }

    // The rule above as a function of its inputs.
    static QList<FileInfo> filterAndSort(const QList<FileInfo> &files, const QString &directoryPath,
                                         const QString &filterText, FileSortKey key,
                                         bool ascending);
    static int statusRank(const FileInfo &file);

signals:
    void sortKeyChanged();
    void sortAscendingChanged();
    void filterTextChanged();
    void countChanged();

private:
    void refresh();

    QPointer<DirectoryState> m_state;
    FileSortKey m_sortKey = FileSortKey::Name;
    bool m_sortAscending = true;
    QString m_filterText;
    QList<FileInfo> m_files;
};

#endif
