/*
** results_test.cpp -- what a person gets back from a search of real chunking: every line of a
** file can be found, whatever the file's length, a search by file gives each file's best
** passage once, and each hit says where it stands: its line, a PDF's page, a document's headings.
*/
#include "document_fixtures.h"
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{

/* A word of letters only, different for every n, so each file has a word no other file holds. */
std::string tag_word(int n)
{
    std::string w = "quokka";
    for (int i = 0; i < 3; i++) {
        w += (char)('a' + n % 26);
        n /= 26;
    }
    return w;
}

/* An in-memory engine whose files are cut as ingestion cuts them, with seeded random vectors
** instead of embeddings (embedding costs a tenth of a second a chunk). */
class Results : public testing::Test
{
protected:
    void add_file(const std::string &path, const std::string &text, int32_t chunk, int32_t overlap)
    {
        TextWindows w;
        cut_windows(text.c_str(), (int64_t)text.size(), chunk, overlap, &w);
        ASSERT_FALSE(w.empty());
        for (size_t i = 0; i < w.size(); i++) {
            int32_t line = 1 + (int32_t)std::count(text.begin(), text.begin() + w[i].begin, '\n');
            std::vector<float> v(512);
            for (float &x : v) {
                x = (float)((rng_() % 2001) - 1000);
            }
            vec_normalize(v.data(), v.size());
            std::string window = text.substr((size_t)w[i].begin, (size_t)(w[i].end - w[i].begin));
            eng_.add(path.c_str(), window, &v, (int32_t)i, line);
        }
        files_[path] = text;
    }

    std::vector<TrnResult> search(const std::string &query, int32_t mode, int32_t k = 10,
                                  uint32_t flags = 0)
    {
        std::vector<TrnResult> out((size_t)k);
        int32_t n = trn_search_ex(eng_.e, query.c_str(), mode, k, flags, out.data());
        out.resize(n > 0 ? (size_t)n : 0);
        return out;
    }

    HandEngine eng_;
    std::map<std::string, std::string> files_;
    std::mt19937 rng_{7};
};

/* Files of 1 to 60 lines of uneven length (about 40 to 3,600 bytes): the last line of each, with
** its own word, is found by text and by keyword search. */
TEST_F(Results, TheLastLineOfFilesOfManyLengthsIsFound)
{
    const int files = 60;
    for (int f = 0; f < files; f++) {
        std::string text;
        for (int line = 1; line < f + 1; line++) {
            text += "Paragraph " + std::to_string(line) + " says something ordinary";
            text += std::string((size_t)((line * 7 + f) % 30), '.') + "\n";
        }
        text += "The closing line names " + tag_word(f) + ".\n";
        add_file("/notes/n" + std::to_string(f) + ".txt", text, 800, 200);
    }
    for (int f = 0; f < files; f++) {
        std::string path = "/notes/n" + std::to_string(f) + ".txt";
        for (int mode : {TRN_SEARCH_TEXT, TRN_SEARCH_KEYWORD}) {
            std::string query = mode == TRN_SEARCH_TEXT ? "names " + tag_word(f) : tag_word(f);
            std::vector<TrnResult> r = search(query, mode);
            ASSERT_FALSE(r.empty()) << path << " mode " << mode;
            EXPECT_STREQ(r[0].file_path, path.c_str()) << "mode " << mode;
            EXPECT_EQ(r[0].line_number, f + 1) << path << " mode " << mode;
        }
    }
}

/* Ten files of overlapping windows where "harbour" and "ferry" occur on some lines: in every
** mode the search by file gives, for each file in order of its best chunk, that chunk, and
** counts the file's other chunks of the chunk-by-chunk ranking. */
TEST_F(Results, SearchByFileKeepsTheBestPassageOfEachFile)
{
    for (int f = 0; f < 10; f++) {
        std::string text;
        for (int line = 0; line < 12 + 3 * f; line++) {
            text += "Line " + std::to_string(line) + " of the log";
            if ((line + f) % 5 == 0) {
                text += " mentions the harbour";
            }
            if ((line * f) % 7 == 3) {
                text += " and the ferry";
            }
            text += ", nothing else of note today.\n";
        }
        add_file("/logs/day" + std::to_string(f) + ".txt", text, 400, 100);
    }
    ASSERT_LT(eng_.e->count, 64u); /* the chunk-by-chunk ranking below is whole */
    TrnResult none[1];
    EXPECT_EQ(trn_search_file(eng_.e, "harbour", TRN_SEARCH_TEXT, "/logs/nowhere.txt", 1, none), 0);
    for (int mode : {TRN_SEARCH_TEXT,
                     TRN_SEARCH_REGEX,
                     TRN_SEARCH_KEYWORD,
                     TRN_SEARCH_HYBRID,
                     TRN_SEARCH_SEMANTIC_ALL}) {
        const char *query = mode == TRN_SEARCH_TEXT    ? "the harbour"
                            : mode == TRN_SEARCH_REGEX ? "harbou?r"
                                                       : "harbour ferry";
        std::vector<TrnResult> raw = search(query, mode, 64);
        ASSERT_FALSE(raw.empty());
        std::vector<std::string> first_ids;
        std::vector<std::string> files;
        std::map<std::string, int32_t> more;
        for (const TrnResult &r : raw) {
            if (more.count(r.file_path) == 0) {
                files.push_back(r.file_path);
                first_ids.push_back(r.doc_id);
                more[r.file_path] = 0;
            } else {
                more[r.file_path]++;
            }
        }
        for (int32_t k : {3, 64}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " k " + std::to_string(k));
            std::vector<TrnResult> rows = search(query, mode, k, TRN_SEARCH_BY_FILE);
            ASSERT_EQ(rows.size(), std::min<size_t>((size_t)k, files.size()));
            for (size_t i = 0; i < rows.size(); i++) {
                EXPECT_STREQ(rows[i].doc_id, first_ids[i].c_str()) << i;
                if (mode != TRN_SEARCH_SEMANTIC_ALL) { /* counted by nearness: see below */
                    EXPECT_EQ(rows[i].more_in_file, more[files[i]]) << i;
                }
            }
        }
        /* "n more in this file" opens the row and its n others: the file's passages of the
        ** chunk-by-chunk ranking, in its order. */
        for (const std::string &file : files) {
            if (mode == TRN_SEARCH_SEMANTIC_ALL) {
                break; /* SemanticMoreInFileCountsWhatOpeningItShows */
            }
            std::vector<std::string> expected;
            for (const TrnResult &r : raw) {
                if (file == r.file_path) {
                    expected.push_back(r.doc_id);
                }
            }
            TrnResult got[64];
            int32_t n = trn_search_file(eng_.e, query, mode, file.c_str(), more[file] + 1, got);
            ASSERT_EQ(n, (int32_t)expected.size()) << file;
            std::vector<std::string> ids;
            for (int32_t i = 0; i < n; i++) {
                ids.push_back(got[i].doc_id);
                EXPECT_STREQ(got[i].file_path, file.c_str());
            }
            EXPECT_EQ(ids, expected) << mode << " " << file;
        }
    }
}

