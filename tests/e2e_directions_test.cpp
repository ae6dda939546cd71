// End to end through the client API: the rules between the two directions
// (one hardware rate; a stream may bring a new rate only while the other
// direction has none open; a stopped stream carries its format again after
// the other one started) and the KS state cycles users put streams through
// (repeated stop and start, pause and resume, closing from any state).
#include "support/E2eRig.h"

namespace {

using e2e::asPlayed;
using e2e::played;
using e2e::Played;
using e2e::Pump;
using e2e::Rig;
using e2e::traced;

// The "NewState is" values the driver's stream printed, in order.
std::vector<int> statesTraced() {
    std::vector<int> states;
    const std::string key = "NewState is ";
    for (const std::string& line : hostk::capturedLines()) {
        size_t at = line.find(key);
        if (at != std::string::npos)
            states.push_back(std::stoi(line.substr(at + key.size())));
    }
    return states;
}

// ---- Directions ----

TEST(Directions, RenderAtAnotherRateIsRefusedAtStartWhileCaptureIsOpen) {
    for (bool captureRunning : {false, true}) {
        SCOPED_TRACE(captureRunning ? "capture running" : "capture stopped");
        Rig rig;
        auto capture = rig.open(true, 48000, 2, 16);
        ASSERT_TRUE(capture);
        if (captureRunning) {
            ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
        }
        rig.model().clearCalls();
        hostk::clearCaptured();

        NTSTATUS status = STATUS_UNSUCCESSFUL;
        auto render = rig.open(false, 44100, 2, 16, &status);
        ASSERT_TRUE(render) << "the format is valid; only its start is refused";
        EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(render->state(), KSSTATE_PAUSE);
        EXPECT_TRUE(traced(
            "ERROR: RenderStream want to change the format while mpStreamCapture is open ?"));
        EXPECT_EQ(rig.model().settings().current.fr, 48000u);
        EXPECT_EQ(rig.model().callCount(USBCall_ChangeConfig), 0u);

        // The capture stream is not disturbed by the refused one.
        Pump pump(rig, nullptr, {}, capture.get());
        pump.periods(10);
        EXPECT_EQ(pump.capturedFrames(), captureRunning ? 10u * 256 : 0u);
        EXPECT_EQ(capture->counters().overruns, 0u);

        // Once capture has gone, render alone may bring its rate.
        capture.reset();
        EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(rig.model().settings().current.fr, 44100u);
    }
}

TEST(Directions, IntersectionOffersOnlyTheRateOfAnOpenStream) {
    Rig rig;
    std::vector<UCHAR> format;
    ULONG index = 99;
    // Nothing open: the pin's first range that the client's range meets.
    ASSERT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin,
                                    hostpc::clientRange(2, 16, 32, 8000, 192000), &format, &index),
              STATUS_SUCCESS);
    EXPECT_EQ(hostpc::waveFormatOf(format)->nSamplesPerSec, 44100u);
    EXPECT_EQ(index, 0u);

    auto capture = rig.open(true, 48000, 2, 16);
    ASSERT_TRUE(capture);
    EXPECT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin,
                                    hostpc::clientRange(2, 16, 32, 44100, 44100), &format),
              STATUS_NO_MATCH);
    ASSERT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin,
                                    hostpc::clientRange(2, 16, 32, 8000, 192000), &format, &index),
              STATUS_SUCCESS);
    const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
    EXPECT_EQ(w->nSamplesPerSec, 48000u) << "the ranges at other rates no longer intersect";
    EXPECT_EQ(w->nChannels, 2u);
    EXPECT_EQ(w->wBitsPerSample, 24u);
    EXPECT_EQ(index, 1u);
    // The capture pin has its stream already.
    EXPECT_EQ(rig.filter->intersect(hostpc::kWaveCapturePin,
                                    hostpc::clientRange(2, 16, 32, 48000, 48000), &format),
              STATUS_NO_MATCH);
}

