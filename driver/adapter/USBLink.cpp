// The adapter's calls into the USB driver (one reusable internal
// device-control request carrying the link record, guarded so that a
// concurrent or nested call fails at once) and the three callback entry
// points the USB driver reaches through the link record.
#include "AdapterAssert.h"
#include "MMEAdapter.h"

namespace {

// Keeps the request ours: the I/O manager never finishes it, so it can be
// sent again unchanged and is freed only by the adapter.
NTSTATUS NTAPI callCompleted(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Context);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

// Passive or dispatch level. Never waits: the guard is taken by an increment
// that yields 1; any other result means a call is under way (on another
// thread, or further up this one) and this call fails without sending.
bool MMEAdapter::callUSBDriver(ULONG what) {
    FunctionTrace ft("MMEAdapter::callUSBDriver", this);

    if (InterlockedIncrement(&mCallsInProgress) != 1) {
        releaseCallGuard();
        return false;
    }

    // Holding the guard: a free that MMENotify_PreventFurtherDriverCalls had
    // to leave to us happens before anything is sent.
    if (InterlockedExchange(&mCallIrpFreeRequested, 0) != 0 && m_pCallIrp) {
        IoFreeIrp(m_pCallIrp);
        m_pCallIrp = nullptr;
    }

    PIRP irp = m_pCallIrp;
    if (!irp || !mUSBDeviceObject) {
        ft.pointers("!m_pCallIrp || !mUSBDeviceObject", irp, mUSBDeviceObject);
        releaseCallGuard();
        return false;
    }

    // The location the call will use must exist (a device object with a
    // stack size of 0 gives a request without one).
    MME_ADAPTER_ASSERT(irp->CurrentLocation - 1 > 0, "Irp->CurrentLocation > 0", 560);
    if (irp->CurrentLocation - 1 <= 0) {
        releaseCallGuard();
        return false;
    }

    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    irp->UserBuffer = &m_cMMEAdapterInfo;
    irp->Cancel = FALSE;
    IoSetCompletionRoutine(irp, &callCompleted, nullptr, TRUE, TRUE, TRUE);
    stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = what;

    ft.pointer("call IoCallDriver", this);
    NTSTATUS status = IofCallDriver(mUSBDeviceObject, irp);
    ft.hex("result IoCallDriver", (ULONG)status);

    // STATUS_PENDING counts as a refusal: the USB driver must complete every
    // request before its dispatch routine returns.
    bool result = status == STATUS_SUCCESS;
    releaseCallGuard();
    return result;
}

void MMEAdapter::releaseCallGuard() {
    InterlockedDecrement(&mCallsInProgress);
    if (InterlockedCompareExchange(&mCallIrpFreeRequested, 0, 0) != 0)
        freeCallIrpIfRequested();
}

// Any level up to dispatch; never waits. When the guard is held, by another
// thread or by a call further up this thread (the USB driver may send the
// notification from inside its dispatch routine), the holder frees the
// request when it releases the guard.
void MMEAdapter::freeCallIrpIfRequested() {
    while (InterlockedCompareExchange(&mCallIrpFreeRequested, 0, 0) != 0) {
        if (InterlockedCompareExchange(&mCallsInProgress, 1, 0) != 0)
            return;
        PIRP irp = nullptr;
        if (InterlockedExchange(&mCallIrpFreeRequested, 0) != 0) {
            irp = m_pCallIrp;
            m_pCallIrp = nullptr;
        }
        InterlockedDecrement(&mCallsInProgress);
        if (irp)
            IoFreeIrp(irp);
    }
}

void NTAPI MMEAdapter::notifyEntry(PVOID context, ULONG code, ULONGLONG value) {
    if (!context)
        return;
    static_cast<MMEAdapter*>(context)->onNotify(code, value);
}

LONG NTAPI MMEAdapter::stcEntry(PVOID context, ULONG code, ULONG value) {
    if (!context)
        return 0;
    return static_cast<MMEAdapter*>(context)->USBDriverStcCallback(code, value);
}

// The USB driver's period context: allocates nothing, never waits.
void NTAPI MMEAdapter::exchangeDataEntry(PVOID context, MMEAdapterInfo* info) {
    if (!context || !info || !info->mpSharedMemory)
        return;
    MMEAdapter* adapter = static_cast<MMEAdapter*>(context);
    if (!adapter->isAttached())
        return;
    adapter->checkExchangeData(info);
}
