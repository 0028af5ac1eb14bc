/*
** vimgrep.h -- search results as jump-list lines, "path:line:column:text", the form editors read
** into their quickfix lists and grep-like tools print.
*/
#ifndef TRN_CLI_VIMGREP_H
#define TRN_CLI_VIMGREP_H

#include "tarnwick.h"

#include <cstdint>
#include <string>

// One line per result, best first. The path is relative to cwd when the file lies below it (cwd
// as getcwd gives it: resolved, like the indexed paths). Line and column (1-based, in bytes) are
// where the query (without its narrowing words) matches in the file, looked for from the line the
// result starts on: as a substring in text mode, the expression in regex mode, the first query
// word otherwise.
// Without a match there, or for files whose text is extracted (PDF, HTML, ...), they are the
// result's own line and column 1. The text is the file's line, or the snippet's first line for
// an extracted file, made fit for a terminal.
std::string vimgrep_lines(const TrnResult *results, int32_t n, const std::string &query,
                          int32_t mode, const std::string &cwd);

#endif
