#include "support/hcc_log.h"

uint8_t g_bySendCurlLogType = HCC_LOG_TO_DEBUGLOG;
