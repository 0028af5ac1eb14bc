/*
** mcp_tools.h -- the folders an MCP session serves and the three tools over them: search,
** read_file and list_folders (mcp_server.h has the protocol around them).
*/
#ifndef TRN_CLI_MCP_TOOLS_H
#define TRN_CLI_MCP_TOOLS_H

#include "common.h"
#include "json_value.h"
#include "model_commands.h"
#include "tarnwick.h"

#include <string>
#include <vector>

// The most text one read_file or resources/read answer carries; longer reads say so and can go
// on by line range.
constexpr size_t READ_MAX = 256 * 1024;

// Thrown by a tool: answered as a tool result with isError set.
struct ToolError {
    std::string message;
};

struct Folder {
    std::string root; // resolved
    std::string weights;
    EnginePtr engine;           // opened on first use
    bool encoder_ready = false; // its weights read, at the first search by meaning
};

// One line on standard error, the session's log.
void log_line(const std::string &text);

// The text of a file as the index reads it, so that line numbers agree with search results.
// Throws ToolError when it has no text to read.
std::string file_text(const std::string &path);

// The tools' definitions, a JSON array; tools/list leaves out outputSchema and title for clients
// older than structured tool output.
extern const char TOOLS_JSON[];

class McpTools
{
public:
    McpTools(std::vector<Folder> folders, WalkConfig walk)
        : m_folders(std::move(folders)), m_walk(std::move(walk))
    {
    }

    std::vector<Folder> &folders() { return m_folders; }

    // Each fills text with the answer for people and returns the structured answer; a failure
    // throws ToolError (or Failure).
    JsonValue search(const JsonValue &args, std::string *text);
    JsonValue read_file(const JsonValue &args, std::string *text);
    JsonValue list_folders(std::string *text);

    // path (absolute, or relative to a served folder) resolved inside a served folder; throws
    // ToolError when it resolves nowhere or outside every one, or into an index directory.
    std::string resolve_inside(const std::string &path) const;
    // The folder's engine, opened on first use; ToolError when the folder has no index or it
    // cannot be opened.
    TrnEngine *engine_of(Folder &f);
    // Reads f's weights into its open engine once; throws ToolError when they do not load.
    void prepare_encoder(Folder &f);

private:
    const Folder *folder_of(const std::string &real) const;

    std::vector<Folder> m_folders;
    WalkConfig m_walk; // the application's, to tell new files from excluded ones
};

#endif
