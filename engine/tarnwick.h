/*
** tarnwick.h -- the public interface of the Tarnwick engine.
**
** The engine keeps the text of a directory's files as overlapping chunks, one 512-float unit
** vector per chunk from a small built-in transformer encoder, and an HNSW graph over the vectors,
** in a store file ("tarnwick.bin") and a write-ahead log ("tarnwick.wal") inside an index
** directory. It answers semantic, plain-text and regular-expression queries.
**
** This header is plain C99 and also compiles as C++. Records that cross it are standard layout
** with fixed-width fields, so any language with a C foreign-function interface can use it.
**
** Threads: all calls on one handle (and on one TrnEncoder) must be serialised by the caller, for
** example by one lock per handle; calls on different handles may run at the same time, since no
** handle shares state with another. Ingestion embeds a text's chunks on worker threads of its
** own, one per processor core (at most 8), each with its own scratch space, and joins them before
** it returns; the vectors are the same bits as embedding the chunks one after another. Because
** those workers already keep the cores busy, trn_open sets OpenBLAS to one thread for the whole
** process (openblas_set_num_threads(1)), so that matrix products never oversubscribe the cores.
**
** Privacy: the callers create the index directory with mode 0700 (the engine creates no
** directory), and every file the engine writes in it is created, or narrowed, to mode 0600.
**
** Memory: an allocation failure inside the engine prints one line to standard error
** ("tarnwick: OOM", or a sized variant in the encoder and tokenizer) and ends the process with
** exit status 1. No function returns an allocation error.
*/
#ifndef TARNWICK_H
#define TARNWICK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TRN_API __attribute__((visibility("default")))
#else
#define TRN_API
#endif

/* File types, the walk over a directory and watching it. */
#include "tarnwick_files.h"

/* The byte-pair tokenizer, the encoder and its weights file. */
#include "tarnwick_encoder.h"

/* ---------------------------------------------------------------------------------------------
** Engine handle
*/

typedef struct TrnConfig {
    const char *index_dir; /* directory of tarnwick.bin and tarnwick.wal; NULL or "": in memory */
    const char *weights_path; /* encoder weights file; NULL or "": the random encoder (seed 42) */
    int32_t dim;              /* floats per vector; 0 or less selects 512 */
    int32_t M;                /* graph neighbours per node per level; 0 or less selects 16 */
    int32_t ef_construction;  /* search width while inserting; 0 or less selects 100 */
    int32_t ef_search;        /* search width while querying; 0 or less selects 50 (semantic
                              ** searches walk at least 200 wide) */
} TrnConfig;

typedef struct TrnEngine TrnEngine; /* opaque */

/* The most marks a result's snippet carries. */
enum { TRN_RESULT_MARKS_MAX = 16 };
/* The most bytes of a result's heading_path, without its NUL. */
enum { TRN_HEADING_PATH_MAX = 255 };

/* One search hit. doc_id and file_path point into the engine and stay valid until the chunk is
** compacted away or the handle is closed; snippet and heading_path point into the engine's
** buffers and are overwritten by the next trn_search on the same handle. */
typedef struct TrnResult {
    const char *doc_id;    /* "<path>:<chunk ordinal>", at most 255 bytes */
    const char *file_path; /* may be NULL */
    const char *snippet;   /* at most 300 bytes of the chunk's text */
    float score;           /* larger is better */
    int32_t chunk_index;   /* 0-based ordinal of the chunk within its file */
    int32_t line_number;   /* 1-based line of the match (see trn_search) */
    uint32_t file_type;    /* TrnFileType */
    int32_t more_in_file;  /* TRN_SEARCH_BY_FILE: the file's other chunks that matched; else 0 */
    /* mark_count pairs of byte offsets (begin, end) into snippet, in order and apart: the query's
    ** words, or its match in text and regex searches. Points into the engine like snippet. */
    const uint16_t *marks;
    int32_t mark_count; /* 0 to TRN_RESULT_MARKS_MAX */
    /* PDF: the 1-based page of the match and its 1-based line on that page; both 0 for other
    ** types and for a PDF indexed before pages were marked in its text (update reads it again). */
    int32_t page;
    int32_t page_line;
    /* DOCX, ODT and EPUB: the headings the match stands under, outermost first, joined by
    ** " \u203a " ("Chapter 2 > Setup > Network" with that arrow), at most TRN_HEADING_PATH_MAX
    ** bytes; NULL for other types and text under no heading. Points into the engine as snippet
    ** does. */
    const char *heading_path;
} TrnResult;

typedef struct TrnStats {
    uint32_t chunk_count;   /* chunk slots in use, live and deleted */
    uint32_t file_count;    /* files in the document index, or live chunks with ordinal 0 */
    uint32_t deleted_count; /* chunks marked deleted */
    int32_t max_level;      /* top level of the graph, -1 when empty */
    int32_t dim;            /* floats per vector */
} TrnStats;

