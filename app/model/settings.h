/*
** settings.h -- every value the application keeps between runs, over one QSettings.
**
** Keys and defaults (the whole set; a missing key reads as its default):
**
**   savedTabPaths            string list   absent   paths of the open tabs in tab order
**   activeTabPath            string        absent   path of the active tab
**   appearance               string        "system" "system", "light", "dark" or "opposite"
**   chunkSize                int           800      indexing chunk size; below 1 reads as 800
**   overlap                  int           200      chunk overlap; below 1 reads as 200
**                                                    (a pair the engine's limits refuse,
**                                                    trn_check_chunking, reads as 800 and 200)
**   extraExtensions          string        kDefaultExtraExtensions
**   excludePatterns          string        kDefaultExcludePatterns  comma-separated patterns in
**                                                   .gitignore syntax that no walk reads, matched
**                                                   from each directory's root; empty reads as the
**                                                   default
**   maxFileSizeMB            int           20       larger files are not read; below 1 reads as 20
**   hoverPreview             bool          true     the preview follows the pointer too (after
**                                                   a 0.6 s rest), not only the selection
**   previewPane              bool          true     the preview pane is shown
**   previewBelow             bool          false    the pane sits under the results, not beside
**   previewShare             double        0.45     the pane's share of the results area;
**                                                   outside 0.1-0.8 reads as 0.45
**   allPassages              bool          false    results list every matching passage, not
**                                                   one row per file
**   openTextFilesWith        string        "system" "Open text files with": a preset key of
**                                                   editorPresets() (app/ui/result_opener.h)
**   editorCommand            string        ""       the custom command, {file} and {line}
**   watchDirectories         bool          true     open tabs follow changes of their directory
**   indexAtIdlePriority      bool          true     indexing takes only CPU and disk time that
**                                                   nothing else wants
**   watchSettleMs            int           2000     quiet time after a change before the update;
**                                                   below 0 reads as 2000
**   searchHistory_<path>     JSON bytes    absent   a tab's search history
**   pinnedResults_<path>     JSON bytes    absent   a tab's pinned results
**   encoderOverride_<path>   string UUID   absent   a tab's encoder override
**   indexingUnfinished_<path> bool         false    an indexing of the directory began and has
**                                                   not finished: the tab goes on with it
**   trainingProfiles         JSON bytes    absent   all training profiles
**   defaultTrainingProfile   string UUID   absent   id of the default training profile
**
** QSettings reads "/" (and "\" on some back ends) as a group separator, so the path part of a
** per-directory key is escaped by directoryKey(): "%" becomes "%25", "/" becomes "%2F" and "\"
** becomes "%5C". The escape is injective, so every path has its own key and reads back exactly.
**
** Thread safety: every method may be called from any thread; one mutex guards the QSettings.
** The change signals are emitted on the thread of the setter (the views' setters run on the main
** thread).
*/
#ifndef TRN_APP_SETTINGS_H
#define TRN_APP_SETTINGS_H

#include <QByteArray>
#include <QObject>
#include <QSet>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <mutex>
#include <optional>

class Settings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString appearance READ appearance WRITE setAppearance NOTIFY appearanceChanged)
    Q_PROPERTY(int chunkSize READ chunkSize WRITE setChunkSize NOTIFY chunkSizeChanged)
    Q_PROPERTY(int overlap READ overlap WRITE setOverlap NOTIFY overlapChanged)
    Q_PROPERTY(QString extraExtensions READ extraExtensions WRITE setExtraExtensions NOTIFY
                   extraExtensionsChanged)
    Q_PROPERTY(QString excludePatterns READ excludePatterns WRITE setExcludePatterns NOTIFY
                   excludePatternsChanged)
    Q_PROPERTY(
        int maxFileSizeMB READ maxFileSizeMB WRITE setMaxFileSizeMB NOTIFY maxFileSizeMBChanged)
    Q_PROPERTY(bool hoverPreview READ hoverPreview WRITE setHoverPreview NOTIFY hoverPreviewChanged)
    Q_PROPERTY(bool previewPane READ previewPane WRITE setPreviewPane NOTIFY previewPaneChanged)
    Q_PROPERTY(bool previewBelow READ previewBelow WRITE setPreviewBelow NOTIFY previewBelowChanged)
    Q_PROPERTY(bool allPassages READ allPassages WRITE setAllPassages NOTIFY allPassagesChanged)
    Q_PROPERTY(QString openTextFilesWith READ openTextFilesWith WRITE setOpenTextFilesWith NOTIFY
                   openTextFilesWithChanged)
    Q_PROPERTY(
        QString editorCommand READ editorCommand WRITE setEditorCommand NOTIFY editorCommandChanged)

