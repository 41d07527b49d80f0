/* A chain: each callback sends the next request, on the client's worker. */
#include <cstdio>
#include <future>
#include <nvrhttpcurl/client.hpp>
#include <string>

namespace
{

struct Chain {
    nvrhttpcurl::Client &client;
    std::string url;
    int step = 0;
    std::promise<int> over{};

    void Next()
    {
        nvrhttpcurl::Request request;
        request.url = url;
        request.body = "{\"step\":" + std::to_string(step) + "}";
        client.send_async(request, [this](const nvrhttpcurl::Response &answer) {
            std::printf("step %d: %s, status %d\n", step, nvrhttpcurl::to_string(answer.error), answer.status);
            ++step;
            if (answer.ok() && step < 5) {
                Next();
            } else {
                over.set_value(answer.ok() ? 0 : 1);
            }
        });
    }
};

} // namespace

int main(int argc, char **argv)
{
    nvrhttpcurl::Client client;
    Chain chain{client, argc > 1 ? argv[1] : "http://127.0.0.1:8080/"};
    chain.Next();
    return chain.over.get_future().get(); /* before the chain and the client go */
}
