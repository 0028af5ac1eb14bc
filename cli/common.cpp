/*
** common.cpp -- directory resolution, index paths, weights checks and output for the
** subcommands of tarnwick-cli.
*/
#include "common.h"

#include "args.h"
#include "model_commands.h"
#include "tarnwick.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

EncoderGuard::EncoderGuard()
{
    encoder = trn_encoder_init(42);
}

EncoderGuard::~EncoderGuard()
{
    trn_encoder_free(encoder);
}

std::string errno_text()
{
    return std::strerror(errno);
}

std::string resolve_dir(const std::string &dir)
{
    char *resolved = realpath(dir.c_str(), nullptr);
    if (resolved == nullptr) {
        throw Failure("cannot open directory " + dir + ": " + errno_text());
    }
    std::string path(resolved);
    free(resolved);
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw Failure(dir + " is not a directory");
    }
    return path;
}

std::string current_dir()
{
    char *cwd = getcwd(nullptr, 0);
    if (cwd == nullptr) {
        throw Failure("cannot read the current directory: " + errno_text());
    }
    std::string path(cwd);
    free(cwd);
    return path;
}

std::string join(const std::string &dir, const std::string &name)
{
    return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string index_dir_of(const std::string &root)
{
    std::string index_dir = join(root, ".tarnwick");
    if (index_dir.size() + std::strlen("/tarnwick.bin") > STORE_PATH_MAX) {
        throw Failure("directory path too long for an index: " + root);
    }
    return index_dir;
}

bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

namespace
{

// Whether the file exists; an index the user may not read is said to be that, not absent.
bool index_file_exists(const std::string &root, const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        return true;
    }
    if (errno == EACCES || errno == EPERM) {
        throw Failure("cannot read the index of " + root + ": " + errno_text());
    }
    return false;
}

} // namespace

bool has_index(const std::string &root)
{
    std::string index_dir = index_dir_of(root);
    return index_file_exists(root, join(index_dir, "tarnwick.bin"))
           || index_file_exists(root, join(index_dir, "tarnwick.wal"));
}

void require_index(const std::string &root)
{
    if (!has_index(root)) {
        throw Failure("no index in " + root + " (run: tarnwick-cli index " + root + ")");
    }
}

std::string chosen_weights(const Options &o, const ModelRuntime &model, const std::string &root,
                           std::string *description)
{
    if (o.weights == "none") {
        *description = "untrained encoder (--weights none)";
        return "";
    }
    if (!o.weights.empty()) {
        *description = "weights " + o.weights;
        return o.weights;
    }
    return application_weights(model, root, description);
}

namespace
{

} // namespace

void check_weights_readable(const std::string &weights)
{
    if (weights.empty()) {
        return;
    }
    // The engine would say the same on a line of its own: one line is enough.
    int fd = open(weights.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw Failure("cannot load encoder weights from " + weights + ": " + errno_text());
    }
    close(fd);
}

void prepare_weights(TrnEngine *engine, const std::string &weights)
{
    if (weights.empty()) {
        return;
    }
    check_weights_readable(weights);
    if (!trn_prepare_encoder(engine)) {
        throw Failure("cannot load encoder weights from " + weights);
    }
}

void check_weights(const std::string &weights)
{
    if (weights.empty()) {
        return;
    }
    check_weights_readable(weights);
    EncoderGuard scratch;
    if (!trn_encoder_load_weights(scratch.encoder, weights.c_str())) {
        throw Failure("cannot load encoder weights from " + weights);
    }
}

void ensure_index_dir(const std::string &index_dir)
{
    if (mkdir(index_dir.c_str(), 0700) != 0 && errno != EEXIST) {
        throw Failure("cannot create " + index_dir + ": " + errno_text());
    }
}

EnginePtr open_engine(const std::string &index_dir, const std::string &weights, uint32_t flags)
{
    TrnConfig cfg{};
    cfg.index_dir = index_dir.c_str();
    cfg.weights_path = weights.empty() ? nullptr : weights.c_str();
    TrnEngine *e = trn_open_ex(&cfg, flags, nullptr);
    if (e == nullptr) {
        throw Failure(trn_last_error(nullptr));
    }
    return EnginePtr(e);
}

EnginePtr open_existing(const std::string &root, const std::string &weights)
{
    require_index(root);
    check_weights(weights);
    return open_engine(index_dir_of(root), weights);
}

void check_chunking(int32_t chunk_size, int32_t overlap)
{
    char reason[160];
    if (!trn_check_chunking(chunk_size, overlap, reason, sizeof reason)) {
        throw UsageError(reason);
    }
}

void write_out(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throw Failure("cannot write to standard output");
    }
}

double seconds_since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string indexed_line(unsigned files, unsigned chunks, double seconds)
{
    char line[200];
    std::snprintf(line,
                  sizeof line,
                  "indexed %u files, %u chunks in %.1f s (%.1f chunks/s)\n",
                  files,
                  chunks,
                  seconds,
                  seconds > 0 ? chunks / seconds : 0.0);
    return line;
}