/* A semantic search by file counts a file's other passages as "n more in this file" opens them,
** by exact nearness: passages the graph never came upon (here chunks left out of it) are counted
** when they are as near as those it ranked, so opening the row shows exactly n passages, every
** one the chunk-by-chunk ranking holds of the file among them. */
TEST_F(Results, SemanticMoreInFileCountsWhatOpeningItShows)
{
    const char *query = "tide tables for the northern harbour";
    float q[512];
    ASSERT_TRUE(embed_query(eng_.e, query, q));
    ASSERT_NEAR(vec_dot(q, q, 512), 1.0f, 1e-3f);
    /* A unit vector at cosine a to the query. */
    auto near = [&](float a) {
        std::vector<float> r(512), v(512);
        for (float &x : r) {
            x = (float)((rng_() % 2001) - 1000);
        }
        float along = vec_dot(r.data(), q, 512);
        for (size_t i = 0; i < 512; i++) {
            r[i] -= along * q[i];
        }
        vec_normalize(r.data(), 512);
        for (size_t i = 0; i < 512; i++) {
            v[i] = a * q[i] + std::sqrt(1.0f - a * a) * r[i];
        }
        return v;
    };
    for (int f = 0; f < 4; f++) {
        const std::string path = "/tides/f" + std::to_string(f) + ".txt";
        for (int c = 0; c < 6; c++) {
            std::vector<float> v = near(0.9f - 0.1f * (float)f - 0.12f * (float)c);
            uint32_t slot = eng_.add(path.c_str(), "passage " + std::to_string(c), nullptr, c);
            memcpy(eng_.e->vectors + (size_t)slot * 512, v.data(), sizeof(float) * 512);
            if (c != 2) { /* the graph never meets the third passage of each file */
                eng_.e->nodes[slot].level = draw_level(&eng_.e->level_state, eng_.e->level_mult);
                hnsw_insert(eng_.e, slot);
            }
        }
    }
    for (int32_t mode : {TRN_SEARCH_SEMANTIC, TRN_SEARCH_SEMANTIC_ALL}) {
        std::vector<TrnResult> raw = search(query, mode, 64);
        std::vector<TrnResult> rows = search(query, mode, 3, TRN_SEARCH_BY_FILE);
        ASSERT_EQ(rows.size(), 3u);
        for (const TrnResult &row : rows) {
            SCOPED_TRACE(std::string(row.file_path) + " mode " + std::to_string(mode));
            TrnResult opened[64];
            int32_t n =
                trn_search_file(eng_.e, query, mode, row.file_path, row.more_in_file + 1, opened);
            std::set<std::string> shown;
            for (int32_t i = 0; i < n; i++) {
                shown.insert(opened[i].doc_id);
            }
            ASSERT_EQ(shown.erase(row.doc_id), 1u) << "the row is among what opens";
            EXPECT_EQ(shown.size(), (size_t)row.more_in_file);
            for (const TrnResult &r : raw) {
                if (strcmp(r.file_path, row.file_path) == 0 && strcmp(r.doc_id, row.doc_id) != 0) {
                    EXPECT_EQ(shown.count(r.doc_id), 1u) << r.doc_id;
                }
            }
            EXPECT_GT(row.more_in_file, 4) << "the passage the graph missed is counted";
        }
    }
}

