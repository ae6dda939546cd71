// The model USB driver seen from a driver's side (a hand-made link record
// with callbacks of the test's own plays the adapter): its refusals, its
// backends' and profiles' errors. What the end-to-end and mme-sim suites
// show by driving it through the real driver is left to them.
#include "usbsim/Backends.h"
#include "usbsim/Profile.h"
#include "usbsim/UsbDriverModel.h"

#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

using nlohmann::json;
using usbsim::DeviceProfile;
using usbsim::ProfileError;
using usbsim::UsbDriverModel;
using Questions = std::vector<std::pair<ULONG, ULONG>>;

namespace {

// Plays the adapter: the link record with its context and three callbacks.
struct FakeDriver {
    MMEAdapterInfo record{};
    std::vector<ULONG> notes; // codes
    Questions questions;
    std::function<void(ULONG)> onNotify;
    bool exchangeAtDispatch = true, wrongArguments = false;

    FakeDriver() {
        record.mpContext = this;
        record.mpfnNotify = &FakeDriver::notifyEntry;
        record.mpfnStcCallback = &FakeDriver::stcEntry;
        record.mpfnExchangeData = &FakeDriver::exchangeEntry;
        record.mInterfaceVersion = MME_INTERFACE_VERSION;
    }
    static void NTAPI notifyEntry(PVOID context, ULONG code, ULONGLONG) {
        auto* self = static_cast<FakeDriver*>(context);
        self->notes.push_back(code);
        if (self->onNotify)
            self->onNotify(code);
    }
    static LONG NTAPI stcEntry(PVOID context, ULONG code, ULONG value) {
        auto* self = static_cast<FakeDriver*>(context);
        self->questions.emplace_back(code, value);
        return 0;
    }
    static void NTAPI exchangeEntry(PVOID context, MMEAdapterInfo* info) {
        auto* self = static_cast<FakeDriver*>(context);
        self->exchangeAtDispatch &= KeGetCurrentIrql() == DISPATCH_LEVEL;
        self->wrongArguments |= info != &self->record;
    }
};

NTSTATUS NTAPI keepIrp(PDEVICE_OBJECT, PIRP, PVOID context) {
    *static_cast<bool*>(context) = true;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends one request the way the adapter does; returns what the dispatch returned.
NTSTATUS send(UsbDriverModel& model, ULONG code, MMEAdapterInfo* record,
              UCHAR major = IRP_MJ_INTERNAL_DEVICE_CONTROL) {
    PIRP irp = IoAllocateIrp(model.pdo()->StackSize, FALSE);
    bool completed = false;
    irp->UserBuffer = record;
    IoSetCompletionRoutine(irp, keepIrp, &completed, TRUE, TRUE, TRUE);
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    const NTSTATUS status = IoCallDriver(model.pdo(), irp);
    // Every request, refused ones too, is completed before the dispatch
    // returns, with the status it returns unless it pended.
    EXPECT_TRUE(completed) << "code " << code;
    EXPECT_TRUE(status == STATUS_PENDING || irp->IoStatus.Status == status) << "code " << code;
    IoFreeIrp(irp);
    return status;
}

// The message of the exception fn throws, or "(accepted)".
std::string thrown(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(accepted)";
}

// A device (the default one unless the test says otherwise) with the fake
// driver registered on it, and a scratch directory.
class Usbsim : public ::testing::Test {
protected:
    void link(DeviceProfile p = DeviceProfile::builtInDefault()) {
        model = std::make_unique<UsbDriverModel>(p);
        ASSERT_EQ(send(*model, USBCall_Register, &drv.record), STATUS_SUCCESS);
    }
    void SetUp() override { link(); }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string file(const char* name) {
        if (dir.empty()) {
            dir = (std::filesystem::temp_directory_path() / "usbsim-XXXXXX").string();
            EXPECT_NE(mkdtemp(dir.data()), nullptr);
        }
        return dir + "/" + name;
    }
    std::unique_ptr<UsbDriverModel> model;
    FakeDriver drv;
    std::string dir;
};

std::string profilePath(const char* name) {
    return (std::filesystem::path(MME_SOURCE_DIR) / "usbsim" / "profiles" / name).string();
}

std::unique_ptr<MMEDeviceInfo> recordOf(const DeviceProfile& p) {
    auto info = std::make_unique<MMEDeviceInfo>();
    std::memset(info.get(), 0x5A, sizeof *info); // fillDeviceInfo must clear what it leaves
    p.fillDeviceInfo(*info);
    return info;
}

// The field and the message of the ProfileError fn throws.
std::pair<std::string, std::string> profileErrorOf(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const ProfileError& e) {
        return {e.field(), e.what()};
    }
    return {"(accepted)", "(accepted)"};
}

json& alt(json& j, int itf, int a) {
    return j["configurations"][0]["interfaces"][itf]["altSettings"][a];
}

} // namespace

