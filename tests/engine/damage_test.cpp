/*
** damage_test.cpp -- damage to an index's files is refused, never read as a smaller index: every
** byte of the commit record, the log's groups, an empty store, a lost commit record and a log
** copied in from another index.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace
{

class Damage : public testing::Test
{
protected:
    static void SetUpTestSuite() { encoder_init(&encoder_, 42); }
    static void TearDownTestSuite() { encoder_release(&encoder_); }

    /* The files of an index just after its first checkpoint with two files logged since, as
    ** bytes: a crash now would leave them so. */
    static std::map<std::string, std::vector<uint8_t>> fresh_index(const TempDir &dir)
    {
        TrnConfig cfg = config_for(dir);
        TrnEngine *e = trn_open(&cfg);
        EXPECT_EQ(trn_ingest_text(e, "/d/one.txt", "the first file of the index", 800, 200), 1);
        EXPECT_EQ(trn_ingest_text(e, "/d/two.txt", "the second file, logged after it", 800, 200),
                  1);
        std::map<std::string, std::vector<uint8_t>> files;
        for (const char *name : {"tarnwick.bin", "tarnwick.commit", "tarnwick.wal"}) {
            files[name] = read_file_bytes(dir.file(name));
        }
        trn_close(e);
        return files;
    }
    void put(const std::map<std::string, std::vector<uint8_t>> &files)
    {
        for (const char *name : {"tarnwick.bin", "tarnwick.commit", "tarnwick.wal"}) {
            unlink(dir_.file(name).c_str());
            auto found = files.find(name);
            if (found != files.end()) {
                write_file_bytes(dir_.file(name), found->second.data(), found->second.size());
            }
        }
    }
    /* The live chunks' paths as a load reads them, or "refused". */
    std::string load()
    {
        TrnEngine *e = bare_engine(&encoder_);
        bare_engine_on_dir(e, dir_.path());
        std::string paths = index_load(e) ? "" : "refused";
        for (uint64_t i = 0; i < e->count; i++) {
            paths += e->chunks[i].deleted ? "" : std::string(e->chunks[i].file_path) + " ";
        }
        memset(&e->encoder, 0, sizeof e->encoder);
        free_bare_engine(e);
        return paths;
    }

    static TrnEncoder encoder_;
    TempDir dir_;
};

TrnEncoder Damage::encoder_;

/* A first store cut to nothing read as an empty index; without its commit record a store loaded
** silently as an older version's; another index's log copied in was replayed. */
TEST_F(Damage, LostRecordEmptyStoreAndForeignLogAreRefused)
{
    const auto good = fresh_index(dir_);
    put(good);
    ASSERT_EQ(load(), "/d/one.txt /d/two.txt ");

    auto files = good;
    files["tarnwick.bin"].clear();
    put(files);
    EXPECT_EQ(load(), "refused") << "empty store";

    files = good;
    files.erase("tarnwick.commit");
    put(files);
    EXPECT_EQ(load(), "refused") << "no commit record";
    files.erase("tarnwick.bin");
    put(files);
    EXPECT_EQ(load(), "refused") << "a log of groups alone";

    TempDir other;
    files = good;
    files["tarnwick.wal"] = fresh_index(other)["tarnwick.wal"];
    ASSERT_EQ(files["tarnwick.wal"].size(), good.at("tarnwick.wal").size());
    put(files);
    EXPECT_EQ(load(), "refused") << "another index's log";
}

/* Every byte of the commit record, and of the log up to its last group, flipped in turn: each
** is refused or changes nothing. (A flip in the last group reads as the torn tail a crash
** leaves, which is cut.) */
TEST_F(Damage, EveryByteOfTheCommitRecordAndTheLoggedGroupsIsChecked)
{
    const auto good = fresh_index(dir_);
    const std::vector<uint8_t> &wal = good.at("tarnwick.wal");
    /* Where each group ends: after its 'C' record (op, length 8, eight hex digits). */
    std::vector<size_t> ends;
    for (size_t i = 0; i + 13 <= wal.size(); i++) {
        if (wal[i] == 'C' && wal[i + 1] == 8 && wal[i + 2] == 0) {
            ends.push_back(i + 13);
        }
    }
    ASSERT_EQ(ends.size(), 2u);
    ASSERT_EQ(ends[1], wal.size());
    const size_t last_group = ends[0];
    int refused = 0;
    for (const char *name : {"tarnwick.commit", "tarnwick.wal"}) {
        size_t end = strcmp(name, "tarnwick.wal") == 0 ? last_group : good.at(name).size();
        for (size_t at = 0; at < end; at++) {
            auto files = good;
            files[name][at] ^= 0x04;
            put(files);
            std::string got = load();
            EXPECT_TRUE(got == "refused" || got == "/d/one.txt /d/two.txt ")
                << name << " byte " << at << ": " << got;
            refused += got == "refused" ? 1 : 0;
        }
    }
    EXPECT_GT(refused, 64);
}

} // namespace
