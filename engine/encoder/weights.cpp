/*
** weights.cpp -- the encoder weights file ("TTEN"): loading into an initialised encoder and
** saving.
**
** Little-endian throughout; integers are uint32 unless noted, floats IEEE-754 single precision.
**
**   offset  size  field
**   0       4     magic "TTEN"
**   4       4     version: 1, 2 or 3
**   8       4     vocabulary size: 260 for versions 1 and 2, 260 + merge count for version 3
**   12      4     maximum sequence, 256
**   16      4     model width, 512
**   20      4     heads, 8
**   24      4     feed-forward width, 2048
**   28      4     layers, 2
**   -- versions 2 and 3: metadata, 28 bytes --
**   32      4     meta_u32_0
**   36      4     meta_u32_1
**   40      4     meta_f32_0 (float)
**   44      4     meta_f32_1 (float)
**   48      8     meta_u64, low half first
**   56      4     reserved, written 0, ignored on reading
**   -- version 3: tokenizer --
**   60      4     merge count m (vocabulary size - 260)
**   64      8*m   merge pairs (left id, right id), in merge order
**   -- tensors, from offset 32 (v1), 60 (v2) or 64 + 8*m (v3), row-major floats --
**   token embedding (vocabulary size x 512), position embedding (256 x 512), final norm scale
**   and shift (512 each), then for layer 0 and layer 1: wq, wk, wv, wo (512 x 512 each,
**   [inputs][outputs]), w1 (512 x 2048), b1 (2048), w2 (2048 x 512), b2 (512), ln1 scale, ln1
**   shift, ln2 scale, ln2 shift (512 each).
**
** Nothing follows the last tensor: a version 1 file is 26,263,584 bytes, version 2 is 28 bytes
** longer, version 3 with m merges is 64 + 8*m + 2048*m + 26,263,552 bytes.
**
** Loading reads straight into the encoder's arrays and does not roll back: a file that ends
** inside the tensors leaves the tensors before that point overwritten. The engine never
** interprets the metadata; it belongs to the trainer.
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
constexpr float WEIGHT_ABS_MAX = 1e4f;
constexpr uint32_t REFUSED_SEED = 42; /* the seed trn_open draws its encoder from */

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

int load_layer(FILE *f, TrnEncoderLayer *layer)
{
    LayerArray arrays[12];
    layer_arrays(layer, arrays);
    for (const LayerArray &a : arrays) {
        if (!read_floats(f, a.data, a.count)) {
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

} // namespace

extern "C" {

int trn_encoder_load_weights(TrnEncoder *enc, const char *path)
{
    return trn_encoder_load_weights_meta(enc, path, nullptr);
}

int trn_encoder_load_weights_meta(TrnEncoder *enc, const char *path, TrnWeightsMeta *meta)
{
    free(enc->bag_rows); /* the rows of the weights being replaced */
    enc->bag_rows = nullptr;
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
    if (!read_u32(f, &version) || version < 1 || version > 3) {
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
                    "tarnwick: v3 vocab mismatch: %u != %u + %u\n",
                    vocab,
                    (uint32_t)TRN_ENCODER_BYTE_VOCAB,
                    merges);
            fclose(f);
            return 0;
        }
        // A hostile count must not turn into a huge allocation: the file has to hold the pairs
        // and the token embedding they imply before either is allocated.
        int64_t left = bytes_left(f);
        uint64_t needed = (uint64_t)merges * 8 + (uint64_t)vocab * DIM * sizeof(float);
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

    int ok = read_floats(f, enc->tok_emb, (size_t)enc->vocab_size * DIM)
             && read_floats(f, enc->pos_emb, (size_t)TRN_ENCODER_MAX_SEQ * DIM)
             && read_floats(f, enc->ln_f_gamma, DIM) && read_floats(f, enc->ln_f_beta, DIM)
             && load_layer(f, &enc->layers[0]) && load_layer(f, &enc->layers[1]);
    fclose(f);
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
    FILE *f = fopen(path, "wb");
    if (!f) {
        return 0;
    }
    uint32_t version = enc->bpe ? 3 : (meta ? 2 : 1);
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
    } else if (enc->bpe) {
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
    }

    fwrite(enc->tok_emb, sizeof(float), (size_t)enc->vocab_size * DIM, f);
    fwrite(enc->pos_emb, sizeof(float), (size_t)TRN_ENCODER_MAX_SEQ * DIM, f);
    fwrite(enc->ln_f_gamma, sizeof(float), DIM, f);
    fwrite(enc->ln_f_beta, sizeof(float), DIM, f);
    for (const TrnEncoderLayer &layer : enc->layers) {
        LayerArray arrays[12];
        layer_arrays(&layer, arrays);
        for (const LayerArray &a : arrays) {
            if (fwrite(a.data, sizeof(float), a.count, f) != a.count) {
                fclose(f);
                return 0;
            }
        }
    }
    // Buffered bytes reach the disk only here, so a full disk shows up at the close.
    return fclose(f) == 0 ? 1 : 0;
}

} // extern "C"
