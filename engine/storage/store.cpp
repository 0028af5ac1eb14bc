/*
** store.cpp -- the engine handle's life (trn_open, trn_checkpoint, trn_close) and the store file
** "tarnwick.bin", a complete snapshot of the handle. Version 5 (store_mapped.cpp) is written and
** read in place; this file reads the versions before it, by copying every record.
**
** Store file layout of versions 1 to 3. Little-endian, IEEE-754 binary32 floats, no padding, no
** checksum, no trailer.
**
**     offset  size  field
**          0     4  magic "TRNW"
**          4     4  uint32 version: 3 requires its commit record; 2 is the same without that
**                   requirement, 1 wrote every path whole
**          8     4  int32 dim (must be 512, the encoder's width)
**         12     4  int32 M
**         16     4  int32 ef_construction
**         20     4  int32 ef_search
**         24     4  int32 entry_point (-1: empty graph)
**         28     4  int32 max_level (-1: empty graph)
**         32     4  float32 level_mult
**         36     4  uint32 count of chunk records that follow
**
** then count chunk records in chunk-index order, deleted ones included:
**
**     uint32 n, n bytes doc_id (the loader keeps the first 255 bytes of the path it names)
**     uint32 n, n bytes text (0: empty or no text)
**     uint32 n, n bytes file_path (0: no path)
**
** doc_id and file_path are paths as storage.h writes them: one below the index's folder is a NUL
** byte and the rest after the folder, so the store of a moved folder names the files where they
** are now. Older stores are read as they are and rewritten as version 5 by the next write.
**     int32 chunk_index, int32 line_number, uint32 file_type, uint8 deleted
**     dim float32: the unit vector
**     int32 level of the graph node (0..31)
**     for each level l in 0..level: uint32 k, then k uint32 neighbour chunk indices
**
** A record's size depends on its strings and its node's level, so the file is read sequentially.
** The smallest record is 29 + 4 * dim bytes, which bounds how many records a file can hold.
**
** Loading treats the file as hostile: it knows the file's size and never reads past it; a length
** or count larger than what remains ends the load as a truncated file would, keeping the complete
** records read before it. A level above 31 also ends the load. Neighbour indices that do not name
** a loaded chunk are dropped, and the entry point is checked against what was loaded.
**
** A checkpoint writes the store to a temporary file ("tarnwick.bin.XXXXXX", created
** exclusively) in the index directory, syncs it, commits it with the commit record and renames it
** over the store before it empties the log (commit_record.cpp gives the order and why a crash at
** any step leaves the state before or after the checkpoint). Nothing here writes when the handle
** changed nothing, and nothing ever writes into a store file in place: handles may have it mapped.
*/
#include "internal.h"

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(std::endian::native == std::endian::little,
              "the store, log and weights files are read and written in the host's byte order");

