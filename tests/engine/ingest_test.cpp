/*
** ingest_test.cpp -- cutting texts into windows, reading files by type, the directory walk and
** its callback.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{

class Ingest : public testing::Test
{
protected:
    void SetUp() override
    {
        TrnConfig cfg = {};
        e_ = trn_open(&cfg);
    }
    void TearDown() override { trn_close(e_); }

    std::string text_of(uint64_t slot) const { return e_->chunks[slot].text; }

    TrnEngine *e_ = nullptr;
};

std::string pattern_text(size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++) {
        s.push_back((char)('a' + (i * 7 + i / 26) % 26));
    }
    return s;
}

TEST_F(Ingest, WindowsOverlapAndTheLastEndsAtTheTextsEnd)
{
    std::string text = pattern_text(1000);
    ASSERT_EQ(trn_ingest_text(e_, "/w/a.txt", text.c_str(), 512, 50), 3);
    EXPECT_EQ(text_of(0), text.substr(0, 512));
    EXPECT_EQ(text_of(1), text.substr(462, 512));
    EXPECT_EQ(text_of(2), text.substr(488)); /* a whole window that ends with the text */
    EXPECT_STREQ(e_->chunks[0].doc_id, "/w/a.txt:0");
    EXPECT_STREQ(e_->chunks[2].doc_id, "/w/a.txt:2");
    EXPECT_EQ(e_->chunks[2].chunk_index, 2);
    EXPECT_STREQ(e_->chunks[2].file_path, "/w/a.txt");
    EXPECT_EQ(e_->chunks[2].deleted, 0);
}

TEST_F(Ingest, WindowEdgesFallAfterLineFeedsAndSpacesWithinTheSlack)
{
    /* Lines of 30 bytes, windows of 100: each window ends after its third line, and the next
    ** starts at the line start at or before 20 bytes from that end. */
    std::string text;
    for (int i = 0; i < 10; i++) {
        char line[40];
        snprintf(line, sizeof line, "line %02d holds some words ....\n", i);
        text += line;
    }
    ASSERT_EQ(text.size(), 300u);
    TextWindows w;
    cut_windows(text.c_str(), (int64_t)text.size(), 100, 20, &w);
    ASSERT_EQ(w.size(), 5u);
    EXPECT_EQ(w[0].begin, 0);
    EXPECT_EQ(w[0].end, 90);
    EXPECT_EQ(w[1].begin, 60);
    EXPECT_EQ(w[1].end, 150);
    EXPECT_EQ(w[4].begin, 210); /* the last: a whole window, from a line start, to the end */
    EXPECT_EQ(w[4].end, 300);
    /* Without line feeds a window ends after a space, never inside a word. */
    std::string words;
    while (words.size() < 400) {
        words += "lorem ipsum dolor ";
    }
    cut_windows(words.c_str(), (int64_t)words.size(), 100, 20, &w);
    for (const TextWindow &x : w) {
        EXPECT_TRUE(x.begin == 0 || words[(size_t)x.begin - 1] == ' ') << x.begin;
        EXPECT_TRUE(x.end == (int64_t)words.size() || words[(size_t)x.end - 1] == ' ') << x.end;
    }
}

/* Texts of ASCII words, line feeds and 2-, 3- and 4-byte characters with few spaces, cut with
** many sizes: every byte is in a window, windows move forward, stay within the chunk size, and
** no edge falls inside a character. */
TEST(CutWindows, CoverEveryByteAndNeverSplitACharacterOfRandomTexts)
{
    const char *pieces[] = {"a",
                            "word",
                            " ",
                            "\n",
                            "\xc3\xa9",
                            "\xe2\x82\xac",
                            "\xf0\x9f\x98\x80",
                            "\xe6\x97\xa5\xe6\x9c\xac",
                            "x"};
    uint32_t seed = 12345;
    auto next = [&seed]() {
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        return seed;
    };
    TextWindows w;
    for (int round = 0; round < 400; round++) {
        std::string text;
        size_t want = 1 + next() % 3000;
        while (text.size() < want) {
            /* Mostly characters without spaces, so many edges must fall between characters. */
            uint32_t r = next() % 40;
            text += pieces[r < 8 ? r : 4 + r % 5];
        }
        int32_t chunk = (int32_t)(4 + next() % 600);
        int32_t overlap = (int32_t)(next() % (round % 10 == 0 ? 2 * chunk : chunk / 2 + 1));
        cut_windows(text.c_str(), (int64_t)text.size(), chunk, overlap, &w);
        ASSERT_FALSE(w.empty());
        SCOPED_TRACE("round " + std::to_string(round) + " chunk " + std::to_string(chunk)
                     + " overlap " + std::to_string(overlap));
        EXPECT_EQ(w.front().begin, 0);
        EXPECT_EQ(w.back().end, (int64_t)text.size());
        for (size_t i = 0; i < w.size(); i++) {
            ASSERT_LT(w[i].begin, w[i].end);
            EXPECT_LE(w[i].end - w[i].begin, (int64_t)chunk);
            for (int64_t edge : {w[i].begin, w[i].end}) {
                ASSERT_TRUE(edge == (int64_t)text.size()
                            || ((unsigned char)text[(size_t)edge] & 0xC0) != 0x80)
                    << "window " << i << " edge " << edge;
            }
            if (i > 0) {
                ASSERT_GT(w[i].begin, w[i - 1].begin);
                ASSERT_LE(w[i].begin, w[i - 1].end) << "a gap before window " << i;
            }
        }
    }
}

