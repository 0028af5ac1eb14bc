// Indexing that is killed or stopped half-way keeps what it committed, and the next update goes
// on from there: a first indexing and an update are killed at each of their calls that change a
// file of the index, and Ctrl+C stops an indexing between two files. Runs the program hundreds
// of times under strace: labelled slow.
#include "cli_support.h"

#include <csignal>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace cli_test;

namespace
{

const std::string CLI = std::string(TRN_BIN_DIR) + "/tarnwick-cli";
const std::string CRASH_DRIVER = std::string(TRN_BIN_DIR) + "/../tests/trn_crash_driver";

// The calls that create, write, sync and rename the index's files: a kill at each of them stops
// the program between every two steps of a commit (the engine's own crash tests go through
// every other call too).
const char *const CALLS[] = {"openat", "write", "fsync", "rename"};

const std::vector<std::string> CHUNKING = {
    "--weights", "none", "--chunk-size", "64", "--overlap", "16"};

// Runs argv (no shell) with the programs' home of the test; true when a signal ended it.
bool run_argv(const std::vector<std::string> &argv, std::string *out = nullptr)
{
    char out_tmpl[] = "/tmp/trn_resume_out_XXXXXX";
    int out_fd = mkstemp(out_tmpl);
    // Made here, not in the child, which would leave the folder behind.
    const std::string home = default_home();
    pid_t pid = fork();
    if (pid == 0) {
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
        dup2(out_fd, 1);
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, 2);
        std::vector<char *> args;
        for (const std::string &a : argv) {
            args.push_back(const_cast<char *>(a.c_str()));
        }
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(out_fd);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out) {
        *out = read_file(out_tmpl);
    }
    unlink(out_tmpl);
    return WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGKILL);
}

std::vector<std::string> cli_args(const std::string &command, const std::string &dir)
{
    std::vector<std::string> args = {command, dir};
    args.insert(args.end(), CHUNKING.begin(), CHUNKING.end());
    return args;
}

// Every live chunk of dir's index ("doc_id text", sorted) and its slot counts.
std::string state_of(const std::string &dir)
{
    std::string out;
    run_argv({CRASH_DRIVER, dir + "/.tarnwick", "state"}, &out);
    return out;
}

// The numbers (from 1) of the calls to call that argv makes on files below dir.
std::vector<int> writes_of(const std::vector<std::string> &argv, const char *call,
                           const std::string &dir, const std::string &trace)
{
    std::vector<std::string> traced = {
        "strace", "-qq", "-y", "-o", trace, "-e", std::string("trace=") + call, CLI};
    traced.insert(traced.end(), argv.begin(), argv.end());
    run_argv(traced);
    std::vector<int> numbers;
    int n = 0;
    for (const std::string &line : lines_of(read_file(trace))) {
        n++;
        bool reads = line.rfind("openat", 0) == 0 && line.find("O_CREAT") == std::string::npos
                     && line.find("O_WRONLY") == std::string::npos;
        if (line.find(dir + "/") != std::string::npos && !reads) {
            numbers.push_back(n);
        }
    }
    return numbers;
}

void copy_tree(const std::string &from, const std::string &to)
{
    fs::remove_all(to);
    if (fs::exists(from)) {
        fs::copy(from, to, fs::copy_options::recursive);
    }
}

struct Tree {
    TempDir tmp;
    std::string src = tmp / "src";
    std::string index_dir = src + "/.tarnwick";
    std::string saved = tmp / "saved"; // the index each run starts from

    void write_first()
    {
        write_file(src + "/a.txt",
                   "alpha one, alpha two, alpha three, alpha four, alpha five.\n"
                   "alpha six, alpha seven, alpha eight, alpha nine, alpha ten\n");
        write_file(src + "/b.md", "# Bravo\n\nbravo one, bravo two, bravo three\n");
        write_file(src + "/sub/c.txt", "charlie one, charlie two, charlie three, charlie four\n");
    }
    void write_second()
    {
        write_file(src + "/a.txt", "alpha changed, alpha two, alpha four\n");
        fs::remove(src + "/b.md");
        write_file(src + "/d.txt", "delta one, delta two, delta three, delta four, delta five\n");
    }
};

