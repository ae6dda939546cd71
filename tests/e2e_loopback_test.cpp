// End to end through the client API: audio rendered into the render pin,
// played by the model device, fed back by its loopback and recorded from the
// capture pin comes back bit-exact by the conversion rules after the known
// latency; channel mapping on a device with more channels than the stream;
// positions in step with the periods; glitches and overruns counted exactly
// when the client is late, and never when it keeps up.
#include "support/E2eRig.h"

#include <tuple>

namespace {

using e2e::asPlayed;
using e2e::played;
using e2e::Played;
using e2e::Pump;
using e2e::Rig;

constexpr uint32_t kLoop = 512;

// Samples of `got` from `from` on against `want`; how many differ, and where first.
struct Diff {
    size_t count = 0;
    size_t first = 0;
};
Diff diff(const std::vector<int32_t>& got, size_t from, const std::vector<int32_t>& want) {
    Diff d;
    for (size_t i = 0; i < want.size(); ++i) {
        const bool same = from + i < got.size() && got[from + i] == want[i];
        if (!same && d.count++ == 0)
            d.first = i;
    }
    return d;
}

std::vector<int32_t> throughLoopback(const std::vector<int32_t>& sent, unsigned bits) {
    std::vector<int32_t> out(sent.size());
    for (size_t i = 0; i < sent.size(); ++i)
        out[i] = e2e::loopbackValue(sent[i], bits);
    return out;
}

size_t nonzero(const std::vector<int32_t>& samples, size_t begin, size_t end) {
    size_t n = 0;
    for (size_t i = begin; i < end && i < samples.size(); ++i)
        n += samples[i] != 0;
    return n;
}

// Capture started first (it may bring the hardware to its rate), render
// after, no period in between; `frames` of noise rendered, everything
// captured until the signal has come back.
struct LoopbackRun {
    std::vector<int32_t> sent, got;
    size_t periods = 0;
    uint64_t renderPosition = 0, capturePosition = 0;
    hostpc::StreamCounters render, capture;
    ULONG hardwareRate = 0;
};
LoopbackRun loopback(Rig& rig, const std::vector<UCHAR>& captureFormat,
                     const std::vector<UCHAR>& renderFormat, size_t frames, uint32_t seed) {
    LoopbackRun r;
    rig.model().setLoopback(kLoop);
    std::unique_ptr<hostpc::KsStream> capture, render;
    EXPECT_EQ(rig.filter->open(hostpc::kWaveCapturePin, captureFormat, {}, &capture),
              STATUS_SUCCESS);
    if (!capture)
        return r;
    EXPECT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.filter->open(hostpc::kWaveRenderPin, renderFormat, {}, &render), STATUS_SUCCESS);
    if (!render)
        return r;
    const unsigned bits = render->bits();
    r.sent = e2e::noise(frames * render->channels(), bits, seed);
    Pump pump(rig, render.get(), e2e::pack(r.sent, bits), capture.get());
    pump.feed();
    EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    const size_t wanted = frames + e2e::kRenderWriteAhead + kLoop;
    while (pump.capturedFrames() < wanted && r.periods < 100000) {
        pump.periods(1);
        ++r.periods;
    }
    r.hardwareRate = rig.model().settings().current.fr;
    r.renderPosition = render->positionFrames();
    r.capturePosition = capture->positionFrames();
    r.render = render->counters();
    r.capture = capture->counters();
    r.got = e2e::unpack(pump.captured, capture->bits());
    return r;
}

class LoopbackMatrix : public ::testing::TestWithParam<std::tuple<ULONG, USHORT>> {};

