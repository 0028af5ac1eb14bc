/*
** hnsw.h -- the graph of the chunks' vectors (hnsw.cpp): its records in the handle and the
** insertion and search over it.
*/
#ifndef TRN_HNSW_H
#define TRN_HNSW_H

#include "tarnwick.h"

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

/* A new index keeps its graph in this many parts, so that as many threads link its chunks at
** once, each in a part of its own. */
constexpr int TRN_GRAPH_PARTS = 2;

/* One part of the graph, with the scratch of searches in it, kept between calls so that a search
** clears nothing. */
struct TrnGraphPart {
    int32_t entry_point; /* -1 for an empty part */
    int32_t max_level;   /* -1 for an empty part */
    TrnVisited visited;
    TrnGraphScratch *scratch; /* NULL until the first search in the part */
};

/* Links chunk index (whose level is set) into the graph. */
void hnsw_insert(TrnEngine *e, uint32_t index);
/* Links the slots (their levels set) as hnsw_insert one after the other would, each part's on a
** worker of its own (nodes of different parts never meet). */
void hnsw_insert_many(TrnEngine *e, const uint32_t *slots, size_t count);
/* Empties the graph's parts, parts of them from now on; the nodes are left as they are. */
void graph_clear(TrnEngine *e, int32_t parts);
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
