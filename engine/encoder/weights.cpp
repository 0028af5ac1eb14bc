/*
** weights.cpp -- the encoder weights file ("TTEN"): loading into an initialised encoder and
** saving.
**
** Little-endian throughout; integers are uint32 unless noted, floats IEEE-754 single precision.
**
**   offset  size  field
**   0       4     magic "TTEN"
**   4       4     version: 1, 2, 3 or 4
**   8       4     vocabulary size: 260 for versions 1 and 2, 260 + merge count for 3 and 4
**   12      4     maximum sequence, 256
**   16      4     model width, 512
**   20      4     heads, 8
**   24      4     feed-forward width, 2048
**   28      4     layers, 2
**   -- versions 2 to 4: metadata, 28 bytes --
**   32      4     meta_u32_0
**   36      4     meta_u32_1
**   40      4     meta_f32_0 (float)
**   44      4     meta_f32_1 (float)
**   48      8     meta_u64, low half first
**   56      4     reserved, written 0, ignored on reading
**   -- versions 3 and 4: tokenizer --
**   60      4     merge count m (vocabulary size - 260)
**   64      8*m   merge pairs (left id, right id), in merge order
**   -- tensors, from offset 32 (v1), 60 (v2) or 64 + 8*m (v3, v4), row-major floats --
**   token embedding (vocabulary size x 512), position embedding (256 x 512), final norm scale
**   and shift (512 each), then for layer 0 and layer 1: wq, wk, wv, wo (512 x 512 each,
**   [inputs][outputs]), w1 (512 x 2048), b1 (2048), w2 (2048 x 512), b2 (512), ln1 scale, ln1
**   shift, ln2 scale, ln2 shift (512 each).
**
** Version 4 precedes every tensor with a uint32 storage tag: 0, its values as float32 (as in
** versions 1-3); 1, as IEEE half precision (uint16 each, widened exactly on loading); 2, all
** +0.0, with no data. A bag-of-words encoder (zero position embedding, wo, w2 and b2) with a large
** vocabulary then takes a little under half the bytes of its version 3 file in half precision.
** Saving picks the tag per tensor: 2 when every value is +0.0, except for the token embedding,
** which always carries data so that the file's size bounds what loading allocates for it; else 1
** when half precision is asked for and every value fits its range (rounded to nearest, ties to
** even); else 0. A byte-level encoder is written with zero merges and loads back with an empty
** tokenizer, which yields the same ids.
**
** Nothing follows the last tensor: a version 1 file is 26,263,584 bytes, version 2 is 28 bytes
** longer, version 3 with m merges is 64 + 8*m + 2048*m + 26,263,552 bytes. A version 4 file of a
** bag-of-words encoder in half precision is 64 + 8*m + 1024*(m + 260) + 7,358,576 bytes, 1024
** less for each of its five norm shifts that is all zeros.
**
** Loading reads straight into the encoder's arrays and does not roll back: a version 1-3 file
** that ends inside the tensors leaves the tensors before that point overwritten. A version 4 file
** that ends early, holds an unknown tag or has bytes after its last tensor leaves the encoder as
** a refused file does (below). The engine never interprets the metadata; it belongs to the
** trainer.
**
** A file whose tensors hold a NaN, an infinity or a value beyond WEIGHT_ABS_MAX is refused after
** reading (a short one too, once its tensors have been read into), and the encoder's tensors are
** drawn afresh from seed 42 (those of a new engine), so a
** damaged file can never make the engine store NaN vectors. With every value within the bound
** the forward pass stays finite: each layer starts with a layer norm, which brings its input
** back to at most sqrt(512) per component, and the largest product that follows is some 1e25.
** Trained weights stay far below the bound.
*/
#include "internal.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <sys/stat.h>

static_assert(std::endian::native == std::endian::little, "files are read and written raw");

