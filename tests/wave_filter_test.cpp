// The wave filter's description and format questions: which device modes
// count (findDeviceFormat, the device lists), the pins' ranges and descriptor,
// format validation and intersection with its buffer-length protocol.
#include "driver/wave/DeviceFormat.h"
#include "driver/wave/DeviceLists.h"
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/ObjectChecks.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

using hostpc::clientRange;
using wavetest::DeviceInfoBuilder;
using wavetest::FormatDesc;
using wavetest::LightRig;
using wavetest::ListGuard;
using wavetest::makeFormat;

namespace {

bool found(const MMEDeviceInfo* info, ULONG rate, UCHAR bits, UCHAR channels, bool discreteOnly,
           bool output, ULONG configuration = 0) {
    return findDeviceFormat(info, configuration, rate, bits, channels, discreteOnly, output).bFound;
}

} // namespace

TEST(DeviceLists, MatchVendorAndProductOnly) {
    DeviceIdentity id;
    id.set(0x1234, 0x5678, 0x9ABC);
    EXPECT_TRUE(id.matches(0x1234, 0x5678));
    EXPECT_FALSE(id.matches(0x1234, 0x5679));
    EXPECT_FALSE(id.matches(0x1235, 0x5678));
    const DeviceIdPair pairs[] = {{0x1111, 0x2222}, {0x1234, 0x5678}};
    EXPECT_FALSE((DeviceList{nullptr, 0}).contains(id));
    EXPECT_TRUE((DeviceList{pairs, 2}).contains(id));
    EXPECT_FALSE((DeviceList{pairs, 1}).contains(id));
}

// Discrete rates count up to their count, continuous ranges only when allowed
// and with both ends; resolution and channels must be equal.
TEST(FindDeviceFormat, RatesResolutionAndChannels) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {44100, 48000});
    dev.lastAlt().rates[2] = 96000; // left beyond the count
    dev.inputRange(24, 2, 44100, 96000).input(24, 8, {48000});
    struct {
        ULONG rate;
        UCHAR bits, channels;
        bool discrete, output, found;
    } cases[] = {
        {44100, 24, 2, true, true, true},    {48000, 24, 2, true, true, true},
        {96000, 24, 2, true, true, false},   {96000, 24, 2, false, true, false},
        {48000, 24, 2, false, false, true},  {48000, 24, 2, true, false, false},
        {44100, 24, 2, false, false, true},  {96000, 24, 2, false, false, true},
        {44099, 24, 2, false, false, false}, {96001, 24, 2, false, false, false},
        {48000, 24, 8, true, false, true},   {48000, 16, 8, true, false, false},
        {48000, 24, 10, true, false, false}, {48000, 24, 6, false, false, false},
    };
    for (auto c : cases)
        EXPECT_EQ(found(dev.get(), c.rate, c.bits, c.channels, c.discrete, c.output), c.found)
            << c.rate << " Hz " << int(c.bits) << " bits " << int(c.channels) << " ch "
            << (c.discrete ? "discrete " : "") << (c.output ? "out" : "in");
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
    auto none = fields(findDeviceFormat(dev.get(), 0, 22050, 20, 6, false, true));
    EXPECT_EQ(none[0], 0);
    EXPECT_EQ(std::vector<long long>(none.begin() + 4, none.end()),
              (std::vector<long long>{22050, 20, 6}));
}

// Ordinary devices: the address of a usable (4 bytes or more) endpoint gives
// the direction. Input-interface-only devices refuse input on other
// interfaces; direction-by-interface devices (winning over that list) take
// the interface's direction when the setting's flag is 1 and it has endpoints.
TEST(FindDeviceFormat, DirectionRulesPerDeviceList) {
    enum : int { NONE = 0, INPUT_ONLY = 1, BY_INTERFACE = 2, BOTH = 3 };
    const UCHAR kIn = MME_DIRECTION_INPUT, kOut = MME_DIRECTION_OUTPUT;
    struct Row {
        const char* what;
        int lists;
        UCHAR direction;
        MMEDeviceEndpoint first, second;
        UCHAR endpoints, flag;
        bool in, out;
    } rows[] = {
        {"an IN endpoint", NONE, kIn, {512, 0x81, 0}, {}, 1, 1, true, false},
        {"three bytes are unusable", NONE, kIn, {3, 0x81, 0}, {}, 1, 1, false, false},
        {"four bytes are usable", NONE, kIn, {4, 0x81, 0}, {}, 1, 1, true, false},
        {"a later usable endpoint", NONE, kIn, {0, 0x81, 0}, {256, 0x83, 0}, 2, 1, true, false},
        {"interface ignored", NONE, kOut, {0, 0x81, 0}, {256, 0x83, 0}, 2, 1, true, false},
        {"an OUT endpoint", NONE, kOut, {0, 0x81, 0}, {256, 0x02, 0}, 2, 1, false, true},
        {"no endpoints", NONE, kOut, {0, 0x81, 0}, {256, 0x02, 0}, 0, 1, false, false},
        {"both kinds", NONE, kOut, {512, 0x01, 0}, {64, 0x81, 0}, 2, 1, true, true},
        {"input only, out iface",
         INPUT_ONLY,
         kOut,
         {512, 0x01, 0},
         {64, 0x81, 0},
         2,
         1,
         false,
         true},
        {"input only, in iface", INPUT_ONLY, kIn, {512, 0x01, 0}, {64, 0x81, 0}, 2, 1, true, true},
        {"input only, unusable", INPUT_ONLY, kIn, {0, 0x01, 0}, {0, 0x01, 0}, 1, 1, false, false},
        {"by interface", BY_INTERFACE, kIn, {0, 0x01, 0}, {0, 0x01, 0}, 1, 1, true, false},
        {"by interface wins", BOTH, kIn, {0, 0x01, 0}, {0, 0x01, 0}, 1, 1, true, false},
        {"by interface, flag 0", BOTH, kIn, {0, 0x01, 0}, {0, 0x01, 0}, 1, 0, false, false},
        {"by interface, no endpoints", BOTH, kIn, {0, 0x01, 0}, {0, 0x01, 0}, 0, 1, false, false},
        {"by interface, output", BOTH, kOut, {0, 0x81, 0}, {0, 0x81, 0}, 1, 1, false, true},
    };
    DeviceInfoBuilder dev;
    dev.ids(0x0A0A, 0x0B0B).input(24, 2, {48000});
    MMEDeviceAltSetting& alt = dev.lastAlt();
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        std::optional<ListGuard> inputOnly, byInterface;
        const std::vector<DeviceIdPair> ids{{0x0A0A, 0x0B0B}};
        if (r.lists & INPUT_ONLY)
            inputOnly.emplace(INPUT_INTERFACE_ONLY_DEVICES, ids);
        if (r.lists & BY_INTERFACE)
            byInterface.emplace(DIRECTION_BY_INTERFACE_DEVICES,
                                std::vector<DeviceIdPair>{{0x0A0A, 0x0B0B}});
        dev.lastInterface().direction = r.direction;
        alt.endpoints[0] = r.first;
        alt.endpoints[1] = r.second;
        alt.numEndpoints = r.endpoints;
        alt.flag = r.flag;
        EXPECT_EQ(found(dev.get(), 48000, 24, 2, true, false), r.in);
        EXPECT_EQ(found(dev.get(), 48000, 24, 2, true, true), r.out);
    }
}

