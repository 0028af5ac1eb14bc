/*
** support_files.cpp -- the lookup of the trainers and the built-in encoder.
*/
#include "support_files.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

// From the directory of the executables to the trainers' and the data's directories; set by the
// build from the install layout (GNUInstallDirs), "../libexec/tarnwick" and "../share/tarnwick"
// by default.
#ifndef TRN_LIBEXEC_FROM_BIN
#define TRN_LIBEXEC_FROM_BIN "../libexec/tarnwick"
#endif
#ifndef TRN_DATA_FROM_BIN
#define TRN_DATA_FROM_BIN "../share/tarnwick"
#endif

QStringList supportDirectories(const QString &executableDir)
{
    const QDir dir(executableDir);
    return {QDir::cleanPath(dir.absolutePath()),
            QDir::cleanPath(dir.absoluteFilePath(QStringLiteral(TRN_LIBEXEC_FROM_BIN))),
            QDir::cleanPath(dir.absoluteFilePath(QStringLiteral(TRN_DATA_FROM_BIN)))};
}

QString supportFilePath(const QString &name, const QString &executableDir)
{
    if (name.isEmpty() || executableDir.isEmpty()) {
        return QString();
    }
    for (const QString &dir : supportDirectories(executableDir)) {
        const QFileInfo info(dir + QLatin1Char('/') + name);
        if (info.isFile()) {
            return info.absoluteFilePath();
        }
    }
    return QString();
}

QString supportFilePath(const QString &name)
{
    return supportFilePath(name, QCoreApplication::applicationDirPath());
}
