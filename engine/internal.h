/*
** internal.h -- the engine handle and the prototypes shared between the engine's source files.
** Nothing here is exported from libtarnwick.so; the project's tests and tools reach it through the
** static library.
*/
#ifndef TRN_INTERNAL_H
#define TRN_INTERNAL_H

#include "tarnwick.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

/* ---------------------------------------------------------------------------------------------
** Allocation (alloc.cpp). None of these returns NULL: on failure oom_abort() prints
** "tarnwick: OOM" and exits with status 1.
*/
[[noreturn]] void oom_abort(void);
/* Prints fmt (with size) to stderr and exits with status 1; the encoder and tokenizer variants. */
[[noreturn]] void oom_abort_sized(const char *fmt, size_t size);
void *xmalloc(size_t n);
void *xcalloc(size_t count, size_t size);
void *xrealloc(void *p, size_t n);
char *xstrdup(const char *s);
/* a * b, or oom_abort() when the product overflows size_t. */
size_t xmul(size_t a, size_t b);

/* Test hook: when set to N > 0, the Nth allocation from now fails (and ends the process through
** oom_abort). 0 disables it. Process-wide. */
extern long g_alloc_fail_countdown;
/* Returns true when the current allocation must fail (counts the hook down). */
bool alloc_should_fail(void);

