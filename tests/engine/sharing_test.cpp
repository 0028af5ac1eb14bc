/*
** sharing_test.cpp -- handles of one process sharing an index directory: commits taken up, never
** written over, also by a rebuild; a full disk on the log; checkpoints; an older store converted.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace
{

/* An older version wrote no commit record: opening the index, even only to read it, converts it
** once (the store rewritten, the record written), and nothing is lost. */
TEST(SharedIndex, AStoreWithoutACommitRecordIsAcceptedAndConvertedWhenOpened)
{
    TempDir dir;
    StoreRecord r;
    r.id = "/l/old.txt:0";
    r.text = "from an older version";
    r.path = "/l/old.txt";
    r.neighbors = {{}};
    Bytes legacy;
    put_store_header(legacy, 1, 512, 0, 0, 1);
    put_store_record(legacy, r, 512);
    legacy.write(dir.file("tarnwick.bin"));
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    EXPECT_EQ(e->count, 1u);
    trn_close(e);
    const std::vector<uint8_t> converted = read_file_bytes(dir.file("tarnwick.bin"));
    EXPECT_FALSE(converted == legacy.b);
    EXPECT_EQ(file_size(dir.file("tarnwick.commit")), (long)TRN_COMMIT_SIZE);
    e = trn_open(&cfg);
    EXPECT_EQ(live_ids(e), std::vector<std::string>{"/l/old.txt:0"});
    trn_close(e);
    EXPECT_TRUE(read_file_bytes(dir.file("tarnwick.bin")) == converted) << "converted once";

    e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/l/new.txt", "added", 800, 200), 1);
    trn_close(e);
    EXPECT_EQ(file_size(dir.file("tarnwick.commit")), (long)TRN_COMMIT_SIZE);
    e = trn_open(&cfg);
    EXPECT_EQ(e->count, 2u);
    trn_close(e);
}

TEST(SharedIndex, ALongLivedHandleTakesUpOtherCommitsAndNeverWritesOverThem)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *tab = trn_open(&cfg);
    TrnEngine *cli = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(tab, "/t/tab1.txt", "written by the tab", 800, 200), 1);
    ASSERT_EQ(trn_ingest_text(cli, "/t/cli1.txt", "written by the command", 800, 200), 1);
    TrnResult hits[8];
    EXPECT_EQ(trn_search(tab, "written", TRN_SEARCH_TEXT, 8, hits), 2);
    /* A checkpoint of one, a removal by the other: neither undoes the other. */
    ASSERT_EQ(trn_checkpoint(cli), 1);
    ASSERT_EQ(trn_remove_file(tab, "/t/cli1.txt"), 1);
    ASSERT_EQ(trn_ingest_text(cli, "/t/cli2.txt", "written again", 800, 200), 1);
    ASSERT_EQ(trn_compact(tab), 1);
    trn_close(cli);
    trn_close(tab);
    TrnEngine *e = trn_open(&cfg);
    EXPECT_EQ(live_ids(e), (std::vector<std::string>{"/t/tab1.txt:0", "/t/cli2.txt:0"}));
    EXPECT_EQ(e->count, 2u);
    trn_close(e);
}

TEST(SharedIndex, AFullDiskFailsTheAppendAndLeavesTheLogAsItWas)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/f/a.txt", "fits", 800, 200), 1);
    long wal = file_size(dir.file("tarnwick.wal"));
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    struct rlimit small = before;
    small.rlim_cur = (rlim_t)wal + 10; /* room for part of the next group only */
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_EQ(trn_ingest_text(e, "/f/b.txt", std::string(100, 'b').c_str(), 800, 200), -1);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_IO_ERROR);
    EXPECT_EQ(trn_remove_file(e, "/f/a.txt"), -1);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_IO_ERROR);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(file_size(dir.file("tarnwick.wal")), wal);
    EXPECT_EQ(e->count, 1u);
    trn_close(e);
    e = trn_open(&cfg);
    EXPECT_EQ(live_ids(e), std::vector<std::string>{"/f/a.txt:0"});
    trn_close(e);
}

