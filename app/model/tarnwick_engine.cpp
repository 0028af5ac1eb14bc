/*
** tarnwick_engine.cpp -- the engine wrapper: opening, walking and ingesting, searching, file
** listing, and the type-level helpers (classification, PDF text, opening results).
**
** The extension table stands in for a system type registry. For each known extension it gives an
** identifier and which of the four questions the type answers yes to: is it PDF, HTML, source
** code, plain text. Source code conforms to plain text. Types that are text but not plain text
** (JSON, XML, property lists, ...) answer no to all four, so they are indexed only through the
** user's extra extensions.
*/
#include "tarnwick_engine.h"

#include "file_walk.h"
#include "settings.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

#include <poppler-qt6.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace
{

enum TypeFlag : unsigned {
    kPdf = 1u << 0,
    kHtml = 1u << 1,
    kSource = 1u << 2,
    kPlainText = 1u << 3,
};

struct TypeEntry {
    const char *extension;
    const char *identifier;
    unsigned flags;
};

constexpr unsigned kSourceText = kSource | kPlainText;

// Extension (lower case) -> type. Extensions missing here have no type.
constexpr TypeEntry kTypeTable[] = {
    {"pdf", "com.adobe.pdf", kPdf},
    {"html", "public.html", kHtml},
    {"htm", "public.html", kHtml},
    {"shtml", "public.html", kHtml},
    {"xhtml", "public.xhtml", kHtml},
    {"txt", "public.plain-text", kPlainText},
    {"text", "public.plain-text", kPlainText},
    {"md", "public.plain-text", kPlainText},
    {"markdown", "public.plain-text", kPlainText},
    {"csv", "public.comma-separated-values-text", kPlainText},
    {"tsv", "public.tab-separated-values-text", kPlainText},
    {"log", "com.apple.log", kPlainText},
    {"c", "public.c-source", kSourceText},
    {"h", "public.c-header", kSourceText},
    {"cc", "public.c-plus-plus-source", kSourceText},
    {"cp", "public.c-plus-plus-source", kSourceText},
    {"cpp", "public.c-plus-plus-source", kSourceText},
    {"cxx", "public.c-plus-plus-source", kSourceText},
    {"c++", "public.c-plus-plus-source", kSourceText},
    {"hh", "public.c-plus-plus-header", kSourceText},
    {"hpp", "public.c-plus-plus-header", kSourceText},
    {"hxx", "public.c-plus-plus-header", kSourceText},
    {"m", "public.objective-c-source", kSourceText},
    {"mm", "public.objective-c-plus-plus-source", kSourceText},
    {"swift", "public.swift-source", kSourceText},
    {"s", "public.assembly-source", kSourceText},
    {"asm", "public.assembly-source", kSourceText},
    {"py", "public.python-script", kSourceText},
    {"rb", "public.ruby-script", kSourceText},
    {"pl", "public.perl-script", kSourceText},
    {"pm", "public.perl-script", kSourceText},
    {"php", "public.php-script", kSourceText},
    {"sh", "public.shell-script", kSourceText},
    {"bash", "public.bash-script", kSourceText},
    {"zsh", "public.zsh-script", kSourceText},
    {"csh", "public.csh-script", kSourceText},
    {"ksh", "public.ksh-script", kSourceText},
    {"js", "com.netscape.javascript-source", kSourceText},
    {"mjs", "com.netscape.javascript-source", kSourceText},
    {"java", "com.sun.java-source", kSourceText},
    {"y", "public.yacc-source", kSourceText},
    {"l", "public.lex-source", kSourceText},
    {"go", "public.go-source", kSourceText},
    {"rs", "public.rust-source", kSourceText},
    {"ts", "public.typescript-source", kSourceText},
    {"kt", "public.kotlin-source", kSourceText},
    {"cs", "public.csharp-source", kSourceText},
    {"lua", "public.lua-script", kSourceText},
    {"sql", "public.sql-source", kSourceText},
    {"r", "public.r-source", kSourceText},
    {"scala", "public.scala-source", kSourceText},
    {"json", "public.json", 0},
    {"xml", "public.xml", 0},
    {"plist", "com.apple.property-list", 0},
    {"yaml", "public.yaml", 0},
    {"yml", "public.yaml", 0},
    {"rtf", "public.rtf", 0},
    {"css", "public.css", 0},
    {"png", "public.png", 0},
    {"jpg", "public.jpeg", 0},
    {"jpeg", "public.jpeg", 0},
    {"gif", "com.compuserve.gif", 0},
    {"tif", "public.tiff", 0},
    {"tiff", "public.tiff", 0},
    {"svg", "public.svg-image", 0},
    {"zip", "public.zip-archive", 0},
    {"gz", "org.gnu.gnu-zip-archive", 0},
    {"tar", "public.tar-archive", 0},
    {"docx", "org.openxmlformats.wordprocessingml.document", 0},
    {"xlsx", "org.openxmlformats.spreadsheetml.sheet", 0},
    {"mp3", "public.mp3", 0},
    {"mp4", "public.mpeg-4", 0},
    {"o", "public.object-code", 0},
    {"so", "public.unix-executable", 0},
};

const TypeEntry *lookupType(const QString &extension)
{
    if (extension.isEmpty()) {
        return nullptr;
    }
    const QByteArray ext = extension.toUtf8();
    for (const TypeEntry &entry : kTypeTable) {
        if (ext == entry.extension) {
            return &entry;
        }
    }
    return nullptr;
}

// The extension as the path sees it: after the last "." of the last component, lower-cased;
// empty for "Makefile" and for hidden names without another dot (".profile").
QString lowerExtension(const QString &path)
{
    const QString name = QFileInfo(path).fileName();
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0) {
        return QString();
    }
    return name.mid(dot + 1).toLower();
}

