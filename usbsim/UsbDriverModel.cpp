// The model USB driver: dispatch of the six call codes, the link record and
// rings it hands out, notifications, configuration changes and the period
// clock. See UsbDriverModel.h for the threading contract.
#include "usbsim/UsbDriverModel.h"

#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "usbsim/Backends.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace usbsim {

namespace {

constexpr int64_t kHundredNsPerSecond = 10000000;
constexpr auto kUnregisterPatience = std::chrono::seconds(5);

const char* callName(ULONG code) {
    switch (code) {
    case USBCall_Register:
        return "Register";
    case USBCall_Unregister:
        return "Unregister";
    case USBCall_AdapterStarted:
        return "AdapterStarted";
    case USBCall_Attach:
        return "Attach";
    case USBCall_ChangeConfig:
        return "ChangeConfig";
    case USBCall_TimedStart:
        return "TimedStart";
    }
    return "?";
}

uint32_t loadAcquire(const ULONG* p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
void storeRelease(ULONG* p, uint32_t v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

// What a device object of the model carries: its model and which instance
// (plug-in) it stands for.
struct PdoExtension {
    UsbDriverModel* model;
    uint64_t instance;
};

} // namespace

UsbDriverModel::UsbDriverModel(DeviceProfile profile)
    : mProfile(std::move(profile)), mInfo(mProfile) {
    mProfile.validate();
    mSettings.current = mProfile.hardware;
    mSettings.mDigitalLockFrequency = mProfile.digitalLockHz;
    mPeriodFrames = mProfile.periodFrames;
    mSchedule = mProfile.schedule;

    // The capture ring begins 8 bytes into its block.
    const size_t captureBytes = MME_CAPTURE_RING_PREFIX + sizeof(AudioSM);
    mCaptureBlock.reset(new UCHAR[captureBytes]());
    mCapture = reinterpret_cast<AudioSM*>(mCaptureBlock.get() + MME_CAPTURE_RING_PREFIX);
    mRender.reset(new AudioSM());
    shapeRings(true);

    PDRIVER_OBJECT driver = hostk::initDriverObject(mDriver);
    for (auto& fn : driver->MajorFunction)
        fn = &UsbDriverModel::dispatch;
    mDevice = hostk::createDeviceObject(driver, 1, sizeof(PdoExtension));
    if (!mDevice)
        throw std::runtime_error("usbsim: the host kernel created no device object");
    *static_cast<PdoExtension*>(mDevice->DeviceExtension) = PdoExtension{this, mInstance};
}

UsbDriverModel::~UsbDriverModel() {
    stopRealTime();
    std::vector<PDEVICE_OBJECT> devices = mRetired;
    devices.push_back(mDevice);
    for (PDEVICE_OBJECT device : devices) {
        if (!device)
            continue;
        // A bus driver never goes while a device stands on its child: the
        // requests the function driver passes down would reach freed memory.
        if (hostpc::fdoForPdo(device)) {
            hostk::reportVerifierFailure(
                "the USB model goes while a function device still stands on its device object");
            hostpc::reportMissing(device);
        }
        static_cast<PdoExtension*>(device->DeviceExtension)->model = nullptr;
        hostk::deleteDeviceObject(device);
    }
}

PDEVICE_OBJECT UsbDriverModel::pdo() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mDevice;
}

// ---- Dispatch ----

NTSTATUS NTAPI UsbDriverModel::dispatch(PDEVICE_OBJECT device, PIRP irp) {
    const PdoExtension* extension =
        device ? static_cast<const PdoExtension*>(device->DeviceExtension) : nullptr;
    UsbDriverModel* self = extension ? extension->model : nullptr;
    if (!irp)
        return STATUS_INVALID_PARAMETER;
    if (!self) {
        irp->IoStatus.Status = STATUS_INVALID_DEVICE_STATE;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, 0);
        return STATUS_INVALID_DEVICE_STATE;
    }
    bool current;
    {
        std::lock_guard<std::mutex> lock(self->mLock);
        current = extension->instance == self->mInstance && !self->mGone;
    }
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    if (major == IRP_MJ_PNP || major == IRP_MJ_POWER)
        return self->handleBusRequest(irp, current);
    if (!current) {
        // A device that vanished: the bus driver fails what still comes.
        Call call;
        call.major = major;
        call.code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
        call.record = static_cast<MMEAdapterInfo*>(irp->UserBuffer);
        call.irql = KeGetCurrentIrql();
        call.answer = STATUS_NO_SUCH_DEVICE;
        call.note = "the device is unplugged";
        {
            std::lock_guard<std::mutex> lock(self->mLock);
            self->mCalls.push_back(call);
        }
        irp->IoStatus.Status = STATUS_NO_SUCH_DEVICE;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, 0);
        return STATUS_NO_SUCH_DEVICE;
    }
    return self->handle(irp);
}

