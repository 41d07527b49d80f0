/*
 * The rest of a file as one text.
 */
#ifndef TOOLS_COMMON_READ_ALL_H
#define TOOLS_COMMON_READ_ALL_H

#include <string>

/* Appends what can be read of nFd to its end; false, with errno set, if reading fails. */
bool ReadAll(int nFd, std::string &strText);

#endif
