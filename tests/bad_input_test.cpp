// Bad input from the USB driver, against the whole driver loaded on the host
// port-class library above the model USB driver, with streams opened and
// run by a kernel-streaming client: device-info records whose counts exceed
// their capacities or that were never filled, missing ring pointers, ring
// headers that break the ring's invariants or change shape under running
// streams, hardware configurations with no channels or a rate of 0,
// notifications and state questions with unknown codes, and callbacks that
// arrive during or after USBCall_Unregister.
//
// Where the model USB driver cannot misbehave by itself, a test plays the
// faulty USB driver: it writes the shared records as such a driver would,
// or calls the exchange callback through the link record at dispatch level
// where allocating or waiting is a verifier failure, exactly as the USB
// driver's period does. Every test ends with the device removed and the
// host kernel clean; the asan preset runs them all for out-of-bounds access.
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"

#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using hostpc::KsStream;

// The driver on the model, started, with a client's view of its wave filter.
class Device {
public:
    explicit Device(usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault(),
                    bool start = true)
        : harness(false, std::move(profile)) {
        if (start)
            this->start();
    }
    ~Device() { remove(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    NTSTATUS start() {
        harness.startStatus = harness.loader.startDevice(model().pdo());
        PDEVICE_OBJECT fdo = harness.fdo();
        PUNKNOWN port = fdo ? hostpc::subdevice(fdo, u"Wave") : nullptr;
        if (port)
            filter = std::make_unique<hostpc::WaveFilter>(port);
        return harness.startStatus;
    }
    void remove() {
        filter.reset();
        harness.remove();
    }

    usbsim::UsbDriverModel& model() { return harness.model; }
    MMEAdapter* adapter() const { return harness.adapter(); }
    MMEWave* wave() const { return harness.wave(); }

    std::unique_ptr<KsStream> open(bool capture, NTSTATUS* status = nullptr, ULONG rate = 48000,
                                   USHORT channels = 2, USHORT bits = 16) {
        std::unique_ptr<KsStream> stream;
        NTSTATUS st = STATUS_INVALID_DEVICE_STATE;
        if (filter)
            st = filter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                              hostpc::pcmFormat(rate, channels, bits), {}, &stream);
        if (status)
            *status = st;
        return stream;
    }

    // Both streams open and running, the MME side attached, periods flowing.
    void streamBoth(std::unique_ptr<KsStream>& capture, std::unique_ptr<KsStream>& render) {
        capture = open(true);
        render = open(false);
        ASSERT_TRUE(capture && render);
        std::vector<unsigned char> silence(4 * 48000, 0);
        render->write(silence.data(), 48000);
        ASSERT_EQ(capture->setState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        model().runPeriods(20);
        ASSERT_TRUE(adapter()->isAttached());
    }

    // One period callback as the USB driver makes it, through the link record.
    void exchange() {
        MMEAdapterInfo* link = model().link();
        ASSERT_NE(link, nullptr);
        hostk::runAtDispatch([&] {
            hostk::NoAllocNoWaitScope scope("the USB driver's period callback");
            link->mpfnExchangeData(link->mpContext, link);
        });
    }

    // Frames the capture ring holds beyond the driver's read position.
    ULONG captureBacklog() {
        AudioSM& capture = model().captureRing();
        return capture.mWritePos + capture.mWriteOffset - model().renderRing().mMMEReadPos;
    }

    adaptertest::DriverHarness harness;
    std::unique_ptr<hostpc::WaveFilter> filter;
};

// What the ring positions and the channels' positions are at one moment.
struct Positions {
    ULONG captureRead, renderWrite, captureChannel, renderChannel;
    static Positions of(Device& d) {
        return Positions{d.model().renderRing().mMMEReadPos, d.model().renderRing().mWritePos,
                         d.adapter()->getCaptureDMAChannel()->position(),
                         d.adapter()->getRenderDMAChannel()->position()};
    }
    bool operator==(const Positions& o) const {
        return captureRead == o.captureRead && renderWrite == o.renderWrite &&
               captureChannel == o.captureChannel && renderChannel == o.renderChannel;
    }
};

std::vector<KSDATARANGE_AUDIO> rangesOf(Device& d, ULONG pin) {
    return d.filter ? d.filter->pin(pin).ranges : std::vector<KSDATARANGE_AUDIO>();
}

bool sameRanges(const std::vector<KSDATARANGE_AUDIO>& a, const std::vector<KSDATARANGE_AUDIO>& b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].MaximumChannels != b[i].MaximumChannels ||
            a[i].MinimumBitsPerSample != b[i].MinimumBitsPerSample ||
            a[i].MaximumBitsPerSample != b[i].MaximumBitsPerSample ||
            a[i].MinimumSampleFrequency != b[i].MinimumSampleFrequency ||
            a[i].MaximumSampleFrequency != b[i].MaximumSampleFrequency)
            return false;
    }
    return true;
}

