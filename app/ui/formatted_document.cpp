/*
** formatted_document.cpp -- reading DOCX, ODT and EPUB files into a formatted QTextDocument.
**
** A walk over each format's XML feeds one BlockWriter, which builds the blocks and counts lines
** as the index's extraction does: a paragraph's text is one line (more with forced breaks), a
** paragraph without text is no line, and in HTML runs of white space are one space.
*/
#include "formatted_document.h"

#include "text/files.h"

#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>

#include <cstring>
#include <optional>

#include <libxml/HTMLparser.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strings.h>
#include <zip.h>

namespace
{

// A member larger than this, uncompressed, is not read: a small archive must not expand into
// gigabytes in the preview.
constexpr zip_uint64_t kMemberMax = 64ull * 1024 * 1024;

// ---- containers and XML ----

struct ZipCloser {
    void operator()(zip_t *z) const { zip_discard(z); }
};
using ZipHandle = std::unique_ptr<zip_t, ZipCloser>;

struct XmlDocFree {
    void operator()(xmlDoc *d) const { xmlFreeDoc(d); }
};
using XmlHandle = std::unique_ptr<xmlDoc, XmlDocFree>;

std::optional<QByteArray> zipMember(zip_t *z, const QByteArray &name)
{
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat(z, name.constData(), 0, &st) != 0 || !(st.valid & ZIP_STAT_SIZE)
        || st.size > kMemberMax) {
        return std::nullopt;
    }
    zip_file_t *file = zip_fopen(z, name.constData(), 0);
    if (!file) {
        return std::nullopt;
    }
    QByteArray bytes(qsizetype(st.size), Qt::Uninitialized);
    const zip_int64_t got = zip_fread(file, bytes.data(), st.size);
    zip_fclose(file);
    if (got < 0 || zip_uint64_t(got) != st.size) {
        return std::nullopt;
    }
    return bytes;
}

XmlHandle parseXml(const QByteArray &bytes)
{
    return XmlHandle(xmlReadMemory(bytes.constData(),
                                   int(bytes.size()),
                                   nullptr,
                                   nullptr,
                                   XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING
                                       | XML_PARSE_RECOVER));
}

XmlHandle parseHtml(const QByteArray &bytes)
{
    // As the index reads it: UTF-8 when the bytes are valid UTF-8, else the declared charset.
    QStringDecoder utf8(QStringDecoder::Utf8);
    (void)utf8.decode(bytes);
    return XmlHandle(htmlReadMemory(bytes.constData(),
                                    int(bytes.size()),
                                    nullptr,
                                    utf8.hasError() ? nullptr : "UTF-8",
                                    HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING
                                        | HTML_PARSE_NONET));
}

bool isNamed(const xmlNode *n, const char *name)
{
    return n->type == XML_ELEMENT_NODE && n->name
           && strcasecmp(reinterpret_cast<const char *>(n->name), name) == 0;
}

QString attribute(const xmlNode *n, const char *name)
{
    for (const xmlAttr *a = n->properties; a; a = a->next) {
        if (a->name && strcmp(reinterpret_cast<const char *>(a->name), name) == 0 && a->children
            && a->children->content) {
            return QString::fromUtf8(reinterpret_cast<const char *>(a->children->content));
        }
    }
    return QString();
}

QString content(const xmlNode *n)
{
    return n->content ? QString::fromUtf8(reinterpret_cast<const char *>(n->content)) : QString();
}

const xmlNode *firstElement(const xmlNode *node, const char *name)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (isNamed(n, name)) {
            return n;
        }
        if (n->type == XML_ELEMENT_NODE) {
            if (const xmlNode *inner = firstElement(n->children, name)) {
                return inner;
            }
        }
    }
    return nullptr;
}

const xmlNode *childElement(const xmlNode *parent, const char *name)
{
    for (const xmlNode *n = parent ? parent->children : nullptr; n; n = n->next) {
        if (isNamed(n, name)) {
            return n;
        }
    }
    return nullptr;
}

// ---- the writer ----

class BlockWriter
{
public:
    explicit BlockWriter(QTextDocument *document) : m_cursor(document) {}

