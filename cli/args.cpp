/*
** args.cpp -- parsing the command line of tarnwick-cli.
**
** The first argument names the command; options may come before, between or after the operands,
** as "--name value", "--name=value" or, for -k, "-k N" and "-kN". "--" ends the options, so a
** query that begins with "-" can be given as "search DIR -- -foo".
*/
#include "args.h"

#include "tarnwick.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <strings.h>

namespace
{

constexpr int32_t MAX_RESULTS = 64; // trn_search returns at most this many records

const char USAGE[] =
    "usage: tarnwick-cli COMMAND [OPTIONS] ARGS\n"
    "\n"
    "Searches the files of a directory by meaning. The index lives in DIR/.tarnwick.\n"
    "Indexing, prompts and training follow the application's settings and training profiles.\n"
    "\n"
    "commands:\n"
    "  index  DIR [--chunk-size N] [--overlap N] [--weights PATH]\n"
    "         index DIR from scratch as the application does; chunk size and overlap come from\n"
    "         its settings (800 and 200 by default); chunks of 64 to 65536 bytes, overlap at\n"
    "         most half a chunk; which files are read as for files below\n"
    "  update DIR [--chunk-size N] [--overlap N] [--weights PATH] [--json]\n"
    "         bring DIR's index up to date: index new files, re-index changed ones, drop\n"
    "         deleted and excluded ones; unchanged files are not read\n"
    "  watch  DIR [--chunk-size N] [--overlap N] [--weights PATH] [--json]\n"
    "         update, then update again each time files change (after 2 s of quiet), one line\n"
    "         per update, until interrupted (Ctrl+C)\n"
    "  search DIR... QUERY [--mode hybrid|semantic|keyword|text|regex] [-k N] [--all-chunks]\n"
    "         [--weights PATH] [--type LIST] [--in FOLDER] [--modified WHEN] [--json]\n"
    "         show the k best files (10 by default, at most 64), each with its best passage,\n"
    "         the line of the match and how many more passages of the file matched;\n"
    "         --all-chunks shows the k best passages instead, several of one file too; hybrid\n"
    "         (by words and by meaning) by default; several directories are searched as one\n"
    "         ranking, each result naming its folder; --vimgrep prints path:line:column:text\n"
    "         lines for an editor's jump list, paths relative to the current directory below it\n"
    "  prompt DIR QUERY [--scope pinned|top5|all] [--mode M] [-k N] [--weights PATH]\n"
    "         print the prompt the application copies for the results (top5 by default),\n"
    "         with the directory's pinned results first\n"
    "  files  DIR [--json]          list every file under DIR with its indexed chunks and why\n"
    "         each is or is not indexed (excluded and by which rule, too large, binary, too\n"
    "         short, unreadable), and the charset of text that is not UTF-8\n"
    "  stats  DIR [--json]          show the index's counts\n"
    "  remove DIR FILE...           drop the chunks of the given files from the index\n"
    "  compact DIR                  rewrite the index without removed chunks\n"
    "  embed  [--weights PATH] TEXT print the text's 512-float unit vector as a JSON array\n"
    "  train  profiles [--json]     list the training profiles (* marks the default)\n"
    "  train  NAME                  train the profile NAME, showing its progress (Ctrl+C "
    "cancels)\n"
    "  train  add NAME DIR... [--steps N] [--batch N] [--lr X] [--threads N] [--bpe]\n"
    "         create a profile over the given directories\n"
    "  train  default NAME          make NAME the default profile\n"
    "  mcp    [--folder DIR]... [--weights PATH]\n"
    "         serve searches of the given folders (else the folders open in the application)\n"
    "         to an assistant over the Model Context Protocol on standard input and output\n"
    "\n"
    "options:\n"
    "  --weights PATH   encoder weights file, or none for the untrained encoder; without it\n"
    "                   the directory's encoder in the application (the default profile's\n"
    "                   weights once trained, else the built-in encoder)\n"
    "  --json           print JSON instead of text\n"
    "  --exclude PATTERN  skip what PATTERN matches, in .gitignore syntax; repeatable;\n"
    "                   replaces the application's patterns (.git, node_modules, __pycache__,\n"
    "                   build, dist, target, .venv by default). .gitignore and .tarnwickignore\n"
    "                   files in DIR are always honoured (index, update, watch, files)\n"
    "  --extensions LIST  comma-separated extensions read as text when their content is text,\n"
    "                   instead of the application's extra extensions (index, update, watch,\n"
    "                   files)\n"
    "  --max-file-size MB  skip larger files (the application's setting, 20 by default; index,\n"
    "                   update, watch, files)\n"
    "  --type LIST      search, prompt: only these kinds of file (pdf, docx, odt, epub, html,\n"
    "                   markdown, text, source) or extensions (md, txt), comma-separated\n"
    "  --in FOLDER      search, prompt: only files below this folder of DIR\n"
    "  --modified WHEN  search, prompt: only files changed then: 2024-01-31, 2024-01, 2024,\n"
    "                   >2024-01-31, >=, <, <=, or a range 2024-01-01..2024-06-30\n"
    "  --nice           index at idle CPU and disk priority: only what nothing else wants\n"
    "                   (index, update, watch)\n"
    "  --verbose        show the engine's own messages (opening, loading weights)\n"
    "  -h, --help       print this help\n"
    "  --version        print the version of the program and of its engine\n"
    "\n"
    "Narrowing a query: these words work inside QUERY, in every mode: \"exact phrase\",\n"
    "    a minus sign right before a word to leave out passages holding it, type:pdf,docx,\n"
    "    ext:md, in:sub/folder (in:\"my notes\" for spaces), modified:>=2024-01-01. Quote a\n"
    "    word that only looks like one of these to search for it as written (\"in:docs\").\n"
    "\n"
    "Exit status: 0 on success, 1 on failure, 2 for a usage error, 130 when Ctrl+C stopped\n"
    "index, update or watch (what was indexed is kept; update goes on from there).\n";

// Which options a command takes and how many operands (max_operands -1: no upper bound).
struct CommandRule {
    const char *name;
    int min_operands;
    int max_operands;
    bool chunking; // --chunk-size, --overlap
    bool weights;  // --weights
    bool search;   // --mode, -k
    bool json;     // --json
    bool scope;    // --scope
    bool training; // --steps, --batch, --lr, --threads, --heads, --layers, --bpe
};

constexpr CommandRule COMMANDS[] = {
    {"index", 1, 1, true, true, false, false, false, false},
    {"update", 1, 1, true, true, false, true, false, false},
    {"watch", 1, 1, true, true, false, true, false, false},
    {"search", 2, -1, false, true, true, true, false, false},
    {"prompt", 2, 2, false, true, true, false, true, false},
    {"files", 1, 1, false, false, false, true, false, false},
    {"stats", 1, 1, false, false, false, true, false, false},
    {"remove", 2, -1, false, false, false, false, false, false},
    {"compact", 1, 1, false, false, false, false, false, false},
    {"embed", 1, 1, false, true, false, false, false, false},
    {"train", 1, -1, false, false, false, true, false, true},
    {"mcp", 0, 0, false, true, false, false, false, false},
};

// The commands that walk a directory (index, update, watch, files) take --exclude, --extensions and
// --max-file-size.
bool takes_walk_options(const CommandRule *rule)
{
    const std::string name = rule->name;
    return name == "index" || name == "update" || name == "watch" || name == "files";
}

const CommandRule *find_command(const std::string &name)
{
    for (const CommandRule &rule : COMMANDS) {
        if (name == rule.name) {
            return &rule;
        }
    }
    return nullptr;
}

// A decimal integer in [low, INT32_MAX], the whole text and nothing else.
int32_t parse_int(const std::string &option, const std::string &text, int32_t low)
{
    const char *s = text.c_str();
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(s, &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || v < low || v > INT32_MAX) {
        throw UsageError(option + " needs a whole number of at least " + std::to_string(low)
                         + ", not \"" + text + "\"");
    }
    return static_cast<int32_t>(v);
}

int32_t parse_mode(const std::string &text)
{
    std::string lower = text;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
        return static_cast<char>(std::tolower(c));
    });
    const int32_t mode = search_mode_named(lower);
    if (mode >= 0) {
        return mode;
    }
    throw UsageError("--mode must be hybrid, semantic, keyword, text or regex, not \"" + text
                     + "\"");
}