// ---- Device-info records ----

TEST(BadDeviceInfo, CountsBeyondEveryCapacityAreReadOnlyToTheRecordsEnd) {
    std::vector<KSDATARANGE_AUDIO> honestCapture, honestRender;
    {
        Device honest;
        ASSERT_EQ(honest.harness.startStatus, STATUS_SUCCESS);
        honestCapture = rangesOf(honest, hostpc::kWaveCapturePin);
        honestRender = rangesOf(honest, hostpc::kWaveRenderPin);
        ASSERT_FALSE(honestCapture.empty());
        ASSERT_FALSE(honestRender.empty());
    }

    // The same device claiming 255 of everything at every level. The record
    // has room for 4 configurations, 16 interfaces, 16 alternate settings,
    // 16 rates and 4 endpoints; the room beyond the real entries is zero.
    Device liar(usbsim::DeviceProfile::builtInDefault(), false);
    MMEDeviceInfo& info = liar.model().deviceInfo();
    info.numConfigurations = 255;
    for (auto& config : info.configurations) {
        config.numInterfaces = 255;
        for (auto& iface : config.interfaces) {
            iface.numAltSettings = 255;
            for (auto& alt : iface.altSettings) {
                alt.numRates = 255;
                alt.numEndpoints = 255;
            }
        }
    }
    ASSERT_EQ(liar.start(), STATUS_SUCCESS);
    EXPECT_TRUE(sameRanges(rangesOf(liar, hostpc::kWaveCapturePin), honestCapture));
    EXPECT_TRUE(sameRanges(rangesOf(liar, hostpc::kWaveRenderPin), honestRender));

    // And it streams like the honest one.
    std::unique_ptr<KsStream> capture, render;
    liar.streamBoth(capture, render);
    EXPECT_GT(capture->positionFrames(), 0u);
    EXPECT_GT(render->positionFrames(), 0u);
}

TEST(BadDeviceInfo, ARecordNeverFilledLeavesAStartedDeviceThatRefusesStreams) {
    Device device(usbsim::DeviceProfile::builtInDefault(), false);
    // The USB driver refuses the registration and fills nothing in.
    device.model().setAnswer(USBCall_Register, STATUS_NOT_SUPPORTED);
    tracecap::clearTrace();
    ASSERT_EQ(device.start(), STATUS_SUCCESS);
    MMEAdapterInfo& link = device.adapter()->linkInfo();
    EXPECT_EQ(link.mpAPIDeviceInfo, nullptr);
    EXPECT_EQ(link.mpSettings, nullptr);
    EXPECT_EQ(link.mpSharedMemory, nullptr);
    EXPECT_TRUE(tracecap::containsLine("pAPI_DI is NULL"));
    EXPECT_TRUE(tracecap::containsLine("m_cMMEAdapterInfo.mpSetting is NULL"));

    // No ranges on either streaming pin; a stream is refused, not crashed.
    EXPECT_TRUE(rangesOf(device, hostpc::kWaveCapturePin).empty());
    EXPECT_TRUE(rangesOf(device, hostpc::kWaveRenderPin).empty());
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_FALSE(device.open(true, &status));
    EXPECT_EQ(status, STATUS_INVALID_DEVICE_STATE);
    EXPECT_FALSE(device.open(false, &status));
    EXPECT_EQ(status, STATUS_INVALID_DEVICE_STATE);

    // A period callback through the unfilled record moves nothing.
    MMEAdapter::exchangeDataEntry(device.adapter(), &link);
    device.adapter()->checkExchangeData(&link);
    EXPECT_TRUE(
        tracecap::containsLine("MMEAdapter::checkExchangeData pcInfo->mpSharedMemory is NULL"));
}