TEST_F(Ingest, ShortTextIsOneChunkOnLineOne)
{
    std::string text = pattern_text(300);
    ASSERT_EQ(trn_ingest_text(e_, "/w/short.md", text.c_str(), 512, 200), 1);
    EXPECT_EQ(text_of(0), text);
    EXPECT_STREQ(e_->chunks[0].doc_id, "/w/short.md:0");
    EXPECT_EQ(e_->chunks[0].line_number, 1);
    EXPECT_EQ(e_->chunks[0].file_type, (uint32_t)TRN_FILE_TYPE_MARKDOWN);
    EXPECT_NEAR(vec_dot(e_->vectors, e_->vectors, 512), 1.0f, 1e-4f);
}

TEST_F(Ingest, OverlapBeyondTheWindowStepsOneByte)
{
    std::string text = pattern_text(513);
    ASSERT_EQ(trn_ingest_text(e_, "/w/b.txt", text.c_str(), 512, 600), 2);
    EXPECT_EQ(text_of(1), text.substr(1, 512));
    /* A window of 8 with overlap 7 also steps one byte: 10 bytes give 3 windows. */
    ASSERT_EQ(trn_ingest_text(e_, "/w/c.txt", "0123456789", 8, 7), 3);
    EXPECT_EQ(text_of(4), "23456789");
}

TEST_F(Ingest, LineNumbersCountLineFeedsBeforeEachWindow)
{
    std::string text;
    for (int i = 0; i < 30; i++) {
        char line[16];
        snprintf(line, sizeof line, "line %02d\n", i);
        text += line;
    }
    ASSERT_EQ(trn_ingest_text(e_, "/w/lines.txt", text.c_str(), 40, 0), 6);
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(e_->chunks[i].line_number, 1 + 5 * i) << "chunk " << i;
    }
    /* The count stops at a 0 byte inside the window data. */
    const char data[] = "x\n\0\n\n\nyyyyyyyy";
    ASSERT_EQ(chunk_and_ingest(e_, "/w/nul.txt", data, 14, 4, 0, TRN_FILE_TYPE_TEXT), 4);
    EXPECT_EQ(e_->chunks[6].line_number, 1);
    EXPECT_EQ(e_->chunks[7].line_number, 2);
    EXPECT_EQ(e_->chunks[8].line_number, 2);
    EXPECT_STREQ(e_->chunks[6].text, "x\n"); /* the stored text ends at the 0 byte */
}

TEST_F(Ingest, EmptyNullAndOverlongInputs)
{
    EXPECT_EQ(trn_ingest_text(e_, "/w/e.txt", "", 800, 200), 0);
    EXPECT_EQ(trn_ingest_text(e_, nullptr, "text", 800, 200), -1);
    EXPECT_EQ(trn_ingest_text(e_, "/w/e.txt", nullptr, 800, 200), -1);
    EXPECT_EQ(trn_ingest_text(e_, "/w/e.txt", "text", 0, 0), 0);
    EXPECT_EQ(e_->count, 0u);
    std::string long_path = "/" + std::string(300, 'p') + ".txt";
    ASSERT_EQ(trn_ingest_text(e_, long_path.c_str(), "text", 800, 200), 1);
    EXPECT_EQ(strlen(e_->chunks[0].doc_id), 255u);
    EXPECT_STREQ(e_->chunks[0].file_path, long_path.c_str()); /* the path itself is whole */
    /* The least text in the least window is still a chunk. */
    ASSERT_EQ(trn_ingest_text(e_, "/w/x.txt", "x", 1, 0), 1);
    EXPECT_STREQ(e_->chunks[1].text, "x");
}

