/*
** fuzz_weights.cpp -- the encoder weights loader on a file holding arbitrary bytes. One encoder
** is built per process; each input loads into it (a failed load leaves it as far as it got, so
** later inputs start from whatever the earlier ones left, which is also what a caller sees).
*/
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static TrnEncoder encoder;
    static bool ready = false;
    if (!ready) {
        trn_encoder_init(&encoder, 42);
        ready = true;
    }
    const char *path = fuzz_input_file("trn_fuzz_weights", data, size);
    TrnWeightsMeta meta;
    trn_encoder_load_weights_meta(&encoder, path, &meta);
    if (encoder.bpe && encoder.vocab_size != encoder.bpe->n_merges + 260) {
        abort();
    }
    unlink(path);
    return 0;
}
