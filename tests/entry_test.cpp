// Driver entry, add-device and start-device as the PnP manager drives them
// on the host port-class library: the banner, the hand-over of the physical
// device object under the use lock (waiting, timing out, failing), start
// refusals, and the pure-virtual-call handler. A start that fails after the
// adapter exists is covered in adapter_test.
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

namespace {

using adaptertest::DriverHarness;

constexpr int64_t kMs = 10000; // 100-ns units

TEST(Entry, DriverEntryPrintsTheBannerFirstAndRegistersAddDevice) {
    tracecap::clearTrace();
    hostpc::DriverLoader loader;
    EXPECT_EQ(loader.entryStatus(), STATUS_SUCCESS);
    auto lines = tracecap::traceLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(
        std::regex_match(lines[0], std::regex(R"(\*\*\* DriverEntry \(MME/KS/WDM\) )"
                                              R"(v2\.9\.59\.0 built:[A-Z][a-z]{2} [ 0-9]\d )"
                                              R"(\d{4} - \d\d:\d\d:\d\d)")))
        << lines[0];
    EXPECT_EQ(tracecap::body(lines[1]), "   returned  0x0");
    EXPECT_EQ(loader.driverObject()->DriverExtension->AddDevice, &AddDevice);
    EXPECT_NE(loader.driverObject()->MajorFunction[IRP_MJ_PNP], nullptr);

    hostpc::fail(hostpc::Op::InitializeAdapterDriver, STATUS_UNSUCCESSFUL);
    tracecap::clearTrace();
    hostpc::DriverLoader refused;
    EXPECT_EQ(refused.entryStatus(), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(tracecap::containsLine("returned  0xC0000001"));
}

TEST(Entry, AddParksThePhysicalDeviceAndStartTakesIt) {
    DriverHarness h(false);
    PDEVICE_OBJECT pdo = h.model.pdo();
    ASSERT_EQ(h.addStatus, STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("AddDevice - PhysicalDeviceObject is  0x" +
                                       tracecap::kernelPointer(pdo)));
    EXPECT_TRUE(tracecap::containsLine("exit AddDevice"));
    EXPECT_EQ(_pdoUseLock, 1);
    EXPECT_EQ(_pendingPdo, pdo);

    PDEVICE_OBJECT fdo = h.fdo();
    ASSERT_NE(fdo, nullptr);
    EXPECT_EQ(hostpc::maxObjects(fdo), 3u);
    EXPECT_EQ(hostpc::startRoutine(fdo), &StartDevice);

    tracecap::clearTrace();
    EXPECT_EQ(h.loader.startDevice(pdo), STATUS_SUCCESS);
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_EQ(_pendingPdo, nullptr);
    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(h.model.link(), &adapter->linkInfo());

    auto messages = tracecap::traceMessages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages.front(), "+ StartDevice [DeviceObject] 0x" + tracecap::kernelPointer(fdo));
    EXPECT_EQ(messages[messages.size() - 2], "exit StartDevice  0x0");
    EXPECT_EQ(messages.back(), "- StartDevice [DeviceObject]");
}

TEST(Entry, SecondAddWaitsUntilTheFirstDeviceIsStarted) {
    usbsim::UsbDriverModel first, second;
    hostpc::DriverLoader loader;
    hostk::useVirtualTime(false);

    ASSERT_EQ(loader.addDevice(first.pdo()), STATUS_SUCCESS);
    std::atomic<bool> secondAdded{false};
    NTSTATUS secondStatus = STATUS_UNSUCCESSFUL;
    std::thread adder([&] {
        secondStatus = loader.addDevice(second.pdo());
        secondAdded = true;
    });
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (tracecap::countLines("_pdoUseLock is aquired") < 2 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(secondAdded.load());

    EXPECT_EQ(loader.startDevice(first.pdo()), STATUS_SUCCESS);
    adder.join();
    EXPECT_EQ(secondStatus, STATUS_SUCCESS);
    EXPECT_GE(tracecap::countLines("_pdoUseLock is aquired"), 2u);
    EXPECT_EQ(tracecap::countLines("timeout"), 0u);
    EXPECT_EQ(_pendingPdo, second.pdo());
    EXPECT_EQ(loader.startDevice(second.pdo()), STATUS_SUCCESS);
    hostk::useVirtualTime(true);

    // Each adapter stands on its own physical device object.
    ASSERT_NE(first.link(), nullptr);
    ASSERT_NE(second.link(), nullptr);
    EXPECT_NE(first.link(), second.link());
    EXPECT_EQ(first.callCount(USBCall_Register), 1u);
    EXPECT_EQ(second.callCount(USBCall_Register), 1u);
    EXPECT_NE(loader.fdo(first.pdo()), loader.fdo(second.pdo()));
}

TEST(Entry, NeverStartedFirstDeviceMakesTheSecondAddTimeOutOrFailWithTheDelay) {
    usbsim::UsbDriverModel first, second;
    hostpc::DriverLoader loader;
    ASSERT_EQ(loader.addDevice(first.pdo()), STATUS_SUCCESS);

    tracecap::clearTrace();
    hostk::resetDelayCount();
    int64_t t0 = hostk::now100ns();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_TIMEOUT);
    EXPECT_EQ(hostk::delayCount(), 251u);
    EXPECT_EQ(hostk::now100ns() - t0, 251 * 20 * kMs);
    EXPECT_EQ(tracecap::countLines("_pdoUseLock is aquired"), 251u);
    EXPECT_EQ(tracecap::countLines("timeout"), 1u);
    EXPECT_TRUE(tracecap::containsLine("returned  0x102"));
    EXPECT_EQ(loader.fdo(second.pdo()), nullptr);
    EXPECT_EQ(_pdoUseLock, 1);
    EXPECT_EQ(_pendingPdo, first.pdo());

    // A failed delay ends the wait at once with its status.
    hostk::setDelayStatus(STATUS_ALERTED);
    hostk::resetDelayCount();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_ALERTED);
    EXPECT_EQ(hostk::delayCount(), 1u);
    EXPECT_TRUE(tracecap::containsLine("KeDelayExecutionThread failed"));
    hostk::setDelayStatus(STATUS_SUCCESS);
    EXPECT_EQ(_pendingPdo, first.pdo()); // untouched by the failed waits

