/*
** ignore.cpp -- exclusion patterns in gitignore syntax, read as git reads them.
**
** One line is one pattern. Blank lines and lines starting with "#" are skipped; "\#" and "\!"
** begin a pattern with those characters. Trailing spaces are dropped unless escaped with "\". A
** leading "!" re-includes what an earlier pattern excluded. A trailing "/" makes the pattern
** match directories only. A pattern with a "/" at its start or in its middle is anchored: it is
** matched against the path relative to the directory of its ignore file; one without is matched
** against the last path component at any depth below that directory.
**
** The rules form a stack: the global patterns at the bottom, then for each directory from the
** root down its ".gitignore" and ".tarnwickignore". The last rule that matches decides, which
** gives lower directories precedence over higher ones, as in git.
*/
#include "files.h"
#include "internal.h"

#include <cctype>
#include <cstring>

#include <sys/stat.h>

namespace
{

constexpr size_t IGNORE_FILE_MAX = 1 << 20; /* bytes of one ignore file that are read */
constexpr int32_t DIR_DEPTH_MAX = TRN_WALK_MAX / 2;

struct IgnoreRule {
    char *pattern; /* owned; without "!", leading and trailing "/", trailing spaces */
    size_t length;
    char *base; /* owned; the directory of the ignore file relative to the root, "" or "a/b/" */
    size_t base_length;
    char *reason; /* owned; "<file>:<line>: <text>" or "global pattern <text>" */
    bool negate;
    bool dir_only;
    bool anchored;
};

bool is_class_char(const char *name, size_t n, unsigned char c)
{
    struct Named {
        const char *name;
        int (*test)(int);
    };
    static const Named classes[] = {{"alnum", isalnum},
                                    {"alpha", isalpha},
                                    {"blank", isblank},
                                    {"cntrl", iscntrl},
                                    {"digit", isdigit},
                                    {"graph", isgraph},
                                    {"lower", islower},
                                    {"print", isprint},
                                    {"punct", ispunct},
                                    {"space", isspace},
                                    {"upper", isupper},
                                    {"xdigit", isxdigit}};
    for (const Named &cls : classes) {
        if (strlen(cls.name) == n && memcmp(cls.name, name, n) == 0) {
            return cls.test(c) != 0;
        }
    }
    return false;
}

/* Matches the bracket expression starting after "[" at p against c. Sets *end to the byte after
** the closing "]"; returns -1 when the expression is not closed (then "[" is a literal). */
int match_class(const char *p, const char *pend, unsigned char c, const char **end)
{
    bool negate = false;
    if (p < pend && (*p == '!' || *p == '^')) {
        negate = true;
        p++;
    }
    bool matched = false;
    bool first = true;
    while (p < pend && (*p != ']' || first)) {
        first = false;
        if (*p == '[' && p + 1 < pend && p[1] == ':') {
            const char *close = p + 2;
            while (close + 1 < pend && !(close[0] == ':' && close[1] == ']')) {
                close++;
            }
            if (close + 1 < pend) {
                matched |= is_class_char(p + 2, (size_t)(close - (p + 2)), c);
                p = close + 2;
                continue;
            }
        }
        unsigned char lo = (unsigned char)*p;
        if (*p == '\\' && p + 1 < pend) {
            p++;
            lo = (unsigned char)*p;
        }
        p++;
        unsigned char hi = lo;
        if (p + 1 < pend && *p == '-' && p[1] != ']') {
            p++;
            if (*p == '\\' && p + 1 < pend) {
                p++;
            }
            hi = (unsigned char)*p;
            p++;
        }
        if (c >= lo && c <= hi) {
            matched = true;
        }
    }
    if (p >= pend) {
        return -1;
    }
    *end = p + 1;
    return matched != negate ? 1 : 0;
}

bool glob(const char *p, const char *pend, const char *t, const char *tend, bool at_segment_start)
{
    while (p < pend) {
        char pc = *p;
        if (pc == '*') {
            const char *stars = p;
            while (p < pend && *p == '*') {
                p++;
            }
            bool double_star = p - stars >= 2 && at_segment_start && (p == pend || *p == '/');
            if (double_star) {
                if (p == pend) {
                    return true; /* a trailing double star: everything inside */
                }
                /* "**" followed by "/": zero or more whole directories. */
                const char *rest = p + 1;
                if (glob(rest, pend, t, tend, true)) {
                    return true;
                }
                for (const char *s = t; s < tend; s++) {
                    if (*s == '/' && glob(rest, pend, s + 1, tend, true)) {
                        return true;
                    }
                }
                return false;
            }
            /* Any run of characters other than "/". */
            for (const char *s = t;; s++) {
                if (glob(p, pend, s, tend, false)) {
                    return true;
                }
                if (s >= tend || *s == '/') {
                    return false;
                }
            }
        }
        if (t >= tend) {
            return false;
        }
        if (pc == '?') {
            if (*t == '/') {
                return false;
            }
        } else if (pc == '[') {
            const char *end = nullptr;
            int r = *t == '/' ? 0 : match_class(p + 1, pend, (unsigned char)*t, &end);
            if (r == 0) {
                return false;
            }
            if (r == 1) {
                at_segment_start = false;
                p = end;
                t++;
                continue;
            }
            if (*t != '[') { /* unclosed: a literal "[" */
                return false;
            }
        } else {
            if (pc == '\\') {
                if (p + 1 >= pend) {
                    return false; /* a trailing backslash matches nothing, as in git */
                }
                p++;
                pc = *p;
            }
            if (pc != *t) {
                return false;
            }
        }
        at_segment_start = *t == '/';
        p++;
        t++;
    }
    return t == tend;
}

char *concat3(const char *a, const char *b, const char *c)
{
    size_t la = strlen(a), lb = strlen(b), lc = strlen(c);
    char *s = static_cast<char *>(xmalloc(la + lb + lc + 1));
    memcpy(s, a, la);
    memcpy(s + la, b, lb);
    memcpy(s + la + lb, c, lc);
    s[la + lb + lc] = '\0';
    return s;
}

} // namespace

