/* Posts with the server's certificate checked, as is the default, then without. */
#include <cstdio>
#include <nvrhttpcurl/client.hpp>

int main(int argc, char **argv)
{
    nvrhttpcurl::Client client;
    nvrhttpcurl::Request request;
    request.url = argc > 1 ? argv[1] : "https://127.0.0.1:8443/";
    request.body = R"({"hello":"recorder"})";
    for (const bool verify : {true, false}) {
        request.verify = verify;
        const nvrhttpcurl::Response answer = client.send(request);
        std::printf("%s: %s, status %d\n", verify ? "checked" : "not checked", nvrhttpcurl::to_string(answer.error),
                    answer.status);
    }
    return 0;
}
