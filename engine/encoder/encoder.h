/*
** encoder.h -- the tokenizer's and the encoder's records and the one forward pass (bpe.cpp,
** encoder.cpp, weights.cpp): opaque to everything but the engine, its tests, the benchmarks and
** the trainers, which train these records in place.
*/
#ifndef TRN_ENCODER_H
#define TRN_ENCODER_H

#include "tarnwick.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

struct BpeRanks;

struct TrnBpe {
    uint32_t (*merges)[2]; /* n_merges pairs (left, right) in the order they were learned; owned */
    uint32_t n_merges;
    uint32_t vocab_size; /* always n_merges + 260 */
    BpeRanks *ranks;     /* each pair's merge, for encoding; owned; made by training and reading,
                         ** NULL in a record made by hand (encoding then makes one per call) */
};

/* One transformer layer; every array is owned by the encoder. */
struct TrnEncoderLayer {
    float *wq, *wk, *wv, *wo; /* 512 x 512 projections, no bias */
    float *w1, *b1;           /* 512 x 2048 up projection and its bias */
    float *w2, *b2;           /* 2048 x 512 down projection and its bias */
    float *ln1_gamma, *ln1_beta, *ln2_gamma, *ln2_beta; /* 512 each */
};

struct TrnScratch;

struct TrnEncoder {
    uint32_t vocab_size;           /* rows of tok_emb: 260, or the tokenizer's vocabulary size */
    TrnBpe *bpe;                   /* owned tokenizer, or NULL for byte-level input */
    float *tok_emb;                /* vocab_size x 512 */
    float *pos_emb;                /* 256 x 512 */
    float *ln_f_gamma, *ln_f_beta; /* 512 each */
    TrnEncoderLayer layers[TRN_ENCODER_LAYERS];
    TrnScratch *scratch; /* owned buffers of trn_encoder_embed_text; NULL until the first */
    float *bag_rows;     /* vocab_size x 512 when encoder_prepare_bag found a bag of words; after
                         ** encoder_prepare_bag_only, tok_emb, pos_emb and the layers are NULL */
    /* Set by encoder_init_bag_file, else NULL: the token rows in half precision as the file holds
    ** them, and each row's state (0 not yet in bag_rows, 1 being written there, 2 there), read
    ** and written atomically. Each row of bag_rows is filled at its first use (encoder_bag_row). */
    uint16_t *bag_half;
    uint8_t *bag_state;
    /* Whether the weights are a bag of words, found at the first embedding (encoder_is_bag) and
    ** forgotten with the rows (encoder_drop_bag): 0 not known yet, 1 a bag, -1 not. */
    int8_t bag_shape;
};

/* In-place forms of trn_encoder_init, trn_encoder_init_bpe and trn_encoder_free, for an encoder
** held by value (the engine handle's, the tests'): encoder_release frees what the record owns
** and zeroes it, but not the record. */
void encoder_init(TrnEncoder *enc, uint32_t seed);
/* As encoder_init, with the tensors allocated but not drawn: for a weights file to fill. */
void encoder_init_undrawn(TrnEncoder *enc);
void encoder_init_bpe(TrnEncoder *enc, uint32_t seed, TrnBpe *bpe);
void encoder_release(TrnEncoder *enc);

/* When enc is a bag of words (zero position embeddings and zero layer outputs: wo, w2 and b2,
** what "trainer --idf" starts from and its bag training keeps), every token's row after the final
** norm does not depend on its neighbours: computes those rows once, so that encoder_embed sums
** them (each distinct token's once, weighing 1 + ln of its count) instead of running the layers:
** a text whose tokens all differ gets the layers' bits. Returns whether it did. Call it after
** loading weights into an encoder that nothing trains afterwards (the engine's). */
bool encoder_prepare_bag(TrnEncoder *enc);
/* As encoder_prepare_bag for an encoder that only embeds from now on (the engine's): the rows
** take the token embedding's place, and the position embedding and the layers, which a bag of
** words never reads, are freed, so a large vocabulary is held once. Saving or training it
** afterwards is not possible; loading a weights file into it draws its tensors anew first. */
bool encoder_prepare_bag_only(TrnEncoder *enc);
/* encoder_init_undrawn, trn_encoder_load_weights and encoder_prepare_bag_only at once, at the cost
** of what is embedded: for a version 4 file of a bag of words whose token embedding is in half
** precision, passes every check trn_encoder_load_weights makes, then keeps the token rows as
** they are in the file and puts each through the final norm at its first use (the same bits).
** Returns false, quietly and with enc untouched, for any other file and for one a check refuses:
** the caller then loads it as before, which says why. enc's record is overwritten. */
bool encoder_init_bag_file(TrnEncoder *enc, const char *path);
/* Row id of a bag of words' rows: bag_rows' row, filled first from bag_half when it is not
** yet. tmp (512 floats) holds the row when another thread is filling it; the result points into
** bag_rows or at tmp. Safe from any number of threads at once. */
const float *encoder_bag_row(const TrnEncoder *enc, uint32_t id, float *tmp);
/* What a bag of words weighs a token by that a text holds count times (count >= 1): 1 + ln count,
** as keyword ranking saturates a repeated word; the engine embeds and the bag trainer trains
** with it. */
inline float bag_count_weight(int count)
{
    return 1.0f + logf((float)count);
}
/* Whether enc embeds as a bag of words (encoder_embed): it has bag_rows, or its position
** embeddings and layer outputs are zero, which is looked at once (safe from any number of threads
** at once). Weights changed in place afterwards are seen after encoder_drop_bag. */
bool encoder_is_bag(const TrnEncoder *enc);
/* Frees what a bag of words holds beside the tensors (bag_rows, bag_half, bag_state) and forgets
** whether the weights are one. */
void encoder_drop_bag(TrnEncoder *enc);
/* Row through the final norm, in place (as the forward pass normalises each position). */
void encoder_final_norm(const TrnEncoder *enc, float *row);
/* A half precision value widened to float32, exactly. */
float half_to_float(uint16_t h);
/* The weights file's version 4 storage tags (weights.cpp) and the bound every value lies within;
** read by the full loader and by encoder_init_bag_file alike. */
constexpr uint32_t WEIGHTS_TAG_F32 = 0;
constexpr uint32_t WEIGHTS_TAG_F16 = 1;
constexpr uint32_t WEIGHTS_TAG_ZERO = 2;
constexpr float WEIGHT_ABS_MAX = 1e4f;

