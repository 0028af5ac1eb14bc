/*
** training.cpp -- the trainer of training.h.
**
** Output files: OUT.tmp is created before the first step (after every argument and input check)
** and renamed to OUT only when the weights are completely written, so a refused, failed or
** interrupted run leaves no weights file at OUT. The loss log is written as the run goes, one
** record per progress line, so the application can chart a run in progress.
*/
#include "training.h"

#include "corpus.h"
#include "usage.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <unordered_map>

#include <cblas.h>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

void tokenize(const TrnBpe *bpe, const std::string &text, std::vector<uint32_t> &ids)
{
    ids.resize(MAX_SEQ);
    if (bpe) {
        int32_t n = trn_bpe_encode(bpe, text.c_str(), ids.data(), MAX_SEQ);
        ids.resize(n > 0 ? (size_t)n : 0);
        return;
    }
    size_t n = strnlen(text.c_str(), (size_t)MAX_SEQ - 2);
    ids[0] = TRN_TOKEN_BEGIN;
    for (size_t i = 0; i < n; i++) {
        ids[i + 1] = (unsigned char)text[i];
    }
    ids[n + 1] = TRN_TOKEN_END;
    ids.resize(n + 2);
}

std::vector<uint32_t> token_words(const TrnBpe *bpe, uint32_t vocab)
{
    std::vector<std::string> spelling(vocab);
    for (uint32_t t = 0; t < vocab && t < 256; t++) {
        spelling[t] = std::string(1, (char)t);
    }
    for (uint32_t i = 0; bpe && i < bpe->n_merges && 260 + i < vocab; i++) {
        const uint32_t l = bpe->merges[i][0], r = bpe->merges[i][1];
        if (l < 260 + i && r < 260 + i) {
            spelling[260 + i] = spelling[l] + spelling[r];
        }
    }
    std::vector<uint32_t> word(vocab, NO_WORD);
    std::unordered_map<std::string, uint32_t> first;
    for (uint32_t t = 0; t < vocab; t++) {
        std::string key;
        bool wordy = false;
        for (unsigned char c : spelling[t]) {
            wordy |= std::isalnum(c) || c >= 0x80;
            key += (char)std::tolower(c);
        }
        if (!wordy) {
            continue;
        }
        const size_t a = key.find_first_not_of(" \t\n\r\f\v");
        key = key.substr(a, key.find_last_not_of(" \t\n\r\f\v") + 1 - a);
        word[t] = first.emplace(key, t).first->second;
    }
    return word;
}

bool token_rarity(const CorpusSampler &sampler, const TrnBpe *bpe,
                  const std::vector<uint32_t> &word, int windows, std::mt19937_64 &rng,
                  std::vector<float> *rarity, std::string *err)
{
    const uint32_t vocab = (uint32_t)word.size();
    const uint64_t size = sampler.size();
    const size_t len = (size_t)std::min<uint64_t>(size, CHUNK_BYTES);
    std::vector<uint32_t> held(vocab, 0), last(vocab, 0), ids;
    std::string window(len, ' ');
    for (int w = 1; w <= windows; w++) {
        const uint64_t off = size > len ? rng() % (size - len + 1) : 0;
        if (!sampler.read_at(off, window.data(), len, err)) {
            return false;
        }
        std::replace(window.begin(), window.end(), '\0', ' ');
        tokenize(bpe, window, ids);
        for (uint32_t id : ids) {
            const uint32_t g = id < vocab ? word[id] : NO_WORD;
            if (g != NO_WORD && last[g] != (uint32_t)w) {
                last[g] = (uint32_t)w;
                held[g]++;
            }
        }
    }
    const double top = std::log(windows + 1.0);
    rarity->assign(vocab, 0.0f);
    for (uint32_t t = 0; t < vocab; t++) {
        if (word[t] != NO_WORD) {
            (*rarity)[t] = (float)(std::log((windows + 1.0) / (held[word[t]] + 1.0)) / top);
        }
    }
    return true;
}

