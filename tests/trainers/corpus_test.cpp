// The pair sampler and the tokenizer's corpus sample: what they read, from where, and how much.
#include "../engine/store_fixtures.h"
#include "corpus.h"
#include "word_bpe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace trn_train;

namespace
{

// A temporary corpus file removed at the end of the test.
struct TempCorpus {
    TempDir dir;
    std::string path = dir.file("corpus.txt");
    CorpusSampler sampler;
    std::string err;
    explicit TempCorpus(const std::string &text) { write_file_text(path, text); }
    bool open() { return sampler.open(path, &err); }
};

// Words that name their own byte offset ("w0001234 "), paragraphs of 12 words, so every piece
// of text tells where in the file it came from.
std::string numbered_corpus(size_t bytes)
{
    std::string s;
    int words = 0;
    while (s.size() < bytes) {
        char w[16];
        snprintf(w, sizeof w, "w%07zu", s.size());
        s += w;
        s += (++words % 12 == 0) ? "\n\n" : " ";
    }
    return s;
}

long offset_of_first_word(const std::string &text)
{
    size_t p = text.find('w');
    if (p == std::string::npos || p + 8 > text.size()) {
        return -1;
    }
    return strtol(text.substr(p + 1, 7).c_str(), nullptr, 10) - (long)p;
}

bool is_space(char c)
{
    return c == ' ' || c == '\n';
}

} // namespace

TEST(CorpusSampler, PairsAreTextOfTheCorpusInTheShapesTheTrainerExpects)
{
    const std::string text = numbered_corpus(200000);
    TempCorpus corpus(text);
    ASSERT_TRUE(corpus.open()) << corpus.err;
    EXPECT_EQ(corpus.sampler.size(), text.size());

    std::mt19937_64 rng(1);
    std::vector<std::string> texts;
    int query_pairs = 0, crop_pairs = 0;
    for (int round = 0; round < 40; round++) {
        ASSERT_TRUE(corpus.sampler.draw(8, rng, texts, &corpus.err)) << corpus.err;
        ASSERT_EQ(texts.size(), 16u);
        for (int i = 0; i < 8; i++) {
            const std::string &anchor = texts[2 * i], &positive = texts[2 * i + 1];
            ASSERT_FALSE(anchor.empty());
            ASSERT_NE(text.find(anchor), std::string::npos) << anchor;
            ASSERT_NE(text.find(positive), std::string::npos) << positive;
            if (positive.size() > (size_t)VISIBLE_BYTES) {
                // a query span and the chunk-sized window it was taken from
                query_pairs++;
                EXPECT_LE(positive.size(), (size_t)CHUNK_BYTES);
                // the span starts in the part of the chunk the engine embeds
                EXPECT_LT(positive.find(anchor), (size_t)VISIBLE_BYTES) << anchor;
                EXPECT_FALSE(is_space(anchor.front()));
                EXPECT_FALSE(is_space(anchor.back()));
                size_t words = 1;
                for (char c : anchor) {
                    words += c == ' ' ? 1 : 0;
                }
                EXPECT_LE(words, 24u) << anchor;
            } else {
                // two crops of one window that share text
                crop_pairs++;
                long a = (long)text.find(anchor), p = (long)text.find(positive);
                long overlap =
                    std::min(a + (long)anchor.size(), p + (long)positive.size()) - std::max(a, p);
                EXPECT_GE(overlap, 32) << anchor << " | " << positive;
                EXPECT_GE(anchor.size(), 64u);
                EXPECT_LE(anchor.size(), (size_t)VISIBLE_BYTES);
            }
        }
    }
    EXPECT_GT(query_pairs, 150);
    EXPECT_GT(crop_pairs, 60);
}

TEST(CorpusSampler, ClozePairsTakeTheQueryOutOfItsWindowAndNoShareDrawsAsBefore)
{
    const std::string text = numbered_corpus(200000);
    TempCorpus corpus(text);
    ASSERT_TRUE(corpus.open());
    corpus.sampler.set_cloze(1.0);
    std::mt19937_64 rng(7);
    std::vector<std::string> texts;
    int cut = 0;
    for (int round = 0; round < 20; round++) {
        ASSERT_TRUE(corpus.sampler.draw(8, rng, texts, &corpus.err));
        for (int i = 0; i < 8; i++) {
            const std::string &query = texts[2 * i], &positive = texts[2 * i + 1];
            if (positive.size() <= (size_t)VISIBLE_BYTES) {
                continue; /* a crop pair: no query to take out */
            }
            // the corpus holds the positive with the query put back at one place in it
            const size_t q = text.find(query);
            ASSERT_NE(q, std::string::npos) << query;
            EXPECT_EQ(positive.find(query), std::string::npos) << query;
            bool whole = false;
            for (size_t k = 0; k <= positive.size() && k <= q && !whole; k++) {
                whole = text.compare(q - k, k, positive, 0, k) == 0
                        && text.compare(q + query.size(), positive.size() - k, positive, k) == 0;
            }
            EXPECT_TRUE(whole) << query << " | " << positive;
            cut++;
        }
    }
    EXPECT_GT(cut, 60);
    // a share of 0 draws nothing extra, so the batches are those of a sampler without the option
    TempCorpus other(text);
    ASSERT_TRUE(other.open());
    corpus.sampler.set_cloze(0.0);
    std::mt19937_64 rng_a(9), rng_b(9);
    std::vector<std::string> a, b;
    for (int round = 0; round < 3; round++) {
        ASSERT_TRUE(corpus.sampler.draw(8, rng_a, a, &corpus.err));
        ASSERT_TRUE(other.sampler.draw(8, rng_b, b, &other.err));
        EXPECT_EQ(a, b);
    }
}

