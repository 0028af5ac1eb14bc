/*
** query_filters.cpp -- reading and writing the filter words of a query.
*/
#include "query_filters.h"

#include <optional>

namespace
{

// The words of a query: runs without white space outside double quotes.
QStringList words(const QString &query)
{
    QStringList out;
    qsizetype i = 0;
    const qsizetype n = query.size();
    while (i < n) {
        while (i < n && query.at(i).isSpace()) {
            i++;
        }
        if (i >= n) {
            break;
        }
        const qsizetype start = i;
        bool quoted = false;
        while (i < n && (quoted || !query.at(i).isSpace())) {
            if (query.at(i) == QLatin1Char('"')) {
                quoted = !quoted;
            }
            i++;
        }
        out.append(query.mid(start, i - start));
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

// The kind of a filter word and its value without quotes; nullopt for other words.
std::optional<FilterKind> filterOf(const QString &word, QString *value)
{
    const qsizetype colon = word.indexOf(QLatin1Char(':'));
    if (colon <= 0 || word.startsWith(QLatin1Char('"')) || word.startsWith(QLatin1Char('-'))) {
        return std::nullopt;
    }
    const QString key = word.left(colon).toLower();
    for (FilterKind kind : {FilterKind::Type, FilterKind::Folder, FilterKind::Modified}) {
        if (key == QLatin1String(keyOf(kind))) {
            *value = word.mid(colon + 1).remove(QLatin1Char('"'));
            return kind;
        }
    }
    return std::nullopt;
}

} // namespace

QString filterValue(const QString &query, FilterKind kind)
{
    QStringList values;
    for (const QString &word : words(query)) {
        QString value;
        if (filterOf(word, &value) == kind && !value.isEmpty()) {
            values.append(value);
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
    for (const QString &word : words(query)) {
        QString ignored;
        if (filterOf(word, &ignored) != kind) {
            kept.append(word);
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
    for (const QString &word : words(query)) {
        QString ignored;
        if (!filterOf(word, &ignored)) {
            kept.append(word);
        }
    }
    return kept.join(QLatin1Char(' '));
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
