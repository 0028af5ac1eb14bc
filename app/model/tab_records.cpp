#include "tab_records.h"

#include "json_coding.h"
#include "settings.h"

TabRecords::TabRecords(const QString &directoryPath, Settings *settings)
    : m_settings(settings), m_directoryPath(directoryPath)
{
    m_history = SearchHistoryEntry::decodeList(m_settings->searchHistoryData(m_directoryPath))
                    .value_or(QList<SearchHistoryEntry>());
    m_pins = PinnedResult::decodeList(m_settings->pinnedResultsData(m_directoryPath))
                 .value_or(QList<PinnedResult>());
    const std::optional<QString> overrideText = m_settings->encoderOverride(m_directoryPath);
    if (overrideText) {
        m_encoderOverride = JsonCoding::uuidFromText(*overrideText);
    }
}

void TabRecords::addToHistory(const QString &query, SearchMode mode)
{
    m_history.removeIf([&query, mode](const SearchHistoryEntry &entry) {
        return entry.query == query && entry.mode == mode;
    });
    m_history.prepend(
        SearchHistoryEntry{QUuid::createUuid(), query, mode, QDateTime::currentDateTimeUtc()});
    if (m_history.size() > kHistoryLimit) {
        m_history.resize(kHistoryLimit);
    }
    m_settings->setSearchHistoryData(m_directoryPath, SearchHistoryEntry::encodeList(m_history));
}

bool TabRecords::isPinned(const SearchResult &result) const
{
    for (const PinnedResult &pin : m_pins) {
        if (pin.id == result.id) {
            return true;
        }
    }
    return false;
}

void TabRecords::togglePin(const SearchResult &result)
{
    if (isPinned(result)) {
        m_pins.removeIf([&result](const PinnedResult &pin) {
            return pin.id == result.id;
        });
    } else {
        m_pins.append(PinnedResult::fromResult(result));
    }
    m_settings->setPinnedResultsData(m_directoryPath, PinnedResult::encodeList(m_pins));
}

QList<SearchResult> TabRecords::pinnedResults() const
{
    QList<SearchResult> results;
    for (const PinnedResult &pin : m_pins) {
        results.append(pin.toResult());
        if (results.last().folder.isEmpty()) {
            results.last().folder = m_directoryPath;
        }
    }
    return results;
}

bool TabRecords::setEncoderOverride(const QUuid &profileId)
{
    const bool changed = m_encoderOverride != profileId;
    m_encoderOverride = profileId;
    if (profileId.isNull()) {
        m_settings->setEncoderOverride(m_directoryPath, std::nullopt);
    } else {
        m_settings->setEncoderOverride(m_directoryPath, JsonCoding::uuidText(profileId));
    }
    return changed;
}
