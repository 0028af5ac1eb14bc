/*
** store_mapped.cpp -- the store "tarnwick.bin" of version 6, laid out so that a search uses it in
** place. A handle maps the file read-only and takes the chunk vectors, nearly all of its bytes,
** and the chunks' texts from the mapping, which it keeps for its life. Each vector is checked
** against its own CRC-32C the first time it is read (chunk_vector), so an open reads only the
** other parts of a large index and a search the vectors it compares; those other parts are
** checked whole at open. Versions 1 to 3 (store.cpp) are still read, by copying every record.
**
** Layout, little-endian, IEEE-754 binary32 floats:
**
**     offset  size  field
**          0     4  magic "TRNW"
**          4     4  uint32 version, 6
**          8     4  int32 dim (512, the encoder's width)
**         12     4  int32 M
**         16     4  int32 ef_construction
**         20     4  int32 ef_search
**         24     4  int32 entry_point of the graph's first part (-1: empty)
**         28     4  int32 max_level of the first part (-1: empty)
**         32     4  float32 level_mult
**         36     4  uint32 count: chunk records, deleted ones included
**         40     4  uint32 files: entries of the document index
**         44     4  uint32 parts of the graph, 1 or 2 (chunk i is a node of part i % parts)
**         48     8  uint64 bytes of the graph section
**         56     8  uint64 bytes of the names section
**         64     8  uint64 bytes of the strings section
**         72     8  uint64 offset of the vectors, a multiple of 4096 (the end without chunks)
**         80     4  uint32 CRC-32C of the bytes from 96 to the vectors (all that an open reads)
**         84     4  int32 entry_point of the second part (-1: empty, or one part)
**         88     4  int32 max_level of the second part (-1: empty, or one part)
**         92     4  uint32 CRC-32 (zlib's) of bytes 0..91: the store's checksum in the commit
**                   record
**
** then from offset 96 each section right after the one before:
**     chunks     count records of 32 bytes: uint32 doc_id bytes, uint32 text bytes, uint32
**                file_path bytes, int32 chunk_index, int32 line_number, uint32 file_type,
**                int32 level of the graph node (0..31), uint8 flags (1: deleted; 2: pending,
**                its text is committed and its vector not yet: zeros, and its node has no
**                links; others 0), 3 zero bytes
**     checks     count uint32: the CRC-32C of each chunk's vector
**     centroids  files x dim float32: each file's unit centroid, in the document index's order
**     counts     files uint32: each file's live chunks
**     graph      for each chunk, for each level 0..level: uint32 k, k uint32 neighbour slots
**     names      for each file: uint32 n, n bytes of its path
**     strings    for each chunk: doc_id, text, one NUL byte, file_path
**     zero bytes up to the vectors
**     vectors    count x dim float32: chunk i's unit vector at i * dim * 4 from their offset
**
** Version 5 was the same with one part: 0 at 44 and zero bytes from 84 to 91.
**
** Paths are written as storage.h says (relative to the index's folder when below it). Stored
** this way the document index is the one an open would build from the same chunks, so an open
** that replays no log takes it as it is instead of reading every vector to build it.
**
** Damage is refused, never read around: a header or section whose checksum fails refuses the
** whole store at open; a vector whose checksum fails reads as zeros and marks the handle damaged,
** which the search that met it reports (TRN_STATUS_DAMAGED), as does every later write. A handle
** that writes first copies the vectors into its own memory, checking all of them, so nothing ever
** writes to the mapping; checkpoints replace the file by a rename, never in place, so a mapping
** keeps its snapshot while other processes commit.
*/
#include "internal.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr uint32_t STORE_VERSION_MAPPED = 6;
constexpr uint32_t STORE_VERSION_ONE_PART = 5;
constexpr size_t HEADER_SIZE = 96;
constexpr size_t CHUNK_RECORD_SIZE = 32;
constexpr uint64_t VECTOR_ALIGN = 4096; /* a page: the vectors are read in place as floats */
constexpr uint32_t NEIGHBOR_MAX = 1u << 30;
constexpr uint32_t ID_KEEP = 255;    /* doc_id bytes kept in memory */
constexpr uint8_t CHUNK_PENDING = 2; /* in a chunk record's flags */

struct Header {
    int32_t dim, m, ef_construction, ef_search;
    int32_t entry[TRN_GRAPH_PARTS], max_level[TRN_GRAPH_PARTS];
    float level_mult;
    uint32_t count, files, parts;
    uint64_t graph_size, names_size, strings_size, vector_offset;
    uint32_t body_crc;
};

