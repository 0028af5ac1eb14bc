/*
** search_results.cpp -- the mode names, checking a query, and laying hits out by file.
*/
#include "search_results.h"

#include <QHash>

QString searchModeName(SearchMode mode)
{
    switch (mode) {
    case SearchMode::Hybrid:
        return QStringLiteral("Hybrid");
    case SearchMode::Semantic:
        return QStringLiteral("Semantic");
    case SearchMode::Keyword:
        return QStringLiteral("Keyword");
    case SearchMode::Text:
        return QStringLiteral("Text");
    case SearchMode::Regex:
        return QStringLiteral("Regex");
    }
    return QStringLiteral("Hybrid");
}

std::optional<SearchMode> searchModeFromName(const QString &name)
{
    for (SearchMode mode : allSearchModes()) {
        if (searchModeName(mode) == name) {
            return mode;
        }
    }
    return std::nullopt;
}

QList<SearchMode> allSearchModes()
{
    return {SearchMode::Hybrid,
            SearchMode::Semantic,
            SearchMode::Keyword,
            SearchMode::Text,
            SearchMode::Regex};
}

std::optional<QString> queryError(const QString &query, SearchMode mode)
{
    const QByteArray utf8 = query.toUtf8();
    char reason[256] = "";
    // The narrowing words first, in a mode without an expression to compile.
    if (!trn_check_query(utf8.constData(), TRN_SEARCH_KEYWORD, reason, sizeof reason)) {
        QString text = QString::fromUtf8(reason);
        text[0] = text[0].toUpper();
        return text;
    }
    if (trn_check_query(utf8.constData(), static_cast<int32_t>(mode), reason, sizeof reason)) {
        return std::nullopt;
    }
    return QStringLiteral("Invalid regular expression: ") + QString::fromUtf8(reason);
}

QList<SearchResult> groupByFile(const QList<SearchResult> &passages, int k)
{
    QList<SearchResult> files;
    QHash<QString, qsizetype> rowOf;
    for (const SearchResult &passage : passages) {
        const auto seen = rowOf.constFind(passage.filePath);
        if (seen != rowOf.constEnd()) {
            files[*seen].moreInFile++;
        } else if (files.size() < k) {
            rowOf.insert(passage.filePath, files.size());
            files.append(passage);
            files.last().moreInFile = 0;
        }
    }
    return files;
}
