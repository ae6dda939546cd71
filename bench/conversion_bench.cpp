// Conversion kernels over one 256-frame period. Bytes processed are those of
// the 32-bit side (ring frames, or the working-format samples); the memcpy
// baseline copies as many bytes.
#include "Bench.h"

#include "driver/streaming/SampleConversion.h"

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace mmebench {
namespace {

struct ChannelPair {
    ULONG ring;
    ULONG stream;
};
constexpr ChannelPair kPairs[] = {{2, 2}, {8, 2}, {8, 8}, {32, 2}};
constexpr ULONG kBits[] = {16, 24, 32};

std::vector<LONG> noise(size_t samples) {
    std::mt19937 rng(1);
    std::vector<LONG> v(samples);
    for (auto& s : v)
        s = LONG(rng());
    return v;
}

std::string pairName(const char* kernel, ULONG bits, ULONG from, ULONG to) {
    return std::string(kernel) + "/" + std::to_string(bits) + "bit/" + std::to_string(from) + "to" +
           std::to_string(to);
}

// Registers fn as name with its memcpy twin; fn runs one kernel call.
template <class Setup> void registerPair(const std::string& name, size_t bytes, Setup setup) {
    benchmark::RegisterBenchmark(name.c_str(), [bytes, setup](benchmark::State& state) {
        auto run = setup();
        for (auto _ : state) {
            run();
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
    });
    registerMemcpyBaseline(name, bytes);
}

void registerConvert() {
    for (ULONG bits : kBits) {
        for (ChannelPair p : kPairs) {
            const size_t ringBytes = size_t(kPeriodFrames) * p.ring * 4;
            registerPair(pairName("convertInput", bits, p.ring, p.stream), ringBytes, [=] {
                auto source = std::make_shared<std::vector<LONG>>(noise(kPeriodFrames * p.ring));
                auto out = std::make_shared<std::vector<uint8_t>>(kPeriodFrames * p.stream * 4);
                return [=] {
                    convertInput(kPeriodFrames, source->data(), p.ring, out->data(), p.stream,
                                 bits);
                    benchmark::DoNotOptimize(out->data());
                };
            });
            registerPair(pairName("convertOutput", bits, p.stream, p.ring), ringBytes, [=] {
                auto pcm = std::make_shared<std::vector<LONG>>(noise(kPeriodFrames * p.stream));
                auto out = std::make_shared<std::vector<LONG>>(kPeriodFrames * p.ring);
                return [=] {
                    convertOutput(kPeriodFrames, pcm->data(), p.stream, bits, out->data(), p.ring);
                    benchmark::DoNotOptimize(out->data());
                };
            });
        }
    }
}

void registerElementKernels() {
    for (ChannelPair p : kPairs) {
        if (p.ring == p.stream)
            continue;
        const size_t ringBytes = size_t(kPeriodFrames) * p.ring * 4;
        const std::string suffix = "/" + std::to_string(p.ring) + "and" + std::to_string(p.stream);
        registerPair("dropExtraChannels" + suffix, ringBytes, [=] {
            auto buffer = std::make_shared<std::vector<LONG>>(noise(kPeriodFrames * p.ring));
            return [=] {
                dropExtraChannels(buffer->data(), kPeriodFrames, p.stream, p.ring - p.stream);
                benchmark::DoNotOptimize(buffer->data());
            };
        });
        registerPair("padExtraChannels" + suffix, ringBytes, [=] {
            auto buffer = std::make_shared<std::vector<LONG>>(noise(kPeriodFrames * p.ring));
            return [=] {
                padExtraChannels(buffer->data(), kPeriodFrames, p.stream, p.ring - p.stream);
                benchmark::DoNotOptimize(buffer->data());
            };
        });
    }
    for (ULONG channels : {2u, 8u, 32u}) {
        const ULONG count = kPeriodFrames * channels;
        const size_t bytes = size_t(count) * 4;
        const std::string suffix = "/" + std::to_string(channels) + "ch";
        registerPair("int32ToPcm16" + suffix, bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count));
            auto out = std::make_shared<std::vector<uint8_t>>(size_t(count) * 2);
            return [=] {
                int32ToPcm16(out->data(), in->data(), count);
                benchmark::DoNotOptimize(out->data());
            };
        });
        registerPair("int32ToPcm24" + suffix, bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count));
            auto out = std::make_shared<std::vector<uint8_t>>(size_t(count) * 3);
            return [=] {
                int32ToPcm24(out->data(), in->data(), count);
                benchmark::DoNotOptimize(out->data());
            };
        });
        // The 24-bit kernels again on the x64 baseline path (no SSSE3).
        registerPair("int32ToPcm24" + suffix + "/baseline", bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count));
            auto out = std::make_shared<std::vector<uint8_t>>(size_t(count) * 3);
            return [=] {
                setConversionBaselineOnly(true);
                int32ToPcm24(out->data(), in->data(), count);
                setConversionBaselineOnly(false);
                benchmark::DoNotOptimize(out->data());
            };
        });
        registerPair("pcm24ToInt32" + suffix + "/baseline", bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count * 3 / 4 + 1));
            auto out = std::make_shared<std::vector<LONG>>(count);
            return [=] {
                setConversionBaselineOnly(true);
                pcm24ToInt32(out->data(), in->data(), count * 3);
                setConversionBaselineOnly(false);
                benchmark::DoNotOptimize(out->data());
            };
        });
        registerPair("pcm16ToInt32" + suffix, bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count / 2 + 1));
            auto out = std::make_shared<std::vector<LONG>>(count);
            return [=] {
                pcm16ToInt32(out->data(), in->data(), count * 2);
                benchmark::DoNotOptimize(out->data());
            };
        });
        registerPair("pcm24ToInt32" + suffix, bytes, [=] {
            auto in = std::make_shared<std::vector<LONG>>(noise(count * 3 / 4 + 1));
            auto out = std::make_shared<std::vector<LONG>>(count);
            return [=] {
                pcm24ToInt32(out->data(), in->data(), count * 3);
                benchmark::DoNotOptimize(out->data());
            };
        });
        registerPair("shiftRight8" + suffix, bytes, [=] {
            auto buffer = std::make_shared<std::vector<LONG>>(noise(count));
            return [=] {
                shiftRight8(buffer->data(), count);
                benchmark::DoNotOptimize(buffer->data());
            };
        });
    }
}

} // namespace

void registerConversionBenchmarks() {
    registerConvert();
    registerElementKernels();
}

} // namespace mmebench
