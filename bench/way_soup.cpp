#include <libsoup/soup.h>
#include <memory>

#include "bench/ways.h"

namespace
{

struct TUnref {
    void operator()(gpointer pvObject) const
    {
        g_object_unref(pvObject);
    }
};

gboolean AcceptAny(SoupMessage *, GTlsCertificate *, GTlsCertificateFlags, gpointer)
{
    return TRUE;
}

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    static thread_local const std::unique_ptr<SoupSession, TUnref> ptSession(soup_session_new());
    const std::unique_ptr<SoupMessage, TUnref> ptMessage(soup_message_new("POST", tTarget.strUrl.c_str()));
    soup_message_headers_append(soup_message_get_request_headers(ptMessage.get()), "Connection", "close");
    g_signal_connect(ptMessage.get(), "accept-certificate", G_CALLBACK(AcceptAny), nullptr);
    GBytes *ptBody = g_bytes_new_static(tTarget.strBody.data(), tTarget.strBody.size());
    soup_message_set_request_body_from_bytes(ptMessage.get(), "application/json", ptBody);
    g_bytes_unref(ptBody);
    GBytes *ptAnswer = soup_session_send_and_read(ptSession.get(), ptMessage.get(), nullptr, nullptr);
    if (ptAnswer == nullptr) {
        return false;
    }
    strAnswer.assign(static_cast<const char *>(g_bytes_get_data(ptAnswer, nullptr)), g_bytes_get_size(ptAnswer));
    g_bytes_unref(ptAnswer);
    return soup_message_get_status(ptMessage.get()) == SOUP_STATUS_OK && strAnswer.size() == tTarget.uAnswer;
}

} // namespace

TWay SoupWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
