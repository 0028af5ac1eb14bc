/*
** commit_test.cpp -- sharing an index directory, with waits and other processes (slow by design):
** readers that leave every file alone, the commit record's checksum and a rebuild beside a
** damaged index, the lock's timeout, writers that readers cannot starve, racing processes.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>

namespace
{

const std::string CRASH_DRIVER = std::string(TRN_BIN_DIR) + "/../tests/trn_crash_driver";

/* Every file of dir with its bytes and modification time. */
std::map<std::string, std::pair<std::vector<uint8_t>, long>> snapshot(const TempDir &dir)
{
    std::map<std::string, std::pair<std::vector<uint8_t>, long>> files;
    for (const std::string &name : dir_names(dir.path())) {
        struct stat st;
        stat(dir.file(name).c_str(), &st);
        files[name] = {read_file_bytes(dir.file(name)),
                       st.st_mtim.tv_sec * 1000000000L + st.st_mtim.tv_nsec};
    }
    return files;
}

/* Runs the driver with args, standard output to out, and returns the pid. */
pid_t start_driver(std::vector<std::string> args, const std::string &out)
{
    args.insert(args.begin(), CRASH_DRIVER);
    return spawn_child(args, out, "/dev/null");
}

int run_driver(const std::vector<std::string> &args, const std::string &out)
{
    int status = 0;
    waitpid(start_driver(args, out), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SharedIndex, AHandleThatOnlyReadsLeavesEveryFileByteIdenticalWithItsTime)
{
    TempDir dir;
    TempDir out;
    /* A store, and a log with an ingestion and a removal, as a killed writer leaves them. */
    ASSERT_EQ(run_driver({dir.path(), "setup"}, out.file("setup")), 0);
    TrnConfig cfg = config_for(dir);
    for (int round = 0; round < 3; round++) {
        /* Round 0 replays the log, which its close may fold into the store; then nothing. */
        const auto before = snapshot(dir);
        usleep(20000); /* so a rewrite would show in the modification time */
        TrnEngine *reader = trn_open(&cfg);
        TrnResult hits[8];
        EXPECT_EQ(trn_search(reader, "one", TRN_SEARCH_TEXT, 8, hits), 2);
        trn_free_file_list(trn_list_dir_files(reader, dir.path().c_str()));
        (void)trn_stats(reader);
        if (round == 2) {
            EXPECT_EQ(trn_checkpoint(reader), 1);
        }
        trn_close(reader);
        if (round > 0) {
            EXPECT_TRUE(snapshot(dir) == before) << "round " << round;
        }
    }
}

TEST(SharedIndex, EveryDamagedByteOfTheStoreOrCommitRecordIsRefused)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/d/a.txt", "one small chunk", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(e), 1);
    trn_close(e);
    for (const char *name : {"tarnwick.bin", "tarnwick.commit"}) {
        const std::vector<uint8_t> good = read_file_bytes(dir.file(name));
        /* A store's vectors are checked when they are first read (store_mapped_test). */
        uint64_t checked_at_open = good.size();
        if (strcmp(name, "tarnwick.bin") == 0) {
            memcpy(&checked_at_open, good.data() + 72, 8);
        }
        for (size_t at = 0; at < checked_at_open; at++) {
            std::vector<uint8_t> bad = good;
            bad[at] ^= 0x01;
            write_file_bytes(dir.file(name), bad.data(), bad.size());
            TrnEngine *probe = bare_engine();
            bare_engine_on_dir(probe, dir.path());
            ASSERT_FALSE(index_load(probe)) << name << " byte " << at;
            EXPECT_EQ(probe->count, 0u);
            free_bare_engine(probe);
        }
        /* Through the interface: one line, no handle, and nothing rewritten or shortened. */
        std::vector<uint8_t> bad = good;
        bad[good.size() / 2] ^= 0x80;
        write_file_bytes(dir.file(name), bad.data(), bad.size());
        int32_t status = -1;
        EXPECT_EQ(trn_open_ex(&cfg, 0, &status), nullptr);
        EXPECT_EQ(status, TRN_STATUS_DAMAGED);
        EXPECT_EQ(std::string(trn_last_error(nullptr)),
                  "the index of " + dir.path() + " is damaged; rebuild it with tarnwick-cli index "
                      + dir.path());
        testing::internal::CaptureStderr();
        TrnEngine *old_api = trn_open(&cfg);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(trn_ingest_text(old_api, "/d/c.txt", "refused", 800, 200), -1);
        EXPECT_EQ(trn_checkpoint(old_api), 0);
        EXPECT_EQ(trn_last_status(old_api), TRN_STATUS_DAMAGED);
        trn_close(old_api);
        EXPECT_TRUE(read_file_bytes(dir.file(name)) == bad);
        write_file_bytes(dir.file(name), good.data(), good.size());
    }

    /* A rebuild moves the damaged files aside and commits the new index. */
    std::vector<uint8_t> store = read_file_bytes(dir.file("tarnwick.bin"));
    store[100] ^= 0x01;
    write_file_bytes(dir.file("tarnwick.bin"), store.data(), store.size());
    TrnEngine *rebuilt = trn_open_ex(&cfg, TRN_OPEN_REBUILD, nullptr);
    ASSERT_NE(rebuilt, nullptr);
    ASSERT_EQ(trn_ingest_text(rebuilt, "/d/new.txt", "after the rebuild", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(rebuilt), 1);
    trn_close(rebuilt);
    int kept = 0;
    for (const std::string &n : dir_names(dir.path())) {
        if (n.rfind("tarnwick.bin.damaged-", 0) == 0) {
            kept++;
            EXPECT_TRUE(read_file_bytes(dir.file(n)) == store);
        }
    }
    EXPECT_EQ(kept, 1);
    e = trn_open(&cfg);
    EXPECT_EQ(live_ids(e), std::vector<std::string>{"/d/new.txt:0"});
    trn_close(e);
}

TEST(SharedIndex, AHeldLockMakesWritersBusyAfterTheTimeoutButLetsReadersShare)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/b/a.txt", "first", 800, 200), 1);
    int lock = open(dir.file("tarnwick.lock").c_str(), O_RDWR);
    ASSERT_GE(lock, 0);
    g_busy_timeout_ms = 200;
    const std::string busy =
        "the index of " + dir.path() + " is busy: another Tarnwick is updating it";

    ASSERT_EQ(flock(lock, LOCK_SH), 0); /* another reader */
    TrnEngine *reader = trn_open_ex(&cfg, 0, nullptr);
    ASSERT_NE(reader, nullptr);
    trn_close(reader);
    EXPECT_EQ(trn_ingest_text(e, "/b/b.txt", "second", 800, 200), -1);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_BUSY);
    EXPECT_EQ(trn_last_error(e), busy);
    EXPECT_EQ(trn_remove_file(e, "/b/a.txt"), -1);
    EXPECT_EQ(trn_checkpoint(e), 0);
    EXPECT_EQ(e->count, 1u); /* nothing was added or removed */

    ASSERT_EQ(flock(lock, LOCK_EX), 0); /* another writer */
    int32_t status = 0;
    EXPECT_EQ(trn_open_ex(&cfg, 0, &status), nullptr);
    EXPECT_EQ(status, TRN_STATUS_BUSY);
    EXPECT_EQ(trn_last_error(nullptr), busy);

    ASSERT_EQ(flock(lock, LOCK_UN), 0);
    EXPECT_EQ(trn_ingest_text(e, "/b/b.txt", "second", 800, 200), 1);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_OK);
    EXPECT_STREQ(trn_last_error(e), "");
    g_busy_timeout_ms = TRN_BUSY_TIMEOUT_MS;
    close(lock);
    trn_close(e);
}

