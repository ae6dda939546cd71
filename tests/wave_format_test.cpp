// The wave miniport's two format questions: is a requested format one of the
// streaming pins' (validation, with lower channel counts and the digital
// lock), and what format meets a client's range (intersection, with its
// buffer-length protocol and the rules that open streams and locks impose).
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/ObjectChecks.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using hostpc::clientRange;
using wavetest::DeviceInfoBuilder;
using wavetest::FormatDesc;
using wavetest::LightRig;
using wavetest::makeFormat;

namespace {

constexpr ULONG kZero = 0, kUntouched = 0xEEEEEEEE, kNoLength = 0xDEADBEEF;

// Capture pin: 48000 Hz, 16..24 bits, 8 channels; render pin: the same, 2 channels.
class Validation : public ::testing::Test {
protected:
    Validation() {
        dev.input(24, 8, {48000}).output(16, 2, {48000});
        rig = std::make_unique<LightRig>(dev.get());
        EXPECT_EQ(rig->describe(), STATUS_SUCCESS);
    }
    NTSTATUS validateBytes(const std::vector<UCHAR>& format, bool capture = true,
                           ULONG size = ~0u) {
        std::memset(&result, 0xEE, sizeof(result));
        tracecap::clearTrace();
        return rig->wave->doValidateFormat(reinterpret_cast<const KSDATAFORMAT*>(format.data()),
                                           size == ~0u ? ULONG(format.size()) : size, capture,
                                           &result);
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

// Channel counts one below, at and one above each pin's maximum, lower even
// counts with either alignment, and every refused resolution and rate. A
// refusal (no range handed back) leaves the result range zeroed.
TEST_F(Validation, ChannelsResolutionsAndAlignments) {
    const bool C = true, R = false; // capture pin (8 channels), render pin (2)
    struct Case {
        USHORT channels, bits, align;
        ULONG rate;
        bool capture;
        ULONG handedBack; // the range's channel count; 0: refused
        const char* line;
    } cases[] = {
        {8, 24, 24, 48000, C, 8, "chan/bits/freq valid 8 24 48000"},
        {2, 16, 4, 48000, R, 2, nullptr},
        {2, 16, 4, 48000, C, 8, "Accept lower channel format ch/bits/align 2 16 4"},
        {2, 16, 16, 48000, C, 8, "pinSupportsSettingEx returned true (less channels)"},
        {6, 24, 18, 48000, C, 8, "Accept lower channel format ch/bits/align 6 24 18"},
        {7, 24, 21, 48000, C, 0, nullptr},
        {9, 24, 27, 48000, C, 0, nullptr},
        {10, 24, 30, 48000, C, 0, nullptr},
        {4, 16, 8, 48000, R, 0, nullptr},
        {2, 16, 8, 48000, C, 0, "nExpectedBlockAlign != pFormat->nBlockAlign 16 8"},
        {8, 24, 16, 48000, C, 0, nullptr},
        {3, 16, 6, 48000, C, 0, nullptr},
        {0, 16, 0, 48000, C, 0, nullptr},
        {2, 16, 4, 44100, C, 0, nullptr},
        {2, 32, 8, 48000, C, 0, nullptr},
        {8, 8, 8, 48000, C, 0, nullptr},
        {8, 20, 20, 48000, C, 0, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.channels << " ch " << c.bits << " bits align " << c.align << " at "
                     << c.rate << (c.capture ? " in" : " out"));
        EXPECT_EQ(validate({c.rate, c.channels, c.bits, c.align}, c.capture),
                  c.handedBack ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED);
        if (c.handedBack) {
            EXPECT_EQ(result.MaximumChannels, c.handedBack);
        } else {
            EXPECT_TRUE(resultIsZero());
            EXPECT_TRUE(
                tracecap::containsLine("pinSupportsSettingEx returned false (less channels)"));
        }
        if (c.line) {
            EXPECT_TRUE(tracecap::containsLine(c.line)) << tracecap::dumpTrace();
        }
    }
    EXPECT_EQ(validate({48000, 2, 16, 16}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("Accept lower channel format ch/bits/align 2 16 16"));
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);
    EXPECT_FALSE(tracecap::containsLine("pinSupportsSettingEx returned false"));
    EXPECT_EQ(std::memcmp(&result, &rig->range(WAVE_PIN_CAPTURE, 0), sizeof(result)), 0);
}

TEST_F(Validation, TwentyBitsNeverPassEvenInsideTheRange) {
    for (USHORT align : {0, 20, 24, 5}) {
        std::vector<UCHAR> f = makeFormat({48000, 8, 20});
        reinterpret_cast<KSDATAFORMAT_WAVEFORMATEX*>(f.data())->WaveFormatEx.nBlockAlign = align;
        EXPECT_EQ(validateBytes(f), STATUS_NOT_SUPPORTED) << align;
        checks::expectLines({"pFormat->wBitsPerSample invalid 20",
                             "DataRange chan/minbits/maxbits/freq exists 8 16 24 48000"});
    }
}

TEST_F(Validation, DigitalLockRefusesOtherRatesFirst) {
    rig->settings.mDigitalLockFrequency = 44100;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_NOT_SUPPORTED);
    checks::expectLines({"allow digital lock frequency only 44100",
                         "samplerate mismach requested/digital 48000 44100"});
    EXPECT_FALSE(tracecap::containsLineStartingWith("CHECK RANGE"));
    EXPECT_EQ(result.MaximumChannels, kUntouched);
    rig->settings.mDigitalLockFrequency = 48000;
    EXPECT_EQ(validate({48000, 8, 24, 24}), STATUS_SUCCESS);
}

TEST_F(Validation, HeaderCheckedAfterTheRanges) {
    FormatDesc shortHeader{48000, 8, 24, 24}, noSpecifier = shortHeader, notAudio = shortHeader;
    shortHeader.formatSize = 81;
    shortHeader.bufferSize = 82;
    noSpecifier.specifier = &KSDATAFORMAT_SPECIFIER_NONE;
    notAudio.major = &KSDATAFORMAT_SUBTYPE_PCM;
    for (const FormatDesc& desc : {shortHeader, noSpecifier, notAudio}) {
        EXPECT_EQ(validate(desc), STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("....invalid paramter bits/channels/rate 24 8 48000"));
        EXPECT_EQ(result.MaximumChannels, 8u); // the accepted range stays
    }
}

TEST_F(Validation, ShortMissingOrUndescribedFormatsRefusedUnread) {
    // Buffers that end inside the KSDATAFORMAT header.
    for (ULONG size : {0u, 1u, 64u, 81u}) {
        std::vector<UCHAR> exact = makeFormat({48000, 8, 24, 24});
        exact.resize(std::max(size, 1u));
        EXPECT_EQ(validateBytes(exact, true, size), STATUS_NOT_SUPPORTED) << size;
        EXPECT_FALSE(tracecap::containsLineStartingWith("...CH/Bits/Freq"));
        EXPECT_EQ(result.MaximumChannels, kUntouched);
    }
    EXPECT_EQ(rig->wave->doValidateFormat(nullptr, 82, true, &result), STATUS_NOT_SUPPORTED);
    checks::expectAssert("Format", "MMEWave");

    LightRig bare(dev.get()); // never asked for its description
    std::vector<UCHAR> format = makeFormat({48000, 8, 24, 24});
    EXPECT_EQ(bare.wave->doValidateFormat(reinterpret_cast<KSDATAFORMAT*>(format.data()),
                                          format.size(), true, nullptr),
              STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("!pPinDesc"));
}

TEST(PinSupportsSetting, NullArgumentsAndEmptyPins) {
    WAVEFORMATEX wfx{};
    KSPIN_DESCRIPTOR pin{};
    EXPECT_FALSE(pinSupportsSetting(nullptr, &wfx, true, nullptr));
    EXPECT_FALSE(pinSupportsSetting(&pin, nullptr, true, nullptr));
    checks::expectLines({"ERROR pPin is NULL", "ERROR pFormat is NULL"});
    EXPECT_FALSE(pinSupportsSetting(&pin, &wfx, true, nullptr)); // no ranges at all
    LightRig rig(nullptr);
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    wfx = {WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
    EXPECT_FALSE(pinSupportsSetting(&rig.pin(WAVE_PIN_CAPTURE), &wfx, true, nullptr));
}

// ---- Intersection ----

namespace {

struct Answer {
    NTSTATUS status;
    ULONG length = kNoLength;
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE format;
};

Answer intersect(MMEWave* wave, ULONG pin, const void* client, const void* mine,
                 ULONG bufferLength = sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE),
                 bool withBuffer = true) {
    Answer a;
    std::memset(&a.format, 0xCD, sizeof(a.format));
    tracecap::clearTrace();
    a.status =
        wave->DataRangeIntersection(pin, static_cast<PKSDATARANGE>(const_cast<void*>(client)),
                                    static_cast<PKSDATARANGE>(const_cast<void*>(mine)),
                                    bufferLength, withBuffer ? &a.format : nullptr, &a.length);
    return a;
}

// Capture pin: 48000 Hz 6 channels, 44100 Hz 2 channels; render pin: 48000 Hz 2 channels.
class Intersection : public ::testing::Test {
protected:
    Intersection() {
        dev.input(24, 6, {48000}).input(16, 2, {44100}).output(24, 2, {48000});
        rig = std::make_unique<LightRig>(dev.get());
        EXPECT_EQ(rig->describe(), STATUS_SUCCESS);
    }
    DeviceInfoBuilder dev;
    std::unique_ptr<LightRig> rig;
    KSDATARANGE_AUDIO client = clientRange(8, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO pin48k = clientRange(6, 16, 24, 48000, 48000);
};

} // namespace

TEST_F(Intersection, SixChannelExample) {
    Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k);
    ASSERT_EQ(a.status, STATUS_SUCCESS);
    EXPECT_EQ(a.length, 104u);
    const KSDATAFORMAT& h = a.format.DataFormat;
    EXPECT_EQ((std::vector<ULONG>{h.FormatSize, h.Flags, h.SampleSize, h.Reserved}),
              (std::vector<ULONG>{104, 0, 0, 0}));
    EXPECT_TRUE(IsEqualGUID(h.MajorFormat, KSDATAFORMAT_TYPE_AUDIO));
    EXPECT_TRUE(IsEqualGUID(h.SubFormat, KSDATAFORMAT_SUBTYPE_PCM));
    EXPECT_TRUE(IsEqualGUID(h.Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX));
    const WAVEFORMATEXTENSIBLE& w = a.format.WaveFormatExt;
    EXPECT_EQ(
        (std::vector<ULONG>{w.Format.wFormatTag, w.Format.nChannels, w.Format.nSamplesPerSec,
                            w.Format.nBlockAlign, w.Format.nAvgBytesPerSec, w.Format.wBitsPerSample,
                            w.Format.cbSize, w.Samples.wValidBitsPerSample, w.dwChannelMask}),
        (std::vector<ULONG>{WAVE_FORMAT_EXTENSIBLE, 6, 48000, 18, 864000, 24, 22, 24, 0x3F}));
    GUID sub = w.SubFormat;
    EXPECT_TRUE(IsEqualGUID(sub, KSDATAFORMAT_SUBTYPE_PCM));
    checks::expectLines({"...cDataRangeIntersection ch-max:6 bits-min:16 bits-max:24 "
                         "freq-min:48000 freq-max:48000",
                         "datarangeintersection STATUS_SUCCESS"});
}

TEST_F(Intersection, ChannelMasks) {
    struct {
        ULONG channels, mask;
    } cases[] = {{2, 0x3}, {8, 0xFF}, {31, 0x7FFFFFFF}, {32, 0xFFFFFFFF}, {40, 0xFFFFFFFF}};
    KSDATARANGE_AUDIO wide = clientRange(64, 8, 32, 8000, 192000);
    for (auto c : cases) {
        KSDATARANGE_AUDIO mine = clientRange(c.channels, 16, 16, 48000, 48000);
        Answer b = intersect(rig->wave, WAVE_PIN_CAPTURE, &wide, &mine);
        ASSERT_EQ(b.status, STATUS_SUCCESS);
        EXPECT_EQ(b.format.WaveFormatExt.dwChannelMask, c.mask) << c.channels;
        EXPECT_EQ(b.format.WaveFormatExt.Format.nBlockAlign, c.channels * 2);
    }
}

// Refusals in the order they are checked. Those before the size answer write
// no length; those after it have given 104 and leave the buffer alone.
TEST_F(Intersection, RefusalsInTheirOrder) {
    KSDATARANGE_AUDIO notPcm = client, notAudio = client, wrongSize = client;
    notPcm.DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG;
    notAudio.DataRange.MajorFormat = KSDATAFORMAT_SUBTYPE_PCM;
    wrongSize.DataRange.FormatSize = sizeof(KSDATARANGE);
    KSDATARANGE_AUDIO mono = clientRange(1, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO bits32 = clientRange(8, 32, 32, 8000, 192000);
    KSDATARANGE_AUDIO above = clientRange(8, 8, 32, 96000, 192000);
    const std::string m = "MMEWave::DataRangeIntersection ";
    struct Case {
        const KSDATARANGE_AUDIO* clientRange;
        const void* myRange;
        ULONG pin;
        NTSTATUS status;
        std::string line;
        ULONG length;
    } cases[] = {
        {nullptr, &pin48k, 0, STATUS_INVALID_PARAMETER, m + "!pClientDataRange", kNoLength},
        {&wrongSize, &pin48k, 0, STATUS_NO_MATCH,
         m + "pClientDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)", kNoLength},
        {&notAudio, &pin48k, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pClientDataRange->MajorFormat, KSDATAFORMAT_TYPE_AUDIO )",
         kNoLength},
        {&notPcm, &pin48k, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pClientDataRange->SubFormat, KSDATAFORMAT_SUBTYPE_PCM )",
         kNoLength},
        {&client, nullptr, 0, STATUS_INVALID_PARAMETER, m + "!pMyDataRange", kNoLength},
        {&client, &notPcm, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pMyDataRange->SubFormat, KSDATAFORMAT_SUBTYPE_PCM )", kNoLength},
        {&client, &notAudio, 0, STATUS_NO_MATCH,
         m + "!IsEqualGUIDAligned(pMyDataRange->MajorFormat, KSDATAFORMAT_TYPE_AUDIO )", kNoLength},
        // The bridge pins' analog range ends at the pin's range.
        {&client, &rig->wave->descriptor()->BridgeDataRange, WAVE_PIN_CAPTURE_BRIDGE,
         STATUS_NO_MATCH, m + "pMyDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)", kNoLength},
        {&client, &pin48k, 4, STATUS_NO_MATCH, m + "!pPinDescriptor", kNoLength},
        {&client, &pin48k, 0xFFFFFFFF, STATUS_NO_MATCH, m + "!pPinDescriptor", kNoLength},
        {&mono, &pin48k, 0, STATUS_NO_MATCH, "...cDataRangeIntersection.MaximumChannels < 2", 104},
        {&bits32, &pin48k, 0, STATUS_NO_MATCH,
         "...cDataRangeIntersection.MinimumBitsPerSample > "
         "cDataRangeIntersection.MaximumBitsPerSample",
         104},
        {&above, &pin48k, 0, STATUS_NO_MATCH,
         "...cDataRangeIntersection.MinimumSampleFrequency > "
         "cDataRangeIntersection.MaximumSampleFrequency",
         104},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Answer a = intersect(rig->wave, c.pin, c.clientRange, c.myRange);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.length, c.length);
        EXPECT_EQ(a.format.DataFormat.FormatSize, 0xCDCDCDCDu);
        if (c.length == kNoLength) {
            EXPECT_EQ(tracecap::traceMessages(), std::vector<std::string>{c.line});
        } else {
            EXPECT_TRUE(tracecap::containsLine(c.line));
        }
    }
    EXPECT_EQ(rig->wave->DataRangeIntersection(0, &client.DataRange, &pin48k.DataRange, 104,
                                               nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatLength"));
}

TEST_F(Intersection, BufferLengthProtocol) {
    struct {
        ULONG length;
        bool buffer;
        NTSTATUS status;
    } cases[] = {{0, true, STATUS_BUFFER_OVERFLOW},
                 {103, true, STATUS_BUFFER_TOO_SMALL},
                 {104, true, STATUS_SUCCESS},
                 {105, true, STATUS_SUCCESS},
                 {104, false, STATUS_INVALID_PARAMETER}};
    for (auto c : cases) {
        Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, c.length, c.buffer);
        EXPECT_EQ(a.status, c.status) << c.length;
        EXPECT_EQ(a.length, 104u);
        EXPECT_EQ(a.format.DataFormat.FormatSize == 104u, c.status == STATUS_SUCCESS);
    }
    intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 0);
    EXPECT_TRUE(tracecap::containsLine("...!OutputBufferLength"));
    intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 104, false);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatPtr"));
    // A size query can succeed for ranges that then do not intersect.
    KSDATARANGE_AUDIO mono = clientRange(1, 16, 24, 48000, 48000);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono, 0).status,
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono).status, STATUS_NO_MATCH);
}