/* Offsets of the sections of a store whose header says h. */
struct Sections {
    uint64_t chunks, checks, centroids, counts, graph, names, strings, end;
};

bool sections_of(const Header &h, Sections *s)
{
    uint64_t dim_bytes = (uint64_t)h.dim * sizeof(float);
    s->chunks = HEADER_SIZE;
    s->checks = s->chunks + (uint64_t)h.count * CHUNK_RECORD_SIZE;
    s->centroids = s->checks + (uint64_t)h.count * 4;
    s->counts = s->centroids + (uint64_t)h.files * dim_bytes;
    s->graph = s->counts + (uint64_t)h.files * 4;
    /* Sizes from a file are bounded before they are added up, so no sum wraps. */
    if (h.graph_size > (1ull << 56) || h.names_size > (1ull << 56)
        || h.strings_size > (1ull << 56)) {
        return false;
    }
    s->names = s->graph + h.graph_size;
    s->strings = s->names + h.names_size;
    s->end = s->strings + h.strings_size;
    return true;
}

void put_u32(uint8_t *b, uint32_t v)
{
    memcpy(b, &v, 4);
}

uint32_t get_u32(const uint8_t *b)
{
    uint32_t v;
    memcpy(&v, b, 4);
    return v;
}

void encode_header(const Header &h, uint8_t *b)
{
    memset(b, 0, HEADER_SIZE);
    memcpy(b, "TRNW", 4);
    put_u32(b + 4, STORE_VERSION_MAPPED);
    memcpy(b + 8, &h.dim, 4);
    memcpy(b + 12, &h.m, 4);
    memcpy(b + 16, &h.ef_construction, 4);
    memcpy(b + 20, &h.ef_search, 4);
    memcpy(b + 24, &h.entry[0], 4);
    memcpy(b + 28, &h.max_level[0], 4);
    memcpy(b + 32, &h.level_mult, 4);
    put_u32(b + 36, h.count);
    put_u32(b + 40, h.files);
    put_u32(b + 44, h.parts);
    memcpy(b + 48, &h.graph_size, 8);
    memcpy(b + 56, &h.names_size, 8);
    memcpy(b + 64, &h.strings_size, 8);
    memcpy(b + 72, &h.vector_offset, 8);
    put_u32(b + 80, h.body_crc);
    memcpy(b + 84, &h.entry[1], 4);
    memcpy(b + 88, &h.max_level[1], 4);
    put_u32(b + 92, crc32_update(0, b, 92));
}

/* False when the header's own checksum fails. A store of version 5 has one part. */
bool decode_header(const uint8_t *b, Header *h)
{
    if (get_u32(b + 92) != crc32_update(0, b, 92)) {
        return false;
    }
    const bool one_part = get_u32(b + 4) == STORE_VERSION_ONE_PART;
    memcpy(&h->dim, b + 8, 4);
    memcpy(&h->m, b + 12, 4);
    memcpy(&h->ef_construction, b + 16, 4);
    memcpy(&h->ef_search, b + 20, 4);
    memcpy(&h->entry[0], b + 24, 4);
    memcpy(&h->max_level[0], b + 28, 4);
    memcpy(&h->level_mult, b + 32, 4);
    h->count = get_u32(b + 36);
    h->files = get_u32(b + 40);
    h->parts = one_part ? 1 : get_u32(b + 44);
    h->entry[1] = -1;
    h->max_level[1] = -1;
    if (!one_part) {
        memcpy(&h->entry[1], b + 84, 4);
        memcpy(&h->max_level[1], b + 88, 4);
    }
    memcpy(&h->graph_size, b + 48, 8);
    memcpy(&h->names_size, b + 56, 8);
    memcpy(&h->strings_size, b + 64, 8);
    memcpy(&h->vector_offset, b + 72, 8);
    h->body_crc = get_u32(b + 80);
    return true;
}

/* The header's parts are 1 or 2, each part's entry point a chunk of that part or -1, and a part
** past the parts empty. */
bool parts_valid(const Header &h)
{
    if (h.parts < 1 || h.parts > (uint32_t)TRN_GRAPH_PARTS) {
        return false;
    }
    for (uint32_t p = 0; p < (uint32_t)TRN_GRAPH_PARTS; p++) {
        const int32_t entry = h.entry[p];
        if (entry != -1
            && (p >= h.parts || entry < 0 || (uint64_t)entry >= h.count
                || (uint32_t)entry % h.parts != p)) {
            return false;
        }
    }
    return true;
}

