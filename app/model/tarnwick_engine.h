/*
** tarnwick_engine.h -- the application's side of one directory's index.
**
** TarnwickEngine owns one engine handle (tarnwick.h) opened on "<directory>/.tarnwick". It keeps
** the index up to date through the engine's update (which walks, classifies and reads the files),
** runs searches and copies their records into value types, and lists the directory's files with
** their index state.
**
** The type-level operations (static members) classify files with the application's own
** extension table, extract PDF text with poppler, and open results in external applications.
**
** Locking: every trn_ call in the process goes through engineMutex(), because the engine is not
** reentrant and its encoder scratch space is shared by all handles. The lock is taken per call
** (per file while indexing: the update opens it between files), so a search can run between two
** files of any tab's indexing.
** The handle pointer itself is guarded by the same mutex, so clearAndReopen may run while a
** worker thread is using the object.
*/
#ifndef TRN_APP_TARNWICK_ENGINE_H
#define TRN_APP_TARNWICK_ENGINE_H

#include "result_opener.h"
#include "tarnwick.h"

#include <QList>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QUrl>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>

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

    bool operator==(const SearchResult &other) const = default;
};

// The answer of TarnwickEngine::classify.
struct FileClassification {
    bool isIndexable = false;
    QString fileType; // "PDF", "HTML", "Source", "Markdown", "Text" or "Binary"
    QString utiType;  // the table's identifier, "extra." + extension, or "unknown"

    bool operator==(const FileClassification &other) const = default;
};

// One file of the directory with its index state.
struct FileInfo {
    QString id;   // the full path
    QString path; // the full path
    QString name; // last path component
    QString fileType;
    qint64 fileSize = 0;
    int chunkCount = 0;
    bool isIndexed = false; // chunkCount > 0
    bool isIndexable = false;
    QString utiType;

    bool operator==(const FileInfo &other) const = default;
};

// Which preview a result gets.
enum class FileCategory { Plain, Pdf, Html, Markdown };

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

    // Brings the index up to date with the directory (trn_update_dir, with the extra extensions
    // of the settings): new files ingested, changed ones replaced, deleted or excluded ones
    // removed, unchanged ones not read. On a handle opened to rebuild, the rebuilt index replaces
    // the old one at the end. Returns the chunks added, or -1 when the engine is not open, an
    // update already runs, the directory cannot be read or a write failed (see lastError).
    // progress (may be empty) is called with (0, files to read or remove, 0) once the walk is
    // done, then after each of them with (files done, that total, chunks added). The engine lock is
    // open while progress runs, so searches go on between files. report, when given, says what the
    // update did.
    int ingestDirectory(int chunkSize, int overlap, const ProgressFn &progress = {},
                        TrnUpdateReport *report = nullptr);

    // Nullopt when query compiles as a regex-mode query, else the reason in one line.
    static std::optional<QString> regexError(const QString &query);

    // At most k results (k >= 0; the engine gives at most 64). Empty when not open or k is 0.
    QList<SearchResult> search(const QString &query, SearchMode mode, int k);

    // Every regular file of the directory in walk order, with the engine's chunk counts.
    QList<FileInfo> fileList();

    // trn_stats, or zero counts when not open.
    TrnStats stats() const;
    // trn_checkpoint; false when not open, busy or the store could not be written (lastError).
    bool checkpoint();

    // The "extraExtensions" setting as a set: split at ",", trimmed, lower-cased, empties dropped.
    static QSet<QString> extraExtensions();
    static QSet<QString> parseExtensions(const QString &commaSeparated);

    // True when the first 512 bytes hold no byte 0 and fewer than 10% control bytes (1..8,
    // 14..26, 28..31). False for an unreadable or empty file.
    static bool appearsToBeText(const QString &path);

    // Classifies by the extension table, then the well-known names ("Makefile", "README", ...),
    // then the extra extensions. The second form takes the extra extensions instead of reading
    // the setting (a walk reads it once).
    static FileClassification classify(const QString &path);
    static FileClassification classify(const QString &path, const QSet<QString> &extra);

    // Text of every page that has text, each followed by two newlines; nullopt when the file
    // cannot be opened as a PDF or holds no text.
    static std::optional<QString> extractPDFText(const QString &path);
    // The 1-based page holding lineNumber of extractPDFText's text (each page counts its lines
    // plus the blank line after it); 1 for lineNumber < 1; the page count when no page reaches
    // it; nullopt when the file cannot be opened.
    static std::optional<int> pdfPageForLine(const QString &path, int lineNumber);

    // Opens a result as result_opener.h describes, with the editor chosen in the settings:
    // plain text, source code and Markdown in the editor at the line, PDFs at the hit's page,
    // everything else with the default application. The outcome's message is for the status bar.
    static OpenOutcome openResult(const SearchResult &result);

    static FileCategory fileCategory(const SearchResult &result);

    // "1023 B", "1.0 KB", "1.0 MB".
    static QString formatFileSize(qint64 bytes);

    // The engine's informational lines on standard error (trn_set_verbose), process-wide.
    static void setVerbose(bool on);

    // The process-wide lock held around every trn_ call.
    static std::mutex &engineMutex();

private:
    void openLocked(const QString &weightsPath, uint32_t flags); // engineMutex() held
    void noteFailureLocked(int status, const char *message);     // engineMutex() held

    QString m_directoryPath;
    QString m_dataDir;
    TrnEngine *m_handle = nullptr;    // guarded by engineMutex(); NULL when not open
    QString m_lastError;              // guarded by engineMutex()
    int m_lastStatus = TRN_STATUS_OK; // guarded by engineMutex()
    bool m_updateRunning = false;     // guarded by engineMutex()
    bool m_cancelUpdate = false;      // guarded by engineMutex()
    std::condition_variable m_updateEnded;
};

Q_DECLARE_METATYPE(SearchResult)
Q_DECLARE_METATYPE(FileInfo)

#endif
