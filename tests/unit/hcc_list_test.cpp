/* The doubly linked list. */
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nvrhttpcurl/hcc_list.h"
#include "tests/support/fake_platform.h"

namespace
{

/* What memory callbacks and release callbacks did, in order. */
std::vector<std::string> events;
std::vector<size_t> sizes;
std::vector<void *> released;

void *SpyMalloc(size_t size)
{
    sizes.push_back(size);
    return fake::MemCB().pfMalloc(size);
}

void *SpyRealloc(void *block, size_t size)
{
    events.push_back("realloc");
    return fake::MemCB().pfRealloc(block, size);
}

void SpyFree(void *block)
{
    events.push_back("free node");
    fake::MemCB().pfFree(block);
}

void Release(void *element)
{
    events.push_back("release " + *static_cast<std::string *>(element));
    released.push_back(element);
}

const TNvrHttpCurlCltMemCB SPY = {SpyMalloc, SpyRealloc, SpyFree};

/* A list over the counting callbacks and some elements to put in. */
class HccList : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(NVRHCCListInit(&list, &SPY), 0U);
    }

    void TearDown() override
    {
        NVRHCCListCleanUp(&list, Release);
        EXPECT_EQ(fake::BlocksAlive(), 0U);
        EXPECT_TRUE(fake::Violations().empty());
        EXPECT_TRUE(fake::Lines().empty());
    }

    TNVRHCCListNode *Append(std::string *element)
    {
        TNVRHCCListNode *node = nullptr;
        EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, element, &node), 0U);
        return node;
    }

    /* The elements from the head on; also checks every link and the count. */
    std::string Order() const
    {
        std::string order;
        uint32_t count = 0;
        const TNVRHCCListNode *previous = nullptr;
        for (const TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
            EXPECT_EQ(node->ptPrev, previous);
            order += *static_cast<std::string *>(node->pvData);
            previous = node;
            ++count;
        }
        EXPECT_EQ(list.ptTail, previous);
        EXPECT_EQ(list.dwNumOfElem, count);
        return order;
    }

    TNVRHCCList list = {};
    std::string a = "a", b = "b", c = "c", d = "d";
};

/* --- initialisation ------------------------------------------------------------------------ */

TEST(HccListInit, RefusesANullList)
{
    EXPECT_EQ(NVRHCCListInit(nullptr, &SPY), 2U);
    EXPECT_EQ(NVRHCCListInit(nullptr, nullptr), 2U);
}

TEST(HccListInit, RefusesEveryMixtureOfCallbacksAndLeavesTheRecordUntouched)
{
    for (unsigned mask = 1; mask < 7; ++mask) {
        const TNvrHttpCurlCltMemCB mixture = {(mask & 1) != 0 ? SpyMalloc : nullptr,
                                              (mask & 2) != 0 ? SpyRealloc : nullptr,
                                              (mask & 4) != 0 ? SpyFree : nullptr};
        TNVRHCCList list;
        memset(&list, 0x5A, sizeof(list));
        TNVRHCCList before = list;
        EXPECT_EQ(NVRHCCListInit(&list, &mixture), 2U) << mask;
        EXPECT_EQ(memcmp(&list, &before, sizeof(list)), 0) << mask;
    }
}

TEST(HccListInit, RefusesMallocAndFreeWithoutRealloc)
{
    const TNvrHttpCurlCltMemCB mixture = {SpyMalloc, nullptr, SpyFree};
    TNVRHCCList list = {};
    EXPECT_EQ(NVRHCCListInit(&list, &mixture), 2U);
}

TEST(HccListInit, CopiesTheCallbacksAndClearsTheRest)
{
    TNVRHCCList list;
    memset(&list, 0x5A, sizeof(list));
    TNvrHttpCurlCltMemCB memory = SPY;
    EXPECT_EQ(NVRHCCListInit(&list, &memory), 0U);
    memory = {};
    EXPECT_EQ(list.dwNumOfElem, 0U);
    EXPECT_EQ(list.ptHead, nullptr);
    EXPECT_EQ(list.ptTail, nullptr);
    EXPECT_EQ(list.pfMalloc, SpyMalloc);
    EXPECT_EQ(list.pfRealloc, SpyRealloc);
    EXPECT_EQ(list.pfFree, SpyFree);
}

