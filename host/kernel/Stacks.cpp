// Kernel stacks for driver code. An x64 Windows thread has 24 KB of kernel
// stack (KERNEL_STACK_SIZE 0x6000, "How do I keep my driver from running out
// of kernel-mode stack?": "On x64-based platforms, the kernel-mode stack is
// 24K") with a guard page below it; a host thread has 8 MB. So every host
// thread that runs driver code gets a 24 KB stack of its own, and the
// driver's part of the thread's work runs there:
//   - host code -> driver code: the switch happens at the driver function's
//     entry. The linked driver is compiled with an entry hook
//     (__mme_driver_enter, GCC's -mfentry under another name); a loaded
//     image's entries go through thunks the loader makes
//     (hostk_image_enter).
//   - driver code -> host code: host/kernel, host/portcls and host/image are
//     compiled with a hook of their own (__mme_host_enter) that moves a host
//     function called from a driver stack back onto the thread's own stack,
//     below the frame that entered the driver. So the driver stack holds the
//     driver's frames only (kernel services on Windows use some of it too:
//     the figure is the driver's share).
// A switch copies the stack arguments, leaves a return trampoline as the
// function's return address and notes, in the slot's header, where the other
// side continues; the trampoline puts everything back. Nesting (driver ->
// host -> driver ...) continues below the frames still live on each side.
//
// Each stack sits in a 64 KB slot of one reserved region, so "is this a
// driver stack" is a range check and the slot of a stack address a mask:
//   0x0000 hard guard (never accessible)
//   0x1000 overflow reserve, 28 KB, no access until an overflow opens it
//   0x8000 guard page
//   0x9000 the 24 KB stack, painted, top at 0xF000
//   0xF000 header page
// Touching the guard page is a verifier report (Windows: a double fault,
// UNEXPECTED_KERNEL_MODE_TRAP 0x7F); the reserve is then opened so the
// driver can unwind and the test fails instead of the process dying. The
// reserve closes again when the thread next enters the driver with no
// driver frames left.
#include "HostKernelInternal.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The switching itself, and what it calls, must not pass through the hooks.
#define HOSTK_NOTRACE __attribute__((no_instrument_function))

extern "C" {
// Read by the hooks below: a stack address a is a driver stack's when
// a - hostk_stack_base < hostk_stack_span.
__attribute__((visibility("hidden"))) uintptr_t hostk_stack_base = 0;
__attribute__((visibility("hidden"))) uintptr_t hostk_stack_span = 0;
__attribute__((visibility("hidden"))) void hostk_ret_to_host();
__attribute__((visibility("hidden"))) void hostk_ret_to_driver();
}

