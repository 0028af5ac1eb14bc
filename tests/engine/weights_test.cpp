// The encoder weights file: exact layout and sizes of versions 1-3, bit-exact round trips, and
// every refusal of a damaged or hostile file.
#include "internal.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr size_t D = 512;
constexpr size_t F = 2048;
constexpr long kV1Size = 26263584;
const TrnWeightsMeta kNoMeta = {}; // what a file without metadata loads as

// Overwrites 4 bytes at offset with v (little-endian).
void patchU32(const std::string &path, long offset, uint32_t v)
{
    FILE *f = fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    fseek(f, offset, SEEK_SET);
    fwrite(&v, 4, 1, f);
    fclose(f);
}

uint32_t readU32(const std::string &path, long offset)
{
    uint32_t v = 0;
    FILE *f = fopen(path.c_str(), "rb");
    if (f) {
        fseek(f, offset, SEEK_SET);
        if (fread(&v, 4, 1, f) != 1) {
            v = 0xFFFFFFFFu;
        }
        fclose(f);
    }
    return v;
}

// Every float array of an encoder with its length, in file order.
std::vector<std::pair<const float *, size_t>> tensors(const TrnEncoder *e)
{
    std::vector<std::pair<const float *, size_t>> t = {{e->tok_emb, (size_t)e->vocab_size * D},
                                                       {e->pos_emb, 256 * D},
                                                       {e->ln_f_gamma, D},
                                                       {e->ln_f_beta, D}};
    for (const TrnEncoderLayer &l : e->layers) {
        t.insert(t.end(),
                 {{l.wq, D * D},
                  {l.wk, D * D},
                  {l.wv, D * D},
                  {l.wo, D * D},
                  {l.w1, D * F},
                  {l.b1, F},
                  {l.w2, F * D},
                  {l.b2, D},
                  {l.ln1_gamma, D},
                  {l.ln1_beta, D},
                  {l.ln2_gamma, D},
                  {l.ln2_beta, D}});
    }
    return t;
}

// Bit-for-bit comparison of all tensors (memcmp also tells -0 from 0 and NaN payloads apart).
bool sameWeights(const TrnEncoder *a, const TrnEncoder *b)
{
    if (a->vocab_size != b->vocab_size) {
        return false;
    }
    auto ta = tensors(a);
    auto tb = tensors(b);
    for (size_t i = 0; i < ta.size(); i++) {
        if (memcmp(ta[i].first, tb[i].first, ta[i].second * sizeof(float)) != 0) {
            return false;
        }
    }
    return true;
}

TrnBpe *makeBpe(uint32_t merges)
{
    TrnBpe *bpe = static_cast<TrnBpe *>(xmalloc(sizeof(TrnBpe)));
    bpe->merges = static_cast<uint32_t(*)[2]>(xmalloc(merges * 8 + 8));
    for (uint32_t k = 0; k < merges; k++) {
        bpe->merges[k][0] = k < 1 ? 'a' : 259 + k;
        bpe->merges[k][1] = 'a' + k % 26;
    }
    bpe->n_merges = merges;
    bpe->ranks = nullptr;
    bpe->vocab_size = merges + 260;
    return bpe;
}

class WeightsFile : public testing::Test
{
protected:
    void SetUp() override
    {
        path = dir.file("w.tten");
        encoder_init(&enc, 42);
        // Values the random initialiser never produces, so a load that skips a tensor shows.
        enc.layers[1].ln2_beta[511] = -0.0f;
        enc.ln_f_gamma[3] = 1e-40f;
        encoder_init(&other, 7);
    }
    void TearDown() override
    {
        encoder_release(&enc);
        encoder_release(&other);
    }

    // Loads path into `other` with stderr captured; returns the result and keeps the output.
    int loadQuietly(TrnWeightsMeta *meta = nullptr)
    {
        testing::internal::CaptureStderr();
        int ok = trn_encoder_load_weights_meta(&other, path.c_str(), meta);
        err = testing::internal::GetCapturedStderr();
        return ok;
    }

    TempDir dir;
    std::string path, err;
    TrnEncoder enc, other;
};

