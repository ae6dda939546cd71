// A device-info record (the USB driver's description of the device's modes):
//   dev.ids(0x1234, 0x0001).input(24, 2, {48000}).output(16, 2, {48000});
// Configuration 0 gets one input (IN endpoint 0x81) and one output interface
// (OUT endpoint 0x01); each mode is one alternate setting with one 512-byte
// endpoint. ListGuard puts a table in one of the driver's device lists.
#pragma once

#include "driver/common/MMEAdapterInfo.h"
#include "driver/wave/DeviceLists.h"

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

namespace wavetest {

class DeviceInfoBuilder {
public:
    DeviceInfoBuilder() : mInfo(std::make_unique<MMEDeviceInfo>()) { mInfo->numConfigurations = 1; }

    DeviceInfoBuilder& ids(uint16_t vendor, uint16_t product) {
        mInfo->vendorId = vendor;
        mInfo->productId = product;
        return *this;
    }
    // Discrete rates.
    DeviceInfoBuilder& input(uint8_t bits, uint8_t channels,
                             std::initializer_list<uint32_t> rates) {
        return mode(true, bits, channels, rates);
    }
    DeviceInfoBuilder& output(uint8_t bits, uint8_t channels,
                              std::initializer_list<uint32_t> rates) {
        return mode(false, bits, channels, rates);
    }
    // A continuous range lowest..highest.
    DeviceInfoBuilder& inputRange(uint8_t bits, uint8_t channels, uint32_t lowest,
                                  uint32_t highest) {
        MMEDeviceAltSetting& alt = addAlt(true, bits, channels);
        alt.rateKind = 1;
        alt.lowestRate = lowest;
        alt.highestRate = highest;
        return *this;
    }

    MMEDeviceAltSetting& lastAlt() { return *mLastAlt; }
    MMEDeviceInterface& lastInterface() { return *mLastInterface; }
    MMEDeviceInfo& info() { return *mInfo; }
    MMEDeviceInfo* get() { return mInfo.get(); }

private:
    MMEDeviceAltSetting& addAlt(bool input, uint8_t bits, uint8_t channels) {
        MMEDeviceConfiguration& config = mInfo->configurations[0];
        int& index = input ? mInputInterface : mOutputInterface;
        if (index < 0) {
            index = config.numInterfaces++;
            config.interfaces[index].direction = input ? MME_DIRECTION_INPUT : MME_DIRECTION_OUTPUT;
        }
        MMEDeviceInterface& iface = config.interfaces[index];
        MMEDeviceAltSetting& alt = iface.altSettings[iface.numAltSettings++];
        alt.flag = 1;
        alt.bitsPerSample = bits;
        alt.channels = channels;
        alt.numEndpoints = 1;
        alt.endpoints[0].maxPacketSize = 512;
        alt.endpoints[0].address = input ? 0x81 : 0x01;
        mLastInterface = &iface;
        mLastAlt = &alt;
        return alt;
    }
    DeviceInfoBuilder& mode(bool input, uint8_t bits, uint8_t channels,
                            std::initializer_list<uint32_t> rates) {
        MMEDeviceAltSetting& alt = addAlt(input, bits, channels);
        alt.rateKind = MME_RATES_DISCRETE;
        alt.numRates = static_cast<UCHAR>(rates.size());
        unsigned i = 0;
        for (uint32_t r : rates)
            alt.rates[i++] = r;
        return *this;
    }

    std::unique_ptr<MMEDeviceInfo> mInfo;
    int mInputInterface = -1;
    int mOutputInterface = -1;
    MMEDeviceInterface* mLastInterface = nullptr;
    MMEDeviceAltSetting* mLastAlt = nullptr;
};

class ListGuard {
public:
    ListGuard(DeviceList& list, std::vector<DeviceIdPair> pairs)
        : mList(list), mSaved(list), mPairs(std::move(pairs)) {
        mList.pairs = mPairs.data();
        mList.count = static_cast<ULONG>(mPairs.size());
    }
    ~ListGuard() { mList = mSaved; }
    ListGuard(const ListGuard&) = delete;
    ListGuard& operator=(const ListGuard&) = delete;

private:
    DeviceList& mList;
    DeviceList mSaved;
    std::vector<DeviceIdPair> mPairs;
};

} // namespace wavetest
