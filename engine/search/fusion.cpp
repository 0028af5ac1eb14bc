/*
** fusion.cpp -- the hybrid search: the whole policy that decides its ranking.
**
** A hybrid search ranks the chunks by their words (BM25, HYBRID_CANDIDATES deep) and by meaning
** (the graph's nearest chunks over every file, as deep as it searches the graph wide), and fuses
** the two rankings by reciprocal rank (LEX_RRF_K), the semantic one weighted by how far the two
** agree at the top (hybrid_semantic_weight).
**
** Why weigh by agreement: with equal weights, the random encoder's near-random ranking pushed
** the right file out of the first ten for a fifth of the known-item queries (bench/README.md);
** weighing it by agreement does not. An encoder that does not know the text agrees with the
** words by chance only (a share of 0.06 to 0.10 on the known-item benchmark with an untrained or
** barely trained encoder), and then does not count at all; one that finds what the words find
** earns up to full weight.
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

float hybrid_semantic_weight(const uint32_t *kw, int32_t nk, const uint32_t *sem, int32_t ns)
{
    if (nk == 0) {
        return 1.0f;
    }
    int32_t depth = LEX_AGREEMENT_DEPTH;
    int32_t a = nk < depth ? nk : depth;
    int32_t b = ns < depth ? ns : depth;
    int32_t shared = 0;
    for (int32_t i = 0; i < a; i++) {
        for (int32_t j = 0; j < b; j++) {
            shared += kw[i] == sem[j] ? 1 : 0;
        }
    }
    float share = (float)shared / (float)depth;
    float w = (share - LEX_AGREEMENT_FLOOR) / (1.0f - LEX_AGREEMENT_FLOOR);
    return w < 0.0f ? 0.0f : w > 1.0f ? 1.0f : w;
}

int32_t fuse_rankings(const uint32_t *a, int32_t na, float wa, const uint32_t *b, int32_t nb,
                      float wb, int32_t k, uint32_t *out, float *out_scores)
{
    if (k < 1) {
        return 0;
    }
    int32_t total = na + nb;
    uint32_t *ids = static_cast<uint32_t *>(xmalloc(xmul((size_t)total + 1, sizeof(uint32_t))));
    float *score = static_cast<float *>(xmalloc(xmul((size_t)total + 1, sizeof(float))));
    int32_t *first = static_cast<int32_t *>(xmalloc(xmul((size_t)total + 1, sizeof(int32_t))));
    int32_t n = 0;
    for (int32_t list = 0; list < 2; list++) {
        const uint32_t *r = list == 0 ? a : b;
        int32_t nr = list == 0 ? na : nb;
        float w = list == 0 ? wa : wb;
        for (int32_t i = 0; i < nr; i++) {
            float s = w / (LEX_RRF_K + (float)(i + 1));
            int32_t j = 0;
            while (j < n && ids[j] != r[i]) {
                j++;
            }
            if (j == n) {
                ids[n] = r[i];
                score[n] = 0.0f;
                first[n] = list * total + i; /* a's ranks before b's on equal scores */
                n++;
            }
            score[j] += s;
        }
    }
    int32_t *order = static_cast<int32_t *>(xmalloc(xmul((size_t)n + 1, sizeof(int32_t))));
    for (int32_t j = 0; j < n; j++) {
        order[j] = j;
    }
    std::stable_sort(order, order + n, [score, first](int32_t p, int32_t q) {
        return score[p] > score[q] || (score[p] == score[q] && first[p] < first[q]);
    });
    int32_t keep = k < n ? k : n;
    for (int32_t j = 0; j < keep; j++) {
        out[j] = ids[order[j]];
        out_scores[j] = score[order[j]];
    }
    free(order);
    free(first);
    free(score);
    free(ids);
    return keep;
}

void rank_hybrid(TrnEngine *e, const char *query, int32_t kk, int32_t depth, Ranking *out)
{
    float q[QUERY_DIM_MAX];
    if (!embed_query(e, query, q)) {
        return;
    }
    uint32_t sem[HYBRID_CANDIDATES], kw[HYBRID_CANDIDATES];
    float sim[HYBRID_CANDIDATES], bm25[HYBRID_CANDIDATES];
    int32_t width = hybrid_graph_width(e) > kk ? hybrid_graph_width(e) : kk; /* kk <= 64 */
    int32_t ns = hnsw_query_width(e, q, width, width, sem, sim);
    int32_t nk = lex_search(e, query, HYBRID_CANDIDATES, kw, bm25);
    float weight = hybrid_semantic_weight(kw, nk, sem, ns);
    int32_t keep = depth < 2 * HYBRID_CANDIDATES ? depth : 2 * HYBRID_CANDIDATES;
    uint32_t fused[2 * HYBRID_CANDIDATES];
    float score[2 * HYBRID_CANDIDATES];
    /* A semantic ranking weighed 0 adds nothing: its own hits would only trail at score 0. */
    int32_t n =
        fuse_rankings(kw, nk, 1.0f, sem, weight > 0.0f ? ns : 0, weight, keep, fused, score);
    for (int32_t i = 0; i < n; i++) {
        out->add(fused[i], score[i]);
    }
}
