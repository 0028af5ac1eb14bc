/*
** files.h -- which files of a directory are read, and what text they hold: the one walk, the one
** classification and the one text extraction that every part of Tarnwick uses (the engine's
** update, ingestion and file listing, the application's training corpus, both builds of
** tarnwick-cli).
**
** Internal to the project (the static engine); not exported from libtarnwick.so. Plain C++ with
** function pointers; the template overload of walk_files takes any callable.
**
**   walk_files(root, opts, fn, user)        every file below root, with a verdict
**   classify_file(path, extra, &status)     the TrnFileType of one file (name, then content)
**   extract_file_text(path, type, max, &t)  its text as UTF-8, with PDF page starts
**
** A typical caller:
**
**     walk_files(root, &opts, [&](const WalkedFile &f) {
**         if (f.kind == WALK_FILE && f.status == TRN_FILE_STATUS_INDEXABLE) {
**             ExtractedText t;
**             if (extract_file_text(f.path, f.type, opts.max_file_size, &t)
**                 == TRN_FILE_STATUS_INDEXABLE) {
**                 ... t.text, t.length ...
**             }
**             extracted_text_free(&t);
**         }
**         return WALK_CONTINUE;
**     });
*/
#ifndef TRN_FILES_H
#define TRN_FILES_H

#include "tarnwick.h"

#include "alloc.h"

#include <vector>

#include <stddef.h>
#include <stdint.h>

/* ---------------------------------------------------------------------------------------------
** The walk (walk.cpp, ignore.cpp)
**
** Depth first, entries of a directory in name order (strcmp), so every caller sees the same
** order. Guarantees: a symbolic link to a directory is never entered; a link to a file is followed
** only when its resolved target lies inside the resolved root; every directory is entered at most
** once (by device and inode); the size is checked from stat before anything is read; paths longer
** than 1023 bytes are skipped.
**
** Exclusion, as git reads ignore files: the walk options' patterns (or the defaults) apply from
** the root with the lowest precedence, then ".gitignore" and ".tarnwickignore" of each directory
** from the root down (".tarnwickignore" after ".gitignore" of the same directory); the last
** pattern that matches decides, and a "!" pattern re-includes. An excluded directory is reported
** once and not entered, so nothing below it can be re-included (as in git). Names beginning with
** "." are excluded with the reason "hidden name"; the ignore files themselves are hidden. Index
** directories (".tarnwick") are skipped without a report.
*/

constexpr int TRN_WALK_MAX = 1024; /* bytes of a path built during a walk, with its NUL */

/* What one callback of walk_files is about. */
enum WalkKind : uint32_t {
    WALK_FILE = 0,      /* a regular file (or a link to one inside the root) */
    WALK_DIR = 1,       /* a directory that is not entered: EXCLUDED or UNREADABLE */
    WALK_DIR_ENTER = 2, /* the walk enters a directory below the root (status INDEXABLE) */
    WALK_DIR_LEAVE = 3, /* ... and leaves it again */
};

/* The answer of a walk callback. */
enum WalkAction : uint32_t {
    WALK_CONTINUE = 0,
    WALK_LEAVE_DIR = 1, /* skip the rest of the directory that holds this entry; for
                           WALK_DIR_ENTER: do not enter that directory */
    WALK_STOP = 2,      /* end the whole walk; walk_files returns 1 */
};

/* What a walk reports, and so what it reads. */
enum WalkScope : uint32_t {
    WALK_SCOPE_FILES = 0, /* every entry, each file classified (its first bytes read when its name
                             says nothing) */
    WALK_SCOPE_STAT = 1,  /* every entry, no file classified: type UNKNOWN and status INDEXABLE
                             unless EXCLUDED or TOO_LARGE */
    WALK_SCOPE_DIRS = 2,  /* the directories only: no file is reported */
};

