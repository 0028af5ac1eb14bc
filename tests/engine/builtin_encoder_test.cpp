// The encoder that ships in models/default.tten: it loads as a version 4 file with its tokenizer,
// keeps within the repository's size limit, and embeds a known text to the vector recorded when
// it was trained, so a changed file, tokenizer or forward pass shows here.
#include "internal.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace
{

const char TEXT[] = "How do I roll back a transaction after an error?";

// Components 8, 40, ..., 488 of TEXT's vector (one in every 32), and the sum over all 512 of
// v[i] * (i % 7 - 3).
const float RECORDED[16] = {0.07012975f,
                            0.06049760f,
                            -0.01075243f,
                            0.03997876f,
                            0.02490244f,
                            -0.10433856f,
                            0.02085655f,
                            0.02789644f,
                            0.00074653f,
                            -0.04945490f,
                            -0.03897802f,
                            0.04344871f,
                            0.04764282f,
                            0.02229423f,
                            -0.04825220f,
                            0.02544942f};
const double RECORDED_PATTERN = -2.40812793;

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
    encoder_init_undrawn(&enc); /* as an engine sets its encoder up: the file fills it */
    ASSERT_EQ(trn_encoder_load_weights(&enc, path.c_str()), 1);
    ASSERT_NE(enc.bpe, nullptr);
    EXPECT_EQ(enc.bpe->n_merges, 31740u);
    float v[TRN_ENCODER_DIM];
    trn_encoder_embed_text(&enc, TEXT, v);
    encoder_release(&enc);
    double pattern = 0;
    for (int i = 0; i < TRN_ENCODER_DIM; i++) {
        pattern += (double)v[i] * (i % 7 - 3);
    }
    for (int i = 0; i < 16; i++) {
        EXPECT_NEAR(v[8 + 32 * i], RECORDED[i], 1e-5) << "component " << 8 + 32 * i;
    }
    EXPECT_NEAR(pattern, RECORDED_PATTERN, 1e-4);
}

// An engine reads its encoder's weights at their first use, not at open; weights that cannot be
// read leave it the random encoder, said once on stderr, or quietly to trn_prepare_encoder.
TEST(BuiltInEncoder, WeightsAreReadAtTheirFirstUseAndAFailureLeavesTheRandomEncoder)
{
    TrnConfig plain = {};
    TrnEngine *reference = trn_open(&plain);
    ASSERT_EQ(trn_ingest_text(reference, "/a.txt", TEXT, 800, 200), 1);
    TrnConfig cfg = {};
    cfg.weights_path = "/nonexistent/weights.tten";
    for (bool prepared : {false, true}) {
        testing::internal::CaptureStderr();
        TrnEngine *e = trn_open(&cfg);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find("weights"), std::string::npos);
        testing::internal::CaptureStderr();
        if (prepared) {
            EXPECT_EQ(trn_prepare_encoder(e), 0);
        }
        ASSERT_EQ(trn_ingest_text(e, "/a.txt", TEXT, 800, 200), 1);
        const std::string missing = "tarnwick: cannot open weights: /nonexistent/weights.tten\n";
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  prepared ? missing
                           : missing
                                 + "tarnwick: using random encoder (no weights at "
                                   "/nonexistent/weights.tten)\n");
        EXPECT_EQ(memcmp(e->vectors, reference->vectors, TRN_ENCODER_DIM * sizeof(float)), 0);
        trn_close(e);
    }
    EXPECT_EQ(trn_prepare_encoder(reference), 1);
    trn_close(reference);
}

