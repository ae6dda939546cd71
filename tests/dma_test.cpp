// Emulated DMA channel: the IDmaChannelSlave slots, buffer sizes from the
// stream's format and the configuration, reuse and replacement of the two
// buffers, allocation failures, positions, Silence and the port's copies
// with their bounds, on the started driver's own channels.
#include "host/kernel/HostKernel.h"
#include "support/WaveRig.h"
#include "support/TraceCapture.h"
#include "support/ObjectChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

bool allAre(const void* p, size_t n, unsigned char value = 0) {
    const auto* b = static_cast<const unsigned char*>(p);
    return std::all_of(b, b + n, [&](unsigned char c) { return c == value; });
}

// A render channel's slots before any format; a capture channel's lifetime
// and a stream that never found its miniport.
TEST(LoneChannel, FixedAnswersBeforeAnyFormatAndTracedLifetime) {
    auto* render = new MMEDMAEmulator(nullptr, false);
    render->AddRef();
    EXPECT_EQ((std::vector<ULONG>{render->BufferSize(), render->AllocatedBufferSize(),
                                  render->MaximumBufferSize(), render->TransferCount(),
                                  render->ReadCounter()}),
              (std::vector<ULONG>{0, 0, 0, 0, 0}));
    EXPECT_EQ(render->SystemAddress(), nullptr);
    EXPECT_FALSE(render->isCapture());
    EXPECT_EQ(render->stream(), nullptr);
    EXPECT_EQ(render->WaitForTC(1000), STATUS_SUCCESS);
    EXPECT_EQ(render->Stop(), STATUS_SUCCESS);
    EXPECT_EQ(render->GetAdapterObject(), nullptr);
    PHYSICAL_ADDRESS address;
    address.QuadPart = 0x1234;
    EXPECT_EQ(render->PhysicalAddress(&address), &address);
    EXPECT_EQ(address.QuadPart, 0);

    const size_t blocks = hostk::poolStats().liveBlocks;
    PHYSICAL_ADDRESS constraint;
    constraint.QuadPart = 0xFFFFFFFF;
    tracecap::clearTrace();
    EXPECT_EQ(render->AllocateBuffer(65536, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(render->AllocateBuffer(4096, &constraint), STATUS_SUCCESS);
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocks); // nothing allocated
    EXPECT_TRUE(tracecap::containsLine("PhysicalAddressConstraint 0x" +
                                       tracecap::kernelPointer(&constraint)))
        << tracecap::dumpTrace();
    render->SetBufferSize(4096);
    EXPECT_EQ(render->BufferSize(), 0u);

    IDmaChannelSlave* self = render;
    checks::expectInterfaces(self, self, {&IID_IUnknown, &IID_IDmaChannel},
                             {&IID_IDmaChannelSlave, &IID_IMiniportWaveCyclic});
    EXPECT_EQ(render->QueryInterface(IID_IUnknown, nullptr), STATUS_INVALID_PARAMETER);
    checks::expectAssert("Object", "MMEDMAEmulator", 42);
    EXPECT_EQ(render->referenceCount(), 1);
    EXPECT_EQ(render->Release(), 0u);

    tracecap::clearTrace();
    auto* capture = new MMEDMAEmulator(nullptr, true);
    capture->AddRef();
    EXPECT_TRUE(capture->isCapture());
    EXPECT_TRUE(tracecap::containsLineStartingWith("+ MMEDMAEmulator::MMEDMAEmulator()"));

    auto* stream = new MMEWaveStream(capture, true); // never initialised
    stream->AddRef();
    EXPECT_FALSE(capture->setStreamFormat(stream, 2, 16, 0));
    EXPECT_EQ(capture->stream(), nullptr);
    EXPECT_EQ(capture->BufferSize(), 0u);
    stream->Release();
    EXPECT_EQ(capture->Release(), 0u);
    EXPECT_TRUE(tracecap::containsLine("- MMEDMAEmulator::~MMEDMAEmulator"))
        << tracecap::dumpTrace();
}

// ---- Channels of a started driver ----

class DmaFormat : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(mRig.started());
        mRig.setAttachChannels(8, 8);
    }
    // Opens a stream and shapes the channel for it under the rig's
    // configuration.
    MMEWaveStream* open(bool capture, ULONG channels, ULONG bits) {
        MMEWaveStream* s = mRig.openStream(capture, channels, bits);
        EXPECT_NE(s, nullptr);
        if (s) {
            EXPECT_TRUE(mRig.channel(capture)->setStreamFormat(s, channels, bits, 0));
        }
        return s;
    }
    wavetest::StackRig mRig;
};

