/*
** hnsw.cpp -- the hierarchical navigable small-world graph over the chunk vectors.
**
** Every chunk slot has a node (TrnNode) with one neighbour list per level 0..level. A node keeps
** at most M neighbours at every level, level 0 included. Distances are 1 - dot(a, b) over unit
** vectors, recomputed from the vectors every time.
**
** The graph is kept in parts (e->graph): chunk slot i is a node of part i % graph_parts, and each
** part is a graph of its own, with its own entry point, whose nodes link only to nodes of the same
** part. A search walks every part and takes the nearest of all. A group of new chunks is linked
** with each part on a worker of its own (hnsw_insert_many); as no two parts share a node, the
** graph is the one that linking the chunks one at a time gives, with any number of workers. A
** replayed log's vectors wait outside the graph until the handle writes (link_replayed); a
** search measures them one by one. An index stored before there were parts keeps one until a
** rebuild of its graph (a compaction) makes it as many as a new one has.
**
** Deleted chunks stay in the graph: searches pass through them, but they never enter a result
** set, are never chosen as neighbours, and are dropped whenever a list is pruned.
**
** The exact order of ties matters, because it decides which of two equally distant nodes
** becomes a neighbour:
**   - heap sift-up swaps unless the parent is strictly better (an equal newcomer rises above an
**     older entry); sift-down moves to the strictly better child only and stops on ties;
**   - the neighbour selection sorts by selection sort, the earliest of equal distances first;
**   - greedy_update replaces the current node only on a strictly smaller distance, and scans
**     the list of the node the pass began with, even after the current node changed.
**
** Speed: a part's visited set is epoch-stamped, so starting a search costs no clearing, and the
** heaps and candidate arrays live in the part's scratch and are reused between calls.
** Search and insertion allocate nothing once the buffers have grown to size.
*/
#include "internal.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace
{

/* One heap entry: the chunk index and its distance. 8 bytes, index in the low half. */
struct HeapEntry {
    uint32_t index;
    float dist;
};
static_assert(sizeof(HeapEntry) == 8, "heap entries are 8 bytes");

/* A binary heap of entries: the result heap W keeps the largest distance on top (a max-heap),
** the candidate heap C the smallest (a min-heap); the functions take which as IS_MAX. */
struct Heap {
    HeapEntry *items;
    int32_t size;
    int32_t capacity;
};

/* A growable array of entries. */
struct EntryArray {
    HeapEntry *items;
    int32_t capacity;
};

} // namespace

struct TrnGraphScratch {
    Heap w;               /* result heap of search_layer */
    Heap c;               /* candidate heap of search_layer */
    EntryArray sorted;    /* W emptied in ascending order */
    EntryArray selected;  /* output of select_neighbors_diverse during insertion */
    EntryArray prune_in;  /* candidates of prune_neighbors */
    EntryArray prune_out; /* selection of prune_neighbors */
    uint32_t *fresh;      /* newly visited neighbours of one expanded node */
    int32_t fresh_capacity;
};

