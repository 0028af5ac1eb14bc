/*
** extract_container.cpp -- the text of DOCX, ODT and EPUB files, read from their ZIP container
** through libzip (see extract.cpp for what each contributes).
*/
#include "markup.h"

#include <cctype>
#include <utility>
#include <vector>

#include <libxml/tree.h>
#include <zip.h>

#include <strings.h>

namespace
{

constexpr uint64_t CONTAINER_MEMBER_MAX = 256ull * 1024 * 1024;
/* An EPUB's container and package documents are read whole, as trees: a few kB in practice. */
constexpr uint64_t PACKAGE_MEMBER_MAX = 16ull * 1024 * 1024;

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
    int32_t para;    /* the depth of the innermost open paragraph (w:p, text:p, text:h) */
    int32_t heading; /* the depth of the paragraph that is a heading; 0 when none is open */
};

bool local_is(const xmlChar *name, const char *want)
{
    return strcmp(reinterpret_cast<const char *>(name), want) == 0;
}

/* The value of the attribute of local name want, cut to size - 1 bytes, into out; false when
** absent. attributes holds five pointers for each: local name, prefix, URI, value, value end. */
bool attribute_value(int attribute_count, const xmlChar **attributes, const char *want, char *out,
                     size_t size)
{
    for (int i = 0; i < attribute_count; i++) {
        const xmlChar **at = attributes + 5 * i;
        if (local_is(at[0], want) && at[3] && at[4] >= at[3]) {
            size_t len = std::min<size_t>((size_t)(at[4] - at[3]), size - 1);
            memcpy(out, at[3], len);
            out[len] = '\0';
            return true;
        }
    }
    return false;
}

/* ODT's <text:s text:c="n">: n spaces (at most 1000), 1 without the attribute. */
long odt_space_count(int attribute_count, const xmlChar **attributes)
{
    char digits[16];
    if (attribute_value(attribute_count, attributes, "c", digits, sizeof digits)) {
        return std::min(strtol(digits, nullptr, 10), 1000L);
    }
    return 1;
}

/* The heading level a DOCX paragraph style id gives: N for "Heading N" (any case, with or
** without the space, N from 1 to 9); -1 for any other style (a document's Title names no
** section). */
int32_t docx_style_level(const char *id)
{
    if (strncasecmp(id, "heading", 7) != 0) {
        return -1;
    }
    const char *n = id[7] == ' ' ? id + 8 : id + 7;
    return n[0] >= '1' && n[0] <= '9' && !n[1] ? n[0] - '0' : -1;
}

/* Opens a heading of level on the paragraph open in x, unless one is open already. */
void begin_heading(XmlState *x, int32_t level)
{
    if (level >= 0 && x->para > 0 && x->heading == 0) {
        x->b->heading_begin(level);
        x->heading = x->para;
    }
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
    char value[32];
    if (local_is(name, "p") || (x->odt && local_is(name, "h"))) {
        x->para = x->body;
    }
    if (!x->odt) {
        if (local_is(name, "pStyle")
            && attribute_value(attribute_count, attributes, "val", value, sizeof value)) {
            begin_heading(x, docx_style_level(value));
        } else if (local_is(name, "outlineLvl")
                   && attribute_value(attribute_count, attributes, "val", value, sizeof value)) {
            long level = strtol(value, nullptr, 10);
            begin_heading(x, level >= 0 && level < 9 ? (int32_t)level + 1 : -1);
        }
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
    if (local_is(name, "h")) {
        long level =
            attribute_value(attribute_count, attributes, "outline-level", value, sizeof value)
                ? strtol(value, nullptr, 10)
                : 1;
        begin_heading(x, level >= 1 && level <= 10 ? (int32_t)level : 1);
    } else if (local_is(name, "s")) {
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
        if (x->heading == x->body + 1) {
            x->b->heading_end();
            x->heading = 0;
        }
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
    XmlState x = {b, odt, 0, false, 0, 0, 0, 0};
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

} // namespace

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
