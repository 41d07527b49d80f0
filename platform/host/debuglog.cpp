/*
 * The debug log over spdlog's sinks.
 *
 * The host has modules 0 to 255 and holds 4095 bytes in a line. At the start no level of a
 * module is switched on, neither console nor file takes a line, and a file's length is
 * 0x20000 bytes. The file is <folder>/<name>.log, the previous one <name>.1.log; the folder
 * is NVRHTTPCURL_LOG_DIR, else TMPDIR, else /tmp, and is created if it is missing. A line
 * begins with the prefix; in the file the time follows.
 */
#include "platform/debuglog.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace
{

enum { MODULES = 256, LINE_SIZE = 4096, DEFAULT_FILE_LEN = 0x20000, OLDER_FILES = 1 };

const char s_szConsolePattern[] = "%n%v";
const char s_szFilePattern[] = "%n%Y-%m-%d %H:%M:%S.%e %v";

/* Limits are the first level that does not pass; 64 bits hold the one after the last. */
struct TModule {
    std::string strPrefix; /* including the blank before the text */
    std::string strName;   /* empty until the module is registered */
    uint64_t qwSwitchLimit = 0;
    uint64_t qwStdioLimit = 0;
    uint64_t qwFileLimit = 0;
    uint32_t dwFileLen = DEFAULT_FILE_LEN;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> ptFile; /* opened by the first line for it */
    bool bFileFailed = false;                                     /* no file until the module's file is set up again */
    bool bFailureReported = false;
};

std::mutex s_tLock; /* guards the sinks and all below except the atomics */

/*
 * Created by the first call that names the module and never destroyed: tasks may still log
 * while the process ends. For the same reason each line is flushed at once.
 */
TModule *s_aptModules[MODULES];
spdlog::sinks::stdout_sink_st *s_ptConsole;

/*
 * Per module, the first level that no sink takes: the only state that an unwanted line
 * reads. It is a hint, read without ordering; the limits are checked again under the lock.
 */
std::atomic<uint64_t> s_aqwWantedLimit[MODULES];

/* A sink set to dwLevel takes lines of dwLevel and below; 0 takes none. */
uint64_t SinkLimit(uint32_t dwLevel)
{
    return dwLevel == 0 ? 0 : static_cast<uint64_t>(dwLevel) + 1;
}

/* The module, created if it is new. The lock is held; throws if there is no memory. */
TModule &GetModule(uint32_t dwModule)
{
    if (s_aptModules[dwModule] == nullptr) {
        s_aptModules[dwModule] = new TModule;
    }
    return *s_aptModules[dwModule];
}

void UpdateWanted(uint32_t dwModule, const TModule &tModule)
{
    const uint64_t qwFileLimit = tModule.bFileFailed ? 0 : tModule.qwFileLimit;
    const uint64_t qwSinkLimit = std::max(tModule.qwStdioLimit, qwFileLimit);
    const uint64_t qwWanted = tModule.strName.empty() ? 0 : std::min(tModule.qwSwitchLimit, qwSinkLimit);
    s_aqwWantedLimit[dwModule].store(qwWanted, std::memory_order_relaxed);
}

/* Changes a module's settings with pfChange, under the lock. Nonzero is success. */
template <typename TChange> uint32_t Change(uint32_t dwModule, TChange pfChange)
{
    if (dwModule >= MODULES) {
        return 0;
    }
    try {
        const std::lock_guard<std::mutex> tGuard(s_tLock);
        TModule &tModule = GetModule(dwModule);
        pfChange(tModule);
        UpdateWanted(dwModule, tModule);
        return 1;
    } catch (...) {
        return 0; /* no memory */
    }
}

/* The next line for the file opens it again, also after a failure. */
void CloseFile(TModule &tModule)
{
    tModule.ptFile.reset();
    tModule.bFileFailed = false;
}

std::string Folder()
{
    for (const char *szVariable : {"NVRHTTPCURL_LOG_DIR", "TMPDIR"}) {
        const char *szFolder = getenv(szVariable);
        if (szFolder != nullptr && szFolder[0] != '\0') {
            return szFolder;
        }
    }
    return "/tmp";
}

void OpenFile(TModule &tModule)
{
    std::string strFile = tModule.strName + ".log";
    std::replace(strFile.begin(), strFile.end(), '/', '_'); /* the file stays in the folder */
    auto ptFile = std::make_unique<spdlog::sinks::rotating_file_sink_st>(Folder() + "/" + strFile, tModule.dwFileLen,
                                                                         OLDER_FILES);
    ptFile->set_formatter(std::make_unique<spdlog::pattern_formatter>(s_szFilePattern));
    tModule.ptFile = std::move(ptFile);
}

spdlog::details::log_msg Message(const TModule &tModule, spdlog::string_view_t strText)
{
    return spdlog::details::log_msg(tModule.strPrefix, spdlog::level::info, strText);
}

void WriteToConsole(const TModule &tModule, spdlog::string_view_t strText)
{
    if (s_ptConsole == nullptr) {
        auto ptConsole = std::make_unique<spdlog::sinks::stdout_sink_st>();
        ptConsole->set_pattern(s_szConsolePattern);
        s_ptConsole = ptConsole.release();
    }
    s_ptConsole->log(Message(tModule, strText));
}

/* A sink that failed may be half open and is not used again. */
void GiveUpFile(TModule &tModule, const char *szReason)
{
    tModule.ptFile.reset();
    tModule.bFileFailed = true;
    if (!tModule.bFailureReported) {
        tModule.bFailureReported = true;
        fprintf(stderr, "debug log: no file for %s: %s\n", tModule.strName.c_str(), szReason);
    }
}

void WriteToFile(TModule &tModule, spdlog::string_view_t strText)
{
    try {
        if (tModule.ptFile == nullptr) {
            OpenFile(tModule);
        }
        tModule.ptFile->log(Message(tModule, strText));
        tModule.ptFile->flush();
    } catch (const std::exception &tReason) {
        GiveUpFile(tModule, tReason.what());
    }
}

void WriteLine(uint32_t dwModule, uint32_t dwLevel, spdlog::string_view_t strText)
{
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    TModule *ptModule = s_aptModules[dwModule];
    if (ptModule == nullptr || ptModule->strName.empty() || dwLevel >= ptModule->qwSwitchLimit) {
        return;
    }
    if (dwLevel < ptModule->qwStdioLimit) {
        WriteToConsole(*ptModule, strText);
    }
    if (dwLevel < ptModule->qwFileLimit && !ptModule->bFileFailed) {
        WriteToFile(*ptModule, strText);
        UpdateWanted(dwModule, *ptModule);
    }
}

/* The result of vsnprintf in a buffer of LINE_SIZE, without the newline, which the sinks add. */
spdlog::string_view_t LineText(const char *achLine, int nLen)
{
    size_t uLen = std::min(static_cast<size_t>(nLen), static_cast<size_t>(LINE_SIZE - 1));
    if (uLen > 0 && achLine[uLen - 1] == '\n') {
        uLen--;
    }
    return spdlog::string_view_t(achLine, uLen);
}

/* Formats a line that a sink takes. A function of its own: unwanted lines need no large stack frame. */
__attribute__((noinline, format(printf, 3, 0))) void PrintWanted(uint32_t dwModule, uint32_t dwLevel,
                                                                 const char *szFormat, va_list tArgs)
{
    const int nErrno = errno; /* the caller may still need it */
    char achLine[LINE_SIZE];
    const int nLen = vsnprintf(achLine, sizeof(achLine), szFormat, tArgs);
    if (nLen >= 0) { /* otherwise a text that the locale cannot convert */
        try {
            WriteLine(dwModule, dwLevel, LineText(achLine, nLen));
        } catch (...) { /* no memory: the line is lost, the caller goes on */
        }
    }
    errno = nErrno;
}

} // namespace

uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName)
{
    if (szPrefix == nullptr || szName == nullptr || szName[0] == '\0') {
        return 0;
    }
    return Change(dwModule, [szPrefix, szName](TModule &tModule) {
        std::string strPrefix = szPrefix[0] != '\0' ? std::string(szPrefix) + " " : std::string();
        std::string strName = szName;
        if (tModule.strName != strName) {
            CloseFile(tModule);
        }
        tModule.strPrefix = std::move(strPrefix);
        tModule.strName = std::move(strName);
    });
}

uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn)
{
    return Change(dwModule, [dwLevel, bOn](TModule &tModule) {
        const uint64_t qwLevel = dwLevel;
        tModule.qwSwitchLimit =
            bOn != 0 ? std::max(tModule.qwSwitchLimit, qwLevel + 1) : std::min(tModule.qwSwitchLimit, qwLevel);
    });
}

uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel)
{
    return Change(dwModule, [dwLevel](TModule &tModule) { tModule.qwStdioLimit = SinkLimit(dwLevel); });
}

uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes)
{
    if (dwBytes == 0) {
        return 0;
    }
    return Change(dwModule, [dwBytes](TModule &tModule) {
        tModule.dwFileLen = dwBytes;
        CloseFile(tModule);
    });
}

uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel)
{
    return Change(dwModule, [dwLevel](TModule &tModule) {
        tModule.qwFileLimit = SinkLimit(dwLevel);
        tModule.bFileFailed = false;
    });
}

void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...)
{
    if (dwModule >= MODULES || dwLevel >= s_aqwWantedLimit[dwModule].load(std::memory_order_relaxed) ||
        szFormat == nullptr) {
        return;
    }
    va_list tArgs;
    va_start(tArgs, szFormat);
    PrintWanted(dwModule, dwLevel, szFormat, tArgs);
    va_end(tArgs);
}
