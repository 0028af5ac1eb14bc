// Where the program reads and writes: paths resolved through links, link loops that end, nothing
// read outside the directory, and an index folder that is the owner's alone.
#include "cli_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace cli_test;

namespace
{

// The index of a directory named through a link and "." is kept under the resolved path.
TEST(CliPaths, IndexedPathsAreResolved)
{
    TempDir dir;
    write_file(dir / "real/note.txt", "the only note in this directory\n");
    fs::create_directory_symlink(dir / "real", dir / "alias");
    RunResult r =
        run_cli({"index", "./alias/.", "--chunk-size", "64", "--overlap", "16"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(dir / "real/.tarnwick/tarnwick.bin"));
    r = run_cli({"search", "alias", "only note", "--mode", "text", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 1u);
    EXPECT_EQ(hits.items[0]["filePath"].text, dir / "real/note.txt");
}

// A folder moved after indexing answers with its new paths, and updating it embeds nothing.
TEST(CliPaths, MovedFolderAnswersWithItsNewPathsAndUpdateEmbedsNothing)
{
    TempDir dir;
    write_file(dir / "docs/note.txt", "the heron nests by the old mill\n");
    write_file(dir / "docs/sub/more.txt", "a second note about kingfishers\n");
    RunResult r = run_cli({"index", "docs", "--chunk-size", "64", "--overlap", "16"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    fs::rename(dir / "docs", dir / "moved docs");
    r = run_cli({"search", "moved docs", "heron", "--mode", "text", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 1u);
    EXPECT_EQ(hits.items[0]["filePath"].text, dir / "moved docs/note.txt");
    r = run_cli({"update", "moved docs", "--chunk-size", "64", "--overlap", "16", "--json"},
                dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json u = parse_json(r.out);
    EXPECT_EQ(u["unchanged"].number, 2);
    EXPECT_EQ(u["added"].number + u["changed"].number + u["removed"].number, 0);
    EXPECT_EQ(u["chunksAdded"].number, 0);
}

// "files" on a tree with two link loops never ended; "index" read through a link into /etc; and
// the index was readable by every user.
TEST(CliPrivacy, LinkLoopsEndNothingOutsideIsReadAndTheIndexIsTheOwners)
{
    TempDir dir;
    write_file(dir / "tree/a.txt", "the only text inside the tree, long enough to index\n");
    write_file(dir / "outside.txt", "a secret text outside the tree, long enough to index\n");
    fs::create_directory_symlink(".", dir / "tree/loop1");
    fs::create_directory_symlink("..", dir / "tree/loop2");
    fs::create_directory_symlink("/etc", dir / "tree/etc");
    fs::create_symlink("../outside.txt", dir / "tree/secret.txt");
    const std::string tree = dir / "tree";
    RunResult r = run_cli({"index", tree, "--chunk-size", "64", "--overlap", "16"}, tree);
    ASSERT_EQ(r.status, 0) << r.err;
    r = run_cli({"files", tree, "--json"}, tree);
    ASSERT_EQ(r.status, 0) << r.err;
    Json files = parse_json(r.out);
    ASSERT_EQ(files.items.size(), 1u) << r.out;
    EXPECT_EQ(files.items[0]["path"].text, tree + "/a.txt");
    EXPECT_TRUE(files.items[0]["indexed"].boolean);
    r = run_cli({"search", tree, "secret", "--mode", "text", "--json"}, tree);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(parse_json(r.out).items.empty()) << r.out;

    EXPECT_EQ(fs::status(dir / "tree/.tarnwick").permissions(), fs::perms::owner_all);
    int files_seen = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(dir / "tree/.tarnwick")) {
        EXPECT_EQ(entry.status().permissions(), fs::perms::owner_read | fs::perms::owner_write)
            << entry.path();
        files_seen++;
    }
    EXPECT_GE(files_seen, 2); // at least the store and its commit record
}

// In a shared folder another user could plant links in a world-writable ".tarnwick" (indexing
// truncated their target), or make ".tarnwick" itself a link or their own folder. Such folders
// are refused with one line saying how to fix them, and once the owner has made the folder
// private, indexing replaces the planted links without touching what they point to.
TEST(CliPrivacy, PlantedLinksAndForeignIndexFoldersAreRefusedAndChangeNothingOutside)
{
    TempDir dir;
    write_file(dir / "victim.txt", "precious\n");
    write_file(dir / "tree/a.txt", "the only text inside the tree, long enough to index\n");
    const std::string tree = dir / "tree", index_dir = dir / "tree/.tarnwick";
    ASSERT_EQ(mkdir(index_dir.c_str(), 0700), 0);
    ASSERT_EQ(chmod(index_dir.c_str(), 0777), 0);
    for (const char *name :
         {"tarnwick.wal", "tarnwick.bin", "tarnwick.commit", "tarnwick.files", "encoder"}) {
        fs::create_symlink(dir / "victim.txt", index_dir + "/" + name);
    }
    fs::create_symlink(dir / "made-by-lock", index_dir + "/tarnwick.lock");
    auto refused = [&](const std::string &why) {
        for (const char *command : {"index", "search"}) {
            std::vector<std::string> args = {command, tree};
            if (std::string(command) == "search") {
                args.push_back("text");
            }
            RunResult r = run_cli(args, tree);
            EXPECT_EQ(r.status, 1) << command;
            EXPECT_EQ(lines_of(r.err).back(), "tarnwick: the index folder " + index_dir + " " + why)
                << command;
        }
        EXPECT_EQ(read_file(dir / "victim.txt"), "precious\n");
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir / "made-by-lock")));
    };
    refused("is writable by other users; make it private with: chmod 700 " + index_dir);
    if (geteuid() == 0) {
        const uid_t other = 54321; // any user but the one running the tests
        ASSERT_EQ(chown(index_dir.c_str(), other, other), 0);
        ASSERT_EQ(chmod(index_dir.c_str(), 0700), 0);
        refused("belongs to another user; move it away and index the folder again as yourself");
        ASSERT_EQ(chown(index_dir.c_str(), 0, 0), 0);
    }
    ASSERT_EQ(chmod(index_dir.c_str(), 0700), 0);
    RunResult r = run_cli({"index", tree}, tree);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_file(dir / "victim.txt"), "precious\n");
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir / "made-by-lock")));
    for (const fs::directory_entry &entry : fs::directory_iterator(index_dir)) {
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(entry.path()))) << entry.path();
    }
    r = run_cli({"search", tree, "inside", "--mode", "text", "--json"}, tree);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(parse_json(r.out).items.size(), 1u) << r.out;

    fs::rename(index_dir, dir / "elsewhere");
    fs::create_directory_symlink(dir / "elsewhere", index_dir);
    refused("is a symbolic link; remove the link and index the folder again");
}

