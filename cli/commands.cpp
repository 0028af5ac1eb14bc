/*
** commands.cpp -- the subcommands of tarnwick-cli over the engine's C interface: index, update,
** watch, search, files, stats, remove, compact and embed. Prompts and training on the
** application's model are in model_commands.cpp.
*/
#include "commands.h"

#include "common.h"
#include "json.h"
#include "mcp_server.h"
#include "model_commands.h"
#include "priority.h"
#include "progress.h"
#include "tarnwick.h"
#include "text/files.h"
#include "vimgrep.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <csignal>

#include <poll.h>
#include <unistd.h>

namespace
{

// How long watch waits for changes to stop before it updates: an editor's save, a checkout or an
// unpacked archive gives one update.
constexpr int WATCH_SETTLE_MS = 2000;

struct EngineCloser {
    void operator()(TrnEngine *e) const { trn_close(e); }
};
using EnginePtr = std::unique_ptr<TrnEngine, EngineCloser>;

// Fails with the engine's one line when the index is busy or damaged. flags: 0, or
// TRN_OPEN_REBUILD for an index built beside the old one and swapped in by the checkpoint.
EnginePtr open_engine(const std::string &index_dir, const std::string &weights, uint32_t flags = 0)
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

// Opens the index of root; refuses a directory that was never indexed rather than starting an
// empty index there.
EnginePtr open_existing(const std::string &root, const std::string &weights)
{
    require_index(root);
    check_weights(weights);
    return open_engine(index_dir_of(root), weights);
}

// Lexically normalised absolute form of path: "." and empty components dropped, ".." removes
// the previous component.
std::string normalise(const std::string &path)
{
    std::string full = path;
    if (full.empty() || full[0] != '/') {
        char *cwd = getcwd(nullptr, 0);
        if (cwd == nullptr) {
            throw Failure("cannot read the current directory: " + errno_text());
        }
        full = std::string(cwd) + "/" + path;
        free(cwd);
    }
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= full.size()) {
        size_t slash = full.find('/', pos);
        if (slash == std::string::npos) {
            slash = full.size();
        }
        std::string part = full.substr(pos, slash - pos);
        if (part == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = slash + 1;
    }
    std::string out;
    for (const std::string &part : parts) {
        out += "/" + part;
    }
    return out.empty() ? "/" : out;
}

// The path under which the engine's walk recorded file: its parent directory resolved like the
// indexed directory, its own name kept (a symbolic link inside the tree is recorded under the
// link's name, not its target's). A file already deleted from disk still resolves.
std::string file_key(const std::string &file)
{
    size_t slash = file.find_last_of('/');
    std::string parent = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        char *resolved = realpath(file.c_str(), nullptr);
        if (resolved != nullptr) {
            std::string path(resolved);
            free(resolved);
            return path;
        }
        return normalise(file);
    }
    char *resolved = realpath(parent.c_str(), nullptr);
    if (resolved == nullptr) {
        return normalise(file);
    }
    std::string path = join(resolved, name);
    free(resolved);
    return path;
}

} // namespace

// --- walk options -----------------------------------------------------------------------------

TrnWalkOptions WalkConfig::view(std::vector<const char *> *extension_ptrs,
                                std::vector<const char *> *exclude_ptrs) const
{
    extension_ptrs->clear();
    exclude_ptrs->clear();
    for (const std::string &ext : extensions) {
        extension_ptrs->push_back(ext.c_str());
    }
    for (const std::string &pattern : excludes) {
        exclude_ptrs->push_back(pattern.c_str());
    }
    TrnWalkOptions opts = {};
    opts.extra_extensions = extension_ptrs->empty() ? nullptr : extension_ptrs->data();
    opts.extra_extension_count = static_cast<int32_t>(extension_ptrs->size());
    opts.exclude_patterns = exclude_ptrs->empty() ? nullptr : exclude_ptrs->data();
    opts.exclude_pattern_count = static_cast<int32_t>(exclude_ptrs->size());
    opts.max_file_size = max_file_size;
    return opts;
}

