/*
** filetype.cpp -- decides what kind of file a path names before anything is read from it.
**
** The decision rests on the name first: a few special base names, then the extension (the text
** from the last "." of the whole path, matched case-insensitively against three tables), then a
** few well-known extensionless text names. Only when the name decides nothing (README.Debian,
** NEWS, TODO, foo.Bugs, names without an extension) are the first 512 bytes of the file read:
** magic numbers of common binary formats, a 0 byte, or too many control bytes make it binary;
** otherwise it is text. The user's extra extensions are read as text when their content is. The
** numeric values of TrnFileType are stored in the store file and the log, so they never change.
*/
#include "files.h"
#include "internal.h"

#include <cstring>

#include <strings.h>

namespace
{

/* ".bin" and ".wal" keep the engine's own store and log out of every index. ".svg" and ".plist"
** are text, yet their contents are markup noise for a meaning search, so they count as binary. */
const char *const binary_extensions[] = {
    ".png", ".jpg",        ".jpeg",  ".gif",    ".bmp",     ".ico",         ".icns",  ".tiff",
    ".tif", ".webp",       ".svg",   ".psd",    ".ai",      ".eps",         ".heic",  ".heif",
    ".raw", ".cr2",        ".nef",   ".o",      ".a",       ".so",          ".dylib", ".dll",
    ".lib", ".exe",        ".class", ".pyc",    ".pyo",     ".wasm",        ".zip",   ".tar",
    ".gz",  ".bz2",        ".xz",    ".7z",     ".rar",     ".dmg",         ".iso",   ".pkg",
    ".deb", ".rpm",        ".ttf",   ".otf",    ".woff",    ".woff2",       ".eot",   ".mp3",
    ".mp4", ".wav",        ".aac",   ".flac",   ".ogg",     ".avi",         ".mov",   ".mkv",
    ".wmv", ".m4a",        ".m4v",   ".sqlite", ".db",      ".bin",         ".dat",   ".wal",
    ".nib", ".storyboard", ".car",   ".plist",  ".strings", ".stringsdict", nullptr};

const char *const text_extensions[] = {".txt",
                                       ".rst",
                                       ".adoc",
                                       ".org",
                                       ".tex",
                                       ".text",
                                       ".log",
                                       ".csv",
                                       ".tsv",
                                       ".rtf",
                                       ".srt",
                                       ".ini",
                                       ".cfg",
                                       ".conf",
                                       ".env",
                                       ".properties",
                                       nullptr};

/* Both ".r" and ".R" stand here; with case-insensitive matching the second never decides
** anything, and it is kept so the table reads like the list of languages it was made from. */
const char *const source_extensions[] = {
    ".c",       ".h",     ".cpp",        ".hpp",   ".cc",    ".cxx",  ".m",
    ".mm",      ".swift", ".go",         ".rs",    ".py",    ".js",   ".ts",
    ".jsx",     ".tsx",   ".java",       ".kt",    ".scala", ".rb",   ".lua",
    ".sh",      ".zsh",   ".bash",       ".json",  ".xml",   ".yaml", ".yml",
    ".toml",    ".css",   ".scss",       ".less",  ".sql",   ".r",    ".R",
    ".pl",      ".pm",    ".zig",        ".nim",   ".v",     ".d",    ".cs",
    ".fs",      ".ex",    ".exs",        ".erl",   ".hs",    ".ml",   ".mli",
    ".lisp",    ".el",    ".clj",        ".cmake", ".make",  ".mk",   ".proto",
    ".graphql", ".gql",   ".dockerfile", ".tf",    ".hcl",   ".sdef", ".entitlements",
    ".hh",      ".hxx",   ".cp",         ".c++",   ".s",     ".asm",  ".php",
    ".csh",     ".ksh",   ".mjs",        ".y",     ".l",     nullptr};

const char *const binary_names[] = {".DS_Store", "Thumbs.db", ".gitkeep", nullptr};

const char *const text_names[] = {"Makefile",
                                  "Dockerfile",
                                  "Rakefile",
                                  "Gemfile",
                                  "Podfile",
                                  "Brewfile",
                                  "CMakeLists.txt",
                                  "LICENSE",
                                  "README",
                                  "CHANGELOG",
                                  "AUTHORS",
                                  "CONTRIBUTING",
                                  nullptr};

/* Case-sensitive membership, for the special base names. */
bool in_list_exact(const char *s, const char *const *list)
{
    for (int i = 0; list[i] != nullptr; i++) {
        if (strcmp(s, list[i]) == 0) {
            return true;
        }
    }
    return false;
}

bool starts_with(const unsigned char *b, const char *magic, size_t n)
{
    return memcmp(b, magic, n) == 0;
}

constexpr size_t SNIFF_BYTES = 512;

/* Classifies up to SNIFF_BYTES leading bytes of a file whose name said nothing. *unreadable is
** set when the file cannot be opened. */
TrnFileType sniff_content(const char *path, bool *unreadable)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        *unreadable = true;
        return TRN_FILE_TYPE_UNKNOWN;
    }
    unsigned char b[SNIFF_BYTES];
    size_t n = fread(b, 1, sizeof b, f);
    fclose(f);
    if (n < 4) {
        return TRN_FILE_TYPE_UNKNOWN;
    }
    if (starts_with(b, "\x89PNG", 4) || starts_with(b, "\xFF\xD8\xFF", 3)
        || starts_with(b, "GIF8", 4) || starts_with(b, "PK\x03\x04", 4)
        || starts_with(b,
                       "\x7F"
                       "ELF",
                       4)
        || starts_with(b, "\xCF\xFA\xED\xFE", 4) || starts_with(b, "\xFE\xED\xFA\xCF", 4)
        || starts_with(b, "\xCA\xFE\xBA\xBE", 4) || starts_with(b, "\x1F\x8B", 2)) {
        return TRN_FILE_TYPE_BINARY;
    }
    if (n >= 6 && starts_with(b, "RIFF", 4)) {
        return TRN_FILE_TYPE_BINARY;
    }
    if (n >= 8 && memcmp(b + 4, "ftyp", 4) == 0) {
        return TRN_FILE_TYPE_BINARY;
    }
    /* Tab, line feed, vertical tab, form feed, carriage return and escape occur in text; the
    ** other control bytes rarely do. Bytes >= 128 are accepted so UTF-8 text passes. */
    size_t suspicious = 0;
    for (size_t i = 0; i < n; i++) {
        unsigned char c = b[i];
        if (c == 0) {
            return TRN_FILE_TYPE_BINARY;
        }
        if ((c >= 1 && c <= 8) || (c >= 14 && c <= 26) || (c >= 28 && c <= 31)) {
            suspicious++;
        }
    }
    return suspicious > n / 4 ? TRN_FILE_TYPE_BINARY : TRN_FILE_TYPE_TEXT;
}

