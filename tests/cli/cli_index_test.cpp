// index, stats, files, search, remove and compact on a small directory, run through the built
// program. Chunks are 64 bytes that start every 48 bytes, so every expected count below follows
// from the file lengths: a file of n >= 64 bytes gives (n - 64) / 48 + 1 chunks, a shorter one 1.
#include "cli_support.h"

#include <algorithm>
#include <map>
#include <set>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace cli_test;

namespace
{

// Ten lines of exactly 20 bytes (19 and a line feed); line i starts at byte 20 * (i - 1).
std::string alpha_text()
{
    std::string text;
    for (int i = 1; i <= 10; i++) {
        std::string line =
            i == 7 ? "lighthouse keeper 7" : "plain line number " + std::to_string(i);
        line.resize(19, '.');
        text += line + "\n";
    }
    return text;
}

// The indexed directory: three indexable files of 9 chunks in all, a binary file and a hidden one.
class Corpus
{
public:
    Corpus()
    {
        write_file(dir / "notes/alpha.md", alpha_text());                     // 200 bytes: 5 chunks
        write_file(dir / "beta.txt", "a short note about -dashes and rye\n"); // 35 bytes: 1 chunk
        std::string gamma = "int main(void)\n{\n    return 0; /* nothing to do here */\n}\n";
        gamma.resize(112, ' '); // 112 bytes: 3 chunks
        write_file(dir / "code/gamma.c", gamma);
        write_file(dir / "image.bin", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0", 18));
        write_file(dir / ".hidden.txt", "hidden files are never indexed nor listed\n");
        first_index = index();
        EXPECT_EQ(first_index.status, 0) << first_index.err;
    }

    RunResult index()
    {
        return run_cli({"index", dir.path(), "--chunk-size", "64", "--overlap", "16"}, dir.path());
    }

    Json json_of(const std::vector<std::string> &args)
    {
        RunResult r = run_cli(args, dir.path());
        EXPECT_EQ(r.status, 0) << r.err;
        return parse_json(r.out);
    }

    Json stats() { return json_of({"stats", dir.path(), "--json"}); }

    // Search results of one query as parsed JSON objects.
    std::vector<Json> search(const std::string &query, const std::string &mode, int k = 10)
    {
        return json_of(
                   {"search", dir.path(), query, "--mode", mode, "-k", std::to_string(k), "--json"})
            .items;
    }

    // files --json keyed by path.
    std::map<std::string, Json> files()
    {
        std::map<std::string, Json> by_path;
        for (const Json &f : json_of({"files", dir.path(), "--json"}).items) {
            by_path[f["path"].text] = f;
        }
        return by_path;
    }

    TempDir dir;
    RunResult first_index;
};

// Tests that only read the index share one.
class CliIndexed : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_corpus = new Corpus; }
    static void TearDownTestSuite()
    {
        delete s_corpus;
        s_corpus = nullptr;
    }

    Json stats() { return s_corpus->stats(); }
    std::vector<Json> search(const std::string &query, const std::string &mode, int k = 10)
    {
        return s_corpus->search(query, mode, k);
    }
    std::map<std::string, Json> files() { return s_corpus->files(); }

    static Corpus *s_corpus;
    const TempDir &dir = s_corpus->dir;
};

Corpus *CliIndexed::s_corpus = nullptr;

// Tests that change the index build their own.
class CliMaintenance : public ::testing::Test, public Corpus
{
};

TEST_F(CliIndexed, StatsCountChunksFilesAndDimension)
{
    Json s = stats();
    ASSERT_EQ(s.kind, Json::Object);
    EXPECT_EQ(
        s.keys(),
        (std::vector<std::string>{"chunkCount", "fileCount", "deletedCount", "maxLevel", "dim"}));
    EXPECT_EQ(s["chunkCount"].number, 9);
    EXPECT_EQ(s["fileCount"].number, 3);
    EXPECT_EQ(s["deletedCount"].number, 0);
    EXPECT_GE(s["maxLevel"].number, 0);
    EXPECT_EQ(s["dim"].number, 512);

    RunResult r = run_cli({"stats", dir.path()}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("chunks:     9\n"), std::string::npos) << r.out;
}