constexpr const char *kWellKnownTextNames[] = {
    "Makefile",
    "Dockerfile",
    "Rakefile",
    "Gemfile",
    "Podfile",
    "Brewfile",
    "LICENSE",
    "README",
    "CHANGELOG",
    "AUTHORS",
    "CONTRIBUTING",
};

// The index directory, readable by its owner alone (0700); the directories above it as before.
void createIndexDir(const QString &dataDir)
{
    QDir().mkpath(QFileInfo(dataDir).path());
    ::mkdir(QFile::encodeName(dataDir).constData(), 0700);
}

std::unique_ptr<Poppler::Document> loadPdf(const QString &path)
{
    std::unique_ptr<Poppler::Document> document = Poppler::Document::load(path);
    if (!document || document->isLocked()) {
        return nullptr;
    }
    return document;
}

// The text of page i, or nullopt when the page has none.
std::optional<QString> pageText(const Poppler::Document &document, int i)
{
    std::unique_ptr<Poppler::Page> page = document.page(i);
    if (!page) {
        return std::nullopt;
    }
    QString text = page->text(QRectF());
    // poppler ends every line, the last one too, with a newline; a page of three lines is three
    // pieces, as the line arithmetic of pdfPageForLine expects.
    while (text.endsWith(QLatin1Char('\n'))) {
        text.chop(1);
    }
    if (text.isEmpty()) {
        return std::nullopt;
    }
    return text;
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
    std::lock_guard<std::mutex> lock(engineMutex());
    trn_set_verbose(on ? 1 : 0);
}

std::mutex &TarnwickEngine::engineMutex()
{
    static std::mutex mutex;
    return mutex;
}

TarnwickEngine::TarnwickEngine(const QString &directoryPath, const QString &weightsPath,
                               OpenMode mode)
    : m_directoryPath(directoryPath), m_dataDir(directoryPath + QStringLiteral("/.tarnwick"))
{
    createIndexDir(m_dataDir);
    std::lock_guard<std::mutex> lock(engineMutex());
    openLocked(weightsPath, mode == OpenMode::Rebuild ? TRN_OPEN_REBUILD : 0);
}

TarnwickEngine::~TarnwickEngine()
{
    std::lock_guard<std::mutex> lock(engineMutex());
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
    std::lock_guard<std::mutex> lock(engineMutex());
    if (!m_handle) {
        openLocked(weightsPath, 0);
    }
    return m_handle != nullptr;
}

QString TarnwickEngine::lastError() const
{
    std::lock_guard<std::mutex> lock(engineMutex());
    return m_lastError;
}

int TarnwickEngine::lastStatus() const
{
    std::lock_guard<std::mutex> lock(engineMutex());
    return m_lastStatus;
}

bool TarnwickEngine::isOpen() const
{
    std::lock_guard<std::mutex> lock(engineMutex());
    return m_handle != nullptr;
}

void TarnwickEngine::clearAndReopen(const QString &weightsPath)
{
    std::unique_lock<std::mutex> lock(engineMutex());
    // A running update stops after its current file; the handle is closed only then.
    m_cancelUpdate = true;
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
    const bool *cancel; // guarded by engineMutex()
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
    return !*p->cancel;
}

} // namespace

