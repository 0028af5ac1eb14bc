/*
** tarnwick_engine.h -- the application's side of one directory's index.
**
** TarnwickEngine owns one engine handle (tarnwick.h) opened on "<directory>/.tarnwick". It keeps
** the index up to date through the engine's update (trn_update_dir, which walks, classifies and
** reads the files with the one walk and extraction of files.h under the settings' extra
** extensions, exclusion patterns and size limit: FileWalkOptions), runs searches and copies their
** records into value types, and lists the directory's files with the reason each is or is not in
** the index.
**
** The type-level operations (static members) find a PDF hit's page.
**
** Locking: every trn_ call on the handle holds this object's own mutex, because calls on one
** handle must not overlap; handles share nothing, so tabs never wait for each other (a search in
** one tab runs while another tab indexes). The lock is taken per call, and an update opens it
** between files, so a search in the same tab runs between two files. The handle pointer itself is
** guarded by the same mutex, so clearAndReopen may run while a worker thread is using the object.
*/
#ifndef TRN_APP_TARNWICK_ENGINE_H
#define TRN_APP_TARNWICK_ENGINE_H

#include "tarnwick.h"

#include <QList>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class Settings;

// The query modes. The value is the mode of trn_search: Semantic searches every file
// (TRN_SEARCH_SEMANTIC_ALL), so it answers with as many results as asked for, Keyword ranks by
// words (BM25), Hybrid fuses the two rankings. Hybrid is the default.
enum class SearchMode {
    Text = TRN_SEARCH_TEXT,
    Regex = TRN_SEARCH_REGEX,
    Keyword = TRN_SEARCH_KEYWORD,
    Hybrid = TRN_SEARCH_HYBRID,
    Semantic = TRN_SEARCH_SEMANTIC_ALL
};

// "Hybrid", "Semantic", "Keyword", "Text", "Regex": the picker's labels and the names stored in
// the search history (older histories hold only the last three, which still decode).
QString searchModeName(SearchMode mode);
// The mode with that name (exact spelling), or nullopt.
std::optional<SearchMode> searchModeFromName(const QString &name);
// Every mode in the picker's order: Hybrid, Semantic, Keyword, Text, Regex.
QList<SearchMode> allSearchModes();

// One search hit, copied out of the engine (the engine reuses its snippet buffers).
struct SearchResult {
    QString id;       // the chunk key, "<path>:<ordinal>"; stable for the same chunk of a file
    QString filePath; // empty when the engine had none
    QString snippet;
    float score = 0.0f;
    int chunkIndex = 0;
    int lineNumber = 0;
    int fileType = 0; // a TrnFileType value
    // On a file's row of a search laid out by file: how many more of its passages matched.
    int moreInFile = 0;
    // The indexed directory the result comes from.
    QString folder;

    bool operator==(const SearchResult &other) const = default;
};

// How a search's answer is laid out: one row per file, the file's best passage (the default of
// the application), or every matching passage.
enum class ResultLayout { ByFile, AllPassages };

// One file of the directory (or one excluded or unreadable directory) with its index state.
struct FileInfo {
    QString id;       // the full path
    QString path;     // the full path
    QString name;     // last path component
    QString fileType; // trn_file_type_name, "Folder" for a directory, "" when not classified
    qint64 fileSize = 0;
    int chunkCount = 0;
    bool isIndexed = false;   // chunkCount > 0
    bool isIndexable = false; // status is TRN_FILE_STATUS_INDEXABLE
    bool isChanged = false;   // indexed, and modified after the index was last written
    bool isDirectory = false;
    int status = TRN_FILE_STATUS_INDEXABLE; // a TrnFileStatus
    QString reason; // the excluding rule, e.g. ".gitignore:3: build/"; else empty

    bool operator==(const FileInfo &other) const = default;
};

// What the file scope view says of a file: "Indexed (N chunks)", "Changed since indexing",
// "Not indexed yet", "Excluded by <rule>", "Too large", "Binary", "Not UTF-8", "Too short",
// "Unreadable".
QString fileStatusText(const FileInfo &file);

// The walk options of the settings (extraExtensions, excludePatterns, maxFileSizeMB), holding
// the strings that options() points into; not copyable, so the pointers stay valid.
class FileWalkOptions
{
public:
    FileWalkOptions(const QSet<QString> &extraExtensions, const QStringList &excludePatterns,
                    qint64 maxFileSize);
    static std::unique_ptr<FileWalkOptions> fromSettings(const Settings &settings);
    FileWalkOptions(const FileWalkOptions &) = delete;
    FileWalkOptions &operator=(const FileWalkOptions &) = delete;

    const TrnWalkOptions *options() const { return &m_options; }
    uint64_t maxFileSize() const { return m_options.max_file_size; }

private:
    std::vector<QByteArray> m_strings;
    std::vector<const char *> m_extensions;
    std::vector<const char *> m_patterns;
    TrnWalkOptions m_options = {};
};

