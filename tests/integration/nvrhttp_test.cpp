/*
 * nvrhttp itself: its help, its version, its commands' names, and its standard streams, which
 * the demo's are too.
 */
#include <fcntl.h>
#include <unistd.h>

#include "nvrhttp_program.h"
#include "tests/support/loopback.h"

namespace
{

using namespace test;
using Commands = IntegrationTest;
using Help = IntegrationTest;
using Streams = IntegrationTest;

/* A program whose standard output cannot be written. */
Finished RunOnFullDisk(Program program, const std::string &input = "")
{
    program.output = open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_GE(program.output, 0);
    Finished run = RunProgram(program, input);
    close(program.output);
    return run;
}

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

TEST_F(Commands, AnUnknownOneIsNamed)
{
    const Finished run = RunProgram(Nvrhttp({"sevre", "--tls"}));
    EXPECT_GT(run.status, 100);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "nvrhttp: \"sevre\" is no command; --help lists them\n");
}

TEST_F(Commands, NoneIsAnError)
{
    for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{{}, {"--unknown"}}) {
        const Finished run = RunProgram(Nvrhttp(arguments));
        EXPECT_GT(run.status, 100);
        EXPECT_TRUE(Has(run.errors, "A subcommand is required")) << run.errors;
    }
}

TEST_F(Streams, OutputThatCannotBeWrittenIsAnError)
{
    const ClosedPort closed;
    for (const Program &program : {Nvrhttp({"check", closed.Url()}), Nvrhttp({"doctor"}), Nvrhttp({"console"}),
                                   Nvrhttp({"serve"}), Nvrhttp({"--help"}), Demo({closed.Url()}), Demo({"--help"})}) {
        const Finished run = RunOnFullDisk(program, "help\n");
        EXPECT_EQ(run.status, 1) << program.command.back();
        EXPECT_TRUE(Has(run.errors, ": standard output could not be written")) << program.command.back() << run.errors;
    }
}

TEST_F(Streams, PipeThatNobodyReadsIsAnError)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    Program program = Nvrhttp({"doctor"});
    program.output = ends[1];
    const Finished run = RunProgram(program);
    close(ends[1]);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(Has(run.errors, "standard output could not be written: Broken pipe")) << run.errors;
}

/* Otherwise the answers' copy of standard output, or a socket, would get the number of standard error. */
TEST_F(Streams, ClosedOnesDoNotPassTheirNumbersOn)
{
    const ServeProcess server;
    Program program = Nvrhttp({"post", server.Url(), "--data", "[1]"});
    program.inChild = [] { return close(STDERR_FILENO) == 0; };
    EXPECT_EQ(RunProgram(program).output, "[1]");
    program.inChild = [] { return close(STDIN_FILENO) == 0 && close(STDOUT_FILENO) == 0; };
    const Finished mute = RunProgram(program);
    EXPECT_EQ(mute.status, 0) << mute.errors;
    EXPECT_TRUE(Has(mute.errors, "succeeded in ")) << mute.errors;
    Program demo = Demo({server.Url()});
    demo.inChild = [] { return close(STDOUT_FILENO) == 0 && close(STDERR_FILENO) == 0; };
    EXPECT_EQ(RunProgram(demo).status, 0);
}

} // namespace
