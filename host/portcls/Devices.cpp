// Device side of the host port-class library: PcInitializeAdapterDriver
// (the driver's dispatch and add-device routine), PcAddAdapterDevice (a
// functional device object above the physical one), the PnP start and
// remove requests, PcRegisterSubdevice and PcRegisterPhysicalConnection with
// their bookkeeping per device, fault injection, and the driver loader.
#include "PortClsInternal.h"
#include "WavePin.h"

#include "host/kernel/HostKernel.h"

#include "host/image/Exports.h"
#include "host/image/PeImage.h"
#include "host/image/Processor.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>

namespace hostpc::detail {
namespace {

struct Subdevice {
    std::u16string name;
    PUNKNOWN port;      // one reference, given back at removal
    PUNKNOWN canonical; // the port's IUnknown, to recognise it again
};

struct DeviceRecord {
    PDEVICE_OBJECT fdo = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
    PCPFNSTARTDEVICE start = nullptr;
    ULONG maxObjects = 0;
    bool started = false;
    ServiceMode serviceMode = ServiceMode::EndOfPeriod;
    hostpc::PortPersonality personality = hostpc::PortPersonality::Documented;
    std::vector<Subdevice> subdevices;
    std::vector<Connection> connections;
    hostpc::PnpState pnp = hostpc::PnpState::Added;
    DEVICE_POWER_STATE power = PowerDeviceD0;
    size_t handles = 0;
    bool removing = false; // the remove request is on its way
    size_t busy = 0;       // PnP or power requests running (nested ones counted)
    bool missing = false;  // the bus reported it gone while a request ran
    // Serialises the PnP and power requests of this device, as the PnP
    // manager does per device node; held while the request runs.
    std::shared_ptr<std::recursive_mutex> requests = std::make_shared<std::recursive_mutex>();
};

struct Failure {
    Op op;
    NTSTATUS status;
    std::u16string name;
};

struct State {
    std::mutex mutex;
    std::vector<DeviceRecord> devices; // in order of adding
    std::vector<Failure> failures;
    hostpc::PnpListener listener;
};

State& state() {
    static State s;
    return s;
}

// Caller holds the state's mutex.
DeviceRecord* findLocked(PDEVICE_OBJECT fdo) {
    for (auto& record : state().devices)
        if (record.fdo == fdo)
            return &record;
    return nullptr;
}

PUNKNOWN canonicalOf(PUNKNOWN unknown) {
    PVOID object = nullptr;
    if (!unknown || !NT_SUCCESS(unknown->QueryInterface(IID_IUnknown, &object)) || !object)
        return nullptr;
    auto* canonical = static_cast<PUNKNOWN>(object);
    canonical->Release();
    return canonical;
}

// The device's request lock, or null for an unknown fdo.
std::shared_ptr<std::recursive_mutex> requestLockOf(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    return record ? record->requests : nullptr;
}

hostpc::PnpState pnpStateOf(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->pnp : hostpc::PnpState::Removed;
}

void setPnp(PDEVICE_OBJECT fdo, hostpc::PnpState pnp) {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        record->pnp = pnp;
}

void tellListener(PDEVICE_OBJECT fdo, hostpc::PnpState pnp) {
    hostpc::PnpListener listener;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        listener = state().listener;
    }
    if (listener)
        listener(fdo, pnp);
}

// Keeps a request we send to ourselves ours after completion.
NTSTATUS NTAPI keepRequest(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// What the PnP and power managers do: a fresh request down the stack from
// its top, at passive level, completed before the call returns.
NTSTATUS sendRequest(PDEVICE_OBJECT fdo, UCHAR major, UCHAR minor,
                     DEVICE_POWER_STATE power = PowerDeviceUnspecified) {
    PIRP irp = IoAllocateIrp(fdo->StackSize, FALSE);
    if (!irp)
        return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    if (major == IRP_MJ_POWER) {
        stack->Parameters.Power.Type = DevicePowerState;
        stack->Parameters.Power.State.DeviceState = power;
    }
    // The PnP manager starts every request as not supported, so that a
    // stack in which no driver handles it reports so.
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoSetCompletionRoutine(irp, &keepRequest, nullptr, TRUE, TRUE, TRUE);
    IofCallDriver(fdo, irp);
    const NTSTATUS status = irp->IoStatus.Status;
    IoFreeIrp(irp);
    return status;
}

// PcForwardIrpSynchronous (ReactOS irp.cpp): the request to the lower device
// with the same parameters; its status once it completed. The bus driver
// completes synchronously, as the USB model does.
NTSTATUS forwardDown(PDEVICE_OBJECT fdo, PIRP irp) {
    PDEVICE_OBJECT lower = nullptr;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (DeviceRecord* record = findLocked(fdo))
            lower = record->pdo;
    }
    if (!lower)
        return irp->IoStatus.Status;
    *IoGetNextIrpStackLocation(irp) = *IoGetCurrentIrpStackLocation(irp);
    IoSetCompletionRoutine(irp, &keepRequest, nullptr, TRUE, TRUE, TRUE);
    IofCallDriver(lower, irp);
    return irp->IoStatus.Status;
}

// The wave ports' client pins of a device, with a reference each.
std::vector<WavePin*> pinsOf(PDEVICE_OBJECT fdo) {
    std::vector<PUNKNOWN> ports;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (DeviceRecord* record = findLocked(fdo))
            for (const auto& subdevice : record->subdevices)
                ports.push_back(subdevice.canonical);
    }
    std::vector<WavePin*> pins;
    for (PUNKNOWN port : ports)
        for (WavePin* pin : referencePins(port))
            pins.push_back(pin);
    return pins;
}

