/*
 * Starts the library's log and the send module without filling the console.
 */
#ifndef TOOLS_COMMON_MODULE_START_H
#define TOOLS_COMMON_MODULE_START_H

#include <cstdint>

#include "nvrhttpcurl/sendbycurl.h"

/*
 * Registers the library's log; the console shows its lines of dwConsoleLevel and all more severe
 * ones, 0 none. A later start of the module keeps this setting.
 */
void StartLog(uint32_t dwConsoleLevel);

/*
 * As Qelvo_SyncSendStrByHttp_Init. Each worker looks for a wake-up port from the same one
 * downwards and logs an error for each that is taken, over fifty lines even on an idle machine:
 * meanwhile the library's lines go to the log file alone, afterwards errors go to the console, too.
 */
ESendByCurlRet StartModuleQuietly();

#endif
