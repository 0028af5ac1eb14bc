/*
** tarnwick_encoder.h -- the tokenizer and the encoder of the Tarnwick engine, part of its public
** interface. tarnwick.h includes it: include that header, not this one.
*/
#ifndef TARNWICK_ENCODER_H
#define TARNWICK_ENCODER_H

#ifndef TARNWICK_H
#error "include tarnwick.h, which includes this header"
#endif

/* ---------------------------------------------------------------------------------------------
** Byte-pair tokenizer
**
** Token ids: 0-255 are bytes, 257 begins and 258 ends every encoded sequence, merge k (from 0)
** creates id 260 + k. Ids 256 and 259 are never produced.
**
** Tokenizer file ("TBPE"), little-endian uint32: magic "TBPE", merge count m, then m pairs
** (left id, right id). The vocabulary size is m + 260 and is not stored.
*/
typedef struct TrnBpe TrnBpe; /* opaque: the merges in the order they were learned */

/* Learns at most num_merges merges from len bytes of data, each time merging the most frequent
** adjacent pair of the whole sequence (ties go to the lowest slot of the 2^20-slot pair table).
** Stops early when no pair occurs twice. Prints "bpe: merge ..." every 500 merges and
** "bpe: training complete. ..." at the end to standard error. Only one training may run in a
** process at a time. Returns a tokenizer to free with trn_bpe_free, or NULL when data is NULL,
** len < 2 or num_merges < 1. The input must hold fewer than 2^20 distinct adjacent pairs. */
TRN_API TrnBpe *trn_bpe_train(const uint8_t *data, size_t len, int32_t num_merges);

/* Encodes the NUL-terminated text: merges the whole text in training order, then writes 257,
** the first max - 2 ids, and 258 to out. Returns the number of ids written (at most max; 2 for an
** empty text), or 0 when text or out is NULL or max < 3. */
TRN_API int32_t trn_bpe_encode(const TrnBpe *bpe, const char *text, uint32_t *out, int32_t max);

/* Writes the "TBPE" file at path. Returns 1, or 0 when the file cannot be opened. */
TRN_API int trn_bpe_save(const TrnBpe *bpe, const char *path);

/* Reads a "TBPE" file. Returns a tokenizer to free with trn_bpe_free, or NULL when the file
** cannot be opened, has another magic, or ends early. */
TRN_API TrnBpe *trn_bpe_load(const char *path);

/* Writes only the merge pairs (no magic, no count) to stream. Returns 0 on a short write, else 1
** (also for zero merges). */
TRN_API int trn_bpe_write(const TrnBpe *bpe, FILE *stream);

/* Reads m merge pairs from stream. Returns a tokenizer to free with trn_bpe_free, or NULL on a
** short read (nothing is left allocated then). */
TRN_API TrnBpe *trn_bpe_read(FILE *stream, uint32_t m);

/* Frees the pairs and the record. NULL is ignored. */
TRN_API void trn_bpe_free(TrnBpe *bpe);

/* ---------------------------------------------------------------------------------------------
** Encoder
**
** A fixed-shape transformer: width 512, 8 heads of 64, feed-forward 2048, 2 pre-norm layers,
** at most 256 positions, mean pooling and L2 normalisation. Matrices are float, row-major,
** stored [inputs][outputs].
*/
enum {
    TRN_ENCODER_DIM = 512,
    TRN_ENCODER_HEADS = 8,
    TRN_ENCODER_HEAD_DIM = 64,
    TRN_ENCODER_FF = 2048,
    TRN_ENCODER_LAYERS = 2,
    TRN_ENCODER_MAX_SEQ = 256,
    TRN_ENCODER_BYTE_VOCAB = 260,
    TRN_TOKEN_BEGIN = 257,
    TRN_TOKEN_END = 258
};

typedef struct TrnEncoder TrnEncoder; /* opaque */

/* Five values a trainer stores with its weights; the engine keeps them and never reads them.
** What each means is the trainer's (see trainers/README.md). */
typedef struct TrnWeightsMeta {
    uint32_t meta_u32_0, meta_u32_1;
    float meta_f32_0, meta_f32_1;
    uint64_t meta_u64;
} TrnWeightsMeta;

/* Returns a new byte-level encoder (vocabulary 260, no tokenizer) filled from the xorshift32
** generator seeded with seed (0 counts as 1): the same seed gives the same weights bit for bit.
** The engine uses seed 42. Never NULL; free with trn_encoder_free. */
TRN_API TrnEncoder *trn_encoder_init(uint32_t seed);

