/*
** extract.cpp -- the text of a file, by its type (extract_file_text of files.h).
**
**   Text, Source, Markdown   the bytes, without 0 bytes, as UTF-8 or converted from an older
**                            charset (encoding.cpp); a byte order mark is dropped
**   HTML                     converted to UTF-8 as text is, then parsed by libxml2's HTML parser
**                            (which decodes entities); text nodes outside script, style and the
*head
**                            (its title excepted), white space collapsed except inside <pre>,
**                            and a line break after every block element
**   DOCX                     word/document.xml of the ZIP container: the text of every <w:t>,
**                            <w:tab> as a tab, <w:br> and the end of each <w:p> as line breaks
**   ODT                      content.xml: text of the document body, <text:p> and <text:h> as
**                            lines, <text:s text:c="n"> as n spaces, <text:tab>, <text:line-break>
**   EPUB                     META-INF/container.xml names the package document; its spine lists
**                            the chapters (XHTML) in reading order, each read as HTML is
**   PDF                      extract_pdf.cpp (poppler)
**
** Containers are read through libzip; a member larger than CONTAINER_MEMBER_MAX bytes
** uncompressed is refused, so a small archive cannot expand into gigabytes. The XML parser never
** loads external entities or reaches the network.
*/
#include "files.h"
#include "internal.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include <libxml/HTMLparser.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strings.h>
#include <sys/stat.h>
#include <zip.h>

bool pdf_extract(const char *path, ExtractedText *out); /* extract_pdf.cpp */

namespace
{

constexpr uint64_t CONTAINER_MEMBER_MAX = 256ull * 1024 * 1024;

/* A growing UTF-8 text with the white-space rules of running text. */
struct TextBuilder {
    char *data = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool pending_space = false;
    /* When set, where the source line of the text changes: a break whenever bytes added come
    ** from another line than the last ones did (see html_text_with_lines). */
    HtmlLineMap *sources = nullptr;
    int32_t source_line = 1;

    void append(const char *s, size_t n)
    {
        if (sources && n > 0 && (sources->empty() || sources->back().line != source_line)) {
            sources->push_back(HtmlSourceBreak{length, source_line});
        }
        if (length + n + 1 > capacity) {
            size_t c = capacity ? capacity : 256;
            while (c < length + n + 1) {
                c = xmul(c, 2);
            }
            data = static_cast<char *>(xrealloc(data, c));
            capacity = c;
        }
        memcpy(data + length, s, n);
        length += n;
        data[length] = '\0';
    }
    bool at_line_start() const { return length == 0 || data[length - 1] == '\n'; }
    /* Running text: runs of white space become one space, none at the start of a line. */
    void add_running(const char *s, size_t n)
    {
        for (size_t i = 0; i < n; i++) {
            unsigned char c = (unsigned char)s[i];
            bool nbsp = c == 0xC2 && i + 1 < n && (unsigned char)s[i + 1] == 0xA0;
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || nbsp) {
                pending_space = true;
                i += nbsp ? 1 : 0;
                source_line += c == '\n' ? 1 : 0;
                continue;
            }
            if (pending_space && !at_line_start() && data[length - 1] != ' '
                && data[length - 1] != '\t') {
                append(" ", 1);
            }
            pending_space = false;
            append(s + i, 1);
        }
    }
    void add_raw(const char *s, size_t n)
    {
        pending_space = false;
        if (!sources) {
            append(s, n);
            return;
        }
        for (size_t i = 0; i < n; i++) {
            append(s + i, 1);
            source_line += s[i] == '\n' ? 1 : 0;
        }
    }
    void end_line()
    {
        pending_space = false;
        while (length > 0 && data[length - 1] == ' ') {
            length--; /* no trailing space before a line break */
        }
        if (!at_line_start()) {
            append("\n", 1);
        }
    }
    char *take(size_t *n)
    {
        end_line();
        if (!data) {
            append("", 0);
        }
        *n = length;
        char *d = data;
        data = nullptr;
        length = capacity = 0;
        return d;
    }
};

