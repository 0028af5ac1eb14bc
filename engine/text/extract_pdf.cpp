/*
** extract_pdf.cpp -- the text of a PDF through poppler's C++ interface (pdf_extract).
**
** Each page begins with a line holding a form feed alone, then its text in reading order, ending
** with a line feed; a form feed inside a page's text becomes a line feed. So the text itself says
** where its pages begin: a search finds a hit's page and its line on that page from the chunks of
** the file (pdf_pages in snippets.cpp), and the page's first text line is line 1 on it. The offset
** where each page's text starts is kept as well, for the preview (page_for_line).
**
** poppler's interface hands out standard containers, so this one file is built with exceptions:
** a std::bad_alloc from poppler becomes the engine's oom_abort, and nothing else is thrown here.
** poppler's own diagnostics about damaged files are silenced; the caller reports UNREADABLE.
*/
#include "files.h"
#include "internal.h"

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <cstring>
#include <memory>
#include <new>

namespace
{

void quiet(const std::string &, void *) {}

void append(ExtractedText *out, size_t *capacity, const char *s, size_t n)
{
    if (out->length + n + 1 > *capacity) {
        size_t c = *capacity ? *capacity : 4096;
        while (c < out->length + n + 1) {
            c = xmul(c, 2);
        }
        out->text = static_cast<char *>(xrealloc(out->text, c));
        *capacity = c;
    }
    memcpy(out->text + out->length, s, n);
    out->length += n;
    out->text[out->length] = '\0';
}

} // namespace

bool pdf_extract(const char *path, ExtractedText *out)
{
    try {
        poppler::set_debug_error_function(quiet, nullptr);
        std::unique_ptr<poppler::document> doc(poppler::document::load_from_file(path));
        if (!doc || doc->is_locked()) {
            return false;
        }
        int pages = doc->pages();
        if (pages < 1) {
            return false;
        }
        size_t capacity = 0;
        append(out, &capacity, "", 0);
        out->page_starts = static_cast<uint64_t *>(xcalloc((size_t)pages, sizeof(uint64_t)));
        out->page_count = pages;
        for (int i = 0; i < pages; i++) {
            append(out, &capacity, "\f\n", 2);
            out->page_starts[i] = out->length;
            std::unique_ptr<poppler::page> page(doc->create_page(i));
            if (!page) {
                continue;
            }
            /* Reading order, without the spaces and blank lines that mimic the layout. */
            poppler::byte_array utf8 =
                page->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout).to_utf8();
            size_t n = utf8.size();
            while (n > 0 && (utf8[n - 1] == '\n' || utf8[n - 1] == '\f' || utf8[n - 1] == ' ')) {
                n--;
            }
            if (n == 0) {
                continue; /* an empty page is its form feed line alone */
            }
            for (size_t j = 0; j < n; j++) {
                if (utf8[j] == '\f') {
                    utf8[j] = '\n';
                }
            }
            append(out, &capacity, utf8.data(), n);
            append(out, &capacity, "\n", 1);
        }
        return true;
    } catch (const std::bad_alloc &) {
        oom_abort();
    }
    return false;
}