TEST_F(WeightsFile, Version1RoundTripsBitForBit)
{
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    EXPECT_EQ(file_size(path), kV1Size);
    EXPECT_EQ(readU32(path, 0), 0x4E455454u); // "TTEN"
    EXPECT_EQ(readU32(path, 4), 1u);
    EXPECT_EQ(readU32(path, 8), 260u);
    EXPECT_EQ(readU32(path, 12), 256u);
    EXPECT_EQ(readU32(path, 16), 512u);
    EXPECT_EQ(readU32(path, 20), 8u);
    EXPECT_EQ(readU32(path, 24), 2048u);
    EXPECT_EQ(readU32(path, 28), 2u);
    uint32_t first;
    memcpy(&first, enc.tok_emb, 4);
    EXPECT_EQ(readU32(path, 32), first) << "tensors start right after the header";

    TrnWeightsMeta meta;
    memset(&meta, 0xAB, sizeof meta);
    ASSERT_EQ(loadQuietly(&meta), 1);
    EXPECT_EQ(err, "");
    EXPECT_TRUE(sameWeights(&enc, &other));
    EXPECT_EQ(memcmp(&meta, &kNoMeta, sizeof meta), 0) << "version 1 zeroes the metadata";

    std::vector<float> a(D), b(D);
    trn_encoder_embed_text(&enc, "same weights, same vector", a.data());
    trn_encoder_embed_text(&other, "same weights, same vector", b.data());
    EXPECT_EQ(a, b);
}

TEST_F(WeightsFile, Version2KeepsTheMetadataIncludingBothHalvesOfTheU64)
{
    TrnWeightsMeta meta = {7, 0xFFFFFFFEu, 0.125f, -3.5f, 0x0123456789ABCDEFull};
    ASSERT_EQ(trn_encoder_save_weights_meta(&enc, path.c_str(), &meta), 1);
    EXPECT_EQ(file_size(path), kV1Size + 28);
    EXPECT_EQ(readU32(path, 4), 2u);
    EXPECT_EQ(readU32(path, 48), 0x89ABCDEFu) << "low half first";
    EXPECT_EQ(readU32(path, 52), 0x01234567u);
    EXPECT_EQ(readU32(path, 56), 0u) << "reserved";

    TrnWeightsMeta back;
    memset(&back, 0, sizeof back);
    ASSERT_EQ(loadQuietly(&back), 1);
    EXPECT_EQ(memcmp(&back, &meta, sizeof meta), 0);
    EXPECT_TRUE(sameWeights(&enc, &other));
    ASSERT_EQ(trn_encoder_load_weights(&other, path.c_str()), 1) << "metadata is optional";
}

TEST_F(WeightsFile, Version3CarriesTheTokenizerAndResizesTheTokenEmbedding)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(5));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    EXPECT_EQ(file_size(path), 64 + 8 * 5 + 2048 * 5 + 26263552);
    EXPECT_EQ(readU32(path, 4), 3u);
    EXPECT_EQ(readU32(path, 8), 265u);
    for (long off = 32; off < 60; off += 4) {
        EXPECT_EQ(readU32(path, off), 0u) << "zero metadata block at " << off;
    }
    EXPECT_EQ(readU32(path, 60), 5u);
    EXPECT_EQ(readU32(path, 64), (uint32_t)'a');

    TrnWeightsMeta meta;
    memset(&meta, 0xAB, sizeof meta);
    ASSERT_EQ(loadQuietly(&meta), 1);
    ASSERT_NE(other.bpe, nullptr);
    EXPECT_EQ(other.vocab_size, 265u);
    EXPECT_EQ(other.bpe->n_merges, 5u);
    EXPECT_EQ(other.bpe->vocab_size, 265u);
    EXPECT_EQ(memcmp(other.bpe->merges, enc.bpe->merges, 5 * 8), 0);
    EXPECT_TRUE(sameWeights(&enc, &other));
    EXPECT_EQ(memcmp(&meta, &kNoMeta, sizeof meta), 0);

    // Loading a version 1 file afterwards makes the encoder byte-level again.
    encoder_release(&enc);
    encoder_init(&enc, 3);
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    ASSERT_EQ(loadQuietly(), 1);
    EXPECT_EQ(other.bpe, nullptr);
    EXPECT_EQ(other.vocab_size, 260u);
    EXPECT_TRUE(sameWeights(&enc, &other));
}

TEST_F(WeightsFile, Version3WithMetadataAndWithZeroMerges)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(0));
    TrnWeightsMeta meta = {1, 2, 3.0f, 4.0f, 5};
    ASSERT_EQ(trn_encoder_save_weights_meta(&enc, path.c_str(), &meta), 1);
    EXPECT_EQ(file_size(path), 64 + 26263552);
    TrnWeightsMeta back;
    ASSERT_EQ(loadQuietly(&back), 1);
    EXPECT_EQ(memcmp(&back, &meta, sizeof meta), 0);
    ASSERT_NE(other.bpe, nullptr);
    EXPECT_EQ(other.bpe->n_merges, 0u);
    EXPECT_EQ(other.vocab_size, 260u);
    EXPECT_TRUE(sameWeights(&enc, &other));
}