    // Once the first device is started the second goes through at once.
    EXPECT_EQ(loader.startDevice(first.pdo()), STATUS_SUCCESS);
    tracecap::clearTrace();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("_pdoUseLock is aquired"), 0u);
    EXPECT_EQ(loader.startDevice(second.pdo()), STATUS_SUCCESS);
}

TEST(Entry, FailedFunctionalDeviceLeavesTheHandOverFree) {
    usbsim::UsbDriverModel first, second;
    hostpc::DriverLoader loader;
    hostpc::fail(hostpc::Op::AddAdapterDevice, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(loader.addDevice(first.pdo()), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(tracecap::containsLine("returned  0xC000009A"));
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_EQ(_pendingPdo, nullptr);

    hostpc::clearFailures();
    tracecap::clearTrace();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("_pdoUseLock is aquired"), 0u);
    EXPECT_EQ(loader.startDevice(second.pdo()), STATUS_SUCCESS);

    // No start routine: refused before the lock is touched.
    EXPECT_EQ(AddAdapterDeviceLocked(loader.driverObject(), first.pdo(), nullptr, 3, 0),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(_pdoUseLock, 0);
}

TEST(Entry, StartWithNothingParkedIsRefusedAndKeepsTheLockBalanced) {
    DriverHarness h;
    ASSERT_EQ(h.startStatus, STATUS_SUCCESS);
    EXPECT_EQ(_pdoUseLock, 0);

    // A second start of the same device (as after a stop) finds nothing.
    h.model.clearCalls();
    tracecap::clearTrace();
    EXPECT_EQ(h.loader.startDevice(h.model.pdo()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_EQ(tracecap::countLinesStartingWith("+ MMEAdapter::MMEAdapter"), 0u);
    EXPECT_TRUE(h.model.calls().empty());
    auto messages = tracecap::traceMessages();
    ASSERT_EQ(messages.size(), 2u) << tracecap::dumpTrace();
    EXPECT_EQ(messages[1], "- StartDevice [DeviceObject]");

    EXPECT_EQ(TakePendingPdo(), nullptr);
    EXPECT_EQ(_pdoUseLock, 0);

    // The next device is added at the first attempt.
    usbsim::UsbDriverModel other;
    tracecap::clearTrace();
    EXPECT_EQ(h.loader.addDevice(other.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("_pdoUseLock is aquired"), 0u);
    EXPECT_EQ(h.loader.startDevice(other.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(_pdoUseLock, 0);
    h.loader.removeDevice(other.pdo());
}

TEST(Entry, AdapterThatCannotBeAllocatedIsReported) {
    DriverHarness h(false);
    IRP start{};
    hostk::failAllocation(1); // the adapter object
    EXPECT_EQ(StartDevice(h.fdo(), &start, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(_pdoUseLock, 0); // the parked device was taken all the same
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_EQ(tracecap::countLinesStartingWith("exit StartDevice"), 0u);
}

TEST(Entry, PureVirtualCallIsReportedAndReturnsZero) {
    EXPECT_EQ(_purecall(), 0);
    checks::expectAssert("!\"Pure virutal function called\"", "adapter", 130);
}

} // namespace
