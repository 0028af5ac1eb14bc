/*
** search_results.cpp -- the mode names, and laying hits out by file and across tabs.
*/
#include "search_results.h"

#include <QHash>

#include <algorithm>

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

std::optional<QString> regexError(const QString &query)
{
    const QByteArray utf8 = query.toUtf8();
    char reason[256] = "";
    if (trn_check_regex(utf8.constData(), reason, sizeof reason)) {
        return std::nullopt;
    }
    return QString::fromUtf8(reason);
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

QList<SearchResult> mergeRankings(const QList<QList<SearchResult>> &rankings, SearchMode mode,
                                  int k)
{
    // TODO(#27): the engine ranks several indexes as one (shared word counts); until then the
    // rankings are merged here.
    struct Place {
        qsizetype rank;
        qsizetype list;
        const SearchResult *result;
    };
    QList<Place> places;
    for (qsizetype list = 0; list < rankings.size(); ++list) {
        for (qsizetype rank = 0; rank < rankings.at(list).size(); ++rank) {
            places.append(Place{rank, list, &rankings.at(list).at(rank)});
        }
    }
    std::stable_sort(places.begin(), places.end(), [mode](const Place &a, const Place &b) {
        if (mode == SearchMode::Semantic) {
            return a.result->score > b.result->score;
        }
        return a.rank != b.rank ? a.rank < b.rank : a.list < b.list;
    });
    QList<SearchResult> merged;
    for (const Place &place : places) {
        if (merged.size() >= k) {
            break;
        }
        merged.append(*place.result);
    }
    return merged;
}
