/*
** query_filters.h -- the narrowing words of a query, read and written as text.
**
** The engine narrows a search by words of the query itself: type:pdf,docx (file types),
** in:sub/folder (a folder below the indexed one; in:"two words" when it holds spaces),
** modified:>=2024-01-01, modified:<2024-06-01, modified:2024-01-01..2024-06-30. The filter chips
** beside the search field edit these words in the field's text, so what a chip sets can be read
** and typed, and a typed filter shows on its chip.
**
** The engine splits and classifies the words (trn_query_words in tarnwick.h): words at white
** space outside double quotes; a word whose key (before the first ':', any case) is type, in or
** modified is that kind of filter (ext: words narrow too, with no chip of their own). Words inside
** a quoted phrase ("see in:docs") are not filters.
*/
#ifndef TRN_APP_QUERY_FILTERS_H
#define TRN_APP_QUERY_FILTERS_H

#include <QDate>
#include <QString>
#include <QStringList>

enum class FilterKind { Type, Folder, Modified };

// The value of the query's filter of that kind without quotes ("" when it has none). Several
// type: words read as one list ("pdf,docx"); of several in: or modified: words the last counts.
QString filterValue(const QString &query, FilterKind kind);

// query with its filters of that kind replaced by one word with value at the end (value empty:
// only removed); a value with white space is quoted, and double quotes in it are dropped.
QString withFilter(const QString &query, FilterKind kind, const QString &value);

// The query without any filter words (ext: ones included), white space trimmed: what is
// searched for, with its phrases and left-out words.
QString withoutFilters(const QString &query);

// What the engine searches for in query: its words and phrases (quotes removed) without the
// narrowing words and the left-out ones; the query itself when nothing in it narrows.
QString searchedText(const QString &query);

// The type: names a chip offers, in its order: pdf, docx, odt, epub, html, markdown, text,
// source.
QStringList filterTypeNames();

// A modified: value for "changed on or after since" (">=2024-01-01") and for a range of days
// ("2024-01-01..2024-06-30").
QString modifiedSince(const QDate &since);
QString modifiedBetween(const QDate &first, const QDate &last);

#endif
