// PCM helpers of mme-sim: packing stream samples, the test signal, and the
// conversion rules a loopback must obey, written out on their own so that
// the program checks the driver rather than repeating it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace mmesim {

struct Format {
    uint32_t rate = 48000;
    uint16_t channels = 2;
    uint16_t bits = 24;
    uint32_t blockAlign() const { return uint32_t(channels) * ((bits + 7u) / 8u); }
    std::string text() const;   // "48000 Hz, 2 channels, 24-bit"
    std::string triple() const; // "48000/2/24"
};
// Parses "rate/channels/bits"; throws std::invalid_argument saying what is
// wrong. Streaming needs 16, 24 or 32 bits; a format only to be shown to the
// driver may have any width from 1 to 32.
Format parseFormat(const std::string& text, bool streaming = true);

int32_t unpackSample(const uint8_t* p, unsigned bits);
void packSample(uint8_t* p, unsigned bits, int32_t value);

// A stream sample through render, the device's loopback and capture, by the
// conversion rules: 16-bit s reaches the render ring as s x 256 and comes
// back as s; 24-bit comes back unchanged; 32-bit loses its low 8 bits.
int32_t loopbackExpected(int32_t s, unsigned bits);

// The test signal, produced frame after frame in constant memory: cosines
// at half scale, 997 Hz on the first channel and 498 Hz higher on each next
// one, quantised to the stream's width; never zero at frame 0. Every channel
// runs a whole number of cycles in a second, so one second of packed frames,
// computed once, repeats exactly: frames cost a copy, not a libm call. For
// formats where that second would be too large, frame n of channel c is
// entry (n x Hz_c mod rate) of a one-cycle table instead. Two generators of
// one format agree bit for bit.
class TestSignal {
public:
    // Throws std::invalid_argument for a rate above kMaxRate.
    explicit TestSignal(const Format& format);
    static constexpr uint32_t kMaxRate = 768000;
    static constexpr size_t kMaxSecondBytes = size_t(16) << 20;
    // The next `frames` frames, packed in the stream's format.
    void fill(uint8_t* out, size_t frames);
    // The next frames as they must come back through the loopback: up to
    // `*frames` of them, contiguous at the pointer; *frames says how many.
    // Valid until the next call.
    const uint8_t* expected(size_t* frames);
    // Frame `frame` (from the first) as it must come back, packed; in any order.
    void expectedFrame(uint64_t frame, uint8_t* out) const;
    // The next expected() frames start at this one.
    void seek(uint64_t frame);

private:
    void produce(uint8_t* out, size_t frames, const std::vector<int32_t>& table);

    Format mFormat;
    size_t mAlign;
    std::vector<int32_t> mTable;          // one cycle at 1 Hz, rate entries
    std::vector<int32_t> mExpected;       // mTable through loopbackExpected
    std::vector<uint32_t> mPhase;         // per channel: table index of the next frame
    std::vector<uint32_t> mStep;          // per channel: Hz mod rate
    std::vector<uint8_t> mSecond;         // one second of packed frames; empty: too large
    std::vector<uint8_t> mSecondExpected; // the same through the loopback; empty: identical
    size_t mAt = 0;                       // next frame within the second
    std::vector<uint8_t> mChunk;          // expected frames when there is no second
};

struct Comparison {
    size_t samples = 0; // compared
    size_t mismatches = 0;
    size_t firstFrame = 0; // of the first mismatch
    unsigned firstChannel = 0;
    int32_t expected = 0, got = 0;
    bool complete = false; // enough capture frames to compare all of them
};

// Where the signal broke off once and went on: silence came instead of it
// for a while and/or some of its frames never came back.
struct Gap {
    uint64_t at = 0;      // captured frame where it broke off
    uint64_t silence = 0; // frames of silence inserted
    uint64_t skipped = 0; // signal frames that never came back
};

// Checks capture as it comes back: `latency` frames of silence, then
// `frames` frames of the test signal converted by the rules. Keeps nothing
// of what it saw, so a run of any length checks in constant memory.
class LoopbackCheck {
public:
    LoopbackCheck(const Format& format, uint64_t frames, uint64_t latency);
    // Takes the next captured frames; those beyond the end are ignored.
    void take(const uint8_t* captured, size_t frames);
    // Captured frames it takes to see every signal frame (with the gaps so far).
    uint64_t wanted() const { return mLatency + mFrames + mGapSilence - mGapSkipped; }
    uint64_t seen() const { return mSeen; }
    bool done() const { return mSeen >= mLatency && mSignalAt >= mFrames && !mInGap; }
    Comparison result() const;
    // First frame with a nonzero sample; npos when all silent so far.
    uint64_t firstSound() const { return mFirstSound; }

    // Gaps the run allows by now (one per sleep of the system): asked at a
    // frame that differs. A gap is silence and/or skipped signal frames,
    // then the signal again, bit-exact; never a frame repeated or earlier.
    // The signal repeats every second: a skip is looked for within half of
    // one, so that a repeat of up to half a second shows as one.
    void allowGaps(std::function<size_t()> allowed) { mGapsAllowed = std::move(allowed); }
    const std::vector<Gap>& gaps() const { return mGaps; }

private:
    static constexpr size_t kMatchFrames = 64; // to find where the signal went on
    void compare(const uint8_t* got, const uint8_t* want, size_t frames, uint64_t first);
    size_t takeSignal(const uint8_t* captured, size_t frames);
    size_t takeGap(const uint8_t* captured, size_t frames);
    void resolveGap(uint64_t capturedAt);

    Format mFormat;
    uint64_t mFrames, mLatency;
    TestSignal mSignal;
    std::vector<uint8_t> mSilence; // one chunk
    uint64_t mSeen = 0;
    uint64_t mSignalAt = 0; // the next signal frame due
    uint64_t mFirstSound = uint64_t(-1);
    Comparison mResult;

    std::function<size_t()> mGapsAllowed;
    std::vector<Gap> mGaps;
    bool mInGap = false;
    std::vector<uint8_t> mPending; // frames after the gap's silence, to place
    uint64_t mGapSilence = 0, mGapSkipped = 0;
};

} // namespace mmesim
