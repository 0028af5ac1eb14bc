// The weighted bag of tokens that --idf starts from: how rare each token is in the corpus, an
// encoder that embeds a text as the sum of its distinct tokens' directions weighted by that rarity
// and by 1 + ln of their counts, and its training, which ends with a word's forms sharing one
// direction.
#include "training.h"

#include "../engine/store_fixtures.h"
#include "internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using namespace trn_train;

namespace
{

using Vec = std::vector<float>;

Vec embed(TrnEncoder *enc, const std::string &text)
{
    Vec v(DIM);
    trn_encoder_embed_text(enc, text.c_str(), v.data());
    return v;
}

// The weighted sum of the vectors, to unit length.
Vec unit(const std::vector<Vec> &vs, const std::vector<float> &w)
{
    Vec sum(vs[0].size(), 0.0f);
    double norm = 0;
    for (size_t i = 0; i < sum.size(); i++) {
        for (size_t j = 0; j < vs.size(); j++) {
            sum[i] += w[j] * vs[j][i];
        }
        norm += (double)sum[i] * sum[i];
    }
    for (float &x : sum) {
        x = (float)(x / std::sqrt(norm));
    }
    return sum;
}

float max_diff(const Vec &a, const Vec &b)
{
    float worst = 0;
    for (size_t i = 0; i < a.size(); i++) {
        worst = std::max(worst, std::fabs(a[i] - b[i]));
    }
    return worst;
}

// What a bag of words must give, worked out from the seeded random rows alone: the row of each
// token's word past the spare components, centred and scaled to unit variance, times the token's
// weight and 1 + ln of how often the text holds it, summed over the text's distinct bytes, zero on
// the spare components, to unit length.
Vec expected_bag(const std::string &text, const Vec &weight, const std::vector<uint32_t> &word)
{
    TrnEncoder fresh;
    encoder_init(&fresh, 42);
    Vec sum(DIM, 0.0f);
    std::map<unsigned char, int> count;
    for (unsigned char byte : text) {
        count[byte]++;
    }
    for (auto [byte, times] : count) {
        const float *row = fresh.tok_emb + (size_t)word[byte] * DIM;
        double mean = 0, sq = 0;
        for (int d = IDF_SPARE_DIMS; d < DIM; d++) {
            mean += row[d];
        }
        mean /= DIM - IDF_SPARE_DIMS;
        for (int d = IDF_SPARE_DIMS; d < DIM; d++) {
            sq += (row[d] - mean) * (row[d] - mean);
        }
        const double sd = std::sqrt(sq / (DIM - IDF_SPARE_DIMS));
        for (int d = IDF_SPARE_DIMS; d < DIM; d++) {
            sum[d] += (float)(weight[byte] * (1 + std::log(times)) * (row[d] - mean) / sd);
        }
    }
    encoder_release(&fresh);
    double norm = 0;
    for (float x : sum) {
        norm += (double)x * x;
    }
    for (float &x : sum) {
        x = (float)(x / std::sqrt(norm));
    }
    return sum;
}

} // namespace

TEST(TokenWords, SpellingsThatDifferInCaseOrSpacesAreOneWordAndPunctuationIsNone)
{
    uint32_t merges[][2] = {
        {' ', 'r'},   // 260 " r"
        {260, 'e'},   // 261 " re"
        {'R', 'e'},   // 262 "Re"
        {'r', 'e'},   // 263 "re"
        {'\t', '\t'}, // 264 two tabs
        {'(', ')'},   // 265 "()"
        {263, ')'},   // 266 "re)"
    };
    TrnBpe bpe{merges, 7, 267, nullptr};
    const std::vector<uint32_t> word = token_words(&bpe, 267);
    ASSERT_EQ(word.size(), 267u);
    EXPECT_EQ(word['a'], (uint32_t)'A');
    EXPECT_EQ(word['A'], (uint32_t)'A');
    EXPECT_EQ(word['7'], (uint32_t)'7');
    EXPECT_EQ(word[0xc3], 0xc3u); // a byte of a UTF-8 letter
    EXPECT_EQ(word[260], (uint32_t)'R');
    EXPECT_EQ(word[261], 261u);
    EXPECT_EQ(word[262], 261u);
    EXPECT_EQ(word[263], 261u);
    EXPECT_EQ(word[266], 266u); // punctuation inside a token is part of its spelling
    for (uint32_t none : {(uint32_t)' ',
                          (uint32_t)'{',
                          (uint32_t)'\n',
                          264u,
                          265u,
                          (uint32_t)TRN_TOKEN_BEGIN,
                          (uint32_t)TRN_TOKEN_END}) {
        EXPECT_EQ(word[none], NO_WORD) << none;
    }
}

