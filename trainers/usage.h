/*
** usage.h -- word directions learned from how words are used: co-occurrence counts within a
** span of words, positive pointwise mutual information, and a truncated SVD to a given width.
**
** Two words that keep the same company (the words within SPAN words of them) get directions
** that point alike, so a text and a query that share no word but use related ones still meet.
** The recipe is the classic count-based one:
**   1. count, over windows of the corpus, how often word b stands within span words of word a
**      (tokens that are no word, such as white space and punctuation, are skipped; the count is
**      symmetric);
**   2. positive PMI with context-distribution smoothing: max(0, ln(C(a,b) S / (N(a) N(b)^alpha)))
**      where N is a row's total and S the sum of N^alpha over all words, which keeps rare
**      contexts from dominating;
**   3. a randomized truncated SVD (a range finder with power iterations, then the eigenvectors
**      of the small Gram matrix by Jacobi rotations) gives U and the singular values; a word's
**      usage vector is its row of U times the square roots of the singular values.
** Every matrix product goes through the engine's sgemm; nothing here depends on the model.
*/
#ifndef TRN_TRAINERS_USAGE_H
#define TRN_TRAINERS_USAGE_H

#include "corpus.h"

#include "tarnwick.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace trn_train
{

/* Words within this many words of each other count as used together. */
constexpr int USAGE_SPAN = 5;
/* Windows of CHUNK_BYTES that the co-occurrence counts are taken over. */
constexpr int USAGE_WINDOWS = 60000;
/* Context-distribution smoothing exponent. */
constexpr double USAGE_ALPHA = 0.75;
/* A word seen fewer times than this keeps no usage direction: its company is mostly chance. */
constexpr double USAGE_MIN_COUNT = 20;

/* Co-occurrence counts of the words of a vocabulary. Word numbers are dense (0 .. size - 1). */
struct Cooccurrence {
    std::vector<int32_t> number_of; /* per token id: its word's number, or -1 for no word */
    std::vector<uint32_t> token_of; /* per word number: the word's token id (token_words) */
    std::vector<float> pair;        /* size x size: times the two words stood within the span */
    std::vector<double> seen;       /* per word number: occurrences */

    int size() const { return (int)token_of.size(); }
    /* Numbers the words of word (from token_words) and zeroes the counts. */
    void reset(const std::vector<uint32_t> &word);
    /* Adds the co-occurrences of one token sequence: every two word tokens with at most span - 1
    ** word tokens between them count once for (a, b) and once for (b, a). */
    void add(const uint32_t *ids, size_t n, int span);
};

/* Counts co-occurrences over windows windows of CHUNK_BYTES at offsets drawn from rng (all of a
** corpus shorter than that), tokenised as the engine tokenises. Returns false with a message in
** err when the corpus cannot be read. */
bool count_cooccurrence(const CorpusSampler &sampler, const TrnBpe *bpe,
                        const std::vector<uint32_t> &word, int windows, int span,
                        std::mt19937_64 &rng, Cooccurrence *counts, std::string *err);

/* Positive PMI with context-distribution smoothing alpha (size x size, row a, column b). */
std::vector<float> positive_pmi(const Cooccurrence &counts, double alpha);

/* Eigenvalues (descending) and eigenvectors (column j of vectors for value j, n x n row-major) of
** the symmetric n x n matrix a, by cyclic Jacobi rotations in double precision. */
void symmetric_eigen(const std::vector<double> &a, int n, std::vector<double> *values,
                     std::vector<double> *vectors);

/* The rank leading singular triplets of the rows x cols matrix m (row-major), approximately, by a
** randomized range finder with power_iters power iterations seeded with seed. u gets rank rows
** of length rows (u[j * rows + i] is component i of the j-th left singular vector) and sigma
** the singular values, descending. rank must not exceed min(rows, cols). */
void truncated_svd(const std::vector<float> &m, int rows, int cols, int rank, int power_iters,
                   uint64_t seed, std::vector<float> *u, std::vector<float> *sigma);

/* Every token's usage vector, vocab x width (zero for tokens that are no word and for words seen
** fewer than USAGE_MIN_COUNT times): its word's row of U sqrt(sigma) from the positive PMI
** of counts, centred over the words that have one and scaled to unit length. */
std::vector<float> usage_vectors(const Cooccurrence &counts, uint32_t vocab, int width,
                                 uint64_t seed);

} // namespace trn_train

#endif /* TRN_TRAINERS_USAGE_H */
