/* Posts a hundred JSON texts at once and waits for their answers. */
#include <cstdio>
#include <future>
#include <nvrhttpcurl/client.hpp>
#include <string>
#include <vector>

int main(int argc, char **argv)
{
    const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/";
    nvrhttpcurl::Client client;
    std::vector<std::future<nvrhttpcurl::Response>> answers;
    answers.reserve(100);
    for (int number = 0; number < 100; ++number) {
        answers.push_back(client.post_async(url, "{\"number\":" + std::to_string(number) + "}"));
    }
    int good = 0;
    for (auto &answer : answers) {
        good += answer.get().ok() ? 1 : 0;
    }
    std::printf("%d of %zu were answered\n", good, answers.size());
    return good == 100 ? 0 : 1;
}
