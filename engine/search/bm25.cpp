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
**
** Several indexes searched as one (trn_search_many) share their counts: N, df and the average
** length are those of all of them together, so a chunk scores what it would in one index of
** every folder, and the scores of different indexes compare.
*/
#include "internal.h"

#include "index/words.h"

#include <algorithm>
#include <cmath>
#include <cstring>

int32_t lex_search(TrnEngine *e, const char *query, int32_t k, uint32_t *out_slots,
                   float *out_scores)
{
    return lex_search_in(e, query, k, nullptr, nullptr, out_slots, out_scores);
}

void lex_shared_init(LexShared *shared, TrnEngine *const *engines, int32_t count)
{
    *shared = LexShared{engines, count, 0, 0};
    for (int32_t j = 0; j < count; j++) {
        lex_sync(engines[j]);
        shared->live_docs += engines[j]->lexical->live_docs;
        shared->total_len += engines[j]->lexical->total_len;
    }
}

namespace
{

/* The idf of term id of x over every index of shared: their chunks, and their chunks holding the
** same term. */
float shared_idf(const LexShared *shared, const TrnLexical *x, uint32_t id)
{
    const char *text = x->pool + x->terms[id].text_off;
    size_t len = x->terms[id].text_len;
    uint32_t h = hash_term(text, len);
    double df = 0.0;
    for (int32_t j = 0; j < shared->count; j++) {
        const TrnLexical *other = shared->engines[j]->lexical;
        int64_t found = lex_find_term(other, text, len, h);
        df += found >= 0 ? (double)other->terms[found].df : 0.0;
    }
    double docs = (double)shared->live_docs;
    return (float)std::log(1.0 + (docs - df + 0.5) / (df + 0.5));
}

/* One distinct query term, folded as the word index holds it. */
struct QueryTerm {
    uint32_t hash;
    uint32_t len;
    char text[TERM_MAX];
    float idf;
};

/* The query's distinct terms (at most QUERY_TERMS_MAX), each with its idf (with the counts of
** shared, NULL: e's own; a term no chunk holds at its highest). Returns how many; 0 when no chunk
** is live. */
uint32_t query_terms(TrnEngine *e, const char *query, const LexShared *shared, QueryTerm *out)
{
    lex_sync(e);
    const TrnLexical *x = e->lexical;
    const double docs = shared ? (double)shared->live_docs : (double)x->live_docs;
    if (docs <= 0.0) {
        return 0;
    }
    uint32_t n = 0;
    tokenize_stems(query, strlen(query), [&](const char *s, size_t len, size_t) {
        uint32_t h = hash_term(s, len);
        for (uint32_t j = 0; j < n; j++) {
            if (out[j].hash == h) {
                return;
            }
        }
        if (n == QUERY_TERMS_MAX) {
            return;
        }
        double df = 0.0;
        for (int32_t j = 0; j < (shared ? shared->count : 1); j++) {
            const TrnLexical *y = shared ? shared->engines[j]->lexical : x;
            int64_t id = lex_find_term(y, s, len, h);
            df += id >= 0 ? (double)y->terms[id].df : 0.0;
        }
        out[n].hash = h;
        out[n].len = (uint32_t)len;
        memcpy(out[n].text, s, len);
        out[n].idf = (float)std::log(1.0 + (docs - df + 0.5) / (df + 0.5));
        n++;
    });
    return n;
}

} // namespace

float lex_query_mass(TrnEngine *e, const char *query, const LexShared *shared)
{
    QueryTerm terms[QUERY_TERMS_MAX];
    uint32_t n = query_terms(e, query, shared, terms);
    double mass = 0.0;
    for (uint32_t j = 0; j < n; j++) {
        mass += terms[j].idf;
    }
    return (float)mass;
}

float lex_joint_coverage(TrnEngine *e, const char *query, const char *const *texts, int32_t n,
                         const LexShared *shared, float *mass_out)
{
    QueryTerm terms[QUERY_TERMS_MAX];
    uint32_t nt = query_terms(e, query, shared, terms);
    bool held[QUERY_TERMS_MAX] = {};
    for (int32_t i = 0; i < n; i++) {
        tokenize_stems(texts[i], strlen(texts[i]), [&](const char *s, size_t len, size_t) {
            uint32_t h = hash_term(s, len);
            for (uint32_t j = 0; j < nt; j++) {
                if (terms[j].hash == h && terms[j].len == len
                    && memcmp(terms[j].text, s, len) == 0) {
                    held[j] = true;
                }
            }
        });
    }
    double mass = 0.0, joint = 0.0;
    for (uint32_t j = 0; j < nt; j++) {
        mass += terms[j].idf;
        joint += held[j] ? terms[j].idf : 0.0;
    }
    if (mass_out) {
        *mass_out = (float)mass;
    }
    return mass > 0.0 ? (float)(joint / mass) : 0.0f;
}

int32_t lex_search_in(TrnEngine *e, const char *query, int32_t k, const uint8_t *allowed,
                      const LexShared *shared, uint32_t *out_slots, float *out_scores)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    if (k < 1 || x->live_docs == 0) {
        return 0;
    }
    uint32_t ids[QUERY_TERMS_MAX];
    float idf[QUERY_TERMS_MAX];
    uint32_t nt = lex_query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
    double docs = (double)x->live_docs;
    double total_len = (double)x->total_len;
    if (shared) {
        for (uint32_t q = 0; q < nt; q++) {
            idf[q] = shared_idf(shared, x, ids[q]);
        }
        docs = (double)shared->live_docs;
        total_len = (double)shared->total_len;
    }
    const float avg_len = (float)(total_len / docs);
    const float len_scale = avg_len > 0.0f ? LEX_B / avg_len : 0.0f;
    uint32_t touched = 0;
    for (uint32_t q = 0; q < nt; q++) {
        const Term *t = &x->terms[ids[q]];
        const float w = idf[q] * (LEX_K1 + 1.0f);
        for (uint32_t j = 0; j < t->n; j++) {
            uint32_t slot = t->postings[j].slot;
            if (!x->live[slot] || (allowed && !allowed[slot])) {
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
