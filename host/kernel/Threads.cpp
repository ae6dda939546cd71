// Per-thread kernel state on Linux: the thread object KeGetCurrentThread
// returns, the thread's IRQL, spin locks, the no-allocation regions,
// interlocked operations and the verifier's record of violations.
#include "HostKernelInternal.h"

#include <sched.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>

// The host's kernel-thread object: one per OS thread, at a stable address
// for the thread's life. Plain data, so no thread_local constructor runs.
struct _KTHREAD {
    KIRQL irql;
    const char* noAllocScope;
    ULONG64 reserved[6];
};

namespace {

thread_local _KTHREAD tThread;

struct VerifierState {
    std::mutex mutex;
    std::vector<std::string> failures;
    bool quiet = false;
};

VerifierState& verifier() {
    static VerifierState* s = new VerifierState;
    return *s;
}

std::string irqlText(KIRQL irql) {
    switch (irql) {
    case PASSIVE_LEVEL:
        return "PASSIVE_LEVEL";
    case APC_LEVEL:
        return "APC_LEVEL";
    case DISPATCH_LEVEL:
        return "DISPATCH_LEVEL";
    default:
        return "IRQL " + std::to_string(irql);
    }
}

} // namespace

namespace hostk {

namespace {
std::atomic<void (*)()> gAttachHook{nullptr};
std::atomic<bool (*)()> gOwnsHook{nullptr};
} // namespace

void enterDriverThread() {
    if (auto attach = gAttachHook.load(std::memory_order_acquire))
        attach();
}

void setDriverThreadHooks(void (*attach)(), bool (*owns)()) {
    gOwnsHook.store(owns, std::memory_order_release);
    gAttachHook.store(attach, std::memory_order_release);
}

std::vector<std::string> verifierFailures() {
    detail::flushDeferredFailures();
    auto& v = verifier();
    std::lock_guard<std::mutex> lock(v.mutex);
    return v.failures;
}

void clearVerifierFailures() {
    detail::flushDeferredFailures();
    auto& v = verifier();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.failures.clear();
}

void reportVerifierFailure(const std::string& text) {
    detail::verifierFailure(text);
}

namespace {
std::mutex gRundownObserverMutex;
std::function<void(PEX_RUNDOWN_REF)> gRundownObserver;
} // namespace

void setRundownWaitObserver(std::function<void(PEX_RUNDOWN_REF)> observer) {
    std::lock_guard<std::mutex> lock(gRundownObserverMutex);
    gRundownObserver = std::move(observer);
}

NoAllocNoWaitScope::NoAllocNoWaitScope(const char* what) : mPrevious(tThread.noAllocScope) {
    tThread.noAllocScope = what ? what : "no-allocation region";
}

NoAllocNoWaitScope::~NoAllocNoWaitScope() {
    tThread.noAllocScope = mPrevious;
}

void runAtDispatch(const std::function<void()>& fn) {
    KIRQL previous = tThread.irql;
    if (previous < DISPATCH_LEVEL)
        tThread.irql = DISPATCH_LEVEL;
    fn();
    if (previous < DISPATCH_LEVEL)
        detail::lowerFromDispatch();
    tThread.irql = previous;
}

namespace detail {

// What the processor does when its IRQL drops below DISPATCH_LEVEL: the
// DPCs queued on it run first, still at DISPATCH_LEVEL.
void lowerFromDispatch() {
    if (tThread.irql >= DISPATCH_LEVEL && localDpcsPending())
        runLocalDpcs();
}

KIRQL currentIrql() {
    return tThread.irql;
}
void setCurrentIrql(KIRQL irql) {
    tThread.irql = irql;
}
const char* noAllocScope() {
    return tThread.noAllocScope;
}

void verifierFailure(const std::string& text) {
    flushDeferredFailures(); // they came first
    recordVerifierFailure(text);
}

void recordVerifierFailure(const std::string& text) {
    auto& v = verifier();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.failures.push_back(text);
    if (!v.quiet)
        std::fprintf(stderr, "*** host kernel verifier: %s\n", text.c_str());
}

void setVerifierQuiet(bool quiet) {
    auto& v = verifier();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.quiet = quiet;
}

void checkDriverThread() {
    auto owns = gOwnsHook.load(std::memory_order_acquire);
    if (!owns || owns())
        return;
    verifierFailure("driver code ran on a thread that inherited its creator's processor state "
                    "(GS): the thread did not call hostk::enterDriverThread()");
    enterDriverThread();
}

void requirePassive(const char* service) {
    if (tThread.irql > APC_LEVEL)
        verifierFailure(std::string(service) + " called at " + irqlText(tThread.irql) +
                        "; it may only be called below DISPATCH_LEVEL");
}

} // namespace detail
} // namespace hostk

using hostk::detail::verifierFailure;

