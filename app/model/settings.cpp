/*
** settings.cpp -- the settings table over QSettings. See settings.h for the keys.
*/
#include "settings.h"

#include "tarnwick.h"

namespace
{

struct SettingDefault {
    const char *key;
    QVariant value;
};

// The keys with a default; every other key reads as absent when missing.
const SettingDefault *defaultsTable(size_t *count)
{
    static const SettingDefault table[] = {
        {"appearance", QStringLiteral("system")},
        {"chunkSize", Settings::kDefaultChunkSize},
        {"overlap", Settings::kDefaultOverlap},
        {"extraExtensions", QString::fromLatin1(Settings::kDefaultExtraExtensions)},
        {"excludePatterns", QString::fromLatin1(Settings::kDefaultExcludePatterns)},
        {"maxFileSizeMB", Settings::kDefaultMaxFileSizeMB},
        {"hoverPreview", true},
        {"previewPane", true},
        {"previewBelow", false},
        {"previewShare", Settings::kDefaultPreviewShare},
        {"allPassages", false},
        {"openTextFilesWith", QStringLiteral("system")},
        {"editorCommand", QString()},
        {"watchDirectories", true},
        {"watchSettleMs", 2000},
        {"indexAtIdlePriority", true},
    };
    *count = sizeof(table) / sizeof(table[0]);
    return table;
}

QVariant defaultFor(const QString &key)
{
    size_t count = 0;
    const SettingDefault *table = defaultsTable(&count);
    for (size_t i = 0; i < count; i++) {
        if (key == QLatin1String(table[i].key)) {
            return table[i].value;
        }
    }
    return QVariant();
}

// An integer setting below 1 (or not a number) counts as fallback.
int positiveOr(const QVariant &value, int fallback)
{
    bool ok = false;
    const int n = value.toInt(&ok);
    return (ok && n >= 1) ? n : fallback;
}

} // namespace

Settings::Settings(QSettings *storage, QObject *parent) : QObject(parent), m_storage(storage) {}

Settings::~Settings() = default;

std::unique_ptr<Settings> Settings::openUserSettings()
{
    return std::make_unique<Settings>(
        new QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick")));
}

QVariant Settings::read(const QString &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_storage->contains(key)) {
        return m_storage->value(key);
    }
    return defaultFor(key);
}

bool Settings::write(const QString &key, const QVariant &value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const QVariant old = m_storage->contains(key) ? m_storage->value(key) : defaultFor(key);
    m_storage->setValue(key, value);
    return old != value;
}

QString Settings::appearance() const
{
    return read(QStringLiteral("appearance")).toString();
}

void Settings::setAppearance(const QString &value)
{
    if (write(QStringLiteral("appearance"), value)) {
        emit appearanceChanged();
    }
}

int Settings::chunkSize() const
{
    return read(QStringLiteral("chunkSize")).toInt();
}

QString Settings::chunkingProblem(int chunkSize, int overlap)
{
    char reason[160];
    if (trn_check_chunking(chunkSize, overlap, reason, sizeof reason)) {
        return QString();
    }
    return QString::fromUtf8(reason);
}

bool Settings::setChunking(int chunkSize, int overlap)
{
    if (!chunkingProblem(chunkSize, overlap).isEmpty()) {
        return false;
    }
    const bool chunkWritten = write(QStringLiteral("chunkSize"), chunkSize);
    const bool overlapWritten = write(QStringLiteral("overlap"), overlap);
    if (chunkWritten) {
        emit chunkSizeChanged();
    }
    if (overlapWritten) {
        emit overlapChanged();
    }
    return true;
}

void Settings::setChunkSize(int value)
{
    setChunking(value, effectiveOverlap());
}

int Settings::overlap() const
{
    return read(QStringLiteral("overlap")).toInt();
}

void Settings::setOverlap(int value)
{
    setChunking(effectiveChunkSize(), value);
}

bool Settings::watchDirectories() const
{
    return read(QStringLiteral("watchDirectories")).toBool();
}

bool Settings::indexAtIdlePriority() const
{
    return read(QStringLiteral("indexAtIdlePriority")).toBool();
}

int Settings::watchSettleMs() const
{
    bool ok = false;
    const int ms = read(QStringLiteral("watchSettleMs")).toInt(&ok);
    return ok && ms >= 0 ? ms : 2000;
}

QString Settings::extraExtensions() const
{
    return read(QStringLiteral("extraExtensions")).toString();
}

void Settings::setExtraExtensions(const QString &value)
{
    if (write(QStringLiteral("extraExtensions"), value)) {
        emit extraExtensionsChanged();
    }
}

