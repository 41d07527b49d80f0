/*
 * Measures each work by each way of sending.
 *
 * Every run is a process of its own, this program again, and a round runs each way once, one after the other: what
 * else the machine does changes ratios within a round little.
 */
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <curl/curl.h>

#include "bench/heap.h"
#include "bench/works.h"
#include "tools/common/open_files.h"

namespace
{

struct TOptions {
    std::string strWork;
    std::string strWay;
    std::string strUrl;
    uint32_t dwPosts = 0;
    bool bHeap = false;
};

int RunOne(const TOptions &tOptions)
{
    if (tOptions.bHeap) {
        CountHeap();
    }
    RaiseOpenFiles();
    curl_global_init(CURL_GLOBAL_ALL);
    const TRun tRun = RunWork(WorkOf(tOptions.strWork), NamedWay(tOptions.strWay), tOptions.dwPosts, tOptions.strUrl);
    printf("%.0f posts, %f s, %f s of processor, %.0f switches, %.0f allocations, %.0f bytes, %.0f failed\n",
           tRun.dPosts, tRun.dSeconds, tRun.dCpuSeconds, tRun.dSwitches, tRun.dAllocations, tRun.dHeapBytes,
           tRun.dFailed);
    fflush(stdout);
    /* Threads of the way still run. */
    _exit(tRun.dFailed == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

int ParseAndRun(int nArgc, char **ppchArgv)
{
    TOptions tOptions;
    CLI::App tApp{"Measures the library beside libcurl alone and other libraries"};
    CLI::App *ptOne = tApp.add_subcommand("one", "One work by one way, in this process");
    ptOne->add_option("work", tOptions.strWork)->required();
    ptOne->add_option("way", tOptions.strWay)->required();
    ptOne->add_option("posts", tOptions.dwPosts)->required();
    ptOne->add_option("url", tOptions.strUrl)->required();
    ptOne->add_flag("--heap", tOptions.bHeap, "Count what is taken from the heap");
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return RunOne(tOptions);
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
