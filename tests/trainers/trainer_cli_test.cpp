// The command-line contract of train_bpe and trainer as the application uses it: arguments,
// exit status, messages, progress lines, the loss log and the files left behind.
#include "../engine/store_fixtures.h"
#include "internal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace
{

const std::string BIN = TRN_BIN_DIR;

struct Result {
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

std::string slurp(const std::string &path)
{
    std::vector<uint8_t> bytes = read_file_bytes(path);
    return std::string(bytes.begin(), bytes.end());
}

bool exists(const std::string &path)
{
    return file_size(path) >= 0;
}

class TrainerCli : public ::testing::Test
{
protected:
    TempDir dir;

    std::string path(const std::string &name) const { return dir.file(name); }
    void write_file(const std::string &name, const std::string &text) const
    {
        write_file_text(path(name), text);
    }

    // Paragraphs of plain prose about a few topics, separated by blank lines like the
    // application's corpus; about bytes long.
    std::string corpus_text(size_t bytes) const
    {
        const char *topics[] = {
            "The river flows past the old mill where the miller grinds wheat into flour",
            "Compilers translate source code into machine instructions for the processor",
            "A violin has four strings tuned in fifths and is played with a bow",
            "Glaciers carve deep valleys as they move slowly down the mountain side",
        };
        std::string s;
        for (int i = 0; s.size() < bytes; i++) {
            s += topics[i % 4];
            s += " and paragraph " + std::to_string(i) + " adds a little more text to it.\n\n";
        }
        return s.substr(0, bytes);
    }

    // Starts program with stdout and stderr going to files in the directory; -1 if it fails.
    pid_t spawn(const std::string &program, const std::vector<std::string> &args) const
    {
        std::vector<std::string> all{BIN + "/" + program};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &a : all) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(
            &fa, 1, path("stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(
            &fa, 2, path("stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid;
        int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        EXPECT_EQ(rc, 0) << "cannot start " << argv[0];
        return rc == 0 ? pid : -1;
    }

    Result run(const std::string &program, const std::vector<std::string> &args) const
    {
        Result r;
        pid_t pid = spawn(program, args);
        if (pid < 0) {
            return r;
        }
        int ws = 0;
        waitpid(pid, &ws, 0);
        r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
        r.out = slurp(path("stdout.txt"));
        r.err = slurp(path("stderr.txt"));
        return r;
    }

    // trainer with the seven positional arguments and any extra ones.
    Result train(const std::string &corpus, const std::string &out, const std::string &steps,
                 const std::string &batch, const std::string &heads = "8",
                 const std::string &layers = "2", std::vector<std::string> extra = {}) const
    {
        std::vector<std::string> args{corpus, out, steps, batch, "0.001", heads, layers};
        args.insert(args.end(), extra.begin(), extra.end());
        return run("trainer", args);
    }

    // trainer on corpus.txt with batch 2, 8 heads, 2 layers and the extra arguments.
    Result train_on(const std::vector<std::string> &extra, const std::string &out = "w.tten",
                    const std::string &steps = "2") const
    {
        return train(path("corpus.txt"), path(out), steps, "2", "8", "2", extra);
    }

    // No weights, no temporary weights and no loss log beside out.
    void expect_no_output(const std::string &out) const
    {
        EXPECT_FALSE(exists(out)) << out;
        EXPECT_FALSE(exists(out + ".tmp")) << out;
        std::string loss = out.substr(0, out.size() - 5) + ".loss";
        EXPECT_FALSE(exists(loss)) << loss;
    }
};

// Exactly one line on standard error, beginning with prefix.
void expect_one_line(const std::string &err, const std::string &prefix)
{
    EXPECT_EQ(err.rfind(prefix, 0), 0u) << err;
    ASSERT_FALSE(err.empty());
    EXPECT_EQ(err.back(), '\n') << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

uint32_t file_version(const std::string &path)
{
    std::string head = slurp(path).substr(0, 8);
    if (head.size() < 8 || head.compare(0, 4, "TTEN") != 0) {
        return 0;
    }
    return (uint8_t)head[4];
}

} // namespace

TEST_F(TrainerCli, TrainBpeWritesATokenizerTheEngineLoads)
{
    write_file("corpus.txt", corpus_text(6000));
    Result r = run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "40"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("bpe: training complete. 40 merges, vocab_size=300"), std::string::npos)
        << r.err;
    TrnBpe *bpe = trn_bpe_load(path("tok.bpe").c_str());
    ASSERT_NE(bpe, nullptr);
    EXPECT_EQ(bpe->n_merges, 40u);
    trn_bpe_free(bpe);
    EXPECT_FALSE(exists(path("tok.bpe.tmp")));
}

TEST_F(TrainerCli, TrainBpeOverWordsGivesFrequentWordsATokenOfTheirOwn)
{
    write_file("corpus.txt", corpus_text(6000));
    Result r = run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "300", "--words"});
    ASSERT_EQ(r.status, 0) << r.err;
    TrnBpe *bpe = trn_bpe_load(path("tok.bpe").c_str());
    ASSERT_NE(bpe, nullptr);
    // Each word below is frequent in the corpus: begin, the word with its space, end.
    for (const char *word : {" river", " instructions", " paragraph", " valleys"}) {
        uint32_t ids[16];
        EXPECT_EQ(trn_bpe_encode(bpe, word, ids, 16), 3) << word;
    }
    // Merges stay inside words: two words never share a token.
    uint32_t ids[64];
    EXPECT_EQ(trn_bpe_encode(bpe, " the old mill", ids, 64), 2 + 3);
    trn_bpe_free(bpe);
}

TEST_F(TrainerCli, TrainBpeRefusesBadInputWithOneLineAndNoFile)
{
    write_file("corpus.txt", corpus_text(2000));
    write_file("one.txt", "x");
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *says;
    } cases[] = {
        {{path("corpus.txt"), path("tok.bpe")}, 2, "train_bpe: usage"},
        {{path("corpus.txt"), path("tok.bpe"), "7740", "extra"}, 2, "train_bpe: usage"},
        {{path("missing.txt"), path("tok.bpe"), "10", "--words"}, 1, "missing.txt"},
        {{path("missing.txt"), path("tok.bpe"), "10"}, 1, "missing.txt"},
        {{path("one.txt"), path("tok.bpe"), "10"}, 1, "fewer than 2 bytes"},
        {{path("corpus.txt"), path("tok.bpe"), "0"}, 1, "bad merge count '0'"},
        {{path("corpus.txt"), path("tok.bpe"), "12x"}, 1, "bad merge count '12x'"},
        {{path("corpus.txt"), path("tok.bpe"), "-3"}, 1, "bad merge count"},
        {{path("corpus.txt"), path("no/such/dir/tok.bpe"), "10"}, 1, "cannot write"},
    };
    for (const Case &c : cases) {
        Result r = run("train_bpe", c.args);
        EXPECT_EQ(r.status, c.status) << c.says;
        expect_one_line(r.err, "train_bpe: ");
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_FALSE(exists(path("tok.bpe")));
    }
}

