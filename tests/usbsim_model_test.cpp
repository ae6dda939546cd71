// The model USB driver seen from a driver's side: a hand-made link record
// with callbacks of the test's own plays the adapter. Covers the dispatch
// (answers, call log, refusals, pending), configuration changes,
// notifications, the period clock with its rings and positions, and the I/O
// backends. The exact round trips through the real driver are checked by
// e2e_loopback_test.
#include "usbsim/Backends.h"
#include "usbsim/UsbDriverModel.h"

#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

using usbsim::DeviceProfile;
using usbsim::UsbDriverModel;

namespace {

// Plays the adapter: the link record with its context and three callbacks.
struct FakeDriver {
    MMEAdapterInfo record{};
    std::vector<std::pair<ULONG, ULONGLONG>> notes;
    std::vector<std::pair<ULONG, ULONG>> questions;
    LONG stcAnswer = 0;
    std::function<void(MMEAdapterInfo*)> onExchange;
    std::function<void(ULONG)> onNotify;
    size_t exchanges = 0;
    bool exchangeAtDispatch = true;
    bool wrongArguments = false;

    FakeDriver() {
        record.mpContext = this;
        record.mpfnNotify = &FakeDriver::notifyEntry;
        record.mpfnStcCallback = &FakeDriver::stcEntry;
        record.mpfnExchangeData = &FakeDriver::exchangeEntry;
        record.mInterfaceVersion = MME_INTERFACE_VERSION;
    }
    static void NTAPI notifyEntry(PVOID context, ULONG code, ULONGLONG value) {
        auto* self = static_cast<FakeDriver*>(context);
        self->notes.emplace_back(code, value);
        if (self->onNotify)
            self->onNotify(code);
    }
    static LONG NTAPI stcEntry(PVOID context, ULONG code, ULONG value) {
        auto* self = static_cast<FakeDriver*>(context);
        self->questions.emplace_back(code, value);
        return self->stcAnswer;
    }
    static void NTAPI exchangeEntry(PVOID context, MMEAdapterInfo* info) {
        auto* self = static_cast<FakeDriver*>(context);
        ++self->exchanges;
        if (KeGetCurrentIrql() != DISPATCH_LEVEL)
            self->exchangeAtDispatch = false;
        if (info != &self->record)
            self->wrongArguments = true;
        if (self->onExchange)
            self->onExchange(info);
    }
    std::vector<ULONG> noteCodes() const {
        std::vector<ULONG> codes;
        for (const auto& n : notes)
            codes.push_back(n.first);
        return codes;
    }
    AudioSM& capture() { return *reinterpret_cast<AudioSM*>(record.mpCaptureRing + 8); }
    AudioSM& render() { return *record.mpSharedMemory; }
};

struct Sent {
    NTSTATUS returned;
    NTSTATUS ioStatus;
    bool completedBeforeReturn;
};

NTSTATUS NTAPI keepIrp(PDEVICE_OBJECT, PIRP, PVOID context) {
    *static_cast<bool*>(context) = true;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends one request the way the adapter does, then frees it.
Sent send(UsbDriverModel& model, ULONG code, MMEAdapterInfo* record,
          UCHAR major = IRP_MJ_INTERNAL_DEVICE_CONTROL) {
    PIRP irp = IoAllocateIrp(model.pdo()->StackSize, FALSE);
    EXPECT_NE(irp, nullptr);
    bool completed = false;
    irp->UserBuffer = record;
    IoSetCompletionRoutine(irp, keepIrp, &completed, TRUE, TRUE, TRUE);
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    NTSTATUS status = IoCallDriver(model.pdo(), irp);
    Sent sent{status, irp->IoStatus.Status, completed};
    IoFreeIrp(irp);
    // Every request, refused ones too, is completed before the dispatch
    // returns, with the status it returns unless it pended.
    EXPECT_TRUE(sent.completedBeforeReturn) << "code " << code;
    if (status != STATUS_PENDING) {
        EXPECT_EQ(sent.ioStatus, status) << "code " << code;
    }
    return sent;
}

DeviceProfile profileWithPeriod(uint32_t frames) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.periodFrames = frames;
    return p;
}

// What the driver's period exchange does with the rings, reduced to its
// contract: passes of 256 frames while 256 are available, at most two per
// callback; capture consumed from mMMEReadPos, render (renderValue of the k-th
// frame, working format) written 1700 frames ahead of mWritePos as 24-bit
// right-justified samples.
struct RenderingDriver {
    std::function<int32_t(uint64_t frame)> renderValue;
    uint64_t renderFrames = 0;

    void exchange(MMEAdapterInfo* info) {
        AudioSM& cap = *reinterpret_cast<AudioSM*>(info->mpCaptureRing + 8);
        AudioSM& ren = *info->mpSharedMemory;
        int passes = 2;
        while (passes-- > 0 && cap.mWritePos + cap.mWriteOffset - ren.mMMEReadPos >= 256) {
            ren.mMMEReadPos += 256;
            ren.mWriteOffset = 1700;
            for (uint32_t f = 0; f < 256; ++f, ++renderFrames) {
                const uint32_t index = (ren.mWritePos + 1700 + f) % ren.mMaxFrames;
                const int32_t v = renderValue(renderFrames);
                for (uint32_t c = 0; c < ren.mChannelsPerFrame; ++c)
                    ren.mSamples[index * ren.mChannelsPerFrame + c] = c == 0 ? (v >> 8) : 0;
            }
            ren.mWritePos += 256;
        }
    }
};

class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "usbsim-test-XXXXXX").string();
        char* made = mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        mPath = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(mPath); }
    std::string file(const char* name) const { return (mPath / name).string(); }

