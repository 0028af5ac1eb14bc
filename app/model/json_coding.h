/*
** json_coding.h -- the small codings shared by the JSON records the application keeps in its
** settings (search history, pins, training profiles).
**
** Dates are written as a number: seconds since 2001-01-01T00:00:00Z, with fractions. Reading also
** accepts an ISO-8601 string ("2024-05-01T12:00:00Z"), so records written by other tools decode.
** Identifiers are upper-case UUID text without braces ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").
** 32-bit floats are written as the shortest decimal that reads back as the same float, so a
** learning rate of 0.001 is stored as 0.001 rather than 0.0010000000474974513.
*/
#ifndef TRN_APP_JSON_CODING_H
#define TRN_APP_JSON_CODING_H

#include <QDateTime>
#include <QJsonValue>
#include <QString>
#include <QUuid>

#include <optional>

namespace JsonCoding
{

// Seconds between 1970-01-01 and 2001-01-01, the epoch of stored dates.
constexpr qint64 kReferenceDateOffset = 978307200;

QJsonValue dateToJson(const QDateTime &date);
// A number (seconds since 2001) or an ISO-8601 string; anything else gives nullopt.
std::optional<QDateTime> dateFromJson(const QJsonValue &value);

// The shortest decimal text that reads back as the same 32-bit float ("0.001", "1e-05").
QString floatText(float value);
QJsonValue floatToJson(float value);

// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"; empty for a null id.
QString uuidText(const QUuid &id);
// Parses with or without braces, in any case; a null QUuid when the text is not a UUID.
QUuid uuidFromText(const QString &text);

// An integer field: a JSON number without a fraction that fits in int.
std::optional<int> intFromJson(const QJsonValue &value);

} // namespace JsonCoding

#endif
