// Tests of the word index: how texts split into terms, a word's stem, BM25 scores against a
// computation from the definition, reciprocal rank fusion, and an index that follows ingestion,
// removal, log replay, compaction and reopening exactly as one built from scratch would.
#include "index/words.h"
#include "internal.h"
#include "store_fixtures.h"
#include "tarnwick.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::string split(const char *text)
{
    char out[512];
    lex_split(text, out, sizeof out);
    return out;
}

TEST(LexicalTerms, SplitAsDocumented)
{
    struct Case {
        const char *text;
        const char *terms;
    } cases[] = {
        {"readFileSync", "readfilesync read file sync"},
        {"read_file_sync", "readfilesync read file sync"},
        {"HTTPServer", "httpserver http server"},
        {"utf8Decode", "utf8decode utf 8 decode"},
        {"x86_64", "x8664 x 86 64"},
        {"__init__ main", "init main"},
        {"Open a FILE, then close it.", "open a file then close it"},
        {"don't", "don t"},
        {"plain", "plain"},
        {"Straße ÉCOLE ÀÖØÞ", "straße école àöøþ"},
        {"ŁÓDŹ İstanbul Ÿ", "łódź istanbul ÿ"},
        {"ΑΘΗΝΑ МОСКВА Ёж", "αθηνα москва ёж"},
        {"a×b÷c", "a b c"},
        {"ab\xff"
         "cd \xc3",
         "ab cd"},
        {"em\xe2\x80\x94"
         "dash",
         "em dash"},
        {"", ""},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(split(c.text), c.terms) << c.text;
    }
    // Only whole terms, as many as fit with the terminating zero; the count is of them all.
    char out[8];
    EXPECT_EQ(lex_split("open a", out, 7), 2);
    EXPECT_STREQ(out, "open a");
    EXPECT_EQ(lex_split("open a", out, 6), 2);
    EXPECT_STREQ(out, "open");
    EXPECT_EQ(lex_split("open", out, 5), 1);
    EXPECT_STREQ(out, "open");
    EXPECT_EQ(lex_split("open", out, 4), 1);
    EXPECT_STREQ(out, "");
}

TEST(LexicalTerms, LongWordsAreCutAndOverlongRunsSplit)
{
    std::string word(300, 'a');
    std::string terms = split(word.c_str());
    // 300 letters: a run of 256 and one of 44, each cut to 64 bytes.
    EXPECT_EQ(terms, std::string(64, 'a') + " " + std::string(44, 'a'));
}

// The terms the word index holds for text: its words' stems.
std::vector<std::string> terms_of(const char *text)
{
    std::vector<std::string> out;
    std::string s = split(text);
    size_t at = 0;
    while (at < s.size()) {
        size_t sp = s.find(' ', at);
        std::string word = s.substr(at, sp == std::string::npos ? std::string::npos : sp - at);
        word.resize(stem_term(word.data(), word.size()));
        out.push_back(word);
        at = sp == std::string::npos ? s.size() : sp + 1;
    }
    return out;
}

TEST(LexicalTerms, StemJoinsAWordsFormsAndKeepsOthersApart)
{
    const std::vector<std::vector<std::string>> families = {
        {"use", "uses", "used", "using"},
        {"file", "files", "filed", "filing"},
        {"stop", "stops", "stopped", "stopping"},
        {"try", "tries", "tried", "trying"},
        {"process", "processes", "processed", "processing"},
        {"index", "indexes", "indexed"},
        {"need", "needs", "needed"},
        {"fall", "falls", "falling"},
    };
    for (const auto &family : families) {
        for (const std::string &w : family) {
            EXPECT_EQ(word_stem(w), word_stem(family[0])) << w << " against " << family[0];
        }
    }
    // Endings that are part of the word stay: no vowel would be left, or the "s" is not a plural.
    for (const char *w : {"thing", "red", "status", "analysis", "class"}) {
        EXPECT_EQ(word_stem(w), w);
    }
    for (size_t a = 0; a < families.size(); a++) {
        for (size_t b = a + 1; b < families.size(); b++) {
            EXPECT_NE(word_stem(families[a][0]), word_stem(families[b][0]));
        }
    }
    // The word index stems terms of three or more letters a to z, and no others.
    for (auto [term, stem] :
         std::vector<std::pair<std::string, std::string>>{{"use", "us"},
                                                          {"ies", "ies"},
                                                          {"as", "as"},
                                                          {"utf8s", "utf8s"},
                                                          {"caf\xc3\xa9s", "caf\xc3\xa9s"}}) {
        std::string t = term;
        t.resize(stem_term(t.data(), t.size()));
        EXPECT_EQ(t, stem) << term;
    }
}

