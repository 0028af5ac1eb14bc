/*
** commands.cpp -- the subcommands of tarnwick-cli over the engine's C interface: search, files,
** stats, remove, compact and embed, and which command runs. Indexing (index, update, watch) is in
** index_commands.cpp; prompts and training on the application's model in model_commands.cpp.
*/
#include "commands.h"

#include "common.h"
#include "index_commands.h"
#include "json.h"
#include "mcp_server.h"
#include "model_commands.h"
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

#include <unistd.h>

namespace
{

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
    // Every operand but the last is a directory; several are searched as one ranking whose rows
    // name their folder.
    std::vector<std::string> roots;
    std::vector<EnginePtr> engines;
    std::vector<TrnEngine *> handles;
    for (size_t i = 0; i + 1 < o.operands.size(); i++) {
        roots.push_back(resolve_dir(o.operands[i]));
        // The encoder each index was built with: the application's choice unless --weights
        // names one.
        std::string description;
        std::string weights = chosen_weights(o, model, roots.back(), &description);
        require_index(roots.back());
        engines.push_back(open_engine(index_dir_of(roots.back()), weights));
        handles.push_back(engines.back().get());
        // A search by words alone never reads the encoder, so its weights are read (and
        // checked) only when meaning is searched or --weights names them.
        if (o.mode == TRN_SEARCH_SEMANTIC || o.mode == TRN_SEARCH_HYBRID
            || o.mode == TRN_SEARCH_SEMANTIC_ALL || !o.weights.empty()) {
            prepare_weights(handles.back(), weights);
        }
    }
    const std::string &query = o.query;
    const bool several = roots.size() > 1;
    // The engine never returns more than 64 hits, however large k is.
    int32_t k = std::min<int32_t>(o.k, 64);
    std::vector<TrnResult> results(static_cast<size_t>(k));
    std::vector<int32_t> origins(static_cast<size_t>(k), 0);
    const uint32_t layout = o.all_chunks ? 0u : static_cast<uint32_t>(TRN_SEARCH_BY_FILE);
    int32_t n = several
                    ? trn_search_many(handles.data(),
                                      static_cast<int32_t>(handles.size()),
                                      query.c_str(),
                                      o.mode,
                                      k,
                                      layout,
                                      results.data(),
                                      origins.data())
                    : trn_search_ex(handles[0], query.c_str(), o.mode, k, layout, results.data());
    if (n < 0) {
        n = 0;
    }
    // A part of an index that is read only when a search needs it is checked then.
    for (TrnEngine *handle : handles) {
        if (trn_last_status(handle) == TRN_STATUS_DAMAGED) {
            throw Failure(trn_last_error(handle));
        }
    }
    // Chunks whose vectors an indexing has not computed yet are outside the semantic ranking.
    uint64_t embedded = 0, chunks = 0;
    for (TrnEngine *h : handles) {
        uint64_t d = 0, a = 0;
        trn_meaning_progress(h, &d, &a);
        embedded += d;
        chunks += a;
    }
    const bool partial = embedded < chunks
                         && (o.mode == TRN_SEARCH_SEMANTIC || o.mode == TRN_SEARCH_SEMANTIC_ALL
                             || o.mode == TRN_SEARCH_HYBRID);
    if (partial) {
        std::fprintf(stderr,
                     "meaning: %u%% of chunks embedded; semantic results are partial\n",
                     static_cast<unsigned>(embedded * 100 / chunks));
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
            w.key("folder");
            w.string(roots[static_cast<size_t>(origins[static_cast<size_t>(i)])]);
            w.key("moreInFile");
            w.integer(r.more_in_file);
            w.key("page");
            w.integer(r.page);
            w.key("pageLine");
            w.integer(r.page_line);
            w.key("headingPath");
            if (r.heading_path != nullptr) {
                w.string(r.heading_path);
            } else {
                w.null();
            }
            w.key("semanticPartial");
            w.boolean(partial);
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
            if (r.page > 0) {
                std::snprintf(head,
                              sizeof head,
                              "  p. %d, line %d  score %.4f",
                              r.page,
                              r.page_line,
                              r.score);
            } else {
                std::snprintf(head, sizeof head, ":%d  score %.4f", r.line_number, r.score);
            }
            out += display_text(r.file_path != nullptr ? r.file_path : "(no file)", false);
            out += head;
            if (r.more_in_file > 0) {
                out += "  (" + std::to_string(r.more_in_file) + " more in this file)";
            }
            if (several) {
                const std::string &root =
                    roots[static_cast<size_t>(origins[static_cast<size_t>(i)])];
                out += "  in " + display_text(root.substr(root.rfind('/') + 1), false);
            }
            out += "\n";
            if (r.heading_path != nullptr) {
                out += "    [" + display_text(r.heading_path, false) + "]\n";
            }
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

// Opens root's index with the encoder it was built with, as search does: a log that an
// indexing left behind is replayed, and its chunks embedded again, by that encoder, never by
// the untrained one (whose vectors a checkpoint would then store).
EnginePtr open_with_its_encoder(const Options &o, const ModelRuntime &model,
                                const std::string &root)
{
    std::string description;
    return open_existing(root, chosen_weights(o, model, root, &description));
}

void cmd_files(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    std::string index_dir = index_dir_of(root);
    // A directory that was never indexed is listed too, every file with no chunks.
    EnginePtr engine;
    if (exists(join(index_dir, "tarnwick.bin")) || exists(join(index_dir, "tarnwick.wal"))) {
        engine = open_with_its_encoder(o, model, root);
    }
    // The walk and the text extraction of index, with the same options: a file is listed as
    // indexable exactly when index gives it chunks.
    const WalkConfig config = walk_config(o, model);
    std::vector<const char *> extension_ptrs;
    std::vector<const char *> exclude_ptrs;
    const TrnWalkOptions opts = config.view(&extension_ptrs, &exclude_ptrs);
    FileListPtr list(trn_list_dir_files_ex(engine.get(), root.c_str(), &opts));

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
            w.key("encoding");
            w.string(f.encoding);
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
            // Text that had to be converted says from what; UTF-8, the rule, goes unsaid.
            if (f.encoding[0] != '\0' && std::strcmp(f.encoding, "UTF-8") != 0) {
                out += "  (read as " + display_text(f.encoding, false) + ")";
            }
            out += "\n";
        }
    }
    write_out(out);
}

void cmd_stats(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_with_its_encoder(o, model, root);
    TrnStats st = trn_stats(engine.get());
    // Removed chunks keep their slots until compact: the chunks counted are the live ones, as
    // the application's status bar and the files listing count them.
    const uint32_t live = st.chunk_count - st.deleted_count;
    if (o.json) {
        JsonWriter w;
        w.begin_object();
        w.key("chunkCount");
        w.integer(live);
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
        live,
        st.file_count,
        st.deleted_count,
        st.max_level,
        st.dim);
    write_out(text);
}

// --- remove, compact --------------------------------------------------------------------------

void cmd_remove(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_with_its_encoder(o, model, root);
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

void cmd_compact(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    EnginePtr engine = open_with_its_encoder(o, model, root);
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
        cmd_stats(o, model);
    } else if (o.command == "remove") {
        cmd_remove(o, model);
    } else if (o.command == "compact") {
        cmd_compact(o, model);
    } else if (o.command == "embed") {
        cmd_embed(o, model);
    } else if (o.command == "mcp") {
        run_mcp_server(o, model);
    }
}