std::string parse_scope(const std::string &text)
{
    for (const char *scope : {"pinned", "top5", "all"}) {
        if (strcasecmp(text.c_str(), scope) == 0) {
            return scope;
        }
    }
    throw UsageError("--scope must be pinned, top5 or all, not \"" + text + "\"");
}

// A learning rate above 0 and at most 1, the range the encoder trainer accepts.
float parse_rate(const std::string &option, const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    float v = std::strtof(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !(v > 0.0f && v <= 1.0f)) {
        throw UsageError(option + " needs a number above 0 and at most 1, not \"" + text + "\"");
    }
    return v;
}

// The shapes of train's sub-commands: "profiles", "add NAME DIR...", "default NAME" and "NAME".
void check_train(const Options &o, bool training_options)
{
    const std::string &sub = o.operands[0];
    size_t n = o.operands.size();
    if (sub == "add") {
        if (n < 3) {
            throw UsageError("train add needs a name and at least one directory");
        }
        if (o.json) {
            throw UsageError("--json is only for train profiles");
        }
        return;
    }
    if (training_options) {
        throw UsageError("profile parameters are only for train add");
    }
    if (sub == "profiles") {
        if (n != 1) {
            throw UsageError("too many arguments for train profiles");
        }
        return;
    }
    if (o.json) {
        throw UsageError("--json is only for train profiles");
    }
    if (sub == "default") {
        if (n != 2) {
            throw UsageError("train default needs exactly one profile name");
        }
        return;
    }
    if (n != 1) {
        throw UsageError("too many arguments for train");
    }
}

