// The host kernel is as strict as Windows: each rule the verifier enforces
// reports its violation, what a test leaves behind fails it, each refusal
// is the kernel's, and the behaviour the driver relies on (formatting,
// IRQL, IRP completion, DPCs, timers, run-down) is the kernel's own.
#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>
#include <thread>

namespace {

constexpr ULONG kTag = 0x74736554; // 'Test'

uint64_t slot(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

LARGE_INTEGER relative100ns(LONGLONG delay) {
    LARGE_INTEGER due;
    due.QuadPart = -delay;
    return due;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const auto& t : texts)
        all += t + "\n";
    return all;
}

// A timer with a DPC that counts its calls and notes when and at what IRQL.
struct TimerWithDpc {
    KTIMER timer;
    KDPC dpc;
    int calls = 0, irql = -1, rearms = 0;
    int64_t at = -1;
    std::vector<int>* order = nullptr;
    int id = 0;
    TimerWithDpc() {
        KeInitializeTimer(&timer);
        KeInitializeDpc(&dpc, routine, this);
    }
    static void NTAPI routine(PKDPC, PVOID context, PVOID, PVOID) {
        auto* t = static_cast<TimerWithDpc*>(context);
        t->irql = KeGetCurrentIrql();
        t->at = hostk::now100ns();
        if (t->order)
            t->order->push_back(t->id);
        if (++t->calls < t->rearms)
            KeSetTimer(&t->timer, relative100ns(1000), &t->dpc);
    }
};

// DbgPrint is a Windows x64 variadic routine: every argument fills an 8-byte
// slot, and the format alone decides how much of it is read. Rules: the
// Microsoft C runtime's format specification (long is 32 bits; I, I32, I64,
// w, h prefixes), the kernel's %Z/%wZ, and %p as x64 Windows prints it.
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
        {"%ld|%d", 0x1234567800000005, 7, 0, 0, "5|7"},
        {"%lx %lu", 0xFFFFFFFF00000010, 0x100000005, 0, 0, "10 5"},
        {"%d %u", 0xFFFFFFFF, 0x1FFFFFFFF, 0, 0, "-1 4294967295"},
        {"%I32x", 0xAAAAAAAA00000001, 0, 0, 0, "1"},
        {"%hd %hhu", 70000, 257, 0, 0, "4464 1"},
        {"%I64x %I64X %I64d", 0x123456789ABCDEF0, 0x123456789ABCDEF0, uint64_t(-5), 0,
         "123456789abcdef0 123456789ABCDEF0 -5"},
        {"%llu %lld", UINT64_MAX, uint64_t(-2), 0, 0, "18446744073709551615 -2"},
        {"%Id %Ix %zu", uint64_t(-5), 0x1122334455667788, 1ull << 40, 0,
         "-5 1122334455667788 1099511627776"},
        {"[%p]", pointer, 0, 0, 0, "[0000561D2C3A9F10]"},
        {"0x%16p %p", pointer, 0, 0, 0, "0x0000561D2C3A9F10 0000000000000000"},
        {"%20p|%-18p|", pointer, pointer, 0, 0, "    0000561D2C3A9F10|0000561D2C3A9F10  |"},
        {"%08X|%X %x", 0xC000009A, 0xABCDEF, 0xABCDEF, 0, "C000009A|ABCDEF abcdef"},
        {"%5d|%-5d|%05d", 42, 42, uint64_t(-42), 0, "   42|42   |-0042"},
        {"%+d % d %.4d", 7, 7, 7, 0, "+7  7 0007"},
        {"%#x %#X %#o", 255, 255, 8, 0, "0xff 0XFF 010"},
        {"%*d|%-*d|", 4, 1, 3, 2, "   1|2  |"},
        {"%s|%8s|%-8s|%.3s", slot(abc), slot(abc), slot(abc), slot(abcdef),
         "abc|     abc|abc     |abc"},
        {"%s %ws", 0, 0, 0, 0, "(null) (null)"},
        {"%ws %S %ls %hS", slot(wide), slot(text), slot(wide), slot(abc), "wide text wide abc"},
        {"%c%wc%C%hC", 'o', 'k', '!', '?', "ok!?"},
        {"%ws", slot(accented), 0, 0, 0, "?t?"}, // no ANSI form: '?'
        {"%wZ|%Z|%wZ", slot(&wave), slot(&ansi), 0, 0, "Wave|ab|(null)"},
        {"100%% a%qb tail%", 0, 0, 0, 0, "100% a%qb tail%"},
        {"a%nb%d", slot(abc), 3, 0, 0, "ab3"}, // %n writes nothing
    };
    for (const Case& c : cases) {
        std::string printed;
        hostk::setSinkCallback([&](const std::string& t) { printed += t; });
        DbgPrint(c.format, c.a, c.b, c.c, c.d);
        hostk::setSinkCapture();
        EXPECT_EQ(printed, c.expected) << c.format;
    }
    EXPECT_STREQ(abc, "abc");
}

