/*
** index_handle.cpp -- one directory's engine handle: opening, updating, searching and listing
** files under its lock. Which files are read and what text they hold is decided by the engine
** (files.h); this file only passes the walk options along.
*/
#include "index_handle.h"

#include "priority.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace
{

// trn_search gives at most this many records.
constexpr int kEngineResultLimit = 64;

// A record copied out of the engine, which reuses its snippet buffers; the folder is the caller's.
SearchResult toResult(const TrnResult &r)
{
    SearchResult result;
    result.id = QString::fromUtf8(r.doc_id ? r.doc_id : "");
    result.filePath = r.file_path ? QFile::decodeName(r.file_path) : QString();
    result.snippet = r.snippet ? QString::fromUtf8(r.snippet) : QString();
    result.score = r.score;
    result.chunkIndex = r.chunk_index;
    result.lineNumber = r.line_number;
    result.fileType = static_cast<int>(r.file_type);
    result.moreInFile = r.more_in_file;
    result.page = r.page;
    result.pageLine = r.page_line;
    result.headingPath = r.heading_path ? QString::fromUtf8(r.heading_path) : QString();
    return result;
}

// The index directory, readable by its owner alone (0700), made only inside a folder that
// exists: a folder deleted while its tab was open is never made again by a late job.
void createIndexDir(const QString &dataDir)
{
    ::mkdir(QFile::encodeName(dataDir).constData(), 0700);
}

int32_t checkedInt32(qint64 value)
{
    if (value < std::numeric_limits<int32_t>::min()
        || value > std::numeric_limits<int32_t>::max()) {
        qFatal("tarnwick: value %lld does not fit in 32 bits", static_cast<long long>(value));
    }
    return static_cast<int32_t>(value);
}

} // namespace

IndexHandle::IndexHandle(const QString &directoryPath, const QString &weightsPath, OpenMode mode)
    : m_directoryPath(directoryPath), m_dataDir(directoryPath + QStringLiteral("/.tarnwick"))
{
    createIndexDir(m_dataDir);
    std::lock_guard<std::mutex> lock(m_mutex);
    openLocked(weightsPath, mode == OpenMode::Rebuild ? TRN_OPEN_REBUILD : 0);
}

IndexHandle::~IndexHandle()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle) {
        trn_close(m_handle);
        m_handle = nullptr;
    }
}

void IndexHandle::noteFailureLocked(int status, const char *message)
{
    m_lastStatus = status;
    m_lastError = status == TRN_STATUS_OK ? QString() : QString::fromUtf8(message);
}

void IndexHandle::openLocked(const QString &weightsPath, uint32_t flags)
{
    const QByteArray indexDir = QFile::encodeName(m_dataDir);
    const QByteArray weights = QFile::encodeName(weightsPath);
    TrnConfig config = {};
    config.index_dir = indexDir.constData();
    config.weights_path = weights.isEmpty() ? nullptr : weights.constData();
    config.dim = 0;
    config.M = 0;
    config.ef_construction = 0;
    config.ef_search = 0;
    int32_t status = TRN_STATUS_OK;
    m_handle = trn_open_ex(&config, flags, &status);
    noteFailureLocked(status, trn_last_error(nullptr));
    noteMeaningLocked();
}

void IndexHandle::noteMeaningLocked()
{
    uint64_t done = 0, all = 0;
    if (m_handle) {
        trn_meaning_progress(m_handle, &done, &all);
    }
    m_embedded = done;
    m_chunks = all;
}

bool IndexHandle::meaningProgress(uint64_t *done, uint64_t *all) const
{
    const uint64_t d = m_embedded, a = m_chunks;
    if (done) {
        *done = d;
    }
    if (all) {
        *all = a;
    }
    return d < a;
}

bool IndexHandle::reopen(const QString &weightsPath)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        openLocked(weightsPath, 0);
    }
    return m_handle != nullptr;
}

QString IndexHandle::lastError() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastError;
}

int IndexHandle::lastStatus() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastStatus;
}

bool IndexHandle::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handle != nullptr;
}

void IndexHandle::clearAndReopen(const QString &weightsPath)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    // A running update stops after its current file; the handle is closed only then.
    m_cancelUpdate = true;
    m_pauseChanged.notify_all();
    m_updateEnded.wait(lock, [this] {
        return !m_updateRunning;
    });
    if (m_handle) {
        trn_close(m_handle);
        m_handle = nullptr;
    }
    createIndexDir(m_dataDir);
    openLocked(weightsPath, TRN_OPEN_REBUILD);
}

