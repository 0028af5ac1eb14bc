/*
** directory_chooser.cpp -- a folder dialog with multiple selection.
*/
#include "directory_chooser.h"

#include <QAbstractItemView>
#include <QDir>
#include <QFileDialog>
#include <QListView>
#include <QTreeView>

QStringList chooseDirectories(QWidget *parent, const QString &title)
{
    QFileDialog dialog(parent, title, QDir::homePath());
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true);
    dialog.setLabelText(QFileDialog::Accept, QObject::tr("Open"));
    for (QAbstractItemView *view : dialog.findChildren<QAbstractItemView *>()) {
        if (qobject_cast<QListView *>(view) || qobject_cast<QTreeView *>(view)) {
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        }
    }
    if (dialog.exec() != QDialog::Accepted) {
        return {};
    }
    QStringList paths;
    for (const QString &path : dialog.selectedFiles()) {
        const QString absolute = QDir(path).absolutePath();
        if (QFileInfo(absolute).isDir() && !paths.contains(absolute)) {
            paths.append(absolute);
        }
    }
    return paths;
}
