// MMEAdapter: construction, interface query, start (registration with the
// USB driver, subdevices, DMA channels, physical connections) and teardown.
// The USB call interface, notifications and hardware configuration live in
// USBLink.cpp, Notifications.cpp and HardwareConfig.cpp.
#include "MMEAdapter.h"

#include "../streaming/MMEDMAEmulator.h"
#include "../topology/MMETopology.h"
#include "../wave/MMEWave.h"
#include "AdapterAssert.h"

// The one definition of the adapter's interface identifier.
extern "C" const GUID IID_IMMEAdapter = {
    0xD7C1562E, 0x8F69, 0x449B, {0x91, 0x44, 0x1B, 0x8B, 0x8F, 0x0E, 0x32, 0xC8}};

namespace {

enum : ULONG { SUBDEVICE_TOPOLOGY = 0, SUBDEVICE_WAVE = 1 };

// Pins of the topology filter that the physical connections join.
constexpr ULONG TOPOLOGY_PIN_RENDER_IN = 0;
constexpr ULONG TOPOLOGY_PIN_CAPTURE_OUT = 1;

WCHAR gTopologyName[] = MME_WIDE("Topology");
WCHAR gWaveName[] = MME_WIDE("Wave");

} // namespace

MMEAdapter::MMEAdapter(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT UsbDeviceObject) {
    FunctionTrace ft("MMEAdapter::MMEAdapter", this);
    KeInitializeSpinLock(&mAttachChannelsLock);
    ExInitializeRundownProtection(&mWaveRundown);
    ExInitializeRundownProtection(&mTimerRundown);
    MME_ADAPTER_ASSERT(DeviceObject, "pDeviceObject", 77);

    mOwnDeviceObject = DeviceObject;
    mUSBDeviceObject = UsbDeviceObject;
    if (mUSBDeviceObject)
        ObfReferenceObject(mUSBDeviceObject);

    mMMEWave = nullptr;
    mMMETopology = nullptr;
    mbStarted = false;
    mbWaveRunning = 0;
    mCaptureDMAEmulator = nullptr;
    mRenderDMAEmulator = nullptr;

    resetTopologyControls();

    // A failed allocation leaves the timer null: the attach-timer behaviour
    // is then skipped everywhere.
    mpAttachTimer = new MMETimer(static_cast<ITimerCallback*>(this), ATTACH_TIMER_ID);
}

MMEAdapter::~MMEAdapter() {
    FunctionTrace ft("MMEAdapter::~MMEAdapter", this);

    // A notification arming or cancelling the timer finishes first; later
    // ones leave it alone.
    ExWaitForRundownProtectionRelease(&mTimerRundown);
    if (mpAttachTimer) {
        mpAttachTimer->cancel();
        // The timer's destructor cancels again and waits for a timer routine
        // already running elsewhere, so nothing reaches this object after it.
        delete mpAttachTimer;
        mpAttachTimer = nullptr;
    }

    ft.text("before callUSBDriver");
    callUSBDriver(USBCall_Unregister);
    ft.text("after callUSBDriver");

    if (mUSBDeviceObject) {
        ObfDereferenceObject(mUSBDeviceObject);
        mUSBDeviceObject = nullptr;
    }

    if (mCaptureDMAEmulator) {
        mCaptureDMAEmulator->Release();
        mCaptureDMAEmulator = nullptr;
    }
    if (mRenderDMAEmulator) {
        mRenderDMAEmulator->Release();
        mRenderDMAEmulator = nullptr;
    }

    if (m_pCallIrp) {
        IoFreeIrp(m_pCallIrp);
        m_pCallIrp = nullptr;
    }
}

void MMEAdapter::setWave(MMEWave* wave) {
    MMEStoreReleasePointer(&mMMEWave, wave);
    if (wave)
        return;
    // A period callback that read the old pointer is done with it after
    // this; the protection is then renewed for a later miniport.
    ExWaitForRundownProtectionRelease(&mWaveRundown);
    ExReInitializeRundownProtection(&mWaveRundown);
}

