/*
** update_bench.cpp -- how long trn_update_dir takes when little or nothing changed.
**
**   update_bench [--files N] [--runs R] [--keep]
**
** Makes a tree of N small text files (default 20,000, 100 to a directory) in a temporary
** directory, indexes it once with trn_update_dir, and then measures in the same run:
**
**   walk alone       the walk of the update with a stat of every file and nothing else: the
**                    least an update that must notice every change can cost;
**   update, nothing  trn_update_dir of the unchanged tree (a fresh handle each run, so the
**                    manifest is read from disk as a new process would);
**   update, 1 edit   trn_update_dir after one file was rewritten;
**   embed that file  the embedding of that file's chunks alone, the floor for the line above.
**
** Each row is the median, min and max of R runs (default 5). The index lives in the tree's
** ".tarnwick", as the application keeps it; the tree is removed at the end unless --keep is
** given (live_update_bench --tree takes it then, indexed). Run with OPENBLAS_NUM_THREADS=1 on a
** shared machine.
*/
#include "common.h"
#include "index/index.h"
#include "tarnwick.h"
#include "text/files.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace fs = std::filesystem;
using bench::Clock;

namespace
{

struct Row {
    const char *name;
    std::vector<double> seconds;
};

void print_row(const Row &r)
{
    std::vector<double> s = r.seconds;
    std::sort(s.begin(), s.end());
    std::printf(
        "| %-28s | %9.4f | %9.4f | %9.4f |\n", r.name, s[s.size() / 2], s.front(), s.back());
}

std::string file_text(int i)
{
    std::string text = "Note " + std::to_string(i) + ": the harbour master logs boat "
                       + std::to_string(i * 7 % 1000) + " at the north quay.\n";
    return text;
}

WalkAction count_file(const WalkedFile *f, void *user)
{
    if (f->kind == WALK_FILE) {
        (*static_cast<int *>(user))++;
    }
    return WALK_CONTINUE;
}

TrnEngine *open_index(const std::string &dir)
{
    TrnConfig cfg = {};
    cfg.index_dir = dir.c_str();
    return trn_open(&cfg);
}

} // namespace

int main(int argc, char **argv)
{
    int files = 20000;
    int runs = 5;
    bool keep = false;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--keep") == 0) {
            keep = true;
        } else if (i + 1 < argc && std::strcmp(argv[i], "--files") == 0) {
            files = std::atoi(argv[++i]);
        } else if (i + 1 < argc && std::strcmp(argv[i], "--runs") == 0) {
            runs = std::atoi(argv[++i]);
        }
    }
    if (files < 1 || runs < 1) {
        std::fprintf(stderr, "usage: update_bench [--files N] [--runs R]\n");
        return 2;
    }
    trn_set_verbose(0);
    char tree_tmpl[] = "/tmp/trn_update_bench_XXXXXX";
    std::string tree = mkdtemp(tree_tmpl);
    std::string index = tree + "/.tarnwick";
    fs::create_directory(index);
    for (int i = 0; i < files; i++) {
        std::string dir = tree + "/d" + std::to_string(i / 100);
        if (i % 100 == 0) {
            fs::create_directories(dir);
        }
        std::ofstream(dir + "/f" + std::to_string(i) + ".txt") << file_text(i);
    }
    /* Older than the "recently modified" window, as files a person edited a while ago are. */
    g_update_recent_ns = 0;

    Clock::time_point start = Clock::now();
    TrnEngine *e = open_index(index);
    TrnUpdateReport report;
    trn_update_dir(e, tree.c_str(), 800, 200, nullptr, nullptr, nullptr, &report);
    trn_close(e);
    std::printf("tree: %d files; first indexing %.1f s (%d chunks)\n\n",
                files,
                bench::seconds_since(start),
                report.chunks_added);

    Row walk{"walk alone (stat every file)", {}};
    Row nothing{"update, nothing changed", {}};
    Row edit{"update, 1 file edited", {}};
    Row embed{"embed that file alone", {}};
    bool ok = true;
    for (int r = 0; r < runs; r++) {
        int seen = 0;
        Clock::time_point t = Clock::now();
        walk_files(tree.c_str(), nullptr, count_file, &seen);
        walk.seconds.push_back(bench::seconds_since(t));
        ok = ok && seen == files;

        e = open_index(index);
        t = Clock::now();
        trn_update_dir(e, tree.c_str(), 800, 200, nullptr, nullptr, nullptr, &report);
        nothing.seconds.push_back(bench::seconds_since(t));
        ok = ok && report.unchanged == files && report.changed == 0;

        std::string edited = tree + "/d7/f" + std::to_string(700 + r) + ".txt";
        std::string text = file_text(700 + r) + "Edited in run " + std::to_string(r) + ".\n";
        std::ofstream(edited) << text;
        t = Clock::now();
        trn_update_dir(e, tree.c_str(), 800, 200, nullptr, nullptr, nullptr, &report);
        edit.seconds.push_back(bench::seconds_since(t));
        ok = ok && report.changed == 1 && report.unchanged == files - 1;
        trn_close(e);

        TrnEncoder *enc = trn_encoder_init(42);
        float v[TRN_ENCODER_DIM];
        t = Clock::now();
        trn_encoder_embed_text(enc, text.c_str(), v);
        embed.seconds.push_back(bench::seconds_since(t));
        trn_encoder_free(enc);
    }
    std::printf("| %-28s | %9s | %9s | %9s |\n", "seconds", "median", "min", "max");
    std::printf("|------------------------------|-----------|-----------|-----------|\n");
    for (const Row &row : {walk, nothing, edit, embed}) {
        print_row(row);
    }
    if (keep) {
        std::printf("\nkept the indexed tree %s\n", tree.c_str());
    } else {
        fs::remove_all(tree);
    }
    if (!ok) {
        std::printf("\nthe updates did not report what was changed\n");
        return 1;
    }
    return 0;
}
