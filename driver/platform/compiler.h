// What differs between the compilers that build the driver (g++ and clang
// for host and mingw-w64, cl.exe and clang-cl with the WDK), behind names of
// our own: acquire/release loads and stores of shared fields, the processor
// feature query, and the marker for functions that use SSSE3. Driver code
// outside platform/ uses these and the SSE2/SSSE3 intrinsics headers, never
// a compiler's own extensions.
//
// On x64 every aligned load already has acquire and every aligned store
// release semantics; the compiler barrier is what keeps the compiler from
// moving other accesses across them.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#define MME_SSSE3_FUNCTION
#define MME_COMPILER_BARRIER() _ReadWriteBarrier()
#else
#include <cpuid.h>
// GCC and clang compile SSSE3 intrinsics only inside functions marked for
// it; the driver still runs on processors without, so nothing else is.
#define MME_SSSE3_FUNCTION __attribute__((target("ssse3")))
#define MME_COMPILER_BARRIER() __asm__ __volatile__("" ::: "memory")
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PCM and rings are little-endian");
#endif

#if defined(_MSC_VER) && !defined(__clang__)
template <typename T> inline T MMELoadAcquireOf(const volatile T* p) {
    T v = *p;
    MME_COMPILER_BARRIER();
    return v;
}
template <typename T> inline void MMEStoreReleaseOf(volatile T* p, T v) {
    MME_COMPILER_BARRIER();
    *p = v;
}
// One load (store) of a field another side may rewrite; no ordering.
template <typename T> inline T MMELoadOnce(const volatile T* p) {
    return *p;
}
template <typename T> inline void MMEStoreOnce(volatile T* p, T v) {
    *p = v;
}
#else
// The same through the compiler's atomics, which ThreadSanitizer sees.
template <typename T> inline T MMELoadAcquireOf(const volatile T* p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <typename T> inline void MMEStoreReleaseOf(volatile T* p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}
template <typename T> inline T MMELoadOnce(const volatile T* p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}
template <typename T> inline void MMEStoreOnce(volatile T* p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELAXED);
}
#endif

inline ULONG MMELoadAcquire(const volatile ULONG* p) {
    return MMELoadAcquireOf(p);
}
inline void MMEStoreRelease(volatile ULONG* p, ULONG v) {
    MMEStoreReleaseOf(p, v);
}
inline ULONGLONG MMELoadAcquire64(const volatile ULONGLONG* p) {
    return MMELoadAcquireOf(p);
}
template <typename T> inline T* MMELoadAcquirePointer(T* const volatile* p) {
    return MMELoadAcquireOf(p);
}
template <typename T> inline void MMEStoreReleasePointer(T* volatile* p, T* v) {
    MMEStoreReleaseOf(p, v);
}

// True when the processor executes SSSE3 (CPUID leaf 1, ECX bit 9).
inline bool MMECpuHasSsse3() {
#if defined(_MSC_VER) && !defined(__clang__)
    int regs[4];
    __cpuid(regs, 1);
    return (regs[2] >> 9) & 1;
#else
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d))
        return false;
    return (c >> 9) & 1;
#endif
}