void bag_of_tokens(TrnEncoder *enc, const std::vector<float> &weight,
                   const std::vector<uint32_t> &word, const std::vector<float> &usage, double share)
{
    constexpr int LIVE = DIM - IDF_SPARE_DIMS;
    const bool mixed = share > 0 && usage.size() >= (size_t)enc->vocab_size * LIVE;
    const double own_part = std::sqrt(1.0 - std::clamp(share, 0.0, 1.0));
    const double usage_part = std::sqrt(std::clamp(share, 0.0, 1.0) * LIVE);
    /* centred and scaled to unit variance over the live components */
    auto standardise = [](std::vector<double> &x) {
        double mean = 0, sq = 0;
        for (double v : x) {
            mean += v;
        }
        mean /= (double)x.size();
        for (double v : x) {
            sq += (v - mean) * (v - mean);
        }
        const double sd = std::sqrt(sq / (double)x.size());
        for (double &v : x) {
            v = sd > 0 ? (v - mean) / sd : 0.0;
        }
    };
    /* a word's tokens all take the random row of its first token */
    std::vector<float> dir((size_t)enc->vocab_size * LIVE);
    std::vector<double> mix(LIVE);
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        const uint32_t from = t < word.size() && word[t] < enc->vocab_size ? word[t] : t;
        const float *row = enc->tok_emb + (size_t)from * DIM + IDF_SPARE_DIMS;
        std::copy_n(row, LIVE, mix.begin());
        standardise(mix);
        const float *used = mixed ? &usage[(size_t)t * LIVE] : nullptr;
        if (used && std::any_of(used, used + LIVE, [](float x) {
                return x != 0.0f;
            })) {
            for (int d = 0; d < LIVE; d++) {
                mix[d] = own_part * mix[d] + usage_part * used[d];
            }
            standardise(mix);
        }
        std::copy_n(mix.begin(), LIVE, &dir[(size_t)t * LIVE]);
    }
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        float *row = enc->tok_emb + (size_t)t * DIM;
        double w = t < weight.size() ? std::clamp((double)weight[t], 0.0, 1.0) : 0.0;
        if (t == TRN_TOKEN_BEGIN || t == TRN_TOKEN_END) {
            w = 0.0;
        }
        for (int d = 0; d < LIVE; d++) {
            row[IDF_SPARE_DIMS + d] = (float)(w * dir[(size_t)t * LIVE + d]);
        }
        /* the rest of a unit variance, in alternating signs so the row's mean stays 0 */
        const double c = std::sqrt((DIM - LIVE * w * w) / IDF_SPARE_DIMS);
        for (int d = 0; d < IDF_SPARE_DIMS; d++) {
            row[d] = (float)(d % 2 ? -c : c);
        }
    }
    std::fill_n(enc->pos_emb, (size_t)MAX_SEQ * DIM, 0.0f);
    std::fill_n(enc->ln_f_gamma, IDF_SPARE_DIMS, 0.0f);
    for (TrnEncoderLayer &layer : enc->layers) {
        std::fill_n(layer.wo, (size_t)DIM * DIM, 0.0f);
        std::fill_n(layer.w2, (size_t)FF * DIM, 0.0f);
        std::fill_n(layer.b2, (size_t)DIM, 0.0f);
    }
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

std::string loss_path_for(const std::string &out)
{
    const std::string ext = ".tten";
    if (out.size() >= ext.size() && out.compare(out.size() - ext.size(), ext.size(), ext) == 0) {
        return out.substr(0, out.size() - ext.size()) + ".loss";
    }
    return out + ".loss";
}