int TarnwickEngine::ingestDirectory(int chunkSize, int overlap, const ProgressFn &progress,
                                    TrnUpdateReport *report)
{
    TrnUpdateReport local{};
    if (!report) {
        report = &local;
    }
    *report = TrnUpdateReport{};
    const QByteArray dir = QFile::encodeName(m_directoryPath);
    QList<QByteArray> extensions;
    for (const QString &ext : extraExtensions()) {
        extensions.append(ext.toUtf8());
    }
    std::vector<const char *> extensionPointers;
    for (const QByteArray &ext : extensions) {
        extensionPointers.push_back(ext.constData());
    }
    TrnWalkOptions options{};
    options.extra_extensions = extensionPointers.data();
    options.extra_extension_count = static_cast<int32_t>(extensionPointers.size());

    std::unique_lock<std::mutex> lock(engineMutex());
    if (!m_handle || m_updateRunning) {
        return -1;
    }
    m_updateRunning = true;
    m_cancelUpdate = false;
    UpdateProgress state{&progress, report, &lock, &m_cancelUpdate};
    // m_handle stays while m_updateRunning: clearAndReopen waits for the update to stop.
    const int32_t n = trn_update_dir(m_handle,
                                     dir.constData(),
                                     checkedInt32(chunkSize),
                                     checkedInt32(overlap),
                                     &options,
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

std::optional<QString> TarnwickEngine::regexError(const QString &query)
{
    const QByteArray utf8 = query.toUtf8();
    char reason[256] = "";
    std::lock_guard<std::mutex> lock(engineMutex());
    if (trn_check_regex(utf8.constData(), reason, sizeof reason)) {
        return std::nullopt;
    }
    return QString::fromUtf8(reason);
}

QList<SearchResult> TarnwickEngine::search(const QString &query, SearchMode mode, int k)
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
    std::lock_guard<std::mutex> lock(engineMutex());
    if (!m_handle) {
        return results;
    }
    const int32_t n =
        trn_search(m_handle, utf8.constData(), static_cast<int32_t>(mode), k, records.data());
    results.reserve(n);
    for (int32_t i = 0; i < n && i < k; i++) {
        const TrnResult &r = records[static_cast<size_t>(i)];
        SearchResult result;
        result.id = QString::fromUtf8(r.doc_id ? r.doc_id : "");
        result.filePath = r.file_path ? QFile::decodeName(r.file_path) : QString();
        result.snippet = r.snippet ? QString::fromUtf8(r.snippet) : QString();
        result.score = r.score;
        result.chunkIndex = r.chunk_index;
        result.lineNumber = r.line_number;
        result.fileType = static_cast<int>(r.file_type);
        results.append(result);
    }
    return results;
}

QList<FileInfo> TarnwickEngine::fileList()
{
    QHash<QString, int> chunkCounts;
    {
        const QByteArray dir = QFile::encodeName(m_directoryPath);
        std::lock_guard<std::mutex> lock(engineMutex());
        if (m_handle) {
            (void)trn_stats(m_handle);
            TrnFileList *list = trn_list_dir_files(m_handle, dir.constData());
            if (list) {
                for (int32_t i = 0; i < list->count; i++) {
                    const TrnFileInfo &info = list->entries[i];
                    if (info.path) {
                        chunkCounts.insert(QFile::decodeName(info.path),
                                           static_cast<int>(info.chunk_count));
                    }
                }
                trn_free_file_list(list);
            }
        }
    }
    QList<WalkEntry> entries;
    walkDirectory(m_directoryPath, false, &entries);
    const QSet<QString> extra = extraExtensions();
    QList<FileInfo> files;
    files.reserve(entries.size());
    for (const WalkEntry &entry : entries) {
        const FileClassification c = classify(entry.path, extra);
        FileInfo info;
        info.id = entry.path;
        info.path = entry.path;
        info.name = QFileInfo(entry.path).fileName();
        info.fileType = c.fileType;
        info.fileSize = entry.size;
        info.chunkCount = chunkCounts.value(entry.path, 0);
        info.isIndexed = info.chunkCount > 0;
        info.isIndexable = c.isIndexable;
        info.utiType = c.utiType;
        files.append(info);
    }
    return files;
}

TrnStats TarnwickEngine::stats() const
{
    std::lock_guard<std::mutex> lock(engineMutex());
    if (!m_handle) {
        return TrnStats{};
    }
    return trn_stats(m_handle);
}

bool TarnwickEngine::checkpoint()
{
    std::lock_guard<std::mutex> lock(engineMutex());
    if (!m_handle) {
        return false;
    }
    const bool ok = trn_checkpoint(m_handle) == 1;
    noteFailureLocked(trn_last_status(m_handle), trn_last_error(m_handle));
    return ok;
}

QSet<QString> TarnwickEngine::extraExtensions()
{
    return parseExtensions(Settings::standard()->extraExtensions());
}

QSet<QString> TarnwickEngine::parseExtensions(const QString &commaSeparated)
{
    QSet<QString> set;
    const QStringList pieces = commaSeparated.split(QLatin1Char(','));
    for (const QString &piece : pieces) {
        const QString ext = piece.trimmed().toLower();
        if (!ext.isEmpty()) {
            set.insert(ext);
        }
    }
    return set;
}

bool TarnwickEngine::appearsToBeText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray head = file.read(512);
    if (head.isEmpty()) {
        return false;
    }
    qsizetype control = 0;
    for (const char ch : head) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (b == 0) {
            return false;
        }
        // Tab, line feed, vertical tab, form feed, carriage return (9..13) and escape (27) are
        // text.
        if ((b >= 1 && b <= 8) || (b >= 14 && b <= 26) || (b >= 28 && b <= 31)) {
            control++;
        }
    }
    return double(control) / double(head.size()) < 0.1;
}

