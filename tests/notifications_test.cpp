// The USB driver's notifications and state questions as the adapter answers
// them, the attach sequence, the attach timer in virtual time, and the
// period exchange. Unknown codes and broken ring headers are bad_input_test's,
// and that the exchange neither allocates nor waits is verifier_test's.
#include "driver/streaming/MMEDMAEmulator.h"
#include "host/portcls/KsClient.h"
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

namespace {

using adaptertest::BareAdapter;
using adaptertest::config;
using adaptertest::DriverHarness;

constexpr int64_t kMs = 10000; // 100-ns units

// A started device; the tests decide when the MME side is attached.
class Notifications : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(h->startStatus, STATUS_SUCCESS);
        ASSERT_NE(adapter, nullptr);
        h->model.setAutoAttach(false);
        ASSERT_TRUE(adapter->refreshAttachChannels());
        h->model.clearCalls();
        tracecap::clearTrace();
    }

    size_t timedStarts() const { return h->model.callCount(USBCall_TimedStart); }

    std::unique_ptr<DriverHarness> h = std::make_unique<DriverHarness>();
    MMEAdapter* adapter = h->adapter();
};

TEST_F(Notifications, NotificationsPrintTheirLinesAndSetTheAttachedState) {
    h->model.notify(MMENotify_OnMMEAttached);
    EXPECT_TRUE(adapter->isAttached());
    EXPECT_EQ(adapter->linkInfo().mbAttached, 1);
    h->model.notify(MMENotify_OnMMEDetached);
    EXPECT_FALSE(adapter->isAttached());
    EXPECT_EQ(adapter->linkInfo().mbAttached, 0);
    h->model.notify(MMENotify_OnAsioAttached);
    h->model.notify(MMENotify_OnAsioDetached);
    h->model.notify(MMENotify_OnTimedStartCallback);
    EXPECT_EQ(tracecap::traceBodies(),
              (std::vector<std::string>{"...MME Attached", "...MME Detached",
                                        "MMENotify_OnAsioAttached", "", "MMENotify_OnAsioDetached",
                                        "MMENotify_OnTimedStartCallback"}))
        << tracecap::dumpTrace();
    EXPECT_TRUE(h->model.calls().empty());
}

TEST_F(Notifications, StateQuestionsAnswerWhetherAttachedAndNoteRateNews) {
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 0);
    h->model.notify(MMENotify_OnMMEAttached);
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 1);
    h->model.notify(MMENotify_OnMMEDetached);
    EXPECT_EQ(h->model.askState(USBStc_IsMMEAttached, 0), 0);

    // The rate already wanted: nothing beyond the entry lines.
    tracecap::clearTrace();
    EXPECT_EQ(h->model.askState(USBStc_SampleRate, 48000), 0);
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{
                  "MMEAdapter::USBDriverStcCallback what:1 value:48000",
                  "+ MMEAdapter::USBDriverStcCallback 0x" + tracecap::kernelPointer(adapter),
                  "what,value 1 48000", "- MMEAdapter::USBDriverStcCallback"}));
    tracecap::clearTrace();
    EXPECT_EQ(h->model.askState(USBStc_SampleRate, 96000), 0);
    EXPECT_TRUE(tracecap::containsLine("notify streams of samplerate change"));
    EXPECT_EQ(adapter->getAttachSampleRate(), 48000u); // noted, nothing changed
    EXPECT_TRUE(h->model.calls().empty());
}

TEST_F(Notifications, RunningStartsTheAttachSequenceOnce) {
    adapter->setWaveRunning(true);
    EXPECT_TRUE(adapter->isWaveRunning());
    EXPECT_EQ(h->model.callCodes(), (std::vector<ULONG>{USBCall_Attach}));
    const std::string values = " 48000 8 24 8 24 0";
    long first =
        tracecap::findLine("mChannelsOnAttach: fr/inCH/inRes/outCH/outRes/config" + values);
    long second = tracecap::findLine(
        "m_cMMEAdapterInfo.mcAttachChannels: fr/inCH/inRes/outCH/outRes/config" + values);
    long attach = tracecap::findLine("call IoCallDriver 0x" + tracecap::kernelPointer(adapter));
    ASSERT_GE(first, 0) << tracecap::dumpTrace();
    EXPECT_GT(attach, first);
    EXPECT_GT(second, attach);
    EXPECT_TRUE(tracecap::containsLine("bWaveRunning is  1"));

    tracecap::clearTrace();
    adapter->setWaveRunning(true);
    EXPECT_TRUE(tracecap::containsLine("no change"));
    EXPECT_EQ(h->model.callCodes().size(), 1u);

    adapter->setWaveRunning(false); // stopping sends nothing
    EXPECT_FALSE(adapter->isWaveRunning());
    EXPECT_EQ(h->model.callCodes().size(), 1u);

    // A hardware that drifted is asked back before the attach.
    h->model.changeHardware(config(44100, 8, 8, 24, 24), false);
    h->model.clearCalls();
    tracecap::clearTrace();
    adapter->setWaveRunning(true);
    EXPECT_TRUE(tracecap::containsLine("HARDWARE CONFIG CHANGED"));
    EXPECT_EQ(h->model.callCodes(), (std::vector<ULONG>{USBCall_ChangeConfig, USBCall_Attach}));
    EXPECT_EQ(h->model.settings().current.fr, 48000u);
    EXPECT_EQ(h->wave()->sampleRate(), 48000u);
}

