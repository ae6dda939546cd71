// Period transfer: onInput and onOutput of the started driver's channels on
// rings of the test's own. Every call also runs in the staged form
// (support/StagedTransfer.h) on copies: rings, cyclic buffer, positions and
// result must match it bit for bit (the staged conversions are held to the
// rules in conversion_test). The table adds what only the driver shows
// (results, final position, trace lines).
#include "support/StagedTransfer.h"
#include "support/WaveRig.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

constexpr ULONG kPeriod = 256;
constexpr ULONG kOffset = 1700;

std::unique_ptr<AudioSM> makeRing(ULONG channels, ULONG frames) {
    auto ring = std::make_unique<AudioSM>();
    ring->mChannelsPerFrame = channels;
    ring->mMaxFrames = frames;
    return ring;
}

// The started driver, an 8 x 4096 capture ring whose samples differ in every
// bit field per frame and channel, and a render ring of -1s.
struct Rings {
    Rings() {
        for (ULONG i = 0; i < 8 * 4096; ++i) {
            capture->mSamples[i] = LONG(i / 8 * 2654435761u ^ (i % 8 + 1) * 0x9E3779B9u);
            render->mSamples[i] = -1;
        }
    }
    // Shapes the direction's channel (its stream opened once, as 2-channel
    // 16-bit) with `usb` configured ring channels; a render buffer gets bytes
    // that differ per position.
    MMEDMAEmulator* attach(bool in, ULONG channels, ULONG bits, ULONG first = 0, ULONG usb = 8) {
        MMEWaveStream* s = rig.openStream(in, 2, 16);
        EXPECT_NE(s, nullptr);
        MMEDMAEmulator* channel = rig.channel(in);
        rig.setAttachChannels(usb, usb);
        EXPECT_TRUE(channel->setStreamFormat(s, channels, bits, first));
        if (!in) {
            std::vector<unsigned char> pcm(channel->BufferSize());
            for (size_t i = 0; i < pcm.size(); ++i)
                pcm[i] = static_cast<unsigned char>(i * 29 + bits);
            channel->CopyTo(channel->SystemAddress(), pcm.data(), ULONG(pcm.size()));
        }
        return channel;
    }
    // One period of the direction, checked against the staged reference.
    bool period(bool in, ULONG frames) {
        MMEDMAEmulator& dma = *rig.channel(in);
        AudioSM* c = capture.get();
        AudioSM* r = render.get();
        bool moved = false;
        std::string diff =
            in ? streamtest::compareWithStaged(
                     dma, c, r, [&] { return moved = dma.onInput(c, r, frames); },
                     [&](streamtest::StagedChannel& ch, AudioSM* sc, AudioSM* sr) {
                         return streamtest::stagedInput(ch, sc, sr, frames);
                     })
               : streamtest::compareWithStaged(
                     dma, r, nullptr, [&] { return moved = dma.onOutput(r, frames, kOffset); },
                     [&](streamtest::StagedChannel& ch, AudioSM* sr, AudioSM*) {
                         return streamtest::stagedOutput(ch, sr, frames, kOffset);
                     });
        EXPECT_EQ(diff, "");
        return moved;
    }

    wavetest::StackRig rig;
    std::unique_ptr<AudioSM> capture = makeRing(8, 4096), render = makeRing(8, 4096);
};

struct Case {
    const char* name;
    bool capture;
    ULONG channels, bits, first, usb; // the stream's shape; configured ring channels
    ULONG ringChannels, ringFrames;   // of the direction's ring
    ULONG frames;                     // per period
    const char* results;              // one T or F per period
    ULONG startBytes, ringPos;        // cyclic offset; capture read or render write position
    const char* trace;                // lines starting so, and how many
    size_t traced;
    ULONG position;                                                     // the channel's at the end
    std::function<void(Rings&, MMEDMAEmulator*, int)> before = nullptr; // each period
};

void exclusiveFirstTwo(Rings& r, MMEDMAEmulator*, int p) {
    r.capture->mExclInputs = p < 2;
}
void detach(Rings&, MMEDMAEmulator* dma, int) {
    EXPECT_FALSE(dma->setStreamFormat(nullptr, 0, 0, 0)); // buffers kept
}
void freeBuffers(Rings&, MMEDMAEmulator* dma, int) {
    dma->FreeBuffer();
}
// A ring whose frame count drops below a period but for the fourth.
void shortRingButTheFourth(Rings& r, MMEDMAEmulator*, int p) {
    r.capture->mMaxFrames = p == 3 ? 4096 : 200;
}
void captureHeaderBroken(Rings& r, MMEDMAEmulator*, int p) {
    r.capture->mChannelsPerFrame = p < 3 ? 0 : p == 3 ? 8 : 64; // 64 x 4096: too many samples
}
void renderHeaderBrokenTwice(Rings& r, MMEDMAEmulator*, int p) {
    r.render->mMaxFrames = p < 2 ? 0 : 4096;
}

