/*
** wal.cpp -- the write-ahead log "tarnwick.wal": what was added or removed since the last
** checkpoint, appended as it happens and replayed when a handle loads.
**
** Log layout. No header; a sequence of records, little-endian:
**
**     uint8  op
**     uint32 n, n bytes       id, at most 4096 bytes; a NUL only as the first byte of a path
**   op 'A' (0x41), one chunk; id is its doc_id, written at most 255 bytes long:
**     uint32 n, n bytes       text
**     uint32 n, n bytes       file_path (0: no path)
**     int32  chunk_index
**     int32  line_number
**     uint32 file_type
**   op 'V' (0x56), the vector of a chunk an 'A' record added, in the same group or a later one;
**     id is its doc_id, as in 'A':
**     uint32 n, n bytes       dim float32, the unit vector
**   op 'D' (0x44): every chunk of the file named by id is removed.
**   op 'G' (0x47), first record of a log of groups: id is the generation of the store it follows,
**     in decimal, a space and the index's id in 32 lower-case hex digits (commit_record.cpp); only
**     the generation after a commit record of version 1, which names no index.
**   op 'C' (0x43): ends a group; id is the CRC-32 of the group's bytes (from the end of the
**     previous 'C' record, or the start of the log) in 8 lower-case hex digits.
**
** Records other than 'A' and 'V' carry only their id. A chunk that an 'A' record adds is pending
** (no vector, outside the graph) until a 'V' record gives it its vector: replay never embeds, and
** leaves the linking of replayed vectors to the handle's first write (set_replayed_vector).
** Ingestion writes each 'V' right after its 'A'; an update's meaning phase writes groups of 'V'
** records for chunks its words phase logged before (meaning.cpp). A 'V' record names the live
** pending chunk with its doc_id, which is unique among them; one that names none is ignored.
**
** doc_id, file_path and the id of 'D' are paths as storage.h writes them: one below the index's
** folder is a NUL byte and the rest after the folder. Records of older versions, which wrote
** every path whole, read the same, so a log may hold both.
**
** Each ingested file and each removal is one group, written with one write(2) and synced before
** the call returns. Replay of a log that begins with 'G' applies whole groups only, so a file
** whose chunks were not all logged is left out and redone by the next update. The commit record
** says how many bytes of the log were committed and their CRC-32 (commit_record.cpp): a log
** shorter than that or differing in them is damage. After them, a torn or unchecked group at the
** end is a crash and ends replay quietly; a group that fails its checksum with more bytes after
** it is damage, as is a log that names another index, or groups without a commit record. A log
** without 'G' (an older version's) is replayed record by record up to a torn tail, as that
** version did. Replay never writes: a writer cuts a torn tail off before it appends (sharing.cpp).
*/
#include "internal.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/* One parsed record; strings point into the mapped log and are not NUL-terminated. */
struct LogRecord {
    uint8_t op;
    const uint8_t *id;
    uint32_t id_len;
    const uint8_t *text;
    uint32_t text_len;
    const uint8_t *path;
    uint32_t path_len;
    int32_t chunk_index;
    int32_t line_number;
    uint32_t file_type;
};

/* Parses one record; false for a torn or hostile one (a length beyond the bytes left). */
bool parse_record(ByteReader *c, LogRecord *r)
{
    memset(r, 0, sizeof *r);
    if (!bytes_take(c, &r->op, 1) || !bytes_take_string(c, TRN_WAL_ID_LIMIT, &r->id, &r->id_len)) {
        return false;
    }
    if (r->op == 'V') {
        return bytes_take_string(c, UINT32_MAX, &r->text, &r->text_len);
    }
    if (r->op != 'A') {
        return true;
    }
    return bytes_take_string(c, UINT32_MAX, &r->text, &r->text_len)
           && bytes_take_string(c, UINT32_MAX, &r->path, &r->path_len)
           && bytes_take(c, &r->chunk_index, 4) && bytes_take(c, &r->line_number, 4)
           && bytes_take(c, &r->file_type, 4);
}

