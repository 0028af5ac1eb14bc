/*
** narrow_test.cpp -- the words of a query that narrow a search: each one, in every mode, against
** a brute-force filter of the same search without it, over a small index of real files whose
** folders, kinds and modification times are known.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

struct Doc {
    std::string rel; /* below the indexed directory */
    uint32_t type;
    time_t mtime;
    std::string text;
};

time_t local_noon(int y, int m, int d)
{
    struct tm t = {};
    t.tm_year = y - 1900;
    t.tm_mon = m - 1;
    t.tm_mday = d;
    t.tm_hour = 12;
    t.tm_isdst = -1;
    return mktime(&t);
}

bool holds(const std::string &text, const std::string &words)
{
    return (" " + text + " ").find(" " + words + " ") != std::string::npos;
}

/* Opens a handle rebuilding the index of dir, so that the indexed directory is dir. */
TrnEngine *rebuilding(const TempDir &dir)
{
    std::string index = dir.file(".tarnwick");
    mkdir(index.c_str(), 0700);
    TrnConfig cfg = {};
    cfg.index_dir = index.c_str();
    return trn_open_ex(&cfg, TRN_OPEN_REBUILD, nullptr);
}

/* An index of 30 one-chunk files in five folders, four kinds and three days, their chunks placed
** by hand with seeded random vectors. */
class Narrowing : public testing::Test
{
protected:
    void SetUp() override
    {
        const char *folders[] = {"", "notes/", "notes/2024/", "my docs/", "src/"};
        const char *exts[] = {"md", "txt", "html", "py"};
        const uint32_t types[] = {
            TRN_FILE_TYPE_MARKDOWN, TRN_FILE_TYPE_TEXT, TRN_FILE_TYPE_HTML, TRN_FILE_TYPE_SOURCE};
        const time_t days[] = {
            local_noon(2023, 6, 15), local_noon(2024, 3, 10), local_noon(2024, 11, 2)};
        const char *parts[] = {"green lantern by the harbor",
                               "lantern green and grey",
                               "harbor draft notes",
                               "the lantern keeper",
                               "quiet harbor wall \u00c0draft"}; /* U+00C0 ends in 0x80 */
        std::mt19937 rng(7);
        std::normal_distribution<float> g;
        for (int i = 0; i < 30; i++) {
            Doc d;
            d.rel = std::string(folders[i % 5]) + "f" + std::to_string(i) + "." + exts[i % 4];
            d.type = types[i % 4];
            d.mtime = days[(i / 2) % 3];
            d.text = std::string("file ") + std::to_string(i) + " " + parts[i % 5] + " "
                     + parts[(i * 3 + 1) % 5];
            std::string path = dir.file(d.rel);
            write_file_text(path, d.text);
            struct timespec times[2] = {{d.mtime, 0}, {d.mtime, 0}};
            utimensat(AT_FDCWD, path.c_str(), times, 0);
            std::vector<float> v(512);
            for (float &x : v) {
                x = g(rng);
            }
            vec_normalize(v.data(), v.size());
            hand.e->chunks[hand.add(path.c_str(), d.text, &v)].file_type = d.type;
            docs[path] = d;
        }
    }

    std::vector<TrnResult> search(const std::string &q, int32_t mode, int32_t k = 64)
    {
        std::vector<TrnResult> out((size_t)k);
        out.resize((size_t)trn_search(hand.e, q.c_str(), mode, k, out.data()));
        return out;
    }

    TempDir dir;
    HandEngine hand{rebuilding(dir)};
    std::map<std::string, Doc> docs;
};

struct Case {
    const char *words;    /* appended to the query */
    const char *searched; /* what they add to the words searched for */
    std::function<bool(const Doc &)> keeps;
};

