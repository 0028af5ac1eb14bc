// The encoder weights file: exact layout and sizes of versions 1-4, bit-exact round trips, half
// precision rounding, and every refusal of a damaged or hostile file.
#include "internal.h"
#include "probe.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
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

// A bag of words (zero position embeddings and layer outputs) whose values lie on a grid of
// 2^-14 steps: every one of them is a half precision value.
void makeHalfExactBag(TrnEncoder *e)
{
    for (auto [p, n] : tensors(e)) {
        float *v = const_cast<float *>(p);
        for (size_t i = 0; i < n; i++) {
            v[i] = std::ldexp(std::round(std::ldexp(v[i], 14)), -14);
        }
    }
    memset(e->pos_emb, 0, 256 * D * 4);
    for (TrnEncoderLayer &l : e->layers) {
        memset(l.wo, 0, D * D * 4);
        memset(l.w2, 0, F * D * 4);
        memset(l.b2, 0, D * 4);
    }
}

// The storage tag of every tensor of a version 4 file with `merges` merges, and where each
// tensor begins; the end of the last one is the last offset.
void readTags(const std::string &path, const TrnEncoder *e, std::vector<uint32_t> *tags,
              std::vector<long> *starts)
{
    long at = 64 + 8 * (long)e->vocab_size - 8 * 260;
    for (auto [p, n] : tensors(e)) {
        starts->push_back(at);
        tags->push_back(readU32(path, at));
        at += 4 + (long)n * (tags->back() == 0 ? 4 : tags->back() == 1 ? 2 : 0);
    }
    starts->push_back(at);
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
    for (uint32_t version : {0u, 5u, 0x101u}) {
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
    for (uint32_t version : {3u, 4u}) {
        const uint32_t words[] = {
            0x4E455454u, version, m + 260, 256, 512, 8, 2048, 2, 0, 0, 0, 0, 0, 0, 0, m, 'a', 2};
        write_file_bytes(path, words, sizeof words);
        ASSERT_EQ(loadQuietly(), 0);
        EXPECT_EQ(err, "");
        EXPECT_EQ(other.bpe, nullptr);
        EXPECT_EQ(other.vocab_size, 260u);
    }
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

// Version 4 stores a tensor of +0.0 as its tag alone (never the token embedding), rounds to the
// nearest half, ties to even, subnormals included, and widens back exactly; a tensor beyond half
// range, and every tensor saved without the half flag, stays float32 bit for bit.
TEST_F(WeightsFile, Version4TagsZerosRoundsToNearestEvenHalfAndKeepsFloat32WhenNotAsked)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(3));
    makeHalfExactBag(&enc);
    struct Rounding {
        float in, out;
    } cases[] = {
        {1 + 0x1p-11f, 1.0f},                    // halfway: to the even neighbour below
        {1 + 3 * 0x1p-11f, 1 + 0x1p-9f},         // halfway: to the even neighbour above
        {1 + 0x1p-11f + 0x1p-20f, 1 + 0x1p-10f}, // just past halfway
        {0x1p-25f, 0.0f},                        // half the smallest subnormal
        {-3 * 0x1p-26f, -0x1p-24f},              // a subnormal past halfway
        {0x1p-14f - 0x1p-25f, 0x1p-14f},         // the largest subnormal carries into a normal
        {-0.0f, -0.0f},                          // the sign of zero is kept
        {1e-40f, 0.0f},                          // a float subnormal
        {9999.0f, 10000.0f},                     // steps of 8 near 10^4
    };
    float *rounded = enc.layers[0].ln1_beta;
    for (size_t i = 0; i < std::size(cases); i++) {
        rounded[i] = cases[i].in;
    }
    TrnWeightsMeta meta = {1, 2, 3.0f, 4.0f, 5};
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), &meta, TRN_WEIGHTS_HALF), 1);
    EXPECT_EQ(readU32(path, 4), 4u);
    EXPECT_EQ(readU32(path, 60), 3u);
    std::vector<uint32_t> tags;
    std::vector<long> starts;
    readTags(path, &enc, &tags, &starts);
    // tok pos lnf_g lnf_b, then per layer wq wk wv wo w1 b1 w2 b2 ln1_g ln1_b ln2_g ln2_b
    const std::vector<uint32_t> want = {1, 2, 1, 2, 1, 1, 1, 2, 1, 1, 2, 2, 1, 1,
                                        1, 2, 1, 1, 1, 2, 1, 1, 2, 2, 1, 2, 1, 2};
    EXPECT_EQ(tags, want);
    EXPECT_EQ(starts.back(), file_size(path)) << "nothing after the last tensor";
    EXPECT_EQ(starts.back(), 64 + 8 * 3 + 1024 * 263 + 7358576 - 4 * 1024);

    TrnWeightsMeta back;
    ASSERT_EQ(loadQuietly(&back), 1) << err;
    EXPECT_EQ(memcmp(&back, &meta, sizeof meta), 0);
    for (size_t i = 0; i < std::size(cases); i++) {
        EXPECT_EQ(std::bit_cast<uint32_t>(other.layers[0].ln1_beta[i]),
                  std::bit_cast<uint32_t>(cases[i].out))
            << cases[i].in;
        rounded[i] = cases[i].out;
    }
    EXPECT_TRUE(sameWeights(&enc, &other)) << "every other value is exact";

    // Without the half flag, and for a value beyond half range, the floats stay as they are.
    enc.layers[1].b1[7] = 70000.0f;
    enc.ln_f_gamma[3] = 1e-40f;
    tags.clear();
    starts.clear();
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), nullptr, TRN_WEIGHTS_HALF), 1);
    readTags(path, &enc, &tags, &starts);
    EXPECT_EQ(tags[4 + 12 + 5], 0u) << "layer 1's b1 holds 70000";
    EXPECT_EQ(tags[4 + 12 + 4], 1u);
    enc.layers[1].b1[7] = 9000.5f; // within the loader's bound, not a half value
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), nullptr, TRN_WEIGHTS_TAGGED), 1);
    tags.clear();
    starts.clear();
    readTags(path, &enc, &tags, &starts);
    EXPECT_EQ(tags[0], 0u);
    EXPECT_EQ(tags[1], 2u);
    EXPECT_EQ(starts.back(), file_size(path));
    ASSERT_EQ(loadQuietly(&back), 1) << err;
    EXPECT_EQ(memcmp(&back, &kNoMeta, sizeof back), 0);
    EXPECT_TRUE(sameWeights(&enc, &other));

    // A byte-level encoder comes back with an empty tokenizer that yields the same vectors.
    encoder_release(&enc);
    encoder_init(&enc, 42);
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), nullptr, TRN_WEIGHTS_TAGGED), 1);
    ASSERT_EQ(loadQuietly(), 1) << err;
    ASSERT_NE(other.bpe, nullptr);
    EXPECT_EQ(other.bpe->n_merges, 0u);
    EXPECT_TRUE(sameWeights(&enc, &other));
    std::vector<float> a(D), b(D);
    trn_encoder_embed_text(&enc, "bytes \xc3\xa9 and all", a.data());
    trn_encoder_embed_text(&other, "bytes \xc3\xa9 and all", b.data());
    EXPECT_EQ(a, b);
}

