// The whole driver across threads, with the model USB driver's real-time
// clock calling the period exchange on a thread of its own (at dispatch
// level, the port's service routine running from it) while client threads
// open, start, stop, reformat and close streams, the two streams change
// state on two threads at once, and the device is removed while periods
// and streams run. Run under ThreadSanitizer by the tsan preset; the asan
// preset runs them for use after free.
#include "support/AdapterHarness.h"

#include "driver/wave/MMEWaveStream.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using hostpc::KsStream;

struct Shape {
    ULONG rate;
    USHORT channels;
    USHORT bits;
};

class StackConcurrency : public ::testing::Test {
protected:
    void SetUp() override {
        hostk::setSinkNull(); // thousands of state changes are traced
        ASSERT_EQ(device.startStatus, STATUS_SUCCESS);
        device.loader.setServiceMode(hostpc::ServiceMode::Concurrent);
        filter = std::make_unique<hostpc::WaveFilter>(hostpc::subdevice(device.fdo(), u"Wave"));
    }
    void TearDown() override {
        device.model.stopRealTime();
        filter.reset();
        device.remove();
        EXPECT_EQ(device.model.realTimeError(), "");
    }

    std::unique_ptr<KsStream> open(bool capture, const Shape& shape, NTSTATUS* status = nullptr) {
        std::unique_ptr<KsStream> stream;
        const NTSTATUS st =
            filter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                         hostpc::pcmFormat(shape.rate, shape.channels, shape.bits), {}, &stream);
        if (status)
            *status = st;
        return stream;
    }

    // Runs until the model's clock has run at least `periods` periods.
    void awaitPeriods(uint64_t periods) {
        const uint64_t until = device.model.periodsRun() + periods;
        while (device.model.periodsRun() < until && device.model.realTimeRunning())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    adaptertest::DriverHarness device;
    std::unique_ptr<hostpc::WaveFilter> filter;
};