NTSTATUS startLocked(PDEVICE_OBJECT fdo, PIRP irp) {
    PCPFNSTARTDEVICE start = nullptr;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (!record)
            return STATUS_INVALID_PARAMETER;
        start = record->start;
    }
    // ReactOS irp.cpp: the start goes down first; only a started bus device
    // gets the adapter's start routine.
    NTSTATUS status = forwardDown(fdo, irp);
    if (status == STATUS_NOT_SUPPORTED)
        status = STATUS_SUCCESS; // no bus driver below handles PnP
    if (NT_SUCCESS(status))
        status = start(fdo, irp, nullptr);
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo)) {
        record->started = NT_SUCCESS(status);
        if (NT_SUCCESS(status)) {
            record->pnp = hostpc::PnpState::Started;
            record->power = PowerDeviceD0;
        }
    }
    return status;
}

void releaseSubdevices(PDEVICE_OBJECT fdo) {
    std::vector<Subdevice> subdevices;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (!record)
            return;
        subdevices.swap(record->subdevices);
        record->connections.clear();
        record->started = false;
    }
    // Every port first gives up its miniport, then the registration's
    // reference goes; the miniports in turn let go of the adapter.
    for (auto& subdevice : subdevices) {
        if (HostPort* port = hostPortOf(subdevice.port)) {
            port->releaseChildren();
            port->unknown()->Release();
        }
    }
    for (auto& subdevice : subdevices)
        subdevice.port->Release();
}

// Moves every open pin of the device to `target` as the port itself does
// (not as a client request); records which ones a power-down paused.
void walkPins(PDEVICE_OBJECT fdo, KSSTATE target, bool onlyRunning, bool powerPause) {
    for (WavePin* pin : pinsOf(fdo)) {
        if (!onlyRunning || pin->state() == KSSTATE_RUN)
            pin->portWalk(target, powerPause);
        pin->Release();
    }
}

void resumePins(PDEVICE_OBJECT fdo) {
    for (WavePin* pin : pinsOf(fdo)) {
        pin->portResume();
        pin->Release();
    }
}

NTSTATUS NTAPI dispatchPnp(PDEVICE_OBJECT fdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
        status = startLocked(fdo, irp);
        break;
    case IRP_MN_QUERY_REMOVE_DEVICE: {
        // Storage class drivers fail the query while handles are open ("Storage
        // Class Driver's RemoveDevice Routine"); the documentation of PortCls
        // is silent, and failing is the stricter choice: removal then waits
        // for the client to close.
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (record && record->handles > 0) {
            status = STATUS_DEVICE_BUSY;
        } else {
            if (record)
                record->pnp = hostpc::PnpState::RemovePending;
            status = STATUS_SUCCESS;
        }
        break;
    }
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE: {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (record && (record->pnp == hostpc::PnpState::RemovePending ||
                       record->pnp == hostpc::PnpState::StopPending))
            record->pnp = hostpc::PnpState::Started;
        status = STATUS_SUCCESS;
        break;
    }
    case IRP_MN_QUERY_STOP_DEVICE:
        // The rebalance documentation covers only adapters that register
        // IAdapterPnpManagement ("Implement PnP Rebalance for PortCls Audio
        // Drivers"); for others it is silent. Letting the stop through is the
        // stricter choice: the driver sees its pins stopped and its start
        // routine called a second time. New creates wait meanwhile (the
        // PnpQueryStop remarks); here they are refused.
        setPnp(fdo, hostpc::PnpState::StopPending);
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_STOP_DEVICE:
        // IAdapterPnpManagement::PnpStop remarks: the port moves active
        // streams from run, pause or acquire to stop before the stop is done;
        // the handles stay open.
        setPnp(fdo, hostpc::PnpState::Stopped);
        walkPins(fdo, KSSTATE_STOP, false, false);
        status = forwardDown(fdo, irp);
        if (status == STATUS_NOT_SUPPORTED)
            status = STATUS_SUCCESS;
        break;
    case IRP_MN_SURPRISE_REMOVAL:
        // Nothing reaches the adapter: it registered no PnP management. The
        // request must not fail ("IRP_MN_SURPRISE_REMOVAL").
        setPnp(fdo, hostpc::PnpState::SurpriseRemoved);
        forwardDown(fdo, irp);
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_REMOVE_DEVICE:
        releaseSubdevices(fdo);
        forwardDown(fdo, irp);
        status = STATUS_SUCCESS;
        break;
    default:
        break;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, 0);
    return status;
}