    // The next block with text becomes a heading of that level (1-6) or a list item; an inner
    // plain paragraph keeps what an outer element asked for (<li><p>...).
    void request(int headingLevel, bool listItem)
    {
        m_nextLevel = qMax(m_nextLevel, headingLevel);
        m_nextList = m_nextList || listItem;
    }
    // Forgets a request that no text took up (an empty heading).
    void dropRequest()
    {
        m_nextLevel = 0;
        m_nextList = false;
    }

    // Text of a paragraph. collapse: runs of white space are one space, none at a line's start
    // (HTML); else the text is taken as it stands (DOCX, ODT).
    void addText(const QString &text, bool collapse)
    {
        QString out;
        out.reserve(text.size());
        for (const QChar c : text) {
            if (collapse && (c.isSpace() || c == QChar(0xA0))) {
                m_pendingSpace = true;
                continue;
            }
            if (m_pendingSpace && (m_lineHasText || !out.isEmpty()) && !m_lastWasSpace) {
                out += QLatin1Char(' ');
            }
            m_pendingSpace = false;
            out += c;
            m_lastWasSpace = c == QLatin1Char(' ') || c == QLatin1Char('\t');
        }
        if (out.isEmpty()) {
            return;
        }
        m_lineHasText = true;
        if (!m_open) {
            if (out.trimmed().isEmpty()) {
                return; // white space between paragraphs: a line for the index, nothing to show
            }
            openBlock();
        }
        if (m_cursor.block().userState() < 0) {
            m_cursor.block().setUserState(m_linesDone + 1);
        }
        QTextCharFormat format = m_blockCharFormat;
        if (m_bold > 0) {
            format.setFontWeight(QFont::Bold);
        }
        if (m_italic > 0) {
            format.setFontItalic(true);
        }
        m_cursor.insertText(out, format);
    }

    // A forced line break. counted: it is a line of its own for the index even on an empty line
    // (DOCX, ODT); else it only ends a line that has text (HTML's <br>).
    void breakLine(bool counted)
    {
        if (counted || m_lineHasText) {
            m_linesDone++;
        }
        m_lineHasText = false;
        m_pendingSpace = false;
        m_lastWasSpace = false;
        if (m_open) {
            m_cursor.insertText(QString(QChar::LineSeparator));
        }
    }

    // Ends the paragraph, and the index's line when it has text.
    void endBlock()
    {
        if (m_lineHasText) {
            m_linesDone++;
        }
        m_lineHasText = false;
        m_pendingSpace = false;
        m_lastWasSpace = false;
        m_open = false;
    }

    // A line the index holds that the preview does not show (a chapter's <title>).
    void hiddenLine(const QString &text)
    {
        endBlock();
        if (!text.trimmed().isEmpty()) {
            m_linesDone++;
        }
    }

    // Bold and italic nest: +1 where an element turns them on, -1 where it ends.
    void emphasis(int bold, int italic)
    {
        m_bold += bold;
        m_italic += italic;
    }

private:
    void openBlock()
    {
        QTextBlockFormat block;
        block.setBottomMargin(6);
        m_blockCharFormat = QTextCharFormat();
        if (m_nextLevel > 0) {
            const int level = qMin(m_nextLevel, 6);
            block.setHeadingLevel(level);
            block.setTopMargin(m_started ? 14 : 0);
            // As QTextDocument sizes <h1>..<h6>.
            static const int kAdjustment[] = {3, 2, 1, 0, -1, -2};
            m_blockCharFormat.setProperty(QTextFormat::FontSizeAdjustment, kAdjustment[level - 1]);
            m_blockCharFormat.setFontWeight(QFont::Bold);
        } else if (m_nextList) {
            block.setIndent(1);
            block.setBottomMargin(3);
        }
        if (m_started) {
            m_cursor.insertBlock(block, m_blockCharFormat);
        } else {
            m_cursor.setBlockFormat(block);
            m_cursor.setBlockCharFormat(m_blockCharFormat);
        }
        m_cursor.block().setUserState(-1);
        if (m_nextList && m_nextLevel == 0) {
            m_cursor.insertText(QStringLiteral("\u2022  "), m_blockCharFormat);
        }
        m_started = true;
        m_open = true;
        dropRequest();
    }

