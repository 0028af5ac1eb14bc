/*
** probe.h -- what the project's benchmarks reach inside a handle, as functions, so that the
** handle's record stays the engine's own (probe.cpp). Internal to the project: not exported
** from libtarnwick.so.
**
** The benchmarks fill a handle faster than ingestion would (no embedding, no log), read back
** what a chunk holds, and time parts of the engine that the C interface only reaches as a whole;
** the parts' own headers (index/hnsw.h, index/word_index.h, search/search.h, storage/storage.h)
** declare those.
*/
#ifndef TRN_PROBE_H
#define TRN_PROBE_H

#include "tarnwick.h"

#include <cstddef>
#include <cstdint>

/* A chunk slot as the handle holds it; the pointers point into the handle and stay valid until
** the next write. */
struct ProbeChunk {
    const char *doc_id;
    const char *text;      /* NULL for a slot without text */
    const char *file_path; /* may be NULL */
    const float *vector;   /* dim floats */
    int32_t chunk_index;
    int32_t line_number;
    bool deleted;
};

/* Slot slot (below trn_stats' chunk_count). */
ProbeChunk probe_chunk(const TrnEngine *e, uint64_t slot);
/* The bytes of one slot's record in the handle, beside its text, path and vector. */
size_t probe_chunk_record_size();
/* The handle's encoder, owned by the handle, and whether weights were loaded into it. */
TrnEncoder *probe_encoder(TrnEngine *e);
bool probe_weights_loaded(TrnEngine *e);
/* Sets how many workers embed a batch of chunks (at least 1). */
void probe_set_embed_threads(TrnEngine *e, int32_t workers);

/* Room for n slots in all, so that appending up to n grows nothing. */
void probe_reserve(TrnEngine *e, uint64_t n);
/* Appends a chunk as given, without embedding or logging it: doc_id (cut at 255 bytes), text and
** path copied (either may be NULL), line 1, the vector's dim floats copied as they are (NULL: all
** zero). The slot is not in the graph until linked. The handle then holds what neither its store
** nor its log does, so trn_close writes the store. Returns the slot. */
uint64_t probe_append(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                      int32_t chunk_index, const float *vector);
/* Links slot into the graph at a level drawn from the handle's generator, as ingestion does. */
void probe_link(TrnEngine *e, uint64_t slot);
/* Makes slot a node of level 0 whose only neighbours are the count slots of to, without a search:
** a graph of the right size and shape for timing a search, without the cost of building one.
** The first slot so linked becomes the entry point. */
void probe_link_to(TrnEngine *e, uint64_t slot, const uint32_t *to, int32_t count);
/* Restarts the generator of graph levels at seed, so that two builds draw the same levels. */
void probe_seed_levels(TrnEngine *e, uint64_t seed);

/* True when the handle holds its word index (read from the index file by the first search by
** words, or built). */
bool probe_has_word_index(const TrnEngine *e);
/* Closes the handle without the checkpoint a close may write, leaving the files as they are. */
void probe_close_unwritten(TrnEngine *e);

#endif /* TRN_PROBE_H */
