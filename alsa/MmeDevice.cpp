// The device behind an open PCM: trace tap, model USB driver, driver, clock
// and the window onto the device's output.
#include "MmeDevice.h"

#include "host/kernel/HostKernel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace mmealsa {

namespace {

constexpr size_t kRecentLines = 400;

std::atomic<bool> gDeviceOpen{false};

// What the driver says when it refuses something, by the words it uses.
const char* const kReasonWords[] = {
    "ERROR",          "DISABLED",      "not allowed",     "mismach",           "prevented",
    "second capture", "second render", "(less channels)", "invalid paramter",  "No DMA",
    "!pPinDesc",      "refused",       "failed",          "already allocated",
};

std::string withoutPrefix(const std::string& line) {
    std::string text = line;
    if (text.compare(0, 6, "MME: (") == 0) {
        const size_t close = text.find(") ");
        if (close != std::string::npos)
            text = text.substr(close + 2);
    }
    const size_t start = text.find_first_not_of(' ');
    return start == std::string::npos ? std::string() : text.substr(start);
}

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
    void finish() override { mInner->finish(); }
    std::string describe() const override { return mInner->describe(); }

private:
    std::shared_ptr<usbsim::OutputBackend> mInner;
    usbsim::UsbDriverModel& mModel;
    std::function<uint64_t()> mStreamFrames;
    bool mLocated = false;
    uint32_t mSkip = 0;
};

} // namespace

TraceTap::TraceTap(const std::string& path) {
    if (!path.empty()) {
        mFile.open(path, std::ios::out | std::ios::trunc);
        if (!mFile)
            throw DeviceError(path + ": cannot write the trace file");
    }
    hostk::setSinkCallback([this](const std::string& text) { take(text); });
}

TraceTap::~TraceTap() {
    hostk::setSinkNull();
    std::lock_guard<std::mutex> lock(mLock);
    if (!mPartial.empty() && mFile)
        mFile << mPartial << '\n';
}

void TraceTap::take(const std::string& text) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFile)
        mFile << text;
    mPartial += text;
    size_t end;
    while ((end = mPartial.find('\n')) != std::string::npos) {
        mRecent.push_back(mPartial.substr(0, end));
        mPartial.erase(0, end + 1);
        ++mTotal;
        if (mRecent.size() > kRecentLines)
            mRecent.pop_front();
    }
}

size_t TraceTap::mark() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mTotal;
}

std::string TraceTap::reasonSince(size_t mark) const {
    std::lock_guard<std::mutex> lock(mLock);
    const size_t oldest = mTotal - mRecent.size();
    for (size_t i = mTotal; i > std::max(mark, oldest); --i) {
        const std::string& line = mRecent[i - 1 - oldest];
        if (line.find("DMA init on failure") != std::string::npos)
            continue;
        for (const char* word : kReasonWords)
            if (line.find(word) != std::string::npos)
                return withoutPrefix(line);
    }
    return std::string();
}

Device::Device(const DeviceParams& params) : mParams(params) {
    if (params.driver != "linked")
        throw DeviceError("driver \"" + params.driver +
                          "\": this build runs the linked-in driver only (driver \"linked\"); "
                          "it cannot load a .sys image");
    std::shared_ptr<usbsim::InputBackend> input;
    try {
        input = usbsim::makeInput(params.input);
        mOutput = usbsim::makeOutput(params.output);
    } catch (const std::exception& e) {
        throw DeviceError(e.what());
    }
    usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault();
    if (!params.profile.empty()) {
        try {
            profile = usbsim::DeviceProfile::fromJsonFile(params.profile);
        } catch (const std::exception& e) {
            throw DeviceError("bad profile " + params.profile + ": " + e.what());
        }
    }
    if (gDeviceOpen.exchange(true))
        throw DeviceError("this process has the device open already");
    mHoldsProcess = true;
    try {
        mTrace.reset(new TraceTap(params.trace));
        hostk::useVirtualTime(false);
        mModel.reset(new usbsim::UsbDriverModel(std::move(profile)));
        mModel->setInput(input);
        mLoader.reset(new hostpc::DriverLoader());
        if (!NT_SUCCESS(mLoader->entryStatus()))
            throw DeviceError("DriverEntry failed: " + hostpc::statusName(mLoader->entryStatus()));
        NTSTATUS status = mLoader->addDevice(mModel->pdo());
        if (NT_SUCCESS(status))
            status = mLoader->startDevice(mModel->pdo());
        if (!NT_SUCCESS(status))
            throw DeviceError("the driver did not start: " + hostpc::statusName(status));
        PDEVICE_OBJECT fdo = mLoader->fdo(mModel->pdo());
        mFilter.reset(new hostpc::WaveFilter(fdo ? hostpc::subdevice(fdo, L"Wave") : nullptr));
        if (!mFilter->valid())
            throw DeviceError("the driver registered no wave filter");
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
    std::string text = hostpc::statusName(status);
    const std::string why = mTrace->reasonSince(mark);
    if (!why.empty())
        text += ": \"" + why + "\"";
    std::string usb;
    for (const auto& call : mModel->calls())
        if (call.code == USBCall_ChangeConfig && !NT_SUCCESS(call.answer) && !call.note.empty())
            usb = call.note;
    if (!usb.empty())
        text += " (USB driver: " + usb + ")";
    return text;
}

void Device::beginOutput(std::function<uint64_t()> streamFrames) {
    if (mOutputBegun || !mOutput)
        return;
    mOutputBegun = true;
    // Installed once the stream runs, so the file takes the rate the
    // hardware runs at for it.
    mModel->setOutput(std::make_shared<StreamWindow>(mOutput, *mModel, std::move(streamFrames)));
}

uint32_t Device::renderRingEnd() const {
    const AudioSM& ring = mModel->renderRing();
    return loadRing(ring.mWritePos) + loadRing(ring.mWriteOffset);
}

bool Device::renderRingPlayed(uint32_t target) const {
    return int32_t(mModel->renderReadPos() - target) >= 0;
}

uint32_t Device::renderRingAhead() const {
    if (!mModel->mmeAttached())
        return 0;
    const int32_t ahead = int32_t(renderRingEnd() - mModel->renderReadPos());
    return ahead > 0 ? uint32_t(ahead) : 0;
}

void Device::waitForClock() {
    const uint32_t rate = mModel->settings().current.fr ? mModel->settings().current.fr : 48000;
    // Real time moves rate x 10 ms in 10 ms; allow a period more for
    // jitter, and two such spans in a row, since a busy machine can hold
    // the clock back for one.
    const uint64_t realTime = rate / 100 + mModel->periodFrames();
    int calm = 0;
    for (int tries = 0; tries < 1000 && calm < 2; ++tries) {
        const uint64_t before = mModel->framesRun();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        calm = mModel->framesRun() - before <= realTime ? calm + 1 : 0;
    }
}

std::string Device::shutdown() {
    std::string problems;
    if (mModel) {
        mModel->stopRealTime();
        try {
            mModel->finishOutput();
        } catch (const std::exception& e) {
            problems = e.what();
        }
    }
    mFilter.reset();
    mLoader.reset(); // removes the device
    const bool had = mModel != nullptr;
    mModel.reset();
    mOutput.reset();
    if (had) {
        const std::string left = hostk::checkClean();
        if (!left.empty())
            problems += (problems.empty() ? "" : "; ") + left;
    }
    mTrace.reset();
    if (mHoldsProcess) {
        mHoldsProcess = false;
        gDeviceOpen = false;
    }
    return problems;
}

} // namespace mmealsa
