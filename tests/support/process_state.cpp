#include "tests/support/process_state.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/files.h"

namespace test
{

namespace
{

using Folder = std::filesystem::directory_iterator;

} // namespace

void ClearProxies()
{
    for (const char *name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
        unsetenv(name);
    }
}

std::set<int> OpenDescriptors()
{
    std::set<int> listed;
    std::set<int> open;
    for (const auto &entry : Folder("/proc/self/fd")) {
        listed.insert(std::stoi(entry.path().filename().string()));
    }
    /* The one that the listing itself took is closed again. */
    for (const int fd : listed) {
        if (fcntl(fd, F_GETFD) != -1) {
            open.insert(fd);
        }
    }
    return open;
}

size_t RunningThreads()
{
    return static_cast<size_t>(std::distance(Folder("/proc/self/task"), Folder()));
}

size_t ThreadsNamed(const std::string &name)
{
    size_t count = 0;
    for (const auto &task : Folder("/proc/self/task")) {
        std::string seen;
        std::ifstream(task.path() / "comm") >> seen;
        count += seen == name ? 1 : 0;
    }
    return count;
}

bool AllowDescriptors(size_t count)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    if (limit.rlim_cur >= count) {
        return true;
    }
    limit.rlim_cur = limit.rlim_max < count ? limit.rlim_max : count;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

void FeedStandardInput(const std::string &text)
{
    const MemoryFile file(text);
    dup2(file.Descriptor(), STDIN_FILENO);
    clearerr(stdin);
}

namespace
{

std::string WrittenTo(int descriptor, const std::function<void()> &action)
{
    const MemoryFile file;
    fflush(nullptr);
    const int before = dup(descriptor);
    dup2(file.Descriptor(), descriptor);
    action();
    fflush(nullptr);
    dup2(before, descriptor);
    close(before);
    return file.Text();
}

} // namespace

std::string StandardOutputOf(const std::function<void()> &action)
{
    return WrittenTo(STDOUT_FILENO, action);
}

std::string StandardErrorOf(const std::function<void()> &action)
{
    return WrittenTo(STDERR_FILENO, action);
}

} // namespace test
