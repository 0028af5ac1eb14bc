/*
** index_bench.cpp -- indexes a real directory end to end and shows how much of the time is not
** spent in the encoder.
**
**   index_bench [DIR] [--max-files N] [--chunk-size N] [--overlap N] [--blas-threads N]
**
** DIR defaults to /usr/share/doc/python3/html. Its indexable files are sorted by path and N of
** them (default 20) are picked at an even stride, so a run sees the directory's mix of file
** kinds; they are linked into a temporary directory that trn_ingest_dir then walks. The index
** goes to another temporary directory, and both are removed at the end.
**
** Two measurements in the same run: the whole indexing (open, walk, type detection, reading and
** HTML/PDF extraction, chunking, embedding, graph insertion, log writes, document index,
** checkpoint and close), and a second pass that only embeds the same chunk texts with a fresh
** encoder of the same seed. Their difference is everything but the embedding, printed as a share
** of the indexing time. Both are shown as wall time and as the process's CPU time; on a shared
** machine the CPU time is the one to trust. OpenBLAS runs one thread unless --blas-threads says
** otherwise, because its idle threads spin and would charge waiting as work.
*/
#include "common.h"
#include "encoder/encoder.h"
#include "probe.h"
#include "tarnwick.h"

#include <cblas.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <time.h>
#include <unistd.h>

namespace fs = std::filesystem;
using bench::Clock;

namespace
{

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

bool count_file(const char *, int32_t, int32_t, void *user)
{
    ++*static_cast<int *>(user);
    return true;
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

} // namespace

int main(int argc, char **argv)
{
    std::string root = "/usr/share/doc/python3/html";
    int32_t max_files = 20;
    int32_t chunk_size = 800;
    int32_t overlap = 200;
    int32_t blas_threads = 1;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (i + 1 < argc && arg == "--max-files") {
            max_files = int_arg("--max-files", argv[++i]);
        } else if (i + 1 < argc && arg == "--chunk-size") {
            chunk_size = int_arg("--chunk-size", argv[++i]);
        } else if (i + 1 < argc && arg == "--overlap") {
            overlap = int_arg("--overlap", argv[++i]);
        } else if (i + 1 < argc && arg == "--blas-threads") {
            blas_threads = int_arg("--blas-threads", argv[++i]);
        } else if (!arg.empty() && arg[0] != '-') {
            root = arg;
        } else {
            std::fprintf(stderr,
                         "usage: index_bench [DIR] [--max-files N] [--chunk-size N] "
                         "[--overlap N] [--blas-threads N]\n");
            return 2;
        }
    }

    openblas_set_num_threads(std::max(blas_threads, 1));
    std::vector<std::string> all = indexable_files(root);
    if (all.empty()) {
        std::fprintf(stderr, "index_bench: no indexable files under %s\n", root.c_str());
        return 1;
    }
    size_t want = std::min(all.size(), static_cast<size_t>(std::max(max_files, 1)));
    std::vector<std::string> picked;
    for (size_t i = 0; i < want; i++) {
        picked.push_back(all[i * all.size() / want]);
    }

    char tmpl[] = "/tmp/trn_index_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("index_bench: mkdtemp");
        return 1;
    }
    const std::string work = tmpl;
    const std::string source = work + "/source";
    const std::string index_dir = work + "/index";
    fs::create_directories(source);
    fs::create_directories(index_dir);
    uintmax_t bytes = 0;
    for (size_t i = 0; i < picked.size(); i++) {
        char prefix[32];
        std::snprintf(prefix, sizeof prefix, "%04zu-", i);
        fs::create_symlink(picked[i],
                           source + "/" + prefix + fs::path(picked[i]).filename().string());
        bytes += fs::file_size(picked[i]);
    }

    // Indexing, end to end.
    Clock::time_point start = Clock::now();
    double cpu_start = bench::cpu_seconds();
    TrnConfig cfg{};
    cfg.index_dir = index_dir.c_str();
    TrnEngine *engine = trn_open(&cfg);
    int files_done = 0;
    int32_t chunks =
        trn_ingest_dir(engine, source.c_str(), chunk_size, overlap, count_file, &files_done);
    trn_build_doc_index(engine);
    trn_checkpoint(engine);
    double index_seconds = bench::seconds_since(start);
    double index_cpu = bench::cpu_seconds() - cpu_start;

    // The chunk texts, copied out of the handle while it is open (not timed).
    std::vector<std::string> texts;
    const uint32_t slots = trn_stats(engine).chunk_count;
    for (uint64_t i = 0; i < slots; i++) {
        const char *text = probe_chunk(engine, i).text;
        texts.emplace_back(text != nullptr ? text : "");
    }
    start = Clock::now();
    cpu_start = bench::cpu_seconds();
    trn_close(engine);
    index_seconds += bench::seconds_since(start);
    index_cpu += bench::cpu_seconds() - cpu_start;

    // The encoder alone on the same texts.
    TrnEncoder encoder{};
    encoder_init(&encoder, 42);
    std::vector<float> vector(TRN_ENCODER_DIM);
    start = Clock::now();
    cpu_start = bench::cpu_seconds();
    for (const std::string &text : texts) {
        trn_encoder_embed_text(&encoder, text.c_str(), vector.data());
    }
    double embed_seconds = bench::seconds_since(start);
    double embed_cpu = bench::cpu_seconds() - cpu_start;
    encoder_release(&encoder);

    std::error_code ec;
    fs::remove_all(work, ec);

    std::printf("index_bench on %s (%ld cores), %s\n",
                cpu_model().c_str(),
                sysconf(_SC_NPROCESSORS_ONLN),
                root.c_str());
    std::printf(
        "%d of %zu indexable files, %.1f MB, chunk size %d, overlap %d, %d BLAS threads\n\n",
        files_done,
        all.size(),
        static_cast<double>(bytes) / 1e6,
        chunk_size,
        overlap,
        std::max(blas_threads, 1));
    std::printf("| measure | wall | CPU |\n|---|---|---|\n");
    std::printf(
        "| indexing %d chunks end to end | %.2f s | %.2f s |\n", chunks, index_seconds, index_cpu);
    std::printf("| files/s | %.2f | %.2f |\n", files_done / index_seconds, files_done / index_cpu);
    std::printf("| chunks/s | %.1f | %.1f |\n", chunks / index_seconds, chunks / index_cpu);
    std::printf("| embedding the same chunks alone (reference) | %.2f s | %.2f s |\n",
                embed_seconds,
                embed_cpu);
    std::printf("| everything but the embedding | %.2f s, %.1f%% | %.2f s, %.1f%% |\n",
                index_seconds - embed_seconds,
                100.0 * (index_seconds - embed_seconds) / index_seconds,
                index_cpu - embed_cpu,
                100.0 * (index_cpu - embed_cpu) / index_cpu);
    std::printf("\nThe share of everything but the embedding should stay under 10%%.\n");
    return 0;
}
