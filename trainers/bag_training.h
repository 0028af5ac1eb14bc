/*
** bag_training.h -- training the word rows of a bag-of-words encoder without the transformer.
**
** An encoder that bag_of_tokens made passes each token's row through its layers unchanged (their
** output projections are zero and so are the position embeddings), so its final norm turns row t
** into the row's live components e_t (the spare ones carry the rest of a unit variance and are
** scaled to 0), and a text's vector is sum_t (1 + ln c_t) e_t over its distinct tokens, c_t
** times each, to unit length (the engine's encoder_embed). Training only
** the e_t therefore needs no forward pass through the layers: a step costs the tokenising and a
** few sums per token, a thousandth of a transformer step, so batches can be large (more in-batch
** negatives) and runs long. The loss is the trainer's InfoNCE at the same temperature, and the
** optimiser Adam with a warm-up and a cosine decay.
**
** store writes the rows back as bag_of_tokens lays them out: e_t centred (the norm removes a
** row's mean), all rows scaled by one factor so that the longest fits a unit-variance row, and
** the spare components holding the rest. One factor for all rows leaves every text's direction
** as it was, so the engine embeds exactly what was trained.
*/
#ifndef TRN_TRAINERS_BAG_TRAINING_H
#define TRN_TRAINERS_BAG_TRAINING_H

#include "encoder/encoder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace trn_train
{

struct BagOptions {
    int steps = 0;
    int batch = 256; /* pairs per step */
    float lr = 3e-3f;
};

class BagTrainer
{
public:
    /* Takes the live components of enc's token rows (a bag_of_tokens encoder). */
    BagTrainer(const TrnEncoder *enc, const BagOptions &opts, int threads);

    /* One step on opts.batch pairs (anchor of pair i at 2i, positive at 2i + 1). Returns the
    ** loss before the update. */
    double step(const std::vector<std::string> &texts);

    /* Embeds texts with the current rows (count x DIM, unit rows; 0 for a text without words). */
    void embed(const std::vector<std::string> &texts, std::vector<float> &z);

    /* Gives the tokens of each group one direction, the mean of their rows' directions, each
    ** row keeping its length (its word's rarity): group[t] names token t's group (token_stems),
    ** NO_WORD none. So "read", " reads" and "Reading" point alike while a rare form still weighs
    ** more than a common one. */
    void join(const std::vector<uint32_t> &group);

    /* Writes the rows into enc's token embedding as described above. */
    void store(TrnEncoder *enc) const;

    float lr_at(int k) const; /* the rate of step k (1-based) */
    int steps_done() const { return step_; }

private:
    const TrnBpe *bpe_;
    uint32_t vocab_;
    BagOptions opts_;
    int threads_;
    int step_ = 0;
    std::vector<float> rows_, adam_m_, adam_v_, grad_; /* vocab x live */
    std::vector<std::vector<uint32_t>> ids_;           /* per text, its tokens, each once */
    std::vector<std::vector<float>> weights_;          /* per text, each token's 1 + ln count */
    std::vector<double> norm_;                         /* per text, of the sum before normalising */
};

} // namespace trn_train

#endif /* TRN_TRAINERS_BAG_TRAINING_H */
