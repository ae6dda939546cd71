// The host port-class library on its own, with miniports written here: what
// the ports do at Init, registration and connection bookkeeping, Notify and
// service groups, the PnP start and remove requests, fault injection, and
// that every object it hands out is released.
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// A miniport of either kind that records what the port does with it.
template <class Interface> class FakeMiniport : public Interface {
public:
    explicit FakeMiniport(std::vector<std::string>* log) : mLog(log) {}
    virtual ~FakeMiniport() = default;

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID* object) override {
        if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IMiniport) ||
            IsEqualGUID(iid, IID_IMiniportTopology) || IsEqualGUID(iid, IID_IMiniportWaveCyclic)) {
            *object = static_cast<Interface*>(this);
            AddRef();
            return STATUS_SUCCESS;
        }
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++mRefs; }
    STDMETHODIMP_(ULONG) Release() override {
        ULONG n = --mRefs;
        if (n == 0) {
            mLog->push_back("destroyed");
            if (mPort)
                mPort->Release();
            delete this;
        }
        return n;
    }
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* out) override {
        mLog->push_back("GetDescription");
        *out = mDescriptionStatus == STATUS_SUCCESS ? &mDescriptor : nullptr;
        return mDescriptionStatus;
    }
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE, ULONG, PVOID, PULONG) override {
        return STATUS_NOT_IMPLEMENTED;
    }

    NTSTATUS initCommon(PUNKNOWN adapter, PUNKNOWN port) {
        mLog->push_back("Init");
        mAdapterSeen = adapter;
        if (mInitStatus != STATUS_SUCCESS)
            return mInitStatus;
        // Like the driver's miniports: hold the port.
        mPort = port;
        mPort->AddRef();
        return STATUS_SUCCESS;
    }

    ULONG mRefs = 0;
    std::vector<std::string>* mLog;
    NTSTATUS mInitStatus = STATUS_SUCCESS;
    NTSTATUS mDescriptionStatus = STATUS_SUCCESS;
    PUNKNOWN mAdapterSeen = nullptr;
    PUNKNOWN mPort = nullptr;
    PCFILTER_DESCRIPTOR mDescriptor{
        0, nullptr, sizeof(PCPIN_DESCRIPTOR), 4, mPins, 0, 0, nullptr, 0, nullptr, 0, nullptr};
    PCPIN_DESCRIPTOR mPins[4] = {};
};

class FakeTopology : public FakeMiniport<IMiniportTopology> {
public:
    using FakeMiniport::FakeMiniport;
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN adapter, PRESOURCELIST, PPORTTOPOLOGY port) override {
        return initCommon(adapter, port);
    }
};

class FakeWave : public FakeMiniport<IMiniportWaveCyclic> {
public:
    using FakeMiniport::FakeMiniport;
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN adapter, PRESOURCELIST, PPORTWAVECYCLIC port) override {
        mWavePort = port;
        return initCommon(adapter, port);
    }
    STDMETHODIMP_(NTSTATUS)
    NewStream(PMINIPORTWAVECYCLICSTREAM*, PUNKNOWN, POOL_TYPE, ULONG, BOOLEAN, PKSDATAFORMAT,
              PDMACHANNEL*, PSERVICEGROUP*) override {
        return STATUS_NOT_IMPLEMENTED;
    }
    PPORTWAVECYCLIC mWavePort = nullptr;
};

