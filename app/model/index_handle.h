/*
** index_handle.h -- the application's side of one directory's index: its engine handle and the
** lock around every call on it.
**
** IndexHandle owns one engine handle (tarnwick.h) opened on "<directory>/.tarnwick". It keeps
** the index up to date through the engine's update (trn_update_dir, which walks, classifies and
** reads the files with the one walk and extraction of files.h under the settings' extra
** extensions, exclusion patterns and size limit: FileWalkOptions), runs searches and copies their
** records into value types, and lists the directory's files with the reason each is or is not in
** the index.
**
** Locking: every trn_ call on the handle holds this object's own mutex, because calls on one
** handle must not overlap; handles share nothing, so tabs never wait for each other (a search in
** one tab runs while another tab indexes). The lock is taken per call, and an update opens it
** between files, so a search in the same tab runs between two files. The handle pointer itself is
** guarded by the same mutex, so clearAndReopen may run while a worker thread is using the object.
*/
#ifndef TRN_APP_INDEX_HANDLE_H
#define TRN_APP_INDEX_HANDLE_H

#include "file_info.h"
#include "search_results.h"
#include "tarnwick.h"
#include "walk_options.h"

#include <QList>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

// How far an update has come: files done of the files to read or remove, and the chunks those
// files gave.
struct IndexingProgress {
    int filesDone = 0;
    int filesFound = 0;
    int chunksDone = 0;
    uint64_t bytesDone = 0; // of the files done, and of all to do (trn_update_progress)
    uint64_t bytesAll = 0;
    // The meaning phase (trn_meaning_progress): the words of every file are in, and the chunks
    // with vectors of all live chunks; filesIndexed, the files the index holds.
    bool meaning = false;
    uint64_t chunksEmbedded = 0;
    uint64_t chunksAll = 0;
    int filesIndexed = 0;

    bool operator==(const IndexingProgress &other) const = default;
};

class IndexHandle
{
public:
    using Result = SearchResult;
    // Called on the indexing thread.
    using ProgressFn = std::function<void(const IndexingProgress &)>;

    // Normal loads the directory's index; Rebuild starts empty and replaces the index only when
    // checkpoint() succeeds (the old index stays searchable by others until then).
    enum class OpenMode { Normal, Rebuild };

    // Creates "<directoryPath>/.tarnwick" (a failure is ignored) and opens the engine there.
    // An empty weightsPath selects the engine's untrained encoder. When the index is busy or
    // damaged the object is not open and lastError() says why.
    IndexHandle(const QString &directoryPath, const QString &weightsPath,
                OpenMode mode = OpenMode::Normal);
    // Closes the engine (which checkpoints it).
    ~IndexHandle();
    IndexHandle(const IndexHandle &) = delete;
    IndexHandle &operator=(const IndexHandle &) = delete;

    QString directoryPath() const { return m_directoryPath; }
    QString dataDir() const { return m_dataDir; }
    bool isOpen() const;

    // Closes the engine and opens an empty one that rebuilds the index beside the old one; the
    // old index is replaced by the next successful checkpoint() or ingestDirectory(). A running
    // ingestDirectory() is stopped after its current file first.
    void clearAndReopen(const QString &weightsPath);
    // Opens again when the last open failed (busy); true when it is open now.
    bool reopen(const QString &weightsPath);

    // The engine's one line for the last failure (busy, damaged, I/O), without the "tarnwick: "
    // prefix; empty when the last open and write succeeded. lastStatus() is its TRN_STATUS_.
    QString lastError() const;
    int lastStatus() const;