std::string lower(std::string s)
{
    for (char &c : s) {
        c = (char)std::tolower((unsigned char)c);
    }
    return s;
}

/* 1-based line of byte offset at in text. */
int32_t line_at(const std::string &text, size_t at)
{
    return 1 + (int32_t)std::count(text.begin(), text.begin() + (std::ptrdiff_t)at, '\n');
}

/* The lines of text, without their line feeds. */
std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    size_t from = 0;
    while (from <= text.size()) {
        size_t nl = text.find('\n', from);
        lines.push_back(text.substr(from, (nl == std::string::npos ? text.size() : nl) - from));
        if (nl == std::string::npos) {
            break;
        }
        from = nl + 1;
    }
    return lines;
}

/* Whether line holds word as a whole word, ignoring case. */
bool holds_word(const std::string &line, const std::string &word)
{
    std::string l = lower(line);
    for (size_t at = l.find(word); at != std::string::npos; at = l.find(word, at + 1)) {
        bool starts = at == 0 || !std::isalnum((unsigned char)l[at - 1]);
        size_t end = at + word.size();
        bool ends = end == l.size() || !std::isalnum((unsigned char)l[end]);
        if (starts && ends) {
            return true;
        }
    }
    return false;
}

/* Random files of words, stop words among them, in lines of uneven length and sentences. For
** each file a search by file returns, its line is checked against a brute-force search of the
** whole file, and its snippet against the file's text: it begins and ends between words and its
** marks cover query words only, never a stop word. */
TEST_F(Results, TheLineOfTheMatchAgreesWithABruteForceSearchOfTheFile)
{
    const char *vocabulary[] = {"the",
                                "a",
                                "in",
                                "Harbour",
                                "ferry",
                                "lantern",
                                "cargo",
                                "tide",
                                "anchor",
                                "gull",
                                "rope",
                                "deck",
                                "storm",
                                "north",
                                "of",
                                "signal",
                                "keeper",
                                "dock"};
    for (int f = 0; f < 8; f++) {
        std::string text;
        int lines = 20 + (int)(rng_() % 80);
        for (int l = 0; l < lines; l++) {
            int words = (int)(rng_() % 14);
            for (int w = 0; w < words; w++) {
                text += vocabulary[rng_() % 18];
                text += rng_() % 9 == 0 ? ". " : " ";
            }
            text += "\n";
        }
        add_file("/sea/f" + std::to_string(f) + ".txt", text, 300, 60);
    }
    const char *queries[] = {"harbour", "ferry lantern", "signal keeper", "north dock"};
    for (const char *query : queries) {
        for (int mode : {TRN_SEARCH_TEXT,
                         TRN_SEARCH_REGEX,
                         TRN_SEARCH_KEYWORD,
                         TRN_SEARCH_HYBRID,
                         TRN_SEARCH_SEMANTIC_ALL}) {
            std::string q = mode == TRN_SEARCH_KEYWORD || mode == TRN_SEARCH_HYBRID
                                ? std::string("the ") + query
                                : std::string(query);
            if (mode == TRN_SEARCH_REGEX) {
                q = "(" + q + ")s?"; /* leftmost-longest takes the s */
            }
            std::vector<TrnResult> rows = search(q, mode, 64, TRN_SEARCH_BY_FILE);
            for (const TrnResult &r : rows) {
                SCOPED_TRACE(std::string(r.file_path) + " mode " + std::to_string(mode) + " "
                             + query);
                const std::string &text = files_[r.file_path];
                std::vector<std::string> lines = lines_of(text);
                ASSERT_GE(r.line_number, 1);
                ASSERT_LE(r.line_number, (int32_t)lines.size());
                const std::string &line = lines[(size_t)r.line_number - 1];
                if (mode == TRN_SEARCH_TEXT || mode == TRN_SEARCH_REGEX) {
                    /* The best passage is the file's first to match; its match is the first. */
                    size_t first = lower(text).find(query);
                    ASSERT_NE(first, std::string::npos);
                    EXPECT_EQ(r.line_number, line_at(text, first));
                } else if (r.mark_count > 0 || mode == TRN_SEARCH_KEYWORD) {
                    /* A line that holds a query word, when the passage has one. */
                    bool holds = false;
                    std::string words = query;
                    for (size_t at = 0; at < words.size();) {
                        size_t sp = std::min(words.find(' ', at), words.size());
                        holds = holds || holds_word(line, words.substr(at, sp - at));
                        at = sp + 1;
                    }
                    EXPECT_TRUE(holds) << "line: " << line;
                }
                /* The snippet is the file's text from a word start to a word end. */
                std::string snippet = r.snippet;
                size_t at = text.find(snippet);
                ASSERT_NE(at, std::string::npos) << snippet;
                ASSERT_FALSE(snippet.empty());
                EXPECT_TRUE(at == 0 || std::isspace((unsigned char)text[at - 1])) << snippet;
                size_t end = at + snippet.size();
                EXPECT_TRUE(end == text.size() || std::isspace((unsigned char)text[end])
                            || std::isspace((unsigned char)snippet.back()))
                    << snippet;
                for (int32_t m = 0; m < r.mark_count; m++) {
                    std::string marked =
                        lower(snippet.substr(r.marks[2 * m], r.marks[2 * m + 1] - r.marks[2 * m]));
                    EXPECT_NE(marked, "the");
                    EXPECT_NE(std::string(query).find(marked.substr(0, 4)), std::string::npos)
                        << marked;
                }
                if (mode != TRN_SEARCH_SEMANTIC_ALL) {
                    EXPECT_GT(r.mark_count, 0);
                }
            }
        }
    }
}

