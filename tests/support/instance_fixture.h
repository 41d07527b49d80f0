/*
 * What the tests of instances share: memory callbacks that can be watched, a look at all slots,
 * and a fixture that ends every instance.
 */
#ifndef TESTS_SUPPORT_INSTANCE_FIXTURE_H
#define TESTS_SUPPORT_INSTANCE_FIXTURE_H

#include <cstring>
#include <set>

#include "nvrhttpcurl/hcc_tools.h"
#include "tests/support/engine_fixture.h"

namespace test
{

constexpr char INIT[] = "NvrHttpCurlCltInit";

inline std::function<void(size_t)> onMalloc;
inline std::function<void(void *)> onFree;

/* Fresh blocks are full of rubbish. */
inline void *SpyMalloc(size_t size)
{
    if (onMalloc) {
        onMalloc(size);
    }
    void *block = fake::MemCB().pfMalloc(size);
    if (block != nullptr) {
        memset(block, 0xA5, size);
    }
    return block;
}

inline void SpyFree(void *block)
{
    if (onFree) {
        onFree(block);
    }
    fake::MemCB().pfFree(block);
}

inline TNvrHttpCurlCltMemCB SpyMemCB()
{
    return {SpyMalloc, fake::MemCB().pfRealloc, SpyFree};
}

/* All slots as they are at this moment. */
inline std::vector<unsigned char> TableBytes()
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&g_tNvrHttpCurlCltCont);
    return {bytes, bytes + sizeof(g_tNvrHttpCurlCltCont)};
}

/* The line that Init logs first. */
inline Line TickLine()
{
    return Info(INIT, " NVRHCCTickToMS(1) return %u\n", NVRHCCTickToMS(1));
}

/* Ends the instances that a case leaves; nothing of any remains. */
class InstanceTest : public EngineTest
{
  protected:
    void TearDown() override
    {
        onMalloc = nullptr;
        onFree = nullptr;
        for (unsigned i = 0; i < 16; ++i) {
            if (Slot(i)->bInited != 0) {
                NvrHttpCurlCltUninit(Slot(i));
            }
            EXPECT_TRUE(IsFree(Slot(i))) << i;
        }
        EXPECT_EQ(OpenDescriptors(), openBefore);
        EXPECT_EQ(fake::TasksWaited(), fake::Tasks().size());
        EngineTest::TearDown();
    }

    const std::set<int> openBefore = OpenDescriptors();
};

} // namespace test

#endif
