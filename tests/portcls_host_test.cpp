// The host port-class library on its own, with miniports written here: what
// the ports do at Init, registration and connection bookkeeping, Notify and
// service groups, the PnP start and remove requests, fault injection, and
// that every object it hands out is released.
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <cstring>
#include <memory>
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

// A stream that is its own DMA channel, with a pool-backed cyclic buffer,
// and the faults a driver could commit against the port.
class FakeStream final : public IMiniportWaveCyclicStream, public IDmaChannel {
public:
    static constexpr ULONG kTag = 0x6B614646; // 'FFak'
    FakeStream() { allocate(); }
    ~FakeStream() {
        if (!mFreed)
            ExFreePoolWithTag(mBuffer, kTag);
    }
    void allocate() {
        mBuffer = ExAllocatePoolWithTag(NonPagedPool, mSize, kTag);
        std::memset(mBuffer, 0, mSize);
    }

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* object) override {
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++mRefs; }
    STDMETHODIMP_(ULONG) Release() override {
        ULONG n = --mRefs;
        if (n == 0)
            delete this;
        return n;
    }
    STDMETHODIMP_(NTSTATUS) SetFormat(PKSDATAFORMAT) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(ULONG) SetNotificationFreq(ULONG, PULONG frame) override {
        *frame = mFraming;
        return 10;
    }
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) GetPosition(PULONG position) override {
        *position = mPosition;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS) NormalizePhysicalPosition(PLONGLONG) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(void) Silence(PVOID buffer, ULONG bytes) override {
        std::memset(buffer, 0, bytes);
    }

    STDMETHODIMP_(NTSTATUS) AllocateBuffer(ULONG, PPHYSICAL_ADDRESS) override { return 0; }
    STDMETHODIMP_(void) FreeBuffer() override {}
    STDMETHODIMP_(ULONG) TransferCount() override { return mSize; }
    STDMETHODIMP_(ULONG) MaximumBufferSize() override { return mSize; }
    STDMETHODIMP_(ULONG) AllocatedBufferSize() override { return mSize; }
    STDMETHODIMP_(ULONG) BufferSize() override { return mSize; }
    STDMETHODIMP_(void) SetBufferSize(ULONG) override {}
    STDMETHODIMP_(PVOID) SystemAddress() override { return mBuffer; }
    STDMETHODIMP_(PPHYSICAL_ADDRESS) PhysicalAddress(PPHYSICAL_ADDRESS address) override {
        return address;
    }
    STDMETHODIMP_(PADAPTER_OBJECT) GetAdapterObject() override { return nullptr; }
    STDMETHODIMP_(void) CopyTo(PVOID to, PVOID from, ULONG bytes) override {
        std::memcpy(to, from, bytes);
    }
    STDMETHODIMP_(void) CopyFrom(PVOID to, PVOID from, ULONG bytes) override {
        std::memcpy(to, from, bytes);
    }

    ULONG mRefs = 0;
    ULONG mSize = 4096;
    ULONG mFraming = 1024;
    ULONG mPosition = 0;
    PVOID mBuffer = nullptr;
    bool mFreed = false; // freed behind the port, still reported as its buffer
};

class FakeWave : public FakeMiniport<IMiniportWaveCyclic> {
public:
    explicit FakeWave(std::vector<std::string>* log) : FakeMiniport(log) {
        mPins[2].KsPinDescriptor.Communication = KSPIN_COMMUNICATION_SINK;
        mPins[2].KsPinDescriptor.DataFlow = KSPIN_DATAFLOW_IN;
    }
    ~FakeWave() override {
        if (mGroup)
            mGroup->Release();
    }
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN adapter, PRESOURCELIST, PPORTWAVECYCLIC port) override {
        mWavePort = port;
        return initCommon(adapter, port);
    }
    STDMETHODIMP_(NTSTATUS)
    NewStream(PMINIPORTWAVECYCLICSTREAM* stream, PUNKNOWN, POOL_TYPE, ULONG, BOOLEAN, PKSDATAFORMAT,
              PDMACHANNEL* dma, PSERVICEGROUP* group) override {
        if (!mGroup && PcNewServiceGroup(&mGroup, nullptr) != STATUS_SUCCESS)
            return STATUS_INSUFFICIENT_RESOURCES;
        mStream = new FakeStream;
        mStream->mFraming = mFraming;
        mStream->mRefs = 2;
        *stream = mStream;
        *dma = mStream;
        mGroup->AddRef();
        *group = mGroup;
        return STATUS_SUCCESS;
    }
    PPORTWAVECYCLIC mWavePort = nullptr;
    PSERVICEGROUP mGroup = nullptr;
    FakeStream* mStream = nullptr; // the last one, held by the port's pin
    ULONG mFraming = 1024;
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
    // Both requests found the group's DPC queued once; it ran when the
    // callback left DISPATCH_LEVEL.
    EXPECT_EQ(a.services, 1);
    EXPECT_EQ(b.services, 1);
    EXPECT_EQ(hostpc::serviceGroupState(group).serviceRequests, 2u);

    group->RemoveMember(&b);
    group->RequestService();
    EXPECT_EQ(a.services, 2);
    EXPECT_EQ(b.services, 1);
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
    EXPECT_EQ(a.services, 2);
    hostk::advanceTime(1 * 10000);
    EXPECT_EQ(a.services, 3);
    group->RequestDelayedService((ULONGLONG)(-10 * 10000));
    group->CancelDelayedService();
    hostk::advanceTime(100 * 10000);
    EXPECT_EQ(a.services, 3);
    group->RequestDelayedService((ULONGLONG)(-10 * 10000));
    group->Release();
    hostk::advanceTime(100 * 10000);
    EXPECT_EQ(a.services, 3);
    EXPECT_EQ(a.refs, 0u);
    // Hand the miniport's hold back: register and remove like a device does.
    WCHAR name[] = u"Wave";
    EXPECT_EQ(PcRegisterSubdevice(mFdo, name, port), STATUS_SUCCESS);
    port->Release();
}

