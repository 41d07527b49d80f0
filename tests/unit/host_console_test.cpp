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

const uint32_t FOUND = OSP_CONSOLE_FOUND;
const uint32_t BAD_LINE = OSP_CONSOLE_BAD_LINE;

struct Call {
    std::string command;
    std::vector<uintptr_t> args;
};

std::vector<Call> calls;

uint32_t Numbers(uintptr_t u1, uintptr_t u2, uintptr_t u3, uintptr_t u4, uintptr_t u5, uintptr_t u6)
{
    calls.push_back({"numbers", {u1, u2, u3, u4, u5, u6}});
    return 5;
}

std::vector<std::string> texts;

void Texts(const char *sz1, const char *sz2, const char *sz3, const char *sz4, const char *sz5, const char *sz6)
{
    for (const char *text : {sz1, sz2, sz3, sz4, sz5, sz6}) {
        if (text != nullptr) {
            texts.push_back(text);
        }
    }
}

template <typename TCommand> uint32_t Register(const char *name, TCommand command, const char *help = "help")
{
    return OspRegCommand(name, reinterpret_cast<PFOspCommand>(command), help);
}

/* The first argument of "numbers" with this word. */
uintptr_t NumberOf(const std::string &word)
{
    Register("numbers", Numbers);
    calls.clear();
    EXPECT_EQ(OspConsoleRun(("numbers " + word).c_str()), FOUND) << word;
    return calls.empty() ? 0 : calls[0].args[0];
}

/* The arguments of "texts" with these words; for words that are no number. */
std::vector<std::string> TextsOf(const std::string &words)
{
    Register("texts", Texts);
    texts.clear();
    EXPECT_EQ(OspConsoleRun(("texts " + words).c_str()), FOUND) << words;
    return texts;
}

using Words = std::vector<std::string>;

std::vector<std::pair<std::string, std::string>> Listed()
{
    std::vector<std::pair<std::string, std::string>> listed;
    OspConsoleList([](const char *name, const char *help,
                      void *result) { static_cast<decltype(listed) *>(result)->emplace_back(name, help); },
                   &listed);
    return listed;
}

TEST(HostConsole, RunsOnTheCallingThread)
{
    static std::thread::id ranOn;
    const auto note = +[] { ranOn = std::this_thread::get_id(); };
    Register("note", note);
    std::thread caller([] { OspConsoleRun("note"); });
    const std::thread::id callerId = caller.get_id();
    caller.join();
    EXPECT_EQ(ranOn, callerId);
}

TEST(HostConsole, SixArgumentsAreTakenAndMissingOnesAreZero)
{
    const std::pair<const char *, std::vector<uintptr_t>> cases[] = {{"numbers", {0, 0, 0, 0, 0, 0}},
                                                                     {"numbers 1 2", {1, 2, 0, 0, 0, 0}},
                                                                     {"numbers 1 2 3 4 5 6", {1, 2, 3, 4, 5, 6}},
                                                                     {"  numbers\t 1   2 \r\n", {1, 2, 0, 0, 0, 0}}};
    Register("numbers", Numbers);
    for (const auto &[line, args] : cases) {
        calls.clear();
        EXPECT_EQ(OspConsoleRun(line), FOUND) << line;
        ASSERT_EQ(calls.size(), 1U) << line;
        EXPECT_EQ(calls[0].args, args) << line;
    }
    EXPECT_EQ(OspConsoleRun("numbers 1 2 3 4 5 6 7"), BAD_LINE);
    EXPECT_EQ(calls.size(), 1U);
}

TEST(HostConsole, DecimalAndHexadecimalNumbers)
{
    const std::pair<std::string, uintptr_t> cases[] = {{"0", 0},
                                                       {"42", 42},
                                                       {"+42", 42},
                                                       {"007", 7},
                                                       {"-1", UINTPTR_MAX},
                                                       {std::to_string(UINTPTR_MAX), UINTPTR_MAX},
                                                       {std::to_string(INTPTR_MIN), static_cast<uintptr_t>(INTPTR_MIN)},
                                                       {"0x0", 0},
                                                       {"0x20000", 0x20000},
                                                       {"0XaF", 0xAF},
                                                       {"0x" + std::string(sizeof(uintptr_t) * 2, 'f'), UINTPTR_MAX}};
    for (const auto &[word, number] : cases) {
        EXPECT_EQ(NumberOf(word), number) << word;
    }
}