namespace
{

constexpr uint32_t SHAPE[5] = {
    TRN_ENCODER_MAX_SEQ, TRN_ENCODER_DIM, TRN_ENCODER_HEADS, TRN_ENCODER_FF, TRN_ENCODER_LAYERS};
constexpr size_t DIM = TRN_ENCODER_DIM;
constexpr size_t FF = TRN_ENCODER_FF;
constexpr uint32_t REFUSED_SEED = 42; /* the seed trn_open draws its encoder from */
constexpr uint32_t TAGGED_VERSION = 4;
constexpr uint32_t TAG_F32 = WEIGHTS_TAG_F32;
constexpr uint32_t TAG_F16 = WEIGHTS_TAG_F16;
constexpr uint32_t TAG_ZERO = WEIGHTS_TAG_ZERO;
constexpr size_t HALF_BLOCK = 4096; /* values converted per read or write */

/* One tensor of a layer, in file order. */
struct LayerArray {
    float *data;
    size_t count;
};

void layer_arrays(const TrnEncoderLayer *layer, LayerArray out[12])
{
    out[0] = {layer->wq, DIM * DIM};
    out[1] = {layer->wk, DIM * DIM};
    out[2] = {layer->wv, DIM * DIM};
    out[3] = {layer->wo, DIM * DIM};
    out[4] = {layer->w1, DIM * FF};
    out[5] = {layer->b1, FF};
    out[6] = {layer->w2, FF * DIM};
    out[7] = {layer->b2, DIM};
    out[8] = {layer->ln1_gamma, DIM};
    out[9] = {layer->ln1_beta, DIM};
    out[10] = {layer->ln2_gamma, DIM};
    out[11] = {layer->ln2_beta, DIM};
}

int read_u32(FILE *f, uint32_t *v)
{
    return fread(v, sizeof *v, 1, f) == 1;
}

int read_f32(FILE *f, float *v)
{
    return fread(v, sizeof *v, 1, f) == 1;
}

int read_u64_le(FILE *f, uint64_t *v)
{
    uint32_t lo = 0;
    uint32_t hi = 0;
    if (!read_u32(f, &lo) || !read_u32(f, &hi)) {
        return 0;
    }
    *v = ((uint64_t)hi << 32) | lo;
    return 1;
}

int read_floats(FILE *f, float *p, size_t n)
{
    return fread(p, sizeof(float), n, f) == n;
}

} // namespace

/* Every half value has an exact float32. */
float half_to_float(uint16_t h)
{
    uint32_t sign = (uint32_t)(h & 0x8000u) << 16;
    uint32_t exp = (h >> 10) & 0x1Fu;
    uint32_t mant = h & 0x3FFu;
    if (exp == 0) {
        float v = (float)mant * 0x1p-24f; /* zero or subnormal: mant units of 2^-24 */
        return sign ? -v : v;
    }
    uint32_t bits =
        exp == 31 ? sign | 0x7F800000u | (mant << 13) : sign | ((exp + 112) << 23) | (mant << 13);
    return std::bit_cast<float>(bits);
}

