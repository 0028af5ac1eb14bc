#include "file_list_model.h"

#include "directory_state.h"

#include <QCollator>
#include <QDir>

#include <algorithm>

QString fileSortKeyName(FileSortKey key)
{
    switch (key) {
    case FileSortKey::Name:
        return QStringLiteral("Name");
    case FileSortKey::Type:
        return QStringLiteral("Type");
    case FileSortKey::Size:
        return QStringLiteral("Size");
    case FileSortKey::Status:
        return QStringLiteral("Status");
    }
    return QStringLiteral("Name");
}

QList<FileSortKey> allFileSortKeys()
{
    return {FileSortKey::Name, FileSortKey::Type, FileSortKey::Size, FileSortKey::Status};
}

FileListModel::FileListModel(DirectoryState *state, QObject *parent)
    : QAbstractListModel(parent), m_state(state)
{
    if (state) {
        connect(state, &DirectoryState::fileListChanged, this, &FileListModel::refresh);
    }
    refresh();
}

int FileListModel::statusRank(const FileInfo &file)
{
    if (file.isIndexed && !file.isChanged) {
        return 0;
    }
    return file.isIndexable ? 1 : 2;
}

QList<FileInfo> FileListModel::filterAndSort(const QList<FileInfo> &files,
                                             const QString &directoryPath,
                                             const QString &filterText, FileSortKey key,
                                             bool ascending)
{
    QList<FileInfo> kept;
    const QDir root(directoryPath);
    for (const FileInfo &file : files) {
        if (filterText.isEmpty() || file.name.contains(filterText, Qt::CaseInsensitive)
            || root.relativeFilePath(file.path).contains(filterText, Qt::CaseInsensitive)) {
            kept.append(file);
        }
    }
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    auto less = [key, &collator](const FileInfo &a, const FileInfo &b) {
        switch (key) {
        case FileSortKey::Name:
            return collator.compare(a.name, b.name) < 0;
        case FileSortKey::Type:
            return a.fileType < b.fileType;
        case FileSortKey::Size:
            return a.fileSize < b.fileSize;
        case FileSortKey::Status:
            return statusRank(a) < statusRank(b);
        }
        return false;
    };
    if (ascending) {
        std::stable_sort(kept.begin(), kept.end(), less);
    } else {
        std::stable_sort(kept.begin(), kept.end(), [&less](const FileInfo &a, const FileInfo &b) {
            return less(b, a);
        });
    }
    return kept;
}

void FileListModel::refresh()
{
    const int before = count();
    beginResetModel();
    if (m_state) {
        m_files = filterAndSort(m_state->fileList(),
                                m_state->directoryPath(),
                                m_filterText,
                                m_sortKey,
                                m_sortAscending);
    } else {
        m_files.clear();
    }
    endResetModel();
    if (count() != before) {
        emit countChanged();
    }
}

void FileListModel::setSortKey(FileSortKey key)
{
    if (m_sortKey == key) {
        return;
    }
    m_sortKey = key;
    emit sortKeyChanged();
    refresh();
}

void FileListModel::setSortAscending(bool ascending)
{
    if (m_sortAscending == ascending) {
        return;
    }
    m_sortAscending = ascending;
    emit sortAscendingChanged();
    refresh();
}

void FileListModel::setFilterText(const QString &text)
{
    if (m_filterText == text) {
        return;
    }
    m_filterText = text;
    emit filterTextChanged();
    refresh();
}

int FileListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant FileListModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return QVariant();
    }
    const FileInfo &f = m_files.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return f.name;
    case PathRole:
        return f.path;
    case RelativePathRole:
        return m_state ? QDir(m_state->directoryPath()).relativeFilePath(f.path) : f.path;
    case FileTypeRole:
        return f.fileType;
    case FileTypeValueRole:
        return uint(f.type);
    case IsDirectoryRole:
        return f.isDirectory;
    case FileSizeRole:
        return f.fileSize;
    case FileSizeTextRole:
        return formatFileSize(f.fileSize);
    case ChunkCountRole:
        return f.chunkCount;
    case IsIndexedRole:
        return f.isIndexed;
    case IsIndexableRole:
        return f.isIndexable;
    case StatusTextRole:
        return fileStatusText(f);
    case StatusRankRole:
        return statusRank(f);
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> FileListModel::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractListModel::roleNames();
    names.insert(PathRole, "path");
    names.insert(NameRole, "name");
    names.insert(RelativePathRole, "relativePath");
    names.insert(FileTypeRole, "fileType");
    names.insert(FileTypeValueRole, "fileTypeValue");
    names.insert(IsDirectoryRole, "isDirectory");
    names.insert(FileSizeRole, "fileSize");
    names.insert(FileSizeTextRole, "fileSizeText");
    names.insert(ChunkCountRole, "chunkCount");
    names.insert(IsIndexedRole, "isIndexed");
    names.insert(IsIndexableRole, "isIndexable");
    names.insert(StatusTextRole, "statusText");
    names.insert(StatusRankRole, "statusRank");
    return names;
}