TEST(SharedIndex, ALongIndexingCheckpointsAsTheIndexGrowsAndAReaderSearchesItsLogUnlinked)
{
    /* Each note logs two records (its text and its vector); the least threshold is 3. A checkpoint
    ** once the log holds as many records as the index has chunks rewrites the store a few times
    ** over the run, not every other note. */
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    g_checkpoint_chunks = 3;
    TrnEngine *e = trn_open(&cfg);
    const uint64_t first = e->generation;
    for (int i = 0; i < 48; i++) {
        std::string path = "/c/n" + std::to_string(i) + ".txt";
        std::string text = "note " + std::to_string(i) + " of " + std::to_string(i * 7919 % 48);
        ASSERT_EQ(trn_ingest_text(e, path.c_str(), text.c_str(), 800, 200), 1);
        ASSERT_LT(e->wal_chunks, std::max<uint64_t>(3, e->count)) << i;
    }
    g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;
    EXPECT_GE(e->generation - first, 4u);
    EXPECT_LE(e->generation - first, 16u);
    /* Killed here: the store and the log hold the 48 notes between them (the last 16 in the log).
    ** A reader links none of the log's vectors to search them, nor to close (folding the log
    ** into the store is left to the next writer); a checkpoint links them into the stored graph. */
    const std::vector<uint8_t> store = read_file_bytes(dir.file("tarnwick.bin"));
    trn_close(trn_open(&cfg));
    EXPECT_EQ(read_file_bytes(dir.file("tarnwick.bin")), store);
    TrnEngine *reader = trn_open(&cfg);
    reader->embed_threads = 2;
    ASSERT_EQ(reader->count, 48u);
    EXPECT_EQ(reader->wal_chunks, e->wal_chunks);
    ASSERT_EQ(reader->unlinked_count, 16u);
    auto nearest = [&](uint32_t i) {
        uint32_t found = UINT32_MAX;
        float score = 0;
        hnsw_query_width(reader, chunk_vector(e, i), 1, 8, &found, &score);
        return found;
    };
    for (uint32_t i = 0; i < 48; i++) {
        EXPECT_EQ(nearest(i), i) << (i >= 32 ? "only in the log" : "stored");
    }
    ASSERT_EQ(trn_checkpoint(reader), 1); /* links them, then folds the log into the store */
    EXPECT_EQ(reader->unlinked_count, 0u);
    trn_close(reader);
    reader = trn_open(&cfg);
    ASSERT_EQ(reader->unlinked_count, 0u) << "the log was folded";
    for (uint32_t i = 32; i < 48; i++) {
        EXPECT_GT(reader->nodes[i].count[0], 0) << i;
        EXPECT_EQ(nearest(i), i) << "through the graph";
    }
    trn_close(reader);
    trn_close(e);
}

/* Live chunk texts by file. */
std::map<std::string, std::vector<std::string>> texts_by_file(const TrnEngine *e)
{
    std::map<std::string, std::vector<std::string>> files;
    for (uint64_t i = 0; i < e->count; i++) {
        if (!e->chunks[i].deleted && e->chunks[i].file_path) {
            files[e->chunks[i].file_path].push_back(e->chunks[i].text);
        }
    }
    return files;
}

