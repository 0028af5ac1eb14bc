#include "json_coding.h"

#include <QTimeZone>

#include <charconv>
#include <cmath>
#include <limits>

namespace JsonCoding
{

QJsonValue dateToJson(const QDateTime &date)
{
    const qint64 ms = date.toMSecsSinceEpoch() - kReferenceDateOffset * 1000;
    return QJsonValue(static_cast<double>(ms) / 1000.0);
}

std::optional<QDateTime> dateFromJson(const QJsonValue &value)
{
    if (value.isDouble()) {
        const double seconds = value.toDouble();
        if (!std::isfinite(seconds)) {
            return std::nullopt;
        }
        const double ms = std::round(seconds * 1000.0) + double(kReferenceDateOffset) * 1000.0;
        return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(ms), QTimeZone::utc());
    }
    if (value.isString()) {
        QDateTime date = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
        if (!date.isValid()) {
            date = QDateTime::fromString(value.toString(), Qt::ISODate);
        }
        if (date.isValid()) {
            return date;
        }
    }
    return std::nullopt;
}

QString floatText(float value)
{
    char buf[64];
    const std::to_chars_result r = std::to_chars(buf, buf + sizeof(buf), value);
    return QString::fromLatin1(buf, static_cast<int>(r.ptr - buf));
}

QJsonValue floatToJson(float value)
{
    if (!std::isfinite(value)) {
        return QJsonValue(0.0);
    }
    // The double nearest to the float's shortest text, so the JSON shows that text.
    return QJsonValue(floatText(value).toDouble());
}

QString uuidText(const QUuid &id)
{
    if (id.isNull()) {
        return QString();
    }
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QUuid uuidFromText(const QString &text)
{
    const QString trimmed = text.trimmed();
    // QUuid accepts only the 36- and 38-character forms; anything else gives a null id.
    if (trimmed.size() != 36 && trimmed.size() != 38) {
        return QUuid();
    }
    return QUuid::fromString(trimmed);
}

std::optional<int> intFromJson(const QJsonValue &value)
{
    if (!value.isDouble()) {
        return std::nullopt;
    }
    const double d = value.toDouble();
    if (d != std::floor(d) || d < double(std::numeric_limits<int>::min())
        || d > double(std::numeric_limits<int>::max())) {
        return std::nullopt;
    }
    return static_cast<int>(d);
}

} // namespace JsonCoding