// "Implementing IPowerNotify", IAdapterPowerManagement::PowerChangeState:
// powering down, the port pauses active streams before the device leaves
// D0; powering up, the device is back in D0 before the paused streams run.
// The adapter registered no power management, so nothing else reaches it.
NTSTATUS NTAPI dispatchPower(PDEVICE_OBJECT fdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = STATUS_SUCCESS;
    if (stack->MinorFunction == IRP_MN_SET_POWER &&
        stack->Parameters.Power.Type == DevicePowerState) {
        const DEVICE_POWER_STATE next = stack->Parameters.Power.State.DeviceState;
        DEVICE_POWER_STATE now = PowerDeviceUnspecified;
        {
            std::lock_guard<std::mutex> lock(state().mutex);
            if (DeviceRecord* record = findLocked(fdo))
                now = record->power;
        }
        if (next != now && next != PowerDeviceD0) {
            {
                std::lock_guard<std::mutex> lock(state().mutex);
                if (DeviceRecord* record = findLocked(fdo))
                    record->power = next;
            }
            walkPins(fdo, KSSTATE_PAUSE, true, true);
            status = forwardDown(fdo, irp);
        } else if (next != now) {
            status = forwardDown(fdo, irp);
            {
                std::lock_guard<std::mutex> lock(state().mutex);
                if (DeviceRecord* record = findLocked(fdo))
                    record->power = PowerDeviceD0;
            }
            resumePins(fdo);
        }
        if (status == STATUS_NOT_SUPPORTED)
            status = STATUS_SUCCESS;
    } else {
        status = forwardDown(fdo, irp);
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, 0);
    return status;
}

NTSTATUS NTAPI dispatchUnsupported(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    IoCompleteRequest(irp, 0);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// IRP_MN_REMOVE_DEVICE and what the PnP manager does after it: the record
// goes, the functional device object is detached and deleted. Caller holds
// the device's request lock.
void removeNow(PDEVICE_OBJECT fdo) {
    PDEVICE_OBJECT pdo = nullptr;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (!record)
            return;
        pdo = record->pdo;
        record->removing = true;
    }
    if (!NT_SUCCESS(sendRequest(fdo, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE)))
        releaseSubdevices(fdo); // the request itself could not be made
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        auto& devices = state().devices;
        devices.erase(std::remove_if(devices.begin(), devices.end(),
                                     [&](const DeviceRecord& r) { return r.fdo == fdo; }),
                      devices.end());
    }
    if (pdo && pdo->AttachedDevice == fdo)
        pdo->AttachedDevice = nullptr;
    hostk::deleteDeviceObject(fdo);
    tellListener(fdo, hostpc::PnpState::Removed);
}

// Surprise removal under the device's request lock; the remove request
// follows at once when no handle is open, or a device never started.
void surpriseRemoveLocked(PDEVICE_OBJECT fdo) {
    hostpc::PnpState before;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (!record || record->removing || record->pnp == hostpc::PnpState::SurpriseRemoved)
            return;
        before = record->pnp;
    }
    if (before != hostpc::PnpState::Added) {
        // The PnP manager knows the device is gone even when its request
        // could not be made.
        if (!NT_SUCCESS(sendRequest(fdo, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL)))
            setPnp(fdo, hostpc::PnpState::SurpriseRemoved);
        tellListener(fdo, hostpc::PnpState::SurpriseRemoved);
    }
    bool now;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        now = record && (record->handles == 0 || before == hostpc::PnpState::Added);
    }
    if (now)
        removeNow(fdo);
}

// Holds a device's request lock for a PnP or power request of the PnP
// manager. A bus report that the device is gone, arriving meanwhile (it
// vanished during its own start, say), is acted on once the outermost
// request is done, as the PnP manager queues IoInvalidateDeviceRelations
// behind the request in progress.
class Serial {
public:
    explicit Serial(PDEVICE_OBJECT fdo) : mFdo(fdo) {
        mLock = requestLockOf(fdo);
        if (!mLock)
            return;
        mLock->lock();
        std::lock_guard<std::mutex> lock(state().mutex);
        if (DeviceRecord* record = findLocked(fdo)) {
            ++record->busy;
        } else {
            mLock->unlock();
            mLock.reset();
        }
    }
    ~Serial() {
        if (!mLock)
            return;
        bool missing = false;
        {
            std::lock_guard<std::mutex> lock(state().mutex);
            if (DeviceRecord* record = findLocked(mFdo))
                if (--record->busy == 0 && record->missing) {
                    record->missing = false;
                    missing = true;
                }
        }
        if (missing)
            surpriseRemoveLocked(mFdo);
        mLock->unlock();
    }
    Serial(const Serial&) = delete;
    Serial& operator=(const Serial&) = delete;
    explicit operator bool() const { return mLock != nullptr; }

private:
    PDEVICE_OBJECT mFdo;
    std::shared_ptr<std::recursive_mutex> mLock;
};