TEST_P(LoopbackMatrix, ComesBackBitExactAfterTheKnownLatency) {
    const ULONG rate = std::get<0>(GetParam());
    const USHORT bits = std::get<1>(GetParam());
    Rig rig;
    ASSERT_TRUE(rig.started());
    const size_t frames = 5000;
    const auto format = hostpc::pcmFormat(rate, 2, bits);
    LoopbackRun r = loopback(rig, format, format, frames, rate + bits);
    ASSERT_FALSE(r.got.empty());

    EXPECT_EQ(r.hardwareRate, rate);
    const size_t latency = e2e::kRenderWriteAhead + kLoop;
    ASSERT_GE(r.got.size(), (latency + frames) * 2);
    EXPECT_EQ(nonzero(r.got, 0, latency * 2), 0u) << "sound before the round trip could end";
    Diff d = diff(r.got, latency * 2, throughLoopback(r.sent, bits));
    EXPECT_EQ(d.count, 0u) << "first differing sample " << d.first;

    EXPECT_EQ(r.renderPosition, r.periods * 256);
    EXPECT_EQ(r.capturePosition, r.periods * 256);
    EXPECT_EQ(r.render.glitches, 0u);
    EXPECT_EQ(r.render.framesCopied, frames);
    EXPECT_EQ(r.capture.overruns, 0u);
    EXPECT_EQ(r.capture.framesCopied, r.periods * 256);
}

INSTANTIATE_TEST_SUITE_P(RatesAndWidths, LoopbackMatrix,
                         ::testing::Combine(::testing::Values(44100u, 48000u, 96000u, 192000u),
                                            ::testing::Values<USHORT>(16, 24)),
                         [](const ::testing::TestParamInfo<std::tuple<ULONG, USHORT>>& info) {
                             return std::to_string(std::get<0>(info.param)) + "Hz" +
                                    std::to_string(std::get<1>(info.param)) + "bit";
                         });

TEST(Loopback, ThirtyTwoBitStreamsAreNotOfferedAndRefused) {
    Rig rig;
    ASSERT_TRUE(rig.started());
    for (ULONG pinId : {hostpc::kWaveCapturePin, hostpc::kWaveRenderPin}) {
        hostpc::PinInfo pin = rig.filter->pin(pinId);
        ASSERT_FALSE(pin.ranges.empty());
        for (const auto& range : pin.ranges)
            EXPECT_LT(range.MaximumBitsPerSample, 32u);
        std::vector<UCHAR> format;
        EXPECT_EQ(
            rig.filter->intersect(pinId, hostpc::clientRange(2, 32, 32, 48000, 48000), &format),
            STATUS_NO_MATCH);
        EXPECT_TRUE(format.empty());
    }
    for (ULONG rate : {44100u, 48000u, 96000u, 192000u})
        for (bool capture : {true, false}) {
            NTSTATUS status = STATUS_SUCCESS;
            EXPECT_EQ(rig.open(capture, rate, 2, 32, &status), nullptr);
            EXPECT_EQ(status, STATUS_NOT_SUPPORTED) << rate << (capture ? " capture" : " render");
        }
}

TEST(Loopback, PlainAndExtensiblePcmFormatsStreamAlike) {
    for (bool extensible : {false, true}) {
        SCOPED_TRACE(extensible ? "WAVE_FORMAT_EXTENSIBLE" : "WAVE_FORMAT_PCM");
        Rig rig;
        const auto format = hostpc::pcmFormat(48000, 2, 24, extensible);
        LoopbackRun r = loopback(rig, format, format, 3000, 11);
        const size_t latency = e2e::kRenderWriteAhead + kLoop;
        EXPECT_EQ(nonzero(r.got, 0, latency * 2), 0u);
        EXPECT_EQ(diff(r.got, latency * 2, throughLoopback(r.sent, 24)).count, 0u);
    }
}

