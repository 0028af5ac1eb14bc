// Tests of trn_search on in-memory engines whose chunks are placed by hand: texts, paths and
// vectors are set directly, so nothing is embedded but the query itself in semantic mode.
#include "internal.h"
#include "store_fixtures.h"
#include "tarnwick.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace
{

struct Engine : HandEngine {
    // A document index set by hand: one name and one centroid per file.
    void set_files(const std::vector<std::string> &names, const std::vector<std::vector<float>> &c)
    {
        trn_free_doc_index(e);
        int32_t n = (int32_t)names.size();
        e->file_names = (char **)xcalloc(n, sizeof(char *));
        e->centroids = (float *)xcalloc((size_t)n * e->dim, sizeof(float));
        e->file_chunk_counts = (int32_t *)xcalloc(n, sizeof(int32_t));
        for (int32_t j = 0; j < n; j++) {
            e->file_names[j] = xstrdup(names[j].c_str());
            memcpy(e->centroids + (size_t)j * e->dim, c[j].data(), sizeof(float) * e->dim);
            e->file_chunk_counts[j] = 1;
        }
        e->file_count = n;
        e->file_capacity = n;
    }
    std::vector<TrnResult> search(const char *q, int32_t mode, int32_t k)
    {
        std::vector<TrnResult> out(k > 0 ? k : 1);
        int32_t n = trn_search(e, q, mode, k, out.data());
        EXPECT_GE(n, 0);
        out.resize(n > 0 ? n : 0);
        return out;
    }
};

// Unit vectors at angle theta from q, each turned towards its own direction orthogonal to q.
struct Around {
    std::vector<float> q;
    std::mt19937 rng{17};
    explicit Around(const std::vector<float> &query) : q(query) {}
    std::vector<float> at(float theta)
    {
        std::normal_distribution<float> g;
        std::vector<float> u(q.size());
        for (float &x : u) {
            x = g(rng);
        }
        float d = vec_dot(u.data(), q.data(), q.size());
        for (size_t i = 0; i < u.size(); i++) {
            u[i] -= d * q[i];
        }
        vec_normalize(u.data(), u.size());
        std::vector<float> v(q.size());
        for (size_t i = 0; i < v.size(); i++) {
            v[i] = std::cos(theta) * q[i] + std::sin(theta) * u[i];
        }
        vec_normalize(v.data(), v.size());
        return v;
    }
};

std::vector<float> embedded(Engine &eng, const char *text)
{
    std::vector<float> q(512);
    trn_encoder_embed_text(engine_encoder(eng.e), text, q.data());
    vec_normalize(q.data(), q.size());
    return q;
}

std::string file_name(int j)
{
    return "/docs/f" + std::to_string(j) + ".md";
}

// Twelve files. Files 10 and 11 hold the two chunks closest to the query, but their centroids
// point away from it, so the narrowed search never returns them.
TEST(SemanticSearch, NarrowsToTheTenBestFiles)
{
    Engine eng;
    const char *query = "where are the lighthouse keepers";
    Around around(embedded(eng, query));
    std::vector<std::string> names;
    std::vector<std::vector<float>> centroids;
    for (int j = 0; j < 12; j++) {
        names.push_back(file_name(j));
        std::vector<float> v = around.at(j < 10 ? 0.5f + 0.05f * j : 0.05f * (j - 9));
        eng.add(names.back().c_str(), "chunk of " + names.back(), &v);
        centroids.push_back(j < 10 ? v : around.at(2.5f));
    }
    eng.set_files(names, centroids);

    std::vector<TrnResult> r = eng.search(query, TRN_SEARCH_SEMANTIC, 12);
    ASSERT_EQ(r.size(), 10u);
    for (int i = 0; i < 10; i++) {
        EXPECT_STREQ(r[i].file_path, names[i].c_str()); // nearest first
        EXPECT_EQ(r[i].score, vec_dot(around.q.data(), eng.e->vectors + i * 512, 512));
        EXPECT_EQ(r[i].snippet, eng.e->snippets[i]);
        EXPECT_EQ(r[i].snippet, "chunk of " + names[i]);
    }

    // Without a document index (or with one file) nothing is narrowed.
    trn_free_doc_index(eng.e);
    r = eng.search(query, TRN_SEARCH_SEMANTIC, 3);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_STREQ(r[0].file_path, names[10].c_str());
    EXPECT_STREQ(r[1].file_path, names[11].c_str());
    eng.set_files({names[3]}, {centroids[3]});
    r = eng.search(query, TRN_SEARCH_SEMANTIC, 1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_STREQ(r[0].file_path, names[10].c_str());
}

// Files 9 and 10 tie for the tenth place; the one listed first takes it, although file 10 holds
// the closer chunk. Pathless chunks never survive narrowing.
TEST(SemanticSearch, TieForTenthPlaceGoesToTheEarlierFile)
{
    Engine eng;
    const char *query = "tide tables";
    Around around(embedded(eng, query));
    std::vector<std::string> names;
    std::vector<std::vector<float>> centroids;
    std::vector<float> tied = around.at(1.2f);
    for (int j = 0; j < 12; j++) {
        names.push_back(file_name(j));
        std::vector<float> v = around.at(0.3f + 0.05f * j);
        eng.add(names.back().c_str(), names.back(), &v);
        centroids.push_back(j < 9 ? around.at(0.2f + 0.05f * j) : j < 11 ? tied : around.at(2.0f));
    }
    std::vector<float> close = around.at(0.01f);
    eng.add(nullptr, "no path", &close);
    eng.add(names[10].c_str(), "closest of file 10", &close, 1);
    eng.set_files(names, centroids);
    std::vector<TrnResult> r = eng.search(query, TRN_SEARCH_SEMANTIC, 20);
    ASSERT_EQ(r.size(), 10u);
    for (int i = 0; i < 10; i++) {
        EXPECT_STREQ(r[i].file_path, names[i].c_str());
    }
}

TEST(SemanticSearch, ResultCountLimits)
{
    Engine eng;
    Around around(embedded(eng, "anything"));
    const std::vector<float> side = around.at(1.5707964f);
    for (int i = 0; i < 250; i++) { // on one arc from the query, so the graph walk is exact
        const float theta = 0.2f + 0.005f * (float)i;
        std::vector<float> v(side.size());
        for (size_t d = 0; d < v.size(); d++) {
            v[d] = std::cos(theta) * around.q[d] + std::sin(theta) * side[d];
        }
        eng.add("/one/file.txt", "chunk " + std::to_string(i), &v, i);
    }
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_SEMANTIC, 100).size(), 64u);
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_SEMANTIC, 7).size(), 7u);
    // The graph is walked 200 wide, past ef_search (50): by file, the one row counts the
    // other 199 passages its file has that near.
    TrnResult row[1];
    ASSERT_EQ(trn_search_ex(eng.e, "anything", TRN_SEARCH_SEMANTIC, 1, TRN_SEARCH_BY_FILE, row), 1);
    EXPECT_EQ(row[0].more_in_file, 199);
    EXPECT_TRUE(eng.search("anything", TRN_SEARCH_SEMANTIC, 0).empty());
    // Over every file and in hybrid search the graph is searched at least k wide.
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_SEMANTIC_ALL, 64).size(), 64u);
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_HYBRID, 64).size(), 64u);
    // Two files: the graph is asked for min(4k, 64) hits.
    eng.set_files({"/one/file.txt", "/two.txt"}, {around.q, around.at(3.0f)});
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_SEMANTIC, 100).size(), 64u);
    EXPECT_EQ(eng.search("anything", TRN_SEARCH_SEMANTIC, 2).size(), 2u);
}

