/*
** words.h -- the words of a text, as the word index and the queries read them.
**
** A chunk's text is read as UTF-8 and cut into words: maximal runs of letters, digits and
** underscores. Letters are every code point from U+00C0 up that is not punctuation or a symbol
** (x and / signs of Latin-1, U+2000..U+2BFF, U+3000..U+303F excluded); bytes that are not valid
** UTF-8 separate words. Case is folded for ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic.
** A word whose parts differ from it is also split into its parts, at underscores, at a lower-case
** letter followed by an upper-case one ("readFile"), before the last capital of a run of capitals
** followed by a lower-case letter ("HTTPServer") and between letters and digits ("utf8"). Both the
** whole word, with its underscores dropped, and each part become terms: "readFileSync" gives
** readfilesync, read, file, sync, so "read file" finds it and "read_file_sync" matches it whole.
** Terms longer than 64 bytes are cut there. A query is split the same way. The word index holds
** each term's stem (tokenize_stems: "reads", "reading" and "read" are "read").
*/
#ifndef TRN_WORDS_H
#define TRN_WORDS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

constexpr size_t TERM_MAX = 64; /* bytes of a folded term; longer terms are cut */
constexpr size_t RUN_MAX = 256; /* code points of a word handled at once */

/* Character classes of a word's code points. */
enum : uint8_t { CL_LOWER, CL_UPPER, CL_DIGIT, CL_JOIN };

/* Lower-case form of a code point of the folded scripts; c itself otherwise. */
inline uint32_t fold_cp(uint32_t c)
{
    if (c < 0x80) {
        return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    }
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) {
        return c + 32;
    }
    if (c >= 0x100 && c <= 0x17F) {
        if (c == 0x130) {
            return 'i';
        }
        if (c == 0x178) {
            return 0xFF;
        }
        if ((c <= 0x137 || (c >= 0x14A && c <= 0x177)) && (c % 2) == 0) {
            return c + 1;
        }
        if (((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) && (c % 2) == 1) {
            return c + 1;
        }
        return c;
    }
    if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) {
        return c + 32;
    }
    if (c == 0x3C2) {
        return 0x3C3; /* final sigma */
    }
    if (c >= 0x410 && c <= 0x42F) {
        return c + 32;
    }
    if (c >= 0x400 && c <= 0x40F) {
        return c + 80;
    }
    return c;
}

/* 1 when code point c can be part of a word. */
inline bool is_word_cp(uint32_t c)
{
    if (c < 0x80) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')
               || c == '_';
    }
    if (c < 0xC0 || c == 0xD7 || c == 0xF7) {
        return false;
    }
    if ((c >= 0x2000 && c <= 0x2BFF) || (c >= 0x3000 && c <= 0x303F) || (c >= 0xFE30 && c <= 0xFE4F)
        || (c >= 0xFF00 && c <= 0xFF20) || c == 0xFEFF) {
        return false;
    }
    return true;
}

/* Decodes one UTF-8 sequence at p (n bytes left). Returns its length; *cp is the code point, or
** 0xFFFFFFFF for a byte that does not start a valid sequence (length 1). */
inline size_t decode_utf8(const unsigned char *p, size_t n, uint32_t *cp)
{
    unsigned char b = p[0];
    if (b < 0x80) {
        *cp = b;
        return 1;
    }
    size_t len = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC2 ? 2 : 0;
    if (len == 0 || len > n || b > 0xF4) {
        *cp = 0xFFFFFFFF;
        return 1;
    }
    uint32_t c = b & (0x7F >> len);
    for (size_t i = 1; i < len; i++) {
        if ((p[i] & 0xC0) != 0x80) {
            *cp = 0xFFFFFFFF;
            return 1;
        }
        c = (c << 6) | (p[i] & 0x3F);
    }
    if ((len == 3 && c < 0x800) || (len == 4 && (c < 0x10000 || c > 0x10FFFF))) {
        *cp = 0xFFFFFFFF;
        return 1;
    }
    *cp = c;
    return len;
}

