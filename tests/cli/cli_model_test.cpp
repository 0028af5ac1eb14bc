// tarnwick-cli on the application's model: a directory indexed by the program holds exactly what
// IndexHandle::ingestDirectory stores in-process under the same settings, and searches it
// alike in all three modes; `prompt` prints the application's prompt text byte for byte; `train`
// lists, creates and trains the application's profiles. Every run has a home directory of its
// own, whose settings file the test writes and reads as the application would.
#include "cli_support.h"

#ifdef TRN_CLI_MODEL_TESTS

// Before any Qt header: Qt defines "slots" as a keyword, and the engine has a field of that name.
#include "internal.h"

#include "index_handle.h"
#include "records.h"
#include "settings.h"
#include "tarnwick.h"
#include "training_profile.h"

#include <QSettings>
#include <QString>

#include <chrono>
#include <map>
#include <thread>

using namespace cli_test;

namespace
{

// The application's settings in home, opened the way the application opens them.
std::unique_ptr<Settings> open_settings(const std::string &home)
{
    return std::make_unique<Settings>(
        new QSettings(QString::fromStdString(settings_file(home)), QSettings::IniFormat));
}

// One stored chunk, everything the store keeps of it.
struct StoredChunk {
    std::string doc_id, text, file_path;
    int32_t chunk_index, line_number;
    uint32_t file_type;
    uint8_t deleted;
    std::vector<float> vector;

    bool operator==(const StoredChunk &) const = default;
};

std::vector<StoredChunk> stored_chunks(const std::string &root)
{
    std::string index_dir = root + "/.tarnwick";
    TrnConfig cfg{};
    cfg.index_dir = index_dir.c_str();
    TrnEngine *e = trn_open(&cfg);
    EXPECT_NE(e, nullptr);
    std::vector<StoredChunk> chunks;
    if (e == nullptr) {
        return chunks;
    }
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk &c = e->chunks[i];
        const float *v = e->vectors + i * static_cast<uint64_t>(e->dim);
        chunks.push_back(StoredChunk{c.doc_id,
                                     c.text,
                                     c.file_path ? c.file_path : "",
                                     c.chunk_index,
                                     c.line_number,
                                     c.file_type,
                                     c.deleted,
                                     std::vector<float>(v, v + e->dim)});
    }
    trn_close(e);
    return chunks;
}

std::map<std::string, int> chunks_per_file(const std::vector<StoredChunk> &chunks)
{
    std::map<std::string, int> files;
    for (const StoredChunk &c : chunks) {
        files[c.file_path]++;
    }
    return files;
}

