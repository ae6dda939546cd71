// The host kernel's SIGSEGV handler: what Driver Verifier bug-checks on
// (a driver stack's guard page, special pool's guard pages and freed
// blocks) becomes a verifier report, and the faulting access is let through
// so that the test fails instead of the process dying. Other faults go to
// the handler installed before (the image's CR8 trap, AddressSanitizer's) or
// to the default action. The handler allocates nothing: it formats its
// report into a fixed buffer and leaves it here until the verifier's list
// is next read or added to.
#include "HostKernelInternal.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

struct sigaction gPrevious;
std::atomic<bool (*)(uintptr_t, char*, size_t)> gDescriber{nullptr};

// Reports made in the handler, not yet in the verifier's list.
constexpr size_t kDeferred = 64;
std::atomic_flag gDeferredLock = ATOMIC_FLAG_INIT;
char gDeferred[kDeferred][768];
size_t gDeferredCount = 0;
size_t gDeferredDropped = 0;

struct DeferredLock {
    DeferredLock() {
        while (gDeferredLock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~DeferredLock() { gDeferredLock.clear(std::memory_order_release); }
};

__attribute__((no_instrument_function)) void onSegv(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    auto* uc = static_cast<ucontext_t*>(context);
    const bool handled = hostk::detail::stackFault(info, uc) || hostk::detail::poolFault(info, uc);
    errno = savedErrno;
    if (!handled)
        hostk::detail::chainSignal(gPrevious, sig, info, context);
}

std::string hexText(uintptr_t v) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%zx", size_t(v));
    return text;
}

} // namespace

namespace hostk {

void setCodeDescriber(bool (*describe)(uintptr_t pc, char* text, size_t size)) {
    gDescriber.store(describe, std::memory_order_release);
}

std::string describeCode(uintptr_t pc) {
    char own[512];
    if (auto describe = gDescriber.load(std::memory_order_acquire))
        if (describe(pc, own, sizeof own))
            return own;
    std::string text;
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(pc), &info) || !info.dli_fname)
        return hexText(pc);
    const char* slash = std::strrchr(info.dli_fname, '/');
    text = (slash ? slash + 1 : info.dli_fname);
    text += "+" + hexText(pc - reinterpret_cast<uintptr_t>(info.dli_fbase));
    if (info.dli_sname) {
        int status = -1;
        char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        text += std::string(" (") + (status == 0 ? demangled : info.dli_sname) + "+" +
                hexText(pc - reinterpret_cast<uintptr_t>(info.dli_saddr)) + ")";
        std::free(demangled);
    }
    return text;
}

namespace detail {

void describeCodeInto(uintptr_t pc, char* text, size_t size) {
    if (auto describe = gDescriber.load(std::memory_order_acquire))
        if (describe(pc, text, size))
            return;
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(pc), &info) || !info.dli_fname) {
        std::snprintf(text, size, "0x%zx", size_t(pc));
        return;
    }
    const char* slash = std::strrchr(info.dli_fname, '/');
    const int n = std::snprintf(text, size, "%s+0x%zx", slash ? slash + 1 : info.dli_fname,
                                size_t(pc - reinterpret_cast<uintptr_t>(info.dli_fbase)));
    if (info.dli_sname && n > 0 && size_t(n) < size)
        std::snprintf(text + n, size - n, " (%s+0x%zx)", info.dli_sname,
                      size_t(pc - reinterpret_cast<uintptr_t>(info.dli_saddr)));
}

void deferVerifierFailure(const char* text) {
    DeferredLock lock;
    if (gDeferredCount == kDeferred) {
        ++gDeferredDropped;
        return;
    }
    std::snprintf(gDeferred[gDeferredCount++], sizeof gDeferred[0], "%s", text);
}

void flushDeferredFailures() {
    std::vector<std::string> texts;
    {
        DeferredLock lock;
        for (size_t i = 0; i < gDeferredCount; ++i)
            texts.emplace_back(gDeferred[i]);
        if (gDeferredDropped)
            texts.push_back(std::to_string(gDeferredDropped) + " more fault reports dropped");
        gDeferredCount = gDeferredDropped = 0;
    }
    for (const std::string& text : texts)
        recordVerifierFailure(text);
}

void checkDriverStack(const void* returnAddress, const void* frame) {
    char text[512];
    auto describe = gDescriber.load(std::memory_order_acquire);
    if (!describe || calledFromDriver(returnAddress, nullptr) || onDriverStack(frame) ||
        !describe(reinterpret_cast<uintptr_t>(returnAddress), text, sizeof text))
        return;
    verifierFailure(std::string("image code at ") + text +
                    " ran on a host stack: its entry did not switch to a driver stack");
}

void installFaultHandler() {
    static std::once_flag once;
    std::call_once(once, [] { installSegvHandler(onSegv, &gPrevious); });
}

void installSegvHandler(void (*handler)(int, siginfo_t*, void*), struct sigaction* previous) {
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, previous);
}

HOSTK_LEAF void chainSignal(const struct sigaction& previous, int sig, siginfo_t* info,
                            void* context) {
    if (previous.sa_flags & SA_SIGINFO) {
        if (previous.sa_sigaction) {
            previous.sa_sigaction(sig, info, context);
            return;
        }
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(sig);
        return;
    }
    signal(sig, SIG_DFL);
}

} // namespace detail
} // namespace hostk
