/*
** narrow.cpp -- the words of a query that narrow a search rather than rank it, and which chunks
** they leave in. Every mode and both front ends read a query through split_query_words, so a
** word means the same everywhere: "a phrase" (the words in this order, also searched for),
** -word (chunks holding it are left out), type:pdf,docx and ext:md (kinds of file, extensions),
** in:sub/folder (a folder below the indexed one) and modified:>=2024-01-01 (and >, <, <=, a day,
** a month, a year, ranges a..b). tarnwick.h gives the rules a user reads.
**
** Phrases and left-out words are judged per chunk on its text, the rest per file on its path,
** stored type and modification time (one stat per file and search). The chunks a query leaves
** in form a mask over the chunk table; text and regular-expression scans and the keyword
** ranking skip the others, and the semantic rankings score the chunks left in one by one
** instead of walking the graph, which could not promise k hits among them. That costs a dot
** product per chunk left in (about 10 ms per 100,000 chunks), paid only by narrowed searches.
*/
#include "internal.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <memory>

#include <strings.h>
#include <sys/stat.h>

namespace
{

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

/* Bytes that make up words: ASCII letters and digits, and every byte of a multi-byte UTF-8
** character, so that "-café" is a word of its own and "über" does not match inside "Rüber". */
bool is_word_byte(unsigned char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80;
}

unsigned char lower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? (unsigned char)(c + ('a' - 'A')) : c;
}

/* The narrowing keys and the kind of word each makes. */
struct Key {
    const char *name;
    TrnQueryWordKind kind;
};
constexpr Key KEYS[] = {{"type", TRN_QUERY_WORD_TYPE},
                        {"ext", TRN_QUERY_WORD_EXT},
                        {"in", TRN_QUERY_WORD_FOLDER},
                        {"modified", TRN_QUERY_WORD_MODIFIED}};

/* Classifies the word w[0..n) on its own; a left-out word is settled by split_query_words. */
void classify(const char *w, int32_t n, TrnQueryWord *out)
{
    out->kind = TRN_QUERY_WORD_TERM;
    out->value_start = out->start;
    out->value_length = n;
    if (w[0] == '"') {
        out->kind = TRN_QUERY_WORD_PHRASE;
        out->value_start = out->start + 1;
        out->value_length = n - 1 - (n > 1 && w[n - 1] == '"' ? 1 : 0);
        return;
    }
    if (w[0] == '-' && n >= 2 && w[1] != '-') {
        out->kind = TRN_QUERY_WORD_EXCLUDED;
        out->value_start = out->start + 1;
        out->value_length = n - 1;
        return;
    }
    const char *colon = (const char *)memchr(w, ':', (size_t)n);
    const char *quote = (const char *)memchr(w, '"', (size_t)n);
    if (!colon || (quote && quote < colon)) {
        return;
    }
    for (const Key &key : KEYS) {
        size_t len = strlen(key.name);
        if ((size_t)(colon - w) == len && strncasecmp(w, key.name, len) == 0) {
            out->kind = key.kind;
            out->value_start = out->start + (int32_t)len + 1;
            out->value_length = n - (int32_t)len - 1;
            return;
        }
    }
}

/* The value of a word without its double quotes, appended to buf at *used with its NUL;
** returns where it starts. buf has room for the whole query. */
char *unquoted(const char *query, const TrnQueryWord *w, char *buf, size_t *used)
{
    char *start = buf + *used;
    char *p = start;
    for (int32_t i = 0; i < w->value_length; i++) {
        char c = query[w->value_start + i];
        if (c != '"') {
            *p++ = c;
        }
    }
    *p++ = '\0';
    *used += (size_t)(p - start);
    return start;
}

/* Days of month m (1-12) of year y. */
int days_in_month(int y, int m)
{
    static const int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m == 2 && leap ? 29 : DAYS[m - 1];
}

/* Local midnight at the start of y-m-d (m and d may run one past their range). */
int64_t local_midnight(int y, int m, int d)
{
    struct tm t = {};
    t.tm_year = y - 1900;
    t.tm_mon = m - 1;
    t.tm_mday = d;
    t.tm_isdst = -1;
    return (int64_t)mktime(&t);
}