TEST_F(TrainerCli, UsageErrorsExitWithTwoBeforeCreatingAnything)
{
    write_file("corpus.txt", corpus_text(4000));
    const std::string c = path("corpus.txt"), o = path("w.tten");
    const std::vector<std::vector<std::string>> bad = {
        {c, o, "10", "2", "0.001", "8"},                            // six arguments
        {c, o, "10", "2", "0.001", "8", "2", "9"},                  // eight
        {c, o, "ten", "2", "0.001", "8", "2"},                      // steps
        {c, o, "10", "2x", "0.001", "8", "2"},                      // batch
        {c, o, "10", "1", "0.001", "8", "2"},                       // one pair has no negatives
        {c, o, "10", "2", "fast", "8", "2"},                        // learning rate
        {c, o, "10", "2", "-0.1", "8", "2"},                        // negative learning rate
        {c, o, "10", "2", "0.001", "eight", "2"},                   // heads
        {c, o, "10", "2", "0.001", "8", "2", "--fast"},             // unknown option
        {c, o, "10", "2", "0.001", "8", "2", "--threads"},          // option without a value
        {c, o, "10", "2", "0.001", "8", "2", "--threads", "0"},     // no threads
        {c, o, "10", "2", "0.001", "8", "2", "--threads", "two"},   // unparsable threads
        {c, o, "10", "2", "0.001", "8", "2", "--idf", "--idf"},     // twice
        {c, o, "10", "2", "0.001", "8", "2", "--idf", "--init", o}, // a new encoder from a file
        {c, o, "10", "2", "0.001", "8", "2", "--usage", "0.3"},     // usage without --idf
        {c, o, "10", "2", "0.001", "8", "2", "--idf", "--usage", "2"},
        {c, o, "10", "2", "0.001", "8", "2", "--idf", "--bag", "10,1,0.1"}, // one pair
        {c, o, "10", "2", "0.001", "8", "2", "--idf", "--bag", "10,8"},     // no rate
        {c, o, "10", "2", "0.001", "8", "2", "--bag", "10,8,0.1"},          // no bag to train
        {c, o, "10", "2", "0.001", "8", "2", "--pairs-share", "1.5"},
    };
    for (const auto &args : bad) {
        Result r = run("trainer", args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(args) << r.err;
        expect_one_line(r.err, "trainer: ");
        expect_no_output(o);
    }
}

TEST_F(TrainerCli, OtherShapesAreRefusedWithTheExactMessage)
{
    write_file("corpus.txt", corpus_text(4000));
    for (auto [heads, layers] : {std::pair{"4", "2"}, {"8", "6"}, {"16", "12"}}) {
        Result r = train(path("corpus.txt"), path("w.tten"), "10", "2", heads, layers);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err,
                  std::string("trainer: the engine loads only 8 heads and 2 layers (asked for ")
                      + heads + " heads, " + layers + " layers)\n");
        EXPECT_EQ(r.out, "");
        expect_no_output(path("w.tten"));
    }
}