// A directory of every kind the application tells apart, and settings that differ from the
// defaults: chunks of 120 bytes every 90, and one more extra extension.
class ModelCorpus : public ::testing::Test
{
protected:
    void SetUp() override
    {
        write_file(dir / "tide-table.pdf",
                   read_file(std::string(TRN_SOURCE_DIR) + "/samples/tide-table.pdf"));
        write_file(dir / "docs/trail.html",
                   "<html><body><h1>Ridge trail</h1><p>The ridge trail climbs four hundred "
                   "metres above the harbour and returns by the old quarry.</p></body></html>\n");
        std::string bread = "# Rye bread\n\n";
        for (int i = 1; i <= 6; i++) {
            bread += "Step " + std::to_string(i) + ": fold the dough and let it rest a while.\n";
        }
        write_file(dir / "notes/bread.md", bread);
        write_file(dir / "src/ring.c",
                   "/* a ring buffer */\nint ring_push(struct ring *r, int v)\n{\n    "
                   "r->data[r->head++ % 64] = v;\n    return 0;\n}\n");
        write_file(dir / "build.gradle", "apply plugin: 'java'\nversion = '1.2'\n");
        write_file(dir / "tides.tide", "spring tide 5.2 m, neap tide 3.1 m\n");
        write_file(dir / "Makefile", "all:\n\tcc -o ring src/ring.c\n");
        write_file(dir / "eleven.txt", "0123456789A");
        // Ten characters each, the second in twenty bytes: the rule counts characters.
        write_file(dir / "ten.txt", "0123456789");
        write_file(dir / "umlauts.txt",
                   "\xC3\xA5\xC3\xA4\xC3\xB6\xC3\xA5\xC3\xA4\xC3\xB6\xC3\xA5"
                   "\xC3\xA4\xC3\xB6\xC3\xA5");
        write_file(dir / "image.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
        write_file(dir / ".hidden/secret.txt", "hidden folders are never walked at all\n");

        std::unique_ptr<Settings> settings = open_settings(home.path());
        settings->setChunking(120, 30);
        settings->setExtraExtensions(QStringLiteral("gradle, TIDE "));
        settings->sync();
    }

    RunResult cli(const std::vector<std::string> &args)
    {
        return run_cli(args, dir.path(), false, home.path());
    }

    std::vector<Json> cli_search(const std::string &query, const std::string &mode)
    {
        RunResult r = cli({"search", dir.path(), query, "--mode", mode, "-k", "20", "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        return parse_json(r.out).items;
    }

    TempDir home;
    TempDir dir;
};

TEST_F(ModelCorpus, IndexHoldsWhatTheApplicationsWalkStoresAndSearchesAlike)
{
    RunResult r = cli({"index", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string built_in = std::string(TRN_BIN_DIR) + "/default.tten";
    const std::string encoder =
        fs::exists(built_in) ? "built-in encoder (" + built_in + ")" : "untrained encoder (";
    EXPECT_NE(r.err.find("tarnwick: encoder: " + encoder), std::string::npos) << r.err;
    const std::vector<StoredChunk> by_cli = stored_chunks(dir.path());

    // The files the application indexes: the PDF through poppler, HTML, Markdown, source, the
    // two extra extensions (one from the settings, written in upper case there), a well-known
    // name and the 11-character file; neither 10-character file, the image or the hidden one.
    std::map<std::string, int> files = chunks_per_file(by_cli);
    std::vector<std::string> names;
    for (const auto &[path, count] : files) {
        ASSERT_EQ(path.rfind(dir.path() + "/", 0), 0u) << path;
        names.push_back(path.substr(dir.path().size() + 1));
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"Makefile",
                                        "build.gradle",
                                        "docs/trail.html",
                                        "eleven.txt",
                                        "notes/bread.md",
                                        "src/ring.c",
                                        "tide-table.pdf",
                                        "tides.tide"}));
    // Chunk size and overlap are the settings' 120 and 30: 301 bytes give 4 windows, the last
    // ending with the file.
    EXPECT_EQ(files[dir / "notes/bread.md"], 4);
    for (const StoredChunk &c : by_cli) {
        EXPECT_LE(c.text.size(), 120u) << c.doc_id;
    }
    bool pdf_text = false;
    for (const StoredChunk &c : by_cli) {
        pdf_text |= c.file_path == dir / "tide-table.pdf"
                    && c.text.find("Harbour tide table") != std::string::npos;
    }
    EXPECT_TRUE(pdf_text);

    std::map<std::string, std::vector<Json>> cli_hits;
    const std::vector<std::pair<std::string, std::string>> queries = {
        {"semantic", "when is high water at the harbour"},
        {"text", "TIDE"},
        {"regex", "ring_[a-z]+\\("},
        {"keyword", "high water harbour"},
        {"hybrid", "when is high water at the harbour"},
    };
    for (const auto &[mode, query] : queries) {
        cli_hits[mode] = cli_search(query, mode);
        EXPECT_FALSE(cli_hits[mode].empty()) << mode;
    }

    // The application's own re-index of the same directory: the same chunks, byte for byte and
    // vector for vector, and the same answers.
    const QString weights = QString::fromStdString(fs::exists(built_in) ? built_in : "");
    {
        IndexHandle engine(QString::fromStdString(dir.path()), weights);
        engine.clearAndReopen(weights);
        // The in-process model reads the same file.
        const std::unique_ptr<Settings> settings = open_settings(home.path());
        ASSERT_GT(engine.ingestDirectory(settings->effectiveChunkSize(),
                                         settings->effectiveOverlap(),
                                         *FileWalkOptions::fromSettings(*settings)),
                  0);
        ASSERT_TRUE(engine.checkpoint());
    }
    EXPECT_TRUE(stored_chunks(dir.path()) == by_cli);

    IndexHandle engine(QString::fromStdString(dir.path()), weights);
    for (const auto &[mode, query] : queries) {
        SCOPED_TRACE(mode);
        const std::map<std::string, SearchMode> by_name = {{"semantic", SearchMode::Semantic},
                                                           {"text", SearchMode::Text},
                                                           {"regex", SearchMode::Regex},
                                                           {"keyword", SearchMode::Keyword},
                                                           {"hybrid", SearchMode::Hybrid}};
        const SearchMode m = by_name.at(mode);
        const QList<SearchResult> app_hits =
            engine.search(QString::fromStdString(query), m, 20, ResultLayout::ByFile);
        const std::vector<Json> &hits = cli_hits[mode];
        ASSERT_EQ(static_cast<size_t>(app_hits.size()), hits.size());
        for (size_t i = 0; i < hits.size(); i++) {
            const SearchResult &a = app_hits[static_cast<qsizetype>(i)];
            EXPECT_EQ(hits[i]["id"].text, a.id.toStdString());
            EXPECT_EQ(hits[i]["filePath"].text, a.filePath.toStdString());
            EXPECT_EQ(hits[i]["snippet"].text, a.snippet.toStdString());
            EXPECT_EQ(static_cast<float>(hits[i]["score"].number), a.score);
            EXPECT_EQ(hits[i]["lineNumber"].number, a.lineNumber);
            EXPECT_EQ(hits[i]["moreInFile"].number, a.moreInFile);
        }
    }
}

TEST_F(ModelCorpus, FlagsOverrideTheSettingsAndABrokenSettingCountsAsTheDefault)
{
    RunResult r = cli({"index", dir.path(), "--chunk-size", "64", "--overlap", "0"});
    ASSERT_EQ(r.status, 0) << r.err;
    // 301 bytes: five windows of at most 64 bytes.
    EXPECT_EQ(chunks_per_file(stored_chunks(dir.path()))[dir / "notes/bread.md"], 5);

    std::unique_ptr<Settings> settings = open_settings(home.path());
    settings->setChunkSize(0);
    settings->setValue(QStringLiteral("overlap"), QStringLiteral("lots"));
    settings->sync();
    r = cli({"index", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    // 800 and 200: every file fits in one chunk.
    for (const auto &[path, count] : chunks_per_file(stored_chunks(dir.path()))) {
        EXPECT_EQ(count, 1) << path;
    }
}

// --- prompt
// ---------------------------------------------------------------------------------------

const char OPENING[] = "Based on the following excerpts from my documents, answer my question.\n\n"
                       "--- Context ---\n\n";

class CliPrompt : public ::testing::Test
{
protected:
    void SetUp() override
    {
        write_file(dir / "log/ferry.txt", "The ferry waits for the causeway to clear.\n");
        write_file(dir / "notes/tides.txt", "  Spring tides flood the causeway twice a day.\n\n");
        write_file(dir / "other.txt", "Nothing about crossings here, only gulls.\n");
        RunResult r = run_cli({"index", dir.path()}, dir.path(), false, home.path());
        ASSERT_EQ(r.status, 0) << r.err;
    }

    std::string prompt(const std::vector<std::string> &extra)
    {
        std::vector<std::string> args = {"prompt", dir.path()};
        args.insert(args.end(), extra.begin(), extra.end());
        RunResult r = run_cli(args, dir.path(), false, home.path());
        EXPECT_EQ(r.status, 0) << r.err;
        return r.out;
    }

    void pin(const std::vector<PinnedResult> &pins)
    {
        std::unique_ptr<Settings> settings = open_settings(home.path());
        settings->setPinnedResultsData(
            QString::fromStdString(dir.path()),
            PinnedResult::encodeList(QList<PinnedResult>(pins.begin(), pins.end())));
        settings->sync();
    }

    TempDir home;
    TempDir dir;
};

TEST_F(CliPrompt, PrintsTheApplicationsTextForTheTopResults)
{
    // Text hits come in walk order: log/ before notes/.
    EXPECT_EQ(prompt({"causeway", "--mode", "text"}),
              std::string(OPENING)
                  + "[log/ferry.txt, line 1]\nThe ferry waits for the causeway to clear.\n\n"
                    "[notes/tides.txt, line 1]\nSpring tides flood the causeway twice a day.\n\n"
                    "--- Question ---\n\ncauseway\n");
    // -k bounds the search, as the tab's page size does.
    EXPECT_EQ(prompt({"causeway", "--mode", "regex", "-k", "1", "--scope", "all"}),
              std::string(OPENING)
                  + "[log/ferry.txt, line 1]\nThe ferry waits for the causeway to clear.\n\n"
                    "--- Question ---\n\ncauseway\n");
    // Nothing found, or nothing pinned: the application's message alone, without a newline.
    EXPECT_EQ(prompt({"no such words", "--mode", "text"}), "No results to include in prompt.");
    EXPECT_EQ(prompt({"causeway", "--mode", "text", "--scope", "pinned"}),
              "No results to include in prompt.");
}

TEST_F(CliPrompt, PinnedResultsOfTheDirectoryComeFirstAsStored)
{
    // A pin of the ferry chunk, stored when its text was different: the stored copy is shown and
    // the live hit is not repeated. A second pin from a file that does not match at all.
    auto pinned = [this](const std::string &rel, const char *snippet, int line) {
        PinnedResult p;
        p.id = QString::fromStdString(dir / rel + ":0");
        p.filePath = QString::fromStdString(dir / rel);
        p.snippet = QString::fromUtf8(snippet);
        p.lineNumber = line;
        return p;
    };
    pin({pinned("other.txt", "\n  only gulls \n", 7),
         pinned("log/ferry.txt", "old ferry text", 1)});
    EXPECT_EQ(prompt({"causeway", "--mode", "text", "--scope", "pinned"}),
              std::string(OPENING) + "[" + fs::path(dir.path()).filename().string()
                  + "/other.txt, line 7]\nonly gulls\n\n[log/ferry.txt, line 1]\nold ferry text\n\n"
                    "--- Question ---\n\ncauseway\n");
    EXPECT_EQ(prompt({"causeway", "--mode", "text"}),
              std::string(OPENING) + "[" + fs::path(dir.path()).filename().string()
                  + "/other.txt, line 7]\nonly gulls\n\n[log/ferry.txt, line 1]\nold ferry text\n\n"
                    "[notes/tides.txt, line 1]\nSpring tides flood the causeway twice a day.\n\n"
                    "--- Question ---\n\ncauseway\n");
}

// --- train
// ----------------------------------------------------------------------------------------

class CliTrain : public ::testing::Test
{
protected:
    RunResult cli(const std::vector<std::string> &args)
    {
        return run_cli(args, corpus.path(), false, home.path());
    }

    std::vector<Json> profiles()
    {
        RunResult r = cli({"train", "profiles", "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        return parse_json(r.out).items;
    }

    // The profiles as the application reads them from its settings.
    QList<TrainingProfile> stored_profiles()
    {
        std::optional<QList<TrainingProfile>> decoded =
            TrainingProfile::decodeList(open_settings(home.path())->trainingProfilesData());
        EXPECT_TRUE(decoded.has_value());
        return decoded.value_or(QList<TrainingProfile>());
    }

    TempDir home;
    TempDir corpus;
};

TEST_F(CliTrain, ProfilesAreCreatedListedAndMadeDefaultInTheApplicationsSettings)
{
    RunResult r = cli({"train", "profiles"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "No training profiles yet.\n");
    EXPECT_EQ(profiles().size(), 0u);

    fs::create_directories(corpus / "a");
    fs::create_directories(corpus / "b");
    r = cli({"train",
             "add",
             "My Docs: v1.2",
             "a",
             "./b/",
             "--steps",
             "3000",
             "--batch",
             "16",
             "--lr",
             "0.0005",
             "--threads",
             "4",
             "--bpe"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string weights = home.path() + "/.tarnwick/weights/my_docs__v1_2.tten";
    EXPECT_EQ(r.out,
              "added profile \"My Docs: v1.2\" with weights " + weights
                  + "\n\"My Docs: v1.2\" is the default profile\n");
    ASSERT_EQ(cli({"train", "add", "Second", "a"}).status, 0);
    // A second profile of the same name could not be told apart by name.
    r = cli({"train", "add", "Second", "b"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "tarnwick: a profile named \"Second\" already exists\n");

    std::vector<Json> list = profiles();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].keys(),
              (std::vector<std::string>{"id",
                                        "name",
                                        "status",
                                        "lastTrained",
                                        "weightsPath",
                                        "isDefault",
                                        "sourceDirectories",
                                        "steps",
                                        "batchSize",
                                        "learningRate",
                                        "heads",
                                        "layers",
                                        "threads",
                                        "useBPE"}));
    EXPECT_EQ(list[0]["name"].text, "My Docs: v1.2");
    EXPECT_EQ(list[0]["status"].text, "Not trained");
    EXPECT_EQ(list[0]["lastTrained"].kind, Json::Null);
    EXPECT_EQ(list[0]["weightsPath"].text, weights);
    EXPECT_TRUE(list[0]["isDefault"].boolean);
    EXPECT_FALSE(list[1]["isDefault"].boolean);
    ASSERT_EQ(list[0]["sourceDirectories"].items.size(), 2u);
    EXPECT_EQ(list[0]["sourceDirectories"].items[1].text, corpus / "b");
    EXPECT_EQ(list[0]["steps"].number, 3000);
    EXPECT_EQ(list[0]["batchSize"].number, 16);
    EXPECT_EQ(list[0]["learningRate"].number, 0.0005);
    EXPECT_EQ(list[0]["threads"].number, 4);
    EXPECT_TRUE(list[0]["useBPE"].boolean);
    EXPECT_FALSE(list[1]["useBPE"].boolean);

    // The application reads what was stored.
    QList<TrainingProfile> stored = stored_profiles();
    ASSERT_EQ(stored.size(), 2);
    EXPECT_EQ(stored[0].id.toString(QUuid::WithoutBraces).toUpper().toStdString(),
              list[0]["id"].text);
    EXPECT_EQ(stored[0].batchSize, 16);
    EXPECT_EQ(stored[1].name, QStringLiteral("Second"));

    // The default by name or by id; the text listing marks it.
    r = cli({"train", "default", "Second"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "\"Second\" is the default profile\nit is not trained yet; until it is, "
              "directories use the "
                  + std::string(fs::exists(std::string(TRN_BIN_DIR) + "/default.tten")
                                    ? "built-in"
                                    : "untrained")
                  + " encoder\n");
    EXPECT_EQ(open_settings(home.path())->defaultTrainingProfile().value_or(QString()),
              QString::fromStdString(list[1]["id"].text));
    ASSERT_EQ(cli({"train", "default", list[0]["id"].text}).status, 0);
    r = cli({"train", "profiles"});
    std::vector<std::string> lines = lines_of(r.out);
    ASSERT_EQ(lines.size(), 3u) << r.out;
    EXPECT_EQ(lines[0].rfind("  NAME           STATUS       LAST TRAINED      WEIGHTS", 0), 0u)
        << r.out;
    EXPECT_EQ(lines[1], "* My Docs: v1.2  Not trained  never             " + weights);
    EXPECT_EQ(lines[2].rfind("  Second         Not trained  never  ", 0), 0u) << r.out;

    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"train", "Nobody"}, {"train", "default", "x"}}) {
        r = cli(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind("tarnwick: no training profile named \"", 0), 0u) << r.err;
    }
}

TEST_F(CliTrain, ACorpusTooSmallFailsTheRunAndMarksTheProfile)
{
    write_file(corpus / "tiny/a.txt", std::string(60, 'a'));
    write_file(corpus / "tiny/b.txt", std::string(40, 'b'));
    ASSERT_EQ(cli({"train", "add", "tiny", "tiny"}).status, 0);
    RunResult r = cli({"train", "tiny"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              "Preparing corpus\u2026\nCorpus too small (100 bytes). Add more source "
              "directories.\n");
    EXPECT_EQ(r.err, "tarnwick: Corpus too small (100 bytes). Add more source directories.\n");
    EXPECT_EQ(profiles()[0]["status"].text, "Failed");
}

std::string lighthouse_text()
{
    std::string text;
    for (int i = 0; i < 30; i++) {
        text += "The keeper climbs the lighthouse stair " + std::to_string(i)
                + " times and trims the lamp before the tide turns.\n\n";
    }
    return text;
}

// The real trainers, a few steps each: a few seconds.
TEST_F(CliTrain, TrainsWithTheRealTrainerAndIndexingThenUsesTheWeights)
{
    write_file(corpus / "docs/lighthouse.txt", lighthouse_text());
    ASSERT_EQ(cli({"train", "add", "tiny", "docs", "--steps", "2", "--batch", "2"}).status, 0);
    RunResult r = cli({"train", "tiny"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines = lines_of(r.out);
    ASSERT_GE(lines.size(), 3u) << r.out;
    EXPECT_EQ(lines.front(), "Preparing corpus\u2026");
    EXPECT_EQ(lines.back(), "Training complete");
    // A new profile starts from the built-in encoder: a fifth of its steps train the word rows.
    EXPECT_NE(r.out.find("\nbag step 1/1 loss "), std::string::npos) << r.out;

    Json profile = profiles()[0];
    EXPECT_EQ(profile["status"].text, "Trained");
    EXPECT_EQ(profile["lastTrained"].kind, Json::String);
    const std::string weights = profile["weightsPath"].text;
    ASSERT_TRUE(fs::exists(weights));

    // The trained default profile now encodes the index and the queries.
    write_file(corpus / "notes/one.txt", "spring tides cover the causeway");
    r = cli({"index", corpus / "notes"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("tarnwick: encoder: default profile \"tiny\" (" + weights + ")\n"),
              std::string::npos)
        << r.err;
    TrnEncoder *trained = trn_encoder_init(42);
    ASSERT_EQ(trn_encoder_load_weights(trained, weights.c_str()), 1);
    float expected[TRN_ENCODER_DIM];
    trn_encoder_embed_text(trained, "spring tides cover the causeway", expected);
    trn_encoder_free(trained);
    const std::vector<StoredChunk> chunks = stored_chunks(corpus / "notes");
    ASSERT_EQ(chunks.size(), 1u);
    // another process, whose matrix library may split the products differently: equal to
    // rounding, far closer than the random encoder's vector would be
    ASSERT_EQ(chunks[0].vector.size(), (size_t)TRN_ENCODER_DIM);
    for (int i = 0; i < TRN_ENCODER_DIM; i++) {
        EXPECT_NEAR(chunks[0].vector[(size_t)i], expected[i], 1e-6f) << "element " << i;
    }
    r = cli({"search",
             corpus / "notes",
             "spring tides cover the causeway",
             "--mode",
             "semantic",
             "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json hits = parse_json(r.out);
    ASSERT_EQ(hits.items.size(), 1u);
    EXPECT_NEAR(hits.items[0]["score"].number, 1.0, 1e-4);
}

TEST_F(CliTrain, InterruptCancelsTheRunningTrainer)
{
    write_file(corpus / "docs/lighthouse.txt", lighthouse_text());
    ASSERT_EQ(cli({"train", "add", "long", "docs", "--steps", "1000000", "--batch", "2"}).status,
              0);
    CliProcess run({"train", "long"}, corpus.path(), false, home.path());
    // The first step line shows that the trainer runs; then Ctrl+C.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (run.out_so_far().find("step 1/") == std::string::npos
           && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_NE(run.out_so_far().find("step 1/"), std::string::npos);
    kill(run.pid(), SIGINT);
    RunResult r = run.finish();
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("\nCancelled\n"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("tarnwick: Cancelled"), std::string::npos) << r.err;
    // The profile is as it was before the run: never trained.
    EXPECT_EQ(profiles()[0]["status"].text, "Not trained");
}

} // namespace

#else

// Built without the application's model: nothing of it to test.
TEST(CliModel, NeedsTheApplicationModel)
{
    GTEST_SKIP() << "tarnwick-cli is built without the application model";
}

#endif
