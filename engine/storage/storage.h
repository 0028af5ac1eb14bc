/*
** storage.h -- what keeps an index on disk: the store and the log (store.cpp, wal.cpp), the commit
** record (commit_record.cpp), the locks (locks.cpp), staying in step with other processes
** (sharing.cpp), rebuilds (rebuild.cpp) and the index's private files (file_io.cpp).
*/
#ifndef TRN_STORAGE_H
#define TRN_STORAGE_H

#include "tarnwick.h"

#include "alloc.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>

constexpr uint32_t TRN_WAL_ID_LIMIT = 4096;
constexpr size_t TRN_COMMIT_SIZE = 92;   /* bytes of the commit record (commit_record.cpp) */
constexpr size_t TRN_COMMIT_LOG_AT = 76; /* where its committed log's fields begin */
/* The store's version (store_mapped.cpp). 5: laid out to be read in place (4 was never written);
** 6: the graph in parts. From 3 on a store is written with a commit record, which it then
** requires. */
constexpr uint32_t TRN_STORE_VERSION = 6;
constexpr uint32_t TRN_STORE_VERSION_COMMITTED = 3;
constexpr size_t TRN_INDEX_ID_SIZE = 16; /* random bytes naming one index (commit_record.cpp) */
/* A normal handle checkpoints once its log holds this many records of chunks (a text or a
** vector each), or as many as the index has chunks if that is more (count_logged), which bounds
** the log a reopen replays (g_checkpoint_chunks, a test hook, starts at this value). */
constexpr uint64_t TRN_CHECKPOINT_CHUNKS = 4096;

/* What identifies the committed state of an index directory: the commit record's bytes and the
** identity of the store and the log. A handle compares it with what it saw when it last loaded,
** to notice that another process committed. */
struct TrnDiskView {
    uint8_t commit[TRN_COMMIT_SIZE + 1]; /* one byte more, so a longer file is noticed */
    uint32_t commit_len;                 /* bytes read; 0 without a commit record */
    uint8_t has_commit, has_store, has_wal;
    uint64_t store_ino, store_size;
    int64_t store_mtime_ns;
    uint64_t wal_ino, wal_size;
    int64_t wal_mtime_ns;
};

/* ---------------------------------------------------------------------------------------------
** Store and log (store.cpp, wal.cpp)
*/
/* Loads a store file into an empty handle; a bad magic or version leaves the handle empty. Reads
** never run past the file and never allocate more than it could hold. */
void store_load(TrnEngine *e, const char *path);
/* Loads size bytes of a store file into an empty handle, as store_load does. */
void store_load_bytes(TrnEngine *e, const uint8_t *bytes, size_t size);
/* What store_load_mapped did with a store. */
enum { STORE_COPIED, STORE_IN_PLACE, STORE_DAMAGED };
/* Loads a store file's bytes into an empty handle. A store of version 5 whose checksums fail is
** refused (STORE_DAMAGED, the handle left empty); with in_place the handle keeps reading its
** vectors from bytes, a mapping of the whole file that it then owns and unmaps (STORE_IN_PLACE).
** Older versions are read by copying, as store_load_bytes does. */
int store_load_mapped(TrnEngine *e, const uint8_t *bytes, size_t size, bool in_place);
/* The checksum the commit record names a store's bytes by: the CRC-32 of its header for version
** 5, whose header holds the checksums of the rest; of the whole file before. */
uint32_t store_checksum(const uint8_t *bytes, size_t size);
/* The version field of a store's bytes; 0 when they do not begin as a store. */
uint32_t store_version(const uint8_t *bytes, size_t size);
/* Writes the store of version 5 to f (at its start, which it writes last), storing the document
** index built afresh. Sets the bytes written, the checksum for the commit record and, on
** failure, errno. */
bool store_write(TrnEngine *e, FILE *f, uint64_t *size, uint32_t *checksum, int *err);
/* Copies the vectors of a mapped store into the handle's memory, checking every one. False, with
** the handle refused as damaged, when one fails its checksum. */
bool vectors_own(TrnEngine *e);
/* Unmaps the store a handle reads in place, once no chunk's text points into it any more; vectors
** still read in place go with it (capacity 0 then). */
void store_map_release(TrnEngine *e);
/* True when a vector read in place failed its checksum, or the handle was refused as damaged. */
bool vectors_damaged(const TrnEngine *e);
/* Writes the store to a temporary file, commits it (commit record, rename) and empties the log.
** The caller holds the exclusive lock and has refreshed the handle. Returns false, with the
** handle's status set and the directory at its last committed state, on failure. */
bool checkpoint_locked(TrnEngine *e);
/* Replays the log at path into the handle from offset from (0, or the end of a group already
** replayed), reading only. A log of an older version is replayed record by record up to a torn
** tail; a grouped log group by group, up to the last whole group. Sets wal_end, wal_chunks,
** wal_legacy and wal_stale. Returns false when a group before the last fails its checksum.
** Without apply the records are only checked. */
bool wal_replay(TrnEngine *e, const char *path, uint64_t from = 0, bool apply = true);
/* wal_replay of the log open at fd (left open); a negative fd is a missing log, an empty one. */
bool wal_replay_fd(TrnEngine *e, int fd, uint64_t from = 0, bool apply = true);
/* Byte buffer of records to append as one group. */
using TrnBytes = std::vector<uint8_t, XAllocator<uint8_t>>;
/* Appends the 'G' record when the log is empty, so a group can follow. */
void wal_group_begin(const TrnEngine *e, TrnBytes *group);
/* Appends an 'A' record for one chunk. */
void wal_put_add(const TrnEngine *e, TrnBytes *group, const char *doc_id, const char *text,
                 const char *path, int32_t chunk_index, int32_t line_number, uint32_t file_type);