// The newest DriverLoader alive serves new devices.
std::mutex gServingMutex;
std::vector<hostpc::DriverLoader*> gServing;

} // namespace

NTSTATUS acquireHandle(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    if (!record || record->removing || record->pnp == hostpc::PnpState::SurpriseRemoved)
        return STATUS_DEVICE_REMOVED;
    if (record->pnp == hostpc::PnpState::RemovePending)
        return STATUS_DELETE_PENDING;
    if (record->pnp == hostpc::PnpState::StopPending || record->pnp == hostpc::PnpState::Stopped ||
        record->power != PowerDeviceD0)
        return STATUS_DEVICE_NOT_READY;
    ++record->handles;
    return STATUS_SUCCESS;
}

void releaseHandle(PDEVICE_OBJECT fdo) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
        if (!record || record->handles == 0)
            return;
        if (--record->handles > 0 || record->pnp != hostpc::PnpState::SurpriseRemoved ||
            record->removing)
            return;
    }
    // The last handle of a surprise-removed device: now the remove request
    // comes (the PnpSurpriseRemove rule; KB 816650).
    Serial serial(fdo);
    if (serial && pnpStateOf(fdo) == hostpc::PnpState::SurpriseRemoved)
        removeNow(fdo);
}

// After a surprise removal the documentation says the device is "no longer
// available for I/O operations" and is silent on which KS requests still
// reach the miniport. The stricter choice: what a closing client sends (the
// walk down to STOP, position reads, the close) reaches the stream with its
// device gone; what would start I/O fails here.
NTSTATUS requestStatus(PDEVICE_OBJECT fdo, bool stateDown) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    if (!record || record->removing || record->pnp == hostpc::PnpState::SurpriseRemoved)
        return stateDown ? STATUS_SUCCESS : STATUS_DEVICE_REMOVED;
    if (stateDown)
        return STATUS_SUCCESS;
    if (record->pnp == hostpc::PnpState::StopPending || record->pnp == hostpc::PnpState::Stopped ||
        record->power != PowerDeviceD0)
        return STATUS_DEVICE_NOT_READY;
    return STATUS_SUCCESS;
}

bool deviceGone(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    return !record || record->removing || record->pnp == hostpc::PnpState::SurpriseRemoved;
}

NTSTATUS injectedFailure(Op op, const std::u16string& name) {
    std::lock_guard<std::mutex> lock(state().mutex);
    for (const auto& failure : state().failures)
        if (failure.op == op && (failure.name.empty() || failure.name == name))
            return failure.status;
    return STATUS_SUCCESS;
}

} // namespace hostpc::detail

using namespace hostpc::detail;
using hostpc::Connection;
using hostpc::Op;

