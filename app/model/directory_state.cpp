/*
** directory_state.cpp -- one tab's model: background indexing, searching and listing.
*/
#include "directory_state.h"

#include "background.h"
#include "directory_watcher.h"
#include "encoder_choice.h"
#include "encoder_record.h"
#include "git_branch.h"
#include "results_model.h"
#include "settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>

// What an engine call on the thread pool left behind: whether it worked, the engine's status and
// error, and its counts after it.
struct DirectoryState::EngineOutcome {
    bool ok = false;
    int status = TRN_STATUS_OK;
    QString error;
    TrnStats stats{};
    int added = 0; // indexing: the chunks added, or -1 when it failed

    EngineOutcome() = default;
    EngineOutcome(const IndexHandle &engine, bool worked)
        : ok(worked), status(engine.lastStatus()), error(engine.lastError()), stats(engine.stats())
    {
    }
};

DirectoryState::DirectoryState(const DirectoryTab &tab, const EncoderChoice *encoders,
                               Settings *settings, QObject *parent)
    : QObject(parent), m_settings(settings), m_encoders(encoders), m_directoryPath(tab.path),
      m_records(tab.path, settings)
{
    const QString weights = effectiveWeightsPath();
    m_engine = std::make_shared<IndexHandle>(m_directoryPath, weights);
    m_engine->setIdlePriority(m_settings->indexAtIdlePriority());
    m_weightsPath = weights;
    const TrnStats stats = m_engine->stats();
    m_statusText = stats.chunk_count >= 1 ? indexCountsText(stats) : QStringLiteral("Not indexed");
    if (!m_engine->isOpen()) {
        m_statusText = indexFailureText(m_engine->lastError());
        if (m_engine->lastStatus() == TRN_STATUS_BUSY) {
            retryOpen(1);
        }
    }
    m_gitBranch = detectGitBranch(m_directoryPath);
    m_resultsModel = new ResultsModel(this, this);
    // An index built with another encoder (or before the encoder was recorded) cannot be
    // searched by meaning with this one: build it again.
    if (stats.chunk_count >= 1 && !EncoderRecord::matches(m_directoryPath, weights)) {
        rebuildWith(weights);
    } else if (m_engine->isOpen()
               && (m_settings->isIndexingUnfinished(m_directoryPath)
                   || m_engine->meaningProgress(nullptr, nullptr))) {
        // Killed or closed while indexing: the files committed then stay, the rest follow, and
        // the vectors still missing are computed.
        update();
    }
    if (m_settings->watchDirectories()) {
        m_watcher = new DirectoryWatcher(m_directoryPath,
                                         m_settings->watchSettleMs(),
                                         *FileWalkOptions::fromSettings(*m_settings),
                                         this);
        connect(m_watcher, &DirectoryWatcher::settled, this, &DirectoryState::directoryChanged);
    }
}

bool DirectoryState::isWatching() const
{
    return m_watcher && m_watcher->isWatching();
}

void DirectoryState::directoryChanged()
{
    if (m_isIngesting) {
        m_updatePending = true;
        return;
    }
    update();
}

DirectoryState::~DirectoryState()
{
    // A paused update would otherwise hold its thread for good once no tab can resume it.
    m_engine->setPaused(false);
}

void DirectoryState::retryOpen(int attempt)
{
    std::shared_ptr<IndexHandle> engine = m_engine;
    const QString weights = m_weightsPath;
    // Opening waits for the lock, so it runs off the main thread.
    QTimer::singleShot(kBusyRetryMs, this, [this, engine, weights, attempt] {
        runInBackground(
            this,
            [engine, weights] {
                return EngineOutcome(*engine, engine->reopen(weights));
            },
            [this, attempt](const EngineOutcome &r) {
                if (r.ok) {
                    setStatusText(r.stats.chunk_count >= 1 ? indexCountsText(r.stats)
                                                           : QStringLiteral("Not indexed"));
                    return;
                }
                setStatusText(indexFailureText(r.error));
                if (r.status == TRN_STATUS_BUSY && attempt < kBusyRetries) {
                    retryOpen(attempt + 1);
                }
            });
    });
}

void DirectoryState::retryCheckpoint(int attempt)
{
    std::shared_ptr<IndexHandle> engine = m_engine;
    QTimer::singleShot(kBusyRetryMs, this, [this, engine, attempt] {
        runInBackground(
            this,
            [engine] {
                return EngineOutcome(*engine, engine->checkpoint());
            },
            [this, attempt](const EngineOutcome &r) {
                if (r.ok) {
                    setStatusText(indexCountsText(r.stats));
                    return;
                }
                setStatusText(indexFailureText(r.error));
                if (r.status == TRN_STATUS_BUSY && attempt < kBusyRetries) {
                    retryCheckpoint(attempt + 1);
                }
            });
    });
}