// The shipped file is a bag of words: each distinct token's row after the final norm, weighing
// 1 + ln of how often the text holds it, summed. Rows set up once at load give a text whose tokens
// all differ the forward pass's bits (short, empty), and any text (one cut at 256 tokens with
// words repeated) the bits of rows computed from the loaded weights as the forward pass does.
// An encoder with position embeddings or live layers is not taken for one.
TEST(BuiltInEncoder, SummedRowsGiveTheForwardPassBits)
{
    const std::string path = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        GTEST_SKIP() << "no built-in encoder at " << path;
    }
    TrnEncoder forward, summed;
    encoder_init(&forward, 42);
    encoder_init(&summed, 42);
    EXPECT_FALSE(encoder_prepare_bag(&summed)) << "the random encoder";
    ASSERT_EQ(trn_encoder_load_weights(&forward, path.c_str()), 1);
    ASSERT_EQ(trn_encoder_load_weights(&summed, path.c_str()), 1);
    ASSERT_TRUE(encoder_prepare_bag(&summed));
    std::string long_text;
    for (int i = 0; i < 200; i++) {
        long_text += "word" + std::to_string(i * 7919 % 1000) + " and ";
    }
    TrnScratch *ws = scratch_new();
    const struct {
        std::string text;
        bool all_differ;
    } cases[] = {{TEXT, true}, {long_text, false}, {"x", true}, {"", true}};
    for (const auto &c : cases) {
        uint32_t ids[TRN_ENCODER_MAX_SEQ];
        const int n = trn_bpe_encode(summed.bpe, c.text.c_str(), ids, TRN_ENCODER_MAX_SEQ);
        ASSERT_EQ(std::set<uint32_t>(ids, ids + n).size() == (size_t)n, c.all_differ);
        float pass[TRN_ENCODER_DIM], a[TRN_ENCODER_DIM], b[TRN_ENCODER_DIM];
        encoder_forward(&forward, ws, ids, n, pass, nullptr);
        encoder_embed(&forward, ws, c.text.c_str(), a);
        encoder_embed(&summed, ws, c.text.c_str(), b);
        EXPECT_EQ(memcmp(a, b, sizeof a), 0) << c.text.substr(0, 40);
        EXPECT_EQ(memcmp(pass, b, sizeof a) == 0, c.all_differ) << c.text.substr(0, 40);
    }
    scratch_free(ws);
    summed.pos_emb[5] = 0.5f;
    EXPECT_FALSE(encoder_prepare_bag(&summed)) << "a position embedding";
    summed.pos_emb[5] = 0.0f;
    summed.layers[1].b2[0] = 0.5f;
    EXPECT_FALSE(encoder_prepare_bag(&summed)) << "a layer output";
    EXPECT_EQ(summed.bag_rows, nullptr);
    encoder_release(&forward);
    encoder_release(&summed);
}

