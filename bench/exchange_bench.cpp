// One whole period round on a started driver, through the channels' own
// transfer (locks, ring positions, cyclic-buffer pieces): the capture
// channel takes 256 frames of an 8-channel ring into a 2-channel 24-bit
// stream and the render channel puts 256 frames of a 2-channel 16-bit stream
// into an 8-channel ring. The baseline copies the two periods of ring frames.
#include "Bench.h"

#include "host/kernel/HostKernel.h"
#include "support/WaveRig.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace mmebench {
namespace {

constexpr ULONG kRingChannels = 8;
constexpr ULONG kRingFrames = 4096;

struct FreeRing {
    void operator()(AudioSM* ring) const { std::free(ring); }
};

// Page-aligned, as the USB driver's shared memory is.
std::unique_ptr<AudioSM, FreeRing> makeRing() {
    std::unique_ptr<AudioSM, FreeRing> ring(
        new (std::aligned_alloc(4096, (sizeof(AudioSM) + 4095) / 4096 * 4096)) AudioSM());
    ring->mChannelsPerFrame = kRingChannels;
    ring->mMaxFrames = kRingFrames;
    for (ULONG i = 0; i < kRingChannels * kRingFrames; ++i)
        ring->mSamples[i] = LONG(i * 2654435761u);
    return ring;
}

void periodExchange(benchmark::State& state) {
    hostk::setSinkNull();
    wavetest::StackRig rig;
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
    benchmark::RegisterBenchmark("round/capture8to2x24+render2to8x16", periodExchange);
    registerBaseline("round/capture8to2x24+render2to8x16",
                     size_t(2) * kPeriodFrames * kRingChannels * 4, "ring", 2.0);
}

} // namespace mmebench
