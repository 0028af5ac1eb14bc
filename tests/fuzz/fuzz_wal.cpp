/*
** fuzz_wal.cpp -- log replay on arbitrary bytes: it must stop at whatever it cannot read, add
** only whole records and leave a handle the rest of the engine can use. Replay embeds every
** record, so one encoder is built per process and lent to each handle.
*/
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static TrnEncoder encoder;
    static bool ready = false;
    if (!ready) {
        encoder_init(&encoder, 42);
        ready = true;
    }
    const char *path = fuzz_input_file("trn_fuzz_wal", data, size);
    TrnEngine *e = bare_engine(&encoder);
    wal_replay(e, path);
    fuzz_check_handle(e);
    trn_build_doc_index(e);
    memset(&e->encoder, 0, sizeof e->encoder);
    free_bare_engine(e);
    unlink(path);
    return 0;
}
