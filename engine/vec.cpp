/*
** vec.cpp -- the engine's vector routines and its one matrix-product entry point.
**
** Each routine is a plain loop over float arrays, written so that GCC vectorises it at -O2/-O3
** (no aliasing between in- and outputs is assumed where the contract allows in-place use, so the
** loops read each element once before writing it). Reductions keep several partial sums so the
** compiler may reorder them; results equal a naive loop up to float rounding.
*/
#include "internal.h"

#include <cblas.h>
#include <cmath>


float vec_dot(const float *a, const float *b, size_t n)
{
    float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int j = 0; j < 8; j++) {
            acc[j] += a[i + j] * b[i + j];
        }
    }
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

float vec_sumsq(const float *a, size_t n) { return vec_dot(a, a, n); }

float vec_mean(const float *a, size_t n) { return n ? vec_sum(a, n) / (float)n : 0.0f; }

float vec_meansq(const float *a, size_t n) { return n ? vec_sumsq(a, n) / (float)n : 0.0f; }

float vec_max(const float *a, size_t n)
{
    if (n == 0) {
        return -INFINITY;
    }
    float m = a[0];
    for (size_t i = 1; i < n; i++) {
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

void vec_mul(const float *a, const float *b, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] * b[i];
    }
}

void vec_sadd(const float *a, float s, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] + s;
    }
}

void vec_smul(const float *a, float s, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] * s;
    }
}

void vec_sq(const float *a, float *c, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        c[i] = a[i] * a[i];
    }
}

void vec_exp(float *x, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        x[i] = expf(x[i]);
    }
}

void vec_tanh(float *x, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        x[i] = tanhf(x[i]);
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