QString Settings::excludePatterns() const
{
    return read(QStringLiteral("excludePatterns")).toString();
}

void Settings::setExcludePatterns(const QString &value)
{
    if (write(QStringLiteral("excludePatterns"), value)) {
        emit excludePatternsChanged();
    }
}

int Settings::maxFileSizeMB() const
{
    return read(QStringLiteral("maxFileSizeMB")).toInt();
}

void Settings::setMaxFileSizeMB(int value)
{
    if (write(QStringLiteral("maxFileSizeMB"), value)) {
        emit maxFileSizeMBChanged();
    }
}

QStringList Settings::effectiveExcludePatterns() const
{
    QStringList patterns;
    const QStringList pieces = excludePatterns().split(QLatin1Char(','));
    for (const QString &piece : pieces) {
        const QString pattern = piece.trimmed();
        if (!pattern.isEmpty()) {
            patterns.append(pattern);
        }
    }
    if (patterns.isEmpty()) {
        return QString::fromLatin1(kDefaultExcludePatterns).split(QStringLiteral(", "));
    }
    return patterns;
}

QSet<QString> Settings::effectiveExtraExtensions() const
{
    QSet<QString> set;
    const QStringList pieces = extraExtensions().split(QLatin1Char(','));
    for (const QString &piece : pieces) {
        const QString ext = piece.trimmed().toLower();
        if (!ext.isEmpty()) {
            set.insert(ext);
        }
    }
    return set;
}

qint64 Settings::effectiveMaxFileSize() const
{
    const int mb = positiveOr(read(QStringLiteral("maxFileSizeMB")), kDefaultMaxFileSizeMB);
    return qint64(mb) * 1024 * 1024;
}

bool Settings::hoverPreview() const
{
    return read(QStringLiteral("hoverPreview")).toBool();
}

void Settings::setHoverPreview(bool value)
{
    if (write(QStringLiteral("hoverPreview"), value)) {
        emit hoverPreviewChanged();
    }
}

bool Settings::previewPane() const
{
    return read(QStringLiteral("previewPane")).toBool();
}

void Settings::setPreviewPane(bool value)
{
    if (write(QStringLiteral("previewPane"), value)) {
        emit previewPaneChanged();
    }
}

bool Settings::previewBelow() const
{
    return read(QStringLiteral("previewBelow")).toBool();
}

void Settings::setPreviewBelow(bool value)
{
    if (write(QStringLiteral("previewBelow"), value)) {
        emit previewBelowChanged();
    }
}

bool Settings::allPassages() const
{
    return read(QStringLiteral("allPassages")).toBool();
}

void Settings::setAllPassages(bool value)
{
    if (write(QStringLiteral("allPassages"), value)) {
        emit allPassagesChanged();
    }
}

double Settings::previewShare() const
{
    bool ok = false;
    const double share = read(QStringLiteral("previewShare")).toDouble(&ok);
    return ok && share >= kMinPreviewShare && share <= kMaxPreviewShare ? share
                                                                        : kDefaultPreviewShare;
}

void Settings::setPreviewShare(double value)
{
    write(QStringLiteral("previewShare"), qBound(kMinPreviewShare, value, kMaxPreviewShare));
}

QString Settings::openTextFilesWith() const
{
    return read(QStringLiteral("openTextFilesWith")).toString();
}

void Settings::setOpenTextFilesWith(const QString &value)
{
    if (write(QStringLiteral("openTextFilesWith"), value)) {
        emit openTextFilesWithChanged();
    }
}

QString Settings::editorCommand() const
{
    return read(QStringLiteral("editorCommand")).toString();
}

void Settings::setEditorCommand(const QString &value)
{
    if (write(QStringLiteral("editorCommand"), value)) {
        emit editorCommandChanged();
    }
}

int Settings::effectiveChunkSize() const
{
    const int chunkSize = positiveOr(read(QStringLiteral("chunkSize")), kDefaultChunkSize);
    const int overlap = positiveOr(read(QStringLiteral("overlap")), kDefaultOverlap);
    return chunkingProblem(chunkSize, overlap).isEmpty() ? chunkSize : kDefaultChunkSize;
}

int Settings::effectiveOverlap() const
{
    const int chunkSize = positiveOr(read(QStringLiteral("chunkSize")), kDefaultChunkSize);
    const int overlap = positiveOr(read(QStringLiteral("overlap")), kDefaultOverlap);
    return chunkingProblem(chunkSize, overlap).isEmpty() ? overlap : kDefaultOverlap;
}

QStringList Settings::savedTabPaths() const
{
    return read(QStringLiteral("savedTabPaths")).toStringList();
}

