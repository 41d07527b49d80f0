/*
 * nvrhttp itself: its help and its version.
 */
#include <string>

#include "integration_fixture.h"
#include "nvrhttp_program.h"

namespace
{

using test::Finished;
using test::Folded;
using test::Has;
using test::Nvrhttp;
using test::RunProgram;

using Help = test::IntegrationTest;

TEST_F(Help, EachCommandShowsExamples)
{
    for (const std::string command : {"post", "check", "doctor", "console", "serve"}) {
        const Finished run = RunProgram(Nvrhttp({command, "--help"}));
        EXPECT_EQ(run.status, 0) << command;
        EXPECT_TRUE(Has(Folded(run.output), "Examples: nvrhttp " + command)) << run.output;
    }
}

TEST_F(Help, VersionIsShown)
{
    const Finished run = RunProgram(Nvrhttp({"--version"}));
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(Has(run.output, NVRHTTP_VERSION)) << run.output;
}

} // namespace
