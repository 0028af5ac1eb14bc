/*
** training.h -- the encoder trainer: command line, optimiser, threads, progress and output.
**
** One step draws a batch of pairs (corpus.h), tokenises them as the engine does, runs the model
** (model.h) over all of them, takes the InfoNCE loss over the batch in both directions, runs the
** backward pass, clips the gradient to a global norm of CLIP_NORM and applies AdamW. With
** threads > 1 the sequences of a batch are split over the threads by token count; each thread
** has its own activations and gradient buffer, and the buffers are summed after the backward
** pass. The matrix library runs on one thread inside each of them.
**
** Learning rate: linear warm-up over max(WARMUP_MIN_STEPS, WARMUP_SHARE x steps) steps (at most
** all of them) to the peak LR, then a cosine decay to 5% of the peak at the last step. Each
** tensor trains at the scheduled rate times its group's multiplier (lr_multiplier): with
** batches of a few pairs, Adam's steps on the six million weights of the projection matrices
** are mostly noise of the size of the rate, which at 1e-3 rewrites the random encoder (whose
** initial values are within +-0.02) within a few dozen steps and makes it worse than it was;
** the layer norms' scales and shifts (a few thousand values that decide which directions of
** the embedding count, and so remove the component all texts share) take the full rate.
** --rates changes the multipliers for longer runs with larger batches.
**
** A run may start from a weights file (--init) instead of the seeded random encoder, and may
** continue an earlier run of the same STEPS (--steps-done K): the schedule and the batches are
** those of steps K + 1 .. STEPS of the uninterrupted run. Adam's moments are not saved, so a
** continued run starts them afresh and ramps the rate up over its first RESUME_RAMP_STEPS
** steps. --save-every N writes OUT every N steps, so a long run can be stopped and continued.
**
** --idf starts instead from a weighted bag of words, measured on the corpus (bag_of_tokens):
** the encoder then embeds a text as the sum of its words' directions, each weighted by how rare
** the word is (and by 1 + ln of how often the text holds its token), which is what keyword
** ranking rewards, and training goes on from there.
*/
#ifndef TRN_TRAINERS_TRAINING_H
#define TRN_TRAINERS_TRAINING_H

#include "bag_training.h"
#include "corpus.h"
#include "model.h"

