// Device format search: which alternate settings of a device-info record
// count as a mode for a direction, rate, resolution and channel count, the
// two device lists that change the direction rule, and records whose counts
// exceed the record's capacities.
#include "driver/wave/DeviceFormat.h"
#include "driver/wave/DeviceLists.h"
#include "support/DeviceInfoBuilder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

using wavetest::DeviceInfoBuilder;
using wavetest::ListGuard;

namespace {

bool found(const MMEDeviceInfo* info, ULONG rate, UCHAR bits, UCHAR channels, bool discreteOnly,
           bool output, ULONG configuration = 0) {
    return findDeviceFormat(info, configuration, rate, bits, channels, discreteOnly, output).bFound;
}

} // namespace

TEST(DeviceIdentity, MatchesVendorAndProductOnly) {
    DeviceIdentity id;
    id.set(0x1234, 0x5678, 0x9ABC);
    EXPECT_TRUE(id.matches(0x1234, 0x5678));
    EXPECT_FALSE(id.matches(0x1234, 0x5679));
    EXPECT_FALSE(id.matches(0x1235, 0x5678));
    EXPECT_EQ(id.thirdWord, 0x9ABC);

    DeviceList empty = {nullptr, 0};
    EXPECT_FALSE(empty.contains(id));
    const DeviceIdPair pairs[] = {{0x1111, 0x2222}, {0x1234, 0x5678}};
    DeviceList list = {pairs, 2};
    EXPECT_TRUE(list.contains(id));
    DeviceList firstOnly = {pairs, 1};
    EXPECT_FALSE(firstOnly.contains(id));
}

TEST(DeviceLists, EmptyByDefault) {
    for (const DeviceList* list : {&STEREO_16BIT_DEVICES, &STEREO_24BIT_DEVICES,
                                   &DIRECTION_BY_INTERFACE_DEVICES, &INPUT_INTERFACE_ONLY_DEVICES})
        EXPECT_EQ(list->count, 0u);
}

TEST(FindDeviceFormat, RatesResolutionAndChannels) {
    // Discrete rates count only up to their count.
    DeviceInfoBuilder dev;
    dev.output(24, 2, {44100, 48000});
    dev.lastAlt().rates[2] = 96000; // left beyond the count
    EXPECT_TRUE(found(dev.get(), 44100, 24, 2, true, true));
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true));
    EXPECT_FALSE(found(dev.get(), 96000, 24, 2, true, true));
    EXPECT_FALSE(found(dev.get(), 96000, 24, 2, false, true));

    // A continuous range only when allowed, both ends included.
    dev.inputRange(24, 2, 44100, 96000);
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, false, false));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
    EXPECT_TRUE(found(dev.get(), 44100, 24, 2, false, false));
    EXPECT_TRUE(found(dev.get(), 96000, 24, 2, false, false));
    EXPECT_FALSE(found(dev.get(), 44099, 24, 2, false, false));
    EXPECT_FALSE(found(dev.get(), 96001, 24, 2, false, false));

    // Resolution and channels must be equal.
    dev.input(24, 8, {48000});
    EXPECT_TRUE(found(dev.get(), 48000, 24, 8, true, false));
    EXPECT_FALSE(found(dev.get(), 48000, 16, 8, true, false));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 10, true, false));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 6, false, false));
}

TEST(FindDeviceFormat, ResultCarriesTheQuestionAndPosition) {
    DeviceInfoBuilder dev;
    dev.output(16, 2, {44100}).input(24, 2, {44100}).input(24, 4, {44100});
    auto fields = [](const DeviceFormatMatch& m) {
        return std::vector<long long>{m.bFound,          m.configurationIndex, m.interfaceIndex,
                                      m.altSettingIndex, m.sampleRate,         m.bits,
                                      m.channels};
    };
    EXPECT_EQ(fields(findDeviceFormat(dev.get(), 0, 44100, 24, 4, true, false)),
              (std::vector<long long>{1, 0, 1, 1, 44100, 24, 4}));
    // Not found: the question is still carried.
    auto none = fields(findDeviceFormat(dev.get(), 0, 22050, 20, 6, false, true));
    EXPECT_EQ(none[0], 0);
    EXPECT_EQ(std::vector<long long>(none.begin() + 4, none.end()),
              (std::vector<long long>{22050, 20, 6}));
}

TEST(FindDeviceFormat, DirectionComesFromTheAddressOfAUsableEndpoint) {
    DeviceInfoBuilder dev;
    dev.input(24, 2, {48000});
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true));

    // Endpoints below four bytes are unusable; a later usable one counts.
    dev.lastAlt().endpoints[0].maxPacketSize = 3;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
    dev.lastAlt().endpoints[0].maxPacketSize = 4;
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));
    dev.lastAlt().endpoints[0].maxPacketSize = 0;
    dev.lastAlt().numEndpoints = 2;
    dev.lastAlt().endpoints[1] = {256, 0x83, 0};
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));

    // The interface's direction byte does not count for ordinary devices.
    dev.lastInterface().direction = MME_DIRECTION_OUTPUT;
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));
    dev.lastAlt().endpoints[1].address = 0x02;
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));

    // Without endpoints a setting never passes.
    dev.lastAlt().numEndpoints = 0;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true));
}