struct WalkedFile {
    WalkKind kind;
    const char *path;     /* root + "/" + rel_path, as the walk built it; valid during the call */
    const char *rel_path; /* relative to the root, "/"-separated */
    int32_t depth;        /* directories between the root and this entry; 0 for the root's own */
    uint64_t size;        /* bytes, from stat (links followed) */
    int64_t mtime_ns;     /* modification time, nanoseconds since 1970 */
    uint64_t dev, ino;    /* identity, for telling a rename from a new file */
    /* For WALK_FILE: INDEXABLE (type is one of the indexable types), EXCLUDED, TOO_LARGE, BINARY,
    ** UNREADABLE, or TOO_SHORT for a file of fewer than 4 bytes whose name says nothing; the text
    ** is not read, so NOT_UTF8 and most TOO_SHORT verdicts come from extract_file_text. For
    ** WALK_DIR: EXCLUDED or UNREADABLE. */
    TrnFileStatus status;
    TrnFileType type;   /* TRN_FILE_TYPE_UNKNOWN unless the file was classified */
    const char *reason; /* for EXCLUDED: ".gitignore:3: build/", "sub/.tarnwickignore:1: *.log",
                           "global pattern node_modules", "hidden name"; else "" */
};

typedef WalkAction (*WalkFn)(const WalkedFile *f, void *user);

/* Walks root. opts NULL, or members left zero, select the defaults of TrnWalkOptions. Returns 0
** when the walk went through, 1 when the callback stopped it, -1 when root is not a readable
** directory (fn is not called then). */
int32_t walk_files(const char *root, const TrnWalkOptions *opts, WalkFn fn, void *user);

/* The same with any callable taking const WalkedFile & and returning WalkAction. */
template <typename Fn>
int32_t walk_files(const char *root, const TrnWalkOptions *opts, Fn &&fn)
{
    return walk_files(
        root,
        opts,
        [](const WalkedFile *f, void *user) {
            return (*static_cast<Fn *>(user))(*f);
        },
        static_cast<void *>(&fn));
}

/* A walk of the given scope below from, which is root or a directory inside it written as root
** + "/" + its relative path: the ignore files of the directories from root down to from apply as
** in a walk from root, and a from that such a walk would not enter (excluded, hidden, a link) is
** not walked. A from below root is itself reported first, as WALK_DIR_ENTER, and last, as
** WALK_DIR_LEAVE. Returns as walk_files does, and -1 when from does not lie inside root. */
int32_t walk_tree(const char *root, const char *from, WalkScope scope, const TrnWalkOptions *opts,
                  WalkFn fn, void *user);

/* The same with any callable taking const WalkedFile & and returning WalkAction. */
template <typename Fn>
int32_t walk_tree(const char *root, const char *from, WalkScope scope, const TrnWalkOptions *opts,
                  Fn &&fn)
{
    return walk_tree(
        root,
        from,
        scope,
        opts,
        [](const WalkedFile *f, void *user) {
            return (*static_cast<Fn *>(user))(*f);
        },
        static_cast<void *>(&fn));
}

/* The default exclusion patterns, and how many. */
extern const char *const WALK_DEFAULT_EXCLUDES[];
extern const int32_t WALK_DEFAULT_EXCLUDE_COUNT;

/* ---------------------------------------------------------------------------------------------
** Ignore patterns (ignore.cpp), gitignore syntax
*/

/* The patterns in force at one point of a walk: the global ones and those of the ignore files of
** every directory from the root down to the current one. */
struct IgnoreRules;

/* Rules holding the count global patterns (gitignore syntax, relative to the root). */
IgnoreRules *ignore_rules_new(const char *const *patterns, int32_t count);
void ignore_rules_free(IgnoreRules *r);
/* Reads ".gitignore" and ".tarnwickignore" of the directory at dir_path, whose path relative to
** the root is rel_dir ("" for the root), and adds their patterns. Missing files add nothing. */
void ignore_rules_push_dir(IgnoreRules *r, const char *dir_path, const char *rel_dir);
/* Drops the patterns of the last pushed directory. */
void ignore_rules_pop_dir(IgnoreRules *r);
/* The rule that excludes rel_path (relative to the root; is_dir for a directory) as its reason,
** e.g. ".gitignore:3: build/"; NULL when no rule matches or the deciding one re-includes. The
** string lives as long as the rule. */
const char *ignore_rules_match(const IgnoreRules *r, const char *rel_path, bool is_dir);

/* Matches text against a gitignore glob: "*" and "?" never match "/", "[...]" classes (with "!"
** or "^" negation and ranges), "\" escapes, "**" between slashes (or at either end) matches any
** number of directories. Returns true on a match. */
bool glob_match(const char *pattern, size_t pattern_len, const char *text, size_t text_len);