namespace
{

constexpr int PREFETCH_LINES = 8; /* cache lines of a vector fetched ahead of its use */

inline const float *vec_at(const TrnEngine *e, uint32_t i)
{
    return chunk_vector(e, i);
}

inline float dist_to(const TrnEngine *e, const float *q, uint32_t i)
{
    return 1.0f - vec_dot(q, vec_at(e, i), (size_t)e->dim);
}

inline bool is_deleted(const TrnEngine *e, uint32_t i)
{
    return e->chunks[i].deleted != 0 || e->chunks[i].pending != 0;
}

inline void prefetch_vector(const TrnEngine *e, uint32_t i)
{
    const char *p = (const char *)vec_at(e, i);
    size_t bytes = (size_t)e->dim * sizeof(float);
    int lines = (int)((bytes + 63) / 64);
    if (lines > PREFETCH_LINES) {
        lines = PREFETCH_LINES;
    }
    for (int l = 0; l < lines; l++) {
        __builtin_prefetch(p + 64 * l, 0, 3);
    }
}

void entries_reserve(EntryArray *a, int32_t n)
{
    if (a->capacity >= n) {
        return;
    }
    int32_t c = a->capacity > 0 ? a->capacity : 64;
    while (c < n) {
        c *= 2;
    }
    a->items = (HeapEntry *)xrealloc(a->items, xmul((size_t)c, sizeof(HeapEntry)));
    a->capacity = c;
}

void heap_reserve(Heap *h, int32_t n)
{
    if (h->capacity >= n) {
        return;
    }
    int32_t c = h->capacity > 0 ? h->capacity : 64;
    while (c < n) {
        c *= 2;
    }
    h->items = (HeapEntry *)xrealloc(h->items, xmul((size_t)c, sizeof(HeapEntry)));
    h->capacity = c;
}

/* a belongs above b: strictly larger distance in a max-heap, strictly smaller in a min-heap. */
template <bool IS_MAX>
inline bool heap_above(float a, float b)
{
    return IS_MAX ? a > b : a < b;
}

/* Pushes x; when full, the buffer doubles. The entry sifts up past every parent that does not
** stand strictly above it. */
template <bool IS_MAX>
inline void heap_push(Heap *h, HeapEntry x)
{
    if (h->size == h->capacity) {
        heap_reserve(h, h->capacity > 0 ? h->capacity * 2 : 64);
    }
    HeapEntry *a = h->items;
    int32_t pos = h->size++;
    while (pos > 0) {
        int32_t parent = (pos - 1) / 2;
        if (heap_above<IS_MAX>(a[parent].dist, x.dist)) {
            break;
        }
        a[pos] = a[parent];
        pos = parent;
    }
    a[pos] = x;
}

/* Removes and returns the top (the heap is not empty). The last entry sifts down from the root,
** moving to a child only when it stands strictly above; of two children the right one is taken
** only when it stands strictly above the left one. */
template <bool IS_MAX>
inline HeapEntry heap_pop(Heap *h)
{
    HeapEntry *a = h->items;
    HeapEntry top = a[0];
    int32_t n = --h->size;
    if (n == 0) {
        return top;
    }
    HeapEntry x = a[n];
    int32_t pos = 0;
    for (;;) {
        int32_t child = 2 * pos + 1;
        if (child >= n) {
            break;
        }
        if (child + 1 < n && heap_above<IS_MAX>(a[child + 1].dist, a[child].dist)) {
            child += 1;
        }
        if (!heap_above<IS_MAX>(a[child].dist, x.dist)) {
            break;
        }
        a[pos] = a[child];
        pos = child;
    }
    a[pos] = x;
    return top;
}

/* Starts a new epoch of the visited set, growing it to n marks (new marks zero). */
void vis_reset(TrnVisited *v, uint32_t n)
{
    if (n > v->length) {
        if (n > v->capacity) {
            uint32_t c = v->capacity > 0 ? v->capacity : 1024;
            while (c < n) {
                c = c > UINT32_MAX / 2 ? n : c * 2;
            }
            v->marks = (uint32_t *)xrealloc(v->marks, xmul((size_t)c, sizeof(uint32_t)));
            memset(v->marks + v->capacity, 0, (size_t)(c - v->capacity) * sizeof(uint32_t));
            v->capacity = c;
        }
        v->length = n;
    }
    if (v->epoch == UINT32_MAX) {
        memset(v->marks, 0, (size_t)v->capacity * sizeof(uint32_t));
        v->epoch = 1;
    } else {
        v->epoch += 1;
    }
}

/* The part of the graph slot i is a node of. */
inline TrnGraphPart &part_of(TrnEngine *e, uint32_t i)
{
    return e->graph[e->graph_parts > 1 ? i % (uint32_t)e->graph_parts : 0];
}

TrnGraphScratch *scratch_of(TrnGraphPart &p)
{
    if (!p.scratch) {
        p.scratch = (TrnGraphScratch *)xcalloc(1, sizeof(TrnGraphScratch));
    }
    return p.scratch;
}

/* Greedy descent on one level: moves to a strictly closer neighbour until none is. Each pass
** scans the list of the node it began with. */
uint32_t greedy_update(TrnEngine *e, const float *q, uint32_t cur, int32_t level)
{
    float best = dist_to(e, q, cur);
    for (;;) {
        const TrnNode *node = &e->nodes[cur];
        int32_t n = node->count[level];
        if (n <= 0) {
            return cur;
        }
        const uint32_t *list = node->neighbors[level]; /* the pass scans this list to its end */
        bool changed = false;
        for (int32_t j = 0; j < n; j++) {
            if (j + 1 < n && list[j + 1] < e->count) {
                prefetch_vector(e, list[j + 1]);
            }
            uint32_t nb = list[j];
            if (nb >= e->count) {
                continue;
            }
            float d = dist_to(e, q, nb);
            if (d < best) {
                best = d;
                cur = nb;
                changed = true;
            }
        }
        if (!changed) {
            return cur;
        }
    }
}

/* Best-first search of one level from entry; the ef nearest live chunks end up in w. Every newly
** visited node becomes a candidate, whether or not it enters w. */
void search_layer(TrnEngine *e, TrnGraphScratch *s, const float *q, uint32_t entry, int32_t level,
                  int32_t ef, Heap *w, TrnVisited *vis)
{
    Heap *c = &s->c;
    c->size = 0;
    heap_reserve(c, ef + 8);
    uint32_t *marks = vis->marks;
    const uint32_t epoch = vis->epoch;
    const uint32_t length = vis->length;

    float d0 = dist_to(e, q, entry);
    heap_push<false>(c, HeapEntry{entry, d0});
    if (!is_deleted(e, entry)) {
        heap_push<true>(w, HeapEntry{entry, d0});
    }
    if (entry < length) {
        marks[entry] = epoch;
    }

    while (c->size > 0) {
        HeapEntry cand = heap_pop<false>(c);
        if (w->size > 0 && cand.dist > w->items[0].dist) {
            break;
        }
        const TrnNode *node = &e->nodes[cand.index];
        int32_t n = node->count[level];
        if (n <= 0) {
            continue;
        }
        const uint32_t *list = node->neighbors[level];
        if (n > s->fresh_capacity) {
            int32_t cap = s->fresh_capacity > 0 ? s->fresh_capacity : 64;
            while (cap < n) {
                cap *= 2;
            }
            s->fresh = (uint32_t *)xrealloc(s->fresh, xmul((size_t)cap, sizeof(uint32_t)));
            s->fresh_capacity = cap;
        }
        /* Mark first, in list order, then measure: the same nodes are visited in the same
        ** order as a one-pass loop, and the vectors can be fetched ahead. */
        int32_t m = 0;
        for (int32_t j = 0; j < n; j++) {
            uint32_t nb = list[j];
            if (nb >= length || marks[nb] == epoch) {
                continue;
            }
            marks[nb] = epoch;
            __builtin_prefetch(&e->chunks[nb].deleted, 0, 3);
            s->fresh[m++] = nb;
        }
        if (m > 0) {
            prefetch_vector(e, s->fresh[0]);
        }
        for (int32_t j = 0; j < m; j++) {
            uint32_t nb = s->fresh[j];
            if (j + 1 < m) {
                prefetch_vector(e, s->fresh[j + 1]);
            }
            float dn = dist_to(e, q, nb);
            heap_push<false>(c, HeapEntry{nb, dn});
            if (is_deleted(e, nb)) {
                continue;
            }
            if (w->size < ef) {
                heap_push<true>(w, HeapEntry{nb, dn});
            } else if (dn < w->items[0].dist) {
                heap_push<true>(w, HeapEntry{nb, dn});
                heap_pop<true>(w);
            }
        }
    }
}

/* Empties w into out, ascending by distance (the top goes last). Returns the count. */
int32_t drain_sorted(Heap *w, EntryArray *out)
{
    int32_t n = w->size;
    entries_reserve(out, n);
    for (int32_t i = n - 1; i >= 0; i--) {
        out->items[i] = heap_pop<true>(w);
    }
    return n;
}

/* True when the selection sort below would move nothing: distances are non-decreasing and none
** is NaN (with NaN the order is not transitive, so the neighbour test says nothing). */
bool already_sorted(const HeapEntry *a, int32_t n)
{
    for (int32_t i = 0; i < n; i++) {
        if (a[i].dist != a[i].dist) {
            return false;
        }
        if (i > 0 && a[i].dist < a[i - 1].dist) {
            return false;
        }
    }
    return true;
}

/* Sorts cand ascending by selection sort (earliest of equal distances first), then keeps up to
** max_n live candidates that are closer to the base than to every one kept before them. Rejected
** candidates are not used to fill up. Returns the number written to out. */
int32_t select_neighbors_diverse(TrnEngine *e, HeapEntry *cand, int32_t n, HeapEntry *out,
                                 int32_t max_n)
{
    if (n < 1) {
        return 0;
    }
    if (!already_sorted(cand, n)) {
        for (int32_t i = 0; i < n; i++) {
            int32_t best = i;
            for (int32_t j = i + 1; j < n; j++) {
                if (cand[j].dist < cand[best].dist) {
                    best = j;
                }
            }
            HeapEntry t = cand[i];
            cand[i] = cand[best];
            cand[best] = t;
        }
    }
    if (max_n < 1) {
        return 0;
    }
    const size_t dim = (size_t)e->dim;
    int32_t sel = 0;
    for (int32_t i = 0; i < n && sel < max_n; i++) {
        HeapEntry c = cand[i];
        if (is_deleted(e, c.index)) {
            continue;
        }
        const float *vc = vec_at(e, c.index);
        bool keep = true;
        for (int32_t k = 0; k < sel; k++) {
            if (1.0f - vec_dot(vc, vec_at(e, out[k].index), dim) < c.dist) {
                keep = false;
                break;
            }
        }
        if (keep) {
            out[sel++] = c;
        }
    }
    return sel;
}

/* Grows a neighbour list's capacity to twice the old one (8 from 0), doubling again while it is
** still below need. */
void grow_list(TrnNode *node, int32_t level, int32_t need)
{
    int32_t c = node->capacity[level] > 0 ? node->capacity[level] * 2 : 8;
    while (c < need) {
        c *= 2;
    }
    node->neighbors[level] =
        (uint32_t *)xrealloc(node->neighbors[level], xmul((size_t)c, sizeof(uint32_t)));
    node->capacity[level] = c;
}

/* Appends the edge from -> to at level unless it is already there. */
void add_neighbor_oneway(TrnEngine *e, uint32_t from, int32_t level, uint32_t to)
{
    TrnNode *node = &e->nodes[from];
    int32_t n = node->count[level];
    uint32_t *list = node->neighbors[level];
    for (int32_t j = 0; j < n; j++) {
        if (list[j] == to) {
            return;
        }
    }
    if (n >= node->capacity[level]) {
        /* the new capacity must be greater than the count */
        grow_list(node, level, n + 1);
    }
    node->neighbors[level][n] = to;
    node->count[level] = n + 1;
}

/* Cuts the list of id at level back to at most max_n by the diversity rule; the kept list is
** ordered by ascending distance from id, and deleted neighbours are dropped. */
void prune_neighbors(TrnEngine *e, TrnGraphScratch *s, uint32_t id, int32_t level, int32_t max_n)
{
    TrnNode *node = &e->nodes[id];
    int32_t n = node->count[level];
    if (n <= max_n) {
        return;
    }
    entries_reserve(&s->prune_in, n);
    entries_reserve(&s->prune_out, max_n > 0 ? max_n : 1);
    const float *base = vec_at(e, id);
    const uint32_t *list = node->neighbors[level];
    int32_t m = 0;
    for (int32_t j = 0; j < n; j++) {
        uint32_t nb = list[j];
        if (is_deleted(e, nb)) {
            continue;
        }
        s->prune_in.items[m++] = HeapEntry{nb, dist_to(e, base, nb)};
    }
    int32_t sel = select_neighbors_diverse(e, s->prune_in.items, m, s->prune_out.items, max_n);
    node->count[level] = 0;
    if (node->capacity[level] < sel) {
        grow_list(node, level, sel);
    }
    for (int32_t j = 0; j < sel; j++) {
        node->neighbors[level][j] = s->prune_out.items[j].index;
    }
    node->count[level] = sel;
}

/* Frees a node's lists and zeroes it (level 0). */
void clear_node(TrnNode *node)
{
    for (int l = 0; l < TRN_MAX_LEVELS; l++) {
        free(node->neighbors[l]);
    }
    memset(node, 0, sizeof(*node));
}

} // namespace

