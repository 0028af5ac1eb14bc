/*
** filetype_test.cpp -- classification by special names, the three extension tables and content
** sniffing.
*/
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

namespace
{

std::string upper(std::string s)
{
    for (char &c : s) {
        c = (char)toupper((unsigned char)c);
    }
    return s;
}

TEST(FileType, TableEntriesDecideByNameInAnyCase)
{
    /* Entries from each table, first and last ones included; no file exists under these names,
    ** so the name alone must decide. */
    const struct {
        const char *ext;
        TrnFileType type;
    } entries[] = {
        {".png", TRN_FILE_TYPE_BINARY},
        {".o", TRN_FILE_TYPE_BINARY},
        {".woff2", TRN_FILE_TYPE_BINARY},
        {".sqlite", TRN_FILE_TYPE_BINARY},
        {".wal", TRN_FILE_TYPE_BINARY},
        {".stringsdict", TRN_FILE_TYPE_BINARY},
        {".txt", TRN_FILE_TYPE_TEXT},
        {".env", TRN_FILE_TYPE_TEXT},
        {".properties", TRN_FILE_TYPE_TEXT},
        {".c", TRN_FILE_TYPE_SOURCE},
        {".R", TRN_FILE_TYPE_SOURCE},
        {".json", TRN_FILE_TYPE_SOURCE},
        {".dockerfile", TRN_FILE_TYPE_SOURCE},
        {".entitlements", TRN_FILE_TYPE_SOURCE},
    };
    const std::string dir = "/nonexistent/dir/file";
    for (const auto &e : entries) {
        EXPECT_EQ(trn_detect_file_type((dir + e.ext).c_str()), e.type) << e.ext;
        EXPECT_EQ(trn_detect_file_type((dir + upper(e.ext)).c_str()), e.type) << e.ext;
    }
    const struct {
        const char *path;
        TrnFileType type;
    } named[] = {
        {"/d/paper.PDF", TRN_FILE_TYPE_PDF},
        {"/d/index.htm", TRN_FILE_TYPE_HTML},
        {"/d/index.HTML", TRN_FILE_TYPE_HTML},
        {"/d/report.docx", TRN_FILE_TYPE_DOCX},
        {"/d/notes.md", TRN_FILE_TYPE_MARKDOWN},
        {"/d/x.Markdown", TRN_FILE_TYPE_MARKDOWN},
        {"/d/notes.TXT", TRN_FILE_TYPE_TEXT},
        {"/d/main.PY", TRN_FILE_TYPE_SOURCE},
        {"/d/photo.JPG", TRN_FILE_TYPE_BINARY},
        {"/d/unknown.xyz", TRN_FILE_TYPE_UNKNOWN},
        {"/d/archive.tar.gz", TRN_FILE_TYPE_BINARY},
    };
    for (const auto &n : named) {
        EXPECT_EQ(trn_detect_file_type(n.path), n.type) << n.path;
    }
}

TEST(FileType, SpecialNamesAndTheWholePathExtension)
{
    const struct {
        const char *path;
        TrnFileType type;
    } cases[] = {
        {"/d/.DS_Store", TRN_FILE_TYPE_BINARY},
        {"/d/Thumbs.db", TRN_FILE_TYPE_BINARY},
        {"/d/.gitkeep", TRN_FILE_TYPE_BINARY},
        {"/d/Makefile", TRN_FILE_TYPE_TEXT},
        {"Dockerfile", TRN_FILE_TYPE_TEXT},
        {"/d/LICENSE", TRN_FILE_TYPE_TEXT},
        {"/d/CONTRIBUTING", TRN_FILE_TYPE_TEXT},
        {"/d/CMakeLists.txt", TRN_FILE_TYPE_TEXT},
        /* Names are case-sensitive: these go to sniffing, and no such file exists. */
        {"/d/makefile", TRN_FILE_TYPE_UNKNOWN},
        {"/d/readme", TRN_FILE_TYPE_UNKNOWN},
        /* The last dot of the whole path: ".b/notes" matches no table, so sniffing decides. */
        {"/a.b/notes", TRN_FILE_TYPE_UNKNOWN},
        /* ... while a special name still wins through the name list after the tables. */
        {"/a.b/README", TRN_FILE_TYPE_TEXT},
        {"/a.pdf/README", TRN_FILE_TYPE_TEXT},
        {"/a.txt/thing", TRN_FILE_TYPE_UNKNOWN},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(trn_detect_file_type(c.path), c.type) << c.path;
    }
    EXPECT_EQ(trn_detect_file_type(nullptr), (TrnFileType)TRN_FILE_TYPE_UNKNOWN);
}

TEST(FileType, ContentSniffingOfNamesThatSayNothing)
{
    TempDir dir;
    const struct {
        const char *name;
        std::string bytes;
        TrnFileType type;
    } cases[] = {
        {"empty", "", TRN_FILE_TYPE_UNKNOWN},
        {"three", "abc", TRN_FILE_TYPE_UNKNOWN},
        {"four", "abcd", TRN_FILE_TYPE_TEXT},
        {"accents", "caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBB", TRN_FILE_TYPE_TEXT},
        {"nul",
         std::string("0123456\0"
                     "89abcdef",
                     16),
         TRN_FILE_TYPE_BINARY},
        {"five_ctrl",
         std::string("ab\x01\x01\x01\x01\x01"
                     "cdefghijk"),
         TRN_FILE_TYPE_BINARY},
        {"four_ctrl",
         std::string("ab\x01\x01\x01\x01"
                     "cdefghijkl"),
         TRN_FILE_TYPE_TEXT},
        {"escapes", "\x1b[1m\t\r\n\v\f\x1b[0m ok", TRN_FILE_TYPE_TEXT},
        {"png", "\x89PNG\r\n\x1a\n....", TRN_FILE_TYPE_BINARY},
        {"photo", "\xFF\xD8\xFF\xE0 jfif", TRN_FILE_TYPE_BINARY},
        {"gif", "GIF89a......", TRN_FILE_TYPE_BINARY},
        {"zip", "PK\x03\x04 office", TRN_FILE_TYPE_BINARY},
        {"elf",
         "\x7F"
         "ELF\x02\x01\x01",
         TRN_FILE_TYPE_BINARY},
        {"macho", "\xCF\xFA\xED\xFE....", TRN_FILE_TYPE_BINARY},
        {"macho_be", "\xFE\xED\xFA\xCF....", TRN_FILE_TYPE_BINARY},
        {"fat", "\xCA\xFE\xBA\xBE....", TRN_FILE_TYPE_BINARY},
        {"gzip", "\x1F\x8B\x08 abc", TRN_FILE_TYPE_BINARY},
        {"riff", "RIFF..WAVE", TRN_FILE_TYPE_BINARY},
        {"riff_short", "RIFF.", TRN_FILE_TYPE_TEXT}, /* RIFF counts from 6 bytes on */
        {"movie", "....ftypisom", TRN_FILE_TYPE_BINARY},
        /* Names that say nothing are read when their content is text. */
        {"README.Debian", "Notes on the Debian package\n", TRN_FILE_TYPE_TEXT},
        {"NEWS", "Version 2.1: fixes\n", TRN_FILE_TYPE_TEXT},
        {"TODO", "- write the manual\n", TRN_FILE_TYPE_TEXT},
        {"parser.Bugs", "Known faults of the parser\n", TRN_FILE_TYPE_TEXT},
        {"late_nul", std::string(300, 'a') + std::string("\0", 1), TRN_FILE_TYPE_BINARY},
        /* Only the first 512 bytes are looked at. */
        {"later_nul", std::string(512, 'a') + std::string("\0", 1), TRN_FILE_TYPE_TEXT},
    };
    for (const auto &c : cases) {
        write_file_bytes(dir.file(c.name), c.bytes.data(), c.bytes.size());
        EXPECT_EQ(trn_detect_file_type(dir.file(c.name).c_str()), c.type) << c.name;
    }
    /* The user's extra extensions override the tables when the content is text. */
    write_file_text(dir.file("icon.svg"), "<svg xmlns='http://www.w3.org/2000/svg'/>");
    write_file_bytes(dir.file("blob.svg"), "\x89PNG\r\n\x1a\n", 8);
    const char *const extra[] = {"SVG"};
    TrnFileStatus status = TRN_FILE_STATUS_INDEXABLE;
    EXPECT_EQ(trn_detect_file_type(dir.file("icon.svg").c_str()),
              (TrnFileType)TRN_FILE_TYPE_BINARY);
    EXPECT_EQ(classify_file(dir.file("icon.svg").c_str(), extra, 1, &status),
              (TrnFileType)TRN_FILE_TYPE_TEXT);
    EXPECT_EQ(status, (TrnFileStatus)TRN_FILE_STATUS_INDEXABLE);
    EXPECT_EQ(classify_file(dir.file("blob.svg").c_str(), extra, 1, &status),
              (TrnFileType)TRN_FILE_TYPE_BINARY);
    EXPECT_EQ(status, (TrnFileStatus)TRN_FILE_STATUS_BINARY);
    EXPECT_EQ(classify_file(dir.file("gone").c_str(), extra, 1, &status),
              (TrnFileType)TRN_FILE_TYPE_UNKNOWN);
    EXPECT_EQ(status, (TrnFileStatus)TRN_FILE_STATUS_UNREADABLE);
    /* A JPEG named like text is still text: the name decides first. */
    write_file_text(dir.file("photo.txt"), "\xFF\xD8\xFF\xE0 jfif");
    EXPECT_EQ(trn_detect_file_type(dir.file("photo.txt").c_str()), (TrnFileType)TRN_FILE_TYPE_TEXT);
}

TEST(FileType, NamesIndexabilityAndListMatching)
{
    const struct {
        TrnFileType type;
        const char *name;
        int32_t indexable;
    } cases[] = {
        {0, "Text", 1},
        {1, "PDF", 1},
        {2, "HTML", 1},
        {3, "Source", 1},
        {4, "DOCX", 1},
        {5, "Markdown", 1},
        {6, "ODT", 1},
        {7, "EPUB", 1},
        {8, "Unknown", 0},
        {98, "Binary", 0},
        {99, "Unknown", 0},
        {0xFFFFFFFFu, "Unknown", 0},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(trn_file_type_name(c.type), c.name) << c.type;
        EXPECT_EQ(trn_is_indexable(c.type), c.indexable) << c.type;
    }
    const char *const list[] = {".a", ".Bc", nullptr};
    const char *const empty[] = {nullptr};
    EXPECT_EQ(in_list_casecmp(".bC", list), 1);
    EXPECT_EQ(in_list_casecmp(".A", list), 1);
    EXPECT_EQ(in_list_casecmp(".b", list), 0);
    EXPECT_EQ(in_list_casecmp("", list), 0);
    EXPECT_EQ(in_list_casecmp(".a", empty), 0);
}

} // namespace
