// Period transfer: onInput and onOutput of the started driver's channels on
// rings of the test's own. Covers the channel mapping and widths, ring and
// cyclic-buffer ends, straddling periods, idle channels, exclusive inputs,
// overruns, periods that do not fit, refused ring headers and a render
// stream that starts at a later ring channel. Every call is also run in the
// staged form (support/StagedTransfer.h) on copies, and the rings, cyclic
// buffer, positions and result must match it bit for bit. The kernels'
// per-width and per-channel-count cases are in conversion_test; that the period path
// neither allocates nor waits is checked by verifier_test.
#include "host/kernel/HostKernel.h"
#include "support/StagedTransfer.h"
#include "support/StreamingRig.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using streamtest::StreamingRig;

constexpr ULONG kPeriod = 256;
constexpr ULONG kOffset = 1700;

std::unique_ptr<AudioSM> makeRing(ULONG channels, ULONG frames) {
    auto ring = std::make_unique<AudioSM>();
    ring->mChannelsPerFrame = channels;
    ring->mMaxFrames = frames;
    return ring;
}

// A capture-ring sample that differs in every bit field per frame and channel.
LONG ringValue(ULONG frame, ULONG channel) {
    uint32_t x = frame * 2654435761u ^ (channel + 1) * 0x9E3779B9u;
    return LONG(x);
}

// The stream's bytes for a capture-ring sample x.
uint32_t captureWdm(LONG x, ULONG bits) {
    uint32_t u = uint32_t(x);
    return bits == 16 ? u >> 16 : bits == 24 ? u >> 8 : u;
}

uint32_t readWdm(const unsigned char* p, ULONG bits) {
    uint32_t v = 0;
    std::memcpy(&v, p, bits / 8);
    return v;
}

// A WDM sample (raw bytes of its width) as the render ring holds it.
LONG renderRingValue(uint32_t raw, ULONG bits) {
    int32_t s = bits == 32 ? int32_t(raw) : int32_t(raw << (32 - bits)) >> (32 - bits);
    return bits == 16 ? LONG(s * 256) : bits == 24 ? LONG(s) : LONG(s >> 8);
}

class Transfer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(mRig.started());
        mRig.setAttachChannels(8, 8);
        for (ULONG f = 0; f < 4096; ++f)
            for (ULONG c = 0; c < 8; ++c)
                mCapture->mSamples[f * 8 + c] = ringValue(f, c);
        mRender->mMMEReadPos = 0;
    }

    // Attaches the direction's channel with this shape; the stream is opened
    // once (as 2-channel 16-bit, which the device accepts) and reshaped.
    MMEDMAEmulator* attach(bool capture, ULONG channels, ULONG bits, ULONG first = 0) {
        MMEWaveStream*& s = capture ? mCaptureStream : mRenderStream;
        if (!s)
            s = mRig.openStream(capture, 2, 16);
        EXPECT_NE(s, nullptr);
        MMEDMAEmulator* channel = mRig.channel(capture);
        EXPECT_TRUE(channel->setStreamFormat(s, channels, bits, first));
        return channel;
    }
    unsigned char* cyclic(bool capture) {
        return static_cast<unsigned char*>(mRig.channel(capture)->SystemAddress());
    }
    LONG renderSample(ULONG index, ULONG channel) const {
        return mRender->mSamples[index * mRender->mChannelsPerFrame + channel];
    }
    void fillRender(LONG value) { std::fill_n(mRender->mSamples, 8 * 4096, value); }
    // The driver's transfer, checked against the staged reference on copies.
    bool input(MMEDMAEmulator* in, ULONG frames = kPeriod, AudioSM* ring = nullptr,
               AudioSM* render = nullptr) {
        ring = ring ? ring : mCapture.get();
        render = render ? render : mRender.get();
        bool moved = false;
        EXPECT_EQ(streamtest::compareWithStaged(
                      *in, ring, render, [&] { return moved = in->onInput(ring, render, frames); },
                      [&](streamtest::StagedChannel& ch, AudioSM* c, AudioSM* r) {
                          return streamtest::stagedInput(ch, c, r, frames);
                      }),
                  "");
        return moved;
    }
    bool output(MMEDMAEmulator* out, ULONG frames, ULONG writeOffset, AudioSM* ring = nullptr) {
        ring = ring ? ring : mRender.get();
        bool moved = false;
        EXPECT_EQ(streamtest::compareWithStaged(
                      *out, ring, nullptr,
                      [&] { return moved = out->onOutput(ring, frames, writeOffset); },
                      [&](streamtest::StagedChannel& ch, AudioSM* r, AudioSM*) {
                          return streamtest::stagedOutput(ch, r, frames, writeOffset);
                      }),
                  "");
        return moved;
    }

    StreamingRig mRig;
    std::unique_ptr<AudioSM> mCapture = makeRing(8, 4096), mRender = makeRing(8, 4096);
    MMEWaveStream* mCaptureStream = nullptr;
    MMEWaveStream* mRenderStream = nullptr;
};