TEST(BagOfTokens, ATextIsItsWordsDirectionsWeightedByRarityInAnyOrderAndCase)
{
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    Vec weight(TRN_ENCODER_BYTE_VOCAB, 0.0f);
    for (unsigned char c : std::string("aA")) {
        weight[c] = 1.0f;
    }
    for (unsigned char c : std::string("bB")) {
        weight[c] = 0.5f;
    }
    weight['c'] = 0.25f;
    weight['C'] = 0.25f;
    weight[' '] = 0.0f; // as common as a word can be
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, weight, word);

    const Vec abc = embed(&enc, "abc");
    EXPECT_LT(max_diff(abc, expected_bag("abc", weight, word)), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "aabc"), expected_bag("aabc", weight, word)), 1e-5f);
    // positions count for nothing, nor does case, and a token of weight 0 adds nothing
    EXPECT_LT(max_diff(embed(&enc, "cba"), abc), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "AbC"), abc), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "  a b  c "), abc), 1e-5f);
    // a text of nothing but weightless tokens has no direction, not a NaN
    for (float x : embed(&enc, "   ")) {
        EXPECT_EQ(x, 0.0f);
    }
    encoder_release(&enc);
}

TEST(BagOfTokens, ItsStartingPointSurvivesASaveAndTheTrainersForwardPass)
{
    TempDir dir;
    write_file_text(dir.file("corpus.txt"), "the river mill\n\nthe violin bow\n\n");
    CorpusSampler sampler;
    std::string err;
    ASSERT_TRUE(sampler.open(dir.file("corpus.txt"), &err)) << err;
    std::mt19937_64 rng(1);
    Vec rarity;
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    ASSERT_TRUE(token_rarity(sampler, nullptr, word, 50, rng, &rarity, &err)) << err;
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, rarity, word);
    ASSERT_EQ(trn_encoder_save_weights(&enc, dir.file("w.tten").c_str()), 1);

    TrnEncoder loaded;
    encoder_init(&loaded, 7);
    ASSERT_EQ(trn_encoder_load_weights(&loaded, dir.file("w.tten").c_str()), 1);
    Trainer trainer(&enc, 2, 1e-3f, 10, 1);
    const std::vector<std::string> texts = {"river mill", "a violin bow", "zebra"};
    Vec mine;
    trainer.embed(texts, mine);
    for (size_t t = 0; t < texts.size(); t++) {
        const Vec engine = embed(&loaded, texts[t]);
        const Vec train(mine.begin() + t * DIM, mine.begin() + (t + 1) * DIM);
        EXPECT_LT(max_diff(engine, train), 1e-5f) << texts[t];
    }
    // bytes the corpus never holds weigh the most, so a text of them has a direction
    EXPECT_FLOAT_EQ(rarity['z'], 1.0f);
    float norm = 0;
    for (float x : embed(&loaded, "zebra")) {
        norm += x * x;
    }
    EXPECT_NEAR(norm, 1.0f, 1e-4f);
    encoder_release(&loaded);
    encoder_release(&enc);
}

TEST(TokenRarity, CountsWindowsNotOccurrencesAndLiesBetweenZeroAndOne)
{
    // "q" stands in one paragraph of two hundred, many times; "e" in every one, once
    std::string corpus;
    for (int p = 0; p < 200; p++) {
        corpus += p == 100 ? "qqqqqqqqqqqqqqqqqqqqqqqq the end\n\n" : "the end of a line\n\n";
    }
    TempDir dir;
    write_file_text(dir.file("corpus.txt"), corpus);
    CorpusSampler sampler;
    std::string err;
    ASSERT_TRUE(sampler.open(dir.file("corpus.txt"), &err)) << err;
    std::mt19937_64 rng(3);
    const int windows = 400;
    Vec rarity;
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    ASSERT_TRUE(token_rarity(sampler, nullptr, word, windows, rng, &rarity, &err)) << err;
    ASSERT_EQ(rarity.size(), (size_t)TRN_ENCODER_BYTE_VOCAB);
    // a window of 800 bytes always holds "e"; "x" is in none; white space is no word
    EXPECT_FLOAT_EQ(rarity['e'], 0.0f);
    EXPECT_FLOAT_EQ(rarity['x'], 1.0f);
    EXPECT_FLOAT_EQ(rarity[' '], 0.0f);
    EXPECT_FLOAT_EQ(rarity[TRN_TOKEN_BEGIN], 0.0f);
    // "E" is never in the corpus, but it is the word "e"
    EXPECT_FLOAT_EQ(rarity['E'], 0.0f);
    EXPECT_EQ(rarity['Q'], rarity['q']);
    // "q" is in the windows that reach paragraph 100: about a fifth of them, however many q's
    const double held = std::exp(std::log(windows + 1.0) * (1.0 - rarity['q'])) - 1.0;
    EXPECT_GT(held, windows * 0.05);
    EXPECT_LT(held, windows * 0.4);

    // a corpus that cannot be read any more says so
    const std::string gone = dir.file("corpus.txt");
    ASSERT_EQ(truncate(gone.c_str(), 0), 0);
    EXPECT_FALSE(token_rarity(sampler, nullptr, word, 10, rng, &rarity, &err));
    EXPECT_FALSE(err.empty());
}

