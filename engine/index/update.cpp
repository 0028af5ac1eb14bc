/*
** update.cpp -- trn_update_dir, the one way a directory gets indexed: a first indexing is the
** update of an empty index, a re-index the update of a full one.
**
** An update walks the directory, compares every file with its entry in the manifest
** (manifest.cpp) and with the chunks the index holds of it, and then works through what differs:
**
**   entry matches (size, mtime, ctime, inode), not flagged recent, and the index holds as many
**   chunks of the file as the entry says       -> unchanged: not classified, not read
**   not indexable (binary, excluded, too large) -> its chunks removed, entry kept unread
**   otherwise                                   -> read; text hashing as the entry says and the
**                                                  chunk count agreeing: unchanged (entry
**                                                  refreshed); else its chunks replaced
**   chunks of a path below dir the walk did not reach -> removed
**
** Replacing is one group of the log (removal and new chunks), so a kill leaves the old chunks or
** the new ones. The new chunks are pending (meaning.cpp): every file's text is committed first,
** so that keyword search is complete early, and the vectors of every pending chunk of the index
** follow in the meaning phase, which also finishes what a killed or cancelled update left. The
** manifest is written after the groups it describes are logged, so an entry never claims more
** than the index holds; its chunk count check catches the rest (a rebuild by
** another program, a log another process cut). A manifest that cannot be read means every file
** is read and every chunked file is replaced once, which costs time and loses nothing. A store or
** manifest of an older version, which named every file by its full path, is rewritten by the
** update (a checkpoint), so that the folder can move from then on (storage.h).
**
** The words phase reads and stores files a batch at a time, each batch one group of the log. With
** more than one embedding worker, helper threads, as many as the workers, read the next batch
** while the calling thread stores the one before (storing waits on the disk as much as on the
** processor), in walk order, so what is committed, and when, is the same with any number of
** workers.
**
** Which files are walked and what text they hold is decided by the one walk, classification and
** extraction of files.h, as everywhere else.
*/
#include "internal.h"
#include "text/files.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <unordered_map>

#include <sys/file.h>
#include <sys/stat.h>

namespace
{

/* Coarse file system clocks (ext4 stamps times from a tick of a few milliseconds, FAT in two
** seconds) let a write just after a read keep the same mtime: a file modified this close to the
** moment it was read is read again by the next update. */
constexpr int64_t RECENT_NS = 3000000000ll;
/* An update writes the manifest after a group of files that changed the index once the chunks
** written since the last write, times this, reach the manifest's entries. Cutting and logging a
** chunk costs more than writing 64 entries, so the manifest stays a small share of the run
** however large it grows, and a kill costs reading again only the files of the last moments (a
** group or two). Counted in chunks, not time, so a run makes the same system calls every time. */
constexpr uint64_t MANIFEST_ENTRIES_PER_CHUNK = 64;
/* The words phase logs the files it reads in groups of up to BATCH_FILES files, or of as many as
** reach BATCH_BYTES, so that the log is synced once per group rather than once per file (a sync
** costs as much as reading a small file). Counted in files and bytes, not time, for the same
** reason as the manifest. */
constexpr size_t BATCH_FILES = 32;
constexpr uint64_t BATCH_BYTES = 2u << 20;
/* Comparisons of one trn_update_dir at most, when other processes' commits keep overtaking it. */
constexpr int UPDATE_PASSES = 3;

using XString = std::basic_string<char, std::char_traits<char>, XAllocator<char>>;

struct XStringHash {
    size_t operator()(const XString &s) const
    {
        return std::hash<std::string_view>{}(std::string_view(s.data(), s.size()));
    }
};

template <typename V>
using PathMap = std::unordered_map<XString, V, XStringHash, std::equal_to<XString>,
                                   XAllocator<std::pair<const XString, V>>>;

int64_t stat_ns(const struct timespec &t)
{
    return (int64_t)t.tv_sec * 1000000000ll + t.tv_nsec;
}

int64_t now_ns(void)
{
    struct timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return stat_ns(t);
}

} // namespace

int64_t g_update_recent_ns = RECENT_NS;

