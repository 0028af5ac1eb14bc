/*
** docindex.cpp -- per-file views of the chunk table: the document index (one unit centroid per
** file, which narrows semantic searches to the best-matching files), removal of a file's chunks,
** compaction of the tables after removals and statistics.
**
** The document index is a snapshot, rebuilt at open, after compaction and when the caller asks;
** chunks added or removed afterwards are not reflected until the next build. Removal sets the
** chunks' deleted flags once a 'D' record for the file is synced to the log; compaction drops
** deleted chunks, renumbers the rest densely in their old order, rebuilds the graph and
** checkpoints, holding the exclusive lock throughout.
**
** Files are told apart by their paths; building the document index finds each chunk's file
** through a hash of the paths, so it takes time linear in the chunks.
*/
#include "internal.h"
#include "text/files.h"

#include <cmath>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include <sys/stat.h>

namespace
{

constexpr int32_t FIRST_FILE_CAPACITY = 64;

using NameSlots = std::unordered_map<std::string_view, int32_t, std::hash<std::string_view>,
                                     std::equal_to<std::string_view>,
                                     XAllocator<std::pair<const std::string_view, int32_t>>>;

bool is_live_file_chunk(const TrnChunk *c)
{
    return !c->deleted && c->file_path != nullptr;
}

uint32_t live_chunks_of(const TrnEngine *e, const char *path)
{
    uint32_t n = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (is_live_file_chunk(c) && strcmp(c->file_path, path) == 0) {
            n++;
        }
    }
    return n;
}

/* Drops deleted chunks, renumbering the rest, and rebuilds the graph and the document index. */
void compact_mem(TrnEngine *e)
{
    if (e->deleted_count == 0) {
        hnsw_rebuild(e);
        return;
    }
    uint64_t live = e->count - e->deleted_count;
    size_t dim = (size_t)e->dim;
    TrnChunk *chunks = nullptr;
    float *vectors = nullptr;
    TrnNode *nodes = nullptr;
    if (live > 0) {
        chunks = static_cast<TrnChunk *>(xmalloc(xmul((size_t)live, sizeof(TrnChunk))));
        vectors = static_cast<float *>(xmalloc(xmul(xmul((size_t)live, dim), sizeof(float))));
        nodes = static_cast<TrnNode *>(xcalloc((size_t)live, sizeof(TrnNode)));
    }
    lex_compact(e); /* renumbers its slots as below */
    uint64_t next = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        TrnChunk *c = &e->chunks[i];
        if (c->deleted) {
            if (!c->text_in_store) {
                free(c->text);
            }
            free(c->file_path);
        } else {
            /* The text and path pointers move with the record. */
            chunks[next] = *c;
            memcpy(vectors + next * dim, e->vectors + i * dim, dim * sizeof(float));
            next++;
        }
        node_reset(&e->nodes[i]);
    }
    free(e->chunks);
    free(e->vectors);
    free(e->nodes);
    e->chunks = chunks;
    e->vectors = vectors;
    e->nodes = nodes;
    e->count = live;
    e->capacity = live;
    e->deleted_count = 0;
    hnsw_rebuild(e);
    trn_build_doc_index(e);
}

} // namespace

int32_t count_file_chunks(const TrnEngine *e, const char *path)
{
    return (int32_t)live_chunks_of(e, path);
}

int32_t remove_file_mem(TrnEngine *e, const char *path)
{
    /* The writer linked the vectors a replayed log holds before it removed anything. */
    link_replayed(e);
    int32_t marked = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        TrnChunk *c = &e->chunks[i];
        if (is_live_file_chunk(c) && strcmp(c->file_path, path) == 0) {
            c->deleted = 1;
            e->deleted_count++;
            e->pending_count -= c->pending;
            marked++;
        }
    }
    /* More than half of all slots deleted: searches would wade through dead nodes. */
    if (marked > 0 && e->count < 2 * e->deleted_count) {
        hnsw_rebuild(e);
    }
    return marked;
}

