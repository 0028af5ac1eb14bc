/*
** training.cpp -- the Trainer of training.h: batches, the forward and backward passes on worker
** threads, and the Adam update.
*/
#include "training.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include <cblas.h>

namespace trn_train
{

struct Trainer::Worker {
    Activations acts;
    SeqBatch batch;
    std::vector<int> global; /* sequence numbers of the batch, in batch order */
    std::vector<float> z, dz;
    std::vector<float> grad;
    std::vector<GemmShape> shapes;
};

namespace
{

/* Runs fn(0) .. fn(n - 1), fn(0) on the calling thread; with n == 1 no thread is started. */
template <typename Fn>
void run_parallel(int n, Fn fn)
{
    std::vector<std::thread> extra;
    extra.reserve((size_t)(n > 1 ? n - 1 : 0));
    for (int i = 1; i < n; i++) {
        extra.emplace_back(fn, i);
    }
    fn(0);
    for (std::thread &t : extra) {
        t.join();
    }
}

} // namespace

float lr_multiplier(int tensor, const GroupRates &rates)
{
    if (tensor == TENSOR_TOK || tensor == TENSOR_POS) {
        return rates.embedding;
    }
    if (tensor == TENSOR_LNF_G || tensor == TENSOR_LNF_B) {
        return rates.norm;
    }
    const int w = (tensor - TENSOR_FIRST_LAYER) % LAYER_TENSORS;
    if (w == LT_LN1_G || w == LT_LN1_B || w == LT_LN2_G || w == LT_LN2_B) {
        return rates.norm;
    }
    return rates.matrix;
}

Trainer::Trainer(const TrnEncoder *enc, int batch, float peak_lr, int steps, int threads)
    : layout_(make_layout(enc->vocab_size)), bpe_(enc->bpe), batch_(batch), steps_(steps),
      threads_(std::max(1, std::min(threads, 2 * batch))), peak_lr_(peak_lr)
{
    /* each training thread runs its own products; the library must not start more */
    openblas_set_num_threads(1);
    params_.resize(layout_.total);
    params_from_encoder(enc, layout_, params_.data());
    adam_m_.assign(layout_.total, 0.0f);
    adam_v_.assign(layout_.total, 0.0f);
    for (int w = 0; w < threads_; w++) {
        workers_.push_back(std::make_unique<Worker>());
        workers_.back()->grad.assign(layout_.total, 0.0f);
    }
}

Trainer::~Trainer() = default;

double Trainer::flops() const
{
    double sum = 0;
    for (const auto &w : workers_) {
        sum += w->acts.flops;
    }
    return sum;
}

void Trainer::record_shapes(bool on)
{
    for (auto &w : workers_) {
        w->acts.shapes = on ? &w->shapes : nullptr;
    }
}

std::vector<GemmShape> Trainer::shapes() const
{
    std::vector<GemmShape> all;
    for (const auto &w : workers_) {
        all.insert(all.end(), w->shapes.begin(), w->shapes.end());
    }
    return all;
}

float Trainer::lr_at(int k) const
{
    const int warm =
        std::max(1, std::min(steps_, std::max(WARMUP_MIN_STEPS, (int)(WARMUP_SHARE * steps_))));
    if (k <= warm) {
        return peak_lr_ * (float)k / (float)warm;
    }
    double progress = (double)(k - warm) / (double)std::max(1, steps_ - warm);
    progress = std::min(1.0, progress);
    return (float)(peak_lr_ * (0.05 + 0.95 * 0.5 * (1.0 + std::cos(M_PI * progress))));
}

float Trainer::next_lr() const
{
    const int k = step_ + 1;
    float lr = lr_at(done_ + k);
    if (done_ > 0 && k < RESUME_RAMP_STEPS) {
        lr *= (float)k / (float)RESUME_RAMP_STEPS;
    }
    return lr;
}

/* Longest sequences first, each to the thread with the fewest tokens so far. */
void Trainer::assign(const std::vector<std::vector<uint32_t>> &seqs)
{
    std::vector<int> order(seqs.size());
    for (size_t i = 0; i < seqs.size(); i++) {
        order[i] = (int)i;
    }
    std::stable_sort(order.begin(), order.end(), [&seqs](int a, int b) {
        return seqs[(size_t)a].size() > seqs[(size_t)b].size();
    });
    std::vector<size_t> load((size_t)threads_, 0);
    for (auto &w : workers_) {
        w->global.clear();
    }
    for (int g : order) {
        size_t best = 0;
        for (size_t w = 1; w < load.size(); w++) {
            best = load[w] < load[best] ? w : best;
        }
        workers_[best]->global.push_back(g);
        load[best] += seqs[(size_t)g].size();
    }
    for (auto &w : workers_) {
        w->batch.clear();
        for (int g : w->global) {
            const std::vector<uint32_t> &ids = seqs[(size_t)g];
            w->batch.add(ids.data(), (int)ids.size());
        }
    }
}

void Trainer::embed(const std::vector<std::string> &texts, std::vector<float> &z)
{
    seq_ids_.resize(texts.size());
    for (size_t i = 0; i < texts.size(); i++) {
        tokenize(bpe_, texts[i], seq_ids_[i]);
    }
    assign(seq_ids_);
    z.assign(texts.size() * DIM, 0.0f);
    run_parallel(threads_, [this, &z](int w) {
        Worker &wk = *workers_[(size_t)w];
        if (wk.global.empty()) {
            return;
        }
        wk.z.resize(wk.global.size() * DIM);
        model_forward(layout_, params_.data(), wk.batch, wk.acts, wk.z.data());
        for (size_t i = 0; i < wk.global.size(); i++) {
            memcpy(&z[(size_t)wk.global[i] * DIM], &wk.z[i * DIM], DIM * sizeof(float));
        }
    });
}

double Trainer::step(const std::vector<std::string> &texts)
{
    embed(texts, z_);
    for (const auto &ids : seq_ids_) {
        tokens_ += ids.size();
    }
    dz_.resize(z_.size());
    const double loss = info_nce(z_.data(), batch_, TEMPERATURE, dz_.data());

    run_parallel(threads_, [this](int w) {
        Worker &wk = *workers_[(size_t)w];
        std::fill(wk.grad.begin(), wk.grad.end(), 0.0f);
        if (wk.global.empty()) {
            return;
        }
        wk.dz.resize(wk.global.size() * DIM);
        for (size_t i = 0; i < wk.global.size(); i++) {
            memcpy(&wk.dz[i * DIM], &dz_[(size_t)wk.global[i] * DIM], DIM * sizeof(float));
        }
        model_backward(layout_, params_.data(), wk.batch, wk.acts, wk.dz.data(), wk.grad.data());
    });
    apply_update();
    step_++;
    return loss;
}

/* Sums the threads' gradients into the first, clips the global norm and applies AdamW, each
** thread over its own slice of the parameters. */
void Trainer::apply_update()
{
    const size_t total = layout_.total;
    const int n = threads_;
    std::vector<double> sumsq((size_t)n, 0.0);
    auto slice = [total, n](int w, size_t *lo, size_t *hi) {
        *lo = total * (size_t)w / (size_t)n;
        *hi = total * (size_t)(w + 1) / (size_t)n;
    };
    run_parallel(n, [this, &sumsq, &slice](int w) {
        size_t lo, hi;
        slice(w, &lo, &hi);
        float *g0 = workers_[0]->grad.data();
        for (size_t k = 1; k < workers_.size(); k++) {
            const float *gk = workers_[k]->grad.data();
            for (size_t i = lo; i < hi; i++) {
                g0[i] += gk[i];
            }
        }
        double s = 0;
        for (size_t i = lo; i < hi; i++) {
            s += (double)g0[i] * (double)g0[i];
        }
        sumsq[(size_t)w] = s;
    });
    double norm = 0;
    for (double s : sumsq) {
        norm += s;
    }
    norm = std::sqrt(norm);
    grad_norm_ = norm;
    const float clip = norm > CLIP_NORM ? (float)(CLIP_NORM / norm) : 1.0f;
    const float lr = next_lr();
    const float b1 = (float)ADAM_BETA1, b2 = (float)ADAM_BETA2;
    const float bc1 = (float)(1.0 - std::pow(ADAM_BETA1, step_ + 1));
    const float bc2 = (float)(1.0 - std::pow(ADAM_BETA2, step_ + 1));
    run_parallel(n, [this, &slice, clip, lr, b1, b2, bc1, bc2](int w) {
        size_t lo, hi;
        slice(w, &lo, &hi);
        const float *g = workers_[0]->grad.data();
        for (int t = 0; t < TENSOR_COUNT; t++) {
            size_t a = std::max(lo, layout_.offset[t]);
            size_t b = std::min(hi, layout_.offset[t] + layout_.size[t]);
            const float decay = tensor_is_matrix(t) ? (float)WEIGHT_DECAY : 0.0f;
            const float rate = lr * lr_multiplier(t, rates_);
            if (rate == 0.0f) {
                continue; /* a frozen group */
            }
            for (size_t i = a; i < b; i++) {
                float gi = g[i] * clip;
                float m = adam_m_[i] = b1 * adam_m_[i] + (1.0f - b1) * gi;
                float v = adam_v_[i] = b2 * adam_v_[i] + (1.0f - b2) * gi * gi;
                float update = (m / bc1) / (std::sqrt(v / bc2) + (float)ADAM_EPS);
                params_[i] -= rate * (update + decay * params_[i]);
            }
        }
    });
}

void Trainer::store(TrnEncoder *enc) const
{
    params_to_encoder(params_.data(), layout_, enc);
}

} // namespace trn_train
