// Host declarations of the Windows kernel services the driver uses, with the
// Windows names, 64-bit Windows type widths (ULONG is 32 bits, WCHAR 16 here
// too) and the Windows x64 calling convention, so that the shipped image and
// these host objects call each other directly. Implemented on Linux by
// host/kernel. Every record the image reads or writes itself (through the
// DDK's inline functions or as storage inside its own objects) has the DDK's
// layout; what the kernel alone uses lives in fields the kernel owns.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

// The kernel, port-class library and every routine they call back use the
// Windows x64 convention; so do the host's implementations of them.
#define NTAPI __attribute__((ms_abi))
#define STDMETHODCALLTYPE __attribute__((ms_abi))
#define DECLSPEC_NOVTABLE
#define IN
#define OUT
#define OPTIONAL
#define FORCEINLINE inline

typedef void VOID;
typedef void* PVOID;
typedef char CHAR;
typedef CHAR* PCHAR;
typedef const CHAR* PCSTR;
typedef CHAR CCHAR;
typedef int16_t CSHORT;
typedef uint8_t UCHAR;
typedef UCHAR* PUCHAR;
typedef uint8_t BYTE;
typedef uint16_t USHORT;
typedef uint16_t WORD;
typedef int16_t SHORT;
typedef uint32_t ULONG;
typedef ULONG* PULONG;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef LONG* PLONG;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int32_t BOOL;
typedef uint8_t BOOLEAN;
typedef BOOLEAN* PBOOLEAN;
typedef int64_t LONGLONG;
typedef LONGLONG* PLONGLONG;
typedef uint64_t ULONGLONG;
typedef ULONGLONG* PULONGLONG;
typedef uint64_t ULONG64;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef size_t SIZE_T;
typedef char16_t WCHAR; // 16 bits as on Windows; wchar_t is 32 here
// A WCHAR string literal in both builds (L"" is WCHAR only on Windows).
#define MME_WIDE(text) u##text
typedef WCHAR* PWSTR;
typedef const WCHAR* PCWSTR;
typedef LONG NTSTATUS;
typedef UCHAR KIRQL;
typedef KIRQL* PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef ULONG_PTR KSPIN_LOCK;
typedef KSPIN_LOCK* PKSPIN_LOCK;

#define TRUE 1
#define FALSE 0

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;
typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;

// Status codes
#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_TIMEOUT ((NTSTATUS)0x00000102L)
#define STATUS_PENDING ((NTSTATUS)0x00000103L)
#define STATUS_BUFFER_OVERFLOW ((NTSTATUS)0x80000005L)
#define STATUS_UNSUCCESSFUL ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED ((NTSTATUS)0xC0000002L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_INVALID_DEVICE_REQUEST ((NTSTATUS)0xC0000010L)
#define STATUS_MORE_PROCESSING_REQUIRED ((NTSTATUS)0xC0000016L)
#define STATUS_BUFFER_TOO_SMALL ((NTSTATUS)0xC0000023L)
#define STATUS_INSUFFICIENT_RESOURCES ((NTSTATUS)0xC000009AL)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define STATUS_INVALID_DEVICE_STATE ((NTSTATUS)0xC0000184L)
#define STATUS_NO_MATCH ((NTSTATUS)0xC0000272L)
#define STATUS_NO_SUCH_DEVICE ((NTSTATUS)0xC000000EL)
#define STATUS_DEVICE_NOT_READY ((NTSTATUS)0xC00000A3L)
#define STATUS_DEVICE_BUSY ((NTSTATUS)0x80000011L)
#define STATUS_DEVICE_REMOVED ((NTSTATUS)0xC00002B6L)
#define STATUS_DELETE_PENDING ((NTSTATUS)0xC0000056L)
#define STATUS_ALERTED ((NTSTATUS)0x00000101L)
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)

// IRQL
#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2

#define KernelMode 0
#define UserMode 1

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool = 1,
    NonPagedPoolNx = 512
} POOL_TYPE;

struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _IRP;
struct _KDPC;

typedef struct _KTHREAD* PKTHREAD;

typedef struct _IO_STATUS_BLOCK {
    NTSTATUS Status;
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef NTSTATUS NTAPI DRIVER_DISPATCH(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;
typedef NTSTATUS NTAPI DRIVER_ADD_DEVICE(struct _DRIVER_OBJECT* DriverObject,
                                         struct _DEVICE_OBJECT* PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE* PDRIVER_ADD_DEVICE;
typedef NTSTATUS NTAPI DRIVER_INITIALIZE(struct _DRIVER_OBJECT* DriverObject,
                                         PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef NTSTATUS NTAPI IO_COMPLETION_ROUTINE(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp,
                                             PVOID Context);
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;
typedef void NTAPI KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext,
                                     PVOID SystemArgument1, PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;
typedef void NTAPI DRIVER_UNLOAD(struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_DEVICE_CONTROL 0x0E
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0F
#define IRP_MJ_POWER 0x16
#define IRP_MJ_PNP 0x1B
#define IRP_MJ_MAXIMUM_FUNCTION 0x1B
#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_QUERY_REMOVE_DEVICE 0x01
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_CANCEL_REMOVE_DEVICE 0x03
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_QUERY_STOP_DEVICE 0x05
#define IRP_MN_CANCEL_STOP_DEVICE 0x06
#define IRP_MN_SURPRISE_REMOVAL 0x17
#define IRP_MN_SET_POWER 0x02

typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified = 0,
    PowerSystemWorking = 1,
    PowerSystemSleeping3 = 4,
} SYSTEM_POWER_STATE;
typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0 = 1,
    PowerDeviceD1 = 2,
    PowerDeviceD2 = 3,
    PowerDeviceD3 = 4,
} DEVICE_POWER_STATE;
typedef enum _POWER_STATE_TYPE { SystemPowerState = 0, DevicePowerState = 1 } POWER_STATE_TYPE;
typedef union _POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
} POWER_STATE;

#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

// Driver, device and I/O records in the DDK's x64 layout: the image reads
// and writes some of their fields through the DDK's inline functions, and the
// port-class library hands them to it. Fields the driver never names are
// kept only as storage of the right size.
typedef struct _DRIVER_EXTENSION {
    struct _DRIVER_OBJECT* DriverObject;
    PDRIVER_ADD_DEVICE AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    struct _DEVICE_OBJECT* DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

// Kernel timer and DPC: the DDK's sizes, since the driver embeds them in its
// own objects; host/kernel keeps its state behind the last pointer field of
// each (DpcData, and TimerListEntry's first link), which only the kernel uses.
typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR TimerControlFlags;
    UCHAR ThreadControlFlags;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime; // absolute host time in 100 ns, valid while inserted
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    ULONG Processor;
    ULONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef struct _KDEVICE_QUEUE {
    CSHORT Type;
    CSHORT Size;
    LIST_ENTRY DeviceListHead;
    KSPIN_LOCK Lock;
    BOOLEAN Busy;
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount; // object-manager references (ObfReference/Dereference)
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    struct _IRP* CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVOID Vpb;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CCHAR StackSize;
    union {
        LIST_ENTRY ListEntry;
        UCHAR Wcb[72]; // WAIT_CONTEXT_BLOCK
    } Queue;
    ULONG AlignmentRequirement;
    KDEVICE_QUEUE DeviceQueue;
    KDPC Dpc;
    ULONG ActiveThreadCount;
    PVOID SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    PVOID DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT, *PDEVICE_OBJECT;

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            // POINTER_ALIGNMENT in the DDK: each on its own 8-byte boundary.
            alignas(8) ULONG OutputBufferLength;
            alignas(8) ULONG InputBufferLength;
            alignas(8) ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            ULONG SystemContext;
            alignas(8) POWER_STATE_TYPE Type;
            alignas(8) POWER_STATE State;
            alignas(8) ULONG ShutdownType;
        } Power;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PVOID FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PVOID MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        volatile LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PVOID UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PVOID CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            PVOID DriverContext[4];
            PVOID Thread;
            PCHAR AuxiliaryBuffer;
            struct {
                LIST_ENTRY ListEntry;
                union {
                    struct _IO_STACK_LOCATION* CurrentStackLocation;
                    ULONG PacketType;
                };
            };
            PVOID OriginalFileObject;
        } Overlay;
        UCHAR Apc[88]; // KAPC
        PVOID CompletionKey;
    } Tail;
    // StackCount IO_STACK_LOCATIONs follow the IRP in the same block.
} IRP, *PIRP;

