/*
** bpe.cpp -- the byte-pair tokenizer: training, encoding and the "TBPE" file.
**
** The tokenizer works on raw bytes with no pre-splitting. Training treats the whole corpus as one
** sequence and, again and again, merges its most frequent adjacent pair into a new id; encoding
** replays the merges in training order. Ids 0-255 are bytes, 257 begins and 258 ends an encoded
** sequence, and merge k creates id 260 + k (256 and 259 are never produced).
**
** Encoding does not pass over the text once per merge (with 30,000 merges that pass, not the
** encoder, would bound indexing). It keeps the text as a linked list of ids and a heap of its
** adjacent pairs that are merges, keyed by (merge number, position), and always applies the
** first: the same result as the replay, because a merge's new id is younger than every merge
** before it, so the pairs a merge makes can only be later merges, and equal merges go left to
** right. A merge that names an id not yet made when its turn comes could never apply in the
** replay and is left out of the table.
**
** Pair counting uses one open-addressing table of 2^20 slots (16 MiB), each a 64-bit key
** (left << 32 | right) and a 64-bit count; a slot is empty when both are 0. The most frequent
** pair is the first slot, in slot order, with the largest count, so ties go to the lowest slot and
** the hash is part of the result: changing it changes every trained tokenizer. The table has no
** overflow check; the corpus must hold fewer than 2^20 distinct adjacent pairs.
**
** Tokenizer file, little-endian uint32 throughout:
**
**   offset  size  field
**   0       4     magic "TBPE"
**   4       4     merge count m
**   8       8*m   m pairs (left id, right id) in merge order
**
** The vocabulary size, m + 260, is not stored. trn_bpe_write and trn_bpe_read move only the
** pairs, which is how the weights file embeds a tokenizer.
**
** An allocation failure prints "bpe: OOM (<bytes> bytes)" and ends the process with status 1.
*/
#include "internal.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "files are read and written raw");

namespace
{

constexpr uint32_t PAIR_SLOTS = 1u << 20;
constexpr uint32_t PAIR_MASK = PAIR_SLOTS - 1;
constexpr uint32_t FIRST_MERGE_ID = 260;
constexpr size_t READ_BLOCK_PAIRS = 65536;
constexpr char BPE_OOM[] = "bpe: OOM (%zu bytes)\n";

struct PairSlot {
    uint64_t key; /* left << 32 | right */
    int64_t count;
};

/* The training table. Process-wide, so only one training may run at a time. */
PairSlot *pair_ht = nullptr;

void *bpe_alloc(size_t bytes)
{
    void *p = alloc_should_fail() ? nullptr : malloc(bytes ? bytes : 1);
    if (!p) {
        oom_abort_sized(BPE_OOM, bytes);
    }
    return p;
}

void *bpe_realloc(void *old, size_t bytes)
{
    void *p = alloc_should_fail() ? nullptr : realloc(old, bytes ? bytes : 1);
    if (!p) {
        oom_abort_sized(BPE_OOM, bytes);
    }
    return p;
}

/* bytes for n ids plus slack; dies with the bpe message when that overflows size_t */
size_t sequence_bytes(size_t n)
{
    if (n > (SIZE_MAX - 64) / sizeof(uint32_t)) {
        oom_abort_sized(BPE_OOM, SIZE_MAX);
    }
    return n * sizeof(uint32_t) + 64;
}

inline uint32_t pair_slot(uint64_t key)
{
    uint64_t h = key ^ (key >> 16);
    h *= 0x45D9F3Bull;
    return (uint32_t)((h ^ (h >> 16)) & PAIR_MASK);
}

/* Counts every adjacent pair of seq (overlapping pairs included) into the cleared table. */
void count_pairs(PairSlot *table, const uint32_t *seq, size_t n)
{
    for (size_t i = 1; i < n; i++) {
        uint64_t key = ((uint64_t)seq[i - 1] << 32) | seq[i];
        uint32_t slot = pair_slot(key);
        for (;;) {
            PairSlot *s = &table[slot];
            if (s->key == key && (s->count != 0 || key != 0)) {
                s->count += 1;
                break;
            }
            if (s->key == 0 && s->count == 0) {
                s->key = key;
                s->count = 1;
                break;
            }
            slot = (slot + 1) & PAIR_MASK;
        }
    }
}

/* Rewrites seq left to right, replacing each non-overlapping (left, right) with id. Returns the
** new length. Everything before the first match stays in place, so the copy starts there. */
size_t apply_merge(uint32_t *seq, size_t n, uint32_t left, uint32_t right, uint32_t id)
{
    size_t r = 0;
    while (r + 1 < n && !(seq[r] == left && seq[r + 1] == right)) {
        r++;
    }
    if (r + 1 >= n) {
        return n;
    }
    size_t w = r;
    while (r < n) {
        if (r + 1 < n && seq[r] == left && seq[r + 1] == right) {
            seq[w++] = id;
            r += 2;
        } else {
            seq[w++] = seq[r++];
        }
    }
    return w;
}

/* Open addressing from pair key (left << 32 | right) to merge number + 1 (0: empty slot). */
struct RankSlot {
    uint64_t key;
    uint32_t rank;
};

} // namespace

