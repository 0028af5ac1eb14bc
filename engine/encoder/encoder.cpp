/*
** encoder.cpp -- the text encoder: a fixed-shape transformer that maps a text to a unit vector.
**
** Shape: width 512, 8 heads of 64, feed-forward 2048 with GELU, 2 pre-norm layers, at most 256
** positions. Input ids are bytes (0-255) framed by 257 and 258, or the ids of the optional
** byte-pair tokenizer (bpe.cpp). Each layer computes
**     x += (softmax(0.125 * Q K^T) V) Wo      with Q, K, V = layernorm1(x) Wq, Wk, Wv
**     x += gelu(layernorm2(x) W1 + b1) W2 + b2
** per head, without a mask. A final layer norm, the mean over all positions (begin and end tokens
** included) and L2 normalisation give the 512-float result. Matrices are row-major and stored
** [inputs][outputs], so a row vector times the matrix is the projection.
**
** Random initialisation draws every value from one xorshift32 generator (x ^= x << 13;
** x ^= x >> 17; x ^= x << 5) as ((x % 10000) / 10000 - 0.5) * 0.04, in the order token
** embedding, position embedding, then per layer wq, wk, wv, wo, w1, b1, w2, b2; norm scales start
** at 1 and shifts at 0. The generator state carries on from array to array, so a seed reproduces
** the weights bit for bit.
**
** Nothing here is process-wide. Every buffer of an embedding lives in a TrnScratch (sized for 256
** positions of each text a pass stacks, batch.cpp); an encoder owns one, created by its first
** trn_encoder_embed_text, and the engine's embedding workers each own another (embed.cpp), so any
** number of embeddings run at once as long as no two share a scratch. The weights are only read
** while embedding. With its scratch in place an embedding allocates nothing. The initialiser's
** generator state is a local of init_common.
**
** An allocation failure prints "tarnwick: OOM (<bytes> bytes)" and ends the process with status 1.
*/
#include "internal.h"

#include <atomic>
#include <cmath>
#include <cstring>

/* Every buffer of one embedding of up to `sequences` texts at once, MAX_SEQ positions each. */
struct TrnScratch {
    int sequences; /* texts one forward pass may stack; rows = sequences x MAX_SEQ */
    float *x;      /* residual stream, rows x DIM */
    float *xn;     /* normalised copy of x, rows x DIM */
    float *q;      /* rows x DIM */
    float *k;      /* rows x DIM */
    float *v;      /* rows x DIM */
    float *heads;  /* concatenated head outputs, rows x DIM */
    float *hidden; /* one block of the feed-forward hidden units, rows x FF_BLOCK */
    float *scores; /* attention scores of one text, n x n with row stride n */
};