bool name_is(const xmlNode *node, const char *name)
{
    return node->name && strcasecmp(reinterpret_cast<const char *>(node->name), name) == 0;
}

bool name_in(const char *name, const char *const *names)
{
    for (int i = 0; name && names[i]; i++) {
        if (strcasecmp(name, names[i]) == 0) {
            return true;
        }
    }
    return false;
}

HtmlElementKind kind_of(const xmlNode *node)
{
    return html_element_kind(reinterpret_cast<const char *>(node->name));
}

const char *const HTML_SKIPPED[] = {
    "script", "style", "template", "svg", "math", "iframe", "object", "noembed", nullptr};
const char *const HTML_BLOCKS[] = {
    "p",       "div",      "br",     "li",       "ul",      "ol",         "h1",   "h2",
    "h3",      "h4",       "h5",     "h6",       "tr",      "table",      "pre",  "blockquote",
    "section", "article",  "header", "footer",   "nav",     "aside",      "dt",   "dd",
    "dl",      "hr",       "title",  "form",     "figure",  "figcaption", "main", "address",
    "caption", "fieldset", "legend", "details",  "summary", "body",       "html", "thead",
    "tbody",   "tfoot",    "option", "textarea", "center",  nullptr};

void html_walk(const xmlNode *node, TextBuilder *b, bool in_pre)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) {
            const char *text = reinterpret_cast<const char *>(n->content);
            if (text && b->sources) {
                /* The parser stamps a text node with the line on which it ends. */
                long line = xmlGetLineNo(n);
                for (const char *c = text; *c; c++) {
                    line -= *c == '\n' ? 1 : 0;
                }
                b->source_line = (int32_t)line;
            }
            if (text) {
                if (in_pre) {
                    b->add_raw(text, strlen(text));
                } else {
                    b->add_running(text, strlen(text));
                }
            }
            continue;
        }
        if (n->type != XML_ELEMENT_NODE || kind_of(n) == HTML_ELEMENT_SKIPPED) {
            continue;
        }
        if (name_is(n, "head")) {
            /* Only the title of the head is text a reader sees. */
            for (const xmlNode *c = n->children; c; c = c->next) {
                if (c->type == XML_ELEMENT_NODE && name_is(c, "title")) {
                    html_walk(c->children, b, false);
                    b->end_line();
                }
            }
            continue;
        }
        bool block = kind_of(n) == HTML_ELEMENT_BLOCK;
        if (block) {
            b->end_line();
        } else if (name_is(n, "td") || name_is(n, "th")) {
            b->pending_space = true;
        }
        html_walk(n->children, b, in_pre || name_is(n, "pre"));
        if (block) {
            b->end_line();
        }
    }
}

/* Characters other than white space, counted up to limit. */
int32_t visible_chars(const char *s, size_t n, int32_t limit)
{
    int32_t count = 0;
    for (size_t i = 0; i < n && count < limit; i++) {
        unsigned char c = (unsigned char)s[i];
        if ((c & 0xC0) == 0x80 || c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'
            || c == '\v') {
            continue;
        }
        count++;
    }
    return count;
}

/* Reads a whole file of at most max bytes; NULL when it cannot be read or is larger. */
char *read_file(const char *path, uint64_t max, size_t *n)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0
        || (uint64_t)st.st_size > max) {
        fclose(f);
        return nullptr;
    }
    size_t size = (size_t)st.st_size;
    char *buf = static_cast<char *>(xmalloc(size + 2));
    size_t got = fread(buf, 1, size + 1, f); /* one more: a file that grew is refused */
    fclose(f);
    if (got != size) {
        free(buf);
        return nullptr;
    }
    buf[size] = '\0';
    *n = size;
    return buf;
}

