// SPDX-License-Identifier: GPL-3.0-or-later
// The figures every benchmark prints: percentiles of a sample and this process's peak memory.
#pragma once

#include <algorithm>
#include <ctime>
#include <QtGlobal>
#include <sys/resource.h>
#include <vector>

// The value below which a fraction p of the sample lies (nearest rank); 0 for no sample.
inline double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[index];
}

// Peak resident memory of this process so far, in MiB.
inline double peakMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

// The monotonic clock in nanoseconds, the one the simulator stamps its answers with.
inline qint64 monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}