char *dup_bytes(const uint8_t *p, uint32_t n)
{
    char *s = static_cast<char *>(xmalloc((size_t)n + 1));
    if (n > 0) {
        memcpy(s, p, n);
    }
    s[n] = '\0';
    return s;
}

/* The live pending chunk named id, looked for from e->meaning_hint on and then from the start:
** vectors are logged in the order of their chunks' slots. -1 when there is none. */
int64_t pending_slot(TrnEngine *e, const char *id)
{
    const uint64_t from = e->meaning_hint < e->count ? e->meaning_hint : 0;
    for (uint64_t n = 0; n < e->count; n++) {
        uint64_t i = from + n < e->count ? from + n : from + n - e->count;
        const TrnChunk *c = &e->chunks[i];
        if (c->pending && !c->deleted && strcmp(c->doc_id, id) == 0) {
            return (int64_t)i;
        }
    }
    return -1;
}

void apply_record(TrnEngine *e, const LogRecord *r)
{
    if (r->op == 'A') {
        char *id = path_from_disk(e, r->id, r->id_len);
        char *text = dup_bytes(r->text, r->text_len);
        char *path = r->path_len > 0 ? path_from_disk(e, r->path, r->path_len) : nullptr;
        e->meaning_hint = e->count;
        add_doc_pending(e, id, text, path, r->chunk_index, r->line_number, r->file_type);
        free(id);
        free(text);
        free(path);
    } else if (r->op == 'V') {
        if (r->text_len != (uint64_t)e->dim * sizeof(float)) {
            return;
        }
        char *full = path_from_disk(e, r->id, r->id_len);
        char id[TRN_ID_MAX];
        snprintf(id, sizeof id, "%s", full); /* as the chunk keeps it */
        free(full);
        int64_t slot = pending_slot(e, id);
        if (slot >= 0) {
            set_replayed_vector(e, (uint64_t)slot, r->text);
            e->meaning_hint = (uint64_t)slot + 1;
        }
    } else if (r->op == 'D') {
        char *path = path_from_disk(e, r->id, r->id_len);
        remove_file_mem(e, path);
        free(path);
    }
}

/* The value of n decimal digits; UINT64_MAX for anything else. */
uint64_t decimal(const uint8_t *p, uint32_t n)
{
    uint64_t v = 0;
    if (n == 0 || n > 19) {
        return UINT64_MAX;
    }
    for (uint32_t i = 0; i < n; i++) {
        if (p[i] < '0' || p[i] > '9') {
            return UINT64_MAX;
        }
        v = v * 10 + (uint64_t)(p[i] - '0');
    }
    return v;
}

/* The id of the 'G' record that begins a log after generation of e's index. */
int group_log_id(const TrnEngine *e, uint64_t generation, char *out, size_t size)
{
    int n = snprintf(out, size, "%llu", (unsigned long long)generation);
    for (size_t i = 0; e->has_index_id && i < sizeof e->index_id; i++) {
        n += snprintf(out + n, size - (size_t)n, i == 0 ? " %02x" : "%02x", e->index_id[i]);
    }
    return n;
}

/* The generation a 'G' record names (the digits before a space); UINT64_MAX when malformed. */
uint64_t log_generation(const LogRecord *g)
{
    const uint8_t *space = static_cast<const uint8_t *>(memchr(g->id, ' ', g->id_len));
    return decimal(g->id, space ? (uint32_t)(space - g->id) : g->id_len);
}

/* Whether a whole 'C' record (op, length 8, eight hex digits) lies in bytes [from, size). */
bool group_end_after(const uint8_t *bytes, size_t size, uint64_t from)
{
    for (size_t at = (size_t)from; at + 13 <= size; at++) {
        if (bytes[at] != 'C' || memcmp(bytes + at + 1, "\x08\0\0\0", 4) != 0) {
            continue;
        }
        bool hex = true;
        for (size_t k = at + 5; k < at + 13 && hex; k++) {
            hex = (bytes[k] >= '0' && bytes[k] <= '9') || (bytes[k] >= 'a' && bytes[k] <= 'f');
        }
        if (hex) {
            return true;
        }
    }
    return false;
}

