/*
** embed.cpp -- embeds many chunks at once on the processor's cores.
**
** embed_chunks hands the texts out one at a time from a shared counter to up to embed_threads
** workers (the calling thread and embed_threads - 1 threads started for the call), so long and
** short chunks balance by themselves. Each worker embeds with a scratch space of its own, kept in
** the handle between calls, and writes only its texts' rows of the output: a chunk's vector is the
** same bits whichever worker embeds it and however many there are. The weights are only read.
**
** OpenBLAS would start threads of its own inside every matrix product; with a worker per core
** that oversubscribes the cores, so the first handle sets OpenBLAS to one thread for the process
** (embed_threads_default) and the workers give the parallelism.
**
** Nothing else runs on the workers: they never touch the handle's chunks, graph or log, so the
** caller's serialisation of calls on one handle still covers everything.
*/
#include "internal.h"

#include <atomic>
#include <cblas.h>
#include <cstring>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace
{

constexpr int32_t EMBED_THREADS_MAX = 8;

struct EmbedJob {
    TrnEngine *e;
    const char *const *texts;
    size_t count;
    float *out;
    std::atomic<size_t> next;
};

struct EmbedWorker {
    EmbedJob *job;
    TrnScratch *scratch;
};

void embed_loop(EmbedJob *job, TrnScratch *scratch)
{
    const size_t dim = (size_t)job->e->dim;
    for (;;) {
        size_t i = job->next.fetch_add(1, std::memory_order_relaxed);
        if (i >= job->count) {
            return;
        }
        embed_chunk_with(job->e, scratch, job->texts[i], job->out + i * dim);
    }
}

void *embed_thread(void *arg)
{
    EmbedWorker *w = static_cast<EmbedWorker *>(arg);
    embed_loop(w->job, w->scratch);
    return nullptr;
}

/* Worker 0 is the calling thread and uses the encoder's own scratch, which searches use too. */
TrnScratch *worker_scratch(TrnEngine *e, int32_t i)
{
    if (i == 0) {
        if (!e->encoder.scratch) {
            e->encoder.scratch = scratch_new();
        }
        return e->encoder.scratch;
    }
    if (!e->embed_scratch) {
        e->embed_scratch =
            static_cast<TrnScratch **>(xcalloc(EMBED_THREADS_MAX, sizeof(TrnScratch *)));
    }
    if (!e->embed_scratch[i]) {
        e->embed_scratch[i] = scratch_new();
    }
    return e->embed_scratch[i];
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

void embed_chunk_with(TrnEngine *e, TrnScratch *scratch, const char *text, float *v)
{
    /* The encoder always writes 512 floats; a handle configured with another dim keeps the
    ** leading dim of them (zero-padded), so the slot is never overrun. */
    if (e->dim == TRN_ENCODER_DIM) {
        encoder_embed(&e->encoder, scratch, text, v);
    } else {
        float full[TRN_ENCODER_DIM];
        encoder_embed(&e->encoder, scratch, text, full);
        for (int32_t i = 0; i < e->dim; i++) {
            v[i] = i < TRN_ENCODER_DIM ? full[i] : 0.0f;
        }
    }
    vec_normalize(v, (size_t)e->dim);
}

void embed_chunk(TrnEngine *e, const char *text, float *v)
{
    embed_chunk_with(e, worker_scratch(e, 0), text, v);
}

void embed_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out)
{
    int32_t workers = e->embed_threads;
    if (workers > EMBED_THREADS_MAX) {
        workers = EMBED_THREADS_MAX;
    }
    if ((size_t)workers > count) {
        workers = (int32_t)count;
    }
    EmbedJob job;
    job.e = e;
    job.texts = texts;
    job.count = count;
    job.out = out;
    job.next.store(0, std::memory_order_relaxed);
    /* Scratch spaces are made here, on the calling thread, so an allocation failure ends the
    ** process from the thread that called the engine. */
    EmbedWorker helpers[EMBED_THREADS_MAX];
    pthread_t threads[EMBED_THREADS_MAX];
    int32_t started = 0;
    for (int32_t i = 1; i < workers; i++) {
        helpers[started].job = &job;
        helpers[started].scratch = worker_scratch(e, i);
        if (pthread_create(&threads[started], nullptr, embed_thread, &helpers[started]) != 0) {
            break; /* fewer workers: the calling thread embeds what no thread takes */
        }
        started++;
    }
    embed_loop(&job, worker_scratch(e, 0));
    for (int32_t i = 0; i < started; i++) {
        pthread_join(threads[i], nullptr);
    }
}

void embed_free_scratch(TrnEngine *e)
{
    if (!e->embed_scratch) {
        return;
    }
    for (int32_t i = 1; i < EMBED_THREADS_MAX; i++) {
        scratch_free(e->embed_scratch[i]);
    }
    free(e->embed_scratch);
    e->embed_scratch = nullptr;
}