// Each step shapes the channel again: the cyclic buffer is 4096 frames of
// the stream, the scratch 2048 frames of the configured ring channels; a
// size that stays keeps its buffer (cleared), one that changes is replaced.
TEST_F(DmaFormat, BufferSizesFollowStreamFormatAndConfiguration) {
    struct {
        bool capture;
        ULONG channels, bits, usb, cyclic, scratch;
        const char* usbLine;
        const char* wdmLine;
    } steps[] = {
        {true, 2, 24, 8, 24576, 65536, nullptr, nullptr},
        {true, 2, 24, 8, 24576, 65536, "mUSBBufferBytes equal", "mWDMBufferBytes equal"},
        {false, 2, 24, 8, 24576, 65536, nullptr, nullptr},
        {false, 4, 24, 8, 49152, 65536, "mUSBBufferBytes equal",
         "mWDMBufferBytes differs old/new  24576 49152"},
        {false, 4, 24, 2, 49152, 16384, "mUSBBufferBytes differs old/new  65536 16384",
         "mWDMBufferBytes equal"},
        {false, 4, 32, 6, 4 * 4096 * 4, 6 * 2048 * 4, nullptr, nullptr},
        {false, 2, 16, 8, 16384, 65536, nullptr, nullptr},
    };
    MMEWaveStream* streams[2] = {mRig.openStream(false, 2, 16), mRig.openStream(true, 2, 16)};
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << s.channels << "x" << s.bits << " on " << s.usb);
        MMEDMAEmulator* dma = mRig.channel(s.capture);
        dma->Start(3000, TRUE);
        void* before = dma->SystemAddress();
        const ULONG beforeBytes = dma->BufferSize();
        mRig.setAttachChannels(s.usb, s.usb);
        tracecap::clearTrace();
        EXPECT_TRUE(dma->setStreamFormat(streams[s.capture], s.channels, s.bits, 0));
        EXPECT_EQ(dma->stream(), streams[s.capture]);
        EXPECT_EQ((std::vector<ULONG>{dma->BufferSize(), dma->AllocatedBufferSize(),
                                      dma->MaximumBufferSize(), dma->usbBufferBytes(),
                                      dma->usbChannels(), dma->wdmChannels(), dma->wdmBits(),
                                      dma->position(), dma->transferOffset()}),
                  (std::vector<ULONG>{s.cyclic, s.cyclic, s.cyclic, s.scratch, s.usb, s.channels,
                                      s.bits, 0, 0}));
        ASSERT_NE(dma->SystemAddress(), nullptr);
        EXPECT_TRUE(allAre(dma->SystemAddress(), s.cyclic));
        if (s.usbLine) {
            checks::expectLines({s.usbLine, s.wdmLine});
            EXPECT_EQ(dma->SystemAddress() == before, beforeBytes == s.cyclic);
        }
        std::memset(dma->SystemAddress(), 0x5C, s.cyclic);
    }
}