void node_reset(TrnNode *node)
{
    for (int l = 0; l < TRN_MAX_LEVELS; l++) {
        free(node->neighbors[l]);
    }
    memset(node, 0, sizeof *node);
}

void node_set_list(TrnNode *node, int32_t l, const void *ids, uint32_t k)
{
    if (k == 0) {
        return;
    }
    int32_t cap = 8;
    while ((uint32_t)cap < k) {
        cap *= 2;
    }
    node->neighbors[l] = static_cast<uint32_t *>(xmalloc(xmul((size_t)cap, sizeof(uint32_t))));
    node->capacity[l] = cap;
    node->count[l] = (int32_t)k;
    memcpy(node->neighbors[l], ids, (size_t)k * sizeof(uint32_t));
}

void hnsw_insert(TrnEngine *e, uint32_t index)
{
    TrnGraphPart &p = part_of(e, index);
    int32_t level = e->nodes[index].level;
    if (p.entry_point == -1) {
        p.entry_point = (int32_t)index;
        p.max_level = level;
        return;
    }
    TrnGraphScratch *s = scratch_of(p);
    const float *q = vec_at(e, index);
    uint32_t cur = (uint32_t)p.entry_point;
    for (int32_t l = p.max_level; l > level; l--) {
        cur = greedy_update(e, q, cur, l);
    }
    const int32_t M = e->M;
    entries_reserve(&s->selected, M > 0 ? M : 1);
    int32_t top = level < p.max_level ? level : p.max_level;
    for (int32_t lc = top; lc >= 0; lc--) {
        vis_reset(&p.visited, (uint32_t)e->count);
        s->w.size = 0;
        heap_reserve(&s->w, e->ef_construction + 8);
        search_layer(e, s, q, cur, lc, e->ef_construction, &s->w, &p.visited);
        int32_t n = drain_sorted(&s->w, &s->sorted);
        HeapEntry *sorted = s->sorted.items;
        int32_t sel = select_neighbors_diverse(e, sorted, n, s->selected.items, M);
        for (int32_t j = 0; j < sel; j++) {
            uint32_t nb = s->selected.items[j].index;
            add_neighbor_oneway(e, index, lc, nb);
            add_neighbor_oneway(e, nb, lc, index);
            prune_neighbors(e, s, nb, lc, M);
        }
        prune_neighbors(e, s, index, lc, M);
        float best = dist_to(e, q, cur);
        for (int32_t j = 0; j < n; j++) {
            if (sorted[j].dist < best) {
                best = sorted[j].dist;
                cur = sorted[j].index;
            }
        }
    }
    if (level > p.max_level) {
        p.entry_point = (int32_t)index;
        p.max_level = level;
    }
}

