// The host kernel as the driver and the other tests rely on it: Windows
// kernel formatting, debug output sinks, assertion reports, pool accounting
// and fault injection, IRQL and spin locks, the verifier, time and timers,
// IRPs and device objects.
#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <new>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

// What one DbgPrint call sends to the debug output.
std::string printed(const char* format, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0,
                    uint64_t d = 0) {
    std::string text;
    hostk::setSinkCallback([&](const std::string& t) { text += t; });
    DbgPrint(format, a, b, c, d);
    hostk::setSinkCapture();
    return text;
}

uint64_t slot(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

// Returns the recorded violations and clears them, for tests that provoke one.
std::vector<std::string> takeFailures() {
    std::vector<std::string> failures = hostk::verifierFailures();
    hostk::clearVerifierFailures();
    return failures;
}

bool anyContains(const std::vector<std::string>& texts, const std::string& part) {
    for (const auto& t : texts)
        if (t.find(part) != std::string::npos)
            return true;
    return false;
}

LARGE_INTEGER relative100ns(LONGLONG delay) {
    LARGE_INTEGER due;
    due.QuadPart = -delay;
    return due;
}

constexpr ULONG kTag = 0x74736554; // 'Test'

// ---------------------------------------------------------------------------
// Formatting as the Windows kernel does

// DbgPrint is a Windows x64 variadic routine: each argument fills an 8-byte
// slot whatever the format says, and the format alone decides how much of a
// slot is read. The cases pass raw slots, as a caller of any type would.
// Rules: the Microsoft C runtime's "Format specification syntax" (type
// characters, flags, and the size prefixes h, hh, l, ll, I, I32, I64, w,
// with long 32 bits wide), the kernel's %Z/%wZ (ANSI_STRING and
// UNICODE_STRING, from the DbgPrint documentation), and %p as x64 Windows
// prints it: 16 uppercase hex digits, no prefix. The driver's own forms
// ("%p", "0x%16p", "%d", "0x%08X", "0x%X", "%s") are also checked line by
// line in trace_test.
TEST(KernelFormat, ArgumentsAreReadAndPrintedAsWindowsDoes) {
    static char abc[] = "abc";
    static char abcdef[] = "abcdef";
    static WCHAR wide[] = u"wide";
    static WCHAR text[] = u"text";
    static WCHAR accented[] = u"\u00e9t\u00e9";
    static WCHAR waveBuffer[] = u"Wave!";
    static UNICODE_STRING wave{8, 10, waveBuffer}; // Length in bytes: "Wave"
    static struct {
        USHORT Length, MaximumLength;
        PCHAR Buffer;
    } ansi{2, 6, abcdef};
    const uint64_t pointer = 0x561D2C3A9F10;
    struct Case {
        const char* format;
        uint64_t a, b, c, d;
        const char* expected;
    } cases[] = {
        // long is 32 bits: %ld/%lx/%lu read the low half; the next slot is untouched.
        {"%ld|%d", 0x1234567800000005, 7, 0, 0, "5|7"},
        {"%lx %lu", 0xFFFFFFFF00000010, 0x100000005, 0, 0, "10 5"},
        {"%d %u", 0xFFFFFFFF, 0x1FFFFFFFF, 0, 0, "-1 4294967295"},
        {"%I32x", 0xAAAAAAAA00000001, 0, 0, 0, "1"},
        {"%hd %hhu", 70000, 257, 0, 0, "4464 1"},
        // 64-bit prefixes; I, z and t are pointer-sized, 64 bits on x64.
        {"%I64x %I64X %I64d", 0x123456789ABCDEF0, 0x123456789ABCDEF0, uint64_t(-5), 0,
         "123456789abcdef0 123456789ABCDEF0 -5"},
        {"%llu %lld", UINT64_MAX, uint64_t(-2), 0, 0, "18446744073709551615 -2"},
        {"%Id %Ix %zu", uint64_t(-5), 0x1122334455667788, 1ull << 40, 0,
         "-5 1122334455667788 1099511627776"},
        // %p: all 16 digits, upper case; a width beyond them pads with blanks.
        {"[%p]", pointer, 0, 0, 0, "[0000561D2C3A9F10]"},
        {"0x%16p %p", pointer, 0, 0, 0, "0x0000561D2C3A9F10 0000000000000000"},
        {"%20p|%-18p|", pointer, pointer, 0, 0, "    0000561D2C3A9F10|0000561D2C3A9F10  |"},
        // Flags, width and precision.
        {"%08X|%X %x", 0xC000009A, 0xABCDEF, 0xABCDEF, 0, "C000009A|ABCDEF abcdef"},
        {"%5d|%-5d|%05d", 42, 42, uint64_t(-42), 0, "   42|42   |-0042"},
        {"%+d % d %.4d", 7, 7, 7, 0, "+7  7 0007"},
        {"%#x %#X %#o", 255, 255, 8, 0, "0xff 0XFF 010"},
        {"%*d|%-*d|", 4, 1, 3, 2, "   1|2  |"},
        // Narrow and wide text: %s narrow, %S/%ws/%ls wide, h forces narrow.
        {"%s|%8s|%-8s|%.3s", slot(abc), slot(abc), slot(abc), slot(abcdef),
         "abc|     abc|abc     |abc"},
        {"%s %ws", 0, 0, 0, 0, "(null) (null)"},
        {"%ws %S %ls %hS", slot(wide), slot(text), slot(wide), slot(abc), "wide text wide abc"},
        {"%c%wc%C%hC", 'o', 'k', '!', '?', "ok!?"},
        {"%ws", slot(accented), 0, 0, 0, "?t?"}, // no ANSI form: '?'
        {"%wZ|%Z|%wZ", slot(&wave), slot(&ansi), 0, 0, "Wave|ab|(null)"},
        // Literals, an unknown conversion and %n, which writes nothing.
        {"100%% a%qb tail%", 0, 0, 0, 0, "100% a%qb tail%"},
        {"a%nb%d", slot(abc), 3, 0, 0, "ab3"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(printed(c.format, c.a, c.b, c.c, c.d), c.expected) << c.format;
    EXPECT_STREQ(abc, "abc") << "%n must not write";
}

// The DbgPrint documentation: the Unicode conversions may only be used at
// PASSIVE_LEVEL.
TEST(KernelFormat, UnicodeConversionAbovePassiveIsAVerifierFailure) {
    static WCHAR wide[] = u"w";
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    printed("%s %d\n", slot("narrow"), 1);
    EXPECT_TRUE(hostk::verifierFailures().empty());
    printed("%ws\n", slot(wide));
    KeLowerIrql(old);
    EXPECT_TRUE(anyContains(takeFailures(), "Unicode conversion above PASSIVE_LEVEL: %ws"));
    printed("%ws\n", slot(wide));
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

// ---------------------------------------------------------------------------
// Debug output sinks

TEST(DebugSink, CaptureSplitsLinesCallbackGetsEachPrintWholeNullDrops) {
    DbgPrint("one\ntwo\n");
    DbgPrint("three");
    EXPECT_EQ(hostk::capturedLines(), (std::vector<std::string>{"one", "two"}));
    DbgPrint(" continued\n\n");
    EXPECT_EQ(hostk::capturedLines(),
              (std::vector<std::string>{"one", "two", "three continued", ""}));
    hostk::clearCaptured();

    std::vector<std::string> texts;
    hostk::setSinkCallback([&](const std::string& text) { texts.push_back(text); });
    DbgPrint("%s=%d\n", "x", 3);
    DbgPrint("part");
    hostk::setSinkNull();
    DbgPrint("dropped\n");
    hostk::setSinkCapture();
    EXPECT_EQ(texts, (std::vector<std::string>{"x=3\n", "part"}));
    EXPECT_TRUE(hostk::capturedLines().empty());
    DbgPrint("fresh\n");
    EXPECT_EQ(hostk::capturedLines(), std::vector<std::string>{"fresh"});
}

TEST(DebugSink, FileSinkWritesAndAnUnopenableFileIsRefused) {
    char path[] = "/tmp/mme_sink_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    hostk::setSinkFile(path);
    DbgPrint("first %d\n", 1);
    DbgPrint("second\n");
    hostk::setSinkCapture();
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_EQ(content.str(), "first 1\nsecond\n");
    unlink(path);

    EXPECT_THROW(hostk::setSinkFile("/nonexistent-dir/x/trace.log"), std::runtime_error);
    DbgPrint("still captured\n");
    EXPECT_EQ(hostk::capturedLines(), std::vector<std::string>{"still captured"});
}

// ---------------------------------------------------------------------------
// Assertions report and continue

TEST(KernelAssert, ReportsExpressionFileAndLineAndContinues) {
    char expression[] = "Irp->CurrentLocation > 0";
    char file[] = "MMEAdapter";
    // (The report's expression, file and line: the driver's own asserts, e.g. adapter_test.)
    RtlAssert(expression, file, 321, nullptr);
    EXPECT_EQ(hostk::capturedLines(),
              (std::vector<std::string>{"*** Assertion failed: Irp->CurrentLocation > 0",
                                        "***   Source File: MMEAdapter, line 321"}));
    EXPECT_NE(hostk::checkClean().find("Irp->CurrentLocation > 0"), std::string::npos);

    char message[] = "note: ";
    RtlAssert(expression, file, 7, message);
    EXPECT_EQ(hostk::assertReports().size(), 2u);
    EXPECT_EQ(hostk::capturedLines()[2], "*** Assertion failed: note: Irp->CurrentLocation > 0");
    hostk::clearAssertReports();
    EXPECT_TRUE(hostk::assertReports().empty());
}

// ---------------------------------------------------------------------------
// Pool

// (Untagged blocks carry 'None' and are not cleared: objects_test, through MMEAllocate.)
TEST(KernelPool, TracksLiveBlocksBytesAndTagsAndFailsWhenTold) {
    void* a = ExAllocatePoolWithTag(NonPagedPool, 40, kTag);
    void* b = ExAllocatePool(NonPagedPool, 24);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    auto during = hostk::poolStats();
    EXPECT_EQ(during.liveBlocks, 2u);
    EXPECT_EQ(during.liveBytes, 64u);
    EXPECT_EQ(during.totalAllocations, 2u);
    EXPECT_EQ(hostk::liveBlocksWithTag(kTag), 1u);

    std::string leaks = hostk::leakReport();
    EXPECT_NE(leaks.find("'Test' of 40 bytes"), std::string::npos) << leaks;
    EXPECT_NE(leaks.find("'None' of 24 bytes"), std::string::npos) << leaks;
    EXPECT_NE(hostk::checkClean().find("2 live block(s), 64 byte(s)"), std::string::npos);

    ExFreePoolWithTag(a, kTag);
    ExFreePoolWithTag(b, 0);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);
    EXPECT_EQ(hostk::poolStats().liveBytes, 0u);
    EXPECT_FALSE(hostk::poolBlockInfo(a, nullptr, nullptr));
    EXPECT_EQ(hostk::leakReport(), "");

    void* empty = ExAllocatePoolWithTag(NonPagedPool, 0, kTag); // zero bytes: a valid block
    ASSERT_NE(empty, nullptr);
    size_t size = 99;
    ASSERT_TRUE(hostk::poolBlockInfo(empty, nullptr, &size));
    EXPECT_EQ(size, 0u);
    ExFreePoolWithTag(empty, kTag);

    void* p = ExAllocatePoolWithTag(NonPagedPool, 10, kTag);
    hostk::resetPool(); // forgets the counters, not the blocks
    EXPECT_EQ(hostk::poolStats().totalAllocations, 0u);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 1u);
    EXPECT_EQ(hostk::poolStats().liveBytes, 10u);
    ExFreePoolWithTag(p, kTag);
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);

    // (The n-th allocation failing once: alloc_sweep_test, over a device's whole life.)
    hostk::failAllocation(1);
    hostk::failAllocation(0); // disarmed again
    p = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
    EXPECT_NE(p, nullptr);
    ExFreePoolWithTag(p, kTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, SIZE_MAX / 2, kTag), nullptr);
}

