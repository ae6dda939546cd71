// The records shared with the USB driver. Their headers check every offset
// the other driver reads by name; these add what they leave open: the order
// of the fields that share a block, and which fields are signed.
#include "driver/common/AudioSM.h"
#include "driver/common/MMEAdapterInfo.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace {

static_assert(offsetof(ChannelConfig, fr) == 0 && offsetof(ChannelConfig, inCH) == 4 &&
                  offsetof(ChannelConfig, outCH) == 8 && offsetof(ChannelConfig, inRes) == 12 &&
                  offsetof(ChannelConfig, outRes) == 16,
              "ChannelConfig is fr, inCH, outCH, inRes, outRes, config");
static_assert(offsetof(MMEDeviceInfo, vendorId) == 0 && offsetof(MMEDeviceInfo, productId) == 2,
              "MMEDeviceInfo starts with the vendor and product ids");
static_assert(offsetof(MMEDeviceEndpoint, maxPacketSize) == 0 &&
                  offsetof(MMEDeviceAltSetting, flag) == 0 &&
                  offsetof(MMEDeviceInterface, direction) == 0 &&
                  offsetof(MMEAdapterInfo, mpContext) == 0 && offsetof(AudioSMClock, framePos) == 0,
              "first fields");
static_assert(std::is_signed<std::remove_extent<decltype(AudioSM::mSamples)>::type>::value &&
                  std::is_signed<decltype(AudioSMClock::stamp)>::value &&
                  std::is_signed<decltype(AudioSMClock::rateNum)>::value,
              "ring samples and clock stamps are signed");
static_assert(std::is_unsigned<decltype(AudioSM::mMMEReadPos)>::value &&
                  std::is_unsigned<decltype(AudioSMClock::framePos)>::value,
              "ring positions are unsigned");

TEST(RecordsLayout, ChannelConfigComparisonCountsEveryField) {
    const ChannelConfig base{44100, 2, 6, 16, 24, 0x80000001};
    ChannelConfig same = base;
    EXPECT_TRUE(same == base);
    same.config ^= 0x100; // the opaque word counts too
    EXPECT_TRUE(same != base);
    same = base;
    same.inRes = 32;
    EXPECT_FALSE(same == base);
}

} // namespace
