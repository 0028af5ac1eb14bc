/*
** ingest.cpp -- turns files and texts into chunks of the engine handle.
**
** Text comes from a file through extract_file_text (extract.cpp: UTF-8 text, HTML as readable
** text, PDF, DOCX, ODT, EPUB); the engine's directory walk is walk_files (walk.cpp). The text is
** cut into overlapping windows (cut_windows) of at most chunk_size bytes:
**
**     a text of at most chunk_size bytes is one window;
**     a window starting at begin ends at begin + chunk_size, moved back to just after the last
**       line feed among the slack bytes before that (an eighth of the chunk, at most 64), else
**       after the last space or tab there,
**       else to the start of the UTF-8 character the cut would split;
**     the next window starts overlap bytes before that end, moved back the same way (a line
**       start, else a word start, else a character start), and always after the previous start;
**     once the rest from there fits in one window, the last window ends at the text's end and
**       starts at the first line, word or character start at or after length - chunk_size.
**
** so every byte is in a window, no window splits a character of a valid UTF-8 text, and edges
** fall between lines or words where one is within the slack. Each window becomes one chunk with
** the key "<path>:<ordinal>" (cut at 255 bytes),
** the 1-based line on which it starts and the file type. All windows of one text are embedded and
** normalised first, on the processor's cores (embed.cpp) and without the index's lock, each
** text the index already holds taking the vector it has there; then,
** under its exclusive lock, they are appended to the write-ahead log with their vectors as one
** synced group (wal.cpp), and only then given random graph levels and linked into the graph. A
** text whose group could not be written adds nothing. An update's words phase logs the windows
** without embedding them: they are pending until its meaning phase (meaning.cpp).
**
** Files larger than TRN_FILE_SIZE_MAX are skipped on their size, before a byte is read: the walk
** checks the size it has from stat, and the extraction checks the open file again.
*/
#include "internal.h"
#include "text/files.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr uint64_t FIRST_CAPACITY = 64;

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

/* Keeps a running chunk total per open directory, and ingests each indexable file. */
WalkAction ingest_walked(const WalkedFile *f, void *arg)
{
    DirIngest *state = static_cast<DirIngest *>(arg);
    if (f->kind == WALK_DIR_ENTER) {
        state->depth++;
        if (state->depth <= WALK_DEPTH_MAX) {
            state->totals[state->depth] = 0;
        }
        return WALK_CONTINUE;
    }
    if (f->kind == WALK_DIR_LEAVE) {
        state->depth--;
        if (state->depth < WALK_DEPTH_MAX) {
            state->totals[state->depth] += state->totals[state->depth + 1];
        }
        return WALK_CONTINUE;
    }
    if (f->kind != WALK_FILE || f->status != TRN_FILE_STATUS_INDEXABLE) {
        return WALK_CONTINUE;
    }
    ExtractedText text;
    TrnFileStatus status = extract_file_text(f->path, f->type, 0, &text);
    int32_t n = 0;
    if (status == TRN_FILE_STATUS_INDEXABLE) {
        n = chunk_and_ingest(state->e,
                             f->path,
                             text.text,
                             (int64_t)text.length,
                             state->chunk_size,
                             state->overlap,
                             f->type);
    }
    extracted_text_free(&text);
    if (state->e->status != TRN_STATUS_OK) {
        state->failed = true;
        return WALK_STOP;
    }
    int32_t *total = &state->totals[state->depth <= WALK_DEPTH_MAX ? state->depth : 0];
    *total += n > 0 ? n : 0;
    return !state->cb || state->cb(f->path, *total, *total, state->user) ? WALK_CONTINUE
                                                                         : WALK_LEAVE_DIR;
}

} // namespace

