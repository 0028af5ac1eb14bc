/*
** tarnwick_engine.cpp -- the engine wrapper: opening, walking and ingesting, searching, file
** listing, and the type-level helpers (a PDF hit's page, opening results). Which files are read
** and what text they hold is decided by the engine (files.h); this file only passes the
** settings along.
*/
#include "tarnwick_engine.h"

#include "priority.h"
#include "settings.h"
#include "text/files.h"

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
    return result;
}

// The index directory, readable by its owner alone (0700); the directories above it as before.
void createIndexDir(const QString &dataDir)
{
    QDir().mkpath(QFileInfo(dataDir).path());
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

QString searchModeName(SearchMode mode)
{
    switch (mode) {
    case SearchMode::Hybrid:
        return QStringLiteral("Hybrid");
    case SearchMode::Semantic:
        return QStringLiteral("Semantic");
    case SearchMode::Keyword:
        return QStringLiteral("Keyword");
    case SearchMode::Text:
        return QStringLiteral("Text");
    case SearchMode::Regex:
        return QStringLiteral("Regex");
    }
    return QStringLiteral("Hybrid");
}

std::optional<SearchMode> searchModeFromName(const QString &name)
{
    for (SearchMode mode : allSearchModes()) {
        if (searchModeName(mode) == name) {
            return mode;
        }
    }
    return std::nullopt;
}

QList<SearchMode> allSearchModes()
{
    return {SearchMode::Hybrid,
            SearchMode::Semantic,
            SearchMode::Keyword,
            SearchMode::Text,
            SearchMode::Regex};
}

void TarnwickEngine::setVerbose(bool on)
{
    trn_set_verbose(on ? 1 : 0);
}

TarnwickEngine::TarnwickEngine(const QString &directoryPath, const QString &weightsPath,
                               OpenMode mode)
    : m_directoryPath(directoryPath), m_dataDir(directoryPath + QStringLiteral("/.tarnwick"))
{
    createIndexDir(m_dataDir);
    std::lock_guard<std::mutex> lock(m_mutex);
    openLocked(weightsPath, mode == OpenMode::Rebuild ? TRN_OPEN_REBUILD : 0);
}

TarnwickEngine::~TarnwickEngine()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle) {
        trn_close(m_handle);
        m_handle = nullptr;
    }
}

void TarnwickEngine::noteFailureLocked(int status, const char *message)
{
    m_lastStatus = status;
    m_lastError = status == TRN_STATUS_OK ? QString() : QString::fromUtf8(message);
}

void TarnwickEngine::openLocked(const QString &weightsPath, uint32_t flags)
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
}

bool TarnwickEngine::reopen(const QString &weightsPath)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        openLocked(weightsPath, 0);
    }
    return m_handle != nullptr;
}

QString TarnwickEngine::lastError() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastError;
}

int TarnwickEngine::lastStatus() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastStatus;
}

bool TarnwickEngine::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handle != nullptr;
}

void TarnwickEngine::clearAndReopen(const QString &weightsPath)
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
    const TarnwickEngine::ProgressFn *progress;
    const TrnUpdateReport *report;
    std::unique_lock<std::mutex> *lock;
    const bool *cancel; // guarded by m_mutex
    const bool *paused; // guarded by m_mutex
    std::condition_variable *pause_changed;
};

bool onUpdateProgress(const char *, int32_t done, int32_t total, void *user)
{
    UpdateProgress *p = static_cast<UpdateProgress *>(user);
    // Between two files the handle is whole: searches of this tab and other tabs' work run here.
    p->lock->unlock();
    if (*p->progress) {
        (*p->progress)(done, total, p->report->chunks_added);
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

void TarnwickEngine::setIdlePriority(bool idle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_idlePriority = idle;
}

void TarnwickEngine::setPaused(bool paused)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = paused;
    m_pauseChanged.notify_all();
}

bool TarnwickEngine::isPaused() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_paused;
}

