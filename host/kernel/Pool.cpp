// The kernel pool on Linux: every block is tracked (tag, size, allocation
// number, kind) so tests can count live blocks and bytes, fail the Nth
// allocation and list leaks. Freeing an unknown pointer is a recorded
// violation, never a crash.
//
// Special pool follows Driver Verifier's ("Special Pool"): a block gets
// pages of its own between two no-access pages; Verify End puts it at the
// highest address that lets it fit, so its end meets the page after (bug
// check 0xCD when touched), Verify Start at the start of its pages, right
// after the page before; the rest of its pages hold a pattern that must be
// intact at free (0xC1); a freed block is made no-access (0xCC) and its
// address space is not reused while it sits in the quarantine. Under Verify
// End a block's start is aligned only as its size allows: the documentation
// promises no more, and a driver that assumes 16 bytes for an odd-sized
// block is caught here.
#include "HostKernelInternal.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

using hostk::detail::pointerText;

namespace {

// Requests above this are refused with NULL, as an exhausted pool would.
constexpr size_t kLargestBlock = size_t(1) << 30;
constexpr size_t kPage = 4096;
constexpr unsigned char kSlackFill = 0x5A;
// Freed special-pool blocks kept no-access before their pages go back.
constexpr size_t kQuarantineBlocks = 4096;
constexpr size_t kQuarantineBytes = size_t(64) << 20;

struct Block {
    ULONG tag;
    size_t size;
    uint64_t number;
    uint64_t generation;
    hostk::detail::BlockKind kind;
    uintptr_t mapping; // special pool: the block's pages, guard included; else 0
};

// A special-pool block's pages, live or in the quarantine.
struct Mapping {
    uintptr_t base;
    size_t length;
    uintptr_t block;
    size_t size;
    ULONG tag;
    uint64_t number;
    hostk::SpecialPool mode;
    bool freed;
};

struct PoolState {
    std::mutex mutex;
    std::unordered_map<void*, Block> blocks;
    uint64_t generation = 0;
    uint64_t serial = 0;
    size_t liveBlocks = 0; // of the current generation
    size_t liveBytes = 0;
    size_t totalAllocations = 0;
    size_t failCountdown = 0; // 0 = no fault injection
    std::shared_ptr<const std::function<void(ULONG, size_t, bool)>> observer;
    hostk::SpecialPool special = hostk::SpecialPool::Off;
    std::map<uintptr_t, Mapping> mappings; // by end address
    std::deque<uintptr_t> quarantine;      // ends of freed mappings, oldest first
    size_t quarantineBytes = 0;
    // Bounds of every special-pool mapping, read without the lock by the
    // fault handler to let other faults pass quickly.
    std::atomic<uintptr_t> lowest{UINTPTR_MAX};
    std::atomic<uintptr_t> highest{0};
};

hostk::SpecialPool specialFromEnvironment() {
    const char* env = std::getenv("MME_SPECIAL_POOL");
    if (!env)
        return hostk::SpecialPool::Off;
    if (std::strcmp(env, "end") == 0)
        return hostk::SpecialPool::VerifyEnd;
    if (std::strcmp(env, "start") == 0)
        return hostk::SpecialPool::VerifyStart;
    return hostk::SpecialPool::Off;
}

PoolState& pool() {
    static PoolState* s = [] {
        auto* state = new PoolState;
        state->special = specialFromEnvironment();
        if (state->special != hostk::SpecialPool::Off)
            hostk::detail::installFaultHandler();
        return state;
    }();
    return *s;
}

void tagInto(ULONG tag, char (&text)[5]) {
    for (int i = 0; i < 4; ++i) {
        const char c = (char)((tag >> (8 * i)) & 0xFF);
        text[i] = (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    text[4] = 0;
}

std::string tagText(ULONG tag) {
    char text[5];
    tagInto(tag, text);
    return text;
}

std::string blockText(const Mapping& m) {
    return "pool block '" + tagText(m.tag) + "' of " + std::to_string(m.size) +
           " bytes, allocation #" + std::to_string(m.number);
}

// Pages for a special-pool block; null when the address space is exhausted.
void* specialAllocateLocked(PoolState& s, hostk::SpecialPool mode, size_t size, ULONG tag,
                            uint64_t number, uintptr_t* mappingEnd) {
    const size_t bytes = size ? size : 1;
    const size_t dataPages = (bytes + kPage - 1) / kPage;
    const size_t length = (dataPages + 2) * kPage;
    void* m = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED)
        return nullptr;
    // "The previous page and the next page are marked inaccessible."
    const auto base = reinterpret_cast<uintptr_t>(m);
    const uintptr_t data = base + kPage, dataEnd = data + dataPages * kPage;
    if (mprotect(reinterpret_cast<void*>(data), dataPages * kPage, PROT_READ | PROT_WRITE) != 0) {
        munmap(m, length);
        return nullptr;
    }
    const bool end = mode == hostk::SpecialPool::VerifyEnd;
    const uintptr_t block = end ? dataEnd - bytes : data;
    if (end)
        std::memset(reinterpret_cast<void*>(data), kSlackFill, block - data);
    else
        std::memset(reinterpret_cast<void*>(block + bytes), kSlackFill, dataEnd - block - bytes);
    s.mappings[base + length] = Mapping{base, length, block, size, tag, number, mode, false};
    *mappingEnd = base + length;
    uintptr_t low = s.lowest.load();
    while (base < low && !s.lowest.compare_exchange_weak(low, base)) {
    }
    uintptr_t high = s.highest.load();
    while (base + length > high && !s.highest.compare_exchange_weak(high, base + length)) {
    }
    return reinterpret_cast<void*>(block);
}

// The pattern around a special-pool block at its free: offset of the first
// byte changed (negative: before the block), or 0 when intact.
long slackDamage(const Mapping& m) {
    const bool end = m.mode == hostk::SpecialPool::VerifyEnd;
    const size_t bytes = m.size ? m.size : 1;
    const auto* from =
        reinterpret_cast<const unsigned char*>(end ? m.base + kPage : m.block + bytes);
    const auto* to =
        reinterpret_cast<const unsigned char*>(end ? m.block : m.base + m.length - kPage);
    for (const unsigned char* p = from; p < to; ++p)
        if (*p != kSlackFill)
            return long(reinterpret_cast<intptr_t>(p) - intptr_t(m.block));
    return 0;
}

// Frees a special-pool block: its pattern checked, its bytes poisoned, its
// pages made no-access and queued; the oldest queued pages go back.
void specialFree(PoolState& s, uintptr_t mappingEnd) {
    Mapping m;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        m = s.mappings.at(mappingEnd);
    }
    if (const long at = slackDamage(m))
        hostk::detail::verifierFailure("special pool: " + blockText(m) +
                                       " freed with the pattern " + (at < 0 ? "before" : "after") +
                                       " it overwritten at offset " + std::to_string(at) +
                                       " (SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION 0xC1)");
    std::memset(reinterpret_cast<void*>(m.block), hostk::kPoolFreedFill, m.size);
    mprotect(reinterpret_cast<void*>(m.base), m.length, PROT_NONE);
    std::vector<Mapping> evicted;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.mappings[mappingEnd].freed = true;
        s.quarantine.push_back(mappingEnd);
        s.quarantineBytes += m.length;
        while (s.quarantine.size() > kQuarantineBlocks || s.quarantineBytes > kQuarantineBytes) {
            auto it = s.mappings.find(s.quarantine.front());
            s.quarantine.pop_front();
            s.quarantineBytes -= it->second.length;
            evicted.push_back(it->second);
            s.mappings.erase(it);
        }
    }
    for (const Mapping& gone : evicted)
        munmap(reinterpret_cast<void*>(gone.base), gone.length);
}

} // namespace