// ---- Ring pointers and ring headers ----

TEST(BadRings, MissingRingPointersMoveNothingAndLoseNoCapturedFrame) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    MMEAdapterInfo& link = device.adapter()->linkInfo();
    ASSERT_LT(device.captureBacklog(), MME_PERIOD_FRAMES);

    const ULONG readStart = device.model().renderRing().mMMEReadPos;
    const uint64_t capturedStart = capture->positionFrames();
    struct Missing {
        const char* what;
        void** field;
    } cases[] = {
        {"capture ring", reinterpret_cast<void**>(&link.mpCaptureRing)},
        {"render ring", reinterpret_cast<void**>(&link.mpSharedMemory)},
    };
    for (const Missing& c : cases) {
        SCOPED_TRACE(c.what);
        void* saved = *c.field;
        *c.field = nullptr;
        const Positions before = Positions::of(device);
        device.model().runPeriods(8);
        EXPECT_TRUE(Positions::of(device) == before) << "something moved without the ring";
        EXPECT_GE(device.captureBacklog(), 8 * device.model().periodFrames());

        // The USB driver puts the ring back: the backlog is read, two
        // periods per callback, and every frame reaches the capture stream.
        *c.field = saved;
        device.model().runPeriods(8);
        EXPECT_LT(device.captureBacklog(), MME_PERIOD_FRAMES);
        EXPECT_EQ(capture->positionFrames() - capturedStart,
                  uint64_t(device.model().renderRing().mMMEReadPos - readStart));
    }
}

TEST(BadRings, HeadersThatBreakTheInvariantsAreRefusedUntilRepaired) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);

    struct Broken {
        bool captureRing;
        ULONG channels;
        ULONG frames;
    } cases[] = {
        {true, 0, 4096},         {true, 8, 0},  {true, 8, 16385},   {true, 0x80000001u, 2},
        {true, 0x40000000u, 4}, // 32-bit products of 2 and 0
        {false, 0, 4096},        {false, 8, 0}, {false, 1, 131073}, {false, 0x80000001u, 2},
        {false, 0x40000000u, 4},
    };
    for (const Broken& c : cases) {
        SCOPED_TRACE(std::string(c.captureRing ? "capture" : "render") + " ring " +
                     std::to_string(c.channels) + " x " + std::to_string(c.frames));
        AudioSM& ring = c.captureRing ? device.model().captureRing() : device.model().renderRing();
        const ULONG channels = ring.mChannelsPerFrame;
        const ULONG frames = ring.mMaxFrames;
        ring.mChannelsPerFrame = c.channels;
        ring.mMaxFrames = c.frames;
        // Two periods are waiting, as far as the capture ring's writer says.
        device.model().captureRing().mWritePos += 2 * MME_PERIOD_FRAMES;
        tracecap::clearTrace();
        const Positions before = Positions::of(device);
        for (int i = 0; i < 3; ++i)
            device.exchange();
        EXPECT_TRUE(Positions::of(device) == before);
        const std::string refusal = std::string("MMEAdapter::checkExchangeData ") +
                                    (c.captureRing ? "capture" : "render") +
                                    " ring refused ch/frames";
        EXPECT_EQ(tracecap::countLinesStartingWith(refusal), 1u) << tracecap::dumpTrace();

        // Repaired, the waiting periods move at the next callback.
        ring.mChannelsPerFrame = channels;
        ring.mMaxFrames = frames;
        device.exchange();
        const Positions after = Positions::of(device);
        EXPECT_EQ(after.captureRead - before.captureRead, 2 * MME_PERIOD_FRAMES);
        EXPECT_EQ(after.renderWrite - before.renderWrite, 2 * MME_PERIOD_FRAMES);
        EXPECT_NE(after.captureChannel, before.captureChannel);
        EXPECT_NE(after.renderChannel, before.renderChannel);
    }
}