/* Reads YYYY, YYYY-MM or YYYY-MM-DD (the whole of s[0..n)) as the span of local time it names:
** [*from, *to) in seconds. False when it is none of those or no such day exists. */
bool parse_day(const char *s, size_t n, int64_t *from, int64_t *to)
{
    int part[3] = {0, 0, 0};
    size_t digits[3] = {0, 0, 0};
    int parts = 0;
    for (size_t i = 0; i <= n; i++) {
        if (i == n || s[i] == '-') {
            if (parts == 3 || digits[parts] == 0) {
                return false;
            }
            parts++;
            continue;
        }
        if (s[i] < '0' || s[i] > '9' || digits[parts] == 4) {
            return false;
        }
        part[parts] = part[parts] * 10 + (s[i] - '0');
        digits[parts]++;
    }
    if (digits[0] != 4 || (parts > 1 && digits[1] > 2) || (parts > 2 && digits[2] > 2)) {
        return false;
    }
    int y = part[0], m = part[1], d = part[2];
    if (y < 1970 || (parts > 1 && (m < 1 || m > 12))
        || (parts > 2 && (d < 1 || d > days_in_month(y, m)))) {
        return false;
    }
    if (parts == 1) {
        *from = local_midnight(y, 1, 1);
        *to = local_midnight(y + 1, 1, 1);
    } else if (parts == 2) {
        *from = local_midnight(y, m, 1);
        *to = local_midnight(y, m + 1, 1);
    } else {
        *from = local_midnight(y, m, d);
        *to = local_midnight(y, m, d + 1);
    }
    return true;
}

/* Reads a modified: value into [*from, *to): ">=D", ">D", "<=D", "<D", "D", "A..B", "A..",
** "..B", where D, A and B are days, months or years as parse_day reads them. */
bool parse_modified(const char *v, int64_t *from, int64_t *to)
{
    int64_t a0, a1, b0, b1;
    size_t n = strlen(v);
    *from = INT64_MIN;
    *to = INT64_MAX;
    const char *dots = strstr(v, "..");
    if (dots) {
        size_t left = (size_t)(dots - v);
        const char *right = dots + 2;
        if (left == 0 && *right == '\0') {
            return false;
        }
        if (left > 0 && !parse_day(v, left, &a0, &a1)) {
            return false;
        }
        if (*right != '\0' && !parse_day(right, strlen(right), &b0, &b1)) {
            return false;
        }
        *from = left > 0 ? a0 : INT64_MIN;
        *to = *right != '\0' ? b1 : INT64_MAX;
        return *from < *to;
    }
    if (n >= 2 && (v[0] == '>' || v[0] == '<') && v[1] == '=') {
        if (!parse_day(v + 2, n - 2, &a0, &a1)) {
            return false;
        }
        if (v[0] == '>') {
            *from = a0;
        } else {
            *to = a1;
        }
        return true;
    }
    if (n >= 1 && (v[0] == '>' || v[0] == '<')) {
        if (!parse_day(v + 1, n - 1, &a0, &a1)) {
            return false;
        }
        if (v[0] == '>') {
            *from = a1;
        } else {
            *to = a0;
        }
        return true;
    }
    if (n >= 1 && v[0] == '=') {
        v++;
        n--;
    }
    return parse_day(v, n, from, to);
}

void set_message(char *message, size_t size, const char *text, const char *value)
{
    if (message && size > 0) {
        snprintf(message, size, text, value);
    }
}

