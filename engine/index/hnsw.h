/*
** hnsw.h -- the graph of the chunks' vectors (hnsw.cpp): its records in the handle and the
** insertion and search over it.
*/
#ifndef TRN_HNSW_H
#define TRN_HNSW_H

#include "tarnwick.h"

#include <cstddef>
#include <cstdint>

constexpr int TRN_MAX_LEVELS = 32;

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

/* Links chunk index (whose level is set) into the graph. */
void hnsw_insert(TrnEngine *e, uint32_t index);
/* Links the count chunks at slots (no lists, none in the graph) into it as one group, each at a
** level drawn in turn from the handle's generator (draw_level), as inserting them one by one
** would draw, on up to e->embed_threads workers (hnsw_group.cpp). The group's members are
*candidates of one
** another beside those the graph as it stood gives them; the graph depends on where groups begin,
** never on how many workers linked them. */
void hnsw_insert_group(TrnEngine *e, const uint32_t *slots, size_t count);

/* What one worker needs to search the graph: its heaps and its visited marks. Worker 0 is the
** calling thread, with the handle's own, which searches use too; the others' are kept in the handle
** between calls. Made on the calling thread before the workers start. */
struct GraphWorker {
    TrnGraphScratch *s;
    TrnVisited *vis;
};
GraphWorker graph_worker(TrnEngine *e, int32_t i);
/* The first half of inserting index (level set, no lists): the searches of its levels in the graph
** of entry point entry and top level max_level, and the neighbours chosen there, written to its
** own lists; nothing links back yet, and nothing else of the handle is written. The n_earlier
** chunks at earlier (a group's members before it, in no list of that graph) are candidates at
** their levels beside those the searches find. */
void link_prepare(TrnEngine *e, GraphWorker w, uint32_t index, int32_t entry, int32_t max_level,
                  const uint32_t *earlier, size_t n_earlier);
/* The second half: appends the n sources to target's list at level (each once) and prunes it back
** to M. Writes only target's list. */
void link_back(TrnEngine *e, TrnGraphScratch *s, uint32_t target, int32_t level,
               const uint32_t *sources, size_t n);
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
/* Frees a node's neighbour lists and zeroes it (level 0). */
void node_reset(TrnNode *node);
/* Gives the node's level l the k ids at ids (raw little-endian uint32, as the store holds them),
** in a list of room for at least 8 that doubles as it grows; nothing when k is 0. */
void node_set_list(TrnNode *node, int32_t l, const void *ids, uint32_t k);

#endif /* TRN_HNSW_H */
