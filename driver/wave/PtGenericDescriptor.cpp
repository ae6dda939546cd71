// Builds the wave filter's descriptor record in one block, and the two pin
// lookups over it. The fixed layout written here:
//
//                 +---------------------- wave filter ----------------------+
//   capture       |  pin 1 ------> [ ADC node 0 ] ------> pin 0  (capture)  |  -> client
//   bridge in  -> |  (LINE_IN)      in 1     out 0        streaming, OUT    |
//                 |                                                         |
//   client     -> |  pin 2 ------> [ DAC node 1 ] ------> pin 3  (render    |  -> topology
//                 |  streaming, IN  in 1     out 0        bridge, OUT)      |
//                 +---------------------------------------------------------+
//
// Connections, in order: filter pin 1 -> ADC in; ADC out -> filter pin 0;
// filter pin 2 -> DAC in; DAC out -> filter pin 3. Pins 0 and 2 have 30
// range slots each, none in use until the device's modes are filled in.
#include "MMEWave.h"

namespace {

void writeConnection(PCCONNECTION_DESCRIPTOR* c, ULONG fromNode, ULONG fromPin, ULONG toNode,
                     ULONG toPin) {
    c->FromNode = fromNode;
    c->FromNodePin = fromPin;
    c->ToNode = toNode;
    c->ToNodePin = toPin;
}

void writeNode(PCNODE_DESCRIPTOR* n, const GUID* type) {
    n->Flags = 0;
    n->AutomationTable = nullptr;
    n->Type = type;
    n->Name = nullptr;
}

void writePin(PCPIN_DESCRIPTOR* p, ULONG instances, ULONG rangeCount, PKSDATARANGE* ranges,
              KSPIN_DATAFLOW flow, KSPIN_COMMUNICATION communication, const GUID* category,
              const GUID* name) {
    p->MaxGlobalInstanceCount = instances;
    p->MaxFilterInstanceCount = instances;
    p->MinFilterInstanceCount = 0;
    p->AutomationTable = nullptr;
    KSPIN_DESCRIPTOR* k = &p->KsPinDescriptor;
    k->InterfacesCount = 0;
    k->Interfaces = nullptr;
    k->MediumsCount = 0;
    k->Mediums = nullptr;
    k->DataRangesCount = rangeCount;
    k->DataRanges = ranges;
    k->DataFlow = flow;
    k->Communication = communication;
    k->Category = category;
    k->Name = name;
    k->Reserved = 0;
}

} // namespace

void initAudioDataRange(KSDATARANGE_AUDIO* range, ULONG channels, ULONG bits, ULONG rate) {
    if (!range)
        return;
    range->DataRange.FormatSize = sizeof(KSDATARANGE_AUDIO);
    range->DataRange.Flags = 0;
    range->DataRange.SampleSize = 0;
    range->DataRange.Reserved = 0;
    range->DataRange.MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    range->DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    range->DataRange.Specifier = KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;
    range->MaximumChannels = channels;
    range->MinimumBitsPerSample = bits;
    range->MaximumBitsPerSample = bits;
    range->MinimumSampleFrequency = rate;
    range->MaximumSampleFrequency = rate;
}