std::vector<Case> cases()
{
    auto in = [](const char *folder) {
        return [folder](const Doc &d) {
            return d.rel.rfind(folder, 0) == 0;
        };
    };
    auto between = [](time_t from, time_t to) {
        return [from, to](const Doc &d) {
            return d.mtime >= from && d.mtime < to;
        };
    };
    const time_t y2024 = local_noon(2024, 1, 1) - 12 * 3600;
    const time_t mar10 = local_noon(2024, 3, 10) - 12 * 3600;
    return {
        {"type:markdown",
         "",
         [](const Doc &d) {
             return d.type == TRN_FILE_TYPE_MARKDOWN;
         }},
        {"TYPE:html,Source",
         "",
         [](const Doc &d) {
             return d.type == TRN_FILE_TYPE_HTML || d.type == TRN_FILE_TYPE_SOURCE;
         }},
        {"ext:txt",
         "",
         [](const Doc &d) {
             return d.type == TRN_FILE_TYPE_TEXT;
         }},
        {"type:md,.py",
         "",
         [](const Doc &d) {
             return d.type == TRN_FILE_TYPE_MARKDOWN || d.type == TRN_FILE_TYPE_SOURCE;
         }},
        {"in:notes", "", in("notes/")},
        {"in:./notes/2024/", "", in("notes/2024/")},
        {"in:\"my docs\"", "", in("my docs/")},
        {"in:note", "", in("note/")},
        {"modified:>=2024-01-01", "", between(y2024, INT64_MAX)},
        {"modified:<2024-01-01", "", between(0, y2024)},
        {"modified:2023", "", between(0, y2024)},
        {"modified:2024-03-10", "", between(mar10, mar10 + 86400)},
        {"modified:>2024-03-10", "", between(mar10 + 86400, INT64_MAX)},
        {"modified:<=2024-03", "", between(0, mar10 + 86400)},
        {"modified:2024-03..2024-10", "", between(mar10, mar10 + 86400)},
        {"modified:..2023-12-31", "", between(0, y2024)},
        {"\"green lantern\"",
         "green lantern",
         [](const Doc &d) {
             return holds(d.text, "green lantern");
         }},
        {"-draft",
         "",
         [](const Doc &d) {
             return !holds(d.text, "draft");
         }},
        {"-\"lantern green\" in:src",
         "",
         [](const Doc &d) {
             return !holds(d.text, "lantern green") && d.rel.rfind("src/", 0) == 0;
         }},
        {"in:notes type:markdown,text -draft modified:>=2024",
         "",
         [](const Doc &d) {
             return d.rel.rfind("notes/", 0) == 0 && !holds(d.text, "draft")
                    && (d.type == TRN_FILE_TYPE_MARKDOWN || d.type == TRN_FILE_TYPE_TEXT)
                    && d.mtime >= local_noon(2024, 1, 1);
         }},
    };
}

TEST_F(Narrowing, EveryWordKeepsWhatABruteForceFilterOfTheWholeSearchKeeps)
{
    struct Mode {
        int32_t mode;
        const char *query;
        int32_t reference; /* the mode whose whole search is filtered */
    };
    const Mode modes[] = {{TRN_SEARCH_TEXT, "lantern", TRN_SEARCH_TEXT},
                          {TRN_SEARCH_REGEX, "lant[a-z]*|harb", TRN_SEARCH_REGEX},
                          {TRN_SEARCH_KEYWORD, "lantern harbor", TRN_SEARCH_KEYWORD},
                          {TRN_SEARCH_SEMANTIC_ALL, "lantern harbor", TRN_SEARCH_SEMANTIC_ALL},
                          /* narrowed, semantic mode ranks every file left in */
                          {TRN_SEARCH_SEMANTIC, "lantern harbor", TRN_SEARCH_SEMANTIC_ALL}};
    const std::vector<Case> all = cases();
    for (const Mode &m : modes) {
        for (size_t i = 0; i < all.size(); i++) {
            /* The rankings by vector see the same chunks left in: every third word will do. */
            if (m.reference == TRN_SEARCH_SEMANTIC_ALL && i % 3 != 0) {
                continue;
            }
            const Case &c = all[i];
            std::string searched = std::string(m.query) + (*c.searched ? " " : "") + c.searched;
            std::vector<std::string> expected;
            for (const TrnResult &r : search(searched, m.reference)) {
                if (c.keeps(docs.at(r.file_path))) {
                    expected.push_back(r.doc_id);
                }
            }
            std::vector<std::string> got;
            for (const TrnResult &r : search(std::string(m.query) + " " + c.words, m.mode)) {
                got.push_back(r.doc_id);
            }
            EXPECT_EQ(got, expected) << "mode " << m.mode << ": " << c.words;
            if (m.mode == TRN_SEARCH_SEMANTIC && expected.size() > 2) {
                /* Fewer asked for than are left in: the best of them, in the same order. */
                std::vector<std::string> top;
                for (const TrnResult &r : search(std::string(m.query) + " " + c.words, m.mode, 2)) {
                    top.push_back(r.doc_id);
                }
                EXPECT_EQ(top, std::vector<std::string>(expected.begin(), expected.begin() + 2))
                    << c.words;
            }
            EXPECT_LT(expected.size(), 30u) << c.words; /* every word leaves something out */
        }
    }
}