TEST(BagTraining, LearnsPairsAndTheEngineEmbedsExactlyWhatItTrained)
{
    // byte tokens: each pair shares one word (q, r, s or t) and differs in the rest
    const std::vector<std::string> texts = {
        "qa qb", "qc qd", "ra rb", "rc rd", "sa sb", "sc sd", "ta tb", "tc td"};
    const std::vector<uint32_t> word = token_words(nullptr, TRN_ENCODER_BYTE_VOCAB);
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, Vec(TRN_ENCODER_BYTE_VOCAB, 0.5f), word);
    BagTrainer bag(&enc, BagOptions{60, 4, 0.05f}, 2);
    double first = 0, last = 0;
    for (int k = 0; k < 60; k++) {
        (k == 0 ? first : last) = bag.step(texts);
    }
    EXPECT_LT(last, first * 0.5);
    Vec mine;
    bag.embed(texts, mine);
    bag.store(&enc);
    for (size_t t = 0; t < texts.size(); t++) {
        const Vec engine = embed(&enc, texts[t]);
        EXPECT_LT(max_diff(engine, Vec(mine.begin() + t * DIM, mine.begin() + (t + 1) * DIM)),
                  1e-4f)
            << texts[t];
    }
    // the longest row fills a unit-variance row but for a sliver: no spare part goes negative
    for (uint32_t t = 0; t < enc.vocab_size; t++) {
        EXPECT_GE(enc.tok_emb[(size_t)t * DIM], 0.0f);
    }
    encoder_release(&enc);
}

TEST(BagTraining, AWordsFormsEndWithOneDirectionEachKeepingItsLength)
{
    uint32_t merges[][2] = {
        {'r', 'e'}, // 260 "re"
        {260, 'a'}, // 261 "rea"
        {261, 'd'}, // 262 "read"
        {262, 's'}, // 263 "reads"
        {'i', 'n'}, // 264 "in"
        {264, 'g'}, // 265 "ing"
        {262, 265}, // 266 "reading"
        {' ', 'R'}, // 267 " R"
        {267, 262}, // 268 " Rread": not a form of "read"
        {' ', 262}, // 269 " read"
        {262, ')'}, // 270 "read)"
        {'R', 'e'}, // 271 "Re"
        {271, 'a'}, // 272 "Rea"
        {272, 'd'}, // 273 "Read"
    };
    TrnBpe bpe{merges, 14, 274, nullptr};
    const std::vector<uint32_t> stem = token_stems(&bpe, 274);
    for (uint32_t form : {262u, 263u, 266u, 269u, 273u}) {
        EXPECT_EQ(stem[form], 262u) << form;
    }
    EXPECT_EQ(stem[261], 261u);
    EXPECT_EQ(stem[268], 268u);
    for (uint32_t none : {(uint32_t)'r', 260u, 264u, 267u, 270u}) {
        EXPECT_EQ(stem[none], NO_WORD) << none;
    }

    // the join on byte tokens: "a" and "b" one group, "c" alone, "d" in none
    TrnEncoder enc;
    encoder_init(&enc, 42);
    Vec weight(TRN_ENCODER_BYTE_VOCAB, 0.5f);
    weight['b'] = 0.25f;
    bag_of_tokens(&enc, weight, token_words(nullptr, TRN_ENCODER_BYTE_VOCAB));
    const Vec a = embed(&enc, "a"), b = embed(&enc, "b"), c = embed(&enc, "c"),
              d = embed(&enc, "d");
    ASSERT_GT(max_diff(a, b), 0.05f);
    std::vector<uint32_t> group(TRN_ENCODER_BYTE_VOCAB, NO_WORD);
    group['a'] = group['b'] = 'a';
    group['c'] = 'c';
    BagTrainer bag(&enc, BagOptions{}, 1);
    bag.join(group);
    bag.store(&enc);
    const Vec a2 = embed(&enc, "a"), b2 = embed(&enc, "b");
    EXPECT_LT(max_diff(a2, b2), 1e-5f);
    const Vec half = unit({a, b}, {1.0f, 1.0f}); // halfway between the two directions
    EXPECT_LT(max_diff(a2, half), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "c"), c), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "d"), d), 1e-5f);
    // "a" still weighs twice "b" (and as much as "c")
    EXPECT_LT(max_diff(embed(&enc, "ac"), unit({half, c}, {1.0f, 1.0f})), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "bc"), unit({half, c}, {0.5f, 1.0f})), 1e-5f);
    encoder_release(&enc);
}
