/*
** training_manager.h -- the owner of the training profiles, and the one training run at a time.
**
** A run (train()) writes the corpus "<temp>/tarnwick_corpus_<random UUID>.txt" from the
** profile's source directories on the thread pool, runs "train_bpe <corpus> <P.bpe> 7740" there
** when the profile asks for a tokenizer, then starts the encoder trainer as a QProcess child of
** the manager on the main thread:
**
**   trainer <corpus> <P> <steps> <batch> <learning rate> <heads> <layers>
**           [--bpe <P.bpe>] [--threads <n>, only for n >= 2]
**           [--init <built-in weights> --bag <S,B,R> --half]
**
** A profile that starts from the built-in encoder (startFromBuiltIn, when builtInWeightsPath()
** finds one) passes it with --init and trains no tokenizer: the run keeps the built-in one. The
** built-in encoder is a bag of words, and such a run trains only its word rows on the user's
** text ("--bag S,kBagBatch,R", S = steps / kBagStepShare, R = kBagRateFactor x the profile's
** rate, no model steps, written in half precision as the built-in file is), so the profile stays
** a bag of words that indexes as fast as the built-in one; at those settings it scored above the
** built-in encoder on the known-item benchmark (models/README.md).
**
** where P is the profile's weightsPath. Its merged output is read line by line; lines that begin
** with "step " or "bag step " become trainingProgress. Exit 0 with a file at P marks the profile
*trained.
** Every failure marks it failed and leaves a one-line message in trainingProgress.
** The corpus, a copy of the user's text, is removed when the run ends however it ends
** (completed, failed, cancelled, or the manager destroyed while the run was under way).
**
** Both trainers are looked up in trainerDirectory(), by default the directory of the
** application executable, or libexec/tarnwick beside it once installed (support_files.h); the
** built-in encoder "default.tten" is found by builtInWeightsPath() the same way.
*/
#ifndef TRN_APP_TRAINING_MANAGER_H
#define TRN_APP_TRAINING_MANAGER_H

#include "encoder_choice.h"
#include "training_profile.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <atomic>
#include <memory>
#include <optional>

class FileWalkOptions;
class Settings;

// Owned by the application object (or the command line's runtime), which hands it to the tabs
// as their EncoderChoice and to the views that show or edit the profiles.
class TrainingManager : public QObject, public EncoderChoice
{
    Q_OBJECT
    Q_PROPERTY(QList<TrainingProfile> profiles READ profiles NOTIFY profilesChanged)
    Q_PROPERTY(QString trainingProgress READ trainingProgress NOTIFY trainingProgressChanged)
    Q_PROPERTY(bool isTraining READ isTraining NOTIFY isTrainingChanged)
    // Null when there is no default (writing a null id removes "defaultTrainingProfile").
    Q_PROPERTY(QUuid defaultProfileId READ defaultProfileId WRITE setDefaultProfileId NOTIFY
                   defaultProfileIdChanged)

public:
    static constexpr int kBpeMerges = 7740;
    static constexpr qint64 kMinimumCorpusBytes = 101;
    static constexpr const char *kBuiltInFileName = "default.tten";

    // Loads the profiles from settings, which must outlive the manager.
    explicit TrainingManager(Settings *settings, QObject *parent = nullptr);
    ~TrainingManager() override;

    QList<TrainingProfile> profiles() const { return m_profiles; }
    // The profiles whose status is Trained, in list order (the encoder picker's choices after
    // "Default").
    QList<TrainingProfile> trainedProfiles() const;
    std::optional<TrainingProfile> profile(const QUuid &id) const;
    QString trainingProgress() const { return m_trainingProgress; }
    bool isTraining() const { return m_isTraining; }

    QUuid defaultProfileId() const;
    void setDefaultProfileId(const QUuid &id);
    // The first of the override profile and the default profile that exists and is trained
    // gives its weightsPath; else the built-in encoder (builtInWeightsPath(), empty when there is
    // none: the untrained encoder).
    QString weightsPathFor(const QUuid &overrideProfileId) const override;
    // The weights of a directory without an override.
    QString defaultWeightsPath() const { return weightsPathFor(QUuid()); }
    // The encoder that ships with the application: kBuiltInFileName in trainerDirectory() when
    // that file exists; else empty.
    QString builtInWeightsPath() const;

    // Creates a profile from the panel's values (name, sourceDirectories and the parameters of
    // draft; its id, weightsPath, status and lastTrained are ignored): a new id, the weights at
    // weightsDirectory() + "/" + fileStem(name) + ".tten", not trained. The first profile
    // becomes the default. Returns the stored profile.
    TrainingProfile createProfile(const TrainingProfile &draft);
    // "Save" of the edit panel: the stored profile with edited's id takes the new name,
    // directories and parameters and keeps its id, weightsPath, status and lastTrained.
    void editProfile(const TrainingProfile &edited);
    // Replaces the profile with the same id and saves; nothing when there is none.
    void updateProfile(const TrainingProfile &profile);
    // Removes the weights, loss log and tokenizer files (errors ignored) and the profile. The
    // default id and overrides naming it are left as they are.
    void deleteProfile(const TrainingProfile &profile);
    // Re-reads "trainingProfiles" (tests; the settings window never needs it).
    void reloadProfiles();

