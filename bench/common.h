/*
** common.h -- what the benchmarks share: clocks, the median of runs, a count from the command
** line and the texts they read from a directory.
*/
#ifndef TRN_BENCH_COMMON_H
#define TRN_BENCH_COMMON_H

#include "encoder/encoder.h"
#include "encoder/vec.h"
#include "text/files.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include <time.h>

namespace bench
{

using Clock = std::chrono::steady_clock;

/* Wall seconds since t. */
inline double seconds_since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

/* CPU seconds of the whole process, every thread: on a shared machine CPU time depends less on
** what else runs than wall time does, and CPU / wall says how many cores the work kept busy. */
inline double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

/* CPU seconds of the calling thread, for work that runs on one thread. */
inline double thread_cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

/* The middle value of v (the upper one of an even count); 0 for none. */
inline double median(std::vector<double> v)
{
    if (v.empty()) {
        return 0.0;
    }
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

/* s as a positive count, or "<program>: not a positive count: <s>" and exit status 2. */
inline long parse_count(const char *program, const char *s)
{
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (!end || *end != '\0' || v < 1) {
        fprintf(stderr, "%s: not a positive count: %s\n", program, s);
        exit(2);
    }
    return v;
}

/* The file's bytes as they are; empty when it cannot be read. */
inline std::string read_bytes(const std::string &path)
{
    std::string s;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        return s;
    }
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        s.append(buf, n);
    }
    fclose(f);
    return s;
}

/* The file's text as the engine extracts it for indexing; empty when it gives none. */
inline std::string extracted_text(const std::string &path)
{
    ExtractedText t;
    std::string s;
    if (extract_file_text(path.c_str(), classify_file(path.c_str(), nullptr, 0, nullptr), 0, &t)
        == TRN_FILE_STATUS_INDEXABLE) {
        s.assign(t.text, t.length);
    }
    extracted_text_free(&t);
    return s;
}

/* The .html, .txt and .rst files below dir (links to directories followed), in path order. */
inline std::vector<std::string> prose_files(const std::string &dir)
{
    namespace fs = std::filesystem;
    std::vector<std::string> files;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(
             dir, fs::directory_options::follow_directory_symlink, ec);
         it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        if (ec) {
            break;
        }
        std::string ext = it->path().extension().string();
        if (it->is_regular_file(ec) && (ext == ".html" || ext == ".txt" || ext == ".rst")) {
            files.push_back(it->path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

/* A file of prose_files as plain text: HTML as the engine reads it, the others as they are. */
inline std::string prose_text(const std::string &path)
{
    std::string raw = read_bytes(path);
    if (path.size() < 5 || path.compare(path.size() - 5, 5, ".html") != 0) {
        return raw;
    }
    size_t length = 0;
    char *text = html_to_text(raw.data(), raw.size(), &length);
    std::string s(text);
    free(text);
    return s;
}

/* Runs every product once through sgemm on buffers of the right size, as a reference for code
** that issues the same products; returns the seconds the products took. */
inline double replay(const std::vector<GemmShape> &shapes)
{
    size_t max_a = 1, max_b = 1, max_c = 1;
    for (const GemmShape &s : shapes) {
        max_a = std::max(max_a, (size_t)s.m * s.k);
        max_b = std::max(max_b, (size_t)s.k * s.n);
        max_c = std::max(max_c, (size_t)s.m * s.n);
    }
    std::vector<float> a(max_a), b(max_b), c(max_c);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float &x : a) {
        x = u(rng);
    }
    for (float &x : b) {
        x = u(rng);
    }
    Clock::time_point t0 = Clock::now();
    for (const GemmShape &s : shapes) {
        int lda = s.trans_a ? s.m : s.k;
        int ldb = s.trans_b ? s.k : s.n;
        sgemm(s.trans_a,
              s.trans_b,
              s.m,
              s.n,
              s.k,
              1.0f,
              a.data(),
              lda,
              b.data(),
              ldb,
              0.0f,
              c.data(),
              s.n);
    }
    return seconds_since(t0);
}

} // namespace bench

#endif /* TRN_BENCH_COMMON_H */
