/*
** file_io.cpp -- opening the index's own files. Every file of an index directory is created
** 0600 and an existing one narrowed to 0600, so no other user can read what was indexed.
*/
#include "internal.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

FILE *private_fopen(const char *path, const char *mode)
{
    int flags = O_CLOEXEC;
    if (mode[0] == 'w') {
        flags |= O_WRONLY | O_CREAT | O_TRUNC;
    } else if (mode[0] == 'a') {
        flags |= O_WRONLY | O_CREAT | O_APPEND;
    } else {
        flags |= O_RDWR;
    }
    int fd = private_open(path, flags);
    if (fd < 0) {
        return nullptr;
    }
    FILE *f = fdopen(fd, mode);
    if (!f) {
        close(fd);
    }
    return f;
}

int private_open(const char *path, int flags)
{
    int fd = open(path, flags | O_CLOEXEC, 0600);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && (st.st_mode & 07777) != 0600) {
        /* A file made by an older version, or under a loose umask, is narrowed too; a file of
        ** another owner cannot be, and stays as it is. */
        (void)fchmod(fd, 0600);
    }
    return fd;
}
