// Model of the companion USB driver: the physical device object whose
// internal device-control dispatch answers the six call codes, the link
// record it fills at registration (device-info record, capture ring block
// with its 8-byte prefix, render ring, hardware settings, ids), the
// configuration changes it applies or refuses by its profile, the
// notifications and state questions it sends, and the period clock that
// feeds device input into the capture ring, calls the exchange callback at
// dispatch level and plays what the driver wrote into the render ring.
//
// Contract with the driver: every request is completed synchronously before
// the dispatch returns; after USBCall_Unregister no callback arrives (the
// real-time clock is stopped and Unregister waits for callbacks already under
// way on other threads). The same holds once the device is unplugged.
//
// Device life: unplug() is what a bus driver does when its device vanishes
// (the link's notifications, then IoInvalidateDeviceRelations: the PnP
// manager surprise-removes the stack); replug() brings a new device object
// of the same profile, which the PnP manager has the loaded driver add and
// start. The device object also takes the PnP and power requests the
// function driver passes down: D3 suspends the device (the MME side
// detached, no audio moves), D0 resumes it with its positions moved on by
// the time it slept and the MME side attached again if it was before.
//
// Threads: notifications and state questions are sent with no lock of the
// model held, so their handlers may call the USB driver on any thread. A
// period holds the (recursive) period lock around its ring work and the
// exchange callback, which may neither wait nor call the USB driver; a
// configuration change takes it too, so the rings never change shape under
// a period.
#pragma once

#include "driver/common/AudioSM.h"
#include "driver/common/MMEAdapterInfo.h"
#include "host/kernel/HostKernel.h"
#include "usbsim/Profile.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace usbsim {

class InputBackend;
class OutputBackend;
class LoopbackBackend;

// Watches the model for a timeline of the run. Called on the thread that
// runs the period, sends the notice or makes the call, never with a lock of
// the model held; periodDone follows the period's exchange and playback.
// Must not call back into the model except for its const accessors.
class ModelObserver {
public:
    struct Period {
        uint64_t index = 0; // counted from 0
        uint32_t frames = 0;
        uint32_t rate = 0;
        uint32_t captureWritePos = 0; // capture ring mWritePos after the device wrote
        uint32_t renderWritePos = 0;  // render ring mWritePos, as the driver left it
        uint32_t mmeReadPos = 0;      // render ring mMMEReadPos
        uint32_t deviceReadPos = 0;   // where the device plays the render ring next
        bool exchanged = false;       // the exchange callback ran
        bool present = true;          // false: unplugged or suspended, a tick without audio
    };
    virtual ~ModelObserver() = default;
    virtual void periodDone(const Period& period) = 0;
    // A notification (isState false) or a state question with its answer.
    virtual void notice(bool isState, ULONG code, ULONGLONG value, LONG answer) = 0;
    // A call from the driver, answered; note says why when the model refused.
    virtual void call(ULONG code, NTSTATUS answer, const std::string& note,
                      const ChannelConfig& wanted) = 0;
    // The device's life: "unplug", "replug", "suspend" (to D3), "resume"
    // (back in D0), with what happened in words.
    virtual void deviceEvent(const std::string& kind, const std::string& detail) {
        (void)kind;
        (void)detail;
    }
};

class UsbDriverModel {
public:
    explicit UsbDriverModel(DeviceProfile profile = DeviceProfile::builtInDefault());
    ~UsbDriverModel(); // stops the clock and deletes its device object
    UsbDriverModel(const UsbDriverModel&) = delete;
    UsbDriverModel& operator=(const UsbDriverModel&) = delete;

    // The device object of the present instance (the last one after an unplug).
    PDEVICE_OBJECT pdo() const;
    PDRIVER_OBJECT driverObject() { return &mDriver.object; }
    const DeviceProfile& profile() const { return mProfile; }

    // ---- Calls seen ----
    struct Call {
        ULONG code = 0;
        UCHAR major = 0;
        MMEAdapterInfo* record = nullptr; // the request's UserBuffer
        NTSTATUS answer = 0;
        KIRQL irql = 0;
        ChannelConfig wanted{}; // mcAttachChannels at the call (when a record came with it)
        std::string note;       // why a call was refused, when the model decided it
    };
    std::vector<Call> calls() const;
    // The model's reason for the last configuration change it refused
    // (empty when none was refused since clearCalls()).
    std::string refusedConfigNote() const;
    std::vector<ULONG> callCodes() const;
    size_t callCount(ULONG code) const;
    void clearCalls();

    // Answer a code with this status instead of acting on it. STATUS_PENDING
    // is the exception: the request is acted on and completed (with the
    // outcome in IoStatus) before the dispatch returns STATUS_PENDING, as a
    // driver that finishes queued work at once would.
    void setAnswer(ULONG code, NTSTATUS status);
    void clearAnswers();
    // Runs inside the dispatch, before the code is acted on.
    void setDuringCall(std::function<void(ULONG code)> hook);

