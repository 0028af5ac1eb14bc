/*
** training_manager.cpp -- training profiles and the training run.
**
** A run goes: train() on the main thread checks the trainer and marks the profile training; a
** pool thread writes the corpus and runs train_bpe (waiting for it there, never on the main
** thread); the main thread then starts the encoder trainer as a QProcess child of the manager
** and follows its merged output through a line buffer that keeps partial lines.
*/
#include "training_manager.h"

#include "settings.h"
#include "support_files.h"
#include "walk_options.h"

#include "background.h"
#include "json_coding.h"
#include "text/files.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>
#include <QThread>
#include <QThreadPool>

#include <memory>

namespace
{

bool isExecutableFile(const QString &path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

// The bytes of a file, or nullopt when there is none (or it cannot be read).
std::optional<QByteArray> readWholeFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return file.readAll();
}

// Puts a file back as readWholeFile saw it: its bytes, or no file.
void restoreWholeFile(const QString &path, const std::optional<QByteArray> &bytes)
{
    if (!bytes) {
        QFile::remove(path);
        return;
    }
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(*bytes);
        file.commit();
    }
}

} // namespace

TrainingManager::TrainingManager(Settings *settings, QObject *parent)
    : QObject(parent), m_settings(settings)
{
    loadProfiles();
}

TrainingManager::~TrainingManager()
{
    if (m_process) {
        m_process->disconnect(this);
        m_process->kill();
        m_process->waitForFinished(1000);
    }
    // A pool job still writing a corpus removes it itself once it sees stop.
    for (const RunSnapshot &snapshot : std::as_const(m_snapshots)) {
        if (snapshot.corpus) {
            snapshot.corpus->stop = true;
            QFile::remove(snapshot.corpus->path);
        }
    }
}

void TrainingManager::loadProfiles()
{
    const std::optional<QList<TrainingProfile>> decoded =
        TrainingProfile::decodeList(m_settings->trainingProfilesData());
    setProfiles(decoded ? *decoded : QList<TrainingProfile>());
}

void TrainingManager::reloadProfiles()
{
    loadProfiles();
}

void TrainingManager::saveProfiles()
{
    m_settings->setTrainingProfilesData(TrainingProfile::encodeList(m_profiles));
}

void TrainingManager::setProfiles(const QList<TrainingProfile> &profiles)
{
    if (m_profiles == profiles) {
        return;
    }
    m_profiles = profiles;
    emit profilesChanged();
}

QList<TrainingProfile> TrainingManager::trainedProfiles() const
{
    QList<TrainingProfile> trained;
    for (const TrainingProfile &p : m_profiles) {
        if (p.status == TrainingStatus::Trained) {
            trained.append(p);
        }
    }
    return trained;
}

std::optional<TrainingProfile> TrainingManager::profile(const QUuid &id) const
{
    for (const TrainingProfile &p : m_profiles) {
        if (p.id == id) {
            return p;
        }
    }
    return std::nullopt;
}

void TrainingManager::setTrainingProgress(const QString &text)
{
    if (m_trainingProgress == text) {
        return;
    }
    m_trainingProgress = text;
    emit trainingProgressChanged();
}

void TrainingManager::setIsTraining(bool value)
{
    if (m_isTraining == value) {
        return;
    }
    m_isTraining = value;
    emit isTrainingChanged();
}

QUuid TrainingManager::defaultProfileId() const
{
    const std::optional<QString> text = m_settings->defaultTrainingProfile();
    return text ? JsonCoding::uuidFromText(*text) : QUuid();
}

void TrainingManager::setDefaultProfileId(const QUuid &id)
{
    const QUuid before = defaultProfileId();
    if (id.isNull()) {
        m_settings->setDefaultTrainingProfile(std::nullopt);
    } else {
        m_settings->setDefaultTrainingProfile(JsonCoding::uuidText(id));
    }
    if (before != id) {
        emit defaultProfileIdChanged();
    }
}

QString TrainingManager::weightsPathFor(const QUuid &overrideProfileId) const
{
    for (const QUuid &id : {overrideProfileId, defaultProfileId()}) {
        const std::optional<TrainingProfile> p = id.isNull() ? std::nullopt : profile(id);
        if (p && p->status == TrainingStatus::Trained) {
            return p->weightsPath;
        }
    }
    return builtInWeightsPath();
}