TEST(Directions, RenderAloneChangesTheRateAndCaptureThenFollowsIt) {
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    auto render = rig.open(false, 44100, 2, 24);
    ASSERT_TRUE(render);
    const auto sent = e2e::noise(2 * 3000, 24, 4);
    Pump pump(rig, render.get(), e2e::pack(sent, 24), nullptr);
    pump.feed();
    rig.model().clearCalls();
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.model().settings().current.fr, 44100u);
    auto calls = rig.model().calls();
    ASSERT_EQ(rig.model().callCount(USBCall_ChangeConfig), 1u);
    for (const auto& c : calls) {
        if (c.code == USBCall_ChangeConfig) {
            EXPECT_EQ(c.wanted.fr, 44100u);
        }
    }
    pump.periods((3000 + e2e::kRenderWriteAhead) / 256 + 2);
    Played p = played(*out, 0, 2);
    EXPECT_EQ(p.sound, asPlayed(sent, 24));
    EXPECT_EQ(render->counters().glitches, 0u);

    hostk::clearCaptured();
    auto capture48 = rig.open(true, 48000, 2, 24);
    ASSERT_TRUE(capture48);
    EXPECT_EQ(capture48->setState(KSSTATE_RUN), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(
        traced("ERROR: Capture Stream want to change the format while mpStreamRender is open ?"));
    capture48.reset();
    auto capture = rig.open(true, 44100, 2, 24);
    ASSERT_TRUE(capture);
    EXPECT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    Pump capturePump(rig, nullptr, {}, capture.get());
    capturePump.periods(4);
    EXPECT_EQ(capturePump.capturedFrames(), 4u * 256);
}

TEST(Directions, AStoppedStreamCarriesItsFormatAgainAfterTheOtherStarted) {
    for (bool otherStarts : {true, false}) {
        SCOPED_TRACE(otherStarts ? "capture starts meanwhile" : "nothing else starts");
        Rig rig;
        auto out = std::make_shared<usbsim::MemoryOutput>();
        rig.model().setOutput(out);
        auto render = rig.open(false, 48000, 2, 16);
        ASSERT_TRUE(render);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        rig.model().runPeriods(4);
        ASSERT_EQ(render->setState(KSSTATE_STOP), STATUS_SUCCESS);

        // The device is switched to two outputs behind the driver's back.
        ChannelConfig changed = rig.model().settings().current;
        changed.outCH = 2;
        rig.model().changeHardware(changed, false);

        std::unique_ptr<hostpc::KsStream> capture;
        if (otherStarts) {
            capture = rig.open(true, 48000, 2, 16);
            ASSERT_TRUE(capture);
            hostk::clearCaptured();
            ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
            EXPECT_TRUE(traced("START STREAM : other stream is not running -> allow change but "
                               "mark other for reconfig"));
        }
        hostk::clearCaptured();
        rig.model().clearCalls();
        const auto sent = e2e::noise(2 * 2000, 16, 8);
        Pump pump(rig, render.get(), e2e::pack(sent, 16), capture.get());
        pump.feed();
        const size_t before = out->frames();
        const uint64_t glitchesBefore = render->counters().glitches; // the empty first run's
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(traced("!mbSetFormatCalled"), otherStarts);
        // Either way the hardware is back at the render stream's eight outputs
        // (through its own format, or the adapter's check at the start).
        EXPECT_EQ(rig.model().settings().current.outCH, 8u);
        EXPECT_EQ(rig.model().callCount(USBCall_ChangeConfig), 1u);

        pump.periods((2000 + e2e::kRenderWriteAhead) / 256 + 2);
        Played p = played(*out, before, 2);
        EXPECT_EQ(p.sound, asPlayed(sent, 16));
        EXPECT_EQ(render->counters().glitches, glitchesBefore);
    }
}

// ---- States ----

