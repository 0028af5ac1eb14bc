/*
** index_commands.h -- the subcommands that write an index: index, update and watch.
*/
#ifndef TRN_CLI_INDEX_COMMANDS_H
#define TRN_CLI_INDEX_COMMANDS_H

#include "args.h"

class ModelRuntime;

void cmd_index(const Options &o, const ModelRuntime &model);
void cmd_update(const Options &o, const ModelRuntime &model);
void cmd_watch(const Options &o, const ModelRuntime &model);

#endif