QString TrainingManager::builtInWeightsPath() const
{
    if (m_trainerDirectory.isEmpty()) {
        // share/tarnwick once installed, beside the program in the build tree.
        return supportFilePath(QLatin1String(kBuiltInFileName));
    }
    const QString path = m_trainerDirectory + QLatin1Char('/') + QLatin1String(kBuiltInFileName);
    return QFileInfo(path).isFile() ? path : QString();
}

QString TrainingManager::weightsDirectory()
{
    return QDir::homePath() + QStringLiteral("/.tarnwick/weights");
}

TrainingProfile TrainingManager::createProfile(const TrainingProfile &draft)
{
    const QString dir = weightsDirectory();
    QDir().mkpath(dir);
    TrainingProfile p = draft;
    p.id = QUuid::createUuid();
    p.weightsPath =
        dir + QLatin1Char('/') + TrainingProfile::fileStem(draft.name) + QStringLiteral(".tten");
    p.status = TrainingStatus::Untrained;
    p.lastTrained.reset();
    QList<TrainingProfile> profiles = m_profiles;
    profiles.append(p);
    setProfiles(profiles);
    saveProfiles();
    if (m_profiles.size() == 1) {
        setDefaultProfileId(p.id);
    }
    return p;
}

void TrainingManager::editProfile(const TrainingProfile &edited)
{
    const std::optional<TrainingProfile> stored = profile(edited.id);
    if (!stored) {
        return;
    }
    TrainingProfile p = edited;
    p.weightsPath = stored->weightsPath;
    p.status = stored->status;
    p.lastTrained = stored->lastTrained;
    updateProfile(p);
}

void TrainingManager::updateProfile(const TrainingProfile &profile)
{
    QList<TrainingProfile> profiles = m_profiles;
    for (TrainingProfile &p : profiles) {
        if (p.id == profile.id) {
            p = profile;
            setProfiles(profiles);
            saveProfiles();
            return;
        }
    }
}

void TrainingManager::deleteProfile(const TrainingProfile &profile)
{
    QFile::remove(profile.weightsPath);
    QFile::remove(profile.lossPath());
    QFile::remove(profile.bpePath());
    QList<TrainingProfile> profiles = m_profiles;
    profiles.removeIf([&profile](const TrainingProfile &p) {
        return p.id == profile.id;
    });
    setProfiles(profiles);
    saveProfiles();
}

QString TrainingManager::trainerDirectory() const
{
    if (!m_trainerDirectory.isEmpty()) {
        return m_trainerDirectory;
    }
    // Beside the program in the build tree, in libexec/tarnwick once installed.
    const QString trainer = supportFilePath(QStringLiteral("trainer"));
    if (!trainer.isEmpty()) {
        return QFileInfo(trainer).absolutePath();
    }
    return QCoreApplication::applicationDirPath();
}

void TrainingManager::setTrainerDirectory(const QString &directory)
{
    m_trainerDirectory = directory;
}

QStringList TrainingManager::trainerArguments(const TrainingProfile &profile,
                                              const QString &corpusPath, const QString &bpePath,
                                              const QString &initPath)
{
    // From the built-in encoder, a bag of words, the run trains only its word rows (no model
    // steps), so the profile stays a bag of words that the engine embeds without the layers.
    const bool bag = !initPath.isEmpty();
    QStringList args = {corpusPath,
                        profile.weightsPath,
                        QString::number(bag ? 0 : profile.steps),
                        QString::number(profile.batchSize),
                        JsonCoding::floatText(profile.learningRate),
                        QString::number(profile.heads),
                        QString::number(profile.layers)};
    if (!bpePath.isEmpty()) {
        args << QStringLiteral("--bpe") << bpePath;
    }
    if (profile.threads >= 2) {
        args << QStringLiteral("--threads") << QString::number(profile.threads);
    }
    if (bag) {
        const int steps = qMax(1, profile.steps / kBagStepShare);
        args << QStringLiteral("--init") << initPath << QStringLiteral("--bag")
             << QStringLiteral("%1,%2,%3")
                    .arg(steps)
                    .arg(kBagBatch)
                    .arg(QString::number(profile.learningRate * kBagRateFactor, 'g', 6));
        // the built-in encoder's rows are stored in half precision; a profile made from them
        // keeps that size (some 40 MB, not 90)
        args << QStringLiteral("--half");
    }
    return args;
}

