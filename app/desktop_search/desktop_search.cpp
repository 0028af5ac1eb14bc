/*
** desktop_search.cpp -- the searches behind the desktop's search providers.
*/
#include "desktop_search.h"

#include "encoder_record.h"
#include "json_coding.h"
#include "result_opener.h"
#include "settings.h"
#include "training_manager.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>

namespace
{

bool hasIndex(const QString &folder)
{
    const QString dir = folder + QStringLiteral("/.tarnwick/");
    return QFileInfo::exists(dir + QStringLiteral("tarnwick.bin"))
           || QFileInfo::exists(dir + QStringLiteral("tarnwick.wal"));
}

} // namespace

DesktopSearch::DesktopSearch(Settings *settings, TrainingManager *training)
    : m_settings(settings), m_training(training)
{
}

QStringList DesktopSearch::openFolders()
{
    m_settings->sync(); // the application may have opened or closed tabs since the last call
    QStringList folders;
    for (const QString &path : m_settings->savedTabPaths()) {
        const QString clean = QDir::cleanPath(path);
        if (!folders.contains(clean) && hasIndex(clean)) {
            folders.append(clean);
        }
    }
    return folders;
}

IndexHandle *DesktopSearch::engineFor(const QString &folder, SearchMode *mode)
{
    const std::optional<QString> overrideText = m_settings->encoderOverride(folder);
    const QString weights = m_training->weightsPathFor(
        overrideText ? JsonCoding::uuidFromText(*overrideText) : QUuid());
    std::shared_ptr<Index> &index = m_indexes[folder];
    if (!index || index->weights != weights || !index->engine->isOpen()) {
        index = std::make_shared<Index>();
        index->weights = weights;
        index->engine = std::make_unique<IndexHandle>(folder, weights);
        index->mode =
            EncoderRecord::matches(folder, weights) ? SearchMode::Hybrid : SearchMode::Keyword;
    }
    *mode = index->mode;
    return index->engine->isOpen() ? index->engine.get() : nullptr;
}

QList<SearchResult> DesktopSearch::search(const QStringList &terms, int k)
{
    const QString query = terms.join(QLatin1Char(' ')).simplified();
    if (query.size() < kMinQueryLength) {
        return {};
    }
    // The folders are ranked as one (IndexHandle::searchAcross), in hybrid mode when every
    // index may be searched by meaning, else by words alone.
    QList<IndexHandle *> engines;
    SearchMode across = SearchMode::Hybrid;
    for (const QString &folder : openFolders()) {
        SearchMode mode = SearchMode::Hybrid;
        IndexHandle *engine = engineFor(folder, &mode);
        if (engine != nullptr) {
            engines.append(engine);
            across = mode == SearchMode::Keyword ? SearchMode::Keyword : across;
        }
    }
    return IndexHandle::searchAcross(engines, query, across, k, ResultLayout::ByFile);
}

QString DesktopSearch::idOf(const SearchResult &result)
{
    return QString::number(result.lineNumber) + QLatin1Char(':') + result.filePath;
}

bool DesktopSearch::parseId(const QString &id, QString *path, int *line)
{
    const qsizetype colon = id.indexOf(QLatin1Char(':'));
    bool ok = false;
    *line = colon > 0 ? id.left(colon).toInt(&ok) : 0;
    *path = colon > 0 ? id.mid(colon + 1) : QString();
    return ok && *line >= 1 && path->startsWith(QLatin1Char('/'));
}

bool DesktopSearch::open(const QString &id)
{
    SearchResult result;
    if (!parseId(id, &result.filePath, &result.lineNumber)) {
        return false;
    }
    // Only files of the open folders: the identifier comes over the bus from anyone.
    const QString file = QFileInfo(result.filePath).canonicalFilePath();
    bool inside = false;
    for (const QString &folder : openFolders()) {
        const QString root = QFileInfo(folder).canonicalFilePath();
        inside = inside || (!root.isEmpty() && file.startsWith(root + QLatin1Char('/')));
    }
    if (!inside) {
        return false;
    }
    result.fileType = TRN_FILE_TYPE_TEXT;
    return openResult(result, *m_settings).opened;
}

bool DesktopSearch::launchApplication(const QStringList &terms)
{
    // Found on PATH, as the desktop entry starts it; no shell, the words are one argument.
    return QProcess::startDetached(QStringLiteral("tarnwick"),
                                   {QStringLiteral("--query"), terms.join(QLatin1Char(' '))});
}