TEST(TextSearch, ChunkOrderScoresAndFields)
{
    Engine eng;
    eng.add("/a.txt", "no match here");
    eng.add("/a.txt", "a NEEDLE in caps", nullptr, 1, 7);
    uint32_t dead = eng.add("/a.txt", "needle but deleted", nullptr, 2);
    eng.add("/b.txt", "NeEdLe mixed");
    eng.add(nullptr, "pathless needle");
    eng.add("/c.txt", "last needle");
    eng.add("/c.txt", "one more needle", nullptr, 1);
    eng.remove(dead);

    std::vector<TrnResult> r = eng.search("needle", TRN_SEARCH_TEXT, 4);
    ASSERT_EQ(r.size(), 4u);
    const float want[4] = {1.0f, 0.75f, 0.5f, 0.25f};
    const char *ids[4] = {"/a.txt:1", "/b.txt:0", ":0", "/c.txt:0"};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(r[i].score, want[i]);
        EXPECT_STREQ(r[i].doc_id, ids[i]);
    }
    EXPECT_EQ(r[0].chunk_index, 1);
    EXPECT_EQ(r[0].line_number, 7);
    EXPECT_EQ(r[0].file_type, (uint32_t)TRN_FILE_TYPE_MARKDOWN);
    EXPECT_EQ(r[2].file_path, nullptr);
    EXPECT_STREQ(r[1].snippet, "NeEdLe mixed");

    EXPECT_EQ(eng.search("NEEDLE", TRN_SEARCH_REGEX, 10).size(), 5u);
    EXPECT_EQ(eng.search("ne+dle (in|mixed)", TRN_SEARCH_REGEX, 10).size(), 2u);
    EXPECT_TRUE(eng.search("haystack", TRN_SEARCH_TEXT, 10).empty());
}

