// The weighted bag of tokens that --idf starts from: how rare each token is in the corpus, and an
// encoder that embeds a text as the sum of its tokens' directions weighted by that rarity.
#include "training.h"

#include "../engine/store_fixtures.h"
#include "internal.h"

#include <gtest/gtest.h>

#include <cmath>
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

float max_diff(const Vec &a, const Vec &b)
{
    float worst = 0;
    for (size_t i = 0; i < a.size(); i++) {
        worst = std::max(worst, std::fabs(a[i] - b[i]));
    }
    return worst;
}

// What a bag of tokens must give, worked out from the seeded random rows alone: each token's row
// past the spare components, centred and scaled to unit variance, times its weight, summed over
// the text's bytes, zero on the spare components, to unit length.
Vec expected_bag(const std::string &text, const Vec &weight)
{
    TrnEncoder fresh;
    encoder_init(&fresh, 42);
    Vec sum(DIM, 0.0f);
    for (unsigned char byte : text) {
        const float *row = fresh.tok_emb + (size_t)byte * DIM;
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
            sum[d] += (float)(weight[byte] * (row[d] - mean) / sd);
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

TEST(BagOfTokens, ATextIsItsTokensDirectionsWeightedByRarityInAnyOrder)
{
    Vec weight(TRN_ENCODER_BYTE_VOCAB, 0.0f);
    weight['a'] = 1.0f;
    weight['b'] = 0.5f;
    weight['c'] = 0.25f;
    weight[' '] = 0.0f; // as common as a token can be
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, weight);

    const Vec abc = embed(&enc, "abc");
    EXPECT_LT(max_diff(abc, expected_bag("abc", weight)), 1e-5f);
    EXPECT_LT(max_diff(embed(&enc, "aabc"), expected_bag("aabc", weight)), 1e-5f);
    // positions count for nothing, and a token of weight 0 adds nothing wherever it stands
    EXPECT_LT(max_diff(embed(&enc, "cba"), abc), 1e-5f);
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
    ASSERT_TRUE(token_rarity(sampler, nullptr, TRN_ENCODER_BYTE_VOCAB, 50, rng, &rarity, &err))
        << err;
    TrnEncoder enc;
    encoder_init(&enc, 42);
    bag_of_tokens(&enc, rarity);
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
    ASSERT_TRUE(token_rarity(sampler, nullptr, TRN_ENCODER_BYTE_VOCAB, windows, rng, &rarity, &err))
        << err;
    ASSERT_EQ(rarity.size(), (size_t)TRN_ENCODER_BYTE_VOCAB);
    // a window of 800 bytes always holds "e"; the begin and end tokens are in every window too
    EXPECT_FLOAT_EQ(rarity['e'], 0.0f);
    EXPECT_FLOAT_EQ(rarity[TRN_TOKEN_BEGIN], 0.0f);
    EXPECT_FLOAT_EQ(rarity['x'], 1.0f);
    // "q" is in the windows that reach paragraph 100: about a fifth of them, however many q's
    const double held = std::exp(std::log(windows + 1.0) * (1.0 - rarity['q'])) - 1.0;
    EXPECT_GT(held, windows * 0.05);
    EXPECT_LT(held, windows * 0.4);

    // a corpus that cannot be read any more says so
    const std::string gone = dir.file("corpus.txt");
    ASSERT_EQ(truncate(gone.c_str(), 0), 0);
    EXPECT_FALSE(token_rarity(sampler, nullptr, TRN_ENCODER_BYTE_VOCAB, 10, rng, &rarity, &err));
    EXPECT_FALSE(err.empty());
}