WalkConfig walk_config(const Options &o, const ModelRuntime &model)
{
    WalkConfig config = application_walk_config(model);
    if (o.extensions) {
        // "org, .RST" reads as {"org", "rst"}.
        config.extensions.clear();
        std::string piece;
        for (size_t i = 0; i <= o.extensions->size(); i++) {
            char c = i < o.extensions->size() ? (*o.extensions)[i] : ',';
            if (c != ',') {
                piece += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                continue;
            }
            size_t first = piece.find_first_not_of(" \t.");
            size_t last = piece.find_last_not_of(" \t");
            if (first != std::string::npos) {
                config.extensions.push_back(piece.substr(first, last - first + 1));
            }
            piece.clear();
        }
    }
    if (!o.excludes.empty()) {
        config.excludes = o.excludes;
    }
    if (o.max_file_size_mb) {
        config.max_file_size = static_cast<uint64_t>(*o.max_file_size_mb) * 1024 * 1024;
    }
    return config;
}

namespace
{

struct UpdateProgress {
    ProgressLine line;
    TrnUpdateReport report; // filled in by the engine as the update goes
    int32_t done = 0;       // files handled of total
    int32_t total = 0;
};

// --- update and watch -------------------------------------------------------------------------

// The number of the signal (SIGINT, SIGTERM) that asked the work to stop; 0 while none did.
volatile sig_atomic_t g_stop = 0;

void on_stop_signal(int signal_number)
{
    g_stop = signal_number;
}

// From here on Ctrl+C and SIGTERM stop indexing after the file in hand, whose group is then
// committed. The handler is reset by its first signal, so a second Ctrl+C ends the program at
// once (committed groups survive that too).
void stop_at_signals()
{
    struct sigaction act = {};
    act.sa_handler = on_stop_signal;
    act.sa_flags = SA_RESETHAND;
    sigemptyset(&act.sa_mask);
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
}

bool on_update_progress(const char *, int32_t done, int32_t total, void *user)
{
    UpdateProgress *p = static_cast<UpdateProgress *>(user);
    p->done = done;
    p->total = total;
    if (p->line.shown() && total > 0) {
        p->line.update(done, total, (uint32_t)p->report.chunks_added);
    }
    return g_stop == 0;
}

// What one update did: a line of text, or a JSON object with --json.
std::string update_line(const Options &o, const TrnUpdateReport &r, double seconds)
{
    if (o.json) {
        JsonWriter w;
        w.begin_object();
        w.key("added");
        w.integer(r.added);
        w.key("changed");
        w.integer(r.changed);
        w.key("removed");
        w.integer(r.removed);
        w.key("unchanged");
        w.integer(r.unchanged);
        w.key("failed");
        w.integer(r.failed);
        w.key("chunksAdded");
        w.integer(r.chunks_added);
        w.key("compacted");
        w.boolean(r.compacted != 0);
        w.key("seconds");
        w.number((float)seconds);
        w.end_object();
        return w.str() + "\n";
    }
    char line[256];
    std::snprintf(line,
                  sizeof line,
                  "updated: %d added, %d changed, %d removed, %d unchanged, %d failed, %d chunks "
                  "in %.1f s%s\n",
                  r.added,
                  r.changed,
                  r.removed,
                  r.unchanged,
                  r.failed,
                  r.chunks_added,
                  seconds,
                  r.compacted ? " (compacted)" : "");
    return line;
}

// Everything an update of root needs, settled once for update and for every round of watch.
struct UpdateSetup {
    std::string root;
    std::string weights;
    std::string description; // of the encoder, for messages
    int32_t chunk_size = 0;
    int32_t overlap = 0;
    WalkConfig config;
    std::vector<const char *> extension_pointers;
    std::vector<const char *> exclude_pointers;
    TrnWalkOptions walk{}; // points into config and the two vectors
};

// What index, update and watch read from the command line and the application's settings.
void prepare_update(const Options &o, const ModelRuntime &model, UpdateSetup *u)
{
    application_chunking(model, &u->chunk_size, &u->overlap);
    u->chunk_size = o.chunk_size.value_or(u->chunk_size);
    u->overlap = o.overlap.value_or(u->overlap);
    check_chunking(u->chunk_size, u->overlap);
    u->root = resolve_dir(o.operands[0]);
    u->weights = chosen_weights(o, model, u->root, &u->description);
    check_weights(u->weights);
    ensure_index_dir(index_dir_of(u->root));
    u->config = walk_config(o, model);
    u->walk = u->config.view(&u->extension_pointers, &u->exclude_pointers);
    stop_at_signals();
    // The program only indexes from here on, so its one thread may stay idle for good.
    if (o.nice && !thread_set_idle()) {
        std::fprintf(stderr, "tarnwick: cannot lower the priority: %s\n", errno_text().c_str());
    }
}

// Opens root's index for an update. An index that holds no chunk yet takes this encoder, recorded
// before the first chunk is committed, so that an indexing killed or stopped half-way is
// continued by the next update rather than refused; one that another encoder built is refused,
// since vectors of two encoders in one index would not compare.
EnginePtr open_for_update(const UpdateSetup &u)
{
    EnginePtr engine = open_engine(index_dir_of(u.root), u.weights);
    if (trn_stats(engine.get()).chunk_count == 0) {
        note_index_encoder(u.root, u.weights);
    } else if (!index_encoder_matches(u.root, u.weights)) {
        throw Failure("the index of " + u.root + " was built with another encoder (" + u.description
                      + " now); rebuild it with tarnwick-cli index " + u.root);
    }
    return engine;
}

// One walk of root into e, showing progress as label; returns what changed. Throws Failure when
// it failed, Interrupted when a signal stopped it (what was committed stays). On a rebuilding
// handle the new index replaces the old one at the end.
TrnUpdateReport run_walk(const char *label, const UpdateSetup &u, TrnEngine *e, bool rebuilding)
{
    UpdateProgress progress{ProgressLine{label}, {}};
    int32_t n = trn_update_dir(e,
                               u.root.c_str(),
                               u.chunk_size,
                               u.overlap,
                               &u.walk,
                               on_update_progress,
                               &progress,
                               &progress.report);
    progress.line.clear();
    if (n < 0) {
        const std::string why = trn_last_status(e) != TRN_STATUS_OK
                                    ? std::string(trn_last_error(e))
                                    : "cannot open directory " + u.root;
        trn_rollback(e); // a failed command leaves the index as it found it
        throw Failure(why);
    }
    if (progress.report.cancelled) {
        const TrnUpdateReport &r = progress.report;
        if (rebuilding) {
            throw Interrupted(g_stop, "interrupted: the index of " + u.root + " stays as it was");
        }
        throw Interrupted(g_stop,
                          "interrupted after " + std::to_string(progress.done) + " of "
                              + std::to_string(progress.total) + " files ("
                              + std::to_string(r.chunks_added)
                              + " chunks kept); tarnwick-cli update " + u.root + " goes on");
    }
    note_index_encoder(u.root, u.weights);
    return progress.report;
}

// Folds the log into the store at the end of a command that wrote. When that fails (a full disk)
// the command fails, and what it logged is cut off again: left in the log, it would be embedded
// anew at every open until some checkpoint succeeded.
void checkpoint_or_undo(TrnEngine *e)
{
    if (!trn_checkpoint(e)) {
        const std::string why = trn_last_error(e);
        trn_rollback(e);
        throw Failure(why);
    }
}

// One update of root; writes its line.
void run_update(const Options &o, const UpdateSetup &u, TrnEngine *e)
{
    Clock::time_point start = Clock::now();
    const TrnUpdateReport report = run_walk("Updating", u, e, false);
    write_out(update_line(o, report, seconds_since(start)));
}

// index DIR: a directory without an index is indexed in place, each file committed as it is
// done, so a stopped first indexing keeps its work for the next update. An existing index is
// rebuilt from scratch beside the old one, which searches keep using until the new one is
// complete and replaces it.
void cmd_index(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    std::fprintf(stderr, "tarnwick: encoder: %s\n", display_text(u.description, false).c_str());
    Clock::time_point start = Clock::now();
    const bool rebuilding = has_index(u.root);
    EnginePtr engine =
        open_engine(index_dir_of(u.root), u.weights, rebuilding ? TRN_OPEN_REBUILD : 0);
    if (!rebuilding) {
        note_index_encoder(u.root, u.weights);
    }
    run_walk("Indexing", u, engine.get(), rebuilding);
    checkpoint_or_undo(engine.get());
    const TrnStats st = trn_stats(engine.get());
    write_out(indexed_line(st.file_count, st.chunk_count, seconds_since(start)));
}

void cmd_update(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    EnginePtr engine = open_for_update(u);
    Clock::time_point start = Clock::now();
    const TrnUpdateReport report = run_walk("Updating", u, engine.get(), false);
    checkpoint_or_undo(engine.get());
    write_out(update_line(o, report, seconds_since(start)));
}

// Waits for a change below root that then stays quiet for settle_ms; false when a signal asked
// to stop first.
bool wait_for_settled_change(TrnWatch *w, int settle_ms)
{
    bool changed = false;
    while (!g_stop) {
        int fd = trn_watch_fd(w);
        if (fd >= 0) {
            struct pollfd p = {fd, POLLIN, 0};
            int rc = poll(&p, 1, changed ? settle_ms : -1);
            if (rc == 0) {
                return true; /* quiet for settle_ms after a change */
            }
            if (rc > 0 && trn_watch_changed(w)) {
                changed = true;
            }
        } else {
            /* The comparing fallback: look every settle_ms, update once a look finds no news. */
            usleep((useconds_t)settle_ms * 1000);
            if (g_stop) {
                break;
            }
            if (trn_watch_changed(w)) {
                changed = true;
            } else if (changed) {
                return true;
            }
        }
    }
    return false;
}

void cmd_watch(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    EnginePtr engine = open_for_update(u);
    std::unique_ptr<TrnWatch, void (*)(TrnWatch *)> watch(trn_watch_open(u.root.c_str(), &u.walk),
                                                          trn_watch_close);
    if (!watch) {
        throw Failure("cannot watch directory " + u.root);
    }
    if (trn_watch_fd(watch.get()) < 0) {
        std::fprintf(stderr,
                     "tarnwick: too many directories for the system's watch limit "
                     "(fs.inotify.max_user_watches): comparing every %d s instead\n",
                     WATCH_SETTLE_MS / 1000);
    }
    // Changes made while the program was not running come in first.
    run_update(o, u, engine.get());
    std::fflush(stdout);
    while (wait_for_settled_change(watch.get(), WATCH_SETTLE_MS)) {
        run_update(o, u, engine.get());
        std::fflush(stdout);
    }
    // SIGTERM is how a service is stopped: a success. Ctrl+C is answered as everywhere else.
    if (g_stop == SIGINT) {
        throw Interrupted(SIGINT, "stopped watching " + u.root);
    }
}

// --- search -----------------------------------------------------------------------------------

// A result's snippet fit for a terminal, its marks (the query's words) in bold when bold is set.
std::string marked_snippet(const TrnResult &r, bool bold)
{
    const std::string snippet = r.snippet != nullptr ? r.snippet : "";
    std::string out;
    size_t at = 0;
    for (int32_t m = 0; bold && m < r.mark_count; m++) {
        size_t begin = std::min<size_t>(r.marks[2 * m], snippet.size());
        size_t end = std::min<size_t>(r.marks[2 * m + 1], snippet.size());
        if (begin < at || end <= begin) {
            continue;
        }
        out += display_text(std::string_view(snippet).substr(at, begin - at), true);
        out += "\x1b[1m";
        out += display_text(std::string_view(snippet).substr(begin, end - begin), true);
        out += "\x1b[0m";
        at = end;
    }
    return out + display_text(std::string_view(snippet).substr(at), true);
}

void cmd_search(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    const std::string &query = o.operands[1];
    // The encoder the index was built with: the application's choice unless --weights names one.
    std::string description;
    std::string weights = chosen_weights(o, model, root, &description);
    EnginePtr engine = open_existing(root, weights);
    // The engine never returns more than 64 hits, however large k is.
    int32_t k = std::min<int32_t>(o.k, 64);
    std::vector<TrnResult> results(static_cast<size_t>(k));
    const uint32_t layout = o.all_chunks ? 0u : static_cast<uint32_t>(TRN_SEARCH_BY_FILE);
    int32_t n = trn_search_ex(engine.get(), query.c_str(), o.mode, k, layout, results.data());
    if (n < 0) {
        n = 0;
    }

    if (o.vimgrep) {
        write_out(vimgrep_lines(results.data(), n, query, o.mode, current_dir()));
        return;
    }
    std::string out;
    const bool bold = isatty(STDOUT_FILENO) != 0;
    if (o.json) {
        JsonWriter w;
        w.begin_array();
        for (int32_t i = 0; i < n; i++) {
            const TrnResult &r = results[static_cast<size_t>(i)];
            w.begin_object();
            w.key("id");
            w.string(r.doc_id != nullptr ? r.doc_id : "");
            w.key("filePath");
            w.string(r.file_path != nullptr ? r.file_path : "");
            w.key("snippet");
            w.string(r.snippet != nullptr ? r.snippet : "");
            w.key("score");
            w.number(r.score);
            w.key("chunkIndex");
            w.integer(r.chunk_index);
            w.key("lineNumber");
            w.integer(r.line_number);
            w.key("fileType");
            w.integer(r.file_type);
            w.key("fileTypeName");
            w.string(trn_file_type_name(r.file_type));
            w.key("moreInFile");
            w.integer(r.more_in_file);
            w.key("marks");
            w.begin_array();
            for (int32_t m = 0; m < r.mark_count; m++) {
                w.begin_array();
                w.integer(r.marks[2 * m]);
                w.integer(r.marks[2 * m + 1]);
                w.end_array();
            }
            w.end_array();
            w.end_object();
        }
        w.end_array();
        out = w.str() + "\n";
    } else {
        for (int32_t i = 0; i < n; i++) {
            const TrnResult &r = results[static_cast<size_t>(i)];
            char head[96];
            std::snprintf(head, sizeof head, ":%d  score %.4f", r.line_number, r.score);
            out += display_text(r.file_path != nullptr ? r.file_path : "(no file)", false);
            out += head;
            if (r.more_in_file > 0) {
                out += "  (" + std::to_string(r.more_in_file) + " more in this file)";
            }
            out += "\n";
            // The snippet indented under its path; blank lines dropped so a hit stays one group.
            std::string snippet = marked_snippet(r, bold);
            size_t pos = 0;
            while (pos < snippet.size()) {
                size_t end = snippet.find('\n', pos);
                if (end == std::string::npos) {
                    end = snippet.size();
                }
                std::string line = snippet.substr(pos, end - pos);
                if (line.find_first_not_of(" \t\r") != std::string::npos) {
                    out += "    " + line + "\n";
                }
                pos = end + 1;
            }
            out += "\n";
        }
    }
    write_out(out);
}

// --- files, stats -----------------------------------------------------------------------------

struct FileListCloser {
    void operator()(TrnFileList *list) const { trn_free_file_list(list); }
};

void cmd_files(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    std::string index_dir = index_dir_of(root);
    // A directory that was never indexed is listed too, every file with no chunks.
    EnginePtr engine;
    if (exists(join(index_dir, "tarnwick.bin")) || exists(join(index_dir, "tarnwick.wal"))) {
        engine = open_engine(index_dir, "");
    }
    // The walk and the text extraction of index, with the same options: a file is listed as
    // indexable exactly when index gives it chunks.
    const WalkConfig config = walk_config(o, model);
    std::vector<const char *> extension_ptrs;
    std::vector<const char *> exclude_ptrs;
    const TrnWalkOptions opts = config.view(&extension_ptrs, &exclude_ptrs);
    std::unique_ptr<TrnFileList, FileListCloser> list(
        trn_list_dir_files_ex(engine.get(), root.c_str(), &opts));

    std::string out;
    if (o.json) {
        JsonWriter w;
        w.begin_array();
        for (int32_t i = 0; i < list->count; i++) {
            const TrnFileInfo &f = list->entries[i];
            w.begin_object();
            w.key("path");
            w.string(f.path);
            w.key("name");
            w.string(f.name);
            w.key("fileType");
            w.integer(f.type);
            w.key("fileTypeName");
            w.string(trn_file_type_name(f.type));
            w.key("size");
            w.integer(f.size);
            w.key("chunkCount");
            w.integer(f.chunk_count);
            w.key("indexed");
            w.boolean(f.indexed != 0);
            w.key("directory");
            w.boolean(f.is_dir != 0);
            w.key("status");
            w.string(trn_file_status_name(f.status));
            w.key("reason");
            w.string(f.reason);
            w.end_object();
        }
        w.end_array();
        out = w.str() + "\n";
    } else {
        char line[128];
        std::snprintf(line,
                      sizeof line,
                      "%-9s %10s %7s  %-10s %s\n",
                      "TYPE",
                      "SIZE",
                      "CHUNKS",
                      "STATUS",
                      "PATH");
        out += line;
        for (int32_t i = 0; i < list->count; i++) {
            const TrnFileInfo &f = list->entries[i];
            std::snprintf(line,
                          sizeof line,
                          "%-9s %10lld %7u  %-10s ",
                          f.is_dir ? "Folder" : trn_file_type_name(f.type),
                          static_cast<long long>(f.size),
                          f.chunk_count,
                          trn_file_status_name(f.status));
            out += line + display_text(f.path, false);
            if (f.reason[0] != '\0') {
                out += "  (" + display_text(f.reason, false) + ")";
            }
            out += "\n";
        }
    }
    write_out(out);
}

void cmd_stats(const Options &o)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_existing(root, "");
    TrnStats st = trn_stats(engine.get());
    if (o.json) {
        JsonWriter w;
        w.begin_object();
        w.key("chunkCount");
        w.integer(st.chunk_count);
        w.key("fileCount");
        w.integer(st.file_count);
        w.key("deletedCount");
        w.integer(st.deleted_count);
        w.key("maxLevel");
        w.integer(st.max_level);
        w.key("dim");
        w.integer(st.dim);
        w.end_object();
        write_out(w.str() + "\n");
        return;
    }
    char text[256];
    std::snprintf(
        text,
        sizeof text,
        "chunks:     %u\nfiles:      %u\ndeleted:    %u\nmax level:  %d\ndim:        %d\n",
        st.chunk_count,
        st.file_count,
        st.deleted_count,
        st.max_level,
        st.dim);
    write_out(text);
}

