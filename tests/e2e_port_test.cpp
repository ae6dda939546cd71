// The host wave-cyclic port as a kernel-streaming client meets it: how a pin
// is created (NewStream, then SetNotificationFreq with 10 ms), how data
// intersection is asked (the pin's ranges in order, size query first), what
// the port refuses before the miniport sees it, and a filter whose device is
// gone. (Allocation failures while opening: alloc_sweep_test.)
#include "support/E2eRig.h"
#include "support/TraceCapture.h"

#include "driver/wave/MMEWaveStream.h"

#include <cstring>

namespace {

using e2e::Rig;
using e2e::traced;
using e2e::tracedAt;

TEST(PinCreation, NewStreamThenTenMillisecondNotificationsThenItsFraming) {
    Rig rig;
    hostk::clearCaptured();
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    const size_t created = tracedAt("[exit MMEWave::NewStream]");
    const size_t asked = tracedAt("MMEWaveStream::SetNotificationFreq interval:10 ");
    ASSERT_NE(created, size_t(-1));
    ASSERT_NE(asked, size_t(-1));
    EXPECT_LT(created, asked);
    EXPECT_EQ(render->framingBytes(), 256u * 4) << "one 256-frame period";
    EXPECT_EQ(render->notificationMs(), 5u);
    EXPECT_EQ(render->bufferBytes(), 4096u * 4) << "BufferSize(): 4096 frames";
    EXPECT_EQ(render->leadFrames(), 2048u) << "40 ms in whole periods";
    EXPECT_EQ(render->state(), KSSTATE_STOP);
    if (MMEWave* wave = rig.harness.wave()) {
        EXPECT_EQ(wave->renderStream()->state(), KSSTATE_STOP);
    }

    render.reset();
    hostpc::StreamOptions options;
    options.leadFrames = 100000; // more than the buffer: one period less than it
    render = rig.open(false, 48000, 2, 24, nullptr, options);
    ASSERT_TRUE(render);
    EXPECT_EQ(render->leadFrames(), 4096u - 256);
    options.leadFrames = 1; // less than a period: one period
    render.reset();
    render = rig.open(false, 48000, 2, 24, nullptr, options);
    ASSERT_TRUE(render);
    EXPECT_EQ(render->leadFrames(), 256u);
}

TEST(PinCreation, ThePortRefusesWhatNoPinCanTake) {
    Rig rig;
    std::unique_ptr<hostpc::KsStream> stream;
    const auto good = hostpc::pcmFormat(48000, 2, 16);
    EXPECT_EQ(rig.filter->open(1, good, {}, &stream), STATUS_INVALID_DEVICE_REQUEST) << "bridge";
    EXPECT_EQ(rig.filter->open(3, good, {}, &stream), STATUS_INVALID_DEVICE_REQUEST) << "bridge";
    EXPECT_EQ(rig.filter->open(4, good, {}, &stream), STATUS_INVALID_PARAMETER) << "no pin 4";
    std::vector<UCHAR> shortFormat(good.begin(), good.begin() + 70);
    EXPECT_EQ(rig.filter->open(2, shortFormat, {}, &stream), STATUS_INVALID_PARAMETER);
    auto lying = good;
    reinterpret_cast<KSDATAFORMAT*>(lying.data())->FormatSize = ULONG(good.size() + 1);
    EXPECT_EQ(rig.filter->open(2, lying, {}, &stream), STATUS_INVALID_PARAMETER);
    auto noFrames = good;
    reinterpret_cast<WAVEFORMATEX*>(noFrames.data() + sizeof(KSDATAFORMAT))->nBlockAlign = 0;
    EXPECT_EQ(rig.filter->open(2, noFrames, {}, &stream), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(e2e::tracedAt("MMEWave::NewStream"), size_t(-1)) << "nothing reached NewStream";

    hostpc::WaveFilter topology(hostpc::subdevice(rig.harness.fdo(), u"Topology"));
    EXPECT_FALSE(topology.valid());
    EXPECT_EQ(topology.open(0, good, {}, &stream), STATUS_INVALID_PARAMETER);
}

// The driver's own refusals: 32-bit streams (not offered either:
// wave_filter_test) and a second pin of a direction.
TEST(PinCreation, ThirtyTwoBitStreamsAndASecondPinOfADirectionAreTheDriversRefusals) {
    Rig rig;
    for (bool capture : {true, false}) {
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(rig.open(capture, 48000, 2, 32, &status), nullptr);
        EXPECT_EQ(status, STATUS_NOT_SUPPORTED) << (capture ? "capture" : "render");
    }
    auto first = rig.open(true, 48000, 2, 16);
    ASSERT_TRUE(first);
    ASSERT_EQ(first->setState(KSSTATE_RUN), STATUS_SUCCESS);
    hostk::clearCaptured();
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(rig.open(true, 48000, 2, 16, &status), nullptr);
    EXPECT_EQ(status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(traced("...try to allocate second capture channel"));
    rig.model().runPeriods(3);
    EXPECT_EQ(first->positionFrames(), 3u * 256) << "the first pin runs on";
    EXPECT_EQ(first->queuedFrames(), 3u * 256);
}

// ---- Data intersection ----

// KSPROPERTY_CONNECTION_DATAFORMAT on an open pin: the same format changes
// nothing, another goes to the stream while it is stopped and swaps the
// cyclic buffer the port then uses, and a running stream refuses one.
TEST(PinFormat, ChangedWhileStoppedRefusedWhileRunning) {
    Rig rig;
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    const ULONG before = render->bufferBytes();
    const size_t setFormats = tracecap::countLines("MMEWaveStream::SetFormat");
    EXPECT_EQ(render->setFormat(hostpc::pcmFormat(48000, 2, 16)), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("MMEWaveStream::SetFormat"), setFormats) << "same format";

    ASSERT_EQ(render->setFormat(hostpc::pcmFormat(48000, 2, 24)), STATUS_SUCCESS);
    EXPECT_EQ(render->bits(), 24u);
    e2e::Pump pump(rig, render.get(), e2e::pack(e2e::noise(2 * 4000, 24, 3), 24), nullptr);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(8);
    if (e2e::openSourcePort()) {
        // It keeps the buffer it took at creation, which the driver freed
        // when it reshaped its channel: the driver refuses every copy there.
        EXPECT_EQ(render->bufferBytes(), before);
        EXPECT_TRUE(tracecap::containsLineStartingWith(
            "MMEDMAEmulator::CopyTo range outside the cyclic buffer offset/count/size"));
        return;
    }
    EXPECT_EQ(render->bufferBytes(), before / 4 * 6) << "the port took the new buffer";
    EXPECT_EQ(render->positionFrames(), 8u * 256);
    EXPECT_EQ(render->counters().glitches, 0u);

    EXPECT_EQ(render->setFormat(hostpc::pcmFormat(48000, 2, 16)), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(render->bits(), 24u);
    pump.periods(2);
    EXPECT_EQ(render->positionFrames(), 10u * 256);
}

// A format of another frame size that the driver refuses on a stopped pin
// still reshapes its channel (the old cyclic buffer is freed); the pin is
// then stopped and run. The documented port takes the channel's buffer
// again after the refusal and streams on in it; the open-source port keeps
// the freed one, whose silence at STOP and copies the driver must refuse.
TEST(PinFormat, ARefusedFormatOfAnotherFrameSizeThenStopAndRun) {
    Rig rig;
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    e2e::Pump pump(rig, render.get(), e2e::pack(e2e::noise(2 * 8000, 16, 5), 16), nullptr);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(4);
    ASSERT_EQ(render->setState(KSSTATE_STOP), STATUS_SUCCESS);
    const ULONG before = render->bufferBytes();
    EXPECT_FALSE(NT_SUCCESS(render->setFormat(hostpc::pcmFormat(48000, 2, 32))));
    EXPECT_TRUE(tracecap::containsLineStartingWith("DMA init on failure ch/bits"));
    tracecap::clearTrace();
    for (KSSTATE state : {KSSTATE_RUN, KSSTATE_STOP, KSSTATE_RUN}) {
        ASSERT_EQ(render->setState(state), STATUS_SUCCESS);
        pump.periods(4);
    }
    const bool refused =
        tracecap::containsLineStartingWith("range outside the cyclic buffer count");
    if (e2e::openSourcePort()) {
        EXPECT_EQ(render->bufferBytes(), before);
        EXPECT_TRUE(refused) << "the port's silence over the freed buffer was refused";
    } else {
        EXPECT_EQ(render->bufferBytes(), before * 2) << "it took the 8-byte frames' buffer";
        EXPECT_FALSE(refused);
    }
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

// A format whose buffers cannot be allocated is still the stream's: the
// driver takes it with its channel idle, and the port agrees, so client and
// stream never play different formats. The pin moves nothing until the next
// format change brings a buffer.
TEST(PinFormat, AFormatWhoseBufferCannotBeAllocated) {
    Rig rig;
    auto render = rig.open(false, 48000, 2, 16);
    ASSERT_TRUE(render);
    hostk::failAllocation(1);
    EXPECT_EQ(render->setFormat(hostpc::pcmFormat(48000, 2, 24)), STATUS_SUCCESS);
    hostk::failAllocation(0);
    EXPECT_TRUE(tracecap::containsLine("memAlloc failed"));
    EXPECT_EQ(render->bits(), 24u);
    e2e::Pump pump(rig, render.get(), e2e::pack(e2e::noise(2 * 8000, 24, 7), 24), nullptr);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(4);
    // The open-source port keeps its first buffer and reads the position on.
    if (!e2e::openSourcePort()) {
        EXPECT_EQ(render->positionFrames(), 0u);
    }
    ASSERT_EQ(render->setState(KSSTATE_STOP), STATUS_SUCCESS);
    ASSERT_EQ(render->setFormat(hostpc::pcmFormat(48000, 2, 16)), STATUS_SUCCESS);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(4);
    EXPECT_EQ(render->positionFrames(), 4u * 256);
    EXPECT_TRUE(hostk::verifierFailures().empty());
}

TEST(Intersection, AsksTheSizeFirstThenGetsTheFormat) {
    Rig rig;
    hostk::clearCaptured();
    std::vector<UCHAR> format;
    ULONG index = 99;
    ASSERT_EQ(rig.filter->intersect(hostpc::kWaveCapturePin,
                                    hostpc::clientRange(2, 16, 32, 48000, 48000), &format, &index),
              STATUS_SUCCESS);
    EXPECT_EQ(index, 1u) << "the 44100 Hz range came first and did not meet the client's";
    const size_t sizeAnswer = tracedAt("...!OutputBufferLength");
    const size_t success = tracedAt("datarangeintersection STATUS_SUCCESS");
    ASSERT_NE(sizeAnswer, size_t(-1));
    ASSERT_NE(success, size_t(-1));
    EXPECT_LT(sizeAnswer, success);

    ASSERT_EQ(format.size(), sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE));
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE f;
    std::memcpy(&f, format.data(), sizeof f);
    EXPECT_EQ(f.DataFormat.FormatSize, sizeof f);
    EXPECT_TRUE(IsEqualGUID(f.DataFormat.MajorFormat, KSDATAFORMAT_TYPE_AUDIO));
    EXPECT_EQ(f.WaveFormatExt.Format.wFormatTag, WAVE_FORMAT_EXTENSIBLE);
    EXPECT_EQ(f.WaveFormatExt.Format.nChannels, 2u);
    EXPECT_EQ(f.WaveFormatExt.Format.nSamplesPerSec, 48000u);
    EXPECT_EQ(f.WaveFormatExt.Format.wBitsPerSample, 24u);
    EXPECT_EQ(f.WaveFormatExt.Format.nBlockAlign, 6u);
    EXPECT_EQ(f.WaveFormatExt.dwChannelMask, 0x3u);

    // Its SampleSize is 0 ("variable"), so the stream takes its frame from
    // the block alignment: a period's framing, as a client that fills in
    // SampleSize gets.
    EXPECT_EQ(f.DataFormat.SampleSize, 0u);
    std::unique_ptr<hostpc::KsStream> stream;
    EXPECT_EQ(rig.filter->open(hostpc::kWaveCapturePin, format, {}, &stream), STATUS_SUCCESS);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->notificationMs(), 5u);
    EXPECT_EQ(stream->framingBytes(), 256u * 6);
    EXPECT_EQ(stream->setState(KSSTATE_RUN), STATUS_SUCCESS);
    rig.model().runPeriods(4);
    EXPECT_EQ(stream->queuedFrames(), 4u * 256);
    EXPECT_EQ(stream->counters().overruns, 0u);
}

// What real clients send: a multiple-item list with a range of another major
// format and a wildcard before the audio range, an output buffer larger than
// needed, or none at all to ask the size. The driver takes only audio ranges
// of its own size, so the wildcard meets none of its ranges.
TEST(Intersection, AListOfRangesAsRealClientsSendIt) {
    Rig rig;
    const GUID video = {
        0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
    const GUID wildcard{};
    std::vector<UCHAR> malformed = hostpc::rangeItem(hostpc::clientRange(2, 16, 24, 48000, 48000));
    malformed[0] ^= 1; // FormatSize no longer its size
    const std::vector<std::vector<UCHAR>> list = {
        hostpc::rangeItem(video, wildcard, wildcard), malformed,
        hostpc::rangeItem(wildcard, wildcard, wildcard),
        hostpc::rangeItem(hostpc::clientRange(2, 16, 24, 48000, 48000))};
    const ULONG needed = sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE);
    const struct {
        ULONG buffer;
        NTSTATUS status;
    } cases[] = {{0, STATUS_BUFFER_OVERFLOW},
                 {needed - 1, STATUS_BUFFER_TOO_SMALL},
                 {needed, STATUS_SUCCESS},
                 {4096, STATUS_SUCCESS}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.buffer);
        std::vector<UCHAR> format;
        ULONG size = 0;
        tracecap::clearTrace();
        EXPECT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin, list, c.buffer, &format, &size),
                  c.status);
        EXPECT_EQ(size, needed);
        EXPECT_TRUE(tracecap::containsLineStartingWith(
            "MMEWave::DataRangeIntersection pClientDataRange->FormatSize"))
            << "the wildcard reached the driver first";
        if (c.status == STATUS_SUCCESS) {
            ASSERT_EQ(format.size(), needed);
            const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
            EXPECT_EQ(w->nSamplesPerSec, 48000u);
            EXPECT_EQ(w->wBitsPerSample, 24u);
        } else {
            EXPECT_TRUE(format.empty());
        }
    }
    std::vector<UCHAR> format;
    ULONG size = 0;
    EXPECT_EQ(rig.filter->intersect(hostpc::kWaveRenderPin, {list[0], list[1], list[2]}, 4096,
                                    &format, &size),
              STATUS_NO_MATCH);
}

