// What the trainer trains is what the engine runs: after training steps, a save and an engine
// load, the engine embeds every text to the vector the trainer's own forward pass gives.
// Also: the threaded step computes the same update, and steps lower the loss.
#include "training.h"

#include "../engine/store_fixtures.h"
#include "internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using namespace trn_train;

namespace
{

std::vector<std::string> pair_texts()
{
    return {
        "river mill flour",
        "The river flows past the old mill where the miller grinds wheat into flour.",
        "violin strings bow",
        "A violin has four strings tuned in fifths and is played with a bow.",
        "glaciers carve valleys",
        "Glaciers carve deep valleys as they move slowly down the mountain side.",
        "compilers machine code",
        "Compilers translate source code into machine instructions for the processor.",
    };
}

// Texts that exercise the engine's edges: empty, bytes above 127, longer than 254 bytes.
std::vector<std::string> probe_texts()
{
    std::string long_text;
    for (int i = 0; i < 40; i++) {
        long_text += "word" + std::to_string(i) + " ";
    }
    return {"", "a", "caf\xc3\xa9 na\xc3\xafve \xff\x80", long_text, pair_texts()[1]};
}

// Trains two steps, saves, loads into a fresh engine encoder and compares the embeddings.
void expect_engine_embeds_like_trainer(TrnEncoder *enc, uint32_t want_version)
{
    // a high rate, so that two steps move the embeddings clearly
    Trainer trainer(enc, 4, 1e-2f, 10, 1);
    trainer.step(pair_texts());
    trainer.step(pair_texts());
    trainer.store(enc);

    TempDir dir;
    const std::string path = dir.file("w.tten");
    TrnWeightsMeta meta{2, 4, 1e-3f, 1.5f, 12345};
    ASSERT_EQ(trn_encoder_save_weights_meta(enc, path.c_str(), &meta), 1);
    std::vector<uint8_t> head = read_file_bytes(path);
    ASSERT_GE(head.size(), 8u);
    EXPECT_EQ(head[4], want_version);

    TrnEncoder loaded;
    encoder_init(&loaded, 42);
    TrnWeightsMeta back{};
    ASSERT_EQ(trn_encoder_load_weights_meta(&loaded, path.c_str(), &back), 1);
    EXPECT_EQ(back.meta_u64, 12345u);

    std::vector<std::string> texts = probe_texts();
    std::vector<float> mine;
    trainer.embed(texts, mine);
    for (size_t t = 0; t < texts.size(); t++) {
        float engine[TRN_ENCODER_DIM];
        trn_encoder_embed_text(&loaded, texts[t].c_str(), engine);
        float worst = 0, norm = 0;
        for (int c = 0; c < TRN_ENCODER_DIM; c++) {
            worst = std::max(worst, std::fabs(engine[c] - mine[t * TRN_ENCODER_DIM + c]));
            norm += engine[c] * engine[c];
        }
        EXPECT_LT(worst, 1e-5f) << "text " << t;
        EXPECT_NEAR(norm, 1.0f, 1e-4f);
    }
    // and the trained encoder is not the random one any more
    TrnEncoder fresh;
    encoder_init(&fresh, 42);
    float a[TRN_ENCODER_DIM], b[TRN_ENCODER_DIM];
    trn_encoder_embed_text(&fresh, texts[4].c_str(), a);
    trn_encoder_embed_text(&loaded, texts[4].c_str(), b);
    float diff = 0;
    for (int c = 0; c < TRN_ENCODER_DIM; c++) {
        diff = std::max(diff, std::fabs(a[c] - b[c]));
    }
    EXPECT_GT(diff, 1e-3f);
    encoder_release(&fresh);
    encoder_release(&loaded);
}

} // namespace

TEST(WeightsRoundTrip, ByteLevelVersion2EmbedsInTheEngineAsInTheTrainer)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    expect_engine_embeds_like_trainer(&enc, 2);
    encoder_release(&enc);
}

