// tarnwick-cli mcp driven through a pipe as an assistant drives it: every answer is checked
// against the shapes of JSON-RPC 2.0 and the Model Context Protocol, and nothing outside the
// served folders ever reaches the client.
#include "cli_support.h"

#include <algorithm>
#include <map>

using namespace cli_test;

namespace
{

constexpr size_t REQUEST_MAX = 1 << 20; // the server's documented limit

// Runs "tarnwick-cli mcp args" with the lines written to its standard input through a pipe,
// which is then closed; standard output and error go to files, so no pipe can fill up.
RunResult run_mcp(const std::vector<std::string> &args, const std::string &input,
                  const std::string &cwd)
{
    int in[2];
    EXPECT_EQ(pipe(in), 0);
    char out_tmpl[] = "/tmp/trn_mcp_out_XXXXXX";
    char err_tmpl[] = "/tmp/trn_mcp_err_XXXXXX";
    int out_fd = mkstemp(out_tmpl);
    int err_fd = mkstemp(err_tmpl);
    std::vector<std::string> argv_text = {std::string(TRN_BIN_DIR) + "/tarnwick-cli", "mcp"};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : argv_text) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) {
            _exit(127);
        }
        setenv("HOME", default_home().c_str(), 1);
        setenv("XDG_CONFIG_HOME", (default_home() + "/.config").c_str(), 1);
        dup2(in[0], 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        close(in[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    signal(SIGPIPE, SIG_IGN);
    size_t done = 0;
    while (done < input.size()) {
        ssize_t n = write(in[1], input.data() + done, input.size() - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    close(in[1]);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    RunResult r;
    r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    r.out = read_file(out_tmpl);
    r.err = read_file(err_tmpl);
    close(out_fd);
    close(err_fd);
    unlink(out_tmpl);
    unlink(err_tmpl);
    return r;
}

std::string request(const std::string &id, const std::string &method, const std::string &params)
{
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + R"(","params":)" + params
           + "}\n";
}

std::string tool_call(const std::string &id, const std::string &tool, const std::string &args)
{
    return request(id, "tools/call", R"({"name":")" + tool + R"(","arguments":)" + args + "}");
}

std::string initialize(const std::string &version)
{
    return request("0",
                   "initialize",
                   R"({"protocolVersion":")" + version
                       + R"(","capabilities":{},"clientInfo":{"name":"test","version":"1"}})")
           + R"({"jsonrpc":"2.0","method":"notifications/initialized"})" + "\n";
}

// The answers of a session by their id's JSON text; each line must be one JSON-RPC 2.0 answer
// with exactly one of result and error, and each id is answered once.
std::map<std::string, Json> answers_of(const RunResult &r)
{
    std::map<std::string, Json> by_id;
    for (const std::string &line : lines_of(r.out)) {
        Json a = parse_json(line);
        EXPECT_EQ(a["jsonrpc"].text, "2.0") << line;
        std::vector<std::string> keys = a.keys();
        EXPECT_EQ(keys.size(), 3u) << line;
        EXPECT_TRUE(keys.back() == "result" || keys.back() == "error") << line;
        const Json &id = a["id"];
        std::string key = id.kind == Json::String   ? "\"" + id.text + "\""
                          : id.kind == Json::Number ? std::to_string(static_cast<long>(id.number))
                                                    : "null";
        if (key != "null") {
            EXPECT_EQ(by_id.count(key), 0u) << "answered twice: " << key;
        }
        by_id[key] = a;
    }
    return by_id;
}

void expect_error(const Json &answer, int code)
{
    ASSERT_EQ(answer.keys().back(), "error");
    EXPECT_EQ(answer["error"]["code"].number, code);
    EXPECT_EQ(answer["error"]["message"].kind, Json::String);
}

// A tool result: text content for clients that read only text, and isError as expected.
const Json &tool_result(const Json &answer, bool is_error)
{
    const Json &result = answer["result"];
    EXPECT_EQ(result["content"].kind, Json::Array);
    EXPECT_FALSE(result["content"].items.empty());
    for (const Json &block : result["content"].items) {
        EXPECT_EQ(block["type"].text, "text");
        EXPECT_EQ(block["text"].kind, Json::String);
    }
    EXPECT_EQ(result["isError"].boolean, is_error) << result["content"].items[0]["text"].text;
    return result;
}

class CliMcp : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new TempDir;
        const TempDir &d = *s_dir;
        write_file(d / "served/notes/harbour.md",
                   "# Harbour\nThe lighthouse keeper logs every ship.\nFog on Tuesday.\n");
        write_file(d / "served/recipes.txt", "Rye bread needs a sourdough starter and time.\n");
        write_file(d / "secret.txt", "outside words the client must never see\n");
        symlink((d / "secret.txt").c_str(), (d / "served/escape.txt").c_str());
        RunResult r = run_cli({"index", d / "served", "--weights", "none"}, d.path());
        EXPECT_EQ(r.status, 0) << r.err;
    }
    static void TearDownTestSuite()
    {
        delete s_dir;
        s_dir = nullptr;
    }

    RunResult serve(const std::string &input)
    {
        RunResult r = run_mcp({"--folder", *s_dir / "served", "--weights", "none"}, input, dir());
        EXPECT_EQ(r.status, 0) << r.err;
        expect_diagnostics(r);
        return r;
    }
    const std::string &dir() const { return s_dir->path(); }

    static TempDir *s_dir;
};

