// The topology miniport: its constant filter, interface query, Init and
// destruction, and the mute, level and sample-rate property handlers.
#include "driver/topology/MMETopology.h"
#include "driver/topology/TopologyFilter.h"
#include "support/AdapterHarness.h"
#include "support/ObjectChecks.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

using checks::refs;

namespace {

// A topology port stand-in whose IPortEvents can be switched off.
class FakeTopologyPort : public wavetest::PortSlotsNotImplemented<IPortTopology>,
                         public IPortEvents {
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* object) override {
        ++queries;
        *object = nullptr;
        if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IPortTopology))
            *object = static_cast<IPortTopology*>(this);
        else if (withEvents && IsEqualGUID(riid, IID_IPortEvents))
            *object = static_cast<IPortEvents*>(this);
        else
            return STATUS_INVALID_PARAMETER;
        ++refs;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    STDMETHODIMP_(void) AddEventToEventList(PKSEVENT_ENTRY) override {}
    STDMETHODIMP_(void) GenerateEventList(GUID*, ULONG, BOOL, ULONG, BOOL, ULONG) override {}

    bool withEvents = true;
    LONG refs = 1;
    int queries = 0;
};

class Topology : public ::testing::Test {
protected:
    Topology() { topo->AddRef(); }
    ~Topology() override {
        if (topo)
            topo->Release();
    }
    const PCFILTER_DESCRIPTOR& describe() {
        PPCFILTER_DESCRIPTOR d = nullptr;
        EXPECT_EQ(topo->GetDescription(&d), STATUS_SUCCESS);
        return *d;
    }

    adaptertest::BareAdapter bare;
    MMEAdapter* adapter = bare.adapter;
    MMETopology* topo = new MMETopology();
    FakeTopologyPort port;
};

} // namespace

TEST_F(Topology, ConstantFilterAsDrawn) {
    const PCFILTER_DESCRIPTOR& f = describe();
    EXPECT_EQ(&describe(), &f); // the same descriptor every time, also before Init
    EXPECT_TRUE(tracecap::containsLine("[MMETopology::GetDescription]"));
    EXPECT_EQ(f.AutomationTable, nullptr);
    EXPECT_EQ(
        (std::vector<ULONG>{f.Version, f.PinSize, f.PinCount, f.NodeSize, f.NodeCount,
                            f.ConnectionCount, f.CategoryCount}),
        (std::vector<ULONG>{0, sizeof(PCPIN_DESCRIPTOR), 4, sizeof(PCNODE_DESCRIPTOR), 4, 6, 0}));
    // From node/pin to node/pin in plain numbers: a renumbered enum must not pass.
    const ULONG F = 0xFFFFFFFF, I = 1, O = 0;
    std::vector<std::vector<ULONG>> listed;
    for (ULONG i = 0; i < f.ConnectionCount; ++i) {
        const PCCONNECTION_DESCRIPTOR& c = f.Connections[i];
        listed.push_back({c.FromNode, c.FromNodePin, c.ToNode, c.ToNodePin});
    }
    EXPECT_EQ(
        listed,
        (std::vector<std::vector<ULONG>>{
            {F, 0, 0, I}, {0, O, 1, I}, {1, O, F, 3}, {F, 2, 2, I}, {2, O, 3, I}, {3, O, F, 1}}));

    // Pin i and node i, one row each; every pin shares the one analog range.
    const struct {
        KSPIN_DATAFLOW flow;
        const GUID *category, *name, *nodeType, *nodeName;
    } rows[] = {
        {KSPIN_DATAFLOW_IN, &KSNODETYPE_LEGACY_AUDIO_CONNECTOR, nullptr, &KSNODETYPE_MUTE,
         &KSAUDFNAME_WAVE_MUTE},
        {KSPIN_DATAFLOW_OUT, &KSCATEGORY_AUDIO, nullptr, &KSNODETYPE_VOLUME,
         &KSAUDFNAME_WAVE_VOLUME},
        {KSPIN_DATAFLOW_IN, &KSNODETYPE_LINE_CONNECTOR, &KSAUDFNAME_LINE_IN, &KSNODETYPE_MUTE,
         &KSAUDFNAME_LINE_MUTE},
        {KSPIN_DATAFLOW_OUT, &KSNODETYPE_SPEAKER, &KSAUDFNAME_VOLUME_CONTROL, &KSNODETYPE_VOLUME,
         &KSAUDFNAME_LINE_VOLUME},
    };
    const PKSDATARANGE* shared = f.Pins[0].KsPinDescriptor.DataRanges;
    for (ULONG i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        const PCPIN_DESCRIPTOR& p = f.Pins[i];
        const KSPIN_DESCRIPTOR& k = p.KsPinDescriptor;
        EXPECT_EQ(
            (std::vector<ULONG>{p.MaxGlobalInstanceCount, p.MaxFilterInstanceCount,
                                p.MinFilterInstanceCount, k.InterfacesCount, k.MediumsCount,
                                k.DataRangesCount, ULONG(k.DataFlow), ULONG(k.Communication)}),
            (std::vector<ULONG>{0, 0, 0, 0, 0, 1, ULONG(rows[i].flow),
                                ULONG(KSPIN_COMMUNICATION_NONE)}));
        EXPECT_TRUE(!p.AutomationTable && k.DataRanges == shared);
        EXPECT_TRUE(IsEqualGUID(*k.Category, *rows[i].category));
        EXPECT_TRUE(rows[i].name ? k.Name && IsEqualGUID(*k.Name, *rows[i].name) : !k.Name);
        // No automation table: no control that does not act.
        EXPECT_TRUE(f.Nodes[i].Flags == 0 && !f.Nodes[i].AutomationTable);
        EXPECT_TRUE(IsEqualGUID(*f.Nodes[i].Type, *rows[i].nodeType) &&
                    IsEqualGUID(*f.Nodes[i].Name, *rows[i].nodeName));
    }
    const KSDATARANGE& range = *shared[0];
    EXPECT_EQ(range.FormatSize, 64u);
    EXPECT_EQ(range.Flags + range.SampleSize + range.Reserved, 0u);
    EXPECT_TRUE(IsEqualGUID(range.MajorFormat, KSDATAFORMAT_TYPE_AUDIO) &&
                IsEqualGUID(range.SubFormat, KSDATAFORMAT_SUBTYPE_ANALOG) &&
                IsEqualGUID(range.Specifier, KSDATAFORMAT_SPECIFIER_NONE));
}

