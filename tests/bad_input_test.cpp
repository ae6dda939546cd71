// Bad input from the USB driver against the whole driver, streams run by a
// kernel-streaming client: device-info records, rings, hardware settings,
// unknown codes, callbacks around USBCall_Unregister. Where the model cannot
// misbehave by itself, the test writes the records as a faulty USB driver would.
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"

#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/portcls/KsClient.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using hostpc::KsStream;

// The driver on the model, started unless asked not to be, with a client's
// view of its wave filter.
class Device {
public:
    explicit Device(usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault(),
                    bool start = true)
        : harness(false, std::move(profile)) {
        if (start)
            this->start();
    }
    ~Device() { remove(); }

    NTSTATUS start() {
        harness.startStatus = harness.loader.startDevice(model().pdo());
        PUNKNOWN port = harness.fdo() ? hostpc::subdevice(harness.fdo(), u"Wave") : nullptr;
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

    std::unique_ptr<KsStream> open(bool capture, NTSTATUS* status = nullptr) {
        std::unique_ptr<KsStream> stream;
        const NTSTATUS st =
            filter ? filter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                                  hostpc::pcmFormat(48000, 2, 16), {}, &stream)
                   : STATUS_INVALID_DEVICE_STATE;
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
        hostk::runAtDispatch([&] {
            hostk::NoAllocNoWaitScope scope("the USB driver's period callback");
            link->mpfnExchangeData(link->mpContext, link);
        });
    }
    // Both streaming pins' ranges: pin, channels, bits, rates.
    using Ranges = std::vector<std::tuple<ULONG, ULONG, ULONG, ULONG, ULONG, ULONG>>;
    Ranges ranges() {
        Ranges out;
        for (ULONG pin : {hostpc::kWaveCapturePin, hostpc::kWaveRenderPin})
            for (const auto& r :
                 filter ? filter->pin(pin).ranges : std::vector<KSDATARANGE_AUDIO>())
                out.emplace_back(pin, r.MaximumChannels, r.MinimumBitsPerSample,
                                 r.MaximumBitsPerSample, r.MinimumSampleFrequency,
                                 r.MaximumSampleFrequency);
        return out;
    }

    adaptertest::DriverHarness harness;
    std::unique_ptr<hostpc::WaveFilter> filter;
};

// The ring positions and the channels' positions at one moment: capture
// ring read, render ring write, capture channel, render channel.
using Positions = std::array<ULONG, 4>;
Positions positions(Device& d) {
    return {d.model().renderRing().mMMEReadPos, d.model().renderRing().mWritePos,
            d.adapter()->getCaptureDMAChannel()->position(),
            d.adapter()->getRenderDMAChannel()->position()};
}

// ---- Device-info records ----

TEST(BadDeviceInfo, CountsBeyondEveryCapacityAreReadOnlyToTheRecordsEnd) {
    const Device::Ranges honest = Device().ranges();
    ASSERT_FALSE(honest.empty());
    ASSERT_NE(std::get<0>(honest.back()), std::get<0>(honest.front())) << "both pins have ranges";
    // The same device claiming 255 of everything at every level; the room
    // beyond the real entries is zero.
    Device liar(usbsim::DeviceProfile::builtInDefault(), false);
    MMEDeviceInfo& info = liar.model().deviceInfo();
    info.numConfigurations = 255;
    for (auto& config : info.configurations) {
        config.numInterfaces = 255;
        for (auto& iface : config.interfaces) {
            iface.numAltSettings = 255;
            for (auto& alt : iface.altSettings)
                alt.numRates = alt.numEndpoints = 255;
        }
    }
    ASSERT_EQ(liar.start(), STATUS_SUCCESS);
    EXPECT_EQ(liar.ranges(), honest);
    std::unique_ptr<KsStream> capture, render;
    liar.streamBoth(capture, render);
    EXPECT_GT(capture->positionFrames(), 0u);
    EXPECT_GT(render->positionFrames(), 0u);
}