/* Takes n bytes of a section; false when fewer are left. */
bool section_take(ByteReader *r, size_t n, const uint8_t **p)
{
    if (n > r->left) {
        return false;
    }
    *p = r->p;
    r->p += n;
    r->left -= n;
    return true;
}

/* Reads the chunk records, their strings and graph nodes into the handle's empty slots; the
** texts are used where they lie in_place, else copied. */
bool read_chunks(TrnEngine *e, const uint8_t *b, const Header &h, const Sections &s, bool in_place)
{
    ByteReader graph = {b + s.graph, (size_t)h.graph_size};
    ByteReader strings = {b + s.strings, (size_t)h.strings_size};
    for (uint64_t i = 0; i < h.count; i++) {
        const uint8_t *rec = b + s.chunks + i * CHUNK_RECORD_SIZE;
        TrnChunk *c = &e->chunks[i];
        TrnNode *node = &e->nodes[i];
        memset(c, 0, sizeof *c);
        memset(node, 0, sizeof *node);
        e->count = i + 1; /* a failure below frees what this slot holds so far */
        uint32_t id_len = get_u32(rec), text_len = get_u32(rec + 4), path_len = get_u32(rec + 8);
        int32_t level;
        memcpy(&c->chunk_index, rec + 12, 4);
        memcpy(&c->line_number, rec + 16, 4);
        c->file_type = get_u32(rec + 20);
        memcpy(&level, rec + 24, 4);
        c->deleted = (rec[28] & ~CHUNK_PENDING) ? 1 : 0;
        c->pending = (rec[28] & CHUNK_PENDING) && !c->deleted ? 1 : 0;
        e->deleted_count += c->deleted;
        e->pending_count += c->pending;
        const uint8_t *id, *text, *path;
        if (level < 0 || level >= TRN_MAX_LEVELS || !section_take(&strings, id_len, &id)
            || !section_take(&strings, (size_t)text_len + 1, &text) || text[text_len] != '\0'
            || !section_take(&strings, path_len, &path)) {
            return false;
        }
        char *doc_id = path_from_disk(e, id, id_len);
        snprintf(c->doc_id, sizeof c->doc_id, "%.*s", (int)ID_KEEP, doc_id);
        free(doc_id);
        if (in_place) {
            c->text = reinterpret_cast<char *>(const_cast<uint8_t *>(text));
            c->text_in_store = 1;
        } else {
            c->text = static_cast<char *>(xmalloc((size_t)text_len + 1));
            memcpy(c->text, text, (size_t)text_len + 1);
        }
        c->file_path = path_len > 0 ? path_from_disk(e, path, path_len) : nullptr;
        node->level = level;
        for (int32_t l = 0; l <= level; l++) {
            uint32_t k = 0;
            const uint8_t *list;
            if (!bytes_take_value(&graph, &k) || k > NEIGHBOR_MAX
                || !section_take(&graph, (size_t)k * 4, &list)) {
                return false;
            }
            node_set_list(node, l, list, k);
            for (uint32_t j = 0; j < k; j++) {
                if (node->neighbors[l][j] >= h.count) {
                    return false;
                }
            }
        }
    }
    return graph.left == 0 && strings.left == 0;
}

/* Installs the stored document index. */
bool read_doc_index(TrnEngine *e, const uint8_t *b, const Header &h, const Sections &s)
{
    trn_free_doc_index(e);
    if (h.files == 0) {
        return true;
    }
    size_t dim = (size_t)h.dim;
    e->file_names = static_cast<char **>(xcalloc(h.files, sizeof(char *)));
    e->centroids = static_cast<float *>(xmalloc(xmul(xmul(h.files, dim), sizeof(float))));
    e->file_chunk_counts = static_cast<int32_t *>(xmalloc(xmul(h.files, sizeof(int32_t))));
    e->file_count = (int32_t)h.files;
    e->file_capacity = (int32_t)h.files;
    advise_huge_pages(e->centroids, (size_t)h.files * dim * sizeof(float));
    memcpy(e->centroids, b + s.centroids, (size_t)h.files * dim * sizeof(float));
    memcpy(e->file_chunk_counts, b + s.counts, (size_t)h.files * 4);
    ByteReader names = {b + s.names, (size_t)h.names_size};
    for (uint32_t j = 0; j < h.files; j++) {
        uint32_t n = 0;
        const uint8_t *name;
        if (!bytes_take_string(&names, UINT32_MAX, &name, &n) || n == 0) {
            return false;
        }
        e->file_names[j] = path_from_disk(e, name, n);
    }
    return names.left == 0;
}

} // namespace

