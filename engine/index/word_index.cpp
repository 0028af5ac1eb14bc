/*
** word_index.cpp -- the word index over the live chunks, for keyword and hybrid searches: each
** term's postings (chunk slot and occurrences) and each chunk's length in terms.
**
** lex_sync brings the index up to date with the chunk table before every keyword or
** hybrid search: chunks appended since the last call (ingestion, log replay) are read, and chunks
** deleted since (removal) are taken out of the counts. Their postings stay, skipped by the live
** flags, until compaction renumbers the slots: lex_compact then drops them and renumbers the
** rest, so a compaction never reads the texts again.
*/
#include "internal.h"

#include "index/words.h"

#include <cmath>
#include <cstring>

#include <sys/mman.h>

int64_t lex_find_term(const TrnLexical *x, const char *s, size_t n, uint32_t h)
{
    if (x->table_size == 0) {
        return -1;
    }
    uint32_t mask = x->table_size - 1;
    for (uint32_t at = h & mask;; at = (at + 1) & mask) {
        const TableEntry v = x->table[at];
        if (v.id == 0) {
            return -1;
        }
        if (v.hash != h) {
            continue;
        }
        const Term *t = &x->terms[v.id - 1];
        if (t->text_len == n && memcmp(x->pool + t->text_off, s, n) == 0) {
            return (int64_t)(v.id - 1);
        }
    }
}

void lex_table_grow(TrnLexical *x)
{
    uint32_t size = x->table_size ? x->table_size * 2 : 4096;
    free(x->table);
    x->table = static_cast<TableEntry *>(xcalloc(size, sizeof(TableEntry)));
    x->table_size = size;
    for (uint32_t id = 0; id < x->term_count; id++) {
        uint32_t at = x->terms[id].hash & (size - 1);
        while (x->table[at].id != 0) {
            at = (at + 1) & (size - 1);
        }
        x->table[at] = TableEntry{x->terms[id].hash, id + 1};
    }
}

uint32_t lex_intern_term(TrnLexical *x, const char *s, size_t n)
{
    uint32_t h = hash_term(s, n);
    int64_t found = lex_find_term(x, s, n, h);
    if (found >= 0) {
        return (uint32_t)found;
    }
    if ((uint64_t)(x->term_count + 1) * 2 > x->table_size) {
        lex_table_grow(x);
    }
    if (x->term_count == x->term_cap) {
        x->term_cap = x->term_cap ? x->term_cap * 2 : 1024;
        x->terms = static_cast<Term *>(xrealloc(x->terms, xmul(x->term_cap, sizeof(Term))));
    }
    if (x->pool_len + n > x->pool_cap) {
        size_t cap = x->pool_cap ? x->pool_cap : 65536;
        while (cap < x->pool_len + n) {
            cap *= 2;
        }
        x->pool = static_cast<char *>(xrealloc(x->pool, cap));
        x->pool_cap = cap;
    }
    memcpy(x->pool + x->pool_len, s, n);
    uint32_t id = x->term_count++;
    Term *t = &x->terms[id];
    memset(t, 0, sizeof *t);
    t->text_off = (uint32_t)x->pool_len;
    t->text_len = (uint32_t)n;
    t->hash = h;
    x->pool_len += n;
    uint32_t mask = x->table_size - 1;
    uint32_t at = h & mask;
    while (x->table[at].id != 0) {
        at = (at + 1) & mask;
    }
    x->table[at] = TableEntry{h, id + 1};
    return id;
}

namespace
{

uint32_t next_epoch(TrnLexical *x)
{
    x->epoch++;
    if (x->epoch == 0) { /* wrapped: forget every mark */
        for (uint32_t id = 0; id < x->term_count; id++) {
            x->terms[id].mark = 0;
        }
        x->epoch = 1;
    }
    return x->epoch;
}

void add_chunk(TrnLexical *x, uint64_t slot, const char *text)
{
    uint32_t epoch = next_epoch(x);
    uint32_t len = 0;
    tokenize_stems(text, strlen(text), [x, slot, epoch, &len](const char *s, size_t n, size_t) {
        uint32_t id = lex_intern_term(x, s, n); /* may move the term array */
        Term *t = &x->terms[id];
        len++;
        if (t->mark == epoch) {
            t->postings[t->n - 1].tf++;
            return;
        }
        t->mark = epoch;
        t->df++;
        if (t->n == t->cap || t->cap == 0) {
            uint32_t cap = t->n >= 2 ? t->n * 2 : 4;
            Posting *p = static_cast<Posting *>(xmalloc(xmul(cap, sizeof(Posting))));
            if (t->n > 0) {
                memcpy(p, t->postings, t->n * sizeof(Posting));
            }
            if (t->cap > 0) {
                free(t->postings);
            }
            t->postings = p;
            t->cap = cap;
        }
        t->postings[t->n++] = Posting{(uint32_t)slot, 1};
    });
    x->doc_len[slot] = len;
    x->live[slot] = 1;
    x->live_docs++;
    x->total_len += len;
}

void drop_chunk(TrnLexical *x, uint64_t slot, const char *text)
{
    uint32_t epoch = next_epoch(x);
    tokenize_stems(text, strlen(text), [x, epoch](const char *s, size_t n, size_t) {
        int64_t id = lex_find_term(x, s, n, hash_term(s, n));
        if (id >= 0 && x->terms[id].mark != epoch) {
            x->terms[id].mark = epoch;
            x->terms[id].df--;
        }
    });
    x->live[slot] = 0;
    x->live_docs--;
    x->total_len -= x->doc_len[slot];
}

} // namespace