/* ---------------------------------------------------------------------------------------------
** Classification (filetype.cpp)
*/

/* The type of path: trn_detect_file_type's name rules, except that an extension listed in
** extra (count strings without the dot, matched case-insensitively) is read as Text when its
** content is text, whatever the tables say. Content is sniffed only when the name decides
** nothing. *status (may be NULL) gets INDEXABLE, BINARY, or UNREADABLE (cannot be opened, or
** too short to tell: fewer than 4 bytes). */
TrnFileType classify_file(const char *path, const char *const *extra, int32_t extra_count,
                          TrnFileStatus *status);

/* The type that path's name alone gives, without touching the file: TRN_FILE_TYPE_UNKNOWN when
** the name decides nothing (classify_file would sniff the content then). */
TrnFileType file_type_by_name(const char *path);

/* 1 when strcasecmp finds s equal to an entry of the NULL-terminated list, else 0. */
int32_t in_list_casecmp(const char *s, const char *const *list);

/* ---------------------------------------------------------------------------------------------
** Text extraction (extract.cpp, extract_pdf.cpp)
*/

struct ExtractedText {
    char *text;    /* xmalloc, NUL-terminated, valid UTF-8; NULL until extracted */
    size_t length; /* bytes of text without the NUL */
    /* PDF only: the byte offset in text where each page's text starts, after the form feed line
    ** that begins the page (page_count entries, in page order). NULL for other types. */
    uint64_t *page_starts;
    int32_t page_count;
    /* The charset the file's bytes were read in: "UTF-8", or the older one they were converted
    ** from (legacy_charset); "" for PDF, DOCX, ODT and EPUB, whose formats fix it. */
    char encoding[32];
    /* 1 when the text was cut at the size limit (extract_file_text's max_size). */
    uint8_t cut;
};

/* Reads the text of path as type says: Text, Source and Markdown as UTF-8 (a leading byte order
** mark dropped), or converted from an older charset when they are not UTF-8 (legacy_charset); HTML,
** converted the same way, as readable text (no markup, scripts or styles; entities decoded; block
** elements end lines); PDF through poppler, each page begun by a line holding a form feed alone;
** DOCX and ODT paragraphs as lines; EPUB the chapters of its spine in order, as HTML is, each
** member read once however often the spine names it. Files larger than max_size (0 =
** TRN_FILE_SIZE_MAX) are refused before reading; the text is cut at max_size bytes (out->cut), so
** memory stays near that size whatever the document. Returns INDEXABLE with *out filled, or
** TOO_LARGE, BINARY (type not indexable, or bytes that are text in no charset), TOO_SHORT (fewer
** than TRN_TEXT_MIN_CHARS characters other than white space) or UNREADABLE (also when the document
** needs more memory than there is: this file alone fails), with *out left empty. Free with
** extracted_text_free in every case. */
TrnFileStatus extract_file_text(const char *path, TrnFileType type, uint64_t max_size,
                                ExtractedText *out);

void extracted_text_free(ExtractedText *t);

/* Sets up libxml2's shared state, so that extract_file_text may run on several threads at once
** for any type but PDF (poppler's error hook is process-wide: PDF stays on one thread). Called on
** one thread before the others start; cheap after the first call. */
void extract_prepare_threads(void);

/* Strict UTF-8: no overlong forms, surrogates or values above U+10FFFF. */
bool valid_utf8(const unsigned char *s, size_t n);

/* Text that is not UTF-8 (encoding.cpp): the charset it declares in its first 1024 bytes (an XML
** declaration, an HTML meta element) when the system's iconv knows it and the bytes are valid in
** it, else Windows-1252, else ISO-8859-1; BINARY when the bytes hold more than one control
** character in a hundred. */
enum LegacyCharset { LEGACY_BINARY, LEGACY_DECLARED, LEGACY_CP1252, LEGACY_LATIN1 };
/* Decides the charset of n bytes and writes its name ("KOI8-R", "Windows-1252", "ISO-8859-1")
** into name (size bytes). */
LegacyCharset legacy_charset(const char *bytes, size_t n, char *name, size_t size);
/* The n bytes converted from charset (name as legacy_charset wrote it) into an xmalloc'd,
** NUL-terminated UTF-8 string of *out_len bytes. */
char *legacy_to_utf8(const char *bytes, size_t n, LegacyCharset charset, const char *name,
                     size_t *out_len);
