/*
 * Configuration queries at length: every location or lens-facing query of
 * a client reads the configuration again (GlobalCameraConfig::Creat). Each
 * case runs its queries in one benchmark iteration and reports what they
 * left behind and what a query costs early and late in the run:
 *
 *   boards          entries in the process-wide board list at the end
 *   rss_growth_kib  resident memory after the queries less before them
 *   first_us        CPU time per query over the first 1000 queries
 *   last_us         CPU time per query over the last 1000 queries
 *
 * Matched: the example configuration with the board's model, as on the
 * evaluation board. Unmatched: a model no board has, so every query walks
 * the whole list before it falls back to the first board.
 */
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>

#include "config/board_configs_access.h"
#include "config/temp_sysroot.h"
#include "marlo/config/config.h"

using tessaro::marlo::GlobalCameraConfig;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr int kWindow = 1000;

double ResidentKiB() {
    long pages = 0;
    long resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr)
        return 0;
    if (fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = 0;
    fclose(statm);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
}

double CpuSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string ReadExample() {
    std::string content;
    FILE* file = fopen(MARLO_EXAMPLE_CONFIG, "rb");
    if (file == nullptr)
        return content;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        content.append(chunk, got);
    fclose(file);
    return content;
}

void RunQueries(benchmark::State& state, const std::string& model) {
    const int queries = static_cast<int>(state.range(0));
    marlo_test::TempSysroot sysroot;
    sysroot.writeDefaultConfig(ReadExample());
    sysroot.writeModel(model + '\0');
    BoardConfigsAccess::Clear();

    /* One query first: the allocator's and the parser's own start-up is not growth. */
    benchmark::DoNotOptimize(GlobalCameraConfig::Creat());
    const double before = ResidentKiB();
    double first = 0;
    double last = 0;
    for (auto _ : state) {
        double windowStart = CpuSeconds();
        for (int q = 0; q < queries; ++q) {
            if (q == queries - kWindow)
                windowStart = CpuSeconds();
            benchmark::DoNotOptimize(GlobalCameraConfig::Creat());
            if (q == kWindow - 1)
                first = (CpuSeconds() - windowStart) / kWindow;
        }
        last = (CpuSeconds() - windowStart) / kWindow;
    }
    state.counters["boards"] = static_cast<double>(GlobalCameraConfig::boardConfigs().size());
    state.counters["rss_growth_kib"] = ResidentKiB() - before;
    state.counters["first_us"] = first * 1e6;
    state.counters["last_us"] = last * 1e6;
    BoardConfigsAccess::Clear();
}

void Matched(benchmark::State& state) {
    RunQueries(state, "Tessaro TS9100 VEHICLE EVB V22 Board");
}

void Unmatched(benchmark::State& state) {
    RunQueries(state, "Some other board");
}

}  // namespace

BENCHMARK(Matched)->Arg(kWindow)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Unmatched)->Arg(kWindow)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