char *update_text(const char *path, TrnFileType type, uint64_t max_size, size_t *length,
                  bool *binary, bool *cut)
{
    *binary = false;
    *cut = false;
    *length = 0;
    ExtractedText t;
    TrnFileStatus status = extract_file_text(path, type, max_size, &t);
    char *text = nullptr;
    if (status == TRN_FILE_STATUS_INDEXABLE) {
        text = t.text;
        *length = t.length;
        *cut = t.cut != 0;
        t.text = nullptr;
    } else if (status == TRN_FILE_STATUS_TOO_SHORT) {
        text = xstrdup(""); /* replaced by nothing: the chunks it had go */
    } else {
        *binary = status != TRN_FILE_STATUS_UNREADABLE;
    }
    extracted_text_free(&t);
    return text;
}

namespace
{

struct FoundFile {
    XString path;
    uint32_t type;
    uint64_t size;
    int64_t mtime_ns;
    int64_t ctime_ns;
    uint64_t inode;
};

using FoundList = std::vector<FoundFile, XAllocator<FoundFile>>;

/* Keeps the files the walk found indexable or binary; an excluded, too large or unreadable one is
** left out, so the chunks it had are removed like those of a file that is gone. */
WalkAction collect_file(const ::WalkedFile &f, FoundList *list)
{
    if (f.kind != WALK_FILE
        || (f.status != TRN_FILE_STATUS_INDEXABLE && f.status != TRN_FILE_STATUS_BINARY)) {
        return WALK_CONTINUE;
    }
    struct stat st;
    if (stat(f.path, &st) != 0) {
        return WALK_CONTINUE;
    }
    uint32_t type = f.status == TRN_FILE_STATUS_BINARY ? (uint32_t)TRN_FILE_TYPE_BINARY : f.type;
    list->push_back(FoundFile{XString(f.path),
                              type,
                              (uint64_t)st.st_size,
                              stat_ns(st.st_mtim),
                              stat_ns(st.st_ctim),
                              (uint64_t)st.st_ino});
    return WALK_CONTINUE;
}

/* One piece of work the comparison found. */
struct Work {
    XString path;
    int64_t walked;    /* index into the walked list; -1 for a removal of a vanished file */
    int64_t old_entry; /* index into the old manifest, or -1 */
    uint32_t type;     /* classification of an ingest */
    bool remove_only;  /* not indexable now: only its chunks go */
    uint32_t held;     /* the chunks the index held of it when the update began */
};

ManifestEntry entry_for(const FoundFile &w, uint32_t type)
{
    ManifestEntry e = {};
    e.path = const_cast<char *>(w.path.c_str());
    e.size = w.size;
    e.mtime_ns = w.mtime_ns;
    e.ctime_ns = w.ctime_ns;
    e.inode = w.inode;
    e.type = type;
    return e;
}

bool same_stat(const ManifestEntry &e, const FoundFile &w)
{
    return e.size == w.size && e.mtime_ns == w.mtime_ns && e.ctime_ns == w.ctime_ns
           && e.inode == w.inode;
}

/* Writes next, with the old entries of the files still to be read (their times differ from the
** files', so they are read again; their hashes spare the embedding), under the exclusive lock. */
void write_manifest(TrnEngine *e, const Manifest *next, const Manifest *old,
                    const std::vector<Work, XAllocator<Work>> &work, size_t next_work)
{
    Manifest out = *next;
    Manifest extra = {};
    for (size_t i = next_work; i < work.size(); i++) {
        if (work[i].old_entry >= 0 && !work[i].remove_only) {
            manifest_add(&extra, &old->entries[work[i].old_entry]);
        }
    }
    if (extra.count > 0) {
        out.entries = static_cast<ManifestEntry *>(
            xmalloc(xmul((size_t)next->count + extra.count, sizeof(ManifestEntry))));
        memcpy(out.entries, next->entries, next->count * sizeof(ManifestEntry));
        memcpy(out.entries + next->count, extra.entries, extra.count * sizeof(ManifestEntry));
        out.count = next->count + extra.count;
    }
    if (lock_take(e, LOCK_EX, g_busy_timeout_ms)) {
        manifest_write(e, &out);
        lock_release(e);
    }
    if (extra.count > 0) {
        free(out.entries);
    }
    manifest_free(&extra);
}

/* What one job of the words phase came to, once read. */
struct Outcome {
    enum Kind { REMOVED, FAILED, UNCHANGED, NOTED, STORED } kind = FAILED;
    bool done = false;        /* read (or nothing to read) */
    ManifestEntry entry = {}; /* all but FAILED and a removal of a vanished file get one */
    bool has_entry = false;
    CutFile cut; /* what REMOVED and STORED store: a removal stores no chunks */
};

/* A run of jobs of the words phase read together: up to BATCH_FILES, or as many as reach
** BATCH_BYTES of files. Reading one needs the job, the old manifest and the chunking, nothing
** of the handle, so with more than one worker the helper threads read the next batch while the
** calling thread stores this one. */
struct Batch {
    const std::vector<Work, XAllocator<Work>> *work = nullptr;
    const FoundList *walked = nullptr;
    const Manifest *old = nullptr;
    int32_t chunk_size = 0;
    int32_t overlap = 0;
    uint64_t max_size = 0;
    bool on_helpers = false; /* PDF files are then left to the calling thread */
    size_t first = 0;
    size_t end = 0;
    std::vector<Outcome, XAllocator<Outcome>> outcomes;
    EmbedRun *run = nullptr;
};

void read_job(Batch *b, size_t item)
{
    const Work &job = (*b->work)[b->first + item];
    Outcome &o = b->outcomes[item];
    o.done = true;
    o.cut.path = job.path.c_str();
    if (job.remove_only) {
        o.kind = Outcome::REMOVED;
        return;
    }
    const FoundFile &w = (*b->walked)[(size_t)job.walked];
    const ManifestEntry *oe = job.old_entry >= 0 ? &b->old->entries[job.old_entry] : nullptr;
    int64_t read_at = now_ns();
    bool binary = false, cut = false;
    size_t length = 0;
    char *text = update_text(job.path.c_str(), job.type, b->max_size, &length, &binary, &cut);
    o.entry = entry_for(w, job.type);
    o.has_entry = text || binary;
    if (!text && binary) {
        o.entry.type = TRN_FILE_TYPE_BINARY;
        o.entry.flags |= MANIFEST_FLAG_NO_TEXT;
        o.kind = job.held > 0 ? Outcome::REMOVED : Outcome::NOTED;
    } else if (text) {
        o.entry.text_hash = text_hash(text, length);
        o.entry.flags = read_at - w.mtime_ns < g_update_recent_ns ? MANIFEST_FLAG_RECENT : 0;
        o.entry.flags |= cut ? MANIFEST_FLAG_CUT : 0;
        if (oe && oe->text_hash == o.entry.text_hash && oe->type == job.type
            && oe->chunks == job.held) {
            o.kind = Outcome::UNCHANGED;
            o.entry.chunks = job.held;
        } else {
            o.kind = Outcome::STORED;
            o.cut.type = job.type;
            o.cut.held_none = job.held == 0;
            cut_file(text, (int64_t)length, b->chunk_size, b->overlap, &o.cut);
        }
        free(text);
    }
}

void read_on_helper(void *arg, size_t item)
{
    Batch *b = static_cast<Batch *>(arg);
    if ((*b->work)[b->first + item].type != TRN_FILE_TYPE_PDF) {
        read_job(b, item);
    }
}

/* Starts reading the batch from first on: on the helpers when there are any. */
void batch_start(const TrnEngine *e, size_t first, Batch *b)
{
    const std::vector<Work, XAllocator<Work>> &work = *b->work;
    size_t end = first;
    for (uint64_t bytes = 0;
         end < work.size() && end - first < BATCH_FILES && (end == first || bytes < BATCH_BYTES);
         end++) {
        bytes += work[end].walked >= 0 ? (*b->walked)[(size_t)work[end].walked].size : 0;
    }
    b->first = first;
    b->end = end;
    b->outcomes.clear();
    b->outcomes.resize(end - first);
    if (b->on_helpers) {
        b->run = work_start(e, end - first, read_on_helper, b, false);
    }
}

/* Ends reading the batch: the calling thread reads what the helpers left, if there are any
** helpers only the PDF files, so that it opens the same files in any run. */
void batch_finish(Batch *b)
{
    if (b->run) {
        work_finish(b->run);
        b->run = nullptr;
    }
    for (size_t i = 0; i < b->outcomes.size(); i++) {
        if (!b->outcomes[i].done) {
            read_job(b, i);
        }
    }
}

/* One comparison of dir with the index and the work it finds (trn_update_dir). */
int32_t update_once(TrnEngine *e, const char *dir, int32_t chunk_size, int32_t overlap,
                    const TrnWalkOptions *opts, TrnProgressFn progress, void *user,
                    TrnUpdateReport *report)
{
    memset(report, 0, sizeof *report);
    if (!e || !dir) {
        return -1;
    }
    status_clear(e);
    if (e->refused) {
        fail_status(e, e->refused, 0);
        return -1;
    }
    /* Paths are dir "/" name: a trailing slash would name every file differently. */
    XString root(dir);
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    FoundList walked;
    if (walk_files(root.c_str(),
                   opts,
                   [&walked](const ::WalkedFile &f) {
                       return collect_file(f, &walked);
                   })
        < 0) {
        return -1;
    }
    /* In path order, whatever order the directories list their entries in: an index built from
    ** the same tree holds its chunks in the same order. */
    std::sort(walked.begin(), walked.end(), [](const FoundFile &a, const FoundFile &b) {
        return a.path < b.path;
    });
    index_refresh_for_read(e);
    /* What others commit from here on, taken up at this update's next write, is not compared
    ** with the tree: a file they hold that is gone now stays (a rebuild that read it before it
    ** was deleted). Then the handle says the index changed, so that a watcher updates again. */
    const uint64_t taken_up = e->taken_up;
    e->overtaken = 0;

    const bool has_files = e->store_path[0] != '\0';
    Manifest old = {};
    bool trusted = false;
    if (has_files) {
        /* A rebuild starts from nothing; the old manifest describes the index it replaces. */
        trusted = !e->rebuild && manifest_read(e, &old) && old.chunk_size == chunk_size
                  && old.overlap == overlap
                  && (old.text_version == MANIFEST_TEXT_VERSION
                      || old.text_version == MANIFEST_TEXT_VERSION_UNMARKED_PAGES);
    }
    /* Files an older version wrote with every path whole are rewritten once, so that the folder
    ** can move. */
    bool dirty = has_files && (!trusted || old.paths_full);
    PathMap<int64_t> old_index;
    for (uint32_t i = 0; trusted && i < old.count; i++) {
        old_index.emplace(XString(old.entries[i].path), (int64_t)i);
    }
    PathMap<uint32_t> store_chunks;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (!c->deleted && c->file_path) {
            store_chunks[XString(c->file_path)]++;
        }
    }
    auto chunks_of = [&store_chunks](const XString &path) -> uint32_t {
        auto it = store_chunks.find(path);
        return it == store_chunks.end() ? 0 : it->second;
    };

