/*
 * Measures each work by each way of sending.
 *
 * Every run is a process of its own, this program again, and a round runs each way once, one after the other: what
 * else the machine does changes ratios within a round little.
 */
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <curl/curl.h>

#include "bench/heap.h"
#include "bench/report.h"
#include "tests/support/files.h"
#include "tests/support/process_state.h"
#include "tools/common/open_files.h"

namespace
{

struct TOptions {
    uint32_t dwRounds = 3;
    bool bAllFigures = false;
    std::string strWork;
    std::string strWay;
    uint32_t dwPosts = 0;
    std::string strUrl;
    bool bHeap = false;
};

int RunOne(const TOptions &tOptions)
{
    if (tOptions.bHeap) {
        CountHeap();
    }
    RaiseOpenFiles();
    curl_global_init(CURL_GLOBAL_ALL);
    /* The C library takes shortcuts in a process of one thread, which no recorder is. */
    std::thread(pause).detach();
    const TRun tRun = RunWork(Named(g_atWorks, tOptions.strWork), Named(g_atWays, tOptions.strWay), tOptions.dwPosts,
                              tOptions.strUrl);
    PrintRun(tRun);
    fflush(stdout);
    /* Threads of the way still run. */
    _exit(tRun.dFailed == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

void PrintMachine(const TOptions &tOptions)
{
    const std::string strMissing = BENCH_MISSING;
    printf("libcurl %s, %u processors, %u rounds", curl_version_info(CURLVERSION_NOW)->version,
           std::thread::hardware_concurrency(), tOptions.dwRounds);
    printf("%s%s.\n\n", strMissing.empty() ? "" : "; left out, since they are not installed: ", strMissing.c_str());
}

bool IsAny(const TWork &, const char *)
{
    return true;
}

int RunAll(const TOptions &tOptions)
{
    const test::TemporaryFolder tLogFolder;
    setenv("NVRHTTPCURL_LOG_DIR", tLogFolder.Path().c_str(), 1);
    test::ClearProxies();
    CResults tResults = Measure(tOptions.dwRounds, tOptions.bAllFigures ? IsAny : IsGoal);
    PrintMachine(tOptions);
    PrintGoals(tResults);
    PrintTimes(tResults);
    PrintFigures(tResults);
    return EXIT_SUCCESS;
}

int ParseAndRun(int nArgc, char **ppchArgv)
{
    TOptions tOptions;
    CLI::App tApp{"Measures the library beside libcurl alone and other libraries"};
    tApp.add_option("--rounds", tOptions.dwRounds)->check(CLI::Range(0U, 100U))->capture_default_str();
    tApp.add_flag("--all-figures", tOptions.bAllFigures, "Count instructions and calls of all ways");
    CLI::App *ptOne = tApp.add_subcommand("one", "One work by one way, in this process");
    ptOne->add_option("work", tOptions.strWork)->required();
    ptOne->add_option("way", tOptions.strWay)->required();
    ptOne->add_option("posts", tOptions.dwPosts)->required();
    ptOne->add_option("url", tOptions.strUrl)->required();
    ptOne->add_flag("--heap", tOptions.bHeap, "Count what is taken from the heap");
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return ptOne->parsed() ? RunOne(tOptions) : RunAll(tOptions);
}

} // namespace

int main(int nArgc, char **ppchArgv)
{
    try {
        return ParseAndRun(nArgc, ppchArgv);
    } catch (const std::exception &tError) {
        fprintf(stderr, "measure: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}
