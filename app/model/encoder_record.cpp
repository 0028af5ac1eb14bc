/*
** encoder_record.cpp -- the record of which encoder built an index (encoder_record.h).
*/
#include "encoder_record.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSaveFile>

#include <mutex>

namespace EncoderRecord
{

QString identity(const QString &weightsPath)
{
    static std::mutex cacheMutex;
    static QHash<QString, QString> cache; // guarded by cacheMutex
    const QFileInfo info(weightsPath);
    if (weightsPath.isEmpty() || !info.isFile()) {
        return QStringLiteral("untrained");
    }
    const QString key = info.absoluteFilePath() + QLatin1Char('\n') + QString::number(info.size())
                        + QLatin1Char('\n')
                        + QString::number(info.lastModified().toMSecsSinceEpoch());
    {
        std::lock_guard<std::mutex> lock(cacheMutex);
        const auto found = cache.constFind(key);
        if (found != cache.constEnd()) {
            return *found;
        }
    }
    QFile file(weightsPath);
    QCryptographicHash hash(QCryptographicHash::Sha1);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file)) {
        return QStringLiteral("untrained");
    }
    const QString id = QStringLiteral("sha1 ") + QString::fromLatin1(hash.result().toHex())
                       + QStringLiteral(" embedding 2");
    std::lock_guard<std::mutex> lock(cacheMutex);
    cache.insert(key, id);
    return id;
}

QString path(const QString &directoryPath)
{
    return directoryPath + QStringLiteral("/.tarnwick/encoder");
}

bool matches(const QString &directoryPath, const QString &weightsPath)
{
    QFile file(path(directoryPath));
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    return QString::fromLatin1(file.read(256)).trimmed() == identity(weightsPath);
}

bool write(const QString &directoryPath, const QString &weightsPath)
{
    // QSaveFile writes through a link to its target; a link here was planted, so it goes.
    if (QFileInfo(path(directoryPath)).isSymLink()) {
        QFile::remove(path(directoryPath));
    }
    QSaveFile file(path(directoryPath));
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    file.write(identity(weightsPath).toLatin1() + '\n');
    if (!file.commit()) {
        return false;
    }
    // Like every file of the index directory, readable by its owner alone.
    return QFile::setPermissions(path(directoryPath), QFile::ReadOwner | QFile::WriteOwner);
}

} // namespace EncoderRecord