/* Whether bytes [start, end) hold the end of a group that began at start: a 'C' record, its op
** byte aside, whose checksum is that of the bytes before it. */
bool group_end_within(const uint8_t *bytes, uint64_t start, uint64_t end)
{
    for (uint64_t at = start; at + 13 <= end; at++) {
        if (memcmp(bytes + at + 1, "\x08\0\0\0", 4) != 0) {
            continue;
        }
        char want[16];
        snprintf(want, sizeof want, "%08x", crc32_update(0, bytes + start, (size_t)(at - start)));
        if (memcmp(bytes + at + 5, want, 8) == 0) {
            return true;
        }
    }
    return false;
}

/* Whether a 'G' record names e's index, or no index (a log begun after a commit record of
** version 1). */
bool names_index(const TrnEngine *e, const LogRecord *g)
{
    const uint8_t *space = static_cast<const uint8_t *>(memchr(g->id, ' ', g->id_len));
    if (!space) {
        return true;
    }
    char want[64];
    int n = group_log_id(e, log_generation(g), want, sizeof want);
    return (uint32_t)n == g->id_len && memcmp(want, g->id, g->id_len) == 0;
}

/* Applies the records of bytes [from, end). */
void apply_range(TrnEngine *e, const uint8_t *bytes, uint64_t from, uint64_t end)
{
    ByteReader c = {bytes + from, (size_t)(end - from)};
    LogRecord r;
    /* A rebuild taking up groups committed while it ran: the file a group writes replaces what
    ** the rebuild read of it, even when the group only adds (a file new to the old index). */
    const uint8_t *replaced = nullptr;
    uint32_t replaced_len = 0;
    while (c.left > 0 && parse_record(&c, &r)) {
        if (e->rebuild && r.op == 'A' && r.path_len > 0
            && (!replaced || replaced_len != r.path_len
                || memcmp(replaced, r.path, r.path_len) != 0)) {
            char *path = path_from_disk(e, r.path, r.path_len);
            remove_file_mem(e, path);
            free(path);
            replaced = r.path;
            replaced_len = r.path_len;
        } else if (r.op == 'C') {
            replaced = nullptr;
        }
        apply_record(e, &r);
    }
}

void put_bytes(TrnBytes *b, const void *p, size_t n)
{
    const uint8_t *u = static_cast<const uint8_t *>(p);
    b->insert(b->end(), u, u + n);
}

void put_u32(TrnBytes *b, uint32_t v)
{
    put_bytes(b, &v, 4);
}

void put_str(TrnBytes *b, const char *s, size_t n)
{
    put_u32(b, (uint32_t)n);
    put_bytes(b, s, n);
}

void put_path(TrnBytes *b, const TrnEngine *e, const char *path)
{
    DiskPath d = disk_path(e, path);
    put_u32(b, d.length);
    if (d.relative) {
        b->push_back(0);
    }
    put_bytes(b, d.rest, d.length - (d.relative ? 1 : 0));
}

} // namespace

bool wal_replay(TrnEngine *e, const char *path, uint64_t from, bool apply)
{
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    bool whole = wal_replay_fd(e, fd, from, apply);
    if (fd >= 0) {
        close(fd);
    }
    return whole;
}

