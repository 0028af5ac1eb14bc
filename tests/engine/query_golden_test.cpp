// The semantic, text and regular-expression modes answer a fixed corpus exactly as recorded in
// tests/data/query_golden.txt: ids, order, scores, lines and snippet starts.
#include "tarnwick.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace
{

const char *const kFiles[][2] = {
    {"notes/cooking.txt",
     "Bake the bread at a high heat until the crust is brown. Let the dough "
     "rise twice before shaping it into loaves."},
    {"notes/garden.txt",
     "Water the tomatoes every morning in summer. Prune the roses in early "
     "spring and feed them with compost."},
    {"src/file_io.c",
     "int read_file(const char *path) { FILE *f = fopen(path, \"rb\");\n"
     "if (!f) return -1; /* the file cannot be opened */\nfclose(f); }"},
    {"src/net.c",
     "int open_socket(int port) { /* bind a listening socket on the port */\n"
     "return socket(AF_INET, SOCK_STREAM, 0); }"},
    {"docs/index.md",
     "# Database indexes\nA B-tree index speeds up lookups on a column. "
     "Create one with CREATE INDEX on the table."},
    {"docs/backup.md",
     "# Backups\nCopy the data directory while the server is stopped, or "
     "use the dump tool to write every table to a file."},
    {"docs/travel.txt",
     "The train leaves the station at nine and reaches the coast by noon; "
     "book the seats a week ahead."},
    {"docs/music.txt",
     "Tune the guitar before the concert. The second string often slips "
     "flat in a cold room."},
    {"src/sort.py",
     "def sort_files(paths):\n    # order the files by size, largest first\n"
     "    return sorted(paths, key=os.path.getsize, reverse=True)"},
    {"src/parse.go",
     "// ParseConfig reads the configuration file and returns its settings.\n"
     "func ParseConfig(path string) (Config, error) { return load(path) }"},
    {"notes/weather.txt",
     "Rain is expected on Tuesday with strong wind along the coast; the "
     "weekend will be dry and cold."},
    {"notes/health.txt",
     "Walk for thirty minutes a day and drink water; sleep eight hours "
     "before a long drive."},
};

std::string run_all(TrnEngine *e)
{
    struct Q {
        int32_t mode;
        const char *query;
    } queries[] = {
        {TRN_SEARCH_SEMANTIC, "how do I open a file"},
        {TRN_SEARCH_SEMANTIC, "database index lookups"},
        {TRN_SEARCH_TEXT, "the"},
        {TRN_SEARCH_TEXT, "FILE"},
        {TRN_SEARCH_REGEX, "fil(e|es)"},
        {TRN_SEARCH_REGEX, "^[a-z]+ "},
        {TRN_SEARCH_REGEX, "("},
    };
    std::string out;
    for (const Q &q : queries) {
        TrnResult r[10];
        int32_t n = trn_search(e, q.query, q.mode, 10, r);
        char line[160];
        snprintf(line, sizeof line, "%d %s: %d\n", q.mode, q.query, n);
        out += line;
        for (int32_t i = 0; i < n; i++) {
            std::string snippet(r[i].snippet, strnlen(r[i].snippet, 12));
            for (char &c : snippet) {
                c = c == '\n' ? '|' : c;
            }
            snprintf(line,
                     sizeof line,
                     "  %s %.4f %d %s\n",
                     r[i].doc_id,
                     r[i].score,
                     r[i].line_number,
                     snippet.c_str());
            out += line;
        }
    }
    return out;
}

TEST(QueryGolden, OlderModesAnswerAsBefore)
{
    TrnConfig cfg = {nullptr, nullptr, 0, 0, 0, 0};
    TrnEngine *e = trn_open(&cfg);
    for (const auto &f : kFiles) {
        trn_ingest_text(e, f[0], f[1], 64, 16);
    }
    trn_build_doc_index(e);
    std::ifstream golden(TRN_TEST_DATA_DIR "/query_golden.txt");
    std::stringstream want;
    want << golden.rdbuf();
    ASSERT_FALSE(want.str().empty());
    EXPECT_EQ(run_all(e), want.str());
    trn_close(e);
}

} // namespace
