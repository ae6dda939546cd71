// The wave miniport: interface query, Init with its unwinding, destruction,
// GetDescription, NewStream with its order of refusals and its references,
// the final release of a stream, the rate rule between the two directions
// in onSetFormat, the running report and the port notification.
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "support/DeviceInfoBuilder.h"
#include "support/TraceCapture.h"
#include "support/WaveRig.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

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

} // namespace

TEST(WaveMiniport, QueryInterfaceIdentitiesAndCounts) {
    LightRig rig;
    IMiniportWaveCyclic* self = rig.wave;
    checks::expectInterfaces(self, self, {&IID_IUnknown, &IID_IMiniport, &IID_IMiniportWaveCyclic},
                             {&IID_IMiniportTopology});
    EXPECT_EQ(rig.wave->QueryInterface(IID_IUnknown, nullptr), STATUS_INVALID_PARAMETER);
    checks::expectAssert("Object");
}

TEST(WaveMiniport, InitBindsAdapterPortAndServiceGroup) {
    LightRig rig;
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

    // Destruction gives everything back.
    rig.wave->Release();
    rig.wave = nullptr;
    EXPECT_EQ(rig.adapter->wave(), nullptr);
    EXPECT_EQ(refs(rig.adapter), 1);
    EXPECT_EQ(rig.port.refs, 1);
    EXPECT_EQ(hostpc::liveObjects(), 0u);
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ DESTRUCTOR MMEWave::~MMEWave"));
}

