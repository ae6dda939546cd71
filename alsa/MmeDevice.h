// The device behind one open PCM of the ALSA plugin: the driver loaded on the
// host port-class library above the model USB driver, its period clock in
// real time (paced by the sample clock), the wave filter as a KS client sees
// it, and the driver's trace (to a file when asked, always kept in memory so
// that a refusal can be explained in the driver's own words).
//
// One device per process at a time (the host kernel's debug output and clock
// are process-wide), shared by the process's PCMs of the same parameters, so
// that a program can play and record on it at once.
//
// Device life: the model can unplug and replug the device on its clock
// thread. A PCM belongs to the device instance it was opened on; once that
// instance is unplugged, every PCM of it is dead (as on a sound card pulled
// out) and its poll descriptor is woken. The wave filter follows the model
// to a replugged instance, so PCMs opened afterwards work on it.
#pragma once

#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"
#include "host/portcls/TraceTap.h"
#include "usbsim/Backends.h"
#include "usbsim/UsbDriverModel.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace mmealsa {

class DeviceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The parameters of pcm.mme in the ALSA configuration.
struct DeviceParams {
    std::string profile;           // device profile JSON; empty: the built-in default
    std::string input = "silence"; // what the device hears: usbsim::makeInput's words, or
                                   // loopback[:FRAMES] (what it plays, FRAMES later)
    std::string output = "null";   // where what it plays goes (usbsim::makeOutput's words)
    std::string driver = "linked"; // "linked", or a .sys image
    std::string trace;             // the driver's trace into this file; empty: none
    std::string summary;           // a summary of the stream at close; empty: none
    std::string unplug;            // "AT[:REPLUG_AFTER]" (seconds); empty: never
};

// The unplug parameter: unplugged AT seconds of the device's clock after its
// start, replugged REPLUG_AFTER seconds later (0: stays unplugged). Throws
// DeviceError saying what is wrong with the text.
struct UnplugTime {
    uint32_t atMs = 0;
    uint32_t replugAfterMs = 0;
};
UnplugTime parseUnplug(const std::string& text);

class Device {
public:
    // The process's device for these parameters: the one open already, or a
    // new one (loads the driver, adds and starts the device, starts the
    // clock). Throws DeviceError.
    static std::shared_ptr<Device> acquire(const DeviceParams& params);
    // Drops a user; the last one shuts the device down and gets what the
    // host kernel reported left over (empty when clean).
    static std::string release(std::shared_ptr<Device>& device);

    explicit Device(const DeviceParams& params); // throws DeviceError
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const DeviceParams& params() const { return mParams; }
    usbsim::UsbDriverModel& model() { return *mModel; }
    // The wave filter of the device instance present now, and that
    // instance; null while none is (unplugged, or replugged but not started
    // yet). Drops the filter of an instance that went away.
    std::shared_ptr<hostpc::WaveFilter> filter(uint64_t* instance);
    // That instance was unplugged. Any thread.
    bool lost(uint64_t instance) const { return instance <= mLost.load(); }
    // Eventfds written to when the device is unplugged (from the clock's
    // thread); a PCM's, from its open to its close. One that wants ticks is
    // also written to after every period of the device.
    void addWaiter(int fd);
    void removeWaiter(int fd);
    void wantTicks(int fd, bool on);

    size_t traceMark() const { return mTrace->mark(); }
    // "STATUS_X: \"the driver's line\" (USB driver: why)".
    std::string refusal(NTSTATUS status, size_t mark) const;

    // Render: from now on the device's output goes to the output backend,
    // starting with the stream's first frame. streamFrames() gives the
    // frames the stream has moved into the render ring since it started.
    void beginOutput(std::function<uint64_t()> streamFrames);
    // The render ring in frames (positions wrap at 2^32): the driver writes
    // each period at its write position plus the write offset and moves the
    // write position on; the device plays from its read position, as the
    // last period that ended left it.
    uint32_t renderWritePos() const;
    uint32_t renderWriteOffset() const;
    uint32_t renderReadPos() const;

    // True the first time a PCM of this device asks for this summary file:
    // that PCM starts the file, the others add to it.
    bool firstSummary(const std::string& path);

    // A process that was stopped (SIGSTOP) froze the device's clock with it;
    // thawed, the clock runs the periods it missed back to back. Waits until
    // it is back to real time, so the program sees what a device outside
    // the process would have done meanwhile, and its refill cannot land in
    // the middle of the catch-up.
    void waitForClock();

    // Stops the clock, closes the output, removes the device; what the host
    // kernel reports left over (empty when clean). Idempotent.
    std::string shutdown();

private:
    class Events;
    void follow(); // mLock held
    void unplugged();
    void ticked(uint32_t readPos); // the clock's thread, after each period

    DeviceParams mParams;
    std::unique_ptr<hostpc::TraceTap> mTrace;
    std::unique_ptr<usbsim::UsbDriverModel> mModel;
    std::unique_ptr<Events> mEvents;
    std::unique_ptr<hostpc::DriverLoader> mLoader;
    // Program threads; taken before mEventLock, never held by the clock's thread.
    std::mutex mLock;
    std::shared_ptr<hostpc::WaveFilter> mFilter;
    uint64_t mFilterInstance = 0;
    std::atomic<uint64_t> mLost{0}; // the last instance unplugged; 0: none
    std::atomic<uint32_t> mReadPos{0};
    std::mutex mEventLock;
    std::vector<int> mWaiters;
    std::vector<int> mTickWaiters;
    std::vector<std::string> mSummaries; // under mLock
    std::shared_ptr<usbsim::OutputBackend> mOutput;
    std::shared_ptr<usbsim::OutputBackend> mRouter;
    bool mOutputBegun = false;
};

// Wakes whoever polls the eventfd fd (a full counter wakes it all the same).
void wake(int fd);

} // namespace mmealsa
