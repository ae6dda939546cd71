// The host port-class library refuses as the real one does, and its verifier
// reports what a miniport does behind the port.
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

// A wave miniport that is its own stream and DMA channel over a pool buffer.
class FakeWave final : public IMiniportWaveCyclic,
                       public IMiniportWaveCyclicStream,
                       public IDmaChannel {
public:
    static constexpr ULONG kTag = 0x6B614646; // 'FFak'
    FakeWave() {
        PcNewServiceGroup(&mGroup, nullptr);
        mPins[2].KsPinDescriptor.Communication = KSPIN_COMMUNICATION_SINK;
        mPins[2].KsPinDescriptor.DataFlow = KSPIN_DATAFLOW_IN;
    }
    ~FakeWave() {
        if (!mFreed)
            ExFreePoolWithTag(mBuffer, kTag);
        mGroup->Release();
    }

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* object) override {
        *object = static_cast<IMiniportWaveCyclic*>(this);
        AddRef();
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++mRefs; }
    STDMETHODIMP_(ULONG) Release() override {
        ULONG n = --mRefs;
        if (n == 0)
            delete this;
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
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN, PRESOURCELIST, PPORTWAVECYCLIC) override {
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS)
    NewStream(PMINIPORTWAVECYCLICSTREAM* stream, PUNKNOWN, POOL_TYPE, ULONG, BOOLEAN, PKSDATAFORMAT,
              PDMACHANNEL* dma, PSERVICEGROUP* group) override {
        if (mFreed)
            mBuffer = ExAllocatePoolWithTag(NonPagedPool, mSize, kTag), mFreed = false;
        (*stream = this)->AddRef();
        (*dma = this)->AddRef();
        (*group = mGroup)->AddRef();
        return STATUS_SUCCESS;
    }

    STDMETHODIMP_(NTSTATUS) SetFormat(PKSDATAFORMAT) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(ULONG) SetNotificationFreq(ULONG, PULONG frame) override {
        *frame = mFraming;
        return 10;
    }
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) GetPosition(PULONG at) override {
        *at = mPosition;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS) NormalizePhysicalPosition(PLONGLONG) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(void) Silence(PVOID, ULONG) override {}

    STDMETHODIMP_(NTSTATUS) AllocateBuffer(ULONG, PPHYSICAL_ADDRESS) override {
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(void) FreeBuffer() override {}
    STDMETHODIMP_(ULONG) TransferCount() override { return mSize; }
    STDMETHODIMP_(ULONG) MaximumBufferSize() override { return mSize; }
    STDMETHODIMP_(ULONG) AllocatedBufferSize() override { return mSize; }
    STDMETHODIMP_(ULONG) BufferSize() override { return mSize; }
    STDMETHODIMP_(void) SetBufferSize(ULONG) override {}
    STDMETHODIMP_(PVOID) SystemAddress() override { return mBuffer; }
    STDMETHODIMP_(PPHYSICAL_ADDRESS) PhysicalAddress(PPHYSICAL_ADDRESS a) override { return a; }
    STDMETHODIMP_(PADAPTER_OBJECT) GetAdapterObject() override { return nullptr; }
    STDMETHODIMP_(void) CopyTo(PVOID, PVOID, ULONG) override {}
    STDMETHODIMP_(void) CopyFrom(PVOID, PVOID, ULONG) override {}

    ULONG mRefs = 1, mSize = 4096, mFraming = 1024, mPosition = 0;
    PVOID mBuffer = ExAllocatePoolWithTag(NonPagedPool, mSize, kTag);
    bool mFreed = false; // freed behind the port, still reported as its buffer
    PSERVICEGROUP mGroup = nullptr;
    PCPIN_DESCRIPTOR mPins[4] = {};
    PCFILTER_DESCRIPTOR mDescriptor{
        0, nullptr, sizeof(PCPIN_DESCRIPTOR), 4, mPins, 0, 0, nullptr, 0, nullptr, 0, nullptr};
};

