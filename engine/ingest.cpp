/*
** ingest.cpp -- turns files and texts into chunks of the engine handle.
**
** Text comes from a file by its type: plain bytes (text, source, Markdown, DOCX read as bytes up
** to the first 0 byte), HTML with scripts, styles and tags stripped, or PDF through the external
** converter "pdftotext". It is cut into fixed-size overlapping byte windows:
**
**     chunk = min(length, chunk_size)        every window is exactly chunk bytes
**     step  = chunk - overlap (int32), or 1 when that is below 2
**     windows start at 0, step, 2 step, ... while pos + chunk + step <= length (one more after)
**
** so a text no longer than chunk_size gives one chunk and the last bytes, fewer than step, are
** not indexed. Each window becomes one chunk with the key "<path>:<ordinal>" (cut at 255 bytes),
** the 1-based line on which it starts and the file type. All windows of one text are embedded and
** normalised first, without any lock; then, under the index's exclusive lock, they are appended to
** the write-ahead log as one synced group (wal.cpp), and only then given random graph levels and
** linked into the graph. A text whose group could not be written adds nothing.
**
** Files larger than TRN_FILE_SIZE_MAX are skipped on their size, before a byte is read: the walk
** checks the size it has from stat, and read_text_file checks the open file again.
**
** The PDF converter runs as a child process with an argument vector, never through a shell, with
** its standard error sent to /dev/null; it writes into a temporary file from mkstemp that is
** removed on every path. A file name is therefore only ever an argument, whatever it contains.
*/
#include "internal.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace
{

constexpr uint64_t FIRST_CAPACITY = 64;

/* Runs pdftotext on path, writing UTF-8 text to out_path. Returns true when it exited with 0. */
bool run_pdftotext(const char *path, const char *out_path)
{
    /* A path that begins with "-" would read as an option; "./" keeps it a file name. */
    char safe_path[TRN_WALK_MAX + 2];
    const char *arg_path = path;
    if (path[0] == '-') {
        int n = snprintf(safe_path, sizeof safe_path, "./%s", path);
        if (n < 0 || (size_t)n >= sizeof safe_path) {
            return false;
        }
        arg_path = safe_path;
    }
    char prog[] = "pdftotext";
    char opt_enc[] = "-enc";
    char enc[] = "UTF-8";
    char *argv[] = {
        prog, opt_enc, enc, const_cast<char *>(arg_path), const_cast<char *>(out_path), nullptr};

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return false;
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, prog, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/* Converts a PDF to its text. Returns an owned text, or NULL when the converter fails or yields
** fewer than 6 bytes (an image-only PDF gives a few form feeds, which is no text). */
char *pdf_text(const char *path)
{
    /* One file per call, so two conversions never share a name; $TMPDIR when it is set. */
    const char *dir = getenv("TMPDIR");
    if (!dir || dir[0] != '/') {
        dir = "/tmp";
    }
    char tmp[TRN_PATH_MAX];
    int len = snprintf(tmp, sizeof tmp, "%s/trn_pdf_XXXXXX", dir);
    if (len < 0 || (size_t)len >= sizeof tmp) {
        snprintf(tmp, sizeof tmp, "/tmp/trn_pdf_XXXXXX");
    }
    int fd = mkstemp(tmp);
    if (fd < 0) {
        return nullptr;
    }
    close(fd);
    bool ok = run_pdftotext(path, tmp);
    uint64_t length = 0;
    char *text = ok ? read_text_file(tmp, &length) : nullptr;
    remove(tmp);
    if (text && strlen(text) < 6) {
        free(text);
        return nullptr;
    }
    return text;
}

bool prefix_casecmp(const char *p, const char *word, size_t n)
{
    return strncasecmp(p, word, n) == 0;
}

constexpr int32_t WALK_DEPTH_MAX = TRN_WALK_MAX / 2; /* "/x" per level */

/* The running state of trn_ingest_dir's walk. The progress callback has always been given the
** chunks added so far below the directory of the file, so a total is kept per open directory:
** totals[0] is the root's, totals[depth] the innermost one's. */
struct DirIngest {
    TrnEngine *e;
    int32_t chunk_size;
    int32_t overlap;
    TrnProgressFn cb;
    void *user;
    int32_t depth;
    int32_t totals[WALK_DEPTH_MAX + 1];
    bool failed; /* a write failed (busy, damaged, full disk): every later file fails too */
};

void ingest_walked_dir(bool entering, void *arg)
{
    DirIngest *state = static_cast<DirIngest *>(arg);
    if (entering) {
        state->depth++;
        state->totals[state->depth] = 0;
    } else {
        state->depth--;
        state->totals[state->depth] += state->totals[state->depth + 1];
    }
}

/* A file too large is skipped on its size alone, before its type is sniffed or a byte read. */
bool ingest_walked_file(const char *path, const struct stat *st, void *arg)
{
    DirIngest *state = static_cast<DirIngest *>(arg);
    if (state->failed) {
        return false;
    }
    if (st->st_size > TRN_FILE_SIZE_MAX || !trn_is_indexable(trn_detect_file_type(path))) {
        return true;
    }
    int32_t n = trn_ingest_file(state->e, path, state->chunk_size, state->overlap);
    if (state->e->status != TRN_STATUS_OK) {
        state->failed = true;
        return false;
    }
    int32_t *total = &state->totals[state->depth];
    *total += n > 0 ? n : 0;
    return !state->cb || state->cb(path, *total, *total, state->user);
}

} // namespace

void ensure_cap(TrnEngine *e, uint64_t n)
{
    if (e->capacity >= n) {
        return;
    }
    uint64_t c = e->capacity ? e->capacity : FIRST_CAPACITY;
    while (c < n) {
        if (c > UINT64_MAX / 2) {
            oom_abort();
        }
        c *= 2;
    }
    if (c > SIZE_MAX) {
        oom_abort();
    }
    size_t old = (size_t)e->capacity;
    size_t cap = (size_t)c;
    e->chunks = static_cast<TrnChunk *>(xrealloc(e->chunks, xmul(cap, sizeof(TrnChunk))));
    e->vectors =
        static_cast<float *>(xrealloc(e->vectors, xmul(xmul(cap, (size_t)e->dim), sizeof(float))));
    e->nodes = static_cast<TrnNode *>(xrealloc(e->nodes, xmul(cap, sizeof(TrnNode))));
    memset(e->chunks + old, 0, (cap - old) * sizeof(TrnChunk));
    memset(e->nodes + old, 0, (cap - old) * sizeof(TrnNode));
    e->capacity = c;
}

int32_t draw_level(float level_mult)
{
    /* rand() is in 0..2147483647, so u is in (0, 1] and -ln(u) >= 0. */
    double u = (rand() + 1.0) / 2147483649.0;
    double x = floor(-log(u) * (double)level_mult);
    if (!(x >= 0.0)) { /* also catches a NaN multiplier from a damaged store */
        return 0;
    }
    if (x >= TRN_MAX_LEVELS - 1) {
        return TRN_MAX_LEVELS - 1;
    }
    return (int32_t)x;
}

void embed_chunk(TrnEngine *e, const char *text, float *v)
{
    /* The encoder always writes 512 floats; a handle configured with another dim keeps the
    ** leading dim of them (zero-padded), so the slot is never overrun. */
    if (e->dim == TRN_ENCODER_DIM) {
        trn_encoder_embed_text(&e->encoder, text, v);
    } else {
        float full[TRN_ENCODER_DIM];
        trn_encoder_embed_text(&e->encoder, text, full);
        for (int32_t i = 0; i < e->dim; i++) {
            v[i] = i < TRN_ENCODER_DIM ? full[i] : 0.0f;
        }
    }
    vec_normalize(v, (size_t)e->dim);
}

/* Takes the next slot and fills its record; returns the slot. */
static uint64_t new_slot(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                         int32_t chunk_index, int32_t line_number, uint32_t file_type)
{
    ensure_cap(e, e->count + 1);
    uint64_t slot = e->count;
    e->count += 1;
    TrnChunk *c = &e->chunks[slot];
    snprintf(c->doc_id, sizeof c->doc_id, "%s", doc_id);
    c->text = xstrdup(text);
    c->file_path = path ? xstrdup(path) : nullptr;
    c->chunk_index = chunk_index;
    c->line_number = line_number;
    c->file_type = file_type;
    c->deleted = 0;
    return slot;
}

static void link_slot(TrnEngine *e, uint64_t slot)
{
    node_reset(&e->nodes[slot]);
    e->nodes[slot].level = draw_level(e->level_mult);
    hnsw_insert(e, (uint32_t)slot);
}

void add_doc_mem(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type)
{
    uint64_t slot = new_slot(e, doc_id, text, path, chunk_index, line_number, file_type);
    embed_chunk(e, text, e->vectors + slot * (uint64_t)e->dim);
    link_slot(e, slot);
}

void add_doc_vec(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                 int32_t chunk_index, int32_t line_number, uint32_t file_type, const float *v)
{
    uint64_t slot = new_slot(e, doc_id, text, path, chunk_index, line_number, file_type);
    memcpy(e->vectors + slot * (uint64_t)e->dim, v, (size_t)e->dim * sizeof(float));
    link_slot(e, slot);
}

namespace
{

/* The windows of one text, embedded, waiting to be logged and linked. */
struct PendingChunk {
    char doc_id[TRN_ID_MAX];
    char *text; /* owned */
    int32_t line_number;
};

} // namespace

static int32_t chunk_and_store(TrnEngine *e, const char *path, const char *text, int64_t length,
                               int32_t chunk_size, int32_t overlap, TrnFileType type, bool replace);

int32_t chunk_and_ingest(TrnEngine *e, const char *path, const char *text, int64_t length,
                         int32_t chunk_size, int32_t overlap, TrnFileType type)
{
    return chunk_and_store(e, path, text, length, chunk_size, overlap, type, false);
}

int32_t chunk_and_replace(TrnEngine *e, const char *path, const char *text, int64_t length,
                          int32_t chunk_size, int32_t overlap, TrnFileType type)
{
    return chunk_and_store(e, path, text, length, chunk_size, overlap, type, true);
}

/* With replace, the group that adds the chunks begins with the removal of the file's chunks, so
** a crash leaves either the old chunks or the new ones, never both and never neither. An empty
** text then only removes. */
static int32_t chunk_and_store(TrnEngine *e, const char *path, const char *text, int64_t length,
                               int32_t chunk_size, int32_t overlap, TrnFileType type, bool replace)
{
    if (replace && (length < 1 || chunk_size < 1)) {
        int32_t removed = trn_remove_file(e, path);
        return removed < 0 ? -1 : 0;
    }
    /* A window of no bytes cuts nothing: a chunk_size below 1 adds no chunk. */
    if (length < 1 || chunk_size < 1) {
        return 0;
    }
    int64_t chunk = length < chunk_size ? length : chunk_size;
    /* The step is chunk - overlap in 32-bit arithmetic (wrapping), then at least 1. */
    int32_t step = (int32_t)(uint32_t)(uint64_t)(chunk - (int64_t)overlap);
    if (step < 2) {
        step = 1;
    }
    std::vector<PendingChunk, XAllocator<PendingChunk>> pending;
    std::vector<float, XAllocator<float>> vectors;
    int64_t pos = 0;
    /* Line feeds before pos, counted once: pos only grows, and the count stops for good at a 0
    ** byte, which gives the same line as rescanning text[0 .. pos - 1] for every chunk. */
    int64_t scanned = 0;
    int32_t line_feeds = 0;
    bool hit_nul = false;
    for (;;) {
        PendingChunk p;
        p.text = static_cast<char *>(xmalloc((size_t)chunk + 1));
        memcpy(p.text, text + pos, (size_t)chunk);
        p.text[chunk] = '\0';
        snprintf(p.doc_id, sizeof p.doc_id, "%s:%d", path, (int)pending.size());
        while (!hit_nul && scanned < pos) {
            if (text[scanned] == '\0') {
                hit_nul = true;
            } else if (text[scanned] == '\n') {
                line_feeds++;
            }
            scanned++;
        }
        p.line_number = 1 + line_feeds;
        pending.push_back(p);
        vectors.resize(pending.size() * (size_t)e->dim);
        embed_chunk(e, p.text, vectors.data() + (pending.size() - 1) * (size_t)e->dim);
        if (pos + chunk + step > length) {
            break;
        }
        pos += step;
    }

    int32_t added = -1;
    if (write_begin(e)) {
        TrnBytes group;
        wal_group_begin(e, &group);
        if (replace) {
            wal_put_remove(&group, path);
        }
        for (size_t i = 0; i < pending.size(); i++) {
            wal_put_add(&group,
                        pending[i].doc_id,
                        pending[i].text,
                        path,
                        (int32_t)i,
                        pending[i].line_number,
                        type);
        }
        if (wal_commit_group(e, &group)) {
            if (replace) {
                remove_file_mem(e, path);
            }
            for (size_t i = 0; i < pending.size(); i++) {
                add_doc_vec(e,
                            pending[i].doc_id,
                            pending[i].text,
                            path,
                            (int32_t)i,
                            pending[i].line_number,
                            type,
                            vectors.data() + i * (size_t)e->dim);
            }
            added = (int32_t)pending.size();
            e->changed = 1;
            if (e->wal) {
                e->wal_chunks += pending.size();
                /* Bounds what a reopen after a crash re-embeds; a failure leaves the log whole. */
                if (e->wal_chunks >= g_checkpoint_chunks) {
                    checkpoint_locked(e);
                    status_clear(e);
                }
            }
        }
        write_end(e);
    }
    for (PendingChunk &p : pending) {
        free(p.text);
    }
    return added;
}

char *read_text_file(const char *path, uint64_t *out_length)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        return nullptr;
    }
    /* The size decides before anything is allocated: a sparse 2 GB file or a device never
    ** reaches memory. The read asks for one byte more, so a file that grew since is refused too. */
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0
        || st.st_size > TRN_FILE_SIZE_MAX) {
        fclose(f);
        return nullptr;
    }
    size_t n = (size_t)st.st_size;
    char *buf = static_cast<char *>(xmalloc(n + 2));
    size_t got = fread(buf, 1, n + 1, f);
    fclose(f);
    if (got != n) {
        free(buf);
        return nullptr;
    }
    buf[n] = '\0';
    if (out_length) {
        *out_length = n;
    }
    return buf;
}

