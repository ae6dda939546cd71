// The adapter as the PnP manager and the USB driver meet it: add and start
// under the use lock, partial failures of the start, removal, the one-shot
// timer, the hardware configuration, notifications and the period exchange.
#include "driver/streaming/MMEDMAEmulator.h"
#include "host/portcls/KsClient.h"
#include "support/AdapterHarness.h"
#include "support/ObjectChecks.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

using adaptertest::BareAdapter;
using adaptertest::config;
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
    hostpc::DriverLoader refused;
    EXPECT_EQ(refused.entryStatus(), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(tracecap::containsLine("returned  0xC0000001"));
    EXPECT_EQ(_purecall(), 0);
    checks::expectAssert("!\"Pure virutal function called\"", "adapter", 130);
}

TEST(Entry, AddParksThePhysicalDeviceAndStartTakesIt) {
    DriverHarness h(false);
    PDEVICE_OBJECT pdo = h.model.pdo();
    ASSERT_EQ(h.addStatus, STATUS_SUCCESS);
    checks::expectLines({"AddDevice - PhysicalDeviceObject is  0x" + tracecap::kernelPointer(pdo),
                         "exit AddDevice"});
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
    ASSERT_NE(h.adapter(), nullptr);
    EXPECT_EQ(h.model.link(), &h.adapter()->linkInfo());
    auto messages = tracecap::traceMessages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages.front(), "+ StartDevice [DeviceObject] 0x" + tracecap::kernelPointer(fdo));
    EXPECT_EQ(messages[messages.size() - 2], "exit StartDevice  0x0");
    EXPECT_EQ(messages.back(), "- StartDevice [DeviceObject]");

    // A second start of the same device (as after a stop) finds nothing parked.
    h.model.clearCalls();
    tracecap::clearTrace();
    EXPECT_EQ(h.loader.startDevice(pdo), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_TRUE(h.model.calls().empty());
    messages = tracecap::traceMessages();
    ASSERT_EQ(messages.size(), 2u) << tracecap::dumpTrace();
    EXPECT_EQ(messages[1], "- StartDevice [DeviceObject]");
    EXPECT_EQ(TakePendingPdo(), nullptr);
    EXPECT_EQ(_pdoUseLock, 0);
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

    // A failed delay ends the wait at once with its status.
    hostk::setDelayStatus(STATUS_ALERTED);
    hostk::resetDelayCount();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_ALERTED);
    EXPECT_EQ(hostk::delayCount(), 1u);
    EXPECT_TRUE(tracecap::containsLine("KeDelayExecutionThread failed"));
    hostk::setDelayStatus(STATUS_SUCCESS);
    EXPECT_EQ(_pendingPdo, first.pdo()); // untouched by the failed waits

    EXPECT_EQ(loader.startDevice(first.pdo()), STATUS_SUCCESS);
    tracecap::clearTrace();
    EXPECT_EQ(loader.addDevice(second.pdo()), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("_pdoUseLock is aquired"), 0u);
    EXPECT_EQ(loader.startDevice(second.pdo()), STATUS_SUCCESS);
    // Each adapter stands on its own physical device object.
    ASSERT_TRUE(first.link() && second.link());
    EXPECT_NE(first.link(), second.link());
    EXPECT_NE(loader.fdo(first.pdo()), loader.fdo(second.pdo()));

    // A failed add leaves the hand-over free.
    usbsim::UsbDriverModel third;
    hostpc::fail(hostpc::Op::AddAdapterDevice, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(loader.addDevice(third.pdo()), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(tracecap::containsLine("returned  0xC000009A"));
    EXPECT_EQ(_pdoUseLock, 0);
    EXPECT_EQ(_pendingPdo, nullptr);
    hostpc::clearFailures();
    // No start routine: refused before the lock is touched.
    EXPECT_EQ(AddAdapterDeviceLocked(loader.driverObject(), third.pdo(), nullptr, 3, 0),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(_pdoUseLock, 0);
}

TEST(Adapter, QueryInterfaceConstructionAndTeardown) {
    usbsim::UsbDriverModel model;
    LONG before = model.pdo()->ReferenceCount;
    tracecap::clearTrace();
    auto bare = std::make_unique<BareAdapter>(model.pdo());
    MMEAdapter* adapter = bare->adapter;
    ASSERT_NE(adapter, nullptr);
    const std::string self = tracecap::kernelPointer(adapter);
    EXPECT_EQ(tracecap::traceMessages().front(), "+ MMEAdapter::MMEAdapter 0x" + self);
    EXPECT_EQ(model.pdo()->ReferenceCount, before + 1);
    EXPECT_FALSE(adapter->isStarted());
    EXPECT_EQ(adapter->wave(), nullptr);
    EXPECT_EQ(adapter->getCaptureDMAChannel(), nullptr);
    EXPECT_NE(adapter->attachTimer(), nullptr);

    IMMEAdapter* own = adapter;
    EXPECT_EQ(static_cast<PVOID>(own), static_cast<PVOID>(adapter)); // one address
    EXPECT_EQ(adapter->referenceCount(), 1);
    checks::expectInterfaces(own, own, {&IID_IMMEAdapter, &IID_IUnknown},
                             {&IID_IPort, &IID_IMiniport, &IID_IDmaChannel, &IID_IServiceGroup});
    EXPECT_EQ(adapter->QueryInterface(IID_IUnknown, nullptr), STATUS_INVALID_PARAMETER);
    checks::expectAssert("Object", "MMEAdapter", 148);

    // The teardown in order: timer, the Unregister call (which cannot be
    // sent without a request), then the device reference.
    bare.reset();
    EXPECT_EQ(model.pdo()->ReferenceCount, before);
    auto messages = tracecap::traceMessages();
    long destructor = tracecap::findLine("+ MMEAdapter::~MMEAdapter 0x" + self);
    ASSERT_GE(destructor, 0) << tracecap::dumpTrace();
    EXPECT_EQ(messages[destructor + 1], "before callUSBDriver");
    EXPECT_EQ(messages[destructor + 2], "+ MMEAdapter::callUSBDriver 0x" + self);
    EXPECT_EQ(messages[destructor + 5], "after callUSBDriver");
    EXPECT_EQ(messages.back(), "- MMEAdapter::~MMEAdapter");

    // Without a device object of its own the assertion reports and the
    // adapter still works; without a USB device nothing is dereferenced.
    adapter = MMEAdapter::create(nullptr, nullptr);
    ASSERT_NE(adapter, nullptr);
    checks::expectAssert("pDeviceObject", "MMEAdapter", 77);
    adapter->Release();
}

TEST(Adapter, StartInstallsConnectsAndAnnounces) {
    DriverHarness h;
    ASSERT_EQ(h.startStatus, STATUS_SUCCESS);
    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);
    PDEVICE_OBJECT fdo = h.fdo();
    EXPECT_EQ(hostpc::connections(fdo),
              (std::vector<hostpc::Connection>{{u"Topology", 1, u"Wave", 1},
                                               {u"Wave", 3, u"Topology", 0}}));
    // Each miniport holds the adapter; StartDevice's own reference is gone.
    EXPECT_EQ(adapter->referenceCount(), 2);
    PIRP topologyIrp = hostpc::portState(hostpc::subdevice(fdo, u"Topology")).initIrp;
    EXPECT_NE(topologyIrp, nullptr);
    EXPECT_EQ(hostpc::portState(hostpc::subdevice(fdo, u"Wave")).initIrp, topologyIrp);
    EXPECT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_Register, USBCall_AdapterStarted}));
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

    // An unknown subdevice kind is refused cleanly.
    WCHAR name[] = u"Third";
    PUNKNOWN out = nullptr;
    EXPECT_EQ(adapter->InstallSubdevice(7, nullptr, name, CLSID_PortTopology, &out),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(out, nullptr);
    checks::expectAssert("pIrp", "MMEAdapter", 174);
    EXPECT_EQ(hostpc::subdeviceNames(fdo).size(), 2u);
    EXPECT_EQ(hostpc::liveObjects(), 2u + 1u); // two ports and the wave's service group
}

