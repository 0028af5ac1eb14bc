// The encoder that ships in models/default.tten: it loads as a version 3 file with its tokenizer,
// keeps within the repository's size limit, and embeds a known text to the vector recorded when
// it was trained, so a changed file, tokenizer or forward pass shows here.
#include "internal.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

namespace
{

const char TEXT[] = "How do I roll back a transaction after an error?";

// Components 16, 48, ..., 496 of TEXT's vector (one in every 32, past the first 16, which the
// final norm leaves at 0), and the sum over all 512 of v[i] * (i % 7 - 3).
const float RECORDED[16] = {0.08434806f,
                            -0.01873719f,
                            0.03685075f,
                            0.04319185f,
                            -0.01648818f,
                            -0.04777228f,
                            0.07149182f,
                            0.03365615f,
                            -0.00558703f,
                            0.02972235f,
                            -0.04133451f,
                            -0.06137246f,
                            0.00039493f,
                            0.01267460f,
                            0.06490309f,
                            0.02487653f};
const double RECORDED_PATTERN = -0.03140316;

} // namespace

TEST(BuiltInEncoder, LoadsAndEmbedsAKnownTextToTheRecordedVector)
{
    const std::string path = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        GTEST_SKIP() << "no built-in encoder at " << path;
    }
    EXPECT_LE(st.st_size, 45 * 1000 * 1000);
    TrnEncoder enc;
    encoder_init(&enc, 42);
    ASSERT_EQ(trn_encoder_load_weights(&enc, path.c_str()), 1);
    ASSERT_NE(enc.bpe, nullptr);
    EXPECT_EQ(enc.bpe->n_merges, 7740u);
    float v[TRN_ENCODER_DIM];
    trn_encoder_embed_text(&enc, TEXT, v);
    encoder_release(&enc);
    double pattern = 0;
    for (int i = 0; i < TRN_ENCODER_DIM; i++) {
        pattern += (double)v[i] * (i % 7 - 3);
    }
    for (int i = 0; i < 16; i++) {
        EXPECT_NEAR(v[16 + 32 * i], RECORDED[i], 1e-5) << "component " << 16 + 32 * i;
    }
    EXPECT_NEAR(pattern, RECORDED_PATTERN, 1e-4);
}

// The shipped file is a trained encoder, not the random one: a question lies nearer the passage
// that answers it, in other words and other case, than passages on other subjects.
TEST(BuiltInEncoder, AQuestionLiesNearestThePassageThatAnswersIt)
{
    const std::string path = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        GTEST_SKIP() << "no built-in encoder at " << path;
    }
    TrnEncoder enc;
    encoder_init(&enc, 42);
    ASSERT_EQ(trn_encoder_load_weights(&enc, path.c_str()), 1);
    const char *passages[] = {
        "ROLLBACK aborts the current transaction: every change made since BEGIN is discarded.",
        "The violin has four strings tuned in perfect fifths and is played with a bow.",
        "Glaciers carve deep U-shaped valleys as they move slowly down the mountain side.",
    };
    float q[TRN_ENCODER_DIM], p[TRN_ENCODER_DIM];
    trn_encoder_embed_text(&enc, TEXT, q);
    float score[3];
    for (int i = 0; i < 3; i++) {
        trn_encoder_embed_text(&enc, passages[i], p);
        score[i] = 0;
        for (int c = 0; c < TRN_ENCODER_DIM; c++) {
            score[i] += q[c] * p[c];
        }
    }
    encoder_release(&enc);
    EXPECT_GT(score[0], score[1] + 0.1f);
    EXPECT_GT(score[0], score[2] + 0.1f);
}
