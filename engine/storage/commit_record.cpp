/*
** commit_record.cpp -- the commit record "tarnwick.commit": which store, and which log, make up
** the committed state of an index directory, and how a checkpoint moves it to the next
** generation.
**
**   tarnwick.commit  the commit record, 92 bytes, little-endian:
**
**     offset  size  field
**          0     4  magic "TRNC"
**          4     4  uint32 version, 3
**          8     8  uint64 generation: 1 for the first checkpoint, one more for each after it
**         16     8  uint64 size of the store of this generation
**         24     4  uint32 checksum of that store: zlib's CRC-32 (the ISO-HDLC polynomial) of
**                   its header from version 5 on (store_checksum), of the whole file before
**         28     4  uint32 flags: 1 the previous store below is known; 2 there was none
**         32     8  uint64 size of the store of the previous generation
**         40     4  uint32 CRC-32 of the previous store
**         44    16  the index's id: random bytes made by its first commit, kept by every later
**                   one, which the log names too
**         60     8  uint64 bytes of the log that completes the previous store
**         68     4  uint32 CRC-32 of them
**         72     4  uint32 CRC-32 of bytes 0..71
**       then the committed log of this generation, rewritten in place after every group:
**         76     8  uint64 bytes of the log that writers committed (a prefix of whole groups)
**         84     4  uint32 CRC-32 of them
**         88     4  uint32 CRC-32 of bytes 76..87
**
**   A writer appends a group to the log and syncs it, then writes the committed log's length
**   here, before it reports success. So every group a writer reported is covered: a log cut,
**   emptied, deleted or changed anywhere in its committed bytes is damage. Only a group after
**   them (a crash between the two writes) is read as the log's own checksums allow, and a torn
**   one cut. Those 16 bytes are not synced: the log is synced before them, so what they say is
**   never more than the log holds, and after a power loss they may say less, which is safe.
**
**   Records of version 2 (64 bytes: no log fields, the CRC-32 at 60) and version 1 (48 bytes:
**   no id either, the CRC-32 at 44) are still read, their logs unchecked; the first write
**   checkpoints to version 3.
**
** A checkpoint (store.cpp) commits in four steps, each file written under a unique temporary
** name ("<name>.XXXXXX"), synced, renamed into place and its directory synced:
**   1. the new store under its temporary name;
**   2. the commit record of generation g + 1, naming the new store, and the current store as the
**      previous one;
**   3. the new store renamed over "tarnwick.bin";
**   4. the log cut to nothing and synced.
** When loading (sharing.cpp), the store on disk decides: the store the record names is
** generation g + 1 (its log is stale until step 4 empties it: the log's first record names
** generation g); the previous store is generation g with the log that completes it (a crash
** between steps 2 and 3); any other store is damaged and refused, an empty one included. Without
** a commit record (an index of an older version, or none yet) the store and log are taken as
** they are, and the first write converts them with a checkpoint; but a store of the version
** written with commit records, or a log of groups, without one is damage (the record was lost).
*/
#include "internal.h"

#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>
#include <zlib.h>

namespace
{

constexpr uint32_t COMMIT_VERSION = 3;
constexpr size_t COMMIT_V2_SIZE = 64; /* version 2: no log fields */
constexpr size_t COMMIT_V1_SIZE = 48; /* version 1: no id either */

void put_log_slot(uint64_t log_size, uint32_t log_crc, uint8_t *b)
{
    memcpy(b, &log_size, 8);
    memcpy(b + 8, &log_crc, 4);
    uint32_t check = crc32_update(0, b, 12);
    memcpy(b + 12, &check, 4);
}

void commit_encode(const TrnCommitRecord *c, uint8_t *b)
{
    memcpy(b, "TRNC", 4);
    memcpy(b + 4, &COMMIT_VERSION, 4);
    memcpy(b + 8, &c->generation, 8);
    memcpy(b + 16, &c->store_size, 8);
    memcpy(b + 24, &c->store_crc, 4);
    memcpy(b + 28, &c->flags, 4);
    memcpy(b + 32, &c->previous_size, 8);
    memcpy(b + 40, &c->previous_crc, 4);
    memcpy(b + 44, c->index_id, TRN_INDEX_ID_SIZE);
    memcpy(b + 60, &c->previous_log_size, 8);
    memcpy(b + 68, &c->previous_log_crc, 4);
    uint32_t check = crc32_update(0, b, TRN_COMMIT_LOG_AT - 4);
    memcpy(b + TRN_COMMIT_LOG_AT - 4, &check, 4);
    put_log_slot(c->log_size, c->log_crc, b + TRN_COMMIT_LOG_AT);
}

} // namespace

