// The topology port (IPortTopology + IPortEvents) and the wave-cyclic port
// (IPortWaveCyclic + IPortEvents) of the host port-class library, and
// PcNewPort. Init binds the miniport as PortCls does: the miniport's Init
// with the adapter's unknown, then GetDescription; the port then holds the
// miniport until its children are released at removal.
//
// The wave port's streaming side (client pins, WavePin.cpp) is serviced
// through the service group each stream comes with; Notify requests that
// service. Pins are closed here before the miniport is given up.
#include "PortClsInternal.h"

extern "C" const GUID IID_IHostPortPrivate = {
    0x6F0C3B9A, 0x2B41, 0x4C0E, {0x9E, 0x57, 0x8A, 0x1D, 0x4C, 0x7B, 0x0F, 0x11}};

namespace hostpc::detail {

std::atomic<size_t>& liveCount() {
    static std::atomic<size_t> count{0};
    return count;
}

HostPort* hostPortOf(PUNKNOWN unknown) {
    if (!unknown)
        return nullptr;
    PVOID object = nullptr;
    if (!NT_SUCCESS(unknown->QueryInterface(IID_IHostPortPrivate, &object)) || !object)
        return nullptr;
    return static_cast<HostPort*>(object);
}

namespace {

template <class PortInterface, class MiniportInterface>
class PortObject : public PortInterface, public IPortEvents, public HostPort {
public:
    PortObject(const GUID& portIid, const GUID& miniportIid, bool waveCyclic)
        : mPortIid(portIid), mMiniportIid(miniportIid), mWaveCyclic(waveCyclic) {
        ++liveCount();
    }
    ~PortObject() override {
        releaseChildren();
        --liveCount();
    }

    // ---- IUnknown (shared by both interface tables) ----
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID* object) override {
        if (!object)
            return STATUS_INVALID_PARAMETER;
        if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IPort) ||
            IsEqualGUID(iid, mPortIid)) {
            *object = static_cast<PortInterface*>(this);
        } else if (IsEqualGUID(iid, IID_IPortEvents)) {
            *object = static_cast<IPortEvents*>(this);
        } else if (IsEqualGUID(iid, IID_IHostPortPrivate)) {
            *object = static_cast<HostPort*>(this);
        } else {
            *object = nullptr;
            return STATUS_INVALID_PARAMETER;
        }
        AddRef();
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++mReferences; }
    STDMETHODIMP_(ULONG) Release() override {
        LONG count = --mReferences;
        if (count == 0)
            poolDelete(this, kPortTag);
        return (ULONG)count;
    }

    // ---- IPort ----
    STDMETHODIMP_(NTSTATUS)
    Init(PDEVICE_OBJECT DeviceObject, PIRP Irp, PUNKNOWN UnknownMiniport, PUNKNOWN UnknownAdapter,
         PRESOURCELIST ResourceList) override {
        if (!DeviceObject || !UnknownMiniport)
            return STATUS_INVALID_PARAMETER;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mInitialized || mInitializing)
                return STATUS_INVALID_DEVICE_STATE;
            mInitializing = true;
        }
        NTSTATUS status = bind(DeviceObject, Irp, UnknownMiniport, UnknownAdapter, ResourceList);
        std::lock_guard<std::mutex> lock(mMutex);
        mInitializing = false;
        return status;
    }
    STDMETHODIMP_(NTSTATUS)
    GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG ResultLength) override {
        if (ResultLength)
            *ResultLength = 0;
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS)
    NewRegistryKey(PREGISTRYKEY* OutRegistryKey, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES,
                   ULONG, PULONG) override {
        if (OutRegistryKey)
            *OutRegistryKey = nullptr;
        return STATUS_NOT_IMPLEMENTED;
    }

    // ---- IPortEvents ----
    STDMETHODIMP_(void) AddEventToEventList(PKSEVENT_ENTRY) override { ++mEventsAdded; }
    STDMETHODIMP_(void) GenerateEventList(GUID*, ULONG, BOOL, ULONG, BOOL, ULONG) override {
        ++mEventsGenerated;
    }

    // ---- HostPort ----
    PUNKNOWN unknown() override { return static_cast<PortInterface*>(this); }
    bool isWaveCyclic() const override { return mWaveCyclic; }
    void releaseChildren() override {
        PUNKNOWN miniport = nullptr;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            miniport = mMiniport;
            mMiniport = nullptr;
            mDescriptor = nullptr;
            // A removed device's object may come back at the same address
            // for another device: the port no longer names it.
            mDevice = nullptr;
        }
        // Client pins hold streams of the miniport: they go before it. A pin
        // created meanwhile finds no miniport and closes itself.
        closePins(unknown());
        if (miniport)
            miniport->Release();
    }
    PortState state() override {
        std::lock_guard<std::mutex> lock(mMutex);
        PortState s;
        s.isPort = true;
        s.waveCyclic = mWaveCyclic;
        s.initialized = mInitialized;
        s.device = mDevice;
        s.initIrp = mInitIrp;
        s.miniport = mMiniport;
        s.descriptor = mDescriptor;
        s.notifyCount = mNotifyCount.load();
        s.eventsAdded = mEventsAdded.load();
        s.eventsGenerated = mEventsGenerated.load();
        s.references = mReferences.load();
        return s;
    }
    PUNKNOWN referenceMiniport() override {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mMiniport)
            mMiniport->AddRef();
        return mMiniport;
    }
    void setNotifyListener(NotifyListener listener) override {
        std::lock_guard<std::mutex> lock(mListenerMutex);
        mListener = std::move(listener);
    }

