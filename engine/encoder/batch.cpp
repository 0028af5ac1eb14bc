/*
** batch.cpp -- from texts to vectors: a text's positions, and its vector alone or with other
** texts in one forward pass.
**
** A forward pass over one text issues each dense product (Q, K, V, the output projection, the
** feed-forward up and down) for that text's 2 to 256 rows, so the weights, about 25 MB, are read
*again
** for every text. encoder_embed_batch stacks the rows of up to ENCODER_BATCH texts and runs each
** dense product once over all of them; attention stays within each text and the pooling is per
** text. A text's vector has the same bits in any batch as alone (see dense in encoder.cpp), so
** the index, the reuse of vectors of equal texts and the tests do not depend on how texts were
** grouped.
**
** A bag of words issues no products and is embedded text by text.
*/
#include "internal.h"

#include <cmath>
#include <cstring>

namespace
{

constexpr int DIM = TRN_ENCODER_DIM;
constexpr int MAX_SEQ = TRN_ENCODER_MAX_SEQ;

/* The positions of text, its ids written to ids (MAX_SEQ of room). A NULL text counts as empty
** for byte-level input; with a tokenizer it yields no positions at all. */
int tokens(const TrnEncoder *enc, const char *text, uint32_t *ids)
{
    if (enc->bpe) {
        return trn_bpe_encode(enc->bpe, text, ids, MAX_SEQ);
    }
    int n = 0;
    ids[n++] = TRN_TOKEN_BEGIN;
    if (text) {
        const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
        while (*p && n < MAX_SEQ - 1) {
            ids[n++] = *p++;
        }
    }
    ids[n++] = TRN_TOKEN_END;
    return n;
}

} // namespace

/* With a tokenizer, no text yields no positions, and the pooled vector is then 0 * (1 / 0), NaN
** in every component. */
void encoder_embed(const TrnEncoder *enc, TrnScratch *ws, const char *text, float *out)
{
    uint32_t ids[MAX_SEQ];
    int n = tokens(enc, text, ids);
    if (!enc->bag_rows || n == 0) {
        encoder_forward(enc, ws, ids, n, out, nullptr);
        return;
    }
    /* encoder_forward's pooling over the rows it would have computed, in the same order. */
    memset(out, 0, DIM * sizeof(float));
    float tmp[DIM];
    for (int i = 0; i < n; i++) {
        vec_add(out, encoder_bag_row(enc, ids[i], tmp), out, DIM);
    }
    vec_smul(out, 1.0f / (float)n, out, DIM);
    float norm = sqrtf(vec_sumsq(out, DIM));
    if (norm > 1e-12f) {
        vec_smul(out, 1.0f / norm, out, DIM);
    }
}

void encoder_embed_batch(const TrnEncoder *enc, TrnScratch *ws, const char *const *texts,
                         size_t count, float *out)
{
    int per_pass = scratch_sequences(ws);
    if (enc->bag_rows || per_pass <= 1) {
        for (size_t s = 0; s < count; s++) {
            encoder_embed(enc, ws, texts[s], out + s * DIM);
        }
        return;
    }
    per_pass = per_pass < ENCODER_BATCH ? per_pass : ENCODER_BATCH;
    uint32_t ids[ENCODER_BATCH * MAX_SEQ];
    int lens[ENCODER_BATCH];
    for (size_t first = 0; first < count; first += (size_t)per_pass) {
        const int group = count - first < (size_t)per_pass ? (int)(count - first) : per_pass;
        int rows = 0;
        for (int s = 0; s < group; s++) {
            lens[s] = tokens(enc, texts[first + s], ids + rows);
            rows += lens[s];
        }
        encoder_forward_batch(enc, ws, ids, lens, group, out + first * DIM, nullptr);
    }
}

extern "C" {

void trn_encoder_embed_text(TrnEncoder *enc, const char *text, float *out)
{
    if (!enc->scratch) {
        enc->scratch = scratch_new();
    }
    encoder_embed(enc, enc->scratch, text, out);
}

} // extern "C"
