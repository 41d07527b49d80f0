#include "bench/curl_post.h"

#include <cstring>

namespace
{

size_t TakeAnswer(char *pchPart, size_t, size_t uPart, void *pvPost)
{
    TCurlPost &tPost = *static_cast<TCurlPost *>(pvPost);
    if (uPart > tPost.uCapacity - tPost.uLength) {
        return 0;
    }
    memcpy(tPost.pchAnswer + tPost.uLength, pchPart, uPart);
    tPost.uLength += uPart;
    return uPart;
}

} // namespace

void SetUp(TCurlPost &tPost, const TTarget &tTarget, char *pchAnswer, size_t uCapacity, bool bAsDirect)
{
    tPost.ptEasy = curl_easy_init();
    tPost.ptHeaders = curl_slist_append(nullptr, "Content-Type:application/json;charset=UTF-8");
    if (!bAsDirect) {
        tPost.ptHeaders = curl_slist_append(tPost.ptHeaders, "Expect:");
        curl_easy_setopt(tPost.ptEasy, CURLOPT_POSTFIELDSIZE, static_cast<long>(tTarget.strBody.size()));
        curl_easy_setopt(tPost.ptEasy, CURLOPT_NOSIGNAL, 1L);
    }
    tPost.pchAnswer = pchAnswer;
    tPost.uCapacity = uCapacity;
    curl_easy_setopt(tPost.ptEasy, CURLOPT_URL, tTarget.strUrl.c_str());
    curl_easy_setopt(tPost.ptEasy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(tPost.ptEasy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(tPost.ptEasy, CURLOPT_HTTPHEADER, tPost.ptHeaders);
    curl_easy_setopt(tPost.ptEasy, CURLOPT_POSTFIELDS, tTarget.strBody.data());
    curl_easy_setopt(tPost.ptEasy, CURLOPT_CONNECTTIMEOUT_MS, long{BENCH_TIMEOUT_MS});
    curl_easy_setopt(tPost.ptEasy, CURLOPT_TIMEOUT_MS, long{BENCH_TIMEOUT_MS});
    curl_easy_setopt(tPost.ptEasy, CURLOPT_WRITEFUNCTION, TakeAnswer);
    curl_easy_setopt(tPost.ptEasy, CURLOPT_WRITEDATA, &tPost);
}

bool HasAnswer(const TCurlPost &tPost, const TTarget &tTarget)
{
    long nStatus = 0;
    curl_easy_getinfo(tPost.ptEasy, CURLINFO_RESPONSE_CODE, &nStatus);
    return nStatus == BENCH_HTTP_OK && tPost.uLength == tTarget.uAnswer;
}

void CleanUp(TCurlPost &tPost)
{
    curl_easy_cleanup(tPost.ptEasy);
    curl_slist_free_all(tPost.ptHeaders);
}
