/*
** many.cpp -- trn_search_many: several indexes (the folders open at once) searched as one
** ranking whose scores compare across them.
**
** Semantic scores are dot products of unit vectors and compare as they are. Keyword scores are
** BM25 over the counts of all the indexes together (bm25.cpp), so a chunk scores what it would in
** one index of every folder. A hybrid search fuses the keyword ranking of all the indexes with
** their semantic ranking, each merged by those scores first, exactly as fusion.cpp fuses one
** index's. Text and regular-expression hits have no score but their place in index order, so the
** indexes take turns: the first hit of each, then the second of each, and so on. The merged
** ranking is then laid out as trn_search_ex lays out one index's: per chunk or per file.
*/
#include "internal.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace
{

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

/* One entry of a merged ranking: which index, which chunk, how good, and its match. */
struct Hit {
    int32_t origin;
    uint32_t slot;
    float score;
    int32_t rank;  /* place in its own index's ranking */
    float cosine;  /* hybrid: the chunk's cosine to the query */
    int64_t match; /* text and regex: the match in the chunk's text, as Ranking holds it */
    int64_t length;
};
using Hits = std::vector<Hit, XAllocator<Hit>>;

/* Orders by score, best first; equal scores by index, then rank, so the merge is stable. */
bool better(const Hit &a, const Hit &b)
{
    if (a.score != b.score) {
        return a.score > b.score;
    }
    return a.origin != b.origin ? a.origin < b.origin : a.rank < b.rank;
}

/* What each index needs for one search: its narrowing mask. */
struct Source {
    TrnEngine *e;
    uint8_t *allowed; /* owned; NULL when nothing narrows */
};

/* The hybrid ranking of all the indexes, at most depth entries (and at most twice
** HYBRID_CANDIDATES), as rank_hybrid ranks one index. */
Hits rank_hybrid_many(const Source *src, int32_t count, const char *query, int32_t kk,
                      int32_t depth, const LexShared *shared)
{
    /* Each index's semantic and keyword candidates, merged by their scores. */
    Hits sem, kw;
    int32_t width = 0;
    for (int32_t j = 0; j < count; j++) {
        TrnEngine *e = src[j].e;
        float q[QUERY_DIM_MAX];
        if (e->count == 0 || !embed_query(e, query, q)) {
            continue;
        }
        int32_t w = hybrid_graph_width(e) > kk ? hybrid_graph_width(e) : kk;
        width = w > width ? w : width;
        uint32_t slots[HYBRID_CANDIDATES];
        float scores[HYBRID_CANDIDATES];
        int32_t n = src[j].allowed ? narrow_nearest(e, q, src[j].allowed, w, slots, scores)
                                   : hnsw_query_width(e, q, w, w, slots, scores);
        for (int32_t i = 0; i < n; i++) {
            sem.push_back(Hit{j, slots[i], scores[i], i, scores[i], -1, 0});
        }
        n = lex_search_in(e, query, HYBRID_CANDIDATES, src[j].allowed, shared, slots, scores);
        for (int32_t i = 0; i < n; i++) {
            float cosine = vec_dot(chunk_vector(e, slots[i]), q, e->dim);
            kw.push_back(Hit{j, slots[i], scores[i], i, cosine, -1, 0});
        }
    }
    std::sort(sem.begin(), sem.end(), better);
    std::sort(kw.begin(), kw.end(), better);
    const int32_t ns = (int32_t)sem.size() < width ? (int32_t)sem.size() : width;
    const int32_t nk =
        (int32_t)kw.size() < HYBRID_CANDIDATES ? (int32_t)kw.size() : HYBRID_CANDIDATES;

    /* Candidates numbered across both rankings, so that the fusion of one index applies. */
    Hits table;
    std::vector<uint32_t, XAllocator<uint32_t>> ids((size_t)(nk + ns) + 1);
    std::vector<float, XAllocator<float>> values(2 * (size_t)(nk + ns) + 1);
    uint32_t *kw_ids = ids.data();
    uint32_t *sem_ids = kw_ids + nk;
    float *kw_score = values.data();
    float *kw_cosine = kw_score + nk;
    float *sem_score = kw_cosine + nk;
    for (int32_t i = 0; i < nk + ns; i++) {
        const Hit &h = i < nk ? kw[(size_t)i] : sem[(size_t)(i - nk)];
        size_t id = 0;
        while (id < table.size() && (table[id].origin != h.origin || table[id].slot != h.slot)) {
            id++;
        }
        if (id == table.size()) {
            table.push_back(h);
        }
        kw_ids[i] = (uint32_t)id; /* sem_ids continue the same array */
        if (i < nk) {
            kw_score[i] = h.score;
            kw_cosine[i] = h.cosine;
        } else {
            sem_score[i - nk] = h.score;
        }
    }
    const char *texts[HYBRID_JOINT_HITS];
    const int32_t nt = nk < HYBRID_JOINT_HITS ? nk : HYBRID_JOINT_HITS;
    for (int32_t i = 0; i < nt; i++) {
        texts[i] = src[kw[(size_t)i].origin].e->chunks[kw[(size_t)i].slot].text;
    }
    float mass = 0.0f;
    const float joint = lex_joint_coverage(src[0].e, query, texts, nt, shared, &mass);
    const float coverage = keyword_coverage(nk > 0 ? kw_score[0] : 0.0f, mass, joint);
    const float share = hybrid_share(HYBRID_POLICY, coverage);
    const int32_t keep = depth < 2 * HYBRID_CANDIDATES ? depth : 2 * HYBRID_CANDIDATES;
    uint32_t fused[2 * HYBRID_CANDIDATES];
    float score[2 * HYBRID_CANDIDATES];
    int32_t n = fuse_scores(FusionList{kw_ids, kw_score, kw_cosine, nk},
                            FusionList{sem_ids, sem_score, sem_score, ns},
                            share,
                            keep,
                            fused,
                            score);
    Hits out;
    for (int32_t i = 0; i < n; i++) {
        Hit h = table[fused[i]];
        h.score = score[i];
        h.rank = i;
        out.push_back(h);
    }
    return out;
}

/* The rows of a search by file over merged hits, as group_by_file lays out one index's: a file is
** an index and a path. Returns the rows. */
int32_t group_hits_by_file(const Source *src, const Hits &hits, int32_t kk, int32_t *rows,
                           int32_t *more)
{
    int32_t n = 0;
    for (size_t i = 0; i < hits.size(); i++) {
        const Hit &h = hits[i];
        const char *path = src[h.origin].e->chunks[h.slot].file_path;
        int32_t row = -1;
        for (int32_t j = 0; path && j < n; j++) {
            const Hit &r = hits[(size_t)rows[j]];
            const char *other = src[r.origin].e->chunks[r.slot].file_path;
            if (r.origin == h.origin && other && strcmp(path, other) == 0) {
                row = j;
                break;
            }
        }
        if (row >= 0) {
            more[row]++;
        } else if (n < kk) {
            rows[n] = (int32_t)i;
            more[n] = 0;
            n++;
        }
    }
    return n;
}

} // namespace

