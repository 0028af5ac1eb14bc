/*
** watch_test.cpp -- the directory watch: what counts as a change, with inotify and when it falls
** back to comparing walks.
*/
#include "store_fixtures.h"
#include "tarnwick.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using WatchPtr = std::unique_ptr<TrnWatch, void (*)(TrnWatch *)>;

WatchPtr open_watch(const std::string &dir, const TrnWalkOptions *opts = nullptr)
{
    return WatchPtr(trn_watch_open(dir.c_str(), opts), trn_watch_close);
}

// Opens a watch with no descriptor left for inotify, so it compares walks from the start.
WatchPtr open_comparing_watch(const std::string &dir)
{
    int next = dup(0);
    close(next);
    struct rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    struct rlimit tight = saved;
    tight.rlim_cur = (rlim_t)next;
    setrlimit(RLIMIT_NOFILE, &tight);
    WatchPtr w = open_watch(dir);
    setrlimit(RLIMIT_NOFILE, &saved);
    if (w) {
        trn_watch_changed(w.get()); // the first walk, now that it can open directories
    }
    return w;
}

} // namespace

TEST(Watch, ReportsChangesToFilesAndNewDirectoriesButNotHiddenOrExcludedOnes)
{
    TempDir dir;
    write_file_text(dir.file("a.txt"), "one");
    ASSERT_EQ(mkdir(dir.file("node_modules").c_str(), 0700), 0);
    const char *patterns[] = {"node_modules/"};
    TrnWalkOptions opts{};
    opts.exclude_patterns = patterns;
    opts.exclude_pattern_count = 1;
    WatchPtr w = open_watch(dir.path(), &opts);
    ASSERT_TRUE(w);
    ASSERT_GE(trn_watch_fd(w.get()), 0);
    EXPECT_EQ(trn_watch_changed(w.get()), 0);

    write_file_text(dir.file("a.txt"), "one, edited");
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
    EXPECT_EQ(trn_watch_changed(w.get()), 0) << "events are read once";

    write_file_text(dir.file(".hidden"), "editor state");
    write_file_text(dir.file("node_modules/pkg.js"), "ignored");
    EXPECT_EQ(trn_watch_changed(w.get()), 0);
    write_file_text(dir.file(".gitignore"), "*.log\n");
    EXPECT_EQ(trn_watch_changed(w.get()), 1) << "ignore files change what is indexed";

    // A directory made after the watch opened is watched too.
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
    write_file_text(dir.file("sub/b.txt"), "two");
    EXPECT_EQ(trn_watch_changed(w.get()), 1);

    // A directory its .gitignore excludes is not watched, though it was made after the watch.
    write_file_text(dir.file("sub/.gitignore"), "out/\n");
    ASSERT_EQ(mkdir(dir.file("sub/out").c_str(), 0700), 0);
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
    write_file_text(dir.file("sub/out/generated.txt"), "made by a build");
    EXPECT_EQ(trn_watch_changed(w.get()), 0);
}

TEST(Watch, ComparingWalksSeesEditsAdditionsAndRemovals)
{
    TempDir dir;
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    write_file_text(dir.file("sub/a.txt"), "one");
    WatchPtr w = open_comparing_watch(dir.path());
    ASSERT_TRUE(w);
    ASSERT_EQ(trn_watch_fd(w.get()), -1);
    EXPECT_EQ(trn_watch_changed(w.get()), 0);

    write_file_text(dir.file("sub/a.txt"), "one, and a longer edit");
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
    EXPECT_EQ(trn_watch_changed(w.get()), 0);
    write_file_text(dir.file("sub/b.txt"), "two");
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
    ASSERT_EQ(unlink(dir.file("sub/a.txt").c_str()), 0);
    EXPECT_EQ(trn_watch_changed(w.get()), 1);
}

TEST(Watch, RefusesWhatIsNotADirectory)
{
    TempDir dir;
    write_file_text(dir.file("a.txt"), "one");
    EXPECT_FALSE(open_watch(dir.file("a.txt")));
    EXPECT_FALSE(open_watch(dir.file("missing")));
    EXPECT_EQ(trn_watch_changed(nullptr), 0);
}
