/* What the host's binary semaphores promise beyond platform/osp.h. */
#include <gtest/gtest.h>

#include <thread>

#include "platform/osp.h"

TEST(HostSem, TheTakerMayDeleteAtOnce)
{
    for (int i = 0; i < 500; i++) {
        HOspSem sem = nullptr;
        ASSERT_NE(OspSemBCreate(&sem), 0U);
        OspSemTake(sem);
        std::thread giver([sem] { OspSemGive(sem); });
        OspSemTake(sem);
        OspSemDelete(sem);
        giver.join();
    }
}

TEST(HostSem, CreationNeedsAPlaceForTheHandle)
{
    EXPECT_EQ(OspSemBCreate(nullptr), 0U);
}