TEST(BadDeviceInfo, ARecordNeverFilledLeavesAStartedDeviceThatRefusesStreams) {
    Device device(usbsim::DeviceProfile::builtInDefault(), false);
    device.model().setAnswer(USBCall_Register, STATUS_NOT_SUPPORTED); // and fills nothing in
    tracecap::clearTrace();
    ASSERT_EQ(device.start(), STATUS_SUCCESS);
    MMEAdapterInfo& link = device.adapter()->linkInfo();
    EXPECT_EQ(link.mpAPIDeviceInfo, nullptr);
    EXPECT_EQ(link.mpSettings, nullptr);
    EXPECT_TRUE(tracecap::containsLine("pAPI_DI is NULL"));
    EXPECT_TRUE(tracecap::containsLine("m_cMMEAdapterInfo.mpSetting is NULL"));
    EXPECT_TRUE(device.ranges().empty());
    for (bool capture : {true, false}) {
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_FALSE(device.open(capture, &status));
        EXPECT_EQ(status, STATUS_INVALID_DEVICE_STATE);
    }
    // A period callback through the unfilled record moves nothing.
    MMEAdapter::exchangeDataEntry(device.adapter(), &link);
    device.adapter()->checkExchangeData(&link);
    EXPECT_TRUE(
        tracecap::containsLine("MMEAdapter::checkExchangeData pcInfo->mpSharedMemory is NULL"));
}

// ---- Ring pointers and ring headers ----

// Breaks the shared rings one way under running streams; returns the repair.
using Breakage = std::function<std::function<void()>(Device&)>;

Breakage missing(bool captureRing) {
    return [=](Device& d) -> std::function<void()> {
        MMEAdapterInfo& link = d.adapter()->linkInfo();
        if (captureRing) {
            UCHAR* saved = std::exchange(link.mpCaptureRing, nullptr);
            return [&link, saved] { link.mpCaptureRing = saved; };
        }
        AudioSM* saved = std::exchange(link.mpSharedMemory, nullptr);
        return [&link, saved] { link.mpSharedMemory = saved; };
    };
}

Breakage shape(bool captureRing, ULONG channels, ULONG frames) {
    return [=](Device& d) -> std::function<void()> {
        AudioSM& ring = captureRing ? d.model().captureRing() : d.model().renderRing();
        const ULONG savedChannels = ring.mChannelsPerFrame, savedFrames = ring.mMaxFrames;
        ring.mChannelsPerFrame = channels;
        ring.mMaxFrames = frames;
        return [&ring, savedChannels, savedFrames] {
            ring.mChannelsPerFrame = savedChannels;
            ring.mMaxFrames = savedFrames;
        };
    };
}

