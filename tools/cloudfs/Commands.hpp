#pragma once

#include "Session.hpp"

#include <CLI/CLI.hpp>

/// The commands, by groups. Each function adds its commands to the program; a command runs, on the session that was
/// opened meanwhile, as the callback of its subcommand.
namespace cloudfs
{

void addListCommands(CLI::App& app, Session& session);   // ls, stat
void addFolderCommands(CLI::App& app, Session& session); // mkdir, rmdir, rm
void addPutCommand(CLI::App& app, Session& session);     // put
void addGetCommands(CLI::App& app, Session& session);    // get, cat
void addEditCommands(CLI::App& app, Session& session);   // write, append
void addCopyCommands(CLI::App& app, Session& session);   // cp, mv
void addUploadCommands(CLI::App& app, Session& session); // uploads list, uploads abort

} // namespace cloudfs