/* One pass with four flags. The opening "<script" or "<style" also sets in_tag and its ">" is
** swallowed inside the script or style, so in_tag is still set after the closing tag: the text
** between "</script>" and the next ">" is dropped. Indexes built so far depend on that, so it
** stays. */
char *strip_html(const char *p, size_t n)
{
    char *out = static_cast<char *>(xmalloc(n + 1));
    size_t o = 0;
    bool in_script = false;
    bool in_style = false;
    bool in_tag = false;
    bool last_space = true;
    size_t i = 0;
    while (i < n) {
        char c = p[i];
        if (i + 7 < n && c == '<') {
            if (prefix_casecmp(p + i, "<script", 7)) {
                in_script = true;
                in_tag = true;
                i++;
                continue;
            }
            if (prefix_casecmp(p + i, "<style", 6)) {
                in_style = true;
                in_tag = true;
                i++;
                continue;
            }
        }
        if (in_script && i + 9 < n && prefix_casecmp(p + i, "</script>", 9)) {
            in_script = false;
            i += 9;
            continue;
        }
        if (in_style && i + 8 < n && prefix_casecmp(p + i, "</style>", 8)) {
            in_style = false;
            i += 8;
            continue;
        }
        if (in_script || in_style) {
            i++;
            continue;
        }
        if (c == '<') {
            if (!last_space && o >= 1) {
                out[o++] = ' ';
                last_space = true;
            }
            in_tag = true;
            i++;
            continue;
        }
        if (c == '>') {
            in_tag = false;
            i++;
            continue;
        }
        if (in_tag) {
            i++;
            continue;
        }
        if (c == '\t' || c == '\n' || c == '\r' || c == ' ') {
            if (!last_space && o >= 1) {
                out[o++] = ' ';
                last_space = true;
            }
            in_tag = false;
            i++;
            continue;
        }
        out[o++] = c;
        last_space = false;
        i++;
    }
    out[o] = '\0';
    return out;
}

