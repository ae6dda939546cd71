// The host port-class library is as strict as the real one: each refusal,
// the verifier's reports on what a miniport does behind the port, and every
// object it hands out released. Miniports written here.
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// A miniport of either kind that holds its port, as the driver's do.
template <class Interface, class Port> class FakeMiniport : public Interface {
public:
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
            if (mPort)
                mPort->Release();
            delete this;
        }
        return n;
    }
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* out) override {
        *out = &mDescriptor;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE, ULONG, PVOID, PULONG) override {
        return STATUS_NOT_IMPLEMENTED;
    }

    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN, PRESOURCELIST, Port port) override {
        mPort = port;
        mPort->AddRef();
        return STATUS_SUCCESS;
    }

    ULONG mRefs = 0;
    PUNKNOWN mPort = nullptr;
    PCFILTER_DESCRIPTOR mDescriptor{
        0, nullptr, sizeof(PCPIN_DESCRIPTOR), 4, mPins, 0, 0, nullptr, 0, nullptr, 0, nullptr};
    PCPIN_DESCRIPTOR mPins[4] = {};
};

using FakeTopology = FakeMiniport<IMiniportTopology, PPORTTOPOLOGY>;

// A stream that is its own DMA channel, with a pool-backed cyclic buffer,
// and the faults a driver could commit against the port.
class FakeStream final : public IMiniportWaveCyclicStream, public IDmaChannel {
public:
    static constexpr ULONG kTag = 0x6B614646; // 'FFak'
    FakeStream() { std::memset(mBuffer, 0, mSize); }
    ~FakeStream() {
        if (!mFreed)
            ExFreePoolWithTag(mBuffer, kTag);
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
    PVOID mBuffer = ExAllocatePoolWithTag(NonPagedPool, mSize, kTag);
    bool mFreed = false; // freed behind the port, still reported as its buffer
};

class FakeWave : public FakeMiniport<IMiniportWaveCyclic, PPORTWAVECYCLIC> {
public:
    FakeWave() {
        mPins[2].KsPinDescriptor.Communication = KSPIN_COMMUNICATION_SINK;
        mPins[2].KsPinDescriptor.DataFlow = KSPIN_DATAFLOW_IN;
    }
    ~FakeWave() override {
        if (mGroup)
            mGroup->Release();
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
    PSERVICEGROUP mGroup = nullptr;
    FakeStream* mStream = nullptr; // the last one, held by the port's pin
    ULONG mFraming = 1024;
};

struct CountingSink : IServiceSink {
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* object) override {
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    STDMETHODIMP_(void) RequestService() override {}
    ULONG refs = 0;
};

NTSTATUS NTAPI startNothing(PDEVICE_OBJECT, PIRP, PRESOURCELIST) {
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI addNothing(PDRIVER_OBJECT, PDEVICE_OBJECT) {
    return STATUS_SUCCESS;
}

class PortClsHost : public ::testing::Test {
protected:
    void SetUp() override {
        hostpc::resetForTest();
        ASSERT_EQ(PcInitializeAdapterDriver(&mDriver, nullptr, addNothing), STATUS_SUCCESS);
        mPdo = hostk::createDeviceObject(nullptr, 2, 0);
        ASSERT_EQ(PcAddAdapterDevice(&mDriver, mPdo, startNothing, 2, 0), STATUS_SUCCESS);
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
            miniport = new FakeTopology;
        else
            miniport = new FakeWave;
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
    CountingSink mAdapter; // any unknown stands in for the adapter
};

// Each refusal, with the status the port-class library gives.
TEST_F(PortClsHost, RefusalsCarryTheirStatus) {
    PPORT bare = nullptr, unknownClass = reinterpret_cast<PPORT>(1);
    ASSERT_EQ(PcNewPort(&bare, CLSID_PortWaveCyclic), STATUS_SUCCESS);
    PPORT topology = initialisedPort(CLSID_PortTopology);
    PPORT wave = initialisedPort(CLSID_PortWaveCyclic);
    PPORT again = initialisedPort(CLSID_PortWaveCyclic);
    PPORT third = initialisedPort(CLSID_PortTopology);
    DRIVER_OBJECT noExtension{};
    WCHAR waveName[] = u"Wave", topologyName[] = u"Topology", thirdName[] = u"Third";
    FakeWave second;
    PVOID none = this;
    PSERVICEGROUP group = nullptr;
    ASSERT_EQ(PcNewServiceGroup(&group, nullptr), STATUS_SUCCESS);
    CountingSink member;
    PDMACHANNELSLAVE slave = reinterpret_cast<PDMACHANNELSLAVE>(1);
    auto* cyclic = static_cast<IPortWaveCyclic*>(wave);
    // A second functional device on one physical device.
    EXPECT_EQ(PcAddAdapterDevice(&mDriver, mPdo, startNothing, 2, 0), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(PcAddAdapterDevice(&mDriver, mPdo, nullptr, 2, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcInitializeAdapterDriver(&mDriver, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcInitializeAdapterDriver(&noExtension, nullptr, addNothing),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hostpc::startDevice(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcNewPort(&unknownClass, IID_IUnknown), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(PcNewPort(nullptr, CLSID_PortTopology), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcNewServiceGroup(nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(topology->QueryInterface(IID_IPortWaveCyclic, &none), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(wave->Init(mFdo, &mIrp, &second, &mAdapter, nullptr), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(bare->Init(mFdo, &mIrp, nullptr, &mAdapter, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, waveName, bare), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, waveName, &mAdapter), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, nullptr, wave), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, waveName, wave), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, waveName, again), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, topologyName, topology), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(mFdo, thirdName, third), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, wave, 4, topology, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, wave, 3, &mAdapter, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(mFdo, nullptr, 3, topology, 0),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(group->AddMember(&member), STATUS_SUCCESS);
    EXPECT_EQ(group->AddMember(&member), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(cyclic->NewSlaveDmaChannel(&slave, nullptr, nullptr, 0, 0, FALSE, 0),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(unknownClass, nullptr);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(slave, nullptr);
    // A refused registration gives up the miniport: the port goes with its
    // last reference.
    EXPECT_EQ(hostpc::portState(third).miniport, nullptr);
    EXPECT_TRUE(hostpc::subdeviceNames(nullptr).empty());
    group->RemoveMember(&member);
    group->Release();
    for (PPORT port : {bare, topology, wave, again, third})
        port->Release();
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

} // namespace
