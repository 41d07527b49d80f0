/*
 * Lines from standard input: edited on a terminal, plain from anything else.
 */
#ifndef TOOLS_CONSOLE_LINE_SOURCE_H
#define TOOLS_CONSOLE_LINE_SOURCE_H

#include <memory>
#include <string>
#include <vector>

class CLineSource
{
  public:
    virtual ~CLineSource() = default;

    /* The next line, without its newline; false at the end of the input. */
    virtual bool Next(std::string &strLine) = 0;
};

/*
 * On a terminal: prompt, editing, history and completion of the first word, one of those that
 * pfWords returns. Otherwise no prompt, and lines as they are. One source at a time. Throws
 * std::runtime_error where the terminal cannot be set up.
 */
std::unique_ptr<CLineSource> MakeLineSource(bool bTerminal, std::vector<std::string> (*pfWords)());

#endif
