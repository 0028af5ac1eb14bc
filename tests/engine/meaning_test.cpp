/*
** meaning_test.cpp -- the two phases of an update: the words of every file are committed before
** any vector, so keyword search is complete while the vectors are still to come; and the vectors
** an update computes after a stop or a kill are the bits a clean indexing gives, without reading
** a file again.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int32_t CHUNK = 64;
constexpr int32_t OVERLAP = 8;
constexpr int FILES = 8;

/* Built by appending: GCC's restrict check flags "literal" + std::string in release builds. */
std::string joined(const char *head, int i, const char *tail)
{
    std::string s(head);
    s += std::to_string(i);
    s += tail;
    return s;
}

std::string marker(int i)
{
    return joined("marker", i, "word");
}

std::string file_name(int i)
{
    return joined("f", i, ".txt");
}

/* Files of several chunks each; file i alone holds marker(i). */
void write_tree(const TempDir &src)
{
    for (int i = 0; i < FILES; i++) {
        std::string text;
        for (int line = 0; line < 3; line++) {
            text += joined("line ", line, " of the notes about gardens and rivers\n");
        }
        text += marker(i);
        text += joined(" closes file ", i, "\n");
        write_file_text(src.file(file_name(i)), text);
    }
}

TrnEngine *open_dir(const TempDir &dir)
{
    trn_set_verbose(0);
    TrnConfig cfg = config_for(dir);
    return trn_open(&cfg);
}

/* Every live chunk's vector bits by doc_id; a pending chunk as an empty string. */
std::map<std::string, std::string> vectors_of(const TrnEngine *e)
{
    std::map<std::string, std::string> out;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk &c = e->chunks[i];
        if (!c.deleted) {
            const char *v = reinterpret_cast<const char *>(e->vectors + i * (uint64_t)e->dim);
            out[c.doc_id] = c.pending ? std::string() : std::string(v, (size_t)e->dim * 4);
        }
    }
    return out;
}

std::map<std::string, std::string> clean_index_of(const TempDir &src)
{
    TempDir index;
    TrnEngine *e = open_dir(index);
    EXPECT_GT(
        trn_update_dir(e, src.path().c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, nullptr),
        FILES);
    std::map<std::string, std::string> v = vectors_of(e);
    trn_close(e);
    return v;
}

/* Stops an update as soon as its meaning phase begins. */
bool stop_at_meaning(const char *, int32_t, int32_t, void *user)
{
    return trn_meaning_progress(static_cast<const TrnEngine *>(user), nullptr, nullptr) == 0;
}

/* Ends the process, as a kill would, once the meaning phase committed its first group. */
bool die_in_meaning(const char *, int32_t done, int32_t total, void *user)
{
    if (trn_meaning_progress(static_cast<const TrnEngine *>(user), nullptr, nullptr) == 1
        && done > 0 && done < total) {
        raise(SIGKILL); /* the next group may be embedding on another thread */
    }
    return true;
}

/* Stops an update once the meaning phase committed its first group. */
bool stop_in_meaning(const char *, int32_t done, int32_t total, void *user)
{
    return trn_meaning_progress(static_cast<const TrnEngine *>(user), nullptr, nullptr) == 0
           || done == 0 || done == total;
}

std::string first_file_of(TrnEngine *e, const std::string &query, int32_t mode)
{
    TrnResult r[4];
    int32_t n = trn_search(e, query.c_str(), mode, 4, r);
    return n > 0 && r[0].file_path ? r[0].file_path : "";
}

/* Every file is found by its marker word, whatever the vectors. */
void expect_keyword_search_complete(TrnEngine *e, const TempDir &src)
{
    for (int i = 0; i < FILES; i++) {
        const std::string want = src.file(file_name(i));
        EXPECT_EQ(first_file_of(e, marker(i), TRN_SEARCH_KEYWORD), want);
        EXPECT_EQ(first_file_of(e, marker(i), TRN_SEARCH_HYBRID), want);
    }
}

class Meaning : public ::testing::Test
{
protected:
    void SetUp() override
    {
        write_tree(src_);
        clean_ = clean_index_of(src_);
        /* Checkpoints within both phases, so that pending chunks also go through the store; files
        ** just written are not read again for their age. */
        g_checkpoint_chunks = 8;
        g_update_recent_ns = 0;
    }
    void TearDown() override
    {
        g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;
        g_update_recent_ns = 3000000000ll;
    }

    TempDir src_;
    std::map<std::string, std::string> clean_;
};

