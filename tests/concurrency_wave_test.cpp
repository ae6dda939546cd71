// Concurrency of the wave miniport and its streams (run under ThreadSanitizer):
// stream slots taken and given back from two threads, and both directions
// starting and stopping at the same time.
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/kernel/HostKernel.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using wavetest::makeFormat;
using wavetest::StackRig;

// NewStream and final releases from two threads: one stream at a time gets
// the slot, and the slot is always given back.
TEST(WaveConcurrency, NewStreamAndFinalReleaseRace) {
    StackRig stack;
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
    std::atomic<int> opened{0};
    std::atomic<int> refused{0};
    std::atomic<int> other{0};
    auto worker = [&] {
        for (int i = 0; i < 200; ++i) {
            StackRig::Opened o = stack.open(true, format);
            if (o.status == STATUS_SUCCESS)
                ++opened;
            else if (o.status == STATUS_INVALID_DEVICE_REQUEST)
                ++refused;
            else
                ++other;
            StackRig::close(o);
        }
    };
    hostk::setSinkNull();
    std::thread a(worker), b(worker);
    a.join();
    b.join();
    hostk::setSinkCapture();
    EXPECT_EQ(opened + refused, 400);
    EXPECT_EQ(other, 0);
    EXPECT_GT(opened, 0);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    StackRig::Opened last = stack.open(true, format);
    EXPECT_EQ(last.status, STATUS_SUCCESS);
    StackRig::close(last);
}

// Both streams starting and stopping at once: the marks and the running
// report stay consistent and nothing trips the verifier.
TEST(WaveConcurrency, BothStreamsStartAndStopAtOnce) {
    StackRig stack;
    std::vector<UCHAR> captureFormat = makeFormat({48000, 2, 16});
    std::vector<UCHAR> renderFormat = makeFormat({48000, 2, 16});
    StackRig::Opened capture = stack.open(true, captureFormat);
    StackRig::Opened other = stack.open(false, renderFormat);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    MMEWaveStream* s = capture.object();
    hostk::setSinkNull();
    auto cycle = [](MMEWaveStream* stream) {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(stream->SetState(KSSTATE_RUN), STATUS_SUCCESS);
            EXPECT_EQ(stream->SetState(KSSTATE_STOP), STATUS_SUCCESS);
        }
    };
    std::thread a(cycle, s), b(cycle, other.object());
    a.join();
    b.join();
    hostk::setSinkCapture();
    EXPECT_FALSE(stack.adapter->isWaveRunning());
    EXPECT_EQ(s->state(), KSSTATE_STOP);
    EXPECT_EQ(other.object()->state(), KSSTATE_STOP);
    StackRig::close(capture);
    StackRig::close(other);
}