// ---- Capture ----

TEST_F(Transfer, CaptureDropsExtraRingChannelsAndTruncatesTo16Bits) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    mCapture->mSamples[0] = 0x12345678;
    EXPECT_TRUE(input(in));
    EXPECT_EQ(mRender->mMMEReadPos, kPeriod);
    EXPECT_EQ(in->position(), 1024u); // 256 frames x 2 channels x 2 bytes
    EXPECT_EQ(in->transferOffset(), 1024u);
    const unsigned char* out = cyclic(true);
    EXPECT_EQ(readWdm(out, 16), 0x1234u);
    EXPECT_EQ(readWdm(out + 2, 16), captureWdm(ringValue(0, 1), 16));
    EXPECT_EQ(readWdm(out + 4, 16), captureWdm(ringValue(1, 0), 16)); // ring channels 2..7 gone
    for (ULONG i = 1024; i < in->BufferSize(); ++i)
        ASSERT_EQ(out[i], 0) << "byte " << i << " beyond the period";
}

TEST_F(Transfer, CaptureOfEveryWidthAcrossTheRingEnd) {
    for (ULONG bits : {16u, 24u, 32u}) {
        SCOPED_TRACE(bits);
        MMEDMAEmulator* in = attach(true, 3, bits);
        mRender->mMMEReadPos = 4000; // the period wraps at ring frame 4096
        const ULONG width = bits / 8;
        ASSERT_TRUE(input(in));
        ASSERT_TRUE(input(in));
        EXPECT_EQ(mRender->mMMEReadPos, 4000u + 2 * kPeriod);
        const unsigned char* out = cyclic(true);
        for (ULONG f = 0; f < 2 * kPeriod; ++f)
            for (ULONG c = 0; c < 3; ++c)
                ASSERT_EQ(readWdm(out + (f * 3 + c) * width, bits),
                          captureWdm(ringValue((4000 + f) % 4096, c), bits))
                    << "frame " << f << " channel " << c;
    }
}

TEST_F(Transfer, SixteenPeriodsFillTheCyclicBufferExactly) {
    MMEDMAEmulator* in = attach(true, 2, 24);
    tracecap::clearTrace();
    for (int i = 0; i < 15; ++i)
        ASSERT_TRUE(input(in));
    EXPECT_EQ(in->position(), 15u * 1536);
    ASSERT_TRUE(input(in));
    EXPECT_EQ(in->position(), 0u);
    EXPECT_EQ(in->transferOffset(), 0u);
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::onInput"), 0u)
        << tracecap::dumpTrace();
    const unsigned char* out = cyclic(true);
    for (ULONG f = 0; f < 4096; f += 97)
        EXPECT_EQ(readWdm(out + f * 6 + 3, 24), captureWdm(ringValue(f, 1), 24)) << f;
}

