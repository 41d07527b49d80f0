/*
 * What the C++ client costs beside the other ways of sending, over one nginx on loopback.
 *
 * Each round measures all ways once, one after the other; the table has the medians of the rounds, and medians of the
 * ratios within a round: what else the machine does changes them little.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <curl/curl.h>

#include "bench/load.h"
#include "bench/ways.h"
#include "tests/integration/nginx_server.h"
#include "tests/support/loopback.h"
#include "tests/support/process_state.h"
#include "tools/common/open_files.h"

namespace
{

using std::chrono::milliseconds;

enum { SETTLE_MS = 200, STATE_MS = 1000 };
const uint32_t s_adwOutstanding[] = {1, 16, BENCH_MOST_OUTSTANDING};

struct TBench {
    uint32_t dwRounds = 5;
    uint32_t dwLoadMS = 500; /* for each way and round */
};

/* What a process may be in: the cost is the processor time that it takes, as a share of one core. */
struct TState {
    const char *szName;
    std::function<std::shared_ptr<void>()> pfEnter; /* it lasts as long as what is returned */
    std::vector<double> adShares;
};

/* The results of one way at one number of outstanding posts, by round. */
struct TRow {
    std::vector<double> adPerSecond;
    std::vector<double> adOfEngine; /* ratio to the bare engine in the same round */
    std::vector<double> adP50;
    std::vector<double> adP99;
    std::vector<double> adCpu;
    uint32_t dwFailed = 0;
};

double Median(std::vector<double> adValues)
{
    std::sort(adValues.begin(), adValues.end());
    return (adValues[(adValues.size() - 1) / 2] + adValues[adValues.size() / 2]) / 2;
}

/* The kernel takes connections and requests, and nobody answers. */
class CSilentServer
{
  public:
    CSilentServer() : m_nSocket(test::BindLoopback(&m_wPort))
    {
        if (m_nSocket < 0 || listen(m_nSocket, 16) != 0) {
            throw std::runtime_error("no free loopback port");
        }
    }

    ~CSilentServer()
    {
        close(m_nSocket);
    }

    CSilentServer(const CSilentServer &) = delete;
    CSilentServer &operator=(const CSilentServer &) = delete;

    std::string Url() const
    {
        return test::LoopbackUrl(m_wPort);
    }

  private:
    uint16_t m_wPort = 0; /* before the socket, whose making sets it */
    int m_nSocket;
};

double ShareOfACore()
{
    std::this_thread::sleep_for(milliseconds(SETTLE_MS));
    const CBenchClock::time_point tBegin = CBenchClock::now();
    const std::chrono::nanoseconds tBefore = CpuTime();
    std::this_thread::sleep_for(milliseconds(STATE_MS));
    const std::chrono::duration<double> tCpu = CpuTime() - tBefore;
    return tCpu / std::chrono::duration<double>(CBenchClock::now() - tBegin);
}

/* Instances with one request that nobody answers, and nobody waits for. */
std::shared_ptr<void> EnginesInSilence(const std::string &strUrl)
{
    static TChain s_tChain;
    auto ptWay = std::make_shared<TWay>(EngineWay(strUrl, StartEngines()));
    if (!ptWay->pfSend(s_tChain)) {
        throw std::runtime_error("the silent request could not be sent");
    }
    return ptWay;
}

std::shared_ptr<void> ClientInSilence(const std::string &strUrl)
{
    auto ptClient = StartClient();
    static_cast<void>(ptClient->post_async(strUrl, "{}"));
    return ptClient;
}

std::vector<TState> MeasureStates(uint32_t dwRounds, const std::string &strSilentUrl)
{
    std::vector<TState> atStates = {
        {"bare engine, idle", StartEngines, {}},
        {"C++ client, idle", StartClient, {}},
        {"bare engine, one silent request", [&] { return EnginesInSilence(strSilentUrl); }, {}},
        {"C++ client, one silent request", [&] { return ClientInSilence(strSilentUrl); }, {}}};
    for (uint32_t dwRound = 0; dwRound < dwRounds; dwRound++) {
        for (TState &tState : atStates) {
            const std::shared_ptr<void> ptState = tState.pfEnter();
            tState.adShares.push_back(ShareOfACore());
        }
    }
    return atStates;
}

void PrintStates(const std::vector<TState> &atStates)
{
    printf("\n%-32s %18s\n", "state", "processor time");
    for (const TState &tState : atStates) {
        printf("%-32s %13.3f %% of a core\n", tState.szName, 100 * Median(tState.adShares));
    }
}

