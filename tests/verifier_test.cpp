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
#include <functional>
#include <memory>
#include <regex>
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

// Special pool, either way round: each wrong access to a 16-byte block is
// reported, when it happens or when the block is freed, by its name.
TEST(VerifierRules, SpecialPoolReportsOverrunsUnderrunsUsesAfterFreeAndDamagedPatterns) {
    using hostk::SpecialPool;
    struct Fault {
        SpecialPool mode;
        std::function<void(volatile char*)> access; // before the free; with null, after it
        bool afterFree;
        const char* report;
    };
    const Fault faults[] = {
        {SpecialPool::VerifyEnd, [](volatile char* b) { b[16] = 1; }, false,
         "^special pool: write at offset 16, past the end of pool block 'FreV' of 16 "
         "bytes.*0xCD\\)$"},
        {SpecialPool::VerifyStart, [](volatile char* b) { (void)b[-1]; }, false,
         "^special pool: read at offset -1, before the start of pool block 'FreV'"},
        {SpecialPool::VerifyEnd, [](volatile char* b) { (void)b[3]; }, true,
         "^special pool: read at offset 3 of freed pool block 'FreV' .*0xCC\\)$"},
        {SpecialPool::VerifyEnd, [](volatile char* b) { b[-2] = 1; }, false,
         "pattern before it overwritten at offset -2 \\(SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION"},
        {SpecialPool::VerifyStart, [](volatile char* b) { b[17] = 1; }, false,
         "pattern after it overwritten at offset 17"},
    };
    for (const Fault& f : faults) {
        hostk::setSpecialPool(f.mode);
        auto* block = static_cast<volatile char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTag));
        if (!f.afterFree)
            f.access(block);
        ExFreePoolWithTag((PVOID)block, kTag);
        if (f.afterFree)
            f.access(block);
        const auto reports = hostk::verifierFailures();
        hostk::clearVerifierFailures();
        ASSERT_EQ(reports.size(), 1u) << f.report;
        EXPECT_TRUE(std::regex_search(reports[0], std::regex(f.report))) << reports[0];
    }
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
    // All of it on 24 KB driver stacks, with room to spare.
    if (rig.harness.loader.runsImage() || hostk::driverStacksLinked()) {
        EXPECT_GT(hostk::deepestDriverStack(), 0u);
        EXPECT_LT(hostk::deepestDriverStack(), hostk::kDriverStackSize / 3);
    }
}

} // namespace
