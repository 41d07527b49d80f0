#include "tools/console/line_source.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <histedit.h>
#include <stdexcept>
#include <strings.h>

namespace
{

enum { HISTORY_SIZE = 500 };

/* What the completion, a plain callback of libedit, knows of its source. */
std::vector<std::string> (*s_pfWords)() = nullptr;

std::vector<std::string> Matches(const std::string &strHead)
{
    std::vector<std::string> astrMatches;
    for (std::string &strWord : s_pfWords()) {
        if (strncasecmp(strWord.c_str(), strHead.c_str(), strHead.size()) == 0) {
            astrMatches.push_back(std::move(strWord));
        }
    }
    return astrMatches;
}

std::string CommonPrefix(const std::vector<std::string> &astrWords)
{
    std::string strCommon = astrWords.front();
    for (const std::string &strWord : astrWords) {
        size_t uLen = 0;
        while (uLen < strCommon.size() && uLen < strWord.size() && strCommon[uLen] == strWord[uLen]) {
            uLen++;
        }
        strCommon.resize(uLen);
    }
    return strCommon;
}

unsigned char Complete(EditLine *ptEdit, int)
{
    const LineInfo *ptLine = el_line(ptEdit);
    const std::string strHead(ptLine->buffer, ptLine->cursor);
    if (strHead.find_first_of(" \t") != std::string::npos) {
        return CC_ERROR;
    }
    const std::vector<std::string> astrMatches = Matches(strHead);
    if (astrMatches.empty()) {
        return CC_ERROR;
    }
    const std::string strNew = CommonPrefix(astrMatches) + (astrMatches.size() == 1 ? " " : "");
    if (strNew.size() > strHead.size()) {
        el_deletestr(ptEdit, static_cast<int>(strHead.size()));
        return el_insertstr(ptEdit, strNew.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    }
    printf("\n");
    for (const std::string &strWord : astrMatches) {
        printf("%s\n", strWord.c_str());
    }
    fflush(stdout);
    return CC_REDISPLAY;
}

unsigned char ClearLine(EditLine *ptEdit, int)
{
    const LineInfo *ptLine = el_line(ptEdit);
    el_cursor(ptEdit, static_cast<int>(ptLine->lastchar - ptLine->cursor));
    el_deletestr(ptEdit, static_cast<int>(ptLine->lastchar - ptLine->buffer));
    printf("^C\n");
    fflush(stdout);
    return CC_REDISPLAY;
}

unsigned char Suspend(EditLine *, int)
{
    raise(SIGTSTP); /* libedit gives the terminal back before, and takes it over afterwards */
    return CC_REFRESH;
}

/* libedit declares its texts writable, though it does not write them. */
char *Prompt(EditLine *)
{
    static char szPrompt[] = "nvrhttp> ";
    return szPrompt;
}

class CEditedLines : public CLineSource
{
  public:
    CEditedLines();
    ~CEditedLines() override;
    CEditedLines(const CEditedLines &) = delete;
    CEditedLines &operator=(const CEditedLines &) = delete;
    bool Next(std::string &strLine) override;

  private:
    EditLine *m_ptEdit;
    History *m_ptHistory;
};

CEditedLines::CEditedLines() : m_ptEdit(el_init("nvrhttp", stdin, stdout, stderr)), m_ptHistory(history_init())
{
    if (m_ptEdit == nullptr || m_ptHistory == nullptr) {
        throw std::runtime_error("the terminal cannot be set up");
    }
    HistEvent tEvent;
    history(m_ptHistory, &tEvent, H_SETSIZE, HISTORY_SIZE);
    history(m_ptHistory, &tEvent, H_SETUNIQUE, 1);
    el_set(m_ptEdit, EL_PROMPT, Prompt);
    el_set(m_ptEdit, EL_EDITOR, "emacs");
    el_set(m_ptEdit, EL_SIGNAL, 1);
    el_set(m_ptEdit, EL_HIST, history, m_ptHistory);
    /* The wide form keeps these very texts; the other would keep copies that nobody frees. */
    el_wset(m_ptEdit, EL_ADDFN, L"complete-command", L"Complete the command's name", Complete);
    el_wset(m_ptEdit, EL_ADDFN, L"clear-line", L"Clear the line", ClearLine);
    el_wset(m_ptEdit, EL_ADDFN, L"suspend", L"Suspend the program", Suspend);
    /* While a line is edited, these are keys: as a signal, Ctrl-C would end the program or come between two keys. */
    el_set(m_ptEdit, EL_SETTY, "-d", "-isig", nullptr);
    el_set(m_ptEdit, EL_BIND, "^C", "clear-line", nullptr);
    el_set(m_ptEdit, EL_BIND, "^Z", "suspend", nullptr);
    el_set(m_ptEdit, EL_BIND, "^I", "complete-command", nullptr);
    el_set(m_ptEdit, EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

CEditedLines::~CEditedLines()
{
    history_end(m_ptHistory);
    el_end(m_ptEdit);
}

bool CEditedLines::Next(std::string &strLine)
{
    int nLen = 0;
    const char *pchLine = el_gets(m_ptEdit, &nLen);
    if (pchLine == nullptr || nLen <= 0) {
        printf("\n");
        return false;
    }
    strLine.assign(pchLine, static_cast<size_t>(nLen));
    strLine.erase(strLine.find_last_not_of("\r\n") + 1);
    if (strLine.find_first_not_of(" \t") != std::string::npos) {
        HistEvent tEvent;
        history(m_ptHistory, &tEvent, H_ENTER, strLine.c_str());
    }
    return true;
}

class CPlainLines : public CLineSource
{
  public:
    bool Next(std::string &strLine) override;
};

bool CPlainLines::Next(std::string &strLine)
{
    strLine.clear();
    int nChar = 0;
    while ((nChar = getc(stdin)) != EOF && nChar != '\n') {
        strLine += static_cast<char>(nChar);
    }
    const bool bLine = nChar != EOF || !strLine.empty();
    strLine.erase(strLine.find_last_not_of('\r') + 1);
    return bLine;
}

} // namespace

std::unique_ptr<CLineSource> MakeLineSource(bool bTerminal, std::vector<std::string> (*pfWords)())
{
    if (!bTerminal) {
        return std::make_unique<CPlainLines>();
    }
    setlocale(LC_CTYPE, "");
    s_pfWords = pfWords;
    return std::make_unique<CEditedLines>();
}