TEST(KernelPool, BadFreesAreRecordedNotFatal) {
    int onStack = 0;
    ExFreePoolWithTag(&onStack, 0);
    auto failures = takeFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("not a live block"), std::string::npos);

    void* p = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
    ExFreePoolWithTag(p, kTag);
    ExFreePoolWithTag(p, kTag); // double free
    EXPECT_EQ(takeFailures().size(), 1u);

    ExFreePoolWithTag(nullptr, 0);
    EXPECT_EQ(takeFailures().size(), 1u);

    void* q = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
    ExFreePoolWithTag(q, 0x72656874); // wrong tag: reported, block still freed
    EXPECT_TRUE(anyContains(takeFailures(), "tag"));
    EXPECT_FALSE(hostk::poolBlockInfo(q, nullptr, nullptr));
}

// ---------------------------------------------------------------------------
// Threads, IRQL and the verifier

TEST(KernelIrql, ThreadsStartPassiveAndRaisingAndRunAtDispatchRestore) {
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KIRQL inside = 0xFF;
    hostk::runAtDispatch([&] {
        inside = KeGetCurrentIrql();
        hostk::runAtDispatch([] {});
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    });
    EXPECT_EQ(inside, DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    KIRQL old = 0xFF;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_NE(hostk::checkClean().find("IRQL 2"), std::string::npos) << "left at dispatch";
    KeLowerIrql(old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(hostk::checkClean(), "");
}

TEST(KernelVerifier, NoAllocNoWaitScopeCatchesAllocationsAndWaits) {
    {
        hostk::NoAllocNoWaitScope scope("period callback");
        void* p = ExAllocatePoolWithTag(NonPagedPool, 4, kTag);
        ExFreePoolWithTag(p, kTag);
        {
            hostk::NoAllocNoWaitScope inner("inner region");
            PIRP irp = IoAllocateIrp(1, FALSE);
            IoFreeIrp(irp);
        }
        LARGE_INTEGER interval = relative100ns(10);
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    auto failures = takeFailures();
    ASSERT_EQ(failures.size(), 3u);
    EXPECT_NE(failures[0].find("inside period callback"), std::string::npos) << failures[0];
    EXPECT_NE(failures[1].find("inside inner region"), std::string::npos) << failures[1];
    EXPECT_NE(failures[2].find("inside period callback"), std::string::npos) << failures[2];

    void* p = ExAllocatePoolWithTag(NonPagedPool, 4, kTag); // scope ended
    ExFreePoolWithTag(p, kTag);
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST(KernelSpinLock, AcquireRaisesToDispatchAndReleaseRestores) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old = 0xFF;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_NE(lock, 0u) << "held";
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(lock, 0u);

    hostk::runAtDispatch([&] {
        KeAcquireSpinLockAtDpcLevel(&lock);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        KeReleaseSpinLockFromDpcLevel(&lock);
        // The image's form of KeAcquireSpinLock.
        EXPECT_EQ(KeAcquireSpinLockRaiseToDpc(&lock), DISPATCH_LEVEL);
        KeReleaseSpinLock(&lock, DISPATCH_LEVEL);
    });
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST(KernelSpinLock, MisuseAndWrongWayIrqlChangesAreRecordedWithoutDeadlock) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeRaiseIrql(PASSIVE_LEVEL, &old);
    EXPECT_EQ(takeFailures().size(), 1u);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(PASSIVE_LEVEL);
    KeLowerIrql(DISPATCH_LEVEL);
    EXPECT_EQ(takeFailures().size(), 1u);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeAcquireSpinLockAtDpcLevel(&lock); // at passive level
    EXPECT_TRUE(anyContains(takeFailures(), "KeAcquireSpinLockAtDpcLevel called at PASSIVE_LEVEL"));
    KeAcquireSpinLock(&lock, &old); // already held by this thread
    EXPECT_TRUE(anyContains(takeFailures(), "already held"));
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    EXPECT_TRUE(hostk::verifierFailures().empty());
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL); // not held any more
    EXPECT_TRUE(anyContains(takeFailures(), "not held"));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(KernelInterlocked, OperationsReturnWhatWindowsReturns) {
    volatile LONG v = 5;
    EXPECT_EQ(InterlockedIncrement(&v), 6);
    EXPECT_EQ(InterlockedDecrement(&v), 5);
    EXPECT_EQ(InterlockedExchange(&v, 9), 5);
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 8), 9) << "no exchange on mismatch";
    EXPECT_EQ(v, 9);
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 9), 9);
    EXPECT_EQ(v, 1);
    int a = 0, b = 0;
    PVOID volatile p = &a;
    EXPECT_EQ(InterlockedExchangePointer(&p, &b), &a);
    EXPECT_EQ(InterlockedCompareExchangePointer(&p, nullptr, &a), &b);
    EXPECT_EQ(p, &b);
    EXPECT_EQ(InterlockedCompareExchangePointer(&p, nullptr, &b), &b);
    EXPECT_EQ(p, nullptr);
}

