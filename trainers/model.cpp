/*
** model.cpp -- the backward pass of the encoder and the InfoNCE loss, around the engine's forward
** pass.
**
** The forward pass (encoder_forward in engine/encoder/encoder.cpp) computes, per layer, for the
** tokens X of one sequence (one row per token):
**   A = LN1(X); Q, K, V = A Wq, A Wk, A Wv
**   per head: P = softmax(0.125 Q_h K_h^T); C_h = P V_h
**   M = X + C Wo; B = LN2(M); H = B W1 + b1; G = gelu(H); X' = M + (G W2 + b2)
** then Y = LNf(X), e = mean of the rows of Y, z = e / |e|, and saves every intermediate here.
**
** Backward runs the same steps in reverse over the stacked tokens of the batch; every matrix
** product goes through gemm() below (the engine's sgemm), which also counts its work.
*/
#include "model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace trn_train
{

namespace
{

constexpr float LN_EPS = 1e-5f;
constexpr float GELU_C = 0.7978846f; /* sqrt(2 / pi) */
constexpr float GELU_A = 0.044715f;

template <typename T>
void ensure(std::vector<T> &v, size_t n)
{
    if (v.size() < n) {
        v.resize(n);
    }
}

void count_gemm(Activations &acts, bool ta, bool tb, int m, int n, int k)
{
    acts.flops += 2.0 * m * n * k;
    if (acts.shapes) {
        acts.shapes->push_back(GemmShape{ta, tb, m, n, k});
    }
}

void gemm(Activations &acts, bool ta, bool tb, int m, int n, int k, float alpha, const float *a,
          int lda, const float *b, int ldb, float beta, float *c, int ldc)
{
    count_gemm(acts, ta, tb, m, n, k);
    sgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

/* The products the engine's forward pass issues for one sequence of n positions. */
void count_forward(Activations &acts, int n)
{
    GemmShape shapes[FORWARD_PRODUCTS];
    encoder_forward_shapes(n, shapes);
    for (const GemmShape &s : shapes) {
        count_gemm(acts, s.trans_a, s.trans_b, s.m, s.n, s.k);
    }
}

/* dx += d(LN)/dx^T dy; dgamma += sum dy * xhat; dbeta += sum dy. */
template <typename T>
void layer_norm_backward(const T *x, const T *gamma, const T *mean, const T *rstd, const T *dy,
                         T *dx, T *dgamma, T *dbeta, int rows)
{
    T xhat[DIM], dxhat[DIM];
    for (int r = 0; r < rows; r++) {
        const T *xr = x + (size_t)r * DIM;
        const T *dyr = dy + (size_t)r * DIM;
        T *dxr = dx + (size_t)r * DIM;
        T sum_d = 0, sum_dx = 0;
        for (int c = 0; c < DIM; c++) {
            xhat[c] = (xr[c] - mean[r]) * rstd[r];
            dxhat[c] = dyr[c] * gamma[c];
            dgamma[c] += dyr[c] * xhat[c];
            dbeta[c] += dyr[c];
            sum_d += dxhat[c];
            sum_dx += dxhat[c] * xhat[c];
        }
        T mean_d = sum_d / (T)DIM, mean_dx = sum_dx / (T)DIM;
        for (int c = 0; c < DIM; c++) {
            dxr[c] += rstd[r] * (dxhat[c] - mean_d - xhat[c] * mean_dx);
        }
    }
}

/* dh = dg * gelu'(h), in place over dg, with the engine's tanh (vec_tanh) as in the forward
** pass. t is scratch of n floats. */
void gelu_backward(const float *h, float *d, float *t, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        float x = h[i];
        t[i] = GELU_C * (x + GELU_A * x * x * x);
    }
    vec_tanh(t, n);
    for (size_t i = 0; i < n; i++) {
        float x = h[i];
        float du = GELU_C * (1.0f + 3.0f * GELU_A * x * x);
        d[i] *= 0.5f * (1.0f + t[i]) + 0.5f * x * (1.0f - t[i] * t[i]) * du;
    }
}

template <typename T>
void sum_rows_into(const T *x, T *out, int rows, int cols)
{
    for (int r = 0; r < rows; r++) {
        const T *row = x + (size_t)r * cols;
        for (int c = 0; c < cols; c++) {
            out[c] += row[c];
        }
    }
}

void reserve(Activations &acts, const SeqBatch &batch)
{
    const size_t ntok = (size_t)batch.tokens();
    acts.tokens = (int)ntok;
    acts.prob_offset.resize(batch.count() + 1);
    size_t probs = 0;
    size_t max_nn = 1;
    for (int s = 0; s < batch.count(); s++) {
        size_t n = (size_t)(batch.start[s + 1] - batch.start[s]);
        acts.prob_offset[s] = probs;
        probs += HEADS * n * n;
        max_nn = n * n > max_nn ? n * n : max_nn;
    }
    acts.prob_offset[batch.count()] = probs;
    for (int l = 0; l <= LAYERS; l++) {
        ensure(acts.x[l], ntok * DIM);
    }
    for (int l = 0; l < LAYERS; l++) {
        ensure(acts.ln1_mean[l], ntok);
        ensure(acts.ln1_rstd[l], ntok);
        ensure(acts.a[l], ntok * DIM);
        ensure(acts.q[l], ntok * DIM);
        ensure(acts.k[l], ntok * DIM);
        ensure(acts.v[l], ntok * DIM);
        ensure(acts.probs[l], probs);
        ensure(acts.ctx[l], ntok * DIM);
        ensure(acts.mid[l], ntok * DIM);
        ensure(acts.ln2_mean[l], ntok);
        ensure(acts.ln2_rstd[l], ntok);
        ensure(acts.b[l], ntok * DIM);
        ensure(acts.h[l], ntok * FF);
        ensure(acts.g[l], ntok * FF);
    }
    ensure(acts.lnf_mean, ntok);
    ensure(acts.lnf_rstd, ntok);
    ensure(acts.y, ntok * DIM);
    ensure(acts.pooled, (size_t)batch.count() * DIM);
    ensure(acts.norm, (size_t)batch.count());
    ensure(acts.z, (size_t)batch.count() * DIM);
    ensure(acts.dx, ntok * DIM);
    ensure(acts.dtmp, ntok * DIM);
    ensure(acts.dq, ntok * DIM);
    ensure(acts.dk, ntok * DIM);
    ensure(acts.dv, ntok * DIM);
    ensure(acts.dctx, ntok * DIM);
    ensure(acts.dh, ntok * FF);
    ensure(acts.dp, max_nn);
    ensure(acts.gelu_t, ntok * FF);
}

} // namespace

ParamLayout make_layout(uint32_t vocab_size)
{
    ParamLayout layout{};
    layout.vocab_size = vocab_size;
    size_t sizes[TENSOR_COUNT];
    sizes[TENSOR_TOK] = (size_t)vocab_size * DIM;
    sizes[TENSOR_POS] = (size_t)MAX_SEQ * DIM;
    sizes[TENSOR_LNF_G] = DIM;
    sizes[TENSOR_LNF_B] = DIM;
    for (int l = 0; l < LAYERS; l++) {
        const size_t per_layer[LAYER_TENSORS] = {
            (size_t)DIM * DIM,
            (size_t)DIM * DIM,
            (size_t)DIM * DIM,
            (size_t)DIM * DIM,
            (size_t)DIM * FF,
            FF,
            (size_t)FF * DIM,
            DIM,
            DIM,
            DIM,
            DIM,
            DIM,
        };
        for (int w = 0; w < LAYER_TENSORS; w++) {
            sizes[layer_tensor(l, w)] = per_layer[w];
        }
    }
    size_t off = 0;
    for (int t = 0; t < TENSOR_COUNT; t++) {
        layout.offset[t] = off;
        layout.size[t] = sizes[t];
        off += sizes[t];
    }
    layout.total = off;
    return layout;
}

const char *tensor_name(int tensor, char *buf, size_t cap)
{
    static const char *const top[TENSOR_FIRST_LAYER] = {
        "tok_emb", "pos_emb", "ln_f_gamma", "ln_f_beta"};
    static const char *const per_layer[LAYER_TENSORS] = {"wq",
                                                         "wk",
                                                         "wv",
                                                         "wo",
                                                         "w1",
                                                         "b1",
                                                         "w2",
                                                         "b2",
                                                         "ln1_gamma",
                                                         "ln1_beta",
                                                         "ln2_gamma",
                                                         "ln2_beta"};
    if (tensor < TENSOR_FIRST_LAYER) {
        snprintf(buf, cap, "%s", top[tensor]);
    } else {
        int rel = tensor - TENSOR_FIRST_LAYER;
        snprintf(buf, cap, "layer%d.%s", rel / LAYER_TENSORS, per_layer[rel % LAYER_TENSORS]);
    }
    return buf;
}

bool tensor_is_matrix(int tensor)
{
    if (tensor < TENSOR_FIRST_LAYER) {
        return false;
    }
    int w = (tensor - TENSOR_FIRST_LAYER) % LAYER_TENSORS;
    return w == LT_WQ || w == LT_WK || w == LT_WV || w == LT_WO || w == LT_W1 || w == LT_W2;
}

namespace
{

/* The encoder's arrays in file order, as pointers into the encoder. */
void encoder_arrays(const TrnEncoder *enc, float *out[TENSOR_COUNT])
{
    out[TENSOR_TOK] = enc->tok_emb;
    out[TENSOR_POS] = enc->pos_emb;
    out[TENSOR_LNF_G] = enc->ln_f_gamma;
    out[TENSOR_LNF_B] = enc->ln_f_beta;
    for (int l = 0; l < LAYERS; l++) {
        const TrnEncoderLayer *ly = &enc->layers[l];
        float *arr[LAYER_TENSORS] = {ly->wq,
                                     ly->wk,
                                     ly->wv,
                                     ly->wo,
                                     ly->w1,
                                     ly->b1,
                                     ly->w2,
                                     ly->b2,
                                     ly->ln1_gamma,
                                     ly->ln1_beta,
                                     ly->ln2_gamma,
                                     ly->ln2_beta};
        for (int w = 0; w < LAYER_TENSORS; w++) {
            out[layer_tensor(l, w)] = arr[w];
        }
    }
}

} // namespace

void params_from_encoder(const TrnEncoder *enc, const ParamLayout &layout, float *params)
{
    float *arr[TENSOR_COUNT];
    encoder_arrays(enc, arr);
    for (int t = 0; t < TENSOR_COUNT; t++) {
        memcpy(params + layout.offset[t], arr[t], layout.size[t] * sizeof(float));
    }
}

void params_to_encoder(const float *params, const ParamLayout &layout, TrnEncoder *enc)
{
    float *arr[TENSOR_COUNT];
    encoder_arrays(enc, arr);
    for (int t = 0; t < TENSOR_COUNT; t++) {
        memcpy(arr[t], params + layout.offset[t], layout.size[t] * sizeof(float));
    }
}

TrnEncoder encoder_view(const ParamLayout &layout, const float *params)
{
    TrnEncoder enc;
    memset(&enc, 0, sizeof enc);
    enc.vocab_size = layout.vocab_size;
    float *p = const_cast<float *>(params); /* the forward pass only reads them */
    enc.tok_emb = p + layout.offset[TENSOR_TOK];
    enc.pos_emb = p + layout.offset[TENSOR_POS];
    enc.ln_f_gamma = p + layout.offset[TENSOR_LNF_G];
    enc.ln_f_beta = p + layout.offset[TENSOR_LNF_B];
    for (int l = 0; l < LAYERS; l++) {
        TrnEncoderLayer *ly = &enc.layers[l];
        float **arr[LAYER_TENSORS] = {&ly->wq,
                                      &ly->wk,
                                      &ly->wv,
                                      &ly->wo,
                                      &ly->w1,
                                      &ly->b1,
                                      &ly->w2,
                                      &ly->b2,
                                      &ly->ln1_gamma,
                                      &ly->ln1_beta,
                                      &ly->ln2_gamma,
                                      &ly->ln2_beta};
        for (int w = 0; w < LAYER_TENSORS; w++) {
            *arr[w] = p + layout.offset[layer_tensor(l, w)];
        }
    }
    return enc;
}

void model_forward(const ParamLayout &layout, const float *params, const SeqBatch &batch,
                   Activations &acts, float *z)
{
    reserve(acts, batch);
    if (!acts.scratch) {
        acts.scratch = scratch_new();
    }
    const TrnEncoder enc = encoder_view(layout, params);
    for (int s = 0; s < batch.count(); s++) {
        const int first = batch.start[s], n = batch.start[s + 1] - first;
        const size_t row0 = (size_t)first * DIM;
        TrnForwardSave save;
        for (int l = 0; l < LAYERS; l++) {
            save.x[l] = acts.x[l].data() + row0;
            save.ln1_mean[l] = acts.ln1_mean[l].data() + first;
            save.ln1_rstd[l] = acts.ln1_rstd[l].data() + first;
            save.a[l] = acts.a[l].data() + row0;
            save.q[l] = acts.q[l].data() + row0;
            save.k[l] = acts.k[l].data() + row0;
            save.v[l] = acts.v[l].data() + row0;
            save.probs[l] = acts.probs[l].data() + acts.prob_offset[s];
            save.ctx[l] = acts.ctx[l].data() + row0;
            save.mid[l] = acts.mid[l].data() + row0;
            save.ln2_mean[l] = acts.ln2_mean[l].data() + first;
            save.ln2_rstd[l] = acts.ln2_rstd[l].data() + first;
            save.b[l] = acts.b[l].data() + row0;
            save.h[l] = acts.h[l].data() + (size_t)first * FF;
            save.g[l] = acts.g[l].data() + (size_t)first * FF;
        }
        save.x[LAYERS] = acts.x[LAYERS].data() + row0;
        save.lnf_mean = acts.lnf_mean.data() + first;
        save.lnf_rstd = acts.lnf_rstd.data() + first;
        save.y = acts.y.data() + row0;
        save.pooled = acts.pooled.data() + (size_t)s * DIM;
        save.norm = acts.norm.data() + s;
        encoder_forward(&enc,
                        acts.scratch,
                        batch.ids.data() + first,
                        n,
                        acts.z.data() + (size_t)s * DIM,
                        &save);
        count_forward(acts, n);
    }
    memcpy(z, acts.z.data(), (size_t)batch.count() * DIM * sizeof(float));
}

void model_backward(const ParamLayout &layout, const float *params, const SeqBatch &batch,
                    Activations &acts, const float *dz, float *grad)
{
    const int ntok = batch.tokens();
    const int nseq = batch.count();
    float *dx = acts.dx.data();
    float *dtmp = acts.dtmp.data();

    /* Normalisation and pooling: dy of every row of sequence s is de / n. */
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        const float *zs = acts.z.data() + (size_t)s * DIM;
        const float *dzs = dz + (size_t)s * DIM;
        float de[DIM];
        float norm = acts.norm[s];
        if (norm > (float)1e-12) {
            float dot = 0;
            for (int c = 0; c < DIM; c++) {
                dot += zs[c] * dzs[c];
            }
            for (int c = 0; c < DIM; c++) {
                de[c] = (dzs[c] - zs[c] * dot) / norm;
            }
        } else {
            for (int c = 0; c < DIM; c++) {
                de[c] = dzs[c];
            }
        }
        const float inv_n = (float)1 / (float)n;
        for (int i = 0; i < n; i++) {
            float *row = dtmp + (size_t)(first + i) * DIM;
            for (int c = 0; c < DIM; c++) {
                row[c] = de[c] * inv_n;
            }
        }
    }
    memset(dx, 0, (size_t)ntok * DIM * sizeof(float));
    layer_norm_backward(acts.x[LAYERS].data(),
                        params + layout.offset[TENSOR_LNF_G],
                        acts.lnf_mean.data(),
                        acts.lnf_rstd.data(),
                        dtmp,
                        dx,
                        grad + layout.offset[TENSOR_LNF_G],
                        grad + layout.offset[TENSOR_LNF_B],
                        ntok);

    for (int l = LAYERS - 1; l >= 0; l--) {
        const float *w[LAYER_TENSORS];
        float *gw[LAYER_TENSORS];
        for (int i = 0; i < LAYER_TENSORS; i++) {
            w[i] = params + layout.offset[layer_tensor(l, i)];
            gw[i] = grad + layout.offset[layer_tensor(l, i)];
        }
        const float *a = acts.a[l].data(), *q = acts.q[l].data(), *k = acts.k[l].data();
        const float *v = acts.v[l].data(), *ctx = acts.ctx[l].data();
        const float *bn = acts.b[l].data(), *h = acts.h[l].data(), *g = acts.g[l].data();
        float *dh = acts.dh.data(), *dq = acts.dq.data(), *dk = acts.dk.data();
        float *dv = acts.dv.data(), *dctx = acts.dctx.data();

        /* X' = M + G W2 + b2: dx is dX' and, through the residual, part of dM. */
        gemm(acts, true, false, FF, DIM, ntok, 1, g, FF, dx, DIM, 1, gw[LT_W2], DIM);
        sum_rows_into(dx, gw[LT_B2], ntok, DIM);
        gemm(acts, false, true, ntok, FF, DIM, 1, dx, DIM, w[LT_W2], DIM, 0, dh, FF);
        gelu_backward(h, dh, acts.gelu_t.data(), (size_t)ntok * FF);
        gemm(acts, true, false, DIM, FF, ntok, 1, bn, DIM, dh, FF, 1, gw[LT_W1], FF);
        sum_rows_into(dh, gw[LT_B1], ntok, FF);
        gemm(acts, false, true, ntok, DIM, FF, 1, dh, FF, w[LT_W1], FF, 0, dtmp, DIM);
        layer_norm_backward(acts.mid[l].data(),
                            w[LT_LN2_G],
                            acts.ln2_mean[l].data(),
                            acts.ln2_rstd[l].data(),
                            dtmp,
                            dx,
                            gw[LT_LN2_G],
                            gw[LT_LN2_B],
                            ntok);

        /* M = X + C Wo: dx is now dM and, through the residual, part of dX. */
        gemm(acts, true, false, DIM, DIM, ntok, 1, ctx, DIM, dx, DIM, 1, gw[LT_WO], DIM);
        gemm(acts, false, true, ntok, DIM, DIM, 1, dx, DIM, w[LT_WO], DIM, 0, dctx, DIM);
        for (int s = 0; s < nseq; s++) {
            int first = batch.start[s], n = batch.start[s + 1] - first;
            size_t row0 = (size_t)first * DIM;
            for (int hd = 0; hd < HEADS; hd++) {
                const float *p = acts.probs[l].data() + acts.prob_offset[s] + (size_t)hd * n * n;
                float *dp = acts.dp.data();
                size_t col = (size_t)hd * HEAD_DIM;
                gemm(acts,
                     false,
                     true,
                     n,
                     n,
                     HEAD_DIM,
                     1,
                     dctx + row0 + col,
                     DIM,
                     v + row0 + col,
                     DIM,
                     0,
                     dp,
                     n);
                gemm(acts,
                     true,
                     false,
                     n,
                     HEAD_DIM,
                     n,
                     1,
                     p,
                     n,
                     dctx + row0 + col,
                     DIM,
                     0,
                     dv + row0 + col,
                     DIM);
                /* softmax: dS = P * (dP - rowsum(dP * P)) */
                for (int r = 0; r < n; r++) {
                    const float *pr = p + (size_t)r * n;
                    float *dr = dp + (size_t)r * n;
                    float dot = 0;
                    for (int c = 0; c < n; c++) {
                        dot += pr[c] * dr[c];
                    }
                    for (int c = 0; c < n; c++) {
                        dr[c] = pr[c] * (dr[c] - dot);
                    }
                }
                gemm(acts,
                     false,
                     false,
                     n,
                     HEAD_DIM,
                     n,
                     (float)0.125,
                     dp,
                     n,
                     k + row0 + col,
                     DIM,
                     0,
                     dq + row0 + col,
                     DIM);
                gemm(acts,
                     true,
                     false,
                     n,
                     HEAD_DIM,
                     n,
                     (float)0.125,
                     dp,
                     n,
                     q + row0 + col,
                     DIM,
                     0,
                     dk + row0 + col,
                     DIM);
            }
        }
        gemm(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dq, DIM, 1, gw[LT_WQ], DIM);
        gemm(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dk, DIM, 1, gw[LT_WK], DIM);
        gemm(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dv, DIM, 1, gw[LT_WV], DIM);
        gemm(acts, false, true, ntok, DIM, DIM, 1, dq, DIM, w[LT_WQ], DIM, 0, dtmp, DIM);
        gemm(acts, false, true, ntok, DIM, DIM, 1, dk, DIM, w[LT_WK], DIM, 1, dtmp, DIM);
        gemm(acts, false, true, ntok, DIM, DIM, 1, dv, DIM, w[LT_WV], DIM, 1, dtmp, DIM);
        layer_norm_backward(acts.x[l].data(),
                            w[LT_LN1_G],
                            acts.ln1_mean[l].data(),
                            acts.ln1_rstd[l].data(),
                            dtmp,
                            dx,
                            gw[LT_LN1_G],
                            gw[LT_LN1_B],
                            ntok);
    }

    float *gtok = grad + layout.offset[TENSOR_TOK];
    float *gpos = grad + layout.offset[TENSOR_POS];
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        for (int i = 0; i < n; i++) {
            const float *row = dx + (size_t)(first + i) * DIM;
            float *gt = gtok + (size_t)batch.ids[first + i] * DIM;
            float *gp = gpos + (size_t)i * DIM;
            for (int c = 0; c < DIM; c++) {
                gt[c] += row[c];
                gp[c] += row[c];
            }
        }
    }
}

