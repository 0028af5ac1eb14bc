/*
** json_value.h -- JSON read into a tree and written back, for the messages of the MCP server.
**
** The command line's other output streams through JsonWriter; a protocol server has to read
** requests too, and builds nested answers more plainly as a tree. Strings are bytes; writing
** cleans them as json_append_string does (ill-formed UTF-8 becomes U+FFFD), so any tree writes
** as valid JSON.
*/
#ifndef TRN_CLI_JSON_VALUE_H
#define TRN_CLI_JSON_VALUE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool boolean = false;
    double number = 0;
    std::string text; // a string's bytes; a number as it was read ("" for numbers made here)
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members; // in order, keys unique

    static JsonValue of_string(std::string s);
    static JsonValue of_number(double v);
    static JsonValue of_bool(bool v);
    static JsonValue array();
    static JsonValue object();

    bool is_string() const { return kind == Kind::String; }
    bool is_object() const { return kind == Kind::Object; }
    bool is_array() const { return kind == Kind::Array; }
    bool is_number() const { return kind == Kind::Number; }

    // The member named key, or nullptr (also for a value that is no object).
    const JsonValue *get(std::string_view key) const;
    // Sets member key (replacing one of that name) and returns *this, so answers read as chains.
    JsonValue &set(std::string key, JsonValue value);
    JsonValue &push(JsonValue value);

    // Compact JSON.
    std::string dump() const;
};

// Parses text as exactly one JSON value (white space around it allowed). Returns false with a
// short reason ("unexpected character at byte 12") for anything the grammar does not allow,
// nesting deeper than 64 included. \u escapes become UTF-8; a lone surrogate becomes U+FFFD.
bool json_parse(std::string_view text, JsonValue *out, std::string *error);

#endif