namespace
{

const char USAGE[] = "trainer: usage: trainer CORPUS OUT STEPS BATCH LR HEADS LAYERS [--bpe PATH] "
                     "[--threads N] [--init WEIGHTS] [--steps-done K] [--save-every N] [--rates "
                     "NORM,EMBEDDING,MATRIX] [--cloze P] [--idf] [--usage SHARE] [--bag "
                     "STEPS,BATCH,RATE] [--pairs FILE] "
                     "[--pairs-share P]";

bool parse_int(const char *s, long lo, long hi, int *out)
{
    errno = 0;
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *out = (int)v;
    return true;
}

/* "NORM,EMBEDDING,MATRIX", each a number from 0 to 100. */
bool parse_rates(const char *s, GroupRates *rates)
{
    float v[3];
    const char *p = s;
    for (int i = 0; i < 3; i++) {
        errno = 0;
        char *end = nullptr;
        v[i] = strtof(p, &end);
        if (errno != 0 || end == p || !std::isfinite(v[i]) || v[i] < 0.0f || v[i] > 100.0f) {
            return false;
        }
        if (*end != (i < 2 ? ',' : '\0')) {
            return false;
        }
        p = end + 1;
    }
    rates->norm = v[0];
    rates->embedding = v[1];
    rates->matrix = v[2];
    return true;
}

int usage_error(const char *fmt, const char *arg)
{
    fprintf(stderr, "trainer: ");
    fprintf(stderr, fmt, arg);
    fprintf(stderr, "\n");
    return 2;
}

/* The temporary weights file, removed when a signal ends the run. */
char g_tmp_path[4096];

extern "C" void remove_tmp_and_exit(int sig)
{
    if (g_tmp_path[0]) {
        unlink(g_tmp_path);
    }
    _exit(128 + sig);
}

/* The engine ends the process with exit(1) when an allocation fails; leave no partial file. */
extern "C" void remove_tmp_at_exit(void)
{
    if (g_tmp_path[0]) {
        unlink(g_tmp_path);
    }
}

/* Bytes of the weights file the engine writes for this layout. */
uint64_t weights_file_size(const ParamLayout &layout, const TrnBpe *bpe)
{
    uint64_t header = 32 + 28;
    if (bpe) {
        header += 4 + 8 * (uint64_t)bpe->n_merges;
    }
    return header + 4 * (uint64_t)layout.total;
}

bool file_size_is(const char *path, uint64_t want)
{
    struct stat st;
    return stat(path, &st) == 0 && (uint64_t)st.st_size == want;
}

/* Writes the weights with their metadata to OUT.tmp and renames it to OUT. Returns false after
** one "trainer: ..." line. */
bool save_weights(const TrainOptions &opts, uint64_t corpus_size, int steps, double final_loss,
                  const TrnEncoder *enc)
{
    const std::string tmp = opts.out + ".tmp";
    TrnWeightsMeta meta{};
    meta.meta_u32_0 = (uint32_t)steps;
    meta.meta_u32_1 = (uint32_t)opts.batch | (opts.init_path.empty() ? 0u : META_FROM_FILE);
    meta.meta_f32_0 = opts.lr;
    meta.meta_f32_1 = (float)final_loss;
    meta.meta_u64 = corpus_size;
    if (!trn_encoder_save_weights_meta(enc, tmp.c_str(), &meta)
        || !file_size_is(tmp.c_str(), weights_file_size(make_layout(enc->vocab_size), enc->bpe))) {
        fprintf(stderr, "trainer: cannot write %s\n", tmp.c_str());
        return false;
    }
    if (rename(tmp.c_str(), opts.out.c_str()) != 0) {
        fprintf(stderr,
                "trainer: cannot move %s to %s: %s\n",
                tmp.c_str(),
                opts.out.c_str(),
                strerror(errno));
        return false;
    }
    return true;
}

/* The lines of the loss log at path except the records of steps after last. */
std::string log_records_until(const std::string &path, int last)
{
    std::string kept;
    FILE *f = fopen(path.c_str(), "r");
    if (!f) {
        return "step,loss\n";
    }
    char line[8192];
    while (fgets(line, sizeof line, f)) {
        char *end = nullptr;
        long step = strtol(line, &end, 10);
        if (end != line && *end == ',' && step > last) {
            continue;
        }
        kept += line;
    }
    fclose(f);
    return kept;
}

/* True when both tokenizers hold the same merges in the same order. */
bool same_merges(const TrnBpe *a, const TrnBpe *b)
{
    return a->n_merges == b->n_merges
           && (a->n_merges == 0
               || memcmp(a->merges, b->merges, sizeof a->merges[0] * a->n_merges) == 0);
}

} // namespace

