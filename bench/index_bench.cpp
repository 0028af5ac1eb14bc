/*
** index_bench.cpp -- indexes a real directory end to end with one and with two embedding
** workers, next to what the machine's matrix products allow, all measured in the same run.
**
**   index_bench [DIR] [--max-files N] [--chunk-size N] [--overlap N] [--weights W]
**
** DIR defaults to /usr/share/doc/postgresql-doc-15/html (Debian's postgresql-doc-15). Its
** indexable files are sorted by path and N of them (default 40) are picked at an even stride, so
** a run sees the directory's mix of file kinds; they are copied into a temporary directory that
** trn_update_dir walks, as the application's first indexing does (the walk does not follow links
** out of the directory). W defaults to the built-in
** encoder (models/default.tten; the random encoder when it is missing). Everything goes to
** temporary directories that are removed at the end.
**
** The figures, in chunks per second of wall time (and, last, the two phases of the one-worker
** run: when the words of every file were in, so that keyword search was complete, and when every
** vector was; and how far the time left it said was from the time really left, at each file
** of the words phase and at each group of vectors of the meaning phase):
**   indexing, 1 and 2 workers  open, walk, extraction, chunking, embedding, graph, log writes,
**                              manifest, document index, checkpoint and close;
**   embedding alone            the same chunk texts through the encoder, one thread: one text
**                              a forward pass, then ENCODER_BATCH texts a pass (as indexing);
**   sgemm, same shapes         the matrix products of those chunks (each at its own token
**                              count) replayed through sgemm on one thread: the ceiling (left
**                              out for a bag-of-words encoder, which issues none);
**   sgemm, two processes       the products of the first 100 chunks in two processes at once
**                              against one alone: the speed-up this machine grants a second
**                              core right now.
** A shared machine may not grant a second core at all, so the two-worker speed-up is compared
** with the two-process speed-up of the same run, never with 2. The load average at the start and
** at the end is printed with the table.
*/
#include "common.h"
#include "encoder/encoder.h"
#include "probe.h"
#include "tarnwick.h"

#include <cblas.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace fs = std::filesystem;
using bench::Clock;