/* With four processes taking turns at the shared lock, so one of them always held it, an update
** failed "busy" every time although only readers were present. */
TEST(SharedIndex, AWaitingWriterStopsNewReadersSoReadersCannotStarveIt)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/s/a.txt", "first", 800, 200), 1);
    std::vector<pid_t> readers;
    for (int r = 0; r < 4; r++) {
        pid_t pid = fork();
        if (pid == 0) {
            usleep(5000 * (useconds_t)r); /* staggered, so their holds overlap */
            TrnEngine *reader = bare_engine();
            bare_engine_on_dir(reader, dir.path());
            int refused = 0;
            struct timespec start, now;
            clock_gettime(CLOCK_MONOTONIC, &start);
            do {
                if (lock_take(reader, LOCK_SH, 2000)) {
                    usleep(20000);
                    lock_release(reader);
                } else {
                    refused++;
                }
                clock_gettime(CLOCK_MONOTONIC, &now);
            } while (now.tv_sec - start.tv_sec < 2);
            free_bare_engine(reader);
            _exit(refused == 0 ? 0 : 1);
        }
        readers.push_back(pid);
    }
    usleep(200000);
    g_busy_timeout_ms = 1000;
    for (int i = 0; i < 3; i++) {
        std::string path = "/s/w" + std::to_string(i) + ".txt";
        EXPECT_EQ(trn_ingest_text(e, path.c_str(), "written while readers come and go", 800, 200),
                  1)
            << trn_last_error(e);
    }
    g_busy_timeout_ms = TRN_BUSY_TIMEOUT_MS;
    for (pid_t pid : readers) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a reader was refused";
    }
    trn_close(e);
}

