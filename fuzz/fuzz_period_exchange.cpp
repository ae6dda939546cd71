// Fuzzes the period exchange: streams and their channels' shapes, link
// pointers, both ring headers and positions as a faulty USB driver could
// leave them, then 1 to 3 callbacks at dispatch level. The driver writes
// nothing of the capture ring and only the positions of the render ring's
// header, nothing past the render ring's end; each callback moves as many
// 256-frame passes (0 to 2) as the rings allow on both positions; channel
// positions stay inside their buffers; and rings, buffers and positions end
// exactly as the staged form of the same passes leaves copies of them.
#include "FuzzSupport.h"

#include "support/StagedTransfer.h"

#include <cstddef>
#include <memory>

namespace {

using fuzzsupport::Input;

// A ring's header: everything after its samples.
using Header = std::vector<uint8_t>;
constexpr size_t kHeaderAt = offsetof(AudioSM, mChannelsPerFrame);
Header headerOf(const AudioSM& r) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&r);
    return Header(bytes + kHeaderAt, bytes + sizeof(AudioSM));
}
void restore(AudioSM& r, const Header& h) {
    std::memcpy(reinterpret_cast<uint8_t*>(&r) + kHeaderAt, h.data(), h.size());
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Stack* rig = &fuzzsupport::Stack::shared();
    MMEAdapter* adapter = rig->adapter;
    MMEAdapterInfo& link = adapter->linkInfo();
    static const MMEAdapterInfo initialLink = link;
    AudioSM& captureRing = rig->usb.captureRing();
    AudioSM& renderRing = rig->usb.renderRing();
    static const Header initialCapture = headerOf(captureRing);
    static const Header initialRender = headerOf(renderRing);
    MMEDMAEmulator* dmas[2] = {adapter->getCaptureDMAChannel(), adapter->getRenderDMAChannel()};

    Input in(data, size);
    fuzzsupport::PoolMark mark([&] { return rig->channelBuffers(); });

    // Streams and the shapes of their channels (allocating: outside the period).
    fuzzsupport::Stack::Opened streams[2];
    for (int d = 0; d < 2; ++d) {
        const bool capture = d == 0;
        const uint8_t how = in.u8();
        if (!(how & 1))
            continue;
        streams[d] = rig->openStereo(capture);
        if (how & 2) {
            ChannelConfig& wanted = link.mcAttachChannels;
            (capture ? wanted.inCH : wanted.outCH) = in.below(41);
            const ULONG channels = 1 + in.below(40);
            const ULONG bits = in.oneOf({16, 24, 32, 20, 0, 8});
            const ULONG firstRing = (how & 4) ? in.below(12) : 0;
            dmas[d]->setStreamFormat(streams[d].object(), channels, bits, firstRing);
        }
        if (how & 8)
            dmas[d]->Start(in.u32() % 70000, TRUE);
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

    const ULONG renderUsed =
        usable(renderRing) ? renderRing.mChannelsPerFrame * renderRing.mMaxFrames : nMaxSamples;
    for (ULONG i = 0; i < kSentinelSamples && renderUsed + i < nMaxSamples; ++i)
        renderRing.mSamples[renderUsed + i] = kSentinel;
    unsigned char prefix[MME_CAPTURE_RING_PREFIX];
    std::memcpy(prefix, rig->usb.captureBlock(), sizeof(prefix));

    for (unsigned c = 0; c < callbacks; ++c) {
        const Header capBefore = headerOf(captureRing), renBefore = headerOf(renderRing);
        const ULONG readPos = renderRing.mMMEReadPos, writePos = renderRing.mWritePos;
        const ULONG writeOffset = renderRing.mWriteOffset;
        ULONG passes = 0;
        if (attached && link.mpCaptureRing && link.mpSharedMemory &&
            readPos != MME_RING_NOT_ATTACHED && usable(renderRing) && usable(captureRing)) {
            const ULONG available = captureRing.mWritePos + captureRing.mWriteOffset - readPos;
            passes = available / 256 < 2 ? available / 256 : 2;
        }

        // The same passes in the staged form, on copies.
        auto stagedCapture = streamtest::StagedChannel::of(*dmas[0]);
        auto stagedRender = streamtest::StagedChannel::of(*dmas[1]);
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

        for (const std::string& diff : {streamtest::channelDifference(stagedCapture, *dmas[0]),
                                        streamtest::channelDifference(stagedRender, *dmas[1]),
                                        streamtest::ringDifference(*capCopy, captureRing),
                                        streamtest::ringDifference(*renCopy, renderRing)})
            FUZZ_CHECK(diff.empty(), "single pass and staged form differ: " + diff);

        FUZZ_CHECK(headerOf(captureRing) == capBefore,
                   "the driver wrote into the capture ring's header");
        FUZZ_CHECK(renderRing.mMMEReadPos == readPos + passes * 256, "capture read position");
        FUZZ_CHECK(renderRing.mWritePos == writePos + passes * 256, "render write position");
        FUZZ_CHECK(!passes || renderRing.mWriteOffset == MME_RENDER_WRITE_OFFSET,
                   "render write offset");
        // Besides its positions, nothing of the render ring's header changed.
        Header renAfter = headerOf(renderRing);
        restore(renderRing, renBefore);
        renderRing.mMMEReadPos = readPos + passes * 256;
        renderRing.mWritePos = writePos + passes * 256;
        renderRing.mWriteOffset = passes ? MME_RENDER_WRITE_OFFSET : writeOffset;
        FUZZ_CHECK(headerOf(renderRing) == renAfter,
                   "the driver wrote into the render ring's header");
        for (MMEDMAEmulator* dma : dmas) {
            const ULONG bytes = dma->BufferSize();
            FUZZ_CHECK(bytes ? dma->position() < bytes : dma->position() == 0,
                       "position outside the cyclic buffer");
            FUZZ_CHECK(bytes ? dma->transferOffset() < bytes : dma->transferOffset() == 0,
                       "transfer offset outside the cyclic buffer");
        }
    }
    for (ULONG i = 0; i < kSentinelSamples && renderUsed + i < nMaxSamples; ++i)
        FUZZ_CHECK(renderRing.mSamples[renderUsed + i] == kSentinel, "written past the ring");
    FUZZ_CHECK(std::memcmp(prefix, rig->usb.captureBlock(), sizeof(prefix)) == 0,
               "the capture block's prefix was written");

    for (auto& s : streams)
        fuzzsupport::Stack::close(s);
    restore(captureRing, initialCapture);
    restore(renderRing, initialRender);
    link.mpCaptureRing = initialLink.mpCaptureRing;
    link.mpSharedMemory = initialLink.mpSharedMemory;
    adapter->onNotify(MMENotify_OnMMEDetached, 0);
    rig->restore(mark);
    return 0;
}
