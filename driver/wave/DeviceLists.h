// Device configuration data: USB (vendor, product) pairs whose formats or
// descriptors need rules of their own. The lists live in DeviceLists.cpp, empty
// by default; tests install their own tables through these objects.
#pragma once

#include "DeviceFormat.h"

struct DeviceIdPair {
    USHORT vendorId;
    USHORT productId;
};

struct DeviceList {
    const DeviceIdPair* pairs;
    ULONG count;
    bool contains(const DeviceIdentity& identity) const;
};

// Stereo only, 16 bits searched, no 88200/96000 Hz ranges.
extern DeviceList STEREO_16BIT_DEVICES;
// Stereo only, 16 to 24 bits, no 88200/96000 Hz ranges.
extern DeviceList STEREO_24BIT_DEVICES;
// Direction from the interface byte and the setting's flag, not from endpoints.
extern DeviceList DIRECTION_BY_INTERFACE_DEVICES;
// An input mode counts only on an interface whose direction byte says input.
extern DeviceList INPUT_INTERFACE_ONLY_DEVICES;
