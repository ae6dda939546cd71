// The period transfer against format changes on another thread: one thread
// runs tens of thousands of period callbacks at dispatch level while
// another reshapes both channels, frees their buffers, detaches them, opens
// and closes streams and copies into the cyclic buffer as the port does.
// Run under ThreadSanitizer (tsan preset) for races and under
// AddressSanitizer (asan preset) for reads of freed buffers.
#include "host/kernel/HostKernel.h"
#include "support/StreamingRig.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace {

using streamtest::StreamingRig;

constexpr ULONG kPeriod = 256;
constexpr ULONG kPeriods = 20000; // at least, each an onInput and an onOutput
constexpr unsigned kCycles = 300; // at least, of the control thread
constexpr unsigned char kPattern = 0x11;

std::unique_ptr<AudioSM> makeRing(ULONG channels, ULONG frames) {
    auto ring = std::make_unique<AudioSM>();
    ring->mChannelsPerFrame = channels;
    ring->mMaxFrames = frames;
    return ring;
}

TEST(ConcurrencyDma, PeriodsRunSafelyWhileChannelsAreReshapedFreedAndDetached) {
    hostk::setSinkNull(); // the control thread traces thousands of reallocations
    StreamingRig rig;
    ASSERT_TRUE(rig.started());
    rig.setAttachChannels(8, 8);
    MMEWaveStream* capture = rig.openStream(true, 2, 16);
    MMEWaveStream* render = rig.openStream(false, 2, 16);
    ASSERT_NE(capture, nullptr);
    ASSERT_NE(render, nullptr);
    MMEDMAEmulator* in = rig.channel(true);
    MMEDMAEmulator* out = rig.channel(false);

    auto captureRing = makeRing(8, 4096);
    auto renderRing = makeRing(8, 4096);
    for (ULONG i = 0; i < 8 * 4096; ++i)
        captureRing->mSamples[i] = LONG(i * 2654435761u);
    renderRing->mMMEReadPos = 0;

    std::atomic<bool> stop{false};
    std::atomic<ULONG> periodsRun{0};
    std::atomic<unsigned> attachedPeriods{0};
    std::thread periods([&] {
        hostk::runAtDispatch([&] {
            while (!stop.load() || periodsRun.load() < kPeriods) {
                bool moved = in->onInput(captureRing.get(), renderRing.get(), kPeriod);
                moved = out->onOutput(renderRing.get(), kPeriod, 1700) || moved;
                if (moved)
                    attachedPeriods.fetch_add(1, std::memory_order_relaxed);
                periodsRun.fetch_add(1);
            }
        });
    });

    // The port's and the stream's side.
    static const ULONG kShapes[][2] = {{2, 16}, {4, 24}, {8, 32}, {2, 24}, {1, 16}, {6, 32}};
    std::vector<unsigned char> data(8 * 4096 * 4, kPattern);
    unsigned cycle = 0;
    bool reopened = true;
    while (cycle < kCycles || periodsRun.load() < kPeriods) {
        const ULONG* shape = kShapes[cycle % 6];
        MMEWaveStream* streams[2] = {capture, render};
        MMEDMAEmulator* channels[2] = {in, out};
        for (int d = 0; d < 2; ++d) {
            MMEDMAEmulator* channel = channels[d];
            channel->setStreamFormat(streams[d], shape[0], shape[1], 0);
            if (!d) {
                std::vector<unsigned char> sink(channel->BufferSize());
                channel->CopyFrom(sink.data(), channel->SystemAddress(), channel->BufferSize());
            } else {
                channel->CopyTo(channel->SystemAddress(), data.data(), channel->BufferSize());
            }
            (void)channel->position();
            switch (cycle % 4) {
            case 0:
                channel->FreeBuffer();
                break;
            case 1:
                channel->setStreamFormat(nullptr, 0, 0, 0);
                break;
            case 2:
                channel->silence(channel->SystemAddress(), channel->BufferSize() / 2);
                channel->clearBuffer();
                break;
            default:
                channel->resetPosition();
                break;
            }
        }
        if (cycle % 64 == 63) {
            // The port lets go of both streams and opens new ones.
            rig.closeStream(capture);
            rig.closeStream(render);
            rig.setAttachChannels(8, 8);
            capture = rig.openStream(true, 2, 16);
            render = rig.openStream(false, 2, 16);
            if (!capture || !render) {
                reopened = false;
                break;
            }
        }
        ++cycle;
        std::this_thread::yield();
    }
    stop = true;
    periods.join();
    ASSERT_TRUE(reopened) << "the driver refused to open the streams again";

    // Every period moved the rings, whatever state the channels were in.
    const ULONG run = periodsRun.load();
    EXPECT_GE(run, kPeriods);
    EXPECT_EQ(renderRing->mMMEReadPos, run * kPeriod);
    EXPECT_EQ(renderRing->mWritePos, run * kPeriod);
    EXPECT_GT(attachedPeriods.load(), 0u);
    // The render ring holds only silence or the port's pattern in one of the
    // widths: nothing torn, nothing from a freed or foreign buffer.
    const std::set<LONG> allowed = {0, 0x00111100, 0x00111111};
    for (ULONG i = 0; i < 8 * 4096; ++i)
        ASSERT_TRUE(allowed.count(renderRing->mSamples[i]))
            << "sample " << i << " = " << std::hex << renderRing->mSamples[i];
}

} // namespace