QString DirectoryState::effectiveWeightsPath() const
{
    return m_encoders ? m_encoders->weightsPathFor(m_records.encoderOverride()) : QString();
}

bool DirectoryState::isIndexed() const
{
    return m_engine->stats().chunk_count > 0;
}

void DirectoryState::ingest(int chunkSize, int overlap)
{
    runIndexing(chunkSize, overlap, true);
}

void DirectoryState::update()
{
    runIndexing(m_settings->effectiveChunkSize(), m_settings->effectiveOverlap(), false);
}

void DirectoryState::runIndexing(int chunkSize, int overlap, bool checkpoint)
{
    m_updatePending = false;
    setIsIngesting(true);
    m_ingestClock.start(m_isIndexingPaused);
    m_meaningFrom = -1;
    setIngestProgress(IndexingProgress{});
    setStatusText(QStringLiteral("Indexing..."));
    m_settings->setIndexingUnfinished(m_directoryPath, true);
    std::shared_ptr<IndexHandle> engine = m_engine;
    const QString directory = m_directoryPath;
    const QString weights = m_weightsPath;
    const std::shared_ptr<const FileWalkOptions> walk = FileWalkOptions::fromSettings(*m_settings);
    runWithProgress<EngineOutcome, IndexingProgress>(
        this,
        [=](const auto &report) {
            // An empty index takes this encoder before its first chunk is committed, so an
            // indexing that is killed half-way is continued at the next start, not rebuilt.
            if (engine->stats().chunk_count == 0) {
                EncoderRecord::write(directory, weights);
            }
            const int n = engine->ingestDirectory(chunkSize, overlap, *walk, report);
            // A failed update is not committed: what it logged stays in the log.
            const bool saved = n >= 0 && (!checkpoint || engine->checkpoint());
            if (saved) {
                EncoderRecord::write(directory, weights);
            }
            EngineOutcome outcome(*engine, saved);
            outcome.added = n;
            return outcome;
        },
        [this](const IndexingProgress &progress) {
            setIngestProgress(progress);
        },
        [this](const EngineOutcome &outcome) {
            indexingFinished(outcome);
        });
}

void DirectoryState::indexingFinished(const EngineOutcome &r)
{
    // Runs long enough to measure give the speed that re-index estimates use.
    const double seconds = m_ingestClock.seconds();
    if (r.added > 0 && seconds >= 2.0) {
        m_settings->setValue(QStringLiteral("indexingChunksPerSecond"), r.added / seconds);
    }
    setIsIngesting(false);
    if (r.ok) {
        m_settings->setIndexingUnfinished(m_directoryPath, false);
    }
    setStatusText(r.ok ? indexCountsText(r.stats) : indexFailureText(r.error));
    if (r.added >= 0 && !r.ok && r.status == TRN_STATUS_BUSY) {
        retryCheckpoint(1);
    }
    QPointer<DirectoryState> self(this);
    emit ingestFinished();
    if (!self) { // a receiver closed the tab
        return;
    }
    // The results on screen follow the index: the current search runs again.
    if (!m_lastQuery.isEmpty() && r.added >= 0) {
        runSearch(m_searchLimit);
    }
    if (m_updatePending) {
        update();
    }
}

double DirectoryState::reindexEstimateSeconds() const
{
    bool ok = false;
    const double rate = m_settings->value(QStringLiteral("indexingChunksPerSecond")).toDouble(&ok);
    const TrnStats counts = stats();
    if (!ok || !(rate > 0.0) || counts.chunk_count == 0) {
        return -1.0;
    }
    return counts.chunk_count / rate;
}

void DirectoryState::rebuild()
{
    rebuildWith(effectiveWeightsPath());
}

void DirectoryState::rebuildWith(const QString &weightsPath)
{
    const int chunkSize = m_settings->effectiveChunkSize();
    const int overlap = m_settings->effectiveOverlap();
    QFile::remove(EncoderRecord::path(m_directoryPath));
    m_engine->clearAndReopen(weightsPath);
    m_weightsPath = weightsPath;
    ingest(chunkSize, overlap);
}

void DirectoryState::search(const QString &query, SearchMode mode,
                            const QList<std::shared_ptr<IndexHandle>> &across)
{
    m_searchAcross.clear();
    for (const std::shared_ptr<IndexHandle> &engine : across) {
        m_searchAcross.append(engine);
    }
    if (query.isEmpty()) {
        ++m_searchRequest; // a search still under way must not bring its answer back
        setResults({});
        setResultsNote(QString());
        setHasMoreResults(false);
        setQueryError(QString());
        return;
    }
    if (const std::optional<QString> error = ::queryError(query, mode)) {
        ++m_searchRequest;
        setResults({});
        setResultsNote(QString());
        setHasMoreResults(false);
        setQueryError(*error);
        return;
    }
    setQueryError(QString());
    m_lastQuery = query;
    m_lastMode = mode;
    m_searchLimit = kPageSize;
    setExpandedFiles({});
    addToHistory(query, mode);
    runSearch(kPageSize);
}

