/*
** file_list.cpp -- the one listing of a directory's files, with why each is or is not indexed:
** what tarnwick-cli's files command prints and the application's file scope view shows.
**
** The walk (text/files.h) gives every entry its verdict; the listing adds what the index holds.
** The chunks are counted by path once, through a hash, so a listing costs the files plus the
** chunks. Reading a file's text is what tells why a readable file gave no chunk (not UTF-8, too
** short, unreadable), so only the indexable files the index holds nothing of are read whole; of
** the indexed ones, those read as bytes (text, source, Markdown, HTML) are read again only to
** name their charset, which costs reading them but no parsing.
*/
#include "internal.h"
#include "text/files.h"

#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include <sys/stat.h>

namespace
{

constexpr int32_t FIRST_LIST_CAPACITY = 256;

using ChunkCounts = std::unordered_map<std::string_view, uint32_t, std::hash<std::string_view>,
                                       std::equal_to<std::string_view>,
                                       XAllocator<std::pair<const std::string_view, uint32_t>>>;
using PathSet = std::unordered_set<std::string_view, std::hash<std::string_view>,
                                   std::equal_to<std::string_view>, XAllocator<std::string_view>>;

/* The state of one listing's walk. */
struct DirListing {
    TrnFileList *list;
    int32_t capacity;          /* entries allocated, >= list->count */
    bool full;                 /* _ex: excluded entries too, and the text of unindexed files read */
    uint64_t max_size;         /* of a file whose text is read */
    const ChunkCounts *counts; /* live chunks by path; NULL without an engine */
    const PathSet *cut;        /* files whose indexed text was cut at the size limit */
    int64_t written_ns;        /* when the index was last written; 0 when never */
};

/* Modification time of path in nanoseconds, or 0 when it cannot be read. */
int64_t mtime_ns(const char *path)
{
    struct stat st;
    if (path[0] == '\0' || stat(path, &st) != 0) {
        return 0;
    }
    return (int64_t)st.st_mtim.tv_sec * 1000000000 + st.st_mtim.tv_nsec;
}

WalkAction list_walked(const WalkedFile *f, void *arg)
{
    DirListing *state = static_cast<DirListing *>(arg);
    bool listed = f->kind == WALK_FILE || (f->kind == WALK_DIR && state->full);
    if (!listed || (!state->full && f->status == TRN_FILE_STATUS_EXCLUDED)) {
        return WALK_CONTINUE;
    }
    TrnFileList *list = state->list;
    if (list->count == state->capacity) {
        int32_t grown = state->capacity == 0 ? FIRST_LIST_CAPACITY : state->capacity * 2;
        list->entries = static_cast<TrnFileInfo *>(
            xrealloc(list->entries, xmul((size_t)grown, sizeof(TrnFileInfo))));
        state->capacity = grown;
    }
    TrnFileInfo *info = &list->entries[list->count];
    *info = TrnFileInfo{};
    info->path = xstrdup(f->path);
    char *slash = strrchr(info->path, '/');
    info->name = slash ? slash + 1 : info->path;
    info->type = f->type;
    info->size = (int64_t)f->size;
    info->is_dir = f->kind == WALK_DIR ? 1 : 0;
    info->status = f->status;
    info->reason = xstrdup(f->reason);
    if (info->is_dir) {
        list->count++;
        return WALK_CONTINUE;
    }
    if (info->type == TRN_FILE_TYPE_UNKNOWN) {
        info->type = file_type_by_name(f->path); /* the walk did not read it: excluded, too large */
    }
    if (state->counts) {
        auto found = state->counts->find(std::string_view(f->path));
        info->chunk_count = found == state->counts->end() ? 0 : found->second;
    }
    info->indexed = info->chunk_count >= 1 ? 1 : 0;
    /* Files changed between their own indexing and the index's last write are not told apart. */
    info->changed = info->indexed && state->written_ns > 0 && f->mtime_ns > state->written_ns;
    const bool bytes_are_text = f->type == TRN_FILE_TYPE_TEXT || f->type == TRN_FILE_TYPE_SOURCE
                                || f->type == TRN_FILE_TYPE_MARKDOWN
                                || f->type == TRN_FILE_TYPE_HTML;
    bool cut = false;
    if (state->full && !info->indexed && f->status == TRN_FILE_STATUS_INDEXABLE) {
        ExtractedText text;
        info->status = extract_file_text(f->path, f->type, state->max_size, &text);
        snprintf(info->encoding, sizeof info->encoding, "%s", text.encoding);
        cut = info->status == TRN_FILE_STATUS_INDEXABLE && text.cut;
        extracted_text_free(&text);
    } else if (state->full && info->indexed) {
        cut = state->cut->count(std::string_view(f->path)) > 0;
        if (bytes_are_text) {
            file_charset(f->path, state->max_size, info->encoding, sizeof info->encoding);
        }
    }
    if (cut) {
        char reason[64];
        snprintf(reason,
                 sizeof reason,
                 "text cut at %llu bytes, the size limit",
                 (unsigned long long)state->max_size);
        free(info->reason);
        info->reason = xstrdup(reason);
    }
    list->count++;
    return WALK_CONTINUE;
}

TrnFileList *list_files(TrnEngine *e, const char *dir, const TrnWalkOptions *opts, bool full)
{
    TrnFileList *list = static_cast<TrnFileList *>(xcalloc(1, sizeof(TrnFileList)));
    if (!dir) {
        return list;
    }
    ChunkCounts counts;
    PathSet cut;
    Manifest manifest = {};
    DirListing state = {list, 0, full, TRN_FILE_SIZE_MAX, nullptr, &cut, 0};
    if (opts && opts->max_file_size > 0) {
        state.max_size = opts->max_file_size;
    }
    if (e) {
        index_refresh_for_read(e);
        for (uint64_t i = 0; i < e->count; i++) {
            const TrnChunk *c = &e->chunks[i];
            if (!c->deleted && c->file_path) {
                counts[std::string_view(c->file_path)]++;
            }
        }
        state.counts = &counts;
        int64_t store = mtime_ns(e->store_path), wal = mtime_ns(e->wal_path);
        state.written_ns = store > wal ? store : wal;
        /* The cut is known only on the run that read the file: the manifest keeps it. */
        if (full && e->store_path[0] && manifest_read(e, &manifest)) {
            for (uint32_t i = 0; i < manifest.count; i++) {
                if (manifest.entries[i].flags & MANIFEST_FLAG_CUT) {
                    cut.insert(std::string_view(manifest.entries[i].path));
                }
            }
        }
    }
    walk_files(dir, opts, list_walked, &state);
    manifest_free(&manifest);
    return list;
}

} // namespace

extern "C" {

TrnFileList *trn_list_dir_files(TrnEngine *e, const char *dir)
{
    return list_files(e, dir, nullptr, false);
}

TrnFileList *trn_list_dir_files_ex(TrnEngine *e, const char *dir, const TrnWalkOptions *opts)
{
    return list_files(e, dir, opts, true);
}

void trn_free_file_list(TrnFileList *list)
{
    if (!list) {
        return;
    }
    for (int32_t i = 0; i < list->count; i++) {
        free(list->entries[i].path);
        free(list->entries[i].reason);
    }
    free(list->entries);
    free(list);
}

} /* extern "C" */
