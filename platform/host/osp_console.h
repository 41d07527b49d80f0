/*
 * Host only: what a console on top of the command registry needs. The device has a console
 * of its own and none of these calls; nothing in the library may use them.
 */
#ifndef PLATFORM_HOST_OSP_CONSOLE_H
#define PLATFORM_HOST_OSP_CONSOLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

enum {
    OSP_CONSOLE_FOUND = 0,     /* the command was found and called */
    OSP_CONSOLE_NOT_FOUND = 1, /* no command of that name is registered */
    OSP_CONSOLE_BAD_LINE = 2,  /* a quote is not closed, or there are more than six arguments */
    OSP_CONSOLE_EMPTY = 3      /* nothing but blanks, or null */
};

/*
 * Runs one console line on the calling thread.
 *
 * The first word is the command; up to six more are its arguments. A word that is a whole
 * decimal number (with a sign, if any) or a hexadecimal one (0x...) is passed as that
 * number; any other, and any word in double quotes, is passed as a text that lives until
 * the command returns. So is a number that does not fit a machine word: -2^63 to 2^64-1
 * where that has 64 bits. Missing arguments are passed as 0. The command's result is
 * dropped. The command is called with the registry unlocked, so it may register commands
 * itself.
 *
 * A quote opens a quoted word only at a word's beginning; inside a word it is a character
 * like any other, so {"a":1} needs no quoting. A quoted word ends at the next quote, may
 * hold blanks, and what follows it begins the next word. There are no escapes: a text with
 * both blanks and quotes cannot be passed.
 */
uint32_t OspConsoleRun(const char *szLine);

/*
 * Calls pfEach for every registered command, in the order of their names. The texts live
 * until pfEach returns; it must not call the console or register commands.
 */
void OspConsoleList(void (*pfEach)(const char *szName, const char *szHelp, void *pvContext), void *pvContext);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif

#endif
