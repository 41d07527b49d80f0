/*
 * For programs that are to trust a server of the tests: takes the place of curl_easy_init, so that libcurl's own bundle
 * is the file that NVRHTTP_TRUSTED names.
 */
#include <curl/curl.h>

#include <cstdlib>

#include "tests/support/next.h"

extern "C" CURL *curl_easy_init(void)
{
    CURL *easy = test::Next<decltype(curl_easy_init)>("curl_easy_init")();
    const char *trusted = getenv("NVRHTTP_TRUSTED");
    if (easy != nullptr && trusted != nullptr) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, trusted);
    }
    return easy;
}