TEST(WaveMiniport, InitFailuresUnwind) {
    {
        // An unknown that is no adapter.
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
    {
        LightRig rig(nullptr, /*init=*/false);
        EXPECT_EQ(rig.wave->Init(nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(hostk::assertReports().size(), 2u);
        hostk::clearAssertReports();
    }
}

TEST(WaveMiniport, GetDescription) {
    DeviceInfoBuilder dev;
    dev.output(24, 2, {48000});
    LightRig rig(dev.get());
    hostk::failAllocation(1);
    PPCFILTER_DESCRIPTOR first = nullptr;
    EXPECT_EQ(rig.wave->GetDescription(&first), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(first, nullptr);

    ASSERT_EQ(rig.wave->GetDescription(&first), STATUS_SUCCESS);
    EXPECT_EQ(first, &rig.wave->descriptor()->Filter);
    PPCFILTER_DESCRIPTOR second = nullptr;
    ASSERT_EQ(rig.wave->GetDescription(&second), STATUS_SUCCESS);
    EXPECT_EQ(second, first);

    EXPECT_EQ(rig.wave->GetDescription(nullptr), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(hostk::assertReports().size(), 1u);
    hostk::clearAssertReports();
}

TEST(WaveMiniport, NewStreamRefusalsWithoutStreams) {
    DeviceInfoBuilder dev;
    dev.input(16, 2, {48000}).output(16, 2, {48000});
    LightRig rig(dev.get());
    ASSERT_EQ(rig.describe(), STATUS_SUCCESS);
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
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

    // The adapter of this rig was never started: it has no DMA channels.
    tracecap::clearTrace();
    EXPECT_EQ(newStream(&stream, asFormat(format), &dma, &group), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(tracecap::containsLine("No DMA Channel"));
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(dma, nullptr);
    EXPECT_EQ(group, nullptr);

    // A refused format is reported before the DMA channel is looked for.
    std::vector<UCHAR> odd = makeFormat({48000, 3, 16});
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

// The whole driver on the model USB driver (hardware at 48000 Hz, 8 in and 8
// out) and a format it accepts.
class WaveMiniportStreams : public ::testing::Test {
protected:
    StackRig stack;
    std::vector<UCHAR> format = makeFormat({48000, 2, 16});
};

TEST_F(WaveMiniportStreams, NewStreamHandsOutCountedReferencesOncePerDirection) {
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
    tracecap::clearTrace();
    StackRig::Opened second = stack.open(true, format);
    EXPECT_EQ(second.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(tracecap::containsLine("...try to allocate second capture channel"));
    EXPECT_EQ(second.stream, nullptr);
    EXPECT_EQ(second.dma, nullptr);
    EXPECT_EQ(second.group, nullptr);
    EXPECT_EQ(stack.wave->captureStream(), capture.object());
    EXPECT_EQ(refs(capture.stream), 2);
    EXPECT_EQ(captureDma->stream(), capture.object());

    // The other direction still opens, with the same service group.
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

TEST_F(WaveMiniportStreams, DigitalLockRefusesOtherRatesBeforeAnyObject) {
    stack.usb.setDigitalLock(48000);
    std::vector<UCHAR> at44 = makeFormat({44100, 2, 16});
    const size_t blocks = hostk::poolStats().liveBlocks;
    tracecap::clearTrace();
    StackRig::Opened o = stack.open(false, at44);
    EXPECT_EQ(o.status, STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(tracecap::containsLine("doValidateFormat: validate digital lock frequency 48000"));
    EXPECT_TRUE(tracecap::containsLine("samplerate not allowed requested/digital 44100 48000"));
    EXPECT_FALSE(tracecap::containsLineStartingWith("+ MMEWaveStream::MMEWaveStream"));
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocks);

    StackRig::Opened ok = stack.open(false, format);
    EXPECT_EQ(ok.status, STATUS_SUCCESS);
    StackRig::close(ok);
}

// The other direction still streams (bad_input_test).
TEST_F(WaveMiniportStreams, SwitchedOffDirectionRefusesEveryFormat) {
    stack.usb.settings().current.inCH = 0;
    for (const FormatDesc& desc :
         {FormatDesc{48000, 2, 16}, FormatDesc{48000, 3, 16}, FormatDesc{44100, 8, 24}}) {
        std::vector<UCHAR> f = makeFormat(desc);
        tracecap::clearTrace();
        EXPECT_EQ(stack.open(true, f).status, STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("MME DISABLED INPUT"));
    }
}

// (A stream object that cannot be allocated is swept in alloc_sweep_test.)
TEST_F(WaveMiniportStreams, StreamRefusedByItsInitLeavesTheSlotFree) {
    // A format larger than the stream can keep.
    FormatDesc big{48000, 2, 16};
    big.formatSize = MME_MAX_FORMAT_SIZE + 1;
    std::vector<UCHAR> bigFormat = makeFormat(big);
    tracecap::clearTrace();
    EXPECT_EQ(stack.open(true, bigFormat).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tracecap::countLinesStartingWith("+ DESTRUCTOR MMEWaveStream::~MMEWaveStream"), 1u);
    EXPECT_EQ(stack.wave->captureStream(), nullptr);

    StackRig::Opened ok = stack.open(true, format);
    EXPECT_EQ(ok.status, STATUS_SUCCESS);
    StackRig::close(ok);
}

TEST_F(WaveMiniportStreams, OnSetFormatKeepsOneRateForBothDirections) {
    std::vector<UCHAR>& at48 = format;
    std::vector<UCHAR> at44 = makeFormat({44100, 2, 16});
    StackRig::Opened capture = stack.open(true, at48);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);
    // Opened with another rate: created all the same (its Init ignores the refusal).
    StackRig::Opened render = stack.open(false, at44);
    ASSERT_EQ(render.status, STATUS_SUCCESS);
    KSDATARANGE_AUDIO range = hostpc::clientRange(8, 16, 24, 44100, 44100);

    tracecap::clearTrace();
    EXPECT_EQ(stack.wave->onSetFormat(render.object(), wavetest::waveOf(at44), &range, false),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine(
        "ERROR: RenderStream want to change the format while mpStreamCapture is open ?"));
    EXPECT_EQ(stack.wave->onSetFormat(capture.object(), wavetest::waveOf(at44), &range, false),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(tracecap::containsLine(
        "ERROR: Capture Stream want to change the format while mpStreamRender is open ?"));

    tracecap::clearTrace();
    EXPECT_EQ(stack.wave->onSetFormat(render.object(), wavetest::waveOf(at48), &range, true),
              STATUS_SUCCESS);
    EXPECT_TRUE(tracecap::containsLine("format change seems to be allowed"));
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter->changeConfig success"));
    EXPECT_TRUE(tracecap::containsLine("SamplingFrequency is now  48000"));

    // With the render stream gone, the capture stream may move the rate.
    StackRig::close(render);
    EXPECT_EQ(stack.wave->onSetFormat(capture.object(), wavetest::waveOf(at44), &range, true),
              STATUS_SUCCESS);
    EXPECT_EQ(stack.usb.settings().current.fr, 44100u);
    StackRig::close(capture);
}

TEST_F(WaveMiniportStreams, OnSetFormatAsksForTheRangesChannelCount) {
    StackRig::Opened capture = stack.open(true, format);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);
    MMEWaveStream* s = capture.object();
    const WAVEFORMATEX* wfx = wavetest::waveOf(format);

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

    // The USB driver refuses the change.
    stack.usb.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &eight, true), STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(tracecap::containsLine("mMMEAdapter->changeConfig failed"));
    stack.usb.clearAnswers();

    HardwareSettings* settings = stack.adapter->linkInfo().mpSettings;
    stack.adapter->linkInfo().mpSettings = nullptr;
    EXPECT_EQ(stack.wave->onSetFormat(s, wfx, &eight, false), STATUS_INVALID_DEVICE_STATE);
    stack.adapter->linkInfo().mpSettings = settings;
    StackRig::close(capture);
}

TEST_F(WaveMiniportStreams, RunningReportIsTheOrOfBothStreams) {
    StackRig::Opened capture = stack.open(true, format);
    StackRig::Opened render = stack.open(false, format);
    ASSERT_EQ(capture.status, STATUS_SUCCESS);
    ASSERT_EQ(render.status, STATUS_SUCCESS);

    // Each step: which stream (0 capture, 1 render, 2 neither) changes to
    // what, and the OR the adapter must then hold; render alone runs too.
    struct Step {
        int stream;
        bool running;
        bool anyRunning;
    };
    const Step steps[] = {{1, true, true},  {0, true, true},   {1, false, true},
                          {2, false, true}, {0, false, false}, {0, true, true},
                          {1, true, true},  {0, false, true},  {1, false, false}};
    MMEWaveStream* streams[] = {capture.object(), render.object(), nullptr};
    for (const Step& step : steps) {
        SCOPED_TRACE(std::to_string(step.stream) + (step.running ? " runs" : " stops"));
        stack.wave->onStreamRunning(streams[step.stream], step.running);
        if (streams[step.stream]) {
            EXPECT_EQ(streams[step.stream]->isRunning(), step.running);
        }
        EXPECT_EQ(stack.adapter->isWaveRunning(), step.anyRunning);
    }

    StackRig::close(capture);
    StackRig::close(render);
}
