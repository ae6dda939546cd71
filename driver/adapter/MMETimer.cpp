// MMETimer: a one-shot kernel timer whose DPC calls its target's onTimer
// with the timer id, at dispatch level.
#include "MMEAdapter.h"

MMETimer::MMETimer(ITimerCallback* target, ULONG timerId) : mTarget(target), mTimerId(timerId) {
    KeInitializeDpc(&mDpc, &MMETimer::timerRoutine, this);
    KeInitializeTimer(&mTimer);
}

// At passive level, after the cancel, waits for a timer routine that is
// already running on another processor, so the object is not freed under it.
// At dispatch level no wait is allowed; only the cancel is done.
MMETimer::~MMETimer() {
    KeCancelTimer(&mTimer);
    if (KeGetCurrentIrql() < DISPATCH_LEVEL)
        KeFlushQueuedDpcs();
}

// Due time in 100-ns units, relative (negative), computed in 64 bits.
bool MMETimer::set(ULONG milliseconds) {
    LARGE_INTEGER due;
    due.QuadPart = -(LONGLONG)milliseconds * 10000;
    return KeSetTimer(&mTimer, due, &mDpc) != FALSE;
}

bool MMETimer::cancel() {
    return KeCancelTimer(&mTimer) != FALSE;
}

// DPC, dispatch level.
void NTAPI MMETimer::timerRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                  PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    MMETimer* timer = static_cast<MMETimer*>(DeferredContext);
    if (timer && timer->mTarget)
        timer->mTarget->onTimer(timer->mTimerId);
}
