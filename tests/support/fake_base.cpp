#include <arpa/inet.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "platform/appbase.h"
#include "tests/support/fake_platform.h"
#include "tests/support/records.h"

namespace
{

using test::Guard;

struct BaseRecords {
    std::mutex lock;
    std::vector<fake::CommandInfo> commands;
    std::vector<uint32_t> delays;
    uint32_t strtoNetResult = 0;
    std::vector<std::string> violations;
};

BaseRecords &Rec()
{
    return test::Lasting<BaseRecords>();
}

uint32_t StrtoNetResult()
{
    const Guard guard(Rec().lock);
    return Rec().strtoNetResult;
}

} // namespace

extern "C" {

uint32_t OspRegCommand(const char *name, PFOspCommand command, const char *help)
{
    if (name == nullptr || *name == '\0' || command == nullptr) {
        return 0;
    }
    const Guard guard(Rec().lock);
    Rec().commands.push_back({name, fake::OrEmpty(help), command});
    return 1;
}

char *AppStrstr(const char *text, const char *part)
{
    if (text == nullptr || part == nullptr) {
        return nullptr;
    }
    return const_cast<char *>(strstr(text, part));
}

uint32_t AppStrlen(const char *text)
{
    return text == nullptr ? 0 : static_cast<uint32_t>(strlen(text));
}

void AppDelay(uint32_t milliseconds)
{
    {
        const Guard guard(Rec().lock);
        Rec().delays.push_back(milliseconds);
    }
    if (milliseconds != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

uint16_t AppConvertHtons(uint16_t host)
{
    return htons(host);
}

uint32_t AppConvertStrtoNet(const char *text, TAppNetAddr *result)
{
    if (StrtoNetResult() != 0) {
        return StrtoNetResult();
    }
    in_addr address;
    if (text == nullptr || result == nullptr || inet_pton(AF_INET, text, &address) != 1) {
        return 1;
    }
    result->dwFamily = AF_INET;
    result->dwIPv4 = address.s_addr;
    return 0;
}
}

namespace fake
{

std::vector<CommandInfo> Commands()
{
    const Guard guard(Rec().lock);
    return Rec().commands;
}

std::vector<uint32_t> Delays()
{
    const Guard guard(Rec().lock);
    return Rec().delays;
}

void SetStrtoNetResult(uint32_t result)
{
    const Guard guard(Rec().lock);
    Rec().strtoNetResult = result;
}

void AddViolation(const std::string &text)
{
    const Guard guard(Rec().lock);
    Rec().violations.push_back(text);
}

std::vector<std::string> Violations()
{
    const Guard guard(Rec().lock);
    return Rec().violations;
}

} // namespace fake