/* The bytes of one member of an open ZIP archive; NULL when absent, too large or damaged. */
char *zip_member(zip_t *z, const char *name, size_t *n)
{
    zip_int64_t index = zip_name_locate(z, name, 0);
    if (index < 0) {
        return nullptr;
    }
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(z, (zip_uint64_t)index, 0, &st) != 0 || !(st.valid & ZIP_STAT_SIZE)
        || st.size > CONTAINER_MEMBER_MAX) {
        return nullptr;
    }
    zip_file_t *f = zip_fopen_index(z, (zip_uint64_t)index, 0);
    if (!f) {
        return nullptr;
    }
    size_t size = (size_t)st.size;
    char *buf = static_cast<char *>(xmalloc(size + 1));
    zip_int64_t got = zip_fread(f, buf, size);
    zip_fclose(f);
    if (got < 0 || (size_t)got != size) {
        free(buf);
        return nullptr;
    }
    buf[size] = '\0';
    *n = size;
    return buf;
}

xmlDoc *parse_xml(const char *bytes, size_t n)
{
    if (n > (size_t)INT32_MAX) {
        return nullptr;
    }
    return xmlReadMemory(bytes,
                         (int)n,
                         nullptr,
                         nullptr,
                         XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING
                             | XML_PARSE_RECOVER);
}

const char *attr(const xmlNode *n, const char *name)
{
    for (const xmlAttr *a = n->properties; a; a = a->next) {
        if (a->name && strcmp(reinterpret_cast<const char *>(a->name), name) == 0 && a->children
            && a->children->content) {
            return reinterpret_cast<const char *>(a->children->content);
        }
    }
    return nullptr;
}

void docx_walk(const xmlNode *node, TextBuilder *b)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        const char *name = reinterpret_cast<const char *>(n->name);
        if (strcmp(name, "t") == 0) {
            for (const xmlNode *c = n->children; c; c = c->next) {
                if (c->content && (c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE)) {
                    b->add_raw(reinterpret_cast<const char *>(c->content),
                               strlen(reinterpret_cast<const char *>(c->content)));
                }
            }
        } else if (strcmp(name, "tab") == 0) {
            b->add_raw("\t", 1);
        } else if (strcmp(name, "br") == 0 || strcmp(name, "cr") == 0) {
            b->add_raw("\n", 1);
        } else if (strcmp(name, "delText") != 0 && strcmp(name, "instrText") != 0) {
            docx_walk(n->children, b);
            if (strcmp(name, "p") == 0) {
                b->end_line();
            }
        }
    }
}

void odt_walk(const xmlNode *node, TextBuilder *b)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) {
            if (n->content) {
                b->add_raw(reinterpret_cast<const char *>(n->content),
                           strlen(reinterpret_cast<const char *>(n->content)));
            }
            continue;
        }
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        const char *name = reinterpret_cast<const char *>(n->name);
        if (strcmp(name, "s") == 0) {
            const char *c = attr(n, "c");
            long count = c ? strtol(c, nullptr, 10) : 1;
            for (long i = 0; i < count && i < 1000; i++) {
                b->add_raw(" ", 1);
            }
        } else if (strcmp(name, "tab") == 0) {
            b->add_raw("\t", 1);
        } else if (strcmp(name, "line-break") == 0) {
            b->add_raw("\n", 1);
        } else if (strcmp(name, "annotation") != 0 && strcmp(name, "note-citation") != 0) {
            odt_walk(n->children, b);
            if (strcmp(name, "p") == 0 || strcmp(name, "h") == 0) {
                b->end_line();
            }
        }
    }
}

const xmlNode *find_element(const xmlNode *node, const char *name)
{
    for (const xmlNode *n = node; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (strcmp(reinterpret_cast<const char *>(n->name), name) == 0) {
            return n;
        }
        const xmlNode *inner = find_element(n->children, name);
        if (inner) {
            return inner;
        }
    }
    return nullptr;
}

/* Text of an XML member of a container, walked by walk from the root element. */
bool container_xml_text(zip_t *z, const char *member, void (*walk)(const xmlNode *, TextBuilder *),
                        const char *body, TextBuilder *b)
{
    size_t n = 0;
    char *bytes = zip_member(z, member, &n);
    if (!bytes) {
        return false;
    }
    xmlDoc *doc = parse_xml(bytes, n);
    free(bytes);
    if (!doc) {
        return false;
    }
    const xmlNode *root = xmlDocGetRootElement(doc);
    const xmlNode *start = root ? find_element(root, body) : nullptr;
    if (start) {
        walk(start->children, b);
    }
    xmlFreeDoc(doc);
    return start != nullptr;
}

