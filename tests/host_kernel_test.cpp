// The host kernel is as strict as Windows: each rule the verifier enforces
// reports its violation, what a test leaves behind fails it, each refusal is
// the kernel's, and DbgPrint formats as the kernel does.
#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>

namespace {

constexpr ULONG kTag = 0x74736554;    // 'Test'
LARGE_INTEGER soon{{0xFFFFFFF6, -1}}; // -10: relative, 1 us

void NTAPI noDpcWork(PKDPC, PVOID, PVOID, PVOID) {}

// DbgPrint is a Windows x64 variadic routine: every argument fills an 8-byte
// slot, and the format alone decides how much of it is read. Rules: the
// Microsoft C runtime's format specification (long is 32 bits; I, I32, I64,
// w, h prefixes), the kernel's %Z/%wZ, and %p as x64 Windows prints it.
TEST(KernelFormat, ArgumentsAreReadAndPrintedAsWindowsDoes) {
    static char abc[] = "abc", abcdef[] = "abcdef";
    static WCHAR wide[] = u"wide", text[] = u"text";
    static WCHAR accented[] = u"\u00e9t\u00e9", waveBuffer[] = u"Wave!";
    static UNICODE_STRING wave{8, 10, waveBuffer};                      // Length in bytes: "Wave"
    static UNICODE_STRING ansi{2, 6, reinterpret_cast<WCHAR*>(abcdef)}; // a STRING's layout
    auto slot = [](const void* p) { return uint64_t(reinterpret_cast<uintptr_t>(p)); };
    const uint64_t ptr = 0x561D2C3A9F10;
    struct Case {
        const char* format;
        uint64_t a, b, c, d;
        const char* expected;
    } cases[] = {
        {"%ld|%d %lx %lu", 0x1234567800000005, 7, 0xFFFFFFFF00000010, 0x100000005, "5|7 10 5"},
        {"%d %u %hd %hhu", 0xFFFFFFFF, 0x1FFFFFFFF, 70000, 257, "-1 4294967295 4464 1"},
        {"%I64x %I64X %I64d", 0x123456789ABCDEF0, 0x123456789ABCDEF0, uint64_t(-5), 0,
         "123456789abcdef0 123456789ABCDEF0 -5"},
        {"%llu %lld %I32x", UINT64_MAX, uint64_t(-2), 0xAAAAAAAA00000001, 0,
         "18446744073709551615 -2 1"},
        {"%Id %Ix %zu", uint64_t(-5), 0x1122334455667788, 1ull << 40, 0,
         "-5 1122334455667788 1099511627776"},
        {"[%p] 0x%16p %p", ptr, ptr, 0, 0,
         "[0000561D2C3A9F10] 0x0000561D2C3A9F10 0000000000000000"},
        {"%20p|%-18p|", ptr, ptr, 0, 0, "    0000561D2C3A9F10|0000561D2C3A9F10  |"},
        {"%08X|%X %x", 0xC000009A, 0xABCDEF, 0xABCDEF, 0, "C000009A|ABCDEF abcdef"},
        {"%5d|%-5d|%05d", 42, 42, uint64_t(-42), 0, "   42|42   |-0042"},
        {"%+d % d %.4d", 7, 7, 7, 0, "+7  7 0007"},
        {"%#x %#X %#o", 255, 255, 8, 0, "0xff 0XFF 010"},
        {"%*d|%-*d|", 4, 1, 3, 2, "   1|2  |"},
        {"%s|%8s|%-8s|%.3s", slot(abc), slot(abc), slot(abc), slot(abcdef),
         "abc|     abc|abc     |abc"},
        {"%s %ws %ws", 0, 0, slot(accented), 0, "(null) (null) ?t?"}, // no ANSI form: '?'
        {"%ws %S %ls %hS", slot(wide), slot(text), slot(wide), slot(abc), "wide text wide abc"},
        {"%c%wc%C%hC", 'o', 'k', '!', '?', "ok!?"},
        {"%wZ|%Z|%wZ", slot(&wave), slot(&ansi), 0, 0, "Wave|ab|(null)"},
        {"a%nb%d 100%% a%qb tail%", slot(abc), 3, 0, 0, "ab3 100% a%qb tail%"}, // %n writes nothing
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

// Exactly the reports named, in order, since the last check.
void expectReports(const std::vector<std::string>& rules) {
    const std::vector<std::string> reports = hostk::verifierFailures();
    hostk::clearVerifierFailures();
    ASSERT_EQ(reports.size(), rules.size()) << ::testing::PrintToString(reports);
    for (size_t i = 0; i < rules.size(); ++i)
        EXPECT_NE(reports[i].find(rules[i]), std::string::npos) << reports[i];
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

NTSTATUS NTAPI leaveIrp(PDEVICE_OBJECT, PIRP) {
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI keepIrp(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Each rule broken once, and one report per break naming its rule, in order;
// each refusal with the kernel's status.
TEST(KernelVerifier, EachRuleReportsItsViolationEachRefusalItsStatusAndWhatIsLeftBehind) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hostk::runAtDispatch([&] {
        DbgPrint("%ws %s\n", u"w", "narrow"); // the DbgPrint documentation: PASSIVE_LEVEL only
        KeDelayExecutionThread(KernelMode, FALSE, &soon);
        KeFlushQueuedDpcs();
        ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 16, kTag), kTag);
    });
    DbgPrint("%ws\n", u"w"); // at PASSIVE_LEVEL: no report
    KIRQL old, again;
    int onStack = 0;
    void* p = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
    ExFreePoolWithTag(p, kTag);
    ExFreePoolWithTag(p, kTag);
    ExFreePoolWithTag(nullptr, 0);
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 16, kTag), 0x72656874);
    PIRP irp = IoAllocateIrp(1, FALSE);
    ExFreePoolWithTag(irp, 0);
    IoFreeIrp(irp);
    {
        hostk::NoAllocNoWaitScope scope("period callback");
        ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 4, kTag), kTag);
        IoFreeIrp(IoAllocateIrp(1, FALSE));
        KeDelayExecutionThread(KernelMode, FALSE, &soon);
    }
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeRaiseIrql(PASSIVE_LEVEL, &again);
    KeLowerIrql(PASSIVE_LEVEL);
    KeLowerIrql(DISPATCH_LEVEL);
    KeAcquireSpinLockAtDpcLevel(&lock);
    hostk::runAtDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock); });
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLock(&lock, &again);
    KeReleaseSpinLock(&lock, old);
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    expectReports({"Unicode conversion above PASSIVE_LEVEL: %ws",
                   "KeDelayExecutionThread called at DISPATCH_LEVEL", "KeFlushQueuedDpcs",
                   "paged pool allocation at DISPATCH_LEVEL", "not a live block",
                   "ExFreePoolWithTag of a NULL pointer", "of a block tagged 'Test'",
                   "use IoFreeIrp", "pool allocation of 4 bytes inside period callback",
                   "IoAllocateIrp inside period callback",
                   "KeDelayExecutionThread (a blocking wait) inside period callback",
                   "KeRaiseIrql to", "KeLowerIrql to",
                   "KeAcquireSpinLockAtDpcLevel called at PASSIVE_LEVEL",
                   "spin lock already held by this thread", "spin lock is not held"});
    KTIMER timer, rawTimer{};
    KDPC dpc, rawDpc{};
    KeInitializeTimer(&timer);
    KeInitializeDpc(&dpc, noDpcWork, nullptr);
    KeSetTimer(&rawTimer, soon, &dpc);
    KeSetTimer(&timer, soon, &rawDpc);
    KeCancelTimer(&timer);
    auto* pooled = static_cast<PKTIMER>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KTIMER), kTag));
    KeInitializeTimer(pooled);
    KeSetTimer(pooled, soon, &dpc);
    ExFreePoolWithTag(pooled, kTag);
    hostk::advanceTime(1000); // dropped: it cannot fire out of freed memory
    PDEVICE_OBJECT device = hostk::createDeviceObject(nullptr, 1, 0);
    ObfDereferenceObject(device);
    hostk::deleteDeviceObject(device);
    hostk::deleteDeviceObject(device);
    ObfReferenceObject(&onStack);
    ObfDereferenceObject(&onStack);
    EX_RUNDOWN_REF ref;
    ExInitializeRundownProtection(&ref);
    ExReleaseRundownProtection(&ref);
    ExInitializeRundownProtection(&ref);
    ExWaitForRundownProtectionRelease(&ref);
    ExWaitForRundownProtectionRelease(&ref);
    hostk::DriverObjectBlock block;
    PDRIVER_OBJECT driver = hostk::initDriverObject(block);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, SIZE_MAX / 2, kTag), nullptr);
    EXPECT_EQ(IoAllocateIrp(0, FALSE), nullptr);
    EXPECT_EQ(hostk::createDeviceObject(driver, 0, 0), nullptr);
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = leaveIrp;
    PDEVICE_OBJECT lower = hostk::createDeviceObject(driver, 1, 0);
    irp = IoAllocateIrp(1, FALSE);
    for (int call = 0; call < 2; ++call) { // the first call leaves it one location down
        IoSetCompletionRoutine(irp, keepIrp, nullptr, TRUE, TRUE, TRUE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        IoCallDriver(lower, irp);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, 0);
    IoCompleteRequest(irp, 0);
    IoFreeIrp(irp);
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_PARAMETER);
    // No completion routine stops it: the I/O manager finishes the IRP.
    irp = IoAllocateIrp(1, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_CREATE;
    EXPECT_EQ(IoCallDriver(lower, irp), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    hostk::deleteDeviceObject(lower);
    expectReports({"timer that was never initialised", "DPC that was never initialised",
                   "freed with pending timer", "below zero references", "not a live device object",
                   "ObfReferenceObject of", "ObfDereferenceObject of",
                   "ExReleaseRundownProtection without a matching acquire",
                   "ExWaitForRundownProtectionRelease twice on one run-down",
                   "without completing the IRP", "no more IRP stack locations", "completed twice",
                   "not a live IRP", "completed past its top location"});
    // What a test leaves behind is named at its end, so it fails the test.
    auto expectNamed = [](const char* text) {
        const std::string problems = hostk::checkClean();
        EXPECT_NE(problems.find(text), std::string::npos) << problems;
    };
    p = ExAllocatePoolWithTag(NonPagedPool, 40, kTag);
    expectNamed("1 live block(s), 40 byte(s)");
    ExFreePoolWithTag(p, kTag);
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    expectNamed("IRQL 2");
    KeLowerIrql(old);
    KeSetTimer(&timer, soon, &dpc);
    expectNamed("timers: 1 still pending");
    EXPECT_TRUE(KeCancelTimer(&timer));
    device = hostk::createDeviceObject(nullptr, 1, 0);
    expectNamed("never deleted");
    ObfReferenceObject(device);
    hostk::deleteDeviceObject(device);
    expectNamed("deleted but still referenced 1 time(s)");
    ObfDereferenceObject(device);
    irp = IoAllocateIrp(1, FALSE);
    expectNamed("never freed");
    IoFreeIrp(irp);
    // The kernel's assertion report: expression, file and line, then on.
    char expression[] = "Irp->CurrentLocation > 0", file[] = "MMEAdapter";
    hostk::clearCaptured();
    RtlAssert(expression, file, 321, nullptr);
    expectNamed("Irp->CurrentLocation > 0");
    EXPECT_EQ(hostk::capturedLines(),
              (std::vector<std::string>{"*** Assertion failed: Irp->CurrentLocation > 0",
                                        "***   Source File: MMEAdapter, line 321"}));
    hostk::clearAssertReports();
    EXPECT_EQ(hostk::checkClean(), "");
}

} // namespace