TEST(IngestStorage, CapacityCoversEveryRequestWithZeroedRecords)
{
    TrnEngine *e = bare_engine();
    /* Small steps double; a jump past twice the capacity (one large file's chunks at once) takes
    ** what it needs, not the next power of two, whose slots would all be cleared and resident. */
    const uint64_t steps[][2] = {{64, 64}, {65, 128}, {300, 300}, {301, 600}};
    for (const auto &[want, capacity] : steps) {
        ensure_cap(e, want);
        ASSERT_EQ(e->capacity, capacity) << want;
    }
    const TrnChunk zero_chunk = {};
    const TrnNode zero_node = {};
    EXPECT_EQ(memcmp(&e->chunks[299], &zero_chunk, sizeof zero_chunk), 0);
    EXPECT_EQ(memcmp(&e->nodes[299], &zero_node, sizeof zero_node), 0);
    e->vectors[299 * 512 + 511] = 1.0f; /* the vector array grew too */
    free(e->chunks);
    free(e->vectors);
    free(e->nodes);
    e->chunks = nullptr;
    e->vectors = nullptr;
    e->nodes = nullptr;
    e->capacity = 0; /* as after compacting to nothing */
    ensure_cap(e, 1);
    ASSERT_GE(e->capacity, 1u);
    EXPECT_EQ(memcmp(&e->chunks[0], &zero_chunk, sizeof zero_chunk), 0);
    e->vectors[511] = 1.0f;
    free_bare_engine(e);
}

TEST(IngestStorage, LevelsAreGeometricAndClamped)
{
    uint64_t state = 1234;
    int at_zero = 0;
    for (int i = 0; i < 20000; i++) {
        int32_t level = draw_level(&state, 1.0f / (float)std::log(16.0));
        ASSERT_GE(level, 0);
        ASSERT_LE(level, 31);
        at_zero += level == 0;
    }
    /* P(level >= 1) = e^(-ln 16) = 1/16. */
    EXPECT_NEAR(at_zero / 20000.0, 15.0 / 16.0, 0.01);
    int top = 0;
    for (int i = 0; i < 100; i++) {
        top += draw_level(&state, 1000.0f) == 31;
        EXPECT_EQ(draw_level(&state, std::nanf("")), 0);
    }
    EXPECT_GT(top, 90);
}

/* A text the index already holds (a licence header, a vendored copy) is embedded once: later
** copies take its vector, bit for bit, and keep it when the first copy is removed, compacted
** away and the index reopened. */
TEST(IngestDistinctTexts, IdenticalChunksAreEmbeddedOnceAndOutliveEachOther)
{
    TempDir dir;
    TrnConfig cfg = {};
    cfg.index_dir = dir.path().c_str();
    TrnEngine *e = trn_open(&cfg);
    const std::string header = pattern_text(64);
    const std::string own = pattern_text(64).replace(0, 6, "unique");
    ASSERT_EQ(trn_ingest_text(e, "/t/a.txt", (header + header).c_str(), 64, 0), 2);
    EXPECT_EQ(e->texts_embedded, 1u) << "the same window twice in one text";
    ASSERT_EQ(trn_ingest_text(e, "/t/b.txt", (header + own).c_str(), 64, 0), 2);
    EXPECT_EQ(e->texts_embedded, 2u) << "only b's own window is new";

    float fresh[TRN_ENCODER_DIM];
    embed_chunk(e, header.c_str(), fresh);
    auto vector_of = [&e](const char *doc_id) { // e is reopened below
        for (uint64_t i = 0; i < e->count; i++) {
            if (!e->chunks[i].deleted && strcmp(e->chunks[i].doc_id, doc_id) == 0) {
                return std::vector<float>(e->vectors + i * TRN_ENCODER_DIM,
                                          e->vectors + (i + 1) * TRN_ENCODER_DIM);
            }
        }
        return std::vector<float>();
    };
    const std::vector<float> expected(fresh, fresh + TRN_ENCODER_DIM);
    EXPECT_EQ(vector_of("/t/a.txt:1"), expected);
    EXPECT_EQ(vector_of("/t/b.txt:0"), expected);

    ASSERT_EQ(trn_remove_file(e, "/t/a.txt"), 2);
    ASSERT_EQ(trn_compact(e), 1);
    trn_close(e);
    e = trn_open(&cfg);
    EXPECT_EQ(vector_of("/t/b.txt:0"), expected);
    TrnResult hits[1];
    ASSERT_EQ(trn_search(e, header.c_str(), TRN_SEARCH_SEMANTIC, 1, hits), 1);
    EXPECT_STREQ(hits[0].doc_id, "/t/b.txt:0");
    /* After the compaction renumbered the slots, a new copy still finds b's. */
    ASSERT_EQ(trn_ingest_text(e, "/t/c.txt", header.c_str(), 64, 0), 1);
    EXPECT_EQ(e->texts_embedded, 0u);
    EXPECT_EQ(vector_of("/t/c.txt:0"), expected);
    trn_close(e);
}

