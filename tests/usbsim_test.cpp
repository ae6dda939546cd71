// The model USB driver seen from a driver's side (a hand-made link record
// plays the adapter): its refusals, its backends' and profiles' errors.
#include "usbsim/Backends.h"
#include "usbsim/Profile.h"
#include "usbsim/UsbDriverModel.h"

#include "host/kernel/HostKernel.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <thread>

using nlohmann::json;
using usbsim::DeviceProfile;
using usbsim::UsbDriverModel;

namespace {

// Plays the adapter: the link record with its context and three callbacks.
struct FakeDriver {
    MMEAdapterInfo record{};
    std::vector<ULONG> notes; // codes

    FakeDriver() {
        record.mpContext = this;
        record.mpfnNotify = &FakeDriver::notifyEntry;
        record.mpfnStcCallback = &FakeDriver::stcEntry;
        record.mpfnExchangeData = &FakeDriver::exchangeEntry;
        record.mInterfaceVersion = MME_INTERFACE_VERSION;
    }
    static void NTAPI notifyEntry(PVOID context, ULONG code, ULONGLONG) {
        static_cast<FakeDriver*>(context)->notes.push_back(code);
    }
    static LONG NTAPI stcEntry(PVOID, ULONG, ULONG) { return 0; }
    static void NTAPI exchangeEntry(PVOID, MMEAdapterInfo*) {}
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

} // namespace

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

