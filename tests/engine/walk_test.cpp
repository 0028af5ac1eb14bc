/*
** walk_test.cpp -- the engine's directory walks (trn_ingest_dir, trn_list_dir_files) end on link
** loops and never leave the tree; files above the size limit are never read; the index's files
** are readable by their owner alone.
*/
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace
{

void link_to(const std::string &target, const std::string &path)
{
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
}

/* Paths below root, relative to it, by how many times a walk gave them. */
using Seen = std::map<std::string, int>;

Seen listed(const std::string &root)
{
    Seen seen;
    TrnFileList *list = trn_list_dir_files(nullptr, root.c_str());
    for (int32_t i = 0; i < list->count; i++) {
        seen[std::string(list->entries[i].path).substr(root.size() + 1)]++;
    }
    trn_free_file_list(list);
    return seen;
}

Seen ingested(const std::string &root)
{
    TrnConfig cfg = {};
    TrnEngine *e = trn_open(&cfg);
    EXPECT_GE(trn_ingest_dir(e, root.c_str(), 800, 200, nullptr, nullptr), 0);
    Seen seen;
    for (uint64_t i = 0; i < e->count; i++) {
        seen[std::string(e->chunks[i].file_path).substr(root.size() + 1)]++;
    }
    trn_close(e);
    return seen;
}

/* Each file of the tree once under its own name, the link to a file inside it, nothing else. */
void expect_each_file_once(const Seen &seen, const char *walk)
{
    const Seen want = {{"a.txt", 1}, {"alias.txt", 1}, {"sub/b.txt", 1}};
    EXPECT_EQ(seen, want) << walk;
}

TEST(Walk, LinkLoopsEndAndLinksOutOfTheTreeAreNotFollowed)
{
    TempDir tmp;
    const std::string root = tmp.file("tree");
    write_file_text(root + "/a.txt", "alpha file inside the tree");
    write_file_text(root + "/sub/b.txt", "bravo file inside the tree");
    write_file_text(tmp.file("secret.txt"), "a secret outside the tree");
    link_to(".", root + "/loop1");      // a loop through the root
    link_to("..", root + "/sub/loop2"); // a loop through the parent
    link_to("../..", root + "/sub/up"); // out of the tree
    link_to("/", root + "/slash");      // the whole file system
    link_to("/etc", root + "/etc");     // another tree
    link_to("sub", root + "/inside");   // a directory inside, walked under its own name
    link_to("a.txt", root + "/alias.txt");
    link_to("../secret.txt", root + "/secret.txt");
    link_to("missing", root + "/dangling");
    link_to("ba", root + "/ab"); // two links naming each other
    link_to("ab", root + "/ba");

    expect_each_file_once(listed(root), "trn_list_dir_files");
    expect_each_file_once(ingested(root), "trn_ingest_dir");

    // Named through a link itself, the tree is the link's target.
    link_to(root, tmp.file("named"));
    expect_each_file_once(listed(tmp.file("named")), "trn_list_dir_files through a link");
}

/* Runs fn in a child and returns the child's peak resident memory in MiB (-1 if it failed). */
template <typename Fn>
long child_peak_mib(Fn fn)
{
    pid_t pid = fork();
    if (pid == 0) {
        _exit(fn() ? 0 : 1);
    }
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return -1;
    }
    return usage.ru_maxrss / 1024;
}

TEST(Walk, FilesAboveTheSizeLimitAreSkippedWithoutReadingThem)
{
    TempDir dir;
    write_file_text(dir.file("small.txt"), "a small file that is indexed");
    // Sparse: 2 GiB long, no block on disk. Reading it in would take 2 GiB of memory.
    int fd = open(dir.file("huge.txt").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, (off_t)2 << 30), 0);
    close(fd);
    for (const char *name : {"limit.txt", "over.txt"}) {
        fd = open(dir.file(name).c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, TRN_FILE_SIZE_MAX + (name[0] == 'o')), 0);
        close(fd);
    }

    for (const char *name : {"over.txt", "huge.txt"}) {
        ExtractedText t;
        EXPECT_EQ(extract_file_text(dir.file(name).c_str(), TRN_FILE_TYPE_TEXT, 0, &t),
                  (TrnFileStatus)TRN_FILE_STATUS_TOO_LARGE)
            << name;
        extracted_text_free(&t);
    }
    unlink(dir.file("limit.txt").c_str());

    const std::string huge = dir.file("huge.txt");
    const std::string root = dir.path();
    long base = child_peak_mib([] {
        TrnConfig cfg = {};
        TrnEngine *e = trn_open(&cfg);
        bool ok = trn_ingest_text(e, "/x/small.txt", "a small file that is indexed", 800, 200) == 1;
        trn_close(e);
        return ok;
    });
    long walk = child_peak_mib([&root] {
        TrnConfig cfg = {};
        TrnEngine *e = trn_open(&cfg);
        bool ok = trn_ingest_dir(e, root.c_str(), 800, 200, nullptr, nullptr) == 1;
        trn_close(e);
        return ok;
    });
    long file = child_peak_mib([&huge] {
        TrnConfig cfg = {};
        TrnEngine *e = trn_open(&cfg);
        bool ok = trn_ingest_file(e, huge.c_str(), 800, 200) == -1 && e->count == 0;
        trn_close(e);
        return ok;
    });
    ASSERT_GT(base, 0);
    ASSERT_GT(walk, 0) << "the walk indexes small.txt alone";
    ASSERT_GT(file, 0) << "trn_ingest_file refuses the huge file";
    // The same engine ingesting one small text is the measure; reading the files would add
    // 20 MiB (over.txt) or 2 GiB (huge.txt).
    EXPECT_LT(walk, base + 10);
    EXPECT_LT(file, base + 10);

    TrnFileList *list = trn_list_dir_files(nullptr, root.c_str());
    EXPECT_EQ(list->count, 3) << "the listing shows large files with their size";
    trn_free_file_list(list);
}

TEST(IndexFiles, StoreAndLogAreReadableByTheOwnerAlone)
{
    struct Case {
        const char *name;
        mode_t umask_value;
        mode_t existing; // 0: no files before the engine opens
    } cases[] = {
        {"new files under umask 0", 0, 0},
        {"new files under umask 022", 022, 0},
        {"files left world-readable by an older version", 0, 0644},
    };
    for (const Case &c : cases) {
        TempDir dir;
        const std::string index = dir.file(".tarnwick");
        ASSERT_EQ(mkdir(index.c_str(), 0700), 0);
        mode_t old_mask = umask(c.umask_value);
        if (c.existing != 0) {
            for (const char *name : {"/tarnwick.bin", "/tarnwick.wal"}) {
                int fd = open((index + name).c_str(), O_WRONLY | O_CREAT, c.existing);
                ASSERT_GE(fd, 0);
                ASSERT_EQ(fchmod(fd, c.existing), 0);
                close(fd);
            }
        }
        TrnConfig cfg = {};
        cfg.index_dir = index.c_str();
        TrnEngine *e = trn_open(&cfg);
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(trn_ingest_text(e, "/x/a.txt", "private words of the owner", 800, 200), 1);
        struct stat st;
        ASSERT_EQ(stat((index + "/tarnwick.wal").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << c.name << ": log while open";
        trn_close(e);
        umask(old_mask);
        for (const char *name : {"/tarnwick.bin", "/tarnwick.wal"}) {
            ASSERT_EQ(stat((index + name).c_str(), &st), 0) << name;
            EXPECT_EQ(st.st_mode & 07777, 0600u) << c.name << ": " << name;
        }
    }
}

} // namespace
