/*
** match_marks.cpp -- query matches in a text.
*/
#include "match_marks.h"

#include "query_filters.h"
#include "tarnwick.h"

#include <QRegularExpression>

#include <algorithm>

namespace
{

// True between w[j - 1] and w[j] when they belong to different parts of an identifier: a letter
// and a digit, a lower-case letter and an upper-case one ("readFile"), or the last capital of a
// run of capitals followed by a lower-case letter ("HTTPServer").
bool isPartBoundary(const QString &w, qsizetype j)
{
    const QChar a = w.at(j - 1);
    const QChar b = w.at(j);
    if (a.isDigit() != b.isDigit()) {
        return true;
    }
    if (a.isLower() && b.isUpper()) {
        return true;
    }
    return a.isUpper() && b.isUpper() && j + 1 < w.size() && w.at(j + 1).isLower();
}

// Calls visit(start, length) for each run of letters and digits of text, left to right, and
// after it for each of its parts when it is an identifier of several.
template <typename Visit>
void forEachWordAndPart(const QString &text, Visit &&visit)
{
    qsizetype i = 0;
    while (i < text.size()) {
        if (!text.at(i).isLetterOrNumber()) {
            i++;
            continue;
        }
        const qsizetype start = i;
        while (i < text.size() && text.at(i).isLetterOrNumber()) {
            i++;
        }
        visit(start, i - start);
        qsizetype part = start;
        for (qsizetype j = start + 1; j < i; j++) {
            if (isPartBoundary(text, j)) {
                visit(part, j - part);
                part = j;
            }
        }
        if (part > start) {
            visit(part, i - part);
        }
    }
}

// The query's words as the engine's word index sees them: runs of letters and digits and the
// parts of identifiers, lower-cased, each once.
QStringList queryWords(const QString &query)
{
    QStringList words;
    const auto add = [&words](const QString &word) {
        const QString lower = word.toLower();
        if (!lower.isEmpty() && !words.contains(lower)) {
            words.append(lower);
        }
    };
    forEachWordAndPart(query, [&](qsizetype at, qsizetype length) {
        add(query.mid(at, length));
    });
    // Common words match everywhere: they are marked only when the query has nothing else, as
    // the engine marks its snippets.
    QStringList kept;
    for (const QString &word : words) {
        const QByteArray utf8 = word.toUtf8();
        if (!trn_is_stop_word(utf8.constData(), static_cast<size_t>(utf8.size()))) {
            kept.append(word);
        }
    }
    return kept.isEmpty() ? words : kept;
}

// The stem keyword search reads a lower-case word as ("reads" and "reading": "read").
QString stemOf(const QString &lower)
{
    QByteArray utf8 = lower.toUtf8();
    utf8.truncate(
        static_cast<qsizetype>(trn_stem_word(utf8.data(), static_cast<size_t>(utf8.size()))));
    return QString::fromUtf8(utf8);
}

// Every word of the text, and every part of an identifier, whose stem is a query word's, left to
// right, overlapping and touching ones joined.
QList<MatchSpan> findWords(const QString &text, const QString &query)
{
    QStringList wanted;
    QString firsts; /* a word whose first letter begins no stem is skipped without stemming it */
    for (const QString &word : queryWords(query)) {
        wanted.append(stemOf(word));
        firsts.append(wanted.last().at(0));
    }
    QList<MatchSpan> spans;
    const auto check = [&](qsizetype at, qsizetype length) {
        if (firsts.contains(text.at(at).toLower())
            && wanted.contains(stemOf(text.mid(at, length).toLower()))) {
            spans.append(MatchSpan{at, length});
        }
    };
    forEachWordAndPart(text, check);
    std::sort(spans.begin(), spans.end(), [](const MatchSpan &a, const MatchSpan &b) {
        return a.start < b.start;
    });
    QList<MatchSpan> joined;
    for (const MatchSpan &s : spans) {
        if (!joined.isEmpty() && s.start <= joined.last().start + joined.last().length) {
            MatchSpan &last = joined.last();
            last.length = std::max(last.start + last.length, s.start + s.length) - last.start;
        } else {
            joined.append(s);
        }
    }
    return joined;
}

} // namespace

QList<MatchSpan> findQueryMatches(const QString &text, const QString &typed, SearchMode mode)
{
    // Narrowing words (in:docs, -draft) are not searched for, so they are never marked.
    const QString query = searchedText(typed);
    QList<MatchSpan> spans;
    if (query.isEmpty()) {
        return spans;
    }
    if (mode == SearchMode::Keyword || mode == SearchMode::Hybrid) {
        return findWords(text, query);
    }
    if (mode == SearchMode::Text) {
        qsizetype from = 0;
        while (from <= text.size()) {
            const qsizetype at = text.indexOf(query, from, Qt::CaseInsensitive);
            if (at < 0) {
                break;
            }
            spans.append(MatchSpan{at, query.size()});
            from = at + query.size();
        }
    } else if (mode == SearchMode::Regex) {
        const QRegularExpression re(query, QRegularExpression::CaseInsensitiveOption);
        if (!re.isValid()) {
            return spans;
        }
        QRegularExpressionMatchIterator it = re.globalMatch(text);
        while (it.hasNext()) {
            const QRegularExpressionMatch m = it.next();
            if (m.capturedLength() > 0) {
                spans.append(MatchSpan{m.capturedStart(), m.capturedLength()});
            }
        }
    }
    return spans;
}
