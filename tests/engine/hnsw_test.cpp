// Tests of the HNSW graph: insertion, rebuild and the k-nearest-neighbour query, on engines built
// by hand (vectors set directly, no encoder), so every case runs in milliseconds.
#include "internal.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <vector>

namespace
{

// A bare handle with the graph fields only: chunk records, vectors and nodes, no store, no log;
// its graph in one part, unless a test says otherwise.
struct HandGraph {
    TrnEngine *e;

    HandGraph(int32_t dim, int32_t m, int32_t ef_construction, int32_t ef_search, uint64_t cap)
        : e(bare_engine())
    {
        e->dim = dim;
        e->M = m;
        e->ef_construction = ef_construction;
        e->ef_search = ef_search;
        e->level_mult = m >= 2 ? 1.0f / (float)std::log((double)m) : 1.0f;
        graph_clear(e, 1);
        ensure_cap(e, cap);
    }
    ~HandGraph() { free_bare_engine(e); }
    HandGraph(const HandGraph &) = delete;
    HandGraph &operator=(const HandGraph &) = delete;

    float *vec(uint64_t i) { return e->vectors + i * e->dim; }

    // Stores v (normalised) in the next slot with the given level; does not link it.
    uint32_t place(const std::vector<float> &v, int32_t level)
    {
        uint32_t slot = (uint32_t)e->count++;
        memcpy(vec(slot), v.data(), sizeof(float) * e->dim);
        vec_normalize(vec(slot), e->dim);
        e->nodes[slot].level = level;
        return slot;
    }
    uint32_t add(const std::vector<float> &v, int32_t level)
    {
        uint32_t slot = place(v, level);
        hnsw_insert(e, slot);
        return slot;
    }
    void remove(uint32_t i)
    {
        e->chunks[i].deleted = 1;
        e->deleted_count++;
    }
    std::vector<uint32_t> list(uint32_t i, int level) const
    {
        const TrnNode &n = e->nodes[i];
        return std::vector<uint32_t>(n.neighbors[level], n.neighbors[level] + n.count[level]);
    }
    // Sets the list of i at level by hand (as a loaded store would).
    void set_list(uint32_t i, int level, std::vector<uint32_t> ids)
    {
        TrnNode &n = e->nodes[i];
        n.neighbors[level] = static_cast<uint32_t *>(xrealloc(n.neighbors[level], 8 * 4));
        n.capacity[level] = 8;
        n.count[level] = (int32_t)ids.size();
        std::copy(ids.begin(), ids.end(), n.neighbors[level]);
    }
    std::vector<uint32_t> query(const std::vector<float> &q, int32_t k)
    {
        std::vector<uint32_t> idx(k > 0 ? k : 1);
        std::vector<float> sim(k > 0 ? k : 1);
        int32_t n = hnsw_query(e, q.data(), k, idx.data(), sim.data());
        idx.resize(n > 0 ? n : 0);
        return idx;
    }
};

std::vector<float> unit(std::initializer_list<float> v)
{
    std::vector<float> out(v);
    vec_normalize(out.data(), out.size());
    return out;
}

// Seeded Gaussian clusters around random centres, normalised.
struct Clusters {
    std::mt19937 rng;
    std::vector<std::vector<float>> centres;
    int dim;
    Clusters(int dim, int count, uint32_t seed) : rng(seed), dim(dim)
    {
        std::normal_distribution<float> g(0.0f, 1.0f);
        for (int c = 0; c < count; c++) {
            std::vector<float> v(dim);
            for (float &x : v) {
                x = g(rng);
            }
            vec_normalize(v.data(), dim);
            centres.push_back(v);
        }
    }
    std::vector<float> draw()
    {
        std::normal_distribution<float> g(0.0f, 0.35f / std::sqrt((float)dim) * 3.0f);
        const std::vector<float> &c = centres[rng() % centres.size()];
        std::vector<float> v(dim);
        for (int i = 0; i < dim; i++) {
            v[i] = c[i] + g(rng);
        }
        vec_normalize(v.data(), dim);
        return v;
    }
};

std::vector<uint32_t> brute_force(HandGraph &g, const std::vector<float> &q, int k)
{
    std::vector<std::pair<float, uint32_t>> all;
    for (uint32_t i = 0; i < g.e->count; i++) {
        if (!g.e->chunks[i].deleted) {
            all.push_back({1.0f - vec_dot(q.data(), g.vec(i), g.e->dim), i});
        }
    }
    std::partial_sort(all.begin(), all.begin() + k, all.end());
    std::vector<uint32_t> out;
    for (int i = 0; i < k; i++) {
        out.push_back(all[i].second);
    }
    return out;
}

// Every list: at most M entries, no duplicates, valid indices, only at levels up to the node's.
void expect_lists_well_formed(HandGraph &g, bool allow_self)
{
    for (uint32_t i = 0; i < g.e->count; i++) {
        const TrnNode &n = g.e->nodes[i];
        ASSERT_GE(n.level, 0);
        ASSERT_LE(n.level, 31);
        for (int l = 0; l < TRN_MAX_LEVELS; l++) {
            if (l > n.level) {
                EXPECT_EQ(n.count[l], 0) << "node " << i << " level " << l;
                continue;
            }
            std::vector<uint32_t> ids = g.list(i, l);
            EXPECT_LE((int)ids.size(), g.e->M) << "node " << i << " level " << l;
            EXPECT_LE(n.count[l], n.capacity[l]);
            std::set<uint32_t> seen(ids.begin(), ids.end());
            EXPECT_EQ(seen.size(), ids.size()) << "duplicate link at node " << i;
            for (uint32_t id : ids) {
                EXPECT_LT(id, g.e->count);
                if (!allow_self) {
                    EXPECT_NE(id, i);
                }
            }
        }
    }
}

struct BuiltClusters {
    Clusters data;
    HandGraph g;
    BuiltClusters(int n, int m) : data(32, 40, 7), g(32, m, 100, 50, n)
    {
        for (int i = 0; i < n; i++) {
            g.add(data.draw(), draw_level(&g.e->level_state, g.e->level_mult));
        }
    }
    double recall_at_10(int queries)
    {
        int hit = 0;
        for (int t = 0; t < queries; t++) {
            std::vector<float> q = data.draw();
            std::vector<uint32_t> got = g.query(q, 10);
            std::vector<uint32_t> want = brute_force(g, q, 10);
            for (uint32_t id : got) {
                hit += std::count(want.begin(), want.end(), id) ? 1 : 0;
            }
        }
        return (double)hit / (10.0 * queries);
    }
};

TEST(HnswInsert, FirstNodeBecomesEntryWithoutLinks)
{
    HandGraph g(4, 16, 100, 50, 8);
    uint32_t a = g.add(unit({1, 0, 0, 0}), 2);
    EXPECT_EQ(g.e->graph[0].entry_point, (int32_t)a);
    EXPECT_EQ(g.e->graph[0].max_level, 2);
    for (int l = 0; l < TRN_MAX_LEVELS; l++) {
        EXPECT_EQ(g.e->nodes[a].count[l], 0);
        EXPECT_EQ(g.e->nodes[a].neighbors[l], nullptr);
    }
}

TEST(HnswInsert, HigherNodeBecomesEntryAndLinksBothWaysBelowOldTop)
{
    HandGraph g(4, 16, 100, 50, 8);
    g.add(unit({1, 0, 0, 0}), 0);
    uint32_t b = g.add(unit({1, 1, 0, 0}), 3);
    EXPECT_EQ(g.e->graph[0].entry_point, (int32_t)b);
    EXPECT_EQ(g.e->graph[0].max_level, 3);
    EXPECT_EQ(g.list(0, 0), std::vector<uint32_t>{b});
    EXPECT_EQ(g.list(b, 0), std::vector<uint32_t>{0});
    // Levels above the old top have nobody to link to yet.
    EXPECT_EQ(g.e->nodes[b].count[1], 0);
    uint32_t c = g.add(unit({0, 1, 0, 0}), 1);
    EXPECT_EQ(g.e->graph[0].entry_point, (int32_t)b); // a lower node does not take over
    EXPECT_EQ(g.list(c, 1), std::vector<uint32_t>{b});
    g.add(unit({0, 0, 1, 0}), 3);
    EXPECT_EQ(g.e->graph[0].entry_point, (int32_t)b) << "nor does one as high";
}

TEST(HnswInsert, ClusteredRecallAndListsBoundedByM)
{
    BuiltClusters bc(3000, 16);
    expect_lists_well_formed(bc.g, false);
    // M at every level: level-0 lists fill up to 16, never to 32.
    int full = 0;
    for (uint32_t i = 0; i < bc.g.e->count; i++) {
        full += bc.g.e->nodes[i].count[0] == 16 ? 1 : 0;
    }
    EXPECT_GT(full, 0);
    EXPECT_GE(bc.recall_at_10(200), 0.95);
}

TEST(HnswInsert, SmallMKeepsEveryListWithinM)
{
    BuiltClusters bc(600, 4);
    expect_lists_well_formed(bc.g, false);
}

// X (angle 0) holds D, C, B, A (angles 0.6, 0.3, -0.25, 0.2) in that order, which is M = 4. A
// new node Y off the plane links to X and pushes X's list over M: the pruned list is sorted
// nearest first, C and D are rejected as too close to A, and nothing refills the free place.
TEST(HnswInsert, PruneSortsAndKeepsOnlyDiverseNeighbours)
{
    HandGraph g(3, 4, 10, 10, 8);
    auto at = [](float a) {
        return unit({std::cos(a), std::sin(a), 0});
    };
    uint32_t x = g.place(at(0), 0);
    uint32_t a = g.place(at(0.2f), 0);
    uint32_t b = g.place(at(-0.25f), 0);
    uint32_t c = g.place(at(0.3f), 0);
    uint32_t d = g.place(at(0.6f), 0);
    g.set_list(x, 0, {d, c, b, a});
    g.e->graph[0].entry_point = (int32_t)x;
    g.e->graph[0].max_level = 0;
    uint32_t y = g.add(unit({std::cos(0.9f), 0, std::sin(0.9f)}), 0);
    EXPECT_EQ(g.list(y, 0), std::vector<uint32_t>{x});
    EXPECT_EQ(g.list(x, 0), (std::vector<uint32_t>{a, b, y}));
}

// Node X holds two neighbours at exactly the same distance, behind a farther one. A new link
// pushes X's list over M = 1, and pruning must keep whichever of the two stands first in the list.
TEST(HnswInsert, PruneKeepsFirstOfEqualDistances)
{
    const float a = 0.3f, b = 0.9f;
    for (int order = 0; order < 2; order++) {
        HandGraph g(3, 1, 10, 10, 8);
        uint32_t x = g.place(unit({1, 0, 0}), 0);
        uint32_t pa = g.place(unit({std::cos(a), std::sin(a), 0}), 0);
        uint32_t pb = g.place(unit({std::cos(a), -std::sin(a), 0}), 0);
        uint32_t far = g.place(unit({std::cos(1.2f), std::sin(1.2f), 0}), 0);
        ASSERT_EQ(vec_dot(g.vec(x), g.vec(pa), 3), vec_dot(g.vec(x), g.vec(pb), 3));
        g.e->graph[0].entry_point = (int32_t)x;
        g.e->graph[0].max_level = 0;
        g.set_list(x,
                   0,
                   order == 0 ? std::vector<uint32_t>{far, pa, pb}
                              : std::vector<uint32_t>{far, pb, pa});
        uint32_t y = g.add(unit({std::cos(b), 0, std::sin(b)}), 0);
        EXPECT_EQ(g.list(y, 0), std::vector<uint32_t>{x});
        EXPECT_EQ(g.list(x, 0), std::vector<uint32_t>{order == 0 ? pa : pb});
    }
}

// Entry 0 reaches 2 only through deleted node 1. With a width of 2, a deleted node taking a
// place in the result set would crowd out node 0.
TEST(HnswDeleted, TraversedButNeverReturnedOrSelected)
{
    HandGraph g(3, 4, 10, 2, 8);
    g.place(unit({1, 0, 0}), 0);
    g.place(unit({0.7f, 0.7f, 0}), 0);
    g.place(unit({0, 1, 0}), 0);
    g.set_list(0, 0, {1});
    g.set_list(1, 0, {0, 2});
    g.set_list(2, 0, {1});
    g.e->graph[0].entry_point = 0;
    g.e->graph[0].max_level = 0;
    g.remove(1);
    std::vector<float> q = unit({0.1f, 1, 0});
    EXPECT_EQ(g.query(q, 5), (std::vector<uint32_t>{2, 0}));

    // A new node right next to the deleted one finds live nodes through it, never links to it.
    uint32_t n = g.add(unit({0.7f, 0.71f, 0}), 0);
    std::vector<uint32_t> ids = g.list(n, 0);
    EXPECT_FALSE(ids.empty());
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 1u), 0);

    // A deleted entry point is still where searches start.
    g.e->graph[0].entry_point = 1;
    EXPECT_EQ(g.query(q, 5).front(), 2u);
}

