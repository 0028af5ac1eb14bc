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
** Encoder internals (encoder.cpp)
*/
/* n floats, or "tarnwick: OOM (%zu bytes)" and exit(1). */
float *encoder_alloc_floats(size_t n);

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
    FILE *wal; /* open for appending, or NULL */
    TrnEncoder encoder;
    uint8_t weights_loaded;

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
};

/* ---------------------------------------------------------------------------------------------
** Store and log (store.cpp, wal.cpp)
*/
/* Loads a store file into an empty handle; a bad magic or version leaves the handle empty. Reads
** never run past the file and never allocate more than it could hold. */
void store_load(TrnEngine *e, const char *path);
/* Replays the log at path into the handle (e->wal must be NULL). Stops quietly at a torn or
** unreadable record and cuts the file back to the end of the last whole record, so records
** appended afterwards are found by the next replay. */
void wal_replay(TrnEngine *e, const char *path);
/* Appends one 'A' record for chunk slot i and flushes. Nothing when e->wal is NULL. */
void wal_append(TrnEngine *e, uint64_t slot);
/* Frees a node's neighbour lists and zeroes it (level 0). */
void node_reset(TrnNode *node);

/* ---------------------------------------------------------------------------------------------
** Ingestion (ingest.cpp)
*/
void ensure_cap(TrnEngine *e, uint64_t n);
void add_doc_mem(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type);
int32_t chunk_and_ingest(TrnEngine *e, const char *path, const char *text, int64_t length,
                         int32_t chunk_size, int32_t overlap, TrnFileType type);
char *read_text_file(const char *path, uint64_t *out_length);
/* Strips tags, scripts and styles from n bytes of HTML; returns an owned NUL-terminated text. */
char *strip_html(const char *p, size_t n);
/* Draws a graph level from rand(): floor(-ln(u) * level_mult) clamped to 0..31. */
int32_t draw_level(float level_mult);

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
/* Frees the graph search scratch of the handle. */
void hnsw_free_scratch(TrnEngine *e);
/* Offset of the first occurrence of the n-byte needle nl, already lower-cased, in the len-byte hay,
** ignoring ASCII case (what strcasestr finds in the C and UTF-8 locales); -1 when there is none.
** An empty needle is found at 0. */
int64_t find_ascii_nocase(const char *hay, size_t len, const unsigned char *nl, size_t n);

#endif /* TRN_INTERNAL_H */