/* Keyword and hybrid search find a word in its other forms ("reading" finds "reads") and mark
** the whole word; a stop word is never marked for its stem. */
TEST_F(Results, AWordsOtherFormsAreFoundAndMarkedWhole)
{
    add_file("/a.txt", "The parser reads every configured file twice.\n", 800, 200);
    add_file("/b.txt", "Nothing of interest lies in this one at all.\n", 800, 200);
    for (int mode : {TRN_SEARCH_KEYWORD, TRN_SEARCH_HYBRID}) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        std::vector<TrnResult> r = search("reading the files", mode);
        ASSERT_FALSE(r.empty());
        EXPECT_STREQ(r[0].file_path, "/a.txt");
        std::set<std::string> marked;
        for (int32_t m = 0; m < r[0].mark_count; m++) {
            marked.insert(std::string(r[0].snippet + r[0].marks[2 * m],
                                      (size_t)(r[0].marks[2 * m + 1] - r[0].marks[2 * m])));
        }
        EXPECT_EQ(marked, (std::set<std::string>{"reads", "file"}));
    }
    EXPECT_EQ(search("read", TRN_SEARCH_KEYWORD).size(), 1u);
    EXPECT_TRUE(search("reader", TRN_SEARCH_KEYWORD).empty()); /* another word, not a form */
}