/* Called by trn_ingest_dir after each file with the running chunk count as both done and total.
** Returning false stops the walk of the current directory only. */
typedef bool (*TrnProgressFn)(const char *path, int32_t done, int32_t total, void *user);

/* Opens an engine on cfg->index_dir (which must exist; the engine never creates directories):
** maps the store file (whose vectors, and the word index file, are read when a search first needs
** them), replays the log and builds the document index unless the store holds it. A missing
** store or log is not an error. Prints "tarnwick: opened (N docs, dim=D)" and, when it builds
** it, "tarnwick: built doc index (N files)" while trn_set_verbose is on. The encoder and its
** weights (cfg->weights_path) are read at its first use, or by trn_prepare_encoder: then
** "tarnwick: loaded encoder weights from PATH" while trn_set_verbose is on, and weights that do
** not load are reported always ("tarnwick: using random encoder (no weights at PATH)"). A vector
** found damaged when it is read makes that search return nothing with trn_last_status
** TRN_STATUS_DAMAGED, and every later write fail with it. The graph's levels come
** from the handle's own generator, seeded from a constant and the number of chunks loaded, so
** the same operations build the same graph. Replaying the log embeds nothing (chunks logged
** without vectors wait for an update: trn_meaning_progress). Never returns NULL; close with
** trn_close. When the index is busy or damaged (see trn_open_ex) it prints the one
** line of trn_last_error and returns an empty handle whose writes all fail with that status.
**
** The index's files name a file below the index's folder (the parent of cfg->index_dir, made
** absolute from the working directory without resolving links) relative to that folder, and
** every other path as given. A handle opened on the index of a moved or copied folder therefore
** gives the files' paths at the folder's new place; results and doc ids always carry full
** paths. Files written by older versions, with every path whole, are read as they are and
** rewritten once by the next trn_update_dir or trn_checkpoint. */
TRN_API TrnEngine *trn_open(const TrnConfig *cfg);

/* Sets up e's encoder now instead of at its first use, reading the weights trn_open was given.
** Returns 1 when they were read or none were given; 0 when they could not be read (or e is NULL):
** e then embeds with the random encoder (seed 42), and only trn_encoder_load_weights's own line
** is printed, not the one a first use prints. */
TRN_API int32_t trn_prepare_encoder(TrnEngine *e);

/* ---------------------------------------------------------------------------------------------
** Sharing an index directory, crashes and damage
**
** The index directory must be the running user's own: a directory that is a symbolic link, belongs
** to another user or is writable by other users is refused (TRN_STATUS_DENIED), and no file in it
** is reached through a link. Beside the store and the log it holds "tarnwick.lock" (flock: many
** readers or one writer at a time) and "tarnwick.commit", a record that ties the store and the
** log's committed groups together (each by size and CRC-32). Every write is committed whole: a
** crash at any point leaves the state before or after the operation, and a store or committed log
** that was cut, changed or lost is refused (TRN_STATUS_DAMAGED), never read as a smaller index.
*Opening reads only: a handle that changed nothing leaves
** every file as it was, also at trn_close.
**
** Each operation locks on its own: loading takes the shared lock, each ingested file, removal,
** compaction and checkpoint the exclusive one. A handle that finds another process committed
** since it loaded reloads before it writes and at its next trn_search or trn_list_dir_files,
** which invalidates the pointers of earlier results. A lock held by another process is waited
** for TRN_BUSY_TIMEOUT_MS milliseconds; then the call fails with TRN_STATUS_BUSY. A writer that
** waits stops new readers from starting, so readers that keep coming never starve it.
*/

/* Status of the last failed call, from trn_last_status. */
enum {
    TRN_STATUS_OK = 0,
    TRN_STATUS_BUSY = 1,     /* another process held the index longer than the timeout */
    TRN_STATUS_DAMAGED = 2,  /* the store or log fails its checksum; nothing is written */
    TRN_STATUS_IO_ERROR = 3, /* a write or sync failed (a full disk): the operation is undone */
    /* the index directory is a symbolic link, another user's, writable by other users or
    ** unreadable; nothing in it is read or written */
    TRN_STATUS_DENIED = 4,
    TRN_BUSY_TIMEOUT_MS = 5000
};

/* Flags of trn_open_ex. */
enum {
    /* Loads nothing and writes nothing until trn_checkpoint, which replaces the directory's
    ** index with the handle's as one commit (moving a damaged index aside first), after taking
    ** up every file other handles committed meanwhile (their checkpoints leave the log to it
    ** until then). A handle closed before that leaves the old index as it was. Ingestion is
    ** not logged. */
    TRN_OPEN_REBUILD = 1
};

