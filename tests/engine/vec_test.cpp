// The vector routines against naive loops, and exp/tanh against libm.
#include "internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace
{

// Lengths around the eight-lane blocks and the unrolled reductions, including empty and odd.
const size_t kLengths[] = {0, 1, 3, 7, 8, 9, 15, 16, 17, 63, 512, 1001, 2048};

std::vector<float> randomFloats(size_t n, uint32_t seed, float lo = -4.0f, float hi = 4.0f)
{
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(n);
    for (float &x : v) {
        x = dist(gen);
    }
    return v;
}

// Distance in units in the last place between two finite floats of any sign.
int64_t ulpDistance(float a, float b)
{
    int32_t ia, ib;
    memcpy(&ia, &a, 4);
    memcpy(&ib, &b, 4);
    int64_t la = ia < 0 ? (int64_t)INT32_MIN - ia : ia;
    int64_t lb = ib < 0 ? (int64_t)INT32_MIN - ib : ib;
    return la > lb ? la - lb : lb - la;
}

TEST(VecReductions, MatchDoubleSumsAndTheMaximumForEveryLength)
{
    for (size_t n : kLengths) {
        std::vector<float> a = randomFloats(n, 1 + (uint32_t)n);
        std::vector<float> b = randomFloats(n, 1000 + (uint32_t)n);
        double dot = 0, sum = 0, sumsq = 0, scale = 1;
        for (size_t i = 0; i < n; i++) {
            dot += (double)a[i] * b[i];
            sum += a[i];
            sumsq += (double)a[i] * a[i];
            scale += std::fabs(a[i]) * (std::fabs(b[i]) + 1) + (double)a[i] * a[i];
        }
        double tol = 1e-6 * scale;
        EXPECT_NEAR(vec_dot(a.data(), b.data(), n), dot, tol) << "n=" << n;
        EXPECT_NEAR(vec_sum(a.data(), n), sum, tol) << "n=" << n;
        EXPECT_NEAR(vec_sumsq(a.data(), n), sumsq, tol) << "n=" << n;
        if (n > 0) {
            EXPECT_NEAR(vec_mean(a.data(), n), sum / n, tol / n) << "n=" << n;
            EXPECT_NEAR(vec_meansq(a.data(), n), sumsq / n, tol / n) << "n=" << n;
            for (size_t at : {(size_t)0, n / 2, n - 1}) { // the maximum anywhere, also in a tail
                std::vector<float> m = a;
                m[at] = 9.5f;
                EXPECT_EQ(vec_max(m.data(), n), 9.5f) << "n=" << n << " at=" << at;
            }
        }
    }
}

TEST(VecElementwise, MatchNaiveLoopsAndWorkInPlace)
{
    for (size_t n : kLengths) {
        std::vector<float> a = randomFloats(n, 11 + (uint32_t)n);
        std::vector<float> b = randomFloats(n, 22 + (uint32_t)n);
        std::vector<float> c(n + 1, 123.0f); // one guard element past the end
        const float s = 0.37f;

        vec_add(a.data(), b.data(), c.data(), n);
        for (size_t i = 0; i < n; i++) {
            ASSERT_EQ(c[i], a[i] + b[i]);
        }
        vec_smul(a.data(), s, c.data(), n);
        for (size_t i = 0; i < n; i++) {
            ASSERT_EQ(c[i], a[i] * s);
        }
        EXPECT_EQ(c[n], 123.0f) << "wrote past the end, n=" << n;

        std::vector<float> inplace = a;
        vec_add(inplace.data(), b.data(), inplace.data(), n);
        vec_smul(inplace.data(), s, inplace.data(), n);
        for (size_t i = 0; i < n; i++) {
            ASSERT_EQ(inplace[i], (a[i] + b[i]) * s);
        }
    }
}

// The encoder's row passes at every length: exp's sum as vec_sum adds the results; each result,
// GELU and a norm's output (in place) against double precision, since a fused loop may round
// a * b + c once.
TEST(VecRowPasses, MatchDoublePrecision)
{
    for (size_t n : kLengths) {
        std::vector<float> a = randomFloats(n, 31 + (uint32_t)n);
        std::vector<float> b = randomFloats(n, 41 + (uint32_t)n);
        std::vector<float> e = a, g = a, normed = a;
        const float sum = vec_exp_sum(e.data(), 1.5f, n);
        EXPECT_EQ(sum, vec_sum(e.data(), n)) << "n=" << n;
        vec_bias_gelu(g.data(), b.data(), n);
        vec_norm_affine(normed.data(), 0.25f, 1.75f, b.data(), a.data(), normed.data(), n);
        for (size_t i = 0; i < n; i++) {
            ASSERT_LE(ulpDistance(e[i], expf(a[i] - 1.5f)), 2) << "n=" << n << " i=" << i;
            double t = (double)a[i] + b[i];
            double gelu = 0.5 * t * (1 + std::tanh(0.7978846 * (t + 0.044715 * t * t * t)));
            ASSERT_NEAR(g[i], gelu, 1e-6 * (1 + std::fabs(gelu))) << "n=" << n << " i=" << i;
            double norm = (a[i] - 0.25) * 1.75 * b[i] + a[i];
            ASSERT_NEAR(normed[i], norm, 1e-6 * (1 + std::fabs(norm))) << "n=" << n << " i=" << i;
        }
    }
}

TEST(VecNormalize, ScalesToUnitLengthButLeavesTinyVectors)
{
    std::vector<float> a = randomFloats(512, 5);
    vec_normalize(a.data(), a.size());
    double norm = 0;
    for (float x : a) {
        norm += (double)x * x;
    }
    EXPECT_NEAR(std::sqrt(norm), 1.0, 1e-6);

    std::vector<float> tiny(512, 1e-14f);
    vec_normalize(tiny.data(), tiny.size());
    EXPECT_EQ(tiny[0], 1e-14f);
}

// Softmax feeds exp values <= 0 that reach far below the underflow limit (where the result must
// be exactly 0); GELU feeds tanh anything, and both ends must saturate exactly.
TEST(VecExp, StaysWithinTwoUlpOfLibmFromUnderflowToOverflow)
{
    std::vector<float> xs;
    for (float x = -110.0f; x <= 89.0f; x += 0.0137f) {
        xs.push_back(x);
    }
    for (float x : {0.0f,
                    -0.0f,
                    1e-30f,
                    -1e-30f,
                    88.72283f,
                    -87.33654f,
                    -103.97f,
                    -200.0f,
                    -1e30f,
                    -INFINITY,
                    89.0f,
                    INFINITY}) {
        xs.push_back(x);
    }
    std::vector<float> ys = xs;
    vec_exp_sum(ys.data(), 0.0f, ys.size());
    for (size_t i = 0; i < xs.size(); i++) {
        float ref = expf(xs[i]);
        ASSERT_LE(ulpDistance(ys[i], ref), 2)
            << "x=" << xs[i] << " got " << ys[i] << " libm " << ref;
    }
}

TEST(VecTanh, StaysWithinTwoUlpOfLibmOverTheWholeLine)
{
    std::vector<float> xs;
    for (float x = -12.0f; x <= 12.0f; x += 0.000731f) {
        xs.push_back(x);
    }
    for (float x = 1e-8f; x < 1.0f; x *= 1.7f) {
        xs.push_back(x);
        xs.push_back(-x);
    }
    for (float x : {0.0f,
                    -0.0f,
                    0.625f,
                    -0.625f,
                    0.62499f,
                    9.0f,
                    20.0f,
                    -50.0f,
                    1e30f,
                    -1e30f,
                    INFINITY,
                    -INFINITY}) {
        xs.push_back(x);
    }
    std::vector<float> ys = xs;
    vec_tanh(ys.data(), ys.size());
    for (size_t i = 0; i < xs.size(); i++) {
        float ref = tanhf(xs[i]);
        ASSERT_LE(ulpDistance(ys[i], ref), 2)
            << "x=" << xs[i] << " got " << ys[i] << " libm " << ref;
    }
}

TEST(VecExpTanh, TailElementsGetTheSameValuesAsFullBlocks)
{
    // The last n % 8 elements take a separate path; they must agree with the same inputs inside
    // a block and leave the memory after them alone.
    std::vector<float> block = randomFloats(16, 3, -3.0f, 3.0f);
    const auto exp = [](float *x, size_t n) {
        vec_exp_sum(x, 0.0f, n);
    };
    for (void (*fn)(float *, size_t) : {+exp, vec_tanh}) {
        for (size_t n = 1; n < 16; n++) {
            std::vector<float> part(block.begin(), block.begin() + n);
            std::vector<float> full = block;
            part.push_back(42.0f);
            fn(part.data(), n);
            fn(full.data(), full.size());
            for (size_t i = 0; i < n; i++) {
                ASSERT_EQ(part[i], full[i]) << "n=" << n << " i=" << i;
            }
            EXPECT_EQ(part[n], 42.0f);
        }
    }
}

TEST(Sgemm, MatchesNaiveProductsInEveryTransposeAndStride)
{
    const int m = 5, n = 7, k = 6;
    for (int ta = 0; ta < 2; ta++) {
        for (int tb = 0; tb < 2; tb++) {
            // Leading dimensions wider than needed, so a wrong stride reads the padding.
            const int lda = (ta ? m : k) + 3;
            const int ldb = (tb ? k : n) + 2;
            const int ldc = n + 4;
            std::vector<float> a = randomFloats((size_t)(ta ? k : m) * lda, 31);
            std::vector<float> b = randomFloats((size_t)(tb ? n : k) * ldb, 32);
            std::vector<float> c = randomFloats((size_t)m * ldc, 33);
            std::vector<float> c0 = c;
            const float alpha = 0.75f, beta = -0.5f;
            sgemm(ta, tb, m, n, k, alpha, a.data(), lda, b.data(), ldb, beta, c.data(), ldc);
            for (int i = 0; i < m; i++) {
                for (int j = 0; j < n; j++) {
                    double s = 0;
                    for (int p = 0; p < k; p++) {
                        double av = ta ? a[(size_t)p * lda + i] : a[(size_t)i * lda + p];
                        double bv = tb ? b[(size_t)j * ldb + p] : b[(size_t)p * ldb + j];
                        s += av * bv;
                    }
                    double want = alpha * s + beta * c0[(size_t)i * ldc + j];
                    ASSERT_NEAR(c[(size_t)i * ldc + j], want, 1e-4)
                        << "ta=" << ta << " tb=" << tb << " i=" << i << " j=" << j;
                }
                for (int j = n; j < ldc; j++) {
                    ASSERT_EQ(c[(size_t)i * ldc + j], c0[(size_t)i * ldc + j]);
                }
            }
        }
    }
}

} // namespace
