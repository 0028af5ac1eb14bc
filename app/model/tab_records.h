/*
** tab_records.h -- what a tab keeps about its directory between sessions: the search history, the
** pinned results and the encoder override, each written to the settings as soon as it changes.
**
** The history holds the most recent search first, at most kHistoryLimit, no two entries with the
** same query and mode. Pins keep the order they were pinned in and never hold a result twice.
*/
#ifndef TRN_APP_TAB_RECORDS_H
#define TRN_APP_TAB_RECORDS_H

#include "records.h"

#include <QList>
#include <QString>
#include <QUuid>

class Settings;

class TabRecords
{
public:
    static constexpr int kHistoryLimit = 10;

    // Reads the directory's records; a list that does not decode counts as empty. settings must
    // outlive the records.
    TabRecords(const QString &directoryPath, Settings *settings);

    const QList<SearchHistoryEntry> &history() const { return m_history; }
    const QList<PinnedResult> &pins() const { return m_pins; }
    // Null when the directory uses the default profile.
    QUuid encoderOverride() const { return m_encoderOverride; }

    // Moves an equal query and mode to the front as a new entry.
    void addToHistory(const QString &query, SearchMode mode);
    bool isPinned(const SearchResult &result) const;
    // Pins the result, or unpins it when it is pinned.
    void togglePin(const SearchResult &result);
    // The pins as results, each naming its folder (pins of older versions name none: the tab's).
    QList<SearchResult> pinnedResults() const;
    // Returns whether the override changed; saved either way.
    bool setEncoderOverride(const QUuid &profileId);

private:
    Settings *m_settings;
    QString m_directoryPath;
    QList<SearchHistoryEntry> m_history;
    QList<PinnedResult> m_pins;
    QUuid m_encoderOverride;
};

#endif
