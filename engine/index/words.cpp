/*
** words.cpp -- a text's terms as a list, for the tests and tools that show what the index reads,
** and the stem of a word.
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

namespace
{

bool is_vowel(char c)
{
    return c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u';
}

/* word_stem on s[0..n); every rule shortens the word, so it works in place. */
size_t stem_in_place(char *s, size_t n)
{
    auto ends = [s, &n](const char *tail) {
        size_t k = strlen(tail);
        return n >= k && memcmp(s + n - k, tail, k) == 0;
    };
    if (n > 4 && (ends("ies") || ends("ied"))) {
        s[n - 3] = 'y';
        return n - 2;
    }
    if (ends("sses")) {
        return n - 2;
    }
    if (n > 3 && s[n - 1] == 's' && !ends("ss") && !ends("us") && !ends("is")) {
        n--;
    } else if (!ends("eed")) {
        /* "ing" and "ed" go when a vowel stays before them ("using", "used"; not "thing",
           "red"), and a consonant they doubled goes with them ("stopped"; not "falling"). */
        size_t k = ends("ing") ? 3 : ends("ed") ? 2 : 0;
        bool vowel = false;
        for (size_t i = 0; k > 0 && i + k < n; i++) {
            vowel = vowel || strchr("aeiouy", s[i]) != nullptr;
        }
        if (k > 0 && n >= k + 2 && vowel) {
            n -= k;
            if (s[n - 1] == s[n - 2] && !is_vowel(s[n - 1]) && strchr("lsz", s[n - 1]) == nullptr) {
                n--;
            }
        }
    }
    if (n >= 3 && s[n - 1] == 'e' && s[n - 2] != 'e') {
        n--;
    }
    return n;
}

} // namespace

std::string word_stem(const std::string &word)
{
    std::string s = word;
    s.resize(stem_in_place(s.data(), s.size()));
    return s;
}

size_t stem_term(char *term, size_t n)
{
    if (n < 3) {
        return n;
    }
    for (size_t i = 0; i < n; i++) {
        if (term[i] < 'a' || term[i] > 'z') {
            return n;
        }
    }
    return stem_in_place(term, n);
}

extern "C" size_t trn_stem_word(char *word, size_t len)
{
    return word ? stem_term(word, len) : 0;
}