TEST(BadRings, ARingReshapedUnderRunningStreamsIsAnOverrunNotAnOverflow) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    // The channels' scratch buffers hold 2048 frames of the configured 8
    // channels; a ring of 100 channels is usable but a period of it is not
    // (256 x 100 samples).
    for (bool captureRing : {true, false}) {
        SCOPED_TRACE(captureRing ? "capture ring" : "render ring");
        AudioSM& ring = captureRing ? device.model().captureRing() : device.model().renderRing();
        const ULONG channels = ring.mChannelsPerFrame;
        const ULONG frames = ring.mMaxFrames;
        ring.mChannelsPerFrame = 100;
        ring.mMaxFrames = 1310;
        ASSERT_TRUE(ring.isUsable());
        // Two periods are waiting, as far as the capture ring's writer says.
        AudioSM& captureSM = device.model().captureRing();
        const ULONG writeOffset = captureSM.mWriteOffset;
        captureSM.mWritePos = device.model().renderRing().mMMEReadPos + 2 * MME_PERIOD_FRAMES;
        captureSM.mWriteOffset = 0;
        tracecap::clearTrace();

        const Positions before = Positions::of(device);
        device.exchange();
        device.exchange();
        const Positions after = Positions::of(device);
        // Both rings still move by the two periods (frames skipped on capture,
        // silence on render); the reshaped direction's stream position stays.
        EXPECT_EQ(after.captureRead - before.captureRead, 2 * MME_PERIOD_FRAMES);
        EXPECT_EQ(after.renderWrite - before.renderWrite, 2 * MME_PERIOD_FRAMES);
        if (captureRing)
            EXPECT_EQ(after.captureChannel, before.captureChannel);
        else
            EXPECT_EQ(after.renderChannel, before.renderChannel);
        EXPECT_EQ(tracecap::countLinesStartingWith(
                      captureRing ? "MMEDMAEmulator::onInput period does not fit"
                                  : "MMEDMAEmulator::onOutput period does not fit"),
                  1u)
            << tracecap::dumpTrace();

        ring.mChannelsPerFrame = channels;
        ring.mMaxFrames = frames;
        captureSM.mWritePos = device.model().renderRing().mMMEReadPos;
        captureSM.mWriteOffset = writeOffset;
        const Positions repaired = Positions::of(device);
        device.model().runPeriods(2);
        EXPECT_NE(Positions::of(device).captureChannel, repaired.captureChannel);
        EXPECT_NE(Positions::of(device).renderChannel, repaired.renderChannel);
    }
}

// ---- Hardware configuration ----

TEST(BadHardware, NoChannelsInADirectionRefusesThatDirectionOnly) {
    usbsim::DeviceProfile noInputs = usbsim::DeviceProfile::builtInDefault();
    noInputs.hardware.inCH = 0;
    noInputs.accept.minInChannels = 0;
    {
        Device device(noInputs);
        tracecap::clearTrace();
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_FALSE(device.open(true, &status));
        EXPECT_EQ(status, STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("MME DISABLED INPUT"));
        std::unique_ptr<KsStream> render = device.open(false, &status);
        ASSERT_TRUE(render) << hostpc::statusName(status);
        ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
        device.model().runPeriods(20);
        EXPECT_GT(render->positionFrames(), 0u);
    }
    usbsim::DeviceProfile none = noInputs;
    none.hardware.outCH = 0;
    none.accept.minOutChannels = 0;
    {
        Device device(none);
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_FALSE(device.open(true, &status));
        EXPECT_EQ(status, STATUS_NOT_SUPPORTED);
        EXPECT_FALSE(device.open(false, &status));
        EXPECT_EQ(status, STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("MME DISABLED OUTPUT"));
        device.model().runPeriods(4);
    }
}

