// The hardware configuration the adapter follows and the one it wants:
// accessors with and without the USB driver's settings, changeConfig
// (store, equal, applied, refused, config word only), the hardware check,
// the digital lock, checkNewConfig and the stream parameters.
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

namespace {

using adaptertest::config;
using adaptertest::DriverHarness;

ChannelConfig wantedOf(MMEAdapter* adapter) {
    ChannelConfig c{};
    adapter->getAttachChannels(&c);
    return c;
}

// An adapter that was never started: no settings, no wave miniport.
class UnstartedAdapter : public ::testing::Test {
protected:
    void SetUp() override {
        mFdo = hostk::createDeviceObject(nullptr, 2, 0);
        mAdapter = MMEAdapter::create(mFdo, nullptr);
        ASSERT_NE(mAdapter, nullptr);
        tracecap::clearTrace();
    }
    void TearDown() override {
        mAdapter->Release();
        hostk::deleteDeviceObject(mFdo);
    }
    PDEVICE_OBJECT mFdo = nullptr;
    MMEAdapter* mAdapter = nullptr;
};

TEST_F(UnstartedAdapter, AccessorsWithoutSettingsReadZero) {
    ChannelConfig out = config(1, 2, 3, 4, 5, 6);
    EXPECT_FALSE(mAdapter->getHWConfig(&out));
    EXPECT_EQ(out, ChannelConfig{});
    EXPECT_FALSE(mAdapter->getHWConfig(nullptr));
    EXPECT_EQ(mAdapter->getHWSampleRate(), 0u);
    EXPECT_EQ(mAdapter->getAPIDeviceInfo(), nullptr);

    mAdapter->linkInfo().mcAttachChannels = config(48000, 2, 2, 24, 24);
    EXPECT_FALSE(mAdapter->refreshAttachChannels());
    EXPECT_EQ(wantedOf(mAdapter), ChannelConfig{}); // the wanted configuration became zeros
    mAdapter->getAttachChannels(nullptr);

    const std::string self = tracecap::kernelPointer(mAdapter);
    tracecap::clearTrace();
    EXPECT_EQ(mAdapter->getHWDigitalLockFrequency(), 0u);
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{"+ MMEAdapter::getHWDigitalLockFrequency 0x" + self,
                                        "- MMEAdapter::getHWDigitalLockFrequency"}));

    tracecap::clearTrace();
    mAdapter->checkNewConfig();
    mAdapter->updateStreamParameters();
    mAdapter->checkHardwareConfig();
    EXPECT_EQ(tracecap::traceMessages(),
              (std::vector<std::string>{
                  "MMEAdapter::checkNewConfig()", "+ MMEAdapter::checkNewConfig() 0x" + self,
                  "m_cMMEAdapterInfo.mpSettings is NULL", "- MMEAdapter::checkNewConfig()",
                  "+ MMEAdaper::updateStreamParameters 0x" + self, "mMMEWave is NULL",
                  "- MMEAdaper::updateStreamParameters"}));
}

TEST_F(UnstartedAdapter, ChangeConfigStoresWithoutHardware) {
    const ChannelConfig wanted = config(96000, 2, 4, 16, 24, 9);
    EXPECT_TRUE(mAdapter->changeConfig(&wanted, false));
    EXPECT_EQ(wantedOf(mAdapter), wanted);
    EXPECT_EQ(mAdapter->getAttachSampleRate(), 96000u);

    // Applying needs the hardware's settings: refused, the wish stays.
    const ChannelConfig other = config(44100, 1, 1, 16, 16);
    tracecap::clearTrace();
    EXPECT_FALSE(mAdapter->changeConfig(&other, true));
    EXPECT_EQ(wantedOf(mAdapter), other);
    EXPECT_EQ(tracecap::traceMessages().size(), 2u) << tracecap::dumpTrace(); // entry and exit
    EXPECT_FALSE(mAdapter->changeConfig(nullptr, false));
}

// A started device; the wave miniport's rate is set to a marker that only an
// update of the stream parameters would overwrite.
class StartedAdapter : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(adapter, nullptr);
        h.wave()->setSampleRate(1234);
        h.model.clearCalls();
        tracecap::clearTrace();
    }
    DriverHarness h;
    MMEAdapter* adapter = h.adapter();
    const ChannelConfig hardware = h.model.settings().current; // 48000 8 8 24 24
};

TEST_F(StartedAdapter, EqualConfigurationSendsNothingAndLeavesTheStreamsAlone) {
    EXPECT_TRUE(adapter->changeConfig(&hardware, true));
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_EQ(h.wave()->sampleRate(), 1234u);
    checks::expectLines({"PRE ATTACH sr/in/bits/out/bits  48000 8 24 8 24",
                         "PRE HW sr/in/bits/out/bits  48000 8 24 8 24", "return 1"});
    EXPECT_EQ(tracecap::countLinesStartingWith("POST"), 0u);
}

