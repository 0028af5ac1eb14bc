/*
** vec.cpp -- the engine's vector routines and its one matrix-product entry point.
**
** Each routine is a plain loop over float arrays, written so that GCC vectorises it at -O2/-O3
** (no aliasing between in- and outputs is assumed where the contract allows in-place use, so the
** loops read each element once before writing it). Reductions keep several partial sums so the
** compiler may reorder them; results equal a naive loop up to float rounding.
**
** exp and tanh never call libm per element: they work on eight floats at a time with
** GCC vector extensions (which GCC maps onto whatever SIMD width -march allows), using the
** classic range reduction and minimax polynomials of the Cephes library's expf and tanhf. Both
** stay within a few ulp of libm over the whole float line; exp gives subnormal results down to
** the underflow limit and 0 below it, as libm does, so very negative softmax inputs become 0.
** The encoder's softmax, GELU and layer norm each take one pass over a row (vec_exp_sum,
** vec_bias_gelu, vec_norm_affine) rather than one per operation.
*/
#include "internal.h"

#include <cblas.h>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace
{

typedef float f32x8 __attribute__((vector_size(32)));
typedef int32_t i32x8 __attribute__((vector_size(32)));
constexpr size_t LANES = 8;
constexpr float GELU_C = 0.044715f;
constexpr float SQRT_2_OVER_PI = 0.7978846f;

inline f32x8 splat(float v)
{
    return f32x8{v, v, v, v, v, v, v, v};
}

inline f32x8 load8(const float *p)
{
    f32x8 v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline void store8(float *p, f32x8 v)
{
    memcpy(p, &v, sizeof v);
}

inline f32x8 blend(i32x8 mask, f32x8 a, f32x8 b)
{
    return mask ? a : b;
}

/* e^x for eight lanes. x = n*ln2 + r with |r| <= ln2/2 (ln2 split in two parts so n*ln2 is
** exact), e^r from a degree-6 polynomial, 2^n built in the exponent bits. n comes from the
** 1.5*2^23 rounding trick, so no float-to-int conversion sees a NaN or an infinity. */
inline f32x8 exp8(f32x8 x)
{
    const f32x8 hi = splat(88.72283935546875f);   // largest x with a finite e^x
    const f32x8 lo = splat(-104.0f);              // below ln(2^-150): e^x rounds to 0
    const f32x8 round_magic = splat(12582912.0f); // 1.5 * 2^23
    f32x8 c = x;
    c = blend(c > hi, hi, c);
    c = blend(c < lo, lo, c);

    f32x8 t = c * splat(1.44269504088896341f) + round_magic;
    i32x8 n_bits;
    memcpy(&n_bits, &t, sizeof t);
    f32x8 n = t - round_magic;
    f32x8 r = c - n * splat(0.693359375f);
    r = r - n * splat(-2.12194440e-4f);

    f32x8 p = splat(1.9875691500e-4f);
    p = p * r + splat(1.3981999507e-3f);
    p = p * r + splat(8.3334519073e-3f);
    p = p * r + splat(4.1665795894e-2f);
    p = p * r + splat(1.6666665459e-1f);
    p = p * r + splat(5.0000001201e-1f);
    p = p * (r * r) + r + splat(1.0f);

    // The low mantissa bits of t hold n (as a two's-complement offset from the magic number).
    // n lies in -150..128, beyond the normal exponents, so 2^n is applied as two normal factors
    // 2^a * 2^b; the second product rounds once, into a subnormal where the result is one.
    i32x8 magic_bits;
    memcpy(&magic_bits, &round_magic, sizeof magic_bits);
    i32x8 n_int = n_bits - magic_bits;
    i32x8 a = n_int >> 1;
    i32x8 b = n_int - a;
    i32x8 a_bits = (a + 127) << 23;
    i32x8 b_bits = (b + 127) << 23;
    f32x8 scale_a, scale_b;
    memcpy(&scale_a, &a_bits, sizeof scale_a);
    memcpy(&scale_b, &b_bits, sizeof scale_b);
    f32x8 y = (p * scale_a) * scale_b;
    y = blend(x > hi, splat(INFINITY), y);
    y = blend(x < lo, splat(0.0f), y);
    return y;
}

/* tanh for eight lanes: an odd polynomial below |x| = 0.625, 1 - 2/(e^2|x| + 1) above it with
** the sign put back; e^2|x| saturates to infinity, which gives exactly 1. */
inline f32x8 tanh8(f32x8 x)
{
    f32x8 ax = blend(x < 0.0f, -x, x);

    f32x8 z = x * x;
    f32x8 p = splat(-5.70498872745e-3f);
    p = p * z + splat(2.06390887954e-2f);
    p = p * z - splat(5.37397155531e-2f);
    p = p * z + splat(1.33314422036e-1f);
    p = p * z - splat(3.33332819422e-1f);
    f32x8 small = p * z * x + x;

    f32x8 e = exp8(ax + ax);
    f32x8 large = splat(1.0f) - splat(2.0f) / (e + splat(1.0f));
    large = blend(x < 0.0f, -large, large);

    return blend(ax < 0.625f, small, large);
}

/* Applies f to n floats in place, eight at a time; the tail goes through a padded block so it
** gets exactly the same arithmetic as the body. */
template <typename F>
inline void map8(float *x, size_t n, F f)
{
    size_t i = 0;
    for (; i + LANES <= n; i += LANES) {
        store8(x + i, f(load8(x + i)));
    }
    if (i < n) {
        float block[LANES] = {0, 0, 0, 0, 0, 0, 0, 0};
        memcpy(block, x + i, (n - i) * sizeof(float));
        store8(block, f(load8(block)));
        memcpy(x + i, block, (n - i) * sizeof(float));
    }
}

} // namespace

float vec_dot(const float *a, const float *b, size_t n)
{
    // Four independent 8-wide accumulators hide the latency of the multiply-adds; a single
    // array accumulator makes GCC shuffle lanes on wider vector units.
    f32x8 acc0 = splat(0.0f), acc1 = splat(0.0f), acc2 = splat(0.0f), acc3 = splat(0.0f);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        acc0 += load8(a + i) * load8(b + i);
        acc1 += load8(a + i + 8) * load8(b + i + 8);
        acc2 += load8(a + i + 16) * load8(b + i + 16);
        acc3 += load8(a + i + 24) * load8(b + i + 24);
    }
    for (; i + 8 <= n; i += 8) {
        acc0 += load8(a + i) * load8(b + i);
    }
    f32x8 acc = (acc0 + acc1) + (acc2 + acc3);
    float s = 0.0f;
    for (; i < n; i++) {
        s += a[i] * b[i];
    }
    for (int j = 0; j < 8; j++) {
        s += acc[j];
    }
    return s;
}

