// The command line itself: help, usage errors (exit 2), failures (exit 1) and the embed command,
// which needs no index.
#include "cli_support.h"

#include "tarnwick.h"

using namespace cli_test;

namespace
{

// A usage error does nothing: no index directory appears, nothing is written to standard output,
// and one prefixed line explains it.
TEST(CliUsage, MalformedCommandLinesExitWithTwoAndTouchNothing)
{
    TempDir dir;
    write_file(dir / "a.txt", "some words to index, more than eleven bytes\n");
    const std::string d = dir.path();
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"bogus", d},
        {"--json"},
        {"search"},
        {"search", d},
        {"stats", d, "extra"},
        {"remove", d},
        {"embed"},
        {"embed", "two", "words"},
        {"search", d, "q", "--mode", "fuzzy"},
        {"search", d, "q", "-k", "0"},
        {"search", d, "q", "-k", "ten"},
        {"search", d, "q", "-k", "99999999999"},
        {"search", d, "q", "-k"},
        {"search", d, "q", "-k", "65"},
        {"search", d, ""},
        {"search", d, "  \t ", "--mode", "text"}, // white space alone matched nearly everything
        {"search", d, std::string(20000, '(') + "x", "--mode", "regex"},
        {"search", d, "def [a-z", "--mode", "regex"},
        {"search", d, "q", "--modified", "soon"},
        {"search", d, "q modified:2024-02-30"},
        {"search", d, "q", "--in", ""},
        {"prompt", d, d, "q"},
        {"stats", d, "--type", "pdf"},
        {"prompt", d, "(unclosed", "--mode", "regex"},
        {"stats", d, "--verbose=yes"},
        {"index", d, "--chunk-size", "-5"},
        {"index", d, "--chunk-size", "0"},
        {"index", d, "--overlap"},
        {"index", d, "--chunk-size", "63"},
        {"index", d, "--chunk-size", "65537"},
        {"index", d, "--chunk-size", "800", "--overlap", "799"},
        {"index", d, "--overlap", "401"},
        {"index", d, "--json"},
        {"stats", d, "--mode", "text"},
        {"files", d, "--json=yes"},
        {"compact", d, "--weights", "w.tten"},
        {"prompt", d},
        {"prompt", d, "q", "--scope", "best"},
        {"prompt", d, "q", "--json"},
        {"prompt", d, "q", "--chunk-size", "64"},
        {"search", d, "q", "--scope", "all"},
        {"search", d, "q", "--json", "--vimgrep"},
        {"search", d, "q", "--vimgrep=yes"},
        {"stats", d, "--vimgrep"},
        {"train"},
        {"train", "profiles", "extra"},
        {"train", "profiles", "--steps", "5"},
        {"train", "add", "name"},
        {"train", "add", "name", d, "--json"},
        {"train", "add", "name", d, "--lr", "2"},
        {"train", "add", "name", d, "--lr", "0"},
        {"train", "add", "name", d, "--batch", "1"},
        {"train", "add", "name", d, "--bpe=yes"},
        {"train", "default"},
        {"train", "default", "a", "b"},
        {"train", "name", "--steps", "5"},
        {"train", "name", "--json"},
        {"train", "a", "b"},
    };
    for (const std::vector<std::string> &args : cases) {
        std::string shown;
        for (const std::string &a : args) {
            shown += a + " ";
        }
        SCOPED_TRACE(shown.substr(0, 200));
        RunResult r = run_cli(args, d);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        ASSERT_EQ(lines_of(r.err).size(), 1u) << r.err;
        EXPECT_LT(r.err.size(), 300u) << "a long pattern is not echoed whole";
        EXPECT_EQ(r.err.rfind("tarnwick: ", 0), 0u) << r.err;
        EXPECT_FALSE(fs::exists(dir / ".tarnwick"));
    }
}

