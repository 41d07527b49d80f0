#include <cstdlib>
#include <map>

#include "tests/support/fail_nth.h"
#include "tests/support/fake_platform.h"
#include "tests/support/records.h"

namespace
{

using test::Guard;

/*
 * The allocator is called under the lock: another thread must not be given the address of a
 * released block before the record of that block is gone.
 */
struct MemoryRecords {
    std::mutex lock;
    std::map<void *, bool> blocks; /* true: a realloc of the block failed */
    test::FailNth malloc;
    test::FailNth realloc;
    size_t frees = 0;
};

MemoryRecords &Rec()
{
    return test::Lasting<MemoryRecords>();
}

extern "C" void *CountingMalloc(size_t size)
{
    const Guard guard(Rec().lock);
    if (size == 0) {
        fake::AddViolation("malloc of no bytes");
    }
    void *block = Rec().malloc.Hit() ? nullptr : malloc(size);
    if (block != nullptr) {
        Rec().blocks[block] = false;
    }
    return block;
}

extern "C" void *CountingRealloc(void *block, size_t size)
{
    const Guard guard(Rec().lock);
    const bool hit = Rec().realloc.Hit();
    const auto place = Rec().blocks.find(block);
    if (place == Rec().blocks.end() || size == 0) {
        fake::AddViolation(size == 0 ? "realloc to no bytes" : "realloc of a foreign or null block");
        return nullptr;
    }
    void *moved = hit ? nullptr : realloc(block, size);
    if (moved == nullptr) {
        place->second = true;
        return nullptr;
    }
    Rec().blocks.erase(place);
    Rec().blocks[moved] = false;
    return moved;
}

extern "C" void CountingFree(void *block)
{
    const Guard guard(Rec().lock);
    ++Rec().frees;
    if (Rec().blocks.erase(block) == 0) {
        fake::AddViolation("free of a foreign or null block");
        return;
    }
    free(block);
}

} // namespace

namespace fake
{

TNvrHttpCurlCltMemCB MemCB()
{
    return {CountingMalloc, CountingRealloc, CountingFree};
}

void FailMalloc(unsigned nth, bool lasting)
{
    Rec().malloc.Arm(nth, lasting);
}

void FailRealloc(unsigned nth, bool lasting)
{
    Rec().realloc.Arm(nth, lasting);
}

size_t Mallocs()
{
    return Rec().malloc.Calls();
}

size_t Reallocs()
{
    return Rec().realloc.Calls();
}

size_t Frees()
{
    const Guard guard(Rec().lock);
    return Rec().frees;
}

size_t BlocksAlive()
{
    const Guard guard(Rec().lock);
    return Rec().blocks.size();
}

void FreeLostBlocks()
{
    const Guard guard(Rec().lock);
    for (auto place = Rec().blocks.begin(); place != Rec().blocks.end();) {
        if (place->second) {
            free(place->first);
            place = Rec().blocks.erase(place);
        } else {
            ++place;
        }
    }
}

} // namespace fake