// The status, the announcement and the adapter's end within the start are
// the allocation sweep's topology roles; these are what they do not see.
TEST(Adapter, FailedTopologyInstallationStillAnnouncesWithItsChannels) {
    hostpc::fail(hostpc::Op::NewPortTopology, STATUS_INSUFFICIENT_RESOURCES);
    DriverHarness h(false);
    bool channelsAtStart = false;
    h.model.setDuringCall([&](ULONG code) {
        if (code != USBCall_AdapterStarted)
            return;
        auto* adapter = static_cast<MMEAdapter*>(h.model.calls().back().record->mpContext);
        channelsAtStart = adapter->getCaptureDMAChannel() && adapter->getRenderDMAChannel();
    });
    h.loader.startDevice(h.model.pdo());
    EXPECT_TRUE(channelsAtStart);
    EXPECT_EQ(tracecap::countLinesStartingWith("+ MMEWave::MMEWave"), 0u); // not tried either
    EXPECT_EQ(tracecap::countLinesStartingWith("PcRegisterPhysicalConnection"), 0u);
    EXPECT_FALSE(hostpc::isStarted(h.fdo()));
}

TEST(Adapter, FailedWaveRegistrationLeavesTheTopologyHoldingTheAdapter) {
    hostpc::fail(hostpc::Op::RegisterSubdevice, STATUS_UNSUCCESSFUL, u"Wave");
    DriverHarness h;
    EXPECT_EQ(h.startStatus, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(hostpc::connections(h.fdo()).empty());
    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->referenceCount(), 1);
    EXPECT_EQ(adapter->wave(), nullptr); // the wave miniport went and cleared it
    EXPECT_NE(adapter->getCaptureDMAChannel(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("mMMEWave is NULL"));
    h.remove();
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

TEST(Adapter, RemovalReleasesEverythingAfterUnregistering) {
    DriverHarness h;
    ASSERT_NE(h.adapter(), nullptr);
    PDEVICE_OBJECT pdo = h.model.pdo();
    LONG referencedWhileStarted = pdo->ReferenceCount, referencedAtUnregister = -1;
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
    int64_t t0 = hostk::now100ns();
    EXPECT_FALSE(timer->set(1000));
    hostk::advanceTime(500 * kMs);
    EXPECT_TRUE(timer->set(1000)); // pending: re-armed from now
    hostk::advanceTime(1000 * kMs);
    ASSERT_EQ(recorder.fired.size(), 1u);
    EXPECT_EQ(recorder.fired[0], std::make_pair(ULONG(7), t0 + 1500 * kMs));
    EXPECT_EQ(recorder.irql, DISPATCH_LEVEL);
    hostk::advanceTime(5000 * kMs);
    EXPECT_FALSE(timer->cancel());
    timer->set(10);
    EXPECT_TRUE(timer->cancel());
    hostk::advanceTime(100 * kMs);
    EXPECT_EQ(recorder.fired.size(), 1u);

    // Beyond what a 32-bit product of milliseconds and 10,000 could hold.
    int64_t t1 = hostk::now100ns();
    timer->set(500000);
    hostk::advanceTime(500000 * kMs - 1);
    EXPECT_EQ(recorder.fired.size(), 1u);
    hostk::advanceTime(1);
    ASSERT_EQ(recorder.fired.size(), 2u);
    EXPECT_EQ(recorder.fired[1].second, t1 + 500000 * kMs);

    timer->set(10);
    delete timer; // destroying a pending timer cancels it
    hostk::advanceTime(100 * kMs);
    EXPECT_EQ(recorder.fired.size(), 2u);

    timer = new MMETimer(nullptr, 3); // fires into nothing
    timer->set(1);
    EXPECT_EQ(hostk::pendingTimers(), 1u);
    hostk::advanceTime(10 * kMs);
    EXPECT_EQ(hostk::pendingTimers(), 0u) << "it fired";
    delete timer;
}

// ---- Hardware configuration ----

ChannelConfig wantedOf(MMEAdapter* adapter) {
    ChannelConfig c{};
    adapter->getAttachChannels(&c);
    return c;
}

TEST(UnstartedAdapter, AccessorsReadZeroAndChangesAreOnlyStored) {
    BareAdapter bare;
    MMEAdapter* adapter = bare.adapter;
    ChannelConfig out = config(1, 2, 3, 4, 5, 6);
    EXPECT_FALSE(adapter->getHWConfig(&out));
    EXPECT_EQ(out, ChannelConfig{});
    EXPECT_FALSE(adapter->getHWConfig(nullptr));
    EXPECT_EQ(adapter->getHWSampleRate(), 0u);
    EXPECT_EQ(adapter->getAPIDeviceInfo(), nullptr);
    adapter->linkInfo().mcAttachChannels = config(48000, 2, 2, 24, 24);
    EXPECT_FALSE(adapter->refreshAttachChannels());
    EXPECT_EQ(wantedOf(adapter), ChannelConfig{}); // the wanted configuration became zeros
    adapter->getAttachChannels(nullptr);

    const std::string self = tracecap::kernelPointer(adapter);
    tracecap::clearTrace();
    EXPECT_EQ(adapter->getHWDigitalLockFrequency(), 0u);
    adapter->checkNewConfig();
    adapter->updateStreamParameters();
    adapter->checkHardwareConfig();
    EXPECT_EQ(
        tracecap::traceMessages(),
        (std::vector<std::string>{
            "+ MMEAdapter::getHWDigitalLockFrequency 0x" + self,
            "- MMEAdapter::getHWDigitalLockFrequency", "MMEAdapter::checkNewConfig()",
            "+ MMEAdapter::checkNewConfig() 0x" + self, "m_cMMEAdapterInfo.mpSettings is NULL",
            "- MMEAdapter::checkNewConfig()", "+ MMEAdaper::updateStreamParameters 0x" + self,
            "mMMEWave is NULL", "- MMEAdaper::updateStreamParameters"}));

    const ChannelConfig wanted = config(96000, 2, 4, 16, 24, 9);
    EXPECT_TRUE(adapter->changeConfig(&wanted, false));
    EXPECT_EQ(wantedOf(adapter), wanted);
    EXPECT_EQ(adapter->getAttachSampleRate(), 96000u);
    // Applying needs the hardware's settings: refused, the wish stays.
    const ChannelConfig other = config(44100, 1, 1, 16, 16);
    tracecap::clearTrace();
    EXPECT_FALSE(adapter->changeConfig(&other, true));
    EXPECT_EQ(wantedOf(adapter), other);
    EXPECT_EQ(tracecap::traceMessages().size(), 2u) << tracecap::dumpTrace(); // entry and exit
    EXPECT_FALSE(adapter->changeConfig(nullptr, false));
}

// The wave miniport's rate is set to a marker only a stream update overwrites.
class StartedAdapter : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(adapter, nullptr);
        h.wave()->setSampleRate(1234);
        h.model.clearCalls();
        tracecap::clearTrace();
    }
    DriverHarness h;
    MMEAdapter* adapter = h.adapter();
    const ChannelConfig hardware = h.model.settings().current; // 48000 8 8 24 24
};

