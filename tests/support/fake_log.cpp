#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/debuglog.h"
#include "tests/support/fake_platform.h"
#include "tests/support/records.h"

namespace
{

using test::Guard;

struct LogRecords {
    std::mutex lock;
    std::vector<fake::LogLine> lines;
    std::vector<std::string> calls;
    bool failRegist = false;
};

LogRecords &Rec()
{
    return test::Lasting<LogRecords>();
}

std::string FormatText(const char *format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) {
        return {};
    }
    std::string text(static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

/* Notes name(args[0],args[1],...). */
uint32_t NoteCall(const std::string &name, const std::vector<std::string> &args)
{
    std::string call = name;
    for (const std::string &arg : args) {
        call += (&arg == &args.front() ? "(" : ",") + arg;
    }
    const Guard guard(Rec().lock);
    Rec().calls.push_back(call + ")");
    return 1;
}

uint32_t NoteSetting(const std::string &name, uint32_t module, uint32_t value)
{
    return NoteCall(name, {std::to_string(module), std::to_string(value)});
}

} // namespace

extern "C" {

uint32_t DebugLogRegist(uint32_t module, const char *prefix, const char *name)
{
    NoteCall("DebugLogRegist", {std::to_string(module), fake::OrEmpty(prefix), fake::OrEmpty(name)});
    const Guard guard(Rec().lock);
    return !Rec().failRegist && prefix != nullptr && name != nullptr && *name != '\0';
}

uint32_t DebugLogMoudlePrintLevelOn(uint32_t module, uint32_t level, uint32_t on)
{
    return NoteCall("DebugLogMoudlePrintLevelOn", {std::to_string(module), std::to_string(level), std::to_string(on)});
}

uint32_t DebugLogSetToStdioPrintf(uint32_t module, uint32_t level)
{
    return NoteSetting("DebugLogSetToStdioPrintf", module, level);
}

uint32_t DebugLogSetLogFileLen(uint32_t module, uint32_t size)
{
    return NoteSetting("DebugLogSetLogFileLen", module, size);
}

uint32_t DebugLogSetToFileLevel(uint32_t module, uint32_t level)
{
    return NoteSetting("DebugLogSetToFileLevel", module, level);
}

void DebugLogPrint(uint32_t module, uint32_t level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = FormatText(format, args);
    va_end(args);

    const size_t end = text.find("[L:");
    std::string func = end == std::string::npos ? std::string() : text.substr(0, end);
    const Guard guard(Rec().lock);
    Rec().lines.push_back({module, level, format, std::move(text), std::move(func)});
}
}

namespace fake
{

std::vector<LogLine> Lines()
{
    const Guard guard(Rec().lock);
    return Rec().lines;
}

void ClearLines()
{
    const Guard guard(Rec().lock);
    Rec().lines.clear();
}

size_t CountTexts(const std::string &part)
{
    const Guard guard(Rec().lock);
    return static_cast<size_t>(std::count_if(Rec().lines.begin(), Rec().lines.end(), [&part](const LogLine &line) {
        return line.text.find(part) != std::string::npos;
    }));
}

std::string Transcript()
{
    std::string all;
    for (const LogLine &line : Lines()) {
        all += std::to_string(line.module) + "/" + std::to_string(line.level) + " " + line.text;
        if (all.back() != '\n') {
            all += '\n';
        }
    }
    return all;
}

std::vector<std::string> DebugLogCalls()
{
    const Guard guard(Rec().lock);
    return Rec().calls;
}

void FailDebugLogRegist(bool fail)
{
    const Guard guard(Rec().lock);
    Rec().failRegist = fail;
}

} // namespace fake
