/*
** handle.h -- the engine handle: the chunk table every part works on, and the state each part
** keeps in it. Only the engine's own sources and its tests see this record; benchmarks reach a
** handle through probe.h.
*/
#ifndef TRN_HANDLE_H
#define TRN_HANDLE_H

#include "tarnwick.h"

#include "encoder/encoder.h"
#include "index/hnsw.h"
#include "search/search.h"
#include "storage/storage.h"

#include <cstdint>
#include <cstdio>

constexpr int TRN_ID_MAX = 256;     /* doc_id buffer: at most 255 bytes and a NUL */
constexpr int TRN_PATH_MAX = 512;   /* store_path, wal_path */
constexpr int TRN_ERROR_MAX = 1200; /* trn_last_error's message, with its NUL */

struct TrnChunk {
    char doc_id[TRN_ID_MAX];
    char *text;      /* owned unless text_in_store, never NULL for a live slot */
    char *file_path; /* owned, may be NULL */
    int32_t chunk_index;
    int32_t line_number;
    uint32_t file_type;
    uint8_t deleted;
    /* Its text is committed and its vector not yet (zeros): it is in the word index, not in the
    ** graph, until the meaning phase (meaning.cpp) embeds it. */
    uint8_t pending;
    uint8_t text_in_store; /* text lies in the mapped store (store_map), which owns it */
};

/* Terms, postings and chunk lengths of the word index (word_index.h). */
struct TrnLexical;
/* A store file a handle keeps mapped (store_mapped.cpp). */
struct TrnStoreMap;

struct TrnEngine {
    TrnChunk *chunks;  /* capacity slots */
    float *vectors;    /* capacity x dim; chunk i at i * dim; read through chunk_vector */
    TrnNode *nodes;    /* capacity slots, parallel to chunks */
    uint64_t count;    /* slots in use, live and deleted */
    uint64_t capacity; /* count <= capacity */
    int32_t dim;
    int32_t M;
    int32_t ef_construction;
    int32_t ef_search;
    float level_mult;
    uint64_t deleted_count;
    uint64_t pending_count;        /* live chunks still pending (count_pending reads it) */
    char store_path[TRN_PATH_MAX]; /* empty for an in-memory engine */
    char wal_path[TRN_PATH_MAX];
    /* The folder whose index this is, the parent of the index directory, with a trailing '/';
    ** paths below it are written to the index's files relative to it (file_io.cpp). Empty for
    ** an in-memory engine. */
    char folder[TRN_PATH_MAX];
    FILE *wal; /* the log, open for appending, or NULL; written with write(2) and fsync(2) only */
    /* The encoder is set up and its weights read at its first use (engine_encoder): a search by
    ** words never needs it. */
    TrnEncoder encoder;
    uint8_t encoder_ready;
    char *weights_path; /* owned; NULL: the random encoder */
    uint8_t weights_loaded;
    int32_t embed_threads;      /* workers of embed_chunks, >= 1 */
    TrnScratch **embed_scratch; /* their scratch spaces (slot 0 unused), NULL until needed */
    uint64_t level_state;       /* the graph level generator (draw_level) */
    uint64_t files_read;        /* files its updates read (unchanged ones must not be) */
    uint64_t update_bytes_done; /* while trn_update_dir runs: the bytes of the files it handled */
    uint64_t update_bytes_all;  /* and of all it will read; both 0 otherwise */
    uint64_t texts_embedded;    /* chunk texts embed_distinct_chunks embedded (not copied) */
    uint8_t meaning_running;    /* trn_update_dir is in its meaning phase (meaning.cpp) */
    uint64_t meaning_hint;      /* the slot after the last one a 'V' record of the log named */
    /* Chunk texts by hash, so a text met again takes the vector it already has (embed.cpp).
    ** Open addressing: an entry is the hash's high 32 bits << 32 | (slot + 1), 0 when empty;
    ** covers the slots below text_slots; NULL until the first embed_distinct_chunks. */
    uint64_t *text_table;
    uint64_t text_table_size; /* a power of two, at least twice text_table_used */
    uint64_t text_table_used;
    uint64_t text_slots;

    /* document index (docindex.cpp) */
    char **file_names;
    float *centroids; /* file_count x dim */
    int32_t *file_chunk_counts;
    int32_t file_count;
    int32_t file_capacity;

    /* query buffers: result i of a search always uses snippet i and marks i */
    char snippets[TRN_MAX_RESULTS][TRN_SNIPPET_MAX + 1];
    uint16_t marks[TRN_MAX_RESULTS][2 * TRN_RESULT_MARKS_MAX];
    char heading_paths[TRN_MAX_RESULTS][TRN_HEADING_PATH_MAX + 1];

