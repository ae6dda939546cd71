// MMETopology: the topology miniport (IMiniportTopology) with its constant
// filter (see TopologyFilter.h), and the node property handlers.
#pragma once

#include "../adapter/MMEAdapter.h"

class MMETopology : public IMiniportTopology, public MMEUnknown {
public:
    MMETopology();
    ~MMETopology() override;

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* Object) override;
    MME_IMPLEMENT_REFCOUNT
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor) override;
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG PinId, PKSDATARANGE DataRange, PKSDATARANGE MatchingDataRange,
                          ULONG OutputBufferLength, PVOID ResultantFormat,
                          PULONG ResultantFormatLength) override;
    STDMETHODIMP_(NTSTATUS)
    Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTTOPOLOGY Port) override;

    MMEAdapter* adapter() const { return mpAdapter; }
    PPORTEVENTS portEvents() const { return mpPortEvents; }

private:
    MMEAdapter* mpAdapter;
    PPORTEVENTS mpPortEvents;
};

// Node controls, not attached to the constant filter. Driver-wide state,
// reset by the adapter's constructor.
NTSTATUS NTAPI PropertyHandler_Level(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS NTAPI PropertyHandler_OnOff(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS NTAPI PropertyHandler_SR_CHANGE(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS EventHandler_SR_CHANGE(PPCEVENT_REQUEST EventRequest);
void resetTopologyControls();