struct IgnoreRules {
    IgnoreRule *rules; /* count used of capacity */
    size_t count;
    size_t capacity;
    size_t marks[DIR_DEPTH_MAX + 1]; /* rule count before each pushed directory */
    int32_t depth;
};

namespace
{

/* Parses one line into a rule; false for a blank line or a comment. */
bool add_rule(IgnoreRules *r, const char *line, size_t n, const char *base, const char *reason)
{
    /* Trailing spaces go unless escaped; a trailing "\r" is part of the line as git sees it on
    ** Linux, but such files come from other systems, so it is dropped too. */
    if (n > 0 && line[n - 1] == '\r') {
        n--;
    }
    while (n > 0 && line[n - 1] == ' ' && !(n >= 2 && line[n - 2] == '\\')) {
        n--;
    }
    if (n == 0 || line[0] == '#') {
        return false;
    }
    IgnoreRule rule = {};
    const char *p = line;
    if (*p == '!') {
        rule.negate = true;
        p++;
        n--;
    }
    if (n > 0 && p[n - 1] == '/') {
        rule.dir_only = true;
        n--;
    }
    /* A slash anywhere but at the end anchors the pattern to its directory. */
    for (size_t i = 0; i < n; i++) {
        if (p[i] == '/') {
            rule.anchored = true;
        }
    }
    if (n > 0 && *p == '/') {
        p++;
        n--;
    }
    if (n == 0) {
        return false;
    }
    rule.pattern = static_cast<char *>(xmalloc(n + 1));
    memcpy(rule.pattern, p, n);
    rule.pattern[n] = '\0';
    rule.length = n;
    rule.base = xstrdup(base);
    rule.base_length = strlen(base);
    rule.reason = xstrdup(reason);
    if (r->count == r->capacity) {
        r->capacity = r->capacity ? xmul(r->capacity, 2) : 32;
        r->rules =
            static_cast<IgnoreRule *>(xrealloc(r->rules, xmul(r->capacity, sizeof(IgnoreRule))));
    }
    r->rules[r->count++] = rule;
    return true;
}

void read_ignore_file(IgnoreRules *r, const char *dir_path, const char *rel_dir, const char *name)
{
    char path[TRN_WALK_MAX];
    int len = snprintf(path, sizeof path, "%s/%s", dir_path, name);
    if (len < 0 || (size_t)len >= sizeof path) {
        return;
    }
    FILE *f = fopen(path, "rb");
    if (!f) {
        return;
    }
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
        fclose(f);
        return;
    }
    char *buf = static_cast<char *>(xmalloc(IGNORE_FILE_MAX + 1));
    size_t n = fread(buf, 1, IGNORE_FILE_MAX, f);
    fclose(f);
    buf[n] = '\0';
    char *shown = concat3(rel_dir, name, "");
    size_t start = 0;
    int line_no = 0;
    while (start < n) {
        size_t end = start;
        while (end < n && buf[end] != '\n') {
            end++;
        }
        line_no++;
        size_t shown_len = end - start;
        if (shown_len > 0 && buf[end - 1] == '\r') {
            shown_len--;
        }
        char prefix[TRN_WALK_MAX + 32];
        snprintf(prefix, sizeof prefix, "%s:%d: ", shown, line_no);
        char *text = static_cast<char *>(xmalloc(shown_len + 1));
        memcpy(text, buf + start, shown_len);
        text[shown_len] = '\0';
        char *reason = concat3(prefix, text, "");
        add_rule(r, buf + start, end - start, rel_dir, reason);
        free(reason);
        free(text);
        start = end + 1;
    }
    free(shown);
    free(buf);
}

} // namespace