// Thousands of terms, so the term table grows several times: every one is still found.
TEST(LexicalTerms, EveryTermIsFoundAfterTheTableGrows)
{
    const std::string letters = "bcdfghjklmnpqrtvwxz"; // no vowel, no "s": nothing to stem
    auto word = [&letters](size_t i) {
        return std::string("z") + letters[i % 19] + letters[i / 19 % 19] + letters[i / 361 % 19]
               + letters[i / 6859 % 19];
    };
    HandEngine b;
    const size_t per_chunk = 20, chunks = 500; // 10,000 terms
    for (size_t c = 0; c < chunks; c++) {
        std::string text;
        for (size_t k = 0; k < per_chunk; k++) {
            text += word(c * per_chunk + k) + " ";
        }
        b.add(("/f" + std::to_string(c)).c_str(), text);
    }
    TrnResult r[2];
    for (size_t c = 0; c < chunks; c += 37) {
        const size_t i = c * per_chunk + c % per_chunk;
        ASSERT_EQ(trn_search(b.e, word(i).c_str(), TRN_SEARCH_KEYWORD, 2, r), 1) << word(i);
        EXPECT_EQ(std::string(r[0].file_path), "/f" + std::to_string(c)) << word(i);
    }
}

TEST(LexicalBm25, ScoresEqualTheDefinitionOverLiveChunks)
{
    const char *texts[] = {
        "the cat sat on the mat",
        "a dog chased the cat around the garden and the cat ran up a tree",
        "readFileSync reads a file synchronously",
        "cats and dogs are pets; the cat is not a dog",
        "nothing here matches at all",
        "the file was read, then the file was closed and the cat slept",
        "deleted chunk about cat cat cat file",
    };
    HandEngine b;
    for (const char *t : texts) {
        b.add("f", t);
    }
    b.remove(6);
    const char *queries[] = {"cat", "the cat", "read file", "dog tree garden", "zebra", "CAT cat"};
    for (const char *query : queries) {
        // From the definition: every live chunk, the query's distinct terms, idf from df.
        std::vector<std::vector<std::string>> docs;
        for (int i = 0; i < 6; i++) {
            docs.push_back(terms_of(texts[i]));
        }
        double avg = 0;
        for (const auto &d : docs) {
            avg += (double)d.size() / (double)docs.size();
        }
        std::vector<std::string> q = terms_of(query);
        std::set<std::string> qs(q.begin(), q.end());
        std::vector<std::pair<double, uint32_t>> want;
        for (uint32_t i = 0; i < docs.size(); i++) {
            double s = 0;
            for (const std::string &t : qs) {
                double df = 0, tf = 0;
                for (const auto &d : docs) {
                    df += std::count(d.begin(), d.end(), t) > 0 ? 1 : 0;
                }
                tf = (double)std::count(docs[i].begin(), docs[i].end(), t);
                if (tf == 0) {
                    continue;
                }
                double idf = std::log(1 + (docs.size() - df + 0.5) / (df + 0.5));
                s += idf * tf * (LEX_K1 + 1)
                     / (tf + LEX_K1 * (1 - LEX_B + LEX_B * (double)docs[i].size() / avg));
            }
            if (s > 0) {
                want.push_back({-s, i});
            }
        }
        std::sort(want.begin(), want.end());
        uint32_t slots[16];
        float scores[16];
        int32_t n = lex_search(b.e, query, 16, slots, scores);
        ASSERT_EQ((size_t)n, want.size()) << query;
        for (int32_t i = 0; i < n; i++) {
            EXPECT_EQ(slots[i], want[i].second) << query << " rank " << i;
            EXPECT_NEAR(scores[i], -want[i].first, 1e-5) << query << " rank " << i;
        }
    }
    uint32_t slot;
    float score;
    EXPECT_EQ(lex_search(b.e, "cat", 0, &slot, &score), 0);
}

