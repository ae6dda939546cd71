// DriverEntry, AddDevice and StartDevice; the hand-over of the physical
// device object from AddDevice to StartDevice; the adapter's creation and
// the pure-virtual-call handler.
#include "adapter.h"

#include "../adapter/MMEAdapter.h"

volatile LONG _pdoUseLock = 0;
PDEVICE_OBJECT _pendingPdo = nullptr;

namespace {

// 1 while a physical device object is parked (from AddDevice taking the use
// lock until TakePendingPdo). Only the one who clears it releases the lock.
volatile LONG gPdoParked = 0;
// The parked device's function device, once PcAddAdapterDevice made it.
PDEVICE_OBJECT volatile gParkedFdo = nullptr;

// Whether fdo stands in the device stack above pdo.
bool StackHolds(PDEVICE_OBJECT pdo, PDEVICE_OBJECT fdo) {
    PDEVICE_OBJECT above = pdo ? pdo->AttachedDevice : nullptr;
    for (int depth = 0; above && depth < 32; ++depth, above = above->AttachedDevice)
        if (above == fdo)
            return true;
    return false;
}

// Our device above pdo: the one of the stack that this driver created.
PDEVICE_OBJECT OwnDeviceAbove(PDEVICE_OBJECT pdo, PDRIVER_OBJECT driver) {
    PDEVICE_OBJECT above = pdo ? pdo->AttachedDevice : nullptr;
    for (int depth = 0; above && depth < 32; ++depth, above = above->AttachedDevice)
        if (above->DriverObject == driver)
            return above;
    return nullptr;
}

// A device removed between its add and its start (unplugged, or its start
// failed below the driver) never comes for its physical device object: its
// function device is no longer among the driver's devices. Only the driver's
// own device list is read; the removed objects themselves may be gone. No
// new device of ours can take the old address meanwhile: making one needs
// the use lock.
bool ParkedDeviceRemoved(PDRIVER_OBJECT driver) {
    PDEVICE_OBJECT parked = MMELoadAcquirePointer(&gParkedFdo);
    if (!parked || !driver)
        return false;
    for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice)
        if (device == parked)
            return false;
    return true;
}

} // namespace

void InitializeDriverRuntime() {
    ExInitializeDriverRuntime(DrvRtPoolNxOptIn);
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    InitializeDriverRuntime();
    DbgPrint("*** DriverEntry (MME/KS/WDM) %s built:%s - %s\n", MME_VERSION_TEXT, __DATE__,
             __TIME__);
    NTSTATUS status = PcInitializeAdapterDriver(DriverObject, RegistryPath, AddDevice);
    TraceLineStatus("   returned ", status);
    return status;
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
    TraceLinePointer("AddDevice - PhysicalDeviceObject is ", PhysicalDeviceObject);
    NTSTATUS status = AddAdapterDeviceLocked(DriverObject, PhysicalDeviceObject, StartDevice,
                                             MME_MAX_SUBDEVICES, 0);
    TraceLineStatus("   returned ", status);
    TraceLine("exit AddDevice");
    return status;
}

// The use lock is an interlocked counter, not a spin lock: a waiter withdraws
// its increment before it sleeps.
NTSTATUS AddAdapterDeviceLocked(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                PCPFNSTARTDEVICE StartRoutine, ULONG MaxObjects,
                                ULONG DeviceExtensionSize) {
    if (!StartRoutine)
        return STATUS_INVALID_PARAMETER;

    LONG budget = MME_ADD_WAIT_BUDGET_MS;
    while (InterlockedIncrement(&_pdoUseLock) != 1) {
        TraceLine("_pdoUseLock is aquired");
        InterlockedDecrement(&_pdoUseLock);
        if (ParkedDeviceRemoved(DriverObject)) {
            TakePendingPdo(); // the hand-over is free again
            continue;
        }
        LARGE_INTEGER interval;
        interval.QuadPart = -(LONGLONG)MME_ADD_WAIT_STEP_MS * 10000;
        NTSTATUS delayed = KeDelayExecutionThread(KernelMode, TRUE, &interval);
        if (delayed != STATUS_SUCCESS) {
            TraceLine("KeDelayExecutionThread failed");
            return delayed;
        }
        budget -= MME_ADD_WAIT_STEP_MS;
        if (budget < 0) {
            TraceLine("timeout");
            return STATUS_TIMEOUT;
        }
    }

    _pendingPdo = PhysicalDeviceObject;
    InterlockedExchange(&gPdoParked, 1);

    NTSTATUS status = PcAddAdapterDevice(DriverObject, PhysicalDeviceObject, StartRoutine,
                                         MaxObjects, DeviceExtensionSize);
    if (status != STATUS_SUCCESS)
        TakePendingPdo();
    else
        MMEStoreReleasePointer(&gParkedFdo, OwnDeviceAbove(PhysicalDeviceObject, DriverObject));
    return status;
}

PDEVICE_OBJECT TakePendingPdo() {
    if (InterlockedExchange(&gPdoParked, 0) == 0)
        return nullptr;
    PDEVICE_OBJECT pdo = _pendingPdo;
    _pendingPdo = nullptr;
    MMEStoreReleasePointer(&gParkedFdo, static_cast<PDEVICE_OBJECT>(nullptr));
    InterlockedDecrement(&_pdoUseLock);
    return pdo;
}

void ResetPdoHandOver() {
    MMEStoreReleasePointer(&gParkedFdo, static_cast<PDEVICE_OBJECT>(nullptr));
    InterlockedExchange(&gPdoParked, 0);
    _pendingPdo = nullptr;
    InterlockedExchange(&_pdoUseLock, 0);
}

NTSTATUS NTAPI StartDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PRESOURCELIST ResourceList) {
    UNREFERENCED_PARAMETER(ResourceList);
    FunctionTrace ft("StartDevice [DeviceObject]", DeviceObject);

    // A start with nothing of its own parked (a restart after a stop) must
    // not take another device's physical device object that waits there.
    if (InterlockedCompareExchange(&gPdoParked, 0, 0) != 0 &&
        !StackHolds(_pendingPdo, DeviceObject))
        return STATUS_INVALID_PARAMETER;
    PDEVICE_OBJECT usbDevice = TakePendingPdo();
    if (!usbDevice)
        return STATUS_INVALID_PARAMETER;

    MMEAdapter* adapter = MMEAdapter::create(DeviceObject, usbDevice);
    if (!adapter)
        return STATUS_INSUFFICIENT_RESOURCES;

    NTSTATUS status = adapter->start(Irp);
    // From here the subdevices' references keep the adapter; if none was
    // taken, this release destroys it.
    adapter->Release();

    TraceLineStatus("exit StartDevice ", status);
    return status;
}

MMEAdapter* MMEAdapter::create(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT UsbDeviceObject) {
    MMEAdapter* adapter = new MMEAdapter(DeviceObject, UsbDeviceObject);
    if (!adapter)
        return nullptr;
    adapter->AddRef();
    return adapter;
}

extern "C" int _purecall(void) {
    RtlAssert((PVOID) "!\"Pure virutal function called\"", (PVOID) "adapter", 130, nullptr);
    return 0;
}

#ifdef _WIN32
// g++ fills the slots of pure virtual operations with this runtime entry.
extern "C" void __cxa_pure_virtual(void) {
    _purecall();
}
#endif