TEST(SharedIndex, RacingWritersAndReadersLoseNothingAndSeeOnlyCommittedStates)
{
    TempDir dir;
    TempDir out;
    ASSERT_EQ(run_driver({dir.path(), "setup"}, out.file("setup.txt")), 0);
    int status = 0;
    std::set<std::string> added;
    for (int round = 0; round < 3; round++) {
        std::vector<std::pair<pid_t, std::string>> kids;
        for (int w = 0; w < 2; w++) {
            std::string name = "w" + std::to_string(round) + std::to_string(w) + ".txt";
            kids.push_back({start_driver({dir.path(), "ingest", name}, out.file(name)), name});
        }
        for (int r = 0; r < 4; r++) {
            std::string name = "r" + std::to_string(r);
            kids.push_back({start_driver({dir.path(), "state"}, out.file(name)), ""});
        }
        for (auto &[pid, name] : kids) {
            ASSERT_EQ(waitpid(pid, &status, 0), pid);
            ASSERT_TRUE(WIFEXITED(status));
            /* Success, or busy after the timeout: nothing else. */
            ASSERT_TRUE(WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 3
                        || WEXITSTATUS(status) == 4);
            if (!name.empty() && WEXITSTATUS(status) == 0) {
                added.insert(name);
            }
        }
        /* Every reader saw whole files only: c.txt and b.txt's chunks, and every chunk once. */
        for (int r = 0; r < 4; r++) {
            std::vector<uint8_t> seen = read_file_bytes(out.file("r" + std::to_string(r)));
            std::string text(seen.begin(), seen.end());
            if (text.rfind("refused", 0) == 0) {
                continue;
            }
            EXPECT_NE(text.find("/s/b.txt:0 "), std::string::npos) << text;
            EXPECT_EQ(text.find("/s/a.txt:0 "), std::string::npos) << text;
        }
    }
    ASSERT_EQ(run_driver({dir.path(), "state"}, out.file("final")), 0);
    std::vector<uint8_t> bytes = read_file_bytes(out.file("final"));
    std::string text(bytes.begin(), bytes.end());
    std::set<std::string> present;
    std::set<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end - pos);
        EXPECT_TRUE(lines.insert(line).second) << "duplicated: " << line;
        if (line.rfind("/s/w", 0) == 0) {
            present.insert(line.substr(3, line.find(':') - 3));
        }
        pos = end + 1;
    }
    EXPECT_EQ(present, added);
    EXPECT_GE(added.size(), 1u);
}

} // namespace