/* A store file mapped for the handle's life with it: its chunks' texts point into it, and so do
** the vectors until vectors_own copies them. */
struct TrnStoreMap {
    const uint8_t *map; /* the whole file */
    size_t size;
    const uint8_t *checks; /* count uint32 CRC-32s of the vectors */
    uint8_t damaged;       /* a vector read in place did not match its checksum */
};

uint32_t store_checksum(const uint8_t *bytes, size_t size)
{
    const uint32_t version = store_version(bytes, size);
    if ((version == STORE_VERSION_MAPPED || version == STORE_VERSION_ONE_PART)
        && size >= HEADER_SIZE) {
        return crc32_update(0, bytes, 92);
    }
    return crc32_update(0, bytes, size);
}

uint32_t store_version(const uint8_t *bytes, size_t size)
{
    uint32_t version = 0;
    if (size >= 8 && memcmp(bytes, "TRNW", 4) == 0) {
        memcpy(&version, bytes + 4, 4);
    }
    return version;
}

int store_load_mapped(TrnEngine *e, const uint8_t *b, size_t size, bool in_place)
{
    const uint32_t version = store_version(b, size);
    if (version != STORE_VERSION_MAPPED && version != STORE_VERSION_ONE_PART) {
        store_load_bytes(e, b, size);
        return STORE_COPIED;
    }
    Header h;
    Sections s;
    if (size < HEADER_SIZE || !decode_header(b, &h) || h.dim != TRN_ENCODER_DIM
        || !sections_of(h, &s) || s.end > h.vector_offset
        || (h.count > 0 && h.vector_offset % VECTOR_ALIGN != 0) || h.vector_offset > size
        || (size - h.vector_offset) / ((uint64_t)h.dim * sizeof(float)) != h.count
        || (size - h.vector_offset) % ((uint64_t)h.dim * sizeof(float)) != 0
        || h.body_crc != crc32c_update(0, b + HEADER_SIZE, h.vector_offset - HEADER_SIZE)
        || !parts_valid(h)) {
        return STORE_DAMAGED;
    }
    /* The counts checked above fit in the file, so the tables below are bounded by its size. */
    e->M = h.m >= 1 && h.m <= (1 << 20) ? h.m : e->M;
    e->ef_construction = h.ef_construction >= 1 && h.ef_construction <= (1 << 20)
                             ? h.ef_construction
                             : e->ef_construction;
    e->ef_search = h.ef_search >= 1 && h.ef_search <= (1 << 20) ? h.ef_search : e->ef_search;
    if (std::isfinite(h.level_mult) && h.level_mult >= 0.0f && h.level_mult <= 64.0f) {
        e->level_mult = h.level_mult;
    }
    e->graph_parts = (int32_t)h.parts;
    if (h.count == 0) {
        return STORE_COPIED;
    }
    size_t dim = (size_t)h.dim;
    store_map_release(e);
    free(e->vectors);
    e->vectors = nullptr;
    e->chunks = static_cast<TrnChunk *>(xrealloc(e->chunks, xmul(h.count, sizeof(TrnChunk))));
    e->nodes = static_cast<TrnNode *>(xrealloc(e->nodes, xmul(h.count, sizeof(TrnNode))));
    advise_huge_pages(e->chunks, h.count * sizeof(TrnChunk)); /* read_chunks fills every slot */
    advise_huge_pages(e->nodes, h.count * sizeof(TrnNode));
    e->capacity = h.count;
    e->dim = h.dim;
    bool ok = read_chunks(e, b, h, s, in_place) && read_doc_index(e, b, h, s);
    const uint8_t *vectors = b + h.vector_offset;
    if (ok && in_place) {
        TrnStoreMap *m = static_cast<TrnStoreMap *>(xcalloc(1, sizeof(TrnStoreMap)));
        m->map = b;
        m->size = size;
        m->checks = b + s.checks;
        e->store_map = m;
        e->vectors_checked =
            static_cast<uint64_t *>(xcalloc((h.count + 63) / 64, sizeof(uint64_t)));
        e->vectors = reinterpret_cast<float *>(const_cast<uint8_t *>(vectors));
        madvise(const_cast<uint8_t *>(vectors), size - h.vector_offset, MADV_RANDOM);
    } else {
        e->vectors = static_cast<float *>(xmalloc(xmul(xmul(h.count, dim), sizeof(float))));
        for (uint64_t i = 0; ok && i < h.count; i++) {
            const uint8_t *v = vectors + i * dim * sizeof(float);
            ok = crc32c_update(0, v, dim * sizeof(float)) == get_u32(b + s.checks + i * 4);
            memcpy(e->vectors + i * dim, v, dim * sizeof(float));
        }
    }
    if (!ok) {
        trn_free_doc_index(e);
        chunks_clear(e);
        free(e->vectors);
        e->vectors = nullptr;
        e->capacity = 0;
        e->deleted_count = 0;
        return STORE_DAMAGED;
    }
    for (int32_t p = 0; p < TRN_GRAPH_PARTS; p++) {
        e->graph[p].entry_point = h.entry[p];
        e->graph[p].max_level = h.entry[p] >= 0 ? e->nodes[h.entry[p]].level : -1;
    }
    e->doc_index_stored = 1;
    e->paths_full = 0;
    return in_place ? STORE_IN_PLACE : STORE_COPIED;
}

