/*
** crash_syscall_test.cpp -- every write path stopped at each of its system calls, and failing at
** each of its writes and syncs as on a full disk: the next open shows exactly the state before
** or after the operation, and the next writer carries on from it.
**
** Each operation runs in trn_crash_driver under strace, which kills it (SIGKILL) on entry to the
** Nth call of one system call, or makes that one call fail with ENOSPC, for every N at which the
** operation calls it on a file of the index directory. Takes minutes: labelled slow.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const std::string CRASH_DRIVER = std::string(TRN_BIN_DIR) + "/../tests/trn_crash_driver";

/* The calls that change files or their names, and those that create or lock them. */
const char *const CALLS[] = {
    "openat", "write", "fsync", "renameat", "ftruncate", "unlinkat", "linkat", "flock"};

struct Outcome {
    bool killed;
    int code;
    std::string out;
    std::string err;
};

/* Runs argv (no shell) with standard output and error in files; waits for it. */
Outcome run(const std::vector<std::string> &argv, const TempDir &scratch)
{
    std::string out = scratch.file("out.txt"), err = scratch.file("err.txt");
    pid_t pid = spawn_child(argv, out, err);
    int status = 0;
    waitpid(pid, &status, 0);
    Outcome r;
    r.killed = WIFSIGNALED(status);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::vector<uint8_t> o = read_file_bytes(out), e = read_file_bytes(err);
    r.out.assign(o.begin(), o.end());
    r.err.assign(e.begin(), e.end());
    return r;
}

void copy_dir(const std::string &from, const std::string &to)
{
    TempDir::remove_tree(to);
    mkdir(to.c_str(), 0700);
    for (const std::string &name : dir_names(from)) {
        std::vector<uint8_t> bytes = read_file_bytes(from + "/" + name);
        write_file_bytes(to + "/" + name, bytes.data(), bytes.size());
    }
}

/* The 1-based numbers of the calls in an strace output file that touch a file below dir, other
** than opening one only to read it: that changes nothing a crash could show. */
std::vector<int> writes_in_trace(const std::string &trace, const std::string &dir)
{
    std::vector<uint8_t> bytes = read_file_bytes(trace);
    std::string text(bytes.begin(), bytes.end());
    std::vector<int> numbers;
    size_t pos = 0;
    for (int n = 1; pos < text.size(); n++) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end - pos);
        bool reads = line.rfind("openat", 0) == 0 && line.find("O_CREAT") == std::string::npos
                     && line.find("O_WRONLY") == std::string::npos;
        /* strace -y shows a descriptor as <path>: files are reached from the directory's. */
        bool in_dir =
            line.find(dir + "/") != std::string::npos || line.find(dir + ">") != std::string::npos;
        if (in_dir && !reads) {
            numbers.push_back(n);
        }
        pos = end == std::string::npos ? text.size() : end + 1;
    }
    return numbers;
}

