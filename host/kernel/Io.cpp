// The I/O manager's part on Linux: driver and device objects, IRPs with
// their stack locations, sending an IRP down (IofCallDriver), completing it
// back up through the completion routines (IofCompleteRequest), and the
// object manager's reference counts on device objects.
#include "HostKernelInternal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>

using hostk::detail::pointerText;

namespace {

constexpr CSHORT kTypeDriver = 4;
constexpr CSHORT kTypeDevice = 3;
constexpr CSHORT kTypeIrp = 6;
constexpr ULONG kIrpTag = 0x20707249; // 'Irp '

struct DeviceEntry {
    uint64_t generation;
    uint64_t number;
    bool deletePending;
};

struct IoState {
    std::mutex mutex;
    uint64_t generation = 0;
    uint64_t serial = 0;
    std::unordered_map<PIRP, uint64_t> irps; // -> generation
    std::unordered_map<PDEVICE_OBJECT, DeviceEntry> devices;
};

IoState& io() {
    static IoState* s = new IoState;
    return *s;
}

std::string statusText(NTSTATUS status) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08X", (unsigned)status);
    return buffer;
}

bool irpIsLive(PIRP irp) {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.irps.count(irp) != 0;
}

void unlinkFromDriver(PDEVICE_OBJECT device) {
    PDRIVER_OBJECT driver = device->DriverObject;
    if (!driver)
        return;
    for (PDEVICE_OBJECT* link = &driver->DeviceObject; *link; link = &(*link)->NextDevice) {
        if (*link == device) {
            *link = device->NextDevice;
            break;
        }
    }
    device->NextDevice = nullptr;
}

} // namespace

using hostk::detail::verifierFailure;

namespace hostk {

PDRIVER_OBJECT initDriverObject(DriverObjectBlock& block) {
    std::memset(&block, 0, sizeof block);
    PDRIVER_OBJECT driver = &block.object;
    driver->Type = kTypeDriver;
    driver->Size = (CSHORT)sizeof *driver;
    driver->DriverExtension = &block.extension;
    block.extension.DriverObject = driver;
    return driver;
}

PDEVICE_OBJECT createDeviceObject(PDRIVER_OBJECT driver, CCHAR stackSize, ULONG extensionSize) {
    if (stackSize < 1)
        return nullptr;
    size_t head = (sizeof(DEVICE_OBJECT) + 15) & ~size_t(15);
    auto* device = (PDEVICE_OBJECT)std::calloc(1, head + extensionSize);
    if (!device)
        return nullptr;
    device->Type = kTypeDevice;
    device->Size = (USHORT)(sizeof(DEVICE_OBJECT) + extensionSize);
    device->DriverObject = driver;
    device->StackSize = stackSize;
    device->DeviceExtension = extensionSize ? (PUCHAR)device + head : nullptr;
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (driver) {
        device->NextDevice = driver->DeviceObject;
        driver->DeviceObject = device;
    }
    s.devices[device] = DeviceEntry{s.generation, ++s.serial, false};
    return device;
}

void deleteDeviceObject(PDEVICE_OBJECT device) {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.devices.find(device);
    if (it == s.devices.end() || it->second.deletePending) {
        verifierFailure("deleteDeviceObject of " + pointerText(device) +
                        ", which is not a live device object");
        return;
    }
    unlinkFromDriver(device);
    if (__atomic_load_n(&device->ReferenceCount, __ATOMIC_SEQ_CST) > 0) {
        // The memory stays until the last ObfDereferenceObject, as in the kernel.
        it->second.deletePending = true;
        return;
    }
    s.devices.erase(it);
    std::free(device);
}

size_t liveDeviceObjects() {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    size_t n = 0;
    for (const auto& entry : s.devices)
        if (entry.second.generation == s.generation)
            ++n;
    return n;
}

size_t liveIrps() {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    size_t n = 0;
    for (const auto& entry : s.irps)
        if (entry.second == s.generation)
            ++n;
    return n;
}

namespace detail {

void ioNewGeneration() {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.generation;
}

std::string ioProblems() {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::map<uint64_t, std::string> devices;
    for (const auto& [device, entry] : s.devices) {
        if (entry.generation != s.generation)
            continue;
        LONG references = __atomic_load_n(&device->ReferenceCount, __ATOMIC_SEQ_CST);
        devices[entry.number] = entry.deletePending
                                    ? "device object " + pointerText(device) +
                                          " deleted but still referenced " +
                                          std::to_string(references) + " time(s)"
                                    : "device object " + pointerText(device) + " never deleted (" +
                                          std::to_string(references) + " reference(s))";
    }
    std::string text;
    for (const auto& [n, line] : devices)
        text += line + "\n";
    for (const auto& [irp, generation] : s.irps)
        if (generation == s.generation)
            text += "IRP " + pointerText(irp) + " never freed\n";
    return text;
}

} // namespace detail
} // namespace hostk

extern "C" {

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    (void)ChargeQuota;
    if (const char* scope = hostk::detail::noAllocScope())
        verifierFailure(std::string("IoAllocateIrp inside ") + scope);
    if (StackSize < 1)
        return nullptr;
    size_t size = sizeof(IRP) + (size_t)StackSize * sizeof(IO_STACK_LOCATION);
    auto* irp = (PIRP)hostk::detail::poolAllocate(size, kIrpTag, hostk::detail::BlockKind::Irp);
    if (!irp)
        return nullptr;
    std::memset(irp, 0, size);
    irp->Type = kTypeIrp;
    irp->Size = (USHORT)size;
    irp->StackCount = StackSize;
    irp->CurrentLocation = (CCHAR)(StackSize + 1);
    // One past the last location: the first IoGetNextIrpStackLocation is the last one.
    irp->Tail.Overlay.CurrentStackLocation = (PIO_STACK_LOCATION)(irp + 1) + StackSize;
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.irps[irp] = s.generation;
    return irp;
}