const float *vector_check(const TrnEngine *e, uint64_t slot)
{
    size_t bytes = (size_t)e->dim * sizeof(float);
    const float *v = e->vectors + slot * (uint64_t)e->dim;
    if (crc32c_update(0, v, bytes) == get_u32(e->store_map->checks + slot * 4)) {
        e->vectors_checked[slot / 64] |= 1ull << (slot % 64);
        return v;
    }
    /* Never the damaged bytes: a search goes on over zeros and then reports the damage. */
    static const float zeros[TRN_ENCODER_DIM] = {};
    e->store_map->damaged = 1;
    return zeros;
}

bool vectors_damaged(const TrnEngine *e)
{
    return (e->store_map && e->store_map->damaged) || e->refused == TRN_STATUS_DAMAGED;
}

bool vectors_own(TrnEngine *e)
{
    if (!e->vectors_checked) {
        return true;
    }
    size_t dim = (size_t)e->dim;
    float *own = static_cast<float *>(xmalloc(xmul(xmul(e->capacity, dim), sizeof(float))));
    for (uint64_t i = 0; i < e->count; i++) {
        memcpy(own + i * dim, chunk_vector(e, i), dim * sizeof(float));
    }
    free(e->vectors_checked);
    e->vectors_checked = nullptr;
    e->vectors = own;
    if (e->store_map->damaged) {
        e->refused = TRN_STATUS_DAMAGED;
        return fail_status(e, TRN_STATUS_DAMAGED, 0);
    }
    return true;
}

void store_map_release(TrnEngine *e)
{
    TrnStoreMap *m = e->store_map;
    if (!m) {
        return;
    }
    if (e->vectors_checked) {
        /* The chunk and node tables keep their slots; growing them again allocates vectors. */
        free(e->vectors_checked);
        e->vectors_checked = nullptr;
        e->vectors = nullptr;
        e->capacity = 0;
    }
    munmap(const_cast<uint8_t *>(m->map), m->size);
    free(m);
    e->store_map = nullptr;
}

namespace
{

/* The store being written: the first failure (with its errno), the bytes so far and the CRC-32
** of those after the header. */
struct Out {
    FILE *f;
    bool ok;
    int err;
    uint64_t size;
    uint32_t crc;
};

void out_put(Out *o, const void *p, size_t n)
{
    if (n == 0 || !o->ok) {
        return;
    }
    if (fwrite(p, 1, n, o->f) != n) {
        o->ok = false;
        o->err = errno ? errno : EIO;
        return;
    }
    if (o->size >= HEADER_SIZE) {
        o->crc = crc32c_update(o->crc, p, n);
    }
    o->size += n;
}

void out_u32(Out *o, uint32_t v)
{
    out_put(o, &v, 4);
}

void out_path(Out *o, const TrnEngine *e, const char *path)
{
    if (!path) {
        return;
    }
    DiskPath d = disk_path(e, path);
    if (d.relative) {
        out_put(o, "", 1);
    }
    out_put(o, d.rest, d.length - (d.relative ? 1 : 0));
}

uint32_t path_bytes(const TrnEngine *e, const char *path)
{
    return path ? disk_path(e, path).length : 0;
}

uint32_t text_bytes(const TrnChunk *c)
{
    return c->text ? (uint32_t)strlen(c->text) : 0;
}

} // namespace

