// End to end through the client API: audio rendered into the render pin,
// played by the model device, fed back by its loopback and recorded from the
// capture pin comes back bit-exact by the conversion rules after the known
// latency; channel mapping on a device with more channels than the stream;
// positions in step with the periods; glitches and overruns counted exactly
// when the client is late, and never when it keeps up.
#include "support/E2eRig.h"

namespace {

using e2e::asPlayed;
using e2e::played;
using e2e::Played;
using e2e::Pump;
using e2e::Rig;

constexpr uint32_t kLoop = 512;

struct LoopCase {
    ULONG rate;
    USHORT bits;
    bool extensible;
    uint32_t devicePeriod; // frames the device moves per callback
};

void PrintTo(const LoopCase& c, std::ostream* os) {
    *os << c.rate << "Hz " << c.bits << "bit " << (c.extensible ? "extensible " : "")
        << "device period " << c.devicePeriod;
}

class Loopback : public ::testing::TestWithParam<LoopCase> {};

// Capture started first (it may bring the hardware to its rate), render
// after, no period in between; noise rendered and everything captured until
// it has come back. Devices whose period is not the driver's 256 frames
// deliver positions unevenly; the audio still arrives whole, as late.
TEST_P(Loopback, ComesBackBitExactAfterTheKnownLatency) {
    const LoopCase& c = GetParam();
    Rig rig;
    ASSERT_TRUE(rig.started());
    rig.model().setPeriodFrames(c.devicePeriod);
    rig.model().setLoopback(kLoop);
    const auto format = hostpc::pcmFormat(c.rate, 2, c.bits, c.extensible);
    std::unique_ptr<hostpc::KsStream> capture, render;
    ASSERT_EQ(rig.filter->open(hostpc::kWaveCapturePin, format, {}, &capture), STATUS_SUCCESS);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(rig.filter->open(hostpc::kWaveRenderPin, format, {}, &render), STATUS_SUCCESS);
    const size_t frames = 4000, latency = e2e::kRenderWriteAhead + kLoop;
    const auto sent = e2e::noise(frames * 2, c.bits, c.rate + c.bits + c.devicePeriod);
    Pump pump(rig, render.get(), e2e::pack(sent, c.bits), capture.get());
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    size_t periods = 0;
    while (pump.capturedFrames() < frames + latency && periods < 100000) {
        pump.periods(1);
        ++periods;
    }
    EXPECT_EQ(rig.model().settings().current.fr, c.rate);
    const auto got = e2e::unpack(pump.captured, c.bits);
    ASSERT_GE(got.size(), (latency + frames) * 2);
    size_t early = 0, wrong = 0;
    for (size_t i = 0; i < latency * 2; ++i)
        early += got[i] != 0;
    EXPECT_EQ(early, 0u) << "sound before the round trip could end";
    for (size_t i = 0; i < sent.size(); ++i)
        wrong += got[latency * 2 + i] != e2e::loopbackValue(sent[i], c.bits);
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(render->counters().glitches, 0u);
    EXPECT_EQ(render->counters().framesCopied, frames);
    EXPECT_EQ(capture->counters().overruns, 0u);
    if (c.devicePeriod == 256) {
        EXPECT_EQ(render->positionFrames(), periods * 256);
        EXPECT_EQ(capture->positionFrames(), periods * 256);
        EXPECT_EQ(capture->counters().framesCopied, periods * 256);
    }
}

INSTANTIATE_TEST_SUITE_P(
    E2e, Loopback,
    ::testing::Values(LoopCase{44100, 16, false, 256}, LoopCase{44100, 24, false, 256},
                      LoopCase{48000, 16, false, 256}, LoopCase{48000, 24, false, 256},
                      LoopCase{96000, 16, false, 256}, LoopCase{96000, 24, false, 256},
                      LoopCase{192000, 16, false, 256}, LoopCase{192000, 24, false, 256},
                      LoopCase{48000, 24, true, 256}, LoopCase{48000, 16, false, 128},
                      LoopCase{48000, 16, false, 384}, LoopCase{48000, 16, false, 512},
                      LoopCase{48000, 16, false, 100}),
    [](const ::testing::TestParamInfo<LoopCase>& info) {
        const LoopCase& c = info.param;
        return std::to_string(c.rate) + "Hz" + std::to_string(c.bits) + "bit" +
               (c.extensible ? "Extensible" : "") + "Period" + std::to_string(c.devicePeriod);
    });

// ---- Channels ----

// Fewer stream channels than the device's eight: render zero-pads the ring
// channels beyond the stream's, capture keeps the first ones.
TEST(Channels, StreamsOfFewerChannelsThanTheRing) {
    for (USHORT channels : {2, 6}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        Rig rig;
        auto out = rig.output();
        rig.model().setInput(std::make_shared<usbsim::PatternInput>());
        auto render = rig.open(false, 48000, channels, 16);
        auto capture = rig.open(true, 48000, channels, 24);
        ASSERT_TRUE(render && capture);
        const size_t frames = 3000, periods = (frames + e2e::kRenderWriteAhead) / 256 + 2;
        const auto sent = e2e::noise(frames * channels, 16, channels);
        Pump pump(rig, render.get(), e2e::pack(sent, 16), capture.get());
        ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        pump.periods(periods);

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
        EXPECT_EQ(wrong, 0u) << "render";
        EXPECT_EQ(rig.model().renderFormatErrors(), 0u);

        const auto got = e2e::unpack(pump.captured, 24);
        ASSERT_EQ(got.size(), periods * 256 * channels);
        // The pattern carries the frame and the ring channel; 24 bits keep both.
        wrong = 0;
        for (size_t f = 0; f < periods * 256; ++f)
            for (uint32_t c = 0; c < channels; ++c)
                wrong += got[f * channels + c] !=
                         e2e::captureValue(usbsim::PatternInput::sample(f, c), 24);
        EXPECT_EQ(wrong, 0u) << "capture";
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
    auto out = rig.output();
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

// Prefill frames queued before the start, writes skipped after the periods
// listed, and the glitches that must follow: four periods queued ahead
// cover two missed writes, a client only one period ahead glitches once per
// missed write. Its audio is delayed by the silence, never lost.
TEST(Glitches, CountedAndHeardExactlyWhenTheClientIsLate) {
    struct {
        size_t prefill;
        std::vector<size_t> skipped;
        uint64_t glitches;
    } cases[] = {{512, {}, 0}, {1024, {40, 70}, 0}, {512, {40, 41, 42, 80, 81}, 5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.prefill << " frames ahead, " << c.skipped.size() << " writes missed");
        JustInTime r = justInTime(120, c.prefill, c.skipped);
        EXPECT_EQ(r.counters.glitches, c.glitches);
        EXPECT_EQ(r.counters.silenceFrames, c.glitches * 256);
        EXPECT_EQ(r.played.silentFrames, r.counters.silenceFrames);
        if (c.glitches == 0) {
            EXPECT_EQ(r.written, 120u * 256) << "all of it queued in the end";
        }
        std::vector<int32_t> want(r.sent.begin(), r.sent.begin() + r.written * 2);
        EXPECT_EQ(r.played.sound, asPlayed(want, 16));
    }
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

} // namespace