// The PnP and power requests the function driver passes down, as a bus
// driver answers them for its child.
NTSTATUS UsbDriverModel::handleBusRequest(PIRP irp, bool current) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (stack->MajorFunction == IRP_MJ_PNP) {
        switch (stack->MinorFunction) {
        case IRP_MN_START_DEVICE:
            status = current ? STATUS_SUCCESS : STATUS_NO_SUCH_DEVICE;
            break;
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
        case IRP_MN_REMOVE_DEVICE:
            status = STATUS_SUCCESS;
            break;
        default:
            break; // left as it came, as a bus driver does with what it does not handle
        }
    } else {
        if (current && stack->MinorFunction == IRP_MN_SET_POWER &&
            stack->Parameters.Power.Type == DevicePowerState) {
            if (stack->Parameters.Power.State.DeviceState == PowerDeviceD0)
                resume();
            else
                suspend();
        }
        status = STATUS_SUCCESS;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, 0);
    return status;
}

NTSTATUS UsbDriverModel::handle(PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Call call;
    call.major = stack->MajorFunction;
    call.code = stack->Parameters.DeviceIoControl.IoControlCode;
    call.record = static_cast<MMEAdapterInfo*>(irp->UserBuffer);
    call.irql = KeGetCurrentIrql();
    const bool wellFormed = call.major == IRP_MJ_INTERNAL_DEVICE_CONTROL &&
                            call.code <= USBCall_TimedStart && call.record;
    if (wellFormed)
        call.wanted = call.record->mcAttachChannels;

    size_t index;
    uint64_t generation;
    std::function<void(ULONG)> hook;
    {
        std::lock_guard<std::mutex> lock(mLock);
        index = mCalls.size();
        generation = mCallsGeneration;
        mCalls.push_back(call);
        hook = mDuringCall;
    }

    NTSTATUS status;
    NTSTATUS completion = STATUS_PENDING; // STATUS_PENDING here: complete with status
    std::string note;
    if (call.major != IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        status = STATUS_INVALID_DEVICE_REQUEST;
        note =
            "major function " + std::to_string(call.major) + " is not an internal device control";
    } else if (call.code > USBCall_TimedStart) {
        status = STATUS_INVALID_DEVICE_REQUEST;
        note = "unknown call code " + std::to_string(call.code);
    } else if (!call.record) {
        status = STATUS_INVALID_PARAMETER;
        note = std::string(callName(call.code)) + " without a link record";
    } else {
        if (hook)
            hook(call.code);
        bool answered = false;
        status = STATUS_SUCCESS;
        {
            std::lock_guard<std::mutex> lock(mLock);
            for (const auto& a : mAnswers)
                if (a.first == call.code) {
                    status = a.second;
                    answered = true;
                }
        }
        if (!answered) {
            status = act(call.code, call.record, note);
        } else if (status == STATUS_PENDING) {
            completion = act(call.code, call.record, note);
            note = "answered STATUS_PENDING" + (note.empty() ? "" : "; " + note);
        } else {
            note = "answer set for this code";
        }
    }

    {
        std::lock_guard<std::mutex> lock(mLock);
        if (generation == mCallsGeneration && index < mCalls.size()) {
            mCalls[index].answer = status;
            mCalls[index].note = note;
        }
    }
    if (ModelObserver* observer = mObserver.load(std::memory_order_acquire))
        observer->call(call.code, status, note, call.wanted);
    irp->IoStatus.Status = completion != STATUS_PENDING ? completion : status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, 0);
    return status;
}

NTSTATUS UsbDriverModel::act(ULONG code, MMEAdapterInfo* record, std::string& note) {
    if (code == USBCall_Register)
        return registerRecord(record, note);
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (record != mLink) {
            note = std::string(callName(code)) +
                   (mLink ? " with a record other than the registered one"
                          : " before USBCall_Register");
            return STATUS_INVALID_DEVICE_STATE;
        }
    }
    switch (code) {
    case USBCall_Unregister:
        return unregisterRecord(record, note);
    case USBCall_AdapterStarted: {
        std::lock_guard<std::mutex> lock(mLock);
        mStarted = true;
        return STATUS_SUCCESS;
    }
    case USBCall_Attach: {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mAutoAttach)
            return STATUS_SUCCESS;
        if (mAsioAttached) {
            note = "the ASIO client holds the device";
            return STATUS_INVALID_DEVICE_STATE;
        }
        if (!mMMEAttached)
            mDeferred.push_back([this] {
                if (!mmeAttached() && !asioAttached())
                    attachMME();
            });
        return STATUS_SUCCESS;
    }
    case USBCall_ChangeConfig:
        return applyChange(record, note);
    case USBCall_TimedStart: {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mAutoAttach)
            return STATUS_SUCCESS;
        if (mAsioAttached) {
            note = "the ASIO client holds the device";
            return STATUS_INVALID_DEVICE_STATE;
        }
        mDeferred.push_back([this] { timedStart(); });
        return STATUS_SUCCESS;
    }
    }
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS UsbDriverModel::registerRecord(MMEAdapterInfo* record, std::string& note) {
    if (record->mInterfaceVersion != MME_INTERFACE_VERSION) {
        note = "interface version " + std::to_string(record->mInterfaceVersion) + ", expected " +
               std::to_string(MME_INTERFACE_VERSION);
        return STATUS_NOT_SUPPORTED;
    }
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    std::lock_guard<std::mutex> lock(mLock);
    if (mLink && mLink != record) {
        note = "another record is registered";
        return STATUS_INVALID_DEVICE_STATE;
    }
    MMEDeviceInfo& info = mInfo.info();
    record->mpAPIDeviceInfo = &info;
    record->mpCaptureRing = mCaptureBlock.get();
    record->mpSharedMemory = mRender.get();
    record->mpSettings = &mSettings;
    record->mVendorID = info.vendorId;
    record->mProductID = info.productId;
    storeRelease(&mRender->mMMEReadPos, MME_RING_NOT_ATTACHED);
    mMMEAttached = false;
    mStarted = false;
    mLink = record;
    return STATUS_SUCCESS;
}

