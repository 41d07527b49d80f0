/*
 * Prints size and field offsets of every public record, for comparison with abi/records.txt,
 * the layout that applications are compiled with on LP64.
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

int main(void)
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
    return 0;
}
