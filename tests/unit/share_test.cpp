/* The DNS cache that applications may share. */
#include "tests/support/send_fixture.h"

using namespace test;

namespace
{

const char SHARE[] = "set_share_handle";
const char SHARE_11[] = "[Error] --11--curl_easy_setopt() failed, eCurlRet %d, %s\n";
const char SHARE_22[] = "[Error] --22--curl_easy_setopt() failed, eCurlRet %d, %s\n";
const Order ATTACHED = {CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT};

struct Shared {
    CURLSH *share;
    CURLSHoption option;
    uintptr_t value;
};

class ShareTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        semsLeft = 1; /* the lock of the share handle is never deleted */
        hooks::share_setopt = [this](CURLSH *share, CURLSHoption option, void *value) {
            const std::lock_guard<std::mutex> guard(lock);
            shared.push_back({share, option, reinterpret_cast<uintptr_t>(value)});
            return refusal == CURLSHE_OK ? hooks::real::share_setopt(share, option, value) : refusal;
        };
        easy = hooks::real::easy_init();
    }

    void TearDown() override
    {
        hooks::real::easy_cleanup(easy);
        hooks::share_setopt = nullptr;
        SendTest::TearDown();
    }

    std::mutex lock;
    std::vector<Shared> shared;
    CURLSHcode refusal = CURLSHE_OK;
    CURL *easy = nullptr;
};

} // namespace

TEST_F(ShareTest, FirstUseCreatesTheShareAndAttachesTheHandle)
{
    EXPECT_EQ(set_share_handle(easy), 0U);
    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    ASSERT_EQ(shared.size(), 1U);
    EXPECT_NE(shared[0].share, nullptr);
    EXPECT_EQ(shared[0].option, CURLSHOPT_SHARE);
    EXPECT_EQ(shared[0].value, static_cast<uintptr_t>(CURL_LOCK_DATA_DNS));
    EXPECT_EQ(hooks::OptionOrder(), ATTACHED);
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), reinterpret_cast<uintptr_t>(shared[0].share));
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, LaterUsesAttachTheSameShareAndSetItUpNoMore)
{
    EXPECT_EQ(set_share_handle(easy), 0U);
    CURL *other = hooks::real::easy_init();
    EXPECT_EQ(set_share_handle(other), 0U);
    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    EXPECT_EQ(shared.size(), 1U);
    const std::vector<hooks::Option> attached = hooks::OptionsOf(CURLOPT_SHARE);
    ASSERT_EQ(attached.size(), 2U);
    EXPECT_EQ(attached[0].value, attached[1].value);
    EXPECT_EQ(attached[1].easy, other);
    hooks::real::easy_cleanup(other);
}

TEST_F(ShareTest, ResultIsThatOfTheCacheTimeout)
{
    hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(set_share_handle(easy), static_cast<uint32_t>(CURLE_BAD_FUNCTION_ARGUMENT));
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, WithoutShareHandleItLogsGoesOnAndTriesAgainNextTime)
{
    hooks::share_init = [] { return nullptr; };
    set_share_handle(easy);
    ExpectLine(Error(SHARE, "[Error] curl_share_init fail\n"));
    EXPECT_EQ(hooks::OptionOrder(), ATTACHED);
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
    hooks::share_init = nullptr;
    EXPECT_EQ(set_share_handle(easy), 0U);
    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0U);
}

TEST_F(ShareTest, RefusedDnsSharingIsLoggedAndAttachedAllTheSame)
{
    refusal = CURLSHE_BAD_OPTION;
    EXPECT_EQ(set_share_handle(easy), 0U);
    ExpectLine(Error(SHARE, "[Error] curl_share_setopt() failed, eCurlRet %d, %s\n", 1, curl_share_strerror(refusal)));
    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0U);
}

/* The first line comes before the time-out is set, the second one after, with the same code. */
TEST_F(ShareTest, RefusedAttachmentIsLoggedTwiceWhateverBecomesOfTheTimeout)
{
    const char *reason = curl_easy_strerror(CURLE_UNKNOWN_OPTION);
    hooks::RefuseOption(CURLOPT_SHARE, CURLE_UNKNOWN_OPTION);
    size_t linesBetween = 9;
    hooks::easy_setopt = [&](CURL *handle, CURLoption option, void *value) {
        linesBetween = fake::Lines().size();
        return hooks::real::easy_setopt(handle, option, value);
    };
    for (const CURLcode timeout : {CURLE_OK, CURLE_BAD_FUNCTION_ARGUMENT}) {
        SCOPED_TRACE(timeout);
        hooks::ClearOptions();
        hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, timeout);
        set_share_handle(easy);
        EXPECT_EQ(linesBetween, 1U);
        ExpectLines({Error(SHARE, SHARE_11, 48, reason), Error(SHARE, SHARE_22, 48, reason)});
        EXPECT_EQ(hooks::OptionOrder(), ATTACHED);
        EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
    }
}

/* The creation takes a while, so that an unguarded second one would come in. */
TEST_F(ShareTest, RacingFirstUsesShareOneHandle)
{
    hooks::share_init = [] {
        for (int i = 0; i < 2000; ++i) {
            std::this_thread::yield();
        }
        return hooks::real::share_init();
    };
    CURL *handles[6];
    for (CURL *&one : handles) {
        one = hooks::real::easy_init();
    }
    std::atomic<uint32_t> wrong{0};
    Race(6, [&](unsigned index) { wrong += set_share_handle(handles[index]); });
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    EXPECT_EQ(shared.size(), 1U);
    const std::vector<hooks::Option> attached = hooks::OptionsOf(CURLOPT_SHARE);
    EXPECT_EQ(attached.size(), 6U);
    for (const hooks::Option &option : attached) {
        EXPECT_EQ(option.value, reinterpret_cast<uintptr_t>(shared[0].share));
    }
    for (CURL *one : handles) {
        hooks::real::easy_cleanup(one);
    }
}
