/*
** file_walk.cpp -- the application's directory walk (see file_walk.h).
*/
#include "file_walk.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileInfoList>

#include <set>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace
{

using DirKey = std::pair<dev_t, ino_t>;

// The directory's (device, inode), following links; false when it cannot be read.
bool dirKey(const QString &path, DirKey *key)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) {
        return false;
    }
    *key = DirKey(st.st_dev, st.st_ino);
    return true;
}

// path, with every link resolved, is root or below it. root is canonical.
bool staysInside(const QString &canonicalRoot, const QFileInfo &info)
{
    const QString target = info.canonicalFilePath(); // empty for a dangling link or a loop
    if (target.isEmpty()) {
        return false;
    }
    if (canonicalRoot == QLatin1String("/")) {
        return true;
    }
    return target == canonicalRoot || target.startsWith(canonicalRoot + QLatin1Char('/'));
}

} // namespace

bool walkDirectory(const QString &dir, bool includeHidden, QList<WalkEntry> *out)
{
    QDir root(dir);
    if (!root.exists() || !root.isReadable()) {
        return false;
    }
    const QString canonicalRoot = QFileInfo(dir).canonicalFilePath();
    DirKey rootKey;
    if (canonicalRoot.isEmpty() || !dirKey(dir, &rootKey)) {
        return false;
    }
    std::set<DirKey> visited{rootKey};
    // A stack of directories; each directory's entries are visited in name order, and a
    // subdirectory is entered before the entries that follow it.
    struct Frame {
        QFileInfoList entries;
        qsizetype next;
    };
    std::vector<Frame> stack;
    QDir::Filters filters = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System;
    if (includeHidden) {
        filters |= QDir::Hidden;
    }
    stack.push_back(Frame{QDir(root.absolutePath()).entryInfoList(filters, QDir::Name), 0});
    while (!stack.empty()) {
        Frame &top = stack.back();
        if (top.next >= top.entries.size()) {
            stack.pop_back();
            continue;
        }
        const QFileInfo info = top.entries.at(top.next++);
        if (!includeHidden && info.fileName().startsWith(QLatin1Char('.'))) {
            continue;
        }
        // A link to a directory is never entered: inside the tree it names a directory the walk
        // reaches under its own name, outside it leads away or into a loop.
        if (info.isSymLink() && (info.isDir() || !staysInside(canonicalRoot, info))) {
            continue;
        }
        if (info.isDir()) {
            DirKey key;
            if (dirKey(info.filePath(), &key) && visited.insert(key).second) {
                stack.push_back(Frame{QDir(info.filePath()).entryInfoList(filters, QDir::Name), 0});
            }
            continue;
        }
        if (info.isFile()) {
            out->append(WalkEntry{info.filePath(), info.size()});
        }
    }
    return true;
}