private:
    std::filesystem::path mPath;
};

// The exception's message, or "(accepted)" when fn throws nothing.
template <class Exception, class Fn> std::string thrown(Fn&& fn) {
    try {
        fn();
    } catch (const Exception& e) {
        return e.what();
    }
    return "(accepted)";
}

// The default device with the fake driver registered on it.
class Linked : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(send(model, USBCall_Register, &drv.record).returned, STATUS_SUCCESS);
    }
    UsbDriverModel model;
    FakeDriver drv;
};
using UsbsimDispatch = Linked;
using UsbsimConcurrency = Linked;
using UsbsimChangeConfig = Linked;
using UsbsimNotifications = Linked;
using UsbsimExchange = Linked;

} // namespace

// ---- Dispatch ----

TEST_F(UsbsimDispatch, RegisterFillsTheLinkRecord) {
    EXPECT_EQ(model.link(), &drv.record);
    EXPECT_EQ(drv.record.mpAPIDeviceInfo, &model.deviceInfo());
    EXPECT_EQ(drv.record.mpCaptureRing, model.captureBlock());
    EXPECT_EQ(reinterpret_cast<AudioSM*>(drv.record.mpCaptureRing + 8), &model.captureRing());
    EXPECT_EQ(drv.record.mpSharedMemory, &model.renderRing());
    EXPECT_EQ(drv.record.mpSettings, &model.settings());
    EXPECT_EQ(drv.record.mVendorID, model.deviceInfo().vendorId);
    EXPECT_EQ(drv.record.mProductID, model.deviceInfo().productId);
    EXPECT_EQ(drv.record.mpSettings->current, (ChannelConfig{48000, 8, 8, 24, 24, 0}));
    EXPECT_EQ(drv.record.mpContext, &drv) << "the driver's own fields stay";

    for (AudioSM* ring : {&drv.capture(), &drv.render()}) {
        EXPECT_EQ(ring->mChannelsPerFrame, 8u);
        EXPECT_EQ(ring->mMaxFrames, 16384u);
    }
    EXPECT_EQ(drv.render().mMMEReadPos, MME_RING_NOT_ATTACHED);
    EXPECT_EQ(drv.capture().mExclInputs, 0u);
    EXPECT_EQ(model.deviceInfo().numConfigurations, 1) << "the profile's record";
}