TEST_F(StartedAdapter, EqualConfigurationSendsNothingAppliedOneMovesHardwareAndStreams) {
    EXPECT_TRUE(adapter->changeConfig(&hardware, true));
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_EQ(h.wave()->sampleRate(), 1234u);
    checks::expectLines({"PRE ATTACH sr/in/bits/out/bits  48000 8 24 8 24",
                         "PRE HW sr/in/bits/out/bits  48000 8 24 8 24", "return 1"});
    EXPECT_EQ(tracecap::countLinesStartingWith("POST"), 0u);

    const ChannelConfig wanted = config(96000, 4, 2, 16, 24);
    tracecap::clearTrace();
    EXPECT_TRUE(adapter->changeConfig(&wanted, true));
    ASSERT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_ChangeConfig}));
    EXPECT_EQ(h.model.calls()[0].wanted, wanted);
    EXPECT_EQ(h.model.settings().current, wanted);
    EXPECT_EQ(wantedOf(adapter), wanted);
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    EXPECT_EQ(adapter->getHWSampleRate(), 96000u);
    checks::expectLines({"PRE ATTACH sr/in/bits/out/bits  96000 4 16 2 24",
                         "PRE HW sr/in/bits/out/bits  48000 8 24 8 24",
                         "POST ATTACH sr/in/bits/out/bits  96000 4 16 2 24",
                         "POST HW sr/in/bits/out/bits  96000 4 16 2 24", "return 1"});
    // A configuration that differs only in its config word is still sent.
    ChannelConfig word = wanted;
    word.config ^= 0x10;
    h.model.clearCalls();
    adapter->changeConfig(&word, true);
    ASSERT_EQ(h.model.callCount(USBCall_ChangeConfig), 1u);
    EXPECT_EQ(h.model.calls()[0].wanted.config, word.config);
}