namespace
{

struct Timing {
    double wall = 0.0;
    double cpu = 0.0;
};

std::string cpu_model()
{
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown CPU";
}

std::string load_average()
{
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// Indexable regular files under root, hidden names skipped as the engine's walk skips them.
std::vector<std::string> indexable_files(const std::string &root)
{
    std::vector<std::string> files;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::follow_directory_symlink, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!name.empty() && name[0] == '.') {
            if (it->is_directory()) {
                it.disable_recursion_pending();
            }
            continue;
        }
        std::string path = it->path().string();
        if (it->is_regular_file() && trn_is_indexable(trn_detect_file_type(path.c_str()))) {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

int32_t int_arg(const char *name, const char *value)
{
    char *end = nullptr;
    long v = std::strtol(value, &end, 10);
    if (*value == '\0' || *end != '\0' || v < 0 || v > INT32_MAX) {
        std::fprintf(stderr, "index_bench: %s needs a whole number\n", name);
        std::exit(2);
    }
    return static_cast<int32_t>(v);
}

// The time left an indexing says at each file, by the count of files and by their bytes, with
// the time it had run then.
struct Estimates {
    const TrnEngine *engine = nullptr;
    Clock::time_point start;
    std::vector<double> at, by_files, by_bytes;
    double end = 0; // when the last file was done: the words phase ended
    // The meaning phase: the time left said after each group, at the pace of the phase so far
    // (as trn_meaning_line says it, timed from the phase's first report, as the application and
    // tarnwick-cli time it), and when its first report came and its last group was done.
    std::vector<double> meaning_at, meaning_said;
    uint64_t embedded_at_start = 0;
    bool meaning = false;
    double meaning_begin = 0;
    double meaning_end = 0;
    uint32_t files_searchable = 0; // files in the index when the meaning phase began
};

bool on_progress(const char *, int32_t done, int32_t total, void *user)
{
    Estimates *e = static_cast<Estimates *>(user);
    const double now = bench::seconds_since(e->start);
    uint64_t embedded = 0, all = 0;
    if (trn_meaning_progress(e->engine, &embedded, &all) == 1) {
        if (!e->meaning) {
            e->meaning = true;
            e->meaning_begin = now;
            e->embedded_at_start = embedded;
            e->files_searchable = trn_stats(e->engine).file_count;
        }
        if (embedded > e->embedded_at_start && embedded < all) {
            e->meaning_at.push_back(now);
            e->meaning_said.push_back((now - e->meaning_begin)
                                      / (double)(embedded - e->embedded_at_start)
                                      * (double)(all - embedded));
        }
        e->meaning_end = now;
        return true;
    }
    uint64_t bytes_done = 0, bytes_all = 0;
    trn_update_progress(e->engine, &bytes_done, &bytes_all);
    if (done > 0 && done < total && bytes_done > 0) {
        e->at.push_back(now);
        e->by_files.push_back(now / done * (total - done));
        e->by_bytes.push_back(now * (double)(bytes_all - bytes_done) / (double)bytes_done);
    }
    e->end = now;
    return true;
}

// The median and the worst relative error of estimates against the time that was really left,
// over the points after the first minute (after the first third of a shorter run) that had more
// than a twentieth of the run still to go.
std::pair<double, double> estimate_error(const std::vector<double> &at,
                                         const std::vector<double> &said, double begin, double end)
{
    std::vector<double> errors;
    const double from = begin + std::min(60.0, (end - begin) / 3);
    for (size_t i = 0; i < at.size(); i++) {
        const double left = end - at[i];
        if (at[i] >= from && left > (end - begin) / 20) {
            errors.push_back(std::abs(said[i] - left) / left);
        }
    }
    if (errors.empty()) {
        return {0, 0};
    }
    std::sort(errors.begin(), errors.end());
    return {errors[errors.size() / 2], errors.back()};
}

// Indexes source into a fresh index with the given workers; the chunk texts go to texts when it
// is not NULL (copied out before the close, untimed), the time-left estimates to estimates.
Timing index_once(const std::string &source, const std::string &weights, int32_t workers,
                  int32_t chunk_size, int32_t overlap, int32_t *chunks,
                  std::vector<std::string> *texts, Estimates *estimates = nullptr)
{
    char tmpl[] = "/tmp/trn_index_bench_XXXXXX";
    const std::string index_dir = mkdtemp(tmpl) ? tmpl : "";
    Clock::time_point start = Clock::now();
    double cpu_start = bench::cpu_seconds();
    TrnConfig cfg{};
    cfg.index_dir = index_dir.c_str();
    cfg.weights_path = weights.empty() ? nullptr : weights.c_str();
    TrnEngine *engine = trn_open(&cfg);
    probe_set_embed_threads(engine, workers);
    if (estimates) {
        estimates->engine = engine;
        estimates->start = start;
    }
    *chunks = trn_update_dir(engine,
                             source.c_str(),
                             chunk_size,
                             overlap,
                             nullptr,
                             estimates ? on_progress : nullptr,
                             estimates,
                             nullptr);
    trn_checkpoint(engine);
    Timing t{bench::seconds_since(start), bench::cpu_seconds() - cpu_start};
    if (texts) {
        const uint32_t slots = trn_stats(engine).chunk_count;
        for (uint64_t i = 0; i < slots; i++) {
            const char *text = probe_chunk(engine, i).text;
            texts->emplace_back(text != nullptr ? text : "");
        }
    }
    start = Clock::now();
    cpu_start = bench::cpu_seconds();
    trn_close(engine);
    t.wall += bench::seconds_since(start);
    t.cpu += bench::cpu_seconds() - cpu_start;
    std::error_code ec;
    fs::remove_all(index_dir, ec);
    return t;
}

// The positions the encoder gives text: its tokenizer's ids, or the bytes between the begin and
// end tokens, at most TRN_ENCODER_MAX_SEQ.
int positions_of(const TrnEncoder *encoder, const std::string &text)
{
    if (encoder->bpe) {
        std::vector<uint32_t> ids(TRN_ENCODER_MAX_SEQ);
        return trn_bpe_encode(encoder->bpe, text.c_str(), ids.data(), TRN_ENCODER_MAX_SEQ);
    }
    return (int)std::min<size_t>(text.size() + 2, TRN_ENCODER_MAX_SEQ);
}

// Wall time of the products replayed in `processes` processes at once, each on one thread.
double replay_in_processes(const std::vector<GemmShape> &shapes, int processes)
{
    Clock::time_point start = Clock::now();
    std::vector<pid_t> children;
    for (int i = 0; i < processes; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            bench::replay(shapes);
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        waitpid(pid, nullptr, 0);
    }
    return bench::seconds_since(start);
}

} // namespace

int main(int argc, char **argv)
{
    std::string root = "/usr/share/doc/postgresql-doc-15/html";
    std::string weights = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    int32_t max_files = 40;
    int32_t chunk_size = 800;
    int32_t overlap = 200;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (i + 1 < argc && arg == "--max-files") {
            max_files = int_arg("--max-files", argv[++i]);
        } else if (i + 1 < argc && arg == "--chunk-size") {
            chunk_size = int_arg("--chunk-size", argv[++i]);
        } else if (i + 1 < argc && arg == "--overlap") {
            overlap = int_arg("--overlap", argv[++i]);
        } else if (i + 1 < argc && arg == "--weights") {
            weights = argv[++i];
        } else if (!arg.empty() && arg[0] != '-') {
            root = arg;
        } else {
            std::fprintf(stderr,
                         "usage: index_bench [DIR] [--max-files N] [--chunk-size N] "
                         "[--overlap N] [--weights W]\n");
            return 2;
        }
    }
    if (!fs::exists(weights)) {
        weights.clear();
    }

    openblas_set_num_threads(1);
    std::vector<std::string> all = indexable_files(root);
    if (all.empty()) {
        std::fprintf(stderr, "index_bench: no indexable files under %s\n", root.c_str());
        return 1;
    }
    size_t want = std::min(all.size(), static_cast<size_t>(std::max(max_files, 1)));
    char tmpl[] = "/tmp/trn_index_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("index_bench: mkdtemp");
        return 1;
    }
    const std::string source = tmpl;
    uintmax_t bytes = 0;
    for (size_t i = 0; i < want; i++) {
        const std::string &picked = all[i * all.size() / want];
        char prefix[32];
        std::snprintf(prefix, sizeof prefix, "%04zu-", i);
        fs::copy_file(picked, source + "/" + prefix + fs::path(picked).filename().string());
        bytes += fs::file_size(picked);
    }
    const std::string load_start = load_average();