struct BpeRanks {
    uint32_t mask;
    RankSlot slot[1]; /* mask + 1 of them */
};

namespace
{

uint32_t rank_hash(uint64_t key)
{
    uint64_t h = key * 0x9E3779B97F4A7C15ull;
    return (uint32_t)(h >> 32);
}

BpeRanks *ranks_of(const TrnBpe *bpe)
{
    uint32_t slots = 16;
    while (slots < 2 * (uint64_t)bpe->n_merges + 1) {
        slots *= 2;
    }
    BpeRanks *r = static_cast<BpeRanks *>(
        bpe_alloc(sizeof(BpeRanks) + ((size_t)slots - 1) * sizeof(RankSlot)));
    r->mask = slots - 1;
    memset(r->slot, 0, (size_t)slots * sizeof(RankSlot));
    for (uint32_t k = 0; k < bpe->n_merges; k++) {
        const uint32_t left = bpe->merges[k][0], right = bpe->merges[k][1];
        if (left >= FIRST_MERGE_ID + k || right >= FIRST_MERGE_ID + k) {
            continue;
        }
        const uint64_t key = (uint64_t)left << 32 | right;
        uint32_t at = rank_hash(key) & r->mask;
        while (r->slot[at].rank != 0 && r->slot[at].key != key) {
            at = (at + 1) & r->mask;
        }
        if (r->slot[at].rank == 0) { /* a pair learned twice applies at its first turn only */
            r->slot[at].key = key;
            r->slot[at].rank = k + 1;
        }
    }
    return r;
}

/* The merge number + 1 of (left, right), 0 when it is none. */
uint32_t rank_of(const BpeRanks *r, uint32_t left, uint32_t right)
{
    const uint64_t key = (uint64_t)left << 32 | right;
    uint32_t at = rank_hash(key) & r->mask;
    while (r->slot[at].rank != 0) {
        if (r->slot[at].key == key) {
            return r->slot[at].rank;
        }
        at = (at + 1) & r->mask;
    }
    return 0;
}

/* Heap entries (merge number << 32 | position), smallest first. */
void heap_push(uint64_t *heap, size_t *n, uint64_t e)
{
    size_t i = (*n)++;
    while (i > 0 && heap[(i - 1) / 2] > e) {
        heap[i] = heap[(i - 1) / 2];
        i = (i - 1) / 2;
    }
    heap[i] = e;
}

uint64_t heap_pop(uint64_t *heap, size_t *n)
{
    const uint64_t top = heap[0], last = heap[--*n];
    size_t i = 0;
    for (;;) {
        size_t c = 2 * i + 1;
        if (c >= *n) {
            break;
        }
        if (c + 1 < *n && heap[c + 1] < heap[c]) {
            c++;
        }
        if (heap[c] >= last) {
            break;
        }
        heap[i] = heap[c];
        i = c;
    }
    if (*n > 0) {
        heap[i] = last;
    }
    return top;
}

TrnBpe *bpe_new(uint32_t capacity)
{
    TrnBpe *bpe = static_cast<TrnBpe *>(bpe_alloc(sizeof(TrnBpe)));
    bpe->merges = static_cast<uint32_t(*)[2]>(bpe_alloc((size_t)capacity * 2 * sizeof(uint32_t)));
    bpe->n_merges = 0;
    bpe->vocab_size = FIRST_MERGE_ID;
    bpe->ranks = nullptr;
    return bpe;
}

} // namespace