TEST_F(CliMaintenance, IndexingReportsOnOneLineAndShowsProgressOnlyOnATerminal)
{
    EXPECT_EQ(lines_of(first_index.out).size(), 1u);
    EXPECT_EQ(first_index.out.rfind("indexed 3 files, 9 chunks in ", 0), 0u) << first_index.out;
    // Standard error was no terminal: no progress display, and the engine's informational lines
    // only with --verbose.
    EXPECT_EQ(first_index.err.find('\r'), std::string::npos);
    EXPECT_EQ(first_index.err.find("tarnwick: opened"), std::string::npos) << first_index.err;
    RunResult verbose = run_cli({"stats", dir.path(), "--verbose"}, dir.path());
    EXPECT_EQ(verbose.status, 0) << verbose.err;
    EXPECT_NE(verbose.err.find("tarnwick: opened (9 docs"), std::string::npos) << verbose.err;
    expect_diagnostics(verbose);

    RunResult r = run_cli({"index", dir.path(), "--chunk-size", "64", "--overlap", "16"},
                          dir.path(),
                          /*err_on_terminal=*/true);
    ASSERT_EQ(r.status, 0) << r.err;
    // The first line comes once the walk has found the three indexable files.
    EXPECT_NE(r.err.find("Indexing 0 of 3 files, "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Indexing 3 of 3 files, 9 chunks, "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" chunks/s"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("tarnwick: opened"), std::string::npos) << r.err;
    // Indexing again starts from scratch rather than adding a second copy of every chunk.
    EXPECT_EQ(stats()["chunkCount"].number, 9);
}

TEST_F(CliIndexed, FilesListsEveryFileWithItsChunksAndStatus)
{
    std::map<std::string, Json> f = files();
    ASSERT_EQ(f.size(), 5u);
    struct Expected {
        std::string rel, name, type;
        double size, chunks;
    };
    for (const Expected &e :
         std::vector<Expected>{{"notes/alpha.md", "alpha.md", "Markdown", 200, 5},
                               {"beta.txt", "beta.txt", "Text", 35, 1},
                               {"code/gamma.c", "gamma.c", "Source", 112, 3}}) {
        SCOPED_TRACE(e.rel);
        ASSERT_EQ(f.count(dir / e.rel), 1u);
        const Json &info = f[dir / e.rel];
        EXPECT_EQ(info.keys(),
                  (std::vector<std::string>{"path",
                                            "name",
                                            "fileType",
                                            "fileTypeName",
                                            "size",
                                            "chunkCount",
                                            "indexed",
                                            "directory",
                                            "status",
                                            "reason",
                                            "encoding"}));
        EXPECT_EQ(info["encoding"].text, "UTF-8");
        EXPECT_EQ(info["status"].text, "Indexable");
        EXPECT_EQ(info["name"].text, e.name);
        EXPECT_EQ(info["fileTypeName"].text, e.type);
        EXPECT_EQ(info["size"].number, e.size);
        EXPECT_EQ(info["chunkCount"].number, e.chunks);
        EXPECT_EQ(info["indexed"].kind, Json::Bool);
        EXPECT_TRUE(info["indexed"].boolean);
    }
    const Json &image = f[dir / "image.bin"];
    EXPECT_EQ(image["chunkCount"].number, 0);
    EXPECT_FALSE(image["indexed"].boolean);
    EXPECT_EQ(image["status"].text, "Binary");
    EXPECT_EQ(f[dir / ".hidden.txt"]["reason"].text, "hidden name");
}

// files said "indexable" of files that index skipped. Both now walk and read alike, with the
// same options, so a file is indexable exactly when it has chunks, in every kind of file.
TEST(CliFiles, FilesAndIndexAgreeOnEveryFileOfAMixedTree)
{
    TempDir dir;
    const std::string words = "words worth indexing in this file, and a few more\n";
    write_file(dir / "src/main.c", "int main(void) { return 0; } /* " + words + " */\n");
    write_file(dir / "README.Debian", words);
    write_file(dir / "NEWS", words);
    write_file(dir / "parser.Bugs", words);
    write_file(dir / "doc/guide.html", "<html><body><p>" + words + "</p></body></html>");
    write_file(dir / "doc/notes.md", words);
    write_file(dir / "doc/empty.html", "<html><script>var x = 1;</script></html>");
    write_file(dir / ".gitignore", "*.log\n!keep.log\n");
    write_file(dir / "run.log", words);
    write_file(dir / "keep.log", words);
    write_file(dir / "node_modules/dep/index.js", words);
    write_file(dir / "build/out.txt", words);
    write_file(dir / "latin1.txt", "caf\xe9 cr\xe8me caf\xe9 caf\xe9 caf\xe9");
    write_file(dir / "tiny.txt", "tiny");
    write_file(dir / "broken.docx", "PK\x03\x04 not a document");
    write_file(dir / "large.txt", std::string(2 * 1024 * 1024 + 1, 'z'));
    write_file(dir / "blob",
               std::string("\x7f"
                           "ELF\x02\x01\x01\0\0",
                           10));
    write_file(dir / "extra.org", words);
    const std::vector<std::string> walk = {"--exclude",
                                           "node_modules",
                                           "--exclude",
                                           "build",
                                           "--max-file-size",
                                           "2",
                                           "--extensions",
                                           "org"};
    std::vector<std::string> index = {"index", dir.path(), "--weights", "none"};
    index.insert(index.end(), walk.begin(), walk.end());
    RunResult r = run_cli(index, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> list = {"files", dir.path(), "--json"};
    list.insert(list.end(), walk.begin(), walk.end());
    r = run_cli(list, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, std::string> status;
    for (const Json &f : parse_json(r.out).items) {
        const std::string rel = f["path"].text.substr(dir.path().size() + 1);
        status[rel] = f["status"].text + (f["reason"].text.empty() ? "" : " " + f["reason"].text);
        EXPECT_EQ(f["status"].text == "Indexable", f["chunkCount"].number > 0) << rel;
    }
    const std::map<std::string, std::string> expected = {
        {"src/main.c", "Indexable"},
        {"README.Debian", "Indexable"},
        {"NEWS", "Indexable"},
        {"parser.Bugs", "Indexable"},
        {"doc/guide.html", "Indexable"},
        {"doc/notes.md", "Indexable"},
        {"doc/empty.html", "Too short"},
        {".gitignore", "Excluded hidden name"},
        {"run.log", "Excluded .gitignore:1: *.log"},
        {"keep.log", "Indexable"},
        {"node_modules", "Excluded global pattern node_modules"},
        {"build", "Excluded global pattern build"},
        {"latin1.txt", "Indexable"},
        {"tiny.txt", "Too short"},
        {"broken.docx", "Unreadable"},
        {"large.txt", "Too large"},
        {"blob", "Binary"},
        {"extra.org", "Indexable"},
    };
    EXPECT_EQ(status, expected);

    // The Latin-1 file says how it was read, and is found by an accented word.
    r = run_cli({"files", dir.path()}, dir.path());
    EXPECT_NE(r.out.find(dir / "latin1.txt  (read as ISO-8859-1)\n"), std::string::npos) << r.out;
    r = run_cli({"search", dir.path(), "cr\xC3\xA8me", "--mode", "keyword", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<Json> hits = parse_json(r.out).items;
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0]["filePath"].text, dir / "latin1.txt");
    EXPECT_NE(hits[0]["snippet"].text.find("cr\xC3\xA8me"), std::string::npos);
}

TEST_F(CliIndexed, TextAndRegexHitsNameTheFileOnceAndTheLineOfTheMatch)
{
    const std::string alpha = dir / "notes/alpha.md";
    // "lighthouse" stands on line 7 (bytes 120..138), inside the third chunk (bytes 80..139, from
    // line 5) and the fourth (bytes 120..179): one row, for the third, with one more.
    for (const auto &[query, mode] : std::vector<std::pair<std::string, std::string>>{
             {"LightHouse", "text"}, {"LIGHT(house|ship) k[e]+per [0-9]", "regex"}}) {
        SCOPED_TRACE(mode);
        std::vector<Json> hits = search(query, mode);
        ASSERT_EQ(hits.size(), 1u);
        const Json &h = hits[0];
        EXPECT_EQ(h.keys(),
                  (std::vector<std::string>{"id",
                                            "filePath",
                                            "snippet",
                                            "score",
                                            "chunkIndex",
                                            "lineNumber",
                                            "fileType",
                                            "fileTypeName",
                                            "folder",
                                            "moreInFile",
                                            "page",
                                            "pageLine",
                                            "headingPath",
                                            "semanticPartial",
                                            "marks"}));
        EXPECT_EQ(h["folder"].text, dir.path());
        EXPECT_EQ(h["id"].text, alpha + ":2");
        EXPECT_EQ(h["filePath"].text, alpha);
        EXPECT_EQ(h["chunkIndex"].number, 2);
        EXPECT_EQ(h["lineNumber"].number, 7);
        EXPECT_EQ(h["fileType"].number, 5);
        EXPECT_EQ(h["fileTypeName"].text, "Markdown");
        EXPECT_EQ(h["score"].number, 1.0);
        EXPECT_EQ(h["moreInFile"].number, 1);
        EXPECT_EQ(h["snippet"].text, alpha_text().substr(80, 60));
        // The match, marked: bytes 40..50 of the snippet, or 40..59 for the whole expression.
        ASSERT_EQ(h["marks"].items.size(), 1u);
        EXPECT_EQ(h["marks"].items[0].items[0].number, 40);
        EXPECT_EQ(h["marks"].items[0].items[1].number, mode == "text" ? 50 : 59);
    }
    // A query that begins with "-" follows "--".
    RunResult r =
        run_cli({"search", dir.path(), "--mode", "text", "--json", "--", "-dashes"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(parse_json(r.out).items.size(), 1u);
    // --all-chunks gives each matching chunk its own row.
    r = run_cli({"search", dir.path(), "lighthouse", "--mode", "text", "--all-chunks", "--json"},
                dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<Json> chunks = parse_json(r.out).items;
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[1]["id"].text, alpha + ":3");
    EXPECT_EQ(chunks[1]["lineNumber"].number, 7);
    EXPECT_EQ(chunks[1]["moreInFile"].number, 0);
}

TEST_F(CliIndexed, NarrowingFlagsAndWordsKeepOnlyTheFilesTheyName)
{
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
        {{"--in", "notes"}, {"notes/alpha.md"}},
        {{"--type", "source,text"}, {"beta.txt", "code/gamma.c"}},
        {{"--type", "md"}, {"notes/alpha.md"}},
        {{"--modified", "..1999"}, {}},
        {{"--modified", ">=2000"}, {"beta.txt", "code/gamma.c", "notes/alpha.md"}},
        {{"-k", "3"}, {"beta.txt", "code/gamma.c", "notes/alpha.md"}},
    };
    for (const auto &[flags, expected] : cases) {
        SCOPED_TRACE(flags[0]);
        for (const char *mode : {"text", "keyword"}) {
            // Narrowing alone lists what it leaves in; with a word, the word decides too.
            std::vector<std::string> args = {"search", dir.path(), "", "--mode", mode, "--json"};
            args.insert(args.end(), flags.begin(), flags.end());
            RunResult r = run_cli(args, dir.path());
            if (flags[0] == "-k") {
                EXPECT_EQ(r.status, 2); // an empty query without narrowing is refused
                continue;
            }
            ASSERT_EQ(r.status, 0) << r.err;
            std::set<std::string> got;
            for (const Json &h : parse_json(r.out).items) {
                got.insert(h["filePath"].text.substr(dir.path().size() + 1));
            }
            EXPECT_EQ(std::vector<std::string>(got.begin(), got.end()), expected) << mode;
        }
    }
    // The same words inside the query, and one that leaves a passage out.
    std::vector<Json> hits = search("line -\"number 3\" in:notes", "keyword", 10);
    ASSERT_FALSE(hits.empty());
    for (const Json &h : hits) {
        EXPECT_EQ(h["filePath"].text, dir / "notes/alpha.md");
        EXPECT_EQ(h["snippet"].text.find("number 3"), std::string::npos);
    }
}

TEST_F(CliIndexed, SeveralFoldersAreSearchedAsOneAndEachHitNamesItsFolder)
{
    TempDir other;
    write_file(other / "keeper.txt", "the lighthouse keeper of the other folder\n");
    ASSERT_EQ(run_cli({"index", other.path()}, other.path()).status, 0);
    RunResult r = run_cli(
        {"search", dir.path(), other.path(), "lighthouse", "--mode", "text", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<Json> hits = parse_json(r.out).items;
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0]["folder"].text, dir.path()); // the first of each folder in turn
    EXPECT_EQ(hits[0]["filePath"].text, dir / "notes/alpha.md");
    EXPECT_EQ(hits[1]["folder"].text, other.path());
    EXPECT_EQ(hits[1]["filePath"].text, other / "keeper.txt");

    r = run_cli({"search", other.path(), dir.path(), "lighthouse", "--mode", "keyword"},
                dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string name = other.path().substr(other.path().rfind('/') + 1);
    EXPECT_NE(r.out.find(other / "keeper.txt:1  score "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  in " + name + "\n"), std::string::npos) << r.out;
}

TEST_F(CliIndexed, SemanticHitsNameEachFileOnceWithItsOtherChunks)
{
    std::vector<Json> hits = search("who keeps the lighthouse", "semantic");
    // Three files of 5, 1 and 3 chunks: one row each, counting the rest.
    ASSERT_EQ(hits.size(), 3u);
    std::map<std::string, int> more;
    for (const Json &h : hits) {
        EXPECT_EQ(h["id"].text,
                  h["filePath"].text + ":" + std::to_string(int(h["chunkIndex"].number)));
        more[h["filePath"].text] = int(h["moreInFile"].number);
    }
    EXPECT_EQ(more[dir / "notes/alpha.md"], 4);
    EXPECT_EQ(more[dir / "code/gamma.c"], 2);
    EXPECT_EQ(more[dir / "beta.txt"], 0);
}

TEST_F(CliIndexed, ReadableSearchPrintsPathLineScoreAndIndentedSnippet)
{
    RunResult r = run_cli({"search", dir.path(), "lighthouse", "--mode", "text"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines = lines_of(r.out);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], dir / "notes/alpha.md" + ":7  score 1.0000  (1 more in this file)");
    EXPECT_EQ(lines[1].rfind("    ", 0), 0u);
    EXPECT_NE(r.out.find("    lighthouse keeper 7\n"), std::string::npos) << r.out;
}

TEST_F(CliMaintenance, RemoveMarksChunksDeletedAndAcceptsRelativePaths)
{
    // Relative to the working directory, which is not the indexed one here.
    RunResult r = run_cli({"remove", dir.path(), "alpha.md"}, dir / "notes");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "removed 5 chunks of " + dir / "notes/alpha.md" + "\n");

    Json s = stats(); // the removed chunks are no longer counted among the chunks
    EXPECT_EQ(s["chunkCount"].number, 4);
    EXPECT_EQ(s["deletedCount"].number, 5);
    std::map<std::string, Json> f = files();
    EXPECT_EQ(f[dir / "notes/alpha.md"]["chunkCount"].number, 0);
    EXPECT_FALSE(f[dir / "notes/alpha.md"]["indexed"].boolean);
    EXPECT_TRUE(search("lighthouse", "text").empty());

    // Removing it again, or a file never indexed, fails; the other file is still removed.
    r = run_cli({"remove", dir.path(), dir / "notes/alpha.md", dir / "beta.txt"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "removed 1 chunk of " + dir / "beta.txt" + "\n");
    EXPECT_NE(r.err.find("tarnwick: not in the index: " + dir / "notes/alpha.md"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(stats()["deletedCount"].number, 6);
}

TEST_F(CliMaintenance, RemoveFindsFilesDeletedFromDiskAndPathsThroughLinks)
{
    fs::create_directory_symlink(dir.path(), dir / "link");
    fs::remove(dir / "code/gamma.c");
    RunResult r =
        run_cli({"remove", "link/.", "link/code/gamma.c", "link/code/../beta.txt"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(stats()["deletedCount"].number, 4);
}

TEST_F(CliMaintenance, CompactAfterRemovingEverythingLeavesAnEmptyIndex)
{
    RunResult r =
        run_cli({"remove", dir.path(), "notes/alpha.md", "beta.txt", "code/gamma.c"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    r = run_cli({"compact", dir.path()}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "compacted: 0 chunks of 0 files\n");

    Json s = stats();
    EXPECT_EQ(s["chunkCount"].number, 0);
    EXPECT_EQ(s["fileCount"].number, 0);
    EXPECT_EQ(s["deletedCount"].number, 0);
    EXPECT_EQ(s["maxLevel"].number, -1);
    EXPECT_EQ(fs::file_size(dir / ".tarnwick/tarnwick.bin"), 96u); // the header alone
    EXPECT_TRUE(search("lighthouse", "semantic").empty());
}

} // namespace

// A damaged store is refused with one line by every command until the index is rebuilt, and the
// rebuild keeps the damaged file aside; while another process holds the lock, a writer says busy.
// A damaged vector is met only by what reads it: a search, or a write, which reads them all.
TEST_F(CliMaintenance, DamagedOrBusyIndexFailsWithOneLineAndARebuildRecovers)
{
    const std::string store = dir / ".tarnwick/tarnwick.bin";
    const std::string damaged = "tarnwick: the index of " + dir.path()
                                + " is damaged; rebuild it with tarnwick-cli index " + dir.path()
                                + "\n";
    std::string bytes = read_file(store);
    bytes[bytes.size() - 3] ^= 0x04; // the last chunk's vector
    write_file(store, bytes);
    RunResult lazy = run_cli({"search", dir.path(), "rye", "--mode", "semantic"}, dir.path());
    EXPECT_EQ(lazy.status, 1);
    EXPECT_EQ(lazy.err, damaged);
    EXPECT_EQ(stats()["chunkCount"].number, 9);
    lazy = run_cli({"remove", dir.path(), "beta.txt"}, dir.path());
    EXPECT_EQ(lazy.status, 1);
    EXPECT_EQ(lazy.err, damaged);
    bytes[bytes.size() - 3] ^= 0x04;
    bytes[200] ^= 0x04; // a chunk record, read by every open
    write_file(store, bytes);
    for (std::vector<std::string> args : {std::vector<std::string>{"search", dir.path(), "rye"},
                                          {"stats", dir.path()},
                                          {"remove", dir.path(), "beta.txt"},
                                          {"compact", dir.path()}}) {
        RunResult r = run_cli(args, dir.path());
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(r.err, damaged) << args[0];
    }
    EXPECT_EQ(read_file(store), bytes);

    RunResult r = index();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(stats()["chunkCount"].number, 9);
    int kept = 0;
    for (const auto &entry : fs::directory_iterator(dir / ".tarnwick")) {
        kept += entry.path().filename().string().rfind("tarnwick.bin.damaged-", 0) == 0;
    }
    EXPECT_EQ(kept, 1);

    int lock = open((dir / ".tarnwick/tarnwick.lock").c_str(), O_RDWR);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    r = run_cli({"remove", dir.path(), "beta.txt"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "tarnwick: the index of " + dir.path()
                  + " is busy: another Tarnwick is updating it\n");
    close(lock);
    EXPECT_EQ(stats()["deletedCount"].number, 0);
}

// update reads only what changed since index; watch does the same each time files change, one
// line per update, until it is told to stop.
TEST_F(CliMaintenance, UpdateAndWatchFollowAddedEditedAndDeletedFiles)
{
    auto update = [this] {
        return json_of({"update", dir.path(), "--chunk-size", "64", "--overlap", "16", "--json"});
    };
    Json nothing = update();
    EXPECT_EQ(nothing["unchanged"].number, 3);
    EXPECT_EQ(nothing["added"].number + nothing["changed"].number + nothing["removed"].number, 0);

    write_file(dir / "beta.txt", "a longer note about rye, barley and oats, and a little spelt\n");
    fs::remove(dir / "code/gamma.c");
    write_file(dir / "notes/delta.txt", "delta is a new note\n");
    Json changed = update();
    EXPECT_EQ(changed["added"].number, 1);
    EXPECT_EQ(changed["changed"].number, 1);
    EXPECT_EQ(changed["removed"].number, 1);
    EXPECT_EQ(changed["unchanged"].number, 1);
    EXPECT_EQ(search("barley", "text").size(), 1u);
    EXPECT_TRUE(search("nothing to do here", "text").empty());

    CliProcess watch({"watch", dir.path(), "--chunk-size", "64", "--overlap", "16"}, dir.path());
    auto lines = [&watch] {
        return lines_of(watch.out_so_far()).size();
    };
    for (int i = 0; i < 200 && lines() < 1; i++) {
        usleep(50000);
    }
    ASSERT_EQ(lines(), 1u);
    write_file(dir / "epsilon.md", "# Epsilon\n\nwatched into the index\n");
    for (int i = 0; i < 300 && lines() < 2; i++) {
        usleep(50000);
    }
    kill(watch.pid(), SIGTERM);
    RunResult r = watch.finish();
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> out = lines_of(r.out);
    ASSERT_EQ(out.size(), 2u) << r.out;
    EXPECT_EQ(out[1].rfind("updated: 1 added, 0 changed, 0 removed, 3 unchanged", 0), 0u) << out[1];
    EXPECT_EQ(search("watched", "text").size(), 1u);
}
