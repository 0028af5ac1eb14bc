/*
** vocabulary.h -- does a query share a word with its answer? The benchmarks' vocabulary-mismatch
** slice holds the queries that share none: there words cannot help and only meaning can.
*/
#ifndef TRN_BENCH_VOCABULARY_H
#define TRN_BENCH_VOCABULARY_H

#include <string>
#include <unordered_set>
#include <vector>

/* Whether the lower-case word is an English function word ("the", "of", "how", "which", ...). */
bool is_stop_word(const std::string &word);

/* The stems of text's words that are not stop words, in order, repeats kept. Words are the
** keyword search's: letters and digits, case-folded, an identifier also counted by its parts
** ("readFile" gives "readfile", "read" and "file"). */
std::vector<std::string> content_stems(const std::string &text);

/* The distinct stems of content_stems over several texts. */
std::unordered_set<std::string> stem_set(const std::vector<const std::string *> &texts);

/* True when query has at least one content word and none of its stems is in answer_stems. */
bool vocabulary_mismatch(const std::string &query,
                         const std::unordered_set<std::string> &answer_stems);

#endif