// ---------------------------------------------------------------------------
// Time, delays, timers and DPCs

struct DpcProbe {
    std::atomic<int> calls{0};
    std::atomic<int> irql{-1};
    std::atomic<PVOID> context{nullptr};
    std::atomic<int64_t> at{-1};
    std::vector<int>* order = nullptr;
    int id = 0;
    KTIMER* rearm = nullptr;
    KDPC* rearmDpc = nullptr;
    int rearmTimes = 0;
};

void NTAPI probeRoutine(PKDPC dpc, PVOID context, PVOID, PVOID) {
    auto* probe = static_cast<DpcProbe*>(context);
    probe->irql = KeGetCurrentIrql();
    probe->context = dpc->DeferredContext;
    probe->at = hostk::now100ns();
    if (probe->order)
        probe->order->push_back(probe->id);
    int n = ++probe->calls;
    if (probe->rearm && n < probe->rearmTimes)
        KeSetTimer(probe->rearm, relative100ns(1000), probe->rearmDpc);
}

struct TimerWithDpc {
    KTIMER timer;
    KDPC dpc;
    DpcProbe probe;
    TimerWithDpc() {
        KeInitializeTimer(&timer);
        KeInitializeDpc(&dpc, probeRoutine, &probe);
    }
};

// (Relative delays counted, and a delay's status: entry_test, in the driver's own wait.)
// A queued DPC is queued once (a second insertion while it waits is refused);
// targeted at its queueing thread it runs when that thread leaves
// DISPATCH_LEVEL, or at once from below it; otherwise on the DPC thread,
// which KeFlushQueuedDpcs waits for.
TEST(KernelDpc, QueuedOnceRunAtDispatchWhereTheTargetSays) {
    DpcProbe probe;
    KDPC dpc;
    KeInitializeDpc(&dpc, probeRoutine, &probe);
    hostk::setDpcTarget(&dpc, hostk::DpcTarget::QueueingThread);
    hostk::runAtDispatch([&] {
        EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
        EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
        EXPECT_EQ(probe.calls.load(), 0);
    });
    EXPECT_EQ(probe.calls.load(), 1) << "ran as the thread left DISPATCH_LEVEL";
    EXPECT_EQ(probe.irql.load(), DISPATCH_LEVEL);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_EQ(probe.calls.load(), 2) << "queued from passive level: at once";
    hostk::runAtDispatch([&] {
        KeInsertQueueDpc(&dpc, nullptr, nullptr);
        EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
        EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    });
    EXPECT_EQ(probe.calls.load(), 2);

    hostk::setDpcTarget(&dpc, hostk::DpcTarget::DpcThread);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    KeFlushQueuedDpcs();
    EXPECT_EQ(probe.calls.load(), 3);
    EXPECT_EQ(probe.irql.load(), DISPATCH_LEVEL);
    EXPECT_EQ(hostk::queuedDpcs(), 0u);
}