void DirectoryState::loadMore()
{
    if (!m_hasMoreResults || m_isLoadingMore) {
        return;
    }
    m_searchLimit += kPageSize;
    setIsLoadingMore(true);
    runSearch(m_searchLimit);
}

void DirectoryState::runSearch(int k)
{
    const QString query = m_lastQuery;
    const SearchMode mode = m_lastMode;
    const ResultLayout layout =
        m_settings->allPassages() ? ResultLayout::AllPassages : ResultLayout::ByFile;
    std::shared_ptr<IndexHandle> engine = m_engine;
    const QList<std::weak_ptr<IndexHandle>> across = m_searchAcross;
    const quint64 request = ++m_searchRequest;
    searchStarted();
    runInBackground(
        this,
        [query, mode, k, layout, engine, across] {
            if (across.isEmpty()) {
                return engine->search(query, mode, k, layout);
            }
            // A tab closed since is left out: its index is no longer open. The shared pointers
            // keep the others open until the search ends.
            QList<std::shared_ptr<IndexHandle>> open;
            QList<IndexHandle *> engines;
            for (const std::weak_ptr<IndexHandle> &weak : across) {
                if (std::shared_ptr<IndexHandle> other = weak.lock()) {
                    engines.append(other.get());
                    open.append(std::move(other));
                }
            }
            return IndexHandle::searchAcross(engines, query, mode, k, layout);
        },
        [this, k, request](const QList<SearchResult> &hits) {
            // Latest wins: an answer to a request that a newer one replaced is dropped.
            if (request != m_searchRequest) {
                searchEnded();
                return;
            }
            setResults(hits);
            uint64_t embedded = 0, all = 0;
            m_engine->meaningProgress(&embedded, &all);
            for (const std::weak_ptr<IndexHandle> &weak : m_searchAcross) {
                uint64_t d = 0, a = 0;
                if (std::shared_ptr<IndexHandle> other = weak.lock(); other && other != m_engine) {
                    other->meaningProgress(&d, &a);
                }
                embedded += d;
                all += a;
            }
            setResultsNote(partialResultsText(embedded, all, m_lastMode));
            setHasMoreResults(k < kMaxPagedResults && hits.size() >= k);
            setIsLoadingMore(false);
            searchEnded();
            emit searchFinished();
        });
}

bool DirectoryState::isExpanded(const QString &filePath) const
{
    return m_expandedFiles.contains(filePath);
}

QList<SearchResult> DirectoryState::passagesOf(const QString &filePath) const
{
    return m_expandedFiles.value(filePath);
}

void DirectoryState::toggleFile(const QString &filePath)
{
    if (m_expandedFiles.contains(filePath)) {
        QHash<QString, QList<SearchResult>> files = m_expandedFiles;
        files.remove(filePath);
        setExpandedFiles(files);
        return;
    }
    const QString query = m_lastQuery;
    const SearchMode mode = m_lastMode;
    const quint64 request = m_searchRequest;
    // The file's own index: of another tab when the results come from every tab.
    std::shared_ptr<IndexHandle> engine = m_engine;
    int passages = 1;
    for (const SearchResult &result : m_results) {
        if (result.filePath != filePath) {
            continue;
        }
        passages = result.moreInFile + 1;
        for (const std::weak_ptr<IndexHandle> &weak : m_searchAcross) {
            const std::shared_ptr<IndexHandle> other = weak.lock();
            if (other && other->directoryPath() == result.folder) {
                engine = other;
            }
        }
        break;
    }
    runInBackground(
        this,
        [query, mode, filePath, engine, passages] {
            return engine->searchFile(query, mode, filePath, passages);
        },
        [this, filePath, request](const QList<SearchResult> &passages) {
            // The passages of an earlier search's file do not belong under a newer one.
            if (request != m_searchRequest) {
                return;
            }
            QHash<QString, QList<SearchResult>> files = m_expandedFiles;
            files.insert(filePath, passages);
            setExpandedFiles(files);
        });
}

void DirectoryState::setExpandedFiles(const QHash<QString, QList<SearchResult>> &files)
{
    if (m_expandedFiles == files) {
        return;
    }
    m_expandedFiles = files;
    emit expandedFilesChanged();
}

void DirectoryState::loadFileList()
{
    setIsLoadingFileList(true);
    std::shared_ptr<IndexHandle> engine = m_engine;
    const std::shared_ptr<const FileWalkOptions> walk = FileWalkOptions::fromSettings(*m_settings);
    runInBackground(
        this,
        [engine, walk] {
            return engine->fileList(*walk);
        },
        [this](const QList<FileInfo> &list) {
            setFileList(list);
            setIsLoadingFileList(false);
        });
}