/* The charset extract_file_text reads the file at path in (see ExtractedText), from its bytes
** alone, into name; false when it cannot be read or is text in no charset. Only for the types
** read as bytes: Text, Source, Markdown and HTML. */
bool file_charset(const char *path, uint64_t max_size, char *name, size_t size);

/* The readable text of an HTML document of n bytes (see extract_file_text). Returns an xmalloc'd
** string (never NULL; empty when nothing could be parsed) and its length in *out_len. */
char *html_to_text(const char *html, size_t n, size_t *out_len);

/* From byte offset on, the text html_to_text gives comes from the 1-based source line line. */
struct HtmlSourceBreak {
    size_t offset;
    int32_t line;
};
using HtmlLineMap = std::vector<HtmlSourceBreak, XAllocator<HtmlSourceBreak>>;
/* Reads the HTML file at path (at most TRN_FILE_SIZE_MAX bytes) as html_to_text does. Returns its
** text (xmalloc'd, its length in *len) and fills map with where the source line changes, in
** order of offset; NULL when the file cannot be read. map is left empty when the file has lines
** past 65535, which the parser does not number. */
char *html_text_with_lines(const char *path, size_t *len, HtmlLineMap *map);
/* The source line of the text's byte at offset, by map; 0 when map says nothing of it. */
int32_t html_source_line(const HtmlLineMap &map, size_t offset);

/* A heading of a DOCX, ODT or EPUB text: the line that starts at offset, at level (1 outermost). */
struct TextHeading {
    size_t offset;
    int32_t level;
};
using TextHeadings = std::vector<TextHeading, XAllocator<TextHeading>>;
/* Reads the DOCX, ODT or EPUB file at path (type) as extract_file_text does, at most
** TRN_FILE_SIZE_MAX bytes of text. Returns its text (xmalloc'd, its length in *len) and fills
** headings, in order of offset: DOCX paragraphs styled Heading N (level N) or given outline level
** n (level n + 1); ODT headings by their outline level; EPUB h1-h6. NULL when the file cannot be
** read. */
char *container_text_with_headings(const char *path, TrnFileType type, size_t *len,
                                   TextHeadings *headings);
/* The headings the line holding offset stands under, outermost first, each cut to a line and
** TRN_HEADING_PART_MAX bytes, joined by " \u203a " into out (size bytes, NUL-terminated). When
** they do not fit, the innermost ones are kept after a leading "\u2026 \u203a ". Returns the
** bytes written, 0 when no heading comes before offset. */
constexpr size_t TRN_HEADING_PART_MAX = 80;
size_t heading_path_at(const char *text, size_t len, const TextHeadings &headings, size_t offset,
                       char *out, size_t size);

/* How html_to_text reads an element, by its name in any case (NULL: inline): SKIPPED, its content
** is never text (script, style, svg, ...); BLOCK, it ends the line before and after it (p, div,
** li, h1-h6, br, ...); INLINE, its text runs on. The application's formatted reading of e-books
** counts lines by the same rule. */
enum HtmlElementKind { HTML_ELEMENT_INLINE, HTML_ELEMENT_BLOCK, HTML_ELEMENT_SKIPPED };
HtmlElementKind html_element_kind(const char *name);

/* The 1-based page of a PDF text that holds the 1-based line line_number: the page whose start
** offset is the last one at or before the line's first byte. 1 when there are no pages or
** line_number < 1. */
int32_t page_for_line(const ExtractedText *t, int32_t line_number);

/* Adds text, extracted from the file at path of type type, to the index as trn_ingest_text does,
** with type given instead of detected. Returns the chunks added, 0 for an empty text, -1 when the
** write failed (see trn_last_status). */
int32_t ingest_extracted_text(TrnEngine *e, const char *path, const char *text, size_t length,
                              TrnFileType type, int32_t chunk_size, int32_t overlap);

#endif /* TRN_FILES_H */