/* Opens an engine as trn_open does. Returns NULL, with *status (when status is not NULL) set to
** TRN_STATUS_BUSY, TRN_STATUS_DAMAGED or TRN_STATUS_DENIED and trn_last_error(NULL) saying why in
** one line, when the index is busy for longer than the timeout, damaged or denied; else the handle,
** with *status TRN_STATUS_OK. Prints nothing for those failures. flags: 0 or TRN_OPEN_REBUILD. The
** status and message of a failed open belong to the calling thread. */
TRN_API TrnEngine *trn_open_ex(const TrnConfig *cfg, uint32_t flags, int32_t *status);

/* TRN_STATUS_OK, or the status of the last call on e that failed: an ingestion returning -1, a
** removal returning -1, a checkpoint or compaction returning 0. A later call that succeeds
** clears it. With e NULL: the status of the last trn_open_ex of the calling thread that returned
** NULL. */
TRN_API int32_t trn_last_status(const TrnEngine *e);

/* One line without the "tarnwick: " prefix for the last failure that trn_last_status reports, or ""
** when there is none. Busy: "the index of DIR is busy: another Tarnwick is updating it"; damaged:
** "the index of DIR is damaged; rebuild it with tarnwick-cli index DIR"; I/O: "cannot write the
** index of DIR: <reason>"; denied: "the index folder DIR/.tarnwick <why>; <how to fix it>". DIR is
** the indexed directory (the parent of an index directory named ".tarnwick"). The text belongs to
** the engine (to the calling thread for e NULL) and stays until the next call on e (the thread's
** next trn_open_ex). */
TRN_API const char *trn_last_error(const TrnEngine *e);

/* Checkpoints when the handle holds anything the store does not (the lock permitting at once),
** then frees everything. A handle that changed nothing writes nothing; a rebuilding handle that
** was never checkpointed discards its work. NULL is ignored. */
TRN_API void trn_close(TrnEngine *e);

/* Writes the whole index to a new store file, commits it and empties the log. Writes nothing
** when the store already holds everything. Returns 1 on success or for an in-memory engine, 0
** when the index is busy, damaged or cannot be written (the previous store, log and commit
** record then stay as they were; see trn_last_error). */
TRN_API int32_t trn_checkpoint(TrnEngine *e);

/* Undoes what this handle logged since its last checkpoint, for a command that failed (a
** trn_checkpoint that could not write the store on a full disk): the log is cut back to where
** the handle's own groups began, so the index reads as its last checkpoint left it, without
** re-embedding them at every open, and the next trn_update_dir reads the files involved again.
** Only groups at the end of the log that nothing of another process follows are cut. Returns 1
** when groups were cut, 0 when there were none or they could not be (busy, another process wrote
** after them, the log could not be cut). The handle's status and message stay as they were. */
TRN_API int32_t trn_rollback(TrnEngine *e);

/* Returns 1 when another process committed to e's index since e last loaded or wrote it (a rebuild
** that replaced it included), or when e's last trn_update_dir, in its last comparison of the
** directory with the index, took up such a commit after comparing (an update then compares
** again), else 0, also for NULL or an in-memory or rebuilding handle. Reads only the commit
** record and the files' sizes, so it may be asked every few seconds. */
TRN_API int32_t trn_index_changed(const TrnEngine *e);

/* Turns the engine's informational lines on standard error ("opened", "built doc index", "loaded
** encoder weights") on (non-zero, the default) or off (0). Warnings and errors are printed either
** way. Process-wide, for every handle; may be called from any thread. */
TRN_API void trn_set_verbose(int32_t on);

/* Writes the one line that shows the progress of a long job over files into out (size bytes,
** always NUL-terminated when size > 0, cut to fit): "<verb> <done> of <found> files, <chunks>
** chunks", then ", <rate> chunks/s" (one decimal) once seconds > 0 and chunks > 0, then ", about
** <time> left" while 0 < done < found, taking the files to come as long as those done so far.
** <time> is as trn_duration_text writes it. With found < 1 no total is known: "<verb> <done>
** files, <chunks> chunks" and the rate, or "<verb>: looking for files..." while done < 1. verb
** starts the line ("Indexing"). Returns the length of the whole line. The application's status bar
** and tarnwick-cli print this same line. */
TRN_API int32_t trn_progress_text(const char *verb, int32_t done, int32_t found, uint32_t chunks,
                                  double seconds, char *out, size_t size);

/* The same line, with the time left taken from the bytes of the files instead of their count
** when bytes_all > 0: the bytes to come at the pace of the bytes_done done so far, so that a few
** large files at the end do not make the estimate wrong. trn_update_progress gives both. */
TRN_API int32_t trn_progress_line(const char *verb, int32_t done, int32_t found, uint32_t chunks,
                                  double seconds, uint64_t bytes_done, uint64_t bytes_all,
                                  char *out, size_t size);

/* While trn_update_dir runs on e (from its progress callback): the bytes of the files it has
** read or removed so far into *done and of all it will handle into *all (sizes as the walk found
** them). Both 0 before and after a trn_update_dir. Either pointer may be NULL. */
TRN_API void trn_update_progress(const TrnEngine *e, uint64_t *done, uint64_t *all);

