/*
 * What the programs take for a URL. The library takes any scheme that libcurl knows, and answers
 * file:///etc/passwd with that file.
 */
#ifndef TOOLS_COMMON_HTTP_URL_H
#define TOOLS_COMMON_HTTP_URL_H

#include <string>

/* What is wrong with a URL; empty if it is one of http or https, or libcurl takes it for one. */
std::string HttpUrlComplaint(const std::string &strUrl);

#endif
