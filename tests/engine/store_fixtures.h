/*
** store_fixtures.h -- helpers shared by the store, log, ingestion and document-index tests:
** temporary directories, a little-endian byte builder for hand-made store and log files, and
** handles that skip the cost of building an encoder.
*/
#ifndef TRN_TESTS_STORE_FIXTURES_H
#define TRN_TESTS_STORE_FIXTURES_H

#include "internal.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* Directories of live TempDirs. A death test's child ends in exit(1) inside the engine, which
** runs no destructor, so an exit handler removes what the child created. */
inline std::vector<std::string> &live_temp_dirs()
{
    static std::vector<std::string> dirs;
    return dirs;
}

/* A fresh directory under /tmp, removed with everything in it at scope exit. */
class TempDir
{
public:
    TempDir()
    {
        std::vector<std::string> &live = live_temp_dirs(); /* destroyed after the handler ran */
        static const bool handler = atexit(remove_live) == 0;
        (void)handler;
        char tmpl[] = "/tmp/trn_test_XXXXXX";
        char *p = mkdtemp(tmpl);
        path_ = p ? p : "";
        live.push_back(path_);
    }
    ~TempDir()
    {
        remove_tree(path_);
        std::vector<std::string> &live = live_temp_dirs();
        live.erase(std::remove(live.begin(), live.end(), path_), live.end());
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

    static void remove_tree(const std::string &p)
    {
        struct stat st;
        if (lstat(p.c_str(), &st) != 0) {
            return;
        }
        if (S_ISDIR(st.st_mode)) {
            DIR *d = opendir(p.c_str());
            if (d) {
                while (struct dirent *ent = readdir(d)) {
                    if (strcmp(ent->d_name, ".") != 0 && strcmp(ent->d_name, "..") != 0) {
                        remove_tree(p + "/" + ent->d_name);
                    }
                }
                closedir(d);
            }
            rmdir(p.c_str());
        } else {
            unlink(p.c_str());
        }
    }

private:
    static void remove_live()
    {
        for (const std::string &p : live_temp_dirs()) {
            remove_tree(p);
        }
    }

    std::string path_;
};

/* A configuration with dir as the index directory and defaults for the rest. */
inline TrnConfig config_for(const TempDir &dir)
{
    TrnConfig cfg = {};
    cfg.index_dir = dir.path().c_str();
    return cfg;
}

/* Doc ids of the live chunks, in chunk order. */
inline std::vector<std::string> live_ids(const TrnEngine *e)
{
    std::vector<std::string> ids;
    for (uint64_t i = 0; i < e->count; i++) {
        if (!e->chunks[i].deleted) {
            ids.push_back(e->chunks[i].doc_id);
        }
    }
    return ids;
}

inline std::vector<uint8_t> read_file_bytes(const std::string &path)
{
    std::vector<uint8_t> bytes;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        return bytes;
    }
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        bytes.insert(bytes.end(), buf, buf + n);
    }
    fclose(f);
    return bytes;
}

/* Writes a file, creating the directories on the way to it that do not exist yet. */
inline void write_file_bytes(const std::string &path, const void *data, size_t n)
{
    for (size_t i = 1; i < path.size(); i++) {
        if (path[i] == '/') {
            mkdir(path.substr(0, i).c_str(), 0700);
        }
    }
    FILE *f = fopen(path.c_str(), "wb");
    if (f) {
        if (n > 0) {
            fwrite(data, 1, n, f);
        }
        fclose(f);
    }
}

inline void write_file_text(const std::string &path, const std::string &text)
{
    write_file_bytes(path, text.data(), text.size());
}