TEST(TextSearch, LimitsAndFailures)
{
    Engine eng;
    EXPECT_TRUE(eng.search("x", TRN_SEARCH_TEXT, 10).empty()); // empty engine
    EXPECT_TRUE(eng.search("x", TRN_SEARCH_SEMANTIC, 10).empty());
    for (int i = 0; i < 70; i++) {
        eng.add("/f.txt", "line with word " + std::to_string(i), nullptr, i);
    }
    std::vector<TrnResult> r = eng.search("WORD", TRN_SEARCH_TEXT, 100);
    ASSERT_EQ(r.size(), 64u);
    EXPECT_EQ(r[63].score, 1.0f - 63.0f / 64.0f);
    EXPECT_EQ(r[63].snippet, eng.e->snippets[63]);
    EXPECT_EQ(eng.search("word", TRN_SEARCH_REGEX, 100).size(), 64u);
    for (int mode : {TRN_SEARCH_SEMANTIC, TRN_SEARCH_TEXT, TRN_SEARCH_REGEX}) {
        EXPECT_TRUE(eng.search("word", mode, 0).empty());
        EXPECT_TRUE(eng.search("word", mode, -3).empty());
    }
    EXPECT_TRUE(eng.search("word", 6, 10).empty());
    EXPECT_TRUE(eng.search("word", -1, 10).empty());
    EXPECT_TRUE(eng.search("(word", TRN_SEARCH_REGEX, 10).empty());
    EXPECT_TRUE(eng.search(" ", TRN_SEARCH_TEXT, 10).empty()); // every line holds a space
    EXPECT_TRUE(eng.search(" \t ", TRN_SEARCH_TEXT, 10).empty());
}

// trn_check_regex answers exactly what a regex search would do with the pattern, and its reason
// is one line that fits the buffer it is given.
TEST(RegexCheck, AgreesWithTheSearchAndExplainsRefusals)
{
    Engine eng;
    eng.add("/f.txt", "def read_lines(path): return open(path)");
    struct Case {
        const char *pattern;
        bool compiles;
    };
    const Case cases[] = {
        {"def [a-z]+", true},
        {"READ_(lines|words)", true},
        {"def [a-z", false},
        {"(read", false},
        {"read)x{2,1}", false},
        {"(read a long group that is never closed, so that the parser's reason, which quotes "
         "the rest of the pattern after the problem, would run far longer than one line",
         false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pattern);
        char message[256] = "untouched";
        EXPECT_EQ(trn_check_regex(c.pattern, message, sizeof message), c.compiles ? 1 : 0);
        EXPECT_EQ(eng.search(c.pattern, TRN_SEARCH_REGEX, 10).size(), c.compiles ? 1u : 0u);
        if (c.compiles) {
            EXPECT_STREQ(message, "");
        } else {
            EXPECT_GT(strlen(message), 0u);
            EXPECT_LT(strlen(message), 120u) << "RE2 quotes the rest of the pattern";
            EXPECT_EQ(strchr(message, '\n'), nullptr);
        }
    }
    char small[8];
    EXPECT_EQ(trn_check_regex("def [a-z", small, sizeof small), 0);
    EXPECT_EQ(strlen(small), sizeof small - 1);
    EXPECT_EQ(trn_check_regex("def [a-z", nullptr, 0), 0);
    char reason[64];
    EXPECT_EQ(trn_check_regex(nullptr, reason, sizeof reason), 0);
    EXPECT_STREQ(reason, "no regular expression given");
}

// Snippets begin at a word boundary at most 75 bytes before the match, which is marked.
TEST(TextSearch, SnippetStart)
{
    struct Case {
        size_t match;
        std::vector<std::pair<size_t, char>> seps;
        size_t start;
    };
    const Case cases[] = {
        {80, {{10, ' '}, {40, ' '}}, 11}, // first separator in 5..79 is at 10
        {80, {{3, ' '}, {4, '\n'}}, 80},  // none in 5..79: start at the match
        {80, {{20, '\n'}, {60, ' '}}, 21},
        {80, {{79, ' '}}, 80},          // the byte just before the match
        {75, {{10, ' '}}, 0},           // within the first 76 bytes: from the start
        {76, {{1, ' '}, {50, ' '}}, 2}, // the window is 1..75
        {76, {{0, ' '}}, 76},           // offset 0 is outside the window
        {0, {}, 0},
        {900, {{600, ' '}, {830, '\t'}, {840, ' '}}, 841}, // a tab is no boundary
    };
    Engine eng;
    for (const Case &c : cases) {
        std::string text(1000, 'x');
        for (auto [at, ch] : c.seps) {
            text[at] = ch;
        }
        text.replace(c.match, 6, "Marker");
        uint32_t slot = eng.add("/s.txt", text);
        for (int mode : {TRN_SEARCH_TEXT, TRN_SEARCH_REGEX}) {
            std::vector<TrnResult> r =
                eng.search(mode == TRN_SEARCH_TEXT ? "MARKER" : "mar+ker", mode, 1);
            ASSERT_EQ(r.size(), 1u);
            std::string want = text.substr(c.start, 300);
            EXPECT_EQ(std::string(r[0].snippet), want) << "match at " << c.match;
            ASSERT_EQ(r[0].mark_count, 1) << "match at " << c.match;
            EXPECT_EQ(r[0].marks[0], c.match - c.start) << "match at " << c.match;
            EXPECT_EQ(r[0].marks[1], c.match - c.start + 6) << "match at " << c.match;
        }
        eng.remove(slot); // the next case's chunk is the only live one
    }
}

