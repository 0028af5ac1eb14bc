/*
** lexical.cpp -- the word index over the live chunks, for keyword and hybrid searches.
**
** Terms. A chunk's text is read as UTF-8 and cut into words: maximal runs of letters, digits and
** underscores. Letters are every code point from U+00C0 up that is not punctuation or a symbol
** (x and / signs of Latin-1, U+2000..U+2BFF, U+3000..U+303F excluded); bytes that are not valid
** UTF-8 separate words. Case is folded for ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic.
** A word whose parts differ from it is also split into its parts, at underscores, at a lower-case
** letter followed by an upper-case one ("readFile"), before the last capital of a run of capitals
** followed by a lower-case letter ("HTTPServer") and between letters and digits ("utf8"). Both the
** whole word, with its underscores dropped, and each part become terms: "readFileSync" gives
** readfilesync, read, file, sync, so "read file" finds it and "read_file_sync" matches it whole.
** Terms longer than 64 bytes are cut there. A query is split the same way.
**
** Ranking. Okapi BM25 over chunks, each chunk one document, with the term frequencies and lengths
** counted in terms (parts included):
**   score(chunk) = sum over distinct query terms t of
**                  idf(t) * tf * (K1 + 1) / (tf + K1 * (1 - B + B * len / avg_len))
**   idf(t) = ln(1 + (N - df + 0.5) / (df + 0.5))      (N live chunks, df live chunks holding t)
** The idf is Lucene's, never negative, so a very common word still counts a little. K1 = 1.2 and
** B = 0.75 are the usual values; with them keyword search finds the right file in the first ten
** for 88-95% of the known-item queries of bench/known_item_bench.cpp, and they are not tuned
** further.
**
** Upkeep. lex_sync brings the index up to date with the chunk table before every keyword or
** hybrid search: chunks appended since the last call (ingestion, log replay) are read, and chunks
** deleted since (removal) are taken out of the counts. Their postings stay, skipped by the live
** flags, until compaction renumbers the slots: lex_compact then drops them and renumbers the
** rest, so a compaction never reads the texts again.
**
** The index file. Building the index from the texts takes about 50 ms per thousand chunks of
** varied text (bench/lexical_speed_bench.cpp), over twice what opening the store costs, so a
** writer keeps a copy beside the store, "tarnwick.lex", written after every checkpoint
** (lex_save) and read when a handle loads that store (lex_load), before the log is replayed; the
** log's chunks are then added by the first lex_sync. The store and the log never depend on it:
** it is written after them, under a temporary name from mkstemp (mode 0600), synced and renamed
** into place, and one that is missing, of another version, damaged or made for another store is
** ignored, and the index is built from the texts at the first keyword or hybrid search instead.
** Readers never write it. Layout, little-endian, no padding:
**
**     offset  size  field
**          0     4  magic "TRNL"
**          4     4  uint32 version, 1 (a change of the terms a text gives needs a new one)
**          8     8  uint64 size of the store this index belongs to
**         16     4  uint32 CRC-32 of that store (the commit record's, computed at load anyway)
**         20     4  uint32 T, terms
**         24     8  uint64 S, chunk slots: the store's chunk records, deleted ones included
**         32     8  uint64 P, postings
**         40     8  uint64 pool bytes
**         48     4  uint32 CRC-32 of every byte after the header
**         52     4  uint32 CRC-32 of bytes 0..51
**     then S uint32: terms in each chunk (0 for a deleted one)
**          T records of uint32 length of the term, uint32 chunks holding it (its postings)
**          P postings of uint32 slot, uint32 occurrences, each term's in order of slot
**          the terms' bytes, one after the other
** Only live chunks have postings. Loading checks every count against the file's size and every
** posting against the chunk table (a live slot, increasing within a term, occurrences adding up
** to the chunk's length); any mismatch and the file is not used.
*/
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr size_t TERM_MAX = 64;          /* bytes of a folded term; longer terms are cut */
constexpr size_t RUN_MAX = 256;          /* code points of a word handled at once */
constexpr uint32_t QUERY_TERMS_MAX = 64; /* distinct query terms that count */
constexpr float DENSE_REPEAT = 0.25f;    /* weight of a repeated query word in a snippet window */

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

