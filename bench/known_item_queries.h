/*
** known_item_queries.h -- the query a person would write for a file, taken from its own text.
**
** Known-item queries written as people write them, each asked against the text with its own line
** taken out, so that no mode can find the query copied verbatim:
**   HTML      a reference page's one-line summary (the text after the dash in "NAME — summary"
**             right after the first heading), else the first heading (levels 1 to 4) without
**             its section number ("9.4. String Functions and Operators" asks "String Functions
**             and Operators"). Every line holding the query is removed from the page.
**   Markdown  the first "# " heading, removed.
**   Go        the first sentence of a function's doc comment ("//" lines right above a line
**             starting "func "), without the function's name when it opens the sentence
**             ("ReadFile reads the named file" asks "reads the named file").
**   Other     the first sentence of a "/" "**" doc comment (Javadoc, JSDoc, Doxygen) right above a
**   source    declaration with a parameter list, its markup read as text ("{@code x}" as "x").
**             For source, the comment lines that hold the sentence are removed, and one function
**             per file is drawn with the seed.
** Only queries of at least two words (four for source) count.
*/
#ifndef TRN_BENCH_KNOWN_ITEM_QUERIES_H
#define TRN_BENCH_KNOWN_ITEM_QUERIES_H

#include "tarnwick.h"

#include <random>
#include <string>
#include <vector>

struct KnownItem {
    std::string path;
    std::string text; /* the file's text with the query's lines removed */
    std::string query;
};

/* Writes it->query for a file of the given type (Go source by its ".go" path) and takes the
** query's lines out of it->text; false when the file gives no query. rng draws the function of a
** source file. */
bool known_item_query(TrnFileType type, KnownItem *it, std::mt19937 &rng);

/* s cut at each newline. */
std::vector<std::string> split_lines(const std::string &s);
/* s without leading and trailing spaces, tabs and carriage returns. */
std::string trim(const std::string &s);

#endif /* TRN_BENCH_KNOWN_ITEM_QUERIES_H */