// A client that puts 4 in SampleSize whatever the format (the open-source
// DirectSound client) on 6-byte frames: the framing follows SampleSize, as
// designed, 170 whole frames where the driver moves 256 a period. Either
// port plays the stream as sent; after its end a port pads one framing of
// silence, so the rest of the driver's last period plays what the cyclic
// buffer held a lap before.
TEST(PinFormat, ASampleSizeOfFourOnSixByteFrames) {
    Rig rig;
    auto out = rig.output();
    std::unique_ptr<hostpc::KsStream> render;
    ASSERT_EQ(rig.filter->open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 24, true, 4), {},
                               &render),
              STATUS_SUCCESS);
    ASSERT_EQ(render->framingBytes(), 256u * 4);
    const auto sent = e2e::noise(2 * 20 * 256, 24, 9);
    e2e::Pump pump(rig, render.get(), e2e::pack(sent, 24), nullptr);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    pump.periods(20 + e2e::kRenderWriteAhead / 256 + 2);
    EXPECT_EQ(render->counters().glitches, 0u);
    auto heard = e2e::played(*out, 0, 2).sound;
    const size_t stale = 2 * (256 - render->framingBytes() / 6);
    ASSERT_EQ(heard.size(), sent.size() + stale);
    heard.resize(sent.size());
    EXPECT_EQ(heard, e2e::asPlayed(sent, 24));
}

