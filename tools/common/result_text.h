/*
 * Results of the send module and of the engine in words, for people.
 */
#ifndef TOOLS_COMMON_RESULT_TEXT_H
#define TOOLS_COMMON_RESULT_TEXT_H

#include "nvrhttpcurl/httpcurlclient.h"
#include "nvrhttpcurl/sendbycurl.h"

/* A result of the module's start. */
const char *ModuleStartText(ESendByCurlRet eRet);

/* A result of a send over the engine, synchronous or asynchronous. */
const char *EngineSendText(ESendByCurlRet eRet);

/* The result that stands for the end of a post through the C++ client. */
const char *ClientSendText(ESendByCurlRet eRet);

/* A result of a direct send: the numbers are the same, some of them mean something else. */
const char *DirectSendText(ESendByCurlRet eRet);

/* A result of the URI check. */
const char *CheckUriText(ENvrHttpCurlCltRet eRet);

#endif
