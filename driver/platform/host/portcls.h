// Host declarations of the port-class library: filter descriptors, the COM
// interfaces in the DDK's slot order, and the Pc* entry points. Implemented
// on Linux by host/portcls.
#pragma once

#include "ks.h"

// ---- COM base ----

struct IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE QueryInterface(REFIID InterfaceId, PVOID* Interface) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;
};
typedef IUnknown* PUNKNOWN;

#define STDMETHODIMP NTSTATUS STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE

// ---- Filter descriptors ----

struct PCPROPERTY_REQUEST;
struct PCEVENT_REQUEST;
typedef NTSTATUS(NTAPI* PCPFNPROPERTY_HANDLER)(PCPROPERTY_REQUEST* PropertyRequest);
typedef NTSTATUS(NTAPI* PCPFNEVENT_HANDLER)(PCEVENT_REQUEST* EventRequest);
typedef NTSTATUS(NTAPI* PCPFNMETHOD_HANDLER)(struct PCMETHOD_REQUEST* MethodRequest);

#define PCPROPERTY_ITEM_FLAG_GET KSPROPERTY_TYPE_GET
#define PCPROPERTY_ITEM_FLAG_SET KSPROPERTY_TYPE_SET
#define PCPROPERTY_ITEM_FLAG_BASICSUPPORT KSPROPERTY_TYPE_BASICSUPPORT
#define PCEVENT_ITEM_FLAG_ENABLE KSEVENT_TYPE_ENABLE
#define PCEVENT_ITEM_FLAG_BASICSUPPORT KSEVENT_TYPE_BASICSUPPORT

typedef struct {
    const GUID* Set;
    ULONG Id;
    ULONG Flags;
    PCPFNPROPERTY_HANDLER Handler;
} PCPROPERTY_ITEM, *PPCPROPERTY_ITEM;

typedef struct {
    const GUID* Set;
    ULONG Id;
    ULONG Flags;
    PCPFNEVENT_HANDLER Handler;
} PCEVENT_ITEM, *PPCEVENT_ITEM;

typedef struct {
    const GUID* Set;
    ULONG Id;
    ULONG Flags;
    PCPFNMETHOD_HANDLER Handler;
} PCMETHOD_ITEM, *PPCMETHOD_ITEM;

typedef struct {
    ULONG PropertyItemSize;
    ULONG PropertyCount;
    const PCPROPERTY_ITEM* Properties;
    ULONG MethodItemSize;
    ULONG MethodCount;
    const PCMETHOD_ITEM* Methods;
    ULONG EventItemSize;
    ULONG EventCount;
    const PCEVENT_ITEM* Events;
    ULONG Reserved;
} PCAUTOMATION_TABLE, *PPCAUTOMATION_TABLE;

typedef struct {
    ULONG MaxGlobalInstanceCount;
    ULONG MaxFilterInstanceCount;
    ULONG MinFilterInstanceCount;
    const PCAUTOMATION_TABLE* AutomationTable;
    KSPIN_DESCRIPTOR KsPinDescriptor;
} PCPIN_DESCRIPTOR, *PPCPIN_DESCRIPTOR;

typedef struct {
    ULONG Flags;
    const PCAUTOMATION_TABLE* AutomationTable;
    const GUID* Type;
    const GUID* Name;
} PCNODE_DESCRIPTOR, *PPCNODE_DESCRIPTOR;

typedef struct {
    ULONG FromNode;
    ULONG FromNodePin;
    ULONG ToNode;
    ULONG ToNodePin;
} PCCONNECTION_DESCRIPTOR, *PPCCONNECTION_DESCRIPTOR;

#define PCFILTER_NODE ((ULONG)-1)

typedef struct {
    ULONG Version;
    const PCAUTOMATION_TABLE* AutomationTable;
    ULONG PinSize;
    ULONG PinCount;
    const PCPIN_DESCRIPTOR* Pins;
    ULONG NodeSize;
    ULONG NodeCount;
    const PCNODE_DESCRIPTOR* Nodes;
    ULONG ConnectionCount;
    const PCCONNECTION_DESCRIPTOR* Connections;
    ULONG CategoryCount;
    const GUID* Categories;
} PCFILTER_DESCRIPTOR, *PPCFILTER_DESCRIPTOR;