FileClassification TarnwickEngine::classify(const QString &path)
{
    return classify(path, extraExtensions());
}

FileClassification TarnwickEngine::classify(const QString &path, const QSet<QString> &extra)
{
    const QString ext = lowerExtension(path);
    const TypeEntry *type = lookupType(ext);
    if (type) {
        const QString identifier = QString::fromLatin1(type->identifier);
        if (type->flags & kPdf) {
            return {true, QStringLiteral("PDF"), identifier};
        }
        if (type->flags & kHtml) {
            return {true, QStringLiteral("HTML"), identifier};
        }
        if (type->flags & kSource) {
            return {true, QStringLiteral("Source"), identifier};
        }
        if (type->flags & kPlainText) {
            const bool markdown = ext == QLatin1String("md") || ext == QLatin1String("markdown");
            return {
                true, markdown ? QStringLiteral("Markdown") : QStringLiteral("Text"), identifier};
        }
    }
    if (ext.isEmpty()) {
        const QString name = QFileInfo(path).fileName();
        for (const char *known : kWellKnownTextNames) {
            if (name == QLatin1String(known)) {
                return {true, QStringLiteral("Text"), QStringLiteral("public.plain-text")};
            }
        }
    }
    if (!ext.isEmpty() && extra.contains(ext) && appearsToBeText(path)) {
        return {true, QStringLiteral("Text"), QStringLiteral("extra.") + ext};
    }
    return {false,
            QStringLiteral("Binary"),
            type ? QString::fromLatin1(type->identifier) : QStringLiteral("unknown")};
}

std::optional<QString> TarnwickEngine::extractPDFText(const QString &path)
{
    std::unique_ptr<Poppler::Document> document = loadPdf(path);
    if (!document) {
        return std::nullopt;
    }
    QString text;
    for (int i = 0; i < document->numPages(); i++) {
        std::optional<QString> page = pageText(*document, i);
        if (page) {
            text += *page;
            text += QLatin1String("\n\n");
        }
    }
    if (text.isEmpty()) {
        return std::nullopt;
    }
    return text;
}

std::optional<int> TarnwickEngine::pdfPageForLine(const QString &path, int lineNumber)
{
    std::unique_ptr<Poppler::Document> document = loadPdf(path);
    if (!document) {
        return std::nullopt;
    }
    if (lineNumber < 1) {
        return 1;
    }
    qint64 running = 0;
    for (int i = 0; i < document->numPages(); i++) {
        std::optional<QString> page = pageText(*document, i);
        if (!page) {
            continue;
        }
        // The page's lines plus the blank line extractPDFText puts after it.
        running += page->split(QLatin1Char('\n')).size() + 1;
        if (running >= lineNumber) {
            return i + 1;
        }
    }
    return document->numPages();
}

OpenOutcome TarnwickEngine::openResult(const SearchResult &result)
{
    OpenRequest request;
    request.filePath = result.filePath;
    request.lineNumber = result.lineNumber;
    const QString ext = lowerExtension(result.filePath);
    const TypeEntry *type = lookupType(ext);
    request.isPdf = type && (type->flags & kPdf);
    request.isEditable = (type && (type->flags & (kPlainText | kSource)))
                         || ext == QLatin1String("md") || ext == QLatin1String("markdown");
    if (request.isPdf) {
        request.pdfPage = pdfPageForLine(result.filePath, result.lineNumber).value_or(1);
    }
    Settings *settings = Settings::standard();
    request.editorChoice = settings->openTextFilesWith();
    request.customCommand = settings->editorCommand();
    return openWithDesktop(request);
}

FileCategory TarnwickEngine::fileCategory(const SearchResult &result)
{
    const QString ext = lowerExtension(result.filePath);
    const TypeEntry *type = lookupType(ext);
    if (type && (type->flags & kPdf)) {
        return FileCategory::Pdf;
    }
    if (type && (type->flags & kHtml)) {
        return FileCategory::Html;
    }
    if (ext == QLatin1String("md") || ext == QLatin1String("markdown")) {
        return FileCategory::Markdown;
    }
    return FileCategory::Plain;
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
