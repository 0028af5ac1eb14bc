/*
** training_profile.h -- a training profile: the source directories of a corpus and the
** hyper-parameters an encoder is trained with, and the files that belong to it.
**
** Stored under "trainingProfiles" as one compact JSON array, in list order:
**
**   {"id": "<UUID>", "name": "...", "sourceDirectories": ["/abs/dir", ...], "steps": 2000,
**    "batchSize": 8, "learningRate": 0.001, "heads": 8, "layers": 2, "threads": 1,
**    "useBPE": false, "startFromBuiltIn": true, "weightsPath":
** "/home/u/.tarnwick/weights/<stem>.tten",
**    "status": "Not trained"|"Training…"|"Trained"|"Failed",
**    "lastTrained": <seconds since 2001-01-01>}
**
** "threads" (default 1), "useBPE" (default false), "startFromBuiltIn" (default false: profiles
** saved before it existed trained from random weights; a new profile starts with true) and
** "lastTrained" (default none) may be missing; any other missing or mistyped key fails the whole
** array. See json_coding.h for dates.
**
** Files of a profile, derived from weightsPath by replacing ".tten": the weights (".tten"), the
** BPE tokenizer (".bpe") and the trainer's loss log (".loss").
*/
#ifndef TRN_APP_TRAINING_PROFILE_H
#define TRN_APP_TRAINING_PROFILE_H

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <optional>

enum class TrainingStatus { Untrained, Training, Trained, Failed };

// "Not trained", "Training…" (ending in U+2026), "Trained", "Failed".
QString trainingStatusText(TrainingStatus status);
std::optional<TrainingStatus> trainingStatusFromText(const QString &text);

struct TrainingProfile {
    // The choices of the profile panel; the defaults of a new profile are the fields' initial
    // values below.
    // The short runs come first: at batch 8 one step takes about 1.4 s of one core of a small
    // machine, so 100 steps finish in a few minutes; fine-tuning a built-in encoder needs few.
    static constexpr int kStepChoices[] = {
        100, 200, 500, 1000, 2000, 3000, 5000, 10000, 20000, 50000};
    static constexpr int kBatchChoices[] = {4, 8, 16, 32};
    static constexpr int kHeadChoices[] = {4, 8, 16};
    static constexpr int kLayerChoices[] = {2, 4, 6, 8, 12};
    static constexpr int kThreadChoices[] = {1, 2, 4, 6, 8, 10, 12};

    QUuid id;
    QString name;
    QStringList sourceDirectories;
    int steps = 2000;
    int batchSize = 8;
    float learningRate = 0.001f;
    int heads = 8;
    int layers = 2;
    int threads = 1;
    bool useBPE = false;
    // Train on from the built-in encoder (its tokenizer included) instead of random weights.
    bool startFromBuiltIn = true;
    QString weightsPath;
    TrainingStatus status = TrainingStatus::Untrained;
    std::optional<QDateTime> lastTrained;

    bool operator==(const TrainingProfile &other) const = default;

    QString bpePath() const;  // weightsPath with ".tten" replaced by ".bpe"
    QString lossPath() const; // weightsPath with ".tten" replaced by ".loss"

    // The weights file name's stem: the name lower-cased, then each " ", "/", "\", ":" and "."
    // replaced by "_" ("My Docs: v1.2" -> "my_docs__v1_2").
    static QString fileStem(const QString &name);
    // The learning-rate field's text as a float; 0.001 when it does not parse.
    static float parseLearningRate(const QString &text);

    QJsonObject toJson() const;
    static std::optional<TrainingProfile> fromJson(const QJsonObject &object);
    static QByteArray encodeList(const QList<TrainingProfile> &profiles);
    static std::optional<QList<TrainingProfile>> decodeList(const QByteArray &json);
};

// One record of a loss log.
struct LossDataPoint {
    int step = 0;
    float loss = 0.0f;

    bool operator==(const LossDataPoint &other) const = default;
};

Q_DECLARE_METATYPE(TrainingProfile)

#endif