TEST_F(Notifications, TimedStartNotificationAttachesOnlyARunningUnattachedWave) {
    h->model.timedStart(); // not running
    EXPECT_TRUE(h->model.calls().empty());

    adapter->setWaveRunning(true);
    h->model.clearCalls();
    tracecap::clearTrace();
    h->model.timedStart();
    EXPECT_EQ(h->model.callCodes(), (std::vector<ULONG>{USBCall_Attach}));
    EXPECT_EQ(tracecap::countLines(
                  "mChannelsOnAttach: fr/inCH/inRes/outCH/outRes/config 48000 8 24 8 24 0"),
              2u);

    h->model.notify(MMENotify_OnMMEAttached);
    h->model.clearCalls();
    h->model.timedStart();
    EXPECT_TRUE(h->model.calls().empty());
}

TEST_F(Notifications, AttachTimerFiresOnceASecondAfterTheLastAsioDetach) {
    h->model.asioDetach(); // not running: the timer only announces itself
    hostk::advanceTime(1000 * kMs);
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 1u);
    tracecap::clearTrace();

    adapter->setWaveRunning(true);
    h->model.asioDetach();
    hostk::advanceTime(500 * kMs);
    h->model.asioAttach(); // back within the second: cancelled
    hostk::advanceTime(2000 * kMs);
    EXPECT_EQ(timedStarts(), 0u);
    EXPECT_FALSE(tracecap::containsLine("ATTACH TIMER"));

    h->model.asioDetach();
    hostk::advanceTime(600 * kMs);
    h->model.asioDetach();
    hostk::advanceTime(999 * kMs);
    EXPECT_EQ(timedStarts(), 0u);
    hostk::advanceTime(1 * kMs);
    ASSERT_EQ(timedStarts(), 1u);
    EXPECT_EQ(h->model.calls().back().irql, DISPATCH_LEVEL); // from the timer's DPC
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 1u);
    hostk::advanceTime(5000 * kMs);
    EXPECT_EQ(timedStarts(), 1u);

    // While the MME side is attached: only the announcement.
    h->model.notify(MMENotify_OnMMEAttached);
    h->model.clearCalls();
    h->model.asioDetach();
    hostk::advanceTime(1000 * kMs);
    EXPECT_EQ(tracecap::countLines("ATTACH TIMER"), 2u);
    EXPECT_TRUE(h->model.calls().empty());

    tracecap::clearTrace();
    adapter->onTimer(9); // not the attach timer
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{"+ MMEAdapter::onTimer(unsigned long iTimerID) 0x00000009",
                                        "- MMEAdapter::onTimer(unsigned long iTimerID)"}));
}

TEST_F(Notifications, WithoutRequestTheAttachSequenceStillRunsButSendsNothing) {
    h->model.preventFurtherCalls();
    tracecap::clearTrace();
    adapter->setWaveRunning(true);
    EXPECT_TRUE(tracecap::containsLine(
        "m_cMMEAdapterInfo.mcAttachChannels: fr/inCH/inRes/outCH/outRes/config 48000 8 24 8 24 0"));
    EXPECT_TRUE(tracecap::containsLineStartingWith("!m_pCallIrp || !mUSBDeviceObject"));
    h->model.asioDetach();
    hostk::advanceTime(1000 * kMs);
    EXPECT_TRUE(tracecap::containsLine("ATTACH TIMER"));
    EXPECT_TRUE(h->model.calls().empty());
}

// ---- Period exchange ----

