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
** positions); an encoder owns one, created by its first trn_encoder_embed_text, and the engine's
** embedding workers each own another (embed.cpp), so any number of embeddings run at once as long
** as no two share a scratch. The weights are only read while embedding. With its scratch in place
** an embedding allocates nothing. The initialiser's generator state is a local of init_common.
**
** An allocation failure prints "tarnwick: OOM (<bytes> bytes)" and ends the process with status 1.
*/
#include "internal.h"

#include <cmath>
#include <cstring>

/* Every buffer of one embedding, sized for MAX_SEQ positions. */
struct TrnScratch {
    float *x;          /* residual stream, MAX_SEQ x DIM */
    float *xn;         /* normalised copy of x, MAX_SEQ x DIM */
    float *q;          /* MAX_SEQ x DIM */
    float *k;          /* MAX_SEQ x DIM */
    float *v;          /* MAX_SEQ x DIM */
    float *heads;      /* concatenated head outputs, MAX_SEQ x DIM */
    float *proj;       /* output projection, MAX_SEQ x DIM */
    float *hidden;     /* feed-forward hidden, MAX_SEQ x FF */
    float *ff_out;     /* feed-forward output, MAX_SEQ x DIM */
    float *scores;     /* attention scores, n x n with row stride n */
    float *norm_row;   /* DIM, inside layernorm */
    float *gelu_cube;  /* FF, inside gelu_vec_inplace */
    float *gelu_inner; /* FF, inside gelu_vec_inplace */
};

namespace
{

constexpr int DIM = TRN_ENCODER_DIM;
constexpr int HEADS = TRN_ENCODER_HEADS;
constexpr int HEAD_DIM = TRN_ENCODER_HEAD_DIM;
constexpr int FF = TRN_ENCODER_FF;
constexpr int MAX_SEQ = TRN_ENCODER_MAX_SEQ;
constexpr float ATTN_SCALE = 0.125f; /* 1 / sqrt(HEAD_DIM) */
constexpr float LN_EPS = 1e-5f;
constexpr float GELU_C = 0.044715f;
constexpr float SQRT_2_OVER_PI = 0.7978846f;
constexpr char ENCODER_OOM[] = "tarnwick: OOM (%zu bytes)\n";

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

/* x = (x - mean) / sqrt(var + 1e-5) * gamma + beta over one 512-float row; the variance is
** E[x^2] - mean^2, clamped at 0 against rounding. */
void layernorm(float *x, const float *gamma, const float *beta, float *tmp_buf,
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
    vec_sadd(x, -mean, tmp_buf, DIM);
    vec_smul(tmp_buf, inv, tmp_buf, DIM);
    vec_mul(tmp_buf, gamma, tmp_buf, DIM);
    vec_add(tmp_buf, beta, x, DIM);
}

/* h = 0.5 h (1 + tanh(sqrt(2/pi) (h + 0.044715 h^3))) over one 2048-float row (tanh form). */
void gelu_vec_inplace(float *h, float *t1_buf, float *t2_buf)
{
    vec_sq(h, t1_buf, FF);
    vec_mul(t1_buf, h, t1_buf, FF);
    vec_smul(t1_buf, GELU_C, t1_buf, FF);
    vec_add(h, t1_buf, t2_buf, FF);
    vec_smul(t2_buf, SQRT_2_OVER_PI, t2_buf, FF);
    vec_tanh(t2_buf, FF);
    vec_sadd(t2_buf, 1.0f, t2_buf, FF);
    vec_mul(h, t2_buf, t2_buf, FF);
    vec_smul(t2_buf, 0.5f, h, FF);
}

void softmax_row(float *row, int n)
{
    float max = vec_max(row, (size_t)n);
    vec_sadd(row, -max, row, (size_t)n);
    vec_exp(row, (size_t)n);
    float sum = vec_sum(row, (size_t)n);
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
        float *row = ws->xn + (size_t)i * DIM;
        memcpy(row, ws->x + (size_t)i * DIM, DIM * sizeof(float));
        layernorm(
            row, gamma, beta, ws->norm_row, mean ? mean + i : nullptr, rstd ? rstd + i : nullptr);
    }
}