    // ---- Records ----
    MMEAdapterInfo* link() const; // registered record; null before Register and after Unregister
    HardwareSettings& settings() { return mSettings; }
    MMEDeviceInfo& deviceInfo() { return mInfo.info(); }
    UCHAR* captureBlock() { return mCaptureBlock.get(); }
    AudioSM& captureRing() { return *mCapture; }
    AudioSM& renderRing() { return *mRender; }
    bool adapterStarted() const;

    // ---- Towards the driver (through the registered record) ----
    struct Notice {
        bool isState = false; // false: notification, true: state question
        ULONG code = 0;
        ULONGLONG value = 0;
        LONG answer = 0; // state questions only
    };
    std::vector<Notice> notices() const;
    void clearNotices();

    void notify(ULONG code, ULONGLONG value = 0); // nothing without a registered callback
    LONG askState(ULONG code, ULONG value);       // 0 without a registered callback

    // Sets the render ring's mMMEReadPos to the capture ring's next write
    // position minus backlogFrames, starts playing the render ring from its
    // current mWritePos and sends MMENotify_OnMMEAttached.
    void attachMME(uint32_t backlogFrames = 0);
    // Sends MMENotify_OnMMEDetached and marks the render ring not attached.
    void detachMME();
    bool mmeAttached() const;
    // ASIO client arrives: the MME side is detached first, then
    // MMENotify_OnAsioAttached. Leaves: MMENotify_OnAsioDetached.
    void asioAttach();
    void asioDetach();
    bool asioAttached() const;
    void timedStart(); // MMENotify_OnTimedStartCallback
    void preventFurtherCalls();
    void setExclusiveInputs(bool on);
    void setDigitalLock(uint32_t hz);
    // The hardware changes on its own (front panel, clock source). With
    // report: USBStc_SampleRate when the rate changed, then USBStc_ConfigChanged.
    void changeHardware(const ChannelConfig& config, bool report);

    // USBCall_Attach and USBCall_TimedStart answered by attaching at the next
    // period boundary (Attach) or by a timed-start notification there
    // (TimedStart), unless an ASIO client holds the device. On by default.
    void setAutoAttach(bool on);
    // Report applied USBCall_ChangeConfig requests through the state callback.
    void setReportOwnChanges(bool on);
    // Call the exchange callback even while the MME side is detached.
    void setExchangeWhileDetached(bool on);
    // Virtual host time moves with the sample clock (on by default).
    void setAdvanceHostTime(bool on);
    // Null: none. Set before the clock runs; the observer outlives its use.
    void setObserver(ModelObserver* observer);
    // Runs fn at the next period boundary, under the model's lock.
    void defer(std::function<void()> fn);

    // ---- Device life ----
    // The device vanishes: MMENotify_OnMMEDetached and
    // MMENotify_PreventFurtherDriverCalls to the registered driver (also
    // while a period runs on the real-time thread), the link dropped (no
    // callback once this returns), the clock ticks on without audio, every
    // later request to the device object fails with STATUS_NO_SUCH_DEVICE,
    // and the PnP manager hears the child is gone (hostpc::reportMissing).
    // replugAfterMs > 0: the clock replugs it after that much of its time.
    // Nothing when already unplugged.
    void unplug(uint32_t replugAfterMs = 0);
    // A new instance: a new device object, the hardware and rings as at
    // power-on, reported to the PnP manager (hostpc::reportArrival), whose
    // answer comes back. Throws std::logic_error while the device is present.
    NTSTATUS replug();
    bool present() const;
    bool suspended() const;    // in D3
    uint64_t instance() const; // 1, and one more per replug
    // The system sleeps for `ms` of the clock's time from the next tick:
    // hostpc::sleepSystem(), ticks without audio, hostpc::wakeSystem().
    void sleepSystem(uint32_t ms);
    // Ticks of the clock for `ms` milliseconds at the hardware's rate (at least 1).
    uint64_t ticksFor(uint32_t ms) const;

    // ---- Device I/O ----
    void setInput(std::shared_ptr<InputBackend> input);    // null: silence
    void setOutput(std::shared_ptr<OutputBackend> output); // null: discard
    // Output comes back as input latencyFrames later; throws
    // std::invalid_argument when latencyFrames is below the period.
    std::shared_ptr<LoopbackBackend> setLoopback(uint32_t latencyFrames);
    // Finishes the output backend (a WAV file is closed and put in place);
    // what the device plays afterwards is dropped. Throws what finish() throws.
    void finishOutput();
    // Render samples whose top byte was not the sign extension of bit 23.
    uint64_t renderFormatErrors() const;