template <typename T>
double info_nce(const T *z, int pairs, double temperature, T *dz)
{
    const int b = pairs;
    std::vector<double> s((size_t)b * b), row_p((size_t)b * b), col_p((size_t)b * b);
    for (int i = 0; i < b; i++) {
        for (int j = 0; j < b; j++) {
            const T *za = z + (size_t)(2 * i) * DIM;
            const T *zp = z + (size_t)(2 * j + 1) * DIM;
            double dot = 0;
            for (int c = 0; c < DIM; c++) {
                dot += (double)za[c] * (double)zp[c];
            }
            s[(size_t)i * b + j] = dot / temperature;
        }
    }
    double loss = 0;
    for (int i = 0; i < b; i++) { /* anchor i against every positive */
        double mx = s[(size_t)i * b];
        for (int j = 1; j < b; j++) {
            mx = std::max(mx, s[(size_t)i * b + j]);
        }
        double sum = 0;
        for (int j = 0; j < b; j++) {
            sum += std::exp(s[(size_t)i * b + j] - mx);
        }
        for (int j = 0; j < b; j++) {
            row_p[(size_t)i * b + j] = std::exp(s[(size_t)i * b + j] - mx) / sum;
        }
        loss += mx + std::log(sum) - s[(size_t)i * b + i];
    }
    for (int j = 0; j < b; j++) { /* positive j against every anchor */
        double mx = s[j];
        for (int i = 1; i < b; i++) {
            mx = std::max(mx, s[(size_t)i * b + j]);
        }
        double sum = 0;
        for (int i = 0; i < b; i++) {
            sum += std::exp(s[(size_t)i * b + j] - mx);
        }
        for (int i = 0; i < b; i++) {
            col_p[(size_t)i * b + j] = std::exp(s[(size_t)i * b + j] - mx) / sum;
        }
        loss += mx + std::log(sum) - s[(size_t)j * b + j];
    }
    const double norm = 1.0 / (2.0 * b);
    loss *= norm;

    memset(dz, 0, (size_t)2 * b * DIM * sizeof(T));
    for (int i = 0; i < b; i++) {
        for (int j = 0; j < b; j++) {
            double ds = (row_p[(size_t)i * b + j] + col_p[(size_t)i * b + j] - (i == j ? 2.0 : 0.0))
                        * norm / temperature;
            const T *za = z + (size_t)(2 * i) * DIM;
            const T *zp = z + (size_t)(2 * j + 1) * DIM;
            T *dza = dz + (size_t)(2 * i) * DIM;
            T *dzp = dz + (size_t)(2 * j + 1) * DIM;
            for (int c = 0; c < DIM; c++) {
                dza[c] += (T)(ds * (double)zp[c]);
                dzp[c] += (T)(ds * (double)za[c]);
            }
        }
    }
    return loss;
}

template double info_nce<float>(const float *, int, double, float *);
template double info_nce<double>(const double *, int, double, double *);

} // namespace trn_train