TEST(HccListInit, WithoutARecordTakesTheSystemAllocator)
{
    TNVRHCCList list;
    memset(&list, 0x5A, sizeof(list));
    EXPECT_EQ(NVRHCCListInit(&list, nullptr), 0U);
    EXPECT_EQ(list.dwNumOfElem, 0U);
    EXPECT_EQ(list.ptHead, nullptr);
    EXPECT_EQ(list.ptTail, nullptr);
    EXPECT_EQ(list.pfMalloc, static_cast<void *(*)(size_t)>(malloc));
    EXPECT_EQ(list.pfRealloc, static_cast<void *(*)(void *, size_t)>(realloc));
    EXPECT_EQ(list.pfFree, static_cast<void (*)(void *)>(free));
}

TEST(HccListInit, WithThreeNullCallbacksTakesTheSystemAllocator)
{
    const TNvrHttpCurlCltMemCB none = {};
    TNVRHCCList list = {};
    EXPECT_EQ(NVRHCCListInit(&list, &none), 0U);
    EXPECT_EQ(list.pfMalloc, static_cast<void *(*)(size_t)>(malloc));
    EXPECT_EQ(list.pfRealloc, static_cast<void *(*)(void *, size_t)>(realloc));
    EXPECT_EQ(list.pfFree, static_cast<void (*)(void *)>(free));
}

TEST(HccListInit, TheSystemAllocatorServesALife)
{
    TNVRHCCList list = {};
    ASSERT_EQ(NVRHCCListInit(&list, nullptr), 0U);
    std::string element = "e";
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &element, nullptr), 0U);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, &element, nullptr), 0U);
    EXPECT_EQ(NVRHCCListRemove(&list, list.ptHead, nullptr), 0U);
    EXPECT_EQ(list.dwNumOfElem, 1U);
    NVRHCCListCleanUp(&list, Release);
    EXPECT_EQ(list.dwNumOfElem, 0U);
}

/* --- insertion ------------------------------------------------------------------------------ */

TEST_F(HccList, InsertBeforeWithoutAnchorOnAnEmptyListMakesTheOnlyNode)
{
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &a, &node), 0U);
    EXPECT_NE(node, nullptr);
    EXPECT_EQ(list.ptHead, node);
    EXPECT_EQ(list.ptTail, node);
    EXPECT_EQ(list.dwNumOfElem, 1U);
    EXPECT_EQ(node->ptPrev, nullptr);
    EXPECT_EQ(node->ptNext, nullptr);
    EXPECT_EQ(node->pvData, &a);
}

TEST_F(HccList, InsertAfterWithoutAnchorOnAnEmptyListMakesTheOnlyNode)
{
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, &a, &node), 0U);
    EXPECT_NE(node, nullptr);
    EXPECT_EQ(list.ptHead, node);
    EXPECT_EQ(list.ptTail, node);
    EXPECT_EQ(list.dwNumOfElem, 1U);
    EXPECT_EQ(node->ptPrev, nullptr);
    EXPECT_EQ(node->ptNext, nullptr);
    EXPECT_EQ(node->pvData, &a);
}

TEST_F(HccList, InsertBeforeWithoutAnchorPutsTheElementFirst)
{
    Append(&a);
    Append(&b);
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &c, &node), 0U);
    EXPECT_EQ(Order(), "cab");
    EXPECT_EQ(list.ptHead, node);
}

TEST_F(HccList, InsertAfterWithoutAnchorPutsTheElementLast)
{
    Append(&a);
    Append(&b);
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, &c, &node), 0U);
    EXPECT_EQ(Order(), "abc");
    EXPECT_EQ(list.ptTail, node);
}

TEST_F(HccList, InsertBeforeTheHeadMakesANewHead)
{
    TNVRHCCListNode *anchor = Append(&a);
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertBefore(&list, anchor, &b, &node), 0U);
    EXPECT_EQ(Order(), "ba");
    EXPECT_EQ(list.ptHead, node);
    EXPECT_EQ(list.ptTail, anchor);
}

TEST_F(HccList, InsertBeforeAnInnerNodeLinksBetween)
{
    Append(&a);
    TNVRHCCListNode *anchor = Append(&b);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, anchor, &c, nullptr), 0U);
    EXPECT_EQ(Order(), "acb");
    EXPECT_EQ(list.ptTail, anchor);
}

TEST_F(HccList, InsertAfterTheTailMakesANewTail)
{
    TNVRHCCListNode *anchor = Append(&a);
    TNVRHCCListNode *node = nullptr;
    EXPECT_EQ(NVRHCCListInsertAfter(&list, anchor, &b, &node), 0U);
    EXPECT_EQ(Order(), "ab");
    EXPECT_EQ(list.ptTail, node);
    EXPECT_EQ(list.ptHead, anchor);
}