/* The type by name alone, or UNKNOWN when the name decides nothing. */
TrnFileType type_by_name(const char *path, const char *base, const char *ext)
{
    if (in_list_exact(base, binary_names)) {
        return TRN_FILE_TYPE_BINARY;
    }
    if (ext) {
        if (in_list_casecmp(ext, binary_extensions)) {
            return TRN_FILE_TYPE_BINARY;
        }
        if (strcasecmp(ext, ".pdf") == 0) {
            return TRN_FILE_TYPE_PDF;
        }
        if (strcasecmp(ext, ".html") == 0 || strcasecmp(ext, ".htm") == 0
            || strcasecmp(ext, ".xhtml") == 0 || strcasecmp(ext, ".shtml") == 0) {
            return TRN_FILE_TYPE_HTML;
        }
        if (strcasecmp(ext, ".docx") == 0) {
            return TRN_FILE_TYPE_DOCX;
        }
        if (strcasecmp(ext, ".odt") == 0) {
            return TRN_FILE_TYPE_ODT;
        }
        if (strcasecmp(ext, ".epub") == 0) {
            return TRN_FILE_TYPE_EPUB;
        }
        if (strcasecmp(ext, ".md") == 0 || strcasecmp(ext, ".markdown") == 0) {
            return TRN_FILE_TYPE_MARKDOWN;
        }
        if (in_list_casecmp(ext, text_extensions)) {
            return TRN_FILE_TYPE_TEXT;
        }
        if (in_list_casecmp(ext, source_extensions)) {
            return TRN_FILE_TYPE_SOURCE;
        }
    }
    (void)path;
    if (in_list_exact(base, text_names)) {
        return TRN_FILE_TYPE_TEXT;
    }
    return TRN_FILE_TYPE_UNKNOWN;
}