// Snippets end before the last blank run among the 60 bytes before the 300th, else at the 300th.
TEST(TextSearch, SnippetEnd)
{
    struct Case {
        std::vector<std::pair<size_t, char>> seps;
        size_t end;
    };
    const Case cases[] = {
        {{{270, ' '}, {280, ' '}, {281, ' '}, {282, ' '}}, 280}, // the whole run goes
        {{{289, ' '}, {290, '\n'}}, 289},
        {{{241, ' '}}, 241},
        {{{240, ' '}}, 300}, // outside the 60 bytes
        {{}, 300},
    };
    Engine eng;
    for (const Case &c : cases) {
        std::string text = "Marker" + std::string(994, 'x');
        for (auto [at, ch] : c.seps) {
            text[at] = ch;
        }
        uint32_t slot = eng.add("/s.txt", text);
        std::vector<TrnResult> r = eng.search("MARKER", TRN_SEARCH_TEXT, 1);
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(std::string(r[0].snippet), text.substr(0, c.end)) << "end " << c.end;
        eng.remove(slot);
    }
}

std::string random_text(std::mt19937 &rng, size_t n)
{
    static const char alphabet[] = "aAbBzZ@[`{ 09\x80\xc3\xa9\xe1";
    std::string s;
    for (size_t i = 0; i < n; i++) {
        s += alphabet[rng() % (sizeof(alphabet) - 1)];
    }
    return s;
}

int64_t find(const std::string &hay, const std::string &needle)
{
    std::string low = needle;
    for (char &ch : low) {
        ch = (ch >= 'A' && ch <= 'Z') ? (char)(ch + 32) : ch;
    }
    return find_ascii_nocase(
        hay.c_str(), hay.size(), reinterpret_cast<const unsigned char *>(low.data()), low.size());
}

TEST(CaseInsensitiveFind, AgreesWithStrcasestr)
{
    std::mt19937 rng(3);
    int found = 0;
    for (int t = 0; t < 20000; t++) {
        std::string hay = random_text(rng, rng() % 300);
        std::string needle;
        if (!hay.empty() && rng() % 4 != 0) {
            size_t at = rng() % hay.size();
            needle = hay.substr(at, 1 + rng() % 40);
            for (char &ch : needle) {
                if (rng() % 2 && ch >= 'a' && ch <= 'z') {
                    ch = (char)(ch - 32);
                }
            }
        } else {
            needle = random_text(rng, rng() % 4);
        }
        const char *p = strcasestr(hay.c_str(), needle.c_str());
        int64_t want = p ? p - hay.c_str() : -1;
        ASSERT_EQ(find(hay, needle), want) << "hay '" << hay << "' needle '" << needle << "'";
        found += want >= 0 ? 1 : 0;
    }
    EXPECT_GT(found, 10000); // most needles come from the hay, so the search really finds
}

// The hay ends at a page that cannot be read: no load may run past its last byte.
TEST(CaseInsensitiveFind, NeverReadsPastTheHay)
{
    long page = sysconf(_SC_PAGESIZE);
    char *mem =
        (char *)mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    ASSERT_EQ(mprotect(mem + page, page, PROT_NONE), 0);
    for (size_t len : {1, 15, 31, 33, 64, 100, 257}) {
        char *hay = mem + page - len;
        memset(hay, 'q', len);
        hay[len - 1] = 'Z';
        const unsigned char z[] = "z", qz[] = "qz", miss[] = "qqqqa";
        EXPECT_EQ(find_ascii_nocase(hay, len, z, 1), (int64_t)len - 1);
        EXPECT_EQ(find_ascii_nocase(hay, len, qz, len > 1 ? 2 : 0), len > 1 ? (int64_t)len - 2 : 0);
        EXPECT_EQ(find_ascii_nocase(hay, len, miss, 5), -1);
    }
    munmap(mem, 2 * page);
}

} // namespace
