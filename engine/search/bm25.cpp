/*
** bm25.cpp -- the keyword ranking over the word index.
**
** Okapi BM25 over chunks, each chunk one document, with the term frequencies and lengths
** counted in terms (parts included):
**   score(chunk) = sum over distinct query terms t of
**                  idf(t) * tf * (K1 + 1) / (tf + K1 * (1 - B + B * len / avg_len))
**   idf(t) = ln(1 + (N - df + 0.5) / (df + 0.5))      (N live chunks, df live chunks holding t)
** The idf is Lucene's, never negative, so a very common word still counts a little. K1 = 1.2 and
** B = 0.75 are the usual values; with them keyword search finds the right file in the first ten
** for 88-95% of the known-item queries of bench/known_item_bench.cpp, and they are not tuned
** further.
*/
#include "internal.h"

#include <algorithm>

int32_t lex_search(TrnEngine *e, const char *query, int32_t k, uint32_t *out_slots,
                   float *out_scores)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    if (k < 1 || x->live_docs == 0) {
        return 0;
    }
    uint32_t ids[QUERY_TERMS_MAX];
    float idf[QUERY_TERMS_MAX];
    uint32_t nt = lex_query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
    const float avg_len = (float)((double)x->total_len / (double)x->live_docs);
    const float len_scale = avg_len > 0.0f ? LEX_B / avg_len : 0.0f;
    uint32_t touched = 0;
    for (uint32_t q = 0; q < nt; q++) {
        const Term *t = &x->terms[ids[q]];
        const float w = idf[q] * (LEX_K1 + 1.0f);
        for (uint32_t j = 0; j < t->n; j++) {
            uint32_t slot = t->postings[j].slot;
            if (!x->live[slot]) {
                continue;
            }
            float tf = (float)t->postings[j].tf;
            float norm = LEX_K1 * (1.0f - LEX_B + len_scale * (float)x->doc_len[slot]);
            if (x->acc[slot] == 0.0f) {
                x->touched[touched++] = slot;
            }
            x->acc[slot] += w * tf / (tf + norm);
        }
    }
    uint32_t keep = (uint32_t)k < touched ? (uint32_t)k : touched;
    const float *acc = x->acc;
    std::partial_sort(
        x->touched, x->touched + keep, x->touched + touched, [acc](uint32_t a, uint32_t b) {
            return acc[a] > acc[b] || (acc[a] == acc[b] && a < b);
        });
    for (uint32_t j = 0; j < keep; j++) {
        out_slots[j] = x->touched[j];
        out_scores[j] = acc[x->touched[j]];
    }
    for (uint32_t j = 0; j < touched; j++) {
        x->acc[x->touched[j]] = 0.0f;
    }
    return (int32_t)keep;
}
