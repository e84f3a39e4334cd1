#pragma once

#include <vector>

// p50, p95 and maximum of a set of times, in milliseconds.
struct LatencySummary
{
    int count = 0;
    double p50 = 0;
    double p95 = 0;
    double max = 0;

    // Nearest-rank percentiles: each figure is one of the measured values, never an
    // interpolation between two of them.
    static LatencySummary of(std::vector<double> values);
};