STDMETHODIMP_(NTSTATUS) MMEAdapter::QueryInterface(REFIID riid, PVOID* Object) {
    MME_ADAPTER_ASSERT(Object, "Object", 148);
    if (!Object)
        return STATUS_INVALID_PARAMETER;

    if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IMMEAdapter)) {
        *Object = static_cast<IMMEAdapter*>(this);
        AddRef();
        return STATUS_SUCCESS;
    }
    *Object = nullptr;
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS MMEAdapter::start(PIRP Irp) {
    if (mbStarted)
        return (NTSTATUS)1;

    FunctionTrace ft("MMEAdapter::start()", this);

    InterlockedExchange(&mCallsInProgress, 0);
    InterlockedExchange(&mCallIrpFreeRequested, 0);
    m_pCallIrp = nullptr;
    if (mUSBDeviceObject)
        m_pCallIrp = IoAllocateIrp(mUSBDeviceObject->StackSize, FALSE);

    m_cMMEAdapterInfo.mpContext = this;
    m_cMMEAdapterInfo.mpfnNotify = &MMEAdapter::notifyEntry;
    m_cMMEAdapterInfo.mpfnStcCallback = &MMEAdapter::stcEntry;
    m_cMMEAdapterInfo.mpfnExchangeData = &MMEAdapter::exchangeDataEntry;
    m_cMMEAdapterInfo.mInterfaceVersion = MME_INTERFACE_VERSION;
    m_cMMEAdapterInfo.mpSettings = nullptr;
    m_cMMEAdapterInfo.mbAttached = 0;

    callUSBDriver(USBCall_Register);
    ft.pointer("mpAPIDeviceInfo.mpAPIDeviceInfo is ", m_cMMEAdapterInfo.mpAPIDeviceInfo);
    ft.hex("...VENDOR/PRODUCT", m_cMMEAdapterInfo.mVendorID, m_cMMEAdapterInfo.mProductID);

    PUNKNOWN topologyPort = nullptr;
    PUNKNOWN wavePort = nullptr;
    NTSTATUS status =
        InstallSubdevice(SUBDEVICE_TOPOLOGY, Irp, gTopologyName, CLSID_PortTopology, &topologyPort);
    if (NT_SUCCESS(status))
        status = InstallSubdevice(SUBDEVICE_WAVE, Irp, gWaveName, CLSID_PortWaveCyclic, &wavePort);

    if (!mCaptureDMAEmulator) {
        mCaptureDMAEmulator = new MMEDMAEmulator(&m_cMMEAdapterInfo, true);
        if (mCaptureDMAEmulator) {
            mCaptureDMAEmulator->AddRef();
        } else {
            status = STATUS_INSUFFICIENT_RESOURCES;
            ft.text("FAILED m_pcDMAEmulator = new MMEDMAEmulator();");
        }
    }
    if (!mRenderDMAEmulator) {
        mRenderDMAEmulator = new MMEDMAEmulator(&m_cMMEAdapterInfo, false);
        if (mRenderDMAEmulator) {
            mRenderDMAEmulator->AddRef();
        } else {
            status = STATUS_INSUFFICIENT_RESOURCES;
            ft.text("FAILED m_pcDMAEmulator = new MMEDMAEmulator();");
        }
    }

    if (topologyPort && wavePort) {
        NTSTATUS connection =
            PcRegisterPhysicalConnection(mOwnDeviceObject, topologyPort, TOPOLOGY_PIN_CAPTURE_OUT,
                                         wavePort, WAVE_PIN_CAPTURE_BRIDGE);
        ft.hex("PcRegisterPhysicalConnection ", (ULONG)connection);
        connection =
            PcRegisterPhysicalConnection(mOwnDeviceObject, wavePort, WAVE_PIN_RENDER_BRIDGE,
                                         topologyPort, TOPOLOGY_PIN_RENDER_IN);
        ft.hex("PcRegisterPhysicalConnection ", (ULONG)connection);
    }

    if (topologyPort)
        topologyPort->Release();
    if (wavePort)
        wavePort->Release();

    mbStarted = true;
    updateStreamParameters();
    callUSBDriver(USBCall_AdapterStarted);
    return status;
}

NTSTATUS MMEAdapter::InstallSubdevice(ULONG kind, PIRP Irp, PWSTR Name, REFCLSID PortClassId,
                                      PUNKNOWN* OutPortUnknown) {
    MME_ADAPTER_ASSERT(mOwnDeviceObject, "mOwnDeviceObject", 173);
    MME_ADAPTER_ASSERT(Irp, "pIrp", 174);
    MME_ADAPTER_ASSERT(Name, "Name", 175);

    PPORT port = nullptr;
    NTSTATUS status = PcNewPort(&port, PortClassId);
    if (!NT_SUCCESS(status)) {
        TraceLine("InstallSubdevice: PcNewPort failed");
        return status;
    }

    PUNKNOWN miniport = nullptr;
    if (kind == SUBDEVICE_TOPOLOGY) {
        MMETopology* topology = new MMETopology();
        if (topology) {
            topology->AddRef();
            miniport = static_cast<IMiniportTopology*>(topology);
        } else {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    } else if (kind == SUBDEVICE_WAVE) {
        MMEWave* wave = new MMEWave();
        if (wave) {
            wave->AddRef();
            miniport = static_cast<IMiniportWaveCyclic*>(wave);
        } else {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    } else {
        status = STATUS_INVALID_PARAMETER;
    }

    if (NT_SUCCESS(status)) {
        status =
            port->Init(mOwnDeviceObject, Irp, miniport, static_cast<IMMEAdapter*>(this), nullptr);
        if (NT_SUCCESS(status))
            status = PcRegisterSubdevice(mOwnDeviceObject, Name, port);
        miniport->Release();
    }

    if (NT_SUCCESS(status) && OutPortUnknown)
        status = port->QueryInterface(IID_IUnknown, (PVOID*)OutPortUnknown);

    port->Release();
    return status;
}
