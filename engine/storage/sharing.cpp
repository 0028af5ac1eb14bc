/*
** sharing.cpp -- keeping a handle in step with what other processes committed to its index
** directory: loading the committed state (the commit record, commit_record.cpp, says which store
** and log that is), taking up what others appended, and starting and ending writes.
**
** The log (wal.cpp) begins, from the first append after a checkpoint, with a 'G' record naming
** its generation and the index's id (a log of another index copied in is refused), and is
** written in groups that end with a 'C' record holding the group's CRC-32, each group synced:
** one ingested file, or one removal. Replay applies whole groups only.
**
** Readers never write: loading and refreshing only read, and leave a torn tail where it is. A
** writer cuts the log back to its last whole group before it appends. A command whose checkpoint
** failed cuts its own groups back off the log's end (trn_rollback), never another's: a handle
** knows which groups at the end are its own because none came between them.
*/
#include "internal.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

uint64_t g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;

namespace
{

constexpr int READ_WAIT_MS = 250; /* a search reads the old state rather than wait longer */

} // namespace

void indexed_dir(const TrnEngine *e, char *out, size_t size)
{
    snprintf(out, size, "%s", e->store_path);
    char *slash = strrchr(out, '/');
    if (slash) {
        *slash = '\0';
    }
    slash = strrchr(out, '/');
    if (slash && strcmp(slash + 1, ".tarnwick") == 0) {
        *slash = '\0';
        if (out[0] == '\0') {
            snprintf(out, size, "/");
        }
    }
}

namespace
{

/* The same generation: the committed log may have grown, nothing else changed. */
bool same_state(const TrnDiskView *a, const TrnDiskView *b)
{
    return a->commit_len == b->commit_len
           && memcmp(a->commit, b->commit, commit_head_size(a->commit_len)) == 0
           && a->has_store == b->has_store && a->store_ino == b->store_ino
           && a->store_size == b->store_size && a->store_mtime_ns == b->store_mtime_ns
           && a->has_wal == b->has_wal && a->wal_ino == b->wal_ino;
}

/* A read-only view of a whole file; size 0 and no bytes when it is missing or empty. */
struct Mapped {
    const uint8_t *bytes;
    size_t size;
    bool present;
};

bool map_file(const TrnEngine *e, const char *name, Mapped *m)
{
    m->bytes = nullptr;
    m->size = 0;
    m->present = false;
    int fd = index_open(e, name, O_RDONLY);
    if (fd < 0) {
        return errno == ENOENT;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return false;
    }
    m->present = true;
    m->size = (size_t)st.st_size;
    if (m->size > 0) {
        void *p = mmap(nullptr, m->size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p == MAP_FAILED) {
            close(fd);
            return false;
        }
        madvise(p, m->size, MADV_SEQUENTIAL);
        m->bytes = static_cast<const uint8_t *>(p);
    }
    close(fd);
    return true;
}

void unmap_file(Mapped *m)
{
    if (m->bytes) {
        munmap(const_cast<uint8_t *>(m->bytes), m->size);
    }
    m->bytes = nullptr;
}

/* Replays the handle's own log; a missing log is an empty one. */
bool wal_replay_index(TrnEngine *e, uint64_t from, bool apply)
{
    int fd = index_open(e, "tarnwick.wal", O_RDONLY);
    bool whole = wal_replay_fd(e, fd, from, apply);
    if (fd >= 0) {
        close(fd);
    }
    return whole;
}

} // namespace

/* Forgets which store the handle loaded: the next commit starts a new chain of generations. */
void forget_store(TrnEngine *e)
{
    e->has_commit = 0;
    e->has_index_id = 0;
    e->generation = 0;
    e->store_present = 0;
    e->store_size = 0;
    e->store_crc = 0;
    e->log_tracked = 0;
    e->log_committed = 0;
    e->log_committed_crc = 0;
}

/* Frees every chunk and the document index; the handle is empty afterwards, as after open. */
void index_reset(TrnEngine *e)
{
    trn_free_doc_index(e);
    lex_free(e); /* the slots are about to be read again */
    e->lex_deferred = 0;
    chunks_clear(e);
    e->deleted_count = 0;
    graph_clear(e, TRN_GRAPH_PARTS);
    hnsw_free_scratch(e);
    store_map_release(e);
    e->doc_index_stored = 0;
    forget_store(e);
    e->wal_end = 0;
    e->wal_crc = 0;
    e->wal_chunks = 0;
    e->wal_legacy = 0;
    e->wal_stale = 0;
    e->changed = 0;
    e->unsaved = 0;
    e->paths_full = 0;
}

