// Fuzzes the period exchange: ring headers, positions, link pointers and
// stream shapes as a faulty or hostile USB driver could leave them, fed to
// the exchange callback exactly as the USB driver calls it (at dispatch
// level, where allocating or waiting is a verifier failure). The driver is
// started once over the model USB driver; every input puts back what it
// changed.
//
// Input: which streams are open and how their DMA channels are shaped
// (channels, bits, first ring channel, configured ring channels, an
// off-grid transfer offset), the attached flag, missing link pointers, both
// ring headers and positions, then how many callbacks to run.
//
// Checks: the driver writes nothing of the capture ring and nothing of the
// render ring's header but its positions; the render ring's samples past
// the ring's end stay untouched; each callback moves exactly as many
// 256-frame passes (0, 1 or 2) as the rings allow, advancing the capture
// read position and the render write position by the same amount; the
// channels' positions stay inside their cyclic buffers; and the rings,
// cyclic buffers and positions end exactly as the staged form of the same
// passes leaves copies of them.
#include "FuzzSupport.h"

#include "host/portcls/KsClient.h"
#include "support/StagedTransfer.h"

#include <memory>

namespace {

using fuzzsupport::Input;

struct RingHeader {
    ULONG channels, frames, writePos, writeOffset, readPos;
    ULONGLONG excl;
    AudioSMClock clockA, clockB;
    ULONG clockSelect;

