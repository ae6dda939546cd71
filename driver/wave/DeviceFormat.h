// Search of the USB driver's device-info record for an alternate setting
// carrying a given direction, rate, resolution and channel count. Counts in
// the record are clamped to the record's capacities, so a record that claims
// more than it holds is never walked past its end.
#pragma once

#include "../common/MMEAdapterInfo.h"

struct DeviceIdentity {
    USHORT vendorId;
    USHORT productId;
    USHORT thirdWord;

    void set(USHORT vendor, USHORT product, USHORT third) {
        vendorId = vendor;
        productId = product;
        thirdWord = third;
    }
    bool matches(USHORT vendor, USHORT product) const {
        return vendorId == vendor && productId == product;
    }
};

struct DeviceFormatMatch {
    bool bFound;
    USHORT configurationIndex;
    USHORT interfaceIndex;
    USHORT altSettingIndex;
    ULONG sampleRate;
    UCHAR bits;
    UCHAR channels;
};

DeviceFormatMatch findDeviceFormat(const MMEDeviceInfo* pAPI_DI, ULONG configurationIndex,
                                   ULONG rate, UCHAR bits, UCHAR channels, bool bDiscreteOnly,
                                   bool bOutput);