struct PCPROPERTY_REQUEST {
    PUNKNOWN MajorTarget;
    PUNKNOWN MinorTarget;
    ULONG Node;
    const PCPROPERTY_ITEM* PropertyItem;
    ULONG Verb;
    ULONG InstanceSize;
    PVOID Instance;
    ULONG ValueSize;
    PVOID Value;
    PIRP Irp;
};
typedef PCPROPERTY_REQUEST* PPCPROPERTY_REQUEST;

struct PCEVENT_REQUEST {
    PUNKNOWN MajorTarget;
    PUNKNOWN MinorTarget;
    ULONG Node;
    const PCEVENT_ITEM* EventItem;
    PKSEVENT_ENTRY EventEntry;
    ULONG Verb;
    PIRP Irp;
};
typedef PCEVENT_REQUEST* PPCEVENT_REQUEST;

#define PCEVENT_VERB_NONE 0
#define PCEVENT_VERB_ADD 1
#define PCEVENT_VERB_REMOVE 2
#define PCEVENT_VERB_SUPPORT 4

// ---- Interfaces (slot order as in the DDK) ----

struct IResourceList;
typedef IResourceList* PRESOURCELIST;
typedef struct _ADAPTER_OBJECT* PADAPTER_OBJECT;

struct IServiceSink : IUnknown {
    virtual void STDMETHODCALLTYPE RequestService() = 0;
};
typedef IServiceSink* PSERVICESINK;

struct IServiceGroup : IServiceSink {
    virtual NTSTATUS STDMETHODCALLTYPE AddMember(PSERVICESINK pServiceSink) = 0;
    virtual void STDMETHODCALLTYPE RemoveMember(PSERVICESINK pServiceSink) = 0;
    virtual void STDMETHODCALLTYPE SupportDelayedService() = 0;
    virtual void STDMETHODCALLTYPE RequestDelayedService(ULONGLONG ullDelay) = 0;
    virtual void STDMETHODCALLTYPE CancelDelayedService() = 0;
};
typedef IServiceGroup* PSERVICEGROUP;

struct IDmaChannel : IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE
    AllocateBuffer(ULONG BufferSize, PPHYSICAL_ADDRESS PhysicalAddressConstraint) = 0;
    virtual void STDMETHODCALLTYPE FreeBuffer() = 0;
    virtual ULONG STDMETHODCALLTYPE TransferCount() = 0;
    virtual ULONG STDMETHODCALLTYPE MaximumBufferSize() = 0;
    virtual ULONG STDMETHODCALLTYPE AllocatedBufferSize() = 0;
    virtual ULONG STDMETHODCALLTYPE BufferSize() = 0;
    virtual void STDMETHODCALLTYPE SetBufferSize(ULONG BufferSize) = 0;
    virtual PVOID STDMETHODCALLTYPE SystemAddress() = 0;
    // Slot 11 returns an 8-byte struct. The system's port-class library
    // expects it through a hidden result pointer (the MSVC convention), so
    // both builds declare that pointer explicitly: the caller passes the
    // place to fill and gets it back.
    virtual PPHYSICAL_ADDRESS STDMETHODCALLTYPE PhysicalAddress(PPHYSICAL_ADDRESS Address) = 0;
    virtual PADAPTER_OBJECT STDMETHODCALLTYPE GetAdapterObject() = 0;
    virtual void STDMETHODCALLTYPE CopyTo(PVOID Destination, PVOID Source, ULONG ByteCount) = 0;
    virtual void STDMETHODCALLTYPE CopyFrom(PVOID Destination, PVOID Source, ULONG ByteCount) = 0;
};
typedef IDmaChannel* PDMACHANNEL;

struct IDmaChannelSlave : IDmaChannel {
    virtual NTSTATUS STDMETHODCALLTYPE Start(ULONG MapSize, BOOLEAN WriteToDevice) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE Stop() = 0;
    virtual ULONG STDMETHODCALLTYPE ReadCounter() = 0;
    virtual NTSTATUS STDMETHODCALLTYPE WaitForTC(ULONG Timeout) = 0;
};
typedef IDmaChannelSlave* PDMACHANNELSLAVE;