TEST_F(Ingest, FilesAreReadByTheirType)
{
    TempDir dir;
    write_file_text(dir.file("page.html"),
                    "<html>\n<body>\n<h1>Title</h1>\n<p>first\nsecond</p>\n</body></html>\n");
    /* Read as "Title\nfirst second\n" (19 bytes): windows of 6, the last ending with the text. */
    ASSERT_EQ(trn_ingest_file(e_, dir.file("page.html").c_str(), 6, 0), 4);
    EXPECT_EQ(text_of(0), "Title\n");
    EXPECT_EQ(text_of(1), "first ");
    EXPECT_EQ(text_of(2), "second");
    EXPECT_EQ(text_of(3), "econd\n");
    EXPECT_EQ(e_->chunks[2].line_number, 2);
    EXPECT_EQ(e_->chunks[2].file_type, (uint32_t)TRN_FILE_TYPE_HTML);

    const char docx[] = "PK\x03\x04zip\0rest";
    write_file_bytes(dir.file("report.docx"), docx, sizeof docx - 1);
    EXPECT_EQ(trn_ingest_file(e_, dir.file("report.docx").c_str(), 800, 200), -1);
    write_file_text(dir.file("img.png"), "not really a picture");
    EXPECT_EQ(trn_ingest_file(e_, dir.file("img.png").c_str(), 800, 200), 0);
    EXPECT_EQ(trn_ingest_file(e_, dir.file("absent.txt").c_str(), 800, 200), -1);
    write_file_text(dir.file("empty.txt"), "");
    EXPECT_EQ(trn_ingest_file(e_, dir.file("empty.txt").c_str(), 800, 200), 0);
    /* A Latin-1 file is read, and found by its accented words. */
    write_file_text(dir.file("latin1.txt"), "caf\xe9 au lait, s'il vous pla\xeet");
    EXPECT_EQ(trn_ingest_file(e_, dir.file("latin1.txt").c_str(), 800, 200), 1);
    EXPECT_EQ(text_of(4), "caf\xC3\xA9 au lait, s'il vous pla\xC3\xAEt");
    TrnResult hit[2];
    ASSERT_EQ(trn_search(e_, "pla\xC3\xAEt", TRN_SEARCH_KEYWORD, 2, hit), 1);
    EXPECT_STREQ(hit[0].file_path, dir.file("latin1.txt").c_str());
    ASSERT_EQ(trn_search(e_, "caf\xC3\xA9 au", TRN_SEARCH_TEXT, 2, hit), 1);
    EXPECT_STREQ(hit[0].file_path, dir.file("latin1.txt").c_str());
    EXPECT_EQ(e_->count, 5u);
}

struct CallbackLog {
    std::vector<std::string> paths;
    std::vector<int32_t> done;
    bool keep_going = true;
};

bool record_progress(const char *path, int32_t done, int32_t total, void *user)
{
    CallbackLog *log = static_cast<CallbackLog *>(user);
    log->paths.push_back(path);
    log->done.push_back(done == total ? done : -1);
    return log->keep_going;
}

TEST_F(Ingest, DirectoryWalkSkipsHiddenAndBinaryAndReportsProgress)
{
    TempDir dir;
    write_file_text(dir.file("s1/a.txt"), "alpha is long enough");
    write_file_text(dir.file("s1/b.txt"), "bravo is long enough");
    write_file_text(dir.file("s2/c.md"), "charlie is long enough");
    write_file_text(dir.file("s2/d.py"), "delta = 4 # long enough");
    write_file_text(dir.file(".hidden.txt"), "hidden");
    write_file_text(dir.file(".tarnwick/x.txt"), "index dir");
    write_file_text(dir.file("s2/pic.png"), "png");
    write_file_text(dir.file("s2/store.bin"), "bin");

    CallbackLog log;
    EXPECT_EQ(trn_ingest_dir(e_, dir.path().c_str(), 800, 200, record_progress, &log), 4);
    ASSERT_EQ(log.paths.size(), 4u);
    /* The count runs per directory: each subdirectory reports its own 1 and 2. */
    std::vector<int32_t> sorted = log.done;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<int32_t>{1, 1, 2, 2}));
    for (uint64_t i = 0; i < e_->count; i++) {
        EXPECT_EQ(strstr(e_->chunks[i].text, "hidden"), nullptr);
        EXPECT_EQ(strstr(e_->chunks[i].text, "index dir"), nullptr);
    }
    EXPECT_EQ(trn_ingest_dir(e_, dir.file("absent").c_str(), 800, 200, nullptr, nullptr), -1);
    EXPECT_EQ(trn_ingest_dir(e_, dir.path().c_str(), 800, 200, nullptr, nullptr), 4);
}

