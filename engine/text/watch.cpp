/*
** watch.cpp -- trn_watch_*: tells when something in a directory tree changed, so an update can
** follow (the application's tabs and tarnwick-cli watch share it).
**
** With inotify, every directory the walk enters (text/files.h: its exclusion patterns, .gitignore
** and .tarnwickignore) gets a watch for writes, creations, deletions, moves and attribute
** changes; a directory made later is watched as soon as its creation is read. Names beginning with
*"." (the index directory, editors' swap files) are neither watched
** nor counted, except ".gitignore" and ".tarnwickignore", which change what is indexed.
**
** Each watch costs kernel memory, and a user's watches are limited (fs.inotify.max_user_watches,
** often 8192 to 65536, shared by every program of the user). When a watch cannot be added, or
** inotify is missing, the watch falls back to comparing: each trn_watch_changed walks the tree and
** compares one hash over every file's path, size and times with the last one.
*/
#include "files.h"
#include "internal.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_map>

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using XString = std::basic_string<char, std::char_traits<char>, XAllocator<char>>;
using WatchMap = std::unordered_map<int, XString, std::hash<int>, std::equal_to<int>,
                                    XAllocator<std::pair<const int, XString>>>;

constexpr uint32_t WATCH_MASK = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE
                                | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF
                                | IN_ONLYDIR | IN_EXCL_UNLINK;

bool counts(const char *name)
{
    return name[0] != '.' || strcmp(name, ".gitignore") == 0
           || strcmp(name, ".tarnwickignore") == 0;
}

} // namespace

struct TrnWatch {
    char root[PATH_MAX];
    size_t root_len;
    TrnWalkOptions opts; /* exclusions only, copied */
    char **patterns;
    int fd; /* inotify, or -1 when comparing */
    WatchMap *dirs;
    uint64_t snapshot; /* comparing: the hash of the last walk */
};

namespace
{

uint64_t mix(uint64_t h, uint64_t v)
{
    h ^= v + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
    return h;
}

/* Every file the walk reports, with its size and modification time, in a sum that does not
** depend on the order of the walk. */
uint64_t tree_snapshot(const TrnWatch *w)
{
    uint64_t h = 0;
    walk_tree(w->root, w->root, WALK_SCOPE_STAT, &w->opts, [&h](const WalkedFile &f) {
        if (f.kind == WALK_FILE) {
            uint64_t v = text_hash(f.path, strlen(f.path));
            v = mix(v, f.size);
            h += mix(v, (uint64_t)f.mtime_ns);
        }
        return WALK_CONTINUE;
    });
    return h;
}

void fall_back(TrnWatch *w)
{
    if (w->fd >= 0) {
        close(w->fd);
    }
    w->fd = -1;
    w->dirs->clear();
    w->snapshot = tree_snapshot(w);
}

/* Watches from (the root, or a directory made inside it since) and the directories below it that
** the walk enters, under its rules: what happens in node_modules, build or a directory that a
** .gitignore excludes never counts. False when the watch limit was reached. */
bool watch_tree(TrnWatch *w, const char *from)
{
    bool ok = true;
    auto watch = [w, &ok](const char *dir) {
        int wd = inotify_add_watch(w->fd, dir, WATCH_MASK);
        if (wd < 0) {
            ok = errno != ENOSPC && errno != ENOMEM;
            return false;
        }
        (*w->dirs)[wd] = XString(dir);
        return true;
    };
    if (strcmp(from, w->root) == 0 && !watch(from)) {
        return ok;
    }
    walk_tree(w->root, from, WALK_SCOPE_DIRS, &w->opts, [&watch, &ok](const WalkedFile &f) {
        if (f.kind != WALK_DIR_ENTER) {
            return WALK_CONTINUE;
        }
        if (!watch(f.path)) {
            return ok ? WALK_LEAVE_DIR : WALK_STOP; /* LEAVE_DIR: not entered */
        }
        return WALK_CONTINUE;
    });
    return ok;
}

} // namespace

extern "C" {

TrnWatch *trn_watch_open(const char *dir, const TrnWalkOptions *opts)
{
    struct stat st;
    if (!dir || stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
        return nullptr;
    }
    TrnWatch *w = static_cast<TrnWatch *>(xcalloc(1, sizeof(TrnWatch)));
    snprintf(w->root, sizeof w->root, "%s", dir);
    size_t n = strlen(w->root);
    while (n > 1 && w->root[n - 1] == '/') {
        w->root[--n] = '\0';
    }
    w->root_len = n;
    if (opts && opts->exclude_pattern_count > 0 && opts->exclude_patterns) {
        int32_t count = opts->exclude_pattern_count;
        w->patterns = static_cast<char **>(xcalloc((size_t)count, sizeof(char *)));
        for (int32_t i = 0; i < count; i++) {
            w->patterns[i] = xstrdup(opts->exclude_patterns[i] ? opts->exclude_patterns[i] : "");
        }
        w->opts.exclude_patterns = w->patterns;
        w->opts.exclude_pattern_count = count;
    }
    w->dirs = new (xmalloc(sizeof(WatchMap))) WatchMap();
    w->fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (w->fd < 0 || !watch_tree(w, w->root)) {
        fall_back(w);
    }
    return w;
}

int trn_watch_fd(const TrnWatch *w)
{
    return w ? w->fd : -1;
}

int32_t trn_watch_changed(TrnWatch *w)
{
    if (!w) {
        return 0;
    }
    if (w->fd < 0) {
        uint64_t now = tree_snapshot(w);
        bool changed = now != w->snapshot;
        w->snapshot = now;
        return changed ? 1 : 0;
    }
    int32_t changed = 0;
    alignas(struct inotify_event) char buf[16384];
    for (;;) {
        ssize_t len = read(w->fd, buf, sizeof buf);
        if (len < 0 && errno == EINTR) {
            continue;
        }
        if (len <= 0) {
            break;
        }
        for (char *p = buf; p < buf + len;) {
            const struct inotify_event *ev = reinterpret_cast<const struct inotify_event *>(p);
            p += sizeof(struct inotify_event) + ev->len;
            if (ev->mask & IN_Q_OVERFLOW) {
                changed = 1;
                continue;
            }
            if (ev->mask & IN_IGNORED) {
                w->dirs->erase(ev->wd);
                continue;
            }
            if (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
                changed = 1;
                continue;
            }
            const char *name = ev->len > 0 ? ev->name : "";
            if (name[0] == '\0' || !counts(name)) {
                continue;
            }
            changed = 1;
            auto dir = w->dirs->find(ev->wd);
            if ((ev->mask & IN_ISDIR) && (ev->mask & (IN_CREATE | IN_MOVED_TO))
                && dir != w->dirs->end() && name[0] != '.') {
                XString path = dir->second + "/" + name;
                if (!watch_tree(w, path.c_str())) {
                    fall_back(w);
                    return 1;
                }
            }
        }
    }
    return changed;
}

void trn_watch_close(TrnWatch *w)
{
    if (!w) {
        return;
    }
    if (w->fd >= 0) {
        close(w->fd);
    }
    w->dirs->~WatchMap();
    free(w->dirs);
    for (int32_t i = 0; i < w->opts.exclude_pattern_count; i++) {
        free(w->patterns[i]);
    }
    free(w->patterns);
    free(w);
}

} /* extern "C" */