// Exactly one verifier report since the last check, naming the rule.
void expectReport(const char* rule) {
    const std::vector<std::string> reports = hostk::verifierFailures();
    hostk::clearVerifierFailures();
    ASSERT_EQ(reports.size(), 1u) << rule << "\n" << joined(reports);
    EXPECT_NE(reports[0].find(rule), std::string::npos) << reports[0];
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << rule;
}

TEST(KernelVerifier, EachRuleReportsItsViolation) {
    // The DbgPrint documentation: Unicode conversions at PASSIVE_LEVEL only.
    hostk::runAtDispatch([] { DbgPrint("%ws %s\n", u"w", "narrow"); });
    expectReport("Unicode conversion above PASSIVE_LEVEL: %ws");
    int onStack = 0;
    ExFreePoolWithTag(&onStack, 0);
    expectReport("not a live block");
    void* p = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
    ExFreePoolWithTag(p, kTag);
    ExFreePoolWithTag(p, kTag);
    expectReport("not a live block");
    ExFreePoolWithTag(nullptr, 0);
    expectReport("ExFreePoolWithTag of a NULL pointer");
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 16, kTag), 0x72656874);
    expectReport("of a block tagged 'Test'");
    PIRP irp = IoAllocateIrp(1, FALSE);
    ExFreePoolWithTag(irp, 0);
    expectReport("use IoFreeIrp");
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    expectReport("not a live IRP");
    {
        hostk::NoAllocNoWaitScope scope("period callback");
        ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 4, kTag), kTag);
        expectReport("pool allocation of 4 bytes inside period callback");
        {
            hostk::NoAllocNoWaitScope inner("inner region");
            IoFreeIrp(IoAllocateIrp(1, FALSE));
            expectReport("IoAllocateIrp inside inner region");
        }
        LARGE_INTEGER interval = relative100ns(10);
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        expectReport("KeDelayExecutionThread (a blocking wait) inside period callback");
    }
    KIRQL old, again;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeRaiseIrql(PASSIVE_LEVEL, &again);
    KeLowerIrql(PASSIVE_LEVEL);
    expectReport("KeRaiseIrql to");
    KeLowerIrql(DISPATCH_LEVEL);
    expectReport("KeLowerIrql to");
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeAcquireSpinLockAtDpcLevel(&lock);
    hostk::runAtDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock); });
    expectReport("KeAcquireSpinLockAtDpcLevel called at PASSIVE_LEVEL");
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLock(&lock, &again);
    KeReleaseSpinLock(&lock, old);
    expectReport("spin lock already held by this thread");
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    expectReport("spin lock is not held");
    {
        TimerWithDpc t;
        KTIMER rawTimer{};
        KDPC rawDpc{};
        KeSetTimer(&rawTimer, relative100ns(10), &t.dpc);
        KeCancelTimer(&rawTimer);
        expectReport("timer that was never initialised");
        KeSetTimer(&t.timer, relative100ns(10), &rawDpc);
        KeCancelTimer(&t.timer);
        expectReport("DPC that was never initialised");
    }
    void* block = ExAllocatePoolWithTag(NonPagedPool, sizeof(TimerWithDpc), kTag);
    auto* pending = new (block) TimerWithDpc;
    KeSetTimer(&pending->timer, relative100ns(100), &pending->dpc);
    pending->~TimerWithDpc();
    ExFreePoolWithTag(block, kTag);
    hostk::advanceTime(1000); // dropped: it cannot fire into freed memory
    expectReport("freed with pending timer");
    PDEVICE_OBJECT device = hostk::createDeviceObject(nullptr, 1, 0);
    ObfDereferenceObject(device);
    expectReport("below zero references");
    hostk::deleteDeviceObject(device);
    hostk::deleteDeviceObject(device);
    expectReport("not a live device object");
    ObfReferenceObject(&onStack);
    expectReport("ObfReferenceObject of");
    ObfDereferenceObject(&onStack);
    expectReport("ObfDereferenceObject of");
    EX_RUNDOWN_REF ref;
    ExInitializeRundownProtection(&ref);
    ExReleaseRundownProtection(&ref);
    expectReport("ExReleaseRundownProtection without a matching acquire");
    ExInitializeRundownProtection(&ref);
    ExWaitForRundownProtectionRelease(&ref);
    ExWaitForRundownProtectionRelease(&ref);
    expectReport("ExWaitForRundownProtectionRelease twice on one run-down");

    // Within the rules: no report.
    hostk::runAtDispatch([&] {
        DbgPrint("%s %d\n", "narrow", 1);
        KeAcquireSpinLockAtDpcLevel(&lock);
        KeReleaseSpinLockFromDpcLevel(&lock);
        KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock));
    });
    DbgPrint("%ws\n", u"w");
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(hostk::verifierFailures().empty()) << joined(hostk::verifierFailures());
}