// The device's own rules refusing at a stream's start: e2e
// UsbDriver.ARefusedConfigurationFailsTheStartAndChangesNothing.
TEST_F(StartedAdapter, RefusedChangeLeavesTheWantedConfigurationMirroringTheHardware) {
    const ChannelConfig fine = config(44100, 8, 8, 24, 24);
    h.model.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(adapter->changeConfig(&fine, true));
    EXPECT_EQ(wantedOf(adapter), hardware);
    EXPECT_EQ(h.model.settings().current, hardware);
    EXPECT_EQ(h.wave()->sampleRate(), hardware.fr); // the streams follow the hardware
    checks::expectLines({"Configuration change was prevented by usb driver",
                         "POST ATTACH sr/in/bits/out/bits  48000 8 24 8 24", "return 0"});
    h.model.clearAnswers();
    h.model.preventFurtherCalls(); // the call cannot be made at all
    tracecap::clearTrace();
    EXPECT_FALSE(adapter->changeConfig(&fine, true));
    EXPECT_TRUE(tracecap::containsLineStartingWith("!m_pCallIrp || !mUSBDeviceObject"));
    EXPECT_TRUE(tracecap::containsLine("Configuration change was prevented by usb driver"));
    EXPECT_EQ(wantedOf(adapter), hardware);
}

