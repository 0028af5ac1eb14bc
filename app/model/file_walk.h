/*
** file_walk.h -- the application's walk of a directory tree, shared by indexing, the file list
** and the training corpus.
**
** It follows the rules of the engine's own walk (trn_ingest_dir): a symbolic link to a file is
** followed only when its resolved target lies inside the walked directory, a link to a directory
** is never entered, and every directory is entered once, remembered by device and inode, so
** link loops end, nothing outside the tree is read, and both walks give a file the same path.
*/
#ifndef TRN_APP_FILE_WALK_H
#define TRN_APP_FILE_WALK_H

#include <QList>
#include <QString>

// One regular file found by a walk.
struct WalkEntry {
    QString path;
    qint64 size;
};

// Every regular file below dir, depth first in name order. Names beginning with "." are skipped
// unless includeHidden. Returns false when dir itself cannot be read.
bool walkDirectory(const QString &dir, bool includeHidden, QList<WalkEntry> *out);

#endif // TRN_APP_FILE_WALK_H
