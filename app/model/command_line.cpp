/*
** command_line.cpp -- the application's version text and the directories its arguments name.
*/
#include "command_line.h"

#include "tarnwick.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

#ifndef TRN_VERSION
#error "TRN_VERSION must be set by the build (the project's version)"
#endif

QString versionText()
{
    return QStringLiteral(TRN_VERSION " (engine ") + QString::fromUtf8(trn_version())
           + QLatin1Char(')');
}

LaunchTargets launchTargets(const QStringList &arguments)
{
    LaunchTargets targets;
    for (const QString &argument : arguments) {
        QString path = argument;
        if (argument.startsWith(QLatin1String("file:"), Qt::CaseInsensitive)) {
            path = QUrl(argument).toLocalFile();
        }
        const QFileInfo info(path);
        QString directory;
        if (!path.isEmpty() && info.isDir()) {
            directory = info.absoluteFilePath();
        } else if (!path.isEmpty() && info.exists()) {
            directory = info.absolutePath();
        } else {
            targets.unusable.append(argument);
            continue;
        }
        directory = QDir::cleanPath(directory);
        if (!targets.directories.contains(directory)) {
            targets.directories.append(directory);
        }
    }
    return targets;
}
