#include "tools/post/latency.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace
{

double NearestRank(const std::vector<double> &adSorted, size_t uPercent)
{
    const size_t uRank = (adSorted.size() * uPercent + 99) / 100;
    return adSorted[std::max<size_t>(uRank, 1) - 1];
}

} // namespace

TLatencySummary SummarizeLatency(std::vector<double> adMillis)
{
    if (adMillis.empty()) {
        return TLatencySummary{0, 0, 0, 0};
    }
    std::sort(adMillis.begin(), adMillis.end());
    return TLatencySummary{NearestRank(adMillis, 50), NearestRank(adMillis, 95), NearestRank(adMillis, 99),
                           adMillis.back()};
}

std::string MillisText(double dMillis)
{
    char achText[48];
    if (dMillis < 1.0) {
        snprintf(achText, sizeof(achText), "%.0f us", dMillis * 1000.0);
    } else if (dMillis < 1000.0) {
        snprintf(achText, sizeof(achText), "%.1f ms", dMillis);
    } else {
        snprintf(achText, sizeof(achText), "%.3f s", dMillis / 1000.0);
    }
    return achText;
}