/* The extension of base (after its last "."), when it is one of the count extra extensions. */
bool is_extra(const char *base, const char *const *extra, int32_t count)
{
    const char *dot = strrchr(base, '.');
    if (!dot || !extra) {
        return false;
    }
    for (int32_t i = 0; i < count; i++) {
        const char *e = extra[i];
        if (e && e[0] == '.') {
            e++; /* ".org" is meant as "org" */
        }
        if (e && e[0] && strcasecmp(dot + 1, e) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

TrnFileType file_type_by_name(const char *path)
{
    if (!path) {
        return TRN_FILE_TYPE_UNKNOWN;
    }
    const char *slash = strrchr(path, '/');
    return type_by_name(path, slash ? slash + 1 : path, strrchr(path, '.'));
}

TrnFileType classify_file(const char *path, const char *const *extra, int32_t extra_count,
                          TrnFileStatus *status)
{
    TrnFileStatus ignored;
    if (!status) {
        status = &ignored;
    }
    *status = TRN_FILE_STATUS_INDEXABLE;
    if (!path) {
        *status = TRN_FILE_STATUS_UNREADABLE;
        return TRN_FILE_TYPE_UNKNOWN;
    }
    const char *ext = strrchr(path, '.');
    const char *slash = strrchr(path, '/');
    const char *base = slash ? slash + 1 : path;
    TrnFileType type = TRN_FILE_TYPE_UNKNOWN;
    if (!is_extra(base, extra, extra_count)) {
        type = type_by_name(path, base, ext);
    }
    if (type == TRN_FILE_TYPE_UNKNOWN) {
        bool unreadable = false;
        type = sniff_content(path, &unreadable);
        if (unreadable) {
            *status = TRN_FILE_STATUS_UNREADABLE;
        } else if (type == TRN_FILE_TYPE_UNKNOWN) {
            *status = TRN_FILE_STATUS_TOO_SHORT; /* fewer than 4 bytes */
        }
    }
    if (type == TRN_FILE_TYPE_BINARY) {
        *status = TRN_FILE_STATUS_BINARY;
    }
    return type;
}

int32_t in_list_casecmp(const char *s, const char *const *list)
{
    for (int i = 0; list[i] != nullptr; i++) {
        if (strcasecmp(s, list[i]) == 0) {
            return 1;
        }
    }
    return 0;
}

extern "C" {

TrnFileType trn_detect_file_type(const char *path)
{
    /* The dot is searched in the whole path, so "/a.b/README" has the extension ".b/README",
    ** which matches no table; such names fall through to the name list and sniffing. */
    return classify_file(path, nullptr, 0, nullptr);
}

int32_t trn_is_indexable(TrnFileType t)
{
    return t <= TRN_FILE_TYPE_EPUB ? 1 : 0;
}

const char *trn_file_type_name(TrnFileType t)
{
    switch (t) {
    case TRN_FILE_TYPE_TEXT:
        return "Text";
    case TRN_FILE_TYPE_PDF:
        return "PDF";
    case TRN_FILE_TYPE_HTML:
        return "HTML";
    case TRN_FILE_TYPE_SOURCE:
        return "Source";
    case TRN_FILE_TYPE_DOCX:
        return "DOCX";
    case TRN_FILE_TYPE_MARKDOWN:
        return "Markdown";
    case TRN_FILE_TYPE_ODT:
        return "ODT";
    case TRN_FILE_TYPE_EPUB:
        return "EPUB";
    case TRN_FILE_TYPE_BINARY:
        return "Binary";
    default:
        return "Unknown";
    }
}

const char *trn_file_status_name(TrnFileStatus s)
{
    switch (s) {
    case TRN_FILE_STATUS_INDEXABLE:
        return "Indexable";
    case TRN_FILE_STATUS_EXCLUDED:
        return "Excluded";
    case TRN_FILE_STATUS_TOO_LARGE:
        return "Too large";
    case TRN_FILE_STATUS_BINARY:
        return "Binary";
    case TRN_FILE_STATUS_NOT_UTF8:
        return "Not UTF-8";
    case TRN_FILE_STATUS_TOO_SHORT:
        return "Too short";
    case TRN_FILE_STATUS_UNREADABLE:
        return "Unreadable";
    default:
        return "Unknown";
    }
}

} /* extern "C" */