TEST_F(StartedAdapter, HardwareCheckAsksForTheWantedBackAndReportedChangesReachTheStreams) {
    ASSERT_TRUE(adapter->refreshAttachChannels());
    adapter->checkHardwareConfig(); // nothing drifted
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_FALSE(tracecap::containsLine("HARDWARE CONFIG CHANGED"));
    h.model.changeHardware(config(44100, 2, 2, 16, 16), false); // on its own, unreported
    adapter->checkHardwareConfig();
    EXPECT_TRUE(tracecap::containsLine("HARDWARE CONFIG CHANGED"));
    ASSERT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_ChangeConfig}));
    EXPECT_EQ(h.model.calls()[0].wanted, hardware);
    EXPECT_EQ(h.model.settings().current, hardware);

    EXPECT_EQ(adapter->getHWDigitalLockFrequency(), 0u);
    EXPECT_TRUE(tracecap::containsLine("no digital input available"));
    h.model.setDigitalLock(44100);
    EXPECT_EQ(adapter->getHWDigitalLockFrequency(), 44100u);
    EXPECT_TRUE(tracecap::containsLine("digital lock: 44100"));

    // Reported changes reach the streams by rate only.
    h.wave()->setSampleRate(hardware.fr);
    const ChannelConfig wanted = config(48000, 2, 2, 24, 24, 3);
    adapter->changeConfig(&wanted, false);
    // Rate unchanged: only the entry and exit inside the state callback's lines.
    tracecap::clearTrace();
    EXPECT_EQ(h.model.askState(USBStc_ConfigChanged, 0), 0);
    auto messages = tracecap::traceMessages();
    long raw = tracecap::findLine("MMEAdapter::checkNewConfig()");
    ASSERT_GE(raw, 0) << tracecap::dumpTrace();
    EXPECT_EQ(std::vector<std::string>(messages.begin() + raw + 1, messages.end()),
              (std::vector<std::string>{
                  "+ MMEAdapter::checkNewConfig() 0x" + tracecap::kernelPointer(adapter),
                  "- MMEAdapter::checkNewConfig()", "- MMEAdapter::USBDriverStcCallback"}));
    // A new rate reaches the wave miniport; the wanted configuration stays.
    tracecap::clearTrace();
    h.model.changeHardware(config(96000, 8, 8, 24, 24), true);
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    checks::expectLines(
        {"notify streams of samplerate change", "samplerate change old/new 48000 96000"});
    EXPECT_EQ(wantedOf(adapter), wanted);
    // Without settings the stream parameters cannot be updated.
    HardwareSettings* settings = adapter->linkInfo().mpSettings;
    adapter->linkInfo().mpSettings = nullptr;
    adapter->updateStreamParameters();
    EXPECT_TRUE(tracecap::containsLine("m_cMMEAdapterInfo.mpSetting is NULL"));
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    adapter->linkInfo().mpSettings = settings;
}