/* One pre-norm transformer layer over the first n rows of the residual stream, saving its
** activations into the l-th slots of save when save is not NULL. The matrix products need
** n >= 1 (their leading dimensions must be positive). */
void layer_forward(TrnScratch *ws, const TrnEncoderLayer *layer, int n, TrnForwardSave *save, int l)
{
    if (save) {
        save_rows(save->x[l], ws->x, n, DIM);
    }
    norm_rows(ws, n, layer->ln1_gamma, layer->ln1_beta, save, l, false);
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wq, DIM, 0.0f, ws->q, DIM);
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wk, DIM, 0.0f, ws->k, DIM);
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wv, DIM, 0.0f, ws->v, DIM);
    if (save) {
        save_rows(save->a[l], ws->xn, n, DIM);
        save_rows(save->q[l], ws->q, n, DIM);
        save_rows(save->k[l], ws->k, n, DIM);
        save_rows(save->v[l], ws->v, n, DIM);
    }
    memset(ws->heads, 0, (size_t)n * DIM * sizeof(float));

    for (int h = 0; h < HEADS; h++) {
        size_t col = (size_t)h * HEAD_DIM;
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
        if (save) {
            save_rows(save->probs[l] + (size_t)h * n * n, ws->scores, n, n);
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
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->heads, DIM, layer->wo, DIM, 0.0f, ws->proj, DIM);
    vec_add(ws->x, ws->proj, ws->x, (size_t)n * DIM);
    if (save) {
        save_rows(save->ctx[l], ws->heads, n, DIM);
        save_rows(save->mid[l], ws->x, n, DIM);
    }

    norm_rows(ws, n, layer->ln2_gamma, layer->ln2_beta, save, l, true);
    if (save) {
        save_rows(save->b[l], ws->xn, n, DIM);
    }
    sgemm(false, false, n, FF, DIM, 1.0f, ws->xn, DIM, layer->w1, FF, 0.0f, ws->hidden, FF);
    for (int i = 0; i < n; i++) {
        float *row = ws->hidden + (size_t)i * FF;
        vec_add(row, layer->b1, row, FF);
        if (save) {
            save_rows(save->h[l] + (size_t)i * FF, row, 1, FF);
        }
        gelu_vec_inplace(row, ws->gelu_cube, ws->gelu_inner);
    }
    if (save) {
        save_rows(save->g[l], ws->hidden, n, FF);
    }
    sgemm(false, false, n, DIM, FF, 1.0f, ws->hidden, FF, layer->w2, DIM, 0.0f, ws->ff_out, DIM);
    for (int i = 0; i < n; i++) {
        float *row = ws->ff_out + (size_t)i * DIM;
        vec_add(row, layer->b2, row, DIM);
    }
    vec_add(ws->x, ws->ff_out, ws->x, (size_t)n * DIM);
}

} // namespace

TrnScratch *scratch_new(void)
{
    TrnScratch *ws = static_cast<TrnScratch *>(encoder_alloc(sizeof(TrnScratch)));
    ws->x = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->xn = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->q = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->k = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->v = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->heads = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->proj = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->hidden = encoder_alloc_floats((size_t)MAX_SEQ * FF);
    ws->ff_out = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->scores = encoder_alloc_floats((size_t)MAX_SEQ * MAX_SEQ);
    ws->norm_row = encoder_alloc_floats(DIM);
    ws->gelu_cube = encoder_alloc_floats(FF);
    ws->gelu_inner = encoder_alloc_floats(FF);
    return ws;
}

