// Shared between the host port-class library's source files: the port and
// service-group objects, pool-backed creation, fault injection and the
// private interface that tells a host port from any other unknown.
#pragma once

#include "HostPortCls.h"

#include <atomic>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace hostpc::detail {

// Pool tags ('PcPt', 'PcSg' read as text in a leak report).
constexpr ULONG kPortTag = 0x74506350;
constexpr ULONG kGroupTag = 0x67536350;

// Constructs T in a block of the host kernel's pool, so leaks show in the
// kernel's accounting and allocation faults reach the port-class library
// too. Null when the pool refuses.
template <class T, class... Args> T* poolNew(ULONG tag, Args&&... args) {
    void* p = ExAllocatePoolWithTag(NonPagedPool, sizeof(T), tag);
    if (!p)
        return nullptr;
    return new (p) T(std::forward<Args>(args)...);
}
template <class T> void poolDelete(T* object, ULONG tag) {
    object->~T();
    ExFreePoolWithTag(object, tag);
}

// Failure injected for op (and subdevice name), or STATUS_SUCCESS.
NTSTATUS injectedFailure(Op op, const std::u16string& name = std::u16string());

std::atomic<size_t>& liveCount();

// The non-COM side of every host port.
class HostPort {
public:
    virtual ~HostPort() = default;
    virtual PUNKNOWN unknown() = 0; // the canonical IUnknown
    virtual bool isWaveCyclic() const = 0;
    // Gives up the miniport (what PortCls does when a subdevice goes away):
    // breaks the port <-> miniport reference cycle. Passive level.
    virtual void releaseChildren() = 0;
    virtual PortState state() = 0;
    virtual void setNotifyListener(NotifyListener listener) = 0;
    // The bound miniport with a reference for the caller, or null.
    virtual PUNKNOWN referenceMiniport() = 0;
};

// Handles of a device: a client pin or filter counts from its creation to its
// close; the remove request of a surprise-removed device waits for the last.
// acquireHandle refuses (STATUS_DEVICE_REMOVED, STATUS_DELETE_PENDING or
// STATUS_DEVICE_NOT_READY) when the device takes no new handles.
NTSTATUS acquireHandle(PDEVICE_OBJECT fdo);
// The last release of a surprise-removed device sends its remove request on
// this thread: call it with no lock held.
void releaseHandle(PDEVICE_OBJECT fdo);
// Whether a client request may reach the driver now: state changes down to
// STOP (stateDown) always may; others are refused while the device is gone,
// stopped or powered down.
NTSTATUS requestStatus(PDEVICE_OBJECT fdo, bool stateDown);
bool deviceGone(PDEVICE_OBJECT fdo); // surprise-removed or removed

class WavePin;
// The client pins open on a port, a reference each (WavePin.cpp).
std::vector<WavePin*> referencePins(PUNKNOWN port);

// Sets the service mode of a host service group (nothing for others).
void setGroupServiceMode(PUNKNOWN group, ServiceMode mode);

// Closes every client pin open on this port (WavePin.cpp); the port calls it
// before it gives up its miniport. Passive level.
void closePins(PUNKNOWN port);

// Host port behind an unknown (with a reference the caller gives back with
// port->unknown()->Release()), or null.
HostPort* hostPortOf(PUNKNOWN unknown);

} // namespace hostpc::detail

// {6F0C3B9A-2B41-4C0E-9E57-8A1D4C7B0F11}: asked of an unknown to find the
// host port behind it; driver objects refuse it.
extern "C" const GUID IID_IHostPortPrivate;
// {6F0C3B9A-2B41-4C0E-9E57-8A1D4C7B0F12}: the same for service groups.
extern "C" const GUID IID_IHostServiceGroupPrivate;