TEST(LexicalSnippets, StartWhereTheQueryWordsAreDensestOnThatLine)
{
    // Lines of 40 bytes (39 and a line feed) without spaces; line i starts at 40 * (i - 1).
    const auto text_with = [](const std::map<int, std::string> &at) {
        std::string text;
        for (int i = 1; i <= 10; i++) {
            std::string line = at.count(i) ? at.at(i) : "";
            line.resize(39, 'x');
            text += line + "\n";
        }
        return text;
    };
    struct Case {
        const char *name;
        std::map<int, std::string> lines;
        size_t start; // where the snippet begins in the chunk
        int32_t line; // the line of the densest words; the chunk begins on line 3
    } cases[] = {
        // One word on line 2, all three on line 8 (byte 280): the snippet starts after the first
        // line feed among the 75 bytes before it, at line 7.
        {"densest later", {{2, "alpha "}, {8, "alpha beta gamma "}}, 240, 10},
        {"densest in the first 76 bytes", {{2, "gamma beta alpha "}, {9, "alpha "}}, 0, 4},
        {"one word far in", {{10, "beta "}}, 320, 12},
        // The chunk's first word is the word index's first term: it counts like any other, so
        // the tie with line 9 goes to the earlier line.
        {"the first term of the index", {{1, "gamma beta "}, {9, "alpha beta "}}, 0, 3},
        // A word repeated counts a quarter each time, going out of the window as coming in.
        {"repeats early, all three later",
         {{2, "alpha alpha alpha alpha alpha alpha "}, {9, "alpha beta gamma "}},
         280,
         11},
    };
    for (const Case &c : cases) {
        HandEngine b;
        std::string text = text_with(c.lines);
        b.add("f.txt", text, nullptr, 0, 3);
        b.add("g.txt", "unrelated words only");
        TrnResult r[4];
        ASSERT_EQ(trn_search(b.e, "Alpha BETA gamma", TRN_SEARCH_KEYWORD, 4, r), 1) << c.name;
        // It ends with the chunk, or before the last line feed that fits in 300 bytes.
        std::string snippet = r[0].snippet;
        EXPECT_EQ(snippet,
                  c.start + 300 >= text.size() ? text.substr(c.start) : text.substr(0, 279))
            << c.name;
        EXPECT_EQ(r[0].line_number, c.line) << c.name;
    }
}

// A semantic result shows the sentence that holds the most of the query's words, not the words
// packed closest together nor the first of them: "alpha beta" opens the chunk, all three words
// stand in one line 360 bytes in, too far apart for any window of the keyword snippets.
TEST(LexicalSnippets, SemanticSnippetsShowTheSentenceWithTheMostQueryWords)
{
    std::string text = "alpha beta " + std::string(28, 'x') + "\n";
    for (int i = 0; i < 8; i++) {
        text += std::string(39, 'x') + "\n";
    }
    const std::string spread = std::string(130, 'y');
    text += "alpha " + spread + " beta " + spread + " gamma\n" + std::string(39, 'x') + "\n";
    HandEngine b;
    std::vector<float> v(512, 0.0f);
    v[0] = 1.0f;
    b.add("f.txt", text, &v);
    TrnResult r[4];
    ASSERT_EQ(trn_search(b.e, "alpha beta gamma", TRN_SEARCH_SEMANTIC, 4, r), 1);
    const std::string snippet = r[0].snippet;
    EXPECT_NE(snippet.find("alpha " + spread), std::string::npos) << snippet;
    EXPECT_EQ(snippet.find("alpha beta"), std::string::npos) << snippet;
}