PtGenericDescriptor* generateDefaultDescriptor() {
    FunctionTrace ft("generateDefaultDescriptor", (ULONG)0);
    PtGenericDescriptor* d =
        static_cast<PtGenericDescriptor*>(MMEAllocate(sizeof(PtGenericDescriptor)));
    ft.num("sizeof(PtGenericDescriptor) is", (LONG)sizeof(PtGenericDescriptor));
    if (!d)
        return nullptr;
    // Every field is written below; clearing first also settles the padding
    // the port may copy along with the structures.
    RtlZeroMemory(d, sizeof(PtGenericDescriptor));

    PCFILTER_DESCRIPTOR* f = &d->Filter;
    f->Version = 0;
    f->AutomationTable = nullptr;
    f->PinSize = sizeof(PCPIN_DESCRIPTOR);
    f->PinCount = WAVE_PIN_COUNT;
    f->Pins = d->Pins;
    f->NodeSize = sizeof(PCNODE_DESCRIPTOR);
    f->NodeCount = WAVE_NODE_COUNT;
    f->Nodes = d->Nodes;
    f->ConnectionCount = WAVE_CONNECTION_COUNT;
    f->Connections = d->Connections;
    f->CategoryCount = 0;
    f->Categories = nullptr;

    writeConnection(&d->Connections[0], PCFILTER_NODE, WAVE_PIN_CAPTURE_BRIDGE, WAVE_NODE_ADC,
                    KSNODEPIN_STANDARD_IN);
    writeConnection(&d->Connections[1], WAVE_NODE_ADC, KSNODEPIN_STANDARD_OUT, PCFILTER_NODE,
                    WAVE_PIN_CAPTURE);
    writeConnection(&d->Connections[2], PCFILTER_NODE, WAVE_PIN_RENDER, WAVE_NODE_DAC,
                    KSNODEPIN_STANDARD_IN);
    writeConnection(&d->Connections[3], WAVE_NODE_DAC, KSNODEPIN_STANDARD_OUT, PCFILTER_NODE,
                    WAVE_PIN_RENDER_BRIDGE);

    writeNode(&d->Nodes[WAVE_NODE_ADC], &KSNODETYPE_ADC);
    writeNode(&d->Nodes[WAVE_NODE_DAC], &KSNODETYPE_DAC);

    writePin(&d->Pins[WAVE_PIN_CAPTURE], 1, 0, d->CaptureDataRangePointers, KSPIN_DATAFLOW_OUT,
             KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO, &KSCATEGORY_CAPTURE);
    writePin(&d->Pins[WAVE_PIN_CAPTURE_BRIDGE], 0, 1, d->BridgeDataRangePointers, KSPIN_DATAFLOW_IN,
             KSPIN_COMMUNICATION_NONE, &KSAUDFNAME_LINE_IN, &KSAUDFNAME_LINE_IN);
    writePin(&d->Pins[WAVE_PIN_RENDER], 1, 0, d->RenderDataRangePointers, KSPIN_DATAFLOW_IN,
             KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO, &KSCATEGORY_RENDER);
    writePin(&d->Pins[WAVE_PIN_RENDER_BRIDGE], 0, 1, d->BridgeDataRangePointers, KSPIN_DATAFLOW_OUT,
             KSPIN_COMMUNICATION_NONE, &KSNODETYPE_LINE_CONNECTOR, &KSNODETYPE_LINE_CONNECTOR);

    d->BridgeDataRangePointers[0] = &d->BridgeDataRange;
    KSDATARANGE* bridge = &d->BridgeDataRange;
    bridge->FormatSize = sizeof(KSDATARANGE);
    bridge->Flags = 0;
    bridge->SampleSize = 0;
    bridge->Reserved = 0;
    bridge->MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    bridge->SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG;
    bridge->Specifier = KSDATAFORMAT_SPECIFIER_NONE;

    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i) {
        d->RenderDataRangePointers[i] = &d->RenderDataRanges[i].DataRange;
        initAudioDataRange(&d->RenderDataRanges[i], 2, 32, 44100);
    }
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i) {
        d->CaptureDataRangePointers[i] = &d->CaptureDataRanges[i].DataRange;
        initAudioDataRange(&d->CaptureDataRanges[i], 2, 32, 44100);
    }
    d->FilledRatesCount = 0;
    return d;
}

PKSPIN_DESCRIPTOR MMEWave::getPinDescriptor(ULONG PinId) const {
    if (!mpDescriptor)
        return nullptr;
    if (PinId >= mpDescriptor->Filter.PinCount || PinId >= WAVE_PIN_COUNT)
        return nullptr;
    PKSPIN_DESCRIPTOR pin = &mpDescriptor->Pins[PinId].KsPinDescriptor;
    if (pin->DataRangesCount == 0)
        return nullptr;
    return pin;
}

PKSPIN_DESCRIPTOR MMEWave::getStreamPinDescriptor(bool bCapture) const {
    if (!mpDescriptor)
        return nullptr;
    const KSPIN_DATAFLOW wanted = bCapture ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN;
    const ULONG count = mpDescriptor->Filter.PinCount < WAVE_PIN_COUNT
                            ? mpDescriptor->Filter.PinCount
                            : (ULONG)WAVE_PIN_COUNT;
    for (ULONG i = 0; i < count; ++i) {
        PCPIN_DESCRIPTOR* pin = &mpDescriptor->Pins[i];
        if (pin->MaxGlobalInstanceCount == 0)
            continue;
        if (pin->KsPinDescriptor.DataFlow == wanted)
            return &pin->KsPinDescriptor;
    }
    return nullptr;
}