void html_into(const char *html, size_t n, TextBuilder *b)
{
    size_t len = 0;
    char *text = html_to_text(html, n, &len);
    b->add_raw(text, len);
    b->end_line();
    free(text);
}

/* Decodes %XX escapes of an href in place. */
void percent_decode(char *s)
{
    char *o = s;
    for (char *p = s; *p; p++) {
        if (p[0] == '%' && isxdigit((unsigned char)p[1]) && isxdigit((unsigned char)p[2])) {
            char hex[3] = {p[1], p[2], 0};
            *o++ = (char)strtol(hex, nullptr, 16);
            p += 2;
        } else {
            *o++ = *p;
        }
    }
    *o = '\0';
}

bool epub_text(zip_t *z, TextBuilder *b)
{
    size_t n = 0;
    char *bytes = zip_member(z, "META-INF/container.xml", &n);
    if (!bytes) {
        return false;
    }
    xmlDoc *container = parse_xml(bytes, n);
    free(bytes);
    if (!container) {
        return false;
    }
    const xmlNode *rootfile = find_element(xmlDocGetRootElement(container), "rootfile");
    const char *opf_path = rootfile ? attr(rootfile, "full-path") : nullptr;
    char *opf_name = opf_path ? xstrdup(opf_path) : nullptr;
    xmlFreeDoc(container);
    if (!opf_name) {
        return false;
    }
    bytes = zip_member(z, opf_name, &n);
    xmlDoc *opf = bytes ? parse_xml(bytes, n) : nullptr;
    free(bytes);
    if (!opf) {
        free(opf_name);
        return false;
    }
    /* Chapter hrefs are relative to the package document's directory. */
    const char *slash = strrchr(opf_name, '/');
    size_t dir_len = slash ? (size_t)(slash - opf_name) + 1 : 0;
    const xmlNode *root = xmlDocGetRootElement(opf);
    const xmlNode *manifest = root ? find_element(root, "manifest") : nullptr;
    const xmlNode *spine = root ? find_element(root, "spine") : nullptr;
    bool any = false;
    for (const xmlNode *ref = spine ? spine->children : nullptr; ref; ref = ref->next) {
        const char *idref = ref->type == XML_ELEMENT_NODE ? attr(ref, "idref") : nullptr;
        if (!idref || !manifest) {
            continue;
        }
        const char *href = nullptr;
        for (const xmlNode *item = manifest->children; item; item = item->next) {
            const char *id = item->type == XML_ELEMENT_NODE ? attr(item, "id") : nullptr;
            if (id && strcmp(id, idref) == 0) {
                href = attr(item, "href");
                break;
            }
        }
        if (!href) {
            continue;
        }
        size_t href_len = strlen(href);
        char *member = static_cast<char *>(xmalloc(dir_len + href_len + 1));
        memcpy(member, opf_name, dir_len);
        memcpy(member + dir_len, href, href_len + 1);
        char *hash = strchr(member, '#');
        if (hash) {
            *hash = '\0';
        }
        percent_decode(member);
        size_t chapter_len = 0;
        char *chapter = zip_member(z, member, &chapter_len);
        free(member);
        if (chapter) {
            html_into(chapter, chapter_len, b);
            free(chapter);
            any = true;
        }
    }
    xmlFreeDoc(opf);
    free(opf_name);
    return any;
}