float vec_sum(const float *a, size_t n)
{
    float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int j = 0; j < 8; j++) {
            acc[j] += a[i + j];
        }
    }
    float s = 0.0f;
    for (; i < n; i++) {
        s += a[i];
    }
    for (int j = 0; j < 8; j++) {
        s += acc[j];
    }
    return s;
}

float vec_sumsq(const float *a, size_t n)
{
    return vec_dot(a, a, n);
}

float vec_mean(const float *a, size_t n)
{
    return n ? vec_sum(a, n) / (float)n : 0.0f;
}

float vec_meansq(const float *a, size_t n)
{
    return n ? vec_sumsq(a, n) / (float)n : 0.0f;
}

float vec_max(const float *a, size_t n)
{
    if (n == 0) {
        return -INFINITY;
    }
    float acc[8];
    for (int j = 0; j < 8; j++) {
        acc[j] = a[0];
    }
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int j = 0; j < 8; j++) {
            acc[j] = a[i + j] > acc[j] ? a[i + j] : acc[j];
        }
    }
    float m = acc[0];
    for (int j = 1; j < 8; j++) {
        m = acc[j] > m ? acc[j] : m;
    }
    for (; i < n; i++) {
        m = a[i] > m ? a[i] : m;
    }
    return m;
}

void vec_add(const float *a, const float *b, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] + b[i];
    }
}

void vec_smul(const float *a, float s, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] * s;
    }
}

void vec_tanh(float *x, size_t n)
{
    map8(x, n, tanh8);
}

float vec_exp_sum(float *x, float shift, size_t n)
{
    const f32x8 s = splat(shift);
    f32x8 acc = splat(0.0f);
    size_t i = 0;
    for (; i + LANES <= n; i += LANES) {
        f32x8 e = exp8(load8(x + i) - s);
        store8(x + i, e);
        acc += e;
    }
    float sum = 0.0f;
    if (i < n) {
        float block[LANES] = {0, 0, 0, 0, 0, 0, 0, 0};
        memcpy(block, x + i, (n - i) * sizeof(float));
        store8(block, exp8(load8(block) - s));
        memcpy(x + i, block, (n - i) * sizeof(float));
        for (size_t j = 0; j < n - i; j++) {
            sum += block[j];
        }
    }
    for (size_t j = 0; j < LANES; j++) {
        sum += acc[j];
    }
    return sum;
}

void vec_bias_gelu(float *h, const float *b, size_t n)
{
    const auto gelu = [](f32x8 t) {
        f32x8 inner = (t + t * t * t * splat(GELU_C)) * splat(SQRT_2_OVER_PI);
        return t * (tanh8(inner) + splat(1.0f)) * splat(0.5f);
    };
    size_t i = 0;
    for (; i + LANES <= n; i += LANES) {
        store8(h + i, gelu(load8(h + i) + load8(b + i)));
    }
    if (i < n) {
        float block[LANES] = {0, 0, 0, 0, 0, 0, 0, 0};
        for (size_t j = 0; j < n - i; j++) {
            block[j] = h[i + j] + b[i + j];
        }
        store8(block, gelu(load8(block)));
        memcpy(h + i, block, (n - i) * sizeof(float));
    }
}

void vec_norm_affine(const float *a, float mean, float scale, const float *gamma, const float *beta,
                     float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = (a[i] - mean) * scale * gamma[i] + beta[i];
    }
}

void vec_normalize(float *x, size_t n)
{
    float s = vec_sumsq(x, n);
    if (s > 1e-24f) {
        vec_smul(x, 1.0f / sqrtf(s), x, n);
    }
}

void sgemm(bool trans_a, bool trans_b, int m, int n, int k, float alpha, const float *a, int lda,
           const float *b, int ldb, float beta, float *c, int ldc)
{
    cblas_sgemm(CblasRowMajor,
                trans_a ? CblasTrans : CblasNoTrans,
                trans_b ? CblasTrans : CblasNoTrans,
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
