#include "tools/common/failure_reason.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>

namespace
{

/* How the text of such a line begins, and what stands before its number. */
struct TReasonLine {
    const char *szBegin;
    const char *szNumber;
};

const TReasonLine s_atCurlLines[] = {{"curl_easy_perform is failed", "ErrorCode:"}, /* synchronous */
                                     {"easy_handle ", "ErrorCode:"},                /* asynchronous */
                                     {"easy_handle ", "eCurlRet "},                 /* the same */
                                     {"curl_easy_perform() failed", "eCurlRet "},   /* direct */
                                     {"curl_easy_perform return ", "{"}};           /* check of a URL */
const TReasonLine s_tStatusLine = {"nHttpStatusCode:", "nHttpStatusCode:"};         /* synchronous */
const char s_szOverflow[] = "pchRecvBuf overflow!"; /* direct; a line of libcurl's own code follows */

/* The text behind function and source line: neither URLs nor data are at its begin. */
std::string TextOf(const std::string &strLine)
{
    const std::string strError = "[Error]";
    const size_t uSource = strLine.find("[L:");
    const size_t uEnd = uSource == std::string::npos ? uSource : strLine.find(']', uSource);
    if (uEnd == std::string::npos) {
        return "";
    }
    const std::string strRest = strLine.substr(uEnd + 1);
    const size_t uError = strRest.compare(0, strError.size(), strError) == 0 ? strError.size() : 0;
    return strRest.substr(std::min(strRest.find_first_not_of(' ', uError), strRest.size()));
}

/* 0 for another line. */
int NumberIn(const std::string &strText, const TReasonLine &tLine)
{
    const size_t uNumber = strText.find(tLine.szNumber);
    const bool bOurs = strText.compare(0, strlen(tLine.szBegin), tLine.szBegin) == 0 && uNumber != std::string::npos;
    return bOurs ? atoi(strText.c_str() + uNumber + strlen(tLine.szNumber)) : 0;
}

} // namespace

std::string FailureReason(const std::string &strLine)
{
    const std::string strText = TextOf(strLine);
    for (const TReasonLine &tLine : s_atCurlLines) {
        const int nCode = NumberIn(strText, tLine);
        if (nCode != 0) {
            return std::string(curl_easy_strerror(static_cast<CURLcode>(nCode))) + " (libcurl code " +
                   std::to_string(nCode) + ")";
        }
    }
    if (strText.compare(0, strlen(s_szOverflow), s_szOverflow) == 0) {
        return "the answer is longer than --max-answer";
    }
    const int nStatus = NumberIn(strText, s_tStatusLine);
    return nStatus != 0 ? "HTTP status " + std::to_string(nStatus) : "";
}