// Bad records: counts above the capacities are clamped, the walk never reads
// past the arrays (the sanitizer runs check the memory side).
TEST(FindDeviceFormat, ConfigurationsOutOfRangeAndCountsAboveCapacities) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {48000});
    EXPECT_TRUE(found(dev.get(), 48000, 24, 2, true, true, 0));
    for (ULONG cfg : {1u, 0xFFFFFFFFu})
        EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, cfg));
    EXPECT_FALSE(found(nullptr, 48000, 24, 2, true, true));
    dev.info().numConfigurations = 0;
    EXPECT_FALSE(found(dev.get(), 48000, 24, 2, true, true, 0));

    DeviceInfoBuilder big;
    big.output(24, 2, {44100});
    MMEDeviceAltSetting& alt = big.lastAlt();
    alt.numRates = 255;
    for (ULONG i = 0; i < MME_DEVICE_MAX_RATES; ++i)
        alt.rates[i] = 1000 + i;
    alt.endpoints[0] = {48000, 0x00, 0}; // what a seventeenth rate would read
    EXPECT_FALSE(found(big.get(), 48000, 24, 2, true, true));
    EXPECT_TRUE(found(big.get(), 1015, 24, 2, true, true));
    alt.numEndpoints = 255;
    big.info().configurations[0].numInterfaces = 255;
    big.lastInterface().numAltSettings = 255;
    big.info().numConfigurations = 255;
    EXPECT_TRUE(found(big.get(), 1015, 24, 2, true, true));
    EXPECT_FALSE(found(big.get(), 48000, 24, 2, true, true, MME_DEVICE_MAX_CONFIGURATIONS));

    auto ones = std::make_unique<MMEDeviceInfo>();
    std::memset(ones.get(), 0xFF, sizeof(MMEDeviceInfo));
    for (int i = 0; i < 24; ++i) {
        DeviceFormatMatch m = findDeviceFormat(ones.get(), i % 6, 48000, 0xFF, 0xFF, i & 8, i & 16);
        EXPECT_LT(m.interfaceIndex, MME_DEVICE_MAX_INTERFACES);
        EXPECT_LT(m.altSettingIndex, MME_DEVICE_MAX_ALT_SETTINGS);
        EXPECT_LT(m.configurationIndex, MME_DEVICE_MAX_CONFIGURATIONS);
    }
    // Kind 0xFF is a continuous range 0xFFFFFFFF..0xFFFFFFFF; every endpoint is IN.
    EXPECT_TRUE(found(ones.get(), 0xFFFFFFFF, 0xFF, 0xFF, false, false));
    EXPECT_FALSE(found(ones.get(), 0xFFFFFFFF, 0xFF, 0xFF, true, false));
    EXPECT_FALSE(found(ones.get(), 0xFFFFFFFF, 0xFF, 0xFF, false, true));
}

// ---- The streaming pins' ranges ----

namespace {

using Range = std::array<ULONG, 4>; // rate, bits from, bits to, channels
using Ranges = std::vector<Range>;

class PinDataRanges : public ::testing::Test {
protected:
    void describe() {
        rig = std::make_unique<LightRig>(dev.get());
        tracecap::clearTrace();
        ASSERT_EQ(rig->describe(), STATUS_SUCCESS);
    }
    // Every range names a single rate.
    Ranges ranges(ULONG pinId) {
        Ranges out;
        for (ULONG i = 0; i < rig->pin(pinId).DataRangesCount; ++i) {
            const KSDATARANGE_AUDIO& r = rig->range(pinId, i);
            EXPECT_EQ(r.MinimumSampleFrequency, r.MaximumSampleFrequency);
            out.push_back({r.MinimumSampleFrequency, r.MinimumBitsPerSample, r.MaximumBitsPerSample,
                           r.MaximumChannels});
        }
        return out;
    }
    Ranges capture() { return ranges(WAVE_PIN_CAPTURE); }
    Ranges render() { return ranges(WAVE_PIN_RENDER); }
    ULONG filled() { return rig->wave->descriptor()->FilledRatesCount; }

    DeviceInfoBuilder dev;
    std::unique_ptr<LightRig> rig;
};

} // namespace

