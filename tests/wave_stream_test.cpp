// The wave stream: notification interval and framing, position and its
// normalisation, silence, the state machine with the format carried to the
// hardware on the first start (and again after the other stream started),
// SetFormat with its refusals and the DMA channel's shape, Init's limits,
// and the teardown when the port lets go.
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

using checks::refs;
using wavetest::FormatDesc;
using wavetest::makeFormat;
using wavetest::StackRig;

namespace {

PKSDATAFORMAT asFormat(std::vector<UCHAR>& f) {
    return reinterpret_cast<PKSDATAFORMAT>(f.data());
}

// A stack (hardware 48000 Hz, 8 in / 8 out) with one stream open.
class Stream : public ::testing::Test {
protected:
    void open(bool capture, const FormatDesc& desc) {
        format = makeFormat(desc);
        opened = stack.open(capture, format);
        ASSERT_EQ(opened.status, STATUS_SUCCESS);
        s = opened.object();
    }
    void TearDown() override {
        StackRig::close(opened);
        StackRig::close(other);
    }

    StackRig stack;
    std::vector<UCHAR> format;
    StackRig::Opened opened;
    StackRig::Opened other;
    MMEWaveStream* s = nullptr;
};

} // namespace

TEST_F(Stream, NotificationEvery256Frames) {
    open(false, {48000, 2, 16}); // 4-byte frames
    ChannelConfig& wanted = stack.adapter->linkInfo().mcAttachChannels;
    ASSERT_EQ(wanted.fr, 48000u);
    struct {
        ULONG rate, asked, interval;
    } cases[] = {{48000, 10, 5},  {48000, 1, 5},  {48000, 100, 5}, {44100, 10, 5},
                 {96000, 10, 2},  {88200, 10, 2}, {192000, 10, 1}, {176400, 10, 1},
                 {22050, 10, 11}, {8000, 10, 32}, {0, 10, 5},      {384000, 10, 1}};
    for (auto c : cases) {
        SCOPED_TRACE(c.rate);
        wanted.fr = c.rate;
        ULONG framing = 123;
        tracecap::clearTrace();
        EXPECT_EQ(s->SetNotificationFreq(c.asked, &framing), c.interval);
        EXPECT_EQ(framing, 1024u);
        EXPECT_EQ(s->notificationInterval(), c.interval);
        const ULONG shown = c.rate ? c.rate : 44100;
        EXPECT_TRUE(tracecap::containsLine("...iFrequency:" + std::to_string(shown) +
                                           " mNotificationInterval:" + std::to_string(c.interval) +
                                           " framingsize:1024"));
        EXPECT_TRUE(tracecap::containsLine(
            "MMEWaveStream::SetNotificationFreq interval:" + std::to_string(c.asked) +
            " framingsize:123 m_uSampleSize:4"));
    }
}

TEST_F(Stream, NormalizePhysicalPosition) {
    open(true, {48000, 2, 16});
    stack.wave->setSampleRate(44100);
    LONGLONG p = 176400;
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_SUCCESS);
    EXPECT_EQ(p, 10000000);
    EXPECT_TRUE(tracecap::containsLine("*PhysicalPosition  10000000"));
    p = -176400;
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_SUCCESS);
    EXPECT_EQ(p, -10000000);
    // Large positions do not overflow the intermediate product.
    p = 44100LL * 4 * 1000000000LL; // a billion seconds of frames
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_SUCCESS);
    EXPECT_EQ(p, 10000000LL * 1000000000LL);

    // No rate: a defined refusal instead of a division by zero.
    stack.wave->setSampleRate(0);
    p = 1000;
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(p, 0);
    EXPECT_EQ(s->NormalizePhysicalPosition(nullptr), STATUS_INVALID_PARAMETER);

    // 6-byte frames: the quotient is truncated first.
    std::vector<UCHAR> f24 = makeFormat({48000, 2, 24});
    ASSERT_EQ(s->SetFormat(asFormat(f24)), STATUS_SUCCESS);
    stack.wave->setSampleRate(48000);
    p = 288000;
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_SUCCESS);
    EXPECT_EQ(p, 9999996);

    // A format whose SampleSize is 0 still validates; positions then have no time.
    FormatDesc zero{48000, 2, 16};
    zero.sampleSize = 0;
    std::vector<UCHAR> f = makeFormat(zero);
    ASSERT_EQ(s->SetFormat(asFormat(f)), STATUS_SUCCESS);
    EXPECT_EQ(s->sampleSize(), 0u);
    p = 4000;
    EXPECT_EQ(s->NormalizePhysicalPosition(&p), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(p, 0);
}

