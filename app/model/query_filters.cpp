/*
** query_filters.cpp -- reading and writing the filter words of a query, split and classified by
** the engine (trn_query_words), so the chips read a query exactly as the search does.
*/
#include "query_filters.h"

#include "tarnwick.h"

#include <QByteArray>

#include <optional>
#include <vector>

namespace
{

// A word of the query as the engine reads it (trn_query_words): its text, and for a filter its
// kind and value without quotes.
struct Word {
    QString text;
    TrnQueryWordKind engineKind = TRN_QUERY_WORD_TERM;
    std::optional<FilterKind> kind;
    QString value;
    bool isNarrowing = false; // any word that is not searched for as it is (filters, -word)
};

QList<Word> words(const QString &query)
{
    const QByteArray utf8 = query.toUtf8();
    const int32_t count = trn_query_words(utf8.constData(), nullptr, 0);
    std::vector<TrnQueryWord> found(static_cast<size_t>(count));
    trn_query_words(utf8.constData(), found.data(), count);
    QList<Word> out;
    for (const TrnQueryWord &w : found) {
        Word word;
        word.text = QString::fromUtf8(utf8.mid(w.start, w.length));
        word.value = QString::fromUtf8(utf8.mid(w.value_start, w.value_length));
        word.value.remove(QLatin1Char('"'));
        word.engineKind = w.kind;
        switch (w.kind) {
        case TRN_QUERY_WORD_TYPE:
            word.kind = FilterKind::Type;
            break;
        case TRN_QUERY_WORD_FOLDER:
            word.kind = FilterKind::Folder;
            break;
        case TRN_QUERY_WORD_MODIFIED:
            word.kind = FilterKind::Modified;
            break;
        default:
            break;
        }
        word.isNarrowing = w.kind == TRN_QUERY_WORD_EXT || word.kind.has_value();
        out.append(word);
    }
    return out;
}

const char *keyOf(FilterKind kind)
{
    switch (kind) {
    case FilterKind::Type:
        return "type";
    case FilterKind::Folder:
        return "in";
    case FilterKind::Modified:
        break;
    }
    return "modified";
}

} // namespace

QString filterValue(const QString &query, FilterKind kind)
{
    QStringList values;
    for (const Word &word : words(query)) {
        if (word.kind == kind && !word.value.isEmpty()) {
            values.append(word.value);
        }
    }
    if (values.isEmpty()) {
        return QString();
    }
    return kind == FilterKind::Type ? values.join(QLatin1Char(',')) : values.last();
}

QString withFilter(const QString &query, FilterKind kind, const QString &value)
{
    QStringList kept;
    for (const Word &word : words(query)) {
        if (word.kind != kind) {
            kept.append(word.text);
        }
    }
    QString clean = value.trimmed();
    clean.remove(QLatin1Char('"'));
    if (!clean.isEmpty()) {
        const bool spaced = clean.contains(QLatin1Char(' ')) || clean.contains(QLatin1Char('\t'));
        kept.append(QLatin1String(keyOf(kind)) + QLatin1Char(':')
                    + (spaced ? QLatin1Char('"') + clean + QLatin1Char('"') : clean));
    }
    return kept.join(QLatin1Char(' '));
}

QString withoutFilters(const QString &query)
{
    QStringList kept;
    for (const Word &word : words(query)) {
        if (!word.isNarrowing) {
            kept.append(word.text);
        }
    }
    return kept.join(QLatin1Char(' '));
}

QString searchedText(const QString &query)
{
    QStringList searched;
    bool narrows = false;
    for (const Word &word : words(query)) {
        if (word.engineKind == TRN_QUERY_WORD_TERM) {
            searched.append(word.text);
        } else if (word.engineKind == TRN_QUERY_WORD_PHRASE) {
            searched.append(word.value);
            narrows = true;
        } else {
            narrows = true;
        }
    }
    return narrows ? searched.join(QLatin1Char(' ')) : query;
}

QStringList filterTypeNames()
{
    return {QStringLiteral("pdf"),
            QStringLiteral("docx"),
            QStringLiteral("odt"),
            QStringLiteral("epub"),
            QStringLiteral("html"),
            QStringLiteral("markdown"),
            QStringLiteral("text"),
            QStringLiteral("source")};
}

QString modifiedSince(const QDate &since)
{
    return QStringLiteral(">=") + since.toString(Qt::ISODate);
}

QString modifiedBetween(const QDate &first, const QDate &last)
{
    return first.toString(Qt::ISODate) + QStringLiteral("..") + last.toString(Qt::ISODate);
}