TEST(BadHardware, ARateOfZeroWhileStreamingIsRefusedWhereItWouldDivide) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    render.reset(); // the render pin is free to be asked for formats

    device.model().settings().current.fr = 0;
    device.model().askState(USBStc_ConfigChanged, 0);
    ASSERT_EQ(device.wave()->sampleRate(), 0u);

    MMEWaveStream* stream = device.wave()->captureStream();
    ASSERT_NE(stream, nullptr);
    LONGLONG position = 176400;
    EXPECT_EQ(stream->NormalizePhysicalPosition(&position), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(position, 0);
    ULONG framing = 0;
    EXPECT_EQ(stream->SetNotificationFreq(10, &framing), 5u); // from the wanted 48000 Hz
    std::vector<UCHAR> format;
    EXPECT_EQ(device.filter->intersect(hostpc::kWaveRenderPin,
                                       hostpc::clientRange(8, 16, 32, 8000, 192000), &format),
              STATUS_NO_MATCH);
    // The capture stream keeps moving meanwhile.
    const uint64_t frames = capture->positionFrames();
    device.model().runPeriods(4);
    EXPECT_GT(capture->positionFrames(), frames);

    // The hardware comes back to a real rate: positions normalise again.
    device.model().settings().current.fr = 48000;
    device.model().askState(USBStc_ConfigChanged, 0);
    position = 192000; // one second of 4-byte frames
    EXPECT_EQ(stream->NormalizePhysicalPosition(&position), STATUS_SUCCESS);
    EXPECT_EQ(position, 10000000);
}

TEST(BadHardware, ARateOfZeroAtStartIsReplacedByTheFirstStreamsRate) {
    Device device(usbsim::DeviceProfile::builtInDefault(), false);
    device.model().settings().current.fr = 0;
    ASSERT_EQ(device.start(), STATUS_SUCCESS);
    EXPECT_EQ(device.wave()->sampleRate(), 0u);
    NTSTATUS status = STATUS_SUCCESS;
    std::unique_ptr<KsStream> render = device.open(false, &status);
    ASSERT_TRUE(render) << hostpc::statusName(status);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    // Starting carried the stream's format to the hardware.
    EXPECT_EQ(device.model().settings().current.fr, 48000u);
    EXPECT_EQ(device.wave()->sampleRate(), 48000u);
    device.model().runPeriods(20);
    EXPECT_GT(render->positionFrames(), 0u);
}

// ---- Notifications and state questions ----

TEST(BadNotifications, UnknownCodesChangeNothingAndAreAnsweredWithZero) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    MMEAdapter* adapter = device.adapter();
    const size_t calls = device.model().calls().size();
    const ChannelConfig wanted = adapter->linkInfo().mcAttachChannels;
    const ULONG rate = device.wave()->sampleRate();
    tracecap::clearTrace();

    for (ULONG code : {6u, 7u, 42u, 0x80000000u, 0xFFFFFFFFu})
        device.model().notify(code, 0xDEADBEEFCAFEF00Dull);
    EXPECT_TRUE(tracecap::traceLines().empty()) << tracecap::dumpTrace();
    for (ULONG code : {0u, 3u, 5u, 6u, 0x7FFFFFFFu, 0xFFFFFFFFu})
        EXPECT_EQ(device.model().askState(code, 0xFFFFFFFFu), 0) << code;

    EXPECT_TRUE(adapter->isAttached());
    EXPECT_TRUE(adapter->isWaveRunning());
    EXPECT_FALSE(adapter->attachTimer()->cancel()) << "the attach timer was armed";
    EXPECT_EQ(device.model().calls().size(), calls) << "an unknown code reached the USB driver";
    EXPECT_EQ(adapter->linkInfo().mcAttachChannels, wanted);
    EXPECT_EQ(device.wave()->sampleRate(), rate);
    EXPECT_NE(adapter->callIrp(), nullptr);

    const uint64_t frames = capture->positionFrames();
    device.model().runPeriods(4);
    EXPECT_GT(capture->positionFrames(), frames);
}