// An engine given the half precision file embeds exactly as the forward pass over the same
// weights in memory, and as an engine given them as a version 3 file: its bag-of-words rows,
// which replace the token embedding, give the same bits.
TEST_F(WeightsFile, AnEngineEmbedsAVersion4FileAsTheFloat32Weights)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(20));
    makeHalfExactBag(&enc);
    const std::string v3 = dir.file("v3.tten");
    ASSERT_EQ(trn_encoder_save_weights(&enc, v3.c_str()), 1);
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), nullptr, TRN_WEIGHTS_HALF), 1);
    EXPECT_LT(file_size(path), file_size(v3) / 3);
    TrnScratch *ws = scratch_new();
    for (const std::string &file : {path, v3}) {
        TrnConfig cfg = {nullptr, file.c_str(), 0, 0, 0, 0};
        TrnEngine *e = trn_open(&cfg);
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(trn_prepare_encoder(e), 1) << file;
        ASSERT_NE(probe_encoder(e)->bag_rows, nullptr);
        EXPECT_EQ(probe_encoder(e)->tok_emb, nullptr) << "the rows are held once";
        for (const char *text : {"abc abcd bcd", "", "a longer text, with punctuation: abcabc"}) {
            float want[D], got[D];
            encoder_embed(&enc, ws, text, want);
            trn_encoder_embed_text(probe_encoder(e), text, got);
            EXPECT_EQ(memcmp(want, got, sizeof want), 0) << file << ": " << text;
        }
        // Loading into an encoder kept for embedding only draws its tensors first.
        ASSERT_EQ(trn_encoder_load_weights(probe_encoder(e), file.c_str()), 1);
        EXPECT_TRUE(sameWeights(&enc, probe_encoder(e)));
        trn_close(e);
    }
    scratch_free(ws);
}

