// The device's life as mme-sim's client lives through it. The unplug and
// sleep the command line asks for go on the model's clock at their time of
// audio; the profile's schedule may bring the same. A device that vanishes
// under the client's pins is noticed by polling them (in real time it goes
// on the clock's thread); the client then does what a Windows client does:
// its next requests to each pin, recorded with what they returned, the walk
// down to STOP, the close of the pins and of the filter, after which the old
// device must be removed. A replug due within the run is waited for and the
// new device's filter opened; otherwise the command ends early. The summary
// says what happened and whether it went as a client may expect.
//
// Threads: the client's thread only; what it reads of the device's life
// comes from the timeline and the PnP state, both safe from any thread.
#pragma once

#include "Commands.h"
#include "Report.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace mmesim {

// What the client did with one pin once its device had gone.
struct Farewell {
    bool capture = false;
    NTSTATUS write = STATUS_SUCCESS; // render: its next write
    size_t read = 0;                 // capture: frames still handed out
    uint64_t position = 0;           // the position read, frames
    NTSTATUS stop = STATUS_SUCCESS;  // the walk down to STOP
    std::string text() const;
    // A render write refused as the device is gone, the walk down taken.
    bool asExpected() const;
};

// One time the device went away under the client.
struct Departure {
    uint64_t period = 0;    // when it was unplugged (or the pins saw it gone)
    bool unplugged = false; // false: removed with nothing unplugging it
    std::vector<Farewell> pins;
    hostpc::PnpState after = hostpc::PnpState::Started; // once the client let go of it
    uint64_t replugDue = 0;                             // period a replug is due; 0: none
    bool dueInRun = false;                              // before the run's planned end
    uint64_t back = 0;   // period the new device's filter opened; 0: it did not
    std::string failure; // why the new device could not be used
    bool behaved() const;
};

class DeviceLife {
public:
    DeviceLife(Sim& sim, const CommandOptions& options);

    // Streaming starts now and lasts `frames` frames of the clock: the
    // options' events go on the clock.
    void start(uint64_t frames);
    // The device went away under one of these pins (null ones are skipped).
    static bool gone(std::initializer_list<hostpc::KsStream*> pins);
    // The client's farewell to the pins and the filter of a device gone;
    // what capture still hands out goes to `captured`.
    void leave(hostpc::KsStream* render, hostpc::KsStream* capture,
               const std::function<void(const uint8_t*, size_t)>& captured);
    // Waits for a replug due within the run. True when the new device's
    // filter is open; in real time the clock then stands until the caller's
    // sim.begin(), so that the pins it opens start in one period.
    bool comeBack();

    // Frames of the clock since streaming started.
    uint64_t elapsedFrames();
    // Times the system went to sleep so far.
    size_t sleeps() const;
    const std::vector<Departure>& departures() const { return mDepartures; }
    // Every departure went as a client may expect (nothing happened: true).
    bool behaved() const;

    // The summary's lines and the report's rows for what happened.
    void print() const;
    void report(ReportInput& in) const;

private:
    std::vector<std::pair<std::string, std::string>> lines() const;
    std::string at(uint64_t period) const; // "period 282 (1.50 s)"
    uint64_t replugDue(uint64_t unplugPeriod) const;
    uint64_t periodAt(double seconds) const; // of streaming, counted from mStart

    Sim& mSim;
    const CommandOptions& mOptions;
    uint32_t mRate = 48000;
    uint32_t mPeriodFrames = 256;
    uint64_t mStart = 0; // period streaming began
    uint64_t mEnd = 0;   // period it ends, as planned
    bool mStarted = false;
    std::vector<usbsim::ScheduledEvent> mSchedule; // unplugs and replugs: the profile's and ours
    std::vector<Departure> mDepartures;
};

} // namespace mmesim