TEST(FindDeviceFormat, InputInterfaceOnlyDevices) {
    DeviceInfoBuilder dev;
    dev.ids(0x0A0A, 0x0B0B);
    dev.output(24, 2, {48000});
    // An IN endpoint on the output interface.
    dev.lastAlt().numEndpoints = 2;
    dev.lastAlt().endpoints[1] = {64, 0x81, 0};

    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false)); // not listed: endpoint rule
    {
        ListGuard guard(INPUT_INTERFACE_ONLY_DEVICES, {{0x0A0A, 0x0B0B}});
        EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
        EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true)); // output unaffected
        dev.lastInterface().direction = MME_DIRECTION_INPUT;
        EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));
    }
    EXPECT_EQ(INPUT_INTERFACE_ONLY_DEVICES.count, 0u);
}

TEST(FindDeviceFormat, DirectionByInterfaceDevices) {
    DeviceInfoBuilder dev;
    dev.ids(0x0C0C, 0x0D0D);
    dev.input(24, 2, {48000});
    // Endpoint addresses and sizes do not matter for these devices.
    dev.lastAlt().endpoints[0] = {0, 0x01, 0};
    ListGuard guard(DIRECTION_BY_INTERFACE_DEVICES, {{0x0C0C, 0x0D0D}});

    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, false));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true));

    dev.lastAlt().flag = 0;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
    dev.lastAlt().flag = 1;

    dev.lastAlt().numEndpoints = 0;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
    dev.lastAlt().numEndpoints = 1;

    dev.lastInterface().direction = MME_DIRECTION_OUTPUT;
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, false));
}

TEST(FindDeviceFormat, DirectionByInterfaceWinsOverInputInterfaceOnly) {
    DeviceInfoBuilder dev;
    dev.ids(0x0E0E, 0x0F0F);
    dev.input(16, 2, {44100});
    // Input interface byte, but only an OUT endpoint: the first list's rule
    // finds it, the second list's would not.
    dev.lastAlt().endpoints[0] = {512, 0x01, 0};
    ListGuard inputOnly(INPUT_INTERFACE_ONLY_DEVICES, {{0x0E0E, 0x0F0F}});
    EXPECT_FALSE(found(dev.get(), 44100, 16, 2, true, false));
    ListGuard byInterface(DIRECTION_BY_INTERFACE_DEVICES, {{0x0E0E, 0x0F0F}});
    EXPECT_TRUE(found(dev.get(), 44100, 16, 2, true, false));
}

TEST(FindDeviceFormat, ConfigurationIndexOutOfRangeOrNoRecord) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {48000});
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true, 0));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, 1));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, 0xFFFFFFFF));
    EXPECT_FALSE(found(nullptr, 48000, 24, 2, true, true));

    dev.info().numConfigurations = 0;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, 0));
}

// Counts above the record's capacities are clamped: the walk never reads
// past the arrays (the sanitizer runs check the memory side).
TEST(FindDeviceFormat, CountsAboveCapacitiesAreClamped) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {44100});
    MMEDeviceAltSetting& alt = dev.lastAlt();
    alt.numRates = 255;
    for (ULONG i = 0; i < MME_DEVICE_MAX_RATES; ++i)
        alt.rates[i] = 1000 + i;
    // Read as a seventeenth rate, the first endpoint would be 48000 Hz.
    static_assert(offsetof(MMEDeviceAltSetting, endpoints) ==
                  offsetof(MMEDeviceAltSetting, rates) + 4 * MME_DEVICE_MAX_RATES);
    alt.endpoints[0] = {48000, 0x00, 0};
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true));
    EXPECT_TRUE(found(dev.get(), 1015, 24, 2, true, true));

    alt.numEndpoints = 255;
    dev.info().configurations[0].numInterfaces = 255;
    dev.lastInterface().numAltSettings = 255;
    dev.info().numConfigurations = 255;
    EXPECT_TRUE(found(dev.get(), 1015, 24, 2, true, true));
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, MME_DEVICE_MAX_CONFIGURATIONS));
}

TEST(FindDeviceFormat, RecordOfAllOnesIsWalkedSafely) {
    auto info = std::make_unique<MMEDeviceInfo>();
    std::memset(info.get(), 0xFF, sizeof(MMEDeviceInfo));
    for (bool output : {false, true}) {
        for (bool discrete : {false, true}) {
            for (ULONG cfg = 0; cfg < 6; ++cfg) {
                DeviceFormatMatch m =
                    findDeviceFormat(info.get(), cfg, 48000, 0xFF, 0xFF, discrete, output);
                EXPECT_LT(m.interfaceIndex, MME_DEVICE_MAX_INTERFACES);
                EXPECT_LT(m.altSettingIndex, MME_DEVICE_MAX_ALT_SETTINGS);
                EXPECT_LT(m.configurationIndex, MME_DEVICE_MAX_CONFIGURATIONS);
            }
        }
    }
    // 0xFFFFFFFF is one of the "discrete" rates only when the kind is 0; here
    // the kind is 0xFF, a continuous range 0xFFFFFFFF..0xFFFFFFFF, and every
    // endpoint is an IN endpoint of 0xFFFF bytes.
    EXPECT_TRUE(found(info.get(), 0xFFFFFFFF, 0xFF, 0xFF, false, false));
    EXPECT_FALSE(found(info.get(), 0xFFFFFFFF, 0xFF, 0xFF, true, false));
    EXPECT_FALSE(found(info.get(), 0xFFFFFFFF, 0xFF, 0xFF, false, true));
}
