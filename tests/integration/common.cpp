#include "common.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace common
{

namespace
{

size_t CountEntries(const char *folder)
{
    DIR *dir = opendir(folder);
    size_t count = 0;
    if (dir == nullptr) {
        return 0;
    }
    while (const dirent *entry = readdir(dir)) {
        count += entry->d_name[0] == '.' ? 0 : 1;
    }
    closedir(dir);
    return count;
}

bool Refuses(const pollfd &waiting)
{
    return (waiting.revents & (POLLERR | POLLHUP)) != 0;
}

} // namespace

bool WaitUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

IntegrationTest::IntegrationTest() : logFolder(MakeFolder())
{
    for (const char *name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
        unsetenv(name);
    }
    setenv("NVRHTTPCURL_LOG_DIR", logFolder.c_str(), 1);
    FeedStandardInput("");
}

IntegrationTest::~IntegrationTest()
{
    RemoveFolder(logFolder);
}

std::string MakeFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "nvrhttpcurl-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return std::string();
    }
    return pattern;
}

void RemoveFolder(const std::string &folder)
{
    std::error_code ignored;
    if (!folder.empty()) {
        std::filesystem::remove_all(folder, ignored);
    }
}

std::string ReadWholeFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void FeedStandardInput(const std::string &text)
{
    FILE *file = tmpfile();
    if (file == nullptr) {
        ADD_FAILURE() << "no temporary file for standard input";
        return;
    }
    fwrite(text.data(), 1, text.size(), file);
    fflush(file);
    lseek(fileno(file), 0, SEEK_SET);
    dup2(fileno(file), STDIN_FILENO);
    fclose(file);
    clearerr(stdin);
}

std::string StandardOutputOf(const std::function<void()> &action)
{
    FILE *file = tmpfile();
    if (file == nullptr) {
        ADD_FAILURE() << "no temporary file for standard output";
        return std::string();
    }
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(fileno(file), STDOUT_FILENO);
    action();
    fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);

    std::string text;
    rewind(file);
    for (int c = fgetc(file); c != EOF; c = fgetc(file)) {
        text.push_back(static_cast<char>(c));
    }
    fclose(file);
    return text;
}

int BindLoopback(uint16_t *port)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(address.sin_port);
    return fd;
}

/* Bound but not listening: the kernel refuses, and keeps the port. */
ClosedPort::ClosedPort() : fd(BindLoopback(&port))
{
}

ClosedPort::~ClosedPort()
{
    close(fd);
}

std::string ClosedPort::Url(const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port) + "/";
}

SilentAddress::SilentAddress() : fd(BindLoopback(&port))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd < 0 || listen(fd, 0) != 0) {
        return;
    }
    /* Nobody accepts: the first ones fill the backlog, the one that stays pending proves it. */
    while (!silent && fillers.size() < 16) {
        const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        pollfd waiting{filler, POLLOUT, 0};
        fillers.push_back(filler);
        (void)connect(filler, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        silent = poll(&waiting, 1, 200) == 0;
        if (Refuses(waiting)) {
            return;
        }
    }
}

SilentAddress::~SilentAddress()
{
    for (int filler : fillers) {
        close(filler);
    }
    close(fd);
}

bool SilentAddress::IsSilent() const
{
    return silent;
}

std::string SilentAddress::Url() const
{
    return "http://127.0.0.1:" + std::to_string(port) + "/";
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

size_t OpenDescriptors()
{
    return CountEntries("/proc/self/fd");
}

size_t RunningThreads()
{
    return CountEntries("/proc/self/task");
}

std::string Text(size_t length)
{
    std::string text(length, '.');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 26) % 26);
    }
    return text;
}

} // namespace common
