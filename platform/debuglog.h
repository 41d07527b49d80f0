/*
 * The device's debug log: numbered modules, each with a file and a share of the console.
 *
 * Levels are numbers; a smaller one is more severe. A sink that is set to level n takes
 * lines of level n and below. Nonzero is success. All calls are thread-safe.
 *
 * Starting state: every level is switched off, console and file take nothing, and a file's
 * length is the platform's choice. Lines flow once the calls below have set all of it.
 *
 * A module exists from its first mention; until DebugLogRegist has given it a name, its
 * lines have no sink and are dropped.
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
 * Registers a module. szPrefix opens each of its lines, szName names its file; both are
 * copied. A repeated registration succeeds and changes prefix and name. Fails on a null
 * text, an empty name or a module number that the platform does not have.
 */
uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName);

/*
 * Switches the lines of one level and all more severe ones on (bOn nonzero), or the lines
 * of that level and all less severe ones off. A line has to pass this switch before it is
 * offered to any sink.
 */
uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn);

/* The console shows lines of dwLevel and below; 0 shows none. */
uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel);

/* The file is started afresh, keeping the one before, when it has reached dwBytes. */
uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes);

/* The file takes lines of dwLevel and below; 0 takes none. */
uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel);

/*
 * Writes a line. szFormat brings its own newline; its result never exceeds what the platform
 * can hold in a line, the rest is cut. A line that no sink wants costs a comparison or two.
 */
void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...) DEBUGLOG_PRINTF(3, 4);

NVRHTTPCURL_END_DECLS

#endif
