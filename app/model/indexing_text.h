/*
** indexing_text.h -- what the status bar says about an index: progress while indexing (and the
** clock its pace is measured by), the counts once done, and the engine's failure line.
*/
#ifndef TRN_APP_INDEXING_TEXT_H
#define TRN_APP_INDEXING_TEXT_H

#include "index_handle.h"
#include "tarnwick.h"

#include <QElapsedTimer>
#include <QString>

// The time an indexing run has worked, for its pace: the time it spent paused does not count.
class IndexingClock
{
public:
    // Starts again from zero, paused or running.
    void start(bool paused);
    void setPaused(bool paused);
    double seconds() const;

private:
    QElapsedTimer m_clock;
    qint64 m_pausedMs = 0;  // in pauses that ended
    qint64 m_pausedAt = -1; // m_clock's reading when the current pause began, or -1
};

// "Indexing 120 of 451 files, 3412 chunks, 85 chunks/s, about 4 min left" after `seconds` of
// work; before the walk has found the files, "Indexing: looking for files...". The time left
// counts the bytes still to come at the pace of those done (the files, when no bytes are known).
QString indexingProgressText(const IndexingProgress &progress, double seconds);
// "words: all 551 files · meaning: 38%, about 9 min left": the meaning phase, embeddedAtStart
// chunks embedded when it began `seconds` ago (its pace gives the time left).
QString meaningProgressText(const IndexingProgress &progress, uint64_t embeddedAtStart,
                            double seconds);
// "Meaning: 38% of passages embedded; results by meaning are partial", or empty when every
// passage has its vector or the mode ranks by words alone.
QString partialResultsText(uint64_t embedded, uint64_t all, SearchMode mode);
// "12 s", "4 min", "1 h 05 min".
QString durationText(double seconds);
// "<live chunks> chunks from <files> files".
QString indexCountsText(const TrnStats &stats);
// The engine's failure line as a status text ("The index of ... is busy: ..."); "Indexing failed"
// when the engine gave none.
QString indexFailureText(const QString &engineLine);

#endif