// --- remove, compact --------------------------------------------------------------------------

void cmd_remove(const Options &o)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_existing(root, "");
    std::vector<std::string> unknown;
    std::string out;
    for (size_t i = 1; i < o.operands.size(); i++) {
        std::string path = file_key(o.operands[i]);
        int32_t n = trn_remove_file(engine.get(), path.c_str());
        if (n < 0) {
            throw Failure(trn_last_error(engine.get()));
        }
        if (n == 0) {
            unknown.push_back(path);
            continue;
        }
        out += "removed " + std::to_string(n) + (n == 1 ? " chunk of " : " chunks of ")
               + display_text(path, false) + "\n";
    }
    // Each removal took effect once logged; folding the log into the store is an optimisation
    // that a full disk may refuse without undoing them.
    trn_checkpoint(engine.get());
    write_out(out);
    if (!unknown.empty()) {
        std::string more;
        if (unknown.size() > 1) {
            more = " and " + std::to_string(unknown.size() - 1) + " more";
        }
        throw Failure("not in the index: " + display_text(unknown[0], false) + more);
    }
}

void cmd_compact(const Options &o)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_existing(root, "");
    if (!trn_compact(engine.get())) {
        throw Failure(trn_last_error(engine.get()));
    }
    TrnStats st = trn_stats(engine.get());
    write_out("compacted: " + std::to_string(st.chunk_count) + " chunks of "
              + std::to_string(st.file_count) + " files\n");
}

