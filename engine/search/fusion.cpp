/*
** fusion.cpp -- the hybrid search: the whole policy that decides its ranking.
**
** A hybrid search ranks the chunks by their words (BM25, HYBRID_CANDIDATES deep) and by meaning
** (the graph's nearest chunks over every file, as deep as it searches the graph wide), and ranks
** every chunk of either list by a convex combination of its two scores, each brought to 0..1:
** the BM25 score divided by the best one, and the cosine placed between the semantic ranking's
** last (0) and first (1). A keyword hit gets its own cosine, so a chunk that both rankings like
** rises above one that only one of them does.
**
** Why the share follows the keyword hits' coverage of the query: BM25 over the best hit makes the
** first keyword hit 1 however little of the query it holds, so with a fixed share a question put
** in other words than its answer's got the wrong chunks that hold its commonest words. The best
** BM25 score over the query's own (lex_query_mass) is low for such questions and high where the
** words are found, but alone it does not tell a long query whose answer holds its rarest words
** (a doc comment) from a question whose words the folder uses elsewhere, not in its answer: both
** score 0.3 to 0.45. What the first ten keyword hits hold together tells them apart better: a
** natural question put in the folder's own words has nearly all of them somewhere in those hits,
** one put in other words leaves a third to a half of its mass in none (or in no chunk at all).
** Coverage is the mean of the two. On the development sets this put the answer in the first ten
** for 5 more of 804 queries than the best score alone, and for none fewer, but it does not lift
** hybrid to semantic search on the mismatch questions (bench/README.md, "Hybrid").
** Why scores and not ranks: reciprocal rank fusion gives the tenth chunk of a ranking almost what
** it gives the first, so a confident keyword hit and a confident semantic hit lose to a chunk both
** rankings put in the middle; on the known-item benchmark equal-weight rank fusion cost 0.07 to
** 0.09 of keyword's R@10, while the combination of scores gains over both (bench/README.md).
**
** Why the graph width stops at HYBRID_CANDIDATES and starts at HYBRID_GRAPH_MIN: searching 100
** wide cost about 9.5 ms at 100,000 chunks, half of it for ranks 51 to 100, which the known-item
** benchmark's fusions did not need (bench/README.md).
*/
#include "internal.h"

#include <algorithm>

int32_t hybrid_graph_width(const TrnEngine *e)
{
    int32_t w = e->ef_search;
    return w < HYBRID_GRAPH_MIN ? HYBRID_GRAPH_MIN : w > HYBRID_CANDIDATES ? HYBRID_CANDIDATES : w;
}

int32_t fuse_scores(const FusionList &words, const FusionList &meaning, float share, int32_t k,
                    uint32_t *out, float *out_scores)
{
    if (k < 1) {
        return 0;
    }
    int32_t total = words.n + meaning.n;
    uint32_t *ids = static_cast<uint32_t *>(xmalloc(xmul((size_t)total + 1, sizeof(uint32_t))));
    float *score = static_cast<float *>(xmalloc(xmul((size_t)total + 1, sizeof(float))));
    int32_t *order = static_cast<int32_t *>(xmalloc(xmul((size_t)total + 1, sizeof(int32_t))));
    /* Without the other ranking a list keeps its own order, whatever the share. */
    float ws = words.n == 0 ? 0.0f : meaning.n == 0 ? 1.0f : 1.0f - share;
    float ms = meaning.n == 0 ? 0.0f : words.n == 0 ? 1.0f : share;
    float best = 0.0f;
    for (int32_t i = 0; i < words.n; i++) {
        best = words.score[i] > best ? words.score[i] : best;
    }
    best = best > 0.0f ? best : 1.0f;
    float top = meaning.n > 0 ? meaning.score[0] : 0.0f;
    float floor = meaning.n > 0 ? meaning.score[meaning.n - 1] : 0.0f;
    float span = top - floor;
    const auto near = [top, floor, span](float cosine) {
        if (span <= 0.0f) {
            return cosine >= top ? 1.0f : 0.0f;
        }
        float x = (cosine - floor) / span;
        return x < 0.0f ? 0.0f : x > 1.0f ? 1.0f : x;
    };
    int32_t n = 0;
    for (int32_t i = 0; i < words.n; i++) {
        ids[n] = words.slot[i];
        score[n] = ws * words.score[i] / best + ms * near(words.cosine[i]);
        n++;
    }
    for (int32_t i = 0; i < meaning.n; i++) {
        int32_t j = 0;
        while (j < words.n && ids[j] != meaning.slot[i]) {
            j++;
        }
        if (j == words.n) { /* not a keyword hit: its BM25 score is below the list's, taken as 0 */
            ids[n] = meaning.slot[i];
            score[n] = ms * near(meaning.score[i]);
            n++;
        }
    }
    for (int32_t j = 0; j < n; j++) {
        order[j] = j;
    }
    /* Equal scores keep the keyword ranking's order, then the semantic one's. */
    std::stable_sort(order, order + n, [score](int32_t p, int32_t q) {
        return score[p] > score[q];
    });
    int32_t keep = k < n ? k : n;
    for (int32_t j = 0; j < keep; j++) {
        out[j] = ids[order[j]];
        out_scores[j] = score[order[j]];
    }
    free(order);
    free(score);
    free(ids);
    return keep;
}

