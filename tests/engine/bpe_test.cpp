// The byte-pair tokenizer: training, encoding, its file and its allocation failures.
#include "internal.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace
{

using Pair = std::vector<uint32_t>;

// Trains with the progress lines captured; they land in *log when given.
TrnBpe *train(const std::string &corpus, int merges, std::string *log = nullptr)
{
    testing::internal::CaptureStderr();
    TrnBpe *bpe =
        trn_bpe_train(reinterpret_cast<const uint8_t *>(corpus.data()), corpus.size(), merges);
    std::string err = testing::internal::GetCapturedStderr();
    if (log) {
        *log = err;
    }
    return bpe;
}

std::vector<uint32_t> encode(const TrnBpe *bpe, const std::string &text, int max = 256)
{
    std::vector<uint32_t> out((size_t)max + 1, 0xDEADBEEFu);
    int32_t n = trn_bpe_encode(bpe, text.c_str(), out.data(), max);
    EXPECT_EQ(out[(size_t)max], 0xDEADBEEFu) << "wrote past max";
    out.resize(n > 0 ? (size_t)n : 0);
    return out;
}

std::vector<Pair> mergesOf(const TrnBpe *bpe)
{
    std::vector<Pair> pairs;
    for (uint32_t i = 0; i < bpe->n_merges; i++) {
        pairs.push_back({bpe->merges[i][0], bpe->merges[i][1]});
    }
    return pairs;
}

void writeFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    write_file_bytes(path, bytes.data(), bytes.size());
}

// Worked out by hand. "sand and an sand and":
//   "an" occurs 5 times            -> merge 0 (a, n)     = 260
//   then "260 d" 4 times           -> merge 1 (260, d)   = 261   ("and")
//   then "261 ' '" 3 times         -> merge 2 (261, ' ') = 262   ("and ")
//   then "s 262" twice             -> merge 3 (s, 262)   = 263   ("sand ")
//   left: 263 262 260 ' ' 263 261, every pair once: training stops.
const char kGoldenCorpus[] = "sand and an sand and";

TEST(BpeTraining, LearnsTheHandWorkedMergesOfASmallCorpus)
{
    std::string log;
    TrnBpe *bpe = train(kGoldenCorpus, 100, &log);
    ASSERT_NE(bpe, nullptr);
    std::vector<Pair> want = {{'a', 'n'}, {260, 'd'}, {261, ' '}, {'s', 262}};
    EXPECT_EQ(mergesOf(bpe), want);
    EXPECT_EQ(bpe->n_merges, 4u);
    EXPECT_EQ(bpe->vocab_size, 264u);
    EXPECT_EQ(log, "bpe: training complete. 4 merges, vocab_size=264\n");
    trn_bpe_free(bpe);
}

TEST(BpeTraining, StopsAtTheRequestedNumberOfMerges)
{
    TrnBpe *bpe = train(kGoldenCorpus, 2);
    ASSERT_NE(bpe, nullptr);
    std::vector<Pair> want = {{'a', 'n'}, {260, 'd'}};
    EXPECT_EQ(mergesOf(bpe), want);
    EXPECT_EQ(bpe->vocab_size, 262u);
    trn_bpe_free(bpe);
}

TEST(BpeTraining, TiesDoNotDependOnWhichPairComesFirst)
{
    // (a,b) and (c,d) both occur twice and nothing else repeats; swapping their order in the
    // corpus must not change the winner.
    std::vector<Pair> winners;
    for (const char *corpus : {"ab.cd,ab;cd", "cd.ab,cd;ab"}) {
        TrnBpe *bpe = train(corpus, 1);
        ASSERT_NE(bpe, nullptr);
        ASSERT_EQ(bpe->n_merges, 1u) << corpus;
        winners.push_back(mergesOf(bpe)[0]);
        trn_bpe_free(bpe);
    }
    EXPECT_TRUE(winners[0] == (Pair{'a', 'b'}) || winners[0] == (Pair{'c', 'd'}));
    EXPECT_EQ(winners[0], winners[1]);
}

TEST(BpeTraining, CountsOverlappingPairsButMergesWithoutOverlap)
{
    // Each "aaaa" holds three overlapping (a,a) pairs, so (a,a) wins with 9; the rewrite turns
    // each run into [260, 260], not [260, a, a] or three 260s, so (260,260) repeats three times
    // and becomes merge 1.
    TrnBpe *bpe = train("aaaa.aaaa.aaaa.bcbc", 2);
    ASSERT_NE(bpe, nullptr);
    ASSERT_EQ(bpe->n_merges, 2u);
    EXPECT_EQ(mergesOf(bpe)[0], (Pair{'a', 'a'}));
    EXPECT_EQ(mergesOf(bpe)[1], (Pair{260, 260}));
    EXPECT_EQ(encode(bpe, "aaaaa"), (std::vector<uint32_t>{257, 261, 'a', 258}));
    trn_bpe_free(bpe);
}