// ---- Notifications, state questions and the period exchange ----

// A started device; the tests decide when the MME side is attached.
class Notifications : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(h->startStatus, STATUS_SUCCESS);
        ASSERT_NE(adapter, nullptr);
        h->model.setAutoAttach(false);
        ASSERT_TRUE(adapter->refreshAttachChannels());
        h->model.clearCalls();
        tracecap::clearTrace();
    }

    size_t timedStarts() const { return h->model.callCount(USBCall_TimedStart); }

    std::unique_ptr<DriverHarness> h = std::make_unique<DriverHarness>();
    MMEAdapter* adapter = h->adapter();
};

TEST_F(Notifications, NotificationsAndStateQuestionsPrintTheirLinesAndTrackTheAttach) {
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 0);
    h->model.notify(MMENotify_OnMMEAttached);
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 1);
    EXPECT_EQ(adapter->linkInfo().mbAttached, 1);
    h->model.notify(MMENotify_OnMMEDetached);
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 0);
    EXPECT_EQ(adapter->linkInfo().mbAttached, 0);
    tracecap::clearTrace();
    h->model.notify(MMENotify_OnMMEAttached);
    h->model.notify(MMENotify_OnMMEDetached);
    h->model.notify(MMENotify_OnAsioAttached);
    h->model.notify(MMENotify_OnAsioDetached);
    h->model.notify(MMENotify_OnTimedStartCallback);
    EXPECT_EQ(tracecap::traceBodies(),
              (std::vector<std::string>{"...MME Attached", "...MME Detached",
                                        "MMENotify_OnAsioAttached", "", "MMENotify_OnAsioDetached",
                                        "MMENotify_OnTimedStartCallback"}))
        << tracecap::dumpTrace();

    // The rate already wanted: nothing beyond the entry lines.
    tracecap::clearTrace();
    EXPECT_EQ(h->model.askState(USBStc_SampleRate, 48000), 0);
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{
                  "MMEAdapter::USBDriverStcCallback what:1 value:48000",
                  "+ MMEAdapter::USBDriverStcCallback 0x" + tracecap::kernelPointer(adapter),
                  "what,value 1 48000", "- MMEAdapter::USBDriverStcCallback"}));
    tracecap::clearTrace();
    EXPECT_EQ(h->model.askState(USBStc_SampleRate, 96000), 0);
    EXPECT_TRUE(tracecap::containsLine("notify streams of samplerate change"));
    EXPECT_EQ(adapter->getAttachSampleRate(), 48000u); // noted, nothing changed
    EXPECT_TRUE(h->model.calls().empty());
}