/* Informational lines on stderr ("tarnwick: " + fmt), printed only while trn_set_verbose is on
** (alloc.cpp). Process-wide, like the allocation hook. */
void verbose_note(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* An allocator over xmalloc for standard containers inside the engine. */
template <typename T>
struct XAllocator {
    using value_type = T;
    XAllocator() = default;
    template <typename U>
    XAllocator(const XAllocator<U> &) noexcept
    {
    }
    T *allocate(size_t n) { return static_cast<T *>(xmalloc(xmul(n, sizeof(T)))); }
    void deallocate(T *p, size_t) noexcept { free(p); }
    template <typename U>
    bool operator==(const XAllocator<U> &) const noexcept
    {
        return true;
    }
};

/* ---------------------------------------------------------------------------------------------
** Vector routines (vec.cpp). Stride 1 everywhere; results equal the naive loops up to float
** rounding. Written so the compiler vectorises them.
*/
float vec_dot(const float *a, const float *b, size_t n);          // sum a[i] * b[i]
float vec_sum(const float *a, size_t n);                          // sum a[i]
float vec_sumsq(const float *a, size_t n);                        // sum a[i]^2
float vec_mean(const float *a, size_t n);                         // sum a[i] / n
float vec_meansq(const float *a, size_t n);                       // sum a[i]^2 / n
float vec_max(const float *a, size_t n);                          // max a[i]
void vec_add(const float *a, const float *b, float *c, size_t n); // c[i] = a[i] + b[i]
void vec_mul(const float *a, const float *b, float *c, size_t n); // c[i] = a[i] * b[i]
void vec_sadd(const float *a, float s, float *c, size_t n);       // c[i] = a[i] + s
void vec_smul(const float *a, float s, float *c, size_t n);       // c[i] = a[i] * s
void vec_sq(const float *a, float *c, size_t n);                  // c[i] = a[i]^2
void vec_exp(float *x, size_t n);                                 // x[i] = e^x[i]
void vec_tanh(float *x, size_t n);                                // x[i] = tanh(x[i])
/* Scales x to unit length when its sum of squares exceeds 1e-24; else leaves it. */
void vec_normalize(float *x, size_t n);

/* C = alpha * op(A) * op(B) + beta * C, row-major, through cblas_sgemm. */
void sgemm(bool trans_a, bool trans_b, int m, int n, int k, float alpha, const float *a, int lda,
           const float *b, int ldb, float beta, float *c, int ldc);

/* ---------------------------------------------------------------------------------------------
** Tokenizer and encoder records (bpe.cpp, encoder.cpp): opaque to everything but the engine, its
** tests and the trainers.
*/
struct TrnBpe {
    uint32_t (*merges)[2]; /* n_merges pairs (left, right) in the order they were learned; owned */
    uint32_t n_merges;
    uint32_t vocab_size; /* always n_merges + 260 */
};

/* One transformer layer; every array is owned by the encoder. */
struct TrnEncoderLayer {
    float *wq, *wk, *wv, *wo; /* 512 x 512 projections, no bias */
    float *w1, *b1;           /* 512 x 2048 up projection and its bias */
    float *w2, *b2;           /* 2048 x 512 down projection and its bias */
    float *ln1_gamma, *ln1_beta, *ln2_gamma, *ln2_beta; /* 512 each */
};

struct TrnScratch;

struct TrnEncoder {
    uint32_t vocab_size;           /* rows of tok_emb: 260, or the tokenizer's vocabulary size */
    TrnBpe *bpe;                   /* owned tokenizer, or NULL for byte-level input */
    float *tok_emb;                /* vocab_size x 512 */
    float *pos_emb;                /* 256 x 512 */
    float *ln_f_gamma, *ln_f_beta; /* 512 each */
    TrnEncoderLayer layers[TRN_ENCODER_LAYERS];
    TrnScratch *scratch; /* owned buffers of trn_encoder_embed_text; NULL until the first */
};

/* In-place forms of trn_encoder_init, trn_encoder_init_bpe and trn_encoder_free, for an encoder
** held by value (the engine handle's, the tests'): encoder_release frees what the record owns
** and zeroes it, but not the record. */
void encoder_init(TrnEncoder *enc, uint32_t seed);
void encoder_init_bpe(TrnEncoder *enc, uint32_t seed, TrnBpe *bpe);
void encoder_release(TrnEncoder *enc);

/* ---------------------------------------------------------------------------------------------
** Encoder internals (encoder.cpp)
*/
/* n floats, or "tarnwick: OOM (%zu bytes)" and exit(1). */
float *encoder_alloc_floats(size_t n);
/* The buffers of one embedding (encoder.cpp), about 6 MB. One scratch serves one embedding at a
** time; embeddings with different scratches may run at once on the same encoder. */
TrnScratch *scratch_new(void);
void scratch_free(TrnScratch *ws); /* NULL is ignored */
/* trn_encoder_embed_text with the given scratch: reads enc, writes ws and the 512 floats of out. */
void encoder_embed(const TrnEncoder *enc, TrnScratch *ws, const char *text, float *out);

/* Where encoder_forward copies the activations of one sequence of n positions, for a backward
** pass (trainers/model.cpp). Rows are 512 floats (2048 for h and g) for each of the n positions;
** the per-row norm values are one float per position. Every pointer must be set. */
struct TrnForwardSave {
    float *x[TRN_ENCODER_LAYERS + 1]; /* residual entering layer l; [2] enters the final norm */
    float *ln1_mean[TRN_ENCODER_LAYERS], *ln1_rstd[TRN_ENCODER_LAYERS]; /* 1 / sqrt(var + eps) */
    float *a[TRN_ENCODER_LAYERS];                                       /* first norm's output */
    float *q[TRN_ENCODER_LAYERS], *k[TRN_ENCODER_LAYERS], *v[TRN_ENCODER_LAYERS];
    float *probs[TRN_ENCODER_LAYERS]; /* 8 blocks of n x n softmax rows, head after head */
    float *ctx[TRN_ENCODER_LAYERS];   /* concatenated head outputs */
    float *mid[TRN_ENCODER_LAYERS];   /* residual after attention */
    float *ln2_mean[TRN_ENCODER_LAYERS], *ln2_rstd[TRN_ENCODER_LAYERS];
    float *b[TRN_ENCODER_LAYERS];                         /* second norm's output */
    float *h[TRN_ENCODER_LAYERS], *g[TRN_ENCODER_LAYERS]; /* before and after GELU */
    float *lnf_mean, *lnf_rstd, *y;                       /* final norm and its output */
    float *pooled; /* 512: the mean of y's rows, before normalisation */
    float *norm;   /* 1: the length of pooled */
};
/* The forward pass over n (1 to 256) token ids: writes the unit vector to out (512 floats), and
** the activations to save when it is not NULL. The one forward pass of the engine and the
** trainer; the same bits with or without save. */
void encoder_forward(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids, int n, float *out,
                     TrnForwardSave *save);
/* Draws every tensor afresh from seed, as trn_encoder_init does, keeping the tokenizer and the
** vocabulary size. */
void encoder_redraw(TrnEncoder *enc, uint32_t seed);

/* ---------------------------------------------------------------------------------------------
** The engine handle
*/
constexpr int TRN_MAX_LEVELS = 32;
constexpr int TRN_ID_MAX = 256;      /* doc_id buffer: at most 255 bytes and a NUL */
constexpr int TRN_PATH_MAX = 512;    /* store_path, wal_path */
constexpr int TRN_WALK_MAX = 1024;   /* paths built during a directory walk */
constexpr int TRN_MAX_RESULTS = 64;  /* results per trn_search */
constexpr int TRN_SNIPPET_MAX = 300; /* bytes of a snippet, without its NUL */
constexpr uint32_t TRN_WAL_ID_LIMIT = 4096;
constexpr size_t TRN_COMMIT_SIZE = 48; /* bytes of the commit record (commit.cpp) */
constexpr int TRN_ERROR_MAX = 1200;    /* trn_last_error's message, with its NUL */
/* A normal handle checkpoints once its log holds this many chunks, so reopening after a crash
** re-embeds at most this many (g_checkpoint_chunks, a test hook, starts at this value). */
constexpr uint64_t TRN_CHECKPOINT_CHUNKS = 4096;

struct TrnChunk {
    char doc_id[TRN_ID_MAX];
    char *text;      /* owned, never NULL for a live slot */
    char *file_path; /* owned, may be NULL */
    int32_t chunk_index;
    int32_t line_number;
    uint32_t file_type;
    uint8_t deleted;
};

struct TrnNode {
    int32_t level;
    uint32_t *neighbors[TRN_MAX_LEVELS]; /* owned; NULL when the level has none */
    int32_t count[TRN_MAX_LEVELS];
    int32_t capacity[TRN_MAX_LEVELS]; /* capacity >= count */
};

/* Visited marks of a graph search: chunk i is visited when marks[i] == epoch. */
struct TrnVisited {
    uint32_t *marks;
    uint32_t length;
    uint32_t epoch;
    uint32_t capacity; /* allocated marks, >= length */
};

/* Heaps and candidate arrays of the graph, reused by every insertion and query (hnsw.cpp). */
struct TrnGraphScratch;

/* Terms, postings and chunk lengths of the word index (lexical.cpp). */
struct TrnLexical;
/* What identifies the committed state of an index directory: the commit record's bytes and the
** identity of the store and the log. A handle compares it with what it saw when it last loaded,
** to notice that another process committed. */
struct TrnDiskView {
    uint8_t commit[TRN_COMMIT_SIZE + 1]; /* one byte more, so a longer file is noticed */
    uint32_t commit_len;                 /* bytes read; 0 without a commit record */
    uint8_t has_commit, has_store, has_wal;
    uint64_t store_ino, store_size;
    int64_t store_mtime_ns;
    uint64_t wal_ino, wal_size;
    int64_t wal_mtime_ns;
};

struct TrnEngine {
    TrnChunk *chunks;  /* capacity slots */
    float *vectors;    /* capacity x dim; chunk i at i * dim */
    TrnNode *nodes;    /* capacity slots, parallel to chunks */
    uint64_t count;    /* slots in use, live and deleted */
    uint64_t capacity; /* count <= capacity */
    int32_t dim;
    int32_t M;
    int32_t ef_construction;
    int32_t ef_search;
    int32_t entry_point; /* -1 for an empty graph */
    int32_t max_level;   /* -1 for an empty graph */
    float level_mult;
    uint64_t deleted_count;
    char store_path[TRN_PATH_MAX]; /* empty for an in-memory engine */
    char wal_path[TRN_PATH_MAX];
    FILE *wal; /* the log, open for appending, or NULL; written with write(2) and fsync(2) only */
    TrnEncoder encoder;
    uint8_t weights_loaded;
    int32_t embed_threads;      /* workers of embed_chunks, >= 1 */
    TrnScratch **embed_scratch; /* their scratch spaces (slot 0 unused), NULL until needed */
    uint64_t level_state;       /* the graph level generator (draw_level) */

    /* document index (docindex.cpp) */
    char **file_names;
    float *centroids; /* file_count x dim */
    int32_t *file_chunk_counts;
    int32_t file_count;
    int32_t file_capacity;

    /* query buffers: result i of a search always uses snippet i */
    char snippets[TRN_MAX_RESULTS][TRN_SNIPPET_MAX + 1];

    /* graph search scratch, kept between calls so a search clears nothing (hnsw.cpp) */
    TrnVisited visited;
    TrnGraphScratch *graph_scratch; /* NULL until the first graph search */

    /* word index of the live chunks (lexical.cpp); NULL until the first lex_sync */
    TrnLexical *lexical;
    /* durability (commit.cpp); all zero for an in-memory handle */
    int lock_fd; /* tarnwick.lock, valid when lock_open */
    uint8_t lock_open;
    uint8_t rebuild;           /* built in memory, swapped in by the next checkpoint */
    int32_t refused;           /* a status other than TRN_STATUS_OK: every write fails with it */
    int32_t status;            /* of the last call that failed, or TRN_STATUS_OK */
    char error[TRN_ERROR_MAX]; /* its message; empty with TRN_STATUS_OK */
    TrnDiskView seen;          /* the directory as this handle last loaded or wrote it */
    uint8_t has_commit;        /* the loaded state came with a commit record */
    uint64_t generation;       /* generation of the loaded store; 0 without a commit record */
    uint8_t store_present;     /* the loaded store existed, with this size and checksum */
    uint64_t store_size;
    uint32_t store_crc;
    uint64_t wal_end;    /* end of the last whole group of the log, read or written */
    uint64_t wal_chunks; /* chunks logged since the last checkpoint */
    uint8_t wal_legacy;  /* the log holds records of an older version (no groups) */
    uint8_t wal_stale;   /* the log belongs to an older generation and is ignored */
    uint8_t changed;     /* memory holds what the store does not (log replayed, writes) */
    uint8_t unsaved;     /* memory holds what neither the store nor the log does */
};

/* ---------------------------------------------------------------------------------------------
** Store and log (store.cpp, wal.cpp)
*/
/* Loads a store file into an empty handle; a bad magic or version leaves the handle empty. Reads
** never run past the file and never allocate more than it could hold. */
void store_load(TrnEngine *e, const char *path);
/* Loads size bytes of a store file into an empty handle, as store_load does. */
void store_load_bytes(TrnEngine *e, const uint8_t *bytes, size_t size);
/* Writes the store to a temporary file, commits it (commit record, rename) and empties the log.
** The caller holds the exclusive lock and has refreshed the handle. Returns false, with the
** handle's status set and the directory at its last committed state, on failure. */
bool checkpoint_locked(TrnEngine *e);
/* Replays the log at path into the handle from offset from (0, or the end of a group already
** replayed), reading only. A log of an older version is replayed record by record up to a torn
** tail; a grouped log group by group, up to the last whole group. Sets wal_end, wal_chunks,
** wal_legacy and wal_stale. Returns false when a group before the last fails its checksum.
** Without apply the records are only checked. */
bool wal_replay(TrnEngine *e, const char *path, uint64_t from = 0, bool apply = true);
/* Byte buffer of records to append as one group. */
using TrnBytes = std::vector<uint8_t, XAllocator<uint8_t>>;
/* Appends the 'G' record when the log is empty, so a group can follow. */
void wal_group_begin(const TrnEngine *e, TrnBytes *group);
/* Appends an 'A' record for one chunk. */
void wal_put_add(TrnBytes *group, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type);
/* Appends a 'D' record: every chunk of path is removed. */
void wal_put_remove(TrnBytes *group, const char *path);
/* Ends the group with its 'C' record, writes it to the log and syncs the log. On failure cuts
** the log back to where the group began, sets the status and returns false. Nothing is written
** and true returned when the handle keeps no log. */
bool wal_commit_group(TrnEngine *e, TrnBytes *group);
/* Frees a node's neighbour lists and zeroes it (level 0). */
void node_reset(TrnNode *node);

/* ---------------------------------------------------------------------------------------------
** Durability (commit.cpp): the lock, the commit record and staying in step with other processes
*/
/* How long a write waits for the lock, in milliseconds; TRN_BUSY_TIMEOUT_MS. Test hook. */
extern int g_busy_timeout_ms;
/* Logged chunks that make a normal handle checkpoint; TRN_CHECKPOINT_CHUNKS. Test hook. */
extern uint64_t g_checkpoint_chunks;
/* CRC-32 (zlib's) of n bytes, continuing crc (0 to start). */
uint32_t crc32_update(uint32_t crc, const void *p, size_t n);
/* Fills out with the path of name in the handle's index directory. */
void index_file_path(const TrnEngine *e, const char *name, char *out, size_t size);
/* Sets the status and message of the handle for the operation that met the failure; returns
** false. io_error is errno for TRN_STATUS_IO_ERROR, else 0. */
bool fail_status(TrnEngine *e, int32_t status, int io_error);
void status_clear(TrnEngine *e);
/* Takes the lock (LOCK_SH or LOCK_EX), waiting up to timeout_ms. False when it stays busy. */
bool lock_take(TrnEngine *e, int op, int timeout_ms);
void lock_release(TrnEngine *e);
/* Reads the directory's identity. */
void disk_view_read(const TrnEngine *e, TrnDiskView *v);
/* True when nothing was committed between the two views. */
bool disk_view_unchanged(const TrnDiskView *a, const TrnDiskView *b);
/* Loads the committed state into an empty handle (lock held). False when it is damaged. Without
** replay the log is checked but not applied. */
bool index_load(TrnEngine *e, bool replay = true);
/* Brings the handle up to the committed state (lock held): replays groups other processes
** appended, or reloads everything after another process's checkpoint. False when damaged. */
bool index_refresh_locked(TrnEngine *e);
/* Before a read: refreshes the handle when another process committed, waiting briefly for the
** shared lock (a busy index is read as it was). */
void index_refresh_for_read(TrnEngine *e);
/* Starts a write: takes the exclusive lock, refreshes, brings the log to a state it can be
** appended to. False, with the status set and no lock held, when the write cannot go ahead.
** Handles without files (in memory, rebuilding) take no lock and always succeed. */
bool write_begin(TrnEngine *e);
void write_end(TrnEngine *e);
/* Swaps a rebuilt handle in as the directory's index (trn_checkpoint of a rebuild handle). */
bool rebuild_swap(TrnEngine *e);
/* Writes the commit record of the next generation for a store of that size and checksum, the
** current store as the previous one (temporary file, sync, rename, directory sync). */
bool commit_write(TrnEngine *e, uint64_t store_size, uint32_t store_crc);
/* Removes temporary files that a crashed writer left ("tarnwick.bin.XXXXXX",
** "tarnwick.commit.XXXXXX", "tarnwick.files.XXXXXX"); the exclusive lock is held, so none of them
** is being written. */
void remove_stale_temps(const TrnEngine *e);
/* Moves the files of a damaged index aside ("<name>.damaged-<time>"), never over another. */
void keep_damaged_aside(TrnEngine *e);
/* Makes a rename inside the directory of path durable. Returns false when the sync failed. */
bool sync_parent_dir(const char *path);

/* ---------------------------------------------------------------------------------------------
** Ingestion (ingest.cpp)
*/
void ensure_cap(TrnEngine *e, uint64_t n);
void add_doc_mem(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type);
/* As add_doc_mem with the vector already embedded and normalised (dim floats). */
void add_doc_vec(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type, const float *v);
/* Draws a graph level from the generator at *state (splitmix64): floor(-ln(u) * level_mult)
** clamped to 0..31, u uniform in (0, 1]. */
int32_t draw_level(uint64_t *state, float level_mult);

/* ---------------------------------------------------------------------------------------------
** Embedding on the cores (embed.cpp)
*/
/* Embeds text into v (dim floats) and normalises it, as add_doc_mem does, on the calling thread
** with the encoder's own scratch. */
void embed_chunk(TrnEngine *e, const char *text, float *v);
/* As embed_chunk with the given scratch; only reads the handle. */
void embed_chunk_with(TrnEngine *e, TrnScratch *scratch, const char *text, float *v);
/* Embeds count texts into out (count x dim floats, row i for text i) as embed_chunk does, on up
** to e->embed_threads threads; the same bits as embedding them one after another. */
void embed_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out);
/* The number of embedding workers a new handle gets: the cores this process may run on, at most
** 8. The first call sets OpenBLAS to one thread for the process. */
int32_t embed_threads_default(void);
/* Frees the workers' scratch spaces (the encoder's own one goes with the encoder). */
void embed_free_scratch(TrnEngine *e);
/* Marks the live chunks of path deleted (rebuilding the graph when more than half of the slots
** are deleted) and returns how many; writes nothing. */
int32_t remove_file_mem(TrnEngine *e, const char *path);
/* Number of live chunks of path. */
int32_t count_file_chunks(const TrnEngine *e, const char *path);
int32_t chunk_and_ingest(TrnEngine *e, const char *path, const char *text, int64_t length,
                         int32_t chunk_size, int32_t overlap, TrnFileType type);
