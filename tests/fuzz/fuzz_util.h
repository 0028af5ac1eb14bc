/*
** fuzz_util.h -- what the fuzz targets share: a per-process scratch file that holds the input
** bytes (the loaders under test read files, not buffers), and the handles and invariant check
** of the engine tests.
*/
#ifndef TRN_FUZZ_UTIL_H
#define TRN_FUZZ_UTIL_H

#include "../engine/store_fixtures.h"

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

/* Writes the input to this process's scratch file and returns its path. */
inline const char *fuzz_input_file(const char *stem, const uint8_t *data, size_t size)
{
    static char path[256];
    const char *dir = getenv("TMPDIR");
    snprintf(path, sizeof path, "%s/%s_%d", dir && dir[0] ? dir : "/tmp", stem, (int)getpid());
    FILE *f = fopen(path, "wb");
    if (!f) {
        abort();
    }
    if (size > 0 && fwrite(data, 1, size, f) != size) {
        abort();
    }
    fclose(f);
    return path;
}

/* Aborts, so the fuzzer keeps the input, when a handle breaks what the engine relies on. */
inline void fuzz_check_handle(const TrnEngine *e)
{
    std::string violation = handle_invariant_violation(e);
    if (!violation.empty()) {
        fprintf(stderr, "fuzz: %s\n", violation.c_str());
        abort();
    }
}

#endif /* TRN_FUZZ_UTIL_H */
