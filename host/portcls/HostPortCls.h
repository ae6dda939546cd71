// Control side of the host port-class library: what tests and programs use
// to drive a driver the way the PnP manager and PortCls would (load, add,
// start, remove) and to inspect what the driver registered (subdevices,
// physical connections, ports, their miniports and descriptors, Notify
// counts, service groups), plus fault injection for the Pc* entry points.
//
// Objects: ports and service groups are reference counted and allocated
// from the host kernel's pool (tags 'PcPt', 'PcSg'), so a leaked one shows
// in hostk::checkClean(). Functional device objects are host device objects
// deleted by removeDevice().
//
// Threads: every function here may be called from any thread; none holds an
// internal lock while it calls into the driver.
#pragma once

#include "driver/platform/platform.h"
#include "host/kernel/HostKernel.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace hostpc {

// ---- Devices (one record per functional device object) ----

// Sends IRP_MN_START_DEVICE to the functional device object, as the PnP
// manager does: the port-class dispatch calls the start routine given to
// PcAddAdapterDevice with the start request and no resource list. Returns
// the start routine's status (STATUS_INVALID_PARAMETER for an unknown fdo).
NTSTATUS startDevice(PDEVICE_OBJECT fdo);
// Sends IRP_MN_REMOVE_DEVICE: every registered subdevice gives up its
// miniport and is released, in the order of registration; then the
// functional device object is detached and deleted. Unknown fdo: nothing.
void removeDevice(PDEVICE_OBJECT fdo);

std::vector<PDEVICE_OBJECT> devices();        // functional device objects, in order of adding
PDEVICE_OBJECT fdoForPdo(PDEVICE_OBJECT pdo); // null when none
PDEVICE_OBJECT pdoOf(PDEVICE_OBJECT fdo);     // null when unknown
PCPFNSTARTDEVICE startRoutine(PDEVICE_OBJECT fdo);
ULONG maxObjects(PDEVICE_OBJECT fdo);
bool isStarted(PDEVICE_OBJECT fdo); // the last start request succeeded

// ---- Service mode ----
// Where the wave port's service runs after a Notify. Concurrent: the
// service group's DPC runs on the kernel's DPC thread, concurrently with
// the next period callback, as on Windows; a slow service shows up late.
// EndOfPeriod: the DPC runs on the notifying thread when it leaves
// DISPATCH_LEVEL, i.e. at the end of the USB model's period callback:
// deterministic, for virtual time and bit-exact tests.
enum class ServiceMode { Concurrent, EndOfPeriod };
// For devices added from now on (EndOfPeriod at process start).
void setDefaultServiceMode(ServiceMode mode);
ServiceMode defaultServiceMode();
// Per device; taken by each pin when it is opened.
void setServiceMode(PDEVICE_OBJECT fdo, ServiceMode mode);
ServiceMode serviceMode(PDEVICE_OBJECT fdo); // the default for an unknown fdo

std::vector<std::u16string> subdeviceNames(PDEVICE_OBJECT fdo);
// The registered port (no reference taken), or null.
PUNKNOWN subdevice(PDEVICE_OBJECT fdo, const std::u16string& name);

struct Connection {
    std::u16string fromName;
    ULONG fromPin;
    std::u16string toName;
    ULONG toPin;
    bool operator==(const Connection& o) const {
        return fromName == o.fromName && fromPin == o.fromPin && toName == o.toName &&
               toPin == o.toPin;
    }
};
std::vector<Connection> connections(PDEVICE_OBJECT fdo);

// ---- Ports ----

struct PortState {
    bool isPort = false;     // false: the unknown is not a host port
    bool waveCyclic = false; // else topology
    bool initialized = false;
    PDEVICE_OBJECT device = nullptr;
    PIRP initIrp = nullptr;      // the request given to Init
    PUNKNOWN miniport = nullptr; // held by the port until its children are released
    const PCFILTER_DESCRIPTOR* descriptor = nullptr; // from the miniport's GetDescription
    size_t notifyCount = 0;                          // IPortWaveCyclic::Notify calls
    size_t eventsAdded = 0;                          // IPortEvents::AddEventToEventList
    size_t eventsGenerated = 0;                      // IPortEvents::GenerateEventList
    LONG references = 0;
};
PortState portState(PUNKNOWN port);