TEST(CliUsage, HelpPrintsEveryCommandAndSucceeds)
{
    TempDir dir;
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"--help"}, {"-h"}, {"search", "--help"}, {"index", dir.path(), "-k", "0", "-h"}}) {
        RunResult r = run_cli(args, dir.path());
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.rfind("usage: tarnwick-cli COMMAND", 0), 0u);
        for (const char *command : {"index",
                                    "search",
                                    "prompt",
                                    "files",
                                    "stats",
                                    "remove",
                                    "compact",
                                    "embed",
                                    "train"}) {
            EXPECT_NE(r.out.find(std::string("\n  ") + command + " "), std::string::npos)
                << command;
        }
    }
    // After "--" a "--help" is a query, not a request for help.
    RunResult r = run_cli({"search", dir.path(), "--", "--help"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
}

// The version line names the program's version and the engine's, and wins over a command.
TEST(CliUsage, VersionNamesTheProgramAndTheEngine)
{
    TempDir dir;
    const std::string engine = std::string(" (engine ") + trn_version() + ")\n";
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"--version"}, {"search", dir.path(), "q", "--version"}}) {
        RunResult r = run_cli(args, dir.path());
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.rfind("tarnwick-cli ", 0), 0u) << r.out;
        EXPECT_TRUE(r.out.ends_with(engine)) << r.out;
        EXPECT_FALSE(fs::exists(dir / ".tarnwick"));
    }
}

TEST(CliUsage, FailuresExitWithOneAndAPrefixedLine)
{
    TempDir dir;
    write_file(dir / "plain.txt", "a plain file, not a directory\n");
    write_file(dir / "junk.tten", "NOPE this is not a weights file at all");
    fs::create_directories(dir / "empty");
    const std::vector<std::vector<std::string>> cases = {
        {"search", dir / "missing", "query"},
        {"stats", dir / "empty"},           // never indexed
        {"search", dir / "empty", "query"}, // never indexed
        {"compact", dir / "empty"},
        {"remove", dir / "empty", "plain.txt"},
        {"index", dir / "plain.txt"},
        {"index", dir / "empty", "--weights", dir / "missing.tten"},
        {"index", dir / "empty", "--weights", dir / "junk.tten"},
        {"embed", "--weights", dir / "missing.tten", "text"},
        {"prompt", dir / "empty", "query"}, // never indexed
        {"prompt", dir / "missing", "query"},
        {"train", "nobody"},
        {"train", "add", "name", dir / "missing"},
    };
    for (const std::vector<std::string> &args : cases) {
        SCOPED_TRACE(args[0] + " " + args[1]);
        RunResult r = run_cli(args, dir.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        expect_diagnostics(r);
        if (args.back() == dir / "missing.tten") {
            EXPECT_EQ(lines_of(r.err).size(), 1u) << r.err; // the engine's line was a second
        }
        // Nothing is created for a directory that was never indexed or a refused index.
        EXPECT_FALSE(fs::exists(dir / "empty/.tarnwick"));
    }
}

std::vector<float> embed(const std::vector<std::string> &args, const std::string &cwd)
{
    RunResult r = run_cli(args, cwd);
    EXPECT_EQ(r.status, 0) << r.err;
    Json v = parse_json(r.out);
    EXPECT_EQ(v.kind, Json::Array);
    std::vector<float> out;
    for (const Json &x : v.items) {
        EXPECT_EQ(x.kind, Json::Number);
        out.push_back(static_cast<float>(x.number));
    }
    return out;
}

// The printed numbers read back as the floats that enc computes for the last argument, bit for
// bit. Frees enc.
void expect_engine_vector(const std::vector<std::string> &args, TrnEncoder *enc,
                          const std::string &cwd)
{
    float expected[512];
    trn_encoder_embed_text(enc, args.back().c_str(), expected);
    trn_encoder_free(enc);
    std::vector<float> got = embed(args, cwd);
    ASSERT_EQ(got.size(), 512u);
    for (size_t i = 0; i < 512; i++) {
        ASSERT_EQ(got[i], expected[i]) << "element " << i;
    }
}

TEST(CliEmbed, PrintsTheChosenEncodersVectorExactly)
{
    TempDir dir;
    // --weights none is the engine's seed-42 encoder.
    expect_engine_vector(
        {"embed", "--weights", "none", "the lighthouse keeper"}, trn_encoder_init(42), dir.path());
    // Without --weights the built-in encoder beside the program, when the build put one there.
    const std::string built_in = std::string(TRN_BIN_DIR) + "/default.tten";
    TrnEncoder *enc = trn_encoder_init(42);
    if (fs::exists(built_in)) {
        ASSERT_EQ(trn_encoder_load_weights(enc, built_in.c_str()), 1);
    }
    expect_engine_vector({"embed", "the lighthouse keeper"}, enc, dir.path());
    // Weights named relative to the working directory.
    TrnEncoder *seven = trn_encoder_init(7);
    ASSERT_EQ(trn_encoder_save_weights(seven, (dir / "seven.tten").c_str()), 1);
    expect_engine_vector({"embed", "--weights", "seven.tten", "tide table"}, seven, dir.path());
}

} // namespace