    QTextCursor m_cursor;
    QTextCharFormat m_blockCharFormat;
    bool m_started = false; // a block has been written
    bool m_open = false;    // the last block takes more text
    int m_nextLevel = 0;
    bool m_nextList = false;
    int m_bold = 0;
    int m_italic = 0;
    int m_linesDone = 0;        // lines of the index's text completed so far
    bool m_lineHasText = false; // the index's current line has text
    bool m_pendingSpace = false;
    bool m_lastWasSpace = false;
};

// ---- DOCX ----

// The heading level (0 for none) of each paragraph style of word/styles.xml.
QHash<QString, int> docxStyleLevels(const xmlNode *root)
{
    struct Style {
        QString basedOn;
        int level = -1; // -1: not said, look at the style it is based on
    };
    static const QRegularExpression headingName(QStringLiteral("^heading\\s*([1-9])$"),
                                                QRegularExpression::CaseInsensitiveOption);
    QHash<QString, Style> styles;
    for (const xmlNode *n = root ? root->children : nullptr; n; n = n->next) {
        if (!isNamed(n, "style")) {
            continue;
        }
        Style style;
        const QString id = attribute(n, "styleId");
        if (const xmlNode *based = childElement(n, "basedOn")) {
            style.basedOn = attribute(based, "val");
        }
        const xmlNode *outline = childElement(childElement(n, "pPr"), "outlineLvl");
        const QString name =
            childElement(n, "name") ? attribute(childElement(n, "name"), "val") : QString();
        const QRegularExpressionMatch m = headingName.match(name);
        if (outline) {
            const int value = attribute(outline, "val").toInt();
            style.level = value < 9 ? value + 1 : 0;
        } else if (m.hasMatch()) {
            style.level = m.captured(1).toInt();
        } else if (name.compare(QLatin1String("Title"), Qt::CaseInsensitive) == 0) {
            style.level = 1;
        }
        styles.insert(id, style);
    }
    QHash<QString, int> levels;
    for (auto it = styles.cbegin(); it != styles.cend(); ++it) {
        Style s = it.value();
        for (int depth = 0; s.level < 0 && depth < 16 && styles.contains(s.basedOn); depth++) {
            s = styles.value(s.basedOn);
        }
        levels.insert(it.key(), qMax(0, s.level));
    }
    return levels;
}

bool docxOn(const xmlNode *toggle)
{
    const QString value = attribute(toggle, "val");
    return value.isEmpty() || (value != QLatin1String("0") && value != QLatin1String("false"));
}

void docxWalk(const xmlNode *node, BlockWriter &out, const QHash<QString, int> &levels)
{
    static const QRegularExpression headingId(QStringLiteral("^Heading([1-9])$"));
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (isNamed(n, "t")) {
            for (const xmlNode *c = n->children; c; c = c->next) {
                if (c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) {
                    out.addText(content(c), false);
                }
            }
        } else if (isNamed(n, "tab")) {
            out.addText(QStringLiteral("\t"), false);
        } else if (isNamed(n, "br") || isNamed(n, "cr")) {
            out.breakLine(true);
        } else if (isNamed(n, "p")) {
            const xmlNode *props = childElement(n, "pPr");
            int level = 0;
            if (const xmlNode *style = childElement(props, "pStyle")) {
                const QString id = attribute(style, "val");
                level = levels.value(id, 0);
                const QRegularExpressionMatch m = headingId.match(id);
                if (level == 0 && !levels.contains(id) && m.hasMatch()) {
                    level = m.captured(1).toInt();
                }
            }
            if (const xmlNode *outline = childElement(props, "outlineLvl")) {
                const int value = attribute(outline, "val").toInt();
                level = value < 9 ? value + 1 : 0;
            }
            out.request(level, childElement(props, "numPr") != nullptr);
            docxWalk(n->children, out, levels);
            out.endBlock();
            out.dropRequest();
        } else if (isNamed(n, "r")) {
            const xmlNode *props = childElement(n, "rPr");
            const xmlNode *bold = childElement(props, "b");
            const xmlNode *italic = childElement(props, "i");
            const int b = bold && docxOn(bold) ? 1 : 0;
            const int i = italic && docxOn(italic) ? 1 : 0;
            out.emphasis(b, i);
            docxWalk(n->children, out, levels);
            out.emphasis(-b, -i);
        } else if (!isNamed(n, "delText") && !isNamed(n, "instrText") && !isNamed(n, "pPr")
                   && !isNamed(n, "rPr")) {
            docxWalk(n->children, out, levels);
        }
    }
}