TEST_F(UsbsimDispatch, CallLogKeepsCodeMajorRecordAndAnswer) {
    drv.record.mcAttachChannels = {96000, 8, 8, 24, 24, 0};
    send(model, USBCall_ChangeConfig, &drv.record);
    hostk::runAtDispatch([&] { send(model, USBCall_TimedStart, &drv.record); });
    send(model, 6, &drv.record);
    send(model, USBCall_Attach, &drv.record, IRP_MJ_DEVICE_CONTROL);

    auto calls = model.calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(model.callCodes(), (std::vector<ULONG>{0, 4, 5, 6, 3}));
    for (const auto& c : calls)
        EXPECT_EQ(c.record, &drv.record);
    EXPECT_EQ(calls[1].wanted, (ChannelConfig{96000, 8, 8, 24, 24, 0}));
    EXPECT_EQ(calls[1].answer, STATUS_SUCCESS);
    EXPECT_EQ(calls[2].irql, DISPATCH_LEVEL);
    EXPECT_EQ(calls[0].irql, PASSIVE_LEVEL);
    EXPECT_EQ(calls[3].answer, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(calls[3].note, "unknown call code 6");
    EXPECT_EQ(calls[4].major, IRP_MJ_DEVICE_CONTROL);
    EXPECT_EQ(calls[4].answer, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(model.callCount(USBCall_ChangeConfig), 1u);

    model.clearCalls();
    EXPECT_TRUE(model.calls().empty());
}

TEST(UsbsimRefusals, MalformedOrMisplacedCallsAreRefusedWithoutEffect) {
    UsbDriverModel model;
    FakeDriver drv, other;
    EXPECT_EQ(send(model, USBCall_AdapterStarted, &drv.record).returned,
              STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(model.calls().back().note, "AdapterStarted before USBCall_Register");
    EXPECT_EQ(send(model, USBCall_Register, nullptr).returned, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(send(model, USBCall_Register, &drv.record, IRP_MJ_DEVICE_CONTROL).returned,
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(drv.record.mpSettings, nullptr);

    drv.record.mInterfaceVersion = 2095800;
    EXPECT_EQ(send(model, USBCall_Register, &drv.record).returned, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(model.calls().back().note, "interface version 2095800, expected 2095900");
    EXPECT_EQ(model.link(), nullptr);
    drv.record.mInterfaceVersion = MME_INTERFACE_VERSION;

    ASSERT_EQ(send(model, USBCall_Register, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_EQ(send(model, USBCall_Register, &other.record).returned, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(other.record.mpSharedMemory, nullptr);
    EXPECT_EQ(send(model, USBCall_Unregister, &other.record).returned, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(model.link(), &drv.record);
    EXPECT_EQ(send(model, USBCall_Register, &drv.record).returned, STATUS_SUCCESS)
        << "registering the same record again is fine";
}

// (A refused Register filling nothing is checked on the driver's side by
// bad_input_test.)
TEST(UsbsimRefusals, SetAnswersReplaceTheWorkOrPend) {
    UsbDriverModel model;
    FakeDriver drv;
    model.setAnswer(USBCall_Register, STATUS_PENDING);
    Sent s = send(model, USBCall_Register, &drv.record);
    EXPECT_EQ(s.returned, STATUS_PENDING);
    EXPECT_EQ(s.ioStatus, STATUS_SUCCESS) << "pended work is finished at once";
    EXPECT_EQ(model.link(), &drv.record);

    model.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    drv.record.mcAttachChannels = {96000, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(model.settings().current.fr, 48000u);
    model.clearAnswers();
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_EQ(model.settings().current.fr, 96000u);
}

TEST(UsbsimRefusals, ChangeConfigRefusalsLeaveTheHardwareAsItWas) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.accept.refuse.push_back({96000u, std::nullopt, 2u, std::nullopt, std::nullopt, std::nullopt,
                               "no stereo output at 96 kHz"});
    UsbDriverModel model(p);
    FakeDriver drv;
    send(model, USBCall_Register, &drv.record);
    const ChannelConfig start = model.settings().current;

    struct Case {
        ChannelConfig wanted;
        const char* note;
    } cases[] = {
        {{32000, 8, 8, 24, 24, 0}, "rate 32000 Hz not supported"},
        {{48000, 9, 8, 24, 24, 0}, "9 input channels outside 1..8"},
        {{48000, 8, 0, 24, 24, 0}, "0 output channels outside 1..8"},
        {{48000, 8, 8, 20, 24, 0}, "input resolution 20 bits not supported"},
        {{96000, 8, 2, 24, 24, 0}, "no stereo output at 96 kHz"},
    };
    for (const auto& c : cases) {
        drv.record.mcAttachChannels = c.wanted;
        EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(model.calls().back().note.rfind(c.note, 0), 0u) << model.calls().back().note;
        EXPECT_EQ(model.settings().current, start);
    }

    model.setDigitalLock(44100);
    EXPECT_EQ(model.settings().mDigitalLockFrequency, 44100u);
    drv.record.mcAttachChannels = {48000, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(model.calls().back().note.rfind("digital input locked to 44100 Hz", 0), 0u);
    drv.record.mcAttachChannels = {44100, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_EQ(model.settings().current.fr, 44100u);
}

TEST_F(UsbsimDispatch, HookRunsInsideTheCallAndMaySendNotifications) {
    std::vector<ULONG> hooked;
    bool inCall = false;
    model.setDuringCall([&](ULONG code) {
        hooked.push_back(code);
        inCall = true;
        model.notify(MMENotify_PreventFurtherDriverCalls);
    });
    bool notedInCall = false;
    drv.onNotify = [&](ULONG) { notedInCall = inCall; };
    send(model, USBCall_Attach, &drv.record);
    EXPECT_EQ(hooked, std::vector<ULONG>{USBCall_Attach});
    EXPECT_TRUE(notedInCall);
    EXPECT_EQ(drv.noteCodes(), std::vector<ULONG>{MMENotify_PreventFurtherDriverCalls});
}

TEST_F(UsbsimDispatch, NothingArrivesAfterUnregister) {
    model.attachMME();
    model.runPeriods(2);
    EXPECT_EQ(drv.exchanges, 2u);
    EXPECT_EQ(send(model, USBCall_Unregister, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_EQ(model.link(), nullptr);
    EXPECT_FALSE(model.mmeAttached());
    const size_t notes = drv.notes.size();
    model.runPeriods(3);
    model.notify(MMENotify_OnAsioAttached);
    EXPECT_EQ(model.askState(USBStc_IsMMEAttached, 0), 0);
    model.asioDetach();
    EXPECT_EQ(drv.exchanges, 2u);
    EXPECT_EQ(drv.notes.size(), notes);
    EXPECT_TRUE(drv.questions.empty());
    EXPECT_EQ(model.periodsRun(), 5u) << "the device itself keeps running";
}

TEST_F(UsbsimConcurrency, UnregisterWaitsForCallbacksUnderWayOnOtherThreads) {
    std::atomic<bool> inside{false}, release{false}, unregistered{false}, releasedFirst{false};
    drv.onNotify = [&](ULONG) {
        inside = true;
        while (!release)
            std::this_thread::yield();
    };
    std::thread notifier([&] { model.timedStart(); });
    while (!inside)
        std::this_thread::yield();
    std::thread remover([&] {
        send(model, USBCall_Unregister, &drv.record);
        releasedFirst = release.load();
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(unregistered.load()) << "returned while a notification was still running";
    release = true;
    notifier.join();
    remover.join();
    EXPECT_TRUE(releasedFirst.load());
    EXPECT_EQ(model.link(), nullptr);
}

TEST_F(UsbsimConcurrency, UnregisterFromInsideACallbackDoesNotWaitForItself) {
    NTSTATUS answer = STATUS_PENDING;
    drv.onNotify = [&](ULONG) { answer = send(model, USBCall_Unregister, &drv.record).returned; };
    model.asioDetach();
    EXPECT_EQ(answer, STATUS_SUCCESS);
    EXPECT_EQ(model.calls().back().note, "") << "nothing was left waiting";
    EXPECT_EQ(model.link(), nullptr);
}

// ---- Configuration changes ----

TEST_F(UsbsimChangeConfig, AcceptedChangesReachSettingsRingsAndBackendsAndAreReportedWhenAsked) {
    auto out = std::make_shared<usbsim::MemoryOutput>();
    model.setOutput(out);
    model.runPeriods(2);
    const uint32_t capturePos = drv.capture().mWritePos;

    drv.record.mcAttachChannels = {44100, 2, 4, 16, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_EQ(model.settings().current, drv.record.mcAttachChannels);
    EXPECT_EQ(drv.capture().mChannelsPerFrame, 2u);
    EXPECT_EQ(drv.capture().mMaxFrames, 65536u);
    EXPECT_EQ(drv.render().mChannelsPerFrame, 4u);
    EXPECT_EQ(drv.render().mMaxFrames, 32768u);
    EXPECT_EQ(drv.capture().mWritePos, capturePos) << "positions run on";
    model.runPeriods(1);
    EXPECT_EQ(drv.capture().mWritePos, capturePos + 256);
    EXPECT_TRUE(drv.questions.empty()) << "own changes are not reported by default";

    model.setReportOwnChanges(true);
    drv.record.mcAttachChannels = {96000, 8, 8, 24, 24, 0};
    send(model, USBCall_ChangeConfig, &drv.record);
    using Q = std::vector<std::pair<ULONG, ULONG>>;
    EXPECT_EQ(drv.questions, (Q{{USBStc_SampleRate, 96000}, {USBStc_ConfigChanged, 0}}));

    drv.questions.clear();
    drv.record.mcAttachChannels = {96000, 8, 8, 16, 24, 0};
    send(model, USBCall_ChangeConfig, &drv.record);
    EXPECT_EQ(drv.questions, (Q{{USBStc_ConfigChanged, 0}})) << "same rate: no rate notice";

    // the hardware changing on its own
    drv.questions.clear();
    model.changeHardware({88200, 8, 8, 24, 24, 3}, false);
    EXPECT_TRUE(drv.questions.empty());
    EXPECT_EQ(model.settings().current, (ChannelConfig{88200, 8, 8, 24, 24, 3}));
    drv.stcAnswer = 7;
    model.changeHardware({44100, 8, 8, 24, 24, 3}, true);
    EXPECT_EQ(drv.questions, (Q{{USBStc_SampleRate, 44100}, {USBStc_ConfigChanged, 0}}));
    auto notices = model.notices();
    ASSERT_FALSE(notices.empty());
    EXPECT_TRUE(notices.back().isState);
    EXPECT_EQ(notices.back().answer, 7);
    EXPECT_THROW(model.changeHardware({44100, 33, 8, 24, 24, 0}, false), std::invalid_argument);
}

// ---- Notifications and attach ----

TEST(UsbsimPeriodClock, AttachSetsTheReadPositionBeforeTellingTheDriver) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.captureStartPosition = 1000;
    p.renderStartPosition = 77;
    UsbDriverModel model(p);
    FakeDriver drv;
    send(model, USBCall_Register, &drv.record);
    model.runPeriods(2);
    uint32_t seen = 0;
    drv.onNotify = [&](ULONG code) {
        if (code == MMENotify_OnMMEAttached)
            seen = drv.render().mMMEReadPos;
    };
    model.attachMME(300);
    EXPECT_EQ(seen, 1000u + 512u - 300u);
    EXPECT_TRUE(model.mmeAttached());
    EXPECT_EQ(model.renderReadPos(), 77u);

    model.detachMME();
    EXPECT_FALSE(model.mmeAttached());
    EXPECT_EQ(drv.render().mMMEReadPos, MME_RING_NOT_ATTACHED);
    EXPECT_EQ(drv.noteCodes(),
              (std::vector<ULONG>{MMENotify_OnMMEAttached, MMENotify_OnMMEDetached}));
}

TEST_F(UsbsimNotifications, EachEventSendsItsCode) {
    model.attachMME();
    model.asioAttach(); // takes the device: the MME side is detached first
    EXPECT_TRUE(model.asioAttached());
    EXPECT_FALSE(model.mmeAttached());
    model.asioDetach();
    model.timedStart();
    model.preventFurtherCalls();
    model.notify(17, 0x123456789ull);
    EXPECT_EQ(drv.noteCodes(),
              (std::vector<ULONG>{MMENotify_OnMMEAttached, MMENotify_OnMMEDetached,
                                  MMENotify_OnAsioAttached, MMENotify_OnAsioDetached,
                                  MMENotify_OnTimedStartCallback,
                                  MMENotify_PreventFurtherDriverCalls, 17}));
    EXPECT_EQ(drv.notes.back().second, 0x123456789ull);

    drv.stcAnswer = 1;
    EXPECT_EQ(model.askState(USBStc_IsMMEAttached, 5), 1);
    EXPECT_EQ(drv.questions.back(), (std::pair<ULONG, ULONG>{USBStc_IsMMEAttached, 5}));

    model.setExclusiveInputs(true);
    EXPECT_NE(drv.capture().mExclInputs, 0u);
    model.setExclusiveInputs(false);
    EXPECT_EQ(drv.capture().mExclInputs, 0u);
}

TEST_F(UsbsimNotifications, AttachAndTimedStartCallsAreAnsweredAtThePeriodBoundary) {
    EXPECT_EQ(send(model, USBCall_Attach, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_TRUE(drv.notes.empty()) << "never from inside the call";
    model.runPeriods(1);
    EXPECT_EQ(drv.noteCodes(), std::vector<ULONG>{MMENotify_OnMMEAttached});
    EXPECT_EQ(drv.exchanges, 1u) << "attached before the period's exchange";

    model.asioAttach();
    drv.notes.clear();
    EXPECT_EQ(send(model, USBCall_Attach, &drv.record).returned, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(send(model, USBCall_TimedStart, &drv.record).returned, STATUS_INVALID_DEVICE_STATE);
    model.runPeriods(2);
    EXPECT_TRUE(drv.notes.empty());

    model.asioDetach();
    drv.notes.clear();
    EXPECT_EQ(send(model, USBCall_TimedStart, &drv.record).returned, STATUS_SUCCESS);
    model.runPeriods(1);
    EXPECT_EQ(drv.noteCodes(), std::vector<ULONG>{MMENotify_OnTimedStartCallback});

    model.setAutoAttach(false);
    drv.notes.clear();
    send(model, USBCall_Attach, &drv.record);
    send(model, USBCall_TimedStart, &drv.record);
    model.runPeriods(2);
    EXPECT_TRUE(drv.notes.empty());
    EXPECT_FALSE(model.mmeAttached());
}

TEST_F(UsbsimNotifications, ScheduledEventsFireAtTheStartOfTheirPeriod) {
    std::vector<std::pair<ULONG, uint64_t>> when;
    drv.onNotify = [&](ULONG code) { when.emplace_back(code, model.periodsRun()); };
    using usbsim::EventKind;
    model.schedule({3, EventKind::AsioDetach, 0});
    model.schedule({1, EventKind::AsioAttach, 0});
    model.schedule({2, EventKind::ExclusiveInputsOn, 0});
    model.schedule({2, EventKind::SampleRate, 96000});
    model.schedule({4, EventKind::DigitalLock, 96000});
    model.runPeriods(2);
    EXPECT_EQ(when, (std::vector<std::pair<ULONG, uint64_t>>{{MMENotify_OnAsioAttached, 1}}));
    EXPECT_EQ(drv.capture().mExclInputs, 0u);
    model.runPeriods(1);
    EXPECT_NE(drv.capture().mExclInputs, 0u);
    EXPECT_EQ(model.settings().current.fr, 96000u);
    EXPECT_EQ(drv.questions.front(), (std::pair<ULONG, ULONG>{USBStc_SampleRate, 96000}));
    model.runPeriods(2);
    EXPECT_EQ(when.back(), (std::pair<ULONG, uint64_t>{MMENotify_OnAsioDetached, 3}));
    EXPECT_EQ(model.settings().mDigitalLockFrequency, 96000u);

    model.schedule({1, EventKind::TimedStart, 0}); // already past: fires next period
    model.runPeriods(1);
    EXPECT_EQ(when.back(), (std::pair<ULONG, uint64_t>{MMENotify_OnTimedStartCallback, 5}));
}

// ---- Period clock and the exchange ----

TEST(UsbsimPeriodClock, CaptureRingReceivesDeviceInputAcrossTheWrap) {
    DeviceProfile p = profileWithPeriod(128);
    p.captureStartPosition = 0xFFFFFF00u; // 2 periods before 2^32
    UsbDriverModel model(p);
    model.setInput(std::make_shared<usbsim::PatternInput>());
    AudioSM& cap = model.captureRing();
    const uint32_t ringFrames = cap.mMaxFrames;
    ASSERT_EQ(ringFrames, 16384u);
    model.runPeriods(5);
    EXPECT_EQ(cap.mWritePos, 0xFFFFFF00u + 5 * 128) << "wrapped modulo 2^32";
    EXPECT_EQ(cap.mWriteOffset, 0u);
    EXPECT_EQ(model.framesRun(), 640u);
    for (uint32_t f = 0; f < 640; ++f) {
        const uint32_t pos = 0xFFFFFF00u + f;
        for (uint32_t c = 0; c < 8; ++c)
            ASSERT_EQ(cap.mSamples[(pos % ringFrames) * 8 + c], usbsim::PatternInput::sample(f, c))
                << "frame " << f << " channel " << c;
    }
}

TEST_F(UsbsimExchange, ExchangeRunsOncePerPeriodAtDispatchWhileAttached) {
    model.runPeriods(3);
    EXPECT_EQ(drv.exchanges, 0u);
    model.attachMME();
    model.runPeriods(4);
    EXPECT_EQ(drv.exchanges, 4u);
    EXPECT_EQ(model.exchangeCalls(), 4u);
    EXPECT_TRUE(drv.exchangeAtDispatch);
    EXPECT_FALSE(drv.wrongArguments);
    model.detachMME();
    model.runPeriods(2);
    EXPECT_EQ(drv.exchanges, 4u);
    model.setExchangeWhileDetached(true);
    model.runPeriods(2);
    EXPECT_EQ(drv.exchanges, 6u);
}

TEST(UsbsimPeriodClock, ClocksAndHostTimeFollowTheSampleClock) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.hardware.fr = 44100;
    UsbDriverModel model(p);
    const int64_t start = hostk::now100ns();
    model.runPeriods(100);
    // 100 x 256 frames at 44100 Hz, carried without drift
    EXPECT_EQ(hostk::now100ns() - start, int64_t(100ull * 256 * 10000000 / 44100));
    const AudioSM& cap = model.captureRing();
    const AudioSMClock& clock = cap.mClockSelect ? cap.mClockA : cap.mClockB;
    EXPECT_EQ(clock.framePos, cap.mWritePos);
    EXPECT_EQ(clock.rateNum, 10000000);
    EXPECT_EQ(clock.rateDen, 44100);
    const uint32_t select = cap.mClockSelect;
    model.runPeriods(1);
    EXPECT_NE(cap.mClockSelect, select) << "the other block takes over";

    model.setAdvanceHostTime(false);
    const int64_t frozen = hostk::now100ns();
    model.runPeriods(3);
    EXPECT_EQ(hostk::now100ns(), frozen);
}

TEST(UsbsimPeriodClock, RenderIsPlayedFromTheModelsOwnPositionAndCleared) {
    UsbDriverModel model(profileWithPeriod(128));
    FakeDriver drv;
    send(model, USBCall_Register, &drv.record);
    auto out = std::make_shared<usbsim::MemoryOutput>();
    model.setOutput(out);
    RenderingDriver echo;
    echo.renderValue = [](uint64_t k) { return int32_t(uint32_t(k + 1) << 8); };
    drv.onExchange = [&](MMEAdapterInfo* info) { echo.exchange(info); };
    model.runPeriods(2); // before attach the device plays silence
    model.attachMME();
    model.runPeriods(40);
    ASSERT_EQ(out->frames(), 42u * 128);
    EXPECT_EQ(model.renderFormatErrors(), 0u);
    // The driver wrote frame k at mWritePos + 1700 + k; the device plays from
    // the position it attached at: frame k sounds 1700 frames after attach.
    const uint64_t attachedAt = 2 * 128;
    for (uint64_t t = 0; t < out->frames(); ++t) {
        const int32_t want =
            t < attachedAt + 1700 ? 0 : int32_t(uint32_t(t - attachedAt - 1700 + 1) << 8);
        ASSERT_EQ(out->at(t, 0), want) << "frame " << t;
        ASSERT_EQ(out->at(t, 1), 0);
    }
    // what was played is cleared in the ring
    const AudioSM& ren = model.renderRing();
    const uint32_t last = (model.renderReadPos() - 1) % ren.mMaxFrames;
    EXPECT_EQ(ren.mSamples[last * ren.mChannelsPerFrame], 0);
}

TEST_F(UsbsimExchange, RenderSamplesThatAreNotTwentyFourBitAreCounted) {
    model.attachMME();
    AudioSM& ren = model.renderRing();
    ren.mSamples[0] = 0x007FFFFF;          // largest positive: fine
    ren.mSamples[1] = int32_t(0xFF800000); // most negative: fine
    ren.mSamples[2] = 0x12345678;          // left-justified by mistake
    ren.mSamples[3] = 0x00800000;          // bit 23 set without sign extension
    auto out = std::make_shared<usbsim::MemoryOutput>();
    model.setOutput(out);
    model.runPeriods(1);
    EXPECT_EQ(model.renderFormatErrors(), 2u);
    EXPECT_EQ(out->at(0, 0), 0x7FFFFF00);
    EXPECT_EQ(out->at(0, 1), int32_t(0x80000000));
}

TEST(UsbsimRealTime, PacedBySampleClockAndStoppedByUnregister) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.hardware.fr = 192000;
    UsbDriverModel model(p);
    FakeDriver drv;
    send(model, USBCall_Register, &drv.record);
    model.attachMME();
    std::atomic<size_t> exchanges{0};
    drv.onExchange = [&](MMEAdapterInfo*) { ++exchanges; };
    const auto start = std::chrono::steady_clock::now();
    model.startRealTime();
    EXPECT_TRUE(model.realTimeRunning());
    EXPECT_THROW(model.runPeriods(1), std::logic_error);
    while (model.periodsRun() < 30 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_GE(model.periodsRun(), 30u);
    // 29 full periods of 256 frames at 192 kHz have passed before the 30th
    EXPECT_GE(elapsed, std::chrono::microseconds(29 * 256 * 1000000ull / 192000));

    EXPECT_EQ(send(model, USBCall_Unregister, &drv.record).returned, STATUS_SUCCESS);
    EXPECT_FALSE(model.realTimeRunning());
    const size_t after = exchanges.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(exchanges.load(), after);
}

TEST(UsbsimRealTime, AFailingBackendStopsTheClockWithItsReason) {
    struct FailingOutput : usbsim::OutputBackend {
        int left = 3;
        void write(const int32_t*, uint32_t, uint32_t) override {
            if (--left == 0)
                throw std::runtime_error("disk full");
        }
        std::string describe() const override { return "failing"; }
    };
    UsbDriverModel model;
    model.setOutput(std::make_shared<FailingOutput>());
    model.startRealTime();
    const auto start = std::chrono::steady_clock::now();
    while (model.realTimeRunning() &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(model.realTimeRunning());
    EXPECT_EQ(model.realTimeError(), "disk full");
    EXPECT_EQ(model.periodsRun(), 2u);
    model.stopRealTime();
}

// ---- Backends ----

TEST(UsbsimBackends, GeneratorsProduceTheirSignal) {
    usbsim::SineInput sine(1000, 0.5);
    sine.configure(48000, 2);
    std::vector<int32_t> buf(48000 * 2);
    sine.read(buf.data(), 48000, 2);
    int crossings = 0;
    int32_t peak = 0;
    for (size_t f = 0; f < 48000; ++f) {
        EXPECT_EQ(buf[f * 2], buf[f * 2 + 1]);
        ASSERT_EQ(buf[f * 2] & 0xFF, 0) << "24-bit working format";
        peak = std::max(peak, std::abs(buf[f * 2]));
        if (f && (buf[f * 2 - 2] < 0) != (buf[f * 2] < 0))
            ++crossings;
    }
    EXPECT_NEAR(crossings, 2000, 2);
    EXPECT_NEAR(double(peak) / 2147483392.0, 0.5, 0.001);

    usbsim::SweepInput sweep(100, 10000, 2.0, 0.5, true);
    sweep.configure(48000, 1);
    EXPECT_DOUBLE_EQ(sweep.frequencyAt(0), 100);
    EXPECT_NEAR(sweep.frequencyAt(1.0), 1000, 1e-6) << "log sweep: middle of the time, "
                                                       "middle of the octaves";
    EXPECT_NEAR(sweep.frequencyAt(2.5), sweep.frequencyAt(0.5), 1e-6) << "starts again";
    std::vector<int32_t> s(96000);
    sweep.read(s.data(), 96000, 1);
    auto crossingsIn = [&](size_t from, size_t to) {
        int n = 0;
        for (size_t i = from + 1; i < to; ++i)
            n += (s[i - 1] < 0) != (s[i] < 0);
        return n;
    };
    EXPECT_LT(crossingsIn(0, 4800) * 10, crossingsIn(91200, 96000));

    usbsim::PatternInput pattern;
    std::vector<int32_t> pat(3 * 70000);
    pattern.read(pat.data(), 70000, 3);
    EXPECT_EQ(pat[69999 * 3 + 2], usbsim::PatternInput::sample(69999, 2));
    EXPECT_EQ(uint32_t(pat[69999 * 3 + 2]) >> 16, 69999u % 65536);
    EXPECT_EQ((uint32_t(pat[5 * 3 + 2]) >> 8) & 0xFF, 2u);
}

TEST(UsbsimBackends, WavFilesRoundTripThroughLibsndfile) {
    TempDir dir;
    const std::string path = dir.file("device.wav");
    {
        usbsim::WavFileOutput wav(path, 24);
        wav.configure(48000, 3);
        std::vector<int32_t> frames(1000 * 3);
        for (size_t i = 0; i < frames.size(); ++i)
            frames[i] = usbsim::PatternInput::sample(i / 3, uint32_t(i % 3));
        wav.write(frames.data(), 1000, 3);
        EXPECT_FALSE(std::filesystem::exists(path)) << "not under its name before finish";
        wav.finish();
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".part"));

    usbsim::WavFileInput in(path);
    EXPECT_EQ(in.fileRate(), 48000u);
    EXPECT_EQ(in.fileChannels(), 3u);
    std::vector<int32_t> wide(600 * 4), narrow(600 * 2);
    in.read(wide.data(), 600, 4); // one more device channel than the file
    for (uint32_t f = 0; f < 600; ++f) {
        for (uint32_t c = 0; c < 3; ++c)
            ASSERT_EQ(wide[f * 4 + c], usbsim::PatternInput::sample(f, c));
        ASSERT_EQ(wide[f * 4 + 3], 0);
    }
    in.read(narrow.data(), 600, 2); // 400 frames left, then silence
    for (uint32_t f = 0; f < 600; ++f)
        ASSERT_EQ(narrow[f * 2 + 1], f < 400 ? usbsim::PatternInput::sample(600 + f, 1) : 0);
    EXPECT_TRUE(in.finished());

    usbsim::WavFileInput looping(path, true);
    std::vector<int32_t> twice(2500 * 3);
    looping.read(twice.data(), 2500, 3);
    EXPECT_EQ(twice[2200 * 3], usbsim::PatternInput::sample(200, 0));
    EXPECT_FALSE(looping.finished());

    // 16-bit files keep the top 16 bits
    const std::string path16 = dir.file("device16.wav");
    usbsim::WavFileOutput wav16(path16, 16);
    wav16.configure(44100, 1);
    const int32_t sample = 0x12345678;
    wav16.write(&sample, 1, 1);
    wav16.finish();
    usbsim::WavFileInput in16(path16);
    int32_t back = 0;
    in16.read(&back, 1, 1);
    EXPECT_EQ(back, 0x12340000);
}

// (The file's format and samples as a user gets them: mme_sim_test.)
TEST(UsbsimBackends, DeviceOutputGoesToAWavFileUntilItIsFinished) {
    TempDir dir;
    const std::string path = dir.file("played.wav");
    UsbDriverModel model;
    auto wav = std::make_shared<usbsim::WavFileOutput>(path, 24);
    model.setOutput(wav);
    model.runPeriods(10);
    model.finishOutput();
    model.runPeriods(2); // played after the file was finished: dropped
    EXPECT_EQ(wav->frames(), 2560u);
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_FALSE(std::filesystem::exists(path + ".part"));
}

TEST(UsbsimBackends, BadFilesAndBackendNamesAreRefusedClearly) {
    TempDir dir;
    EXPECT_NE(thrown<std::runtime_error>([&] {
                  usbsim::WavFileInput in(dir.file("missing.wav"));
              }).find("missing.wav"),
              std::string::npos);
    const std::string text = dir.file("notes.wav");
    std::ofstream(text) << "not a sound file\n";
    EXPECT_THROW(usbsim::WavFileInput{text}, std::runtime_error);
    EXPECT_THROW(usbsim::WavFileOutput(dir.file("x.wav"), 20), std::invalid_argument);
    {
        usbsim::WavFileOutput abandoned(dir.file("abandoned.wav"), 24);
        abandoned.configure(48000, 2);
        int32_t frame[2] = {1, 2};
        abandoned.write(frame, 1, 2);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("abandoned.wav")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("abandoned.wav.part")));
    usbsim::WavFileOutput nowhere("/nonexistent/dir/out.wav", 24);
    EXPECT_THROW(nowhere.configure(48000, 2), std::runtime_error);

    EXPECT_EQ(usbsim::makeInput("sine:440:0.25")->describe(), "sine 440 Hz, amplitude 0.25");
    EXPECT_EQ(usbsim::makeInput("sweep:20:20000:3")->describe(), "log sweep 20 to 20000 Hz in 3 s");
    EXPECT_EQ(usbsim::makeInput("silence")->describe(), "silence");
    EXPECT_EQ(usbsim::makeOutput("null")->describe(), "null");
    EXPECT_EQ(usbsim::makeOutput("wav16:" + dir.file("a.wav"))->describe(),
              "file " + dir.file("a.wav") + " (16-bit WAV)");
    auto messageOf = [](auto&& fn) { return thrown<std::invalid_argument>(fn); };
    EXPECT_EQ(messageOf([] { usbsim::makeInput("sine:abc"); }),
              "input \"sine:abc\": frequency \"abc\" is not a number");
    EXPECT_EQ(messageOf([] { usbsim::makeInput("sine:440:2"); }),
              "input \"sine:440:2\": amplitude must be 0..1");
    EXPECT_EQ(messageOf([] { usbsim::makeInput("wav:"); }), "input \"wav:\": no file name");
    EXPECT_NE(messageOf([] { usbsim::makeInput("noise"); }).find("use silence, pattern"),
              std::string::npos);
    EXPECT_NE(messageOf([] { usbsim::makeOutput("speaker"); }).find("use null, wav:PATH"),
              std::string::npos);
}

TEST(UsbsimBackends, LoopbackAndMemoryMapChannels) {
    UsbDriverModel model;
    EXPECT_THROW(model.setLoopback(255), std::invalid_argument) << "shorter than a period";
    usbsim::LoopbackBackend loop(4);
    int32_t played[2 * 3] = {1, 2, 3, 4, 5, 6}; // 3 frames of 2 channels
    loop.write(played, 3, 2);
    int32_t heard[8 * 3];
    loop.read(heard, 8, 3);
    const int32_t want[8 * 3] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                 1, 2, 0, 3, 4, 0, 5, 6, 0, 0, 0, 0};
    EXPECT_TRUE(std::equal(heard, heard + 24, want));
    EXPECT_EQ(loop.underruns(), 1u) << "the eighth frame was not played yet";

    // A listener that falls behind by more than the ring loses the oldest
    // frames, counted, and hears the newest ones in order: memory stays fixed.
    usbsim::LoopbackBackend behind(256);
    const uint32_t capacity = 256 + usbsim::LoopbackBackend::kSlackFrames;
    std::vector<int32_t> ramp(size_t(capacity) + 100);
    for (size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = int32_t(i + 1);
    behind.write(ramp.data(), uint32_t(ramp.size()), 1);
    EXPECT_EQ(behind.overflows(), 356u) << "256 frames of silence and the first 100 played";
    int32_t first[2];
    behind.read(first, 2, 1);
    EXPECT_EQ(first[0], 101);
    EXPECT_EQ(first[1], 102);

    usbsim::MemoryOutput mem;
    mem.configure(48000, 2);
    int32_t four[4] = {7, 8, 9, 10};
    mem.write(four, 1, 4);
    mem.write(four, 2, 1);
    ASSERT_EQ(mem.frames(), 3u);
    EXPECT_EQ(mem.at(0, 1), 8);
    EXPECT_EQ(mem.at(2, 0), 8);
    EXPECT_EQ(mem.at(2, 1), 0);
}
