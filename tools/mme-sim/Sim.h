// The simulated system of mme-sim: the driver loaded on the host port-class
// library above the model USB driver (built-in default profile or a JSON
// one), the wave filter as a KS client sees it, the driver's trace output
// (to a file with --trace, to stderr with --verbose, otherwise only kept in
// memory to explain refusals) and the clock: virtual time, as fast as
// possible, or real time paced by the sample clock.
#pragma once

#include "Pcm.h"
#include "Timeline.h"

#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"
#include "host/portcls/TraceTap.h"
#include "usbsim/UsbDriverModel.h"

#include <algorithm>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace mmesim {

// A failure to report on one line; exitCode is the program's exit status.
class SimError : public std::runtime_error {
public:
    explicit SimError(const std::string& message, int exitCode = 1)
        : std::runtime_error(message), mExitCode(exitCode) {}
    int exitCode() const { return mExitCode; }

private:
    int mExitCode;
};

struct SimOptions {
    std::string profilePath; // empty: the built-in default device
    std::string tracePath;   // driver trace to this file
    bool verbose = false;    // driver trace to stderr
    bool realtime = false;
    // "concurrent" (the port's own DPC thread) or "end-of-period"; empty:
    // concurrent in real time, end-of-period in virtual time.
    std::string portService;
    std::string port;       // "documented" or "open-source"; empty: the environment's (MME_PORT)
    std::string reportPath; // timeline report to this HTML file
    std::string driverPath; // a Windows image (.sys) to run instead of the linked driver
};

class Sim {
public:
    explicit Sim(const SimOptions& options); // throws SimError
    ~Sim();
    Sim(const Sim&) = delete;
    Sim& operator=(const Sim&) = delete;

    usbsim::UsbDriverModel& model() { return *mModel; }
    hostpc::WaveFilter& filter() { return *mFilter; }
    // The device whose wave filter the client holds (the last one, once
    // that is closed).
    PDEVICE_OBJECT device() const { return mDevice; }
    // The client lets go of the filter (its pins are closed already).
    void closeFilter() { mFilter.reset(); }
    // The filter of the device started for the model's present device
    // object; empty when that has started, else what stands in the way.
    std::string openReplugged();
    const usbsim::DeviceProfile& profile() const { return mModel->profile(); }
    bool realtime() const { return mOptions.realtime; }
    bool concurrentService() const {
        return mOptions.portService.empty() ? mOptions.realtime
                                            : mOptions.portService == "concurrent";
    }
    ChannelConfig hardware() { return mModel->settings().current; }

    // Opens a pin of the direction with the format; a refusal throws
    // SimError with the driver's status and reason.
    std::unique_ptr<hostpc::KsStream> open(bool capture, const Format& format,
                                           const hostpc::StreamOptions& options = {});
    // Walks a stream to RUN; a refusal throws as open() does.
    void run(hostpc::KsStream& stream);
    // The reason for the last refusal seen (the driver's words, and the USB
    // driver's when it refused a configuration).
    std::string refusal(NTSTATUS status, size_t mark);

    // The clock. begin() starts the real-time thread; step() runs one period
    // (virtual) or waits a little (real time); end() stops the thread.
    void begin();
    void step();
    void end();
    uint64_t periodsRun() { return mModel->periodsRun(); }

    // What the run did, period by period; outlives shutdown().
    Timeline& timeline() { return *mTimeline; }
    const SimOptions& options() const { return mOptions; }
    // Periods in which the port serviced its pins late: counted only when
    // the port services from its own DPC thread; drained at the end of each
    // period, it is never late (none).
    void noteCounters(const hostpc::StreamCounters& counters) {
        mLateServices = std::max<uint64_t>(mLateServices, counters.lateServices);
    }
    std::optional<uint64_t> periodsServicedLate() const {
        if (!concurrentService())
            return std::nullopt;
        return mLateServices;
    }

    // Removes the device and the model; what the host kernel reports left
    // over (empty when clean).
    std::string shutdown();
    bool alive() const { return mModel != nullptr; } // not shut down yet
    // Which driver ran: the one linked in, or the Windows image and its path.
    const std::string& driverDescription() const { return mDriverDescription; }

private:
    std::string mDriverDescription;
    SimOptions mOptions;
    std::unique_ptr<Timeline> mTimeline;
    std::unique_ptr<hostpc::TraceTap> mTrace;
    std::unique_ptr<usbsim::UsbDriverModel> mModel;
    std::unique_ptr<hostpc::DriverLoader> mLoader;
    std::unique_ptr<hostpc::WaveFilter> mFilter;
    PDEVICE_OBJECT mDevice = nullptr;
    bool mClockRunning = false;
    uint64_t mLateServices = 0;
};

} // namespace mmesim
