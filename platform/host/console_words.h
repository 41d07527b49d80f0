/*
 * Words of a console line, as OspConsoleRun splits it.
 */
#ifndef PLATFORM_HOST_CONSOLE_WORDS_H
#define PLATFORM_HOST_CONSOLE_WORDS_H

#include <string>
#include <vector>

struct TConsoleWord {
    std::string strText;
    bool bQuoted; /* a text, even if it looks like a number */
};

/* Appends the words of a line; false if a quote is not closed. osp_console.h has the rules. */
bool SplitConsoleLine(const std::string &strLine, std::vector<TConsoleWord> &atWords);

#endif
