#include <cstdio>
#include <nvrhttpcurl/client.hpp>

int main(int argc, char **argv)
{
    nvrhttpcurl::Client client;
    const auto answer = client.post(argc > 1 ? argv[1] : "http://127.0.0.1:8080/", R"({"hello":"recorder"})");
    std::printf("%s, status %d: %s\n", nvrhttpcurl::to_string(answer.error), answer.status, answer.body.c_str());
    return answer.ok() ? 0 : 1;
}