    // Indexing with one worker, then two.
    std::vector<std::string> texts;
    int32_t chunks_one = 0, chunks_two = 0;
    Estimates estimates;
    Timing one =
        index_once(source, weights, 1, chunk_size, overlap, &chunks_one, &texts, &estimates);
    Estimates estimates_two;
    Timing two =
        index_once(source, weights, 2, chunk_size, overlap, &chunks_two, nullptr, &estimates_two);

    // The encoder alone on the same texts, and the products it issues for them.
    TrnEncoder *encoder = trn_encoder_init(42);
    if (!weights.empty() && !trn_encoder_load_weights(encoder, weights.c_str())) {
        std::fprintf(stderr, "index_bench: cannot load %s\n", weights.c_str());
        return 1;
    }
    // As the engine does when it loads weights: a bag of words is embedded by summing rows.
    encoder_prepare_bag(encoder);
    std::vector<float> vector(TRN_ENCODER_DIM);
    Clock::time_point start = Clock::now();
    double cpu_start = bench::cpu_seconds();
    for (const std::string &text : texts) {
        trn_encoder_embed_text(encoder, text.c_str(), vector.data());
    }
    Timing embed{bench::seconds_since(start), bench::cpu_seconds() - cpu_start};
    // The same texts ENCODER_BATCH to a forward pass, as the indexing workers take them.
    std::vector<const char *> pointers;
    for (const std::string &text : texts) {
        pointers.push_back(text.c_str());
    }
    std::vector<float> vectors(texts.size() * TRN_ENCODER_DIM);
    TrnScratch *batch_scratch = scratch_new_batch(ENCODER_BATCH);
    start = Clock::now();
    cpu_start = bench::cpu_seconds();
    encoder_embed_batch(encoder, batch_scratch, pointers.data(), pointers.size(), vectors.data());
    Timing batched{bench::seconds_since(start), bench::cpu_seconds() - cpu_start};
    scratch_free(batch_scratch);
    std::vector<GemmShape> shapes;
    long positions = 0;
    for (const std::string &text : texts) {
        int n = std::max(positions_of(encoder, text), 1);
        positions += n;
        std::vector<GemmShape> one_chunk(FORWARD_PRODUCTS);
        encoder_forward_shapes(n, one_chunk.data());
        shapes.insert(shapes.end(), one_chunk.begin(), one_chunk.end());
    }
    // A bag-of-words encoder sums rows computed at load and issues no matrix products: the
    // sgemm ceiling is that of a transformer and is left out.
    const bool products = encoder->bag_rows == nullptr;
    trn_encoder_free(encoder);
    const double sgemm_seconds = products ? bench::replay(shapes) : 0.0;
    // One process, then two at once, on the products of the first chunks (up to 100); twice
    // each, alternating, the better of each kept. Any encoder: this measures the machine.
    const size_t sample = std::min<size_t>(texts.size(), 100);
    const std::vector<GemmShape> sampled(shapes.begin(),
                                         shapes.begin() + (long)(sample * FORWARD_PRODUCTS));
    double solo = 1e30, pair = 1e30;
    for (int round = 0; round < 2; round++) {
        solo = std::min(solo, replay_in_processes(sampled, 1));
        pair = std::min(pair, replay_in_processes(sampled, 2));
    }
    const double machine_speedup = 2.0 * solo / pair;
    const std::string load_end = load_average();

