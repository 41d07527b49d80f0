/*
 * A password from the terminal.
 */
#ifndef TOOLS_COMMON_ASK_PASSWORD_H
#define TOOLS_COMMON_ASK_PASSWORD_H

#include <string>

/*
 * Asks on the process's terminal, whatever the standard streams are, and reads a line that is not
 * shown. False without a terminal, and where the user ends the input or interrupts it.
 */
bool AskPassword(const std::string &strPrompt, std::string &strPassword);

#endif