TEST_F(TrainerCli, BadInputsFailWithOneLineAndLeaveNoFiles)
{
    write_file("corpus.txt", corpus_text(4000));
    write_file("small.txt", corpus_text(100));
    write_file("bad.bpe", "TBPX\1\0\0\0");
    write_file("torn.pairs", "a heading\x1fits section but no record end");
    const std::string o = path("w.tten");
    struct Case {
        Result r;
        const char *says;
        std::string out;
    } cases[] = {
        {train(path("missing.txt"), o, "5", "2"), "missing.txt", o},
        {train(path("small.txt"), o, "5", "8"), "too few for a batch of 8", o},
        {train_on({"--bpe", path("bad.bpe")}, "w.tten", "5"), "bad.bpe", o},
        {train_on({"--bpe", path("none.bpe")}, "w.tten", "5"), "none.bpe", o},
        {train_on({"--pairs", path("none.pairs")}, "w.tten", "5"), "none.pairs", o},
        {train_on({"--pairs", path("torn.pairs")}, "w.tten", "5"), "holds no pair", o},
        {train(path("corpus.txt"), path("no/dir/w.tten"), "5", "2"),
         "cannot write",
         path("no/dir/w.tten")},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.r.status, 1) << c.says;
        expect_one_line(c.r.err, "trainer: ");
        EXPECT_NE(c.r.err.find(c.says), std::string::npos) << c.r.err;
        expect_no_output(c.out);
    }
}