// Concurrent mode: the members are serviced on the kernel's DPC thread; a
// request that finds the service asked for a millisecond earlier still
// queued (the DPC thread busy) counts as late and coalesces with it.
TEST_F(PortClsHost, ConcurrentServiceRunsOnTheDpcThreadAndCountsLateOnes) {
    struct HeldSink : CountingSink {
        STDMETHODIMP_(void) RequestService() override {
            std::unique_lock<std::mutex> lock(mutex);
            thread = std::this_thread::get_id();
            ++services;
            changed.notify_all();
            changed.wait(lock, [&] { return open; });
        }
        std::mutex mutex;
        std::condition_variable changed;
        std::thread::id thread;
        bool open = false;
    } sink;
    hostpc::setDefaultServiceMode(hostpc::ServiceMode::Concurrent);
    PSERVICEGROUP group = nullptr;
    ASSERT_EQ(PcNewServiceGroup(&group, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(hostpc::serviceGroupState(group).mode, hostpc::ServiceMode::Concurrent);
    ASSERT_EQ(group->AddMember(&sink), STATUS_SUCCESS);
    hostk::runAtDispatch([&] { group->RequestService(); });
    {
        std::unique_lock<std::mutex> lock(sink.mutex);
        sink.changed.wait(lock, [&] { return sink.services == 1; });
    }
    EXPECT_NE(sink.thread, std::this_thread::get_id());
    hostk::runAtDispatch([&] { group->RequestService(); }); // queued behind the running one
    hostk::advanceTime(10000);
    hostk::runAtDispatch([&] { group->RequestService(); }); // a millisecond later: late
    EXPECT_EQ(hostpc::serviceGroupState(group).lateServices, 1u);
    {
        std::lock_guard<std::mutex> lock(sink.mutex);
        sink.open = true;
        sink.changed.notify_all();
    }
    KeFlushQueuedDpcs();
    EXPECT_EQ(sink.services, 2) << "the queued request and the late one ran once";
    group->RemoveMember(&sink);
    group->Release();
}

// What the port takes from a stream is the driver's word: a framing of 0, a
// position at the buffer's end, a cyclic buffer freed or moved under the
// port each get the verifier's report, never a quiet repair.
TEST_F(PortClsHost, TheVerifierReportsWhatADriverDoesBehindThePort) {
    PUNKNOWN miniport = nullptr;
    PPORT port = initialisedPort(CLSID_PortWaveCyclic, &miniport);
    auto* wave = static_cast<FakeWave*>(static_cast<IMiniportWaveCyclic*>(miniport));
    struct Case {
        const char* fault;
        ULONG framing;
        void (*act)(FakeStream&);
        const char* report;
    };
    const Case cases[] = {
        {"framing 0", 0, [](FakeStream&) {}, "framing size of 0"},
        {"position at the end", 1024, [](FakeStream& s) { s.mPosition = s.mSize; },
         "GetPosition gave 4096, at or past the cyclic buffer's 4096 bytes"},
        {"buffer freed", 1024,
         [](FakeStream& s) { ExFreePoolWithTag(s.mBuffer, FakeStream::kTag), s.mFreed = true; },
         "freed the cyclic buffer"},
        {"buffer resized", 1024, [](FakeStream& s) { s.mSize /= 2; }, "moved or resized"},
        {"none", 1024, [](FakeStream& s) { s.mPosition = 1024; }, nullptr},
    };
    hostpc::WaveFilter filter(port);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        wave->mFraming = c.framing;
        std::unique_ptr<hostpc::KsStream> stream;
        ASSERT_EQ(filter.open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 16), {}, &stream),
                  STATUS_SUCCESS);
        ASSERT_EQ(stream->setState(KSSTATE_RUN), STATUS_SUCCESS);
        c.act(*wave->mStream);
        static_cast<IPortWaveCyclic*>(port)->Notify(wave->mGroup);
        std::vector<std::string> reports = hostk::verifierFailures();
        if (!c.report) {
            EXPECT_TRUE(reports.empty());
            EXPECT_EQ(stream->positionFrames(), 256u);
        } else {
            ASSERT_EQ(reports.size(), 1u);
            EXPECT_NE(reports[0].find(c.report), std::string::npos) << reports[0];
        }
        hostk::clearVerifierFailures();
        wave->mStream->mSize = 4096; // the buffer block's own size, for its free
        stream.reset();
    }
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
