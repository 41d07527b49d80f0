#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "tests/support/fail_nth.h"
#include "tests/support/fake_platform.h"
#include "tests/support/records.h"

struct TOspTask {
    fake::TaskInfo info;
    std::thread thread;
};

namespace
{

using test::Guard;

struct TaskRecords {
    std::mutex lock;
    std::deque<std::unique_ptr<TOspTask>> tasks;
    test::FailNth create;
    bool run = true;
    bool failWait = false;
};

TaskRecords &Rec()
{
    return test::Lasting<TaskRecords>();
}

thread_local HOspTask self = nullptr;

/* run: whether the new task gets a thread. */
TOspTask *NewTask(fake::TaskInfo info, bool &run)
{
    const Guard guard(Rec().lock);
    Rec().tasks.push_back(std::make_unique<TOspTask>());
    TOspTask *task = Rec().tasks.back().get();
    task->info = std::move(info);
    task->info.task = task;
    run = Rec().run;
    return task;
}

/* Under the records' lock. */
std::deque<std::unique_ptr<TOspTask>>::iterator PlaceOf(const TOspTask *task)
{
    return std::find_if(Rec().tasks.begin(), Rec().tasks.end(),
                        [task](const std::unique_ptr<TOspTask> &each) { return each.get() == task; });
}

/* Whether the caller is the one to wait for the task. */
bool ClaimWait(const TOspTask *task)
{
    const Guard guard(Rec().lock);
    const auto place = PlaceOf(task);
    if (place == Rec().tasks.end()) {
        fake::AddViolation("OspTaskWaitEnd of an unknown task");
        return false;
    }
    if (std::exchange((*place)->info.waited, true)) {
        fake::AddViolation("OspTaskWaitEnd of a task waited for before");
        return false;
    }
    return true;
}

} // namespace

extern "C" {

HOspTask OspTaskCreate(PFOspTaskEntry entry, const char *name, uint8_t priority, uint32_t stackSize, void *arg,
                       uint16_t flags, uint64_t *id)
{
    static std::atomic<uint64_t> lastId{0};
    if (Rec().create.Hit()) {
        return nullptr;
    }
    bool run = false;
    TOspTask *task = NewTask({fake::OrEmpty(name), priority, stackSize, flags, entry, arg, nullptr, false}, run);
    if (id != nullptr) {
        *id = lastId.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    if (run) {
        try {
            task->thread = std::thread([entry, arg, task] {
                self = task;
                entry(arg);
            });
        } catch (const std::system_error &) {
            const Guard guard(Rec().lock);
            Rec().tasks.erase(PlaceOf(task));
            return nullptr;
        }
    }
    return task;
}

uint32_t OspTaskWaitEnd(HOspTask task)
{
    if (task == nullptr || task == self || !ClaimWait(task)) {
        return 0;
    }
    if (task->thread.joinable()) {
        task->thread.join();
    }
    const Guard guard(Rec().lock);
    return Rec().failWait ? 0 : 1;
}
}

namespace fake
{

void RunTasks(bool run)
{
    const Guard guard(Rec().lock);
    Rec().run = run;
}

void FailTaskCreate(unsigned nth, bool lasting)
{
    Rec().create.Arm(nth, lasting);
}

void FailTaskWait(bool fail)
{
    const Guard guard(Rec().lock);
    Rec().failWait = fail;
}

std::vector<TaskInfo> Tasks()
{
    std::vector<TaskInfo> tasks;
    const Guard guard(Rec().lock);
    for (const std::unique_ptr<TOspTask> &task : Rec().tasks) {
        tasks.push_back(task->info);
    }
    return tasks;
}

size_t TasksWaited()
{
    const std::vector<TaskInfo> tasks = Tasks();
    return static_cast<size_t>(
        std::count_if(tasks.begin(), tasks.end(), [](const TaskInfo &task) { return task.waited; }));
}

} // namespace fake