namespace {

constexpr uintptr_t kSlotSize = 0x10000;
constexpr uintptr_t kReserveStart = 0x1000;
constexpr uintptr_t kGuardStart = 0x8000;
constexpr uintptr_t kStackStart = 0x9000;
constexpr uintptr_t kStackTop = 0xF000;
constexpr uintptr_t kHeaderStart = 0xF000;
constexpr size_t kMaxSlots = 2048;
static_assert(kStackTop - kStackStart == hostk::kDriverStackSize &&
                  kGuardStart + 0x1000 == kStackStart,
              "24 KB of stack above one guard page");
// Bytes of stack arguments a switch copies: into the driver (its entry
// points take at most a dozen arguments) and into the host (DbgPrint's
// variable arguments).
constexpr size_t kArgsIntoDriver = 128;
constexpr size_t kArgsIntoHost = 256;
constexpr uint64_t kPaint = 0x6B5354534B4D4D6BULL; // "kMMKSTSk"
constexpr size_t kSignalStackSize = 64 * 1024;

// At kHeaderStart of every slot; the trampolines below use its offsets.
struct Header {
    uintptr_t hostResume;   // host rsp at the entry into the driver: host calls go below it
    uintptr_t driverResume; // driver rsp at the call out to the host: entries go below it
    uintptr_t driverCaller; // return address into driver code of the current host call
    uint64_t depth;         // entries into the driver not yet returned
    uint64_t overflowed;    // the reserve is open
};
static_assert(offsetof(Header, hostResume) == 0 && offsetof(Header, driverResume) == 8 &&
                  offsetof(Header, driverCaller) == 16 && offsetof(Header, depth) == 24,
              "the trampolines' offsets");

// What the slow path of an entry saves on the old stack (see the assembly).
struct SwitchFrame {
    uint64_t xmm[16][2];
    uint64_t rax, rcx, rdx, rsi, rdi, r8, r9;
    uintptr_t target;   // where the function continues
    uintptr_t entryRsp; // its rsp at entry: the return address is there
    uint64_t padding;
};
static_assert(sizeof(SwitchFrame) == 336, "the assembly's frame");

// One thread's share, trivially destructible so that it can be read after
// the thread's destructors ran (Reaper below gives the slot back).
struct ThreadStack {
    uintptr_t slot;
    void* signalStack;
    bool exiting;
    bool refused; // no slot could be had: driver code runs on the thread's stack
};
thread_local ThreadStack tStack;

struct Reaper {
    bool armed = false;
    ~Reaper();
};
thread_local Reaper tReaper;

// The slot pool, constant-initialised (driver code may run during static
// initialisation).
std::atomic_flag gPoolLock = ATOMIC_FLAG_INIT;
uintptr_t gRegion = 0;
size_t gUsedSlots = 0;
uint32_t gFree[kMaxSlots];
size_t gFreeCount = 0;
std::atomic<size_t> gDeepest{0};
std::atomic<bool> gReportRegistered{false};

struct PoolLock {
    PoolLock() {
        while (gPoolLock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~PoolLock() { gPoolLock.clear(std::memory_order_release); }
};

Header* headerOf(uintptr_t slot) {
    return reinterpret_cast<Header*>(slot + kHeaderStart);
}

HOSTK_NOTRACE void paint(uintptr_t from, uintptr_t to) {
    for (auto* p = reinterpret_cast<uint64_t*>(from); p < reinterpret_cast<uint64_t*>(to); ++p)
        *p = kPaint;
}

// Deepest use of a slot's stack, found from the paint: the first word from
// the bottom that is not paint any more.
HOSTK_NOTRACE size_t usedBytes(uintptr_t slot) {
    const uintptr_t from = headerOf(slot)->overflowed ? slot + kReserveStart : slot + kStackStart;
    auto* p = reinterpret_cast<const volatile uint64_t*>(from);
    auto* end = reinterpret_cast<const volatile uint64_t*>(slot + kStackTop);
    while (p < end && *p == kPaint)
        ++p;
    return slot + kStackTop - reinterpret_cast<uintptr_t>(p);
}

HOSTK_NOTRACE void noteDeepest(size_t bytes) {
    size_t seen = gDeepest.load(std::memory_order_relaxed);
    while (bytes > seen && !gDeepest.compare_exchange_weak(seen, bytes)) {
    }
}

void writeStackReport() {
    const char* path = std::getenv("MME_STACK_REPORT");
    const size_t deepest = hostk::deepestDriverStack();
    if (!path || !*path || deepest == 0)
        return;
    if (FILE* f = std::fopen(path, "a")) {
        char name[256] = "?";
        ssize_t n = readlink("/proc/self/exe", name, sizeof name - 1);
        name[n > 0 ? n : 1] = 0;
        std::fprintf(f, "driver-stack %zu %s\n", deepest, name);
        std::fclose(f);
    }
}

// The region, reserved once: no access until a slot is handed out.
HOSTK_NOTRACE bool reserveRegionLocked() {
    if (gRegion)
        return true;
    const size_t span = kMaxSlots * kSlotSize;
    void* p = mmap(nullptr, span + kSlotSize, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED)
        return false;
    gRegion = (reinterpret_cast<uintptr_t>(p) + kSlotSize - 1) & ~(kSlotSize - 1);
    __atomic_store_n(&hostk_stack_base, gRegion, __ATOMIC_RELEASE);
    __atomic_store_n(&hostk_stack_span, span, __ATOMIC_RELEASE);
    return true;
}

HOSTK_NOTRACE uintptr_t takeSlot() {
    uintptr_t slot = 0;
    uint64_t index = 0;
    {
        PoolLock lock;
        if (!reserveRegionLocked())
            return 0;
        if (gFreeCount)
            index = gFree[--gFreeCount];
        else if (gUsedSlots < kMaxSlots)
            index = gUsedSlots++;
        else
            return 0;
        slot = gRegion + index * kSlotSize;
    }
    if (mprotect(reinterpret_cast<void*>(slot + kStackStart), kHeaderStart + 0x1000 - kStackStart,
                 PROT_READ | PROT_WRITE) != 0)
        return 0;
    Header* h = headerOf(slot);
    std::memset(h, 0, sizeof *h);
    paint(slot + kStackStart, slot + kStackTop);
    return slot;
}

HOSTK_NOTRACE void giveBack(uintptr_t slot) {
    noteDeepest(usedBytes(slot));
    Header* h = headerOf(slot);
    if (h->overflowed)
        mprotect(reinterpret_cast<void*>(slot + kReserveStart), kStackStart - kReserveStart,
                 PROT_NONE);
    PoolLock lock;
    gFree[gFreeCount++] = uint32_t((slot - gRegion) / kSlotSize);
}

// The guard page and the reserve closed again after an overflow.
HOSTK_NOTRACE void rearm(uintptr_t slot) {
    noteDeepest(usedBytes(slot));
    mprotect(reinterpret_cast<void*>(slot + kReserveStart), kStackStart - kReserveStart, PROT_NONE);
    headerOf(slot)->overflowed = 0;
    paint(slot + kStackStart, slot + kStackTop);
}

// The thread's slot and, when it has none, a signal stack: a fault on the
// driver stack (the guard page, the image's CR8 traps) must not be handled
// on it.
HOSTK_NOTRACE uintptr_t ownSlot() {
    ThreadStack& t = tStack;
    if (t.slot || t.exiting || t.refused)
        return t.slot;
    t.slot = takeSlot();
    if (!t.slot) {
        t.refused = true;
        hostk::detail::verifierFailure("no driver stack for this thread (more than " +
                                       std::to_string(kMaxSlots) +
                                       " threads ran driver code at once)");
        return 0;
    }
    tReaper.armed = true;
    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE)) {
        void* p = mmap(nullptr, kSignalStackSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) {
            stack_t alt{};
            alt.ss_sp = p;
            alt.ss_size = kSignalStackSize;
            if (sigaltstack(&alt, nullptr) == 0)
                t.signalStack = p;
            else
                munmap(p, kSignalStackSize);
        }
    }
    hostk::detail::installFaultHandler();
    if (!gReportRegistered.exchange(true))
        std::atexit(writeStackReport);
    return t.slot;
}

Reaper::~Reaper() {
    ThreadStack& t = tStack;
    t.exiting = true;
    if (t.slot && headerOf(t.slot)->depth == 0)
        giveBack(t.slot);
    t.slot = 0;
    if (t.signalStack) {
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(t.signalStack, kSignalStackSize);
        t.signalStack = nullptr;
    }
}

} // namespace

