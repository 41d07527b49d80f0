/*
 * Certificates: checked or not as the request says, whatever its URL looks like. What is sent shows in nginx's log:
 * a request that was refused before is not there.
 */
#include <cstdlib>
#include <vector>

#include "client_fixture.h"
#include "nginx_server.h"

namespace
{

using nvrhttpcurl::Request;
using namespace test;

/* A URL of the TLS server. PORT is its port. */
struct Spelling {
    const char *name;
    const char *url;
    const char *seen; /* the path and query that the server sees where it is checked */
};

void PrintTo(const Spelling &spelling, std::ostream *out)
{
    *out << spelling.name;
}

constexpr Spelling SPELLINGS[] = {
    {"Small", "https://127.0.0.1:PORT/ready", "/ready"},
    {"Capitals", "HTTPS://127.0.0.1:PORT/ready", "/ready"},
    {"Mixed", "hTTPs://127.0.0.1:PORT/ready", "/ready"},
    {"InThePath", "https://127.0.0.1:PORT/ready/https/x", "/ready/http%73/x"},
    {"TwiceInThePath", "HTTPS://127.0.0.1:PORT/ready/httpshttps", "/ready/http%73http%73"},
    {"CapitalsInThePath", "https://127.0.0.1:PORT/ready/HTTPS", "/ready/HTTPS"},
    {"InTheQuery", "https://127.0.0.1:PORT/ready?to=https://a/", "/ready?to=http%73://a/"},
    {"InAQueryWithoutPath", "https://127.0.0.1:PORT?https", "/?http%73"},
    {"InTheFragment", "https://127.0.0.1:PORT/ready#https", "/ready"},
    {"InTheHost", "https://https.localhost:PORT/ready", "/ready"},
    {"CapitalsInTheHost", "HTTPS://HTTPS.LOCALHOST:PORT/ready", "/ready"},
    {"MixedInTheHost", "Https://Https.localHost:PORT/ready", "/ready"},
    {"CapitalsInTheUser", "https://HTTPS:x@https.localhost:PORT/ready", "/ready"},
};

class ClientVerify : public NginxTest
{
  protected:
    ClientVerify()
    {
        unsetenv("NVRHTTP_TRUSTED");
    }

    void Trust() const
    {
        setenv("NVRHTTP_TRUSTED", nginx.CertificatePath().c_str(), 1);
    }

    std::string UrlOf(const Spelling &spelling) const
    {
        const std::string port = nginx.Https("", "").substr(std::string("://127.0.0.1:").size());
        std::string url = spelling.url;
        return url.replace(url.find("PORT"), 4, port);
    }

    Client client{Limits(1)};
};

class Spellings : public ClientVerify, public testing::WithParamInterface<Spelling>
{
};

TEST_P(Spellings, AreCheckedAndRefused)
{
    ExpectFailure(client.send(PostOf(UrlOf(GetParam()))), Error::transfer_failed);
    EXPECT_EQ(nginx.RequestCount(), 0U);
}

TEST_P(Spellings, AreCheckedAndAccepted)
{
    Trust();
    const Response answer = client.send(PostOf(UrlOf(GetParam())));
    EXPECT_EQ(answer.error, Error::none);
    EXPECT_NE(answer.status, 0);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(nginx.LastRequest(), std::string("https ") + GetParam().seen);
}

TEST_P(Spellings, AreNotChecked)
{
    const Response answer = client.send(Unverified(UrlOf(GetParam())));
    EXPECT_EQ(answer.error, Error::none);
    EXPECT_NE(answer.status, 0);
    EXPECT_TRUE(nginx.WaitForRequests(1));
}

INSTANTIATE_TEST_SUITE_P(Cases, Spellings, testing::ValuesIn(SPELLINGS),
                         [](const auto &spelling) { return spelling.param.name; });

TEST_F(ClientVerify, AHostThatTheCertificateDoesNotNameIsRefused)
{
    Trust();
    const std::string url = UrlOf({"", "https://other.localhost:PORT/ready", ""});
    ExpectFailure(client.send(PostOf(url)), Error::transfer_failed);
    EXPECT_EQ(nginx.RequestCount(), 0U);
    EXPECT_EQ(client.send(Unverified(url)).status, 200);
}

/* The connection of the unchecked one is still open. */
TEST_F(ClientVerify, ACheckedRequestDoesNotUseAnUncheckedConnection)
{
    for (const std::string &url : {nginx.Https("/ready"), nginx.Http2("/ready")}) {
        EXPECT_EQ(client.send(Unverified(url)).status, 200);
        ExpectFailure(client.send(PostOf(url)), Error::transfer_failed);
        EXPECT_EQ(client.send(Unverified(url)).status, 200);
    }
}

TEST_F(ClientVerify, PlainHttpIsSentAsItIs)
{
    EXPECT_EQ(client.send(PostOf(nginx.Http("/ready/https?https"))).status, 200);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(nginx.LastRequest(), "http /ready/https?https");
}

/* In a time that grows with the URL, not with its square. */
TEST_F(ClientVerify, AUrlOfAMillionWordsIsSpelled)
{
    const ClosedPort closed;
    std::string url = closed.Url("/", "https");
    for (int word = 0; word < 1000000; ++word) {
        url += "https";
    }
    const Response answer = client.send(PostOf(url));
    ExpectFailure(answer, Error::connect_failed);
    EXPECT_LT(answer.elapsed, PATIENCE);
}

/* A zone is the name of an interface, in which letters count; this one cannot be spelled. */
TEST_F(ClientVerify, AZoneThatCannotBeSpelledIsRefused)
{
    ExpectFailure(client.send(PostOf("https://[fe80::1%25https0]:1/")), Error::invalid_argument);
}

} // namespace