namespace hostk {

PoolStats poolStats() {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    return PoolStats{s.liveBlocks, s.liveBytes, s.totalAllocations};
}

void failAllocation(size_t nth) {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.failCountdown = nth;
}

void setPoolObserver(std::function<void(ULONG tag, size_t size, bool failed)> observer) {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.observer =
        observer
            ? std::make_shared<const std::function<void(ULONG, size_t, bool)>>(std::move(observer))
            : nullptr;
}

std::string leakReport() {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::map<uint64_t, std::string> ordered;
    for (const auto& [p, b] : s.blocks) {
        if (b.generation != s.generation)
            continue;
        ordered[b.number] =
            "leaked " + std::string(b.kind == detail::BlockKind::Irp ? "IRP" : "pool block") +
            " '" + tagText(b.tag) + "' of " + std::to_string(b.size) + " bytes at " +
            pointerText(p) + ", allocation #" + std::to_string(b.number);
    }
    std::string text;
    for (const auto& [n, line] : ordered)
        text += line + "\n";
    return text;
}

void resetPool() {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.totalAllocations = 0;
}

void setSpecialPool(SpecialPool mode) {
    auto& s = pool();
    if (mode != SpecialPool::Off)
        detail::installFaultHandler();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.special = mode;
}

SpecialPool specialPool() {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.special;
}

size_t liveBlocksWithTag(ULONG tag) {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    size_t n = 0;
    for (const auto& entry : s.blocks)
        if (entry.second.generation == s.generation && entry.second.tag == tag)
            ++n;
    return n;
}

bool poolBlockInfo(const void* p, ULONG* tag, size_t* size) {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.blocks.find(const_cast<void*>(p));
    if (it == s.blocks.end())
        return false;
    if (tag)
        *tag = it->second.tag;
    if (size)
        *size = it->second.size;
    return true;
}

namespace detail {

void* poolAllocate(size_t size, ULONG tag, BlockKind kind) {
    auto& s = pool();
    bool failed;
    SpecialPool special;
    std::shared_ptr<const std::function<void(ULONG, size_t, bool)>> observer;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        failed = s.failCountdown != 0 && --s.failCountdown == 0;
        observer = s.observer;
        special = s.special;
    }
    if (observer)
        (*observer)(tag, size, failed);
    if (failed)
        return nullptr;
    if (size > kLargestBlock)
        return nullptr;
    // Ordinary blocks come from malloc outside the lock; a special-pool
    // block's pages carry its number, so it is made under the lock.
    void* p = special == SpecialPool::Off ? std::malloc(size ? size : 1) : nullptr;
    if (special == SpecialPool::Off && !p)
        return nullptr;
    std::lock_guard<std::mutex> lock(s.mutex);
    uintptr_t mapping = 0;
    if (special != SpecialPool::Off) {
        p = specialAllocateLocked(s, special, size, tag, s.serial + 1, &mapping);
        if (!p)
            return nullptr;
    }
    const uint64_t number = ++s.serial;
    s.blocks[p] = Block{tag, size, number, s.generation, kind, mapping};
    ++s.liveBlocks;
    s.liveBytes += size;
    ++s.totalAllocations;
    return p;
}

bool poolFree(void* p, BlockKind kind, const char* service) {
    auto& s = pool();
    size_t size = 0;
    uintptr_t mapping = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.blocks.find(p);
        if (it == s.blocks.end()) {
            verifierFailure(std::string(service) + " of " + pointerText(p) +
                            ", which is not a live block (double or foreign free)");
            return false;
        }
        if (it->second.kind != kind) {
            verifierFailure(std::string(service) + " of " + pointerText(p) + ", which is " +
                            (it->second.kind == BlockKind::Irp ? "an IRP (use IoFreeIrp)"
                                                               : "a pool block, not an IRP"));
            return false;
        }
        size = it->second.size;
        mapping = it->second.mapping;
        if (it->second.generation == s.generation) {
            --s.liveBlocks;
            s.liveBytes -= size;
        }
        s.blocks.erase(it);
    }
    // A timer still queued inside the block would fire into freed memory.
    dropTimersInside(p, size);
    dropDpcsInside(p, size);
    if (mapping) {
        specialFree(s, mapping);
        return true;
    }
    std::memset(p, hostk::kPoolFreedFill, size);
    std::free(p);
    return true;
}

