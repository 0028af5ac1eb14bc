/*
** embed.cpp -- embeds many chunks at once on the processor's cores.
**
** embed_chunks hands the texts out a few at a time (up to ENCODER_BATCH, one forward pass of
** batch.cpp, fewer near the end) from a shared counter to up to embed_threads workers (the calling
** thread and embed_threads - 1 threads started for the call), so long and short chunks balance by
** themselves. Each worker embeds with a scratch space of its own, kept in the handle between
** calls, and writes only its texts' rows of the output: a chunk's vector is the same bits
** whichever worker embeds it, with whichever other texts, and however many workers there are.
** The weights are only read.
**
** OpenBLAS would start threads of its own inside every matrix product; with a worker per core
** that oversubscribes the cores, so the first handle sets OpenBLAS to one thread for the process
** (embed_threads_default) and the workers give the parallelism.
**
** Nothing else runs on the workers: they never touch the handle's chunks, graph or log, so the
** caller's serialisation of calls on one handle still covers everything.
**
** embed_distinct_chunks embeds each distinct text once. Licence headers, vendored copies and a
** file read again after a kill give chunks whose text the index already holds; their vector is
** copied from a live chunk with the same text, found through a hash table of the chunk texts
** that is brought up to date before each use. An entry whose slot was removed or renumbered by
** a compaction is harmless: a hit counts only when that slot's text is equal and live, and its
** vector is then the one this text gets.
*/
#include "internal.h"
#include "storage/manifest.h"

#include <atomic>
#include <cblas.h>
#include <cstring>
#include <new>
#include <unordered_map>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace
{

constexpr int32_t EMBED_THREADS_MAX = 8;

/* The workers read only the encoder and write only their rows of out: nothing of the handle, which
** the calling thread may change meanwhile (embed_start). A job of work_start calls each on one
** item at a time instead. */
struct EmbedJob {
    void (*each)(void *arg, size_t item);
    void *arg;
    const TrnEncoder *encoder;
    size_t dim;
    const char *const *texts;
    size_t count;
    float *out;
    size_t workers;
    std::atomic<size_t> next;
};

struct EmbedWorker {
    EmbedJob *job;
    TrnScratch *scratch;
};

/* The texts for a worker's next forward pass, from *first on: an even share of those left, 1 to
** ENCODER_BATCH, so that the last ones still spread over every worker; 0 when none are left. */
size_t take_texts(EmbedJob *job, size_t *first)
{
    size_t at = job->next.load(std::memory_order_relaxed);
    size_t n = 0;
    do {
        if (at >= job->count) {
            return 0;
        }
        n = (job->count - at + job->workers - 1) / job->workers;
        n = n < (size_t)ENCODER_BATCH ? n : (size_t)ENCODER_BATCH;
    } while (!job->next.compare_exchange_weak(at, at + n, std::memory_order_relaxed));
    *first = at;
    return n;
}

/* embed_batch_with on what it reads of the handle. */
void embed_rows(const TrnEncoder *encoder, size_t dim, TrnScratch *scratch,
                const char *const *texts, size_t count, float *v)
{
    /* The encoder always writes 512 floats; a handle configured with another dim keeps the
    ** leading dim of them (zero-padded), so the slot is never overrun. */
    if (dim == TRN_ENCODER_DIM) {
        encoder_embed_batch(encoder, scratch, texts, count, v);
    } else {
        float full[ENCODER_BATCH * TRN_ENCODER_DIM];
        encoder_embed_batch(encoder, scratch, texts, count, full);
        for (size_t s = 0; s < count; s++) {
            for (size_t i = 0; i < dim; i++) {
                v[s * dim + i] = i < TRN_ENCODER_DIM ? full[s * TRN_ENCODER_DIM + i] : 0.0f;
            }
        }
    }
    for (size_t s = 0; s < count; s++) {
        vec_normalize(v + s * dim, dim);
    }
}

void embed_loop(EmbedJob *job, TrnScratch *scratch)
{
    if (job->each) {
        for (size_t item;
             (item = job->next.fetch_add(1, std::memory_order_relaxed)) < job->count;) {
            job->each(job->arg, item);
        }
        return;
    }
    size_t first = 0;
    while (size_t n = take_texts(job, &first)) {
        embed_rows(
            job->encoder, job->dim, scratch, job->texts + first, n, job->out + first * job->dim);
    }
}

void *embed_thread(void *arg)
{
    EmbedWorker *w = static_cast<EmbedWorker *>(arg);
    embed_loop(w->job, w->scratch);
    return nullptr;
}

/* Worker i's scratch, with room for a forward pass over `sequences` texts. Worker 0 is the
** calling thread and uses the encoder's own scratch, which searches use too. */
TrnScratch *worker_scratch(TrnEngine *e, int32_t i, int sequences)
{
    if (i > 0 && !e->embed_scratch) {
        e->embed_scratch =
            static_cast<TrnScratch **>(xcalloc(EMBED_THREADS_MAX, sizeof(TrnScratch *)));
    }
    TrnScratch **slot = i == 0 ? &e->encoder.scratch : &e->embed_scratch[i];
    if (scratch_sequences(*slot) < sequences) {
        scratch_free(*slot);
        *slot = scratch_new_batch(sequences);
    }
    return *slot;
}

} // namespace

