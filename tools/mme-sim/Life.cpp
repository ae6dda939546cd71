// The device's life as mme-sim's client lives through it.
#include "Life.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

namespace mmesim {

namespace {

constexpr size_t kFarewellFrames = 256;

} // namespace

std::string Farewell::text() const {
    const std::string stopped = "walked to STOP -> " + hostpc::statusName(stop) + ", closed";
    if (capture)
        return "position read -> frame " + std::to_string(position) + ", read -> " +
               std::to_string(read) + " frames still queued, " + stopped;
    return "write -> " + hostpc::statusName(write) + ", position read -> frame " +
           std::to_string(position) + ", " + stopped;
}

bool Farewell::asExpected() const {
    return stop == STATUS_SUCCESS && (capture || write == hostpc::kStatusDeviceRemoved);
}

bool Departure::behaved() const {
    return unplugged && failure.empty() && after == hostpc::PnpState::Removed &&
           (!dueInRun || back) &&
           std::all_of(pins.begin(), pins.end(), [](const Farewell& f) { return f.asExpected(); });
}

DeviceLife::DeviceLife(Sim& sim, const CommandOptions& options) : mSim(sim), mOptions(options) {}

void DeviceLife::start(uint64_t frames) {
    mStarted = true;
    mRate = mSim.hardware().fr ? mSim.hardware().fr : 48000;
    mPeriodFrames = mSim.model().periodFrames();
    mStart = mSim.periodsRun();
    mEnd = mStart + (frames + mPeriodFrames - 1) / mPeriodFrames;
    for (const usbsim::ScheduledEvent& e : mSim.profile().schedule)
        if (e.kind == usbsim::EventKind::Unplug || e.kind == usbsim::EventKind::Replug)
            mSchedule.push_back(e);
    if (mOptions.unplugAt >= 0) {
        const usbsim::ScheduledEvent e{periodAt(mOptions.unplugAt), usbsim::EventKind::Unplug,
                                       uint32_t(std::llround(mOptions.replugAfter * 1000))};
        mSim.model().schedule(e);
        mSchedule.push_back(e);
    }
    if (mOptions.sleepAt >= 0)
        mSim.model().schedule({periodAt(mOptions.sleepAt), usbsim::EventKind::Sleep,
                               uint32_t(std::llround(mOptions.sleepSeconds * 1000))});
}

bool DeviceLife::gone(std::initializer_list<hostpc::KsStream*> pins) {
    for (hostpc::KsStream* pin : pins)
        if (pin && pin->removed())
            return true;
    return false;
}

void DeviceLife::leave(hostpc::KsStream* render, hostpc::KsStream* capture,
                       const std::function<void(const uint8_t*, size_t)>& captured) {
    Departure d;
    d.period = mSim.periodsRun();
    const uint64_t after = mDepartures.empty() ? 0 : mDepartures.back().period + 1;
    for (const TimelineEvent& e : mSim.timeline().lifeEvents())
        if (e.kind == "unplug" && e.period >= after) {
            d.unplugged = true;
            d.period = e.period;
        }
    PDEVICE_OBJECT old = mSim.device();
    if (render) {
        Farewell f;
        std::vector<uint8_t> silence(kFarewellFrames * render->blockAlign());
        size_t written = 0;
        f.write = render->write(silence.data(), kFarewellFrames, &written);
        f.position = render->positionFrames();
        f.stop = render->setState(KSSTATE_STOP);
        render->close();
        d.pins.push_back(f);
    }
    if (capture) {
        Farewell f;
        f.capture = true;
        f.position = capture->positionFrames();
        std::vector<uint8_t> chunk(4096 * capture->blockAlign());
        for (size_t n; (n = capture->read(chunk.data(), 4096)) > 0;) {
            f.read += n;
            if (captured)
                captured(chunk.data(), n);
        }
        f.stop = capture->setState(KSSTATE_STOP);
        capture->close();
        d.pins.push_back(f);
    }
    mSim.closeFilter();
    // The remove request comes with the last close; in real time the
    // surprise removal may still be finishing on the clock's thread.
    d.after = hostpc::pnpState(old);
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (d.after != hostpc::PnpState::Removed && mSim.realtime() &&
           std::chrono::steady_clock::now() < patience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        d.after = hostpc::pnpState(old);
    }
    if (d.unplugged) {
        d.replugDue = replugDue(d.period);
        d.dueInRun = d.replugDue && d.replugDue < mEnd;
    }
    mDepartures.push_back(d);
}

uint64_t DeviceLife::replugDue(uint64_t unplugPeriod) const {
    const usbsim::ScheduledEvent* fired = nullptr;
    uint64_t due = 0;
    for (const usbsim::ScheduledEvent& e : mSchedule) {
        if (e.kind == usbsim::EventKind::Unplug && e.period <= unplugPeriod &&
            (!fired || e.period >= fired->period))
            fired = &e;
        if (e.kind == usbsim::EventKind::Replug && e.period > unplugPeriod)
            due = due ? std::min(due, e.period) : e.period;
    }
    if (fired && fired->value) {
        const uint64_t automatic = unplugPeriod + mSim.model().ticksFor(fired->value);
        due = due ? std::min(due, automatic) : automatic;
    }
    return due;
}

bool DeviceLife::comeBack() {
    Departure& d = mDepartures.back();
    if (!d.dueInRun)
        return false;
    // Two seconds of the clock past its time, for the add and the start.
    const uint64_t limit = d.replugDue + mSim.model().ticksFor(2000);
    while (true) {
        const std::string why = mSim.model().present() ? mSim.openReplugged()
                                                       : std::string("the device did not return");
        if (why.empty())
            break;
        if (mSim.periodsRun() > limit) {
            d.failure = why;
            return false;
        }
        mSim.step();
    }
    mSim.end();
    d.back = mSim.periodsRun();
    return true;
}

uint64_t DeviceLife::elapsedFrames() {
    return (mSim.periodsRun() - mStart) * mPeriodFrames;
}

size_t DeviceLife::sleeps() const {
    size_t count = 0;
    for (const TimelineEvent& e : mSim.timeline().lifeEvents())
        count += e.kind == "suspend";
    return count;
}

bool DeviceLife::behaved() const {
    return std::all_of(mDepartures.begin(), mDepartures.end(),
                       [](const Departure& d) { return d.behaved(); });
}

std::string DeviceLife::at(uint64_t period) const {
    const double s = (double(period) - double(mStart)) * mPeriodFrames / mRate;
    return "period " + std::to_string(period) + " (" + secondsText(s) + ")";
}

// Rows in the order things happened; a row whose name starts with a space
// belongs to the one above it.
std::vector<std::pair<std::string, std::string>> DeviceLife::lines() const {
    std::vector<std::pair<std::string, std::string>> rows;
    if (!mStarted)
        return rows;
    const std::vector<TimelineEvent> life = mSim.timeline().lifeEvents();
    const uint64_t now = mSim.periodsRun();
    auto arrival = [&](uint64_t from) {
        for (const TimelineEvent& e : life)
            if (e.kind == "replug" && e.period >= from)
                return e.period;
        return uint64_t(0);
    };
    struct Item {
        uint64_t period;
        const Departure* departure;
        const TimelineEvent* sleep;
    };
    std::vector<Item> items;
    for (const Departure& d : mDepartures)
        items.push_back({d.period, &d, nullptr});
    for (const TimelineEvent& e : life)
        if (e.kind == "suspend")
            items.push_back({e.period, nullptr, &e});
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.period < b.period; });
    for (const Item& item : items) {
        if (item.sleep) {
            // It ends with the wake, or with an unplug while asleep.
            const TimelineEvent* end = nullptr;
            for (const TimelineEvent& e : life)
                if ((e.kind == "resume" || e.kind == "unplug") && e.period >= item.period &&
                    &e > item.sleep) {
                    end = &e;
                    break;
                }
            const std::string from = " from " + at(item.period);
            const std::string slept =
                end ? secondsText(double(end->period - item.period) * mPeriodFrames / mRate) : "";
            rows.push_back(
                {"slept", !end ? "from " + at(item.period) + ", not awake at the run's end"
                          : end->kind == "resume"
                              ? slept + from + ", resumed at period " + std::to_string(end->period)
                              : slept + from + ", until the device was unplugged"});
            continue;
        }
        const Departure& d = *item.departure;
        rows.push_back({d.unplugged ? "unplugged" : "removed",
                        d.unplugged ? "at " + at(d.period)
                                    : "at " + at(d.period) + ", though nothing unplugged it"});
        for (const Farewell& f : d.pins)
            rows.push_back({f.capture ? " capture" : " render", f.text()});
        rows.push_back({" device", d.after == hostpc::PnpState::Removed
                                       ? std::string("removed once the client closed its pins "
                                                     "and filter")
                                       : std::string("still ") + hostpc::pnpStateName(d.after) +
                                             " after the client closed its pins and filter"});
        if (!d.unplugged)
            continue;
        const uint64_t arrived = arrival(d.period);
        if (d.back)
            rows.push_back(
                {"replugged", "after " +
                                  secondsText(double((arrived ? arrived : d.replugDue) - d.period) *
                                              mPeriodFrames / mRate) +
                                  " and streaming again from period " + std::to_string(d.back)});
        else if (!d.failure.empty())
            rows.push_back({"replugged", "due at " + at(d.replugDue) + ", but " + d.failure});
        else if (d.replugDue)
            rows.push_back({"replugged", "due at " + at(d.replugDue) +
                                             ", after the run's end: the command ended early"});
        else
            rows.push_back({"replugged", "no: the command ended early"});
    }
    auto notReached = [&](const char* name, double at) {
        const uint64_t period = periodAt(at);
        if (period >= now)
            rows.push_back({name, "not: the run ended before " + this->at(period)});
    };
    if (mOptions.unplugAt >= 0)
        notReached("unplugged", mOptions.unplugAt);
    if (mOptions.sleepAt >= 0)
        notReached("slept", mOptions.sleepAt);
    return rows;
}

void DeviceLife::print() const {
    for (const auto& [name, text] : lines())
        if (name[0] == ' ')
            std::printf("    %-13s%s\n", name.c_str() + 1, text.c_str());
        else
            std::printf("  %-15s%s\n", name.c_str(), text.c_str());
}

void DeviceLife::report(ReportInput& in) const {
    for (const auto& [name, text] : lines())
        if (name[0] == ' ' && !in.summary.empty())
            in.summary.back().second += "; " + name.substr(1) + ": " + text;
        else
            in.summary.push_back({name, text});
}

uint64_t DeviceLife::periodAt(double seconds) const {
    return mStart + uint64_t(std::llround(seconds * mRate / mPeriodFrames));
}

} // namespace mmesim
