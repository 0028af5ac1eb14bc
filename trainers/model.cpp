/*
** model.cpp -- forward and backward pass of the encoder, and the InfoNCE loss.
**
** Forward, per layer, for the stacked tokens X (one row per token):
**   A = LN1(X); Q, K, V = A Wq, A Wk, A Wv
**   per sequence and head: P = softmax(0.125 Q_h K_h^T); C_h = P V_h
**   M = X + C Wo; B = LN2(M); H = B W1 + b1; G = gelu(H); X' = M + (G W2 + b2)
** then Y = LNf(X), e = mean of the sequence's rows of Y, z = e / |e|.
**
** Backward runs the same steps in reverse; every matrix product, forward or backward, goes
** through gemm() below (cblas_sgemm for float), which also counts its floating-point work.
*/
#include "model.h"

#include "internal.h"

#include <cblas.h>

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

void gemm_raw(bool ta, bool tb, int m, int n, int k, float alpha, const float *a, int lda,
              const float *b, int ldb, float beta, float *c, int ldc)
{
    sgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

void gemm_raw(bool ta, bool tb, int m, int n, int k, double alpha, const double *a, int lda,
              const double *b, int ldb, double beta, double *c, int ldc)
{
    cblas_dgemm(CblasRowMajor,
                ta ? CblasTrans : CblasNoTrans,
                tb ? CblasTrans : CblasNoTrans,
                m,
                n,
                k,
                alpha,
                a,
                lda,
                b,
                ldb,
                beta,
                c,
                ldc);
}

template <typename T>
void gemm(Activations<T> &acts, bool ta, bool tb, int m, int n, int k, T alpha, const T *a, int lda,
          const T *b, int ldb, T beta, T *c, int ldc)
{
    acts.flops += 2.0 * m * n * k;
    if (acts.shapes) {
        acts.shapes->push_back(GemmShape{ta, tb, m, n, k});
    }
    gemm_raw(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

inline float tanh_of(float x)
{
    return fast_tanhf(x);
}
inline double tanh_of(double x)
{
    return std::tanh(x);
}
inline float exp_of(float x)
{
    return fast_expf(x);
}
inline double exp_of(double x)
{
    return std::exp(x);
}

/* The engine's layer norm over rows of 512: variance as mean of squares minus squared mean,
** clamped at 0. Saves mean and 1/sqrt(var + eps) per row for the backward pass. */
template <typename T>
void layer_norm_forward(const T *x, const T *gamma, const T *beta, T *y, T *mean_out, T *rstd_out,
                        int rows)
{
    for (int r = 0; r < rows; r++) {
        const T *xr = x + (size_t)r * DIM;
        T *yr = y + (size_t)r * DIM;
        T sum = 0, sumsq = 0;
        for (int c = 0; c < DIM; c++) {
            sum += xr[c];
            sumsq += xr[c] * xr[c];
        }
        T mean = sum / (T)DIM;
        T var = sumsq / (T)DIM - mean * mean;
        if (var < 0) {
            var = 0;
        }
        T rstd = (T)1 / std::sqrt(var + (T)LN_EPS);
        for (int c = 0; c < DIM; c++) {
            yr[c] = (xr[c] - mean) * rstd * gamma[c] + beta[c];
        }
        mean_out[r] = mean;
        rstd_out[r] = rstd;
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

template <typename T>
void gelu_forward(const T *h, T *g, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        T x = h[i];
        T t = tanh_of((T)GELU_C * (x + (T)GELU_A * x * x * x));
        g[i] = (T)0.5 * x * ((T)1 + t);
    }
}

/* dh = dg * gelu'(h), in place over dg. */
template <typename T>
void gelu_backward(const T *h, T *d, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        T x = h[i];
        T t = tanh_of((T)GELU_C * (x + (T)GELU_A * x * x * x));
        T du = (T)GELU_C * ((T)1 + (T)3 * (T)GELU_A * x * x);
        d[i] *= (T)0.5 * ((T)1 + t) + (T)0.5 * x * ((T)1 - t * t) * du;
    }
}

template <typename T>
void softmax_rows(T *s, int rows, int cols)
{
    for (int r = 0; r < rows; r++) {
        T *row = s + (size_t)r * cols;
        T mx = row[0];
        for (int c = 1; c < cols; c++) {
            mx = row[c] > mx ? row[c] : mx;
        }
        for (int c = 0; c < cols; c++) {
            row[c] = exp_of(row[c] - mx);
        }
        T sum = 0;
        for (int c = 0; c < cols; c++) {
            sum += row[c];
        }
        T scale = sum > 0 ? (T)1 / sum : (T)1;
        for (int c = 0; c < cols; c++) {
            row[c] *= scale;
        }
    }
}

template <typename T>
void add_bias_rows(T *x, const T *bias, int rows, int cols)
{
    for (int r = 0; r < rows; r++) {
        T *row = x + (size_t)r * cols;
        for (int c = 0; c < cols; c++) {
            row[c] += bias[c];
        }
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

template <typename T>
void reserve(Activations<T> &acts, const SeqBatch &batch)
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
}

} // namespace

/* Rational approximation of tanh on [-7.9, 7.9] (the form used by several numeric libraries);
** beyond that tanh is 1 to within float rounding. Branch-free so loops over it vectorise. */
float fast_tanhf(float x)
{
    const float clamp = 7.90531110763549805f;
    x = x > clamp ? clamp : x;
    x = x < -clamp ? -clamp : x;
    const float x2 = x * x;
    float p = -2.76076847742355e-16f;
    p = p * x2 + 2.00018790482477e-13f;
    p = p * x2 + -8.60467152213735e-11f;
    p = p * x2 + 5.12229709037114e-08f;
    p = p * x2 + 1.48572235717979e-05f;
    p = p * x2 + 6.37261928875436e-04f;
    p = p * x2 + 4.89352455891786e-03f;
    p = p * x;
    float q = 1.19825839466702e-06f;
    q = q * x2 + 1.18534705686654e-04f;
    q = q * x2 + 2.26843463243900e-03f;
    q = q * x2 + 4.89352518554385e-03f;
    return p / q;
}

/* exp by range reduction to x = n ln2 + r, |r| <= ln2 / 2, a degree-6 polynomial for e^r (the
** Cephes coefficients) and 2^n built in the exponent bits. Inputs are clamped to the range whose
** result is a normal float. */
float fast_expf(float x)
{
    x = x > 88.3762626647949f ? 88.3762626647949f : x;
    x = x < -87.3365447505531f ? -87.3365447505531f : x;
    float n = std::floor(x * 1.44269504088896341f + 0.5f);
    float r = x - n * 0.693359375f;
    r = r - n * -2.12194440e-4f;
    float p = 1.9875691500e-4f;
    p = p * r + 1.3981999507e-3f;
    p = p * r + 8.3334519073e-3f;
    p = p * r + 4.1665795894e-2f;
    p = p * r + 1.6666665459e-1f;
    p = p * r + 5.0000001201e-1f;
    p = p * r * r + r + 1.0f;
    int32_t bits = ((int32_t)n + 127) << 23;
    float scale;
    memcpy(&scale, &bits, sizeof scale);
    return p * scale;
}

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

template <typename T>
void model_forward(const ParamLayout &layout, const T *params, const SeqBatch &batch,
                   Activations<T> &acts, T *z)
{
    reserve(acts, batch);
    const int ntok = batch.tokens();
    const int nseq = batch.count();
    const T *tok = params + layout.offset[TENSOR_TOK];
    const T *pos = params + layout.offset[TENSOR_POS];

    T *x0 = acts.x[0].data();
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        for (int i = 0; i < n; i++) {
            const T *te = tok + (size_t)batch.ids[first + i] * DIM;
            const T *pe = pos + (size_t)i * DIM;
            T *row = x0 + (size_t)(first + i) * DIM;
            for (int c = 0; c < DIM; c++) {
                row[c] = te[c] + pe[c];
            }
        }
    }

    for (int l = 0; l < LAYERS; l++) {
        const T *w[LAYER_TENSORS];
        for (int i = 0; i < LAYER_TENSORS; i++) {
            w[i] = params + layout.offset[layer_tensor(l, i)];
        }
        const T *xin = acts.x[l].data();
        T *a = acts.a[l].data(), *q = acts.q[l].data(), *k = acts.k[l].data();
        T *v = acts.v[l].data(), *ctx = acts.ctx[l].data(), *mid = acts.mid[l].data();
        T *bn = acts.b[l].data(), *h = acts.h[l].data(), *g = acts.g[l].data();
        T *xout = acts.x[l + 1].data();

        layer_norm_forward(xin,
                           w[LT_LN1_G],
                           w[LT_LN1_B],
                           a,
                           acts.ln1_mean[l].data(),
                           acts.ln1_rstd[l].data(),
                           ntok);
        gemm<T>(acts, false, false, ntok, DIM, DIM, 1, a, DIM, w[LT_WQ], DIM, 0, q, DIM);
        gemm<T>(acts, false, false, ntok, DIM, DIM, 1, a, DIM, w[LT_WK], DIM, 0, k, DIM);
        gemm<T>(acts, false, false, ntok, DIM, DIM, 1, a, DIM, w[LT_WV], DIM, 0, v, DIM);
        for (int s = 0; s < nseq; s++) {
            int first = batch.start[s], n = batch.start[s + 1] - first;
            size_t row0 = (size_t)first * DIM;
            for (int hd = 0; hd < HEADS; hd++) {
                T *p = acts.probs[l].data() + acts.prob_offset[s] + (size_t)hd * n * n;
                size_t col = (size_t)hd * HEAD_DIM;
                gemm<T>(acts,
                        false,
                        true,
                        n,
                        n,
                        HEAD_DIM,
                        (T)0.125,
                        q + row0 + col,
                        DIM,
                        k + row0 + col,
                        DIM,
                        0,
                        p,
                        n);
                softmax_rows(p, n, n);
                gemm<T>(acts,
                        false,
                        false,
                        n,
                        HEAD_DIM,
                        n,
                        1,
                        p,
                        n,
                        v + row0 + col,
                        DIM,
                        0,
                        ctx + row0 + col,
                        DIM);
            }
        }
        gemm<T>(acts, false, false, ntok, DIM, DIM, 1, ctx, DIM, w[LT_WO], DIM, 0, mid, DIM);
        for (size_t i = 0; i < (size_t)ntok * DIM; i++) {
            mid[i] = xin[i] + mid[i];
        }
        layer_norm_forward(mid,
                           w[LT_LN2_G],
                           w[LT_LN2_B],
                           bn,
                           acts.ln2_mean[l].data(),
                           acts.ln2_rstd[l].data(),
                           ntok);
        gemm<T>(acts, false, false, ntok, FF, DIM, 1, bn, DIM, w[LT_W1], FF, 0, h, FF);
        add_bias_rows(h, w[LT_B1], ntok, FF);
        gelu_forward(h, g, (size_t)ntok * FF);
        gemm<T>(acts, false, false, ntok, DIM, FF, 1, g, FF, w[LT_W2], DIM, 0, xout, DIM);
        add_bias_rows(xout, w[LT_B2], ntok, DIM);
        for (size_t i = 0; i < (size_t)ntok * DIM; i++) {
            xout[i] = mid[i] + xout[i];
        }
    }

    layer_norm_forward(acts.x[LAYERS].data(),
                       params + layout.offset[TENSOR_LNF_G],
                       params + layout.offset[TENSOR_LNF_B],
                       acts.y.data(),
                       acts.lnf_mean.data(),
                       acts.lnf_rstd.data(),
                       ntok);
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        T *e = acts.pooled.data() + (size_t)s * DIM;
        for (int c = 0; c < DIM; c++) {
            e[c] = 0;
        }
        for (int i = 0; i < n; i++) {
            const T *row = acts.y.data() + (size_t)(first + i) * DIM;
            for (int c = 0; c < DIM; c++) {
                e[c] += row[c];
            }
        }
        const T inv_n = (T)1 / (T)n;
        T sumsq = 0;
        for (int c = 0; c < DIM; c++) {
            e[c] *= inv_n;
            sumsq += e[c] * e[c];
        }
        T norm = std::sqrt(sumsq);
        acts.norm[s] = norm;
        T *zs = acts.z.data() + (size_t)s * DIM;
        T scale = norm > (T)1e-12 ? (T)1 / norm : (T)1;
        for (int c = 0; c < DIM; c++) {
            zs[c] = e[c] * scale;
        }
    }
    memcpy(z, acts.z.data(), (size_t)nseq * DIM * sizeof(T));
}

template <typename T>
void model_backward(const ParamLayout &layout, const T *params, const SeqBatch &batch,
                    Activations<T> &acts, const T *dz, T *grad)
{
    const int ntok = batch.tokens();
    const int nseq = batch.count();
    T *dx = acts.dx.data();
    T *dtmp = acts.dtmp.data();

    /* Normalisation and pooling: dy of every row of sequence s is de / n. */
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        const T *zs = acts.z.data() + (size_t)s * DIM;
        const T *dzs = dz + (size_t)s * DIM;
        T de[DIM];
        T norm = acts.norm[s];
        if (norm > (T)1e-12) {
            T dot = 0;
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
        const T inv_n = (T)1 / (T)n;
        for (int i = 0; i < n; i++) {
            T *row = dtmp + (size_t)(first + i) * DIM;
            for (int c = 0; c < DIM; c++) {
                row[c] = de[c] * inv_n;
            }
        }
    }
    memset(dx, 0, (size_t)ntok * DIM * sizeof(T));
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
        const T *w[LAYER_TENSORS];
        T *gw[LAYER_TENSORS];
        for (int i = 0; i < LAYER_TENSORS; i++) {
            w[i] = params + layout.offset[layer_tensor(l, i)];
            gw[i] = grad + layout.offset[layer_tensor(l, i)];
        }
        const T *a = acts.a[l].data(), *q = acts.q[l].data(), *k = acts.k[l].data();
        const T *v = acts.v[l].data(), *ctx = acts.ctx[l].data();
        const T *bn = acts.b[l].data(), *h = acts.h[l].data(), *g = acts.g[l].data();
        T *dh = acts.dh.data(), *dq = acts.dq.data(), *dk = acts.dk.data();
        T *dv = acts.dv.data(), *dctx = acts.dctx.data();

        /* X' = M + G W2 + b2: dx is dX' and, through the residual, part of dM. */
        gemm<T>(acts, true, false, FF, DIM, ntok, 1, g, FF, dx, DIM, 1, gw[LT_W2], DIM);
        sum_rows_into(dx, gw[LT_B2], ntok, DIM);
        gemm<T>(acts, false, true, ntok, FF, DIM, 1, dx, DIM, w[LT_W2], DIM, 0, dh, FF);
        gelu_backward(h, dh, (size_t)ntok * FF);
        gemm<T>(acts, true, false, DIM, FF, ntok, 1, bn, DIM, dh, FF, 1, gw[LT_W1], FF);
        sum_rows_into(dh, gw[LT_B1], ntok, FF);
        gemm<T>(acts, false, true, ntok, DIM, FF, 1, dh, FF, w[LT_W1], FF, 0, dtmp, DIM);
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
        gemm<T>(acts, true, false, DIM, DIM, ntok, 1, ctx, DIM, dx, DIM, 1, gw[LT_WO], DIM);
        gemm<T>(acts, false, true, ntok, DIM, DIM, 1, dx, DIM, w[LT_WO], DIM, 0, dctx, DIM);
        for (int s = 0; s < nseq; s++) {
            int first = batch.start[s], n = batch.start[s + 1] - first;
            size_t row0 = (size_t)first * DIM;
            for (int hd = 0; hd < HEADS; hd++) {
                const T *p = acts.probs[l].data() + acts.prob_offset[s] + (size_t)hd * n * n;
                T *dp = acts.dp.data();
                size_t col = (size_t)hd * HEAD_DIM;
                gemm<T>(acts,
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
                gemm<T>(acts,
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
                    const T *pr = p + (size_t)r * n;
                    T *dr = dp + (size_t)r * n;
                    T dot = 0;
                    for (int c = 0; c < n; c++) {
                        dot += pr[c] * dr[c];
                    }
                    for (int c = 0; c < n; c++) {
                        dr[c] = pr[c] * (dr[c] - dot);
                    }
                }
                gemm<T>(acts,
                        false,
                        false,
                        n,
                        HEAD_DIM,
                        n,
                        (T)0.125,
                        dp,
                        n,
                        k + row0 + col,
                        DIM,
                        0,
                        dq + row0 + col,
                        DIM);
                gemm<T>(acts,
                        true,
                        false,
                        n,
                        HEAD_DIM,
                        n,
                        (T)0.125,
                        dp,
                        n,
                        q + row0 + col,
                        DIM,
                        0,
                        dk + row0 + col,
                        DIM);
            }
        }
        gemm<T>(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dq, DIM, 1, gw[LT_WQ], DIM);
        gemm<T>(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dk, DIM, 1, gw[LT_WK], DIM);
        gemm<T>(acts, true, false, DIM, DIM, ntok, 1, a, DIM, dv, DIM, 1, gw[LT_WV], DIM);
        gemm<T>(acts, false, true, ntok, DIM, DIM, 1, dq, DIM, w[LT_WQ], DIM, 0, dtmp, DIM);
        gemm<T>(acts, false, true, ntok, DIM, DIM, 1, dk, DIM, w[LT_WK], DIM, 1, dtmp, DIM);
        gemm<T>(acts, false, true, ntok, DIM, DIM, 1, dv, DIM, w[LT_WV], DIM, 1, dtmp, DIM);
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

    T *gtok = grad + layout.offset[TENSOR_TOK];
    T *gpos = grad + layout.offset[TENSOR_POS];
    for (int s = 0; s < nseq; s++) {
        int first = batch.start[s], n = batch.start[s + 1] - first;
        for (int i = 0; i < n; i++) {
            const T *row = dx + (size_t)(first + i) * DIM;
            T *gt = gtok + (size_t)batch.ids[first + i] * DIM;
            T *gp = gpos + (size_t)i * DIM;
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

template void model_forward<float>(const ParamLayout &, const float *, const SeqBatch &,
                                   Activations<float> &, float *);
template void model_forward<double>(const ParamLayout &, const double *, const SeqBatch &,
                                    Activations<double> &, double *);
template void model_backward<float>(const ParamLayout &, const float *, const SeqBatch &,
                                    Activations<float> &, const float *, float *);
template void model_backward<double>(const ParamLayout &, const double *, const SeqBatch &,
                                     Activations<double> &, const double *, double *);
template double info_nce<float>(const float *, int, double, float *);
template double info_nce<double>(const double *, int, double, double *);

} // namespace trn_train
