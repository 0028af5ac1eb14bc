/*
** result_opener.h -- how a search result is opened in another program.
**
** Text, source code and Markdown open in the editor chosen under "Open text files with": a
** preset that takes a line number (VS Code, Kate, gedit, Vim or Neovim in a terminal, Emacs), a
** custom command with {file} and {line}, or "System default". A command is split into an
** argument list here and started directly (QProcess::startDetached), never through a shell, so
** no file name can run anything.
**
** "System default" uses the editor link "vorn://open?file=...&line=..." only when a handler for
** the "vorn" scheme is registered with the desktop (xdg-mime); otherwise, and whenever a command
** or a link fails, the file opens with the desktop's default application. PDFs open at the hit's
** page when the default PDF viewer is one that takes a page (evince, okular, atril, xreader,
** qpdfview, zathura), else plainly.
**
** The functions that build commands are pure; the three desktop services they end in can be
** replaced for tests (setDesktopServices).
*/
#ifndef TRN_APP_RESULT_OPENER_H
#define TRN_APP_RESULT_OPENER_H

#include "search_results.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

class DirectoryState;
class Settings;

// One choice of "Open text files with".
struct EditorPreset {
    QString key;     // the stored value of "openTextFilesWith"
    QString label;   // what the settings window shows
    QString command; // with {file} and {line}; empty for "system" and "custom"
};

// "system", "code", "kate", "gedit", "vim", "nvim", "emacs", "custom", in that order.
QList<EditorPreset> editorPresets();
// The preset with that key, or nullopt.
std::optional<EditorPreset> editorPreset(const QString &key);

// Splits a command line into arguments the way a POSIX shell splits words, and does nothing
// else (no variables, globs or redirections): blanks separate arguments; '...' keeps everything
// inside as it is; "..." keeps everything but lets \" \\ \$ \` stand for the character; outside
// quotes a backslash takes the next character as it is. nullopt for an unclosed quote or a
// trailing backslash; an empty list for a blank line.
std::optional<QStringList> splitCommandLine(const QString &commandLine);

// The argument list that opens file at line with command: the command is split first, then
// {file} and {line} are replaced inside each argument, so a path with blanks or quotes stays one
// argument. A command without {file} gets the file as its last argument. nullopt when the
// command is blank or cannot be split.
std::optional<QStringList> editorArguments(const QString &command, const QString &file, int line);

// The argument list that opens file at page in the PDF viewer named by its desktop entry id
// (what `xdg-mime query default application/pdf` prints), or nullopt when that viewer is not one
// known to take a page.
std::optional<QStringList> pdfViewerArguments(const QString &desktopId, const QString &file,
                                              int page);

// What the desktop does for the opener. Empty members fall back to the real services.
struct DesktopServices {
    // QDesktopServices::openUrl.
    std::function<bool(const QUrl &url)> openUrl;
    // QProcess::startDetached(program, arguments).
    std::function<bool(const QString &program, const QStringList &arguments)> startDetached;
    // The desktop entry id of the default application for a MIME type, or "" when none
    // (`xdg-mime query default TYPE`).
    std::function<QString(const QString &mimeType)> defaultApplication;
};

// Replaces the desktop services (tests). A default-constructed value restores the real ones.
void setDesktopServices(DesktopServices services);

// The result of one attempt to open a file.
struct OpenOutcome {
    bool opened = false;
    QString message; // for the status bar: empty when it opened as asked
};

// How a result should be opened; what openResult hands over.
struct OpenRequest {
    QString filePath;
    int lineNumber = 1;
    bool isPdf = false;
    bool isEditable = false; // plain text, source code, Markdown
    int pdfPage = 1;         // for PDFs
    QString editorChoice;    // "openTextFilesWith"
    QString customCommand;   // "editorCommand"
};

// Opens as described above. Runs on the main thread; asking xdg-mime takes a few milliseconds.
OpenOutcome openWithDesktop(const OpenRequest &request);

// The editor link of "System default": "vorn://open?file=<path>&line=<n>", the path
// percent-encoded except for the characters a URL query may hold.
QUrl editorLink(const QString &filePath, int lineNumber);

// Opens a result as described above with the editor chosen in settings: plain text, source code
// and Markdown in the editor at the line, PDFs at the hit's page, everything else with the
// default application. The outcome's message is for the status bar.
OpenOutcome openResult(const SearchResult &result, const Settings &settings);
// openResult, with the message (a fall-back or a failure) told in state's status text.
void openResult(const SearchResult &result, const Settings &settings, DirectoryState *state);

#endif
