/*
** directory_chooser.h -- the folder chooser used by "Open Directory…" and by the profile panel.
**
** The desktop's own folder dialog chooses one folder at a time, so the chooser uses Qt's dialog,
** whose list allows several folders to be selected at once.
*/
#ifndef TRN_UI_DIRECTORY_CHOOSER_H
#define TRN_UI_DIRECTORY_CHOOSER_H

#include <QString>
#include <QStringList>

class QWidget;

// Shows the chooser with a title; the chosen directories' absolute paths in the dialog's order,
// or an empty list when the user cancels.
QStringList chooseDirectories(QWidget *parent, const QString &title);

#endif
