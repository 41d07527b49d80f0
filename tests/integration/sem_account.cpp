/*
 * Counts the semaphores and memory blocks of the engine, for programs that use the engine alone. Each Init replaces
 * the engine-wide lock and keeps the old one; any other that is left at the end was leaked.
 */
#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "engine_runs.h"
#include "platform/osp.h"
#include "tests/support/next.h"

namespace
{

std::mutex semsLock;
std::set<HOspSem> sems;

class SemAccount : public testing::Environment
{
  public:
    void TearDown() override
    {
        std::lock_guard<std::mutex> guard(semsLock);
        EXPECT_EQ(sems.size(), test::Inits());
        EXPECT_EQ(test::BlocksAlive(), 0);
        for (const HOspSem sem : sems) {
            test::Next<decltype(OspSemDelete)>("OspSemDelete")(sem);
        }
    }
};

testing::Environment *const semAccount = testing::AddGlobalTestEnvironment(new SemAccount);

} // namespace

extern "C" uint32_t OspSemBCreate(HOspSem *phSem)
{
    std::lock_guard<std::mutex> guard(semsLock);
    const uint32_t created = test::Next<decltype(OspSemBCreate)>("OspSemBCreate")(phSem);
    if (created != 0) {
        sems.insert(*phSem);
    }
    return created;
}

extern "C" uint32_t OspSemDelete(HOspSem hSem)
{
    std::lock_guard<std::mutex> guard(semsLock);
    sems.erase(hSem);
    return test::Next<decltype(OspSemDelete)>("OspSemDelete")(hSem);
}
