/*
** common.h -- what the subcommands of tarnwick-cli share: resolving directories, the index
** directory's paths, checking weights files, opening an index and writing to standard output.
**
** Every command that takes a directory resolves it first to an absolute path without symbolic
** links or "." and ".." (realpath), because each chunk is recorded under the path the walk built
** from that directory; removal and listing must use the same spelling to find it. The index lives
** in DIR/.tarnwick.
*/
#ifndef TRN_CLI_COMMON_H
#define TRN_CLI_COMMON_H

#include "args.h"
#include "tarnwick.h"

#include <chrono>
#include <memory>
#include <string>

class ModelRuntime;

// The engine keeps its store and log paths in 512-byte fields; a longer path would be cut short
// silently and the index written elsewhere, so such directories are refused.
constexpr size_t STORE_PATH_MAX = 511;

using Clock = std::chrono::steady_clock;

// The engine's random encoder (seed 42) for the life of a scope.
struct EncoderGuard {
    TrnEncoder *encoder;
    EncoderGuard();
    ~EncoderGuard();
    EncoderGuard(const EncoderGuard &) = delete;
    EncoderGuard &operator=(const EncoderGuard &) = delete;
};

std::string errno_text();

// dir resolved by realpath; throws Failure when it is missing or not a directory.
std::string resolve_dir(const std::string &dir);

// The working directory as getcwd gives it (resolved); throws Failure when it cannot be read.
std::string current_dir();

std::string join(const std::string &dir, const std::string &name);

// root + "/.tarnwick"; throws Failure when the store's path would not fit the engine's fields.
std::string index_dir_of(const std::string &root);

bool exists(const std::string &path);

// True when root's index directory holds a store or a log.
bool has_index(const std::string &root);

// Throws Failure unless root has an index, naming the command that makes one.
void require_index(const std::string &root);

// Loads the weights into a scratch encoder first, so that a missing or damaged file is an error
// here rather than a silent fall-back to the random encoder inside trn_open. Empty: nothing.
void check_weights(const std::string &weights);
// Only that the file can be opened: for a command that reads the weights later, into the
// engine that uses them, and would otherwise read them twice. Empty: nothing.
void check_weights_readable(const std::string &weights);
// The same check for an open engine, reading the weights into its encoder (which it otherwise
// reads at its first use), so they are read once.
void prepare_weights(TrnEngine *engine, const std::string &weights);

// Creates the index directory (mode 0700: only its owner may read what was indexed) when it is
// missing. Indexing starts from scratch (vectors of an earlier index may come from another
// encoder) by building beside the old index, which the engine replaces only once the new one is
// complete.
void ensure_index_dir(const std::string &index_dir);

// An engine handle and a file list of the engine, closed and freed when they go out of scope.
struct EngineCloser {
    void operator()(TrnEngine *e) const { trn_close(e); }
};
using EnginePtr = std::unique_ptr<TrnEngine, EngineCloser>;
struct FileListCloser {
    void operator()(TrnFileList *list) const { trn_free_file_list(list); }
};
using FileListPtr = std::unique_ptr<TrnFileList, FileListCloser>;

// Fails with the engine's one line when the index is busy or damaged. flags: 0, or
// TRN_OPEN_REBUILD for an index built beside the old one and swapped in by the checkpoint.
EnginePtr open_engine(const std::string &index_dir, const std::string &weights, uint32_t flags = 0);
// Opens the index of root; refuses a directory that was never indexed rather than starting an
// empty index there.
EnginePtr open_existing(const std::string &root, const std::string &weights);

// Throws UsageError with the engine's one-line reason unless trn_check_chunking accepts the pair.
void check_chunking(int32_t chunk_size, int32_t overlap);

// The weights a command uses: --weights FILE, "" for --weights none (the untrained encoder),
// else application_weights(root). description says which.
std::string chosen_weights(const Options &o, const ModelRuntime &model, const std::string &root,
                           std::string *description);

void write_out(const std::string &text);

double seconds_since(Clock::time_point t);

// "indexed F files, C chunks in S s (R chunks/s)\n"
std::string indexed_line(unsigned files, unsigned chunks, double seconds);

#endif