void ensure_cap(TrnEngine *e, uint64_t n)
{
    if (e->capacity >= n) {
        return;
    }
    /* A log replayed over a mapped store adds chunks: the vectors move to memory first (a
    ** damaged one refuses the handle, which its caller reports). */
    vectors_own(e);
    /* Doubling keeps one chunk at a time cheap; a jump past twice the capacity (one large file's
    ** chunks joining at once) takes what it needs, since every slot up to the capacity is
    ** cleared, and so resident, however few of them are ever used. */
    uint64_t c = FIRST_CAPACITY;
    if (e->capacity) {
        if (e->capacity > UINT64_MAX / 2) {
            oom_abort();
        }
        c = e->capacity * 2;
    }
    if (c < n) {
        c = n;
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

void chunk_slot_clear(TrnEngine *e, uint64_t slot)
{
    TrnChunk *c = &e->chunks[slot];
    if (!c->text_in_store) {
        free(c->text);
    }
    free(c->file_path);
    memset(c, 0, sizeof *c);
    node_reset(&e->nodes[slot]);
}

void chunks_clear(TrnEngine *e)
{
    for (uint64_t i = 0; i < e->count; i++) {
        chunk_slot_clear(e, i);
    }
    e->count = 0;
    e->pending_count = 0;
}

int32_t draw_level(uint64_t *state, float level_mult)
{
    /* splitmix64 (Steele, Lea and Flood): any state, 0 included, gives a full-period sequence. */
    uint64_t z = (*state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    /* The top 53 bits plus one, over 2^53: u is in (0, 1], so -ln(u) >= 0. */
    double u = (double)((z >> 11) + 1) / 9007199254740992.0;
    double x = floor(-log(u) * (double)level_mult);
    if (!(x >= 0.0)) { /* also catches a NaN multiplier from a damaged store */
        return 0;
    }
    if (x >= TRN_MAX_LEVELS - 1) {
        return TRN_MAX_LEVELS - 1;
    }
    return (int32_t)x;
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
    c->pending = 0;
    return slot;
}

/* Gives slot a graph node of a new level, without links. */
static void new_node(TrnEngine *e, uint64_t slot)
{
    node_reset(&e->nodes[slot]);
    e->nodes[slot].level = draw_level(&e->level_state, e->level_mult);
}

static void link_slot(TrnEngine *e, uint64_t slot)
{
    new_node(e, slot);
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

void add_doc_pending(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                     int32_t chunk_index, int32_t line_number, uint32_t file_type)
{
    uint64_t slot = new_slot(e, doc_id, text, path, chunk_index, line_number, file_type);
    memset(e->vectors + slot * (uint64_t)e->dim, 0, (size_t)e->dim * sizeof(float));
    node_reset(&e->nodes[slot]);
    e->chunks[slot].pending = 1;
    e->pending_count++;
}

/* Gives pending chunk slot its vector and a graph node of a new level, without links. */
static void set_vector(TrnEngine *e, uint32_t slot, const void *v)
{
    memcpy(e->vectors + slot * (size_t)e->dim, v, (size_t)e->dim * sizeof(float));
    e->pending_count -= e->chunks[slot].pending;
    e->chunks[slot].pending = 0;
    new_node(e, slot);
}

void set_chunk_vectors(TrnEngine *e, const uint32_t *slots, const void *const *vectors,
                       size_t count)
{
    vectors_own(e); /* a log replayed over a mapped store: as in ensure_cap */
    for (size_t i = 0; i < count; i++) {
        set_vector(e, slots[i], vectors[i]);
    }
    hnsw_insert_many(e, slots, count);
}

void set_replayed_vector(TrnEngine *e, uint64_t slot, const void *v)
{
    vectors_own(e);
    set_vector(e, (uint32_t)slot, v);
    if (e->unlinked_count == e->unlinked_capacity) {
        e->unlinked_capacity = e->unlinked_capacity ? 2 * e->unlinked_capacity : 1024;
        e->unlinked =
            static_cast<uint32_t *>(xrealloc(e->unlinked, e->unlinked_capacity * sizeof(uint32_t)));
    }
    e->unlinked[e->unlinked_count++] = (uint32_t)slot;
}

void link_replayed(TrnEngine *e)
{
    if (e->unlinked_count > 0) {
        hnsw_insert_many(e, e->unlinked, e->unlinked_count);
        e->unlinked_count = 0;
    }
}

namespace
{

constexpr int64_t CUT_SLACK_MAX = 64; /* bytes an edge may move to reach a line or word */

inline bool utf8_continuation(char c)
{
    return ((unsigned char)c & 0xC0) == 0x80;
}

inline bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

/* A byte offset where a character starts: the end of the text or a byte that does not continue
** a UTF-8 sequence. */
inline bool char_start(const char *t, int64_t length, int64_t at)
{
    return at >= length || !utf8_continuation(t[at]);
}

/* The edge at or before at, and after floor: just after a line feed among the bytes from lo - 1
** (lo > floor), else just after a space or tab there, else the nearest character start; the
** first character start after at when there is none above floor. */
int64_t edge_back(const char *t, int64_t length, int64_t floor, int64_t lo, int64_t at)
{
    for (int64_t e = at; e >= lo; e--) {
        if (t[e - 1] == '\n') {
            return e;
        }
    }
    for (int64_t e = at; e >= lo; e--) {
        if (is_blank(t[e - 1])) {
            return e;
        }
    }
    for (int64_t e = at; e > floor; e--) {
        if (char_start(t, length, e)) {
            return e;
        }
    }
    int64_t e = at;
    while (!char_start(t, length, e)) {
        e++;
    }
    return e;
}

/* The edge at or after at and at most hi (at >= 1): the first line start, else the first word
** start, else the first character start; hi when there is none. */
int64_t edge_forward(const char *t, int64_t length, int64_t at, int64_t hi, int64_t slack)
{
    int64_t reach = at + slack < hi ? at + slack : hi;
    for (int64_t e = at; e <= reach; e++) {
        if (t[e - 1] == '\n') {
            return e;
        }
    }
    for (int64_t e = at; e <= reach; e++) {
        if (is_blank(t[e - 1])) {
            return e;
        }
    }
    for (int64_t e = at; e < hi; e++) {
        if (char_start(t, length, e)) {
            return e;
        }
    }
    return hi;
}

} // namespace

void cut_windows(const char *text, int64_t length, int32_t chunk_size, int32_t overlap,
                 TextWindows *out)
{
    out->clear();
    if (length < 1 || chunk_size < 1) {
        return;
    }
    const int64_t chunk = chunk_size;
    const int64_t slack = chunk / 8 < CUT_SLACK_MAX ? chunk / 8 : CUT_SLACK_MAX;
    int64_t begin = 0;
    for (;;) {
        if (length - begin <= chunk) {
            out->push_back(TextWindow{begin, length});
            return;
        }
        int64_t limit = begin + chunk;
        int64_t lo = limit - slack > begin + 1 ? limit - slack : begin + 1;
        int64_t end = edge_back(text, length, begin, lo, limit);
        out->push_back(TextWindow{begin, end});
        if (end >= length) {
            return;
        }
        /* The next start moves on by at least one byte however large the overlap. */
        int64_t target = end - (overlap > 0 ? (int64_t)overlap : 0);
        if (target <= begin) {
            target = begin + 1;
        }
        lo = target - slack > begin + 1 ? target - slack : begin + 1;
        int64_t next = edge_back(text, length, begin, lo, target);
        if (length - next <= chunk) {
            int64_t last = edge_forward(text, length, length - chunk, next, slack);
            out->push_back(TextWindow{last, length});
            return;
        }
        begin = next;
    }
}

namespace
{

/* Chunks embedded per block: the vectors of a large file are kept in blocks, each freed once its
** chunks have joined the index, so its vectors are never all held twice. */
constexpr size_t EMBED_BLOCK = 1024;

/* The bytes of the log records that add chunks chunks of pending_text bytes under a path of
** path_len bytes (wal.cpp's layout), so a group is allocated once instead of growing by
** doubling. */
size_t group_bytes(size_t pending_text, size_t chunks, size_t path_len, int32_t dim)
{
    /* the 'D' record; per chunk op, doc id ("<path>:<n>"), text, path and fields, and with dim
    ** its 'V' record: op, doc id and the vector */
    size_t vector = dim > 0 ? 1 + 4 + path_len + 12 + 4 + (size_t)dim * sizeof(float) : 0;
    return 16 + path_len + pending_text
           + chunks * (1 + 4 + path_len + 12 + 4 + 4 + path_len + 13 + vector);
}

/* True when the live chunks of f's path are exactly f's chunks, in order, of its type: replacing
** them would change nothing but their slots. */
bool held_chunks_equal(const TrnEngine *e, const CutFile &f)
{
    size_t matched = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->file_path || strcmp(c->file_path, f.path) != 0) {
            continue;
        }
        if (c->chunk_index < 0 || (size_t)c->chunk_index != matched || matched >= f.chunks.size()
            || c->file_type != f.type || c->line_number != f.chunks[matched].line_number
            || strcmp(c->text, f.chunks[matched].text) != 0) {
            return false;
        }
        matched++;
    }
    return matched == f.chunks.size();
}

} // namespace

void count_logged(TrnEngine *e, uint64_t records)
{
    if (!e->wal) {
        return;
    }
    /* Bounds what another process's open replays. The threshold grows with the index, so that a
    ** long indexing rewrites the store a few times, not once every few thousand chunks (which
    ** would cost it the square of its size): an open replays texts into the word index and
    ** vectors without linking them (set_replayed_vector), both about as fast as it reads them.
    ** An update ends with a log no longer than the least (trn_update_dir). A failure leaves the
    ** log whole. */
    e->wal_chunks += records;
    if (e->wal_chunks >= std::max(g_checkpoint_chunks, e->count)) {
        checkpoint_locked(e);
        status_clear(e);
    }
}

CutFile::~CutFile()
{
    for (CutChunk &c : chunks) {
        free(c.text);
    }
}

void cut_file(const char *text, int64_t length, int32_t chunk_size, int32_t overlap, CutFile *out)
{
    TextWindows windows;
    cut_windows(text, length, chunk_size, overlap, &windows);
    out->chunks.reserve(windows.size());
    /* Line feeds before a window's start, counted once: starts only grow, and the count stops
    ** for good at a 0 byte, which gives the same line as rescanning the text before each start. */
    int64_t scanned = 0;
    int32_t line_feeds = 0;
    bool hit_nul = false;
    for (const TextWindow &w : windows) {
        size_t n = (size_t)(w.end - w.begin);
        CutChunk c;
        c.text = static_cast<char *>(xmalloc(n + 1));
        memcpy(c.text, text + w.begin, n);
        c.text[n] = '\0';
        out->text_bytes += n;
        while (!hit_nul && scanned < w.begin) {
            if (text[scanned] == '\0') {
                hit_nul = true;
            } else if (text[scanned] == '\n') {
                line_feeds++;
            }
            scanned++;
        }
        c.line_number = 1 + line_feeds;
        out->chunks.push_back(c);
    }
}

bool store_cut_files(TrnEngine *e, CutFile *files, size_t n, uint64_t taken_up)
{
    if (!write_begin(e)) {
        return false;
    }
    /* What the caller knew of the index holds unless this handle took up others' commits. */
    const bool known = e->taken_up == taken_up;
    std::vector<bool, XAllocator<bool>> keep(n, false);
    size_t bytes = 0;
    for (size_t f = 0; f < n; f++) {
        /* A file read again whose chunks are already held (an update killed before it noted
        ** the file) keeps them as they are. */
        keep[f] =
            files[f].held_none && known ? files[f].chunks.empty() : held_chunks_equal(e, files[f]);
        bytes += keep[f] ? 0
                         : group_bytes(
                             files[f].text_bytes, files[f].chunks.size(), strlen(files[f].path), 0);
    }
    bool committed = true;
    {
        TrnBytes group;
        group.reserve(bytes + 128);
        wal_group_begin(e, &group);
        char doc_id[TRN_ID_MAX];
        bool any = false;
        for (size_t f = 0; f < n; f++) {
            const CutFile &file = files[f];
            if (keep[f]) {
                continue;
            }
            any = true;
            wal_put_remove(e, &group, file.path);
            for (size_t i = 0; i < file.chunks.size(); i++) {
                snprintf(doc_id, sizeof doc_id, "%s:%d", file.path, (int)i);
                wal_put_add(e,
                            &group,
                            doc_id,
                            file.chunks[i].text,
                            file.path,
                            (int32_t)i,
                            file.chunks[i].line_number,
                            file.type);
            }
        }
        committed = !any || wal_commit_group(e, &group);
    } /* the group's bytes go before the chunks join the index */
    if (committed) {
        uint64_t added = 0;
        for (size_t f = 0; f < n; f++) {
            CutFile &file = files[f];
            file.stored = (int32_t)file.chunks.size();
            if (keep[f]) {
                continue;
            }
            if (!(file.held_none && known)) {
                remove_file_mem(e, file.path);
            }
            ensure_cap(e, e->count + file.chunks.size());
            char doc_id[TRN_ID_MAX];
            for (size_t i = 0; i < file.chunks.size(); i++) {
                snprintf(doc_id, sizeof doc_id, "%s:%d", file.path, (int)i);
                add_doc_pending(e,
                                doc_id,
                                file.chunks[i].text,
                                file.path,
                                (int32_t)i,
                                file.chunks[i].line_number,
                                file.type);
            }
            added += file.chunks.size();
            e->changed = 1;
        }
        count_logged(e, added);
    }
    write_end(e);
    return committed;
}

int32_t chunk_and_ingest(TrnEngine *e, const char *path, const char *text, int64_t length,
                         int32_t chunk_size, int32_t overlap, TrnFileType type)
{
    /* A window of no bytes cuts nothing: a chunk_size below 1 adds no chunk. */
    if (length < 1 || chunk_size < 1) {
        return 0;
    }
    CutFile f;
    f.path = path;
    f.type = type;
    cut_file(text, length, chunk_size, overlap, &f);
    const size_t count = f.chunks.size();
    const size_t blocks = (count + EMBED_BLOCK - 1) / EMBED_BLOCK;
    std::vector<float *, XAllocator<float *>> vectors(blocks, nullptr);
    std::vector<const char *, XAllocator<const char *>> texts;
    for (size_t b = 0; b < blocks; b++) {
        size_t from = b * EMBED_BLOCK, m = std::min(EMBED_BLOCK, count - from);
        texts.clear();
        for (size_t i = from; i < from + m; i++) {
            texts.push_back(f.chunks[i].text);
        }
        vectors[b] = static_cast<float *>(xmalloc(xmul(xmul(m, (size_t)e->dim), sizeof(float))));
        embed_distinct_chunks(e, texts.data(), m, vectors[b]);
    }
    auto vector_of = [&vectors, e](size_t i) {
        return vectors[i / EMBED_BLOCK] + (i % EMBED_BLOCK) * (size_t)e->dim;
    };

    int32_t added = -1;
    char doc_id[TRN_ID_MAX];
    if (write_begin(e)) {
        bool committed;
        {
            TrnBytes group;
            group.reserve(group_bytes(f.text_bytes, count, strlen(path), e->dim) + 128);
            wal_group_begin(e, &group);
            for (size_t i = 0; i < count; i++) {
                snprintf(doc_id, sizeof doc_id, "%s:%d", path, (int)i);
                wal_put_add(e,
                            &group,
                            doc_id,
                            f.chunks[i].text,
                            path,
                            (int32_t)i,
                            f.chunks[i].line_number,
                            type);
                wal_put_vector(e, &group, doc_id, vector_of(i));
            }
            committed = wal_commit_group(e, &group);
        } /* the group's bytes go before the chunks join the index */
        if (committed) {
            ensure_cap(e, e->count + count);
            for (size_t i = 0; i < count; i++) {
                snprintf(doc_id, sizeof doc_id, "%s:%d", path, (int)i);
                add_doc_vec(e,
                            doc_id,
                            f.chunks[i].text,
                            path,
                            (int32_t)i,
                            f.chunks[i].line_number,
                            type,
                            vector_of(i));
                free(f.chunks[i].text);
                f.chunks[i].text = nullptr;
                if (i % EMBED_BLOCK == EMBED_BLOCK - 1 || i + 1 == count) {
                    free(vectors[i / EMBED_BLOCK]);
                    vectors[i / EMBED_BLOCK] = nullptr;
                }
            }
            added = (int32_t)count;
            e->changed = 1;
            count_logged(e, count * 2); /* texts and vectors */
        }
        write_end(e);
    }
    for (float *block : vectors) {
        free(block);
    }
    return added;
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
    TrnFileType type = classify_file(path, nullptr, 0, nullptr);
    if (!trn_is_indexable(type)) {
        return 0;
    }
    ExtractedText text;
    TrnFileStatus status = extract_file_text(path, type, 0, &text);
    int32_t n = -1;
    if (status == TRN_FILE_STATUS_INDEXABLE) {
        n = chunk_and_ingest(e, path, text.text, (int64_t)text.length, chunk_size, overlap, type);
    } else if (status == TRN_FILE_STATUS_TOO_SHORT) {
        n = 0;
    }
    extracted_text_free(&text);
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
    int32_t rc = walk_files(dir, nullptr, ingest_walked, state);
    int32_t total = rc >= 0 && !state->failed ? state->totals[0] : -1;
    free(state);
    return total;
}

} /* extern "C" */
