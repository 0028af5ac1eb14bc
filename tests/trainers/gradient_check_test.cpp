// The hand-written backward pass, run on the activations the engine's forward pass saved, against
// central finite differences of the loss computed by the double-precision reference encoder, for
// every parameter tensor.
#include "../engine/reference_encoder.h"
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
    std::vector<float> params;
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
            p.params[p.layout.offset[t] + i] = (float)(gamma ? 1.0 + v : v);
        }
    }
    // two pairs of short sequences of different lengths, framed like the engine's
    const int lengths[4] = {2, 4, 3, 1};
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

// The loss through the double-precision reference encoder.
double reference_loss(const Problem &p, const std::vector<float> &params)
{
    const TrnEncoder view = encoder_view(p.layout, params.data());
    std::vector<double> z;
    for (int s = 0; s < p.batch.count(); s++) {
        std::vector<uint32_t> ids(p.batch.ids.begin() + p.batch.start[s],
                                  p.batch.ids.begin() + p.batch.start[s + 1]);
        std::vector<double> e = referenceEmbed(&view, ids);
        z.insert(z.end(), e.begin(), e.end());
    }
    std::vector<double> dz(z.size());
    return info_nce(z.data(), p.pairs, 0.05, dz.data());
}

} // namespace

TEST(GradientCheck, EveryTensorMatchesCentralDifferences)
{
    openblas_set_num_threads(1);
    Problem p = make_problem(7);
    Activations acts;
    std::vector<float> z((size_t)p.batch.count() * TRN_ENCODER_DIM);
    std::vector<float> dz(z.size());
    model_forward(p.layout, p.params.data(), p.batch, acts, z.data());
    double loss = info_nce(z.data(), p.pairs, 0.05, dz.data());
    ASSERT_TRUE(std::isfinite(loss));
    EXPECT_NEAR(loss, reference_loss(p, p.params), 1e-3);
    std::vector<float> grad(p.layout.total, 0.0f);
    model_backward(p.layout, p.params.data(), p.batch, acts, dz.data(), grad.data());

    // Each tensor moves along a random direction of +-1 entries: the difference quotient of
    // the loss must equal the gradient's component along it. Every entry counts, so an error in
    // any part of a tensor's gradient shows.
    std::mt19937_64 rng(11);
    const float h = 1e-3f;
    std::vector<float> work = p.params;
    for (int t = 0; t < TENSOR_COUNT; t++) {
        char name[64];
        tensor_name(t, name, sizeof name);
        const size_t off = p.layout.offset[t], size = p.layout.size[t];
        std::vector<float> up(size), down(size);
        double analytic = 0, largest = 0;
        for (size_t i = 0; i < size; i++) {
            const float sign = rng() % 2 ? 1.0f : -1.0f;
            up[i] = p.params[off + i] + sign * h;
            down[i] = p.params[off + i] - sign * h;
            // the step actually taken, after rounding to float
            analytic += (double)grad[off + i] * ((double)up[i] - down[i]) / 2.0;
            largest = std::max(largest, (double)std::fabs(grad[off + i]));
        }
        EXPECT_GT(largest, 1e-6) << name << " has no gradient at all";
        std::copy(up.begin(), up.end(), work.begin() + (long)off);
        const double loss_up = reference_loss(p, work);
        std::copy(down.begin(), down.end(), work.begin() + (long)off);
        const double loss_down = reference_loss(p, work);
        std::copy(p.params.begin() + (long)off,
                  p.params.begin() + (long)(off + size),
                  work.begin() + (long)off);
        const double numeric = (loss_up - loss_down) / 2.0;
        const double scale = std::max(std::fabs(numeric), std::fabs(analytic));
        EXPECT_LE(std::fabs(numeric - analytic), 1e-6 + 1e-2 * scale)
            << name << ": numeric " << numeric << " analytic " << analytic;
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