TEST_F(Stream, PositionAndSilenceComeFromTheDmaChannel) {
    open(false, {48000, 2, 16});
    MMEDMAEmulator* dma = s->dmaChannel();
    ASSERT_EQ(dma->BufferSize(), 16384u);
    dma->Start(1024, TRUE);
    ULONG position = 0;
    EXPECT_EQ(s->GetPosition(&position), STATUS_SUCCESS);
    EXPECT_EQ(position, 1024u);
    EXPECT_EQ(s->GetPosition(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("MMEWaveStream::GetPosition Position is NULL"));

    UCHAR* buffer = static_cast<UCHAR*>(dma->SystemAddress());
    std::memset(buffer, 0x55, dma->BufferSize());
    s->Silence(buffer + 16, 32);
    EXPECT_EQ(buffer[15], 0x55);
    EXPECT_EQ(buffer[16], 0);
    EXPECT_EQ(buffer[47], 0);
    EXPECT_EQ(buffer[48], 0x55);
    s->Silence(buffer, dma->BufferSize() + 1); // more than the buffer: nothing
    EXPECT_EQ(buffer[0], 0x55);
}

TEST_F(Stream, QueryInterfaceAndAdapterSettings) {
    open(true, {48000, 2, 16});
    IMiniportWaveCyclicStream* self = s;
    checks::expectInterfaces(self, self, {&IID_IMiniportWaveCyclicStream, &IID_IUnknown},
                             {&IID_IMiniport});

    ChannelConfig settings{};
    ASSERT_TRUE(s->getAdapterSettings(&settings));
    EXPECT_EQ(settings, stack.adapter->linkInfo().mcAttachChannels);
    EXPECT_FALSE(s->getAdapterSettings(nullptr));
}

TEST_F(Stream, RunCarriesTheFormatOnce) {
    open(false, {44100, 2, 16});                              // the hardware runs at 48000 Hz
    EXPECT_EQ(stack.usb.callCount(USBCall_ChangeConfig), 0u); // Init only records it
    EXPECT_FALSE(s->setFormatCalled());

    tracecap::clearTrace();
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(s->state(), KSSTATE_RUN);
    EXPECT_TRUE(s->setFormatCalled());
    EXPECT_TRUE(s->isRunning());
    EXPECT_TRUE(stack.adapter->isWaveRunning());
    EXPECT_EQ(stack.usb.callCount(USBCall_ChangeConfig), 1u);
    EXPECT_EQ(stack.usb.settings().current.fr, 44100u);
    EXPECT_TRUE(tracecap::containsLine("!mbSetFormatCalled"));
    EXPECT_TRUE(tracecap::containsLine("SetFormat returned 00000000"));

    EXPECT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS); // same state: nothing
    ASSERT_EQ(s->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_FALSE(s->isRunning());
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLines("!mbSetFormatCalled"), 1u);
    EXPECT_EQ(stack.usb.callCount(USBCall_ChangeConfig), 1u);

    // No format change while running: everything stays as it was.
    std::vector<UCHAR> saved(format);
    std::vector<UCHAR> other24 = makeFormat({44100, 2, 24});
    EXPECT_EQ(s->SetFormat(asFormat(other24)), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(s->sampleSize(), 4u);
    EXPECT_EQ(std::memcmp(s->dataFormat(), saved.data(), saved.size()), 0);
    EXPECT_EQ(s->dmaChannel()->wdmBits(), 16u);
}

TEST_F(Stream, OtherStreamsStartMarksAStoppedStream) {
    open(false, {44100, 2, 16});
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(s->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_FALSE(stack.adapter->isWaveRunning());

    std::vector<UCHAR> captureFormat = makeFormat({44100, 2, 24});
    other = stack.open(true, captureFormat);
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    tracecap::clearTrace();
    ASSERT_EQ(other.object()->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine(
        "START STREAM : other stream is not running -> allow change but mark other for reconfig"));
    EXPECT_FALSE(s->setFormatCalled());

    tracecap::clearTrace();
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("START STREAM : check other stream frequency"));
    EXPECT_TRUE(tracecap::containsLine("!mbSetFormatCalled"));
    EXPECT_TRUE(s->setFormatCalled());
    // A running stream is not marked by the other's start.
    ASSERT_EQ(other.object()->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(other.object()->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_TRUE(s->setFormatCalled());
}

TEST_F(Stream, FailedStartKeepsTheState) {
    open(true, {48000, 2, 16});
    std::vector<UCHAR> at44 = makeFormat({44100, 2, 16});
    other = stack.open(false, at44); // created, but its rate conflicts
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    MMEWaveStream* render = other.object();
    EXPECT_EQ(render->dmaChannel()->wdmChannels(), 2u); // shaped all the same

    tracecap::clearTrace();
    EXPECT_EQ(render->SetState(KSSTATE_RUN), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("SetFormat returned C000000D"));
    EXPECT_EQ(render->state(), KSSTATE_STOP);
    EXPECT_FALSE(render->setFormatCalled());
    EXPECT_FALSE(render->isRunning());
    EXPECT_FALSE(stack.adapter->isWaveRunning());
    EXPECT_EQ(stack.usb.callCount(USBCall_ChangeConfig), 0u);

    // The USB driver refusing the change fails the start the same way.
    StackRig::close(opened);
    s = nullptr;
    stack.usb.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(render->SetState(KSSTATE_RUN), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(render->state(), KSSTATE_STOP);
    stack.usb.clearAnswers();
    EXPECT_EQ(render->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(stack.usb.settings().current.fr, 44100u);
}

TEST_F(Stream, DmaStoppedOnlyWhenLeavingRun) {
    open(true, {48000, 2, 16});
    const std::string stop = "+ MMEDMAEmulator::Stop";
    ASSERT_EQ(s->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(s->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    tracecap::clearTrace();
    ASSERT_EQ(s->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLinesStartingWith(stop), 1u);
    ASSERT_EQ(s->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(s->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_EQ(tracecap::countLinesStartingWith(stop), 1u);
    EXPECT_TRUE(tracecap::containsLine("WAVE STOP"));

    EXPECT_EQ(s->SetState(static_cast<KSSTATE>(7)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(s->state(), KSSTATE_STOP);
}

TEST_F(Stream, RefusedFormatStillShapesTheDmaChannel) {
    open(true, {48000, 2, 16});
    std::vector<UCHAR> renderFormat = makeFormat({48000, 2, 16});
    other = stack.open(false, renderFormat);
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    MMEWaveStream* render = other.object();

    // Valid, but another rate while the capture stream is open.
    std::vector<UCHAR> f = makeFormat({44100, 4, 24});
    tracecap::clearTrace();
    EXPECT_EQ(render->SetFormat(asFormat(f)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(render->sampleSize(), 12u); // taken before onSetFormat refused
    EXPECT_EQ(std::memcmp(render->dataFormat(), renderFormat.data(), renderFormat.size()), 0);
    EXPECT_EQ(render->dmaChannel()->wdmChannels(), 4u);
    EXPECT_EQ(render->dmaChannel()->wdmBits(), 24u);
    EXPECT_TRUE(tracecap::containsLine("DMA init on failure ch/bits 4 24"));
    tracecap::clearTrace();
    EXPECT_EQ(render->SetFormat(asFormat(f)), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(tracecap::containsLineStartingWith("DMA init on failure"));

    // Refused by validation: the sample size stays, the channel follows.
    std::vector<UCHAR> odd = makeFormat({48000, 3, 16});
    EXPECT_EQ(render->SetFormat(asFormat(odd)), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(render->sampleSize(), 12u);
    EXPECT_EQ(render->dmaChannel()->wdmChannels(), 3u);

    // Accepted: everything follows.
    std::vector<UCHAR> ok = makeFormat({48000, 6, 24});
    EXPECT_EQ(render->SetFormat(asFormat(ok)), STATUS_SUCCESS);
    EXPECT_EQ(render->sampleSize(), 18u);
    EXPECT_EQ(std::memcmp(render->dataFormat(), ok.data(), ok.size()), 0);
    EXPECT_EQ(render->dmaChannel()->stream(), render);
}

TEST_F(Stream, FormatSizesOutsideTheStoreRefusedBySetFormatAndInit) {
    open(true, {48000, 2, 16});
    FormatDesc full{48000, 6, 24}, over{48000, 6, 24}, small{48000, 6, 24};
    full.formatSize = MME_MAX_FORMAT_SIZE;
    over.formatSize = MME_MAX_FORMAT_SIZE + 1;
    small.formatSize = small.bufferSize = 81;
    std::vector<UCHAR> fits = makeFormat(full), tooBig = makeFormat(over),
                       tooSmall = makeFormat(small), odd = makeFormat({48000, 3, 16});
    EXPECT_EQ(s->SetFormat(asFormat(tooBig)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(s->SetFormat(asFormat(tooSmall)), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(s->sampleSize(), 4u);
    EXPECT_EQ(s->dmaChannel()->wdmChannels(), 2u);
    // The store's full size is accepted.
    EXPECT_EQ(s->SetFormat(asFormat(fits)), STATUS_SUCCESS);
    EXPECT_EQ(s->dataFormat()->FormatSize, MME_MAX_FORMAT_SIZE);

    // Init: a stream of the test's own on the render channel.
    MMEDMAEmulator* dma = stack.adapter->getRenderDMAChannel();
    auto* stream = new MMEWaveStream(dma, false);
    stream->AddRef();
    EXPECT_EQ(stream->Init(stack.wave, 2, asFormat(tooBig)), STATUS_INVALID_PARAMETER);
    tracecap::clearTrace();
    EXPECT_EQ(stream->Init(stack.wave, 2, asFormat(odd)), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("MMEWaveStream::Init stValidateFormat is  0xC00000BB"));
    EXPECT_EQ(stream->wave(), nullptr);
    ChannelConfig unused;
    EXPECT_FALSE(stream->getAdapterSettings(&unused)); // no miniport yet
    EXPECT_EQ(stream->Init(stack.wave, 2, asFormat(fits)), STATUS_SUCCESS);
    EXPECT_EQ(stream->wave(), stack.wave);
    EXPECT_EQ(dma->stream(), stream);
    stream->Release(); // not the miniport's: destroyed at once
    EXPECT_EQ(dma->stream(), nullptr);

    auto* noDma = new MMEWaveStream(nullptr, true);
    noDma->AddRef();
    EXPECT_EQ(noDma->Init(stack.wave, 0, asFormat(fits)), STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(tracecap::containsLine("MMEWaveStream::Init no DMAChannel"));
    noDma->Release();
}

// When the port lets go: the teardown runs once, the miniport forgets the
// stream, the adapter hears that nothing runs, and the DMA channel is left
// detached with a zeroed cyclic buffer that it keeps until the next format.
TEST_F(Stream, PortReleaseTearsDownAndFreesTheSlot) {
    open(true, {48000, 2, 16});
    MMEDMAEmulator* dma = s->dmaChannel();
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_TRUE(stack.adapter->isWaveRunning());
    void* buffer = dma->SystemAddress();
    std::memset(buffer, 0x77, dma->BufferSize()); // audio the stream left behind
    const LONG waveRefs = refs(stack.wave);

    tracecap::clearTrace();
    StackRig::close(opened);
    s = nullptr;
    EXPECT_EQ(tracecap::countLines("NEED TO NOTIFY WAVE STREAM"), 1u);
    EXPECT_TRUE(tracecap::containsLine("capture stream"));
    EXPECT_EQ(tracecap::countLinesStartingWith("+ DESTRUCTOR MMEWaveStream::~MMEWaveStream"), 1u);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    EXPECT_FALSE(stack.adapter->isWaveRunning());
    EXPECT_EQ(refs(stack.wave), waveRefs - 1);
    EXPECT_EQ(dma->stream(), nullptr);
    EXPECT_EQ(dma->SystemAddress(), buffer);
    const UCHAR* bytes = static_cast<const UCHAR*>(buffer);
    for (ULONG i = 0; i < dma->BufferSize(); ++i)
        ASSERT_EQ(bytes[i], 0) << i;

    // A stream the miniport does not hold is ignored; the slot takes a new one.
    stack.wave->onFinalRelease(nullptr);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    open(true, {48000, 2, 16});
    EXPECT_EQ(stack.wave->captureStream(), s);
}
