/*
** file_io.cpp -- opening the index's own files. The index directory is opened once, without
** following a link, and checked to be the running user's alone: owned by them and writable by
** nobody else. Every index file is then reached from that descriptor (openat and its kin) and
** never through a link, so a link planted in the directory or in place of it cannot redirect a
** write to a file elsewhere. Every file is created 0600 and an existing one narrowed to 0600, so
** no other user can read what was indexed.
**
** It also knows the index's folder, the parent of the index directory, which paths in the index's
** files are written relative to (storage.h gives the form).
*/
#include "internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

bool deny(TrnEngine *e, const char *dir, const char *why, const char *fix)
{
    e->status = TRN_STATUS_DENIED;
    snprintf(e->error, sizeof e->error, "the index folder %s %s; %s", dir, why, fix);
    return false;
}

/* e->folder for the index directory dir; left empty (every path written whole) when it does
** not fit or the working directory cannot be read. */
void folder_set(TrnEngine *e, const char *dir)
{
    e->folder[0] = '\0';
    char full[TRN_PATH_MAX];
    if (dir[0] == '/') {
        snprintf(full, sizeof full, "%s", dir);
    } else {
        char cwd[TRN_PATH_MAX];
        if (!getcwd(cwd, sizeof cwd)) {
            return;
        }
        size_t n = strlen(cwd);
        if (snprintf(full, sizeof full, "%s%s%s", cwd, cwd[n - 1] == '/' ? "" : "/", dir)
            >= (int)sizeof full) {
            return;
        }
    }
    size_t n = strlen(full);
    while (n > 1 && full[n - 1] == '/') {
        n--;
    }
    while (n > 0 && full[n - 1] != '/') {
        n--; /* the index directory's own name */
    }
    while (n > 1 && full[n - 2] == '/') {
        n--;
    }
    full[n] = '\0'; /* the folder with its trailing '/' */
    snprintf(e->folder, sizeof e->folder, "%s", full);
}

} // namespace

DiskPath disk_path(const TrnEngine *e, const char *path)
{
    size_t n = strlen(path);
    size_t f = strlen(e->folder);
    if (f > 0 && n > f && memcmp(path, e->folder, f) == 0) {
        return DiskPath{true, path + f, (uint32_t)(n - f + 1)};
    }
    return DiskPath{false, path, (uint32_t)n};
}

char *path_from_disk(const TrnEngine *e, const uint8_t *p, size_t n)
{
    size_t f = 0;
    if (n > 0 && p[0] == '\0') {
        f = strlen(e->folder);
        p++;
        n--;
    }
    char *path = static_cast<char *>(xmalloc(f + n + 1));
    memcpy(path, e->folder, f);
    memcpy(path + f, p, n);
    path[f + n] = '\0';
    return path;
}

bool index_dir_open(TrnEngine *e, const char *dir)
{
    folder_set(e, dir);
    e->dir_fd = -1;
    e->dir_open = 0;
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        struct stat st;
        if (err == ENOENT) {
            return true; /* nothing to read; a write meets the missing directory itself */
        }
        if (err == ELOOP || (err == ENOTDIR && lstat(dir, &st) == 0 && S_ISLNK(st.st_mode))) {
            return deny(e, dir, "is a symbolic link", "remove the link and index the folder again");
        }
        char why[160];
        snprintf(why, sizeof why, "cannot be read: %s", strerror(err));
        return deny(e, dir, why, "check its owner and permissions");
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int err = errno;
        close(fd);
        char why[160];
        snprintf(why, sizeof why, "cannot be read: %s", strerror(err));
        return deny(e, dir, why, "check its owner and permissions");
    }
    if (st.st_uid != geteuid()) {
        close(fd);
        return deny(e,
                    dir,
                    "belongs to another user",
                    "move it away and index the folder again as yourself");
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        close(fd);
        char fix[TRN_PATH_MAX + 32];
        snprintf(fix, sizeof fix, "make it private with: chmod 700 %s", dir);
        return deny(e, dir, "is writable by other users", fix);
    }
    e->dir_fd = fd;
    e->dir_open = 1;
    return true;
}

void index_dir_close(TrnEngine *e)
{
    if (e->dir_open) {
        close(e->dir_fd);
        e->dir_open = 0;
        e->dir_fd = -1;
    }
}

int index_open(const TrnEngine *e, const char *name, int flags)
{
    if (!e->dir_open) {
        errno = ENOENT;
        return -1;
    }
    /* O_NONBLOCK: a planted FIFO must not hang the open; it changes nothing for a file. */
    int fd = openat(e->dir_fd, name, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if ((st.st_mode & 07777) != 0600 && st.st_uid == geteuid()) {
        /* A file made by an older version, or under a loose umask, is narrowed too. */
        (void)fchmod(fd, 0600);
    }
    return fd;
}

int index_open_temp(const TrnEngine *e, const char *name, char *tmp, size_t size)
{
    if (!e->dir_open) {
        errno = ENOENT;
        return -1;
    }
    static const char ALNUM[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    uint64_t x = (uint64_t)ts.tv_nsec ^ ((uint64_t)getpid() << 32) ^ (uint64_t)(uintptr_t)tmp;
    for (int attempt = 0; attempt < 100; attempt++) {
        char suffix[7];
        for (int i = 0; i < 6; i++) {
            x = x * 6364136223846793005ull + 1442695040888963407ull; /* Knuth's MMIX LCG */
            suffix[i] = ALNUM[(x >> 33) % (sizeof ALNUM - 1)];
        }
        suffix[6] = '\0';
        snprintf(tmp, size, "%s.%s", name, suffix);
        int fd = openat(e->dir_fd, tmp, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0 || errno != EEXIST) {
            return fd;
        }
    }
    errno = EEXIST;
    return -1;
}

bool index_rename(const TrnEngine *e, const char *from, const char *to)
{
    if (!e->dir_open) {
        errno = ENOENT;
        return false;
    }
    return renameat(e->dir_fd, from, e->dir_fd, to) == 0;
}

void index_unlink(const TrnEngine *e, const char *name)
{
    if (e->dir_open) {
        (void)unlinkat(e->dir_fd, name, 0);
    }
}

bool index_stat(const TrnEngine *e, const char *name, struct stat *st)
{
    return e->dir_open && fstatat(e->dir_fd, name, st, AT_SYMLINK_NOFOLLOW) == 0
           && S_ISREG(st->st_mode);
}

bool index_dir_sync(const TrnEngine *e)
{
    if (!e->dir_open) {
        errno = ENOENT;
        return false;
    }
    return fsync(e->dir_fd) == 0;
}