// One encoder loading a bag of words, then other weights, then the bag again embeds each time as
// a fresh encoder given that file: whether weights are a bag, looked at once, is looked at anew.
TEST_F(WeightsFile, AnEncoderLoadedAgainEmbedsAsItsNewWeights)
{
    const std::string bag = dir.file("bag.tten");
    encoder_release(&enc);
    encoder_init(&enc, 42);
    makeHalfExactBag(&enc);
    ASSERT_EQ(trn_encoder_save_weights(&enc, bag.c_str()), 1);
    ASSERT_EQ(trn_encoder_save_weights(&other, path.c_str()), 1); // seed 7: no bag
    const char *text = "a text, a text with words said twice";
    TrnEncoder reused;
    encoder_init(&reused, 1);
    for (const std::string &file : {bag, path, bag}) {
        TrnEncoder fresh;
        encoder_init(&fresh, 1);
        ASSERT_EQ(trn_encoder_load_weights(&fresh, file.c_str()), 1);
        ASSERT_EQ(trn_encoder_load_weights(&reused, file.c_str()), 1);
        float want[D], got[D];
        trn_encoder_embed_text(&fresh, text, want);
        trn_encoder_embed_text(&reused, text, got);
        EXPECT_EQ(memcmp(want, got, sizeof want), 0) << file;
        encoder_release(&fresh);
    }
    encoder_release(&reused);
}

// A version 4 file cut at any tensor's start or one byte short of its end, with an unknown tag,
// or with a byte after its last tensor, is refused with a line, and the encoder
// keeps the tokenizer and the random tensors of seed 42, never a half-read mix. The engine's
// set-up of a bag of words by rows takes the undamaged file and none of the others.
TEST_F(WeightsFile, EveryDamagedVersion4FileIsRefusedAndLeavesTheSeed42Encoder)
{
    encoder_release(&enc);
    encoder_init_bpe(&enc, 42, makeBpe(2));
    makeHalfExactBag(&enc);
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path.c_str(), nullptr, TRN_WEIGHTS_HALF), 1);
    const std::vector<uint8_t> good = read_file_bytes(path);
    TrnEncoder taken;
    ASSERT_TRUE(encoder_init_bag_file(&taken, path.c_str())) << "the undamaged file";
    encoder_release(&taken);
    std::vector<uint32_t> tags;
    std::vector<long> starts;
    readTags(path, &enc, &tags, &starts);
    struct Damage {
        long cut;   // the file's new length, or -1
        int tensor; // whose tag is overwritten, or -1
        uint32_t tag;
    };
    std::vector<Damage> damage = {{(long)good.size() + 1, -1, 0}}; // one byte more
    for (size_t t = 0; t < tags.size(); t++) {
        damage.push_back({starts[t], -1, 0});
        if (tags[t] != 2) {
            damage.push_back({starts[t + 1] - 1, -1, 0});
        }
        if (t % 3 == 1) {
            damage.push_back({-1, (int)t, t % 2 ? 3u : 0xFFFFFFFFu});
        }
    }
    TrnEncoder fresh;
    encoder_init_bpe(&fresh, 42, makeBpe(2));
    for (const Damage &d : damage) {
        std::vector<uint8_t> bytes = good;
        if (d.cut >= 0) {
            bytes.resize((size_t)d.cut);
        } else {
            memcpy(&bytes[(size_t)starts[(size_t)d.tensor]], &d.tag, 4);
        }
        write_file_bytes(path, bytes.data(), bytes.size());
        encoder_release(&other);
        encoder_init(&other, 7);
        ASSERT_EQ(loadQuietly(), 0) << d.cut << " " << d.tensor;
        TrnEncoder lazy;
        EXPECT_FALSE(encoder_init_bag_file(&lazy, path.c_str())) << d.cut << " " << d.tensor;
        if (d.cut >= 0 && d.cut < starts[1]) {
            // Too short for the token embedding: refused before it is allocated, as in version 3.
            EXPECT_EQ(err, "") << d.cut;
            EXPECT_EQ(other.bpe, nullptr) << d.cut;
            continue;
        }
        EXPECT_EQ(err, "tarnwick: weights in " + path + " are damaged; refused\n")
            << d.cut << " " << d.tensor;
        EXPECT_TRUE(sameWeights(&fresh, &other)) << d.cut << " " << d.tensor;
        ASSERT_NE(other.bpe, nullptr);
    }
    encoder_release(&fresh);
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
