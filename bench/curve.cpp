#include "bench/curve.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

enum { MOST_COLUMNS = 16 };

/* The medians of all columns, then their least and then their greatest values. */
CRow Summary(const std::vector<CRow> &aadRounds)
{
    const size_t uColumns = aadRounds.front().size();
    CRow adSummary(3 * uColumns);
    for (size_t uColumn = 0; uColumn < uColumns; uColumn++) {
        std::vector<double> adValues(aadRounds.size());
        std::transform(aadRounds.begin(), aadRounds.end(), adValues.begin(),
                       [uColumn](const CRow &adRow) { return adRow[uColumn]; });
        std::sort(adValues.begin(), adValues.end());
        adSummary[uColumn] = (adValues[(adValues.size() - 1) / 2] + adValues[adValues.size() / 2]) / 2;
        adSummary[uColumns + uColumn] = adValues.front();
        adSummary[2 * uColumns + uColumn] = adValues.back();
    }
    return adSummary;
}

std::string Line(uint32_t dwX, const CRow &adRow)
{
    std::string strLine = std::to_string(dwX);
    for (const double dValue : adRow) {
        char achValue[32] = "";
        snprintf(achValue, sizeof(achValue), " %.5g", dValue);
        strLine += achValue;
    }
    return strLine + "\n";
}

[[noreturn]] void MeasureAndExit(const std::function<CRow()> &pfMeasure, int nPipe)
{
    try {
        const CRow adRow = pfMeasure();
        const size_t uBytes = adRow.size() * sizeof(double);
        _exit(write(nPipe, adRow.data(), uBytes) == static_cast<ssize_t>(uBytes) ? EXIT_SUCCESS : EXIT_FAILURE);
    } catch (const std::exception &tError) {
        fprintf(stderr, "%s\n", tError.what());
        _exit(EXIT_FAILURE);
    }
}

} // namespace

CRow InChild(const std::function<CRow()> &pfMeasure)
{
    int anPipe[2] = {};
    fflush(stdout);
    const pid_t nChild = pipe(anPipe) == 0 ? fork() : -1;
    if (nChild < 0) {
        throw std::runtime_error("no process for a measurement");
    }
    if (nChild == 0) {
        MeasureAndExit(pfMeasure, anPipe[1]);
    }
    close(anPipe[1]);
    CRow adRow(MOST_COLUMNS);
    const ssize_t nRead = read(anPipe[0], adRow.data(), MOST_COLUMNS * sizeof(double));
    close(anPipe[0]);
    int nStatus = 0;
    waitpid(nChild, &nStatus, 0);
    if (nRead <= 0 || nStatus != 0) {
        throw std::runtime_error("a measurement failed");
    }
    adRow.resize(static_cast<size_t>(nRead) / sizeof(double));
    return adRow;
}

std::vector<uint32_t> Doubled(uint32_t dwMost, uint32_t dwFirst)
{
    std::vector<uint32_t> adwNumbers;
    for (uint32_t dwX = dwFirst; dwX <= dwMost; dwX *= 2) {
        adwNumbers.push_back(dwX);
    }
    return adwNumbers;
}

void WriteCurves(const std::vector<TCurve> &atCurves, const std::vector<uint32_t> &adwNumbers, uint32_t dwRounds)
{
    std::vector<std::string> astrBlocks(atCurves.size());
    std::transform(atCurves.begin(), atCurves.end(), astrBlocks.begin(),
                   [](const TCurve &tCurve) { return "\"" + tCurve.strName + "\"\n"; });
    for (const uint32_t dwX : adwNumbers) {
        std::vector<std::vector<CRow>> aadRounds(atCurves.size());
        for (uint32_t dwRound = 0; dwRound < dwRounds; dwRound++) {
            for (size_t uCurve = 0; uCurve < atCurves.size(); uCurve++) {
                aadRounds[uCurve].push_back(atCurves[uCurve].pfMeasure(dwX));
            }
        }
        for (size_t uCurve = 0; uCurve < atCurves.size(); uCurve++) {
            astrBlocks[uCurve] += Line(dwX, Summary(aadRounds[uCurve]));
        }
    }
    for (const std::string &strBlock : astrBlocks) {
        printf("%s\n\n", strBlock.c_str());
    }
}
