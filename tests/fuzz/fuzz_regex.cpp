/*
** fuzz_regex.cpp -- regular-expression search on arbitrary patterns and texts. The input is a
** pattern, a line feed and the chunk text (a 0 byte ends either early). Every pattern must either
** compile or be refused with a one-line reason, trn_check_regex and trn_search must agree, and a
** search must finish (libFuzzer's -timeout catches one that does not).
*/
#include "fuzz_util.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static TrnEngine *engine = nullptr;
    if (!engine) {
        TrnConfig cfg = {};
        engine = trn_open(&cfg);
        ensure_cap(engine, 1);
        engine->count = 1;
        engine->chunks[0].file_path = xstrdup("/fuzz.txt");
    }
    const uint8_t *split = static_cast<const uint8_t *>(memchr(data, '\n', size));
    size_t pattern_len = split ? (size_t)(split - data) : size;
    std::string pattern(reinterpret_cast<const char *>(data), pattern_len);
    std::string text;
    if (split) {
        text.assign(reinterpret_cast<const char *>(split + 1), size - pattern_len - 1);
    }
    free(engine->chunks[0].text);
    engine->chunks[0].text = xstrdup(text.c_str());

    char message[256];
    int32_t compiles = trn_check_regex(pattern.c_str(), message, sizeof message);
    if (compiles != 0 && compiles != 1) {
        abort();
    }
    if (compiles == 0 && (message[0] == '\0' || strchr(message, '\n') != nullptr)) {
        abort(); /* a refusal always says why, on one line */
    }
    TrnResult results[1];
    int32_t hits = trn_search(engine, pattern.c_str(), TRN_SEARCH_REGEX, 1, results);
    if (hits < 0 || hits > compiles) {
        abort();
    }
    return 0;
}