extern "C" NTSTATUS NTAPI PcInitializeAdapterDriver(PDRIVER_OBJECT DriverObject,
                                                    PUNICODE_STRING RegistryPathName,
                                                    PDRIVER_ADD_DEVICE AddDevice) {
    UNREFERENCED_PARAMETER(RegistryPathName);
    // The I/O manager gives every driver object its extension; one without
    // is not a driver object.
    if (!DriverObject || !DriverObject->DriverExtension || !AddDevice)
        return STATUS_INVALID_PARAMETER;
    NTSTATUS status = injectedFailure(Op::InitializeAdapterDriver);
    if (!NT_SUCCESS(status))
        return status;
    DriverObject->DriverExtension->AddDevice = AddDevice;
    for (auto& dispatch : DriverObject->MajorFunction)
        dispatch = &dispatchUnsupported;
    DriverObject->MajorFunction[IRP_MJ_PNP] = &dispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = &dispatchPower;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI PcAddAdapterDevice(PDRIVER_OBJECT DriverObject,
                                             PDEVICE_OBJECT PhysicalDeviceObject,
                                             PCPFNSTARTDEVICE StartDevice, ULONG MaxObjects,
                                             ULONG DeviceExtensionSize) {
    if (!DriverObject || !PhysicalDeviceObject || !StartDevice || MaxObjects == 0)
        return STATUS_INVALID_PARAMETER;
    NTSTATUS status = injectedFailure(Op::AddAdapterDevice);
    if (!NT_SUCCESS(status))
        return status;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        for (const auto& record : state().devices)
            if (record.pdo == PhysicalDeviceObject)
                return STATUS_INVALID_DEVICE_STATE; // already has a functional device
    }
    PDEVICE_OBJECT fdo = hostk::createDeviceObject(
        DriverObject, (CCHAR)(PhysicalDeviceObject->StackSize + 1), DeviceExtensionSize);
    if (!fdo)
        return STATUS_INSUFFICIENT_RESOURCES;
    PhysicalDeviceObject->AttachedDevice = fdo;

    DeviceRecord record;
    record.serviceMode = hostpc::defaultServiceMode();
    record.personality = hostpc::defaultPortPersonality();
    record.fdo = fdo;
    record.pdo = PhysicalDeviceObject;
    record.start = StartDevice;
    record.maxObjects = MaxObjects;
    std::lock_guard<std::mutex> lock(state().mutex);
    state().devices.push_back(std::move(record));
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI PcRegisterSubdevice(PDEVICE_OBJECT DeviceObject, PWSTR Name,
                                              PUNKNOWN Unknown) {
    if (!DeviceObject || !Name || !Unknown)
        return STATUS_INVALID_PARAMETER;
    std::u16string name(Name);
    HostPort* port = hostPortOf(Unknown);
    if (!port)
        return STATUS_INVALID_PARAMETER;

    NTSTATUS status = injectedFailure(Op::RegisterSubdevice, name);
    hostpc::PortState portNow = port->state();
    if (NT_SUCCESS(status) && !portNow.initialized)
        status = STATUS_INVALID_DEVICE_STATE;
    if (NT_SUCCESS(status)) {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(DeviceObject);
        if (!record) {
            status = STATUS_INVALID_PARAMETER;
        } else if (record->subdevices.size() >= record->maxObjects) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else if (std::any_of(record->subdevices.begin(), record->subdevices.end(),
                               [&](const Subdevice& s) { return s.name == name; })) {
            status = STATUS_INVALID_PARAMETER;
        } else {
            Unknown->AddRef();
            record->subdevices.push_back(Subdevice{name, Unknown, port->unknown()});
        }
    }
    // A port that is not registered is never removed, so it must not keep
    // its miniport (which holds the port in turn) alive.
    if (!NT_SUCCESS(status))
        port->releaseChildren();
    port->unknown()->Release();
    return status;
}

extern "C" NTSTATUS NTAPI PcRegisterPhysicalConnection(PDEVICE_OBJECT DeviceObject,
                                                       PUNKNOWN FromUnknown, ULONG FromPin,
                                                       PUNKNOWN ToUnknown, ULONG ToPin) {
    if (!DeviceObject || !FromUnknown || !ToUnknown)
        return STATUS_INVALID_PARAMETER;
    NTSTATUS status = injectedFailure(Op::PhysicalConnection);
    if (!NT_SUCCESS(status))
        return status;

    PUNKNOWN from = canonicalOf(FromUnknown);
    PUNKNOWN to = canonicalOf(ToUnknown);
    auto pinExists = [](PUNKNOWN port, ULONG pin) {
        hostpc::PortState s = hostpc::portState(port);
        return s.descriptor && pin < s.descriptor->PinCount;
    };
    if (!pinExists(FromUnknown, FromPin) || !pinExists(ToUnknown, ToPin))
        return STATUS_INVALID_PARAMETER;

    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(DeviceObject);
    if (!record)
        return STATUS_INVALID_PARAMETER;
    const Subdevice* fromSubdevice = nullptr;
    const Subdevice* toSubdevice = nullptr;
    for (const auto& subdevice : record->subdevices) {
        if (subdevice.canonical == from)
            fromSubdevice = &subdevice;
        if (subdevice.canonical == to)
            toSubdevice = &subdevice;
    }
    if (!fromSubdevice || !toSubdevice)
        return STATUS_INVALID_PARAMETER;
    record->connections.push_back(
        Connection{fromSubdevice->name, FromPin, toSubdevice->name, ToPin});
    return STATUS_SUCCESS;
}

namespace hostpc {

const char* pnpStateName(PnpState pnp) {
    switch (pnp) {
    case PnpState::Added:
        return "added";
    case PnpState::Started:
        return "started";
    case PnpState::StopPending:
        return "stop pending";
    case PnpState::Stopped:
        return "stopped";
    case PnpState::RemovePending:
        return "remove pending";
    case PnpState::SurpriseRemoved:
        return "surprise-removed";
    case PnpState::Removed:
        return "removed";
    }
    return "?";
}

NTSTATUS startDevice(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return STATUS_INVALID_PARAMETER;
    if (pnpState(fdo) == PnpState::SurpriseRemoved)
        return STATUS_DEVICE_REMOVED;
    const NTSTATUS status = sendRequest(fdo, IRP_MJ_PNP, IRP_MN_START_DEVICE);
    if (NT_SUCCESS(status))
        tellListener(fdo, PnpState::Started);
    return status;
}

void removeDevice(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return;
    if (openHandles(fdo) > 0 || pnpState(fdo) == PnpState::SurpriseRemoved) {
        surpriseRemoveLocked(fdo);
        return;
    }
    if (NT_SUCCESS(queryRemove(fdo)))
        removeNow(fdo);
    else
        surpriseRemoveLocked(fdo); // a handle came meanwhile
}

NTSTATUS queryRemove(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return STATUS_INVALID_PARAMETER;
    const PnpState before = pnpState(fdo);
    if (before == PnpState::SurpriseRemoved || before == PnpState::RemovePending)
        return STATUS_INVALID_DEVICE_STATE;
    const NTSTATUS status = sendRequest(fdo, IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE);
    if (!NT_SUCCESS(status))
        sendRequest(fdo, IRP_MJ_PNP, IRP_MN_CANCEL_REMOVE_DEVICE);
    else
        tellListener(fdo, PnpState::RemovePending);
    return status;
}

void cancelRemove(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return;
    if (pnpState(fdo) != PnpState::RemovePending)
        return;
    sendRequest(fdo, IRP_MJ_PNP, IRP_MN_CANCEL_REMOVE_DEVICE);
    tellListener(fdo, pnpState(fdo));
}

void removeQueried(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return;
    if (pnpState(fdo) == PnpState::RemovePending)
        removeNow(fdo);
}

void surpriseRemove(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return;
    surpriseRemoveLocked(fdo);
}

NTSTATUS rebalance(PDEVICE_OBJECT fdo) {
    Serial serial(fdo);
    if (!serial)
        return STATUS_INVALID_PARAMETER;
    if (pnpState(fdo) != PnpState::Started)
        return STATUS_INVALID_DEVICE_STATE;
    NTSTATUS status = sendRequest(fdo, IRP_MJ_PNP, IRP_MN_QUERY_STOP_DEVICE);
    if (!NT_SUCCESS(status)) {
        sendRequest(fdo, IRP_MJ_PNP, IRP_MN_CANCEL_STOP_DEVICE);
        return status;
    }
    tellListener(fdo, PnpState::StopPending);
    sendRequest(fdo, IRP_MJ_PNP, IRP_MN_STOP_DEVICE);
    tellListener(fdo, PnpState::Stopped);
    status = sendRequest(fdo, IRP_MJ_PNP, IRP_MN_START_DEVICE);
    if (NT_SUCCESS(status)) {
        tellListener(fdo, PnpState::Started);
        return status;
    }
    // A failed restart surprise-removes the device (WDTF's
    // EDTTryStopDeviceFailRestart: "The failed Start IRP, in turn, causes
    // the system to surprise remove the device").
    surpriseRemoveLocked(fdo);
    return status;
}

NTSTATUS setDevicePower(PDEVICE_OBJECT fdo, DEVICE_POWER_STATE power) {
    Serial serial(fdo);
    if (!serial)
        return STATUS_INVALID_PARAMETER;
    if (power < PowerDeviceD0 || power > PowerDeviceD3)
        return STATUS_INVALID_PARAMETER;
    if (pnpState(fdo) != PnpState::Started)
        return STATUS_INVALID_DEVICE_STATE;
    return sendRequest(fdo, IRP_MJ_POWER, IRP_MN_SET_POWER, power);
}

void sleepSystem() {
    for (PDEVICE_OBJECT fdo : devices())
        if (pnpState(fdo) == PnpState::Started)
            setDevicePower(fdo, PowerDeviceD3);
}

void wakeSystem() {
    // The stacks come back in the order they were added (parents first).
    for (PDEVICE_OBJECT fdo : devices())
        if (devicePower(fdo) != PowerDeviceD0 && pnpState(fdo) == PnpState::Started)
            setDevicePower(fdo, PowerDeviceD0);
}

PnpState pnpState(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    return record ? record->pnp : PnpState::Removed;
}

DEVICE_POWER_STATE devicePower(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    return record ? record->power : PowerDeviceUnspecified;
}

size_t openHandles(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
    return record ? record->handles : 0;
}

void reportMissing(PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT fdo = fdoForPdo(pdo);
    if (!fdo)
        return;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = findLocked(fdo);
        if (record && record->busy > 0) {
            record->missing = true; // the request in progress acts on it when done
            return;
        }
    }
    surpriseRemove(fdo);
}

NTSTATUS reportArrival(PDEVICE_OBJECT pdo) {
    DriverLoader* loader = nullptr;
    {
        std::lock_guard<std::mutex> lock(gServingMutex);
        if (!gServing.empty())
            loader = gServing.back();
    }
    if (!loader || !pdo)
        return STATUS_NO_SUCH_DEVICE;
    NTSTATUS status = loader->addDevice(pdo);
    if (!NT_SUCCESS(status))
        return status;
    status = loader->startDevice(pdo);
    // A failed first start is followed by the remove request ("IRP_MN_REMOVE_DEVICE").
    if (!NT_SUCCESS(status))
        loader->removeDevice(pdo);
    return status;
}

void setPnpListener(PnpListener listener) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().listener = std::move(listener);
}

