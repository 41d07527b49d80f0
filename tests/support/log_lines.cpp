#include "tests/support/log_lines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "support/hcc_log.h"
#include "tests/support/fake_platform.h"

namespace test
{

namespace
{

const std::string OPENING = "%s[L:%d]";

bool StartsWith(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

std::string VText(const char *format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, copy)), '\0');
    va_end(copy);
    vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

/* The text behind "func[L:number]", "func[number]" in it made "func[0]"; empty without that opening. */
std::string TextBehindOpening(const fake::LogLine &line)
{
    const std::string opening = line.func + "[L:";
    const size_t end = line.text.find(']');
    if (line.func.empty() || !StartsWith(line.text, opening) || end == std::string::npos ||
        atoi(line.text.c_str() + opening.size()) <= 0) {
        return {};
    }
    const std::string own = line.func + "[" + line.text.substr(opening.size(), end + 1 - opening.size());
    std::string text = line.text.substr(end + 1);
    const size_t place = text.find(own);
    return place == std::string::npos ? text : text.replace(place, own.size(), line.func + "[0]");
}

Line LineOf(const fake::LogLine &line)
{
    const std::string module = line.module == HCC_LOG_MODULE ? "" : "module " + std::to_string(line.module) + " ";
    const std::string text = TextBehindOpening(line);
    if (text.empty() || !StartsWith(line.format, OPENING)) {
        return {line.level, module + line.func, "without opening: " + line.format, line.text};
    }
    return {line.level, module + line.func, line.format.substr(OPENING.size()), text};
}

std::vector<size_t> PlacesOf(const Lines &log, const std::string &format)
{
    std::vector<size_t> places;
    for (size_t i = 0; i < log.size(); ++i) {
        if (log[i].format == format) {
            places.push_back(i);
        }
    }
    return places;
}

void ExpectEqual(const Lines &logged, const Lines &expected, const char *file, int number)
{
    if (!(logged == expected)) {
        ADD_FAILURE_AT(file, number) << "logged " << testing::PrintToString(logged) << "\nexpected "
                                     << testing::PrintToString(expected);
    }
}

} // namespace

/* --- expected lines -------------------------------------------------------------------------- */

bool operator==(const Line &a, const Line &b)
{
    return a.level == b.level && a.func == b.func && a.format == b.format && a.text == b.text;
}

void PrintTo(const Line &line, std::ostream *out)
{
    *out << "\n    " << line.level << ' ' << line.func << " {" << line.format << "} " << line.text;
}

Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

#define DEFINE_LEVEL(name, level)                                                                                      \
    Line name(const std::string &func, const char *format, ...)                                                        \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        const std::string text = VText(format, args);                                                                  \
        va_end(args);                                                                                                  \
        return {level, func, format, text};                                                                            \
    }

DEFINE_LEVEL(Trace, HCC_LEVEL_TRACE)
DEFINE_LEVEL(Error, HCC_LEVEL_ERROR)
DEFINE_LEVEL(Show, HCC_LEVEL_SHOW)
DEFINE_LEVEL(Info, HCC_LEVEL_INFO)

Line SetoptFault(const std::string &func, CURLcode code)
{
    return Error(func, "[Error] curl_easy_setopt fault! {ErrorCode:%d} {ErrorStr:%s}\n", static_cast<int>(code),
                 curl_easy_strerror(code));
}

std::string Text(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = VText(format, args);
    va_end(args);
    return text;
}

/* --- logged lines ---------------------------------------------------------------------------- */

Lines Log()
{
    Lines lines;
    for (const fake::LogLine &line : fake::Lines()) {
        lines.push_back(LineOf(line));
    }
    return lines;
}

size_t CountOf(const std::string &format)
{
    return PlacesOf(Log(), format).size();
}

void ExpectLines(const Lines &expected, const char *file, int number)
{
    ExpectEqual(Log(), expected, file, number);
    fake::ClearLines();
}

void ExpectLinesOf(const std::string &func, const Lines &expected, const char *file, int number)
{
    Lines lines = Log();
    lines.erase(std::remove_if(lines.begin(), lines.end(), [&func](const Line &line) { return line.func != func; }),
                lines.end());
    ExpectEqual(lines, expected, file, number);
}

void ExpectLine(const Line &expected, const char *file, int number)
{
    ExpectInOrder({expected}, file, number);
}

void ExpectInOrder(const Lines &expected, const char *file, int number)
{
    const Lines log = Log();
    size_t next = 0;
    for (const Line &line : expected) {
        const std::vector<size_t> places = PlacesOf(log, line.format);
        if (places.size() != 1 || !(log[places[0]] == line) || places[0] < next) {
            ADD_FAILURE_AT(file, number) << "not once, or not in order:" << testing::PrintToString(line) << "\nlogged\n"
                                         << fake::Transcript();
            return;
        }
        next = places[0] + 1;
    }
}

void ExpectConventions()
{
    for (const Line &line : Log()) {
        const std::string what = testing::PrintToString(line);
        EXPECT_FALSE(StartsWith(line.func, "module ")) << what;
        EXPECT_FALSE(StartsWith(line.format, "without opening: ")) << what;
        EXPECT_EQ(StartsWith(line.format, "[Error] "), line.level == HCC_LEVEL_ERROR) << what;
        EXPECT_EQ(line.format.back(), '\n') << what;
    }
}

} // namespace test
