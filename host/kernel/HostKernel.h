// Control side of the host kernel: what tests and programs use to steer and
// inspect the kernel services the driver calls (debug output sink, assertion
// reports, pool accounting and fault injection, IRQL verifier, time).
//
// Process defaults (programs): debug output to stderr, real time.
// After resetForTest (every test, through tests/support/main.cpp): debug
// output captured in memory, virtual time at 0, no fault injection. Setting
// the environment variable MME_TRACE_ECHO makes the capture echo to stderr.
// All functions are thread-safe.
#pragma once

#include "driver/platform/platform.h"

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hostk {

// ---- Debug output (DbgPrint) ----
// Formatting follows the Windows kernel, not glibc: arguments are read from
// a Windows x64 argument list, long is 32 bits, %p is 16 uppercase hex digits
// without prefix (null prints as zeros), %S/%ws are 16-bit strings. wide, when
// given, says whether a Unicode conversion was used.
std::string formatKernel(const char* format, __builtin_ms_va_list args, bool* wide = nullptr);
void setSinkStderr();
void setSinkFile(const std::string& path); // throws std::runtime_error when it cannot open
void setSinkCapture();                     // in-memory, read with capturedLines()
void setSinkNull();
void setSinkCallback(std::function<void(const std::string& text)> sink);
// Complete lines printed since the last clear (without their line ends).
// A text is split at each '\n'; an unterminated tail waits for its end.
std::vector<std::string> capturedLines();
void clearCaptured();

// ---- Assertions (RtlAssert reports and continues) ----
struct AssertReport {
    std::string expression;
    std::string file;
    unsigned line;
};
std::vector<AssertReport> assertReports();
void clearAssertReports();

// ---- Pool ----
struct PoolStats {
    size_t liveBlocks;
    size_t liveBytes;
    size_t totalAllocations; // since the last resetPool
};
PoolStats poolStats();
// Make the Nth allocation from now fail (1 = the next one); 0 disables.
void failAllocation(size_t nth);
// Called on the allocating thread for every pool allocation (IRPs
// included) with its tag, its size and whether fault injection failed it;
// an empty function stops it. It must not allocate from the pool.
void setPoolObserver(std::function<void(ULONG tag, size_t size, bool failed)> observer);
// One line per live block (tag, size, allocation number).
std::string leakReport();
void resetPool(); // forgets counters; live blocks stay live
// Live blocks carrying this tag.
size_t liveBlocksWithTag(ULONG tag);
// Tag and requested size of a live pool block; false when p is not one.
bool poolBlockInfo(const void* p, ULONG* tag, size_t* size);
// Blocks from ExAllocatePoolWithTag are filled with this byte (the pool does
// not clear memory), and freed blocks with kPoolFreedFill before release.
constexpr unsigned char kPoolFill = 0xA5;
constexpr unsigned char kPoolFreedFill = 0xDD;
// Pool live statistics, leak reports and checkClean count only blocks (and
// IRPs, device objects) made since the last resetForTest.
// Special pool, as Driver Verifier's ("Special Pool": Verify End, Verify
// Start): every block on pages of its own, VerifyEnd at the end of its last
// page before a no-access guard page (overruns), VerifyStart at the start
// of its first page after one (underruns); the rest of the pages filled with
// a pattern checked at free; a freed block made no-access and kept in a
// bounded quarantine before its pages are reused. An access to a guard page
// or a freed block is a verifier report naming the instruction, the block
// (tag, size, allocation number) and whether it was freed; the pages are
// then opened so the caller continues and the test fails. For allocations
// made from now on; MME_SPECIAL_POOL=end|start sets it at process start and
// at every resetForTest.
enum class SpecialPool { Off, VerifyEnd, VerifyStart };
void setSpecialPool(SpecialPool mode);
SpecialPool specialPool();
// An allocation from driver code with an executable pool type is a verifier
// report, as Driver Verifier's code integrity check makes it (0xC4, 0x2000).

// ---- Verifier ----
// Violations (passive-only service at dispatch level, allocation or
// blocking wait inside a no-allocation region, IRP leaks, ...).
std::vector<std::string> verifierFailures();
void clearVerifierFailures();
// Records a violation found outside the kernel (the port-class library's
// checks of what the driver hands it).
void reportVerifierFailure(const std::string& text);
// While alive on this thread, allocation and blocking waits are violations
// (the period callback runs inside one).
class NoAllocNoWaitScope {
public:
    explicit NoAllocNoWaitScope(const char* what);
    ~NoAllocNoWaitScope();
    NoAllocNoWaitScope(const NoAllocNoWaitScope&) = delete;
    NoAllocNoWaitScope& operator=(const NoAllocNoWaitScope&) = delete;

private:
    const char* mPrevious;
};
// Runs fn at dispatch level on the calling thread.
void runAtDispatch(const std::function<void()>& fn);
// Spin locks are real locks (an atomic word holding the owner thread, so
// ThreadSanitizer sees acquire/release); acquiring one held by the same
// thread, releasing one not held by it, and raising or lowering the IRQL
// the wrong way are violations.

// ---- Threads ----
// Every thread the host starts that may run driver code calls this first:
// with a loaded image it gives the thread what the image reads from the
// processor (host/image/Processor.h); otherwise it does nothing. Test
// threads that run a loaded image call it too.
// DbgPrint asks owns() whether the calling thread's processor state is its
// own: a thread started by one that had it inherits it, and the image then
// reads the creator's thread object. Such a call is a verifier failure.
void enterDriverThread();
void setDriverThreadHooks(void (*attach)(), bool (*owns)());

// ---- Kernel stacks ----
// Driver code runs on stacks of 24 KB with a guard page below, as on x64
// Windows (host/kernel/Stacks.cpp): every thread that calls into the driver
// gets one, for the driver's part of its work; host code the driver calls
// runs on the thread's own stack. Overflowing one is a verifier report.
constexpr size_t kDriverStackSize = 24 * 1024;
// Whether this build's linked driver runs on them (GCC builds without
// sanitizers); a loaded image always does.
bool driverStacksLinked();
// The most bytes of a driver stack any thread of the process has used so far
// (the stacks are painted). MME_STACK_REPORT=FILE appends it at exit.
size_t deepestDriverStack();
// Forgets the use recorded so far and paints the calling thread's driver
// stack again (after a test that overflows it on purpose).
void forgetDriverStackUse();
bool onDriverStack(const void* p);

// ---- Code addresses in reports ----
// A loaded image names its own code (offset and nearest symbol of its link
// map); other code is named by shared object and symbol. The describer
// writes a NUL-terminated text into text[size] without allocating (it runs
// in the fault handler) and returns false for an address not its own.
void setCodeDescriber(bool (*describe)(uintptr_t pc, char* text, size_t size));
std::string describeCode(uintptr_t pc);

// ---- Time ----
// Virtual time: KeDelayExecutionThread returns at once and advances the
// clock; timers fire only from advanceTime(). Real time: delays sleep and a
// timer thread runs expired DPCs at dispatch level. Switching keeps each
// pending timer's remaining time.
// KeSetTimer: a negative due time is relative (100 ns units), a positive or
// zero one absolute on now100ns(). Setting an uninitialised timer or DPC,
// freeing pool that holds a pending timer and KeFlushQueuedDpcs at dispatch
// level are violations.
void useVirtualTime(bool on);
// Where a DPC queued with KeInsertQueueDpc runs: on the kernel's DPC thread
// (another processor; the default), or on the thread that queued it, as
// soon as that thread drops below DISPATCH_LEVEL (its own processor).
enum class DpcTarget { DpcThread, QueueingThread };
void setDpcTarget(PKDPC dpc, DpcTarget target);
size_t queuedDpcs(); // queued, not yet started
// Called at the entry of KeSetTimer (setting) and KeCancelTimer, on the
// caller's thread, before the timer is touched; lets a test hold a caller
// there. Empty function: none.
void setTimerObserver(std::function<void(PKTIMER timer, bool setting)> observer);
bool virtualTime();
int64_t now100ns();
// Virtual time only: moves the clock and runs every DPC that falls due, in
// due order, at dispatch level on the calling thread.
void advanceTime(int64_t delta100ns);
size_t delayCount(); // KeDelayExecutionThread calls since resetDelayCount
void resetDelayCount();
// Status the next KeDelayExecutionThread calls return (STATUS_SUCCESS by default).
void setDelayStatus(NTSTATUS status);
size_t pendingTimers();

// ---- Run-down protection ----
// Called on a thread entering ExWaitForRundownProtectionRelease while the
// protection is still held by someone, before it waits; lets a test see the
// wait begin. Empty function: none.
void setRundownWaitObserver(std::function<void(PEX_RUNDOWN_REF)> observer);

// ---- Objects ----
// A driver object as the I/O manager allocates it, its extension right
// behind it.
struct DriverObjectBlock {
    DRIVER_OBJECT object;
    DRIVER_EXTENSION extension;
};
// Fills a driver object as the I/O manager does before DriverEntry: zeroed,
// DriverExtension pointing at its extension, no dispatch routines (an IRP
// sent to a missing routine completes with STATUS_INVALID_DEVICE_REQUEST).
PDRIVER_OBJECT initDriverObject(DriverObjectBlock& block);
// Creates a device object of the host's own (for the USB model's PDO and
// the port-class FDO), linked into driver's device list when driver is not
// null, with a zeroed extension and ReferenceCount 0 (the creator's own
// reference is not counted). Freed with deleteDeviceObject; while
// ObfReferenceObject references remain, the memory stays until the last
// ObfDereferenceObject. Null when stackSize < 1.
PDEVICE_OBJECT createDeviceObject(PDRIVER_OBJECT driver, CCHAR stackSize, ULONG extensionSize);
void deleteDeviceObject(PDEVICE_OBJECT device);
size_t liveDeviceObjects();
// IRPs come from the pool (tag 'Irp ', subject to failAllocation) and are
// counted until IoFreeIrp. A dispatch routine that returns a status other
// than STATUS_PENDING without completing the IRP, completing an IRP twice
// and running out of stack locations are violations.
size_t liveIrps();

// Everything a finished test must leave clean: no live pool block, no live
// IRP or device object, no pending timer, the calling thread at passive
// level, no assertion report, no verifier failure. Empty when clean.
std::string checkClean();
// Resets reports, counters, fault injection, the sink (capture), time
// (virtual, clock 0) and the calling thread's IRQL for the next test; drops
// timers a previous test left pending.
void resetForTest();

} // namespace hostk