    // Starts a run; ignored while one is under way.
    void train(const TrainingProfile &profile);
    // Stops the run ("Cancelled"): terminates the encoder trainer, or keeps it from starting.
    // Once the trainer has exited, the profile is put back as it was before the run: its
    // status and last training date, its loss log and tokenizer files (the weights file is only
    // ever replaced by a completed run), and "Cancelled" stays the progress text.
    void cancelTraining();

    // Where the trainers are looked up: by default the directory where supportFilePath() finds
    // "trainer", else QCoreApplication::applicationDirPath().
    QString trainerDirectory() const;
    void setTrainerDirectory(const QString &directory);

    // "~/.tarnwick/weights".
    static QString weightsDirectory();
    // A run that starts from the built-in encoder trains at this share of the profile's rate.
    static constexpr int kBagStepShare = 5;       // a profile's steps per bag step
    static constexpr int kBagBatch = 128;         // pairs per bag step
    static constexpr double kBagRateFactor = 3.0; // bag rate over the profile's rate
    // The encoder trainer's arguments; bpePath empty when no tokenizer was trained in this run,
    // initPath empty when the run starts from random weights.
    static QStringList trainerArguments(const TrainingProfile &profile, const QString &corpusPath,
                                        const QString &bpePath,
                                        const QString &initPath = QString());
    // Writes the text of every file below dirs that indexing under walk would read (the same walk
    // and text extraction) to outputPath, each followed by "\n\n"; returns the bytes of text
    // written (separators not counted), or -1 when outputPath cannot be written. A non-null stop
    // that becomes true ends the walk early.
    static qint64 prepareCorpus(const QStringList &dirs, const FileWalkOptions &walk,
                                const QString &outputPath, const std::atomic<bool> *stop = nullptr);
    // The records of a loss log ("<step>,<loss>" lines; other lines skipped), in file order.
    static QList<LossDataPoint> parseLossFile(const QString &path);
    // "This computer has <n> CPU cores available for training threads."
    static QString cpuCoresText();

signals:
    void profilesChanged();
    void trainingProgressChanged();
    void isTrainingChanged();
    void defaultProfileIdChanged();
    // A run ended (completed, failed or cancelled); the profile's status is final.
    void trainingFinished(const QUuid &profileId);

private:
    void loadProfiles();
    void saveProfiles();
    void setProfiles(const QList<TrainingProfile> &profiles);
    void setTrainingProgress(const QString &text);
    void setIsTraining(bool value);
    void setProfileStatus(const QUuid &id, TrainingStatus status, bool stampDate);
    void failRun(quint64 run, const QUuid &profileId, const QString &message);
    // The second step of a run, on the main thread: the corpus holds bytes bytes of text (-1:
    // it could not be written). Trains the tokenizer when the run needs one, then the encoder.
    void corpusPrepared(quint64 run, const TrainingProfile &profile, const QString &dir,
                        const QString &initPath, const QString &corpus, qint64 bytes);
    void launchTrainer(quint64 run, const TrainingProfile &profile, const QString &corpus,
                       const QString &bpePath, const QString &initPath);
    void trainerFinished(quint64 run, QProcess *process, const TrainingProfile &profile,
                         int exitCode, QProcess::ExitStatus exitStatus);
    void showStepLine(quint64 run, const QByteArray &line);
    // Ends a cancelled run: restores the snapshot taken when it started.
    void finishCancelled(quint64 run, const QUuid &profileId);

    // A run's corpus file, shared with the pool jobs that write and read it: they outlive the
    // manager when it is destroyed mid-run, and stop tells them to end early and leave no file.
    struct CorpusFile {
        QString path;
        std::atomic<bool> stop{false};
    };

    // What a run may change of its profile, as it was when the run started.
    struct RunSnapshot {
        TrainingStatus status = TrainingStatus::Untrained;
        std::optional<QDateTime> lastTrained;
        std::optional<QByteArray> loss; // nullopt: there was no loss log
        std::optional<QByteArray> bpe;  // nullopt: there was no tokenizer file
        std::shared_ptr<CorpusFile> corpus;
    };
    // Forgets a run that ended and removes its corpus; returns its snapshot.
    RunSnapshot endRun(quint64 run);

    Settings *m_settings;
    QString m_trainerDirectory;
    QList<TrainingProfile> m_profiles;
    QString m_trainingProgress;
    bool m_isTraining = false;
    QPointer<QProcess> m_process; // the running encoder trainer, for cancelTraining
    // Each train() call is a run; a run that was cancelled and overtaken by a new one still
    // finishes its profile but no longer touches isTraining or trainingProgress.
    quint64 m_currentRun = 0;
    bool m_cancelRequested = false;          // cancelTraining() before the trainer was launched
    QHash<quint64, RunSnapshot> m_snapshots; // of runs not finished yet
    QSet<quint64> m_cancelledRuns;
};

#endif
