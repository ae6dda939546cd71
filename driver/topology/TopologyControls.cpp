// Property and event handlers for the topology filter's mute and volume
// nodes and the sampling-rate property. The constant filter does not attach
// them: the levels and flags they keep do not act on the audio. Driver-wide
// state, reset by resetTopologyControls() (the adapter's constructor).
// Called at passive level by the port; no lock, one 32-bit store per value.
#include "MMETopology.h"
#include "TopologyFilter.h"

namespace {

volatile bool gMuteOut = false;
volatile bool gMuteIn = false;
volatile LONG gLevelOut = 0;
volatile LONG gLevelIn = 0;

constexpr ULONG kLevelAccessFlags =
    KSPROPERTY_TYPE_BASICSUPPORT | KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET; // 0x203
constexpr ULONG kLevelDescriptionSize = sizeof(KSPROPERTY_DESCRIPTION) +
                                        sizeof(KSPROPERTY_MEMBERSHEADER) +
                                        sizeof(KSPROPERTY_STEPPING_LONG); // 72
constexpr LONG kAllChannels = -1;                                         // 0xFFFFFFFF

bool hasChannelInstance(const PCPROPERTY_REQUEST* request) {
    return request->Instance && request->InstanceSize >= sizeof(LONG);
}

LONG channelOf(const PCPROPERTY_REQUEST* request) {
    LONG channel;
    RtlCopyMemory(&channel, request->Instance, sizeof(LONG));
    return channel;
}

NTSTATUS levelBasicSupport(PCPROPERTY_REQUEST* request) {
    if (!request->Value || request->ValueSize < sizeof(ULONG))
        return STATUS_INVALID_DEVICE_REQUEST;
    if (request->ValueSize < sizeof(KSPROPERTY_DESCRIPTION)) {
        const ULONG flags = kLevelAccessFlags;
        RtlCopyMemory(request->Value, &flags, sizeof(flags));
        request->ValueSize = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    UCHAR* out = static_cast<UCHAR*>(request->Value);
    KSPROPERTY_DESCRIPTION description;
    RtlZeroMemory(&description, sizeof(description));
    description.AccessFlags = kLevelAccessFlags;
    description.DescriptionSize = kLevelDescriptionSize;
    description.PropTypeSet.Set = KSPROPTYPESETID_General;
    description.PropTypeSet.Id = VT_I4;
    description.PropTypeSet.Flags = 0;
    description.MembersListCount = 1;
    description.Reserved = 0;
    RtlCopyMemory(out, &description, sizeof(description));
    if (request->ValueSize < kLevelDescriptionSize) {
        request->ValueSize = sizeof(KSPROPERTY_DESCRIPTION);
        return STATUS_SUCCESS;
    }
    KSPROPERTY_MEMBERSHEADER members;
    members.MembersFlags = KSPROPERTY_MEMBER_STEPPEDRANGES;
    members.MembersSize = sizeof(KSPROPERTY_STEPPING_LONG);
    members.MembersCount = 1;
    members.Flags = 0;
    RtlCopyMemory(out + sizeof(description), &members, sizeof(members));
    KSPROPERTY_STEPPING_LONG stepping;
    RtlZeroMemory(&stepping, sizeof(stepping));
    RtlCopyMemory(out + sizeof(description) + sizeof(members), &stepping, sizeof(stepping));
    request->ValueSize = kLevelDescriptionSize;
    return STATUS_SUCCESS;
}

} // namespace

void resetTopologyControls() {
    gMuteOut = false;
    gMuteIn = false;
    gLevelOut = 0;
    gLevelIn = 0;
}

NTSTATUS NTAPI PropertyHandler_OnOff(PPCPROPERTY_REQUEST PropertyRequest) {
    FunctionTrace ft("PropertyHandler_OnOff", PropertyRequest);
    if (!PropertyRequest || !hasChannelInstance(PropertyRequest))
        return STATUS_INVALID_PARAMETER;
    const ULONG node = PropertyRequest->Node;
    if (node != TOPO_NODE_WAVEOUT_MUTE && node != TOPO_NODE_LINEIN_MUTE)
        return STATUS_INVALID_PARAMETER;
    volatile bool& flag = node == TOPO_NODE_WAVEOUT_MUTE ? gMuteOut : gMuteIn;

    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        if (!PropertyRequest->Value || PropertyRequest->ValueSize < sizeof(ULONG))
            return STATUS_INVALID_PARAMETER;
        const ULONG value = flag ? 1 : 0;
        RtlCopyMemory(PropertyRequest->Value, &value, sizeof(value));
        PropertyRequest->ValueSize = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        if (!PropertyRequest->Value || PropertyRequest->ValueSize != sizeof(ULONG))
            return STATUS_INVALID_PARAMETER;
        ULONG value;
        RtlCopyMemory(&value, PropertyRequest->Value, sizeof(value));
        flag = value != 0;
        ft.num(node == TOPO_NODE_WAVEOUT_MUTE ? "MuteOut is set to " : "MuteIn is set to ",
               flag ? 1 : 0);
        return STATUS_SUCCESS;
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI PropertyHandler_Level(PPCPROPERTY_REQUEST PropertyRequest) {
    FunctionTrace ft("PropertyHandler_Level", PropertyRequest);
    if (!PropertyRequest || PropertyRequest->Node == PCFILTER_NODE)
        return STATUS_INVALID_PARAMETER;
    ft.text("node is valid");
    if (!hasChannelInstance(PropertyRequest))
        return STATUS_INVALID_PARAMETER;
    const ULONG node = PropertyRequest->Node;
    if (node != TOPO_NODE_WAVEOUT_VOLUME && node != TOPO_NODE_LINEIN_VOLUME) {
        ft.text("unsupported node");
        return STATUS_INVALID_PARAMETER;
    }
    if (!PropertyRequest->PropertyItem ||
        PropertyRequest->PropertyItem->Id != KSPROPERTY_AUDIO_VOLUMELEVEL)
        return STATUS_INVALID_PARAMETER;
    volatile LONG& level = node == TOPO_NODE_WAVEOUT_VOLUME ? gLevelOut : gLevelIn;
    const LONG channel = channelOf(PropertyRequest);

    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT)
        return levelBasicSupport(PropertyRequest);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        if (channel != 0 && channel != 1)
            return STATUS_INVALID_PARAMETER;
        if (!PropertyRequest->Value || PropertyRequest->ValueSize < sizeof(LONG))
            return STATUS_INVALID_PARAMETER;
        const LONG value = level;
        RtlCopyMemory(PropertyRequest->Value, &value, sizeof(value));
        PropertyRequest->ValueSize = sizeof(LONG);
        return STATUS_SUCCESS;
    }
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        if (channel != 0 && channel != 1 && channel != kAllChannels)
            return STATUS_INVALID_PARAMETER;
        if (!PropertyRequest->Value || PropertyRequest->ValueSize != sizeof(LONG))
            return STATUS_INVALID_PARAMETER;
        LONG value;
        RtlCopyMemory(&value, PropertyRequest->Value, sizeof(value));
        level = value;
        return STATUS_SUCCESS;
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI PropertyHandler_SR_CHANGE(PPCPROPERTY_REQUEST PropertyRequest) {
    FunctionTrace ft("PropertyHandler_SR_CHANGE", PropertyRequest);
    if (PropertyRequest) {
        ft.num("node/verb", (LONG)PropertyRequest->Node, (LONG)PropertyRequest->Verb);
        ft.num("id", PropertyRequest->PropertyItem ? (LONG)PropertyRequest->PropertyItem->Id : -1);
    }
    return STATUS_SUCCESS;
}

NTSTATUS EventHandler_SR_CHANGE(PPCEVENT_REQUEST EventRequest) {
    FunctionTrace ft("EventHandler_SR_CHANGE", EventRequest);
    if (EventRequest) {
        ft.num("node/verb", (LONG)EventRequest->Node, (LONG)EventRequest->Verb);
        ft.num("id", EventRequest->EventItem ? (LONG)EventRequest->EventItem->Id : -1);
    }
    return STATUS_SUCCESS;
}
