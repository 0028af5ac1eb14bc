/*
** docindex_test.cpp -- the per-file views: document index, removal and its graph rebuild,
** compaction, statistics and the file list.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace
{

class DocIndex : public testing::Test
{
protected:
    void SetUp() override { open_engine(""); }
    void TearDown() override { trn_close(e_); }

    void open_engine(const std::string &index_dir)
    {
        TrnConfig cfg = {};
        cfg.index_dir = index_dir.c_str();
        e_ = trn_open(&cfg);
    }
    /* n chunks of 4 bytes each for path. */
    void ingest_chunks(const char *path, int n, char fill)
    {
        std::string text;
        for (int i = 0; i < n; i++) {
            text += std::string(3, fill) + (char)('0' + i);
        }
        ASSERT_EQ(trn_ingest_text(e_, path, text.c_str(), 4, 0), n);
    }
    bool node_has_links(uint64_t slot) const
    {
        for (int l = 0; l < TRN_MAX_LEVELS; l++) {
            if (e_->nodes[slot].count[l] > 0) {
                return true;
            }
        }
        return false;
    }

    TrnEngine *e_ = nullptr;
};

TEST_F(DocIndex, RemovalRebuildsTheGraphOnlyWhenMoreThanHalfIsDeleted)
{
    ingest_chunks("/r/a.txt", 5, 'a');
    ingest_chunks("/r/b.txt", 1, 'b');
    ingest_chunks("/r/c.txt", 4, 'c');
    ASSERT_EQ(e_->count, 10u);

    EXPECT_EQ(trn_remove_file(e_, "/r/a.txt"), 5);
    EXPECT_EQ(e_->deleted_count, 5u);
    /* 10 < 2 * 5 is false: the graph is left as it was, dead nodes still linked. */
    bool dead_linked = false;
    for (uint64_t i = 0; i < 5; i++) {
        EXPECT_EQ(e_->chunks[i].deleted, 1);
        dead_linked = dead_linked || node_has_links(i);
    }
    EXPECT_TRUE(dead_linked);

    EXPECT_EQ(trn_remove_file(e_, "/r/b.txt"), 1);
    /* 10 < 12: rebuilt, and a rebuild leaves deleted nodes at level 0 without lists. */
    for (uint64_t i = 0; i < 6; i++) {
        EXPECT_FALSE(node_has_links(i)) << "slot " << i;
        EXPECT_EQ(e_->nodes[i].level, 0);
    }
    ASSERT_GE(e_->graph[0].entry_point, 6);
    EXPECT_FALSE(e_->chunks[e_->graph[0].entry_point].deleted);

    EXPECT_EQ(trn_remove_file(e_, "/r/a.txt"), 0);
    EXPECT_EQ(trn_remove_file(e_, "/r/unknown.txt"), 0);
    EXPECT_EQ(trn_remove_file(e_, nullptr), 0);
    EXPECT_EQ(e_->deleted_count, 6u);
}

TEST_F(DocIndex, CompactionRenumbersSurvivorsInOrderAndCheckpoints)
{
    TempDir dir;
    trn_close(e_);
    open_engine(dir.path());
    ingest_chunks("/k/a.txt", 2, 'a');
    ingest_chunks("/k/b.txt", 2, 'b');
    ingest_chunks("/k/c.txt", 1, 'c');
    ASSERT_EQ(trn_remove_file(e_, "/k/b.txt"), 2);
    ASSERT_GT(file_size(dir.file("tarnwick.wal")), 0);

    EXPECT_EQ(trn_compact(e_), 1);
    ASSERT_EQ(e_->count, 3u);
    EXPECT_EQ(e_->capacity, 3u);
    EXPECT_EQ(e_->deleted_count, 0u);
    EXPECT_STREQ(e_->chunks[0].text, "aaa0");
    EXPECT_STREQ(e_->chunks[1].text, "aaa1");
    EXPECT_STREQ(e_->chunks[2].text, "ccc0");
    EXPECT_EQ(e_->file_count, 2);
    EXPECT_STREQ(e_->file_names[1], "/k/c.txt");
    EXPECT_EQ(file_size(dir.file("tarnwick.wal")), 0);
    EXPECT_EQ(handle_invariant_violation(e_), "");

    /* The compacted store is what a reopen sees. */
    trn_close(e_);
    open_engine(dir.path());
    ASSERT_EQ(e_->count, 3u);
    EXPECT_STREQ(e_->chunks[2].doc_id, "/k/c.txt:0");
}

