// Benchmarks of the streaming data path. Every benchmark "X" is registered
// together with "X/memcpy": a memcpy of exactly the bytes X reads or writes
// on one side (named by `side`, "ring" or "PCM"), between two 64-byte-aligned
// buffers. mme-bench runs them interleaved and repeated and ends with a
// table of their medians side by side, with the target each ratio must meet.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

namespace mmebench {

constexpr unsigned kPeriodFrames = 256;

// size bytes, 64-byte aligned, filled with `fill`.
class AlignedBytes {
public:
    explicit AlignedBytes(size_t size, unsigned char fill = 0)
        : mData(static_cast<unsigned char*>(std::aligned_alloc(64, (size + 63) / 64 * 64))) {
        std::memset(mData, fill, (size + 63) / 64 * 64);
    }
    ~AlignedBytes() { std::free(mData); }
    AlignedBytes(const AlignedBytes&) = delete;
    AlignedBytes& operator=(const AlignedBytes&) = delete;
    unsigned char* data() const { return mData; }

private:
    unsigned char* mData;
};

// Registers name/memcpy for a benchmark whose ratio is taken against `bytes`
// of its `side`; target is the largest ratio it may have, or 0 for a floor
// that other benchmarks are read against.
void registerBaseline(const std::string& name, size_t bytes, const char* side, double target);

void registerConversionBenchmarks();
void registerExchangeBenchmarks();

} // namespace mmebench