TEST(Loopback, LatencyFollowsTheDeviceLoopbackAndIrregularPeriods) {
    // Devices whose period is not the driver's 256 frames deliver positions
    // unevenly (two passes at once, or none in a callback); the audio still
    // arrives whole after the same latency.
    for (uint32_t period : {128u, 384u, 512u, 100u}) {
        SCOPED_TRACE("device period " + std::to_string(period));
        Rig rig;
        rig.model().setPeriodFrames(period);
        const auto format = hostpc::pcmFormat(48000, 2, 16);
        LoopbackRun r = loopback(rig, format, format, 4000, period);
        const size_t latency = e2e::kRenderWriteAhead + kLoop;
        EXPECT_EQ(nonzero(r.got, 0, latency * 2), 0u);
        Diff d = diff(r.got, latency * 2, throughLoopback(r.sent, 16));
        EXPECT_EQ(d.count, 0u) << "first differing sample " << d.first;
        EXPECT_EQ(r.render.glitches, 0u);
        EXPECT_EQ(r.capture.overruns, 0u);
    }
}

// ---- Channels ----

TEST(Channels, RenderOnEightRingChannelsIsZeroPadded) {
    for (USHORT channels : {2, 6}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        Rig rig;
        auto out = std::make_shared<usbsim::MemoryOutput>();
        rig.model().setOutput(out);
        auto render = rig.open(false, 48000, channels, 16);
        ASSERT_TRUE(render);
        const size_t frames = 3000;
        const auto sent = e2e::noise(frames * channels, 16, channels);
        Pump pump(rig, render.get(), e2e::pack(sent, 16), nullptr);
        pump.feed();
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        pump.periods((frames + e2e::kRenderWriteAhead) / 256 + 2);

        ASSERT_EQ(out->channels(), 8u);
        ASSERT_GE(out->frames(), e2e::kRenderWriteAhead + frames);
        size_t wrong = 0;
        for (size_t f = 0; f < e2e::kRenderWriteAhead + frames; ++f)
            for (uint32_t c = 0; c < 8; ++c) {
                int32_t want = 0;
                if (f >= e2e::kRenderWriteAhead && c < channels)
                    want =
                        e2e::deviceWorking(sent[(f - e2e::kRenderWriteAhead) * channels + c], 16);
                wrong += out->at(f, c) != want;
            }
        EXPECT_EQ(wrong, 0u);
        EXPECT_EQ(rig.model().renderFormatErrors(), 0u);
    }
}

TEST(Channels, CaptureFromEightRingChannelsKeepsTheStreamsOwn) {
    for (USHORT channels : {2, 6}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        Rig rig;
        rig.model().setInput(std::make_shared<usbsim::PatternInput>());
        auto capture = rig.open(true, 48000, channels, 24);
        ASSERT_TRUE(capture);
        ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
        Pump pump(rig, nullptr, {}, capture.get());
        pump.periods(20);
        const auto got = e2e::unpack(pump.captured, 24);
        ASSERT_EQ(got.size(), size_t(20 * 256 * channels));
        // The pattern carries the frame and the ring channel; 24 bits keep both.
        size_t wrong = 0;
        for (size_t f = 0; f < 20 * 256; ++f)
            for (uint32_t c = 0; c < channels; ++c)
                wrong += got[f * channels + c] !=
                         e2e::captureValue(usbsim::PatternInput::sample(f, c), 24);
        EXPECT_EQ(wrong, 0u);
    }
}

// ---- Positions ----

TEST(Positions, StepWithThePeriodsAndStandStillBetween) {
    for (uint32_t period : {256u, 512u, 128u}) {
        SCOPED_TRACE("device period " + std::to_string(period));
        Rig rig;
        rig.model().setPeriodFrames(period);
        auto capture = rig.open(true, 48000, 2, 16);
        auto render = rig.open(false, 48000, 2, 16);
        ASSERT_TRUE(capture && render);
        Pump pump(rig, render.get(), e2e::pack(e2e::noise(2 * 48000, 16, 3), 16), capture.get());
        pump.feed();
        ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(render->positionFrames(), 0u);
        for (uint64_t k = 1; k <= 40; ++k) {
            pump.periods(1);
            const uint64_t want = k * period / 256 * 256; // whole driver periods
            ASSERT_EQ(render->positionFrames(), want) << "after " << k << " periods";
            ASSERT_EQ(capture->positionFrames(), want) << "after " << k << " periods";
            ASSERT_EQ(render->positionFrames(), want) << "moved without a period";
        }
        EXPECT_GT(render->positionFrames(), render->bufferBytes() / render->blockAlign())
            << "the cyclic buffer wrapped at least once";
        EXPECT_EQ(render->counters().glitches, 0u);
    }
}

