/*
 * A C++ program of somebody else: it posts once with each level of the installed library.
 */
#include <cstdio>
#include <cstdlib>
#include <nvrhttpcurl/httpcurlclient.h>
#include <nvrhttpcurl/sendbycurl.h>

static const char BODY[] = "{\"from\":\"C++\"}";

static bool PostOverTheEngine(const char *url)
{
    const TNvrHttpCurlCltInitParam options = {1, 16};
    const TNvrHttpCurlCltMemCB memory = {malloc, realloc, free};
    HNvrHttpCurlCltInst instance = nullptr;
    HNvrHttpCurlCltReq request = nullptr;
    int32_t status = 0;
    if (NvrHttpCurlCltInit(&options, &memory, &instance) != NVRHTTPCURLCLT_OK) {
        return false;
    }
    const bool sent = NvrHttpCurlCltReqCreat(instance, &request) == NVRHTTPCURLCLT_OK &&
                      NvrHttpCurlCltSetReqUri(request, url) == NVRHTTPCURLCLT_OK &&
                      NvrHttpCurlCltSetReqBody(request, BODY, sizeof(BODY) - 1) == NVRHTTPCURLCLT_OK &&
                      NvrHttpCurlCltProcessReq(request, 5000, 5000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr) ==
                          NVRHTTPCURLCLT_OK &&
                      NvrHttpCurlCltGetRespStatCode(request, &status) == NVRHTTPCURLCLT_OK;
    NvrHttpCurlCltReqDestroy(request);
    return sent && status == 200;
}

int main(int argc, char **argv)
{
    char answer[64];
    uint32_t length = sizeof(answer);
    if (argc != 2 || Qelvo_SyncSendStrByHttp(argv[1], BODY, sizeof(BODY) - 1, 5000, answer, &length) != SENDBYCURL_OK) {
        return EXIT_FAILURE;
    }
    printf("%.*s\n", static_cast<int>(length), answer);
    return PostOverTheEngine(argv[1]) ? EXIT_SUCCESS : EXIT_FAILURE;
}
