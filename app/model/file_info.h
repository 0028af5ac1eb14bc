/*
** file_info.h -- one file of a directory as the application shows it: its index state and why
** it is or is not indexed, which preview it gets, its size in words, and a PDF hit's page.
*/
#ifndef TRN_APP_FILE_INFO_H
#define TRN_APP_FILE_INFO_H

#include "search_results.h"
#include "tarnwick.h"

#include <QMetaType>
#include <QString>

#include <optional>

// One file of the directory (or one excluded or unreadable directory) with its index state.
struct FileInfo {
    QString id;       // the full path
    QString path;     // the full path
    QString name;     // last path component
    QString fileType; // trn_file_type_name, "Folder" for a directory, "" when not classified
    TrnFileType type = TRN_FILE_TYPE_UNKNOWN; // of a file; UNKNOWN for a directory
    qint64 fileSize = 0;
    int chunkCount = 0;
    bool isIndexed = false;   // chunkCount > 0
    bool isIndexable = false; // status is TRN_FILE_STATUS_INDEXABLE
    bool isChanged = false;   // indexed, and modified after the index was last written
    bool isDirectory = false;
    int status = TRN_FILE_STATUS_INDEXABLE; // a TrnFileStatus
    QString reason;   // the excluding rule, e.g. ".gitignore:3: build/"; else empty
    QString encoding; // the charset its text is read in ("UTF-8", "ISO-8859-1", ...); else empty

    bool operator==(const FileInfo &other) const = default;
};

// What the file scope view says of a file: "Indexed (N chunks)", "Changed since indexing",
// "Not indexed yet", "Excluded by <rule>", "Too large", "Binary", "Too short", "Unreadable";
// the first three followed by ", read as <charset>" for text converted from an older charset.
QString fileStatusText(const FileInfo &file);

// Which preview a result gets: Document for DOCX, ODT and EPUB (formatted text from their XML).
enum class FileCategory { Plain, Pdf, Html, Markdown, Document };

// The preview a result gets, by its file name.
FileCategory fileCategory(const SearchResult &result);

// The 1-based page of the PDF at path that holds line lineNumber of its extracted text
// (page_for_line of files.h); 1 for lineNumber < 1; nullopt when the file cannot be read.
std::optional<int> pdfPageForLine(const QString &path, int lineNumber);

// "1023 B", "1.0 KB", "1.0 MB".
QString formatFileSize(qint64 bytes);

Q_DECLARE_METATYPE(FileInfo)

#endif