namespace
{

constexpr int DIM = TRN_ENCODER_DIM;
constexpr int HEADS = TRN_ENCODER_HEADS;
constexpr int HEAD_DIM = TRN_ENCODER_HEAD_DIM;
constexpr int FF = TRN_ENCODER_FF;
constexpr int FF_BLOCK = ENCODER_FF_BLOCK;
constexpr int MAX_SEQ = TRN_ENCODER_MAX_SEQ;
constexpr float ATTN_SCALE = 0.125f; /* 1 / sqrt(HEAD_DIM) */
constexpr float LN_EPS = 1e-5f;
constexpr char ENCODER_OOM[] = "tarnwick: OOM (%zu bytes)\n";
constexpr int DENSE_MIN_ROWS = 8;

void *encoder_alloc(size_t bytes)
{
    void *p = alloc_should_fail() ? nullptr : malloc(bytes ? bytes : 1);
    if (!p) {
        oom_abort_sized(ENCODER_OOM, bytes);
    }
    return p;
}

float rng_draw(uint32_t *state)
{
    uint32_t x = *state;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    *state = x;
    return ((float)(x % 10000) / 10000.0f - 0.5f) * 0.04f;
}

/* n floats drawn from state; left undrawn without one. */
float *random_floats(size_t n, uint32_t *state)
{
    float *p = encoder_alloc_floats(n);
    for (size_t i = 0; state && i < n; i++) {
        p[i] = rng_draw(state);
    }
    return p;
}

float *filled_floats(size_t n, float value)
{
    float *p = encoder_alloc_floats(n);
    for (size_t i = 0; i < n; i++) {
        p[i] = value;
    }
    return p;
}

void init_layer(TrnEncoderLayer *layer, uint32_t *state)
{
    layer->wq = random_floats((size_t)DIM * DIM, state);
    layer->wk = random_floats((size_t)DIM * DIM, state);
    layer->wv = random_floats((size_t)DIM * DIM, state);
    layer->wo = random_floats((size_t)DIM * DIM, state);
    layer->w1 = random_floats((size_t)DIM * FF, state);
    layer->b1 = random_floats(FF, state);
    layer->w2 = random_floats((size_t)FF * DIM, state);
    layer->b2 = random_floats(DIM, state);
    layer->ln1_gamma = filled_floats(DIM, 1.0f);
    layer->ln1_beta = filled_floats(DIM, 0.0f);
    layer->ln2_gamma = filled_floats(DIM, 1.0f);
    layer->ln2_beta = filled_floats(DIM, 0.0f);
}

void free_layer(TrnEncoderLayer *layer)
{
    float *arrays[] = {layer->wq,
                       layer->wk,
                       layer->wv,
                       layer->wo,
                       layer->w1,
                       layer->b1,
                       layer->w2,
                       layer->b2,
                       layer->ln1_gamma,
                       layer->ln1_beta,
                       layer->ln2_gamma,
                       layer->ln2_beta};
    for (float *a : arrays) {
        free(a);
    }
}

/* Allocates every tensor, drawing them from seed when draw is set. */
void init_common(TrnEncoder *enc, uint32_t seed, bool draw = true)
{
    uint32_t seeded = seed ? seed : 1;
    uint32_t *state = draw ? &seeded : nullptr;
    enc->tok_emb = random_floats((size_t)enc->vocab_size * DIM, state);
    enc->pos_emb = random_floats((size_t)MAX_SEQ * DIM, state);
    enc->ln_f_gamma = filled_floats(DIM, 1.0f);
    enc->ln_f_beta = filled_floats(DIM, 0.0f);
    for (TrnEncoderLayer &layer : enc->layers) {
        init_layer(&layer, state);
    }
}

/* out = (x - mean) / sqrt(var + 1e-5) * gamma + beta over one 512-float row (out may be x); the
** variance is E[x^2] - mean^2, clamped at 0 against rounding. */
void layernorm(const float *x, const float *gamma, const float *beta, float *out,
               float *mean_out = nullptr, float *rstd_out = nullptr)
{
    float mean = vec_mean(x, DIM);
    float var = vec_meansq(x, DIM) - mean * mean;
    if (var < 0.0f) {
        var = 0.0f;
    }
    float inv = 1.0f / sqrtf(var + LN_EPS);
    if (mean_out) {
        *mean_out = mean;
        *rstd_out = inv;
    }
    vec_norm_affine(x, mean, inv, gamma, beta, out, DIM);
}

void softmax_row(float *row, int n)
{
    float sum = vec_exp_sum(row, vec_max(row, (size_t)n), (size_t)n);
    float scale = sum > 0.0f ? 1.0f / sum : 1.0f;
    vec_smul(row, scale, row, (size_t)n);
}

/* Copies rows x width floats when the copy is wanted (dst not NULL). */
void save_rows(float *dst, const float *src, int rows, int width)
{
    if (dst) {
        memcpy(dst, src, (size_t)rows * width * sizeof(float));
    }
}

/* Layer-normalises copies of the first n rows of the residual stream into xn with the first or
** the second norm of a layer, saving each row's mean and reciprocal deviation in the l-th slots
** of save when save is not NULL. */
void norm_rows(TrnScratch *ws, int n, const float *gamma, const float *beta,
               const TrnForwardSave *save, int l, bool second)
{
    float *mean = save ? (second ? save->ln2_mean[l] : save->ln1_mean[l]) : nullptr;
    float *rstd = save ? (second ? save->ln2_rstd[l] : save->ln1_rstd[l]) : nullptr;
    for (int i = 0; i < n; i++) {
        layernorm(ws->x + (size_t)i * DIM,
                  gamma,
                  beta,
                  ws->xn + (size_t)i * DIM,
                  mean ? mean + i : nullptr,
                  rstd ? rstd + i : nullptr);
    }
}

/* c (rows x n, row stride ldc) = a (rows x k) w (k x n, row stride ldw), or c += that product
** when add is set: one dense step over every stacked row of a batch. A text's vector must not
** depend on the batch it came in, so a row's product must not depend on how many rows share it.
** OpenBLAS 0.3.21 gives each row the same bits for any row count from 4 up, but below that it
** takes another kernel for the 512 x 512 products whose sums round differently; fewer than
** DENSE_MIN_ROWS rows (8, a margin above that) are therefore run as that many, with the added
** rows of a (and of c when adding) zeroed. */
void dense(float *a, int rows, int k, const float *w, int ldw, int n, float *c, int ldc, bool add)
{
    if (rows < DENSE_MIN_ROWS) {
        for (int i = rows; i < DENSE_MIN_ROWS; i++) {
            memset(a + (size_t)i * k, 0, (size_t)k * sizeof(float));
            if (add) {
                memset(c + (size_t)i * ldc, 0, (size_t)n * sizeof(float));
            }
        }
        rows = DENSE_MIN_ROWS;
    }
    sgemm(false, false, rows, n, k, 1.0f, a, k, w, ldw, add ? 1.0f : 0.0f, c, ldc);
}

/* The attention of one text of n >= 1 positions whose rows start at row `at`: writes its rows of
** heads, and its softmax rows, head after head, to probs when that is not NULL. */
void attend(TrnScratch *ws, int at, int n, float *probs)
{
    const size_t row0 = (size_t)at * DIM;
    for (int h = 0; h < HEADS; h++) {
        size_t col = row0 + (size_t)h * HEAD_DIM;
        sgemm(false,
              true,
              n,
              n,
              HEAD_DIM,
              ATTN_SCALE,
              ws->q + col,
              DIM,
              ws->k + col,
              DIM,
              0.0f,
              ws->scores,
              n);
        for (int i = 0; i < n; i++) {
            softmax_row(ws->scores + (size_t)i * n, n);
        }
        if (probs) {
            save_rows(probs + (size_t)h * n * n, ws->scores, n, n);
        }
        sgemm(false,
              false,
              n,
              HEAD_DIM,
              n,
              1.0f,
              ws->scores,
              n,
              ws->v + col,
              DIM,
              0.0f,
              ws->heads + col,
              DIM);
    }
}

/* One pre-norm transformer layer over count texts stacked in the residual stream (lens[s] rows
** each, rows in all): the dense steps run once over every row, attention within each text. Saves
** the activations into the l-th slots of save when save is not NULL (one text only). */
void layer_forward(TrnScratch *ws, const TrnEncoderLayer *layer, const int *lens, int count,
                   int rows, TrnForwardSave *save, int l)
{
    if (save) {
        save_rows(save->x[l], ws->x, rows, DIM);
    }
    norm_rows(ws, rows, layer->ln1_gamma, layer->ln1_beta, save, l, false);
    dense(ws->xn, rows, DIM, layer->wq, DIM, DIM, ws->q, DIM, false);
    dense(ws->xn, rows, DIM, layer->wk, DIM, DIM, ws->k, DIM, false);
    dense(ws->xn, rows, DIM, layer->wv, DIM, DIM, ws->v, DIM, false);
    if (save) {
        save_rows(save->a[l], ws->xn, rows, DIM);
        save_rows(save->q[l], ws->q, rows, DIM);
        save_rows(save->k[l], ws->k, rows, DIM);
        save_rows(save->v[l], ws->v, rows, DIM);
    }
    for (int s = 0, at = 0; s < count; at += lens[s], s++) {
        if (lens[s] > 0) {
            attend(ws, at, lens[s], save ? save->probs[l] : nullptr);
        }
    }
    dense(ws->heads, rows, DIM, layer->wo, DIM, DIM, ws->x, DIM, true);
    if (save) {
        save_rows(save->ctx[l], ws->heads, rows, DIM);
        save_rows(save->mid[l], ws->x, rows, DIM);
    }

    /* The feed-forward step a block of FF_BLOCK hidden units at a time, so that the hidden rows
    ** stay in cache between the two products and GELU; each block's down product is added to the
    ** residual stream. */
    norm_rows(ws, rows, layer->ln2_gamma, layer->ln2_beta, save, l, true);
    if (save) {
        save_rows(save->b[l], ws->xn, rows, DIM);
    }
    for (int j = 0; j < FF; j += FF_BLOCK) {
        dense(ws->xn, rows, DIM, layer->w1 + j, FF, FF_BLOCK, ws->hidden, FF_BLOCK, false);
        for (int i = 0; i < rows; i++) {
            float *row = ws->hidden + (size_t)i * FF_BLOCK;
            if (save) {
                vec_add(row, layer->b1 + j, save->h[l] + (size_t)i * FF + j, FF_BLOCK);
            }
            vec_bias_gelu(row, layer->b1 + j, FF_BLOCK);
            if (save) {
                memcpy(save->g[l] + (size_t)i * FF + j, row, FF_BLOCK * sizeof(float));
            }
        }
        dense(ws->hidden, rows, FF_BLOCK, layer->w2 + (size_t)j * DIM, DIM, DIM, ws->x, DIM, true);
    }
    for (int i = 0; i < rows; i++) {
        float *row = ws->x + (size_t)i * DIM;
        vec_add(row, layer->b2, row, DIM);
    }
}

/* The unit vector of one text from its n rows after the final norm, as encoder_forward's result:
** the mean of the rows, then L2 normalisation. */
void pool(const float *y, int n, float *out, TrnForwardSave *save)
{
    memset(out, 0, DIM * sizeof(float));
    for (int i = 0; i < n; i++) {
        vec_add(out, y + (size_t)i * DIM, out, DIM);
    }
    vec_smul(out, 1.0f / (float)n, out, DIM);

    float norm = sqrtf(vec_sumsq(out, DIM));
    if (save) {
        save_rows(save->pooled, out, 1, DIM);
        *save->norm = norm;
    }
    if (norm > 1e-12f) {
        vec_smul(out, 1.0f / norm, out, DIM);
    }
}

} // namespace