protected:
    // Dispatch level or below; no pool allocation.
    void notify(PSERVICEGROUP group) {
        ++mNotifyCount;
        {
            std::lock_guard<std::mutex> lock(mListenerMutex);
            if (mListener)
                mListener(group);
        }
        if (group)
            group->RequestService();
    }

private:
    NTSTATUS bind(PDEVICE_OBJECT device, PIRP irp, PUNKNOWN unknownMiniport,
                  PUNKNOWN unknownAdapter, PRESOURCELIST resources) {
        NTSTATUS status = injectedFailure(Op::PortInit);
        if (!NT_SUCCESS(status))
            return status;

        PVOID object = nullptr;
        status = unknownMiniport->QueryInterface(mMiniportIid, &object);
        if (!NT_SUCCESS(status) || !object)
            return NT_SUCCESS(status) ? STATUS_INVALID_PARAMETER : status;
        auto* miniport = static_cast<MiniportInterface*>(object);

        status = miniport->Init(unknownAdapter, resources, static_cast<PortInterface*>(this));
        if (!NT_SUCCESS(status)) {
            miniport->Release();
            return status;
        }
        PPCFILTER_DESCRIPTOR descriptor = nullptr;
        status = miniport->GetDescription(&descriptor);
        if (NT_SUCCESS(status) && !descriptor)
            status = STATUS_INVALID_DEVICE_STATE;
        if (!NT_SUCCESS(status)) {
            miniport->Release();
            return status;
        }

        std::lock_guard<std::mutex> lock(mMutex);
        mMiniport = miniport;
        mDescriptor = descriptor;
        mDevice = device;
        mInitIrp = irp;
        mInitialized = true;
        return STATUS_SUCCESS;
    }

    const GUID mPortIid;
    const GUID mMiniportIid;
    const bool mWaveCyclic;
    std::atomic<LONG> mReferences{0};
    std::mutex mMutex;
    bool mInitialized = false;
    bool mInitializing = false;
    PDEVICE_OBJECT mDevice = nullptr;
    PIRP mInitIrp = nullptr;
    PUNKNOWN mMiniport = nullptr;
    const PCFILTER_DESCRIPTOR* mDescriptor = nullptr;
    std::atomic<size_t> mNotifyCount{0};
    std::atomic<size_t> mEventsAdded{0};
    std::atomic<size_t> mEventsGenerated{0};
    std::mutex mListenerMutex;
    NotifyListener mListener;
};

class TopologyPort : public PortObject<IPortTopology, IMiniportTopology> {
public:
    TopologyPort() : PortObject(IID_IPortTopology, IID_IMiniportTopology, false) {}
};

class WaveCyclicPort : public PortObject<IPortWaveCyclic, IMiniportWaveCyclic> {
public:
    WaveCyclicPort() : PortObject(IID_IPortWaveCyclic, IID_IMiniportWaveCyclic, true) {}

    STDMETHODIMP_(void) Notify(PSERVICEGROUP ServiceGroup) override { notify(ServiceGroup); }
    // The driver brings its own DMA channels; the host offers none.
    STDMETHODIMP_(NTSTATUS)
    NewSlaveDmaChannel(PDMACHANNELSLAVE* DmaChannel, PUNKNOWN, PRESOURCELIST, ULONG, ULONG, BOOLEAN,
                       DMA_SPEED) override {
        if (DmaChannel)
            *DmaChannel = nullptr;
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS)
    NewMasterDmaChannel(PDMACHANNEL* DmaChannel, PUNKNOWN, PRESOURCELIST, ULONG, BOOLEAN, BOOLEAN,
                        DMA_WIDTH, DMA_SPEED) override {
        if (DmaChannel)
            *DmaChannel = nullptr;
        return STATUS_NOT_IMPLEMENTED;
    }
};

} // namespace
} // namespace hostpc::detail

using namespace hostpc::detail;

extern "C" NTSTATUS NTAPI PcNewPort(PPORT* OutPort, REFCLSID ClassId) {
    if (!OutPort)
        return STATUS_INVALID_PARAMETER;
    *OutPort = nullptr;

    PPORT port = nullptr;
    if (IsEqualGUID(ClassId, CLSID_PortTopology)) {
        NTSTATUS status = injectedFailure(hostpc::Op::NewPortTopology);
        if (!NT_SUCCESS(status))
            return status;
        port = poolNew<TopologyPort>(kPortTag);
    } else if (IsEqualGUID(ClassId, CLSID_PortWaveCyclic)) {
        NTSTATUS status = injectedFailure(hostpc::Op::NewPortWaveCyclic);
        if (!NT_SUCCESS(status))
            return status;
        port = poolNew<WaveCyclicPort>(kPortTag);
    } else {
        return STATUS_NOT_SUPPORTED;
    }
    if (!port)
        return STATUS_INSUFFICIENT_RESOURCES;
    port->AddRef();
    *OutPort = port;
    return STATUS_SUCCESS;
}

namespace hostpc {

PortState portState(PUNKNOWN port) {
    HostPort* host = detail::hostPortOf(port);
    if (!host)
        return PortState{};
    PortState s = host->state();
    host->unknown()->Release();
    --s.references; // the query's own reference
    return s;
}

void setNotifyListener(PUNKNOWN wavePort, NotifyListener listener) {
    HostPort* host = detail::hostPortOf(wavePort);
    if (!host)
        return;
    host->setNotifyListener(std::move(listener));
    host->unknown()->Release();
}

size_t liveObjects() {
    return detail::liveCount().load();
}

} // namespace hostpc
