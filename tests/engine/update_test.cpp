/*
** update_test.cpp -- trn_update_dir against a build from scratch: after each kind of change to a
** tree, the updated index holds exactly the chunks a fresh index of the same tree holds, it read
** only the files that changed, and an update with nothing to do writes nothing.
*/
#include "document_fixtures.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include <sys/time.h>

namespace
{

constexpr int32_t CHUNK = 64;
constexpr int32_t OVERLAP = 8;

/* Every live chunk as "doc_id|line|type|text", sorted. */
std::multiset<std::string> chunks_of(const TrnEngine *e)
{
    std::multiset<std::string> out;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk &c = e->chunks[i];
        if (!c.deleted) {
            out.insert(std::string(c.doc_id) + "|" + std::to_string(c.line_number) + "|"
                       + std::to_string(c.file_type) + "|" + c.text);
        }
    }
    return out;
}

TrnEngine *open_index(const std::string &dir)
{
    mkdir(dir.c_str(), 0700);
    trn_set_verbose(0);
    TrnConfig cfg = {};
    cfg.index_dir = dir.c_str();
    return trn_open(&cfg);
}

struct Updated {
    TrnUpdateReport report;
    uint64_t files_read;
    std::multiset<std::string> chunks;
};

Updated update(const std::string &index, const std::string &src)
{
    TrnEngine *e = open_index(index);
    Updated u = {};
    EXPECT_GE(trn_update_dir(e, src.c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, &u.report),
              0);
    u.files_read = e->files_read;
    u.chunks = chunks_of(e);
    trn_close(e);
    return u;
}

std::string long_text(const std::string &word, int n)
{
    std::string s;
    for (int i = 0; i < n; i++) {
        s += word + " " + std::to_string(i) + (i % 5 == 4 ? "\n" : " ");
    }
    return s;
}

/* Files as the report counts them, and the files the update reads. */
struct Counts {
    int added, changed, removed, unchanged, read;
};

struct Change {
    const char *name;
    std::function<void(const std::string &src)> apply;
    Counts want;
};

void PrintTo(const Change &c, std::ostream *os)
{
    *os << c.name;
}

class UpdateAfterChange : public testing::TestWithParam<Change>
{
};

TEST_P(UpdateAfterChange, HoldsWhatAFreshIndexOfTheSameTreeHolds)
{
    const Change &c = GetParam();
    g_update_recent_ns = 0; /* the files here are all written a moment before they are read */
    TempDir tmp;
    std::string src = tmp.file("src");
    write_file_text(src + "/a.txt", long_text("alpha", 30));
    write_file_text(src + "/b.md", long_text("bravo", 12));
    write_file_text(src + "/sub/c.txt", long_text("charlie", 20));
    write_file_text(src + "/d.png", "\x89PNG not text");
    std::string index = tmp.file("index");
    Updated first = update(index, src);
    EXPECT_EQ(first.report.added, 3);
    EXPECT_GT(first.report.chunks_added, 5);

    c.apply(src);
    Updated second = update(index, src);
    EXPECT_EQ(second.report.added, c.want.added);
    EXPECT_EQ(second.report.changed, c.want.changed);
    EXPECT_EQ(second.report.removed, c.want.removed);
    EXPECT_EQ(second.report.unchanged, c.want.unchanged);
    EXPECT_EQ(second.report.failed, 0);
    EXPECT_EQ(second.files_read, (uint64_t)c.want.read);

    Updated fresh = update(tmp.file("fresh"), src);
    EXPECT_EQ(second.chunks, fresh.chunks);

    /* Nothing left to do: nothing read, nothing written in the index directory. */
    auto stamps = [&index] {
        std::vector<std::string> out;
        for (const std::string &n : dir_names(index)) {
            struct stat st;
            stat((index + "/" + n).c_str(), &st);
            out.push_back(n + " " + std::to_string(st.st_size) + " "
                          + std::to_string(st.st_mtim.tv_sec) + "."
                          + std::to_string(st.st_mtim.tv_nsec));
        }
        return out;
    };
    const std::vector<std::string> before = stamps();
    Updated third = update(index, src);
    EXPECT_EQ(third.files_read, 0u);
    EXPECT_EQ(third.report.added + third.report.changed + third.report.removed, 0);
    EXPECT_EQ(third.chunks, fresh.chunks);
    EXPECT_EQ(stamps(), before) << "written by an update with nothing to do";
}