typedef int DEVICE_REGISTRY_PROPERTY;
struct IRegistryKey;
typedef IRegistryKey* PREGISTRYKEY;
typedef ULONG ACCESS_MASK;
typedef struct _OBJECT_ATTRIBUTES* POBJECT_ATTRIBUTES;
typedef int DMA_SPEED;
typedef int DMA_WIDTH;

struct IPort : IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE Init(PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                            PUNKNOWN UnknownMiniport, PUNKNOWN UnknownAdapter,
                                            PRESOURCELIST ResourceList) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE GetDeviceProperty(DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                                         ULONG BufferLength, PVOID PropertyBuffer,
                                                         PULONG ResultLength) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE NewRegistryKey(PREGISTRYKEY* OutRegistryKey,
                                                      PUNKNOWN OuterUnknown, ULONG RegistryKeyType,
                                                      ACCESS_MASK DesiredAccess,
                                                      POBJECT_ATTRIBUTES ObjectAttributes,
                                                      ULONG CreateOptions, PULONG Disposition) = 0;
};
typedef IPort* PPORT;

struct IPortTopology : IPort {};
typedef IPortTopology* PPORTTOPOLOGY;

struct IPortWaveCyclic : IPort {
    virtual void STDMETHODCALLTYPE Notify(PSERVICEGROUP ServiceGroup) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE NewSlaveDmaChannel(
        PDMACHANNELSLAVE* DmaChannel, PUNKNOWN OuterUnknown, PRESOURCELIST ResourceList,
        ULONG DmaIndex, ULONG MaximumLength, BOOLEAN DemandMode, DMA_SPEED DmaSpeed) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE
    NewMasterDmaChannel(PDMACHANNEL* DmaChannel, PUNKNOWN OuterUnknown, PRESOURCELIST ResourceList,
                        ULONG MaximumLength, BOOLEAN Dma32BitAddresses, BOOLEAN Dma64BitAddresses,
                        DMA_WIDTH DmaWidth, DMA_SPEED DmaSpeed) = 0;
};
typedef IPortWaveCyclic* PPORTWAVECYCLIC;

struct IPortEvents : IUnknown {
    virtual void STDMETHODCALLTYPE AddEventToEventList(PKSEVENT_ENTRY EventEntry) = 0;
    virtual void STDMETHODCALLTYPE GenerateEventList(GUID* Set, ULONG EventId, BOOL PinEvent,
                                                     ULONG PinId, BOOL NodeEvent, ULONG NodeId) = 0;
};
typedef IPortEvents* PPORTEVENTS;

struct IMiniport : IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE GetDescription(PPCFILTER_DESCRIPTOR* Description) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE DataRangeIntersection(ULONG PinId, PKSDATARANGE DataRange,
                                                             PKSDATARANGE MatchingDataRange,
                                                             ULONG OutputBufferLength,
                                                             PVOID ResultantFormat,
                                                             PULONG ResultantFormatLength) = 0;
};
typedef IMiniport* PMINIPORT;

struct IMiniportTopology : IMiniport {
    virtual NTSTATUS STDMETHODCALLTYPE Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList,
                                            PPORTTOPOLOGY Port) = 0;
};
typedef IMiniportTopology* PMINIPORTTOPOLOGY;

struct IMiniportWaveCyclicStream : IUnknown {
    virtual NTSTATUS STDMETHODCALLTYPE SetFormat(PKSDATAFORMAT DataFormat) = 0;
    virtual ULONG STDMETHODCALLTYPE SetNotificationFreq(ULONG Interval, PULONG FrameSize) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE SetState(KSSTATE State) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE GetPosition(PULONG Position) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE NormalizePhysicalPosition(PLONGLONG PhysicalPosition) = 0;
    virtual void STDMETHODCALLTYPE Silence(PVOID Buffer, ULONG ByteCount) = 0;
};
typedef IMiniportWaveCyclicStream* PMINIPORTWAVECYCLICSTREAM;

