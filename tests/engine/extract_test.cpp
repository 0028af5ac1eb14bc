/*
** extract_test.cpp -- the text read from each kind of file: HTML as a reader sees it, the XML of
** DOCX, ODT and EPUB containers built here, PDF pages with their starts, and the verdicts for
** text that cannot be used.
*/
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include <zip.h>

namespace
{

using Members = std::vector<std::pair<std::string, std::string>>;

/* Writes a ZIP container with the given members, as an office suite or e-book tool would. */
void write_zip(const std::string &path, const Members &members)
{
    int error = 0;
    zip_t *z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(z, nullptr) << path;
    for (const auto &[name, bytes] : members) {
        zip_source_t *src = zip_source_buffer(z, bytes.data(), bytes.size(), 0);
        ASSERT_NE(src, nullptr);
        ASSERT_GE(zip_file_add(z, name.c_str(), src, ZIP_FL_ENC_UTF_8), 0) << name;
    }
    ASSERT_EQ(zip_close(z), 0) << path;
}

/* The extracted text, or the verdict's name in brackets. */
std::string text_of(const std::string &path, TrnFileType type)
{
    ExtractedText t;
    TrnFileStatus status = extract_file_text(path.c_str(), type, 0, &t);
    std::string out = status == TRN_FILE_STATUS_INDEXABLE
                          ? std::string(t.text, t.length)
                          : "[" + std::string(trn_file_status_name(status)) + "]";
    extracted_text_free(&t);
    return out;
}

TEST(ExtractHtml, ReadableTextWithoutMarkupScriptsOrStyles)
{
    const struct {
        const char *html;
        const char *text;
    } cases[] = {
        {"<p>Hi</p><script>x()</script>tail<b>bold</b>", "Hi\ntailbold\n"},
        {"<html><head><title>Guide</title><style>p{}</style></head><body>x</body></html>",
         "Guide\nx\n"},
        {"a &amp; b &lt;c&gt; &eacute;t&#233; &#x263A;",
         "a & b <c> \xC3\xA9t\xC3\xA9 \xE2\x98\xBA\n"},
        {"<h1>Title</h1><p>one\n   two</p><ul><li>x</li><li>y</li></ul>", "Title\none two\nx\ny\n"},
        {"<pre>keep\n  indent</pre>after", "keep\n  indent\nafter\n"},
        {"line<br>break", "line\nbreak\n"},
        {"<table><tr><td>a</td><td>b</td></tr></table>", "a b\n"},
        {"<p>unclosed <b>bold <i>both", "unclosed bold both\n"},
        {"<!-- hidden --><p>shown</p>", "shown\n"},
        {"x&nbsp;&nbsp;y", "x y\n"},
        {"", ""},
    };
    for (const auto &c : cases) {
        size_t n = 0;
        char *text = html_to_text(c.html, strlen(c.html), &n);
        EXPECT_EQ(std::string(text, n), c.text) << c.html;
        free(text);
    }
}

// Text that is not UTF-8 is read in the charset it declares, else as Windows-1252 (ISO-8859-1
// when it holds a byte Windows-1252 leaves undefined, or no byte where the two differ), and the
// charset is named.
TEST(ExtractText, OlderCharsetsAreConvertedAndNamed)
{
    TempDir dir;
    const struct {
        const char *name;
        const char *bytes;
        TrnFileType type;
        const char *text;
        const char *encoding;
    } cases[] = {
        {"plain.txt",
         "caf\xC3\xA9 already UTF-8",
         TRN_FILE_TYPE_TEXT,
         "caf\xC3\xA9 already UTF-8",
         "UTF-8"},
        {"latin1.txt",
         "caf\xE9 au lait, monsieur",
         TRN_FILE_TYPE_TEXT,
         "caf\xC3\xA9 au lait, monsieur",
         "ISO-8859-1"},
        {"quotes.md",
         "\x93quoted\x94 \x80 5 \x96 six",
         TRN_FILE_TYPE_MARKDOWN,
         "\xE2\x80\x9Cquoted\xE2\x80\x9D \xE2\x82\xAC 5 \xE2\x80\x93 six",
         "Windows-1252"},
        {"undefined.txt",
         "slash \xC0\xAF is \x81 old, one control character among more than a hundred bytes of "
         "text, which is allowed here",
         TRN_FILE_TYPE_TEXT,
         "slash \xC3\x80\xC2\xAF is \xC2\x81 old, one control character among more than a hundred "
         "bytes of text, which is allowed here",
         "ISO-8859-1"},
        {"cyrillic.xml",
         "<?xml version='1.0' encoding='koi8-r'?><t>\xF0\xD2\xC9\xD7\xC5\xD4</t>",
         TRN_FILE_TYPE_TEXT,
         "<?xml version='1.0' encoding='koi8-r'?><t>\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5"
         "\xD1\x82</t>",
         "KOI8-R"},
        {"cyrillic.html",
         "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=KOI8-R\"><p>\xF0\xD2\xC9"
         "\xD7\xC5\xD4 \xD7\xD3\xC5\xCD \xD7\xD3\xC5\xCD</p>",
         TRN_FILE_TYPE_HTML,
         "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 \xD0\xB2\xD1\x81"
         "\xD0\xB5\xD0\xBC \xD0\xB2\xD1\x81\xD0\xB5\xD0\xBC\n",
         "KOI8-R"},
        {"latin.html",
         "<meta charset=\"iso-8859-1\"><p>caf\xE9 cr\xE8me br\xFBl\xE9"
         "e</p>",
         TRN_FILE_TYPE_HTML,
         "caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9\x65\n",
         "ISO-8859-1"},
        /* A declaration iconv does not know, or that the bytes break, falls back. */
        {"unknown.txt",
         "<?xml encoding=\"no-such-set\"?>caf\xE9 caf\xE9",
         TRN_FILE_TYPE_TEXT,
         "<?xml encoding=\"no-such-set\"?>caf\xC3\xA9 caf\xC3\xA9",
         "ISO-8859-1"},
    };
    for (const auto &c : cases) {
        write_file_text(dir.file(c.name), c.bytes);
        ExtractedText t;
        ASSERT_EQ(extract_file_text(dir.file(c.name).c_str(), c.type, 0, &t),
                  (TrnFileStatus)TRN_FILE_STATUS_INDEXABLE)
            << c.name;
        EXPECT_EQ(std::string(t.text, t.length), c.text) << c.name;
        EXPECT_STREQ(t.encoding, c.encoding) << c.name;
        char named[32] = "";
        EXPECT_TRUE(file_charset(dir.file(c.name).c_str(), 0, named, sizeof named));
        EXPECT_STREQ(named, c.encoding) << c.name;
        extracted_text_free(&t);
    }
}

TEST(ExtractContainers, DocxOdtAndEpubGiveTheirParagraphs)
{
    TempDir dir;
    write_zip(dir.file("report.docx"),
              {{"[Content_Types].xml", "<Types/>"},
               {"word/document.xml",
                "<?xml version=\"1.0\"?><w:document xmlns:w=\"http://schemas.openxmlformats.org/"
                "wordprocessingml/2006/main\"><w:body><w:p><w:r><w:t>Quarterly</w:t></w:r><w:r>"
                "<w:t xml:space=\"preserve\"> report</w:t></w:r></w:p><w:p><w:r><w:t>Sales</w:t>"
                "<w:tab/><w:t>rose &amp; fell</w:t></w:r></w:p><w:p><w:del><w:r><w:delText>gone"
                "</w:delText></w:r></w:del></w:p><w:p><w:r><w:t><![CDATA[a < b]]></w:t></w:r></w:p>"
                "</w:body></w:document>"}});
    EXPECT_EQ(text_of(dir.file("report.docx"), TRN_FILE_TYPE_DOCX),
              "Quarterly report\nSales\trose & fell\na < b\n");

    write_zip(dir.file("notes.odt"),
              {{"mimetype", "application/vnd.oasis.opendocument.text"},
               {"content.xml",
                "<?xml version=\"1.0\"?><office:document-content "
                "xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
                "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\"><office:body>"
                "<office:text><text:h>Meeting notes</text:h><text:p>Budget<text:s text:c=\"3\"/>"
                "approved<text:line-break/>next <text:span>week</text:span></text:p>"
                "</office:text></office:body></office:document-content>"}});
    EXPECT_EQ(text_of(dir.file("notes.odt"), TRN_FILE_TYPE_ODT),
              "Meeting notes\nBudget   approved\nnext week\n");

    write_zip(dir.file("book.epub"),
              {{"mimetype", "application/epub+zip"},
               {"META-INF/container.xml",
                "<container><rootfiles><rootfile full-path=\"OEBPS/content.opf\"/></rootfiles>"
                "</container>"},
               {"OEBPS/content.opf",
                "<package><manifest><item id=\"c2\" href=\"text/two.xhtml\"/>"
                "<item id=\"c1\" href=\"text/chapter%20one.xhtml\"/></manifest>"
                "<spine><itemref idref=\"c1\"/><itemref idref=\"c2\"/></spine></package>"},
               {"OEBPS/text/chapter one.xhtml",
                "<html xmlns=\"http://www.w3.org/1999/xhtml\"><body><h1>Chapter One</h1>"
                "<p>It was a dark night.</p></body></html>"},
               {"OEBPS/text/two.xhtml", "<html><body><p>Morning came.</p></body></html>"}});
    EXPECT_EQ(text_of(dir.file("book.epub"), TRN_FILE_TYPE_EPUB),
              "Chapter One\nIt was a dark night.\nMorning came.\n");

    write_zip(dir.file("empty.docx"), {{"word/other.xml", "<x/>"}});
    EXPECT_EQ(text_of(dir.file("empty.docx"), TRN_FILE_TYPE_DOCX), "[Unreadable]");
    write_zip(
        dir.file("lost.epub"),
        {{"mimetype", "application/epub+zip"},
         {"META-INF/container.xml", "<container><rootfiles><rootfile/></rootfiles></container>"}});
    EXPECT_EQ(text_of(dir.file("lost.epub"), TRN_FILE_TYPE_EPUB), "[Unreadable]");
    write_file_text(dir.file("fake.epub"), "not a zip container at all");
    EXPECT_EQ(text_of(dir.file("fake.epub"), TRN_FILE_TYPE_EPUB), "[Unreadable]");
}

/* A PDF with one page per text, with a correct cross-reference table. Objects: 1 catalog,
** 2 page tree, 3 font, then a page and its content stream for each text. */
std::string pdf_with_pages(const std::vector<std::string> &pages)
{
    std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>",
                                        "",
                                        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"};
    std::string kids;
    for (const std::string &shown : pages) {
        size_t page_obj = objects.size() + 1;
        kids += std::to_string(page_obj) + " 0 R ";
        std::string content = "BT /F1 18 Tf 20 100 Td (" + shown + ") Tj ET";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 400 144] /Contents "
                          + std::to_string(page_obj + 1)
                          + " 0 R /Resources << /Font << /F1 3 0 R >> >> >>");
        objects.push_back("<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content
                          + "\nendstream");
    }
    objects[1] =
        "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages.size()) + " >>";
    std::string pdf = "%PDF-1.4\n";
    std::vector<size_t> offsets;
    for (size_t i = 0; i < objects.size(); i++) {
        offsets.push_back(pdf.size());
        pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    size_t xref = pdf.size();
    pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t off : offsets) {
        char line[32];
        snprintf(line, sizeof line, "%010zu 00000 n \n", off);
        pdf += line;
    }
    pdf += "trailer\n<< /Size " + std::to_string(objects.size() + 1) + " /Root 1 0 R >>\n";
    pdf += "startxref\n" + std::to_string(xref) + "\n%%EOF\n";
    return pdf;
}

