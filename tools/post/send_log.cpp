#include "tools/post/send_log.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "platform/host/debuglog_host.h"
#include "platform/host/osp_console.h"
#include "tools/common/failure_reason.h"
#include "tools/common/whole_file.h"

namespace
{

/* Of a line; data and answers are lines, too, and far longer. */
enum { LONGEST_LINE = 512 };

void TakeLine(TSendLog &tLog, const std::string &strLine)
{
    const std::string strReason = FailureReason(strLine);
    if (!strReason.empty()) {
        const std::lock_guard<std::mutex> tGuard(tLog.tLock);
        tLog.tReasons[strReason]++;
    }
}

/* Takes the lines that end in this part of the log; strLine is the begin of the next one. */
void TakePart(TSendLog &tLog, const char *pchPart, size_t uLen, std::string &strLine)
{
    const char *pchEnd = pchPart + uLen;
    while (pchPart != pchEnd) {
        const char *pchNewline = std::find(pchPart, pchEnd, '\n');
        const size_t uTaken =
            std::min<size_t>(static_cast<size_t>(pchNewline - pchPart), LONGEST_LINE - strLine.size());
        strLine.append(pchPart, uTaken);
        pchPart = pchNewline;
        if (pchNewline != pchEnd) {
            TakeLine(tLog, strLine);
            strLine.clear();
            pchPart++;
        }
    }
}

void ReadLog(TSendLog &tLog)
{
    char achPart[65536];
    std::string strLine;
    ssize_t nRead = 0;
    while ((nRead = read(tLog.nPipe, achPart, sizeof(achPart))) > 0) {
        const auto uLen = static_cast<size_t>(nRead);
        if (tLog.bShow) {
            WriteAll(STDERR_FILENO, achPart, uLen);
        }
        TakePart(tLog, achPart, uLen, strLine);
    }
}

} // namespace

bool SendLogBegin(TSendLog &tLog, bool bShow)
{
    int anPipe[2];
    fflush(stdout);
    if (pipe2(anPipe, O_CLOEXEC) != 0) {
        return false;
    }
    tLog.nPipe = anPipe[0];
    tLog.bShow = bShow;
    const bool bDone = dup2(anPipe[1], STDOUT_FILENO) >= 0;
    close(anPipe[1]);
    if (bDone) {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        tLog.tReader = std::thread([&tLog] { ReadLog(tLog); });
    }
    return bDone;
}

void SendLogTurnOn()
{
    OspConsoleRun("sendbycurlsetlog 3");
}

void SendLogTakeDebugLog()
{
    HostDebugLogSetConsole(STDOUT_FILENO);
}

void SendLogEnd(TSendLog &tLog)
{
    OspConsoleRun("sendbycurlsetlog 1");
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    tLog.tReader.join();
    close(tLog.nPipe);
}
