/*
** preview_text.cpp -- decoding a file's bytes for the preview and finding a hit's words again.
*/
#include "preview_text.h"

#include "match_marks.h"

#include <QRegularExpression>
#include <QStringDecoder>
#include <QStringList>

#include <utility>

namespace
{

// Windows-1252: Latin-1 with printable characters in 0x80-0x9F.
QString fromWindows1252(const QByteArray &bytes)
{
    static const char16_t kHigh[32] = {
        0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
        0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
        0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};
    QString text(bytes.size(), Qt::Uninitialized);
    for (qsizetype i = 0; i < bytes.size(); i++) {
        const auto c = static_cast<unsigned char>(bytes.at(i));
        text[i] = (c >= 0x80 && c < 0xA0) ? QChar(kHigh[c - 0x80]) : QChar(c);
    }
    return text;
}

} // namespace

std::optional<QString> decodeText(const QByteArray &bytes)
{
    if (bytes.left(65536).contains('\0')) {
        return std::nullopt;
    }
    QStringDecoder utf8(QStringDecoder::Utf8);
    QString text = utf8.decode(bytes);
    if (!utf8.hasError()) {
        return text;
    }
    return fromWindows1252(bytes);
}

std::optional<QString> decodeHtml(const QByteArray &bytes)
{
    QStringDecoder declared = QStringDecoder::decoderForHtml(bytes);
    if (declared.isValid()) {
        QString text = declared.decode(bytes);
        if (!declared.hasError()) {
            return text;
        }
    }
    return decodeText(bytes);
}

QString snippetPattern(const QString &snippet, const QString &query, SearchMode mode, int count)
{
    const QStringList lines = snippet.split(QLatin1Char('\n'));
    QString chosen;
    for (const QString &line : lines) {
        if (!findQueryMatches(line, query, mode).isEmpty()) {
            chosen = line;
            break;
        }
        if (line.simplified().size() > chosen.simplified().size()) {
            chosen = line;
        }
    }
    QString text = chosen.simplified();
    const bool cut = text.startsWith(QChar(0x2026)) || text.startsWith(QLatin1String("..."));
    text.remove(QChar(0x2026));
    text.remove(QLatin1String("..."));
    QStringList words = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (cut && words.size() > 1) {
        words.removeFirst();
    }
    words = words.mid(0, count);
    for (QString &w : words) {
        w = QRegularExpression::escape(w);
    }
    return words.join(QStringLiteral("\\s+"));
}

QString renderedFragment(const QString &sourceLine, bool html)
{
    QString text = sourceLine;
    if (html) {
        static const QRegularExpression tag(QStringLiteral("<[^>]*>"));
        text.replace(tag, QStringLiteral(" "));
        const std::pair<const char *, const char *> entities[] = {{"&lt;", "<"},
                                                                  {"&gt;", ">"},
                                                                  {"&quot;", "\""},
                                                                  {"&#39;", "'"},
                                                                  {"&nbsp;", " "},
                                                                  {"&amp;", "&"}};
        for (const auto &[entity, character] : entities) {
            text.replace(QLatin1String(entity), QLatin1String(character));
        }
    } else {
        // Block marks at the start (headings, quotes, list bullets and numbers), links reduced
        // to their text, and the inline emphasis and code marks.
        static const QRegularExpression block(QStringLiteral("^\\s*([#>]+|[-*+]|\\d+[.)])\\s+"));
        static const QRegularExpression link(QStringLiteral("!?\\[([^\\]]*)\\]\\([^)]*\\)"));
        static const QRegularExpression marks(QStringLiteral("[*_`]+"));
        text.replace(block, QString());
        text.replace(link, QStringLiteral("\\1"));
        text.replace(marks, QString());
    }
    text = text.simplified();
    if (text.size() > 48) {
        const qsizetype space = text.lastIndexOf(QLatin1Char(' '), 48);
        text.truncate(space > 16 ? space : 48);
    }
    return text.size() >= 4 ? text : QString();
}