TEST(ExtractPdf, PagesKeepTheirStartsForThePreview)
{
    TempDir dir;
    write_file_text(dir.file("three.pdf"),
                    pdf_with_pages({"First page text", "", "Third page text"}));
    ExtractedText t;
    ASSERT_EQ(extract_file_text(dir.file("three.pdf").c_str(), TRN_FILE_TYPE_PDF, 0, &t),
              (TrnFileStatus)TRN_FILE_STATUS_INDEXABLE);
    ASSERT_EQ(t.page_count, 3);
    std::string text(t.text, t.length);
    EXPECT_EQ(text, "First page text\n\nThird page text\n\n");
    EXPECT_EQ(t.page_starts[0], 0u);
    EXPECT_EQ(t.page_starts[1], t.page_starts[2]); /* the empty page takes no bytes */
    EXPECT_EQ(text.substr(t.page_starts[2]), "Third page text\n\n");
    /* Lines 1-2 are page 1, line 3 on page 3 (the empty page 2 holds no line). */
    const int32_t expected[][2] = {{0, 1}, {1, 1}, {2, 1}, {3, 3}, {4, 3}, {99, 3}};
    for (const auto &e : expected) {
        EXPECT_EQ(page_for_line(&t, e[0]), e[1]) << "line " << e[0];
    }
    extracted_text_free(&t);

    /* A page whose text begins with an empty line: that line is the page's first. */
    char lines[] = "a\n\nb\n";
    uint64_t starts[] = {0, 2};
    ExtractedText blank_first = {lines, 5, starts, 2, ""};
    EXPECT_EQ(page_for_line(&blank_first, 1), 1);
    EXPECT_EQ(page_for_line(&blank_first, 2), 2);
    EXPECT_EQ(page_for_line(&blank_first, 3), 2);

    write_file_text(dir.file("blank.pdf"), pdf_with_pages({""}));
    EXPECT_EQ(text_of(dir.file("blank.pdf"), TRN_FILE_TYPE_PDF), "[Too short]");
    write_file_text(dir.file("broken.pdf"), "%PDF-1.4 this is not a document");
    EXPECT_EQ(text_of(dir.file("broken.pdf"), TRN_FILE_TYPE_PDF), "[Unreadable]");
}