    static RingHeader of(const AudioSM& r) {
        return RingHeader{r.mChannelsPerFrame, r.mMaxFrames,  r.mWritePos,
                          r.mWriteOffset,      r.mMMEReadPos, r.mExclInputs,
                          r.mClockA,           r.mClockB,     r.mClockSelect};
    }
    void restore(AudioSM& r) const {
        r.mChannelsPerFrame = channels;
        r.mMaxFrames = frames;
        r.mWritePos = writePos;
        r.mWriteOffset = writeOffset;
        r.mMMEReadPos = readPos;
        r.mExclInputs = excl;
        r.mClockA = clockA;
        r.mClockB = clockB;
        r.mClockSelect = clockSelect;
    }
};

bool sameClock(const AudioSMClock& a, const AudioSMClock& b) {
    return a.framePos == b.framePos && a.stamp == b.stamp && a.rateNum == b.rateNum &&
           a.rateDen == b.rateDen;
}

bool sameHeader(const RingHeader& a, const RingHeader& b) {
    return a.channels == b.channels && a.frames == b.frames && a.writePos == b.writePos &&
           a.writeOffset == b.writeOffset && a.readPos == b.readPos && a.excl == b.excl &&
           sameClock(a.clockA, b.clockA) && sameClock(a.clockB, b.clockB) &&
           a.clockSelect == b.clockSelect;
}

bool usable(const AudioSM& r) {
    return r.mChannelsPerFrame >= 1 && r.mMaxFrames >= 1 &&
           (ULONGLONG)r.mChannelsPerFrame * r.mMaxFrames <= nMaxSamples;
}

void fuzzHeader(Input& in, AudioSM& ring, bool capture) {
    ring.mChannelsPerFrame =
        in.oneOf({ring.mChannelsPerFrame, 2, 8, 1, 32, 0, 64, 131072, 0x80000001u});
    ring.mMaxFrames = in.oneOf({ring.mMaxFrames, 256, 255, 4096, 1, 0, 65536, 0xFFFFFFFFu});
    ring.mWritePos = in.oneOf({ring.mWritePos, 0, 0xFFFFFF00u, 0x7FFFFFFFu});
    ring.mWriteOffset = in.oneOf({0, 256, 512, 1700, 0xFFFFFF00u});
    if (capture)
        ring.mExclInputs = in.u8() & 1;
    else
        ring.mMMEReadPos = in.oneOf({0, MME_RING_NOT_ATTACHED, 0xFFFFFE00u, 0x7FFFFF00u});
}

// A sentinel just past the ring's used samples, where nothing may write.
constexpr LONG kSentinel = 0x5EA5EA5E;
constexpr ULONG kSentinelSamples = 64;

ULONG usedSamples(const AudioSM& r) {
    return usable(r) ? r.mChannelsPerFrame * r.mMaxFrames : nMaxSamples;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::initHost();
    static fuzzsupport::Stack* rig = new fuzzsupport::Stack();
    MMEAdapter* adapter = rig->adapter;
    MMEAdapterInfo& link = adapter->linkInfo();
    static const MMEAdapterInfo initialLink = link;
    AudioSM& captureRing = rig->usb.captureRing();
    AudioSM& renderRing = rig->usb.renderRing();
    static const RingHeader initialCapture = RingHeader::of(captureRing);
    static const RingHeader initialRender = RingHeader::of(renderRing);

    Input in(data, size);
    fuzzsupport::PoolMark mark([&] { return rig->channelBuffers(); });

    // Streams and the shapes of their channels (allocating: outside the period).
    fuzzsupport::Stack::Opened streams[2];
    for (int d = 0; d < 2; ++d) {
        const bool capture = d == 0;
        const uint8_t how = in.u8();
        if (!(how & 1))
            continue;
        auto format = hostpc::pcmFormat(48000, 2, 16, false);
        streams[d] = rig->open(capture, format);
        FUZZ_CHECK(streams[d].status == STATUS_SUCCESS, "stream did not open");
        if (how & 2) {
            ChannelConfig& wanted = link.mcAttachChannels;
            (capture ? wanted.inCH : wanted.outCH) = in.below(41);
            const ULONG channels = 1 + in.below(40);
            const ULONG bits = in.oneOf({16, 24, 32, 20, 0, 8});
            const ULONG firstRing = (how & 4) ? in.below(12) : 0;
            MMEDMAEmulator* dma = streams[d].object()->dmaChannel();
            dma->setStreamFormat(streams[d].object(), channels, bits, firstRing);
        }
        if (how & 8)
            streams[d].object()->dmaChannel()->Start(in.u32() % 70000, TRUE);
    }

    // What the USB driver shares.
    const uint8_t linkFlags = in.u8();
    const bool attached = !(linkFlags & 1);
    adapter->onNotify(attached ? MMENotify_OnMMEAttached : MMENotify_OnMMEDetached, 0);
    if (linkFlags & 2)
        link.mpCaptureRing = nullptr;
    if (linkFlags & 4)
        link.mpSharedMemory = nullptr;
    fuzzHeader(in, captureRing, true);
    fuzzHeader(in, renderRing, false);
    const unsigned callbacks = 1 + in.below(3);

    const ULONG renderUsed = usedSamples(renderRing);
    for (ULONG i = 0; i < kSentinelSamples && renderUsed + i < nMaxSamples; ++i)
        renderRing.mSamples[renderUsed + i] = kSentinel;
    unsigned char prefix[MME_CAPTURE_RING_PREFIX];
    std::memcpy(prefix, rig->usb.captureBlock(), sizeof(prefix));

    for (unsigned c = 0; c < callbacks; ++c) {
        const RingHeader capBefore = RingHeader::of(captureRing);
        const RingHeader renBefore = RingHeader::of(renderRing);
        AudioSM* capture = link.mpCaptureRing ? &captureRing : nullptr;
        const bool render = link.mpSharedMemory != nullptr;

        ULONG passes = 0;
        if (attached && render && renderRing.mMMEReadPos != MME_RING_NOT_ATTACHED &&
            usable(renderRing) && (!capture || usable(*capture)) && capture) {
            const ULONG available =
                captureRing.mWritePos + captureRing.mWriteOffset - renderRing.mMMEReadPos;
            passes = available / 256 < 2 ? available / 256 : 2;
        }

        // The same passes in the staged form, on copies.
        MMEDMAEmulator* captureDma = adapter->getCaptureDMAChannel();
        MMEDMAEmulator* renderDma = adapter->getRenderDMAChannel();
        auto stagedCapture = streamtest::StagedChannel::of(*captureDma);
        auto stagedRender = streamtest::StagedChannel::of(*renderDma);
        auto capCopy = std::make_unique<AudioSM>(captureRing);
        auto renCopy = std::make_unique<AudioSM>(renderRing);
        for (ULONG p = 0; p < passes; ++p) {
            streamtest::stagedInput(stagedCapture, capCopy.get(), renCopy.get(), 256);
            streamtest::stagedOutput(stagedRender, renCopy.get(), 256, MME_RENDER_WRITE_OFFSET);
        }

        hostk::runAtDispatch([&] {
            hostk::NoAllocNoWaitScope scope("the USB driver's period callback");
            link.mpfnExchangeData(link.mpContext, &link);
        });

        for (const std::string& diff : {streamtest::channelDifference(stagedCapture, *captureDma),
                                        streamtest::channelDifference(stagedRender, *renderDma),
                                        streamtest::ringDifference(*capCopy, captureRing),
                                        streamtest::ringDifference(*renCopy, renderRing)})
            FUZZ_CHECK(diff.empty(), "single pass and staged form differ: " + diff);

        const RingHeader capAfter = RingHeader::of(captureRing);
        const RingHeader renAfter = RingHeader::of(renderRing);
        FUZZ_CHECK(sameHeader(capBefore, capAfter),
                   "the driver wrote into the capture ring's header");
        FUZZ_CHECK(renAfter.channels == renBefore.channels && renAfter.frames == renBefore.frames &&
                       renAfter.excl == renBefore.excl &&
                       sameClock(renAfter.clockA, renBefore.clockA) &&
                       sameClock(renAfter.clockB, renBefore.clockB) &&
                       renAfter.clockSelect == renBefore.clockSelect,
                   "the driver wrote into the render ring's header");
        FUZZ_CHECK(renAfter.readPos == renBefore.readPos + passes * 256,
                   "capture read position moved by " +
                       std::to_string(renAfter.readPos - renBefore.readPos) + ", expected " +
                       std::to_string(passes * 256));
        FUZZ_CHECK(renAfter.writePos == renBefore.writePos + passes * 256,
                   "render write position moved by " +
                       std::to_string(renAfter.writePos - renBefore.writePos) + ", expected " +
                       std::to_string(passes * 256));
        if (passes)
            FUZZ_CHECK(renAfter.writeOffset == MME_RENDER_WRITE_OFFSET, "render write offset");
        for (int d = 0; d < 2; ++d) {
            MMEDMAEmulator* dma =
                d ? adapter->getRenderDMAChannel() : adapter->getCaptureDMAChannel();
            const ULONG bufferBytes = dma->BufferSize();
            FUZZ_CHECK(bufferBytes ? dma->position() < bufferBytes : dma->position() == 0,
                       "position " + std::to_string(dma->position()) + " in a buffer of " +
                           std::to_string(bufferBytes));
            FUZZ_CHECK(bufferBytes ? dma->transferOffset() < bufferBytes
                                   : dma->transferOffset() == 0,
                       "transfer offset outside the cyclic buffer");
        }
    }
    for (ULONG i = 0; i < kSentinelSamples && renderUsed + i < nMaxSamples; ++i)
        FUZZ_CHECK(renderRing.mSamples[renderUsed + i] == kSentinel,
                   "render sample " + std::to_string(renderUsed + i) + " past the ring written");
    FUZZ_CHECK(std::memcmp(prefix, rig->usb.captureBlock(), sizeof(prefix)) == 0,
               "the capture block's prefix was written");

    for (auto& s : streams)
        fuzzsupport::Stack::close(s);
    initialCapture.restore(captureRing);
    initialRender.restore(renderRing);
    link.mpCaptureRing = initialLink.mpCaptureRing;
    link.mpSharedMemory = initialLink.mpSharedMemory;
    link.mcAttachChannels = initialLink.mcAttachChannels;
    adapter->onNotify(MMENotify_OnMMEDetached, 0);
    FUZZ_CHECK(!rig->wave->captureStream() && !rig->wave->renderStream(),
               "a closed stream is still held");
    mark.check();
    fuzzsupport::requireNoReports();
    return 0;
}
