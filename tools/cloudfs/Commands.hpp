#pragma once

#include "CommandContext.hpp"

#include <CLI/CLI.hpp>

/// The commands, in groups. Each function adds its commands to the parser as subcommands. A command runs as the
/// callback of its subcommand; the context has been opened by then.
namespace cloudfs
{

/// For the help of the commands that have -f.
inline constexpr const char* concurrentFileHelp =
    "Without -f, a file that another program stores meanwhile is not replaced either: the command fails.\n"
    "If the endpoint of a bucket ignores If-None-Match, the path is only looked up just before the\n"
    "commit, and a file that is stored between the two is replaced.";

void addListCommands(CLI::App& app, CommandContext& context);   // ls, stat
void addFolderCommands(CLI::App& app, CommandContext& context); // mkdir, rmdir, rm
void addPutCommand(CLI::App& app, CommandContext& context);     // put
void addGetCommands(CLI::App& app, CommandContext& context);    // get, cat
void addEditCommands(CLI::App& app, CommandContext& context);   // write, append
void addCopyCommands(CLI::App& app, CommandContext& context);   // cp, mv
void addUploadCommands(CLI::App& app, CommandContext& context); // uploads list, uploads abort
// These run without an open context.
void addCheckCommand(CLI::App& app, CommandContext& context);         // check
void addCheckEndpointCommand(CLI::App& app, CommandContext& context); // check-endpoint
void addMountCommand(CLI::App& app, CommandContext& context);         // mount

} // namespace cloudfs