    Manifest next = {};
    next.chunk_size = chunk_size;
    next.overlap = overlap;
    next.text_version = MANIFEST_TEXT_VERSION;
    std::vector<Work, XAllocator<Work>> work;
    PathMap<bool> seen;
    for (size_t i = 0; i < walked.size(); i++) {
        const FoundFile &w = walked[i];
        seen.emplace(w.path, true);
        auto found = old_index.find(w.path);
        int64_t oi = found == old_index.end() ? -1 : found->second;
        const ManifestEntry *oe = oi >= 0 ? &old.entries[oi] : nullptr;
        uint32_t held = chunks_of(w.path);
        const bool judged_by_utf8_only = oe && oe->type == TRN_FILE_TYPE_BINARY
                                         && trn_is_indexable(w.type)
                                         && !(oe->flags & MANIFEST_FLAG_NO_TEXT);
        const bool pages_unmarked = oe && oe->type == TRN_FILE_TYPE_PDF
                                    && old.text_version == MANIFEST_TEXT_VERSION_UNMARKED_PAGES;
        if (oe && same_stat(*oe, w) && !(oe->flags & MANIFEST_FLAG_RECENT) && oe->chunks == held
            && !judged_by_utf8_only && !pages_unmarked) {
            manifest_add(&next, oe);
            report->unchanged += trn_is_indexable(oe->type) ? 1 : 0;
            continue;
        }
        dirty = true;
        TrnFileType type = w.type;
        if (!trn_is_indexable(type)) {
            ManifestEntry entry = entry_for(w, type);
            manifest_add(&next, &entry);
            if (held > 0) {
                work.push_back(Work{w.path, (int64_t)i, oi, type, true, held});
            }
            continue;
        }
        work.push_back(Work{w.path, (int64_t)i, oi, type, false, held});
    }
    /* Chunks of files below dir that the walk no longer reaches, in a stable order. */
    XString below = root + "/";
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->file_path || strncmp(c->file_path, below.c_str(), below.size())) {
            continue;
        }
        XString path(c->file_path);
        if (seen.emplace(path, true).second) {
            work.push_back(Work{path, -1, -1, 0, true, chunks_of(path)});
            dirty = true;
        }
    }
    /* Entries of other directories indexed into the same index stay as they were. */
    for (uint32_t i = 0; trusted && i < old.count; i++) {
        const char *p = old.entries[i].path;
        if (strncmp(p, below.c_str(), below.size()) != 0) {
            manifest_add(&next, &old.entries[i]);
        } else if (seen.find(XString(p)) == seen.end()) {
            dirty = true; /* a file that went away without chunks (binary, empty) */
        }
    }

    const int32_t total = (int32_t)work.size();
    e->update_bytes_done = 0;
    e->update_bytes_all = 0;
    for (const Work &job : work) {
        e->update_bytes_all += job.walked >= 0 ? walked[(size_t)job.walked].size : 0;
    }
    bool keep_going = !progress || progress(nullptr, 0, total, user);
    bool failed = false;
    bool changed_index = false;
    uint64_t chunks_since_manifest = 0; /* chunks written, or 1 for a removal */
    size_t done = 0;
    Batch batches[2];
    for (Batch &b : batches) {
        b.work = &work;
        b.walked = &walked;
        b.old = &old;
        b.chunk_size = chunk_size;
        b.overlap = overlap;
        b.max_size = opts ? opts->max_file_size : 0;
        b.on_helpers = e->embed_threads > 1;
    }
    if (batches[0].on_helpers) {
        extract_prepare_threads();
    }
    Batch *now = &batches[0];
    Batch *ahead = &batches[1];
    if (!work.empty()) {
        batch_start(e, 0, ahead);
    }
    while (keep_going && done < work.size()) {
        std::swap(now, ahead);
        batch_finish(now);
        if (now->end < work.size() && now->on_helpers) {
            batch_start(e, now->end, ahead);
        }
        std::vector<CutFile, XAllocator<CutFile>> cuts;
        for (Outcome &o : now->outcomes) {
            if (o.kind == Outcome::REMOVED || o.kind == Outcome::STORED) {
                cuts.push_back(std::move(o.cut));
            }
        }
        if (!cuts.empty() && !store_cut_files(e, cuts.data(), cuts.size(), taken_up)) {
            failed = true;
            break;
        }
        size_t stored = 0;
        for (size_t j = now->first; j < now->end; j++) {
            const Work &job = work[j];
            Outcome &o = now->outcomes[j - now->first];
            e->files_read += job.remove_only ? 0 : 1;
            if (o.kind == Outcome::REMOVED) {
                stored++;
                report->removed++;
                changed_index = true;
                chunks_since_manifest++;
            } else if (o.kind == Outcome::FAILED) {
                report->failed++;
            } else if (o.kind == Outcome::UNCHANGED) {
                report->unchanged++;
            } else if (o.kind == Outcome::STORED) {
                const ManifestEntry *oe =
                    job.old_entry >= 0 ? &old.entries[job.old_entry] : nullptr;
                int32_t n = cuts[stored++].stored;
                o.entry.chunks = (uint32_t)n;
                if (job.held > 0 || (oe && oe->chunks > 0)) {
                    report->changed++;
                } else if (n > 0) {
                    report->added++;
                }
                report->chunks_added += n;
                changed_index = true;
                chunks_since_manifest += n > 0 ? (uint64_t)n : 1;
            }
            if (o.has_entry) {
                manifest_add(&next, &o.entry);
            }
            e->update_bytes_done += job.walked >= 0 ? walked[(size_t)job.walked].size : 0;
            /* Once stopped, the rest of the batch is stored all the same: noted, not shown. */
            if (keep_going && progress
                && !progress(job.path.c_str(), (int32_t)j + 1, total, user)) {
                keep_going = false;
                report->cancelled = 1;
            }
        }
        done = now->end;
        if (has_files && !e->rebuild && chunks_since_manifest > 0
            && chunks_since_manifest * MANIFEST_ENTRIES_PER_CHUNK >= next.count) {
            write_manifest(e, &next, &old, work, done);
            chunks_since_manifest = 0;
        }
        if (!now->on_helpers && done < work.size()) {
            batch_start(e, done, ahead);
        }
    }
    /* A batch read ahead and not stored: its files keep their old entries. */
    if (ahead->run) {
        work_finish(ahead->run);
        ahead->run = nullptr;
    }
    if (changed_index) {
        trn_build_doc_index(e); /* searches from the progress callback see every file */
    }
    uint64_t live = 0, waiting = 0;
    count_pending(e, &live, &waiting);
    if (keep_going && !failed && waiting > 0) {
        /* So that a kill during the meaning phase reads none of these files again. */
        if (has_files && dirty && !e->rebuild) {
            write_manifest(e, &next, &old, work, done);
        }
        bool stopped = false;
        failed = !embed_pending(e, progress, user, &stopped);
        report->cancelled = stopped ? 1 : report->cancelled;
    }
    if (waiting > 0) {
        trn_build_doc_index(e); /* the files' centroids, from the vectors now there */
    }
    if (!failed && e->count > 0 && e->deleted_count * 100 > e->count * TRN_UPDATE_COMPACT_PERCENT) {
        if (trn_compact(e) == 1) {
            report->compacted = 1;
        } else {
            failed = true;
        }
    }
    /* A rebuilt index replaces the old one here; until it does, the old manifest stays with the
    ** old index (a cancelled or failed rebuild leaves both as they were). */
    if (e->rebuild && !failed && !report->cancelled) {
        failed = trn_checkpoint(e) != 1;
    } else if (has_files && !failed && e->paths_full) {
        failed = trn_checkpoint(e) != 1;
    } else if (has_files && !failed && !e->rebuild && e->wal_chunks >= g_checkpoint_chunks) {
        /* Within a run the log may grow with the index; after it, another process's open
        ** replays no more than the least threshold allows. A failure leaves the log whole. */
        if (trn_checkpoint(e) != 1) {
            status_clear(e);
        }
    }
    if (has_files && dirty && !e->rebuild) {
        /* The files from done on were not handled: they keep their old entries. */
        write_manifest(e, &next, &old, work, done);
    }
    e->update_bytes_done = 0;
    e->update_bytes_all = 0;
    e->overtaken = e->taken_up != taken_up ? 1 : 0;
    manifest_free(&next);
    manifest_free(&old);
    return failed ? -1 : report->chunks_added;
}

} // namespace

extern "C" {

int32_t trn_update_dir(TrnEngine *e, const char *dir, int32_t chunk_size, int32_t overlap,
                       const TrnWalkOptions *opts, TrnProgressFn progress, void *user,
                       TrnUpdateReport *report)
{
    TrnUpdateReport local;
    if (!report) {
        report = &local;
    }
    int32_t added = update_once(e, dir, chunk_size, overlap, opts, progress, user, report);
    /* Another process's commit taken up after the comparison (a rebuild that swapped in what it
    ** read before a file was deleted) is compared again, a few times at most: each pass reads
    ** only what differs. */
    for (int pass = 1; pass < UPDATE_PASSES && added >= 0 && !report->cancelled && e->overtaken;
         pass++) {
        TrnUpdateReport more;
        int32_t n = update_once(e, dir, chunk_size, overlap, opts, progress, user, &more);
        report->added += more.added;
        report->changed += more.changed;
        report->removed += more.removed;
        report->failed = more.failed; /* what still fails */
        report->chunks_added += more.chunks_added;
        report->compacted |= more.compacted;
        report->cancelled = more.cancelled;
        added = n < 0 ? n : added + n;
    }
    return added;
}

} /* extern "C" */
