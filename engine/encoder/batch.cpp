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
** A bag of words issues no products and is embedded text by text: each distinct token's row once,
** weighted by 1 + ln of how often the text holds it, so that a word repeated through a chunk (an
** identifier in code, the subject of a page) does not outweigh the rest of what it says.
*/
#include "internal.h"

#include <cmath>
#include <cstring>

namespace
{

constexpr int DIM = TRN_ENCODER_DIM;
constexpr int MAX_SEQ = TRN_ENCODER_MAX_SEQ;
constexpr int BAG_SLOT_BITS = 9; /* twice a text's most places: probes stay short */
constexpr int BAG_SLOTS = 1 << BAG_SLOT_BITS;
static_assert(BAG_SLOTS >= 2 * MAX_SEQ, "a bag of words' count table has room for every place");

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

/* Row id of a bag of words after the final norm: set up once (encoder_bag_row), or from the
** token embedding when the rows are not, as encoder_forward computes it. */
const float *bag_row(const TrnEncoder *enc, uint32_t id, float *tmp)
{
    if (enc->bag_rows) {
        return encoder_bag_row(enc, id, tmp);
    }
    memcpy(tmp, enc->tok_emb + (size_t)id * DIM, DIM * sizeof(float));
    encoder_final_norm(enc, tmp);
    return tmp;
}

} // namespace

/* With a tokenizer, no text yields no positions, and the pooled vector is then 0 * (1 / 0), NaN
** in every component. */
void encoder_embed(const TrnEncoder *enc, TrnScratch *ws, const char *text, float *out)
{
    uint32_t ids[MAX_SEQ];
    int n = tokens(enc, text, ids);
    if (n == 0 || !encoder_is_bag(enc)) {
        encoder_forward(enc, ws, ids, n, out, nullptr);
        return;
    }
    /* The rows encoder_forward would compute, in its order, a token held c times counted at its
    ** first place with 1 + ln c: a text whose tokens all differ gets encoder_forward's bits. Each
    ** place's token is counted in a table of BAG_SLOTS open slots, its count taken at its first
    ** place and cleared there, so its later places add nothing. */
    uint32_t key[BAG_SLOTS];
    uint16_t count[BAG_SLOTS] = {};
    uint16_t slot[MAX_SEQ];
    for (int i = 0; i < n; i++) {
        uint32_t s = (ids[i] * 2654435761u) >> (32 - BAG_SLOT_BITS);
        while (count[s] != 0 && key[s] != ids[i]) {
            s = (s + 1) & (BAG_SLOTS - 1);
        }
        key[s] = ids[i];
        count[s]++;
        slot[i] = (uint16_t)s;
    }
    memset(out, 0, DIM * sizeof(float));
    float tmp[DIM];
    for (int i = 0; i < n; i++) {
        const int held = count[slot[i]];
        if (held == 0) {
            continue;
        }
        count[slot[i]] = 0;
        const float *row = bag_row(enc, ids[i], tmp);
        if (held == 1) {
            vec_add(out, row, out, DIM);
        } else {
            const float weight = bag_count_weight(held);
            for (int d = 0; d < DIM; d++) {
                out[d] += weight * row[d];
            }
        }
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
    if (per_pass <= 1 || encoder_is_bag(enc)) {
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
