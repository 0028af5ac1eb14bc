/*
** embed.h -- embedding many chunks at once on the processor's cores (embed.cpp).
*/
#ifndef TRN_EMBED_H
#define TRN_EMBED_H

#include "tarnwick.h"

#include "encoder/encoder.h"

#include <cstddef>
#include <cstdint>

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