/* Character classes of a word's code points. */
enum : uint8_t { CL_LOWER, CL_UPPER, CL_DIGIT, CL_JOIN };

/* Lower-case form of a code point of the folded scripts; c itself otherwise. */
uint32_t fold_cp(uint32_t c)
{
    if (c < 0x80) {
        return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    }
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) {
        return c + 32;
    }
    if (c >= 0x100 && c <= 0x17F) {
        if (c == 0x130) {
            return 'i';
        }
        if (c == 0x178) {
            return 0xFF;
        }
        if ((c <= 0x137 || (c >= 0x14A && c <= 0x177)) && (c % 2) == 0) {
            return c + 1;
        }
        if (((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) && (c % 2) == 1) {
            return c + 1;
        }
        return c;
    }
    if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) {
        return c + 32;
    }
    if (c == 0x3C2) {
        return 0x3C3; /* final sigma */
    }
    if (c >= 0x410 && c <= 0x42F) {
        return c + 32;
    }
    if (c >= 0x400 && c <= 0x40F) {
        return c + 80;
    }
    return c;
}

/* 1 when code point c can be part of a word. */
bool is_word_cp(uint32_t c)
{
    if (c < 0x80) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')
               || c == '_';
    }
    if (c < 0xC0 || c == 0xD7 || c == 0xF7) {
        return false;
    }
    if ((c >= 0x2000 && c <= 0x2BFF) || (c >= 0x3000 && c <= 0x303F) || (c >= 0xFE30 && c <= 0xFE4F)
        || (c >= 0xFF00 && c <= 0xFF20) || c == 0xFEFF) {
        return false;
    }
    return true;
}

/* Decodes one UTF-8 sequence at p (n bytes left). Returns its length; *cp is the code point, or
** 0xFFFFFFFF for a byte that does not start a valid sequence (length 1). */
size_t decode_utf8(const unsigned char *p, size_t n, uint32_t *cp)
{
    unsigned char b = p[0];
    if (b < 0x80) {
        *cp = b;
        return 1;
    }
    size_t len = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC2 ? 2 : 0;
    if (len == 0 || len > n || b > 0xF4) {
        *cp = 0xFFFFFFFF;
        return 1;
    }
    uint32_t c = b & (0x7F >> len);
    for (size_t i = 1; i < len; i++) {
        if ((p[i] & 0xC0) != 0x80) {
            *cp = 0xFFFFFFFF;
            return 1;
        }
        c = (c << 6) | (p[i] & 0x3F);
    }
    if ((len == 3 && c < 0x800) || (len == 4 && (c < 0x10000 || c > 0x10FFFF))) {
        *cp = 0xFFFFFFFF;
        return 1;
    }
    *cp = c;
    return len;
}