// A plain unknown standing in for the adapter.
struct FakeAdapter : IUnknown {
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* object) override {
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

struct CountingSink : IServiceSink {
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* object) override {
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    STDMETHODIMP_(void) RequestService() override { ++services; }
    ULONG refs = 0;
    int services = 0;
};

std::vector<std::string> gStartLog;
PIRP gStartIrp = nullptr;
PRESOURCELIST gStartResources = reinterpret_cast<PRESOURCELIST>(1);

NTSTATUS NTAPI recordingStart(PDEVICE_OBJECT, PIRP irp, PRESOURCELIST resources) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    gStartLog.push_back("start major=" + std::to_string(stack->MajorFunction) +
                        " minor=" + std::to_string(stack->MinorFunction));
    gStartIrp = irp;
    gStartResources = resources;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI addNothing(PDRIVER_OBJECT, PDEVICE_OBJECT) {
    return STATUS_SUCCESS;
}

class PortClsHost : public ::testing::Test {
protected:
    void SetUp() override {
        hostpc::resetForTest();
        gStartLog.clear();
        gStartIrp = nullptr;
        ASSERT_EQ(PcInitializeAdapterDriver(&mDriver, nullptr, addNothing), STATUS_SUCCESS);
        mPdo = hostk::createDeviceObject(nullptr, 2, 0);
        ASSERT_EQ(PcAddAdapterDevice(&mDriver, mPdo, recordingStart, 2, 0), STATUS_SUCCESS);
        mFdo = hostpc::fdoForPdo(mPdo);
        ASSERT_NE(mFdo, nullptr);
    }
    void TearDown() override {
        hostpc::removeDevice(mFdo);
        hostk::deleteDeviceObject(mPdo);
        hostpc::resetForTest();
        EXPECT_EQ(hostpc::liveObjects(), 0u);
        EXPECT_TRUE(hostpc::devices().empty());
    }

    // A port of the class, initialised with a fresh miniport; the port's
    // creation reference is the caller's.
    PPORT initialisedPort(REFCLSID cls, PUNKNOWN* miniportOut = nullptr) {
        PPORT port = nullptr;
        EXPECT_EQ(PcNewPort(&port, cls), STATUS_SUCCESS);
        PUNKNOWN miniport;
        if (IsEqualGUID(cls, CLSID_PortTopology))
            miniport = new FakeTopology(&mLog);
        else
            miniport = new FakeWave(&mLog);
        miniport->AddRef();
        EXPECT_EQ(port->Init(mFdo, &mIrp, miniport, &mAdapter, nullptr), STATUS_SUCCESS);
        if (miniportOut)
            *miniportOut = miniport;
        miniport->Release();
        return port;
    }

    hostk::DriverObjectBlock mDriverBlock;
    DRIVER_OBJECT& mDriver = *hostk::initDriverObject(mDriverBlock);
    PDEVICE_OBJECT mPdo = nullptr;
    PDEVICE_OBJECT mFdo = nullptr;
    IRP mIrp{};
    FakeAdapter mAdapter;
    std::vector<std::string> mLog;
};

TEST_F(PortClsHost, AdapterDriverDeviceBookkeepingAndPnpStart) {
    EXPECT_EQ(mDriver.DriverExtension->AddDevice, &addNothing);
    EXPECT_NE(mDriver.MajorFunction[IRP_MJ_PNP], nullptr);
    EXPECT_EQ(hostpc::pdoOf(mFdo), mPdo);
    EXPECT_EQ(mPdo->AttachedDevice, mFdo);
    EXPECT_EQ(mFdo->StackSize, mPdo->StackSize + 1);
    EXPECT_EQ(mFdo->DriverObject, &mDriver);
    EXPECT_EQ(hostpc::maxObjects(mFdo), 2u);
    EXPECT_EQ(hostpc::startRoutine(mFdo), &recordingStart);
    // A second functional device on the same physical one is refused.
    EXPECT_EQ(PcAddAdapterDevice(&mDriver, mPdo, recordingStart, 2, 0),
              STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(PcAddAdapterDevice(&mDriver, mPdo, nullptr, 2, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcInitializeAdapterDriver(&mDriver, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    DRIVER_OBJECT noExtension{};
    EXPECT_EQ(PcInitializeAdapterDriver(&noExtension, nullptr, addNothing),
              STATUS_INVALID_PARAMETER);

    // The start request reaches the start routine as a PnP start.
    EXPECT_FALSE(hostpc::isStarted(mFdo));
    EXPECT_EQ(hostpc::startDevice(mFdo), STATUS_SUCCESS);
    ASSERT_EQ(gStartLog.size(), 1u);
    EXPECT_EQ(gStartLog[0], "start major=" + std::to_string(IRP_MJ_PNP) + " minor=0");
    EXPECT_NE(gStartIrp, nullptr);
    EXPECT_EQ(gStartResources, nullptr);
    EXPECT_TRUE(hostpc::isStarted(mFdo));
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(hostpc::startDevice(nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(PortClsHost, PortsAnswerTheirInterfacesWithOneIdentityAndCountEvents) {
    PPORT topology = nullptr;
    PPORT wave = nullptr;
    ASSERT_EQ(PcNewPort(&topology, CLSID_PortTopology), STATUS_SUCCESS);
    ASSERT_EQ(PcNewPort(&wave, CLSID_PortWaveCyclic), STATUS_SUCCESS);
    PPORT other = reinterpret_cast<PPORT>(1);
    EXPECT_EQ(PcNewPort(&other, IID_IUnknown), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(hostpc::liveObjects(), 2u);

    PVOID unknown = nullptr;
    PVOID asPort = nullptr;
    PVOID events = nullptr;
    PVOID asWave = nullptr;
    EXPECT_EQ(wave->QueryInterface(IID_IUnknown, &unknown), STATUS_SUCCESS);
    EXPECT_EQ(wave->QueryInterface(IID_IPort, &asPort), STATUS_SUCCESS);
    EXPECT_EQ(wave->QueryInterface(IID_IPortWaveCyclic, &asWave), STATUS_SUCCESS);
    EXPECT_EQ(wave->QueryInterface(IID_IPortEvents, &events), STATUS_SUCCESS);
    EXPECT_EQ(unknown, asPort);
    EXPECT_EQ(unknown, asWave);
    EXPECT_NE(events, nullptr);
    EXPECT_EQ(hostpc::portState(wave).references, 5);
    PVOID none = nullptr;
    EXPECT_EQ(topology->QueryInterface(IID_IPortWaveCyclic, &none), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(none, nullptr);
    for (PVOID p : {unknown, asPort, asWave})
        static_cast<PUNKNOWN>(p)->Release();

    // Events are counted per port.
    auto* portEvents = static_cast<IPortEvents*>(events);
    portEvents->AddEventToEventList(nullptr);
    GUID set = KSPROPSETID_Audio;
    portEvents->GenerateEventList(&set, 8, FALSE, 0, TRUE, 1);
    portEvents->GenerateEventList(&set, 8, FALSE, 0, TRUE, 1);
    EXPECT_EQ(hostpc::portState(wave).eventsAdded, 1u);
    EXPECT_EQ(hostpc::portState(wave).eventsGenerated, 2u);
    EXPECT_EQ(hostpc::portState(topology).eventsGenerated, 0u);
    portEvents->Release();

    EXPECT_TRUE(hostpc::portState(wave).waveCyclic);
    EXPECT_FALSE(hostpc::portState(topology).waveCyclic);
    EXPECT_FALSE(hostpc::portState(&mAdapter).isPort);
    topology->Release();
    wave->Release();
    EXPECT_EQ(hostpc::liveObjects(), 0u);
}

TEST_F(PortClsHost, InitBindsTheMiniportThenAsksForItsDescription) {
    PUNKNOWN miniport = nullptr;
    PPORT port = initialisedPort(CLSID_PortWaveCyclic, &miniport);
    auto* fake = static_cast<FakeWave*>(miniport);
    EXPECT_EQ(mLog, (std::vector<std::string>{"Init", "GetDescription"}));
    EXPECT_EQ(fake->mAdapterSeen, &mAdapter);
    EXPECT_EQ(fake->mWavePort, static_cast<IPortWaveCyclic*>(port));

    hostpc::PortState s = hostpc::portState(port);
    EXPECT_TRUE(s.initialized);
    EXPECT_EQ(s.device, mFdo);
    EXPECT_EQ(s.initIrp, &mIrp);
    EXPECT_EQ(s.miniport, miniport);
    EXPECT_EQ(s.descriptor, &fake->mDescriptor);
    EXPECT_EQ(fake->mRefs, 1u); // the port's

    // A second Init of a bound port is refused.
    FakeWave second(&mLog);
    EXPECT_EQ(port->Init(mFdo, &mIrp, &second, &mAdapter, nullptr), STATUS_INVALID_DEVICE_STATE);

    // Port and miniport hold each other until the children are released,
    // which removal of the device does.
    WCHAR name[] = u"Wave";
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, port), STATUS_SUCCESS);
    port->Release();
    EXPECT_EQ(hostpc::liveObjects(), 1u);
    EXPECT_NE(mLog.back(), "destroyed");
    hostpc::removeDevice(mFdo);
    mFdo = nullptr;
    EXPECT_EQ(mLog.back(), "destroyed");
    EXPECT_EQ(hostpc::liveObjects(), 0u);
}

TEST_F(PortClsHost, InitFailuresGiveTheMiniportBack) {
    for (int failing = 0; failing < 3; ++failing) {
        mLog.clear();
        PPORT port = nullptr;
        ASSERT_EQ(PcNewPort(&port, CLSID_PortTopology), STATUS_SUCCESS);
        auto* fake = new FakeTopology(&mLog);
        fake->AddRef();
        NTSTATUS expected = STATUS_SUCCESS;
        if (failing == 0) {
            fake->mInitStatus = expected = STATUS_INSUFFICIENT_RESOURCES;
        } else if (failing == 1) {
            fake->mDescriptionStatus = expected = STATUS_INVALID_DEVICE_STATE;
        } else {
            hostpc::fail(hostpc::Op::PortInit, expected = STATUS_NOT_SUPPORTED);
        }
        EXPECT_EQ(port->Init(mFdo, &mIrp, fake, &mAdapter, nullptr), expected) << failing;
        EXPECT_FALSE(hostpc::portState(port).initialized);
        EXPECT_EQ(hostpc::portState(port).miniport, nullptr);
        hostpc::clearFailures();
        if (failing == 1) {
            // The miniport's Init ran and took the port; only the miniport
            // can let go of it.
            EXPECT_EQ(fake->mRefs, 1u);
        }
        fake->Release();
        EXPECT_EQ(mLog.back(), "destroyed") << failing;
        port->Release();
        EXPECT_EQ(hostpc::liveObjects(), 0u) << failing;
    }
    PPORT port = nullptr;
    ASSERT_EQ(PcNewPort(&port, CLSID_PortTopology), STATUS_SUCCESS);
    EXPECT_EQ(port->Init(mFdo, &mIrp, nullptr, &mAdapter, nullptr), STATUS_INVALID_PARAMETER);
    port->Release();
}

TEST_F(PortClsHost, RegistrationAndConnectionsAreBookedPerDevice) {
    PPORT topology = initialisedPort(CLSID_PortTopology);
    PPORT wave = initialisedPort(CLSID_PortWaveCyclic);
    WCHAR topologyName[] = u"Topology";
    WCHAR waveName[] = u"Wave";
    WCHAR thirdName[] = u"Third";
    ASSERT_EQ(PcRegisterSubdevice(mFdo, topologyName, topology), STATUS_SUCCESS);
    ASSERT_EQ(PcRegisterSubdevice(mFdo, waveName, wave), STATUS_SUCCESS);
    EXPECT_EQ(hostpc::subdeviceNames(mFdo), (std::vector<std::u16string>{u"Topology", u"Wave"}));
    EXPECT_EQ(hostpc::subdevice(mFdo, u"Wave"), static_cast<PUNKNOWN>(wave));
    EXPECT_EQ(hostpc::subdevice(mFdo, u"Nothing"), nullptr);

    // MaxObjects was 2.
    PPORT third = initialisedPort(CLSID_PortTopology);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, thirdName, third), STATUS_INSUFFICIENT_RESOURCES);
    // Refused registration: the port gave up its miniport, so it goes with
    // its last reference.
    EXPECT_EQ(hostpc::portState(third).miniport, nullptr);
    third->Release();
    EXPECT_EQ(hostpc::liveObjects(), 2u);

    // Connections: by any interface of a registered port, pins within the
    // ports' descriptors.
    PVOID waveEvents = nullptr;
    ASSERT_EQ(wave->QueryInterface(IID_IPortEvents, &waveEvents), STATUS_SUCCESS);
    EXPECT_EQ(
        PcRegisterPhysicalConnection(mFdo, topology, 1, static_cast<IPortEvents*>(waveEvents), 1),
        STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, wave, 3, topology, 0), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, wave, 4, topology, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, wave, 3, &mAdapter, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, nullptr, 3, topology, 0),
              STATUS_INVALID_PARAMETER);
    static_cast<IPortEvents*>(waveEvents)->Release();

    std::vector<hostpc::Connection> expected{{u"Topology", 1, u"Wave", 1},
                                             {u"Wave", 3, u"Topology", 0}};
    EXPECT_EQ(hostpc::connections(mFdo), expected);

    topology->Release();
    wave->Release();
    // The registrations hold both ports until the device goes.
    EXPECT_EQ(hostpc::liveObjects(), 2u);
    hostpc::removeDevice(mFdo);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_EQ(std::count(mLog.begin(), mLog.end(), "destroyed"), 3);
    mFdo = nullptr;
}

TEST_F(PortClsHost, RegistrationRefusals) {
    WCHAR name[] = u"Wave";
    PPORT bare = nullptr;
    ASSERT_EQ(PcNewPort(&bare, CLSID_PortWaveCyclic), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, bare), STATUS_INVALID_DEVICE_STATE); // not Init
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, &mAdapter), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, nullptr, bare), STATUS_INVALID_PARAMETER);
    bare->Release();

    // (Injected registration and connection failures: adapter_test, on the real driver.)
    PPORT wave = initialisedPort(CLSID_PortWaveCyclic);
    PPORT again = initialisedPort(CLSID_PortWaveCyclic);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, wave), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, again), STATUS_INVALID_PARAMETER); // same name
    wave->Release();
    again->Release();
    EXPECT_TRUE(hostpc::subdeviceNames(nullptr).empty());
}

