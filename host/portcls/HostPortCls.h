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
#include <mutex>
#include <string>
#include <vector>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace hostpc {

// ---- Devices (one record per functional device object) ----
//
// PnP and power as the PnP manager sends them and as PortCls handles them for
// an adapter that registered no PnP- or power-management interface (ours):
// each request goes to the function device's dispatch (the port-class
// library's) and from there down to the physical device object (the bus
// driver, e.g. the USB model), in the documented order. Requests for one
// device are serialised, as the PnP manager does for a device node. Every
// function here runs the request on the calling thread, at passive level,
// and must not be called with a lock held that the driver's callbacks take.

// Where a function device stands.
enum class PnpState {
    Added,           // AddDevice done, never started
    Started,         // working
    StopPending,     // IRP_MN_QUERY_STOP_DEVICE succeeded
    Stopped,         // IRP_MN_STOP_DEVICE: waits for the next start
    RemovePending,   // IRP_MN_QUERY_REMOVE_DEVICE succeeded
    SurpriseRemoved, // gone; IRP_MN_REMOVE_DEVICE follows the last handle's close
    Removed,         // no longer known (also any unknown fdo)
};
const char* pnpStateName(PnpState state);

// IRP_MN_START_DEVICE: passed down to the physical device first, then the
// port-class library calls the start routine given to PcAddAdapterDevice with
// the start request and no resource list; after a stop it calls it again.
// Returns the start's status (STATUS_INVALID_PARAMETER for an unknown fdo).
NTSTATUS startDevice(PDEVICE_OBJECT fdo);
// The device goes for good. Without open handles the orderly path runs
// (IRP_MN_QUERY_REMOVE_DEVICE, then IRP_MN_REMOVE_DEVICE: every registered
// subdevice gives up its miniport and is released, in the order of
// registration; the functional device object is detached and deleted).
// With handles open it is a surprise removal (below). Unknown fdo: nothing.
void removeDevice(PDEVICE_OBJECT fdo);
// IRP_MN_QUERY_REMOVE_DEVICE; refused with STATUS_DEVICE_BUSY while a pin or
// filter handle is open, and then followed by IRP_MN_CANCEL_REMOVE_DEVICE.
// On success the device is RemovePending: new handles are refused until
// removeQueried() or cancelRemove().
NTSTATUS queryRemove(PDEVICE_OBJECT fdo);
void cancelRemove(PDEVICE_OBJECT fdo);  // IRP_MN_CANCEL_REMOVE_DEVICE
void removeQueried(PDEVICE_OBJECT fdo); // IRP_MN_REMOVE_DEVICE after a successful query
// IRP_MN_SURPRISE_REMOVAL: open pins stay open; new handles, state changes
// above STOP, format changes and intersections fail with
// STATUS_DEVICE_REMOVED without reaching the driver; state changes down to
// STOP, position reads and closes still reach the stream. IRP_MN_REMOVE_DEVICE
// follows when the last pin or filter handle closes (at once when none is
// open; a device never started gets the remove request only).
void surpriseRemove(PDEVICE_OBJECT fdo);
// A resource rebalance: IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE (open
// pins are walked to STOP and stay open; new handles and state changes above
// STOP are refused with STATUS_DEVICE_NOT_READY meanwhile), then
// IRP_MN_START_DEVICE again. A refused query is followed by
// IRP_MN_CANCEL_STOP_DEVICE. A failed restart makes the PnP manager
// surprise-remove the device. Returns the query's failure or the restart's
// status.
NTSTATUS rebalance(PDEVICE_OBJECT fdo);
// IRP_MJ_POWER / IRP_MN_SET_POWER for a device power state. Leaving D0, the
// port pauses every running pin (RUN -> PAUSE) and passes the request down;
// back in D0 the physical device powers up first, then the pins it paused run
// again. While not in D0, new handles and state changes are refused with
// STATUS_DEVICE_NOT_READY.
NTSTATUS setDevicePower(PDEVICE_OBJECT fdo, DEVICE_POWER_STATE state);
// System sleep and wake: every started device to D3, or back to D0.
void sleepSystem();
void wakeSystem();

PnpState pnpState(PDEVICE_OBJECT fdo);
DEVICE_POWER_STATE devicePower(PDEVICE_OBJECT fdo); // PowerDeviceUnspecified when unknown
size_t openHandles(PDEVICE_OBJECT fdo);             // pins and filters

// ---- What a bus driver reports to the PnP manager ----
// Its child pdo is gone (IoInvalidateDeviceRelations without it): the stack
// above it is surprise-removed (a device never started is removed at once).
void reportMissing(PDEVICE_OBJECT pdo);
// A new child: the loader that serves new devices (the newest DriverLoader
// alive) adds and starts it. Returns the add's or start's failure, or
// STATUS_NO_SUCH_DEVICE when no loader serves.
NTSTATUS reportArrival(PDEVICE_OBJECT pdo);
// Called after the PnP manager handled one of the above or removed a
// device; empty: none. Runs on the thread that did it, with no lock held.
using PnpListener = std::function<void(PDEVICE_OBJECT fdo, PnpState state)>;
void setPnpListener(PnpListener listener);

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

// ---- Port personality ----
// Where the wave-cyclic port's documentation is silent, the host port either
// follows what it documents (Documented: the cyclic buffer read again after
// a format change the port carried out, BufferSize and SetBufferSize as the
// IDmaChannel pages describe them, silence written ahead of a position that
// moves while not running) or does what the open-source port-class library
// does (OpenSource, ReactOS pin_wavecyclic.cpp: the buffer and its allocated
// size taken once at pin creation and kept, services only in RUN, nothing
// written while paused). The driver must be safe under both.
enum class PortPersonality { Documented, OpenSource };
const char* portPersonalityName(PortPersonality personality); // "documented", "open-source"
bool parsePortPersonality(const std::string& text, PortPersonality* personality);
// For devices added from now on. At process start and after resetForTest:
// MME_PORT from the environment ("documented" or "open-source"), else Documented.
void setDefaultPortPersonality(PortPersonality personality);
PortPersonality defaultPortPersonality();
// Per device; taken by each pin when it is opened.
void setPortPersonality(PDEVICE_OBJECT fdo, PortPersonality personality);
PortPersonality portPersonality(PDEVICE_OBJECT fdo); // the default for an unknown fdo

std::vector<std::u16string> subdeviceNames(PDEVICE_OBJECT fdo);
// The registered port (no reference taken), or null.
PUNKNOWN subdevice(PDEVICE_OBJECT fdo, const std::u16string& name);
// The same with a reference for the caller, taken before a removal on
// another thread can let the port go.
PUNKNOWN referenceSubdevice(PDEVICE_OBJECT fdo, const std::u16string& name);

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

// Clears failures and listeners, sets the default service mode back to
// EndOfPeriod and the default personality back to the environment's; for a
// test's start. Devices still added
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
    // Removes every device this loader added and still present. The newest
    // loader alive also adds and starts the devices that a bus reports new
    // (reportArrival).
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
    // The same for the port's personality.
    void setPortPersonality(PortPersonality personality);

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
    std::mutex mPdoMutex; // the PnP manager adds devices from the bus's threads
    std::vector<PDEVICE_OBJECT> mPdos;
    ServiceMode mServiceMode = ServiceMode::EndOfPeriod;
    bool mServiceModeSet = false;
    PortPersonality mPersonality = PortPersonality::Documented;
    bool mPersonalitySet = false;
};

} // namespace hostpc
