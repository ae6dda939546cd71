// The adapter across threads (run under ThreadSanitizer by the tsan preset):
// MMENotify_PreventFurtherDriverCalls while a call is under way on another
// thread, the attach timer's routine (real-time host timers) against the
// adapter's destruction, and the two removal races, each interleaving forced
// through the host's hooks.
#include "support/AdapterHarness.h"
#include "support/E2eRig.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>

namespace {

// A USB device whose dispatch can hold a call until the test lets it go.
// It touches the request after the wait, as a real driver completing it.
struct SlowUsbDevice {
    SlowUsbDevice() {
        driver.MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &dispatch;
        device = hostk::createDeviceObject(&driver, 1, 0);
        current() = this;
    }
    ~SlowUsbDevice() {
        current() = nullptr;
        hostk::deleteDeviceObject(device);
    }

    static SlowUsbDevice*& current() {
        static SlowUsbDevice* device = nullptr;
        return device;
    }

    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT, PIRP irp) {
        SlowUsbDevice* self = current();
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        if (stack->Parameters.DeviceIoControl.IoControlCode == self->holdCode) {
            std::unique_lock<std::mutex> lock(self->mutex);
            self->entered = true;
            self->changed.notify_all();
            self->changed.wait(lock, [&] { return self->released; });
        }
        self->calls.fetch_add(1);
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(irp->UserBuffer);
        IoCompleteRequest(irp, 0);
        return STATUS_SUCCESS;
    }

    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }

    DRIVER_OBJECT driver{};
    PDEVICE_OBJECT device = nullptr;
    ULONG holdCode = 0xFFFFFFFF;
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
    std::atomic<int> calls{0};
};

// One thread held at a hook until the test lets it go, and what the other
// side of a race reached meanwhile.
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

class ConcurrencyAdapter : public ::testing::Test {
protected:
    void SetUp() override {
        hostpc::resetForTest();
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

TEST_F(ConcurrencyAdapter, PreventFurtherCallsRacingCallsFreesTheRequestOnce) {
    SlowUsbDevice usb;
    std::mt19937 random(7);
    for (int round = 0; round < 60; ++round) {
        MMEAdapter* adapter = startedAdapter(usb.device);
        std::atomic<bool> go{false};
        std::atomic<int> accepted{0};
        std::thread callers[2];
        for (auto& caller : callers) {
            caller = std::thread([&] {
                while (!go.load()) {
                }
                // Calls go through until the request is gone; a call refused
                // by the guard is retried.
                for (int i = 0; i < 2000; ++i) {
                    if (adapter->callUSBDriver(USBCall_Attach))
                        accepted.fetch_add(1);
                    else if (!hostk::liveIrps())
                        break;
                }
            });
        }
        int delay = (int)(random() % 200);
        go = true;
        for (volatile int spin = 0; spin < delay * 50; ++spin) {
        }
        MMEAdapter::notifyEntry(adapter, MMENotify_PreventFurtherDriverCalls, 0);
        for (auto& caller : callers)
            caller.join();
        EXPECT_EQ(adapter->callIrp(), nullptr) << round;
        EXPECT_EQ(hostk::liveIrps(), 0u) << round;
        adapter->Release();
        ASSERT_TRUE(hostk::verifierFailures().empty()) << round;
        tracecap::clearTrace();
    }
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
    hostpc::resetForTest();
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
        std::thread removal([&] { rig.harness.remove(); });
        gate.waitFor([&] { return gate.teardownWaits || gate.unregistered; });
        EXPECT_TRUE(gate.teardownWaits);
        EXPECT_FALSE(gate.unregistered) << "the port and group went while Notify ran";
        gate.letGo();
        period.join();
        removal.join();
        EXPECT_TRUE(render->removed());
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

} // namespace
