// The driver across threads, each race forced or provoked once (under
// ThreadSanitizer in the tsan preset): the adapter's USB call, timer and
// notifications against its destruction; the whole stack with the model's
// real-time clock running while clients churn streams; stream slots taken
// from two threads; the period transfer while the port's side reshapes and
// frees the channels.
#include "host/kernel/HostKernel.h"
#include "support/AdapterHarness.h"
#include "support/E2eRig.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include "driver/wave/MMEWaveStream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

// One side of a race held at a hook until the test lets it go, and what the
// other side reached meanwhile.
struct Gate {
    void arrive(bool* flag) {
        std::unique_lock<std::mutex> lock(mutex);
        *flag = true;
        changed.notify_all();
        if (flag == &held)
            changed.wait(lock, [&] { return open; });
    }
    template <class Pred> void waitFor(Pred pred) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, pred);
    }
    void letGo() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool held = false;          // the first side sits at its hook
    bool teardownWaits = false; // the teardown waits for it
    bool unregistered = false;  // the teardown went on to USBCall_Unregister
    bool open = false;
};

// A USB device whose dispatch holds calls of holdCode at its gate; it
// touches the request after the wait, as a real driver completing it.
struct SlowUsbDevice {
    SlowUsbDevice() {
        driver.MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &dispatch;
        device = hostk::createDeviceObject(&driver, 1, 0);
        current = this;
    }
    ~SlowUsbDevice() {
        current = nullptr;
        hostk::deleteDeviceObject(device);
    }
    static inline SlowUsbDevice* current = nullptr;
    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT, PIRP irp) {
        SlowUsbDevice* self = current;
        if (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode ==
            self->holdCode)
            self->gate.arrive(&self->gate.held);
        self->calls.fetch_add(1);
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(irp->UserBuffer);
        IoCompleteRequest(irp, 0);
        return STATUS_SUCCESS;
    }
    void waitEntered() {
        gate.waitFor([&] { return gate.held; });
    }
    void release() { gate.letGo(); }

    DRIVER_OBJECT driver{};
    PDEVICE_OBJECT device = nullptr;
    ULONG holdCode = 0xFFFFFFFF;
    Gate gate;
    std::atomic<int> calls{0};
};

class ConcurrencyAdapter : public ::testing::Test {
protected:
    void SetUp() override {
        // No subdevices: the tests need the adapter's request and channels only.
        hostpc::fail(hostpc::Op::NewPortTopology, STATUS_UNSUCCESSFUL);
        fdo = hostk::createDeviceObject(nullptr, 2, 0);
    }
    void TearDown() override {
        hostk::useVirtualTime(true);
        hostk::deleteDeviceObject(fdo);
        hostpc::resetForTest();
    }

    // A started adapter on usb, holding the caller's reference.
    MMEAdapter* startedAdapter(PDEVICE_OBJECT usb) {
        MMEAdapter* adapter = MMEAdapter::create(fdo, usb);
        IRP start{};
        adapter->start(&start);
        return adapter;
    }

    PDEVICE_OBJECT fdo = nullptr;
};

TEST_F(ConcurrencyAdapter, PreventFurtherCallsWaitsForTheCallOnAnotherThread) {
    SlowUsbDevice usb;
    MMEAdapter* adapter = startedAdapter(usb.device);
    ASSERT_NE(adapter->callIrp(), nullptr);
    usb.holdCode = USBCall_Attach;

    std::atomic<bool> result{false};
    std::thread caller([&] { result = adapter->callUSBDriver(USBCall_Attach); });
    usb.waitEntered();

    // From another thread while the call is in the USB driver: must neither
    // wait nor free the request under the call.
    std::thread notifier(
        [&] { MMEAdapter::notifyEntry(adapter, MMENotify_PreventFurtherDriverCalls, 0); });
    notifier.join();
    EXPECT_EQ(hostk::liveIrps(), 1u);
    EXPECT_NE(adapter->callIrp(), nullptr);

    usb.release();
    caller.join();
    EXPECT_TRUE(result.load());
    EXPECT_EQ(adapter->callIrp(), nullptr); // freed when the call ended
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_FALSE(adapter->callUSBDriver(USBCall_Attach));
    int sent = usb.calls.load();
    adapter->Release(); // Unregister cannot be sent any more
    EXPECT_EQ(usb.calls.load(), sent);
}