extern "C" {

// Host -> driver: lays out the driver function's first frame below the
// frames the thread has on its driver stack. Returns the rsp the function
// starts with (its entry rsp when it stays where it is).
__attribute__((visibility("hidden"))) HOSTK_NOTRACE uintptr_t
hostk_switch_into_driver(SwitchFrame* f) {
    const uintptr_t slot = ownSlot();
    if (!slot)
        return f->entryRsp;
    Header* h = headerOf(slot);
    uintptr_t top;
    if (h->depth == 0) {
        if (h->overflowed)
            rearm(slot);
        top = slot + kStackTop;
    } else {
        top = h->driverResume & ~uintptr_t(15);
    }
    auto* words = reinterpret_cast<uintptr_t*>(top);
    words[-1] = h->hostResume;
    words[-2] = f->entryRsp;
    std::memcpy(reinterpret_cast<char*>(top) - 16 - kArgsIntoDriver,
                reinterpret_cast<const char*>(f->entryRsp) + 8, kArgsIntoDriver);
    const uintptr_t rsp = top - 24 - kArgsIntoDriver;
    *reinterpret_cast<uintptr_t*>(rsp) = reinterpret_cast<uintptr_t>(&hostk_ret_to_host);
    h->hostResume = f->entryRsp;
    ++h->depth;
    return rsp;
}

} // extern "C"