TrnScratch *scratch_new_batch(int sequences)
{
    TrnScratch *ws = static_cast<TrnScratch *>(encoder_alloc(sizeof(TrnScratch)));
    ws->sequences = sequences;
    const size_t rows = (size_t)sequences * MAX_SEQ;
    ws->x = encoder_alloc_floats(rows * DIM);
    ws->xn = encoder_alloc_floats(rows * DIM);
    ws->q = encoder_alloc_floats(rows * DIM);
    ws->k = encoder_alloc_floats(rows * DIM);
    ws->v = encoder_alloc_floats(rows * DIM);
    ws->heads = encoder_alloc_floats(rows * DIM);
    ws->hidden = encoder_alloc_floats(rows * FF_BLOCK);
    ws->scores = encoder_alloc_floats((size_t)MAX_SEQ * MAX_SEQ);
    return ws;
}

TrnScratch *scratch_new(void)
{
    return scratch_new_batch(1);
}

int scratch_sequences(const TrnScratch *ws)
{
    return ws ? ws->sequences : 0;
}

void scratch_free(TrnScratch *ws)
{
    if (!ws) {
        return;
    }
    float *buffers[] = {ws->x, ws->xn, ws->q, ws->k, ws->v, ws->heads, ws->hidden, ws->scores};
    for (float *b : buffers) {
        free(b);
    }
    free(ws);
}

