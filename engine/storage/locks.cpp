/*
** locks.cpp -- the locks that let several processes share one index directory. Each is an empty
** file of the index directory, locked with flock(2):
**
**   tarnwick.lock     shared while a handle loads, exclusive while it writes. Locks are taken per
**                     operation, never held between calls, so a long-lived handle (an
**                     application tab) never blocks a command-line search.
**   tarnwick.turn     a writer holds it exclusively while it waits for the lock, and a reader
**                     takes it shared (and drops it at once) before its own: a waiting writer
**                     stops new readers, so readers that keep coming cannot starve it.
**   tarnwick.rebuild  held shared by a rebuilding handle until its swap: checkpoints of other
**                     handles leave the log alone meanwhile (rebuild.cpp).
*/
#include "internal.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

int g_busy_timeout_ms = TRN_BUSY_TIMEOUT_MS;

namespace
{

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

int lock_file_open(const TrnEngine *e, const char *name)
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

bool lock_take(TrnEngine *e, int op, int timeout_ms)
{
    if (!e->lock_open) {
        int fd = lock_file_open(e, "tarnwick.lock");
        if (fd < 0) {
            /* A directory that cannot hold the lock file cannot be written either: reads go
            ** ahead unlocked, writes meet the failure themselves. */
            return true;
        }
        e->lock_fd = fd;
        e->lock_open = 1;
    }
    if (!e->turn_open) {
        int fd = lock_file_open(e, "tarnwick.turn");
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