// Run-down protection: holders get in until a run-down begins; the wait
// returns once the last holder has left, and ReInitialize opens it again.
TEST(KernelRundown, TheWaitOutlastsEveryHolderAndShutsOutNewOnes) {
    EX_RUNDOWN_REF ref;
    ExInitializeRundownProtection(&ref);
    ASSERT_TRUE(ExAcquireRundownProtection(&ref));
    std::atomic<bool> waiting{false}, done{false};
    hostk::setRundownWaitObserver([&](PEX_RUNDOWN_REF) { waiting = true; });
    std::thread waiter([&] {
        ExWaitForRundownProtectionRelease(&ref);
        done = true;
    });
    while (!waiting.load())
        std::this_thread::yield();
    EXPECT_FALSE(ExAcquireRundownProtection(&ref)) << "no new holder once it runs down";
    EXPECT_FALSE(done.load());
    ExReleaseRundownProtection(&ref);
    waiter.join();
    EXPECT_TRUE(done.load());
    hostk::setRundownWaitObserver(nullptr);
    ExReInitializeRundownProtection(&ref);
    EXPECT_TRUE(ExAcquireRundownProtection(&ref));
    ExReleaseRundownProtection(&ref);
    ExWaitForRundownProtectionRelease(&ref); // nobody holds it: returns at once
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST(KernelTime, VirtualDelaysMoveTheClockAtOnceAndAbsoluteOnesToTheirTime) {
    ASSERT_TRUE(hostk::virtualTime());
    EXPECT_EQ(hostk::now100ns(), 0);
    LARGE_INTEGER interval = relative100ns(50000000); // 5 s
    auto wallStart = std::chrono::steady_clock::now();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_EQ(hostk::now100ns(), 50000000);
    // 5 virtual seconds must not take anything like 5 real ones.
    EXPECT_LT(std::chrono::steady_clock::now() - wallStart, std::chrono::seconds(2));

    LARGE_INTEGER absolute;
    absolute.QuadPart = hostk::now100ns() + 500;
    KeDelayExecutionThread(KernelMode, FALSE, &absolute);
    EXPECT_EQ(hostk::now100ns(), 50000500);
    absolute.QuadPart = 10; // in the past: no wait
    KeDelayExecutionThread(KernelMode, FALSE, &absolute);
    EXPECT_EQ(hostk::now100ns(), 50000500);
}

TEST(KernelTimer, FiresOnlyWhenAdvancedToItsDueTimeAtDispatch) {
    TimerWithDpc t;
    EXPECT_FALSE(KeSetTimer(&t.timer, relative100ns(10000), &t.dpc));
    EXPECT_TRUE(t.timer.Header.Inserted);
    EXPECT_EQ(hostk::pendingTimers(), 1u);

    LARGE_INTEGER interval = relative100ns(20000);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    EXPECT_EQ(t.probe.calls, 0) << "delays move the clock but run no DPC";

    hostk::advanceTime(0);
    EXPECT_EQ(t.probe.calls, 1);
    EXPECT_EQ(t.probe.irql, DISPATCH_LEVEL);
    EXPECT_EQ(t.probe.context.load(), &t.probe);
    EXPECT_FALSE(t.timer.Header.Inserted);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    KeSetTimer(&t.timer, relative100ns(1000), &t.dpc);
    hostk::advanceTime(999);
    EXPECT_EQ(t.probe.calls, 1);
    hostk::advanceTime(1);
    EXPECT_EQ(t.probe.calls, 2);
    EXPECT_EQ(t.probe.at, 20000 + 1000);
}

TEST(KernelTimer, SettingAPendingTimerReArmsAndCancelReportsWhetherItWasPending) {
    TimerWithDpc t;
    EXPECT_FALSE(KeCancelTimer(&t.timer));
    EXPECT_FALSE(KeSetTimer(&t.timer, relative100ns(1000), &t.dpc));
    hostk::advanceTime(600);
    EXPECT_TRUE(KeSetTimer(&t.timer, relative100ns(1000), &t.dpc));
    hostk::advanceTime(600);
    EXPECT_EQ(t.probe.calls, 0) << "re-armed from the second set";
    hostk::advanceTime(400);
    EXPECT_EQ(t.probe.calls, 1);
    EXPECT_EQ(t.probe.at, 1600);

    KeSetTimer(&t.timer, relative100ns(1000), &t.dpc);
    EXPECT_NE(hostk::checkClean().find("timers: 1 still pending"), std::string::npos);
    EXPECT_TRUE(KeCancelTimer(&t.timer));
    EXPECT_FALSE(KeCancelTimer(&t.timer));
    hostk::advanceTime(5000);
    EXPECT_EQ(t.probe.calls, 1);
}

TEST(KernelTimer, DueDpcsRunInDueOrderAndMayReArm) {
    std::vector<int> order;
    TimerWithDpc a, b, c;
    a.probe.order = b.probe.order = c.probe.order = &order;
    a.probe.id = 1;
    b.probe.id = 2;
    c.probe.id = 3;
    KeSetTimer(&a.timer, relative100ns(3000), &a.dpc);
    KeSetTimer(&b.timer, relative100ns(1000), &b.dpc);
    KeSetTimer(&c.timer, relative100ns(2000), &c.dpc);
    hostk::advanceTime(10000);
    EXPECT_EQ(order, (std::vector<int>{2, 3, 1}));
    EXPECT_EQ(b.probe.at, 1000);
    EXPECT_EQ(a.probe.at, 3000);
    EXPECT_EQ(hostk::now100ns(), 10000);

    // A DPC that re-arms its own timer runs again within the same advance.
    TimerWithDpc periodic;
    periodic.probe.rearm = &periodic.timer;
    periodic.probe.rearmDpc = &periodic.dpc;
    periodic.probe.rearmTimes = 4;
    KeSetTimer(&periodic.timer, relative100ns(1000), &periodic.dpc);
    hostk::advanceTime(3500);
    EXPECT_EQ(periodic.probe.calls, 3);
    hostk::advanceTime(10000);
    EXPECT_EQ(periodic.probe.calls, 4);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
}

TEST(KernelTimer, UninitialisedObjectsAndFreedPendingTimersAreViolations) {
    KTIMER raw{};
    KDPC rawDpc{};
    KeSetTimer(&raw, relative100ns(10), &rawDpc);
    auto failures = takeFailures();
    EXPECT_TRUE(anyContains(failures, "timer that was never initialised"));
    EXPECT_TRUE(anyContains(failures, "DPC that was never initialised"));
    KeCancelTimer(&raw);

    // A timer inside a pool block that is freed while pending.
    auto* block =
        static_cast<TimerWithDpc*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(TimerWithDpc), kTag));
    new (block) TimerWithDpc;
    KeSetTimer(&block->timer, relative100ns(100), &block->dpc);
    block->~TimerWithDpc();
    ExFreePoolWithTag(block, kTag);
    EXPECT_TRUE(anyContains(takeFailures(), "freed with pending timer"));
    EXPECT_EQ(hostk::pendingTimers(), 0u) << "dropped, so it cannot fire into freed memory";
    hostk::advanceTime(1000);
}

