/*
** corpus.h -- drawing training pairs from a corpus file of any size without loading it.
**
** The corpus is the application's: the text of many files, each followed by a blank line
** ("\n\n"). A window is what the engine embeds for one chunk: up to CHUNK_BYTES bytes starting
** either at a blank line (the start of a document) or at any byte (as the engine's chunk cuts
** fall), read with one pread of READ_BYTES at a random offset. Memory is a few kilobytes per
** pair, whatever the corpus size.
**
** Pairs come in groups of NEIGHBOURS: a batch of B pairs has ceil(B / NEIGHBOURS) groups, group g
** starts at a random offset in the g-th of that many equal strata of the file, so one batch
** spreads over the whole corpus, and pair j of a group reads its window NEIGHBOUR_STEP bytes
** (the engine's chunk stride) after the start of the window of pair j - 1, without moving to a
** blank line. Neighbouring
** windows usually belong to one document and share its topic, so each is a hard negative for the
** other: the encoder must match what a passage says, not only what it is about. Each pair is
**   - a query pair (probability QUERY_PAIR_SHARE): a query-like span of 3 to 24 words starting in
**     the visible part of the window, against the window itself, or (a cloze pair, a set share of
**     the query pairs, none unless set_cloze) against the window with the span taken out, so
**     that the pair cannot be matched by the span's own words; or
**   - a crop pair: two overlapping crops of 64 bytes to the visible length of the window.
** The visible part is what the encoder reads of a chunk: its first 254 bytes for the byte-level
** encoder (VISIBLE_BYTES); with a tokenizer the 254 positions hold tokens, which cover about a
** whole chunk, so the trainer widens it with set_visible.
** NUL bytes, which would end the text early for the engine, are read as spaces.
*/
#ifndef TRN_TRAINERS_CORPUS_H
#define TRN_TRAINERS_CORPUS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace trn_train
{

constexpr int CHUNK_BYTES = 800;       /* the application's chunk size */
constexpr int VISIBLE_BYTES = 254;     /* bytes of a chunk the byte-level encoder sees */
constexpr int READ_BYTES = 2048;       /* one read per pair */
constexpr int MIN_BYTES_PER_PAIR = 64; /* a corpus needs batch x this many bytes */
constexpr double QUERY_PAIR_SHARE = 0.65;
constexpr int NEIGHBOURS = 2;       /* pairs per group of neighbouring windows */
constexpr int NEIGHBOUR_STEP = 600; /* bytes between the windows of a group */

class CorpusSampler
{
public:
    CorpusSampler() = default;
    ~CorpusSampler();
    CorpusSampler(const CorpusSampler &) = delete;
    CorpusSampler &operator=(const CorpusSampler &) = delete;

    /* Opens the corpus for reading. On failure returns false with a message in err. */
    bool open(const std::string &path, std::string *err);
    uint64_t size() const { return size_; }

    /* The bytes at the head of a window that queries and crops are drawn from (at least 64,
    ** VISIBLE_BYTES until set). */
    void set_visible(size_t bytes) { visible_ = bytes < 64 ? 64 : bytes; }

    /* The share of query pairs whose positive is the window without the span (0 to 1). */
    void set_cloze(double share) { cloze_ = share; }

    /* Draws pairs pairs into texts (2 * pairs strings: anchor of pair i at 2i, positive at
    ** 2i + 1). Returns false with a message in err when the corpus cannot be read. */
    bool draw(int pairs, std::mt19937_64 &rng, std::vector<std::string> &texts, std::string *err);

    /* Reads exactly len bytes at off. Returns false with a message in err otherwise. */
    bool read_at(uint64_t off, char *buf, size_t len, std::string *err) const;

private:
    /* With to_break, half of the windows move to the next blank line. The window's offset in
    ** the file goes to at. */
    bool read_window(uint64_t off, bool to_break, std::mt19937_64 &rng, std::string &window,
                     uint64_t *at, std::string *err);

    int fd_ = -1;
    uint64_t size_ = 0;
    size_t visible_ = VISIBLE_BYTES;
    double cloze_ = 0.0;
};

/* Pairs of texts that a corpus holds, mined beforehand (a doc comment and the code it documents,
** a heading and its section, a word and its definition): a file of records FIRST 0x1f SECOND
** 0x1e, read whole. */
class PairFile
{
public:
    /* Reads the file. On failure (unreadable, or no complete record) returns false with a message
    ** in err. */
    bool load(const std::string &path, std::string *err);
    size_t size() const { return first_.size(); }

    /* Replaces the last round(share x pairs) pairs of texts (as CorpusSampler::draw lays them out)
    ** by pairs of the file drawn with rng. */
    void mix_into(std::vector<std::string> &texts, double share, std::mt19937_64 &rng) const;

private:
    std::vector<std::string> first_, second_;
};

/* The tokenizer's training text. The engine's pair table has 2^20 slots and no overflow check: a
** text with that many distinct adjacent pairs would make its training probe forever. A sequence
** of n ids holds at most n - 1 distinct pairs, so a text below 2^20 bytes can never fill the
** table. Corpora up to BPE_SAMPLE_BYTES are used whole; larger ones contribute BPE_SAMPLE_BLOCKS
** evenly spaced blocks (the first at the start, the last at the end) that add up to
** BPE_SAMPLE_BYTES, which also bounds the training time (one pass over the text per merge). */
constexpr size_t BPE_SAMPLE_BYTES = 1000000;
constexpr int BPE_SAMPLE_BLOCKS = 64;

/* Reads at most max_bytes of the file at path into out as described above. Returns false with a
** message in err when the file cannot be opened or read. */
bool read_bpe_sample(const std::string &path, size_t max_bytes, std::string *out, std::string *err);

/* A query-like span of whole words starting in the first visible bytes of window (exposed for
** tests). Its offset in the window goes to at when given. */
std::string query_span(const std::string &window, std::mt19937_64 &rng,
                       size_t visible = VISIBLE_BYTES, size_t *at = nullptr);

} // namespace trn_train

#endif /* TRN_TRAINERS_CORPUS_H */
