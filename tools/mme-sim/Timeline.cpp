// The timeline of a run: soak figures, the bounded sample and events.
#include "Timeline.h"

#include <algorithm>
#include <cstdlib>
#include <cstdio>

namespace mmesim {

namespace {

const char* notificationName(ULONG code) {
    switch (code) {
    case MMENotify_OnMMEAttached:
        return "MME attached";
    case MMENotify_OnMMEDetached:
        return "MME detached";
    case MMENotify_PreventFurtherDriverCalls:
        return "no further driver calls";
    case MMENotify_OnAsioAttached:
        return "ASIO attached";
    case MMENotify_OnAsioDetached:
        return "ASIO detached";
    case MMENotify_OnTimedStartCallback:
        return "timed start";
    }
    return nullptr;
}

const char* notificationKind(ULONG code) {
    switch (code) {
    case MMENotify_OnMMEAttached:
    case MMENotify_OnMMEDetached:
        return "attach";
    case MMENotify_OnAsioAttached:
    case MMENotify_OnAsioDetached:
        return "asio";
    case MMENotify_OnTimedStartCallback:
        return "timer";
    }
    return "notice";
}

std::string configText(const ChannelConfig& c) {
    char text[96];
    std::snprintf(text, sizeof text, "%u Hz, %u in / %u out, %u/%u-bit", unsigned(c.fr),
                  unsigned(c.inCH), unsigned(c.outCH), unsigned(c.inRes), unsigned(c.outRes));
    return text;
}

// The driver's own words for what only it knows of: its attach timer and
// the formats its streams take.
struct TraceEvent {
    const char* words;
    const char* kind;
    const char* label;
};
const TraceEvent kTraceEvents[] = {
    {"ATTACH TIMER", "timer", "attach timer"},
    {"+ MMEWaveStream::SetFormat", "format", "format change"},
};

} // namespace

Timeline::Timeline(bool keepSample) : mKeepSample(keepSample) {
    if (keepSample) {
        mKept.reserve(kHeadPeriods + kMaxWindows * (2 * kWindowPeriods + 1));
        mTail.resize(kTailPeriods);
    }
}

void Timeline::setDmaProbe(DmaProbe probe, void* context) {
    mProbe = probe;
    mProbeContext = context;
}

void Timeline::serviced(const Service& service) {
    const int d = service.capture ? 0 : 1;
    mServices[d].fetch_add(1, std::memory_order_relaxed);
    mCopied[d].fetch_add(service.copied, std::memory_order_relaxed);
    mServicePosition[d].store(service.position, std::memory_order_relaxed);
    if (service.glitch)
        mGlitches.fetch_add(1, std::memory_order_relaxed);
    if (service.overrun)
        mOverruns.fetch_add(1, std::memory_order_relaxed);
}

void Timeline::stateChanged(bool capture, KSSTATE state) {
    mRunning[capture ? 0 : 1].store(state == KSSTATE_RUN, std::memory_order_relaxed);
    event("state", std::string(capture ? "capture " : "render ") + hostpc::stateName(state));
}

void Timeline::periodDone(const Period& period) {
    PeriodRow row;
    row.period = period.index;
    row.captureWritePos = period.captureWritePos;
    row.renderWritePos = period.renderWritePos;
    row.mmeReadPos = period.mmeReadPos;
    row.deviceReadPos = period.deviceReadPos;
    row.exchanged = period.exchanged;
    row.present = period.present;
    uint32_t align[2] = {0, 0}, size[2] = {0, 0};
    const bool probed =
        mProbe && mProbe(mProbeContext, row.dmaPosition, row.transferOffset, align, size);
    for (int d = 0; d < 2; ++d) {
        row.services[d] = mServices[d].exchange(0, std::memory_order_relaxed);
        row.copied[d] = mCopied[d].exchange(0, std::memory_order_relaxed);
        if (!probed)
            row.dmaPosition[d] = mServicePosition[d].load(std::memory_order_relaxed);
        mFigures.services[d] += row.services[d];
        // How far this period's position update is from one period of the
        // clock while the stream runs; the position wraps at the buffer's size.
        const bool running = period.present && mRunning[d].load(std::memory_order_relaxed) &&
                             probed && align[d] && size[d] && row.dmaPosition[d] < size[d];
        if (running && mHavePrevious[d]) {
            const uint32_t step = (row.dmaPosition[d] + size[d] - mPrevious[d]) % size[d];
            row.deviation[d] = int32_t(step / align[d]) - int32_t(period.frames);
            const uint32_t magnitude = uint32_t(std::abs(row.deviation[d]));
            if (magnitude > mFigures.largestDeviation[d]) {
                mFigures.largestDeviation[d] = magnitude;
                mFigures.deviationPeriod[d] = row.period;
            }
        }
        mHavePrevious[d] = running;
        mPrevious[d] = row.dmaPosition[d];
    }
    row.glitches = mGlitches.exchange(0, std::memory_order_relaxed);
    row.overruns = mOverruns.exchange(0, std::memory_order_relaxed);

    ++mFigures.periods;
    mFigures.exchanged += row.exchanged ? 1 : 0;
    mFigures.absent += row.present ? 0 : 1;
    if (row.glitches && mFigures.glitches == 0)
        mFigures.firstGlitchPeriod = row.period;
    if (row.overruns && mFigures.overruns == 0)
        mFigures.firstOverrunPeriod = row.period;
    mFigures.glitches += row.glitches;
    mFigures.overruns += row.overruns;
    if (mKeepSample) {
        std::lock_guard<std::mutex> lock(mLock);
        if (row.glitches || row.overruns)
            openWindow(row.period);
        keep(row);
    }
    mPeriod.store(period.index + 1, std::memory_order_relaxed);
}

// Under mLock.
void Timeline::openWindow(uint64_t period) {
    if (period < mWindowEnd) {
        // Inside the open window: it grows to keep this one's after-periods,
        // up to kMaxWindowPeriods in all.
        if (period + kWindowPeriods + 1 <= mWindowStart + kMaxWindowPeriods)
            mWindowEnd = std::max(mWindowEnd, period + kWindowPeriods + 1);
        return;
    }
    const uint64_t from = period > kWindowPeriods ? period - kWindowPeriods : 0;
    mWindowStart = from;
    if (period < kHeadPeriods) {
        mWindowEnd = period + kWindowPeriods + 1;
        return;
    }
    if (mWindows == kMaxWindows) {
        ++mWindowsDropped;
        return;
    }
    ++mWindows;
    mWindowEnd = period + kWindowPeriods + 1;
    // The periods before it come from the tail ring, those not kept yet.
    const uint64_t after = mKept.empty() ? 0 : mKept.back().period + 1;
    for (size_t i = 0; i < kTailPeriods; ++i) {
        const PeriodRow& r = mTail[(mTailNext + i) % kTailPeriods];
        if (r.period >= std::max(from, after) && r.period < period)
            mKept.push_back(r);
    }
}

// Under mLock.
void Timeline::keep(const PeriodRow& row) {
    if (row.period < kHeadPeriods || row.period < mWindowEnd)
        mKept.push_back(row);
    mTail[mTailNext] = row;
    mTailNext = (mTailNext + 1) % kTailPeriods;
}

void Timeline::event(const std::string& kind, const std::string& label) {
    const uint64_t period = currentPeriod();
    std::lock_guard<std::mutex> lock(mLock);
    if (mEvents.size() >= kMaxEvents) {
        ++mEventsDropped;
        return;
    }
    mEvents.push_back(TimelineEvent{period, kind, label});
    if (mKeepSample)
        openWindow(period);
}

void Timeline::lifeEvent(const std::string& kind, const std::string& label) {
    event(kind, label);
    std::lock_guard<std::mutex> lock(mLock);
    if (kind == "replug")
        mLink = Link(); // a new device, a new link
    if (mLife.size() < kMaxEvents)
        mLife.push_back(TimelineEvent{currentPeriod(), kind, label});
}

void Timeline::deviceEvent(const std::string& kind, const std::string& detail) {
    lifeEvent(kind, detail);
}

std::vector<TimelineEvent> Timeline::lifeEvents() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mLife;
}

