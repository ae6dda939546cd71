// The adapter across threads (run under ThreadSanitizer by the tsan preset):
// MMENotify_PreventFurtherDriverCalls while a call is under way on another
// thread, and the attach timer's routine (real-time host timers) against the
// adapter's destruction.
#include "support/AdapterHarness.h"
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

TEST_F(ConcurrencyAdapter, AttachTimerFiringAgainstDestruction) {
    hostk::useVirtualTime(false);
    std::mt19937 random(11);
    size_t fired = 0;
    for (int round = 0; round < 40; ++round) {
        MMEAdapter* adapter = MMEAdapter::create(fdo, nullptr);
        ASSERT_NE(adapter->attachTimer(), nullptr);
        adapter->setWaveRunning(true); // so the routine goes on to call the USB driver
        adapter->attachTimer()->set(1);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2500));
        adapter->Release(); // must not finish while the routine can still reach it
        fired += tracecap::countLines("ATTACH TIMER");
        tracecap::clearTrace();
    }
    // Nothing fires for an adapter that is gone.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 0u);
    EXPECT_LE(fired, 40u);
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
    while (!stop.load()) {
        answers += MMEAdapter::stcEntry(adapter, USBStc_IsMMEAttached, 0);
        adapter->setWaveRunning(answers % 2 == 0);
    }
    notifier.join();
    EXPECT_EQ(MMEAdapter::stcEntry(adapter, USBStc_IsMMEAttached, 0), 1);
    adapter->Release();
}

} // namespace