#include "tarnwick.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace trn_train
{

constexpr double TEMPERATURE = 0.05;
constexpr double CLIP_NORM = 1.0;
constexpr double ADAM_BETA1 = 0.9;
constexpr double ADAM_BETA2 = 0.98;
constexpr double WARMUP_SHARE = 0.1;
constexpr int WARMUP_MIN_STEPS = 50;
/* learning-rate multipliers of the parameter groups (see lr_multiplier) */
constexpr float LR_MULT_NORM = 1.0f;      /* layer-norm scales and shifts */
constexpr float LR_MULT_EMBEDDING = 0.1f; /* token and position embeddings */
constexpr float LR_MULT_MATRIX = 0.01f;   /* projection matrices and their biases */
constexpr double ADAM_EPS = 1e-8;
constexpr double WEIGHT_DECAY = 0.01;
constexpr uint32_t ENCODER_SEED = 42; /* the engine's random encoder */
constexpr uint64_t SAMPLER_SEED = 42;
constexpr int RESUME_RAMP_STEPS = 20;
/* set in meta_u32_1 (the batch, at most 128) when the run started from a weights file */
constexpr uint32_t META_FROM_FILE = 0x80000000u;

/* windows of CHUNK_BYTES over which --idf counts the windows that hold each word */
constexpr int IDF_WINDOWS = 20000;
/* components of the token rows that --idf keeps for the part of a row that must not count: two,
** of opposite signs, so a row's mean stays 0 */
constexpr int IDF_SPARE_DIMS = 2;

constexpr int MAX_STEPS = 10000000;
constexpr int MAX_BATCH = 128;
constexpr int MAX_BAG_BATCH = 4096;
constexpr int MAX_THREADS = 256;

/* Multipliers of the scheduled learning rate per parameter group. */
struct GroupRates {
    float norm = LR_MULT_NORM;
    float embedding = LR_MULT_EMBEDDING;
    float matrix = LR_MULT_MATRIX;
};

struct TrainOptions {
    std::string corpus;
    std::string out;
    std::string bpe_path;  /* empty: byte-level, or the tokenizer of init_path */
    std::string init_path; /* empty: the seeded random encoder */
    int steps_done = 0;    /* steps of an earlier run of the same STEPS to continue after */
    int save_every = 0;    /* write OUT every that many steps; 0: only at the end */
    GroupRates rates;
    double cloze = 0.0;        /* share of query pairs against the window without the query */
    bool idf = false;          /* start from the corpus's weighted bag of words */
    double usage = 0.0;        /* with idf: share of a word's direction learned from its usage */
    BagOptions bag;            /* with idf: bag-of-words steps before the model's own */
    bool bag_phase = false;    /* --bag given (0 steps: a word's forms joined, nothing trained) */
    std::string pairs_path;    /* mined pairs mixed into every batch; empty: none */
    double pairs_share = 0.25; /* share of each batch's pairs taken from pairs_path */
    bool half = false;         /* write OUT as version 4 in half precision */
    int steps = 2000;
    int batch = 8; /* pairs per step: 2 x batch sequences */
    float lr = 1e-3f;
    int heads = 8;
    int layers = 2;
    int threads = 1;
};

/* Parses "CORPUS OUT STEPS BATCH LR HEADS LAYERS [--bpe PATH] [--threads N] [--init WEIGHTS]
** [--steps-done K] [--save-every N] [--rates NORM,EMBEDDING,MATRIX] [--cloze P] [--idf] ..."
** (options in any order, before or after the positional arguments). Returns 0, or 2 after
** printing one "trainer: ..." line (usage errors and the shapes the engine cannot load). */
int parse_trainer_args(int argc, char **argv, TrainOptions *opts);

/* Runs a whole training as the trainer program does. Returns the exit status: 0, or 1 after one
** "trainer: ..." line. Progress lines go to progress (flushed after each). */
int run_trainer(const TrainOptions &opts, FILE *progress);

/* "x.tten" -> "x.loss"; any other path gets ".loss" appended. */
std::string loss_path_for(const std::string &out);

/* The multiplier of the scheduled learning rate for one tensor (a tensor number of model.h). */
float lr_multiplier(int tensor, const GroupRates &rates = GroupRates());

/* Checks that path holds a complete weights file of the shape the engine loads. Returns true
** with its version (1 to 4) in version, or false with a one-line reason in err. */
bool check_weights_file(const std::string &path, uint32_t *version, std::string *err);

/* Token ids as the engine makes them: 257, at most 254 bytes, 258 without a tokenizer; the
** tokenizer's own encoding (merged whole, then cut to 256 ids) with one. */
void tokenize(const TrnBpe *bpe, const std::string &text, std::vector<uint32_t> &ids);

/* In token_words, a token that holds no letter or digit. */
constexpr uint32_t NO_WORD = 0xffffffffu;

/* Which word each token id below vocab spells: the lowest id whose bytes are the same once ASCII
** letters are lower-cased and white space at either end is dropped (" Read", "read" and "READ"
** are one word), or NO_WORD for a token with no letter, digit or byte above 127 (white space,
** punctuation, the begin and end tokens). */
std::vector<uint32_t> token_words(const TrnBpe *bpe, uint32_t vocab);

/* Which forms of a word each token id below vocab spells: the lowest id whose bytes, once white
** space at either end is dropped and letters are lower-cased, have the same stem (word_stem:
** " reads", "Reading" and "read" are one), or NO_WORD for a token that is not three or more ASCII
** letters. */
std::vector<uint32_t> token_stems(const TrnBpe *bpe, uint32_t vocab);

/* How rare each token's word is (word from token_words, one entry per token id): over windows
** windows of CHUNK_BYTES at offsets drawn from rng (all of a corpus shorter than that),
** ln((N + 1) / (n + 1)) for a word held by n of the N windows, divided by ln(N + 1) so that it
** lies in [0, 1]; 0 for NO_WORD. Returns false with a message in err when the corpus cannot be
** read. */
bool token_rarity(const CorpusSampler &sampler, const TrnBpe *bpe,
                  const std::vector<uint32_t> &word, int windows, std::mt19937_64 &rng,
                  std::vector<float> *rarity, std::string *err);

/* Makes a freshly initialised encoder a weighted bag of words. The final layer norm's scale
** becomes 0 on the first IDF_SPARE_DIMS components, so what a row holds there never reaches the
** pooled vector. Every token's row becomes unit variance: on the other components its word's
** direction, centred and scaled to weight[t] (0 to 1) times unit variance, on the spare ones the
** rest, so the norm passes weight[t] times its word's direction. A word's direction is the
** seeded random row of its first token (word[t], or the token's own where word[t] is NO_WORD),
** mixed, where usage (vocab x (DIM - IDF_SPARE_DIMS), unit rows) has a non-zero row for the
** token, with that row: sqrt(1 - share) of the random direction and sqrt(share) of the usage
** one, so words used alike point alike by that share while each word stays nearest itself. The
** begin and end tokens weigh 0; the position embeddings and the output projections of both
** layers (wo, w2, b2) become zero, so the residual stream is the token's row alone, and a
** text's vector is the weighted sum of its words' directions (encoder_embed). */
void bag_of_tokens(TrnEncoder *enc, const std::vector<float> &weight,
                   const std::vector<uint32_t> &word, const std::vector<float> &usage = {},
                   double share = 0.0);

class Trainer
{
public:
    /* Copies the initialised encoder's weights as the starting point. */
    Trainer(const TrnEncoder *enc, int batch, float peak_lr, int steps, int threads);
    ~Trainer();
    Trainer(const Trainer &) = delete;
    Trainer &operator=(const Trainer &) = delete;

    /* One optimisation step on 2 x batch texts (anchor of pair i at 2i, positive at 2i + 1).
    ** Returns the loss before the update. */
    double step(const std::vector<std::string> &texts);

    /* Embeds texts with the current weights through the training forward pass (count x 512). */
    void embed(const std::vector<std::string> &texts, std::vector<float> &z);

    /* Learning rate of step k (1-based) of the whole schedule. */
    float lr_at(int k) const;

    /* Continue after the first done steps of the schedule (Adam's moments start afresh). */
    void set_steps_done(int done) { done_ = done; }
    void set_group_rates(const GroupRates &rates) { rates_ = rates; }
    /* The rate the next step will use. */
    float next_lr() const;

    /* Writes the current weights into enc (same vocabulary as the one given at construction). */
    void store(TrnEncoder *enc) const;

    const ParamLayout &layout() const { return layout_; }
    std::vector<float> &params() { return params_; }
    int steps_done() const { return step_; }
    uint64_t tokens_seen() const { return tokens_; }
    double flops() const; /* matrix-product work of every step so far (2mnk) */
    /* While on, every matrix product of every thread is recorded; shapes() returns them. */
    void record_shapes(bool on);
    std::vector<GemmShape> shapes() const;
    /* Global gradient norm before clipping, of the last step. */
    double last_grad_norm() const { return grad_norm_; }

private:
    struct Worker;
    void assign(const std::vector<std::vector<uint32_t>> &seqs);
    void apply_update();

    ParamLayout layout_;
    const TrnBpe *bpe_;
    int batch_, steps_, threads_;
    float peak_lr_;
    int step_ = 0; /* steps of this run; done_ + step_ is the step of the schedule */
    int done_ = 0;
    GroupRates rates_;
    uint64_t tokens_ = 0;
    double grad_norm_ = 0;
    std::vector<float> params_, adam_m_, adam_v_;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::vector<std::vector<uint32_t>> seq_ids_;
    std::vector<float> z_, dz_;
};

} // namespace trn_train

#endif /* TRN_TRAINERS_TRAINING_H */