std::string Timeline::whyStopped() const {
    std::lock_guard<std::mutex> lock(mLock);
    const TimelineEvent* away = nullptr;
    for (const TimelineEvent& e : mLife)
        if (e.kind == "unplug" || e.kind == "suspend")
            away = &e;
        else if (e.kind == "replug" || e.kind == "resume")
            away = nullptr;
    if (away)
        return away->kind == "unplug"
                   ? "the device was unplugged at period " + std::to_string(away->period)
                   : "the system went to sleep at period " + std::to_string(away->period) +
                         " and has not woken";
    const Link& l = mLink;
    if (l.asio)
        return "an ASIO client has held the device since period " + std::to_string(l.asioAt);
    std::string why;
    if (!l.everAttached)
        why = "the USB driver never attached the MME side";
    else if (!l.attached)
        why = "the USB driver detached the MME side at period " + std::to_string(l.detachedAt);
    if (l.forbidden) {
        if (why.empty())
            why = "the USB driver forbade further calls at period " + std::to_string(l.forbiddenAt);
        else if (l.everAttached && !l.attached && l.forbiddenAt == l.detachedAt)
            why += " and forbade further calls";
        else
            why += "; it forbade further calls at period " + std::to_string(l.forbiddenAt);
    }
    if (why.empty())
        why = "the MME side is attached (since period " + std::to_string(l.attachedAt) +
              ") and no notice of the USB driver explains it";
    return why;
}

