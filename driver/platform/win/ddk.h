// Windows branch of the platform: the DDK's own kernel, kernel-streaming and
// port-class headers, plus the one place where their gaps are closed.
// Contract: every name that host/kernel.h, host/ks.h and host/portcls.h
// declare for the driver exists here with the same meaning, type, value and
// layout (layout.h and tools/layout-dump check this). Nothing in the
// driver's logic may work around a header problem; it is done here, in the
// numbered steps below.
//
// The build here uses mingw-w64's headers with g++; the steps marked
// "mingw" close gaps of those headers only and are skipped with the WDK's
// (windows/README.md). Step 4 applies to every build.
#pragma once

// 1. Before any include.
#ifdef __MINGW32__
// mingw: wdm.h and the intrinsics header both define the interlocked
// bit-test intrinsics; tell the intrinsics header wdm.h has them.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
// mingw: __declspec(novtable) and __declspec(nothrow) mean nothing to g++
// and would only produce ignored-attribute warnings on every interface.
#define DECLSPEC_NOVTABLE
#define DECLSPEC_NOTHROW
// mingw: wdm.h sends RtlIsNtDdiVersionAvailable to the WDK's static
// down-level library (Wdmlib...), which mingw lacks; every kernel since
// Windows 8 exports it. Defined as itself, the name stays the export.
#define RtlIsNtDdiVersionAvailable RtlIsNtDdiVersionAvailable
#endif
// The one translation unit that defines INITGUID (platform/guids.cpp) gets
// every DEFINE_GUID of these headers as a definition; the kernel-streaming
// GUIDs that ksmedia.h only declares come from the ksguid library.
#ifdef INITGUID
#include <initguid.h>
#endif

// Without POOL_TAGGING, wdm.h turns every tagged pool allocation into the
// untagged ExAllocatePool.
#ifndef POOL_TAGGING
#error "the Windows build defines POOL_TAGGING"
#endif

#include <stddef.h>
#include <stdint.h>

extern "C" {
#include <wdm.h>
}

// 2. Kernel-streaming headers, in the order portcls.h includes them:
// windef.h, then mmreg.h without its bitmap declarations, ks.h, ksmedia.h.
#include <windef.h>
#define NOBITMAP
#include <mmreg.h>
#undef NOBITMAP
#ifdef __MINGW32__
// mingw: ksmedia.h uses TCHAR, a user-mode name.
typedef WCHAR TCHAR;
#endif
#include <ks.h>
#include <ksmedia.h>

#ifdef __MINGW32__
// mingw: portcls.h names these two ksmedia.h structures (in the WaveRT
// interfaces, which this driver does not use); ksmedia.h lacks them.
typedef struct {
    ULONG FifoSize;
    ULONG ChipsetDelay;
    ULONG CodecDelay;
} KSRTAUDIO_HWLATENCY, *PKSRTAUDIO_HWLATENCY;
typedef struct {
    PVOID Register;
    ULONG Width;
    ULONGLONG Numerator;
    ULONGLONG Denominator;
    ULONG Accuracy;
} KSRTAUDIO_HWREGISTER, *PKSRTAUDIO_HWREGISTER;

// mingw: also missing from ksmedia.h.
typedef struct {
    KSDATAFORMAT DataFormat;
    WAVEFORMATEXTENSIBLE WaveFormatExt;
} KSDATAFORMAT_WAVEFORMATEXTENSIBLE, *PKSDATAFORMAT_WAVEFORMATEXTENSIBLE;
#endif

// 3. IUnknown.
#ifdef __MINGW32__
// mingw: punknown.h defines IID_IUnknown with two bytes swapped (..., 0x00,
// 0x00, 0xC0, ... instead of 0xC0, 0x00, 0x00, ...), which would make every
// QueryInterface for IUnknown from the system fail. Its definition is parked
// under another name and the right one given below.
#define IID_IUnknown MMEDdkMisorderedIID_IUnknown
#include <punknown.h>
#undef IID_IUnknown
DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
            0x46);
#else
#include <punknown.h>
#endif

