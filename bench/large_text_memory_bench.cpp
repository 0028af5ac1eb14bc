/*
** large_text_memory_bench.cpp -- peak memory of indexing one large text file under a raised size
** limit, next to what the index itself must hold for it.
**
**   large_text_memory_bench [--mb N] [--weights W]     (default 32 MB, models/default.tten)
**
** Writes an N MB text file to a temporary directory and runs each step in a child process of its
** own, so that getrusage's peak resident size is that step's alone:
**
**   encoder      an empty index's handle with its encoder set up: what any indexing holds
**                whatever the file (the weights and the encoder's work space);
**   extraction   extract_file_text of the file: the text, read once;
**   update       trn_update_dir of the directory into its index (the path of update and watch,
**                which logs the file's chunks as one group before they join the index);
**   rebuild      the same through a rebuilding handle (the path of tarnwick-cli index: no log).
**
** The reference is "index holds": the bytes of the chunk records, their texts and paths and their
** vectors in the handle after the update, which any indexing of the file must keep. A step's
** peak above the text plus that is memory the file cost beyond what it leaves behind. W is the
** encoder the application ships (the random encoder, far slower, when the file is missing).
** Interrupted, it removes its temporary directory before it ends.
*/
#include "probe.h"
#include "tarnwick.h"
#include "text/files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

char g_tree[64]; // the temporary directory, for the interrupt handler

// Only async-signal-safe calls: rm replaces the interrupted process and removes the directory.
extern "C" void remove_tree_and_exit(int)
{
    execl("/bin/rm", "rm", "-rf", "--", g_tree, (char *)nullptr);
    _exit(1);
}

struct Peak {
    double peak_mb;
    double held_mb; /* what the handle holds afterwards; 0 when not measured */
};

/* Runs step in a child; its peak resident size and what it reports as held, in MB. */
template <typename Step>
Peak in_child(Step step)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return {-1, -1};
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        double held = step();
        struct rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        Peak p = {usage.ru_maxrss / 1024.0, held};
        ssize_t n = write(fds[1], &p, sizeof p);
        _exit(n == (ssize_t)sizeof p ? 0 : 1);
    }
    close(fds[1]);
    Peak p = {-1, -1};
    if (read(fds[0], &p, sizeof p) != (ssize_t)sizeof p) {
        p = {-1, -1};
    }
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return p;
}

/* The bytes a handle keeps for its live and deleted chunks. */
double held_mb(const TrnEngine *e)
{
    const TrnStats stats = trn_stats(e);
    double bytes = (double)stats.chunk_count
                   * ((double)probe_chunk_record_size() + (double)stats.dim * sizeof(float));
    for (uint64_t i = 0; i < stats.chunk_count; i++) {
        const ProbeChunk c = probe_chunk(e, i);
        bytes += c.text ? (double)strlen(c.text) + 1 : 0;
        bytes += c.file_path ? (double)strlen(c.file_path) + 1 : 0;
    }
    return bytes / (1024.0 * 1024.0);
}

double index_tree(const std::string &tree, const std::string &weights, uint64_t limit,
                  uint32_t flags)
{
    std::string index = tree + "/.tarnwick";
    fs::create_directories(index);
    TrnConfig cfg = {};
    cfg.index_dir = index.c_str();
    cfg.weights_path = weights.c_str();
    TrnEngine *e = trn_open_ex(&cfg, flags, nullptr);
    if (!e) {
        return -1;
    }
    TrnWalkOptions opts = {};
    opts.max_file_size = limit;
    TrnUpdateReport report = {};
    trn_update_dir(e, tree.c_str(), 800, 200, &opts, nullptr, nullptr, &report);
    trn_checkpoint(e);
    double held = held_mb(e);
    trn_close(e);
    return held;
}

} // namespace

int main(int argc, char **argv)
{
    long mb = 32;
    std::string weights = std::string(TRN_SOURCE_DIR) + "/models/default.tten";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--mb") == 0) {
            mb = atol(argv[i + 1]);
        } else if (strcmp(argv[i], "--weights") == 0) {
            weights = argv[i + 1];
        } else {
            mb = 0;
        }
    }
    if (mb < 1 || argc % 2 == 0) {
        fprintf(stderr, "usage: large_text_memory_bench [--mb N] [--weights W]\n");
        return 2;
    }
    const char *tmp = getenv("TMPDIR");
    snprintf(g_tree,
             sizeof g_tree,
             "%s/trn_memory_bench_XXXXXX",
             tmp && *tmp && strlen(tmp) < 32 ? tmp : "/tmp");
    if (!mkdtemp(g_tree)) {
        perror("mkdtemp");
        return 1;
    }
    signal(SIGINT, remove_tree_and_exit);
    signal(SIGTERM, remove_tree_and_exit);
    const std::string tree = g_tree;
    const std::string file = tree + "/large.txt";
    const uint64_t size = (uint64_t)mb << 20;
    {
        std::ofstream out(file, std::ios::binary);
        uint64_t written = 0;
        for (uint64_t line = 0; written < size; line++) {
            std::string text = "line " + std::to_string(line) + " of the large text names harbour "
                               + std::to_string(line * 7919 % 100003) + " and quay "
                               + std::to_string(line % 977) + "\n";
            out << text;
            written += text.size();
        }
    }
    const uint64_t limit = size * 2;
    trn_set_verbose(0);

    Peak encoder = in_child([&tree, &weights] {
        const std::string empty = tree + "/empty/.tarnwick";
        fs::create_directories(empty);
        TrnConfig cfg = {};
        cfg.index_dir = empty.c_str();
        cfg.weights_path = weights.c_str();
        TrnEngine *e = trn_open_ex(&cfg, 0, nullptr);
        trn_prepare_encoder(e);
        trn_close(e);
        return 0.0;
    });
    fs::remove_all(tree + "/empty");
    Peak extraction = in_child([&file, limit] {
        ExtractedText t;
        extract_file_text(file.c_str(), TRN_FILE_TYPE_TEXT, limit, &t);
        extracted_text_free(&t);
        return 0.0;
    });
    Peak update = in_child([&tree, &weights, limit] {
        return index_tree(tree, weights, limit, 0);
    });
    fs::remove_all(tree + "/.tarnwick");
    Peak rebuild = in_child([&tree, &weights, limit] {
        return index_tree(tree, weights, limit, TRN_OPEN_REBUILD);
    });
    fs::remove_all(tree);

    printf("| %-12s | %9s | %12s |\n", "step", "peak MB", "peak / text");
    printf("|--------------|-----------|--------------|\n");
    printf("| %-12s | %9.1f | %12.2f |\n", "text", (double)mb, 1.0);
    printf("| %-12s | %9.1f | %12.2f |\n", "index holds", update.held_mb, update.held_mb / mb);
    for (const auto &[name, p] : {std::pair<const char *, Peak>{"encoder", encoder},
                                  {"extraction", extraction},
                                  {"update", update},
                                  {"rebuild", rebuild}}) {
        printf("| %-12s | %9.1f | %12.2f |\n", name, p.peak_mb, p.peak_mb / mb);
    }
    return 0;
}
