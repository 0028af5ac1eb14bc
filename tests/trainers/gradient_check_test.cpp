// The hand-written backward pass against central finite differences of the loss, in double
// precision, for every parameter tensor; and the float kernels the forward pass relies on.
#include "model.h"

#include <gtest/gtest.h>

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

using namespace trn_train;

namespace
{

struct Problem {
    ParamLayout layout = make_layout(TRN_ENCODER_BYTE_VOCAB);
    std::vector<double> params;
    SeqBatch batch;
    int pairs = 2;
};

// Random weights well away from the engine's tiny initial values, so attention is not uniform
// and every term of the backward pass carries weight; norm scales near 1 but not equal.
Problem make_problem(uint64_t seed)
{
    Problem p;
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    p.params.resize(p.layout.total);
    for (int t = 0; t < TENSOR_COUNT; t++) {
        int rel = (t - TENSOR_FIRST_LAYER) % LAYER_TENSORS;
        bool gamma =
            t == TENSOR_LNF_G || (t >= TENSOR_FIRST_LAYER && (rel == LT_LN1_G || rel == LT_LN2_G));
        double scale = tensor_is_matrix(t) ? 0.08 : 0.3;
        for (size_t i = 0; i < p.layout.size[t]; i++) {
            double v = u(rng) * scale;
            p.params[p.layout.offset[t] + i] = gamma ? 1.0 + v : v;
        }
    }
    // two pairs of short sequences of different lengths, framed like the engine's
    const int lengths[4] = {3, 6, 5, 2};
    for (int s = 0; s < 4; s++) {
        std::vector<uint32_t> ids;
        ids.push_back(TRN_TOKEN_BEGIN);
        for (int i = 0; i < lengths[s]; i++) {
            ids.push_back((uint32_t)(rng() % 256));
        }
        ids.push_back(TRN_TOKEN_END);
        p.batch.add(ids.data(), (int)ids.size());
    }
    return p;
}

double loss_of(const Problem &p, const std::vector<double> &params, Activations<double> &acts)
{
    std::vector<double> z((size_t)p.batch.count() * TRN_ENCODER_DIM);
    std::vector<double> dz(z.size());
    model_forward(p.layout, params.data(), p.batch, acts, z.data());
    return info_nce(z.data(), p.pairs, 0.05, dz.data());
}

} // namespace

TEST(GradientCheck, EveryTensorMatchesCentralDifferences)
{
    openblas_set_num_threads(1);
    Problem p = make_problem(7);
    Activations<double> acts;
    std::vector<double> z((size_t)p.batch.count() * TRN_ENCODER_DIM);
    std::vector<double> dz(z.size());
    model_forward(p.layout, p.params.data(), p.batch, acts, z.data());
    double loss = info_nce(z.data(), p.pairs, 0.05, dz.data());
    ASSERT_TRUE(std::isfinite(loss));
    std::vector<double> grad(p.layout.total, 0.0);
    model_backward(p.layout, p.params.data(), p.batch, acts, dz.data(), grad.data());

    // rows of the embeddings that the batch uses; other rows have no gradient
    std::vector<bool> tok_used(TRN_ENCODER_BYTE_VOCAB, false);
    for (uint32_t id : p.batch.ids) {
        tok_used[id] = true;
    }
    int max_len = 0;
    for (int s = 0; s < p.batch.count(); s++) {
        max_len = std::max(max_len, p.batch.start[s + 1] - p.batch.start[s]);
    }

    std::mt19937_64 rng(11);
    const double h = 1e-5;
    std::vector<double> work = p.params;
    for (int t = 0; t < TENSOR_COUNT; t++) {
        char name[64];
        tensor_name(t, name, sizeof name);
        const size_t off = p.layout.offset[t], size = p.layout.size[t];
        auto usable = [&](size_t i) {
            if (t == TENSOR_TOK) {
                return (bool)tok_used[i / TRN_ENCODER_DIM];
            }
            if (t == TENSOR_POS) {
                return (int)(i / TRN_ENCODER_DIM) < max_len;
            }
            return true;
        };
        // the entry with the largest gradient, and one drawn at random among usable ones
        std::vector<size_t> picks;
        size_t best = 0;
        for (size_t i = 0; i < size; i++) {
            if (std::fabs(grad[off + i]) > std::fabs(grad[off + best])) {
                best = i;
            }
        }
        picks.push_back(best);
        while (picks.size() < 2) {
            size_t i = rng() % size;
            if (usable(i)) {
                picks.push_back(i);
            }
        }
        EXPECT_GT(std::fabs(grad[off + best]), 1e-7) << name << " has no gradient at all";
        for (size_t i : picks) {
            work[off + i] = p.params[off + i] + h;
            double up = loss_of(p, work, acts);
            work[off + i] = p.params[off + i] - h;
            double down = loss_of(p, work, acts);
            work[off + i] = p.params[off + i];
            double numeric = (up - down) / (2 * h);
            double analytic = grad[off + i];
            double scale = std::max(std::fabs(numeric), std::fabs(analytic));
            EXPECT_LE(std::fabs(numeric - analytic), 1e-9 + 1e-5 * scale)
                << name << "[" << i << "] numeric " << numeric << " analytic " << analytic;
        }
    }
}

TEST(GradientCheck, LossOfIdenticalEmbeddingsIsLogOfBatchAndItsGradientSumsToZero)
{
    // every score equal: each cross-entropy is log(pairs), and the gradient pushes anchors and
    // positives symmetrically
    const int pairs = 4;
    std::vector<double> z((size_t)2 * pairs * TRN_ENCODER_DIM, 0.0);
    for (int s = 0; s < 2 * pairs; s++) {
        z[(size_t)s * TRN_ENCODER_DIM] = 1.0;
    }
    std::vector<double> dz(z.size());
    double loss = info_nce(z.data(), pairs, 0.05, dz.data());
    EXPECT_NEAR(loss, std::log((double)pairs), 1e-12);
    double sum = 0;
    for (double d : dz) {
        sum += d;
    }
    EXPECT_NEAR(sum, 0.0, 1e-12);
}

TEST(FloatKernels, TanhAndExpStayWithinAFewUlpOfTheCLibrary)
{
    double worst_tanh = 0, worst_exp = 0;
    for (int i = -200000; i <= 200000; i++) {
        float x = (float)i * 1e-4f; // -20 .. 20
        worst_tanh = std::max(worst_tanh, (double)std::fabs(fast_tanhf(x) - std::tanh((double)x)));
        if (x <= 0.0f || x < 10.0f) {
            double e = std::exp((double)x);
            worst_exp = std::max(worst_exp, std::fabs(fast_expf(x) - e) / e);
        }
    }
    EXPECT_LT(worst_tanh, 1e-6);
    EXPECT_LT(worst_exp, 5e-7);
    EXPECT_EQ(fast_expf(-1000.0f) < 1e-37f, true);
    EXPECT_FLOAT_EQ(fast_tanhf(50.0f), fast_tanhf(8.0f));
}