struct IMiniportWaveCyclic : IMiniport {
    virtual NTSTATUS STDMETHODCALLTYPE Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList,
                                            PPORTWAVECYCLIC Port) = 0;
    virtual NTSTATUS STDMETHODCALLTYPE NewStream(PMINIPORTWAVECYCLICSTREAM* Stream,
                                                 PUNKNOWN OuterUnknown, POOL_TYPE PoolType,
                                                 ULONG Pin, BOOLEAN Capture,
                                                 PKSDATAFORMAT DataFormat, PDMACHANNEL* DmaChannel,
                                                 PSERVICEGROUP* ServiceGroup) = 0;
};
typedef IMiniportWaveCyclic* PMINIPORTWAVECYCLIC;

// ---- Port-class entry points ----

typedef NTSTATUS(NTAPI* PCPFNSTARTDEVICE)(PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                          PRESOURCELIST ResourceList);

extern "C" {
NTSTATUS NTAPI PcInitializeAdapterDriver(PDRIVER_OBJECT DriverObject,
                                         PUNICODE_STRING RegistryPathName,
                                         PDRIVER_ADD_DEVICE AddDevice);
NTSTATUS NTAPI PcAddAdapterDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                  PCPFNSTARTDEVICE StartDevice, ULONG MaxObjects,
                                  ULONG DeviceExtensionSize);
NTSTATUS NTAPI PcNewPort(PPORT* OutPort, REFCLSID ClassId);
NTSTATUS NTAPI PcRegisterSubdevice(PDEVICE_OBJECT DeviceObject, PWSTR Name, PUNKNOWN Unknown);
NTSTATUS NTAPI PcRegisterPhysicalConnection(PDEVICE_OBJECT DeviceObject, PUNKNOWN FromUnknown,
                                            ULONG FromPin, PUNKNOWN ToUnknown, ULONG ToPin);
NTSTATUS NTAPI PcNewServiceGroup(PSERVICEGROUP* OutServiceGroup, PUNKNOWN OuterUnknown);
}

// ---- Identifiers (defined in platform/guids.cpp on host) ----

DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
            0x46);
DEFINE_GUID(CLSID_PortTopology, 0xB4C90A32, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11,
            0xB5, 0x44);
DEFINE_GUID(CLSID_PortWaveCyclic, 0xB4C90A2A, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11,
            0xB5, 0x44);
DEFINE_GUID(IID_IPort, 0xB4C90A25, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5, 0x44);
DEFINE_GUID(IID_IPortTopology, 0xB4C90A30, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5,
            0x44);
DEFINE_GUID(IID_IPortWaveCyclic, 0xB4C90A26, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11,
            0xB5, 0x44);
DEFINE_GUID(IID_IMiniport, 0xB4C90A24, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5,
            0x44);
DEFINE_GUID(IID_IMiniportTopology, 0xB4C90A31, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11,
            0xB5, 0x44);
DEFINE_GUID(IID_IMiniportWaveCyclic, 0xB4C90A27, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11,
            0xB5, 0x44);
DEFINE_GUID(IID_IMiniportWaveCyclicStream, 0xB4C90A28, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9,
            0x11, 0xB5, 0x44);
DEFINE_GUID(IID_IDmaChannel, 0x22C6AC61, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC,
            0xFE);
DEFINE_GUID(IID_IDmaChannelSlave, 0x22C6AC62, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38,
            0xAC, 0xFE);
DEFINE_GUID(IID_IServiceSink, 0x22C6AC64, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC,
            0xFE);
DEFINE_GUID(IID_IServiceGroup, 0x22C6AC65, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC,
            0xFE);
DEFINE_GUID(IID_IPortEvents, 0xA80F29C4, 0x5498, 0x11D2, 0x95, 0xD9, 0x00, 0xC0, 0x4F, 0xB9, 0x25,
            0xD3);

DEFINE_GUID(KSCATEGORY_AUDIO, 0x6994AD04, 0x93EF, 0x11D0, 0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31,
            0x96);
DEFINE_GUID(KSCATEGORY_CAPTURE, 0x65E8773D, 0x8F56, 0x11D0, 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22,
            0x31, 0x96);
