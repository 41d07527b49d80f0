/*
 * What the tests of request objects share.
 */
#ifndef TESTS_SUPPORT_REQUEST_FIXTURE_H
#define TESTS_SUPPORT_REQUEST_FIXTURE_H

#include <cstdlib>
#include <cstring>
#include <ostream>

#include "tests/support/engine_fixture.h"

namespace test
{

using Order = std::vector<CURLoption>;
using Texts = std::vector<std::string>;

/* --- a heap of dirty blocks that keeps notes -------------------------------------------------- */

struct Freed {
    char by; /* 'i' the instance's callback, 'r' the request's own copy, 'c' libcurl's clean-up */
    const void *block;
};

inline bool operator==(const Freed &a, const Freed &b)
{
    return a.by == b.by && a.block == b.block;
}

inline void PrintTo(const Freed &one, std::ostream *out)
{
    *out << one.by << ' ' << one.block;
}

inline std::vector<size_t> asked;
inline std::vector<Freed> freed;

inline void *DirtyMalloc(size_t size)
{
    asked.push_back(size);
    return memset(malloc(size), 0xA5, size);
}

inline void InstanceFree(void *block)
{
    freed.push_back({'i', block});
    free(block);
}

inline void RequestFree(void *block)
{
    freed.push_back({'r', block});
    free(block);
}

/* --- fixtures --------------------------------------------------------------------------------- */

/* An instance without tasks. */
class RequestTest : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    void TearDown() override
    {
        if (inst != nullptr) {
            inst->tMemCB = fake::MemCB();
        }
        EngineTest::TearDown();
    }

    /* For requests from now on. */
    void UseDirtyHeap()
    {
        inst->tMemCB = {DirtyMalloc, realloc, InstanceFree};
        asked.clear();
        freed.clear();
    }
};

/* One request. */
class OneRequestTest : public RequestTest
{
  protected:
    void SetUp() override
    {
        RequestTest::SetUp();
        req = Create();
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqReset(req);
        RequestTest::TearDown();
    }

    HNvrHttpCurlCltReq req = nullptr;
};

} // namespace test

#endif
