/*
 * The self-test command: a fixed temperature-check notification, sent through the module as
 * an application sends.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cjson/cJSON.h>

#include "sendbycurl/sendbycurl_inner.h"
#include "support/hcc_log.h"

/* The helpers below run for the command: their lines have its name. */
static const char s_szSelfTest[] = "sendbycurltest";

/*
 * In asynchronous mode the answer is copied into the buffer without a bound; its size is far
 * above that of any answer to the notification.
 */
enum { URL_BYTES = 64, RECV_BYTES = 0x100000, TIMEOUT_MS = 5000 };

static void AddMembers(cJSON *ptRoot)
{
    cJSON_AddNumberToObject(ptRoot, "TaskId", 1);
    cJSON_AddStringToObject(ptRoot, "CheckTemp", "11");
    cJSON_AddStringToObject(ptRoot, "Operator", "qq");
    cJSON_AddStringToObject(ptRoot, "Remarks", "qq");
    cJSON_AddNumberToObject(ptRoot, "TemperatureScale", 1);
    cJSON_AddStringToObject(ptRoot, "NVR MacAddress", "00-00-00-00-00-00");
}

/* The notification's text, which is never released; null if it could not be made. */
static char *MakeText()
{
    cJSON *ptRoot = cJSON_CreateObject();
    if (ptRoot == nullptr) {
        HCC_LOG_AS(s_szSelfTest, HCC_LEVEL_INFO, " ptRoot is null\n");
        return nullptr;
    }
    AddMembers(ptRoot);
    char *pchText = cJSON_PrintUnformatted(ptRoot);
    cJSON_Delete(ptRoot);
    return pchText;
}

static void Send(TSendByCurlParam *ptParam, uint32_t eSyncMode)
{
    const ESendByCurlRet eSendRet = Qelvo_SendStrByHttp(ptParam, eSyncMode);
    if (eSendRet != SENDBYCURL_OK) {
        HCC_LOG_AS(s_szSelfTest, HCC_LEVEL_INFO, " Qelvo_SendStrByHttps fail, eSendRet %d\n", eSendRet);
    } else {
        HCC_LOG_AS(s_szSelfTest, HCC_LEVEL_INFO, " Qelvo_SendStrByHttps suc\n");
    }
}

void sendbycurltest(int32_t nMode, const char *pchUrl)
{
    /* One byte more than the capacity, for the terminator of an answer that fills it. */
    char *pchRecvBuf = static_cast<char *>(calloc(1, RECV_BYTES + 1));
    if (pchRecvBuf == nullptr) {
        HCC_LOG(HCC_LEVEL_INFO, " malloc fail\n");
        return;
    }
    char szUrl[URL_BYTES] = "";
    const char *pchTarget = NVRHTTPCURL_SELFTEST_URL;
    if (pchUrl != nullptr && pchUrl[0] != '\0') {
        snprintf(szUrl, sizeof(szUrl), "%s", pchUrl);
        pchTarget = szUrl;
    }
    const char *pchText = MakeText();
    if (pchText == nullptr) {
        return; /* the buffer is deliberately not released; NOLINT(clang-analyzer-unix.Malloc) */
    }

    const uint32_t eSyncMode = nMode == 1 ? SENDBYCURL_MODE_ASYNC : SENDBYCURL_MODE_SYNC;
    const uint32_t dwTextLen = static_cast<uint32_t>(strlen(pchText));
    HCC_LOG(HCC_LEVEL_INFO, " --99--eSyncMode:%d achSendBuf[%u]: %s\n", eSyncMode, dwTextLen, pchText);

    TSendByCurlParam tParam = {};
    tParam.pchURL = pchTarget;
    tParam.eHeadType = SENDBYCURL_METHOD_GET; /* libcurl sends a POST, since it has a body */
    tParam.pchSendBuf = pchText;
    tParam.dwSendLen = dwTextLen;
    tParam.dwConnTimeOutMS = TIMEOUT_MS;
    tParam.dwTimeoutMS = TIMEOUT_MS;
    tParam.dwMaxRecvLen = RECV_BYTES;
    tParam.pchRecvBuf = pchRecvBuf;
    tParam.pfNtf = SendByCurlReqProgressNtf;
    Send(&tParam, eSyncMode);

    /* In asynchronous mode the notification releases the buffer; if none comes, it is lost. */
    if (eSyncMode == SENDBYCURL_MODE_SYNC) {
        HCC_LOG(HCC_LEVEL_INFO, " --99--eSyncMode:%d achRecvBuf[%u]: %s\n", 0, tParam.dwRecvLen, pchRecvBuf);
        free(pchRecvBuf);
    }
}