TEST(HnswDeleted, ManyDeletedNeverComeBack)
{
    BuiltClusters bc(1500, 16);
    for (uint32_t i = 0; i < bc.g.e->count; i += 2) {
        bc.g.remove(i);
    }
    for (int t = 0; t < 50; t++) {
        for (uint32_t id : bc.g.query(bc.data.draw(), 20)) {
            EXPECT_EQ(id % 2, 1u);
        }
    }
    EXPECT_GE(bc.recall_at_10(100), 0.9);
}

// The entry's level-1 list holds A then B, B closest to the query. Level 0 is cut into islands,
// so the level-0 result shows where the descent ended: the pass over the entry's list goes on
// after moving to A and ends on B.
TEST(HnswQuery, GreedyPassScansTheWholeListItBeganWith)
{
    HandGraph g(3, 4, 10, 10, 8);
    uint32_t e0 = g.place(unit({-1, 0, 0}), 1);
    uint32_t a = g.place(unit({0.5f, 0, 1}), 1);
    uint32_t b = g.place(unit({0.9f, 0, 0.2f}), 1);
    g.set_list(e0, 1, {a, b});
    g.e->graph[0].entry_point = (int32_t)e0;
    g.e->graph[0].max_level = 1;
    std::vector<uint32_t> got = g.query(unit({1, 0, 0}), 3);
    EXPECT_EQ(got, std::vector<uint32_t>{b});
}

