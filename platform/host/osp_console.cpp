#include "platform/host/osp_console.h"

#include <charconv>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/host/console_words.h"
#include "platform/osp.h"

namespace
{

enum { MAX_ARGS = 6 };

struct TCommand {
    PFOspCommand pfCommand;
    std::string strHelp;
};

std::mutex s_tLock; /* guards the registry */

/* Never destroyed: tasks may still come here while the process ends. */
std::map<std::string, TCommand> &Registry()
{
    static auto *ptRegistry = new std::map<std::string, TCommand>;
    return *ptRegistry;
}

/* Reads all of [szBegin, szEnd) as a number; false if it is none or does not fit. */
template <typename TNumber> bool ReadAll(const char *szBegin, const char *szEnd, int nBase, TNumber &rtNumber)
{
    const std::from_chars_result tResult = std::from_chars(szBegin, szEnd, rtNumber, nBase);
    return tResult.ec == std::errc() && tResult.ptr == szEnd;
}

/* The number that a word is; false if it is a text. */
bool ToNumber(const std::string &strWord, uintptr_t &ruNumber)
{
    const char *szBegin = strWord.c_str();
    const char *szEnd = szBegin + strWord.size();
    if (strncmp(szBegin, "0x", 2) == 0 || strncmp(szBegin, "0X", 2) == 0) {
        return ReadAll(szBegin + 2, szEnd, 16, ruNumber);
    }
    if (szBegin[0] == '-') {
        intptr_t nNumber = 0;
        const bool bNumber = ReadAll(szBegin, szEnd, 10, nNumber);
        ruNumber = static_cast<uintptr_t>(nNumber);
        return bNumber;
    }
    return ReadAll(szBegin[0] == '+' ? szBegin + 1 : szBegin, szEnd, 10, ruNumber);
}

uintptr_t ToArgument(const TConsoleWord &tWord)
{
    uintptr_t uNumber = 0;
    if (!tWord.bQuoted && ToNumber(tWord.strText, uNumber)) {
        return uNumber;
    }
    return reinterpret_cast<uintptr_t>(tWord.strText.c_str());
}

PFOspCommand Find(const std::string &strName)
{
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    const auto it = Registry().find(strName);
    return it != Registry().end() ? it->second.pfCommand : nullptr;
}

/*
 * A command's parameters are known only to the one who registered it. In the calling
 * conventions of the hosts we run on, six integers or pointers are passed in registers and
 * a function that declares fewer leaves the rest alone, so one type serves for all. This is
 * the only cast back from PFOspCommand, and exempt from checks of indirect calls.
 */
#if defined(__clang__)
__attribute__((no_sanitize("function")))
#endif
void Call(PFOspCommand pfCommand, const uintptr_t (&auArgs)[MAX_ARGS])
{
    typedef uintptr_t (*PFSixArgs)(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);
    const PFSixArgs pfSixArgs = reinterpret_cast<PFSixArgs>(pfCommand);
    pfSixArgs(auArgs[0], auArgs[1], auArgs[2], auArgs[3], auArgs[4], auArgs[5]);
}

uint32_t RunLine(const std::string &strLine)
{
    std::vector<TConsoleWord> atWords;
    if (!SplitConsoleLine(strLine, atWords) || atWords.size() > 1 + MAX_ARGS) {
        return OSP_CONSOLE_BAD_LINE;
    }
    if (atWords.empty()) {
        return OSP_CONSOLE_EMPTY;
    }
    const PFOspCommand pfCommand = Find(atWords[0].strText);
    if (pfCommand == nullptr) {
        return OSP_CONSOLE_NOT_FOUND;
    }
    uintptr_t auArgs[MAX_ARGS] = {};
    for (size_t uI = 1; uI < atWords.size(); uI++) {
        auArgs[uI - 1] = ToArgument(atWords[uI]);
    }
    Call(pfCommand, auArgs);
    return OSP_CONSOLE_FOUND;
}

} // namespace

uint32_t OspRegCommand(const char *szName, PFOspCommand pfCommand, const char *szHelp)
{
    if (szName == nullptr || szName[0] == '\0' || pfCommand == nullptr) {
        return 0;
    }
    try {
        TCommand tCommand = {pfCommand, szHelp != nullptr ? szHelp : ""};
        const std::lock_guard<std::mutex> tGuard(s_tLock);
        Registry().insert_or_assign(szName, std::move(tCommand));
        return 1;
    } catch (...) {
        return 0; /* no memory */
    }
}

uint32_t OspConsoleRun(const char *szLine)
{
    return szLine != nullptr ? RunLine(szLine) : static_cast<uint32_t>(OSP_CONSOLE_EMPTY);
}

void OspConsoleList(void (*pfEach)(const char *szName, const char *szHelp, void *pvContext), void *pvContext)
{
    if (pfEach == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    for (const auto &[strName, tCommand] : Registry()) {
        pfEach(strName.c_str(), tCommand.strHelp.c_str(), pvContext);
    }
}
