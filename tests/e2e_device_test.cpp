// End to end through the client API: the rate rules between the two
// directions, the KS state cycles, an ASIO client taking the device and
// leaving, the USB driver's refusals and digital lock, exclusive inputs, and
// pins opened while the device is unplugged.
#include "support/E2eRig.h"
#include "support/TraceCapture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

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
    for (const std::string& m : tracecap::traceMessages())
        if (m.find("NewState is ") != std::string::npos)
            states.push_back(std::stoi(m.substr(m.find("NewState is ") + 12)));
    return states;
}

// ---- Directions ----

// Intersection then offers only the open stream's rate, and the start of a
// stream at another rate is refused.
TEST(Directions, RenderAtAnotherRateIsRefusedAtStartWhileCaptureIsOpen) {
    for (bool captureRunning : {false, true}) {
        SCOPED_TRACE(captureRunning ? "capture running" : "capture stopped");
        Rig rig;
        std::vector<UCHAR> format;
        ULONG index = 99;
        const auto anyRate = hostpc::clientRange(2, 16, 32, 8000, 192000);
        // Nothing open: the pin's first range that the client's range meets.
        ASSERT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin, anyRate, &format, &index),
                  STATUS_SUCCESS);
        EXPECT_EQ(hostpc::waveFormatOf(format)->nSamplesPerSec, 44100u);
        EXPECT_EQ(index, 0u);
        auto capture = rig.open(true, 48000, 2, 16);
        ASSERT_TRUE(capture);
        EXPECT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin,
                                        hostpc::clientRange(2, 16, 32, 44100, 44100), &format),
                  STATUS_NO_MATCH);
        ASSERT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin, anyRate, &format, &index),
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
        EXPECT_TRUE(traced("SetFormat returned C000000D"));
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

TEST(Directions, RenderAloneChangesTheRateAndCaptureThenFollowsIt) {
    Rig rig;
    auto out = rig.output();
    rig.model().clearCalls();
    auto render = rig.open(false, 44100, 2, 24);
    ASSERT_TRUE(render);
    const auto sent = e2e::noise(2 * 3000, 24, 4);
    Pump pump(rig, render.get(), e2e::pack(sent, 24), nullptr);
    EXPECT_EQ(rig.model().callCount(USBCall_ChangeConfig), 0u) << "opening only records it";
    hostk::clearCaptured();
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.model().settings().current.fr, 44100u);
    for (const char* line :
         {"format change seems to be allowed", "mMMEAdapter->changeConfig success",
          "SamplingFrequency is now  44100", "SetFormat returned 00000000"})
        EXPECT_TRUE(traced(line)) << line;
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
    ASSERT_EQ(render->setState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.model().callCount(USBCall_ChangeConfig), 1u) << "the format is carried once";

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
        auto out = rig.output();
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
        const size_t before = out->frames();
        const uint64_t glitchesBefore = render->counters().glitches; // the empty first run's
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(traced("!mbSetFormatCalled"), otherStarts);
        EXPECT_EQ(traced("START STREAM : check other stream frequency"), otherStarts);
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
        EXPECT_EQ(tracecap::countLinesStartingWith("+ MMEDMAEmulator::Stop"),
                  from == KSSTATE_RUN ? 1u : 0u)
            << "the DMA channel stops only when the stream leaves run";
        EXPECT_EQ(traced("WAVE STOP"), from != KSSTATE_STOP);
        EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_INVALID_DEVICE_STATE)
            << "a closed pin takes no more states";
        EXPECT_NE(rig.open(false, 48000, 2, 16), nullptr) << "the driver let go of the pin";
    }
}