TEST_F(Transfer, APeriodStraddlingTheCyclicBufferEndIsSplitByWholeFrames) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    in->Start(3900 * 4, TRUE);
    tracecap::clearTrace();
    ASSERT_TRUE(input(in, 300));
    EXPECT_FALSE(tracecap::containsLineStartingWith("MMEDMAEmulator::onInput (smp1+smp2)"));
    const unsigned char* out = cyclic(true);
    for (ULONG f = 0; f < 300; ++f) {
        const ULONG at = f < 196 ? 3900 + f : f - 196; // 196 frames at the end, 104 at the start
        for (ULONG c = 0; c < 2; ++c)
            ASSERT_EQ(readWdm(out + (at * 2 + c) * 2, 16), captureWdm(ringValue(f, c), 16))
                << "frame " << f;
    }
    EXPECT_EQ(in->position(), 104u * 4);

    // An offset off the frame grid puts the period at the buffer's start.
    in->Start(16384 - 1022 - 104 * 4, TRUE);
    tracecap::clearTrace();
    ASSERT_TRUE(input(in));
    EXPECT_TRUE(
        tracecap::containsLine("MMEDMAEmulator::onInput (smp1+smp2) != mBufferSizeUSB 255 0 256"))
        << tracecap::dumpTrace();
    for (ULONG f = 0; f < kPeriod; ++f)
        ASSERT_EQ(readWdm(out + f * 4, 16), captureWdm(ringValue(300 + f, 0), 16)) << f;
    EXPECT_EQ(in->position(), 2u); // moved by lenMME from the old offset
}

TEST_F(Transfer, ExclusiveInputsDeliverSilenceWhileFramesAreConsumed) {
    MMEDMAEmulator* in = attach(true, 2, 24);
    std::memset(cyclic(true), 0x3C, in->BufferSize());
    mCapture->mExclInputs = 1;
    tracecap::clearTrace();
    EXPECT_TRUE(input(in));
    EXPECT_TRUE(input(in));
    EXPECT_EQ(tracecap::countLines("ExclInputs lenMME:1536 mWDMBufferBytes:24576"), 2u)
        << tracecap::dumpTrace();
    EXPECT_EQ(mRender->mMMEReadPos, 2 * kPeriod);
    EXPECT_EQ(in->position(), 2u * 1536);
    const unsigned char* out = cyclic(true);
    for (ULONG i = 0; i < 2 * 1536; ++i)
        ASSERT_EQ(out[i], 0) << i;
    EXPECT_EQ(out[2 * 1536], 0x3C);

    mCapture->mExclInputs = 0;
    EXPECT_TRUE(input(in));
    EXPECT_EQ(readWdm(out + 2 * 1536, 24), captureWdm(ringValue(512, 0), 24));
}

TEST_F(Transfer, CapturePeriodsThatDoNotFitAreOverrunsTracedOnce) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    auto shortRing = makeRing(8, 200); // fewer frames than a period
    tracecap::clearTrace();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(input(in, kPeriod, shortRing.get()));
    EXPECT_EQ(mRender->mMMEReadPos, 3 * kPeriod);
    EXPECT_EQ(in->position(), 0u);
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::onInput period does not fit"), 1u)
        << tracecap::dumpTrace();

    // A fitting period works and ends the refusal; the next misfit is traced again.
    EXPECT_TRUE(input(in));
    EXPECT_EQ(in->position(), 1024u);
    EXPECT_TRUE(input(in, kPeriod, shortRing.get()));
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::onInput period does not fit"), 2u);

    // More ring frames than the scratch buffer holds (2 configured channels).
    mRig.setAttachChannels(2, 8);
    attach(true, 2, 16);
    EXPECT_TRUE(input(in, 1024)); // 8192 > 4096 samples
    EXPECT_EQ(in->position(), 0u);
}

