/*
** folder_move_test.cpp -- an index kept in its folder names the folder's files relative to it:
** after the folder is moved or copied, its index answers with the new paths, an update reads and
** embeds nothing that did not change, and an index an older version wrote with full paths is
** rewritten once, when it is opened.
*/
#include "probe.h"
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <map>

#include <spawn.h>
#include <sys/wait.h>

namespace
{

constexpr int32_t CHUNK = 64;
constexpr int32_t OVERLAP = 8;

TrnEngine *open_folder(const std::string &folder)
{
    trn_set_verbose(0);
    const std::string index = folder + "/.tarnwick";
    mkdir(index.c_str(), 0700);
    TrnConfig cfg = {};
    cfg.index_dir = index.c_str();
    return trn_open(&cfg);
}

TrnUpdateReport update(TrnEngine *e, const std::string &folder)
{
    TrnUpdateReport r = {};
    EXPECT_GE(trn_update_dir(e, folder.c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, &r), 0);
    return r;
}

/* Live chunks by "doc_id below the folder|line|text", each with its vector: the same key and
** vector after a move means the chunk was kept, not embedded again. A chunk outside the folder
** gets a key starting with "outside:". */
std::map<std::string, std::vector<float>> chunks_below(const TrnEngine *e,
                                                       const std::string &folder)
{
    std::map<std::string, std::vector<float>> out;
    const std::string prefix = folder + "/";
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk &c = e->chunks[i];
        if (c.deleted) {
            continue;
        }
        std::string id = c.doc_id;
        std::string path = c.file_path ? c.file_path : "";
        bool below = id.rfind(prefix, 0) == 0 && path.rfind(prefix, 0) == 0;
        std::string key;
        if (below) {
            key = id.substr(prefix.size());
        } else {
            key.append("outside:").append(id).append("|").append(path);
        }
        key.append("|").append(std::to_string(c.line_number)).append("|").append(c.text);
        out[key] = std::vector<float>(e->vectors + i * (uint64_t)e->dim,
                                      e->vectors + (i + 1) * (uint64_t)e->dim);
    }
    return out;
}

