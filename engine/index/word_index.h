/*
** word_index.h -- the word index over the live chunks (word_index.cpp), kept in memory and up to
** date by every keyword or hybrid search; read from "tarnwick.lex" when a store is loaded, else
** built from the chunk texts by the first such search (word_index_file.cpp). Writers save it
** there after each checkpoint.
*/
#ifndef TRN_WORD_INDEX_H
#define TRN_WORD_INDEX_H

#include "tarnwick.h"

#include <cstddef>
#include <cstdint>

/* Brings the word index up to date with the chunk table: reads the slots added since the last
** call and takes out the chunks deleted since. Builds it from every slot when there is none. */
void lex_sync(TrnEngine *e);
/* Frees the word index. Called when the chunk table is read again and at close. */
void lex_free(TrnEngine *e);
/* Drops the deleted chunks' postings and renumbers the rest as compaction renumbers the chunks;
** called before it, while the deleted flags are still there. */
void lex_compact(TrnEngine *e);
/* Reads the index file of the store just loaded (e->count slots, e->store_size and store_crc),
** before the log is replayed. Leaves no index when the file is missing or does not belong to that
** store exactly. */
void lex_load(TrnEngine *e);
/* Syncs, then writes the index file for the store just written (all e->count slots). False when
** it could not be written; the store and the log are never touched. */
bool lex_save(TrnEngine *e);
/* Writes the terms of text, space-separated, into out (size bytes, always NUL-terminated when
** size > 0, terms that do not fit are left out) and returns how many terms the text has. */
int32_t lex_split(const char *text, char *out, size_t size);

/* ---------------------------------------------------------------------------------------------
** The index's records, for the files that build, save and search it (word_index.cpp,
** word_index_file.cpp, bm25.cpp, snippets.cpp).
*/
constexpr uint32_t QUERY_TERMS_MAX = 64; /* distinct query terms that count */

struct Posting {
    uint32_t slot;
    uint32_t tf;
};

/* A slot of the term table: the term's hash beside its id, so that a probe reads the term itself
** only when the hashes agree. */
struct TableEntry {
    uint32_t hash;
    uint32_t id; /* term id + 1; 0 when the slot is empty */
};

struct Term {
    uint32_t text_off; /* into the pool */
    uint32_t text_len;
    uint32_t hash;
    uint32_t df;   /* live chunks holding the term */
    uint32_t mark; /* epoch of the last chunk that counted it */
    uint32_t n;    /* postings in use, live and dead */
    uint32_t cap;  /* cap >= n; 0 with n > 0: the postings lie in the loaded file's arena */
    Posting *postings;
};

struct TrnLexical {
    Term *terms;
    uint32_t term_count;
    uint32_t term_cap;
    TableEntry *table; /* open addressing; table_size a power of two, at most half full */
    uint32_t table_size;
    char *pool; /* the terms' bytes, not NUL-terminated */
    size_t pool_len;
    size_t pool_cap;
    uint32_t *doc_len; /* terms per chunk slot */
    uint8_t *live;     /* 1 when the slot is counted */
    float *acc;        /* search scratch, all zero between searches */
    uint32_t *touched; /* search scratch */
    uint64_t slots;    /* chunk slots read so far */
    uint64_t slot_cap; /* slots <= slot_cap */
    uint64_t live_docs;
    uint64_t total_len;    /* terms in the live chunks */
    uint64_t deleted_seen; /* the engine's deleted_count at the last sync */
    uint32_t epoch;        /* counts chunk visits, for Term::mark */
    uint8_t *arena;        /* a loaded index file, mapped read-only, holding postings; or NULL */
    size_t arena_size;
};

/* Id of the term of n bytes with hash h (hash_term), or -1 when the index does not hold it. */
int64_t lex_find_term(const TrnLexical *x, const char *s, size_t n, uint32_t h);
/* Id of the term, added when new. */
uint32_t lex_intern_term(TrnLexical *x, const char *s, size_t n);
/* Doubles the term table (4096 slots at first) and places every term again. */
void lex_table_grow(TrnLexical *x);
/* Room for n chunk slots in the per-slot arrays. */
void lex_reserve_slots(TrnLexical *x, uint64_t n);
/* The distinct query terms the index holds, with their idf; returns how many (at most max). */
uint32_t lex_query_terms(const TrnLexical *x, const char *query, uint32_t *ids, float *idf,
                         uint32_t max);

#endif /* TRN_WORD_INDEX_H */