// The attach timer's routine held inside its USB call (on the thread that
// fires it) while the adapter's last reference goes: the destruction must
// not get past the timer's teardown until the routine is done with it.
TEST_F(ConcurrencyAdapter, AttachTimerFiringAgainstDestruction) {
    SlowUsbDevice usb;
    MMEAdapter* adapter = startedAdapter(usb.device);
    usb.holdCode = USBCall_TimedStart;
    adapter->setWaveRunning(true); // so the routine goes on to call the USB driver
    adapter->attachTimer()->set(1);
    std::thread firer([] { hostk::advanceTime(10 * 10000); });
    usb.waitEntered();

    std::atomic<int> cancels{0};
    hostk::setTimerObserver([&](PKTIMER, bool setting) {
        if (!setting)
            ++cancels;
    });
    std::atomic<bool> gone{false};
    std::thread removal([&] {
        adapter->Release();
        gone = true;
    });
    // The adapter cancels, then the timer's destructor cancels and flushes.
    while (cancels.load() < 2)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(gone.load()) << "the adapter went while its timer routine ran";
    usb.release();
    firer.join();
    removal.join();
    hostk::setTimerObserver(nullptr);
    EXPECT_TRUE(tracecap::containsLine("ATTACH TIMER"));
}

TEST_F(ConcurrencyAdapter, NotificationsAndStateQuestionsFromOtherThreads) {
    SlowUsbDevice usb;
    MMEAdapter* adapter = startedAdapter(usb.device);
    std::atomic<bool> stop{false};
    std::thread notifier([&] {
        for (int i = 0; i < 500; ++i) {
            MMEAdapter::notifyEntry(adapter,
                                    i % 2 ? MMENotify_OnMMEAttached : MMENotify_OnMMEDetached, 0);
            MMEAdapter::notifyEntry(adapter, MMENotify_OnAsioDetached, 0);
            MMEAdapter::notifyEntry(adapter, MMENotify_OnAsioAttached, 0);
        }
        stop = true;
    });
    LONG answers = 0;
    size_t asked = 0, odd = 0;
    while (!stop.load()) {
        const LONG answer = MMEAdapter::stcEntry(adapter, USBStc_IsMMEAttached, 0);
        odd += answer != 0 && answer != 1;
        answers += answer;
        ++asked;
        adapter->setWaveRunning(answers % 2 == 0);
    }
    notifier.join();
    EXPECT_EQ(odd, 0u) << "of " << asked << " answers";
    EXPECT_EQ(MMEAdapter::stcEntry(adapter, USBStc_IsMMEAttached, 0), 1);
    // Every notification acted on whole: the last ASIO arrival cancelled the
    // timer that the departures before it armed.
    EXPECT_EQ(tracecap::countLines("...MME Attached"), 250u);
    EXPECT_EQ(tracecap::countLines("...MME Detached"), 250u);
    EXPECT_EQ(tracecap::countLines("MMENotify_OnAsioDetached"), 500u);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    adapter->Release();
}

