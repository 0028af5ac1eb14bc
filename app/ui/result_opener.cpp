/*
** result_opener.cpp -- editor presets, splitting command lines, and opening files through the
** desktop with fall-backs.
*/
#include "result_opener.h"

#include "directory_state.h"
#include "settings.h"
#include "text/files.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QProcess>

namespace
{

DesktopServices &desktopOverride()
{
    static DesktopServices services;
    return services;
}

bool openUrl(const QUrl &url)
{
    if (desktopOverride().openUrl) {
        return desktopOverride().openUrl(url);
    }
    return QDesktopServices::openUrl(url);
}

bool startDetached(const QString &program, const QStringList &arguments)
{
    if (desktopOverride().startDetached) {
        return desktopOverride().startDetached(program, arguments);
    }
    return QProcess::startDetached(program, arguments);
}

QString defaultApplication(const QString &mimeType)
{
    if (desktopOverride().defaultApplication) {
        return desktopOverride().defaultApplication(mimeType);
    }
    // xdg-mime answers from the desktop's own association files in a few milliseconds; without
    // xdg-utils there is no answer, which reads as "no handler".
    QProcess process;
    process.start(QStringLiteral("xdg-mime"),
                  {QStringLiteral("query"), QStringLiteral("default"), mimeType});
    if (!process.waitForFinished(2000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        process.kill();
        return QString();
    }
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

QString fileName(const QString &path)
{
    return QFileInfo(path).fileName();
}

// Viewers that open a PDF at a page, by a word of their desktop entry id, with the option that
// names the page.
struct PdfViewer {
    const char *idWord;
    const char *program;
    const char *pageOption; // followed by the page as the next argument
};

constexpr PdfViewer kPdfViewers[] = {
    {"evince", "evince", "-i"},
    {"okular", "okular", "-p"},
    {"atril", "atril", "-i"},
    {"xreader", "xreader", "-i"},
    {"qpdfview", "qpdfview", nullptr}, // qpdfview FILE#PAGE
    {"zathura", "zathura", "-P"},
};

} // namespace

QList<EditorPreset> editorPresets()
{
    return {
        {QStringLiteral("system"), QStringLiteral("System default"), QString()},
        {QStringLiteral("code"),
         QStringLiteral("VS Code"),
         QStringLiteral("code -g {file}:{line}")},
        {QStringLiteral("kate"), QStringLiteral("Kate"), QStringLiteral("kate -l {line} {file}")},
        {QStringLiteral("gedit"), QStringLiteral("gedit"), QStringLiteral("gedit +{line} {file}")},
        {QStringLiteral("vim"),
         QStringLiteral("Vim (in a terminal)"),
         QStringLiteral("x-terminal-emulator -e vim +{line} {file}")},
        {QStringLiteral("nvim"),
         QStringLiteral("Neovim (in a terminal)"),
         QStringLiteral("x-terminal-emulator -e nvim +{line} {file}")},
        {QStringLiteral("emacs"),
         QStringLiteral("Emacs (emacsclient)"),
         QStringLiteral("emacsclient +{line} {file}")},
        {QStringLiteral("custom"), QStringLiteral("Custom command"), QString()},
    };
}

std::optional<EditorPreset> editorPreset(const QString &key)
{
    for (const EditorPreset &preset : editorPresets()) {
        if (preset.key == key) {
            return preset;
        }
    }
    return std::nullopt;
}

std::optional<QStringList> splitCommandLine(const QString &commandLine)
{
    QStringList arguments;
    QString current;
    bool inWord = false; // an argument has begun (possibly an empty one, as in '')
    enum class Quote { None, Single, Double } quote = Quote::None;
    const qsizetype n = commandLine.size();
    for (qsizetype i = 0; i < n; i++) {
        const QChar c = commandLine.at(i);
        if (quote == Quote::Single) {
            if (c == QLatin1Char('\'')) {
                quote = Quote::None;
            } else {
                current += c;
            }
            continue;
        }
        if (quote == Quote::Double) {
            if (c == QLatin1Char('"')) {
                quote = Quote::None;
            } else if (c == QLatin1Char('\\') && i + 1 < n
                       && QStringLiteral("\"\\$`").contains(commandLine.at(i + 1))) {
                current += commandLine.at(++i);
            } else {
                current += c;
            }
            continue;
        }
        if (c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n')) {
            if (inWord) {
                arguments.append(current);
                current.clear();
                inWord = false;
            }
            continue;
        }
        inWord = true;
        if (c == QLatin1Char('\'')) {
            quote = Quote::Single;
        } else if (c == QLatin1Char('"')) {
            quote = Quote::Double;
        } else if (c == QLatin1Char('\\')) {
            if (i + 1 >= n) {
                return std::nullopt;
            }
            current += commandLine.at(++i);
        } else {
            current += c;
        }
    }
    if (quote != Quote::None) {
        return std::nullopt;
    }
    if (inWord) {
        arguments.append(current);
    }
    return arguments;
}

std::optional<QStringList> editorArguments(const QString &command, const QString &file, int line)
{
    const std::optional<QStringList> words = splitCommandLine(command);
    if (!words || words->isEmpty()) {
        return std::nullopt;
    }
    const QString fileKey = QStringLiteral("{file}");
    const QString lineText = QString::number(line < 1 ? 1 : line);
    QStringList arguments;
    bool namesFile = false;
    for (const QString &word : *words) {
        namesFile = namesFile || word.contains(fileKey);
        // {line} first: a file name may itself hold the text "{line}".
        QString argument = word;
        argument.replace(QStringLiteral("{line}"), lineText);
        argument.replace(fileKey, file);
        arguments.append(argument);
    }
    if (!namesFile) {
        arguments.append(file);
    }
    return arguments;
}

std::optional<QStringList> pdfViewerArguments(const QString &desktopId, const QString &file,
                                              int page)
{
    const QString id = desktopId.toLower();
    const QString pageText = QString::number(page < 1 ? 1 : page);
    for (const PdfViewer &viewer : kPdfViewers) {
        if (!id.contains(QLatin1String(viewer.idWord))) {
            continue;
        }
        const QString program = QString::fromLatin1(viewer.program);
        if (!viewer.pageOption) {
            return QStringList{program, file + QLatin1Char('#') + pageText};
        }
        return QStringList{program, QString::fromLatin1(viewer.pageOption), pageText, file};
    }
    return std::nullopt;
}

void setDesktopServices(DesktopServices services)
{
    desktopOverride() = std::move(services);
}

QUrl editorLink(const QString &filePath, int lineNumber)
{
    // The characters a URL query may hold unescaped; everything else is percent-encoded.
    const QByteArray encoded = filePath.toUtf8().toPercentEncoding("!$&'()*+,/:;=?@");
    const QByteArray link = QByteArrayLiteral("vorn://open?file=") + encoded
                            + QByteArrayLiteral("&line=") + QByteArray::number(lineNumber);
    return QUrl::fromEncoded(link, QUrl::StrictMode);
}

OpenOutcome openWithDesktop(const OpenRequest &request)
{
    OpenOutcome outcome;
    if (request.filePath.isEmpty()) {
        return outcome;
    }
    const QUrl fileUrl = QUrl::fromLocalFile(request.filePath);
    QString note; // why the file did not open as asked, when it did not

    if (request.isPdf) {
        const std::optional<QStringList> viewer =
            pdfViewerArguments(defaultApplication(QStringLiteral("application/pdf")),
                               request.filePath,
                               request.pdfPage);
        if (viewer && startDetached(viewer->first(), viewer->mid(1))) {
            outcome.opened = true;
            return outcome;
        }
    } else if (request.isEditable) {
        const QString choice =
            request.editorChoice.isEmpty() ? QStringLiteral("system") : request.editorChoice;
        if (choice == QLatin1String("system")) {
            const QUrl link = editorLink(request.filePath, request.lineNumber);
            if (link.isValid()
                && !defaultApplication(QStringLiteral("x-scheme-handler/vorn")).isEmpty()
                && openUrl(link)) {
                outcome.opened = true;
                return outcome;
            }
        } else {
            const std::optional<EditorPreset> preset = editorPreset(choice);
            const QString command = choice == QLatin1String("custom") || !preset
                                        ? request.customCommand
                                        : preset->command;
            const std::optional<QStringList> arguments =
                editorArguments(command, request.filePath, request.lineNumber);
            if (!arguments) {
                note = QStringLiteral("The editor command cannot be read (see Settings)");
            } else if (startDetached(arguments->first(), arguments->mid(1))) {
                outcome.opened = true;
                return outcome;
            } else {
                note = QStringLiteral("Could not start \"%1\"").arg(arguments->first());
            }
        }
    }

    if (openUrl(fileUrl)) {
        outcome.opened = true;
        if (!note.isEmpty()) {
            outcome.message = note
                              + QStringLiteral("; opened %1 with the default application")
                                    .arg(fileName(request.filePath));
        }
        return outcome;
    }
    outcome.message = QStringLiteral("Could not open %1: no application is set up for it")
                          .arg(fileName(request.filePath));
    if (!note.isEmpty()) {
        outcome.message = note + QStringLiteral(", and ") + outcome.message.at(0).toLower()
                          + outcome.message.mid(1);
    }
    return outcome;
}

OpenOutcome openResult(const SearchResult &result, const Settings &settings)
{
    OpenRequest request;
    request.filePath = result.filePath;
    request.lineNumber = result.lineNumber;
    const TrnFileType type = file_type_by_name(QFile::encodeName(result.filePath).constData());
    request.isPdf = type == TRN_FILE_TYPE_PDF;
    // A name that says nothing (README.Debian, NEWS) was indexed as text: the editor opens it.
    request.isEditable =
        type == TRN_FILE_TYPE_TEXT || type == TRN_FILE_TYPE_SOURCE || type == TRN_FILE_TYPE_MARKDOWN
        || (type == TRN_FILE_TYPE_UNKNOWN && result.fileType == TRN_FILE_TYPE_TEXT);
    if (request.isPdf) {
        request.pdfPage = result.page > 0
                              ? result.page
                              : pdfPageForLine(result.filePath, result.lineNumber).value_or(1);
    }
    request.editorChoice = settings.openTextFilesWith();
    request.customCommand = settings.editorCommand();
    return openWithDesktop(request);
}

void openResult(const SearchResult &result, const Settings &settings, DirectoryState *state)
{
    const OpenOutcome outcome = openResult(result, settings);
    if (state && !outcome.message.isEmpty()) {
        state->setStatusText(outcome.message);
    }
}