// An empty query, or one of white space only, would match nearly everything in text and regex
// mode and nothing useful in the others (narrowing words alone list what they leave in); the
// engine must be able to run the query as given: dates it can read and, in regex mode, an
// expression that compiles. A long pattern is shown by its start only, so the error stays one
// short line.
void check_query(const std::string &query, bool narrowed, int32_t mode)
{
    if (query.find_first_not_of(" \t\r\n\f\v") == std::string::npos && !narrowed) {
        throw UsageError("the query is empty");
    }
    char reason[256];
    if (!trn_check_query(query.c_str(), TRN_SEARCH_SEMANTIC, reason, sizeof reason)) {
        throw QueryError(reason); // a date it cannot read
    }
    if (mode == TRN_SEARCH_REGEX && !trn_check_query(query.c_str(), mode, reason, sizeof reason)) {
        size_t shown_len = std::min<size_t>(query.size(), 40);
        while (shown_len < query.size() && (query[shown_len] & 0xC0) == 0x80) {
            shown_len--; // never cut a UTF-8 sequence
        }
        std::string shown = query.substr(0, shown_len) + (shown_len < query.size() ? "..." : "");
        throw QueryError("invalid regular expression \"" + shown + "\": " + reason);
    }
}

// The narrowing word key:value as the engine reads it: white space dropped from lists and dates,
// a folder with white space quoted.
std::string narrowing_word(const std::string &key, const std::string &value)
{
    std::string clean;
    bool spaced = false;
    for (char c : value) {
        if (c == '"') {
            continue;
        }
        if (c == ' ' || c == '\t') {
            spaced = true;
            if (key != "in") {
                continue;
            }
        }
        clean += c;
    }
    if (clean.empty()) {
        throw UsageError("--" + key + " needs a value");
    }
    return key + ":" + (spaced && key == "in" ? "\"" + clean + "\"" : clean);
}

bool is_help(const std::string &arg)
{
    return arg == "-h" || arg == "--help";
}

} // namespace

int32_t search_mode_named(const std::string &name)
{
    static const struct {
        const char *name;
        int32_t mode;
    } MODES[] = {{"hybrid", TRN_SEARCH_HYBRID},
                 {"semantic", TRN_SEARCH_SEMANTIC_ALL},
                 {"keyword", TRN_SEARCH_KEYWORD},
                 {"text", TRN_SEARCH_TEXT},
                 {"regex", TRN_SEARCH_REGEX}};
    for (const auto &m : MODES) {
        if (name == m.name) {
            return m.mode;
        }
    }
    return -1;
}

const char *usage_text()
{
    return USAGE;
}