qint64 TrainingManager::prepareCorpus(const QStringList &dirs, const FileWalkOptions &walk,
                                      const QString &outputPath, const std::atomic<bool> *stop)
{
    QFile out(outputPath);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return -1;
    }
    // The same walk and text as indexing, so training sees what search sees.
    qint64 total = 0;
    for (const QString &dir : dirs) {
        const QByteArray root = QFile::encodeName(dir);
        walk_files(root.constData(), walk.options(), [&](const WalkedFile &f) {
            if (stop && *stop) {
                return WALK_STOP;
            }
            if (f.kind != WALK_FILE || f.status != TRN_FILE_STATUS_INDEXABLE) {
                return WALK_CONTINUE;
            }
            ExtractedText text;
            if (extract_file_text(f.path, f.type, walk.maxFileSize(), &text)
                == TRN_FILE_STATUS_INDEXABLE) {
                out.write(text.text, qint64(text.length));
                out.write("\n\n", 2);
                total += qint64(text.length);
            }
            extracted_text_free(&text);
            return WALK_CONTINUE;
        });
    }
    return total;
}

QList<LossDataPoint> TrainingManager::parseLossFile(const QString &path)
{
    QList<LossDataPoint> points;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return points;
    }
    const QString content = QString::fromUtf8(file.readAll());
    const QStringList lines = content.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QStringList fields = line.trimmed().split(QLatin1Char(','));
        if (fields.size() != 2) {
            continue;
        }
        bool stepOk = false;
        bool lossOk = false;
        const int step = fields.at(0).trimmed().toInt(&stepOk);
        const float loss = fields.at(1).trimmed().toFloat(&lossOk);
        if (stepOk && lossOk) {
            points.append(LossDataPoint{step, loss});
        }
    }
    return points;
}

QString TrainingManager::cpuCoresText()
{
    return QStringLiteral("This computer has ") + QString::number(QThread::idealThreadCount())
           + QStringLiteral(" CPU cores available for training threads.");
}

void TrainingManager::setProfileStatus(const QUuid &id, TrainingStatus status, bool stampDate)
{
    std::optional<TrainingProfile> p = profile(id);
    if (!p) {
        return; // deleted while it trained
    }
    p->status = status;
    if (stampDate) {
        p->lastTrained = QDateTime::currentDateTimeUtc();
    }
    updateProfile(*p);
}

void TrainingManager::train(const TrainingProfile &profile)
{
    if (m_isTraining) {
        return;
    }
    const QString dir = trainerDirectory();
    if (dir.isEmpty()) {
        setTrainingProgress(QStringLiteral("Trainer executable not found beside the application"));
        return;
    }
    if (!isExecutableFile(dir + QStringLiteral("/trainer"))) {
        setTrainingProgress(QStringLiteral("Trainer not executable"));
        return;
    }
    const quint64 run = ++m_currentRun;
    m_cancelRequested = false;
    RunSnapshot snapshot;
    if (const std::optional<TrainingProfile> before = this->profile(profile.id)) {
        snapshot.status = before->status;
        snapshot.lastTrained = before->lastTrained;
    }
    snapshot.loss = readWholeFile(profile.lossPath());
    snapshot.bpe = readWholeFile(profile.bpePath());
    // A fresh name per run: a cancelled run's job may still be writing its own corpus.
    const auto corpus = std::make_shared<CorpusFile>();
    corpus->path = QDir::tempPath() + QStringLiteral("/tarnwick_corpus_")
                   + JsonCoding::uuidText(QUuid::createUuid()) + QStringLiteral(".txt");
    snapshot.corpus = corpus;
    m_snapshots.insert(run, snapshot);
    setIsTraining(true);
    setTrainingProgress(QStringLiteral("Preparing corpus\u2026"));
    setProfileStatus(profile.id, TrainingStatus::Training, false);

    // Starting from the built-in encoder keeps its tokenizer: no tokenizer is trained then.
    const QString initPath = profile.startFromBuiltIn ? builtInWeightsPath() : QString();
    const std::shared_ptr<const FileWalkOptions> walk = FileWalkOptions::fromSettings(*m_settings);
    runInBackground(
        this,
        [profile, walk, corpus] {
            const qint64 bytes =
                prepareCorpus(profile.sourceDirectories, *walk, corpus->path, &corpus->stop);
            // Checked after the file is closed: either the manager's removal came after it, or
            // the manager is gone (or the run cancelled) and this is the last word on the file.
            if (corpus->stop) {
                QFile::remove(corpus->path);
                return qint64(-1);
            }
            return bytes;
        },
        [this, run, profile, dir, initPath, path = corpus->path](qint64 bytes) {
            corpusPrepared(run, profile, dir, initPath, path, bytes);
        });
}