// The streaming side of the wave port attaches here: runs on every Notify,
// at the caller's level (dispatch level from the period callback), before
// the service group is asked for service. Must not allocate pool memory.
using NotifyListener = std::function<void(PSERVICEGROUP group)>;
void setNotifyListener(PUNKNOWN wavePort, NotifyListener listener);

// ---- Service groups ----

struct ServiceGroupState {
    bool isGroup = false;
    size_t members = 0;
    size_t serviceRequests = 0; // RequestService calls, direct or delayed
    // Requests that found the service asked for at least a millisecond
    // earlier still queued: periods whose service ran late (Concurrent).
    size_t lateServices = 0;
    ServiceMode mode = ServiceMode::EndOfPeriod;
    bool delayedServiceSupported = false;
    LONG references = 0;
};
ServiceGroupState serviceGroupState(PUNKNOWN group);

// Ports and service groups alive now.
size_t liveObjects();

// ---- Fault injection ----

enum class Op {
    InitializeAdapterDriver,
    AddAdapterDevice,
    NewPortTopology,
    NewPortWaveCyclic,
    PortInit,          // the port's Init, before the miniport is touched
    RegisterSubdevice, // optionally only for one name
    PhysicalConnection,
    NewServiceGroup,
};
// The operation returns status (a failure code) until clearFailures().
void fail(Op op, NTSTATUS status, const std::u16string& subdeviceName = std::u16string());
void clearFailures();

// Clears failures and listeners and sets the default service mode back to
// EndOfPeriod; for a test's start. Devices still added
// are left alone (a test removes what it adds).
void resetForTest();

// ---- A driver loaded as the PnP manager would ----

// The process's driver: the one linked into this program, unless a Windows
// image (.sys) was chosen here or by MME_DRIVER_IMAGE in the environment
// (read when no choice was made here). An empty path means the linked one.
void useDriverImage(const std::string& sysPath);
std::string driverImage();

class DriverLoader {
public:
    using Entry = PDRIVER_INITIALIZE;
    // The process's driver (see useDriverImage).
    DriverLoader();
    // Calls entry (DriverEntry) with a driver object and registry path of
    // its own.
    explicit DriverLoader(Entry entry);
    // Maps the image and calls its entry point: only the image's code runs
    // as the driver. When it cannot be loaded, entryStatus() is
    // STATUS_UNSUCCESSFUL and imageError() says why. The image stays mapped
    // until the loader goes, after its devices are removed.
    explicit DriverLoader(const std::string& sysPath);
    // Removes every device this loader added and still present.
    ~DriverLoader();
    DriverLoader(const DriverLoader&) = delete;
    DriverLoader& operator=(const DriverLoader&) = delete;

    NTSTATUS entryStatus() const { return mEntryStatus; }
    PDRIVER_OBJECT driverObject() { return mDriver; }
    bool runsImage() const { return !mImagePath.empty(); }
    const std::string& imagePath() const { return mImagePath; }
    const std::string& imageError() const { return mImageError; }

    // The driver's add-device routine, as registered by DriverEntry
    // (STATUS_INVALID_DEVICE_STATE when none was registered).
    NTSTATUS addDevice(PDEVICE_OBJECT pdo);
    PDEVICE_OBJECT fdo(PDEVICE_OBJECT pdo) const { return fdoForPdo(pdo); }
    NTSTATUS startDevice(PDEVICE_OBJECT pdo); // STATUS_INVALID_PARAMETER when not added
    void removeDevice(PDEVICE_OBJECT pdo);
    // Service mode of the devices this loader added and adds (else the
    // default at their adding).
    void setServiceMode(ServiceMode mode);

private:
    void init();
    void enter(Entry entry);
    void loadImage(const std::string& sysPath);

    std::shared_ptr<void> mImage; // the mapped image, when the driver is one
    std::string mImagePath;
    std::string mImageError;
    std::unique_ptr<hostk::DriverObjectBlock> mDriverBlock;
    PDRIVER_OBJECT mDriver = nullptr;
    std::u16string mRegistryText;
    UNICODE_STRING mRegistryPath{};
    NTSTATUS mEntryStatus = STATUS_UNSUCCESSFUL;
    std::vector<PDEVICE_OBJECT> mPdos;
    ServiceMode mServiceMode = ServiceMode::EndOfPeriod;
    bool mServiceModeSet = false;
};

} // namespace hostpc