// Kills argv at each call that changes a file of the index; after each kill, update finishes the
// work: the index then holds exactly expected, and one more update finds nothing to do.
void kill_everywhere_then_update(Tree &t, const std::vector<std::string> &argv,
                                 const std::string &expected, const char *what)
{
    int kills = 0;
    for (const char *call : CALLS) {
        copy_tree(t.saved, t.index_dir);
        for (int n : writes_of(argv, call, t.index_dir, t.tmp / "trace.txt")) {
            copy_tree(t.saved, t.index_dir);
            std::vector<std::string> killed = {"strace",
                                               "-qq",
                                               "-o",
                                               "/dev/null",
                                               "-e",
                                               std::string("trace=") + call,
                                               "-e",
                                               std::string("inject=") + call
                                                   + ":signal=SIGKILL:when=" + std::to_string(n),
                                               CLI};
            killed.insert(killed.end(), argv.begin(), argv.end());
            ASSERT_TRUE(run_argv(killed)) << what << " not killed at " << call << " #" << n;
            kills++;
            RunResult r = run_cli(cli_args("update", t.src), t.src);
            ASSERT_EQ(r.status, 0) << what << " killed at " << call << " #" << n << ": " << r.err;
            ASSERT_EQ(state_of(t.src), expected) << what << " killed at " << call << " #" << n;
            std::vector<std::string> again = cli_args("update", t.src);
            again.push_back("--json");
            Json nothing = parse_json(run_cli(again, t.src).out);
            ASSERT_EQ(
                nothing["added"].number + nothing["changed"].number + nothing["removed"].number, 0)
                << what << " killed at " << call << " #" << n;
        }
    }
    EXPECT_GT(kills, 10) << what;
}

TEST(CliResume, AFirstIndexingKilledAtAnyWriteIsFinishedByTheNextUpdate)
{
    Tree t;
    t.write_first();
    ASSERT_EQ(run_cli(cli_args("index", t.src), t.src).status, 0);
    const std::string expected = state_of(t.src);
    ASSERT_NE(expected.find("charlie four"), std::string::npos) << expected;
    fs::remove_all(t.index_dir);
    kill_everywhere_then_update(t, cli_args("index", t.src), expected, "first indexing");
}

TEST(CliResume, AnUpdateKilledAtAnyWriteIsFinishedByTheNextOne)
{
    Tree t;
    t.write_first();
    ASSERT_EQ(run_cli(cli_args("index", t.src), t.src).status, 0);
    copy_tree(t.index_dir, t.saved);
    t.write_second();
    fs::remove_all(t.index_dir);
    ASSERT_EQ(run_cli(cli_args("index", t.src), t.src).status, 0);
    const std::string expected = state_of(t.src);
    ASSERT_NE(expected.find("delta five"), std::string::npos) << expected;
    kill_everywhere_then_update(t, cli_args("update", t.src), expected, "update");
}

// Ctrl+C stops a first indexing after the group of files in hand with one line and status 130;
// the next update reads only the files that were not done and ends with every chunk a clean run
// makes. A file is one chunk and a group at most 32 files, so stopping after the first group of
// 300 files leaves most of them to do.
TEST(CliResume, CtrlCKeepsTheFilesDoneAndUpdateReadsOnlyTheRest)
{
    constexpr int FILES = 300;
    Tree t;
    for (int i = 0; i < FILES; i++) {
        write_file(t.src + "/n" + std::to_string(10000 + i) + ".txt",
                   "note " + std::to_string(i) + " of the tree\n");
    }
    std::vector<std::string> index = {"index", t.src};
    index.insert(index.end(), CHUNKING.begin(), CHUNKING.end());
    CliProcess run(index, t.src);
    // Stopped once the first file is committed, long before the last.
    const std::string log = t.index_dir + "/tarnwick.wal";
    struct stat st = {};
    for (int i = 0; i < 20000 && (stat(log.c_str(), &st) != 0 || st.st_size == 0); i++) {
        usleep(500);
    }
    kill(run.pid(), SIGINT);
    RunResult stopped = run.finish();
    ASSERT_EQ(stopped.status, 130) << stopped.err;
    EXPECT_TRUE(stopped.out.empty()) << stopped.out;
    std::vector<std::string> lines = lines_of(stopped.err);
    ASSERT_EQ(lines.size(), 2u) << stopped.err; // the encoder's line, then the one about the stop
    EXPECT_EQ(lines[1].rfind("tarnwick: interrupted after ", 0), 0u) << lines[1];
    EXPECT_NE(lines[1].find("tarnwick-cli update " + t.src), std::string::npos) << lines[1];

    std::vector<std::string> update = {"update", t.src, "--json"};
    update.insert(update.end(), CHUNKING.begin(), CHUNKING.end());
    RunResult rest = run_cli(update, t.src);
    ASSERT_EQ(rest.status, 0) << rest.err;
    Json done = parse_json(rest.out);
    EXPECT_GT(done["unchanged"].number, 0);
    EXPECT_GT(done["added"].number, 0);
    EXPECT_EQ(done["added"].number + done["unchanged"].number, FILES);
    EXPECT_EQ(done["changed"].number, 0);

    RunResult stats = run_cli({"stats", t.src, "--json"}, t.src);
    fs::remove_all(t.index_dir);
    ASSERT_EQ(run_cli(index, t.src).status, 0);
    EXPECT_EQ(parse_json(stats.out)["chunkCount"].number,
              parse_json(run_cli({"stats", t.src, "--json"}, t.src).out)["chunkCount"].number);
}