bool wal_replay_fd(TrnEngine *e, int fd, uint64_t from, bool apply)
{
    if (from == 0) {
        e->wal_end = 0;
        e->wal_crc = 0;
        e->wal_chunks = 0;
        e->wal_legacy = 0;
        e->wal_stale = 0;
    }
    struct stat st;
    bool present = fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    size_t size = present ? (size_t)st.st_size : 0;
    /* The committed groups must all be there: a log cut or deleted lost them. */
    if (e->log_committed > size) {
        return false;
    }
    if (size <= from) {
        return true;
    }
    void *map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map == MAP_FAILED) {
        return e->log_committed <= from;
    }
    const uint8_t *bytes = static_cast<const uint8_t *>(map);
    bool whole = true;
    if (e->log_committed > from) {
        uint32_t crc = crc32_update(
            from == 0 ? 0 : e->wal_crc, bytes + from, (size_t)(e->log_committed - from));
        whole = crc == e->log_committed_crc;
    }

    ByteReader c = {bytes, size};
    LogRecord first;
    bool parsed = parse_record(&c, &first);
    bool grouped = parsed && first.op == 'G';
    if (!whole) {
        /* changed or zeroed within its committed groups */
    } else if (from == 0 && !grouped) {
        /* An older version's log: whole records up to a torn tail. After a commit record, a
        ** log without groups is either such a log that a checkpoint was about to empty or a
        ** first group cut short (shorter than its 'G' record); anything else is damage. */
        if (e->has_commit) {
            char want[64];
            int n = group_log_id(e, e->generation, want, sizeof want);
            e->wal_stale = 1;
            whole = bytes[0] == 'A' || (!parsed && size < 5 + (size_t)n);
        } else {
            c = {bytes, size};
            uint64_t chunks = 0;
            LogRecord r;
            while (c.left > 0 && parse_record(&c, &r)) {
                e->wal_end = size - c.left;
                chunks += r.op == 'A' ? 1 : 0;
            }
            e->wal_legacy = e->wal_end > 0 ? 1 : 0;
            e->wal_chunks = chunks;
            /* Only 'A' means anything in such a log. */
            c = {bytes, (size_t)e->wal_end};
            while (apply && c.left > 0 && parse_record(&c, &r)) {
                if (r.op == 'A') {
                    apply_record(e, &r);
                }
            }
        }
    } else if (from == 0 && e->has_commit && log_generation(&first) + 1 == e->generation
               && names_index(e, &first)) {
        e->wal_stale = 1; /* a checkpoint replaced the store and had not emptied the log yet */
    } else if (from == 0) {
        /* Groups are only ever written after a commit, and name its generation and index: a
        ** log without a commit record, or of another generation or index, is not this one's. */
        char want[64];
        int n = group_log_id(e, e->generation, want, sizeof want);
        whole = e->has_commit && (uint32_t)n == first.id_len && memcmp(want, first.id, n) == 0;
    }
    if (whole && !e->wal_stale && (from > 0 || grouped)) {
        /* Groups from `from`: find the last whole one, then apply up to it. */
        c = {bytes + from, size - (size_t)from};
        uint64_t group_start = from, end = from, chunks = 0, pending = 0;
        LogRecord r;
        while (c.left > 0) {
            uint64_t record_start = size - c.left;
            if (!parse_record(&c, &r)) {
                /* A record cut short by a crash ends the log; one that cannot be read with its
                ** group's end still after it was damaged. */
                whole = !group_end_after(bytes, size, record_start);
                break;
            }
            if (r.op == 'A' || r.op == 'V') {
                pending++;
            } else if (r.op == 'C') {
                char want[16];
                snprintf(
                    want,
                    sizeof want,
                    "%08x",
                    crc32_update(0, bytes + group_start, (size_t)(record_start - group_start)));
                if (r.id_len != 8 || memcmp(r.id, want, 8) != 0) {
                    /* A crash leaves at most one unchecked group, at the very end; one that
                    ** holds the whole end of an earlier group was damaged. */
                    whole = c.left == 0 && !group_end_within(bytes, group_start, record_start);
                    break;
                }
                end = size - c.left;
                group_start = end;
                chunks += pending;
                pending = 0;
            }
        }
        whole = whole && end >= e->log_committed;
        if (whole && apply) {
            apply_range(e, bytes, from, end);
        }
        if (whole) {
            e->wal_crc = crc32_update(from == 0 ? 0 : e->wal_crc, bytes + from, end - from);
            e->wal_end = end;
            e->wal_chunks += chunks;
        }
    }
    munmap(map, size);
    /* A log of an older generation or version holds none of the groups the record vouches for. */
    return whole && (e->log_committed == 0 || (!e->wal_stale && !e->wal_legacy));
}

void wal_group_begin(const TrnEngine *e, TrnBytes *group)
{
    group->clear();
    if (e->wal_end == 0) {
        char id[64];
        int n = group_log_id(e, e->generation, id, sizeof id);
        group->push_back('G');
        put_str(group, id, (size_t)n);
    }
}