TEST(KernelTimer, SwitchingClocksKeepsTheRemainingTime) {
    TimerWithDpc t;
    KeSetTimer(&t.timer, relative100ns(600000000), &t.dpc); // 60 s
    hostk::advanceTime(100000000);                          // 10 s pass
    hostk::useVirtualTime(false);
    int64_t remaining = (int64_t)t.timer.DueTime.QuadPart - hostk::now100ns();
    EXPECT_GT(remaining, 490000000);
    EXPECT_LE(remaining, 500000000);
    hostk::useVirtualTime(true);
    KeCancelTimer(&t.timer);
    EXPECT_EQ(t.probe.calls, 0);
}

TEST(KernelRealTime, DelaysSleepAndTheTimerThreadRunsDpcsThatFlushWaitsFor) {
    hostk::useVirtualTime(false);
    auto start = std::chrono::steady_clock::now();
    LARGE_INTEGER interval = relative100ns(100000); // 10 ms
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));

    struct Shared {
        std::atomic<int> calls{0};
        std::atomic<bool> finished{false};
        std::atomic<int> irql{-1};
        std::atomic<PKTHREAD> thread{nullptr};
    } shared;
    KTIMER timer;
    KDPC dpc;
    KeInitializeTimer(&timer);
    KeInitializeDpc(
        &dpc,
        [](PKDPC, PVOID c, PVOID, PVOID) NTAPI {
            auto* s = static_cast<Shared*>(c);
            s->thread = KeGetCurrentThread();
            s->irql = KeGetCurrentIrql();
            ++s->calls;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            s->finished = true;
        },
        &shared);
    KeSetTimer(&timer, relative100ns(20000), &dpc); // 2 ms
    for (int i = 0; i < 5000 && shared.calls == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(shared.calls, 1);
    KeFlushQueuedDpcs();
    EXPECT_TRUE(shared.finished) << "the flush waits for a running DPC";
    EXPECT_EQ(shared.calls, 1);
    EXPECT_EQ(shared.irql, DISPATCH_LEVEL);
    EXPECT_NE(shared.thread.load(), KeGetCurrentThread());
    hostk::useVirtualTime(true);
}

