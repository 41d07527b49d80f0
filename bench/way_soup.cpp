#include <libsoup/soup.h>
#include <memory>
#include <thread>

#include "bench/ways.h"

namespace
{

struct TUnref {
    void operator()(gpointer pvObject) const
    {
        g_object_unref(pvObject);
    }
};

SoupSession *NewSession()
{
    return soup_session_new_with_options("max-conns", int{BENCH_MOST_OUTSTANDING}, "max-conns-per-host",
                                         int{BENCH_MOST_OUTSTANDING}, nullptr);
}

SoupMessage *NewMessage(const TTarget &tTarget)
{
    SoupMessage *ptMessage = soup_message_new("POST", tTarget.strUrl.c_str());
    GBytes *ptBody = g_bytes_new_static(tTarget.strBody.data(), tTarget.strBody.size());
    soup_message_set_request_body_from_bytes(ptMessage, "application/json", ptBody);
    g_bytes_unref(ptBody);
    return ptMessage;
}

/* Takes the body. */
bool IsAnswer(SoupMessage *ptMessage, GBytes *ptBody, const TTarget &tTarget, std::string &strAnswer)
{
    if (ptBody == nullptr) {
        return false;
    }
    gsize uAnswer = 0;
    const char *pchAnswer = static_cast<const char *>(g_bytes_get_data(ptBody, &uAnswer));
    strAnswer.assign(pchAnswer, uAnswer);
    g_bytes_unref(ptBody);
    return soup_message_get_status(ptMessage) == SOUP_STATUS_OK && uAnswer == tTarget.uAnswer;
}

bool PostOnce(const TTarget &tTarget, std::string &strAnswer)
{
    const std::unique_ptr<SoupSession, TUnref> ptSession(NewSession());
    const std::unique_ptr<SoupMessage, TUnref> ptMessage(NewMessage(tTarget));
    GBytes *ptBody = soup_session_send_and_read(ptSession.get(), ptMessage.get(), nullptr, nullptr);
    return IsAnswer(ptMessage.get(), ptBody, tTarget, strAnswer);
}

/* A session belongs to the context of the thread that uses it. */
struct TSoupLoop {
    TTarget tTarget;
    GMainContext *ptContext = g_main_context_new();
    SoupSession *ptSession = nullptr;
};

struct TSoupPost {
    TSoupLoop &tLoop;
    TChain &tChain;
    SoupMessage *ptMessage;
};

void OnEnd(GObject *ptSession, GAsyncResult *ptResult, gpointer pvPost)
{
    const std::unique_ptr<TSoupPost> ptPost(static_cast<TSoupPost *>(pvPost));
    const std::unique_ptr<SoupMessage, TUnref> ptMessage(ptPost->ptMessage);
    GBytes *ptBody = soup_session_send_and_read_finish(SOUP_SESSION(ptSession), ptResult, nullptr);
    TChain &tChain = ptPost->tChain;
    ChainEnded(tChain, IsAnswer(ptMessage.get(), ptBody, ptPost->tLoop.tTarget, tChain.strAnswer));
}

gboolean Start(gpointer pvPost)
{
    const TSoupPost &tPost = *static_cast<const TSoupPost *>(pvPost);
    soup_session_send_and_read_async(tPost.tLoop.ptSession, tPost.ptMessage, G_PRIORITY_DEFAULT, nullptr, OnEnd,
                                     pvPost);
    return G_SOURCE_REMOVE;
}

void Run(TSoupLoop &tLoop)
{
    g_main_context_push_thread_default(tLoop.ptContext);
    tLoop.ptSession = NewSession();
    g_main_loop_run(g_main_loop_new(tLoop.ptContext, FALSE));
}

} // namespace

TWay SoupWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return PostOnce(tTarget, tChain.strAnswer); }, true};
}

TWay SoupAsyncWay(const TTarget &tTarget)
{
    auto ptLoop = std::make_shared<TSoupLoop>(TSoupLoop{tTarget});
    std::thread(Run, std::ref(*ptLoop)).detach();
    return {[ptLoop](TChain &tChain) {
        g_main_context_invoke(ptLoop->ptContext, Start, new TSoupPost{*ptLoop, tChain, NewMessage(ptLoop->tTarget)});
        return true;
    }};
}
