/*
** mcp_server.h -- tarnwick-cli mcp: the indexes of chosen folders served to AI assistants over
** the Model Context Protocol.
**
** The transport is JSON-RPC 2.0 over standard input and output, one message per line; the log
** goes to standard error. The server answers initialize, ping, tools/list, tools/call,
** resources/list and resources/read, and offers three tools: search, read_file and
** list_folders. It reads only inside the folders it serves: every path is resolved (symbolic
** links included) and refused unless it lies in one of them, outside their index directories.
*/
#ifndef TRN_CLI_MCP_SERVER_H
#define TRN_CLI_MCP_SERVER_H

#include "args.h"

class ModelRuntime;

// Serves o.folders (else the folders open in the application) until standard input ends; a
// malformed or failing request is answered with an error and the session goes on. Throws
// Failure before serving when a folder is missing or there is no folder to serve.
void run_mcp_server(const Options &o, const ModelRuntime &model);

#endif
