/*
 * Where the library's log is.
 */
#ifndef TOOLS_COMMON_LOG_PLACE_H
#define TOOLS_COMMON_LOG_PLACE_H

#include <string>

/* The path of the debug log's file as the environment has it now. */
std::string DebugLogPath();

#endif
