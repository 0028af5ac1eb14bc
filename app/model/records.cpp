#include "records.h"

#include "json_coding.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace
{

// Decodes a JSON array whose every element decodes with fromJson; nullopt otherwise.
template <typename T>
std::optional<QList<T>> decodeArray(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) {
        return std::nullopt;
    }
    QList<T> list;
    const QJsonArray array = document.array();
    for (const QJsonValue &element : array) {
        if (!element.isObject()) {
            return std::nullopt;
        }
        std::optional<T> item = T::fromJson(element.toObject());
        if (!item) {
            return std::nullopt;
        }
        list.append(*item);
    }
    return list;
}

template <typename T>
QByteArray encodeArray(const QList<T> &items)
{
    QJsonArray array;
    for (const T &item : items) {
        array.append(item.toJson());
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

} // namespace

QJsonObject SearchHistoryEntry::toJson() const
{
    QJsonObject object;
    object.insert(QStringLiteral("id"), JsonCoding::uuidText(id));
    object.insert(QStringLiteral("query"), query);
    object.insert(QStringLiteral("mode"), searchModeName(mode));
    object.insert(QStringLiteral("date"), JsonCoding::dateToJson(date));
    return object;
}

std::optional<SearchHistoryEntry> SearchHistoryEntry::fromJson(const QJsonObject &object)
{
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue query = object.value(QStringLiteral("query"));
    const QJsonValue mode = object.value(QStringLiteral("mode"));
    if (!id.isString() || !query.isString() || !mode.isString()) {
        return std::nullopt;
    }
    SearchHistoryEntry entry;
    entry.id = JsonCoding::uuidFromText(id.toString());
    if (entry.id.isNull()) {
        return std::nullopt;
    }
    std::optional<QDateTime> date = JsonCoding::dateFromJson(object.value(QStringLiteral("date")));
    if (!date) {
        return std::nullopt;
    }
    entry.query = query.toString();
    entry.mode = searchModeFromName(mode.toString()).value_or(SearchMode::Hybrid);
    entry.date = *date;
    return entry;
}

QByteArray SearchHistoryEntry::encodeList(const QList<SearchHistoryEntry> &entries)
{
    return encodeArray(entries);
}

std::optional<QList<SearchHistoryEntry>> SearchHistoryEntry::decodeList(const QByteArray &json)
{
    return decodeArray<SearchHistoryEntry>(json);
}

PinnedResult PinnedResult::fromResult(const SearchResult &result)
{
    PinnedResult pin;
    static_cast<SearchResult &>(pin) = result;
    pin.moreInFile = 0;
    return pin;
}

QJsonObject PinnedResult::toJson() const
{
    QJsonObject object;
    object.insert(QStringLiteral("id"), id);
    object.insert(QStringLiteral("filePath"), filePath);
    object.insert(QStringLiteral("snippet"), snippet);
    object.insert(QStringLiteral("score"), JsonCoding::floatToJson(score));
    object.insert(QStringLiteral("chunkIndex"), chunkIndex);
    object.insert(QStringLiteral("lineNumber"), lineNumber);
    object.insert(QStringLiteral("fileType"), fileType);
    if (!folder.isEmpty()) {
        object.insert(QStringLiteral("folder"), folder);
    }
    return object;
}

std::optional<PinnedResult> PinnedResult::fromJson(const QJsonObject &object)
{
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue filePath = object.value(QStringLiteral("filePath"));
    const QJsonValue snippet = object.value(QStringLiteral("snippet"));
    const QJsonValue score = object.value(QStringLiteral("score"));
    if (!id.isString() || !filePath.isString() || !snippet.isString() || !score.isDouble()) {
        return std::nullopt;
    }
    const std::optional<int> chunkIndex =
        JsonCoding::intFromJson(object.value(QStringLiteral("chunkIndex")));
    const std::optional<int> lineNumber =
        JsonCoding::intFromJson(object.value(QStringLiteral("lineNumber")));
    const std::optional<int> fileType =
        JsonCoding::intFromJson(object.value(QStringLiteral("fileType")));
    if (!chunkIndex || !lineNumber || !fileType) {
        return std::nullopt;
    }
    PinnedResult pin;
    pin.id = id.toString();
    pin.filePath = filePath.toString();
    pin.snippet = snippet.toString();
    pin.score = static_cast<float>(score.toDouble());
    pin.chunkIndex = *chunkIndex;
    pin.lineNumber = *lineNumber;
    pin.fileType = *fileType;
    pin.folder = object.value(QStringLiteral("folder")).toString(); // absent in older pins
    return pin;
}

QByteArray PinnedResult::encodeList(const QList<PinnedResult> &pins)
{
    return encodeArray(pins);
}

std::optional<QList<PinnedResult>> PinnedResult::decodeList(const QByteArray &json)
{
    return decodeArray<PinnedResult>(json);
}