bool glob_match(const char *pattern, size_t pattern_len, const char *text, size_t text_len)
{
    return glob(pattern, pattern + pattern_len, text, text + text_len, true);
}

IgnoreRules *ignore_rules_new(const char *const *patterns, int32_t count)
{
    IgnoreRules *r = static_cast<IgnoreRules *>(xcalloc(1, sizeof(IgnoreRules)));
    for (int32_t i = 0; i < count; i++) {
        if (!patterns[i]) {
            continue;
        }
        char *reason = concat3("global pattern ", patterns[i], "");
        add_rule(r, patterns[i], strlen(patterns[i]), "", reason);
        free(reason);
    }
    return r;
}

void ignore_rules_free(IgnoreRules *r)
{
    if (!r) {
        return;
    }
    for (size_t i = 0; i < r->count; i++) {
        free(r->rules[i].pattern);
        free(r->rules[i].base);
        free(r->rules[i].reason);
    }
    free(r->rules);
    free(r);
}

void ignore_rules_push_dir(IgnoreRules *r, const char *dir_path, const char *rel_dir)
{
    if (r->depth < DIR_DEPTH_MAX) {
        r->marks[r->depth] = r->count;
    }
    r->depth++;
    /* rel_dir with a trailing "/" is the base that the patterns of its files are relative to. */
    char base[TRN_WALK_MAX + 1];
    snprintf(base, sizeof base, "%s%s", rel_dir, rel_dir[0] ? "/" : "");
    read_ignore_file(r, dir_path, base, ".gitignore");
    read_ignore_file(r, dir_path, base, ".tarnwickignore");
}

void ignore_rules_pop_dir(IgnoreRules *r)
{
    if (r->depth == 0) {
        return;
    }
    r->depth--;
    if (r->depth > DIR_DEPTH_MAX) {
        return;
    }
    size_t keep = r->marks[r->depth];
    for (size_t i = keep; i < r->count; i++) {
        free(r->rules[i].pattern);
        free(r->rules[i].base);
        free(r->rules[i].reason);
    }
    r->count = keep;
}

const char *ignore_rules_match(const IgnoreRules *r, const char *rel_path, bool is_dir)
{
    size_t path_len = strlen(rel_path);
    const char *slash = strrchr(rel_path, '/');
    const char *name = slash ? slash + 1 : rel_path;
    size_t name_len = path_len - (size_t)(name - rel_path);
    for (size_t i = r->count; i-- > 0;) {
        const IgnoreRule &rule = r->rules[i];
        if (rule.dir_only && !is_dir) {
            continue;
        }
        if (strncmp(rel_path, rule.base, rule.base_length) != 0) {
            continue; /* a rule of another branch; the stack holds ancestors only */
        }
        bool hit =
            rule.anchored ? glob_match(
                rule.pattern, rule.length, rel_path + rule.base_length, path_len - rule.base_length)
                          : glob_match(rule.pattern, rule.length, name, name_len);
        if (hit) {
            return rule.negate ? nullptr : rule.reason;
        }
    }
    return nullptr;
}
