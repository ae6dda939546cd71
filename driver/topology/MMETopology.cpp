// MMETopology: the topology miniport. Describes the constant filter of
// TopologyFilter.h, whatever the device; holds counted references on the
// adapter and on the port's event interface from Init to destruction.
#include "MMETopology.h"

#define MME_TOPOLOGY_TABLES
#include "TopologyFilter.h"
#include "../wave/WaveAssert.h"

MMETopology::MMETopology() {
    TraceLineStatus("CONSTRUCTOR MMETopology::MMETopology", (NTSTATUS)(ULONG)(ULONG_PTR)this);
}

MMETopology::~MMETopology() {
    FunctionTrace ft("DESTRUCTOR MMETopology::~MMETopology", this);
    if (mpAdapter) {
        mpAdapter->setTopology(nullptr);
        mpAdapter->Release();
        mpAdapter = nullptr;
    }
    if (mpPortEvents) {
        mpPortEvents->Release();
        mpPortEvents = nullptr;
    }
}

STDMETHODIMP_(NTSTATUS) MMETopology::QueryInterface(REFIID riid, PVOID* Object) {
    FunctionTrace ft("MMETopology::QueryInterface", this);
    MME_REPORT_ASSERT(Object, "MMETopology");
    if (!Object)
        return STATUS_INVALID_PARAMETER;
    if (IsEqualGUID(riid, IID_IUnknown)) {
        ft.text("IID_IUnknown");
        *Object = static_cast<IMiniportTopology*>(this);
    } else if (IsEqualGUID(riid, IID_IMiniport)) {
        ft.text("IID_IMiniport");
        *Object = static_cast<IMiniportTopology*>(this);
    } else if (IsEqualGUID(riid, IID_IMiniportTopology)) {
        ft.text("IID_IMiniportTopology");
        *Object = static_cast<IMiniportTopology*>(this);
    } else {
        ft.text("unsupported");
        TraceLineGuid("Interface is", riid);
        *Object = nullptr;
    }
    if (!*Object)
        return STATUS_INVALID_PARAMETER;
    static_cast<IUnknown*>(*Object)->AddRef();
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) MMETopology::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor) {
    MME_REPORT_ASSERT(OutFilterDescriptor, "MMETopology");
    TraceLine("[MMETopology::GetDescription]");
    if (!OutFilterDescriptor)
        return STATUS_INVALID_PARAMETER;
    *OutFilterDescriptor =
        const_cast<PPCFILTER_DESCRIPTOR>(&topology_tables::MiniportFilterDescriptor);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS)
MMETopology::DataRangeIntersection(ULONG PinId, PKSDATARANGE DataRange,
                                   PKSDATARANGE MatchingDataRange, ULONG OutputBufferLength,
                                   PVOID ResultantFormat, PULONG ResultantFormatLength) {
    // The port's own intersection handles the analog bridge ranges.
    UNREFERENCED_PARAMETER(PinId);
    UNREFERENCED_PARAMETER(DataRange);
    UNREFERENCED_PARAMETER(MatchingDataRange);
    UNREFERENCED_PARAMETER(OutputBufferLength);
    UNREFERENCED_PARAMETER(ResultantFormat);
    UNREFERENCED_PARAMETER(ResultantFormatLength);
    return STATUS_NOT_IMPLEMENTED;
}

STDMETHODIMP_(NTSTATUS)
MMETopology::Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTTOPOLOGY Port) {
    FunctionTrace ft("MMETopology::Init", this);
    UNREFERENCED_PARAMETER(ResourceList);
    MME_REPORT_ASSERT(UnknownAdapter, "MMETopology");
    MME_REPORT_ASSERT(Port, "MMETopology");
    if (!UnknownAdapter || !Port)
        return STATUS_INVALID_PARAMETER;

    IMMEAdapter* adapterInterface = nullptr;
    NTSTATUS status = UnknownAdapter->QueryInterface(IID_IMMEAdapter,
                                                     reinterpret_cast<PVOID*>(&adapterInterface));
    if (NT_SUCCESS(status) && !adapterInterface)
        status = STATUS_INVALID_PARAMETER;
    if (!NT_SUCCESS(status)) {
        if (adapterInterface)
            adapterInterface->Release();
        mpAdapter = nullptr;
        return status;
    }
    mpAdapter = static_cast<MMEAdapter*>(adapterInterface);

    // Kept for the node events; a port without it leaves the field null.
    PPORTEVENTS events = nullptr;
    if (NT_SUCCESS(Port->QueryInterface(IID_IPortEvents, reinterpret_cast<PVOID*>(&events))))
        mpPortEvents = events;
    else
        mpPortEvents = nullptr;

    mpAdapter->setTopology(this);
    return STATUS_SUCCESS;
}
