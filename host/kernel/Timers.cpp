// Time on Linux: the system clock (virtual or real), KeDelayExecutionThread,
// kernel timers with their DPCs, queued DPCs (KeInsertQueueDpc) and
// KeFlushQueuedDpcs.
// Virtual time: the clock moves only through delays and advanceTime, which
// runs due DPCs on its caller's thread. Real time: a timer thread runs
// expired DPCs. A queued DPC runs on the DPC thread, or, when its target is
// the queueing thread, once that thread drops below DISPATCH_LEVEL (at once
// when queued from below it), as a DPC queued on the current processor does.
// Either way a DPC runs at DISPATCH_LEVEL, outside the timer lock, counted
// as running so KeFlushQueuedDpcs can wait for it.
#include "HostKernelInternal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

using hostk::detail::pointerText;

namespace {

// Marks timers and DPCs that went through their initialisation; a queued
// DPC's target is in which of the two DPC marks it carries.
LIST_ENTRY gTimerMagic;
char gDpcMagic;
char gDpcLocalMagic;

bool dpcInitialised(PKDPC dpc) {
    return dpc->DpcData == &gDpcMagic || dpc->DpcData == &gDpcLocalMagic;
}

// A DPC in the queue: the KTHREAD of the queueing thread for a local one,
// null for the DPC thread.
struct QueuedDpc {
    PKDPC dpc;
    const void* owner;
};
// This thread queued a DPC for itself that has not run yet (a hint: another
// thread may have removed it meanwhile).
thread_local bool tLocalPending = false;

using Key = std::pair<int64_t, uint64_t>; // due time, arming order

struct TimerState {
    std::mutex mutex;
    std::condition_variable wake;    // timer thread: queue or mode changed
    std::condition_variable settled; // a DPC finished
    bool virtualTime = false;
    std::atomic<int64_t> virtualNow{0};
    std::multimap<Key, PKTIMER> queue;
    std::unordered_map<PKTIMER, Key> index;
    uint64_t order = 0;
    int running = 0; // DPC routines executing now
    bool threadStarted = false;
    bool stop = false;
    std::thread thread;
    std::atomic<size_t> delays{0};
    std::atomic<NTSTATUS> delayStatus{STATUS_SUCCESS};
    std::vector<QueuedDpc> dpcs; // in queueing order
    std::condition_variable dpcWake;
    bool dpcThreadStarted = false;
    std::thread dpcThread;
};

TimerState& timers() {
    static TimerState* s = new TimerState;
    return *s;
}

int64_t realNow100ns() {
    using namespace std::chrono;
    return duration_cast<duration<int64_t, std::ratio<1, 10000000>>>(
               steady_clock::now().time_since_epoch())
        .count();
}

int64_t nowLocked(const TimerState& s) {
    return s.virtualTime ? s.virtualNow.load() : realNow100ns();
}

bool removeLocked(TimerState& s, PKTIMER timer) {
    auto it = s.index.find(timer);
    if (it == s.index.end())
        return false;
    auto range = s.queue.equal_range(it->second);
    for (auto q = range.first; q != range.second; ++q) {
        if (q->second == timer) {
            s.queue.erase(q);
            break;
        }
    }
    s.index.erase(it);
    timer->Header.Inserted = FALSE;
    return true;
}

// Takes the earliest timer off the queue and runs its DPC with the lock
// released; the lock is held again on return.
void fireFirstLocked(TimerState& s, std::unique_lock<std::mutex>& lock) {
    auto first = s.queue.begin();
    PKTIMER timer = first->second;
    int64_t due = first->first.first;
    s.queue.erase(first);
    s.index.erase(timer);
    timer->Header.Inserted = FALSE;
    PKDPC dpc = timer->Dpc;
    PKDEFERRED_ROUTINE routine = dpc ? dpc->DeferredRoutine : nullptr;
    PVOID context = dpc ? dpc->DeferredContext : nullptr;
    if (!routine) {
        s.settled.notify_all();
        return;
    }
    ++s.running;
    lock.unlock();
    // As the kernel does, the system arguments carry the expiry time.
    hostk::runAtDispatch([&] {
        routine(dpc, context, (PVOID)(uintptr_t)(uint32_t)due, (PVOID)(uintptr_t)(due >> 32));
    });
    lock.lock();
    --s.running;
    s.settled.notify_all();
}

void timerThread() {
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    while (!s.stop) {
        // Started before an image may have been loaded: asks on every turn.
        hostk::enterDriverThread();
        if (s.virtualTime || s.queue.empty()) {
            s.wake.wait(lock);
            continue;
        }
        int64_t due = s.queue.begin()->first.first;
        int64_t now = realNow100ns();
        if (due > now) {
            s.wake.wait_for(lock,
                            std::chrono::duration<int64_t, std::ratio<1, 10000000>>(due - now));
            continue;
        }
        fireFirstLocked(s, lock);
    }
}

bool dequeueLocked(TimerState& s, PKDPC dpc) {
    for (auto it = s.dpcs.begin(); it != s.dpcs.end(); ++it) {
        if (it->dpc == dpc) {
            s.dpcs.erase(it);
            return true;
        }
    }
    return false;
}

// Runs a DPC taken off the queue with the lock released.
void runQueuedLocked(TimerState& s, std::unique_lock<std::mutex>& lock, PKDPC dpc) {
    PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
    PVOID context = dpc->DeferredContext;
    PVOID argument1 = dpc->SystemArgument1;
    PVOID argument2 = dpc->SystemArgument2;
    ++s.running;
    lock.unlock();
    hostk::runAtDispatch([&] {
        if (routine)
            routine(dpc, context, argument1, argument2);
    });
    lock.lock();
    --s.running;
    s.settled.notify_all();
}

// Takes the first DPC queued for `owner` (null: the DPC thread) off the
// queue and runs it; false when there is none.
bool runNextQueuedLocked(TimerState& s, std::unique_lock<std::mutex>& lock, const void* owner) {
    auto it = std::find_if(s.dpcs.begin(), s.dpcs.end(),
                           [owner](const QueuedDpc& q) { return q.owner == owner; });
    if (it == s.dpcs.end())
        return false;
    PKDPC dpc = it->dpc;
    s.dpcs.erase(it);
    runQueuedLocked(s, lock, dpc);
    return true;
}

void dpcThreadLoop() {
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    while (!s.stop) {
        // Outlives the images loaded and unloaded meanwhile, as the timer
        // thread does: takes on the one loaded now before running its code.
        hostk::enterDriverThread();
        if (!runNextQueuedLocked(s, lock, nullptr))
            s.dpcWake.wait(lock);
    }
}

void stopTimerThread() {
    auto& s = timers();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stop = true;
    }
    s.wake.notify_all();
    s.dpcWake.notify_all();
    if (s.thread.joinable())
        s.thread.join();
    if (s.dpcThread.joinable())
        s.dpcThread.join();
}