// The hybrid fusion on hand-made lists: keyword (slot, BM25, cosine), semantic (slot, cosine).
TEST(HybridFusion, CombinesNormalisedScores)
{
    struct Hit {
        uint32_t slot;
        float score, cosine;
    };
    struct Case {
        const char *name;
        std::vector<Hit> words, meaning; // a semantic hit's cosine is its score
        float share;
        int32_t k;
        std::vector<uint32_t> want;
        std::vector<float> scores;
    } cases[] = {
        // BM25 4 -> 1, 2 -> 0.5; cosines 0.9 (top) -> 1, 0.5 (last) -> 0, 0.7 -> 0.5.
        {"a chunk both like beats one each likes",
         {{1, 4.0f, 0.5f}, {2, 2.0f, 0.9f}},
         {{3, 0.9f, 0.9f}, {2, 0.9f, 0.9f}, {4, 0.5f, 0.5f}},
         0.5f,
         10,
         {2, 1, 3, 4},
         {0.75f, 0.5f, 0.5f, 0.0f}},
        {"equal scores: keyword order, then semantic",
         {{7, 1.0f, 0.0f}, {8, 1.0f, 0.0f}},
         {{9, 0.8f, 0.8f}, {6, 0.2f, 0.2f}},
         0.5f,
         10,
         {7, 8, 9, 6},
         {0.5f, 0.5f, 0.5f, 0.0f}},
        {"a cosine outside the semantic list is clamped",
         {{1, 1.0f, 0.1f}, {2, 0.5f, 2.0f}},
         {{3, 0.9f, 0.9f}, {4, 0.5f, 0.5f}},
         0.5f,
         10,
         {2, 1, 3, 4},
         {0.75f, 0.5f, 0.5f, 0.0f}},
        {"share 0 is keyword alone, then semantic order",
         {{1, 3.0f, 0.5f}, {2, 6.0f, 0.9f}},
         {{3, 0.9f, 0.9f}, {4, 0.5f, 0.5f}},
         0.0f,
         3,
         {2, 1, 3},
         {1.0f, 0.5f, 0.0f}},
        {"share 1 is semantic alone",
         {{1, 3.0f, 0.5f}, {2, 6.0f, 0.7f}},
         {{3, 0.9f, 0.9f}, {4, 0.5f, 0.5f}},
         1.0f,
         10,
         {3, 2, 1, 4},
         {1.0f, 0.5f, 0.0f, 0.0f}},
        {"no keyword hits: the semantic ranking as it is",
         {},
         {{5, 0.3f, 0.3f}, {6, 0.2f, 0.2f}, {7, 0.1f, 0.1f}},
         0.3f,
         10,
         {5, 6, 7},
         {1.0f, 0.5f, 0.0f}},
        {"no semantic hits: the keyword ranking as it is",
         {{5, 2.0f, 0.0f}, {6, 1.0f, 0.0f}},
         {},
         0.7f,
         1,
         {5},
         {1.0f}},
        {"one semantic hit counts as the top", {}, {{8, 0.4f, 0.4f}}, 0.5f, 10, {8}, {1.0f}},
        {"both empty", {}, {}, 0.5f, 10, {}, {}},
    };
    for (const Case &c : cases) {
        std::vector<uint32_t> ws, ms;
        std::vector<float> wscore, wcos, mscore;
        for (const Hit &h : c.words) {
            ws.push_back(h.slot);
            wscore.push_back(h.score);
            wcos.push_back(h.cosine);
        }
        for (const Hit &h : c.meaning) {
            ms.push_back(h.slot);
            mscore.push_back(h.score);
        }
        uint32_t out[16];
        float score[16];
        int32_t n =
            fuse_scores(FusionList{ws.data(), wscore.data(), wcos.data(), (int32_t)ws.size()},
                        FusionList{ms.data(), mscore.data(), mscore.data(), (int32_t)ms.size()},
                        c.share,
                        c.k,
                        out,
                        score);
        EXPECT_EQ(std::vector<uint32_t>(out, out + n), c.want) << c.name;
        ASSERT_EQ((size_t)n, c.scores.size()) << c.name;
        for (int32_t i = 0; i < n; i++) {
            EXPECT_NEAR(score[i], c.scores[i], 1e-6f) << c.name << " #" << i;
        }
    }
}