    // ---- Period clock ----
    uint32_t periodFrames() const;
    void setPeriodFrames(uint32_t frames); // throws std::invalid_argument
    void schedule(const ScheduledEvent& event);
    void runPeriods(size_t count); // virtual time, on the calling thread
    // Paced by the sample clock on a thread of the model's own.
    void startRealTime();
    void stopRealTime();
    bool realTimeRunning() const;
    // Why the real-time clock stopped on its own (a backend failed); empty if it did not.
    std::string realTimeError() const;
    // Frames the real-time clock owes: a thawed process finds its device still
    // running the periods it missed back to back. 0 when on time or not running.
    uint64_t realTimeBacklog() const;
    uint64_t periodsRun() const;
    uint64_t framesRun() const;
    uint64_t exchangeCalls() const;

    // Positions of the device side, in ring frame numbering.
    uint32_t renderReadPos() const;

private:
    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT device, PIRP irp);
    NTSTATUS handle(PIRP irp);
    NTSTATUS handleBusRequest(PIRP irp, bool current);
    void suspend();
    void resume();
    void tickAbsent();
    void tellDeviceEvent(const std::string& kind, const std::string& detail);
    NTSTATUS act(ULONG code, MMEAdapterInfo* record, std::string& note);
    NTSTATUS registerRecord(MMEAdapterInfo* record, std::string& note);
    NTSTATUS unregisterRecord(MMEAdapterInfo* record, std::string& note);
    bool waitForCallouts(); // false when one on another thread outlasted the patience
    NTSTATUS applyChange(MMEAdapterInfo* record, std::string& note);
    template <class Fn> bool callout(Fn&& fn);
    void shapeRings(bool resetPositions);
    void configureBackends();
    void applyHardware(const ChannelConfig& config);
    void runOnePeriod();
    void fireScheduled();
    void fireEvent(const ScheduledEvent& event);
    void runDeferred();
    void writeCapture();
    void readRender();
    void updateClocks();
    void advanceHostTime();
    void realTimeLoop();
    uint32_t ringFrames(uint32_t channels, uint32_t period) const;

    DeviceProfile mProfile;
    hostk::DriverObjectBlock mDriver{};
    PDEVICE_OBJECT mDevice = nullptr;     // under mLock once replugs happen
    std::vector<PDEVICE_OBJECT> mRetired; // earlier instances, deleted with the model
    uint64_t mInstance = 1;

    // mPeriodLock (periods, ring shape) before mLock (everything else);
    // mLock is never held while the driver is called.
    mutable std::recursive_mutex mPeriodLock;
    mutable std::mutex mLock;
    std::condition_variable mCalloutsDone;
    size_t mCallouts = 0; // callbacks under way
    std::vector<std::thread::id> mCalloutThreads;
    std::vector<Call> mCalls;
    uint64_t mCallsGeneration = 0;
    std::vector<std::pair<ULONG, NTSTATUS>> mAnswers;
    std::function<void(ULONG)> mDuringCall;
    std::vector<Notice> mNotices;

    RawDeviceInfo mInfo;
    HardwareSettings mSettings{};
    std::unique_ptr<UCHAR[]> mCaptureBlock;
    AudioSM* mCapture = nullptr;
    std::unique_ptr<AudioSM> mRender;
    MMEAdapterInfo* mLink = nullptr;
    bool mStarted = false;
    bool mGone = false;      // unplugged
    bool mSuspended = false; // in D3
    bool mAttachedBeforeSleep = false;
    uint64_t mReplugAt = 0;   // tick of the scheduled replug; 0: none
    uint64_t mWakeAt = 0;     // tick of the scheduled wake; 0: none
    uint64_t mSleptTicks = 0; // ticks spent in D3 this time
    bool mMMEAttached = false;
    bool mAsioAttached = false;
    bool mAutoAttach = true;
    bool mReportOwnChanges = false;
    bool mExchangeWhileDetached = false;
    bool mAdvanceHostTime = true;
    std::vector<std::function<void()>> mDeferred;
    std::atomic<ModelObserver*> mObserver{nullptr};

    std::shared_ptr<InputBackend> mInput;
    std::shared_ptr<OutputBackend> mOutput;
    std::vector<int32_t> mScratch;
    uint64_t mRenderFormatErrors = 0;
    uint32_t mRenderReadPos = 0;
    uint32_t mPeriodFrames = 256;
    std::vector<ScheduledEvent> mSchedule;
    size_t mNextEvent = 0;
    uint64_t mPeriods = 0;
    uint64_t mFrames = 0;
    uint64_t mExchangeCalls = 0;
    uint64_t mTimeRemainder = 0; // 100 ns x Hz not yet turned into host time

    std::thread mThread;
    std::thread::id mThreadId;
    mutable std::mutex mWakeLock;
    std::condition_variable mWake;
    std::atomic<bool> mStop{false};
    std::atomic<bool> mRunning{false};
    // The clock's pace, under mWakeLock: frames run since the anchor, at the rate.
    std::chrono::steady_clock::time_point mAnchor;
    uint64_t mFramesSinceAnchor = 0;
    uint32_t mAnchorRate = 0;
    std::string mRealTimeError; // under mLock
};

} // namespace usbsim
