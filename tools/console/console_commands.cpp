#include "tools/console/console_commands.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "platform/host/console_words.h"
#include "platform/host/osp_console.h"

namespace
{

enum { LONGEST_TEST_URL = 63 };

struct TArgument {
    const char *szName;
    bool bRequired;
    bool bNumber;
    int64_t nMin; /* of a number */
    int64_t nMax; /* of a number, or of a text's length */
};

struct TCommand {
    const char *szUsage;
    const char *szWhat;
    std::vector<TArgument> atArguments;
};

/* Never destroyed, as the registry that it describes. */
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
          {{"MODE", false, true, INT_MIN, INT_MAX}, {"URL", false, false, 0, LONGEST_TEST_URL}}}},
    };
    return *ptCommands;
}

bool IsHex(const std::string &strText)
{
    return strText.compare(0, 2, "0x") == 0 || strText.compare(0, 2, "0X") == 0;
}

/*
 * Decimal with a sign, if any, or 0x and hexadecimal digits, of any size. The platform may pass
 * such a word as a number, and a command that expects a text would take that for an address.
 */
bool LooksLikeNumber(const TConsoleWord &tWord)
{
    const std::string &strText = tWord.strText;
    const bool bHex = IsHex(strText);
    const size_t uDigits = bHex ? 2 : (strText.find_first_of("+-") == 0 ? 1 : 0);
    const char *szAllowed = bHex ? "0123456789abcdefABCDEF" : "0123456789";
    return !tWord.bQuoted && uDigits < strText.size() &&
           strText.find_first_not_of(szAllowed, uDigits) == std::string::npos;
}

/* False also for a number that does not fit. */
bool ToNumber(const TConsoleWord &tWord, int64_t &nNumber)
{
    if (!LooksLikeNumber(tWord)) {
        return false;
    }
    errno = 0;
    nNumber = strtoll(tWord.strText.c_str(), nullptr, IsHex(tWord.strText) ? 16 : 10);
    return errno == 0;
}

/* What is wrong with one argument; empty if nothing is. */
std::string Complaint(const TArgument &tArgument, const TConsoleWord &tWord)
{
    const std::string strName = tArgument.szName;
    if (!tArgument.bNumber && LooksLikeNumber(tWord)) {
        return strName + " must be a text, not a number";
    }
    if (!tArgument.bNumber) {
        const std::string strMost = std::to_string(tArgument.nMax);
        return tWord.strText.size() <= static_cast<size_t>(tArgument.nMax)
                   ? ""
                   : strName + " has " + std::to_string(tWord.strText.size()) +
                         " characters, and the library would cut it at " + strMost;
    }
    int64_t nNumber = 0;
    if (ToNumber(tWord, nNumber) && nNumber >= tArgument.nMin && nNumber <= tArgument.nMax) {
        return "";
    }
    return strName + " must be a number from " + std::to_string(tArgument.nMin) + " to " +
           std::to_string(tArgument.nMax) + ", not \"" + tWord.strText + "\"";
}

/* The same for all of a line; its first word is the command. */
std::string Complaint(const TCommand &tCommand, const std::vector<TConsoleWord> &atWords)
{
    const std::vector<TArgument> &atArguments = tCommand.atArguments;
    if (atWords.size() - 1 > atArguments.size()) {
        return "too many arguments";
    }
    for (size_t uIndex = 0; uIndex < atArguments.size(); uIndex++) {
        const bool bGiven = uIndex + 1 < atWords.size();
        if (!bGiven && atArguments[uIndex].bRequired) {
            return std::string(atArguments[uIndex].szName) + " is missing";
        }
        std::string strComplaint = bGiven ? Complaint(atArguments[uIndex], atWords[uIndex + 1]) : "";
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

/* Name and help text of every command there is. */
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
        const auto itKnown = KnownCommands().find(strName);
        if (itKnown == KnownCommands().end()) {
            printf("  %-28s %s\n", strName.c_str(), strHelp.c_str());
        } else {
            printf("  %-28s %s\n", itKnown->second.szUsage, itKnown->second.szWhat);
        }
    }
}

/* What a line that has just been run means for the session. */
TConsoleResult ResultOf(const std::vector<TConsoleWord> &atWords)
{
    TConsoleResult tResult;
    int64_t nNumber = 0;
    if (atWords.size() > 1 && ToNumber(atWords[1], nNumber)) {
        tResult.bAsyncTest = atWords[0].strText == "sendbycurltest" && nNumber == 1;
        if (atWords[0].strText == "sendbycurlsetlog" && nNumber >= 1 && nNumber <= 3) {
            tResult.nLogType = static_cast<int>(nNumber);
        }
    }
    return tResult;
}

TConsoleResult RunRegistered(const std::string &strLine, const std::vector<TConsoleWord> &atWords)
{
    switch (OspConsoleRun(strLine.c_str())) {
    case OSP_CONSOLE_FOUND:
        return ResultOf(atWords);
    case OSP_CONSOLE_BAD_LINE:
        printf("%s: more than six arguments\n", atWords[0].strText.c_str());
        break;
    default:
        printf("%s: no such command; \"help\" lists them\n", atWords[0].strText.c_str());
        break;
    }
    return {};
}

} // namespace

std::vector<std::string> ConsoleNames()
{
    std::vector<std::string> astrNames;
    for (const auto &tOne : AllCommands()) {
        astrNames.push_back(tOne.first);
    }
    return astrNames;
}

TConsoleResult RunConsoleLine(const std::string &strLine)
{
    std::vector<TConsoleWord> atWords;
    if (!SplitConsoleLine(strLine, atWords)) {
        printf("a quote is not closed: %s\n", strLine.c_str());
        return {};
    }
    if (atWords.empty()) {
        return {};
    }
    const std::string &strName = atWords[0].strText;
    const auto itKnown = KnownCommands().find(strName);
    if (itKnown != KnownCommands().end()) {
        const std::string strComplaint = Complaint(itKnown->second, atWords);
        if (!strComplaint.empty()) {
            printf("%s: %s; usage: %s\n", strName.c_str(), strComplaint.c_str(), itKnown->second.szUsage);
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
