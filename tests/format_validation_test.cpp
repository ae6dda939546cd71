// Format validation against the streaming pins' ranges and the digital
// lock: exact and lower channel counts, block alignments, resolutions,
// rates, the header checks that follow the range check, short buffers, and
// the matched range handed back.
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using wavetest::DeviceInfoBuilder;
using wavetest::FormatDesc;
using wavetest::LightRig;
using wavetest::makeFormat;

namespace {

// Capture pin: one range 48000 Hz, 16..24 bits, 8 channels.
// Render pin: one range 48000 Hz, 16..24 bits, 2 channels.
class Validation : public ::testing::Test {
protected:
    Validation() {
        dev.input(24, 8, {48000}).output(16, 2, {48000});
        rig = std::make_unique<LightRig>(dev.get());
        EXPECT_EQ(rig->describe(), STATUS_SUCCESS);
        std::memset(&result, 0xEE, sizeof(result));
    }

    NTSTATUS validateBytes(const std::vector<UCHAR>& format, bool capture = true) {
        tracecap::clearTrace();
        return rig->wave->doValidateFormat(reinterpret_cast<const KSDATAFORMAT*>(format.data()),
                                           static_cast<ULONG>(format.size()), capture, &result);
    }
    NTSTATUS validate(const FormatDesc& desc, bool capture = true) {
        return validateBytes(makeFormat(desc), capture);
    }
    bool resultIsZero() const {
        const UCHAR* p = reinterpret_cast<const UCHAR*>(&result);
        return std::all_of(p, p + sizeof(result), [](UCHAR b) { return b == 0; });
    }

    DeviceInfoBuilder dev;
    std::unique_ptr<LightRig> rig;
    KSDATARANGE_AUDIO result;
};

} // namespace

TEST_F(Validation, ExactChannelsPassAtOnce) {
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("pinSupportsSettingEx returned false"));
    EXPECT_TRUE(tracecap::containsLine("chan/bits/freq valid 8 24 48000"));
    EXPECT_EQ(std::memcmp(&result, &rig->range(WAVE_PIN_CAPTURE, 0), sizeof(result)), 0);

    EXPECT_EQ(validate({48000, 2, 16, 4}, false), STATUS_SUCCESS);
    EXPECT_EQ(result.MaximumChannels, 2u);
}