/* An HTML file's results name the line of its source that holds the match, not the line of the
** text read from it: a brute-force search of the source says which. */
TEST_F(Results, HtmlLinesAreLinesOfTheSource)
{
    const std::string html =
        "<!DOCTYPE html>\n<html>\n<head>\n<title>Tide notes</title>\n"
        "<style>\np { color: red; }\n</style>\n<script>\n"
        "var harbour = 1;\n</script>\n</head>\n<body>\n<h1>Tide\n  notes</h1>\n"
        "<p>The first paragraph\nruns over three lines\n"
        "and ends with lanterns.</p>\n<ul>\n  <li>one <b>gullwing</b> item</li>\n"
        "  <li>two\n  anchorage items</li>\n</ul>\n"
        "<pre>pre line one\npre line kelpie\n</pre>\n</body>\n</html>\n";
    TempDir dir;
    const std::string path = dir.file("notes.html");
    write_file_text(path, html);
    size_t len = 0;
    char *text = html_to_text(html.c_str(), html.size(), &len);
    for (int32_t chunk : {64, 800}) {
        uint64_t first = eng_.e->count;
        add_file(path, std::string(text, len), chunk, 16);
        for (uint64_t i = first; i < eng_.e->count; i++) {
            eng_.e->chunks[i].file_type = TRN_FILE_TYPE_HTML;
        }
        for (const char *word : {"first paragraph",
                                 "runs over",
                                 "lanterns",
                                 "gullwing",
                                 "anchorage",
                                 "kelpie",
                                 "notes"}) {
            SCOPED_TRACE(std::string(word) + " chunk " + std::to_string(chunk));
            int32_t want = line_at(html, html.find(word)); /* "notes" first in the title */
            for (uint32_t flags : {0u, (uint32_t)TRN_SEARCH_BY_FILE}) {
                std::vector<TrnResult> r = search(word, TRN_SEARCH_TEXT, 64, flags);
                ASSERT_FALSE(r.empty());
                for (const TrnResult &hit : r) {
                    EXPECT_EQ(hit.line_number, want) << hit.snippet;
                }
            }
        }
        EXPECT_TRUE(search("harbour", TRN_SEARCH_TEXT).empty());
        for (uint64_t i = first; i < eng_.e->count; i++) {
            eng_.remove(i);
        }
    }
    free(text);
}

/* The text a document's results are cut from, as extraction gives it and ingestion cuts it. */
std::string extracted(const std::string &path, TrnFileType type)
{
    ExtractedText t;
    EXPECT_EQ(extract_file_text(path.c_str(), type, 0, &t),
              (TrnFileStatus)TRN_FILE_STATUS_INDEXABLE)
        << path;
    std::string text = t.text ? std::string(t.text, t.length) : std::string();
    extracted_text_free(&t);
    return text;
}

