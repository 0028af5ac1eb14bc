/*
** args.h -- the command line of tarnwick-cli: its commands, options and usage text.
*/
#ifndef TRN_CLI_ARGS_H
#define TRN_CLI_ARGS_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// A command line that cannot be understood; main answers it with exit status 2.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Anything else that went wrong; main answers it with exit status 1.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string command; // "index", "search", "files", "stats", "remove", "compact", "embed"
    std::vector<std::string> operands;
    int32_t chunk_size = 800;
    int32_t overlap = 200;
    std::string weights; // empty: the random encoder
    int32_t mode = 0;    // the engine's search mode: 0 semantic, 1 text, 2 regex
    int32_t k = 10;
    bool json = false;
    bool help = false;
};

// Parses argv. Throws UsageError for an unknown command or option, a missing or malformed value,
// or the wrong number of operands. With --help anywhere before "--" only help is set.
Options parse_args(int argc, char **argv);

const char *usage_text();

#endif