// The engine sets the shipped file up row by row as texts use them: two threads embedding at
// once through one such encoder get the bits of the rows computed at load. A value beyond the
// bound, a NaN, a position embedding or a layer output in a resaved copy is not taken that way
// (the full loader then refuses it or runs the layers); a value at the bound is.
TEST(BuiltInEncoder, RowsSetUpAtFirstUseGiveTheSameBitsAndTheSameChecks)
{
    const std::string path = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        GTEST_SKIP() << "no built-in encoder at " << path;
    }
    TrnEncoder summed, lazy;
    encoder_init(&summed, 42);
    ASSERT_EQ(trn_encoder_load_weights(&summed, path.c_str()), 1);
    ASSERT_TRUE(encoder_prepare_bag(&summed));
    ASSERT_TRUE(encoder_init_bag_file(&lazy, path.c_str()));
    EXPECT_EQ(lazy.tok_emb, nullptr);
    std::vector<std::string> texts = {TEXT, "x", ""};
    for (int i = 0; i < 300; i++) {
        texts.push_back("word" + std::to_string(i * 7919 % 1000) + " and " + std::to_string(i));
    }
    auto embed_all = [&](const TrnEncoder *enc, std::vector<float> *out) {
        TrnScratch *ws = scratch_new();
        out->resize(texts.size() * TRN_ENCODER_DIM);
        for (size_t t = 0; t < texts.size(); t++) {
            encoder_embed(enc, ws, texts[t].c_str(), out->data() + t * TRN_ENCODER_DIM);
        }
        scratch_free(ws);
    };
    std::vector<float> want, first, second;
    embed_all(&summed, &want);
    std::thread other(embed_all, &lazy, &second);
    embed_all(&lazy, &first);
    other.join();
    EXPECT_EQ(memcmp(want.data(), first.data(), want.size() * sizeof(float)), 0);
    EXPECT_EQ(memcmp(want.data(), second.data(), want.size() * sizeof(float)), 0);
    encoder_release(&lazy);
    encoder_release(&summed);

    TrnEncoder enc;
    encoder_init(&enc, 42);
    ASSERT_EQ(trn_encoder_load_weights(&enc, path.c_str()), 1);
    TempDir dir;
    const std::string copy = dir.file("copy.tten");
    struct Case {
        const char *name;
        float *at;
        float value;
        bool taken;
    } cases[] = {
        {"a token value at the bound", enc.tok_emb + 12345, 10000.0f, true},
        {"a token value beyond it", enc.tok_emb + 12345, 10008.0f, false},
        {"a NaN in an input projection", enc.layers[0].w1 + 7, std::nanf(""), false},
        {"a query weight beyond the bound", enc.layers[1].wq + 3, 20000.0f, false},
        {"a position embedding", enc.pos_emb + 5, 0.5f, false},
        {"a layer output", enc.layers[1].b2, 0.5f, false},
    };
    for (const Case &c : cases) {
        const float kept = *c.at;
        *c.at = c.value;
        ASSERT_EQ(trn_encoder_save_weights_flags(&enc, copy.c_str(), nullptr, TRN_WEIGHTS_HALF), 1);
        *c.at = kept;
        EXPECT_EQ(encoder_init_bag_file(&lazy, copy.c_str()), c.taken) << c.name;
        if (c.taken) {
            encoder_release(&lazy);
        }
    }
    encoder_release(&enc);
}

// The shipped file is a trained encoder, not the random one: a question lies nearer the passage
// that answers it, in other words and other case, than passages on other subjects; and a
// paraphrase that shares no word with the question lies nearer it than an unrelated text.
TEST(BuiltInEncoder, AQuestionLiesNearestThePassageThatAnswersItAndAParaphraseToo)
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
    EXPECT_GT(score[0], score[1] + 0.1f);
    EXPECT_GT(score[0], score[2] + 0.1f);

    // paraphrases that share no word: a bag of random word directions scores them as it scores
    // the violin (about half nearer, by nothing on average); the shipped file puts most of them
    // clearly nearer
    const char *paraphrases[][2] = {
        {"sort the list", "order the elements"},
        {"wait for the child process to finish", "block until the subprocess exits"},
        {"shut down the computer", "power off the machine"},
        {"undo changes", "roll back a transaction"},
        {"delete the file", "remove the document"},
        {"make the text larger", "increase the font size"},
        {"start the server", "launch the daemon"},
        {"a fast car", "a quick automobile"},
        {"find the error", "locate the bug"},
        {"copy the data", "duplicate the records"},
    };
    int nearer = 0;
    float margin = 0;
    trn_encoder_embed_text(&enc, passages[1], p);
    for (const auto &pair : paraphrases) {
        float a[TRN_ENCODER_DIM], b[TRN_ENCODER_DIM];
        trn_encoder_embed_text(&enc, pair[0], a);
        trn_encoder_embed_text(&enc, pair[1], b);
        float para = 0, other = 0;
        for (int c = 0; c < TRN_ENCODER_DIM; c++) {
            para += a[c] * b[c];
            other += a[c] * p[c];
        }
        nearer += para > other ? 1 : 0;
        margin += (para - other) / 10;
    }
    EXPECT_GE(nearer, 8);
    EXPECT_GT(margin, 0.08f);
    encoder_release(&enc);
}