    std::error_code ec;
    fs::remove_all(source, ec);

    const double n = static_cast<double>(texts.size());
    const double rate_one = chunks_one / one.wall, rate_two = chunks_two / two.wall;
    const double index_speedup = rate_two / rate_one;
    std::printf("index_bench on %s (%ld cores), %s\n",
                cpu_model().c_str(),
                sysconf(_SC_NPROCESSORS_ONLN),
                root.c_str());
    std::printf("%zu of %zu indexable files, %.1f MB, %d chunks of %.0f positions on average, "
                "chunk size %d, overlap %d, %s\n",
                want,
                all.size(),
                static_cast<double>(bytes) / 1e6,
                chunks_one,
                positions / std::max(n, 1.0),
                chunk_size,
                overlap,
                weights.empty() ? "random encoder" : weights.c_str());
    std::printf(
        "load average at the start %s, at the end %s\n\n", load_start.c_str(), load_end.c_str());
    std::printf("| measure | wall | chunks/s | CPU | cores busy |\n|---|---|---|---|---|\n");
    auto row = [](const char *what, double chunks, Timing t) {
        std::printf("| %s | %.1f s | %.1f | %.1f s | %.2f |\n",
                    what,
                    t.wall,
                    chunks / t.wall,
                    t.cpu,
                    t.cpu / t.wall);
    };
    row("indexing, 1 worker", chunks_one, one);
    row("indexing, 2 workers", chunks_two, two);
    row("embedding alone, 1 thread", n, embed);
    char batched_what[64];
    std::snprintf(batched_what, sizeof batched_what, "embedding alone, %d a pass", ENCODER_BATCH);
    row(batched_what, n, batched);
    if (products) {
        std::printf("| sgemm, same shapes, 1 thread (ceiling) | %.1f s | %.1f | | |\n",
                    sgemm_seconds,
                    n / sgemm_seconds);
    }
    std::printf(
        "| sgemm, %zu chunks, one process | %.1f s | %.1f | | |\n", sample, solo, sample / solo);
    std::printf("| sgemm, %zu chunks each, two processes at once | %.1f s | %.1f | | |\n\n",
                sample,
                pair,
                2.0 * sample / pair);
    if (products) {
        std::printf("embedding alone at %.0f%% of the sgemm ceiling, %d a pass at %.0f%%\n",
                    100.0 * sgemm_seconds / embed.wall,
                    ENCODER_BATCH,
                    100.0 * sgemm_seconds / batched.wall);
    } else {
        std::printf("the encoder is a bag of words (rows summed, no matrix products): no sgemm "
                    "ceiling applies\n");
    }
    std::printf("1 worker: %.0f%% of the time outside embedding\n",
                100.0 * (one.wall - embed.wall) / one.wall);
    std::printf("2 workers: %.2fx one worker; this machine gave two processes %.2fx one, so the "
                "second worker gained %.0f%% of what the second core gave\n",
                index_speedup,
                machine_speedup,
                machine_speedup > 1.0 ? 100.0 * (index_speedup - 1.0) / (machine_speedup - 1.0)
                                      : 0.0);
    if (estimates.meaning && estimates_two.meaning) {
        const double meaning_one = estimates.meaning_end - estimates.end;
        const double meaning_two = estimates_two.meaning_end - estimates_two.end;
        std::printf("the meaning phase alone (from the last file's words to the last vector): 1 "
                    "worker %.2f s, 2 workers %.2f s, %.2fx\n",
                    meaning_one,
                    meaning_two,
                    meaning_one / std::max(meaning_two, 1e-9));
        std::printf("the words phase (to the last file's words): 1 worker %.2f s, 2 workers %.2f "
                    "s, %.2fx; after the last vector (checkpoint, close): %.2f s, %.2f s\n",
                    estimates.end,
                    estimates_two.end,
                    estimates.end / std::max(estimates_two.end, 1e-9),
                    one.wall - estimates.meaning_end,
                    two.wall - estimates_two.meaning_end);
    }
    const auto [files_median, files_worst] =
        estimate_error(estimates.at, estimates.by_files, 0, estimates.end);
    const auto [bytes_median, bytes_worst] =
        estimate_error(estimates.at, estimates.by_bytes, 0, estimates.end);
    std::printf("time left said while indexing with 1 worker (%.0f s), after %.0f s, against the "
                "time really left: by the bytes of the files %.0f%% off (median), %.0f%% at "
                "worst; by their count (the reference) %.0f%%, %.0f%%\n",
                estimates.end,
                std::min(60.0, estimates.end / 3),
                100 * bytes_median,
                100 * bytes_worst,
                100 * files_median,
                100 * files_worst);
    if (estimates.meaning) {
        const auto [meaning_median, meaning_worst] = estimate_error(estimates.meaning_at,
                                                                    estimates.meaning_said,
                                                                    estimates.meaning_begin,
                                                                    estimates.meaning_end);
        std::printf("1 worker, words first: keyword search complete after %.1f s (%u of %zu files "
                    "searchable), every vector after %.1f s (%.1f%% of the time); the meaning "
                    "phase's time left was %.0f%% off (median), %.0f%% at worst, after its first "
                    "%.0f s\n",
                    estimates.end,
                    estimates.files_searchable,
                    want,
                    estimates.meaning_end,
                    100.0 * estimates.end / std::max(estimates.meaning_end, 1e-9),
                    100 * meaning_median,
                    100 * meaning_worst,
                    std::min(60.0, (estimates.meaning_end - estimates.meaning_begin) / 3));
    }
    return 0;
}
