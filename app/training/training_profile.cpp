#include "training_profile.h"

#include "json_coding.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

#include <cmath>

QString trainingStatusText(TrainingStatus status)
{
    switch (status) {
    case TrainingStatus::Untrained:
        return QStringLiteral("Not trained");
    case TrainingStatus::Training:
        return QStringLiteral("Training\u2026");
    case TrainingStatus::Trained:
        return QStringLiteral("Trained");
    case TrainingStatus::Failed:
        return QStringLiteral("Failed");
    }
    return QStringLiteral("Not trained");
}

std::optional<TrainingStatus> trainingStatusFromText(const QString &text)
{
    for (TrainingStatus s : {TrainingStatus::Untrained,
                             TrainingStatus::Training,
                             TrainingStatus::Trained,
                             TrainingStatus::Failed}) {
        if (trainingStatusText(s) == text) {
            return s;
        }
    }
    return std::nullopt;
}

QString TrainingProfile::bpePath() const
{
    return QString(weightsPath).replace(QStringLiteral(".tten"), QStringLiteral(".bpe"));
}

QString TrainingProfile::lossPath() const
{
    return QString(weightsPath).replace(QStringLiteral(".tten"), QStringLiteral(".loss"));
}

QString TrainingProfile::fileStem(const QString &name)
{
    QString stem = name.toLower();
    for (const char c : {' ', '/', '\\', ':', '.'}) {
        stem.replace(QLatin1Char(c), QLatin1Char('_'));
    }
    return stem;
}

float TrainingProfile::parseLearningRate(const QString &text)
{
    bool ok = false;
    const float rate = text.trimmed().toFloat(&ok);
    return (ok && std::isfinite(rate)) ? rate : 0.001f;
}

QJsonObject TrainingProfile::toJson() const
{
    QJsonObject object;
    object.insert(QStringLiteral("id"), JsonCoding::uuidText(id));
    object.insert(QStringLiteral("name"), name);
    object.insert(QStringLiteral("sourceDirectories"),
                  QJsonArray::fromStringList(sourceDirectories));
    object.insert(QStringLiteral("steps"), steps);
    object.insert(QStringLiteral("batchSize"), batchSize);
    object.insert(QStringLiteral("learningRate"), JsonCoding::floatToJson(learningRate));
    object.insert(QStringLiteral("heads"), heads);
    object.insert(QStringLiteral("layers"), layers);
    object.insert(QStringLiteral("threads"), threads);
    object.insert(QStringLiteral("useBPE"), useBPE);
    object.insert(QStringLiteral("startFromBuiltIn"), startFromBuiltIn);
    object.insert(QStringLiteral("weightsPath"), weightsPath);
    object.insert(QStringLiteral("status"), trainingStatusText(status));
    if (lastTrained) {
        object.insert(QStringLiteral("lastTrained"), JsonCoding::dateToJson(*lastTrained));
    }
    return object;
}

std::optional<TrainingProfile> TrainingProfile::fromJson(const QJsonObject &object)
{
    TrainingProfile p;
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue name = object.value(QStringLiteral("name"));
    const QJsonValue dirs = object.value(QStringLiteral("sourceDirectories"));
    const QJsonValue rate = object.value(QStringLiteral("learningRate"));
    const QJsonValue weights = object.value(QStringLiteral("weightsPath"));
    const QJsonValue status = object.value(QStringLiteral("status"));
    if (!id.isString() || !name.isString() || !dirs.isArray() || !rate.isDouble()
        || !weights.isString() || !status.isString()) {
        return std::nullopt;
    }
    p.id = JsonCoding::uuidFromText(id.toString());
    if (p.id.isNull()) {
        return std::nullopt;
    }
    p.name = name.toString();
    const QJsonArray dirArray = dirs.toArray();
    for (const QJsonValue &dir : dirArray) {
        if (!dir.isString()) {
            return std::nullopt;
        }
        p.sourceDirectories.append(dir.toString());
    }
    const std::optional<int> steps = JsonCoding::intFromJson(object.value(QStringLiteral("steps")));
    const std::optional<int> batch =
        JsonCoding::intFromJson(object.value(QStringLiteral("batchSize")));
    const std::optional<int> heads = JsonCoding::intFromJson(object.value(QStringLiteral("heads")));
    const std::optional<int> layers =
        JsonCoding::intFromJson(object.value(QStringLiteral("layers")));
    if (!steps || !batch || !heads || !layers) {
        return std::nullopt;
    }
    p.steps = *steps;
    p.batchSize = *batch;
    p.heads = *heads;
    p.layers = *layers;
    p.learningRate = static_cast<float>(rate.toDouble());
    p.weightsPath = weights.toString();
    const std::optional<TrainingStatus> s = trainingStatusFromText(status.toString());
    if (!s) {
        return std::nullopt;
    }
    p.status = *s;

    // Keys added after the first release: absent means the old behaviour.
    const QJsonValue threads = object.value(QStringLiteral("threads"));
    if (threads.isUndefined() || threads.isNull()) {
        p.threads = 1;
    } else {
        const std::optional<int> n = JsonCoding::intFromJson(threads);
        if (!n) {
            return std::nullopt;
        }
        p.threads = *n;
    }
    const QJsonValue useBPE = object.value(QStringLiteral("useBPE"));
    if (useBPE.isUndefined() || useBPE.isNull()) {
        p.useBPE = false;
    } else if (useBPE.isBool()) {
        p.useBPE = useBPE.toBool();
    } else {
        return std::nullopt;
    }
    // Profiles saved before the choice existed trained from random weights, and keep doing so.
    const QJsonValue fromBuiltIn = object.value(QStringLiteral("startFromBuiltIn"));
    if (fromBuiltIn.isUndefined() || fromBuiltIn.isNull()) {
        p.startFromBuiltIn = false;
    } else if (fromBuiltIn.isBool()) {
        p.startFromBuiltIn = fromBuiltIn.toBool();
    } else {
        return std::nullopt;
    }
    const QJsonValue lastTrained = object.value(QStringLiteral("lastTrained"));
    if (!lastTrained.isUndefined() && !lastTrained.isNull()) {
        p.lastTrained = JsonCoding::dateFromJson(lastTrained);
        if (!p.lastTrained) {
            return std::nullopt;
        }
    }
    return p;
}

QByteArray TrainingProfile::encodeList(const QList<TrainingProfile> &profiles)
{
    QJsonArray array;
    for (const TrainingProfile &p : profiles) {
        array.append(p.toJson());
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

std::optional<QList<TrainingProfile>> TrainingProfile::decodeList(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) {
        return std::nullopt;
    }
    QList<TrainingProfile> list;
    const QJsonArray array = document.array();
    for (const QJsonValue &element : array) {
        if (!element.isObject()) {
            return std::nullopt;
        }
        std::optional<TrainingProfile> p = fromJson(element.toObject());
        if (!p) {
            return std::nullopt;
        }
        list.append(*p);
    }
    return list;
}