bool fail_status(TrnEngine *e, int32_t status, int io_error)
{
    char dir[TRN_PATH_MAX];
    indexed_dir(e, dir, sizeof dir);
    e->status = status;
    if (status == TRN_STATUS_BUSY) {
        snprintf(e->error,
                 sizeof e->error,
                 "the index of %s is busy: another Tarnwick is updating it",
                 dir);
    } else if (status == TRN_STATUS_DAMAGED) {
        snprintf(e->error,
                 sizeof e->error,
                 "the index of %s is damaged; rebuild it with tarnwick-cli index %s",
                 dir,
                 dir);
    } else {
        snprintf(
            e->error, sizeof e->error, "cannot write the index of %s: %s", dir, strerror(io_error));
    }
    return false;
}

void status_clear(TrnEngine *e)
{
    e->status = TRN_STATUS_OK;
    e->error[0] = '\0';
}

void disk_view_read(const TrnEngine *e, TrnDiskView *v)
{
    memset(v, 0, sizeof *v);
    int fd = index_open(e, "tarnwick.commit", O_RDONLY);
    if (fd >= 0) {
        v->has_commit = 1;
        ssize_t n = read(fd, v->commit, sizeof v->commit);
        v->commit_len = n > 0 ? (uint32_t)n : 0;
        close(fd);
    }
    struct stat st;
    if (index_stat(e, "tarnwick.bin", &st)) {
        v->has_store = 1;
        v->store_ino = (uint64_t)st.st_ino;
        v->store_size = (uint64_t)st.st_size;
        v->store_mtime_ns = (int64_t)st.st_mtim.tv_sec * 1000000000 + st.st_mtim.tv_nsec;
    }
    if (index_stat(e, "tarnwick.wal", &st)) {
        v->has_wal = 1;
        v->wal_ino = (uint64_t)st.st_ino;
        v->wal_size = (uint64_t)st.st_size;
        v->wal_mtime_ns = (int64_t)st.st_mtim.tv_sec * 1000000000 + st.st_mtim.tv_nsec;
    }
}

bool disk_view_unchanged(const TrnDiskView *a, const TrnDiskView *b)
{
    return same_state(a, b) && memcmp(a->commit, b->commit, a->commit_len) == 0
           && a->wal_size == b->wal_size && a->wal_mtime_ns == b->wal_mtime_ns;
}

