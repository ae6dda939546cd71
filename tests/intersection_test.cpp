// Data range intersection of the wave miniport: the 104-byte
// WAVEFORMATEXTENSIBLE answer, the order of refusals, the buffer-length
// protocol, and the rules that bind the answer to open streams, the
// hardware's rate and a locked digital input.
#include "driver/wave/MMEWave.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <cstring>

using hostpc::clientRange;
using wavetest::DeviceInfoBuilder;
using wavetest::LightRig;
using wavetest::StackRig;

namespace {

constexpr ULONG kNoLength = 0xDEADBEEF;

struct Answer {
    NTSTATUS status;
    ULONG length;
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE format;
};

Answer intersect(MMEWave* wave, ULONG pin, const void* client, const void* mine,
                 ULONG bufferLength = sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE),
                 bool withBuffer = true) {
    Answer a;
    a.length = kNoLength;
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
    EXPECT_TRUE(tracecap::containsLine("...cDataRangeIntersection ch-max:6 bits-min:16 "
                                       "bits-max:24 freq-min:48000 freq-max:48000"));
    EXPECT_TRUE(tracecap::containsLine("datarangeintersection STATUS_SUCCESS"));
}

TEST_F(Intersection, ChannelMasks) {
    struct {
        ULONG channels;
        ULONG mask;
    } cases[] = {{2, 0x3}, {8, 0xFF}, {31, 0x7FFFFFFF}, {32, 0xFFFFFFFF}, {40, 0xFFFFFFFF}};
    for (auto c : cases) {
        KSDATARANGE_AUDIO mine = clientRange(c.channels, 16, 16, 48000, 48000);
        KSDATARANGE_AUDIO wide = clientRange(64, 8, 32, 8000, 192000);
        Answer b = intersect(rig->wave, WAVE_PIN_CAPTURE, &wide, &mine);
        ASSERT_EQ(b.status, STATUS_SUCCESS);
        EXPECT_EQ(b.format.WaveFormatExt.dwChannelMask, c.mask) << c.channels;
        EXPECT_EQ(b.format.WaveFormatExt.Format.nBlockAlign, c.channels * 2);
    }
}

TEST_F(Intersection, EmptyIntersectionsAndMono) {
    struct Case {
        const char* line;
        KSDATARANGE_AUDIO range;
    } cases[] = {
        {"...cDataRangeIntersection.MaximumChannels < 2", clientRange(1, 8, 32, 8000, 192000)},
        {"...cDataRangeIntersection.MinimumBitsPerSample > "
         "cDataRangeIntersection.MaximumBitsPerSample",
         clientRange(8, 32, 32, 8000, 192000)},
        {"...cDataRangeIntersection.MinimumSampleFrequency > "
         "cDataRangeIntersection.MaximumSampleFrequency",
         clientRange(8, 8, 32, 96000, 192000)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &c.range, &pin48k);
        EXPECT_EQ(a.status, STATUS_NO_MATCH);
        EXPECT_TRUE(tracecap::containsLine(c.line));
        EXPECT_EQ(a.length, 104u); // the size was given before the intersection
        EXPECT_EQ(a.format.DataFormat.FormatSize, 0xCDCDCDCDu);
    }
}

TEST_F(Intersection, BufferLengthProtocol) {
    Answer query = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.length, 104u);
    EXPECT_TRUE(tracecap::containsLine("...!OutputBufferLength"));

    Answer small = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 100);
    EXPECT_EQ(small.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(small.length, 104u);
    EXPECT_EQ(small.format.DataFormat.FormatSize, 0xCDCDCDCDu);

    Answer noBuffer = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k, 104, false);
    EXPECT_EQ(noBuffer.status, STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatPtr"));

    // A size query can succeed for ranges that then do not intersect.
    KSDATARANGE_AUDIO mono = clientRange(1, 16, 24, 48000, 48000);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono, 0).status,
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &mono).status, STATUS_NO_MATCH);
}

