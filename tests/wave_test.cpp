// The wave miniport and its streams below what the end-to-end suites show
// (the rate rule between the directions, the format carried at the start and
// the DMA stop on leaving run are in e2e_device_test): Init and its unwinding,
// NewStream, SetFormat and Init refusals, positions and the teardown.
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "support/DeviceInfoBuilder.h"
#include "support/ObjectChecks.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using checks::refs;
using wavetest::DeviceInfoBuilder;
using wavetest::FormatDesc;
using wavetest::LightRig;
using wavetest::makeFormat;
using wavetest::StackRig;

namespace {

PKSDATAFORMAT asFormat(std::vector<UCHAR>& f) {
    return reinterpret_cast<PKSDATAFORMAT>(f.data());
}

// ---- The miniport bound to an adapter that never started ----

TEST(WaveMiniport, InitBindsAdapterPortAndServiceGroupOrUnwindsAndReleaseGivesThemBack) {
    LightRig rig;
    IMiniportWaveCyclic* self = rig.wave;
    checks::expectInterfaces(self, self, {&IID_IUnknown, &IID_IMiniport, &IID_IMiniportWaveCyclic},
                             {&IID_IMiniportTopology});
    EXPECT_EQ(rig.wave->QueryInterface(IID_IUnknown, nullptr), STATUS_INVALID_PARAMETER);
    checks::expectAssert("Object");

    ASSERT_EQ(rig.initStatus, STATUS_SUCCESS);
    EXPECT_EQ(rig.adapter->wave(), rig.wave);
    EXPECT_EQ(rig.wave->adapter(), rig.adapter);
    EXPECT_EQ(refs(rig.adapter), 2); // the rig's and the miniport's
    EXPECT_EQ(rig.port.refs, 2);
    EXPECT_EQ(hostpc::liveObjects(), 1u); // the service group
    rig.wave->notifyPort();
    EXPECT_EQ(rig.port.notifies, 1u);
    ASSERT_NE(rig.port.lastGroup, nullptr);
    EXPECT_TRUE(hostpc::serviceGroupState(rig.port.lastGroup).isGroup);

    rig.wave->Release();
    rig.wave = nullptr;
    EXPECT_EQ(rig.adapter->wave(), nullptr);
    EXPECT_EQ(refs(rig.adapter), 1);
    EXPECT_EQ(rig.port.refs, 1);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ DESTRUCTOR MMEWave::~MMEWave"));

    // Failed Inits unwind.
    {
        LightRig rig(nullptr, /*init=*/false);
        wavetest::FakeWavePort notAnAdapter;
        EXPECT_EQ(rig.wave->Init(&notAnAdapter, nullptr, &rig.port), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(rig.wave->adapter(), nullptr);
        EXPECT_EQ(rig.port.refs, 1);
        rig.wave->notifyPort();
        EXPECT_EQ(rig.port.notifies, 0u);
    }
    {
        LightRig rig(nullptr, /*init=*/false);
        hostpc::fail(hostpc::Op::NewServiceGroup, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(rig.wave->Init(static_cast<IMMEAdapter*>(rig.adapter), nullptr, &rig.port),
                  STATUS_INSUFFICIENT_RESOURCES);
        hostpc::clearFailures();
        EXPECT_EQ(rig.wave->adapter(), nullptr);
        EXPECT_EQ(rig.adapter->wave(), nullptr);
        EXPECT_EQ(refs(rig.adapter), 1);
        EXPECT_EQ(rig.port.refs, 1);
    }
    LightRig bare(nullptr, /*init=*/false);
    EXPECT_EQ(bare.wave->Init(nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hostk::assertReports().size(), 2u);
    hostk::clearAssertReports();
}

// GetDescription (a failed allocation leaves nothing half built), then
// NewStream's refusals where no stream can open.
TEST(WaveMiniport, GetDescriptionAndNewStreamRefusalsWithoutStreams) {
    DeviceInfoBuilder dev;
    dev.input(16, 2, {48000}).output(16, 2, {48000});
    LightRig rig(dev.get());
    hostk::failAllocation(1);
    PPCFILTER_DESCRIPTOR first = nullptr, second = nullptr;
    EXPECT_EQ(rig.wave->GetDescription(&first), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(first, nullptr);
    ASSERT_EQ(rig.wave->GetDescription(&first), STATUS_SUCCESS);
    EXPECT_EQ(first, &rig.wave->descriptor()->Filter);
    ASSERT_EQ(rig.wave->GetDescription(&second), STATUS_SUCCESS);
    EXPECT_EQ(second, first);
    EXPECT_EQ(rig.wave->GetDescription(nullptr), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(hostk::assertReports().size(), 1u);
    hostk::clearAssertReports();

    std::vector<UCHAR> format = makeFormat({48000, 2, 16}), odd = makeFormat({48000, 3, 16});
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL dma = nullptr;
    PSERVICEGROUP group = nullptr;
    auto newStream = [&](PMINIPORTWAVECYCLICSTREAM* s, PKSDATAFORMAT f, PDMACHANNEL* d,
                         PSERVICEGROUP* g) {
        return rig.wave->NewStream(s, nullptr, NonPagedPool, 0, TRUE, f, d, g);
    };
    EXPECT_EQ(newStream(nullptr, asFormat(format), &dma, &group), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(newStream(&stream, nullptr, &dma, &group), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(newStream(&stream, asFormat(format), nullptr, &group), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(newStream(&stream, asFormat(format), &dma, nullptr), STATUS_INVALID_PARAMETER);

    tracecap::clearTrace();
    EXPECT_EQ(newStream(&stream, asFormat(format), &dma, &group), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(tracecap::containsLine("No DMA Channel"));
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(dma, nullptr);
    EXPECT_EQ(group, nullptr);
    // A refused format is reported before the DMA channel is looked for.
    tracecap::clearTrace();
    EXPECT_EQ(newStream(&stream, asFormat(odd), &dma, &group), STATUS_NOT_SUPPORTED);
    EXPECT_FALSE(tracecap::containsLine("No DMA Channel"));

    rig.adapter->linkInfo().mpSettings = nullptr;
    EXPECT_EQ(newStream(&stream, asFormat(format), &dma, &group), STATUS_INVALID_DEVICE_STATE);
    LightRig bare(nullptr, /*init=*/false);
    EXPECT_EQ(bare.wave->NewStream(&stream, nullptr, NonPagedPool, 0, TRUE, asFormat(format), &dma,
                                   &group),
              STATUS_INVALID_DEVICE_STATE);
}

// ---- The whole driver (hardware at 48000 Hz, 8 in and 8 out) ----

class Wave : public ::testing::Test {
protected:
    // A stream the rig holds (and closes when it goes); null when refused.
    MMEWaveStream* open(bool capture, const FormatDesc& desc) {
        formats.push_back(makeFormat(desc));
        StackRig::Opened o = stack.open(capture, formats.back());
        status = o.status;
        if (o.status != STATUS_SUCCESS)
            return nullptr;
        stack.held.push_back(o);
        return o.object();
    }
    StackRig stack;
    std::vector<std::vector<UCHAR>> formats;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
};

TEST_F(Wave, NewStreamHandsOutCountedReferencesOncePerDirection) {
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
    MMEDMAEmulator* captureDma = stack.adapter->getCaptureDMAChannel();
    const LONG dmaBefore = refs(captureDma);
    StackRig::Opened capture = stack.open(true, format);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);
    EXPECT_EQ(refs(capture.stream), 2); // the miniport's and the caller's
    EXPECT_EQ(capture.dma, static_cast<PDMACHANNEL>(captureDma));
    EXPECT_EQ(refs(captureDma), dmaBefore + 2); // the caller's and the stream's
    EXPECT_EQ(stack.wave->captureStream(), capture.object());
    EXPECT_EQ(captureDma->stream(), capture.object());
    EXPECT_TRUE(capture.object()->isCapture());
    EXPECT_EQ(capture.object()->state(), KSSTATE_STOP);
    const LONG groupRefs = refs(capture.group);

    // A second stream of the direction is refused; the first is untouched.
    StackRig::Opened second = stack.open(true, format);
    EXPECT_EQ(second.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(second.stream, nullptr);
    EXPECT_EQ(second.dma, nullptr);
    EXPECT_EQ(second.group, nullptr);
    EXPECT_EQ(stack.wave->captureStream(), capture.object());
    EXPECT_EQ(captureDma->stream(), capture.object());
    EXPECT_EQ(refs(capture.stream), 2);

    // The other direction opens once, with the same service group.
    tracecap::clearTrace();
    StackRig::Opened render = stack.open(false, format);
    ASSERT_EQ(render.status, STATUS_SUCCESS);
    EXPECT_EQ(render.group, capture.group);
    EXPECT_EQ(refs(capture.group), groupRefs + 1);
    EXPECT_EQ(render.dma, static_cast<PDMACHANNEL>(stack.adapter->getRenderDMAChannel()));
    EXPECT_TRUE(tracecap::containsLine("[exit MMEWave::NewStream]  0x00000000"));
    EXPECT_EQ(stack.open(false, format).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(tracecap::containsLine("...try to allocate second render channel"));

    StackRig::close(render);
    StackRig::close(capture);
    EXPECT_EQ(refs(captureDma), dmaBefore);
}

TEST_F(Wave, OnSetFormatAsksForTheRangesChannelCount) {
    MMEWaveStream* s = open(true, {48000, 2, 16});
    ASSERT_NE(s, nullptr);
    const WAVEFORMATEX* wfx = wavetest::waveOf(formats[0]);
    stack.usb.settings().current.inCH = 4;
    stack.usb.settings().current.outCH = 6;
    KSDATARANGE_AUDIO eight = hostpc::clientRange(8, 16, 24, 48000, 48000);
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &eight, false), STATUS_SUCCESS);
    ChannelConfig wanted;
    stack.adapter->getAttachChannels(&wanted);
    EXPECT_EQ(wanted.inCH, 8u);
    EXPECT_EQ(wanted.outCH, 6u); // the other direction as the hardware has it
    EXPECT_EQ(wanted.fr, 48000u);

    KSDATARANGE_AUDIO mono = hostpc::clientRange(1, 16, 24, 48000, 48000);
    tracecap::clearTrace();
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &mono, false), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(
        tracecap::containsLine("ERROR pResultRange->MaximumChannels < waveFormat->nChannels"));
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, nullptr, false), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("pResultRange is NULL"));
    EXPECT_EQ(stack.wave->onSetFormat(nullptr, wfx, &eight, false), STATUS_INVALID_DEVICE_STATE);

    stack.usb.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &eight, true), STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter->changeConfig failed"));
    stack.usb.clearAnswers();

    HardwareSettings* settings = stack.adapter->linkInfo().mpSettings;
    stack.adapter->linkInfo().mpSettings = nullptr;
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &eight, false), STATUS_INVALID_DEVICE_STATE);
    stack.adapter->linkInfo().mpSettings = settings;
}

TEST_F(Wave, RunningReportIsTheOrOfBothStreams) {
    MMEWaveStream* streams[] = {open(true, {48000, 2, 16}), open(false, {48000, 2, 16}), nullptr};
    ASSERT_TRUE(streams[0] && streams[1]);
    // Which stream (0 capture, 1 render, 2 neither) changes to what, and the
    // OR the adapter must then hold.
    struct {
        int stream;
        bool running, anyRunning;
    } steps[] = {{1, true, true},  {0, true, true},   {1, false, true},
                 {2, false, true}, {0, false, false}, {0, true, true},
                 {1, true, true},  {0, false, true},  {1, false, false}};
    for (const auto& step : steps) {
        SCOPED_TRACE(std::to_string(step.stream) + (step.running ? " runs" : " stops"));
        stack.wave->onStreamRunning(streams[step.stream], step.running);
        if (streams[step.stream]) {
            EXPECT_EQ(streams[step.stream]->isRunning(), step.running);
        }
        EXPECT_EQ(stack.adapter->isWaveRunning(), step.anyRunning);
    }
}

// ---- The stream ----

TEST_F(Wave, StreamInterfacesRefusedArgumentsAndANotificationEvery256Frames) {
    MMEWaveStream* s = open(false, {48000, 2, 16}); // 4-byte frames
    ASSERT_NE(s, nullptr);
    IMiniportWaveCyclicStream* self = s;
    checks::expectInterfaces(self, self, {&IID_IMiniportWaveCyclicStream, &IID_IUnknown},
                             {&IID_IMiniport});
    ChannelConfig settings{};
    ASSERT_TRUE(s->getAdapterSettings(&settings));
    EXPECT_EQ(settings, stack.adapter->linkInfo().mcAttachChannels);
    EXPECT_FALSE(s->getAdapterSettings(nullptr));
    EXPECT_EQ(s->GetPosition(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine("MMEWaveStream::GetPosition Position is NULL"));
    EXPECT_EQ(s->SetState(static_cast<KSSTATE>(7)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(s->state(), KSSTATE_STOP);

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
        EXPECT_TRUE(tracecap::containsLine(
            "...iFrequency:" + std::to_string(c.rate ? c.rate : 44100) +
            " mNotificationInterval:" + std::to_string(c.interval) + " framingsize:1024"));
        EXPECT_TRUE(tracecap::containsLine(
            "MMEWaveStream::SetNotificationFreq interval:" + std::to_string(c.asked) +
            " framingsize:123 m_uSampleSize:4"));
    }
}

TEST_F(Wave, NormalizePhysicalPosition) {
    MMEWaveStream* s = open(true, {48000, 2, 16});
    ASSERT_NE(s, nullptr);
    FormatDesc noSampleSize{48000, 2, 16};
    noSampleSize.sampleSize = 0; // "variable": the block alignment stands in
    struct {
        FormatDesc format;
        ULONG rate;
        LONGLONG bytes, time;
        NTSTATUS status;
    } cases[] = {{{48000, 2, 16}, 44100, 176400, 10000000, STATUS_SUCCESS},
                 {{48000, 2, 16}, 44100, -176400, -10000000, STATUS_SUCCESS},
                 // No overflow of the intermediate product: a billion seconds.
                 {{48000, 2, 16},
                  44100,
                  44100LL * 4 * 1000000000LL,
                  10000000LL * 1000000000LL,
                  STATUS_SUCCESS},
                 {{48000, 2, 16}, 0, 1000, 0, STATUS_INVALID_DEVICE_STATE},
                 {{48000, 2, 24}, 48000, 288000, 9999996, STATUS_SUCCESS}, // quotient truncated
                 {noSampleSize, 48000, 4000, 208333, STATUS_SUCCESS}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        std::vector<UCHAR> f = makeFormat(c.format);
        ASSERT_EQ(s->SetFormat(asFormat(f)), STATUS_SUCCESS);
        stack.wave->setSampleRate(c.rate);
        LONGLONG p = c.bytes;
        EXPECT_EQ(s->NormalizePhysicalPosition(&p), c.status);
        EXPECT_EQ(p, c.time);
    }
    EXPECT_TRUE(tracecap::containsLine("*PhysicalPosition  10000000"));
    EXPECT_EQ(s->NormalizePhysicalPosition(nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(Wave, RefusedFormatStillShapesTheDmaChannel) {
    ASSERT_NE(open(true, {48000, 2, 16}), nullptr);
    MMEWaveStream* render = open(false, {48000, 2, 16});
    ASSERT_NE(render, nullptr);
    const std::vector<UCHAR> renderFormat = formats[1];

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

    std::vector<UCHAR> ok = makeFormat({48000, 6, 24});
    EXPECT_EQ(render->SetFormat(asFormat(ok)), STATUS_SUCCESS);
    EXPECT_EQ(render->sampleSize(), 18u);
    EXPECT_EQ(std::memcmp(render->dataFormat(), ok.data(), ok.size()), 0);
    EXPECT_EQ(render->dmaChannel()->stream(), render);
}

TEST_F(Wave, FormatSizesOutsideTheStoreRefusedBySetFormatAndInit) {
    FormatDesc big{48000, 2, 16};
    big.formatSize = MME_MAX_FORMAT_SIZE + 1;
    tracecap::clearTrace();
    EXPECT_EQ(open(true, big), nullptr); // its Init refuses; the slot stays free
    EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tracecap::countLinesStartingWith("+ DESTRUCTOR MMEWaveStream::~MMEWaveStream"), 1u);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    MMEWaveStream* s = open(true, {48000, 2, 16});
    ASSERT_NE(s, nullptr);
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
TEST_F(Wave, PortReleaseTearsDownAndFreesTheSlot) {
    MMEWaveStream* s = open(true, {48000, 2, 16});
    ASSERT_NE(s, nullptr);
    MMEDMAEmulator* dma = s->dmaChannel();
    ASSERT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_TRUE(stack.adapter->isWaveRunning());
    void* buffer = dma->SystemAddress();
    std::memset(buffer, 0x77, dma->BufferSize()); // audio the stream left behind
    const LONG waveRefs = refs(stack.wave);

    tracecap::clearTrace();
    stack.closeStream(s);
    EXPECT_EQ(tracecap::countLines("NEED TO NOTIFY WAVE STREAM"), 1u);
    EXPECT_TRUE(tracecap::containsLine("capture stream"));
    EXPECT_EQ(tracecap::countLinesStartingWith("+ DESTRUCTOR MMEWaveStream::~MMEWaveStream"), 1u);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    EXPECT_FALSE(stack.adapter->isWaveRunning());
    EXPECT_EQ(refs(stack.wave), waveRefs - 1);
    EXPECT_EQ(dma->stream(), nullptr);
    EXPECT_EQ(dma->SystemAddress(), buffer);
    const UCHAR* bytes = static_cast<const UCHAR*>(buffer);
    EXPECT_EQ(std::count(bytes, bytes + dma->BufferSize(), 0), long(dma->BufferSize()));

    // A stream the miniport does not hold is ignored; the slot takes a new one.
    stack.wave->onFinalRelease(nullptr);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);
    s = open(true, {48000, 2, 16});
    EXPECT_EQ(stack.wave->captureStream(), s);
}

} // namespace