TEST(BpeTraining, TreatsNulBytesAsOrdinaryBytes)
{
    TrnBpe *bpe = train(std::string("\0\0\1\0\0\2\0\0", 8), 5);
    ASSERT_NE(bpe, nullptr);
    ASSERT_GE(bpe->n_merges, 1u);
    EXPECT_EQ(mergesOf(bpe)[0], (Pair{0, 0}));
    trn_bpe_free(bpe);
}

TEST(BpeTraining, ACorpusWithoutRepeatsGivesZeroMerges)
{
    TrnBpe *bpe = train("abcdefg", 10);
    ASSERT_NE(bpe, nullptr);
    EXPECT_EQ(bpe->n_merges, 0u);
    EXPECT_EQ(bpe->vocab_size, 260u);
    EXPECT_EQ(encode(bpe, "abc"), (std::vector<uint32_t>{257, 'a', 'b', 'c', 258}));
    trn_bpe_free(bpe);
}

TEST(BpeTraining, RefusesMissingDataTooShortDataAndNoMerges)
{
    const uint8_t data[] = {'a', 'a', 'a'};
    EXPECT_EQ(trn_bpe_train(nullptr, 10, 5), nullptr);
    EXPECT_EQ(trn_bpe_train(data, 1, 5), nullptr);
    EXPECT_EQ(trn_bpe_train(data, 3, 0), nullptr);
    EXPECT_EQ(trn_bpe_train(data, 3, -4), nullptr);
}

std::string numbersCorpus()
{
    std::string corpus;
    for (int i = 0; i < 3000; i++) {
        corpus += std::to_string(i * 7919 % 10007) + (i % 3 ? " " : ",\n");
    }
    return corpus;
}

// Needs 500 merges, each of which clears and scans the whole 16 MiB table.
TEST(BpeTraining, ReportsProgressEvery500Merges)
{
    const std::string corpus = numbersCorpus();
    std::string log;
    TrnBpe *bpe = train(corpus, 500, &log);
    ASSERT_NE(bpe, nullptr);
    ASSERT_EQ(bpe->n_merges, 500u);
    const uint32_t *last = bpe->merges[499];
    std::string progress = "bpe: merge 500/500  vocab=760  pair=(" + std::to_string(last[0]) + ","
                           + std::to_string(last[1]) + ") count=";
    EXPECT_EQ(log.rfind(progress, 0), 0u) << log;
    EXPECT_NE(log.find("  seq_len="), std::string::npos) << log;
    size_t end = log.find('\n');
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(log.substr(end + 1), "bpe: training complete. 500 merges, vocab_size=760\n");
    trn_bpe_free(bpe);
}

class BpeEncoding : public testing::Test
{
protected:
    void SetUp() override
    {
        bpe = train(kGoldenCorpus, 100);
        ASSERT_NE(bpe, nullptr);
    }
    void TearDown() override { trn_bpe_free(bpe); }
    TrnBpe *bpe = nullptr;
};

TEST_F(BpeEncoding, ReplaysTheMergesInTrainingOrder)
{
    // "sand and" -> s 260 d ' ' 260 d -> s 261 ' ' 261 -> s 262 261 -> 263 261
    EXPECT_EQ(encode(bpe, "sand and"), (std::vector<uint32_t>{257, 263, 261, 258}));
    // "bandana" -> b 260 d 260 a -> b 261 260 a; no "and " follows, so no later merge applies.
    EXPECT_EQ(encode(bpe, "bandana"), (std::vector<uint32_t>{257, 'b', 261, 260, 'a', 258}));
    // Left to right: "aan" merges its second and third bytes.
    EXPECT_EQ(encode(bpe, "aan"), (std::vector<uint32_t>{257, 'a', 260, 258}));
}

TEST_F(BpeEncoding, FramesEmptyTextAndKeepsBytesAbove127Unsigned)
{
    EXPECT_EQ(encode(bpe, ""), (std::vector<uint32_t>{257, 258}));
    EXPECT_EQ(encode(bpe, "\xC3\xA9"), (std::vector<uint32_t>{257, 0xC3, 0xA9, 258}));
}

TEST_F(BpeEncoding, RefusesMissingTextOutputOrRoom)
{
    uint32_t out[8];
    EXPECT_EQ(trn_bpe_encode(bpe, nullptr, out, 8), 0);
    EXPECT_EQ(trn_bpe_encode(bpe, "sand", nullptr, 8), 0);
    EXPECT_EQ(trn_bpe_encode(bpe, "sand", out, 2), 0);
}