// Every kind of broken ring, with two periods waiting: the driver either
// moves nothing (refused; traced once when the refusal begins) or, for a
// ring that is usable but whose period does not fit the channel's scratch
// (2048 frames of 8 channels), moves both rings by the two periods as an
// overrun (frames skipped on capture, silence on render) while that
// direction's stream stays. Repaired, the waiting periods move.
TEST(BadRings, EachBrokenRingIsRefusedOrOverrunUntilRepaired) {
    enum Effect { Nothing, CaptureOverrun, RenderOverrun };
    const struct {
        const char* what;
        Breakage breakIt;
        Effect effect;
        const char* trace;
        size_t traced;
    } cases[] = {
        {"no capture ring", missing(true), Nothing, nullptr, 0},
        {"no render ring", missing(false), Nothing, nullptr, 0},
        {"capture 0 x 4096", shape(true, 0, 4096), Nothing, "capture ring refused", 1},
        {"capture 8 x 0", shape(true, 8, 0), Nothing, "capture ring refused", 1},
        {"capture 8 x 16385", shape(true, 8, 16385), Nothing, "capture ring refused", 1},
        {"capture 0x80000001 x 2", shape(true, 0x80000001u, 2), Nothing, "capture ring refused", 1},
        {"capture 0x40000000 x 4", shape(true, 0x40000000u, 4), Nothing, "capture ring refused", 1},
        {"render 0 x 4096", shape(false, 0, 4096), Nothing, "render ring refused", 1},
        {"render 8 x 0", shape(false, 8, 0), Nothing, "render ring refused", 1},
        {"render 1 x 131073", shape(false, 1, 131073), Nothing, "render ring refused", 1},
        {"render 0x80000001 x 2", shape(false, 0x80000001u, 2), Nothing, "render ring refused", 1},
        {"render 0x40000000 x 4", shape(false, 0x40000000u, 4), Nothing, "render ring refused", 1},
        {"capture 100 x 1310", shape(true, 100, 1310), CaptureOverrun,
         "MMEDMAEmulator::onInput period does not fit", 1},
        {"render 100 x 1310", shape(false, 100, 1310), RenderOverrun,
         "MMEDMAEmulator::onOutput period does not fit", 1},
    };
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    AudioSM& captureRing = device.model().captureRing();
    auto twoPeriodsWaiting = [&] {
        captureRing.mWritePos = device.model().renderRing().mMMEReadPos + 2 * MME_PERIOD_FRAMES -
                                captureRing.mWriteOffset;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        twoPeriodsWaiting();
        const uint64_t captured = capture->positionFrames();
        const std::function<void()> repair = c.breakIt(device);
        tracecap::clearTrace();
        const Positions before = positions(device);
        for (int i = 0; i < 3; ++i)
            device.exchange();
        const Positions after = positions(device);
        if (c.effect == Nothing) {
            EXPECT_EQ(after, before) << "something moved";
        } else {
            EXPECT_EQ(after[0] - before[0], 2 * MME_PERIOD_FRAMES);
            EXPECT_EQ(after[1] - before[1], 2 * MME_PERIOD_FRAMES);
            const size_t overrun = c.effect == CaptureOverrun ? 2 : 3;
            EXPECT_EQ(after[overrun], before[overrun]);
            twoPeriodsWaiting();
        }
        if (c.trace) {
            size_t lines = 0;
            for (const auto& line : tracecap::traceMessages())
                lines += line.find(c.trace) != std::string::npos;
            EXPECT_EQ(lines, c.traced) << tracecap::dumpTrace();
        }
        repair();
        const Positions repaired = positions(device);
        device.exchange();
        const Positions moved = positions(device);
        EXPECT_EQ(moved[0] - repaired[0], 2 * MME_PERIOD_FRAMES);
        EXPECT_EQ(moved[1] - repaired[1], 2 * MME_PERIOD_FRAMES);
        EXPECT_NE(moved[2], repaired[2]);
        EXPECT_NE(moved[3], repaired[3]);
        if (c.effect == Nothing) {
            EXPECT_EQ(capture->positionFrames() - captured, 2u * MME_PERIOD_FRAMES)
                << "every waiting frame reaches the capture stream";
        }
    }
}

// ---- Hardware configuration ----

