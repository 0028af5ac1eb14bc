/*
** json.h -- a small JSON writer for tarnwick-cli, and the text cleaning its output needs.
**
** Texts from the index are bytes, not necessarily UTF-8: chunk boundaries are byte positions and
** can split a multi-byte sequence, and file names are whatever the file system holds. Every
** string written here is therefore cleaned: each maximal ill-formed UTF-8 subsequence becomes one
** U+FFFD, so the output is always valid UTF-8 and valid JSON.
*/
#ifndef TRN_CLI_JSON_H
#define TRN_CLI_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Writes compact JSON into a string. Commas between members and elements are added by the
// writer; the caller only nests begin/end calls correctly and gives every object member a key.
class JsonWriter
{
public:
    void begin_object();
    void end_object();
    void begin_array();
    void end_array();
    void key(std::string_view name);
    void string(std::string_view text);
    void integer(int64_t value);
    // The shortest decimal that reads back as the same float; null for NaN and infinities.
    void number(float value);
    void boolean(bool value);
    void null();

    const std::string &str() const { return m_out; }

private:
    void separate();

    std::string m_out;
    std::vector<bool> m_first; // per open container: no element written yet
    bool m_after_key = false;
};

// Appends text as a quoted JSON string: quotes, backslashes and control characters escaped,
// ill-formed UTF-8 replaced by U+FFFD.
void json_append_string(std::string &out, std::string_view text);

// text made fit for a terminal: ill-formed UTF-8 becomes U+FFFD, control characters and DEL
// become "?" (tabs stay, and line feeds when keep_newlines is set).
std::string display_text(std::string_view text, bool keep_newlines);

#endif
