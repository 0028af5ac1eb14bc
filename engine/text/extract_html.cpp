/*
** extract_html.cpp -- the readable text of an HTML document (see extract.cpp for its rules), with
** the source line each line of it comes from.
*/
#include "markup.h"

#include <strings.h>

namespace
{

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

HtmlElementKind html_element_kind(const char *name)
{
    if (name_in(name, HTML_SKIPPED)) {
        return HTML_ELEMENT_SKIPPED;
    }
    return name_in(name, HTML_BLOCKS) ? HTML_ELEMENT_BLOCK : HTML_ELEMENT_INLINE;
}

/* 1 to 6 for h1 to h6 in any case, else 0. */
static int32_t heading_level(const char *name)
{
    bool h = (name[0] == 'h' || name[0] == 'H') && name[1] >= '1' && name[1] <= '6' && !name[2];
    return h ? name[1] - '0' : 0;
}

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
        int32_t level = heading_level(name);
        if (level > 0) {
            h->b->heading_begin(level);
        }
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
        if (heading_level(name) > 0) {
            h->b->heading_end();
        }
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
