/*
** tab_records.h -- what a tab keeps about its directory between sessions: the search history, the
** pinned results and the encoder override, each written to the settings as soon as it changes.
**
** The history holds the most recent search first, at most kHistoryLimit, no two entries with the
** same query and mode. Pins keep the order they were pinned in and never hold a result twice.
**
** The settings key the records by the directory's path, and the index in the directory keeps
** working after the directory was moved or copied. So that the records go along, the index
** directory holds the file "place": the path they were last kept under. A tab opened on a
** directory whose place names another path, and that has no records of its own, takes over the
** records kept there, pins pointed at the new paths; when nothing is left at the old path (a
** move), its records are removed from the settings.
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

    // Reads the directory's records, after taking over those of its earlier place; a list that
    // does not decode counts as empty. settings must outlive the records.
    TabRecords(const QString &directoryPath, Settings *settings);

    // "<directoryPath>/.tarnwick/place".
    static QString placePath(const QString &directoryPath);
    // The directory beside earlierPath (in its parent) whose index was last kept at earlierPath,
    // the place a moved or renamed directory went; empty when there is none.
    static QString movedTo(const QString &earlierPath);
    // Gives directoryPath the records kept at earlierPath (pins pointed at the new paths), unless
    // it has records of its own; earlierPath's are removed when nothing is left of its index.
    static void adoptRecords(Settings *settings, const QString &earlierPath,
                             const QString &directoryPath);

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
    void adoptEarlierPlace();
    // Writes the place file once the index directory exists.
    void rememberPlace();

    Settings *m_settings;
    QString m_directoryPath;
    QList<SearchHistoryEntry> m_history;
    QList<PinnedResult> m_pins;
    QUuid m_encoderOverride;
    bool m_placeWritten = false;
};

#endif