int32_t embed_threads_default(void)
{
    static std::atomic<bool> blas_single{false};
    if (!blas_single.exchange(true)) {
        openblas_set_num_threads(1);
    }
    int32_t cores = 0;
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0) {
        cores = (int32_t)CPU_COUNT(&set);
    }
    if (cores < 1) {
        cores = (int32_t)sysconf(_SC_NPROCESSORS_ONLN);
    }
    if (cores < 1) {
        cores = 1;
    }
    return cores < EMBED_THREADS_MAX ? cores : EMBED_THREADS_MAX;
}

void embed_batch_with(TrnEngine *e, TrnScratch *scratch, const char *const *texts, size_t count,
                      float *v)
{
    embed_rows(&e->encoder, (size_t)e->dim, scratch, texts, count, v);
}

void embed_chunk_with(TrnEngine *e, TrnScratch *scratch, const char *text, float *v)
{
    embed_batch_with(e, scratch, &text, 1, v);
}

void embed_chunk(TrnEngine *e, const char *text, float *v)
{
    engine_encoder(e);
    embed_chunk_with(e, worker_scratch(e, 0, 1), text, v);
}

/* An embedding under way: its job, and the helper threads started for it. */
struct EmbedRun {
    EmbedJob job;
    TrnScratch *own; /* the calling thread's scratch */
    EmbedWorker helpers[EMBED_THREADS_MAX];
    pthread_t threads[EMBED_THREADS_MAX];
    int32_t started;
    bool caller_helps; /* work_start's */
};

namespace
{

/* Starts one more thread on run's job with scratch (NULL for work_start's); false when it could
** not be started. */
bool start_helper(EmbedRun *run, TrnScratch *scratch)
{
    EmbedWorker &w = run->helpers[run->started];
    w.job = &run->job;
    w.scratch = scratch;
    if (pthread_create(&run->threads[run->started], nullptr, embed_thread, &w) != 0) {
        return false;
    }
    run->started++;
    return true;
}

} // namespace

EmbedRun *embed_start(TrnEngine *e, const char *const *texts, size_t count, float *out)
{
    engine_encoder(e); /* before any worker reads it */
    int32_t workers = e->embed_threads;
    if (workers > EMBED_THREADS_MAX) {
        workers = EMBED_THREADS_MAX;
    }
    if ((size_t)workers > count) {
        workers = (int32_t)count;
    }
    EmbedRun *run = new (xmalloc(sizeof(EmbedRun))) EmbedRun;
    EmbedJob &job = run->job;
    job.each = nullptr;
    job.arg = nullptr;
    job.encoder = &e->encoder;
    job.dim = (size_t)e->dim;
    job.texts = texts;
    job.count = count;
    job.out = out;
    job.workers = (size_t)(workers > 0 ? workers : 1);
    job.next.store(0, std::memory_order_relaxed);
    /* A bag of words issues no products: its texts go one at a time, in a scratch of one. */
    const int sequences = e->encoder.bag_rows ? 1 : ENCODER_BATCH;
    /* Scratch spaces are made here, on the calling thread, so an allocation failure ends the
    ** process from the thread that called the engine. */
    run->own = worker_scratch(e, 0, sequences);
    run->started = 0;
    for (int32_t i = 1; i < workers; i++) {
        if (!start_helper(run, worker_scratch(e, i, sequences))) {
            break; /* fewer workers: the calling thread embeds what no thread takes */
        }
    }
    return run;
}

