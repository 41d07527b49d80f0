#include "tools/post/answer_slab.h"

#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

/* A copy that does not fit may touch its last bytes first, hence more than one page. */
const size_t s_uGuardLen = size_t{64} << 20;

/* What the signal handler needs; written before it is installed. */
struct TOverrunReport {
    const char *pchFirst;
    const char *pchEnd;
    const char *szMessage;
    size_t uMessageLen;
    int nStatus;
    struct sigaction tEarlier;
};
TOverrunReport s_tReport;

size_t SlabLen(const TAnswerSlab &tSlab)
{
    return tSlab.uStride * tSlab.dwCount;
}

void OnFault(int, siginfo_t *ptInfo, void *)
{
    const char *pchFault = static_cast<const char *>(ptInfo->si_addr);
    if (pchFault < s_tReport.pchFirst || pchFault >= s_tReport.pchEnd) {
        /* Not ours: the instruction is run again and faults under the earlier handler. */
        sigaction(SIGSEGV, &s_tReport.tEarlier, nullptr);
        return;
    }
    const ssize_t nWritten = write(STDERR_FILENO, s_tReport.szMessage, s_tReport.uMessageLen);
    (void)nWritten;
    _exit(s_tReport.nStatus);
}

} // namespace

bool AnswerSlabCreate(TAnswerSlab &tSlab, uint32_t dwCount, uint32_t dwCapacity)
{
    const size_t uPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    tSlab = TAnswerSlab{};
    tSlab.uDataLen = (size_t{dwCapacity} + 1 + uPage - 1) / uPage * uPage;
    tSlab.uStride = tSlab.uDataLen + s_uGuardLen;
    tSlab.dwCapacity = dwCapacity;
    tSlab.dwCount = dwCount;

    void *pvMap = mmap(nullptr, SlabLen(tSlab), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pvMap == MAP_FAILED) {
        return false;
    }
    tSlab.pchMap = static_cast<char *>(pvMap);
    for (uint32_t dwIndex = 0; dwIndex < dwCount; dwIndex++) {
        if (mprotect(tSlab.pchMap + dwIndex * tSlab.uStride, tSlab.uDataLen, PROT_READ | PROT_WRITE) != 0) {
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
    return tSlab.pchMap + dwIndex * tSlab.uStride + tSlab.uDataLen - (size_t{tSlab.dwCapacity} + 1);
}

bool AnswerSlabHas(const TAnswerSlab &tSlab, const char *pchText)
{
    return pchText >= tSlab.pchMap && pchText < tSlab.pchMap + SlabLen(tSlab);
}

uint32_t AnswerSlabIndex(const TAnswerSlab &tSlab, const char *pchText)
{
    return static_cast<uint32_t>(static_cast<size_t>(pchText - tSlab.pchMap) / tSlab.uStride);
}

void AnswerSlabClear(const TAnswerSlab &tSlab, uint32_t dwIndex)
{
    char *pchPages = tSlab.pchMap + dwIndex * tSlab.uStride;
    if (madvise(pchPages, tSlab.uDataLen, MADV_DONTNEED) != 0) {
        memset(pchPages, 0, tSlab.uDataLen);
    }
}

bool AnswerSlabReportOverrun(const TAnswerSlab &tSlab, const char *szMessage, int nStatus)
{
    s_tReport.pchFirst = tSlab.pchMap;
    s_tReport.pchEnd = tSlab.pchMap + SlabLen(tSlab);
    s_tReport.szMessage = szMessage;
    s_tReport.uMessageLen = strlen(szMessage);
    s_tReport.nStatus = nStatus;

    struct sigaction tAction = {};
    tAction.sa_sigaction = OnFault;
    tAction.sa_flags = SA_SIGINFO;
    sigemptyset(&tAction.sa_mask);
    return sigaction(SIGSEGV, &tAction, &s_tReport.tEarlier) == 0;
}
