/*
** embed.h -- embedding many chunks at once on the processor's cores (embed.cpp).
*/
#ifndef TRN_EMBED_H
#define TRN_EMBED_H

#include "tarnwick.h"

#include "alloc.h"
#include "encoder/encoder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/* Embeds text into v (dim floats) and normalises it, as add_doc_mem does, on the calling thread
** with the encoder's own scratch. */
void embed_chunk(TrnEngine *e, const char *text, float *v);
/* As embed_chunk with the given scratch; only reads the handle. */
void embed_chunk_with(TrnEngine *e, TrnScratch *scratch, const char *text, float *v);
/* As embed_chunk_with for count texts (at most ENCODER_BATCH) into v (count x dim floats), as
** many in one forward pass as scratch holds. */
void embed_batch_with(TrnEngine *e, TrnScratch *scratch, const char *const *texts, size_t count,
                      float *v);
/* Embeds count texts into out (count x dim floats, row i for text i) as embed_chunk does, on up
** to e->embed_threads threads; the same bits as embedding them one after another. */
void embed_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out);
/* embed_chunks in two steps: embed_start starts e->embed_threads - 1 threads on the texts and
** returns, so that the calling thread may work on the handle meanwhile (the threads read only the
** encoder and write only out); embed_finish embeds on the calling thread what no thread took yet,
** waits for the threads and frees the run. Until then nothing may embed through e (the threads
** use its scratch spaces), change its encoder, or free texts or out. */
struct EmbedRun;
EmbedRun *embed_start(TrnEngine *e, const char *const *texts, size_t count, float *out);
void embed_finish(EmbedRun *run);
/* The same workers for other work: work_start starts threads that call each(arg, item) for
** item 0 to count - 1, each item once, about in order, and returns. With caller_helps the calling
** thread takes items too in work_finish, and e->embed_threads - 1 threads are started; without,
** it only waits there, and as many threads are started as there are workers, so that the work
** keeps every core busy while the calling thread does its own (the items are all done either way:
** with no helper started, the calling thread does them). work_finish waits for the threads and
** frees the run. each must not touch the handle, unless each item has a part of it to itself
** (hnsw_insert_many: a part of the graph each). */
EmbedRun *work_start(const TrnEngine *e, size_t count, void (*each)(void *arg, size_t item),
                     void *arg, bool caller_helps);
void work_finish(EmbedRun *run);
/* The texts of a list that embed_distinct_chunks must embed (fresh, to be embedded into vectors,
** one row each) and, for each of the others, where its vector comes from (source: its own index
** when copied from the handle already, else an earlier text of the list; -1 for a fresh one). */
struct DistinctPlan {
    std::vector<int64_t, XAllocator<int64_t>> source;
    std::vector<const char *, XAllocator<const char *>> fresh;
    std::vector<size_t, XAllocator<size_t>> fresh_rows;
    std::vector<float, XAllocator<float>> vectors;
};
/* embed_distinct_chunks in steps: distinct_plan copies into out the vectors the handle already
** holds for equal texts and lists the rest; once plan->vectors holds the fresh texts' vectors
** (embed_chunks, or embed_start and embed_finish), distinct_finish fills the rest of out. */
void distinct_plan(TrnEngine *e, const char *const *texts, size_t count, float *out,
                   DistinctPlan *plan);
void distinct_finish(TrnEngine *e, const DistinctPlan *plan, float *out);
/* As embed_chunks, each distinct text once: a text equal to a live chunk's of the handle, or to
** an earlier one of texts, gets a copy of that vector (the bits embedding it again would give). */
void embed_distinct_chunks(TrnEngine *e, const char *const *texts, size_t count, float *out);
/* The number of embedding workers a new handle gets: the cores this process may run on, at most
** 8. The first call sets OpenBLAS to one thread for the process. */
int32_t embed_threads_default(void);
/* Frees the workers' scratch spaces (the encoder's own one goes with the encoder) and the table
** of chunk texts. */
void embed_free_scratch(TrnEngine *e);

#endif /* TRN_EMBED_H */