public:
    static constexpr int kDefaultChunkSize = 800;
    static constexpr int kDefaultOverlap = 200;
    static constexpr const char *kDefaultExtraExtensions =
        "plist, json, xml, yaml, yml, toml, ini, cfg, conf, env, properties, gradle, cmake";
    static constexpr const char *kDefaultExcludePatterns =
        ".git, node_modules, __pycache__, build, dist, target, .venv";
    static constexpr int kDefaultMaxFileSizeMB = 20;
    static constexpr double kDefaultPreviewShare = 0.45;
    static constexpr double kMinPreviewShare = 0.1;
    static constexpr double kMaxPreviewShare = 0.8;

    // Key words of the per-directory keys.
    static constexpr const char *kSearchHistoryPrefix = "searchHistory_";
    static constexpr const char *kPinnedResultsPrefix = "pinnedResults_";
    static constexpr const char *kEncoderOverridePrefix = "encoderOverride_";
    static constexpr const char *kIndexingUnfinishedPrefix = "indexingUnfinished_";

    // Takes ownership of storage.
    explicit Settings(QSettings *storage, QObject *parent = nullptr);
    ~Settings() override;

    // The user's settings file, QSettings("Tarnwick", "Tarnwick"): what main() of the application
    // and of the command line open and hand to every object that reads settings.
    static std::unique_ptr<Settings> openUserSettings();

    // The user's choices as stored (what the settings window shows).
    QString appearance() const;
    void setAppearance(const QString &value);
    int chunkSize() const;
    int overlap() const;
    // Chunk size and overlap are saved as a pair, and only a pair trn_check_chunking accepts
    // (64 to 65536, overlap at most half a chunk); an invalid one is refused and nothing changes.
    // Returns whether the pair is saved. The single setters pair the value with the effective
    // other one.
    bool setChunking(int chunkSize, int overlap);
    void setChunkSize(int value);
    void setOverlap(int value);
    // The one-line reason a pair would be refused, or an empty string when it would be saved.
    static QString chunkingProblem(int chunkSize, int overlap);
    QString extraExtensions() const;
    void setExtraExtensions(const QString &value);
    QString excludePatterns() const;
    void setExcludePatterns(const QString &value);
    int maxFileSizeMB() const;
    void setMaxFileSizeMB(int value);
    // The list of excludePatterns (split at ",", trimmed, empties dropped; the defaults when that
    // leaves none) and the size limit in bytes.
    QStringList effectiveExcludePatterns() const;
    // The set of extraExtensions: split at ",", trimmed, lower-cased, empties dropped.
    QSet<QString> effectiveExtraExtensions() const;
    qint64 effectiveMaxFileSize() const;
    bool hoverPreview() const;
    void setHoverPreview(bool value);
    bool previewPane() const;
    void setPreviewPane(bool value);
    bool previewBelow() const;
    void setPreviewBelow(bool value);
    bool allPassages() const;
    void setAllPassages(bool value);
    // Stored within kMinPreviewShare..kMaxPreviewShare.
    double previewShare() const;
    void setPreviewShare(double value);
    QString openTextFilesWith() const;
    void setOpenTextFilesWith(const QString &value);
    QString editorCommand() const;
    void setEditorCommand(const QString &value);

    // Live updates of open tabs (directory_watcher.h).
    bool watchDirectories() const;
    int watchSettleMs() const;
    bool indexAtIdlePriority() const;

    // What indexing uses: a stored value below 1 (or one that is not a number) counts as the
    // default, and a pair outside the limits of setChunking counts as both defaults.
    int effectiveChunkSize() const;
    int effectiveOverlap() const;

    // Tabs. An absent "activeTabPath" reads as nullopt; setting nullopt removes the key.
    QStringList savedTabPaths() const;
    void setSavedTabPaths(const QStringList &paths);
    std::optional<QString> activeTabPath() const;
    void setActiveTabPath(const std::optional<QString> &path);

    // Per-directory values. Absent keys read as empty data / nullopt; empty data or nullopt
    // removes the key.
    static QString directoryKey(const QString &prefix, const QString &directoryPath);
    QByteArray searchHistoryData(const QString &directoryPath) const;
    void setSearchHistoryData(const QString &directoryPath, const QByteArray &json);
    QByteArray pinnedResultsData(const QString &directoryPath) const;
    void setPinnedResultsData(const QString &directoryPath, const QByteArray &json);
    std::optional<QString> encoderOverride(const QString &directoryPath) const;
    void setEncoderOverride(const QString &directoryPath, const std::optional<QString> &uuidText);
    // Written to disk at once: what it records must survive the process being killed.
    bool isIndexingUnfinished(const QString &directoryPath) const;
    void setIndexingUnfinished(const QString &directoryPath, bool unfinished);

    // Training profiles.
    QByteArray trainingProfilesData() const;
    void setTrainingProfilesData(const QByteArray &json);
    std::optional<QString> defaultTrainingProfile() const;
    void setDefaultTrainingProfile(const std::optional<QString> &uuidText);

    // Raw access for keys not listed above; used by tests to plant odd values.
    QVariant value(const QString &key) const;
    void setValue(const QString &key, const QVariant &value);
    void remove(const QString &key);
    bool contains(const QString &key) const;
    void sync();

signals:
    void appearanceChanged();
    void chunkSizeChanged();
    void overlapChanged();
    void extraExtensionsChanged();
    void excludePatternsChanged();
    void maxFileSizeMBChanged();
    void hoverPreviewChanged();
    void previewPaneChanged();
    void previewBelowChanged();
    void allPassagesChanged();
    void openTextFilesWithChanged();
    void editorCommandChanged();

private:
    QVariant read(const QString &key) const; // the stored value, or the table's default
    // Writes value; returns true when the stored value changed.
    bool write(const QString &key, const QVariant &value);
    QByteArray readData(const QString &key) const;
    void writeData(const QString &key, const QByteArray &data);
    std::optional<QString> readString(const QString &key) const;
    void writeString(const QString &key, const std::optional<QString> &text);

    mutable std::mutex m_mutex; // guards m_storage
    std::unique_ptr<QSettings> m_storage;
};

// The appearance rule: "light" -> false, "dark" -> true, "opposite" -> the reverse of the system,
// anything else ("system") -> nullopt (follow the system). The value is "use a dark appearance".
std::optional<bool> appearanceIsDark(const QString &appearance, bool systemIsDark);

#endif
