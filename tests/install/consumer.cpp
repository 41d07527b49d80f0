/*
 * A C++ program of somebody else: it posts through the send module and through the client, which is built on
 * the engine, of the installed library.
 */
#include <cstdio>
#include <cstdlib>
#include <nvrhttpcurl/client.hpp>
#include <nvrhttpcurl/sendbycurl.h>

static const char BODY[] = "{\"from\":\"C++\"}";

int main(int argc, char **argv)
{
    char answer[64];
    uint32_t length = sizeof(answer);
    if (argc != 2 || Qelvo_SyncSendStrByHttp(argv[1], BODY, sizeof(BODY) - 1, 5000, answer, &length) != SENDBYCURL_OK) {
        return EXIT_FAILURE;
    }
    printf("%.*s\n", static_cast<int>(length), answer);
    nvrhttpcurl::Client client;
    return client.post(argv[1], BODY).body == BODY ? EXIT_SUCCESS : EXIT_FAILURE;
}