// 4. IDmaChannel and IDmaChannelSlave. Slot 11, PhysicalAddress, returns an
// 8-byte struct. The system's port-class library (MSVC) calls member
// functions that return a struct with a hidden result pointer after `this`;
// g++ would return it in RAX. The driver therefore sees, in both builds, the
// explicit form, which is that convention spelled out: the caller passes the
// place to fill and gets it back. Our
// declarations below come first; while portcls.h is read, DECLARE_INTERFACE_
// renames the DDK's two declarations to MMEDdk<name> (unused), so its
// typedefs and the signatures that name PDMACHANNEL / PDMACHANNELSLAVE
// (IMiniportWaveCyclic::NewStream, IPortWaveCyclic) refer to ours.
// tools/layout-dump compares the slots with the DDK's declarations and the
// host's.
struct IDmaChannel : IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE
    AllocateBuffer(ULONG BufferSize, PPHYSICAL_ADDRESS PhysicalAddressConstraint) = 0;
    virtual void STDMETHODCALLTYPE FreeBuffer() = 0;
    virtual ULONG STDMETHODCALLTYPE TransferCount() = 0;
    virtual ULONG STDMETHODCALLTYPE MaximumBufferSize() = 0;
    virtual ULONG STDMETHODCALLTYPE AllocatedBufferSize() = 0;
    virtual ULONG STDMETHODCALLTYPE BufferSize() = 0;
    virtual void STDMETHODCALLTYPE SetBufferSize(ULONG BufferSize) = 0;
    virtual PVOID STDMETHODCALLTYPE SystemAddress() = 0;
    virtual PPHYSICAL_ADDRESS STDMETHODCALLTYPE PhysicalAddress(PPHYSICAL_ADDRESS Address) = 0;
    virtual PADAPTER_OBJECT STDMETHODCALLTYPE GetAdapterObject() = 0;
    virtual void STDMETHODCALLTYPE CopyTo(PVOID Destination, PVOID Source, ULONG ByteCount) = 0;
    virtual void STDMETHODCALLTYPE CopyFrom(PVOID Destination, PVOID Source, ULONG ByteCount) = 0;
};
typedef IDmaChannel* PDMACHANNEL;

struct IDmaChannelSlave : IDmaChannel {
    virtual NTSTATUS STDMETHODCALLTYPE Start(ULONG MapSize, BOOLEAN WriteToDevice) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE Stop() = 0;
    virtual ULONG STDMETHODCALLTYPE ReadCounter() = 0;
    virtual NTSTATUS STDMETHODCALLTYPE WaitForTC(ULONG Timeout) = 0;
};
typedef IDmaChannelSlave* PDMACHANNELSLAVE;

// DECLARE_INTERFACE_(i, b) while portcls.h is read: MMEDdk<name> for the
// names listed as MME_DDK_REPLACED_<name>, the name itself for all others;
// for the base too, so the DDK's slave channel keeps the DDK's own base.
#define MME_DDK_REPLACED_IDmaChannel ~, MMEDdkIDmaChannel
#define MME_DDK_REPLACED_IDmaChannelSlave ~, MMEDdkIDmaChannelSlave
#define MME_DDK_SECOND(a, b, ...) b
#define MME_DDK_SECOND_OF(...) MME_DDK_SECOND(__VA_ARGS__)
#define MME_DDK_NAME_OF(probe, iface) MME_DDK_SECOND_OF(probe, iface, ~)
#define MME_DDK_INTERFACE_NAME(iface) MME_DDK_NAME_OF(MME_DDK_REPLACED_##iface, iface)
#undef DECLARE_INTERFACE_
#define DECLARE_INTERFACE_(iface, baseiface)                                                       \
    interface DECLSPEC_NOVTABLE MME_DDK_INTERFACE_NAME(iface)                                      \
        : public MME_DDK_INTERFACE_NAME(baseiface)

#include <portcls.h>

#undef DECLARE_INTERFACE_
#define DECLARE_INTERFACE_(iface, baseiface) interface DECLSPEC_NOVTABLE iface : public baseiface
#undef MME_DDK_REPLACED_IDmaChannel
#undef MME_DDK_REPLACED_IDmaChannelSlave
#undef MME_DDK_SECOND
#undef MME_DDK_SECOND_OF
#undef MME_DDK_NAME_OF
#undef MME_DDK_INTERFACE_NAME

// 5. Remaining names the host declares that these headers lack or spell
// differently.
#ifdef __MINGW32__
// mingw: portcls.h declares this identifier only for targets before Vista;
// the interface is still what the wave-cyclic port asks a slave channel for.
DEFINE_GUID(IID_IDmaChannelSlave, 0x22C6AC62, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38,
            0xAC, 0xFE);

// mingw: under POOL_TAGGING the WDK makes ExAllocatePool a tagged
// allocation with the kernel's default tag, 'None'; wdm.h leaves it the
// untagged, deprecated export.
#define ExAllocatePool(type, size) ExAllocatePoolWithTag((type), (size), 0x656E6F4E /* 'None' */)

// mingw: portcls.h spells it PPCCONNECTIONDESCRIPTOR.
typedef PCCONNECTION_DESCRIPTOR* PPCCONNECTION_DESCRIPTOR;

// mingw: the export itself (step 1).
extern "C" NTSYSAPI BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version);

// mingw: wdm.h lacks the single-binary opt-in to non-executable pool.
#include "../pool_nx_optin.h"
#endif

// A WCHAR string literal in both builds (the host's WCHAR is char16_t).
#define MME_WIDE(text) L##text
