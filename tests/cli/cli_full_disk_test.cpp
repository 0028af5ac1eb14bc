// Commands on an index whose file system fills up: a small tmpfs of its own, mounted for the test
// (which needs root) and always unmounted.
#include "cli_support.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace cli_test;

namespace
{

// A tmpfs of size bytes mounted on a fresh directory, unmounted (with all it holds) at scope exit.
class SmallDisk
{
public:
    explicit SmallDisk(size_t size)
    {
        m_path = m_base / "disk";
        mkdir(m_path.c_str(), 0700);
        const std::string options = "size=" + std::to_string(size) + ",mode=0700";
        m_mounted = mount("tmpfs", m_path.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~SmallDisk()
    {
        if (m_mounted) {
            umount2(m_path.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool mounted() const { return m_mounted; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }
    uint64_t free_bytes() const
    {
        struct statvfs st;
        return statvfs(m_path.c_str(), &st) == 0 ? (uint64_t)st.f_bavail * st.f_frsize : 0;
    }

private:
    TempDir m_base;
    std::string m_path;
    bool m_mounted = false;
};

uint64_t file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (uint64_t)st.st_size : 0;
}

// A note of about 300 bytes that only file i holds the word "marker<i>" of.
std::string note(int i)
{
    std::string text = "marker" + std::to_string(i) + " is the word of this note. ";
    while (text.size() < 300) {
        text += "Tides and harbours, lanterns and rope, number " + std::to_string(i) + ". ";
    }
    return text + "\n";
}

// Files holding marker<i>, by a text search.
size_t found(const std::string &dir, int i)
{
    RunResult r =
        run_cli({"search", dir, "marker" + std::to_string(i), "--mode", "text", "--json"}, dir);
    EXPECT_EQ(r.status, 0) << r.err;
    return parse_json(r.out).items.size();
}

} // namespace

// An update whose checkpoint failed on a full disk said "150 added" and exited 0, and left a log
// that every later open embedded again; a removal that took effect exited 1.
TEST(CliFullDisk, AFailedCheckpointFailsTheCommandAndLeavesTheIndexAsItWas)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "mounting a small file system needs root";
    }
    SmallDisk disk(4 << 20);
    ASSERT_TRUE(disk.mounted()) << "mount: " << strerror(errno);
    const std::string dir = disk / "notes";
    for (int i = 0; i < 60; i++) {
        write_file(dir + "/old" + std::to_string(i) + ".txt", note(i));
    }
    RunResult r = run_cli({"index", dir}, dir);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string wal = dir + "/.tarnwick/tarnwick.wal";
    const uint64_t store = file_size(dir + "/.tarnwick/tarnwick.bin");
    for (int i = 100; i < 105; i++) {
        write_file(dir + "/new" + std::to_string(i) + ".txt", note(i));
    }

    // Room for the five files' log groups, not for a new store.
    const uint64_t room = 24 << 10;
    ASSERT_GT(store, 2 * room);
    {
        int fd = open((disk / "filler").c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(posix_fallocate(fd, 0, (off_t)(disk.free_bytes() - room)), 0);
        close(fd);
    }
    r = run_cli({"update", dir}, dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "tarnwick: cannot write the index of " + dir + ": No space left on device\n");
    EXPECT_EQ(file_size(wal), 0u) << "the update's log groups stay";
    EXPECT_EQ(found(dir, 100), 0u);
    EXPECT_EQ(found(dir, 7), 1u);

    // A removal that took effect succeeds, the store unwritten.
    unlink((dir + "/old7.txt").c_str());
    r = run_cli({"remove", dir, dir + "/old7.txt"}, dir);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "removed 1 chunk of " + dir + "/old7.txt\n");
    EXPECT_EQ(found(dir, 7), 0u);

    // With room again, the next update reads the five files the failed one had taken.
    unlink((disk / "filler").c_str());
    r = run_cli({"update", dir, "--json"}, dir);
    ASSERT_EQ(r.status, 0) << r.err;
    Json report = parse_json(r.out);
    EXPECT_EQ(report["added"].number, 5);
    EXPECT_EQ(report["removed"].number, 0);
    EXPECT_EQ(report["unchanged"].number, 59);
    EXPECT_EQ(found(dir, 104), 1u);
    EXPECT_EQ(file_size(wal), 0u);
}