void NTAPI IoFreeIrp(PIRP Irp) {
    {
        auto& s = io();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!Irp || !s.irps.erase(Irp)) {
            verifierFailure("IoFreeIrp of " + pointerText(Irp) + ", which is not a live IRP");
            return;
        }
    }
    hostk::detail::poolFree(Irp, hostk::detail::BlockKind::Irp, "IoFreeIrp");
}

NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (!Irp || !irpIsLive(Irp)) {
        verifierFailure("IofCallDriver with " + pointerText(Irp) + ", which is not a live IRP");
        return STATUS_INVALID_PARAMETER;
    }
    if (!DeviceObject) {
        verifierFailure("IofCallDriver to a NULL device object");
        return STATUS_INVALID_PARAMETER;
    }
    const CCHAR level = (CCHAR)(Irp->CurrentLocation - 1);
    if (level <= 0) {
        verifierFailure("IofCallDriver: no more IRP stack locations in " + pointerText(Irp));
        return STATUS_INVALID_PARAMETER;
    }
    Irp->CurrentLocation = level;
    Irp->Tail.Overlay.CurrentStackLocation--;
    PIO_STACK_LOCATION stack = Irp->Tail.Overlay.CurrentStackLocation;
    stack->DeviceObject = DeviceObject;

    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    PDRIVER_DISPATCH dispatch = nullptr;
    if (driver && stack->MajorFunction <= IRP_MJ_MAXIMUM_FUNCTION)
        dispatch = driver->MajorFunction[stack->MajorFunction];
    if (!dispatch) {
        // What the I/O manager's default routine does.
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        Irp->IoStatus.Information = 0;
        IofCompleteRequest(Irp, 0);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = dispatch(DeviceObject, Irp);
    if (status != STATUS_PENDING && irpIsLive(Irp) && Irp->CurrentLocation <= level)
        verifierFailure("dispatch routine for major function " +
                        std::to_string(stack->MajorFunction) + " returned " + statusText(status) +
                        " without completing the IRP (only STATUS_PENDING may leave it)");
    return status;
}

void NTAPI IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    (void)PriorityBoost;
    if (!Irp || !irpIsLive(Irp)) {
        verifierFailure("IofCompleteRequest of " + pointerText(Irp) + ", which is not a live IRP");
        return;
    }
    if (Irp->CurrentLocation > Irp->StackCount) {
        verifierFailure("IofCompleteRequest of " + pointerText(Irp) +
                        ", which no driver holds (completed twice?)");
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING)
        verifierFailure("IofCompleteRequest with status STATUS_PENDING");
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION stack = Irp->Tail.Overlay.CurrentStackLocation;
        Irp->CurrentLocation++;
        Irp->Tail.Overlay.CurrentStackLocation++;
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        UCHAR control = stack->Control;
        stack->MinorFunction = 0;
        stack->Flags = 0;
        stack->Control = 0;
        std::memset(&stack->Parameters, 0, sizeof stack->Parameters);
        NTSTATUS status = Irp->IoStatus.Status;
        bool invoke = routine && ((NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
                                  (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) ||
                                  (Irp->Cancel && (control & SL_INVOKE_ON_CANCEL)));
        if (!invoke)
            continue;
        // The routine gets the device object of the driver that set it,
        // NULL for the IRP's allocator above the top location.
        PDEVICE_OBJECT device = Irp->CurrentLocation > Irp->StackCount
                                    ? nullptr
                                    : Irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
        if (routine(device, Irp, context) == STATUS_MORE_PROCESSING_REQUIRED)
            return;
    }
    // Past the top location with no routine claiming it, the I/O manager
    // finishes the request for the thread that issued it; an IRP a driver
    // allocated itself has none, so its own completion routine must stop
    // completion with STATUS_MORE_PROCESSING_REQUIRED. The host finishes
    // (frees) it, so the driver's later use of it is a verifier failure too.
    verifierFailure("IRP " + pointerText(Irp) +
                    " completed past its top location (no completion routine returned "
                    "STATUS_MORE_PROCESSING_REQUIRED); the I/O manager finishes and frees it");
    IoFreeIrp(Irp);
}

LONG_PTR NTAPI ObfReferenceObject(PVOID Object) {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto* device = (PDEVICE_OBJECT)Object;
    if (!s.devices.count(device)) {
        verifierFailure("ObfReferenceObject of " + pointerText(Object) +
                        ", which is not a live device object");
        return 0;
    }
    return __atomic_add_fetch(&device->ReferenceCount, 1, __ATOMIC_SEQ_CST);
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID Object) {
    auto& s = io();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto* device = (PDEVICE_OBJECT)Object;
    auto it = s.devices.find(device);
    if (it == s.devices.end()) {
        verifierFailure("ObfDereferenceObject of " + pointerText(Object) +
                        ", which is not a live device object");
        return 0;
    }
    if (__atomic_load_n(&device->ReferenceCount, __ATOMIC_SEQ_CST) <= 0) {
        verifierFailure("ObfDereferenceObject of " + pointerText(Object) +
                        " below zero references");
        return 0;
    }
    LONG count = __atomic_sub_fetch(&device->ReferenceCount, 1, __ATOMIC_SEQ_CST);
    if (count == 0 && it->second.deletePending) {
        s.devices.erase(it);
        std::free(device);
    }
    return count;
}

} // extern "C"
