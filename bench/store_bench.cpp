/*
** store_bench.cpp -- how long opening a large index takes, in process and for a fresh
** tarnwick-cli search, next to the time it takes just to read the index's bytes.
**
** Writes a store of 100,000 chunks directly (random unit vectors, texts of 800 bytes of words
** drawn as lexical_speed_bench draws them, ten chunks per file, neighbour lists of plausible size;
** nothing is embedded), then measures,
** with the file in the page cache:
**   read   fread of the whole file into a freshly allocated buffer, the floor for any loader
**          that copies the store, which must fill fresh memory too (the same read into a buffer
**          whose pages are already mapped is shown for comparison)
**   load   store_load alone on a fresh handle
**   open   trn_open: encoder set-up, load, log replay and the document index build
** and prints each with its ratio to read. Then it converts the store to the current version with
** a checkpoint (which writes the word index file too) and times whole tarnwick-cli processes
** searching it in each mode, next to the same program printing its usage (a bare process start)
** and cat reading every file of the index (what reading the index whole costs).
**
** Usage: store_bench [chunks] [repetitions]   (defaults 100000 and 3; the best run is shown)
** tarnwick-cli is taken from the directory of store_bench.
*/
#include "probe.h"
#include "storage/storage.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace
{

/* Processor time of this process: the engine is single-threaded, and on a shared machine the
** wall clock also counts the time other processes ran. Wall times are printed beside it. */
struct Stamp {
    std::chrono::steady_clock::time_point wall;
    double cpu_ms;
};

double cpu_ms_now()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

Stamp now()
{
    return {std::chrono::steady_clock::now(), cpu_ms_now()};
}

struct Timing {
    double wall_ms;
    double cpu_ms;
};

Timing since(const Stamp &start)
{
    Stamp end = now();
    return {std::chrono::duration<double, std::milli>(end.wall - start.wall).count(),
            end.cpu_ms - start.cpu_ms};
}

template <typename T>
void put(FILE *f, T v)
{
    fwrite(&v, sizeof v, 1, f);
}

void put_string(FILE *f, const std::string &s)
{
    put(f, (uint32_t)s.size());
    fwrite(s.data(), 1, s.size(), f);
}

/* Writes a version 1 store of n chunks at path; returns its size in bytes. */
long write_store(const std::string &path, uint32_t n)
{
    std::mt19937 rng(42);
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    std::uniform_int_distribution<uint32_t> any(0, n - 1);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    /* Words of a Zipf distribution over a vocabulary of 50,000 (rank r has weight 1/r), as in
    ** lexical_speed_bench: the word index then has the size real text gives it. */
    std::vector<std::string> words(50000);
    std::vector<double> cdf(words.size());
    double sum = 0.0;
    for (size_t r = 0; r < words.size(); r++) {
        for (size_t v = r + 1; v > 0; v /= 26) {
            words[r] += (char)('a' + v % 26);
        }
        sum += 1.0 / (double)(r + 1);
        cdf[r] = sum;
    }
    auto word = [&]() -> const std::string & {
        double u = unit(rng) * sum;
        return words[(size_t)(std::lower_bound(cdf.begin(), cdf.end(), u) - cdf.begin())];
    };
    const int32_t m = 16;
    const float level_mult = 1.0f / (float)std::log((double)m);

    std::vector<int32_t> levels(n);
    int32_t top = -1, entry = 0;
    for (uint32_t i = 0; i < n; i++) {
        double x = std::floor(-std::log(1.0 - unit(rng)) * level_mult);
        levels[i] = (int32_t)std::min(x, 31.0);
        if (levels[i] > top) {
            top = levels[i];
            entry = (int32_t)i;
        }
    }

    FILE *f = fopen(path.c_str(), "wb");
    if (!f) {
        return -1;
    }
    setvbuf(f, nullptr, _IOFBF, 1 << 20);
    fwrite("TRNW", 1, 4, f);
    put(f, (uint32_t)1);
    put(f, (int32_t)512);
    put(f, m);
    put(f, (int32_t)100);
    put(f, (int32_t)50);
    put(f, entry);
    put(f, top);
    put(f, level_mult);
    put(f, n);
    std::vector<float> v(512);
    for (uint32_t i = 0; i < n; i++) {
        std::string file =
            "/home/user/documents/project/notes/file" + std::to_string(i / 10) + ".md";
        std::string text;
        while (text.size() < 800) {
            text += word();
            text += (any(rng) % 9 == 0) ? "\n" : " ";
        }
        put_string(f, file + ":" + std::to_string(i % 10));
        put_string(f, text);
        put_string(f, file);
        put(f, (int32_t)(i % 10));
        put(f, (int32_t)(1 + (i % 10) * 12));
        put(f, (uint32_t)TRN_FILE_TYPE_MARKDOWN);
        put(f, (uint8_t)0);
        float s = 0.0f;
        for (float &x : v) {
            x = gauss(rng);
            s += x * x;
        }
        for (float &x : v) {
            x /= std::sqrt(s);
        }
        fwrite(v.data(), sizeof(float), v.size(), f);
        put(f, levels[i]);
        for (int32_t l = 0; l <= levels[i]; l++) {
            uint32_t k = l == 0 ? (uint32_t)m : (uint32_t)(m / 2);
            put(f, k);
            for (uint32_t j = 0; j < k; j++) {
                put(f, any(rng));
            }
        }
    }
    fclose(f);
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long)st.st_size : -1;
}