namespace
{

constexpr uint32_t STORE_VERSION_FULL_PATHS = 1;
constexpr size_t STORE_HEADER_SIZE = 40;
/* Graph parameters read from a store are kept only within these bounds: heaps and candidate
** lists are sized from them. */
constexpr int32_t PARAM_MAX = 1 << 20;
/* Neighbour list capacities are int32 and grow by doubling. */
constexpr uint32_t NEIGHBOR_MAX = 1u << 30;

constexpr int32_t DEFAULT_DIM = 512;
constexpr int32_t DEFAULT_M = 16;
constexpr int32_t DEFAULT_EF_CONSTRUCTION = 100;
constexpr int32_t DEFAULT_EF_SEARCH = 50;

float level_mult_for(int32_t m)
{
    return m >= 2 ? 1.0f / (float)log((double)m) : 1.0f;
}

/* Reads one chunk record into slot. Returns false, with the slot cleared, when the record is not
** complete or not acceptable. */
bool read_record(TrnEngine *e, ByteReader *cur, uint64_t slot)
{
    TrnChunk *c = &e->chunks[slot];
    TrnNode *node = &e->nodes[slot];
    memset(c, 0, sizeof *c);
    node_reset(node);

    uint32_t n = 0;
    const uint8_t *id = nullptr;
    if (!bytes_take_string(cur, UINT32_MAX, &id, &n)) {
        return false;
    }
    char *doc_id = path_from_disk(e, id, n);
    snprintf(c->doc_id, sizeof c->doc_id, "%s", doc_id);
    free(doc_id);

    if (!bytes_take_value(cur, &n) || n > cur->left) {
        return false;
    }
    c->text = static_cast<char *>(xmalloc((size_t)n + 1));
    bytes_take(cur, c->text, n);
    c->text[n] = '\0';

    if (!bytes_take_value(cur, &n) || n > cur->left) {
        chunk_slot_clear(e, slot);
        return false;
    }
    if (n > 0) {
        c->file_path = path_from_disk(e, cur->p, n);
        bytes_skip(cur, n);
    }

    uint8_t deleted = 0;
    float *v = e->vectors + slot * (uint64_t)e->dim;
    int32_t level = 0;
    if (!bytes_take_value(cur, &c->chunk_index) || !bytes_take_value(cur, &c->line_number)
        || !bytes_take_value(cur, &c->file_type) || !bytes_take_value(cur, &deleted)
        || !bytes_take(cur, v, (size_t)e->dim * sizeof(float)) || !bytes_take_value(cur, &level)
        || level >= TRN_MAX_LEVELS) {
        chunk_slot_clear(e, slot);
        return false;
    }
    c->deleted = deleted ? 1 : 0;
    /* A negative level means a node without lists; it is kept as level 0, also without lists,
    ** so nothing indexes the per-level arrays with a negative level. */
    node->level = level < 0 ? 0 : level;
    for (int32_t l = 0; l <= level; l++) {
        uint32_t k = 0;
        if (!bytes_take_value(cur, &k) || k > NEIGHBOR_MAX || k > cur->left / sizeof(uint32_t)) {
            chunk_slot_clear(e, slot);
            return false;
        }
        node_set_list(node, l, cur->p, k);
        bytes_skip(cur, (size_t)k * sizeof(uint32_t));
    }
    return true;
}

/* Drops links to chunks that were not loaded and makes the entry point name a loaded node whose
** level is max_level. */
void repair_graph(TrnEngine *e, int32_t stored_entry)
{
    graph_clear(e, 1); /* these versions kept the graph in one part */
    for (uint64_t i = 0; i < e->count; i++) {
        TrnNode *node = &e->nodes[i];
        for (int32_t l = 0; l <= node->level; l++) {
            int32_t kept = 0;
            for (int32_t j = 0; j < node->count[l]; j++) {
                if (node->neighbors[l][j] < e->count) {
                    node->neighbors[l][kept++] = node->neighbors[l][j];
                }
            }
            node->count[l] = kept;
        }
    }
    if (e->count == 0 || stored_entry == -1) {
        e->graph[0].entry_point = -1;
        e->graph[0].max_level = -1;
        return;
    }
    if (stored_entry >= 0 && (uint64_t)stored_entry < e->count) {
        e->graph[0].entry_point = stored_entry;
        e->graph[0].max_level = e->nodes[stored_entry].level;
        return;
    }
    /* The stored entry names no loaded chunk: the highest live node takes its place. */
    e->graph[0].entry_point = -1;
    e->graph[0].max_level = -1;
    for (uint64_t i = 0; i < e->count; i++) {
        if (!e->chunks[i].deleted && e->nodes[i].level > e->graph[0].max_level) {
            e->graph[0].entry_point = (int32_t)i;
            e->graph[0].max_level = e->nodes[i].level;
        }
    }
}

void load_from_bytes(TrnEngine *e, const uint8_t *bytes, size_t size)
{
    if (size < STORE_HEADER_SIZE) {
        return;
    }
    ByteReader cur = {bytes, size};
    char magic[4];
    uint32_t version = 0;
    int32_t dim = 0;
    if (!bytes_take(&cur, magic, 4) || memcmp(magic, "TRNW", 4) != 0) {
        return;
    }
    if (!bytes_take_value(&cur, &version) || version < STORE_VERSION_FULL_PATHS
        || version > TRN_STORE_VERSION_COMMITTED) {
        return;
    }
    /* The encoder writes 512 floats per text; vectors of another width could not be compared
    ** with a single new chunk or query, so such a store is ignored like one of another version
    ** and the next checkpoint replaces it. */
    if (!bytes_take_value(&cur, &dim) || dim != TRN_ENCODER_DIM) {
        return;
    }
    int32_t m = 0, ef_construction = 0, ef_search = 0, entry = 0, max_level = 0;
    float level_mult = 0.0f;
    uint32_t count = 0;
    if (!bytes_take_value(&cur, &m) || !bytes_take_value(&cur, &ef_construction)
        || !bytes_take_value(&cur, &ef_search) || !bytes_take_value(&cur, &entry)
        || !bytes_take_value(&cur, &max_level) || !bytes_take_value(&cur, &level_mult)
        || !bytes_take_value(&cur, &count)) {
        return; /* a header cut short holds no record */
    }
    (void)max_level; /* recomputed from the entry node once the records are in */

    if (e->dim != dim) {
        e->vectors = static_cast<float *>(
            xrealloc(e->vectors, xmul(xmul((size_t)e->capacity, (size_t)dim), sizeof(float))));
        e->dim = dim;
    }
    /* A store keeps the graph parameters it was built with, when they are plausible. */
    if (m >= 1 && m <= PARAM_MAX) {
        e->M = m;
    }
    if (ef_construction >= 1 && ef_construction <= PARAM_MAX) {
        e->ef_construction = ef_construction;
    }
    if (ef_search >= 1 && ef_search <= PARAM_MAX) {
        e->ef_search = ef_search;
    }
    e->level_mult = std::isfinite(level_mult) && level_mult >= 0.0f && level_mult <= 64.0f
                        ? level_mult
                        : level_mult_for(e->M);

    size_t min_record = 29 + (size_t)dim * sizeof(float);
    uint64_t room = cur.left / min_record;
    ensure_cap(e, count < room ? count : room);
    uint64_t loaded = 0;
    while (loaded < count && loaded < e->capacity) {
        if (!read_record(e, &cur, loaded)) {
            break;
        }
        if (e->chunks[loaded].deleted) {
            e->deleted_count++;
        }
        loaded++;
    }
    e->count = loaded;
    e->paths_full = version == STORE_VERSION_FULL_PATHS && loaded > 0 ? 1 : 0;
    repair_graph(e, entry);
}

} // namespace