TEST(HnswQuery, LimitsAndEmptyGraph)
{
    HandGraph empty(4, 16, 100, 50, 4);
    EXPECT_TRUE(empty.query(unit({1, 0, 0, 0}), 10).empty());

    BuiltClusters bc(400, 16);
    std::vector<float> q = bc.data.draw();
    EXPECT_TRUE(bc.g.query(q, 0).empty());
    EXPECT_EQ(bc.g.query(q, 7).size(), 7u);
    EXPECT_EQ(bc.g.query(q, 200).size(), 50u); // the width is ef_search whatever k is

    // Scores are the dot products, best first.
    uint32_t idx[10];
    float sim[10];
    ASSERT_EQ(hnsw_query(bc.g.e, q.data(), 10, idx, sim), 10);
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(sim[i], vec_dot(q.data(), bc.g.vec(idx[i]), 32));
        if (i > 0) {
            EXPECT_GE(sim[i - 1], sim[i]);
        }
    }
}

// Marks left from an old epoch must not count as visited after the epoch counter wraps.
TEST(HnswQuery, EpochWrapClearsOldMarks)
{
    BuiltClusters bc(500, 16);
    std::vector<std::vector<float>> qs;
    std::vector<std::vector<uint32_t>> want;
    for (int t = 0; t < 3; t++) {
        qs.push_back(bc.data.draw());
        want.push_back(bc.g.query(qs.back(), 10));
    }
    // Every mark says "visited in epoch 1"; the counter is one step from wrapping to 1.
    TrnVisited &v = bc.g.e->graph[0].visited;
    std::fill(v.marks, v.marks + v.length, 1u);
    v.epoch = UINT32_MAX - 1;
    for (int t = 0; t < 3; t++) {
        EXPECT_EQ(bc.g.query(qs[t], 10), want[t]) << "query " << t;
    }
    EXPECT_EQ(v.epoch, 2u);
}

