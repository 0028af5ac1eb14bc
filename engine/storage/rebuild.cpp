/*
** rebuild.cpp -- a rebuild reads every file again into a handle of its own, in memory, and swaps
** it in as the directory's index with one checkpoint. Other processes keep committing groups to
** the log meanwhile and hold their checkpoints off (locks.cpp), so the swap takes up every group
** committed while it ran.
*/
#include "internal.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

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
    graph_clear(probe, TRN_GRAPH_PARTS);
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
    store_map_release(probe);
    free(probe->vectors);
    free(probe->nodes);
    free(probe);
}

} // namespace

void rebuild_begin(TrnEngine *e)
{
    int fd = lock_file_open(e, "tarnwick.rebuild");
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
    /* The log that completes the store the swap replaces, for the commit record. */
    uint64_t log_end = probe->wal_end;
    uint32_t log_crc = probe->wal_crc;
    uint8_t log_stale = probe->wal_stale, log_legacy = probe->wal_legacy;
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
    e->wal_end = log_end;
    e->wal_crc = log_crc;
    e->wal_stale = log_stale;
    e->wal_legacy = log_legacy;
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
