/*
** commit.cpp -- what keeps an index directory whole when several processes share it and when
** they crash: the lock file, the commit record, and keeping a handle in step with what other
** processes committed.
**
** Beside the store "tarnwick.bin" and the log "tarnwick.wal" the index directory holds:
**
**   tarnwick.lock    empty. flock(2) on it: shared while a handle loads, exclusive while it
**                    writes. Locks are taken per operation, never held between calls, so a
**                    long-lived handle (an application tab) never blocks a command-line search.
**   tarnwick.turn    empty. A writer holds it exclusively while it waits for the lock, and a
**                    reader takes it shared (and drops it at once) before its own: a waiting
**                    writer stops new readers, so readers that keep coming cannot starve it.
**   tarnwick.commit  the commit record, 64 bytes, little-endian:
**
**     offset  size  field
**          0     4  magic "TRNC"
**          4     4  uint32 version, 2
**          8     8  uint64 generation: 1 for the first checkpoint, one more for each after it
**         16     8  uint64 size of the store of this generation
**         24     4  uint32 CRC-32 of that store (zlib's crc32, the ISO-HDLC polynomial)
**         28     4  uint32 flags: 1 the previous store below is known; 2 there was none
**         32     8  uint64 size of the store of the previous generation
**         40     4  uint32 CRC-32 of the previous store
**         44    16  the index's id: random bytes made by its first commit, kept by every later
**                   one, which the log names too
**         60     4  uint32 CRC-32 of bytes 0..59
**
**   A record of version 1 (48 bytes: no id, its CRC-32 at 44) is still read; the next commit
**   writes version 2 with a new id.
**
** A checkpoint (store.cpp) commits in four steps, each file written under a unique temporary
** name ("<name>.XXXXXX"), synced, renamed into place and its directory synced:
**   1. the new store under its temporary name;
**   2. the commit record of generation g + 1, naming the new store, and the current store as the
**      previous one;
**   3. the new store renamed over "tarnwick.bin";
**   4. the log cut to nothing and synced.
** When loading, the store on disk decides: the store the record names is generation g + 1 (its
** log is stale until step 4 empties it: the log's first record names generation g); the previous
** store is generation g with the log that completes it (a crash between steps 2 and 3); any other
** store is damaged and refused, an empty one included. Without a commit record (an index of an
** older version, or none yet) the store and log are taken as they are, and the first write
** converts them with a checkpoint; but a store of the version written with commit records, or a
** log of groups, without one is damage (the record was lost).
**
** The log (wal.cpp) begins, from the first append after a checkpoint, with a 'G' record naming
** its generation and the index's id (a log of another index copied in is refused), and is written
*in groups that end with a 'C' record holding the group's CRC-32,
** each group synced: one ingested file, or one removal. Replay applies whole groups only.
**
** Readers never write: loading and refreshing only read, and leave a torn tail where it is. A
** writer cuts the log back to its last whole group before it appends. A command whose checkpoint
** failed cuts its own groups back off the log's end (trn_rollback), never another's: a handle
** knows which groups at the end are its own because none came between them.
*/
#include "internal.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

int g_busy_timeout_ms = TRN_BUSY_TIMEOUT_MS;
uint64_t g_checkpoint_chunks = TRN_CHECKPOINT_CHUNKS;

