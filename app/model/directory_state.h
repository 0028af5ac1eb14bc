/*
** directory_state.h -- the model of one open directory tab.
**
** DirectoryState owns the tab's IndexHandle (shared with the background work it starts), runs
** indexing, searching and file listing on QThreadPool::globalInstance() and publishes their
** results on the main thread. Work that finishes after the tab was closed is dropped: each job
** holds the state through a QPointer that is checked on the main thread.
**
** It keeps the tab's records (tab_records.h: search history, pinned results shown first in
** displayResults, the encoder override, a training profile id whose weights this directory uses
** once that profile is trained) and the directory's git branch.
**
** Searches: the newest request wins; the answer of an older one still under way is dropped.
** Paging: a search asks for 10 results; loadMore() asks again for 10 more, replacing the list,
** while the last answer was full and k was below 64 (the engine never returns more than 64).
** Results come one row per file (the file's best passage, with how many more matched) unless
** the setting "allPassages" asks for every passage; toggleFile() opens a file's other passages
** under its row (expandedFiles) until the next search.
*/
#ifndef TRN_APP_DIRECTORY_STATE_H
#define TRN_APP_DIRECTORY_STATE_H

#include "index_handle.h"
#include "indexing_text.h"
#include "prompt_builder.h"
#include "records.h"
#include "tab_records.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <memory>

class EncoderChoice;
class DirectoryWatcher;
class ResultsModel;
class Settings;

class DirectoryState : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString directoryPath READ directoryPath CONSTANT)
    Q_PROPERTY(QList<SearchResult> results READ results NOTIFY resultsChanged)
    // Pinned results first, then the results that are not pinned. Changes with either list.
    Q_PROPERTY(QList<SearchResult> displayResults READ displayResults NOTIFY displayResultsChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusTextChanged)
    // One short line above the results when they are partial: the meaning phase of an indexing
    // has not embedded every passage yet. Empty otherwise.
    Q_PROPERTY(QString resultsNote READ resultsNote NOTIFY resultsNoteChanged)
    Q_PROPERTY(bool isIngesting READ isIngesting NOTIFY isIngestingChanged)
    // Progress of the running indexing: files done of indexable files found (0 of 0 while the
    // directory is still being walked).
    Q_PROPERTY(int ingestFilesDone READ ingestFilesDone NOTIFY ingestFilesDoneChanged)
    Q_PROPERTY(int ingestFilesFound READ ingestFilesFound NOTIFY ingestFilesFoundChanged)
    // Chunks the running indexing has added so far. While indexing, statusText reads as
    // indexingProgressText() of these counts (indexing_text.h).
    Q_PROPERTY(int ingestChunksDone READ ingestChunksDone NOTIFY ingestChunksDoneChanged)
    // The running indexing waits after its current file (searches go on) until resumed.
    Q_PROPERTY(bool isIndexingPaused READ isIndexingPaused NOTIFY isIndexingPausedChanged)
    Q_PROPERTY(bool isSearching READ isSearching NOTIFY isSearchingChanged)
    // Why the last query could not run ("Invalid regular expression: ..."); empty when it ran.
    Q_PROPERTY(QString queryError READ queryError NOTIFY queryErrorChanged)
    Q_PROPERTY(bool isLoadingMore READ isLoadingMore NOTIFY isLoadingMoreChanged)
    Q_PROPERTY(bool hasMoreResults READ hasMoreResults NOTIFY hasMoreResultsChanged)
    Q_PROPERTY(QList<FileInfo> fileList READ fileList NOTIFY fileListChanged)
    Q_PROPERTY(bool isLoadingFileList READ isLoadingFileList NOTIFY isLoadingFileListChanged)
    Q_PROPERTY(QString gitBranch READ gitBranch NOTIFY gitBranchChanged)
    Q_PROPERTY(
        QList<SearchHistoryEntry> searchHistory READ searchHistory NOTIFY searchHistoryChanged)
    Q_PROPERTY(QList<PinnedResult> pinnedResults READ pinnedResults NOTIFY pinnedResultsChanged)
    // Null when the directory uses the default profile.
    Q_PROPERTY(QUuid overrideProfileId READ overrideProfileId NOTIFY overrideProfileIdChanged)

