/*
** crash_test.cpp -- a process killed at a random moment while ingesting (and now and then
** checkpointing) loses no chunk whose log record was flushed, and damages nothing else.
**
** Every engine call runs in a forked child, so the test process itself never starts the
** encoder's BLAS threads before it forks. Takes several seconds: it is the slow test of this
** directory.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <set>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>

namespace
{

constexpr int ROUNDS = 20;
constexpr int ITEMS_PER_ROUND_MAX = 400;

std::string path_for(int n)
{
    return "/crash/n" + std::to_string(n) + ".txt";
}

std::string text_for(int n)
{
    return "note " + std::to_string(n) + " kept " + std::to_string(n * 7919 % 1000);
}

/* The numbers a child wrote to the side file after trn_ingest_text returned; a line cut by the
** kill does not count. */
std::set<int> acknowledged(const std::string &side)
{
    std::set<int> done;
    std::vector<uint8_t> bytes = read_file_bytes(side);
    std::string line;
    for (uint8_t b : bytes) {
        if (b == '\n') {
            done.insert(std::stoi(line));
            line.clear();
        } else {
            line.push_back((char)b);
        }
    }
    return done;
}

/* Child: ingests numbered notes until killed, recording each one after its call returned. */
[[noreturn]] void ingest_until_killed(const std::string &index, const std::string &side, int round,
                                      int ready_fd)
{
    TrnConfig cfg = {};
    cfg.index_dir = index.c_str();
    TrnEngine *e = trn_open(&cfg);
    int side_fd = open(side.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (write(ready_fd, "r", 1) != 1) {
        _exit(4);
    }
    for (int i = 0; i < ITEMS_PER_ROUND_MAX; i++) {
        int n = round * 1000 + i;
        if (trn_ingest_text(e, path_for(n).c_str(), text_for(n).c_str(), 800, 200) != 1) {
            _exit(5);
        }
        std::string line = std::to_string(n) + "\n";
        if (write(side_fd, line.data(), line.size()) != (ssize_t)line.size()) {
            _exit(6);
        }
        if (i % 7 == 6) {
            trn_checkpoint(e);
        }
    }
    _exit(0);
}

/* Child: reopens the index and checks it. Exits 0 when it is whole, else writes why to report
** and exits 2. With close, the check ends in a checkpoint, as a normal session would. */
[[noreturn]] void check_index(const std::string &index, const std::string &side,
                              const std::string &report, bool close_after)
{
    TrnConfig cfg = {};
    cfg.index_dir = index.c_str();
    TrnEngine *e = trn_open(&cfg);
    std::string problem = handle_invariant_violation(e);
    std::set<int> present;
    for (uint64_t i = 0; i < e->count && problem.empty(); i++) {
        const TrnChunk &c = e->chunks[i];
        int n = -1;
        if (sscanf(c.doc_id, "/crash/n%d.txt:0", &n) != 1) {
            problem = std::string("foreign id ") + c.doc_id;
            break;
        }
        if (c.text != text_for(n) || !c.file_path || c.file_path != path_for(n)
            || c.chunk_index != 0 || c.line_number != 1 || c.deleted
            || c.file_type != TRN_FILE_TYPE_TEXT) {
            problem = "chunk " + std::to_string(n) + " damaged: " + c.text;
        }
        float norm = vec_dot(e->vectors + i * 512, e->vectors + i * 512, 512);
        if (std::fabs(norm - 1.0f) > 1e-3f) {
            problem = "chunk " + std::to_string(n) + " has no unit vector";
        }
        present.insert(n);
    }
    for (int n : acknowledged(side)) {
        if (problem.empty() && !present.count(n)) {
            problem = "acknowledged chunk " + std::to_string(n) + " lost";
        }
    }
    if (!problem.empty()) {
        write_file_text(report, problem);
        _exit(2);
    }
    if (close_after) {
        trn_close(e);
    }
    _exit(0);
}

void expect_check_passes(const TempDir &index, const TempDir &side, bool close_after,
                         const std::string &when)
{
    std::string report = side.file("report.txt");
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        check_index(index.path(), side.file("acked.txt"), report, close_after);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << when;
    std::vector<uint8_t> why = read_file_bytes(report);
    ASSERT_EQ(WEXITSTATUS(status), 0) << when << ": " << std::string(why.begin(), why.end());
}

TEST(CrashRecovery, KilledIngestionLosesNoFlushedChunk)
{
    TempDir index;
    TempDir side;
    std::mt19937 rng(20240611);
    for (int round = 0; round < ROUNDS; round++) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(ready[0]);
            ingest_until_killed(index.path(), side.file("acked.txt"), round, ready[1]);
        }
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1) << "child died before it opened the index";
        close(ready[0]);
        /* Kill after a random number of further acknowledged chunks plus a random delay, so
        ** the kill lands inside ingestion or a checkpoint however loaded the machine is. */
        size_t target = acknowledged(side.file("acked.txt")).size()
                        + std::uniform_int_distribution<size_t>(0, 12)(rng);
        for (int waited = 0; waited < 30000; waited++) {
            if (acknowledged(side.file("acked.txt")).size() >= target) {
                break;
            }
            usleep(1000);
        }
        usleep(std::uniform_int_distribution<int>(0, 20000)(rng));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round << " ended on its own";

        /* Odd rounds leave the log as the crash left it (after replay has cut a torn tail),
        ** so the next child appends behind whatever the crash wrote. */
        expect_check_passes(index, side, round % 2 == 0, "round " + std::to_string(round));
    }
    EXPECT_GE(acknowledged(side.file("acked.txt")).size(), (size_t)ROUNDS * 3);
    expect_check_passes(index, side, true, "final");
}

} // namespace
