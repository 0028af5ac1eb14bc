/*
** fuzz_store.cpp -- the store loader on arbitrary bytes. A loaded handle must satisfy the
** invariants the graph and the document index rely on, and both must run on it: the document
** index is built, one chunk is linked into the loaded graph and the graph is searched.
*/
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *path = fuzz_input_file("trn_fuzz_store", data, size);
    TrnEngine *e = bare_engine(nullptr);
    store_load(e, path);
    fuzz_check_handle(e);
    trn_build_doc_index(e);
    (void)trn_stats(e);

    /* A new chunk with a fixed unit vector, linked as ingestion would link it. */
    ensure_cap(e, e->count + 1);
    uint64_t slot = e->count++;
    TrnChunk *c = &e->chunks[slot];
    snprintf(c->doc_id, sizeof c->doc_id, "fuzz:0");
    c->text = xstrdup("fuzz");
    float *v = e->vectors + slot * (uint64_t)e->dim;
    for (int32_t i = 0; i < e->dim; i++) {
        v[i] = (i % 2 ? 1.0f : -1.0f) / std::sqrt((float)e->dim);
    }
    node_reset(&e->nodes[slot]);
    e->nodes[slot].level = (int32_t)(size % 3);
    hnsw_insert(e, (uint32_t)slot);
    fuzz_check_handle(e);
    uint32_t found[TRN_MAX_RESULTS];
    float scores[TRN_MAX_RESULTS];
    int32_t n = hnsw_query(e, v, 10, found, scores);
    for (int32_t i = 0; i < n; i++) {
        if (found[i] >= e->count) {
            abort();
        }
    }
    free_bare_engine(e);
    unlink(path);
    return 0;
}
