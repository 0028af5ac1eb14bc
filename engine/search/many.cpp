/*
** many.cpp -- trn_search_many: several indexes (the folders open at once) searched as one
** ranking whose scores compare across them.
**
** Semantic scores are dot products of unit vectors and compare as they are. Keyword scores are
** BM25 over the counts of all the indexes together (bm25.cpp), so a chunk scores what it would in
** one index of every folder. A hybrid search fuses the keyword ranking of all the indexes with
** their semantic ranking, each merged by those scores first, exactly as fusion.cpp fuses one
** index's. Text and regular-expression hits have no score but their place in index order, so the
** indexes take turns: the first hit of each, then the second of each, and so on.
*/
#include "internal.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace
{

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

/* One candidate of a merged ranking: which index, which chunk, how good. */
struct Hit {
    int32_t origin;
    uint32_t slot;
    float score;
    int32_t rank; /* place in its own index's ranking */
    float cosine; /* hybrid: the chunk's cosine to the query */
};

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

int32_t search_hybrid_many(Source *src, int32_t count, const char *query, int32_t kk,
                           const LexShared *shared, TrnResult *results, int32_t *origins)
{
    /* Each index's semantic and keyword candidates, merged by their scores. */
    const size_t cap = (size_t)count * HYBRID_CANDIDATES;
    std::unique_ptr<Hit, FreeDeleter> sem_hits((Hit *)xmalloc(xmul(cap + 1, sizeof(Hit))));
    std::unique_ptr<Hit, FreeDeleter> kw_hits((Hit *)xmalloc(xmul(cap + 1, sizeof(Hit))));
    Hit *sem = sem_hits.get();
    Hit *kw = kw_hits.get();
    int32_t ns = 0, nk = 0;
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
            sem[ns++] = Hit{j, slots[i], scores[i], i, scores[i]};
        }
        n = lex_search_in(e, query, HYBRID_CANDIDATES, src[j].allowed, shared, slots, scores);
        for (int32_t i = 0; i < n; i++) {
            float cosine = vec_dot(e->vectors + (size_t)slots[i] * e->dim, q, e->dim);
            kw[nk++] = Hit{j, slots[i], scores[i], i, cosine};
        }
    }
    std::sort(sem, sem + ns, better);
    std::sort(kw, kw + nk, better);
    ns = ns < width ? ns : width;
    nk = nk < HYBRID_CANDIDATES ? nk : HYBRID_CANDIDATES;

    /* Candidates numbered across both rankings, so that the fusion of one index applies. */
    const size_t both = (size_t)(ns + nk) + 1;
    std::unique_ptr<Hit, FreeDeleter> table_mem((Hit *)xmalloc(xmul(both, sizeof(Hit))));
    std::unique_ptr<uint32_t, FreeDeleter> ids_mem(
        (uint32_t *)xmalloc(xmul(both, sizeof(uint32_t))));
    std::unique_ptr<float, FreeDeleter> values_mem((float *)xmalloc(xmul(both, 2 * sizeof(float))));
    Hit *table = table_mem.get();
    uint32_t *kw_ids = ids_mem.get();
    uint32_t *sem_ids = kw_ids + nk;
    float *kw_score = values_mem.get();
    float *kw_cosine = kw_score + nk;
    float *sem_score = kw_cosine + nk;
    int32_t distinct = 0;
    for (int32_t i = 0; i < nk + ns; i++) {
        const Hit &h = i < nk ? kw[i] : sem[i - nk];
        int32_t id = 0;
        while (id < distinct && (table[id].origin != h.origin || table[id].slot != h.slot)) {
            id++;
        }
        if (id == distinct) {
            table[distinct++] = h;
        }
        kw_ids[i] = (uint32_t)id; /* sem_ids continue the same array */
        if (i < nk) {
            kw_score[i] = h.score;
            kw_cosine[i] = h.cosine;
        } else {
            sem_score[i - nk] = h.score;
        }
    }
    uint32_t fused[TRN_MAX_RESULTS];
    float score[TRN_MAX_RESULTS];
    int32_t n = fuse_scores(FusionList{kw_ids, kw_score, kw_cosine, nk},
                            FusionList{sem_ids, sem_score, sem_score, ns},
                            HYBRID_SEMANTIC_SHARE,
                            kk,
                            fused,
                            score);
    for (int32_t i = 0; i < n; i++) {
        const Hit &h = table[fused[i]];
        fill_dense(src[h.origin].e, &results[i], i, h.slot, score[i], query);
        origins[i] = h.origin;
    }
    return n;
}

} // namespace

extern "C" {

int32_t trn_search_many(TrnEngine *const *engines, int32_t count, const char *query, int32_t mode,
                        int32_t k, TrnResult *results, int32_t *origins)
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
    int32_t kk = k < TRN_MAX_RESULTS ? k : TRN_MAX_RESULTS;
    std::unique_ptr<Source, FreeDeleter> src_mem((Source *)xcalloc((size_t)count, sizeof(Source)));
    Source *src = src_mem.get();
    for (int32_t j = 0; j < count; j++) {
        index_refresh_for_read(engines[j]);
        src[j].e = engines[j];
        src[j].allowed = engines[j]->count > 0 ? narrow_mask(engines[j], &nw) : nullptr;
    }
    const char *core = nw.core;
    const bool ranks = core[strspn(core, " \t\n\r")] != '\0';
    LexShared shared = {};
    if (ranks && (mode == TRN_SEARCH_KEYWORD || mode == TRN_SEARCH_HYBRID)) {
        lex_shared_init(&shared, engines, count);
    }

    int32_t n = 0;
    if (ranks && mode == TRN_SEARCH_HYBRID) {
        n = search_hybrid_many(src, count, core, kk, &shared, results, origins);
    } else {
        /* Each index's own ranking, then merged: by score where scores compare, else by turns.
        ** Every index writes its records to its own snippet buffers, so none overwrites
        ** another's. */
        std::unique_ptr<TrnResult, FreeDeleter> own_mem(
            (TrnResult *)xmalloc(xmul((size_t)count * (size_t)kk, sizeof(TrnResult))));
        std::unique_ptr<Hit, FreeDeleter> hits_mem(
            (Hit *)xmalloc(xmul((size_t)count * (size_t)kk, sizeof(Hit))));
        TrnResult *own = own_mem.get();
        Hit *hits = hits_mem.get();
        const bool by_turns = !ranks || mode == TRN_SEARCH_TEXT || mode == TRN_SEARCH_REGEX;
        int32_t nh = 0;
        for (int32_t j = 0; j < count; j++) {
            TrnEngine *e = engines[j];
            TrnResult *mine = own + (size_t)j * (size_t)kk;
            int32_t got = 0;
            if (e->count > 0) {
                got = src[j].allowed && !ranks
                          ? list_allowed(e, kk, src[j].allowed, mine)
                          : search_mode(e, core, mode, kk, src[j].allowed, &shared, mine);
            }
            for (int32_t i = 0; i < got; i++) {
                /* By turns: the rank decides, so it stands in for the score. */
                hits[nh++] = Hit{j, (uint32_t)i, by_turns ? -(float)i : mine[i].score, i};
            }
        }
        std::sort(hits, hits + nh, better);
        n = nh < kk ? nh : kk;
        for (int32_t i = 0; i < n; i++) {
            results[i] = own[(size_t)hits[i].origin * (size_t)kk + hits[i].slot];
            origins[i] = hits[i].origin;
            if (by_turns) {
                results[i].score = 1.0f - (float)i / (float)kk;
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
