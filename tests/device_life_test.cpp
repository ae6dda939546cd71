// A device's life in the field, end to end and on both builds: unplugged at
// every stage of a stream's life (the pins walk down and close, then the
// remove request comes), replugged over and over with streams open, put to
// sleep mid-stream, stopped for a rebalance, removed in order or not, and
// removed before its start while another device waits for the hand-over.
#include "support/E2eRig.h"
#include "support/TraceCapture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace {

using e2e::Pump;
using e2e::Rig;
using hostpc::KsStream;
using hostpc::PnpState;

constexpr size_t kPeriodsPerSecond = 48000 / 256;
constexpr uint32_t kLoopback = 512;
constexpr size_t kRoundTrip = e2e::kRenderWriteAhead + kLoopback;

// What every client of a vanished device sees, then what its closing brings:
// requests that would reach the device fail, the position still reads, the
// walk down to STOP and the close reach the stream; the remove request comes
// with the last close, and nothing reaches the USB driver any more.
void expectUnpluggedThenClosed(Rig& rig, PDEVICE_OBJECT fdo,
                               std::vector<std::unique_ptr<KsStream>>& streams) {
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::SurpriseRemoved);
    const uint64_t exchanges = rig.model().exchangeCalls();
    rig.model().runPeriods(4);
    EXPECT_EQ(rig.model().exchangeCalls(), exchanges) << "a period reached the unplugged driver";
    std::vector<UCHAR> format;
    EXPECT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin,
                                    hostpc::clientRange(2, 16, 24, 48000, 48000), &format),
              STATUS_DEVICE_REMOVED);
    std::unique_ptr<KsStream> late;
    EXPECT_EQ(rig.filter->open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 16), {}, &late),
              STATUS_DEVICE_REMOVED);
    for (auto& s : streams) {
        EXPECT_TRUE(s->removed());
        EXPECT_EQ(s->setFormat(hostpc::pcmFormat(44100, 2, 16)), STATUS_DEVICE_REMOVED);
        if (s->state() != KSSTATE_RUN) {
            EXPECT_EQ(s->setState(KSSTATE_RUN), STATUS_DEVICE_REMOVED);
        }
        s->positionFrames();
        EXPECT_EQ(s->setState(KSSTATE_STOP), STATUS_SUCCESS) << "the walk down reaches the stream";
        if (!s->isCapture()) {
            EXPECT_EQ(s->write("\1\2\3\4", 1), 0u);
        }
    }
    rig.model().clearCalls();
    streams.clear();
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::SurpriseRemoved) << "the filter is still open";
    rig.filter.reset();
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::Removed);
    for (const auto& call : rig.model().calls())
        EXPECT_EQ(call.answer, STATUS_NO_SUCH_DEVICE) << "call " << call.code;
    EXPECT_EQ(tracecap::openTraces(), 0) << "the trace's indentation is back at zero";
}

std::vector<std::unique_ptr<KsStream>> openBoth(Rig& rig, ULONG rate = 48000) {
    std::vector<std::unique_ptr<KsStream>> streams;
    streams.push_back(rig.open(true, rate, 2, 16));
    streams.push_back(rig.open(false, rate, 2, 16));
    return streams;
}

void runAll(std::vector<std::unique_ptr<KsStream>>& streams) {
    for (auto& s : streams)
        ASSERT_EQ(s->setState(KSSTATE_RUN), STATUS_SUCCESS);
}

// ---- Unplugged ----

