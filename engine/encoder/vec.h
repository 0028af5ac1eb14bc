/*
** vec.h -- the vector routines (vec.cpp). Stride 1 everywhere; results equal the naive loops up
** to float rounding. Written so the compiler vectorises them.
*/
#ifndef TRN_VEC_H
#define TRN_VEC_H

#include <cstddef>

float vec_dot(const float *a, const float *b, size_t n);          // sum a[i] * b[i]
float vec_sum(const float *a, size_t n);                          // sum a[i]
float vec_sumsq(const float *a, size_t n);                        // sum a[i]^2
float vec_mean(const float *a, size_t n);                         // sum a[i] / n
float vec_meansq(const float *a, size_t n);                       // sum a[i]^2 / n
float vec_max(const float *a, size_t n);                          // max a[i]
void vec_add(const float *a, const float *b, float *c, size_t n); // c[i] = a[i] + b[i]
void vec_smul(const float *a, float s, float *c, size_t n);       // c[i] = a[i] * s
void vec_tanh(float *x, size_t n);                                // x[i] = tanh(x[i])
/* The encoder's row passes, each one pass over the data (a compiler that contracts a * b + c
** rounds those once):
**   x[i] = e^(x[i] - shift), returning the sum of the results as vec_sum adds them; */
float vec_exp_sum(float *x, float shift, size_t n);
/*   h[i] = gelu(h[i] + b[i]) with gelu(t) = 0.5 t (1 + tanh(sqrt(2/pi) (t + 0.044715 t^3)));  */
void vec_bias_gelu(float *h, const float *b, size_t n);
/*   c[i] = (a[i] - mean) * scale * gamma[i] + beta[i], a layer norm's output (c may be a). */
void vec_norm_affine(const float *a, float mean, float scale, const float *gamma, const float *beta,
                     float *c, size_t n);
/* Scales x to unit length when its sum of squares exceeds 1e-24; else leaves it. */
void vec_normalize(float *x, size_t n);

/* C = alpha * op(A) * op(B) + beta * C, row-major, through cblas_sgemm. */
void sgemm(bool trans_a, bool trans_b, int m, int n, int k, float alpha, const float *a, int lda,
           const float *b, int ldb, float beta, float *c, int ldc);

#endif /* TRN_VEC_H */