extern "C" {

void trn_free_doc_index(TrnEngine *e)
{
    if (!e) {
        return;
    }
    for (int32_t j = 0; j < e->file_count; j++) {
        free(e->file_names[j]);
    }
    free(e->file_names);
    free(e->centroids);
    free(e->file_chunk_counts);
    e->file_names = nullptr;
    e->centroids = nullptr;
    e->file_chunk_counts = nullptr;
    e->file_count = 0;
    e->file_capacity = 0;
}

int32_t trn_build_doc_index(TrnEngine *e)
{
    if (!e) {
        return 0;
    }
    trn_free_doc_index(e);
    if (e->count == 0) {
        return 0;
    }
    int32_t capacity = FIRST_FILE_CAPACITY;
    int32_t n = 0;
    char **names = static_cast<char **>(xmalloc(xmul((size_t)capacity, sizeof(char *))));
    /* Each chunk's file, found by hash: a scan of the names per new file would cost files
    ** squared comparisons (seconds at 20,000 files). The views point into the chunks' paths. */
    NameSlots slot_of;
    int32_t hint = -1;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (!is_live_file_chunk(c)) {
            continue;
        }
        auto found = slot_of.find(std::string_view(c->file_path));
        if (found != slot_of.end()) {
            continue;
        }
        if (n == capacity) {
            if (capacity > INT32_MAX / 2) {
                oom_abort();
            }
            capacity *= 2;
            names = static_cast<char **>(xrealloc(names, xmul((size_t)capacity, sizeof(char *))));
        }
        slot_of.emplace(std::string_view(c->file_path), n);
        names[n++] = xstrdup(c->file_path);
    }
    if (n == 0) {
        free(names);
        return 0;
    }

    size_t dim = (size_t)e->dim;
    float *centroids = static_cast<float *>(xcalloc(xmul((size_t)n, dim), sizeof(float)));
    int32_t *counts = static_cast<int32_t *>(xcalloc((size_t)n, sizeof(int32_t)));
    hint = -1;
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (!is_live_file_chunk(c)) {
            continue;
        }
        hint = slot_of.find(std::string_view(c->file_path))->second;
        float *row = centroids + (size_t)hint * dim;
        vec_add(row, chunk_vector(e, i), row, dim);
        counts[hint]++;
    }
    for (int32_t j = 0; j < n; j++) {
        float *row = centroids + (size_t)j * dim;
        if (counts[j] >= 1 && dim >= 1) {
            vec_smul(row, 1.0f / (float)counts[j], row, dim);
        }
        vec_normalize(row, dim);
    }
    e->file_names = names;
    e->centroids = centroids;
    e->file_chunk_counts = counts;
    e->file_count = n;
    e->file_capacity = capacity;
    return n;
}

int32_t trn_remove_file(TrnEngine *e, const char *path)
{
    if (!e || !path) {
        return 0;
    }
    status_clear(e);
    if (count_file_chunks(e, path) == 0 && !e->store_path[0]) {
        return 0;
    }
    /* Counted again under the lock: another process may have added or removed the file. */
    if (!write_begin(e)) {
        return -1;
    }
    int32_t marked = count_file_chunks(e, path);
    if (marked > 0) {
        TrnBytes group;
        wal_group_begin(e, &group);
        wal_put_remove(e, &group, path);
        if (wal_commit_group(e, &group)) {
            remove_file_mem(e, path);
            e->changed = 1;
        } else {
            marked = -1;
        }
    }
    write_end(e);
    return marked;
}

int32_t trn_compact(TrnEngine *e)
{
    if (!e) {
        return 0;
    }
    /* The lock is held from the refresh to the commit, so no other process's change is lost. */
    if (!write_begin(e)) {
        return 0;
    }
    compact_mem(e);
    e->unsaved = 1;
    bool ok = true;
    if (e->store_path[0] && !e->rebuild) {
        ok = checkpoint_locked(e);
    }
    write_end(e);
    return ok ? 1 : 0;
}

TrnStats trn_stats(const TrnEngine *e)
{
    TrnStats s = {0, 0, 0, -1, 0};
    if (!e) {
        return s;
    }
    s.chunk_count = (uint32_t)e->count;
    s.deleted_count = (uint32_t)e->deleted_count;
    for (int32_t p = 0; p < e->graph_parts; p++) {
        s.max_level = e->graph[p].max_level > s.max_level ? e->graph[p].max_level : s.max_level;
    }
    s.dim = e->dim;
    if (e->file_count >= 1) {
        s.file_count = (uint32_t)e->file_count;
    } else {
        /* No document index yet: every ingested file has exactly one chunk 0. */
        for (uint64_t i = 0; i < e->count; i++) {
            if (!e->chunks[i].deleted && e->chunks[i].chunk_index == 0) {
                s.file_count++;
            }
        }
    }
    return s;
}

} /* extern "C" */
