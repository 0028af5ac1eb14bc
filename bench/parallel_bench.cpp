/*
** parallel_bench.cpp -- what one lock per engine and embedding on every core buy.
**
**   parallel_bench [--weights W] [--files N] [--searches N]
**
** W defaults to the built-in encoder (models/default.tten; the random encoder when it is
** missing). The corpus is N (default 24) seeded files of 6,000 bytes of words, cut as the
** application cuts them (800-byte chunks overlapping by 200, 10 chunks a file), indexed into
** temporary directories that are removed at the end.
**
** 1. Throughput, in chunks per second of wall time, all in one run:
**      embedding alone     the same chunk texts through trn_encoder_embed_text, one thread;
**      indexing, 1 worker  trn_ingest_text of every file with one embedding worker;
**      indexing, all cores the same with the default worker count (one per core, at most 8).
**    Indexing adds the log writes (synced per file) and the graph to the embedding. "cores busy"
**    is the process's CPU time over the wall time: on a machine shared with other work the
**    workers get only the cores that are free, and this column shows how many they got.
** 2. Tabs that do not wait on each other: engine B indexes the files on a thread, calling the
**    engine under B's lock per file as the application does, while engine A (already holding
**    the files) answers semantic searches one after another under A's lock. It prints the
**    median and worst search latency with one lock per engine, the same with one lock shared by
**    both engines (what the application did before), and for reference, measured in the same
**    run on an idle engine: one search alone, and B's time per file.
*/
#include "common.h"
#include "encoder/embed.h"
#include "probe.h"
#include "tarnwick.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <time.h>

namespace fs = std::filesystem;
using bench::Clock;

