// The adapter object: interface query, construction and teardown, the start
// with its subdevices, DMA channels and connections (and what happens when
// parts of it fail), and the one-shot timer it owns. Allocation failures
// during the start are swept in alloc_sweep_test.
#include "driver/streaming/MMEDMAEmulator.h"
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

namespace {

using adaptertest::DriverHarness;

TEST(Adapter, QueryInterfaceAnswersOnlyItsOwnInterface) {
    PDEVICE_OBJECT fdo = hostk::createDeviceObject(nullptr, 2, 0);
    MMEAdapter* adapter = MMEAdapter::create(fdo, nullptr);
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->referenceCount(), 1);
    IMMEAdapter* own = adapter;
    EXPECT_EQ(static_cast<PVOID>(own), static_cast<PVOID>(adapter)); // one address
    // No other interface, power management included.
    checks::expectInterfaces(own, own, {&IID_IMMEAdapter, &IID_IUnknown},
                             {&IID_IPort, &IID_IMiniport, &IID_IDmaChannel, &IID_IServiceGroup});
    EXPECT_EQ(adapter->referenceCount(), 1);

    EXPECT_EQ(adapter->QueryInterface(IID_IUnknown, nullptr), STATUS_INVALID_PARAMETER);
    checks::expectAssert("Object", "MMEAdapter", 148);
    EXPECT_EQ(adapter->Release(), 0u);
    hostk::deleteDeviceObject(fdo);
}

TEST(Adapter, ConstructionReferencesTheUsbDeviceAndTeardownLetsItGo) {
    usbsim::UsbDriverModel model;
    PDEVICE_OBJECT fdo = hostk::createDeviceObject(nullptr, 2, 0);
    LONG before = model.pdo()->ReferenceCount;

    tracecap::clearTrace();
    MMEAdapter* adapter = MMEAdapter::create(fdo, model.pdo());
    ASSERT_NE(adapter, nullptr);
    const std::string self = tracecap::kernelPointer(adapter);
    EXPECT_EQ(model.pdo()->ReferenceCount, before + 1);
    EXPECT_FALSE(adapter->isStarted());
    EXPECT_EQ(adapter->wave(), nullptr);
    EXPECT_EQ(adapter->getCaptureDMAChannel(), nullptr);
    EXPECT_NE(adapter->attachTimer(), nullptr);
    EXPECT_EQ(tracecap::traceMessages().front(), "+ MMEAdapter::MMEAdapter 0x" + self);
    adapter->Release();
    EXPECT_EQ(model.pdo()->ReferenceCount, before);

    // The teardown in order: timer, the Unregister call (which cannot be
    // sent without a request), then the device reference.
    auto messages = tracecap::traceMessages();
    long destructor = tracecap::findLine("+ MMEAdapter::~MMEAdapter 0x" + self);
    ASSERT_GE(destructor, 0) << tracecap::dumpTrace();
    EXPECT_EQ(messages[destructor + 1], "before callUSBDriver");
    EXPECT_EQ(messages[destructor + 2], "+ MMEAdapter::callUSBDriver 0x" + self);
    EXPECT_EQ(messages[destructor + 5], "after callUSBDriver");
    EXPECT_EQ(messages.back(), "- MMEAdapter::~MMEAdapter");

    // Without a device object of its own: the assertion reports and the
    // adapter still works; without a USB device nothing is dereferenced.
    adapter = MMEAdapter::create(nullptr, nullptr);
    ASSERT_NE(adapter, nullptr);
    checks::expectAssert("pDeviceObject", "MMEAdapter", 77);
    adapter->Release();
    hostk::deleteDeviceObject(fdo);
}