QList<SearchResult> DirectoryState::displayResults() const
{
    QList<SearchResult> shown = m_records.pinnedResults();
    for (const SearchResult &result : m_results) {
        if (!m_records.isPinned(result)) {
            shown.append(result);
        }
    }
    return shown;
}

void DirectoryState::togglePin(const SearchResult &result)
{
    m_records.togglePin(result);
    emit pinnedResultsChanged();
    emit displayResultsChanged();
}

void DirectoryState::addToHistory(const QString &query, SearchMode mode)
{
    m_records.addToHistory(query, mode);
    emit searchHistoryChanged();
}

void DirectoryState::setEncoderProfile(const QUuid &profileId)
{
    if (m_records.setEncoderOverride(profileId)) {
        emit overrideProfileIdChanged();
    }
    rebuild();
}

QString DirectoryState::buildPrompt(const QString &query, PromptScope scope) const
{
    return ::buildPrompt(query, scope, displayResults(), m_records.pinnedResults());
}

int DirectoryState::promptResultCount(PromptScope scope) const
{
    return static_cast<int>(
        promptResults(scope, displayResults(), m_records.pinnedResults()).size());
}

void DirectoryState::setResults(const QList<SearchResult> &results)
{
    if (m_results == results) {
        return;
    }
    m_results = results;
    emit resultsChanged();
    emit displayResultsChanged();
}

void DirectoryState::setStatusText(const QString &text)
{
    if (m_statusText == text) {
        return;
    }
    m_statusText = text;
    emit statusTextChanged();
}

void DirectoryState::setResultsNote(const QString &text)
{
    if (m_resultsNote == text) {
        return;
    }
    m_resultsNote = text;
    emit resultsNoteChanged();
}

void DirectoryState::setIsIngesting(bool value)
{
    if (m_isIngesting == value) {
        return;
    }
    m_isIngesting = value;
    emit isIngestingChanged();
}

void DirectoryState::setIndexingPaused(bool paused)
{
    if (m_isIndexingPaused == paused) {
        return;
    }
    m_isIndexingPaused = paused;
    m_engine->setPaused(paused);
    if (m_isIngesting) {
        m_ingestClock.setPaused(paused);
    }
    emit isIndexingPausedChanged();
    if (m_isIngesting) {
        setIngestProgress(m_ingestProgress);
    }
}

void DirectoryState::setIngestProgress(const IndexingProgress &progress)
{
    const IndexingProgress before = m_ingestProgress;
    m_ingestProgress = progress;
    if (before.filesFound != progress.filesFound) {
        emit ingestFilesFoundChanged();
    }
    if (before.filesDone != progress.filesDone) {
        emit ingestFilesDoneChanged();
    }
    if (before.chunksDone != progress.chunksDone) {
        emit ingestChunksDoneChanged();
    }
    if (progress.meaning && m_meaningFrom < 0) {
        m_meaningFrom = qint64(progress.chunksEmbedded);
        m_meaningStart = m_ingestClock.seconds();
    }
    // A late report of a run that has ended leaves the final status alone.
    if (m_isIngesting && (progress.filesFound > 0 || progress.meaning)) {
        const QString text =
            progress.meaning ? meaningProgressText(
                progress, uint64_t(m_meaningFrom), m_ingestClock.seconds() - m_meaningStart)
                             : indexingProgressText(progress, m_ingestClock.seconds());
        setStatusText(m_isIndexingPaused ? QStringLiteral("Paused: ") + text : text);
    }
}

void DirectoryState::setQueryError(const QString &text)
{
    if (m_queryError == text) {
        return;
    }
    m_queryError = text;
    emit queryErrorChanged();
}

void DirectoryState::setIsLoadingMore(bool value)
{
    if (m_isLoadingMore == value) {
        return;
    }
    m_isLoadingMore = value;
    emit isLoadingMoreChanged();
}

void DirectoryState::setHasMoreResults(bool value)
{
    if (m_hasMoreResults == value) {
        return;
    }
    m_hasMoreResults = value;
    emit hasMoreResultsChanged();
}

void DirectoryState::setFileList(const QList<FileInfo> &list)
{
    if (m_fileList == list) {
        return;
    }
    m_fileList = list;
    emit fileListChanged();
}

void DirectoryState::setIsLoadingFileList(bool value)
{
    if (m_isLoadingFileList == value) {
        return;
    }
    m_isLoadingFileList = value;
    emit isLoadingFileListChanged();
}

void DirectoryState::searchStarted()
{
    m_runningSearches++;
    if (m_runningSearches == 1) {
        emit isSearchingChanged();
    }
}

void DirectoryState::searchEnded()
{
    m_runningSearches--;
    if (m_runningSearches == 0) {
        emit isSearchingChanged();
    }
}
