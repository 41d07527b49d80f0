/* A chain: each callback sends the next request, on the client's worker. */
#include <cstdio>
#include <future>
#include <nvrhttpcurl/client.hpp>
#include <string>

enum { STEPS = 5 };

static void SendStep(nvrhttpcurl::Client &client, const std::string &url, int step, std::promise<int> &over)
{
    nvrhttpcurl::Request request;
    request.url = url;
    request.body = "{\"step\":" + std::to_string(step) + "}";
    client.send_async(request, [&client, url, step, &over](const nvrhttpcurl::Response &answer) {
        std::printf("step %d: %s, status %d\n", step, nvrhttpcurl::to_string(answer.error), answer.status);
        if (answer.ok() && step < STEPS) {
            SendStep(client, url, step + 1, over);
        } else {
            over.set_value(answer.ok() ? 0 : 1);
        }
    });
}

int main(int argc, char **argv)
{
    std::promise<int> over; /* outlives the client, and so all callbacks */
    nvrhttpcurl::Client client;
    SendStep(client, argc > 1 ? argv[1] : "http://127.0.0.1:8080/", 1, over);
    return over.get_future().get();
}