// The share meaning gets follows how well the keyword ranking covers the query: the keyword ranking
// leads while its hits hold the query, the semantic one once they hardly do.
TEST(HybridFusion, KeywordHitsCountByHowWellTheyCoverTheQuery)
{
    const FusionPolicy p = {0.2f, 1.0f, 0.25f, 0.45f};
    EXPECT_FLOAT_EQ(hybrid_share(p, 1.5f), 0.2f);       // coverage above 1
    EXPECT_FLOAT_EQ(hybrid_share(p, 0.45f), 0.2f);      // at strong
    EXPECT_FLOAT_EQ(hybrid_share(p, 0.35f), 0.6f);      // halfway
    EXPECT_FLOAT_EQ(hybrid_share(p, 0.1f), 1.0f);       // below weak
    const FusionPolicy step = {0.3f, 0.9f, 0.4f, 0.4f}; // a step divides by nothing
    EXPECT_FLOAT_EQ(hybrid_share(step, 0.4f), 0.3f);
    EXPECT_FLOAT_EQ(hybrid_share(step, 0.39f), 0.9f);
    EXPECT_FLOAT_EQ(keyword_coverage(3.0f, 6.0f, 0.9f), 0.7f); // the mean of 0.5 and 0.9
    EXPECT_FLOAT_EQ(keyword_coverage(0.0f, 0.0f, 0.0f), 0.0f); // no hit, no mass

    // Keyword hits 1 and 2, semantic hits 3 and 4 that no query word is in; the engine's policy.
    // The best hit scores 0.4 of the query's mass either way: the first hits holding the rest of
    // it keep words first, holding nothing more hands over to meaning.
    const uint32_t ws[] = {1, 2}, ms[] = {3, 4, 2};
    const float wcos[] = {0.1f, 0.2f}, mcos[] = {0.9f, 0.8f, 0.2f};
    const float wscore[] = {2.4f, 1.2f};
    for (float joint : {1.0f, 0.4f}) {
        float share = hybrid_share(HYBRID_POLICY, keyword_coverage(2.4f, 6.0f, joint));
        uint32_t out[4];
        float score[4];
        int32_t n = fuse_scores(
            FusionList{ws, wscore, wcos, 2}, FusionList{ms, mcos, mcos, 3}, share, 4, out, score);
        ASSERT_EQ(n, 4);
        EXPECT_EQ(out[0], joint == 1.0f ? 1u : 3u) << "first hits holding " << joint;
    }
}