TEST_F(StackConcurrency, PeriodsOnTheClockThreadWhileTheClientReformatsAndCloses) {
    const Shape shapes[] = {{48000, 2, 16}, {48000, 8, 24}, {96000, 2, 24},
                            {44100, 4, 16}, {48000, 2, 32}, {96000, 8, 16}};
    device.model.startRealTime();
    std::vector<unsigned char> buffer(8 * 4 * 4096);
    unsigned opened = 0;
    for (unsigned cycle = 0; cycle < 24; ++cycle) {
        const Shape& shape = shapes[cycle % 6];
        NTSTATUS status = STATUS_SUCCESS;
        // Render alone may move the rate; capture follows at it.
        auto render = open(false, shape, &status);
        auto capture = open(true, {shape.rate, 2, 16}, &status);
        if (render) {
            render->write(buffer.data(), buffer.size() / render->blockAlign());
            render->setState(KSSTATE_RUN);
            ++opened;
        }
        if (capture && capture->setState(KSSTATE_RUN) == STATUS_SUCCESS)
            ++opened;
        awaitPeriods(3);
        if (capture) {
            capture->read(buffer.data(), buffer.size() / capture->blockAlign());
            capture->setState(KSSTATE_PAUSE); // the channel keeps moving
        }
        awaitPeriods(1);
        if (cycle % 2)
            capture.reset(); // closed while running or paused
        render.reset();
        capture.reset();
    }
    EXPECT_GT(opened, 24u);
    EXPECT_TRUE(device.model.realTimeRunning());
    EXPECT_FALSE(device.adapter()->isWaveRunning());
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST_F(StackConcurrency, TheTwoStreamsChangeStateOnTwoThreadsAtOnce) {
    auto capture = open(true, {48000, 2, 24});
    auto render = open(false, {48000, 2, 16});
    ASSERT_TRUE(capture && render);
    device.model.startRealTime();

    std::atomic<bool> go{false};
    std::atomic<unsigned> refusals{0};
    auto cycle = [&](KsStream* stream) {
        while (!go.load())
            std::this_thread::yield();
        for (int i = 0; i < 40; ++i) {
            if (stream->setState(KSSTATE_RUN) != STATUS_SUCCESS)
                ++refusals;
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            stream->setState(i % 3 ? KSSTATE_STOP : KSSTATE_PAUSE);
        }
        stream->setState(KSSTATE_STOP);
    };
    std::thread a(cycle, capture.get());
    std::thread b(cycle, render.get());
    go = true;
    a.join();
    b.join();

    // Both at one rate: every start is carried to the hardware or finds it
    // already there; none is refused.
    EXPECT_EQ(refusals.load(), 0u);
    EXPECT_EQ(capture->state(), KSSTATE_STOP);
    EXPECT_EQ(render->state(), KSSTATE_STOP);
    EXPECT_FALSE(device.adapter()->isWaveRunning());
    EXPECT_FALSE(device.wave()->captureStream()->isRunning());
    EXPECT_FALSE(device.wave()->renderStream()->isRunning());

    // And they still run afterwards.
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    const uint64_t frames = capture->positionFrames();
    awaitPeriods(4);
    EXPECT_GT(capture->positionFrames(), frames);
    EXPECT_TRUE(device.adapter()->isWaveRunning());
}

TEST_F(StackConcurrency, OpeningAndClosingBothDirectionsWhileFormatsAreNegotiated) {
    device.model.startRealTime();
    std::atomic<bool> stop{false};
    std::atomic<unsigned> unexpected{0};
    // Each direction opened and closed by a thread of its own; a third asks
    // both pins for formats meanwhile, reading the stream pointers.
    auto churn = [&](bool capture) {
        for (int i = 0; i < 40; ++i) {
            NTSTATUS status = STATUS_SUCCESS;
            auto stream = open(capture, {48000, 2, 16}, &status);
            if (!stream) {
                ++unexpected;
                continue;
            }
            if (i % 2)
                stream->setState(KSSTATE_RUN);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    };
    std::thread negotiate([&] {
        const KSDATARANGE_AUDIO wide = hostpc::clientRange(8, 16, 32, 8000, 192000);
        while (!stop.load()) {
            for (ULONG pin : {hostpc::kWaveCapturePin, hostpc::kWaveRenderPin}) {
                std::vector<UCHAR> format;
                const NTSTATUS status = filter->intersect(pin, wide, &format);
                if (status != STATUS_SUCCESS && status != STATUS_NO_MATCH)
                    ++unexpected;
            }
        }
    });
    std::thread capture(churn, true);
    std::thread render(churn, false);
    capture.join();
    render.join();
    stop = true;
    negotiate.join();

    EXPECT_EQ(unexpected.load(), 0u);
    EXPECT_EQ(device.wave()->captureStream(), nullptr);
    EXPECT_EQ(device.wave()->renderStream(), nullptr);
    EXPECT_FALSE(device.adapter()->isWaveRunning());
}

TEST_F(StackConcurrency, RemovalWhilePeriodsAndBothStreamsRun) {
    auto capture = open(true, {48000, 2, 24});
    auto render = open(false, {48000, 2, 16});
    ASSERT_TRUE(capture && render);
    std::vector<unsigned char> audio(4 * 48000, 0x33);
    render->write(audio.data(), 48000);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    device.model.startRealTime();
    awaitPeriods(10);
    ASSERT_TRUE(device.adapter()->isAttached());

    // The client keeps reading and writing on its thread while the device goes.
    std::atomic<bool> stop{false};
    std::thread client([&] {
        std::vector<unsigned char> buffer(6 * 4096); // 4096 frames of 2 x 24 bits
        while (!stop.load()) {
            capture->read(buffer.data(), 4096);
            render->write(audio.data(), 1024);
            std::this_thread::yield();
        }
    });
    filter.reset();
    device.remove(); // Unregister stops the clock and waits for a period under way
    stop = true;
    client.join();

    EXPECT_FALSE(device.model.realTimeRunning());
    EXPECT_EQ(device.model.link(), nullptr);
    EXPECT_TRUE(capture->removed());
    EXPECT_TRUE(render->removed());
    capture.reset();
    render.reset();
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u) << hostk::leakReport();
}

} // namespace
