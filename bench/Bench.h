// Benchmarks of the streaming data path. Every kernel benchmark "X" is
// registered together with "X/memcpy", a memcpy of the same byte count, and
// the report ends with a table of the two side by side.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

namespace mmebench {

constexpr unsigned kPeriodFrames = 256;

// Registers name/memcpy: copies bytes between two buffers of that size.
void registerMemcpyBaseline(const std::string& name, size_t bytes);

void registerConversionBenchmarks();
void registerExchangeBenchmarks();

} // namespace mmebench