    // Brings the index up to date with the directory (trn_update_dir under walk): new files
    // ingested, changed ones replaced, deleted or excluded ones removed, unchanged ones not read.
    // On a handle opened to rebuild, the rebuilt index replaces the old one at the end. Returns the
    // chunks added, or -1 when the engine is not open, an update already runs, the directory cannot
    // be read or a write failed (see lastError). progress (may be empty) is called with {0, files
    // to read or remove, 0} once the walk is done, then after each of them with {files done, that
    // total, chunks added}, and in the meaning phase after each group of vectors with meaning set.
    // The lock is open while progress runs, so searches go on between files and groups.
    // report, when given, says what the update did.
    int ingestDirectory(int chunkSize, int overlap, const FileWalkOptions &walk,
                        const ProgressFn &progress = {}, TrnUpdateReport *report = nullptr);
    // With idle set, ingestDirectory runs the update on a thread started for it at idle CPU and
    // I/O priority (trn_set_thread_idle), so indexing only takes what nothing else wants; the
    // caller waits for it. Off by default.
    void setIdlePriority(bool idle);
    // A paused update waits after its current file, with the lock open (searches go on), until
    // it is resumed or cancelled.
    void setPaused(bool paused);
    bool isPaused() const;

    // At most k results (k >= 0; the engine gives at most 64). Empty when not open or k is 0.
    // ByFile: at most k files, each once with its best passage and moreInFile set.
    QList<SearchResult> search(const QString &query, SearchMode mode, int k,
                               ResultLayout layout = ResultLayout::AllPassages);
    // Searches several indexes as one ranking (trn_search_many: scores that compare across
    // them, text and regex hits taking turns in the order of handles), each result's folder
    // naming its index; laid out as search() lays out one index's. Indexes that are not open are
    // left out. Holds every handle's lock for the call.
    static QList<SearchResult> searchAcross(const QList<IndexHandle *> &handles,
                                            const QString &query, SearchMode mode, int k,
                                            ResultLayout layout = ResultLayout::AllPassages);
    // At most k passages of one file as search() ranks them (trn_search_file), best first: what
    // "n more in this file" opens with k = n + 1. Empty when not open or k <= 0.
    QList<SearchResult> searchFile(const QString &query, SearchMode mode, const QString &filePath,
                                   int k);
    // Every file of the directory in walk order under walk with its state (see FileInfo): excluded
    // directories once, the text of indexable files that are not indexed read for the reason.
    QList<FileInfo> fileList(const FileWalkOptions &walk);

    // The live chunks that have their vectors and all live chunks, as of the last open or
    // progress report; true while some are missing (semantic results are partial then). Takes
    // no lock.
    bool meaningProgress(uint64_t *done, uint64_t *all) const;

    // trn_stats, or zero counts when not open.
    TrnStats stats() const;
    // trn_checkpoint; false when not open, busy or the store could not be written (lastError).
    bool checkpoint();

private:
    int ingestDirectoryHere(int chunkSize, int overlap, const FileWalkOptions &walk,
                            const ProgressFn &progress, TrnUpdateReport *report);
    void openLocked(const QString &weightsPath, uint32_t flags); // m_mutex held
    void noteFailureLocked(int status, const char *message);     // m_mutex held
    void noteMeaningLocked();                                    // m_mutex held

    QString m_directoryPath;
    QString m_dataDir;
    mutable std::mutex m_mutex;       // held around every trn_ call on m_handle
    TrnEngine *m_handle = nullptr;    // guarded by m_mutex; NULL when not open
    QString m_lastError;              // guarded by m_mutex
    int m_lastStatus = TRN_STATUS_OK; // guarded by m_mutex
    bool m_updateRunning = false;     // guarded by m_mutex
    bool m_cancelUpdate = false;      // guarded by m_mutex
    bool m_paused = false;            // guarded by m_mutex
    bool m_idlePriority = false;      // guarded by m_mutex
    std::condition_variable m_updateEnded;
    std::condition_variable m_pauseChanged; // with m_mutex: m_paused or m_cancelUpdate changed
    std::atomic<uint64_t> m_embedded{0};    // meaningProgress()
    std::atomic<uint64_t> m_chunks{0};
};

// The engine's informational lines on standard error (trn_set_verbose), process-wide.
void setEngineVerbose(bool on);

#endif