    // A change the device refuses names its reason and changes nothing.
    model.setDigitalLock(44100);
    drv.record.mcAttachChannels = {48000, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(model.calls().back().note.rfind("digital input locked to 44100 Hz", 0), 0u);
    EXPECT_EQ(model.settings().current, (ChannelConfig{48000, 8, 8, 24, 24, 0}));
    drv.record.mcAttachChannels = {44100, 8, 8, 24, 24, 0};
    EXPECT_EQ(send(model, USBCall_ChangeConfig, &drv.record), STATUS_SUCCESS);
    EXPECT_EQ(model.settings().current, drv.record.mcAttachChannels);
    EXPECT_THROW(model.changeHardware({44100, 33, 8, 24, 24, 0}, false), std::invalid_argument);

    // While ASIO holds the device, MME may neither attach nor start.
    model.asioAttach();
    drv.notes.clear();
    EXPECT_EQ(send(model, USBCall_Attach, &drv.record), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(send(model, USBCall_TimedStart, &drv.record), STATUS_INVALID_DEVICE_STATE);
    model.runPeriods(2);
    EXPECT_TRUE(drv.notes.empty());
    model.asioDetach();
    drv.notes.clear();
    EXPECT_EQ(send(model, USBCall_Attach, &drv.record), STATUS_SUCCESS);
    model.runPeriods(1);
    EXPECT_EQ(drv.notes, std::vector<ULONG>{MMENotify_OnMMEAttached});
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

TEST(UsbsimBackends, BadFilesAndBackendNamesAreRefusedClearly) {
    // (Missing, unreadable and unwritable files as mme-sim reports them: mme_sim_test.)
    EXPECT_NE(thrown([] { usbsim::WavFileOutput("x.wav", 20); }).find("20 bits, use 16, 24 or 32"),
              std::string::npos);
    const std::pair<const char*, const char*> refused[] = {
        {"sine:abc", "input \"sine:abc\": frequency \"abc\" is not a number"},
        {"sine:440:2", "input \"sine:440:2\": amplitude must be 0..1"},
        {"wav:", "input \"wav:\": no file name"},
        {"noise", "use silence, pattern"},
    };
    for (const auto& entry : refused)
        EXPECT_NE(thrown([&] { usbsim::makeInput(entry.first); }).find(entry.second),
                  std::string::npos);
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

// Each row changes the default profile's JSON one way and names the error.
// (That nothing but such an error escapes, whatever the text: fuzz_profile.)
TEST(UsbsimProfile, EachKindOfBadProfileIsNamedByItsField) {
    auto set = [](const std::string& pointer, json value) {
        return [=](json& j) { j[json::json_pointer(pointer)] = value; };
    };
    const json d = DeviceProfile::builtInDefault().toJson();
    const std::string P0 = "/configurations/0/interfaces/0", P1 = "/configurations/0/interfaces/1";
    const std::string A01 = P0 + "/altSettings/1", A02 = P0 + "/altSettings/2";
    const std::string A11 = P1 + "/altSettings/1";
    const std::string I0 = "configurations[0].interfaces[0]",
                      I1 = "configurations[0].interfaces[1]";
    const std::string a01 = I0 + ".altSettings[1]", a02 = I0 + ".altSettings[2]";
    const std::string a10 = I1 + ".altSettings[0]", a11 = I1 + ".altSettings[1]";
    const struct {
        std::function<void(json&)> change;
        std::string message;
    } cases[] = {
        {set(P1 + "/altSettings/2/rates", json(17, 8000)),
         I1 + ".altSettings[2].rates: 17 rates, at most 16"},
        {set("/configurations", json(5, d["configurations"][0])),
         "configurations: 5 configurations, at most 4"},
        {set("/configurations/0/interfaces", json(17, d[json::json_pointer(P0)])),
         "configurations[0].interfaces: 17 interfaces, at most 16"},
        {set(P0 + "/altSettings", json(17, d[json::json_pointer(A01)])),
         I0 + ".altSettings: 17 alternate settings, at most 16"},
        {set(A01 + "/endpoints", json(5, d[json::json_pointer(A01 + "/endpoints/0")])),
         a01 + ".endpoints: 5 endpoints, at most 4"},
        {set(A01 + "/bits", 18), a01 + ".bits: 18 is not one of 16, 20, 24, 32"},
        {set(A11 + "/channels", 33), a11 + ".channels: 33 is out of range 1..32"},
        {set(A02 + "/rates/3", 0), a02 + ".rates[3]: 0 Hz is out of range 1000..768000"},
        {set(A02 + "/rates/3", 44100), a02 + ".rates[3]: 44100 Hz is listed twice"},
        {set(A02 + "/rates", json::array()), a02 + ".rates: no rates (give rates or rateRange)"},
        {[&](json& j) {
             j[json::json_pointer(A01)].erase("rates");
             j[json::json_pointer(A01 + "/rateRange")] = {{"min", 96000}, {"max", 48000}};
         },
         a01 + ".rateRange: min 96000 is above max 48000"},
        {set(A01 + "/rateRange", {{"min", 1}, {"max", 2}}),
         a01 + ".rateRange: give either rates or rateRange, not both"},
        {set(A11 + "/endpoints/0/address", "0x80"),
         a11 + ".endpoints[0].address: 0x80 is not a data endpoint address (number 1..15, bit 7 = "
               "IN)"},
        {set(P1 + "/altSettings/0/rates", {48000}),
         a10 + ".rates: a zero-bandwidth setting (no endpoints, 0 bits, 0 channels) carries no "
               "rates"},
        {set(A01 + "/rate", 48000), a01 + ".rate: unknown field"},
        {[](json& j) { j.erase("vendorId"); }, "vendorId: missing"},
        {set("/vendorId", "0x1G09"), "vendorId: \"0x1G09\" is not a number"},
        {set("/productId", 70000), "productId: 70000 is out of range 0..65535"},
        {set("/thirdWord", -1), "thirdWord: -1 is negative"},
        {set(P1 + "/direction", "sideways"),
         I1 + ".direction: \"sideways\" is not \"input\" or \"output\""},
        {set("/configurations/0/interfaces", 3),
         "configurations[0].interfaces: expected an array, found number"},
        {set("/configurations", json::array()), "configurations: no configuration, at least 1"},
        {set("/accept/lockedRateOnly", "yes"),
         "accept.lockedRateOnly: expected true or false, found string"},
        {set("/accept/refuse", {{{"reason", "never"}}}),
         "accept.refuse[0]: a refusal rule needs at least one of fr, inCH, outCH, inRes, outRes, "
         "config"},
        {set("/hardware/inRes", 12), "hardware.inRes: 12 is not one of 16, 20, 24, 32"},
        {set("/hardware/outCH", 40), "hardware.outCH: 40 is out of range 0..32"},
        {set("/hardware/fr", 32000), "hardware: the accept rules refuse the starting "
                                     "configuration: rate 32000 Hz not supported "
                                     "(32000 Hz, 8 in x 24 bits, 8 out x 24 bits, config 0)"},
        {set("/periodFrames", 0), "periodFrames: 0 is out of range 1..4096"},
        {[](json& j) {
             j["periodFrames"] = 1000;
             j["accept"]["maxOutChannels"] = 32;
         },
         "periodFrames: a ring of 32 channels holds fewer than 4212 frames with a period of 1000"},
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
        json j = d;
        c.change(j);
        EXPECT_EQ(thrown([&] { DeviceProfile::fromJson(j); }), c.message);
    }
    auto broken = [] { DeviceProfile::fromJsonString("{ \"vendorId\": 1,"); };
    EXPECT_NE(thrown(broken).find("not valid JSON"), std::string::npos);
    EXPECT_EQ(thrown([] { DeviceProfile::fromJsonString("[1, 2]"); }),
              "(profile): expected an object, found array");
    auto missing = [] { DeviceProfile::fromJsonFile("/nonexistent/device.json"); };
    EXPECT_EQ(thrown(missing).rfind("/nonexistent/device.json: cannot open", 0), 0u);
}

TEST(UsbsimProfile, ChangesAreJudgedByTheAcceptRules) {
    DeviceProfile p =
        DeviceProfile::fromJsonFile(MME_SOURCE_DIR "/usbsim/profiles/spdif-locked.json");
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