const FusionPolicy HYBRID_POLICY = {0.2f, 1.0f, 0.4f, 0.6f};

float keyword_coverage(float best, float mass, float joint)
{
    return mass > 0.0f ? 0.5f * (best / mass + joint) : 0.0f;
}

float hybrid_share(const FusionPolicy &policy, float coverage)
{
    if (coverage >= policy.strong) {
        return policy.share;
    }
    if (coverage <= policy.weak) {
        return policy.weak_share;
    }
    float t = (policy.strong - coverage) / (policy.strong - policy.weak);
    return policy.share + t * (policy.weak_share - policy.share);
}

void rank_hybrid(TrnEngine *e, const char *query, int32_t kk, int32_t depth, const uint8_t *allowed,
                 Ranking *out)
{
    float q[QUERY_DIM_MAX];
    if (!embed_query(e, query, q)) {
        return;
    }
    uint32_t sem[HYBRID_CANDIDATES], kw[HYBRID_CANDIDATES];
    float sim[HYBRID_CANDIDATES], bm25[HYBRID_CANDIDATES], cosine[HYBRID_CANDIDATES];
    int32_t width = hybrid_graph_width(e) > kk ? hybrid_graph_width(e) : kk; /* kk <= 64 */
    int32_t ns = allowed ? narrow_nearest(e, q, allowed, width, sem, sim)
                         : hnsw_query_width(e, q, width, width, sem, sim);
    int32_t nk = lex_search_in(e, query, HYBRID_CANDIDATES, allowed, nullptr, kw, bm25);
    for (int32_t i = 0; i < nk; i++) {
        cosine[i] = vec_dot(chunk_vector(e, kw[i]), q, e->dim);
    }
    const char *texts[HYBRID_JOINT_HITS];
    int32_t nt = nk < HYBRID_JOINT_HITS ? nk : HYBRID_JOINT_HITS;
    for (int32_t i = 0; i < nt; i++) {
        texts[i] = e->chunks[kw[i]].text;
    }
    float mass = 0.0f;
    float joint = lex_joint_coverage(e, query, texts, nt, nullptr, &mass);
    float coverage = keyword_coverage(nk > 0 ? bm25[0] : 0.0f, mass, joint);
    float share = hybrid_share(HYBRID_POLICY, coverage);
    int32_t keep = depth < 2 * HYBRID_CANDIDATES ? depth : 2 * HYBRID_CANDIDATES;
    uint32_t fused[2 * HYBRID_CANDIDATES];
    float score[2 * HYBRID_CANDIDATES];
    int32_t n = fuse_scores(
        FusionList{kw, bm25, cosine, nk}, FusionList{sem, sim, sim, ns}, share, keep, fused, score);
    for (int32_t i = 0; i < n; i++) {
        out->add(fused[i], score[i]);
    }
}
