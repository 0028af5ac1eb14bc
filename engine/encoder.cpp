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
** Process-wide state, shared by every encoder: the workspace g_ws (sized for 256 positions,
** created by the first embedding, released by any trn_encoder_free), the layer-norm and GELU
** scratch rows, and the generator state. Nothing here is reentrant; callers serialise all calls.
** An embedding allocates nothing.
**
** An allocation failure prints "tarnwick: OOM (<bytes> bytes)" and ends the process with status 1.
*/
#include "internal.h"

#include <cmath>
#include <cstring>

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

/* Every buffer of one embedding, sized for MAX_SEQ positions. */
struct TrnWorkspace {
    float *x;      /* residual stream, MAX_SEQ x DIM */
    float *xn;     /* normalised copy of x, MAX_SEQ x DIM */
    float *q;      /* MAX_SEQ x DIM */
    float *k;      /* MAX_SEQ x DIM */
    float *v;      /* MAX_SEQ x DIM */
    float *heads;  /* concatenated head outputs, MAX_SEQ x DIM */
    float *proj;   /* output projection, MAX_SEQ x DIM */
    float *hidden; /* feed-forward hidden, MAX_SEQ x FF */
    float *ff_out; /* feed-forward output, MAX_SEQ x DIM */
    float *spare;  /* MAX_SEQ floats, unused */
    float *scores; /* attention scores, n x n with row stride n */
};

TrnWorkspace *g_ws = nullptr;
uint32_t rng_state = 1;
float tmp_buf[DIM];
float t1_buf[FF];
float t2_buf[FF];

void *encoder_alloc(size_t bytes)
{
    void *p = alloc_should_fail() ? nullptr : malloc(bytes ? bytes : 1);
    if (!p) {
        oom_abort_sized(ENCODER_OOM, bytes);
    }
    return p;
}

float rng_draw()
{
    uint32_t x = rng_state;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    rng_state = x;
    return ((float)(x % 10000) / 10000.0f - 0.5f) * 0.04f;
}

float *random_floats(size_t n)
{
    float *p = encoder_alloc_floats(n);
    for (size_t i = 0; i < n; i++) {
        p[i] = rng_draw();
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

void init_layer(TrnEncoderLayer *layer)
{
    layer->wq = random_floats((size_t)DIM * DIM);
    layer->wk = random_floats((size_t)DIM * DIM);
    layer->wv = random_floats((size_t)DIM * DIM);
    layer->wo = random_floats((size_t)DIM * DIM);
    layer->w1 = random_floats((size_t)DIM * FF);
    layer->b1 = random_floats(FF);
    layer->w2 = random_floats((size_t)FF * DIM);
    layer->b2 = random_floats(DIM);
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

void init_common(TrnEncoder *enc, uint32_t seed)
{
    rng_state = seed ? seed : 1;
    enc->tok_emb = random_floats((size_t)enc->vocab_size * DIM);
    enc->pos_emb = random_floats((size_t)MAX_SEQ * DIM);
    enc->ln_f_gamma = filled_floats(DIM, 1.0f);
    enc->ln_f_beta = filled_floats(DIM, 0.0f);
    for (TrnEncoderLayer &layer : enc->layers) {
        init_layer(&layer);
    }
}

TrnWorkspace *ws_get()
{
    if (g_ws) {
        return g_ws;
    }
    TrnWorkspace *ws = static_cast<TrnWorkspace *>(encoder_alloc(sizeof(TrnWorkspace)));
    ws->x = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->xn = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->q = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->k = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->v = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->heads = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->proj = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->hidden = encoder_alloc_floats((size_t)MAX_SEQ * FF);
    ws->ff_out = encoder_alloc_floats((size_t)MAX_SEQ * DIM);
    ws->spare = encoder_alloc_floats(MAX_SEQ);
    ws->scores = encoder_alloc_floats((size_t)MAX_SEQ * MAX_SEQ);
    g_ws = ws;
    return ws;
}

void ws_free()
{
    if (!g_ws) {
        return;
    }
    float *buffers[] = {g_ws->x,
                        g_ws->xn,
                        g_ws->q,
                        g_ws->k,
                        g_ws->v,
                        g_ws->heads,
                        g_ws->proj,
                        g_ws->hidden,
                        g_ws->ff_out,
                        g_ws->spare,
                        g_ws->scores};
    for (float *b : buffers) {
        free(b);
    }
    free(g_ws);
    g_ws = nullptr;
}

/* x = (x - mean) / sqrt(var + 1e-5) * gamma + beta over one 512-float row; the variance is
** E[x^2] - mean^2, clamped at 0 against rounding. */
void layernorm(float *x, const float *gamma, const float *beta)
{
    float mean = vec_mean(x, DIM);
    float var = vec_meansq(x, DIM) - mean * mean;
    if (var < 0.0f) {
        var = 0.0f;
    }
    float inv = 1.0f / sqrtf(var + LN_EPS);
    vec_sadd(x, -mean, tmp_buf, DIM);
    vec_smul(tmp_buf, inv, tmp_buf, DIM);
    vec_mul(tmp_buf, gamma, tmp_buf, DIM);
    vec_add(tmp_buf, beta, x, DIM);
}

/* h = 0.5 h (1 + tanh(sqrt(2/pi) (h + 0.044715 h^3))) over one 2048-float row (tanh form). */
void gelu_vec_inplace(float *h)
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

/* One pre-norm transformer layer over the first n rows of the residual stream. The matrix
** products need n >= 1 (their leading dimensions must be positive). */
void layer_forward(TrnWorkspace *ws, const TrnEncoderLayer *layer, int n)
{
    for (int i = 0; i < n; i++) {
        float *row = ws->xn + (size_t)i * DIM;
        memcpy(row, ws->x + (size_t)i * DIM, DIM * sizeof(float));
        layernorm(row, layer->ln1_gamma, layer->ln1_beta);
    }
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wq, DIM, 0.0f, ws->q, DIM);
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wk, DIM, 0.0f, ws->k, DIM);
    sgemm(false, false, n, DIM, DIM, 1.0f, ws->xn, DIM, layer->wv, DIM, 0.0f, ws->v, DIM);
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

    for (int i = 0; i < n; i++) {
        float *row = ws->xn + (size_t)i * DIM;
        memcpy(row, ws->x + (size_t)i * DIM, DIM * sizeof(float));
        layernorm(row, layer->ln2_gamma, layer->ln2_beta);
    }
    sgemm(false, false, n, FF, DIM, 1.0f, ws->xn, DIM, layer->w1, FF, 0.0f, ws->hidden, FF);
    for (int i = 0; i < n; i++) {
        float *row = ws->hidden + (size_t)i * FF;
        vec_add(row, layer->b1, row, FF);
        gelu_vec_inplace(row);
    }
    sgemm(false, false, n, DIM, FF, 1.0f, ws->hidden, FF, layer->w2, DIM, 0.0f, ws->ff_out, DIM);
    for (int i = 0; i < n; i++) {
        float *row = ws->ff_out + (size_t)i * DIM;
        vec_add(row, layer->b2, row, DIM);
    }
    vec_add(ws->x, ws->ff_out, ws->x, (size_t)n * DIM);
}

} // namespace