void scratch_free(TrnScratch *ws)
{
    if (!ws) {
        return;
    }
    float *buffers[] = {ws->x,
                        ws->xn,
                        ws->q,
                        ws->k,
                        ws->v,
                        ws->heads,
                        ws->proj,
                        ws->hidden,
                        ws->ff_out,
                        ws->scores,
                        ws->norm_row,
                        ws->gelu_cube,
                        ws->gelu_inner};
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

void encoder_redraw(TrnEncoder *enc, uint32_t seed)
{
    free(enc->bag_rows);
    enc->bag_rows = nullptr;
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
    int at = 0;
    for (int l = 0; l < TRN_ENCODER_LAYERS; l++) {
        for (int p = 0; p < 3; p++) {
            out[at++] = GemmShape{false, false, n, DIM, DIM}; /* Q, K, V */
        }
        for (int h = 0; h < TRN_ENCODER_HEADS; h++) {
            out[at++] = GemmShape{false, true, n, n, HEAD_DIM};  /* scores */
            out[at++] = GemmShape{false, false, n, HEAD_DIM, n}; /* scores x V */
        }
        out[at++] = GemmShape{false, false, n, DIM, DIM}; /* output projection */
        out[at++] = GemmShape{false, false, n, FF, DIM};  /* up */
        out[at++] = GemmShape{false, false, n, DIM, FF};  /* down */
    }
}

void encoder_forward(const TrnEncoder *enc, TrnScratch *ws, const uint32_t *ids, int n, float *out,
                     TrnForwardSave *save)
{
    for (int i = 0; i < n; i++) {
        vec_add(enc->tok_emb + (size_t)ids[i] * DIM,
                enc->pos_emb + (size_t)i * DIM,
                ws->x + (size_t)i * DIM,
                DIM);
    }
    if (n > 0) {
        for (int l = 0; l < TRN_ENCODER_LAYERS; l++) {
            layer_forward(ws, &enc->layers[l], n, save, l);
        }
    }
    if (save) {
        save_rows(save->x[TRN_ENCODER_LAYERS], ws->x, n, DIM);
    }
    for (int i = 0; i < n; i++) {
        layernorm(ws->x + (size_t)i * DIM,
                  enc->ln_f_gamma,
                  enc->ln_f_beta,
                  ws->norm_row,
                  save ? save->lnf_mean + i : nullptr,
                  save ? save->lnf_rstd + i : nullptr);
    }
    if (save) {
        save_rows(save->y, ws->x, n, DIM);
    }

    memset(out, 0, DIM * sizeof(float));
    for (int i = 0; i < n; i++) {
        vec_add(out, ws->x + (size_t)i * DIM, out, DIM);
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

/* A NULL text counts as empty for byte-level input; with a tokenizer it yields no positions at
** all, and the pooled vector is then 0 * (1 / 0), NaN in every component. */
void encoder_embed(const TrnEncoder *enc, TrnScratch *ws, const char *text, float *out)
{
    uint32_t ids[MAX_SEQ];
    int n = 0;
    if (enc->bpe) {
        n = trn_bpe_encode(enc->bpe, text, ids, MAX_SEQ);
    } else {
        ids[n++] = TRN_TOKEN_BEGIN;
        if (text) {
            const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
            while (*p && n < MAX_SEQ - 1) {
                ids[n++] = *p++;
            }
        }
        ids[n++] = TRN_TOKEN_END;
    }
    if (!enc->bag_rows || n == 0) {
        encoder_forward(enc, ws, ids, n, out, nullptr);
        return;
    }
    /* encoder_forward's pooling over the rows it would have computed, in the same order. */
    memset(out, 0, DIM * sizeof(float));
    for (int i = 0; i < n; i++) {
        vec_add(out, enc->bag_rows + (size_t)ids[i] * DIM, out, DIM);
    }
    vec_smul(out, 1.0f / (float)n, out, DIM);
    float norm = sqrtf(vec_sumsq(out, DIM));
    if (norm > 1e-12f) {
        vec_smul(out, 1.0f / norm, out, DIM);
    }
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
    float tmp[DIM];
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        layernorm(rows + (size_t)t * DIM, enc->ln_f_gamma, enc->ln_f_beta, tmp);
    }
}

} // namespace

bool encoder_prepare_bag(TrnEncoder *enc)
{
    free(enc->bag_rows);
    enc->bag_rows = nullptr;
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
    free(enc->bag_rows);
    enc->bag_rows = nullptr;
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
    free(enc->bag_rows);
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

void trn_encoder_embed_text(TrnEncoder *enc, const char *text, float *out)
{
    if (!enc->scratch) {
        enc->scratch = scratch_new();
    }
    encoder_embed(enc, enc->scratch, text, out);
}

} // extern "C"