void TrainingManager::corpusPrepared(quint64 run, const TrainingProfile &profile,
                                     const QString &dir, const QString &initPath,
                                     const QString &corpus, qint64 bytes)
{
    if (bytes < kMinimumCorpusBytes) {
        failRun(run,
                profile.id,
                QStringLiteral("Corpus too small (") + QString::number(qMax<qint64>(bytes, 0))
                    + QStringLiteral(" bytes). Add more source directories."));
        return;
    }
    if (!profile.useBPE || !initPath.isEmpty()) {
        launchTrainer(run, profile, corpus, QString(), initPath);
        return;
    }
    const QString bpeTrainer = dir + QStringLiteral("/train_bpe");
    if (!isExecutableFile(bpeTrainer)) {
        failRun(run, profile.id, QStringLiteral("train_bpe not found beside the application"));
        return;
    }
    if (run == m_currentRun && !m_cancelledRuns.contains(run)) {
        setTrainingProgress(QStringLiteral("Training BPE tokenizer\u2026"));
    }
    const std::shared_ptr<CorpusFile> file = m_snapshots.value(run).corpus;
    runInBackground(
        this,
        [bpeTrainer, corpus, profile, file] {
            QProcess bpe;
            bpe.setStandardOutputFile(QProcess::nullDevice());
            bpe.setStandardErrorFile(QProcess::nullDevice());
            bpe.start(bpeTrainer, {corpus, profile.bpePath(), QString::number(kBpeMerges)});
            if (!bpe.waitForStarted(-1)) {
                return QStringLiteral("Failed to run BPE training: ") + bpe.errorString();
            }
            // A cancelled run, or a manager destroyed, stops the tokenizer trainer too.
            while (!bpe.waitForFinished(100) && bpe.state() != QProcess::NotRunning) {
                if (file && file->stop) {
                    bpe.kill();
                    bpe.waitForFinished(-1);
                    return QStringLiteral("Cancelled");
                }
            }
            if (bpe.exitStatus() != QProcess::NormalExit || bpe.exitCode() != 0) {
                return QStringLiteral("BPE training failed");
            }
            return QString();
        },
        [this, run, profile, corpus, initPath](const QString &failure) {
            if (!failure.isEmpty()) {
                failRun(run, profile.id, failure);
                return;
            }
            if (run == m_currentRun && !m_cancelledRuns.contains(run)) {
                setTrainingProgress(QStringLiteral("BPE ready. Training encoder\u2026"));
            }
            launchTrainer(run, profile, corpus, profile.bpePath(), initPath);
        });
}

void TrainingManager::failRun(quint64 run, const QUuid &profileId, const QString &message)
{
    if (m_cancelledRuns.contains(run)) {
        finishCancelled(run, profileId);
        return;
    }
    endRun(run);
    if (run == m_currentRun) {
        setIsTraining(false);
        setTrainingProgress(message);
    }
    setProfileStatus(profileId, TrainingStatus::Failed, false);
    emit trainingFinished(profileId);
}