TEST(BadHardware, NoChannelsInADirectionRefusesThatDirectionOnly) {
    usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault();
    profile.hardware.inCH = 0;
    profile.accept.minInChannels = 0;
    for (bool noOutputs : {false, true}) {
        if (noOutputs)
            profile.hardware.outCH = profile.accept.minOutChannels = 0;
        tracecap::clearTrace();
        Device device(profile);
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_FALSE(device.open(true, &status));
        EXPECT_EQ(status, STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(tracecap::containsLine("MME DISABLED INPUT"));
        std::unique_ptr<KsStream> render = device.open(false, &status);
        EXPECT_EQ(render == nullptr, noOutputs);
        EXPECT_EQ(status, noOutputs ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS);
        EXPECT_EQ(tracecap::containsLine("MME DISABLED OUTPUT"), noOutputs);
        if (render) {
            ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
            device.model().runPeriods(20);
            EXPECT_GT(render->positionFrames(), 0u);
        }
    }
}

TEST(BadHardware, ARateOfZeroIsRefusedWhereItWouldDivideAndReplacedByAStreamsRate) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    render.reset(); // the render pin is free to be asked for formats
    device.model().settings().current.fr = 0;
    device.model().askState(USBStc_ConfigChanged, 0);
    ASSERT_EQ(device.wave()->sampleRate(), 0u);
    MMEWaveStream* stream = device.wave()->captureStream();
    LONGLONG position = 176400;
    EXPECT_EQ(stream->NormalizePhysicalPosition(&position), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(position, 0);
    ULONG framing = 0;
    EXPECT_EQ(stream->SetNotificationFreq(10, &framing), 5u); // from the wanted 48000 Hz
    std::vector<UCHAR> format;
    EXPECT_EQ(device.filter->intersect(hostpc::kWaveRenderPin,
                                       hostpc::clientRange(8, 16, 32, 8000, 192000), &format),
              STATUS_NO_MATCH);
    const uint64_t frames = capture->positionFrames();
    device.model().runPeriods(4);
    EXPECT_GT(capture->positionFrames(), frames) << "the capture stream keeps moving";
    device.model().settings().current.fr = 48000;
    device.model().askState(USBStc_ConfigChanged, 0);
    position = 192000; // one second of 4-byte frames
    EXPECT_EQ(stream->NormalizePhysicalPosition(&position), STATUS_SUCCESS);
    EXPECT_EQ(position, 10000000);

    // At start: the first stream's rate is carried to the hardware.
    Device zero(usbsim::DeviceProfile::builtInDefault(), false);
    zero.model().settings().current.fr = 0;
    ASSERT_EQ(zero.start(), STATUS_SUCCESS);
    EXPECT_EQ(zero.wave()->sampleRate(), 0u);
    render = zero.open(false);
    ASSERT_TRUE(render);
    ASSERT_EQ(render->setState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(zero.model().settings().current.fr, 48000u);
    EXPECT_EQ(zero.wave()->sampleRate(), 48000u);
    zero.model().runPeriods(20);
    EXPECT_GT(render->positionFrames(), 0u);
    render.reset(); // before its device goes
}

// ---- Notifications, state questions and USBCall_Unregister ----

TEST(BadNotifications, UnknownCodesChangeNothingAndAfterUnregisterNoCallbackReachesAnything) {
    Device device;
    std::unique_ptr<KsStream> capture, render;
    device.streamBoth(capture, render);
    MMEAdapter* adapter = device.adapter();
    const size_t calls = device.model().calls().size();
    const ChannelConfig wanted = adapter->linkInfo().mcAttachChannels;
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
    EXPECT_EQ(device.wave()->sampleRate(), 48000u);
    EXPECT_NE(adapter->callIrp(), nullptr);
    const uint64_t frames = capture->positionFrames();
    device.model().runPeriods(4);
    EXPECT_GT(capture->positionFrames(), frames);

    device.remove(); // with both streams running: surprise-removed until they close
    EXPECT_TRUE(capture->removed());
    EXPECT_TRUE(render->removed());
    capture.reset();
    render.reset();
    EXPECT_EQ(device.model().link(), nullptr);
    const uint64_t exchanges = device.model().exchangeCalls();
    device.model().clearNotices();
    for (ULONG code = 0; code <= 6; ++code)
        device.model().notify(code);
    EXPECT_EQ(device.model().askState(USBStc_IsMMEAttached, 0), 0);
    device.model().setExchangeWhileDetached(true);
    device.model().runPeriods(4);
    EXPECT_EQ(device.model().exchangeCalls(), exchanges);
    EXPECT_TRUE(device.model().notices().empty());
    // A USB driver that cleared its copy of the context or dropped the record.
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
    // While handling USBCall_Unregister the USB driver still delivers what
    // it had queued: every notification, state questions, a period, and a
    // code it should not send.
    usbsim::UsbDriverModel& model = device.model();
    size_t callsBeforeUnregister = 0;
    model.setDuringCall([&](ULONG code) {
        if (code != USBCall_Unregister)
            return;
        callsBeforeUnregister = model.calls().size();
        for (ULONG n : std::initializer_list<ULONG>{
                 MMENotify_OnMMEAttached, MMENotify_OnAsioDetached, MMENotify_OnTimedStartCallback,
                 MMENotify_PreventFurtherDriverCalls, MMENotify_OnAsioAttached,
                 MMENotify_OnMMEDetached, 9})
            model.notify(n);
        model.askState(USBStc_SampleRate, 44100);
        model.askState(USBStc_ConfigChanged, 0);
        model.askState(USBStc_IsMMEAttached, 0);
        model.notify(MMENotify_OnMMEAttached);
        device.exchange();
    });
    device.remove();
    model.setDuringCall(nullptr);
    ASSERT_GT(callsBeforeUnregister, 0u) << "the hook ran";
    // Nothing was sent from inside the call: the call guard refused it.
    EXPECT_EQ(model.calls().size(), callsBeforeUnregister);
    EXPECT_EQ(model.calls().back().code, USBCall_Unregister);
    // The request MMENotify_PreventFurtherDriverCalls asked to free while in
    // use was freed once, after the call.
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_EQ(hostk::pendingTimers(), 0u);
    EXPECT_EQ(model.link(), nullptr);
}

} // namespace
