/*
** bag.cpp -- a bag-of-words weights file set up for embedding at the cost of what is embedded.
**
** The built-in encoder is a bag of words with some 32,000 token rows in half precision (see
** weights.cpp for the file). Widening every row to float32 and putting it through the final norm
** costs far more than a search that embeds one query of a few tokens. encoder_init_bag_file reads
** the file as trn_encoder_load_weights does and makes the same checks on its values, but on the
** half precision bits where it can (a half is within +-1e4 exactly when its magnitude bits are at
** most 0x70E2, which is 1e4; infinities and NaNs lie above), keeps the token rows as they are and
** widens and normalises each at its first use. The tensors a bag of words never reads (the
** attention and feed-forward inputs) are checked and dropped; those that make it a bag (the
** position embedding and each layer's wo, w2 and b2) must be zero, as encoder_prepare_bag
** requires. Any file it does not take is left to the full loader, which says what is wrong.
*/
#include "internal.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace
{

constexpr size_t DIM = TRN_ENCODER_DIM;
constexpr size_t FF = TRN_ENCODER_FF;
constexpr uint32_t TAG_F32 = WEIGHTS_TAG_F32;
constexpr uint32_t TAG_F16 = WEIGHTS_TAG_F16;
constexpr uint32_t TAG_ZERO = WEIGHTS_TAG_ZERO;
constexpr uint16_t HALF_ABS_MAX = 0x70E2; /* WEIGHT_ABS_MAX in half precision */
constexpr size_t BLOCK = 4096;            /* values read at a time */
constexpr uint8_t ROW_WRITING = 1;
constexpr uint8_t ROW_READY = 2;

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

/* What a tensor must hold besides values within the bound. */
enum class Want { ANY, ZERO };

/* 1 when every half of n is within the bound (and, for Want::ZERO, is +-0). */
bool halves_ok(const uint16_t *h, size_t n, Want want)
{
    uint16_t most = 0;
    for (size_t i = 0; i < n; i++) {
        uint16_t magnitude = h[i] & 0x7FFFu;
        most = magnitude > most ? magnitude : most;
    }
    return want == Want::ZERO ? most == 0 : most <= HALF_ABS_MAX;
}

bool floats_ok(const float *p, size_t n, Want want)
{
    bool ok = true;
    for (size_t i = 0; i < n; i++) {
        ok = ok && fabsf(p[i]) <= WEIGHT_ABS_MAX && (want == Want::ANY || p[i] == 0.0f);
    }
    return ok;
}

/* Reads one tagged tensor of n values and checks it; keep, when not NULL, receives its values. */
bool read_checked(FILE *f, size_t n, Want want, float *keep)
{
    uint32_t tag = 0;
    if (fread(&tag, sizeof tag, 1, f) != 1) {
        return false;
    }
    if (tag == TAG_ZERO) {
        if (keep) {
            memset(keep, 0, n * sizeof(float));
        }
        return true;
    }
    if (tag != TAG_F16 && tag != TAG_F32) {
        return false;
    }
    union {
        uint16_t half[BLOCK];
        float single[BLOCK];
    } block;
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t take = n - at < BLOCK ? n - at : BLOCK;
        if (tag == TAG_F32) {
            if (fread(block.single, sizeof(float), take, f) != take
                || !floats_ok(block.single, take, want)) {
                return false;
            }
            if (keep) {
                memcpy(keep + at, block.single, take * sizeof(float));
            }
            continue;
        }
        if (fread(block.half, sizeof(uint16_t), take, f) != take
            || !halves_ok(block.half, take, want)) {
            return false;
        }
        for (size_t i = 0; keep && i < take; i++) {
            keep[at + i] = half_to_float(block.half[i]);
        }
    }
    return true;
}

/* One layer's twelve tensors in file order: a bag of words keeps none of them. */
bool read_bag_layer(FILE *f)
{
    const struct {
        size_t count;
        Want want;
    } tensors[12] = {
        {DIM * DIM, Want::ANY},  /* wq */
        {DIM * DIM, Want::ANY},  /* wk */
        {DIM * DIM, Want::ANY},  /* wv */
        {DIM * DIM, Want::ZERO}, /* wo */
        {DIM * FF, Want::ANY},   /* w1 */
        {FF, Want::ANY},         /* b1 */
        {FF * DIM, Want::ZERO},  /* w2 */
        {DIM, Want::ZERO},       /* b2 */
        {DIM, Want::ANY},        /* ln1 scale, shift, ln2 scale, shift */
        {DIM, Want::ANY},
        {DIM, Want::ANY},
        {DIM, Want::ANY},
    };
    for (const auto &t : tensors) {
        if (!read_checked(f, t.count, t.want, nullptr)) {
            return false;
        }
    }
    return true;
}

