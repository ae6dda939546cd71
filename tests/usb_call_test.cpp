// The adapter's calls into the USB driver, against the model: what the USB
// side receives, the call guard, refusals, and the request's life.
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

namespace {

using adaptertest::DriverHarness;

// A started device whose adapter the test calls itself; the model does not
// attach the MME side on its own.
class UsbCall : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(h.startStatus, STATUS_SUCCESS);
        ASSERT_NE(adapter, nullptr);
        h.model.setAutoAttach(false);
    }
    DriverHarness h;
    MMEAdapter* adapter = h.adapter();
};

TEST_F(UsbCall, EveryCodeReachesTheUsbSideAsInternalDeviceControlWithTheRecord) {
    const MMEAdapterInfo* record = &adapter->linkInfo();
    EXPECT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_Register, USBCall_AdapterStarted}));
    EXPECT_TRUE(adapter->callUSBDriver(USBCall_Attach));
    ASSERT_TRUE(adapter->refreshAttachChannels()); // wants what the hardware runs
    EXPECT_TRUE(adapter->callUSBDriver(USBCall_ChangeConfig));
    EXPECT_TRUE(adapter->callUSBDriver(USBCall_TimedStart));
    // The completion routine kept the one request the adapter's own: the
    // I/O manager would have finished it otherwise.
    EXPECT_EQ(hostk::liveIrps(), 1u);
    h.remove();

    auto calls = h.model.calls();
    std::vector<ULONG> codes;
    for (const auto& call : calls) {
        codes.push_back(call.code);
        EXPECT_EQ(call.major, IRP_MJ_INTERNAL_DEVICE_CONTROL) << call.code;
        EXPECT_EQ(call.record, record) << call.code;
        EXPECT_EQ(call.answer, STATUS_SUCCESS) << call.code << " " << call.note;
        EXPECT_EQ(call.irql, PASSIVE_LEVEL) << call.code;
    }
    EXPECT_EQ(codes,
              (std::vector<ULONG>{USBCall_Register, USBCall_AdapterStarted, USBCall_Attach,
                                  USBCall_ChangeConfig, USBCall_TimedStart, USBCall_Unregister}));
    EXPECT_EQ(h.model.link(), nullptr);
}

TEST(UsbCallRecord, IsHandedOverEmptyAndReadAsTheUsbDriverFilledIt) {
    DriverHarness h(false);
    MMEAdapterInfo seen{};
    h.model.setDuringCall([&](ULONG code) {
        if (code == USBCall_Register)
            seen = *h.model.calls().back().record;
    });
    ASSERT_EQ(h.loader.startDevice(h.model.pdo()), STATUS_SUCCESS);
    MMEAdapter* adapter = h.adapter();
    ASSERT_NE(adapter, nullptr);

    // (Version, context and callbacks: the model refuses a wrong version and
    // every end-to-end test goes through the callbacks.)
    EXPECT_EQ(seen.mpSettings, nullptr);
    EXPECT_EQ(seen.mbAttached, 0);

    // What the model filled in is what the adapter traced and reads.
    const MMEAdapterInfo& record = adapter->linkInfo();
    EXPECT_EQ(record.mpAPIDeviceInfo, &h.model.deviceInfo());
    EXPECT_EQ(adapter->getAPIDeviceInfo(), &h.model.deviceInfo());
    EXPECT_EQ(record.mVendorID, h.model.profile().vendorId);
    EXPECT_EQ(record.mProductID, h.model.profile().productId);
    EXPECT_TRUE(tracecap::containsLine("mpAPIDeviceInfo.mpAPIDeviceInfo is  0x" +
                                       tracecap::kernelPointer(&h.model.deviceInfo())));
}