NTSTATUS NTAPI startNothing(PDEVICE_OBJECT, PIRP, PRESOURCELIST) {
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI addNothing(PDRIVER_OBJECT, PDEVICE_OBJECT) {
    return STATUS_SUCCESS;
}

// Each refusal carries its status; each stream fault gets the verifier's report,
// never a quiet repair; a sound stream moves one framing from the group's DPC.
TEST(PortClsHost, RefusesWithItsStatusAndReportsWhatAMiniportDoesBehindThePort) {
    hostk::DriverObjectBlock block;
    DRIVER_OBJECT& driver = *hostk::initDriverObject(block);
    ASSERT_EQ(PcInitializeAdapterDriver(&driver, nullptr, addNothing), STATUS_SUCCESS);
    PDEVICE_OBJECT pdo = hostk::createDeviceObject(nullptr, 2, 0), fdo = nullptr;
    ASSERT_EQ(PcAddAdapterDevice(&driver, pdo, startNothing, 2, 0), STATUS_SUCCESS);
    ASSERT_NE(fdo = hostpc::fdoForPdo(pdo), nullptr);
    FakeWave* miniport = nullptr; // the last port's
    auto wavePort = [&] {
        PPORT port = nullptr;
        EXPECT_EQ(PcNewPort(&port, CLSID_PortWaveCyclic), STATUS_SUCCESS);
        PUNKNOWN unknown = static_cast<IMiniportWaveCyclic*>(miniport = new FakeWave);
        EXPECT_EQ(port->Init(fdo, nullptr, unknown, nullptr, nullptr), STATUS_SUCCESS);
        unknown->Release();
        return port;
    };
    PPORT bare = nullptr, unknownClass = reinterpret_cast<PPORT>(1);
    ASSERT_EQ(PcNewPort(&bare, CLSID_PortWaveCyclic), STATUS_SUCCESS);
    PPORT again = wavePort(), other = wavePort(), third = wavePort(), wave = wavePort();
    DRIVER_OBJECT noExtension{};
    WCHAR waveName[] = u"Wave", otherName[] = u"Other", thirdName[] = u"Third";
    PVOID none = &block;
    PSERVICEGROUP group = nullptr, member = miniport->mGroup;
    ASSERT_EQ(PcNewServiceGroup(&group, nullptr), STATUS_SUCCESS);
    PDMACHANNELSLAVE slave = reinterpret_cast<PDMACHANNELSLAVE>(1);
    auto* cyclic = static_cast<IPortWaveCyclic*>(wave);
    EXPECT_EQ(PcAddAdapterDevice(&driver, pdo, startNothing, 2, 0), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(PcAddAdapterDevice(&driver, pdo, nullptr, 2, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcInitializeAdapterDriver(&driver, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcInitializeAdapterDriver(&noExtension, nullptr, addNothing),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hostpc::startDevice(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcNewPort(&unknownClass, IID_IUnknown), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(PcNewPort(nullptr, CLSID_PortTopology), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcNewServiceGroup(nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(bare->QueryInterface(IID_IPortTopology, &none), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(wave->Init(fdo, nullptr, wave, nullptr, nullptr), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(bare->Init(fdo, nullptr, nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(fdo, waveName, bare), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(PcRegisterSubdevice(fdo, waveName, group), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(fdo, nullptr, wave), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(fdo, waveName, wave), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(fdo, waveName, again), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterSubdevice(fdo, otherName, other), STATUS_SUCCESS);
    EXPECT_EQ(PcRegisterSubdevice(fdo, thirdName, third), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(PcRegisterPhysicalConnection(fdo, wave, 4, other, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(fdo, wave, 3, group, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PcRegisterPhysicalConnection(fdo, nullptr, 3, other, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(group->AddMember(member), STATUS_SUCCESS);
    EXPECT_EQ(group->AddMember(member), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(cyclic->NewSlaveDmaChannel(&slave, nullptr, nullptr, 0, 0, FALSE, 0),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(!unknownClass && !none && !slave); // a refusal hands out nothing
    // A refused registration gives up the miniport.
    EXPECT_EQ(hostpc::portState(third).miniport, nullptr);
    group->RemoveMember(member);
    for (PUNKNOWN object : std::initializer_list<PUNKNOWN>{group, bare, again, other, third})
        object->Release();

    struct Case {
        const char* fault;
        ULONG framing;
        void (*act)(FakeWave&);
        const char* report;
    };
    const Case cases[] = {
        {"framing 0", 0, [](FakeWave&) {}, "framing size of 0"},
        {"position at the end", 1024, [](FakeWave& s) { s.mPosition = s.mSize; },
         "GetPosition gave 4096, at or past the cyclic buffer's 4096 bytes"},
        {"buffer freed", 1024,
         [](FakeWave& s) { ExFreePoolWithTag(s.mBuffer, FakeWave::kTag), s.mFreed = true; },
         "freed the cyclic buffer"},
        {"buffer resized", 1024, [](FakeWave& s) { s.mSize /= 2; }, "moved or resized"},
        {"none", 1024, [](FakeWave& s) { s.mPosition = 1024; }, nullptr},
    };
    auto ks = std::make_unique<hostpc::WaveFilter>(wave);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        miniport->mFraming = c.framing;
        std::unique_ptr<hostpc::KsStream> stream;
        ASSERT_EQ(ks->open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 16), {}, &stream),
                  STATUS_SUCCESS);
        ASSERT_EQ(stream->setState(KSSTATE_RUN), STATUS_SUCCESS);
        c.act(*miniport);
        cyclic->Notify(miniport->mGroup);
        auto reports = hostk::verifierFailures();
        ASSERT_EQ(reports.size(), c.report ? 1u : 0u);
        if (c.report)
            EXPECT_NE(reports[0].find(c.report), std::string::npos) << reports[0];
        else
            EXPECT_EQ(stream->positionFrames(), 256u);
        hostk::clearVerifierFailures();
        stream.reset();
        miniport->mSize = 4096, miniport->mPosition = 0;
    }
    ks.reset();
    wave->Release();
    hostpc::removeDevice(fdo);
    hostk::deleteDeviceObject(pdo);
    hostpc::resetForTest();
    EXPECT_EQ(hostpc::liveObjects(), 0u);
}

} // namespace