NTSTATUS UsbDriverModel::unregisterRecord(MMEAdapterInfo*, std::string& note) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mLink = nullptr;
        mMMEAttached = false;
        mStarted = false;
        mDeferred.clear();
    }
    stopRealTime();
    if (!waitForCallouts())
        note = "a callback on another thread was still running";
    return STATUS_SUCCESS;
}

// Callbacks that started before the link went away finish before the
// driver may free what they use; those on this thread are our callers.
bool UsbDriverModel::waitForCallouts() {
    std::unique_lock<std::mutex> lock(mLock);
    const auto me = std::this_thread::get_id();
    auto othersBusy = [&] {
        return size_t(std::count(mCalloutThreads.begin(), mCalloutThreads.end(), me)) != mCallouts;
    };
    return mCalloutsDone.wait_for(lock, kUnregisterPatience, [&] { return !othersBusy(); });
}

NTSTATUS UsbDriverModel::applyChange(MMEAdapterInfo* record, std::string& note) {
    const ChannelConfig wanted = record->mcAttachChannels;
    ChannelConfig before;
    bool report;
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        std::string why;
        uint32_t lockHz;
        {
            std::lock_guard<std::mutex> lock(mLock);
            lockHz = mSettings.mDigitalLockFrequency;
            before = mSettings.current;
            report = mReportOwnChanges;
        }
        if (!mProfile.accepts(wanted, lockHz, &why)) {
            note = why;
            return STATUS_NOT_SUPPORTED;
        }
        applyHardware(wanted);
    }
    if (report) {
        if (before.fr != wanted.fr)
            askState(USBStc_SampleRate, wanted.fr);
        askState(USBStc_ConfigChanged, 0);
    }
    return STATUS_SUCCESS;
}

// ---- Calls seen, answers ----

std::vector<UsbDriverModel::Call> UsbDriverModel::calls() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mCalls;
}

std::string UsbDriverModel::refusedConfigNote() const {
    std::string note;
    for (const Call& call : calls())
        if (call.code == USBCall_ChangeConfig && !NT_SUCCESS(call.answer) && !call.note.empty())
            note = call.note;
    return note;
}

std::vector<ULONG> UsbDriverModel::callCodes() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<ULONG> codes;
    for (const auto& c : mCalls)
        codes.push_back(c.code);
    return codes;
}

size_t UsbDriverModel::callCount(ULONG code) const {
    std::lock_guard<std::mutex> lock(mLock);
    return size_t(
        std::count_if(mCalls.begin(), mCalls.end(), [&](const Call& c) { return c.code == code; }));
}

void UsbDriverModel::clearCalls() {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.clear();
    ++mCallsGeneration;
}

void UsbDriverModel::setAnswer(ULONG code, NTSTATUS status) {
    std::lock_guard<std::mutex> lock(mLock);
    mAnswers.erase(std::remove_if(mAnswers.begin(), mAnswers.end(),
                                  [&](const auto& a) { return a.first == code; }),
                   mAnswers.end());
    mAnswers.emplace_back(code, status);
}

void UsbDriverModel::clearAnswers() {
    std::lock_guard<std::mutex> lock(mLock);
    mAnswers.clear();
}

void UsbDriverModel::setDuringCall(std::function<void(ULONG code)> hook) {
    std::lock_guard<std::mutex> lock(mLock);
    mDuringCall = std::move(hook);
}

MMEAdapterInfo* UsbDriverModel::link() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mLink;
}

bool UsbDriverModel::adapterStarted() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mStarted;
}

// ---- Towards the driver ----

template <class Fn> bool UsbDriverModel::callout(Fn&& fn) {
    MMEAdapterInfo* link;
    const auto me = std::this_thread::get_id();
    {
        std::lock_guard<std::mutex> lock(mLock);
        link = mLink;
        if (!link)
            return false;
        ++mCallouts;
        mCalloutThreads.push_back(me);
    }
    fn(link);
    {
        std::lock_guard<std::mutex> lock(mLock);
        --mCallouts;
        mCalloutThreads.erase(std::find(mCalloutThreads.begin(), mCalloutThreads.end(), me));
    }
    mCalloutsDone.notify_all();
    return true;
}

std::vector<UsbDriverModel::Notice> UsbDriverModel::notices() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mNotices;
}

void UsbDriverModel::clearNotices() {
    std::lock_guard<std::mutex> lock(mLock);
    mNotices.clear();
}

void UsbDriverModel::notify(ULONG code, ULONGLONG value) {
    callout([&](MMEAdapterInfo* link) {
        if (!link->mpfnNotify)
            return;
        {
            std::lock_guard<std::mutex> lock(mLock);
            mNotices.push_back(Notice{false, code, value, 0});
        }
        if (ModelObserver* observer = mObserver.load(std::memory_order_acquire))
            observer->notice(false, code, value, 0);
        link->mpfnNotify(link->mpContext, code, value);
    });
}