/* The header up to the tokenizer's pairs: a version 4 file of this shape, its vocabulary size. */
bool read_header(FILE *f, uint32_t *vocab, uint32_t *merges)
{
    uint32_t head[16]; /* magic, version, vocabulary, 5 shape fields, 7 of metadata, merges */
    if (fread(head, sizeof head, 1, f) != 1 || memcmp(head, "TTEN", 4) != 0 || head[1] != 4) {
        return false;
    }
    const uint32_t shape[5] = {TRN_ENCODER_MAX_SEQ,
                               TRN_ENCODER_DIM,
                               TRN_ENCODER_HEADS,
                               TRN_ENCODER_FF,
                               TRN_ENCODER_LAYERS};
    if (memcmp(head + 3, shape, sizeof shape) != 0
        || (uint64_t)head[2] != (uint64_t)head[15] + TRN_ENCODER_BYTE_VOCAB) {
        return false;
    }
    /* The pairs and the token rows in half precision must be there before either is allocated. */
    struct stat st;
    uint64_t needed = (uint64_t)head[15] * 8 + (uint64_t)head[2] * DIM * 2 + 4;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)
        || (uint64_t)st.st_size < sizeof head + needed) {
        return false;
    }
    *vocab = head[2];
    *merges = head[15];
    return true;
}

} // namespace

bool encoder_init_bag_file(TrnEncoder *enc, const char *path)
{
    File f(fopen(path, "rb"));
    uint32_t vocab = 0;
    uint32_t merges = 0;
    if (!f || !read_header(f.get(), &vocab, &merges)) {
        return false;
    }
    std::unique_ptr<TrnBpe, void (*)(TrnBpe *)> bpe(trn_bpe_read(f.get(), merges), trn_bpe_free);
    uint32_t tag = 0;
    if (!bpe || fread(&tag, sizeof tag, 1, f.get()) != 1 || tag != TAG_F16) {
        return false;
    }
    const size_t rows = (size_t)vocab * DIM;
    using Owned = std::unique_ptr<float, void (*)(void *)>;
    Owned half(encoder_alloc_floats((rows + 1) / 2), free); /* rows halves */
    Owned gamma(encoder_alloc_floats(DIM), free);
    Owned beta(encoder_alloc_floats(DIM), free);
    uint16_t *halves = reinterpret_cast<uint16_t *>(half.get());
    advise_huge_pages(halves, rows * sizeof(uint16_t));
    if (fread(halves, sizeof(uint16_t), rows, f.get()) != rows
        || !halves_ok(halves, rows, Want::ANY)
        || !read_checked(f.get(), TRN_ENCODER_MAX_SEQ * DIM, Want::ZERO, nullptr)
        || !read_checked(f.get(), DIM, Want::ANY, gamma.get())
        || !read_checked(f.get(), DIM, Want::ANY, beta.get())) {
        return false;
    }
    for (int l = 0; l < TRN_ENCODER_LAYERS; l++) {
        if (!read_bag_layer(f.get())) {
            return false;
        }
    }
    if (fgetc(f.get()) != EOF) {
        return false;
    }
    memset(enc, 0, sizeof *enc);
    enc->vocab_size = vocab;
    enc->bpe = bpe.release();
    enc->ln_f_gamma = gamma.release();
    enc->ln_f_beta = beta.release();
    enc->bag_half = reinterpret_cast<uint16_t *>(half.release());
    /* Untouched until a row is written: only the rows used take memory. */
    enc->bag_rows = encoder_alloc_floats(rows);
    enc->bag_state = static_cast<uint8_t *>(calloc(vocab ? vocab : 1, 1));
    if (!enc->bag_state) {
        oom_abort_sized("tarnwick: OOM (%zu bytes)\n", vocab);
    }
    return true;
}

const float *encoder_bag_row(const TrnEncoder *enc, uint32_t id, float *tmp)
{
    float *row = enc->bag_rows + (size_t)id * DIM;
    if (!enc->bag_half) {
        return row;
    }
    std::atomic_ref<uint8_t> state(enc->bag_state[id]);
    if (state.load(std::memory_order_acquire) == ROW_READY) {
        return row;
    }
    const uint16_t *half = enc->bag_half + (size_t)id * DIM;
    for (size_t i = 0; i < DIM; i++) {
        tmp[i] = half_to_float(half[i]);
    }
    encoder_final_norm(enc, tmp);
    uint8_t unwritten = 0;
    if (state.compare_exchange_strong(unwritten, ROW_WRITING, std::memory_order_acquire)) {
        memcpy(row, tmp, DIM * sizeof(float));
        state.store(ROW_READY, std::memory_order_release);
    }
    return tmp;
}