TEST(Adapter, StartInstallsConnectsAndAnnounces) {
    DriverHarness h;
    ASSERT_EQ(h.startStatus, STATUS_SUCCESS);
    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);
    PDEVICE_OBJECT fdo = h.fdo();

    EXPECT_EQ(hostpc::subdeviceNames(fdo), (std::vector<std::u16string>{u"Topology", u"Wave"}));
    EXPECT_EQ(hostpc::connections(fdo),
              (std::vector<hostpc::Connection>{{u"Topology", 1, u"Wave", 1},
                                               {u"Wave", 3, u"Topology", 0}}));
    // Each miniport holds the adapter and is known to it; StartDevice's own
    // reference is gone.
    EXPECT_EQ(adapter->wave(), h.wave());
    EXPECT_EQ(adapter->topology(), h.topology());
    EXPECT_EQ(adapter->referenceCount(), 2);
    ASSERT_NE(adapter->getCaptureDMAChannel(), nullptr);
    ASSERT_NE(adapter->getRenderDMAChannel(), nullptr);
    EXPECT_TRUE(adapter->getCaptureDMAChannel()->isCapture());
    EXPECT_FALSE(adapter->getRenderDMAChannel()->isCapture());

    // Both ports were initialised with the start request.
    PIRP topologyIrp = hostpc::portState(hostpc::subdevice(fdo, u"Topology")).initIrp;
    EXPECT_NE(topologyIrp, nullptr);
    EXPECT_EQ(hostpc::portState(hostpc::subdevice(fdo, u"Wave")).initIrp, topologyIrp);

    EXPECT_TRUE(adapter->isStarted());
    EXPECT_EQ(h.wave()->sampleRate(), h.model.settings().current.fr);
    EXPECT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_Register, USBCall_AdapterStarted}));
    EXPECT_TRUE(h.model.adapterStarted());
    long start = tracecap::findLine("+ MMEAdapter::start() 0x" + tracecap::kernelPointer(adapter));
    ASSERT_GE(start, 0);
    EXPECT_GT(tracecap::findLine("...VENDOR/PRODUCT 0x00001209 0x00004D4D", start), start);
    EXPECT_EQ(tracecap::countLines("PcRegisterPhysicalConnection  0x00000000"), 2u);

    // A second start does nothing.
    h.model.clearCalls();
    tracecap::clearTrace();
    EXPECT_EQ(adapter->start(topologyIrp), (NTSTATUS)1);
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_TRUE(tracecap::traceLines().empty());
    EXPECT_EQ(hostpc::connections(fdo).size(), 2u);
}