/* Live chunks with their vector into *done, all into *all (either may be NULL): semantic and
** hybrid search leave out the others (trn_update_dir). Returns 1 while trn_update_dir on e is in
** its meaning phase (from its progress callback), else 0. */
TRN_API int32_t trn_meaning_progress(const TrnEngine *e, uint64_t *done, uint64_t *all);

/* As trn_progress_line for the meaning phase: "words: all <files> files · meaning: <p>%" (p
** rounded down; no words part if files < 1), ", about <time> left" at done - done_at_start per
** seconds. */
TRN_API int32_t trn_meaning_line(int32_t files, uint64_t done, uint64_t all, uint64_t done_at_start,
                                 double seconds, char *out, size_t size);

/* Writes a duration rounded for people into out as trn_progress_text does: "12 s" (at least 1),
** "4 min" below an hour (to the nearest minute), else "1 h 05 min". Returns the length. */
TRN_API int32_t trn_duration_text(double seconds, char *out, size_t size);

/* Returns the static version string "1.23.0". */
TRN_API const char *trn_version(void);

/* The largest file ingestion reads, 20 MiB: a larger one is skipped on its size alone, before
** any byte of it is read (no text file a person keeps is this large; a log or a data dump is). */
enum { TRN_FILE_SIZE_MAX = 20 * 1024 * 1024 };

/* The chunking that the engine's callers accept from a user: chunk sizes from TRN_CHUNK_SIZE_MIN
** to TRN_CHUNK_SIZE_MAX bytes, overlaps from 0 to half the chunk size, so that every window
** moves on by at least half a chunk. The ingestion functions themselves take any pair. */
enum { TRN_CHUNK_SIZE_MIN = 64, TRN_CHUNK_SIZE_MAX = 65536 };

/* Says whether chunk_size and overlap are within the limits above. Returns 1 when they are
** (message is then the empty string), else 0 with a one-line reason without trailing newline in
** message, cut to size bytes including the NUL (nothing is written when message is NULL or size
** is 0). */
TRN_API int32_t trn_check_chunking(int32_t chunk_size, int32_t overlap, char *message, size_t size);

/* Cuts text into overlapping windows, embeds each, appends them to the log as one group that is
** synced, then links them into the graph. Every byte of the text is in at least one window:
**
**   - a text of at most chunk_size bytes is one window;
**   - otherwise a window ends at most chunk_size bytes after its start, at the last line break
**     within the slack (an eighth of chunk_size, at most 64 bytes) before that limit, else at the
**     last space or tab there, else at the limit moved back to the start of a UTF-8 character;
**   - the next window starts overlap bytes before the end of the previous one, moved back the same
**     way to a line, word or character start, and always at least one byte after the previous
**     start (an overlap of chunk_size or more steps one character);
**   - when the rest of the text from there fits in one window, the last window ends at the end of
**     the text and starts at the first line, word or character start at or after
**     strlen(text) - chunk_size, so it is nearly a full window.
**
** A window therefore never splits a character of valid UTF-8, and the keyword index and every
** search mode see exactly these chunks. The file type comes from trn_detect_file_type(path).
** Returns the number of chunks added, 0 for an empty text, -1 when path or text is NULL or the
** write failed (busy, damaged, I/O: see trn_last_status; nothing was added then). */
TRN_API int32_t trn_ingest_text(TrnEngine *e, const char *path, const char *text,
                                int32_t chunk_size, int32_t overlap);

/* Reads the text of the file at path as the application does (text and source as UTF-8, or from
** an older charset: the one declared in an XML or HTML head, else Windows-1252 or ISO-8859-1;
** HTML as readable text; PDF through poppler; DOCX, ODT and EPUB from their XML) and ingests it as
** trn_ingest_text does. Returns the chunks added, 0 when not indexable or too little text, -1 when
** its text cannot be obtained (binary, unreadable, damaged), too large, or the write failed. */
TRN_API int32_t trn_ingest_file(TrnEngine *e, const char *path, int32_t chunk_size,
                                int32_t overlap);

/* Walks dir recursively with the default TrnWalkOptions and ingests every indexable regular
** file. Hidden names (beginning with ".") are skipped, and so is what the default exclusion
** patterns, ".gitignore" and ".tarnwickignore" files exclude; a symbolic link to a file is
** followed only when its resolved target lies inside dir, a link to a directory is never entered
** (the directory is reached under its own name), and every directory is entered once (by device
** and inode), so link loops end and nothing outside dir is read. cb may be NULL; when it returns
** false the walk leaves the directory of that file and goes on with the rest. Returns the chunks
** added in the whole tree, or -1 when dir cannot be opened or a write failed (the walk stops
** there; see trn_last_status). */
TRN_API int32_t trn_ingest_dir(TrnEngine *e, const char *dir, int32_t chunk_size, int32_t overlap,
                               TrnProgressFn cb, void *user);