TEST(ExtractText, VerdictsForTextThatCannotBeUsed)
{
    TempDir dir;
    const struct {
        const char *name;
        std::string bytes;
        TrnFileType type;
        const char *text;
    } cases[] = {
        {"ok.txt", "\xEF\xBB\xBFplain text here", TRN_FILE_TYPE_TEXT, "plain text here"},
        {"controls.txt", "\x01\x02 looks like text \x03\xff", TRN_FILE_TYPE_TEXT, "[Binary]"},
        {"short.txt", "  ten chars \n\n ", TRN_FILE_TYPE_TEXT, "[Too short]"},
        // Ten visible characters: white space of every kind and the continuation bytes of UTF-8
        // never make up the eleventh.
        {"spaces.txt", "ten chars!!\r\n\t\f\v \r\n", TRN_FILE_TYPE_TEXT, "[Too short]"},
        {"accents.txt",
         "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9",
         TRN_FILE_TYPE_TEXT,
         "[Too short]"},
        {"eleven.py", "x = 123456789", TRN_FILE_TYPE_SOURCE, "x = 123456789"},
        {"nul.txt", std::string("text with a \0 byte inside", 25), TRN_FILE_TYPE_TEXT, "[Binary]"},
        {"pic.png", "\x89PNG\r\n", TRN_FILE_TYPE_BINARY, "[Binary]"},
    };
    for (const auto &c : cases) {
        write_file_bytes(dir.file(c.name), c.bytes.data(), c.bytes.size());
        EXPECT_EQ(text_of(dir.file(c.name), c.type), c.text) << c.name;
    }
    EXPECT_EQ(text_of(dir.file("absent.txt"), TRN_FILE_TYPE_TEXT), "[Unreadable]");
    std::string big(2000, 'a');
    write_file_text(dir.file("big.txt"), big);
    ExtractedText t;
    EXPECT_EQ(extract_file_text(dir.file("big.txt").c_str(), TRN_FILE_TYPE_TEXT, 1999, &t),
              (TrnFileStatus)TRN_FILE_STATUS_TOO_LARGE);
    extracted_text_free(&t);
}

} // namespace
