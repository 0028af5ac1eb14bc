/*
** damage_test.cpp -- damage to an index's files is refused, never read as a smaller index: every
** byte, cut and loss of the commit record and of the committed log, an empty store, a lost commit
** record and a log copied in from another index. Only groups after the committed log (a crash
** between the log's sync and the commit record's update) are read as the log's checksums allow.
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

    using Files = std::map<std::string, std::vector<uint8_t>>;
    /* The files of an index after its first checkpoint and then after each file logged since,
    ** as bytes: a crash at any of those points would leave them so. */
    static std::vector<Files> logged_states(const TempDir &dir)
    {
        TrnConfig cfg = config_for(dir);
        TrnEngine *e = trn_open(&cfg);
        std::vector<Files> states;
        const char *texts[] = {"the first file of the index",
                               "the second file, logged after it",
                               "a third one after those"};
        for (int i = 0; i < 3; i++) {
            std::string path = "/d/" + std::to_string(i + 1) + ".txt";
            EXPECT_EQ(trn_ingest_text(e, path.c_str(), texts[i], 800, 200), 1);
            Files files;
            for (const char *name : {"tarnwick.bin", "tarnwick.commit", "tarnwick.wal"}) {
                files[name] = read_file_bytes(dir.file(name));
            }
            states.push_back(files);
        }
        trn_close(e);
        return states;
    }
    static Files fresh_index(const TempDir &dir) { return logged_states(dir)[1]; }
    void put(const Files &files)
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
        memset(&e->encoder, 0, sizeof e->encoder);
        for (uint64_t i = 0; i < e->count; i++) {
            paths += e->chunks[i].deleted ? "" : std::string(e->chunks[i].file_path) + " ";
        }
        free_bare_engine(e);
        return paths;
    }
    /* How many bytes of the log a load would replay (checked, not applied), or -1: refused. */
    int64_t replayed()
    {
        TrnEngine *e = bare_engine(&encoder_);
        bare_engine_on_dir(e, dir_.path());
        int64_t end = index_load(e, false) ? (int64_t)e->wal_end : -1;
        memset(&e->encoder, 0, sizeof e->encoder);
        free_bare_engine(e);
        return end;
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
    ASSERT_EQ(load(), "/d/1.txt /d/2.txt ");

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

/* Every byte flipped, every cut, zeroes over all of it, and the file deleted, of the commit record
** and of a log whose groups are all committed: each is refused. Before the commit record said how
** long the committed log was, a cut, emptied or deleted log, or a flip in its last group, read as
** an index without the files logged last. */
TEST_F(Damage, EveryDamageOfTheCommitRecordOrTheCommittedLogIsRefused)
{
    const Files good = fresh_index(dir_);
    int loads = 0;
    for (const char *name : {"tarnwick.commit", "tarnwick.wal"}) {
        const std::vector<uint8_t> &bytes = good.at(name);
        std::vector<Files> damaged;
        for (size_t at = 0; at < bytes.size(); at++) {
            damaged.push_back(good);
            damaged.back()[name][at] ^= 0x04;
            damaged.push_back(good);
            damaged.back()[name].resize(at);
        }
        damaged.push_back(good);
        std::fill(damaged.back()[name].begin(), damaged.back()[name].end(), 0);
        damaged.push_back(good);
        damaged.back().erase(name);
        for (size_t i = 0; i < damaged.size(); i++) {
            put(damaged[i]);
            ASSERT_EQ(load(), "refused") << name << " damage " << i;
            loads++;
        }
    }
    EXPECT_GT(loads, 400);
}

/* A crash after the log's sync and before the commit record's update leaves a whole group after
** the committed log: it is kept, and a torn one is cut, at every length, as are flips in it. */
TEST_F(Damage, GroupsAfterTheCommittedLogAreKeptWholeAndCutWhenTorn)
{
    const std::vector<Files> states = logged_states(dir_);
    Files crashed = states[2];
    crashed["tarnwick.commit"] = states[1].at("tarnwick.commit");
    put(crashed);
    EXPECT_EQ(load(), "/d/1.txt /d/2.txt /d/3.txt ");
    const int64_t committed = (int64_t)states[1].at("tarnwick.wal").size();
    const std::vector<uint8_t> &wal = crashed.at("tarnwick.wal");
    for (size_t at = (size_t)committed; at < wal.size(); at++) {
        Files torn = crashed;
        torn["tarnwick.wal"].resize(at);
        put(torn);
        ASSERT_EQ(replayed(), committed) << "cut at " << at;
        torn = crashed;
        torn["tarnwick.wal"][at] ^= 0x04;
        put(torn);
        int64_t got = replayed();
        ASSERT_TRUE(got == -1 || got == committed) << "flip at " << at << ": " << got;
    }

    /* A record of version 2 names no committed log and still loads, with what its log holds. */
    Files older = states[1];
    std::vector<uint8_t> &record = older["tarnwick.commit"];
    record.resize(64);
    record[4] = 2;
    uint32_t check = crc32_update(0, record.data(), 60);
    memcpy(record.data() + 60, &check, 4);
    put(older);
    EXPECT_EQ(load(), "/d/1.txt /d/2.txt ");
}

} // namespace
