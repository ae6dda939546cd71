// The timeline of a run: what the driver did, period by period. It watches
// the model USB driver (period clock, notifications, calls), the host port's
// pins (services, KS states) and the driver's trace (events only the driver
// knows of), keeps the soak figures of the whole run in constant memory and,
// when a report is asked for, a bounded sample of the periods: the first
// kHeadPeriods, the last kTailPeriods and a window of kWindowPeriods either
// side of every event, glitch or overrun (at most kMaxWindows of them; one
// grows while more come, up to kMaxWindowPeriods), so an hour's run gives a
// file of a few megabytes at most.
//
// Periods in which the device was unplugged or asleep are kept as absent:
// no audio moved, so they count neither as position deviations nor glitches.
//
// Threads: periodDone and serviced run on the period thread (serviced at
// dispatch level under a pin's spin lock: no allocation there), events may
// come from any thread; events and the sample are under mLock, the running
// counts of the current period are atomics.
#pragma once

#include "Pcm.h"

#include "host/portcls/KsClient.h"
#include "usbsim/UsbDriverModel.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mmesim {

// One period as the timeline keeps it. Positions are as the device and the
// driver left them at the period's end.
struct PeriodRow {
    uint64_t period = 0;
    uint32_t captureWritePos = 0, renderWritePos = 0, mmeReadPos = 0, deviceReadPos = 0;
    // Per direction, capture first: the DMA channel's position and transfer
    // offset (bytes), the port's services, what they copied (bytes) and the
    // position the port last read.
    uint32_t dmaPosition[2] = {0, 0};
    uint32_t transferOffset[2] = {0, 0};
    uint32_t services[2] = {0, 0};
    uint32_t copied[2] = {0, 0};
    uint32_t glitches = 0;         // render services that filled silence
    uint32_t overruns = 0;         // capture services whose audio the client could not take
    int32_t deviation[2] = {0, 0}; // position update minus one period, frames (running only)
    bool exchanged = false;
    bool present = true; // false: the device was unplugged or asleep
};

struct TimelineEvent {
    uint64_t period = 0;
    // attach, asio, timer, config, format, state, refusal, notice; the
    // device's life: unplug, removal, replug, suspend, resume
    std::string kind;
    std::string label; // what the report shows
};

// The figures of the whole run.
struct SoakFigures {
    uint64_t periods = 0;
    uint64_t exchanged = 0;
    uint64_t absent = 0; // periods the device was unplugged or asleep
    uint64_t glitches = 0, overruns = 0;
    uint64_t services[2] = {0, 0};
    // Largest |position update - one period| over the running periods, frames.
    uint32_t largestDeviation[2] = {0, 0};
    uint64_t deviationPeriod[2] = {0, 0}; // where it was
    uint64_t firstGlitchPeriod = 0, firstOverrunPeriod = 0;
};

class Timeline : public usbsim::ModelObserver, public hostpc::ServiceObserver {
public:
    static constexpr uint64_t kHeadPeriods = 3000;
    static constexpr uint64_t kTailPeriods = 3000;
    static constexpr uint64_t kWindowPeriods = 100;
    static constexpr uint64_t kMaxWindowPeriods = 8 * kWindowPeriods; // a window grows to this
    static constexpr size_t kMaxWindows = 32;
    static constexpr size_t kMaxEvents = 2000;

    // keepSample: keep periods for a report; otherwise only the figures.
    explicit Timeline(bool keepSample);

    // usbsim::ModelObserver
    void periodDone(const Period& period) override;
    void notice(bool isState, ULONG code, ULONGLONG value, LONG answer) override;
    void call(ULONG code, NTSTATUS answer, const std::string& note,
              const ChannelConfig& wanted) override;
    void deviceEvent(const std::string& kind, const std::string& detail) override;
    // hostpc::ServiceObserver
    void serviced(const Service& service) override;
    void stateChanged(bool capture, KSSTATE state) override;

    // One line of the driver's trace (its prefix included).
    void traceLine(const std::string& line);
    // An event at the current period.
    void event(const std::string& kind, const std::string& label);
    // An event of the device's life (unplug, removal, replug, suspend,
    // resume): also kept apart, for the command that lives through it.
    void lifeEvent(const std::string& kind, const std::string& label);
    std::vector<TimelineEvent> lifeEvents() const;
    // Why audio may have stopped, from what the USB driver sent and what
    // happened to the device: "the USB driver detached the MME side at
    // period 200 and forbade further calls".
    std::string whyStopped() const;
    // The DMA channels' positions, read each period; set by whoever can
    // reach the driver's channels. Returns false when there are none.
    using DmaProbe = bool (*)(void* context, uint32_t position[2], uint32_t offset[2],
                              uint32_t blockAlign[2], uint32_t bufferBytes[2]);
    void setDmaProbe(DmaProbe probe, void* context);

    SoakFigures figures() const;
    uint64_t currentPeriod() const { return mPeriod.load(std::memory_order_relaxed); }

    // The sample, for the report (under the lock; call when the clock stands).
    std::vector<PeriodRow> sample() const;
    std::vector<TimelineEvent> events() const;
    uint64_t eventsDropped() const;
    size_t windows() const;
    uint64_t windowsDropped() const;

private:
    void keep(const PeriodRow& row);
    void openWindow(uint64_t period);

    const bool mKeepSample;
    DmaProbe mProbe = nullptr;
    void* mProbeContext = nullptr;

    std::atomic<uint64_t> mPeriod{0};
    // Counts of the period under way.
    std::atomic<uint32_t> mServices[2]{};
    std::atomic<uint32_t> mCopied[2]{};
    std::atomic<uint32_t> mGlitches{0}, mOverruns{0};
    std::atomic<uint32_t> mServicePosition[2]{};
    std::atomic<bool> mRunning[2]{};

    // Period thread only.
    bool mHavePrevious[2] = {false, false};
    uint32_t mPrevious[2] = {0, 0};
    SoakFigures mFigures;

    mutable std::mutex mLock;
    std::vector<PeriodRow> mKept; // head and windows, ascending
    std::vector<PeriodRow> mTail; // the last kTailPeriods, a ring
    size_t mTailNext = 0;         // where the next one goes
    uint64_t mWindowStart = 0;    // of the last window opened
    uint64_t mWindowEnd = 0;      // keep periods up to this one (exclusive)
    size_t mWindows = 0;
    uint64_t mWindowsDropped = 0;
    std::vector<TimelineEvent> mEvents;
    uint64_t mEventsDropped = 0;
    std::vector<TimelineEvent> mLife; // at most kMaxEvents

    // What the USB driver told the driver last, with the periods; under mLock.
    struct Link {
        bool everAttached = false, attached = false;
        uint64_t attachedAt = 0, detachedAt = 0;
        bool forbidden = false;
        uint64_t forbiddenAt = 0;
        bool asio = false;
        uint64_t asioAt = 0;
    } mLink;
};

} // namespace mmesim
