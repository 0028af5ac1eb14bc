/*
** train_speed_bench.cpp -- how fast the encoder trains, against the matrix library itself.
**
**   train_speed_bench [STEPS] [BATCH] [THREADS] [CORPUS]
**
** Times STEPS training steps (default 5, after one untimed warm-up step) of BATCH pairs
** (default 8) on THREADS threads (default 1) and prints the achieved GFLOP/s of the matrix
** products of those steps (forward and backward, 2mnk each) over the whole step time, next to
** plain cblas_sgemm running the very same products back to back on one thread per training
** thread, measured in the same run. Also prints steps per second and the projected time of
** the default profile's 2000 steps. Without CORPUS the text comes from the Python
** documentation sources when installed, else from this repository's engine sources.
*/
#include "common.h"
#include "corpus.h"
#include "training.h"

#include "encoder/encoder.h"
#include "encoder/vec.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <cblas.h>
#include <unistd.h>

using namespace trn_train;

namespace
{

// Concatenates text files below dir, each followed by a blank line, up to max_bytes.
bool write_corpus(const std::string &dir, const std::string &out, size_t max_bytes)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        return false;
    }
    std::vector<std::string> files;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_regular_file(ec)) {
            files.push_back(it->path().string());
        }
    }
    std::sort(files.begin(), files.end());
    std::ofstream o(out, std::ios::binary);
    size_t total = 0;
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        o << text << "\n\n";
        total += text.size() + 2;
        if (total >= max_bytes) {
            break;
        }
    }
    return total > 100000;
}

} // namespace

int main(int argc, char **argv)
{
    int steps = argc > 1 ? atoi(argv[1]) : 5;
    int batch = argc > 2 ? atoi(argv[2]) : 8;
    int threads = argc > 3 ? atoi(argv[3]) : 1;
    if (steps < 1 || batch < 2 || threads < 1) {
        fprintf(stderr, "usage: train_speed_bench [STEPS] [BATCH] [THREADS] [CORPUS]\n");
        return 2;
    }
    openblas_set_num_threads(1);

    std::string corpus;
    std::string temp;
    if (argc > 4) {
        corpus = argv[4];
    } else {
        temp = "/tmp/trn_train_speed_" + std::to_string(getpid()) + ".txt";
        if (!write_corpus("/usr/share/doc/python3/html/_sources", temp, 4 << 20)
            && !write_corpus(std::string(TRN_SOURCE_DIR) + "/engine", temp, 4 << 20)) {
            fprintf(stderr, "train_speed_bench: no text to train on\n");
            unlink(temp.c_str());
            return 1;
        }
        corpus = temp;
    }
    CorpusSampler sampler;
    std::string err;
    if (!sampler.open(corpus, &err)) {
        fprintf(stderr, "train_speed_bench: %s\n", err.c_str());
        return 1;
    }

    TrnEncoder enc;
    encoder_init(&enc, ENCODER_SEED);
    Trainer trainer(&enc, batch, 1e-3f, 2000, threads);
    std::mt19937_64 rng(SAMPLER_SEED);
    std::vector<std::string> texts;

    sampler.draw(batch, rng, texts, &err);
    trainer.step(texts); // warm-up: buffers grow to size

    trainer.record_shapes(true);
    const double flops0 = trainer.flops();
    const uint64_t tokens0 = trainer.tokens_seen();
    double sample_secs = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (int s = 0; s < steps; s++) {
        auto ts = std::chrono::steady_clock::now();
        sampler.draw(batch, rng, texts, &err);
        sample_secs += bench::seconds_since(ts);
        trainer.step(texts);
    }
    const double secs = bench::seconds_since(t0);
    trainer.record_shapes(false);
    const double flops = trainer.flops() - flops0;
    const std::vector<GemmShape> shapes = trainer.shapes();

    // the same products, alone, best of three
    double ref_secs = bench::replay(shapes);
    ref_secs = std::min(ref_secs, bench::replay(shapes));
    ref_secs = std::min(ref_secs, bench::replay(shapes));
    const int used_threads = std::min(threads, 2 * batch);

    const double train_gflops = flops / secs * 1e-9;
    const double ref_gflops = flops / ref_secs * 1e-9 * used_threads;
    const double step_secs = secs / steps;
    printf("train_speed_bench: corpus %s (%llu bytes), batch %d pairs, threads %d, %d steps\n",
           argc > 4 ? corpus.c_str() : "(generated)",
           (unsigned long long)sampler.size(),
           batch,
           used_threads,
           steps);
    printf("tokens per step        %.0f\n", (double)(trainer.tokens_seen() - tokens0) / steps);
    printf("matrix work per step   %.1f GFLOP (%zu products)\n",
           flops / steps * 1e-9,
           shapes.size() / (size_t)steps);
    printf("training               %.3f s/step, %.3f steps/s, %.1f GFLOP/s\n",
           step_secs,
           1.0 / step_secs,
           train_gflops);
    printf("plain cblas_sgemm      %.1f GFLOP/s (same products%s)\n",
           ref_gflops,
           used_threads > 1 ? ", one thread, times the thread count" : ", one thread");
    printf("ratio                  %.0f%%\n", 100.0 * train_gflops / ref_gflops);
    printf("sampling               %.1f%% of the step time\n", 100.0 * sample_secs / secs);
    printf("projected 2000 steps   %.1f min\n", 2000 * step_secs / 60.0);

    encoder_release(&enc);
    if (!temp.empty()) {
        unlink(temp.c_str());
    }
    return 0;
}