/* As trn_encoder_init, with the vocabulary of bpe (260 + its merges); the encoder takes
** ownership of bpe. */
TRN_API TrnEncoder *trn_encoder_init_bpe(uint32_t seed, TrnBpe *bpe);

/* Frees every array, the tokenizer, the scratch space and the encoder. NULL is ignored. */
TRN_API void trn_encoder_free(TrnEncoder *enc);

/* Embeds the NUL-terminated text into out, a caller-owned array of 512 floats. Without a
** tokenizer only the first 254 bytes count. The result has unit length unless its norm is at or
** below 1e-12. Weights that are a bag of words (zero position embeddings and layer outputs, as
** the built-in encoder) give the sum of the text's distinct tokens' rows after the final norm, a
** token held c times weighing 1 + ln c; any other weights give the mean of the forward pass's
** rows. The first call allocates the encoder's scratch space (about 6 MB), kept until
** trn_encoder_free; calls on one encoder must be serialised, calls on different encoders may
** overlap. */
TRN_API void trn_encoder_embed_text(TrnEncoder *enc, const char *text, float *out);

/* ---------------------------------------------------------------------------------------------
** Encoder weights file ("TTEN")
**
** Little-endian: magic "TTEN", version (1 to 4), vocabulary size, then 256, 512, 8, 2048, 2.
** Versions 2 to 4 add the 28-byte metadata block (two uint32, two float, one uint64 low half
** first, a reserved 0). Versions 3 and 4 add the merge count m and m pairs. Then the tensors:
** token and position embeddings, final norm scale and shift, and per layer wq, wk, wv, wo, w1,
** b1, w2, b2, ln1 scale and shift, ln2 scale and shift. Version 1 is 26,263,584 bytes.
** Version 4 precedes each tensor with a uint32 storage tag: 0 float32 values, 1 IEEE half
** precision values (uint16 each), 2 all zeros (no data follows). The encoder computes in float32
** whatever the file stores.
*/

/* Flags of trn_encoder_save_weights_flags. */
enum {
    TRN_WEIGHTS_TAGGED = 1, /* version 4: a tensor of +0.0 only takes no room, others float32 */
    TRN_WEIGHTS_HALF = 2    /* version 4 with half precision for the tensors that fit its range */
};

/* Same as trn_encoder_load_weights_meta with meta NULL. */
TRN_API int trn_encoder_load_weights(TrnEncoder *enc, const char *path);

/* Reads a weights file into an initialised encoder. Returns 1 on success, 0 on failure, with a
** "tarnwick: ..." line for a file that cannot be opened, a bad magic, an unsupported version or
** a version 3 or 4 vocabulary mismatch, and silently for a wrong shape or a short file. A failed
** load leaves the encoder as far as it got. A file whose tensors, as far as they were read, hold
** a NaN, an infinity or a value beyond 1e4 in magnitude, and a version 4 file whose tensors end
** early, carry an unknown tag or are followed by more bytes, are refused with a "tarnwick: ..."
** line too, and then leave the encoder with the random tensors of trn_encoder_init with seed 42
** (its tokenizer stays), so no encoder ever yields non-finite vectors. meta may be NULL; a
** version 1 file zeroes it. */
TRN_API int trn_encoder_load_weights_meta(TrnEncoder *enc, const char *path, TrnWeightsMeta *meta);

/* Same as trn_encoder_save_weights_meta with meta NULL. */
TRN_API int trn_encoder_save_weights(const TrnEncoder *enc, const char *path);

/* Writes the encoder to path: version 3 when it has a tokenizer, else 2 when meta is given, else
** 1. Returns 1 on success, 0 when the file cannot be created or a layer write falls short (the
** partial file stays). */
TRN_API int trn_encoder_save_weights_meta(const TrnEncoder *enc, const char *path,
                                          const TrnWeightsMeta *meta);

/* As trn_encoder_save_weights_meta with flags 0; with TRN_WEIGHTS_TAGGED or TRN_WEIGHTS_HALF it
** writes version 4 instead (with the metadata block, zeroed when meta is NULL, and a tokenizer
** block, empty for a byte-level encoder, which then loads back with an empty tokenizer that
** encodes every text to the same ids). Each tensor of +0.0 only, except the token embedding, is
** stored as zeros. With TRN_WEIGHTS_HALF every other tensor whose values all fit half precision
** (magnitude below 65520, not NaN) is stored rounded to the nearest half, ties to even; the rest
** stay float32. Returns as trn_encoder_save_weights_meta. */
TRN_API int trn_encoder_save_weights_flags(const TrnEncoder *enc, const char *path,
                                           const TrnWeightsMeta *meta, uint32_t flags);

#endif /* TARNWICK_ENCODER_H */