TEST(CorpusSampler, NeighbouringPairsComeFromOneStratumOneChunkStrideApart)
{
    const std::string text = numbered_corpus(400000);
    TempCorpus corpus(text);
    ASSERT_TRUE(corpus.open()) << corpus.err;
    std::mt19937_64 rng(2);
    std::vector<std::string> texts;
    const int pairs = 8, groups = pairs / NEIGHBOURS;
    const long stratum = (long)text.size() / groups;
    int strides_seen = 0;
    for (int round = 0; round < 20; round++) {
        ASSERT_TRUE(corpus.sampler.draw(pairs, rng, texts, &corpus.err));
        for (int i = 0; i < pairs; i++) {
            long at = offset_of_first_word(texts[2 * i + 1]);
            ASSERT_GE(at, 0);
            const long g = i / NEIGHBOURS;
            // a group starts in its stratum, or up to one read later when moved to a break
            EXPECT_GE(at, g * stratum - 16) << "pair " << i;
            EXPECT_LT(at, (g + 1) * stratum + NEIGHBOURS * READ_BYTES) << "pair " << i;
            const std::string &prev = texts[2 * i - 1], &cur = texts[2 * i + 1];
            if (i % NEIGHBOURS != 0 && prev.size() > (size_t)VISIBLE_BYTES
                && cur.size() > (size_t)VISIBLE_BYTES) {
                // both positives are whole windows: the second starts one stride later
                EXPECT_EQ(at - offset_of_first_word(prev), NEIGHBOUR_STEP) << "pair " << i;
                strides_seen++;
            }
        }
    }
    EXPECT_GT(strides_seen, 10);
}

TEST(CorpusSampler, TinyCorpusStillGivesWholeWindowsAndNulBytesReadAsSpaces)
{
    std::string text = "alpha beta gamma delta epsilon zeta eta theta iota kappa lambda mu nu xi";
    text += std::string("\0\0", 2) + " omicron pi rho sigma tau upsilon phi chi psi omega end";
    TempCorpus corpus(text);
    ASSERT_TRUE(corpus.open()) << corpus.err;
    std::mt19937_64 rng(3);
    std::vector<std::string> texts;
    for (int round = 0; round < 20; round++) {
        ASSERT_TRUE(corpus.sampler.draw(2, rng, texts, &corpus.err));
        for (const std::string &t : texts) {
            EXPECT_EQ(t.find('\0'), std::string::npos);
            EXPECT_FALSE(t.empty());
        }
    }
}

TEST(CorpusSampler, MissingCorpusIsAnErrorNamingThePath)
{
    CorpusSampler sampler;
    std::string err;
    EXPECT_FALSE(sampler.open("/nonexistent/dir/corpus.txt", &err));
    EXPECT_NE(err.find("/nonexistent/dir/corpus.txt"), std::string::npos);
    EXPECT_FALSE(sampler.open("/tmp", &err));
}

TEST(QuerySpan, IsOneToTwentyFourWholeWordsWithinOneParagraph)
{
    std::string window = "first paragraph has a few words only\n\nsecond one is here and it is "
                         "a little longer than the first, with punctuation; and more words";
    std::mt19937_64 rng(4);
    for (int i = 0; i < 500; i++) {
        std::string q = query_span(window, rng);
        ASSERT_FALSE(q.empty());
        size_t at = window.find(q);
        ASSERT_NE(at, std::string::npos);
        EXPECT_TRUE(at == 0 || is_space(window[at - 1])) << q;
        size_t end = at + q.size();
        EXPECT_TRUE(end == window.size() || is_space(window[end])) << q;
        EXPECT_EQ(q.find("\n\n"), std::string::npos) << q;
    }
}

