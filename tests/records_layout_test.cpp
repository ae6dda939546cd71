// The records shared with the USB driver, seen as bytes: each test lays a
// record out byte by byte at the documented offsets (little-endian, as the
// other driver writes it) and reads it back through the structure. The
// offsets themselves are checked at compile time; these catch what those
// checks cannot: field order and width, signedness, the documented values.
#include "driver/common/AudioSM.h"
#include "driver/common/MMEAdapterInfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

void put(Bytes& bytes, size_t offset, uint64_t value, size_t width) {
    ASSERT_LE(offset + width, bytes.size());
    for (size_t i = 0; i < width; ++i)
        bytes[offset + i] = uint8_t(value >> (8 * i));
}

template <typename T> std::unique_ptr<T> fromBytes(const Bytes& bytes) {
    EXPECT_EQ(bytes.size(), sizeof(T));
    auto record = std::make_unique<T>();
    std::memcpy(static_cast<void*>(record.get()), bytes.data(), sizeof(T));
    return record;
}

uint64_t addressOf(const void* p) {
    return uint64_t(uintptr_t(p));
}

TEST(RecordsLayout, LinkRecordReadsFieldsFromTheirOffsets) {
    int context;
    Bytes bytes(112, 0xCC); // neighbours of every field are not zero
    put(bytes, 0x00, addressOf(&context), 8);
    put(bytes, 0x20, 2095900, 4);
    put(bytes, 0x38, 1, 1);
    put(bytes, 0x50, 0x0A4A, 4);
    put(bytes, 0x54, 0xFB12, 4);
    for (int i = 0; i < 6; ++i)
        put(bytes, 0x58 + 4 * i, 100 + i, 4);

    auto info = fromBytes<MMEAdapterInfo>(bytes);
    EXPECT_EQ(info->mpContext, &context);
    EXPECT_EQ(info->mInterfaceVersion, MME_INTERFACE_VERSION);
    EXPECT_EQ(info->mbAttached, 1);
    EXPECT_EQ(info->mVendorID, 0x0A4Au);
    EXPECT_EQ(info->mProductID, 0xFB12u);
    // By name: the order in memory is not the order the trace prints them in.
    const ChannelConfig& c = info->mcAttachChannels;
    EXPECT_EQ((std::vector<uint32_t>{c.fr, c.inCH, c.outCH, c.inRes, c.outRes, c.config}),
              (std::vector<uint32_t>{100, 101, 102, 103, 104, 105}));
}

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

TEST(RecordsLayout, DeviceInfoNestedRecordsAtComputedOffsets) {
    constexpr size_t kConfiguration = 24644, kInterface = 1540, kAlt = 96;
    Bytes bytes(sizeof(MMEDeviceInfo), 0);
    put(bytes, 0x00, 0x0A4A, 2);
    put(bytes, 0x02, 0xC123, 2);
    put(bytes, 0x04, 0x0777, 2);
    put(bytes, 0x06, 3, 1);
    // Configuration 2, interface 15, alternate setting 15: the last places.
    const size_t config = 0x08 + 2 * kConfiguration;
    put(bytes, config + 0x02, 16, 1);
    const size_t iface = config + 0x04 + 15 * kInterface;
    put(bytes, iface + 0x00, MME_DIRECTION_INPUT, 1);
    put(bytes, iface + 0x02, 16, 1);
    const size_t alt = iface + 0x04 + 15 * kAlt;
    put(bytes, alt + 0x00, 1, 1);
    put(bytes, alt + 0x05, 18, 1);
    put(bytes, alt + 0x10 + 4 * 15, 176400, 4);
    put(bytes, alt + 0x50 + 4 * 3, 0x0200, 2);
    put(bytes, alt + 0x50 + 4 * 3 + 2, 0x86, 1);

    auto info = fromBytes<MMEDeviceInfo>(bytes);
    EXPECT_EQ(info->vendorId, 0x0A4A);
    EXPECT_EQ(info->productId, 0xC123);
    EXPECT_EQ(info->thirdWord, 0x0777);
    EXPECT_EQ(info->numConfigurations, 3);
    const MMEDeviceConfiguration& c = info->configurations[2];
    EXPECT_EQ(c.numInterfaces, 16);
    EXPECT_EQ(c.interfaces[15].direction, MME_DIRECTION_INPUT);
    EXPECT_EQ(c.interfaces[15].numAltSettings, 16);
    const MMEDeviceAltSetting& a = c.interfaces[15].altSettings[15];
    EXPECT_EQ(a.flag, 1);
    EXPECT_EQ(a.channels, 18);
    EXPECT_EQ(a.rates[15], 176400u);
    EXPECT_EQ(a.endpoints[3].maxPacketSize, 0x0200);
    EXPECT_EQ(a.endpoints[3].address, 0x86);
    // Nothing else was set anywhere in the record.
    EXPECT_EQ(info->configurations[1].numInterfaces, 0);
    EXPECT_EQ(c.interfaces[14].altSettings[15].channels, 0);
}

TEST(RecordsLayout, SampleRingSamplesAndClocksAreSignedWhereTheyMustBe) {
    Bytes bytes(sizeof(AudioSM), 0);
    put(bytes, 4 * 0, 0x11223344, 4);
    put(bytes, 4 * (nMaxSamples - 1), 0xFFFFFFFE, 4);
    put(bytes, 0x81020, 0x0000000300000001ull, 8);
    put(bytes, 0x81038, 4096, 4);
    put(bytes, 0x81038 + 8, uint64_t(-5), 8);
    put(bytes, 0x81060 + 24, 48000, 8);
    put(bytes, 0x81060 + 32, 10000000, 8);
    put(bytes, 0x810BC, 0xFFFFFFFF, 4);

    auto ring = fromBytes<AudioSM>(bytes);
    EXPECT_EQ(ring->mSamples[0], 0x11223344);
    EXPECT_EQ(ring->mSamples[nMaxSamples - 1], -2);
    EXPECT_EQ(ring->mExclInputs, 0x0000000300000001ull);
    EXPECT_EQ(ring->mClockA.framePos, 4096u);
    EXPECT_EQ(ring->mClockA.stamp, -5);
    EXPECT_EQ(ring->mClockB.rateNum, 48000);
    EXPECT_EQ(ring->mClockB.rateDen, 10000000);
    EXPECT_EQ(ring->mMMEReadPos, MME_RING_NOT_ATTACHED);
}

} // namespace