TEST_F(HccList, InsertAfterAnInnerNodeLinksBetween)
{
    TNVRHCCListNode *anchor = Append(&a);
    Append(&b);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, anchor, &c, nullptr), 0U);
    EXPECT_EQ(Order(), "acb");
    EXPECT_EQ(list.ptHead, anchor);
}

TEST_F(HccList, ANodeIsOneBlockOfTheListsOwnMalloc)
{
    sizes.clear();
    events.clear();
    Append(&a);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &b, nullptr), 0U);
    EXPECT_EQ(sizes, (std::vector<size_t>{sizeof(TNVRHCCListNode), sizeof(TNVRHCCListNode)}));
    EXPECT_TRUE(events.empty());
}

TEST_F(HccList, InsertBeforeRefusesAnAnchorOnAnEmptyListAndAllocatesNothing)
{
    TNVRHCCListNode stray = {};
    TNVRHCCListNode *node = &stray;
    EXPECT_EQ(NVRHCCListInsertBefore(&list, &stray, &a, &node), 2U);
    EXPECT_EQ(node, &stray);
    EXPECT_EQ(fake::Mallocs(), 0U);
    EXPECT_EQ(Order(), "");
}

TEST_F(HccList, InsertAfterRefusesAnAnchorOnAnEmptyListAndAllocatesNothing)
{
    TNVRHCCListNode stray = {};
    TNVRHCCListNode *node = &stray;
    EXPECT_EQ(NVRHCCListInsertAfter(&list, &stray, &a, &node), 2U);
    EXPECT_EQ(node, &stray);
    EXPECT_EQ(fake::Mallocs(), 0U);
    EXPECT_EQ(Order(), "");
}

TEST_F(HccList, InsertRefusesANullListAndANullElement)
{
    Append(&a);
    const size_t before = fake::Mallocs();
    EXPECT_EQ(NVRHCCListInsertBefore(nullptr, nullptr, &b, nullptr), 2U);
    EXPECT_EQ(NVRHCCListInsertAfter(nullptr, nullptr, &b, nullptr), 2U);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, nullptr, nullptr), 2U);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, nullptr, nullptr), 2U);
    EXPECT_EQ(fake::Mallocs(), before);
    EXPECT_EQ(Order(), "a");
}

TEST_F(HccList, InsertWithoutMemoryReturnsThreeAndChangesNothing)
{
    Append(&a);
    TNVRHCCListNode *node = list.ptHead;
    fake::FailMalloc(1, true);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &b, &node), 3U);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, &b, &node), 3U);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, list.ptHead, &b, &node), 3U);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, list.ptHead, &b, &node), 3U);
    EXPECT_EQ(node, list.ptHead);
    EXPECT_EQ(Order(), "a");
}

TEST_F(HccList, InsertWithoutMemoryLeavesAnEmptyListEmpty)
{
    fake::FailMalloc(1, true);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &a, nullptr), 3U);
    EXPECT_EQ(NVRHCCListInsertAfter(&list, nullptr, &a, nullptr), 3U);
    EXPECT_EQ(Order(), "");
}

/* --- removal -------------------------------------------------------------------------------- */

