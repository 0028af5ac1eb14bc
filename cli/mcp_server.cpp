/*
** mcp_server.cpp -- the Model Context Protocol server of tarnwick-cli.
**
** One request is read, answered and flushed at a time. A line longer than REQUEST_MAX is dropped
** unread and answered with an error, so a runaway client costs bounded memory; a line that is no
** JSON, or no JSON-RPC request, is answered with the matching JSON-RPC error. Notifications get
** no answer. Failures of a tool (no index, a path outside the served folders, a bad argument)
** come back as a tool result marked isError, which the assistant reads and can act on; unknown
** methods, unknown tools and malformed parameters are JSON-RPC errors.
**
** Engines are opened on first use and kept: a handle reloads by itself when the application or
** another tarnwick-cli has committed to its index since.
*/
#include "mcp_server.h"

#include "common.h"
#include "json.h"
#include "json_value.h"
#include "model_commands.h"
#include "tarnwick.h"
#include "text/files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

// The largest request line read: far above any real request (a query, a path, a few numbers),
// small enough that a client stuck in a loop cannot exhaust memory.
constexpr size_t REQUEST_MAX = 1 << 20;
// The most text one read_file or resources/read answer carries; longer reads say so and can go
// on by line range.
constexpr size_t READ_MAX = 256 * 1024;
constexpr size_t RESOURCE_PAGE = 200;
constexpr int32_t RESULTS_MAX = 64; // trn_search's limit

// The newest first: the answer to an initialize naming an unknown version.
const char *const PROTOCOL_VERSIONS[] = {"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05"};
// Structured tool output (structuredContent, outputSchema) exists from this version on.
const char STRUCTURED_SINCE[] = "2025-06-18";

enum RpcCode {
    PARSE_ERROR = -32700,
    INVALID_REQUEST = -32600,
    METHOD_NOT_FOUND = -32601,
    INVALID_PARAMS = -32602,
    INTERNAL_ERROR = -32603,
    RESOURCE_NOT_FOUND = -32002
};

// Thrown by a method's handler: answered as a JSON-RPC error.
struct RpcError {
    int code;
    std::string message;
};

// Thrown by a tool: answered as a tool result with isError set.
struct ToolError {
    std::string message;
};