namespace
{

/* The starting encoder: the seeded random one (with the tokenizer of --bpe), or the weights of
** --init with their own tokenizer, if any. Returns false after one "trainer: ..." line. */
bool init_encoder(const TrainOptions &opts, TrnEncoder *enc)
{
    TrnBpe *bpe = nullptr;
    if (!opts.bpe_path.empty()) {
        bpe = trn_bpe_load(opts.bpe_path.c_str());
        if (!bpe) {
            fprintf(stderr, "trainer: cannot read tokenizer %s\n", opts.bpe_path.c_str());
            return false;
        }
    }
    if (opts.init_path.empty()) {
        if (bpe) {
            encoder_init_bpe(enc, ENCODER_SEED, bpe); /* the encoder owns bpe now */
        } else {
            encoder_init(enc, ENCODER_SEED);
        }
        return true;
    }
    uint32_t version = 0;
    std::string err;
    if (!check_weights_file(opts.init_path, &version, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        trn_bpe_free(bpe);
        return false;
    }
    encoder_init(enc, ENCODER_SEED);
    if (!trn_encoder_load_weights(enc, opts.init_path.c_str())) {
        fprintf(stderr, "trainer: cannot read weights %s\n", opts.init_path.c_str());
        trn_bpe_free(bpe);
        encoder_release(enc);
        return false;
    }
    if (bpe && (!enc->bpe || !same_merges(bpe, enc->bpe))) {
        fprintf(stderr,
                enc->bpe ? "trainer: tokenizer %s differs from the one in %s\n"
                         : "trainer: tokenizer %s cannot be added to %s, a byte-level encoder\n",
                opts.bpe_path.c_str(),
                opts.init_path.c_str());
        trn_bpe_free(bpe);
        encoder_release(enc);
        return false;
    }
    trn_bpe_free(bpe);
    return true;
}

} // namespace

bool check_weights_file(const std::string &path, uint32_t *version, std::string *err)
{
    std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path.c_str(), "rb"), fclose);
    if (!f) {
        *err = "cannot open weights " + path + ": " + strerror(errno);
        return false;
    }
    char magic[4] = {0};
    uint32_t h[8] = {0}; /* version, vocabulary, positions, width, heads, ff, layers, merges */
    size_t got = fread(magic, 1, 4, f.get()) == 4 ? fread(h, 4, 7, f.get()) : 0;
    if (got != 7 || memcmp(magic, "TTEN", 4) != 0 || h[0] < 1 || h[0] > 3) {
        *err = path + " is not an encoder weights file";
        return false;
    }
    if (h[2] != TRN_ENCODER_MAX_SEQ || h[3] != TRN_ENCODER_DIM || h[4] != TRN_ENCODER_HEADS
        || h[5] != TRN_ENCODER_FF || h[6] != TRN_ENCODER_LAYERS
        || (h[0] < 3 && h[1] != TRN_ENCODER_BYTE_VOCAB) || h[1] < TRN_ENCODER_BYTE_VOCAB) {
        char buf[256];
        snprintf(buf,
                 sizeof buf,
                 " has the wrong shape (vocabulary %u, %u positions, width %u, %u heads, "
                 "feed-forward %u, %u layers); the engine loads 256 positions, width 512, 8 "
                 "heads, feed-forward 2048, 2 layers",
                 h[1],
                 h[2],
                 h[3],
                 h[4],
                 h[5],
                 h[6]);
        *err = path + buf;
        return false;
    }
    uint64_t want = 32;
    if (h[0] >= 2) {
        want += 28;
    }
    if (h[0] == 3) {
        want += 4 + 8 * (uint64_t)(h[1] - TRN_ENCODER_BYTE_VOCAB);
    }
    want += 4 * (uint64_t)make_layout((int)h[1]).total;
    struct stat st;
    if (fstat(fileno(f.get()), &st) != 0 || (uint64_t)st.st_size != want) {
        *err = path + " is not a complete weights file (" + std::to_string((long long)st.st_size)
               + " bytes, expected " + std::to_string(want) + ")";
        return false;
    }
    *version = h[0];
    return true;
}

