// Word directions from usage: co-occurrence counts and positive PMI against a direct count of a
// small text, the truncated SVD against a matrix of known singular values, and the start that
// --idf --usage makes, in which words used alike point alike.
#include "training.h"
#include "usage.h"

#include "../engine/store_fixtures.h"
#include "internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace trn_train;

namespace
{

std::vector<uint32_t> byte_ids(const std::string &text)
{
    return std::vector<uint32_t>(text.begin(), text.end());
}

double dot(const float *a, const float *b, int n)
{
    double s = 0;
    for (int i = 0; i < n; i++) {
        s += (double)a[i] * b[i];
    }
    return s;
}

} // namespace

TEST(Cooccurrence, CountsAndPositivePmiMatchADirectCountOfTheText)
{
    // byte tokens: every letter is a word whatever its case, spaces and punctuation are none
    const std::string text = "a b, c A d b; a c  e b a d. c c";
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    const int span = 3;
    Cooccurrence counts;
    counts.reset(word);
    const std::vector<uint32_t> ids = byte_ids(text);
    counts.add(ids.data(), ids.size(), span);

    // the same text counted as a list of (word, word) pairs within the span
    std::vector<char> words;
    for (char c : text) {
        if (std::isalpha((unsigned char)c)) {
            words.push_back((char)std::tolower(c));
        }
    }
    std::map<std::pair<char, char>, double> pairs;
    std::map<char, double> marginal;
    double total = 0;
    for (size_t i = 0; i < words.size(); i++) {
        for (size_t j = 0; j < words.size(); j++) {
            if (i != j && (i < j ? j - i : i - j) <= (size_t)span) {
                pairs[{words[i], words[j]}] += 1;
                marginal[words[i]] += 1;
                total += 1;
            }
        }
    }
    const int n = counts.size();
    auto number = [&counts](char c) {
        return counts.number_of[(unsigned char)c];
    };
    EXPECT_EQ(number('a'), number('A'));
    EXPECT_EQ(number(' '), -1);
    EXPECT_EQ(counts.seen[(size_t)number('c')], 4.0);
    double counted = 0;
    for (char a = 'a'; a <= 'e'; a++) {
        for (char b = 'a'; b <= 'e'; b++) {
            const float got = counts.pair[(size_t)number(a) * n + number(b)];
            const double want = pairs[{a, b}];
            EXPECT_EQ(got, (float)want) << a << " " << b;
            counted += got;
        }
    }
    EXPECT_EQ(counted, total); // nothing counted outside the five words

    // PMI from the probabilities of the pair list, with the context distribution smoothed
    const double alpha = 0.75;
    double smoothed_sum = 0;
    for (const auto &m : marginal) {
        smoothed_sum += std::pow(m.second, alpha);
    }
    const std::vector<float> ppmi = positive_pmi(counts, alpha);
    int positive = 0, zero = 0;
    for (char a = 'a'; a <= 'e'; a++) {
        for (char b = 'a'; b <= 'e'; b++) {
            const double p_ab = pairs[{a, b}] / total;
            const double p_a = marginal[a] / total;
            const double p_b = std::pow(marginal[b], alpha) / smoothed_sum;
            const double want = p_ab > 0 ? std::max(0.0, std::log(p_ab / (p_a * p_b))) : 0.0;
            EXPECT_NEAR(ppmi[(size_t)number(a) * n + number(b)], want, 1e-5) << a << " " << b;
            (want > 0 ? positive : zero)++;
        }
    }
    EXPECT_GT(positive, 3);
    EXPECT_GT(zero, 3);
}