int TarnwickEngine::ingestDirectory(int chunkSize, int overlap, const FileWalkOptions &walk,
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

int TarnwickEngine::ingestDirectoryHere(int chunkSize, int overlap, const FileWalkOptions &walk,
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
    UpdateProgress state{&progress, report, &lock, &m_cancelUpdate, &m_paused, &m_pauseChanged};
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
    m_updateRunning = false;
    m_updateEnded.notify_all();
    return n;
}

std::optional<QString> TarnwickEngine::queryError(const QString &query, SearchMode mode)
{
    const QByteArray utf8 = query.toUtf8();
    char reason[256] = "";
    // The narrowing words first, in a mode without an expression to compile.
    if (!trn_check_query(utf8.constData(), TRN_SEARCH_KEYWORD, reason, sizeof reason)) {
        QString text = QString::fromUtf8(reason);
        text[0] = text[0].toUpper();
        return text;
    }
    if (trn_check_query(utf8.constData(), static_cast<int32_t>(mode), reason, sizeof reason)) {
        return std::nullopt;
    }
    return QStringLiteral("Invalid regular expression: ") + QString::fromUtf8(reason);
}

QList<SearchResult> TarnwickEngine::groupByFile(const QList<SearchResult> &passages, int k)
{
    QList<SearchResult> files;
    QHash<QString, qsizetype> rowOf;
    for (const SearchResult &passage : passages) {
        const auto seen = rowOf.constFind(passage.filePath);
        if (seen != rowOf.constEnd()) {
            files[*seen].moreInFile++;
        } else if (files.size() < k) {
            rowOf.insert(passage.filePath, files.size());
            files.append(passage);
            files.last().moreInFile = 0;
        }
    }
    return files;
}

QList<SearchResult> TarnwickEngine::searchAcross(const QList<TarnwickEngine *> &engines,
                                                 const QString &query, SearchMode mode, int k,
                                                 ResultLayout layout)
{
    if (k < 0) {
        qFatal("tarnwick: search with negative k %d", k);
    }
    QList<SearchResult> results;
    if (k == 0 || engines.isEmpty()) {
        return results;
    }
    // Every handle is locked for the one call, always in the order of their addresses, so two
    // searches across the same tabs never wait for each other in a circle.
    QList<TarnwickEngine *> order = engines;
    std::sort(order.begin(), order.end());
    order.erase(std::unique(order.begin(), order.end()), order.end());
    std::vector<std::unique_lock<std::mutex>> locks;
    for (TarnwickEngine *engine : order) {
        locks.emplace_back(engine->m_mutex);
    }
    std::vector<TrnEngine *> handles;
    QList<const TarnwickEngine *> open; // an index that is not open is left out
    for (const TarnwickEngine *engine : engines) {
        if (engine->m_handle) {
            handles.push_back(engine->m_handle);
            open.append(engine);
        }
    }
    if (handles.empty()) {
        return results;
    }
    const QByteArray utf8 = query.toUtf8();
    std::vector<TrnResult> records(static_cast<size_t>(k), TrnResult{});
    std::vector<int32_t> origins(static_cast<size_t>(k), 0);
    const int32_t n =
        trn_search_many(handles.data(),
                        static_cast<int32_t>(handles.size()),
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

QList<SearchResult> TarnwickEngine::search(const QString &query, SearchMode mode, int k,
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

QList<SearchResult> TarnwickEngine::searchFile(const QString &query, SearchMode mode,
                                               const QString &filePath)
{
    // TODO(#27): the engine searches one file's passages itself; until then they are picked
    // from as many passages as it gives.
    QList<SearchResult> passages;
    for (const SearchResult &r : search(query, mode, kEngineResultLimit)) {
        if (r.filePath == filePath) {
            passages.append(r);
        }
    }
    return passages;
}

QList<FileInfo> TarnwickEngine::fileList(const FileWalkOptions &walk)
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

QString fileStatusText(const FileInfo &file)
{
    // UTF-8 is the rule and goes unsaid; a converted text says from what.
    const QString readAs = file.encoding.isEmpty() || file.encoding == QLatin1String("UTF-8")
                               ? QString()
                               : QStringLiteral(", read as ") + file.encoding;
    switch (file.status) {
    case TRN_FILE_STATUS_INDEXABLE:
        if (file.isChanged) {
            return QStringLiteral("Changed since indexing") + readAs;
        }
        if (file.isIndexed) {
            return (file.chunkCount == 1
                        ? QStringLiteral("Indexed (1 chunk)")
                        : QStringLiteral("Indexed (%1 chunks)").arg(file.chunkCount))
                   + readAs;
        }
        return QStringLiteral("Not indexed yet") + readAs;
    case TRN_FILE_STATUS_EXCLUDED:
        return QStringLiteral("Excluded by ") + file.reason;
    default:
        return QString::fromLatin1(trn_file_status_name(static_cast<TrnFileStatus>(file.status)));
    }
}

FileWalkOptions::FileWalkOptions(const QSet<QString> &extraExtensions,
                                 const QStringList &excludePatterns, qint64 maxFileSize)
{
    // Every string is stored first, so the pointers taken below never move.
    m_strings.reserve(size_t(extraExtensions.size() + excludePatterns.size()));
    for (const QString &ext : extraExtensions) {
        m_strings.push_back(ext.toUtf8());
    }
    for (const QString &pattern : excludePatterns) {
        m_strings.push_back(pattern.toUtf8());
    }
    const size_t extensionCount = size_t(extraExtensions.size());
    for (size_t i = 0; i < m_strings.size(); i++) {
        (i < extensionCount ? m_extensions : m_patterns).push_back(m_strings[i].constData());
    }
    m_options.extra_extensions = m_extensions.empty() ? nullptr : m_extensions.data();
    m_options.extra_extension_count = int32_t(m_extensions.size());
    m_options.exclude_patterns = m_patterns.empty() ? nullptr : m_patterns.data();
    m_options.exclude_pattern_count = int32_t(m_patterns.size());
    m_options.max_file_size = maxFileSize > 0 ? uint64_t(maxFileSize) : uint64_t(TRN_FILE_SIZE_MAX);
}

std::unique_ptr<FileWalkOptions> FileWalkOptions::fromSettings(const Settings &settings)
{
    return std::make_unique<FileWalkOptions>(settings.effectiveExtraExtensions(),
                                             settings.effectiveExcludePatterns(),
                                             settings.effectiveMaxFileSize());
}

TrnStats TarnwickEngine::stats() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return TrnStats{};
    }
    return trn_stats(m_handle);
}

bool TarnwickEngine::checkpoint()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_handle) {
        return false;
    }
    const bool ok = trn_checkpoint(m_handle) == 1;
    noteFailureLocked(trn_last_status(m_handle), trn_last_error(m_handle));
    return ok;
}