std::vector<PDEVICE_OBJECT> devices() {
    std::lock_guard<std::mutex> lock(state().mutex);
    std::vector<PDEVICE_OBJECT> result;
    for (const auto& record : state().devices)
        result.push_back(record.fdo);
    return result;
}

PDEVICE_OBJECT fdoForPdo(PDEVICE_OBJECT pdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    for (const auto& record : state().devices)
        if (record.pdo == pdo)
            return record.fdo;
    return nullptr;
}

PDEVICE_OBJECT pdoOf(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->pdo : nullptr;
}

PCPFNSTARTDEVICE startRoutine(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->start : nullptr;
}

namespace {
std::mutex gPersonalityMutex;
bool gPersonalityChosen = false;
PortPersonality gPersonality = PortPersonality::Documented;

PortPersonality environmentPersonality() {
    PortPersonality personality = PortPersonality::Documented;
    if (const char* env = std::getenv("MME_PORT"))
        parsePortPersonality(env, &personality);
    return personality;
}
} // namespace

const char* portPersonalityName(PortPersonality personality) {
    return personality == PortPersonality::OpenSource ? "open-source" : "documented";
}

bool parsePortPersonality(const std::string& text, PortPersonality* personality) {
    if (text == "documented" || text == "open-source") {
        *personality =
            text == "documented" ? PortPersonality::Documented : PortPersonality::OpenSource;
        return true;
    }
    return false;
}

