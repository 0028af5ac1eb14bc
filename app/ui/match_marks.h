/*
** match_marks.h -- where a query matches a text, for marking it in snippets and in the context
** panel.
**
** Text mode: every case-insensitive occurrence, left to right, each search starting just after
** the previous match (so matches never overlap). Regex mode: every match of the query compiled
** as a case-insensitive regular expression; nothing when it does not compile; empty matches are
** left out, since they mark nothing. Keyword and hybrid modes: every occurrence, ignoring case,
** of each of the query's words and of the parts of its identifiers ("readFile" marks read and
** file), common words ("a", "the": trn_is_stop_word) only when the query holds nothing else,
** where it starts and ends at a word or identifier-part boundary; overlapping occurrences are
** joined, so spans are sorted and disjoint. Semantic mode and an empty query: no matches.
*/
#ifndef TRN_UI_MATCH_MARKS_H
#define TRN_UI_MATCH_MARKS_H

#include "search_results.h"

#include <QList>
#include <QString>

struct MatchSpan {
    qsizetype start = 0;
    qsizetype length = 0;

    bool operator==(const MatchSpan &other) const = default;
};

QList<MatchSpan> findQueryMatches(const QString &text, const QString &query, SearchMode mode);

#endif
