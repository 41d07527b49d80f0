/*
 * A post over an easy handle of libcurl, as a program without a library in between would make it.
 */
#ifndef BENCH_CURL_POST_H
#define BENCH_CURL_POST_H

#include <curl/curl.h>

#include "bench/ways.h"

struct TCurlPost {
    CURL *ptEasy = nullptr;
    curl_slist *ptHeaders = nullptr;
    char *pchAnswer = nullptr; /* receives the answer */
    size_t uCapacity = 0;
    size_t uLength = 0; /* of what has come */
};

/* With the options of the library's requests, or with those of its direct send. */
void SetUp(TCurlPost &tPost, const TTarget &tTarget, char *pchAnswer, size_t uCapacity, bool bAsDirect = false);

/* After the transfer: whether the whole answer came. */
bool HasAnswer(const TCurlPost &tPost, const TTarget &tTarget);

void CleanUp(TCurlPost &tPost);

#endif
