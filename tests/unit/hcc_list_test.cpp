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

    /* Makes the list anew, with the elements that have these names. */
    void Fill(const std::string &names)
    {
        NVRHCCListCleanUp(&list, Release);
        for (const char name : names) {
            Append(name == 'a' ? &a : name == 'b' ? &b : &c);
        }
    }

    std::vector<TNVRHCCListNode *> Nodes() const
    {
        std::vector<TNVRHCCListNode *> nodes;
        for (TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
            nodes.push_back(node);
        }
        return nodes;
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

const TNvrHttpCurlCltMemCB SYSTEM = {malloc, realloc, free};

void ExpectEmpty(const TNVRHCCList &list, const TNvrHttpCurlCltMemCB &memory)
{
    EXPECT_EQ(list.dwNumOfElem, 0U);
    EXPECT_EQ(list.ptHead, nullptr);
    EXPECT_EQ(list.ptTail, nullptr);
    EXPECT_EQ(list.pfMalloc, memory.pfMalloc);
    EXPECT_EQ(list.pfRealloc, memory.pfRealloc);
    EXPECT_EQ(list.pfFree, memory.pfFree);
}

TEST(HccListInit, RefusesANullListAndMixedCallbacksAndLeavesTheRecordUntouched)
{
    EXPECT_EQ(NVRHCCListInit(nullptr, &SPY), 2U);
    EXPECT_EQ(NVRHCCListInit(nullptr, nullptr), 2U);
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

TEST(HccListInit, CopiesTheCallbacksAndClearsTheRest)
{
    TNVRHCCList list;
    memset(&list, 0x5A, sizeof(list));
    TNvrHttpCurlCltMemCB memory = SPY;
    EXPECT_EQ(NVRHCCListInit(&list, &memory), 0U);
    memory = {};
    ExpectEmpty(list, SPY);
}

TEST(HccListInit, WithoutCallbacksTakesTheSystemAllocator)
{
    const TNvrHttpCurlCltMemCB none = {};
    for (const TNvrHttpCurlCltMemCB *memory : {static_cast<const TNvrHttpCurlCltMemCB *>(nullptr), &none}) {
        TNVRHCCList list;
        memset(&list, 0x5A, sizeof(list));
        EXPECT_EQ(NVRHCCListInit(&list, memory), 0U);
        ExpectEmpty(list, SYSTEM);
    }
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

using Insert = uint32_t (*)(TNVRHCCList *, TNVRHCCListNode *, void *, TNVRHCCListNode **);
const Insert BEFORE = NVRHCCListInsertBefore;
const Insert AFTER = NVRHCCListInsertAfter;

TEST_F(HccList, InsertLinksANewNodeBeforeOrAfterItsAnchor)
{
    const struct {
        Insert insert;
        std::string before;
        int anchor; /* its index; -1: none */
        std::string after;
    } cases[] = {{BEFORE, "", -1, "d"},     {AFTER, "", -1, "d"},     /* the only node */
                 {BEFORE, "ab", -1, "dab"}, {AFTER, "ab", -1, "abd"}, /* at either end */
                 {BEFORE, "a", 0, "da"},    {BEFORE, "ab", 1, "adb"}, /* a new head, between */
                 {AFTER, "a", 0, "ad"},     {AFTER, "ab", 0, "adb"}}; /* a new tail, between */
    for (const auto &each : cases) {
        SCOPED_TRACE(each.before + " to " + each.after);
        Fill(each.before);
        std::vector<TNVRHCCListNode *> nodes = Nodes();
        TNVRHCCListNode *anchor = each.anchor < 0 ? nullptr : nodes[static_cast<size_t>(each.anchor)];
        TNVRHCCListNode *node = nullptr;
        EXPECT_EQ(each.insert(&list, anchor, &d, &node), 0U);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->pvData, &d);
        EXPECT_EQ(Order(), each.after);
        nodes.insert(nodes.begin() + static_cast<std::ptrdiff_t>(each.after.find('d')), node);
        EXPECT_EQ(Nodes(), nodes);
    }
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

TEST_F(HccList, InsertRefusesNullsAndAnAnchorOnAnEmptyListAndAllocatesNothing)
{
    for (const Insert insert : {BEFORE, AFTER}) {
        TNVRHCCListNode stray = {};
        TNVRHCCListNode *node = &stray;
        EXPECT_EQ(insert(&list, &stray, &a, &node), 2U);
        EXPECT_EQ(insert(nullptr, nullptr, &b, &node), 2U);
        EXPECT_EQ(insert(&list, nullptr, nullptr, &node), 2U);
        EXPECT_EQ(node, &stray);
    }
    EXPECT_EQ(fake::Mallocs(), 0U);
    EXPECT_EQ(Order(), "");
}

TEST_F(HccList, InsertWithoutMemoryReturnsThreeAndChangesNothing)
{
    for (const std::string before : {"", "a"}) {
        Fill(before);
        fake::FailMalloc(1, true);
        for (const Insert insert : {BEFORE, AFTER}) {
            TNVRHCCListNode *node = list.ptHead;
            EXPECT_EQ(insert(&list, nullptr, &b, &node), 3U);
            EXPECT_EQ(insert(&list, list.ptHead, &b, &node), 3U);
            EXPECT_EQ(node, list.ptHead);
        }
        EXPECT_EQ(Order(), before);
        fake::FailMalloc(0);
    }
}

/* --- removal -------------------------------------------------------------------------------- */

TEST_F(HccList, RemoveJoinsTheNeighboursAndFreesTheNodeAlone)
{
    const struct {
        std::string before;
        size_t index;
        std::string after;
    } cases[] = {{"a", 0, ""}, {"abc", 0, "bc"}, {"abc", 1, "ac"}, {"abc", 2, "ab"}, {"aa", 0, "a"}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.before + " to " + each.after);
        Fill(each.before);
        std::vector<TNVRHCCListNode *> nodes = Nodes();
        void *const expected = nodes[each.index]->pvData;
        void *element = nullptr;
        events.clear();
        EXPECT_EQ(NVRHCCListRemove(&list, nodes[each.index], &element), 0U);
        EXPECT_EQ(events, std::vector<std::string>{"free node"});
        EXPECT_EQ(element, expected);
        EXPECT_EQ(Order(), each.after);
        nodes.erase(nodes.begin() + static_cast<std::ptrdiff_t>(each.index));
        EXPECT_EQ(Nodes(), nodes);
        EXPECT_EQ(fake::BlocksAlive(), nodes.size());
    }
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

TEST_F(HccList, CleanUpReleasesEachNodeBeforeItsElementFromTheHeadOn)
{
    Fill("bc");
    EXPECT_EQ(NVRHCCListInsertBefore(&list, nullptr, &a, nullptr), 0U);
    events.clear();
    released.clear();
    NVRHCCListCleanUp(&list, Release);
    EXPECT_EQ(events,
              (std::vector<std::string>{"free node", "release a", "free node", "release b", "free node", "release c"}));
    EXPECT_EQ(released, (std::vector<void *>{&a, &b, &c}));
    ExpectEmpty(list, SPY);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
    Fill("bc");
    EXPECT_EQ(Order(), "bc") << "with its callbacks the list serves again";
}

TEST_F(HccList, CleanUpWithoutAReleaseCallbackOrAnyElementCallsNothing)
{
    events.clear();
    NVRHCCListCleanUp(nullptr, Release);
    NVRHCCListCleanUp(nullptr, nullptr);
    NVRHCCListCleanUp(&list, Release);
    EXPECT_EQ(Order(), "");
    Fill("abc");
    NVRHCCListCleanUp(&list, nullptr);
    EXPECT_EQ(Order(), "abc");
    EXPECT_TRUE(events.empty());
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

} // namespace