void setDefaultPortPersonality(PortPersonality personality) {
    std::lock_guard<std::mutex> lock(gPersonalityMutex);
    gPersonalityChosen = true;
    gPersonality = personality;
}

PortPersonality defaultPortPersonality() {
    std::lock_guard<std::mutex> lock(gPersonalityMutex);
    return gPersonalityChosen ? gPersonality : environmentPersonality();
}

PortPersonality portPersonality(PDEVICE_OBJECT fdo) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (DeviceRecord* record = findLocked(fdo))
            return record->personality;
    }
    return defaultPortPersonality();
}

void setPortPersonality(PDEVICE_OBJECT fdo, PortPersonality personality) {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        record->personality = personality;
}

ServiceMode serviceMode(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->serviceMode : defaultServiceMode();
}

void setServiceMode(PDEVICE_OBJECT fdo, ServiceMode mode) {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        record->serviceMode = mode;
}

ULONG maxObjects(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->maxObjects : 0;
}

bool isStarted(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record && record->started;
}

std::vector<std::u16string> subdeviceNames(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    std::vector<std::u16string> names;
    if (DeviceRecord* record = findLocked(fdo))
        for (const auto& subdevice : record->subdevices)
            names.push_back(subdevice.name);
    return names;
}

PUNKNOWN subdevice(PDEVICE_OBJECT fdo, const std::u16string& name) {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        for (const auto& subdevice : record->subdevices)
            if (subdevice.name == name)
                return subdevice.port;
    return nullptr;
}

PUNKNOWN referenceSubdevice(PDEVICE_OBJECT fdo, const std::u16string& name) {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        for (const auto& subdevice : record->subdevices)
            if (subdevice.name == name) {
                subdevice.port->AddRef();
                return subdevice.port;
            }
    return nullptr;
}

std::vector<Connection> connections(PDEVICE_OBJECT fdo) {
    std::lock_guard<std::mutex> lock(state().mutex);
    DeviceRecord* record = findLocked(fdo);
    return record ? record->connections : std::vector<Connection>{};
}

void fail(Op op, NTSTATUS status, const std::u16string& subdeviceName) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().failures.push_back(Failure{op, status, subdeviceName});
}

void clearFailures() {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().failures.clear();
}

void resetForTest() {
    clearFailures();
    setPnpListener(nullptr);
    setDefaultServiceMode(ServiceMode::EndOfPeriod);
    {
        std::lock_guard<std::mutex> lock(gPersonalityMutex);
        gPersonalityChosen = false;
    }
}

// ---- DriverLoader ----

namespace {
std::mutex gChoiceMutex;
bool gChosen = false;
std::string gChoice;
} // namespace

void useDriverImage(const std::string& sysPath) {
    std::lock_guard<std::mutex> lock(gChoiceMutex);
    gChosen = true;
    gChoice = sysPath;
}

std::string driverImage() {
    std::lock_guard<std::mutex> lock(gChoiceMutex);
    if (gChosen)
        return gChoice;
    const char* env = std::getenv("MME_DRIVER_IMAGE");
    return env ? env : "";
}

DriverLoader::DriverLoader() {
    init();
    const std::string image = driverImage();
    if (image.empty())
        enter(&DriverEntry);
    else
        loadImage(image);
}

DriverLoader::DriverLoader(Entry entry) {
    init();
    enter(entry);
}