TEST_F(PinDataRanges, RatesInTableOrderContinuousRangesAndDummyInputs) {
    dev.output(24, 4, {192000, 96000, 44100, 32000}).inputRange(16, 2, 44100, 96000);
    describe();
    // 32000 Hz is never offered; 192000 has no input mode, so the output's
    // is offered there as a dummy input.
    EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 4}, {96000, 16, 24, 4}, {192000, 16, 24, 4}}));
    EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2},
                                 {48000, 16, 24, 2},
                                 {88200, 16, 24, 2},
                                 {96000, 16, 24, 2},
                                 {192000, 16, 24, 4}}));
    EXPECT_TRUE(tracecap::containsLine("FOUND INPUT RANGE srt/bits/channels 48000 16 2"));
    EXPECT_TRUE(tracecap::containsLine("FOUND OUTPUT srt/bits/channels 192000 24 4"));
    EXPECT_EQ(tracecap::countLines("Dummy Input stream FROM DEVICE"), 1u);
    EXPECT_EQ(filled(), 5u);

    rig.reset();
    dev = DeviceInfoBuilder();
    dev.output(24, 2, {44100}).output(24, 6, {44100}).input(24, 2, {48000});
    describe();
    EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 6}}));
    EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 6}, {48000, 16, 24, 2}}));
}

TEST_F(PinDataRanges, ChannelAndResolutionRules) {
    // Odd counts and more than 32 are never offered.
    dev.input(24, 1, {48000}).input(24, 3, {48000}).input(24, 34, {48000}).output(24, 33, {48000});
    describe();
    EXPECT_TRUE(capture().empty());
    EXPECT_TRUE(render().empty());
    EXPECT_EQ(filled(), 0u);
    // Any resolution found in 16..24 is offered as 16..24; 32 bits is not searched.
    rig.reset();
    dev = DeviceInfoBuilder();
    dev.input(20, 2, {88200}).output(32, 2, {88200}).output(16, 4, {88200});
    describe();
    EXPECT_EQ(capture(), (Ranges{{88200, 16, 24, 2}}));
    EXPECT_EQ(render(), (Ranges{{88200, 16, 24, 4}}));
}

TEST_F(PinDataRanges, StereoListsNarrowTheSearch) {
    dev.ids(0x1111, 0x2222);
    dev.input(24, 8, {48000, 96000}).input(24, 2, {48000, 88200, 96000});
    dev.output(16, 2, {44100, 96000}).output(24, 2, {176400});
    const std::vector<DeviceIdPair> listed = {{0x0001, 0x0001}, {0x1111, 0x2222}};
    {
        ListGuard guard(STEREO_16BIT_DEVICES, listed);
        describe();
        EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 2}}));
        EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2}}));
    }
    {
        ListGuard guard(STEREO_24BIT_DEVICES, listed);
        describe();
        EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2}, {48000, 16, 24, 2}, {176400, 16, 24, 2}}));
        EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 2}, {176400, 16, 24, 2}}));
    }
    describe(); // not listed: the defaults
    EXPECT_EQ(capture().size(), 5u);
    EXPECT_EQ(capture()[1], (Range{48000, 16, 24, 8}));
}

TEST_F(PinDataRanges, BuiltOnceWhateverLaterCallsFind) {
    dev.input(24, 2, {48000}).output(24, 2, {48000});
    describe();
    PtGenericDescriptor* first = rig->wave->descriptor();
    std::vector<UCHAR> before(reinterpret_cast<UCHAR*>(first),
                              reinterpret_cast<UCHAR*>(first) + sizeof(PtGenericDescriptor));
    dev.input(24, 8, {48000, 96000}); // the device "changes" afterwards
    rig->wave->createDescriptor();
    ASSERT_EQ(rig->describe(), STATUS_SUCCESS);
    EXPECT_EQ(rig->wave->descriptor(), first);
    EXPECT_EQ(std::memcmp(before.data(), first, sizeof(PtGenericDescriptor)), 0);
}

TEST_F(PinDataRanges, AdditionsWidenOrTakeTheNextSlotUntilThePinIsFull) {
    describe();
    KSPIN_DESCRIPTOR* pin = &rig->pin(WAVE_PIN_CAPTURE);
    EXPECT_TRUE(addModeToDescriptor_real(pin, 4, 48000, 24));
    EXPECT_TRUE(addModeToDescriptor_real(pin, 2, 48000, 16));
    EXPECT_TRUE(addModeToDescriptor_real(pin, 6, 44100, 20));
    EXPECT_EQ(capture(), (Ranges{{48000, 16, 24, 4}, {44100, 20, 20, 6}}));
    // A slot that no longer reads as an audio range is refused.
    rig->wave->descriptor()->CaptureDataRanges[2].DataRange.FormatSize = 0;
    EXPECT_FALSE(addModeToDescriptor_real(pin, 2, 96000, 16));
    EXPECT_TRUE(tracecap::containsLine(
        "pPin->DataRanges[pPin->DataRangesCount]->FormatSize != sizeof(KSDATARANGE_AUDIO)"));
    EXPECT_EQ(pin->DataRangesCount, 2u);
    EXPECT_FALSE(addModeToDescriptor_real(nullptr, 2, 48000, 16));
    EXPECT_TRUE(tracecap::containsLine("ERROR pPin is NULL"));

    // A full pin refuses every further mode, even one that would only widen.
    pin = &rig->pin(WAVE_PIN_RENDER);
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i)
        ASSERT_TRUE(addModeToDescriptor_real(pin, 2, 1000 + i, 16));
    EXPECT_FALSE(addModeToDescriptor_real(pin, 8, 1000, 24));
    EXPECT_TRUE(tracecap::containsLine("ERROR pPin->DataRangesCount >= GEN_MAX_DATA_RANGES"));
    EXPECT_EQ(rig->range(WAVE_PIN_RENDER, 0).MaximumChannels, 2u);
    EXPECT_FALSE(addModeToDescriptor(pin, 2, 5000));
    EXPECT_EQ(pin->DataRangesCount, GEN_MAX_DATA_RANGES);
}

