/*
** encoding.cpp -- text in older encodings (legacy_text of files.h): which charset a text that is
** not UTF-8 is in, and the text converted to UTF-8.
**
** A charset the text declares in its first 1024 bytes wins when the system's iconv knows it and
** the bytes are valid in it: an XML declaration (<?xml ... encoding="koi8-r"?>) or an HTML meta
** element (<meta charset="shift_jis">, or http-equiv="Content-Type" content="...; charset=...").
** Otherwise the text is read as Windows-1252, the charset that older READMEs and web pages in
** Western languages use (and that browsers read for a declared ISO-8859-1): its printable
** characters are ISO-8859-1's plus typographic ones in 0x80-0x9F. A text holding one of the five
** bytes Windows-1252 leaves undefined is read as ISO-8859-1 instead, and so is one without bytes
** in 0x80-0x9F, where the two agree (then it is reported as ISO-8859-1, the commoner name).
**
** Binary stays out: more than one control character in a hundred bytes (C0 controls other than
** white space and escape, and the C1 controls of ISO-8859-1) is no text in any of these charsets.
*/
#include "files.h"
#include "internal.h"

#include <cstring>
#include <memory>

#include <iconv.h>
#include <strings.h>

namespace
{

constexpr size_t DECLARATION_REACH = 1024; /* bytes in which a charset must be declared */
constexpr size_t CONTROL_SHARE = 100;      /* at most one control character per this many bytes */

/* Windows-1252's characters for the bytes 0x80-0x9F; 0 where it defines none. */
constexpr uint16_t CP1252_HIGH[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

unsigned char lower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? (unsigned char)(c + ('a' - 'A')) : c;
}

/* Offset of the ASCII word w in s[0..n), ignoring case; -1 when it does not occur. */
int64_t find_nocase(const char *s, size_t n, const char *w)
{
    size_t m = strlen(w);
    for (size_t i = 0; i + m <= n; i++) {
        size_t j = 0;
        while (j < m && lower((unsigned char)s[i + j]) == (unsigned char)w[j]) {
            j++;
        }
        if (j == m) {
            return (int64_t)i;
        }
    }
    return -1;
}

/* The name that follows s[at..] after optional white space, '=' and an optional quote: letters,
** digits and "-_.:" into out. False when there is none. */
bool read_name(const char *s, size_t n, size_t at, char *out, size_t size)
{
    while (at < n && (s[at] == ' ' || s[at] == '\t' || s[at] == '\n' || s[at] == '\r')) {
        at++;
    }
    if (at >= n || s[at] != '=') {
        return false;
    }
    at++;
    while (at < n && (s[at] == ' ' || s[at] == '"' || s[at] == '\'')) {
        at++;
    }
    size_t len = 0;
    while (at < n && len + 1 < size) {
        char c = s[at++];
        bool name_char = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
                         || c == '-' || c == '_' || c == '.' || c == ':';
        if (!name_char) {
            break;
        }
        out[len++] = c;
    }
    out[len] = '\0';
    return len > 0;
}

/* The charset declared in the first DECLARATION_REACH bytes, into out; false when none is. */
bool declared_charset(const char *s, size_t n, char *out, size_t size)
{
    n = n < DECLARATION_REACH ? n : DECLARATION_REACH;
    if (n >= 5 && memcmp(s, "<?xml", 5) == 0) {
        const char *end = (const char *)memchr(s, '>', n);
        size_t limit = end ? (size_t)(end - s) : n;
        int64_t at = find_nocase(s, limit, "encoding");
        return at >= 0 && read_name(s, limit, (size_t)at + 8, out, size);
    }
    /* <meta charset=...> and <meta http-equiv=... content="text/html; charset=...">: the word
    ** charset inside a meta element. */
    size_t from = 0;
    while (from < n) {
        int64_t meta = find_nocase(s + from, n - from, "<meta");
        if (meta < 0) {
            return false;
        }
        size_t start = from + (size_t)meta;
        const char *end = (const char *)memchr(s + start, '>', n - start);
        size_t limit = end ? (size_t)(end - s) : n;
        int64_t at = find_nocase(s + start, limit - start, "charset");
        if (at >= 0 && read_name(s, limit, start + (size_t)at + 7, out, size)) {
            return true;
        }
        from = start + 5;
    }
    return false;
}

/* Control characters among the n bytes when read as a single-byte charset; c1 counts 0x80-0x9F
** too. */
size_t control_count(const unsigned char *s, size_t n, bool c1)
{
    size_t count = 0;
    for (size_t i = 0; i < n; i++) {
        unsigned char c = s[i];
        bool space = c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v' || c == 0x1B;
        count += (c < 0x20 && !space) || c == 0x7F || (c1 && c >= 0x80 && c < 0xA0) ? 1 : 0;
    }
    return count;
}

/* The n bytes converted from charset by iconv into an xmalloc'd UTF-8 string; NULL when iconv
** does not know the charset or the bytes are not valid in it. */
char *iconv_to_utf8(const char *charset, const char *s, size_t n, size_t *out_len)
{
    iconv_t cd = iconv_open("UTF-8", charset);
    if (cd == (iconv_t)-1) {
        return nullptr;
    }
    size_t cap = xmul(n, 4) + 1;
    char *out = (char *)xmalloc(cap);
    char *in_p = const_cast<char *>(s);
    size_t in_left = n;
    char *out_p = out;
    size_t out_left = cap - 1;
    size_t r = iconv(cd, &in_p, &in_left, &out_p, &out_left);
    bool ok = r != (size_t)-1 && in_left == 0
              && iconv(cd, nullptr, nullptr, &out_p, &out_left) != (size_t)-1;
    iconv_close(cd);
    if (!ok) {
        free(out);
        return nullptr;
    }
    *out_len = (size_t)(out_p - out);
    out[*out_len] = '\0';
    return out;
}

/* Appends the code point cp (below 0x10000) to out as UTF-8; returns the bytes written. */
size_t put_utf8(uint32_t cp, char *out)
{
    if (cp < 0x80) {
        out[0] = (char)cp;
        return 1;
    }
    if (cp < 0x800) {
        out[0] = (char)(0xC0 | (cp >> 6));
        out[1] = (char)(0x80 | (cp & 0x3F));
        return 2;
    }
    out[0] = (char)(0xE0 | (cp >> 12));
    out[1] = (char)(0x80 | ((cp >> 6) & 0x3F));
    out[2] = (char)(0x80 | (cp & 0x3F));
    return 3;
}

} // namespace