/* Appends a 'V' record: the vector (dim floats) of the chunk doc_id that an 'A' record added. */
void wal_put_vector(const TrnEngine *e, TrnBytes *group, const char *doc_id, const float *v);
/* Appends a 'D' record: every chunk of path is removed. */
void wal_put_remove(const TrnEngine *e, TrnBytes *group, const char *path);
/* Ends the group with its 'C' record, writes it to the log and syncs the log. On failure cuts
** the log back to where the group began, sets the status and returns false. Nothing is written
** and true returned when the handle keeps no log. */
bool wal_commit_group(TrnEngine *e, TrnBytes *group);
using TrnPath = std::basic_string<char, std::char_traits<char>, XAllocator<char>>;
using TrnPathList = std::vector<TrnPath, XAllocator<TrnPath>>;
/* Appends the paths (whole, as in memory) that the records of bytes [from, end) of e's log open
** at fd add chunks to or remove (a run of one path once). False when the bytes cannot be read or
*are not whole records. */
bool wal_paths(const TrnEngine *e, int fd, uint64_t from, uint64_t end, TrnPathList *paths);

/* ---------------------------------------------------------------------------------------------
** Durability: the commit record (commit_record.cpp), the locks (locks.cpp), staying in step with
** other processes (sharing.cpp) and rebuilds (rebuild.cpp)
*/
constexpr uint32_t TRN_COMMIT_HAS_PREVIOUS = 1; /* flags of a commit record */
constexpr uint32_t TRN_COMMIT_PREVIOUS_ABSENT = 2;
/* A commit record as read from its bytes. */
struct TrnCommitRecord {
    uint64_t generation;
    uint64_t store_size;
    uint32_t store_crc;
    uint32_t flags;
    uint64_t previous_size;
    uint32_t previous_crc;
    bool has_id; /* false in a record of version 1 */
    uint8_t index_id[TRN_INDEX_ID_SIZE];
    bool has_log;               /* the fields below are known: false before version 3 */
    uint64_t previous_log_size; /* the log that completes the previous store */
    uint32_t previous_log_crc;
    uint64_t log_size; /* the log committed after this generation's store */
    uint32_t log_crc;
};
/* Reads the n bytes of a commit record; false when they are not one of a known version. */
bool commit_decode(const uint8_t *b, uint32_t n, TrnCommitRecord *c);
/* How many of n bytes of a commit record name its generation: what changes only with a
** checkpoint, unlike the committed log's fields after them. */
size_t commit_head_size(size_t n);
/* Writes the committed log's length and checksum into the commit record in place, after the log
** was synced; sets e->log_committed. False, with the status set, on failure. */
bool commit_log_write(TrnEngine *e, uint64_t log_size, uint32_t log_crc);
/* How long a write waits for the lock, in milliseconds; TRN_BUSY_TIMEOUT_MS. Test hook. */
extern int g_busy_timeout_ms;
/* Logged chunks that make a normal handle checkpoint; TRN_CHECKPOINT_CHUNKS. Test hook. */
extern uint64_t g_checkpoint_chunks;
/* CRC-32 (zlib's) of n bytes, continuing crc (0 to start). */
uint32_t crc32_update(uint32_t crc, const void *p, size_t n);
/* CRC-32C (Castagnoli) of n bytes, continuing crc (0 to start): the checksum of what an open
** reads (checksum.cpp), with the processor's instruction where it has one. */
uint32_t crc32c_update(uint32_t crc, const void *p, size_t n);
/* Sets the status and message of the handle for the operation that met the failure; returns
** false. io_error is errno for TRN_STATUS_IO_ERROR, else 0. */
bool fail_status(TrnEngine *e, int32_t status, int io_error);
void status_clear(TrnEngine *e);
/* Opens (creating it) an empty lock file of the index directory; -1 when it cannot be had. */
int lock_file_open(const TrnEngine *e, const char *name);
/* Takes the lock (LOCK_SH or LOCK_EX), waiting up to timeout_ms. False when it stays busy. */
bool lock_take(TrnEngine *e, int op, int timeout_ms);
void lock_release(TrnEngine *e);
/* Reads the directory's identity. */
void disk_view_read(const TrnEngine *e, TrnDiskView *v);
/* True when nothing was committed between the two views. */
bool disk_view_unchanged(const TrnDiskView *a, const TrnDiskView *b);
/* Loads the committed state into an empty handle (lock held). False when it is damaged. Without
** replay the log is checked but not applied. */
bool index_load(TrnEngine *e, bool replay = true);
/* Frees every chunk and the document index; the handle is empty afterwards, as after open. */
void index_reset(TrnEngine *e);
/* Forgets which store the handle loaded: the next commit starts a new chain of generations. */
void forget_store(TrnEngine *e);
/* Brings the handle up to the committed state (lock held): replays groups other processes
** appended, or reloads everything after another process's checkpoint. False when damaged. */
bool index_refresh_locked(TrnEngine *e);
/* Before a read: refreshes the handle when another process committed, waiting briefly for the
** shared lock (a busy index is read as it was). */
void index_refresh_for_read(TrnEngine *e);
/* Starts a write: takes the exclusive lock, refreshes, brings the log to a state it can be
** appended to. False, with the status set and no lock held, when the write cannot go ahead.
** Handles without files (in memory, rebuilding) take no lock and always succeed. */
bool write_begin(TrnEngine *e);
void write_end(TrnEngine *e);
/* Starts a rebuild: holds checkpoints of other handles off (they leave the log as it is until
** the swap) and notes the committed generation and log end, so the swap can take up the groups
** committed meanwhile. */
void rebuild_begin(TrnEngine *e);
/* Swaps a rebuilt handle in as the directory's index (trn_checkpoint of a rebuild handle),
** first applying every group committed since rebuild_begin: files written meanwhile take the
** place of what the rebuild read of them. */
bool rebuild_swap(TrnEngine *e);
/* True when another handle is rebuilding the index: a checkpoint now would fold the log the
** rebuild must take up. */
bool rebuild_running(const TrnEngine *e);
/* Writes the commit record of the next generation for a store of that size and checksum, the
** current store as the previous one (temporary file, sync, rename, directory sync). */
bool commit_write(TrnEngine *e, uint64_t store_size, uint32_t store_crc);
/* Removes temporary files that a crashed writer left ("tarnwick.bin.XXXXXX",
** "tarnwick.commit.XXXXXX", "tarnwick.files.XXXXXX"); the exclusive lock is held, so none of them
** is being written. */
void remove_stale_temps(const TrnEngine *e);
/* Moves the files of a damaged index aside ("<name>.damaged-<time>"), never over another. */
void keep_damaged_aside(TrnEngine *e);
/* The directory a user knows, into out: the parent of an index directory named ".tarnwick", else
** the index directory itself; "" for an in-memory handle. */
void indexed_dir(const TrnEngine *e, char *out, size_t size);

