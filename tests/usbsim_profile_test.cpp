// Device profiles of the model USB driver: the built-in default and its
// device-info record, the sample JSON profiles, errors that name the
// offending field, and the acceptance of changes.
#include "usbsim/Profile.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <filesystem>
#include <functional>

using nlohmann::json;
using usbsim::DeviceProfile;
using usbsim::ProfileError;

namespace {

std::string profilePath(const char* name) {
    return (std::filesystem::path(MME_SOURCE_DIR) / "usbsim" / "profiles" / name).string();
}

std::unique_ptr<MMEDeviceInfo> recordOf(const DeviceProfile& p) {
    auto info = std::make_unique<MMEDeviceInfo>();
    std::memset(info.get(), 0x5A, sizeof *info); // fillDeviceInfo must clear what it leaves
    p.fillDeviceInfo(*info);
    return info;
}

bool sameRecord(const MMEDeviceInfo& a, const MMEDeviceInfo& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
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

// (The driver's reading of the default record: the formats tables of
// mme_sim_test and the end-to-end suites.)
TEST(UsbsimProfile, DefaultRecordHasAZeroBandwidthSettingAndEndpointsOfItsDirection) {
    auto info = recordOf(DeviceProfile::builtInDefault());
    ASSERT_EQ(info->configurations[0].numInterfaces, 2);
    for (int i = 0; i < 2; ++i) {
        const MMEDeviceInterface& itf = info->configurations[0].interfaces[i];
        EXPECT_EQ(itf.direction, i == 0 ? MME_DIRECTION_OUTPUT : MME_DIRECTION_INPUT);
        ASSERT_EQ(itf.numAltSettings, 3);
        EXPECT_EQ(itf.altSettings[0].numEndpoints, 0);
        EXPECT_EQ(itf.altSettings[1].numRates, 6);
        EXPECT_EQ(itf.altSettings[1].rates[6], 0u) << "zero beyond the count";
        EXPECT_EQ((itf.altSettings[2].endpoints[0].address & 0x80) != 0, i == 1);
    }
}

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

TEST(UsbsimProfile, SamplesSurviveAJsonRoundTripAndDefaultJsonIsTheBuiltIn) {
    for (const char* name : {"default.json", "stereo-16.json", "spdif-locked.json"}) {
        SCOPED_TRACE(name);
        const DeviceProfile p = DeviceProfile::fromJsonFile(profilePath(name));
        const DeviceProfile again = DeviceProfile::fromJsonString(p.toJson().dump());
        EXPECT_TRUE(sameRecord(*recordOf(p), *recordOf(again)));
        EXPECT_EQ(p.toJson(), again.toJson());
    }
    const DeviceProfile fromFile = DeviceProfile::fromJsonFile(profilePath("default.json"));
    EXPECT_TRUE(sameRecord(*recordOf(fromFile), *recordOf(DeviceProfile::builtInDefault())));

    // The S/PDIF sample: rate ranges, two configurations and a schedule.
    const DeviceProfile p = DeviceProfile::fromJsonFile(profilePath("spdif-locked.json"));
    auto info = recordOf(p);
    ASSERT_EQ(info->numConfigurations, 2);
    const MMEDeviceAltSetting& out = info->configurations[0].interfaces[0].altSettings[0];
    EXPECT_NE(out.rateKind, MME_RATES_DISCRETE);
    EXPECT_EQ(out.highestRate, 96000u);
    EXPECT_EQ(out.endpoints[1].address, 0x83);
    EXPECT_EQ(p.digitalLockHz, 44100u);
    EXPECT_EQ(p.schedule.at(4).kind, usbsim::EventKind::DigitalLock);
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