TEST_F(DocIndex, CompactingEverythingLeavesAnEmptyGraphAndAHeaderOnlyStore)
{
    TempDir dir;
    trn_close(e_);
    open_engine(dir.path());
    ingest_chunks("/z/a.txt", 3, 'a');
    ASSERT_EQ(trn_remove_file(e_, "/z/a.txt"), 3);
    EXPECT_EQ(trn_compact(e_), 1);
    EXPECT_EQ(e_->count, 0u);
    EXPECT_EQ(e_->capacity, 0u);
    EXPECT_EQ(e_->graph[0].entry_point, -1);
    EXPECT_EQ(e_->graph[0].max_level, -1);
    EXPECT_EQ(e_->file_count, 0);
    EXPECT_EQ(file_size(dir.file("tarnwick.bin")), 96);
    /* The empty handle still takes new chunks. */
    ingest_chunks("/z/b.txt", 2, 'b');
    EXPECT_EQ(e_->count, 2u);
    EXPECT_NE(e_->graph[0].entry_point, -1); /* either chunk, by their drawn levels */
}

TEST_F(DocIndex, CentroidsAreUnitMeansOfLiveChunksInFirstAppearanceOrder)
{
    ingest_chunks("/c/x.txt", 3, 'x');
    ingest_chunks("/c/y.txt", 2, 'y');
    add_doc_mem(e_, "no path", "pathless", nullptr, 0, 1, TRN_FILE_TYPE_TEXT);
    ingest_chunks("/c/x.txt", 1, 'q'); /* x again, after y */
    ASSERT_EQ(trn_build_doc_index(e_), 2);
    EXPECT_STREQ(e_->file_names[0], "/c/x.txt");
    EXPECT_STREQ(e_->file_names[1], "/c/y.txt");
    EXPECT_EQ(e_->file_chunk_counts[0], 4);
    EXPECT_EQ(e_->file_chunk_counts[1], 2);

    const uint64_t x_slots[] = {0, 1, 2, 6};
    std::vector<double> mean(512, 0.0);
    for (uint64_t s : x_slots) {
        for (int i = 0; i < 512; i++) {
            mean[i] += e_->vectors[s * 512 + i] / 4.0;
        }
    }
    double norm = 0.0;
    for (double v : mean) {
        norm += v * v;
    }
    norm = std::sqrt(norm);
    for (int i = 0; i < 512; i++) {
        ASSERT_NEAR(e_->centroids[i], mean[i] / norm, 1e-5) << "element " << i;
    }

    /* The index is a snapshot: removal does not change it until the next build. */
    ASSERT_EQ(trn_remove_file(e_, "/c/y.txt"), 2);
    EXPECT_EQ(e_->file_count, 2);
    EXPECT_EQ(trn_build_doc_index(e_), 1);
    trn_free_doc_index(e_);
    EXPECT_EQ(e_->file_count, 0);
    EXPECT_EQ(e_->file_names, nullptr);
    EXPECT_EQ(e_->centroids, nullptr);
}

TEST_F(DocIndex, ChunksWithoutPathsBuildAnEmptyIndex)
{
    EXPECT_EQ(trn_build_doc_index(e_), 0);
    add_doc_mem(e_, "a", "first", nullptr, 0, 1, 0);
    add_doc_mem(e_, "b", "second", nullptr, 1, 1, 0);
    EXPECT_EQ(trn_build_doc_index(e_), 0);
    EXPECT_EQ(e_->file_count, 0);
    EXPECT_EQ(e_->centroids, nullptr);
}