// ---- Glitches and overruns ----

// Renders `periods` periods of noise: the client queues `prefill` frames,
// starts, then writes 256 frames after each period except in the periods
// listed. When the service runs after a period it needs the next period
// ready: a client that queued N periods before the start can skip N - 2
// writes before the device hears silence.
struct JustInTime {
    hostpc::StreamCounters counters;
    Played played;
    std::vector<int32_t> sent;
    size_t written = 0;
};
JustInTime justInTime(size_t periods, size_t prefill, std::vector<size_t> skipped) {
    JustInTime r;
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    auto render = rig.open(false, 48000, 2, 16);
    EXPECT_TRUE(render);
    if (!render)
        return r;
    EXPECT_EQ(render->leadFrames(), 2048u) << "40 ms in whole periods";
    r.sent = e2e::noise(periods * 256 * 2, 16, 5);
    const auto bytes = e2e::pack(r.sent, 16);
    r.written = render->write(bytes.data(), prefill);
    EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    for (size_t p = 0; p < periods; ++p) {
        rig.model().runPeriods(1);
        if (std::find(skipped.begin(), skipped.end(), p) != skipped.end())
            continue;
        const size_t n = std::min<size_t>(256, periods * 256 - r.written);
        r.written += render->write(bytes.data() + r.written * 4, n);
        if (r.written == periods * 256)
            render->endOfStream();
    }
    render->endOfStream();
    rig.model().runPeriods(16);
    r.counters = render->counters();
    r.played = played(*out, e2e::kRenderWriteAhead, 2, r.written + r.counters.silenceFrames);
    return r;
}

TEST(Glitches, NoneWhenTheClientKeepsUpJustInTime) {
    JustInTime r = justInTime(120, 512, {});
    EXPECT_EQ(r.counters.glitches, 0u);
    EXPECT_EQ(r.counters.silenceFrames, 0u);
    EXPECT_EQ(r.played.silentFrames, 0u);
    std::vector<int32_t> want(r.sent.begin(), r.sent.begin() + r.written * 2);
    EXPECT_EQ(r.played.sound, asPlayed(want, 16));
}

TEST(Glitches, ALateClientWithAudioQueuedAheadIsNoGlitch) {
    // Four periods queued before the start cover two missed writes.
    JustInTime r = justInTime(120, 1024, {40, 70});
    EXPECT_EQ(r.counters.glitches, 0u);
    EXPECT_EQ(r.played.silentFrames, 0u);
    EXPECT_EQ(r.written, 120u * 256) << "all of it queued in the end";
}

TEST(Glitches, CountedAndHeardWhenTheClientIsLate) {
    // Each write missed by a client only one period ahead is a period of
    // silence; the client's audio is delayed, never lost.
    JustInTime r = justInTime(120, 512, {40, 41, 42, 80, 81});
    EXPECT_EQ(r.counters.glitches, 5u);
    EXPECT_EQ(r.counters.silenceFrames, 5u * 256);
    // The device played exactly that much silence in the stream, and all of
    // the client's audio, in order, around it.
    EXPECT_EQ(r.played.silentFrames, r.counters.silenceFrames);
    std::vector<int32_t> want(r.sent.begin(), r.sent.begin() + r.written * 2);
    EXPECT_EQ(r.played.sound, asPlayed(want, 16));
}

class StarvedSource : public hostpc::RenderSource {
public:
    ULONG map(const UCHAR** where, ULONG) override {
        ++asked;
        *where = nullptr;
        return 0;
    }
    void release(ULONG bytes) override { released += bytes; }
    size_t asked = 0;
    size_t released = 0;
};