void ensureDpcThreadLocked(TimerState& s) {
    if (s.dpcThreadStarted)
        return;
    s.dpcThreadStarted = true;
    s.dpcThread = std::thread(dpcThreadLoop);
    if (!s.threadStarted)
        std::atexit(stopTimerThread);
}

void ensureTimerThreadLocked(TimerState& s) {
    if (s.threadStarted || s.virtualTime)
        return;
    s.threadStarted = true;
    s.thread = std::thread(timerThread);
    if (!s.dpcThreadStarted)
        std::atexit(stopTimerThread);
}

std::mutex gTimerObserverMutex;
std::function<void(PKTIMER, bool)> gTimerObserver;

void observeTimer(PKTIMER timer, bool setting) {
    std::function<void(PKTIMER, bool)> observer;
    {
        std::lock_guard<std::mutex> lock(gTimerObserverMutex);
        observer = gTimerObserver;
    }
    if (observer)
        observer(timer, setting);
}

} // namespace

namespace hostk {

void setTimerObserver(std::function<void(PKTIMER timer, bool setting)> observer) {
    std::lock_guard<std::mutex> lock(gTimerObserverMutex);
    gTimerObserver = std::move(observer);
}

void useVirtualTime(bool on) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.virtualTime == on)
        return;
    int64_t oldNow = nowLocked(s);
    s.virtualTime = on;
    int64_t newNow = nowLocked(s);
    if (!s.queue.empty()) {
        // Keep each timer's remaining time across the switch.
        std::multimap<Key, PKTIMER> moved;
        for (auto& [key, timer] : s.queue) {
            Key k{key.first - oldNow + newNow, key.second};
            moved.emplace(k, timer);
            s.index[timer] = k;
            timer->DueTime.QuadPart = (ULONGLONG)k.first;
        }
        s.queue.swap(moved);
    }
    ensureTimerThreadLocked(s);
    s.wake.notify_all();
}