TEST_F(UsbCall, NestedPendingAndErrorCallsAreRefusedAndTheRequestServesTheNext) {
    h.model.clearCalls();
    bool nested = true;
    h.model.setDuringCall([&](ULONG code) {
        if (code == USBCall_Attach)
            nested = adapter->callUSBDriver(USBCall_TimedStart);
    });
    tracecap::clearTrace();

    EXPECT_TRUE(adapter->callUSBDriver(USBCall_Attach));
    EXPECT_FALSE(nested);
    EXPECT_EQ(h.model.callCodes(), (std::vector<ULONG>{USBCall_Attach}));

    // Between sending and the result only the nested call's entry and exit.
    auto messages = tracecap::traceMessages();
    long sent = tracecap::findLine("call IoCallDriver 0x" + tracecap::kernelPointer(adapter));
    long result = tracecap::findLine("result IoCallDriver 0x00000000");
    ASSERT_GE(sent, 0) << tracecap::dumpTrace();
    ASSERT_EQ(result, sent + 3) << tracecap::dumpTrace();
    EXPECT_EQ(messages[sent + 1],
              "+ MMEAdapter::callUSBDriver 0x" + tracecap::kernelPointer(adapter));
    EXPECT_EQ(messages[sent + 2], "- MMEAdapter::callUSBDriver");

    // The guard is free again afterwards.
    h.model.setDuringCall(nullptr);
    EXPECT_TRUE(adapter->callUSBDriver(USBCall_TimedStart));

    // Pending and error answers count as refusals.
    PIRP request = adapter->callIrp();
    for (auto [answer, traced] : {std::pair<NTSTATUS, const char*>{STATUS_PENDING, "0x00000103"},
                                  {STATUS_INVALID_DEVICE_STATE, "0xC0000184"}}) {
        h.model.setAnswer(USBCall_Attach, answer);
        tracecap::clearTrace();
        EXPECT_FALSE(adapter->callUSBDriver(USBCall_Attach));
        EXPECT_TRUE(tracecap::containsLine(std::string("result IoCallDriver ") + traced));
    }

    // The same request serves the next call.
    h.model.clearAnswers();
    EXPECT_TRUE(adapter->callUSBDriver(USBCall_Attach));
    EXPECT_EQ(adapter->callIrp(), request);
    EXPECT_EQ(hostk::liveIrps(), 1u);
    EXPECT_EQ(request->StackCount, h.model.pdo()->StackSize);
}

TEST(UsbCallUnstarted, MissingRequestOrDeviceObjectIsTracedAndRefused) {
    // Never started (no request was allocated), with and without a USB device.
    usbsim::UsbDriverModel model;
    for (PDEVICE_OBJECT usb : {model.pdo(), PDEVICE_OBJECT(nullptr)}) {
        adaptertest::BareAdapter bare(usb);
        ASSERT_NE(bare.adapter, nullptr);
        tracecap::clearTrace();
        EXPECT_FALSE(bare.adapter->callUSBDriver(USBCall_Attach));
        EXPECT_TRUE(
            tracecap::containsLine("!m_pCallIrp || !mUSBDeviceObject 0x0000000000000000 0x" +
                                   tracecap::kernelPointer(usb)))
            << tracecap::dumpTrace();
    }
    EXPECT_TRUE(model.calls().empty());
}

// (From another thread during a call: ConcurrencyAdapter; calls refused
// afterwards with their trace: adapter_test and UsbCallUnstarted.)
TEST_F(UsbCall, PreventFurtherDriverCallsFreesTheRequestOnce) {
    h.model.clearCalls();
    h.model.preventFurtherCalls();
    EXPECT_EQ(adapter->callIrp(), nullptr);
    EXPECT_EQ(hostk::liveIrps(), 0u);
    EXPECT_FALSE(adapter->callUSBDriver(USBCall_Attach));
    h.model.preventFurtherCalls(); // a second notice finds nothing to free
    h.remove();                    // the destructor's Unregister cannot be sent either
    EXPECT_TRUE(h.model.calls().empty());
}

} // namespace
