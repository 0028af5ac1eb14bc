// A rebuild (index) racing a watcher and files that come, change and go: once both are done, the
// index holds what a clean index of the final tree holds, round after round. A rebuild used to
// swap in what it had read and drop what the watcher committed meanwhile; and a file the rebuild
// read, deleted before the watcher knew it, stayed in the index after the swap, until the watcher
// learned to update after another process wrote the index. Takes a minute: labelled slow.
#include "cli_support.h"

#include <map>

#include <signal.h>
#include <unistd.h>

using namespace cli_test;

namespace
{

const std::vector<std::string> CHUNKING = {"--chunk-size", "64", "--overlap", "16"};

std::vector<std::string> with_chunking(std::vector<std::string> args)
{
    args.insert(args.end(), CHUNKING.begin(), CHUNKING.end());
    return args;
}

// What an index of dir holds: each indexed file (by its name below dir) with its chunks, and the
// live chunks of the whole index, which counts the chunks of files that are gone too.
std::map<std::string, double> indexed(const std::string &dir)
{
    std::map<std::string, double> held;
    RunResult files = run_cli({"files", dir, "--json"}, dir);
    RunResult stats = run_cli({"stats", dir, "--json"}, dir);
    if (files.status != 0 || stats.status != 0) {
        held["(failed) " + files.err + stats.err] = 0;
        return held;
    }
    for (const Json &f : parse_json(files.out).items) {
        if (f["indexed"].boolean) {
            held[f["path"].text.substr(dir.size() + 1)] = f["chunkCount"].number;
        }
    }
    Json s = parse_json(stats.out);
    held["(live chunks)"] = s["chunkCount"].number;
    return held;
}

// The words of file n in its version v: each version says something no other does.
std::string text_of(int n, int v)
{
    std::string text;
    for (int line = 0; line < 30 + (n + v) % 7; line++) {
        text += "file " + std::to_string(n) + " version " + std::to_string(v) + " line "
                + std::to_string(line) + " of the churning tree\n";
    }
    return text;
}

TEST(CliRace, ARebuildRacingWatchAndChurnEndsEqualToACleanIndexOfTheFinalTree)
{
    TempDir dir;
    constexpr int FILES = 300, ROUNDS = 4; // a rebuild of them takes seconds
    std::map<int, int> versions;           // file number -> version, for the files that exist
    for (int n = 0; n < FILES; n++) {
        write_file(dir / ("f" + std::to_string(n) + ".txt"), text_of(n, 0));
        versions[n] = 0;
    }
    ASSERT_EQ(run_cli(with_chunking({"index", dir.path()}), dir.path()).status, 0);
    CliProcess watch(with_chunking({"watch", dir.path()}), dir.path());
    for (int i = 0; i < 200 && watch.out_so_far().empty(); i++) {
        usleep(50000);
    }
    ASSERT_FALSE(watch.out_so_far().empty());

    unsigned seed = 7;
    auto next = [&seed](int below) {
        seed = seed * 1103515245u + 12345u;
        return (int)((seed >> 16) % (unsigned)below);
    };
    int created = FILES;
    for (int round = 0; round < ROUNDS; round++) {
        // Read first by the rebuild (files are read in the order of their paths), then deleted
        // while it runs: the watcher's update 2 s later finds it in no index yet.
        const std::string gone = dir / ("a_gone" + std::to_string(round) + ".txt");
        write_file(gone, text_of(round, 99));
        CliProcess rebuild(with_chunking({"index", dir.path()}), dir.path());
        usleep(1500000);
        fs::remove(gone);
        for (int op = 0; op < 12; op++) {
            int pick = next(created);
            auto found = versions.find(pick);
            if (found == versions.end()) {
                versions[pick] = 0;
            } else if (next(3) == 0) {
                fs::remove(dir / ("f" + std::to_string(pick) + ".txt"));
                versions.erase(found);
                continue;
            } else {
                found->second++;
            }
            write_file(dir / ("f" + std::to_string(pick) + ".txt"), text_of(pick, versions[pick]));
            if (next(4) == 0) {
                write_file(dir / ("f" + std::to_string(created) + ".txt"), text_of(created, 0));
                versions[created++] = 0;
            }
            usleep(20000);
        }
        RunResult r = rebuild.finish();
        ASSERT_EQ(r.status, 0) << "round " << round << ": " << r.err;
    }

    TempDir clean;
    for (const auto &[n, v] : versions) {
        write_file(clean / ("f" + std::to_string(n) + ".txt"), text_of(n, v));
    }
    ASSERT_EQ(run_cli(with_chunking({"index", clean.path()}), clean.path()).status, 0);
    const std::map<std::string, double> want = indexed(clean.path());
    std::map<std::string, double> got;
    // The watcher takes up the last changes once they have settled for 2 s.
    for (int i = 0; i < 100 && (got = indexed(dir.path())) != want; i++) {
        usleep(200000);
    }
    kill(watch.pid(), SIGTERM);
    RunResult w = watch.finish();
    EXPECT_EQ(w.status, 0) << w.err;
    ASSERT_EQ(got.size(), want.size());
    for (const auto &[name, chunks] : want) {
        EXPECT_EQ(got[name], chunks) << name;
    }
}

} // namespace
