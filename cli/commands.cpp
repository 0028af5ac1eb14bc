/*
** commands.cpp -- the subcommands of tarnwick-cli over the engine's C interface: search, files,
** stats, remove, compact and embed, and the engine-only index of a build without the
** application's model. Indexing, prompts and training on the model are in model_commands.cpp.
*/
#include "commands.h"

#include "common.h"
#include "json.h"
#include "model_commands.h"
#include "progress.h"
#include "tarnwick.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

namespace
{

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

// --- index ------------------------------------------------------------------------------------

struct Progress {
    TrnEngine *engine;
    ProgressLine line{"Indexing"};
    int32_t files = 0;
};

// The walk's callback counts only within one directory, so the running chunk count is read from
// the engine instead; the total is not known before the walk ends.
bool on_file_done(const char *, int32_t, int32_t, void *user)
{
    Progress *p = static_cast<Progress *>(user);
    p->files++;
    if (p->line.shown()) {
        p->line.update(p->files, 0, trn_stats(p->engine).chunk_count);
    }
    return true;
}

// The engine-only index: the engine's own walk and classification, 800 and 200 by default.
void cmd_index(const Options &o)
{
    const int32_t chunk_size = o.chunk_size.value_or(800);
    const int32_t overlap = o.overlap.value_or(200);
    check_chunking(chunk_size, overlap);
    std::string root = resolve_dir(o.operands[0]);
    std::string index_dir = index_dir_of(root);
    std::string description;
    std::string weights = chosen_weights(o, root, &description);
    check_weights(weights);
    ensure_index_dir(index_dir);

    // Searches keep using the old index until the new one is complete and swapped in.
    EnginePtr engine = open_engine(index_dir, weights, TRN_OPEN_REBUILD);
    Clock::time_point start = Clock::now();
    Progress progress{engine.get()};
    int32_t added =
        trn_ingest_dir(engine.get(), root.c_str(), chunk_size, overlap, on_file_done, &progress);
    progress.line.clear();
    if (added < 0) {
        throw Failure("cannot open directory " + root);
    }
    trn_build_doc_index(engine.get());
    if (!trn_checkpoint(engine.get())) {
        throw Failure(trn_last_error(engine.get()));
    }
    TrnStats st = trn_stats(engine.get());
    write_out(indexed_line(st.file_count, st.chunk_count, seconds_since(start)));
}

// --- search -----------------------------------------------------------------------------------

void cmd_search(const Options &o)
{
    std::string root = resolve_dir(o.operands[0]);
    const std::string &query = o.operands[1];
    // The encoder the index was built with: the application's choice unless --weights names one.
    std::string description;
    std::string weights = chosen_weights(o, root, &description);
    EnginePtr engine = open_existing(root, weights);
    // The engine never returns more than 64 hits, however large k is.
    int32_t k = std::min<int32_t>(o.k, 64);
    std::vector<TrnResult> results(static_cast<size_t>(k));
    int32_t n = trn_search(engine.get(), query.c_str(), o.mode, k, results.data());
    if (n < 0) {
        n = 0;
    }

    std::string out;
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
            w.end_object();
        }
        w.end_array();
        out = w.str() + "\n";
    } else {
        for (int32_t i = 0; i < n; i++) {
            const TrnResult &r = results[static_cast<size_t>(i)];
            char head[64];
            std::snprintf(head, sizeof head, ":%d  score %.4f\n", r.line_number, r.score);
            out += display_text(r.file_path != nullptr ? r.file_path : "(no file)", false);
            out += head;
            // The snippet indented under its path; blank lines dropped so a hit stays one group.
            std::string snippet = display_text(r.snippet != nullptr ? r.snippet : "", true);
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

void cmd_files(const Options &o)
{
    std::string root = resolve_dir(o.operands[0]);
    std::string index_dir = index_dir_of(root);
    // A directory that was never indexed is listed too, every file with no chunks.
    EnginePtr engine;
    if (exists(join(index_dir, "tarnwick.bin")) || exists(join(index_dir, "tarnwick.wal"))) {
        engine = open_engine(index_dir, "");
    }
    std::unique_ptr<TrnFileList, FileListCloser> list(
        trn_list_dir_files(engine.get(), root.c_str()));

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
            w.end_object();
        }
        w.end_array();
        out = w.str() + "\n";
    } else {
        char line[96];
        std::snprintf(line, sizeof line, "%-9s %10s %7s  %s\n", "TYPE", "SIZE", "CHUNKS", "PATH");
        out += line;
        for (int32_t i = 0; i < list->count; i++) {
            const TrnFileInfo &f = list->entries[i];
            std::snprintf(line,
                          sizeof line,
                          "%-9s %10lld %7u  ",
                          trn_file_type_name(f.type),
                          static_cast<long long>(f.size),
                          f.chunk_count);
            out += line + display_text(f.path, false) + "\n";
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
    // Each removal is durable once logged; the checkpoint folds the log into the store.
    if (!trn_checkpoint(engine.get())) {
        throw Failure(trn_last_error(engine.get()));
    }
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

void cmd_embed(const Options &o)
{
    EncoderGuard guard;
    std::string description;
    const std::string weights = chosen_weights(o, "", &description);
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

void run_command(const Options &o)
{
    if (o.command == "index") {
        if (HAVE_APPLICATION_MODEL) {
            model_index(o);
        } else {
            cmd_index(o);
        }
    } else if (o.command == "prompt") {
        model_prompt(o);
    } else if (o.command == "train") {
        model_train(o);
    } else if (o.command == "search") {
        cmd_search(o);
    } else if (o.command == "files") {
        cmd_files(o);
    } else if (o.command == "stats") {
        cmd_stats(o);
    } else if (o.command == "remove") {
        cmd_remove(o);
    } else if (o.command == "compact") {
        cmd_compact(o);
    } else if (o.command == "embed") {
        cmd_embed(o);
    }
}
