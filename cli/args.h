/*
** args.h -- the command line of tarnwick-cli: its commands, options and usage text.
*/
#ifndef TRN_CLI_ARGS_H
#define TRN_CLI_ARGS_H

#include "tarnwick.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// A command line that cannot be understood; main answers it with exit status 2.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A query the engine cannot run (an invalid regular expression); exit status 2 like a usage
// error, but its line stands alone, without the pointer to --help.
class QueryError : public UsageError
{
public:
    using UsageError::UsageError;
};

// Anything else that went wrong; main answers it with exit status 1.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Work stopped by a signal (Ctrl+C) after what it had committed; main prints the line and exits
// with 128 + the signal's number, as a shell does for a program the signal ended.
class Interrupted : public std::runtime_error
{
public:
    Interrupted(int signal_number, const std::string &line)
        : std::runtime_error(line), signal(signal_number)
    {
    }
    int signal;
};

struct Options {
    // "index", "update", "watch", "search", "prompt", "files", "stats", "remove", "compact",
    // "embed", "train", "mcp"
    std::string command;
    std::vector<std::string> operands;
    // index, update, watch: absent means the application's settings ("chunkSize", "overlap").
    std::optional<int32_t> chunk_size;
    std::optional<int32_t> overlap;
    // index, files: which files are read. Absent (empty) means the application's settings
    // ("extraExtensions", "excludePatterns", "maxFileSizeMB"), or the engine's defaults in the
    // build without the application model.
    std::optional<std::string> extensions;   // --extensions "org, rst"
    std::vector<std::string> excludes;       // --exclude PATTERN, repeatable; replace defaults
    std::optional<int32_t> max_file_size_mb; // --max-file-size MB
    std::string weights; // empty: the application's choice (or the random encoder)
    // search, prompt: the query operand with the words of --type, --in and --modified added.
    std::string query;
    int32_t mode = TRN_SEARCH_HYBRID; // the engine's search mode (trn_search's mode argument)
    int32_t k = 10;                   // search: files, or passages with all_chunks
    bool all_chunks = false;          // search: one row per matching passage instead of per file
    std::string scope = "top5";       // prompt: "pinned", "top5" or "all"
    bool json = false;
    std::vector<std::string> folders; // mcp: --folder DIR, repeatable
    bool vimgrep = false;             // search: "path:line:column:text" lines for editors
    bool help = false;
    bool version = false;
    bool verbose = false; // the engine's informational lines on standard error
    bool nice = false;    // index, update, watch at idle CPU and I/O priority

    // train add: the profile's parameters; absent ones keep a new profile's defaults.
    std::optional<int32_t> steps;
    std::optional<int32_t> batch;
    std::optional<float> learning_rate;
    std::optional<int32_t> threads;
    std::optional<int32_t> heads;
    std::optional<int32_t> layers;
    bool bpe = false;
};

// Parses argv. Throws UsageError for an unknown command or option, a missing or malformed value,
// -k above the engine's limit, an empty query (without narrowing options), or the wrong number of
// operands (for train: of its sub-command, "profiles", "add", "default" or a profile's name);
// QueryError for a query the engine cannot run (trn_check_query: a date it cannot read, a regex
// that does not compile). With --help anywhere before "--" only help is set; else with --version
// only version.
Options parse_args(int argc, char **argv);

const char *usage_text();

// The trn_search mode of a name as the command line and the MCP tools spell it, exactly: "hybrid",
// "semantic" (every file, as the application's Semantic mode), "keyword", "text" or "regex";
// -1 for any other.
int32_t search_mode_named(const std::string &name);

#endif