bool readDocx(zip_t *z, BlockWriter &out)
{
    const std::optional<QByteArray> body = zipMember(z, "word/document.xml");
    if (!body) {
        return false;
    }
    QHash<QString, int> levels;
    if (const std::optional<QByteArray> styles = zipMember(z, "word/styles.xml")) {
        const XmlHandle doc = parseXml(*styles);
        if (doc) {
            levels = docxStyleLevels(xmlDocGetRootElement(doc.get()));
        }
    }
    const XmlHandle doc = parseXml(*body);
    const xmlNode *start = doc ? firstElement(xmlDocGetRootElement(doc.get()), "body") : nullptr;
    if (!start) {
        return false;
    }
    docxWalk(start->children, out, levels);
    return true;
}

// ---- ODT ----

void odtWalk(const xmlNode *node, BlockWriter &out)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) {
            out.addText(content(n), false);
            continue;
        }
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (isNamed(n, "s")) {
            const QString count = attribute(n, "c");
            out.addText(QString(qBound(1, count.isEmpty() ? 1 : count.toInt(), 1000), ' '), false);
        } else if (isNamed(n, "tab")) {
            out.addText(QStringLiteral("\t"), false);
        } else if (isNamed(n, "line-break")) {
            out.breakLine(true);
        } else if (isNamed(n, "h") || isNamed(n, "p")) {
            const QString level = attribute(n, "outline-level");
            out.request(isNamed(n, "h") ? qBound(1, level.isEmpty() ? 1 : level.toInt(), 6) : 0,
                        false);
            odtWalk(n->children, out);
            out.endBlock();
            out.dropRequest();
        } else if (isNamed(n, "list-item")) {
            out.request(0, true);
            odtWalk(n->children, out);
            out.dropRequest();
        } else if (!isNamed(n, "annotation") && !isNamed(n, "note-citation")) {
            odtWalk(n->children, out);
        }
    }
}

bool readOdt(zip_t *z, BlockWriter &out)
{
    const std::optional<QByteArray> bytes = zipMember(z, "content.xml");
    const XmlHandle doc = bytes ? parseXml(*bytes) : XmlHandle();
    const xmlNode *start = doc ? firstElement(xmlDocGetRootElement(doc.get()), "body") : nullptr;
    if (!start) {
        return false;
    }
    odtWalk(start->children, out);
    return true;
}

// ---- EPUB ----

HtmlElementKind kindOf(const xmlNode *n)
{
    return html_element_kind(reinterpret_cast<const char *>(n->name));
}

QString textOf(const xmlNode *node)
{
    QString text;
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) {
            text += content(n);
        } else if (n->type == XML_ELEMENT_NODE) {
            text += textOf(n->children);
        }
    }
    return text;
}

void htmlWalk(const xmlNode *node, BlockWriter &out, bool inPre)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) {
            out.addText(content(n), !inPre);
            continue;
        }
        if (n->type != XML_ELEMENT_NODE || kindOf(n) == HTML_ELEMENT_SKIPPED) {
            continue;
        }
        if (isNamed(n, "head")) {
            for (const xmlNode *c = n->children; c; c = c->next) {
                if (isNamed(c, "title")) {
                    out.hiddenLine(textOf(c->children).simplified());
                }
            }
            continue;
        }
        if (isNamed(n, "br")) {
            out.breakLine(false);
            continue;
        }
        const bool block = kindOf(n) == HTML_ELEMENT_BLOCK;
        if (block) {
            out.endBlock();
            const QByteArray name = reinterpret_cast<const char *>(n->name);
            const bool heading = name.size() == 2 && (name[0] == 'h' || name[0] == 'H')
                                 && name[1] >= '1' && name[1] <= '6';
            out.request(heading ? name[1] - '0' : 0, isNamed(n, "li"));
        } else if (isNamed(n, "td") || isNamed(n, "th")) {
            out.addText(QStringLiteral(" "), true);
        }
        const int bold = isNamed(n, "b") || isNamed(n, "strong") ? 1 : 0;
        const int italic = isNamed(n, "i") || isNamed(n, "em") ? 1 : 0;
        out.emphasis(bold, italic);
        htmlWalk(n->children, out, inPre || isNamed(n, "pre"));
        out.emphasis(-bold, -italic);
        if (block) {
            out.endBlock();
            out.dropRequest();
        }
    }
}