TEST(States, StartingWalksUpAndClosingWalksBackThroughEveryState) {
    Rig rig;
    for (KSSTATE from : {KSSTATE_RUN, KSSTATE_PAUSE, KSSTATE_ACQUIRE, KSSTATE_STOP}) {
        SCOPED_TRACE(hostpc::stateName(from));
        auto render = rig.open(false, 48000, 2, 16);
        ASSERT_TRUE(render);
        hostk::clearCaptured();
        ASSERT_EQ(render->setState(from), STATUS_SUCCESS);
        std::vector<int> up;
        for (int s = 1; s <= int(from); ++s)
            up.push_back(s);
        EXPECT_EQ(statesTraced(), up);
        hostk::clearCaptured();
        render->close();
        std::vector<int> down;
        for (int s = int(from) - 1; s >= 0; --s)
            down.push_back(s);
        EXPECT_EQ(statesTraced(), down);
        EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_INVALID_DEVICE_STATE)
            << "a closed pin takes no more states";
        EXPECT_TRUE(rig.directionFree(false));
    }
}

TEST(States, RepeatedStopAndStartPlayEachRunFromItsFirstFrame) {
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    std::vector<int32_t> heard;
    for (int run = 0; run < 6; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const auto sent = e2e::noise(2 * 4000, 16, 100 + run);
        Pump pump(rig, render.get(), e2e::pack(sent, 16), nullptr);
        pump.feed();
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(render->positionFrames(), 0u) << "a stopped stream starts from 0";
        // Stopped part way, at a different place in the cyclic buffer each time.
        const size_t periods = 3 + run * 2;
        pump.periods(periods);
        EXPECT_EQ(render->positionFrames(), periods * 256);
        const size_t transferred = render->positionFrames();
        ASSERT_EQ(render->setState(KSSTATE_STOP), STATUS_SUCCESS);
        EXPECT_EQ(render->positionFrames(), 0u);
        EXPECT_EQ(render->queuedFrames(), 0u) << "what a stopped pin had queued is dropped";
        const auto part = asPlayed(sent, 16, transferred * 2);
        heard.insert(heard.end(), part.begin(), part.end());
        EXPECT_EQ(render->counters().glitches, 0u);
    }
    rig.model().runPeriods(e2e::kRenderWriteAhead / 256 + 2);
    EXPECT_EQ(played(*out, 0, 2).sound, heard)
        << "every run played its own frames from the first, nothing stale in between";
}

TEST(States, PauseAndResumeLoseNothingAndRepeatNothing) {
    Rig rig;
    auto out = std::make_shared<usbsim::MemoryOutput>();
    rig.model().setOutput(out);
    auto render = rig.open(false, 48000, 2, 24);
    ASSERT_TRUE(render);
    const size_t frames = 40 * 256 + 100;
    const auto sent = e2e::noise(2 * frames, 24, 21);
    Pump pump(rig, render.get(), e2e::pack(sent, 24), nullptr);
    pump.feed();
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    for (int cycle = 0; cycle < 5; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        pump.periods(3 + cycle);
        ASSERT_EQ(render->setState(KSSTATE_PAUSE), STATUS_SUCCESS);
        const uint64_t at = render->positionFrames();
        const size_t heardBefore = played(*out, 0, 2).sound.size();
        pump.periods(e2e::kRenderWriteAhead / 256 + 4);
        EXPECT_EQ(render->positionFrames(), at) << "a paused stream does not move";
        // Only what was already in the device's ring and the port's lead
        // plays during the pause; then silence, never stale audio.
        EXPECT_LE(played(*out, 0, 2).sound.size() - heardBefore,
                  (e2e::kRenderWriteAhead + render->leadFrames() + 1) * 2);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    }
    pump.periods(frames / 256 + e2e::kRenderWriteAhead / 256 + 4);
    EXPECT_EQ(render->counters().glitches, 0u);
    EXPECT_EQ(render->counters().framesCopied, frames);
    EXPECT_EQ(played(*out, 0, 2).sound, asPlayed(sent, 24));
}

} // namespace