TEST(Unplug, AtEveryStageOfAStreamTheClientsWalkDownAndTheDeviceGoes) {
    enum Stage { BeforeAttach, Opened, Running, InAConfigurationChange, AttachTimerArmed };
    for (Stage stage : {BeforeAttach, Opened, Running, InAConfigurationChange, AttachTimerArmed}) {
        SCOPED_TRACE("stage " + std::to_string(stage));
        Rig rig;
        ASSERT_TRUE(rig.started());
        rig.model().setLoopback(kLoopback);
        PDEVICE_OBJECT fdo = rig.harness.fdo();
        auto streams = openBoth(rig, stage == InAConfigurationChange ? 96000 : 48000);
        ASSERT_TRUE(streams[0] && streams[1]);
        switch (stage) {
        case BeforeAttach:
            rig.model().setAutoAttach(false);
            runAll(streams);
            rig.model().runPeriods(3);
            ASSERT_FALSE(rig.model().mmeAttached());
            rig.model().unplug();
            break;
        case Opened:
            rig.model().unplug();
            break;
        case Running: {
            runAll(streams);
            rig.model().runPeriods(20);
            ASSERT_GT(streams[0]->positionFrames(), 0u);
            rig.model().unplug();
            std::vector<uint8_t> recorded(20 * 256 * 4);
            EXPECT_EQ(streams[0]->read(recorded.data(), 20 * 256), 20u * 256)
                << "what was recorded is still there";
            break;
        }
        case InAConfigurationChange:
            // The device vanishes inside the USB driver's dispatch of the
            // change that capture's start asks for (alone: with render open
            // at the old rate the driver would refuse the new one itself).
            streams.pop_back();
            rig.model().setDuringCall([&](ULONG code) {
                if (code == USBCall_ChangeConfig)
                    rig.model().unplug();
            });
            EXPECT_FALSE(NT_SUCCESS(streams[0]->setState(KSSTATE_RUN)));
            rig.model().setDuringCall(nullptr);
            EXPECT_NE(streams[0]->state(), KSSTATE_RUN);
            break;
        case AttachTimerArmed:
            runAll(streams);
            rig.model().runPeriods(4);
            rig.model().asioAttach();
            rig.model().asioDetach(); // the attach timer: a second from now
            rig.model().unplug();
            rig.model().runPeriods(2 * kPeriodsPerSecond); // it fires, its call goes nowhere
            EXPECT_EQ(rig.model().callCount(USBCall_TimedStart), 0u);
            break;
        }
        EXPECT_FALSE(rig.model().present());
        expectUnpluggedThenClosed(rig, fdo, streams);
    }
}

