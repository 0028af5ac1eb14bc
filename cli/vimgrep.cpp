/*
** vimgrep.cpp -- search results as "path:line:column:text" lines.
**
** The engine reports the line a chunk (or, for keyword and hybrid hits, its snippet) starts on;
** an editor wants the match itself. So the file is read again and the match looked for from that
** line on, within the largest chunk the engine makes. Only text, source and Markdown files keep
** the engine's line numbers; the text of the others is extracted, so their lines are not the
** file's.
*/
#include "vimgrep.h"

#include "index/words.h"
#include "json.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

#include <regex.h>
#include <sys/stat.h>

namespace
{

// The largest chunk the engine makes: a match of the result lies within this many bytes of the
// start of its first line.
constexpr size_t SCAN_BYTES = 65536;

struct Position {
    int32_t line = 0;   // 1-based
    int32_t column = 0; // 1-based byte column, 0: no match found
    std::string text;
};

bool keeps_lines(uint32_t type)
{
    return type == TRN_FILE_TYPE_TEXT || type == TRN_FILE_TYPE_SOURCE
           || type == TRN_FILE_TYPE_MARKDOWN;
}

// The whole file, or empty when it is missing, not a regular file or larger than the engine reads.
std::string read_whole(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > TRN_FILE_SIZE_MAX) {
        return {};
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

bool is_word_byte(unsigned char c)
{
    return std::isalnum(c) || c >= 0x80;
}

// The query's words, lower-cased, each followed by its stem where that differs: runs of letters
// and digits (any byte above ASCII counts as a letter, so words in other scripts stay whole).
std::vector<std::string> query_words(const std::string &query)
{
    std::vector<std::string> words;
    std::string word;
    for (size_t i = 0; i <= query.size(); i++) {
        unsigned char c = i < query.size() ? static_cast<unsigned char>(query[i]) : ' ';
        if (is_word_byte(c)) {
            word += static_cast<char>(std::tolower(c));
        } else if (!word.empty()) {
            words.push_back(word);
            /* the word index matches its stem too ("reading" finds "reads") */
            std::string stem = word;
            stem.resize(stem_term(stem.data(), stem.size()));
            if (stem != word) {
                words.push_back(stem);
            }
            word.clear();
        }
    }
    return words;
}

// First ASCII case-insensitive occurrence of needle in line at or after from; npos when none.
size_t find_folded(const std::string &line, const std::string &needle, size_t from)
{
    if (needle.empty() || line.size() < needle.size()) {
        return std::string::npos;
    }
    for (size_t i = from; i + needle.size() <= line.size(); i++) {
        size_t j = 0;
        while (j < needle.size()
               && std::tolower(static_cast<unsigned char>(line[i + j]))
                      == std::tolower(static_cast<unsigned char>(needle[j]))) {
            j++;
        }
        if (j == needle.size()) {
            return i;
        }
    }
    return std::string::npos;
}

// Where a word starts as the keyword index splits words: after a byte that is no letter or
// digit, or at a lower-to-upper case step inside an identifier (readFile).
bool starts_word(const std::string &line, size_t at)
{
    if (at == 0) {
        return true;
    }
    unsigned char before = static_cast<unsigned char>(line[at - 1]);
    unsigned char first = static_cast<unsigned char>(line[at]);
    return !is_word_byte(before) || (std::islower(before) && std::isupper(first));
}

// Finds the match in one line for the mode; the 0-based byte offset, or npos.
class LineMatcher
{
public:
    LineMatcher(const std::string &query, int32_t mode) : m_query(query), m_mode(mode)
    {
        if (mode == TRN_SEARCH_REGEX) {
            m_regex_ok = regcomp(&m_regex, query.c_str(), REG_EXTENDED | REG_ICASE) == 0;
        } else if (mode != TRN_SEARCH_TEXT) {
            m_words = query_words(query);
        }
    }
    ~LineMatcher()
    {
        if (m_regex_ok) {
            regfree(&m_regex);
        }
    }
    LineMatcher(const LineMatcher &) = delete;
    LineMatcher &operator=(const LineMatcher &) = delete;

    size_t find(const std::string &line) const
    {
        if (m_mode == TRN_SEARCH_TEXT) {
            return find_folded(line, m_query, 0);
        }
        if (m_mode == TRN_SEARCH_REGEX) {
            regmatch_t m;
            if (m_regex_ok && regexec(&m_regex, line.c_str(), 1, &m, 0) == 0) {
                return static_cast<size_t>(m.rm_so);
            }
            return std::string::npos;
        }
        size_t best = std::string::npos;
        for (const std::string &word : m_words) {
            size_t at = find_folded(line, word, 0);
            while (at != std::string::npos && !starts_word(line, at)) {
                at = find_folded(line, word, at + 1);
            }
            if (at < best) {
                best = at;
            }
        }
        return best;
    }

private:
    std::string m_query;
    int32_t m_mode;
    std::vector<std::string> m_words;
    regex_t m_regex{};
    bool m_regex_ok = false;
};

// The match at or after line `first` of content, else line `first` itself with column 0.
Position locate(const std::string &content, int32_t first, const LineMatcher &matcher)
{
    Position fallback;
    size_t pos = 0;
    int32_t line = 1;
    while (line < first && pos < content.size()) {
        size_t nl = content.find('\n', pos);
        pos = nl == std::string::npos ? content.size() : nl + 1;
        line++;
    }
    const size_t scan_end = pos + SCAN_BYTES;
    while (pos < content.size() && pos < scan_end) {
        size_t nl = content.find('\n', pos);
        size_t end = nl == std::string::npos ? content.size() : nl;
        std::string text = content.substr(pos, end - pos);
        if (!text.empty() && text.back() == '\r') {
            text.pop_back();
        }
        if (line == first) {
            fallback = {line, 0, text};
        }
        size_t at = matcher.find(text);
        if (at != std::string::npos) {
            return {line, static_cast<int32_t>(at) + 1, text};
        }
        pos = end + 1;
        line++;
    }
    return fallback;
}

std::string first_line(const char *snippet)
{
    std::string text = snippet != nullptr ? snippet : "";
    size_t nl = text.find('\n');
    return nl == std::string::npos ? text : text.substr(0, nl);
}

// What the engine searches for in query: the query as typed when no word of it narrows, else its
// plain words and phrases (without their quotes), so that type:, in:, -word and the like are not
// looked for in the file.
std::string searched_part(const std::string &query)
{
    int32_t count = trn_query_words(query.c_str(), nullptr, 0);
    std::vector<TrnQueryWord> words(static_cast<size_t>(count));
    trn_query_words(query.c_str(), words.data(), count);
    bool plain = true;
    for (const TrnQueryWord &w : words) {
        plain = plain && w.kind == TRN_QUERY_WORD_TERM;
    }
    if (plain) {
        return query;
    }
    std::string out;
    for (const TrnQueryWord &w : words) {
        if (w.kind != TRN_QUERY_WORD_TERM && w.kind != TRN_QUERY_WORD_PHRASE) {
            continue;
        }
        const bool term = w.kind == TRN_QUERY_WORD_TERM;
        std::string value = query.substr(static_cast<size_t>(term ? w.start : w.value_start),
                                         static_cast<size_t>(term ? w.length : w.value_length));
        if (!term) {
            value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
        }
        out += (out.empty() || value.empty() ? "" : " ") + value;
    }
    return out;
}

} // namespace

std::string vimgrep_lines(const TrnResult *results, int32_t n, const std::string &query,
                          int32_t mode, const std::string &cwd)
{
    LineMatcher matcher(searched_part(query), mode);
    std::map<std::string, std::string> contents; // a file read once for all its results
    const std::string prefix = cwd == "/" ? "/" : cwd + "/";
    std::string out;
    for (int32_t i = 0; i < n; i++) {
        const TrnResult &r = results[i];
        const std::string path = r.file_path != nullptr ? r.file_path : "";
        const int32_t start = r.line_number > 0 ? r.line_number : 1;
        Position at;
        if (keeps_lines(r.file_type)) {
            auto it = contents.find(path);
            if (it == contents.end()) {
                it = contents.emplace(path, read_whole(path)).first;
            }
            at = locate(it->second, start, matcher);
        }
        if (at.line == 0) {
            at = {start, 1, first_line(r.snippet)};
        }
        // An editor cannot open a PDF at its page or a document under its heading: the text says.
        if (r.page > 0) {
            at.text = "p. " + std::to_string(r.page) + ", line " + std::to_string(r.page_line)
                      + ": " + at.text;
        } else if (r.heading_path != nullptr) {
            at.text = std::string(r.heading_path) + ": " + at.text;
        }
        std::string shown = path;
        if (shown.size() > prefix.size() && shown.compare(0, prefix.size(), prefix) == 0) {
            shown = shown.substr(prefix.size());
        }
        out += display_text(shown, false) + ":" + std::to_string(at.line) + ":"
               + std::to_string(at.column > 0 ? at.column : 1) + ":" + display_text(at.text, false)
               + "\n";
    }
    return out;
}