TEST_F(Validation, LowerEvenChannelsWithEitherAlignment) {
    EXPECT_EQ(validate({48000, 2, 16, 4}), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("pinSupportsSettingEx returned false"));
    EXPECT_TRUE(tracecap::containsLine("pinSupportsSettingEx returned true (less channels)"));
    EXPECT_TRUE(tracecap::containsLine("Accept lower channel format ch/bits/align 2 16 4"));
    EXPECT_EQ(result.MaximumChannels, 8u); // the 8-channel range is handed back

    // The alignment of the range's 8 channels passes too.
    EXPECT_EQ(validate({48000, 2, 16, 16}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("Accept lower channel format ch/bits/align 2 16 16"));
    EXPECT_EQ(validate({48000, 6, 24, 18}), STATUS_SUCCESS);

    // Any other alignment does not.
    EXPECT_EQ(validate({48000, 2, 16, 8}), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("nExpectedBlockAlign != pFormat->nBlockAlign 16 8"));
    EXPECT_EQ(validate({48000, 8, 24, 16}), STATUS_NOT_SUPPORTED);
}

TEST_F(Validation, RefusalsLeaveTheResultRangeZero) {
    struct Case {
        const char* what;
        FormatDesc desc;
        bool capture;
    } cases[] = {
        {"odd channel count", {48000, 3, 16, 6}, true},
        {"more channels than the range", {48000, 4, 16, 8}, false},
        {"no channels", {48000, 0, 16, 0}, true},
        {"another rate", {44100, 2, 16, 4}, true},
        {"32 bits outside 16..24", {48000, 2, 32, 8}, true},
        {"8 bits", {48000, 8, 8, 8}, true},
        {"20 bits", {48000, 8, 20, 20}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(validate(c.desc, c.capture), STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(resultIsZero());
        EXPECT_TRUE(tracecap::containsLine("pinSupportsSettingEx returned false (less channels)"));
    }
}

TEST_F(Validation, TwentyBitsNeverPassEvenInsideTheRange) {
    // The range allows 16..24 bits, so 20 reaches the resolution test.
    for (USHORT align : {0, 20, 24, 5}) {
        std::vector<UCHAR> f = makeFormat({48000, 8, 20});
        reinterpret_cast<KSDATAFORMAT_WAVEFORMATEX*>(f.data())->WaveFormatEx.nBlockAlign = align;
        EXPECT_EQ(validateBytes(f), STATUS_NOT_SUPPORTED) << align;
        EXPECT_TRUE(tracecap::containsLine("pFormat->wBitsPerSample invalid 20"));
        EXPECT_TRUE(
            tracecap::containsLine("DataRange chan/minbits/maxbits/freq exists 8 16 24 48000"));
    }
}

TEST_F(Validation, DigitalLockRefusesOtherRatesFirst) {
    rig->settings.mDigitalLockFrequency = 44100;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("allow digital lock frequency only 44100"));
    EXPECT_TRUE(tracecap::containsLine("samplerate mismach requested/digital 48000 44100"));
    EXPECT_FALSE(tracecap::containsLineStartingWith("CHECK RANGE"));
    EXPECT_EQ(result.MaximumChannels, 0xEEEEEEEEu); // untouched

    rig->settings.mDigitalLockFrequency = 48000;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);
}

TEST_F(Validation, HeaderCheckedAfterTheRanges) {
    FormatDesc shortHeader{48000, 8, 24, 24};
    shortHeader.formatSize = 81;
    shortHeader.bufferSize = 82;
    FormatDesc noSpecifier{48000, 8, 24, 24};
    noSpecifier.specifier = &KSDATAFORMAT_SPECIFIER_NONE;
    FormatDesc notAudio{48000, 8, 24, 24};
    notAudio.major = &KSDATAFORMAT_SUBTYPE_PCM;
    for (const FormatDesc& desc : {shortHeader, noSpecifier, notAudio}) {
        EXPECT_EQ(validate(desc), STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("....invalid paramter bits/channels/rate 24 8 48000"));
        EXPECT_TRUE(tracecap::containsLineStartingWith("DataRange chan/minbits/maxbits/freq"));
        EXPECT_EQ(result.MaximumChannels, 8u); // the accepted range stays
    }
}

TEST_F(Validation, ExtensibleFormatsByTheirLeadingFields) {
    FormatDesc ext{48000, 8, 24, 24};
    ext.extensible = true;
    EXPECT_EQ(validate(ext), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("wFormatTag 0x0000FFFE"));
    EXPECT_TRUE(tracecap::containsLine("cbSize 0x00000016"));
    FormatDesc extLower{48000, 2, 24, 6};
    extLower.extensible = true;
    EXPECT_EQ(validate(extLower), STATUS_SUCCESS);
}

TEST_F(Validation, ShortBuffersRefusedUnread) {
    // The buffer ends right after the KSDATAFORMAT header.
    for (ULONG size : {0u, 1u, 64u, 81u}) {
        SCOPED_TRACE(size);
        std::vector<UCHAR> full = makeFormat({48000, 8, 24, 24});
        std::unique_ptr<UCHAR[]> exact(new UCHAR[size ? size : 1]);
        std::memcpy(exact.get(), full.data(), size);
        tracecap::clearTrace();
        EXPECT_EQ(rig->wave->doValidateFormat(reinterpret_cast<KSDATAFORMAT*>(exact.get()), size,
                                              true, &result),
                  STATUS_NOT_SUPPORTED);
        EXPECT_FALSE(tracecap::containsLineStartingWith("...CH/Bits/Freq"));
        EXPECT_EQ(result.MaximumChannels, 0xEEEEEEEEu);
    }
}

TEST_F(Validation, MissingFormatOrDescriptor) {
    EXPECT_EQ(rig->wave->doValidateFormat(nullptr, 82, true, &result), STATUS_NOT_SUPPORTED);
    checks::expectAssert("Format", "MMEWave");

    LightRig bare(dev.get()); // never asked for its description
    std::vector<UCHAR> format = makeFormat({48000, 8, 24, 24});
    tracecap::clearTrace();
    EXPECT_EQ(bare.wave->doValidateFormat(reinterpret_cast<KSDATAFORMAT*>(format.data()),
                                          format.size(), true, nullptr),
              STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("!pPinDesc"));
}

TEST(PinSupportsSetting, NullArgumentsAndEmptyPins) {
    WAVEFORMATEX wfx{};
    KSPIN_DESCRIPTOR pin{};
    EXPECT_FALSE(pinSupportsSetting(nullptr, &wfx, true, nullptr));
    EXPECT_TRUE(tracecap::containsLine("ERROR pPin is NULL"));
    EXPECT_FALSE(pinSupportsSetting(&pin, nullptr, true, nullptr));
    EXPECT_TRUE(tracecap::containsLine("ERROR pFormat is NULL"));
    EXPECT_FALSE(pinSupportsSetting(&pin, &wfx, true, nullptr)); // no ranges at all

    // An empty streaming pin refuses everything.
    LightRig rig(nullptr);
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    wfx = {WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
    EXPECT_FALSE(pinSupportsSetting(&rig.pin(WAVE_PIN_CAPTURE), &wfx, true, nullptr));
}