namespace
{

// What trn_update_dir's progress callback needs: the caller's callback, the report the engine
// fills in as it goes, and the lock to open between files.
struct UpdateProgress {
    const TrnEngine *engine;
    const IndexHandle::ProgressFn *progress;
    const TrnUpdateReport *report;
    std::unique_lock<std::mutex> *lock;
    const bool *cancel; // guarded by m_mutex
    const bool *paused; // guarded by m_mutex
    std::condition_variable *pause_changed;
    std::atomic<uint64_t> *embedded;
    std::atomic<uint64_t> *chunks;
    IndexingProgress words; // the last report of the words phase
};

bool onUpdateProgress(const char *, int32_t done, int32_t total, void *user)
{
    UpdateProgress *p = static_cast<UpdateProgress *>(user);
    IndexingProgress now{done, total, int(p->report->chunks_added)};
    trn_update_progress(p->engine, &now.bytesDone, &now.bytesAll);
    now.meaning = trn_meaning_progress(p->engine, &now.chunksEmbedded, &now.chunksAll) == 1;
    if (now.meaning) {
        // done and total count chunks now: the files stay as the words phase left them.
        now.filesDone = p->words.filesDone;
        now.filesFound = p->words.filesFound;
        now.chunksDone = p->words.chunksDone;
        now.filesIndexed = int(trn_stats(p->engine).file_count);
    } else {
        p->words = now;
    }
    *p->embedded = now.chunksEmbedded;
    *p->chunks = now.chunksAll;
    // Between two files the handle is whole: searches of this tab and other tabs' work run here.
    p->lock->unlock();
    if (*p->progress) {
        (*p->progress)(now);
    }
    std::this_thread::yield();
    p->lock->lock();
    // Waiting releases the lock, so a paused tab still answers searches.
    p->pause_changed->wait(*p->lock, [p] {
        return !*p->paused || *p->cancel;
    });
    return !*p->cancel;
}

} // namespace

void IndexHandle::setIdlePriority(bool idle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_idlePriority = idle;
}

void IndexHandle::setPaused(bool paused)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = paused;
    m_pauseChanged.notify_all();
}

bool IndexHandle::isPaused() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_paused;
}

int IndexHandle::ingestDirectory(int chunkSize, int overlap, const FileWalkOptions &walk,
                                 const ProgressFn &progress, TrnUpdateReport *report)
{
    bool idle = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        idle = m_idlePriority;
    }
    if (!idle) {
        return ingestDirectoryHere(chunkSize, overlap, walk, progress, report);
    }
    // An unprivileged thread never leaves idle priority, so the update gets a thread of its own
    // rather than lowering a pool thread that later runs searches.
    int n = -1;
    std::thread indexer([this, chunkSize, overlap, &walk, &progress, report, &n] {
        thread_set_idle();
        n = ingestDirectoryHere(chunkSize, overlap, walk, progress, report);
    });
    indexer.join();
    return n;
}

int IndexHandle::ingestDirectoryHere(int chunkSize, int overlap, const FileWalkOptions &walk,
                                     const ProgressFn &progress, TrnUpdateReport *report)
{
    TrnUpdateReport local{};
    if (!report) {
        report = &local;
    }
    *report = TrnUpdateReport{};
    const QByteArray dir = QFile::encodeName(m_directoryPath);

    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_handle || m_updateRunning) {
        return -1;
    }
    m_updateRunning = true;
    m_cancelUpdate = false;
    UpdateProgress state{m_handle,
                         &progress,
                         report,
                         &lock,
                         &m_cancelUpdate,
                         &m_paused,
                         &m_pauseChanged,
                         &m_embedded,
                         &m_chunks,
                         {}};
    // m_handle stays while m_updateRunning: clearAndReopen waits for the update to stop.
    const int32_t n = trn_update_dir(m_handle,
                                     dir.constData(),
                                     checkedInt32(chunkSize),
                                     checkedInt32(overlap),
                                     walk.options(),
                                     onUpdateProgress,
                                     &state,
                                     report);
    if (n < 0) {
        noteFailureLocked(trn_last_status(m_handle), trn_last_error(m_handle));
    }
    noteMeaningLocked();
    m_updateRunning = false;
    m_updateEnded.notify_all();
    return n;
}