/* A PDF hit names the page that shows it and its line there, however the file was cut into
** chunks and whatever page breaks lie between a chunk's start and the match; a PDF indexed before
** pages were marked gives no page rather than a wrong one. */
TEST_F(Results, PdfHitsNameTheirPageAndTheLineOnIt)
{
    std::vector<std::string> pages;
    for (int p = 1; p <= 4; p++) {
        std::string page;
        for (int l = 1; p != 3 && l <= 5; l++) {
            page += (l > 1 ? "\n" : "") + std::string("line of ") + tag_word(10 * p + l);
        }
        pages.push_back(page); /* page 3 is empty */
    }
    TempDir dir;
    const std::string path = dir.file("guide.pdf");
    write_file_text(path, pdf_with_pages(pages));
    const std::string text = extracted(path, TRN_FILE_TYPE_PDF);
    std::string unmarked = text;
    for (size_t at; (at = unmarked.find('\f')) != std::string::npos;) {
        unmarked.erase(at, 1);
    }
    const std::vector<std::pair<std::string, int32_t>> cuts = {
        {text, 40}, {text, 800}, {unmarked, 40}};
    for (const auto &[body, chunk] : cuts) {
        uint64_t first = eng_.e->count;
        add_file(path, body, chunk, chunk / 4);
        for (uint64_t i = first; i < eng_.e->count; i++) {
            eng_.e->chunks[i].file_type = TRN_FILE_TYPE_PDF;
        }
        /* A hit by meaning names its chunk's first word, never the form feed line before it. */
        for (const TrnResult &hit : search("zebra crossing", TRN_SEARCH_SEMANTIC_ALL, 64)) {
            EXPECT_EQ(hit.page >= 1 && hit.page_line >= 1, body == text) << hit.line_number;
        }
        for (int p = 1; p <= 4; p++) {
            for (int l = 1; p != 3 && l <= 5; l++) {
                SCOPED_TRACE("page " + std::to_string(p) + " line " + std::to_string(l) + " chunk "
                             + std::to_string(chunk));
                std::vector<TrnResult> r = search(tag_word(10 * p + l), TRN_SEARCH_TEXT, 64);
                ASSERT_FALSE(r.empty());
                for (const TrnResult &hit : r) {
                    EXPECT_EQ(hit.page, body == text ? p : 0);
                    EXPECT_EQ(hit.page_line, body == text ? l : 0);
                    EXPECT_EQ(std::string(hit.snippet).find('\f'), std::string::npos);
                }
            }
        }
        for (uint64_t i = first; i < eng_.e->count; i++) {
            eng_.remove(i);
        }
    }
}