// ---- The descriptor record ----

namespace {

struct DescriptorDeleter {
    void operator()(PtGenericDescriptor* d) const { MMEFree(d, sizeof(PtGenericDescriptor)); }
};
using DescriptorPtr = std::unique_ptr<PtGenericDescriptor, DescriptorDeleter>;

// Field by field: the record's padding is nobody's business.
bool sameRange(const KSDATARANGE_AUDIO& a, const KSDATARANGE_AUDIO& b) {
    const KSDATARANGE &x = a.DataRange, &y = b.DataRange;
    return x.FormatSize == y.FormatSize && x.Flags == y.Flags && x.SampleSize == y.SampleSize &&
           x.Reserved == y.Reserved && IsEqualGUID(x.MajorFormat, y.MajorFormat) &&
           IsEqualGUID(x.SubFormat, y.SubFormat) && IsEqualGUID(x.Specifier, y.Specifier) &&
           a.MaximumChannels == b.MaximumChannels &&
           a.MinimumBitsPerSample == b.MinimumBitsPerSample &&
           a.MaximumBitsPerSample == b.MaximumBitsPerSample &&
           a.MinimumSampleFrequency == b.MinimumSampleFrequency &&
           a.MaximumSampleFrequency == b.MaximumSampleFrequency;
}

} // namespace

TEST(GenericDescriptor, FilterPinsNodesConnectionsAndRangeSlotsInOneBlock) {
    DescriptorPtr d(generateDefaultDescriptor());
    ASSERT_TRUE(d);
    const PCFILTER_DESCRIPTOR& f = d->Filter;
    EXPECT_EQ(static_cast<const void*>(d.get()), static_cast<const void*>(&d->Filter));
    EXPECT_EQ((std::vector<ULONG>{f.Version, f.PinSize, f.PinCount, f.NodeSize, f.NodeCount,
                                  f.ConnectionCount, f.CategoryCount, d->FilledRatesCount}),
              (std::vector<ULONG>{0, sizeof(PCPIN_DESCRIPTOR), 4, sizeof(PCNODE_DESCRIPTOR), 2, 4,
                                  0, 0}));
    EXPECT_EQ(
        (std::vector<const void*>{f.AutomationTable, f.Pins, f.Nodes, f.Connections, f.Categories}),
        (std::vector<const void*>{nullptr, d->Pins, d->Nodes, d->Connections, nullptr}));
    struct PinRow {
        ULONG instances, ranges;
        KSPIN_DATAFLOW flow;
        KSPIN_COMMUNICATION communication;
        const GUID *category, *name;
        const PKSDATARANGE* array;
    } rows[] = {
        {1, 0, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO, &KSCATEGORY_CAPTURE,
         d->CaptureDataRangePointers},
        {0, 1, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, &KSAUDFNAME_LINE_IN,
         &KSAUDFNAME_LINE_IN, d->BridgeDataRangePointers},
        {1, 0, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO, &KSCATEGORY_RENDER,
         d->RenderDataRangePointers},
        {0, 1, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, &KSNODETYPE_LINE_CONNECTOR,
         &KSNODETYPE_LINE_CONNECTOR, d->BridgeDataRangePointers},
    };
    for (ULONG id = 0; id < 4; ++id) {
        SCOPED_TRACE(id);
        const PinRow& row = rows[id];
        const PCPIN_DESCRIPTOR& p = d->Pins[id];
        const KSPIN_DESCRIPTOR& k = p.KsPinDescriptor;
        EXPECT_EQ((std::vector<ULONG>{p.MaxGlobalInstanceCount, p.MaxFilterInstanceCount,
                                      p.MinFilterInstanceCount, k.InterfacesCount, k.MediumsCount,
                                      k.DataRangesCount, ULONG(k.DataFlow), ULONG(k.Communication),
                                      ULONG(k.Reserved)}),
                  (std::vector<ULONG>{row.instances, row.instances, 0, 0, 0, row.ranges,
                                      ULONG(row.flow), ULONG(row.communication), 0}));
        EXPECT_EQ(
            (std::vector<const void*>{p.AutomationTable, k.Interfaces, k.Mediums, k.DataRanges}),
            (std::vector<const void*>{nullptr, nullptr, nullptr, row.array}));
        EXPECT_TRUE(IsEqualGUID(*k.Category, *row.category) && IsEqualGUID(*k.Name, *row.name));
    }
    EXPECT_TRUE(IsEqualGUID(*d->Nodes[WAVE_NODE_ADC].Type, KSNODETYPE_ADC) &&
                IsEqualGUID(*d->Nodes[WAVE_NODE_DAC].Type, KSNODETYPE_DAC));
    for (const PCNODE_DESCRIPTOR& n : d->Nodes)
        EXPECT_TRUE(n.Flags == 0 && !n.AutomationTable && !n.Name);
    // Capture bridge -> ADC -> capture pin, render pin -> DAC -> render bridge.
    const ULONG F = PCFILTER_NODE, I = KSNODEPIN_STANDARD_IN, O = KSNODEPIN_STANDARD_OUT;
    std::vector<std::vector<ULONG>> listed;
    for (const PCCONNECTION_DESCRIPTOR& c : d->Connections)
        listed.push_back({c.FromNode, c.FromNodePin, c.ToNode, c.ToNodePin});
    EXPECT_EQ(listed,
              (std::vector<std::vector<ULONG>>{{F, WAVE_PIN_CAPTURE_BRIDGE, WAVE_NODE_ADC, I},
                                               {WAVE_NODE_ADC, O, F, WAVE_PIN_CAPTURE},
                                               {F, WAVE_PIN_RENDER, WAVE_NODE_DAC, I},
                                               {WAVE_NODE_DAC, O, F, WAVE_PIN_RENDER_BRIDGE}}));

    // The range slots point into the same block.
    const KSDATARANGE_AUDIO fresh = clientRange(2, 32, 32, 44100, 44100);
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(d->CaptureDataRangePointers[i], &d->CaptureDataRanges[i].DataRange);
        EXPECT_EQ(d->RenderDataRangePointers[i], &d->RenderDataRanges[i].DataRange);
        EXPECT_TRUE(sameRange(d->CaptureDataRanges[i], fresh));
        EXPECT_TRUE(sameRange(d->RenderDataRanges[i], fresh));
    }
    // Both bridge pins point at the same one-entry array and its analog range.
    EXPECT_EQ(d->Pins[1].KsPinDescriptor.DataRanges, d->Pins[3].KsPinDescriptor.DataRanges);
    EXPECT_EQ(d->BridgeDataRangePointers[0], &d->BridgeDataRange);
    const KSDATARANGE& bridge = d->BridgeDataRange;
    EXPECT_EQ(bridge.FormatSize, sizeof(KSDATARANGE));
    EXPECT_TRUE(IsEqualGUID(bridge.MajorFormat, KSDATAFORMAT_TYPE_AUDIO) &&
                IsEqualGUID(bridge.SubFormat, KSDATAFORMAT_SUBTYPE_ANALOG) &&
                IsEqualGUID(bridge.Specifier, KSDATAFORMAT_SPECIFIER_NONE));
    // Every pointer but the GUIDs leads into the one block: it goes as one.
    EXPECT_EQ(hostk::poolStats().liveBlocks, 1u);

    KSDATARANGE_AUDIO r;
    std::memset(&r, 0xCC, sizeof(r));
    initAudioDataRange(&r, 6, 24, 96000);
    EXPECT_TRUE(sameRange(r, clientRange(6, 24, 24, 96000, 96000)));
}

