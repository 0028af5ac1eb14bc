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

bool ends_with(const std::string &s, const char *tail)
{
    size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

bool is_vowel(char c)
{
    return c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u';
}

} // namespace

std::string word_stem(const std::string &word)
{
    std::string s = word;
    if (s.size() > 4 && (ends_with(s, "ies") || ends_with(s, "ied"))) {
        return s.replace(s.size() - 3, 3, "y");
    }
    if (ends_with(s, "sses")) {
        return s.erase(s.size() - 2);
    }
    if (s.size() > 3 && s.back() == 's' && !ends_with(s, "ss") && !ends_with(s, "us")
        && !ends_with(s, "is")) {
        s.pop_back();
    } else if (!ends_with(s, "eed")) {
        /* "ing" and "ed" go when a vowel stays before them ("using", "used"; not "thing",
           "red"), and a consonant they doubled goes with them ("stopped"; not "falling"). */
        size_t n = ends_with(s, "ing") ? 3 : ends_with(s, "ed") ? 2 : 0;
        if (n > 0 && s.size() >= n + 2 && s.find_first_of("aeiouy") < s.size() - n) {
            s.erase(s.size() - n);
            size_t m = s.size();
            if (s[m - 1] == s[m - 2] && !is_vowel(s[m - 1]) && strchr("lsz", s[m - 1]) == nullptr) {
                s.pop_back();
            }
        }
    }
    if (s.size() >= 3 && s.back() == 'e' && s[s.size() - 2] != 'e') {
        s.pop_back();
    }
    return s;
}