EmbedRun *work_start(const TrnEngine *e, size_t count, void (*each)(void *arg, size_t item),
                     void *arg, bool caller_helps)
{
    EmbedRun *run = new (xmalloc(sizeof(EmbedRun))) EmbedRun;
    EmbedJob &job = run->job;
    job.each = each;
    job.arg = arg;
    job.encoder = nullptr;
    job.dim = 0;
    job.texts = nullptr;
    job.count = count;
    job.out = nullptr;
    job.workers = 1;
    job.next.store(0, std::memory_order_relaxed);
    run->own = nullptr;
    run->started = 0;
    run->caller_helps = caller_helps;
    const int32_t helpers =
        (e->embed_threads < EMBED_THREADS_MAX ? e->embed_threads : EMBED_THREADS_MAX)
        - (caller_helps ? 1 : 0);
    for (int32_t i = 0; i < helpers && (size_t)i < count; i++) {
        if (!start_helper(run, nullptr)) {
            break; /* fewer helpers: work_finish does what no thread takes */
        }
    }
    return run;
}

void work_finish(EmbedRun *run)
{
    if (!run->caller_helps && run->started > 0) {
        for (int32_t i = 0; i < run->started; i++) {
            pthread_join(run->threads[i], nullptr);
        }
        run->started = 0;
    }
    embed_finish(run);
}

void embed_finish(EmbedRun *run)
{
    embed_loop(&run->job, run->own);
    for (int32_t i = 0; i < run->started; i++) {
        pthread_join(run->threads[i], nullptr);
    }
    run->~EmbedRun();
    free(run);
}

void embed_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out)
{
    embed_finish(embed_start(e, texts, count, out));
}

namespace
{

uint64_t hash_of(const char *text)
{
    return text_hash(text, strlen(text));
}

/* The entry's slot + 1 for slot with a text of hash h. */
uint64_t text_entry(uint64_t h, uint64_t slot)
{
    return (h & 0xFFFFFFFF00000000ull) | (slot + 1);
}

/* Entries keep only the hash's high 32 bits, so those pick the place too (a table never grows
** past 2^32 entries: slots are 32-bit). */
void text_table_put(TrnEngine *e, uint64_t h, uint64_t slot)
{
    uint64_t mask = e->text_table_size - 1;
    uint64_t i = (h >> 32) & mask;
    while (e->text_table[i] != 0) {
        i = (i + 1) & mask;
    }
    e->text_table[i] = text_entry(h, slot);
    e->text_table_used++;
}

/* Adds the live slots from text_slots to count; starts again when the chunks were cleared or
** compacted below what the table covers. */
void text_table_sync(TrnEngine *e)
{
    if (e->text_slots > e->count) {
        free(e->text_table);
        e->text_table = nullptr;
        e->text_table_size = e->text_table_used = e->text_slots = 0;
    }
    /* At most half full after the additions. */
    uint64_t need = e->text_table_used + (e->count - e->text_slots);
    if (!e->text_table || need * 2 > e->text_table_size) {
        uint64_t size = 1024;
        while (size < need * 2) {
            size *= 2;
        }
        uint64_t *old = e->text_table;
        uint64_t old_size = e->text_table_size;
        e->text_table = static_cast<uint64_t *>(xcalloc((size_t)size, sizeof(uint64_t)));
        e->text_table_size = size;
        e->text_table_used = 0;
        for (uint64_t i = 0; i < old_size; i++) {
            if (old[i] != 0) {
                uint64_t slot = (old[i] & 0xFFFFFFFFull) - 1;
                text_table_put(e, old[i] & 0xFFFFFFFF00000000ull, slot);
            }
        }
        free(old);
    }
    for (uint64_t slot = e->text_slots; slot < e->count; slot++) {
        const TrnChunk *c = &e->chunks[slot];
        if (!c->deleted && c->text) {
            text_table_put(e, hash_of(c->text), slot);
        }
    }
    e->text_slots = e->count;
}

/* A live slot whose text is text (of hash h), or -1. */
int64_t text_table_find(const TrnEngine *e, uint64_t h, const char *text)
{
    uint64_t mask = e->text_table_size - 1;
    for (uint64_t i = (h >> 32) & mask; e->text_table[i] != 0; i = (i + 1) & mask) {
        uint64_t entry = e->text_table[i];
        if ((entry & 0xFFFFFFFF00000000ull) != (h & 0xFFFFFFFF00000000ull)) {
            continue;
        }
        uint64_t slot = (entry & 0xFFFFFFFFull) - 1;
        const TrnChunk *c = slot < e->count ? &e->chunks[slot] : nullptr;
        if (c && !c->deleted && !c->pending && c->text && strcmp(c->text, text) == 0) {
            return (int64_t)slot;
        }
    }
    return -1;
}

} // namespace