TempDir *CliMcp::s_dir = nullptr;

TEST_F(CliMcp, SessionListsToolsAndCallsEach)
{
    const std::string served = *s_dir / "served";
    RunResult r = serve(
        initialize("2025-11-25") + request("\"list\"", "tools/list", "{}")
        + tool_call("1", "search", R"({"query":"lighthouse keeper","mode":"keyword"})")
        + tool_call("2", "read_file", R"({"path":"notes/harbour.md","startLine":2,"endLine":3})")
        + tool_call("3", "list_folders", "{}") + request("4", "resources/list", "{}")
        + request("5", "resources/read", R"({"uri":"file://)" + served + R"(/recipes.txt"})")
        + request("6", "ping", "{}"));
    std::map<std::string, Json> a = answers_of(r);
    ASSERT_EQ(a.size(), 8u) << r.out; // the notification is not answered

    const Json &init = a["0"]["result"];
    EXPECT_EQ(init["protocolVersion"].text, "2025-11-25");
    EXPECT_EQ(init["capabilities"]["tools"].kind, Json::Object);
    EXPECT_EQ(init["capabilities"]["resources"].kind, Json::Object);
    EXPECT_EQ(init["serverInfo"]["name"].text, "tarnwick");
    EXPECT_EQ(init["serverInfo"]["version"].kind, Json::String);

    std::vector<std::string> names;
    for (const Json &tool : a["\"list\""]["result"]["tools"].items) {
        names.push_back(tool["name"].text);
        EXPECT_FALSE(tool["description"].text.empty());
        EXPECT_EQ(tool["inputSchema"]["type"].text, "object");
        EXPECT_EQ(tool["inputSchema"]["properties"].kind, Json::Object);
        EXPECT_EQ(tool["outputSchema"]["type"].text, "object");
    }
    EXPECT_EQ(names, (std::vector<std::string>{"search", "read_file", "list_folders"}));

    const Json &search = tool_result(a["1"], false);
    const std::vector<Json> &hits = search["structuredContent"]["results"].items;
    ASSERT_EQ(hits.size(), 1u) << r.out;
    EXPECT_EQ(hits[0]["path"].text, served + "/notes/harbour.md");
    EXPECT_EQ(hits[0]["folder"].text, served);
    EXPECT_EQ(hits[0]["fileType"].text, "markdown");
    EXPECT_GE(hits[0]["line"].number, 1);
    EXPECT_GT(hits[0]["score"].number, 0);
    EXPECT_NE(hits[0]["snippet"].text.find("lighthouse keeper"), std::string::npos);
    EXPECT_NE(search["content"].items[0]["text"].text.find(served + "/notes/harbour.md:"),
              std::string::npos);

    const Json &read = tool_result(a["2"], false);
    EXPECT_EQ(read["content"].items[0]["text"].text,
              "The lighthouse keeper logs every ship.\nFog on Tuesday.\n");
    EXPECT_EQ(read["structuredContent"]["lineCount"].number, 3);
    EXPECT_EQ(read["structuredContent"]["endLine"].number, 3);

    const Json &folder = tool_result(a["3"], false)["structuredContent"]["folders"].items.at(0);
    EXPECT_EQ(folder["path"].text, served);
    EXPECT_TRUE(folder["indexed"].boolean);
    EXPECT_EQ(folder["files"].number, 2);
    EXPECT_TRUE(folder["upToDate"].boolean);

    std::vector<std::string> uris;
    for (const Json &res : a["4"]["result"]["resources"].items) {
        uris.push_back(res["uri"].text);
        EXPECT_FALSE(res["name"].text.empty());
    }
    std::sort(uris.begin(), uris.end());
    EXPECT_EQ(uris,
              (std::vector<std::string>{"file://" + served + "/notes/harbour.md",
                                        "file://" + served + "/recipes.txt"}));
    const Json &contents = a["5"]["result"]["contents"].items.at(0);
    EXPECT_EQ(contents["text"].text, "Rye bread needs a sourdough starter and time.\n");
    EXPECT_EQ(contents["uri"].text, "file://" + served + "/recipes.txt");

    EXPECT_TRUE(a["6"]["result"].members.empty());
}

TEST_F(CliMcp, PathsOutsideTheServedFoldersAreRefused)
{
    const std::string served = *s_dir / "served";
    RunResult r = serve(
        initialize("2025-11-25") + tool_call("1", "read_file", R"({"path":"../secret.txt"})")
        + tool_call("2", "read_file", R"({"path":")" + dir() + R"(/secret.txt"})")
        + tool_call("3", "read_file", R"({"path":"escape.txt"})")
        + tool_call("4", "read_file", R"({"path":".tarnwick/tarnwick.bin"})")
        + tool_call("5", "search", R"({"query":"outside words","folder":")" + dir() + R"("})")
        + request("6", "resources/read", R"({"uri":"file://)" + dir() + R"(/secret.txt"})")
        + request(
            "7", "resources/read", R"({"uri":"file://)" + served + R"(/%2E%2E/secret.txt"})"));
    std::map<std::string, Json> a = answers_of(r);
    for (const char *id : {"1", "2", "3", "4", "5"}) {
        SCOPED_TRACE(id);
        tool_result(a[id], true);
    }
    expect_error(a["6"], -32002);
    expect_error(a["7"], -32002);
    EXPECT_EQ(r.out.find("never see"), std::string::npos) << r.out;
}

TEST_F(CliMcp, MalformedUnknownAndOversizedRequestsGetErrorsAndTheSessionGoesOn)
{
    const std::string huge =
        request("8", "ping", R"({"pad":")" + std::string(REQUEST_MAX, 'x') + "\"}");
    RunResult r = serve(initialize("2025-11-25") + "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\"\n"
                        + R"({"jsonrpc":"1.0","id":2,"method":"ping"})" + "\n"
                        + request("3", "no/such/method", "{}")
                        + tool_call("4", "no_such_tool", "{}") + request("5", "tools/call", "[]")
                        + tool_call("6", "search", R"({"query":"rye","k":"ten"})")
                        + tool_call("7", "search", R"({"query":"(unclosed","mode":"regex"})") + huge
                        + "[1,2]\n" + R"({"jsonrpc":"2.0","id":9,"method":"ping"})");
    std::map<std::string, Json> a = answers_of(r);
    // The malformed line, the oversized one and the batch have no id to answer: null.
    ASSERT_EQ(a.count("null"), 1u);
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 11) << r.out.substr(0, 2000);
    expect_error(a["2"], -32600);
    expect_error(a["3"], -32601);
    expect_error(a["4"], -32602);
    expect_error(a["5"], -32602);
    tool_result(a["6"], true);
    tool_result(a["7"], true);
    EXPECT_EQ(a.count("8"), 0u);
    // The last request, without a line feed before the end of input, is answered.
    EXPECT_TRUE(a["9"]["result"].members.empty());
    EXPECT_NE(r.err.find("refused a request of more than"), std::string::npos) << r.err;
    size_t codes = 0;
    for (const std::string &line : lines_of(r.out)) {
        if (line.rfind(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700)", 0) == 0
            || line.rfind(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600)", 0) == 0) {
            codes++;
        }
    }
    EXPECT_EQ(codes, 3u) << r.out.substr(0, 2000);
}

// The filter arguments narrow as the search bar's words do: every hit of a filtered search
// passes the filter, and the unfiltered search shows that something was left out.
TEST_F(CliMcp, FiltersNarrowTheResultsAsTheSearchBarDoes)
{
    const std::string served = *s_dir / "served";
    const std::string text = R"("query":"e","mode":"text")";
    std::map<std::string, Json> a =
        answers_of(serve(initialize("2025-11-25") + tool_call("1", "search", "{" + text + "}")
                         + tool_call("2", "search", "{" + text + R"(,"type":["markdown"]})")
                         + tool_call("3", "search", "{" + text + R"(,"in":"notes"})")
                         + tool_call("4", "search", "{" + text + R"(,"modified":"<2000-01-01"})")
                         + tool_call("5", "search", "{" + text + R"(,"modified":"yesterday"})")));
    std::vector<std::string> all;
    for (const Json &hit : tool_result(a["1"], false)["structuredContent"]["results"].items) {
        all.push_back(hit["path"].text);
    }
    EXPECT_EQ(all.size(), 2u);
    for (const char *id : {"2", "3"}) {
        const std::vector<Json> &hits =
            tool_result(a[id], false)["structuredContent"]["results"].items;
        ASSERT_EQ(hits.size(), 1u) << id;
        EXPECT_EQ(hits[0]["path"].text, served + "/notes/harbour.md");
    }
    EXPECT_TRUE(tool_result(a["4"], false)["structuredContent"]["results"].items.empty());
    tool_result(a["5"], true);
}

TEST_F(CliMcp, OlderProtocolVersionsAreServedInTheirOwnShapes)
{
    for (const std::string version : {"2025-06-18", "2025-03-26", "2024-11-05", "2030-01-01"}) {
        SCOPED_TRACE(version);
        std::map<std::string, Json> a =
            answers_of(serve(initialize(version) + request("1", "tools/list", "{}")
                             + tool_call("2", "list_folders", "{}")));
        const bool known = version != "2030-01-01";
        EXPECT_EQ(a["0"]["result"]["protocolVersion"].text, known ? version : "2025-11-25");
        // Structured output came with 2025-06-18; older clients get text only.
        const bool structured = !known || version == "2025-06-18";
        const Json &tool = a["1"]["result"]["tools"].items.at(0);
        std::vector<std::string> keys = tool.keys();
        EXPECT_EQ(std::count(keys.begin(), keys.end(), "outputSchema"), structured ? 1 : 0);
        keys = tool_result(a["2"], false).keys();
        EXPECT_EQ(std::count(keys.begin(), keys.end(), "structuredContent"), structured ? 1 : 0);
    }
}

TEST_F(CliMcp, NoFolderToServeFailsBeforeTheSession)
{
    RunResult none = run_mcp({}, "", dir());
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err.rfind("tarnwick: no folders to serve", 0), 0u) << none.err;
    RunResult missing = run_mcp({"--folder", *s_dir / "missing"}, "", dir());
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
}

// Several served folders are searched as one: each hit names the folder it came from, and a
// folder that was never indexed is reported rather than failing the search.
TEST(CliMcpFolders, SearchAcrossServedFoldersNamesEachHitsFolder)
{
    TempDir a, b, empty;
    write_file(a / "tides.txt", "the lighthouse keeper logs the tides\n");
    write_file(b / "ships.txt", "ships pass the lighthouse at night\n");
    for (const TempDir *d : {&a, &b}) {
        ASSERT_EQ(run_cli({"index", d->path(), "--weights", "none"}, d->path()).status, 0);
    }
    RunResult r = run_mcp(
        {"--folder", a.path(), "--folder", b.path(), "--folder", empty.path(), "--weights", "none"},
        initialize("2025-11-25")
            + tool_call("1", "search", R"({"query":"lighthouse","mode":"text"})"),
        a.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, Json> answers = answers_of(r);
    const Json &data = tool_result(answers["1"], false)["structuredContent"];
    std::map<std::string, std::string> folder_of;
    for (const Json &hit : data["results"].items) {
        folder_of[hit["path"].text] = hit["folder"].text;
    }
    EXPECT_EQ(folder_of,
              (std::map<std::string, std::string>{{a / "tides.txt", a.path()},
                                                  {b / "ships.txt", b.path()}}));
    ASSERT_EQ(data["notSearched"].items.size(), 1u);
    EXPECT_EQ(data["notSearched"].items[0]["folder"].text, empty.path());
}

// The weights are read by the folder's engine at its first search by meaning, not also at the
// start: a file that is no weights fails only the searches that need it.
TEST(CliMcpFolders, WeightsAreReadOnlyForSearchesByMeaning)
{
    TempDir d;
    write_file(d / "tides.txt", "the lighthouse keeper logs the tides\n");
    write_file(d / "junk.tten", "NOPE this is not a weights file at all");
    ASSERT_EQ(run_cli({"index", d.path(), "--weights", "none"}, d.path()).status, 0);
    RunResult r = run_mcp({"--folder", d.path(), "--weights", d / "junk.tten"},
                          initialize("2025-11-25")
                              + tool_call("1", "search", R"({"query":"lighthouse","mode":"text"})")
                              + tool_call("2", "search", R"({"query":"lighthouse"})"),
                          d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, Json> answers = answers_of(r);
    EXPECT_EQ(tool_result(answers["1"], false)["structuredContent"]["results"].items.size(), 1u);
    const Json &by_meaning = tool_result(answers["2"], false)["structuredContent"];
    EXPECT_TRUE(by_meaning["results"].items.empty());
    ASSERT_EQ(by_meaning["notSearched"].items.size(), 1u);
    EXPECT_EQ(by_meaning["notSearched"].items[0]["reason"].text,
              "cannot load encoder weights from " + d / "junk.tten");
    RunResult missing =
        run_mcp({"--folder", d.path(), "--weights", d / "missing.tten"}, "", d.path());
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(lines_of(missing.err).size(), 1u) << missing.err;
}

TEST(CliMcpFolders, ListFoldersSaysWhenTheIndexIsBehindTheFiles)
{
    TempDir d;
    write_file(d / "kept.txt", "a file that stays as it was indexed\n");
    write_file(d / "gone.txt", "a file that is deleted after indexing\n");
    ASSERT_EQ(run_cli({"index", d.path(), "--weights", "none"}, d.path()).status, 0);
    std::remove((d / "gone.txt").c_str());
    write_file(d / "new.txt", "a file that appears after indexing\n");
    RunResult r = run_mcp({"--folder", d.path(), "--weights", "none"},
                          initialize("2025-11-25") + tool_call("1", "list_folders", "{}"),
                          d.path());
    std::map<std::string, Json> answers = answers_of(r);
    const Json &folder =
        tool_result(answers["1"], false)["structuredContent"]["folders"].items.at(0);
    EXPECT_FALSE(folder["upToDate"].boolean);
    EXPECT_EQ(folder["newFiles"].number, 1);
    EXPECT_EQ(folder["removedFiles"].number, 1);
}

} // namespace
