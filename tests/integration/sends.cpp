#include "sends.h"

#include <cstring>

#include "tests/support/wait.h"

namespace test
{

TSendByCurlParam Param(const std::string &url, const std::string &body, char *answer, uint32_t capacity)
{
    TSendByCurlParam param{};
    param.pchURL = url.c_str();
    param.pchSendBuf = body.data();
    param.dwSendLen = static_cast<uint32_t>(body.size());
    param.dwConnTimeOutMS = 60000;
    param.dwTimeoutMS = 60000;
    param.dwMaxRecvLen = capacity;
    param.pchRecvBuf = answer;
    return param;
}

Post::Post(const std::string &target, const std::string &text, uint32_t capacity)
    : url(target), body(text), answer(size_t{capacity} + 2, '#'), param(Param(url, body, answer.data(), capacity))
{
}

ESendByCurlRet Post::SendSync()
{
    return Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC);
}

ESendByCurlRet Post::SendDirect()
{
    return Qelvo_SyncSendStrByHttp_Ext(&param);
}

std::string Post::Received() const
{
    return answer.substr(0, param.dwRecvLen);
}

Outcome SendAndWait(const std::string &url, const std::string &body, uint32_t capacity)
{
    Post post(url, body, capacity);
    const ESendByCurlRet result = post.SendSync();
    return {result, post.param.dwRecvLen, post.answer.c_str()};
}

Batch::Batch(size_t count) : entries(count)
{
    for (Entry &entry : entries) {
        memset(entry.answer, 0, sizeof(entry.answer));
        entry.notifications.store(0);
        entry.total = &total;
    }
}

uint32_t Batch::OnEnd(ESendByCurlRet eErrCode, void *pvContext)
{
    Entry *entry = static_cast<Entry *>(pvContext);
    entry->result = eErrCode;
    entry->notifications.fetch_add(1);
    entry->total->fetch_add(1);
    return 0;
}

ESendByCurlRet Batch::Send(size_t index, const TSendByCurlParam &param)
{
    TSendByCurlParam own = param;
    own.pchRecvBuf = entries[index].answer;
    own.pfNtf = OnEnd;
    return Qelvo_SendStrByHttp(&own, SENDBYCURL_MODE_ASYNC);
}

ESendByCurlRet Batch::Send(size_t index, const std::string &url, const std::string &body)
{
    TSendByCurlParam param = Param(url, body, entries[index].answer, sizeof(entries[index].answer));
    param.dwTimeoutMS = timeout;
    return Send(index, param);
}

void Batch::SetTimeout(uint32_t milliseconds)
{
    timeout = milliseconds;
}

size_t Batch::Total() const
{
    return total.load();
}

bool Batch::WaitFor(size_t count) const
{
    return WaitUntil([this, count] { return total.load() >= count; });
}

uint32_t Batch::Notifications(size_t index) const
{
    return entries[index].notifications.load();
}

ESendByCurlRet Batch::Result(size_t index) const
{
    return entries[index].result;
}

std::string Batch::Answer(size_t index) const
{
    const Entry &entry = entries[index];
    return std::string(entry.answer, strnlen(entry.answer, sizeof(entry.answer)));
}

} // namespace test