TEST_F(TrainerCli, ShortRunPrintsStepLinesWritesTheLossLogAndVersion2Weights)
{
    const std::string corpus = corpus_text(3000);
    write_file("corpus.txt", corpus);
    Result r = train(path("corpus.txt"), path("w.tten"), "11", "2");
    ASSERT_EQ(r.status, 0) << r.err;

    // progress: step 1, every tenth step and the last, whole lines
    std::regex line_re(R"(step (\d+)/11 loss (\d+\.\d{4}) lr (\S+) tok/s (\d+))");
    std::vector<int> steps;
    std::vector<std::string> losses;
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, line_re)) << line;
        steps.push_back(std::stoi(m[1]));
        losses.push_back(m[2]);
        EXPECT_GT(std::stod(m[3]), 0.0);
        EXPECT_GT(std::stod(m[4]), 0.0);
    }
    EXPECT_EQ(steps, (std::vector<int>{1, 10, 11}));
    ASSERT_EQ(r.out.back(), '\n');
    EXPECT_GT(std::stod(losses[0]), 0.0);

    // the loss log repeats the printed records after its header
    EXPECT_EQ(slurp(path("w.loss")),
              "step,loss\n1," + losses[0] + "\n10," + losses[1] + "\n11," + losses[2] + "\n");

    EXPECT_FALSE(exists(path("w.tten.tmp")));
    EXPECT_EQ(file_version(path("w.tten")), 2u);
    TrnEncoder enc, fresh;
    encoder_init(&enc, 42);
    encoder_init(&fresh, 42);
    TrnWeightsMeta meta{};
    ASSERT_EQ(trn_encoder_load_weights_meta(&enc, path("w.tten").c_str(), &meta), 1);
    EXPECT_EQ(meta.meta_u32_0, 11u);
    EXPECT_EQ(meta.meta_u32_1, 2u);
    EXPECT_FLOAT_EQ(meta.meta_f32_0, 0.001f);
    EXPECT_NEAR(meta.meta_f32_1, std::stod(losses[2]), 1e-4);
    EXPECT_EQ(meta.meta_u64, corpus.size());
    EXPECT_EQ(enc.bpe, nullptr);
    // training moved the weights away from the seed-42 start (the norms always train)
    EXPECT_NE(memcmp(enc.ln_f_gamma, fresh.ln_f_gamma, 512 * sizeof(float)), 0);
    EXPECT_NE(memcmp(enc.layers[0].ln1_beta, fresh.layers[0].ln1_beta, 512 * sizeof(float)), 0);
    encoder_release(&fresh);
    encoder_release(&enc);
}

TEST_F(TrainerCli, WithATokenizerTheWeightsAreVersion3InEitherOptionOrder)
{
    write_file("corpus.txt", corpus_text(5000));
    Result bpe = run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "30"});
    ASSERT_EQ(bpe.status, 0) << bpe.err;

    Result a = train_on({"--bpe", path("tok.bpe"), "--threads", "2"}, "a.tten");
    ASSERT_EQ(a.status, 0) << a.err;
    Result b = run("trainer",
                   {"--threads",
                    "2",
                    "--bpe",
                    path("tok.bpe"),
                    path("corpus.txt"),
                    path("b.tten"),
                    "2",
                    "2",
                    "0.001",
                    "8",
                    "2"});
    ASSERT_EQ(b.status, 0) << b.err;

    for (const char *name : {"a.tten", "b.tten"}) {
        EXPECT_EQ(file_version(path(name)), 3u) << name;
        TrnEncoder enc;
        encoder_init(&enc, 42);
        ASSERT_EQ(trn_encoder_load_weights(&enc, path(name).c_str()), 1) << name;
        ASSERT_NE(enc.bpe, nullptr);
        EXPECT_EQ(enc.bpe->n_merges, 30u);
        EXPECT_EQ(enc.vocab_size, 290u);
        encoder_release(&enc);
    }
    // the sampler's seed is fixed: the same run gives the same first loss whatever the order
    EXPECT_EQ(a.out.substr(0, a.out.find(" tok/s")), b.out.substr(0, b.out.find(" tok/s")));
}