// The tools as tools/list gives them; outputSchema is dropped for clients older than
// STRUCTURED_SINCE.
const char TOOLS_JSON[] = R"json([
{"name": "search",
 "title": "Search indexed folders",
 "description": "Searches the user's indexed folders by meaning and by words, as Tarnwick's search bar does, and returns the best passages with their file, line, snippet and score. Use it to find documents, notes or code about a topic even when they do not contain the exact words. The query may hold the search bar's narrowing words: \"exact phrase\", -word, type:pdf,docx, ext:md, in:sub/folder, modified:>=2024-01-01.",
 "inputSchema": {"type": "object",
  "properties": {
   "query": {"type": "string", "description": "What to look for, in natural language or keywords."},
   "folder": {"type": "string", "description": "A served folder, or a folder inside one, to search; all served folders when absent (see list_folders)."},
   "mode": {"type": "string", "enum": ["hybrid", "semantic", "keyword", "text", "regex"], "default": "hybrid", "description": "hybrid: words and meaning; semantic: meaning only; keyword: ranked words; text: exact substring; regex: POSIX extended expression, ignoring case."},
   "k": {"type": "integer", "minimum": 1, "maximum": 64, "default": 10, "description": "How many results."},
   "type": {"type": "array", "items": {"type": "string", "enum": ["pdf", "docx", "odt", "epub", "html", "markdown", "text", "source"]}, "description": "Only files of these kinds."},
   "in": {"type": "string", "description": "Only files below this folder, relative to the searched folder."},
   "modified": {"type": "string", "description": "Only files modified then: >=2024-01-01, <2024-06-01 or 2024-01-01..2024-06-30."}
  },
  "required": ["query"]},
 "outputSchema": {"type": "object",
  "properties": {
   "results": {"type": "array", "items": {"type": "object",
    "properties": {"folder": {"type": "string"}, "path": {"type": "string"}, "line": {"type": "integer"},
     "snippet": {"type": "string"}, "score": {"type": "number"}, "fileType": {"type": "string"}},
    "required": ["folder", "path", "line", "snippet", "score", "fileType"]}},
   "notSearched": {"type": "array", "items": {"type": "object",
    "properties": {"folder": {"type": "string"}, "reason": {"type": "string"}},
    "required": ["folder", "reason"]}}
  },
  "required": ["results", "notSearched"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}},
{"name": "read_file",
 "title": "Read a file of an indexed folder",
 "description": "Returns the text of a file inside a served folder, as the index reads it (the text of PDF, HTML, DOCX, ODT and EPUB files is extracted), whole or a range of lines. Line numbers are those search results give. Paths outside the served folders are refused.",
 "inputSchema": {"type": "object",
  "properties": {
   "path": {"type": "string", "description": "Absolute path, or relative to a served folder."},
   "startLine": {"type": "integer", "minimum": 1, "description": "First line to return (1-based); 1 when absent."},
   "endLine": {"type": "integer", "minimum": 1, "description": "Last line to return; the file's last when absent."}
  },
  "required": ["path"]},
 "outputSchema": {"type": "object",
  "properties": {"path": {"type": "string"}, "startLine": {"type": "integer"}, "endLine": {"type": "integer"},
   "lineCount": {"type": "integer"}, "truncated": {"type": "boolean"}, "text": {"type": "string"}},
  "required": ["path", "startLine", "endLine", "lineCount", "truncated", "text"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}},
{"name": "list_folders",
 "title": "List the served folders",
 "description": "Lists the folders this server searches, each with its counts of indexed files and chunks and whether its index is up to date with the files on disk (new, changed and removed files that the index does not reflect yet).",
 "inputSchema": {"type": "object", "properties": {}},
 "outputSchema": {"type": "object",
  "properties": {"folders": {"type": "array", "items": {"type": "object",
   "properties": {"path": {"type": "string"}, "indexed": {"type": "boolean"},
    "files": {"type": "integer"}, "chunks": {"type": "integer"}, "upToDate": {"type": "boolean"},
    "newFiles": {"type": "integer"}, "changedFiles": {"type": "integer"}, "removedFiles": {"type": "integer"}},
   "required": ["path", "indexed", "files", "chunks", "upToDate", "newFiles", "changedFiles", "removedFiles"]}}},
  "required": ["folders"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}}
])json";

struct FileListCloser {
    void operator()(TrnFileList *list) const { trn_free_file_list(list); }
};
using FileListPtr = std::unique_ptr<TrnFileList, FileListCloser>;

struct Folder {
    std::string root; // resolved
    std::string weights;
    EnginePtr engine; // opened on first use
};

// One hit of one folder, its strings copied out of the engine.
struct Hit {
    size_t folder;
    std::string path;
    int32_t line;
    std::string snippet;
    float score;
    uint32_t type;
};

void log_line(const std::string &text)
{
    std::fprintf(stderr, "tarnwick: mcp: %s\n", display_text(text, false).c_str());
}

bool under(const std::string &path, const std::string &root)
{
    if (root == "/") {
        return true;
    }
    return path == root
           || (path.size() > root.size() && path.compare(0, root.size(), root) == 0
               && path[root.size()] == '/');
}

const char *type_word(uint32_t type)
{
    switch (type) {
    case TRN_FILE_TYPE_PDF:
        return "pdf";
    case TRN_FILE_TYPE_HTML:
        return "html";
    case TRN_FILE_TYPE_SOURCE:
        return "source";
    case TRN_FILE_TYPE_DOCX:
        return "docx";
    case TRN_FILE_TYPE_MARKDOWN:
        return "markdown";
    case TRN_FILE_TYPE_ODT:
        return "odt";
    case TRN_FILE_TYPE_EPUB:
        return "epub";
    default:
        return "text";
    }
}

// "file://" and the path with every byte outside the unreserved set and "/" percent-encoded.
std::string file_uri(const std::string &path)
{
    static const char HEX[] = "0123456789ABCDEF";
    std::string uri = "file://";
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            uri += static_cast<char>(c);
        } else {
            uri += '%';
            uri += HEX[c >> 4];
            uri += HEX[c & 15];
        }
    }
    return uri;
}

