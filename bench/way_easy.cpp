#include <deque>
#include <memory>

#include "bench/curl_post.h"

namespace
{

char *AnswerBuffer(const TTarget &tTarget, TChain &tChain)
{
    tChain.strAnswer.resize(tTarget.uAnswer);
    return tChain.strAnswer.data();
}

bool Post(const TTarget &tTarget, TChain &tChain, bool bAsDirect)
{
    TCurlPost tPost;
    SetUp(tPost, tTarget, AnswerBuffer(tTarget, tChain), tTarget.uAnswer, bAsDirect);
    const bool bSucceeded = curl_easy_perform(tPost.ptEasy) == CURLE_OK && HasAnswer(tPost, tTarget);
    CleanUp(tPost);
    return bSucceeded;
}

} // namespace

TWay EasyWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain, false); }, true};
}

TWay EasyAsDirectWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain, true); }, true};
}

TWay ThreadsWay(const TTarget &tTarget)
{
    auto patPosts = std::make_shared<std::deque<TCurlPost>>(BENCH_MOST_OUTSTANDING);
    return {[tTarget, patPosts](TChain &tChain) {
                TCurlPost &tPost = (*patPosts)[tChain.dwIndex];
                if (tPost.ptEasy == nullptr) {
                    SetUp(tPost, tTarget, nullptr, tTarget.uAnswer);
                }
                tPost.pchAnswer = AnswerBuffer(tTarget, tChain);
                tPost.uLength = 0;
                return curl_easy_perform(tPost.ptEasy) == CURLE_OK && HasAnswer(tPost, tTarget);
            },
            true};
}