/* Writes code point c as UTF-8 at out; returns the bytes written (1 to 4). */
inline size_t put_utf8(char *out, uint32_t c)
{
    if (c < 0x80) {
        out[0] = (char)c;
        return 1;
    }
    if (c < 0x800) {
        out[0] = (char)(0xC0 | (c >> 6));
        out[1] = (char)(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = (char)(0xE0 | (c >> 12));
        out[1] = (char)(0x80 | ((c >> 6) & 0x3F));
        out[2] = (char)(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = (char)(0xF0 | (c >> 18));
    out[1] = (char)(0x80 | ((c >> 12) & 0x3F));
    out[2] = (char)(0x80 | ((c >> 6) & 0x3F));
    out[3] = (char)(0x80 | (c & 0x3F));
    return 4;
}

/* n bytes of UTF-8 cut to at most TERM_MAX without splitting a code point. */
inline size_t cut_term(const char *s, size_t n)
{
    if (n <= TERM_MAX) {
        return n;
    }
    n = TERM_MAX;
    while (n > 0 && ((unsigned char)s[n] & 0xC0) == 0x80) {
        n--;
    }
    return n;
}

/* Cuts len bytes of text into terms: emit(const char *term, size_t length, size_t offset) for
** each, in order of offset; a word's whole form comes before its parts. A word is folded into
** word[] as it is read; parts[] marks where each of its parts starts there and in the text. */
template <typename Emit>
void tokenize(const char *text, size_t len, Emit &&emit)
{
    struct Part {
        uint32_t at;  /* in word[] */
        uint32_t off; /* in text */
    };
    char word[RUN_MAX * 4];
    Part parts[RUN_MAX + 1];
    size_t word_len = 0, n_parts = 0, cps = 0;
    uint8_t c1 = CL_JOIN, c2 = CL_JOIN; /* classes of the previous code point and the one before */
    Part prev = {0, 0};                 /* where the previous code point went */
    const unsigned char *p = (const unsigned char *)text;
    size_t i = 0;
    while (i <= len) {
        uint32_t c = 0;
        size_t step = 1;
        bool is_word = false;
        if (i < len) {
            unsigned char b = p[i];
            if (b < 0x80) {
                c = b;
                is_word = (b >= 'a' && b <= 'z') || (b >= '0' && b <= '9') || (b >= 'A' && b <= 'Z')
                          || b == '_';
            } else {
                step = decode_utf8(p + i, len - i, &c);
                is_word = c != 0xFFFFFFFF && is_word_cp(c);
            }
        }
        if (is_word && cps < RUN_MAX) {
            cps++;
            if (c == '_') {
                c2 = c1;
                c1 = CL_JOIN;
                i += step;
                continue;
            }
            uint32_t f = fold_cp(c);
            uint8_t cls = (c >= '0' && c <= '9') ? CL_DIGIT : f != c ? CL_UPPER : CL_LOWER;
            if (c1 == CL_JOIN || (c1 == CL_DIGIT) != (cls == CL_DIGIT)
                || (c1 == CL_LOWER && cls == CL_UPPER)) {
                parts[n_parts++] = Part{(uint32_t)word_len, (uint32_t)i};
            } else if (c1 == CL_UPPER && c2 == CL_UPPER && cls == CL_LOWER) {
                parts[n_parts++] = prev; /* "HTTPServer": a part starts at the S */
            }
            prev = Part{(uint32_t)word_len, (uint32_t)i};
            word_len += put_utf8(word + word_len, f);
            c2 = c1;
            c1 = cls;
            i += step;
            continue;
        }
        if (cps > 0) {
            if (n_parts > 0) {
                emit(word, cut_term(word, word_len), (size_t)parts[0].off);
            }
            for (size_t j = 0; n_parts >= 2 && j < n_parts; j++) {
                size_t end = j + 1 < n_parts ? parts[j + 1].at : word_len;
                const char *part = word + parts[j].at;
                emit(part, cut_term(part, end - parts[j].at), (size_t)parts[j].off);
            }
            cps = word_len = n_parts = 0;
            c1 = c2 = CL_JOIN;
            if (is_word) {
                continue; /* a run longer than RUN_MAX goes on as a new word */
            }
        }
        i += step;
    }
}

uint32_t hash_term(const char *s, size_t n)
{
    uint32_t h = 2166136261u; /* FNV-1a */
    for (size_t i = 0; i < n; i++) {
        h ^= (unsigned char)s[i];
        h *= 16777619u;
    }
    return h;
}

} // namespace

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

namespace
{

/* Id of the term, or -1 when the index does not hold it. */
int64_t find_term(const TrnLexical *x, const char *s, size_t n, uint32_t h)
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

void table_grow(TrnLexical *x)
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

/* Id of the term, added when new. */
uint32_t intern_term(TrnLexical *x, const char *s, size_t n)
{
    uint32_t h = hash_term(s, n);
    int64_t found = find_term(x, s, n, h);
    if (found >= 0) {
        return (uint32_t)found;
    }
    if ((uint64_t)(x->term_count + 1) * 2 > x->table_size) {
        table_grow(x);
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
    tokenize(text, strlen(text), [x, slot, epoch, &len](const char *s, size_t n, size_t) {
        uint32_t id = intern_term(x, s, n); /* may move the term array */
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
    tokenize(text, strlen(text), [x, epoch](const char *s, size_t n, size_t) {
        int64_t id = find_term(x, s, n, hash_term(s, n));
        if (id >= 0 && x->terms[id].mark != epoch) {
            x->terms[id].mark = epoch;
            x->terms[id].df--;
        }
    });
    x->live[slot] = 0;
    x->live_docs--;
    x->total_len -= x->doc_len[slot];
}

void reserve_slots(TrnLexical *x, uint64_t n)
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

/* The distinct query terms the index holds, with their idf; returns how many (at most max). */
uint32_t query_terms(const TrnLexical *x, const char *query, uint32_t *ids, float *idf,
                     uint32_t max)
{
    uint32_t n = 0;
    const double docs = (double)x->live_docs;
    tokenize(query, strlen(query), [x, ids, idf, max, docs, &n](const char *s, size_t len, size_t) {
        int64_t id = find_term(x, s, len, hash_term(s, len));
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

constexpr uint32_t LEX_FILE_VERSION = 1;
constexpr size_t LEX_HEADER_SIZE = 56;

struct LexHeader {
    uint64_t store_size;
    uint32_t store_crc;
    uint32_t terms;
    uint64_t slots;
    uint64_t postings;
    uint64_t pool;
    uint32_t body_crc;
};

void encode_header(const LexHeader *h, uint8_t *b)
{
    memcpy(b, "TRNL", 4);
    memcpy(b + 4, &LEX_FILE_VERSION, 4);
    memcpy(b + 8, &h->store_size, 8);
    memcpy(b + 16, &h->store_crc, 4);
    memcpy(b + 20, &h->terms, 4);
    memcpy(b + 24, &h->slots, 8);
    memcpy(b + 32, &h->postings, 8);
    memcpy(b + 40, &h->pool, 8);
    memcpy(b + 48, &h->body_crc, 4);
    uint32_t crc = crc32_update(0, b, 52);
    memcpy(b + 52, &crc, 4);
}

bool decode_header(const uint8_t *b, LexHeader *h)
{
    uint32_t version = 0, crc = 0;
    memcpy(&version, b + 4, 4);
    memcpy(&crc, b + 52, 4);
    if (memcmp(b, "TRNL", 4) != 0 || version != LEX_FILE_VERSION || crc != crc32_update(0, b, 52)) {
        return false;
    }
    memcpy(&h->store_size, b + 8, 8);
    memcpy(&h->store_crc, b + 16, 4);
    memcpy(&h->terms, b + 20, 4);
    memcpy(&h->slots, b + 24, 8);
    memcpy(&h->postings, b + 32, 8);
    memcpy(&h->pool, b + 40, 8);
    memcpy(&h->body_crc, b + 48, 4);
    return true;
}

/* Buffered writes to a file descriptor with a running CRC-32; ok turns false at the first error. */
struct LexOut {
    int fd;
    bool ok;
    int err;
    uint32_t crc;
    size_t used;
    uint8_t buf[1 << 16];
};

void out_flush(LexOut *o)
{
    size_t done = 0;
    while (o->ok && done < o->used) {
        ssize_t n = write(o->fd, o->buf + done, o->used - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            o->ok = false;
            o->err = n < 0 ? errno : ENOSPC;
            break;
        }
        done += (size_t)n;
    }
    o->used = 0;
}

void out_put(LexOut *o, const void *p, size_t n)
{
    if (n == 0) {
        return; /* zlib's crc32 of a null buffer is its initial value, not the running one */
    }
    o->crc = crc32_update(o->crc, p, n);
    const uint8_t *b = static_cast<const uint8_t *>(p);
    while (n > 0) {
        size_t room = sizeof o->buf - o->used;
        size_t part = n < room ? n : room;
        memcpy(o->buf + o->used, b, part);
        o->used += part;
        b += part;
        n -= part;
        if (o->used == sizeof o->buf) {
            out_flush(o);
        }
    }
}

/* The index file at path, mapped read-only, when its header names the store e loaded and its chunk
** count; NULL otherwise, without reading further. *size is the mapping's length. The pages are
** mapped at once: one fault per page costs more than reading them. Postings that change are
** copied out first (add_chunk, lex_compact). */
uint8_t *map_matching(const TrnEngine *e, const char *path, size_t *size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    uint8_t head[LEX_HEADER_SIZE];
    LexHeader h;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < (off_t)LEX_HEADER_SIZE
        || pread(fd, head, sizeof head, 0) != (ssize_t)sizeof head || !decode_header(head, &h)
        || h.store_size != e->store_size || h.store_crc != e->store_crc || h.slots != e->count) {
        close(fd);
        return nullptr;
    }
    size_t n = (size_t)st.st_size;
    void *m = mmap(nullptr, n, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    close(fd);
    if (m == MAP_FAILED) {
        return nullptr;
    }
    *size = n;
    return static_cast<uint8_t *>(m);
}

/* Builds x from the mapped file b (n bytes) for the chunk table of e and makes x own the mapping;
** false when the file does not describe exactly that table (x then holds postings pointing into
** b: the caller frees x, then unmaps b). */
bool lex_from_bytes(TrnLexical *x, const TrnEngine *e, uint8_t *b, size_t n)
{
    LexHeader h;
    if (!decode_header(b, &h) || h.store_size != e->store_size || h.store_crc != e->store_crc
        || h.slots != e->count) {
        return false;
    }
    /* Every count is bounded by the bytes left before anything is sized from it. */
    uint64_t left = n - LEX_HEADER_SIZE;
    if (h.slots > left / 4 || h.terms > (left - h.slots * 4) / 8 || h.terms >= (1u << 30)) {
        return false;
    }
    left -= h.slots * 4 + (uint64_t)h.terms * 8;
    if (h.postings > left / 8 || h.pool != left - h.postings * 8
        || crc32_update(0, b + LEX_HEADER_SIZE, n - LEX_HEADER_SIZE) != h.body_crc) {
        return false;
    }
    const uint8_t *doc_len = b + LEX_HEADER_SIZE;
    const uint8_t *term_rec = doc_len + h.slots * 4;
    Posting *postings =
        reinterpret_cast<Posting *>(const_cast<uint8_t *>(term_rec) + (size_t)h.terms * 8);
    const char *pool = reinterpret_cast<const char *>(postings + h.postings);

    reserve_slots(x, h.slots);
    uint32_t *remaining = x->touched; /* terms of each chunk not yet seen in a posting */
    for (uint64_t i = 0; i < h.slots; i++) {
        uint32_t len;
        memcpy(&len, doc_len + i * 4, 4);
        uint8_t live = !e->chunks[i].deleted && e->chunks[i].text ? 1 : 0;
        if (!live && len != 0) {
            return false;
        }
        x->doc_len[i] = len;
        x->live[i] = live;
        remaining[i] = len;
        x->live_docs += live;
        x->total_len += len;
    }
    x->slots = h.slots;
    /* Room for every term at once, so that neither the table nor the array grows below. */
    x->term_cap = h.terms + 1;
    x->terms = static_cast<Term *>(xmalloc(xmul(x->term_cap, sizeof(Term))));
    while ((uint64_t)x->table_size < 2 * (uint64_t)x->term_cap) {
        table_grow(x);
    }
    uint64_t pool_at = 0, posting_at = 0;
    for (uint32_t id = 0; id < h.terms; id++) {
        uint32_t len, df;
        memcpy(&len, term_rec + (size_t)id * 8, 4);
        memcpy(&df, term_rec + (size_t)id * 8 + 4, 4);
        if (len == 0 || len > TERM_MAX || len > h.pool - pool_at || df == 0
            || df > h.postings - posting_at) {
            return false;
        }
        const char *text = pool + pool_at;
        if (find_term(x, text, len, hash_term(text, len)) >= 0) {
            return false; /* the same term twice */
        }
        uint32_t id_new = intern_term(x, text, len); /* may move the term array */
        Term *t = &x->terms[id_new];
        t->df = df;
        t->n = df;
        t->cap = 0;
        t->postings = postings + posting_at;
        for (uint32_t j = 0; j < df; j++) {
            Posting p = t->postings[j];
            if (p.slot >= h.slots || !x->live[p.slot] || p.tf == 0 || p.tf > remaining[p.slot]
                || (j > 0 && p.slot <= t->postings[j - 1].slot)) {
                return false;
            }
            remaining[p.slot] -= p.tf;
        }
        pool_at += len;
        posting_at += df;
    }
    for (uint64_t i = 0; i < h.slots; i++) {
        if (remaining[i] != 0) {
            return false;
        }
    }
    if (pool_at != h.pool || posting_at != h.postings) {
        return false;
    }
    x->arena = b;
    x->arena_size = n;
    x->deleted_seen = UINT64_MAX; /* the log may delete chunks of the store: look at every flag */
    return true;
}

} // namespace

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
    reserve_slots(x, e->count);
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

void lex_load(TrnEngine *e)
{
    lex_free(e);
    if (!e->store_present || e->count == 0) {
        return;
    }
    char path[TRN_PATH_MAX + 16];
    index_file_path(e, "tarnwick.lex", path, sizeof path);
    size_t n = 0;
    uint8_t *b = map_matching(e, path, &n);
    if (!b) {
        return;
    }
    TrnLexical *x = static_cast<TrnLexical *>(xcalloc(1, sizeof(TrnLexical)));
    e->lexical = x;
    if (!lex_from_bytes(x, e, b, n)) {
        lex_free(e);
        munmap(b, n);
        verbose_note("ignored the word index file %s", path);
    }
}

bool lex_save(TrnEngine *e)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    char path[TRN_PATH_MAX + 16];
    index_file_path(e, "tarnwick.lex", path, sizeof path);
    char tmp[TRN_PATH_MAX + 32];
    snprintf(tmp, sizeof tmp, "%s.XXXXXX", path);
    int fd = mkstemp(tmp);
    if (fd < 0) {
        return false;
    }
    std::unique_ptr<LexOut, void (*)(void *)> out(static_cast<LexOut *>(xmalloc(sizeof(LexOut))),
                                                  free);
    LexOut *o = out.get();
    o->fd = fd;
    o->ok = true;
    o->err = 0;
    o->crc = 0;
    o->used = 0;
    LexHeader h = {};
    h.store_size = e->store_size;
    h.store_crc = e->store_crc;
    h.slots = x->slots;
    for (uint32_t id = 0; id < x->term_count; id++) {
        if (x->terms[id].df > 0) {
            h.terms++;
            h.postings += x->terms[id].df;
            h.pool += x->terms[id].text_len;
        }
    }
    uint8_t head[LEX_HEADER_SIZE] = {0};
    out_put(o, head, sizeof head); /* written again below, once the CRC is known */
    o->crc = 0;
    out_put(o, x->doc_len, x->slots * sizeof(uint32_t));
    for (uint32_t id = 0; id < x->term_count; id++) {
        const Term *t = &x->terms[id];
        if (t->df > 0) {
            uint32_t rec[2] = {t->text_len, t->df};
            out_put(o, rec, sizeof rec);
        }
    }
    for (uint32_t id = 0; id < x->term_count; id++) {
        const Term *t = &x->terms[id];
        for (uint32_t j = 0; j < t->n && t->df > 0; j++) {
            if (x->live[t->postings[j].slot]) {
                out_put(o, &t->postings[j], sizeof(Posting));
            }
        }
    }
    for (uint32_t id = 0; id < x->term_count; id++) {
        if (x->terms[id].df > 0) {
            out_put(o, x->pool + x->terms[id].text_off, x->terms[id].text_len);
        }
    }
    out_flush(o);
    h.body_crc = o->crc;
    encode_header(&h, head);
    bool ok = o->ok && pwrite(fd, head, sizeof head, 0) == (ssize_t)sizeof head && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp, path) != 0) {
        unlink(tmp);
        return false;
    }
    return true;
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

int32_t lex_split(const char *text, char *out, size_t size)
{
    int32_t n = 0;
    size_t used = 0;
    if (size > 0) {
        out[0] = '\0';
    }
    tokenize(text, strlen(text), [out, size, &used, &n](const char *s, size_t len, size_t) {
        n++;
        size_t need = len + (used > 0 ? 1 : 0);
        if (used + need + 1 > size) {
            return;
        }
        if (used > 0) {
            out[used++] = ' ';
        }
        memcpy(out + used, s, len);
        used += len;
        out[used] = '\0';
    });
    return n;
}

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
    uint32_t nt = query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
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

int64_t lex_densest(TrnEngine *e, const char *query, const char *text, size_t window)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    uint32_t ids[QUERY_TERMS_MAX];
    float idf[QUERY_TERMS_MAX];
    uint32_t nt = query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
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
            int64_t id = find_term(x, s, n, hash_term(s, n));
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