TEST(WavePinLookups, StreamingPinsFoundOnlyWithRangesInARecordTheMiniportOwns) {
    LightRig rig; // no device-info record: the streaming pins stay empty
    EXPECT_EQ(rig.wave->getPinDescriptor(0), nullptr);
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(true), nullptr); // no descriptor yet
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(false), nullptr);
    const size_t before = hostk::poolStats().liveBlocks;
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    EXPECT_EQ(hostk::poolStats().liveBlocks, before + 1);
    size_t size = 0;
    ASSERT_TRUE(hostk::poolBlockInfo(rig.wave->descriptor(), nullptr, &size));
    EXPECT_EQ(size, sizeof(PtGenericDescriptor));

    auto pin = [&](ULONG id) { return rig.wave->getPinDescriptor(id); };
    EXPECT_EQ((std::vector<PKSPIN_DESCRIPTOR>{
                  pin(WAVE_PIN_CAPTURE), pin(WAVE_PIN_RENDER), pin(WAVE_PIN_CAPTURE_BRIDGE),
                  pin(WAVE_PIN_RENDER_BRIDGE), pin(4), pin(0xFFFFFFFF)}),
              (std::vector<PKSPIN_DESCRIPTOR>{nullptr, nullptr, &rig.pin(WAVE_PIN_CAPTURE_BRIDGE),
                                              &rig.pin(WAVE_PIN_RENDER_BRIDGE), nullptr, nullptr}));
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(true), &rig.pin(WAVE_PIN_CAPTURE));
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(false), &rig.pin(WAVE_PIN_RENDER));
    ASSERT_TRUE(addModeToDescriptor(&rig.pin(WAVE_PIN_CAPTURE), 2, 48000));
    EXPECT_EQ(pin(WAVE_PIN_CAPTURE), &rig.pin(WAVE_PIN_CAPTURE));
    EXPECT_EQ(pin(WAVE_PIN_RENDER), nullptr);
}

// ---- Format validation ----

namespace {

constexpr ULONG kUntouched = 0xEEEEEEEE, kNoLength = 0xDEADBEEF;

// Capture pin: 48000 Hz, 16..24 bits, 8 channels; render pin: the same, 2 channels.
class Validation : public PinDataRanges {
protected:
    void SetUp() override {
        dev.input(24, 8, {48000}).output(16, 2, {48000});
        describe();
    }
    NTSTATUS validateBytes(const std::vector<UCHAR>& format, bool capture = true,
                           ULONG size = ~0u) {
        std::memset(&result, 0xEE, sizeof(result));
        tracecap::clearTrace();
        return rig->wave->doValidateFormat(reinterpret_cast<const KSDATAFORMAT*>(format.data()),
                                           size == ~0u ? ULONG(format.size()) : size, capture,
                                           &result);
    }
    NTSTATUS validate(const FormatDesc& desc, bool capture = true) {
        return validateBytes(makeFormat(desc), capture);
    }
    bool resultIsZero() const {
        const UCHAR* p = reinterpret_cast<const UCHAR*>(&result);
        return std::all_of(p, p + sizeof(result), [](UCHAR b) { return b == 0; });
    }

    KSDATARANGE_AUDIO result;
};

} // namespace

