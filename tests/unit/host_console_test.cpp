/* The host's console registry, against platform/osp.h and platform/host/osp_console.h. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/osp_console.h"
#include "platform/osp.h"

namespace
{

struct Call {
    std::string strCommand;
    std::vector<uintptr_t> auArgs;
};

std::vector<Call> atCalls;

uint32_t Numbers(uintptr_t u1, uintptr_t u2, uintptr_t u3, uintptr_t u4, uintptr_t u5, uintptr_t u6)
{
    atCalls.push_back({"numbers", {u1, u2, u3, u4, u5, u6}});
    return 5;
}

std::vector<std::string> astrTexts;

void Texts(const char *sz1, const char *sz2, const char *sz3, const char *sz4, const char *sz5, const char *sz6)
{
    for (const char *szText : {sz1, sz2, sz3, sz4, sz5, sz6}) {
        if (szText != nullptr) {
            astrTexts.push_back(szText);
        }
    }
}

template <typename TCommand> uint32_t Register(const char *szName, TCommand pfCommand, const char *szHelp = "help")
{
    return OspRegCommand(szName, reinterpret_cast<PFOspCommand>(pfCommand), szHelp);
}

/* The first argument of "numbers" with this word. */
uintptr_t NumberOf(const std::string &strWord)
{
    Register("numbers", Numbers);
    atCalls.clear();
    EXPECT_EQ(OspConsoleRun(("numbers " + strWord).c_str()), static_cast<uint32_t>(OSP_CONSOLE_FOUND)) << strWord;
    return atCalls.empty() ? 0 : atCalls[0].auArgs[0];
}

/* The arguments of "texts" with these words; for words that are no number. */
std::vector<std::string> TextsOf(const std::string &strWords)
{
    Register("texts", Texts);
    astrTexts.clear();
    EXPECT_EQ(OspConsoleRun(("texts " + strWords).c_str()), static_cast<uint32_t>(OSP_CONSOLE_FOUND)) << strWords;
    return astrTexts;
}

using Words = std::vector<std::string>;

std::vector<std::pair<std::string, std::string>> Listed()
{
    std::vector<std::pair<std::string, std::string>> atListed;
    OspConsoleList([](const char *szName, const char *szHelp,
                      void *pvListed) { static_cast<decltype(atListed) *>(pvListed)->emplace_back(szName, szHelp); },
                   &atListed);
    return atListed;
}

TEST(HostConsole, RunsARegisteredCommand)
{
    Register("numbers", Numbers);
    EXPECT_EQ(OspConsoleRun("numbers"), static_cast<uint32_t>(OSP_CONSOLE_FOUND));
    ASSERT_EQ(atCalls.size(), 1U);
}

TEST(HostConsole, RunsOnTheCallingThread)
{
    static std::thread::id tRanOn;
    const auto pfNote = +[] { tRanOn = std::this_thread::get_id(); };
    Register("note", pfNote);
    std::thread tCaller([] { OspConsoleRun("note"); });
    const std::thread::id tCallerID = tCaller.get_id();
    tCaller.join();
    EXPECT_EQ(tRanOn, tCallerID);
}

