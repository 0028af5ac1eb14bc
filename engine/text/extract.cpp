/*
** extract.cpp -- the text of a file, by its type (extract_file_text of files.h).
**
**   Text, Source, Markdown   the bytes, without 0 bytes, as UTF-8 or converted from an older
**                            charset (encoding.cpp); a byte order mark is dropped
**   HTML                     converted to UTF-8 as text is, then read by libxml2's HTML parser
**                            (which decodes entities); text outside script, style and the head
**                            (its title excepted), white space collapsed except inside <pre>,
**                            and a line break after every block element
**   DOCX                     word/document.xml of the ZIP container: the text of every <w:t>,
**                            <w:tab> as a tab, <w:br> and the end of each <w:p> as line breaks
**   ODT                      content.xml: text of the document body, <text:p> and <text:h> as
**                            lines, <text:s text:c="n"> as n spaces, <text:tab>, <text:line-break>
**   EPUB                     META-INF/container.xml names the package document; its spine lists
**                            the chapters (XHTML) in reading order, each read as HTML is, each
**                            member at most once however often the spine names it
**   PDF                      extract_pdf.cpp (poppler)
**
** HTML and the XML of DOCX and ODT are parsed as event streams (libxml2's SAX interface) fed in
** FEED_BYTES pieces, never as trees: memory stays near the text's size however large or deeply
** nested the document, and reading stops once the text reaches its cap (the size limit). The text
** grows through realloc, not xrealloc, so a document that needs more memory than there is fails
** alone instead of ending the process. Containers are read through libzip; a member larger than
** CONTAINER_MEMBER_MAX bytes uncompressed is refused. The XML parser never loads external
** entities or reaches the network.
*/
#include "files.h"
#include "internal.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

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
/* An EPUB's container and package documents are read whole, as trees: a few kB in practice. */
constexpr uint64_t PACKAGE_MEMBER_MAX = 16ull * 1024 * 1024;
constexpr size_t FEED_BYTES = 64 * 1024;

/* n, less a UTF-8 sequence cut short at the end of s. */
size_t whole_characters(const char *s, size_t n)
{
    size_t i = n;
    while (i > 0 && n - i < 3 && ((unsigned char)s[i - 1] & 0xC0) == 0x80) {
        i--;
    }
    if (i == 0) {
        return n;
    }
    unsigned char lead = (unsigned char)s[i - 1];
    size_t need = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return n - (i - 1) < need ? i - 1 : n;
}

/* A growing UTF-8 text with the white-space rules of running text, at most cap bytes: what goes
** beyond is dropped (cut is set, and the parsers stop reading). A failed allocation sets failed
** and drops the rest. */
struct TextBuilder {
    char *data = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool pending_space = false;
    size_t cap = SIZE_MAX - 1;
    bool cut = false;
    bool failed = false;
    /* When set, where the source line of the text changes: a break whenever bytes added come
    ** from another line than the last ones did (see html_text_with_lines). */
    HtmlLineMap *sources = nullptr;
    int32_t source_line = 1;

    TextBuilder() = default;
    TextBuilder(const TextBuilder &) = delete;
    TextBuilder &operator=(const TextBuilder &) = delete;
    ~TextBuilder() { free(data); }