bool store_write(TrnEngine *e, FILE *f, uint64_t *size, uint32_t *checksum, int *err)
{
    /* The document index an open would build from these chunks, stored with them. */
    trn_build_doc_index(e);
    Header h = {};
    h.dim = e->dim;
    h.m = e->M;
    h.ef_construction = e->ef_construction;
    h.ef_search = e->ef_search;
    h.parts = (uint32_t)e->graph_parts;
    for (int32_t p = 0; p < TRN_GRAPH_PARTS; p++) {
        h.entry[p] = e->graph[p].entry_point;
        h.max_level[p] = e->graph[p].max_level;
    }
    h.level_mult = e->level_mult;
    h.count = (uint32_t)e->count;
    h.files = (uint32_t)e->file_count;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        const TrnNode *node = &e->nodes[i];
        for (int32_t l = 0; l <= node->level && l < TRN_MAX_LEVELS; l++) {
            h.graph_size += 4 + 4 * (uint64_t)node->count[l];
        }
        h.strings_size +=
            (uint64_t)path_bytes(e, c->doc_id) + text_bytes(c) + 1 + path_bytes(e, c->file_path);
    }
    for (int32_t j = 0; j < e->file_count; j++) {
        h.names_size += 4 + (uint64_t)path_bytes(e, e->file_names[j]);
    }
    Sections s = {};
    sections_of(h, &s);
    h.vector_offset =
        e->count > 0 ? (s.end + VECTOR_ALIGN - 1) / VECTOR_ALIGN * VECTOR_ALIGN : s.end;

    size_t dim_bytes = (size_t)e->dim * sizeof(float);
    Out o = {f, true, 0, 0, 0};
    uint8_t head[HEADER_SIZE] = {0};
    out_put(&o, head, sizeof head); /* written again below, once the checksums are known */
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        uint8_t rec[CHUNK_RECORD_SIZE] = {0};
        put_u32(rec, path_bytes(e, c->doc_id));
        put_u32(rec + 4, text_bytes(c));
        put_u32(rec + 8, path_bytes(e, c->file_path));
        memcpy(rec + 12, &c->chunk_index, 4);
        memcpy(rec + 16, &c->line_number, 4);
        put_u32(rec + 20, c->file_type);
        memcpy(rec + 24, &e->nodes[i].level, 4);
        rec[28] = c->deleted ? 1 : c->pending ? CHUNK_PENDING : 0;
        out_put(&o, rec, sizeof rec);
    }
    for (uint64_t i = 0; i < e->count; i++) {
        out_u32(&o, crc32c_update(0, e->vectors + i * (uint64_t)e->dim, dim_bytes));
    }
    out_put(&o, e->centroids, (size_t)e->file_count * dim_bytes);
    out_put(&o, e->file_chunk_counts, (size_t)e->file_count * 4);
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnNode *node = &e->nodes[i];
        for (int32_t l = 0; l <= node->level && l < TRN_MAX_LEVELS; l++) {
            out_u32(&o, (uint32_t)node->count[l]);
            out_put(&o, node->neighbors[l], (size_t)node->count[l] * 4);
        }
    }
    for (int32_t j = 0; j < e->file_count; j++) {
        out_u32(&o, path_bytes(e, e->file_names[j]));
        out_path(&o, e, e->file_names[j]);
    }
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        out_path(&o, e, c->doc_id);
        out_put(&o, c->text ? c->text : "", (size_t)text_bytes(c) + 1);
        out_path(&o, e, c->file_path);
    }
    static const uint8_t zeros[VECTOR_ALIGN] = {};
    out_put(&o, zeros, (size_t)(h.vector_offset - o.size));
    h.body_crc = o.crc;
    out_put(&o, e->vectors, (size_t)e->count * dim_bytes);
    encode_header(h, head);
    if (o.ok
        && (fflush(f) != 0 || pwrite(fileno(f), head, sizeof head, 0) != (ssize_t)sizeof head)) {
        o.ok = false;
        o.err = errno ? errno : EIO;
    }
    *size = o.size;
    *checksum = get_u32(head + 92);
    *err = o.err;
    return o.ok;
}
