// Reference-counted objects and the pool allocations behind them.
#include "driver/common/MMEUnknown.h"
#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr ULONG kNoneTag = 0x656E6F4E; // 'None', the tag of untagged ExAllocatePool

struct Counters {
    std::atomic<int> constructed{0};
    std::atomic<int> destroyed{0};
    std::atomic<bool> blockLiveInDestructor{false};
};

class Probe : public MMEUnknown {
public:
    explicit Probe(Counters* counters) : mCounters(counters) { ++mCounters->constructed; }
    ~Probe() override {
        // The class destructor runs before the memory goes back.
        mCounters->blockLiveInDestructor =
            hostk::poolBlockInfo(static_cast<void*>(this), nullptr, nullptr);
        ++mCounters->destroyed;
    }
    char payload[40];

private:
    Counters* mCounters;
};

// A constructor that sets nothing: every field is what the allocation left.
struct Untouched : MMEPoolObject {
    Untouched() {}
    int number;
    void* pointer;
    unsigned char bytes[61];
};

TEST(RefCounting, NewObjectStartsAtZeroAndOnlyTheLastReleaseDeletesIt) {
    Counters counters;
    const size_t blocksBefore = hostk::poolStats().liveBlocks;
    Probe* probe = new Probe(&counters);
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->referenceCount(), 0);
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocksBefore + 1);

    EXPECT_EQ(probe->AddRef(), 1u);
    EXPECT_EQ(probe->AddRef(), 2u);
    EXPECT_EQ(probe->Release(), 1u);
    EXPECT_EQ(counters.destroyed, 0);
    EXPECT_EQ(probe->referenceCount(), 1);
    std::memset(probe->payload, 0x11, sizeof probe->payload); // still ours to use
    EXPECT_EQ(probe->Release(), 0u);
    EXPECT_EQ(counters.constructed, 1);
    EXPECT_EQ(counters.destroyed, 1);
    EXPECT_TRUE(counters.blockLiveInDestructor);
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocksBefore);

    MMERefCounter counter; // the bare counter goes through zero
    EXPECT_EQ(counter.increment(), 1);
    EXPECT_EQ(counter.decrement(), 0);
    EXPECT_EQ(counter.decrement(), -1);
    EXPECT_EQ(counter.value(), -1);
}

// Every holder lets go at once: exactly one Release sees 0 and deletes, and
// none reads the count again after its own decrement (the object may be
// gone; the sanitizers see such a read).
TEST(ObjectsConcurrency, ParallelReleasesDeleteOnce) {
    constexpr int kHolders = 6;
    std::vector<std::thread> threads;
    for (int round = 0; round < 50; ++round) {
        Counters c;
        Probe* p = new Probe(&c);
        for (int i = 0; i < kHolders; ++i)
            p->AddRef();
        std::atomic<bool> go{false};
        std::atomic<int> zeros{0};
        threads.clear();
        for (int t = 0; t < kHolders; ++t)
            threads.emplace_back([&] {
                while (!go.load()) {
                }
                if (p->Release() == 0)
                    ++zeros;
            });
        go = true;
        for (auto& t : threads)
            t.join();
        ASSERT_EQ(zeros.load(), 1) << round;
        ASSERT_EQ(c.destroyed.load(), 1) << round;
    }
}

TEST(ObjectAllocation, ZeroedObjectsNullFreesAndFailuresThatRunNoConstructor) {
    MMEFreeObject(nullptr);
    MMEFree(nullptr, 128);
    Probe* none = nullptr;
    delete none;
    EXPECT_EQ(hostk::poolStats().totalAllocations, 0u);
    EXPECT_TRUE(hostk::verifierFailures().empty()) << "nothing reached the pool";

    // Dirty the pool first so that zeros cannot come from fresh memory.
    for (int i = 0; i < 8; ++i) {
        void* dirty = MMEAllocate(sizeof(Untouched));
        ASSERT_NE(dirty, nullptr);
        std::memset(dirty, 0xEE, sizeof(Untouched));
        MMEFree(dirty, sizeof(Untouched));
    }
    Untouched* object = new Untouched;
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->number, 0);
    EXPECT_EQ(object->pointer, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(object->bytes, object->bytes + sizeof object->bytes),
              std::vector<unsigned char>(sizeof object->bytes, 0));
    delete object;
    // Zero bytes give one zeroed byte.
    for (size_t bytes : {333u, 0u}) {
        auto* raw = static_cast<unsigned char*>(MMEAllocateObject(bytes));
        ASSERT_NE(raw, nullptr);
        size_t size = 0;
        ASSERT_TRUE(hostk::poolBlockInfo(raw, nullptr, &size));
        EXPECT_EQ(size, bytes ? bytes : 1u);
        EXPECT_EQ(std::vector<unsigned char>(raw, raw + size), std::vector<unsigned char>(size, 0));
        MMEFreeObject(raw);
    }

    Counters counters;
    hostk::failAllocation(1);
    EXPECT_EQ(new Probe(&counters), nullptr);
    EXPECT_EQ(counters.constructed, 0);
    hostk::failAllocation(1);
    EXPECT_EQ(MMEAllocateObject(16), nullptr);
    hostk::failAllocation(1);
    EXPECT_EQ(MMEAllocate(16), nullptr);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);
}

TEST(ObjectAllocation, SizedAllocationComesFromNonPagedPool) {
    hostk::runAtDispatch([] {
        // Non-paged, so allowed at dispatch level.
        auto* buffer = static_cast<unsigned char*>(MMEAllocate(64));
        ASSERT_NE(buffer, nullptr);
        size_t size = 0;
        ULONG tag = 0;
        ASSERT_TRUE(hostk::poolBlockInfo(buffer, &tag, &size));
        EXPECT_EQ(size, 64u);
        EXPECT_EQ(tag, kNoneTag);
        MMEFree(buffer, 64);

        Counters counters;
        Probe* probe = new Probe(&counters);
        EXPECT_EQ(hostk::liveBlocksWithTag(kNoneTag), 1u);
        probe->AddRef();
        probe->Release();
    });
}

} // namespace
