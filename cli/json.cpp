/*
** json.cpp -- the JSON writer and UTF-8 cleaning of tarnwick-cli.
*/
#include "json.h"

#include <charconv>
#include <cmath>

namespace
{

constexpr char REPLACEMENT[] = "\xEF\xBF\xBD"; // U+FFFD in UTF-8

// Length of the well-formed UTF-8 sequence that starts at s[i], or 0 when there is none; then
// *bad is the length of the maximal ill-formed subsequence there (at least 1), which is replaced
// by a single U+FFFD. Overlong forms, surrogates and values above U+10FFFF are ill-formed.
size_t utf8_sequence(std::string_view s, size_t i, size_t *bad)
{
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
        return 1;
    }
    size_t need = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        need = 1;
    } else if (c == 0xE0) {
        need = 2;
        low = 0xA0;
    } else if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) {
        need = 2;
    } else if (c == 0xED) {
        need = 2;
        high = 0x9F;
    } else if (c == 0xF0) {
        need = 3;
        low = 0x90;
    } else if (c >= 0xF1 && c <= 0xF3) {
        need = 3;
    } else if (c == 0xF4) {
        need = 3;
        high = 0x8F;
    } else {
        *bad = 1;
        return 0;
    }
    size_t j = 1;
    for (; j <= need && i + j < s.size(); j++) {
        unsigned char b = static_cast<unsigned char>(s[i + j]);
        if (b < low || b > high) {
            break;
        }
        low = 0x80; // only the second byte has a narrowed range
        high = 0xBF;
    }
    if (j > need) {
        return need + 1;
    }
    *bad = j;
    return 0;
}

} // namespace

void json_append_string(std::string &out, std::string_view text)
{
    static const char HEX[] = "0123456789abcdef";
    out += '"';
    size_t i = 0;
    while (i < text.size()) {
        size_t bad = 0;
        size_t n = utf8_sequence(text, i, &bad);
        if (n == 0) {
            out += REPLACEMENT;
            i += bad;
            continue;
        }
        if (n > 1) {
            out.append(text.substr(i, n));
            i += n;
            continue;
        }
        unsigned char c = static_cast<unsigned char>(text[i++]);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20) {
                out += "\\u00";
                out += HEX[c >> 4];
                out += HEX[c & 15];
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
}

std::string display_text(std::string_view text, bool keep_newlines)
{
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        size_t bad = 0;
        size_t n = utf8_sequence(text, i, &bad);
        if (n == 0) {
            out += REPLACEMENT;
            i += bad;
        } else if (n > 1) {
            out.append(text.substr(i, n));
            i += n;
        } else {
            unsigned char c = static_cast<unsigned char>(text[i++]);
            bool control = c < 0x20 || c == 0x7F;
            if (control && c != '\t' && !(keep_newlines && c == '\n')) {
                out += '?';
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

void JsonWriter::separate()
{
    if (m_after_key) {
        m_after_key = false;
        return;
    }
    if (!m_first.empty()) {
        if (!m_first.back()) {
            m_out += ',';
        }
        m_first.back() = false;
    }
}

void JsonWriter::begin_object()
{
    separate();
    m_out += '{';
    m_first.push_back(true);
}

void JsonWriter::end_object()
{
    m_out += '}';
    m_first.pop_back();
}

void JsonWriter::begin_array()
{
    separate();
    m_out += '[';
    m_first.push_back(true);
}

void JsonWriter::end_array()
{
    m_out += ']';
    m_first.pop_back();
}

void JsonWriter::key(std::string_view name)
{
    separate();
    json_append_string(m_out, name);
    m_out += ':';
    m_after_key = true;
}

void JsonWriter::string(std::string_view text)
{
    separate();
    json_append_string(m_out, text);
}

void JsonWriter::integer(int64_t value)
{
    separate();
    m_out += std::to_string(value);
}

void JsonWriter::number(float value)
{
    separate();
    if (!std::isfinite(value)) {
        m_out += "null";
        return;
    }
    char buf[32];
    std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, value);
    m_out.append(buf, r.ptr);
}

void JsonWriter::boolean(bool value)
{
    separate();
    m_out += value ? "true" : "false";
}

void JsonWriter::null()
{
    separate();
    m_out += "null";
}