TEST_F(WeightsFile, RefusesMissingFileBadMagicAndUnsupportedVersionsWithAMessage)
{
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "tarnwick: cannot open weights: " + path + "\n");

    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    patchU32(path, 0, 0x4E455458u); // "XTEN"
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "tarnwick: bad weights magic in " + path + "\n");

    patchU32(path, 0, 0x4E455454u);
    for (uint32_t version : {0u, 4u, 0x101u}) {
        patchU32(path, 4, version);
        ASSERT_EQ(loadQuietly(), 0);
        EXPECT_EQ(err,
                  "tarnwick: unsupported weights version " + std::to_string(version) + " in " + path
                      + "\n");
    }
}

TEST_F(WeightsFile, RefusesEveryWrongShapeFieldSilentlyAndLeavesTheEncoderAlone)
{
    TrnEncoder before;
    encoder_init(&before, 7); // the same weights as `other`
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    const uint32_t good[5] = {256, 512, 8, 2048, 2};
    for (int field = 0; field < 5; field++) {
        for (uint32_t wrong : {good[field] + 1, good[field] / 2, 0u}) {
            patchU32(path, 12 + 4 * field, wrong);
            ASSERT_EQ(loadQuietly(), 0) << "field " << field << " = " << wrong;
            EXPECT_EQ(err, "");
        }
        patchU32(path, 12 + 4 * field, good[field]);
    }
    patchU32(path, 8, 261);
    ASSERT_EQ(loadQuietly(), 0) << "version 1 with a vocabulary of 261";
    EXPECT_EQ(err, "");
    patchU32(path, 4, 2);
    ASSERT_EQ(loadQuietly(), 0) << "version 2 with a vocabulary of 261";
    EXPECT_EQ(err, "");
    EXPECT_TRUE(sameWeights(&before, &other));
    encoder_release(&before);
}

TEST_F(WeightsFile, RefusesAVersion3VocabularyThatDisagreesWithItsMergeCount)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(3));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    patchU32(path, 60, 4);
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "tarnwick: v3 vocab mismatch: 263 != 260 + 4\n");
    // A count whose sum with 260 wraps around 32 bits must not pass for the vocabulary.
    patchU32(path, 60, 0xFFFFFFFFu - 256);
    patchU32(path, 8, 3);
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "tarnwick: v3 vocab mismatch: 3 != 260 + 4294967039\n");
    EXPECT_EQ(other.bpe, nullptr);
}

TEST_F(WeightsFile, AHostileMergeCountInASmallFileIsRefusedBeforeAnyAllocation)
{
    // 2^32 - 261 merges in a 68-byte file: reading or allocating for them would need hundreds of
    // gigabytes, so the load must fail on the bytes left, not run out of memory.
    const uint32_t m = 0xFFFFFFFFu - 260;
    const uint32_t words[] = {
        0x4E455454u, 3, m + 260, 256, 512, 8, 2048, 2, 0, 0, 0, 0, 0, 0, 0, m, 'a', 'b'};
    write_file_bytes(path, words, sizeof words);
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(other.bpe, nullptr);
    EXPECT_EQ(other.vocab_size, 260u);
}

TEST_F(WeightsFile, EveryCutThroughHeaderMetadataOrPairsFails)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(4));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    // The header, the metadata, the count and all but the last byte of the pairs.
    for (long len = 4; len < 64 + 8 * 4; len += 3) {
        ASSERT_EQ(truncate(path.c_str(), len), 0);
        ASSERT_EQ(loadQuietly(), 0) << "cut at " << len;
        EXPECT_EQ(other.bpe, nullptr) << "cut at " << len;
    }
}

TEST_F(WeightsFile, ACutInsideTheTensorsFailsButKeepsWhatWasRead)
{
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    TrnEncoder before;
    encoder_init(&before, 7);
    // Cut in the middle of layer 0's w1: everything up to wo is overwritten, layer 1 is not.
    long cut = 32 + (long)(260 * D + 256 * D + 2 * D + 4 * D * D + 1000) * 4;
    ASSERT_EQ(truncate(path.c_str(), cut), 0);
    ASSERT_EQ(loadQuietly(), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(memcmp(other.tok_emb, enc.tok_emb, 260 * D * 4), 0);
    EXPECT_EQ(memcmp(other.layers[0].wo, enc.layers[0].wo, D * D * 4), 0);
    EXPECT_EQ(memcmp(other.layers[0].w1, enc.layers[0].w1, 1000 * 4), 0);
    EXPECT_EQ(memcmp(other.layers[1].wq, before.layers[1].wq, D * D * 4), 0);

    // One byte short of the end fails too.
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    ASSERT_EQ(truncate(path.c_str(), kV1Size - 1), 0);
    ASSERT_EQ(loadQuietly(), 0);
    encoder_release(&before);

    // A version 3 file cut after its token embedding still attaches the new tokenizer.
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(6));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    ASSERT_EQ(truncate(path.c_str(), 64 + 8 * 6 + 266 * 2048 + 100), 0);
    ASSERT_EQ(loadQuietly(), 0);
    ASSERT_NE(other.bpe, nullptr);
    EXPECT_EQ(other.vocab_size, 266u);
    EXPECT_EQ(memcmp(other.tok_emb, enc.tok_emb, 266 * D * 4), 0);
}