// A rebuild also puts a graph of one part in as many parts as a new index has.
TEST(HnswRebuild, FirstLiveChunkOfEachPartLinksToItselfAndDeletedAreDropped)
{
    BuiltClusters bc(800, 16);
    bc.g.e->level_state = 12345;
    bc.g.remove(0);
    bc.g.remove(5);
    hnsw_rebuild(bc.g.e);
    ASSERT_EQ(bc.g.e->graph_parts, 2);
    for (uint32_t first : {1u, 2u}) {
        for (int l = 0; l <= bc.g.e->nodes[first].level; l++) {
            std::vector<uint32_t> ids = bc.g.list(first, l);
            EXPECT_EQ(std::count(ids.begin(), ids.end(), first), 1) << first << " level " << l;
        }
    }
    for (uint32_t dead : {0u, 5u}) {
        EXPECT_EQ(bc.g.e->nodes[dead].level, 0);
        EXPECT_EQ(bc.g.e->nodes[dead].count[0], 0);
    }
    int32_t top = -1;
    for (uint32_t i = 0; i < bc.g.e->count; i++) {
        for (int l = 0; l <= bc.g.e->nodes[i].level; l++) {
            std::vector<uint32_t> ids = bc.g.list(i, l);
            EXPECT_EQ(std::count(ids.begin(), ids.end(), 0u), 0);
            EXPECT_EQ(std::count(ids.begin(), ids.end(), 5u), 0);
            if (i > 2) {
                EXPECT_EQ(std::count(ids.begin(), ids.end(), i), 0);
            }
            for (uint32_t to : ids) {
                EXPECT_EQ(to % 2, i % 2) << "a link between parts";
            }
        }
        top = std::max(top, bc.g.e->nodes[i].level);
    }
    expect_lists_well_formed(bc.g, true);
    EXPECT_EQ(std::max(bc.g.e->graph[0].max_level, bc.g.e->graph[1].max_level), top);
    for (const TrnGraphPart &p : bc.g.e->graph) {
        EXPECT_EQ(bc.g.e->nodes[p.entry_point].level, p.max_level);
    }
    EXPECT_GE(bc.recall_at_10(100), 0.95);
}

