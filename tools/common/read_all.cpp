#include "tools/common/read_all.h"

#include <unistd.h>

bool ReadAll(int nFd, std::string &strText)
{
    char achPart[65536];
    ssize_t nRead = 0;
    while ((nRead = read(nFd, achPart, sizeof(achPart))) > 0) {
        strText.append(achPart, static_cast<size_t>(nRead));
    }
    return nRead == 0;
}