TEST_F(Transfer, AStreamWiderThanTheRingMovesItsPositionsAndNoSamples) {
    auto stereoRing = makeRing(2, 4096);
    MMEDMAEmulator* in = attach(true, 4, 16);
    const ULONG before = mRender->mMMEReadPos;
    tracecap::clearTrace();
    EXPECT_TRUE(input(in, kPeriod, stereoRing.get()));
    EXPECT_EQ(mRender->mMMEReadPos, before + kPeriod);
    EXPECT_EQ(in->position(), 2048u);
    const unsigned char* pcm = cyclic(true);
    EXPECT_TRUE(std::all_of(pcm, pcm + in->BufferSize(), [](unsigned char b) { return b == 0; }));

    MMEDMAEmulator* out = attach(false, 4, 16);
    std::vector<int16_t> loud(4096 * 4, 0x4000);
    out->CopyTo(cyclic(false), loud.data(), ULONG(loud.size() * 2));
    std::fill_n(stereoRing->mSamples, 2 * 4096, -1);
    EXPECT_TRUE(output(out, kPeriod, kOffset, stereoRing.get()));
    EXPECT_EQ(stereoRing->mWritePos, kPeriod);
    EXPECT_EQ(out->position(), 2048u);
    for (ULONG i = 2 * kOffset; i < 2 * (kOffset + kPeriod); ++i)
        ASSERT_EQ(stereoRing->mSamples[i], 0) << i;
    EXPECT_FALSE(tracecap::containsLineStartingWith("MMEDMAEmulator::onInput period does not fit"));
    EXPECT_FALSE(
        tracecap::containsLineStartingWith("MMEDMAEmulator::onOutput period does not fit"));
}

// ---- Render ----

TEST_F(Transfer, RenderPutsTheStreamOnTheFirstRingChannelsAndZeroesTheRest) {
    MMEDMAEmulator* out = attach(false, 2, 16);
    std::vector<int16_t> pcm(kPeriod * 2, 0x0101);
    pcm[0] = 0x7FFF;
    pcm[1] = int16_t(0x8000);
    out->CopyTo(cyclic(false), pcm.data(), ULONG(pcm.size() * 2));
    fillRender(-1);

    EXPECT_TRUE(output(out, kPeriod, kOffset));
    EXPECT_EQ(mRender->mWritePos, kPeriod);
    EXPECT_EQ(mRender->mWriteOffset, kOffset);
    EXPECT_EQ(out->position(), 1024u);
    EXPECT_EQ(uint32_t(renderSample(kOffset, 0)), 0x007FFF00u);
    EXPECT_EQ(uint32_t(renderSample(kOffset, 1)), 0xFF800000u);
    for (ULONG f = 0; f < kPeriod; ++f)
        for (ULONG c = 2; c < 8; ++c)
            ASSERT_EQ(renderSample(kOffset + f, c), 0) << f << "/" << c;
    EXPECT_EQ(renderSample(kOffset + kPeriod - 1, 1), 0x0101 * 256);
    EXPECT_EQ(renderSample(kOffset - 1, 0), -1);
    EXPECT_EQ(renderSample(kOffset + kPeriod, 0), -1);
}

