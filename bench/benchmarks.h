// The benchmarks, by the names that the table uses.
#pragma once

namespace bench {

/// Registers all of them. The world must be there.
void RegisterBenchmarks();
void RegisterCrlBenchmarks();
void RegisterIkeBenchmarks();
void RegisterBridgeBenchmarks();

}  // namespace bench
