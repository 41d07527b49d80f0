/*
 * Returns from main with requests in flight: client_exit_program local|static URL MILLISECONDS. The client is one of
 * main's own or a static one.
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "nvrhttpcurl/client.hpp"

namespace
{

void SendMany(nvrhttpcurl::Client &client, char **argv)
{
    nvrhttpcurl::Request request;
    request.url = argv[2];
    request.verify = false;
    for (int number = 0; number < 20; ++number) {
        client.send_async(request, [](const nvrhttpcurl::Response &) {});
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(atoi(argv[3])));
    puts("returns");
}

} // namespace

int main(int argc, char **argv)
try {
    if (argc != 4) {
        return 1;
    }
    if (strcmp(argv[1], "static") == 0) {
        static nvrhttpcurl::Client client;
        SendMany(client, argv);
        return 0;
    }
    nvrhttpcurl::Client client;
    SendMany(client, argv);
    return 0;
} catch (const std::exception &problem) {
    fprintf(stderr, "%s\n", problem.what());
    return 1;
}