bool index_load(TrnEngine *e, bool replay)
{
    TrnDiskView v;
    disk_view_read(e, &v);
    TrnCommitRecord rec = {};
    if (v.has_commit && !commit_decode(v.commit, v.commit_len, &rec)) {
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    Mapped store;
    if (!map_file(e, "tarnwick.bin", &store)) {
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    uint32_t crc = store_checksum(store.bytes, store.size);
    uint64_t generation = 0;
    if (!v.has_commit && store_version(store.bytes, store.size) >= TRN_STORE_VERSION_COMMITTED
        && store_version(store.bytes, store.size) <= TRN_STORE_VERSION) {
        unmap_file(&store);
        return fail_status(e, TRN_STATUS_DAMAGED, 0); /* written with a record that is gone */
    }
    if (v.has_commit) {
        /* A store is never empty: an empty file matches no generation, not even an absent one. */
        bool is_current = store.present && store.size == rec.store_size && crc == rec.store_crc;
        bool is_previous = (rec.flags & TRN_COMMIT_HAS_PREVIOUS)
                           && (store.present ? store.size > 0 && store.size == rec.previous_size
                                                   && crc == rec.previous_crc
                                             : (rec.flags & TRN_COMMIT_PREVIOUS_ABSENT) != 0);
        if (is_current) {
            generation = rec.generation;
        } else if (is_previous) {
            generation = rec.generation - 1;
        } else {
            unmap_file(&store);
            return fail_status(e, TRN_STATUS_DAMAGED, 0);
        }
    }
    int loaded =
        store.size > 0 ? store_load_mapped(e, store.bytes, store.size, true) : STORE_COPIED;
    if (loaded == STORE_IN_PLACE) {
        store.bytes = nullptr; /* the handle reads its vectors from the mapping now */
    }
    unmap_file(&store);
    if (loaded == STORE_DAMAGED) {
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    /* The commit record of the very first checkpoint names no older store: the state before it
    ** is the one without a record, whose log has no groups. */
    e->has_commit = generation >= 1 ? 1 : 0;
    e->generation = generation;
    e->has_index_id = v.has_commit && rec.has_id ? 1 : 0;
    memcpy(e->index_id, rec.index_id, sizeof e->index_id);
    e->store_present = store.present ? 1 : 0;
    e->store_size = store.size;
    e->store_crc = crc;
    /* The committed log: this generation's, or the previous store's that a crash left. */
    bool log_known = generation >= 1 && rec.has_log;
    bool current = generation == rec.generation;
    e->log_tracked = log_known && current ? 1 : 0;
    e->log_committed = !log_known ? 0 : current ? rec.log_size : rec.previous_log_size;
    e->log_committed_crc = !log_known ? 0 : current ? rec.log_crc : rec.previous_log_crc;
    if (replay && v.has_wal && v.wal_size > 0) {
        lex_load(e); /* matched against the store's chunks before the log changes them */
    } else if (replay) {
        e->lex_deferred = 1;
        e->lex_count = e->count;
        e->lex_deleted = e->deleted_count;
    }
    if (!wal_replay_index(e, 0, replay) || vectors_damaged(e)) {
        index_reset(e);
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    e->changed = e->wal_chunks > 0 || e->wal_end > 0 ? 1 : 0;
    if (e->changed) {
        e->doc_index_stored = 0; /* the log's chunks are not in it */
    }
    /* The lock is held, so the log is as long as when the view was read; a torn tail beyond
    ** wal_end is not read again until the log grows. */
    e->seen = v;
    return true;
}

bool index_refresh_locked(TrnEngine *e)
{
    TrnDiskView v;
    disk_view_read(e, &v);
    if (disk_view_unchanged(&v, &e->seen)) {
        return true;
    }
    /* Same generation, the log grown or rewritten past a torn tail: writers only ever cut the
    ** log back to its last whole group, which is at or after the one this handle read. */
    TrnCommitRecord rec;
    if (same_state(&v, &e->seen) && v.wal_size >= e->wal_end && !e->wal_legacy && !e->wal_stale
        && (!e->log_tracked || commit_decode(v.commit, v.commit_len, &rec))) {
        if (e->log_tracked) {
            e->log_committed = rec.log_size;
            e->log_committed_crc = rec.log_crc;
        }
        uint64_t count = e->count, deleted = e->deleted_count;
        /* Replay checks before it applies anything: what it refuses, a whole load judges. */
        if (wal_replay_index(e, e->wal_end, true)) {
            e->seen = v;
            if (e->count != count || e->deleted_count != deleted) {
                e->changed = 1;
                e->taken_up++;
                trn_build_doc_index(e);
            }
            return !vectors_damaged(e) || fail_status(e, TRN_STATUS_DAMAGED, 0);
        }
    }
    index_reset(e);
    e->taken_up++;
    if (!index_load(e)) {
        return false;
    }
    if (e->count > 0 && !e->doc_index_stored) {
        trn_build_doc_index(e);
    }
    return !vectors_damaged(e) || fail_status(e, TRN_STATUS_DAMAGED, 0);
}

void index_refresh_for_read(TrnEngine *e)
{
    if (!e->store_path[0] || e->rebuild || e->refused) {
        return;
    }
    TrnDiskView v;
    disk_view_read(e, &v);
    if (disk_view_unchanged(&v, &e->seen)) {
        return;
    }
    if (!lock_take(e, LOCK_SH, READ_WAIT_MS)) {
        return;
    }
    if (!index_refresh_locked(e)) {
        e->refused = e->status;
    }
    lock_release(e);
}

bool write_begin(TrnEngine *e)
{
    status_clear(e);
    if (e->refused) {
        return fail_status(e, e->refused, 0);
    }
    if (!e->store_path[0] || e->rebuild) {
        return true;
    }
    if (!lock_take(e, LOCK_EX, g_busy_timeout_ms)) {
        return fail_status(e, TRN_STATUS_BUSY, 0);
    }
    /* A writer never writes to a mapped store: it copies the vectors first, checking them all. */
    if (!index_refresh_locked(e) || !vectors_own(e)) {
        e->refused = e->status;
        lock_release(e);
        return false;
    }
    link_replayed(e); /* before anything of this handle's joins the graph */
    /* A log of an older version, or none yet, has no groups to follow, and a commit record of
    ** an older version (or a store a crash left as the previous one) keeps no log length: start
    ** from a checkpoint, which must wait for a rebuild to end. */
    if (!e->has_commit || e->wal_legacy || !e->log_tracked) {
        if (rebuild_running(e)) {
            lock_release(e);
            return fail_status(e, TRN_STATUS_BUSY, 0);
        }
        if (!checkpoint_locked(e)) {
            lock_release(e);
            return false;
        }
    }
    if (e->wal) {
        fclose(e->wal);
        e->wal = nullptr;
    }
    int fd = index_open(e, "tarnwick.wal", O_WRONLY | O_APPEND | O_CREAT);
    if (fd < 0) {
        int err = errno;
        lock_release(e);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    /* A torn group of a crashed writer, or the stale log of a checkpoint cut short before it
    ** emptied the log: the next group must follow the last whole one. */
    struct stat st;
    if (fstat(fd, &st) != 0
        || ((uint64_t)st.st_size != e->wal_end
            && (ftruncate(fd, (off_t)e->wal_end) != 0 || fsync(fd) != 0))) {
        int err = errno;
        close(fd);
        lock_release(e);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    e->wal_stale = 0;
    e->wal = fdopen(fd, "ab");
    if (!e->wal) {
        int err = errno;
        close(fd);
        lock_release(e);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    disk_view_read(e, &e->seen);
    return true;
}

void write_end(TrnEngine *e)
{
    if (e->store_path[0] && !e->rebuild) {
        lock_release(e);
    }
}

extern "C" {

int32_t trn_index_changed(const TrnEngine *e)
{
    if (!e || !e->store_path[0] || e->rebuild) {
        return 0;
    }
    if (e->overtaken) {
        return 1;
    }
    TrnDiskView v;
    disk_view_read(e, &v);
    return disk_view_unchanged(&v, &e->seen) ? 0 : 1;
}

int32_t trn_rollback(TrnEngine *e)
{
    if (!e || !e->store_path[0] || e->rebuild || !e->own_known || e->own_from >= e->own_end) {
        return 0;
    }
    if (!lock_take(e, LOCK_EX, g_busy_timeout_ms)) {
        return 0;
    }
    /* Only while the log still ends with this handle's last group: nothing another process
    ** committed is ever cut. */
    TrnDiskView v;
    disk_view_read(e, &v);
    bool cut = false;
    if (same_state(&v, &e->seen) && e->generation == e->own_generation && !e->wal_stale
        && v.wal_size == e->own_end && e->wal_end == e->own_end) {
        /* The caller reports the failure that made it roll back, not what this meets. */
        int32_t status = e->status;
        char error[TRN_ERROR_MAX];
        memcpy(error, e->error, sizeof error);
        TrnPathList paths;
        int fd = index_open(e, "tarnwick.wal", O_RDWR);
        /* The commit record lets go of the groups first: a crash before the cut leaves them
        ** as groups after the committed log, which still read as they did. */
        cut = fd >= 0 && wal_paths(e, fd, e->own_from, e->own_end, &paths)
              && (!e->log_tracked || commit_log_write(e, e->own_from, e->own_from_crc))
              && ftruncate(fd, (off_t)e->own_from) == 0 && fsync(fd) == 0;
        if (fd >= 0) {
            close(fd);
        }
        if (cut) {
            manifest_forget(e, paths);
            /* The log is shorter than the handle read it: it loads the state again. */
            if (!index_refresh_locked(e)) {
                e->refused = e->status;
            }
        }
        e->status = status;
        memcpy(e->error, error, sizeof error);
    }
    e->own_known = 0;
    lock_release(e);
    return cut ? 1 : 0;
}

} /* extern "C" */
