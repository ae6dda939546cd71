// Shared state between the host kernel's own source files. Not for drivers,
// tests or programs: they use HostKernel.h.
#pragma once

#include "HostKernel.h"

#include <signal.h>
#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Host functions so small that they run where they are called, on a driver
// stack too (Stacks.cpp moves the others to the thread's own stack).
#define HOSTK_LEAF __attribute__((no_instrument_function))

namespace hostk::detail {

// A pointer as the kernel prints it: 16 uppercase hex digits.
std::string pointerText(const void* p);

// ---- Threads, IRQL, verifier (Threads.cpp) ----
KIRQL currentIrql();
void setCurrentIrql(KIRQL irql);
// Name of the innermost NoAllocNoWaitScope on this thread, or null.
const char* noAllocScope();
// Records a violation; also printed to stderr while no test has reset the kernel.
void verifierFailure(const std::string& text);
// The same, without first taking in the fault handler's deferred reports.
void recordVerifierFailure(const std::string& text);
void setVerifierQuiet(bool quiet);
// "KeDelayExecutionThread" -> a failure when this thread is at dispatch level.
void requirePassive(const char* service);
// Runs the DPCs this thread queued for itself; called while still at
// DISPATCH_LEVEL just before the IRQL drops below it.
void lowerFromDispatch();
// A verifier failure when the calling thread runs a loaded image with
// another thread's GS block (see enterDriverThread); then gives it its own.
void checkDriverThread();

// ---- Pool (Pool.cpp) ----
enum class BlockKind { Pool, Irp };
// Allocates a tracked block; counts for fault injection and statistics.
// Null when fault injection fails it or the size cannot be served.
void* poolAllocate(size_t size, ULONG tag, BlockKind kind);
// Frees a tracked block of the given kind; false (and a verifier failure)
// when p is not such a block.
bool poolFree(void* p, BlockKind kind, const char* service);
// Starts a new test generation: blocks alive now are no longer counted.
void poolNewGeneration();

// ---- Kernel stacks and faults (Stacks.cpp, Faults.cpp) ----
// The SIGSEGV handler for guard pages of driver stacks and special pool;
// installed once, chaining to the handler before it.
void installFaultHandler();
bool stackFault(const siginfo_t* info, const ucontext_t* context);
bool poolFault(const siginfo_t* info, const ucontext_t* context);
// Whether a host function with this return address was called from a driver
// stack (the switch left its trampoline there); caller gets the return
// address into driver code.
bool calledFromDriver(const void* returnAddress, uintptr_t* caller);
// Return address into driver code of the host call this thread is in, 0 when none.
uintptr_t currentDriverCaller();
// For the fault handler, which must not allocate: names pc into text[size]
// (the image's describer, else shared object and symbol), and keeps a
// report until the verifier's list is next read or added to.
void describeCodeInto(uintptr_t pc, char* text, size_t size);
void deferVerifierFailure(const char* text);
// Moves the deferred reports into the verifier's list.
void flushDeferredFailures();
// A verifier failure when loaded image code calls the host (returnAddress)
// from a stack that is not a driver stack: an entry into the image that the
// loader's thunks missed.
void checkDriverStack(const void* returnAddress, const void* frame);

// ---- Timers (Timers.cpp) ----
// Removes every pending timer whose KTIMER or KDPC lies inside
// [begin, begin + size); one verifier failure per timer found.
void dropTimersInside(const void* begin, size_t size);
size_t pendingTimersCount();
void dropAllTimers();
// Waits until no timer DPC runs on another thread.
void waitForRunningDpcs();
// Waits until no DPC is queued or running.
void waitForQueuedDpcs();
// Removes queued DPCs inside a freed block; one verifier failure each.
void dropDpcsInside(const void* begin, size_t size);
// Runs, on the calling thread, every DPC it queued for itself.
void runLocalDpcs();
size_t queuedDpcCount();
// Set when this thread queued a DPC for itself since its last drain.
bool localDpcsPending();
void resetVirtualClock();

// ---- I/O (Io.cpp) ----
void ioNewGeneration();
std::string ioProblems();

// ---- Signals (Faults.cpp) ----
// Hands a fault a handler of ours did not take to the handler installed
// before it, or to the default action (the instruction faults again and
// the process dies).
void chainSignal(const struct sigaction& previous, int sig, siginfo_t* info, void* context);
// Installs a SIGSEGV handler on the alternate stack, keeping the one before
// it in *previous for chainSignal.
void installSegvHandler(void (*handler)(int, siginfo_t*, void*), struct sigaction* previous);

// ---- Debug output (DebugOutput.cpp) ----
void writeToSink(const std::string& text);
std::string assertProblems();

} // namespace hostk::detail