TEST_F(Narrowing, HybridKeepsOnlyWhatPassesAndEveryKeywordHitThatDoes)
{
    const std::vector<Case> all = cases();
    for (size_t i = 0; i < all.size(); i += 3) {
        const Case &c = all[i];
        std::string searched =
            std::string("lantern harbor") + (*c.searched ? " " : "") + c.searched;
        std::vector<TrnResult> got =
            search("lantern harbor " + std::string(c.words), TRN_SEARCH_HYBRID);
        std::vector<std::string> ids;
        for (const TrnResult &r : got) {
            EXPECT_TRUE(c.keeps(docs.at(r.file_path))) << c.words << ": " << r.file_path;
            ids.push_back(r.doc_id);
        }
        for (const TrnResult &r : search(searched, TRN_SEARCH_KEYWORD)) {
            if (c.keeps(docs.at(r.file_path))) {
                EXPECT_NE(std::find(ids.begin(), ids.end(), r.doc_id), ids.end()) << c.words;
            }
        }
    }
}

TEST_F(Narrowing, NarrowingWordsAloneListWhatTheyLeaveInInIndexOrder)
{
    std::vector<TrnResult> got = search("in:notes/2024 type:markdown", TRN_SEARCH_HYBRID);
    std::vector<std::string> expected;
    for (uint64_t i = 0; i < hand.e->count; i++) {
        const Doc &d = docs.at(hand.e->chunks[i].file_path);
        if (d.rel.rfind("notes/2024/", 0) == 0 && d.type == TRN_FILE_TYPE_MARKDOWN) {
            expected.push_back(hand.e->chunks[i].doc_id);
        }
    }
    ASSERT_FALSE(expected.empty());
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].doc_id, expected[i]);
    }
}

TEST(QueryWords, SplitAtWhiteSpaceOutsideQuotesAndClassified)
{
    const char *q = "  bread \"rye flour\" -\"white bread\" In:\"my notes\" type:pdf ext:md "
                    "modified:>2024 -draft";
    TrnQueryWord w[16];
    ASSERT_EQ(trn_query_words(q, w, 16), 8);
    const TrnQueryWordKind kinds[] = {TRN_QUERY_WORD_TERM,
                                      TRN_QUERY_WORD_PHRASE,
                                      TRN_QUERY_WORD_EXCLUDED,
                                      TRN_QUERY_WORD_FOLDER,
                                      TRN_QUERY_WORD_TYPE,
                                      TRN_QUERY_WORD_EXT,
                                      TRN_QUERY_WORD_MODIFIED,
                                      TRN_QUERY_WORD_EXCLUDED};
    const char *values[] = {
        "bread", "rye flour", "\"white bread\"", "\"my notes\"", "pdf", "md", ">2024", "draft"};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(w[i].kind, kinds[i]) << i;
        EXPECT_EQ(std::string(q + w[i].value_start, (size_t)w[i].value_length), values[i]) << i;
    }
    EXPECT_EQ(std::string(q + w[3].start, (size_t)w[3].length), "In:\"my notes\"");
    /* Words that only look like narrowing stay words to search for. */
    EXPECT_EQ(trn_query_words("-Wall", w, 16), 1);
    EXPECT_EQ(w[0].kind, TRN_QUERY_WORD_TERM);
    EXPECT_EQ(trn_query_words("--help \"in:docs\" http://x", w, 16), 3);
    EXPECT_EQ(w[0].kind, TRN_QUERY_WORD_TERM);
    EXPECT_EQ(w[1].kind, TRN_QUERY_WORD_PHRASE);
    EXPECT_EQ(w[2].kind, TRN_QUERY_WORD_TERM);
    EXPECT_EQ(trn_query_words("a b c", nullptr, 0), 3);
    EXPECT_EQ(trn_query_words(" \t", w, 16), 0);
}

TEST(QueryWords, DatesThatCannotBeReadAreRefusedWithAReason)
{
    char why[200];
    for (const char *bad : {"modified:yesterday",
                            "modified:2024-02-30",
                            "modified:>=24-01-01",
                            "modified:2024-13",
                            "modified:..",
                            "modified:yesterday..2024-06-30",
                            "modified:2024-06..2024-01"}) {
        EXPECT_EQ(trn_check_query(bad, TRN_SEARCH_KEYWORD, why, sizeof why), 0) << bad;
        EXPECT_NE(strstr(why, "modified:"), nullptr) << bad;
    }
    for (const char *good : {"x modified:2024-02-29", "modified:", "x modified:<=1999"}) {
        EXPECT_EQ(trn_check_query(good, TRN_SEARCH_KEYWORD, why, sizeof why), 1) << good;
        EXPECT_STREQ(why, "");
    }
    /* The expression checked is what is searched for, without the narrowing words. */
    EXPECT_EQ(trn_check_query("[a-z type:pdf", TRN_SEARCH_REGEX, why, sizeof why), 0);
    EXPECT_EQ(trn_check_query("[a-z]+ type:pdf", TRN_SEARCH_REGEX, why, sizeof why), 1);
    EXPECT_EQ(trn_check_query(nullptr, TRN_SEARCH_TEXT, why, sizeof why), 0);
}

} // namespace