float *encoder_alloc_floats(size_t n)
{
    if (n > SIZE_MAX / sizeof(float)) {
        oom_abort_sized(ENCODER_OOM, SIZE_MAX);
    }
    return static_cast<float *>(encoder_alloc(n * sizeof(float)));
}

void encoder_drop_bag(TrnEncoder *enc)
{
    free(enc->bag_rows);
    free(enc->bag_half);
    free(enc->bag_state);
    enc->bag_rows = nullptr;
    enc->bag_half = nullptr;
    enc->bag_state = nullptr;
    enc->bag_shape = 0;
}

void encoder_final_norm(const TrnEncoder *enc, float *row)
{
    layernorm(row, enc->ln_f_gamma, enc->ln_f_beta, row);
}

void encoder_redraw(TrnEncoder *enc, uint32_t seed)
{
    encoder_drop_bag(enc);
    free(enc->tok_emb);
    free(enc->pos_emb);
    free(enc->ln_f_gamma);
    free(enc->ln_f_beta);
    for (TrnEncoderLayer &layer : enc->layers) {
        free_layer(&layer);
    }
    init_common(enc, seed);
}

void encoder_forward_shapes(int n, GemmShape *out)
{
    const int rows = n < DENSE_MIN_ROWS ? DENSE_MIN_ROWS : n; /* as dense issues them */
    int at = 0;
    for (int l = 0; l < TRN_ENCODER_LAYERS; l++) {
        for (int p = 0; p < 3; p++) {
            out[at++] = GemmShape{false, false, rows, DIM, DIM}; /* Q, K, V */
        }
        for (int h = 0; h < TRN_ENCODER_HEADS; h++) {
            out[at++] = GemmShape{false, true, n, n, HEAD_DIM};  /* scores */
            out[at++] = GemmShape{false, false, n, HEAD_DIM, n}; /* scores x V */
        }
        out[at++] = GemmShape{false, false, rows, DIM, DIM}; /* output projection */
        for (int j = 0; j < FF; j += FF_BLOCK) {
            out[at++] = GemmShape{false, false, rows, FF_BLOCK, DIM}; /* up, one block */
            out[at++] = GemmShape{false, false, rows, DIM, FF_BLOCK}; /* down, one block */
        }
    }
}