int parse_trainer_args(int argc, char **argv, TrainOptions *opts)
{
    std::vector<const char *> pos;
    bool have_threads = false, have_bpe = false, have_init = false, have_done = false,
         have_save = false, have_rates = false, have_cloze = false, have_usage = false,
         have_bag = false, have_pairs_share = false;
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        if (strcmp(a, "--idf") == 0) {
            if (opts->idf) {
                return usage_error("%s given twice", a);
            }
            opts->idf = true;
            continue;
        }
        const bool is_option = strcmp(a, "--bpe") == 0 || strcmp(a, "--threads") == 0
                               || strcmp(a, "--init") == 0 || strcmp(a, "--steps-done") == 0
                               || strcmp(a, "--save-every") == 0 || strcmp(a, "--rates") == 0
                               || strcmp(a, "--cloze") == 0 || strcmp(a, "--usage") == 0
                               || strcmp(a, "--bag") == 0 || strcmp(a, "--pairs") == 0
                               || strcmp(a, "--pairs-share") == 0;
        if (is_option) {
            if (i + 1 >= argc) {
                return usage_error("%s needs a value", a);
            }
            const char *val = argv[++i];
            if (strcmp(a, "--bpe") == 0 || strcmp(a, "--init") == 0) {
                bool &seen = a[2] == 'b' ? have_bpe : have_init;
                if (seen || val[0] == '\0') {
                    return usage_error("%s given twice or empty", a);
                }
                (a[2] == 'b' ? opts->bpe_path : opts->init_path) = val;
                seen = true;
            } else if (strcmp(a, "--threads") == 0) {
                if (have_threads || !parse_int(val, 1, MAX_THREADS, &opts->threads)) {
                    return usage_error("bad thread count '%s' (expected 1 to 256)", val);
                }
                have_threads = true;
            } else if (strcmp(a, "--steps-done") == 0) {
                if (have_done || !parse_int(val, 0, MAX_STEPS, &opts->steps_done)) {
                    return usage_error("bad --steps-done '%s' (expected 0 to 10000000)", val);
                }
                have_done = true;
            } else if (strcmp(a, "--save-every") == 0) {
                if (have_save || !parse_int(val, 1, MAX_STEPS, &opts->save_every)) {
                    return usage_error("bad --save-every '%s' (expected 1 to 10000000)", val);
                }
                have_save = true;
            } else if (strcmp(a, "--pairs") == 0) {
                if (!opts->pairs_path.empty() || val[0] == '\0') {
                    return usage_error("%s given twice or empty", a);
                }
                opts->pairs_path = val;
            } else if (strcmp(a, "--pairs-share") == 0) {
                char *end = nullptr;
                const double v = strtod(val, &end);
                if (have_pairs_share || end == val || *end != '\0' || !(v >= 0.0 && v <= 1.0)) {
                    return usage_error("bad --pairs-share '%s' (expected a share from 0 to 1)",
                                       val);
                }
                opts->pairs_share = v;
                have_pairs_share = true;
            } else if (strcmp(a, "--bag") == 0) {
                int steps = 0, batch = 0;
                float lr = 0;
                char tail = 0;
                if (have_bag || sscanf(val, "%d,%d,%f%c", &steps, &batch, &lr, &tail) != 3
                    || steps < 1 || steps > MAX_STEPS || batch < 2 || batch > MAX_BAG_BATCH
                    || !(lr > 0.0f && lr <= 1.0f)) {
                    return usage_error("bad --bag '%s' (expected STEPS,BATCH,RATE: 1 to 10000000 "
                                       "steps of 2 to 4096 pairs at a rate above 0, at most 1)",
                                       val);
                }
                opts->bag = BagOptions{steps, batch, lr};
                have_bag = true;
            } else if (strcmp(a, "--cloze") == 0 || strcmp(a, "--usage") == 0) {
                const bool cloze = a[2] == 'c';
                char *end = nullptr;
                const double v = strtod(val, &end);
                if ((cloze ? have_cloze : have_usage) || end == val || *end != '\0'
                    || !(v >= 0.0 && v <= 1.0)) {
                    return usage_error(cloze ? "bad --cloze '%s' (expected a share from 0 to 1)"
                                             : "bad --usage '%s' (expected a share from 0 to 1)",
                                       val);
                }
                (cloze ? opts->cloze : opts->usage) = v;
                (cloze ? have_cloze : have_usage) = true;
            } else {
                if (have_rates || !parse_rates(val, &opts->rates)) {
                    return usage_error("bad --rates '%s' (expected three numbers from 0 to 100, "
                                       "as NORM,EMBEDDING,MATRIX)",
                                       val);
                }
                have_rates = true;
            }
        } else if (a[0] == '-' && a[1] == '-') {
            return usage_error("unknown option %s", a);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 7) {
        fprintf(stderr, "%s\n", USAGE);
        return 2;
    }
    opts->corpus = pos[0];
    opts->out = pos[1];
    if (opts->corpus.empty() || opts->out.empty()) {
        fprintf(stderr, "%s\n", USAGE);
        return 2;
    }
    if (!parse_int(pos[2], 0, MAX_STEPS, &opts->steps)) {
        return usage_error("bad step count '%s' (expected 0 to 10000000)", pos[2]);
    }
    if (!parse_int(pos[3], 2, MAX_BATCH, &opts->batch)) {
        return usage_error("bad batch size '%s' (expected 2 to 128)", pos[3]);
    }
    {
        errno = 0;
        char *end = nullptr;
        float lr = strtof(pos[4], &end);
        if (errno != 0 || end == pos[4] || *end != '\0' || !std::isfinite(lr) || lr <= 0.0f
            || lr > 1.0f) {
            return usage_error("bad learning rate '%s' (expected a number above 0, at most 1)",
                               pos[4]);
        }
        opts->lr = lr;
    }
    if (!parse_int(pos[5], 0, 1 << 20, &opts->heads)) {
        return usage_error("bad head count '%s'", pos[5]);
    }
    if (!parse_int(pos[6], 0, 1 << 20, &opts->layers)) {
        return usage_error("bad layer count '%s'", pos[6]);
    }
    if (opts->steps_done > 0 && (opts->init_path.empty() || opts->steps_done >= opts->steps)) {
        fprintf(stderr,
                "trainer: --steps-done %d needs --init and fewer steps than %d\n",
                opts->steps_done,
                opts->steps);
        return 2;
    }
    if (have_usage && !opts->idf) {
        fprintf(stderr, "trainer: --usage shapes the start that --idf makes and needs it\n");
        return 2;
    }
    if (have_bag && !opts->idf && opts->init_path.empty()) {
        fprintf(
            stderr,
            "trainer: --bag trains a bag of words: the start --idf makes, or one --init reads\n");
        return 2;
    }
    if (opts->idf && !opts->init_path.empty()) {
        fprintf(stderr, "trainer: --idf starts a new encoder and cannot go with --init\n");
        return 2;
    }
    if (opts->heads != TRN_ENCODER_HEADS || opts->layers != TRN_ENCODER_LAYERS) {
        fprintf(stderr,
                "trainer: the engine loads only 8 heads and 2 layers (asked for %d heads, %d "
                "layers)\n",
                opts->heads,
                opts->layers);
        return 2;
    }
    return 0;
}