TEST_F(DocIndex, StatsCountFilesByChunkZeroUntilAnIndexIsBuilt)
{
    ingest_chunks("/s/a.txt", 3, 'a');
    ingest_chunks("/s/b.txt", 1, 'b');
    TrnStats s = trn_stats(e_);
    EXPECT_EQ(s.chunk_count, 4u);
    EXPECT_EQ(s.file_count, 2u);
    EXPECT_EQ(s.deleted_count, 0u);
    EXPECT_EQ(s.max_level, e_->graph[0].max_level);
    EXPECT_EQ(s.dim, 512);

    trn_remove_file(e_, "/s/b.txt");
    s = trn_stats(e_);
    EXPECT_EQ(s.file_count, 1u);
    EXPECT_EQ(s.deleted_count, 1u);
    EXPECT_EQ(s.chunk_count, 4u);

    ingest_chunks("/s/c.txt", 2, 'c');
    ASSERT_EQ(trn_build_doc_index(e_), 2);
    add_doc_mem(e_, "/s/d.txt:0", "not in the index yet", "/s/d.txt", 0, 1, 0);
    EXPECT_EQ(trn_stats(e_).file_count, 2u); /* the index wins once it has a file */
}

TEST_F(DocIndex, FileListShowsEveryRegularFileWithItsLiveChunks)
{
    TempDir dir;
    write_file_text(dir.file("a.txt"), "0123456789abcdefghij");
    write_file_text(dir.file("pic.png"), "PNG!");
    write_file_text(dir.file("sub/n.md"), "# notes");
    write_file_text(dir.file(".hidden.txt"), "hidden");
    write_file_text(dir.file(".tarnwick/tarnwick.bin"), "store");
    ASSERT_EQ(trn_ingest_file(e_, dir.file("a.txt").c_str(), 4, 0), 5);
    ASSERT_EQ(trn_build_doc_index(e_), 1);

    TrnFileList *list = trn_list_dir_files(e_, dir.path().c_str());
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 3);
    const TrnFileInfo *a = nullptr, *png = nullptr, *md = nullptr;
    for (int32_t i = 0; i < list->count; i++) {
        const TrnFileInfo *f = &list->entries[i];
        EXPECT_STREQ(f->name, strrchr(f->path, '/') + 1);
        std::string name = f->name;
        (name == "a.txt" ? a : name == "pic.png" ? png : md) = f;
    }
    ASSERT_TRUE(a && png && md);
    EXPECT_EQ(a->path, dir.file("a.txt"));
    EXPECT_EQ(a->chunk_count, 5u);
    EXPECT_EQ(a->indexed, 1);
    EXPECT_EQ(a->size, 20);
    EXPECT_EQ(a->type, (TrnFileType)TRN_FILE_TYPE_TEXT);
    EXPECT_EQ(png->type, (TrnFileType)TRN_FILE_TYPE_BINARY);
    EXPECT_EQ(png->indexed, 0);
    EXPECT_EQ(md->path, dir.file("sub/n.md"));
    EXPECT_EQ(md->type, (TrnFileType)TRN_FILE_TYPE_MARKDOWN);
    trn_free_file_list(list);

    /* A removed file shows no chunks at once, though the document index still names it. */
    trn_remove_file(e_, dir.file("a.txt").c_str());
    list = trn_list_dir_files(e_, dir.path().c_str());
    for (int32_t i = 0; i < list->count; i++) {
        EXPECT_EQ(list->entries[i].chunk_count, 0u);
        EXPECT_EQ(list->entries[i].indexed, 0);
    }
    EXPECT_EQ(e_->file_count, 1);
    trn_free_file_list(list);

    list = trn_list_dir_files(nullptr, dir.path().c_str());
    EXPECT_EQ(list->count, 3);
    trn_free_file_list(list);
    list = trn_list_dir_files(e_, dir.file("absent").c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->count, 0);
    trn_free_file_list(list);
    trn_free_file_list(nullptr);
}

TEST(DocIndexList, ListGrowsPast256Entries)
{
    TempDir dir;
    for (int i = 0; i < 300; i++) {
        char name[32];
        snprintf(name, sizeof name, "f%d.txt", i);
        write_file_text(dir.file(name), "x");
    }
    TrnFileList *list = trn_list_dir_files(nullptr, dir.path().c_str());
    ASSERT_EQ(list->count, 300);
    std::vector<bool> seen(300, false);
    for (int32_t i = 0; i < list->count; i++) {
        int n = atoi(list->entries[i].name + 1);
        ASSERT_TRUE(n >= 0 && n < 300);
        seen[n] = true;
        EXPECT_EQ(list->entries[i].size, 1);
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 300);
    trn_free_file_list(list);
}

} // namespace