Options parse_args(int argc, char **argv)
{
    Options o;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (const std::string &arg : args) {
        if (arg == "--") {
            break;
        }
        if (is_help(arg)) {
            o.help = true;
            return o;
        }
        if (arg == "--version") {
            o.version = true;
        }
    }
    if (o.version) {
        return o;
    }
    if (args.empty()) {
        throw UsageError("no command given");
    }
    o.command = args[0];
    const CommandRule *rule = find_command(o.command);
    if (rule == nullptr) {
        throw UsageError("unknown command \"" + o.command + "\"");
    }

    bool options_ended = false;
    bool training_options = false;
    std::vector<std::string> narrowing; // --type, --in, --modified as words of the query
    for (size_t i = 1; i < args.size(); i++) {
        const std::string &arg = args[i];
        if (options_ended || arg.size() < 2 || arg[0] != '-') {
            o.operands.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_ended = true;
            continue;
        }
        // Split "--name=value" and "-kN" into the option and its attached value.
        std::string name = arg;
        std::string value;
        bool has_value = false;
        if (arg.rfind("--", 0) == 0) {
            size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                name = arg.substr(0, eq);
                value = arg.substr(eq + 1);
                has_value = true;
            }
        } else if (arg.size() > 2) {
            name = arg.substr(0, 2);
            value = arg.substr(2);
            has_value = true;
        }
        auto take_value = [&]() -> std::string {
            if (has_value) {
                return value;
            }
            if (i + 1 >= args.size()) {
                throw UsageError(name + " needs a value");
            }
            return args[++i];
        };

        if (name == "--verbose") {
            if (has_value) {
                throw UsageError("--verbose takes no value");
            }
            o.verbose = true;
        } else if (name == "--nice" && rule->chunking) {
            if (has_value) {
                throw UsageError("--nice takes no value");
            }
            o.nice = true;
        } else if (name == "--json" && rule->json) {
            if (has_value) {
                throw UsageError("--json takes no value");
            }
            o.json = true;
        } else if (name == "--vimgrep" && o.command == "search") {
            if (has_value) {
                throw UsageError("--vimgrep takes no value");
            }
            o.vimgrep = true;
        } else if (name == "--folder" && o.command == "mcp") {
            o.folders.push_back(take_value());
            if (o.folders.back().empty()) {
                throw UsageError("--folder needs a directory");
            }
        } else if (name == "--chunk-size" && rule->chunking) {
            o.chunk_size = parse_int(name, take_value(), 1);
        } else if (name == "--overlap" && rule->chunking) {
            o.overlap = parse_int(name, take_value(), 0);
        } else if (name == "--exclude" && takes_walk_options(rule)) {
            o.excludes.push_back(take_value());
            if (o.excludes.back().empty()) {
                throw UsageError("--exclude needs a pattern");
            }
        } else if (name == "--extensions" && takes_walk_options(rule)) {
            o.extensions = take_value();
        } else if (name == "--max-file-size" && takes_walk_options(rule)) {
            o.max_file_size_mb = parse_int(name, take_value(), 1);
        } else if (name == "--weights" && rule->weights) {
            o.weights = take_value();
            if (o.weights.empty()) {
                throw UsageError("--weights needs a path");
            }
        } else if (name == "--mode" && rule->search) {
            o.mode = parse_mode(take_value());
        } else if (name == "-k" && rule->search) {
            o.k = parse_int(name, take_value(), 1);
            if (o.k > MAX_RESULTS) {
                throw UsageError("-k is at most " + std::to_string(MAX_RESULTS)
                                 + ", the most results one search returns, not "
                                 + std::to_string(o.k));
            }
        } else if (name == "--type" && rule->search) {
            narrowing.push_back(narrowing_word("type", take_value()));
        } else if (name == "--in" && rule->search) {
            narrowing.push_back(narrowing_word("in", take_value()));
        } else if (name == "--modified" && rule->search) {
            narrowing.push_back(narrowing_word("modified", take_value()));
        } else if (name == "--all-chunks" && o.command == "search") {
            if (has_value) {
                throw UsageError("--all-chunks takes no value");
            }
            o.all_chunks = true;
        } else if (name == "--scope" && rule->scope) {
            o.scope = parse_scope(take_value());
        } else if (name == "--steps" && rule->training) {
            o.steps = parse_int(name, take_value(), 1);
            training_options = true;
        } else if (name == "--batch" && rule->training) {
            o.batch = parse_int(name, take_value(), 2);
            training_options = true;
        } else if (name == "--lr" && rule->training) {
            o.learning_rate = parse_rate(name, take_value());
            training_options = true;
        } else if (name == "--threads" && rule->training) {
            o.threads = parse_int(name, take_value(), 1);
            training_options = true;
        } else if (name == "--heads" && rule->training) {
            o.heads = parse_int(name, take_value(), 1);
            training_options = true;
        } else if (name == "--layers" && rule->training) {
            o.layers = parse_int(name, take_value(), 1);
            training_options = true;
        } else if (name == "--bpe" && rule->training) {
            if (has_value) {
                throw UsageError("--bpe takes no value");
            }
            o.bpe = true;
            training_options = true;
        } else {
            throw UsageError("unknown option \"" + name + "\" for " + o.command);
        }
    }

    int n = static_cast<int>(o.operands.size());
    if (n < rule->min_operands) {
        throw UsageError("too few arguments for " + o.command);
    }
    if (rule->max_operands >= 0 && n > rule->max_operands) {
        throw UsageError("too many arguments for " + o.command);
    }
    if (o.command == "train") {
        check_train(o, training_options);
    }
    if (o.json && o.vimgrep) {
        throw UsageError("--json and --vimgrep cannot be combined");
    }
    if (rule->search) {
        o.query = o.operands.back();
        for (const std::string &word : narrowing) {
            o.query += (o.query.empty() ? "" : " ") + word;
        }
        check_query(o.query, !narrowing.empty(), o.mode);
    }
    return o;
}