TrnFileStatus container_text(const char *path, TrnFileType type, TextBuilder *b)
{
    int error = 0;
    zip_t *z = zip_open(path, ZIP_RDONLY, &error);
    if (!z) {
        return TRN_FILE_STATUS_UNREADABLE;
    }
    bool ok = false;
    if (type == TRN_FILE_TYPE_DOCX) {
        ok = container_xml_text(z, "word/document.xml", docx_walk, "body", b);
    } else if (type == TRN_FILE_TYPE_ODT) {
        ok = container_xml_text(z, "content.xml", odt_walk, "body", b);
    } else {
        ok = epub_text(z, b);
    }
    zip_discard(z);
    return ok ? TRN_FILE_STATUS_INDEXABLE : TRN_FILE_STATUS_UNREADABLE;
}

} // namespace

bool valid_utf8(const unsigned char *s, size_t n)
{
    size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            i++;
            continue;
        }
        size_t len = 0;
        uint32_t min = 0;
        uint32_t cp = 0;
        if ((c & 0xE0) == 0xC0) {
            len = 2, min = 0x80, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3, min = 0x800, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4, min = 0x10000, cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) {
            return false;
        }
        for (size_t k = 1; k < len; k++) {
            if ((s[i + k] & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

HtmlElementKind html_element_kind(const char *name)
{
    if (name_in(name, HTML_SKIPPED)) {
        return HTML_ELEMENT_SKIPPED;
    }
    return name_in(name, HTML_BLOCKS) ? HTML_ELEMENT_BLOCK : HTML_ELEMENT_INLINE;
}

namespace
{

/* html_to_text, recording the source line of each line of the text in sources when not NULL. */
char *html_text_of(const char *html, size_t n, size_t *out_len, HtmlLineMap *sources)
{
    TextBuilder b;
    b.sources = sources;
    if (n > 0 && n <= (size_t)INT32_MAX) {
        /* Without a declared charset the parser would take Latin-1; text that is valid UTF-8 is
        ** read as UTF-8, anything else is left to the document's own declaration. */
        const char *encoding =
            valid_utf8(reinterpret_cast<const unsigned char *>(html), n) ? "UTF-8" : nullptr;
        htmlDocPtr doc = htmlReadMemory(html,
                                        (int)n,
                                        nullptr,
                                        encoding,
                                        HTML_PARSE_RECOVER | HTML_PARSE_NOERROR
                                            | HTML_PARSE_NOWARNING | HTML_PARSE_NONET);
        if (doc) {
            html_walk(xmlDocGetRootElement(doc), &b, false);
            xmlFreeDoc(doc);
        }
    }
    return b.take(out_len);
}

} // namespace

char *html_to_text(const char *html, size_t n, size_t *out_len)
{
    return html_text_of(html, n, out_len, nullptr);
}

char *html_text_with_lines(const char *path, size_t *len, HtmlLineMap *map)
{
    map->clear();
    size_t n = 0;
    char *bytes = read_file(path, TRN_FILE_SIZE_MAX, &n);
    if (!bytes) {
        return nullptr;
    }
    char *text = html_text_of(bytes, n, len, map);
    free(bytes);
    /* The parser stamps lines past 65535 as 65535: such a map is not trusted. */
    for (const HtmlSourceBreak &b : *map) {
        if (b.line < 1 || b.line >= 65535) {
            map->clear();
            break;
        }
    }
    return text;
}

int32_t html_source_line(const HtmlLineMap &map, size_t offset)
{
    size_t lo = 0, hi = map.size();
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        if (map[mid].offset <= offset) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return lo == 0 ? 0 : map[lo - 1].line;
}

TrnFileStatus extract_file_text(const char *path, TrnFileType type, uint64_t max_size,
                                ExtractedText *out)
{
    *out = ExtractedText{};
    if (!path) {
        return TRN_FILE_STATUS_UNREADABLE;
    }
    if (!trn_is_indexable(type)) {
        return TRN_FILE_STATUS_BINARY;
    }
    if (max_size == 0) {
        max_size = TRN_FILE_SIZE_MAX;
    }
    struct stat st;
    if (stat(path, &st) != 0) {
        return TRN_FILE_STATUS_UNREADABLE;
    }
    if (st.st_size > 0 && (uint64_t)st.st_size > max_size) {
        return TRN_FILE_STATUS_TOO_LARGE;
    }
    if (type == TRN_FILE_TYPE_PDF) {
        if (!pdf_extract(path, out)) {
            extracted_text_free(out);
            return TRN_FILE_STATUS_UNREADABLE;
        }
    } else if (type == TRN_FILE_TYPE_DOCX || type == TRN_FILE_TYPE_ODT
               || type == TRN_FILE_TYPE_EPUB) {
        TextBuilder b;
        TrnFileStatus status = container_text(path, type, &b);
        out->text = b.take(&out->length);
        if (status != TRN_FILE_STATUS_INDEXABLE) {
            extracted_text_free(out);
            return status;
        }
    } else {
        size_t n = 0;
        char *bytes = read_file(path, max_size, &n);
        if (!bytes) {
            return TRN_FILE_STATUS_UNREADABLE;
        }
        if (type != TRN_FILE_TYPE_HTML && memchr(bytes, 0, n)) {
            free(bytes);
            return TRN_FILE_STATUS_BINARY;
        }
        snprintf(out->encoding, sizeof out->encoding, "UTF-8");
        if (!valid_utf8(reinterpret_cast<const unsigned char *>(bytes), n)) {
            LegacyCharset charset = legacy_charset(bytes, n, out->encoding, sizeof out->encoding);
            if (charset == LEGACY_BINARY) {
                free(bytes);
                *out = ExtractedText{};
                return TRN_FILE_STATUS_BINARY;
            }
            size_t converted_len = 0;
            char *converted = legacy_to_utf8(bytes, n, charset, out->encoding, &converted_len);
            free(bytes);
            bytes = converted;
            n = converted_len;
        }
        if (type == TRN_FILE_TYPE_HTML) {
            out->text = html_to_text(bytes, n, &out->length);
            free(bytes);
        } else {
            size_t skip = n >= 3 && memcmp(bytes, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
            if (skip) {
                memmove(bytes, bytes + skip, n - skip + 1);
            }
            out->text = bytes;
            out->length = n - skip;
        }
    }
    if (visible_chars(out->text, out->length, TRN_TEXT_MIN_CHARS) < TRN_TEXT_MIN_CHARS) {
        extracted_text_free(out);
        return TRN_FILE_STATUS_TOO_SHORT;
    }
    return TRN_FILE_STATUS_INDEXABLE;
}

bool file_charset(const char *path, uint64_t max_size, char *name, size_t size)
{
    size_t n = 0;
    char *bytes = read_file(path, max_size == 0 ? (uint64_t)TRN_FILE_SIZE_MAX : max_size, &n);
    if (!bytes) {
        return false;
    }
    bool text = true;
    if (valid_utf8(reinterpret_cast<const unsigned char *>(bytes), n)) {
        snprintf(name, size, "UTF-8");
    } else {
        text = legacy_charset(bytes, n, name, size) != LEGACY_BINARY;
    }
    free(bytes);
    return text;
}

void extracted_text_free(ExtractedText *t)
{
    if (!t) {
        return;
    }
    free(t->text);
    free(t->page_starts);
    *t = ExtractedText{};
}

int32_t page_for_line(const ExtractedText *t, int32_t line_number)
{
    if (!t || t->page_count < 1 || line_number < 1 || !t->text) {
        return 1;
    }
    int32_t page = 1;
    int64_t line = 1; /* the line at offset pos */
    uint64_t pos = 0;
    for (int32_t i = 0; i < t->page_count; i++) {
        uint64_t start = t->page_starts[i];
        while (pos < start && pos < t->length) {
            if (t->text[pos] == '\n') {
                line++;
            }
            pos++;
        }
        if (line > line_number) {
            break;
        }
        page = i + 1;
    }
    return page;
}

int32_t ingest_extracted_text(TrnEngine *e, const char *path, const char *text, size_t length,
                              TrnFileType type, int32_t chunk_size, int32_t overlap)
{
    if (!e || !path || !text) {
        return -1;
    }
    return chunk_and_ingest(e, path, text, (int64_t)length, chunk_size, overlap, type);
}