/* Reads the whole file with fread into a buffer: a fresh one (as any loader must fill fresh
** memory) or the given one, whose pages are already in place. */
Timing time_fread(const std::string &path, long size, std::vector<char> *warm)
{
    Stamp start = now();
    char *buf = warm ? warm->data() : static_cast<char *>(malloc((size_t)size));
    FILE *f = fopen(path.c_str(), "rb");
    size_t got = f && buf ? fread(buf, 1, (size_t)size, f) : 0;
    if (f) {
        fclose(f);
    }
    Timing t = since(start);
    if (!warm) {
        free(buf);
    }
    if (got != (size_t)size) {
        fprintf(stderr, "store_bench: short read\n");
    }
    return t;
}

Timing time_load(const std::string &path, uint64_t *count)
{
    TrnConfig memory = {};
    TrnEngine *e = trn_open(&memory);
    Stamp start = now();
    store_load(e, path.c_str());
    Timing t = since(start);
    *count = trn_stats(e).chunk_count;
    trn_close(e);
    return t;
}

Timing time_open(const std::string &dir, uint64_t *count, int32_t *files)
{
    TrnConfig cfg = {};
    cfg.index_dir = dir.c_str();
    Stamp start = now();
    TrnEngine *e = trn_open(&cfg);
    Timing t = since(start);
    TrnStats stats = trn_stats(e);
    *count = stats.chunk_count;
    *files = (int32_t)stats.file_count;
    /* Close without the checkpoint: rewriting 250 MB is not what is measured here. */
    probe_close_unwritten(e);
    return t;
}

/* The fastest run: what is left when nothing else got in the way. */
Timing best(const std::vector<Timing> &runs)
{
    Timing b = runs[0];
    for (const Timing &t : runs) {
        b.wall_ms = std::min(b.wall_ms, t.wall_ms);
        b.cpu_ms = std::min(b.cpu_ms, t.cpu_ms);
    }
    return b;
}

void print_row(const char *step, Timing t, Timing base)
{
    printf("| %-26s | %8.1f | %6.2f | %8.1f | %6.2f |\n",
           step,
           t.cpu_ms,
           t.cpu_ms / base.cpu_ms,
           t.wall_ms,
           t.wall_ms / base.wall_ms);
}