bool commit_decode(const uint8_t *b, uint32_t n, TrnCommitRecord *c)
{
    memset(c, 0, sizeof *c);
    uint32_t version = n == TRN_COMMIT_SIZE ? COMMIT_VERSION : n == COMMIT_V2_SIZE ? 2 : 1;
    uint32_t head = n == TRN_COMMIT_SIZE ? (uint32_t)TRN_COMMIT_LOG_AT : n;
    if ((n != TRN_COMMIT_SIZE && n != COMMIT_V2_SIZE && n != COMMIT_V1_SIZE)
        || memcmp(b, "TRNC", 4) != 0) {
        return false;
    }
    uint32_t stored = 0, check = 0;
    memcpy(&stored, b + 4, 4);
    memcpy(&check, b + head - 4, 4);
    if (stored != version || check != crc32_update(0, b, head - 4)) {
        return false;
    }
    memcpy(&c->generation, b + 8, 8);
    memcpy(&c->store_size, b + 16, 8);
    memcpy(&c->store_crc, b + 24, 4);
    memcpy(&c->flags, b + 28, 4);
    memcpy(&c->previous_size, b + 32, 8);
    memcpy(&c->previous_crc, b + 40, 4);
    c->has_id = version >= 2;
    if (c->has_id) {
        memcpy(c->index_id, b + 44, TRN_INDEX_ID_SIZE);
    }
    c->has_log = version >= 3;
    if (c->has_log) {
        const uint8_t *slot = b + TRN_COMMIT_LOG_AT;
        memcpy(&c->previous_log_size, b + 60, 8);
        memcpy(&c->previous_log_crc, b + 68, 4);
        memcpy(&c->log_size, slot, 8);
        memcpy(&c->log_crc, slot + 8, 4);
        memcpy(&check, slot + 12, 4);
        if (check != crc32_update(0, slot, 12)) {
            return false;
        }
    }
    return c->generation >= 1;
}

size_t commit_head_size(size_t n)
{
    return n == TRN_COMMIT_SIZE ? TRN_COMMIT_LOG_AT : n;
}

bool commit_log_write(TrnEngine *e, uint64_t log_size, uint32_t log_crc)
{
    uint8_t slot[TRN_COMMIT_SIZE - TRN_COMMIT_LOG_AT];
    put_log_slot(log_size, log_crc, slot);
    int fd = index_open(e, "tarnwick.commit", O_WRONLY);
    if (fd < 0) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    ssize_t n = pwrite(fd, slot, sizeof slot, (off_t)TRN_COMMIT_LOG_AT);
    int err = n < 0 ? errno : ENOSPC;
    close(fd);
    if (n != (ssize_t)sizeof slot) {
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    e->log_committed = log_size;
    e->log_committed_crc = log_crc;
    /* This handle's own write is no news to it. */
    if (e->seen.commit_len == TRN_COMMIT_SIZE) {
        memcpy(e->seen.commit + TRN_COMMIT_LOG_AT, slot, sizeof slot);
    }
    return true;
}

uint32_t crc32_update(uint32_t crc, const void *p, size_t n)
{
    const Bytef *b = static_cast<const Bytef *>(p);
    uLong c = crc;
    while (n > 0) {
        uInt part = n > (1u << 30) ? (1u << 30) : (uInt)n;
        c = crc32(c, b, part);
        b += part;
        n -= part;
    }
    return (uint32_t)c;
}

bool commit_write(TrnEngine *e, uint64_t store_size, uint32_t store_crc)
{
    TrnCommitRecord rec = {};
    rec.generation = e->generation + 1;
    rec.store_size = store_size;
    rec.store_crc = store_crc;
    rec.flags = TRN_COMMIT_HAS_PREVIOUS | (e->store_present ? 0 : TRN_COMMIT_PREVIOUS_ABSENT);
    rec.previous_size = e->store_present ? e->store_size : 0;
    rec.previous_crc = e->store_present ? e->store_crc : 0;
    /* The log a crash before the store's rename leaves with the previous store. */
    bool log_counts = e->has_commit && !e->wal_stale && !e->wal_legacy;
    rec.previous_log_size = log_counts ? e->wal_end : 0;
    rec.previous_log_crc = log_counts ? e->wal_crc : 0;
    if (!e->has_index_id) {
        /* The first commit of this index, or the first since a record of version 1. */
        size_t got = 0;
        while (got < sizeof e->index_id) {
            ssize_t n = getrandom(e->index_id + got, sizeof e->index_id - got, 0);
            if (n < 0 && errno != EINTR) {
                return fail_status(e, TRN_STATUS_IO_ERROR, errno);
            }
            got += n > 0 ? (size_t)n : 0;
        }
        e->has_index_id = 1;
    }
    memcpy(rec.index_id, e->index_id, sizeof rec.index_id);
    uint8_t bytes[TRN_COMMIT_SIZE];
    commit_encode(&rec, bytes);

    char tmp[64];
    int fd = index_open_temp(e, "tarnwick.commit", tmp, sizeof tmp);
    if (fd < 0) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    ssize_t n = write(fd, bytes, sizeof bytes);
    int err = n < 0 ? errno : ENOSPC;
    bool ok = n == (ssize_t)sizeof bytes;
    if (ok && fsync(fd) != 0) {
        ok = false;
        err = errno;
    }
    if (close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && !index_rename(e, tmp, "tarnwick.commit")) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        index_unlink(e, tmp);
        return fail_status(e, TRN_STATUS_IO_ERROR, err);
    }
    if (!index_dir_sync(e)) {
        return fail_status(e, TRN_STATUS_IO_ERROR, errno);
    }
    return true;
}

void remove_stale_temps(const TrnEngine *e)
{
    int fd = e->dir_open ? openat(e->dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    DIR *d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!d) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    while (struct dirent *ent = readdir(d)) {
        const char *name = ent->d_name;
        size_t n = strlen(name);
        bool temp = (strncmp(name, "tarnwick.bin.", 13) == 0 && n == 19)
                    || (strncmp(name, "tarnwick.lex.", 13) == 0 && n == 19)
                    || (strncmp(name, "tarnwick.commit.", 16) == 0 && n == 22)
                    || (strncmp(name, "tarnwick.files.", 15) == 0 && n == 21);
        if (temp && !strstr(name, ".damaged")) {
            index_unlink(e, name);
        }
    }
    closedir(d);
}
