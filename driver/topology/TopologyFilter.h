// The topology filter's constant description: 4 pins, 4 nodes, 6
// connections, no automation table on the filter, its pins or its nodes (so
// no control appears that does not act on the audio). Included only by
// MMETopology.cpp, which hands the descriptor to the port; the named pin
// and node ids are shared with the tests.
//
//            +------------------------- topology filter ---------------------------+
//  from wave |                                                                     |
//  pin 3 --> | pin 0 --> [node 0 wave mute] --> [node 1 wave volume] --> pin 3     | --> speaker
//            | (IN)       in 1      out 0        in 1        out 0       (OUT)     |
//            |                                                                     |
//  line in-> | pin 2 --> [node 2 line mute] --> [node 3 line volume] --> pin 1     | --> wave
//            | (IN)       in 1      out 0        in 1        out 0       (OUT)     |     pin 1
//            +---------------------------------------------------------------------+
//
// Connections, in order:
//   0: filter pin 0 -> node 0 in     3: filter pin 2 -> node 2 in
//   1: node 0 out   -> node 1 in     4: node 2 out   -> node 3 in
//   2: node 1 out   -> filter pin 3  5: node 3 out   -> filter pin 1
#pragma once

#include "../platform/platform.h"

enum : ULONG {
    TOPO_PIN_WAVEOUT_SOURCE = 0, // render path in, from the wave filter's render bridge
    TOPO_PIN_WAVEIN_DEST = 1,    // capture path out, to the wave filter's capture bridge
    TOPO_PIN_LINEIN_SOURCE = 2,  // line input
    TOPO_PIN_SPEAKER_DEST = 3,   // speaker output
    TOPO_PIN_COUNT = 4,
};

enum : ULONG {
    TOPO_NODE_WAVEOUT_MUTE = 0,
    TOPO_NODE_WAVEOUT_VOLUME = 1,
    TOPO_NODE_LINEIN_MUTE = 2,
    TOPO_NODE_LINEIN_VOLUME = 3,
    TOPO_NODE_COUNT = 4,
};

constexpr ULONG TOPO_CONNECTION_COUNT = 6;

#ifdef MME_TOPOLOGY_TABLES

namespace topology_tables {

// GUID values written out so the tables need no start-up code in either build.
#define MME_GUID_KSDATAFORMAT_TYPE_AUDIO                                                           \
    {                                                                                              \
        0x73647561, 0x0000, 0x0010, {                                                              \
            0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71                                         \
        }                                                                                          \
    }
#define MME_GUID_KSDATAFORMAT_SUBTYPE_ANALOG                                                       \
    {                                                                                              \
        0x6DBA3190, 0x67BD, 0x11CF, {                                                              \
            0xA0, 0xF7, 0x00, 0x20, 0xAF, 0xD1, 0x56, 0xE4                                         \
        }                                                                                          \
    }
#define MME_GUID_KSDATAFORMAT_SPECIFIER_NONE                                                       \
    {                                                                                              \
        0x0F6417D6, 0xC318, 0x11D0, {                                                              \
            0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96                                         \
        }                                                                                          \
    }

// The one analog range shared by all four pins.
static KSDATARANGE PinDataRangesBridge[] = {
    {{sizeof(KSDATARANGE), 0, 0, 0, MME_GUID_KSDATAFORMAT_TYPE_AUDIO,
      MME_GUID_KSDATAFORMAT_SUBTYPE_ANALOG, MME_GUID_KSDATAFORMAT_SPECIFIER_NONE}},
};

static PKSDATARANGE PinDataRangePointersBridge[] = {&PinDataRangesBridge[0]};

#define MME_TOPO_PIN(flow, category, name)                                                         \
    {                                                                                              \
        0, 0, 0, nullptr, {                                                                        \
            0, nullptr, 0, nullptr, 1, PinDataRangePointersBridge, flow, KSPIN_COMMUNICATION_NONE, \
                category, name, {                                                                  \
                0                                                                                  \
            }                                                                                      \
        }                                                                                          \
    }

static const PCPIN_DESCRIPTOR MiniportPins[TOPO_PIN_COUNT] = {
    MME_TOPO_PIN(KSPIN_DATAFLOW_IN, &KSNODETYPE_LEGACY_AUDIO_CONNECTOR, nullptr),
    MME_TOPO_PIN(KSPIN_DATAFLOW_OUT, &KSCATEGORY_AUDIO, nullptr),
    MME_TOPO_PIN(KSPIN_DATAFLOW_IN, &KSNODETYPE_LINE_CONNECTOR, &KSAUDFNAME_LINE_IN),
    MME_TOPO_PIN(KSPIN_DATAFLOW_OUT, &KSNODETYPE_SPEAKER, &KSAUDFNAME_VOLUME_CONTROL),
};

static const PCNODE_DESCRIPTOR MiniportNodes[TOPO_NODE_COUNT] = {
    {0, nullptr, &KSNODETYPE_MUTE, &KSAUDFNAME_WAVE_MUTE},
    {0, nullptr, &KSNODETYPE_VOLUME, &KSAUDFNAME_WAVE_VOLUME},
    {0, nullptr, &KSNODETYPE_MUTE, &KSAUDFNAME_LINE_MUTE},
    {0, nullptr, &KSNODETYPE_VOLUME, &KSAUDFNAME_LINE_VOLUME},
};

static const PCCONNECTION_DESCRIPTOR MiniportConnections[TOPO_CONNECTION_COUNT] = {
    {PCFILTER_NODE, TOPO_PIN_WAVEOUT_SOURCE, TOPO_NODE_WAVEOUT_MUTE, KSNODEPIN_STANDARD_IN},
    {TOPO_NODE_WAVEOUT_MUTE, KSNODEPIN_STANDARD_OUT, TOPO_NODE_WAVEOUT_VOLUME,
     KSNODEPIN_STANDARD_IN},
    {TOPO_NODE_WAVEOUT_VOLUME, KSNODEPIN_STANDARD_OUT, PCFILTER_NODE, TOPO_PIN_SPEAKER_DEST},
    {PCFILTER_NODE, TOPO_PIN_LINEIN_SOURCE, TOPO_NODE_LINEIN_MUTE, KSNODEPIN_STANDARD_IN},
    {TOPO_NODE_LINEIN_MUTE, KSNODEPIN_STANDARD_OUT, TOPO_NODE_LINEIN_VOLUME, KSNODEPIN_STANDARD_IN},
    {TOPO_NODE_LINEIN_VOLUME, KSNODEPIN_STANDARD_OUT, PCFILTER_NODE, TOPO_PIN_WAVEIN_DEST},
};

static const PCFILTER_DESCRIPTOR MiniportFilterDescriptor = {
    0,                         // Version
    nullptr,                   // AutomationTable
    sizeof(PCPIN_DESCRIPTOR),  // PinSize
    TOPO_PIN_COUNT,            // PinCount
    MiniportPins,              // Pins
    sizeof(PCNODE_DESCRIPTOR), // NodeSize
    TOPO_NODE_COUNT,           // NodeCount
    MiniportNodes,             // Nodes
    TOPO_CONNECTION_COUNT,     // ConnectionCount
    MiniportConnections,       // Connections
    0,                         // CategoryCount
    nullptr,                   // Categories
};

#undef MME_TOPO_PIN
#undef MME_GUID_KSDATAFORMAT_TYPE_AUDIO
#undef MME_GUID_KSDATAFORMAT_SUBTYPE_ANALOG
#undef MME_GUID_KSDATAFORMAT_SPECIFIER_NONE

} // namespace topology_tables

#endif // MME_TOPOLOGY_TABLES
