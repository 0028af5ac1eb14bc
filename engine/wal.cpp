/*
** wal.cpp -- the write-ahead log "tarnwick.wal": every chunk added since the last checkpoint,
** appended as it is added and replayed (re-embedded) when the handle is opened.
**
** Log layout. No header; a sequence of records, little-endian:
**
**     uint8  op               'A' (0x41) adds one chunk; the program writes no other op
**     uint32 n, n bytes       doc_id, no NUL; written at most 255 bytes long
**   op 'A' only:
**     uint32 n, n bytes       text
**     uint32 n, n bytes       file_path (0: no path)
**     int32  chunk_index
**     int32  line_number
**     uint32 file_type
**
** The stream is flushed after every record, so a record whose append returned is in the file
** even when the process is killed right after. A crash can leave a torn last record; replay
** ends quietly there (as it does at an id length above 4096, or at any length larger than the
** bytes left) and cuts the file back to the end of the last whole record, so that records
** appended by the next session follow a whole record and are found by the replay after it. A
** record with an unknown op is skipped after its id.
*/
#include "internal.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

/* A log opened for replay, with the bytes left to read. */
struct LogReader {
    FILE *f;
    uint64_t left;
};

bool read_exact(LogReader *r, void *out, size_t n)
{
    if (n > r->left) {
        return false;
    }
    if (n > 0 && fread(out, 1, n, r->f) != n) {
        return false;
    }
    r->left -= n;
    return true;
}

template <typename T>
bool read_value(LogReader *r, T *out)
{
    return read_exact(r, out, sizeof(T));
}

/* Reads a length and that many bytes into an owned NUL-terminated string. A length beyond the
** bytes left is a torn record, so nothing is allocated for it. */
char *read_string(LogReader *r, uint32_t limit)
{
    uint32_t n = 0;
    if (!read_value(r, &n) || n > limit || n > r->left) {
        return nullptr;
    }
    char *s = static_cast<char *>(xmalloc((size_t)n + 1));
    if (!read_exact(r, s, n)) {
        free(s);
        return nullptr;
    }
    s[n] = '\0';
    return s;
}

/* Reads one 'A' record's body after its id and adds the chunk. Returns false for a torn body. */
bool replay_add(TrnEngine *e, LogReader *r, const char *id)
{
    char *text = read_string(r, UINT32_MAX);
    if (!text) {
        return false;
    }
    char *path = read_string(r, UINT32_MAX);
    if (!path) {
        free(text);
        return false;
    }
    int32_t chunk_index = 0, line_number = 0;
    uint32_t file_type = 0;
    bool whole =
        read_value(r, &chunk_index) && read_value(r, &line_number) && read_value(r, &file_type);
    if (whole) {
        add_doc_mem(e, id, text, path[0] ? path : nullptr, chunk_index, line_number, file_type);
    }
    free(text);
    free(path);
    return whole;
}

void put(FILE *f, const void *p, size_t n)
{
    if (n > 0) {
        fwrite(p, 1, n, f);
    }
}

template <typename T>
void put_value(FILE *f, T value)
{
    put(f, &value, sizeof value);
}

void put_string(FILE *f, const char *s)
{
    uint32_t n = s ? (uint32_t)strlen(s) : 0;
    put_value(f, n);
    put(f, s, n);
}

} // namespace

void wal_replay(TrnEngine *e, const char *path)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        return;
    }
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
        fclose(f);
        return;
    }
    LogReader r = {f, (uint64_t)st.st_size};
    uint64_t whole_end = 0; /* bytes up to the end of the last whole record */
    for (;;) {
        uint8_t op = 0;
        if (!read_value(&r, &op)) {
            break;
        }
        char *id = read_string(&r, TRN_WAL_ID_LIMIT);
        if (!id) {
            break;
        }
        bool whole = op == 'A' ? replay_add(e, &r, id) : true;
        free(id);
        if (!whole) {
            break;
        }
        whole_end = (uint64_t)st.st_size - r.left;
    }
    fclose(f);
    if (whole_end < (uint64_t)st.st_size) {
        if (truncate(path, (off_t)whole_end) != 0) {
            return; /* the next open stops at the same place */
        }
    }
}

void wal_append(TrnEngine *e, uint64_t slot)
{
    if (!e->wal) {
        return;
    }
    const TrnChunk *c = &e->chunks[slot];
    FILE *f = e->wal;
    put_value(f, (uint8_t)'A');
    put_string(f, c->doc_id);
    put_string(f, c->text);
    put_string(f, c->file_path);
    put_value(f, c->chunk_index);
    put_value(f, c->line_number);
    put_value(f, c->file_type);
    fflush(f);
}
