/*
** tarnwick_files.h -- what the Tarnwick engine knows of a directory's files: their types, the
** walk's rules and its verdict on each file, and watching a directory for changes. Part of the
** public interface; tarnwick.h includes it: include that header, not this one.
*/
#ifndef TARNWICK_FILES_H
#define TARNWICK_FILES_H

#ifndef TARNWICK_H
#error "include tarnwick.h, which includes this header"
#endif

/* ---------------------------------------------------------------------------------------------
** File types
*/

/* The kind of a file. The values are stored in the store file and the log and never change.
** Values below 6, and ODT and EPUB, are indexable. */
typedef uint32_t TrnFileType;
enum {
    TRN_FILE_TYPE_TEXT = 0,
    TRN_FILE_TYPE_PDF = 1,
    TRN_FILE_TYPE_HTML = 2,
    TRN_FILE_TYPE_SOURCE = 3,
    TRN_FILE_TYPE_DOCX = 4,
    TRN_FILE_TYPE_MARKDOWN = 5,
    TRN_FILE_TYPE_ODT = 6,
    TRN_FILE_TYPE_EPUB = 7,
    TRN_FILE_TYPE_BINARY = 98,
    TRN_FILE_TYPE_UNKNOWN = 99
};

/* Classifies path by its base name, then its extension (case-insensitive, the last "." of the
** whole path), and only when neither decides by sniffing the first bytes of the file (at most
** 512: signatures of binary formats, a 0 byte, or more than a quarter control bytes make it
** binary, anything else text). Never fails: a file that cannot be read, or holds fewer than 4
** bytes, is TRN_FILE_TYPE_UNKNOWN. */
TRN_API TrnFileType trn_detect_file_type(const char *path);

/* Returns 1 when t is one of the indexable types (0 to 7), else 0. */
TRN_API int32_t trn_is_indexable(TrnFileType t);

/* Returns the static name of t: "Text", "PDF", "HTML", "Source", "DOCX", "Markdown", "ODT",
** "EPUB", "Binary", or "Unknown" for 99 and for every value not listed. Never NULL; never free
** it. */
TRN_API const char *trn_file_type_name(TrnFileType t);

/* ---------------------------------------------------------------------------------------------
** Files of a walk
*/

/* Why a file of a walk is, or is not, read for the index. The walk decides the first four from
** names, sizes and a file's first bytes; reading the text decides the last three. */
typedef uint32_t TrnFileStatus;
enum {
    TRN_FILE_STATUS_INDEXABLE = 0,  /* its text is read (and may still be one of the last three) */
    TRN_FILE_STATUS_EXCLUDED = 1,   /* an ignore rule or a hidden name; see the reason */
    TRN_FILE_STATUS_TOO_LARGE = 2,  /* larger than the walk's maximum file size */
    TRN_FILE_STATUS_BINARY = 3,     /* not text by its name or its first bytes */
    TRN_FILE_STATUS_NOT_UTF8 = 4,   /* no longer given: text in no charset counts as BINARY */
    TRN_FILE_STATUS_TOO_SHORT = 5,  /* fewer than TRN_TEXT_MIN_CHARS characters of text */
    TRN_FILE_STATUS_UNREADABLE = 6, /* cannot be opened, read or parsed */
    TRN_TEXT_MIN_CHARS = 11         /* characters other than white space */
};

/* Returns the static one-word name of s: "Indexable", "Excluded", "Too large", "Binary",
** "Not UTF-8", "Too short", "Unreadable", or "Unknown" for any other value. Never NULL. */
TRN_API const char *trn_file_status_name(TrnFileStatus s);

/* Which files of a directory are indexed. A null pointer to it, or zero members, mean the
 * defaults: no extra extensions, the default exclusion patterns (.git, node_modules,
 * __pycache__, build, dist, target, .venv) and TRN_FILE_SIZE_MAX. */
typedef struct TrnWalkOptions {
    const char *const *extra_extensions; /* without the dot, e.g. "org" */
    int32_t extra_extension_count;
    const char *const *exclude_patterns; /* gitignore syntax; replace the defaults when given */
    int32_t exclude_pattern_count;
    uint64_t max_file_size; /* bytes; 0 = TRN_FILE_SIZE_MAX */
} TrnWalkOptions;

typedef struct TrnFileInfo {
    char *path;           /* owned by the list */
    char *name;           /* points into path, after its last "/" */
    TrnFileType type;     /* the walk's classification (trn_detect_file_type with its options);
                             by the name alone for a file the walk did not read */
    int64_t size;         /* bytes, from stat */
    uint32_t chunk_count; /* live chunks of this file in the engine */
    uint8_t indexed;      /* 1 when chunk_count >= 1 */
    uint8_t is_dir;       /* 1 for an excluded or unreadable directory, reported once */
    uint8_t changed;      /* 1 when indexed and modified after the index was last written */
    TrnFileStatus status; /* the walk's verdict; trn_list_dir_files_ex also reads the text */
    char *reason;         /* owned; for EXCLUDED the rule, e.g. ".gitignore:3: build/"; for a
                             text cut at the size limit (_ex, files it read) says so; else "" */
    char encoding[32];    /* trn_list_dir_files_ex, for text, source, Markdown and HTML files that
                             give text: the charset they are read in, "UTF-8", or the one their
                             bytes were converted from ("Windows-1252", "ISO-8859-1", or the one
                             they declare, e.g. "KOI8-R"); else "" */
} TrnFileInfo;

typedef struct TrnFileList {
    TrnFileInfo *entries; /* count entries, owned */
    int32_t count;
} TrnFileList;

/* ---------------------------------------------------------------------------------------------
** Watching a directory for changes
**
** A watch is independent of any engine handle: its calls need no serialising with engine calls,
** only among themselves. It watches every directory the update's walk enters (inotify), and when
** the system's limit on watches (fs.inotify.max_user_watches) does not cover the tree, or
** inotify is missing, it falls back to comparing the sizes and times of every file each time it
** is asked. Changes inside the index directory ".tarnwick" never count.
*/
typedef struct TrnWatch TrnWatch; /* opaque */

/* Starts watching dir; directories that opts excludes (NULL: the defaults) are not watched, and
** opts is copied. Returns NULL when dir is not a directory; else a watch to close with
** trn_watch_close. */
TRN_API TrnWatch *trn_watch_open(const char *dir, const TrnWalkOptions *opts);

/* The descriptor that becomes readable when something changed (poll it for POLLIN), or -1 when
** the watch fell back to comparing: call trn_watch_changed every few seconds then. */
TRN_API int trn_watch_fd(const TrnWatch *w);

/* Returns 1 when something below dir changed since the last call (a file written, created,
** deleted or moved, a directory made or removed; new directories are watched from then on), 0
** when nothing did. Never blocks on events: it reads what is pending. In the comparing fallback
** it walks the tree (about 50 ms per 10,000 files). */
TRN_API int32_t trn_watch_changed(TrnWatch *w);

/* Stops watching and frees w. NULL is ignored. */
TRN_API void trn_watch_close(TrnWatch *w);

#endif /* TARNWICK_FILES_H */