/* Moves a file's times ten seconds into the past. */
void age(const std::string &path)
{
    struct stat st;
    stat(path.c_str(), &st);
    struct timeval tv[2] = {{st.st_atim.tv_sec - 10, 0}, {st.st_mtim.tv_sec - 10, 0}};
    utimes(path.c_str(), tv);
}

const Change CHANGES[] = {
    {"Add",
     [](const std::string &s) {
         write_file_text(s + "/sub/e.txt", long_text("echo", 9));
     },
     {1, 0, 0, 3, 1}},
    {"Edit",
     [](const std::string &s) {
         write_file_text(s + "/a.txt", long_text("alpha!", 31));
     },
     {0, 1, 0, 2, 1}},
    {"Delete",
     [](const std::string &s) {
         unlink((s + "/b.md").c_str());
     },
     {0, 0, 1, 2, 0}},
    {"Rename",
     [](const std::string &s) {
         rename((s + "/a.txt").c_str(), (s + "/sub/z.txt").c_str());
     },
     {1, 0, 1, 2, 1}},
    {"TurnBinary",
     [](const std::string &s) {
         std::string bytes("bin\0\1\2\3 data", 13);
         write_file_bytes(s + "/sub/c.txt", bytes.data(), bytes.size());
     },
     {0, 0, 1, 2, 1}},
    {"Excluded",
     [](const std::string &s) {
         write_file_text(s + "/node_modules/x.js", long_text("excluded", 9));
     },
     {0, 0, 0, 3, 0}},
    /* Times changed, text not: read again, not embedded again. */
    {"TouchOnly",
     [](const std::string &s) {
         age(s + "/a.txt");
     },
     {0, 0, 0, 3, 1}},
};

INSTANTIATE_TEST_SUITE_P(Changes, UpdateAfterChange, testing::ValuesIn(CHANGES),
                         [](const testing::TestParamInfo<Change> &info) {
                             return std::string(info.param.name);
                         });