void lex_reserve_slots(TrnLexical *x, uint64_t n)
{
    if (n <= x->slot_cap) {
        return;
    }
    uint64_t cap = x->slot_cap ? x->slot_cap : 64;
    while (cap < n) {
        cap *= 2;
    }
    x->doc_len = static_cast<uint32_t *>(xrealloc(x->doc_len, xmul(cap, sizeof(uint32_t))));
    x->live = static_cast<uint8_t *>(xrealloc(x->live, cap));
    x->touched = static_cast<uint32_t *>(xrealloc(x->touched, xmul(cap, sizeof(uint32_t))));
    x->acc = static_cast<float *>(xrealloc(x->acc, xmul(cap, sizeof(float))));
    memset(x->acc + x->slot_cap, 0, (cap - x->slot_cap) * sizeof(float));
    x->slot_cap = cap;
}

uint32_t lex_query_terms(const TrnLexical *x, const char *query, uint32_t *ids, float *idf,
                         uint32_t max)
{
    uint32_t n = 0;
    const double docs = (double)x->live_docs;
    tokenize_stems(
        query, strlen(query), [x, ids, idf, max, docs, &n](const char *s, size_t len, size_t) {
            int64_t id = lex_find_term(x, s, len, hash_term(s, len));
            if (id < 0 || x->terms[id].df == 0 || n == max) {
                return;
            }
            for (uint32_t j = 0; j < n; j++) {
                if (ids[j] == (uint32_t)id) {
                    return;
                }
            }
            double df = (double)x->terms[id].df;
            ids[n] = (uint32_t)id;
            idf[n] = (float)std::log(1.0 + (docs - df + 0.5) / (df + 0.5));
            n++;
        });
    return n;
}

void lex_free(TrnEngine *e)
{
    TrnLexical *x = e->lexical;
    if (!x) {
        return;
    }
    for (uint32_t id = 0; id < x->term_count; id++) {
        if (x->terms[id].cap > 0) {
            free(x->terms[id].postings);
        }
    }
    if (x->arena) {
        munmap(x->arena, x->arena_size);
    }
    free(x->terms);
    free(x->table);
    free(x->pool);
    free(x->doc_len);
    free(x->live);
    free(x->acc);
    free(x->touched);
    free(x);
    e->lexical = nullptr;
}

void lex_sync(TrnEngine *e)
{
    if (!e->lexical && e->lex_deferred) {
        e->lex_deferred = 0;
        if (e->count == e->lex_count && e->deleted_count == e->lex_deleted) {
            lex_load(e);
        }
    }
    if (!e->lexical) {
        e->lexical = static_cast<TrnLexical *>(xcalloc(1, sizeof(TrnLexical)));
    }
    TrnLexical *x = e->lexical;
    if (x->slots > e->count) { /* slots were renumbered behind our back: start again */
        lex_free(e);
        lex_sync(e);
        return;
    }
    if (e->deleted_count != x->deleted_seen) {
        for (uint64_t i = 0; i < x->slots; i++) {
            if (x->live[i] && e->chunks[i].deleted) {
                drop_chunk(x, i, e->chunks[i].text ? e->chunks[i].text : "");
            }
        }
    }
    lex_reserve_slots(x, e->count);
    for (uint64_t i = x->slots; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        x->doc_len[i] = 0;
        x->live[i] = 0;
        if (!c->deleted && c->text) {
            add_chunk(x, i, c->text);
        }
    }
    x->slots = e->count;
    x->deleted_seen = e->deleted_count;
}

void lex_compact(TrnEngine *e)
{
    if (!e->lexical) {
        return;
    }
    lex_sync(e);
    TrnLexical *x = e->lexical;
    /* new_slot[i]: slot i's number once the deleted chunks are gone; the chunks the index does
    ** not count (deleted, or without text) have no posting. */
    uint32_t *new_slot = x->touched;
    uint32_t next = 0;
    for (uint64_t i = 0; i < x->slots; i++) {
        new_slot[i] = next;
        if (!e->chunks[i].deleted) {
            x->doc_len[next] = x->doc_len[i];
            x->live[next] = x->live[i];
            next++;
        }
    }
    for (uint32_t id = 0; id < x->term_count; id++) {
        Term *t = &x->terms[id];
        Posting *to = t->postings;
        if (t->cap == 0 && t->n > 0) { /* in the read-only file */
            to = static_cast<Posting *>(xmalloc(xmul(t->n, sizeof(Posting))));
        }
        uint32_t kept = 0;
        for (uint32_t j = 0; j < t->n; j++) {
            Posting p = t->postings[j];
            if (!e->chunks[p.slot].deleted) {
                to[kept++] = Posting{new_slot[p.slot], p.tf};
            }
        }
        if (to != t->postings) {
            t->postings = to;
            t->cap = t->n;
        }
        t->n = kept;
    }
    x->slots = next;
    x->deleted_seen = 0;
}
