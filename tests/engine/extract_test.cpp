/*
** extract_test.cpp -- the text read from each kind of file: HTML as a reader sees it, the XML of
** DOCX, ODT and EPUB containers built here, PDF pages with their starts, and the verdicts for
** text that cannot be used.
*/
#include "document_fixtures.h"
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

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
    /* Text nested 100,000 elements deep was dropped and the file called too short. */
    std::string deep;
    for (int i = 0; i < 100000; i++) {
        deep += "<span>";
    }
    deep += "deeply nested words";
    size_t n = 0;
    char *text = html_to_text(deep.data(), deep.size(), &n);
    EXPECT_EQ(std::string(text, n), "deeply nested words\n");
    free(text);
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

/* Runs work in a child and returns its verdict (its exit status; 0 for good) and the largest
** resident size, in MB, of any child so far. */
template <typename Work>
std::pair<int, long> in_child(Work work)
{
    pid_t pid = fork();
    if (pid == 0) {
        _exit(work());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    struct rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            usage.ru_maxrss / 1024};
}

/* An e-book whose spine named one large chapter hundreds of times grew to gigabytes and ended
** the run, as did a document of dense XML; a spine naming a chapter thousands of times took
** quadratic time. Each member is now read once, as a stream, and the text cut at the limit; a
** document that needs more memory than there is fails alone. */
TEST(ExtractContainers, HostileArchivesAreCutAtTheLimitInBoundedMemory)
{
    TempDir dir;
    constexpr uint64_t LIMIT = 1 << 20;
    {
        std::string chapter = "<html><body>";
        while (chapter.size() < (4u << 20)) {
            chapter += "<p>the same long chapter, which is read only once</p>";
        }
        chapter += "</body></html>";
        std::string spine;
        for (int i = 0; i < 2000; i++) {
            spine += "<itemref idref=\"big\"/><itemref idref=\"small\"/><itemref idref=\"again\"/>";
        }
        write_zip(dir.file("amplify.epub"),
                  {{"META-INF/container.xml",
                    "<container><rootfiles><rootfile full-path=\"content.opf\"/></rootfiles>"
                    "</container>"},
                   {"content.opf",
                    "<package><manifest><item id=\"big\" href=\"big.xhtml\"/><item id=\"small\" "
                    "href=\"small.xhtml\"/><item id=\"again\" href=\"big.xhtml#part2\"/>"
                    "</manifest><spine>"
                        + spine + "</spine></package>"},
                   {"big.xhtml", chapter},
                   {"small.xhtml", "<p>a small chapter named again and again</p>"}});
        std::string xml = "<w:document xmlns:w=\"urn:w\"><w:body>";
        while (xml.size() < (12u << 20)) {
            xml += "<w:p><w:r><w:t>dense words of one paragraph</w:t></w:r></w:p>";
        }
        xml += "</w:body></w:document>";
        write_zip(dir.file("dense.docx"), {{"word/document.xml", xml}});
        write_file_text(dir.file("plain.txt"), "the plain file beside them\n");
        std::string exact;
        while (exact.size() < LIMIT) {
            exact += "fits exactly ";
        }
        exact.resize(LIMIT); /* at the limit is not over it */
        write_file_text(dir.file("exact.txt"), exact);
    }
    for (const char *name : {"amplify.epub", "dense.docx"}) {
        const std::string path = dir.file(name);
        TrnFileType type = strstr(name, "epub") ? TRN_FILE_TYPE_EPUB : TRN_FILE_TYPE_DOCX;
        auto [verdict, peak] = in_child([&path, type, LIMIT] {
            ExtractedText t;
            TrnFileStatus status = extract_file_text(path.c_str(), type, LIMIT, &t);
            bool cut = status == TRN_FILE_STATUS_INDEXABLE && t.cut && t.length <= LIMIT
                       && t.length > LIMIT - 4096 && valid_utf8((const uint8_t *)t.text, t.length);
            extracted_text_free(&t);
            return cut ? 0 : 3;
        });
        EXPECT_EQ(verdict, 0) << name;
        /* 11 MB measured; the text alone reached gigabytes when chapters were read again and
        ** documents parsed whole. */
        EXPECT_LT(peak, 48) << name;
    }
    /* The small chapter came after the big one was cut: a larger limit shows it exactly once. */
    std::string text = text_of(dir.file("amplify.epub"), TRN_FILE_TYPE_EPUB);
    size_t first = text.find("named again");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(first, text.rfind("named again"));

    /* The listing says why a file's text stops short. */
    TrnWalkOptions opts{};
    opts.max_file_size = LIMIT;
    TrnFileList *list = trn_list_dir_files_ex(nullptr, dir.path().c_str(), &opts);
    int said = 0;
    for (int32_t i = 0; i < list->count; i++) {
        const TrnFileInfo &f = list->entries[i];
        bool cut = strstr(f.reason, "cut at 1048576 bytes") != nullptr;
        EXPECT_EQ(cut, strcmp(f.name, "plain.txt") != 0 && strcmp(f.name, "exact.txt") != 0)
            << f.name << ": " << f.reason;
        said += cut && f.status == TRN_FILE_STATUS_INDEXABLE ? 1 : 0;
    }
    EXPECT_EQ(said, 2);
    trn_free_file_list(list);

#if !defined(__SANITIZE_ADDRESS__)
    /* With a few MB of address space left the dense document fails alone: the process goes on
    ** and reads the next file. */
    const std::string dense = dir.file("dense.docx"), plain = dir.file("plain.txt");
    auto [verdict, peak] = in_child([&dense, &plain] {
        FILE *statm = fopen("/proc/self/statm", "r");
        unsigned long pages = 0;
        if (!statm || fscanf(statm, "%lu", &pages) != 1) {
            return 4;
        }
        fclose(statm);
        struct rlimit limit;
        limit.rlim_cur = limit.rlim_max = pages * (unsigned long)sysconf(_SC_PAGESIZE) + (2 << 20);
        setrlimit(RLIMIT_AS, &limit);
        ExtractedText t;
        TrnFileStatus big = extract_file_text(dense.c_str(), TRN_FILE_TYPE_DOCX, 1ull << 30, &t);
        extracted_text_free(&t);
        TrnFileStatus small = extract_file_text(plain.c_str(), TRN_FILE_TYPE_TEXT, 0, &t);
        extracted_text_free(&t);
        return big == TRN_FILE_STATUS_UNREADABLE && small == TRN_FILE_STATUS_INDEXABLE ? 0 : 5;
    });
    EXPECT_EQ(verdict, 0);
    (void)peak;
#endif
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
    /* Each page begins with a form feed line, so a search can tell pages from the text alone. */
    EXPECT_EQ(text, "\f\nFirst page text\n\f\n\f\nThird page text\n");
    EXPECT_EQ(text.substr(t.page_starts[0]), text.substr(2));
    EXPECT_EQ(t.page_starts[1] + 2, t.page_starts[2]); /* the empty page is its form feed line */
    EXPECT_EQ(text.substr(t.page_starts[2]), "Third page text\n");
    /* Lines 1-3 are page 1 (line 3 is page 2's form feed line), 4 page 2, 5 on page 3. */
    const int32_t expected[][2] = {{0, 1}, {2, 1}, {3, 1}, {4, 2}, {5, 3}, {99, 3}};
    for (const auto &e : expected) {
        EXPECT_EQ(page_for_line(&t, e[0]), e[1]) << "line " << e[0];
    }
    extracted_text_free(&t);

    /* A page whose text begins with an empty line: that line is the page's first. */
    char lines[] = "a\n\nb\n";
    uint64_t starts[] = {0, 2};
    ExtractedText blank_first = {lines, 5, starts, 2, "", 0};
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
