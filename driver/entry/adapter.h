// The driver's entry points as the system reaches them (DriverEntry,
// AddDevice, StartDevice) and the add/start hand-over of the physical device
// object: AddDevice parks it under the driver-wide use lock, StartDevice
// takes it. One device instance at a time is between its add and its start.
#pragma once

#include "../platform/platform.h"

constexpr LONG MME_ADD_WAIT_STEP_MS = 20;
constexpr LONG MME_ADD_WAIT_BUDGET_MS = 5000;
constexpr ULONG MME_MAX_SUBDEVICES = 3;
#define MME_VERSION_TEXT "v2.9.59.0"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
// What DriverEntry sets up before anything else: NonPagedPool allocations
// non-executable where the kernel has such pool (the sources say NonPagedPool,
// the build defines POOL_NX_OPTIN). Tests that run driver code without a
// DriverEntry call it once.
void InitializeDriverRuntime();

// Passive level. Waits (in 20-ms steps, at most 5000 ms) while another
// device instance is between its add and its start.
NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS AddAdapterDeviceLocked(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                PCPFNSTARTDEVICE StartRoutine, ULONG MaxObjects,
                                ULONG DeviceExtensionSize);
// Passive level; the start routine handed to the port-class library.
NTSTATUS NTAPI StartDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PRESOURCELIST ResourceList);

// The parked physical device object, or null. Releases the use lock only
// when something was parked, so a start with nothing parked leaves the
// lock's count as it was.
PDEVICE_OBJECT TakePendingPdo();

// The pure-virtual-call handler: reports the assertion and returns 0. On
// Windows the C++ runtime's __cxa_pure_virtual leads here as well.
extern "C" int _purecall(void);

// The driver-wide hand-over state, for tests: the use lock (0 when free) and
// the parked physical device object.
extern volatile LONG _pdoUseLock;
extern PDEVICE_OBJECT _pendingPdo;
// Back to Free (lock 0, nothing parked), for tests that leave a device parked.
void ResetPdoHandOver();
