/*
** search_many_test.cpp -- several indexes searched as one: in the modes whose scores compare,
** the merged ranking is the ranking of one index that holds every folder's chunks, per chunk and
** per file.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

/* Two folders' chunks, each in an index of its own and all in one index, with the same vectors.
** The folders differ in size, so their own word counts differ from the shared ones; their files
** hold several chunks each, and the same names stand in both folders. */
struct Folders {
    HandEngine a, b, both;
    Folders()
    {
        const char *words[] = {"lantern",
                               "harbor",
                               "keeper",
                               "quiet",
                               "green",
                               "wall",
                               "tide",
                               "stone",
                               "rope",
                               "gull"};
        std::mt19937 rng(11);
        std::normal_distribution<float> g;
        for (int i = 0; i < 40; i++) {
            std::string text;
            for (int w = 0; w < 3 + (int)(rng() % 6); w++) {
                text += std::string(words[rng() % 10]) + " ";
            }
            std::vector<float> v(512);
            for (float &x : v) {
                x = g(rng);
            }
            vec_normalize(v.data(), v.size());
            std::string path = (i < 12 ? "/a/f" : "/b/f") + std::to_string(i % 5) + ".md";
            (i < 12 ? a : b).add(path.c_str(), text, &v, i);
            both.add(path.c_str(), text, &v, i);
        }
    }
    std::vector<TrnResult> many(const char *q, int32_t mode, int32_t k, std::vector<int32_t> *from,
                                uint32_t flags = 0)
    {
        TrnEngine *engines[] = {a.e, b.e};
        std::vector<TrnResult> out((size_t)k);
        from->assign((size_t)k, -1);
        out.resize(
            (size_t)trn_search_many(engines, 2, q, mode, k, flags, out.data(), from->data()));
        return out;
    }
    std::vector<TrnResult> one(const char *q, int32_t mode, int32_t k, uint32_t flags = 0)
    {
        std::vector<TrnResult> out((size_t)k);
        out.resize((size_t)trn_search_ex(both.e, q, mode, k, flags, out.data()));
        return out;
    }
};

TEST(SearchMany, ScoresCompareAsInOneIndexOfEveryFolder)
{
    Folders f;
    for (uint32_t flags : {0u, (uint32_t)TRN_SEARCH_BY_FILE}) {
        for (int32_t mode : {TRN_SEARCH_KEYWORD, TRN_SEARCH_SEMANTIC_ALL, TRN_SEARCH_HYBRID}) {
            for (const char *q : {"lantern harbor",
                                  "quiet tide",
                                  "keeper -wall",
                                  "green in:b",
                                  "rope of marmalade"}) {
                SCOPED_TRACE(testing::Message() << flags << " " << mode << " " << q);
                std::vector<int32_t> from;
                std::vector<TrnResult> got = f.many(q, mode, 15, &from, flags);
                std::vector<TrnResult> expected = f.one(q, mode, 15, flags);
                ASSERT_EQ(got.size(), expected.size());
                ASSERT_FALSE(got.empty());
                for (size_t i = 0; i < got.size(); i++) {
                    EXPECT_STREQ(got[i].doc_id, expected[i].doc_id) << i;
                    EXPECT_NEAR(got[i].score, expected[i].score, 1e-5f);
                    EXPECT_STREQ(got[i].snippet, expected[i].snippet);
                    EXPECT_EQ(got[i].more_in_file, expected[i].more_in_file) << i;
                    /* Each record names the index it came from, and points into it. */
                    EXPECT_EQ(from[i], got[i].file_path[1] == 'a' ? 0 : 1) << got[i].file_path;
                }
            }
        }
    }
}

/* A chunk that holds no query word but means the query leads a hybrid search whose keyword hits
** hold little of the query, in one index and across several; a query its keyword hit holds whole
** keeps that hit first. */
TEST(SearchMany, MeaningLeadsWhereTheWordsMiss)
{
    HandEngine a, b;
    const char *weak = "harbor marmalade xylophone quasar";
    std::vector<float> q((size_t)a.e->dim), other((size_t)a.e->dim);
    ASSERT_TRUE(embed_query(a.e, weak, q.data()));
    std::mt19937 rng(5);
    std::normal_distribution<float> g;
    for (float &x : other) {
        x = g(rng);
    }
    vec_normalize(other.data(), other.size());
    a.add("/a/meant.md", "otter", &q, 0);
    a.add("/a/words.md", "harbor lantern keeper", &other, 1);
    b.add("/b/words.md", "harbor harbor gull", &other, 0);
    TrnEngine *both[] = {a.e, b.e};
    for (const char *query : {weak, "harbor lantern keeper"}) {
        const char *want = query == weak ? "/a/meant.md:0" : "/a/words.md:1";
        TrnResult r[4];
        int32_t from[4];
        ASSERT_GT(trn_search(a.e, query, TRN_SEARCH_HYBRID, 4, r), 0);
        EXPECT_STREQ(r[0].doc_id, want) << query;
        ASSERT_GT(trn_search_many(both, 2, query, TRN_SEARCH_HYBRID, 4, 0, r, from), 0);
        EXPECT_STREQ(r[0].doc_id, want) << query << ", two indexes";
    }
}

TEST(SearchMany, TextHitsTakeTurnsSoNoFolderCrowdsOutAnother)
{
    Folders f;
    std::vector<int32_t> from;
    std::vector<TrnResult> got = f.many("lantern", TRN_SEARCH_TEXT, 10, &from);
    std::vector<TrnResult> a(10), b(10);
    a.resize((size_t)trn_search(f.a.e, "lantern", TRN_SEARCH_TEXT, 10, a.data()));
    b.resize((size_t)trn_search(f.b.e, "lantern", TRN_SEARCH_TEXT, 10, b.data()));
    ASSERT_GE(a.size(), 5u);
    ASSERT_EQ(got.size(), 10u);
    for (size_t i = 0; i < got.size(); i++) {
        const std::vector<TrnResult> &own = i % 2 == 0 ? a : b;
        EXPECT_STREQ(got[i].doc_id, own[i / 2].doc_id) << i;
        EXPECT_EQ(from[i], (int32_t)(i % 2));
        EXPECT_FLOAT_EQ(got[i].score, 1.0f - (float)i / 10.0f);
    }
    TrnEngine *none[] = {f.a.e, nullptr};
    TrnResult r[4];
    int32_t o[4];
    EXPECT_EQ(trn_search_many(none, 2, "lantern", TRN_SEARCH_TEXT, 4, 0, r, o), 0);
    EXPECT_EQ(trn_search_many(none, 1, "x modified:soon", TRN_SEARCH_TEXT, 4, 0, r, o), 0);
    /* No room asked for, or a mode that does not exist: nothing, however many would match. */
    EXPECT_EQ(trn_search_many(none, 1, "lantern", TRN_SEARCH_TEXT, 0, 0, r, o), 0);
    EXPECT_EQ(trn_search_many(none, 1, "lantern", TRN_SEARCH_SEMANTIC - 1, 4, 0, r, o), 0);
    EXPECT_EQ(trn_search_many(none, 1, "lantern", TRN_SEARCH_SEMANTIC_ALL + 1, 4, 0, r, o), 0);
}

} // namespace