namespace
{

/* The bag-of-words phase of --bag, on batches of its own (drawn with a seed of their own, so the
** model's steps draw what they would draw without it). Returns false after one "trainer: ..."
** line. */
bool train_bag(const TrainOptions &opts, CorpusSampler &sampler, const PairFile &mined,
               TrnEncoder *enc, FILE *progress)
{
    BagTrainer bag(enc, opts.bag, opts.threads);
    std::mt19937_64 rng(SAMPLER_SEED + 4), mined_rng(SAMPLER_SEED + 5);
    std::vector<std::string> texts;
    std::string err;
    double loss_sum = 0;
    int loss_count = 0;
    for (int k = 1; k <= opts.bag.steps; k++) {
        if (!sampler.draw(opts.bag.batch, rng, texts, &err)) {
            fprintf(stderr, "trainer: %s\n", err.c_str());
            return false;
        }
        if (mined.size() > 0) {
            mined.mix_into(texts, opts.pairs_share, mined_rng);
        }
        const float lr = bag.lr_at(k);
        loss_sum += bag.step(texts);
        loss_count++;
        if (k == 1 || k % 50 == 0 || k == opts.bag.steps) {
            fprintf(progress,
                    "bag step %d/%d loss %.4f lr %.6g\n",
                    k,
                    opts.bag.steps,
                    loss_sum / loss_count,
                    (double)lr);
            fflush(progress);
            loss_sum = 0;
            loss_count = 0;
        }
    }
    bag.store(enc);
    return true;
}

} // namespace