// Running (or a timed start while running and unattached) starts the attach
// sequence.
TEST_F(Notifications, RunningStartsTheAttachSequenceOnce) {
    h->model.timedStart(); // not running
    EXPECT_TRUE(h->model.calls().empty());
    adapter->setWaveRunning(true);
    EXPECT_TRUE(adapter->isWaveRunning());
    EXPECT_EQ(h->model.callCodes(), (std::vector<ULONG>{USBCall_Attach}));
    const std::string values = " 48000 8 24 8 24 0";
    long first =
        tracecap::findLine("mChannelsOnAttach: fr/inCH/inRes/outCH/outRes/config" + values);
    long second = tracecap::findLine(
        "m_cMMEAdapterInfo.mcAttachChannels: fr/inCH/inRes/outCH/outRes/config" + values);
    long attach = tracecap::findLine("call IoCallDriver 0x" + tracecap::kernelPointer(adapter));
    ASSERT_GE(first, 0) << tracecap::dumpTrace();
    EXPECT_GT(attach, first);
    EXPECT_GT(second, attach);
    EXPECT_TRUE(tracecap::containsLine("bWaveRunning is  1"));

    tracecap::clearTrace();
    adapter->setWaveRunning(true);
    EXPECT_TRUE(tracecap::containsLine("no change"));
    EXPECT_EQ(h->model.callCodes().size(), 1u);

    h->model.clearCalls();
    tracecap::clearTrace();
    h->model.timedStart();
    EXPECT_EQ(h->model.callCodes(), (std::vector<ULONG>{USBCall_Attach}));
    EXPECT_EQ(tracecap::countLines("mChannelsOnAttach: fr/inCH/inRes/outCH/outRes/config" + values),
              2u);
    h->model.notify(MMENotify_OnMMEAttached);
    h->model.clearCalls();
    h->model.timedStart();
    EXPECT_TRUE(h->model.calls().empty());

    adapter->setWaveRunning(false); // stopping sends nothing
    EXPECT_FALSE(adapter->isWaveRunning());
    EXPECT_TRUE(h->model.calls().empty());
    // A drifted hardware asked back at the start: e2e
    // Directions.AStoppedStreamCarriesItsFormatAgainAfterTheOtherStarted.
}

TEST_F(Notifications, AttachTimerFiresOnceASecondAfterTheLastAsioDetach) {
    h->model.asioDetach(); // not running: the timer only announces itself
    hostk::advanceTime(1000 * kMs);
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 1u);
    tracecap::clearTrace();

    adapter->setWaveRunning(true);
    h->model.asioDetach();
    hostk::advanceTime(600 * kMs);
    h->model.asioDetach();
    hostk::advanceTime(999 * kMs);
    EXPECT_EQ(timedStarts(), 0u);
    hostk::advanceTime(1 * kMs);
    ASSERT_EQ(timedStarts(), 1u);
    EXPECT_EQ(h->model.calls().back().irql, DISPATCH_LEVEL); // from the timer's DPC
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 1u);
    hostk::advanceTime(5000 * kMs);
    EXPECT_EQ(timedStarts(), 1u);

    // While the MME side is attached: only the announcement.
    h->model.notify(MMENotify_OnMMEAttached);
    h->model.clearCalls();
    h->model.asioDetach();
    hostk::advanceTime(1000 * kMs);
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 2u);
    EXPECT_TRUE(h->model.calls().empty());

    tracecap::clearTrace();
    adapter->onTimer(9); // not the attach timer
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{"+ MMEAdapter::onTimer(unsigned long iTimerID) 0x00000009",
                                        "- MMEAdapter::onTimer(unsigned long iTimerID)"}));

    // Without a request the attach sequence still runs but sends nothing.
    adapter->setWaveRunning(false);
    h->model.notify(MMENotify_OnMMEDetached);
    h->model.preventFurtherCalls();
    tracecap::clearTrace();
    adapter->setWaveRunning(true);
    EXPECT_TRUE(tracecap::containsLine(
        "m_cMMEAdapterInfo.mcAttachChannels: fr/inCH/inRes/outCH/outRes/config 48000 8 24 8 24 0"));
    EXPECT_TRUE(tracecap::containsLineStartingWith("!m_pCallIrp || !mUSBDeviceObject"));
    h->model.asioDetach();
    hostk::advanceTime(1000 * kMs);
    EXPECT_TRUE(tracecap::containsLine("ATTACH TIMER"));
    EXPECT_TRUE(h->model.calls().empty());
}

// ---- Period exchange ----

class Exchange : public Notifications {
protected:
    void SetUp() override {
        Notifications::SetUp();
        capture = &h->model.captureRing();
        render = &h->model.renderRing();
        ASSERT_EQ(reinterpret_cast<UCHAR*>(capture),
                  adapter->linkInfo().mpCaptureRing + MME_CAPTURE_RING_PREFIX);
        h->model.notify(MMENotify_OnMMEAttached);
        capture->mWriteOffset = 0;
        tracecap::clearTrace();
    }
    // Sets up `available` unread capture frames for a reader at 1000.
    void backlog(ULONG available) {
        render->mMMEReadPos = 1000;
        capture->mWritePos = 1000 + available;
    }
    void exchange() { MMEAdapter::exchangeDataEntry(adapter, &adapter->linkInfo()); }