// A first indexing killed before its first vector leaves chunks whose vectors are still to come.
// Commands that only read or tidy the index (stats, files, compact) keep them so; a search says
// that its semantic side is partial, and the next update computes the vectors a clean index holds,
// with the encoder that built the index.
TEST(CliResume, AKilledIndexingIsSearchedByWordsUntilUpdateComputesACleanIndexsVectors)
{
    Tree t;
    t.write_first();
    // The application's encoder, the built-in one: an untrained encoder would give other vectors.
    const std::vector<std::string> index = {
        "index", t.src, "--chunk-size", "64", "--overlap", "16"};
    // Killed at the log's first write of vectors (the only writes of more than 2 kB): the words
    // of every file are committed, no vector is.
    const std::string trace = t.tmp / "trace.txt";
    writes_of(index, "write", t.index_dir, trace);
    fs::remove_all(t.index_dir);
    int first_vectors = 0, n = 0;
    for (const std::string &line : lines_of(read_file(trace))) {
        n++;
        const size_t eq = line.rfind(" = ");
        if (!first_vectors && line.find("tarnwick.wal") != std::string::npos
            && eq != std::string::npos && std::stol(line.substr(eq + 3)) > 2048) {
            first_vectors = n;
        }
    }
    ASSERT_GT(first_vectors, 0) << read_file(trace);
    std::vector<std::string> killed = {"strace",
                                       "-qq",
                                       "-o",
                                       "/dev/null",
                                       "-e",
                                       "trace=write",
                                       "-e",
                                       "inject=write:signal=SIGKILL:when="
                                           + std::to_string(first_vectors),
                                       CLI};
    killed.insert(killed.end(), index.begin(), index.end());
    ASSERT_TRUE(run_argv(killed));
    ASSERT_GT(fs::file_size(t.index_dir + "/tarnwick.wal"), 0u);
    for (const char *command : {"stats", "files", "compact"}) {
        ASSERT_EQ(run_cli({command, t.src}, t.src).status, 0) << command;
    }
    RunResult hybrid = run_cli({"search", t.src, "alpha two", "--mode", "hybrid", "--json"}, t.src);
    ASSERT_EQ(hybrid.status, 0) << hybrid.err;
    Json rows = parse_json(hybrid.out);
    ASSERT_GT(rows.items.size(), 0u) << hybrid.out;
    EXPECT_TRUE(rows.items[0]["semanticPartial"].boolean) << hybrid.out;
    EXPECT_NE(hybrid.err.find("% of chunks embedded; semantic results are partial"),
              std::string::npos)
        << hybrid.err;
    RunResult keyword =
        run_cli({"search", t.src, "alpha two", "--mode", "keyword", "--json"}, t.src);
    EXPECT_EQ(keyword.err.find("partial"), std::string::npos) << keyword.err;

    const std::vector<std::string> update = {
        "update", t.src, "--chunk-size", "64", "--overlap", "16"};
    ASSERT_EQ(run_cli(update, t.src).status, 0);
    const std::vector<std::string> query = {
        "search", t.src, "bravo three", "--mode", "semantic", "--all-chunks", "--json"};
    RunResult after_kill = run_cli(query, t.src);
    EXPECT_EQ(after_kill.err.find("partial"), std::string::npos) << after_kill.err;
    fs::remove_all(t.index_dir);
    ASSERT_EQ(run_cli(index, t.src).status, 0);
    EXPECT_EQ(after_kill.out, run_cli(query, t.src).out);
}

} // namespace
