#include "tools/common/whole_file.h"

#include <cerrno>
#include <new>
#include <unistd.h>

namespace
{

bool Append(std::string &strText, const char *pchPart, size_t uLen)
{
    try {
        strText.append(pchPart, uLen);
        return true;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return false;
    }
}

} // namespace

bool ReadAll(int nFd, size_t uLimit, std::string &strText)
{
    char achPart[65536];
    ssize_t nRead = 0;
    size_t uLeft = uLimit;
    while ((nRead = read(nFd, achPart, sizeof(achPart))) > 0) {
        const auto uLen = static_cast<size_t>(nRead);
        if (uLen > uLeft) {
            errno = EFBIG;
            return false;
        }
        if (!Append(strText, achPart, uLen)) {
            return false;
        }
        uLeft -= uLen;
    }
    return nRead == 0;
}

bool WriteAll(int nFd, const char *pchData, size_t uLen)
{
    while (uLen > 0) {
        const ssize_t nWritten = write(nFd, pchData, uLen);
        if (nWritten < 0 && errno != EINTR) {
            return false;
        }
        if (nWritten > 0) {
            pchData += nWritten;
            uLen -= static_cast<size_t>(nWritten);
        }
    }
    return true;
}
