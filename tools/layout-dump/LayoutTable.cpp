// The layout table: sizes, alignments and field offsets of every structure
// the driver shares with Windows, the port-class library or the USB driver;
// the vtable slot of every interface operation; the values of the constants
// and GUIDs the driver relies on. Compiled against driver/platform/platform.h
// in both builds (host declarations / DDK headers) into a constant table in
// section MME_LAYOUT_SECTION; see LayoutFormat.h.
//
// It also names, in unevaluated operands, every other platform function,
// macro, type and field the host declares, so a name missing from the
// Windows branch fails this build rather than the driver's.
#include "driver/platform/platform.h"

#include "LayoutFormat.h"
#include "driver/common/AudioSM.h"
#include "driver/common/MMEAdapterInfo.h"

namespace {

template <typename T> union Value {
    T value;
    char bytes[MME_LAYOUT_VALUE_SIZE];
};

template <typename A, typename B> struct Record {
    MMELayoutRecordHead head;
    Value<A> first;
    Value<B> second;
    char tail[MME_LAYOUT_RECORD_SIZE - MME_LAYOUT_SECOND_OFFSET - MME_LAYOUT_VALUE_SIZE];
};
typedef Record<uint64_t, uint64_t> NumberRecord;
static_assert(sizeof(NumberRecord) == MME_LAYOUT_RECORD_SIZE, "record size");

// Where the platform replaces a DDK interface declaration, the DDK's own one
// (renamed by win/ddk.h) is the reference for slot numbers.
#ifdef _WIN32
#define MME_DDK_DECLARATION(iface) MMEDdk##iface
#else
#define MME_DDK_DECLARATION(iface) iface
#endif

// The calling convention of a function, function pointer or member function
// type: the Windows x64 one, or the System V one that g++ uses by default on
// Linux. The convention is part of the type, so only a routine declared
// with the Windows one matches those specialisations; under mingw every
// routine has it. The image and the host call each other directly, so every
// routine that crosses between them must come out as kCallWindows on host.
template <typename F> struct CallOf;
#define MME_CALL_FORMS(convention, value)                                                          \
    template <typename R, typename C, typename... A> struct CallOf<R (convention C::*)(A...)> {    \
        typedef R result;                                                                          \
        static constexpr uint64_t call = value;                                                    \
    };                                                                                             \
    template <typename R, typename... A> struct CallOf<R(convention*)(A...)> {                     \
        typedef R result;                                                                          \
        static constexpr uint64_t call = value;                                                    \
    };                                                                                             \
    template <typename R, typename... A> struct CallOf<R(convention*)(A..., ...)> {                \
        typedef R result;                                                                          \
        static constexpr uint64_t call = value;                                                    \
    };
#ifdef _WIN32
MME_CALL_FORMS(, kCallWindows)
#else
MME_CALL_FORMS(, kCallSystemV)
MME_CALL_FORMS(__attribute__((ms_abi)), kCallWindows)
#endif
#undef MME_CALL_FORMS

// MSVC returns a struct or union from a member function through a hidden
// pointer after `this`, whatever its size; g++ under the Windows convention
// does so only above 8 bytes and returns LARGE_INTEGER or PHYSICAL_ADDRESS in
// RAX. An interface slot the port-class library calls or implements must
// therefore not return one (win/ddk.h spells out the one the DDK has,
// IDmaChannel::PhysicalAddress). Free functions agree on both compilers.
template <typename F> constexpr bool returnsNoAggregate() {
    return !__is_class(typename CallOf<F>::result) && !__is_union(typename CallOf<F>::result);
}

#define MME_ID2(a, b) a##b
#define MME_ID(a, b) MME_ID2(a, b)
#define MME_MEMBER MME_ID(record, __COUNTER__)

#define MME_NUMBER(name, kind, number)                                                             \
    NumberRecord MME_MEMBER = {{name, kind, 0}, {(uint64_t)(number)}, {0}, {}}
#define MME_SIZE(T) MME_NUMBER(#T, kLayoutSize, sizeof(T))
#define MME_ALIGN(T) MME_NUMBER(#T, kLayoutAlign, alignof(T))
#define MME_OFFSET(T, field) MME_NUMBER(#T "." #field, kLayoutOffset, offsetof(T, field))
// Sign-extended, so a negative status reads the same whatever its type's width.
#define MME_VALUE(X) MME_NUMBER(#X, kLayoutValue, (int64_t)(X))
#define MME_SIGNED(T) MME_NUMBER(#T " signed", kLayoutValue, ((T)-1 < (T)0))
#define MME_SLOT_OF(iface, reference, method)                                                      \
    static_assert(returnsNoAggregate<decltype(&iface::method)>(),                                  \
                  #iface "::" #method " returns a struct");                                        \
    Record<decltype(&iface::method), decltype(&reference::method)> MME_MEMBER = {                  \
        {#iface "::" #method, kLayoutSlot, 0}, {&iface::method}, {&reference::method}, {}};        \
    MME_CALL_TYPE(#iface "::" #method, decltype(&iface::method))
// The convention of a routine type (F) or of a function (function name).
#define MME_CALL_TYPE(name, F) MME_NUMBER(name, kLayoutCall, CallOf<F>::call)
#define MME_CALL_OF(function) MME_CALL_TYPE(#function, decltype(&function))
#define MME_SLOT(iface, method) MME_SLOT_OF(iface, iface, method)
#define MME_REPLACED_SLOT(iface, method) MME_SLOT_OF(iface, MME_DDK_DECLARATION(iface), method)
#define MME_GUID(G) Record<const GUID*, uint64_t> MME_MEMBER = {{#G, kLayoutGuid, 0}, {&G}, {0}, {}}

struct Table {
    // ---- Scalar types ----
    MME_SIZE(CHAR);
    MME_SIZE(EX_RUNDOWN_REF);
    MME_SIGNED(CHAR);
    MME_SIZE(UCHAR);
    MME_SIGNED(UCHAR);
    MME_SIZE(BYTE);
    MME_SIGNED(BYTE);
    MME_SIZE(CCHAR);
    MME_SIGNED(CCHAR);
    MME_SIZE(SHORT);
    MME_SIGNED(SHORT);
    MME_SIZE(CSHORT);
    MME_SIGNED(CSHORT);
    MME_SIZE(USHORT);
    MME_SIGNED(USHORT);
    MME_SIZE(WORD);
    MME_SIGNED(WORD);
    MME_SIZE(LONG);
    MME_SIGNED(LONG);
    MME_SIZE(ULONG);
    MME_SIGNED(ULONG);
    MME_SIZE(DWORD);
    MME_SIGNED(DWORD);
    MME_SIZE(INT);
    MME_SIGNED(INT);
    MME_SIZE(UINT);
    MME_SIGNED(UINT);
    MME_SIZE(BOOL);
    MME_SIGNED(BOOL);
    MME_SIZE(BOOLEAN);
    MME_SIGNED(BOOLEAN);
    MME_SIZE(LONGLONG);
    MME_SIGNED(LONGLONG);
    MME_SIZE(ULONGLONG);
    MME_SIGNED(ULONGLONG);
    MME_SIZE(ULONG64);
    MME_SIGNED(ULONG64);
    MME_SIZE(ULONG_PTR);
    MME_SIGNED(ULONG_PTR);
    MME_SIZE(LONG_PTR);
    MME_SIGNED(LONG_PTR);
    MME_SIZE(SIZE_T);
    MME_SIGNED(SIZE_T);
    MME_SIZE(NTSTATUS);
    MME_SIGNED(NTSTATUS);
    MME_SIZE(KIRQL);
    MME_SIGNED(KIRQL);
    MME_SIZE(KSPIN_LOCK);
    MME_SIGNED(KSPIN_LOCK);
    MME_SIZE(PVOID);
    MME_SIZE(WCHAR);
    MME_SIGNED(WCHAR);

    // ---- Kernel records ----
    MME_SIZE(LARGE_INTEGER);
    MME_OFFSET(LARGE_INTEGER, LowPart);
    MME_OFFSET(LARGE_INTEGER, HighPart);
    MME_OFFSET(LARGE_INTEGER, u.LowPart);
    MME_OFFSET(LARGE_INTEGER, u.HighPart);
    MME_OFFSET(LARGE_INTEGER, QuadPart);
    MME_SIZE(ULARGE_INTEGER);
    MME_OFFSET(ULARGE_INTEGER, LowPart);
    MME_OFFSET(ULARGE_INTEGER, HighPart);
    MME_OFFSET(ULARGE_INTEGER, QuadPart);
    MME_SIZE(PHYSICAL_ADDRESS);
    MME_SIZE(LIST_ENTRY);
    MME_OFFSET(LIST_ENTRY, Flink);
    MME_OFFSET(LIST_ENTRY, Blink);
    MME_SIZE(UNICODE_STRING);
    MME_OFFSET(UNICODE_STRING, Length);
    MME_OFFSET(UNICODE_STRING, MaximumLength);
    MME_OFFSET(UNICODE_STRING, Buffer);
    MME_SIZE(IO_STATUS_BLOCK);
    MME_OFFSET(IO_STATUS_BLOCK, Status);
    MME_OFFSET(IO_STATUS_BLOCK, Information);

    // The image reads and writes these itself (IoGetNextIrpStackLocation,
    // IoSetCompletionRoutine, the device's stack size), and embeds the
    // timer and DPC in its own objects.
    MME_SIZE(DRIVER_EXTENSION);
    MME_OFFSET(DRIVER_EXTENSION, DriverObject);
    MME_OFFSET(DRIVER_EXTENSION, AddDevice);
    MME_OFFSET(DRIVER_EXTENSION, Count);
    MME_OFFSET(DRIVER_EXTENSION, ServiceKeyName);
    MME_SIZE(DRIVER_OBJECT);
    MME_OFFSET(DRIVER_OBJECT, Type);
    MME_OFFSET(DRIVER_OBJECT, Size);
    MME_OFFSET(DRIVER_OBJECT, DeviceObject);
    MME_OFFSET(DRIVER_OBJECT, Flags);
    MME_OFFSET(DRIVER_OBJECT, DriverStart);
    MME_OFFSET(DRIVER_OBJECT, DriverSize);
    MME_OFFSET(DRIVER_OBJECT, DriverSection);
    MME_OFFSET(DRIVER_OBJECT, DriverExtension);
    MME_OFFSET(DRIVER_OBJECT, DriverName);
    MME_OFFSET(DRIVER_OBJECT, HardwareDatabase);
    MME_OFFSET(DRIVER_OBJECT, FastIoDispatch);
    MME_OFFSET(DRIVER_OBJECT, DriverInit);
    MME_OFFSET(DRIVER_OBJECT, DriverStartIo);
    MME_OFFSET(DRIVER_OBJECT, DriverUnload);
    MME_OFFSET(DRIVER_OBJECT, MajorFunction);
    MME_SIZE(DEVICE_OBJECT);
    MME_OFFSET(DEVICE_OBJECT, Type);
    MME_OFFSET(DEVICE_OBJECT, Size);
    MME_OFFSET(DEVICE_OBJECT, ReferenceCount);
    MME_OFFSET(DEVICE_OBJECT, DriverObject);
    MME_OFFSET(DEVICE_OBJECT, NextDevice);
    MME_OFFSET(DEVICE_OBJECT, AttachedDevice);
    MME_OFFSET(DEVICE_OBJECT, CurrentIrp);
    MME_OFFSET(DEVICE_OBJECT, Flags);
    MME_OFFSET(DEVICE_OBJECT, Characteristics);
    MME_OFFSET(DEVICE_OBJECT, DeviceExtension);
    MME_OFFSET(DEVICE_OBJECT, DeviceType);
    MME_OFFSET(DEVICE_OBJECT, StackSize);
    MME_OFFSET(DEVICE_OBJECT, Queue);
    MME_OFFSET(DEVICE_OBJECT, AlignmentRequirement);
    MME_OFFSET(DEVICE_OBJECT, DeviceQueue);
    MME_OFFSET(DEVICE_OBJECT, Dpc);
    MME_OFFSET(DEVICE_OBJECT, ActiveThreadCount);
    MME_OFFSET(DEVICE_OBJECT, SecurityDescriptor);
    MME_OFFSET(DEVICE_OBJECT, DeviceLock);
    MME_OFFSET(DEVICE_OBJECT, SectorSize);
    MME_OFFSET(DEVICE_OBJECT, DeviceObjectExtension);
    MME_OFFSET(DEVICE_OBJECT, Reserved);
    MME_SIZE(IO_STACK_LOCATION);
    MME_OFFSET(IO_STACK_LOCATION, MajorFunction);
    MME_OFFSET(IO_STACK_LOCATION, MinorFunction);
    MME_OFFSET(IO_STACK_LOCATION, Flags);
    MME_OFFSET(IO_STACK_LOCATION, Control);
    MME_OFFSET(IO_STACK_LOCATION, Parameters);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.Others.Argument1);
    MME_OFFSET(IO_STACK_LOCATION, Parameters.Others.Argument4);
    MME_OFFSET(IO_STACK_LOCATION, DeviceObject);
    MME_OFFSET(IO_STACK_LOCATION, FileObject);
    MME_OFFSET(IO_STACK_LOCATION, CompletionRoutine);
    MME_OFFSET(IO_STACK_LOCATION, Context);
    MME_SIZE(IRP);
    MME_ALIGN(IRP);
    MME_OFFSET(IRP, Type);
    MME_OFFSET(IRP, Size);
    MME_OFFSET(IRP, MdlAddress);
    MME_OFFSET(IRP, Flags);
    MME_OFFSET(IRP, AssociatedIrp);
    MME_OFFSET(IRP, ThreadListEntry);
    MME_OFFSET(IRP, IoStatus);
    MME_OFFSET(IRP, IoStatus.Status);
    MME_OFFSET(IRP, IoStatus.Information);
    MME_OFFSET(IRP, RequestorMode);
    MME_OFFSET(IRP, PendingReturned);
    MME_OFFSET(IRP, StackCount);
    MME_OFFSET(IRP, CurrentLocation);
    MME_OFFSET(IRP, Cancel);
    MME_OFFSET(IRP, CancelIrql);
    MME_OFFSET(IRP, UserIosb);
    MME_OFFSET(IRP, UserEvent);
    MME_OFFSET(IRP, Overlay);
    MME_OFFSET(IRP, CancelRoutine);
    MME_OFFSET(IRP, UserBuffer);
    MME_OFFSET(IRP, Tail);
    MME_OFFSET(IRP, Tail.Overlay.Thread);
    MME_OFFSET(IRP, Tail.Overlay.ListEntry);
    MME_OFFSET(IRP, Tail.Overlay.CurrentStackLocation);
    MME_OFFSET(IRP, Tail.Overlay.OriginalFileObject);
    MME_SIZE(KDPC);
    MME_ALIGN(KDPC);
    MME_OFFSET(KDPC, Type);
    MME_OFFSET(KDPC, Importance);
    MME_OFFSET(KDPC, DeferredRoutine);
    MME_OFFSET(KDPC, DeferredContext);
    MME_OFFSET(KDPC, SystemArgument1);
    MME_OFFSET(KDPC, SystemArgument2);
    MME_OFFSET(KDPC, DpcData);
    MME_SIZE(KTIMER);
    MME_ALIGN(KTIMER);
    MME_OFFSET(KTIMER, Header);
    MME_OFFSET(KTIMER, DueTime);
    MME_OFFSET(KTIMER, TimerListEntry);
    MME_OFFSET(KTIMER, Dpc);
    MME_OFFSET(KTIMER, Period);

    // ---- GUIDs and kernel-streaming records ----
    MME_SIZE(GUID);
    MME_OFFSET(GUID, Data1);
    MME_OFFSET(GUID, Data2);
    MME_OFFSET(GUID, Data3);
    MME_OFFSET(GUID, Data4);
    MME_SIZE(KSIDENTIFIER);
    MME_ALIGN(KSIDENTIFIER);
    MME_OFFSET(KSIDENTIFIER, Set);
    MME_OFFSET(KSIDENTIFIER, Id);
    MME_OFFSET(KSIDENTIFIER, Flags);
    MME_SIZE(KSPROPERTY);
    MME_SIZE(KSEVENT);
    MME_SIZE(KSPIN_INTERFACE);
    MME_SIZE(KSPIN_MEDIUM);
    MME_SIZE(KSNODEPROPERTY);
    MME_OFFSET(KSNODEPROPERTY, Property);
    MME_OFFSET(KSNODEPROPERTY, NodeId);
    MME_OFFSET(KSNODEPROPERTY, Reserved);
    MME_SIZE(KSNODEPROPERTY_AUDIO_CHANNEL);
    MME_OFFSET(KSNODEPROPERTY_AUDIO_CHANNEL, NodeProperty);
    MME_OFFSET(KSNODEPROPERTY_AUDIO_CHANNEL, Channel);
    MME_OFFSET(KSNODEPROPERTY_AUDIO_CHANNEL, Reserved);
    MME_SIZE(KSPROPERTY_DESCRIPTION);
    MME_OFFSET(KSPROPERTY_DESCRIPTION, AccessFlags);
    MME_OFFSET(KSPROPERTY_DESCRIPTION, DescriptionSize);
    MME_OFFSET(KSPROPERTY_DESCRIPTION, PropTypeSet);
    MME_OFFSET(KSPROPERTY_DESCRIPTION, MembersListCount);
    MME_OFFSET(KSPROPERTY_DESCRIPTION, Reserved);
    MME_SIZE(KSPROPERTY_MEMBERSHEADER);
    MME_OFFSET(KSPROPERTY_MEMBERSHEADER, MembersFlags);
    MME_OFFSET(KSPROPERTY_MEMBERSHEADER, MembersSize);
    MME_OFFSET(KSPROPERTY_MEMBERSHEADER, MembersCount);
    MME_OFFSET(KSPROPERTY_MEMBERSHEADER, Flags);
    MME_SIZE(KSPROPERTY_BOUNDS_LONG);
    MME_OFFSET(KSPROPERTY_BOUNDS_LONG, SignedMinimum);
    MME_OFFSET(KSPROPERTY_BOUNDS_LONG, SignedMaximum);
    MME_OFFSET(KSPROPERTY_BOUNDS_LONG, UnsignedMinimum);
    MME_OFFSET(KSPROPERTY_BOUNDS_LONG, UnsignedMaximum);
    MME_SIZE(KSPROPERTY_STEPPING_LONG);
    MME_OFFSET(KSPROPERTY_STEPPING_LONG, SteppingDelta);
    MME_OFFSET(KSPROPERTY_STEPPING_LONG, Reserved);
    MME_OFFSET(KSPROPERTY_STEPPING_LONG, Bounds);
    MME_SIZE(KSDATAFORMAT);
    MME_ALIGN(KSDATAFORMAT);
    MME_OFFSET(KSDATAFORMAT, FormatSize);
    MME_OFFSET(KSDATAFORMAT, Flags);
    MME_OFFSET(KSDATAFORMAT, SampleSize);
    MME_OFFSET(KSDATAFORMAT, Reserved);
    MME_OFFSET(KSDATAFORMAT, MajorFormat);
    MME_OFFSET(KSDATAFORMAT, SubFormat);
    MME_OFFSET(KSDATAFORMAT, Specifier);
    MME_SIZE(KSDATARANGE);
    MME_ALIGN(KSDATARANGE);
    MME_SIZE(KSDATARANGE_AUDIO);
    MME_ALIGN(KSDATARANGE_AUDIO);
    MME_OFFSET(KSDATARANGE_AUDIO, DataRange);
    MME_OFFSET(KSDATARANGE_AUDIO, MaximumChannels);
    MME_OFFSET(KSDATARANGE_AUDIO, MinimumBitsPerSample);
    MME_OFFSET(KSDATARANGE_AUDIO, MaximumBitsPerSample);
    MME_OFFSET(KSDATARANGE_AUDIO, MinimumSampleFrequency);
    MME_OFFSET(KSDATARANGE_AUDIO, MaximumSampleFrequency);
    MME_SIZE(KSPIN_DESCRIPTOR);
    MME_ALIGN(KSPIN_DESCRIPTOR);
    MME_OFFSET(KSPIN_DESCRIPTOR, InterfacesCount);
    MME_OFFSET(KSPIN_DESCRIPTOR, Interfaces);
    MME_OFFSET(KSPIN_DESCRIPTOR, MediumsCount);
    MME_OFFSET(KSPIN_DESCRIPTOR, Mediums);
    MME_OFFSET(KSPIN_DESCRIPTOR, DataRangesCount);
    MME_OFFSET(KSPIN_DESCRIPTOR, DataRanges);
    MME_OFFSET(KSPIN_DESCRIPTOR, DataFlow);
    MME_OFFSET(KSPIN_DESCRIPTOR, Communication);
    MME_OFFSET(KSPIN_DESCRIPTOR, Category);
    MME_OFFSET(KSPIN_DESCRIPTOR, Name);
    MME_OFFSET(KSPIN_DESCRIPTOR, Reserved);
    MME_OFFSET(KSPIN_DESCRIPTOR, ConstrainedDataRangesCount);
    MME_OFFSET(KSPIN_DESCRIPTOR, ConstrainedDataRanges);
    MME_SIZE(KSSTATE);
    MME_SIZE(KSPIN_DATAFLOW);
    MME_SIZE(KSPIN_COMMUNICATION);

    // ---- Wave formats ----
    MME_SIZE(WAVEFORMATEX);
    MME_ALIGN(WAVEFORMATEX);
    MME_OFFSET(WAVEFORMATEX, wFormatTag);
    MME_OFFSET(WAVEFORMATEX, nChannels);
    MME_OFFSET(WAVEFORMATEX, nSamplesPerSec);
    MME_OFFSET(WAVEFORMATEX, nAvgBytesPerSec);
    MME_OFFSET(WAVEFORMATEX, nBlockAlign);
    MME_OFFSET(WAVEFORMATEX, wBitsPerSample);
    MME_OFFSET(WAVEFORMATEX, cbSize);
    MME_SIZE(WAVEFORMATEXTENSIBLE);
    MME_ALIGN(WAVEFORMATEXTENSIBLE);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, Format);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, Samples.wValidBitsPerSample);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, Samples.wSamplesPerBlock);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, Samples.wReserved);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, dwChannelMask);
    MME_OFFSET(WAVEFORMATEXTENSIBLE, SubFormat);
    MME_SIZE(KSDATAFORMAT_WAVEFORMATEX);
    MME_OFFSET(KSDATAFORMAT_WAVEFORMATEX, DataFormat);
    MME_OFFSET(KSDATAFORMAT_WAVEFORMATEX, WaveFormatEx);
    MME_SIZE(KSDATAFORMAT_WAVEFORMATEXTENSIBLE);
    MME_OFFSET(KSDATAFORMAT_WAVEFORMATEXTENSIBLE, DataFormat);
    MME_OFFSET(KSDATAFORMAT_WAVEFORMATEXTENSIBLE, WaveFormatExt);

    // ---- Port-class records ----
    MME_SIZE(PCPROPERTY_ITEM);
    MME_OFFSET(PCPROPERTY_ITEM, Set);
    MME_OFFSET(PCPROPERTY_ITEM, Id);
    MME_OFFSET(PCPROPERTY_ITEM, Flags);
    MME_OFFSET(PCPROPERTY_ITEM, Handler);
    MME_SIZE(PCEVENT_ITEM);
    MME_OFFSET(PCEVENT_ITEM, Set);
    MME_OFFSET(PCEVENT_ITEM, Id);
    MME_OFFSET(PCEVENT_ITEM, Flags);
    MME_OFFSET(PCEVENT_ITEM, Handler);
    MME_SIZE(PCMETHOD_ITEM);
    MME_OFFSET(PCMETHOD_ITEM, Set);
    MME_OFFSET(PCMETHOD_ITEM, Id);
    MME_OFFSET(PCMETHOD_ITEM, Flags);
    MME_OFFSET(PCMETHOD_ITEM, Handler);
    MME_SIZE(PCAUTOMATION_TABLE);
    MME_OFFSET(PCAUTOMATION_TABLE, PropertyItemSize);
    MME_OFFSET(PCAUTOMATION_TABLE, PropertyCount);
    MME_OFFSET(PCAUTOMATION_TABLE, Properties);
    MME_OFFSET(PCAUTOMATION_TABLE, MethodItemSize);
    MME_OFFSET(PCAUTOMATION_TABLE, MethodCount);
    MME_OFFSET(PCAUTOMATION_TABLE, Methods);
    MME_OFFSET(PCAUTOMATION_TABLE, EventItemSize);
    MME_OFFSET(PCAUTOMATION_TABLE, EventCount);
    MME_OFFSET(PCAUTOMATION_TABLE, Events);
    MME_OFFSET(PCAUTOMATION_TABLE, Reserved);
    MME_SIZE(PCPIN_DESCRIPTOR);
    MME_OFFSET(PCPIN_DESCRIPTOR, MaxGlobalInstanceCount);
    MME_OFFSET(PCPIN_DESCRIPTOR, MaxFilterInstanceCount);
    MME_OFFSET(PCPIN_DESCRIPTOR, MinFilterInstanceCount);
    MME_OFFSET(PCPIN_DESCRIPTOR, AutomationTable);
    MME_OFFSET(PCPIN_DESCRIPTOR, KsPinDescriptor);
    MME_SIZE(PCNODE_DESCRIPTOR);
    MME_OFFSET(PCNODE_DESCRIPTOR, Flags);
    MME_OFFSET(PCNODE_DESCRIPTOR, AutomationTable);
    MME_OFFSET(PCNODE_DESCRIPTOR, Type);
    MME_OFFSET(PCNODE_DESCRIPTOR, Name);
    MME_SIZE(PCCONNECTION_DESCRIPTOR);
    MME_OFFSET(PCCONNECTION_DESCRIPTOR, FromNode);
    MME_OFFSET(PCCONNECTION_DESCRIPTOR, FromNodePin);
    MME_OFFSET(PCCONNECTION_DESCRIPTOR, ToNode);
    MME_OFFSET(PCCONNECTION_DESCRIPTOR, ToNodePin);
    MME_SIZE(PCFILTER_DESCRIPTOR);
    MME_OFFSET(PCFILTER_DESCRIPTOR, Version);
    MME_OFFSET(PCFILTER_DESCRIPTOR, AutomationTable);
    MME_OFFSET(PCFILTER_DESCRIPTOR, PinSize);
    MME_OFFSET(PCFILTER_DESCRIPTOR, PinCount);
    MME_OFFSET(PCFILTER_DESCRIPTOR, Pins);
    MME_OFFSET(PCFILTER_DESCRIPTOR, NodeSize);
    MME_OFFSET(PCFILTER_DESCRIPTOR, NodeCount);
    MME_OFFSET(PCFILTER_DESCRIPTOR, Nodes);
    MME_OFFSET(PCFILTER_DESCRIPTOR, ConnectionCount);
    MME_OFFSET(PCFILTER_DESCRIPTOR, Connections);
    MME_OFFSET(PCFILTER_DESCRIPTOR, CategoryCount);
    MME_OFFSET(PCFILTER_DESCRIPTOR, Categories);
    MME_SIZE(PCPROPERTY_REQUEST);
    MME_OFFSET(PCPROPERTY_REQUEST, MajorTarget);
    MME_OFFSET(PCPROPERTY_REQUEST, MinorTarget);
    MME_OFFSET(PCPROPERTY_REQUEST, Node);
    MME_OFFSET(PCPROPERTY_REQUEST, PropertyItem);
    MME_OFFSET(PCPROPERTY_REQUEST, Verb);
    MME_OFFSET(PCPROPERTY_REQUEST, InstanceSize);
    MME_OFFSET(PCPROPERTY_REQUEST, Instance);
    MME_OFFSET(PCPROPERTY_REQUEST, ValueSize);
    MME_OFFSET(PCPROPERTY_REQUEST, Value);
    MME_OFFSET(PCPROPERTY_REQUEST, Irp);
    MME_SIZE(PCEVENT_REQUEST);
    MME_OFFSET(PCEVENT_REQUEST, MajorTarget);
    MME_OFFSET(PCEVENT_REQUEST, MinorTarget);
    MME_OFFSET(PCEVENT_REQUEST, Node);
    MME_OFFSET(PCEVENT_REQUEST, EventItem);
    MME_OFFSET(PCEVENT_REQUEST, EventEntry);
    MME_OFFSET(PCEVENT_REQUEST, Verb);
    MME_OFFSET(PCEVENT_REQUEST, Irp);

    // ---- Records shared with the USB driver ----
    MME_SIZE(ChannelConfig);
    MME_OFFSET(ChannelConfig, fr);
    MME_OFFSET(ChannelConfig, inCH);
    MME_OFFSET(ChannelConfig, outCH);
    MME_OFFSET(ChannelConfig, inRes);
    MME_OFFSET(ChannelConfig, outRes);
    MME_OFFSET(ChannelConfig, config);
    MME_SIZE(HardwareSettings);
    MME_OFFSET(HardwareSettings, reserved0);
    MME_OFFSET(HardwareSettings, current);
    MME_OFFSET(HardwareSettings, reserved1);
    MME_OFFSET(HardwareSettings, mDigitalLockFrequency);
    MME_SIZE(MMEDeviceEndpoint);
    MME_OFFSET(MMEDeviceEndpoint, maxPacketSize);
    MME_OFFSET(MMEDeviceEndpoint, address);
    MME_OFFSET(MMEDeviceEndpoint, reserved);
    MME_SIZE(MMEDeviceAltSetting);
    MME_OFFSET(MMEDeviceAltSetting, flag);
    MME_OFFSET(MMEDeviceAltSetting, numEndpoints);
    MME_OFFSET(MMEDeviceAltSetting, bitsPerSample);
    MME_OFFSET(MMEDeviceAltSetting, channels);
    MME_OFFSET(MMEDeviceAltSetting, rateKind);
    MME_OFFSET(MMEDeviceAltSetting, numRates);
    MME_OFFSET(MMEDeviceAltSetting, lowestRate);
    MME_OFFSET(MMEDeviceAltSetting, highestRate);
    MME_OFFSET(MMEDeviceAltSetting, rates);
    MME_OFFSET(MMEDeviceAltSetting, endpoints);
    MME_SIZE(MMEDeviceInterface);
    MME_OFFSET(MMEDeviceInterface, direction);
    MME_OFFSET(MMEDeviceInterface, numAltSettings);
    MME_OFFSET(MMEDeviceInterface, altSettings);
    MME_SIZE(MMEDeviceConfiguration);
    MME_OFFSET(MMEDeviceConfiguration, numInterfaces);
    MME_OFFSET(MMEDeviceConfiguration, interfaces);
    MME_SIZE(MMEDeviceInfo);
    MME_OFFSET(MMEDeviceInfo, vendorId);
    MME_OFFSET(MMEDeviceInfo, productId);
    MME_OFFSET(MMEDeviceInfo, thirdWord);
    MME_OFFSET(MMEDeviceInfo, numConfigurations);
    MME_OFFSET(MMEDeviceInfo, configurations);
    MME_SIZE(MMEAdapterInfo);
    MME_OFFSET(MMEAdapterInfo, mpContext);
    MME_OFFSET(MMEAdapterInfo, mpfnNotify);
    MME_OFFSET(MMEAdapterInfo, mpfnStcCallback);
    MME_OFFSET(MMEAdapterInfo, mpfnExchangeData);
    MME_OFFSET(MMEAdapterInfo, mInterfaceVersion);
    MME_OFFSET(MMEAdapterInfo, mpAPIDeviceInfo);
    MME_OFFSET(MMEAdapterInfo, mpCaptureRing);
    MME_OFFSET(MMEAdapterInfo, mbAttached);
    MME_OFFSET(MMEAdapterInfo, mpSharedMemory);
    MME_OFFSET(MMEAdapterInfo, mpSettings);
    MME_OFFSET(MMEAdapterInfo, mVendorID);
    MME_OFFSET(MMEAdapterInfo, mProductID);
    MME_OFFSET(MMEAdapterInfo, mcAttachChannels);
    MME_SIZE(AudioSMClock);
    MME_OFFSET(AudioSMClock, framePos);
    MME_OFFSET(AudioSMClock, stamp);
    MME_OFFSET(AudioSMClock, rateNum);
    MME_OFFSET(AudioSMClock, rateDen);
    MME_SIZE(AudioSM);
    MME_OFFSET(AudioSM, mSamples);
    MME_OFFSET(AudioSM, mChannelsPerFrame);
    MME_OFFSET(AudioSM, mMaxFrames);
    MME_OFFSET(AudioSM, mExclInputs);
    MME_OFFSET(AudioSM, mWritePos);
    MME_OFFSET(AudioSM, mWriteOffset);
    MME_OFFSET(AudioSM, mClockA);
    MME_OFFSET(AudioSM, mClockB);
    MME_OFFSET(AudioSM, mClockSelect);
    MME_OFFSET(AudioSM, mMMEReadPos);

    // ---- Interface slots ----
    MME_SLOT(IUnknown, QueryInterface);
    MME_SLOT(IUnknown, AddRef);
    MME_SLOT(IUnknown, Release);
    MME_SLOT(IServiceSink, RequestService);
    MME_SLOT(IServiceGroup, AddMember);
    MME_SLOT(IServiceGroup, RemoveMember);
    MME_SLOT(IServiceGroup, SupportDelayedService);
    MME_SLOT(IServiceGroup, RequestDelayedService);
    MME_SLOT(IServiceGroup, CancelDelayedService);
    MME_REPLACED_SLOT(IDmaChannel, AllocateBuffer);
    MME_REPLACED_SLOT(IDmaChannel, FreeBuffer);
    MME_REPLACED_SLOT(IDmaChannel, TransferCount);
    MME_REPLACED_SLOT(IDmaChannel, MaximumBufferSize);
    MME_REPLACED_SLOT(IDmaChannel, AllocatedBufferSize);
    MME_REPLACED_SLOT(IDmaChannel, BufferSize);
    MME_REPLACED_SLOT(IDmaChannel, SetBufferSize);
    MME_REPLACED_SLOT(IDmaChannel, SystemAddress);
    MME_REPLACED_SLOT(IDmaChannel, PhysicalAddress);
    MME_REPLACED_SLOT(IDmaChannel, GetAdapterObject);
    MME_REPLACED_SLOT(IDmaChannel, CopyTo);
    MME_REPLACED_SLOT(IDmaChannel, CopyFrom);
    MME_REPLACED_SLOT(IDmaChannelSlave, Start);
    MME_REPLACED_SLOT(IDmaChannelSlave, Stop);
    MME_REPLACED_SLOT(IDmaChannelSlave, ReadCounter);
    MME_REPLACED_SLOT(IDmaChannelSlave, WaitForTC);
    MME_SLOT(IPort, Init);
    MME_SLOT(IPort, GetDeviceProperty);
    MME_SLOT(IPort, NewRegistryKey);
    MME_SLOT(IPortWaveCyclic, Notify);
    MME_SLOT(IPortWaveCyclic, NewSlaveDmaChannel);
    MME_SLOT(IPortWaveCyclic, NewMasterDmaChannel);
    MME_SLOT(IPortEvents, AddEventToEventList);
    MME_SLOT(IPortEvents, GenerateEventList);
    MME_SLOT(IMiniport, GetDescription);
    MME_SLOT(IMiniport, DataRangeIntersection);
    MME_SLOT(IMiniportTopology, Init);
    MME_SLOT(IMiniportWaveCyclicStream, SetFormat);
    MME_SLOT(IMiniportWaveCyclicStream, SetNotificationFreq);
    MME_SLOT(IMiniportWaveCyclicStream, SetState);
    MME_SLOT(IMiniportWaveCyclicStream, GetPosition);
    MME_SLOT(IMiniportWaveCyclicStream, NormalizePhysicalPosition);
    MME_SLOT(IMiniportWaveCyclicStream, Silence);
    MME_SLOT(IMiniportWaveCyclic, Init);
    MME_SLOT(IMiniportWaveCyclic, NewStream);

    // ---- Calling conventions ----
    // Every routine the image imports, and every routine type the kernel,
    // the port-class library or the USB driver calls back.
    MME_CALL_OF(DbgPrint);
    MME_CALL_OF(RtlAssert);
    MME_CALL_OF(KeGetCurrentThread);
    MME_CALL_OF(KeDelayExecutionThread);
    MME_CALL_OF(KeAcquireSpinLockRaiseToDpc);
    MME_CALL_OF(KeReleaseSpinLock);
    MME_CALL_OF(KeAcquireSpinLockAtDpcLevel);
    MME_CALL_OF(KeReleaseSpinLockFromDpcLevel);
    MME_CALL_OF(KeInitializeDpc);
    MME_CALL_OF(KeInitializeTimer);
    MME_CALL_OF(KeSetTimer);
    MME_CALL_OF(KeCancelTimer);
    MME_CALL_OF(KeFlushQueuedDpcs);
    MME_CALL_OF(ExAllocatePoolWithTag);
    MME_CALL_OF(ExFreePoolWithTag);
    MME_CALL_OF(ObfReferenceObject);
    MME_CALL_OF(ObfDereferenceObject);
    MME_CALL_OF(IoAllocateIrp);
    MME_CALL_OF(IoFreeIrp);
    MME_CALL_OF(IofCallDriver);
    MME_CALL_OF(IofCompleteRequest);
    MME_CALL_OF(PcInitializeAdapterDriver);
    MME_CALL_OF(PcAddAdapterDevice);
    MME_CALL_OF(PcNewPort);
    MME_CALL_OF(PcRegisterSubdevice);
    MME_CALL_OF(PcRegisterPhysicalConnection);
    MME_CALL_OF(PcNewServiceGroup);
    MME_CALL_TYPE("PDRIVER_INITIALIZE", PDRIVER_INITIALIZE);
    MME_CALL_TYPE("PDRIVER_ADD_DEVICE", PDRIVER_ADD_DEVICE);
    MME_CALL_TYPE("PDRIVER_DISPATCH", PDRIVER_DISPATCH);
    MME_CALL_TYPE("PDRIVER_UNLOAD", PDRIVER_UNLOAD);
    MME_CALL_TYPE("PIO_COMPLETION_ROUTINE", PIO_COMPLETION_ROUTINE);
    MME_CALL_TYPE("PKDEFERRED_ROUTINE", PKDEFERRED_ROUTINE);
    MME_CALL_TYPE("PCPFNSTARTDEVICE", PCPFNSTARTDEVICE);
    MME_CALL_TYPE("PCPFNPROPERTY_HANDLER", PCPFNPROPERTY_HANDLER);
    MME_CALL_TYPE("PCPFNEVENT_HANDLER", PCPFNEVENT_HANDLER);
    MME_CALL_TYPE("PCPFNMETHOD_HANDLER", PCPFNMETHOD_HANDLER);
    MME_CALL_TYPE("MMENotifyCallback", MMENotifyCallback);
    MME_CALL_TYPE("MMEStcCallback", MMEStcCallback);
    MME_CALL_TYPE("MMEExchangeDataCallback", MMEExchangeDataCallback);

    // ---- Constants ----
    MME_VALUE(TRUE);
    MME_VALUE(FALSE);
    MME_VALUE(STATUS_SUCCESS);
    MME_VALUE(STATUS_TIMEOUT);
    MME_VALUE(STATUS_PENDING);
    MME_VALUE(STATUS_ALERTED);
    MME_VALUE(STATUS_BUFFER_OVERFLOW);
    MME_VALUE(STATUS_UNSUCCESSFUL);
    MME_VALUE(STATUS_NOT_IMPLEMENTED);
    MME_VALUE(STATUS_INVALID_PARAMETER);
    MME_VALUE(STATUS_INVALID_DEVICE_REQUEST);
    MME_VALUE(STATUS_MORE_PROCESSING_REQUIRED);
    MME_VALUE(STATUS_BUFFER_TOO_SMALL);
    MME_VALUE(STATUS_INSUFFICIENT_RESOURCES);
    MME_VALUE(STATUS_NOT_SUPPORTED);
    MME_VALUE(STATUS_INVALID_DEVICE_STATE);
    MME_VALUE(STATUS_NO_MATCH);
    MME_VALUE(PASSIVE_LEVEL);
    MME_VALUE(APC_LEVEL);
    MME_VALUE(DISPATCH_LEVEL);
    MME_VALUE(KernelMode);
    MME_VALUE(UserMode);
    MME_VALUE(NonPagedPool);
    MME_VALUE(PagedPool);
    MME_VALUE(NonPagedPoolNx);
    MME_VALUE(IRP_MJ_CREATE);
    MME_VALUE(IRP_MJ_CLOSE);
    MME_VALUE(IRP_MJ_DEVICE_CONTROL);
    MME_VALUE(IRP_MJ_INTERNAL_DEVICE_CONTROL);
    MME_VALUE(IRP_MJ_PNP);
    MME_VALUE(IRP_MJ_MAXIMUM_FUNCTION);
    MME_VALUE(IRP_MN_START_DEVICE);
    MME_VALUE(IRP_MN_REMOVE_DEVICE);
    MME_VALUE(SL_INVOKE_ON_CANCEL);
    MME_VALUE(SL_INVOKE_ON_SUCCESS);
    MME_VALUE(SL_INVOKE_ON_ERROR);
    MME_VALUE(KSSTATE_STOP);
    MME_VALUE(KSSTATE_ACQUIRE);
    MME_VALUE(KSSTATE_PAUSE);
    MME_VALUE(KSSTATE_RUN);
    MME_VALUE(KSPIN_DATAFLOW_IN);
    MME_VALUE(KSPIN_DATAFLOW_OUT);
    MME_VALUE(KSPIN_COMMUNICATION_NONE);
    MME_VALUE(KSPIN_COMMUNICATION_SINK);
    MME_VALUE(KSPIN_COMMUNICATION_SOURCE);
    MME_VALUE(KSPIN_COMMUNICATION_BOTH);
    MME_VALUE(KSPIN_COMMUNICATION_BRIDGE);
    MME_VALUE(KSPROPERTY_TYPE_GET);
    MME_VALUE(KSPROPERTY_TYPE_SET);
    MME_VALUE(KSPROPERTY_TYPE_BASICSUPPORT);
    MME_VALUE(KSEVENT_TYPE_ENABLE);
    MME_VALUE(KSEVENT_TYPE_BASICSUPPORT);
    MME_VALUE(KSPROPERTY_MEMBER_STEPPEDRANGES);
    MME_VALUE(KSPROPERTY_AUDIO_VOLUMELEVEL);
    MME_VALUE(KSPROPERTY_AUDIO_SAMPLING_RATE);
    MME_VALUE(KSPROPERTY_AUDIO_MUTE);
    MME_VALUE(VT_I4);
    MME_VALUE(KSNODEPIN_STANDARD_IN);
    MME_VALUE(KSNODEPIN_STANDARD_OUT);
    MME_VALUE(WAVE_FORMAT_PCM);
    MME_VALUE(WAVE_FORMAT_EXTENSIBLE);
    MME_VALUE(PCPROPERTY_ITEM_FLAG_GET);
    MME_VALUE(PCPROPERTY_ITEM_FLAG_SET);
    MME_VALUE(PCPROPERTY_ITEM_FLAG_BASICSUPPORT);
    MME_VALUE(PCEVENT_ITEM_FLAG_ENABLE);
    MME_VALUE(PCEVENT_ITEM_FLAG_BASICSUPPORT);
    MME_VALUE(PCEVENT_VERB_NONE);
    MME_VALUE(PCEVENT_VERB_ADD);
    MME_VALUE(PCEVENT_VERB_REMOVE);
    MME_VALUE(PCEVENT_VERB_SUPPORT);
    MME_VALUE(PCFILTER_NODE);

    // ---- GUIDs ----
    MME_GUID(IID_IUnknown);
    MME_GUID(CLSID_PortTopology);
    MME_GUID(CLSID_PortWaveCyclic);
    MME_GUID(IID_IPort);
    MME_GUID(IID_IPortTopology);
    MME_GUID(IID_IPortWaveCyclic);
    MME_GUID(IID_IMiniport);
    MME_GUID(IID_IMiniportTopology);
    MME_GUID(IID_IMiniportWaveCyclic);
    MME_GUID(IID_IMiniportWaveCyclicStream);
    MME_GUID(IID_IDmaChannel);
    MME_GUID(IID_IDmaChannelSlave);
    MME_GUID(IID_IServiceSink);
    MME_GUID(IID_IServiceGroup);
    MME_GUID(IID_IPortEvents);
    MME_GUID(KSCATEGORY_AUDIO);
    MME_GUID(KSCATEGORY_CAPTURE);
    MME_GUID(KSCATEGORY_RENDER);
    MME_GUID(KSCATEGORY_TOPOLOGY);
    MME_GUID(KSAUDFNAME_LINE_IN);
    MME_GUID(KSAUDFNAME_VOLUME_CONTROL);
    MME_GUID(KSAUDFNAME_WAVE_MUTE);
    MME_GUID(KSAUDFNAME_WAVE_VOLUME);
    MME_GUID(KSAUDFNAME_LINE_MUTE);
    MME_GUID(KSAUDFNAME_LINE_VOLUME);
    MME_GUID(KSNODETYPE_LINE_CONNECTOR);
    MME_GUID(KSNODETYPE_LEGACY_AUDIO_CONNECTOR);
    MME_GUID(KSNODETYPE_SPEAKER);
    MME_GUID(KSNODETYPE_ADC);
    MME_GUID(KSNODETYPE_DAC);
    MME_GUID(KSNODETYPE_MUTE);
    MME_GUID(KSNODETYPE_VOLUME);
    MME_GUID(KSDATAFORMAT_TYPE_AUDIO);
    MME_GUID(KSDATAFORMAT_SUBTYPE_PCM);
    MME_GUID(KSDATAFORMAT_SUBTYPE_ANALOG);
    MME_GUID(KSDATAFORMAT_SPECIFIER_WAVEFORMATEX);
    MME_GUID(KSDATAFORMAT_SPECIFIER_NONE);
    MME_GUID(KSPROPSETID_Audio);
    MME_GUID(KSPROPTYPESETID_General);
};