/* DOCX, ODT and EPUB hits name the headings they stand under, outermost first: a heading closes
** those of its level and below, and text before any heading names none. */
TEST_F(Results, DocumentHitsNameTheHeadingsAboveThem)
{
    auto docx_p = [](const std::string &props, const std::string &text) {
        return "<w:p><w:pPr>" + props + "</w:pPr><w:r><w:t>" + text + "</w:t></w:r></w:p>";
    };
    TempDir dir;
    write_zip(dir.file("guide.docx"),
              {{"word/document.xml",
                "<w:document xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/"
                "main\"><w:body>"
                    + docx_p("<w:pStyle w:val=\"Title\"/>", "Field guide")
                    + docx_p("", "Before any heading wombatone.")
                    + docx_p("<w:pStyle w:val=\"Heading1\"/>", "Chapter 1")
                    + docx_p("", "Text wombattwo here.")
                    + docx_p("<w:pStyle w:val=\"heading 1\"/>", "Chapter 2")
                    + docx_p("<w:pStyle w:val=\"Heading2\"/>", "Setup")
                    + docx_p("<w:outlineLvl w:val=\"2\"/>", "Network")
                    + docx_p("", "Text wombatthree here.")
                    + docx_p("<w:pStyle w:val=\"Heading2\"/>", "Usage")
                    + docx_p("", "Text wombatfour here.") + "</w:body></w:document>"}});
    write_zip(dir.file("notes.odt"),
              {{"content.xml",
                "<office:document-content "
                "xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
                "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\"><office:body>"
                "<office:text><text:h text:outline-level=\"1\">Intro</text:h><text:p>wombatfive"
                "</text:p><text:h text:outline-level=\"2\">Details</text:h><text:p>wombatsix"
                "</text:p></office:text></office:body></office:document-content>"}});
    write_zip(dir.file("book.epub"),
              {{"META-INF/container.xml",
                "<container><rootfiles><rootfile full-path=\"c.opf\"/></rootfiles></container>"},
               {"c.opf",
                "<package><manifest><item id=\"a\" href=\"a.xhtml\"/><item id=\"b\" "
                "href=\"b.xhtml\"/></manifest><spine><itemref idref=\"a\"/><itemref idref=\"b\"/>"
                "</spine></package>"},
               {"a.xhtml",
                "<html><body><h1>Chapter One</h1><p>wombatseven</p><h2>A <i>storm</i></h2>"
                "<p>wombateight</p></body></html>"},
               {"b.xhtml", "<html><body><h1>Chapter Two</h1><p>wombatnine</p></body></html>"}});
    const std::pair<const char *, TrnFileType> files[] = {{"guide.docx", TRN_FILE_TYPE_DOCX},
                                                          {"notes.odt", TRN_FILE_TYPE_ODT},
                                                          {"book.epub", TRN_FILE_TYPE_EPUB}};
    for (const auto &[name, type] : files) {
        uint64_t first = eng_.e->count;
        add_file(dir.file(name), extracted(dir.file(name), type), 48, 24);
        for (uint64_t i = first; i < eng_.e->count; i++) {
            eng_.e->chunks[i].file_type = type;
        }
    }
    const std::pair<const char *, const char *> expected[] = {
        {"wombatone", nullptr},
        {"wombattwo", "Chapter 1"},
        {"wombatthree", "Chapter 2 \u203a Setup \u203a Network"},
        {"wombatfour", "Chapter 2 \u203a Usage"},
        {"wombatfive", "Intro"},
        {"wombatsix", "Intro \u203a Details"},
        {"wombatseven", "Chapter One"},
        {"wombateight", "Chapter One \u203a A storm"},
        {"wombatnine", "Chapter Two"}};
    for (const auto &[word, path] : expected) {
        for (int32_t mode : {TRN_SEARCH_TEXT, TRN_SEARCH_KEYWORD}) {
            std::vector<TrnResult> r = search(word, mode);
            ASSERT_FALSE(r.empty()) << word << " mode " << mode;
            EXPECT_STREQ(r[0].heading_path, path) << word;
        }
    }
    /* The deepest headings that fit beside the mark of those left out are kept: here exactly
    ** the three that fill the 255 bytes. */
    std::string deep = "<html><body>";
    for (int level = 1; level <= 6; level++) {
        deep += "<h" + std::to_string(level) + ">" + std::string(79, (char)('a' + level)) + "</h"
                + std::to_string(level) + ">";
    }
    write_zip(dir.file("deep.epub"),
              {{"META-INF/container.xml",
                "<container><rootfiles><rootfile full-path=\"c.opf\"/></rootfiles></container>"},
               {"c.opf",
                "<package><manifest><item id=\"a\" href=\"a.xhtml\"/></manifest><spine><itemref "
                "idref=\"a\"/></spine></package>"},
               {"a.xhtml", deep + "<p>wombatten</p></body></html>"}});
    add_file(dir.file("deep.epub"), extracted(dir.file("deep.epub"), TRN_FILE_TYPE_EPUB), 800, 0);
    eng_.e->chunks[eng_.e->count - 1].file_type = TRN_FILE_TYPE_EPUB;
    std::vector<TrnResult> r = search("wombatten", TRN_SEARCH_TEXT);
    ASSERT_EQ(r.size(), 1u);
    const std::string sep = " \u203a ";
    EXPECT_STREQ(r[0].heading_path,
                 ("\u2026" + sep + std::string(79, 'e') + sep + std::string(79, 'f') + sep
                  + std::string(79, 'g'))
                     .c_str());
    /* A path that fits whole is shown whole, even where the mark would not have fitted beside
    ** all but its outermost heading (254 bytes; the mark and the three inner ones are 256). */
    const std::string text = "a\n" + std::string(80, 'b') + "\n" + std::string(79, 'c') + "\n"
                             + std::string(79, 'd') + "\nbody\n";
    const TextHeadings four = {{0, 1}, {2, 2}, {83, 3}, {163, 4}};
    char out[TRN_HEADING_PATH_MAX + 1];
    const std::string whole =
        "a" + sep + std::string(80, 'b') + sep + std::string(79, 'c') + sep + std::string(79, 'd');
    EXPECT_EQ(heading_path_at(text.data(), text.size(), four, text.size() - 2, out, sizeof out),
              whole.size());
    EXPECT_STREQ(out, whole.c_str());
}

} // namespace