void Timeline::notice(bool isState, ULONG code, ULONGLONG value, LONG answer) {
    if (!isState) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            const uint64_t now = currentPeriod();
            switch (code) {
            case MMENotify_OnMMEAttached:
                mLink.everAttached = mLink.attached = true;
                mLink.attachedAt = now;
                break;
            case MMENotify_OnMMEDetached:
                if (mLink.attached)
                    mLink.detachedAt = now;
                mLink.attached = false;
                break;
            case MMENotify_PreventFurtherDriverCalls:
                if (!mLink.forbidden)
                    mLink.forbiddenAt = now;
                mLink.forbidden = true;
                break;
            case MMENotify_OnAsioAttached:
                mLink.asio = true;
                mLink.asioAt = now;
                break;
            case MMENotify_OnAsioDetached:
                mLink.asio = false;
                break;
            }
        }
        const char* name = notificationName(code);
        event(notificationKind(code), name ? name : "notification " + std::to_string(code));
        return;
    }
    switch (code) {
    case USBStc_SampleRate:
        event("config", "hardware rate " + std::to_string(value) + " Hz");
        break;
    case USBStc_ConfigChanged:
        event("config", "hardware configuration changed");
        break;
    default:
        break; // the driver's questions about its own attach state are not events
    }
    (void)answer;
}

void Timeline::call(ULONG code, NTSTATUS answer, const std::string& note,
                    const ChannelConfig& wanted) {
    const bool done = NT_SUCCESS(answer);
    switch (code) {
    case USBCall_ChangeConfig:
        event("config", std::string(done ? "configuration " : "configuration refused: ") +
                            configText(wanted) + (note.empty() ? "" : " (" + note + ")"));
        break;
    case USBCall_Attach:
        event("attach", done ? "attach asked" : "attach refused: " + note);
        break;
    case USBCall_TimedStart:
        event("timer", done ? "timed start asked" : "timed start refused: " + note);
        break;
    default:
        break;
    }
}

void Timeline::traceLine(const std::string& line) {
    for (const TraceEvent& e : kTraceEvents)
        if (line.find(e.words) != std::string::npos)
            event(e.kind, e.label);
}

SoakFigures Timeline::figures() const {
    return mFigures;
}

std::vector<PeriodRow> Timeline::sample() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<PeriodRow> rows = mKept;
    const uint64_t seen = mPeriod.load(std::memory_order_relaxed);
    const uint64_t held = std::min<uint64_t>(seen, mKeepSample ? kTailPeriods : 0);
    for (uint64_t i = 0; i < held; ++i)
        rows.push_back(mTail[(mTailNext + kTailPeriods - held + i) % kTailPeriods]);
    // A window at the very end holds some of the tail already.
    std::stable_sort(rows.begin(), rows.end(),
                     [](const PeriodRow& a, const PeriodRow& b) { return a.period < b.period; });
    rows.erase(
        std::unique(rows.begin(), rows.end(),
                    [](const PeriodRow& a, const PeriodRow& b) { return a.period == b.period; }),
        rows.end());
    return rows;
}

std::vector<TimelineEvent> Timeline::events() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mEvents;
}

uint64_t Timeline::eventsDropped() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mEventsDropped;
}

size_t Timeline::windows() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mWindows;
}

uint64_t Timeline::windowsDropped() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mWindowsDropped;
}

} // namespace mmesim