LONG UsbDriverModel::askState(ULONG code, ULONG value) {
    LONG answer = 0;
    callout([&](MMEAdapterInfo* link) {
        if (!link->mpfnStcCallback)
            return;
        answer = link->mpfnStcCallback(link->mpContext, code, value);
        if (ModelObserver* observer = mObserver.load(std::memory_order_acquire))
            observer->notice(true, code, value, answer);
        std::lock_guard<std::mutex> lock(mLock);
        mNotices.push_back(Notice{true, code, value, answer});
    });
    return answer;
}

void UsbDriverModel::attachMME(uint32_t backlogFrames) {
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        std::lock_guard<std::mutex> lock(mLock);
        const uint32_t next = loadAcquire(&mCapture->mWritePos) + mCapture->mWriteOffset;
        storeRelease(&mRender->mMMEReadPos, next - backlogFrames);
        mRenderReadPos = loadAcquire(&mRender->mWritePos);
    }
    notify(MMENotify_OnMMEAttached);
    std::lock_guard<std::mutex> lock(mLock);
    mMMEAttached = mLink != nullptr;
}

void UsbDriverModel::detachMME() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mMMEAttached = false;
    }
    notify(MMENotify_OnMMEDetached);
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    storeRelease(&mRender->mMMEReadPos, MME_RING_NOT_ATTACHED);
}

bool UsbDriverModel::mmeAttached() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mMMEAttached;
}

void UsbDriverModel::asioAttach() {
    bool wasAttached;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mAsioAttached = true;
        wasAttached = mMMEAttached;
    }
    if (wasAttached)
        detachMME();
    notify(MMENotify_OnAsioAttached);
}

void UsbDriverModel::asioDetach() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mAsioAttached = false;
    }
    notify(MMENotify_OnAsioDetached);
}

bool UsbDriverModel::asioAttached() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mAsioAttached;
}

void UsbDriverModel::timedStart() {
    notify(MMENotify_OnTimedStartCallback);
}

void UsbDriverModel::preventFurtherCalls() {
    notify(MMENotify_PreventFurtherDriverCalls);
}

// ---- Device life ----

void UsbDriverModel::tellDeviceEvent(const std::string& kind, const std::string& detail) {
    if (ModelObserver* observer = mObserver.load(std::memory_order_acquire))
        observer->deviceEvent(kind, detail);
}

uint64_t UsbDriverModel::ticksFor(uint32_t ms) const {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    std::lock_guard<std::mutex> lock(mLock);
    const uint64_t rate = mSettings.current.fr ? mSettings.current.fr : 48000;
    const uint64_t frames = (uint64_t(ms) * rate + 999) / 1000;
    return std::max<uint64_t>(1, (frames + mPeriodFrames - 1) / mPeriodFrames);
}

void UsbDriverModel::unplug(uint32_t replugAfterMs) {
    const uint64_t replugTicks = replugAfterMs ? ticksFor(replugAfterMs) : 0;
    PDEVICE_OBJECT gone;
    uint64_t at;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mGone)
            return;
        mGone = true;
        mSuspended = false; // a scheduled wake still comes: the rest of the system sleeps on
        mMMEAttached = false;
        at = mPeriods;
        mReplugAt = replugTicks ? at + replugTicks : 0;
        gone = mDevice;
    }
    // What the USB driver tells its client when its device vanishes; a
    // period already under way on the clock's thread may still be running.
    notify(MMENotify_OnMMEDetached);
    notify(MMENotify_PreventFurtherDriverCalls);
    {
        std::lock_guard<std::mutex> lock(mLock);
        mLink = nullptr;
        mStarted = false;
        mDeferred.clear();
    }
    waitForCallouts();
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        storeRelease(&mRender->mMMEReadPos, MME_RING_NOT_ATTACHED);
    }
    tellDeviceEvent("unplug",
                    "the device vanished at period " + std::to_string(at) +
                        (replugTicks ? ", replugged after " + std::to_string(replugAfterMs) + " ms"
                                     : std::string()));
    hostpc::reportMissing(gone);
}

NTSTATUS UsbDriverModel::replug() {
    PDEVICE_OBJECT fresh = hostk::createDeviceObject(&mDriver.object, 1, sizeof(PdoExtension));
    if (!fresh)
        throw std::runtime_error("usbsim: the host kernel created no device object");
    uint64_t instance;
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (!mGone) {
                hostk::deleteDeviceObject(fresh);
                throw std::logic_error("replug: the device is present");
            }
            // The old device object stays until the model goes: the driver
            // may still hold a reference to it.
            mRetired.push_back(mDevice);
            mDevice = fresh;
            instance = ++mInstance;
            *static_cast<PdoExtension*>(fresh->DeviceExtension) = PdoExtension{this, instance};
            mGone = false;
            mReplugAt = 0;
            mStarted = false;
            mMMEAttached = false;
            mSettings.current = mProfile.hardware;
            mSettings.mDigitalLockFrequency = mProfile.digitalLockHz;
        }
        // A device at power-on: its rings as new.
        for (AudioSM* ring : {mCapture, mRender.get()})
            std::memset(static_cast<void*>(ring), 0, sizeof(AudioSM));
        shapeRings(true);
        configureBackends();
        // What the old device was looping back died with it.
        if (auto* loop = dynamic_cast<LoopbackBackend*>(mInput.get()))
            loop->clear();
    }
    tellDeviceEvent("replug", "device object " + std::to_string(instance) + " arrived");
    return hostpc::reportArrival(fresh);
}