TEST(Adapter, FailedTopologyInstallationStillAnnouncesAndTheAdapterGoes) {
    hostpc::fail(hostpc::Op::NewPortTopology, STATUS_INSUFFICIENT_RESOURCES);
    DriverHarness h(false);
    bool captureAtStart = false, renderAtStart = false;
    h.model.setDuringCall([&](ULONG code) {
        if (code != USBCall_AdapterStarted)
            return;
        auto* adapter = static_cast<MMEAdapter*>(h.model.calls().back().record->mpContext);
        captureAtStart = adapter->getCaptureDMAChannel() != nullptr;
        renderAtStart = adapter->getRenderDMAChannel() != nullptr;
    });

    EXPECT_EQ(h.loader.startDevice(h.model.pdo()), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(tracecap::containsLine("InstallSubdevice: PcNewPort failed"));
    EXPECT_TRUE(captureAtStart && renderAtStart);
    EXPECT_TRUE(hostpc::subdeviceNames(h.fdo()).empty()); // the wave was not tried either
    EXPECT_EQ(tracecap::countLinesStartingWith("+ MMEWave::MMEWave"), 0u);
    EXPECT_EQ(tracecap::countLinesStartingWith("PcRegisterPhysicalConnection"), 0u);
    EXPECT_TRUE(hostpc::connections(h.fdo()).empty());

    // Nothing held the adapter: StartDevice's release destroyed it, which
    // unregistered before StartDevice returned its status.
    EXPECT_EQ(h.model.callCodes(),
              (std::vector<ULONG>{USBCall_Register, USBCall_AdapterStarted, USBCall_Unregister}));
    long destroyed = -1;
    auto messages = tracecap::traceMessages();
    for (size_t i = 0; i < messages.size() && destroyed < 0; ++i)
        if (messages[i].rfind("+ MMEAdapter::~MMEAdapter", 0) == 0)
            destroyed = (long)i;
    EXPECT_GE(destroyed, 0);
    EXPECT_GT(tracecap::findLine("exit StartDevice  0xC000009A"), destroyed);
    EXPECT_EQ(h.adapter(), nullptr);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_FALSE(hostpc::isStarted(h.fdo()));
}

TEST(Adapter, FailedWaveRegistrationLeavesTheTopologyHoldingTheAdapter) {
    hostpc::fail(hostpc::Op::RegisterSubdevice, STATUS_UNSUCCESSFUL, u"Wave");
    DriverHarness h;
    EXPECT_EQ(h.startStatus, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(hostpc::subdeviceNames(h.fdo()), (std::vector<std::u16string>{u"Topology"}));
    EXPECT_TRUE(hostpc::connections(h.fdo()).empty());

    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->referenceCount(), 1);
    EXPECT_EQ(adapter->wave(), nullptr); // the wave miniport went and cleared it
    EXPECT_NE(adapter->getCaptureDMAChannel(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("mMMEWave is NULL"));
    EXPECT_TRUE(h.model.adapterStarted());

    h.remove();
    EXPECT_EQ(h.model.callCount(USBCall_Unregister), 1u);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
}

TEST(Adapter, RefusedPhysicalConnectionsDoNotFailTheStart) {
    hostpc::fail(hostpc::Op::PhysicalConnection, STATUS_UNSUCCESSFUL);
    DriverHarness h;
    EXPECT_EQ(h.startStatus, STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("PcRegisterPhysicalConnection  0xC0000001"), 2u);
    EXPECT_TRUE(hostpc::connections(h.fdo()).empty());
    EXPECT_EQ(hostpc::subdeviceNames(h.fdo()).size(), 2u);
}

TEST(Adapter, UnknownSubdeviceKindIsRefusedCleanly) {
    DriverHarness h;
    ASSERT_NE(h.adapter(), nullptr);
    WCHAR name[] = u"Third";
    PUNKNOWN out = nullptr;
    EXPECT_EQ(h.adapter()->InstallSubdevice(7, nullptr, name, CLSID_PortTopology, &out),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(out, nullptr);
    checks::expectAssert("pIrp", "MMEAdapter", 174);
    EXPECT_EQ(hostpc::subdeviceNames(h.fdo()).size(), 2u);
    EXPECT_EQ(hostpc::liveObjects(), 2u + 1u); // two ports and the wave's service group
}

TEST(Adapter, RemovalReleasesEverythingAfterUnregistering) {
    DriverHarness h;
    ASSERT_NE(h.adapter(), nullptr);
    PDEVICE_OBJECT pdo = h.model.pdo();
    LONG referencedWhileStarted = pdo->ReferenceCount;
    LONG referencedAtUnregister = -1;
    size_t irpsAtUnregister = 0;
    h.model.setDuringCall([&](ULONG code) {
        if (code == USBCall_Unregister) {
            referencedAtUnregister = pdo->ReferenceCount;
            irpsAtUnregister = hostk::liveIrps();
        }
    });
    h.remove();
    EXPECT_EQ(referencedAtUnregister, referencedWhileStarted);
    EXPECT_GE(irpsAtUnregister, 1u); // the adapter's request still existed
    EXPECT_EQ(pdo->ReferenceCount, referencedWhileStarted - 1);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u) << hostk::leakReport();
}

struct TimerRecorder : ITimerCallback {
    void onTimer(ULONG id) override {
        fired.push_back({id, hostk::now100ns()});
        irql = KeGetCurrentIrql();
    }
    std::vector<std::pair<ULONG, int64_t>> fired;
    KIRQL irql = PASSIVE_LEVEL;
};

TEST(Adapter, TimerIsOneShotAndReArmsFromNow) {
    TimerRecorder recorder;
    MMETimer* timer = new MMETimer(&recorder, 7);
    ASSERT_NE(timer, nullptr);
    const int64_t ms = 10000;
    int64_t t0 = hostk::now100ns();

    EXPECT_FALSE(timer->set(1000));
    hostk::advanceTime(500 * ms);
    EXPECT_TRUE(timer->set(1000)); // pending: re-armed from now
    hostk::advanceTime(999 * ms);
    EXPECT_TRUE(recorder.fired.empty());
    hostk::advanceTime(1 * ms);
    ASSERT_EQ(recorder.fired.size(), 1u);
    EXPECT_EQ(recorder.fired[0], std::make_pair(ULONG(7), t0 + 1500 * ms));
    EXPECT_EQ(recorder.irql, DISPATCH_LEVEL);
    hostk::advanceTime(5000 * ms);
    EXPECT_EQ(recorder.fired.size(), 1u);

    EXPECT_FALSE(timer->cancel());
    timer->set(10);
    EXPECT_TRUE(timer->cancel());
    hostk::advanceTime(100 * ms);
    EXPECT_EQ(recorder.fired.size(), 1u);

    // Beyond what a 32-bit product of milliseconds and 10,000 could hold.
    int64_t t1 = hostk::now100ns();
    timer->set(500000);
    hostk::advanceTime(500000 * ms - 1);
    EXPECT_EQ(recorder.fired.size(), 1u);
    hostk::advanceTime(1);
    ASSERT_EQ(recorder.fired.size(), 2u);
    EXPECT_EQ(recorder.fired[1].second, t1 + 500000 * ms);

    // Destroying a pending timer cancels it.
    timer->set(10);
    delete timer;
    hostk::advanceTime(100 * ms);
    EXPECT_EQ(recorder.fired.size(), 2u);

    // A timer without a target fires into nothing (and does not crash).
    timer = new MMETimer(nullptr, 3);
    timer->set(1);
    EXPECT_EQ(hostk::pendingTimers(), 1u);
    hostk::advanceTime(10 * ms);
    EXPECT_EQ(hostk::pendingTimers(), 0u) << "it fired";
    EXPECT_EQ(recorder.fired.size(), 2u);
    delete timer;
}

} // namespace