// Run-down protection: the kernel's layout (one pointer-sized count).
typedef struct _EX_RUNDOWN_REF {
    union {
        volatile ULONG_PTR Count;
        volatile PVOID Ptr;
    };
} EX_RUNDOWN_REF, *PEX_RUNDOWN_REF;

extern "C" {

// Arguments are read the Windows way and formatted with the Windows rules
// (%ld is 32 bits, %ws a 16-bit string). No glibc format check here: its
// rules are not these; the Windows build checks the driver's formats.
ULONG NTAPI DbgPrint(PCSTR Format, ...);
void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message);

PKTHREAD NTAPI KeGetCurrentThread(void);
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval);

KIRQL NTAPI KeGetCurrentIrql(void);
void NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
void NTAPI KeLowerIrql(KIRQL NewIrql);

void NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
void NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
// What the DDK's KeAcquireSpinLock is on x64, and so what the image imports.
KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

void NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
void NTAPI KeInitializeTimer(PKTIMER Timer);
BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
void NTAPI KeFlushQueuedDpcs(void);
BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);

void NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef);
void NTAPI ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef);
BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef);
void NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef);
void NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef);

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

LONG_PTR NTAPI ObfReferenceObject(PVOID Object);
LONG_PTR NTAPI ObfDereferenceObject(PVOID Object);

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
void NTAPI IoFreeIrp(PIRP Irp);
NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void NTAPI IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);

LONG NTAPI InterlockedIncrement(LONG volatile* Addend);
LONG NTAPI InterlockedDecrement(LONG volatile* Addend);
LONG NTAPI InterlockedExchange(LONG volatile* Target, LONG Value);
LONG NTAPI InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand);
PVOID NTAPI InterlockedExchangePointer(PVOID volatile* Target, PVOID Value);
PVOID NTAPI InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange,
                                              PVOID Comparand);

// Windows 8 and later (RtlIsNtDdiVersionAvailable).
BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version);

} // extern "C"

#define NTDDI_WIN8 0x06020000
#include "../pool_nx_optin.h"

// With pool tagging (as the Windows build is compiled), ExAllocatePool is a
// tagged allocation with the kernel's default tag.
#define ExAllocatePool(type, size) ExAllocatePoolWithTag((type), (size), 0x656E6F4E /* 'None' */)
#define IoCallDriver(a, b) IofCallDriver(a, b)
#define IoCompleteRequest(a, b) IofCompleteRequest(a, b)

inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}

inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation;
}

inline void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine,
                                   PVOID Context, BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError,
                                   BOOLEAN InvokeOnCancel) {
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(Irp);
    stack->CompletionRoutine = CompletionRoutine;
    stack->Context = Context;
    stack->Control = 0;
    if (InvokeOnSuccess)
        stack->Control |= SL_INVOKE_ON_SUCCESS;
    if (InvokeOnError)
        stack->Control |= SL_INVOKE_ON_ERROR;
    if (InvokeOnCancel)
        stack->Control |= SL_INVOKE_ON_CANCEL;
}

#define RtlCopyMemory(d, s, n) memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) memmove((d), (s), (n))
#define RtlZeroMemory(d, n) memset((d), 0, (n))
#define RtlFillMemory(d, n, v) memset((d), (v), (n))

#define UNREFERENCED_PARAMETER(P) ((void)(P))