// Another user's private index was reported to them as "no index in DIR".
TEST(CliPrivacy, AnIndexTheUserMayNotReadIsSaidToBeUnreadable)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "acting as a second user needs root";
    }
    TempDir dir;
    write_file(dir / "a.txt", "the only text of the folder, long enough to index\n");
    ASSERT_EQ(run_cli({"index", dir.path()}, dir.path()).status, 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    TempDir home;
    ASSERT_EQ(chmod(home.path().c_str(), 0777), 0);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fds[0]);
        const uid_t other = 54321; // any user but the owner
        if (setgid(other) != 0 || setuid(other) != 0) {
            _exit(1);
        }
        RunResult r = run_cli({"search", dir.path(), "text"}, "/", false, home.path());
        std::string report = std::to_string(r.status) + " " + r.err;
        _exit(write(pipe_fds[1], report.data(), report.size()) == (ssize_t)report.size() ? 0 : 1);
    }
    close(pipe_fds[1]);
    std::string report;
    char buf[512];
    for (ssize_t n; (n = read(pipe_fds[0], buf, sizeof buf)) > 0;) {
        report.append(buf, (size_t)n);
    }
    close(pipe_fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(report,
              "1 tarnwick: cannot read the index of " + dir.path() + ": Permission denied\n");
}

} // namespace
