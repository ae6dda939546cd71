// The period transfer in its staged form, the reference the driver's single
// pass must match bit for bit: each period is fetched into a scratch buffer
// with the ring's own readFrames, converted as a whole with convertInput /
// convertOutput, shifted into the render ring's format with shiftRight8 and
// put into the ring with writeFrames. It runs on copies of a channel's state
// and of the rings taken before the driver's call (compareWithStaged).
// Header only, so the fuzz targets use it too.
#pragma once

#include "driver/common/AudioSM.h"
#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/streaming/SampleConversion.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace streamtest {

struct StagedChannel {
    bool attached = false;
    ULONG wdmChannels = 0, wdmBits = 0, bytesPerSample = 0, firstRingChannel = 0;
    ULONG transferOffset = 0, position = 0;
    std::vector<unsigned char> cyclic;
    std::vector<LONG> scratch;

    static StagedChannel of(MMEDMAEmulator& dma) {
        StagedChannel ch;
        ch.attached = dma.stream() != nullptr;
        ch.wdmChannels = dma.wdmChannels();
        ch.wdmBits = dma.wdmBits();
        ch.bytesPerSample = dma.wdmBits() / 8;
        ch.firstRingChannel = dma.firstRingChannel();
        ch.transferOffset = dma.transferOffset();
        ch.position = dma.position();
        const auto* at = static_cast<const unsigned char*>(dma.SystemAddress());
        if (at)
            ch.cyclic.assign(at, at + dma.BufferSize());
        ch.scratch.assign(dma.usbBufferBytes() / 4, 0);
        return ch;
    }

    void advance(ULONG bytes) {
        const unsigned long long size = cyclic.size();
        if (size == 0) {
            transferOffset = position = 0;
            return;
        }
        transferOffset = ULONG((transferOffset + (unsigned long long)bytes) % size);
        position = ULONG((position + (unsigned long long)bytes) % size);
    }

    bool fits(ULONG frames, ULONG ringChannels, ULONG ringFrames, ULONG first) const {
        return frames <= ringFrames &&
               (wdmChannels > ringChannels ||
                (unsigned long long)first + wdmChannels <= ringChannels) &&
               (unsigned long long)frames * ringChannels + first <= scratch.size();
    }

    // smp1 and smp2 of a period at transferOffset; whole periods inside the
    // buffer have smp2 = 0, off-grid ones smp1 = 0.
    void split(ULONG lenMME, ULONG frames, ULONG* smp1, ULONG* smp2) const {
        if ((unsigned long long)transferOffset + lenMME <= cyclic.size()) {
            *smp1 = frames;
            *smp2 = 0;
            return;
        }
        const ULONG first = ULONG(cyclic.size()) - transferOffset;
        *smp1 = first / bytesPerSample / wdmChannels;
        *smp2 = (lenMME - first) / bytesPerSample / wdmChannels;
        if (*smp1 + *smp2 != frames) {
            *smp1 = 0;
            *smp2 = frames;
        }
    }
    unsigned char* second(ULONG smp1, ULONG frames) {
        return smp1 == frames ? nullptr : cyclic.data();
    }
};

inline bool stagedRingShape(const AudioSM* ring, ULONG* channels, ULONG* frames) {
    *channels = ring->mChannelsPerFrame;
    *frames = ring->mMaxFrames;
    return *channels >= 1 && *frames >= 1 &&
           (unsigned long long)*channels * *frames <= (unsigned long long)nMaxSamples;
}

inline bool stagedInput(StagedChannel& ch, AudioSM* capture, AudioSM* render, ULONG frames) {
    ULONG rc, rf;
    if (!capture || !render || !stagedRingShape(capture, &rc, &rf))
        return false;
    ULONG readPos = render->mMMEReadPos;
    auto skip = [&] { render->mMMEReadPos = readPos + frames; };
    if (!ch.attached || ch.wdmChannels == 0) {
        skip();
        return false;
    }
    const unsigned long long lenMME =
        (unsigned long long)frames * ch.bytesPerSample * ch.wdmChannels;
    if (lenMME > ch.cyclic.size()) {
        skip();
        return true;
    }
    if (lenMME != 0) {
        if (!ch.fits(frames, rc, rf, 0)) {
            skip();
            return true;
        }
        LONG* scratch = ch.scratch.data();
        capture->readFrames(readPos, scratch, frames,
                            capture->mExclInputs ? zeroSamples : copySamples);
        render->mMMEReadPos = readPos;
        ULONG smp1, smp2;
        ch.split(ULONG(lenMME), frames, &smp1, &smp2);
        convertInput(smp1, scratch, rc, ch.cyclic.data() + ch.transferOffset, ch.wdmChannels,
                     ch.wdmBits);
        convertInput(smp2, scratch + size_t(smp1) * rc, rc, ch.second(smp1, frames), ch.wdmChannels,
                     ch.wdmBits);
    }
    ch.advance(ULONG(lenMME));
    return true;
}