bool UsbDriverModel::present() const {
    std::lock_guard<std::mutex> lock(mLock);
    return !mGone;
}

bool UsbDriverModel::suspended() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mSuspended;
}

uint64_t UsbDriverModel::instance() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mInstance;
}

void UsbDriverModel::sleepSystem(uint32_t ms) {
    const uint64_t ticks = ticksFor(ms);
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mGone || mWakeAt)
            return;
        mWakeAt = mPeriods + ticks;
    }
    hostpc::sleepSystem();
}

// D3: the device stops; the MME side is detached while it sleeps.
void UsbDriverModel::suspend() {
    bool attached;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mSuspended || mGone)
            return;
        mSuspended = true;
        mSleptTicks = 0;
        attached = mMMEAttached;
        mAttachedBeforeSleep = attached;
    }
    if (attached)
        detachMME();
    tellDeviceEvent("suspend", std::string("the device went to D3") +
                                   (attached ? ", the MME side detached" : ""));
}

// D0: the device's frame counter ran on while it slept (what it captured
// then is lost); the MME side is attached again at the next period when it
// was before.
void UsbDriverModel::resume() {
    uint64_t slept;
    bool reattach;
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        std::lock_guard<std::mutex> lock(mLock);
        if (!mSuspended)
            return;
        mSuspended = false;
        slept = mSleptTicks;
        reattach = mAttachedBeforeSleep && mLink;
        std::memset(mCapture->mSamples, 0, sizeof mCapture->mSamples);
        storeRelease(&mCapture->mWritePos,
                     uint32_t(mCapture->mWritePos + slept * uint64_t(mPeriodFrames)));
        if (reattach)
            mDeferred.push_back([this] {
                if (!mmeAttached() && !asioAttached())
                    attachMME();
            });
    }
    tellDeviceEvent("resume", "the device is back in D0 after " + std::to_string(slept) +
                                  " periods" + (reattach ? "; the MME side attaches again" : ""));
}

// A tick of the clock while the device is unplugged or asleep: time passes,
// no audio moves.
void UsbDriverModel::tickAbsent() {
    ModelObserver::Period seen;
    seen.present = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        seen.index = mPeriods;
        seen.rate = mSettings.current.fr;
        seen.frames = mPeriodFrames;
        ++mPeriods;
        if (mSuspended)
            ++mSleptTicks;
    }
    if (ModelObserver* observer = mObserver.load(std::memory_order_acquire))
        observer->periodDone(seen);
    advanceHostTime();
}

void UsbDriverModel::setExclusiveInputs(bool on) {
    __atomic_store_n(&mCapture->mExclInputs, ULONGLONG(on ? 1 : 0), __ATOMIC_RELEASE);
}

void UsbDriverModel::setDigitalLock(uint32_t hz) {
    std::lock_guard<std::mutex> lock(mLock);
    __atomic_store_n(&mSettings.mDigitalLockFrequency, hz, __ATOMIC_RELEASE);
}

void UsbDriverModel::changeHardware(const ChannelConfig& config, bool report) {
    if (config.inCH > 32 || config.outCH > 32)
        throw std::invalid_argument("changeHardware: at most 32 channels per direction");
    ChannelConfig before;
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        const uint32_t widest = std::max<uint32_t>({1u, config.inCH, config.outCH});
        if (uint64_t(ringFrames(widest, mPeriodFrames)) * widest > nMaxSamples ||
            ringFrames(widest, mPeriodFrames) < minimumRingFrames(mPeriodFrames))
            throw std::invalid_argument("changeHardware: the rings cannot hold " +
                                        std::to_string(widest) + " channels");
        {
            std::lock_guard<std::mutex> lock(mLock);
            before = mSettings.current;
        }
        applyHardware(config);
    }
    if (report) {
        if (before.fr != config.fr)
            askState(USBStc_SampleRate, config.fr);
        askState(USBStc_ConfigChanged, 0);
    }
}

void UsbDriverModel::setAutoAttach(bool on) {
    std::lock_guard<std::mutex> lock(mLock);
    mAutoAttach = on;
}

void UsbDriverModel::setReportOwnChanges(bool on) {
    std::lock_guard<std::mutex> lock(mLock);
    mReportOwnChanges = on;
}

void UsbDriverModel::setExchangeWhileDetached(bool on) {
    std::lock_guard<std::mutex> lock(mLock);
    mExchangeWhileDetached = on;
}

void UsbDriverModel::setAdvanceHostTime(bool on) {
    std::lock_guard<std::mutex> lock(mLock);
    mAdvanceHostTime = on;
}

void UsbDriverModel::setObserver(ModelObserver* observer) {
    mObserver.store(observer, std::memory_order_release);
}

void UsbDriverModel::defer(std::function<void()> fn) {
    std::lock_guard<std::mutex> lock(mLock);
    mDeferred.push_back(std::move(fn));
}

// ---- Hardware and rings ----

uint32_t UsbDriverModel::ringFrames(uint32_t channels, uint32_t period) const {
    if (mProfile.ringFrames != 0)
        return mProfile.ringFrames;
    const uint32_t fit = nMaxSamples / std::max<uint32_t>(channels, 1);
    return fit / period * period;
}