/* As chunk_and_ingest, replacing the chunks path had: the removal and the new chunks are one
** group of the log. An empty text only removes. Returns the chunks added, or -1 when the write
** failed (the old chunks then stay). */
int32_t chunk_and_replace(TrnEngine *e, const char *path, const char *text, int64_t length,
                          int32_t chunk_size, int32_t overlap, TrnFileType type);

/* ---------------------------------------------------------------------------------------------
** Private files (walk.cpp; the walk itself is in files.h)
*/
/* fopen for the index's files: "wb", "ab" or "r+b"; a file it creates is 0600 and an existing
** one is set to 0600, so no other user can read what was indexed. NULL on failure. */
FILE *private_fopen(const char *path, const char *mode);
/* open(2) with the same rule as private_fopen (mode 0600, O_CLOEXEC added); -1 on failure. */
int private_open(const char *path, int flags);

/* ---------------------------------------------------------------------------------------------
** File types (filetype.cpp)
*/
/* 1 when strcasecmp finds s equal to an entry of the NULL-terminated list, else 0. */
int32_t in_list_casecmp(const char *s, const char *const *list);

/* ---------------------------------------------------------------------------------------------
** Graph (hnsw.cpp) and query (query.cpp)
*/
/* Links chunk index (whose level is set) into the graph. */
void hnsw_insert(TrnEngine *e, uint32_t index);
/* Drops every link and re-inserts every live chunk with a new level. */
void hnsw_rebuild(TrnEngine *e);
/* Up to min(k, ef_search) nearest live chunks to the unit vector q, nearest first, with their
** dot-product scores. Returns the number written. */
int32_t hnsw_query(TrnEngine *e, const float *q, int32_t k, uint32_t *out_indices,
                   float *out_scores);