void encoder_forward_batch(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids,
                           const int *lens, int count, float *out, TrnForwardSave *save)
{
    int rows = 0;
    for (int s = 0; s < count; s++) {
        for (int i = 0; i < lens[s]; i++, rows++) {
            vec_add(enc->tok_emb + (size_t)ids[rows] * DIM,
                    enc->pos_emb + (size_t)i * DIM,
                    ws->x + (size_t)rows * DIM,
                    DIM);
        }
    }
    if (rows > 0) {
        for (int l = 0; l < TRN_ENCODER_LAYERS; l++) {
            layer_forward(ws, &enc->layers[l], lens, count, rows, save, l);
        }
    }
    if (save) {
        save_rows(save->x[TRN_ENCODER_LAYERS], ws->x, rows, DIM);
    }
    for (int i = 0; i < rows; i++) {
        layernorm(ws->x + (size_t)i * DIM,
                  enc->ln_f_gamma,
                  enc->ln_f_beta,
                  ws->x + (size_t)i * DIM,
                  save ? save->lnf_mean + i : nullptr,
                  save ? save->lnf_rstd + i : nullptr);
    }
    if (save) {
        save_rows(save->y, ws->x, rows, DIM);
    }
    for (int s = 0, at = 0; s < count; at += lens[s], s++) {
        pool(ws->x + (size_t)at * DIM, lens[s], out + (size_t)s * DIM, save);
    }
}

void encoder_forward(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids, int n, float *out,
                     TrnForwardSave *save)
{
    encoder_forward_batch(enc, ws, ids, &n, 1, out, save);
}

