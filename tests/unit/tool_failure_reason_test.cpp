/*
 * Reasons of failures in the library's log lines: those of each kind of send and of the URL check,
 * and no others.
 */
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "tools/common/failure_reason.h"

namespace
{

const std::string REFUSED = curl_easy_strerror(CURLE_COULDNT_CONNECT) + std::string(" (libcurl code 7)");

struct LineCase {
    const char *name;
    std::string line;
    std::string reason;
};

class LogLine : public testing::TestWithParam<LineCase>
{
};

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Lines, LogLine,
    testing::Values(
        LineCase{"Synchronous",
                 "_NvrHttpCurlCltProcSyncReq[L:65][Error] curl_easy_perform is failed{ErrorCode:7} {ErrorStr:any}",
                 REFUSED},
        LineCase{"Asynchronous",
                 "_NvrHttpCurlClt_CurlPerformAndReadInfo[L:110][Error] easy_handle 0x5654562287e0, eCurlRet 7, "
                 "eCltErrCode 11, eProg 0",
                 REFUSED},
        LineCase{"AsynchronousWithItsText",
                 "f[L:110][Error] easy_handle 0x5654562287e0, {ErrorCode:7}, {ErrorStr:any}, eCltErrCode 11, eProg 0",
                 REFUSED},
        LineCase{"Direct", "Qelvo_SyncSendStrByHttp_Ext[L:106] curl_easy_perform() failed, eCurlRet 7, any", REFUSED},
        LineCase{"Check", "NvrHttpCurlCltCheckUri[L:106] curl_easy_perform return {7}", REFUSED},
        LineCase{"WithThePrefixOfTheDebugLog", "[SendCurl] NvrHttpCurlCltCheckUri[L:106] curl_easy_perform return {7}",
                 REFUSED},
        LineCase{"Status", "Qelvo_SyncSendStrByHttpCurl[L:133] nHttpStatusCode:404", "HTTP status 404"},
        LineCase{"Overflow", "Qelvo_Receive_Data[L:41][Error] pchRecvBuf overflow! MaxBuf:10  [0-11]",
                 "the answer is longer than --max-answer"},
        LineCase{"NoAnswer", "Qelvo_SyncSendStrByHttpCurl[L:133] nHttpStatusCode:0", ""},
        LineCase{"CheckThatSucceeded", "NvrHttpCurlCltCheckUri[L:106] curl_easy_perform return {0}", ""},
        LineCase{"CodeOfAnotherKind", "f[L:182][Error] curl_multi_perform fail{ErrorCode:7}, {ErrorStr:any}", ""},
        LineCase{"DataThatLooksLikeOne",
                 "f[L:148] pchURL http://127.0.0.1/, pchSendBuf [L:1] nHttpStatusCode:404 eCurlRet 7, dwSendLen 9", ""},
        LineCase{"UnfinishedSourceLine", "f[L:148", ""}, LineCase{"NoText", "f[L:148]", ""},
        LineCase{"NothingButBlanks", "f[L:148][Error]   ", ""}, LineCase{"NoSourceLine", "nHttpStatusCode:404", ""},
        LineCase{"Empty", "", ""}),
    [](const auto &line) { return std::string(line.param.name); });

TEST_P(LogLine, SaysWhyOrNothing)
{
    EXPECT_EQ(FailureReason(GetParam().line), GetParam().reason);
}
