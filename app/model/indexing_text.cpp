/*
** indexing_text.cpp -- the status texts of indexing, in the engine's wording.
*/
#include "indexing_text.h"

QString indexingProgressText(const IndexingProgress &progress, double seconds)
{
    char text[256];
    trn_progress_line("Indexing",
                      progress.filesDone,
                      progress.filesFound,
                      static_cast<uint32_t>(qMax(0, progress.chunksDone)),
                      seconds,
                      progress.bytesDone,
                      progress.bytesAll,
                      text,
                      sizeof text);
    return QString::fromUtf8(text);
}

QString meaningProgressText(const IndexingProgress &progress, uint64_t embeddedAtStart,
                            double seconds)
{
    char text[256];
    trn_meaning_line(progress.filesIndexed,
                     progress.chunksEmbedded,
                     progress.chunksAll,
                     embeddedAtStart,
                     seconds,
                     text,
                     sizeof text);
    return QString::fromUtf8(text);
}

QString partialResultsText(uint64_t embedded, uint64_t all, SearchMode mode)
{
    if (embedded >= all || (mode != SearchMode::Semantic && mode != SearchMode::Hybrid)) {
        return QString();
    }
    return QStringLiteral("Meaning: %1% of passages embedded; results by meaning are partial")
        .arg(embedded * 100 / all);
}

QString durationText(double seconds)
{
    char text[64];
    trn_duration_text(seconds, text, sizeof text);
    return QString::fromUtf8(text);
}

QString indexCountsText(const TrnStats &stats)
{
    // Chunks of removed files keep their slots until a compaction: only live ones are counted.
    return QString::number(stats.chunk_count - stats.deleted_count)
           + QStringLiteral(" chunks from ") + QString::number(stats.file_count)
           + QStringLiteral(" files");
}

QString indexFailureText(const QString &engineLine)
{
    if (engineLine.isEmpty()) {
        return QStringLiteral("Indexing failed");
    }
    return engineLine.left(1).toUpper() + engineLine.mid(1);
}

void IndexingClock::start(bool paused)
{
    m_clock.start();
    m_pausedMs = 0;
    m_pausedAt = paused ? 0 : -1;
}

void IndexingClock::setPaused(bool paused)
{
    const qint64 now = m_clock.elapsed();
    if (paused && m_pausedAt < 0) {
        m_pausedAt = now;
    } else if (!paused && m_pausedAt >= 0) {
        m_pausedMs += now - m_pausedAt;
        m_pausedAt = -1;
    }
}

double IndexingClock::seconds() const
{
    const qint64 now = m_clock.elapsed();
    const qint64 paused = m_pausedMs + (m_pausedAt >= 0 ? now - m_pausedAt : 0);
    return qMax<qint64>(0, now - paused) / 1000.0;
}