// ---------------------------------------------------------------------------
// Device objects and object references

TEST(KernelDevice, CreatedObjectsAreLinkedZeroedAndCounted) {
    hostk::DriverObjectBlock block;
    PDRIVER_OBJECT driverObject = hostk::initDriverObject(block);
    DRIVER_OBJECT& driver = *driverObject;
    EXPECT_EQ(driver.DriverExtension, &block.extension);
    EXPECT_EQ(block.extension.DriverObject, &driver);

    PDEVICE_OBJECT first = hostk::createDeviceObject(&driver, 2, 64);
    PDEVICE_OBJECT second = hostk::createDeviceObject(&driver, 1, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(hostk::liveDeviceObjects(), 2u);
    EXPECT_EQ(first->StackSize, 2);
    EXPECT_EQ(first->DriverObject, &driver);
    EXPECT_EQ(first->ReferenceCount, 0);
    ASSERT_NE(first->DeviceExtension, nullptr);
    auto* extension = static_cast<unsigned char*>(first->DeviceExtension);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(extension[i], 0) << i;
    EXPECT_EQ(second->DeviceExtension, nullptr);
    EXPECT_EQ(driver.DeviceObject, second);
    EXPECT_EQ(second->NextDevice, first);
    EXPECT_EQ(hostk::createDeviceObject(&driver, 0, 0), nullptr);

    EXPECT_NE(hostk::checkClean().find("never deleted"), std::string::npos);
    hostk::deleteDeviceObject(second);
    EXPECT_EQ(driver.DeviceObject, first);
    hostk::deleteDeviceObject(first);
    EXPECT_EQ(driver.DeviceObject, nullptr);
    EXPECT_EQ(hostk::liveDeviceObjects(), 0u);
    hostk::deleteDeviceObject(first);
    EXPECT_TRUE(anyContains(takeFailures(), "not a live device object"));
}

TEST(KernelObjects, ReferencesCountAndMisuseIsAViolation) {
    PDEVICE_OBJECT device = hostk::createDeviceObject(nullptr, 1, 0);
    EXPECT_EQ(ObfDereferenceObject(device), 0);
    EXPECT_TRUE(anyContains(takeFailures(), "below zero"));
    EXPECT_EQ(device->ReferenceCount, 0);
    int notAnObject = 0;
    EXPECT_EQ(ObfReferenceObject(&notAnObject), 0);
    EXPECT_EQ(ObfDereferenceObject(&notAnObject), 0);
    EXPECT_EQ(takeFailures().size(), 2u);
    EXPECT_EQ(notAnObject, 0);

    EXPECT_EQ(ObfReferenceObject(device), 1);
    EXPECT_EQ(ObfReferenceObject(device), 2);
    EXPECT_EQ(device->ReferenceCount, 2);
    EXPECT_EQ(ObfDereferenceObject(device), 1);
    EXPECT_EQ(ObfDereferenceObject(device), 0);
    // (Deletion waiting for the last reference: verifier_test, on the USB driver's device.)
    hostk::deleteDeviceObject(device);
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

// ---------------------------------------------------------------------------
// IRPs

// A lower driver that completes with lowerStatus (or leaves the IRP), and an
// upper one that forwards to it with a completion routine of its own.
struct IoFixture : ::testing::Test {
    hostk::DriverObjectBlock lowerBlock, upperBlock;
    PDRIVER_OBJECT lowerDriver = nullptr, upperDriver = nullptr;
    PDEVICE_OBJECT lower = nullptr, upper = nullptr;

    static inline std::vector<std::string> log; // every dispatch and completion, in order
    static inline NTSTATUS lowerStatus;
    static inline bool lowerCompletes;

    void SetUp() override {
        log.clear();
        lowerStatus = STATUS_SUCCESS;
        lowerCompletes = true;
        lowerDriver = hostk::initDriverObject(lowerBlock);
        upperDriver = hostk::initDriverObject(upperBlock);
        lowerDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = lowerDispatch;
        upperDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = upperDispatch;
        lower = hostk::createDeviceObject(lowerDriver, 1, sizeof(PDEVICE_OBJECT));
        upper = hostk::createDeviceObject(upperDriver, 2, sizeof(PDEVICE_OBJECT));
        // The upper device forwards to the lower one.
        *static_cast<PDEVICE_OBJECT*>(upper->DeviceExtension) = lower;
    }
    void TearDown() override {
        hostk::deleteDeviceObject(upper);
        hostk::deleteDeviceObject(lower);
    }

    static NTSTATUS NTAPI lowerDispatch(PDEVICE_OBJECT device, PIRP irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        log.push_back("lower dispatch code " +
                      std::to_string(stack->Parameters.DeviceIoControl.IoControlCode) +
                      (stack->DeviceObject == device ? " own device" : " wrong device"));
        if (!lowerCompletes)
            return lowerStatus;
        irp->IoStatus.Status = lowerStatus == STATUS_PENDING ? STATUS_SUCCESS : lowerStatus;
        IoCompleteRequest(irp, 0);
        return lowerStatus;
    }

    static NTSTATUS NTAPI upperDispatch(PDEVICE_OBJECT device, PIRP irp) {
        log.push_back("upper dispatch");
        PDEVICE_OBJECT next = *static_cast<PDEVICE_OBJECT*>(device->DeviceExtension);
        PIO_STACK_LOCATION mine = IoGetCurrentIrpStackLocation(irp);
        PIO_STACK_LOCATION down = IoGetNextIrpStackLocation(irp);
        down->MajorFunction = mine->MajorFunction;
        down->Parameters = mine->Parameters;
        IoSetCompletionRoutine(irp, upperCompletion, device, TRUE, TRUE, TRUE);
        return IoCallDriver(next, irp);
    }

    static NTSTATUS NTAPI upperCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
        log.push_back(std::string("upper completion") +
                      (device == context ? " own device" : " wrong device") + " location " +
                      std::to_string(irp->CurrentLocation));
        return STATUS_SUCCESS;
    }

    static NTSTATUS NTAPI topCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
        log.push_back(std::string("top completion") + (device ? " with device" : " no device") +
                      " status " + std::to_string(irp->IoStatus.Status == STATUS_SUCCESS) +
                      (context ? " context" : ""));
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    // What the adapter does for each call, on a reused IRP.
    static void prepare(PIRP irp, ULONG code, PVOID buffer) {
        irp->IoStatus.Status = 0;
        irp->IoStatus.Information = 0;
        irp->UserBuffer = buffer;
        irp->Cancel = FALSE;
        IoSetCompletionRoutine(irp, topCompletion, nullptr, TRUE, TRUE, TRUE);
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        stack->Parameters.DeviceIoControl.IoControlCode = code;
    }
};

TEST_F(IoFixture, AllocatedIrpHasItsStackLocationsZeroedBelowTheCurrentOne) {
    PIRP irp = IoAllocateIrp(3, FALSE);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(hostk::liveIrps(), 1u);
    EXPECT_EQ(irp->StackCount, 3);
    EXPECT_EQ(irp->CurrentLocation, 4);
    auto* locations = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
    EXPECT_EQ(IoGetCurrentIrpStackLocation(irp), locations + 3);
    EXPECT_EQ(IoGetNextIrpStackLocation(irp), locations + 2);
    auto* bytes = reinterpret_cast<unsigned char*>(locations);
    for (size_t i = 0; i < 3 * sizeof(IO_STACK_LOCATION); ++i)
        ASSERT_EQ(bytes[i], 0) << i;
    EXPECT_EQ(irp->UserBuffer, nullptr);
    EXPECT_EQ(irp->IoStatus.Status, 0);
    EXPECT_NE(hostk::checkClean().find("never freed"), std::string::npos);
    IoFreeIrp(irp);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(IoAllocateIrp(0, FALSE), nullptr);
    // (IRPs from the pool with tag 'Irp ' and failing with it: alloc_sweep_test.)
}

TEST_F(IoFixture, CallReachesTheDispatchRoutineAndCompletionRunsBottomUpAndRestoresTheIrp) {
    PIRP irp = IoAllocateIrp(lower->StackSize, FALSE);
    int record = 0;
    for (ULONG code : {0u, 4u, 5u}) {
        prepare(irp, code, &record);
        EXPECT_EQ(IoCallDriver(lower, irp), STATUS_SUCCESS);
        EXPECT_EQ(irp->CurrentLocation, 2) << "back where it was allocated";
        EXPECT_EQ(irp->UserBuffer, &record);
    }
    EXPECT_EQ(log, (std::vector<std::string>{
                       "lower dispatch code 0 own device", "top completion no device status 1",
                       "lower dispatch code 4 own device", "top completion no device status 1",
                       "lower dispatch code 5 own device", "top completion no device status 1"}));
    // Completion cleared the parameters of the location it left.
    EXPECT_EQ(IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode, 0u);
    IoFreeIrp(irp);

    // Through a forwarding driver, completion runs bottom up with each setter's device.
    log.clear();
    irp = IoAllocateIrp(upper->StackSize, FALSE);
    prepare(irp, 3, nullptr);
    EXPECT_EQ(IoCallDriver(upper, irp), STATUS_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"upper dispatch", "lower dispatch code 3 own device",
                                             "upper completion own device location 2",
                                             "top completion no device status 1"}));
    EXPECT_EQ(irp->CurrentLocation, 3);
    IoFreeIrp(irp);
}

