// Test boundaries: what a finished test must leave clean, and the reset
// that gives the next test a fresh kernel.
#include "HostKernelInternal.h"

namespace hostk {

std::string checkClean() {
    std::string text;
    // A DPC still queued on the DPC thread is work under way, not a leak.
    if (KeGetCurrentIrql() < DISPATCH_LEVEL)
        detail::waitForQueuedDpcs();
    PoolStats stats = poolStats();
    if (stats.liveBlocks != 0) {
        text += "pool: " + std::to_string(stats.liveBlocks) + " live block(s), " +
                std::to_string(stats.liveBytes) + " byte(s)\n";
        text += leakReport();
    }
    text += detail::ioProblems();
    if (size_t timers = pendingTimers())
        text += "timers: " + std::to_string(timers) + " still pending\n";
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        text += "thread left at IRQL " + std::to_string(KeGetCurrentIrql()) + "\n";
    text += detail::assertProblems();
    for (const auto& failure : verifierFailures())
        text += "verifier: " + failure + "\n";
    return text;
}

void resetForTest() {
    detail::setVerifierQuiet(true);
    detail::waitForQueuedDpcs();
    detail::dropAllTimers();
    setTimerObserver(nullptr);
    setRundownWaitObserver(nullptr);
    useVirtualTime(true);
    detail::resetVirtualClock();
    resetDelayCount();
    setDelayStatus(STATUS_SUCCESS);
    detail::setCurrentIrql(PASSIVE_LEVEL);
    detail::poolNewGeneration();
    detail::ioNewGeneration();
    setSinkCapture();
    clearCaptured();
    clearAssertReports();
    clearVerifierFailures();
}

} // namespace hostk