// The mass is the idf of the query's distinct terms, one no chunk holds at the highest; texts hold
// a term as the word index reads them (folded, identifiers by their parts), and a term counts once
// however many of them hold it.
TEST(HybridFusion, JointCoverageCountsEachQueryTermOnce)
{
    HandEngine b;
    const char *texts[] = {"alpha beta", "beta gamma readFileSync", "delta", "epsilon"};
    for (const char *t : texts) {
        b.add("f", t);
    }
    const auto idf = [](double df) {
        return std::log(1 + (4 - df + 0.5) / (df + 0.5));
    };
    const double mass = idf(1) + idf(2) + idf(0) + idf(1); // alpha, beta, zeta, file
    const char *query = "Alpha beta zeta BETA file";
    EXPECT_NEAR(lex_query_mass(b.e, query, nullptr), mass, 1e-5);
    struct Case {
        std::vector<int> hits;
        double held;
    } cases[] = {
        {{0}, idf(1) + idf(2)},
        {{0, 1}, idf(1) + idf(2) + idf(1)},
        {{1, 2, 3}, idf(2) + idf(1)},
        {{2}, 0},
        {{}, 0},
    };
    for (const Case &c : cases) {
        std::vector<const char *> hits;
        for (int i : c.hits) {
            hits.push_back(texts[i]);
        }
        float got_mass = -1.0f;
        EXPECT_NEAR(
            lex_joint_coverage(b.e, query, hits.data(), (int32_t)hits.size(), nullptr, &got_mass),
            c.held / mass,
            1e-5)
            << c.hits.size() << " texts";
        EXPECT_NEAR(got_mass, mass, 1e-5); // the query's mass, whatever the texts hold
    }
    EXPECT_EQ(lex_joint_coverage(b.e, "", texts, 4, nullptr, nullptr), 0.0f); // no mass
}

// (doc_id, score) of the best 64 keyword hits for each query.
std::vector<std::pair<std::string, float>> ranking(TrnEngine *e)
{
    std::vector<std::pair<std::string, float>> out;
    for (const char *q : {"alpha", "beta gamma", "shared words", "delta", "readFile"}) {
        uint32_t slots[64];
        float scores[64];
        int32_t n = lex_search(e, q, 64, slots, scores);
        for (int32_t i = 0; i < n; i++) {
            out.push_back({e->chunks[slots[i]].doc_id, scores[i]});
        }
        out.push_back({"--", 0.0f});
    }
    return out;
}

const std::map<std::string, std::string> &files()
{
    static const std::map<std::string, std::string> f = {
        {"a.txt", "alpha alpha shared words beta and more shared words here"},
        {"b.txt", "beta gamma shared words delta readFileSync gamma gamma"},
        {"c.txt", "gamma delta alpha words words words read the file"},
        {"d.txt", "delta delta delta shared alpha beta readFile"},
    };
    return f;
}

// The same files ingested afresh, in order, into a handle without files.
std::vector<std::pair<std::string, float>> scratch(const std::vector<std::string> &names)
{
    static TrnEncoder encoder = [] {
        TrnEncoder enc;
        encoder_init(&enc, 42);
        return enc;
    }();
    TrnEngine *e = bare_engine(&encoder);
    for (const std::string &n : names) {
        const std::string &text = files().at(n);
        chunk_and_ingest(
            e, n.c_str(), text.c_str(), (int64_t)text.size(), 24, 4, TRN_FILE_TYPE_TEXT);
    }
    std::vector<std::pair<std::string, float>> r = ranking(e);
    free_bare_engine(e);
    return r;
}