namespace
{

constexpr uint32_t COMMIT_VERSION = 2;
constexpr size_t COMMIT_V1_SIZE = 48; /* version 1: no id */
constexpr uint32_t COMMIT_HAS_PREVIOUS = 1;
constexpr uint32_t COMMIT_PREVIOUS_ABSENT = 2;
constexpr int READ_WAIT_MS = 250; /* a search reads the old state rather than wait longer */

struct CommitRecord {
    uint64_t generation;
    uint64_t store_size;
    uint32_t store_crc;
    uint32_t flags;
    uint64_t previous_size;
    uint32_t previous_crc;
    bool has_id; /* false in a record of version 1 */
    uint8_t index_id[TRN_INDEX_ID_SIZE];
};

bool commit_decode(const uint8_t *b, uint32_t n, CommitRecord *c)
{
    if ((n != TRN_COMMIT_SIZE && n != COMMIT_V1_SIZE) || memcmp(b, "TRNC", 4) != 0) {
        return false;
    }
    uint32_t version = 0, check = 0;
    memcpy(&version, b + 4, 4);
    memcpy(&check, b + n - 4, 4);
    uint32_t want = n == TRN_COMMIT_SIZE ? COMMIT_VERSION : 1;
    if (version != want || check != crc32_update(0, b, n - 4)) {
        return false;
    }
    memcpy(&c->generation, b + 8, 8);
    memcpy(&c->store_size, b + 16, 8);
    memcpy(&c->store_crc, b + 24, 4);
    memcpy(&c->flags, b + 28, 4);
    memcpy(&c->previous_size, b + 32, 8);
    memcpy(&c->previous_crc, b + 40, 4);
    c->has_id = version == COMMIT_VERSION;
    memset(c->index_id, 0, sizeof c->index_id);
    if (c->has_id) {
        memcpy(c->index_id, b + 44, TRN_INDEX_ID_SIZE);
    }
    return c->generation >= 1;
}

void commit_encode(const CommitRecord *c, uint8_t *b)
{
    memcpy(b, "TRNC", 4);
    memcpy(b + 4, &COMMIT_VERSION, 4);
    memcpy(b + 8, &c->generation, 8);
    memcpy(b + 16, &c->store_size, 8);
    memcpy(b + 24, &c->store_crc, 4);
    memcpy(b + 28, &c->flags, 4);
    memcpy(b + 32, &c->previous_size, 8);
    memcpy(b + 40, &c->previous_crc, 4);
    memcpy(b + 44, c->index_id, TRN_INDEX_ID_SIZE);
    uint32_t check = crc32_update(0, b, TRN_COMMIT_SIZE - 4);
    memcpy(b + TRN_COMMIT_SIZE - 4, &check, 4);
}

/* The version field of a store's bytes; 0 when they do not begin as a store. */
uint32_t store_version(const uint8_t *bytes, size_t size)
{
    uint32_t version = 0;
    if (size >= 8 && memcmp(bytes, "TRNW", 4) == 0) {
        memcpy(&version, bytes + 4, 4);
    }
    return version;
}

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

bool same_state(const TrnDiskView *a, const TrnDiskView *b)
{
    return a->commit_len == b->commit_len && memcmp(a->commit, b->commit, a->commit_len) == 0
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

/* Forgets which store the handle loaded: the next commit starts a new chain of generations. */
void forget_store(TrnEngine *e)
{
    e->has_commit = 0;
    e->has_index_id = 0;
    e->generation = 0;
    e->store_present = 0;
    e->store_size = 0;
    e->store_crc = 0;
}

/* Frees every chunk and the document index; the handle is empty afterwards, as after open. */
void index_reset(TrnEngine *e)
{
    trn_free_doc_index(e);
    lex_free(e); /* the slots are about to be read again */
    chunks_clear(e);
    e->deleted_count = 0;
    e->entry_point = -1;
    e->max_level = -1;
    hnsw_free_scratch(e);
    forget_store(e);
    e->wal_end = 0;
    e->wal_chunks = 0;
    e->wal_legacy = 0;
    e->wal_stale = 0;
    e->changed = 0;
    e->unsaved = 0;
    e->paths_full = 0;
}

} // namespace

uint32_t crc32_update(uint32_t crc, const void *p, size_t n)
{
    const Bytef *b = static_cast<const Bytef *>(p);
    uLong c = crc;
    while (n > 0) {
        uInt part = n > (1u << 30) ? (1u << 30) : (uInt)n;
        c = crc32(c, b, part);
        b += part;
        n -= part;
    }
    return (uint32_t)c;
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

namespace
{

/* Opens an empty lock file of the index directory; -1 when it cannot be had. */
int open_lock_file(const TrnEngine *e, const char *name)
{
    /* The directory is the user's alone, so no other user can make or hold this lock. */
    int fd = index_open(e, name, O_RDWR | O_CREAT);
    if (fd < 0 && (errno == ELOOP || errno == EINVAL)) {
        /* A link or other non-file in its place was planted: a lock that cannot be taken
        ** would let writers run together, and removing the name touches nothing else. */
        index_unlink(e, name);
        fd = index_open(e, name, O_RDWR | O_CREAT);
    }
    if (fd < 0) {
        fd = index_open(e, name, O_RDONLY);
    }
    return fd;
}

long ms_since(const struct timespec *start)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - start->tv_sec) * 1000 + (now.tv_nsec - start->tv_nsec) / 1000000;
}

/* flock(fd, op), retried until timeout_ms have passed since start. */
bool flock_until(int fd, int op, const struct timespec *start, int timeout_ms)
{
    for (;;) {
        if (flock(fd, op | LOCK_NB) == 0) {
            return true;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EWOULDBLOCK) {
            return true; /* a file system without flock: nothing to wait for */
        }
        if (ms_since(start) >= timeout_ms) {
            return false;
        }
        usleep(5000);
    }
}

} // namespace

