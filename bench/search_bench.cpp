/*
** search_bench.cpp -- the text and regular-expression scans of trn_search next to plain scans
** of the same bytes.
**
**   search_bench [--chunks N] [--runs R] [--dir DIR]
**
** Fills an in-memory engine with N (default 100,000) chunks of 800 bytes of real text (windows
** over the HTML-stripped Python documentation, or any directory of text and HTML; the text is
** reused from the start when it runs out), then searches for words that occur nowhere, so every
** chunk is scanned. Each scan runs R times (default 5); the median is reported as MB/s over the
** chunk bytes:
**
**   text   trn_search mode 1        beside memmem (case-sensitive, length from strlen as the
**                                    engine needs it) and strcasestr, the C library's answer
**   regex  trn_search mode 2        beside the same memmem scan
**
** and the ratio engine / memmem (above 1 means the engine's scan is faster). Times are CPU time
** of the one thread, steadier than wall time on a shared machine.
*/
#include "common.h"
#include "probe.h"
#include "tarnwick.h"
#include "text/files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <time.h>

namespace fs = std::filesystem;

namespace
{

constexpr size_t CHUNK = 800;
constexpr size_t STEP = 600; /* the application's chunk size 800 with overlap 200 */

std::string read_corpus(const std::string &dir, size_t want)
{
    std::string all;
    for (const std::string &path : bench::prose_files(dir)) {
        all += bench::prose_text(path);
        all += '\n';
        if (all.size() >= want) {
            break;
        }
    }
    return all;
}

/* Median CPU seconds of runs calls of fn; every call must return the same count. */
double time_runs(int runs, const std::function<long()> &fn, long *count)
{
    std::vector<double> t;
    for (int r = 0; r < runs; r++) {
        double t0 = bench::thread_cpu_seconds();
        long c = fn();
        t.push_back(bench::thread_cpu_seconds() - t0);
        if (r > 0 && c != *count) {
            fprintf(stderr, "search_bench: run %d found %ld, not %ld\n", r, c, *count);
            exit(1);
        }
        *count = c;
    }
    return bench::median(t);
}

} // namespace

int main(int argc, char **argv)
{
    long chunks = 100000;
    int runs = 5;
    std::string dir = "/usr/share/doc/python3/html";
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--chunks" && i + 1 < argc) {
            chunks = bench::parse_count("search_bench", argv[++i]);
        } else if (a == "--runs" && i + 1 < argc) {
            runs = (int)bench::parse_count("search_bench", argv[++i]);
        } else if (a == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else {
            fprintf(stderr, "usage: search_bench [--chunks N] [--runs R] [--dir DIR]\n");
            return 2;
        }
    }

    std::string corpus = read_corpus(dir, (size_t)chunks * STEP + CHUNK);
    if (corpus.size() < CHUNK + STEP) {
        fprintf(stderr, "search_bench: too little text under %s\n", dir.c_str());
        return 1;
    }
    TrnConfig cfg = {nullptr, nullptr, 0, 0, 0, 0};
    TrnEngine *e = trn_open(&cfg);
    probe_reserve(e, (uint64_t)chunks);
    size_t pos = 0, round = 0;
    std::string buf;
    for (long i = 0; i < chunks; i++) {
        if (pos + CHUNK > corpus.size()) {
            pos = (++round * 131) % STEP; /* start again, shifted */
        }
        buf.assign(corpus, pos, CHUNK);
        for (char &ch : buf) {
            if (ch == '\0') {
                ch = ' ';
            }
        }
        char doc_id[64];
        snprintf(doc_id, sizeof doc_id, "doc%ld:%ld", i / 50, i % 50);
        probe_append(e, doc_id, buf.c_str(), nullptr, 0, nullptr);
        pos += STEP;
    }
    /* The texts the references scan, gathered before any timing. */
    std::vector<const char *> texts((size_t)chunks);
    for (size_t i = 0; i < texts.size(); i++) {
        texts[i] = probe_chunk(e, i).text;
    }
    const double mb = (double)chunks * CHUNK / 1e6;
    printf("search_bench: %ld chunks of %zu bytes (%.1f MB) from %s, median of %d runs, CPU "
           "time of one thread\n\n",
           chunks,
           CHUNK,
           mb,
           dir.c_str(),
           runs);

    const char *word = "quixotry";
    const char *pattern = "quixot(ry|ic) [0-9]+";
    size_t wlen = strlen(word);
    TrnResult results[10];
    long n_engine = 0, n_memmem = 0, n_strcasestr = 0, n_regex = 0;
    double t_engine = time_runs(
        runs,
        [&] {
            return (long)trn_search(e, word, TRN_SEARCH_TEXT, 10, results);
        },
        &n_engine);
    double t_memmem = time_runs(
        runs,
        [&] {
            long found = 0;
            for (const char *t : texts) {
                found += memmem(t, strlen(t), word, wlen) ? 1 : 0;
            }
            return found;
        },
        &n_memmem);
    double t_strcasestr = time_runs(
        runs,
        [&] {
            long found = 0;
            for (const char *t : texts) {
                found += strcasestr(t, word) ? 1 : 0;
            }
            return found;
        },
        &n_strcasestr);
    double t_regex = time_runs(
        runs,
        [&] {
            return (long)trn_search(e, pattern, TRN_SEARCH_REGEX, 10, results);
        },
        &n_regex);

    printf("| scan                          | matches |     MB/s |\n");
    printf("|-------------------------------|--------:|---------:|\n");
    printf("| trn_search text \"%s\"    | %7ld | %8.0f |\n", word, n_engine, mb / t_engine);
    printf("| memmem (case-sensitive)       | %7ld | %8.0f |\n", n_memmem, mb / t_memmem);
    printf("| strcasestr                    | %7ld | %8.0f |\n", n_strcasestr, mb / t_strcasestr);
    printf("| trn_search regex              | %7ld | %8.0f |\n", n_regex, mb / t_regex);
    printf("\nratio to memmem: text %.2f, strcasestr %.2f, regex %.3f (above 1: faster than "
           "memmem)\n",
           t_memmem / t_engine,
           t_memmem / t_strcasestr,
           t_memmem / t_regex);
    trn_close(e);
    return 0;
}