// A period callback inside the port's Notify (held at the notify listener)
// while the device is removed: the wave miniport's teardown must wait for it
// before it lets go of the port and the service group the callback uses.
TEST(RemovalRace, PeriodCallbackInNotifyAgainstTheWaveMiniportsTeardown) {
    Gate gate;
    {
        e2e::Rig rig;
        auto render = rig.open(false, 48000, 2, 16);
        ASSERT_TRUE(render);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        rig.model().runPeriods(2);
        std::atomic<bool> first{true};
        hostpc::setNotifyListener(rig.filter->port(), [&](PSERVICEGROUP) {
            if (first.exchange(false))
                gate.arrive(&gate.held);
        });
        hostk::setRundownWaitObserver([&](PEX_RUNDOWN_REF) { gate.arrive(&gate.teardownWaits); });
        rig.model().setDuringCall([&](ULONG code) {
            if (code == USBCall_Unregister)
                gate.arrive(&gate.unregistered);
        });
        std::thread period([&] { rig.model().runPeriods(1); });
        gate.waitFor([&] { return gate.held; });
        // The client closes, then the device goes: its remove request comes
        // once no handle is left.
        std::thread removal([&] {
            render.reset();
            rig.filter.reset();
            rig.harness.remove();
        });
        gate.waitFor([&] { return gate.teardownWaits || gate.unregistered; });
        EXPECT_TRUE(gate.teardownWaits);
        EXPECT_FALSE(gate.unregistered) << "the port and group went while Notify ran";
        gate.letGo();
        period.join();
        removal.join();
        hostk::setRundownWaitObserver(nullptr);
    }
    EXPECT_EQ(hostk::checkClean(), "");
}

// MMENotify_OnAsioDetached arming the attach timer (held in KeSetTimer) while
// the adapter's last reference goes: the destructor must not free the timer
// until the notification is done with it.
TEST_F(ConcurrencyAdapter, AsioNotificationArmingTheTimerAgainstDestruction) {
    SlowUsbDevice usb;
    MMEAdapter* adapter = startedAdapter(usb.device);
    usb.holdCode = USBCall_Unregister;
    Gate gate;
    std::atomic<bool> first{true};
    hostk::setTimerObserver([&](PKTIMER, bool setting) {
        if (setting && first.exchange(false))
            gate.arrive(&gate.held);
    });
    hostk::setRundownWaitObserver([&](PEX_RUNDOWN_REF) { gate.arrive(&gate.teardownWaits); });
    std::thread notifier([&] { MMEAdapter::notifyEntry(adapter, MMENotify_OnAsioDetached, 0); });
    gate.waitFor([&] { return gate.held; });
    std::thread removal([&] { adapter->Release(); });
    std::thread unregisterWatch([&] {
        usb.waitEntered();
        gate.arrive(&gate.unregistered);
    });
    gate.waitFor([&] { return gate.teardownWaits || gate.unregistered; });
    EXPECT_TRUE(gate.teardownWaits);
    EXPECT_FALSE(gate.unregistered) << "the timer was freed while being armed";
    gate.letGo();
    notifier.join();
    usb.release();
    removal.join();
    unregisterWatch.join();
    hostk::setTimerObserver(nullptr);
    hostk::setRundownWaitObserver(nullptr);
    EXPECT_EQ(hostk::pendingTimers(), 0u) << "the destructor cancels what was armed";
}

// ---- The whole stack with the clock on a thread of its own ----