DriverLoader::DriverLoader(const std::string& sysPath) {
    init();
    loadImage(sysPath);
}

void DriverLoader::loadImage(const std::string& sysPath) {
    mImagePath = sysPath;
    // The image reads the thread from GS and the IRQL from CR8 from its
    // first instruction on.
    hostimg::enableProcessorState();
    std::shared_ptr<hostimg::LoadedImage> image =
        hostimg::LoadedImage::loadFile(sysPath, &hostimg::hostExport, &mImageError);
    if (!image) {
        mEntryStatus = STATUS_UNSUCCESSFUL;
        return;
    }
    mImage = image;
    enter(reinterpret_cast<Entry>(image->entryPoint()));
}

void DriverLoader::init() {
    {
        std::lock_guard<std::mutex> lock(gServingMutex);
        gServing.push_back(this);
    }
    mDriverBlock.reset(new hostk::DriverObjectBlock);
    mDriver = hostk::initDriverObject(*mDriverBlock);
    mRegistryText = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\mmeusb";
    mRegistryPath.Buffer = mRegistryText.data();
    mRegistryPath.Length = (USHORT)(mRegistryText.size() * sizeof(WCHAR));
    mRegistryPath.MaximumLength = mRegistryPath.Length;
}

void DriverLoader::enter(Entry entry) {
    mEntryStatus = entry ? entry(mDriver, &mRegistryPath) : STATUS_INVALID_PARAMETER;
}

DriverLoader::~DriverLoader() {
    {
        std::lock_guard<std::mutex> lock(gServingMutex);
        gServing.erase(std::remove(gServing.begin(), gServing.end(), this), gServing.end());
    }
    std::vector<PDEVICE_OBJECT> pdos;
    {
        std::lock_guard<std::mutex> lock(mPdoMutex);
        pdos.assign(mPdos.rbegin(), mPdos.rend());
    }
    for (PDEVICE_OBJECT pdo : pdos) {
        PDEVICE_OBJECT fdo = fdoForPdo(pdo);
        if (!fdo)
            continue;
        hostpc::removeDevice(fdo);
        // Windows never unloads a driver whose device a handle still holds;
        // the host reports it and closes the pins itself, so that no driver
        // code runs after its image is gone.
        if (fdoForPdo(pdo) == fdo) {
            hostk::reportVerifierFailure("the driver is unloaded while " +
                                         std::to_string(openHandles(fdo)) +
                                         " handles of its device are still open");
            Serial serial(fdo);
            removeNow(fdo);
        }
    }
}

NTSTATUS DriverLoader::addDevice(PDEVICE_OBJECT pdo) {
    PDRIVER_ADD_DEVICE add =
        mDriver->DriverExtension ? mDriver->DriverExtension->AddDevice : nullptr;
    if (!add)
        return STATUS_INVALID_DEVICE_STATE;
    NTSTATUS status = add(mDriver, pdo);
    if (PDEVICE_OBJECT fdo = fdoForPdo(pdo)) {
        std::lock_guard<std::mutex> lock(mPdoMutex);
        if (mServiceModeSet)
            hostpc::setServiceMode(fdo, mServiceMode);
        if (mPersonalitySet)
            hostpc::setPortPersonality(fdo, mPersonality);
        if (std::find(mPdos.begin(), mPdos.end(), pdo) == mPdos.end())
            mPdos.push_back(pdo);
    }
    return status;
}

void DriverLoader::setServiceMode(ServiceMode mode) {
    std::lock_guard<std::mutex> lock(mPdoMutex);
    mServiceMode = mode;
    mServiceModeSet = true;
    for (PDEVICE_OBJECT pdo : mPdos)
        if (PDEVICE_OBJECT fdo = fdoForPdo(pdo))
            hostpc::setServiceMode(fdo, mode);
}

void DriverLoader::setPortPersonality(PortPersonality personality) {
    std::lock_guard<std::mutex> lock(mPdoMutex);
    mPersonality = personality;
    mPersonalitySet = true;
    for (PDEVICE_OBJECT pdo : mPdos)
        if (PDEVICE_OBJECT fdo = fdoForPdo(pdo))
            hostpc::setPortPersonality(fdo, personality);
}

NTSTATUS DriverLoader::startDevice(PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT fdo = fdoForPdo(pdo);
    if (!fdo)
        return STATUS_INVALID_PARAMETER;
    return hostpc::startDevice(fdo);
}

void DriverLoader::removeDevice(PDEVICE_OBJECT pdo) {
    if (PDEVICE_OBJECT fdo = fdoForPdo(pdo))
        hostpc::removeDevice(fdo);
    // A device a handle still holds stays listed until the loader goes.
    if (fdoForPdo(pdo))
        return;
    std::lock_guard<std::mutex> lock(mPdoMutex);
    mPdos.erase(std::remove(mPdos.begin(), mPdos.end(), pdo), mPdos.end());
}

} // namespace hostpc
