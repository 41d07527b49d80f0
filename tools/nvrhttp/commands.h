/*
 * The subcommands of the nvrhttp program, one file each (cmd_*.cpp). Each call registers its
 * subcommand; when that is the one chosen, its callback stores the program's exit status in
 * nStatus, which lives until the command line has been parsed and run.
 */
#ifndef TOOLS_NVRHTTP_COMMANDS_H
#define TOOLS_NVRHTTP_COMMANDS_H

#include <CLI/CLI.hpp>

void AddConsoleCommand(CLI::App &tApp, int &nStatus);
void AddServeCommand(CLI::App &tApp, int &nStatus);
void AddPostCommand(CLI::App &tApp, int &nStatus);
void AddCheckCommand(CLI::App &tApp, int &nStatus);
void AddDoctorCommand(CLI::App &tApp, int &nStatus);

#endif