// Channel counts one below, at and one above each pin's maximum, lower even
// counts with either alignment, and every refused resolution and rate. A
// refusal (no range handed back) leaves the result range zeroed.
TEST_F(Validation, ChannelsResolutionsAndAlignments) {
    const bool C = true, R = false; // capture pin (8 channels), render pin (2)
    struct Case {
        USHORT channels, bits, align;
        ULONG rate;
        bool capture;
        ULONG handedBack; // the range's channel count; 0: refused
        const char* line;
    } cases[] = {
        {8, 24, 24, 48000, C, 8, "chan/bits/freq valid 8 24 48000"},
        {2, 16, 4, 48000, R, 2, nullptr},
        {2, 16, 4, 48000, C, 8, "Accept lower channel format ch/bits/align 2 16 4"},
        {2, 16, 16, 48000, C, 8, "pinSupportsSettingEx returned true (less channels)"},
        {6, 24, 18, 48000, C, 8, "Accept lower channel format ch/bits/align 6 24 18"},
        {7, 24, 21, 48000, C, 0, nullptr},
        {9, 24, 27, 48000, C, 0, nullptr},
        {10, 24, 30, 48000, C, 0, nullptr},
        {4, 16, 8, 48000, R, 0, nullptr},
        {2, 16, 8, 48000, C, 0, "nExpectedBlockAlign != pFormat->nBlockAlign 16 8"},
        {8, 24, 16, 48000, C, 0, nullptr},
        {3, 16, 6, 48000, C, 0, nullptr},
        {0, 16, 0, 48000, C, 0, nullptr},
        {2, 16, 4, 44100, C, 0, nullptr},
        {2, 32, 8, 48000, C, 0, nullptr},
        {8, 8, 8, 48000, C, 0, nullptr},
        {8, 20, 20, 48000, C, 0, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.channels << " ch " << c.bits << " bits align " << c.align << " at "
                     << c.rate << (c.capture ? " in" : " out"));
        EXPECT_EQ(validate({c.rate, c.channels, c.bits, c.align}, c.capture),
                  c.handedBack ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED);
        if (c.handedBack) {
            EXPECT_EQ(result.MaximumChannels, c.handedBack);
        } else {
            EXPECT_TRUE(resultIsZero());
            EXPECT_TRUE(
                tracecap::containsLine("pinSupportsSettingEx returned false (less channels)"));
        }
        if (c.line) {
            EXPECT_TRUE(tracecap::containsLine(c.line)) << tracecap::dumpTrace();
        }
    }
    EXPECT_EQ(validate({48000, 2, 16, 16}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("Accept lower channel format ch/bits/align 2 16 16"));
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("pinSupportsSettingEx returned false"));
    EXPECT_EQ(std::memcmp(&result, &rig->range(WAVE_PIN_CAPTURE, 0), sizeof(result)), 0);
}

TEST_F(Validation, TwentyBitsNeverPassEvenInsideTheRange) {
    for (USHORT align : {0, 20, 24, 5}) {
        std::vector<UCHAR> f = makeFormat({48000, 8, 20});
        reinterpret_cast<KSDATAFORMAT_WAVEFORMATEX*>(f.data())->WaveFormatEx.nBlockAlign = align;
        EXPECT_EQ(validateBytes(f), STATUS_NOT_SUPPORTED) << align;
        checks::expectLines({"pFormat->wBitsPerSample invalid 20",
                             "DataRange chan/minbits/maxbits/freq exists 8 16 24 48000"});
    }
}

TEST_F(Validation, DigitalLockRefusesOtherRatesFirstAndTheHeaderComesLast) {
    rig->settings.mDigitalLockFrequency = 44100;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_NOT_SUPPORTED);
    checks::expectLines({"allow digital lock frequency only 44100",
                         "samplerate mismach requested/digital 48000 44100"});
    EXPECT_FALSE(tracecap::containsLineStartingWith("CHECK RANGE"));
    EXPECT_EQ(result.MaximumChannels, kUntouched);
    rig->settings.mDigitalLockFrequency = 48000;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);

    // The header is checked after the ranges.
    FormatDesc shortHeader{48000, 8, 24, 24}, noSpecifier = shortHeader, notAudio = shortHeader;
    shortHeader.formatSize = 81;
    shortHeader.bufferSize = 82;
    noSpecifier.specifier = &KSDATAFORMAT_SPECIFIER_NONE;
    notAudio.major = &KSDATAFORMAT_SUBTYPE_PCM;
    for (const FormatDesc& desc : {shortHeader, noSpecifier, notAudio}) {
        EXPECT_EQ(validate(desc), STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("....invalid paramter bits/channels/rate 24 8 48000"));
        EXPECT_EQ(result.MaximumChannels, 8u); // the accepted range stays
    }
}

TEST_F(Validation, ShortMissingOrUndescribedFormatsRefusedUnread) {
    // Buffers that end inside the KSDATAFORMAT header.
    for (ULONG size : {0u, 1u, 64u, 81u}) {
        std::vector<UCHAR> exact = makeFormat({48000, 8, 24, 24});
        exact.resize(std::max(size, 1u));
        EXPECT_EQ(validateBytes(exact, true, size), STATUS_NOT_SUPPORTED) << size;
        EXPECT_FALSE(tracecap::containsLineStartingWith("...CH/Bits/Freq"));
        EXPECT_EQ(result.MaximumChannels, kUntouched);
    }
    EXPECT_EQ(rig->wave->doValidateFormat(nullptr, 82, true, &result), STATUS_NOT_SUPPORTED);
    checks::expectAssert("Format", "MMEWave");

    LightRig bare(dev.get()); // never asked for its description
    std::vector<UCHAR> format = makeFormat({48000, 8, 24, 24});
    EXPECT_EQ(bare.wave->doValidateFormat(reinterpret_cast<KSDATAFORMAT*>(format.data()),
                                          format.size(), true, nullptr),
              STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("!pPinDesc"));
}

// ---- Intersection ----

namespace {

struct Answer {
    NTSTATUS status;
    ULONG length = kNoLength;
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE format;
};

Answer intersect(MMEWave* wave, ULONG pin, const void* client, const void* mine,
                 ULONG bufferLength = sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE),
                 bool withBuffer = true) {
    Answer a;
    std::memset(&a.format, 0xCD, sizeof(a.format));
    tracecap::clearTrace();
    a.status =
        wave->DataRangeIntersection(pin, static_cast<PKSDATARANGE>(const_cast<void*>(client)),
                                    static_cast<PKSDATARANGE>(const_cast<void*>(mine)),
                                    bufferLength, withBuffer ? &a.format : nullptr, &a.length);
    return a;
}