TEST_F(HccList, RemovingTheOnlyNodeLeavesAnEmptyList)
{
    TNVRHCCListNode *node = Append(&a);
    void *element = nullptr;
    EXPECT_EQ(NVRHCCListRemove(&list, node, &element), 0U);
    EXPECT_EQ(element, &a);
    EXPECT_EQ(list.ptHead, nullptr);
    EXPECT_EQ(list.ptTail, nullptr);
    EXPECT_EQ(list.dwNumOfElem, 0U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(HccList, RemovingTheHeadMakesItsSuccessorTheHead)
{
    TNVRHCCListNode *node = Append(&a);
    TNVRHCCListNode *second = Append(&b);
    Append(&c);
    EXPECT_EQ(NVRHCCListRemove(&list, node, nullptr), 0U);
    EXPECT_EQ(list.ptHead, second);
    EXPECT_EQ(Order(), "bc");
}

TEST_F(HccList, RemovingTheTailMakesItsPredecessorTheTail)
{
    Append(&a);
    TNVRHCCListNode *second = Append(&b);
    TNVRHCCListNode *node = Append(&c);
    EXPECT_EQ(NVRHCCListRemove(&list, node, nullptr), 0U);
    EXPECT_EQ(list.ptTail, second);
    EXPECT_EQ(Order(), "ab");
}

TEST_F(HccList, RemovingAnInnerNodeJoinsItsNeighbours)
{
    Append(&a);
    TNVRHCCListNode *node = Append(&b);
    Append(&c);
    void *element = nullptr;
    EXPECT_EQ(NVRHCCListRemove(&list, node, &element), 0U);
    EXPECT_EQ(element, &b);
    EXPECT_EQ(Order(), "ac");
}

TEST_F(HccList, RemoveGivesTheNodeBackThroughTheListsFreeAndLeavesTheElement)
{
    TNVRHCCListNode *node = Append(&a);
    events.clear();
    EXPECT_EQ(NVRHCCListRemove(&list, node, nullptr), 0U);
    EXPECT_EQ(events, (std::vector<std::string>{"free node"}));
    EXPECT_EQ(a, "a");
}

TEST_F(HccList, RemoveRefusesNullsAndAnEmptyList)
{
    TNVRHCCListNode stray = {};
    void *element = &d;
    EXPECT_EQ(NVRHCCListRemove(nullptr, &stray, &element), 2U);
    EXPECT_EQ(NVRHCCListRemove(&list, &stray, &element), 2U);
    TNVRHCCListNode *node = Append(&a);
    EXPECT_EQ(NVRHCCListRemove(&list, nullptr, &element), 2U);
    EXPECT_EQ(NVRHCCListRemove(nullptr, node, &element), 2U);
    EXPECT_EQ(element, &d);
    EXPECT_EQ(Order(), "a");
    EXPECT_EQ(fake::Frees(), 0U);
}

/* --- clean-up ------------------------------------------------------------------------------- */

TEST_F(HccList, CleanUpWithoutReleaseCallbackDoesNothing)
{
    Append(&a);
    Append(&b);
    Append(&c);
    events.clear();
    NVRHCCListCleanUp(&list, nullptr);
    EXPECT_EQ(list.dwNumOfElem, 3U);
    EXPECT_EQ(Order(), "abc");
    EXPECT_TRUE(events.empty());
}

TEST_F(HccList, CleanUpOfANullListDoesNothing)
{
    events.clear();
    NVRHCCListCleanUp(nullptr, Release);
    NVRHCCListCleanUp(nullptr, nullptr);
    EXPECT_TRUE(events.empty());
}

TEST_F(HccList, CleanUpReleasesEachNodeBeforeItsElementFromTheHeadOn)
{
    Append(&b);
    Append(&c);
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &a, nullptr), 0U);
    events.clear();
    released.clear();
    NVRHCCListCleanUp(&list, Release);
    EXPECT_EQ(events,
              (std::vector<std::string>{"free node", "release a", "free node", "release b", "free node", "release c"}));
    EXPECT_EQ(released, (std::vector<void *>{&a, &b, &c}));
    EXPECT_EQ(list.dwNumOfElem, 0U);
    EXPECT_EQ(list.ptHead, nullptr);
    EXPECT_EQ(list.ptTail, nullptr);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(HccList, CleanUpOfAnEmptyListCallsNothing)
{
    events.clear();
    NVRHCCListCleanUp(&list, Release);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(Order(), "");
}

TEST_F(HccList, CleanUpKeepsTheCallbacksSoThatTheListServesAgain)
{
    Append(&a);
    NVRHCCListCleanUp(&list, Release);
    EXPECT_EQ(list.pfMalloc, SpyMalloc);
    EXPECT_EQ(list.pfRealloc, SpyRealloc);
    EXPECT_EQ(list.pfFree, SpyFree);
    Append(&b);
    Append(&c);
    EXPECT_EQ(Order(), "bc");
}

/* --- the whole ------------------------------------------------------------------------------ */

TEST_F(HccList, ReallocIsNeverCalled)
{
    events.clear();
    for (int i = 0; i < 100; ++i) {
        Append(&a);
        EXPECT_EQ(NVRHCCListInsertBefore(&list, list.ptTail, &b, nullptr), 0U);
    }
    while (list.dwNumOfElem > 50) {
        EXPECT_EQ(NVRHCCListRemove(&list, list.ptHead->ptNext, nullptr), 0U);
    }
    NVRHCCListCleanUp(&list, Release);
    for (const std::string &event : events) {
        EXPECT_NE(event, "realloc");
    }
    EXPECT_EQ(fake::Reallocs(), 0U);
}

TEST_F(HccList, TheSameElementMayStandSeveralTimes)
{
    Append(&a);
    Append(&a);
    EXPECT_EQ(Order(), "aa");
    EXPECT_EQ(NVRHCCListRemove(&list, list.ptHead, nullptr), 0U);
    EXPECT_EQ(Order(), "a");
}

} // namespace