TEST(Glitches, AStarvedSourceGivesSilenceEveryPeriod) {
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    StarvedSource source;
    hostpc::StreamOptions options;
    options.source = &source;
    auto render = rig.open(false, 48000, 2, 16, nullptr, options);
    ASSERT_TRUE(render);
    EXPECT_EQ(render->write("abcd", 1), 0u) << "a stream with its own source takes no writes";
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    rig.model().runPeriods(20);
    const hostpc::StreamCounters c = render->counters();
    EXPECT_EQ(c.services, 20u);
    EXPECT_EQ(c.glitches, c.services + 1) << "the start and every service found nothing";
    EXPECT_EQ(c.silenceFrames, c.glitches * 256);
    EXPECT_EQ(c.framesCopied, 0u);
    EXPECT_GE(source.asked, c.glitches);
    EXPECT_EQ(source.released, 0u);
    EXPECT_EQ(render->positionFrames(), 20u * 256);
    EXPECT_EQ(played(*out, 0, 8).sound.size(), 0u);
}

TEST(Overruns, CountedWhenTheClientDoesNotReadAndWhatWasKeptIsIntact) {
    Rig rig;
    rig.model().setInput(std::make_shared<usbsim::PatternInput>());
    hostpc::StreamOptions options;
    options.queueFrames = 1024;
    auto capture = rig.open(true, 48000, 2, 24, nullptr, options);
    ASSERT_TRUE(capture);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    rig.model().runPeriods(20);

    hostpc::StreamCounters c = capture->counters();
    EXPECT_EQ(c.services, 20u);
    EXPECT_EQ(c.overruns, 16u) << "the queue held four periods; the other sixteen found it full";
    EXPECT_EQ(c.framesCopied, 1024u);
    EXPECT_EQ(c.droppedFrames, capture->positionFrames() - 1024);

    std::vector<uint8_t> bytes(2048 * capture->blockAlign());
    ASSERT_EQ(capture->read(bytes.data(), 2048), 1024u);
    auto got = e2e::unpack(bytes, 24);
    size_t wrong = 0;
    for (size_t f = 0; f < 1024; ++f)
        for (uint32_t ch = 0; ch < 2; ++ch)
            wrong += got[f * 2 + ch] != e2e::captureValue(usbsim::PatternInput::sample(f, ch), 24);
    EXPECT_EQ(wrong, 0u) << "the first frames kept are the first recorded";

    // Reading again, the stream carries on with what the device records now.
    rig.model().runPeriods(1);
    ASSERT_EQ(capture->read(bytes.data(), 2048), 256u);
    got = e2e::unpack(bytes, 24);
    EXPECT_EQ(got[0], e2e::captureValue(usbsim::PatternInput::sample(20 * 256, 0), 24));
    EXPECT_EQ(capture->counters().overruns, 16u);
}

TEST(Flood, WritesTakeWhatFitsAndEverythingTakenIsPlayed) {
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    hostpc::StreamOptions options;
    options.queueFrames = 2048;
    auto render = rig.open(false, 48000, 2, 16, nullptr, options);
    ASSERT_TRUE(render);
    const size_t frames = 12000;
    const auto sent = e2e::noise(frames * 2, 16, 9);
    const auto bytes = e2e::pack(sent, 16);
    EXPECT_EQ(render->write(bytes.data(), frames), 2048u);
    EXPECT_EQ(render->roomFrames(), 0u);
    EXPECT_EQ(render->write(bytes.data(), frames), 0u);
    size_t written = 2048;
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    while (written < frames) {
        rig.model().runPeriods(1);
        written += render->write(bytes.data() + written * 4, frames - written);
    }
    render->endOfStream();
    rig.model().runPeriods((2048 + render->leadFrames() + e2e::kRenderWriteAhead) / 256 + 4);
    EXPECT_EQ(render->counters().glitches, 0u);
    Played p = played(*out, e2e::kRenderWriteAhead, 2, frames);
    EXPECT_EQ(p.silentFrames, 0u);
    EXPECT_EQ(p.sound, asPlayed(sent, 16));
}

} // namespace
