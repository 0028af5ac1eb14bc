/*
** manifest.cpp -- the file manifest "tarnwick.files": what the index knows of each file that an
** update walked, so the next update reads only what changed.
**
** Layout. Little-endian, no padding:
**
**     offset  size  field
**          0     4  magic "TRNF"
**          4     4  uint32 version, 2 (1: every path written whole; still read)
**          8     4  int32 chunk_size the files were cut with
**         12     4  int32 overlap
**         16     4  uint32 text version (MANIFEST_TEXT_VERSION: how text is taken and cut)
**         20     4  uint32 count of entries that follow
**
** then count entries, in the order the walk met the files:
**
**     uint32 n, n bytes   path (1 to TRN_WALK_MAX - 1 bytes), as the chunks name it and as
**                         storage.h writes it: a NUL and the rest after the folder for a path
**                         below the index's folder, else the path, which holds no NUL
**     uint64 size         bytes, from stat
**     int64  mtime_ns     modification time, nanoseconds since the epoch
**     int64  ctime_ns     change time, nanoseconds since the epoch
**     uint64 inode
**     uint64 text_hash    FNV-1a 64 of the text that was chunked; 0 when not indexed
**     uint32 type         TrnFileType as classified (binary ones are remembered too, unread)
**     uint32 chunks       live chunks of the file in the index when the entry was written
**     uint32 flags        1: modified so shortly before it was read that a later write within
**                         the file system's time granularity could hide: read it again;
**                         2: read whole and found to be text in no charset (MANIFEST_FLAG_NO_TEXT);
**                         4: its text was cut at the size limit (MANIFEST_FLAG_CUT)
**
** and last a uint32 CRC-32 (zlib's) of every byte before it.
**
** The file is hostile like every other: a wrong magic, version or checksum, a count or length
** beyond the bytes left, or bytes left over make the whole manifest absent, which costs the next
** update reading every file, never an index entry. It is replaced whole (a temporary file
** created exclusively, fsync, rename, directory fsync) and created 0600.
*/
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr uint32_t MANIFEST_VERSION = 2;
constexpr uint32_t MANIFEST_VERSION_FULL_PATHS = 1;
constexpr size_t MANIFEST_HEADER = 24;
constexpr size_t ENTRY_FIXED = 4 + 8 * 5 + 4 * 3;
constexpr uint64_t MANIFEST_SIZE_MAX = 1ull << 31; /* about 20 million files */

void put(TrnBytes *b, const void *p, size_t n)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(p);
    b->insert(b->end(), bytes, bytes + n);
}

} // namespace

uint64_t text_hash(const char *p, size_t n)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < n; i++) {
        h ^= (uint8_t)p[i];
        h *= 0x100000001b3ull;
    }
    return h;
}

void manifest_add(Manifest *m, const ManifestEntry *e)
{
    if (m->count == m->capacity) {
        uint32_t grown = m->capacity ? m->capacity * 2 : 256;
        m->entries =
            static_cast<ManifestEntry *>(xrealloc(m->entries, xmul(grown, sizeof(ManifestEntry))));
        m->capacity = grown;
    }
    ManifestEntry *slot = &m->entries[m->count++];
    *slot = *e;
    slot->path = xstrdup(e->path);
}

void manifest_free(Manifest *m)
{
    for (uint32_t i = 0; i < m->count; i++) {
        free(m->entries[i].path);
    }
    free(m->entries);
    memset(m, 0, sizeof *m);
}

