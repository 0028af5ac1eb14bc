/*
** word_index_file.cpp -- the word index's file, "tarnwick.lex".
**
** Building the index from the texts takes about 50 ms per thousand chunks of
** varied text (bench/lexical_speed_bench.cpp), over twice what opening the store costs, so a
** writer keeps a copy beside the store, "tarnwick.lex", written after every checkpoint
** (lex_save) and read (lex_load) by the first lex_sync when no log followed the store, else when
** the handle loads the store, before the log is replayed; the log's chunks are then added by the
** first lex_sync. A search by meaning alone never reads it. The store and the log never depend
** on it: it is written after them, under a unique temporary name (mode 0600), synced and renamed
** into place, and one that is missing, of another version, damaged or made for another store is
** ignored, and the index is built from the texts at the first keyword or hybrid search instead.
** Readers never write it. Layout, little-endian, no padding:
**
**     offset  size  field
**          0     4  magic "TRNL"
**          4     4  uint32 version, 3 (a change of the terms a text gives needs a new one: 1
**                   and 2 held words as written, 3 their stems)
**          8     8  uint64 size of the store this index belongs to
**         16     4  uint32 checksum of that store (the commit record's: store_checksum)
**         20     4  uint32 T, terms
**         24     8  uint64 S, chunk slots: the store's chunk records, deleted ones included
**         32     8  uint64 P, postings
**         40     8  uint64 pool bytes
**         48     4  uint32 CRC-32C of every byte after the header (crc32c_update: the file is
**                   read whole by the first search by words, so its check must be fast)
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

#include "index/words.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr uint32_t LEX_FILE_VERSION = 3;
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
    o->crc = crc32c_update(o->crc, p, n);
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

/* The word index file "tarnwick.lex", mapped read-only, when its header names the store e loaded
** and its chunk count; NULL otherwise, without reading further. *size is the mapping's length. The
** pages are mapped at once: one fault per page costs more than reading them. Postings that change
** are copied out first (add_chunk, lex_compact). */
uint8_t *map_matching(const TrnEngine *e, size_t *size)
{
    int fd = index_open(e, "tarnwick.lex", O_RDONLY);
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
        || crc32c_update(0, b + LEX_HEADER_SIZE, n - LEX_HEADER_SIZE) != h.body_crc) {
        return false;
    }
    const uint8_t *doc_len = b + LEX_HEADER_SIZE;
    const uint8_t *term_rec = doc_len + h.slots * 4;
    Posting *postings =
        reinterpret_cast<Posting *>(const_cast<uint8_t *>(term_rec) + (size_t)h.terms * 8);
    const char *pool = reinterpret_cast<const char *>(postings + h.postings);

    lex_reserve_slots(x, h.slots);
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
        lex_table_grow(x);
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
        if (lex_find_term(x, text, len, hash_term(text, len)) >= 0) {
            return false; /* the same term twice */
        }
        uint32_t id_new = lex_intern_term(x, text, len); /* may move the term array */
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

void lex_load(TrnEngine *e)
{
    lex_free(e);
    if (!e->store_present || e->count == 0) {
        return;
    }
    size_t n = 0;
    uint8_t *b = map_matching(e, &n);
    if (!b) {
        return;
    }
    TrnLexical *x = static_cast<TrnLexical *>(xcalloc(1, sizeof(TrnLexical)));
    e->lexical = x;
    if (!lex_from_bytes(x, e, b, n)) {
        lex_free(e);
        munmap(b, n);
        verbose_note("ignored the word index file of %s", e->store_path);
    }
}

bool lex_save(TrnEngine *e)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    char tmp[64];
    int fd = index_open_temp(e, "tarnwick.lex", tmp, sizeof tmp);
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
    /* A chunk removed since it was counted keeps its length in memory; the file says 0, as the
    ** loader requires of every chunk that is not live. */
    std::vector<uint32_t, XAllocator<uint32_t>> lengths(x->doc_len, x->doc_len + x->slots);
    for (uint64_t i = 0; i < x->slots; i++) {
        lengths[i] = x->live[i] ? lengths[i] : 0;
    }
    out_put(o, lengths.data(), lengths.size() * sizeof(uint32_t));
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
    if (!ok || !index_rename(e, tmp, "tarnwick.lex")) {
        index_unlink(e, tmp);
        return false;
    }
    return true;
}
