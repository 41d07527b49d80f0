/*
 * Numbers of the library that its tools need too: where its log lines go and which ports it
 * takes. Plain numbers without code, so that any program can include them.
 */
#ifndef SUPPORT_HCC_NUMBERS_H
#define SUPPORT_HCC_NUMBERS_H

/* The library's module in the debug log, and the levels of its lines there. */
enum { HCC_LOG_MODULE = 123 };
enum { HCC_LEVEL_TRACE = 1, HCC_LEVEL_ERROR = 2, HCC_LEVEL_SHOW = 3, HCC_LEVEL_INFO = 4 };

/* UDP ports of 127.0.0.1 for wake-up sockets: tried from the first one downwards to the last one. */
enum { HCC_WAKEUP_PORT_FIRST = 46990, HCC_WAKEUP_PORT_LAST = 40000 };

#endif