TEST_F(Meaning, KeywordSearchFindsEveryFileBeforeAnyVectorAndAfterAReopen)
{
    TempDir index;
    TrnEngine *e = open_dir(index);
    TrnUpdateReport r;
    ASSERT_GE(
        trn_update_dir(e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, stop_at_meaning, e, &r), 0);
    EXPECT_EQ(r.cancelled, 1);
    uint64_t done = 1, all = 0;
    EXPECT_EQ(trn_meaning_progress(e, &done, &all), 0);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(all, clean_.size());
    expect_keyword_search_complete(e, src_);
    /* Chunks without vectors stay out of the semantic ranking rather than scoring zero. */
    EXPECT_EQ(first_file_of(e, marker(3), TRN_SEARCH_SEMANTIC), "");
    EXPECT_EQ(first_file_of(e, marker(3), TRN_SEARCH_SEMANTIC_ALL), "");
    trn_close(e);

    e = open_dir(index);
    EXPECT_EQ(trn_meaning_progress(e, &done, &all), 0);
    EXPECT_EQ(done, 0u);
    expect_keyword_search_complete(e, src_);
    /* A file removed while its chunks wait takes them out of the count. */
    const uint64_t before = all;
    const int32_t removed = trn_remove_file(e, src_.file(file_name(0)).c_str());
    ASSERT_GT(removed, 0);
    trn_meaning_progress(e, &done, &all);
    EXPECT_EQ(all, before - (uint64_t)removed);
    EXPECT_EQ(handle_invariant_violation(e), "");
    trn_close(e);

    TrnEngine *u = open_dir(index);
    ASSERT_GE(
        trn_update_dir(u, src_.path().c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_EQ(u->files_read, 1u) << "only the file taken out of the index is read again";
    EXPECT_TRUE(vectors_of(u) == clean_);
    EXPECT_EQ(first_file_of(u, marker(3), TRN_SEARCH_KEYWORD), src_.file("f3.txt"));
    EXPECT_NE(first_file_of(u, "gardens and rivers", TRN_SEARCH_SEMANTIC), "");
    trn_close(u);
}

TEST_F(Meaning, AKillDuringTheMeaningPhaseIsFinishedByTheNextUpdateWithoutReading)
{
    TempDir index;
    pid_t child = fork();
    if (child == 0) {
        TrnEngine *e = open_dir(index);
        trn_update_dir(e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, die_in_meaning, e, nullptr);
        _exit(3); /* the meaning phase never committed a group */
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

    TrnEngine *e = open_dir(index);
    uint64_t done = 0, all = 0;
    trn_meaning_progress(e, &done, &all);
    EXPECT_GT(done, 0u);
    EXPECT_LT(done, all);
    expect_keyword_search_complete(e, src_);
    /* The vectors committed before the kill are already a clean index's. */
    std::map<std::string, std::string> partial = vectors_of(e);
    for (const auto &[id, bits] : partial) {
        EXPECT_TRUE(bits.empty() || bits == clean_.at(id)) << id;
    }
    ASSERT_GE(
        trn_update_dir(e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_EQ(e->files_read, 0u);
    EXPECT_TRUE(vectors_of(e) == clean_);
    trn_close(e);
}

// With two workers the next group is embedding while one is committed: a stop then leaves that
// group pending, with no vector half set, and the next update gives it a clean index's bits.
TEST_F(Meaning, AStopWithTheNextGroupEmbeddingKeepsWhatWasCommitted)
{
    TempDir index;
    TrnEngine *e = open_dir(index);
    e->embed_threads = 2;
    TrnUpdateReport r;
    ASSERT_GE(
        trn_update_dir(e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, stop_in_meaning, e, &r), 0);
    EXPECT_EQ(r.cancelled, 1);
    uint64_t done = 0, all = 0;
    EXPECT_EQ(trn_meaning_progress(e, &done, &all), 0);
    EXPECT_GT(done, 0u);
    EXPECT_LT(done, all);
    for (const auto &[id, bits] : vectors_of(e)) {
        EXPECT_TRUE(bits.empty() || bits == clean_.at(id)) << id;
    }
    ASSERT_GE(
        trn_update_dir(e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_TRUE(vectors_of(e) == clean_);
    trn_close(e);
}

// Another handle drops the first file and compacts after the first group: every chunk still to
// embed moves to another slot, some below where the meaning phase has got to, and yet each ends
// with the vector of its own text and none stays pending.
TEST_F(Meaning, ACompactionBetweenGroupsLeavesEveryChunkTheVectorOfItsOwnText)
{
    TempDir index;
    struct Other {
        const TempDir *index;
        std::string path;
        TrnEngine *e;
        bool compacted;
    } other{&index, src_.file(file_name(0)), open_dir(index), false};
    auto compact_once = [](const char *, int32_t done, int32_t total, void *user) {
        Other *o = static_cast<Other *>(user);
        if (!o->compacted && trn_meaning_progress(o->e, nullptr, nullptr) == 1 && done > 0
            && done < total) {
            o->compacted = true;
            TrnEngine *b = open_dir(*o->index);
            EXPECT_EQ(unlink(o->path.c_str()), 0);
            EXPECT_GT(trn_remove_file(b, o->path.c_str()), 0);
            EXPECT_EQ(trn_compact(b), 1);
            trn_close(b);
        }
        return true;
    };
    ASSERT_GE(
        trn_update_dir(
            other.e, src_.path().c_str(), CHUNK, OVERLAP, nullptr, compact_once, &other, nullptr),
        0);
    ASSERT_TRUE(other.compacted);
    uint64_t done = 0, all = 0;
    trn_meaning_progress(other.e, &done, &all);
    EXPECT_EQ(done, all);
    EXPECT_EQ(all, clean_.size() - 4); /* the first file's four chunks are gone */
    for (const auto &[id, bits] : vectors_of(other.e)) {
        EXPECT_EQ(bits, clean_.at(id)) << id;
    }
    trn_close(other.e);
}

} // namespace