// The device of a second instance vanishes during that instance's start,
// and another device during a second one's start: each start completes
// first, then its surprise removal comes; the hand-over stays free.
TEST(Unplug, DuringADevicesStartTheRemovalWaitsForTheStart) {
    Rig rig;
    PDEVICE_OBJECT first = rig.harness.fdo();
    auto streams = openBoth(rig);
    runAll(streams);
    rig.model().runPeriods(8);

    usbsim::UsbDriverModel second;
    second.setDuringCall([&](ULONG code) {
        if (code == USBCall_Register)
            rig.model().unplug(); // the first device, while the second starts
        if (code == USBCall_AdapterStarted)
            second.unplug(); // and the second itself, within its own start
    });
    ASSERT_EQ(rig.harness.loader.addDevice(second.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(rig.harness.loader.startDevice(second.pdo()), STATUS_SUCCESS);
    second.setDuringCall(nullptr);
    EXPECT_EQ(rig.harness.loader.fdo(second.pdo()), nullptr) << "removed once its start was done";
    expectUnpluggedThenClosed(rig, first, streams);

    // Both gone, the next device is added and started at its first attempt.
    usbsim::UsbDriverModel third;
    tracecap::clearTrace();
    EXPECT_EQ(rig.harness.loader.addDevice(third.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(rig.harness.loader.startDevice(third.pdo()), STATUS_SUCCESS);
    EXPECT_FALSE(e2e::traced("_pdoUseLock is aquired"));
    EXPECT_NE(third.link(), nullptr);
    rig.harness.loader.removeDevice(third.pdo()); // before its bus driver goes
}

// A device removed between its add and its start (its start failed below
// the driver, or it was unplugged meanwhile) never takes its parked physical
// device object: the next add must find the hand-over free, not wait five
// seconds and fail.
TEST(Unplug, ADeviceGoneBeforeItsStartLeavesTheHandOverFree) {
    for (bool unplugged : {true, false}) {
        SCOPED_TRACE(unplugged ? "unplugged before its start" : "its start failed below");
        usbsim::UsbDriverModel first, next; // bus drivers outlive the driver's devices
        hostpc::DriverLoader loader;
        ASSERT_EQ(loader.addDevice(first.pdo()), STATUS_SUCCESS);
        if (unplugged) {
            first.unplug();
        } else {
            first.unplug(); // the bus fails the start request of a device it no longer has
            EXPECT_EQ(hostpc::startDevice(loader.fdo(first.pdo())), STATUS_INVALID_PARAMETER);
        }
        EXPECT_EQ(loader.fdo(first.pdo()), nullptr);
        tracecap::clearTrace();
        hostk::resetDelayCount();
        EXPECT_EQ(loader.addDevice(next.pdo()), STATUS_SUCCESS);
        EXPECT_EQ(hostk::delayCount(), 0u) << "the add waited for a device that never starts";
        EXPECT_EQ(loader.startDevice(next.pdo()), STATUS_SUCCESS);
        EXPECT_NE(next.link(), nullptr);
    }
}

// The clock's own thread runs periods while the port services on its DPC
// thread; the unplug comes from the client's thread in the middle of that.
TEST(Unplug, FromAnotherThreadWhileTheClockAndTheServiceRun) {
    for (int round = 0; round < 6; ++round) {
        Rig rig;
        rig.harness.loader.setServiceMode(hostpc::ServiceMode::Concurrent);
        rig.model().setLoopback(kLoopback);
        PDEVICE_OBJECT fdo = rig.harness.fdo();
        auto streams = openBoth(rig);
        runAll(streams);
        rig.model().startRealTime();
        std::vector<uint8_t> chunk(4096 * 4);
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(5 + 7 * round);
        while (std::chrono::steady_clock::now() < until) {
            streams[0]->read(chunk.data(), 4096);
            streams[1]->write(chunk.data(), 256);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        rig.model().unplug();
        rig.model().stopRealTime();
        expectUnpluggedThenClosed(rig, fdo, streams);
    }
}

// The client closes its pins on one thread while the device vanishes on
// another, at varying offsets.
TEST(Unplug, WhileTheClientClosesItsPins) {
    for (int round = 0; round < 16; ++round) {
        Rig rig;
        rig.harness.loader.setServiceMode(hostpc::ServiceMode::Concurrent);
        auto streams = openBoth(rig);
        runAll(streams);
        rig.model().runPeriods(4);
        std::thread closer([&] {
            hostk::enterDriverThread();
            std::this_thread::sleep_for(std::chrono::microseconds(20 * round));
            streams.clear();
            rig.filter.reset();
        });
        rig.model().unplug();
        closer.join();
        EXPECT_EQ(hostpc::pnpState(rig.harness.fdo()), PnpState::Removed);
        EXPECT_TRUE(hostk::assertReports().empty());
    }
}

// ---- Replugged ----

// A replug is a new device object that the loaded driver adds and starts at
// once, while the old device waits for its client to close; audio through
// the new one is bit-exact from its first frame. Then a hundred more rounds
// with streams open, ending with nothing left over.
TEST(Replug, ANewDeviceStreamsBitExactWhileTheOldOneWaitsForItsClient) {
    Rig rig;
    const uint64_t firstInstance = rig.model().instance();
    for (int round = 0; round < 101; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        rig.model().setLoopback(kLoopback);
        auto streams = openBoth(rig);
        ASSERT_TRUE(streams[0] && streams[1]);
        const bool check = round == 0 || round == 100;
        const auto sent = e2e::noise(2 * 40 * 256, 16, 7 + round);
        Pump pump(rig, streams[1].get(), e2e::pack(sent, 16), streams[0].get());
        runAll(streams);
        pump.periods(check ? 40 : 3);
        if (check) {
            const auto got = e2e::unpack(pump.captured, 16);
            ASSERT_GE(got.size(), 2 * kRoundTrip + 2 * 256);
            for (size_t i = 0; i < got.size(); ++i) {
                const int32_t want =
                    i < 2 * kRoundTrip ? 0 : e2e::loopbackValue(sent[i - 2 * kRoundTrip], 16);
                ASSERT_EQ(got[i], want) << "sample " << i;
            }
        }
        PDEVICE_OBJECT old = rig.harness.fdo();
        rig.model().unplug();
        ASSERT_EQ(rig.model().replug(), STATUS_SUCCESS);
        ASSERT_NE(rig.harness.fdo(), old);
        EXPECT_EQ(hostpc::pnpState(rig.harness.fdo()), PnpState::Started);
        EXPECT_EQ(hostpc::pnpState(old), PnpState::SurpriseRemoved) << "its client still holds it";
        EXPECT_NE(rig.model().link(), nullptr);
        streams.clear();
        rig.filter.reset(new hostpc::WaveFilter(hostpc::subdevice(rig.harness.fdo(), u"Wave")));
        EXPECT_EQ(hostpc::pnpState(old), PnpState::Removed);
    }
    EXPECT_EQ(rig.model().instance(), firstInstance + 101);
    EXPECT_EQ(hostpc::devices().size(), 1u);
    EXPECT_EQ(hostk::queuedDpcs(), 0u);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    EXPECT_FALSE(rig.model().realTimeRunning());
}

// The model's schedule unplugs and replugs on its own clock, as a profile
// asks; the loaded driver serves the new device.
TEST(Replug, TheScheduleUnplugsAndReplugsOnTheClock) {
    Rig rig;
    PDEVICE_OBJECT old = rig.harness.fdo();
    rig.model().schedule({10, usbsim::EventKind::Unplug, 200});
    rig.model().runPeriods(10);
    EXPECT_TRUE(rig.model().present());
    rig.model().runPeriods(1);
    EXPECT_FALSE(rig.model().present());
    const uint64_t ticks = rig.model().ticksFor(200);
    rig.model().runPeriods(ticks);
    EXPECT_TRUE(rig.model().present());
    EXPECT_NE(rig.harness.fdo(), old);
    EXPECT_EQ(hostpc::pnpState(rig.harness.fdo()), PnpState::Started);
    rig.filter.reset();
    EXPECT_EQ(hostpc::pnpState(old), PnpState::Removed);
}

// ---- Sleep ----

// The system sleeps for half a second with a loopback running: the port
// pauses the pins before the device goes to D3 and runs them again once it
// is back; what the device captured meanwhile is lost, and the audio after
// the gap is the signal again, bit-exact, nothing repeated.
TEST(Sleep, AStreamPausedAcrossD3ResumesBitExactAfterTheGap) {
    Rig rig;
    rig.model().setLoopback(kLoopback);
    PDEVICE_OBJECT fdo = rig.harness.fdo();
    auto streams = openBoth(rig);
    const auto sent = e2e::noise(2 * 300 * 256, 16, 41);
    Pump pump(rig, streams[1].get(), e2e::pack(sent, 16), streams[0].get());
    runAll(streams);
    pump.periods(40);
    rig.model().sleepSystem(500);
    EXPECT_EQ(hostpc::devicePower(fdo), PowerDeviceD3);
    EXPECT_TRUE(rig.model().suspended());
    EXPECT_FALSE(rig.model().mmeAttached());
    for (auto& s : streams)
        EXPECT_EQ(s->state(), KSSTATE_PAUSE) << "the port paused it";
    EXPECT_EQ(streams[0]->setState(KSSTATE_RUN), STATUS_DEVICE_NOT_READY);
    const uint64_t exchanges = rig.model().exchangeCalls();
    pump.periods(rig.model().ticksFor(500)); // the clock's ticks asleep
    EXPECT_EQ(rig.model().exchangeCalls(), exchanges);
    pump.periods(1); // wakes at the start of this one
    EXPECT_EQ(hostpc::devicePower(fdo), PowerDeviceD0);
    for (auto& s : streams)
        EXPECT_EQ(s->state(), KSSTATE_RUN) << "the port ran it again";
    pump.periods(120);
    EXPECT_TRUE(rig.model().mmeAttached());

    // Silence for the round trip, then the signal: up to the sleep and on
    // from where it resumed, bit-exact, never going back. A gap of silence
    // or of skipped frames at the sleep is allowed (here none comes: both
    // directions stood still alike).
    const auto got = e2e::unpack(pump.captured, 16);
    ASSERT_GT(got.size(), 2 * kRoundTrip + 2 * 150 * 256);
    for (size_t i = 0; i < 2 * kRoundTrip; ++i)
        ASSERT_EQ(got[i], 0) << "sample " << i;
    size_t k = 0, gaps = 0;
    for (size_t at = 2 * kRoundTrip; at < got.size();) {
        if (k < sent.size() && got[at] == e2e::loopbackValue(sent[k], 16)) {
            ++at;
            ++k;
            continue;
        }
        ASSERT_EQ(gaps++, 0u) << "a second discontinuity at sample " << at;
        while (at < got.size() && got[at] == 0)
            ++at;
        const size_t from = k;
        while (k < sent.size() && at < got.size() && e2e::loopbackValue(sent[k], 16) != got[at])
            ++k;
        ASSERT_LT(k, sent.size()) << "after the sleep, what came back was never sent after sample "
                                  << from;
    }
    EXPECT_GT(k, 2u * 150 * 256) << "the signal went on well past the sleep";
    streams.clear();

    // A device unplugged while the system sleeps: the system still wakes.
    usbsim::UsbDriverModel other;
    ASSERT_EQ(rig.harness.loader.addDevice(other.pdo()), STATUS_SUCCESS);
    ASSERT_EQ(rig.harness.loader.startDevice(other.pdo()), STATUS_SUCCESS);
    rig.model().sleepSystem(100);
    EXPECT_EQ(hostpc::devicePower(rig.harness.loader.fdo(other.pdo())), PowerDeviceD3);
    rig.model().unplug();
    rig.model().runPeriods(rig.model().ticksFor(100) + 1);
    EXPECT_EQ(hostpc::devicePower(rig.harness.loader.fdo(other.pdo())), PowerDeviceD0);
    rig.harness.loader.removeDevice(other.pdo());
}

// ---- Stopped, queried, removed in order ----

// A rebalance without an open pin and with a running one: the port walks the
// pin to STOP, the stop goes through, and the start routine is called a
// second time; the driver refuses a second start (nothing is parked for it),
// so the device is surprise-removed and goes once its client closes.
TEST(Rebalance, TheSecondStartIsRefusedAndTheDeviceGoesWithItsClient) {
    for (bool pinOpen : {false, true}) {
        SCOPED_TRACE(pinOpen ? "a pin running" : "no pin open");
        Rig rig;
        PDEVICE_OBJECT fdo = rig.harness.fdo();
        std::vector<std::unique_ptr<KsStream>> streams;
        if (pinOpen) {
            streams.push_back(rig.open(false, 48000, 2, 16));
            runAll(streams);
            rig.model().runPeriods(8);
        }
        // A second device waits between its add and its start meanwhile:
        // the restart must not take its physical device object.
        usbsim::UsbDriverModel waiting;
        ASSERT_EQ(rig.harness.loader.addDevice(waiting.pdo()), STATUS_SUCCESS);
        tracecap::clearTrace();
        EXPECT_EQ(hostpc::rebalance(fdo), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(
            tracecap::countLines("+ StartDevice [DeviceObject] 0x" + tracecap::kernelPointer(fdo)),
            1u);
        if (pinOpen) {
            EXPECT_TRUE(e2e::traced("WAVE STOP")) << "the port stopped the pin before the stop";
            EXPECT_EQ(streams[0]->state(), KSSTATE_STOP);
        }
        EXPECT_EQ(hostpc::pnpState(fdo), PnpState::SurpriseRemoved);
        EXPECT_EQ(waiting.link(), nullptr) << "the restart took another device's object";
        ASSERT_EQ(rig.harness.loader.startDevice(waiting.pdo()), STATUS_SUCCESS);
        EXPECT_NE(waiting.link(), nullptr);
        rig.harness.loader.removeDevice(waiting.pdo());
        streams.clear();
        rig.filter.reset();
        EXPECT_EQ(hostpc::pnpState(fdo), PnpState::Removed);
        EXPECT_EQ(rig.model().callCount(USBCall_Unregister), 1u);
    }
}

// The orderly removal: refused while a handle is open (the device keeps
// streaming), cancelled after it succeeded (the device works on), and done.
TEST(QueryRemove, RefusedWhileHandlesAreOpenCancelledOrFollowedByTheRemoval) {
    Rig rig;
    PDEVICE_OBJECT fdo = rig.harness.fdo();
    auto streams = openBoth(rig);
    runAll(streams);
    EXPECT_EQ(hostpc::queryRemove(fdo), STATUS_DEVICE_BUSY);
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::Started);
    const uint64_t frames = streams[0]->positionFrames();
    rig.model().runPeriods(4);
    EXPECT_GT(streams[0]->positionFrames(), frames);
    streams.clear();
    rig.filter.reset();

    ASSERT_EQ(hostpc::queryRemove(fdo), STATUS_SUCCESS);
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::RemovePending);
    hostpc::WaveFilter refused(hostpc::subdevice(fdo, u"Wave"));
    EXPECT_TRUE(refused.pins().empty()) << "no new handle while a removal is pending";
    hostpc::cancelRemove(fdo);
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::Started);
    rig.filter.reset(new hostpc::WaveFilter(hostpc::subdevice(fdo, u"Wave")));
    auto again = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(again);
    again.reset();
    rig.filter.reset();

    ASSERT_EQ(hostpc::queryRemove(fdo), STATUS_SUCCESS);
    hostpc::removeQueried(fdo);
    EXPECT_EQ(hostpc::pnpState(fdo), PnpState::Removed);
    EXPECT_EQ(rig.model().callCount(USBCall_Unregister), 1u);
}

} // namespace