class CrashAtEverySyscall : public testing::TestWithParam<const char *>
{
protected:
    std::string state(const std::string &dir)
    {
        Outcome r = run({CRASH_DRIVER, dir, "state"}, scratch_);
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        return r.out;
    }
    /* The state after ops applied to the start, printed by the driver's command last. */
    std::string applied(const std::vector<std::string> &ops, const char *last = "state")
    {
        std::string dir = scratch_.file("reference");
        copy_dir(start_.path(), dir);
        for (const std::string &op : ops) {
            Outcome r = run({CRASH_DRIVER, dir, op}, scratch_);
            EXPECT_EQ(r.code, 0) << op << ": " << r.err;
        }
        Outcome r = run({CRASH_DRIVER, dir, last}, scratch_);
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        return r.out;
    }
    std::string checked(const std::vector<std::string> &ops) { return applied(ops, "check"); }
    /* The numbers N (from 1) of the calls to call that op makes on files in dir, run from the
    ** start without a fault; the loader's calls, messages on standard error and files opened
    ** only for reading are left out. */
    std::vector<int> calls_on(const std::string &op, const char *call, const std::string &dir)
    {
        std::string trace = scratch_.file("trace.txt");
        copy_dir(start_.path(), dir);
        Outcome r = run({"strace",
                         "-qq",
                         "-y",
                         "-o",
                         trace,
                         "-e",
                         std::string("trace=") + call,
                         CRASH_DRIVER,
                         dir,
                         op},
                        scratch_);
        EXPECT_EQ(r.code, 0) << r.err;
        std::vector<int> numbers = writes_in_trace(trace, dir);
        return numbers;
    }
    /* Runs op on dir with the Nth call to call given the fault (strace's inject= action). */
    Outcome run_injected(const char *call, const char *fault, int n, const std::string &dir,
                         const std::string &op)
    {
        std::string inject = std::string(call) + ":" + fault + ":when=" + std::to_string(n);
        return run({"strace",
                    "-qq",
                    "-o",
                    "/dev/null",
                    "-e",
                    std::string("trace=") + call,
                    "-e",
                    "inject=" + inject,
                    CRASH_DRIVER,
                    dir,
                    op},
                   scratch_);
    }
    void SetUp() override
    {
        ASSERT_EQ(access(CRASH_DRIVER.c_str(), X_OK), 0) << CRASH_DRIVER;
        ASSERT_EQ(run({CRASH_DRIVER, start_.path(), "setup"}, scratch_).code, 0);
    }

    TempDir start_;
    TempDir scratch_;
};

TEST_P(CrashAtEverySyscall, LeavesTheStateBeforeOrAfterAndTheNextWriterGoesOn)
{
    const std::string op = GetParam();
    /* "check" prints the state, ingests one more file and prints the state again. */
    const std::string before = checked({}), after = checked({op});
    /* A checkpoint changes where chunks are kept, not which: a crash must not double them. */
    if (op != "checkpoint") {
        ASSERT_NE(before, after);
    }
    std::string dir = scratch_.file("crashed");
    int crashes = 0;
    for (const char *call : CALLS) {
        for (int n : calls_on(op, call, dir)) {
            copy_dir(start_.path(), dir);
            Outcome r = run_injected(call, "signal=SIGKILL", n, dir, op);
            ASSERT_TRUE(r.killed) << op << " at " << call << " #" << n << ": " << r.err;
            crashes++;
            Outcome c = run({CRASH_DRIVER, dir, "check"}, scratch_);
            ASSERT_EQ(c.code, 0) << c.out << c.err;
            ASSERT_TRUE(c.out == before || c.out == after)
                << op << " killed at " << call << " #" << n << ":\n"
                << c.out << "before:\n"
                << before << "after:\n"
                << after;
        }
    }
    EXPECT_GT(crashes, 5);
}

TEST_P(CrashAtEverySyscall, AFullDiskFailsTheOperationAndKeepsTheCommittedState)
{
    const std::string op = GetParam();
    const std::string before = applied({}), after = applied({op});
    std::string dir = scratch_.file("full");
    int failures = 0;
    for (const char *call : {"write", "fsync"}) {
        for (int n : calls_on(op, call, dir)) {
            copy_dir(start_.path(), dir);
            Outcome r = run_injected(call, "error=ENOSPC", n, dir, op);
            std::string now = state(dir);
            if (r.code == 0) {
                /* The failed call was not one the operation depends on (its own messages). */
                ASSERT_EQ(now, after) << op << " with " << call << " #" << n << " failing";
                continue;
            }
            failures++;
            ASSERT_EQ(r.code, 3) << r.out << r.err;
            EXPECT_NE(r.err.find("tarnwick: cannot write the index of " + dir + ": No space left"),
                      std::string::npos)
                << r.err;
            ASSERT_TRUE(now == before || now == after)
                << op << " with " << call << " #" << n << " failing:\n"
                << now;
        }
    }
    EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(WritePaths, CrashAtEverySyscall,
                         testing::Values("ingest", "remove", "compact", "checkpoint", "rebuild"));

} // namespace