// The path of a file: URI (with an empty or "localhost" host); empty when it is none.
std::string uri_path(const std::string &uri)
{
    std::string rest;
    if (uri.rfind("file:///", 0) == 0) {
        rest = uri.substr(7);
    } else if (uri.rfind("file://localhost/", 0) == 0) {
        rest = uri.substr(16);
    } else {
        return {};
    }
    std::string path;
    for (size_t i = 0; i < rest.size(); i++) {
        if (rest[i] == '%' && i + 2 < rest.size() && std::isxdigit((unsigned char)rest[i + 1])
            && std::isxdigit((unsigned char)rest[i + 2])) {
            path += static_cast<char>(std::strtol(rest.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else if (rest[i] == '?' || rest[i] == '#') {
            break;
        } else {
            path += rest[i];
        }
    }
    return path.find('\0') == std::string::npos ? path : std::string();
}

// The text of a file as the index reads it, so that line numbers agree with search results.
std::string file_text(const std::string &path)
{
    TrnFileType type = trn_detect_file_type(path.c_str());
    ExtractedText extracted{};
    TrnFileStatus status = extract_file_text(path.c_str(), type, 0, &extracted);
    std::string text;
    if (status == TRN_FILE_STATUS_INDEXABLE) {
        text.assign(extracted.text, extracted.length);
    }
    extracted_text_free(&extracted);
    if (status == TRN_FILE_STATUS_TOO_SHORT) {
        return {}; // a few characters at most: nothing to index, nothing worth returning
    }
    if (status != TRN_FILE_STATUS_INDEXABLE) {
        throw ToolError(path + " has no text to read (" + trn_file_status_name(status) + ")");
    }
    return text;
}

class Server
{
public:
    Server(std::vector<Folder> folders, WalkConfig walk)
        : m_folders(std::move(folders)), m_walk(std::move(walk))
    {
        std::string error;
        if (!json_parse(TOOLS_JSON, &m_tools, &error)) {
            throw std::logic_error("tool definitions: " + error);
        }
    }

    // The answer to one line, or "" when none is due (a notification, a client's response).
    std::string handle_line(const std::string &line)
    {
        JsonValue msg;
        std::string error;
        if (!json_parse(line, &msg, &error)) {
            return error_answer(JsonValue(), PARSE_ERROR, "Parse error: " + error);
        }
        if (msg.is_array()) {
            return error_answer(JsonValue(), INVALID_REQUEST, "Batches are not supported");
        }
        const JsonValue *id = msg.get("id");
        const JsonValue *method = msg.get("method");
        const JsonValue *version = msg.get("jsonrpc");
        JsonValue answer_id =
            id != nullptr && (id->is_string() || id->is_number()) ? *id : JsonValue();
        if (!msg.is_object() || version == nullptr || !version->is_string()
            || version->text != "2.0"
            || (id != nullptr && answer_id.kind == JsonValue::Kind::Null)) {
            return error_answer(answer_id, INVALID_REQUEST, "Invalid Request");
        }
        if (method == nullptr) {
            // A response to a request of ours: this server sends none, so there is nothing to do.
            if (msg.get("result") != nullptr || msg.get("error") != nullptr) {
                return {};
            }
            return error_answer(answer_id, INVALID_REQUEST, "Invalid Request: no method");
        }
        if (!method->is_string()) {
            return error_answer(answer_id, INVALID_REQUEST, "Invalid Request: method is no string");
        }
        const JsonValue *params = msg.get("params");
        if (params != nullptr && !params->is_object()) {
            return id == nullptr
                       ? std::string()
                       : error_answer(answer_id, INVALID_PARAMS, "params must be an object");
        }
        static const JsonValue NO_PARAMS = JsonValue::object();
        const JsonValue &p = params != nullptr ? *params : NO_PARAMS;
        if (id == nullptr) {
            return {}; // notifications: initialized, cancelled, ... need no answer
        }
        try {
            JsonValue result = dispatch(method->text, p);
            JsonValue answer = JsonValue::object();
            answer.set("jsonrpc", JsonValue::of_string("2.0"));
            answer.set("id", answer_id);
            answer.set("result", std::move(result));
            return answer.dump();
        } catch (const RpcError &err) {
            return error_answer(answer_id, err.code, err.message);
        } catch (const std::bad_alloc &) {
            return error_answer(answer_id, INTERNAL_ERROR, "out of memory");
        } catch (const std::exception &err) {
            log_line(method->text + ": " + err.what());
            return error_answer(answer_id, INTERNAL_ERROR, err.what());
        }
    }

    static std::string error_answer(const JsonValue &id, int code, const std::string &message)
    {
        JsonValue error = JsonValue::object();
        error.set("code", JsonValue::of_number(code));
        error.set("message", JsonValue::of_string(message));
        JsonValue answer = JsonValue::object();
        answer.set("jsonrpc", JsonValue::of_string("2.0"));
        answer.set("id", id);
        answer.set("error", std::move(error));
        return answer.dump();
    }

private:
    JsonValue dispatch(const std::string &method, const JsonValue &p)
    {
        if (method == "initialize") {
            return initialize(p);
        }
        if (method == "ping") {
            return JsonValue::object();
        }
        if (method == "tools/list") {
            return tools_list();
        }
        if (method == "tools/call") {
            return tools_call(p);
        }
        if (method == "resources/list") {
            return resources_list(p);
        }
        if (method == "resources/read") {
            return resources_read(p);
        }
        throw RpcError{METHOD_NOT_FOUND, "Method not found: " + method};
    }

    bool structured() const { return m_version >= STRUCTURED_SINCE; }

    JsonValue initialize(const JsonValue &p)
    {
        const JsonValue *asked = p.get("protocolVersion");
        if (asked == nullptr || !asked->is_string()) {
            throw RpcError{INVALID_PARAMS, "initialize needs protocolVersion"};
        }
        m_version = PROTOCOL_VERSIONS[0];
        for (const char *known : PROTOCOL_VERSIONS) {
            if (asked->text == known) {
                m_version = known;
            }
        }
        const JsonValue *client = p.get("clientInfo");
        const JsonValue *name = client != nullptr ? client->get("name") : nullptr;
        log_line("session with " + (name != nullptr && name->is_string() ? name->text : "a client")
                 + ", protocol " + m_version);
        JsonValue capabilities = JsonValue::object();
        capabilities.set("tools",
                         JsonValue::object().set("listChanged", JsonValue::of_bool(false)));
        capabilities.set("resources",
                         JsonValue::object()
                             .set("subscribe", JsonValue::of_bool(false))
                             .set("listChanged", JsonValue::of_bool(false)));
        JsonValue info = JsonValue::object();
        info.set("name", JsonValue::of_string("tarnwick"));
        info.set("title", JsonValue::of_string("Tarnwick"));
        info.set("version", JsonValue::of_string(TRN_VERSION));
        std::string folders;
        for (const Folder &f : m_folders) {
            folders += (folders.empty() ? "" : ", ") + f.root;
        }
        JsonValue result = JsonValue::object();
        result.set("protocolVersion", JsonValue::of_string(m_version));
        result.set("capabilities", std::move(capabilities));
        result.set("serverInfo", std::move(info));
        result.set("instructions",
                   JsonValue::of_string(
                       "Tarnwick searches the user's local folders (" + folders
                       + ") by meaning and by words. Use search to find passages, read_file "
                         "to read around a result's line, list_folders to see what is served."));
        return result;
    }

    JsonValue tools_list() const
    {
        JsonValue tools = m_tools;
        if (!structured()) {
            for (JsonValue &tool : tools.items) {
                auto &m = tool.members;
                m.erase(std::remove_if(m.begin(),
                                       m.end(),
                                       [](const auto &member) {
                                           return member.first == "outputSchema"
                                                  || member.first == "title";
                                       }),
                        m.end());
            }
        }
        return JsonValue::object().set("tools", std::move(tools));
    }

    JsonValue tools_call(const JsonValue &p)
    {
        const JsonValue *name = p.get("name");
        if (name == nullptr || !name->is_string()) {
            throw RpcError{INVALID_PARAMS, "tools/call needs a tool name"};
        }
        const JsonValue *given = p.get("arguments");
        if (given != nullptr && !given->is_object()) {
            throw RpcError{INVALID_PARAMS, "arguments must be an object"};
        }
        const JsonValue args = given != nullptr ? *given : JsonValue::object();
        std::string text;
        JsonValue data;
        try {
            if (name->text == "search") {
                data = search(args, &text);
            } else if (name->text == "read_file") {
                data = read_file(args, &text);
            } else if (name->text == "list_folders") {
                data = list_folders(&text);
            } else {
                throw RpcError{INVALID_PARAMS, "Unknown tool: " + name->text};
            }
        } catch (const ToolError &err) {
            log_line(name->text + ": " + err.message);
            return tool_result(err.message, nullptr, true);
        } catch (const Failure &err) {
            log_line(name->text + ": " + err.what());
            return tool_result(err.what(), nullptr, true);
        }
        return tool_result(text, &data, false);
    }

    JsonValue tool_result(const std::string &text, const JsonValue *data, bool is_error) const
    {
        JsonValue content = JsonValue::array();
        content.push(JsonValue::object()
                         .set("type", JsonValue::of_string("text"))
                         .set("text", JsonValue::of_string(text)));
        JsonValue result = JsonValue::object();
        result.set("content", std::move(content));
        if (data != nullptr && structured()) {
            result.set("structuredContent", *data);
        }
        result.set("isError", JsonValue::of_bool(is_error));
        return result;
    }

    // --- arguments --------------------------------------------------------------------------

    static const JsonValue *argument(const JsonValue &args, const char *name, JsonValue::Kind kind,
                                     const char *kind_name)
    {
        const JsonValue *v = args.get(name);
        if (v != nullptr && v->kind != kind) {
            throw ToolError(std::string(name) + " must be " + kind_name);
        }
        return v;
    }

    static std::string string_argument(const JsonValue &args, const char *name)
    {
        const JsonValue *v = argument(args, name, JsonValue::Kind::String, "a string");
        return v != nullptr ? v->text : std::string();
    }

    static int64_t integer_argument(const JsonValue &args, const char *name, int64_t absent,
                                    int64_t low, int64_t high)
    {
        const JsonValue *v = argument(args, name, JsonValue::Kind::Number, "a whole number");
        if (v == nullptr) {
            return absent;
        }
        if (v->number != static_cast<double>(static_cast<int64_t>(v->number)) || v->number < low
            || v->number > high) {
            throw ToolError(std::string(name) + " must be a whole number from "
                            + std::to_string(low) + " to " + std::to_string(high));
        }
        return static_cast<int64_t>(v->number);
    }

    // --- paths ------------------------------------------------------------------------------

    // path (absolute, or relative to a served folder) resolved inside a served folder; throws
    // ToolError when it resolves nowhere or outside every one, or into an index directory.
    std::string resolve_inside(const std::string &path) const
    {
        if (path.empty() || path.find('\0') != std::string::npos) {
            throw ToolError("no path given");
        }
        std::vector<std::string> candidates;
        if (path[0] == '/') {
            candidates.push_back(path);
        } else {
            for (const Folder &f : m_folders) {
                candidates.push_back(join(f.root, path));
            }
        }
        for (const std::string &candidate : candidates) {
            char *resolved = realpath(candidate.c_str(), nullptr);
            if (resolved == nullptr) {
                continue;
            }
            std::string real(resolved);
            free(resolved);
            for (const Folder &f : m_folders) {
                if (under(real, f.root) && !under(real, join(f.root, ".tarnwick"))) {
                    return real;
                }
            }
            throw ToolError(path + " is outside the served folders");
        }
        throw ToolError(path + " does not exist in the served folders");
    }

    const Folder *folder_of(const std::string &real) const
    {
        const Folder *best = nullptr;
        for (const Folder &f : m_folders) {
            if (under(real, f.root) && (best == nullptr || f.root.size() > best->root.size())) {
                best = &f;
            }
        }
        return best;
    }

    TrnEngine *engine_of(Folder &f)
    {
        if (!f.engine) {
            if (!has_index(f.root)) {
                throw ToolError(f.root
                                + " is not indexed yet (open it in Tarnwick, or run "
                                  "tarnwick-cli index "
                                + f.root + ")");
            }
            const std::string index_dir = index_dir_of(f.root);
            TrnConfig cfg{};
            cfg.index_dir = index_dir.c_str();
            cfg.weights_path = f.weights.empty() ? nullptr : f.weights.c_str();
            TrnEngine *e = trn_open_ex(&cfg, 0, nullptr);
            if (e == nullptr) {
                throw ToolError(trn_last_error(nullptr));
            }
            f.engine.reset(e);
        }
        return f.engine.get();
    }

    // --- tools ------------------------------------------------------------------------------

    JsonValue search(const JsonValue &args, std::string *text)
    {
        std::string query = string_argument(args, "query");
        if (query.find_first_not_of(" \t\r\n") == std::string::npos) {
            throw ToolError("query must not be empty");
        }
        const std::string mode_name =
            args.get("mode") != nullptr ? string_argument(args, "mode") : "hybrid";
        const int32_t mode = search_mode_named(mode_name);
        if (mode < 0) {
            throw ToolError("mode must be hybrid, semantic, keyword, text or regex");
        }
        const int32_t k = static_cast<int32_t>(integer_argument(args, "k", 10, 1, RESULTS_MAX));
        query += filter_words(args);
        char reason[256];
        if (!trn_check_query(query.c_str(), mode, reason, sizeof reason)) {
            throw ToolError(reason);
        }

        // Which folders: one (a served folder or a folder inside one), or all.
        std::string within;
        std::vector<size_t> scope;
        if (args.get("folder") != nullptr) {
            within = resolve_inside(string_argument(args, "folder"));
            struct stat st;
            if (stat(within.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
                throw ToolError(within + " is not a folder");
            }
            scope.push_back(static_cast<size_t>(folder_of(within) - m_folders.data()));
        } else {
            for (size_t i = 0; i < m_folders.size(); i++) {
                scope.push_back(i);
            }
        }

        JsonValue not_searched = JsonValue::array();
        std::vector<TrnEngine *> engines;
        std::vector<size_t> engine_folder; // the folder of each engine
        for (size_t fi : scope) {
            try {
                engines.push_back(engine_of(m_folders[fi]));
                engine_folder.push_back(fi);
            } catch (const ToolError &err) {
                not_searched.push(JsonValue::object()
                                      .set("folder", JsonValue::of_string(m_folders[fi].root))
                                      .set("reason", JsonValue::of_string(err.message)));
            }
        }
        // The folders are searched as one index, so scores compare across them. A folder inside
        // a served one is searched as the served one, its hits kept when they lie below it: all
        // the engine gives is asked for, so that k of them can remain.
        const bool narrowed = !within.empty() && within != m_folders[scope[0]].root;
        std::vector<TrnResult> results(RESULTS_MAX);
        std::vector<int32_t> origins(RESULTS_MAX);
        int32_t n = engines.empty() ? 0
                                    : trn_search_many(engines.data(),
                                                      static_cast<int32_t>(engines.size()),
                                                      query.c_str(),
                                                      mode,
                                                      narrowed ? RESULTS_MAX : k,
                                                      0,
                                                      results.data(),
                                                      origins.data());
        std::vector<Hit> hits;
        for (int32_t i = 0; i < n && hits.size() < static_cast<size_t>(k); i++) {
            const TrnResult &r = results[static_cast<size_t>(i)];
            const std::string path = r.file_path != nullptr ? r.file_path : "";
            if (narrowed && !under(path, within)) {
                continue;
            }
            hits.push_back({engine_folder[static_cast<size_t>(origins[static_cast<size_t>(i)])],
                            path,
                            r.line_number,
                            r.snippet != nullptr ? r.snippet : "",
                            r.score,
                            r.file_type});
        }

        JsonValue list = JsonValue::array();
        *text = hits.empty() ? "No results.\n" : "";
        int number = 1;
        for (const Hit &h : hits) {
            list.push(JsonValue::object()
                          .set("folder", JsonValue::of_string(m_folders[h.folder].root))
                          .set("path", JsonValue::of_string(h.path))
                          .set("line", JsonValue::of_number(h.line))
                          .set("snippet", JsonValue::of_string(h.snippet))
                          .set("score", JsonValue::of_number(h.score))
                          .set("fileType", JsonValue::of_string(type_word(h.type))));
            char head[64];
            std::snprintf(head, sizeof head, ":%d (score %.4f)\n", h.line, h.score);
            *text += std::to_string(number++) + ". " + h.path + head;
            *text += h.snippet + "\n\n";
        }
        for (const JsonValue &skipped : not_searched.items) {
            *text += "Not searched: " + skipped.get("reason")->text + "\n";
        }
        return JsonValue::object()
            .set("results", std::move(list))
            .set("notSearched", std::move(not_searched));
    }

    // The search bar's narrowing words for the filter arguments, each with a leading space.
    static std::string filter_words(const JsonValue &args)
    {
        std::string words;
        const JsonValue *types = argument(args, "type", JsonValue::Kind::Array, "an array");
        if (types != nullptr && !types->items.empty()) {
            std::string list;
            for (const JsonValue &t : types->items) {
                if (!t.is_string() || t.text.empty()
                    || t.text.find_first_of(" \t\",") != std::string::npos) {
                    throw ToolError("type must list kinds of file such as pdf or markdown");
                }
                list += (list.empty() ? "" : ",") + t.text;
            }
            words += " type:" + list;
        }
        const std::string in = string_argument(args, "in");
        if (!in.empty()) {
            std::string clean;
            for (char c : in) {
                if (c != '"') {
                    clean += c;
                }
            }
            words += " in:\"" + clean + "\"";
        }
        const std::string modified = string_argument(args, "modified");
        if (!modified.empty()) {
            if (modified.find_first_of(" \t\"") != std::string::npos) {
                throw ToolError("modified must be a date or range such as >=2024-01-01");
            }
            words += " modified:" + modified;
        }
        return words;
    }

    JsonValue read_file(const JsonValue &args, std::string *text)
    {
        const std::string path = resolve_inside(string_argument(args, "path"));
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            throw ToolError(path + " is not a file");
        }
        const int64_t first = integer_argument(args, "startLine", 1, 1, INT32_MAX);
        const int64_t last = integer_argument(args, "endLine", INT32_MAX, 1, INT32_MAX);
        if (last < first) {
            throw ToolError("endLine comes before startLine");
        }
        const std::string whole = file_text(path);
        // Lines first..last, up to READ_MAX bytes of them.
        int64_t line = 1;
        int64_t end_line = first - 1;
        size_t pos = 0;
        bool truncated = false;
        std::string out;
        while (pos < whole.size()) {
            size_t nl = whole.find('\n', pos);
            size_t end = nl == std::string::npos ? whole.size() : nl + 1;
            if (line >= first && line <= last) {
                if (out.size() + (end - pos) > READ_MAX) {
                    truncated = true;
                } else {
                    out.append(whole, pos, end - pos);
                    end_line = line;
                }
            }
            pos = end;
            line++;
        }
        const int64_t line_count = whole.empty() ? 0 : line - 1;
        if (first > line_count && line_count > 0) {
            throw ToolError(path + " has only " + std::to_string(line_count) + " lines");
        }
        *text = out;
        if (truncated) {
            *text += "\n[truncated after line " + std::to_string(end_line)
                     + "; ask for the lines after it]\n";
        }
        return JsonValue::object()
            .set("path", JsonValue::of_string(path))
            .set("startLine", JsonValue::of_number(static_cast<double>(first)))
            .set("endLine", JsonValue::of_number(static_cast<double>(end_line)))
            .set("lineCount", JsonValue::of_number(static_cast<double>(line_count)))
            .set("truncated", JsonValue::of_bool(truncated))
            .set("text", JsonValue::of_string(out));
    }

    JsonValue list_folders(std::string *text)
    {
        JsonValue list = JsonValue::array();
        std::vector<const char *> extension_ptrs;
        std::vector<const char *> exclude_ptrs;
        const TrnWalkOptions opts = m_walk.view(&extension_ptrs, &exclude_ptrs);
        for (Folder &f : m_folders) {
            bool indexed = has_index(f.root);
            TrnStats st{};
            int32_t fresh = 0, changed = 0, removed = 0;
            if (indexed) {
                TrnEngine *e = engine_of(f);
                FileListPtr files(trn_list_dir_files_ex(e, f.root.c_str(), &opts));
                st = trn_stats(e);
                uint32_t listed_indexed = 0;
                for (int32_t i = 0; i < files->count; i++) {
                    const TrnFileInfo &info = files->entries[i];
                    listed_indexed += info.indexed ? 1 : 0;
                    changed += info.changed ? 1 : 0;
                    fresh +=
                        !info.indexed && !info.is_dir && info.status == TRN_FILE_STATUS_INDEXABLE
                            ? 1
                            : 0;
                }
                // Files the index holds that the walk no longer finds.
                removed = st.file_count > listed_indexed
                              ? static_cast<int32_t>(st.file_count - listed_indexed)
                              : 0;
            }
            const bool up_to_date = indexed && fresh == 0 && changed == 0 && removed == 0;
            const uint32_t live = st.chunk_count - std::min(st.deleted_count, st.chunk_count);
            list.push(JsonValue::object()
                          .set("path", JsonValue::of_string(f.root))
                          .set("indexed", JsonValue::of_bool(indexed))
                          .set("files", JsonValue::of_number(st.file_count))
                          .set("chunks", JsonValue::of_number(live))
                          .set("upToDate", JsonValue::of_bool(up_to_date))
                          .set("newFiles", JsonValue::of_number(fresh))
                          .set("changedFiles", JsonValue::of_number(changed))
                          .set("removedFiles", JsonValue::of_number(removed)));
            *text += f.root + ": ";
            if (!indexed) {
                *text += "not indexed\n";
                continue;
            }
            *text +=
                std::to_string(st.file_count) + " files, " + std::to_string(live) + " chunks, ";
            *text += up_to_date ? "up to date\n"
                                : "not up to date (" + std::to_string(fresh) + " new, "
                                      + std::to_string(changed) + " changed, "
                                      + std::to_string(removed) + " removed)\n";
        }
        return JsonValue::object().set("folders", std::move(list));
    }

    // --- resources --------------------------------------------------------------------------

    JsonValue resources_list(const JsonValue &p)
    {
        size_t from = 0;
        if (const JsonValue *cursor = p.get("cursor")) {
            char *end = nullptr;
            from = cursor->is_string() ? std::strtoul(cursor->text.c_str(), &end, 10) : 0;
            if (!cursor->is_string() || cursor->text.empty() || *end != '\0') {
                throw RpcError{INVALID_PARAMS, "invalid cursor"};
            }
        }
        JsonValue resources = JsonValue::array();
        size_t index = 0;
        bool more = false;
        for (Folder &f : m_folders) {
            if (!has_index(f.root)) {
                continue;
            }
            TrnEngine *e = nullptr;
            try {
                e = engine_of(f);
            } catch (const ToolError &err) {
                log_line(err.message);
                continue;
            }
            FileListPtr files(trn_list_dir_files(e, f.root.c_str()));
            for (int32_t i = 0; i < files->count && !more; i++) {
                const TrnFileInfo &info = files->entries[i];
                if (!info.indexed) {
                    continue;
                }
                if (index++ < from) {
                    continue;
                }
                if (resources.items.size() == RESOURCE_PAGE) {
                    more = true;
                    break;
                }
                const std::string path = info.path;
                resources.push(
                    JsonValue::object()
                        .set("uri", JsonValue::of_string(file_uri(path)))
                        .set("name", JsonValue::of_string(path.substr(f.root.size() + 1)))
                        .set("mimeType",
                             JsonValue::of_string(info.type == TRN_FILE_TYPE_MARKDOWN
                                                      ? "text/markdown"
                                                      : "text/plain"))
                        .set("size", JsonValue::of_number(static_cast<double>(info.size))));
            }
        }
        JsonValue result = JsonValue::object().set("resources", std::move(resources));
        if (more) {
            result.set("nextCursor", JsonValue::of_string(std::to_string(from + RESOURCE_PAGE)));
        }
        return result;
    }

    JsonValue resources_read(const JsonValue &p)
    {
        const JsonValue *uri = p.get("uri");
        if (uri == nullptr || !uri->is_string()) {
            throw RpcError{INVALID_PARAMS, "resources/read needs a uri"};
        }
        const std::string path = uri_path(uri->text);
        std::string text;
        try {
            if (path.empty()) {
                throw ToolError("not a file: URI");
            }
            const std::string real = resolve_inside(path);
            struct stat st;
            if (stat(real.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
                throw ToolError("not a file");
            }
            text = file_text(real);
        } catch (const ToolError &err) {
            log_line("resources/read: " + err.message);
            throw RpcError{RESOURCE_NOT_FOUND, "Resource not found: " + uri->text};
        }
        if (text.size() > READ_MAX) {
            text.resize(READ_MAX); // cut on a character: the writer replaces a torn one
        }
        JsonValue contents = JsonValue::array();
        contents.push(JsonValue::object()
                          .set("uri", *uri)
                          .set("mimeType", JsonValue::of_string("text/plain"))
                          .set("text", JsonValue::of_string(text)));
        return JsonValue::object().set("contents", std::move(contents));
    }

    std::vector<Folder> m_folders;
    WalkConfig m_walk; // the application's, to tell new files from excluded ones
    JsonValue m_tools;
    std::string m_version = PROTOCOL_VERSIONS[0];
};

// Writes one message line; false when the client has gone.
bool send(const std::string &message)
{
    std::string line = message + "\n";
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = write(STDOUT_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

void run_mcp_server(const Options &o, const ModelRuntime &model)
{
    std::vector<std::string> paths =
        o.folders.empty() ? application_open_folders(model) : o.folders;
    std::vector<Folder> folders;
    for (const std::string &path : paths) {
        std::string root;
        try {
            root = resolve_dir(path);
        } catch (const Failure &err) {
            if (!o.folders.empty()) {
                throw;
            }
            log_line(std::string("skipped ") + err.what()); // a tab whose folder has gone
            continue;
        }
        bool known = false;
        for (const Folder &f : folders) {
            known = known || f.root == root;
        }
        if (known) {
            continue;
        }
        std::string description;
        std::string weights = chosen_weights(o, model, root, &description);
        check_weights(weights);
        folders.push_back({root, weights, nullptr});
    }
    if (folders.empty()) {
        throw Failure("no folders to serve: give --folder DIR, or open folders in Tarnwick");
    }
    for (const Folder &f : folders) {
        log_line("serving " + f.root);
    }
    // A client that hangs up makes writes fail; that ends the session rather than the process.
    std::signal(SIGPIPE, SIG_IGN);

    Server server(std::move(folders), application_walk_config(model));
    std::string line;
    bool oversized = false;
    char buf[65536];
    for (;;) {
        ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        const bool eof = n <= 0;
        size_t start = 0;
        const size_t got = eof ? 0 : static_cast<size_t>(n);
        for (size_t i = 0; i <= got; i++) {
            const bool end_of_line = i < got ? buf[i] == '\n' : eof;
            if (i == got && !eof) {
                // The unfinished tail waits for more input, unless it is already too long.
                if (!oversized) {
                    line.append(buf + start, got - start);
                    if (line.size() > REQUEST_MAX) {
                        oversized = true;
                        line.clear();
                    }
                }
                break;
            }
            if (!end_of_line) {
                continue;
            }
            if (!oversized) {
                line.append(buf + start, i - start);
            }
            start = i + 1;
            std::string answer;
            if (oversized || line.size() > REQUEST_MAX) {
                log_line("refused a request of more than " + std::to_string(REQUEST_MAX)
                         + " bytes");
                answer = Server::error_answer(JsonValue(),
                                              INVALID_REQUEST,
                                              "Request larger than " + std::to_string(REQUEST_MAX)
                                                  + " bytes");
            } else if (line.find_first_not_of(" \t\r") != std::string::npos) {
                answer = server.handle_line(line);
            }
            line.clear();
            oversized = false;
            if (!answer.empty() && !send(answer)) {
                log_line("the client closed the connection");
                return;
            }
        }
        if (eof) {
            break;
        }
    }
    log_line("end of input");
}