/* Offset of the words of phrase (lower-cased, split at white space) in text, as whole words and
** separated by any white space, ignoring ASCII case; -1 when they do not occur. */
int64_t find_words(const char *text, size_t len, const char *phrase)
{
    while (is_space(*phrase)) {
        phrase++;
    }
    size_t first = 0;
    while (phrase[first] != '\0' && !is_space(phrase[first])) {
        first++;
    }
    if (first == 0) {
        return 0;
    }
    size_t from = 0;
    while (from < len) {
        int64_t at =
            find_ascii_nocase(text + from, len - from, (const unsigned char *)phrase, first);
        if (at < 0) {
            return -1;
        }
        size_t start = from + (size_t)at;
        from = start + 1;
        if (start > 0 && is_word_byte((unsigned char)phrase[0])
            && is_word_byte((unsigned char)text[start - 1])) {
            continue;
        }
        /* The rest of the phrase, word after word, with white space between. */
        size_t t = start;
        const char *p = phrase;
        bool whole = true;
        while (*p != '\0') {
            while (is_space(*p)) {
                p++;
            }
            if (*p == '\0') {
                break;
            }
            if (p != phrase) {
                if (t >= len || !is_space(text[t])) {
                    whole = false;
                    break;
                }
                while (t < len && is_space(text[t])) {
                    t++;
                }
            }
            while (*p != '\0' && !is_space(*p)) {
                if (t >= len || lower((unsigned char)text[t]) != (unsigned char)*p) {
                    whole = false;
                    break;
                }
                t++;
                p++;
            }
            if (!whole) {
                break;
            }
        }
        if (!whole) {
            continue;
        }
        if (t < len && is_word_byte((unsigned char)text[t - 1])
            && is_word_byte((unsigned char)text[t])) {
            continue;
        }
        return (int64_t)start;
    }
    return -1;
}

/* The extension of path's base name, after its last '.'; "" when it has none. */
const char *extension_of(const char *path)
{
    const char *slash = strrchr(path, '/');
    const char *base = slash ? slash + 1 : path;
    const char *dot = strrchr(base, '.');
    return dot && dot != base ? dot + 1 : "";
}

/* Whether the file at path, of the given type, passes the narrowing's file words. root is the
** indexed directory ("" when unknown): in: names a folder below it, or below "/" without one. */
bool file_allowed(const TrnNarrowing *nw, const char *path, uint32_t type, const char *root)
{
    if (nw->types != 0 || nw->extension_count > 0) {
        bool kind = type < 32 && (nw->types & (1u << type)) != 0;
        const char *ext = extension_of(path);
        for (int32_t i = 0; i < nw->extension_count && !kind; i++) {
            kind = strcasecmp(ext, nw->extensions[i]) == 0;
        }
        if (!kind) {
            return false;
        }
    }
    if (nw->folder) {
        const char *rel = path;
        size_t root_len = strlen(root);
        if (nw->folder[0] == '/') {
            rel = path;
        } else if (root_len > 0 && strncmp(path, root, root_len) == 0 && path[root_len] == '/') {
            rel = path + root_len + 1;
        } else {
            while (*rel == '/') {
                rel++;
            }
        }
        size_t n = strlen(nw->folder);
        if (strncmp(rel, nw->folder, n) != 0 || rel[n] != '/') {
            return false;
        }
    }
    if (nw->modified_from != INT64_MIN || nw->modified_to != INT64_MAX) {
        struct stat st;
        if (stat(path, &st) != 0) {
            return false;
        }
        int64_t t = (int64_t)st.st_mtime;
        if (t < nw->modified_from || t >= nw->modified_to) {
            return false;
        }
    }
    return true;
}

bool chunk_text_allowed(const TrnNarrowing *nw, const char *text)
{
    size_t len = strlen(text);
    for (int32_t i = 0; i < nw->phrase_count; i++) {
        if (find_words(text, len, nw->phrases[i]) < 0) {
            return false;
        }
    }
    for (int32_t i = 0; i < nw->excluded_count; i++) {
        if (find_words(text, len, nw->excluded[i]) >= 0) {
            return false;
        }
    }
    return true;
}

} // namespace

int32_t split_query_words(const char *query, TrnQueryWord *out, int32_t max)
{
    int32_t count = 0;
    int32_t searched = 0; /* words other than left-out ones */
    size_t i = 0;
    while (query[i] != '\0') {
        while (is_space(query[i])) {
            i++;
        }
        if (query[i] == '\0') {
            break;
        }
        size_t start = i;
        bool quoted = false;
        while (query[i] != '\0' && (quoted || !is_space(query[i]))) {
            quoted = query[i] == '"' ? !quoted : quoted;
            i++;
        }
        if (start > (size_t)INT32_MAX || i - start > (size_t)INT32_MAX) {
            break;
        }
        TrnQueryWord w = {};
        w.start = (int32_t)start;
        w.length = (int32_t)(i - start);
        classify(query + start, w.length, &w);
        searched += w.kind != TRN_QUERY_WORD_EXCLUDED ? 1 : 0;
        if (count < max) {
            out[count] = w;
        }
        count++;
    }
    /* "-Wall" alone is searched for as written: a left-out word needs another word beside it. */
    if (searched == 0) {
        for (int32_t j = 0; j < count && j < max; j++) {
            out[j].kind = TRN_QUERY_WORD_TERM;
            out[j].value_start = out[j].start;
            out[j].value_length = out[j].length;
        }
    }
    return count;
}