TEST_F(Intersection, DigitalLockBindsTheRate) {
    rig->settings.mDigitalLockFrequency = 44100;
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k).status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine(
        "...cDataRangeIntersection.MinimumSampleFrequency != uHWDigitalLockedFrequency"));
    KSDATARANGE_AUDIO pin44k = clientRange(2, 16, 16, 44100, 44100);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin44k).status, STATUS_SUCCESS);
}

TEST(IntersectionWithout, RangesOrAdapter) {
    LightRig empty(nullptr);
    ASSERT_EQ(empty.describe(), STATUS_SUCCESS);
    KSDATARANGE_AUDIO r = clientRange(2, 16, 16, 48000, 48000);
    EXPECT_EQ(intersect(empty.wave, WAVE_PIN_RENDER, &r, &r).status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine("MMEWave::DataRangeIntersection !pPinDescriptor"));

    LightRig unbound(nullptr, /*init=*/false);
    Answer a = intersect(unbound.wave, 0, &r, &r);
    EXPECT_EQ(a.status, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(a.length, kNoLength);
    EXPECT_TRUE(tracecap::containsLine("!mMMEAdapter"));
}

// Capture side and the rate binding: e2e Directions.IntersectionOffersOnlyTheRateOfAnOpenStream.
TEST(IntersectionWithStreams, AnOpenRenderStreamClosesItsPinUntilClosed) {
    wavetest::StackRig stack; // 8 in / 8 out, hardware at 48000 Hz
    KSDATARANGE_AUDIO client = clientRange(8, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO at44 = clientRange(8, 16, 24, 44100, 44100);
    KSDATARANGE_AUDIO at48 = clientRange(8, 16, 24, 48000, 48000);
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
    wavetest::OpenedStream render = stack.open(false, format);
    ASSERT_EQ(render.status, STATUS_SUCCESS);
    Answer a = intersect(stack.wave, WAVE_PIN_RENDER, &client, &at48);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_EQ(a.length, kNoLength);
    EXPECT_TRUE(tracecap::containsLine(
        "MMEWave::DataRangeIntersection ERROR: render stream already allocated"));
    wavetest::closeStream(render);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_RENDER, &client, &at44).status, STATUS_SUCCESS);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_CAPTURE, &client, &at44).status, STATUS_SUCCESS);
}