    bool full() const { return cut || failed; }
    bool reserve(size_t need)
    {
        if (need <= capacity) {
            return true;
        }
        size_t c = capacity ? capacity : 256;
        while (c < need) {
            c = c > SIZE_MAX / 2 ? need : c * 2;
        }
        c = std::max(need, std::min(c, cap + 1)); /* never more than the cap needs */
        char *grown = static_cast<char *>(realloc(data, c));
        if (!grown) {
            failed = true;
            return false;
        }
        data = grown;
        capacity = c;
        return true;
    }
    void append(const char *s, size_t n)
    {
        if (full() || n == 0) {
            return;
        }
        bool over = n > cap - length;
        n = over ? cap - length : n;
        if (sources && n > 0 && (sources->empty() || sources->back().line != source_line)) {
            sources->push_back(HtmlSourceBreak{length, source_line});
        }
        if (!reserve(length + n + 1)) {
            return;
        }
        memcpy(data + length, s, n);
        length += n;
        if (over) {
            cut = true;
            length = whole_characters(data, length);
        }
        data[length] = '\0';
    }
    bool at_line_start() const { return length == 0 || data[length - 1] == '\n'; }
    /* Running text: runs of white space become one space, none at the start of a line. */
    void add_running(const char *s, size_t n)
    {
        for (size_t i = 0; i < n && !full(); i++) {
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
        for (size_t i = 0; i < n && !full(); i++) {
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
    /* The text (xmalloc'd or from realloc, free either way), ending with a line break unless it
    ** reached the cap; NULL when memory ran out. The builder is empty afterwards. */
    char *take(size_t *n)
    {
        *n = 0;
        if (length < cap) {
            end_line();
        }
        if (failed) {
            return nullptr;
        }
        char *d = data ? data : static_cast<char *>(xcalloc(1, 1));
        d[length] = '\0';
        *n = length;
        data = nullptr;
        length = capacity = 0;
        return d;
    }
};

bool name_in(const char *name, const char *const *names)
{
    for (int i = 0; name && names[i]; i++) {
        if (strcasecmp(name, names[i]) == 0) {
            return true;
        }
    }
    return false;
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

/* Feeds the piece buf holds (n bytes) and then what read gives to a push parser, until the
** bytes end, the text is full or the parser stops. read fills buf with up to FEED_BYTES bytes
** and returns how many: 0 at the end, -1 on an error. A parser that ran out of memory fails the
** text. */
template <typename Read>
void feed_parser(xmlParserCtxtPtr ctxt, bool html, TextBuilder *b, char *buf, long n, Read read)
{
    for (;;) {
        bool last = n <= 0 || b->full();
        const char *piece = n > 0 ? buf : nullptr;
        int size = n > 0 ? (int)n : 0;
        int rc =
            html ? htmlParseChunk(ctxt, piece, size, last) : xmlParseChunk(ctxt, piece, size, last);
        if (ctxt->errNo == XML_ERR_NO_MEMORY) {
            b->failed = true;
        }
        if (last || b->full() || (rc != 0 && !ctxt->recovery) || ctxt->instate == XML_PARSER_EOF) {
            return;
        }
        n = read(buf);
    }
}

/* HTML: text outside skipped elements and the head (its title excepted), raw inside <pre>. */
struct HtmlState {
    TextBuilder *b;
    xmlParserCtxtPtr ctxt; /* where the parser stands: the source line of text */
    int32_t skipped;       /* open elements since a skipped one began; 0 outside */
    int32_t head;          /* open elements since the head began; 0 outside */
    int32_t title;         /* open title elements inside the head */
    int32_t pre;           /* open pre elements */
};

void html_start(void *ctx, const xmlChar *tag, const xmlChar **)
{
    HtmlState *h = static_cast<HtmlState *>(ctx);
    const char *name = reinterpret_cast<const char *>(tag);
    if (h->skipped > 0 || html_element_kind(name) == HTML_ELEMENT_SKIPPED) {
        h->skipped++;
        return;
    }
    if (h->head > 0) {
        h->head++;
        h->title += strcasecmp(name, "title") == 0 ? 1 : 0;
        return;
    }
    if (strcasecmp(name, "head") == 0) {
        h->head = 1;
        return;
    }
    if (html_element_kind(name) == HTML_ELEMENT_BLOCK) {
        h->b->end_line();
    } else if (strcasecmp(name, "td") == 0 || strcasecmp(name, "th") == 0) {
        h->b->pending_space = true;
    }
    h->pre += strcasecmp(name, "pre") == 0 ? 1 : 0;
}

void html_end(void *ctx, const xmlChar *tag)
{
    HtmlState *h = static_cast<HtmlState *>(ctx);
    const char *name = reinterpret_cast<const char *>(tag);
    if (h->skipped > 0) {
        h->skipped--;
        return;
    }
    if (h->head > 0) {
        h->head--;
        if (h->title > 0 && strcasecmp(name, "title") == 0) {
            h->title--;
            h->b->end_line();
        }
        return;
    }
    if (h->pre > 0 && strcasecmp(name, "pre") == 0) {
        h->pre--;
    }
    if (html_element_kind(name) == HTML_ELEMENT_BLOCK) {
        h->b->end_line();
    }
}

void html_characters(void *ctx, const xmlChar *bytes, int n)
{
    HtmlState *h = static_cast<HtmlState *>(ctx);
    if (h->skipped > 0 || (h->head > 0 && h->title == 0) || n <= 0) {
        return;
    }
    const char *text = reinterpret_cast<const char *>(bytes);
    if (h->b->sources && h->ctxt->input) {
        /* The parser stands just past the text it hands over. */
        long line = h->ctxt->input->line;
        for (int i = 0; i < n; i++) {
            line -= text[i] == '\n' ? 1 : 0;
        }
        h->b->source_line = (int32_t)line;
    }
    if (h->pre > 0) {
        h->b->add_raw(text, (size_t)n);
    } else {
        h->b->add_running(text, (size_t)n);
    }
}

/* How the bytes of an HTML document are decoded: as UTF-8 whatever they declare (known to be
** UTF-8); as UTF-8 when their first piece is, else as they declare (an e-book's chapter); as
** they declare, Latin-1 without a declaration. */
enum HtmlCharset { HTML_UTF8, HTML_SNIFF, HTML_DECLARED };

/* Adds the readable text of the HTML document read yields (see feed_parser) to b. */
template <typename Read>
void html_stream(TextBuilder *b, HtmlCharset charset, Read read)
{
    char buf[FEED_BYTES];
    long n = read(buf);
    bool utf8 = charset == HTML_UTF8
                || (charset == HTML_SNIFF && n > 0
                    && valid_utf8(reinterpret_cast<const unsigned char *>(buf),
                                  whole_characters(buf, (size_t)n)));
    HtmlState h = {b, nullptr, 0, 0, 0, 0};
    htmlSAXHandler sax;
    memset(&sax, 0, sizeof sax);
    sax.startElement = html_start;
    sax.endElement = html_end;
    sax.characters = html_characters;
    sax.cdataBlock = html_characters;
    htmlParserCtxtPtr ctxt = htmlCreatePushParserCtxt(
        &sax, &h, nullptr, 0, nullptr, utf8 ? XML_CHAR_ENCODING_UTF8 : XML_CHAR_ENCODING_NONE);
    if (!ctxt) {
        b->failed = true;
        return;
    }
    h.ctxt = ctxt;
    htmlCtxtUseOptions(ctxt,
                       HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING
                           | HTML_PARSE_NONET | (utf8 ? HTML_PARSE_IGNORE_ENC : 0));
    feed_parser(ctxt, true, b, buf, n, read);
    htmlFreeParserCtxt(ctxt);
}

/* Adds the readable text of n bytes of HTML to b. */
void html_bytes_into(TextBuilder *b, const char *html, size_t n, HtmlCharset charset)
{
    size_t at = 0;
    html_stream(b, charset, [html, n, &at](char *buf) {
        size_t part = std::min(n - at, FEED_BYTES);
        memcpy(buf, html + at, part);
        at += part;
        return (long)part;
    });
}

/* Reads a whole file of at most max bytes; NULL when it cannot be read, is larger, or there is
** not memory enough for it (this file alone fails). */
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
    char *buf = static_cast<char *>(malloc(size + 2));
    if (!buf) {
        fclose(f);
        return nullptr;
    }
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

/* The bytes of one small member of an open ZIP archive (the EPUB's container and package
** documents); NULL when absent, larger than PACKAGE_MEMBER_MAX or damaged. */
char *zip_member(zip_t *z, const char *name, size_t *n)
{
    zip_int64_t index = zip_name_locate(z, name, 0);
    if (index < 0) {
        return nullptr;
    }
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(z, (zip_uint64_t)index, 0, &st) != 0 || !(st.valid & ZIP_STAT_SIZE)
        || st.size > PACKAGE_MEMBER_MAX) {
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

/* Streams one member of an open archive: each call gives up to FEED_BYTES more bytes. A member
** larger than CONTAINER_MEMBER_MAX uncompressed is refused (ok stays false). */
struct MemberReader {
    zip_file_t *f = nullptr;
    bool ok = false;
    MemberReader(zip_t *z, zip_int64_t index)
    {
        zip_stat_t st;
        zip_stat_init(&st);
        if (index >= 0 && zip_stat_index(z, (zip_uint64_t)index, 0, &st) == 0
            && (st.valid & ZIP_STAT_SIZE) && st.size <= CONTAINER_MEMBER_MAX) {
            f = zip_fopen_index(z, (zip_uint64_t)index, 0);
            ok = f != nullptr;
        }
    }
    MemberReader(const MemberReader &) = delete;
    MemberReader &operator=(const MemberReader &) = delete;
    ~MemberReader()
    {
        if (f) {
            zip_fclose(f);
        }
    }
    long operator()(char *buf)
    {
        zip_int64_t got = zip_fread(f, buf, FEED_BYTES);
        return got < 0 ? -1 : (long)got;
    }
};

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

/* DOCX and ODT: the text of the document body, by local element names (w:t, text:p, ...). */
struct XmlState {
    TextBuilder *b;
    bool odt;
    int32_t body;    /* open elements since the body began; 0 outside */
    bool body_done;  /* only the first body counts */
    int32_t skipped; /* open elements since a skipped one began */
    int32_t text;    /* DOCX: open w:t elements, whose characters are the text */
};

bool local_is(const xmlChar *name, const char *want)
{
    return strcmp(reinterpret_cast<const char *>(name), want) == 0;
}

/* ODT's <text:s text:c="n">: n spaces (at most 1000), 1 without the attribute. attributes holds
** five pointers for each: local name, prefix, URI, value, value end. */
long odt_space_count(int attribute_count, const xmlChar **attributes)
{
    for (int i = 0; i < attribute_count; i++) {
        const xmlChar **at = attributes + 5 * i;
        if (local_is(at[0], "c") && at[3] && at[4] > at[3]) {
            char digits[16];
            size_t len = std::min<size_t>((size_t)(at[4] - at[3]), sizeof digits - 1);
            memcpy(digits, at[3], len);
            digits[len] = '\0';
            return std::min(strtol(digits, nullptr, 10), 1000L);
        }
    }
    return 1;
}

void xml_start(void *ctx, const xmlChar *name, const xmlChar *, const xmlChar *, int,
               const xmlChar **, int attribute_count, int, const xmlChar **attributes)
{
    XmlState *x = static_cast<XmlState *>(ctx);
    if (x->body == 0) {
        x->body = !x->body_done && local_is(name, "body") ? 1 : 0;
        return;
    }
    x->body++;
    if (x->skipped > 0) {
        x->skipped++;
        return;
    }
    TextBuilder *b = x->b;
    if (!x->odt) {
        if (local_is(name, "t")) {
            x->text++;
        } else if (local_is(name, "tab")) {
            b->add_raw("\t", 1);
        } else if (local_is(name, "br") || local_is(name, "cr")) {
            b->add_raw("\n", 1);
        } else if (local_is(name, "delText") || local_is(name, "instrText")) {
            x->skipped = 1;
        }
        return;
    }
    if (local_is(name, "s")) {
        for (long i = odt_space_count(attribute_count, attributes); i > 0; i--) {
            b->add_raw(" ", 1);
        }
    } else if (local_is(name, "tab")) {
        b->add_raw("\t", 1);
    } else if (local_is(name, "line-break")) {
        b->add_raw("\n", 1);
    } else if (local_is(name, "annotation") || local_is(name, "note-citation")) {
        x->skipped = 1;
    }
}

void xml_end(void *ctx, const xmlChar *name, const xmlChar *, const xmlChar *)
{
    XmlState *x = static_cast<XmlState *>(ctx);
    if (x->body == 0) {
        return;
    }
    x->body--;
    if (x->body == 0) {
        x->body_done = true;
        return;
    }
    if (x->skipped > 0) {
        x->skipped--;
        return;
    }
    if (!x->odt && x->text > 0 && local_is(name, "t")) {
        x->text--;
    }
    if (local_is(name, "p") || (x->odt && local_is(name, "h"))) {
        x->b->end_line();
    }
}

void xml_characters(void *ctx, const xmlChar *text, int n)
{
    XmlState *x = static_cast<XmlState *>(ctx);
    if (x->body > 0 && x->skipped == 0 && (x->odt || x->text > 0) && n > 0) {
        x->b->add_raw(reinterpret_cast<const char *>(text), (size_t)n);
    }
}

/* The text of the body of a DOCX or ODT XML member, streamed. False when it is missing. */
bool container_xml_text(zip_t *z, const char *member, bool odt, TextBuilder *b)
{
    MemberReader reader(z, zip_name_locate(z, member, 0));
    if (!reader.ok) {
        return false;
    }
    XmlState x = {b, odt, 0, false, 0, 0};
    xmlSAXHandler sax;
    memset(&sax, 0, sizeof sax);
    sax.initialized = XML_SAX2_MAGIC;
    sax.startElementNs = xml_start;
    sax.endElementNs = xml_end;
    sax.characters = xml_characters;
    sax.cdataBlock = xml_characters;
    xmlParserCtxtPtr ctxt = xmlCreatePushParserCtxt(&sax, &x, nullptr, 0, nullptr);
    if (!ctxt) {
        b->failed = true;
        return false;
    }
    xmlCtxtUseOptions(
        ctxt, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_RECOVER);
    char buf[FEED_BYTES];
    long n = reader(buf);
    feed_parser(ctxt, false, b, buf, n, [&reader](char *piece) {
        return reader(piece);
    });
    xmlFreeParserCtxt(ctxt);
    return x.body_done || x.body > 0;
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
    /* The manifest's items sorted by id, so each spine entry is found in log time. */
    using Item = std::pair<const char *, const char *>; /* id, href */
    std::vector<Item, XAllocator<Item>> items;
    for (const xmlNode *item = manifest ? manifest->children : nullptr; item; item = item->next) {
        const char *id = item->type == XML_ELEMENT_NODE ? attr(item, "id") : nullptr;
        const char *href = id ? attr(item, "href") : nullptr;
        if (href) {
            items.push_back(Item(id, href));
        }
    }
    auto by_id = [](const Item &x, const Item &y) {
        return strcmp(x.first, y.first) < 0;
    };
    std::stable_sort(items.begin(), items.end(), by_id);
    /* Each member is read once, however often the spine names it (the first of equal ids wins,
    ** as a reader scanning the manifest in order finds it). */
    zip_int64_t entries = zip_get_num_entries(z, 0);
    std::vector<uint8_t, XAllocator<uint8_t>> read_before(entries > 0 ? (size_t)entries : 0, 0);
    bool any = false;
    for (const xmlNode *ref = spine ? spine->children : nullptr; ref && !b->full();
         ref = ref->next) {
        const char *idref = ref->type == XML_ELEMENT_NODE ? attr(ref, "idref") : nullptr;
        if (!idref) {
            continue;
        }
        auto found = std::lower_bound(items.begin(), items.end(), Item(idref, nullptr), by_id);
        if (found == items.end() || strcmp(found->first, idref) != 0) {
            continue;
        }
        const char *href = found->second;
        size_t href_len = strlen(href);
        char *member = static_cast<char *>(xmalloc(dir_len + href_len + 1));
        memcpy(member, opf_name, dir_len);
        memcpy(member + dir_len, href, href_len + 1);
        char *hash = strchr(member, '#');
        if (hash) {
            *hash = '\0';
        }
        percent_decode(member);
        zip_int64_t index = zip_name_locate(z, member, 0);
        free(member);
        if (index < 0 || index >= entries || read_before[(size_t)index]) {
            continue;
        }
        read_before[(size_t)index] = 1;
        MemberReader reader(z, index);
        if (reader.ok) {
            html_stream(b, HTML_SNIFF, [&reader](char *buf) {
                return reader(buf);
            });
            b->end_line();
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
        ok = container_xml_text(z, "word/document.xml", false, b);
    } else if (type == TRN_FILE_TYPE_ODT) {
        ok = container_xml_text(z, "content.xml", true, b);
    } else {
        ok = epub_text(z, b);
    }
    zip_discard(z);
    return ok ? TRN_FILE_STATUS_INDEXABLE : TRN_FILE_STATUS_UNREADABLE;
}

/* Cuts a text read whole (plain text grown by conversion, a PDF's pages) at max bytes. */
void cut_text(ExtractedText *out, uint64_t max)
{
    if (out->text && out->length > max) {
        out->length = whole_characters(out->text, (size_t)max);
        out->text[out->length] = '\0';
        out->cut = 1;
    }
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
    /* Without a declared charset the parser would take Latin-1; text that is valid UTF-8 is read
    ** as UTF-8, anything else is left to the document's own declaration. */
    bool utf8 = valid_utf8(reinterpret_cast<const unsigned char *>(html), n);
    html_bytes_into(&b, html, n, utf8 ? HTML_UTF8 : HTML_DECLARED);
    char *text = b.take(out_len);
    return text ? text : static_cast<char *>(xcalloc(1, 1));
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
        cut_text(out, max_size);
    } else if (type == TRN_FILE_TYPE_DOCX || type == TRN_FILE_TYPE_ODT
               || type == TRN_FILE_TYPE_EPUB) {
        TextBuilder b;
        b.cap = max_size;
        TrnFileStatus status = container_text(path, type, &b);
        out->text = b.take(&out->length);
        out->cut = b.cut ? 1 : 0;
        if (!out->text) {
            *out = ExtractedText{};
            return TRN_FILE_STATUS_UNREADABLE; /* out of memory: this file alone fails */
        }
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
            TextBuilder b;
            b.cap = max_size;
            html_bytes_into(&b, bytes, n, HTML_UTF8); /* UTF-8 now, whatever it declares */
            free(bytes);
            out->text = b.take(&out->length);
            out->cut = b.cut ? 1 : 0;
            if (!out->text) {
                return TRN_FILE_STATUS_UNREADABLE; /* out of memory: this file alone fails */
            }
        } else {
            size_t skip = n >= 3 && memcmp(bytes, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
            if (skip) {
                memmove(bytes, bytes + skip, n - skip + 1);
            }
            out->text = bytes;
            out->length = n - skip;
            cut_text(out, max_size); /* a conversion can make the text longer than the file */
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