// Each direction opened, run, paused or stopped and closed by a thread of its
// own while a third asks both pins for formats, reading the stream pointers,
// and the clock runs periods. Both at one rate: every start is carried to the
// hardware or finds it already there; none is refused.
TEST(StackConcurrency, BothDirectionsChurnOnTwoThreadsWhileFormatsAreNegotiated) {
    hostk::setSinkNull(); // thousands of state changes are traced
    e2e::Rig rig;
    ASSERT_TRUE(rig.started());
    rig.harness.loader.setServiceMode(hostpc::ServiceMode::Concurrent);
    rig.model().startRealTime();
    std::atomic<bool> stop{false};
    std::atomic<unsigned> unexpected{0};
    auto churn = [&](bool capture) {
        for (int i = 0; i < 40; ++i) {
            auto stream = rig.open(capture, 48000, 2, capture ? 24 : 16);
            if (!stream || stream->setState(KSSTATE_RUN) != STATUS_SUCCESS) {
                ++unexpected;
                continue;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            stream->setState(i % 3 ? KSSTATE_STOP : KSSTATE_PAUSE);
            if (i % 2)
                stream->setState(KSSTATE_RUN); // closed while running
        }
    };
    std::thread negotiate([&] {
        const KSDATARANGE_AUDIO wide = hostpc::clientRange(8, 16, 32, 8000, 192000);
        while (!stop.load()) {
            for (ULONG pin : {hostpc::kWaveCapturePin, hostpc::kWaveRenderPin}) {
                std::vector<UCHAR> format;
                const NTSTATUS status = rig.filter->intersect(pin, wide, &format);
                if (status != STATUS_SUCCESS && status != STATUS_NO_MATCH)
                    ++unexpected;
            }
        }
    });
    std::thread capturer(churn, true), renderer(churn, false);
    capturer.join();
    renderer.join();
    stop = true;
    negotiate.join();
    EXPECT_EQ(unexpected.load(), 0u);
    EXPECT_EQ(rig.harness.wave()->captureStream(), nullptr);
    EXPECT_EQ(rig.harness.wave()->renderStream(), nullptr);
    EXPECT_FALSE(rig.adapter()->isWaveRunning());

    // And they still run afterwards.
    auto capture = rig.open(true, 48000, 2, 24);
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(capture && render);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    const uint64_t until = rig.model().periodsRun() + 4;
    while (rig.model().periodsRun() < until && rig.model().realTimeRunning())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GT(capture->positionFrames(), 0u);
    EXPECT_TRUE(rig.adapter()->isWaveRunning());
    capture.reset();
    render.reset();
    rig.model().stopRealTime();
    EXPECT_EQ(rig.model().realTimeError(), "");
}

// ---- Stream slots and the period transfer ----

using wavetest::makeFormat;
using wavetest::StackRig;

// NewStream and final releases from two threads: one stream at a time gets
// the slot, and the slot is always given back. Forced first: the slot is
// claimed before the stream is built, so a second NewStream while the first
// is still allocating its stream is refused.
TEST(WaveConcurrency, NewStreamAndFinalReleaseRace) {
    StackRig stack;
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
    std::promise<void> building, secondDone;
    std::shared_future<void> release = secondDone.get_future().share();
    std::atomic<bool> held{false};
    hostk::setPoolObserver([&](ULONG, size_t size, bool) {
        if (size == sizeof(MMEWaveStream) && !held.exchange(true)) {
            building.set_value();
            release.wait();
        }
    });
    StackRig::Opened first;
    std::thread firstOpen([&] { first = stack.open(true, format); });
    building.get_future().wait();
    StackRig::Opened second = stack.open(true, format);
    secondDone.set_value();
    firstOpen.join();
    hostk::setPoolObserver({});
    EXPECT_EQ(second.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(first.status, STATUS_SUCCESS);
    StackRig::close(second);
    StackRig::close(first);

    std::atomic<int> opened{0}, refused{0}, other{0};
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

constexpr ULONG kPeriod = 256;
constexpr ULONG kPeriods = 5000;  // at least, each an onInput and an onOutput
constexpr unsigned kCycles = 300; // at least, of the control thread
constexpr unsigned char kPattern = 0x11;

std::unique_ptr<AudioSM> makeRing(ULONG channels, ULONG frames) {
    auto ring = std::make_unique<AudioSM>();
    ring->mChannelsPerFrame = channels;
    ring->mMaxFrames = frames;
    return ring;
}

// One thread runs thousands of periods at dispatch level while the
// other reshapes both channels, frees their buffers, detaches them, reopens
// the streams and copies into the cyclic buffer as the port does.
TEST(ConcurrencyDma, PeriodsRunSafelyWhileChannelsAreReshapedFreedAndDetached) {
    hostk::setSinkNull(); // the control thread traces thousands of reallocations
    wavetest::StackRig rig;
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