TEST_F(Transfer, RenderOfEveryWidthAcrossBothEnds) {
    for (ULONG bits : {16u, 24u, 32u}) {
        SCOPED_TRACE(bits);
        MMEDMAEmulator* out = attach(false, 3, bits);
        const ULONG width = bits / 8;
        std::vector<unsigned char> pcm(out->BufferSize());
        for (ULONG i = 0; i < pcm.size(); ++i)
            pcm[i] = static_cast<unsigned char>(i * 29 + bits);
        out->CopyTo(cyclic(false), pcm.data(), ULONG(pcm.size()));
        out->Start(3900 * 3 * width, TRUE);     // the period straddles the cyclic buffer end
        mRender->mWritePos = 4096 - 1700 - 100; // and the ring end
        tracecap::clearTrace();
        ASSERT_TRUE(output(out, 300, kOffset));
        EXPECT_FALSE(tracecap::containsLineStartingWith("MMEDMAEmulator::onOutput"));
        for (ULONG f = 0; f < 300; ++f) {
            const ULONG wdmFrame = (3900 + f) % 4096;
            const ULONG ringIndex = (4096 - 100 + f) % 4096;
            for (ULONG c = 0; c < 8; ++c) {
                LONG expected =
                    c < 3 ? renderRingValue(readWdm(&pcm[(wdmFrame * 3 + c) * width], bits), bits)
                          : 0;
                ASSERT_EQ(renderSample(ringIndex, c), expected) << "frame " << f << "/" << c;
            }
        }
    }
}

TEST_F(Transfer, ALaterFirstRingChannelShiftsTheStreamAndClearsTheRest) {
    MMEDMAEmulator* out = attach(false, 2, 16);
    std::vector<int16_t> pcm(4096 * 2, 0x1111);
    out->CopyTo(cyclic(false), pcm.data(), ULONG(pcm.size() * 2));
    ASSERT_TRUE(output(out, kPeriod, 0)); // a period from ring channel 0 first

    attach(false, 2, 16, 3); // clears the cyclic buffer
    out->CopyTo(cyclic(false), pcm.data(), ULONG(pcm.size() * 2));
    fillRender(-5);
    mRender->mWritePos = 0;
    ASSERT_TRUE(output(out, kPeriod, 0));
    for (ULONG f = 0; f < kPeriod; ++f)
        for (ULONG c = 0; c < 8; ++c)
            ASSERT_EQ(renderSample(f, c), (c == 3 || c == 4) ? 0x1111 * 256 : 0) << f << "/" << c;
    EXPECT_EQ(renderSample(kPeriod, 0), -5);

    // The stream must fit behind its first ring channel.
    attach(false, 2, 16, 7);
    tracecap::clearTrace();
    EXPECT_TRUE(output(out, kPeriod, 0));
    EXPECT_TRUE(output(out, kPeriod, 0));
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::onOutput period does not fit"), 1u);
    for (ULONG f = kPeriod; f < 3 * kPeriod; ++f)
        ASSERT_EQ(renderSample(f, 7), 0);
    EXPECT_EQ(out->position(), 0u);
}

// ---- Both directions ----

TEST_F(Transfer, IdleChannelsSkipCaptureFramesAndSendSilenceAhead) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    MMEDMAEmulator* out = attach(false, 2, 16);
    std::memset(cyclic(true), 0x3C, in->BufferSize());
    EXPECT_FALSE(in->setStreamFormat(nullptr, 0, 0, 0)); // detached, buffers kept
    EXPECT_FALSE(out->setStreamFormat(nullptr, 0, 0, 0));
    fillRender(9);
    mRender->mWritePos = 1000;

    EXPECT_FALSE(input(in));
    EXPECT_EQ(mRender->mMMEReadPos, kPeriod);
    EXPECT_EQ(in->position(), 0u);
    const unsigned char* buffer = cyclic(true);
    for (ULONG i = 0; i < in->BufferSize(); ++i)
        ASSERT_EQ(buffer[i], 0x3C);

    EXPECT_FALSE(output(out, kPeriod, kOffset));
    EXPECT_EQ(mRender->mWritePos, 1000u + kPeriod);
    for (ULONG f = 0; f < kPeriod; ++f)
        for (ULONG c = 0; c < 8; ++c)
            ASSERT_EQ(renderSample(2700 + f, c), 0);
    EXPECT_EQ(renderSample(2699, 7), 9);
    EXPECT_EQ(renderSample(2700 + kPeriod, 0), 9);
    EXPECT_EQ(out->position(), 0u);
}