bool readEpub(zip_t *z, BlockWriter &out)
{
    const std::optional<QByteArray> container = zipMember(z, "META-INF/container.xml");
    const XmlHandle containerDoc = container ? parseXml(*container) : XmlHandle();
    const xmlNode *rootfile =
        containerDoc ? firstElement(xmlDocGetRootElement(containerDoc.get()), "rootfile") : nullptr;
    const QByteArray opfName = rootfile ? attribute(rootfile, "full-path").toUtf8() : QByteArray();
    const std::optional<QByteArray> opf = opfName.isEmpty() ? std::nullopt : zipMember(z, opfName);
    const XmlHandle opfDoc = opf ? parseXml(*opf) : XmlHandle();
    if (!opfDoc) {
        return false;
    }
    // Chapter hrefs are relative to the package document's folder.
    const QByteArray folder = opfName.left(opfName.lastIndexOf('/') + 1);
    const xmlNode *root = xmlDocGetRootElement(opfDoc.get());
    const xmlNode *manifest = firstElement(root, "manifest");
    const xmlNode *spine = firstElement(root, "spine");
    QHash<QString, QByteArray> hrefs;
    for (const xmlNode *item = manifest ? manifest->children : nullptr; item; item = item->next) {
        if (item->type == XML_ELEMENT_NODE) {
            hrefs.insert(attribute(item, "id"), attribute(item, "href").toUtf8());
        }
    }
    bool any = false;
    for (const xmlNode *ref = spine ? spine->children : nullptr; ref; ref = ref->next) {
        if (ref->type != XML_ELEMENT_NODE) {
            continue;
        }
        QByteArray href = hrefs.value(attribute(ref, "idref"));
        if (href.isEmpty()) {
            continue;
        }
        href = href.left(href.indexOf('#') < 0 ? href.size() : href.indexOf('#'));
        const std::optional<QByteArray> chapter =
            zipMember(z, QByteArray::fromPercentEncoding(folder + href));
        const XmlHandle html = chapter ? parseHtml(*chapter) : XmlHandle();
        if (!html) {
            continue;
        }
        htmlWalk(xmlDocGetRootElement(html.get()), out, false);
        out.endBlock();
        any = true;
    }
    return any;
}

} // namespace

bool readFormattedDocument(const QString &path, QTextDocument *document)
{
    document->clear();
    int error = 0;
    ZipHandle z(zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY, &error));
    if (!z) {
        return false;
    }
    BlockWriter out(document);
    bool ok = false;
    if (zip_name_locate(z.get(), "word/document.xml", 0) >= 0) {
        ok = readDocx(z.get(), out);
    } else if (zip_name_locate(z.get(), "content.xml", 0) >= 0) {
        ok = readOdt(z.get(), out);
    } else if (zip_name_locate(z.get(), "META-INF/container.xml", 0) >= 0) {
        ok = readEpub(z.get(), out);
    }
    if (!ok) {
        document->clear();
    }
    return ok;
}

QTextBlock blockForLine(const QTextDocument *document, int lineNumber)
{
    QTextBlock first;
    QTextBlock found;
    for (QTextBlock b = document->begin(); b.isValid(); b = b.next()) {
        const int line = b.userState();
        if (line < 0) {
            continue;
        }
        if (!first.isValid()) {
            first = b;
        }
        if (line > lineNumber) {
            break;
        }
        found = b;
    }
    return found.isValid() ? found : first;
}

QStringList headingPath(const QTextBlock &block)
{
    QStringList path;
    int above = 7; // only headings of a lower level than the last one taken
    for (QTextBlock b = block; b.isValid() && above > 1; b = b.previous()) {
        const int level = b.blockFormat().headingLevel();
        if (level > 0 && level < above) {
            path.prepend(b.text().replace(QChar::LineSeparator, QLatin1Char(' ')).simplified());
            above = level;
        }
    }
    return path;
}