TEST_F(Topology, QueryInterfaceIdentitiesTracesAndIntersection) {
    IMiniportTopology* self = topo;
    const std::pair<const GUID*, const char*> named[] = {
        {&IID_IUnknown, "IID_IUnknown"},
        {&IID_IMiniport, "IID_IMiniport"},
        {&IID_IMiniportTopology, "IID_IMiniportTopology"}};
    for (const auto& n : named) {
        tracecap::clearTrace();
        checks::expectInterfaces(self, self, {n.first}, {});
        EXPECT_TRUE(tracecap::containsLine(n.second)) << n.second;
    }
    tracecap::clearTrace();
    checks::expectInterfaces(self, self, {}, {&IID_IMiniportWaveCyclic});
    // {B4C90A27-5791-11D0-86F9-00A0C911B544}: last eight bytes as two
    // little-endian words.
    checks::expectLines({"unsupported", "Interface is B4C90A27-5791-11D0-A000F986-44B511C9"});

    // Intersection is left to the port.
    KSDATARANGE range{};
    ULONG length = 7;
    UCHAR buffer[128];
    EXPECT_EQ(topo->DataRangeIntersection(0, &range, &range, sizeof buffer, buffer, &length),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(topo->DataRangeIntersection(99, nullptr, nullptr, 0, nullptr, nullptr),
              STATUS_NOT_IMPLEMENTED);
}

TEST_F(Topology, InitBindsRefusesAndDestructionReleases) {
    tracecap::clearTrace();
    MMETopology* fresh = new MMETopology();
    char expected[80];
    std::snprintf(expected, sizeof expected, "CONSTRUCTOR MMETopology::MMETopology 0x%X",
                  (unsigned)(reinterpret_cast<uintptr_t>(fresh) & 0xFFFFFFFF));
    EXPECT_TRUE(tracecap::containsLine(expected));
    delete fresh;

    ASSERT_EQ(topo->Init(static_cast<IMMEAdapter*>(adapter), nullptr, &port), STATUS_SUCCESS);
    EXPECT_EQ(adapter->topology(), topo);
    EXPECT_EQ(topo->adapter(), adapter);
    EXPECT_EQ(refs(adapter), 2);
    EXPECT_EQ(topo->portEvents(), static_cast<IPortEvents*>(&port));
    EXPECT_EQ(port.refs, 2);
    topo->Release();
    topo = nullptr;
    EXPECT_EQ(adapter->topology(), nullptr);
    EXPECT_EQ(refs(adapter), 1);
    EXPECT_EQ(port.refs, 1);
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ DESTRUCTOR MMETopology::~MMETopology"));

    // No adapter behind the unknown: the port is not asked for its events.
    MMETopology* other = new MMETopology();
    other->AddRef();
    wavetest::FakeWavePort notAnAdapter;
    port.queries = 0;
    EXPECT_EQ(other->Init(&notAnAdapter, nullptr, &port), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(other->adapter(), nullptr);
    EXPECT_EQ(port.queries, 0);
    EXPECT_EQ(adapter->topology(), nullptr);
    EXPECT_EQ(other->Init(nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hostk::assertReports().size(), 2u);
    hostk::clearAssertReports();
    // A port without events: bound all the same.
    port.withEvents = false;
    EXPECT_EQ(other->Init(static_cast<IMMEAdapter*>(adapter), nullptr, &port), STATUS_SUCCESS);
    EXPECT_EQ(other->portEvents(), nullptr);
    EXPECT_EQ(adapter->topology(), other);
    other->Release();
}

namespace {

using Handler = NTSTATUS(NTAPI*)(PPCPROPERTY_REQUEST);

// A node property request as the port builds it: the channel is the
// instance, the value follows.
struct Request {
    PCPROPERTY_ITEM item{&KSPROPSETID_Audio, KSPROPERTY_AUDIO_VOLUMELEVEL, 0, nullptr};
    PCPROPERTY_REQUEST req{};
    LONG channel = 0;
    UCHAR value[96] = {};

    Request(ULONG node, ULONG verb, ULONG valueSize, ULONG id = KSPROPERTY_AUDIO_VOLUMELEVEL,
            LONG value = 0, LONG channel = 0)
        : channel(channel) {
        item.Id = id;
        req.Node = node;
        req.PropertyItem = &item;
        req.Verb = verb;
        req.Instance = &this->channel;
        req.InstanceSize = sizeof(channel);
        req.Value = this->value;
        req.ValueSize = valueSize;
        set(value);
    }
    LONG asLong() const {
        LONG v;
        std::memcpy(&v, value, sizeof v);
        return v;
    }
    void set(LONG v) { std::memcpy(value, &v, sizeof v); }
};

NTSTATUS setLevel(ULONG node, LONG channel, LONG level) {
    Request r(node, KSPROPERTY_TYPE_SET, 4, KSPROPERTY_AUDIO_VOLUMELEVEL, level, channel);
    return PropertyHandler_Level(&r.req);
}

LONG getLevel(ULONG node) {
    Request r(node, KSPROPERTY_TYPE_GET, 4);
    EXPECT_EQ(PropertyHandler_Level(&r.req), STATUS_SUCCESS);
    return r.asLong();
}

NTSTATUS setMute(ULONG node, ULONG on) {
    Request r(node, KSPROPERTY_TYPE_SET, 4, KSPROPERTY_AUDIO_MUTE, (LONG)on);
    return PropertyHandler_OnOff(&r.req);
}

LONG getMute(ULONG node) {
    Request r(node, KSPROPERTY_TYPE_GET, 8, KSPROPERTY_AUDIO_MUTE);
    EXPECT_EQ(PropertyHandler_OnOff(&r.req), STATUS_SUCCESS);
    EXPECT_EQ(r.req.ValueSize, 4u);
    return r.asLong();
}

} // namespace

TEST(TopologyControls, MutesAndLevelsPerNodeWhileSampleRatesOnlyTrace) {
    resetTopologyControls();
    EXPECT_EQ(getMute(TOPO_NODE_WAVEOUT_MUTE), 0);
    EXPECT_EQ(setMute(TOPO_NODE_WAVEOUT_MUTE, 0x100), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("MuteOut is set to  1"));
    EXPECT_EQ(getMute(TOPO_NODE_WAVEOUT_MUTE), 1);
    EXPECT_EQ(getMute(TOPO_NODE_LINEIN_MUTE), 0);
    EXPECT_EQ(setMute(TOPO_NODE_LINEIN_MUTE, 1), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("MuteIn is set to  1"));
    EXPECT_EQ(setMute(TOPO_NODE_WAVEOUT_MUTE, 0), STATUS_SUCCESS);
    EXPECT_EQ(getMute(TOPO_NODE_WAVEOUT_MUTE), 0);
    EXPECT_EQ(getMute(TOPO_NODE_LINEIN_MUTE), 1);

    EXPECT_EQ(setLevel(TOPO_NODE_WAVEOUT_VOLUME, 0, -1200), STATUS_SUCCESS);
    EXPECT_EQ(setLevel(TOPO_NODE_LINEIN_VOLUME, -1, 300), STATUS_SUCCESS); // all channels
    EXPECT_EQ(getLevel(TOPO_NODE_WAVEOUT_VOLUME), -1200);
    EXPECT_EQ(getLevel(TOPO_NODE_LINEIN_VOLUME), 300);
    EXPECT_EQ(setLevel(TOPO_NODE_WAVEOUT_VOLUME, 1, 7), STATUS_SUCCESS); // one level for both
    EXPECT_EQ(getLevel(TOPO_NODE_WAVEOUT_VOLUME), 7);

    resetTopologyControls();
    EXPECT_EQ(getMute(TOPO_NODE_LINEIN_MUTE), 0);
    EXPECT_EQ(getLevel(TOPO_NODE_WAVEOUT_VOLUME) | getLevel(TOPO_NODE_LINEIN_VOLUME), 0);

    // The sample-rate handlers only trace.
    Request r(0, KSPROPERTY_TYPE_GET, 4, KSPROPERTY_AUDIO_SAMPLING_RATE, 1234);
    EXPECT_EQ(PropertyHandler_SR_CHANGE(&r.req), STATUS_SUCCESS);
    EXPECT_EQ(r.asLong(), 1234);
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ PropertyHandler_SR_CHANGE"));
    PCEVENT_ITEM item{&KSPROPSETID_Audio, KSPROPERTY_AUDIO_SAMPLING_RATE, 0, nullptr};
    PCEVENT_REQUEST e{};
    e.EventItem = &item;
    e.Verb = PCEVENT_VERB_ADD;
    EXPECT_EQ(EventHandler_SR_CHANGE(&e), STATUS_SUCCESS);
    EXPECT_EQ(EventHandler_SR_CHANGE(nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ EventHandler_SR_CHANGE"));
}

TEST(TopologyControls, MalformedRequestsAreRefusedAndStoreNothing) {
    resetTopologyControls();
    ASSERT_EQ(setLevel(TOPO_NODE_WAVEOUT_VOLUME, 0, 7), STATUS_SUCCESS);
    ASSERT_EQ(setLevel(TOPO_NODE_LINEIN_VOLUME, 0, 300), STATUS_SUCCESS);
    const ULONG GET = KSPROPERTY_TYPE_GET, SET = KSPROPERTY_TYPE_SET, MUTE = KSPROPERTY_AUDIO_MUTE;
    const ULONG LEVEL = KSPROPERTY_AUDIO_VOLUMELEVEL, WV = TOPO_NODE_WAVEOUT_VOLUME,
                WM = TOPO_NODE_WAVEOUT_MUTE, LV = TOPO_NODE_LINEIN_VOLUME;
    const Handler OnOff = PropertyHandler_OnOff, Level = PropertyHandler_Level;
    struct Case {
        const char* what;
        Handler handler;
        ULONG node, verb, valueSize, id;
        LONG channel;
        ULONG instanceSize;
    } refused[] = {
        {"mute on a volume node", OnOff, WV, SET, 4, MUTE, 0, 4},
        {"mute set, long value", OnOff, WM, SET, 8, MUTE, 0, 4},
        {"mute get, short value", OnOff, WM, GET, 3, MUTE, 0, 4},
        {"mute, short instance", OnOff, WM, GET, 4, MUTE, 0, 3},
        {"get channel 2", Level, WV, GET, 4, LEVEL, 2, 4},
        {"get all channels", Level, WV, GET, 4, LEVEL, -1, 4},
        {"set channel 2", Level, LV, SET, 4, LEVEL, 2, 4},
        {"level get, short value", Level, WV, GET, 3, LEVEL, 0, 4},
        {"level set, long value", Level, WV, SET, 8, LEVEL, 0, 4},
        {"level, short instance", Level, WV, GET, 4, LEVEL, 0, 2},
        {"mute id on a volume node", Level, WV, GET, 4, MUTE, 0, 4},
        {"level on a mute node", Level, WM, GET, 4, LEVEL, 0, 4},
        {"the filter", Level, PCFILTER_NODE, GET, 4, LEVEL, 0, 4},
    };
    for (const Case& c : refused) {
        SCOPED_TRACE(c.what);
        Request r(c.node, c.verb, c.valueSize, c.id, 555, c.channel);
        r.req.InstanceSize = c.instanceSize;
        tracecap::clearTrace();
        EXPECT_EQ(c.handler(&r.req), STATUS_INVALID_PARAMETER);
        if (c.handler == Level) {
            EXPECT_EQ(tracecap::containsLine("node is valid"), c.node != PCFILTER_NODE);
        }
    }
    EXPECT_EQ(PropertyHandler_OnOff(nullptr), STATUS_INVALID_PARAMETER);
    Request mute(TOPO_NODE_WAVEOUT_MUTE, GET, 4);
    tracecap::clearTrace();
    EXPECT_EQ(PropertyHandler_Level(&mute.req), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("unsupported node"));
    EXPECT_EQ(getLevel(TOPO_NODE_WAVEOUT_VOLUME), 7);
    EXPECT_EQ(getLevel(TOPO_NODE_LINEIN_VOLUME), 300);
    EXPECT_EQ(getMute(TOPO_NODE_WAVEOUT_MUTE), 0);
    resetTopologyControls();
}

TEST(TopologyControls, LevelBasicSupportBySize) {
    Request full(TOPO_NODE_LINEIN_VOLUME, KSPROPERTY_TYPE_BASICSUPPORT, 96);
    ASSERT_EQ(PropertyHandler_Level(&full.req), STATUS_SUCCESS);
    EXPECT_EQ(full.req.ValueSize, 72u);
    KSPROPERTY_DESCRIPTION d;
    std::memcpy(&d, full.value, sizeof d);
    EXPECT_EQ((std::vector<ULONG>{d.AccessFlags, d.DescriptionSize, d.PropTypeSet.Id,
                                  d.PropTypeSet.Flags, d.MembersListCount, d.Reserved}),
              (std::vector<ULONG>{0x203, 72, VT_I4, 0, 1, 0}));
    EXPECT_TRUE(IsEqualGUID(d.PropTypeSet.Set, KSPROPTYPESETID_General));
    KSPROPERTY_MEMBERSHEADER m;
    std::memcpy(&m, full.value + 40, sizeof m);
    EXPECT_EQ((std::vector<ULONG>{m.MembersFlags, m.MembersSize, m.MembersCount, m.Flags}),
              (std::vector<ULONG>{KSPROPERTY_MEMBER_STEPPEDRANGES, 16, 1, 0}));
    // Stepping and bounds all 0, nothing written past 72 bytes.
    EXPECT_EQ(std::vector<UCHAR>(full.value + 56, full.value + 96), std::vector<UCHAR>(40, 0));

    // One byte short of the description gives only the flags.
    struct {
        ULONG size, answered;
    } cases[] = {{40, 40}, {39, 4}};
    for (auto c : cases) {
        Request r(TOPO_NODE_WAVEOUT_VOLUME, KSPROPERTY_TYPE_BASICSUPPORT, c.size);
        std::memset(r.value, 0xAB, sizeof r.value);
        ASSERT_EQ(PropertyHandler_Level(&r.req), STATUS_SUCCESS);
        EXPECT_EQ(r.req.ValueSize, c.answered);
        EXPECT_EQ(r.value[c.answered], 0xAB);
        EXPECT_EQ(r.asLong(), 0x203);
    }
    Request tiny(TOPO_NODE_WAVEOUT_VOLUME, KSPROPERTY_TYPE_BASICSUPPORT, 3);
    EXPECT_EQ(PropertyHandler_Level(&tiny.req), STATUS_INVALID_DEVICE_REQUEST);
}