TEST_F(Transfer, PeriodsLargerThanTheCyclicBufferAreOverruns) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    MMEDMAEmulator* out = attach(false, 2, 16);
    in->Start(400, TRUE);
    tracecap::clearTrace();
    EXPECT_TRUE(input(in, 5000));
    EXPECT_TRUE(
        tracecap::containsLine("MMEDMAEmulator::onInput - lenMME > mWDMBufferBytes 20000 16384"));
    EXPECT_EQ(mRender->mMMEReadPos, 5000u);
    EXPECT_EQ(in->position(), 400u);

    // Render sends silence and keeps its position.
    std::vector<unsigned char> loud(out->BufferSize(), 0x7F);
    out->CopyTo(cyclic(false), loud.data(), ULONG(loud.size()));
    fillRender(9);
    EXPECT_TRUE(output(out, 4097, 0));
    EXPECT_TRUE(
        tracecap::containsLine("MMEDMAEmulator::onOutput - lenMME > mWDMBufferBytes 16388 16384"));
    EXPECT_EQ(mRender->mWritePos, 4097u);
    EXPECT_EQ(out->position(), 0u);
    for (ULONG i = 0; i < 8 * 4096; ++i)
        ASSERT_EQ(mRender->mSamples[i], 0);

    // An attached channel without buffers treats every period so.
    in->FreeBuffer();
    out->FreeBuffer();
    EXPECT_TRUE(input(in));
    EXPECT_TRUE(output(out, kPeriod, kOffset));
    EXPECT_EQ(mRender->mMMEReadPos, 5000u + kPeriod);
    EXPECT_EQ(mRender->mWritePos, 4097u + kPeriod);
    EXPECT_TRUE(
        tracecap::containsLine("MMEDMAEmulator::onInput - lenMME > mWDMBufferBytes 1024 0"));
}

TEST_F(Transfer, MissingOrBrokenRingsMoveNothingAndAreTracedWhenTheyStart) {
    MMEDMAEmulator* in = attach(true, 2, 16);
    MMEDMAEmulator* out = attach(false, 2, 16);
    mRender->mMMEReadPos = 77;
    EXPECT_FALSE(in->onInput(nullptr, mRender.get(), kPeriod));
    EXPECT_FALSE(in->onInput(mCapture.get(), nullptr, kPeriod));
    EXPECT_FALSE(out->onOutput(nullptr, kPeriod, kOffset));
    EXPECT_EQ(mRender->mMMEReadPos, 77u);
    mRender->mMMEReadPos = 0;

    mCapture->mChannelsPerFrame = 0;
    tracecap::clearTrace();
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(input(in));
    EXPECT_EQ(mRender->mMMEReadPos, 0u);
    EXPECT_EQ(tracecap::countLines(
                  "MMEDMAEmulator::onInput capture ring header invalid ch/frames 0 4096"),
              1u)
        << tracecap::dumpTrace();
    mCapture->mChannelsPerFrame = 8;
    EXPECT_TRUE(input(in));
    mCapture->mChannelsPerFrame = 64; // 64 x 4096 samples do not fit the ring
    EXPECT_FALSE(input(in));
    EXPECT_EQ(tracecap::countLinesStartingWith("MMEDMAEmulator::onInput capture ring header"), 2u);
    EXPECT_EQ(mRender->mMMEReadPos, kPeriod);
    EXPECT_EQ(in->position(), 1024u);

    mRender->mMaxFrames = 0;
    EXPECT_FALSE(output(out, kPeriod, kOffset));
    EXPECT_FALSE(output(out, kPeriod, kOffset));
    EXPECT_EQ(mRender->mWritePos, 0u);
    EXPECT_EQ(mRender->mWriteOffset, 0u);
    EXPECT_EQ(out->position(), 0u);
    EXPECT_EQ(
        tracecap::countLines("MMEDMAEmulator::onOutput render ring header invalid ch/frames 8 0"),
        1u)
        << tracecap::dumpTrace();
}

} // namespace
