/*
 * Sets an option of an easy handle and logs a refusal under the name of the operation that
 * sets it. That operation decides what a refusal means.
 */
#ifndef ENGINE_HTTPCURLCLIENT_SETOPT_H
#define ENGINE_HTTPCURLCLIENT_SETOPT_H

#include <curl/curl.h>

#include "support/hcc_log.h"

template <typename T>
inline CURLcode SetOptionAt(const char *szFunc, int nLine, CURL *ptEasy, CURLoption eOption, T tValue)
{
    const CURLcode eCode = curl_easy_setopt(ptEasy, eOption, tValue);
    if (eCode != CURLE_OK) {
        HCC_LOG_AT(HCC_LEVEL_ERROR, szFunc, nLine, "[Error] curl_easy_setopt fault! {ErrorCode:%d} {ErrorStr:%s}\n",
                   eCode, curl_easy_strerror(eCode));
    }
    return eCode;
}

#define SET_OPTION(ptEasy, eOption, tValue) SetOptionAt(__func__, __LINE__, ptEasy, eOption, tValue)
#define SET_OPTION_AS(szFunc, ptEasy, eOption, tValue) SetOptionAt(szFunc, __LINE__, ptEasy, eOption, tValue)

#endif
