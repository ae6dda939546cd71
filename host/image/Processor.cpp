// GS blocks, the CR8 trap and the registry of loaded images (see
// Processor.h). The fault handler runs on the faulting thread while it
// executes image code, never inside malloc or a host lock, so the verifier
// report it makes for a privileged instruction may allocate.
#include "Processor.h"

#include "ImageRegistry.h"
#include "host/kernel/HostKernelInternal.h"

#include <asm/prctl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace hostimg {
namespace {

// The part of the processor control region an x64 image may read through
// GS: Self at 0x18, the current thread at 0x188 (KPCR.Prcb.CurrentThread).
constexpr size_t kSelfOffset = 0x18;
constexpr size_t kCurrentThreadOffset = 0x188;
struct alignas(64) ProcessorBlock {
    unsigned char bytes[0x200];
};
thread_local ProcessorBlock tBlock;
// Set once the calling thread's GS base is its own block. A thread started
// by one that had a block inherits the GS base but starts with this clear.
thread_local bool tAttached;

struct Slot {
    std::atomic<uintptr_t> base{0};
    std::atomic<size_t> size{0};
    std::atomic<const LoadedImage*> owner{nullptr};
};
Slot gImages[kMaxLoadedImages];

struct sigaction gPrevious;

uintptr_t gsBase() {
    unsigned long base = 0;
    syscall(SYS_arch_prctl, ARCH_GET_GS, &base);
    return base;
}

// ucontext register index of general register n (ModRM order, REX-extended).
int gregIndex(unsigned n) {
    static const int map[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                REG_R12, REG_R13, REG_R14, REG_R15};
    return map[n & 15];
}

struct Decoded {
    size_t length = 0; // 0: not decoded
    bool gsPrefix = false;
    bool lock = false;
    unsigned rex = 0;
    const unsigned char* opcode = nullptr;
};

// Legacy prefixes and REX, as far as the bytes allow.
Decoded prefixes(const unsigned char* code, size_t available) {
    Decoded d;
    size_t i = 0;
    for (; i < available && i < 14; ++i) {
        const unsigned char b = code[i];
        if (b == 0x65)
            d.gsPrefix = true;
        else if (b == 0xf0)
            d.lock = true;
        else if (!(b == 0x66 || b == 0x67 || b == 0xf2 || b == 0xf3 || b == 0x2e || b == 0x36 ||
                   b == 0x3e || b == 0x26 || b == 0x64))
            break;
    }
    if (i < available && (code[i] & 0xf0) == 0x40)
        d.rex = code[i++];
    if (i < available)
        d.opcode = code + i;
    d.length = i;
    return d;
}

// Length of the privileged instructions a driver might contain; 0 when the
// bytes are something else (then the fault is not ours to skip).
size_t privilegedLength(const Decoded& d, const unsigned char* end) {
    const unsigned char* op = d.opcode;
    if (!op)
        return 0;
    const size_t left = end - op;
    switch (op[0]) {
    case 0xf4: // hlt
    case 0xfa: // cli
    case 0xfb: // sti
    case 0xec:
    case 0xed:
    case 0xee:
    case 0xef: // in/out with dx
        return 1;
    case 0xe4:
    case 0xe5:
    case 0xe6:
    case 0xe7: // in/out with an immediate port
        return left >= 2 ? 2 : 0;
    case 0x0f:
        if (left < 2)
            return 0;
        switch (op[1]) {
        case 0x06:
        case 0x08:
        case 0x09:
        case 0x30:
        case 0x32: // clts invd wbinvd wrmsr rdmsr
            return 2;
        case 0x20:
        case 0x21:
        case 0x22:
        case 0x23: // mov from/to control and debug registers
            return left >= 3 ? 3 : 0;
        case 0x01: // lgdt, lidt, invlpg, swapgs, ...: register or simple memory forms
            return left >= 3 && (op[2] >> 6) == 3 ? 3 : 0;
        }
        return 0;
    }
    return 0;
}

std::string bytesText(const unsigned char* code, size_t n) {
    std::string text;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i ? " %02x" : "%02x", code[i]);
        text += b;
    }
    return text;
}

