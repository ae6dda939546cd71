// Search of the device-info record (see DeviceFormat.h). Every count read
// from the record is clamped to the capacity of the array it counts, so a
// record claiming more configurations, interfaces, alternate settings, rates
// or endpoints than it has room for is walked only up to its end. Prints
// nothing.
#include "DeviceFormat.h"

#include "DeviceLists.h"

namespace {

ULONG clampCount(ULONG count, ULONG capacity) {
    return count < capacity ? count : capacity;
}

bool rateMatches(const MMEDeviceAltSetting& alt, ULONG rate, bool bDiscreteOnly) {
    if (alt.rateKind == MME_RATES_DISCRETE) {
        const ULONG n = clampCount(alt.numRates, MME_DEVICE_MAX_RATES);
        for (ULONG i = 0; i < n; ++i) {
            if (alt.rates[i] == rate)
                return true;
        }
        return false;
    }
    if (bDiscreteOnly)
        return false;
    return alt.lowestRate <= rate && alt.highestRate >= rate;
}

bool endpointsPass(const DeviceIdentity& identity, const MMEDeviceInterface& iface,
                   const MMEDeviceAltSetting& alt, bool bOutput) {
    const ULONG n = clampCount(alt.numEndpoints, MME_DEVICE_MAX_ENDPOINTS);
    const bool byInterface = DIRECTION_BY_INTERFACE_DEVICES.contains(identity);
    const bool inputInterfaceOnly = !byInterface && INPUT_INTERFACE_ONLY_DEVICES.contains(identity);
    for (ULONG e = 0; e < n; ++e) {
        if (byInterface) {
            const UCHAR wantedDirection = bOutput ? MME_DIRECTION_OUTPUT : MME_DIRECTION_INPUT;
            if (iface.direction == wantedDirection && alt.flag == 1)
                return true;
            continue;
        }
        ULONG packetSize = alt.endpoints[e].maxPacketSize;
        if (inputInterfaceOnly && !bOutput && iface.direction != MME_DIRECTION_INPUT)
            packetSize = 0;
        if (packetSize < 4)
            continue;
        const bool isIn = (alt.endpoints[e].address & 0x80) != 0;
        if (bOutput ? !isIn : isIn)
            return true;
    }
    return false;
}

} // namespace

DeviceFormatMatch findDeviceFormat(const MMEDeviceInfo* pAPI_DI, ULONG configurationIndex,
                                   ULONG rate, UCHAR bits, UCHAR channels, bool bDiscreteOnly,
                                   bool bOutput) {
    DeviceFormatMatch result;
    result.bFound = false;
    result.configurationIndex = 0;
    result.interfaceIndex = 0;
    result.altSettingIndex = 0;
    result.sampleRate = rate;
    result.bits = bits;
    result.channels = channels;
    if (!pAPI_DI)
        return result;

    DeviceIdentity identity;
    identity.set(pAPI_DI->vendorId, pAPI_DI->productId, pAPI_DI->thirdWord);

    const ULONG configurations =
        clampCount(pAPI_DI->numConfigurations, MME_DEVICE_MAX_CONFIGURATIONS);
    if (configurationIndex >= configurations)
        return result;
    result.configurationIndex = (USHORT)configurationIndex;

    const MMEDeviceConfiguration& config = pAPI_DI->configurations[configurationIndex];
    const ULONG interfaces = clampCount(config.numInterfaces, MME_DEVICE_MAX_INTERFACES);
    for (ULONG i = 0; i < interfaces; ++i) {
        result.interfaceIndex = (USHORT)i;
        const MMEDeviceInterface& iface = config.interfaces[i];
        const ULONG alts = clampCount(iface.numAltSettings, MME_DEVICE_MAX_ALT_SETTINGS);
        for (ULONG a = 0; a < alts; ++a) {
            result.altSettingIndex = (USHORT)a;
            const MMEDeviceAltSetting& alt = iface.altSettings[a];
            if (alt.bitsPerSample != bits || alt.channels != channels)
                continue;
            if (!rateMatches(alt, rate, bDiscreteOnly))
                continue;
            if (endpointsPass(identity, iface, alt, bOutput)) {
                result.bFound = true;
                return result;
            }
        }
    }
    return result;
}
