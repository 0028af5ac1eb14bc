/*
** vocabulary.cpp -- the benchmarks' rule for queries that share no word with their answer.
*/
#include "vocabulary.h"

#include "index/word_index.h"
#include "index/words.h"

#include <algorithm>
#include <cstring>

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
            out.push_back(word_stem(w));
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