/* As hnsw_query with search width ef instead of ef_search: up to min(k, ef) hits. */
int32_t hnsw_query_width(TrnEngine *e, const float *q, int32_t k, int32_t ef, uint32_t *out_indices,
                         float *out_scores);
/* Frees the graph search scratch of the handle. */
void hnsw_free_scratch(TrnEngine *e);
/* Offset of the first occurrence of the n-byte needle nl, already lower-cased, in the len-byte hay,
** ignoring ASCII case (what strcasestr finds in the C and UTF-8 locales); -1 when there is none.
** An empty needle is found at 0. */
int64_t find_ascii_nocase(const char *hay, size_t len, const unsigned char *nl, size_t n);

/* ---------------------------------------------------------------------------------------------
** Word index (lexical.cpp): BM25 over the live chunks, kept in memory and up to date by every
** keyword or hybrid search; read from "tarnwick.lex" when a store is loaded, else built from the
** chunk texts by the first such search. Writers save it there after each checkpoint.
*/
constexpr float LEX_K1 = 1.2f;     /* BM25 term-frequency saturation */
constexpr float LEX_B = 0.75f;     /* BM25 length normalisation */
constexpr float LEX_RRF_K = 60.0f; /* reciprocal rank fusion: weight / (LEX_RRF_K + rank) */
constexpr int32_t LEX_AGREEMENT_DEPTH = 20; /* see hybrid_semantic_weight */
constexpr int32_t HYBRID_CANDIDATES = 100;  /* keyword ranking a hybrid search fuses */
constexpr int32_t HYBRID_GRAPH_MIN = 50;    /* see hybrid_graph_width */
/* How wide a hybrid search searches the graph, and how deep the semantic ranking it fuses:
** ef_search within HYBRID_GRAPH_MIN..HYBRID_CANDIDATES. Searching 100 wide cost about 9.5 ms at
** 100,000 chunks, half of it for ranks 51 to 100, which the known-item benchmark's fusions did
** not need (bench/README.md). */
inline int32_t hybrid_graph_width(const TrnEngine *e)
{
    int32_t w = e->ef_search;
    return w < HYBRID_GRAPH_MIN ? HYBRID_GRAPH_MIN : w > HYBRID_CANDIDATES ? HYBRID_CANDIDATES : w;
}
constexpr float LEX_AGREEMENT_FLOOR = 0.2f;

