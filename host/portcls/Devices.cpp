// Device side of the host port-class library: PcInitializeAdapterDriver
// (the driver's dispatch and add-device routine), PcAddAdapterDevice (a
// functional device object above the physical one), the PnP start and
// remove requests, PcRegisterSubdevice and PcRegisterPhysicalConnection with
// their bookkeeping per device, fault injection, and the driver loader.
#include "PortClsInternal.h"

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
    std::vector<Subdevice> subdevices;
    std::vector<Connection> connections;
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

// Keeps a request we send to ourselves ours after completion.
NTSTATUS NTAPI keepRequest(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS sendPnp(PDEVICE_OBJECT fdo, UCHAR minor) {
    PIRP irp = IoAllocateIrp(fdo->StackSize, FALSE);
    if (!irp)
        return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_PNP;
    stack->MinorFunction = minor;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoSetCompletionRoutine(irp, &keepRequest, nullptr, TRUE, TRUE, TRUE);
    NTSTATUS status = IofCallDriver(fdo, irp);
    IoFreeIrp(irp);
    return status;
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
    NTSTATUS status = start(fdo, irp, nullptr);
    std::lock_guard<std::mutex> lock(state().mutex);
    if (DeviceRecord* record = findLocked(fdo))
        record->started = NT_SUCCESS(status);
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

NTSTATUS NTAPI dispatchPnp(PDEVICE_OBJECT fdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
        status = startLocked(fdo, irp);
        break;
    case IRP_MN_REMOVE_DEVICE:
        releaseSubdevices(fdo);
        status = STATUS_SUCCESS;
        break;
    default:
        break;
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

} // namespace

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

NTSTATUS startDevice(PDEVICE_OBJECT fdo) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (!fdo || !findLocked(fdo))
            return STATUS_INVALID_PARAMETER;
    }
    return sendPnp(fdo, IRP_MN_START_DEVICE);
}

void removeDevice(PDEVICE_OBJECT fdo) {
    PDEVICE_OBJECT pdo = nullptr;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        DeviceRecord* record = fdo ? findLocked(fdo) : nullptr;
        if (!record)
            return;
        pdo = record->pdo;
    }
    if (!NT_SUCCESS(sendPnp(fdo, IRP_MN_REMOVE_DEVICE)))
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
    setDefaultServiceMode(ServiceMode::EndOfPeriod);
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
    for (auto it = mPdos.rbegin(); it != mPdos.rend(); ++it)
        if (PDEVICE_OBJECT fdo = fdoForPdo(*it))
            hostpc::removeDevice(fdo);
}

NTSTATUS DriverLoader::addDevice(PDEVICE_OBJECT pdo) {
    PDRIVER_ADD_DEVICE add =
        mDriver->DriverExtension ? mDriver->DriverExtension->AddDevice : nullptr;
    if (!add)
        return STATUS_INVALID_DEVICE_STATE;
    NTSTATUS status = add(mDriver, pdo);
    if (PDEVICE_OBJECT fdo = fdoForPdo(pdo)) {
        if (mServiceModeSet)
            hostpc::setServiceMode(fdo, mServiceMode);
        if (std::find(mPdos.begin(), mPdos.end(), pdo) == mPdos.end())
            mPdos.push_back(pdo);
    }
    return status;
}

void DriverLoader::setServiceMode(ServiceMode mode) {
    mServiceMode = mode;
    mServiceModeSet = true;
    for (PDEVICE_OBJECT pdo : mPdos)
        if (PDEVICE_OBJECT fdo = fdoForPdo(pdo))
            hostpc::setServiceMode(fdo, mode);
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
    mPdos.erase(std::remove(mPdos.begin(), mPdos.end(), pdo), mPdos.end());
}

} // namespace hostpc