TEST(LexicalUpkeep, AgreesWithAFreshIndexAfterEveryChange)
{
    TempDir dir;
    TempDir copy;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    for (const char *n : {"a.txt", "b.txt", "c.txt"}) {
        trn_ingest_text(e, n, files().at(n).c_str(), 24, 4);
    }
    EXPECT_EQ(ranking(e), scratch({"a.txt", "b.txt", "c.txt"})) << "after ingestion";

    // The store and its log without the word index's copy, replayed by another handle, as
    // after a crash.
    for (const char *name : {"tarnwick.bin", "tarnwick.commit", "tarnwick.wal"}) {
        const std::vector<uint8_t> bytes = read_file_bytes(dir.file(name));
        write_file_bytes(copy.file(name), bytes.data(), bytes.size());
    }
    TrnConfig copy_cfg = config_for(copy);
    TrnEngine *replayed = trn_open(&copy_cfg);
    EXPECT_EQ(ranking(replayed), scratch({"a.txt", "b.txt", "c.txt"})) << "after replay";
    trn_close(replayed);

    trn_remove_file(e, "b.txt");
    EXPECT_EQ(ranking(e), scratch({"a.txt", "c.txt"})) << "after removal";
    trn_ingest_text(e, "d.txt", files().at("d.txt").c_str(), 24, 4);
    EXPECT_EQ(ranking(e), scratch({"a.txt", "c.txt", "d.txt"})) << "after removal and ingestion";

    trn_remove_file(e, "a.txt");
    trn_compact(e);
    trn_ingest_text(e, "b.txt", files().at("b.txt").c_str(), 24, 4);
    EXPECT_EQ(ranking(e), scratch({"c.txt", "d.txt", "b.txt"})) << "after compaction";

    trn_close(e);
    e = trn_open(&cfg);
    EXPECT_EQ(e->lexical, nullptr) << "read by the first search by words, not by the open";
    EXPECT_EQ(ranking(e), scratch({"c.txt", "d.txt", "b.txt"})) << "after reopening";
    ASSERT_NE(e->lexical, nullptr);
    EXPECT_NE(e->lexical->arena, nullptr) << "the index file written at close was not read";

    // The file's index, then the log's changes on top of it.
    const std::vector<uint8_t> old_lex = read_file_bytes(dir.file("tarnwick.lex"));
    trn_remove_file(e, "d.txt");
    trn_ingest_text(e, "a.txt", files().at("a.txt").c_str(), 24, 4);
    TrnConfig log_cfg = config_for(copy);
    for (const char *name : {"tarnwick.bin", "tarnwick.commit", "tarnwick.lex", "tarnwick.wal"}) {
        std::vector<uint8_t> bytes = read_file_bytes(dir.file(name));
        write_file_bytes(copy.file(name), bytes.data(), bytes.size());
    }
    replayed = trn_open(&log_cfg);
    EXPECT_NE(replayed->lexical, nullptr);
    EXPECT_EQ(ranking(replayed), scratch({"c.txt", "b.txt", "a.txt"})) << "file and log";
    trn_compact(replayed);
    EXPECT_EQ(ranking(replayed), scratch({"c.txt", "b.txt", "a.txt"})) << "and compaction";
    trn_close(replayed);
    trn_close(e);

    // A damaged file, or one of another store, is never used: the index is built afresh.
    std::vector<uint8_t> lex = read_file_bytes(dir.file("tarnwick.lex"));
    ASSERT_GT(lex.size(), 200u);
    for (int variant = 0; variant < 2; variant++) {
        std::vector<uint8_t> bad = lex;
        bad[bad.size() - 40] ^= 0x01; /* a posting or a term's byte */
        const std::vector<uint8_t> &use = variant == 0 ? bad : old_lex;
        write_file_bytes(dir.file("tarnwick.lex"), use.data(), use.size());
        e = trn_open(&cfg);
        EXPECT_EQ(ranking(e), scratch({"c.txt", "b.txt", "a.txt"})) << variant;
        ASSERT_NE(e->lexical, nullptr);
        EXPECT_EQ(e->lexical->arena, nullptr) << variant;
        trn_close(e);
    }
    // A file of version 2, which held words as written rather than their stems, is not read
    // either, however sound.
    ASSERT_EQ(lex[4], 3);
    lex[4] = 2;
    uint32_t head = crc32_update(0, lex.data(), 52);
    memcpy(lex.data() + 52, &head, 4);
    write_file_bytes(dir.file("tarnwick.lex"), lex.data(), lex.size());
    e = trn_open(&cfg);
    EXPECT_EQ(ranking(e), scratch({"c.txt", "b.txt", "a.txt"})) << "version 2";
    ASSERT_NE(e->lexical, nullptr);
    EXPECT_EQ(e->lexical->arena, nullptr) << "version 2 was read";
    trn_close(e);
}

} // namespace
