/* Gets a URL with a header of its own and a time-out. */
#include <chrono>
#include <cstdio>
#include <nvrhttpcurl/client.hpp>

int main(int argc, char **argv)
{
    nvrhttpcurl::Client client;
    nvrhttpcurl::Request request;
    request.url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/";
    request.method = "GET";
    request.headers = {{"Accept", "application/json"}};
    request.timeout = std::chrono::seconds(2);
    const nvrhttpcurl::Response answer = client.send(request);
    std::printf("%s, status %d: %s\n", nvrhttpcurl::to_string(answer.error), answer.status, answer.body.c_str());
    return answer.ok() ? 0 : 1;
}