// ---- Calls from the driver ----

TEST(UsbsimCalls, MalformedOrMisplacedCallsAreRefusedWithoutEffect) {
    UsbDriverModel model;
    FakeDriver drv, other;
    EXPECT_EQ(send(model, USBCall_AdapterStarted, &drv.record), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(model.calls().back().note, "AdapterStarted before USBCall_Register");
    EXPECT_EQ(send(model, USBCall_Register, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(send(model, USBCall_Register, &drv.record, IRP_MJ_DEVICE_CONTROL),
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(model.calls().back().major, IRP_MJ_DEVICE_CONTROL);
    drv.record.mInterfaceVersion = 2095800;
    EXPECT_EQ(send(model, USBCall_Register, &drv.record), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(model.calls().back().note, "interface version 2095800, expected 2095900");
    EXPECT_EQ(drv.record.mpSettings, nullptr);
    drv.record.mInterfaceVersion = MME_INTERFACE_VERSION;

    ASSERT_EQ(send(model, USBCall_Register, &drv.record), STATUS_SUCCESS);
    EXPECT_EQ(drv.record.mpSettings->current, (ChannelConfig{48000, 8, 8, 24, 24, 0}));
    EXPECT_EQ(drv.record.mpSharedMemory->mMMEReadPos, MME_RING_NOT_ATTACHED);
    EXPECT_EQ(send(model, 6, &drv.record), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(model.calls().back().note, "unknown call code 6");
    EXPECT_EQ(send(model, USBCall_Register, &other.record), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(other.record.mpSharedMemory, nullptr);
    EXPECT_EQ(send(model, USBCall_Unregister, &other.record), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(model.link(), &drv.record);
    EXPECT_EQ(send(model, USBCall_Register, &drv.record), STATUS_SUCCESS) << "the same again";
}

// (Each accept rule and its reason: UsbsimProfile.ChangesAreJudgedByTheAcceptRules.)
TEST_F(Usbsim, ChangesAreRefusedWithTheirReasonOrMadeAndReportedOnlyWhenAsked) {
    const ChannelConfig start = model->settings().current;
    model->setDigitalLock(44100);
    EXPECT_EQ(model->settings().mDigitalLockFrequency, 44100u);
    drv.record.mcAttachChannels = {48000, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(*model, USBCall_ChangeConfig, &drv.record), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(model->calls().back().note.rfind("digital input locked to 44100 Hz", 0), 0u);
    EXPECT_EQ(model->settings().current, start);
    drv.record.mcAttachChannels = {44100, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(*model, USBCall_ChangeConfig, &drv.record), STATUS_SUCCESS);

    // Accepted changes are reported only when asked.
    model->setDigitalLock(0);
    drv.questions.clear();
    drv.record.mcAttachChannels = {44100, 2, 4, 16, 24, 0};
    EXPECT_EQ(send(*model, USBCall_ChangeConfig, &drv.record), STATUS_SUCCESS);
    EXPECT_EQ(model->settings().current, drv.record.mcAttachChannels);
    EXPECT_TRUE(drv.questions.empty()) << "own changes are not reported by default";
    model->setReportOwnChanges(true);
    drv.record.mcAttachChannels = {96000, 8, 8, 24, 24, 0};
    send(*model, USBCall_ChangeConfig, &drv.record);
    drv.record.mcAttachChannels = {96000, 8, 8, 16, 24, 0}; // same rate: no rate notice
    send(*model, USBCall_ChangeConfig, &drv.record);
    EXPECT_EQ(drv.questions, (Questions{{USBStc_SampleRate, 96000},
                                        {USBStc_ConfigChanged, 0},
                                        {USBStc_ConfigChanged, 0}}));
    EXPECT_THROW(model->changeHardware({44100, 33, 8, 24, 24, 0}, false), std::invalid_argument);
}

// ---- Notifications and the clock ----

TEST_F(Usbsim, AttachAndTimedStartAreRefusedWhileAsioHoldsTheDevice) {
    model->asioAttach();
    drv.notes.clear();
    EXPECT_EQ(send(*model, USBCall_Attach, &drv.record), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(send(*model, USBCall_TimedStart, &drv.record), STATUS_INVALID_DEVICE_STATE);
    model->runPeriods(2);
    EXPECT_TRUE(drv.notes.empty());
    model->asioDetach();
    drv.notes.clear();
    EXPECT_EQ(send(*model, USBCall_Attach, &drv.record), STATUS_SUCCESS);
    model->runPeriods(1);
    EXPECT_EQ(drv.notes, std::vector<ULONG>{MMENotify_OnMMEAttached});
    EXPECT_TRUE(drv.exchangeAtDispatch);
    EXPECT_FALSE(drv.wrongArguments);
}

// (Waiting for a period under way on the clock's thread: StackConcurrency.)
TEST_F(Usbsim, UnregisterFromInsideACallbackDoesNotWaitForItself) {
    NTSTATUS answer = STATUS_PENDING;
    drv.onNotify = [&](ULONG) { answer = send(*model, USBCall_Unregister, &drv.record); };
    model->asioDetach();
    EXPECT_EQ(answer, STATUS_SUCCESS);
    EXPECT_EQ(model->link(), nullptr);
}

TEST_F(Usbsim, RenderSamplesThatAreNotTwentyFourBitAreCounted) {
    model->attachMME();
    AudioSM& ren = model->renderRing();
    ren.mSamples[0] = 0x007FFFFF;          // largest positive: fine
    ren.mSamples[1] = int32_t(0xFF800000); // most negative: fine
    ren.mSamples[2] = 0x12345678;          // left-justified by mistake
    ren.mSamples[3] = 0x00800000;          // bit 23 set without sign extension
    auto out = std::make_shared<usbsim::MemoryOutput>();
    model->setOutput(out);
    model->runPeriods(1);
    EXPECT_EQ(model->renderFormatErrors(), 2u);
    EXPECT_EQ(out->at(0, 0), 0x7FFFFF00);
    EXPECT_EQ(out->at(0, 1), int32_t(0x80000000));
}

TEST(UsbsimClock, ARealTimeRunStopsAtAFailingBackendWithItsError) {
    struct FailingOutput : usbsim::OutputBackend {
        int left = 3;
        void write(const int32_t*, uint32_t, uint32_t) override {
            if (--left == 0)
                throw std::runtime_error("disk full");
        }
        std::string describe() const override { return "failing"; }
    };
    UsbDriverModel failing;
    failing.setOutput(std::make_shared<FailingOutput>());
    failing.startRealTime();
    const auto start = std::chrono::steady_clock::now();
    while (failing.realTimeRunning() &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(failing.realTimeRunning());
    EXPECT_EQ(failing.realTimeError(), "disk full");
    EXPECT_EQ(failing.periodsRun(), 2u);
}

// ---- Backends ----

TEST_F(Usbsim, BadFilesAndBackendNamesAreRefusedClearly) {
    // (Missing, unreadable and unwritable files as mme-sim reports them: mme_sim_test.)
    EXPECT_THROW(usbsim::WavFileOutput(file("x.wav"), 20), std::invalid_argument);
    {
        usbsim::WavFileOutput abandoned(file("abandoned.wav"), 24);
        abandoned.configure(48000, 2);
        int32_t frame[2] = {1, 2};
        abandoned.write(frame, 1, 2);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 0) << "nothing left";

    EXPECT_EQ(usbsim::makeInput("sine:440:0.25")->describe(), "sine 440 Hz, amplitude 0.25");
    EXPECT_EQ(usbsim::makeInput("sweep:20:20000:3")->describe(), "log sweep 20 to 20000 Hz in 3 s");
    EXPECT_EQ(usbsim::makeOutput("wav16:" + file("a.wav"))->describe(),
              "file " + file("a.wav") + " (16-bit WAV)");
    const std::pair<const char*, const char*> refused[] = {
        {"sine:abc", "input \"sine:abc\": frequency \"abc\" is not a number"},
        {"sine:440:2", "input \"sine:440:2\": amplitude must be 0..1"},
        {"wav:", "input \"wav:\": no file name"},
        {"noise", "use silence, pattern"},
    };
    for (const auto& [spec, message] : refused)
        EXPECT_NE(thrown([&] { usbsim::makeInput(spec); }).find(message), std::string::npos);
    EXPECT_NE(thrown([] { usbsim::makeOutput("speaker"); }).find("use null, wav:PATH"),
              std::string::npos);
}

TEST(UsbsimBackends, LoopbackKeepsItsMemoryFixedForAListenerFarBehind) {
    UsbDriverModel model;
    EXPECT_THROW(model.setLoopback(255), std::invalid_argument) << "shorter than a period";
    // A listener behind by more than the ring loses the oldest frames,
    // counted, and hears the newest in order: memory stays fixed.
    usbsim::LoopbackBackend behind(256);
    std::vector<int32_t> ramp(size_t(256 + usbsim::LoopbackBackend::kSlackFrames) + 100);
    for (size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = int32_t(i + 1);
    behind.write(ramp.data(), uint32_t(ramp.size()), 1);
    EXPECT_EQ(behind.overflows(), 356u) << "256 frames of silence and the first 100 played";
    int32_t first[2];
    behind.read(first, 2, 1);
    EXPECT_EQ(first[0], 101);
    EXPECT_EQ(first[1], 102);
}

// ---- Device profiles ----

TEST(UsbsimProfile, RingsHoldWholePeriodsAndTheDriversWriteAhead) {
    DeviceProfile p = DeviceProfile::builtInDefault();
    p.accept.rates.clear();
    for (uint32_t period : {256u, 128u, 48u, 1000u}) {
        p.periodFrames = period;
        for (uint32_t ch : {1u, 2u, 8u, 32u}) {
            SCOPED_TRACE(std::to_string(period) + " frames, " + std::to_string(ch) + " channels");
            p.hardware.inCH = p.hardware.outCH = ch;
            p.accept.maxInChannels = p.accept.maxOutChannels = ch;
            const uint32_t frames = p.ringFramesFor(ch);
            EXPECT_EQ(frames % period, 0u);
            EXPECT_LE(uint64_t(frames) * ch, 131072u);
            EXPECT_GT(uint64_t(frames + period) * ch, 131072u) << "largest multiple that fits";
            // a ring too small for the driver's write-ahead is refused up front
            const bool fits = frames >= usbsim::minimumRingFrames(period);
            EXPECT_EQ(profileErrorOf([&] { p.validate(); }).first,
                      fits ? "(accepted)" : "periodFrames");
        }
    }
    p = DeviceProfile::builtInDefault();
    p.ringFrames = 4096;
    EXPECT_EQ(p.ringFramesFor(8), 4096u);
}

// (That any accepted profile survives a JSON round trip: fuzz_profile.)
TEST(UsbsimProfile, TheSampleProfilesLoadAndDefaultJsonIsTheBuiltIn) {
    for (const char* name : {"stereo-16.json", "spdif-locked.json"})
        EXPECT_EQ(profileErrorOf([&] { DeviceProfile::fromJsonFile(profilePath(name)); }).first,
                  "(accepted)");
    const DeviceProfile fromFile = DeviceProfile::fromJsonFile(profilePath("default.json"));
    EXPECT_EQ(std::memcmp(recordOf(fromFile).get(), recordOf(DeviceProfile::builtInDefault()).get(),
                          sizeof(MMEDeviceInfo)),
              0);
    EXPECT_EQ(fromFile.toJson(), DeviceProfile::builtInDefault().toJson());
}

// Each row changes the default profile's JSON one way and names the error.
// (That nothing but such an error escapes, whatever the text: fuzz_profile.)
TEST(UsbsimProfile, EachKindOfBadProfileIsNamedByItsField) {
    auto set = [](const std::string& pointer, json value) {
        return [=](json& j) { j[json::json_pointer(pointer)] = value; };
    };
    auto grow = [](const std::string& pointer, size_t to, size_t copy) {
        return [=](json& j) {
            json& a = j[json::json_pointer(pointer)];
            while (a.size() < to)
                a.push_back(a[copy]);
        };
    };
    const char* const a01 = "configurations[0].interfaces[0].altSettings[1]";
    const std::string A01 = "/configurations/0/interfaces/0/altSettings/1";
    const std::string A11 = "/configurations/0/interfaces/1/altSettings/1";
    const struct {
        std::function<void(json&)> change;
        std::string message;
    } cases[] = {
        {[](json& j) {
             for (int i = 0; i < 11; ++i)
                 alt(j, 1, 2)["rates"].push_back(8000 + i);
         },
         "configurations[0].interfaces[1].altSettings[2].rates: 17 rates, at most 16"},
        {grow("/configurations", 5, 0), "configurations: 5 configurations, at most 4"},
        {grow("/configurations/0/interfaces", 17, 0),
         "configurations[0].interfaces: 17 interfaces, at most 16"},
        {grow("/configurations/0/interfaces/0/altSettings", 17, 1),
         "configurations[0].interfaces[0].altSettings: 17 alternate settings, at most 16"},
        {grow(A01 + "/endpoints", 5, 0), std::string(a01) + ".endpoints: 5 endpoints, at most 4"},
        {set(A01 + "/bits", 18), std::string(a01) + ".bits: 18 is not one of 16, 20, 24, 32"},
        {set(A11 + "/channels", 33),
         "configurations[0].interfaces[1].altSettings[1].channels: 33 is out of range 1..32"},
        {[](json& j) { alt(j, 0, 2)["rates"][3] = 0; },
         "configurations[0].interfaces[0].altSettings[2].rates[3]: 0 Hz is out of range "
         "1000..768000"},
        {[](json& j) { alt(j, 0, 2)["rates"][3] = 44100; },
         "configurations[0].interfaces[0].altSettings[2].rates[3]: 44100 Hz is listed twice"},
        {[](json& j) { alt(j, 0, 2)["rates"] = json::array(); },
         "configurations[0].interfaces[0].altSettings[2].rates: no rates (give rates or "
         "rateRange)"},
        {[](json& j) {
             alt(j, 0, 1).erase("rates");
             alt(j, 0, 1)["rateRange"] = {{"min", 96000}, {"max", 48000}};
         },
         std::string(a01) + ".rateRange: min 96000 is above max 48000"},
        {[](json& j) {
             alt(j, 0, 1)["rateRange"] = {{"min", 1}, {"max", 2}};
         },
         std::string(a01) + ".rateRange: give either rates or rateRange, not both"},
        {set(A11 + "/endpoints/0/address", "0x80"),
         "configurations[0].interfaces[1].altSettings[1].endpoints[0].address: 0x80 is not a "
         "data endpoint address (number 1..15, bit 7 = IN)"},
        {[](json& j) { alt(j, 1, 0)["rates"] = {48000}; },
         "configurations[0].interfaces[1].altSettings[0].rates: a zero-bandwidth setting (no "
         "endpoints, 0 bits, 0 channels) carries no rates"},
        {set(A01 + "/rate", 48000), std::string(a01) + ".rate: unknown field"},
        {[](json& j) { j.erase("vendorId"); }, "vendorId: missing"},
        {set("/vendorId", "0x1G09"), "vendorId: \"0x1G09\" is not a number"},
        {set("/productId", 70000), "productId: 70000 is out of range 0..65535"},
        {set("/thirdWord", -1), "thirdWord: -1 is negative"},
        {set("/configurations/0/interfaces/1/direction", "sideways"),
         "configurations[0].interfaces[1].direction: \"sideways\" is not \"input\" or "
         "\"output\""},
        {set("/configurations/0/interfaces", 3),
         "configurations[0].interfaces: expected an array, found number"},
        {set("/configurations", json::array()), "configurations: no configuration, at least 1"},
        {set("/accept/lockedRateOnly", "yes"),
         "accept.lockedRateOnly: expected true or false, found string"},
        {set("/accept/refuse", {{{"reason", "never"}}}),
         "accept.refuse[0]: a refusal rule needs at least one of fr, inCH, outCH, inRes, "
         "outRes, config"},
        {set("/hardware/inRes", 12), "hardware.inRes: 12 is not one of 16, 20, 24, 32"},
        {set("/hardware/outCH", 40), "hardware.outCH: 40 is out of range 0..32"},
        {set("/hardware/fr", 32000),
         "hardware: the accept rules refuse the starting configuration: rate 32000 Hz not "
         "supported (32000 Hz, 8 in x 24 bits, 8 out x 24 bits, config 0)"},
        {set("/periodFrames", 0), "periodFrames: 0 is out of range 1..4096"},
        {set("/ringFrames", 2048), "ringFrames: 2048 frames, at least 2724 for a period of 256"},
        {set("/ringFrames", 32768),
         "ringFrames: 32768 frames of 8 channels exceed the ring's 131072 samples"},
        {set("/schedule", {{{"period", 3}, {"event", "asioAtach"}}}),
         "schedule[0].event: unknown event \"asioAtach\""},
        {set("/schedule", {{{"period", 3}, {"event", "sampleRate"}}}),
         "schedule[0].value: missing"},
        {set("/schedule", {{{"period", 3}, {"event", "asioDetach"}, {"value", 1}}}),
         "schedule[0].value: event \"asioDetach\" takes no value"},
        {set("/schedule",
             {{{"period", 9}, {"event", "asioAttach"}}, {{"period", 4}, {"event", "asioDetach"}}}),
         "schedule[1].period: periods must not go backwards (4 after 9)"},
    };
    for (const auto& c : cases) {
        json j = DeviceProfile::builtInDefault().toJson();
        c.change(j);
        EXPECT_EQ(profileErrorOf([&] { DeviceProfile::fromJson(j); }).second, c.message);
    }
    EXPECT_NE(profileErrorOf([] {
                  DeviceProfile::fromJsonString("{ \"vendorId\": 1,");
              }).second.find("not valid JSON"),
              std::string::npos);
    EXPECT_EQ(profileErrorOf([] { DeviceProfile::fromJsonString("[1, 2]"); }).second,
              "(profile): expected an object, found array");
    auto missing = profileErrorOf([] { DeviceProfile::fromJsonFile("/nonexistent/device.json"); });
    EXPECT_EQ(missing.first, "/nonexistent/device.json");
    EXPECT_NE(missing.second.find("cannot open"), std::string::npos) << missing.second;
}

TEST(UsbsimProfile, ChangesAreJudgedByTheAcceptRules) {
    DeviceProfile p = DeviceProfile::fromJsonFile(profilePath("spdif-locked.json"));
    std::string why;
    EXPECT_TRUE(p.accepts({44100, 2, 4, 24, 24, 7}, 44100, &why)) << why;
    EXPECT_TRUE(p.accepts({48000, 2, 4, 24, 24, 7}, 0, &why)) << "no lock, listed rate";
    const struct {
        ChannelConfig c;
        uint32_t lock;
        const char* reason;
    } cases[] = {
        {{48000, 2, 4, 24, 24, 7}, 44100, "digital input locked to 44100 Hz"},
        {{22050, 2, 4, 24, 24, 7}, 0, "rate 22050 Hz not supported"},
        {{44100, 3, 4, 24, 24, 7}, 44100, "3 input channels outside 0..2"},
        {{44100, 2, 5, 24, 24, 7}, 44100, "5 output channels outside 0..4"},
        {{44100, 2, 4, 16, 24, 7}, 44100, "input resolution 16 bits not supported"},
        {{44100, 2, 4, 24, 32, 7}, 44100, "output resolution 32 bits not supported"},
        {{44100, 2, 4, 24, 24, 8}, 44100, "configuration word 8 not supported"},
        {{96000, 2, 4, 24, 24, 7}, 0, "four outputs at 96 kHz exceed the bus bandwidth"},
    };
    for (const auto& c : cases) {
        why.clear();
        EXPECT_FALSE(p.accepts(c.c, c.lock, &why)) << c.reason;
        EXPECT_EQ(why.rfind(c.reason, 0), 0u) << why;
    }
    EXPECT_TRUE(p.accepts({96000, 2, 2, 24, 24, 7}, 0, &why)) << "the rule needs outCH 4 too";
    p.accept.lockedRateOnly = false;
    EXPECT_TRUE(p.accepts({48000, 2, 4, 24, 24, 7}, 44100, &why)) << why;
}
