// The wave filter's descriptor, built at run time in one block of non-paged
// memory that also holds every pin's data ranges; every pointer inside the
// block points into it or at a constant GUID.
//
//   capture bridge (1) --> [ADC node 0] --> capture pin (0)  -> client
//   client -> render pin (2) --> [DAC node 1] --> render bridge (3)
//
// Pins 0 and 2 are the streaming pins (MaxGlobalInstanceCount 1), pins 1 and
// 3 the bridge pins the topology filter is connected to.
#pragma once

#include "../platform/platform.h"

constexpr ULONG GEN_MAX_DATA_RANGES = 30;

enum : ULONG {
    WAVE_PIN_CAPTURE = 0,
    WAVE_PIN_CAPTURE_BRIDGE = 1,
    WAVE_PIN_RENDER = 2,
    WAVE_PIN_RENDER_BRIDGE = 3,
    WAVE_PIN_COUNT = 4,
};

enum : ULONG { WAVE_NODE_ADC = 0, WAVE_NODE_DAC = 1, WAVE_NODE_COUNT = 2 };
constexpr ULONG WAVE_CONNECTION_COUNT = 4;

struct PtGenericDescriptor {
    PCFILTER_DESCRIPTOR Filter;
    PCCONNECTION_DESCRIPTOR Connections[WAVE_CONNECTION_COUNT];
    PCNODE_DESCRIPTOR Nodes[WAVE_NODE_COUNT];
    PCPIN_DESCRIPTOR Pins[WAVE_PIN_COUNT];
    PKSDATARANGE BridgeDataRangePointers[1];
    PKSDATARANGE RenderDataRangePointers[GEN_MAX_DATA_RANGES];
    PKSDATARANGE CaptureDataRangePointers[GEN_MAX_DATA_RANGES];
    KSDATARANGE BridgeDataRange;
    KSDATARANGE_AUDIO CaptureDataRanges[GEN_MAX_DATA_RANGES];
    KSDATARANGE_AUDIO RenderDataRanges[GEN_MAX_DATA_RANGES];
    ULONG FilledRatesCount;
};

// Allocates and fills a new record (sized allocation, caller frees it with
// MMEFree and sizeof(PtGenericDescriptor)); null when memory is short.
PtGenericDescriptor* generateDefaultDescriptor();
void initAudioDataRange(KSDATARANGE_AUDIO* range, ULONG channels, ULONG bits, ULONG rate);