// Capture pin: 48000 Hz 6 channels, 44100 Hz 2 channels; render pin: 48000 Hz 2 channels.
class Intersection : public PinDataRanges {
protected:
    void SetUp() override {
        dev.input(24, 6, {48000}).input(16, 2, {44100}).output(24, 2, {48000});
        describe();
    }
    KSDATARANGE_AUDIO client = clientRange(8, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO pin48k = clientRange(6, 16, 24, 48000, 48000);
};

} // namespace

// The answer is always WAVEFORMATEXTENSIBLE at the pin's rate and the
// range's largest channel count and resolution; the mask has a bit per channel.
TEST_F(Intersection, ExtensibleAnswerAndChannelMasks) {
    struct {
        ULONG channels, bits, mask;
    } cases[] = {{6, 24, 0x3F},        {2, 16, 0x3},         {8, 16, 0xFF},
                 {31, 16, 0x7FFFFFFF}, {32, 16, 0xFFFFFFFF}, {40, 16, 0xFFFFFFFF}};
    KSDATARANGE_AUDIO wide = clientRange(64, 8, 32, 8000, 192000);
    for (auto c : cases) {
        SCOPED_TRACE(c.channels);
        KSDATARANGE_AUDIO mine = clientRange(c.channels, 16, c.bits, 48000, 48000);
        Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &wide, &mine);
        ASSERT_EQ(a.status, STATUS_SUCCESS);
        EXPECT_EQ(a.length, 104u);
        const KSDATAFORMAT& h = a.format.DataFormat;
        EXPECT_EQ((std::vector<ULONG>{h.FormatSize, h.Flags, h.SampleSize, h.Reserved}),
                  (std::vector<ULONG>{104, 0, 0, 0}));
        EXPECT_TRUE(IsEqualGUID(h.SubFormat, KSDATAFORMAT_SUBTYPE_PCM) &&
                    IsEqualGUID(h.Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX));
        const WAVEFORMATEXTENSIBLE& w = a.format.WaveFormatExt;
        const ULONG align = c.channels * c.bits / 8;
        EXPECT_EQ((std::vector<ULONG>{
                      w.Format.wFormatTag, w.Format.nChannels, w.Format.nSamplesPerSec,
                      w.Format.nBlockAlign, w.Format.nAvgBytesPerSec, w.Format.wBitsPerSample,
                      w.Format.cbSize, w.Samples.wValidBitsPerSample, w.dwChannelMask}),
                  (std::vector<ULONG>{WAVE_FORMAT_EXTENSIBLE, c.channels, 48000, align,
                                      align * 48000, c.bits, 22, c.bits, c.mask}));
        GUID sub = w.SubFormat;
        EXPECT_TRUE(IsEqualGUID(sub, KSDATAFORMAT_SUBTYPE_PCM));
    }
    intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k);
    checks::expectLines({"...cDataRangeIntersection ch-max:6 bits-min:16 bits-max:24 "
                         "freq-min:48000 freq-max:48000",
                         "datarangeintersection STATUS_SUCCESS"});
}

// Refusals in the order they are checked. Those before the size answer write
// no length; those after it have given 104 and leave the buffer alone.
TEST_F(Intersection, RefusalsInTheirOrder) {
    KSDATARANGE_AUDIO notPcm = client, notAudio = client, wrongSize = client;
    notPcm.DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG;
    notAudio.DataRange.MajorFormat = KSDATAFORMAT_SUBTYPE_PCM;
    wrongSize.DataRange.FormatSize = sizeof(KSDATARANGE);
    KSDATARANGE_AUDIO mono = clientRange(1, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO bits32 = clientRange(8, 32, 32, 8000, 192000);
    KSDATARANGE_AUDIO above = clientRange(8, 8, 32, 96000, 192000);
    const std::string m = "MMEWave::DataRangeIntersection ";
    struct Case {
        const KSDATARANGE_AUDIO* clientRange;
        const void* myRange;
        ULONG pin;
        NTSTATUS status;
        std::string line;
        ULONG length;
    } cases[] = {
        {nullptr, &pin48k, 0, STATUS_INVALID_PARAMETER, m + "!pClientDataRange", kNoLength},
        {&wrongSize, &pin48k, 0, STATUS_NO_MATCH,
         m + "pClientDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)", kNoLength},
        {&notAudio, &pin48k, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pClientDataRange->MajorFormat, KSDATAFORMAT_TYPE_AUDIO )",
         kNoLength},
        {&notPcm, &pin48k, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pClientDataRange->SubFormat, KSDATAFORMAT_SUBTYPE_PCM )",
         kNoLength},
        {&client, nullptr, 0, STATUS_INVALID_PARAMETER, m + "!pMyDataRange", kNoLength},
        {&client, &notPcm, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pMyDataRange->SubFormat, KSDATAFORMAT_SUBTYPE_PCM )", kNoLength},
        {&client, &notAudio, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pMyDataRange->MajorFormat, KSDATAFORMAT_TYPE_AUDIO )", kNoLength},
        // The bridge pins' analog range ends at the pin's range.
        {&client, &rig->wave->descriptor()->BridgeDataRange, WAVE_PIN_CAPTURE_BRIDGE,
         STATUS_NO_MATCH, m + "pMyDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)", kNoLength},
        {&client, &pin48k, 4, STATUS_NO_MATCH, m + "!pPinDescriptor", kNoLength},
        {&client, &pin48k, 0xFFFFFFFF, STATUS_NO_MATCH, m + "!pPinDescriptor", kNoLength},
        {&mono, &pin48k, 0, STATUS_NO_MATCH, "...cDataRangeIntersection.MaximumChannels < 2", 104},
        {&bits32, &pin48k, 0, STATUS_NO_MATCH,
         "...cDataRangeIntersection.MinimumBitsPerSample > "
         "cDataRangeIntersection.MaximumBitsPerSample",
         104},
        {&above, &pin48k, 0, STATUS_NO_MATCH,
         "...cDataRangeIntersection.MinimumSampleFrequency > "
         "cDataRangeIntersection.MaximumSampleFrequency",
         104},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Answer a = intersect(rig->wave, c.pin, c.clientRange, c.myRange);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.length, c.length);
        EXPECT_EQ(a.format.DataFormat.FormatSize, 0xCDCDCDCDu);
        if (c.length == kNoLength) {
            EXPECT_EQ(tracecap::traceMessages(), std::vector<std::string>{c.line});
        } else {
            EXPECT_TRUE(tracecap::containsLine(c.line));
        }
    }
    EXPECT_EQ(rig->wave->DataRangeIntersection(0, &client.DataRange, &pin48k.DataRange, 104,
                                               nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatLength"));
}

TEST_F(Intersection, BufferLengthProtocolAndDigitalLock) {
    struct {
        ULONG length;
        bool buffer;
        NTSTATUS status;
    } cases[] = {{0, true, STATUS_BUFFER_OVERFLOW},
                 {103, true, STATUS_BUFFER_TOO_SMALL},
                 {104, true, STATUS_SUCCESS},
                 {105, true, STATUS_SUCCESS},
                 {104, false, STATUS_INVALID_PARAMETER}};
    for (auto c : cases) {
        Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, c.length, c.buffer);
        EXPECT_EQ(a.status, c.status) << c.length;
        EXPECT_EQ(a.length, 104u);
        EXPECT_EQ(a.format.DataFormat.FormatSize == 104u, c.status == STATUS_SUCCESS);
    }
    intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 0);
    EXPECT_TRUE(tracecap::containsLine("...!OutputBufferLength"));
    intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 104, false);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatPtr"));
    // A size query can succeed for ranges that then do not intersect.
    KSDATARANGE_AUDIO mono = clientRange(1, 16, 24, 48000, 48000);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono, 0).status,
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono).status, STATUS_NO_MATCH);

    // A digital lock binds the rate.
    rig->settings.mDigitalLockFrequency = 44100;
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k).status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine(
        "...cDataRangeIntersection.MinimumSampleFrequency != uHWDigitalLockedFrequency"));
    KSDATARANGE_AUDIO pin44k = clientRange(2, 16, 16, 44100, 44100);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin44k).status, STATUS_SUCCESS);
}