/* Brings the word index up to date with the chunk table: reads the slots added since the last
** call and takes out the chunks deleted since. Builds it from every slot when there is none. */
void lex_sync(TrnEngine *e);
/* Frees the word index. Called when the chunk table is read again and at close. */
void lex_free(TrnEngine *e);
/* Reads the index file of the store just loaded (e->count slots, e->store_size and store_crc),
** before the log is replayed. Leaves no index when the file is missing or does not belong to that
** store exactly. */
void lex_load(TrnEngine *e);
/* Syncs, then writes the index file for the store just written (all e->count slots). False when
** it could not be written; the store and the log are never touched. */
bool lex_save(TrnEngine *e);
/* Drops the deleted chunks' postings and renumbers the rest as compaction renumbers the chunks;
** called before it, while the deleted flags are still there. */
void lex_compact(TrnEngine *e);
/* Writes the terms of text, space-separated, into out (size bytes, always NUL-terminated when
** size > 0, terms that do not fit are left out) and returns how many terms the text has. */
int32_t lex_split(const char *text, char *out, size_t size);
/* Syncs, then writes the best min(k, matching) live chunks for query by BM25, best first (equal
** scores: lower slot first), to out_slots and their scores to out_scores. Returns how many. */
int32_t lex_search(TrnEngine *e, const char *query, int32_t k, uint32_t *out_slots,
                   float *out_scores);
