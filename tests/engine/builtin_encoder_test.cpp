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

// The first 16 components of TEXT's vector, and the sum over all 512 of v[i] * (i % 7 - 3).
const float RECORDED[16] = {0.00622128f,
                            0.00162979f,
                            0.03746127f,
                            -0.03396885f,
                            -0.00034421f,
                            -0.00832226f,
                            0.04126447f,
                            -0.02830219f,
                            -0.08308131f,
                            -0.02852626f,
                            0.02789838f,
                            -0.03996421f,
                            0.01713502f,
                            -0.06517620f,
                            -0.08949601f,
                            0.00550969f};
const double RECORDED_PATTERN = 0.60174847;

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
        EXPECT_NEAR(v[i], RECORDED[i], 1e-5) << "component " << i;
    }
    EXPECT_NEAR(pattern, RECORDED_PATTERN, 1e-4);
}