// What a test leaves behind is named at its end, so it fails the test.
TEST(KernelClean, WhatATestLeavesBehindIsReported) {
    auto expectNamed = [](const char* text) {
        const std::string problems = hostk::checkClean();
        EXPECT_NE(problems.find(text), std::string::npos) << problems;
    };
    void* p = ExAllocatePoolWithTag(NonPagedPool, 40, kTag);
    expectNamed("1 live block(s), 40 byte(s)");
    ExFreePoolWithTag(p, kTag);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    expectNamed("IRQL 2");
    KeLowerIrql(old);
    TimerWithDpc t;
    KeSetTimer(&t.timer, relative100ns(1000), &t.dpc);
    expectNamed("timers: 1 still pending");
    EXPECT_TRUE(KeCancelTimer(&t.timer));
    PDEVICE_OBJECT device = hostk::createDeviceObject(nullptr, 1, 0);
    expectNamed("never deleted");
    hostk::deleteDeviceObject(device);
    PIRP irp = IoAllocateIrp(1, FALSE);
    expectNamed("never freed");
    IoFreeIrp(irp);
    // The kernel's assertion report: expression, file and line, then on.
    char expression[] = "Irp->CurrentLocation > 0", file[] = "MMEAdapter";
    RtlAssert(expression, file, 321, nullptr);
    expectNamed("Irp->CurrentLocation > 0");
    EXPECT_EQ(hostk::capturedLines(),
              (std::vector<std::string>{"*** Assertion failed: Irp->CurrentLocation > 0",
                                        "***   Source File: MMEAdapter, line 321"}));
    hostk::clearAssertReports();
    EXPECT_EQ(hostk::checkClean(), "");
}

TEST(KernelRefusals, WhatTheKernelRefuses) {
    hostk::DriverObjectBlock block;
    PDRIVER_OBJECT driver = hostk::initDriverObject(block);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, SIZE_MAX / 2, kTag), nullptr);
    EXPECT_EQ(IoAllocateIrp(0, FALSE), nullptr);
    EXPECT_EQ(hostk::createDeviceObject(driver, 0, 0), nullptr);
    EXPECT_THROW(hostk::setSinkFile("/nonexistent-dir/x/trace.log"), std::runtime_error);
    DbgPrint("still captured\n");
    EXPECT_EQ(hostk::capturedLines(), std::vector<std::string>{"still captured"});
    volatile LONG v = 9;
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 8), 9) << "no exchange on a mismatch";
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 9), 9);
    EXPECT_EQ(v, 1);
}

// ---------------------------------------------------------------------------
// IRPs: a lower driver that completes with lowerStatus, or leaves the IRP.

struct IoFixture : ::testing::Test {
    hostk::DriverObjectBlock block;
    PDEVICE_OBJECT lower = nullptr;
    static inline std::vector<std::string> log;
    static inline NTSTATUS lowerStatus = STATUS_SUCCESS;
    static inline bool lowerCompletes = true;

    void SetUp() override {
        log.clear();
        lowerStatus = STATUS_SUCCESS;
        lowerCompletes = true;
        PDRIVER_OBJECT driver = hostk::initDriverObject(block);
        driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = lowerDispatch;
        lower = hostk::createDeviceObject(driver, 1, 0);
    }
    void TearDown() override { hostk::deleteDeviceObject(lower); }