// One damaged float is enough for NaN vectors; such a file is refused, and the encoder is left
// with the random tensors a new engine starts from, never with the damaged ones.
TEST_F(WeightsFile, NonFiniteOrHugeValuesAreRefusedAndLeaveAFiniteEncoder)
{
    const long tensors = 32;
    struct Case {
        const char *name;
        uint32_t merges; // 0: a version 1 file
        long offset;     // from the start of the file; negative counts from its end
        float value;
        bool accepted;
        long cut = 0; // the file's length when it is cut short
    } cases[] = {
        {"NaN in the first token embedding", 0, tensors, std::nanf(""), false},
        {"-inf as the last float", 0, -4, -INFINITY, false},
        {"just beyond the bound", 0, tensors + 260 * D * 4 + 8, 10001.0f, false},
        {"NaN in a version 3 file", 6, -4, std::nanf(""), false},
        {"NaN in a file cut short after it", 0, tensors + 40, std::nanf(""), false, 4096},
        {"large but within the bound", 0, -4, 9999.0f, true},
    };
    for (const Case &c : cases) {
        encoder_release(&enc);
        if (c.merges > 0) {
            encoder_init_bpe(&enc, 42, makeBpe(c.merges));
        } else {
            encoder_init(&enc, 42);
        }
        ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
        uint32_t bits;
        memcpy(&bits, &c.value, 4);
        patchU32(path, c.offset < 0 ? file_size(path) + c.offset : c.offset, bits);
        if (c.cut > 0) {
            ASSERT_EQ(truncate(path.c_str(), c.cut), 0);
        }
        encoder_release(&other);
        encoder_init(&other, 7);

        ASSERT_EQ(loadQuietly(), c.accepted ? 1 : 0) << c.name;
        std::vector<float> v(D);
        trn_encoder_embed_text(&other, "every component must be a finite number", v.data());
        for (float x : v) {
            ASSERT_TRUE(std::isfinite(x)) << c.name;
        }
        if (c.accepted) {
            continue;
        }
        EXPECT_EQ(err,
                  "tarnwick: weights in " + path
                      + " hold values that are not finite or beyond 10000; refused\n")
            << c.name;
        TrnEncoder fresh;
        if (c.merges > 0) {
            encoder_init_bpe(&fresh, 42, makeBpe(c.merges));
        } else {
            encoder_init(&fresh, 42);
        }
        EXPECT_TRUE(sameWeights(&fresh, &other)) << c.name;
        EXPECT_EQ(other.bpe != nullptr, c.merges > 0) << c.name;
        encoder_release(&fresh);
    }
}

TEST_F(WeightsFile, SaveFailsForAnUncreatableFileAndAFullDisk)
{
    EXPECT_EQ(trn_encoder_save_weights(&enc, (dir.file("missing/w.tten")).c_str()), 0);
    if (access("/dev/full", W_OK) == 0) {
        EXPECT_EQ(trn_encoder_save_weights(&enc, "/dev/full"), 0);
        encoder_release(&enc);
        encoder_init_bpe(&enc, 1, makeBpe(2));
        EXPECT_EQ(trn_encoder_save_weights(&enc, "/dev/full"), 0);
    }
}

TEST(WeightsOom, TheNewTokenEmbeddingOfAVersion3FileIsASizedFailure)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir dir;
    std::string path = dir.file("w.tten");
    TrnEncoder enc;
    encoder_init_bpe(&enc, 42, makeBpe(1));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path.c_str()), 1);
    // Loading allocates the tokenizer record (1), its pairs (2), its merges' table (3), then
    // 261 x 512 floats (4).
    EXPECT_EXIT(
        {
            g_alloc_fail_countdown = 4;
            trn_encoder_load_weights(&enc, path.c_str());
        },
        testing::ExitedWithCode(1),
        "^tarnwick: OOM \\(534528 bytes\\)\n$");
    encoder_release(&enc);
}

} // namespace