/* ---------------------------------------------------------------------------------------------
** Encoder internals (encoder.cpp)
*/
/* n floats, or "tarnwick: OOM (%zu bytes)" and exit(1). */
float *encoder_alloc_floats(size_t n);
/* The most texts one forward pass stacks (encoder_embed_batch): 4 x 256 rows at most. */
constexpr int ENCODER_BATCH = 4;
/* The buffers of one embedding (encoder.cpp), about 4 MB. One scratch serves one embedding at a
** time; embeddings with different scratches may run at once on the same encoder. */
TrnScratch *scratch_new(void);
/* As scratch_new, with room for a forward pass over up to sequences texts (about 4 MB each). */
TrnScratch *scratch_new_batch(int sequences);
int scratch_sequences(const TrnScratch *ws); /* what it was made for; 0 for NULL */
void scratch_free(TrnScratch *ws);           /* NULL is ignored */
/* trn_encoder_embed_text with the given scratch: reads enc, writes ws and the 512 floats of out. */
void encoder_embed(const TrnEncoder *enc, TrnScratch *ws, const char *text, float *out);
/* encoder_embed of count texts into out (count x 512 floats), as many at a time in one forward
** pass as ws holds (up to ENCODER_BATCH): each vector the same bits as encoder_embed gives. */
void encoder_embed_batch(const TrnEncoder *enc, TrnScratch *ws, const char *const *texts,
                         size_t count, float *out);

/* Where encoder_forward copies the activations of one sequence of n positions, for a backward
** pass (trainers/model.cpp). Rows are 512 floats (2048 for h and g) for each of the n positions;
** the per-row norm values are one float per position. Every pointer must be set. */
struct TrnForwardSave {
    float *x[TRN_ENCODER_LAYERS + 1]; /* residual entering layer l; [2] enters the final norm */
    float *ln1_mean[TRN_ENCODER_LAYERS], *ln1_rstd[TRN_ENCODER_LAYERS]; /* 1 / sqrt(var + eps) */
    float *a[TRN_ENCODER_LAYERS];                                       /* first norm's output */
    float *q[TRN_ENCODER_LAYERS], *k[TRN_ENCODER_LAYERS], *v[TRN_ENCODER_LAYERS];
    float *probs[TRN_ENCODER_LAYERS]; /* 8 blocks of n x n softmax rows, head after head */
    float *ctx[TRN_ENCODER_LAYERS];   /* concatenated head outputs */
    float *mid[TRN_ENCODER_LAYERS];   /* residual after attention */
    float *ln2_mean[TRN_ENCODER_LAYERS], *ln2_rstd[TRN_ENCODER_LAYERS];
    float *b[TRN_ENCODER_LAYERS];                         /* second norm's output */
    float *h[TRN_ENCODER_LAYERS], *g[TRN_ENCODER_LAYERS]; /* before and after GELU */
    float *lnf_mean, *lnf_rstd, *y;                       /* final norm and its output */
    float *pooled; /* 512: the mean of y's rows, before normalisation */
    float *norm;   /* 1: the length of pooled */
};
/* The forward pass over n (1 to 256) token ids: writes the unit vector to out (512 floats), and
** the activations to save when it is not NULL. The one forward pass of the engine and the
** trainer; the same bits with or without save. */
void encoder_forward(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids, int n, float *out,
                     TrnForwardSave *save);
/* The forward pass over count texts at once (ws made for at least count): ids holds their ids one
** text after another, lens[s] (0 to 256) the positions of text s; writes text s's vector to out
** + 512 s, the bits encoder_forward gives it alone. save needs count 1. */
void encoder_forward_batch(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids,
                           const int *lens, int count, float *out, TrnForwardSave *save);
/* One matrix product, C (m x n) = op(A) (m x k) op(B) (k x n), as a pass issues it. */
struct GemmShape {
    bool trans_a, trans_b;
    int m, n, k;
};
/* The feed-forward hidden units one pair of products covers (encoder.cpp). */
constexpr int ENCODER_FF_BLOCK = 512;
/* The products encoder_forward issues for one sequence. */
constexpr int FORWARD_PRODUCTS =
    TRN_ENCODER_LAYERS * (4 + 2 * TRN_ENCODER_FF / ENCODER_FF_BLOCK + 2 * TRN_ENCODER_HEADS);
/* The products encoder_forward issues for one sequence of n positions, in its order (the dense
** ones over 8 rows at least): writes FORWARD_PRODUCTS shapes to out. What the trainer counts and
** the benchmarks replay. */
void encoder_forward_shapes(int n, GemmShape *out);
/* Draws every tensor afresh from seed, as trn_encoder_init does, keeping the tokenizer and the
** vocabulary size. */
void encoder_redraw(TrnEncoder *enc, uint32_t seed);

#endif /* TRN_ENCODER_H */