char *file_text(const char *path, TrnFileType type)
{
    uint64_t length = 0;
    if (type == TRN_FILE_TYPE_HTML) {
        char *raw = read_text_file(path, &length);
        if (!raw) {
            return nullptr;
        }
        char *text = strip_html(raw, (size_t)length);
        free(raw);
        return text;
    }
    if (type == TRN_FILE_TYPE_PDF) {
        return pdf_text(path);
    }
    /* Bytes as they are, up to the first 0 byte: a DOCX container yields its first bytes. */
    return read_text_file(path, &length);
}

extern "C" {

int32_t trn_check_chunking(int32_t chunk_size, int32_t overlap, char *message, size_t size)
{
    char reason[128] = "";
    if (chunk_size < TRN_CHUNK_SIZE_MIN || chunk_size > TRN_CHUNK_SIZE_MAX) {
        snprintf(reason,
                 sizeof reason,
                 "chunk size must be from %d to %d (got %d)",
                 (int)TRN_CHUNK_SIZE_MIN,
                 (int)TRN_CHUNK_SIZE_MAX,
                 (int)chunk_size);
    } else if (overlap < 0 || overlap > chunk_size / 2) {
        snprintf(reason,
                 sizeof reason,
                 "overlap must be from 0 to half the chunk size, %d (got %d)",
                 (int)(chunk_size / 2),
                 (int)overlap);
    }
    if (message && size > 0) {
        snprintf(message, size, "%s", reason);
    }
    return reason[0] == '\0' ? 1 : 0;
}

int32_t trn_ingest_text(TrnEngine *e, const char *path, const char *text, int32_t chunk_size,
                        int32_t overlap)
{
    if (!e || !path || !text) {
        return -1;
    }
    size_t length = strlen(text);
    if (length == 0) {
        return 0;
    }
    return chunk_and_ingest(
        e, path, text, (int64_t)length, chunk_size, overlap, trn_detect_file_type(path));
}

int32_t trn_ingest_file(TrnEngine *e, const char *path, int32_t chunk_size, int32_t overlap)
{
    if (!e || !path) {
        return -1;
    }
    TrnFileType type = trn_detect_file_type(path);
    if (!trn_is_indexable(type)) {
        return 0;
    }
    struct stat st;
    if (stat(path, &st) != 0 || st.st_size > TRN_FILE_SIZE_MAX) {
        return -1; /* a PDF is checked here, before the converter runs */
    }
    char *text = file_text(path, type);
    if (!text) {
        return -1;
    }
    int32_t n = chunk_and_ingest(e, path, text, (int64_t)strlen(text), chunk_size, overlap, type);
    free(text);
    return n;
}

int32_t trn_ingest_dir(TrnEngine *e, const char *dir, int32_t chunk_size, int32_t overlap,
                       TrnProgressFn cb, void *user)
{
    if (!e || !dir) {
        return -1;
    }
    status_clear(e);
    DirIngest *state = static_cast<DirIngest *>(xcalloc(1, sizeof(DirIngest)));
    *state = DirIngest{e, chunk_size, overlap, cb, user, 0, {}, false};
    int32_t rc = walk_tree(dir, ingest_walked_file, ingest_walked_dir, state);
    int32_t total = rc == 0 && !state->failed ? state->totals[0] : -1;
    free(state);
    return total;
}

} /* extern "C" */
