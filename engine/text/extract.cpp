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
** Headings (container_text_with_headings) are not part of the text: a search reads the file again
** for the headings above a match, as it reads an HTML file again for its source lines.
**
** The HTML reader is in extract_html.cpp, the containers' in extract_container.cpp, and what they
** share in markup.h.
**
** HTML and the XML of DOCX and ODT are parsed as event streams (libxml2's SAX interface) fed in
** FEED_BYTES pieces, never as trees: memory stays near the text's size however large or deeply
** nested the document, and reading stops once the text reaches its cap (the size limit). The text
** grows through realloc, not xrealloc, so a document that needs more memory than there is fails
** alone instead of ending the process. Containers are read through libzip; a member larger than
** CONTAINER_MEMBER_MAX bytes uncompressed is refused. The XML parser never loads external
** entities or reaches the network.
*/
#include "internal.h"
#include "markup.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <libxml/parser.h>
#include <sys/stat.h>

bool pdf_extract(const char *path, ExtractedText *out); /* extract_pdf.cpp */

namespace
{

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

void extract_prepare_threads(void)
{
    xmlInitParser();
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

char *container_text_with_headings(const char *path, TrnFileType type, size_t *len,
                                   TextHeadings *headings)
{
    headings->clear();
    *len = 0;
    if (!path
        || (type != TRN_FILE_TYPE_DOCX && type != TRN_FILE_TYPE_ODT
            && type != TRN_FILE_TYPE_EPUB)) {
        return nullptr;
    }
    TextBuilder b;
    b.cap = TRN_FILE_SIZE_MAX;
    b.headings = headings;
    if (container_text(path, type, &b) != TRN_FILE_STATUS_INDEXABLE) {
        headings->clear();
        return nullptr;
    }
    char *text = b.take(len);
    if (!text) {
        headings->clear();
    }
    return text;
}

size_t heading_path_at(const char *text, size_t len, const TextHeadings &headings, size_t offset,
                       char *out, size_t size)
{
    if (size == 0) {
        return 0;
    }
    out[0] = '\0';
    /* The open headings at offset: each one closes those of its level and below. */
    size_t open[16];
    size_t depth = 0;
    for (size_t i = 0; i < headings.size() && headings[i].offset <= offset; i++) {
        while (depth > 0 && headings[open[depth - 1]].level >= headings[i].level) {
            depth--;
        }
        if (depth < sizeof open / sizeof open[0]) {
            open[depth++] = i;
        }
    }
    static const char SEPARATOR[] = " \u203a ";
    static const char ELIDED[] = "\u2026";
    const size_t sep = sizeof SEPARATOR - 1;
    size_t part_len[16];
    size_t whole = 0;
    for (size_t d = 0; d < depth; d++) {
        size_t at = headings[open[d]].offset;
        size_t n = 0;
        while (at + n < len && text[at + n] != '\n' && n < TRN_HEADING_PART_MAX) {
            n++;
        }
        n = whole_characters(text + at, n);
        while (n > 0 && (text[at + n - 1] == ' ' || text[at + n - 1] == '\t')) {
            n--;
        }
        part_len[d] = n;
        whole += (d ? sep : 0) + n;
    }
    /* All of them when they fit; else the innermost that fit beside the marker of those left
    ** out. */
    size_t from = whole < size ? 0 : depth, total = 0;
    for (size_t d = depth; from > 0 && d-- > 0;) {
        size_t need = total + (total ? sep : 0) + part_len[d];
        if (need + (d > 0 ? sizeof ELIDED - 1 + sep : 0) >= size) {
            break;
        }
        total = need;
        from = d;
    }
    size_t w = 0;
    if (from > 0 && depth > 0) {
        memcpy(out + w, ELIDED, sizeof ELIDED - 1);
        w += sizeof ELIDED - 1;
    }
    for (size_t d = from; d < depth; d++) {
        if (w > 0) {
            memcpy(out + w, SEPARATOR, sep);
            w += sep;
        }
        memcpy(out + w, text + headings[open[d]].offset, part_len[d]);
        w += part_len[d];
    }
    out[w] = '\0';
    return w;
}

int32_t ingest_extracted_text(TrnEngine *e, const char *path, const char *text, size_t length,
                              TrnFileType type, int32_t chunk_size, int32_t overlap)
{
    if (!e || !path || !text) {
        return -1;
    }
    return chunk_and_ingest(e, path, text, (int64_t)length, chunk_size, overlap, type);
}