void wal_put_add(const TrnEngine *e, TrnBytes *group, const char *doc_id, const char *text,
                 const char *path, int32_t chunk_index, int32_t line_number, uint32_t file_type)
{
    group->push_back('A');
    put_path(group, e, doc_id);
    put_str(group, text, text ? strlen(text) : 0);
    if (path) {
        put_path(group, e, path);
    } else {
        put_u32(group, 0);
    }
    put_bytes(group, &chunk_index, 4);
    put_bytes(group, &line_number, 4);
    put_u32(group, file_type);
}

void wal_put_vector(const TrnEngine *e, TrnBytes *group, const char *doc_id, const float *v)
{
    group->push_back('V');
    put_path(group, e, doc_id);
    put_str(group, reinterpret_cast<const char *>(v), (size_t)e->dim * sizeof(float));
}

void wal_put_remove(const TrnEngine *e, TrnBytes *group, const char *path)
{
    group->push_back('D');
    put_path(group, e, path);
}

bool wal_commit_group(TrnEngine *e, TrnBytes *group)
{
    if (!e->wal) {
        return true;
    }
    char id[16];
    snprintf(id, sizeof id, "%08x", crc32_update(0, group->data(), group->size()));
    group->push_back('C');
    put_str(group, id, 8);

    int fd = fileno(e->wal);
    const uint8_t *p = group->data();
    size_t left = group->size();
    int err = 0;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            err = n < 0 ? errno : ENOSPC;
            break;
        }
        p += n;
        left -= (size_t)n;
    }
    if (err == 0 && fsync(fd) != 0) {
        err = errno;
    }
    if (err != 0) {
        /* The group never happened: the log ends where it did (a reader would stop at the
        ** torn group anyway, and the next writer cuts it off). */
        if (ftruncate(fd, (off_t)e->wal_end) == 0) {
            fsync(fd);
        }
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    uint64_t start = e->wal_end;
    uint32_t start_crc = e->wal_crc;
    uint32_t crc = crc32_update(start_crc, group->data(), group->size());
    /* Reported only once the commit record covers it; without that the group never happened. */
    if (e->log_tracked && !commit_log_write(e, start + group->size(), crc)) {
        if (ftruncate(fd, (off_t)start) == 0) {
            fsync(fd);
        }
        return false;
    }
    e->wal_end += group->size();
    e->wal_crc = crc;
    if (!e->own_known || e->own_generation != e->generation || e->own_end != start) {
        e->own_known = 1; /* another process's group, or a checkpoint, came in between */
        e->own_generation = e->generation;
        e->own_from = start;
        e->own_from_crc = start_crc;
    }
    e->own_end = e->wal_end;
    /* This handle's own append is no news to it. */
    struct stat st;
    if (fstat(fd, &st) == 0) {
        e->seen.wal_size = (uint64_t)st.st_size;
        e->seen.wal_mtime_ns = (int64_t)st.st_mtim.tv_sec * 1000000000 + st.st_mtim.tv_nsec;
    }
    return true;
}

bool wal_paths(const TrnEngine *e, int fd, uint64_t from, uint64_t end, TrnPathList *paths)
{
    if (end < from || end - from > SIZE_MAX) {
        return false;
    }
    TrnBytes bytes((size_t)(end - from));
    size_t got = 0;
    while (got < bytes.size()) {
        ssize_t n = pread(fd, bytes.data() + got, bytes.size() - got, (off_t)(from + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += (size_t)n;
    }
    ByteReader c = {bytes.data(), bytes.size()};
    LogRecord r;
    while (c.left > 0 && parse_record(&c, &r)) {
        const uint8_t *path = r.op == 'A' ? r.path : r.op == 'D' ? r.id : nullptr;
        uint32_t n = r.op == 'A' ? r.path_len : r.id_len;
        if (path && n > 0) {
            char *full = path_from_disk(e, path, n);
            if (paths->empty() || paths->back() != full) {
                paths->push_back(TrnPath(full));
            }
            free(full);
        }
    }
    return c.left == 0;
}