TEST_F(PortClsHost, NotifyCallsTheListenerAndServesTheGroupAtOnceOrFromATimer) {
    PPORT port = initialisedPort(CLSID_PortWaveCyclic);
    auto* wave = static_cast<IPortWaveCyclic*>(port);
    PSERVICEGROUP group = nullptr;
    ASSERT_EQ(PcNewServiceGroup(&group, nullptr), STATUS_SUCCESS);
    CountingSink a, b;
    EXPECT_EQ(group->AddMember(&a), STATUS_SUCCESS);
    EXPECT_EQ(group->AddMember(&b), STATUS_SUCCESS);
    EXPECT_EQ(group->AddMember(&a), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hostpc::serviceGroupState(group).members, 2u);

    std::vector<PSERVICEGROUP> heard;
    hostpc::setNotifyListener(port, [&](PSERVICEGROUP g) { heard.push_back(g); });
    hostk::runAtDispatch([&] {
        hostk::NoAllocNoWaitScope scope("period callback");
        wave->Notify(group);
        wave->Notify(group);
    });
    wave->Notify(nullptr);
    EXPECT_EQ(hostpc::portState(port).notifyCount, 3u);
    EXPECT_EQ(heard, (std::vector<PSERVICEGROUP>{group, group, nullptr}));
    EXPECT_EQ(a.services, 2);
    EXPECT_EQ(b.services, 2);
    EXPECT_EQ(hostpc::serviceGroupState(group).serviceRequests, 2u);

    group->RemoveMember(&b);
    group->RequestService();
    EXPECT_EQ(a.services, 3);
    EXPECT_EQ(b.services, 2);
    EXPECT_EQ(b.refs, 0u);
    hostpc::setNotifyListener(port, nullptr);

    // The port offers no DMA channel of its own.
    PDMACHANNELSLAVE slave = reinterpret_cast<PDMACHANNELSLAVE>(1);
    EXPECT_EQ(wave->NewSlaveDmaChannel(&slave, nullptr, nullptr, 0, 0, FALSE, 0),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(slave, nullptr);

    // Delayed service runs from a timer; a pending one dies with the group.
    group->SupportDelayedService();
    EXPECT_TRUE(hostpc::serviceGroupState(group).delayedServiceSupported);
    group->RequestDelayedService((ULONGLONG)(-10 * 10000)); // 10 ms
    hostk::advanceTime(9 * 10000);
    EXPECT_EQ(a.services, 3);
    hostk::advanceTime(1 * 10000);
    EXPECT_EQ(a.services, 4);
    group->RequestDelayedService((ULONGLONG)(-10 * 10000));
    group->CancelDelayedService();
    hostk::advanceTime(100 * 10000);
    EXPECT_EQ(a.services, 4);
    group->RequestDelayedService((ULONGLONG)(-10 * 10000));
    group->Release();
    hostk::advanceTime(100 * 10000);
    EXPECT_EQ(a.services, 4);
    EXPECT_EQ(a.refs, 0u);
    // Hand the miniport's hold back: register and remove like a device does.
    WCHAR name[] = u"Wave";
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, port), STATUS_SUCCESS);
    port->Release();
}

