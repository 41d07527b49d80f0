/*
 * Starts the send module without filling the console.
 */
#ifndef TOOLS_COMMON_MODULE_START_H
#define TOOLS_COMMON_MODULE_START_H

#include "nvrhttpcurl/sendbycurl.h"

/*
 * As Qelvo_SyncSendStrByHttp_Init. Each worker looks for a wake-up port from the same one
 * downwards and logs an error for each that is taken, over fifty lines even on an idle machine:
 * meanwhile the library's lines go to the log file alone, afterwards to the console as usual.
 */
ESendByCurlRet StartSendModule();

#endif