TEST(CorpusSampler, AWiderVisiblePartLetsQueriesAndCropsReachTheWholeWindow)
{
    // with a tokenizer the encoder reads about a whole chunk, so training must use all of it
    const std::string text = numbered_corpus(200000);
    TempCorpus corpus(text);
    std::string err;
    for (size_t visible : {(size_t)VISIBLE_BYTES, (size_t)CHUNK_BYTES}) {
        CorpusSampler sampler;
        ASSERT_TRUE(sampler.open(corpus.path, &err)) << err;
        sampler.set_visible(visible);
        std::mt19937_64 rng(3);
        std::vector<std::string> texts;
        size_t latest_span = 0, longest_crop = 0;
        for (int round = 0; round < 40; round++) {
            ASSERT_TRUE(sampler.draw(8, rng, texts, &err)) << err;
            for (int i = 0; i < 8; i++) {
                const std::string &anchor = texts[2 * i], &positive = texts[2 * i + 1];
                if (positive.size() == (size_t)CHUNK_BYTES && positive.find(anchor) != 0) {
                    size_t at = positive.find(anchor);
                    ASSERT_NE(at, std::string::npos);
                    EXPECT_LT(at, visible) << anchor;
                    latest_span = std::max(latest_span, at);
                } else if (positive.size() < (size_t)CHUNK_BYTES) {
                    longest_crop = std::max({longest_crop, anchor.size(), positive.size()});
                    EXPECT_LE(anchor.size(), visible);
                }
            }
        }
        if (visible == (size_t)CHUNK_BYTES) {
            EXPECT_GT(latest_span, (size_t)VISIBLE_BYTES * 2);
            EXPECT_GT(longest_crop, (size_t)VISIBLE_BYTES * 2);
        }
    }
}

TEST(BpeSample, SmallCorpusIsTakenWholeLargeOneIsCappedAndSpansTheFile)
{
    std::string small = numbered_corpus(5000);
    TempCorpus small_file(small);
    std::string out, err;
    ASSERT_TRUE(read_bpe_sample(small_file.path, 10000, &out, &err)) << err;
    EXPECT_EQ(out, small);

    std::string large = numbered_corpus(300000);
    TempCorpus large_file(large);
    ASSERT_TRUE(read_bpe_sample(large_file.path, 64000, &out, &err)) << err;
    EXPECT_EQ(out.size(), 64000u);
    EXPECT_EQ(out.substr(0, 1000), large.substr(0, 1000));
    EXPECT_EQ(out.substr(out.size() - 1000), large.substr(large.size() - 1000));
    // blocks come from across the file: the middle of the sample is from the middle of the file
    long mid = offset_of_first_word(out.substr(32000, 100));
    EXPECT_GT(mid, 100000);
    EXPECT_LT(mid, 200000);

    EXPECT_FALSE(read_bpe_sample("/nonexistent/corpus", 1000, &out, &err));
    EXPECT_NE(err.find("/nonexistent/corpus"), std::string::npos);
}

// The same merges, found by counting every pair of every unit again for each merge.
std::vector<std::array<uint32_t, 2>> brute_force_merges(const UnitCounts &counts, int max_merges)
{
    std::vector<std::pair<std::vector<uint32_t>, int64_t>> units;
    for (const auto &[text, n] : counts) {
        units.push_back({std::vector<uint32_t>(text.begin(), text.end()), n});
    }
    std::vector<std::array<uint32_t, 2>> merges;
    for (uint32_t id = 260; (int)merges.size() < max_merges; id++) {
        std::map<std::pair<uint32_t, uint32_t>, int64_t> pairs;
        for (const auto &[ids, n] : units) {
            for (size_t j = 0; j + 1 < ids.size(); j++) {
                pairs[{ids[j], ids[j + 1]}] += n;
            }
        }
        std::pair<uint32_t, uint32_t> best{};
        int64_t most = 1;
        for (const auto &[pair, n] : pairs) { // in key order: the first of equal counts wins
            if (n > most) {
                best = pair;
                most = n;
            }
        }
        if (most < 2) {
            break;
        }
        merges.push_back({best.first, best.second});
        for (auto &[ids, n] : units) {
            std::vector<uint32_t> out;
            for (size_t j = 0; j < ids.size(); j++) {
                bool hit = j + 1 < ids.size() && ids[j] == best.first && ids[j + 1] == best.second;
                out.push_back(hit ? id : ids[j]);
                j += hit ? 1 : 0;
            }
            ids = out;
        }
    }
    return merges;
}

TEST(WordBpe, UnitsAreWordsWithTheirSpaceAndMergesMatchACountFromScratch)
{
    const std::string text = "Read the file,  x86 readFile();\n    \u00e9t\u00e9 the files \n";
    UnitCounts units;
    count_word_units(text.data(), text.size(), &units);
    const UnitCounts want = {{"Read", 1},
                             {" the", 2},
                             {" file", 1},
                             {",", 1},
                             {" ", 1},
                             {" x", 1},
                             {"86", 1},
                             {" readFile", 1},
                             {"();", 1},
                             {"\n   ", 1},
                             {" \u00e9t\u00e9", 1},
                             {" files", 1},
                             {" \n", 1}};
    EXPECT_EQ(units, want);

    std::mt19937_64 rng(7);
    const char *words[] = {" alpha", " alps", " beta", " bet", " abet", " alphabet", "42", " a"};
    UnitCounts counts;
    for (int i = 0; i < 400; i++) {
        counts[words[rng() % 8]] += 1 + (int64_t)(rng() % 3);
    }
    EXPECT_EQ(train_word_bpe(counts, 1, 40), brute_force_merges(counts, 40));
    // Rare units make no merges: only the pairs of units seen often enough count.
    counts[" zq"] = 1;
    const auto merges = train_word_bpe(counts, 2, 1000);
    EXPECT_TRUE(std::none_of(merges.begin(), merges.end(), [](const auto &m) {
        return m[1] == (uint32_t)'q';
    }));
}