/* ---------------------------------------------------------------------------------------------
** Reading an index file's bytes (store.cpp, wal.cpp, manifest.cpp): every read is checked
** against the bytes left, so a short or hostile file ends the read instead of running past it.
*/
struct ByteReader {
    const uint8_t *p;
    size_t left;
};
/* Copies n bytes to out and moves past them; false, moving nothing, when fewer are left. */
inline bool bytes_take(ByteReader *r, void *out, size_t n)
{
    if (n > r->left) {
        return false;
    }
    if (n > 0) {
        memcpy(out, r->p, n);
    }
    r->p += n;
    r->left -= n;
    return true;
}
template <typename T>
inline bool bytes_take_value(ByteReader *r, T *out)
{
    return bytes_take(r, out, sizeof(T));
}
/* Moves past n bytes; false, moving nothing, when fewer are left. */
inline bool bytes_skip(ByteReader *r, size_t n)
{
    if (n > r->left) {
        return false;
    }
    r->p += n;
    r->left -= n;
    return true;
}
/* A uint32 length of at most limit bytes, then that many bytes, which *s points to. */
inline bool bytes_take_string(ByteReader *r, uint32_t limit, const uint8_t **s, uint32_t *n)
{
    if (!bytes_take(r, n, 4) || *n > limit || *n > r->left) {
        return false;
    }
    *s = r->p;
    r->p += *n;
    r->left -= *n;
    return true;
}