public:
    static constexpr int kPageSize = 10;
    static constexpr int kMaxPagedResults = 64;
    static constexpr int kHistoryLimit = TabRecords::kHistoryLimit;
    // While another Tarnwick holds the index (busy), opening and the checkpoint after indexing
    // are retried this often, this many times, with the engine's line in statusText meanwhile.
    static constexpr int kBusyRetryMs = 2000;
    static constexpr int kBusyRetries = 30;

    // Opens the engine with the weights encoders chooses for the directory's override (NULL
    // encoders: the untrained encoder); encoders must outlive the tab. An index that another
    // encoder built is rebuilt at once (see encoder_record.h). settings (never NULL) must outlive
    // the tab.
    DirectoryState(const DirectoryTab &tab, const EncoderChoice *encoders, Settings *settings,
                   QObject *parent = nullptr);
    ~DirectoryState() override;

    QString directoryPath() const { return m_directoryPath; }
    std::shared_ptr<IndexHandle> engine() const { return m_engine; }

    QList<SearchResult> results() const { return m_results; }
    QList<SearchResult> displayResults() const;
    QString statusText() const { return m_statusText; }
    QString resultsNote() const { return m_resultsNote; }
    bool isIngesting() const { return m_isIngesting; }
    int ingestFilesDone() const { return m_ingestProgress.filesDone; }
    int ingestFilesFound() const { return m_ingestProgress.filesFound; }
    int ingestChunksDone() const { return m_ingestProgress.chunksDone; }
    bool isIndexingPaused() const { return m_isIndexingPaused; }
    // Pauses or resumes indexing, this run and the next ones, until resumed.
    void setIndexingPaused(bool paused);
    bool isSearching() const { return m_runningSearches > 0; }
    QString queryError() const { return m_queryError; }
    bool isLoadingMore() const { return m_isLoadingMore; }
    bool hasMoreResults() const { return m_hasMoreResults; }
    QList<FileInfo> fileList() const { return m_fileList; }
    bool isLoadingFileList() const { return m_isLoadingFileList; }
    QString gitBranch() const { return m_gitBranch; }
    QList<SearchHistoryEntry> searchHistory() const { return m_records.history(); }
    QList<PinnedResult> pinnedResults() const { return m_records.pins(); }
    QUuid overrideProfileId() const { return m_records.encoderOverride(); }

    // The k of the current search (10, then 20, 30, ... with each loadMore()).
    int searchLimit() const { return m_searchLimit; }
    // True while the current search runs over several tabs' indexes.
    bool searchesAcrossTabs() const { return !m_searchAcross.isEmpty(); }
    QString lastQuery() const { return m_lastQuery; }
    SearchMode lastMode() const { return m_lastMode; }

    // The weights this directory should use now (EncoderChoice::weightsPathFor its override).
    QString effectiveWeightsPath() const;
    // True when the engine is open and holds at least one chunk.
    bool isIndexed() const;
    // The engine's counts now (zero when it is not open).
    TrnStats stats() const { return m_engine->stats(); }
    // How long re-indexing would take at the speed the last indexing run measured (the setting
    // "indexingChunksPerSecond"), in seconds; -1 when no speed is known yet.
    double reindexEstimateSeconds() const;

    // Indexes the directory in the background ("Indexing..." until done): an update of the
    // index (new, changed and deleted files only), then a checkpoint.
    void ingest(int chunkSize, int overlap);
    // "Re-index directory": brings the index up to date with the directory in the background,
    // reading only what changed. The watcher does the same by itself once changes settle. After
    // every indexing the current search runs again, so the results follow the files.
    void update();
    // "Rebuild index": discards the index, reopens the engine with effectiveWeightsPath() and
    // indexes everything again with the chunk size and overlap from the settings.
    void rebuild();
    // True while the directory is watched for changes (setting "watchDirectories").
    bool isWatching() const;
    // Starts a new search; an empty query only clears the results. A query the engine cannot run
    // (a regex that does not compile, a modified: date it cannot read) clears the results and sets
    // queryError instead (no history entry). across:
    // search these indexes (this tab's among them) as one ranking, each result naming its folder
    // (IndexHandle::searchAcross); loadMore and the searches after indexing do the same until
    // the next search. Indexes whose tab closed meanwhile are left out.
    void search(const QString &query, SearchMode mode,
                const QList<std::shared_ptr<IndexHandle>> &across = {});
    // "Load More Results": re-runs the current search with 10 more, while hasMoreResults and no
    // load is under way.
    void loadMore();
    // Refreshes fileList in the background.
    void loadFileList();

    // "n more in this file": loads the matching passages of filePath in the background and
    // keeps them in expandedFiles, or closes them again when they are there. A new search closes
    // every file.
    void toggleFile(const QString &filePath);
    bool isExpanded(const QString &filePath) const;
    // The passages of an expanded file, best first (empty when it is not expanded).
    QList<SearchResult> passagesOf(const QString &filePath) const;

    // Also what a view reports of a request it carried out, such as opening a result.
    void setStatusText(const QString &text);
    void setResultsNote(const QString &text);

    bool isPinned(const SearchResult &result) const { return m_records.isPinned(result); }
    void togglePin(const SearchResult &result);

    // Records a search (moves an equal query and mode to the front; keeps 10) and saves it.
    void addToHistory(const QString &query, SearchMode mode);

    // Chooses the encoder of this directory (a null id: the default profile), saves the choice
    // and re-indexes from scratch.
    void setEncoderProfile(const QUuid &profileId);

    // The prompt for query from this tab's results (prompt_builder.h).
    QString buildPrompt(const QString &query, PromptScope scope) const;
    // How many results that prompt holds.
    int promptResultCount(PromptScope scope) const;

    // displayResults as an item model for the results list; owned by this state.
    ResultsModel *resultsModel() const { return m_resultsModel; }