/* A rebuild swapped in its own view and threw away the files another process added meanwhile,
** and the other process never noticed. */
TEST(SharedIndex, ARebuildTakesUpWhatOthersCommittedWhileItRan)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *w = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(w, "/r/gone.txt", "in the old index only", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(w), 1);
    TrnEngine *r = trn_open_ex(&cfg, TRN_OPEN_REBUILD, nullptr);
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(trn_ingest_text(r, "/r/a.txt", "a as the rebuild read it", 800, 200), 1);
    ASSERT_EQ(trn_ingest_text(r, "/r/b.txt", "b before its edit", 800, 200), 1);
    /* Several chunks: the rebuild takes up a file's records together, replacing it once. */
    std::string c_text;
    while (c_text.size() < 2000) {
        c_text += "c added meanwhile, with more to say. ";
    }
    const int32_t c_chunks = trn_ingest_text(w, "/r/c.txt", c_text.c_str(), 800, 200);
    ASSERT_GE(c_chunks, 3);
    ASSERT_EQ(trn_ingest_text(w, "/r/b.txt", "b after its edit", 800, 200), 1);
    /* Its checkpoints leave the log to the rebuild. */
    ASSERT_EQ(trn_checkpoint(w), 1);
    trn_close(w);
    ASSERT_EQ(trn_checkpoint(r), 1);
    trn_close(r);

    TrnEngine *e = trn_open(&cfg);
    using Texts = std::vector<std::string>;
    std::map<std::string, Texts> texts = texts_by_file(e);
    EXPECT_EQ(texts["/r/c.txt"].size(), (size_t)c_chunks);
    texts.erase("/r/c.txt");
    EXPECT_EQ(texts,
              (std::map<std::string, Texts>{{"/r/a.txt", Texts{"a as the rebuild read it"}},
                                            {"/r/b.txt", Texts{"b after its edit"}}}));
    /* The next writer folds the log again. */
    ASSERT_EQ(trn_ingest_text(e, "/r/d.txt", "after the swap", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(e), 1);
    EXPECT_EQ(read_file_bytes(dir.file("tarnwick.wal")).size(), 0u);
    trn_close(e);
}

int32_t update_dir(TrnEngine *e, const TempDir &src, TrnProgressFn progress = nullptr,
                   void *user = nullptr)
{
    return trn_update_dir(e, src.path().c_str(), 800, 200, nullptr, progress, user, nullptr);
}

/* An update compares the tree with the index before it writes. A rebuild that swapped in, after
** that comparison, a file deleted since the rebuild read it, was taken up at the update's next
** write as if it were the handle's own state, and the file stayed: the update compares again. */
TEST(SharedIndex, AnUpdateOvertakenByARebuildComparesAgainAndEndsWithoutTheDeletedFile)
{
    TempDir index, src;
    TrnConfig cfg = config_for(index);
    write_file_text(src.file("b.txt"), "b as it was first indexed");
    TrnEngine *w = trn_open(&cfg);
    ASSERT_GE(update_dir(w, src), 0);
    write_file_text(src.file("b.txt"), "b edited, so the update writes after the swap");
    struct Race {
        const TrnConfig *cfg;
        const TempDir *src;
        bool ran;
    } race = {&cfg, &src, false};
    /* Once the update found its work: a rebuild reads a_gone.txt, swaps in, and the file goes. */
    auto rebuild = [](const char *, int32_t, int32_t, void *user) {
        Race *r = static_cast<Race *>(user);
        if (!r->ran) {
            r->ran = true;
            write_file_text(r->src->file("a_gone.txt"), "read by the rebuild, deleted at once");
            TrnEngine *e = trn_open_ex(r->cfg, TRN_OPEN_REBUILD, nullptr);
            EXPECT_GE(update_dir(e, *r->src), 0);
            trn_close(e);
            unlink(r->src->file("a_gone.txt").c_str());
        }
        return true;
    };
    TrnUpdateReport report = {};
    ASSERT_GE(trn_update_dir(w, src.path().c_str(), 800, 200, nullptr, rebuild, &race, &report), 0);
    ASSERT_TRUE(race.ran);
    EXPECT_EQ(trn_index_changed(w), 0);
    EXPECT_EQ(report.changed, 1);
    EXPECT_EQ(report.removed, 1);
    using Texts = std::vector<std::string>;
    EXPECT_EQ(texts_by_file(w),
              (std::map<std::string, Texts>{
                  {src.file("b.txt"), Texts{"b edited, so the update writes after the swap"}}}));
    trn_close(w);
}

} // namespace