    AudioSM* capture = nullptr;
    AudioSM* render = nullptr;
};

// The port hears one Notify per pass that moved data (a stream is open) and
// none for passes that moved nothing.
TEST_F(Exchange, AtMostTwoPassesWhileAPeriodIsAvailable) {
    struct Case {
        ULONG available;
        ULONG passes;
    };
    PUNKNOWN port = hostpc::subdevice(h->fdo(), u"Wave");
    hostpc::WaveFilter filter(port);
    std::unique_ptr<hostpc::KsStream> stream;
    for (bool open : {false, true}) {
        if (open) {
            ASSERT_EQ(
                filter.open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 16), {}, &stream),
                STATUS_SUCCESS);
        }
        // A reader ten frames ahead of the writer sees a huge unsigned count.
        for (Case c : {Case{255, 0}, Case{256, 1}, Case{300, 1}, Case{511, 1}, Case{512, 2},
                       Case{600, 2}, Case{5000, 2}, Case{ULONG(-10), 2}}) {
            backlog(c.available);
            ULONG written = render->mWritePos;
            tracecap::clearTrace();
            const size_t notified = hostpc::portState(port).notifyCount;
            exchange();
            EXPECT_EQ(hostpc::portState(port).notifyCount - notified, open ? c.passes : 0u)
                << c.available;
            EXPECT_EQ(render->mMMEReadPos, 1000 + 256 * c.passes) << c.available;
            EXPECT_EQ(render->mWritePos, written + 256 * c.passes) << c.available;
            EXPECT_EQ(capture->framesAvailable(render->mMMEReadPos), c.available - 256 * c.passes);
            EXPECT_EQ(tracecap::countLines("MMEAdapter::checkExchangeData second round"),
                      c.passes == 2 ? 1u : 0u)
                << c.available;
        }
    }
    stream.reset();
}

TEST_F(Exchange, NothingMovesWithoutAttachSharedMemoryRingsOrChannels) {
    backlog(600);
    h->model.notify(MMENotify_OnMMEDetached);
    exchange();
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    h->model.notify(MMENotify_OnMMEAttached);
    tracecap::clearTrace();
    MMEAdapterInfo copy = adapter->linkInfo();
    copy.mpSharedMemory = nullptr;
    MMEAdapter::exchangeDataEntry(adapter, &copy);
    MMEAdapter::exchangeDataEntry(adapter, nullptr);
    MMEAdapter::exchangeDataEntry(nullptr, &adapter->linkInfo());
    EXPECT_TRUE(tracecap::traceLines().empty());
    adapter->checkExchangeData(nullptr); // called directly, the missing pieces are reported
    adapter->checkExchangeData(&copy);
    EXPECT_EQ(
        tracecap::traceMessages(),
        (std::vector<std::string>{"MMEAdapter::checkExchangeData pcInfo is NULL",
                                  "MMEAdapter::checkExchangeData pcInfo->mpSharedMemory is NULL"}));
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    // Not attached yet on the USB side.
    render->mMMEReadPos = MME_RING_NOT_ATTACHED;
    exchange();
    EXPECT_EQ(render->mMMEReadPos, MME_RING_NOT_ATTACHED);
    EXPECT_TRUE(tracecap::containsLine("MMEAdapter::checkExchangeData not attached yet"));

    // No capture ring: nothing is available.
    backlog(600);
    copy = adapter->linkInfo();
    copy.mpCaptureRing = nullptr;
    adapter->checkExchangeData(&copy);
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    // An adapter never started has no DMA channels.
    BareAdapter bare;
    tracecap::clearTrace();
    bare.adapter->checkExchangeData(&adapter->linkInfo());
    EXPECT_EQ(tracecap::traceMessages(), (std::vector<std::string>{"m_pcDMAEmulator is NULL"}));
    EXPECT_EQ(render->mMMEReadPos, 1000u);
}

} // namespace