// The hooks and trampolines. Only r10 and r11 (volatile in both calling
// conventions, never arguments) are used on the fast paths; everything else
// an argument or the Windows convention's callee-saved registers live in is
// kept. Return trampolines keep rax, rdx, xmm0 and xmm1 and use rcx, which
// no convention returns a value in.
asm(R"(
    .set SLOT_MASK, -0x10000
    .set HDR, 0xF000
    .set K_IN, 128
    .set K_OUT, 256
    .text

# Entry of a linked driver function (called before its prologue): [rsp] is
# where the function continues, rsp+8 its entry rsp.
    .globl __mme_driver_enter
    .hidden __mme_driver_enter
    .type __mme_driver_enter,@function
    .p2align 4
__mme_driver_enter:
    .cfi_startproc
    movq %rsp, %r11
    subq hostk_stack_base(%rip), %r11
    cmpq hostk_stack_span(%rip), %r11
    jae 1f
    ret
1:  movq (%rsp), %r11
    leaq 8(%rsp), %r10
    jmp hostk_into_driver_slow
    .cfi_endproc
    .size __mme_driver_enter, .-__mme_driver_enter

# Target of a loaded image's entry thunks: r11 is the function.
    .globl hostk_image_enter
    .hidden hostk_image_enter
    .type hostk_image_enter,@function
    .p2align 4
hostk_image_enter:
    .cfi_startproc
    movq %rsp, %r10
    subq hostk_stack_base(%rip), %r10
    cmpq hostk_stack_span(%rip), %r10
    jae 1f
    jmp *%r11
1:  movq %rsp, %r10
    jmp hostk_into_driver_slow
    .cfi_endproc
    .size hostk_image_enter, .-hostk_image_enter

# r10 = entry rsp, r11 = where the function continues; below r10 - 8 the
# host stack is free.
    .type hostk_into_driver_slow,@function
    .p2align 4
hostk_into_driver_slow:
    .cfi_startproc
    .cfi_undefined 16
    leaq -16(%r10), %rsp
    subq $336, %rsp
    andq $-16, %rsp
    movaps %xmm0, 0(%rsp)
    movaps %xmm1, 16(%rsp)
    movaps %xmm2, 32(%rsp)
    movaps %xmm3, 48(%rsp)
    movaps %xmm4, 64(%rsp)
    movaps %xmm5, 80(%rsp)
    movaps %xmm6, 96(%rsp)
    movaps %xmm7, 112(%rsp)
    movaps %xmm8, 128(%rsp)
    movaps %xmm9, 144(%rsp)
    movaps %xmm10, 160(%rsp)
    movaps %xmm11, 176(%rsp)
    movaps %xmm12, 192(%rsp)
    movaps %xmm13, 208(%rsp)
    movaps %xmm14, 224(%rsp)
    movaps %xmm15, 240(%rsp)
    movq %rax, 256(%rsp)
    movq %rcx, 264(%rsp)
    movq %rdx, 272(%rsp)
    movq %rsi, 280(%rsp)
    movq %rdi, 288(%rsp)
    movq %r8, 296(%rsp)
    movq %r9, 304(%rsp)
    movq %r11, 312(%rsp)
    movq %r10, 320(%rsp)
    movq %rsp, %rdi
    call hostk_switch_into_driver
    movq %rax, %r11
    movaps 0(%rsp), %xmm0
    movaps 16(%rsp), %xmm1
    movaps 32(%rsp), %xmm2
    movaps 48(%rsp), %xmm3
    movaps 64(%rsp), %xmm4
    movaps 80(%rsp), %xmm5
    movaps 96(%rsp), %xmm6
    movaps 112(%rsp), %xmm7
    movaps 128(%rsp), %xmm8
    movaps 144(%rsp), %xmm9
    movaps 160(%rsp), %xmm10
    movaps 176(%rsp), %xmm11
    movaps 192(%rsp), %xmm12
    movaps 208(%rsp), %xmm13
    movaps 224(%rsp), %xmm14
    movaps 240(%rsp), %xmm15
    movq 256(%rsp), %rax
    movq 264(%rsp), %rcx
    movq 272(%rsp), %rdx
    movq 280(%rsp), %rsi
    movq 288(%rsp), %rdi
    movq 296(%rsp), %r8
    movq 304(%rsp), %r9
    movq 312(%rsp), %r10
    movq %r11, %rsp
    jmp *%r10
    .cfi_endproc
    .size hostk_into_driver_slow, .-hostk_into_driver_slow

# A driver function returned: rsp points at the copied arguments, above
# them the entry rsp and the host's previous resume point. The unwinder
# finds the host caller's frame through the entry rsp.
    .globl hostk_ret_to_host
    .hidden hostk_ret_to_host
    .type hostk_ret_to_host,@function
    .p2align 4
    .cfi_startproc
    .cfi_escape 0x0f, 0x06, 0x77, 0x80, 0x01, 0x06, 0x23, 0x08
    .cfi_offset 16, -8
    nop
hostk_ret_to_host:
    movq %rsp, %r11
    andq $SLOT_MASK, %r11
    movq K_IN+8(%rsp), %r10
    movq %r10, HDR+0(%r11)
    decq HDR+24(%r11)
    movq K_IN(%rsp), %rsp
    ret
    .cfi_endproc
    .size hostk_ret_to_host, .-hostk_ret_to_host

# Entry of a host function: on a driver stack it moves to the thread's own
# stack, below the host frame that entered the driver.
    .globl __mme_host_enter
    .hidden __mme_host_enter
    .type __mme_host_enter,@function
    .p2align 4
__mme_host_enter:
    .cfi_startproc
    movq %rsp, %r11
    subq hostk_stack_base(%rip), %r11
    cmpq hostk_stack_span(%rip), %r11
    jb 1f
    ret
1:  movq %rax, -8(%rsp)
    movq %rcx, -16(%rsp)
    leaq 8(%rsp), %r10
    movq %r10, %rax
    andq $SLOT_MASK, %rax
    movq HDR+0(%rax), %rcx
    andq $-16, %rcx
    movq HDR+8(%rax), %r11
    movq %r11, -16(%rcx)
    movq HDR+16(%rax), %r11
    movq %r11, -24(%rcx)
    movq %r10, -32(%rcx)
    movq %r10, HDR+8(%rax)
    movq (%r10), %r11
    movq %r11, HDR+16(%rax)
    .set i, 0
    .rept K_OUT / 8
    movq 8+i(%r10), %r11
    movq %r11, -32-K_OUT+i(%rcx)
    .set i, i + 8
    .endr
    leaq hostk_ret_to_driver(%rip), %r11
    movq %r11, -40-K_OUT(%rcx)
    movq (%rsp), %r11
    leaq -40-K_OUT(%rcx), %r10
    movq -16(%rsp), %rcx
    movq -8(%rsp), %rax
    movq %r10, %rsp
    jmp *%r11
    .cfi_endproc
    .size __mme_host_enter, .-__mme_host_enter

# A host function called from driver code returned. Marked as a signal
# frame, so that debuggers accept its caller's frame lying below it (on the
# driver stack); driver code has no exception tables to be misread by it.
    .globl hostk_ret_to_driver
    .hidden hostk_ret_to_driver
    .type hostk_ret_to_driver,@function
    .p2align 4
    .cfi_startproc
    .cfi_escape 0x0f, 0x06, 0x77, 0x80, 0x02, 0x06, 0x23, 0x08
    .cfi_offset 16, -8
    .cfi_signal_frame
    nop
hostk_ret_to_driver:
    movq K_OUT(%rsp), %r10
    movq %r10, %r11
    andq $SLOT_MASK, %r11
    movq K_OUT+8(%rsp), %rcx
    movq %rcx, HDR+16(%r11)
    movq K_OUT+16(%rsp), %rcx
    movq %rcx, HDR+8(%r11)
    movq %r10, %rsp
    ret
    .cfi_endproc
    .size hostk_ret_to_driver, .-hostk_ret_to_driver
)");
static_assert(kArgsIntoDriver == 128 && kArgsIntoHost == 256 && kHeaderStart == 0xF000 &&
                  kSlotSize == 0x10000,
              "the assembly's constants");

