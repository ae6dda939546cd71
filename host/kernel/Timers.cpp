// Time on Linux: the system clock (virtual or real), KeDelayExecutionThread,
// kernel timers with their DPCs, and KeFlushQueuedDpcs.
// Virtual time: the clock moves only through delays and advanceTime, which
// runs due DPCs on its caller's thread. Real time: a timer thread runs
// expired DPCs. Either way a DPC runs at DISPATCH_LEVEL, outside the timer
// lock, counted as running so KeFlushQueuedDpcs can wait for it.
#include "HostKernelInternal.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

using hostk::detail::pointerText;

namespace {

// Marks timers and DPCs that went through their initialisation.
LIST_ENTRY gTimerMagic;
char gDpcMagic;

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

void stopTimerThread() {
    auto& s = timers();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stop = true;
    }
    s.wake.notify_all();
    if (s.thread.joinable())
        s.thread.join();
}

void ensureTimerThreadLocked(TimerState& s) {
    if (s.threadStarted || s.virtualTime)
        return;
    s.threadStarted = true;
    s.thread = std::thread(timerThread);
    std::atexit(stopTimerThread);
}

} // namespace

namespace hostk {

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

size_t pendingTimersCount() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.index.size();
}

void dropAllTimers() {
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
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
    auto& s = timers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (Timer->TimerListEntry.Flink != &gTimerMagic) {
        verifierFailure("KeSetTimer of a timer that was never initialised: " + pointerText(Timer));
        Timer->TimerListEntry.Flink = &gTimerMagic;
    }
    if (Dpc && Dpc->DpcData != &gDpcMagic)
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
        if (s.running != 0)
            return false;
        if (s.virtualTime || s.queue.empty())
            return true;
        return s.queue.begin()->first.first > realNow100ns();
    });
}

} // extern "C"
