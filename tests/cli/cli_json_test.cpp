// Hostile input through the program: file names with shell syntax and bytes that are not UTF-8,
// chunk texts with control characters and multi-byte characters cut at chunk boundaries. The
// JSON must stay valid and say exactly what the index holds, and nothing may run a shell.
#include "cli_support.h"

using namespace cli_test;

namespace
{

const std::string REPLACEMENT = "\xEF\xBF\xBD"; // U+FFFD

// Every file name that a shell would act on; the PDF converter must be given it as one argument.
const std::string HOSTILE_NAME = "tide \"q\" 'x' $(touch pwned1) `touch pwned2`; touch pwned3 &\n"
                                 "second line\\.pdf";

TEST(CliHostile, PdfNamedWithShellSyntaxIsIndexedAndRunsNothing)
{
    TempDir dir;
    TempDir work; // the program's working directory, where a shell would create the files
    fs::copy_file(std::string(TRN_SOURCE_DIR) + "/samples/tide-table.pdf", dir / HOSTILE_NAME);
    RunResult r = run_cli({"index", dir.path()}, work.path());
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char *name : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(fs::exists(work / name)) << name;
        EXPECT_FALSE(fs::exists(dir / name)) << name;
    }

    r = run_cli({"files", dir.path(), "--json"}, work.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json files = parse_json(r.out);
    ASSERT_EQ(files.items.size(), 1u);
    const Json &pdf = files.items[0];
    EXPECT_EQ(pdf["name"].text, HOSTILE_NAME);
    EXPECT_EQ(pdf["path"].text, dir / HOSTILE_NAME);
    EXPECT_EQ(pdf["fileType"].number, 1);
    EXPECT_EQ(pdf["fileTypeName"].text, "PDF");
    EXPECT_TRUE(pdf["indexed"].boolean);

    // The converted text is what was indexed.
    r = run_cli({"search", dir.path(), "causeway", "--mode", "text", "--json"}, work.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 1u);
    EXPECT_EQ(hits.items[0]["filePath"].text, dir / HOSTILE_NAME);
    EXPECT_EQ(hits.items[0]["fileType"].number, 1);
    EXPECT_NE(hits.items[0]["snippet"].text.find("causeway"), std::string::npos);

    // The readable listing keeps one file per line.
    r = run_cli({"files", dir.path()}, work.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines_of(r.out).size(), 2u) << r.out; // the header and the file
}

TEST(CliHostile, ControlCharactersAndQuotesRoundTripThroughJson)
{
    TempDir dir;
    const std::string text = std::string("tab\there \"quoted\" back\\slash\x01\x1f bell\x07"
                                         " cr\r form\f del\x7f end of the text\n");
    write_file(dir / "controls.txt", text);
    ASSERT_EQ(run_cli({"index", dir.path()}, dir.path()).status, 0);

    RunResult r = run_cli({"search", dir.path(), "bell", "--mode", "text", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 1u);
    EXPECT_EQ(hits.items[0]["snippet"].text, text);
    EXPECT_NE(r.out.find("\\u0001"), std::string::npos);
    EXPECT_NE(r.out.find("\\t"), std::string::npos);

    // The readable form writes no control character but tab and line feed to a terminal.
    r = run_cli({"search", dir.path(), "bell", "--mode", "text"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    for (char c : r.out) {
        unsigned char u = static_cast<unsigned char>(c);
        EXPECT_TRUE((u >= 0x20 && u != 0x7f) || c == '\n' || c == '\t') << int(u);
    }
    EXPECT_NE(r.out.find("tab\there"), std::string::npos) << r.out;
}

// "é" is two bytes; after one "x", a 64-byte window would end in the middle of the 32nd one:
// windows end before it instead, so no snippet holds half a character.
TEST(CliHostile, ChunkEdgesNeverCutACharacterInTwo)
{
    TempDir dir;
    std::string thirty_one;
    for (int i = 0; i < 31; i++) {
        thirty_one += "\xC3\xA9";
    }
    // 128 bytes: windows [0, 63), [63, 127) and the last, [65, 128)
    write_file(dir / "accents.txt", "x" + thirty_one + "\xC3\xA9" + thirty_one + "y");
    ASSERT_EQ(
        run_cli({"index", dir.path(), "--chunk-size", "64", "--overlap", "0"}, dir.path()).status,
        0);
    RunResult r = run_cli(
        {"search", dir.path(), "\xC3\xA9", "--mode", "text", "--all-chunks", "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 3u);
    EXPECT_EQ(hits.items[0]["snippet"].text, "x" + thirty_one);
    EXPECT_EQ(hits.items[1]["snippet"].text, thirty_one + "\xC3\xA9");
    EXPECT_EQ(hits.items[2]["snippet"].text, thirty_one + "y");
    for (const Json &hit : hits.items) {
        EXPECT_EQ(hit["snippet"].text.find(REPLACEMENT), std::string::npos);
    }
}

TEST(CliHostile, NamesThatAreNotUtf8AreListedAsValidJson)
{
    TempDir dir;
    // A lone continuation byte, an invalid lead byte, a surrogate and an overlong "/".
    const std::string name = "bad\x80\xff-\xED\xA0\x80-\xC0\xAF.txt";
    write_file(dir / name, "a file whose name is not UTF-8 at all\n");
    ASSERT_EQ(run_cli({"index", dir.path()}, dir.path()).status, 0);
    RunResult r = run_cli({"files", dir.path(), "--json"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    Json files = parse_json(r.out);
    ASSERT_EQ(files.items.size(), 1u);
    // Each maximal ill-formed subsequence becomes one U+FFFD: the surrogate's ED stands alone
    // (A0 cannot follow it), so it gives three, the overlong C0 AF two.
    const std::string R = REPLACEMENT;
    EXPECT_EQ(files.items[0]["name"].text, "bad" + R + R + "-" + R + R + R + "-" + R + R + ".txt");
    // The walk keeps names as the bytes they are, so such a file is read and indexed.
    EXPECT_EQ(files.items[0]["status"].text, "Indexable");
    EXPECT_EQ(files.items[0]["chunkCount"].number, 1);
}

} // namespace