bool narrow_parse(const char *query, TrnNarrowing *nw, char *message, size_t size)
{
    *nw = TrnNarrowing{};
    nw->modified_from = INT64_MIN;
    nw->modified_to = INT64_MAX;
    if (message && size > 0) {
        message[0] = '\0';
    }
    int32_t n = split_query_words(query, nullptr, 0);
    size_t qlen = strlen(query);
    TrnQueryWord *words = (TrnQueryWord *)xmalloc(xmul((size_t)n + 1, sizeof(TrnQueryWord)));
    std::unique_ptr<TrnQueryWord, FreeDeleter> words_guard(words);
    split_query_words(query, words, n);
    nw->text = (char *)xmalloc(xmul(qlen + 1, 2) + (size_t)n);
    nw->core = (char *)xmalloc(qlen + 1);
    /* Phrases and left-out words take a word each, extensions at least two bytes each. */
    nw->lists = (const char **)xmalloc(xmul(2 * (size_t)n + qlen + 1, sizeof(const char *)));
    nw->phrases = nw->lists;
    nw->excluded = nw->lists + n;
    nw->extensions = nw->lists + 2 * (size_t)n;
    size_t used = 0;
    size_t core_len = 0;
    for (int32_t j = 0; j < n; j++) {
        const TrnQueryWord *w = &words[j];
        char *value = unquoted(query, w, nw->text, &used);
        switch (w->kind) {
        case TRN_QUERY_WORD_TERM:
        case TRN_QUERY_WORD_PHRASE: {
            /* Terms keep their spelling (a regular expression's quotes included); a phrase's
            ** words are searched for and required. */
            const char *src = w->kind == TRN_QUERY_WORD_TERM ? query + w->start : value;
            size_t len = w->kind == TRN_QUERY_WORD_TERM ? (size_t)w->length : strlen(value);
            if (core_len > 0 && len > 0) {
                nw->core[core_len++] = ' ';
            }
            memcpy(nw->core + core_len, src, len);
            core_len += len;
            if (w->kind == TRN_QUERY_WORD_PHRASE && value[0] != '\0') {
                for (char *p = value; *p; p++) {
                    *p = (char)lower((unsigned char)*p);
                }
                nw->phrases[nw->phrase_count++] = value;
            }
            break;
        }
        case TRN_QUERY_WORD_EXCLUDED:
            for (char *p = value; *p; p++) {
                *p = (char)lower((unsigned char)*p);
            }
            if (value[0] != '\0') {
                nw->excluded[nw->excluded_count++] = value;
            }
            break;
        case TRN_QUERY_WORD_TYPE:
        case TRN_QUERY_WORD_EXT: {
            /* A comma-separated list; a type: name that is no kind of file is an extension. */
            char *rest = nullptr;
            for (char *item = strtok_r(value, ",", &rest); item;
                 item = strtok_r(nullptr, ",", &rest)) {
                while (*item == '.') {
                    item++;
                }
                uint32_t type = TRN_FILE_TYPE_UNKNOWN;
                for (uint32_t t = 0; t <= TRN_FILE_TYPE_EPUB && w->kind == TRN_QUERY_WORD_TYPE;
                     t++) {
                    if (strcasecmp(item, trn_file_type_name(t)) == 0) {
                        type = t;
                    }
                }
                if (type != TRN_FILE_TYPE_UNKNOWN) {
                    nw->types |= 1u << type;
                } else if (item[0] != '\0') {
                    nw->extensions[nw->extension_count++] = item;
                }
            }
            break;
        }
        case TRN_QUERY_WORD_FOLDER: {
            /* "./notes/" and "notes" name the same folder; of several in: words the last counts. */
            char *f = value;
            while (f[0] == '.' && f[1] == '/') {
                f += 2;
            }
            size_t len = strlen(f);
            while (len > 1 && f[len - 1] == '/') {
                f[--len] = '\0';
            }
            nw->folder = len > 0 && strcmp(f, "/") != 0 && strcmp(f, ".") != 0 ? f : nullptr;
            break;
        }
        case TRN_QUERY_WORD_MODIFIED:
            if (value[0] != '\0' && !parse_modified(value, &nw->modified_from, &nw->modified_to)) {
                set_message(message,
                            size,
                            "cannot read the date of modified:%s (write a day as 2024-01-31, "
                            "and >, >=, <, <= before it or a range 2024-01-01..2024-06-30)",
                            value);
                narrow_free(nw);
                return false;
            }
            break;
        default:
            break;
        }
    }
    nw->core[core_len] = '\0';
    bool plain = true;
    for (int32_t j = 0; j < n; j++) {
        plain = plain && words[j].kind == TRN_QUERY_WORD_TERM;
    }
    if (plain) {
        /* Nothing narrows: text and regular expressions are searched for exactly as typed. */
        memcpy(nw->core, query, qlen + 1);
    }
    nw->by_file = nw->types != 0 || nw->extension_count > 0 || nw->folder != nullptr
                  || nw->modified_from != INT64_MIN || nw->modified_to != INT64_MAX;
    nw->active = nw->by_file || nw->phrase_count > 0 || nw->excluded_count > 0;
    return true;
}