TEST(TruncatedSvd, FindsTheLeadingSingularValuesAndVectorsOfAKnownMatrix)
{
    // m = sum over j of s_j u_j v_j^T with orthonormal u, v (Gram-Schmidt of seeded values)
    const int rows = 60, cols = 45, r = 8;
    const float s[r] = {9, 7, 5, 4, 3, 2, 1, 0.5f};
    std::mt19937_64 rng(5);
    std::normal_distribution<double> normal;
    auto orthonormal = [&](int len) {
        std::vector<std::vector<double>> basis;
        while ((int)basis.size() < r) {
            std::vector<double> x((size_t)len);
            for (double &v : x) {
                v = normal(rng);
            }
            for (const auto &b : basis) {
                double d = 0;
                for (int i = 0; i < len; i++) {
                    d += x[(size_t)i] * b[(size_t)i];
                }
                for (int i = 0; i < len; i++) {
                    x[(size_t)i] -= d * b[(size_t)i];
                }
            }
            double norm = 0;
            for (double v : x) {
                norm += v * v;
            }
            for (double &v : x) {
                v /= std::sqrt(norm);
            }
            basis.push_back(x);
        }
        return basis;
    };
    const auto u_true = orthonormal(rows), v_true = orthonormal(cols);
    std::vector<float> m((size_t)rows * cols, 0.0f);
    for (int j = 0; j < r; j++) {
        for (int a = 0; a < rows; a++) {
            for (int b = 0; b < cols; b++) {
                m[(size_t)a * cols + b] += (float)(s[j] * u_true[j][a] * v_true[j][b]);
            }
        }
    }
    std::vector<float> u, sigma;
    truncated_svd(m, rows, cols, 5, 2, 11, &u, &sigma);
    ASSERT_EQ(sigma.size(), 5u);
    for (int j = 0; j < 5; j++) {
        EXPECT_NEAR(sigma[(size_t)j], s[j], 1e-3) << j;
        double along = 0; // |u_j . u_true_j| is 1 up to the sign
        for (int a = 0; a < rows; a++) {
            along += u[(size_t)j * rows + a] * u_true[j][a];
        }
        EXPECT_NEAR(std::fabs(along), 1.0, 1e-3) << j;
    }
}

TEST(UsageStart, WordsUsedAlikePointAlikeWhileEachStaysNearestItself)
{
    // "a" and "b" keep the same company (p q r s), "x" and "y" another (k l m n)
    std::mt19937_64 rng(9);
    std::string corpus;
    const std::string first = "pqrs", second = "klmn";
    for (int i = 0; i < 3000; i++) {
        const std::string &ctx = i % 2 ? first : second;
        const char *pair = i % 2 ? "ab" : "xy";
        corpus += ctx[rng() % 4];
        corpus += ' ';
        corpus += pair[rng() % 2];
        corpus += ' ';
        corpus += ctx[rng() % 4];
        corpus += i % 10 == 9 ? "\n\n" : " ";
    }
    TempDir dir;
    write_file_text(dir.file("corpus.txt"), corpus);
    CorpusSampler sampler;
    std::string err;
    ASSERT_TRUE(sampler.open(dir.file("corpus.txt"), &err)) << err;
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    Cooccurrence counts;
    std::mt19937_64 draw(1);
    ASSERT_TRUE(count_cooccurrence(sampler, nullptr, word, 200, 1, draw, &counts, &err)) << err;
    constexpr int LIVE = DIM - IDF_SPARE_DIMS;
    const std::vector<float> usage = usage_vectors(counts, TRN_ENCODER_BYTE_VOCAB, LIVE, 3);
    auto row = [&usage](char c) {
        return &usage[(size_t)(unsigned char)c * LIVE];
    };
    EXPECT_NEAR(dot(row('a'), row('a'), LIVE), 1.0, 1e-4);
    EXPECT_NEAR(dot(row('A'), row('a'), LIVE), 1.0, 1e-4);
    EXPECT_GT(dot(row('a'), row('b'), LIVE), 0.8);
    EXPECT_GT(dot(row('x'), row('y'), LIVE), 0.8);
    EXPECT_LT(dot(row('a'), row('x'), LIVE), 0.2);
    EXPECT_EQ(dot(row('z'), row('z'), LIVE), 0.0); // never seen: no usage

    // the encoder --idf --usage 0.5 starts from, every word weighing the same
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, std::vector<float>(TRN_ENCODER_BYTE_VOCAB, 1.0f), word, usage, 0.5);
    float va[DIM], vb[DIM], vx[DIM], vz[DIM];
    trn_encoder_embed_text(&enc, "a", va);
    trn_encoder_embed_text(&enc, "B", vb);
    trn_encoder_embed_text(&enc, "x", vx);
    trn_encoder_embed_text(&enc, "z", vz);
    encoder_release(&enc);
    EXPECT_GT(dot(va, vb, DIM), 0.35); // about half of the usage likeness
    EXPECT_LT(dot(va, vb, DIM), 0.65);
    EXPECT_LT(std::fabs(dot(va, vx, DIM)), 0.2);
    EXPECT_LT(std::fabs(dot(va, vz, DIM)), 0.2);
    EXPECT_EQ(va[0], 0.0f); // the spare components never reach the vector
    EXPECT_EQ(va[1], 0.0f);
}