int run_trainer(const TrainOptions &opts, FILE *progress)
{
    openblas_set_num_threads(1);

    CorpusSampler sampler;
    std::string err;
    if (!sampler.open(opts.corpus, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        return 1;
    }
    const uint64_t need = (uint64_t)opts.batch * MIN_BYTES_PER_PAIR;
    if (sampler.size() < need) {
        fprintf(stderr,
                "trainer: corpus %s holds %llu bytes, too few for a batch of %d pairs (needs at "
                "least %llu)\n",
                opts.corpus.c_str(),
                (unsigned long long)sampler.size(),
                opts.batch,
                (unsigned long long)need);
        return 1;
    }
    PairFile mined;
    if (!opts.pairs_path.empty() && !mined.load(opts.pairs_path, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        return 1;
    }
    TrnEncoder enc;
    if (!init_encoder(opts, &enc)) {
        return 1;
    }
    if (enc.bpe) {
        /* 254 tokens cover about a whole chunk: queries and crops may come from all of it */
        sampler.set_visible(CHUNK_BYTES);
    }
    sampler.set_cloze(opts.cloze);
    if (opts.idf) {
        std::mt19937_64 idf_rng(SAMPLER_SEED + 1); /* leaves the batches as they would be */
        std::vector<float> rarity;
        const std::vector<uint32_t> word = token_words(enc.bpe, enc.vocab_size);
        if (!token_rarity(sampler, enc.bpe, word, IDF_WINDOWS, idf_rng, &rarity, &err)) {
            fprintf(stderr, "trainer: %s\n", err.c_str());
            encoder_release(&enc);
            return 1;
        }
        std::vector<float> usage;
        if (opts.usage > 0) {
            std::mt19937_64 usage_rng(SAMPLER_SEED + 2);
            Cooccurrence counts;
            if (!count_cooccurrence(
                    sampler, enc.bpe, word, USAGE_WINDOWS, USAGE_SPAN, usage_rng, &counts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                encoder_release(&enc);
                return 1;
            }
            usage = usage_vectors(counts, enc.vocab_size, DIM - IDF_SPARE_DIMS, SAMPLER_SEED + 3);
        }
        bag_of_tokens(&enc, rarity, word, usage, opts.usage);
        if (opts.bag.steps > 0 && !train_bag(opts, sampler, mined, &enc, progress)) {
            encoder_release(&enc);
            return 1;
        }
    } else if (opts.bag.steps > 0) {
        /* A profile that starts from the built-in encoder trains its word rows on the user's text
        ** and stays a bag of words, which the engine embeds without the forward pass. */
        if (!encoder_prepare_bag(&enc)) {
            fprintf(stderr,
                    "trainer: --bag continues only a bag-of-words encoder, and %s is not one\n",
                    opts.init_path.c_str());
            encoder_release(&enc);
            return 1;
        }
        if (!train_bag(opts, sampler, mined, &enc, progress)) {
            encoder_release(&enc);
            return 1;
        }
    }

    const std::string tmp = opts.out + ".tmp";
    const std::string loss_path = loss_path_for(opts.out);
    int probe = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (probe < 0) {
        fprintf(stderr, "trainer: cannot write %s: %s\n", tmp.c_str(), strerror(errno));
        encoder_release(&enc);
        return 1;
    }
    close(probe);
    if (tmp.size() < sizeof g_tmp_path) {
        memcpy(g_tmp_path, tmp.c_str(), tmp.size() + 1);
        static bool at_exit_set = false;
        if (!at_exit_set) {
            atexit(remove_tmp_at_exit);
            at_exit_set = true;
        }
        signal(SIGTERM, remove_tmp_and_exit);
        signal(SIGINT, remove_tmp_and_exit);
        signal(SIGHUP, remove_tmp_and_exit);
    }
    /* a continued run keeps the earlier run's records up to the step it continues after */
    std::string earlier_log;
    if (opts.steps_done > 0) {
        earlier_log = log_records_until(loss_path, opts.steps_done);
    }
    FILE *loss_log = fopen(loss_path.c_str(), "w");
    if (!loss_log) {
        fprintf(stderr, "trainer: cannot write %s: %s\n", loss_path.c_str(), strerror(errno));
        unlink(tmp.c_str());
        encoder_release(&enc);
        return 1;
    }
    fputs(opts.steps_done > 0 ? earlier_log.c_str() : "step,loss\n", loss_log);
    if (!opts.init_path.empty()) {
        /* one field, so readers of step,loss records skip it */
        fprintf(loss_log, "# initialised from %s\n", opts.init_path.c_str());
    } else if (opts.idf) {
        fprintf(loss_log,
                "# initialised as tokens weighted by rarity over %d windows, %.2f of each word's "
                "direction from its usage, then %d bag-of-words steps of %d pairs\n",
                IDF_WINDOWS,
                opts.usage,
                opts.bag.steps,
                opts.bag.batch);
    }
    fflush(loss_log);

    int status = 0;
    double final_loss = 0;
    {
        Trainer trainer(&enc, opts.batch, opts.lr, opts.steps, opts.threads);
        trainer.set_steps_done(opts.steps_done);
        trainer.set_group_rates(opts.rates);
        std::mt19937_64 rng(SAMPLER_SEED), mined_rng(SAMPLER_SEED + 6);
        std::vector<std::string> texts;
        /* the batches of the steps already done, drawn again so the run goes on as it would */
        for (int k = 1; k <= opts.steps_done && status == 0; k++) {
            if (!sampler.draw(opts.batch, rng, texts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                status = 1;
            }
            if (mined.size() > 0) {
                mined.mix_into(texts, opts.pairs_share, mined_rng);
            }
        }
        double loss_sum = 0;
        int loss_count = 0;
        uint64_t tokens_at_print = 0;
        auto t_print = std::chrono::steady_clock::now();
        for (int k = opts.steps_done + 1; k <= opts.steps && status == 0; k++) {
            if (!sampler.draw(opts.batch, rng, texts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                status = 1;
                break;
            }
            if (mined.size() > 0) {
                mined.mix_into(texts, opts.pairs_share, mined_rng);
            }
            float lr = trainer.next_lr();
            double loss = trainer.step(texts);
            loss_sum += loss;
            loss_count++;
            if (k == opts.steps_done + 1 || k % 10 == 0 || k == opts.steps) {
                auto now = std::chrono::steady_clock::now();
                double secs = std::chrono::duration<double>(now - t_print).count();
                double tok_s =
                    (double)(trainer.tokens_seen() - tokens_at_print) / (secs > 0 ? secs : 1e-9);
                double mean = loss_sum / loss_count;
                fprintf(progress,
                        "step %d/%d loss %.4f lr %.6g tok/s %.0f\n",
                        k,
                        opts.steps,
                        mean,
                        (double)lr,
                        tok_s);
                fflush(progress);
                fprintf(loss_log, "%d,%.4f\n", k, mean);
                fflush(loss_log);
                final_loss = mean;
                loss_sum = 0;
                loss_count = 0;
                tokens_at_print = trainer.tokens_seen();
                t_print = now;
            }
            if (opts.save_every > 0 && k % opts.save_every == 0 && k < opts.steps) {
                trainer.store(&enc);
                if (!save_weights(opts, sampler.size(), k, final_loss, &enc)) {
                    status = 1;
                }
            }
        }
        trainer.store(&enc);
    }
    fclose(loss_log);

    if (status == 0 && !save_weights(opts, sampler.size(), opts.steps, final_loss, &enc)) {
        status = 1;
    }
    if (status != 0) {
        unlink(tmp.c_str());
    }
    g_tmp_path[0] = '\0';
    encoder_release(&enc);
    return status;
}

} // namespace trn_train