namespace hostk {

size_t deepestDriverStack() {
    size_t deepest = gDeepest.load();
    size_t used;
    {
        PoolLock lock;
        used = gUsedSlots;
    }
    for (size_t i = 0; i < used; ++i) {
        const uintptr_t slot = gRegion + i * kSlotSize;
        // Slots handed out at least once have a readable stack; a free one
        // still shows what its last thread used.
        noteDeepest(usedBytes(slot));
    }
    return std::max(deepest, gDeepest.load());
}

void forgetDriverStackUse() {
    // Other threads' stacks may be in use at any moment: only the caller's
    // is painted again.
    const uintptr_t slot = tStack.slot;
    if (slot && headerOf(slot)->depth == 0) {
        if (headerOf(slot)->overflowed)
            rearm(slot);
        paint(slot + kStackStart, slot + kStackTop);
    }
    gDeepest.store(0);
}

bool onDriverStack(const void* p) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    return a - __atomic_load_n(&hostk_stack_base, __ATOMIC_ACQUIRE) <
           __atomic_load_n(&hostk_stack_span, __ATOMIC_ACQUIRE);
}

bool driverStacksLinked() {
#ifdef MME_DRIVER_STACKS
    return true;
#else
    return false;
#endif
}

namespace detail {

bool calledFromDriver(const void* returnAddress, uintptr_t* caller) {
    if (returnAddress != reinterpret_cast<const void*>(&hostk_ret_to_driver))
        return false;
    if (caller)
        *caller = currentDriverCaller();
    return true;
}

uintptr_t currentDriverCaller() {
    const uintptr_t slot = tStack.slot;
    return slot ? headerOf(slot)->driverCaller : 0;
}

// A fault in a slot: the guard page or the reserve means the driver used
// more than its 24 KB.
bool stackFault(const siginfo_t* info, const ucontext_t* context) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(info->si_addr);
    if (!onDriverStack(info->si_addr))
        return false;
    const uintptr_t slot = a & ~(kSlotSize - 1);
    const uintptr_t offset = a - slot;
    if (offset >= kStackStart)
        return false;
    const uintptr_t pc = uintptr_t(context->uc_mcontext.gregs[REG_RIP]);
    char where[512], text[768];
    describeCodeInto(pc, where, sizeof where);
    if (offset < kReserveStart) {
        std::snprintf(text, sizeof text,
                      "*** host kernel verifier: driver stack overflow past its reserve at %s\n",
                      where);
        const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
        (void)written;
        return false;
    }
    std::snprintf(text, sizeof text,
                  "driver stack overflow: more than %zu bytes of kernel stack in use at %s "
                  "(UNEXPECTED_KERNEL_MODE_TRAP 0x7F on Windows)",
                  kDriverStackSize, where);
    deferVerifierFailure(text);
    Header* h = headerOf(slot);
    if (!h->overflowed) {
        mprotect(reinterpret_cast<void*>(slot + kReserveStart), kStackStart - kReserveStart,
                 PROT_READ | PROT_WRITE);
        paint(slot + kReserveStart, slot + kStackStart);
        h->overflowed = 1;
    }
    return true;
}

} // namespace detail
} // namespace hostk
