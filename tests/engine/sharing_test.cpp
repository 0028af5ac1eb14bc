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

TEST(SharedIndex, LongIndexingCheckpointsSoRecoveryReembedsAFewChunksOnly)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    g_checkpoint_chunks = 3;
    TrnEngine *e = trn_open(&cfg);
    for (int i = 0; i < 7; i++) {
        std::string path = "/c/n" + std::to_string(i) + ".txt";
        ASSERT_EQ(trn_ingest_text(e, path.c_str(), "a note", 800, 200), 1);
    }
    g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;
    EXPECT_EQ(e->wal_chunks, 2u);
    /* Killed here: the store holds six chunks, the log the seventh's text and vector. */
    TrnEngine *reader = trn_open(&cfg);
    EXPECT_EQ(reader->count, 7u);
    EXPECT_EQ(reader->wal_chunks, 2u);
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
    ASSERT_EQ(trn_ingest_text(w, "/r/c.txt", "c added meanwhile", 800, 200), 1);
    ASSERT_EQ(trn_ingest_text(w, "/r/b.txt", "b after its edit", 800, 200), 1);
    /* Its checkpoints leave the log to the rebuild. */
    ASSERT_EQ(trn_checkpoint(w), 1);
    trn_close(w);
    ASSERT_EQ(trn_checkpoint(r), 1);
    trn_close(r);

    TrnEngine *e = trn_open(&cfg);
    using Texts = std::vector<std::string>;
    EXPECT_EQ(texts_by_file(e),
              (std::map<std::string, Texts>{{"/r/a.txt", Texts{"a as the rebuild read it"}},
                                            {"/r/b.txt", Texts{"b after its edit"}},
                                            {"/r/c.txt", Texts{"c added meanwhile"}}}));
    /* The next writer folds the log again. */
    ASSERT_EQ(trn_ingest_text(e, "/r/d.txt", "after the swap", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(e), 1);
    EXPECT_EQ(read_file_bytes(dir.file("tarnwick.wal")).size(), 0u);
    trn_close(e);
}

} // namespace
