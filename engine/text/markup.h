/*
** markup.h -- what the readers of marked-up text share (extract_html.cpp, extract_container.cpp,
** extract.cpp): a growing text with the white-space rules of running text and a cap, feeding a
** libxml2 push parser piece by piece, and the HTML reader as a stream, which an EPUB's chapters
** go through as well. Internal to the engine's text extraction.
*/
#ifndef TRN_TEXT_MARKUP_H
#define TRN_TEXT_MARKUP_H

#include "alloc.h"
#include "files.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <libxml/HTMLparser.h>
#include <libxml/parser.h>

constexpr size_t FEED_BYTES = 64 * 1024;

/* n, less a UTF-8 sequence cut short at the end of s. */
inline size_t whole_characters(const char *s, size_t n)
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
    /* When set, the headings met (see container_text_with_headings); the open one, if any,
    ** began at heading_from. */
    TextHeadings *headings = nullptr;
    size_t heading_from = 0;
    int32_t heading_level = 0;

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
    /* A heading of level (1 outermost) begins on a line of its own. */
    void heading_begin(int32_t level)
    {
        if (!headings) {
            return;
        }
        end_line();
        heading_from = length;
        heading_level = level + 1;
    }
    /* ... and ends; one that gave no text is no heading. */
    void heading_end()
    {
        if (!headings || heading_level == 0) {
            return;
        }
        end_line();
        if (length > heading_from && !full()) {
            headings->push_back(TextHeading{heading_from, heading_level - 1});
        }
        heading_level = 0;
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

/* HTML: text outside skipped elements and the head (its title excepted), raw inside <pre>; the
** SAX callbacks (extract_html.cpp) take an HtmlState. */
struct HtmlState {
    TextBuilder *b;
    xmlParserCtxtPtr ctxt; /* where the parser stands: the source line of text */
    int32_t skipped;       /* open elements since a skipped one began; 0 outside */
    int32_t head;          /* open elements since the head began; 0 outside */
    int32_t title;         /* open title elements inside the head */
    int32_t pre;           /* open pre elements */
};

void html_start(void *ctx, const xmlChar *tag, const xmlChar **);
void html_end(void *ctx, const xmlChar *tag);
void html_characters(void *ctx, const xmlChar *bytes, int n);

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
void html_bytes_into(TextBuilder *b, const char *html, size_t n, HtmlCharset charset);

/* Reads a whole file of at most max bytes; NULL when it cannot be read, is larger, or there is
** not memory enough for it (this file alone fails). */
char *read_file(const char *path, uint64_t max, size_t *n);

/* The text of a DOCX, ODT or EPUB file (type) added to b (extract_container.cpp): INDEXABLE, or
** UNREADABLE when the container or its text cannot be read. */
TrnFileStatus container_text(const char *path, TrnFileType type, TextBuilder *b);

#endif /* TRN_TEXT_MARKUP_H */