extern "C" {

int32_t trn_search_many(TrnEngine *const *engines, int32_t count, const char *query, int32_t mode,
                        int32_t k, uint32_t flags, TrnResult *results, int32_t *origins)
{
    if (!engines || count < 1 || !query || !results || !origins || k < 1
        || mode < TRN_SEARCH_SEMANTIC || mode > TRN_SEARCH_SEMANTIC_ALL) {
        return 0;
    }
    for (int32_t j = 0; j < count; j++) {
        if (!engines[j]) {
            return 0;
        }
    }
    TrnNarrowing nw;
    if (!narrow_parse(query, &nw, nullptr, 0)) {
        return 0;
    }
    const int32_t kk = k < TRN_MAX_RESULTS ? k : TRN_MAX_RESULTS;
    const bool by_file = (flags & TRN_SEARCH_BY_FILE) != 0;
    const int32_t depth = by_file ? BY_FILE_DEPTH : kk;
    std::unique_ptr<Source, FreeDeleter> src_mem((Source *)xcalloc((size_t)count, sizeof(Source)));
    Source *src = src_mem.get();
    for (int32_t j = 0; j < count; j++) {
        index_refresh_for_read(engines[j]);
        src[j].e = engines[j];
        src[j].allowed = engines[j]->count > 0 ? narrow_mask(engines[j], &nw) : nullptr;
    }
    const char *core = nw.core;
    const bool ranks = query_ranks(core);
    LexShared counts = {};
    const LexShared *shared = nullptr; /* only keyword and hybrid rankings count words */
    if (ranks && (mode == TRN_SEARCH_KEYWORD || mode == TRN_SEARCH_HYBRID)) {
        lex_shared_init(&counts, engines, count);
        shared = &counts;
    }

    Hits hits;
    bool by_place = false;
    if (ranks && mode == TRN_SEARCH_HYBRID) {
        hits = rank_hybrid_many(src, count, core, kk, depth, shared);
    } else {
        /* Each index's own ranking, then merged: by score where scores compare, else by turns. */
        for (int32_t j = 0; j < count; j++) {
            if (engines[j]->count == 0) {
                continue;
            }
            Ranking r;
            rank_mode(engines[j], core, mode, kk, by_file, src[j].allowed, shared, &r);
            by_place = by_place || r.by_place;
            for (int32_t i = 0; i < r.n(); i++) {
                /* By turns: the rank decides, so it stands in for the score. */
                hits.push_back(Hit{j,
                                   r.slots[(size_t)i],
                                   r.by_place ? -(float)i : r.scores[(size_t)i],
                                   i,
                                   0.0f,
                                   r.matches[(size_t)i],
                                   r.lengths[(size_t)i]});
            }
        }
        std::stable_sort(hits.begin(), hits.end(), better);
    }
    bool damaged = false;
    for (int32_t j = 0; j < count; j++) {
        damaged = search_met_damage(engines[j]) || damaged;
    }
    if (damaged) {
        for (int32_t j = 0; j < count; j++) {
            free(src[j].allowed);
        }
        narrow_free(&nw);
        return 0;
    }

    int32_t rows[TRN_MAX_RESULTS];
    int32_t more[TRN_MAX_RESULTS];
    int32_t n = 0;
    if (by_file) {
        n = group_hits_by_file(src, hits, kk, rows, more);
        /* As in one index (query.cpp): counted by exact nearness, as "n more" opens them. */
        if ((mode == TRN_SEARCH_SEMANTIC || mode == TRN_SEARCH_SEMANTIC_ALL) && ranks && n > 0
            && !by_place) {
            const float cutoff = hits.back().score;
            for (int32_t j = 0; j < count; j++) {
                uint32_t mine[TRN_MAX_RESULTS];
                int32_t at[TRN_MAX_RESULTS], counted[TRN_MAX_RESULTS];
                int32_t m = 0;
                for (int32_t i = 0; i < n; i++) {
                    if (hits[(size_t)rows[i]].origin == j) {
                        mine[m] = hits[(size_t)rows[i]].slot;
                        at[m++] = i;
                    }
                }
                float q[QUERY_DIM_MAX];
                if (m > 0 && embed_query(engines[j], core, q)) {
                    count_near_passages(engines[j], q, mine, m, cutoff, src[j].allowed, counted);
                    for (int32_t i = 0; i < m; i++) {
                        more[at[i]] = counted[i];
                    }
                }
            }
        }
    } else {
        for (; n < kk && n < (int32_t)hits.size(); n++) {
            rows[n] = n;
            more[n] = 0;
        }
    }
    /* Result i uses snippet and marks buffers i of its own engine, so no row overwrites
    ** another's, whichever index each came from. */
    const int32_t shown = show_mode(mode, core);
    uint32_t slots[TRN_MAX_RESULTS];
    int64_t focus[TRN_MAX_RESULTS];
    for (int32_t i = 0; i < n; i++) {
        const Hit &h = hits[(size_t)rows[i]];
        float score = by_place ? 1.0f - (float)i / (float)kk : h.score;
        slots[i] = h.slot;
        focus[i] = fill_row(
            engines[h.origin], &results[i], i, h.slot, score, h.match, h.length, shown, core);
        results[i].more_in_file = more[i];
        origins[i] = h.origin;
    }
    /* Each index's rows are placed in their files with its own buffers. */
    for (int32_t j = 0; j < count; j++) {
        TrnResult mine[TRN_MAX_RESULTS];
        uint32_t mine_slots[TRN_MAX_RESULTS];
        int64_t mine_focus[TRN_MAX_RESULTS];
        int32_t at[TRN_MAX_RESULTS];
        int32_t m = 0;
        for (int32_t i = 0; i < n; i++) {
            if (origins[i] == j) {
                mine[m] = results[i];
                mine_slots[m] = slots[i];
                mine_focus[m] = focus[i];
                at[m++] = i;
            }
        }
        if (m > 0) {
            locate_rows(engines[j], mine, at, mine_slots, mine_focus, m);
            for (int32_t i = 0; i < m; i++) {
                results[at[i]] = mine[i];
            }
        }
    }
    for (int32_t j = 0; j < count; j++) {
        free(src[j].allowed);
    }
    narrow_free(&nw);
    return n;
}

} // extern "C"