    static NTSTATUS NTAPI lowerDispatch(PDEVICE_OBJECT device, PIRP irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        log.push_back("lower code " +
                      std::to_string(stack->Parameters.DeviceIoControl.IoControlCode) +
                      (stack->DeviceObject == device ? " own device" : " wrong device"));
        if (!lowerCompletes)
            return lowerStatus;
        irp->IoStatus.Status = lowerStatus == STATUS_PENDING ? STATUS_SUCCESS : lowerStatus;
        IoCompleteRequest(irp, 0);
        return lowerStatus;
    }
    static NTSTATUS NTAPI topCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID) {
        log.push_back(std::string("top completion") + (device ? " with device" : "") + " status " +
                      std::to_string(irp->IoStatus.Status == STATUS_SUCCESS) + " location " +
                      std::to_string(irp->CurrentLocation));
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    // What the adapter does for each call, on a reused IRP.
    static void prepare(PIRP irp, ULONG code) {
        irp->IoStatus.Status = 0;
        irp->Cancel = FALSE;
        IoSetCompletionRoutine(irp, topCompletion, nullptr, TRUE, TRUE, TRUE);
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        stack->Parameters.DeviceIoControl.IoControlCode = code;
    }
};

// A reused IRP: each call reaches the dispatch routine with its own device,
// completion runs the caller's routine and leaves the IRP where it was
// allocated, the parameters of the location it left cleared.
TEST_F(IoFixture, CompletionLeavesTheIrpWhereItWasAllocated) {
    PIRP irp = IoAllocateIrp(2, FALSE);
    EXPECT_EQ(irp->CurrentLocation, 3);
    for (ULONG code : {3u, 4u}) {
        prepare(irp, code);
        EXPECT_EQ(IoCallDriver(lower, irp), STATUS_SUCCESS);
        EXPECT_EQ(irp->CurrentLocation, 3);
    }
    EXPECT_EQ(log, (std::vector<std::string>{
                       "lower code 3 own device", "top completion status 1 location 3",
                       "lower code 4 own device", "top completion status 1 location 3"}));
    EXPECT_EQ(IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode, 0u);
    IoFreeIrp(irp);
}

TEST_F(IoFixture, CompletionRoutinesRunOnlyForTheirOutcome) {
    lowerStatus = STATUS_UNSUCCESSFUL;
    for (int variant = 0; variant < 3; ++variant) { // success / error / cancel only
        SCOPED_TRACE(variant);
        PIRP irp = IoAllocateIrp(1, FALSE);
        log.clear();
        prepare(irp, 1);
        IoSetCompletionRoutine(irp, topCompletion, irp, variant == 0, variant == 1, variant == 2);
        irp->Cancel = variant == 2;
        IoCallDriver(lower, irp);
        if (variant != 0) {
            EXPECT_EQ(log.size(), 2u);
            IoFreeIrp(irp);
            continue;
        }
        // Nothing stopped it: completion ran past the top and the I/O manager
        // finished the driver's own IRP, as Windows would.
        EXPECT_EQ(log.size(), 1u);
        EXPECT_EQ(hostk::liveIrps(), 0u);
        ASSERT_EQ(hostk::verifierFailures().size(), 1u);
        EXPECT_NE(hostk::verifierFailures()[0].find("completed past its top location"),
                  std::string::npos);
        hostk::clearVerifierFailures();
    }
}

TEST_F(IoFixture, MisuseIsReportedAndAMissingDispatchRefused) {
    PIRP irp = IoAllocateIrp(2, FALSE);
    prepare(irp, 0);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_CREATE;
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(log, std::vector<std::string>{"top completion status 0 location 3"});

    lowerStatus = STATUS_PENDING; // completes, then says pending: allowed
    prepare(irp, 2);
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_PENDING);
    EXPECT_TRUE(hostk::verifierFailures().empty());

    IoFreeIrp(irp);
    irp = IoAllocateIrp(1, FALSE);
    lowerCompletes = false;
    lowerStatus = STATUS_SUCCESS;
    prepare(irp, 0);
    IoCallDriver(lower, irp);
    expectReport("without completing the IRP");
    prepare(irp, 0);
    IoCallDriver(lower, irp); // the call before left it one location down
    expectReport("no more IRP stack locations");
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, 0);
    IoCompleteRequest(irp, 0);
    expectReport("completed twice");
    IoFreeIrp(irp);
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_PARAMETER);
    expectReport("not a live IRP");
}

// ---------------------------------------------------------------------------
// DPCs, time, timers and run-down

// A DPC is queued once; aimed at its queueing thread it runs as that thread
// leaves DISPATCH_LEVEL (at once from below it), otherwise on the DPC thread,
// which KeFlushQueuedDpcs waits for.
TEST(KernelDpc, QueuedOnceRunAtDispatchWhereTheTargetSays) {
    TimerWithDpc probe;
    hostk::setDpcTarget(&probe.dpc, hostk::DpcTarget::QueueingThread);
    hostk::runAtDispatch([&] {
        EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, nullptr, nullptr));
        EXPECT_FALSE(KeInsertQueueDpc(&probe.dpc, nullptr, nullptr));
        EXPECT_EQ(probe.calls, 0);
    });
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.irql, DISPATCH_LEVEL);
    EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, nullptr, nullptr));
    EXPECT_EQ(probe.calls, 2);
    hostk::setDpcTarget(&probe.dpc, hostk::DpcTarget::DpcThread);
    EXPECT_TRUE(KeInsertQueueDpc(&probe.dpc, nullptr, nullptr));
    KeFlushQueuedDpcs();
    EXPECT_EQ(probe.calls, 3);
    EXPECT_EQ(probe.irql, DISPATCH_LEVEL);
}