namespace {

// The lock word holds the owning thread's object, 0 when free. Acquire and
// release orderings give ThreadSanitizer the happens-before edges.
void acquireLock(PKSPIN_LOCK lock, const char* service) {
    ULONG_PTR self = (ULONG_PTR)&tThread;
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == self) {
        verifierFailure(std::string(service) +
                        ": spin lock already held by this thread (would deadlock)");
        return;
    }
    for (unsigned spins = 0;; ++spins) {
        ULONG_PTR expected = 0;
        if (__atomic_compare_exchange_n(lock, &expected, self, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return;
        if (spins > 64)
            sched_yield();
    }
}

void releaseLock(PKSPIN_LOCK lock, const char* service) {
    ULONG_PTR self = (ULONG_PTR)&tThread;
    ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
    if (owner != self) {
        verifierFailure(std::string(service) + (owner == 0 ? ": spin lock is not held"
                                                           : ": spin lock held by another thread"));
        if (owner != 0)
            return;
    }
    __atomic_store_n(lock, (ULONG_PTR)0, __ATOMIC_RELEASE);
}

} // namespace

extern "C" {

HOSTK_LEAF PKTHREAD NTAPI KeGetCurrentThread(void) {
    return &tThread;
}

HOSTK_LEAF KIRQL NTAPI KeGetCurrentIrql(void) {
    return tThread.irql;
}

void NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
    KIRQL old = tThread.irql;
    if (NewIrql < old)
        verifierFailure("KeRaiseIrql to " + irqlText(NewIrql) + " from higher " + irqlText(old));
    else
        tThread.irql = NewIrql;
    if (OldIrql)
        *OldIrql = old;
}

void NTAPI KeLowerIrql(KIRQL NewIrql) {
    if (NewIrql > tThread.irql) {
        verifierFailure("KeLowerIrql to " + irqlText(NewIrql) + " from lower " +
                        irqlText(tThread.irql));
        return;
    }
    if (NewIrql < DISPATCH_LEVEL)
        hostk::detail::lowerFromDispatch();
    tThread.irql = NewIrql;
}

HOSTK_LEAF void NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    __atomic_store_n(SpinLock, (ULONG_PTR)0, __ATOMIC_RELAXED);
}

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    KIRQL old = tThread.irql;
    if (old > DISPATCH_LEVEL)
        verifierFailure("KeAcquireSpinLock above DISPATCH_LEVEL");
    tThread.irql = DISPATCH_LEVEL;
    acquireLock(SpinLock, "KeAcquireSpinLock");
    return old;
}

// On x64 the DDK's KeAcquireSpinLock is KeAcquireSpinLockRaiseToDpc.
void NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) {
    *OldIrql = KeAcquireSpinLockRaiseToDpc(SpinLock);
}

void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    releaseLock(SpinLock, "KeReleaseSpinLock");
    if (NewIrql > tThread.irql) {
        verifierFailure("KeReleaseSpinLock to " + irqlText(NewIrql) + " from lower " +
                        irqlText(tThread.irql));
        return;
    }
    if (NewIrql < DISPATCH_LEVEL)
        hostk::detail::lowerFromDispatch();
    tThread.irql = NewIrql;
}

void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    if (tThread.irql < DISPATCH_LEVEL)
        verifierFailure("KeAcquireSpinLockAtDpcLevel called at " + irqlText(tThread.irql));
    acquireLock(SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    if (tThread.irql < DISPATCH_LEVEL)
        verifierFailure("KeReleaseSpinLockFromDpcLevel called at " + irqlText(tThread.irql));
    releaseLock(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}

HOSTK_LEAF LONG NTAPI InterlockedIncrement(LONG volatile* Addend) {
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

HOSTK_LEAF LONG NTAPI InterlockedDecrement(LONG volatile* Addend) {
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

HOSTK_LEAF LONG NTAPI InterlockedExchange(LONG volatile* Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

HOSTK_LEAF LONG NTAPI InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange,
                                                 LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}

HOSTK_LEAF PVOID NTAPI InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

HOSTK_LEAF PVOID NTAPI InterlockedCompareExchangePointer(PVOID volatile* Destination,
                                                         PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}

// Run-down protection as the kernel keeps it: the count of holders in steps
// of 2, bit 0 set once a run-down has begun (no new holder gets in).
HOSTK_LEAF void NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
    __atomic_store_n(&RunRef->Count, (ULONG_PTR)0, __ATOMIC_RELEASE);
}

void NTAPI ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
    if (__atomic_load_n(&RunRef->Count, __ATOMIC_ACQUIRE) != 1)
        verifierFailure("ExReInitializeRundownProtection before the run-down completed");
    __atomic_store_n(&RunRef->Count, (ULONG_PTR)0, __ATOMIC_RELEASE);
}

HOSTK_LEAF BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef) {
    ULONG_PTR count = __atomic_load_n(&RunRef->Count, __ATOMIC_ACQUIRE);
    for (;;) {
        if (count & 1)
            return FALSE;
        if (__atomic_compare_exchange_n(&RunRef->Count, &count, count + 2, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE))
            return TRUE;
    }
}

void NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef) {
    ULONG_PTR before = __atomic_fetch_sub(&RunRef->Count, (ULONG_PTR)2, __ATOMIC_ACQ_REL);
    if (before < 2)
        verifierFailure("ExReleaseRundownProtection without a matching acquire");
}

// Passive level only: it blocks until the last holder has released.
void NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef) {
    hostk::detail::requirePassive("ExWaitForRundownProtectionRelease");
    ULONG_PTR before = __atomic_fetch_or(&RunRef->Count, (ULONG_PTR)1, __ATOMIC_ACQ_REL);
    if (before & 1)
        verifierFailure("ExWaitForRundownProtectionRelease twice on one run-down");
    if (before >= 2) {
        std::function<void(PEX_RUNDOWN_REF)> observer;
        {
            std::lock_guard<std::mutex> lock(hostk::gRundownObserverMutex);
            observer = hostk::gRundownObserver;
        }
        if (observer)
            observer(RunRef);
    }
    while (__atomic_load_n(&RunRef->Count, __ATOMIC_ACQUIRE) != 1)
        sched_yield();
}

// The host kernel is Windows 10 version 22H2 (NTDDI_WIN10_VB).
BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version) {
    return Version <= 0x0A000008 ? TRUE : FALSE;
}

} // extern "C"