bool lock_take(TrnEngine *e, int op, int timeout_ms)
{
    if (!e->lock_open) {
        int fd = open_lock_file(e, "tarnwick.lock");
        if (fd < 0) {
            /* A directory that cannot hold the lock file cannot be written either: reads go
            ** ahead unlocked, writes meet the failure themselves. */
            return true;
        }
        e->lock_fd = fd;
        e->lock_open = 1;
    }
    if (!e->turn_open) {
        int fd = open_lock_file(e, "tarnwick.turn");
        if (fd >= 0) {
            e->turn_fd = fd;
            e->turn_open = 1;
        }
    }
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    if (e->turn_open) {
        if (!flock_until(e->turn_fd, op, &start, timeout_ms)) {
            return false;
        }
        if (op == LOCK_SH) {
            flock(e->turn_fd, LOCK_UN);
        }
    }
    bool taken = flock_until(e->lock_fd, op, &start, timeout_ms);
    if (e->turn_open && op == LOCK_EX) {
        flock(e->turn_fd, LOCK_UN); /* holding the lock now, or giving up */
    }
    return taken;
}

void lock_release(TrnEngine *e)
{
    if (e->lock_open) {
        flock(e->lock_fd, LOCK_UN);
    }
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
    return same_state(a, b) && a->wal_size == b->wal_size && a->wal_mtime_ns == b->wal_mtime_ns;
}