/* Writes code point c as UTF-8 at out; returns the bytes written (1 to 4). */
inline size_t put_utf8(char *out, uint32_t c)
{
    if (c < 0x80) {
        out[0] = (char)c;
        return 1;
    }
    if (c < 0x800) {
        out[0] = (char)(0xC0 | (c >> 6));
        out[1] = (char)(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = (char)(0xE0 | (c >> 12));
        out[1] = (char)(0x80 | ((c >> 6) & 0x3F));
        out[2] = (char)(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = (char)(0xF0 | (c >> 18));
    out[1] = (char)(0x80 | ((c >> 12) & 0x3F));
    out[2] = (char)(0x80 | ((c >> 6) & 0x3F));
    out[3] = (char)(0x80 | (c & 0x3F));
    return 4;
}

/* n bytes of UTF-8 cut to at most TERM_MAX without splitting a code point. */
inline size_t cut_term(const char *s, size_t n)
{
    if (n <= TERM_MAX) {
        return n;
    }
    n = TERM_MAX;
    while (n > 0 && ((unsigned char)s[n] & 0xC0) == 0x80) {
        n--;
    }
    return n;
}

/* Cuts len bytes of text into terms: emit(const char *term, size_t length, size_t offset) for
** each, in order of offset; a word's whole form comes before its parts. A word is folded into
** word[] as it is read; parts[] marks where each of its parts starts there and in the text. */
template <typename Emit>
void tokenize(const char *text, size_t len, Emit &&emit)
{
    struct Part {
        uint32_t at;  /* in word[] */
        uint32_t off; /* in text */
    };
    char word[RUN_MAX * 4];
    Part parts[RUN_MAX + 1];
    size_t word_len = 0, n_parts = 0, cps = 0;
    uint8_t c1 = CL_JOIN, c2 = CL_JOIN; /* classes of the previous code point and the one before */
    Part prev = {0, 0};                 /* where the previous code point went */
    const unsigned char *p = (const unsigned char *)text;
    size_t i = 0;
    while (i <= len) {
        uint32_t c = 0;
        size_t step = 1;
        bool is_word = false;
        if (i < len) {
            unsigned char b = p[i];
            if (b < 0x80) {
                c = b;
                is_word = (b >= 'a' && b <= 'z') || (b >= '0' && b <= '9') || (b >= 'A' && b <= 'Z')
                          || b == '_';
            } else {
                step = decode_utf8(p + i, len - i, &c);
                is_word = c != 0xFFFFFFFF && is_word_cp(c);
            }
        }
        if (is_word && cps < RUN_MAX) {
            cps++;
            if (c == '_') {
                c2 = c1;
                c1 = CL_JOIN;
                i += step;
                continue;
            }
            uint32_t f = fold_cp(c);
            uint8_t cls = (c >= '0' && c <= '9') ? CL_DIGIT : f != c ? CL_UPPER : CL_LOWER;
            if (c1 == CL_JOIN || (c1 == CL_DIGIT) != (cls == CL_DIGIT)
                || (c1 == CL_LOWER && cls == CL_UPPER)) {
                parts[n_parts++] = Part{(uint32_t)word_len, (uint32_t)i};
            } else if (c1 == CL_UPPER && c2 == CL_UPPER && cls == CL_LOWER) {
                parts[n_parts++] = prev; /* "HTTPServer": a part starts at the S */
            }
            prev = Part{(uint32_t)word_len, (uint32_t)i};
            word_len += put_utf8(word + word_len, f);
            c2 = c1;
            c1 = cls;
            i += step;
            continue;
        }
        if (cps > 0) {
            if (n_parts > 0) {
                emit(word, cut_term(word, word_len), (size_t)parts[0].off);
            }
            for (size_t j = 0; n_parts >= 2 && j < n_parts; j++) {
                size_t end = j + 1 < n_parts ? parts[j + 1].at : word_len;
                const char *part = word + parts[j].at;
                emit(part, cut_term(part, end - parts[j].at), (size_t)parts[j].off);
            }
            cps = word_len = n_parts = 0;
            c1 = c2 = CL_JOIN;
            if (is_word) {
                continue; /* a run longer than RUN_MAX goes on as a new word */
            }
        }
        i += step;
    }
}

/* FNV-1a of a term's n bytes. */
inline uint32_t hash_term(const char *s, size_t n)
{
    uint32_t h = 2166136261u; /* FNV-1a */
    for (size_t i = 0; i < n; i++) {
        h ^= (unsigned char)s[i];
        h *= 16777619u;
    }
    return h;
}

/* The lower-case word with one common English ending taken off: "ies" and "ied" give "y", "sses"
** gives "ss", a plural "s" goes (not in "ss", "us", "is"), "ing" and "ed" go when a vowel stays
** before them (with a consonant they doubled), and then a final "e" goes. So "use", "uses",
** "used" and "using" give one stem, "stop" and "stopped" another, "process" and "processes" a
** third. */
std::string word_stem(const std::string &word);
/* The term of n bytes taken down to its stem in place (word_stem) when it is three or more
** letters from a to z; its new length. Other terms (digits, other scripts) stay as they are. */
size_t stem_term(char *term, size_t n);

/* As tokenize, each term taken down to its stem (stem_term): the terms the word index holds, so
** that "reads" finds "read" and "reading". The offset is still the word's (or part's) in text. */
template <typename Emit>
void tokenize_stems(const char *text, size_t len, Emit &&emit)
{
    tokenize(text, len, [&emit](const char *s, size_t n, size_t off) {
        const char last = s[n - 1]; /* every ending stem_term takes off ends so */
        if (n < 3 || (last != 's' && last != 'd' && last != 'g' && last != 'e')) {
            emit(s, n, off);
            return;
        }
        char term[TERM_MAX];
        memcpy(term, s, n);
        emit((const char *)term, stem_term(term, n), off);
    });
}

#endif /* TRN_WORDS_H */