void store_load_bytes(TrnEngine *e, const uint8_t *bytes, size_t size)
{
    load_from_bytes(e, bytes, size);
}

void store_load(TrnEngine *e, const char *path)
{
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < (off_t)STORE_HEADER_SIZE) {
        close(fd);
        return;
    }
    size_t size = (size_t)st.st_size;
    void *map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (map == MAP_FAILED) {
        return;
    }
    madvise(map, size, MADV_SEQUENTIAL);
    store_load_mapped(e, static_cast<const uint8_t *>(map), size, false);
    munmap(map, size);
}

namespace
{

void free_slots(TrnEngine *e)
{
    chunks_clear(e);
    store_map_release(e);
    free(e->chunks);
    free(e->vectors);
    free(e->nodes);
    e->chunks = nullptr;
    e->vectors = nullptr;
    e->nodes = nullptr;
    e->capacity = 0;
}

} // namespace

namespace
{

/* The message of the calling thread's last trn_open_ex that returned NULL, so that handles opened
** on different threads at once never read each other's. */
thread_local char g_open_error[TRN_ERROR_MAX];
thread_local int32_t g_open_status;

/* Seeds the graph level generator: the same for every handle, moved on by the chunks it loaded,
** so that a handle reopened on its index does not repeat the levels of the first chunks. */
constexpr uint64_t LEVEL_SEED = 42;

/* Everything but the files: the handle as trn_open leaves it before loading. */
TrnEngine *engine_new(const TrnConfig *cfg)
{
    TrnEngine *e = static_cast<TrnEngine *>(xcalloc(1, sizeof(TrnEngine)));
    e->dim = cfg->dim > 0 ? cfg->dim : DEFAULT_DIM;
    e->M = cfg->M > 0 ? cfg->M : DEFAULT_M;
    e->ef_construction = cfg->ef_construction > 0 ? cfg->ef_construction : DEFAULT_EF_CONSTRUCTION;
    e->ef_search = cfg->ef_search > 0 ? cfg->ef_search : DEFAULT_EF_SEARCH;
    graph_clear(e, TRN_GRAPH_PARTS);
    e->level_mult = level_mult_for(e->M);
    ensure_cap(e, 64);

    e->level_state = LEVEL_SEED;
    e->embed_threads = embed_threads_default();
    if (cfg->weights_path && cfg->weights_path[0]) {
        e->weights_path = xstrdup(cfg->weights_path);
    }
    return e;
}

/* An index an older version wrote (a store naming files by full paths or without its commit
** record, a commit record of an older version, a log of ungrouped records, a manifest naming
** files by full paths) is rewritten in the current form once, when it is opened, so that it
** can move with its folder even when it is only ever searched. The store goes through a
** checkpoint (temporary file, sync, rename) and the manifest through manifest_write (the same),
** so a kill at any point leaves the old form or the new one. Only when the write lock is free at
** once: a busy index, or one in a folder this user cannot write, is converted by a later open
** and answers as it is meanwhile. */
static void convert_older_index(TrnEngine *e)
{
    Manifest m = {};
    bool manifest_old = manifest_read(e, &m) && m.paths_full;
    bool store_old = e->store_present
                     && (e->paths_full || !e->has_commit || !e->has_index_id || e->wal_legacy
                         || e->seen.commit_len != TRN_COMMIT_SIZE);
    if ((store_old || manifest_old) && lock_take(e, LOCK_EX, 0)) {
        if (index_refresh_locked(e)) {
            if (store_old) {
                const uint8_t unsaved = e->unsaved;
                e->unsaved = 1; /* so that the checkpoint writes, however empty the log */
                if (!checkpoint_locked(e)) {
                    e->unsaved = unsaved;
                }
            }
            if (manifest_old) {
                manifest_write(e, &m);
            }
        }
        lock_release(e);
        status_clear(e); /* the index answers as it is when it could not be rewritten */
    }
    manifest_free(&m);
}

/* Opens the handle on its files. Returns the handle always; with a status other than OK it is
** empty and refuses writes. */
TrnEngine *engine_open(const TrnConfig *cfg, uint32_t flags, int32_t *status)
{
    static const TrnConfig defaults = {nullptr, nullptr, 0, 0, 0, 0};
    if (!cfg) {
        cfg = &defaults;
    }
    TrnEngine *e = engine_new(cfg);
    *status = TRN_STATUS_OK;
    if (cfg->index_dir && cfg->index_dir[0]) {
        snprintf(e->store_path, sizeof e->store_path, "%s/tarnwick.bin", cfg->index_dir);
        snprintf(e->wal_path, sizeof e->wal_path, "%s/tarnwick.wal", cfg->index_dir);
        if (!index_dir_open(e, cfg->index_dir)) {
            /* status and message set: nothing of the directory is read */
        } else if (flags & TRN_OPEN_REBUILD) {
            e->rebuild = 1;
            rebuild_begin(e);
        } else if (!lock_take(e, LOCK_SH, g_busy_timeout_ms)) {
            fail_status(e, TRN_STATUS_BUSY, 0);
        } else {
            /* wal is still NULL while replaying, so replayed chunks are not logged again. */
            index_load(e);
            lock_release(e);
            if (e->status == TRN_STATUS_OK) {
                convert_older_index(e);
            }
        }
        if (e->status != TRN_STATUS_OK) {
            *status = e->status;
            e->refused = e->status;
            return e;
        }
    }

    e->level_state = LEVEL_SEED + e->count;
    verbose_note("opened (%zu docs, dim=%d)", (size_t)e->count, e->dim);
    if (e->count > 0 && !e->doc_index_stored) {
        int32_t files = trn_build_doc_index(e);
        if (files >= 1) {
            verbose_note("built doc index (%d files)", files);
        }
    }
    return e;
}

void engine_free(TrnEngine *e)
{
    trn_free_doc_index(e);
    lex_free(e);
    free_slots(e);
    if (e->wal) {
        fclose(e->wal);
        e->wal = nullptr;
    }
    if (e->lock_open) {
        close(e->lock_fd);
    }
    if (e->turn_open) {
        close(e->turn_fd);
    }
    if (e->rebuild_open) {
        close(e->rebuild_fd);
    }
    index_dir_close(e);
    if (e->encoder_ready) {
        encoder_release(&e->encoder);
    }
    free(e->weights_path);
    free(e->unlinked);
    embed_free_scratch(e);
    hnsw_free_scratch(e);
    free(e);
}

/* Empties the log (a stale log, or one whose chunks the new store holds) and syncs it. */
bool empty_log(TrnEngine *e)
{
    int fd = e->wal ? fileno(e->wal) : index_open(e, "tarnwick.wal", O_WRONLY);
    if (fd < 0) {
        return errno == ENOENT ? true : fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    bool ok = ftruncate(fd, 0) == 0 && fsync(fd) == 0;
    int err = errno;
    if (!e->wal) {
        close(fd);
    }
    return ok ? true : fail_status(e, TRN_STATUS_IO_ERROR, err);
}

} // namespace

namespace
{

/* Sets the encoder up once: the weights file read into it, or the random encoder. */
void encoder_setup(TrnEngine *e, bool quiet)
{
    if (e->encoder_ready) {
        return;
    }
    e->encoder_ready = 1;
    if (!e->weights_path) {
        encoder_init(&e->encoder, 42);
        return;
    }
    /* A bag of words in half precision is set up for what is embedded; any other file fills
    ** every tensor, so none is drawn first. Nothing saves or trains the engine's encoder. */
    e->weights_loaded = encoder_init_bag_file(&e->encoder, e->weights_path) ? 1 : 0;
    if (!e->weights_loaded) {
        encoder_init_undrawn(&e->encoder);
        e->weights_loaded = trn_encoder_load_weights(&e->encoder, e->weights_path) ? 1 : 0;
        if (e->weights_loaded) {
            encoder_prepare_bag_only(&e->encoder);
        }
    }
    if (e->weights_loaded) {
        verbose_note("loaded encoder weights from %s", e->weights_path);
        return;
    }
    encoder_release(&e->encoder);
    encoder_init(&e->encoder, 42);
    if (!quiet) {
        fprintf(stderr, "tarnwick: using random encoder (no weights at %s)\n", e->weights_path);
    }
}

} // namespace

TrnEncoder *engine_encoder(TrnEngine *e)
{
    encoder_setup(e, false);
    return &e->encoder;
}

bool checkpoint_locked(TrnEngine *e)
{
    /* While another handle rebuilds, the log keeps every commit for its swap to take up. */
    if (!e->rebuild_open && rebuild_running(e)) {
        return true;
    }
    /* The store already holds everything: a reader's checkpoint writes nothing. */
    if (e->has_commit && !e->wal_legacy && !e->wal_stale && e->wal_end == 0 && !e->unsaved
        && !e->paths_full && e->seen.wal_size == 0) {
        e->changed = 0;
        return true;
    }
    if (!vectors_own(e)) {
        return false; /* a store with a damaged vector is never written over the last good one */
    }
    link_replayed(e);
    remove_stale_temps(e);
    char tmp[64];
    int fd = index_open_temp(e, "tarnwick.bin", tmp, sizeof tmp);
    if (fd < 0) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    FILE *f = fdopen(fd, "wb");
    if (!f) {
        int err = errno;
        close(fd);
        index_unlink(e, tmp);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    setvbuf(f, nullptr, _IOFBF, 1 << 20);
    /* A store that could not be written completely never replaces the previous one, and the log
    ** that completes the previous one stays. */
    uint64_t size = 0;
    uint32_t checksum = 0;
    int err = 0;
    bool ok = store_write(e, f, &size, &checksum, &err);
    if (ok && fsync(fd) != 0) {
        ok = false;
        err = errno;
    }
    if (fclose(f) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        index_unlink(e, tmp);
        return fail_status(e, TRN_STATUS_IO_ERROR, err ? err : EIO);
    }
    if (!commit_write(e, size, checksum)) {
        index_unlink(e, tmp);
        return false;
    }
    /* From here the commit record names the new store; until the rename below completes, the
    ** old store is still accepted as the previous generation with its log. */
    if (!index_rename(e, tmp, "tarnwick.bin")) {
        int err = errno;
        index_unlink(e, tmp);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    bool synced = index_dir_sync(e);
    err = errno;
    e->has_commit = 1;
    e->generation += 1;
    e->store_present = 1;
    e->store_size = size;
    e->store_crc = checksum;
    e->unsaved = 0;
    e->changed = 0;
    e->paths_full = 0;
    e->wal_legacy = 0;
    e->wal_stale = 1;   /* until it is emptied below */
    e->log_tracked = 1; /* the new record's committed log is empty */
    e->log_committed = 0;
    e->log_committed_crc = 0;
    if (!synced) {
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    if (!empty_log(e)) {
        return false;
    }
    e->wal_stale = 0;
    e->wal_end = 0;
    e->wal_crc = 0;
    e->wal_chunks = 0;
    disk_view_read(e, &e->seen);
    lex_save(e); /* a copy for the next open: without it that open builds the index again */
    return true;
}

extern "C" {

const char *trn_version(void)
{
    return "1.23.0";
}

int32_t trn_prepare_encoder(TrnEngine *e)
{
    if (!e) {
        return 0;
    }
    encoder_setup(e, true);
    return !e->weights_path || e->weights_loaded ? 1 : 0;
}

TrnEngine *trn_open(const TrnConfig *cfg)
{
    int32_t status = TRN_STATUS_OK;
    TrnEngine *e = engine_open(cfg, 0, &status);
    if (status != TRN_STATUS_OK) {
        fprintf(stderr, "tarnwick: %s\n", e->error);
    }
    return e;
}

TrnEngine *trn_open_ex(const TrnConfig *cfg, uint32_t flags, int32_t *status)
{
    int32_t got = TRN_STATUS_OK;
    TrnEngine *e = engine_open(cfg, flags, &got);
    if (status) {
        *status = got;
    }
    if (got != TRN_STATUS_OK) {
        snprintf(g_open_error, sizeof g_open_error, "%s", e->error);
        g_open_status = got;
        engine_free(e);
        return nullptr;
    }
    return e;
}

int32_t trn_last_status(const TrnEngine *e)
{
    return e ? e->status : g_open_status;
}

const char *trn_last_error(const TrnEngine *e)
{
    return e ? e->error : g_open_error;
}

int32_t trn_checkpoint(TrnEngine *e)
{
    if (!e) {
        return 0;
    }
    status_clear(e);
    if (e->store_path[0] == '\0') {
        return 1;
    }
    if (e->refused) {
        fail_status(e, e->refused, 0);
        return 0;
    }
    if (e->rebuild) {
        return rebuild_swap(e) ? 1 : 0;
    }
    if (!lock_take(e, LOCK_EX, g_busy_timeout_ms)) {
        fail_status(e, TRN_STATUS_BUSY, 0);
        return 0;
    }
    /* Changes of other processes come in first, so their commits are never written over. A
    ** reload loses nothing of this handle's own: its ingestions and removals are in the log. */
    bool unsaved = e->unsaved;
    bool ok = index_refresh_locked(e);
    if (ok) {
        e->unsaved = e->unsaved || unsaved;
        ok = checkpoint_locked(e);
    } else {
        e->refused = e->status;
    }
    lock_release(e);
    return ok ? 1 : 0;
}

void trn_close(TrnEngine *e)
{
    if (!e) {
        return;
    }
    /* Only a handle holding what the store lacks writes, and only when the lock is free at once
    ** and no other process committed since (that process's own close or checkpoint will fold
    ** the log; the log keeps everything meanwhile). Nor does one that has vectors of the log
    ** still to link: only read, it leaves that work to the next writer. */
    if (e->store_path[0] && !e->rebuild && !e->refused && (e->changed || e->unsaved)
        && e->unlinked_count == 0 && lock_take(e, LOCK_EX, 0)) {
        TrnDiskView v;
        disk_view_read(e, &v);
        if (disk_view_unchanged(&v, &e->seen)) {
            checkpoint_locked(e);
        }
        lock_release(e);
    }
    engine_free(e);
}

} /* extern "C" */
