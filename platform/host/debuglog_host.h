/*
 * Host only: what a program may want to know about the debug log. The device has no such call;
 * nothing in the library may use it.
 */
#ifndef PLATFORM_HOST_DEBUGLOG_HOST_H
#define PLATFORM_HOST_DEBUGLOG_HOST_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/*
 * Writes the path of the file of a module that is registered as szName, as the environment has
 * it now; creates nothing. Nonzero is success; fails if achPath has no place for it all.
 */
uint32_t HostDebugLogPath(const char *szName, char *achPath, uint32_t dwSize);

/*
 * Lines for the console go to this open descriptor; at the start it is standard error. It is one for
 * all modules.
 */
void HostDebugLogSetConsole(int nFd);

NVRHTTPCURL_END_DECLS

#endif