namespace
{

/* float32 to half precision, rounded to nearest with ties to even; beyond 65504 the result
** rounds to infinity, as IEEE conversion does. */
uint16_t float_to_half(float v)
{
    uint32_t x = std::bit_cast<uint32_t>(v);
    uint32_t sign = (x >> 16) & 0x8000u;
    uint32_t ax = x & 0x7FFFFFFFu;
    uint32_t exp = ax >> 23;
    if (exp == 255) {
        return (uint16_t)(sign | 0x7C00u | (ax & 0x7FFFFFu ? 0x200u : 0));
    }
    if (exp >= 143) { /* 2^16 and above */
        return (uint16_t)(sign | 0x7C00u);
    }
    uint32_t mant = ax & 0x7FFFFFu;
    uint32_t q;
    uint32_t rest;
    uint32_t halfway;
    if (exp >= 113) { /* a normal half: drop 13 bits; a carry may run into the exponent */
        q = ((exp - 112) << 10) | (mant >> 13);
        rest = mant & 0x1FFFu;
        halfway = 0x1000u;
    } else {
        uint32_t shift = 126 - exp; /* subnormal half: units of 2^-24 */
        if (shift > 24) {
            return (uint16_t)sign;
        }
        mant |= 0x800000u;
        q = mant >> shift;
        rest = mant & ((1u << shift) - 1);
        halfway = 1u << (shift - 1);
    }
    if (rest > halfway || (rest == halfway && (q & 1))) {
        q++;
    }
    return (uint16_t)(sign | q);
}

/* One tensor: plain floats before version 4, else its tag and what the tag says. */
int read_tensor(FILE *f, uint32_t version, float *p, size_t n)
{
    if (version < TAGGED_VERSION) {
        return read_floats(f, p, n);
    }
    uint32_t tag = 0;
    if (!read_u32(f, &tag)) {
        return 0;
    }
    if (tag == TAG_F32) {
        return read_floats(f, p, n);
    }
    if (tag == TAG_ZERO) {
        memset(p, 0, n * sizeof(float));
        return 1;
    }
    if (tag != TAG_F16) {
        return 0;
    }
    uint16_t block[HALF_BLOCK];
    for (size_t at = 0; at < n; at += HALF_BLOCK) {
        size_t take = n - at < HALF_BLOCK ? n - at : HALF_BLOCK;
        if (fread(block, sizeof block[0], take, f) != take) {
            return 0;
        }
        for (size_t i = 0; i < take; i++) {
            p[at + i] = half_to_float(block[i]);
        }
    }
    return 1;
}

int load_layer(FILE *f, uint32_t version, TrnEncoderLayer *layer)
{
    LayerArray arrays[12];
    layer_arrays(layer, arrays);
    for (const LayerArray &a : arrays) {
        if (!read_tensor(f, version, a.data, a.count)) {
            return 0;
        }
    }
    return 1;
}

/* Bytes between the read position and the end of a regular file, or -1 when unknown. */
int64_t bytes_left(FILE *f)
{
    struct stat st;
    long pos = ftell(f);
    if (pos < 0 || fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
        return -1;
    }
    return st.st_size > pos ? (int64_t)st.st_size - pos : 0;
}

/* 1 when every value of n lies within +-WEIGHT_ABS_MAX; NaN fails the comparison. */
int floats_in_range(const float *p, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        if (!(fabsf(p[i]) <= WEIGHT_ABS_MAX)) {
            return 0;
        }
    }
    return 1;
}

int encoder_in_range(const TrnEncoder *enc)
{
    if (!floats_in_range(enc->tok_emb, (size_t)enc->vocab_size * DIM)
        || !floats_in_range(enc->pos_emb, (size_t)TRN_ENCODER_MAX_SEQ * DIM)
        || !floats_in_range(enc->ln_f_gamma, DIM) || !floats_in_range(enc->ln_f_beta, DIM)) {
        return 0;
    }
    for (const TrnEncoderLayer &layer : enc->layers) {
        LayerArray arrays[12];
        layer_arrays(&layer, arrays);
        for (const LayerArray &a : arrays) {
            if (!floats_in_range(a.data, a.count)) {
                return 0;
            }
        }
    }
    return 1;
}

void write_u32(FILE *f, uint32_t v)
{
    fwrite(&v, sizeof v, 1, f);
}

/* The tag a version 4 file stores the tensor under (see the top of the file). */
uint32_t tensor_tag(const float *p, size_t n, bool may_be_zero, bool half)
{
    bool zero = may_be_zero;
    bool fits = half;
    for (size_t i = 0; i < n && (zero || fits); i++) {
        uint32_t bits = std::bit_cast<uint32_t>(p[i]);
        zero = zero && bits == 0;
        fits = fits && (float_to_half(p[i]) & 0x7C00u) != 0x7C00u; /* neither infinite nor NaN */
    }
    return zero ? TAG_ZERO : fits ? TAG_F16 : TAG_F32;
}

/* Writes one tensor: plain floats before version 4, else its tag and its data. Returns 0 on a
** short write. */
int write_tensor(FILE *f, uint32_t version, const float *p, size_t n, bool may_be_zero, bool half)
{
    if (version < TAGGED_VERSION) {
        return fwrite(p, sizeof(float), n, f) == n;
    }
    uint32_t tag = tensor_tag(p, n, may_be_zero, half);
    if (fwrite(&tag, sizeof tag, 1, f) != 1) {
        return 0;
    }
    if (tag == TAG_F32) {
        return fwrite(p, sizeof(float), n, f) == n;
    }
    uint16_t block[HALF_BLOCK];
    for (size_t at = 0; tag == TAG_F16 && at < n; at += HALF_BLOCK) {
        size_t take = n - at < HALF_BLOCK ? n - at : HALF_BLOCK;
        for (size_t i = 0; i < take; i++) {
            block[i] = float_to_half(p[at + i]);
        }
        if (fwrite(block, sizeof block[0], take, f) != take) {
            return 0;
        }
    }
    return 1;
}

} // namespace

