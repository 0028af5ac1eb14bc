/*
** vocabulary.cpp -- the benchmarks' rule for queries that share no word with their answer.
*/
#include "vocabulary.h"

#include "index/word_index.h"

#include <algorithm>
#include <cstring>

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

std::string simple_stem(const std::string &word)
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

bool is_stop_word(const std::string &word)
{
    static const std::unordered_set<std::string> words = {
        "a",       "about",  "above",  "after",  "again",  "against", "all",     "also",  "am",
        "an",      "and",    "any",    "are",    "as",     "at",      "be",      "been",  "before",
        "being",   "below",  "both",   "but",    "by",     "can",     "could",   "did",   "do",
        "does",    "doing",  "down",   "during", "each",   "either",  "else",    "for",   "from",
        "further", "had",    "has",    "have",   "having", "he",      "her",     "here",  "hers",
        "him",     "his",    "how",    "i",      "if",     "in",      "into",    "is",    "it",
        "its",     "itself", "just",   "may",    "me",     "might",   "more",    "most",  "must",
        "my",      "no",     "nor",    "not",    "now",    "of",      "off",     "on",    "once",
        "one",     "only",   "or",     "other",  "our",    "out",     "over",    "own",   "same",
        "shall",   "she",    "should", "so",     "some",   "such",    "than",    "that",  "the",
        "their",   "them",   "then",   "there",  "these",  "they",    "this",    "those", "through",
        "to",      "too",    "under",  "until",  "up",     "upon",    "us",      "very",  "was",
        "we",      "were",   "what",   "when",   "where",  "whether", "which",   "while", "who",
        "whom",    "whose",  "why",    "will",   "with",   "within",  "without", "would", "you",
        "your",    "yours",  "via"};
    return words.count(word) > 0;
}

std::vector<std::string> content_stems(const std::string &text)
{
    /* Every term and a separator fit in four times the text's bytes (parts repeat their word). */
    std::vector<char> buf(text.size() * 4 + 16);
    lex_split(text.c_str(), buf.data(), buf.size());
    std::vector<std::string> out;
    const char *p = buf.data();
    while (*p) {
        const char *end = strchr(p, ' ');
        size_t n = end ? (size_t)(end - p) : strlen(p);
        std::string w(p, n);
        if (!is_stop_word(w)) {
            out.push_back(simple_stem(w));
        }
        p += n + (end ? 1 : 0);
    }
    return out;
}

std::unordered_set<std::string> stem_set(const std::vector<const std::string *> &texts)
{
    std::unordered_set<std::string> out;
    for (const std::string *t : texts) {
        for (std::string &s : content_stems(*t)) {
            out.insert(std::move(s));
        }
    }
    return out;
}

bool vocabulary_mismatch(const std::string &query,
                         const std::unordered_set<std::string> &answer_stems)
{
    std::vector<std::string> q = content_stems(query);
    return !q.empty() && std::none_of(q.begin(), q.end(), [&answer_stems](const std::string &s) {
        return answer_stems.count(s) > 0;
    });
}