namespace
{

/* Fewest slots that hnsw_insert_many links on several workers: starting a thread costs about as
** much as linking a chunk. */
constexpr size_t INSERT_MANY_MIN = 16;

struct InsertJob {
    TrnEngine *e;
    const uint32_t *slots;
    size_t count;
};

/* Links the job's slots of one part, in their order. */
void insert_part(void *arg, size_t part)
{
    const InsertJob *job = static_cast<const InsertJob *>(arg);
    const uint32_t parts = (uint32_t)job->e->graph_parts;
    for (size_t i = 0; i < job->count; i++) {
        if (job->slots[i] % parts == part) {
            hnsw_insert(job->e, job->slots[i]);
        }
    }
}

} // namespace

void graph_clear(TrnEngine *e, int32_t parts)
{
    e->graph_parts = parts;
    e->unlinked_count = 0;
    for (TrnGraphPart &p : e->graph) {
        p.entry_point = -1;
        p.max_level = -1;
    }
}

void hnsw_insert_many(TrnEngine *e, const uint32_t *slots, size_t count)
{
    InsertJob job{e, slots, count};
    if (e->graph_parts > 1 && e->embed_threads > 1 && count >= INSERT_MANY_MIN) {
        work_finish(work_start(e, (size_t)e->graph_parts, insert_part, &job, true));
        return;
    }
    /* One part after the other here too: chunks cut from one file lie in neighbouring slots and
    ** near each other in the graph, so the nodes one insertion visits are still in the cache for
    ** the next one of the same part. */
    for (int32_t p = 0; p < e->graph_parts; p++) {
        insert_part(&job, (size_t)p);
    }
}

