/*
** document_fixtures.h -- documents built byte by byte for the extraction and result tests: ZIP
** containers (DOCX, ODT, EPUB) and PDFs of given pages.
*/
#ifndef TRN_TESTS_DOCUMENT_FIXTURES_H
#define TRN_TESTS_DOCUMENT_FIXTURES_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <zip.h>

using Members = std::vector<std::pair<std::string, std::string>>;

/* Writes a ZIP container with the given members, as an office suite or e-book tool would. */
inline void write_zip(const std::string &path, const Members &members)
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

/* A PDF with one page per text (its lines apart by '\n'), with a correct cross-reference table.
** Objects: 1 catalog, 2 page tree, 3 font, then a page and its content stream for each text. */
inline std::string pdf_with_pages(const std::vector<std::string> &pages)
{
    std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>",
                                        "",
                                        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"};
    std::string kids;
    for (const std::string &shown : pages) {
        size_t page_obj = objects.size() + 1;
        kids += std::to_string(page_obj) + " 0 R ";
        std::string content = "BT /F1 18 Tf 20 760 Td (";
        for (char c : shown) {
            content += c == '\n' ? std::string(") Tj 0 -24 Td (") : std::string(1, c);
        }
        content += ") Tj ET";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 400 800] /Contents "
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

#endif
