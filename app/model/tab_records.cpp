#include "tab_records.h"

#include "json_coding.h"
#include "settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace
{

// path with the directory from at its start replaced by to.
QString rebased(const QString &path, const QString &from, const QString &to)
{
    if (path == from) {
        return to;
    }
    if (path.startsWith(from + QLatin1Char('/'))) {
        return to + path.mid(from.size());
    }
    return path;
}

} // namespace

QString TabRecords::placePath(const QString &directoryPath)
{
    return directoryPath + QStringLiteral("/.tarnwick/place");
}

TabRecords::TabRecords(const QString &directoryPath, Settings *settings)
    : m_settings(settings), m_directoryPath(directoryPath)
{
    adoptEarlierPlace();
    m_history = SearchHistoryEntry::decodeList(m_settings->searchHistoryData(m_directoryPath))
                    .value_or(QList<SearchHistoryEntry>());
    m_pins = PinnedResult::decodeList(m_settings->pinnedResultsData(m_directoryPath))
                 .value_or(QList<PinnedResult>());
    const std::optional<QString> overrideText = m_settings->encoderOverride(m_directoryPath);
    if (overrideText) {
        m_encoderOverride = JsonCoding::uuidFromText(*overrideText);
    }
    rememberPlace();
}

QString TabRecords::movedTo(const QString &earlierPath)
{
    const QFileInfo earlier(earlierPath);
    const QDir parent = earlier.dir();
    for (const QString &name : parent.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString candidate = parent.filePath(name);
        QFile file(placePath(candidate));
        if (candidate != earlierPath && file.open(QIODevice::ReadOnly)
            && file.read(4096) == earlierPath.toUtf8()) {
            return candidate;
        }
    }
    return QString();
}

void TabRecords::adoptEarlierPlace()
{
    QFile file(placePath(m_directoryPath));
    if (file.open(QIODevice::ReadOnly)) {
        adoptRecords(m_settings, QString::fromUtf8(file.readAll()), m_directoryPath);
    }
}

void TabRecords::adoptRecords(Settings *settings, const QString &earlier,
                              const QString &directoryPath)
{
    if (earlier.isEmpty() || earlier == directoryPath
        || !settings->searchHistoryData(directoryPath).isEmpty()
        || !settings->pinnedResultsData(directoryPath).isEmpty()
        || settings->encoderOverride(directoryPath)) {
        return;
    }
    settings->setSearchHistoryData(directoryPath, settings->searchHistoryData(earlier));
    std::optional<QList<PinnedResult>> pins =
        PinnedResult::decodeList(settings->pinnedResultsData(earlier));
    if (pins) {
        for (PinnedResult &pin : *pins) {
            pin.id = rebased(pin.id, earlier, directoryPath);
            pin.filePath = rebased(pin.filePath, earlier, directoryPath);
            pin.folder = rebased(pin.folder, earlier, directoryPath);
        }
        settings->setPinnedResultsData(directoryPath, PinnedResult::encodeList(*pins));
    }
    settings->setEncoderOverride(directoryPath, settings->encoderOverride(earlier));
    if (settings->isIndexingUnfinished(earlier)) {
        settings->setIndexingUnfinished(directoryPath, true);
    }
    // A copy leaves the original with its index and records; a move leaves nothing there.
    if (!QFileInfo::exists(placePath(earlier))) {
        settings->setSearchHistoryData(earlier, QByteArray());
        settings->setPinnedResultsData(earlier, QByteArray());
        settings->setEncoderOverride(earlier, std::nullopt);
        settings->setIndexingUnfinished(earlier, false);
    }
}

void TabRecords::rememberPlace()
{
    if (m_placeWritten || !QFileInfo(m_directoryPath + QStringLiteral("/.tarnwick")).isDir()) {
        return;
    }
    QFile current(placePath(m_directoryPath));
    if (current.open(QIODevice::ReadOnly) && current.readAll() == m_directoryPath.toUtf8()) {
        m_placeWritten = true;
        return;
    }
    // QSaveFile writes through a link to its target; a link here was planted, so it goes.
    if (QFileInfo(placePath(m_directoryPath)).isSymLink()) {
        QFile::remove(placePath(m_directoryPath));
    }
    QSaveFile file(placePath(m_directoryPath));
    // Like every file of the index directory, readable by its owner alone.
    m_placeWritten =
        file.open(QIODevice::WriteOnly) && file.write(m_directoryPath.toUtf8()) >= 0
        && file.commit()
        && QFile::setPermissions(placePath(m_directoryPath), QFile::ReadOwner | QFile::WriteOwner);
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
    rememberPlace();
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
    rememberPlace();
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
    rememberPlace();
    return changed;
}