void hnsw_rebuild(TrnEngine *e)
{
    /* Every link is made again: an index kept in one part from before parts were made takes
    ** as many as a new one. */
    graph_clear(e, TRN_GRAPH_PARTS);
    for (uint64_t i = 0; i < e->count; i++) {
        clear_node(&e->nodes[i]);
    }
    for (uint64_t i = 0; i < e->count; i++) {
        if (e->chunks[i].deleted || e->chunks[i].pending) {
            continue;
        }
        int32_t level = draw_level(&e->level_state, e->level_mult);
        e->nodes[i].level = level;
        TrnGraphPart &p = part_of(e, (uint32_t)i);
        if (p.entry_point == -1) {
            /* The first live chunk of a part is its own entry point, so it links to itself. */
            p.entry_point = (int32_t)i;
            p.max_level = level;
        }
        hnsw_insert(e, (uint32_t)i);
    }
}

int32_t hnsw_query(TrnEngine *e, const float *q, int32_t k, uint32_t *out_indices,
                   float *out_scores)
{
    return hnsw_query_width(e, q, k, e->ef_search, out_indices, out_scores);
}

namespace
{

/* The up to ef nearest live chunks of one part, ascending; returns their number. */
int32_t query_part(TrnEngine *e, TrnGraphPart &p, const float *q, int32_t ef,
                   const HeapEntry **sorted)
{
    if (p.entry_point == -1 || (uint64_t)p.entry_point >= e->count) {
        return 0; /* empty, or a damaged store: nothing sensible to search */
    }
    TrnGraphScratch *s = scratch_of(p);
    uint32_t cur = (uint32_t)p.entry_point;
    for (int32_t l = p.max_level; l >= 1; l--) {
        cur = greedy_update(e, q, cur, l);
    }
    vis_reset(&p.visited, (uint32_t)e->count);
    s->w.size = 0;
    heap_reserve(&s->w, ef + 8);
    search_layer(e, s, q, cur, 0, ef, &s->w, &p.visited);
    int32_t n = drain_sorted(&s->w, &s->sorted);
    *sorted = s->sorted.items;
    return n;
}

/* The up to ef nearest of the live chunks a replayed log left unlinked, each measured,
** ascending (nearer first, then the lower slot); returns their number. */
int32_t query_unlinked(const TrnEngine *e, const float *q, int32_t ef,
                       std::vector<HeapEntry, XAllocator<HeapEntry>> *out)
{
    out->clear();
    for (uint64_t i = 0; i < e->unlinked_count; i++) {
        const uint32_t slot = e->unlinked[i];
        if (!is_deleted(e, slot)) {
            out->push_back(HeapEntry{slot, dist_to(e, q, slot)});
        }
    }
    const size_t n = std::min(out->size(), (size_t)ef);
    std::partial_sort(
        out->begin(), out->begin() + (ptrdiff_t)n, out->end(), [](HeapEntry a, HeapEntry b) {
            return a.dist < b.dist || (a.dist == b.dist && a.index < b.index);
        });
    return (int32_t)n;
}

} // namespace

