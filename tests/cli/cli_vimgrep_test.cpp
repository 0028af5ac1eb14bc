// search --vimgrep: every line parses back into a path, line and column that point at the match
// in the file, as an editor's jump list reads them.
#include "cli_support.h"

#include <algorithm>
#include <cctype>

using namespace cli_test;

namespace
{

struct JumpLine {
    std::string path;
    int line = 0;
    int column = 0;
    std::string text;
};

std::vector<JumpLine> parse_jump_lines(const std::string &out)
{
    static const std::regex LINE(R"(^([^:]+):([0-9]+):([0-9]+):(.*)$)");
    std::vector<JumpLine> parsed;
    for (const std::string &line : lines_of(out)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, LINE)) << "not path:line:column:text: " << line;
        if (!m.empty()) {
            parsed.push_back({m[1], std::stoi(m[2]), std::stoi(m[3]), m[4]});
        }
    }
    return parsed;
}

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) {
        return std::tolower(c);
    });
    return s;
}

// The line of the file that j names holds the text printed, and the query's match starts at
// the column.
void check_against_file(const JumpLine &j, const std::string &mode, const std::string &cwd)
{
    const std::string file = j.path[0] == '/' ? j.path : cwd + "/" + j.path;
    std::vector<std::string> file_lines = lines_of(read_file(file));
    ASSERT_GE(j.line, 1);
    ASSERT_LE(j.line, static_cast<int>(file_lines.size()));
    std::string expected = file_lines[static_cast<size_t>(j.line - 1)];
    if (!expected.empty() && expected.back() == '\r') {
        expected.pop_back();
    }
    EXPECT_EQ(j.text, expected);
    ASSERT_GE(j.column, 1);
    ASSERT_LE(j.column, static_cast<int>(j.text.size()));
    // Hybrid also returns neighbours by meaning, which hold no match: column 1.
    const bool at_match =
        lower(j.text.substr(static_cast<size_t>(j.column - 1))).rfind("light", 0) == 0;
    EXPECT_TRUE(
        at_match
        || (mode == "hybrid" && j.column == 1 && lower(j.text).find("light") == std::string::npos))
        << "column " << j.column << " of: " << j.text;
}

class CliVimgrep : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // The query words sit lines below the start of their chunks (64-byte chunks every 48
        // bytes), after other words on their line, and one file has CRLF line ends.
        std::string log;
        for (int i = 1; i <= 30; i++) {
            log += i == 17 ? "filler then Lighthouse beacon at dusk\n"
                           : "ordinary entry " + std::to_string(i) + "\n";
        }
        write_file(dir / "logs/harbour.log.txt", log);
        write_file(dir / "notes/keeper.md",
                   "# Keeper\r\nthe old keeper\r\nwatched the lighthouse every night\r\n");
        write_file(dir / "src/beam.c",
                   "int rotate(void)\n{\n    return lightHouseBeam(3); /* sweep */\n}\n");
        RunResult r = run_cli(
            {"index", dir.path(), "--chunk-size", "64", "--overlap", "16", "--weights", "none"},
            dir.path());
        ASSERT_EQ(r.status, 0) << r.err;
    }

    // The jump lines of one search run in cwd, each checked against the file it names: the
    // line holds the text printed and the query's match starts at the column.
    std::vector<JumpLine> checked_search(const std::string &query, const std::string &mode,
                                         const std::string &cwd)
    {
        std::vector<std::string> args = {
            "search", dir.path(), query, "--mode", mode, "--weights", "none", "--vimgrep"};
        RunResult r = run_cli(args, cwd);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<JumpLine> lines = parse_jump_lines(r.out);
        if (mode == "hybrid") { // one line per result
            args.back() = "--json";
            EXPECT_EQ(lines.size(), parse_json(run_cli(args, cwd).out).items.size()) << r.out;
        }
        for (const JumpLine &j : lines) {
            SCOPED_TRACE(mode + " " + j.path + ":" + std::to_string(j.line));
            check_against_file(j, mode, cwd);
        }
        return lines;
    }

    TempDir dir;
};

TEST_F(CliVimgrep, EveryModesLinesPointAtTheMatchInTheFile)
{
    for (const std::string mode : {"text", "regex", "keyword", "hybrid"}) {
        const std::string query = mode == "regex" ? "light ?house" : "lighthouse";
        std::vector<JumpLine> lines = checked_search(query, mode, dir.path());
        std::vector<std::string> paths;
        for (const JumpLine &j : lines) {
            paths.push_back(j.path);
        }
        std::sort(paths.begin(), paths.end());
        // Hybrid adds semantic neighbours; the files that hold the word are there in every mode.
        for (const char *expected : {"logs/harbour.log.txt", "notes/keeper.md"}) {
            EXPECT_TRUE(std::binary_search(paths.begin(), paths.end(), expected))
                << mode << " lacks " << expected;
        }
    }
    std::vector<JumpLine> text = checked_search("lighthouse beacon", "text", dir.path());
    ASSERT_FALSE(text.empty());
    for (const JumpLine &j : text) {
        EXPECT_EQ(j.line, 17);
        EXPECT_EQ(j.column, 13);
    }
    // Narrowing words are not looked for in the file; the phrase is.
    text = checked_search("ext:txt \"lighthouse beacon\" -keeper", "text", dir.path());
    ASSERT_EQ(text.size(), 1u);
    EXPECT_EQ(text[0].line, 17);
    EXPECT_EQ(text[0].column, 13);
    // Another form of the word finds it, and the column is the word's.
    EXPECT_EQ(checked_search("lighthouses", "keyword", dir.path()).size(), 2u);
    // Keyword search splits identifiers: "light" is found as the first part of lightHouseBeam.
    std::vector<JumpLine> code = checked_search("light", "keyword", dir.path());
    ASSERT_EQ(code.size(), 1u);
    EXPECT_EQ(code[0].path, "src/beam.c");
    EXPECT_EQ(code[0].line, 3);
    EXPECT_EQ(code[0].column, 12);
}

TEST_F(CliVimgrep, PathsAreRelativeOnlyBelowTheWorkingDirectory)
{
    TempDir elsewhere;
    for (const JumpLine &j : checked_search("lighthouse", "text", elsewhere.path())) {
        EXPECT_EQ(j.path.rfind(dir.path() + "/", 0), 0u) << j.path;
    }
    std::vector<JumpLine> below = checked_search("lighthouse", "text", dir / "notes");
    std::vector<std::string> paths;
    for (const JumpLine &j : below) {
        paths.push_back(j.path);
    }
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end()); // overlapping chunks
    EXPECT_EQ(
        paths,
        (std::vector<std::string>{dir / "logs/harbour.log.txt", dir / "src/beam.c", "keeper.md"}));
}

} // namespace