TEST(UpdateManifest, AMissingOrDamagedManifestCostsReadingNeverChunks)
{
    g_update_recent_ns = 0;
    TempDir tmp;
    std::string src = tmp.file("src");
    write_file_text(src + "/a.txt", long_text("alpha", 30));
    write_file_text(src + "/b.txt", long_text("bravo", 10));
    std::string index = tmp.file("index");
    Updated first = update(index, src);
    std::string manifest = index + "/tarnwick.files";
    struct stat st;
    ASSERT_EQ(stat(manifest.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    std::vector<uint8_t> bytes = read_file_bytes(manifest);
    for (const char *damage : {"flip", "cut", "gone"}) {
        std::vector<uint8_t> b = bytes;
        if (std::string(damage) == "flip") {
            b[b.size() / 2] ^= 0x40;
        } else if (std::string(damage) == "cut") {
            b.resize(b.size() - 7);
        }
        unlink(manifest.c_str());
        if (std::string(damage) != "gone") {
            write_file_bytes(manifest, b.data(), b.size());
        }
        const std::vector<uint8_t> commit = read_file_bytes(index + "/tarnwick.commit");
        Updated u = update(index, src);
        EXPECT_EQ(u.chunks, first.chunks) << damage;
        EXPECT_EQ(u.files_read, 2u) << damage;
        EXPECT_EQ(u.report.changed, 2) << damage << ": files the index holds are not added";
        EXPECT_EQ(read_file_bytes(index + "/tarnwick.commit"), commit)
            << damage << ": nor written again";
        /* And the manifest written then is trusted again. */
        EXPECT_EQ(update(index, src).files_read, 0u) << damage;
        bytes = read_file_bytes(manifest);
    }
}

TEST(UpdateLog, TheLogGrowsWithTheIndexWithinAnUpdateAndIsShortAfterIt)
{
    /* 36 files of a few chunks, two records each (text, vector): with a least threshold of 8 the
    ** log may grow to as many records as the index has chunks while the update runs; another
    ** process opening the index afterwards replays fewer than 8. */
    g_checkpoint_chunks = 8;
    TempDir tmp;
    std::string src = tmp.file("src");
    for (int i = 0; i < 36; i++) {
        write_file_text(src + "/f" + std::to_string(i) + ".txt", long_text("word", 25));
    }
    TrnEngine *e = open_index(tmp.file("index"));
    struct Seen {
        TrnEngine *e;
        uint64_t longest;
        bool over; /* the log ever longer than the bound */
    } seen = {e, 0, false};
    auto watch = [](const char *, int32_t, int32_t, void *user) {
        Seen *s = static_cast<Seen *>(user);
        s->longest = std::max(s->longest, s->e->wal_chunks);
        s->over = s->over || s->e->wal_chunks > std::max<uint64_t>(8, s->e->count);
        return true;
    };
    ASSERT_GT(trn_update_dir(e, src.c_str(), CHUNK, OVERLAP, nullptr, watch, &seen, nullptr), 0);
    g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;
    EXPECT_GT(seen.longest, 8u);
    EXPECT_FALSE(seen.over);
    EXPECT_LT(e->wal_chunks, 8u);
    TrnEngine *reader = open_index(tmp.file("index"));
    EXPECT_EQ(reader->wal_chunks, e->wal_chunks);
    EXPECT_EQ(chunks_of(reader), chunks_of(e));
    trn_close(reader);
    trn_close(e);
}

// The bytes an update says it has handled grow file by file to the bytes of every file it found,
// the first one walked included, and are 0 again once it returns.
TEST(UpdateProgress, BytesReachTheWholeTreeAtTheLastFile)
{
    TempDir tmp;
    std::string src = tmp.file("src");
    uint64_t sizes = 0;
    for (int i = 0; i < 12; i++) {
        std::string text = long_text("word", 10 + 7 * i);
        write_file_text(src + "/f" + std::to_string(i) + ".txt", text);
        sizes += text.size();
    }
    TrnEngine *e = open_index(tmp.file("index"));
    struct Seen {
        TrnEngine *e;
        uint64_t done, all, last_done, last_all;
        bool grew;
    } seen = {e, 0, 0, 0, 0, true};
    auto watch = [](const char *path, int32_t done, int32_t total, void *user) {
        Seen *s = static_cast<Seen *>(user);
        uint64_t bytes = 0, all = 0;
        trn_update_progress(s->e, &bytes, &all);
        if (path) {
            s->grew = s->grew && bytes >= s->done;
            s->done = bytes;
            s->all = all;
            if (done == total) {
                s->last_done = bytes;
                s->last_all = all;
            }
        }
        return true;
    };
    ASSERT_GT(trn_update_dir(e, src.c_str(), CHUNK, OVERLAP, nullptr, watch, &seen, nullptr), 0);
    EXPECT_TRUE(seen.grew);
    EXPECT_EQ(seen.last_all, sizes);
    EXPECT_EQ(seen.last_done, sizes);
    uint64_t done = 1, all = 1;
    trn_update_progress(e, &done, &all);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(all, 0u);
    trn_close(e);
}

TEST(UpdateManifest, AFileModifiedJustBeforeItWasReadIsReadAgain)
{
    g_update_recent_ns = 3000000000ll;
    TempDir tmp;
    std::string src = tmp.file("src");
    write_file_text(src + "/a.txt", long_text("alpha", 30));
    write_file_text(src + "/old.txt", long_text("old", 30));
    age(src + "/old.txt");
    std::string index = tmp.file("index");
    EXPECT_EQ(update(index, src).files_read, 2u);
    EXPECT_EQ(update(index, src).files_read, 1u); /* a.txt, without embedding it */
    g_update_recent_ns = 0;
}

/* An index whose manifest says its text was read or cut another way is cut again once: every
** file is replaced, and the next update trusts the new manifest. One whose PDFs were read before
** their pages were marked reads its PDFs alone again. */
TEST(UpdateManifest, AnIndexCutByAnOlderRuleIsCutAgainOnce)
{
    g_update_recent_ns = 0;
    TempDir tmp;
    std::string src = tmp.file("src");
    write_file_text(src + "/a.txt", long_text("alpha", 30));
    write_file_text(src + "/b.txt", long_text("bravo", 10));
    write_file_text(src + "/c.pdf", pdf_with_pages({"Charlie page one", "Charlie page two"}));
    std::string index = tmp.file("index");
    Updated first = update(index, src);
    for (uint32_t version :
         {MANIFEST_TEXT_VERSION_UNMARKED_PAGES - 1, MANIFEST_TEXT_VERSION_UNMARKED_PAGES}) {
        Manifest m = {};
        TrnEngine *files = bare_engine();
        bare_engine_on_dir(files, index);
        ASSERT_TRUE(manifest_read(files, &m));
        m.text_version = version;
        ASSERT_TRUE(manifest_write(files, &m));
        free_bare_engine(files);
        manifest_free(&m);
        Updated again = update(index, src);
        EXPECT_EQ(again.files_read, version == MANIFEST_TEXT_VERSION_UNMARKED_PAGES ? 1u : 3u);
        EXPECT_EQ(again.chunks, first.chunks);
        Updated then = update(index, src);
        EXPECT_EQ(then.files_read, 0u);
        EXPECT_EQ(then.report.changed, 0);
    }
}

/* The listing said a file's text was cut only on the run that read it, and then forgot. */
TEST(UpdateManifest, AFileCutAtTheSizeLimitIsSaidSoInEveryLaterListing)
{
    g_update_recent_ns = 0;
    TempDir tmp;
    std::string src = tmp.file("src");
    std::string latin1;
    for (int i = 0; i < 300; i++) {
        latin1 += i % 10 == 9 ? "caf\xe9\n" : "caf\xe9 "; /* grows by a byte a word as UTF-8 */
    }
    write_file_text(src + "/cafe.txt", latin1);
    write_file_text(src + "/short.txt", long_text("short", 20));
    TrnWalkOptions opts{};
    opts.max_file_size = 1600;
    std::string index = tmp.file("index");
    for (int run = 0; run < 2; run++) {
        TrnEngine *e = open_index(index);
        TrnUpdateReport report{};
        ASSERT_GE(trn_update_dir(e, src.c_str(), CHUNK, OVERLAP, &opts, nullptr, nullptr, &report),
                  0);
        EXPECT_EQ(report.added, run == 0 ? 2 : 0);
        trn_close(e);
        e = open_index(index);
        TrnFileList *list = trn_list_dir_files_ex(e, src.c_str(), &opts);
        ASSERT_EQ(list->count, 2);
        for (int32_t i = 0; i < list->count; i++) {
            const TrnFileInfo &f = list->entries[i];
            EXPECT_EQ(f.indexed, 1);
            EXPECT_EQ(std::string(f.reason).find("text cut at 1600 bytes") != std::string::npos,
                      std::string(f.name) == "cafe.txt")
                << f.name << ": " << f.reason;
        }
        trn_free_file_list(list);
        trn_close(e);
    }
}

TEST(UpdateManifest, AnEntryTheIndexDoesNotBackIsNotTrusted)
{
    g_update_recent_ns = 0;
    TempDir tmp;
    std::string src = tmp.file("src");
    write_file_text(src + "/a.txt", long_text("alpha", 30));
    std::string index = tmp.file("index");
    Updated first = update(index, src);
    /* Another program removed the file's chunks behind the manifest's back. */
    TrnEngine *e = open_index(index);
    ASSERT_GT(trn_remove_file(e, (src + "/a.txt").c_str()), 0);
    trn_close(e);
    Updated u = update(index, src);
    EXPECT_EQ(u.files_read, 1u);
    EXPECT_EQ(u.report.changed, 1); /* the manifest held it */
    EXPECT_EQ(u.chunks, first.chunks);
}

} // namespace