struct Image {
    MMELayoutHeader header;
    Table table;
};
static_assert(sizeof(Table) % MME_LAYOUT_RECORD_SIZE == 0, "table of whole records");

#define MME_CALL(expression) (void)sizeof(((void)(expression), 0))
#define MME_TYPE(T) (void)sizeof(T*)
#define MME_FIELD(T, field) (void)sizeof(((T*)nullptr)->field)

[[maybe_unused]] void namesExist() {
    PVOID p = nullptr;
    PVOID q = nullptr;
    PIRP irp = nullptr;
    PDEVICE_OBJECT device = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    KIRQL irql = 0;
    KSPIN_LOCK lock = 0;
    KDPC dpc;
    KTIMER timer;
    EX_RUNDOWN_REF rundown;
    LARGE_INTEGER time;
    volatile LONG value = 0;
    PVOID volatile pointer = nullptr;
    PUNKNOWN unknown = nullptr;
    PPORT port = nullptr;
    PSERVICEGROUP group = nullptr;
    UNICODE_STRING path;
    GUID guid;
    PIO_COMPLETION_ROUTINE completion = nullptr;
    PKDEFERRED_ROUTINE deferred = nullptr;
    PDRIVER_ADD_DEVICE addDevice = nullptr;
    PCPFNSTARTDEVICE startDevice = nullptr;
    WCHAR name[2] = {};

    MME_CALL(DbgPrint("%d", 1));
    MME_CALL(RtlAssert(p, p, 1, nullptr));
    MME_CALL(KeGetCurrentThread());
    MME_CALL(KeDelayExecutionThread(KernelMode, FALSE, &time));
    MME_CALL(KeGetCurrentIrql());
    MME_CALL(KeRaiseIrql(DISPATCH_LEVEL, &irql));
    MME_CALL(KeLowerIrql(irql));
    MME_CALL(KeInitializeSpinLock(&lock));
    MME_CALL(KeAcquireSpinLock(&lock, &irql));
    MME_CALL(KeReleaseSpinLock(&lock, irql));
    MME_CALL(KeAcquireSpinLockAtDpcLevel(&lock));
    MME_CALL(KeReleaseSpinLockFromDpcLevel(&lock));
    MME_CALL(KeInitializeDpc(&dpc, deferred, p));
    MME_CALL(KeInitializeTimer(&timer));
    MME_CALL(KeSetTimer(&timer, time, &dpc));
    MME_CALL(KeCancelTimer(&timer));
    MME_CALL(KeFlushQueuedDpcs());
    MME_CALL(ExInitializeRundownProtection(&rundown));
    MME_CALL(ExReInitializeRundownProtection(&rundown));
    MME_CALL(ExAcquireRundownProtection(&rundown));
    MME_CALL(ExReleaseRundownProtection(&rundown));
    MME_CALL(ExWaitForRundownProtectionRelease(&rundown));
    MME_CALL(ExAllocatePoolWithTag(NonPagedPool, 1, 0));
    MME_CALL(ExAllocatePool(NonPagedPool, 1));
    MME_CALL(ExFreePoolWithTag(p, 0));
    MME_CALL(ObfReferenceObject(p));
    MME_CALL(ObfDereferenceObject(p));
    MME_CALL(IoAllocateIrp(1, FALSE));
    MME_CALL(IoFreeIrp(irp));
    MME_CALL(IofCallDriver(device, irp));
    MME_CALL(IoCallDriver(device, irp));
    MME_CALL(IofCompleteRequest(irp, 0));
    MME_CALL(IoCompleteRequest(irp, 0));
    MME_CALL(IoGetNextIrpStackLocation(irp));
    MME_CALL(IoGetCurrentIrpStackLocation(irp));
    MME_CALL(IoSetCompletionRoutine(irp, completion, p, TRUE, TRUE, TRUE));
    MME_CALL(InterlockedIncrement(&value));
    MME_CALL(InterlockedDecrement(&value));
    MME_CALL(InterlockedExchange(&value, 1));
    MME_CALL(InterlockedCompareExchange(&value, 1, 0));
    MME_CALL(InterlockedExchangePointer(&pointer, p));
    MME_CALL(InterlockedCompareExchangePointer(&pointer, p, nullptr));
    MME_CALL(RtlCopyMemory(p, q, 1));
    MME_CALL(RtlMoveMemory(p, q, 1));
    MME_CALL(RtlZeroMemory(p, 1));
    MME_CALL(RtlFillMemory(p, 1, 0));
    MME_CALL(memcmp(p, q, 1));
    MME_CALL(NT_SUCCESS(STATUS_SUCCESS));
    MME_CALL(IsEqualGUID(guid, guid));
    MME_CALL(IsEqualGUIDAligned(guid, guid));
    MME_CALL(PcInitializeAdapterDriver(driver, &path, addDevice));
    MME_CALL(PcAddAdapterDevice(driver, device, startDevice, 2, 0));
    MME_CALL(PcNewPort(&port, CLSID_PortWaveCyclic));
    MME_CALL(PcRegisterSubdevice(device, name, unknown));
    MME_CALL(PcRegisterPhysicalConnection(device, unknown, 0, unknown, 1));
    MME_CALL(PcNewServiceGroup(&group, nullptr));
    UNREFERENCED_PARAMETER(p);

    MME_TYPE(VOID);
    MME_TYPE(PCHAR);
    MME_TYPE(PCSTR);
    MME_TYPE(PUCHAR);
    MME_TYPE(PULONG);
    MME_TYPE(PLONG);
    MME_TYPE(PBOOLEAN);
    MME_TYPE(PLONGLONG);
    MME_TYPE(PULONGLONG);
    MME_TYPE(WCHAR);
    MME_TYPE(PWSTR);
    MME_TYPE(PCWSTR);
    MME_TYPE(PKIRQL);
    MME_TYPE(KPROCESSOR_MODE);
    MME_TYPE(PKSPIN_LOCK);
    MME_TYPE(PLARGE_INTEGER);
    MME_TYPE(PPHYSICAL_ADDRESS);
    MME_TYPE(PUNICODE_STRING);
    MME_TYPE(POOL_TYPE);
    MME_TYPE(PKTHREAD);
    MME_TYPE(PIO_STATUS_BLOCK);
    MME_TYPE(DRIVER_DISPATCH);
    MME_TYPE(PDRIVER_DISPATCH);
    MME_TYPE(DRIVER_ADD_DEVICE);
    MME_TYPE(IO_COMPLETION_ROUTINE);
    MME_TYPE(KDEFERRED_ROUTINE);
    MME_TYPE(DRIVER_UNLOAD);
    MME_TYPE(PDRIVER_UNLOAD);
    MME_TYPE(PDRIVER_EXTENSION);
    MME_TYPE(PIO_STACK_LOCATION);
    MME_TYPE(PKDPC);
    MME_TYPE(PRKDPC);
    MME_TYPE(PKTIMER);
    MME_TYPE(IID);
    MME_TYPE(CLSID);
    (void)sizeof(REFGUID);
    (void)sizeof(REFIID);
    (void)sizeof(REFCLSID);
    MME_TYPE(PKSSTATE);
    MME_TYPE(PKSIDENTIFIER);
    MME_TYPE(PKSPROPERTY);
    MME_TYPE(PKSEVENT);
    MME_TYPE(PKSPIN_INTERFACE);
    MME_TYPE(PKSPIN_MEDIUM);
    MME_TYPE(PKSNODEPROPERTY);
    MME_TYPE(PKSNODEPROPERTY_AUDIO_CHANNEL);
    MME_TYPE(PKSPROPERTY_DESCRIPTION);
    MME_TYPE(PKSPROPERTY_MEMBERSHEADER);
    MME_TYPE(PKSPROPERTY_STEPPING_LONG);
    MME_TYPE(KSEVENT_ENTRY);
    MME_TYPE(PKSEVENT_ENTRY);
    MME_TYPE(PKSDATAFORMAT);
    MME_TYPE(PKSDATARANGE);
    MME_TYPE(PKSDATARANGE_AUDIO);
    MME_TYPE(PKSPIN_DESCRIPTOR);
    MME_TYPE(PWAVEFORMATEX);
    MME_TYPE(PWAVEFORMATEXTENSIBLE);
    MME_TYPE(PKSDATAFORMAT_WAVEFORMATEX);
    MME_TYPE(PKSDATAFORMAT_WAVEFORMATEXTENSIBLE);
    MME_TYPE(PCPFNPROPERTY_HANDLER);
    MME_TYPE(PCPFNEVENT_HANDLER);
    MME_TYPE(PCPFNMETHOD_HANDLER);
    MME_TYPE(PPCPROPERTY_ITEM);
    MME_TYPE(PPCEVENT_ITEM);
    MME_TYPE(PPCMETHOD_ITEM);
    MME_TYPE(PPCAUTOMATION_TABLE);
    MME_TYPE(PPCPIN_DESCRIPTOR);
    MME_TYPE(PPCNODE_DESCRIPTOR);
    MME_TYPE(PPCCONNECTION_DESCRIPTOR);
    MME_TYPE(PPCFILTER_DESCRIPTOR);
    MME_TYPE(PPCPROPERTY_REQUEST);
    MME_TYPE(PPCEVENT_REQUEST);
    MME_TYPE(PRESOURCELIST);
    MME_TYPE(PADAPTER_OBJECT);
    MME_TYPE(PSERVICESINK);
    MME_TYPE(PDMACHANNEL);
    MME_TYPE(PDMACHANNELSLAVE);
    MME_TYPE(PREGISTRYKEY);
    MME_TYPE(DEVICE_REGISTRY_PROPERTY);
    MME_TYPE(ACCESS_MASK);
    MME_TYPE(POBJECT_ATTRIBUTES);
    MME_TYPE(DMA_SPEED);
    MME_TYPE(DMA_WIDTH);
    MME_TYPE(PPORTTOPOLOGY);
    MME_TYPE(PPORTWAVECYCLIC);
    MME_TYPE(PPORTEVENTS);
    MME_TYPE(PMINIPORT);
    MME_TYPE(PMINIPORTTOPOLOGY);
    MME_TYPE(PMINIPORTWAVECYCLICSTREAM);
    MME_TYPE(PMINIPORTWAVECYCLIC);

    MME_FIELD(DRIVER_EXTENSION, DriverObject);
    MME_FIELD(DRIVER_EXTENSION, AddDevice);
    MME_FIELD(DRIVER_OBJECT, Type);
    MME_FIELD(DRIVER_OBJECT, Size);
    MME_FIELD(DRIVER_OBJECT, DeviceObject);
    MME_FIELD(DRIVER_OBJECT, DriverExtension);
    MME_FIELD(DRIVER_OBJECT, DriverUnload);
    MME_FIELD(DRIVER_OBJECT, MajorFunction);
    MME_FIELD(DEVICE_OBJECT, Type);
    MME_FIELD(DEVICE_OBJECT, Size);
    MME_FIELD(DEVICE_OBJECT, ReferenceCount);
    MME_FIELD(DEVICE_OBJECT, DriverObject);
    MME_FIELD(DEVICE_OBJECT, NextDevice);
    MME_FIELD(DEVICE_OBJECT, AttachedDevice);
    MME_FIELD(DEVICE_OBJECT, Flags);
    MME_FIELD(DEVICE_OBJECT, DeviceExtension);
    MME_FIELD(DEVICE_OBJECT, StackSize);
    MME_FIELD(IO_STACK_LOCATION, MajorFunction);
    MME_FIELD(IO_STACK_LOCATION, MinorFunction);
    MME_FIELD(IO_STACK_LOCATION, Flags);
    MME_FIELD(IO_STACK_LOCATION, Control);
    MME_FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength);
    MME_FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength);
    MME_FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode);
    MME_FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer);
    MME_FIELD(IO_STACK_LOCATION, Parameters.Others.Argument1);
    MME_FIELD(IO_STACK_LOCATION, Parameters.Others.Argument2);
    MME_FIELD(IO_STACK_LOCATION, Parameters.Others.Argument3);
    MME_FIELD(IO_STACK_LOCATION, Parameters.Others.Argument4);
    MME_FIELD(IO_STACK_LOCATION, DeviceObject);
    MME_FIELD(IO_STACK_LOCATION, CompletionRoutine);
    MME_FIELD(IO_STACK_LOCATION, Context);
    MME_FIELD(IRP, Type);
    MME_FIELD(IRP, Size);
    MME_FIELD(IRP, StackCount);
    MME_FIELD(IRP, CurrentLocation);
    MME_FIELD(IRP, Cancel);
    MME_FIELD(IRP, IoStatus.Status);
    MME_FIELD(IRP, IoStatus.Information);
    MME_FIELD(IRP, UserBuffer);
    MME_FIELD(IRP, Tail.Overlay.CurrentStackLocation);
}

// Constant-initialised (no constructor runs); writable only so that the GUID
// addresses may be relocated without a text relocation on host.
__attribute__((section(MME_LAYOUT_SECTION), used)) Image gImage = {
    {MME_LAYOUT_MAGIC, sizeof(Table) / MME_LAYOUT_RECORD_SIZE, MME_LAYOUT_RECORD_SIZE}, {}};

} // namespace

extern "C" const MMELayoutHeader* mmeLayoutTable() {
    return &gImage.header;
}