bool index_load(TrnEngine *e, bool replay)
{
    TrnDiskView v;
    disk_view_read(e, &v);
    CommitRecord rec = {};
    if (v.has_commit && !commit_decode(v.commit, v.commit_len, &rec)) {
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    Mapped store;
    if (!map_file(e, "tarnwick.bin", &store)) {
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    uint32_t crc = crc32_update(0, store.bytes, store.size);
    uint64_t generation = 0;
    const uint32_t version = store_version(store.bytes, store.size);
    if (!v.has_commit && version >= TRN_STORE_VERSION_COMMITTED && version <= TRN_STORE_VERSION) {
        unmap_file(&store);
        return fail_status(e, TRN_STATUS_DAMAGED, 0); /* written with a record that is gone */
    }
    if (v.has_commit) {
        /* A store is never empty: an empty file matches no generation, not even an absent one. */
        bool is_current = store.present && store.size == rec.store_size && crc == rec.store_crc;
        bool is_previous = (rec.flags & COMMIT_HAS_PREVIOUS)
                           && (store.present ? store.size > 0 && store.size == rec.previous_size
                                                   && crc == rec.previous_crc
                                             : (rec.flags & COMMIT_PREVIOUS_ABSENT) != 0);
        if (is_current) {
            generation = rec.generation;
        } else if (is_previous) {
            generation = rec.generation - 1;
        } else {
            unmap_file(&store);
            return fail_status(e, TRN_STATUS_DAMAGED, 0);
        }
    }
    if (store.size > 0) {
        store_load_bytes(e, store.bytes, store.size);
    }
    unmap_file(&store);
    /* The commit record of the very first checkpoint names no older store: the state before it
    ** is the one without a record, whose log has no groups. */
    e->has_commit = generation >= 1 ? 1 : 0;
    e->generation = generation;
    e->has_index_id = v.has_commit && rec.has_id ? 1 : 0;
    memcpy(e->index_id, rec.index_id, sizeof e->index_id);
    e->store_present = store.present ? 1 : 0;
    e->store_size = store.size;
    e->store_crc = crc;
    if (replay) {
        lex_load(e);
    }
    if (!wal_replay_index(e, 0, replay)) {
        index_reset(e);
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    e->changed = e->wal_chunks > 0 || e->wal_end > 0 ? 1 : 0;
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
    if (same_state(&v, &e->seen) && v.wal_size >= e->wal_end && !e->wal_legacy && !e->wal_stale) {
        uint64_t count = e->count, deleted = e->deleted_count;
        if (!wal_replay_index(e, e->wal_end, true)) {
            index_reset(e);
            return fail_status(e, TRN_STATUS_DAMAGED, 0);
        }
        e->seen = v;
        if (e->count != count || e->deleted_count != deleted) {
            e->changed = 1;
            trn_build_doc_index(e);
        }
        return true;
    }
    index_reset(e);
    if (!index_load(e)) {
        return false;
    }
    if (e->count > 0) {
        trn_build_doc_index(e);
    }
    return true;
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
    if (!index_refresh_locked(e)) {
        e->refused = e->status;
        lock_release(e);
        return false;
    }
    /* A log of an older version, or none yet, has no groups to follow: start from a checkpoint,
    ** which must wait for a rebuild to end. */
    if (!e->has_commit || e->wal_legacy) {
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

void keep_damaged_aside(TrnEngine *e)
{
    const char *names[] = {"tarnwick.bin", "tarnwick.wal", "tarnwick.commit"};
    long stamp = (long)time(nullptr);
    if (!e->dir_open) {
        return;
    }
    for (const char *name : names) {
        struct stat st;
        if (fstatat(e->dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        /* link() never replaces an existing name, so no earlier copy is overwritten. */
        for (int attempt = 0; attempt < 1000; attempt++) {
            char to[96];
            snprintf(to,
                     sizeof to,
                     attempt == 0 ? "%s.damaged-%ld" : "%s.damaged-%ld-%d",
                     name,
                     stamp,
                     attempt);
            if (linkat(e->dir_fd, name, e->dir_fd, to, 0) == 0) {
                unlinkat(e->dir_fd, name, 0);
                break;
            }
            if (errno != EEXIST) {
                break;
            }
        }
    }
    index_dir_sync(e);
}

namespace
{

/* What is committed now, read with a scratch handle so e's chunks stay as they are; the log is
** only checked. False when the index is damaged. */
bool probe_committed(TrnEngine *e, TrnEngine *probe)
{
    probe->dim = e->dim;
    probe->M = e->M;
    probe->ef_construction = e->ef_construction;
    probe->ef_search = e->ef_search;
    probe->level_mult = e->level_mult;
    probe->entry_point = -1;
    probe->max_level = -1;
    memcpy(probe->store_path, e->store_path, sizeof e->store_path);
    memcpy(probe->wal_path, e->wal_path, sizeof e->wal_path);
    memcpy(probe->folder, e->folder, sizeof e->folder);
    probe->dir_fd = e->dir_fd; /* lent: the probe is freed without closing it */
    probe->dir_open = e->dir_open;
    ensure_cap(probe, 64);
    return index_load(probe, false);
}

void probe_free(TrnEngine *probe)
{
    index_reset(probe);
    free(probe->chunks);
    free(probe->vectors);
    free(probe->nodes);
    free(probe);
}

} // namespace

bool rebuild_running(const TrnEngine *e)
{
    int fd =
        e->dir_open
            ? openat(e->dir_fd, "tarnwick.rebuild", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
            : -1;
    if (fd < 0) {
        return false;
    }
    bool running = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd); /* drops the lock when it was taken */
    return running;
}

void rebuild_begin(TrnEngine *e)
{
    int fd = open_lock_file(e, "tarnwick.rebuild");
    if (fd < 0) {
        return;
    }
    /* Only a checkpoint's brief probe takes it exclusively. */
    while (flock(fd, LOCK_SH) != 0 && errno == EINTR) {
    }
    e->rebuild_fd = fd;
    e->rebuild_open = 1;
    if (!lock_take(e, LOCK_SH, g_busy_timeout_ms)) {
        return; /* the swap then takes up nothing it cannot place */
    }
    TrnEngine *probe = static_cast<TrnEngine *>(xcalloc(1, sizeof(TrnEngine)));
    if (probe_committed(e, probe)) {
        e->rebuild_known = 1;
        e->rebuild_generation = probe->generation;
        e->rebuild_from = probe->wal_stale || probe->wal_legacy ? 0 : probe->wal_end;
    }
    probe_free(probe);
    lock_release(e);
}

bool rebuild_swap(TrnEngine *e)
{
    if (!lock_take(e, LOCK_EX, g_busy_timeout_ms)) {
        return fail_status(e, TRN_STATUS_BUSY, 0);
    }
    /* A link or other non-file under an index file's name can only have been planted: the
    ** rebuilt index replaces the name, never what it points to. */
    const char *names[] = {
        "tarnwick.bin", "tarnwick.wal", "tarnwick.commit", "tarnwick.lex", "tarnwick.files"};
    for (const char *name : names) {
        struct stat st;
        if (e->dir_open && fstatat(e->dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0
            && !S_ISREG(st.st_mode)) {
            index_unlink(e, name);
        }
    }
    /* Learn the generation and the store this commit follows. */
    TrnEngine *probe = static_cast<TrnEngine *>(xcalloc(1, sizeof(TrnEngine)));
    bool damaged = !probe_committed(e, probe);
    e->has_commit = probe->has_commit;
    e->generation = probe->generation;
    e->has_index_id = probe->has_index_id;
    memcpy(e->index_id, probe->index_id, sizeof e->index_id);
    e->store_present = probe->store_present;
    e->store_size = probe->store_size;
    e->store_crc = probe->store_crc;
    /* Groups committed while the rebuild ran: checkpoints were held off, so the log still has
    ** them after the one it had when the rebuild began. */
    bool take_up = !damaged && e->rebuild_known && probe->generation == e->rebuild_generation
                   && !probe->wal_stale && !probe->wal_legacy && probe->wal_end > e->rebuild_from;
    uint64_t take_from = e->rebuild_from;
    probe_free(probe);
    if (take_up) {
        int fd = index_open(e, "tarnwick.wal", O_RDONLY);
        uint64_t count = e->count, deleted = e->deleted_count;
        if (fd >= 0) {
            e->wal_end = take_from;
            wal_replay_fd(e, fd, take_from, true);
            close(fd);
        }
        if (e->count != count || e->deleted_count != deleted) {
            trn_build_doc_index(e);
        }
    }
    if (damaged) {
        keep_damaged_aside(e);
        forget_store(e);
    }
    e->rebuild = 0;
    e->unsaved = 1;
    e->wal_end = 0;
    bool ok = checkpoint_locked(e);
    if (!ok) {
        e->rebuild = 1;
    } else if (e->rebuild_open) {
        close(e->rebuild_fd); /* other handles may fold the log again */
        e->rebuild_open = 0;
    }
    lock_release(e);
    return ok;
}

extern "C" {

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
        TrnPathList paths;
        int fd = index_open(e, "tarnwick.wal", O_RDWR);
        cut = fd >= 0 && wal_paths(e, fd, e->own_from, e->own_end, &paths)
              && ftruncate(fd, (off_t)e->own_from) == 0 && fsync(fd) == 0;
        if (fd >= 0) {
            close(fd);
        }
        if (cut) {
            manifest_forget(e, paths);
            int32_t status = e->status;
            char error[TRN_ERROR_MAX];
            memcpy(error, e->error, sizeof error);
            /* The log is shorter than the handle read it: it loads the state again. */
            if (!index_refresh_locked(e)) {
                e->refused = e->status;
            }
            e->status = status;
            memcpy(e->error, error, sizeof error);
        }
    }
    e->own_known = 0;
    lock_release(e);
    return cut ? 1 : 0;
}

} /* extern "C" */

bool commit_write(TrnEngine *e, uint64_t store_size, uint32_t store_crc)
{
    CommitRecord rec = {};
    rec.generation = e->generation + 1;
    rec.store_size = store_size;
    rec.store_crc = store_crc;
    rec.flags = COMMIT_HAS_PREVIOUS | (e->store_present ? 0 : COMMIT_PREVIOUS_ABSENT);
    rec.previous_size = e->store_present ? e->store_size : 0;
    rec.previous_crc = e->store_present ? e->store_crc : 0;
    if (!e->has_index_id) {
        /* The first commit of this index, or the first since one of version 1. */
        size_t got = 0;
        while (got < sizeof e->index_id) {
            ssize_t n = getrandom(e->index_id + got, sizeof e->index_id - got, 0);
            if (n < 0 && errno != EINTR) {
                return fail_status(e, TRN_STATUS_IO_ERROR, errno);
            }
            got += n > 0 ? (size_t)n : 0;
        }
        e->has_index_id = 1;
    }
    memcpy(rec.index_id, e->index_id, sizeof rec.index_id);
    uint8_t bytes[TRN_COMMIT_SIZE];
    commit_encode(&rec, bytes);

    char tmp[64];
    int fd = index_open_temp(e, "tarnwick.commit", tmp, sizeof tmp);
    if (fd < 0) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    ssize_t n = write(fd, bytes, sizeof bytes);
    int err = n < 0 ? errno : ENOSPC;
    bool ok = n == (ssize_t)sizeof bytes;
    if (ok && fsync(fd) != 0) {
        ok = false;
        err = errno;
    }
    if (close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && !index_rename(e, tmp, "tarnwick.commit")) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        index_unlink(e, tmp);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    if (!index_dir_sync(e)) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    return true;
}

void remove_stale_temps(const TrnEngine *e)
{
    int fd = e->dir_open ? openat(e->dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    DIR *d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!d) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    while (struct dirent *ent = readdir(d)) {
        const char *name = ent->d_name;
        size_t n = strlen(name);
        bool temp = (strncmp(name, "tarnwick.bin.", 13) == 0 && n == 19)
                    || (strncmp(name, "tarnwick.lex.", 13) == 0 && n == 19)
                    || (strncmp(name, "tarnwick.commit.", 16) == 0 && n == 22)
                    || (strncmp(name, "tarnwick.files.", 15) == 0 && n == 21);
        if (temp && !strstr(name, ".damaged")) {
            index_unlink(e, name);
        }
    }
    closedir(d);
}