TEST(WeightsRoundTrip, TokenizerVersion3EmbedsInTheEngineAsInTheTrainer)
{
    std::string corpus;
    for (const std::string &t : pair_texts()) {
        corpus += t + "\n\n";
    }
    TrnBpe *bpe = trn_bpe_train((const uint8_t *)corpus.data(), corpus.size(), 25);
    ASSERT_NE(bpe, nullptr);
    TrnEncoder enc;
    encoder_init_bpe(&enc, 42, bpe);
    ASSERT_EQ(enc.vocab_size, 260 + bpe->n_merges);
    expect_engine_embeds_like_trainer(&enc, 3);
    encoder_release(&enc);
}

TEST(TrainerStep, ThreadsSplitTheBatchWithoutChangingTheStep)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    Trainer one(&enc, 4, 1e-3f, 2000, 1);
    Trainer three(&enc, 4, 1e-3f, 2000, 3);
    for (int s = 0; s < 2; s++) {
        double l1 = one.step(pair_texts());
        double l3 = three.step(pair_texts());
        EXPECT_NEAR(l1, l3, 1e-5) << "step " << s + 1;
        EXPECT_NEAR(one.last_grad_norm(), three.last_grad_norm(), 1e-4 * one.last_grad_norm());
    }
    EXPECT_EQ(one.tokens_seen(), three.tokens_seen());
    encoder_release(&enc);
}

TEST(TrainerStep, RepeatedStepsOnOneBatchLowerItsLoss)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    std::vector<std::string> texts = pair_texts();
    texts.resize(4); // two pairs
    Trainer trainer(&enc, 2, 1e-2f, 10, 1);
    double first = trainer.step(texts);
    double last = first;
    for (int s = 0; s < 9; s++) {
        last = trainer.step(texts);
    }
    EXPECT_LT(last, 0.5 * first);
    encoder_release(&enc);
}

TEST(TrainerSchedule, WarmsUpThenDecaysToAFractionOfThePeak)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    {
        // 2000 steps: a warm-up of 10% of the steps
        Trainer trainer(&enc, 2, 1e-3f, 2000, 1);
        EXPECT_FLOAT_EQ(trainer.lr_at(1), 5e-6f);
        EXPECT_FLOAT_EQ(trainer.lr_at(100), 5e-4f);
        EXPECT_FLOAT_EQ(trainer.lr_at(200), 1e-3f);
        EXPECT_LT(trainer.lr_at(201), 1e-3f);
        EXPECT_LT(trainer.lr_at(1000), trainer.lr_at(500));
        EXPECT_NEAR(trainer.lr_at(2000), 5e-5f, 1e-9f);
    }
    {
        // short runs warm up over at least 50 steps, or all of them
        Trainer trainer(&enc, 2, 1e-3f, 200, 1);
        EXPECT_FLOAT_EQ(trainer.lr_at(25), 5e-4f);
        EXPECT_FLOAT_EQ(trainer.lr_at(50), 1e-3f);
        Trainer tiny(&enc, 2, 1e-3f, 10, 1);
        EXPECT_FLOAT_EQ(tiny.lr_at(5), 5e-4f);
        EXPECT_FLOAT_EQ(tiny.lr_at(10), 1e-3f);
    }
    encoder_release(&enc);
}

TEST(TrainerStep, EachTensorMovesOnlyWhenItsGroupHasARate)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    Trainer trainer(&enc, 4, 1e-3f, 10, 1);
    const std::vector<float> before = trainer.params();
    trainer.step(pair_texts());
    trainer.step(pair_texts());
    const ParamLayout &layout = trainer.layout();
    int moving = 0;
    for (int t = 0; t < TENSOR_COUNT; t++) {
        float change = 0;
        for (size_t i = layout.offset[t]; i < layout.offset[t] + layout.size[t]; i++) {
            change = std::max(change, std::fabs(trainer.params()[i] - before[i]));
        }
        char name[64];
        tensor_name(t, name, sizeof name);
        if (lr_multiplier(t) > 0.0f) {
            EXPECT_GT(change, 0.0f) << name;
            moving++;
        } else {
            EXPECT_EQ(change, 0.0f) << name;
        }
    }
    // the layer norms always train: two per layer and the final one, scale and shift each
    EXPECT_GE(moving, 2 * (2 * LAYERS + 1));
    encoder_release(&enc);
}
