/*
 * Prints size and field offsets of every public record and the value of every public constant, for
 * comparison with abi/records.txt: what applications are compiled with on LP64.
 */
#include <stddef.h>
#include <stdio.h>

#include "nvrhttpcurl/hcc_list.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "nvrhttpcurl/httpcurlclient.h"
#include "nvrhttpcurl/memcb.h"
#include "nvrhttpcurl/sendbycurl.h"

#define RECORD(type) printf("%s %zu\n", #type, sizeof(type))
#define FIELD(type, field) printf("%s.%s %zu\n", #type, #field, offsetof(type, field))
#define VALUE(name) printf("%s %d\n", #name, name)

static void PrintRecords(void)
{
    RECORD(TNvrHttpCurlCltMemCB);
    FIELD(TNvrHttpCurlCltMemCB, pfMalloc);
    FIELD(TNvrHttpCurlCltMemCB, pfRealloc);
    FIELD(TNvrHttpCurlCltMemCB, pfFree);

    RECORD(TNvrHttpCurlCltInitParam);
    FIELD(TNvrHttpCurlCltInitParam, dwThreadNum);
    FIELD(TNvrHttpCurlCltInitParam, dwMaxAsycReqNum);

    RECORD(TNVRHCCListNode);
    FIELD(TNVRHCCListNode, ptPrev);
    FIELD(TNVRHCCListNode, ptNext);
    FIELD(TNVRHCCListNode, pvData);

    RECORD(TNVRHCCList);
    FIELD(TNVRHCCList, dwNumOfElem);
    FIELD(TNVRHCCList, ptHead);
    FIELD(TNVRHCCList, ptTail);
    FIELD(TNVRHCCList, pfMalloc);
    FIELD(TNVRHCCList, pfRealloc);
    FIELD(TNVRHCCList, pfFree);

    RECORD(TSendByCurlParam);
    FIELD(TSendByCurlParam, pchURL);
    FIELD(TSendByCurlParam, eHeadType);
    FIELD(TSendByCurlParam, pchSendBuf);
    FIELD(TSendByCurlParam, dwSendLen);
    FIELD(TSendByCurlParam, dwConnTimeOutMS);
    FIELD(TSendByCurlParam, dwTimeoutMS);
    FIELD(TSendByCurlParam, dwMaxRecvLen);
    FIELD(TSendByCurlParam, bSSLserver);
    FIELD(TSendByCurlParam, pchRecvBuf);
    FIELD(TSendByCurlParam, dwRecvLen);
    FIELD(TSendByCurlParam, pfNtf);
    FIELD(TSendByCurlParam, bCurlAuth);
    FIELD(TSendByCurlParam, achUserAndPassWd);
}

static void PrintValues(void)
{
    VALUE(NVRHCC_LIST_OK);
    VALUE(NVRHCC_LIST_INVALID_ARG);
    VALUE(NVRHCC_LIST_NO_MEMORY);

    VALUE(NVRHTTPCURLCLT_OK);
    VALUE(NVRHTTPCURLCLT_FAILED);
    VALUE(NVRHTTPCURLCLT_INVALID_ARG);
    VALUE(NVRHTTPCURLCLT_NO_MEMORY);
    VALUE(NVRHTTPCURLCLT_BUFFER_TOO_SMALL);
    VALUE(NVRHTTPCURLCLT_LIMIT_REACHED);
    VALUE(NVRHTTPCURLCLT_TIMED_OUT);
    VALUE(NVRHTTPCURLCLT_CONNECT_FAILED);
    VALUE(NVRHTTPCURLCLT_TLS_FAILED);
    VALUE(NVRHTTPCURLCLT_PROGRESS_ERROR);
    VALUE(NVRHTTPCURLCLT_PROGRESS_FINISHED);
    VALUE(NVRHTTPCURLCLT_MODE_SYNC);
    VALUE(NVRHTTPCURLCLT_MODE_ASYNC);
    VALUE(NVRHTTPCURLCLT_MAX_INSTANCES);
    VALUE(NVRHTTPCURLCLT_MAX_TASKS);
    VALUE(NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS);

    VALUE(SENDBYCURL_OK);
    VALUE(SENDBYCURL_INVALID_PARAM);
    VALUE(SENDBYCURL_NO_HANDLE);
    VALUE(SENDBYCURL_NO_HEADER);
    VALUE(SENDBYCURL_NO_SLOT);
    VALUE(SENDBYCURL_OPTION_REFUSED);
    VALUE(SENDBYCURL_TRANSFER_FAILED);
    VALUE(SENDBYCURL_TIMED_OUT);
    VALUE(SENDBYCURL_ACCEPT_TIMED_OUT);
    VALUE(SENDBYCURL_NO_MEMORY);
    VALUE(SENDBYCURL_HTTP_STATUS);
    VALUE(SENDBYCURL_BUFFER_TOO_SMALL);
    VALUE(SENDBYCURL_LIMIT_REACHED);
    VALUE(SENDBYCURL_ENGINE_9);
    VALUE(SENDBYCURL_CONNECT_FAILED);
    VALUE(SENDBYCURL_TLS_FAILED);
    VALUE(SENDBYCURL_METHOD_POST);
    VALUE(SENDBYCURL_METHOD_PUT);
    VALUE(SENDBYCURL_METHOD_GET);
    VALUE(SENDBYCURL_MODE_SYNC);
    VALUE(SENDBYCURL_MODE_ASYNC);
}

int main(void)
{
    PrintRecords();
    PrintValues();
    return 0;
}