namespace
{

constexpr int CHUNK = 800;
constexpr int OVERLAP = 200;
constexpr size_t FILE_BYTES = 6000;

struct Timing {
    double wall = 0.0;
    double cpu = 0.0;
};

std::vector<std::string> make_files(int n)
{
    static const char *const words[] = {
        "index",   "search", "chunk",  "vector", "graph",   "file",   "query", "result",
        "window",  "letter", "system", "memory", "process", "thread", "core",  "lock",
        "encoder", "weight", "layer",  "token",  "merge",   "store",  "log",   "commit",
        "the",     "a",      "of",     "and",    "to",      "in",     "is",    "that"};
    uint64_t state = 7;
    std::vector<std::string> files;
    for (int f = 0; f < n; f++) {
        std::string text;
        while (text.size() < FILE_BYTES) {
            state = state * 6364136223846793005ull + 1442695040888963407ull;
            text += words[(state >> 33) % (sizeof words / sizeof *words)];
            text += (state >> 20) % 11 == 0 ? ".\n" : " ";
        }
        text.resize(FILE_BYTES);
        files.push_back(text);
    }
    return files;
}

// The chunk texts trn_ingest_text cuts from a file of FILE_BYTES bytes.
std::vector<std::string> chunks_of(const std::vector<std::string> &files)
{
    std::vector<std::string> chunks;
    for (const std::string &text : files) {
        for (size_t pos = 0;; pos += CHUNK - OVERLAP) {
            chunks.push_back(text.substr(pos, CHUNK));
            if (pos + CHUNK + (CHUNK - OVERLAP) > text.size()) {
                break;
            }
        }
    }
    return chunks;
}

struct TempIndex {
    std::string dir;
    TrnEngine *e = nullptr;
    TempIndex(const std::string &weights, int32_t workers)
    {
        char tmpl[] = "/tmp/trn_parallel_XXXXXX";
        dir = mkdtemp(tmpl) ? tmpl : "/tmp";
        TrnConfig cfg = {dir.c_str(), weights.empty() ? nullptr : weights.c_str(), 0, 0, 0, 0};
        e = trn_open(&cfg);
        if (workers > 0) {
            probe_set_embed_threads(e, workers);
        }
    }
    ~TempIndex()
    {
        trn_close(e);
        fs::remove_all(dir);
    }
};

// Time to index every file, one trn_ingest_text each; adds the chunk count to *chunks.
Timing index_files(TrnEngine *e, const std::vector<std::string> &files, long *chunks)
{
    Clock::time_point t0 = Clock::now();
    double c0 = bench::cpu_seconds();
    for (size_t i = 0; i < files.size(); i++) {
        std::string path = "/bench/file" + std::to_string(i) + ".txt";
        *chunks += trn_ingest_text(e, path.c_str(), files[i].c_str(), CHUNK, OVERLAP);
    }
    return Timing{bench::seconds_since(t0), bench::cpu_seconds() - c0};
}

void print_rate(const char *what, long chunks, Timing t, double reference_rate)
{
    double rate = (double)chunks / t.wall;
    printf("| %s | %ld | %.2f | %.2f | %.1f | %.2fx |\n",
           what,
           chunks,
           t.wall,
           t.cpu / t.wall,
           rate,
           rate / reference_rate);
}

struct Latencies {
    std::vector<double> search; // each search's wall time while B indexed
    double per_file = 0.0;      // B's mean time per file
};

// B indexes on a thread under lock_b per file while A searches under lock_a. The two locks may be
// the same mutex (one lock for the process).
Latencies searches_during_indexing(TrnEngine *a, TrnEngine *b, std::mutex *lock_a,
                                   std::mutex *lock_b, const std::vector<std::string> &files)
{
    std::atomic<bool> done{false};
    Latencies out;
    std::thread indexer([&] {
        Clock::time_point t0 = Clock::now();
        for (size_t i = 0; i < files.size(); i++) {
            std::string path = "/bench/b" + std::to_string(i) + ".txt";
            std::lock_guard<std::mutex> guard(*lock_b);
            trn_ingest_text(b, path.c_str(), files[i].c_str(), CHUNK, OVERLAP);
        }
        out.per_file = bench::seconds_since(t0) / (double)files.size();
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // B is inside its first file
    TrnResult results[10];
    int q = 0;
    while (!done) {
        std::string query = "search the index for memory " + std::to_string(q++);
        Clock::time_point t0 = Clock::now();
        {
            std::lock_guard<std::mutex> guard(*lock_a);
            trn_search(a, query.c_str(), TRN_SEARCH_SEMANTIC_ALL, 10, results);
        }
        out.search.push_back(bench::seconds_since(t0));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    indexer.join();
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    std::string weights = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    int n_files = 24;
    int n_searches = 20;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--weights" && i + 1 < argc) {
            weights = argv[++i];
        } else if (arg == "--files" && i + 1 < argc) {
            n_files = atoi(argv[++i]);
        } else if (arg == "--searches" && i + 1 < argc) {
            n_searches = atoi(argv[++i]);
        } else {
            fprintf(stderr, "usage: parallel_bench [--weights W] [--files N] [--searches N]\n");
            return 2;
        }
    }
    if (!fs::exists(weights)) {
        weights.clear();
    }
    trn_set_verbose(0);
    const std::vector<std::string> files = make_files(n_files);
    const std::vector<std::string> chunks = chunks_of(files);
    const int32_t cores = embed_threads_default();
    printf("encoder: %s; %d files, %zu chunks of %d bytes; %d embedding workers on all cores\n\n",
           weights.empty() ? "random (seed 42)" : weights.c_str(),
           n_files,
           chunks.size(),
           CHUNK,
           cores);

    // 1. Throughput.
    Timing embed_t;
    {
        TempIndex idle(weights, 1);
        float v[TRN_ENCODER_DIM];
        Clock::time_point t0 = Clock::now();
        double c0 = bench::cpu_seconds();
        for (const std::string &c : chunks) {
            trn_encoder_embed_text(probe_encoder(idle.e), c.c_str(), v);
        }
        embed_t = Timing{bench::seconds_since(t0), bench::cpu_seconds() - c0};
    }
    long one_chunks = 0, all_chunks = 0;
    Timing one_t, all_t;
    {
        TempIndex one(weights, 1);
        one_t = index_files(one.e, files, &one_chunks);
    }
    {
        TempIndex all(weights, 0);
        all_t = index_files(all.e, files, &all_chunks);
    }
    const double embed_rate = (double)chunks.size() / embed_t.wall;
    char all_label[64];
    snprintf(all_label, sizeof all_label, "indexing, %d workers", cores);
    printf("| throughput | chunks | wall s | cores busy | chunks/s | vs embedding alone |\n");
    printf("|---|---:|---:|---:|---:|---:|\n");
    print_rate("embedding alone, 1 thread", (long)chunks.size(), embed_t, embed_rate);
    print_rate("indexing, 1 worker", one_chunks, one_t, embed_rate);
    print_rate(all_label, all_chunks, all_t, embed_rate);
    printf("\n");

    // 2. A search in engine A while engine B indexes.
    TempIndex a(weights, 0);
    long ignored = 0;
    index_files(a.e, std::vector<std::string>(files.begin(), files.begin() + 4), &ignored);
    std::vector<double> alone;
    TrnResult results[10];
    for (int i = 0; i < n_searches; i++) {
        std::string query = "search the index for memory " + std::to_string(i);
        Clock::time_point t0 = Clock::now();
        trn_search(a.e, query.c_str(), TRN_SEARCH_SEMANTIC_ALL, 10, results);
        alone.push_back(bench::seconds_since(t0));
    }
    std::mutex lock_a, lock_b;
    Latencies own, shared;
    {
        TempIndex b(weights, 0);
        own = searches_during_indexing(a.e, b.e, &lock_a, &lock_b, files);
    }
    {
        TempIndex b(weights, 0);
        shared = searches_during_indexing(a.e, b.e, &lock_a, &lock_a, files);
    }
    printf("| search in A while B indexes | searches | median ms | worst ms |\n");
    printf("|---|---:|---:|---:|\n");
    printf("| one lock per engine | %zu | %.1f | %.1f |\n",
           own.search.size(),
           1e3 * bench::median(own.search),
           1e3 * *std::max_element(own.search.begin(), own.search.end()));
    printf("| one lock for the process | %zu | %.1f | %.1f |\n",
           shared.search.size(),
           1e3 * bench::median(shared.search),
           1e3 * *std::max_element(shared.search.begin(), shared.search.end()));
    printf("| reference: one search alone (embedding + graph) | %zu | %.1f | %.1f |\n",
           alone.size(),
           1e3 * bench::median(alone),
           1e3 * *std::max_element(alone.begin(), alone.end()));
    printf("| reference: B's time per file (%zu chunks) | %d | %.1f | |\n",
           chunks.size() / files.size(),
           n_files,
           1e3 * own.per_file);
    return 0;
}
