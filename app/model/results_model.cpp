#include "results_model.h"

#include "directory_state.h"

#include <QFileInfo>

ResultsModel::ResultsModel(DirectoryState *state, QObject *parent)
    : QAbstractListModel(parent), m_state(state)
{
    if (state) {
        connect(state, &DirectoryState::displayResultsChanged, this, &ResultsModel::refresh);
        refresh();
    }
}

void ResultsModel::refresh()
{
    const int before = count();
    beginResetModel();
    m_results = m_state ? m_state->displayResults() : QList<SearchResult>();
    m_pinned.clear();
    for (const SearchResult &result : m_results) {
        m_pinned.append(m_state && m_state->isPinned(result));
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
    return m_results.at(row);
}

QVariant ResultsModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return QVariant();
    }
    const SearchResult &r = m_results.at(index.row());
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
    case FileCategoryRole:
        return static_cast<int>(TarnwickEngine::fileCategory(r));
    case IsPinnedRole:
        return m_pinned.at(index.row());
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
    names.insert(FileCategoryRole, "fileCategory");
    names.insert(IsPinnedRole, "isPinned");
    return names;
}
