/*
** snippets.cpp -- where a result's snippet starts, by the rules trn_search states in tarnwick.h:
** near the match, or near the densest window of the query's words.
*/
#include "internal.h"

#include "index/words.h"

#include <cstring>

namespace
{

constexpr int32_t SNIPPET_REACH = 75; /* bytes before a match a snippet may start */
/* A keyword or hybrid snippet starts at most SNIPPET_REACH bytes before the densest window of the
** query's words, so a window of this size still ends inside the 300-byte snippet. */
constexpr size_t DENSE_WINDOW = TRN_SNIPPET_MAX - SNIPPET_REACH;
constexpr float DENSE_REPEAT = 0.25f; /* weight of a repeated query word in a snippet window */

} // namespace

/* 0 for p <= SNIPPET_REACH; else the first space or line feed among the SNIPPET_REACH bytes
** before p (or p itself when there is none), stepped past when it is one. */
size_t snippet_start(const char *text, int64_t p)
{
    if (p < SNIPPET_REACH + 1) {
        return 0;
    }
    size_t start = (size_t)p;
    for (size_t j = (size_t)p - SNIPPET_REACH; j < (size_t)p; j++) {
        if (text[j] == ' ' || text[j] == '\n') {
            start = j;
            break;
        }
    }
    if (text[start] == ' ' || text[start] == '\n') {
        start += 1;
    }
    return start;
}

int64_t lex_densest(TrnEngine *e, const char *query, const char *text, size_t window)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    uint32_t ids[QUERY_TERMS_MAX];
    float idf[QUERY_TERMS_MAX];
    uint32_t nt = lex_query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
    if (nt == 0) {
        return -1;
    }
    /* The query words in the text, in order: offset and which query term. */
    constexpr size_t HITS_MAX = 1024;
    uint32_t hit_off[HITS_MAX];
    uint8_t hit_term[HITS_MAX];
    size_t hits = 0;
    uint32_t *offs = hit_off;
    uint8_t *terms = hit_term;
    tokenize(
        text, strlen(text), [x, &ids, nt, offs, terms, &hits](const char *s, size_t n, size_t off) {
            if (hits == HITS_MAX) {
                return;
            }
            int64_t id = lex_find_term(x, s, n, hash_term(s, n));
            for (uint32_t q = 0; q < nt && id >= 0; q++) {
                if (ids[q] == (uint32_t)id) {
                    offs[hits] = (uint32_t)off;
                    terms[hits] = (uint8_t)q;
                    hits++;
                    return;
                }
            }
        });
    if (hits == 0) {
        return -1;
    }
    /* Slide a window over the hits: each distinct term counts its idf, each repeat a quarter. */
    uint32_t seen[QUERY_TERMS_MAX] = {0};
    float score = 0.0f, best = -1.0f;
    size_t best_at = 0, tail = 0;
    for (size_t head = 0; head < hits; head++) {
        uint8_t q = hit_term[head];
        score += seen[q]++ == 0 ? idf[q] : DENSE_REPEAT * idf[q];
        while (hit_off[head] - hit_off[tail] >= window) {
            uint8_t r = hit_term[tail++];
            score -= --seen[r] == 0 ? idf[r] : DENSE_REPEAT * idf[r];
        }
        if (score > best + 1e-6f) {
            best = score;
            best_at = tail;
        }
    }
    return (int64_t)hit_off[best_at];
}

void fill_dense(TrnEngine *e, TrnResult *r, int32_t i, uint64_t idx, float score, const char *query)
{
    const char *text = e->chunks[idx].text ? e->chunks[idx].text : "";
    int64_t p = lex_densest(e, query, text, DENSE_WINDOW);
    size_t start = p < 0 ? 0 : snippet_start(text, p);
    fill_result(e, r, i, idx, score, start);
    for (size_t j = 0; j < start; j++) {
        r->line_number += text[j] == '\n' ? 1 : 0;
    }
}
