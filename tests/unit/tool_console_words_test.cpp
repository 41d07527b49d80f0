/*
 * Words of a console line.
 */
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "platform/host/console_words.h"

namespace
{

/* Each word in brackets, a quoted one in quotes; "unclosed" if the line is none. */
std::string Split(const std::string &line)
{
    std::vector<TConsoleWord> words;
    if (!SplitConsoleLine(line, words)) {
        return "unclosed";
    }
    std::string text;
    for (const TConsoleWord &word : words) {
        text += word.bQuoted ? "\"" + word.strText + "\"" : "[" + word.strText + "]";
    }
    return text;
}

struct LineCase {
    const char *name;
    const char *line;
    const char *words;
};

using ConsoleWords = testing::TestWithParam<LineCase>;

void PrintTo(const LineCase &which, std::ostream *out)
{
    *out << which.name;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Lines, ConsoleWords,
    testing::Values(
        LineCase{"Empty", "", ""}, LineCase{"BlanksOnly", " \t\r\n\v\f", ""}, LineCase{"OneWord", "help", "[help]"},
        LineCase{"Arguments", "set 2 x", "[set][2][x]"},
        LineCase{"EachBlank", " a\tb\rc\nd\ve\ff ", "[a][b][c][d][e][f]"},
        LineCase{"QuotedBlanks", "a \"b  c\"", "[a]\"b  c\""}, LineCase{"QuotedNumber", "a \"1\"", "[a]\"1\""},
        LineCase{"QuotedEmpty", "a \"\"", "[a]\"\""}, LineCase{"QuoteFirst", "\"a b\" c", "\"a b\"[c]"},
        LineCase{"QuoteInAWord", "a {\"b\":1}", "[a][{\"b\":1}]"}, LineCase{"BehindAQuote", "a \"b\"c", "[a]\"b\"[c]"},
        LineCase{"QuotesSideBySide", "\"a\"\"b\"", "\"a\"\"b\""}, LineCase{"NoEscapes", "\"a\\\" b", "\"a\\\"[b]"},
        LineCase{"Unclosed", "a \"b c", "unclosed"}, LineCase{"UnclosedAtTheEnd", "a \"", "unclosed"}),
    [](const auto &test) { return test.param.name; });

TEST_P(ConsoleWords, AreSplit)
{
    EXPECT_EQ(Split(GetParam().line), GetParam().words);
}

TEST(ConsoleWordsAlone, AreAppended)
{
    std::vector<TConsoleWord> words;
    EXPECT_TRUE(SplitConsoleLine("a", words));
    EXPECT_TRUE(SplitConsoleLine("b c", words));
    ASSERT_EQ(words.size(), 3U);
    EXPECT_EQ(words[0].strText, "a");
    EXPECT_EQ(words[2].strText, "c");
}