void TrainingManager::launchTrainer(quint64 run, const TrainingProfile &profile,
                                    const QString &corpus, const QString &bpePath,
                                    const QString &initPath)
{
    if (m_cancelledRuns.contains(run)) {
        // Cancelled while the corpus or tokenizer was prepared: the trainer never starts.
        finishCancelled(run, profile.id);
        return;
    }
    auto *process = new QProcess(this);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setProgram(trainerDirectory() + QStringLiteral("/trainer"));
    process->setArguments(trainerArguments(profile, corpus, bpePath, initPath));

    // Output after the last newline, kept until the rest of the line arrives.
    auto pending = std::make_shared<QByteArray>();
    connect(process, &QProcess::readyReadStandardOutput, this, [this, run, process, pending] {
        pending->append(process->readAllStandardOutput());
        qsizetype newline = pending->indexOf('\n');
        while (newline >= 0) {
            showStepLine(run, pending->left(newline));
            pending->remove(0, newline + 1);
            newline = pending->indexOf('\n');
        }
    });
    connect(process,
            &QProcess::finished,
            this,
            [this, run, process, profile, pending](int exitCode, QProcess::ExitStatus status) {
                pending->append(process->readAllStandardOutput());
                const QList<QByteArray> lines = pending->split('\n');
                for (const QByteArray &line : lines) {
                    showStepLine(run, line);
                }
                pending->clear();
                trainerFinished(run, process, profile, exitCode, status);
            });
    connect(process,
            &QProcess::errorOccurred,
            this,
            [this, run, process, profile](QProcess::ProcessError error) {
                if (error != QProcess::FailedToStart) {
                    return; // a crash also ends in finished()
                }
                if (m_process == process) {
                    m_process = nullptr;
                }
                failRun(run,
                        profile.id,
                        QStringLiteral("Failed to launch trainer: ") + process->errorString());
                process->deleteLater();
            });
    m_process = process;
    process->start();
}

void TrainingManager::showStepLine(quint64 run, const QByteArray &line)
{
    const QString text = QString::fromUtf8(line).trimmed();
    if (run == m_currentRun && m_isTraining
        && (text.startsWith(QLatin1String("step "))
            || text.startsWith(QLatin1String("bag step ")))) {
        setTrainingProgress(text);
    }
}

void TrainingManager::trainerFinished(quint64 run, QProcess *process,
                                      const TrainingProfile &profile, int exitCode,
                                      QProcess::ExitStatus exitStatus)
{
    if (m_process == process) {
        m_process = nullptr;
    }
    if (m_cancelledRuns.contains(run)) {
        process->deleteLater();
        finishCancelled(run, profile.id);
        return;
    }
    endRun(run);
    // A trainer killed by a signal reports the signal number as its exit code.
    const bool exists = QFileInfo::exists(profile.weightsPath);
    const bool succeeded = exitStatus == QProcess::NormalExit && exitCode == 0 && exists;
    QString message;
    if (succeeded) {
        message = QStringLiteral("Training complete");
    } else {
        message = QStringLiteral("Training failed (exit ") + QString::number(exitCode)
                  + QStringLiteral(", file ")
                  + (exists ? QStringLiteral("exists") : QStringLiteral("missing"))
                  + QStringLiteral(": ") + profile.weightsPath + QLatin1Char(')');
    }
    if (run == m_currentRun) {
        setIsTraining(false);
        setTrainingProgress(message);
    }
    setProfileStatus(
        profile.id, succeeded ? TrainingStatus::Trained : TrainingStatus::Failed, succeeded);
    process->deleteLater();
    emit trainingFinished(profile.id);
}

void TrainingManager::cancelTraining()
{
    if (!m_isTraining) {
        return;
    }
    m_cancelledRuns.insert(m_currentRun);
    if (const std::shared_ptr<CorpusFile> corpus = m_snapshots.value(m_currentRun).corpus) {
        corpus->stop = true; // a corpus or tokenizer still being prepared ends early
    }
    if (m_process) {
        m_process->terminate();
    } else {
        m_cancelRequested = true;
    }
    m_process = nullptr;
    setIsTraining(false);
    setTrainingProgress(QStringLiteral("Cancelled"));
}

void TrainingManager::finishCancelled(quint64 run, const QUuid &profileId)
{
    m_cancelledRuns.remove(run);
    const RunSnapshot snapshot = endRun(run);
    // A newer run has the profile now; it decides what the profile becomes.
    if (run == m_currentRun) {
        if (std::optional<TrainingProfile> p = profile(profileId)) {
            restoreWholeFile(p->lossPath(), snapshot.loss);
            restoreWholeFile(p->bpePath(), snapshot.bpe);
            QFile::remove(p->weightsPath + QStringLiteral(".tmp"));
            p->status = snapshot.status;
            p->lastTrained = snapshot.lastTrained;
            updateProfile(*p);
        }
        setTrainingProgress(QStringLiteral("Cancelled"));
    }
    emit trainingFinished(profileId);
}

TrainingManager::RunSnapshot TrainingManager::endRun(quint64 run)
{
    const RunSnapshot snapshot = m_snapshots.take(run);
    if (snapshot.corpus) {
        QFile::remove(snapshot.corpus->path);
    }
    return snapshot;
}
