/*
 * Why a transfer failed. The library's results are too few to say it; its log lines do.
 */
#ifndef TOOLS_COMMON_FAILURE_REASON_H
#define TOOLS_COMMON_FAILURE_REASON_H

#include <string>

/*
 * What a line of the library's log says about a transfer that failed, in libcurl's words or as
 * its HTTP status; empty for all other lines.
 */
std::string FailureReason(const std::string &strLine);

#endif