TEST_F(Ingest, CallbackReturningFalseStopsOnlyTheCurrentDirectory)
{
    TempDir dir;
    write_file_text(dir.file("s1/a.txt"), "alpha is long enough");
    write_file_text(dir.file("s1/b.txt"), "bravo is long enough");
    write_file_text(dir.file("s2/c.txt"), "charlie is long enough");
    write_file_text(dir.file("s2/d.txt"), "delta is long enough");
    CallbackLog log;
    log.keep_going = false;
    EXPECT_EQ(trn_ingest_dir(e_, dir.path().c_str(), 800, 200, record_progress, &log), 2);
    ASSERT_EQ(log.paths.size(), 2u);
    /* One file from each subdirectory: the walk above went on to the next entry. */
    EXPECT_NE(log.paths[0].find("/s1/") == std::string::npos,
              log.paths[1].find("/s1/") == std::string::npos);
    EXPECT_EQ(e_->count, 2u);
}

// The limits the CLI and the application put on a user's chunking: an overlap of 799 with chunks
// of 800 steps one byte at a time and never finishes on a large file.
TEST(CheckChunking, RefusesChunkSizesOutOfRangeAndOverlapsAboveHalfAChunk)
{
    struct Case {
        int32_t chunk_size, overlap;
        const char *reason; // nullptr: accepted
    } cases[] = {
        {800, 200, nullptr},
        {64, 32, nullptr},
        {65536, 0, nullptr},
        {800, 400, nullptr},
        {800, 401, "overlap must be from 0 to half the chunk size, 400 (got 401)"},
        {800, 799, "overlap must be from 0 to half the chunk size, 400 (got 799)"},
        {800, -1, "overlap must be from 0 to half the chunk size, 400 (got -1)"},
        {63, 0, "chunk size must be from 64 to 65536 (got 63)"},
        {65537, 0, "chunk size must be from 64 to 65536 (got 65537)"},
        {0, 0, "chunk size must be from 64 to 65536 (got 0)"},
    };
    for (const Case &c : cases) {
        char message[100] = "untouched";
        EXPECT_EQ(trn_check_chunking(c.chunk_size, c.overlap, message, sizeof message),
                  c.reason ? 0 : 1)
            << c.chunk_size << "/" << c.overlap;
        EXPECT_STREQ(message, c.reason ? c.reason : "");
    }
    EXPECT_EQ(trn_check_chunking(800, 799, nullptr, 0), 0);
}

TEST(UpdateDir, CompactsOnlyOnceMoreThanAQuarterOfTheChunksAreDeleted)
{
    TempDir index;
    TempDir tree;
    for (const char *name : {"a.txt", "b.txt", "c.txt", "d.txt"}) {
        write_file_text(tree.file(name), std::string("a few words about ") + name);
    }
    TrnConfig cfg = config_for(index);
    TrnEngine *e = trn_open(&cfg);
    TrnUpdateReport r{};
    ASSERT_EQ(trn_update_dir(e, tree.path().c_str(), 800, 200, nullptr, nullptr, nullptr, &r), 4);
    for (const char *gone : {"a.txt", "b.txt"}) {
        ASSERT_EQ(unlink(tree.file(gone).c_str()), 0);
        ASSERT_EQ(trn_update_dir(e, tree.path().c_str(), 800, 200, nullptr, nullptr, nullptr, &r),
                  0);
        EXPECT_EQ(r.removed, 1) << gone;
        // One of four deleted is a quarter, not more: only the second removal compacts.
        EXPECT_EQ(r.compacted, strcmp(gone, "b.txt") == 0 ? 1 : 0) << gone;
    }
    EXPECT_EQ(trn_stats(e).deleted_count, 0u);
    EXPECT_EQ(trn_stats(e).chunk_count, 2u);
    trn_close(e);
}

} // namespace
