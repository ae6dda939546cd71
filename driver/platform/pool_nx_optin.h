// The single-binary opt-in to non-executable pool as the WDK's wdm.h has it
// ("Single Binary Opt-In: POOL_NX_OPTIN"), for the platforms whose headers
// lack it (ours on host, mingw-w64's): a module compiled with
// POOL_NX_OPTIN=1 reads NonPagedPool from a variable of its own, executable
// until DriverEntry calls ExInitializeDriverRuntime(DrvRtPoolNxOptIn) on a
// kernel that has non-executable pool (Windows 8 and later). Included by a
// platform header after POOL_TYPE, NTDDI_WIN8 and RtlIsNtDdiVersionAvailable.
#pragma once

#define DrvRtPoolNxOptIn 0x00000001
#if defined(POOL_NX_OPTIN) && POOL_NX_OPTIN
inline POOL_TYPE ExDefaultNonPagedPoolType = NonPagedPoolExecute;
#define NonPagedPool ExDefaultNonPagedPoolType
#endif
inline void ExInitializeDriverRuntime(ULONG RuntimeFlags) {
#if defined(POOL_NX_OPTIN) && POOL_NX_OPTIN
    if ((RuntimeFlags & DrvRtPoolNxOptIn) != 0 && RtlIsNtDdiVersionAvailable(NTDDI_WIN8))
        ExDefaultNonPagedPoolType = NonPagedPoolNx;
#else
    (void)RuntimeFlags;
#endif
}