extern "C" {

TrnBpe *trn_bpe_train(const uint8_t *data, size_t len, int32_t num_merges)
{
    if (!data || len < 2 || num_merges < 1) {
        return nullptr;
    }
    TrnBpe *bpe = static_cast<TrnBpe *>(bpe_alloc(sizeof(TrnBpe)));
    uint32_t *seq = static_cast<uint32_t *>(bpe_alloc(sequence_bytes(len)));
    for (size_t i = 0; i < len; i++) {
        seq[i] = data[i];
    }
    size_t n = len;
    bpe->merges = static_cast<uint32_t(*)[2]>(bpe_alloc((size_t)num_merges * 2 * sizeof(uint32_t)));
    bpe->n_merges = 0;
    bpe->ranks = nullptr;
    pair_ht = static_cast<PairSlot *>(bpe_alloc((size_t)PAIR_SLOTS * sizeof(PairSlot)));

    for (int32_t k = 0; k < num_merges; k++) {
        memset(pair_ht, 0, (size_t)PAIR_SLOTS * sizeof(PairSlot));
        count_pairs(pair_ht, seq, n);

        int64_t best_count = 0;
        uint32_t best_slot = 0;
        for (uint32_t s = 0; s < PAIR_SLOTS; s++) {
            if (pair_ht[s].count > best_count) {
                best_count = pair_ht[s].count;
                best_slot = s;
            }
        }
        if (best_count < 2) {
            break;
        }
        uint64_t key = pair_ht[best_slot].key;
        uint32_t left = (uint32_t)(key >> 32);
        uint32_t right = (uint32_t)key;
        bpe->merges[k][0] = left;
        bpe->merges[k][1] = right;
        bpe->n_merges = (uint32_t)k + 1;
        n = apply_merge(seq, n, left, right, FIRST_MERGE_ID + (uint32_t)k);

        if ((k + 1) % 500 == 0) {
            fprintf(stderr,
                    "bpe: merge %d/%d  vocab=%u  pair=(%u,%u) count=%lld  seq_len=%zu\n",
                    k + 1,
                    num_merges,
                    FIRST_MERGE_ID + 1 + (uint32_t)k,
                    left,
                    right,
                    (long long)best_count,
                    n);
        }
    }

    bpe->vocab_size = bpe->n_merges + FIRST_MERGE_ID;
    bpe->ranks = ranks_of(bpe);
    fprintf(stderr,
            "bpe: training complete. %u merges, vocab_size=%u\n",
            bpe->n_merges,
            bpe->vocab_size);
    free(pair_ht);
    pair_ht = nullptr;
    free(seq);
    return bpe;
}

int32_t trn_bpe_encode(const TrnBpe *bpe, const char *text, uint32_t *out, int32_t max)
{
    if (!bpe || !text || !out || max < 3) {
        return 0;
    }
    /* positions are 32 bits in the heap's entries */
    const size_t len = std::min<size_t>(strlen(text), UINT32_MAX - 1);
    BpeRanks *own = bpe->ranks ? nullptr : ranks_of(bpe);
    const BpeRanks *ranks = bpe->ranks ? bpe->ranks : own;
    /* ids, then next and previous positions (-1: none), then the heap (at most one entry per
    ** pair ever formed: n - 1 at first and two per merge, of which there are at most n - 1) */
    uint32_t *seq = static_cast<uint32_t *>(bpe_alloc(sequence_bytes(len)));
    if (len > (SIZE_MAX / sizeof(int64_t) - 8) / 5) {
        oom_abort_sized(BPE_OOM, SIZE_MAX);
    }
    int64_t *link = static_cast<int64_t *>(bpe_alloc((5 * len + 8) * sizeof(int64_t)));
    int64_t *next = link, *prev = link + len + 1;
    uint64_t *heap = reinterpret_cast<uint64_t *>(link + 2 * (len + 1));
    size_t heap_n = 0;
    for (size_t i = 0; i < len; i++) {
        seq[i] = (uint8_t)text[i];
        next[i] = i + 1 < len ? (int64_t)i + 1 : -1;
        prev[i] = (int64_t)i - 1;
    }
    const auto push_pair = [&](int64_t at) {
        if (at >= 0 && next[at] >= 0) {
            const uint32_t r = rank_of(ranks, seq[at], seq[next[at]]);
            if (r != 0) {
                heap_push(heap, &heap_n, (uint64_t)(r - 1) << 32 | (uint64_t)at);
            }
        }
    };
    for (size_t i = 0; i + 1 < len; i++) {
        push_pair((int64_t)i);
    }
    while (heap_n > 0) {
        const uint64_t e = heap_pop(heap, &heap_n);
        const uint32_t k = (uint32_t)(e >> 32);
        const int64_t at = (int64_t)(uint32_t)e, right = next[at];
        /* an entry is stale once either id has changed (ids only grow) or at was merged away */
        if (right < 0 || seq[at] != bpe->merges[k][0] || seq[right] != bpe->merges[k][1]) {
            continue;
        }
        seq[at] = FIRST_MERGE_ID + k;
        seq[right] = UINT32_MAX;
        next[at] = next[right];
        if (next[at] >= 0) {
            prev[next[at]] = at;
        }
        push_pair(prev[at]);
        push_pair(at);
    }

    size_t keep = 0;
    for (int64_t i = len > 0 ? 0 : -1; i >= 0 && keep < (size_t)(max - 2); i = next[i]) {
        out[1 + keep++] = seq[i];
    }
    out[0] = TRN_TOKEN_BEGIN;
    out[keep + 1] = TRN_TOKEN_END;
    free(link);
    free(seq);
    free(own);
    return (int32_t)(keep + 2);
}

int trn_bpe_write(const TrnBpe *bpe, FILE *stream)
{
    if (bpe->n_merges == 0) {
        return 1;
    }
    size_t n = fwrite(bpe->merges, 2 * sizeof(uint32_t), bpe->n_merges, stream);
    return n == bpe->n_merges ? 1 : 0;
}

/* The pairs are read in blocks and the array grows with them, so a count that the stream cannot
** back never turns into a large allocation. */
TrnBpe *trn_bpe_read(FILE *stream, uint32_t m)
{
    uint32_t capacity = m < READ_BLOCK_PAIRS ? m : (uint32_t)READ_BLOCK_PAIRS;
    TrnBpe *bpe = bpe_new(capacity);
    uint32_t done = 0;
    while (done < m) {
        if (done == capacity) {
            uint64_t grown = (uint64_t)capacity * 2;
            capacity = grown < m ? (uint32_t)grown : m;
            bpe->merges = static_cast<uint32_t(*)[2]>(
                bpe_realloc(bpe->merges, (size_t)capacity * 2 * sizeof(uint32_t)));
        }
        size_t want = capacity - done;
        size_t got = fread(bpe->merges + done, 2 * sizeof(uint32_t), want, stream);
        done += (uint32_t)got;
        if (got != want) {
            trn_bpe_free(bpe);
            return nullptr;
        }
    }
    bpe->n_merges = m;
    bpe->vocab_size = m + FIRST_MERGE_ID;
    bpe->ranks = ranks_of(bpe);
    return bpe;
}

int trn_bpe_save(const TrnBpe *bpe, const char *path)
{
    FILE *f = fopen(path, "wb");
    if (!f) {
        return 0;
    }
    uint32_t count = bpe->n_merges;
    fwrite("TBPE", 1, 4, f);
    fwrite(&count, sizeof count, 1, f);
    trn_bpe_write(bpe, f);
    fclose(f);
    return 1;
}

TrnBpe *trn_bpe_load(const char *path)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        return nullptr;
    }
    char magic[4];
    uint32_t count = 0;
    TrnBpe *bpe = nullptr;
    if (fread(magic, 1, 4, f) == 4 && memcmp(magic, "TBPE", 4) == 0
        && fread(&count, sizeof count, 1, f) == 1) {
        bpe = trn_bpe_read(f, count);
    }
    fclose(f);
    return bpe;
}

void trn_bpe_free(TrnBpe *bpe)
{
    if (!bpe) {
        return;
    }
    free(bpe->merges);
    free(bpe->ranks);
    free(bpe);
}

} // extern "C"