/* Each part is searched as wide as ef, so are the chunks not yet linked, and the nearest of all
** are taken, the first part's first where two are as near. */
int32_t hnsw_query_width(TrnEngine *e, const float *q, int32_t k, int32_t ef, uint32_t *out_indices,
                         float *out_scores)
{
    if (k < 1 || e->count == 0 || ef < 1) {
        return 0;
    }
    const HeapEntry *found[TRN_GRAPH_PARTS + 1] = {};
    int32_t n[TRN_GRAPH_PARTS + 1] = {}, at[TRN_GRAPH_PARTS + 1] = {};
    for (int32_t p = 0; p < e->graph_parts; p++) {
        n[p] = query_part(e, e->graph[p], q, ef, &found[p]);
    }
    int32_t sources = e->graph_parts;
    std::vector<HeapEntry, XAllocator<HeapEntry>> unlinked;
    if (e->unlinked_count > 0) {
        n[sources] = query_unlinked(e, q, ef, &unlinked);
        found[sources++] = unlinked.data();
    }
    int32_t written = 0;
    while (written < k) {
        int32_t best = -1;
        for (int32_t p = 0; p < sources; p++) {
            if (at[p] < n[p] && (best < 0 || found[p][at[p]].dist < found[best][at[best]].dist)) {
                best = p;
            }
        }
        if (best < 0) {
            break;
        }
        uint32_t idx = found[best][at[best]++].index;
        if (is_deleted(e, idx)) {
            continue;
        }
        out_indices[written] = idx;
        out_scores[written] = vec_dot(q, vec_at(e, idx), (size_t)e->dim);
        written++;
    }
    return written;
}

void hnsw_free_scratch(TrnEngine *e)
{
    for (TrnGraphPart &p : e->graph) {
        free(p.visited.marks);
        memset(&p.visited, 0, sizeof p.visited);
        TrnGraphScratch *s = p.scratch;
        if (s) {
            free(s->w.items);
            free(s->c.items);
            free(s->sorted.items);
            free(s->selected.items);
            free(s->prune_in.items);
            free(s->prune_out.items);
            free(s->fresh);
            free(s);
            p.scratch = nullptr;
        }
    }
}