// Two workers link a group's chunks, each part on one: the graph is the one that linking them one
// after another gives, and a search finds the nearest chunks of both parts.
TEST(HnswParts, LinkedOnTwoWorkersAsOneAfterAnother)
{
    Clusters data(32, 40, 7);
    HandGraph serial(32, 16, 100, 50, 600), parallel(32, 16, 100, 50, 600);
    graph_clear(serial.e, 2);
    graph_clear(parallel.e, 2);
    parallel.e->embed_threads = 2;
    std::vector<uint32_t> slots;
    for (int i = 0; i < 600; i++) {
        std::vector<float> v = data.draw();
        int32_t level = draw_level(&serial.e->level_state, serial.e->level_mult);
        serial.add(v, level);
        slots.push_back(parallel.place(v, level));
    }
    for (size_t from = 0; from < slots.size(); from += 150) {
        hnsw_insert_many(parallel.e, slots.data() + from, 150);
    }
    for (int p = 0; p < 2; p++) {
        EXPECT_EQ(parallel.e->graph[p].entry_point, serial.e->graph[p].entry_point);
        EXPECT_EQ(parallel.e->graph[p].max_level, serial.e->graph[p].max_level);
    }
    for (uint32_t i = 0; i < 600; i++) {
        for (int l = 0; l <= serial.e->nodes[i].level; l++) {
            ASSERT_EQ(parallel.list(i, l), serial.list(i, l)) << "node " << i << " level " << l;
        }
    }
    int hit = 0, odd = 0;
    for (int t = 0; t < 100; t++) {
        std::vector<float> q = data.draw();
        std::vector<uint32_t> want = brute_force(parallel, q, 10);
        for (uint32_t id : parallel.query(q, 10)) {
            hit += std::count(want.begin(), want.end(), id) ? 1 : 0;
            odd += id % 2;
        }
    }
    EXPECT_GE(hit, 950);
    EXPECT_GT(odd, 300) << "the second part is searched too";
}

TEST(HnswRebuild, OnlyDeletedOrNothingLeavesEmptyGraph)
{
    BuiltClusters bc(50, 16);
    for (uint32_t i = 0; i < 50; i++) {
        bc.g.remove(i);
    }
    hnsw_rebuild(bc.g.e);
    EXPECT_EQ(bc.g.e->graph[0].entry_point, -1);
    EXPECT_EQ(bc.g.e->graph[0].max_level, -1);
    EXPECT_TRUE(bc.g.query(bc.data.draw(), 10).empty());
    for (uint32_t i = 0; i < 50; i++) {
        EXPECT_EQ(bc.g.e->nodes[i].count[0], 0);
    }

    HandGraph none(4, 16, 100, 50, 4);
    none.e->graph[0].entry_point = 3; // stale values from before the chunks went away
    none.e->graph[0].max_level = 2;
    hnsw_rebuild(none.e);
    EXPECT_EQ(none.e->graph[0].entry_point, -1);
    EXPECT_EQ(none.e->graph[0].max_level, -1);
}

TEST(HnswRebuild, LevelsStayWithin0To31)
{
    BuiltClusters bc(300, 16);
    bc.g.e->level_state = 99;
    bc.g.e->level_mult = 40.0f; // most draws would land above 31 without the clamp
    hnsw_rebuild(bc.g.e);
    int at_top = 0;
    for (uint32_t i = 0; i < bc.g.e->count; i++) {
        EXPECT_GE(bc.g.e->nodes[i].level, 0);
        EXPECT_LE(bc.g.e->nodes[i].level, 31);
        at_top += bc.g.e->nodes[i].level == 31 ? 1 : 0;
    }
    EXPECT_GT(at_top, 0);
    EXPECT_EQ(bc.g.e->graph[0].max_level, 31);
    expect_lists_well_formed(bc.g, true);
}

} // namespace
