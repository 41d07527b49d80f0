/*
 * What the library prints, for where it says something by its lines alone.
 */
#ifndef TOOLS_COMMON_CAUGHT_OUTPUT_H
#define TOOLS_COMMON_CAUGHT_OUTPUT_H

#include <functional>
#include <string>

/*
 * Runs pfRun and returns all that the process writes meanwhile to standard output and, on demand,
 * to standard error. Where that cannot be caught, pfRun runs all the same and nothing is returned.
 */
std::string CatchOutput(bool bErrors, const std::function<void()> &pfRun);

#endif
