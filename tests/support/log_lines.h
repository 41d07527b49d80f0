/*
 * Log lines in tests: what a line should be, and whether the library logged it.
 *
 * A line is given without the opening "function[L:number]" that every format begins with:
 * Error("NvrHttpCurlCltUninit", "[Error] invalid arg, hInstance %p\n", Ptr(nullptr)).
 */
#ifndef TESTS_SUPPORT_LOG_LINES_H
#define TESTS_SUPPORT_LOG_LINES_H

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace test
{

/* --- expected lines -------------------------------------------------------------------------- */

struct Line {
    uint32_t level;
    std::string func;
    std::string format;
    std::string text;
};
using Lines = std::vector<Line>;

bool operator==(const Line &a, const Line &b);
void PrintTo(const Line &line, std::ostream *out);
Lines operator+(Lines a, const Lines &b);

/* A line of each level. */
Line Trace(const std::string &func, const char *format, ...) __attribute__((format(printf, 2, 3)));
Line Error(const std::string &func, const char *format, ...) __attribute__((format(printf, 2, 3)));
Line Show(const std::string &func, const char *format, ...) __attribute__((format(printf, 2, 3)));
Line Info(const std::string &func, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* The line about an option that libcurl refused. */
Line SetoptFault(const std::string &func, CURLcode code);

/* Where a line repeats its function and number as "%s[%d]", this is the number to give. */
enum { OWN_NUMBER = 0 };

std::string Text(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* What "%p" gets. */
template <typename T> const void *Ptr(T *any)
{
    return reinterpret_cast<const void *>(any);
}

inline const void *Ptr(std::nullptr_t)
{
    return nullptr;
}

/* --- logged lines ---------------------------------------------------------------------------- */

/* All lines so far. One of another module, or without the opening, equals no expected line. */
Lines Log();
size_t CountOf(const std::string &format);

/* Of these, a failure names the line of the test that called. */
#define FROM_TEST const char *file = __builtin_FILE(), int number = __builtin_LINE()
/* Exactly these since the last such call, or since fake::ClearLines; forgets them. */
void ExpectLines(const Lines &expected, FROM_TEST);
/* Exactly these of one function, among whatever others. */
void ExpectLinesOf(const std::string &func, const Lines &expected, FROM_TEST);
/* Exactly one line of its format, and it reads like this. */
void ExpectLine(const Line &expected, FROM_TEST);
/* The same for each of them, and they come in this order. */
void ExpectInOrder(const Lines &expected, FROM_TEST);
#undef FROM_TEST

/* What holds for every line: module, opening, newline, and the error tag on errors alone. */
void ExpectConventions();

} // namespace test

#endif