void narrow_free(TrnNarrowing *nw)
{
    free(nw->text);
    free(nw->core);
    free(nw->lists);
    *nw = TrnNarrowing{};
}

uint8_t *narrow_mask(const TrnEngine *e, const TrnNarrowing *nw)
{
    if (!nw->active) {
        return nullptr;
    }
    uint8_t *allowed = (uint8_t *)xcalloc(e->count + 1, 1);
    char root[TRN_PATH_MAX];
    indexed_dir(e, root, sizeof root);
    /* A file's chunks lie side by side, so remembering the last file costs one stat per file. */
    const char *last_path = nullptr;
    uint32_t last_type = 0;
    bool last_allowed = false;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->text) {
            continue;
        }
        if (nw->by_file) {
            const char *path = c->file_path ? c->file_path : "";
            if (!last_path || last_type != c->file_type || strcmp(path, last_path) != 0) {
                last_path = path;
                last_type = c->file_type;
                last_allowed = file_allowed(nw, path, c->file_type, root);
            }
            if (!last_allowed) {
                continue;
            }
        }
        allowed[i] = chunk_text_allowed(nw, c->text) ? 1 : 0;
    }
    return allowed;
}

int32_t narrow_nearest(const TrnEngine *e, const float *q, const uint8_t *allowed, int32_t k,
                       uint32_t *out, float *out_sim)
{
    int32_t n = 0;
    for (uint64_t i = 0; i < e->count && k > 0; i++) {
        if (!allowed[i] || e->chunks[i].pending) {
            continue;
        }
        float s = vec_dot(q, chunk_vector(e, i), (size_t)e->dim);
        if (n == k && s <= out_sim[n - 1]) {
            continue;
        }
        /* Insertion into the best k so far, best first; equal scores keep the lower slot. */
        int32_t at = n < k ? n++ : k - 1;
        while (at > 0 && out_sim[at - 1] < s) {
            out[at] = out[at - 1];
            out_sim[at] = out_sim[at - 1];
            at--;
        }
        out[at] = (uint32_t)i;
        out_sim[at] = s;
    }
    return n;
}

extern "C" {

int32_t trn_query_words(const char *query, TrnQueryWord *words, int32_t max)
{
    if (!query) {
        return 0;
    }
    return split_query_words(query, words, words ? max : 0);
}

int32_t trn_check_query(const char *query, int32_t mode, char *message, size_t size)
{
    if (message && size > 0) {
        message[0] = '\0';
    }
    if (!query) {
        set_message(message, size, "%s", "no query given");
        return 0;
    }
    TrnNarrowing nw;
    if (!narrow_parse(query, &nw, message, size)) {
        return 0;
    }
    int32_t ok = 1;
    if (mode == TRN_SEARCH_REGEX) {
        ok = trn_check_regex(nw.core, message, size);
    }
    narrow_free(&nw);
    return ok;
}

} // extern "C"
