#include "tools/post/answer_slab.h"

#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

/* A copy that does not fit may touch its last bytes first, hence more than one page. */
constexpr size_t kGuardLen = size_t{64} << 20;

/* What the signal handler needs; written before it is installed. */
struct TOverrunReport {
    const char *pchFirst;
    const char *pchEnd;
    const char *szMessage;
    size_t qwMessageLen;
    int nStatus;
    struct sigaction tEarlier;
};
TOverrunReport g_tReport;

size_t SlabLen(const TAnswerSlab &tSlab)
{
    return tSlab.qwStride * tSlab.dwCount;
}

void OnFault(int, siginfo_t *ptInfo, void *)
{
    const char *pchFault = static_cast<const char *>(ptInfo->si_addr);
    if (pchFault < g_tReport.pchFirst || pchFault >= g_tReport.pchEnd) {
        /* Not ours: the instruction is run again and faults under the earlier handler. */
        sigaction(SIGSEGV, &g_tReport.tEarlier, nullptr);
        return;
    }
    const ssize_t nWritten = write(STDERR_FILENO, g_tReport.szMessage, g_tReport.qwMessageLen);
    (void)nWritten;
    _exit(g_tReport.nStatus);
}

} // namespace

bool AnswerSlabCreate(TAnswerSlab &tSlab, uint32_t dwCount, uint32_t dwCapacity)
{
    const size_t qwPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    tSlab = TAnswerSlab{};
    tSlab.qwDataLen = (size_t{dwCapacity} + 1 + qwPage - 1) / qwPage * qwPage;
    tSlab.qwStride = tSlab.qwDataLen + kGuardLen;
    tSlab.dwCapacity = dwCapacity;
    tSlab.dwCount = dwCount;

    void *pvMap = mmap(nullptr, SlabLen(tSlab), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pvMap == MAP_FAILED) {
        return false;
    }
    tSlab.pchMap = static_cast<char *>(pvMap);
    for (uint32_t dwIndex = 0; dwIndex < dwCount; ++dwIndex) {
        if (mprotect(tSlab.pchMap + dwIndex * tSlab.qwStride, tSlab.qwDataLen, PROT_READ | PROT_WRITE) != 0) {
            AnswerSlabDestroy(tSlab);
            return false;
        }
    }
    return true;
}

void AnswerSlabDestroy(TAnswerSlab &tSlab)
{
    if (tSlab.pchMap != nullptr) {
        munmap(tSlab.pchMap, SlabLen(tSlab));
        tSlab.pchMap = nullptr;
    }
}

char *AnswerSlabText(const TAnswerSlab &tSlab, uint32_t dwIndex)
{
    return tSlab.pchMap + dwIndex * tSlab.qwStride + tSlab.qwDataLen - (size_t{tSlab.dwCapacity} + 1);
}

uint32_t AnswerSlabIndex(const TAnswerSlab &tSlab, const char *pchText)
{
    return static_cast<uint32_t>(static_cast<size_t>(pchText - tSlab.pchMap) / tSlab.qwStride);
}

void AnswerSlabClear(const TAnswerSlab &tSlab, uint32_t dwIndex)
{
    char *pchPages = tSlab.pchMap + dwIndex * tSlab.qwStride;
    if (madvise(pchPages, tSlab.qwDataLen, MADV_DONTNEED) != 0) {
        memset(pchPages, 0, tSlab.qwDataLen);
    }
}

bool AnswerSlabReportOverrun(const TAnswerSlab &tSlab, const char *szMessage, int nStatus)
{
    g_tReport.pchFirst = tSlab.pchMap;
    g_tReport.pchEnd = tSlab.pchMap + SlabLen(tSlab);
    g_tReport.szMessage = szMessage;
    g_tReport.qwMessageLen = strlen(szMessage);
    g_tReport.nStatus = nStatus;

    struct sigaction tAction = {};
    tAction.sa_sigaction = OnFault;
    tAction.sa_flags = SA_SIGINFO;
    sigemptyset(&tAction.sa_mask);
    return sigaction(SIGSEGV, &tAction, &g_tReport.tEarlier) == 0;
}
