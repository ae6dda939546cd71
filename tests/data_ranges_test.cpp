// The streaming pins' data ranges as the wave miniport derives them from
// the device-info record at its first GetDescription: one range per rate
// and direction, the dummy input, the channel and resolution rules, the
// device lists that narrow the search, full pins and the fallback fill.
#include "driver/wave/DeviceLists.h"
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using wavetest::DeviceInfoBuilder;
using wavetest::LightRig;
using wavetest::ListGuard;

namespace {

struct Range {
    ULONG rate, minBits, maxBits, maxChannels;
    bool operator==(const Range& o) const {
        return rate == o.rate && minBits == o.minBits && maxBits == o.maxBits &&
               maxChannels == o.maxChannels;
    }
};

std::ostream& operator<<(std::ostream& os, const Range& r) {
    return os << r.rate << " Hz " << r.minBits << ".." << r.maxBits << " bits " << r.maxChannels
              << " ch";
}

// A wave miniport described from the record the test builds in dev.
class PinDataRanges : public ::testing::Test {
protected:
    void describe() {
        rig = std::make_unique<LightRig>(dev.get());
        tracecap::clearTrace();
        ASSERT_EQ(rig->describe(), STATUS_SUCCESS);
    }
    // The ranges in use on a pin; every one must name a single rate.
    std::vector<Range> ranges(ULONG pinId) {
        std::vector<Range> out;
        for (ULONG i = 0; i < rig->pin(pinId).DataRangesCount; ++i) {
            const KSDATARANGE_AUDIO& r = rig->range(pinId, i);
            EXPECT_EQ(r.MinimumSampleFrequency, r.MaximumSampleFrequency);
            out.push_back({r.MinimumSampleFrequency, r.MinimumBitsPerSample, r.MaximumBitsPerSample,
                           r.MaximumChannels});
        }
        return out;
    }
    std::vector<Range> capture() { return ranges(WAVE_PIN_CAPTURE); }
    std::vector<Range> render() { return ranges(WAVE_PIN_RENDER); }
    ULONG filled() { return rig->wave->descriptor()->FilledRatesCount; }

    DeviceInfoBuilder dev;
    std::unique_ptr<LightRig> rig;
};

using Ranges = std::vector<Range>;

} // namespace

TEST(SampleRateTable, IndexesZeroToSix) {
    std::vector<ULONG> rates;
    for (ULONG i : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0xFFFFFFFFu})
        rates.push_back(sampleRateFromIndex(i));
    EXPECT_EQ(rates, (std::vector<ULONG>{32000, 44100, 48000, 88200, 96000, 176400, 192000, 0, 0}));
}

TEST_F(PinDataRanges, OneRangePerRateWithLargestChannelCount) {
    dev.input(24, 2, {48000}).input(24, 8, {48000}).output(16, 2, {48000});
    describe();
    EXPECT_EQ(capture(), (Ranges{{48000, 16, 24, 8}}));
    EXPECT_EQ(render(), (Ranges{{48000, 16, 24, 2}}));
    EXPECT_EQ(filled(), 1u);
    // Ranges keep the format GUIDs of a fresh slot.
    EXPECT_TRUE(IsEqualGUID(rig->range(WAVE_PIN_CAPTURE, 0).DataRange.Specifier,
                            KSDATAFORMAT_SPECIFIER_WAVEFORMATEX));
}

TEST_F(PinDataRanges, RatesInTableOrderAndContinuousRanges) {
    dev.output(24, 4, {192000, 96000, 44100, 32000}).inputRange(16, 2, 44100, 96000);
    describe();
    // 32000 Hz is never offered; the render pin lists rates in table order.
    EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 4}, {96000, 16, 24, 4}, {192000, 16, 24, 4}}));
    // The input's continuous range gives every table rate inside it; 192000
    // has no input mode, so the output's is offered there as a dummy input.
    EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2},
                                 {48000, 16, 24, 2},
                                 {88200, 16, 24, 2},
                                 {96000, 16, 24, 2},
                                 {192000, 16, 24, 4}}));
    EXPECT_TRUE(tracecap::containsLine("FOUND INPUT RANGE srt/bits/channels 48000 16 2"));
    EXPECT_TRUE(tracecap::containsLine("FOUND OUTPUT srt/bits/channels 192000 24 4"));
    EXPECT_EQ(tracecap::countLines("Dummy Input stream FROM DEVICE"), 1u);
    EXPECT_EQ(filled(), 5u);
}

TEST_F(PinDataRanges, OutputOnlyRateGivesDummyInput) {
    dev.output(24, 2, {44100}).output(24, 6, {44100}).input(24, 2, {48000});
    describe();
    EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 6}}));
    EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 6}, {48000, 16, 24, 2}}));
    EXPECT_TRUE(tracecap::containsLine("Dummy Input stream FROM DEVICE"));
}

TEST_F(PinDataRanges, OddAndTooManyChannelsNeverOffered) {
    dev.input(24, 1, {48000}).input(24, 3, {48000}).input(24, 34, {48000}).output(24, 33, {48000});
    describe();
    EXPECT_TRUE(capture().empty());
    EXPECT_TRUE(render().empty());
    EXPECT_EQ(filled(), 0u);
}

TEST_F(PinDataRanges, AnyFoundResolutionOfferedAs16To24) {
    dev.input(20, 2, {88200}).output(32, 2, {88200}).output(16, 4, {88200});
    describe();
    EXPECT_EQ(capture(), (Ranges{{88200, 16, 24, 2}}));
    // 32 bits is outside the searched 16..24: only the 4-channel mode counts.
    EXPECT_EQ(render(), (Ranges{{88200, 16, 24, 4}}));
}