// Caller holds mPeriodLock.
void UsbDriverModel::shapeRings(bool resetPositions) {
    const ChannelConfig hw = mSettings.current;
    struct {
        AudioSM* ring;
        uint32_t channels;
        uint32_t start;
    } rings[] = {{mCapture, hw.inCH, mProfile.captureStartPosition},
                 {mRender.get(), hw.outCH, mProfile.renderStartPosition}};
    for (auto& r : rings) {
        const uint32_t channels = std::max<uint32_t>(r.channels, 1);
        const uint32_t frames = ringFrames(channels, mPeriodFrames);
        if (r.ring->mChannelsPerFrame != channels || r.ring->mMaxFrames != frames) {
            std::memset(r.ring->mSamples, 0, sizeof r.ring->mSamples);
            r.ring->mChannelsPerFrame = channels;
            r.ring->mMaxFrames = frames;
        }
        if (resetPositions) {
            r.ring->mWriteOffset = 0;
            storeRelease(&r.ring->mWritePos, r.start);
        }
    }
    if (resetPositions)
        storeRelease(&mRender->mMMEReadPos, MME_RING_NOT_ATTACHED);
}

void UsbDriverModel::configureBackends() {
    const uint32_t rate = mSettings.current.fr;
    if (mInput)
        mInput->configure(rate, mCapture->mChannelsPerFrame);
    if (mOutput)
        mOutput->configure(rate, mRender->mChannelsPerFrame);
}

// Caller holds mPeriodLock.
void UsbDriverModel::applyHardware(const ChannelConfig& config) {
    ChannelConfig before;
    {
        std::lock_guard<std::mutex> lock(mLock);
        before = mSettings.current;
        mSettings.current = config;
    }
    if (before.inCH != config.inCH || before.outCH != config.outCH)
        shapeRings(false);
    if (before.fr != config.fr || before.inCH != config.inCH || before.outCH != config.outCH)
        configureBackends();
}

void UsbDriverModel::setInput(std::shared_ptr<InputBackend> input) {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    mInput = std::move(input);
    configureBackends();
}

void UsbDriverModel::setOutput(std::shared_ptr<OutputBackend> output) {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    mOutput = std::move(output);
    configureBackends();
}

std::shared_ptr<LoopbackBackend> UsbDriverModel::setLoopback(uint32_t latencyFrames) {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    if (latencyFrames < mPeriodFrames)
        throw std::invalid_argument("loopback latency of " + std::to_string(latencyFrames) +
                                    " frames is below the period of " +
                                    std::to_string(mPeriodFrames) + " frames");
    auto loop = std::make_shared<LoopbackBackend>(latencyFrames);
    mInput = loop;
    mOutput = loop;
    configureBackends();
    return loop;
}

void UsbDriverModel::finishOutput() {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    std::shared_ptr<OutputBackend> output = std::move(mOutput);
    mOutput.reset();
    if (output)
        output->finish();
}

uint64_t UsbDriverModel::renderFormatErrors() const {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    return mRenderFormatErrors;
}

// ---- Period clock ----

uint32_t UsbDriverModel::periodFrames() const {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    return mPeriodFrames;
}

void UsbDriverModel::setPeriodFrames(uint32_t frames) {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    if (frames < 1 || frames > 4096)
        throw std::invalid_argument("period of " + std::to_string(frames) + " frames, use 1..4096");
    const uint32_t widest =
        std::max<uint32_t>({1u, mSettings.current.inCH, mSettings.current.outCH});
    if (ringFrames(widest, frames) < minimumRingFrames(frames))
        throw std::invalid_argument("period of " + std::to_string(frames) +
                                    " frames does not fit the rings");
    mPeriodFrames = frames;
    shapeRings(false);
}

void UsbDriverModel::schedule(const ScheduledEvent& event) {
    std::lock_guard<std::mutex> lock(mLock);
    auto pos = std::upper_bound(
        mSchedule.begin() + std::ptrdiff_t(mNextEvent), mSchedule.end(), event.period,
        [](uint64_t period, const ScheduledEvent& e) { return period < e.period; });
    mSchedule.insert(pos, event);
}

void UsbDriverModel::fireEvent(const ScheduledEvent& e) {
    switch (e.kind) {
    case EventKind::MMEAttach:
        attachMME();
        break;
    case EventKind::MMEDetach:
        detachMME();
        break;
    case EventKind::AsioAttach:
        asioAttach();
        break;
    case EventKind::AsioDetach:
        asioDetach();
        break;
    case EventKind::TimedStart:
        timedStart();
        break;
    case EventKind::PreventFurtherCalls:
        preventFurtherCalls();
        break;
    case EventKind::ExclusiveInputsOn:
        setExclusiveInputs(true);
        break;
    case EventKind::ExclusiveInputsOff:
        setExclusiveInputs(false);
        break;
    case EventKind::DigitalLock:
        setDigitalLock(e.value);
        break;
    case EventKind::Unplug:
        unplug(e.value);
        break;
    case EventKind::Replug:
        if (!present())
            replug();
        break;
    case EventKind::Sleep:
        sleepSystem(e.value);
        break;
    case EventKind::SampleRate: {
        ChannelConfig c;
        {
            std::lock_guard<std::mutex> lock(mLock);
            c = mSettings.current;
        }
        c.fr = e.value;
        changeHardware(c, true);
        break;
    }
    }
}