TEST_F(DmaFormat, StartWrapsAtTheBufferEndAndRefusedFormatsLeaveTheChannelDetached) {
    MMEWaveStream* s = open(true, 2, 16); // 16384 bytes
    MMEDMAEmulator* in = mRig.channel(true);
    using Pair = std::pair<ULONG, ULONG>; // transfer offset, position
    auto positions = [&] { return Pair(in->transferOffset(), in->position()); };
    EXPECT_EQ(in->Start(16384 - 1024, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(positions(), Pair(15360, 15360));
    in->Start(1024, TRUE); // exactly to the end: back to 0
    EXPECT_EQ(positions(), Pair(0, 0));
    in->Start(1000, TRUE);
    in->Start(16000, TRUE); // past the end: wraps once
    EXPECT_EQ(positions(), Pair(616, 616));
    in->Start(100000, TRUE); // more than the whole buffer still lands inside it
    EXPECT_LT(in->position(), 16384u);
    EXPECT_EQ(in->position(), in->transferOffset());

    in->resetPosition();
    EXPECT_EQ(in->position(), 0u);
    EXPECT_NE(in->transferOffset(), 0u);

    void* cyclic = in->SystemAddress();
    const ULONG bytes = in->BufferSize();

    tracecap::clearTrace();
    EXPECT_FALSE(in->setStreamFormat(s, 6, 20, 0)); // no such width
    EXPECT_EQ(in->stream(), nullptr);
    EXPECT_EQ(in->SystemAddress(), cyclic);
    EXPECT_EQ(in->BufferSize(), bytes);
    EXPECT_EQ(in->wdmChannels(), 6u); // recorded before the width was refused
    // setStreamFormat traces silently.
    EXPECT_FALSE(tracecap::containsLineStartingWith("ERROR invalid wBitsPerSample"));

    EXPECT_TRUE(in->setStreamFormat(s, 2, 16, 0));
    EXPECT_FALSE(in->setStreamFormat(s, 2, 0x80000000u, 0)); // negative as a signed width
    EXPECT_FALSE(in->setStreamFormat(s, 0, 16, 0));
    EXPECT_EQ(in->stream(), nullptr);
    EXPECT_EQ(in->wdmChannels(), 2u);

    EXPECT_TRUE(in->setStreamFormat(s, 2, 16, 0));
    EXPECT_FALSE(in->setStreamFormat(nullptr, 0, 0, 0)); // detach
    EXPECT_EQ(in->stream(), nullptr);
    EXPECT_EQ(in->SystemAddress(), cyclic);
}

TEST_F(DmaFormat, FreeBufferAndFailedAllocationsLeaveTheChannelWithoutBuffers) {
    open(false, 2, 16);
    MMEDMAEmulator* out = mRig.channel(false);
    out->Start(1024, TRUE);
    const size_t blocks = hostk::poolStats().liveBlocks;
    out->FreeBuffer();
    out->FreeBuffer(); // twice is harmless
    EXPECT_EQ(hostk::poolStats().liveBlocks, blocks - 2);
    EXPECT_EQ((std::vector<ULONG>{out->BufferSize(), out->usbBufferBytes(), out->position(),
                                  out->transferOffset()}),
              (std::vector<ULONG>{0, 0, 0, 0}));
    EXPECT_EQ(out->SystemAddress(), nullptr);

    for (size_t failing : {1u, 2u}) {
        SCOPED_TRACE(failing == 1 ? "scratch buffer" : "cyclic buffer");
        mRig.setAttachChannels(8, 8);
        MMEWaveStream* s = mRig.openStream(true, 2, 24);
        ASSERT_NE(s, nullptr);
        MMEDMAEmulator* in = mRig.channel(true);
        in->Start(1024, TRUE);
        mRig.setAttachChannels(4, 8); // both sizes change below
        tracecap::clearTrace();
        hostk::failAllocation(failing);
        EXPECT_FALSE(in->setStreamFormat(s, 4, 16, 0));
        hostk::failAllocation(0);
        EXPECT_TRUE(tracecap::containsLine("memAlloc failed")) << tracecap::dumpTrace();
        EXPECT_EQ(in->stream(), nullptr);
        EXPECT_EQ((std::vector<ULONG>{in->BufferSize(), in->usbBufferBytes(), in->position()}),
                  (std::vector<ULONG>{0, 0, 0}));
        EXPECT_EQ(in->SystemAddress(), nullptr);
        // The next format gets fresh buffers.
        EXPECT_TRUE(in->setStreamFormat(s, 4, 16, 0));
        EXPECT_EQ(in->BufferSize(), 4u * 4096 * 2);
        EXPECT_EQ(in->usbBufferBytes(), 4u * 2048 * 4);
        mRig.closeStream(s);
    }
}

TEST_F(DmaFormat, SilenceZeroesOnlyRangesItMayTouch) {
    open(false, 2, 16);
    MMEDMAEmulator* out = mRig.channel(false);
    auto* base = static_cast<unsigned char*>(out->SystemAddress());
    const ULONG size = out->BufferSize();
    std::memset(base, 0x11, size);

    out->silence(base + 100, 200);
    EXPECT_TRUE(allAre(base + 100, 200));
    EXPECT_EQ(base[99], 0x11);
    EXPECT_EQ(base[300], 0x11);

    std::memset(base, 0x11, size);
    tracecap::clearTrace();
    out->silence(base, size + 1);       // more than the buffer: nothing
    out->silence(base + size - 10, 20); // would run past the end: nothing
    out->silence(nullptr, 10);
    EXPECT_TRUE(allAre(base, size, 0x11));
    // Not this channel's buffer (one a port kept after a format change replaced it).
    unsigned char elsewhere[64];
    std::memset(elsewhere, 0x11, sizeof elsewhere);
    out->silence(elsewhere, sizeof elsewhere);
    EXPECT_TRUE(allAre(elsewhere, sizeof elsewhere, 0x11));

    out->silence(base, size); // the whole buffer is fine
    EXPECT_TRUE(allAre(base, size));
    // The calls that would run past the end or lie elsewhere are traced.
    EXPECT_EQ(tracecap::countLinesStartingWith("range outside the cyclic buffer count"), 2u)
        << tracecap::dumpTrace();
}

TEST_F(DmaFormat, CopiesStayInsideTheBufferAndGoOnlyWithTheDirection) {
    open(true, 2, 16);
    open(false, 2, 16);
    MMEDMAEmulator* in = mRig.channel(true);
    MMEDMAEmulator* out = mRig.channel(false);
    auto* inBase = static_cast<unsigned char*>(in->SystemAddress());
    auto* outBase = static_cast<unsigned char*>(out->SystemAddress());
    const ULONG size = out->BufferSize();
    std::vector<unsigned char> data(size + 64);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 7 + 1);

    // CopyTo fills the render buffer.
    out->CopyTo(outBase + 100, data.data(), 64);
    EXPECT_EQ(0, std::memcmp(outBase + 100, data.data(), 64));
    out->CopyTo(outBase, data.data(), size);
    EXPECT_EQ(0, std::memcmp(outBase, data.data(), size));
    std::memset(outBase, 0, size);
    tracecap::clearTrace();
    out->CopyTo(outBase + size - 10, data.data(), 64); // runs past the end
    out->CopyTo(outBase - 16, data.data(), 32);        // starts before the buffer
    EXPECT_TRUE(allAre(outBase, size));
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::CopyTo range outside"), 2u)
        << tracecap::dumpTrace();

    // CopyFrom empties the capture buffer.
    std::memcpy(inBase, data.data(), size);
    std::vector<unsigned char> got(size + 64, 0xEE);
    in->CopyFrom(got.data(), inBase + 200, 100);
    EXPECT_EQ(0, std::memcmp(got.data(), inBase + 200, 100));
    EXPECT_EQ(got[100], 0xEE);
    std::fill(got.begin(), got.end(), 0xEE);
    in->CopyFrom(got.data(), inBase + size - 32, 64);
    EXPECT_TRUE(allAre(got.data(), got.size(), 0xEE));
    EXPECT_TRUE(tracecap::containsLineStartingWith("MMEDMAEmulator::CopyFrom range outside"));

    // Against the direction: nothing moves, the error line names the call.
    std::memset(inBase, 0, size);
    tracecap::clearTrace();
    in->CopyTo(inBase + 12, data.data(), 100);
    EXPECT_TRUE(allAre(inBase, size));
    std::fill(got.begin(), got.end(), 0x42);
    out->CopyFrom(got.data(), outBase + 40, 16);
    EXPECT_TRUE(allAre(got.data(), got.size(), 0x42));
    auto low32 = [](const void* p) { return std::to_string(LONG(ULONG(ULONG_PTR(p)))); };
    auto bodies = tracecap::traceBodies();
    for (const std::string& expected :
         {" ERROR DMA:CopyTo dest/src/count ON CAPTURE 12 " + low32(data.data()) + " 100",
          " ERROR DMA:CopyFrom dest/src/count ON RENDER " + low32(got.data()) + " 40 16"})
        EXPECT_NE(std::find(bodies.begin(), bodies.end(), expected), bodies.end())
            << expected << "\n"
            << tracecap::dumpTrace();
}

} // namespace