TEST_F(IoFixture, CompletionRoutinesRunOnlyForTheirOutcome) {
    lowerStatus = STATUS_UNSUCCESSFUL;
    for (int variant = 0; variant < 3; ++variant) {
        PIRP irp = IoAllocateIrp(1, FALSE);
        log.clear();
        prepare(irp, 1, nullptr);
        // success only / error only / cancel only
        IoSetCompletionRoutine(irp, topCompletion, irp, variant == 0, variant == 1, variant == 2);
        irp->Cancel = variant == 2;
        IoCallDriver(lower, irp);
        bool ran = log.size() == 2;
        EXPECT_EQ(ran, variant != 0) << variant;
        if (ran) {
            IoFreeIrp(irp);
            continue;
        }
        // Without a routine that stops it, completion ran past the top: the
        // I/O manager finished the driver's own IRP, as Windows would.
        EXPECT_EQ(hostk::liveIrps(), 0u);
        ASSERT_EQ(hostk::verifierFailures().size(), 1u);
        EXPECT_NE(hostk::verifierFailures()[0].find("completed past its top location"),
                  std::string::npos);
        hostk::clearVerifierFailures();
    }
}

TEST_F(IoFixture, MissingDispatchCompletesWithInvalidDeviceRequest) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    prepare(irp, 0, nullptr);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_CREATE;
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(log, std::vector<std::string>{"top completion no device status 0"});
    EXPECT_EQ(irp->CurrentLocation, 2);
    IoFreeIrp(irp);
}