TEST_F(TrainerCli, TerminatedRunLeavesOnlyItsLastSave)
{
    write_file("corpus.txt", corpus_text(4000));
    for (bool saving : {false, true}) {
        unlink(path("w.loss").c_str());
        std::vector<std::string> args{
            path("corpus.txt"), path("w.tten"), "100000", "2", "0.001", "8", "2"};
        if (saving) {
            args.insert(args.end(), {"--save-every", "3"});
        }
        pid_t pid = spawn("trainer", args);
        ASSERT_GT(pid, 0);
        // wait until training runs (the first record is in the loss log) and, when saving,
        // until the first save is there
        for (int i = 0; i < 1200
                        && (slurp(path("w.loss")).find("\n1,") == std::string::npos
                            || (saving && !exists(path("w.tten"))));
             i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(pid, SIGTERM);
        int ws = 0;
        waitpid(pid, &ws, 0);
        EXPECT_FALSE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0);
        EXPECT_FALSE(exists(path("w.tten.tmp")));
        if (!saving) {
            EXPECT_FALSE(exists(path("w.tten")));
            continue;
        }
        // the last save holds the steps it had done; a second sitting continues from there
        TrnEncoder enc;
        encoder_init(&enc, 42);
        TrnWeightsMeta meta{};
        ASSERT_EQ(trn_encoder_load_weights_meta(&enc, path("w.tten").c_str(), &meta), 1);
        encoder_release(&enc);
        EXPECT_EQ(meta.meta_u32_0 % 3, 0u);
        EXPECT_GE(meta.meta_u32_0, 3u);
        const std::string done = std::to_string(meta.meta_u32_0);
        const std::string total = std::to_string(meta.meta_u32_0 + 2);
        Result more = train_on({"--init", path("w.tten"), "--steps-done", done}, "w.tten", total);
        ASSERT_EQ(more.status, 0) << more.err;
        EXPECT_EQ(more.out.rfind("step " + std::to_string(meta.meta_u32_0 + 1) + "/" + total, 0),
                  0u)
            << more.out;
        // the log goes on: the first sitting's records up to its save, then the second's
        const std::string log = slurp(path("w.loss"));
        EXPECT_EQ(log.rfind("step,loss\n1,", 0), 0u) << log;
        const std::string next = std::to_string(meta.meta_u32_0 + 1);
        const std::string joint = "\n# initialised from " + path("w.tten") + "\n" + next + ",";
        ASSERT_NE(log.find(joint), std::string::npos) << log;
        // no record of the first sitting after its save is kept
        EXPECT_EQ(log.find("\n" + next + ","), log.find(joint) + joint.size() - next.size() - 2)
            << log;
    }
}

namespace
{

// The tensors of a weights file: everything after its header, metadata and merges.
std::string tensor_bytes(const std::string &path)
{
    std::string all = slurp(path);
    uint32_t version = (uint8_t)all[4], vocab = 0;
    memcpy(&vocab, &all[8], 4);
    size_t head = version == 3 ? 64 + 8 * (size_t)(vocab - 260) : version == 2 ? 60 : 32;
    return all.substr(head);
}

} // namespace

TEST_F(TrainerCli, InitStartsFromTheWeightsFileAndKeepsItsTokenizer)
{
    write_file("corpus.txt", corpus_text(5000));
    ASSERT_EQ(run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "30"}).status, 0);
    Result first = train_on({"--bpe", path("tok.bpe")}, "a.tten", "3");
    ASSERT_EQ(first.status, 0) << first.err;

    // with every group frozen, the step changes nothing: the output is the starting point
    Result frozen = train_on({"--init", path("a.tten"), "--rates", "0,0,0"}, "b.tten", "1");
    ASSERT_EQ(frozen.status, 0) << frozen.err;
    EXPECT_EQ(file_version(path("b.tten")), 3u);
    EXPECT_TRUE(tensor_bytes(path("b.tten")) == tensor_bytes(path("a.tten")));

    // the same tokenizer may be named again; the run trains on from the file
    Result on = train_on({"--init", path("a.tten"), "--bpe", path("tok.bpe")}, "c.tten", "3");
    ASSERT_EQ(on.status, 0) << on.err;
    EXPECT_NE(on.out.substr(0, on.out.find(" lr")), first.out.substr(0, first.out.find(" lr")));
    EXPECT_EQ(
        slurp(path("c.loss")).rfind("step,loss\n# initialised from " + path("a.tten") + "\n1,", 0),
        0u);
    TrnEncoder enc;
    encoder_init(&enc, 42);
    TrnWeightsMeta meta{};
    ASSERT_EQ(trn_encoder_load_weights_meta(&enc, path("c.tten").c_str(), &meta), 1);
    ASSERT_NE(enc.bpe, nullptr);
    EXPECT_EQ(enc.bpe->n_merges, 30u);
    EXPECT_EQ(meta.meta_u32_1, 0x80000000u | 2u); // started from a file, batch 2
    encoder_release(&enc);
    encoder_init(&enc, 42);
    ASSERT_EQ(trn_encoder_load_weights_meta(&enc, path("a.tten").c_str(), &meta), 1);
    EXPECT_EQ(meta.meta_u32_1, 2u);
    encoder_release(&enc);
}