// ---- Callbacks around USBCall_Unregister ----

TEST(AfterUnregister, CallbacksOfAUsbDriverThatKeepsCallingReachNothing) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    MMEAdapterInfo* link = device.model().link();
    ASSERT_NE(link, nullptr);

    device.remove(); // with both streams running
    EXPECT_EQ(device.model().link(), nullptr);
    EXPECT_TRUE(capture->removed());
    EXPECT_TRUE(render->removed());

    // The model has let go of the record: nothing it sends arrives.
    const uint64_t exchanges = device.model().exchangeCalls();
    device.model().clearNotices();
    for (ULONG code = 0; code <= 6; ++code)
        device.model().notify(code);
    EXPECT_EQ(device.model().askState(USBStc_IsMMEAttached, 0), 0);
    device.model().setExchangeWhileDetached(true);
    device.model().runPeriods(4);
    EXPECT_EQ(device.model().exchangeCalls(), exchanges);
    EXPECT_TRUE(device.model().notices().empty());

    // A USB driver that cleared its copy of the context calls with none,
    // and one that dropped the record calls with none: both are refused.
    for (ULONG code = 0; code <= 6; ++code)
        MMEAdapter::notifyEntry(nullptr, code, 0);
    EXPECT_EQ(MMEAdapter::stcEntry(nullptr, USBStc_IsMMEAttached, 0), 0);
    EXPECT_EQ(MMEAdapter::stcEntry(nullptr, USBStc_ConfigChanged, 0), 0);
    MMEAdapter::exchangeDataEntry(nullptr, nullptr);
}

TEST(AfterUnregister, CallbacksFromInsideTheUnregisterCallAreHandledSafely) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    capture.reset();
    render.reset();

    // The USB driver, while handling USBCall_Unregister, still delivers
    // everything it had queued: every notification (further calls forbidden
    // among them), state questions, a period, and codes it should not send.
    usbsim::UsbDriverModel& model = device.model();
    bool hookRan = false;
    size_t callsBeforeUnregister = 0;
    model.setDuringCall([&](ULONG code) {
        if (code != USBCall_Unregister)
            return;
        hookRan = true;
        callsBeforeUnregister = model.calls().size();
        MMEAdapterInfo* link = model.link();
        const ULONG codes[] = {MMENotify_OnMMEAttached,
                               MMENotify_OnAsioDetached,
                               MMENotify_OnTimedStartCallback,
                               MMENotify_PreventFurtherDriverCalls,
                               MMENotify_OnAsioAttached,
                               MMENotify_OnMMEDetached,
                               9};
        for (ULONG n : codes)
            model.notify(n);
        model.askState(USBStc_SampleRate, 44100);
        model.askState(USBStc_ConfigChanged, 0);
        model.askState(USBStc_IsMMEAttached, 0);
        model.notify(MMENotify_OnMMEAttached);
        hostk::runAtDispatch([&] {
            hostk::NoAllocNoWaitScope scope("the USB driver's period callback");
            link->mpfnExchangeData(link->mpContext, link);
        });
    });
    device.remove();
    model.setDuringCall(nullptr);

    ASSERT_TRUE(hookRan);
    // Nothing was sent from inside the call: the call guard refused it.
    EXPECT_EQ(model.calls().size(), callsBeforeUnregister);
    EXPECT_EQ(model.calls().back().code, USBCall_Unregister);
    // The request that MMENotify_PreventFurtherDriverCalls asked to free
    // while it was in use was freed once, after the call.
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    EXPECT_EQ(model.link(), nullptr);
}

} // namespace