const char* const kInFit = "MMEDMAEmulator::onInput period does not fit";
const char* const kOutFit = "MMEDMAEmulator::onOutput period does not fit";

const Case kCases[] = {
    // Capture.
    {"CaptureDropsExtraRingChannels", true, 2, 16, 0, 8, 8, 4096, kPeriod, "T", 0, 0,
     "MMEDMAEmulator::onInput", 0, 1024},
    {"SixteenPeriodsFillTheCyclicBuffer", true, 2, 24, 0, 8, 8, 4096, kPeriod, "TTTTTTTTTTTTTTTT",
     0, 0, "MMEDMAEmulator::onInput", 0, 0},
    {"CaptureStraddlingTheBufferEndSplitsByWholeFrames", true, 2, 16, 0, 8, 8, 4096, 300, "T",
     3900 * 4, 0, "MMEDMAEmulator::onInput (smp1+smp2)", 0, 104 * 4},
    {"CaptureOffTheFrameGridGoesToTheBufferStart", true, 2, 16, 0, 8, 8, 4096, kPeriod, "T",
     16384 - 1022, 0, "MMEDMAEmulator::onInput (smp1+smp2) != mBufferSizeUSB 255 0 256", 1, 2},
    {"ExclusiveInputsGiveSilenceAndConsumeFrames", true, 2, 24, 0, 8, 8, 4096, kPeriod, "TTT", 0, 0,
     "ExclInputs lenMME:1536 mWDMBufferBytes:24576", 2, 3 * 1536, exclusiveFirstTwo},
    {"CaptureRingShorterThanAPeriodIsAnOverrunTracedOncePerRun", true, 2, 16, 0, 8, 8, 4096,
     kPeriod, "TTTTT", 0, 0, kInFit, 2, 1024, shortRingButTheFourth},
    {"CaptureRingOfExactlyOnePeriod", true, 2, 16, 0, 8, 8, kPeriod, kPeriod, "TT", 0, 0, kInFit, 0,
     2048},
    {"CapturePeriodExactlyFillingTheScratch", true, 2, 16, 0, 2, 2, 4096, 2048, "T", 0, 0, kInFit,
     0, 8192},
    {"CapturePeriodOneFrameOverTheScratch", true, 2, 16, 0, 2, 2, 4096, 2049, "T", 0, 0, kInFit, 1,
     0},
    {"CaptureWiderThanTheRingMovesOnlyPositions", true, 4, 16, 0, 8, 2, 4096, kPeriod, "T", 0, 0,
     kInFit, 0, 2048},
    {"CapturePeriodLargerThanTheCyclicBuffer", true, 2, 16, 0, 8, 8, 4096, 5000, "T", 400, 0,
     "MMEDMAEmulator::onInput - lenMME > mWDMBufferBytes 20000 16384", 1, 400},
    {"CaptureWithoutBuffersOverruns", true, 2, 16, 0, 8, 8, 4096, kPeriod, "T", 0, 0,
     "MMEDMAEmulator::onInput - lenMME > mWDMBufferBytes 1024 0", 1, 0, freeBuffers},
    {"IdleCaptureSkipsFrames", true, 2, 16, 0, 8, 8, 4096, kPeriod, "FF", 0, 0,
     "MMEDMAEmulator::onInput", 0, 0, detach},
    {"CaptureRingHeaderRefusedTracedWhenRefusalsStart", true, 2, 16, 0, 8, 8, 4096, kPeriod,
     "FFFTF", 0, 0, "MMEDMAEmulator::onInput capture ring header invalid ch/frames", 2, 1024,
     captureHeaderBroken},
    {"CapturePositionsWrapAt2To32", true, 3, 32, 0, 8, 8, 4096, kPeriod, "TT", 0, 0xFFFFFF80u,
     "MMEDMAEmulator::onInput", 0, 2 * kPeriod * 12},
    // Render.
    {"RenderZeroesTheRingChannelsBeyondTheStream", false, 2, 16, 0, 8, 8, 4096, kPeriod, "T", 0, 0,
     "MMEDMAEmulator::onOutput", 0, 1024},
    {"RenderStraddlingBothEnds", false, 3, 24, 0, 8, 8, 4096, 300, "T", 3900 * 9,
     4096 - kOffset - 100, "MMEDMAEmulator::onOutput", 0, 104 * 9},
    {"RenderOffTheFrameGridGoesToTheBufferStart", false, 2, 16, 0, 8, 8, 4096, kPeriod, "T",
     16384 - 1022, 0, "MMEDMAEmulator::onOutput (smp1+smp2) != mBufferSizeUSB 255 0 256", 1, 2},
    {"RenderFromALaterFirstRingChannel", false, 2, 16, 3, 8, 8, 4096, kPeriod, "TT", 0, 0, kOutFit,
     0, 2048},
    {"RenderNotFittingBehindItsFirstRingChannel", false, 2, 16, 7, 8, 8, 4096, kPeriod, "TT", 0, 0,
     kOutFit, 1, 0},
    {"RenderPeriodExactlyFillingTheScratchBehindItsFirstChannel", false, 2, 16, 1, 2, 3, 4096, 1365,
     "T", 0, 0, kOutFit, 0, 1365 * 4},
    {"RenderPeriodOneFrameOverTheScratch", false, 2, 16, 1, 2, 3, 4096, 1366, "T", 0, 0, kOutFit, 1,
     0},
    {"RenderRingOfExactlyOnePeriod", false, 2, 16, 0, 8, 8, kPeriod, kPeriod, "T", 0, 0, kOutFit, 0,
     1024},
    {"RenderWiderThanTheRingSendsSilence", false, 4, 16, 0, 8, 2, 4096, kPeriod, "T", 0, 0, kOutFit,
     0, 2048},
    {"RenderPeriodLargerThanTheCyclicBufferSendsSilence", false, 2, 16, 0, 8, 8, 4096, 4097, "T", 0,
     0, "MMEDMAEmulator::onOutput - lenMME > mWDMBufferBytes 16388 16384", 1, 0},
    {"RenderWithoutBuffersSendsSilence", false, 2, 16, 0, 8, 8, 4096, kPeriod, "T", 0, 0,
     "MMEDMAEmulator::onOutput - lenMME > mWDMBufferBytes 1024 0", 1, 0, freeBuffers},
    {"IdleRenderSendsSilenceAhead", false, 2, 16, 0, 8, 8, 4096, kPeriod, "FF", 0, 1000,
     "MMEDMAEmulator::onOutput", 0, 0, detach},
    {"RenderRingHeaderRefusedThenAccepted", false, 2, 16, 0, 8, 8, 4096, kPeriod, "FFT", 0, 0,
     "MMEDMAEmulator::onOutput render ring header invalid ch/frames 8 0", 1, 1024,
     renderHeaderBrokenTwice},
    {"RenderPositionsWrapAt2To32", false, 2, 32, 0, 8, 8, 4096, kPeriod, "TT", 0, 0xFFFFFF80u,
     "MMEDMAEmulator::onOutput", 0, 2 * kPeriod * 8},
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

class Period : public ::testing::TestWithParam<Case> {};

TEST_P(Period, MatchesTheStagedTransfer) {
    const Case& c = GetParam();
    Rings r;
    ASSERT_TRUE(r.rig.started());
    MMEDMAEmulator* dma = r.attach(c.capture, c.channels, c.bits, c.first, c.usb);
    AudioSM& ring = c.capture ? *r.capture : *r.render;
    ring.mChannelsPerFrame = c.ringChannels;
    ring.mMaxFrames = c.ringFrames;
    dma->Start(c.startBytes, TRUE);
    (c.capture ? r.render->mMMEReadPos : r.render->mWritePos) = c.ringPos;
    tracecap::clearTrace();
    for (int p = 0; c.results[p]; ++p) {
        SCOPED_TRACE("period " + std::to_string(p));
        if (c.before)
            c.before(r, dma, p);
        EXPECT_EQ(r.period(c.capture, c.frames), c.results[p] == 'T');
    }
    EXPECT_EQ(tracecap::countLinesStartingWith(c.trace), c.traced) << tracecap::dumpTrace();
    EXPECT_EQ(dma->position(), c.position);
}

INSTANTIATE_TEST_SUITE_P(Transfer, Period, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.name);
                         });

TEST(TransferSamples, MissingRingsMoveNothing) {
    Rings r;
    MMEDMAEmulator* in = r.attach(true, 2, 16);
    MMEDMAEmulator* out = r.attach(false, 2, 16);
    r.render->mMMEReadPos = 77;
    EXPECT_FALSE(in->onInput(nullptr, r.render.get(), kPeriod));
    EXPECT_FALSE(in->onInput(r.capture.get(), nullptr, kPeriod));
    EXPECT_FALSE(out->onOutput(nullptr, kPeriod, kOffset));
    EXPECT_EQ(r.render->mMMEReadPos, 77u);
    EXPECT_EQ(in->position(), 0u);
    EXPECT_EQ(out->position(), 0u);
}

} // namespace