bool virtualTime() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.virtualTime;
}

int64_t now100ns() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return nowLocked(s);
}

void advanceTime(int64_t delta100ns) {
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (!s.virtualTime || delta100ns < 0)
        return;
    int64_t target = s.virtualNow.load() + delta100ns;
    while (s.virtualTime && !s.queue.empty() && s.queue.begin()->first.first <= target) {
        int64_t due = s.queue.begin()->first.first;
        if (due > s.virtualNow.load())
            s.virtualNow.store(due);
        fireFirstLocked(s, lock);
    }
    if (s.virtualTime && target > s.virtualNow.load())
        s.virtualNow.store(target);
}

size_t delayCount() {
    return timers().delays.load();
}
void resetDelayCount() {
    timers().delays.store(0);
}
void setDelayStatus(NTSTATUS status) {
    timers().delayStatus.store(status);
}

size_t pendingTimers() {
    return detail::pendingTimersCount();
}

namespace detail {

void dropTimersInside(const void* begin, size_t size) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.index.empty())
        return;
    auto inside = [&](const void* p) {
        return (uintptr_t)p >= (uintptr_t)begin && (uintptr_t)p < (uintptr_t)begin + size;
    };
    std::vector<PKTIMER> found;
    for (const auto& entry : s.index) {
        PKTIMER t = entry.first;
        if (inside(t) || (t->Dpc && inside(t->Dpc)))
            found.push_back(t);
    }
    for (PKTIMER t : found) {
        verifierFailure("pool block " + pointerText(begin) + " freed with pending timer " +
                        pointerText(t) + " inside it (cancel the timer first)");
        removeLocked(s, t);
    }
}

void dropDpcsInside(const void* begin, size_t size) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (auto it = s.dpcs.begin(); it != s.dpcs.end();) {
        const auto p = (uintptr_t)it->dpc;
        if (p >= (uintptr_t)begin && p < (uintptr_t)begin + size) {
            verifierFailure("pool block " + pointerText(begin) + " freed with queued DPC " +
                            pointerText(it->dpc) + " inside it (remove or flush it first)");
            it = s.dpcs.erase(it);
        } else {
            ++it;
        }
    }
}

bool localDpcsPending() {
    return tLocalPending;
}

void runLocalDpcs() {
    tLocalPending = false;
    auto& s = timers();
    const void* self = KeGetCurrentThread();
    std::unique_lock<std::mutex> lock(s.mutex);
    while (runNextQueuedLocked(s, lock, self)) {
    }
}

size_t queuedDpcCount() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.dpcs.size();
}

size_t pendingTimersCount() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.index.size();
}

void dropAllTimers() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dpcs.clear();
    for (auto& entry : s.index)
        entry.first->Header.Inserted = FALSE;
    s.queue.clear();
    s.index.clear();
}

void waitForRunningDpcs() {
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.settled.wait(lock, [&] { return s.running == 0; });
}

void waitForQueuedDpcs() {
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.settled.wait(lock, [&] { return s.running == 0 && s.dpcs.empty(); });
}

void resetVirtualClock() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.virtualNow.store(0);
}

} // namespace detail
} // namespace hostk

using hostk::detail::verifierFailure;

extern "C" {

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval) {
    (void)WaitMode;
    (void)Alertable;
    hostk::detail::requirePassive("KeDelayExecutionThread");
    if (const char* scope = hostk::detail::noAllocScope())
        verifierFailure(std::string("KeDelayExecutionThread (a blocking wait) inside ") + scope);
    auto& s = timers();
    s.delays.fetch_add(1);
    NTSTATUS status = s.delayStatus.load();
    if (!Interval) {
        verifierFailure("KeDelayExecutionThread without an interval");
        return status;
    }
    std::unique_lock<std::mutex> lock(s.mutex);
    int64_t now = nowLocked(s);
    int64_t wait = Interval->QuadPart < 0 ? -Interval->QuadPart : Interval->QuadPart - now;
    if (wait <= 0)
        return status;
    if (s.virtualTime) {
        s.virtualNow.store(now + wait);
        lock.unlock();
        // Let threads that the caller polls for make progress.
        std::this_thread::yield();
        return status;
    }
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::duration<int64_t, std::ratio<1, 10000000>>(wait));
    return status;
}

void NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    Dpc->Type = 0x13; // DpcObject
    Dpc->Importance = 1;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = nullptr;
    Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = &gDpcMagic;
}

void NTAPI KeInitializeTimer(PKTIMER Timer) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (removeLocked(s, Timer))
        verifierFailure("KeInitializeTimer of a pending timer " + pointerText(Timer));
    std::memset(Timer, 0, sizeof *Timer);
    Timer->Header.Type = 8; // TimerNotificationObject
    Timer->TimerListEntry.Flink = &gTimerMagic;
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    if (hostk::detail::currentIrql() > DISPATCH_LEVEL)
        verifierFailure("KeSetTimer above DISPATCH_LEVEL");
    observeTimer(Timer, true);
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (Timer->TimerListEntry.Flink != &gTimerMagic) {
        verifierFailure("KeSetTimer of a timer that was never initialised: " + pointerText(Timer));
        Timer->TimerListEntry.Flink = &gTimerMagic;
    }
    if (Dpc && !dpcInitialised(Dpc))
        verifierFailure("KeSetTimer with a DPC that was never initialised: " + pointerText(Dpc));
    bool wasPending = removeLocked(s, Timer);
    int64_t now = nowLocked(s);
    int64_t due = DueTime.QuadPart < 0 ? now - DueTime.QuadPart : DueTime.QuadPart;
    Key key{due, ++s.order};
    s.queue.emplace(key, Timer);
    s.index[Timer] = key;
    Timer->DueTime.QuadPart = (ULONGLONG)due;
    Timer->Header.Inserted = TRUE;
    Timer->Dpc = Dpc;
    ensureTimerThreadLocked(s);
    s.wake.notify_all();
    return wasPending ? TRUE : FALSE;
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer) {
    observeTimer(Timer, false);
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    bool wasPending = removeLocked(s, Timer);
    if (wasPending)
        s.wake.notify_all();
    return wasPending ? TRUE : FALSE;
}

void NTAPI KeFlushQueuedDpcs(void) {
    if (hostk::detail::currentIrql() > APC_LEVEL) {
        // Waiting here could wait for the calling DPC itself.
        hostk::detail::requirePassive("KeFlushQueuedDpcs");
        return;
    }
    auto& s = timers();
    std::unique_lock<std::mutex> lock(s.mutex);
    // Expired timers count as queued DPCs in real time.
    s.settled.wait(lock, [&] {
        if (s.running != 0 || !s.dpcs.empty())
            return false;
        if (s.virtualTime || s.queue.empty())
            return true;
        return s.queue.begin()->first.first > realNow100ns();
    });
}

// A DPC is queued at most once; a second insertion while it waits changes
// nothing and returns FALSE (the system arguments stay the first ones).
BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    if (hostk::detail::currentIrql() > DISPATCH_LEVEL + 1)
        verifierFailure("KeInsertQueueDpc above DISPATCH_LEVEL");
    auto& s = timers();
    bool now = false;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!dpcInitialised(Dpc)) {
            verifierFailure("KeInsertQueueDpc of a DPC that was never initialised: " +
                            pointerText(Dpc));
            return FALSE;
        }
        for (const QueuedDpc& q : s.dpcs)
            if (q.dpc == Dpc)
                return FALSE;
        Dpc->SystemArgument1 = SystemArgument1;
        Dpc->SystemArgument2 = SystemArgument2;
        const bool local = Dpc->DpcData == &gDpcLocalMagic;
        s.dpcs.push_back({Dpc, local ? (const void*)KeGetCurrentThread() : nullptr});
        if (local) {
            now = hostk::detail::currentIrql() < DISPATCH_LEVEL;
            tLocalPending = true;
        } else {
            ensureDpcThreadLocked(s);
            s.dpcWake.notify_one();
        }
    }
    if (now)
        hostk::detail::runLocalDpcs();
    return TRUE;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return dequeueLocked(s, Dpc) ? TRUE : FALSE;
}

} // extern "C"

namespace hostk {

void setDpcTarget(PKDPC dpc, DpcTarget target) {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!dpcInitialised(dpc)) {
        verifierFailure("setDpcTarget of a DPC that was never initialised: " + pointerText(dpc));
        return;
    }
    dpc->DpcData = target == DpcTarget::QueueingThread ? &gDpcLocalMagic : &gDpcMagic;
}

size_t queuedDpcs() {
    return detail::queuedDpcCount();
}

} // namespace hostk
