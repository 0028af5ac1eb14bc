/*
** hnsw_group.cpp -- linking a group of chunks into the graph on the embedding workers.
**
** Inserting a chunk (hnsw.cpp) is two halves: link_prepare searches the graph at each of the
** chunk's levels and chooses its neighbours, reading the graph and writing only the chunk's own
** lists; link_back then adds the chunk to each neighbour's list and prunes that list back to M.
** The first half is nearly all of the cost. A group of chunks that the meaning phase commits at
** once is linked in rounds of up to ROUND_MEMBERS members, each in three steps:
**
**   1. on every worker, each member's first half against the graph as it stood before the group
**      (no member is reachable in it, so the lists the workers write are read by nobody). The
**      members cannot find each other that way, so each also takes the members before it, at
**      their levels, as candidates beside those its searches found;
**   2. on the calling thread, the links back of every member, sorted by the list they go to (a
**      member's among them, when a later one chose it);
**   3. on every worker, each such list takes all of its new links at once, in the members' order,
**      and is pruned once.
**
** Each step decides alone what it writes, so the graph depends on the members and their order,
** never on the number of workers or which worker took what. Against inserting the members one
** by one, each member sees the earlier members of its round exactly instead of through the graph,
** and a list that gains several links in a round is pruned once instead of after each. The log
** holds each group as the run of its 'V' records, and replay links such a run as one group
** (wal.cpp), so a handle that replays the log gets the graph the writer made.
*/
#include "internal.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace
{

/* A link back: source goes into target's list at level. */
struct Edge {
    uint32_t target;
    int32_t level;
    uint32_t source;
};

struct GroupJob {
    TrnEngine *e;
    const uint32_t *slots;
    size_t count;
    int32_t entry; /* the graph as it stood before the group */
    int32_t max_level;
    const Edge *edges;
    const size_t *runs; /* run r is edges [runs[r], runs[r + 1]) */
    size_t run_count;
    std::atomic<size_t> next;
};

void prepare_members(void *arg, int32_t i)
{
    GroupJob *job = static_cast<GroupJob *>(arg);
    GraphWorker w = graph_worker(job->e, i);
    for (;;) {
        size_t k = job->next.fetch_add(1, std::memory_order_relaxed);
        if (k >= job->count) {
            return;
        }
        link_prepare(job->e, w, job->slots[k], job->entry, job->max_level, job->slots, k);
    }
}

constexpr size_t RUNS_A_TAKE = 16;
/* Members linked in one round: each compares itself with all members before it in the round, so
** a round of n costs n * n / 2 distances beside the searches; the next round finds this one's
** members through the graph. */
constexpr size_t ROUND_MEMBERS = 256;

void link_runs(void *arg, int32_t i)
{
    GroupJob *job = static_cast<GroupJob *>(arg);
    GraphWorker w = graph_worker(job->e, i);
    std::vector<uint32_t, XAllocator<uint32_t>> sources;
    for (;;) {
        size_t first = job->next.fetch_add(RUNS_A_TAKE, std::memory_order_relaxed);
        if (first >= job->run_count) {
            return;
        }
        size_t end = std::min(first + RUNS_A_TAKE, job->run_count);
        for (size_t r = first; r < end; r++) {
            const Edge *run = job->edges + job->runs[r];
            size_t n = job->runs[r + 1] - job->runs[r];
            sources.clear();
            for (size_t k = 0; k < n; k++) {
                sources.push_back(run[k].source);
            }
            link_back(job->e, w.s, run->target, run->level, sources.data(), n);
        }
    }
}

/* Links count members (the graph not empty, count > 1) as one round of the three steps. */
void link_round(TrnEngine *e, const uint32_t *slots, size_t count)
{
    int32_t workers = e->embed_threads < EMBED_THREADS_MAX ? e->embed_threads : EMBED_THREADS_MAX;
    workers = workers < 1 ? 1 : (size_t)workers > count ? (int32_t)count : workers;
    for (int32_t i = 0; i < workers; i++) {
        graph_worker(e, i);
    }
    GroupJob job;
    job.e = e;
    job.slots = slots;
    job.count = count;
    job.entry = e->entry_point;
    job.max_level = e->max_level;
    job.next.store(0, std::memory_order_relaxed);
    run_on_workers(workers, prepare_members, &job);

    std::vector<Edge, XAllocator<Edge>> edges;
    for (size_t k = 0; k < count; k++) {
        const TrnNode *node = &e->nodes[slots[k]];
        for (int32_t lc = node->level; lc >= 0; lc--) {
            for (int32_t j = 0; j < node->count[lc]; j++) {
                edges.push_back(Edge{node->neighbors[lc][j], lc, slots[k]});
            }
        }
    }
    std::stable_sort(edges.begin(), edges.end(), [](const Edge &a, const Edge &b) {
        return a.target != b.target ? a.target < b.target : a.level < b.level;
    });
    std::vector<size_t, XAllocator<size_t>> runs;
    for (size_t k = 0; k < edges.size(); k++) {
        if (k == 0 || edges[k].target != edges[k - 1].target
            || edges[k].level != edges[k - 1].level) {
            runs.push_back(k);
        }
    }
    runs.push_back(edges.size());
    job.edges = edges.data();
    job.runs = runs.data();
    job.run_count = runs.size() - 1;
    job.next.store(0, std::memory_order_relaxed);
    run_on_workers(workers, link_runs, &job);

    for (size_t k = 0; k < count; k++) {
        if (e->nodes[slots[k]].level > e->max_level) {
            e->entry_point = (int32_t)slots[k];
            e->max_level = e->nodes[slots[k]].level;
        }
    }
}

} // namespace

void hnsw_insert_group(TrnEngine *e, const uint32_t *slots, size_t count)
{
    for (size_t k = 0; k < count; k++) {
        e->nodes[slots[k]].level = draw_level(&e->level_state, e->level_mult);
    }
    /* The first chunk of an empty graph becomes its entry point. */
    if (count > 0 && e->entry_point == -1) {
        hnsw_insert(e, *slots++);
        count--;
    }
    for (size_t first = 0; first < count; first += ROUND_MEMBERS) {
        size_t n = count - first < ROUND_MEMBERS ? count - first : ROUND_MEMBERS;
        if (n == 1) {
            hnsw_insert(e, slots[first]);
        } else {
            link_round(e, slots + first, n);
        }
    }
}
