#include "nvrhttp_program.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstddef>

namespace test
{

Program Nvrhttp(const std::vector<std::string> &arguments, const std::vector<std::string> &more)
{
    Program program;
    program.command = {NVRHTTP_PROGRAM};
    program.command.insert(program.command.end(), arguments.begin(), arguments.end());
    program.command.insert(program.command.end(), more.begin(), more.end());
    return program;
}

Program Demo(const std::vector<std::string> &arguments)
{
    Program program = Nvrhttp(arguments);
    program.command[0] = NVRHTTP_DEMO_PROGRAM;
    return program;
}

Program WithErrors(Program program, const MemoryFile &errors)
{
    program.errors = errors.Descriptor();
    return program;
}

bool RefuseAllPorts()
{
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_bind, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EADDRINUSE),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {4, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

std::string UnresolvableUrl()
{
    return "http://" + std::string(64, 'x') + ".test/";
}

std::string LibcurlReason(CURLcode code)
{
    return std::string(curl_easy_strerror(code)) + " (libcurl code " + std::to_string(code) + ")";
}

std::string After(const std::string &text, const std::string &mark)
{
    const size_t at = text.find(mark);
    if (at == std::string::npos) {
        return "";
    }
    const size_t first = at + mark.size();
    return text.substr(first, text.find_first_of(",\n", first) - first);
}

std::string Folded(const std::string &text)
{
    std::string folded;
    for (const char one : text) {
        const bool blank = std::isspace(static_cast<unsigned char>(one)) != 0;
        if (!blank || (!folded.empty() && folded.back() != ' ')) {
            folded += blank ? ' ' : one;
        }
    }
    return folded;
}

ServeProcess::ServeProcess(const std::vector<std::string> &options) : process(Nvrhttp({"serve"}, options))
{
    const std::string url = process.ReadUntil("\n");
    EXPECT_NE(url.find("://127.0.0.1:"), std::string::npos) << url;
    EXPECT_EQ(url.back(), '/');
    origin = url.substr(0, url.size() - 1);
}

ServeProcess::~ServeProcess()
{
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Wait(), 0);
}

std::string ServeProcess::Url(const std::string &path) const
{
    return origin + path;
}

} // namespace test
