/*
** walk.cpp -- the one directory walk (walk_files of files.h), and the helper that opens the
** index's files for the owner alone.
**
** A walk visits everything below a root, depth first, each directory's entries in name order,
** and says of each file whether it is read for the index and why not (files.h). It must end on
** any tree a user can make, and must not leave it:
**   - a symbolic link to a file is followed only when its target, fully resolved, lies inside
**     the root's own resolved path; a link to a file in /etc or above the root is skipped;
**   - a symbolic link to a directory is never entered: one inside the tree names a directory the
**     walk reaches under its own name anyway (so every caller gives each file the same path),
**     and one outside leads out of the tree or back into it forever;
**   - every directory is entered at most once, remembered by (device, inode), so a bind mount of
**     an ancestor ends the descent there too;
**   - paths longer than TRN_WALK_MAX are skipped, which bounds the depth;
**   - a file's size is taken from stat before its type is sniffed, so a file over the limit is
**     never opened.
** Exclusion (hidden names, global patterns, ignore files) is decided by ignore.cpp before an
** entry is stat'ed further; an excluded directory is reported once and not entered.
** The visited set is an open-addressing hash table of (device, inode) pairs that doubles at half
** load.
*/
#include "files.h"
#include "internal.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

const char *const WALK_DEFAULT_EXCLUDES[] = {
    ".git", "node_modules", "__pycache__", "build", "dist", "target", ".venv"};
const int32_t WALK_DEFAULT_EXCLUDE_COUNT =
    (int32_t)(sizeof WALK_DEFAULT_EXCLUDES / sizeof WALK_DEFAULT_EXCLUDES[0]);

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
    size_t prefix_len; /* bytes of the root as given, plus the "/" after it */
    DirKey *visited;   /* capacity slots, at most half used */
    size_t visited_count;
    size_t visited_capacity;
    IgnoreRules *ignore;
    const char *const *extra;
    int32_t extra_count;
    uint64_t max_size;
    WalkScope scope;
    WalkFn fn;
    void *user;
    bool stopped;
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

int compare_names(const void *a, const void *b)
{
    return strcmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b));
}

/* The names of a directory except "." and "..", sorted; NULL when it cannot be opened. */
char **list_names(const char *dir, size_t *count)
{
    DIR *d = opendir(dir);
    if (!d) {
        return nullptr;
    }
    size_t n = 0;
    size_t capacity = 16;
    char **names = static_cast<char **>(xmalloc(capacity * sizeof(char *)));
    struct dirent *entry;
    while ((entry = readdir(d)) != nullptr) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        if (n == capacity) {
            capacity = xmul(capacity, 2);
            names = static_cast<char **>(xrealloc(names, xmul(capacity, sizeof(char *))));
        }
        names[n++] = xstrdup(entry->d_name);
    }
    closedir(d);
    qsort(names, n, sizeof(char *), compare_names);
    *count = n;
    return names;
}

WalkAction report(Walk *w, WalkKind kind, const char *path, int32_t depth, const struct stat *st,
                  TrnFileStatus status, TrnFileType type, const char *reason)
{
    WalkedFile f = {};
    f.kind = kind;
    f.path = path;
    f.rel_path = path + w->prefix_len;
    f.depth = depth;
    if (st) {
        f.size = st->st_size > 0 ? (uint64_t)st->st_size : 0;
        f.mtime_ns = (int64_t)st->st_mtim.tv_sec * 1000000000 + st->st_mtim.tv_nsec;
        f.dev = (uint64_t)st->st_dev;
        f.ino = (uint64_t)st->st_ino;
    }
    f.status = status;
    f.type = type;
    f.reason = reason ? reason : "";
    WalkAction action = w->fn(&f, w->user);
    if (action == WALK_STOP) {
        w->stopped = true;
    }
    return action;
}

