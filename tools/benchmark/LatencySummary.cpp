#include "LatencySummary.h"

#include <algorithm>
#include <cmath>

namespace {

double nearestRank(const std::vector<double>& sorted, double percent)
{
    const double rank = std::ceil(percent / 100.0 * static_cast<double>(sorted.size()));
    const size_t index = static_cast<size_t>(std::max(rank, 1.0)) - 1;
    return sorted[std::min(index, sorted.size() - 1)];
}

} // namespace

LatencySummary LatencySummary::of(std::vector<double> values)
{
    LatencySummary summary;
    if (values.empty())
        return summary;
    std::sort(values.begin(), values.end());
    summary.count = static_cast<int>(values.size());
    summary.p50 = nearestRank(values, 50);
    summary.p95 = nearestRank(values, 95);
    summary.max = values.back();
    return summary;
}
