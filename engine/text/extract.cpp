/*
** extract.cpp -- the text of a file, by its type (extract_file_text of files.h).
**
**   Text, Source, Markdown   the bytes, which must be UTF-8 without 0 bytes; a byte order mark
**                            is dropped
**   HTML                     parsed by libxml2's HTML parser (which decodes entities and honours
**                            a declared charset); text nodes outside script, style and the head
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
** uncompressed is refused, so a small archive cannot expand into gigabytes. HTML and the XML of
** DOCX and ODT are parsed as event streams fed in FEED_BYTES pieces, never as trees, and stop
** once the text reaches its cap; nesting depth costs nothing. The XML parser never loads external
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

/* A growing UTF-8 text with the white-space rules of running text, at most cap bytes: what
** goes beyond is dropped (cut is set, and the parsers stop reading). Its buffer comes from
** realloc, not xrealloc: a document too large for memory fails alone (failed is set) instead of
** ending the process. */
struct TextBuilder {
    char *data = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool pending_space = false;
    size_t cap = SIZE_MAX - 1;
    bool cut = false;
    bool failed = false;

    ~TextBuilder() { free(data); }
    bool full() const { return cut || failed; }
    void append(const char *s, size_t n)
    {
        if (full()) {
            return;
        }
        if (n > cap - length) {
            n = cap - length;
            while (n > 0 && (s[n] & 0xC0) == 0x80) {
                n--; /* never cut a UTF-8 sequence */
            }
            cut = true;
        }
        if (length + n + 1 > capacity) {
            size_t c = capacity ? capacity : 256;
            while (c < length + n + 1) {
                c = c > SIZE_MAX / 2 ? length + n + 1 : c * 2;
            }
            char *grown = static_cast<char *>(realloc(data, c));
            if (!grown) {
                failed = true;
                return;
            }
            data = grown;
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
        append(s, n);
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
    /* The text, ending with a line break unless it was cut; NULL when memory ran out. The
    ** builder is empty afterwards. */
    char *take(size_t *n)
    {
        *n = 0;
        if (failed) {
            return nullptr;
        }
        end_line();
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

/* Markup is read as a stream of events (libxml2's SAX interface), never as a tree: memory stays
** that of the text, however deep the nesting, and reading stops once the text is full. */
constexpr size_t FEED_BYTES = 64 * 1024;

/* HTML: text outside skipped elements and the head (its title excepted), raw inside <pre>. */
struct HtmlState {
    TextBuilder *b;
    int32_t skipped; /* open elements since a skipped one began; 0 outside */
    int32_t head;    /* open elements since the head began; 0 outside */
    int32_t title;   /* open title elements inside the head */
    int32_t pre;     /* open pre elements */
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

void html_characters(void *ctx, const xmlChar *text, int n)
{
    HtmlState *h = static_cast<HtmlState *>(ctx);
    if (h->skipped > 0 || (h->head > 0 && h->title == 0) || n <= 0) {
        return;
    }
    if (h->pre > 0) {
        h->b->add_raw(reinterpret_cast<const char *>(text), (size_t)n);
    } else {
        h->b->add_running(reinterpret_cast<const char *>(text), (size_t)n);
    }
}

/* Feeds bytes to a push parser until they end, the text is full or the parser fails; read
** gives the next bytes (up to FEED_BYTES) and returns how many, 0 at the end, -1 on an error. */
template <typename Read>
void feed_parser(xmlParserCtxtPtr ctxt, bool html, TextBuilder *b, Read read)
{
    char buf[FEED_BYTES];
    for (;;) {
        long n = read(buf);
        bool last = n <= 0 || b->full();
        int rc = html ? htmlParseChunk(ctxt, n > 0 ? buf : nullptr, n > 0 ? (int)n : 0, last)
                      : xmlParseChunk(ctxt, n > 0 ? buf : nullptr, n > 0 ? (int)n : 0, last);
        if (last || b->full()) {
            break;
        }
        if (rc != 0 && !ctxt->recovery) {
            break;
        }
        if (ctxt->disableSAX == 1 && ctxt->instate == XML_PARSER_EOF) {
            break;
        }
    }
}

/* Adds the readable text of an HTML document that read yields (see feed_parser). utf8: the
** bytes are known to be UTF-8; otherwise the document's own declaration decides. */
template <typename Read>
void html_stream(TextBuilder *b, bool utf8, Read read)
{
    HtmlState h = {b, 0, 0, 0, 0};
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
    htmlCtxtUseOptions(
        ctxt, HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET);
    feed_parser(ctxt, true, b, read);
    htmlFreeParserCtxt(ctxt);
}

/* A strict UTF-8 check: no overlong forms, surrogates or values above U+10FFFF. */
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
    char *buf = static_cast<char *>(malloc(size + 2)); /* NULL fails this file alone */
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

void xml_start(void *ctx, const xmlChar *name, const xmlChar *, const xmlChar *, int,
               const xmlChar **, int attribute_count, int, const xmlChar **attributes)
{
    XmlState *x = static_cast<XmlState *>(ctx);
    if (x->body == 0) {
        if (!x->body_done && local_is(name, "body")) {
            x->body = 1;
        }
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
        long count = 1;
        /* attributes: localname, prefix, URI, value, end for each */
        for (int i = 0; i < attribute_count; i++) {
            const xmlChar **at = attributes + 5 * i;
            if (local_is(at[0], "c") && at[3] && at[4] > at[3]) {
                char digits[16];
                size_t len = std::min<size_t>((size_t)(at[4] - at[3]), sizeof digits - 1);
                memcpy(digits, at[3], len);
                digits[len] = '\0';
                count = strtol(digits, nullptr, 10);
            }
        }
        for (long i = 0; i < count && i < 1000; i++) {
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

/* Streams one member of an open archive through read's callers: each call gives up to
** FEED_BYTES more bytes. A member larger than CONTAINER_MEMBER_MAX uncompressed is refused. */
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
    feed_parser(ctxt, false, b, [&reader](char *buf) {
        return reader(buf);
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
    auto by_id = [](const Item &a, const Item &b) {
        return strcmp(a.first, b.first) < 0;
    };
    std::stable_sort(items.begin(), items.end(), by_id);
    /* Each member is read once, however often the spine names it. */
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
            html_stream(b, false, [&reader](char *buf) {
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

/* Adds the readable text of n bytes of HTML. Without a declared charset the parser would take
** Latin-1: text that is valid UTF-8 is read as UTF-8, anything else is left to the document's
** own declaration. */
void html_bytes_into(TextBuilder *b, const char *html, size_t n)
{
    bool utf8 = valid_utf8(reinterpret_cast<const unsigned char *>(html), n);
    size_t at = 0;
    html_stream(b, utf8, [html, n, &at](char *buf) {
        size_t part = std::min(n - at, FEED_BYTES);
        memcpy(buf, html + at, part);
        at += part;
        return (long)part;
    });
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

} // namespace

HtmlElementKind html_element_kind(const char *name)
{
    if (name_in(name, HTML_SKIPPED)) {
        return HTML_ELEMENT_SKIPPED;
    }
    return name_in(name, HTML_BLOCKS) ? HTML_ELEMENT_BLOCK : HTML_ELEMENT_INLINE;
}

char *html_to_text(const char *html, size_t n, size_t *out_len)
{
    TextBuilder b;
    html_bytes_into(&b, html, n);
    char *text = b.take(out_len);
    return text ? text : static_cast<char *>(xcalloc(1, 1));
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
        b.cap = max_size;
        TrnFileStatus status = container_text(path, type, &b);
        out->cut = b.cut ? 1 : 0;
        out->text = b.take(&out->length);
        if (!out->text) {
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
        if (type == TRN_FILE_TYPE_HTML) {
            TextBuilder b;
            b.cap = max_size;
            html_bytes_into(&b, bytes, n);
            free(bytes);
            out->cut = b.cut ? 1 : 0;
            out->text = b.take(&out->length);
            if (!out->text) {
                return TRN_FILE_STATUS_UNREADABLE; /* out of memory: this file alone fails */
            }
        } else {
            if (memchr(bytes, 0, n)) {
                free(bytes);
                return TRN_FILE_STATUS_BINARY;
            }
            if (!valid_utf8(reinterpret_cast<const unsigned char *>(bytes), n)) {
                free(bytes);
                return TRN_FILE_STATUS_NOT_UTF8;
            }
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