/* Walks one directory and, depth first, the directories below it. */
void walk_dir(Walk *w, const char *dir, int32_t depth)
{
    size_t count = 0;
    char **names = list_names(dir, &count);
    if (!names) {
        return;
    }
    ignore_rules_push_dir(w->ignore, dir, dir[w->prefix_len - 1] ? dir + w->prefix_len : "");
    for (size_t i = 0; i < count && !w->stopped; i++) {
        const char *name = names[i];
        char path[TRN_WALK_MAX];
        int len = snprintf(path, sizeof path, "%s/%s", dir, name);
        if (len < 0 || (size_t)len >= sizeof path) {
            continue; /* a cut path would name another file */
        }
        struct stat st;
        if (lstat(path, &st) != 0) {
            continue; /* gone since the listing */
        }
        if (S_ISLNK(st.st_mode)
            && (!link_stays_inside(w, path) || stat(path, &st) != 0 || S_ISDIR(st.st_mode))) {
            continue;
        }
        bool is_dir = S_ISDIR(st.st_mode);
        if (!is_dir && !S_ISREG(st.st_mode)) {
            continue; /* sockets, devices, pipes */
        }
        if (is_dir && strcmp(name, ".tarnwick") == 0) {
            continue; /* an index directory is the program's own data, never reported */
        }
        const char *excluded = name[0] == '.'
                                   ? "hidden name"
                                   : ignore_rules_match(w->ignore, path + w->prefix_len, is_dir);
        WalkAction action = WALK_CONTINUE;
        if (!is_dir && w->scope == WALK_SCOPE_DIRS) {
            continue;
        }
        if (excluded) {
            action = report(w,
                            is_dir ? WALK_DIR : WALK_FILE,
                            path,
                            depth,
                            &st,
                            TRN_FILE_STATUS_EXCLUDED,
                            TRN_FILE_TYPE_UNKNOWN,
                            excluded);
        } else if (is_dir) {
            if (!visit_once(w, st.st_dev, st.st_ino)) {
                continue;
            }
            DIR *probe = opendir(path);
            if (!probe) {
                action = report(w,
                                WALK_DIR,
                                path,
                                depth,
                                &st,
                                TRN_FILE_STATUS_UNREADABLE,
                                TRN_FILE_TYPE_UNKNOWN,
                                nullptr);
            } else {
                closedir(probe);
                action = report(w,
                                WALK_DIR_ENTER,
                                path,
                                depth,
                                &st,
                                TRN_FILE_STATUS_INDEXABLE,
                                TRN_FILE_TYPE_UNKNOWN,
                                nullptr);
                if (action == WALK_CONTINUE) {
                    walk_dir(w, path, depth + 1);
                }
                if (!w->stopped) {
                    action = report(w,
                                    WALK_DIR_LEAVE,
                                    path,
                                    depth,
                                    &st,
                                    TRN_FILE_STATUS_INDEXABLE,
                                    TRN_FILE_TYPE_UNKNOWN,
                                    nullptr);
                }
            }
        } else if ((uint64_t)st.st_size > w->max_size) {
            action = report(w,
                            WALK_FILE,
                            path,
                            depth,
                            &st,
                            TRN_FILE_STATUS_TOO_LARGE,
                            TRN_FILE_TYPE_UNKNOWN,
                            nullptr);
        } else {
            TrnFileStatus status = TRN_FILE_STATUS_INDEXABLE;
            TrnFileType type = TRN_FILE_TYPE_UNKNOWN;
            if (w->scope == WALK_SCOPE_FILES) {
                type = classify_file(path, w->extra, w->extra_count, &status);
            }
            action = report(w, WALK_FILE, path, depth, &st, status, type, nullptr);
        }
        if (action == WALK_LEAVE_DIR) {
            break;
        }
    }
    ignore_rules_pop_dir(w->ignore);
    for (size_t i = 0; i < count; i++) {
        free(names[i]);
    }
    free(names);
}