/* Runs argv with its output thrown away and times it from the spawn to its exit: wall time, and
** the processor time it used (user and system). A run that fails counts as no time at all. */
Timing time_process(const std::vector<std::string> &args, bool *failed)
{
    std::vector<char *> argv;
    for (const std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    int status = 0;
    struct rusage ru = {};
    bool ok = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0
              && wait4(pid, &status, 0, &ru) == pid && WIFEXITED(status)
              && WEXITSTATUS(status) == 0;
    double wall =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    if (!ok) {
        *failed = true;
        return {0.0, 0.0};
    }
    double cpu = (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3
                 + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
    return {wall, cpu};
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    return remove(path);
}

/* Converts the store in index_dir to the current version, with its commit record and word index
** file, as the next update of a real index would. */
bool convert_store(const std::string &index_dir)
{
    TrnConfig cfg = {};
    cfg.index_dir = index_dir.c_str();
    TrnEngine *e = trn_open(&cfg);
    bool ok = trn_checkpoint(e) == 1;
    trn_close(e);
    return ok;
}

/* Times fresh tarnwick-cli processes searching root's index in each mode. */
bool time_cli(const std::string &cli, const std::string &root, const std::string &index_dir,
              int reps)
{
    std::vector<std::string> files;
    if (DIR *d = opendir(index_dir.c_str())) {
        while (dirent *ent = readdir(d)) {
            if (ent->d_name[0] != '.') {
                files.push_back(index_dir + "/" + ent->d_name);
            }
        }
        closedir(d);
    }
    std::vector<std::string> cat = {"cat"};
    cat.insert(cat.end(), files.begin(), files.end());
    struct Row {
        const char *name;
        std::vector<std::string> args;
        std::vector<Timing> runs;
    };
    std::vector<Row> rows = {
        {"start: tarnwick-cli --help", {cli, "--help"}, {}},
        {"cat of the index files", cat, {}},
        {"search --mode keyword", {cli, "search", root, "xd jkh", "--mode", "keyword"}, {}},
        {"search --mode semantic", {cli, "search", root, "xd jkh", "--mode", "semantic"}, {}},
        {"search --mode hybrid", {cli, "search", root, "xd jkh", "--mode", "hybrid"}, {}},
    };
    bool failed = false;
    time_process(rows[1].args, &failed); /* the files into the page cache */
    for (int r = 0; r < reps; r++) {
        for (Row &row : rows) {
            row.runs.push_back(time_process(row.args, &failed));
        }
    }
    if (failed) {
        fprintf(stderr, "store_bench: a process failed: %s\n", cli.c_str());
        return false;
    }
    Timing base = best(rows[1].runs);
    printf("\nfresh processes on the converted index; best of %d runs, ratio to cat\n", reps);
    printf("| process                    |  cpu ms  |  x cat |  wall ms |  x cat |\n");
    printf("|----------------------------|----------|--------|----------|--------|\n");
    for (const Row &row : rows) {
        print_row(row.name, best(row.runs), base);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    uint32_t n = argc > 1 ? (uint32_t)atol(argv[1]) : 100000;
    int reps = argc > 2 ? atoi(argv[2]) : 3;
    if (n < 1 || reps < 1) {
        fprintf(stderr, "usage: store_bench [chunks] [repetitions]\n");
        return 2;
    }
    char tmpl[] = "/tmp/trn_store_bench_XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("store_bench: mkdtemp");
        return 1;
    }
    std::string root = tmpl;
    std::string dir = root + "/.tarnwick";
    std::string path = dir + "/tarnwick.bin";
    std::string self = argv[0];
    std::string cli = self.substr(0, self.rfind('/') + 1) + "tarnwick-cli";
    long size = mkdir(dir.c_str(), 0700) == 0 ? write_store(path, n) : -1;
    if (size < 0) {
        fprintf(stderr, "store_bench: cannot write %s\n", path.c_str());
        nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        return 1;
    }

    std::vector<char> warm((size_t)size);
    time_fread(path, size, &warm); /* bring the file into the page cache */
    std::vector<Timing> read_runs, warm_runs, load_runs, open_runs;
    uint64_t loaded = 0, opened = 0;
    int32_t files = 0;
    for (int r = 0; r < reps; r++) {
        read_runs.push_back(time_fread(path, size, nullptr));
        warm_runs.push_back(time_fread(path, size, &warm));
        load_runs.push_back(time_load(path, &loaded));
        open_runs.push_back(time_open(dir, &opened, &files));
    }
    Timing base = best(read_runs);
    printf("store of %u chunks, %.1f MB, %d files; best of %d runs\n", n, size / 1e6, files, reps);
    printf("| step                       |  cpu ms  | x read |  wall ms | x read |\n");
    printf("|----------------------------|----------|--------|----------|--------|\n");
    print_row("read: fread, fresh buffer", base, base);
    print_row("read: fread, warm buffer", best(warm_runs), base);
    print_row("store_load", best(load_runs), base);
    print_row("trn_open", best(open_runs), base);
    if (loaded != n || opened != n) {
        printf("loaded %llu and opened %llu chunks, expected %u\n",
               (unsigned long long)loaded,
               (unsigned long long)opened,
               n);
    }
    bool ok = loaded == n && opened == n;
    if (ok && self.find('/') != std::string::npos) {
        ok = convert_store(dir) && time_cli(cli, root, dir, reps);
    }
    nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    return ok ? 0 : 1;
}