void UsbDriverModel::fireScheduled() {
    while (true) {
        ScheduledEvent e;
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (mNextEvent >= mSchedule.size() || mSchedule[mNextEvent].period > mPeriods)
                return;
            e = mSchedule[mNextEvent++];
        }
        fireEvent(e);
    }
}

void UsbDriverModel::runDeferred() {
    std::vector<std::function<void()>> work;
    {
        std::lock_guard<std::mutex> lock(mLock);
        work.swap(mDeferred);
    }
    for (auto& fn : work)
        fn();
}

// Caller holds mPeriodLock.
void UsbDriverModel::writeCapture() {
    AudioSM& ring = *mCapture;
    const uint32_t channels = ring.mChannelsPerFrame;
    const uint32_t frames = mPeriodFrames;
    mScratch.resize(size_t(frames) * channels);
    if (mInput)
        mInput->read(mScratch.data(), frames, channels);
    else
        std::fill(mScratch.begin(), mScratch.end(), 0);

    const uint32_t offset = ring.mWriteOffset;
    const uint32_t index = (loadAcquire(&ring.mWritePos) + offset) % ring.mMaxFrames;
    const uint32_t first = std::min(frames, ring.mMaxFrames - index);
    std::memcpy(&ring.mSamples[size_t(index) * channels], mScratch.data(),
                size_t(first) * channels * sizeof(int32_t));
    if (first < frames)
        std::memcpy(&ring.mSamples[0], mScratch.data() + size_t(first) * channels,
                    size_t(frames - first) * channels * sizeof(int32_t));
    storeRelease(&ring.mWritePos, ring.mWritePos + frames);
}

// Caller holds mPeriodLock.
void UsbDriverModel::readRender() {
    AudioSM& ring = *mRender;
    const uint32_t channels = ring.mChannelsPerFrame;
    const uint32_t frames = mPeriodFrames;
    mScratch.resize(size_t(frames) * channels);
    bool attached;
    {
        std::lock_guard<std::mutex> lock(mLock);
        attached = mMMEAttached;
    }
    if (!attached)
        std::fill(mScratch.begin(), mScratch.end(), 0);
    for (uint32_t done = 0; attached && done < frames;) {
        // Up to the ring's end at a time, so the inner loop is a plain run of samples.
        // Positions wrap at 2^32 as well: a piece ends there too.
        const uint32_t at = mRenderReadPos + done;
        const uint32_t index = at % ring.mMaxFrames;
        const uint64_t toWrap = (uint64_t(1) << 32) - at;
        const uint32_t piece = uint32_t(std::min<uint64_t>(
            {uint64_t(frames - done), uint64_t(ring.mMaxFrames - index), toWrap}));
        int32_t* slot = &ring.mSamples[size_t(index) * channels];
        int32_t* out = mScratch.data() + size_t(done) * channels;
        const size_t count = size_t(piece) * channels;
        uint64_t errors = 0;
        for (size_t i = 0; i < count; ++i) {
            const uint32_t x = uint32_t(slot[i]);
            // A render sample is a 24-bit value sign-extended to 32 bits.
            errors += ((x + 0x800000u) & 0xFF000000u) != 0;
            out[i] = int32_t(x << 8);
        }
        // Played: what the driver does not write again stays silent.
        std::memset(slot, 0, count * sizeof(int32_t));
        mRenderFormatErrors += errors;
        done += piece;
    }
    if (attached)
        mRenderReadPos += frames;
    if (mOutput)
        mOutput->write(mScratch.data(), frames, channels);
}

// Caller holds mPeriodLock. The clock blocks map ring positions to host time
// in 100 ns: the inactive block is filled, then selected.
void UsbDriverModel::updateClocks() {
    const uint32_t rate = mSettings.current.fr;
    const LONGLONG now = hostk::now100ns();
    struct {
        AudioSM* ring;
        uint32_t position;
    } rings[] = {{mCapture, loadAcquire(&mCapture->mWritePos)}, {mRender.get(), mRenderReadPos}};
    for (auto& r : rings) {
        const bool aInForce = r.ring->mClockSelect != 0;
        AudioSMClock& block = aInForce ? r.ring->mClockB : r.ring->mClockA;
        block.framePos = r.position;
        block.stamp = now;
        block.rateNum = kHundredNsPerSecond;
        block.rateDen = rate;
        storeRelease(&r.ring->mClockSelect, aInForce ? 0 : 1);
    }
}

void UsbDriverModel::advanceHostTime() {
    int64_t delta = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        const uint32_t rate = mSettings.current.fr;
        if (!mAdvanceHostTime || rate == 0)
            return;
        mTimeRemainder += uint64_t(mPeriodFrames) * kHundredNsPerSecond;
        delta = int64_t(mTimeRemainder / rate);
        mTimeRemainder %= rate;
    }
    if (delta > 0 && hostk::virtualTime())
        hostk::advanceTime(delta);
}

