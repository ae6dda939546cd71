// The wave filter's descriptor record: its fixed layout (pins, nodes and
// connections as drawn in PtGenericDescriptor.cpp), the empty range slots,
// the self-contained block, and the two pin lookups of the wave miniport.
#include "driver/wave/MMEWave.h"
#include "host/kernel/HostKernel.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

using hostpc::clientRange;
using wavetest::DeviceInfoBuilder;
using wavetest::LightRig;

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
    for (const PCNODE_DESCRIPTOR& n : d->Nodes) {
        EXPECT_EQ(n.Flags, 0u);
        EXPECT_EQ(n.AutomationTable, nullptr);
        EXPECT_EQ(n.Name, nullptr);
    }

    // The two paths of the drawing, in this order: capture bridge -> ADC ->
    // capture pin, render pin -> DAC -> render bridge; nodes are entered at
    // their input and left at their output.
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
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i)
        EXPECT_TRUE(inside(d.get(), d->CaptureDataRangePointers[i]) &&
                    inside(d.get(), d->RenderDataRangePointers[i]));
    EXPECT_EQ(hostk::poolStats().liveBlocks, 1u);
}

TEST(GenericDescriptor, SizeTracedAndAllocationFailureGivesNone) {
    tracecap::clearTrace();
    hostk::failAllocation(1);
    EXPECT_EQ(generateDefaultDescriptor(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("sizeof(PtGenericDescriptor) is " +
                                       std::to_string(sizeof(PtGenericDescriptor))));
    EXPECT_TRUE(tracecap::containsLine("+ generateDefaultDescriptor 0x00000000"));
    EXPECT_TRUE(tracecap::containsLine("- generateDefaultDescriptor"));
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);
}

TEST(GenericDescriptor, InitAudioDataRangeFillsEveryField) {
    KSDATARANGE_AUDIO r;
    std::memset(&r, 0xCC, sizeof(r));
    initAudioDataRange(&r, 6, 24, 96000);
    EXPECT_TRUE(sameRange(r, clientRange(6, 24, 24, 96000, 96000)));
}

TEST(WavePinLookups, StreamingPinsFoundOnlyWithRanges) {
    LightRig rig; // no device-info record: the streaming pins stay empty
    EXPECT_EQ(rig.wave->getPinDescriptor(0), nullptr);
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(true), nullptr); // no descriptor yet
    EXPECT_EQ(rig.wave->getStreamPinDescriptor(false), nullptr);

    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
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

// The record is allocated with its full size and given back by the
// miniport's destructor (a leak would fail the test's clean check).
TEST(WavePinLookups, MiniportOwnsTheRecord) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {48000});
    auto rig = std::make_unique<LightRig>(dev.get());
    const size_t before = hostk::poolStats().liveBlocks;
    ASSERT_EQ(rig->describe(), STATUS_SUCCESS);
    EXPECT_EQ(hostk::poolStats().liveBlocks, before + 1);
    ULONG tag = 0;
    size_t size = 0;
    ASSERT_TRUE(hostk::poolBlockInfo(rig->wave->descriptor(), &tag, &size));
    EXPECT_EQ(size, sizeof(PtGenericDescriptor));
    rig.reset();
    EXPECT_EQ(hostk::poolStats().liveBlocks, 0u);
}
