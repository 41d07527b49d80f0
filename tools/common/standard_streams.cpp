#include "tools/common/standard_streams.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/* A file system may report a failed write only when a descriptor is closed. */
bool IsStored(int nFd)
{
    const int nCopy = fcntl(nFd, F_DUPFD_CLOEXEC, 0);
    return nCopy < 0 || close(nCopy) == 0;
}

} // namespace

void OpenStandardStreams()
{
    int nFd = STDIN_FILENO;
    while (nFd >= 0 && nFd <= STDERR_FILENO) {
        nFd = open("/dev/null", O_RDWR); /* the lowest number that is free */
    }
    if (nFd > STDERR_FILENO) {
        close(nFd);
    }
}

int CheckStandardOutput(const char *szProgram, int nStatus)
{
    errno = 0;
    if (fflush(stdout) == 0 && ferror(stdout) == 0 && IsStored(STDOUT_FILENO)) {
        return nStatus;
    }
    const int nErrno = errno;
    fprintf(stderr, "%s: standard output could not be written%s%s\n", szProgram, nErrno != 0 ? ": " : "",
            nErrno != 0 ? strerror(nErrno) : "");
    return EXIT_FAILURE;
}
