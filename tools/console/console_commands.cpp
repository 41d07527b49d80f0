#include "tools/console/console_commands.h"

#include "platform/host/osp_console.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>

namespace
{

struct TArgument {
    const char *szName;
    bool bRequired;
    bool bNumber;
    long long llMin; /* of a number */
    long long llMax;
};

struct TCommand {
    const char *szUsage;
    const char *szWhat;
    std::vector<TArgument> atArguments;
};

struct TWord {
    std::string strText;
    bool bQuoted;
};

const char *const s_szBlanks = " \t\r\n\v\f";
const long long s_llMinInt = std::numeric_limits<int>::min();
const long long s_llMaxInt = std::numeric_limits<int>::max();

// Never destroyed, as the registry that it describes.
const std::map<std::string, TCommand> &KnownCommands()
{
    static const auto *ptCommands = new std::map<std::string, TCommand>{
        {"NvrHttpCurlCltshow", {"NvrHttpCurlCltshow", "list the engine's instances and workers", {}}},
        {"NvrHttpCurlCltver", {"NvrHttpCurlCltver", "show the engine's version", {}}},
        {"help", {"help", "list the commands", {}}},
        {"quit", {"quit", "leave; the end of the input does the same", {}}},
        {"sendbycurlsetlog",
         {"sendbycurlsetlog LEVEL",
          "where the library's lines go: 1 debug log, 2 console, 3 both",
          {{"LEVEL", true, true, 0, 255}}}},
        {"sendbycurlshow", {"sendbycurlshow", "list the asynchronous posts that are not notified yet", {}}},
        {"sendbycurltest",
         {"sendbycurltest [MODE [URL]]",
          "post a test text to URL (63 characters at most): MODE 1 asynchronously, else and wait",
          {{"MODE", false, true, s_llMinInt, s_llMaxInt}, {"URL", false, false, 0, 0}}}},
    };
    return *ptCommands;
}

// Splits as the platform's console does; false if a quote is not closed.
bool Split(const std::string &strLine, std::vector<TWord> &atWords)
{
    size_t nAt = strLine.find_first_not_of(s_szBlanks);

    while (nAt != std::string::npos) {
        bool bQuoted = strLine[nAt] == '"';
        size_t nBegin = bQuoted ? nAt + 1 : nAt;
        size_t nEnd = bQuoted ? strLine.find('"', nBegin) : strLine.find_first_of(s_szBlanks, nBegin);
        if (bQuoted && nEnd == std::string::npos) {
            return false;
        }
        nEnd = std::min(nEnd, strLine.size());
        atWords.push_back({strLine.substr(nBegin, nEnd - nBegin), bQuoted});
        nAt = strLine.find_first_not_of(s_szBlanks, bQuoted ? nEnd + 1 : nEnd);
    }
    return true;
}

bool IsHex(const std::string &strText)
{
    return strText.compare(0, 2, "0x") == 0 || strText.compare(0, 2, "0X") == 0;
}

// Decimal with a sign, if any, or 0x and hexadecimal digits, of any size. The platform may pass
// such a word as a number, and a command that expects a text would take that for an address.
bool LooksLikeNumber(const TWord &tWord)
{
    const std::string &strText = tWord.strText;
    bool bHex = IsHex(strText);
    size_t nDigits = bHex ? 2 : (strText.find_first_of("+-") == 0 ? 1 : 0);
    const char *szAllowed = bHex ? "0123456789abcdefABCDEF" : "0123456789";

    return !tWord.bQuoted && nDigits < strText.size() &&
           strText.find_first_not_of(szAllowed, nDigits) == std::string::npos;
}

// False also for a number that does not fit.
bool ToNumber(const TWord &tWord, long long &llNumber)
{
    if (!LooksLikeNumber(tWord)) {
        return false;
    }
    errno = 0;
    llNumber = std::strtoll(tWord.strText.c_str(), nullptr, IsHex(tWord.strText) ? 16 : 10);
    return errno == 0;
}

// What is wrong with one argument; empty if nothing is.
std::string Complaint(const TArgument &tArgument, const TWord &tWord)
{
    if (!tArgument.bNumber) {
        return LooksLikeNumber(tWord) ? std::string(tArgument.szName) + " must be a text, not a number" : "";
    }
    long long llNumber = 0;
    if (ToNumber(tWord, llNumber) && llNumber >= tArgument.llMin && llNumber <= tArgument.llMax) {
        return "";
    }
    return std::string(tArgument.szName) + " must be a number from " + std::to_string(tArgument.llMin) + " to " +
           std::to_string(tArgument.llMax) + ", not \"" + tWord.strText + "\"";
}

// The same for all of a line; its first word is the command.
std::string Complaint(const TCommand &tCommand, const std::vector<TWord> &atWords)
{
    const std::vector<TArgument> &atArguments = tCommand.atArguments;

    if (atWords.size() - 1 > atArguments.size()) {
        return "too many arguments";
    }
    for (size_t nIndex = 0; nIndex < atArguments.size(); nIndex++) {
        bool bGiven = nIndex + 1 < atWords.size();
        if (!bGiven && atArguments[nIndex].bRequired) {
            return std::string(atArguments[nIndex].szName) + " is missing";
        }
        std::string strComplaint = bGiven ? Complaint(atArguments[nIndex], atWords[nIndex + 1]) : "";
        if (!strComplaint.empty()) {
            return strComplaint;
        }
    }
    return "";
}

void CollectName(const char *szName, const char *szHelp, void *pvContext)
{
    static_cast<std::map<std::string, std::string> *>(pvContext)->emplace(szName, szHelp);
}

// Name and help text of every command there is.
std::map<std::string, std::string> AllCommands()
{
    std::map<std::string, std::string> tAll;

    OspConsoleList(CollectName, &tAll);
    tAll.emplace("help", "");
    tAll.emplace("quit", "");
    return tAll;
}

void PrintHelp()
{
    for (const auto &[strName, strHelp] : AllCommands()) {
        auto itKnown = KnownCommands().find(strName);
        if (itKnown == KnownCommands().end()) {
            std::printf("  %-28s %s\n", strName.c_str(), strHelp.c_str());
        } else {
            std::printf("  %-28s %s\n", itKnown->second.szUsage, itKnown->second.szWhat);
        }
    }
}

// What a line that has just been run means for the session.
TConsoleResult ResultOf(const std::vector<TWord> &atWords)
{
    TConsoleResult tResult;
    long long llNumber = 0;

    if (atWords.size() > 1 && ToNumber(atWords[1], llNumber)) {
        tResult.bAsyncTest = atWords[0].strText == "sendbycurltest" && llNumber == 1;
        if (atWords[0].strText == "sendbycurlsetlog" && llNumber >= 1 && llNumber <= 3) {
            tResult.nLogType = static_cast<int>(llNumber);
        }
    }
    return tResult;
}

TConsoleResult RunRegistered(const std::string &strLine, const std::vector<TWord> &atWords)
{
    switch (OspConsoleRun(strLine.c_str())) {
    case OSP_CONSOLE_FOUND:
        return ResultOf(atWords);
    case OSP_CONSOLE_BAD_LINE:
        std::printf("%s: more than six arguments\n", atWords[0].strText.c_str());
        break;
    default:
        std::printf("%s: no such command; \"help\" lists them\n", atWords[0].strText.c_str());
        break;
    }
    return {};
}

} // namespace

std::vector<std::string> ConsoleNames()
{
    std::vector<std::string> atNames;

    for (const auto &tOne : AllCommands()) {
        atNames.push_back(tOne.first);
    }
    return atNames;
}

TConsoleResult RunConsoleLine(const std::string &strLine)
{
    std::vector<TWord> atWords;
    if (!Split(strLine, atWords)) {
        std::printf("a quote is not closed: %s\n", strLine.c_str());
        return {};
    }
    if (atWords.empty()) {
        return {};
    }
    const std::string &strName = atWords[0].strText;
    auto itKnown = KnownCommands().find(strName);
    if (itKnown != KnownCommands().end()) {
        std::string strComplaint = Complaint(itKnown->second, atWords);
        if (!strComplaint.empty()) {
            std::printf("%s: %s; usage: %s\n", strName.c_str(), strComplaint.c_str(), itKnown->second.szUsage);
            return {};
        }
    }
    if (strName == "help") {
        PrintHelp();
        return {};
    }
    if (strName == "quit") {
        TConsoleResult tResult;
        tResult.bQuit = true;
        return tResult;
    }
    return RunRegistered(strLine, atWords);
}