/* ---------------------------------------------------------------------------------------------
** Paths in the index's files (file_io.cpp). In memory a path is what the caller gave (a full path
** for every file a walk found), and results carry it. On disk a path below the index's folder
** (e->folder) is one NUL byte and then the rest of the path after the folder's '/', so a folder
** that is moved or copied keeps its index; any other path is written as it is. A path in memory
** never holds a NUL, and versions before 2 wrote every path as it is, so files of either version
** read the same.
*/
struct DiskPath {
    bool relative;    /* the NUL byte comes first */
    const char *rest; /* the bytes after it: the whole path when not relative */
    uint32_t length;  /* bytes written, the NUL included */
};
DiskPath disk_path(const TrnEngine *e, const char *path);
/* The path that n bytes of an index file name, as a NUL-terminated string from xmalloc. */
char *path_from_disk(const TrnEngine *e, const uint8_t *p, size_t n);

/* ---------------------------------------------------------------------------------------------
** The index directory and its files (file_io.cpp). Names are relative to the directory, which
** is held open; no call follows a link, and files are created 0600.
*/
/* Opens the index directory dir without following a link and keeps its descriptor in e. True
** when it is the running user's and writable by nobody else, or does not exist (then nothing is
** read and every write fails); false, with TRN_STATUS_DENIED and a message saying why and how to
** fix it, when it is a link, another user's, writable by others or unreadable. Sets e->folder
** to dir's parent, made absolute from the working directory without resolving links: callers
** walk the folder by the same name they open its index with. */
bool index_dir_open(TrnEngine *e, const char *dir);
void index_dir_close(TrnEngine *e);
/* openat(2) of a regular file of the index directory with O_NOFOLLOW and O_CLOEXEC added;
** creates it 0600 and narrows an existing one of the user to 0600. -1, with errno, on failure
** (a link or anything but a regular file included). */
int index_open(const TrnEngine *e, const char *name, int flags);
/* Creates "<name>.XXXXXX" (six random letters or digits) exclusively, 0600, open for reading and
** writing; its name goes to tmp. -1, with errno, on failure. */
int index_open_temp(const TrnEngine *e, const char *name, char *tmp, size_t size);
/* renameat(2) within the index directory; false, with errno, on failure. */
bool index_rename(const TrnEngine *e, const char *from, const char *to);
/* Removes a name of the index directory (the link itself, never its target). */
void index_unlink(const TrnEngine *e, const char *name);
/* lstat of a regular file of the index directory; false for a link or anything else. */
bool index_stat(const TrnEngine *e, const char *name, struct stat *st);
/* Makes the directory's renames durable; false, with errno, when the sync failed. */
bool index_dir_sync(const TrnEngine *e);

#endif /* TRN_STORAGE_H */