TEST_F(BpeEncoding, CutsAfterMergingTheWholeText)
{
    std::string text;
    for (int i = 0; i < 200; i++) {
        text += "sand and xy ";
    }
    std::vector<uint32_t> full = encode(bpe, text, 4096);
    std::vector<uint32_t> cut = encode(bpe, text, 256);
    ASSERT_EQ(cut.size(), 256u);
    ASSERT_GT(full.size(), 256u);
    EXPECT_EQ(cut.back(), 258u);
    // The first 254 tokens are those of the longer encoding.
    EXPECT_TRUE(std::equal(cut.begin(), cut.end() - 1, full.begin()));

    std::vector<uint32_t> three = encode(bpe, "sand and", 3);
    EXPECT_EQ(three, (std::vector<uint32_t>{257, 263, 258}));
}

TEST_F(BpeEncoding, SkipsNothingWhenAMergeUsesAnIdProducedLater)
{
    // A hand-made tokenizer whose merge 1 consumes the id merge 0 produces, and whose merge 2
    // names an id that never exists; encoding must apply merge 1 and ignore merge 2.
    uint32_t merges[3][2] = {{'x', 'y'}, {260, 'z'}, {9999, 'x'}};
    TrnBpe manual = {merges, 3, 263, nullptr};
    EXPECT_EQ(encode(&manual, "xyzxyx"), (std::vector<uint32_t>{257, 261, 260, 'x', 258}));
}

// Encoding by a heap of pairs must give what replaying every merge over the text in training
// order gives, for trained merges and for hand-made ones that learn a pair twice or name an id
// made later.
std::vector<uint32_t> replay(const TrnBpe *bpe, const std::string &text)
{
    std::vector<uint32_t> seq(text.begin(), text.end());
    for (auto &id : seq) {
        id &= 0xff;
    }
    for (uint32_t k = 0; k < bpe->n_merges; k++) {
        std::vector<uint32_t> next;
        for (size_t i = 0; i < seq.size(); i++) {
            bool hit = i + 1 < seq.size() && seq[i] == bpe->merges[k][0]
                       && seq[i + 1] == bpe->merges[k][1];
            next.push_back(hit ? 260 + k : seq[i]);
            i += hit ? 1 : 0;
        }
        seq = next;
    }
    seq.insert(seq.begin(), 257);
    seq.push_back(258);
    return seq;
}

TEST_F(BpeEncoding, GivesWhatAReplayOfEveryMergeGives)
{
    uint32_t merges[6][2] = {
        {'a', 'n'}, {264, 'd'}, {'a', 'n'}, {260, 'd'}, {'d', 'd'}, {263, 263}};
    TrnBpe manual = {merges, 6, 266, nullptr};
    std::mt19937 rng(3);
    const std::string letters = "sandxyz \n";
    for (int round = 0; round < 300; round++) {
        std::string text;
        for (int i = (int)(rng() % 60); i > 0; i--) {
            text += round % 2 ? kGoldenCorpus[rng() % (sizeof kGoldenCorpus - 1)]
                              : letters[rng() % letters.size()];
        }
        for (const TrnBpe *b : {(const TrnBpe *)bpe, (const TrnBpe *)&manual}) {
            EXPECT_EQ(encode(b, text, 4096), replay(b, text)) << text;
        }
    }
}

