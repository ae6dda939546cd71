// One whole period exchange on a started driver: the capture channel takes
// 256 frames of an 8-channel ring into a 2-channel 24-bit stream and the
// render channel puts 256 frames of a 2-channel 16-bit stream into an
// 8-channel ring. Bytes processed are the two periods of ring frames.
#include "Bench.h"

#include "host/kernel/HostKernel.h"
#include "support/StreamingRig.h"

#include <memory>

namespace mmebench {
namespace {

constexpr ULONG kRingChannels = 8;
constexpr ULONG kRingFrames = 4096;

std::unique_ptr<AudioSM> makeRing() {
    auto ring = std::make_unique<AudioSM>();
    ring->mChannelsPerFrame = kRingChannels;
    ring->mMaxFrames = kRingFrames;
    for (ULONG i = 0; i < kRingChannels * kRingFrames; ++i)
        ring->mSamples[i] = LONG(i * 2654435761u);
    return ring;
}

void periodExchange(benchmark::State& state) {
    hostk::setSinkNull();
    streamtest::StreamingRig rig;
    rig.setAttachChannels(kRingChannels, kRingChannels);
    MMEWaveStream* capture = rig.openStream(true, 2, 24);
    MMEWaveStream* render = rig.openStream(false, 2, 16);
    if (!capture || !render) {
        state.SkipWithError("the driver did not open the two streams");
        return;
    }
    MMEDMAEmulator* in = rig.channel(true);
    MMEDMAEmulator* out = rig.channel(false);
    in->setStreamFormat(capture, 2, 24, 0);
    out->setStreamFormat(render, 2, 16, 0);
    auto captureRing = makeRing();
    auto renderRing = makeRing();
    renderRing->mMMEReadPos = 0;
    bool moved = true;
    for (auto _ : state) {
        moved &= in->onInput(captureRing.get(), renderRing.get(), kPeriodFrames);
        moved &= out->onOutput(renderRing.get(), kPeriodFrames, 1700);
        benchmark::ClobberMemory();
    }
    if (!moved)
        state.SkipWithError("a period did not move");
    state.SetBytesProcessed(int64_t(state.iterations()) * 2 * kPeriodFrames * kRingChannels * 4);
}

} // namespace

void registerExchangeBenchmarks() {
    benchmark::RegisterBenchmark("periodExchange/capture8to2x24+render2to8x16", periodExchange);
    registerMemcpyBaseline("periodExchange/capture8to2x24+render2to8x16",
                           size_t(2) * kPeriodFrames * kRingChannels * 4);
}

} // namespace mmebench