void UsbDriverModel::runOnePeriod() {
    fireScheduled();
    bool replugNow = false, wakeNow = false, absent;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mGone && mReplugAt && mPeriods >= mReplugAt) {
            mReplugAt = 0;
            replugNow = true;
        }
        if (mWakeAt && mPeriods >= mWakeAt) {
            mWakeAt = 0;
            wakeNow = true;
        }
    }
    if (replugNow)
        replug();
    if (wakeNow)
        hostpc::wakeSystem();
    {
        std::lock_guard<std::mutex> lock(mLock);
        absent = mGone || mSuspended;
    }
    if (absent) {
        tickAbsent();
        return;
    }
    runDeferred();
    ModelObserver* observer = mObserver.load(std::memory_order_acquire);
    ModelObserver::Period seen;
    bool exchanged = false;
    {
        std::lock_guard<std::recursive_mutex> period(mPeriodLock);
        writeCapture();
        updateClocks();
        bool exchange;
        {
            std::lock_guard<std::mutex> lock(mLock);
            exchange = mMMEAttached || mExchangeWhileDetached;
        }
        if (exchange)
            exchanged = callout([&](MMEAdapterInfo* link) {
                MMEExchangeDataCallback fn = link->mpfnExchangeData;
                if (!fn)
                    return;
                hostk::runAtDispatch([&] {
                    hostk::NoAllocNoWaitScope scope("the USB driver's period callback");
                    fn(link->mpContext, link);
                });
                std::lock_guard<std::mutex> lock(mLock);
                ++mExchangeCalls;
            });
        readRender();
        if (observer) {
            seen.frames = mPeriodFrames;
            seen.captureWritePos = loadAcquire(&mCapture->mWritePos);
            seen.renderWritePos = loadAcquire(&mRender->mWritePos);
            seen.mmeReadPos = loadAcquire(&mRender->mMMEReadPos);
            seen.deviceReadPos = mRenderReadPos;
            seen.exchanged = exchanged;
        }
        std::lock_guard<std::mutex> lock(mLock);
        seen.index = mPeriods;
        seen.rate = mSettings.current.fr;
        ++mPeriods;
        mFrames += mPeriodFrames;
    }
    if (observer)
        observer->periodDone(seen);
    advanceHostTime();
}

void UsbDriverModel::runPeriods(size_t count) {
    if (mRunning.load())
        throw std::logic_error("runPeriods while the real-time clock runs");
    for (size_t i = 0; i < count; ++i)
        runOnePeriod();
}

void UsbDriverModel::startRealTime() {
    if (mRunning.load() && mStop.load() && std::this_thread::get_id() != mThread.get_id()) {
        // stopped from inside its own period: collect the thread first
        if (mThread.joinable())
            mThread.join();
        mRunning = false;
    }
    if (mRunning.exchange(true))
        return;
    mStop = false;
    mThread = std::thread([this] { realTimeLoop(); });
}

void UsbDriverModel::stopRealTime() {
    if (!mRunning.load())
        return;
    {
        std::lock_guard<std::mutex> lock(mWakeLock);
        mStop = true;
    }
    mWake.notify_all();
    if (std::this_thread::get_id() == mThread.get_id()) {
        // Asked from inside a period (a callback): the loop ends after it.
        return;
    }
    if (mThread.joinable())
        mThread.join();
    mRunning = false;
}

bool UsbDriverModel::realTimeRunning() const {
    return mRunning.load() && !mStop.load();
}

std::string UsbDriverModel::realTimeError() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mRealTimeError;
}

void UsbDriverModel::realTimeLoop() {
    hostk::enterDriverThread();
    using clock = std::chrono::steady_clock;
    while (!mStop.load()) {
        try {
            runOnePeriod();
        } catch (const std::exception& e) {
            std::lock_guard<std::mutex> lock(mLock);
            mRealTimeError = e.what();
            mStop = true;
            break;
        }
        uint32_t frames, nowRate;
        {
            std::lock_guard<std::recursive_mutex> period(mPeriodLock);
            frames = mPeriodFrames;
            nowRate = mSettings.current.fr ? mSettings.current.fr : 48000;
        }
        std::unique_lock<std::mutex> lock(mWakeLock);
        if (nowRate != mAnchorRate) {
            mAnchor = clock::now();
            mFramesSinceAnchor = 0;
            mAnchorRate = nowRate;
        }
        mFramesSinceAnchor += frames;
        const auto due =
            mAnchor + std::chrono::nanoseconds(mFramesSinceAnchor * 1000000000ull / nowRate);
        mWake.wait_until(lock, due, [this] { return mStop.load(); });
    }
    std::lock_guard<std::mutex> lock(mWakeLock);
    mAnchorRate = 0;
}

uint64_t UsbDriverModel::realTimeBacklog() const {
    std::lock_guard<std::mutex> lock(mWakeLock);
    if (!mAnchorRate)
        return 0;
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::steady_clock::now() - mAnchor);
    const uint64_t owed = uint64_t(elapsed.count()) * mAnchorRate / 1000000000ull;
    return owed > mFramesSinceAnchor ? owed - mFramesSinceAnchor : 0;
}

uint64_t UsbDriverModel::periodsRun() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mPeriods;
}

uint64_t UsbDriverModel::framesRun() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mFrames;
}

uint64_t UsbDriverModel::exchangeCalls() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mExchangeCalls;
}

uint32_t UsbDriverModel::renderReadPos() const {
    std::lock_guard<std::recursive_mutex> period(mPeriodLock);
    return mRenderReadPos;
}

} // namespace usbsim
