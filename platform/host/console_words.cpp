#include "platform/host/console_words.h"

static const char s_szBlanks[] = " \t\r\n\v\f";

bool SplitConsoleLine(const std::string &strLine, std::vector<TConsoleWord> &atWords)
{
    size_t uAt = strLine.find_first_not_of(s_szBlanks);
    while (uAt != std::string::npos) {
        const bool bQuoted = strLine[uAt] == '"';
        const size_t uBegin = bQuoted ? uAt + 1 : uAt;
        size_t uEnd = bQuoted ? strLine.find('"', uBegin) : strLine.find_first_of(s_szBlanks, uBegin);
        if (uEnd == std::string::npos) {
            if (bQuoted) {
                return false;
            }
            uEnd = strLine.size();
        }
        atWords.push_back({strLine.substr(uBegin, uEnd - uBegin), bQuoted});
        uAt = strLine.find_first_not_of(s_szBlanks, bQuoted ? uEnd + 1 : uEnd);
    }
    return true;
}