void copy_tree(const std::string &from, const std::string &to)
{
    const char *argv[] = {"cp", "-a", from.c_str(), to.c_str(), nullptr};
    pid_t pid;
    ASSERT_EQ(posix_spawnp(&pid, "cp", nullptr, nullptr, const_cast<char **>(argv), environ), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

void write_tree(const std::string &folder)
{
    std::string text;
    for (int i = 0; i < 6; i++) {
        text += "paragraph " + std::to_string(i) + " of the moving folder\n";
    }
    write_file_text(folder + "/a.txt", text);
    write_file_text(folder + "/sub/b.md", "# notes\nkestrel sightings by the river bank\n");
    write_file_text(folder + "/sub/deeper/c.txt", "the last file, about heron nests\n");
}

bool contains(const std::vector<uint8_t> &bytes, const std::string &s)
{
    return std::search(bytes.begin(), bytes.end(), s.begin(), s.end()) != bytes.end();
}

/* Indexes a folder, moves (or copies) it and checks that the index at the new place answers with
** the new paths and that updating it writes no chunk again. */
void check_index_follows_folder(bool copy)
{
    g_update_recent_ns = 0; /* the files are written a moment before they are read */
    TempDir tmp;
    const std::string a = tmp.file("docs"), b = tmp.file("docs moved");
    write_tree(a);
    TrnEngine *e = open_folder(a);
    EXPECT_EQ(update(e, a).added, 3);
    /* A file of another folder in the same index keeps its full path wherever this one goes. */
    ASSERT_EQ(trn_ingest_text(e, "/elsewhere/x.txt", "an outside note", CHUNK, OVERLAP), 1);
    trn_close(e);
    /* One more file stays in the log only, as after a crash. */
    write_file_text(a + "/d.txt", "osprey over the lake, logged but not checkpointed\n");
    e = open_folder(a);
    EXPECT_EQ(update(e, a).added, 1);
    const auto before = chunks_below(e, a);
    probe_close_unwritten(e);

    if (copy) {
        copy_tree(a, b);
    } else {
        ASSERT_EQ(rename(a.c_str(), b.c_str()), 0);
    }
    e = open_folder(b);
    EXPECT_EQ(chunks_below(e, b), before);
    TrnResult hit[2];
    ASSERT_EQ(trn_search(e, "kestrel", TRN_SEARCH_TEXT, 2, hit), 1);
    EXPECT_EQ(std::string(hit[0].file_path), b + "/sub/b.md");
    ASSERT_EQ(trn_search(e, "osprey", TRN_SEARCH_KEYWORD, 2, hit), 1);
    EXPECT_EQ(std::string(hit[0].file_path), b + "/d.txt");

    const uint64_t slots = e->count, read_before = e->files_read;
    TrnUpdateReport r = update(e, b);
    EXPECT_EQ(r.added + r.changed + r.removed + r.chunks_added, 0);
    EXPECT_EQ(r.unchanged, 4);
    EXPECT_EQ(e->count, slots) << "no chunk was written again";
    /* mv keeps the files' inodes and times, so none is even read; a copy has new inodes. */
    EXPECT_EQ(e->files_read - read_before, copy ? 4u : 0u);
    EXPECT_EQ(chunks_below(e, b), before);

    ASSERT_EQ(unlink((b + "/sub/b.md").c_str()), 0);
    r = update(e, b);
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(trn_search(e, "kestrel", TRN_SEARCH_TEXT, 2, hit), 0);
    trn_close(e);

    if (copy) { /* the original keeps its own index and paths */
        e = open_folder(a);
        ASSERT_EQ(trn_search(e, "kestrel", TRN_SEARCH_TEXT, 2, hit), 1);
        EXPECT_EQ(std::string(hit[0].file_path), a + "/sub/b.md");
        trn_close(e);
    }
}

} // namespace

TEST(FolderMove, MovedFolderAnswersWithItsNewPathsAndIsNotReadAgain)
{
    check_index_follows_folder(false);
}

TEST(FolderMove, CopiedFolderAnswersWithItsOwnPathsWithoutEmbeddingAgain)
{
    check_index_follows_folder(true);
}

/* An older version wrote every path whole (store and manifest version 1, no commit record yet):
** opening the index rewrites both once with relative paths, keeping every chunk, even when it is
** only searched, and the folder can move from then on. */
TEST(FolderMove, IndexWrittenWithFullPathsIsRewrittenOnceWhenOpened)
{
    g_update_recent_ns = 0;
    TempDir tmp;
    const std::string a = tmp.file("docs"), b = tmp.file("renamed");
    write_tree(a);
    TrnEngine *e = open_folder(a);
    e->folder[0] = '\0'; /* writes every path whole, as the older version did */
    EXPECT_EQ(update(e, a).added, 3);
    std::vector<uint8_t> store = legacy_store_bytes(e, 1).b;
    trn_close(e);
    const std::string index = a + "/.tarnwick";
    std::vector<uint8_t> files = read_file_bytes(index + "/tarnwick.files");
    ASSERT_TRUE(contains(store, a + "/sub/b.md"));
    ASSERT_GT(files.size(), 28u);
    files[4] = 1;
    uint32_t crc = crc32_update(0, files.data(), files.size() - 4);
    memcpy(files.data() + files.size() - 4, &crc, 4);
    write_file_bytes(index + "/tarnwick.bin", store.data(), store.size());
    write_file_bytes(index + "/tarnwick.files", files.data(), files.size());
    unlink((index + "/tarnwick.commit").c_str());
    unlink((index + "/tarnwick.lex").c_str());

    e = open_folder(a);
    const auto before = chunks_below(e, a);
    ASSERT_EQ(before.size(), e->count);
    TrnResult hit[4];
    EXPECT_GT(trn_search(e, "kestrel", TRN_SEARCH_TEXT, 4, hit), 0);
    trn_close(e);
    store = read_file_bytes(index + "/tarnwick.bin");
    files = read_file_bytes(index + "/tarnwick.files");
    EXPECT_EQ(store[4], 6);
    EXPECT_EQ(files[4], 2);
    EXPECT_FALSE(contains(store, a + "/")) << "no full path is left in the store";
    EXPECT_FALSE(contains(files, a + "/")) << "nor in the manifest";
    struct stat converted, reopened;
    ASSERT_EQ(stat((index + "/tarnwick.bin").c_str(), &converted), 0);
    trn_close(open_folder(a));
    ASSERT_EQ(stat((index + "/tarnwick.bin").c_str(), &reopened), 0);
    EXPECT_EQ(reopened.st_ino, converted.st_ino) << "converted once";

    ASSERT_EQ(rename(a.c_str(), b.c_str()), 0);
    e = open_folder(b);
    EXPECT_EQ(chunks_below(e, b), before);
    TrnUpdateReport r = update(e, b);
    EXPECT_EQ(r.unchanged, 3);
    EXPECT_EQ(e->files_read, 0u);
    trn_close(e);
}