TEST_F(IoFixture, PendingIsAllowedButMisuseIsRecordedNotFatal) {
    PIRP irp = IoAllocateIrp(2, FALSE);
    lowerStatus = STATUS_PENDING; // completes, then says pending
    prepare(irp, 2, nullptr);
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_PENDING);
    EXPECT_TRUE(hostk::verifierFailures().empty());

    lowerCompletes = false;
    lowerStatus = STATUS_SUCCESS;
    prepare(irp, 2, nullptr);
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_SUCCESS);
    EXPECT_TRUE(anyContains(takeFailures(), "without completing the IRP"));
    IoFreeIrp(irp);

    irp = IoAllocateIrp(1, FALSE);
    lowerStatus = STATUS_PENDING;
    prepare(irp, 0, nullptr);
    IoCallDriver(lower, irp); // left in the lower driver, no location left
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(anyContains(takeFailures(), "no more IRP stack locations"));

    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, 0);
    IoCompleteRequest(irp, 0);
    EXPECT_TRUE(anyContains(takeFailures(), "completed twice"));

    ExFreePoolWithTag(irp, 0);
    EXPECT_TRUE(anyContains(takeFailures(), "use IoFreeIrp"));
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    EXPECT_TRUE(anyContains(takeFailures(), "not a live IRP"));
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(takeFailures().size(), 1u);
}

// ---------------------------------------------------------------------------
// Test boundaries

TEST(KernelReset, ResetStartsAFreshTestButKeepsOlderBlocksOutOfItsCounts) {
    void* older = ExAllocatePoolWithTag(NonPagedPool, 12, kTag);
    char expression[] = "x";
    char file[] = "f";
    RtlAssert(expression, file, 1, nullptr);
    hostk::failAllocation(5);
    hostk::setSinkNull();
    hostk::advanceTime(777);

    hostk::resetForTest();
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);
    EXPECT_EQ(hostk::leakReport(), "");
    EXPECT_TRUE(hostk::assertReports().empty());
    EXPECT_EQ(hostk::now100ns(), 0);
    EXPECT_TRUE(hostk::virtualTime());
    DbgPrint("captured again\n");
    EXPECT_EQ(hostk::capturedLines(), std::vector<std::string>{"captured again"});
    for (int i = 0; i < 5; ++i) {
        void* p = ExAllocatePoolWithTag(NonPagedPool, 1, kTag);
        ASSERT_NE(p, nullptr) << "fault injection was disarmed";
        ExFreePoolWithTag(p, kTag);
    }
    // Freeing the older block is still a valid free.
    ExFreePoolWithTag(older, kTag);
    EXPECT_EQ(hostk::checkClean(), "");
}

// ---------------------------------------------------------------------------
// Under ThreadSanitizer too

TEST(KernelConcurrency, SpinLockGivesMutualExclusion) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    long counter = 0; // plain memory, guarded only by the spin lock
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                long seen = counter;
                counter = seen + 1;
                KeReleaseSpinLock(&lock, old);
            }
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, 4 * 5000);
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST(KernelConcurrency, CancelThenFlushMeansNoDpcTouchesAFreedObject) {
    hostk::useVirtualTime(false);
    struct Object {
        KTIMER timer;
        KDPC dpc;
        long touched;
    };
    for (int round = 0; round < 200; ++round) {
        auto* object =
            static_cast<Object*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Object), kTag));
        ASSERT_NE(object, nullptr);
        object->touched = 0;
        KeInitializeTimer(&object->timer);
        KeInitializeDpc(
            &object->dpc,
            [](PKDPC, PVOID c, PVOID, PVOID) NTAPI { ++static_cast<Object*>(c)->touched; }, object);
        KeSetTimer(&object->timer, relative100ns(round % 3 == 0 ? 0 : 1000), &object->dpc);
        if (round % 2)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        // The adapter's teardown order: cancel, wait out a running DPC, free.
        KeCancelTimer(&object->timer);
        KeFlushQueuedDpcs();
        ExFreePoolWithTag(object, kTag);
    }
    EXPECT_TRUE(hostk::verifierFailures().empty());
    hostk::useVirtualTime(true);
}

TEST(KernelConcurrency, DbgPrintFromManyThreadsKeepsEachTextWhole) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i)
                DbgPrint("thread %d line %d with some text after it\n", t, i);
        });
    for (auto& t : threads)
        t.join();
    auto lines = hostk::capturedLines();
    ASSERT_EQ(lines.size(), 6u * 300u);
    int next[6] = {};
    for (const auto& line : lines) {
        int t = -1, i = -1;
        char tail[64] = {};
        ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d %63[^\n]", &t, &i, tail), 3) << line;
        ASSERT_EQ(std::string(tail), "with some text after it") << line;
        ASSERT_TRUE(t >= 0 && t < 6);
        EXPECT_EQ(i, next[t]++) << "per-thread order kept";
    }
}

} // namespace