/* What one trn_update_dir did, in files (and chunks added). */
typedef struct TrnUpdateReport {
    int32_t added;     /* indexed for the first time */
    int32_t changed;   /* indexed again because their text changed (old chunks replaced) */
    int32_t removed;   /* chunks removed: deleted, excluded, too large or binary now */
    int32_t unchanged; /* left alone (not read unless their size or times changed) */
    int32_t failed;    /* could not be read; chunks they had stay, the next update tries again */
    int32_t chunks_added;
    uint8_t compacted; /* 1 when deleted chunks passed TRN_UPDATE_COMPACT_PERCENT */
    uint8_t cancelled; /* 1 when progress returned false */
} TrnUpdateReport;

/* An update compacts (trn_compact) once deleted chunk slots are more than this share of all
** slots: below it, dead slots cost searches little; above it they cost memory, store size and
** graph quality. A quarter keeps the store at most a third larger than its live chunks. */
enum { TRN_UPDATE_COMPACT_PERCENT = 25 };

/* Brings the index up to date with dir, as every indexing should (a first indexing is the update
** of an empty index): walks dir with opts (NULL: the defaults), ingests the files that are new,
** replaces the chunks of files whose text changed, removes the chunks of files that are gone,
** excluded, too large or binary now, and leaves the rest alone, then rebuilds the document
** index and compacts as TRN_UPDATE_COMPACT_PERCENT says. Files are classified as
** trn_detect_file_type does (extra extensions are text when their first bytes look like text);
** a text, source or Markdown file with a 0 byte in its first 8 KiB or in no known charset counts
** as binary, and a text shorter than 11 bytes gives no chunks.
**
** Which files changed comes from the manifest "tarnwick.files" in the index directory: each
** file's size, modification and change times (nanoseconds), inode, type, chunk count and a hash
** of its text. A file whose entry matches is not read; one whose times changed but whose text
** hashes the same is read but not embedded again. An entry is trusted only when the index still
** holds that many chunks of the file, so a missing, damaged or stale manifest (a crash, another
** program's rebuild) costs reading and embedding, never lost or doubled chunks. An index whose
** manifest was written by a version that read or cut text another way is read, cut and embedded
** again whole by its next update. Each file's old
** chunks and new ones are replaced in one logged group; the manifest is written atomically (mode
** 0600) every few seconds and at the end, only when it changed. A kill at any moment loses no
** file whose group was logged; the next update finishes the rest.
**
** Words first: every file's chunks are committed without vectors, so keyword, text and regex search
** are complete early; then the meaning phase embeds every chunk still without its vector, in logged
** groups. A kill in either loses no group; the next update goes on. progress (may be NULL) is
** called with path NULL and done 0 once the walk found the work (total: files to read or remove),
** then after each of them with its path; in the meaning phase (while trn_meaning_progress returns
** 1) with path NULL before the first group and after each, done and total being the embedded and
** all live chunks. Returning false stops after the current file or group (what was done is kept,
** report->cancelled set). Between them the handle is whole, so progress may call trn_search,
** trn_stats, trn_meaning_progress and trn_list_dir_files on e (an application keeps searching
** during a long update that way), but no other function on e. report may be NULL; it is filled in
** as the update goes. On a handle opened with TRN_OPEN_REBUILD the update ends with trn_checkpoint
** (the rebuilt index replaces the old one) unless it was cancelled or failed. Returns the chunks
** added, or -1 when dir cannot be opened or a write failed (it stops there; trn_last_status).
**
** Paths in the index are dir, "/" and the path below it, as given: pass dir the same way (the
** application and tarnwick-cli pass it absolute and resolved) or files are indexed twice. After
** the folder holding the index was moved, its files keep their chunks: an update reads none
** that mv left as it was, and embeds no chunk whose text it already holds.
**
** When the update takes up another process's commit after it compared the directory with the
** index (a rebuild that swapped in what it read before a file was deleted), it compares again,
** three times in all at most; progress then starts again, and report adds up the passes (the
** unchanged files are the first pass's, the failed ones the last's). */
TRN_API int32_t trn_update_dir(TrnEngine *e, const char *dir, int32_t chunk_size, int32_t overlap,
                               const TrnWalkOptions *opts, TrnProgressFn progress, void *user,
                               TrnUpdateReport *report);

/* Rebuilds the per-file index (one unit centroid per file of live chunks) that narrows semantic
** searches. Returns the number of files, 0 when there are none. */
TRN_API int32_t trn_build_doc_index(TrnEngine *e);

/* Frees the per-file index; semantic searches then search all chunks. */
TRN_API void trn_free_doc_index(TrnEngine *e);

/* Marks every live chunk of path deleted, logs the removal (synced) and returns how many were
** marked (0 for an unknown path), or -1 when the write failed (nothing was removed then).
** Rebuilds the graph when more than half of all chunk slots are deleted. */
TRN_API int32_t trn_remove_file(TrnEngine *e, const char *path);

