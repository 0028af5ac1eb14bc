/*
** json_value.cpp -- a recursive-descent JSON reader (RFC 8259) and the writer of its trees.
*/
#include "json_value.h"

#include "json.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace
{

constexpr int DEPTH_MAX = 64; // deeper requests are refused rather than recursed into

class Reader
{
public:
    explicit Reader(std::string_view s) : m_s(s) {}

    bool parse(JsonValue *out, std::string *error)
    {
        bool ok = value(out, 0);
        if (ok) {
            skip_space();
            if (m_i != m_s.size()) {
                ok = fail("trailing characters");
            }
        }
        if (!ok) {
            *error = m_error + " at byte " + std::to_string(m_i);
        }
        return ok;
    }

private:
    bool fail(const char *why)
    {
        if (m_error.empty()) {
            m_error = why;
        }
        return false;
    }
    char peek() const { return m_i < m_s.size() ? m_s[m_i] : '\0'; }
    bool eat(char c)
    {
        if (m_i < m_s.size() && m_s[m_i] == c) {
            m_i++;
            return true;
        }
        return false;
    }
    void skip_space()
    {
        while (m_i < m_s.size()
               && (m_s[m_i] == ' ' || m_s[m_i] == '\t' || m_s[m_i] == '\n' || m_s[m_i] == '\r')) {
            m_i++;
        }
    }

    static void append_utf8(std::string &out, uint32_t cp)
    {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    // Four hex digits after "\u"; false when they are not.
    bool hex4(uint32_t *cp)
    {
        if (m_i + 4 > m_s.size()) {
            return fail("truncated \\u escape");
        }
        uint32_t v = 0;
        for (size_t j = 0; j < 4; j++) {
            char c = m_s[m_i + j];
            v <<= 4;
            if (c >= '0' && c <= '9') {
                v |= static_cast<uint32_t>(c - '0');
            } else if (c >= 'a' && c <= 'f') {
                v |= static_cast<uint32_t>(c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                v |= static_cast<uint32_t>(c - 'A' + 10);
            } else {
                return fail("bad \\u escape");
            }
        }
        m_i += 4;
        *cp = v;
        return true;
    }

    bool string(std::string *out)
    {
        m_i++; // the opening quote
        for (;;) {
            if (m_i >= m_s.size()) {
                return fail("unterminated string");
            }
            unsigned char c = static_cast<unsigned char>(m_s[m_i]);
            if (c == '"') {
                m_i++;
                return true;
            }
            if (c < 0x20) {
                return fail("control character in string");
            }
            if (c != '\\') {
                *out += static_cast<char>(c);
                m_i++;
                continue;
            }
            m_i++;
            char e = peek();
            m_i++;
            switch (e) {
            case '"':
            case '\\':
            case '/':
                *out += e;
                break;
            case 'b':
                *out += '\b';
                break;
            case 'f':
                *out += '\f';
                break;
            case 'n':
                *out += '\n';
                break;
            case 'r':
                *out += '\r';
                break;
            case 't':
                *out += '\t';
                break;
            case 'u': {
                uint32_t cp = 0;
                if (!hex4(&cp)) {
                    return false;
                }
                // A high surrogate followed by a low one is one character; alone, either is
                // no character at all.
                if (cp >= 0xD800 && cp <= 0xDBFF && m_s.substr(m_i, 2) == "\\u") {
                    size_t save = m_i;
                    m_i += 2;
                    uint32_t low = 0;
                    if (!hex4(&low)) {
                        return false;
                    }
                    if (low >= 0xDC00 && low <= 0xDFFF) {
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    } else {
                        m_i = save;
                    }
                }
                append_utf8(*out, cp >= 0xD800 && cp <= 0xDFFF ? 0xFFFD : cp);
                break;
            }
            default:
                return fail("bad escape");
            }
        }
    }

    bool number(JsonValue *out)
    {
        size_t start = m_i;
        eat('-');
        if (eat('0')) {
        } else if (peek() >= '1' && peek() <= '9') {
            while (peek() >= '0' && peek() <= '9') {
                m_i++;
            }
        } else {
            return fail("unexpected character");
        }
        if (eat('.')) {
            if (!(peek() >= '0' && peek() <= '9')) {
                return fail("bad number");
            }
            while (peek() >= '0' && peek() <= '9') {
                m_i++;
            }
        }
        if (peek() == 'e' || peek() == 'E') {
            m_i++;
            if (!eat('+')) {
                eat('-');
            }
            if (!(peek() >= '0' && peek() <= '9')) {
                return fail("bad number");
            }
            while (peek() >= '0' && peek() <= '9') {
                m_i++;
            }
        }
        out->kind = JsonValue::Kind::Number;
        out->text = std::string(m_s.substr(start, m_i - start));
        out->number = std::strtod(out->text.c_str(), nullptr);
        return true;
    }

    bool value(JsonValue *out, int depth)
    {
        skip_space();
        if (depth > DEPTH_MAX) {
            return fail("nested too deeply");
        }
        char c = peek();
        if (c == '{') {
            m_i++;
            out->kind = JsonValue::Kind::Object;
            skip_space();
            if (eat('}')) {
                return true;
            }
            do {
                skip_space();
                if (peek() != '"') {
                    return fail("expected a member name");
                }
                std::string key;
                if (!string(&key)) {
                    return false;
                }
                skip_space();
                if (!eat(':')) {
                    return fail("expected ':'");
                }
                JsonValue member;
                if (!value(&member, depth + 1)) {
                    return false;
                }
                out->set(std::move(key), std::move(member));
                skip_space();
            } while (eat(','));
            return eat('}') || fail("expected ',' or '}'");
        }
        if (c == '[') {
            m_i++;
            out->kind = JsonValue::Kind::Array;
            skip_space();
            if (eat(']')) {
                return true;
            }
            do {
                JsonValue item;
                if (!value(&item, depth + 1)) {
                    return false;
                }
                out->items.push_back(std::move(item));
                skip_space();
            } while (eat(','));
            return eat(']') || fail("expected ',' or ']'");
        }
        if (c == '"') {
            out->kind = JsonValue::Kind::String;
            return string(&out->text);
        }
        for (const char *word : {"true", "false", "null"}) {
            size_t n = std::strlen(word);
            if (m_s.substr(m_i, n) == word) {
                m_i += n;
                out->kind = word[0] == 'n' ? JsonValue::Kind::Null : JsonValue::Kind::Bool;
                out->boolean = word[0] == 't';
                return true;
            }
        }
        if (m_i >= m_s.size()) {
            return fail("unexpected end of input");
        }
        return number(out);
    }

    std::string_view m_s;
    size_t m_i = 0;
    std::string m_error;
};

void write_value(const JsonValue &v, std::string &out)
{
    switch (v.kind) {
    case JsonValue::Kind::Null:
        out += "null";
        break;
    case JsonValue::Kind::Bool:
        out += v.boolean ? "true" : "false";
        break;
    case JsonValue::Kind::Number:
        if (!v.text.empty()) {
            out += v.text; // a request's id goes back exactly as it came
        } else if (!std::isfinite(v.number)) {
            out += "null";
        } else {
            char buf[32];
            auto res = std::to_chars(buf, buf + sizeof buf, v.number);
            out.append(buf, res.ptr);
        }
        break;
    case JsonValue::Kind::String:
        json_append_string(out, v.text);
        break;
    case JsonValue::Kind::Array:
        out += '[';
        for (size_t i = 0; i < v.items.size(); i++) {
            if (i > 0) {
                out += ',';
            }
            write_value(v.items[i], out);
        }
        out += ']';
        break;
    case JsonValue::Kind::Object:
        out += '{';
        for (size_t i = 0; i < v.members.size(); i++) {
            if (i > 0) {
                out += ',';
            }
            json_append_string(out, v.members[i].first);
            out += ':';
            write_value(v.members[i].second, out);
        }
        out += '}';
        break;
    }
}

} // namespace

JsonValue JsonValue::of_string(std::string s)
{
    JsonValue v;
    v.kind = Kind::String;
    v.text = std::move(s);
    return v;
}

JsonValue JsonValue::of_number(double n)
{
    JsonValue v;
    v.kind = Kind::Number;
    v.number = n;
    return v;
}

JsonValue JsonValue::of_bool(bool b)
{
    JsonValue v;
    v.kind = Kind::Bool;
    v.boolean = b;
    return v;
}

JsonValue JsonValue::array()
{
    JsonValue v;
    v.kind = Kind::Array;
    return v;
}

JsonValue JsonValue::object()
{
    JsonValue v;
    v.kind = Kind::Object;
    return v;
}

const JsonValue *JsonValue::get(std::string_view key) const
{
    if (kind != Kind::Object) {
        return nullptr;
    }
    for (const auto &m : members) {
        if (m.first == key) {
            return &m.second;
        }
    }
    return nullptr;
}

JsonValue &JsonValue::set(std::string key, JsonValue value)
{
    for (auto &m : members) {
        if (m.first == key) {
            m.second = std::move(value);
            return *this;
        }
    }
    members.emplace_back(std::move(key), std::move(value));
    return *this;
}

JsonValue &JsonValue::push(JsonValue value)
{
    items.push_back(std::move(value));
    return *this;
}

std::string JsonValue::dump() const
{
    std::string out;
    write_value(*this, out);
    return out;
}

bool json_parse(std::string_view text, JsonValue *out, std::string *error)
{
    *out = JsonValue();
    return Reader(text).parse(out, error);
}
