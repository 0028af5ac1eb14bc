/*
** support_files.h -- where the programs and data that ship with Tarnwick are found.
**
** The trainers ("train_bpe", "trainer") and the built-in encoder ("default.tten") are support
** files. In the build tree they lie beside the executables (build/bin) or in build/share/tarnwick;
** once installed the trainers live in PREFIX/libexec/tarnwick and the data in
** PREFIX/share/tarnwick, while the application and tarnwick-cli are in PREFIX/bin. One lookup
** serves both layouts, so the application, the command line and the tests agree on every file.
*/
#ifndef TRN_APP_SUPPORT_FILES_H
#define TRN_APP_SUPPORT_FILES_H

#include <QString>
#include <QStringList>

// The directories searched for support files, in order, for an executable in executableDir:
// executableDir itself, then its ../libexec/tarnwick, then its ../share/tarnwick (the relative
// parts follow the install layout chosen when the project was configured).
QStringList supportDirectories(const QString &executableDir);

// The absolute path of the first existing file called name in supportDirectories(executableDir),
// or an empty string when none holds it. The second form searches from the running program's
// directory (QCoreApplication::applicationDirPath(), so a QCoreApplication must exist).
QString supportFilePath(const QString &name, const QString &executableDir);
QString supportFilePath(const QString &name);

#endif