bool manifest_read(const TrnEngine *e, Manifest *m)
{
    manifest_free(m);
    int fd = index_open(e, "tarnwick.files", O_RDONLY);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (uint64_t)st.st_size < MANIFEST_HEADER + 4
        || (uint64_t)st.st_size > MANIFEST_SIZE_MAX) {
        close(fd);
        return false;
    }
    size_t size = (size_t)st.st_size;
    uint8_t *bytes = static_cast<uint8_t *>(xmalloc(size));
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, bytes + got, size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += (size_t)n;
    }
    close(fd);
    uint32_t stored_crc = 0;
    if (got == size) {
        memcpy(&stored_crc, bytes + size - 4, 4);
    }
    ByteReader r = {bytes, size - 4};
    char magic[4];
    uint32_t version = 0, count = 0;
    bool ok = got == size && stored_crc == crc32_update(0, bytes, size - 4)
              && bytes_take(&r, magic, 4) && memcmp(magic, "TRNF", 4) == 0
              && bytes_take(&r, &version, 4)
              && (version == MANIFEST_VERSION || version == MANIFEST_VERSION_FULL_PATHS)
              && bytes_take(&r, &m->chunk_size, 4) && bytes_take(&r, &m->overlap, 4)
              && bytes_take(&r, &m->text_version, 4) && bytes_take(&r, &count, 4)
              && (uint64_t)count * ENTRY_FIXED <= r.left;
    for (uint32_t i = 0; ok && i < count; i++) {
        ManifestEntry entry = {};
        uint32_t n = 0;
        ok = bytes_take(&r, &n, 4) && n >= 1 && n < TRN_WALK_MAX && n <= r.left;
        if (!ok) {
            break;
        }
        const uint8_t *name = r.p;
        r.p += n;
        r.left -= n;
        size_t marker = version == MANIFEST_VERSION && name[0] == '\0' ? 1 : 0;
        ok = memchr(name + marker, '\0', n - marker) == nullptr && bytes_take(&r, &entry.size, 8)
             && bytes_take(&r, &entry.mtime_ns, 8) && bytes_take(&r, &entry.ctime_ns, 8)
             && bytes_take(&r, &entry.inode, 8) && bytes_take(&r, &entry.text_hash, 8)
             && bytes_take(&r, &entry.type, 4) && bytes_take(&r, &entry.chunks, 4)
             && bytes_take(&r, &entry.flags, 4);
        if (ok) {
            entry.path = path_from_disk(e, name, n);
            manifest_add(m, &entry);
            free(entry.path);
        }
    }
    ok = ok && r.left == 0;
    m->paths_full = ok && version == MANIFEST_VERSION_FULL_PATHS;
    free(bytes);
    if (!ok) {
        manifest_free(m);
    }
    return ok;
}

namespace
{

void manifest_bytes(const TrnEngine *e, const Manifest *m, TrnBytes &b)
{
    put(&b, "TRNF", 4);
    put(&b, &MANIFEST_VERSION, 4);
    put(&b, &m->chunk_size, 4);
    put(&b, &m->overlap, 4);
    put(&b, &m->text_version, 4);
    put(&b, &m->count, 4);
    for (uint32_t i = 0; i < m->count; i++) {
        const ManifestEntry *entry = &m->entries[i];
        DiskPath d = disk_path(e, entry->path);
        put(&b, &d.length, 4);
        if (d.relative) {
            b.push_back(0);
        }
        put(&b, d.rest, d.length - (d.relative ? 1 : 0));
        put(&b, &entry->size, 8);
        put(&b, &entry->mtime_ns, 8);
        put(&b, &entry->ctime_ns, 8);
        put(&b, &entry->inode, 8);
        put(&b, &entry->text_hash, 8);
        put(&b, &entry->type, 4);
        put(&b, &entry->chunks, 4);
        put(&b, &entry->flags, 4);
    }
    uint32_t crc = crc32_update(0, b.data(), b.size());
    put(&b, &crc, 4);
}

bool write_all(int fd, const TrnBytes &b)
{
    const uint8_t *p = b.data();
    size_t left = b.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        left -= (size_t)n;
    }
    return true;
}

} // namespace

bool manifest_write(const TrnEngine *e, const Manifest *m)
{
    TrnBytes b;
    manifest_bytes(e, m, b);
    char tmp[64];
    int fd = index_open_temp(e, "tarnwick.files", tmp, sizeof tmp);
    if (fd < 0) {
        return false;
    }
    bool ok = write_all(fd, b) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    ok = ok && index_rename(e, tmp, "tarnwick.files");
    if (!ok) {
        index_unlink(e, tmp);
        return false;
    }
    return index_dir_sync(e);
}

bool manifest_forget(const TrnEngine *e, const TrnPathList &paths)
{
    Manifest m = {};
    if (paths.empty() || !manifest_read(e, &m)) {
        return true; /* no entry to forget, or none trusted anyway */
    }
    TrnPathList sorted = paths;
    std::sort(sorted.begin(), sorted.end());
    Manifest kept = {};
    kept.chunk_size = m.chunk_size;
    kept.overlap = m.overlap;
    kept.text_version = m.text_version;
    for (uint32_t i = 0; i < m.count; i++) {
        if (!std::binary_search(sorted.begin(), sorted.end(), TrnPath(m.entries[i].path))) {
            manifest_add(&kept, &m.entries[i]);
        }
    }
    bool ok = true;
    if (kept.count < m.count) {
        TrnBytes b;
        manifest_bytes(e, &kept, b);
        /* Rewritten in place: the file only shrinks, so a full disk cannot stop it. A crash
        ** half-way leaves a checksum that fails, which costs the next update reading every file. */
        int fd = index_open(e, "tarnwick.files", O_WRONLY);
        ok = fd >= 0 && write_all(fd, b) && ftruncate(fd, (off_t)b.size()) == 0 && fsync(fd) == 0;
        if (fd >= 0) {
            close(fd);
        }
        if (!ok) {
            index_unlink(e, "tarnwick.files");
        }
    }
    manifest_free(&kept);
    manifest_free(&m);
    return ok;
}