extern "C" {

int trn_encoder_load_weights(TrnEncoder *enc, const char *path)
{
    return trn_encoder_load_weights_meta(enc, path, nullptr);
}

int trn_encoder_load_weights_meta(TrnEncoder *enc, const char *path, TrnWeightsMeta *meta)
{
    if (!enc->pos_emb) {
        encoder_redraw(enc, REFUSED_SEED); /* an encoder kept for embedding only has no tensors */
    }
    encoder_drop_bag(enc); /* the rows of the weights being replaced */
    FILE *f = fopen(path, "rb");
    if (!f) {
        fprintf(stderr, "tarnwick: cannot open weights: %s\n", path);
        return 0;
    }
    char magic[4];
    if (fread(magic, 1, 4, f) != 4 || memcmp(magic, "TTEN", 4) != 0) {
        fprintf(stderr, "tarnwick: bad weights magic in %s\n", path);
        fclose(f);
        return 0;
    }
    uint32_t version = 0;
    if (!read_u32(f, &version) || version < 1 || version > TAGGED_VERSION) {
        fprintf(stderr, "tarnwick: unsupported weights version %u in %s\n", version, path);
        fclose(f);
        return 0;
    }
    uint32_t vocab = 0;
    if (!read_u32(f, &vocab)) {
        fclose(f);
        return 0;
    }
    for (uint32_t expected : SHAPE) {
        uint32_t value = 0;
        if (!read_u32(f, &value) || value != expected) {
            fclose(f);
            return 0;
        }
    }
    if (version < 3 && vocab != TRN_ENCODER_BYTE_VOCAB) {
        fclose(f);
        return 0;
    }

    if (version == 1) {
        if (meta) {
            memset(meta, 0, sizeof *meta);
        }
    } else {
        TrnWeightsMeta m;
        uint32_t reserved = 0;
        if (!read_u32(f, &m.meta_u32_0) || !read_u32(f, &m.meta_u32_1)
            || !read_f32(f, &m.meta_f32_0) || !read_f32(f, &m.meta_f32_1)
            || !read_u64_le(f, &m.meta_u64) || !read_u32(f, &reserved)) {
            fclose(f);
            return 0;
        }
        if (meta) {
            *meta = m;
        }
    }

    if (version < 3) {
        // The encoder owns its tokenizer, so dropping it frees it. A token embedding left from a
        // larger vocabulary still has room for the 260 rows read below.
        trn_bpe_free(enc->bpe);
        enc->bpe = nullptr;
        enc->vocab_size = TRN_ENCODER_BYTE_VOCAB;
    } else {
        uint32_t merges = 0;
        if (!read_u32(f, &merges)) {
            fclose(f);
            return 0;
        }
        if ((uint64_t)vocab != (uint64_t)merges + TRN_ENCODER_BYTE_VOCAB) {
            fprintf(stderr,
                    "tarnwick: v%u vocab mismatch: %u != %u + %u\n",
                    version,
                    vocab,
                    (uint32_t)TRN_ENCODER_BYTE_VOCAB,
                    merges);
            fclose(f);
            return 0;
        }
        // A hostile count must not turn into a huge allocation: the file has to hold the pairs
        // and the token embedding they imply (at least in half precision, with its tag) before
        // either is allocated.
        int64_t left = bytes_left(f);
        uint64_t row_bytes = version < TAGGED_VERSION ? DIM * sizeof(float) : DIM * 2;
        uint64_t needed =
            (uint64_t)merges * 8 + (uint64_t)vocab * row_bytes + (version < TAGGED_VERSION ? 0 : 4);
        if (left < 0 || (uint64_t)left < needed) {
            fclose(f);
            return 0;
        }
        TrnBpe *bpe = trn_bpe_read(f, merges);
        if (!bpe) {
            fclose(f);
            return 0;
        }
        free(enc->tok_emb);
        trn_bpe_free(enc->bpe);
        enc->bpe = bpe;
        enc->vocab_size = vocab;
        enc->tok_emb = encoder_alloc_floats((size_t)vocab * DIM);
    }

    int ok = read_tensor(f, version, enc->tok_emb, (size_t)enc->vocab_size * DIM)
             && read_tensor(f, version, enc->pos_emb, (size_t)TRN_ENCODER_MAX_SEQ * DIM)
             && read_tensor(f, version, enc->ln_f_gamma, DIM)
             && read_tensor(f, version, enc->ln_f_beta, DIM)
             && load_layer(f, version, &enc->layers[0]) && load_layer(f, version, &enc->layers[1]);
    bool damaged = version >= TAGGED_VERSION && (!ok || fgetc(f) != EOF);
    fclose(f);
    if (damaged) {
        fprintf(stderr, "tarnwick: weights in %s are damaged; refused\n", path);
        encoder_redraw(enc, REFUSED_SEED);
        return 0;
    }
    /* Checked after a short file too: its tensors were read as far as it went, and a new token
    ** embedding (version 3) holds whatever memory held beyond that point. */
    if (!encoder_in_range(enc)) {
        fprintf(stderr,
                "tarnwick: weights in %s hold values that are not finite or beyond %g; refused\n",
                path,
                (double)WEIGHT_ABS_MAX);
        encoder_redraw(enc, REFUSED_SEED);
        return 0;
    }
    return ok ? 1 : 0;
}

int trn_encoder_save_weights(const TrnEncoder *enc, const char *path)
{
    return trn_encoder_save_weights_meta(enc, path, nullptr);
}

int trn_encoder_save_weights_meta(const TrnEncoder *enc, const char *path,
                                  const TrnWeightsMeta *meta)
{
    return trn_encoder_save_weights_flags(enc, path, meta, 0);
}

int trn_encoder_save_weights_flags(const TrnEncoder *enc, const char *path,
                                   const TrnWeightsMeta *meta, uint32_t flags)
{
    const bool half = (flags & TRN_WEIGHTS_HALF) != 0;
    const bool tagged = half || (flags & TRN_WEIGHTS_TAGGED) != 0;
    FILE *f = fopen(path, "wb");
    if (!f) {
        return 0;
    }
    uint32_t version = tagged ? TAGGED_VERSION : enc->bpe ? 3 : (meta ? 2 : 1);
    fwrite("TTEN", 1, 4, f);
    write_u32(f, version);
    write_u32(f, enc->vocab_size);
    for (uint32_t value : SHAPE) {
        write_u32(f, value);
    }

    if (meta) {
        write_u32(f, meta->meta_u32_0);
        write_u32(f, meta->meta_u32_1);
        fwrite(&meta->meta_f32_0, sizeof(float), 1, f);
        fwrite(&meta->meta_f32_1, sizeof(float), 1, f);
        uint32_t lo = (uint32_t)meta->meta_u64;
        uint32_t hi = (uint32_t)(meta->meta_u64 >> 32);
        if (fwrite(&lo, sizeof lo, 1, f) == 1) {
            write_u32(f, hi);
        }
        write_u32(f, 0);
    } else if (version >= 3) {
        const float zero = 0.0f;
        write_u32(f, 0);
        write_u32(f, 0);
        fwrite(&zero, sizeof zero, 1, f);
        fwrite(&zero, sizeof zero, 1, f);
        write_u32(f, 0);
        write_u32(f, 0);
        write_u32(f, 0);
    }

    if (enc->bpe) {
        write_u32(f, enc->bpe->n_merges);
        if (!trn_bpe_write(enc->bpe, f)) {
            fclose(f);
            return 0;
        }
    } else if (tagged) {
        write_u32(f, 0); /* byte-level: an empty tokenizer encodes text to the same ids */
    }

    int ok =
        write_tensor(f, version, enc->tok_emb, (size_t)enc->vocab_size * DIM, false, half)
        && write_tensor(f, version, enc->pos_emb, (size_t)TRN_ENCODER_MAX_SEQ * DIM, true, half)
        && write_tensor(f, version, enc->ln_f_gamma, DIM, true, half)
        && write_tensor(f, version, enc->ln_f_beta, DIM, true, half);
    for (const TrnEncoderLayer &layer : enc->layers) {
        LayerArray arrays[12];
        layer_arrays(&layer, arrays);
        for (const LayerArray &a : arrays) {
            ok = ok && write_tensor(f, version, a.data, a.count, true, half);
        }
    }
    // Buffered bytes reach the disk only here, so a full disk shows up at the close.
    return fclose(f) == 0 && ok ? 1 : 0;
}

} // extern "C"
