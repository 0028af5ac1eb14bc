#include "results_model.h"

#include "directory_state.h"

#include <QFileInfo>
#include <QSet>

ResultsModel::ResultsModel(DirectoryState *state, QObject *parent)
    : QAbstractListModel(parent), m_state(state)
{
    if (state) {
        connect(state, &DirectoryState::displayResultsChanged, this, &ResultsModel::refresh);
        connect(state, &DirectoryState::expandedFilesChanged, this, &ResultsModel::refresh);
        refresh();
    }
}

void ResultsModel::refresh()
{
    const int before = count();
    beginResetModel();
    m_rows.clear();
    QSet<QString> opened; // a file's passages open under its first row only
    const QList<SearchResult> shown = m_state ? m_state->displayResults() : QList<SearchResult>();
    for (const SearchResult &result : shown) {
        m_rows.append(Row{result, m_state->isPinned(result), false, false});
        if (!m_state->isExpanded(result.filePath) || opened.contains(result.filePath)) {
            continue;
        }
        opened.insert(result.filePath);
        m_rows.last().expanded = true;
        for (const SearchResult &passage : m_state->passagesOf(result.filePath)) {
            if (passage.id != result.id) {
                m_rows.append(Row{passage, m_state->isPinned(passage), true, false});
            }
        }
    }
    endResetModel();
    if (count() != before) {
        emit countChanged();
    }
}

int ResultsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

SearchResult ResultsModel::result(int row) const
{
    if (row < 0 || row >= count()) {
        return SearchResult();
    }
    return m_rows.at(row).result;
}

QVariant ResultsModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return QVariant();
    }
    const Row &row = m_rows.at(index.row());
    const SearchResult &r = row.result;
    switch (role) {
    case Qt::DisplayRole:
        return QFileInfo(r.filePath).fileName() + QLatin1Char(':') + QString::number(r.lineNumber);
    case IdRole:
        return r.id;
    case FilePathRole:
        return r.filePath;
    case FileNameRole:
        return QFileInfo(r.filePath).fileName();
    case SnippetRole:
        return r.snippet;
    case ScoreRole:
        return r.score;
    case ChunkIndexRole:
        return r.chunkIndex;
    case LineNumberRole:
        return r.lineNumber;
    case FileTypeRole:
        return r.fileType;
    case IsPinnedRole:
        return row.pinned;
    case MoreInFileRole:
        return row.passage ? 0 : r.moreInFile;
    case IsExpandedRole:
        return row.expanded;
    case IsPassageRole:
        return row.passage;
    case FolderRole:
        return r.folder;
    case PageRole:
        return r.page;
    case PageLineRole:
        return r.pageLine;
    case HeadingPathRole:
        return r.headingPath;
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> ResultsModel::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractListModel::roleNames();
    names.insert(IdRole, "id");
    names.insert(FilePathRole, "filePath");
    names.insert(FileNameRole, "fileName");
    names.insert(SnippetRole, "snippet");
    names.insert(ScoreRole, "score");
    names.insert(ChunkIndexRole, "chunkIndex");
    names.insert(LineNumberRole, "lineNumber");
    names.insert(FileTypeRole, "fileType");
    names.insert(IsPinnedRole, "isPinned");
    names.insert(MoreInFileRole, "moreInFile");
    names.insert(IsExpandedRole, "isExpanded");
    names.insert(IsPassageRole, "isPassage");
    names.insert(FolderRole, "folder");
    names.insert(PageRole, "page");
    names.insert(PageLineRole, "pageLine");
    names.insert(HeadingPathRole, "headingPath");
    return names;
}
