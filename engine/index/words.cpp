/*
** words.cpp -- a text's terms as a list, for the tests and tools that show what the index reads.
*/
#include "internal.h"

#include "index/words.h"

#include <cstring>

int32_t lex_split(const char *text, char *out, size_t size)
{
    int32_t n = 0;
    size_t used = 0;
    if (size > 0) {
        out[0] = '\0';
    }
    tokenize(text, strlen(text), [out, size, &used, &n](const char *s, size_t len, size_t) {
        n++;
        size_t need = len + (used > 0 ? 1 : 0);
        if (used + need + 1 > size) {
            return;
        }
        if (used > 0) {
            out[used++] = ' ';
        }
        memcpy(out + used, s, len);
        used += len;
        out[used] = '\0';
    });
    return n;
}
