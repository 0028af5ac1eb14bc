/*
** records.h -- the value records of the tabs: an open tab, a search history entry and a pinned
** result, with their JSON coding.
**
** Stored JSON (compact, under the per-directory keys of settings.h):
**
**   search history: [{"id": "<UUID>", "query": "...",
**                     "mode": "Hybrid"|"Semantic"|"Keyword"|"Text"|"Regex",
**                     "date": <seconds since 2001-01-01>}, ...]   most recent first
**   pinned results: [{"id": "<result id>", "filePath": "...", "snippet": "...", "score": 0.5,
**                     "chunkIndex": 0, "lineNumber": 1, "fileType": 0,
**                     "folder": "..."}, ...]   pin order
**
** Every key of an entry is required, except a pin's "folder" (the indexed directory of a result
** pinned from a search over every tab; older pins lack it); an array with one bad entry does not
** decode at all, and a list that does not decode counts as absent (empty). A history entry whose
** mode names no mode of this version reads as Hybrid, the mode its menu entry searches in.
*/
#ifndef TRN_APP_RECORDS_H
#define TRN_APP_RECORDS_H

#include "search_results.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// An open tab. The id is new each time the tab is created or restored and is never stored.
struct DirectoryTab {
    QUuid id;
    QString path; // absolute path of the directory
    QString name; // last path component, the tab's title

    bool operator==(const DirectoryTab &other) const = default;
};

struct SearchHistoryEntry {
    QUuid id;
    QString query;
    SearchMode mode = SearchMode::Hybrid;
    QDateTime date;

    bool operator==(const SearchHistoryEntry &other) const = default;

    QJsonObject toJson() const;
    static std::optional<SearchHistoryEntry> fromJson(const QJsonObject &object);
    static QByteArray encodeList(const QList<SearchHistoryEntry> &entries);
    static std::optional<QList<SearchHistoryEntry>> decodeList(const QByteArray &json);
};

// A result as it was pinned; pins match results by id. moreInFile is not kept (always 0), and
// folder is empty in pins of older versions.
struct PinnedResult : SearchResult {
    bool operator==(const PinnedResult &other) const = default;

    static PinnedResult fromResult(const SearchResult &result);
    SearchResult toResult() const { return *this; }

    QJsonObject toJson() const;
    static std::optional<PinnedResult> fromJson(const QJsonObject &object);
    static QByteArray encodeList(const QList<PinnedResult> &pins);
    static std::optional<QList<PinnedResult>> decodeList(const QByteArray &json);
};

Q_DECLARE_METATYPE(DirectoryTab)
Q_DECLARE_METATYPE(SearchHistoryEntry)
Q_DECLARE_METATYPE(PinnedResult)

#endif
