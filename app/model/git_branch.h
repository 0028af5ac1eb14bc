/*
** git_branch.h -- the git branch a directory is on, shown beside its tab.
*/
#ifndef TRN_APP_GIT_BRANCH_H
#define TRN_APP_GIT_BRANCH_H

#include <QString>

// The branch checked out in the git repository holding path: the branch name, the first 7
// characters of a detached head's commit, or empty when there is no repository. Reads only
// ".git" (or the git directory a ".git" file names) and its HEAD; runs no git program.
QString detectGitBranch(const QString &path);

#endif