TEST_F(PinDataRanges, StereoListsNarrowTheSearch) {
    dev.ids(0x1111, 0x2222);
    dev.input(24, 8, {48000, 96000}).input(24, 2, {48000, 88200, 96000});
    dev.output(16, 2, {44100, 96000}).output(24, 2, {176400});
    const std::vector<DeviceIdPair> listed = {{0x0001, 0x0001}, {0x1111, 0x2222}};
    {
        ListGuard guard(STEREO_16BIT_DEVICES, listed);
        describe();
        // Only 2 channels at 16 bits are searched; 88200 and 96000 are off.
        EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 2}}));
        EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2}}));
    }
    {
        ListGuard guard(STEREO_24BIT_DEVICES, listed);
        describe();
        EXPECT_EQ(capture(), (Ranges{{44100, 16, 24, 2}, {48000, 16, 24, 2}, {176400, 16, 24, 2}}));
        EXPECT_EQ(render(), (Ranges{{44100, 16, 24, 2}, {176400, 16, 24, 2}}));
    }
    // Not listed: the defaults.
    describe();
    EXPECT_EQ(capture().size(), 5u);
    EXPECT_EQ(capture()[1], (Range{48000, 16, 24, 8}));
}

TEST_F(PinDataRanges, BuiltOnceWhateverLaterCallsFind) {
    dev.input(24, 2, {48000}).output(24, 2, {48000});
    describe();
    PtGenericDescriptor* first = rig->wave->descriptor();
    std::vector<UCHAR> before(reinterpret_cast<UCHAR*>(first),
                              reinterpret_cast<UCHAR*>(first) + sizeof(PtGenericDescriptor));

    dev.input(24, 8, {48000, 96000}); // the device "changes" afterwards
    rig->wave->createDescriptor();
    ASSERT_EQ(rig->describe(), STATUS_SUCCESS);
    EXPECT_EQ(rig->wave->descriptor(), first);
    EXPECT_EQ(std::memcmp(before.data(), first, sizeof(PtGenericDescriptor)), 0);
}

TEST_F(PinDataRanges, AdditionsWidenOrTakeTheNextSlotUntilThePinIsFull) {
    describe();
    KSPIN_DESCRIPTOR* pin = &rig->pin(WAVE_PIN_CAPTURE);
    EXPECT_TRUE(addModeToDescriptor_real(pin, 4, 48000, 24));
    EXPECT_TRUE(addModeToDescriptor_real(pin, 2, 48000, 16));
    EXPECT_TRUE(addModeToDescriptor_real(pin, 6, 44100, 20));
    EXPECT_EQ(capture(), (Ranges{{48000, 16, 24, 4}, {44100, 20, 20, 6}}));

    // A slot that no longer reads as an audio range is refused.
    rig->wave->descriptor()->CaptureDataRanges[2].DataRange.FormatSize = 0;
    tracecap::clearTrace();
    EXPECT_FALSE(addModeToDescriptor_real(pin, 2, 96000, 16));
    EXPECT_TRUE(tracecap::containsLine(
        "pPin->DataRanges[pPin->DataRangesCount]->FormatSize != sizeof(KSDATARANGE_AUDIO)"));
    EXPECT_EQ(pin->DataRangesCount, 2u);
    EXPECT_FALSE(addModeToDescriptor_real(nullptr, 2, 48000, 16));
    EXPECT_TRUE(tracecap::containsLine("ERROR pPin is NULL"));

    // A full pin refuses every further mode, even one that would only widen.
    pin = &rig->pin(WAVE_PIN_RENDER);
    for (ULONG i = 0; i < GEN_MAX_DATA_RANGES; ++i)
        ASSERT_TRUE(addModeToDescriptor_real(pin, 2, 1000 + i, 16));
    EXPECT_EQ(pin->DataRangesCount, GEN_MAX_DATA_RANGES);
    tracecap::clearTrace();
    EXPECT_FALSE(addModeToDescriptor_real(pin, 8, 1000, 24));
    EXPECT_TRUE(tracecap::containsLine("ERROR pPin->DataRangesCount >= GEN_MAX_DATA_RANGES"));
    EXPECT_EQ(rig->range(WAVE_PIN_RENDER, 0).MaximumChannels, 2u);
    EXPECT_FALSE(addModeToDescriptor(pin, 2, 5000));
    EXPECT_EQ(pin->DataRangesCount, GEN_MAX_DATA_RANGES);
}

TEST(PinDataRangesWithout, DeviceInfoBothPinsStayEmpty) {
    LightRig rig(nullptr);
    tracecap::clearTrace();
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    EXPECT_EQ(rig.pin(WAVE_PIN_CAPTURE).DataRangesCount, 0u);
    EXPECT_EQ(rig.pin(WAVE_PIN_RENDER).DataRangesCount, 0u);
    EXPECT_EQ(rig.wave->descriptor()->FilledRatesCount, 0u);
    EXPECT_TRUE(tracecap::containsLine("pAPI_DI is NULL"));
    // The fallback asks for 44100 Hz, 2 channels, 16 bits after its line.
    long fallback = tracecap::findLine("No Inputs or Outputs for system sound found.");
    ASSERT_GE(fallback, 0);
    EXPECT_GE(tracecap::findLine("uSampleRate is  44100", fallback), fallback);
    EXPECT_GE(tracecap::findLine("nMinBits/nMaxBits 16 16", fallback), fallback);
}

TEST(PinDataRangesWithout, AdapterNothingIsBuilt) {
    LightRig rig(nullptr, /*init=*/false);
    tracecap::clearTrace();
    EXPECT_EQ(rig.describe(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(rig.wave->descriptor(), nullptr);
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter is NULL"));
}