/* Drops deleted chunks (renumbering the rest), rebuilds the graph and the document index and
** checkpoints. Returns the checkpoint's result (1 without a checkpoint for a rebuilding handle).
** Invalidates every pointer of earlier results. */
TRN_API int32_t trn_compact(TrnEngine *e);

/* Returns the engine's counts as last loaded (it does not look for other processes' commits). */
TRN_API TrnStats trn_stats(const TrnEngine *e);

/* Lists every regular file under dir that the walk of trn_ingest_dir reads (whatever its size,
** excluded names left out) with its type, size and, when e is not NULL, its live chunk count;
** status is TOO_LARGE, BINARY or INDEXABLE (the text is not read). Costs the files plus the
** chunks. Never returns NULL (a directory that cannot be opened gives an empty list); free with
** trn_free_file_list. */
TRN_API TrnFileList *trn_list_dir_files(TrnEngine *e, const char *dir);

/* Lists every file under dir as the walk of the given options sees it, with a verdict for each:
** excluded ones (a directory that is excluded is one entry, with is_dir set, and is not entered),
** too large, binary, and for the indexable ones that hold no chunk the outcome of reading their
** text (NOT_UTF8, TOO_SHORT, UNREADABLE, or INDEXABLE when they give text), and when e is not
** NULL the live chunk counts. opts NULL selects the defaults (see TrnWalkOptions). Reads the
** indexable files the index holds nothing of, so it is slower than trn_list_dir_files. Never
** returns NULL (a directory that cannot be opened gives an empty list); free with
** trn_free_file_list. The one listing both tarnwick-cli's files and the application show. */
TRN_API TrnFileList *trn_list_dir_files_ex(TrnEngine *e, const char *dir,
                                           const TrnWalkOptions *opts);

/* Frees a list from trn_list_dir_files or trn_list_dir_files_ex. NULL is ignored. */
TRN_API void trn_free_file_list(TrnFileList *list);

/* Search modes of trn_search. The values never change. */
enum {
    TRN_SEARCH_SEMANTIC = 0,
    TRN_SEARCH_TEXT = 1,
    TRN_SEARCH_REGEX = 2,
    TRN_SEARCH_KEYWORD = 3,
    TRN_SEARCH_HYBRID = 4,
    TRN_SEARCH_SEMANTIC_ALL = 5
};