void Settings::setSavedTabPaths(const QStringList &paths)
{
    write(QStringLiteral("savedTabPaths"), paths);
}

std::optional<QString> Settings::activeTabPath() const
{
    return readString(QStringLiteral("activeTabPath"));
}

void Settings::setActiveTabPath(const std::optional<QString> &path)
{
    writeString(QStringLiteral("activeTabPath"), path);
}

QString Settings::directoryKey(const QString &prefix, const QString &directoryPath)
{
    QString escaped;
    escaped.reserve(directoryPath.size() + 8);
    for (const QChar c : directoryPath) {
        if (c == QLatin1Char('%')) {
            escaped += QLatin1String("%25");
        } else if (c == QLatin1Char('/')) {
            escaped += QLatin1String("%2F");
        } else if (c == QLatin1Char('\\')) {
            escaped += QLatin1String("%5C");
        } else {
            escaped += c;
        }
    }
    return prefix + escaped;
}

QByteArray Settings::readData(const QString &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const QVariant v = m_storage->value(key);
    if (v.typeId() == QMetaType::QByteArray || v.typeId() == QMetaType::QString) {
        return v.toByteArray();
    }
    return QByteArray();
}

void Settings::writeData(const QString &key, const QByteArray &data)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (data.isEmpty()) {
        m_storage->remove(key);
    } else {
        m_storage->setValue(key, data);
    }
}

std::optional<QString> Settings::readString(const QString &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_storage->contains(key)) {
        return std::nullopt;
    }
    return m_storage->value(key).toString();
}

void Settings::writeString(const QString &key, const std::optional<QString> &text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (text) {
        m_storage->setValue(key, *text);
    } else {
        m_storage->remove(key);
    }
}

QByteArray Settings::searchHistoryData(const QString &directoryPath) const
{
    return readData(directoryKey(QLatin1String(kSearchHistoryPrefix), directoryPath));
}

void Settings::setSearchHistoryData(const QString &directoryPath, const QByteArray &json)
{
    writeData(directoryKey(QLatin1String(kSearchHistoryPrefix), directoryPath), json);
}

QByteArray Settings::pinnedResultsData(const QString &directoryPath) const
{
    return readData(directoryKey(QLatin1String(kPinnedResultsPrefix), directoryPath));
}

void Settings::setPinnedResultsData(const QString &directoryPath, const QByteArray &json)
{
    writeData(directoryKey(QLatin1String(kPinnedResultsPrefix), directoryPath), json);
}

bool Settings::isIndexingUnfinished(const QString &directoryPath) const
{
    const QString key = directoryKey(QLatin1String(kIndexingUnfinishedPrefix), directoryPath);
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_storage->value(key).toBool();
}

void Settings::setIndexingUnfinished(const QString &directoryPath, bool unfinished)
{
    const QString key = directoryKey(QLatin1String(kIndexingUnfinishedPrefix), directoryPath);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (unfinished) {
        m_storage->setValue(key, true);
    } else {
        m_storage->remove(key);
    }
    m_storage->sync();
}

std::optional<QString> Settings::encoderOverride(const QString &directoryPath) const
{
    return readString(directoryKey(QLatin1String(kEncoderOverridePrefix), directoryPath));
}

void Settings::setEncoderOverride(const QString &directoryPath,
                                  const std::optional<QString> &uuidText)
{
    writeString(directoryKey(QLatin1String(kEncoderOverridePrefix), directoryPath), uuidText);
}

QByteArray Settings::trainingProfilesData() const
{
    return readData(QStringLiteral("trainingProfiles"));
}

void Settings::setTrainingProfilesData(const QByteArray &json)
{
    writeData(QStringLiteral("trainingProfiles"), json);
}

std::optional<QString> Settings::defaultTrainingProfile() const
{
    return readString(QStringLiteral("defaultTrainingProfile"));
}

void Settings::setDefaultTrainingProfile(const std::optional<QString> &uuidText)
{
    writeString(QStringLiteral("defaultTrainingProfile"), uuidText);
}

QVariant Settings::value(const QString &key) const
{
    return read(key);
}

void Settings::setValue(const QString &key, const QVariant &value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_storage->setValue(key, value);
}

void Settings::remove(const QString &key)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_storage->remove(key);
}

bool Settings::contains(const QString &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_storage->contains(key);
}

void Settings::sync()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_storage->sync();
}

std::optional<bool> appearanceIsDark(const QString &appearance, bool systemIsDark)
{
    if (appearance == QLatin1String("light")) {
        return false;
    }
    if (appearance == QLatin1String("dark")) {
        return true;
    }
    if (appearance == QLatin1String("opposite")) {
        return !systemIsDark;
    }
    return std::nullopt;
}