/* Offset in text of the first query word of the window of window bytes where the query's words
** are densest (each distinct word counts its idf, a repeat a quarter of it); -1 when none occurs.
*/
int64_t lex_densest(TrnEngine *e, const char *query, const char *text, size_t window);
/* How much the semantic ranking counts in a hybrid search, from 0 to 1. s is the share of the
** keyword ranking's first LEX_AGREEMENT_DEPTH chunks that are also among the semantic ranking's
** first LEX_AGREEMENT_DEPTH; the weight is (s - LEX_AGREEMENT_FLOOR) / (1 - LEX_AGREEMENT_FLOOR),
** 0 when that is negative, and 1 when the keyword ranking is empty. An encoder that does not know
** the text agrees with the words by chance only (a share of 0.06 to 0.10 on the known-item
** benchmark with an untrained or barely trained encoder), and then does not count at all; one
** that finds what the words find earns up to full weight. */
float hybrid_semantic_weight(const uint32_t *kw, int32_t nk, const uint32_t *sem, int32_t ns);
/* Reciprocal rank fusion of two rankings of chunk slots, best first: a slot scores
** wa / (LEX_RRF_K + rank in a) + wb / (LEX_RRF_K + rank in b), ranks from 1, a missing rank adding
** nothing. Writes the best min(k, distinct slots) to out and out_scores, best first; equal scores
** keep a's order, then b's. Returns how many. */
int32_t fuse_rankings(const uint32_t *a, int32_t na, float wa, const uint32_t *b, int32_t nb,
                      float wb, int32_t k, uint32_t *out, float *out_scores);

