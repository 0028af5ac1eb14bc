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
#include "mcp_tools.h"
#include "model_commands.h"
#include "tarnwick.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
constexpr size_t RESOURCE_PAGE = 200;

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

class Server
{
public:
    Server(std::vector<Folder> folders, WalkConfig walk)
        : m_served(std::move(folders), std::move(walk))
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
        for (const Folder &f : m_served.folders()) {
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
                data = m_served.search(args, &text);
            } else if (name->text == "read_file") {
                data = m_served.read_file(args, &text);
            } else if (name->text == "list_folders") {
                data = m_served.list_folders(&text);
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
        for (Folder &f : m_served.folders()) {
            if (!has_index(f.root)) {
                continue;
            }
            TrnEngine *e = nullptr;
            try {
                e = m_served.engine_of(f);
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
            const std::string real = m_served.resolve_inside(path);
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

    McpTools m_served;
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
        // Read once, by the folder's engine at its first search by meaning; a file that cannot
        // be opened still ends the server here.
        check_weights_readable(weights);
        folders.push_back({root, weights, nullptr, false});
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
