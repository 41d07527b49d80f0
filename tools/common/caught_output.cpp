#include "tools/common/caught_output.h"

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "tools/common/whole_file.h"

namespace
{

/* One descriptor with its file replaced; nSaved is -1 where it is not. */
struct TReplaced {
    int nFd;
    int nSaved;
};

TReplaced Replace(int nFd, int nBy)
{
    const int nSaved = fcntl(nFd, F_DUPFD_CLOEXEC, 0);
    if (nSaved >= 0) {
        dup2(nBy, nFd);
    }
    return {nFd, nSaved};
}

void Restore(const TReplaced &tReplaced)
{
    if (tReplaced.nSaved >= 0) {
        dup2(tReplaced.nSaved, tReplaced.nFd);
        close(tReplaced.nSaved);
    }
}

} // namespace

std::string CatchOutput(bool bErrors, const std::function<void()> &pfRun)
{
    FILE *ptFile = tmpfile();
    if (ptFile == nullptr) {
        pfRun();
        return "";
    }
    const int nFile = fileno(ptFile);
    fflush(stdout);
    const TReplaced tOutput = Replace(STDOUT_FILENO, nFile);
    const TReplaced tErrors = bErrors ? Replace(STDERR_FILENO, nFile) : TReplaced{STDERR_FILENO, -1};
    pfRun();
    fflush(stdout);
    Restore(tErrors);
    Restore(tOutput);
    std::string strText;
    lseek(nFile, 0, SEEK_SET);
    ReadAll(nFile, SIZE_MAX, strText);
    fclose(ptFile);
    return strText;
}