TEST(HostConsole, WhatIsNoWholeNumberIsAText)
{
    for (const char *word : {"http://127.0.0.1:80/x", "12a", "1.5", "-", "+", "+-5", "--5", "0x", "0xg", "-0x5", "x10",
                             "0x-1", "18446744073709551616", "-9223372036854775809", "0x10000000000000000"}) {
        EXPECT_EQ(TextsOf(word), Words{word});
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
    EXPECT_EQ(TextsOf("{\"a\":1} b\""), (Words{"{\"a\":1}", "b\""})) << "inside a word they are characters";
}

TEST(HostConsole, TextsAndNumbersMayBeMixed)
{
    static std::string seen;
    const auto noteMixed = +[](uint32_t mode, const char *url, int32_t last) {
        seen = std::to_string(mode) + "|" + url + "|" + std::to_string(last);
        return uint32_t{1};
    };
    Register("mixed", noteMixed);
    OspConsoleRun("mixed 3 http://127.0.0.1/ -7");
    EXPECT_EQ(seen, "3|http://127.0.0.1/|-7");
}

TEST(HostConsole, AByteParameterGetsItsNumber)
{
    static unsigned seen;
    const auto noteByte = +[](uint8_t level) {
        seen = level;
        return uint32_t{0};
    };
    Register("byte", noteByte);
    OspConsoleRun("byte 2");
    EXPECT_EQ(seen, 2U);
    OspConsoleRun("byte 255");
    EXPECT_EQ(seen, 255U);
}

TEST(HostConsole, UnknownCommand)
{
    Register("numbers", Numbers);
    for (const char *line : {"number", "numberss", "Numbers", "1", "\"\"", "\"numbers 1\""}) {
        EXPECT_EQ(OspConsoleRun(line), static_cast<uint32_t>(OSP_CONSOLE_NOT_FOUND)) << line;
    }
    EXPECT_TRUE(calls.empty());
}

TEST(HostConsole, OpenQuoteIsABadLine)
{
    Register("numbers", Numbers);
    EXPECT_EQ(OspConsoleRun("numbers \"open"), BAD_LINE);
    EXPECT_EQ(OspConsoleRun("numbers \""), BAD_LINE);
    EXPECT_TRUE(calls.empty());
}

TEST(HostConsole, EmptyLines)
{
    for (const char *line : {"", "   ", "\t\r\n"}) {
        EXPECT_EQ(OspConsoleRun(line), static_cast<uint32_t>(OSP_CONSOLE_EMPTY));
    }
    EXPECT_EQ(OspConsoleRun(nullptr), static_cast<uint32_t>(OSP_CONSOLE_EMPTY));
}

TEST(HostConsole, SecondRegistrationReplacesTheFirst)
{
    static int first;
    static int second;
    const auto noteFirst = +[] { first++; };
    const auto noteSecond = +[] { second++; };
    EXPECT_NE(Register("same", noteFirst, "first help"), 0U);
    EXPECT_NE(Register("same", noteSecond, "second help"), 0U);
    OspConsoleRun("same");
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    const auto listed = Listed();
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_EQ(listed[0].second, "second help");
}

TEST(HostConsole, NameAndHelpAreCopiedAndNoHelpIsEmptyHelp)
{
    std::string name = "name";
    std::string help = "help";
    Register(name.c_str(), Numbers, help.c_str());
    name[0] = 'x';
    help[0] = 'x';
    EXPECT_NE(Register("bare", Numbers, nullptr), 0U);
    EXPECT_EQ(Listed(), (std::vector<std::pair<std::string, std::string>>{{"bare", ""}, {"name", "help"}}));
}

TEST(HostConsole, RefusesWhatCannotBeRun)
{
    EXPECT_EQ(Register(nullptr, Numbers), 0U);
    EXPECT_EQ(Register("", Numbers), 0U);
    EXPECT_EQ(OspRegCommand("none", nullptr, "help"), 0U);
    EXPECT_TRUE(Listed().empty());
}

TEST(HostConsole, ListsInTheOrderOfNames)
{
    OspConsoleList(nullptr, nullptr);
    for (const char *name : {"b", "c", "B", "a", "ab"}) {
        Register(name, Numbers, name);
    }
    Words names;
    for (const auto &[name, help] : Listed()) {
        EXPECT_EQ(name, help);
        names.push_back(name);
    }
    EXPECT_EQ(names, (Words{"B", "a", "ab", "b", "c"}));
}

TEST(HostConsole, ACommandMayRegisterAndRunCommands)
{
    static uint32_t inner;
    const auto runInner = +[] {
        Register("inner", Numbers);
        inner = OspConsoleRun("inner 9");
    };
    Register("outer", runInner);
    EXPECT_EQ(OspConsoleRun("outer"), FOUND);
    EXPECT_EQ(inner, FOUND);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], 9U);
}

TEST(HostConsole, AnyThreadMayRegisterAndRun)
{
    static std::atomic<int> runs{0};
    const auto countRun = +[] { runs++; };
    Register("count", countRun);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([i, countRun] {
            for (int round = 0; round < 200; round++) {
                Register("count", countRun);
                Register(("own" + std::to_string(i)).c_str(), countRun);
                OspConsoleRun("count");
                Listed();
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(runs.load(), 800);
    EXPECT_EQ(Listed().size(), 5U);
}

} // namespace
