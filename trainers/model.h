/*
** model.h -- the engine's encoder as a trainable model: the engine's own forward pass with its
** activations saved, a backward pass by hand, and the contrastive loss.
**
** The forward pass is the engine's encoder_forward (engine/encoder/encoder.h), run once per
** sequence
** with a TrnForwardSave pointing into the activations below, so weights trained here embed a
** text to exactly the vector the engine gives it. The trainer adds only what training needs: the
** saved activations, the backward pass and the loss.
**
** Parameters live in one flat array, tensor after tensor in the order of the weights file:
**
**   token embedding      vocab x 512
**   position embedding   256 x 512
**   final norm scale     512
**   final norm shift     512
**   layer 0, layer 1     wq, wk, wv, wo (512 x 512 each, [inputs][outputs]), w1 (512 x 2048),
**                        b1 (2048), w2 (2048 x 512), b2 (512), ln1 scale, ln1 shift,
**                        ln2 scale, ln2 shift (512 each)
**
** Several sequences of different lengths are processed together: their tokens are stacked into
** one matrix (the activations of sequence s are rows start[s] .. start[s + 1]), so that the
** backward pass's projections and feed-forward block are single large matrix products; attention
** runs per sequence and head. Every matrix product goes through the engine's sgemm.
*/
#ifndef TRN_TRAINERS_MODEL_H
#define TRN_TRAINERS_MODEL_H

#include "encoder/encoder.h"
#include "encoder/vec.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace trn_train
{

constexpr int DIM = TRN_ENCODER_DIM;
constexpr int HEADS = TRN_ENCODER_HEADS;
constexpr int HEAD_DIM = TRN_ENCODER_HEAD_DIM;
constexpr int FF = TRN_ENCODER_FF;
constexpr int LAYERS = TRN_ENCODER_LAYERS;
constexpr int MAX_SEQ = TRN_ENCODER_MAX_SEQ;

/* Tensor numbers in file order: four top-level tensors, then LAYER_TENSORS per layer. */
enum { TENSOR_TOK = 0, TENSOR_POS, TENSOR_LNF_G, TENSOR_LNF_B, TENSOR_FIRST_LAYER };
enum {
    LT_WQ = 0,
    LT_WK,
    LT_WV,
    LT_WO,
    LT_W1,
    LT_B1,
    LT_W2,
    LT_B2,
    LT_LN1_G,
    LT_LN1_B,
    LT_LN2_G,
    LT_LN2_B,
    LAYER_TENSORS
};
constexpr int TENSOR_COUNT = TENSOR_FIRST_LAYER + LAYERS * LAYER_TENSORS;

inline int layer_tensor(int layer, int which)
{
    return TENSOR_FIRST_LAYER + layer * LAYER_TENSORS + which;
}

struct ParamLayout {
    uint32_t vocab_size;
    size_t offset[TENSOR_COUNT]; /* in floats from the start of the flat array */
    size_t size[TENSOR_COUNT];
    size_t total;
};

ParamLayout make_layout(uint32_t vocab_size);
/* "tok_emb", "layer1.w2", ... for messages and tests. */
const char *tensor_name(int tensor, char *buf, size_t cap);
/* True for the projection matrices, the only tensors that get weight decay. */
bool tensor_is_matrix(int tensor);

/* Copies an initialised encoder into a flat array of layout.total floats, and back. */
void params_from_encoder(const TrnEncoder *enc, const ParamLayout &layout, float *params);
void params_to_encoder(const float *params, const ParamLayout &layout, TrnEncoder *enc);

/* Token ids of several sequences, stacked: sequence s holds ids[start[s] .. start[s + 1]). */
struct SeqBatch {
    std::vector<uint32_t> ids;
    std::vector<int> start{0};

    int count() const { return (int)start.size() - 1; }
    int tokens() const { return start.back(); }
    void clear()
    {
        ids.clear();
        start.assign(1, 0);
    }
    void add(const uint32_t *seq, int n)
    {
        ids.insert(ids.end(), seq, seq + n);
        start.push_back(start.back() + n);
    }
};

/* Saved activations and backward scratch of one batch of sequences. Grows to the largest batch
** seen and is reused. */
struct Activations {
    int tokens = 0;
    std::vector<float> x[LAYERS + 1]; /* residual stream entering layer l; x[LAYERS] enters the
                                         final norm */
    std::vector<float> ln1_mean[LAYERS], ln1_rstd[LAYERS], a[LAYERS]; /* first norm */
    std::vector<float> q[LAYERS], k[LAYERS], v[LAYERS];
    std::vector<float> probs[LAYERS]; /* softmax rows, per sequence HEADS blocks of n x n */
    std::vector<float> ctx[LAYERS];   /* concatenated head outputs */
    std::vector<float> mid[LAYERS];   /* residual after attention */
    std::vector<float> ln2_mean[LAYERS], ln2_rstd[LAYERS], b[LAYERS]; /* second norm */
    std::vector<float> h[LAYERS], g[LAYERS]; /* feed-forward hidden before and after GELU */
    std::vector<float> lnf_mean, lnf_rstd, y;
    std::vector<float> pooled; /* per sequence, before normalisation */
    std::vector<float> norm;   /* per sequence */
    std::vector<float> z;      /* per sequence, the embedding */
    std::vector<size_t> prob_offset;

    std::vector<float> dx, dtmp, dq, dk, dv, dctx, dh, dp, gelu_t;

    double flops = 0;                         /* 2mnk of every product issued */
    std::vector<GemmShape> *shapes = nullptr; /* when set, every product is recorded */

    TrnScratch *scratch = nullptr; /* the engine's buffers for the forward pass; owned */
    Activations() = default;
    ~Activations() { scratch_free(scratch); }
    Activations(const Activations &) = delete;
    Activations &operator=(const Activations &) = delete;
};

/* Runs the engine's forward pass over every sequence of batch (each of 1 to 256 ids), saving what
** the backward pass needs, and writes one unit vector of 512 per sequence to z (count x 512). */
void model_forward(const ParamLayout &layout, const float *params, const SeqBatch &batch,
                   Activations &acts, float *z);

/* Given dz (count x 512), the gradient of the loss with respect to the embeddings of the last
** forward pass, adds the gradient of every parameter to grad (layout.total). */
void model_backward(const ParamLayout &layout, const float *params, const SeqBatch &batch,
                    Activations &acts, const float *dz, float *grad);

/* An encoder whose tensors are the flat array params (not owned, no tokenizer): what the
** engine's forward pass reads. */
TrnEncoder encoder_view(const ParamLayout &layout, const float *params);

/* InfoNCE over a batch of pairs in both directions. z holds 2 * pairs unit vectors: the anchor
** of pair i at row 2i, its positive at row 2i + 1. Scores are dot products divided by
** temperature; the loss is the mean of the anchor-to-positive and positive-to-anchor
** cross-entropies. Writes the gradient with respect to z to dz and returns the loss. */
template <typename T>
double info_nce(const T *z, int pairs, double temperature, T *dz);

} // namespace trn_train

#endif /* TRN_TRAINERS_MODEL_H */