TEST_F(TrainerCli, IdfStartsFromTheCorpussBagOfTokensAndSaysSo)
{
    write_file("corpus.txt", corpus_text(5000));
    ASSERT_EQ(run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "30"}).status, 0);
    Result plain = train_on({"--bpe", path("tok.bpe"), "--rates", "0,0,0"}, "plain.tten", "1");
    ASSERT_EQ(plain.status, 0) << plain.err;
    Result idf = train_on({"--bpe", path("tok.bpe"), "--idf", "--rates", "0,0,0"}, "idf.tten", "1");
    ASSERT_EQ(idf.status, 0) << idf.err;
    EXPECT_EQ(
        slurp(path("idf.loss")).rfind("step,loss\n# initialised as tokens weighted by rarity", 0),
        0u);
    // frozen, the file is the starting point: word order no longer moves a text's vector
    TrnEncoder enc;
    encoder_init(&enc, 42);
    for (const char *name : {"plain.tten", "idf.tten"}) {
        ASSERT_EQ(trn_encoder_load_weights(&enc, path(name).c_str()), 1) << name;
        float a[TRN_ENCODER_DIM], b[TRN_ENCODER_DIM];
        trn_encoder_embed_text(&enc, "the quick brown fox", a);
        trn_encoder_embed_text(&enc, "fox brown quick the", b);
        float diff = 0;
        for (int i = 0; i < TRN_ENCODER_DIM; i++) {
            diff = std::max(diff, std::fabs(a[i] - b[i]));
        }
        if (std::string(name) == "idf.tten") {
            EXPECT_LT(diff, 1e-5f);
        } else {
            EXPECT_GT(diff, 1e-3f);
        }
    }
    // A profile continues such a start by training its word rows alone: it stays a bag of words.
    Result bag = train_on({"--init", path("idf.tten"), "--bag", "3,4,0.05"}, "bag.tten", "0");
    ASSERT_EQ(bag.status, 0) << bag.err;
    EXPECT_NE((bag.out + bag.err).find("bag step 3/3"), std::string::npos) << bag.out;
    ASSERT_EQ(trn_encoder_load_weights(&enc, path("bag.tten").c_str()), 1);
    EXPECT_TRUE(encoder_prepare_bag(&enc));
    EXPECT_NE(slurp(path("bag.tten")), slurp(path("idf.tten")));
    // In half precision (version 4) the same run takes under a third of the bytes, embeds alike,
    // and a later run starts from it.
    Result half =
        train_on({"--init", path("idf.tten"), "--bag", "3,4,0.05", "--half"}, "half.tten", "0");
    ASSERT_EQ(half.status, 0) << half.err;
    EXPECT_EQ(file_version(path("half.tten")), 4u);
    EXPECT_LT(slurp(path("half.tten")).size() * 3, slurp(path("bag.tten")).size());
    TrnEncoder halved;
    encoder_init(&halved, 42);
    ASSERT_EQ(trn_encoder_load_weights(&halved, path("half.tten").c_str()), 1);
    float a[TRN_ENCODER_DIM], b[TRN_ENCODER_DIM], dot = 0;
    trn_encoder_embed_text(&enc, "the quick brown fox", a);
    trn_encoder_embed_text(&halved, "the quick brown fox", b);
    for (int i = 0; i < TRN_ENCODER_DIM; i++) {
        dot += a[i] * b[i];
    }
    EXPECT_GT(dot, 0.9999f);
    encoder_release(&halved);
    Result again =
        train_on({"--init", path("half.tten"), "--bag", "1,4,0.05", "--half"}, "again.tten", "1");
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(file_version(path("again.tten")), 4u);
    encoder_release(&enc);
}