QList<SearchResult> IndexHandle::searchAcross(const QList<IndexHandle *> &handles,
                                              const QString &query, SearchMode mode, int k,
                                              ResultLayout layout)
{
    if (k < 0) {
        qFatal("tarnwick: search with negative k %d", k);
    }
    QList<SearchResult> results;
    if (k == 0 || handles.isEmpty()) {
        return results;
    }
    // Every handle is locked for the one call, always in the order of their addresses, so two
    // searches across the same tabs never wait for each other in a circle.
    QList<IndexHandle *> order = handles;
    std::sort(order.begin(), order.end());
    order.erase(std::unique(order.begin(), order.end()), order.end());
    std::vector<std::unique_lock<std::mutex>> locks;
    for (IndexHandle *handle : order) {
        locks.emplace_back(handle->m_mutex);
    }
    std::vector<TrnEngine *> engines;
    QList<const IndexHandle *> open; // an index that is not open is left out
    for (const IndexHandle *handle : handles) {
        if (handle->m_handle) {
            engines.push_back(handle->m_handle);
            open.append(handle);
        }
    }
    if (engines.empty()) {
        return results;
    }
    const QByteArray utf8 = query.toUtf8();
    std::vector<TrnResult> records(static_cast<size_t>(k), TrnResult{});
    std::vector<int32_t> origins(static_cast<size_t>(k), 0);
    const int32_t n =
        trn_search_many(engines.data(),
                        static_cast<int32_t>(engines.size()),
                        utf8.constData(),
                        static_cast<int32_t>(mode),
                        k,
                        layout == ResultLayout::ByFile ? uint32_t{TRN_SEARCH_BY_FILE} : 0u,
                        records.data(),
                        origins.data());
    for (int32_t i = 0; i < n && i < k; i++) {
        SearchResult result = toResult(records[static_cast<size_t>(i)]);
        result.folder = open.at(origins[static_cast<size_t>(i)])->m_directoryPath;
        results.append(result);
    }
    return results;
}

QList<SearchResult> IndexHandle::search(const QString &query, SearchMode mode, int k,
                                        ResultLayout layout)
{
    if (k < 0) {
        qFatal("tarnwick: search with negative k %d", k);
    }
    QList<SearchResult> results;
    if (k == 0) {
        return results;
    }
    const QByteArray utf8 = query.toUtf8();
    std::vector<TrnResult> records(static_cast<size_t>(k), TrnResult{});
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return results;
    }
    const uint32_t flags = layout == ResultLayout::ByFile ? TRN_SEARCH_BY_FILE : 0;
    const int32_t n = trn_search_ex(
        m_handle, utf8.constData(), static_cast<int32_t>(mode), k, flags, records.data());
    results.reserve(n);
    for (int32_t i = 0; i < n && i < k; i++) {
        SearchResult result = toResult(records[static_cast<size_t>(i)]);
        result.folder = m_directoryPath;
        results.append(result);
    }
    return results;
}

QList<SearchResult> IndexHandle::searchFile(const QString &query, SearchMode mode,
                                            const QString &filePath, int k)
{
    QList<SearchResult> passages;
    if (k <= 0) {
        return passages;
    }
    const QByteArray utf8 = query.toUtf8();
    const QByteArray path = QFile::encodeName(filePath);
    const int limit = std::min(k, kEngineResultLimit);
    std::vector<TrnResult> records(static_cast<size_t>(limit), TrnResult{});
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return passages;
    }
    const int32_t n = trn_search_file(m_handle,
                                      utf8.constData(),
                                      static_cast<int32_t>(mode),
                                      path.constData(),
                                      limit,
                                      records.data());
    for (int32_t i = 0; i < n && i < limit; i++) {
        SearchResult result = toResult(records[static_cast<size_t>(i)]);
        result.folder = m_directoryPath;
        passages.append(result);
    }
    return passages;
}

QList<FileInfo> IndexHandle::fileList(const FileWalkOptions &walk)
{
    const QByteArray root = QFile::encodeName(m_directoryPath);
    std::unique_ptr<TrnFileList, void (*)(TrnFileList *)> list(nullptr, trn_free_file_list);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        list.reset(trn_list_dir_files_ex(m_handle, root.constData(), walk.options()));
    }
    QList<FileInfo> files;
    files.reserve(list->count);
    for (int32_t i = 0; i < list->count; i++) {
        const TrnFileInfo &f = list->entries[i];
        FileInfo info;
        info.path = QFile::decodeName(f.path);
        info.id = info.path;
        info.name = QFile::decodeName(f.name);
        info.isDirectory = f.is_dir != 0;
        if (info.isDirectory) {
            info.fileType = QStringLiteral("Folder");
        } else if (f.type != TRN_FILE_TYPE_UNKNOWN) {
            info.fileType = QString::fromLatin1(trn_file_type_name(f.type));
            info.type = f.type;
        }
        info.fileSize = info.isDirectory ? 0 : f.size;
        info.chunkCount = int(f.chunk_count);
        info.isIndexed = f.indexed != 0;
        info.isChanged = f.changed != 0;
        info.status = int(f.status);
        info.isIndexable = f.status == TRN_FILE_STATUS_INDEXABLE;
        info.reason = QString::fromUtf8(f.reason);
        info.encoding = QString::fromUtf8(f.encoding);
        files.append(info);
    }
    return files;
}

TrnStats IndexHandle::stats() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return TrnStats{};
    }
    return trn_stats(m_handle);
}

bool IndexHandle::checkpoint()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return false;
    }
    const bool ok = trn_checkpoint(m_handle) == 1;
    noteFailureLocked(trn_last_status(m_handle), trn_last_error(m_handle));
    return ok;
}

void setEngineVerbose(bool on)
{
    trn_set_verbose(on ? 1 : 0);
}
