/*
** probe.cpp -- the benchmarks' view into a handle (probe.h).
*/
#include "probe.h"

#include "internal.h"

#include <cstdio>
#include <cstring>

ProbeChunk probe_chunk(const TrnEngine *e, uint64_t slot)
{
    const TrnChunk *c = &e->chunks[slot];
    ProbeChunk p;
    p.doc_id = c->doc_id;
    p.text = c->text;
    p.file_path = c->file_path;
    p.vector = chunk_vector(e, slot);
    p.chunk_index = c->chunk_index;
    p.line_number = c->line_number;
    p.deleted = c->deleted != 0;
    return p;
}

size_t probe_chunk_record_size()
{
    return sizeof(TrnChunk);
}

TrnEncoder *probe_encoder(TrnEngine *e)
{
    return engine_encoder(e);
}

bool probe_weights_loaded(TrnEngine *e)
{
    return engine_encoder(e) && e->weights_loaded != 0;
}

void probe_set_embed_threads(TrnEngine *e, int32_t workers)
{
    e->embed_threads = workers > 1 ? workers : 1;
}

void probe_reserve(TrnEngine *e, uint64_t n)
{
    ensure_cap(e, n);
}

uint64_t probe_append(TrnEngine *e, const char *doc_id, const char *text, const char *path,
                      int32_t chunk_index, const float *vector)
{
    ensure_cap(e, e->count + 1);
    uint64_t slot = e->count++;
    TrnChunk *c = &e->chunks[slot];
    snprintf(c->doc_id, TRN_ID_MAX, "%s", doc_id);
    c->text = text ? xstrdup(text) : nullptr;
    c->file_path = path ? xstrdup(path) : nullptr;
    c->chunk_index = chunk_index;
    c->line_number = 1;
    float *v = e->vectors + slot * (uint64_t)e->dim;
    if (vector) {
        memcpy(v, vector, (size_t)e->dim * sizeof(float));
    } else {
        memset(v, 0, (size_t)e->dim * sizeof(float));
    }
    e->unsaved = 1;
    return slot;
}

void probe_link(TrnEngine *e, uint64_t slot)
{
    e->nodes[slot].level = draw_level(&e->level_state, e->level_mult);
    hnsw_insert(e, (uint32_t)slot);
}

void probe_link_to(TrnEngine *e, uint64_t slot, const uint32_t *to, int32_t count)
{
    TrnNode *node = &e->nodes[slot];
    node->level = 0;
    node->neighbors[0] = static_cast<uint32_t *>(xmalloc(xmul((size_t)count, sizeof(uint32_t))));
    memcpy(node->neighbors[0], to, (size_t)count * sizeof(uint32_t));
    node->capacity[0] = count;
    node->count[0] = count;
    if (e->graph[0].entry_point == -1) {
        e->graph[0].entry_point = (int32_t)slot;
        e->graph[0].max_level = 0;
    }
}

void probe_seed_levels(TrnEngine *e, uint64_t seed)
{
    e->level_state = seed;
}

bool probe_has_word_index(const TrnEngine *e)
{
    return e->lexical != nullptr;
}

void probe_close_unwritten(TrnEngine *e)
{
    e->store_path[0] = '\0';
    trn_close(e);
}
