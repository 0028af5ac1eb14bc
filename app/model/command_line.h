/*
** command_line.h -- what the application makes of its command line: the version it reports and
** the directories its arguments name.
**
** The desktop entry starts "tarnwick %F", so a file manager hands over folders and files alike
** (and some hand over file:// URLs). A folder opens as a tab; a file opens the folder that holds
** it, since a tab is a directory; anything else is reported and skipped.
*/
#ifndef TRN_APP_COMMAND_LINE_H
#define TRN_APP_COMMAND_LINE_H

#include <QString>
#include <QStringList>

// "1.23.0 (engine 1.23.0)": the application's version, set by the build from the project's
// version, and the engine's own trn_version().
QString versionText();

struct LaunchTargets {
    QStringList directories; // absolute, clean, each once, in the order first named
    QStringList unusable;    // the arguments that name nothing on disk, as given
};

// Resolves the positional arguments: a directory stands for itself, a file for its parent
// directory, a "file:" URL for its local path; relative paths are taken from the current
// directory.
LaunchTargets launchTargets(const QStringList &arguments);

#endif