// An access to a special-pool guard page or freed block: reported, then the
// pages are opened so that the access completes. Runs in the fault handler:
// no allocation.
bool poolFault(const siginfo_t* info, const ucontext_t* context) {
    auto& s = pool();
    const auto a = reinterpret_cast<uintptr_t>(info->si_addr);
    if (a < s.lowest.load() || a >= s.highest.load())
        return false;
    const uintptr_t pc = uintptr_t(context->uc_mcontext.gregs[REG_RIP]);
    const auto rsp = reinterpret_cast<const void*>(context->uc_mcontext.gregs[REG_RSP]);
    const bool write = context->uc_mcontext.gregs[REG_ERR] & 2;
    Mapping m;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.mappings.upper_bound(a);
        if (it == s.mappings.end() || a < it->second.base)
            return false;
        m = it->second;
    }
    const size_t bytes = m.size ? m.size : 1;
    const char* where;
    const char* check;
    uintptr_t open = a & ~(kPage - 1);
    size_t openLength = kPage;
    if (m.freed) {
        where = " of freed";
        check = "PAGE_FAULT_IN_FREED_SPECIAL_POOL 0xCC";
        open = m.base;
        openLength = m.length;
    } else if (a < m.block) {
        where = ", before the start of";
        check = "an underrun onto the guard page before the block";
    } else if (a >= m.block + bytes) {
        where = ", past the end of";
        check = "PAGE_FAULT_BEYOND_END_OF_ALLOCATION 0xCD";
    } else {
        return false; // inside a live block: not ours
    }
    char by[512], caller[512] = "";
    describeCodeInto(pc, by, sizeof by);
    const uintptr_t driver = onDriverStack(rsp) ? 0 : currentDriverCaller();
    if (driver) {
        char at[480];
        describeCodeInto(driver, at, sizeof at);
        std::snprintf(caller, sizeof caller, ", called from driver code at %s", at);
    }
    char tag[5];
    tagInto(m.tag, tag);
    char text[1536];
    std::snprintf(text, sizeof text,
                  "special pool: %s at offset %lld%s pool block '%s' of %zu bytes, allocation "
                  "#%llu by %s%s (%s)",
                  write ? "write" : "read", (long long)(intptr_t(a) - intptr_t(m.block)), where,
                  tag, m.size, (unsigned long long)m.number, by, caller, check);
    deferVerifierFailure(text);
    mprotect(reinterpret_cast<void*>(open), openLength, PROT_READ | PROT_WRITE);
    return true;
}