    /* The graph in graph_parts parts (1 or TRN_GRAPH_PARTS): slot i is a node of part
    ** i % graph_parts, and each part is a graph of its own (hnsw.cpp). */
    TrnGraphPart graph[TRN_GRAPH_PARTS];
    int32_t graph_parts;
    /* Slots whose vectors a replayed log set, in its order, not yet linked into the graph: a
    ** search measures them one by one, and they are linked in that order before this handle
    ** writes or removes anything (link_replayed). */
    uint32_t *unlinked;
    uint64_t unlinked_count;
    uint64_t unlinked_capacity;

    /* word index of the live chunks (word_index.cpp); NULL until the first lex_sync */
    TrnLexical *lexical;
    /* The word index file belongs to the store loaded with no log after it: the first lex_sync
    ** reads it, if the chunks are still those lex_count and lex_deleted say (searches by meaning
    ** never need it). */
    uint8_t lex_deferred;
    uint64_t lex_count;
    uint64_t lex_deleted;
    /* durability (sharing.cpp, locks.cpp); all zero for an in-memory handle */
    int dir_fd; /* the index directory (file_io.cpp), valid when dir_open */
    uint8_t dir_open;
    int lock_fd; /* tarnwick.lock, valid when lock_open */
    uint8_t lock_open;
    int turn_fd; /* tarnwick.turn, valid when turn_open: where writers queue (locks.cpp) */
    uint8_t turn_open;
    uint8_t rebuild; /* built in memory, swapped in by the next checkpoint */
    int rebuild_fd;  /* tarnwick.rebuild, held shared by a rebuilding handle */
    uint8_t rebuild_open;
    uint8_t rebuild_known;       /* the committed state when the rebuild began was read: */
    uint64_t rebuild_generation; /* its generation */
    uint64_t rebuild_from;       /* and the end of its log's last whole group */
    int32_t refused;             /* a status other than TRN_STATUS_OK: every write fails with it */
    int32_t status;              /* of the last call that failed, or TRN_STATUS_OK */
    char error[TRN_ERROR_MAX];   /* its message; empty with TRN_STATUS_OK */
    TrnDiskView seen;            /* the directory as this handle last loaded or wrote it */
    uint64_t taken_up;           /* times it took up chunks other processes committed */
    uint8_t overtaken;           /* its last update took some up after comparing the tree with it */
    uint8_t has_commit;          /* the loaded state came with a commit record */
    uint8_t has_index_id;        /* the commit record named the index: */
    uint8_t index_id[16];        /* its random id, which its log names too */
    uint64_t generation;         /* generation of the loaded store; 0 without a commit record */
    uint8_t store_present;       /* the loaded store existed, with this size and checksum */
    uint64_t store_size;
    uint32_t store_crc;
    uint64_t wal_end; /* end of the last whole group of the log, read or written */
    uint32_t wal_crc; /* CRC-32 of the log's bytes before wal_end */
    /* The log's first log_committed bytes were committed, with CRC-32 log_committed_crc, as the
    ** commit record says: a log that lacks them is damaged (0: nothing to check). */
    uint64_t log_committed;
    uint32_t log_committed_crc;
    uint8_t log_tracked; /* the commit record keeps the loaded generation's log length */
    uint64_t wal_chunks; /* chunks logged since the last checkpoint */
    uint8_t wal_legacy;  /* the log holds records of an older version (no groups) */
    uint8_t wal_stale;   /* the log belongs to an older generation and is ignored */
    uint8_t changed;     /* memory holds what the store does not (log replayed, writes) */
    uint8_t unsaved;     /* memory holds what neither the store nor the log does */
    /* This handle's own groups at the end of the log, [own_from, own_end) of generation
    ** own_generation, valid when own_known: what trn_rollback may cut off. */
    uint8_t own_known;
    uint64_t own_generation;
    uint64_t own_from;
    uint32_t own_from_crc; /* CRC-32 of the log before own_from */
    uint64_t own_end;
    uint8_t paths_full; /* the store names files by full paths, as version 1 did: rewrite it */
    /* The store as mapped at load, while chunks' texts or the vectors point into it; nothing
    ** writes to it. NULL for a store read by copying. */
    TrnStoreMap *store_map;
    /* While vectors points into store_map: bit i is set once chunk i's vector matched its
    ** checksum (chunk_vector). NULL once the handle owns its vectors (vectors_own). */
    uint64_t *vectors_checked;
    uint8_t doc_index_stored; /* the document index came with the store, no log after it */
};

/* The handle's encoder, set up on the first call: weights_path read into it, or the random
** encoder with a line on stderr when they cannot be read. */
TrnEncoder *engine_encoder(TrnEngine *e);

/* Chunk slot's vector. One read in place from a mapped store is checked against its checksum
** the first time (vector_check); a damaged one reads as zeros and marks the handle damaged. */
const float *vector_check(const TrnEngine *e, uint64_t slot);
inline const float *chunk_vector(const TrnEngine *e, uint64_t slot)
{
    if (e->vectors_checked && !((e->vectors_checked[slot / 64] >> (slot % 64)) & 1)) {
        return vector_check(e, slot);
    }
    return e->vectors + slot * (uint64_t)e->dim;
}

#endif /* TRN_HANDLE_H */
