/*
** walk.cpp -- the engine's one directory walk (trn_ingest_dir, trn_list_dir_files), and the
** helper that opens the index's files for the owner alone.
**
** A walk visits the regular files below a root, depth first in readdir order, skipping every
** name that begins with "." (hidden files and directories, "." and "..", the index directory
** ".tarnwick"). It must end on any tree a user can make, and must not leave it:
**   - a symbolic link to a file is followed only when its target, fully resolved, lies inside
**     the root's own resolved path; a link to a file in /etc or above the root is skipped;
**   - a symbolic link to a directory is never entered: one inside the tree names a directory the
**     walk reaches under its own name anyway (so every walk, the application's too, gives each
**     file the same path), and one outside leads out of the tree or back into it forever;
**   - every directory is entered at most once, remembered by (device, inode), so a bind mount of
**     an ancestor ends the descent there too;
**   - paths longer than TRN_WALK_MAX are skipped, which bounds the depth.
** The visited set is an open-addressing hash table of (device, inode) pairs that doubles at half
** load.
*/
#include "internal.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr size_t FIRST_VISITED_CAPACITY = 64; /* a power of two */

struct DirKey {
    dev_t dev;
    ino_t ino;
    bool used;
};

struct Walk {
    char root[PATH_MAX]; /* the root, resolved */
    size_t root_len;
    DirKey *visited; /* capacity slots, at most half used */
    size_t visited_count;
    size_t visited_capacity;
    WalkFileFn on_file;
    WalkDirFn on_dir; /* may be NULL */
    void *user;
};

size_t key_hash(dev_t dev, ino_t ino)
{
    uint64_t h = (uint64_t)ino * 0x9E3779B97F4A7C15ull ^ (uint64_t)dev * 0xC2B2AE3D27D4EB4Full;
    return (size_t)(h ^ (h >> 29));
}

void visited_put(DirKey *slots, size_t capacity, dev_t dev, ino_t ino)
{
    size_t i = key_hash(dev, ino) & (capacity - 1);
    while (slots[i].used) {
        i = (i + 1) & (capacity - 1);
    }
    slots[i] = DirKey{dev, ino, true};
}

/* Records the directory; false when it was recorded before. */
bool visit_once(Walk *w, dev_t dev, ino_t ino)
{
    size_t mask = w->visited_capacity - 1;
    for (size_t i = key_hash(dev, ino) & mask; w->visited[i].used; i = (i + 1) & mask) {
        if (w->visited[i].dev == dev && w->visited[i].ino == ino) {
            return false;
        }
    }
    if (2 * (w->visited_count + 1) > w->visited_capacity) {
        size_t grown = xmul(w->visited_capacity, 2);
        DirKey *slots = static_cast<DirKey *>(xcalloc(grown, sizeof(DirKey)));
        for (size_t i = 0; i < w->visited_capacity; i++) {
            if (w->visited[i].used) {
                visited_put(slots, grown, w->visited[i].dev, w->visited[i].ino);
            }
        }
        free(w->visited);
        w->visited = slots;
        w->visited_capacity = grown;
    }
    visited_put(w->visited, w->visited_capacity, dev, ino);
    w->visited_count++;
    return true;
}

/* The link at path resolves to the root or to something below it. */
bool link_stays_inside(const Walk *w, const char *path)
{
    char target[PATH_MAX];
    if (!realpath(path, target)) {
        return false; /* dangling, a loop of links, or unreadable */
    }
    if (w->root_len == 1) { /* the root is "/" */
        return true;
    }
    return strncmp(target, w->root, w->root_len) == 0
           && (target[w->root_len] == '/' || target[w->root_len] == '\0');
}

/* Walks one directory and, depth first, the directories below it. */
void walk_dir(Walk *w, const char *dir)
{
    DIR *d = opendir(dir);
    if (!d) {
        return;
    }
    struct dirent *entry;
    while ((entry = readdir(d)) != nullptr) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        char path[TRN_WALK_MAX];
        int len = snprintf(path, sizeof path, "%s/%s", dir, entry->d_name);
        if (len < 0 || (size_t)len >= sizeof path) {
            continue; /* a cut path would name another file */
        }
        struct stat st;
        if (lstat(path, &st) != 0) {
            continue;
        }
        if (S_ISLNK(st.st_mode)
            && (!link_stays_inside(w, path) || stat(path, &st) != 0 || S_ISDIR(st.st_mode))) {
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            if (visit_once(w, st.st_dev, st.st_ino)) {
                if (w->on_dir) {
                    w->on_dir(true, w->user);
                }
                walk_dir(w, path);
                if (w->on_dir) {
                    w->on_dir(false, w->user);
                }
            }
        } else if (S_ISREG(st.st_mode)) {
            if (!w->on_file(path, &st, w->user)) {
                break;
            }
        }
    }
    closedir(d);
}

} // namespace

int32_t walk_tree(const char *root, WalkFileFn on_file, WalkDirFn on_dir, void *user)
{
    struct stat st;
    if (stat(root, &st) != 0 || !S_ISDIR(st.st_mode)) {
        return -1;
    }
    DIR *probe = opendir(root);
    if (!probe) {
        return -1;
    }
    closedir(probe);
    Walk *w = static_cast<Walk *>(xcalloc(1, sizeof(Walk)));
    if (!realpath(root, w->root)) {
        free(w);
        return -1;
    }
    w->root_len = strlen(w->root);
    w->visited_capacity = FIRST_VISITED_CAPACITY;
    w->visited = static_cast<DirKey *>(xcalloc(w->visited_capacity, sizeof(DirKey)));
    w->on_file = on_file;
    w->on_dir = on_dir;
    w->user = user;
    visit_once(w, st.st_dev, st.st_ino);
    walk_dir(w, root);
    free(w->visited);
    free(w);
    return 0;
}

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