TEST(States, RepeatedStopAndStartPlayEachRunFromItsFirstFrame) {
    Rig rig;
    auto out = rig.output();
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    std::vector<int32_t> heard;
    for (int run = 0; run < 6; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const auto sent = e2e::noise(2 * 4000, 16, 100 + run);
        Pump pump(rig, render.get(), e2e::pack(sent, 16), nullptr);
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
    auto out = rig.output();
    auto render = rig.open(false, 48000, 2, 24);
    ASSERT_TRUE(render);
    const size_t frames = 160 * 256 + 100;
    const auto sent = e2e::noise(2 * frames, 24, 21);
    Pump pump(rig, render.get(), e2e::pack(sent, 24), nullptr);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    for (int cycle = 0; cycle < 5; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        pump.periods(17 + cycle); // more than a lap of the cyclic buffer each time
        ASSERT_EQ(render->setState(KSSTATE_PAUSE), STATUS_SUCCESS);
        const uint64_t at = render->positionFrames();
        const size_t heardBefore = played(*out, 0, 2).sound.size();
        pump.periods(24); // longer than the ring's write-ahead and the cyclic buffer together
        EXPECT_EQ(render->positionFrames(), at) << "a paused stream does not move";
        // The driver's channel moves while paused, by design. The documented
        // port writes silence ahead of it: only what was already in the
        // device's ring and the port's lead plays, never stale audio. The
        // open-source port writes nothing while paused: the device plays the
        // cyclic buffer round again.
        const size_t pausePlayed = played(*out, 0, 2).sound.size() - heardBefore;
        const size_t fresh = (e2e::kRenderWriteAhead + render->leadFrames() + 1) * 2;
        if (e2e::openSourcePort()) {
            EXPECT_GT(pausePlayed, fresh) << "the open-source port left the buffer as it was";
        } else {
            EXPECT_LE(pausePlayed, fresh);
        }
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    }
    pump.periods(frames / 256 + e2e::kRenderWriteAhead / 256 + 4);
    EXPECT_EQ(render->counters().glitches, 0u);
    EXPECT_EQ(render->counters().framesCopied, frames) << "the client lost and repeated nothing";
    if (!e2e::openSourcePort()) {
        EXPECT_EQ(played(*out, 0, 2).sound, asPlayed(sent, 24));
    }
}

// ---- ASIO client ----

// Periods of 256 frames at 48000 Hz in the attach timer's second.
constexpr size_t kPeriodsPerSecond = 48000 / 256; // 187.5, rounded down

TEST(Asio, StreamsPauseWhileItHoldsTheDeviceAndResumeThroughTheAttachTimer) {
    Rig rig;
    auto out = rig.output();
    auto render = rig.open(false, 48000, 2, 16);
    auto capture = rig.open(true, 48000, 2, 16);
    ASSERT_TRUE(render && capture);
    const auto sent = e2e::noise(2 * 100 * 256, 16, 31);
    Pump pump(rig, render.get(), e2e::pack(sent, 16), capture.get());
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(20);
    ASSERT_EQ(render->positionFrames(), 20u * 256);

    // Back within the second: the timed start is cancelled.
    rig.model().asioAttach();
    rig.model().asioDetach();
    pump.periods(kPeriodsPerSecond / 2);
    rig.model().asioAttach();
    EXPECT_FALSE(rig.model().mmeAttached());
    pump.periods(2 * kPeriodsPerSecond);
    EXPECT_EQ(rig.model().callCount(USBCall_TimedStart), 0u);
    EXPECT_EQ(render->positionFrames(), 20u * 256) << "no period reaches the driver";
    EXPECT_EQ(capture->positionFrames(), 20u * 256);

    rig.model().clearCalls();
    rig.model().asioDetach();
    size_t waited = 0;
    while (render->positionFrames() == 20u * 256 && waited < 4 * kPeriodsPerSecond) {
        pump.periods(1);
        ++waited;
    }
    // One second after the ASIO client left: timed start, then attach at the
    // next period, whose exchange moves the streams on.
    EXPECT_GE(waited, kPeriodsPerSecond);
    EXPECT_LE(waited, kPeriodsPerSecond + 3);
    EXPECT_EQ(rig.model().callCount(USBCall_TimedStart), 1u);
    EXPECT_GE(rig.model().callCount(USBCall_Attach), 1u);
    EXPECT_TRUE(rig.model().mmeAttached());

    pump.periods(100 + e2e::kRenderWriteAhead / 256);
    EXPECT_EQ(render->counters().glitches, 0u);
    EXPECT_EQ(capture->counters().overruns, 0u);
    EXPECT_EQ(e2e::played(*out, 0, 2).sound, asPlayed(sent, 16))
        << "the render stream went on where it stopped, nothing lost or repeated";
}

// ---- The USB driver's own rules ----

TEST(UsbDriver, ARefusedConfigurationFailsTheStartAndChangesNothing) {
    auto profile = usbsim::DeviceProfile::builtInDefault();
    usbsim::RefusalRule rule;
    rule.fr = 96000;
    rule.reason = "the clock does not lock at 96 kHz";
    profile.accept.refuse.push_back(rule);
    profile.accept.rates = {44100, 48000, 88200, 96000}; // 176400 and 192000 not at all
    Rig rig(profile);
    for (ULONG rate : {96000u, 192000u}) {
        SCOPED_TRACE(rate);
        auto render = rig.open(false, rate, 2, 16);
        ASSERT_TRUE(render) << "the filter offers the rate; the USB driver decides at the start";
        rig.model().clearCalls();
        hostk::clearCaptured();
        EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_INVALID_DEVICE_STATE);
        EXPECT_EQ(render->state(), KSSTATE_PAUSE);
        EXPECT_TRUE(traced("Configuration change was prevented by usb driver"));
        auto calls = rig.model().calls();
        auto change = std::find_if(calls.begin(), calls.end(),
                                   [](const auto& c) { return c.code == USBCall_ChangeConfig; });
        ASSERT_NE(change, calls.end());
        EXPECT_EQ(change->answer, STATUS_NOT_SUPPORTED);
        if (rate == 96000) {
            EXPECT_NE(change->note.find(rule.reason), std::string::npos) << change->note;
        }
        EXPECT_EQ(rig.model().settings().current.fr, 48000u);
        rig.model().runPeriods(4);
        EXPECT_EQ(render->positionFrames(), 0u);
        EXPECT_EQ(render->counters().glitches, 0u) << "a stream that never ran never glitched";
    }
    auto render = rig.open(false, 88200, 2, 16);
    ASSERT_TRUE(render);
    EXPECT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.model().settings().current.fr, 88200u);
    render.reset();

    // A digital lock allows only its rate.
    rig.model().setDigitalLock(44100);
    hostk::clearCaptured();
    const size_t blocks = hostk::poolStats().liveBlocks;
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(rig.open(true, 48000, 2, 24, &status), nullptr);
    EXPECT_EQ(status, STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(traced("doValidateFormat: validate digital lock frequency 44100"));
    EXPECT_TRUE(traced("samplerate not allowed requested/digital 48000 44100"));
    EXPECT_FALSE(traced("+ MMEWaveStream::MMEWaveStream")) << "refused before any stream";
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocks);
    auto capture = rig.open(true, 44100, 2, 24);
    ASSERT_TRUE(capture);
    EXPECT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.model().settings().current.fr, 44100u);
}

