/*
 * Clocks and the median the benchmark programs report with: on a shared
 * machine a median of many turns moves less than a mean.
 */
#pragma once

#include <time.h>

#include <algorithm>
#include <vector>

namespace bench {

inline double Micros(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

/* CPU time of the calling thread: what waiting for a core does not inflate. */
inline double ThreadCpuMicros() {
    return Micros(CLOCK_THREAD_CPUTIME_ID);
}

/* CPU time of every thread of the process. */
inline double ProcessCpuMicros() {
    return Micros(CLOCK_PROCESS_CPUTIME_ID);
}

inline double WallMicros() {
    return Micros(CLOCK_MONOTONIC);
}

inline double Median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace bench