/* Walks from, below the root of w: the ignore files of the directories above it are read first,
** and from is walked only when a walk from the root would enter it. */
void walk_below(Walk *w, const char *root, const char *from)
{
    char dir[TRN_WALK_MAX];
    snprintf(dir, sizeof dir, "%s", root);
    ignore_rules_push_dir(w->ignore, dir, "");
    int32_t pushed = 1, depth = 0;
    const char *rest = from + w->prefix_len;
    for (;;) {
        const char *slash = strchr(rest, '/');
        size_t name_len = slash ? (size_t)(slash - rest) : strlen(rest);
        char path[TRN_WALK_MAX];
        int len = snprintf(path, sizeof path, "%s/%.*s", dir, (int)name_len, rest);
        struct stat st;
        if (name_len == 0 || len < 0 || (size_t)len >= sizeof path || rest[0] == '.'
            || ignore_rules_match(w->ignore, path + w->prefix_len, true) || lstat(path, &st) != 0
            || !S_ISDIR(st.st_mode) || !visit_once(w, st.st_dev, st.st_ino)) {
            break;
        }
        if (!slash) {
            WalkAction action = report(w,
                                       WALK_DIR_ENTER,
                                       path,
                                       depth,
                                       &st,
                                       TRN_FILE_STATUS_INDEXABLE,
                                       TRN_FILE_TYPE_UNKNOWN,
                                       nullptr);
            if (action == WALK_CONTINUE) {
                walk_dir(w, path, depth + 1);
            }
            if (!w->stopped) {
                report(w,
                       WALK_DIR_LEAVE,
                       path,
                       depth,
                       &st,
                       TRN_FILE_STATUS_INDEXABLE,
                       TRN_FILE_TYPE_UNKNOWN,
                       nullptr);
            }
            break;
        }
        ignore_rules_push_dir(w->ignore, path, path + w->prefix_len);
        pushed++;
        memcpy(dir, path, (size_t)len + 1);
        depth++;
        rest = slash + 1;
    }
    while (pushed-- > 0) {
        ignore_rules_pop_dir(w->ignore);
    }
}

} // namespace

int32_t walk_tree(const char *root, const char *from, WalkScope scope, const TrnWalkOptions *opts,
                  WalkFn fn, void *user)
{
    struct stat st;
    if (!root || !from || stat(root, &st) != 0 || !S_ISDIR(st.st_mode)) {
        return -1;
    }
    DIR *probe = opendir(root);
    if (!probe) {
        return -1;
    }
    closedir(probe);
    size_t given_len = strlen(root);
    while (given_len > 1 && root[given_len - 1] == '/') {
        given_len--; /* "dir/" and "dir" give the same paths */
    }
    if (given_len + 2 >= TRN_WALK_MAX) {
        return -1;
    }
    size_t from_len = strlen(from);
    while (from_len > given_len && from[from_len - 1] == '/') {
        from_len--;
    }
    bool below = from_len > given_len;
    if (strncmp(from, root, given_len) != 0 || (below && from[given_len] != '/')
        || from_len >= TRN_WALK_MAX) {
        return -1;
    }
    char start[TRN_WALK_MAX];
    memcpy(start, root, given_len);
    start[given_len] = '\0';
    char below_path[TRN_WALK_MAX];
    memcpy(below_path, from, from_len);
    below_path[from_len] = '\0';
    Walk *w = static_cast<Walk *>(xcalloc(1, sizeof(Walk)));
    if (!realpath(root, w->root)) {
        free(w);
        return -1;
    }
    w->root_len = strlen(w->root);
    /* The root "/" builds "//name": the relative path starts after both slashes. */
    w->prefix_len = given_len == 1 && start[0] == '/' ? 2 : given_len + 1;
    w->visited_capacity = FIRST_VISITED_CAPACITY;
    w->visited = static_cast<DirKey *>(xcalloc(w->visited_capacity, sizeof(DirKey)));
    bool own_patterns = opts && opts->exclude_pattern_count > 0 && opts->exclude_patterns;
    w->ignore = own_patterns ? ignore_rules_new(opts->exclude_patterns, opts->exclude_pattern_count)
                             : ignore_rules_new(WALK_DEFAULT_EXCLUDES, WALK_DEFAULT_EXCLUDE_COUNT);
    if (opts && opts->extra_extensions && opts->extra_extension_count > 0) {
        w->extra = opts->extra_extensions;
        w->extra_count = opts->extra_extension_count;
    }
    w->max_size = TRN_FILE_SIZE_MAX;
    if (opts && opts->max_file_size > 0) {
        w->max_size = opts->max_file_size;
    }
    w->scope = scope;
    w->fn = fn;
    w->user = user;
    visit_once(w, st.st_dev, st.st_ino);
    if (below) {
        walk_below(w, start, below_path);
    } else {
        walk_dir(w, start, 0);
    }
    bool stopped = w->stopped;
    ignore_rules_free(w->ignore);
    free(w->visited);
    free(w);
    return stopped ? 1 : 0;
}

int32_t walk_files(const char *root, const TrnWalkOptions *opts, WalkFn fn, void *user)
{
    return walk_tree(root, root, WALK_SCOPE_FILES, opts, fn, user);
}
