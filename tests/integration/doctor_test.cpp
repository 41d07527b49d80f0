/*
 * nvrhttp doctor, run as a program in surroundings that lack something.
 */
#include <sys/resource.h>

#include "nvrhttp_program.h"
#include "tests/support/loopback.h"

namespace
{

using namespace test;
using Doctor = IntegrationTest;

TEST_F(Doctor, NamesWhatTheLibraryReliesOn)
{
    const Finished run = RunProgram(Nvrhttp({"doctor"}));
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
    for (const char *topic :
         {"ok       libcurl ", "ok       TLS ", "ok       threads ", " HTTP/2 ", "ok       wake-up ports ",
          "ok       proxy         no variable that libcurl obeys", " open files ", "\n0 missing, "}) {
        EXPECT_TRUE(Has(run.output, topic)) << topic << " in\n" << run.output;
    }
}

/* Where the library itself logs, as a post that fails shows. */
TEST_F(Doctor, SaysWhereTheLogIs)
{
    const ClosedPort closed;
    const std::string path = logFolder.Path() + "/SendCurl.log";
    EXPECT_NE(RunProgram(Nvrhttp({"post", closed.Url(), "--mode", "sync"})).status, 0);
    EXPECT_TRUE(Has(ReadFile(path), "curl_easy_perform is failed"));
    EXPECT_TRUE(Has(RunProgram(Nvrhttp({"doctor"})).output, "ok       log           " + path + " ("));
    EXPECT_TRUE(Has(Folded(RunProgram(Nvrhttp({"--help"})).output), "logged in " + path + ";"));
}

TEST_F(Doctor, WarnsOfProxies)
{
    Program program = Nvrhttp({"doctor"});
    program.environment = {"http_proxy=http://me:pw@127.0.0.1:9/",
                           "HTTPS_PROXY=127.0.0.2:9",
                           "HTTP_PROXY=127.0.0.3:9",
                           "all_proxy=127.0.0.4:9",
                           "ALL_PROXY=127.0.0.5:9",
                           "https_proxy=",
                           "no_proxy=localhost"};
    const Finished run = RunProgram(program);
    EXPECT_EQ(run.status, 0);
    for (const char *part : {"warning  proxy         http_proxy=http://***@127.0.0.1:9/:",
                             "warning  proxy         HTTPS_PROXY=127.0.0.2:9:",
                             "ok       proxy         HTTP_PROXY is set: libcurl ignores it in capitals",
                             "warning  proxy         all_proxy=127.0.0.4:9:", "no_proxy=localhost"}) {
        EXPECT_TRUE(Has(run.output, part)) << part << " in\n" << run.output;
    }
    EXPECT_FALSE(Has(run.output, "me:pw"));
    EXPECT_FALSE(Has(run.output, "127.0.0.5"));
}

TEST_F(Doctor, WarnsOfALowLimitOfOpenFiles)
{
    Program program = Nvrhttp({"doctor"});
    program.inChild = [] {
        const rlimit limit = {256, 256};
        return setrlimit(RLIMIT_NOFILE, &limit) == 0;
    };
    const Finished run = RunProgram(program);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(Has(run.output, "warning  open files    256, but 1024 outstanding requests take about")) << run.output;
    EXPECT_TRUE(Has(run.output, "have the hard limit raised (hard limit: 256)")) << run.output;
}

TEST_F(Doctor, MissingWakeupPortsAreAFailure)
{
    Program program = Nvrhttp({"doctor"});
    program.inChild = RefuseAllPorts;
    const Finished run = RunProgram(program);
    if (run.status == STATUS_REFUSED) {
        GTEST_SKIP() << "the system does not let a process refuse itself a call";
    }
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_TRUE(Has(run.output, "missing  wake-up ports 0 of 6991")) << run.output;
    EXPECT_TRUE(Has(run.output, "\n1 missing, ")) << run.output;
}

} // namespace