TEST_F(Intersection, RangeChecksComeFirstAndWriteNoLength) {
    KSDATARANGE_AUDIO notPcm = client;
    notPcm.DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG;
    KSDATARANGE_AUDIO notAudio = client;
    notAudio.DataRange.MajorFormat = KSDATAFORMAT_SUBTYPE_PCM;
    KSDATARANGE_AUDIO wrongSize = client;
    wrongSize.DataRange.FormatSize = sizeof(KSDATARANGE);
    struct Case {
        const KSDATARANGE_AUDIO* clientRange;
        const void* myRange;
        ULONG pin;
        NTSTATUS status;
        const char* line;
    } cases[] = {
        {nullptr, &pin48k, 0, STATUS_INVALID_PARAMETER,
         "MMEWave::DataRangeIntersection !pClientDataRange"},
        {&wrongSize, &pin48k, 0, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection pClientDataRange->FormatSize != "
         "sizeof(KSDATARANGE_AUDIO)"},
        {&notAudio, &pin48k, 0, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pClientDataRange->MajorFormat, "
         "KSDATAFORMAT_TYPE_AUDIO )"},
        {&notPcm, &pin48k, 0, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pClientDataRange->SubFormat, "
         "KSDATAFORMAT_SUBTYPE_PCM )"},
        {&client, nullptr, 0, STATUS_INVALID_PARAMETER,
         "MMEWave::DataRangeIntersection !pMyDataRange"},
        {&client, &notPcm, 0, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pMyDataRange->SubFormat, "
         "KSDATAFORMAT_SUBTYPE_PCM )"},
        {&client, &notAudio, 0, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pMyDataRange->MajorFormat, "
         "KSDATAFORMAT_TYPE_AUDIO )"},
        // The bridge pins' analog range ends at the pin's range.
        {&client, &rig->wave->descriptor()->BridgeDataRange, WAVE_PIN_CAPTURE_BRIDGE,
         STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection pMyDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)"},
        {&client, &pin48k, 4, STATUS_NO_MATCH, "MMEWave::DataRangeIntersection !pPinDescriptor"},
        {&client, &pin48k, 0xFFFFFFFF, STATUS_NO_MATCH,
         "MMEWave::DataRangeIntersection !pPinDescriptor"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Answer a = intersect(rig->wave, c.pin, c.clientRange, c.myRange);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.length, kNoLength);
        EXPECT_EQ(tracecap::traceMessages(), std::vector<std::string>{c.line});
    }

    EXPECT_EQ(rig->wave->DataRangeIntersection(0, &client.DataRange, &pin48k.DataRange, 104,
                                               nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("...!ResultantFormatLength"));
}

TEST_F(Intersection, StreamingPinWithoutRanges) {
    LightRig empty(nullptr);
    ASSERT_EQ(empty.describe(), STATUS_SUCCESS);
    Answer a = intersect(empty.wave, WAVE_PIN_RENDER, &client, &pin48k);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine("MMEWave::DataRangeIntersection !pPinDescriptor"));
}

TEST_F(Intersection, DigitalLockBindsTheRate) {
    rig->settings.mDigitalLockFrequency = 44100;
    Answer a = intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin48k);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine(
        "...cDataRangeIntersection.MinimumSampleFrequency != uHWDigitalLockedFrequency"));
    KSDATARANGE_AUDIO pin44k = clientRange(2, 16, 16, 44100, 44100);
    EXPECT_EQ(intersect(rig->wave, WAVE_PIN_CAPTURE, &client, &pin44k).status, STATUS_SUCCESS);
}

TEST(IntersectionWithoutAdapter, InvalidDeviceState) {
    LightRig rig(nullptr, /*init=*/false);
    KSDATARANGE_AUDIO r = clientRange(2, 16, 16, 48000, 48000);
    Answer a = intersect(rig.wave, 0, &r, &r);
    EXPECT_EQ(a.status, STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(a.length, kNoLength);
    EXPECT_TRUE(tracecap::containsLine("!mMMEAdapter"));
}

// With real streams: an open stream closes its own pin to negotiation and
// holds the other pin to the hardware's rate.
TEST(IntersectionWithStreams, OpenStreamsBindPinsAndRate) {
    StackRig stack; // 8 in / 8 out, hardware at 48000 Hz
    KSDATARANGE_AUDIO client = clientRange(8, 8, 32, 8000, 192000);
    KSDATARANGE_AUDIO at44 = clientRange(8, 16, 24, 44100, 44100);
    KSDATARANGE_AUDIO at48 = clientRange(8, 16, 24, 48000, 48000);
    // No stream open: any of the pin's rates.
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_RENDER, &client, &at44).status, STATUS_SUCCESS);

    std::vector<UCHAR> format = wavetest::makeFormat({48000, 2, 16});
    StackRig::Opened capture = stack.open(true, format);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);

    Answer a = intersect(stack.wave, WAVE_PIN_CAPTURE, &client, &at48);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine(
        "MMEWave::DataRangeIntersection ERROR: capture stream already allocated"));
    EXPECT_EQ(a.length, kNoLength);

    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_RENDER, &client, &at48).status, STATUS_SUCCESS);
    a = intersect(stack.wave, WAVE_PIN_RENDER, &client, &at44);
    EXPECT_EQ(a.status, STATUS_NO_MATCH);
    EXPECT_TRUE(
        tracecap::containsLine("...cDataRangeIntersection.MinimumSampleFrequency != uHWFrequency"));

    StackRig::Opened render = stack.open(false, format);
    ASSERT_EQ(render.status, STATUS_SUCCESS);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_RENDER, &client, &at48).status, STATUS_NO_MATCH);
    EXPECT_TRUE(tracecap::containsLine(
        "MMEWave::DataRangeIntersection ERROR: render stream already allocated"));

    StackRig::close(capture);
    StackRig::close(render);
    EXPECT_EQ(intersect(stack.wave, WAVE_PIN_CAPTURE, &client, &at44).status, STATUS_SUCCESS);
}