TEST_F(TrainerCli, InitRefusesFilesItCannotStartFrom)
{
    write_file("corpus.txt", corpus_text(5000));
    ASSERT_EQ(run("train_bpe", {path("corpus.txt"), path("tok.bpe"), "30"}).status, 0);
    ASSERT_EQ(run("train_bpe", {path("corpus.txt"), path("other.bpe"), "20"}).status, 0);
    TrnEncoder enc;
    encoder_init_bpe(&enc, 42, trn_bpe_load(path("tok.bpe").c_str()));
    ASSERT_EQ(trn_encoder_save_weights(&enc, path("v3.tten").c_str()), 1);
    ASSERT_EQ(trn_encoder_save_weights_flags(&enc, path("v4.tten").c_str(), nullptr, 2), 1);
    std::string tagged = slurp(path("v4.tten"));
    tagged[64 + 8 * 30] = 3; // the token embedding's storage tag
    write_file("tag.tten", tagged);
    encoder_release(&enc);
    encoder_init(&enc, 42);
    TrnWeightsMeta meta{};
    ASSERT_EQ(trn_encoder_save_weights_meta(&enc, path("v2.tten").c_str(), &meta), 1);
    encoder_release(&enc);
    std::string wide = slurp(path("v2.tten"));
    wide[16] = 0; // width 512 -> 256 (512 = 0x200: low byte 0, next byte 2 -> 1)
    wide[17] = 1;
    write_file("wide.tten", wide);
    write_file("short.tten", slurp(path("v2.tten")).substr(0, 4000));
    write_file("text.tten", corpus_text(3000));

    struct Case {
        const char *name;
        std::vector<std::string> extra;
        const char *says;
    } cases[] = {
        {"wrong width",
         {"--init", path("wide.tten")},
         "has the wrong shape (vocabulary 260, 256 positions, width 256"},
        {"truncated", {"--init", path("short.tten")}, "is not a complete weights file (4000 bytes"},
        {"not weights", {"--init", path("text.tten")}, "is not an encoder weights file"},
        {"unknown tag", {"--init", path("tag.tten")}, "(tensor tok_emb has no valid storage tag)"},
        {"missing", {"--init", path("none.tten")}, "cannot open weights"},
        {"other tokenizer",
         {"--init", path("v3.tten"), "--bpe", path("other.bpe")},
         "differs from the one in"},
        {"tokenizer on bytes",
         {"--init", path("v2.tten"), "--bpe", path("tok.bpe")},
         "a byte-level encoder"},
        {"bag training of a transformer",
         {"--init", path("v3.tten"), "--bag", "2,4,0.01"},
         "continues only a bag-of-words encoder"},
    };
    for (const Case &c : cases) {
        Result r = train_on(c.extra);
        EXPECT_EQ(r.status, 1) << c.name;
        expect_one_line(r.err, "trainer: ");
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.name << ": " << r.err;
        expect_no_output(path("w.tten"));
    }
    // continuing needs a file to continue from, and steps left to run
    for (const auto &extra :
         std::vector<std::vector<std::string>>{{"--steps-done", "1"},
                                               {"--init", path("v2.tten"), "--steps-done", "2"},
                                               {"--rates", "1,0.1"},
                                               {"--cloze", "1.5"},
                                               {"--cloze", "half"}}) {
        Result r = train_on(extra);
        EXPECT_EQ(r.status, 2) << r.err;
        expect_one_line(r.err, "trainer: ");
        expect_no_output(path("w.tten"));
    }
}