/* Searches the index and writes at most min(k, 64) records to results, best first; returns how
** many. 0 for an unknown mode, k < 1, an empty index or an invalid expression. By mode:
**
** TRN_SEARCH_SEMANTIC: nearest chunks by embedding, narrowed to the ten files whose centroids
**   are closest when two or more files are indexed; at most max(ef_search, 200) hits. score:
**   the dot product of the query's and the chunk's unit vectors (-1..1).
** TRN_SEARCH_TEXT: chunks holding the query as an ASCII case-insensitive substring; a query of
**   white space only finds nothing.
** TRN_SEARCH_REGEX: chunks matching the query as a POSIX extended expression, ignoring case,
**   leftmost-longest, in time linear in each chunk (see trn_check_regex).
**   Text and regex hits come in chunk order with scores 1, 1 - 1/k, 1 - 2/k, ...
** TRN_SEARCH_KEYWORD: chunks ranked by BM25 (k1 1.2, b 0.75) over their words. Words are
**   letters and digits, case-folded for Latin, Greek and Cyrillic scripts; identifiers also count
**   by their parts, so "read file" finds readFileSync and read_file_sync; an English word counts
**   by its stem, one common ending taken off, so "reading files" finds "reads a file" (and marks
**   "reads" and "file"). score: the BM25 sum
**   (above 0, unbounded). Chunks with none of the query's words are not returned. The word index
**   is kept in "tarnwick.lex" in the index directory, written after each checkpoint and read by
**   trn_open; without a valid one the first keyword or hybrid search builds it from the chunk
**   texts (about 5 s per 100,000 chunks). Every search brings it up to date.
** TRN_SEARCH_HYBRID: words and meaning together, the default. The keyword ranking (100 deep)
**   and the semantic ranking over every file (ef_search deep, at least 50 and at least k); every
**   chunk of either is scored by (1 - s) * its BM25 score / the best BM25 score + s * its
**   nearness, where nearness places the chunk's cosine between the semantic ranking's last (0)
**   and first (1), clamped to 0..1, and a chunk outside the keyword ranking has BM25 0. The share
**   s follows how well the words were found, the coverage: the mean of the best BM25 score over
**   the query's own (the sum of its words' idf, a word no chunk holds at the highest) and the
**   share of that sum held by the words that the first ten keyword hits hold between them; s is
**   0.2 at coverage 0.6 and above, so that words lead, 1 at 0.4 and below, where meaning alone
**   answers a question put in other words than its answer's, and linear between. score: 0 to 1.
** TRN_SEARCH_SEMANTIC_ALL: as TRN_SEARCH_SEMANTIC without the narrowing to ten files, searched
**   with a width of at least min(k, 64), so up to min(k, 64) hits. score: the dot product.
**
** Narrowing: words of the query may narrow the search instead of being searched for, in every
** mode (trn_query_words splits a query as the search does):
**   "a phrase"        chunks holding these words in this order, as whole words, ignoring ASCII
**                     case and with any white space between them; the words are also searched
**                     for. Inside quotes nothing else below applies.
**   -word, -"a b"     chunks holding the word (or phrase), as above, are left out. A query of
**                     such words alone is searched for as typed ("-Wall" in text mode).
**   type:pdf,docx     files of these kinds (the names of trn_file_type_name, any case); a name
**                     that is no kind counts as an extension, so type:md is ext:md
**   ext:md,txt        files whose name ends in one of these extensions (any case)
**   in:sub/folder     files below this folder of the indexed directory (the parent of the index
**                     directory ".tarnwick"; "/" for an in-memory engine), or below an absolute
**                     path; in:"two words" for a name with spaces. Of several, the last counts.
**   modified:V        files whose modification time (local time) lies in V: a day 2024-01-31, a
**                     month 2024-01 or a year 2024 (that whole span), >D (after its span), >=D
**                     (from its start), <D (before its start), <=D (up to its end), a range
**                     A..B (from A's start to B's end) or A.. or ..B.
** The keys (type, ext, in, modified) are read in any case. The rest of the query, quotes
** removed, is searched for in the mode; when nothing narrows, the whole query is, exactly as
** given. A query of narrowing words alone returns the chunks they leave in, in index order,
** scored as text hits. A narrowed semantic or hybrid ranking compares the query with every chunk
** left in instead of walking the graph (semantic mode is then not narrowed to ten files). The
** line of a match and the marks below go by what is searched for, never by narrowing or left-out
** words. A modified: value that is no date makes the search return 0; trn_check_query says why.
**
** The line of a result is the line of its match: for text and regex searches the match; for
** keyword and hybrid searches the first query word, not a stop word, of the 225 bytes of the chunk
** where the query's words are densest; for semantic searches (and a hybrid hit that holds no query
** word but stop words) the first query word of the chunk's sentence that holds the most distinct
** query words, else the chunk's first word. In an HTML file it is the line of the file's source
** on which that text stands (the file is read again for it; the line of its text when that
** fails). In a PDF it is also given as a page and a line on that page (page, page_line), from
** the form feed lines that begin each page of its text. Under a DOCX, ODT or EPUB heading,
** heading_path names the headings above the match's line (DOCX paragraphs styled Heading 1-9 or
** given an outline level, ODT headings, EPUB h1-h6), from the file read again; NULL when it
** cannot be read. Stop words are common English words ("the", "in", "how"), unless the query has
** nothing else.
**
** Snippets hold at most 300 bytes of the chunk around that match: they start at the first line
** start among the 75 bytes before it, else at the first word start there (at the chunk's start
** for a match in its first 76 bytes), and end before a space or line break among their last 60
** bytes, else at a character start. marks lists the query's words in the snippet (stop words
** only when the query has nothing else), every occurrence of a text query, or the match of a
** regular expression. */
TRN_API int32_t trn_search(TrnEngine *e, const char *query, int32_t mode, int32_t k,
                           TrnResult *results);

/* Says whether the word of len bytes (lower case) is one of the common English words that
** trn_search never marks on their own ("a", "the", "how", ...), so front ends that mark matches
** themselves leave out the same ones. Returns 1 or 0. */
TRN_API int trn_is_stop_word(const char *word, size_t len);

/* Takes the word of len bytes (lower case) down, in place, to the stem that keyword search reads
** it as: one common English ending off, so "reads" and "reading" give "read". A word that is not
** three or more letters a to z stays as it is. Returns the stem's length. */
TRN_API size_t trn_stem_word(char *word, size_t len);

/* Flags of trn_search_ex. */
enum {
    /* One result per file: the file's best chunk by the mode's ranking, with more_in_file
    ** counting the file's other chunks among those the search ranked: for text, regex and
    ** keyword searches the first 1024 matching chunks, for hybrid the first 200 of its fused
    ** ranking; for semantic ones the file's chunks at least as near to the query as the last of
    ** the graph's nearest min(4 k, 256) (at least 200 and ef_search), by exact nearness, so they
    ** are the ones trn_search_file opens. A chunk without a path is a file of its own.
    ** Near-duplicate chunks of one file (windows overlap) thus never take two results. Text and
    ** regex scores go by result: 1, 1 - 1/k, ... */
    TRN_SEARCH_BY_FILE = 1
};

/* As trn_search, laid out as flags say (0: as trn_search, one result per chunk). Writes at most
** min(k, 64) records to results, best first, and returns how many; 0 in the cases trn_search
** returns 0. */
TRN_API int32_t trn_search_ex(TrnEngine *e, const char *query, int32_t mode, int32_t k,
                              uint32_t flags, TrnResult *results);

