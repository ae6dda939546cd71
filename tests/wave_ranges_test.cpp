// From the USB driver's device-info record to the wave filter's pins: which
// alternate settings count as a mode (findDeviceFormat and the device lists
// that change its direction rule), the streaming pins' ranges built from
// them at the first GetDescription, and the descriptor record that holds them.
#include "driver/wave/DeviceFormat.h"
#include "driver/wave/DeviceLists.h"
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

using hostpc::clientRange;
using wavetest::DeviceInfoBuilder;
using wavetest::LightRig;
using wavetest::ListGuard;

namespace {

bool found(const MMEDeviceInfo* info, ULONG rate, UCHAR bits, UCHAR channels, bool discreteOnly,
           bool output, ULONG configuration = 0) {
    return findDeviceFormat(info, configuration, rate, bits, channels, discreteOnly, output).bFound;
}

} // namespace

TEST(DeviceLists, MatchVendorAndProductOnlyAndStartEmpty) {
    DeviceIdentity id;
    id.set(0x1234, 0x5678, 0x9ABC);
    EXPECT_TRUE(id.matches(0x1234, 0x5678));
    EXPECT_FALSE(id.matches(0x1234, 0x5679));
    EXPECT_FALSE(id.matches(0x1235, 0x5678));
    EXPECT_EQ(id.thirdWord, 0x9ABC);
    const DeviceIdPair pairs[] = {{0x1111, 0x2222}, {0x1234, 0x5678}};
    EXPECT_FALSE((DeviceList{nullptr, 0}).contains(id));
    EXPECT_TRUE((DeviceList{pairs, 2}).contains(id));
    EXPECT_FALSE((DeviceList{pairs, 1}).contains(id));
    for (const DeviceList* list : {&STEREO_16BIT_DEVICES, &STEREO_24BIT_DEVICES,
                                   &DIRECTION_BY_INTERFACE_DEVICES, &INPUT_INTERFACE_ONLY_DEVICES})
        EXPECT_EQ(list->count, 0u);
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

TEST(FindDeviceFormat, DirectionComesFromTheAddressOfAUsableEndpoint) {
    DeviceInfoBuilder dev;
    dev.input(24, 2, {48000});
    MMEDeviceAltSetting& alt = dev.lastAlt();
    auto in = [&] { return found(dev.get(), 48000, 24, 2, true, false); };
    auto out = [&] { return found(dev.get(), 48000, 24, 2, true, true); };
    EXPECT_TRUE(in());
    EXPECT_FALSE(out());
    // Endpoints below four bytes are unusable; a later usable one counts.
    alt.endpoints[0].maxPacketSize = 3;
    EXPECT_FALSE(in());
    alt.endpoints[0].maxPacketSize = 4;
    EXPECT_TRUE(in());
    alt.endpoints[0].maxPacketSize = 0;
    alt.numEndpoints = 2;
    alt.endpoints[1] = {256, 0x83, 0};
    EXPECT_TRUE(in());
    // The interface's direction byte does not count for ordinary devices.
    dev.lastInterface().direction = MME_DIRECTION_OUTPUT;
    EXPECT_TRUE(in());
    alt.endpoints[1].address = 0x02;
    EXPECT_TRUE(out());
    EXPECT_FALSE(in());
    alt.numEndpoints = 0;
    EXPECT_FALSE(out());
}

TEST(FindDeviceFormat, DeviceListsChangeTheDirectionRule) {
    DeviceInfoBuilder dev;
    dev.ids(0x0A0A, 0x0B0B).output(24, 2, {48000});
    MMEDeviceAltSetting& alt = dev.lastAlt();
    alt.numEndpoints = 2;
    alt.endpoints[1] = {64, 0x81, 0}; // an IN endpoint on the output interface
    auto in = [&] { return found(dev.get(), 48000, 24, 2, true, false); };
    auto out = [&] { return found(dev.get(), 48000, 24, 2, true, true); };
    EXPECT_TRUE(in()); // not listed: the endpoint rule
    {
        ListGuard inputOnly(INPUT_INTERFACE_ONLY_DEVICES, {{0x0A0A, 0x0B0B}});
        EXPECT_FALSE(in());
        EXPECT_TRUE(out()); // output unaffected
        dev.lastInterface().direction = MME_DIRECTION_INPUT;
        EXPECT_TRUE(in());
        // Direction by interface wins over input-interface-only; endpoint
        // addresses and sizes do not count, the flag and their number do.
        alt.endpoints[1] = {0, 0x01, 0};
        alt.numEndpoints = 1;
        alt.endpoints[0] = {0, 0x01, 0};
        EXPECT_FALSE(in());
        ListGuard byInterface(DIRECTION_BY_INTERFACE_DEVICES, {{0x0A0A, 0x0B0B}});
        EXPECT_TRUE(in());
        EXPECT_FALSE(out());
        alt.flag = 0;
        EXPECT_FALSE(in());
        alt.flag = 1;
        alt.numEndpoints = 0;
        EXPECT_FALSE(in());
        alt.numEndpoints = 1;
        dev.lastInterface().direction = MME_DIRECTION_OUTPUT;
        EXPECT_TRUE(out());
        EXPECT_FALSE(in());
    }
    EXPECT_EQ(INPUT_INTERFACE_ONLY_DEVICES.count + DIRECTION_BY_INTERFACE_DEVICES.count, 0u);
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

struct Range {
    ULONG rate, minBits, maxBits, maxChannels;
    bool operator==(const Range& o) const {
        return rate == o.rate && minBits == o.minBits && maxBits == o.maxBits &&
               maxChannels == o.maxChannels;
    }
};
using Ranges = std::vector<Range>;

std::ostream& operator<<(std::ostream& os, const Range& r) {
    return os << r.rate << " Hz " << r.minBits << ".." << r.maxBits << " bits " << r.maxChannels
              << " ch";
}

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

TEST(SampleRateTable, IndexesZeroToSix) {
    std::vector<ULONG> rates;
    for (ULONG i : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0xFFFFFFFFu})
        rates.push_back(sampleRateFromIndex(i));
    EXPECT_EQ(rates, (std::vector<ULONG>{32000, 44100, 48000, 88200, 96000, 176400, 192000, 0, 0}));
}

TEST_F(PinDataRanges, OneRangePerRateWithLargestChannelCount) {
    dev.input(24, 2, {48000}).input(24, 8, {48000}).output(16, 2, {48000});
    describe();
    EXPECT_EQ(capture(), (Ranges{{48000, 16, 24, 8}}));
    EXPECT_EQ(render(), (Ranges{{48000, 16, 24, 2}}));
    EXPECT_EQ(filled(), 1u);
    EXPECT_TRUE(IsEqualGUID(rig->range(WAVE_PIN_CAPTURE, 0).DataRange.Specifier,
                            KSDATAFORMAT_SPECIFIER_WAVEFORMATEX));
}

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

TEST(PinDataRangesWithout, DeviceInfoOrAdapter) {
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

    LightRig unbound(nullptr, /*init=*/false);
    tracecap::clearTrace();
    EXPECT_EQ(unbound.describe(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(unbound.wave->descriptor(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter is NULL"));
}

// ---- The descriptor record ----

namespace {

struct DescriptorDeleter {
    void operator()(PtGenericDescriptor* d) const { MMEFree(d, sizeof(PtGenericDescriptor)); }
};
using DescriptorPtr = std::unique_ptr<PtGenericDescriptor, DescriptorDeleter>;

bool inside(const PtGenericDescriptor* d, const void* p) {
    auto begin = reinterpret_cast<const UCHAR*>(d);
    auto at = reinterpret_cast<const UCHAR*>(p);
    return at >= begin && at < begin + sizeof(PtGenericDescriptor);
}

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

TEST(GenericDescriptor, FilterPinsNodesAndConnectionsAsLaidOut) {
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
        EXPECT_TRUE(IsEqualGUID(*k.Category, *row.category));
        EXPECT_TRUE(IsEqualGUID(*k.Name, *row.name));
    }
    EXPECT_TRUE(IsEqualGUID(*d->Nodes[WAVE_NODE_ADC].Type, KSNODETYPE_ADC));
    EXPECT_TRUE(IsEqualGUID(*d->Nodes[WAVE_NODE_DAC].Type, KSNODETYPE_DAC));
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
}

TEST(GenericDescriptor, RangeSlotsAndPointersStayInsideTheBlock) {
    DescriptorPtr d(generateDefaultDescriptor());
    ASSERT_TRUE(d);
    const KSDATARANGE_AUDIO fresh = clientRange(2, 32, 32, 44100, 44100);
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(d->CaptureDataRangePointers[i], &d->CaptureDataRanges[i].DataRange);
        EXPECT_EQ(d->RenderDataRangePointers[i], &d->RenderDataRanges[i].DataRange);
        EXPECT_TRUE(sameRange(d->CaptureDataRanges[i], fresh));
        EXPECT_TRUE(sameRange(d->RenderDataRanges[i], fresh));
        EXPECT_TRUE(inside(d.get(), d->CaptureDataRangePointers[i]) &&
                    inside(d.get(), d->RenderDataRangePointers[i]));
    }
    // Both bridge pins point at the same one-entry array and its analog range.
    EXPECT_EQ(d->Pins[1].KsPinDescriptor.DataRanges, d->Pins[3].KsPinDescriptor.DataRanges);
    EXPECT_EQ(d->BridgeDataRangePointers[0], &d->BridgeDataRange);
    EXPECT_EQ(d->BridgeDataRange.FormatSize, sizeof(KSDATARANGE));
    EXPECT_TRUE(IsEqualGUID(d->BridgeDataRange.MajorFormat, KSDATAFORMAT_TYPE_AUDIO));
    EXPECT_TRUE(IsEqualGUID(d->BridgeDataRange.SubFormat, KSDATAFORMAT_SUBTYPE_ANALOG));
    EXPECT_TRUE(IsEqualGUID(d->BridgeDataRange.Specifier, KSDATAFORMAT_SPECIFIER_NONE));
    // Every pointer but the GUIDs leads into the block: it can go as one.
    const PCFILTER_DESCRIPTOR& f = d->Filter;
    EXPECT_TRUE(inside(d.get(), f.Pins) && inside(d.get(), f.Nodes) &&
                inside(d.get(), f.Connections));
    for (const PCPIN_DESCRIPTOR& p : d->Pins)
        EXPECT_TRUE(inside(d.get(), p.KsPinDescriptor.DataRanges));
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