TEST_F(StartedAdapter, AppliedChangeMovesTheHardwareAndTheStreams) {
    const ChannelConfig wanted = config(96000, 4, 2, 16, 24);
    EXPECT_TRUE(adapter->changeConfig(&wanted, true));
    ASSERT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_ChangeConfig}));
    EXPECT_EQ(h.model.calls()[0].wanted, wanted);
    EXPECT_EQ(h.model.settings().current, wanted);
    EXPECT_EQ(wantedOf(adapter), wanted);
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    EXPECT_EQ(adapter->getHWSampleRate(), 96000u);
    checks::expectLines({"PRE ATTACH sr/in/bits/out/bits  96000 4 16 2 24",
                         "PRE HW sr/in/bits/out/bits  48000 8 24 8 24",
                         "POST ATTACH sr/in/bits/out/bits  96000 4 16 2 24",
                         "POST HW sr/in/bits/out/bits  96000 4 16 2 24", "return 1"});

    // A configuration that differs only in its config word is still sent.
    ChannelConfig word = wanted;
    word.config ^= 0x10;
    h.model.clearCalls();
    adapter->changeConfig(&word, true);
    ASSERT_EQ(h.model.callCount(USBCall_ChangeConfig), 1u);
    EXPECT_EQ(h.model.calls()[0].wanted.config, word.config);
}

TEST_F(StartedAdapter, RefusedChangeLeavesTheWantedConfigurationMirroringTheHardware) {
    // Refused by the device's rules (no such rate) ...
    const ChannelConfig unsupported = config(22050, 8, 8, 24, 24);
    EXPECT_FALSE(adapter->changeConfig(&unsupported, true));
    EXPECT_EQ(wantedOf(adapter), hardware);
    EXPECT_EQ(h.model.settings().current, hardware);
    EXPECT_EQ(h.wave()->sampleRate(), hardware.fr); // the streams follow the hardware
    checks::expectLines({"Configuration change was prevented by usb driver",
                         "POST ATTACH sr/in/bits/out/bits  48000 8 24 8 24", "return 0"});

    // ... by the USB driver's answer ...
    const ChannelConfig fine = config(44100, 8, 8, 24, 24);
    h.model.setAnswer(USBCall_ChangeConfig, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(adapter->changeConfig(&fine, true));
    EXPECT_EQ(wantedOf(adapter), hardware);
    h.model.clearAnswers();

    // ... and when the call cannot be made at all.
    h.model.preventFurtherCalls();
    tracecap::clearTrace();
    EXPECT_FALSE(adapter->changeConfig(&fine, true));
    EXPECT_TRUE(tracecap::containsLineStartingWith("!m_pCallIrp || !mUSBDeviceObject"));
    EXPECT_TRUE(tracecap::containsLine("Configuration change was prevented by usb driver"));
    EXPECT_EQ(wantedOf(adapter), hardware);
}

TEST_F(StartedAdapter, HardwareCheckAsksForTheWantedConfigurationBack) {
    ASSERT_TRUE(adapter->refreshAttachChannels());
    adapter->checkHardwareConfig(); // nothing drifted
    EXPECT_TRUE(h.model.calls().empty());
    EXPECT_FALSE(tracecap::containsLine("HARDWARE CONFIG CHANGED"));

    h.model.changeHardware(config(44100, 2, 2, 16, 16), false); // on its own, unreported
    adapter->checkHardwareConfig();
    EXPECT_TRUE(tracecap::containsLine("HARDWARE CONFIG CHANGED"));
    ASSERT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_ChangeConfig}));
    EXPECT_EQ(h.model.calls()[0].wanted, hardware);
    EXPECT_EQ(h.model.settings().current, hardware);
}

TEST_F(StartedAdapter, DigitalLockFrequency) {
    EXPECT_EQ(adapter->getHWDigitalLockFrequency(), 0u);
    EXPECT_TRUE(tracecap::containsLine("no digital input available"));
    h.model.setDigitalLock(44100);
    EXPECT_EQ(adapter->getHWDigitalLockFrequency(), 44100u);
    EXPECT_TRUE(tracecap::containsLine("digital lock: 44100"));
}

TEST_F(StartedAdapter, ReportedChangesReachTheStreamsByRateOnly) {
    h.wave()->setSampleRate(hardware.fr); // the streams run at the hardware's rate
    const ChannelConfig wanted = config(48000, 2, 2, 24, 24, 3);
    adapter->changeConfig(&wanted, false);

    // Reported, rate unchanged: only the raw line and the entry and exit
    // inside the state callback's own lines.
    tracecap::clearTrace();
    EXPECT_EQ(h.model.askState(USBStc_ConfigChanged, 0), 0);
    auto messages = tracecap::traceMessages();
    long raw = tracecap::findLine("MMEAdapter::checkNewConfig()");
    ASSERT_GE(raw, 0) << tracecap::dumpTrace();
    EXPECT_EQ(std::vector<std::string>(messages.begin() + raw + 1, messages.end()),
              (std::vector<std::string>{
                  "+ MMEAdapter::checkNewConfig() 0x" + tracecap::kernelPointer(adapter),
                  "- MMEAdapter::checkNewConfig()", "- MMEAdapter::USBDriverStcCallback"}));

    // A new rate reaches the wave miniport; the wanted configuration stays.
    tracecap::clearTrace();
    h.model.changeHardware(config(96000, 8, 8, 24, 24), true);
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    checks::expectLines(
        {"notify streams of samplerate change", "samplerate change old/new 48000 96000"});
    EXPECT_EQ(wantedOf(adapter), wanted);

    // Without settings the stream parameters cannot be updated.
    HardwareSettings* settings = adapter->linkInfo().mpSettings;
    adapter->linkInfo().mpSettings = nullptr;
    tracecap::clearTrace();
    adapter->updateStreamParameters();
    EXPECT_TRUE(tracecap::containsLine("m_cMMEAdapterInfo.mpSetting is NULL"));
    EXPECT_EQ(h.wave()->sampleRate(), 96000u);
    adapter->linkInfo().mpSettings = settings;
}

} // namespace
