// The host verifier's rules where the driver lives: a deliberately wrong
// caller shows each rule catching its violation in the context the driver
// runs in (the USB driver's period callback, removal), and the driver's own
// paths (periods with both streams running and the port serviced from them,
// the attach timer's DPC calling the USB driver, removal with streams open)
// run with none.
#include "support/AdapterHarness.h"
#include "support/E2eRig.h"

#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr ULONG kTag = 0x56657246; // "FreV"

// A reference on the adapter that its holder never gives back keeps it, and
// all it holds, alive after removal: the USB driver is never told.
TEST(VerifierRules, ReferencesNotReturnedByRemovalAreCaught) {
    SKIP_WITH_DRIVER_IMAGE();
    adaptertest::DriverHarness device;
    ASSERT_EQ(device.startStatus, STATUS_SUCCESS);
    MMEAdapter* adapter = device.adapter();
    adapter->AddRef();
    device.remove();
    EXPECT_EQ(device.model.callCount(USBCall_Unregister), 0u);
    const std::string problems = hostk::checkClean();
    EXPECT_NE(problems.find("live block"), std::string::npos) << problems;
    EXPECT_NE(problems.find("IRP"), std::string::npos) << problems;

    adapter->Release();
    EXPECT_EQ(device.model.callCount(USBCall_Unregister), 1u);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u) << hostk::leakReport();
    EXPECT_EQ(hostk::liveIrps(), 0u);
}

// ---- The driver's own paths run clean ----

// Wraps the driver's period entry in the link record: notes the IRQL it is
// called at and the pool allocations made inside it.
struct PeriodProbe {
    static inline MMEExchangeDataCallback driverEntry = nullptr;
    static inline std::atomic<unsigned> calls{0}, notAtDispatch{0};
    static inline std::atomic<size_t> allocations{0};

    static void NTAPI entry(PVOID context, MMEAdapterInfo* info) {
        // Once, what the period callback must never do: the model's region catches it.
        if (calls == 0)
            ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 64, kTag), kTag);
        if (KeGetCurrentIrql() != DISPATCH_LEVEL)
            ++notAtDispatch;
        const size_t before = hostk::poolStats().totalAllocations;
        driverEntry(context, info);
        allocations += hostk::poolStats().totalAllocations - before;
        ++calls;
    }
};

TEST(VerifierDriverPaths, AWholeDeviceLifeRunsWithoutAViolation) {
    e2e::Rig rig;
    ASSERT_TRUE(rig.started());
    usbsim::UsbDriverModel& usb = rig.model();
    PDEVICE_OBJECT pdo = usb.pdo();
    EXPECT_EQ(pdo->ReferenceCount, 1) << "the adapter holds the USB driver's device object";

    ASSERT_NE(usb.link(), nullptr);
    MMEAdapterInfo& link = *usb.link();
    PeriodProbe::driverEntry = link.mpfnExchangeData;
    PeriodProbe::calls = 0;
    link.mpfnExchangeData = &PeriodProbe::entry;

    auto capture = rig.open(true, 48000, 2, 24);
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(capture && render);
    std::vector<unsigned char> audio(4 * 48000, 0x21);
    render->write(audio.data(), 48000);
    ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);

    // Periods with both streams moving; the port's service routine runs
    // from each of them.
    usb.runPeriods(200);
    std::vector<unsigned char> sink(6 * 48000);
    capture->read(sink.data(), 48000);
    EXPECT_GE(PeriodProbe::calls.load(), 190u);
    EXPECT_EQ(PeriodProbe::notAtDispatch.load(), 0u);
    EXPECT_EQ(PeriodProbe::allocations.load(), 0u);
    EXPECT_GT(capture->positionFrames(), 0u);
    EXPECT_GT(render->positionFrames(), 0u);
    EXPECT_EQ(hostk::verifierFailures(),
              std::vector<std::string>{
                  "pool allocation of 64 bytes inside the USB driver's period callback"});
    hostk::clearVerifierFailures();

    // The ASIO client comes and goes: the attach timer's DPC asks the USB
    // driver for a timed start from dispatch level.
    usb.asioAttach();
    usb.asioDetach();
    usb.clearCalls();
    usb.runPeriods(200); // a second and more of sample time
    bool timedStartAtDispatch = false;
    for (const auto& call : usb.calls())
        if (call.code == USBCall_TimedStart)
            timedStartAtDispatch = call.irql == DISPATCH_LEVEL;
    EXPECT_TRUE(timedStartAtDispatch);
    EXPECT_TRUE(usb.mmeAttached());
    if (MMEAdapter* adapter = rig.adapter()) {
        EXPECT_TRUE(adapter->isAttached());
    }
    EXPECT_EQ(hostk::verifierFailures(), std::vector<std::string>());

    // The USB driver forbids further calls from inside a period.
    usb.defer([&] { usb.preventFurtherCalls(); });
    usb.runPeriods(2);
    if (MMEAdapter* adapter = rig.adapter()) {
        EXPECT_EQ(adapter->callIrp(), nullptr);
    }
    EXPECT_EQ(hostk::liveIrps(), 0u);

    // Removal with both streams running gives everything back.
    rig.harness.remove();
    EXPECT_TRUE(capture->removed());
    EXPECT_TRUE(render->removed());
    capture.reset();
    render.reset();
    rig.filter.reset();
    EXPECT_EQ(pdo->ReferenceCount, 0);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u) << hostk::leakReport();
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    EXPECT_EQ(hostk::verifierFailures(), std::vector<std::string>());
}

} // namespace
