// Device configuration data: USB (vendor id, product id) pairs of products
// whose USB descriptors or formats need the wave filter's rules for them.
// Every list is empty by default, which leaves each device on the general
// rules. To add products, list their pairs in the table of the rule and
// point the list at it, for example:
//
//   const DeviceIdPair kStereo16BitPairs[] = {{0x1234, 0x0001}, {0x1234, 0x0002}};
//   DeviceList STEREO_16BIT_DEVICES = {kStereo16BitPairs, 2};
//
// The lists are plain data with constant initialisers (no start-up code);
// tests install their own tables through the same objects and restore them.
#include "DeviceLists.h"

DeviceList STEREO_16BIT_DEVICES = {nullptr, 0};
DeviceList STEREO_24BIT_DEVICES = {nullptr, 0};
DeviceList DIRECTION_BY_INTERFACE_DEVICES = {nullptr, 0};
DeviceList INPUT_INTERFACE_ONLY_DEVICES = {nullptr, 0};

bool DeviceList::contains(const DeviceIdentity& identity) const {
    if (!pairs)
        return false;
    for (ULONG i = 0; i < count; ++i) {
        if (identity.matches(pairs[i].vendorId, pairs[i].productId))
            return true;
    }
    return false;
}