signals:
    void resultsChanged();
    void displayResultsChanged();
    void statusTextChanged();
    void resultsNoteChanged();
    void isIngestingChanged();
    void isIndexingPausedChanged();
    void ingestFilesDoneChanged();
    void ingestFilesFoundChanged();
    void ingestChunksDoneChanged();
    void isSearchingChanged();
    void queryErrorChanged();
    void isLoadingMoreChanged();
    void hasMoreResultsChanged();
    void fileListChanged();
    void isLoadingFileListChanged();
    void gitBranchChanged();
    void searchHistoryChanged();
    void pinnedResultsChanged();
    void overrideProfileIdChanged();
    // An indexing run finished and statusText holds its outcome.
    void ingestFinished();
    // A search finished and results holds its answer.
    void searchFinished();
    // A file's passages were opened or closed under its row.
    void expandedFilesChanged();

private:
    void runSearch(int k);
    // Updates the index in the background; checkpoint: commit the store afterwards (first
    // indexing and rebuilds; live updates leave their changes in the log until the tab closes).
    void runIndexing(int chunkSize, int overlap, bool checkpoint);
    // The watcher saw the directory change and settle: update now, or after the running indexing.
    void directoryChanged();
    // Retries opening the engine (busy at open) after kBusyRetryMs.
    void retryOpen(int attempt);
    // Retries the checkpoint that ends an indexing run (busy) after kBusyRetryMs.
    void retryCheckpoint(int attempt);
    void setResults(const QList<SearchResult> &results);
    void setExpandedFiles(const QHash<QString, QList<SearchResult>> &files);
    // Discards the index and indexes again with the given weights.
    void rebuildWith(const QString &weightsPath);
    void setIsIngesting(bool value);
    void setIngestProgress(const IndexingProgress &progress);
    void setIsLoadingMore(bool value);
    void setQueryError(const QString &text);
    void setHasMoreResults(bool value);
    void setFileList(const QList<FileInfo> &list);
    void setIsLoadingFileList(bool value);
    void searchStarted();
    void searchEnded();

    struct EngineOutcome;
    // Takes over on the main thread when an indexing run ends.
    void indexingFinished(const EngineOutcome &outcome);

    Settings *m_settings;
    const EncoderChoice *m_encoders; // NULL: always the untrained encoder
    QString m_directoryPath;
    TabRecords m_records;
    std::shared_ptr<IndexHandle> m_engine;
    DirectoryWatcher *m_watcher = nullptr; // owned (child); NULL when watching is off
    bool m_updatePending = false;          // a change settled while indexing ran
    QString m_weightsPath; // what m_engine was opened with; the index's record names it
    ResultsModel *m_resultsModel = nullptr;

    QList<SearchResult> m_results;
    QHash<QString, QList<SearchResult>> m_expandedFiles; // file path -> its passages
    // The indexes of a search over every tab; weak, so a closed tab's index closes.
    QList<std::weak_ptr<IndexHandle>> m_searchAcross;
    QString m_statusText = QStringLiteral("Ready");
    QString m_resultsNote;
    // Where the meaning phase of the current indexing began: the clock's seconds and the chunks
    // embedded then (its pace gives the time left); m_meaningFrom < 0 before it began.
    double m_meaningStart = 0.0;
    qint64 m_meaningFrom = -1;
    bool m_isIngesting = false;
    IndexingProgress m_ingestProgress;
    IndexingClock m_ingestClock;
    bool m_isIndexingPaused = false;
    int m_runningSearches = 0;
    quint64 m_searchRequest = 0; // the newest runSearch; older answers are dropped
    QString m_queryError;
    bool m_isLoadingMore = false;
    bool m_hasMoreResults = false;
    QList<FileInfo> m_fileList;
    bool m_isLoadingFileList = false;
    QString m_gitBranch;

    int m_searchLimit = kPageSize;
    QString m_lastQuery;
    SearchMode m_lastMode = SearchMode::Hybrid;
};

#endif
