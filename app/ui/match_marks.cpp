/*
** match_marks.cpp -- query matches in a text.
*/
#include "match_marks.h"

#include <QRegularExpression>

QList<MatchSpan> findQueryMatches(const QString &text, const QString &query, SearchMode mode)
{
    QList<MatchSpan> spans;
    if (query.isEmpty()) {
        return spans;
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