DEFINE_GUID(KSCATEGORY_RENDER, 0x65E8773E, 0x8F56, 0x11D0, 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31,
            0x96);
DEFINE_GUID(KSCATEGORY_TOPOLOGY, 0xDDA54A40, 0x1E4C, 0x11D1, 0xA0, 0x50, 0x40, 0x57, 0x05, 0xC1,
            0x00, 0x00);
DEFINE_GUID(KSAUDFNAME_LINE_IN, 0x185FEDF9, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9,
            0x25, 0xD3);
DEFINE_GUID(KSAUDFNAME_VOLUME_CONTROL, 0x185FEDF7, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F,
            0xB9, 0x25, 0xD3);
DEFINE_GUID(KSAUDFNAME_WAVE_MUTE, 0x185FEDE6, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9,
            0x25, 0xD3);
DEFINE_GUID(KSAUDFNAME_WAVE_VOLUME, 0x185FEDE5, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9,
            0x25, 0xD3);
DEFINE_GUID(KSAUDFNAME_LINE_MUTE, 0x185FEDEC, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9,
            0x25, 0xD3);
DEFINE_GUID(KSAUDFNAME_LINE_VOLUME, 0x185FEDEB, 0x9905, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9,
            0x25, 0xD3);
DEFINE_GUID(KSNODETYPE_LINE_CONNECTOR, 0xDFF21FE3, 0xF70F, 0x11D0, 0xB9, 0x17, 0x00, 0xA0, 0xC9,
            0x22, 0x31, 0x96);
DEFINE_GUID(KSNODETYPE_LEGACY_AUDIO_CONNECTOR, 0xDFF21FE4, 0xF70F, 0x11D0, 0xB9, 0x17, 0x00, 0xA0,
            0xC9, 0x22, 0x31, 0x96);
DEFINE_GUID(KSNODETYPE_SPEAKER, 0xDFF21CE1, 0xF70F, 0x11D0, 0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22,
            0x31, 0x96);
DEFINE_GUID(KSNODETYPE_ADC, 0x4D837FE0, 0xC555, 0x11D0, 0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A,
            0xC1);
DEFINE_GUID(KSNODETYPE_DAC, 0x507AE360, 0xC554, 0x11D0, 0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A,
            0xC1);
DEFINE_GUID(KSNODETYPE_MUTE, 0x02B223C0, 0xC557, 0x11D0, 0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A,
            0xC1);
DEFINE_GUID(KSNODETYPE_VOLUME, 0x3A5ACC00, 0xC557, 0x11D0, 0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A,
            0xC1);
DEFINE_GUID(KSDATAFORMAT_TYPE_AUDIO, 0x73647561, 0x0000, 0x0010, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38,
            0x9B, 0x71);
DEFINE_GUID(KSDATAFORMAT_SUBTYPE_PCM, 0x00000001, 0x0000, 0x0010, 0x80, 0x00, 0x00, 0xAA, 0x00,
            0x38, 0x9B, 0x71);
DEFINE_GUID(KSDATAFORMAT_SUBTYPE_ANALOG, 0x6DBA3190, 0x67BD, 0x11CF, 0xA0, 0xF7, 0x00, 0x20, 0xAF,
            0xD1, 0x56, 0xE4);
DEFINE_GUID(KSDATAFORMAT_SPECIFIER_WAVEFORMATEX, 0x05589F81, 0xC356, 0x11CE, 0xBF, 0x01, 0x00, 0xAA,
            0x00, 0x55, 0x59, 0x5A);
DEFINE_GUID(KSDATAFORMAT_SPECIFIER_NONE, 0x0F6417D6, 0xC318, 0x11D0, 0xA4, 0x3F, 0x00, 0xA0, 0xC9,
            0x22, 0x31, 0x96);
DEFINE_GUID(KSPROPSETID_Audio, 0x45FFAAA0, 0x6E1B, 0x11D0, 0xBC, 0xF2, 0x44, 0x45, 0x53, 0x54, 0x00,
            0x00);
DEFINE_GUID(KSPROPTYPESETID_General, 0x97E99BA0, 0xBDEA, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1,
            0x00, 0x00);
