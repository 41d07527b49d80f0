/*
 * The device's debug log: numbered modules, each with a file and with lines on the console.
 *
 * Levels are numbers; a smaller one is more severe. A sink (console or file) that is set to
 * level n takes lines of level n and below. Nonzero is success. All calls are thread-safe.
 *
 * Starting state: every level is switched off, console and file take nothing, and the
 * platform chooses the length of a file. A line is written once its level is switched on and
 * a sink takes it.
 *
 * A module exists from the first call that names its number; until DebugLogRegist gives it a
 * name, its lines are dropped.
 */
#ifndef PLATFORM_DEBUGLOG_H
#define PLATFORM_DEBUGLOG_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

#if defined(__GNUC__)
#define DEBUGLOG_PRINTF(nFormat, nFirst) __attribute__((format(printf, nFormat, nFirst)))
#else
#define DEBUGLOG_PRINTF(nFormat, nFirst)
#endif

/*
 * Registers a module. Each of its lines begins with szPrefix, szName names its file; both
 * are copied. A repeated registration succeeds and changes prefix and name. Fails for a null
 * text, an empty name or a module number that the platform does not have.
 */
uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName);

/*
 * Switches the lines of one level and all more severe ones on (bOn nonzero), or the lines
 * of that level and all less severe ones off. Lines that are switched off reach no sink.
 */
uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn);

/* The console shows lines of dwLevel and below; 0 shows none. */
uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel);

/* When the file reaches dwBytes, a new one is started; the previous file is kept. */
uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes);

/* The file takes lines of dwLevel and below; 0 takes none. */
uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel);

/*
 * Writes a line. szFormat ends with a newline. A line longer than the platform can hold is
 * cut. A line that no sink takes costs a comparison or two.
 */
void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...) DEBUGLOG_PRINTF(3, 4);

NVRHTTPCURL_END_DECLS

#endif