/* The chunks of one file that trn_search_ex (flags 0) would find in mode if the index held that
** file alone: at most min(k, 64) records, best first, each chunk once; how many. path is the
** file's path as results give it (TrnResult.file_path). Narrowing words apply as in trn_search.
** 0 when path is NULL or names no file of the index, and as trn_search says. Text, regex and
** keyword searches give exactly the file's chunks that match; semantic and hybrid ones rank
** every chunk of the file by its nearness to the query, so k decides how many come back. What
** "n more in this file" opens: with k = n + 1, its first record is the file's row. */
TRN_API int32_t trn_search_file(TrnEngine *e, const char *query, int32_t mode, const char *path,
                                int32_t k, TrnResult *results);

/* Searches count indexes (the folders a person has open) as one, as trn_search_ex searches one
** with flags (by file: one result per file of any of them), and writes at most min(k, 64) records
*to results, best first, and for each the position in engines
** of the index it came from to origins (count entries); returns how many. 0 as trn_search says,
** and when engines or origins is NULL, count < 1 or an engine is NULL. The scores compare across
** the indexes: semantic ones are dot products; keyword ones are BM25 over the word counts of all
** the indexes together, so a chunk scores as it would in one index of every folder; hybrid mode
** fuses the keyword ranking of all of them with their semantic ranking (each merged by score) as
** it fuses one index's. Text and regex hits, and narrowing words alone, have only their place:
** the indexes take turns (the first hit of each in the order given, then the second, ...), scored
** 1, 1 - 1/k, ... as trn_search scores them. Narrowing words apply to each index, in: below its
** own folder. A record's pointers point into the engine it came from, as trn_search says; calls
** on any of the engines must be serialised with this one. */
TRN_API int32_t trn_search_many(TrnEngine *const *engines, int32_t count, const char *query,
                                int32_t mode, int32_t k, uint32_t flags, TrnResult *results,
                                int32_t *origins);

/* What a word of a query does in trn_search (see Narrowing there). The values never change. */
typedef uint32_t TrnQueryWordKind;
enum {
    TRN_QUERY_WORD_TERM = 0,     /* searched for */
    TRN_QUERY_WORD_PHRASE = 1,   /* "a phrase": searched for and required */
    TRN_QUERY_WORD_EXCLUDED = 2, /* -word: chunks holding it are left out */
    TRN_QUERY_WORD_TYPE = 3,     /* type:... */
    TRN_QUERY_WORD_EXT = 4,      /* ext:... */
    TRN_QUERY_WORD_FOLDER = 5,   /* in:... */
    TRN_QUERY_WORD_MODIFIED = 6  /* modified:... */
};

/* One word of a query, in bytes of the query's text. */
typedef struct TrnQueryWord {
    int32_t start;        /* offset of the word's first byte */
    int32_t length;       /* bytes of the whole word, quotes and key included */
    int32_t value_start;  /* offset of what follows "key:", "-" or the opening quote */
    int32_t value_length; /* bytes of it (a phrase's closing quote not included); it may hold
                             double quotes, which the search ignores */
    TrnQueryWordKind kind;
} TrnQueryWord;

/* Splits query as trn_search does: a word is a run of bytes without white space outside double
** quotes (so in:"my notes" and "a phrase" are one word each). Writes the first min(count, max)
** words to words (which may be NULL when max is 0) and returns how many words the query holds,
** 0 for a NULL or blank query. Front ends use it to edit a query's narrowing words in place. */
TRN_API int32_t trn_query_words(const char *query, TrnQueryWord *words, int32_t max);

/* Says whether trn_search can run query in mode, without an engine: its modified: values are
** dates and, in TRN_SEARCH_REGEX, what is searched for compiles (as trn_check_regex says).
** Returns 1 when it can (message is then the empty string); 0 when it cannot, or when query is
** NULL, with a one-line reason without trailing newline in message, cut to size bytes including
** the NUL (nothing is written when message is NULL or size is 0). */
TRN_API int32_t trn_check_query(const char *query, int32_t mode, char *message, size_t size);

/* Says whether pattern compiles for TRN_SEARCH_REGEX, without an engine. Returns 1 when it does
** (message is then the empty string); 0 when it does not, or when pattern is NULL, with a
** one-line reason without trailing newline in message, cut to size bytes including the NUL
** (nothing is written when message is NULL or size is 0). Patterns use POSIX extended syntax
** matched case-insensitively, '.' also matching a line feed, '^' and '$' only at the ends of a
** chunk, with \w, \s, \d and \b accepted. Refused: back-references (\1 to \9), which cannot
** run in time linear in the text, groups nested more than 100 deep, repetition counts above
** 1000 and patterns whose compiled form would exceed a few megabytes. */
TRN_API int32_t trn_check_regex(const char *pattern, char *message, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* TARNWICK_H */
