#include "tools/common/ask_password.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace
{

void OnInterrupt(int)
{
    /* It is enough that the wait ends. */
}

bool WriteText(int nFd, const std::string &strText)
{
    return write(nFd, strText.c_str(), strText.size()) == static_cast<ssize_t>(strText.size());
}

/* Lets signals in while it waits, and only then: none can come between the prompt and the wait. */
bool WaitForLine(int nFd, const sigset_t &tSignals)
{
    pollfd tWait = {nFd, POLLIN, 0};
    return ppoll(&tWait, 1, nullptr, &tSignals) == 1;
}

/* A line without its newline; false at the end of the input. */
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
bool AskUnseen(int nTerminal, const sigset_t &tSignals, const std::string &strPrompt, std::string &strPassword)
{
    termios tBefore = {};
    if (tcgetattr(nTerminal, &tBefore) != 0) {
        return false;
    }
    termios tUnseen = tBefore;
    tUnseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    const bool bRead = tcsetattr(nTerminal, TCSAFLUSH, &tUnseen) == 0 && WriteText(nTerminal, strPrompt) &&
                       WaitForLine(nTerminal, tSignals) && ReadLine(nTerminal, strPassword);
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
    sigset_t tInterrupt;
    sigset_t tSignals;
    sigemptyset(&tInterrupt);
    sigaddset(&tInterrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &tInterrupt, &tSignals);
    const bool bAsked = AskUnseen(nTerminal, tSignals, strPrompt, strPassword);
    pthread_sigmask(SIG_SETMASK, &tSignals, nullptr);
    sigaction(SIGINT, &tBefore, nullptr);
    close(nTerminal);
    return bAsked;
}
