/*
 * nvrhttp console, run as a program: its lines through a pipe and through a pseudo-terminal,
 * against nvrhttp serve.
 */
#include <termios.h>

#include <algorithm>
#include <initializer_list>
#include <regex>
#include <set>

#include "nvrhttp_program.h"

namespace
{

using namespace test;

const std::string SELF_TEST_TEXT =
    R"({"TaskId":1,"CheckTemp":"11","Operator":"qq","Remarks":"qq","TemperatureScale":1,"NVR MacAddress":"00-00-00-00-00-00"})";

using Texts = std::vector<std::string>;

const Texts LEVEL_TWO = {"SendByCurlSetLogLevel[L:#] Log level 2"};
const Texts END_OF_LIST = {"SendByCurlShow[L:#] ------------------------Show End------------------------"};
const Texts VERSION = {"_NvrHttpCurlCltShowVersion[L:#][Error] compile time {#}"};
const Texts SELF_TEST_ANSWERED = {"sendbycurltest[L:#] --99--eSyncMode:0 achSendBuf[118]: " + SELF_TEST_TEXT,
                                  "sendbycurltest[L:#] Qelvo_SendStrByHttps suc",
                                  "sendbycurltest[L:#] --99--eSyncMode:0 achRecvBuf[118]: " + SELF_TEST_TEXT};
const std::string WAITING =
    "waiting for the answer of an asynchronous sendbycurltest (6 seconds from its start at most)";

/* Source lines, addresses and times differ from build to build and run to run. */
std::string Normalized(std::string line)
{
    line = std::regex_replace(line, std::regex(R"(\[L:[0-9]+\])"), "[L:#]");
    line = std::regex_replace(line, std::regex("0x[0-9a-f]+"), "0x#");
    line = std::regex_replace(line, std::regex(R"(compile time \{[A-Z][a-z]{2} [ 0-9]{2} [0-9]{4} [0-9:]{8}\})"),
                              "compile time {#}");
    return std::regex_replace(line, std::regex("sock:[0-9]+, port:4[0-9]{4}"), "sock:#, port:#");
}

Texts Lines(const std::string &text)
{
    Texts lines;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(Normalized(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    return lines;
}

/* The lines of these functions, in their order. */
Texts LinesOf(const std::set<std::string> &functions, const std::string &text)
{
    Texts found;
    for (const std::string &line : Lines(text)) {
        if (functions.count(line.substr(0, line.find('['))) != 0) {
            found.push_back(line);
        }
    }
    return found;
}

/*
 * What the console itself says. To see what is outstanding it turns the log to itself for
 * a moment, and a worker's line may slip through.
 */
std::string WithoutLogLines(const std::string &text)
{
    return std::regex_replace(text, std::regex(R"([^\n]*\[L:[0-9]+\][^\n]*\n)"), "");
}

/* What NvrHttpCurlCltshow prints while nothing is under way. */
Texts IdleEngineListing()
{
    Texts lines{"NvrHttpCurlCltshow[L:#] inst[0] 0x#, dwAsyncReqNum 0, dwAsyncReqMaxNum 1024, dwTaskNum 8"};
    for (int task = 0; task < 8; task++) {
        const std::string number = std::to_string(task);
        lines.push_back("NvrHttpCurlCltshow[L:#] >Task[" + number + "]{NvrHttpCurlClt000" + number +
                        "}, UdpMonitorSock{bInit:1, sock:#, port:#}, ptCurlMultiHandle{0x#}");
        lines.push_back("NvrHttpCurlCltshow[L:#] >RunList{0}, FinList{0}");
    }
    return lines;
}

const Texts HELP_LINES{
    "  NvrHttpCurlCltshow           list the engine's instances and workers",
    "  NvrHttpCurlCltver            show the engine's version",
    "  help                         list the commands",
    "  quit                         leave; the end of the input does the same",
    "  sendbycurlsetlog LEVEL       where the library's lines go: 1 debug log, 2 console, 3 both",
    "  sendbycurlshow               list the asynchronous posts that are not notified yet",
    "  sendbycurltest [MODE [URL]]  post a test text to URL (63 characters at most): MODE 1 asynchronously, else and "
    "wait"};

Program ConsoleProgram(const Texts &options = {})
{
    Program program = Nvrhttp({"console"}, options);
    program.environment = {"TERM=xterm", "ASAN_OPTIONS=detect_leaks=0"}; /* each self-test keeps its text */
    return program;
}

class Console : public IntegrationTest
{
  protected:
    /* All that the console prints for these lines, which need not end with "quit". */
    std::string Run(const std::string &input, const Texts &options = {})
    {
        ChildProcess console(ConsoleProgram(options));
        console.Write(input);
        console.CloseInput();
        std::string output = console.ReadToEnd();
        exitStatus = console.Wait();
        return output;
    }

    int exitStatus = -1;
};

/* With nvrhttp serve beside it. */
class ConsoleWithServer : public Console
{
  protected:
    const ServeProcess server;
    const std::string url = server.Url();
};

/* The console on a pseudo-terminal. */
class ConsoleOnTerminal : public ConsoleWithServer
{
  protected:
    ConsoleOnTerminal() : console(TerminalProgram())
    {
        console.ReadUntil("nvrhttp> ");
    }

    static Program TerminalProgram()
    {
        Program program = ConsoleProgram();
        program.onTerminal = true;
        return program;
    }

    /*
     * The prompt may be there before the editor has taken over the terminal, which would still
     * interpret editing keys itself.
     */
    void Type(const std::string &keys)
    {
        ASSERT_TRUE(WaitUntil([this] {
            termios mode{};
            return tcgetattr(console.Terminal(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
        }));
        console.Write(keys);
    }

    /* Types a line and returns what the console prints until it prompts again. */
    std::string RunOnTerminal(const std::string &line)
    {
        Type(line + "\r");
        console.ReadUntil("\r\n");
        return std::regex_replace(console.ReadUntil("nvrhttp> "), std::regex("\r"), "");
    }

    int EndStatus()
    {
        console.ReadToEnd();
        return console.Wait();
    }

    ChildProcess console;
};

TEST_F(ConsoleWithServer, AllFiveCommandsThroughAPipe)
{
    const std::string output = Run("sendbycurlsetlog 2\nsendbycurltest 0 " + url +
                                   "\nsendbycurlshow\nNvrHttpCurlCltshow\nNvrHttpCurlCltver\nquit\n");
    Texts expected{"SendByCurlSetLogLevel[L:#] Log level 2",
                   "sendbycurltest[L:#] --99--eSyncMode:0 achSendBuf[118]: " + SELF_TEST_TEXT,
                   "Qelvo_SendStrByHttp[L:#] eSyncMode:0 [0:Sync 1:ASync]",
                   "Qelvo_SyncSendStrByHttpCurl[L:#] In Qelvo_SyncSendStr ByHttpCurl",
                   "Qelvo_SendStrByHttp[L:#] Qelvo_SyncSendStrByHttpCurl Success!",
                   "sendbycurltest[L:#] Qelvo_SendStrByHttps suc",
                   "sendbycurltest[L:#] --99--eSyncMode:0 achRecvBuf[118]: " + SELF_TEST_TEXT,
                   "SendByCurlShow[L:#] ------------------------Show End------------------------"};
    for (const std::string &line : IdleEngineListing()) {
        expected.push_back(line);
    }
    expected.push_back("_NvrHttpCurlCltShowVersion[L:#][Error] compile time {#}");
    EXPECT_EQ(LinesOf({"SendByCurlSetLogLevel", "sendbycurltest", "Qelvo_SendStrByHttp", "Qelvo_SyncSendStrByHttpCurl",
                       "SendByCurlShow", "NvrHttpCurlCltshow", "_NvrHttpCurlCltShowVersion"},
                      output),
              expected);
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(Console, HelpListsEveryCommand)
{
    EXPECT_EQ(Lines(Run("help\n")), HELP_LINES);
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(Console, AnUnknownCommandGetsOneLineAndTheLoopGoesOn)
{
    EXPECT_EQ(
        Lines(Run("nonsense 1 2\nSENDBYCURLSHOW\nsendbycurlsetlog 2\n")),
        (Texts{"nonsense: no such command; \"help\" lists them", "SENDBYCURLSHOW: no such command; \"help\" lists them",
               "SendByCurlSetLogLevel[L:#] Log level 2"}));
    EXPECT_EQ(exitStatus, 0);
}

struct BadLine {
    std::string line;
    std::string answer;
};

const std::string LEVEL_USAGE = "; usage: sendbycurlsetlog LEVEL";
const std::string TEST_USAGE = "; usage: sendbycurltest [MODE [URL]]";
const std::string NO_LEVEL = "sendbycurlsetlog: LEVEL must be a number from 0 to 255, not ";
const std::string NO_MODE = "sendbycurltest: MODE must be a number from -2147483648 to 2147483647, not ";
const std::string NO_URL = "sendbycurltest: URL must be a text, not a number" + TEST_USAGE;

const std::vector<BadLine> BAD_LINES{
    {"sendbycurlsetlog", "sendbycurlsetlog: LEVEL is missing" + LEVEL_USAGE},
    {"sendbycurlsetlog two", NO_LEVEL + "\"two\"" + LEVEL_USAGE},
    {"sendbycurlsetlog \"2\"", NO_LEVEL + "\"2\"" + LEVEL_USAGE},
    {"sendbycurlsetlog 256", NO_LEVEL + "\"256\"" + LEVEL_USAGE},
    {"sendbycurlsetlog -1", NO_LEVEL + "\"-1\"" + LEVEL_USAGE},
    {"sendbycurlsetlog 1 2", "sendbycurlsetlog: too many arguments" + LEVEL_USAGE},
    {"sendbycurltest http://127.0.0.1/", NO_MODE + "\"http://127.0.0.1/\"" + TEST_USAGE},
    {"sendbycurltest 99999999999999999999 http://127.0.0.1/", NO_MODE + "\"99999999999999999999\"" + TEST_USAGE},
    {"sendbycurltest 0 0x7f000001", NO_URL},
    {"sendbycurltest 0 9223372036854775808", NO_URL},
    {"sendbycurltest 0 0xffffffffffffffff", NO_URL},
    {"sendbycurltest 0 -5", NO_URL},
    {"sendbycurltest 0 99999999999999999999", NO_URL},
    {"sendbycurltest 0 http://127.0.0.1/" + std::string(47, 'x'),
     "sendbycurltest: URL has 64 characters, and the library would cut it at 63" + TEST_USAGE},
    {"sendbycurltest 0 \"http://127.0.0.1/", "a quote is not closed: sendbycurltest 0 \"http://127.0.0.1/"},
    {"sendbycurlshow 1", "sendbycurlshow: too many arguments; usage: sendbycurlshow"},
    {"NvrHttpCurlCltshow all", "NvrHttpCurlCltshow: too many arguments; usage: NvrHttpCurlCltshow"},
    {"NvrHttpCurlCltver 1 2 3 4 5 6 7", "NvrHttpCurlCltver: too many arguments; usage: NvrHttpCurlCltver"},
    {"help me", "help: too many arguments; usage: help"},
    {"quit now", "quit: too many arguments; usage: quit"},
    {"nonsense 1 2 3 4 5 6 7", "nonsense: more than six arguments"}};

/* With the log on the console a command that ran would be seen. */
TEST_F(Console, ABadArgumentGetsOneLineAndNothingIsCalled)
{
    std::string input = "sendbycurlsetlog 2\n";
    Texts expected = LEVEL_TWO;
    for (const BadLine &bad : BAD_LINES) {
        input += bad.line + "\n";
        expected.push_back(bad.answer);
    }
    expected.push_back(expected.front());
    EXPECT_EQ(Lines(Run(input + "sendbycurlsetlog 0x2\n")), expected);
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(Console, ALevelThatTheModuleRefusesIsReported)
{
    EXPECT_EQ(
        Lines(Run("sendbycurlsetlog 0\nsendbycurlsetlog 4\nsendbycurlsetlog 2\nsendbycurlsetlog 255\n")),
        (Texts{"SendByCurlSetLogLevel[L:#][Error] invalid level 0", "SendByCurlSetLogLevel[L:#][Error] invalid level 4",
               "SendByCurlSetLogLevel[L:#] Log level 2", "SendByCurlSetLogLevel[L:#][Error] invalid level 255"}));
}

TEST_F(Console, TheLogIsWhereTheOptionSays)
{
    const std::string line = "sendbycurlshow\n";
    EXPECT_EQ(Lines(Run(line)), END_OF_LIST);
    EXPECT_EQ(Lines(Run(line, {"--log", "console"})), END_OF_LIST);
    EXPECT_EQ(Lines(Run(line, {"--log", "both"})), END_OF_LIST);
    EXPECT_EQ(Run(line, {"--log", "debuglog"}), "");
    EXPECT_EQ(exitStatus, 0);
}

/* An error is in the debug log's file unless the lines go to the console alone. */
TEST_F(Console, TheDebugLogGetsTheLinesWhereTheOptionSays)
{
    for (const std::string option : {"debuglog", "console", "both"}) {
        const TemporaryFolder folder;
        Program program = ConsoleProgram({"--log", option});
        program.environment.push_back("NVRHTTPCURL_LOG_DIR=" + folder.Path());
        EXPECT_EQ(RunProgram(program, "sendbycurlsetlog 0\n").status, 0);
        const std::string log = ReadFile(folder.Path() + "/SendCurl.log");
        EXPECT_EQ(log.find("invalid level 0") != std::string::npos, option != "console") << option;
    }
}

TEST_F(Console, AnUnknownPlaceForTheLogIsRefused)
{
    EXPECT_GT(RunProgram(ConsoleProgram({"--log", "file"})).status, 100);
}

TEST_F(Console, QuitLeavesTheRestUnread)
{
    EXPECT_EQ(Lines(Run("sendbycurlsetlog 2\nquit\nsendbycurlsetlog 3\n")), LEVEL_TWO);
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(Console, BlankLinesSayNothingAndTheLastLineNeedsNoNewline)
{
    EXPECT_EQ(Lines(Run("\n  \t \n\r\nsendbycurlsetlog 2\r\n  sendbycurlsetlog 3")),
              (Texts{"SendByCurlSetLogLevel[L:#] Log level 2", "SendByCurlSetLogLevel[L:#] Log level 3"}));
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(Console, EachAnswerIsThereBeforeTheNextCommand)
{
    ChildProcess console(ConsoleProgram());
    for (int round = 0; round < 3; round++) {
        console.Write("nonsense\n");
        EXPECT_EQ(console.ReadUntil("\n"), "nonsense: no such command; \"help\" lists them");
    }
    console.CloseInput();
    EXPECT_EQ(console.Wait(), 0);
}

TEST_F(ConsoleWithServer, LeavingWaitsForAnAsynchronousAnswer)
{
    const std::string output = Run("sendbycurlsetlog 2\nsendbycurltest 1 " + server.Url("/delay/1000") + "\nquit\n");
    EXPECT_EQ(
        LinesOf({"sendbycurltest", "SendByCurlReqProgressNtf", WAITING}, output),
        (Texts{"sendbycurltest[L:#] --99--eSyncMode:1 achSendBuf[118]: " + SELF_TEST_TEXT,
               "sendbycurltest[L:#] Qelvo_SendStrByHttps suc", WAITING, "SendByCurlReqProgressNtf[L:#] eErrCode:0",
               "SendByCurlReqProgressNtf[L:#] pvContext:" + SELF_TEST_TEXT,
               "SendByCurlReqProgressNtf[L:#] End-------------------------------"}));
    EXPECT_EQ(output.find("SendByCurlShow"), std::string::npos) << output;
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(ConsoleWithServer, LeavingWaitsAlsoWhereTheLogIsNotOnTheConsole)
{
    EXPECT_EQ(WithoutLogLines(Run("sendbycurltest 1 " + server.Url("/delay/1000") + "\n", {"--log", "debuglog"})),
              WAITING + "\n");
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(ConsoleWithServer, LeavingWaitsNoLongerThanAnnounced)
{
    EXPECT_EQ(WithoutLogLines(Run("sendbycurltest 1 " + server.Url("/delay/60000") + "\nquit\n")),
              WAITING + "\nno answer came\n");
    EXPECT_EQ(exitStatus, 0);
}

TEST_F(ConsoleWithServer, ShowListsAPostUntilItIsNotified)
{
    const std::string output =
        Run("sendbycurltest 1 " + server.Url("/delay/3000") + "\nsendbycurlsetlog 2\nsendbycurlshow\n");
    EXPECT_EQ(LinesOf({"SendByCurlShow"}, output),
              (Texts{"SendByCurlShow[L:#] --------------------------[0]--------------------------",
                     "SendByCurlShow[L:#] [0] bUseFlag:1, g_pfNtf:0x#, ptReq:0x#",
                     "SendByCurlShow[L:#] ------------------------Show End------------------------"}));
    EXPECT_EQ(LinesOf({"SendByCurlReqProgressNtf"}, output).size(), 3U) << output;
}

TEST_F(ConsoleWithServer, AUrlOfSixtyThreeCharactersIsUsedWhole)
{
    const std::string longest = url + std::string(63 - url.size(), 'x');
    const std::string output = Run("sendbycurltest 0 " + longest + "\n");
    EXPECT_NE(output.find("szUri:{" + longest + "}"), std::string::npos) << output;
}

TEST_F(ConsoleOnTerminal, AllFiveCommandsHelpAndQuit)
{
    EXPECT_EQ(Lines(RunOnTerminal("sendbycurlsetlog 2")), LEVEL_TWO);
    EXPECT_EQ(LinesOf({"sendbycurltest"}, RunOnTerminal("sendbycurltest 0 " + url)), SELF_TEST_ANSWERED);
    EXPECT_EQ(Lines(RunOnTerminal("sendbycurlshow")), END_OF_LIST);
    EXPECT_EQ(Lines(RunOnTerminal("NvrHttpCurlCltshow")), IdleEngineListing());
    EXPECT_EQ(Lines(RunOnTerminal("NvrHttpCurlCltver")), VERSION);
    EXPECT_EQ(Lines(RunOnTerminal("help")), HELP_LINES);
    EXPECT_EQ(RunOnTerminal("nonsense"), "nonsense: no such command; \"help\" lists them\n");
    EXPECT_EQ(RunOnTerminal("sendbycurlsetlog"), "sendbycurlsetlog: LEVEL is missing; usage: sendbycurlsetlog LEVEL\n");
    Type("quit\r");
    EXPECT_EQ(EndStatus(), 0);
}

TEST_F(ConsoleOnTerminal, TabCompletesACommandInAnyCase)
{
    EXPECT_EQ(Lines(RunOnTerminal("nVrHttpCurlCltv\t")), VERSION);
    EXPECT_EQ(RunOnTerminal("q\tnow"), "quit: too many arguments; usage: quit\n");
}

TEST_F(ConsoleOnTerminal, TabListsWhatTheWordMayBecome)
{
    Type("sen\t\t");
    console.ReadUntil("sendbycurlsetlog\r\nsendbycurlshow\r\nsendbycurltest\r\n");
    console.ReadUntil("nvrhttp> ");
    EXPECT_EQ(Lines(RunOnTerminal("setl\t2")), LEVEL_TWO);
}

TEST_F(ConsoleOnTerminal, ALineCanBeEditedAndCalledBack)
{
    const std::string left = "\033[D";
    const std::string up = "\033[A";
    EXPECT_EQ(RunOnTerminal("nonXsense" + left + left + left + left + left + "\177"),
              "nonsense: no such command; \"help\" lists them\n");
    EXPECT_EQ(RunOnTerminal("other"), "other: no such command; \"help\" lists them\n");
    EXPECT_EQ(RunOnTerminal(up + up), "nonsense: no such command; \"help\" lists them\n");
}

TEST_F(ConsoleOnTerminal, CtrlCClearsTheLine)
{
    for (int round = 0; round < 2; round++) {
        Type("sendbycurlsetlog 3\003");
        console.ReadUntil("^C\r\n");
        console.ReadUntil("nvrhttp> ");
        EXPECT_EQ(RunOnTerminal("other"), "other: no such command; \"help\" lists them\n");
    }
    Type("quit\r");
    EXPECT_EQ(EndStatus(), 0);
}

TEST_F(ConsoleOnTerminal, EndOfInputLeaves)
{
    Type("\004");
    EXPECT_EQ(EndStatus(), 0);
}

} // namespace
