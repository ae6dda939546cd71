// See DeviceInfoBuilder.h.
#include "support/DeviceInfoBuilder.h"

#include <stdexcept>

namespace wavetest {

DeviceInfoBuilder::DeviceInfoBuilder() : mInfo(std::make_unique<MMEDeviceInfo>()) {
    mInfo->numConfigurations = 1;
}

DeviceInfoBuilder& DeviceInfoBuilder::ids(uint16_t vendor, uint16_t product, uint16_t third) {
    mInfo->vendorId = vendor;
    mInfo->productId = product;
    mInfo->thirdWord = third;
    return *this;
}

MMEDeviceAltSetting& DeviceInfoBuilder::addAlt(bool input, uint8_t bits, uint8_t channels) {
    MMEDeviceConfiguration& config = mInfo->configurations[0];
    int& index = input ? mInputInterface : mOutputInterface;
    if (index < 0) {
        if (config.numInterfaces >= MME_DEVICE_MAX_INTERFACES)
            throw std::length_error("DeviceInfoBuilder: too many interfaces");
        index = config.numInterfaces++;
        config.interfaces[index].direction = input ? MME_DIRECTION_INPUT : MME_DIRECTION_OUTPUT;
    }
    MMEDeviceInterface& iface = config.interfaces[index];
    if (iface.numAltSettings >= MME_DEVICE_MAX_ALT_SETTINGS)
        throw std::length_error("DeviceInfoBuilder: too many alternate settings");
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

DeviceInfoBuilder& DeviceInfoBuilder::mode(bool input, uint8_t bits, uint8_t channels,
                                           std::initializer_list<uint32_t> rates) {
    if (rates.size() > MME_DEVICE_MAX_RATES)
        throw std::length_error("DeviceInfoBuilder: too many rates");
    MMEDeviceAltSetting& alt = addAlt(input, bits, channels);
    alt.rateKind = MME_RATES_DISCRETE;
    alt.numRates = static_cast<UCHAR>(rates.size());
    unsigned i = 0;
    for (uint32_t r : rates)
        alt.rates[i++] = r;
    return *this;
}

DeviceInfoBuilder& DeviceInfoBuilder::inputRange(uint8_t bits, uint8_t channels, uint32_t lowest,
                                                 uint32_t highest) {
    MMEDeviceAltSetting& alt = addAlt(true, bits, channels);
    alt.rateKind = 1;
    alt.lowestRate = lowest;
    alt.highestRate = highest;
    return *this;
}

MMEDeviceAltSetting& DeviceInfoBuilder::lastAlt() {
    if (!mLastAlt)
        throw std::logic_error("DeviceInfoBuilder: no alternate setting yet");
    return *mLastAlt;
}

MMEDeviceInterface& DeviceInfoBuilder::lastInterface() {
    if (!mLastInterface)
        throw std::logic_error("DeviceInfoBuilder: no interface yet");
    return *mLastInterface;
}

} // namespace wavetest