// --- embed ------------------------------------------------------------------------------------

void cmd_embed(const Options &o, const ModelRuntime &model)
{
    EncoderGuard guard;
    std::string description;
    const std::string weights = chosen_weights(o, model, "", &description);
    if (!weights.empty() && !trn_encoder_load_weights(guard.encoder, weights.c_str())) {
        throw Failure("cannot load encoder weights from " + weights);
    }
    float vector[TRN_ENCODER_DIM];
    trn_encoder_embed_text(guard.encoder, o.operands[0].c_str(), vector);
    JsonWriter w;
    w.begin_array();
    for (float v : vector) {
        w.number(v);
    }
    w.end_array();
    write_out(w.str() + "\n");
}

} // namespace

void run_command(const Options &o, const ModelRuntime &model)
{
    if (o.command == "index") {
        cmd_index(o, model);
    } else if (o.command == "update") {
        cmd_update(o, model);
    } else if (o.command == "watch") {
        cmd_watch(o, model);
    } else if (o.command == "prompt") {
        model_prompt(o, model);
    } else if (o.command == "train") {
        model_train(o, model);
    } else if (o.command == "search") {
        cmd_search(o, model);
    } else if (o.command == "files") {
        cmd_files(o, model);
    } else if (o.command == "stats") {
        cmd_stats(o);
    } else if (o.command == "remove") {
        cmd_remove(o);
    } else if (o.command == "compact") {
        cmd_compact(o);
    } else if (o.command == "embed") {
        cmd_embed(o, model);
    } else if (o.command == "mcp") {
        run_mcp_server(o, model);
    }
}