float *encoder_alloc_floats(size_t n)
{
    if (n > SIZE_MAX / sizeof(float)) {
        oom_abort_sized(ENCODER_OOM, SIZE_MAX);
    }
    return static_cast<float *>(encoder_alloc(n * sizeof(float)));
}

void encoder_redraw(TrnEncoder *enc, uint32_t seed)
{
    free(enc->tok_emb);
    free(enc->pos_emb);
    free(enc->ln_f_gamma);
    free(enc->ln_f_beta);
    for (TrnEncoderLayer &layer : enc->layers) {
        free_layer(&layer);
    }
    init_common(enc, seed);
}

extern "C" {

void trn_encoder_init(TrnEncoder *enc, uint32_t seed)
{
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = TRN_ENCODER_BYTE_VOCAB;
    enc->bpe = nullptr;
    init_common(enc, seed);
}

void trn_encoder_init_bpe(TrnEncoder *enc, uint32_t seed, TrnBpe *bpe)
{
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = (uint32_t)TRN_ENCODER_BYTE_VOCAB + (bpe ? bpe->n_merges : 0);
    enc->bpe = bpe;
    init_common(enc, seed);
}

void trn_encoder_free(TrnEncoder *enc)
{
    free(enc->tok_emb);
    free(enc->pos_emb);
    free(enc->ln_f_gamma);
    free(enc->ln_f_beta);
    for (TrnEncoderLayer &layer : enc->layers) {
        free_layer(&layer);
    }
    trn_bpe_free(enc->bpe);
    memset(enc, 0, sizeof *enc);
    ws_free();
}

/* A NULL text counts as empty for byte-level input; with a tokenizer it yields no positions at
** all, and the pooled vector is then 0 * (1 / 0), NaN in every component. */
void trn_encoder_embed_text(TrnEncoder *enc, const char *text, float *out)
{
    TrnWorkspace *ws = ws_get();
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

    for (int i = 0; i < n; i++) {
        vec_add(enc->tok_emb + (size_t)ids[i] * DIM,
                enc->pos_emb + (size_t)i * DIM,
                ws->x + (size_t)i * DIM,
                DIM);
    }
    if (n > 0) {
        for (const TrnEncoderLayer &layer : enc->layers) {
            layer_forward(ws, &layer, n);
        }
    }
    for (int i = 0; i < n; i++) {
        layernorm(ws->x + (size_t)i * DIM, enc->ln_f_gamma, enc->ln_f_beta);
    }

    memset(out, 0, DIM * sizeof(float));
    for (int i = 0; i < n; i++) {
        vec_add(out, ws->x + (size_t)i * DIM, out, DIM);
    }
    vec_smul(out, 1.0f / (float)n, out, DIM);

    float norm = sqrtf(vec_sumsq(out, DIM));
    if (norm > 1e-12f) {
        vec_smul(out, 1.0f / norm, out, DIM);
    }
}

} // extern "C"
