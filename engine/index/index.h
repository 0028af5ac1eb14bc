/*
** index.h -- how chunks get into the handle: ingestion (ingest.cpp), removal and counts by file
** (docindex.cpp) and the update of a directory (update.cpp).
*/
#ifndef TRN_INDEX_H
#define TRN_INDEX_H

#include "tarnwick.h"

#include "alloc.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/* ---------------------------------------------------------------------------------------------
** Ingestion (ingest.cpp)
*/
void ensure_cap(TrnEngine *e, uint64_t n);
/* Frees what slot holds (text, path, graph links) and zeroes its records. */
void chunk_slot_clear(TrnEngine *e, uint64_t slot);
/* Clears every slot in use: the tables stay allocated, the handle holds no chunk. */
void chunks_clear(TrnEngine *e);
void add_doc_mem(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type);
/* As add_doc_mem with the vector already embedded and normalised (dim floats). */
void add_doc_vec(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type, const float *v);
/* As add_doc_mem without a vector: the chunk is pending (handle.h), outside the graph. */
void add_doc_pending(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                     int32_t chunk_index, int32_t line_number, uint32_t file_type);
/* Gives the pending chunks in slots their vectors (each the bytes of dim floats, normalised, at
** any alignment) and links them into the graph in that order (hnsw_insert_many). */
void set_chunk_vectors(TrnEngine *e, const uint32_t *slots, const void *const *vectors,
                       size_t count);
/* As set_chunk_vectors for one chunk of a log being replayed, whose linking waits for
** link_replayed: a reader that only searches never pays for it. */
void set_replayed_vector(TrnEngine *e, uint64_t slot, const void *v);
/* Links the chunks set_replayed_vector left out of the graph, in the order they were set. */
void link_replayed(TrnEngine *e);
/* Draws a graph level from the generator at *state (splitmix64): floor(-ln(u) * level_mult)
** clamped to 0..31, u uniform in (0, 1]. */
int32_t draw_level(uint64_t *state, float level_mult);
/* Marks the live chunks of path deleted (rebuilding the graph when more than half of the slots
** are deleted) and returns how many; writes nothing. */
int32_t remove_file_mem(TrnEngine *e, const char *path);
/* Number of live chunks of path. */
int32_t count_file_chunks(const TrnEngine *e, const char *path);
/* Bytes [begin, end) of a text: one window that becomes a chunk. */
struct TextWindow {
    int64_t begin;
    int64_t end;
};
using TextWindows = std::vector<TextWindow, XAllocator<TextWindow>>;
/* Cuts length bytes of text into the windows that ingestion makes chunks of, in order (the rule
** is at the head of ingest.cpp): none for an empty text or a chunk_size below 1. */
void cut_windows(const char *text, int64_t length, int32_t chunk_size, int32_t overlap,
                 TextWindows *out);
int32_t chunk_and_ingest(TrnEngine *e, const char *path, const char *text, int64_t length,
                         int32_t chunk_size, int32_t overlap, TrnFileType type);
/* A window of a file's text, cut and waiting to be logged. */
struct CutChunk {
    char *text; /* owned */
    int32_t line_number;
};
/* A file's text cut into chunks (cut_file), waiting to be logged with other files' as one group
** (store_cut_files). */
struct CutFile {
    const char *path = nullptr; /* the caller's */
    uint32_t type = 0;
    bool held_none = false; /* the caller knows the index held no chunk of path */
    size_t text_bytes = 0;
    std::vector<CutChunk, XAllocator<CutChunk>> chunks;
    int32_t stored = 0; /* after store_cut_files: the chunks the index holds of path */

    CutFile() = default;
    CutFile(const CutFile &) = delete;
    CutFile &operator=(const CutFile &) = delete;
    CutFile(CutFile &&) = default;
    CutFile &operator=(CutFile &&) = default;
    ~CutFile();
};
/* Cuts length bytes of text into out's chunks, with the line each starts on. */
void cut_file(const char *text, int64_t length, int32_t chunk_size, int32_t overlap, CutFile *out);
/* Replaces the chunks of each of the n files' paths with its cut chunks (pending), all in one
** group of the log, so the log is synced once for them all; a file whose chunks the index
** already holds as they are keeps them. held_none is trusted only while the handle has taken up
** nothing since e->taken_up was taken_up. False when the group could not be written: nothing
** changed. */
bool store_cut_files(TrnEngine *e, CutFile *files, size_t n, uint64_t taken_up);
/* Counts records this handle logged under the lock (texts and vectors alike), and checkpoints
** past the threshold. */
void count_logged(TrnEngine *e, uint64_t records);

/* ---------------------------------------------------------------------------------------------
** The meaning phase (meaning.cpp)
*/
/* Embeds the pending chunks in groups: each group's vectors are logged ('V' records) under the
** lock, then set and linked. progress (may be NULL) is called with path NULL before the first
** group and after each, done and total the embedded and all live chunks; false stops there.
** Returns false when a write failed (the status says why); what was committed stays. */
bool embed_pending(TrnEngine *e, TrnProgressFn progress, void *user, bool *cancelled);
/* Live chunks and the pending ones among them. */
void count_pending(const TrnEngine *e, uint64_t *live, uint64_t *pending);

/* ---------------------------------------------------------------------------------------------
** The walk of an update and the text of a file (update.cpp). One place decides which files of a
** directory are indexed and what text they hold.
*/
/* A file modified less than this many nanoseconds before it was read is read again by the next
** update (3 s; a test hook). */
extern int64_t g_update_recent_ns;
/* The text to index of a walked file (extract_file_text) and its length: an empty text when it
** is too short to index, NULL when it cannot be read, or turns out binary, not UTF-8 or too
** large (*binary set then). *cut is set when the text was cut at max_size. */
char *update_text(const char *path, TrnFileType type, uint64_t max_size, size_t *length,
                  bool *binary, bool *cut);

#endif /* TRN_INDEX_H */