namespace
{

/* Zero position embeddings and zero layer outputs: see encoder_prepare_bag. */
bool is_bag(const TrnEncoder *enc)
{
    const auto zero = [](const float *x, size_t n) {
        for (size_t i = 0; i < n; i++) {
            if (x[i] != 0.0f) {
                return false;
            }
        }
        return true;
    };
    bool bag = zero(enc->pos_emb, (size_t)MAX_SEQ * DIM);
    for (const TrnEncoderLayer &l : enc->layers) {
        bag =
            bag && zero(l.wo, (size_t)DIM * DIM) && zero(l.w2, (size_t)FF * DIM) && zero(l.b2, DIM);
    }
    return bag;
}

/* Each of the vocab_size rows of 512 floats at rows through the final norm, in place. */
void final_norm_rows(const TrnEncoder *enc, float *rows)
{
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        encoder_final_norm(enc, rows + (size_t)t * DIM);
    }
}

} // namespace

bool encoder_is_bag(const TrnEncoder *enc)
{
    if (enc->bag_rows) {
        return true;
    }
    std::atomic_ref<int8_t> shape(const_cast<int8_t &>(enc->bag_shape));
    int8_t known = shape.load(std::memory_order_relaxed);
    if (known == 0) {
        known = is_bag(enc) ? 1 : -1;
        shape.store(known, std::memory_order_relaxed);
    }
    return known > 0;
}

bool encoder_prepare_bag(TrnEncoder *enc)
{
    encoder_drop_bag(enc);
    if (!is_bag(enc)) {
        return false;
    }
    /* A zero layer output adds 0 to the residual, which leaves each token's row as it is. */
    enc->bag_rows = encoder_alloc_floats((size_t)enc->vocab_size * DIM);
    memcpy(enc->bag_rows, enc->tok_emb, (size_t)enc->vocab_size * DIM * sizeof(float));
    final_norm_rows(enc, enc->bag_rows);
    return true;
}

bool encoder_prepare_bag_only(TrnEncoder *enc)
{
    encoder_drop_bag(enc);
    if (!is_bag(enc)) {
        return false;
    }
    final_norm_rows(enc, enc->tok_emb);
    enc->bag_rows = enc->tok_emb;
    enc->tok_emb = nullptr;
    free(enc->pos_emb);
    enc->pos_emb = nullptr;
    for (TrnEncoderLayer &layer : enc->layers) {
        free_layer(&layer);
        memset(&layer, 0, sizeof layer);
    }
    return true;
}

void encoder_init(TrnEncoder *enc, uint32_t seed)
{
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = TRN_ENCODER_BYTE_VOCAB;
    enc->bpe = nullptr;
    init_common(enc, seed);
}

void encoder_init_undrawn(TrnEncoder *enc)
{
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = TRN_ENCODER_BYTE_VOCAB;
    enc->bpe = nullptr;
    init_common(enc, 0, false);
}

void encoder_init_bpe(TrnEncoder *enc, uint32_t seed, TrnBpe *bpe)
{
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = (uint32_t)TRN_ENCODER_BYTE_VOCAB + (bpe ? bpe->n_merges : 0);
    enc->bpe = bpe;
    init_common(enc, seed);
}

void encoder_release(TrnEncoder *enc)
{
    free(enc->tok_emb);
    free(enc->pos_emb);
    free(enc->ln_f_gamma);
    free(enc->ln_f_beta);
    for (TrnEncoderLayer &layer : enc->layers) {
        free_layer(&layer);
    }
    trn_bpe_free(enc->bpe);
    scratch_free(enc->scratch);
    encoder_drop_bag(enc);
    memset(enc, 0, sizeof *enc);
}

extern "C" {

TrnEncoder *trn_encoder_init(uint32_t seed)
{
    TrnEncoder *enc = static_cast<TrnEncoder *>(encoder_alloc(sizeof(TrnEncoder)));
    encoder_init(enc, seed);
    return enc;
}

TrnEncoder *trn_encoder_init_bpe(uint32_t seed, TrnBpe *bpe)
{
    TrnEncoder *enc = static_cast<TrnEncoder *>(encoder_alloc(sizeof(TrnEncoder)));
    encoder_init_bpe(enc, seed, bpe);
    return enc;
}

void trn_encoder_free(TrnEncoder *enc)
{
    if (!enc) {
        return;
    }
    encoder_release(enc);
    free(enc);
}

} // extern "C"