TEST(HostConsole, MissingArgumentsAreZero)
{
    Register("numbers", Numbers);
    OspConsoleRun("numbers");
    OspConsoleRun("numbers 1 2");
    ASSERT_EQ(atCalls.size(), 2U);
    EXPECT_EQ(atCalls[0].auArgs, (std::vector<uintptr_t>{0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(atCalls[1].auArgs, (std::vector<uintptr_t>{1, 2, 0, 0, 0, 0}));
}

TEST(HostConsole, SixArgumentsAreTakenAndSevenAreNot)
{
    Register("numbers", Numbers);
    EXPECT_EQ(OspConsoleRun("numbers 1 2 3 4 5 6"), static_cast<uint32_t>(OSP_CONSOLE_FOUND));
    EXPECT_EQ(OspConsoleRun("numbers 1 2 3 4 5 6 7"), static_cast<uint32_t>(OSP_CONSOLE_BAD_LINE));
    ASSERT_EQ(atCalls.size(), 1U);
    EXPECT_EQ(atCalls[0].auArgs, (std::vector<uintptr_t>{1, 2, 3, 4, 5, 6}));
}

TEST(HostConsole, DecimalNumbers)
{
    EXPECT_EQ(NumberOf("0"), 0U);
    EXPECT_EQ(NumberOf("42"), 42U);
    EXPECT_EQ(NumberOf("+42"), 42U);
    EXPECT_EQ(NumberOf("007"), 7U);
    EXPECT_EQ(NumberOf("-1"), UINTPTR_MAX);
    EXPECT_EQ(NumberOf(std::to_string(UINTPTR_MAX)), UINTPTR_MAX);
    EXPECT_EQ(NumberOf(std::to_string(INTPTR_MIN)), static_cast<uintptr_t>(INTPTR_MIN));
}

TEST(HostConsole, HexadecimalNumbers)
{
    EXPECT_EQ(NumberOf("0x0"), 0U);
    EXPECT_EQ(NumberOf("0x20000"), 0x20000U);
    EXPECT_EQ(NumberOf("0XaF"), 0xAFU);
    EXPECT_EQ(NumberOf("0x" + std::string(sizeof(uintptr_t) * 2, 'f')), UINTPTR_MAX);
}

TEST(HostConsole, WhatIsNoWholeNumberIsAText)
{
    for (const char *szWord : {"http://127.0.0.1:80/x", "12a", "1.5", "-", "+", "+-5", "--5", "0x", "0xg", "-0x5",
                               "x10", "0x-1", "18446744073709551616", "-9223372036854775809", "0x10000000000000000"}) {
        EXPECT_EQ(TextsOf(szWord), Words{szWord});
    }
}

TEST(HostConsole, QuotedWordsAreTexts)
{
    EXPECT_EQ(TextsOf("\"42\""), Words{"42"});
    EXPECT_EQ(TextsOf("\"two words\" next"), (Words{"two words", "next"}));
    EXPECT_EQ(TextsOf("\"\""), Words{""});
    EXPECT_EQ(TextsOf("\" a\tb \""), Words{" a\tb "});
    EXPECT_EQ(TextsOf("\"a\\\""), Words{"a\\"});
    EXPECT_EQ(TextsOf("\"a\"b"), (Words{"a", "b"}));
}

TEST(HostConsole, QuotesInsideAWordAreCharacters)
{
    EXPECT_EQ(TextsOf("{\"a\":1} b\""), (Words{"{\"a\":1}", "b\""}));
}

TEST(HostConsole, TextsAndNumbersMayBeMixed)
{
    static std::string strSeen;
    const auto pfMixed = +[](uint32_t dwMode, const char *szUrl, int32_t nLast) {
        strSeen = std::to_string(dwMode) + "|" + szUrl + "|" + std::to_string(nLast);
        return uint32_t{1};
    };
    Register("mixed", pfMixed);
    OspConsoleRun("mixed 3 http://127.0.0.1/ -7");
    EXPECT_EQ(strSeen, "3|http://127.0.0.1/|-7");
}

TEST(HostConsole, AByteParameterGetsItsNumber)
{
    static unsigned nSeen;
    const auto pfByte = +[](uint8_t byLevel) {
        nSeen = byLevel;
        return uint32_t{0};
    };
    Register("byte", pfByte);
    OspConsoleRun("byte 2");
    EXPECT_EQ(nSeen, 2U);
    OspConsoleRun("byte 255");
    EXPECT_EQ(nSeen, 255U);
}

TEST(HostConsole, BlanksPartWordsAndCountForNothingElse)
{
    Register("numbers", Numbers);
    EXPECT_EQ(OspConsoleRun("  numbers\t 1   2 \r\n"), static_cast<uint32_t>(OSP_CONSOLE_FOUND));
    ASSERT_EQ(atCalls.size(), 1U);
    EXPECT_EQ(atCalls[0].auArgs, (std::vector<uintptr_t>{1, 2, 0, 0, 0, 0}));
}

TEST(HostConsole, UnknownCommand)
{
    Register("numbers", Numbers);
    for (const char *szLine : {"number", "numberss", "Numbers", "1", "\"\"", "\"numbers 1\""}) {
        EXPECT_EQ(OspConsoleRun(szLine), static_cast<uint32_t>(OSP_CONSOLE_NOT_FOUND)) << szLine;
    }
    EXPECT_TRUE(atCalls.empty());
}

TEST(HostConsole, OpenQuoteIsABadLine)
{
    Register("numbers", Numbers);
    EXPECT_EQ(OspConsoleRun("numbers \"open"), static_cast<uint32_t>(OSP_CONSOLE_BAD_LINE));
    EXPECT_EQ(OspConsoleRun("numbers \""), static_cast<uint32_t>(OSP_CONSOLE_BAD_LINE));
    EXPECT_TRUE(atCalls.empty());
}

TEST(HostConsole, EmptyLines)
{
    for (const char *szLine : {"", "   ", "\t\r\n"}) {
        EXPECT_EQ(OspConsoleRun(szLine), static_cast<uint32_t>(OSP_CONSOLE_EMPTY));
    }
    EXPECT_EQ(OspConsoleRun(nullptr), static_cast<uint32_t>(OSP_CONSOLE_EMPTY));
}

TEST(HostConsole, SecondRegistrationReplacesTheFirst)
{
    static int nFirst;
    static int nSecond;
    const auto pfFirst = +[] { nFirst++; };
    const auto pfSecond = +[] { nSecond++; };
    EXPECT_NE(Register("same", pfFirst, "first help"), 0U);
    EXPECT_NE(Register("same", pfSecond, "second help"), 0U);
    OspConsoleRun("same");
    EXPECT_EQ(nFirst, 0);
    EXPECT_EQ(nSecond, 1);
    const auto atListed = Listed();
    ASSERT_EQ(atListed.size(), 1U);
    EXPECT_EQ(atListed[0].second, "second help");
}

TEST(HostConsole, NameAndHelpAreCopied)
{
    std::string strName = "name";
    std::string strHelp = "help";
    Register(strName.c_str(), Numbers, strHelp.c_str());
    strName[0] = 'x';
    strHelp[0] = 'x';
    const auto atListed = Listed();
    ASSERT_EQ(atListed.size(), 1U);
    EXPECT_EQ(atListed[0].first, "name");
    EXPECT_EQ(atListed[0].second, "help");
}

TEST(HostConsole, RefusesWhatCannotBeRun)
{
    EXPECT_EQ(Register(nullptr, Numbers), 0U);
    EXPECT_EQ(Register("", Numbers), 0U);
    EXPECT_EQ(OspRegCommand("none", nullptr, "help"), 0U);
    EXPECT_TRUE(Listed().empty());
}

TEST(HostConsole, NoHelpIsEmptyHelp)
{
    EXPECT_NE(Register("bare", Numbers, nullptr), 0U);
    ASSERT_EQ(Listed().size(), 1U);
    EXPECT_EQ(Listed()[0].second, "");
}

TEST(HostConsole, ListsInTheOrderOfNames)
{
    OspConsoleList(nullptr, nullptr);
    for (const char *szName : {"b", "c", "B", "a", "ab"}) {
        Register(szName, Numbers, szName);
    }
    Words astrNames;
    for (const auto &[strName, strHelp] : Listed()) {
        EXPECT_EQ(strName, strHelp);
        astrNames.push_back(strName);
    }
    EXPECT_EQ(astrNames, (Words{"B", "a", "ab", "b", "c"}));
}

TEST(HostConsole, ACommandMayRegisterAndRunCommands)
{
    static uint32_t dwInner;
    const auto pfOuter = +[] {
        Register("inner", Numbers);
        dwInner = OspConsoleRun("inner 9");
    };
    Register("outer", pfOuter);
    EXPECT_EQ(OspConsoleRun("outer"), static_cast<uint32_t>(OSP_CONSOLE_FOUND));
    EXPECT_EQ(dwInner, static_cast<uint32_t>(OSP_CONSOLE_FOUND));
    ASSERT_EQ(atCalls.size(), 1U);
    EXPECT_EQ(atCalls[0].auArgs[0], 9U);
}

TEST(HostConsole, AnyThreadMayRegisterAndRun)
{
    static std::atomic<int> nRun{0};
    const auto pfCount = +[] { nRun++; };
    Register("count", pfCount);
    std::vector<std::thread> atThreads;
    for (int nI = 0; nI < 4; nI++) {
        atThreads.emplace_back([nI, pfCount] {
            for (int nRound = 0; nRound < 200; nRound++) {
                Register("count", pfCount);
                Register(("own" + std::to_string(nI)).c_str(), pfCount);
                OspConsoleRun("count");
                Listed();
            }
        });
    }
    for (std::thread &rThread : atThreads) {
        rThread.join();
    }
    EXPECT_EQ(nRun.load(), 800);
    EXPECT_EQ(Listed().size(), 5U);
}

} // namespace