TEST(KernelTimer, FireInDueOrderAtDispatchOnlyWhenTimeIsAdvanced) {
    LARGE_INTEGER interval = relative100ns(50000000); // 5 virtual seconds, no real wait
    const auto wallStart = std::chrono::steady_clock::now();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_EQ(hostk::now100ns(), 50000000);
    EXPECT_LT(std::chrono::steady_clock::now() - wallStart, std::chrono::seconds(2));
    LARGE_INTEGER absolute;
    absolute.QuadPart = 10; // in the past: no wait
    KeDelayExecutionThread(KernelMode, FALSE, &absolute);
    EXPECT_EQ(hostk::now100ns(), 50000000);

    std::vector<int> order;
    TimerWithDpc a, b, c;
    int id = 0;
    for (TimerWithDpc* t : {&a, &b, &c})
        t->order = &order, t->id = ++id;
    const int64_t start = hostk::now100ns();
    EXPECT_FALSE(KeSetTimer(&a.timer, relative100ns(3000), &a.dpc));
    KeSetTimer(&b.timer, relative100ns(1000), &b.dpc);
    KeSetTimer(&c.timer, relative100ns(500), &c.dpc);
    EXPECT_TRUE(KeSetTimer(&c.timer, relative100ns(2000), &c.dpc)) << "re-armed";
    interval = relative100ns(20000);
    KeDelayExecutionThread(KernelMode, FALSE, &interval); // moves the clock, runs no DPC
    EXPECT_TRUE(order.empty());
    hostk::advanceTime(0);
    EXPECT_EQ(order, (std::vector<int>{2, 3, 1}));
    EXPECT_EQ(a.irql, DISPATCH_LEVEL);

    // Due one tick later, not earlier; a DPC may re-arm its own timer.
    a.rearms = 4;
    KeSetTimer(&a.timer, relative100ns(1000), &a.dpc);
    hostk::advanceTime(999);
    EXPECT_EQ(a.calls, 1);
    hostk::advanceTime(1);
    EXPECT_EQ(a.calls, 2);
    EXPECT_EQ(a.at, start + 20000 + 1000);
    hostk::advanceTime(10000);
    EXPECT_EQ(a.calls, 4);

    EXPECT_FALSE(KeCancelTimer(&b.timer));
    KeSetTimer(&b.timer, relative100ns(1000), &b.dpc);
    EXPECT_TRUE(KeCancelTimer(&b.timer));
    hostk::advanceTime(5000);
    EXPECT_EQ(b.calls, 1);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
}

// Holders get in until a run-down begins; the wait outlasts the last one.
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
    EXPECT_FALSE(ExAcquireRundownProtection(&ref));
    EXPECT_FALSE(done.load());
    ExReleaseRundownProtection(&ref);
    waiter.join();
    hostk::setRundownWaitObserver(nullptr);
    ExReInitializeRundownProtection(&ref);
    EXPECT_TRUE(ExAcquireRundownProtection(&ref));
    ExReleaseRundownProtection(&ref);
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
                counter = counter + 1;
                KeReleaseSpinLock(&lock, old);
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, 4 * 5000);
}

// The adapter's teardown order, against a real-time timer: cancel, wait
// out a running DPC, free.
TEST(KernelConcurrency, CancelThenFlushMeansNoDpcTouchesAFreedObject) {
    hostk::useVirtualTime(false);
    for (int round = 0; round < 200; ++round) {
        void* block = ExAllocatePoolWithTag(NonPagedPool, sizeof(TimerWithDpc), kTag);
        auto* t = new (block) TimerWithDpc;
        KeSetTimer(&t->timer, relative100ns(round % 3 == 0 ? 0 : 1000), &t->dpc);
        if (round % 2)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        KeCancelTimer(&t->timer);
        KeFlushQueuedDpcs();
        t->~TimerWithDpc();
        ExFreePoolWithTag(block, kTag);
    }
    EXPECT_TRUE(hostk::verifierFailures().empty());
    hostk::useVirtualTime(true);
}

} // namespace
