/*
** bag_training.cpp -- the bag-of-words training of bag_training.h.
*/
#include "bag_training.h"

#include "model.h"
#include "training.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace trn_train
{

namespace
{

constexpr int LIVE = DIM - IDF_SPARE_DIMS;

} // namespace

BagTrainer::BagTrainer(const TrnEncoder *enc, const BagOptions &opts, int threads)
    : bpe_(enc->bpe), vocab_(enc->vocab_size), opts_(opts), threads_(std::max(1, threads))
{
    rows_.resize((size_t)vocab_ * LIVE);
    for (uint32_t t = 0; t < vocab_; t++) {
        /* the final norm's output for the row: it is centred with unit variance already */
        const float *row = enc->tok_emb + (size_t)t * DIM;
        for (int d = 0; d < LIVE; d++) {
            rows_[(size_t)t * LIVE + d] =
                row[IDF_SPARE_DIMS + d] * enc->ln_f_gamma[IDF_SPARE_DIMS + d];
        }
    }
    adam_m_.assign(rows_.size(), 0.0f);
    adam_v_.assign(rows_.size(), 0.0f);
    grad_.assign(rows_.size(), 0.0f);
}

float BagTrainer::lr_at(int k) const
{
    const int warm = std::max(1, std::min(opts_.steps, std::max(20, opts_.steps / 20)));
    if (k <= warm) {
        return opts_.lr * (float)k / (float)warm;
    }
    const double progress =
        std::min(1.0, (double)(k - warm) / (double)std::max(1, opts_.steps - warm));
    return (float)(opts_.lr * (0.05 + 0.95 * 0.5 * (1.0 + std::cos(M_PI * progress))));
}

void BagTrainer::embed(const std::vector<std::string> &texts, std::vector<float> &z)
{
    const size_t n = texts.size();
    ids_.resize(n);
    weights_.resize(n);
    norm_.assign(n, 0.0);
    z.assign(n * DIM, 0.0f);
    auto work = [this, &texts, &z, n](int w) {
        std::vector<double> sum(LIVE);
        for (size_t i = (size_t)w; i < n; i += (size_t)threads_) {
            std::vector<uint32_t> &ids = ids_[i];
            tokenize(bpe_, texts[i], ids);
            std::sort(ids.begin(), ids.end());
            weights_[i].clear();
            size_t kept = 0;
            for (size_t at = 0, next = 0; at < ids.size(); at = next) {
                while (next < ids.size() && ids[next] == ids[at]) {
                    next++;
                }
                ids[kept++] = ids[at];
                weights_[i].push_back(bag_count_weight((int)(next - at)));
            }
            ids.resize(kept);
            std::fill(sum.begin(), sum.end(), 0.0);
            for (size_t k = 0; k < ids.size(); k++) {
                const float *row = &rows_[(size_t)(ids[k] < vocab_ ? ids[k] : 0) * LIVE];
                const double weight = weights_[i][k];
                for (int d = 0; d < LIVE; d++) {
                    sum[(size_t)d] += weight * row[d];
                }
            }
            double sq = 0;
            for (double x : sum) {
                sq += x * x;
            }
            norm_[i] = std::sqrt(sq);
            for (int d = 0; d < LIVE && norm_[i] > 0; d++) {
                z[i * DIM + IDF_SPARE_DIMS + (size_t)d] = (float)(sum[(size_t)d] / norm_[i]);
            }
        }
    };
    std::vector<std::thread> extra;
    for (int w = 1; w < threads_; w++) {
        extra.emplace_back(work, w);
    }
    work(0);
    for (std::thread &t : extra) {
        t.join();
    }
}

double BagTrainer::step(const std::vector<std::string> &texts)
{
    std::vector<float> z, dz(texts.size() * DIM);
    embed(texts, z);
    const double loss = info_nce(z.data(), (int)texts.size() / 2, TEMPERATURE, dz.data());
    /* through the normalisation: d sum = (dz - z (z . dz)) / |sum|, added to every token's row
    ** times its weight */
    std::fill(grad_.begin(), grad_.end(), 0.0f);
    std::vector<float> ds(LIVE);
    for (size_t i = 0; i < texts.size(); i++) {
        if (norm_[i] <= 0) {
            continue;
        }
        const float *zi = &z[i * DIM + IDF_SPARE_DIMS];
        const float *gi = &dz[i * DIM + IDF_SPARE_DIMS];
        double along = 0;
        for (int d = 0; d < LIVE; d++) {
            along += (double)zi[d] * gi[d];
        }
        for (int d = 0; d < LIVE; d++) {
            ds[(size_t)d] = (float)((gi[d] - zi[d] * along) / norm_[i]);
        }
        for (size_t k = 0; k < ids_[i].size(); k++) {
            float *g = &grad_[(size_t)(ids_[i][k] < vocab_ ? ids_[i][k] : 0) * LIVE];
            const float weight = weights_[i][k];
            for (int d = 0; d < LIVE; d++) {
                g[d] += weight * ds[(size_t)d];
            }
        }
    }
    step_++;
    const float lr = lr_at(step_);
    const float b1 = (float)ADAM_BETA1, b2 = (float)ADAM_BETA2;
    const float bc1 = (float)(1.0 - std::pow(ADAM_BETA1, step_));
    const float bc2 = (float)(1.0 - std::pow(ADAM_BETA2, step_));
    for (uint32_t t = 0; t < vocab_; t++) {
        if (t == TRN_TOKEN_BEGIN || t == TRN_TOKEN_END) {
            continue; /* they stay at 0, as every text holds them */
        }
        float *row = &rows_[(size_t)t * LIVE];
        float *m = &adam_m_[(size_t)t * LIVE], *v = &adam_v_[(size_t)t * LIVE];
        const float *g = &grad_[(size_t)t * LIVE];
        double mean = 0;
        for (int d = 0; d < LIVE; d++) {
            m[d] = b1 * m[d] + (1.0f - b1) * g[d];
            v[d] = b2 * v[d] + (1.0f - b2) * g[d] * g[d];
            row[d] -= lr * (m[d] / bc1) / (std::sqrt(v[d] / bc2) + (float)ADAM_EPS);
            mean += row[d];
        }
        /* the final norm removes a row's mean: keep every row centred so e_t is what counts */
        mean /= LIVE;
        for (int d = 0; d < LIVE; d++) {
            row[d] -= (float)mean;
        }
    }
    return loss;
}

void BagTrainer::join(const std::vector<uint32_t> &group)
{
    std::vector<double> length(vocab_, 0.0);
    std::vector<int64_t> slot(vocab_, -1); /* a group's row of mean */
    std::vector<double> mean;
    for (uint32_t t = 0; t < vocab_ && t < group.size(); t++) {
        const float *row = &rows_[(size_t)t * LIVE];
        double sq = 0;
        for (int d = 0; d < LIVE; d++) {
            sq += (double)row[d] * row[d];
        }
        length[t] = std::sqrt(sq);
        if (group[t] >= vocab_ || length[t] == 0) {
            continue;
        }
        if (slot[group[t]] < 0) {
            slot[group[t]] = (int64_t)(mean.size() / LIVE);
            mean.resize(mean.size() + LIVE, 0.0);
        }
        double *m = &mean[(size_t)slot[group[t]] * LIVE];
        for (int d = 0; d < LIVE; d++) {
            m[d] += row[d] / length[t];
        }
    }
    for (uint32_t t = 0; t < vocab_ && t < group.size(); t++) {
        if (group[t] >= vocab_ || length[t] == 0) {
            continue;
        }
        const double *m = &mean[(size_t)slot[group[t]] * LIVE];
        double sq = 0;
        for (int d = 0; d < LIVE; d++) {
            sq += m[d] * m[d];
        }
        if (sq == 0) {
            continue;
        }
        const double scale = length[t] / std::sqrt(sq);
        float *row = &rows_[(size_t)t * LIVE];
        for (int d = 0; d < LIVE; d++) {
            row[d] = (float)(m[d] * scale);
        }
    }
}

void BagTrainer::store(TrnEncoder *enc) const
{
    double longest = 0;
    for (uint32_t t = 0; t < vocab_; t++) {
        double sq = 0;
        for (int d = 0; d < LIVE; d++) {
            sq += (double)rows_[(size_t)t * LIVE + d] * rows_[(size_t)t * LIVE + d];
        }
        longest = std::max(longest, sq);
    }
    /* the longest row takes all but a sliver of the unit variance, so no spare part is negative */
    const double scale = longest > 0 ? std::sqrt(0.999 * DIM / longest) : 1.0;
    for (uint32_t t = 0; t < vocab_; t++) {
        float *row = enc->tok_emb + (size_t)t * DIM;
        double sq = 0;
        for (int d = 0; d < LIVE; d++) {
            row[IDF_SPARE_DIMS + d] = (float)(rows_[(size_t)t * LIVE + d] * scale);
            sq += (double)row[IDF_SPARE_DIMS + d] * row[IDF_SPARE_DIMS + d];
        }
        const double c = std::sqrt(std::max(0.0, (DIM - sq) / IDF_SPARE_DIMS));
        for (int d = 0; d < IDF_SPARE_DIMS; d++) {
            row[d] = (float)(d % 2 ? -c : c);
        }
    }
    for (int d = IDF_SPARE_DIMS; d < DIM; d++) {
        enc->ln_f_gamma[d] = 1.0f;
        enc->ln_f_beta[d] = 0.0f;
    }
}

} // namespace trn_train