void poolNewGeneration() {
    auto& s = pool();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.generation;
    s.liveBlocks = 0;
    s.liveBytes = 0;
    s.totalAllocations = 0;
    s.failCountdown = 0;
    s.special = specialFromEnvironment();
    if (s.special != SpecialPool::Off)
        installFaultHandler();
}

} // namespace detail
} // namespace hostk

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    using namespace hostk::detail;
    // Driver Verifier's code integrity check ("Code integrity checking",
    // 0x2000: "The caller specified an executable pool type"): non-paged
    // types are even, and the non-executable ones carry NonPagedPoolNx.
    uintptr_t caller = 0;
    if (calledFromDriver(__builtin_return_address(0), &caller) && !(PoolType & 1) &&
        !(PoolType & NonPagedPoolNx))
        verifierFailure(
            "code integrity: ExAllocatePoolWithTag with the executable pool type " +
            std::to_string(int(PoolType)) + " from driver code at " + hostk::describeCode(caller) +
            "; expected NonPagedPoolNx (DRIVER_VERIFIER_DETECTED_VIOLATION 0xC4, 0x2000)");
    if (PoolType == PagedPool && currentIrql() >= DISPATCH_LEVEL)
        verifierFailure("paged pool allocation at DISPATCH_LEVEL");
    if (const char* scope = noAllocScope())
        verifierFailure("pool allocation of " + std::to_string(NumberOfBytes) + " bytes inside " +
                        scope);
    void* p = poolAllocate(NumberOfBytes, Tag, BlockKind::Pool);
    if (p)
        std::memset(p, hostk::kPoolFill, NumberOfBytes);
    return p;
}

void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    using namespace hostk::detail;
    if (!P) {
        verifierFailure("ExFreePoolWithTag of a NULL pointer");
        return;
    }
    ULONG blockTag = 0;
    if (Tag != 0 && hostk::poolBlockInfo(P, &blockTag, nullptr) && blockTag != Tag)
        verifierFailure("ExFreePoolWithTag with tag '" + tagText(Tag) + "' of a block tagged '" +
                        tagText(blockTag) + "'");
    poolFree(P, BlockKind::Pool, "ExFreePoolWithTag");
}

} // extern "C"