LegacyCharset legacy_charset(const char *bytes, size_t n, char *name, size_t size)
{
    const unsigned char *s = (const unsigned char *)bytes;
    char declared[64];
    if (declared_charset(bytes, n, declared, sizeof declared) && strcasecmp(declared, "utf-8") != 0
        && strcasecmp(declared, "utf8") != 0) {
        /* A declared ISO-8859-1 or ASCII is read as Windows-1252 below, as browsers do. */
        bool western =
            strcasecmp(declared, "iso-8859-1") == 0 || strcasecmp(declared, "latin1") == 0
            || strcasecmp(declared, "iso8859-1") == 0 || strcasecmp(declared, "us-ascii") == 0
            || strcasecmp(declared, "windows-1252") == 0 || strcasecmp(declared, "cp1252") == 0;
        size_t len = 0;
        char *probe = western ? nullptr : iconv_to_utf8(declared, bytes, n, &len);
        if (probe) {
            bool text =
                control_count((const unsigned char *)probe, len, false) * CONTROL_SHARE <= len;
            free(probe);
            if (!text) {
                return LEGACY_BINARY;
            }
            snprintf(name, size, "%s", declared);
            for (char *p = name; *p; p++) {
                *p = (*p >= 'a' && *p <= 'z') ? (char)(*p - ('a' - 'A')) : *p;
            }
            return LEGACY_DECLARED;
        }
    }
    bool high = false, undefined = false;
    for (size_t i = 0; i < n; i++) {
        if (s[i] >= 0x80 && s[i] < 0xA0) {
            high = true;
            undefined = undefined || CP1252_HIGH[s[i] - 0x80] == 0;
        }
    }
    bool latin1 = undefined || !high;
    if (control_count(s, n, latin1) * CONTROL_SHARE > n) {
        return LEGACY_BINARY;
    }
    snprintf(name, size, "%s", latin1 ? "ISO-8859-1" : "Windows-1252");
    return latin1 ? LEGACY_LATIN1 : LEGACY_CP1252;
}

char *legacy_to_utf8(const char *bytes, size_t n, LegacyCharset charset, const char *name,
                     size_t *out_len)
{
    if (charset == LEGACY_DECLARED) {
        char *out = iconv_to_utf8(name, bytes, n, out_len);
        if (out) {
            return out;
        }
        charset = LEGACY_CP1252; /* legacy_charset checked it; only memory could fail here */
    }
    char *out = (char *)xmalloc(xmul(n, 3) + 1);
    size_t len = 0;
    for (size_t i = 0; i < n; i++) {
        unsigned char c = (unsigned char)bytes[i];
        uint32_t cp = c;
        if (charset == LEGACY_CP1252 && c >= 0x80 && c < 0xA0 && CP1252_HIGH[c - 0x80] != 0) {
            cp = CP1252_HIGH[c - 0x80];
        }
        len += put_utf8(cp, out + len);
    }
    out[len] = '\0';
    *out_len = len;
    return out;
}