TEST(UsbDriver, ExclusiveInputsOnAScheduleSilenceCaptureMeanwhile) {
    auto profile = usbsim::DeviceProfile::builtInDefault();
    profile.schedule = {{10, usbsim::EventKind::ExclusiveInputsOn, 0},
                        {20, usbsim::EventKind::ExclusiveInputsOff, 0}};
    Rig rig(profile);
    rig.model().setInput(std::make_shared<usbsim::PatternInput>());
    auto capture = rig.open(true, 48000, 2, 24);
    ASSERT_TRUE(capture);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    Pump pump(rig, nullptr, {}, capture.get());
    pump.periods(30);
    const auto got = e2e::unpack(pump.captured, 24);
    ASSERT_EQ(got.size(), 30u * 256 * 2);
    size_t wrong = 0;
    for (size_t f = 0; f < 30 * 256; ++f)
        for (uint32_t c = 0; c < 2; ++c) {
            const bool exclusive = f >= 10 * 256 && f < 20 * 256;
            const int32_t want =
                exclusive ? 0 : e2e::captureValue(usbsim::PatternInput::sample(f, c), 24);
            wrong += got[f * 2 + c] != want;
        }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(capture->positionFrames(), 30u * 256) << "the stream moves on through silence";
    EXPECT_EQ(capture->counters().overruns, 0u);
}

// ---- Unplugged while a client opens pins, the port servicing on its DPC
// thread as on Windows ----

TEST(Removal, PinsOpenedWhileTheDeviceIsUnpluggedAreRefusedOrGoWithIt) {
    for (int round = 0; round < 20; ++round) {
        Rig rig;
        rig.harness.loader.setServiceMode(hostpc::ServiceMode::Concurrent);
        std::atomic<bool> removed{false};
        std::atomic<size_t> opened{0}, refused{0};
        std::vector<std::unique_ptr<hostpc::KsStream>> kept;
        std::thread opener([&] {
            hostk::enterDriverThread(); // a client thread that runs the driver
            // Keeps opening render pins until well after the removal.
            for (int after = 0; after < 5;) {
                // Only an open begun once the unplug returned must fail.
                const bool begunAfter = removed;
                NTSTATUS status = STATUS_SUCCESS;
                auto s = rig.open(false, 48000, 2, 16, &status);
                if (s) {
                    ++opened;
                    kept.push_back(std::move(s)); // held past the removal
                    kept.erase(kept.begin(), kept.end() - 1);
                } else if (begunAfter) {
                    ++refused;
                }
                if (begunAfter)
                    ++after;
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(50 * round));
        rig.model().unplug();
        removed = true;
        opener.join();
        EXPECT_EQ(refused.load(), 5u) << "every open after the unplug fails";
        for (auto& s : kept)
            EXPECT_TRUE(s->removed());
        PDEVICE_OBJECT fdo = rig.harness.fdo();
        kept.clear();
        rig.filter.reset();
        EXPECT_EQ(hostpc::pnpState(fdo), hostpc::PnpState::Removed)
            << "the remove request came with the last close";
        EXPECT_TRUE(hostk::assertReports().empty());
    }
}

} // namespace