inline bool stagedOutput(StagedChannel& ch, AudioSM* render, ULONG frames, ULONG writeOffset) {
    ULONG rc, rf;
    if (!render || !stagedRingShape(render, &rc, &rf))
        return false;
    if (!ch.attached || ch.wdmChannels == 0) {
        render->writeSilence(frames, writeOffset);
        return false;
    }
    const unsigned long long lenMME =
        (unsigned long long)frames * ch.bytesPerSample * ch.wdmChannels;
    if (lenMME > ch.cyclic.size()) {
        render->writeSilence(frames, writeOffset);
        return true;
    }
    if (lenMME != 0) {
        const ULONG first = ch.firstRingChannel;
        if (!ch.fits(frames, rc, rf, first)) {
            render->writeSilence(frames, writeOffset);
            return true;
        }
        if (ch.wdmChannels > rc) {
            // The conversions do nothing; the scratch holds nothing of this
            // period, so the ring gets silence.
            render->writeSilence(frames, writeOffset);
        } else {
            LONG* scratch = ch.scratch.data();
            std::memset(scratch, 0, first * sizeof(LONG));
            ULONG smp1, smp2;
            ch.split(ULONG(lenMME), frames, &smp1, &smp2);
            convertOutput(smp1, ch.cyclic.data() + ch.transferOffset, ch.wdmChannels, ch.wdmBits,
                          scratch + first, rc);
            convertOutput(smp2, ch.second(smp1, frames), ch.wdmChannels, ch.wdmBits,
                          scratch + size_t(smp1) * rc + first, rc);
            shiftRight8(scratch, rc * frames);
            render->writeFrames(scratch, frames, writeOffset);
        }
    }
    ch.advance(ULONG(lenMME));
    return true;
}

// What differs first between two rings, or between the reference's channel
// and the driver's ("" when nothing does).
inline std::string ringDifference(const AudioSM& expected, const AudioSM& actual) {
    if (std::memcmp(&expected, &actual, sizeof(AudioSM)) == 0)
        return "";
    for (ULONG i = 0; i < nMaxSamples; ++i)
        if (expected.mSamples[i] != actual.mSamples[i])
            return "sample " + std::to_string(i) + ": staged " +
                   std::to_string(expected.mSamples[i]) + ", driver " +
                   std::to_string(actual.mSamples[i]);
    return "ring header (staged write/offset/read " + std::to_string(expected.mWritePos) + "/" +
           std::to_string(expected.mWriteOffset) + "/" + std::to_string(expected.mMMEReadPos) +
           ", driver " + std::to_string(actual.mWritePos) + "/" +
           std::to_string(actual.mWriteOffset) + "/" + std::to_string(actual.mMMEReadPos) + ")";
}

inline std::string channelDifference(const StagedChannel& expected, MMEDMAEmulator& dma) {
    const auto* at = static_cast<const unsigned char*>(dma.SystemAddress());
    if (expected.transferOffset != dma.transferOffset() || expected.position != dma.position())
        return "channel offset/position: staged " + std::to_string(expected.transferOffset) + "/" +
               std::to_string(expected.position) + ", driver " +
               std::to_string(dma.transferOffset()) + "/" + std::to_string(dma.position());
    if (expected.cyclic.size() != dma.BufferSize())
        return "cyclic buffer size";
    for (size_t i = 0; i < expected.cyclic.size(); ++i)
        if (expected.cyclic[i] != at[i])
            return "cyclic byte " + std::to_string(i) + ": staged " +
                   std::to_string(expected.cyclic[i]) + ", driver " + std::to_string(at[i]);
    return "";
}

// Runs call() (the driver's transfer on rings a and b, either may be null)
// and staged(channel, copy of a, copy of b) on copies taken before it; returns
// what differs, results included ("" when nothing does).
template <typename Call, typename Staged>
std::string compareWithStaged(MMEDMAEmulator& dma, AudioSM* a, AudioSM* b, Call call,
                              Staged staged) {
    StagedChannel ch = StagedChannel::of(dma);
    std::unique_ptr<AudioSM> aCopy(a ? new AudioSM(*a) : nullptr);
    std::unique_ptr<AudioSM> bCopy(b ? new AudioSM(*b) : nullptr);
    const bool expected = staged(ch, aCopy.get(), bCopy.get());
    const bool actual = call();
    if (expected != actual)
        return std::string("result: staged ") + (expected ? "true" : "false") + ", driver " +
               (actual ? "true" : "false");
    std::string diff = channelDifference(ch, dma);
    if (diff.empty() && a)
        diff = ringDifference(*aCopy, *a);
    if (diff.empty() && b)
        diff = ringDifference(*bCopy, *b);
    return diff;
}

} // namespace streamtest
