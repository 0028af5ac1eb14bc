/*
** results_model.h -- a tab's displayed results (pinned first) as a list model for the results
** list, each expanded file's other passages right under its row. It follows
** DirectoryState::displayResultsChanged and expandedFilesChanged and resets on each change.
*/
#ifndef TRN_APP_RESULTS_MODEL_H
#define TRN_APP_RESULTS_MODEL_H

#include "file_info.h"

#include <QAbstractListModel>
#include <QList>
#include <QPointer>

class DirectoryState;

class ResultsModel : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        FilePathRole,
        FileNameRole, // last path component
        SnippetRole,
        ScoreRole,
        ChunkIndexRole,
        LineNumberRole,
        FileTypeRole, // int, a TrnFileType value
        IsPinnedRole,
        MoreInFileRole, // int: further passages of the file (its row of a search by file)
        IsExpandedRole, // bool: the file's passages are shown under this row
        IsPassageRole,  // bool: a passage shown under its file's row
        FolderRole,     // the indexed directory the result comes from
        PageRole,       // int: a PDF hit's page, 0 when unknown
        PageLineRole,   // int: its line on that page
        HeadingPathRole // a document hit's headings, "" when none
    };

    explicit ResultsModel(DirectoryState *state, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    // Qt::DisplayRole gives "<file name>:<line>".
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return static_cast<int>(m_rows.size()); }
    // The result of a row; a default SearchResult for a row out of range.
    SearchResult result(int row) const;

signals:
    void countChanged();

private:
    void refresh();

    QPointer<DirectoryState> m_state;
    struct Row {
        SearchResult result;
        bool pinned = false;
        bool passage = false;
        bool expanded = false; // its file's passages follow it
    };
    QList<Row> m_rows;
};

#endif