/* The names in dir, sorted, without "." and "..". */
inline std::vector<std::string> dir_names(const std::string &dir)
{
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    if (!d) {
        return names;
    }
    while (struct dirent *ent = readdir(d)) {
        if (strcmp(ent->d_name, ".") != 0 && strcmp(ent->d_name, "..") != 0) {
            names.push_back(ent->d_name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

inline long file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long)st.st_size : -1;
}

/* Starts argv (no shell; argv[0] is looked up in PATH) with standard output and error going to
** the named files, and returns the child's pid. */
inline pid_t spawn_child(const std::vector<std::string> &argv, const std::string &out,
                         const std::string &err)
{
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        std::vector<char *> args;
        for (const std::string &a : argv) {
            args.push_back(const_cast<char *>(a.c_str()));
        }
        args.push_back(nullptr);
        setenv("OPENBLAS_NUM_THREADS", "1", 1);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

/* Little-endian bytes assembled field by field, independently of the engine's writer. */
struct Bytes {
    std::vector<uint8_t> b;

    Bytes &u8(uint8_t v)
    {
        b.push_back(v);
        return *this;
    }
    Bytes &u32(uint32_t v)
    {
        for (int i = 0; i < 4; i++) {
            b.push_back((uint8_t)(v >> (8 * i)));
        }
        return *this;
    }
    Bytes &i32(int32_t v) { return u32((uint32_t)v); }
    Bytes &f32(float v)
    {
        uint32_t bits;
        memcpy(&bits, &v, 4);
        return u32(bits);
    }
    Bytes &raw(const std::string &s)
    {
        b.insert(b.end(), s.begin(), s.end());
        return *this;
    }
    Bytes &str(const std::string &s) { return u32((uint32_t)s.size()).raw(s); }
    size_t size() const { return b.size(); }
    void write(const std::string &path) const { write_file_bytes(path, b.data(), b.size()); }
};

/* One hand-made chunk record of a store file. */
struct StoreRecord {
    std::string id;
    std::string text;
    std::string path;
    int32_t chunk_index = 0;
    int32_t line_number = 1;
    uint32_t file_type = 0;
    uint8_t deleted = 0;
    float fill = 0.0f; /* vector element i is fill + i / 1024 */
    int32_t level = 0;
    std::vector<std::vector<uint32_t>> neighbors; /* one list per level 0..level */
};

inline void put_store_header(Bytes &out, uint32_t version, int32_t dim, int32_t entry,
                             int32_t max_level, uint32_t count)
{
    out.raw("TRNW").u32(version).i32(dim).i32(16).i32(100).i32(50);
    out.i32(entry).i32(max_level).f32(1.0f / (float)std::log(16.0)).u32(count);
}

inline void put_store_record(Bytes &out, const StoreRecord &r, int32_t dim = 512)
{
    out.str(r.id).str(r.text).str(r.path);
    out.i32(r.chunk_index).i32(r.line_number).u32(r.file_type).u8(r.deleted);
    for (int32_t i = 0; i < dim; i++) {
        out.f32(r.fill + (float)i / 1024.0f);
    }
    out.i32(r.level);
    for (int32_t l = 0; l <= r.level; l++) {
        const std::vector<uint32_t> none;
        const std::vector<uint32_t> &list = (size_t)l < r.neighbors.size() ? r.neighbors[l] : none;
        out.u32((uint32_t)list.size());
        for (uint32_t n : list) {
            out.u32(n);
        }
    }
}

/* The handle's chunks as versions 1 to 3 wrote them, one record after another, each path as the
** handle holds it (version 1 wrote them so). */
inline Bytes legacy_store_bytes(const TrnEngine *e, uint32_t version)
{
    Bytes out;
    put_store_header(
        out, version, e->dim, e->graph[0].entry_point, e->graph[0].max_level, (uint32_t)e->count);
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk &c = e->chunks[i];
        out.str(c.doc_id).str(c.text ? c.text : "").str(c.file_path ? c.file_path : "");
        out.i32(c.chunk_index).i32(c.line_number).u32(c.file_type).u8(c.deleted);
        const float *v = chunk_vector(e, i);
        for (int32_t d = 0; d < e->dim; d++) {
            out.f32(v[d]);
        }
        out.i32(e->nodes[i].level);
        for (int32_t l = 0; l <= e->nodes[i].level; l++) {
            out.u32((uint32_t)e->nodes[i].count[l]);
            for (int32_t j = 0; j < e->nodes[i].count[l]; j++) {
                out.u32(e->nodes[i].neighbors[l][j]);
            }
        }
    }
    return out;
}

/* A handle set up as trn_open does, without an encoder and without files: loading and graph
** code run against it in microseconds. An encoder may be lent to it (not owned). */
inline TrnEngine *bare_engine(const TrnEncoder *lent_encoder = nullptr)
{
    TrnEngine *e = static_cast<TrnEngine *>(xcalloc(1, sizeof(TrnEngine)));
    e->dim = 512;
    e->M = 16;
    e->ef_construction = 100;
    e->ef_search = 50;
    graph_clear(e, TRN_GRAPH_PARTS);
    e->level_mult = 1.0f / (float)std::log(16.0);
    ensure_cap(e, 64);
    if (lent_encoder) {
        e->encoder = *lent_encoder;
        e->encoder_ready = 1;
    }
    return e;
}

/* Gives a bare engine the index directory dir, as opening one would. */
inline void bare_engine_on_dir(TrnEngine *e, const std::string &dir)
{
    snprintf(e->store_path, sizeof e->store_path, "%s/tarnwick.bin", dir.c_str());
    snprintf(e->wal_path, sizeof e->wal_path, "%s/tarnwick.wal", dir.c_str());
    index_dir_open(e, dir.c_str());
}

inline void free_bare_engine(TrnEngine *e)
{
    if (e->wal) {
        fclose(e->wal);
    }
    if (e->lock_open) {
        close(e->lock_fd);
    }
    if (e->turn_open) {
        close(e->turn_fd);
    }
    index_dir_close(e);
    for (uint64_t i = 0; i < e->count; i++) {
        if (!e->chunks[i].text_in_store) {
            free(e->chunks[i].text);
        }
        free(e->chunks[i].file_path);
        node_reset(&e->nodes[i]);
    }
    free(e->chunks);
    store_map_release(e);
    free(e->vectors);
    free(e->nodes);
    trn_free_doc_index(e);
    lex_free(e);
    hnsw_free_scratch(e);
    free(e);
}

/* An in-memory handle (with its encoder) whose chunks are placed by hand: text and path are
** set directly, and a chunk given a vector is also linked into the graph. */
struct HandEngine {
    TrnEngine *e;
    HandEngine()
    {
        TrnConfig cfg = {};
        e = trn_open(&cfg);
        e->level_state = 5;
    }
    /* Takes over an opened handle (to close it), e.g. one rebuilding an index directory, which
    ** searches what is placed in it without ever reading or writing the directory. */
    explicit HandEngine(TrnEngine *opened) : e(opened) { e->level_state = 5; }
    ~HandEngine() { trn_close(e); }
    HandEngine(const HandEngine &) = delete;
    HandEngine &operator=(const HandEngine &) = delete;

    uint32_t add(const char *path, const std::string &text, const std::vector<float> *vec = nullptr,
                 int32_t ordinal = 0, int32_t line = 1)
    {
        ensure_cap(e, e->count + 1);
        uint32_t slot = (uint32_t)e->count++;
        TrnChunk *c = &e->chunks[slot];
        snprintf(c->doc_id, TRN_ID_MAX, "%s:%d", path ? path : "", ordinal);
        c->text = xstrdup(text.c_str());
        c->file_path = path ? xstrdup(path) : nullptr;
        c->chunk_index = ordinal;
        c->line_number = line;
        c->file_type = TRN_FILE_TYPE_MARKDOWN;
        if (vec) {
            memcpy(e->vectors + (size_t)slot * e->dim, vec->data(), sizeof(float) * e->dim);
            e->nodes[slot].level = draw_level(&e->level_state, e->level_mult);
            hnsw_insert(e, slot);
        }
        return slot;
    }
    void remove(uint64_t slot)
    {
        e->chunks[slot].deleted = 1;
        e->deleted_count++;
    }
};

/* Checks what every loaded handle must satisfy, whatever file it came from. Returns an empty
** string when all hold, else a description of the first violation. */
inline std::string handle_invariant_violation(const TrnEngine *e)
{
    if (e->count > e->capacity) {
        return "count above capacity";
    }
    uint64_t deleted = 0, pending = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        const TrnNode *n = &e->nodes[i];
        if (!c->text) {
            return "slot " + std::to_string(i) + " has no text";
        }
        if (memchr(c->doc_id, 0, sizeof c->doc_id) == nullptr) {
            return "slot " + std::to_string(i) + " id not terminated";
        }
        if (n->level < 0 || n->level >= TRN_MAX_LEVELS) {
            return "slot " + std::to_string(i) + " level out of range";
        }
        for (int l = 0; l < TRN_MAX_LEVELS; l++) {
            if (n->count[l] < 0 || n->count[l] > n->capacity[l]) {
                return "slot " + std::to_string(i) + " count above capacity";
            }
            if (n->count[l] > 0 && l > n->level) {
                return "slot " + std::to_string(i) + " list above its level";
            }
            for (int32_t j = 0; j < n->count[l]; j++) {
                if (n->neighbors[l][j] >= e->count) {
                    return "slot " + std::to_string(i) + " links past the end";
                }
            }
        }
        deleted += c->deleted ? 1 : 0;
        pending += c->pending && !c->deleted ? 1 : 0;
    }
    if (deleted != e->deleted_count) {
        return "deleted_count differs from the flags";
    }
    if (pending != e->pending_count) {
        return "pending_count differs from the flags";
    }
    if (e->graph_parts < 1 || e->graph_parts > TRN_GRAPH_PARTS) {
        return "graph parts out of range";
    }
    for (int32_t p = 0; p < TRN_GRAPH_PARTS; p++) {
        const TrnGraphPart &g = e->graph[p];
        if ((e->count == 0 || p >= e->graph_parts) && (g.entry_point != -1 || g.max_level != -1)) {
            return "an empty part with an entry point";
        }
        if (g.entry_point < -1 || (g.entry_point >= 0 && (uint64_t)g.entry_point >= e->count)) {
            return "entry point out of range";
        }
        if (g.entry_point >= 0 && g.entry_point % e->graph_parts != p) {
            return "entry point of another part";
        }
        if (g.entry_point == -1 && g.max_level != -1) {
            return "max_level without an entry point";
        }
        if (g.entry_point >= 0 && g.max_level != e->nodes[g.entry_point].level) {
            return "max_level is not the entry node's level";
        }
    }
    return "";
}

#endif /* TRN_TESTS_STORE_FIXTURES_H */
