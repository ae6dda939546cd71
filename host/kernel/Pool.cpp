// The kernel pool on Linux: every block is tracked (tag, size, allocation
// number, kind) so tests can count live blocks and bytes, fail the Nth
// allocation and list leaks. Freeing an unknown pointer is a recorded
// violation, never a crash.
#include "HostKernelInternal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

using hostk::detail::pointerText;

namespace {

// Requests above this are refused with NULL, as an exhausted pool would.
constexpr size_t kLargestBlock = size_t(1) << 30;

struct Block {
    ULONG tag;
    size_t size;
    uint64_t number;
    uint64_t generation;
    hostk::detail::BlockKind kind;
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
};

PoolState& pool() {
    static PoolState* s = new PoolState;
    return *s;
}

std::string tagText(ULONG tag) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = (char)((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    return text;
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
    std::shared_ptr<const std::function<void(ULONG, size_t, bool)>> observer;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        failed = s.failCountdown != 0 && --s.failCountdown == 0;
        observer = s.observer;
    }
    if (observer)
        (*observer)(tag, size, failed);
    if (failed)
        return nullptr;
    if (size > kLargestBlock)
        return nullptr;
    void* p = std::malloc(size ? size : 1);
    if (!p)
        return nullptr;
    std::lock_guard<std::mutex> lock(s.mutex);
    s.blocks[p] = Block{tag, size, ++s.serial, s.generation, kind};
    ++s.liveBlocks;
    s.liveBytes += size;
    ++s.totalAllocations;
    return p;
}

bool poolFree(void* p, BlockKind kind, const char* service) {
    auto& s = pool();
    size_t size = 0;
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
        if (it->second.generation == s.generation) {
            --s.liveBlocks;
            s.liveBytes -= size;
        }
        s.blocks.erase(it);
    }
    // A timer still queued inside the block would fire into freed memory.
    dropTimersInside(p, size);
    dropDpcsInside(p, size);
    std::memset(p, hostk::kPoolFreedFill, size);
    std::free(p);
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
}

} // namespace detail
} // namespace hostk

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    using namespace hostk::detail;
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