// The pins as a client lists them, the ranges that meet none of them, and the
// same filter once its device is gone.
TEST(Intersection, PinsDescribeTheirRangesAndNoFormatWhereTheRangesDoNotMeet) {
    Rig rig;
    const auto pins = rig.filter->pins();
    ASSERT_EQ(pins.size(), 4u);
    EXPECT_TRUE(pins[0].streaming && pins[0].capture);
    EXPECT_FALSE(pins[1].streaming);
    EXPECT_TRUE(pins[2].streaming && !pins[2].capture);
    EXPECT_FALSE(pins[3].streaming);
    EXPECT_TRUE(pins[1].ranges.empty()) << "a bridge pin's range is analog, not PCM";
    ASSERT_EQ(pins[2].ranges.size(), 6u);
    const ULONG rates[] = {44100, 48000, 88200, 96000, 176400, 192000};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(pins[2].ranges[i].MinimumSampleFrequency, rates[i]);
        EXPECT_EQ(pins[2].ranges[i].MaximumSampleFrequency, rates[i]);
        EXPECT_EQ(pins[2].ranges[i].MaximumChannels, 8u);
    }

    std::vector<UCHAR> format(5, 1);
    const auto stereo = hostpc::clientRange(2, 16, 24, 44100, 192000);
    EXPECT_EQ(rig.filter->intersect(1, stereo, &format), STATUS_NO_MATCH) << "bridge pin";
    EXPECT_TRUE(format.empty());
    EXPECT_EQ(rig.filter->intersect(9, stereo, &format), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.filter->intersect(2, hostpc::clientRange(1, 16, 24, 44100, 192000), &format),
              STATUS_NO_MATCH)
        << "mono is never offered";
    EXPECT_EQ(rig.filter->intersect(2, hostpc::clientRange(2, 8, 8, 44100, 192000), &format),
              STATUS_NO_MATCH);
    EXPECT_EQ(rig.filter->intersect(2, hostpc::clientRange(2, 16, 24, 8000, 22050), &format),
              STATUS_NO_MATCH);
    KSDATARANGE_AUDIO notPcm = stereo;
    notPcm.DataRange.SubFormat = KSDATAFORMAT_TYPE_AUDIO;
    EXPECT_EQ(rig.filter->intersect(2, notPcm, &format), STATUS_NO_MATCH);
    EXPECT_EQ(rig.filter->intersect(2, stereo, nullptr), STATUS_INVALID_PARAMETER);

    rig.harness.remove();
    EXPECT_TRUE(rig.filter->valid()) << "the client's handle stays";
    EXPECT_TRUE(rig.filter->pins().empty());
    EXPECT_EQ(rig.filter->intersect(2, hostpc::clientRange(2, 16, 24, 48000, 48000), &format),
              hostpc::kStatusDeviceRemoved);
    std::unique_ptr<hostpc::KsStream> stream;
    EXPECT_EQ(rig.filter->open(2, hostpc::pcmFormat(48000, 2, 16), {}, &stream),
              hostpc::kStatusDeviceRemoved);
}

} // namespace
