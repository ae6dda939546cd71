// The period path's kernels over one 256-frame period: capture (ring frames
// to stream PCM, ringToPcm) and render (stream PCM to ring frames in the
// render ring's format, pcmToRing) for each width and the common channel
// shapes, and the 24-bit kernels again on the x64 baseline (no SSSE3).
// Each is measured against a memcpy of its ring-side bytes.
#include "Bench.h"

#include "driver/streaming/SampleConversion.h"

#include <emmintrin.h>

#include <cstdint>
#include <memory>
#include <random>

namespace mmebench {
namespace {

struct ChannelPair {
    ULONG ring;
    ULONG stream;
};
constexpr ChannelPair kPairs[] = {{2, 2}, {8, 2}, {8, 8}, {32, 2}};
constexpr ULONG kBits[] = {16, 24, 32};

constexpr double kCaptureTarget = 1.5;
constexpr double kRenderTarget = 2.0;
constexpr double kBaselineTarget = 3.0;

std::shared_ptr<AlignedBytes> noise(size_t bytes) {
    auto buffer = std::make_shared<AlignedBytes>(bytes);
    std::mt19937 rng(1);
    for (size_t i = 0; i < bytes; ++i)
        buffer->data()[i] = static_cast<unsigned char>(rng());
    return buffer;
}

// Registers name (running run() once per iteration) with its baseline.
template <typename Run>
void registerKernel(const std::string& name, size_t ringBytes, double target, bool baselineOnly,
                    Run run) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        setConversionBaselineOnly(baselineOnly);
        for (auto _ : state) {
            run();
            benchmark::ClobberMemory();
        }
        setConversionBaselineOnly(false);
        state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(ringBytes));
    });
    registerBaseline(name, ringBytes, "ring", target);
}

// The least a kernel on 16-byte registers can do for a period: one aligned
// store per 16 bytes it writes (a multiple of 64), nothing loaded or
// computed. Its ratio is the floor under that kernel's on the machine that
// runs it.
void registerStoreFloor(const std::string& name, size_t ringBytes, size_t writtenBytes) {
    auto out = std::make_shared<AlignedBytes>(writtenBytes);
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        __m128i value = _mm_set1_epi32(int(state.max_iterations));
        for (auto _ : state) {
            unsigned char* to = out->data();
            // Four to a loop, as the kernels unroll theirs.
            for (size_t at = 0; at + 64 <= writtenBytes; at += 64) {
                _mm_store_si128(reinterpret_cast<__m128i*>(to + at), value);
                _mm_store_si128(reinterpret_cast<__m128i*>(to + at + 16), value);
                _mm_store_si128(reinterpret_cast<__m128i*>(to + at + 32), value);
                _mm_store_si128(reinterpret_cast<__m128i*>(to + at + 48), value);
            }
            benchmark::DoNotOptimize(to);
            benchmark::ClobberMemory();
            value = _mm_add_epi32(value, value);
        }
        state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(ringBytes));
    });
    registerBaseline(name, ringBytes, "ring", 0);
}

void registerPair(ULONG bits, ChannelPair p, bool baselineOnly) {
    const std::string suffix = "/" + std::to_string(bits) + "bit" + (baselineOnly ? "-sse2" : "");
    const size_t ringBytes = size_t(kPeriodFrames) * p.ring * 4;
    const size_t pcmBytes = size_t(kPeriodFrames) * p.stream * bits / 8;
    const double capture = baselineOnly ? kBaselineTarget : kCaptureTarget;
    const double render = baselineOnly ? kBaselineTarget : kRenderTarget;

    auto ring = noise(ringBytes);
    auto pcm = noise(pcmBytes);
    registerKernel("capture" + suffix + "/" + std::to_string(p.ring) + "to" +
                       std::to_string(p.stream),
                   ringBytes, capture, baselineOnly, [=] {
                       ringToPcm(kPeriodFrames, reinterpret_cast<const LONG*>(ring->data()), p.ring,
                                 pcm->data(), p.stream, bits);
                       benchmark::DoNotOptimize(pcm->data());
                   });
    auto source = noise(pcmBytes);
    auto frames = noise(ringBytes);
    registerKernel("render" + suffix + "/" + std::to_string(p.stream) + "to" +
                       std::to_string(p.ring),
                   ringBytes, render, baselineOnly, [=] {
                       pcmToRing(kPeriodFrames, source->data(), p.stream, bits,
                                 reinterpret_cast<LONG*>(frames->data()), p.ring, 0);
                       benchmark::DoNotOptimize(frames->data());
                   });
}

} // namespace

void registerConversionBenchmarks() {
    for (ULONG bits : kBits)
        for (ChannelPair p : kPairs)
            registerPair(bits, p, false);
    for (ChannelPair p : kPairs)
        registerPair(24, p, true);
    // The floors of the 24-bit kernels whose stream and ring channels
    // match: the PCM a capture writes, the ring frames a render writes.
    for (ULONG channels : {2u, 8u}) {
        const std::string shape = "/" + std::to_string(channels) + "to" + std::to_string(channels);
        const size_t ringBytes = size_t(kPeriodFrames) * channels * 4;
        registerStoreFloor("stores-only/capture24" + shape, ringBytes, ringBytes / 4 * 3);
        registerStoreFloor("stores-only/render24" + shape, ringBytes, ringBytes);
    }
}

} // namespace mmebench