// Capture side and the rate binding: e2e Directions.IntersectionOffersOnlyTheRateOfAnOpenStream.
TEST(IntersectionWithStreams, AnOpenRenderStreamClosesItsPinUntilClosed) {
    wavetest::StackRig stack; // 8 in / 8 out, hardware at 48000 Hz
    KSDATARANGE_AUDIO client = clientRange(8, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO at44 = clientRange(8, 16, 24, 44100, 44100);
    KSDATARANGE_AUDIO at48 = clientRange(8, 16, 24, 48000, 48000);
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
    wavetest::OpenedStream render = stack.open(false, format);
    ASSERT_EQ(render.status, STATUS_SUCCESS);
    Answer a = intersect(stack.wave, WAVE_PIN_RENDER, &client, &at48);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_EQ(a.length, kNoLength);
    EXPECT_TRUE(tracecap::containsLine(
        "MMEWave::DataRangeIntersection ERROR: render stream already allocated"));
    wavetest::closeStream(render);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_RENDER, &client, &at44).status, STATUS_SUCCESS);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_CAPTURE, &client, &at44).status, STATUS_SUCCESS);
}

// No device-info record: empty streaming pins after the fallback's lines,
// and no format passes; no adapter: nothing is described or intersected.
TEST(WaveFilterWithout, DeviceInfoOrAdapter) {
    LightRig rig(nullptr);
    tracecap::clearTrace();
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    EXPECT_EQ(rig.pin(WAVE_PIN_CAPTURE).DataRangesCount + rig.pin(WAVE_PIN_RENDER).DataRangesCount,
              0u);
    EXPECT_EQ(rig.wave->descriptor()->FilledRatesCount, 0u);
    EXPECT_TRUE(tracecap::containsLine("pAPI_DI is NULL"));
    // The fallback asks for 44100 Hz, 2 channels, 16 bits after its line.
    long fallback = tracecap::findLine("No Inputs or Outputs for system sound found.");
    ASSERT_GE(fallback, 0);
    EXPECT_GE(tracecap::findLine("uSampleRate is  44100", fallback), fallback);
    EXPECT_GE(tracecap::findLine("nMinBits/nMaxBits 16 16", fallback), fallback);
    KSDATARANGE_AUDIO r = clientRange(2, 16, 16, 48000, 48000);
    EXPECT_EQ(intersect(rig.wave, WAVE_PIN_RENDER, &r, &r).status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine("MMEWave::DataRangeIntersection !pPinDescriptor"));
    WAVEFORMATEX wfx{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
    EXPECT_FALSE(pinSupportsSetting(&rig.pin(WAVE_PIN_CAPTURE), &wfx, true, nullptr));
    KSPIN_DESCRIPTOR pin{};
    EXPECT_FALSE(pinSupportsSetting(&pin, &wfx, true, nullptr)); // no ranges at all
    tracecap::clearTrace();
    EXPECT_FALSE(pinSupportsSetting(nullptr, &wfx, true, nullptr));
    EXPECT_FALSE(pinSupportsSetting(&pin, nullptr, true, nullptr));
    checks::expectLines({"ERROR pPin is NULL", "ERROR pFormat is NULL"});

    LightRig unbound(nullptr, /*init=*/false);
    tracecap::clearTrace();
    EXPECT_EQ(unbound.describe(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(unbound.wave->descriptor(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter is NULL"));
    Answer a = intersect(unbound.wave, 0, &r, &r);
    EXPECT_EQ(a.status, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(a.length, kNoLength);
    EXPECT_TRUE(tracecap::containsLine("!mMMEAdapter"));
}