/* ---------------------------------------------------------------------------------------------
** The file manifest (manifest.cpp): what the index knows of each file it walked, so an update
** reads only the files that changed.
*/
constexpr uint32_t MANIFEST_FLAG_RECENT = 1; /* modified just before it was read: read again */

struct ManifestEntry {
    char *path; /* owned */
    uint64_t size;
    int64_t mtime_ns;
    int64_t ctime_ns;
    uint64_t inode;
    uint64_t text_hash; /* of the text that was chunked; 0 for a file not indexed */
    uint32_t type;      /* TrnFileType */
    uint32_t chunks;    /* live chunks the file had when the entry was written */
    uint32_t flags;
};

struct Manifest {
    int32_t chunk_size;
    int32_t overlap;
    uint32_t text_version;
    ManifestEntry *entries; /* count entries, owned */
    uint32_t count;
    uint32_t capacity;
};

/* How text is taken from files; an index whose manifest names another version reads every file
** again (and replaces only those whose text changed). */
constexpr uint32_t MANIFEST_TEXT_VERSION = 1;

/* Reads the manifest at path into m (emptied first). False, with m empty, when it is missing,
** damaged or of another version: the caller then trusts no entry. */
bool manifest_read(const char *path, Manifest *m);
/* Writes m to path atomically (temporary file, sync, rename, directory sync), mode 0600.
** False when it could not be written (the old manifest then stays). */
bool manifest_write(const char *path, const Manifest *m);
/* Appends a copy of e (its path copied). */
void manifest_add(Manifest *m, const ManifestEntry *e);
void manifest_free(Manifest *m);
/* 64-bit FNV-1a of n bytes. */
uint64_t text_hash(const char *p, size_t n);

/* ---------------------------------------------------------------------------------------------
** The walk of an update and the text of a file (update.cpp). One place decides which files of a
** directory are indexed and what text they hold.
*/
/* True when the options' global patterns (or the default ones) exclude rel, a path relative to
** the walked root (a directory's with a trailing "/"). */
bool update_excludes(const TrnWalkOptions *opts, const char *rel);
/* Files update_text has read in this process (a test hook: unchanged files must not be read). */
extern uint64_t g_update_files_read;
/* A file modified less than this many nanoseconds before it was read is read again by the next
** update (3 s; a test hook). */
extern int64_t g_update_recent_ns;
/* The text to index of a walked file (extract_file_text) and its length: an empty text when it
** is too short to index, NULL when it cannot be read, or turns out binary, not UTF-8 or too
** large (*binary set then). */
char *update_text(const char *path, TrnFileType type, uint64_t max_size, size_t *length,
                  bool *binary);

#endif /* TRN_INTERNAL_H */