bool handle(siginfo_t* info, ucontext_t* uc) {
    greg_t* g = uc->uc_mcontext.gregs;
    const uintptr_t rip = uintptr_t(g[REG_RIP]);
    size_t imageSize = 0;
    const uint8_t* base = imageHolding(rip, &imageSize);
    if (!base)
        return false;
    const unsigned char* code = reinterpret_cast<const unsigned char*>(rip);
    const unsigned char* end = base + imageSize;
    const size_t available = std::min<size_t>(15, end - code);
    const Decoded d = prefixes(code, available);

    // A GS read on a thread that never had its block: give it one and retry.
    if (info->si_code != SI_KERNEL) {
        if (d.gsPrefix && gsBase() == 0) {
            attachThread();
            return true;
        }
        return false;
    }

    const size_t opLength = privilegedLength(d, end);
    if (opLength == 0) {
        // Privileged or otherwise faulting, and of a length we do not know:
        // named here, then the fault takes its course.
        char where[96];
        std::snprintf(where, sizeof where,
                      "faulting instruction at %p (image+0x%zx): ", static_cast<const void*>(code),
                      size_t(code - base));
        const std::string text = where + bytesText(code, std::min<size_t>(available, 8));
        std::fprintf(stderr, "*** host kernel verifier: %s\n", text.c_str());
        hostk::detail::verifierFailure(text);
        return false;
    }
    const size_t length = d.length + opLength;
    const unsigned char* op = d.opcode;
    if (op[0] == 0x0f && (op[1] == 0x20 || op[1] == 0x22)) {
        const unsigned modrm = op[2];
        unsigned cr = ((d.rex & 4) ? 8 : 0) | ((modrm >> 3) & 7);
        if (d.lock && cr == 0) // AMD's alternative encoding of CR8
            cr = 8;
        const int reg = gregIndex(((d.rex & 1) ? 8 : 0) | (modrm & 7));
        if (cr == 8) {
            if (op[1] == 0x20)
                g[reg] = greg_t(hostk::detail::currentIrql());
            else
                hostk::detail::setCurrentIrql(KIRQL(uint64_t(g[reg]) & 15));
            g[REG_RIP] = greg_t(rip + length);
            return true;
        }
    }
    char where[96];
    std::snprintf(where, sizeof where,
                  "privileged instruction at %p (image+0x%zx): ", static_cast<const void*>(code),
                  size_t(code - base));
    hostk::detail::verifierFailure(where + bytesText(code, length));
    g[REG_RIP] = greg_t(rip + length);
    return true;
}

void onSegv(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const bool handled = handle(info, static_cast<ucontext_t*>(context));
    errno = savedErrno;
    if (!handled)
        hostk::detail::chainSignal(gPrevious, sig, info, context);
}

} // namespace

// A slot is claimed by its base; its size follows before the image's code
// can run (the loader returns only afterwards).
bool registerImage(const uint8_t* base, size_t size, const LoadedImage* owner) {
    for (Slot& s : gImages) {
        uintptr_t expected = 0;
        if (s.base.compare_exchange_strong(expected, reinterpret_cast<uintptr_t>(base))) {
            s.owner.store(owner, std::memory_order_release);
            s.size.store(size, std::memory_order_release);
            return true;
        }
    }
    return false;
}

// found(slot, base, size) for the registered image that holds address, its
// base and size as read then; null when no image holds it.
template <class Found>
auto withImageHolding(uintptr_t address, Found found) -> decltype(found(gImages[0], 0, 0)) {
    for (Slot& s : gImages) {
        const uintptr_t b = s.base.load(std::memory_order_acquire);
        const size_t n = s.size.load(std::memory_order_acquire);
        if (b && address >= b && address - b < n)
            return found(s, b, n);
    }
    return nullptr;
}

const LoadedImage* imageOwning(uintptr_t address) {
    return withImageHolding(address, [](Slot& s, uintptr_t, size_t) {
        return s.owner.load(std::memory_order_acquire);
    });
}

void unregisterImage(const uint8_t* base) {
    for (Slot& s : gImages) {
        if (s.base.load(std::memory_order_acquire) == reinterpret_cast<uintptr_t>(base)) {
            s.size.store(0, std::memory_order_release);
            s.owner.store(nullptr, std::memory_order_release);
            s.base.store(0, std::memory_order_release);
            return;
        }
    }
}

const uint8_t* imageHolding(uintptr_t address, size_t* size) {
    return withImageHolding(address, [size](Slot&, uintptr_t b, size_t n) {
        *size = n;
        return reinterpret_cast<const uint8_t*>(b);
    });
}

void attachThread() {
    if (tAttached)
        return;
    const void* thread = KeGetCurrentThread();
    const void* self = &tBlock;
    std::memcpy(tBlock.bytes + kCurrentThreadOffset, &thread, sizeof thread);
    std::memcpy(tBlock.bytes + kSelfOffset, &self, sizeof self);
    if (gsBase() != reinterpret_cast<uintptr_t>(&tBlock))
        syscall(SYS_arch_prctl, ARCH_SET_GS, reinterpret_cast<unsigned long>(&tBlock));
    tAttached = true;
}

bool ownsProcessorBlock() {
    // No GS base yet: the first read traps and attaches.
    return tAttached || gsBase() == 0;
}

void enableProcessorState() {
    static std::once_flag once;
    std::call_once(once, [] {
        hostk::detail::installSegvHandler(onSegv, &gPrevious);
        hostk::setDriverThreadHooks(&attachThread, &ownsProcessorBlock);
    });
    attachThread();
}

} // namespace hostimg