std::vector<TWay> Ways(const std::string &strUrl)
{
    return {EngineWay(strUrl, StartEngines()), ClientWay(strUrl, StartClient()), ModuleWay(strUrl), ThreadsWay(strUrl)};
}

void AddResult(TRow &tRow, const TLoadResult &tResult, double dOfEngine)
{
    tRow.adPerSecond.push_back(tResult.dPerSecond);
    tRow.adOfEngine.push_back(dOfEngine);
    tRow.adP50.push_back(tResult.dP50Millis);
    tRow.adP99.push_back(tResult.dP99Millis);
    tRow.adCpu.push_back(tResult.dCpuMicros);
    tRow.dwFailed += tResult.dwFailed;
}

/* A row for each way; the bare engine, the first one, is the measure. The first round only opens connections. */
std::vector<TRow> MeasureLoad(const TBench &tBench, const std::vector<TWay> &atWays, uint32_t dwOutstanding)
{
    std::vector<TRow> atRows(atWays.size());
    for (uint32_t dwRound = 0; dwRound <= tBench.dwRounds; dwRound++) {
        double dEngine = 0;
        for (size_t uWay = 0; uWay < atWays.size(); uWay++) {
            const TLoadResult tResult = RunLoad(atWays[uWay], dwOutstanding, milliseconds(tBench.dwLoadMS));
            dEngine = uWay == 0 ? tResult.dPerSecond : dEngine;
            if (dwRound > 0) {
                AddResult(atRows[uWay], tResult, tResult.dPerSecond / dEngine);
            }
        }
    }
    return atRows;
}

/* Returns how many posts failed. */
uint32_t PrintLoad(const std::vector<TWay> &atWays, uint32_t dwOutstanding, const std::vector<TRow> &atRows)
{
    uint32_t dwFailed = 0;
    for (size_t uWay = 0; uWay < atWays.size(); uWay++) {
        const TRow &tRow = atRows[uWay];
        printf("%11u  %-26s %8.0f %9.2f %8.2f ms %8.2f ms %8.0f us\n", dwOutstanding, atWays[uWay].szName,
               Median(tRow.adPerSecond), Median(tRow.adOfEngine), Median(tRow.adP50), Median(tRow.adP99),
               Median(tRow.adCpu));
        dwFailed += tRow.dwFailed;
    }
    fflush(stdout);
    return dwFailed;
}

int Run(const TBench &tBench)
{
    const test::TemporaryFolder tLogFolder;
    setenv("NVRHTTPCURL_LOG_DIR", tLogFolder.Path().c_str(), 1);
    test::ClearProxies();
    RaiseOpenFiles();
    curl_global_init(CURL_GLOBAL_ALL);
    const test::NginxServer tServer;
    if (!tServer.Problem().empty()) {
        throw std::runtime_error(tServer.Problem());
    }
    printf("libcurl %s, %u rounds of %u ms, %d workers, %u processors\n", curl_version_info(CURLVERSION_NOW)->version,
           tBench.dwRounds, tBench.dwLoadMS, BENCH_WORKERS, std::thread::hardware_concurrency());

    /* Before the send module starts, whose workers never end. */
    const CSilentServer tSilent;
    PrintStates(MeasureStates(tBench.dwRounds, tSilent.Url()));

    const std::vector<TWay> atWays = Ways(tServer.Http("/ready"));
    printf("\n%11s  %-26s %8s %9s %11s %11s %11s\n", "outstanding", "way", "posts/s", "of engine", "p50", "p99",
           "cpu a post");
    uint32_t dwFailed = 0;
    for (const uint32_t dwOutstanding : s_adwOutstanding) {
        dwFailed += PrintLoad(atWays, dwOutstanding, MeasureLoad(tBench, atWays, dwOutstanding));
    }
    if (dwFailed != 0) {
        fprintf(stderr, "%u posts failed\n", dwFailed);
    }
    return dwFailed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int ParseAndRun(int nArgc, char **ppchArgv)
{
    CLI::App tApp{"Measures the C++ client beside the bare engine, the send module and threads over libcurl"};
    TBench tBench;
    tApp.add_option("--rounds", tBench.dwRounds)->check(CLI::Range(1U, 100U))->capture_default_str();
    tApp.add_option("--millis", tBench.dwLoadMS, "For each way, number of outstanding posts and round")
        ->check(CLI::Range(10U, 10000U))
        ->capture_default_str();
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return Run(tBench);
}

} // namespace

int main(int nArgc, char **ppchArgv)
{
    try {
        return ParseAndRun(nArgc, ppchArgv);
    } catch (const std::exception &tError) {
        fprintf(stderr, "client_cost: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}