TEST(BpeFile, SaveWritesTheDocumentedBytesAndLoadReadsThemBackEvenWithoutMerges)
{
    uint32_t merges[2][2] = {{'a', 'n'}, {260, 0x01020304u}};
    TrnBpe bpe = {merges, 2, 262, nullptr};
    TempDir dir;
    std::string path = dir.file("layout.bpe");
    ASSERT_EQ(trn_bpe_save(&bpe, path.c_str()), 1);
    std::vector<uint8_t> want = {'T', 'B', 'P', 'E', 2, 0, 0, 0, 'a', 0, 0, 0,
                                 'n', 0,   0,   0,   4, 1, 0, 0, 4,   3, 2, 1};
    EXPECT_EQ(read_file_bytes(path), want);

    TrnBpe *loaded = trn_bpe_load(path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(mergesOf(loaded), mergesOf(&bpe));
    EXPECT_EQ(loaded->vocab_size, 262u);
    trn_bpe_free(loaded);

    TrnBpe empty = {nullptr, 0, 260, nullptr};
    ASSERT_EQ(trn_bpe_save(&empty, path.c_str()), 1);
    EXPECT_EQ(read_file_bytes(path).size(), 8u);
    loaded = trn_bpe_load(path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->n_merges, 0u);
    EXPECT_EQ(loaded->vocab_size, 260u);
    trn_bpe_free(loaded);
}

TEST(BpeFile, TrainedTokenizerSurvivesTheRoundTripAndEncodesAlike)
{
    TrnBpe *bpe = train(kGoldenCorpus, 100);
    ASSERT_NE(bpe, nullptr);
    TempDir dir;
    std::string path = dir.file("trained.bpe");
    ASSERT_EQ(trn_bpe_save(bpe, path.c_str()), 1);
    TrnBpe *loaded = trn_bpe_load(path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(mergesOf(loaded), mergesOf(bpe));
    EXPECT_EQ(encode(loaded, "an sand and bands"), encode(bpe, "an sand and bands"));
    trn_bpe_free(loaded);
    trn_bpe_free(bpe);
}

TEST(BpeFile, LoadRefusesEveryTruncationWrongMagicAndMissingFiles)
{
    uint32_t merges[2][2] = {{'a', 'n'}, {260, 'd'}};
    TrnBpe bpe = {merges, 2, 262, nullptr};
    TempDir dir;
    std::string path = dir.file("cut.bpe");
    ASSERT_EQ(trn_bpe_save(&bpe, path.c_str()), 1);
    std::vector<uint8_t> whole = read_file_bytes(path);
    ASSERT_EQ(whole.size(), 24u);
    for (size_t len = 0; len < whole.size(); len++) {
        writeFile(path, std::vector<uint8_t>(whole.begin(), whole.begin() + (long)len));
        EXPECT_EQ(trn_bpe_load(path.c_str()), nullptr) << "cut to " << len << " bytes";
    }
    std::vector<uint8_t> wrong = whole;
    wrong[0] = 'X';
    writeFile(path, wrong);
    EXPECT_EQ(trn_bpe_load(path.c_str()), nullptr);
    remove(path.c_str());
    EXPECT_EQ(trn_bpe_load(path.c_str()), nullptr);
    EXPECT_EQ(trn_bpe_save(&bpe, (dir.file("no/such/dir/x.bpe")).c_str()), 0);
}

TEST(BpeFile, AHugeCountInATinyFileLoadsAsNullWithoutDying)
{
    TempDir dir;
    std::string path = dir.file("huge.bpe");
    writeFile(path, {'T', 'B', 'P', 'E', 0xFF, 0xFF, 0xFF, 0xFF, 'a', 0, 0, 0, 'b', 0, 0, 0});
    EXPECT_EQ(trn_bpe_load(path.c_str()), nullptr);
}

TEST(BpeStream, WriteAndReadMoveOnlyThePairs)
{
    uint32_t merges[3][2] = {{1, 2}, {3, 4}, {260, 261}};
    TrnBpe bpe = {merges, 3, 263, nullptr};
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(trn_bpe_write(&bpe, f), 1);
    EXPECT_EQ(ftell(f), 24);
    rewind(f);
    TrnBpe *read = trn_bpe_read(f, 3);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(mergesOf(read), mergesOf(&bpe));
    EXPECT_EQ(read->vocab_size, 263u);
    trn_bpe_free(read);

    rewind(f);
    EXPECT_EQ(trn_bpe_read(f, 4), nullptr) << "only three pairs in the stream";
    fclose(f);

    TrnBpe empty = {nullptr, 0, 260, nullptr};
    FILE *g = tmpfile();
    EXPECT_EQ(trn_bpe_write(&empty, g), 1);
    fclose(g);
    FILE *full = fopen("/dev/full", "wb");
    if (full) {
        setvbuf(full, nullptr, _IONBF, 0);
        EXPECT_EQ(trn_bpe_write(&bpe, full), 0);
        fclose(full);
    }
}

TEST(BpeOom, EachTrainingAllocationFailsWithItsSize)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string corpus = "abababab"; // 8 bytes: a sequence of 4 * 8 + 64 bytes
    struct Case {
        long countdown;
        const char *message;
    } cases[] = {{1, "^bpe: OOM \\(24 bytes\\)\n$"},
                 {2, "^bpe: OOM \\(96 bytes\\)\n$"},
                 {3, "^bpe: OOM \\(56 bytes\\)\n$"}, // 7 merges of 8 bytes
                 {4, "^bpe: OOM \\(16777216 bytes\\)\n$"},
                 {5, "^bpe: OOM \\(264 bytes\\)\n$"}}; // the merges' table: 16 slots
    for (const Case &c : cases) {
        EXPECT_EXIT(
            {
                g_alloc_fail_countdown = c.countdown;
                trn_bpe_train(reinterpret_cast<const uint8_t *>(corpus.data()), 8, 7);
            },
            testing::ExitedWithCode(1),
            c.message);
    }
}

} // namespace
