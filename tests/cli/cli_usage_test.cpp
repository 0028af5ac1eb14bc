// The command line itself: help, usage errors (exit 2), failures (exit 1) and the embed command,
// which needs no index.
#include "cli_support.h"

#include "tarnwick.h"

#include <cmath>

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
        {"search", d, "def [a-z", "--mode", "regex"},
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
        SCOPED_TRACE(shown);
        RunResult r = run_cli(args, d);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        ASSERT_EQ(lines_of(r.err).size(), 1u) << r.err;
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
        ASSERT_GT(r.out.size(), engine.size());
        EXPECT_EQ(r.out.substr(r.out.size() - engine.size()), engine) << r.out;
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

double sum_of_squares(const std::vector<float> &v)
{
    double s = 0;
    for (float x : v) {
        s += static_cast<double>(x) * x;
    }
    return s;
}

TEST(CliEmbed, PrintsTheEncodersUnitVectorExactly)
{
    TempDir dir;
    // Without --weights the built-in encoder beside the program, when the build put one there;
    // --weights none is the engine's seed-42 encoder.
    const std::string built_in = std::string(TRN_BIN_DIR) + "/default.tten";
    for (bool untrained : {true, false}) {
        std::vector<std::string> args = {"embed", "the lighthouse keeper"};
        if (untrained) {
            args.insert(args.begin() + 1, {"--weights", "none"});
        }
        std::vector<float> a = embed(args, dir.path());
        ASSERT_EQ(a.size(), 512u);
        EXPECT_NEAR(sum_of_squares(a), 1.0, 1e-4);
        // The same vector the engine computes, bit for bit: the printed numbers read back as
        // the same floats.
        TrnEncoder *enc = trn_encoder_init(42);
        if (!untrained && fs::exists(built_in)) {
            ASSERT_EQ(trn_encoder_load_weights(enc, built_in.c_str()), 1);
        }
        float expected[512];
        trn_encoder_embed_text(enc, "the lighthouse keeper", expected);
        trn_encoder_free(enc);
        for (size_t i = 0; i < 512; i++) {
            ASSERT_EQ(a[i], expected[i]) << "element " << i;
        }
    }
    std::vector<float> a = embed({"embed", "the lighthouse keeper"}, dir.path());
    std::vector<float> b = embed({"embed", "a recipe for rye bread"}, dir.path());
    EXPECT_NE(a, b);
}

TEST(CliEmbed, UsesTheGivenWeights)
{
    TempDir dir;
    TrnEncoder *enc = trn_encoder_init(7);
    ASSERT_EQ(trn_encoder_save_weights(enc, (dir / "seven.tten").c_str()), 1);
    float expected[512];
    trn_encoder_embed_text(enc, "tide table", expected);
    trn_encoder_free(enc);

    std::vector<float> weighted =
        embed({"embed", "--weights", "seven.tten", "tide table"}, dir.path());
    ASSERT_EQ(weighted.size(), 512u);
    for (size_t i = 0; i < 512; i++) {
        ASSERT_EQ(weighted[i], expected[i]) << "element " << i;
    }
    EXPECT_NE(weighted, embed({"embed", "tide table"}, dir.path()));
}

} // namespace
