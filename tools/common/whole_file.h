/*
 * The rest of a file as one text, a text as a whole into a file.
 */
#ifndef TOOLS_COMMON_WHOLE_FILE_H
#define TOOLS_COMMON_WHOLE_FILE_H

#include <cstddef>
#include <string>

/*
 * Appends what can be read of nFd to its end; false, with errno set, if reading fails: EFBIG if
 * there is more than uLimit bytes, ENOMEM if there is no memory.
 */
bool ReadAll(int nFd, size_t uLimit, std::string &strText);

/* Writes all of it; false, with errno set, if writing fails. */
bool WriteAll(int nFd, const char *pchData, size_t uLen);

#endif
