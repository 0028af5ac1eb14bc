/*
** file_info.cpp -- status texts, preview kinds, sizes in words, and a PDF hit's page.
*/
#include "file_info.h"

#include "text/files.h"

#include <QFile>

QString fileStatusText(const FileInfo &file)
{
    // UTF-8 is the rule and goes unsaid; a converted text says from what.
    const QString readAs = file.encoding.isEmpty() || file.encoding == QLatin1String("UTF-8")
                               ? QString()
                               : QStringLiteral(", read as ") + file.encoding;
    switch (file.status) {
    case TRN_FILE_STATUS_INDEXABLE:
        if (file.isChanged) {
            return QStringLiteral("Changed since indexing") + readAs;
        }
        if (file.isIndexed) {
            return (file.chunkCount == 1
                        ? QStringLiteral("Indexed (1 chunk)")
                        : QStringLiteral("Indexed (%1 chunks)").arg(file.chunkCount))
                   + readAs;
        }
        return QStringLiteral("Not indexed yet") + readAs;
    case TRN_FILE_STATUS_EXCLUDED:
        return QStringLiteral("Excluded by ") + file.reason;
    default:
        return QString::fromLatin1(trn_file_status_name(static_cast<TrnFileStatus>(file.status)));
    }
}

FileCategory fileCategory(const SearchResult &result)
{
    switch (file_type_by_name(QFile::encodeName(result.filePath).constData())) {
    case TRN_FILE_TYPE_PDF:
        return FileCategory::Pdf;
    case TRN_FILE_TYPE_HTML:
        return FileCategory::Html;
    case TRN_FILE_TYPE_MARKDOWN:
        return FileCategory::Markdown;
    case TRN_FILE_TYPE_DOCX:
    case TRN_FILE_TYPE_ODT:
    case TRN_FILE_TYPE_EPUB:
        return FileCategory::Document;
    default:
        return FileCategory::Plain;
    }
}

std::optional<int> pdfPageForLine(const QString &path, int lineNumber)
{
    const QByteArray file = QFile::encodeName(path);
    ExtractedText text;
    const TrnFileStatus status = extract_file_text(file.constData(), TRN_FILE_TYPE_PDF, 0, &text);
    std::optional<int> page;
    if (status == TRN_FILE_STATUS_INDEXABLE || status == TRN_FILE_STATUS_TOO_SHORT) {
        page = page_for_line(&text, lineNumber);
    }
    extracted_text_free(&text);
    return page;
}

QString formatFileSize(qint64 bytes)
{
    if (bytes >= 1048576) {
        return QString::asprintf("%.1f MB", double(bytes) / 1048576.0);
    }
    if (bytes > 1023) {
        return QString::asprintf("%.1f KB", double(bytes) / 1024.0);
    }
    return QString::number(bytes) + QStringLiteral(" B");
}