class Exchange : public Notifications {
protected:
    void SetUp() override {
        Notifications::SetUp();
        capture = &h->model.captureRing();
        render = &h->model.renderRing();
        ASSERT_EQ(reinterpret_cast<UCHAR*>(capture),
                  adapter->linkInfo().mpCaptureRing + MME_CAPTURE_RING_PREFIX);
        h->model.notify(MMENotify_OnMMEAttached);
        capture->mWriteOffset = 0;
        tracecap::clearTrace();
    }
    // Sets up `available` unread capture frames for a reader at 1000.
    void backlog(ULONG available) {
        render->mMMEReadPos = 1000;
        capture->mWritePos = 1000 + available;
    }
    void exchange() { MMEAdapter::exchangeDataEntry(adapter, &adapter->linkInfo()); }

    AudioSM* capture = nullptr;
    AudioSM* render = nullptr;
};

// The port hears one Notify per pass that moved data (a stream is open) and
// none for passes that moved nothing.
TEST_F(Exchange, AtMostTwoPassesWhileAPeriodIsAvailable) {
    struct Case {
        ULONG available;
        ULONG passes;
    };
    PUNKNOWN port = hostpc::subdevice(h->fdo(), u"Wave");
    hostpc::WaveFilter filter(port);
    std::unique_ptr<hostpc::KsStream> stream;
    for (bool open : {false, true}) {
        if (open) {
            ASSERT_EQ(
                filter.open(hostpc::kWaveRenderPin, hostpc::pcmFormat(48000, 2, 16), {}, &stream),
                STATUS_SUCCESS);
        }
        // A reader ten frames ahead of the writer sees a huge unsigned count.
        for (Case c : {Case{255, 0}, Case{256, 1}, Case{300, 1}, Case{511, 1}, Case{512, 2},
                       Case{600, 2}, Case{5000, 2}, Case{ULONG(-10), 2}}) {
            backlog(c.available);
            ULONG written = render->mWritePos;
            tracecap::clearTrace();
            const size_t notified = hostpc::portState(port).notifyCount;
            exchange();
            EXPECT_EQ(hostpc::portState(port).notifyCount - notified, open ? c.passes : 0u)
                << c.available;
            EXPECT_EQ(render->mMMEReadPos, 1000 + 256 * c.passes) << c.available;
            EXPECT_EQ(render->mWritePos, written + 256 * c.passes) << c.available;
            EXPECT_EQ(capture->framesAvailable(render->mMMEReadPos), c.available - 256 * c.passes);
            EXPECT_EQ(tracecap::countLines("MMEAdapter::checkExchangeData second round"),
                      c.passes == 2 ? 1u : 0u)
                << c.available;
        }
    }
    stream.reset();
}

TEST_F(Exchange, NothingMovesWithoutAttachSharedMemoryRingsOrChannels) {
    backlog(600);
    h->model.notify(MMENotify_OnMMEDetached);
    exchange();
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    h->model.notify(MMENotify_OnMMEAttached);
    tracecap::clearTrace();
    MMEAdapterInfo copy = adapter->linkInfo();
    copy.mpSharedMemory = nullptr;
    MMEAdapter::exchangeDataEntry(adapter, &copy);
    MMEAdapter::exchangeDataEntry(adapter, nullptr);
    MMEAdapter::exchangeDataEntry(nullptr, &adapter->linkInfo());
    EXPECT_TRUE(tracecap::traceLines().empty());
    adapter->checkExchangeData(nullptr); // called directly, the missing pieces are reported
    adapter->checkExchangeData(&copy);
    EXPECT_EQ(
        tracecap::traceMessages(),
        (std::vector<std::string>{"MMEAdapter::checkExchangeData pcInfo is NULL",
                                  "MMEAdapter::checkExchangeData pcInfo->mpSharedMemory is NULL"}));
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    // Not attached yet on the USB side.
    render->mMMEReadPos = MME_RING_NOT_ATTACHED;
    exchange();
    EXPECT_EQ(render->mMMEReadPos, MME_RING_NOT_ATTACHED);
    EXPECT_TRUE(tracecap::containsLine("MMEAdapter::checkExchangeData not attached yet"));

    // No capture ring: nothing is available.
    backlog(600);
    copy = adapter->linkInfo();
    copy.mpCaptureRing = nullptr;
    adapter->checkExchangeData(&copy);
    EXPECT_EQ(render->mMMEReadPos, 1000u);

    // An adapter never started has no DMA channels.
    BareAdapter bare;
    tracecap::clearTrace();
    bare.adapter->checkExchangeData(&adapter->linkInfo());
    EXPECT_EQ(tracecap::traceMessages(), (std::vector<std::string>{"m_pcDMAEmulator is NULL"}));
    EXPECT_EQ(render->mMMEReadPos, 1000u);
}

} // namespace
