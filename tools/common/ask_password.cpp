#include "tools/common/ask_password.h"

#include <csignal>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

void OnInterrupt(int)
{
    /* It is enough that read returns. */
}

bool WriteText(int nFd, const std::string &strText)
{
    return write(nFd, strText.c_str(), strText.size()) == static_cast<ssize_t>(strText.size());
}

/* A line without its newline; false at the end of the input and after a signal. */
bool ReadLine(int nFd, std::string &strLine)
{
    char chOne = 0;
    ssize_t nRead = 0;
    while ((nRead = read(nFd, &chOne, 1)) == 1 && chOne != '\n') {
        strLine += chOne;
    }
    return nRead == 1;
}

/* The prompt comes when what is typed is no longer shown. */
bool AskUnseen(int nTerminal, const std::string &strPrompt, std::string &strPassword)
{
    termios tBefore = {};
    if (tcgetattr(nTerminal, &tBefore) != 0) {
        return false;
    }
    termios tUnseen = tBefore;
    tUnseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    const bool bRead = tcsetattr(nTerminal, TCSAFLUSH, &tUnseen) == 0 && WriteText(nTerminal, strPrompt) &&
                       ReadLine(nTerminal, strPassword);
    tcsetattr(nTerminal, TCSAFLUSH, &tBefore);
    return WriteText(nTerminal, "\n") && bRead;
}

} // namespace

bool AskPassword(const std::string &strPrompt, std::string &strPassword)
{
    const int nTerminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (nTerminal < 0) {
        return false;
    }
    /* Not the default action: the terminal must show again what is typed. */
    struct sigaction tAction = {};
    struct sigaction tBefore = {};
    tAction.sa_handler = OnInterrupt;
    sigaction(SIGINT, &tAction, &tBefore);
    const bool bAsked = AskUnseen(nTerminal, strPrompt, strPassword);
    sigaction(SIGINT, &tBefore, nullptr);
    close(nTerminal);
    return bAsked;
}
