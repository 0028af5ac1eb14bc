/*
** fuzz_weights.cpp -- the encoder weights loader on a file holding arbitrary bytes. One encoder
** is built per process; each input loads into it (a failed load leaves it as far as it got, so
** later inputs start from whatever the earlier ones left, which is also what a caller sees).
** Whatever the file, the encoder must never be left holding a value that is not finite.
*/
#include "fuzz_util.h"

#include <cmath>

namespace
{

bool all_finite(const float *p, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        if (!std::isfinite(p[i])) {
            return false;
        }
    }
    return true;
}

bool encoder_finite(const TrnEncoder *e)
{
    const size_t d = TRN_ENCODER_DIM;
    const size_t ff = TRN_ENCODER_FF;
    bool ok = all_finite(e->tok_emb, (size_t)e->vocab_size * d)
              && all_finite(e->pos_emb, (size_t)TRN_ENCODER_MAX_SEQ * d)
              && all_finite(e->ln_f_gamma, d) && all_finite(e->ln_f_beta, d);
    for (const TrnEncoderLayer &l : e->layers) {
        ok = ok && all_finite(l.wq, d * d) && all_finite(l.wk, d * d) && all_finite(l.wv, d * d)
             && all_finite(l.wo, d * d) && all_finite(l.w1, d * ff) && all_finite(l.b1, ff)
             && all_finite(l.w2, ff * d) && all_finite(l.b2, d) && all_finite(l.ln1_gamma, d)
             && all_finite(l.ln1_beta, d) && all_finite(l.ln2_gamma, d)
             && all_finite(l.ln2_beta, d);
    }
    return ok;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static TrnEncoder encoder;
    static bool ready = false;
    if (!ready) {
        encoder_init(&encoder, 42);
        ready = true;
    }
    const char *path = fuzz_input_file("trn_fuzz_weights", data, size);
    TrnWeightsMeta meta;
    trn_encoder_load_weights_meta(&encoder, path, &meta);
    if (encoder.bpe && encoder.vocab_size != encoder.bpe->n_merges + 260) {
        abort();
    }
    if (!encoder_finite(&encoder)) {
        abort();
    }
    // The engine's set-up of a bag of words takes a file only when every check above passed.
    TrnEncoder bag;
    if (encoder_init_bag_file(&bag, path)) {
        float v[TRN_ENCODER_DIM];
        trn_encoder_embed_text(&bag, "abc", v);
        if (!all_finite(v, TRN_ENCODER_DIM)) {
            abort();
        }
        encoder_release(&bag);
    }
    unlink(path);
    return 0;
}
