// How every benchmark is registered.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

template <typename Function, typename... Args>
benchmark::internal::Benchmark* Register(const char* name, Function function, Args... args) {
    return benchmark::RegisterBenchmark(name, function, args...)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond)
        ->Repetitions(9)
        ->MinTime(0.2)
        ->ReportAggregatesOnly();
}

/// For what takes seconds: run once for each figure.
template <typename Function, typename... Args>
benchmark::internal::Benchmark* RegisterOnce(const char* name, Function function, Args... args) {
    return benchmark::RegisterBenchmark(name, function, args...)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(1)
        ->Repetitions(3)
        ->ReportAggregatesOnly();
}

inline void Require(bool good, benchmark::State& state) {
    if (!good) state.SkipWithError("the operation failed");
}

}  // namespace bench
