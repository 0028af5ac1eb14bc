/*
** commands.h -- the subcommands of tarnwick-cli.
*/
#ifndef TRN_CLI_COMMANDS_H
#define TRN_CLI_COMMANDS_H

#include "args.h"

class ModelRuntime;

// Runs the command that o names, writing its results to standard output. Throws Failure for
// anything that goes wrong (a missing directory or index, unreadable weights, a store that
// cannot be written, a file that is not in the index).
void run_command(const Options &o, const ModelRuntime &model);

#endif
