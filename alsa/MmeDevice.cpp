// The device behind an open PCM: trace tap, model USB driver, driver, clock,
// the window onto the device's output and the device's unplug and replug.
#include "MmeDevice.h"

#include "host/kernel/HostKernel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace mmealsa {

namespace {

// The process's device, shared by its PCMs of the same parameters (a
// program that plays and records at once, on one device).
std::mutex gDeviceLock;
std::weak_ptr<Device> gDevice;

uint32_t loadRing(const ULONG& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

// Passes on what the device plays from the render stream's first frame on.
// The stream's first frame went into the render ring at the ring's write
// position less what the stream has moved since, plus the driver's write
// offset; each period hands over the ring frames that end at the device's
// read position. Runs in the model's period, with its period lock held.
class StreamWindow : public usbsim::OutputBackend {
public:
    StreamWindow(std::shared_ptr<usbsim::OutputBackend> inner, usbsim::UsbDriverModel& model,
                 std::function<uint64_t()> streamFrames)
        : mInner(std::move(inner)), mModel(model), mStreamFrames(std::move(streamFrames)) {}
    void configure(uint32_t rate, uint32_t channels) override { mInner->configure(rate, channels); }
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override {
        if (!mLocated) {
            const uint64_t moved = mStreamFrames();
            if (moved == 0 || !mModel.mmeAttached())
                return;
            const AudioSM& ring = mModel.renderRing();
            const uint32_t first =
                loadRing(ring.mWritePos) - uint32_t(moved) + loadRing(ring.mWriteOffset);
            const uint32_t handed = mModel.renderReadPos() - frames;
            const int32_t skip = int32_t(first - handed);
            mSkip = skip > 0 ? uint32_t(skip) : 0;
            mLocated = true;
        }
        if (mSkip >= frames) {
            mSkip -= frames;
            return;
        }
        mInner->write(source + size_t(mSkip) * channels, frames - mSkip, channels);
        mSkip = 0;
    }
    std::string describe() const override { return mInner->describe(); }

private:
    std::shared_ptr<usbsim::OutputBackend> mInner;
    usbsim::UsbDriverModel& mModel;
    std::function<uint64_t()> mStreamFrames;
    bool mLocated = false;
    uint32_t mSkip = 0;
};

// The device's output: always into the loopback when there is one, into the
// output backend's window once a render stream has begun.
class OutputRouter : public usbsim::OutputBackend {
public:
    explicit OutputRouter(std::shared_ptr<usbsim::LoopbackBackend> loop) : mLoop(std::move(loop)) {}
    void configure(uint32_t rate, uint32_t channels) override {
        if (mLoop)
            mLoop->configure(rate, channels);
    }
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override {
        if (mLoop)
            mLoop->write(source, frames, channels);
        if (StreamWindow* window = mWindow.load(std::memory_order_acquire))
            window->write(source, frames, channels);
    }
    std::string describe() const override { return "router"; }
    // Client thread; the window's backend is configured already.
    void begin(std::unique_ptr<StreamWindow> window) {
        mOwned = std::move(window);
        mWindow.store(mOwned.get(), std::memory_order_release);
    }

private:
    std::shared_ptr<usbsim::LoopbackBackend> mLoop;
    std::unique_ptr<StreamWindow> mOwned;
    std::atomic<StreamWindow*> mWindow{nullptr};
};

// Plain decimal seconds ("2", "0.25") to milliseconds, below a million
// seconds; by hand, since strtod follows the program's locale.
bool parseSeconds(const std::string& text, uint32_t* ms) {
    uint64_t whole = 0, thousandths = 0;
    size_t digits = 0, fraction = 0;
    bool dot = false;
    for (char c : text) {
        if (c == '.' && !dot) {
            dot = true;
        } else if (c >= '0' && c <= '9') {
            ++digits;
            if (!dot && whole < 1000000)
                whole = whole * 10 + uint64_t(c - '0');
            else if (dot && ++fraction <= 3)
                thousandths = thousandths * 10 + uint64_t(c - '0');
        } else {
            return false;
        }
    }
    for (; fraction < 3; ++fraction)
        thousandths *= 10;
    if (digits == 0 || whole >= 1000000)
        return false;
    *ms = uint32_t(whole * 1000 + thousandths);
    return true;
}

} // namespace

UnplugTime parseUnplug(const std::string& text) {
    UnplugTime t;
    const size_t colon = text.find(':');
    const bool ok = parseSeconds(text.substr(0, colon), &t.atMs) &&
                    (colon == std::string::npos ||
                     (parseSeconds(text.substr(colon + 1), &t.replugAfterMs) && t.replugAfterMs));
    if (!ok)
        throw DeviceError("unplug \"" + text +
                          "\": use AT[:REPLUG_AFTER] in seconds, as \"2\" or \"1.5:0.5\" "
                          "(REPLUG_AFTER at least 0.001)");
    return t;
}

// The model's device events, on its clock's thread.
class Device::Events : public usbsim::ModelObserver {
public:
    explicit Events(Device& device) : mDevice(device) {}
    void periodDone(const Period& period) override { mDevice.ticked(period.deviceReadPos); }
    void notice(bool, ULONG, ULONGLONG, LONG) override {}
    void call(ULONG, NTSTATUS, const std::string&, const ChannelConfig&) override {}
    void deviceEvent(const std::string& kind, const std::string&) override {
        if (kind == "unplug")
            mDevice.unplugged();
    }

private:
    Device& mDevice;
};

std::shared_ptr<Device> Device::acquire(const DeviceParams& params) {
    std::lock_guard<std::mutex> lock(gDeviceLock);
    std::shared_ptr<Device> device = gDevice.lock();
    if (device) {
        const DeviceParams& p = device->params();
        if (p.profile != params.profile || p.input != params.input || p.output != params.output ||
            p.driver != params.driver || p.trace != params.trace || p.unplug != params.unplug)
            throw DeviceError("this process has the device open already, with other parameters");
        return device;
    }
    device.reset(new Device(params));
    gDevice = device;
    return device;
}

std::string Device::release(std::shared_ptr<Device>& device) {
    std::lock_guard<std::mutex> lock(gDeviceLock);
    std::string problems;
    if (device && device.use_count() == 1) {
        problems = device->shutdown();
    } else if (device) {
        // The closing PCM may have held the last pin of an unplugged device.
        std::lock_guard<std::mutex> devLock(device->mLock);
        device->follow();
    }
    device.reset();
    return problems;
}

Device::Device(const DeviceParams& params) : mParams(params) {
    const UnplugTime unplug = params.unplug.empty() ? UnplugTime() : parseUnplug(params.unplug);
    std::shared_ptr<usbsim::InputBackend> input;
    std::shared_ptr<usbsim::LoopbackBackend> loop;
    try {
        if (params.input.compare(0, 8, "loopback") == 0) {
            // "loopback[:FRAMES]": what the device plays, FRAMES (512) later.
            const std::string frames = params.input.size() > 9 ? params.input.substr(9) : "512";
            if (params.input.size() > 8 && params.input[8] != ':')
                throw std::invalid_argument("input \"" + params.input +
                                            "\": use loopback[:FRAMES]");
            loop = std::make_shared<usbsim::LoopbackBackend>(uint32_t(std::stoul(frames)));
            input = loop;
        } else {
            input = usbsim::makeInput(params.input);
        }
        mOutput = usbsim::makeOutput(params.output);
    } catch (const std::exception& e) {
        throw DeviceError(std::string("input ") + params.input + ", output " + params.output +
                          ": " + e.what());
    }
    usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault();
    if (!params.profile.empty()) {
        try {
            profile = usbsim::DeviceProfile::fromJsonFile(params.profile);
        } catch (const std::exception& e) {
            throw DeviceError("bad profile " + params.profile + ": " + e.what());
        }
    }
    try {
        mTrace.reset(new hostpc::TraceTap(params.trace, false));
        hostk::useVirtualTime(false);
        mModel.reset(new usbsim::UsbDriverModel(std::move(profile)));
        if (loop && loop->latencyFrames() < mModel->periodFrames())
            throw DeviceError("loopback of " + std::to_string(loop->latencyFrames()) +
                              " frames: below the device's period");
        mEvents.reset(new Events(*this));
        mModel->setObserver(mEvents.get());
        if (!params.unplug.empty())
            mModel->schedule({unplug.atMs ? mModel->ticksFor(unplug.atMs) : 0,
                              usbsim::EventKind::Unplug, unplug.replugAfterMs});
        mModel->setInput(input);
        mRouter = std::make_shared<OutputRouter>(loop);
        mModel->setOutput(mRouter);
        mLoader.reset(params.driver == "linked" ? new hostpc::DriverLoader()
                                                : new hostpc::DriverLoader(params.driver));
        std::unique_ptr<hostpc::WaveFilter> filter;
        const std::string failure = hostpc::startWaveFilter(*mLoader, mModel->pdo(), &filter);
        mFilter = std::move(filter);
        mFilterInstance = mModel->instance();
        if (!failure.empty())
            throw DeviceError("driver \"" + params.driver + "\": " + failure);
        mReadPos.store(mModel->renderReadPos());
        mModel->startRealTime();
    } catch (const DeviceError&) {
        shutdown();
        throw;
    } catch (const std::exception& e) {
        shutdown();
        throw DeviceError(e.what());
    }
}

Device::~Device() {
    shutdown();
}

std::string Device::refusal(NTSTATUS status, size_t mark) const {
    return mTrace->refusal(status, mark, mModel->refusedConfigNote());
}

std::shared_ptr<hostpc::WaveFilter> Device::filter(uint64_t* instance) {
    std::lock_guard<std::mutex> lock(mLock);
    follow();
    *instance = mFilterInstance;
    return mFilter;
}

void Device::follow() {
    if (!mModel || !mLoader)
        return;
    // The filter handle of an unplugged instance would keep its removal
    // waiting after its last pin closed.
    if (mFilter && (lost(mFilterInstance) || mModel->instance() != mFilterInstance))
        mFilter.reset();
    if (mFilter || !mModel->present())
        return;
    // The replug's add and start run on the clock's thread; the filter
    // exists once the start is done.
    const uint64_t instance = mModel->instance();
    PDEVICE_OBJECT fdo = mLoader->fdo(mModel->pdo());
    if (!fdo || hostpc::pnpState(fdo) != hostpc::PnpState::Started)
        return;
    std::shared_ptr<hostpc::WaveFilter> filter = hostpc::WaveFilter::ofDevice(fdo);
    if (filter->valid() && mModel->instance() == instance) {
        mFilter = std::move(filter);
        mFilterInstance = instance;
    }
}

void Device::unplugged() {
    mLost.store(mModel->instance());
    std::lock_guard<std::mutex> lock(mEventLock);
    for (int fd : mWaiters)
        wake(fd);
}

void Device::addWaiter(int fd) {
    std::lock_guard<std::mutex> lock(mEventLock);
    mWaiters.push_back(fd);
}

void Device::removeWaiter(int fd) {
    std::lock_guard<std::mutex> lock(mEventLock);
    mWaiters.erase(std::remove(mWaiters.begin(), mWaiters.end(), fd), mWaiters.end());
    mTickWaiters.erase(std::remove(mTickWaiters.begin(), mTickWaiters.end(), fd),
                       mTickWaiters.end());
}

void Device::wantTicks(int fd, bool on) {
    std::lock_guard<std::mutex> lock(mEventLock);
    mTickWaiters.erase(std::remove(mTickWaiters.begin(), mTickWaiters.end(), fd),
                       mTickWaiters.end());
    if (on)
        mTickWaiters.push_back(fd);
}

void Device::ticked(uint32_t readPos) {
    mReadPos.store(readPos, std::memory_order_release);
    // The device's clock stands for the interface's own: where the program
    // may (JACK, as root or with an rtprio limit), it runs before the
    // machine's ordinary work, so that a busy machine does not make it late
    // and bunch its periods. Otherwise it stays as it is.
    thread_local bool raised = false;
    if (!raised) {
        raised = true;
        sched_param param{};
        param.sched_priority = 1;
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
    }
    std::lock_guard<std::mutex> lock(mEventLock);
    for (int fd : mTickWaiters)
        wake(fd);
}

void wake(int fd) {
    const uint64_t one = 1;
    ssize_t done = ::write(fd, &one, sizeof one);
    (void)done; // a full counter wakes the reader all the same
}

void Device::beginOutput(std::function<uint64_t()> streamFrames) {
    if (mOutputBegun || !mOutput)
        return;
    mOutputBegun = true;
    // Configured once the stream runs, so the file takes the rate the
    // hardware runs at for it.
    mOutput->configure(mModel->settings().current.fr, mModel->renderRing().mChannelsPerFrame);
    static_cast<OutputRouter*>(mRouter.get())
        ->begin(std::make_unique<StreamWindow>(mOutput, *mModel, std::move(streamFrames)));
}

uint32_t Device::renderWritePos() const {
    return loadRing(mModel->renderRing().mWritePos);
}

uint32_t Device::renderWriteOffset() const {
    return loadRing(mModel->renderRing().mWriteOffset);
}

uint32_t Device::renderReadPos() const {
    return mReadPos.load(std::memory_order_acquire);
}

bool Device::firstSummary(const std::string& path) {
    std::lock_guard<std::mutex> lock(mLock);
    if (std::find(mSummaries.begin(), mSummaries.end(), path) != mSummaries.end())
        return false;
    mSummaries.push_back(path);
    return true;
}

void Device::waitForClock() {
    // Bounded: a clock that cannot catch up (a machine far too slow) still
    // lets the program go on, with positions behind real time.
    for (int tries = 0; tries < 5000 && mModel->realTimeBacklog() > mModel->periodFrames(); ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::string Device::shutdown() {
    std::string problems;
    if (mModel) {
        mModel->stopRealTime();
        mModel->setObserver(nullptr);
        mModel->setOutput(nullptr);
        try {
            if (mOutput && mOutputBegun)
                mOutput->finish();
        } catch (const std::exception& e) {
            problems = e.what();
        }
    }
    mFilter.reset();
    mLoader.reset(); // removes the device
    const bool had = mModel != nullptr;
    mModel.reset();
    mEvents.reset();
    mOutput.reset();
    mRouter.reset();
    if (had) {
        const std::string left = hostk::checkClean();
        if (!left.empty())
            problems += (problems.empty() ? "" : "; ") + left;
    }
    mTrace.reset();
    return problems;
}

} // namespace mmealsa