TEST_F(PortClsHost, InjectedFailuresAndNullArguments) {
    PPORT port = reinterpret_cast<PPORT>(1);
    hostpc::fail(hostpc::Op::NewPortWaveCyclic, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(PcNewPort(&port, CLSID_PortWaveCyclic), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(port, nullptr);
    EXPECT_EQ(PcNewPort(&port, CLSID_PortTopology), STATUS_SUCCESS); // other class unaffected
    port->Release();
    hostpc::clearFailures();

    // (Allocation failures of ports and service groups: alloc_sweep_test.)
    EXPECT_EQ(PcNewPort(nullptr, CLSID_PortTopology), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcNewServiceGroup(nullptr, nullptr), STATUS_INVALID_PARAMETER);

    hostk::DriverObjectBlock driver;
    hostpc::fail(hostpc::Op::InitializeAdapterDriver, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(PcInitializeAdapterDriver(hostk::initDriverObject(driver), nullptr, addNothing),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(driver.extension.AddDevice, nullptr);
    hostpc::fail(hostpc::Op::AddAdapterDevice, STATUS_UNSUCCESSFUL);
    PDEVICE_OBJECT pdo = hostk::createDeviceObject(nullptr, 1, 0);
    EXPECT_EQ(PcAddAdapterDevice(&mDriver, pdo, recordingStart, 3, 0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(hostpc::fdoForPdo(pdo), nullptr);
    hostk::deleteDeviceObject(pdo);
}

} // namespace
