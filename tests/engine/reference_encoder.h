/*
** reference_encoder.h -- the encoder written out with plain loops in double precision: what the
** engine's forward pass is checked against (encoder tests), and what the trainer's backward pass
** is differentiated against (gradient check).
*/
#ifndef TRN_TESTS_REFERENCE_ENCODER_H
#define TRN_TESTS_REFERENCE_ENCODER_H

#include "internal.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace reference
{

constexpr int D = TRN_ENCODER_DIM;
constexpr int F = TRN_ENCODER_FF;
constexpr int H = TRN_ENCODER_HEADS;
constexpr int HD = TRN_ENCODER_HEAD_DIM;

using Matrix = std::vector<double>; // row-major, rows x cols given by the caller

// out[n x cols] = a[n x inner] * w[inner x cols] (+ bias), double accumulation.
inline Matrix matmul(const Matrix &a, int n, int inner, const float *w, int cols,
                     const float *bias = nullptr)
{
    Matrix out((size_t)n * cols, 0.0);
    for (int i = 0; i < n; i++) {
        double *row = &out[(size_t)i * cols];
        for (int k = 0; k < inner; k++) {
            double av = a[(size_t)i * inner + k];
            const float *wrow = w + (size_t)k * cols;
            for (int j = 0; j < cols; j++) {
                row[j] += av * wrow[j];
            }
        }
        if (bias) {
            for (int j = 0; j < cols; j++) {
                row[j] += bias[j];
            }
        }
    }
    return out;
}

inline Matrix layerNorm(const Matrix &x, int n, const float *gamma, const float *beta)
{
    Matrix out(x.size());
    for (int i = 0; i < n; i++) {
        const double *row = &x[(size_t)i * D];
        double mean = 0, var = 0;
        for (int j = 0; j < D; j++) {
            mean += row[j];
        }
        mean /= D;
        for (int j = 0; j < D; j++) {
            var += (row[j] - mean) * (row[j] - mean);
        }
        var /= D;
        double inv = 1.0 / std::sqrt(var + 1e-5);
        for (int j = 0; j < D; j++) {
            out[(size_t)i * D + j] = (row[j] - mean) * inv * gamma[j] + beta[j];
        }
    }
    return out;
}

// The encoder written out with plain loops in double precision.
inline std::vector<double> referenceEmbed(const TrnEncoder *enc, const std::vector<uint32_t> &ids)
{
    const int n = (int)ids.size();
    Matrix x((size_t)n * D);
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < D; j++) {
            x[(size_t)i * D + j] =
                (double)enc->tok_emb[(size_t)ids[i] * D + j] + enc->pos_emb[(size_t)i * D + j];
        }
    }
    for (const TrnEncoderLayer &l : enc->layers) {
        Matrix xn = layerNorm(x, n, l.ln1_gamma, l.ln1_beta);
        Matrix q = matmul(xn, n, D, l.wq, D);
        Matrix k = matmul(xn, n, D, l.wk, D);
        Matrix v = matmul(xn, n, D, l.wv, D);
        Matrix heads((size_t)n * D, 0.0);
        std::vector<double> p(n);
        for (int h = 0; h < H; h++) {
            for (int i = 0; i < n; i++) {
                double max = -INFINITY;
                for (int j = 0; j < n; j++) {
                    double s = 0;
                    for (int d = 0; d < HD; d++) {
                        s += q[(size_t)i * D + h * HD + d] * k[(size_t)j * D + h * HD + d];
                    }
                    p[j] = s / std::sqrt((double)HD);
                    max = std::max(max, p[j]);
                }
                double sum = 0;
                for (int j = 0; j < n; j++) {
                    p[j] = std::exp(p[j] - max);
                    sum += p[j];
                }
                for (int j = 0; j < n; j++) {
                    for (int d = 0; d < HD; d++) {
                        heads[(size_t)i * D + h * HD + d] +=
                            p[j] / sum * v[(size_t)j * D + h * HD + d];
                    }
                }
            }
        }
        Matrix proj = matmul(heads, n, D, l.wo, D);
        for (size_t i = 0; i < x.size(); i++) {
            x[i] += proj[i];
        }
        xn = layerNorm(x, n, l.ln2_gamma, l.ln2_beta);
        Matrix hidden = matmul(xn, n, D, l.w1, F, l.b1);
        for (double &h : hidden) {
            h = 0.5 * h * (1.0 + std::tanh(std::sqrt(2.0 / M_PI) * (h + 0.044715 * h * h * h)));
        }
        Matrix ff = matmul(hidden, n, F, l.w2, D, l.b2);
        for (size_t i = 0; i < x.size(); i++) {
            x[i] += ff[i];
        }
    }
    x = layerNorm(x, n, enc->ln_f_gamma, enc->ln_f_beta);
    std::vector<double> out(D, 0.0);
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < D; j++) {
            out[j] += x[(size_t)i * D + j] / n;
        }
    }
    double s = 0;
    for (double v : out) {
        s += v * v;
    }
    for (double &v : out) {
        v /= std::sqrt(s);
    }
    return out;
}

} // namespace reference

using reference::referenceEmbed;

#endif
