#include "tools/common/open_files.h"

#include <sys/resource.h>

void RaiseOpenFiles()
{
    rlimit tLimit = {};
    if (getrlimit(RLIMIT_NOFILE, &tLimit) == 0 && tLimit.rlim_cur < tLimit.rlim_max) {
        tLimit.rlim_cur = tLimit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &tLimit);
    }
}