std::optional<int> TarnwickEngine::pdfPageForLine(const QString &path, int lineNumber)
{
    const QByteArray file = QFile::encodeName(path);
    ExtractedText text;
    const TrnFileStatus status = extract_file_text(file.constData(), TRN_FILE_TYPE_PDF, 0, &text);
    std::optional<int> page;
    if (status == TRN_FILE_STATUS_INDEXABLE || status == TRN_FILE_STATUS_TOO_SHORT) {
        page = page_for_line(&text, lineNumber);
    }
    extracted_text_free(&text);
    return page;
}

OpenOutcome TarnwickEngine::openResult(const SearchResult &result, const Settings &settings)
{
    OpenRequest request;
    request.filePath = result.filePath;
    request.lineNumber = result.lineNumber;
    const TrnFileType type = file_type_by_name(QFile::encodeName(result.filePath).constData());
    request.isPdf = type == TRN_FILE_TYPE_PDF;
    // A name that says nothing (README.Debian, NEWS) was indexed as text: the editor opens it.
    request.isEditable =
        type == TRN_FILE_TYPE_TEXT || type == TRN_FILE_TYPE_SOURCE || type == TRN_FILE_TYPE_MARKDOWN
        || (type == TRN_FILE_TYPE_UNKNOWN && result.fileType == TRN_FILE_TYPE_TEXT);
    if (request.isPdf) {
        request.pdfPage = pdfPageForLine(result.filePath, result.lineNumber).value_or(1);
    }
    request.editorChoice = settings.openTextFilesWith();
    request.customCommand = settings.editorCommand();
    return openWithDesktop(request);
}

FileCategory TarnwickEngine::fileCategory(const SearchResult &result)
{
    switch (file_type_by_name(QFile::encodeName(result.filePath).constData())) {
    case TRN_FILE_TYPE_PDF:
        return FileCategory::Pdf;
    case TRN_FILE_TYPE_HTML:
        return FileCategory::Html;
    case TRN_FILE_TYPE_MARKDOWN:
        return FileCategory::Markdown;
    case TRN_FILE_TYPE_DOCX:
    case TRN_FILE_TYPE_ODT:
    case TRN_FILE_TYPE_EPUB:
        return FileCategory::Document;
    default:
        return FileCategory::Plain;
    }
}

QString TarnwickEngine::formatFileSize(qint64 bytes)
{
    if (bytes >= 1048576) {
        return QString::asprintf("%.1f MB", double(bytes) / 1048576.0);
    }
    if (bytes > 1023) {
        return QString::asprintf("%.1f KB", double(bytes) / 1024.0);
    }
    return QString::number(bytes) + QStringLiteral(" B");
}
