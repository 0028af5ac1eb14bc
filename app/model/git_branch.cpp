/*
** git_branch.cpp -- reads the checked-out branch from a repository's HEAD file.
*/
#include "git_branch.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <optional>

namespace
{

std::optional<QString> readTrimmedText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return QString::fromUtf8(file.readAll()).trimmed();
}

} // namespace

QString detectGitBranch(const QString &path)
{
    QString dir = QDir::cleanPath(path);
    QString gitDir;
    while (!dir.isEmpty() && dir != QLatin1String("/")) {
        const QFileInfo dotGit(dir + QStringLiteral("/.git"));
        if (dotGit.exists()) {
            if (dotGit.isDir()) {
                gitDir = dotGit.filePath();
            } else {
                // A worktree or submodule: ".git" is a file naming the git directory.
                const std::optional<QString> content = readTrimmedText(dotGit.filePath());
                const QString prefix = QStringLiteral("gitdir: ");
                if (!content || !content->startsWith(prefix)) {
                    return QString();
                }
                gitDir = content->mid(prefix.size()).trimmed();
            }
            break;
        }
        const qsizetype slash = dir.lastIndexOf(QLatin1Char('/'));
        if (slash < 0) {
            dir.clear();
        } else if (slash == 0) {
            dir = QStringLiteral("/");
        } else {
            dir = dir.left(slash);
        }
    }
    if (gitDir.isEmpty()) {
        return QString();
    }
    const std::optional<QString> head = readTrimmedText(gitDir + QStringLiteral("/HEAD"));
    if (!head) {
        return QString();
    }
    const QString refPrefix = QStringLiteral("ref: refs/heads/");
    if (head->startsWith(refPrefix)) {
        return head->mid(refPrefix.size());
    }
    return head->size() >= 7 ? head->left(7) : QString();
}