void distinct_plan(TrnEngine *e, const char *const *texts, size_t count, float *out,
                   DistinctPlan *plan)
{
    const size_t dim = (size_t)e->dim;
    text_table_sync(e);
    plan->source.assign(count, -1);
    plan->fresh.clear();
    plan->fresh_rows.clear();
    /* The first text of the list with each hash (a collision only costs a second embedding). */
    std::unordered_map<uint64_t,
                       size_t,
                       std::hash<uint64_t>,
                       std::equal_to<uint64_t>,
                       XAllocator<std::pair<const uint64_t, size_t>>>
        earlier;
    for (size_t i = 0; i < count; i++) {
        uint64_t h = hash_of(texts[i]);
        int64_t slot = text_table_find(e, h, texts[i]);
        if (slot >= 0) {
            memcpy(out + i * dim, chunk_vector(e, slot), dim * sizeof(float));
            plan->source[i] = (int64_t)i; /* done */
            continue;
        }
        auto first = earlier.find(h);
        if (first != earlier.end() && strcmp(texts[first->second], texts[i]) == 0) {
            plan->source[i] = (int64_t)first->second;
            continue;
        }
        earlier.emplace(h, i);
        plan->fresh.push_back(texts[i]);
        plan->fresh_rows.push_back(i);
    }
    plan->vectors.resize(plan->fresh.size() * dim);
}

void distinct_finish(TrnEngine *e, const DistinctPlan *plan, float *out)
{
    const size_t dim = (size_t)e->dim;
    e->texts_embedded += plan->fresh.size();
    for (size_t f = 0; f < plan->fresh.size(); f++) {
        memcpy(
            out + plan->fresh_rows[f] * dim, plan->vectors.data() + f * dim, dim * sizeof(float));
    }
    for (size_t i = 0; i < plan->source.size(); i++) {
        if (plan->source[i] >= 0 && (size_t)plan->source[i] != i) {
            memcpy(out + i * dim, out + (size_t)plan->source[i] * dim, dim * sizeof(float));
        }
    }
}

void embed_distinct_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out)
{
    DistinctPlan plan;
    distinct_plan(e, texts, count, out, &plan);
    embed_chunks(e, plan.fresh.data(), plan.fresh.size(), plan.vectors.data());
    distinct_finish(e, &plan, out);
}

void embed_free_scratch(TrnEngine *e)
{
    free(e->text_table);
    e->text_table = nullptr;
    e->text_table_size = e->text_table_used = e->text_slots = 0;
    if (!e->embed_scratch) {
        return;
    }
    for (int32_t i = 1; i < EMBED_THREADS_MAX; i++) {
        scratch_free(e->embed_scratch[i]);
    }
    free(e->embed_scratch);
    e->embed_scratch = nullptr;
}