// Which preview a result gets: Document for DOCX, ODT and EPUB (formatted text from their XML).
enum class FileCategory { Plain, Pdf, Html, Markdown, Document };

class TarnwickEngine
{
public:
    using Result = SearchResult;
    // Called on the indexing thread: files ingested so far of the indexable files found, and the
    // chunks those files gave.
    using ProgressFn = std::function<void(int filesDone, int filesFound, int chunksDone)>;

    // Normal loads the directory's index; Rebuild starts empty and replaces the index only when
    // checkpoint() succeeds (the old index stays searchable by others until then).
    enum class OpenMode { Normal, Rebuild };

    // Creates "<directoryPath>/.tarnwick" (a failure is ignored) and opens the engine there.
    // An empty weightsPath selects the engine's untrained encoder. When the index is busy or
    // damaged the object is not open and lastError() says why.
    TarnwickEngine(const QString &directoryPath, const QString &weightsPath,
                   OpenMode mode = OpenMode::Normal);
    // Closes the engine (which checkpoints it).
    ~TarnwickEngine();
    TarnwickEngine(const TarnwickEngine &) = delete;
    TarnwickEngine &operator=(const TarnwickEngine &) = delete;

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
    // ingested, changed ones replaced, deleted or excluded
    // ones removed, unchanged ones not read. On a handle opened to rebuild, the rebuilt index
    // replaces the old one at the end. Returns the chunks added, or -1 when the engine is not
    // open, an update already runs, the directory cannot be read or a write failed (see
    // lastError). progress (may be empty) is called with (0, files to read or remove, 0) once the
    // walk is done, then after each of them with (files done, that total, chunks added). The
    // lock is open while progress runs, so searches go on between files. report, when given,
    // says what the update did.
    int ingestDirectory(int chunkSize, int overlap, const FileWalkOptions &walk,
                        const ProgressFn &progress = {}, TrnUpdateReport *report = nullptr);

    // Nullopt when query compiles as a regex-mode query, else the reason in one line.
    static std::optional<QString> regexError(const QString &query);

    // At most k results (k >= 0; the engine gives at most 64). Empty when not open or k is 0.
    // ByFile: at most k files, each once with its best passage and moreInFile set.
    QList<SearchResult> search(const QString &query, SearchMode mode, int k,
                               ResultLayout layout = ResultLayout::AllPassages);
    // The matching passages of one file (what "n more in this file" opens), best first.
    QList<SearchResult> searchFile(const QString &query, SearchMode mode, const QString &filePath);
    // passages laid out by file: each file's first passage in order with moreInFile counting its
    // others, at most k files.
    static QList<SearchResult> groupByFile(const QList<SearchResult> &passages, int k);
    // Several indexes' rankings as one, at most k: semantic results by score (dot products
    // compare across indexes); in the other modes by rank, the first of each index, then the
    // second of each, and so on, so that no index's scale of scores crowds out another's. Equal
    // places keep the order of rankings.
    static QList<SearchResult> mergeRankings(const QList<QList<SearchResult>> &rankings,
                                             SearchMode mode, int k);

    // Every file of the directory in walk order under walk with its state (see FileInfo): excluded
    // directories once, the text of indexable files that are not indexed read for the reason.
    QList<FileInfo> fileList(const FileWalkOptions &walk);

    // trn_stats, or zero counts when not open.
    TrnStats stats() const;
    // trn_checkpoint; false when not open, busy or the store could not be written (lastError).
    bool checkpoint();

    // The 1-based page of the PDF at path that holds line lineNumber of its extracted text
    // (page_for_line of files.h); 1 for lineNumber < 1; nullopt when the file cannot be read.
    static std::optional<int> pdfPageForLine(const QString &path, int lineNumber);

    static FileCategory fileCategory(const SearchResult &result);

    // "1023 B", "1.0 KB", "1.0 MB".
    static QString formatFileSize(qint64 bytes);

    // The engine's informational lines on standard error (trn_set_verbose), process-wide.
    static void setVerbose(bool on);

private:
    void openLocked(const QString &weightsPath, uint32_t flags); // m_mutex held
    void noteFailureLocked(int status, const char *message);     // m_mutex held

    QString m_directoryPath;
    QString m_dataDir;
    mutable std::mutex m_mutex;       // held around every trn_ call on m_handle
    TrnEngine *m_handle = nullptr;    // guarded by m_mutex; NULL when not open
    QString m_lastError;              // guarded by m_mutex
    int m_lastStatus = TRN_STATUS_OK; // guarded by m_mutex
    bool m_updateRunning = false;     // guarded by m_mutex
    bool m_cancelUpdate = false;      // guarded by m_mutex
    std::condition_variable m_updateEnded;
};

Q_DECLARE_METATYPE(SearchResult)
Q_DECLARE_METATYPE(FileInfo)

#endif
