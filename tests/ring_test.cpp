// Shared sample ring: writes and reads around the ring's end and around
// 2^32, the available-frame count, the clock mapping, and refusal of rings
// whose header breaks the invariants.
#include "driver/common/AudioSM.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

std::unique_ptr<AudioSM> makeRing(ULONG channels, ULONG maxFrames) {
    auto ring = std::make_unique<AudioSM>(); // value-initialised: all zero
    ring->mChannelsPerFrame = channels;
    ring->mMaxFrames = maxFrames;
    return ring;
}

// Frames whose samples encode (frame, channel) so misplacement shows.
std::vector<LONG> pattern(ULONG frames, ULONG channels, LONG base) {
    std::vector<LONG> v(size_t(frames) * channels);
    for (ULONG f = 0; f < frames; ++f)
        for (ULONG c = 0; c < channels; ++c)
            v[size_t(f) * channels + c] = base + LONG(f * 16 + c);
    return v;
}

std::vector<LONG> ringFrames(const AudioSM& ring, ULONG index, ULONG frames) {
    const ULONG n = ring.mChannelsPerFrame;
    return std::vector<LONG>(ring.mSamples + size_t(index) * n,
                             ring.mSamples + size_t(index + frames) * n);
}

TEST(RingWrite, OnePieceUpToTheRingEndTwoPiecesPastIt) {
    // Frames ending exactly at the ring's end: index 0 is left alone.
    auto ring = makeRing(2, 100);
    ring->mSamples[0] = ring->mSamples[1] = 0x5A5A;
    ring->mWritePos = 90;
    auto data = pattern(10, 2, 1000);
    ring->writeFrames(data.data(), 10, 0);
    EXPECT_EQ(ringFrames(*ring, 90, 10), data);
    EXPECT_EQ(ringFrames(*ring, 0, 1), (std::vector<LONG>{0x5A5A, 0x5A5A}));
    EXPECT_EQ(ring->mWritePos, 100u);

    // Past the end: the rest continues at index 0, in order.
    ring = makeRing(3, 64);
    ring->mWritePos = 60;
    data = pattern(10, 3, 7);
    ring->writeFrames(data.data(), 10, 0);
    EXPECT_EQ(ringFrames(*ring, 60, 4), std::vector<LONG>(data.begin(), data.begin() + 4 * 3));
    EXPECT_EQ(ringFrames(*ring, 0, 6), std::vector<LONG>(data.begin() + 4 * 3, data.end()));
    EXPECT_EQ(ring->mWritePos, 70u);
}

TEST(RingWrite, OffsetPlacesFramesAheadButPositionAdvancesByFramesOnly) {
    auto ring = makeRing(2, 4096);
    ring->mWritePos = 100;
    auto first = pattern(256, 2, 1);
    auto second = pattern(256, 2, 50000);
    ring->writeFrames(first.data(), 256, 1700);
    EXPECT_EQ(ring->mWritePos, 356u);
    EXPECT_EQ(ring->mWriteOffset, 1700u);
    EXPECT_EQ(ringFrames(*ring, 1800, 256), first);
    // The next write with the same offset continues where the last ended.
    ring->writeFrames(second.data(), 256, 1700);
    EXPECT_EQ(ringFrames(*ring, 2056, 256), second);
    EXPECT_EQ(ring->mWritePos, 612u);
    // The writer's frontier is mWritePos + mWriteOffset.
    EXPECT_EQ(ring->framesAvailable(100), 612u + 1700u - 100u);
}

TEST(RingWrite, ZeroFramesOrNoSourceChangeOnlyWhatTheyMust) {
    auto ring = makeRing(2, 128);
    ring->mWritePos = 5;
    ring->mSamples[10] = 77;
    ring->writeFrames(nullptr, 0, 3);
    ring->writeSilence(0, 9);
    EXPECT_EQ(ring->mWritePos, 5u);
    EXPECT_EQ(ring->mWriteOffset, 9u);
    EXPECT_EQ(ring->mSamples[10], 77);

    ring->writeFrames(nullptr, 20, 4); // no source: offset and position only
    EXPECT_EQ(ring->mWritePos, 25u);
    EXPECT_EQ(ring->mWriteOffset, 4u);
    EXPECT_EQ(ring->mSamples[10], 77);
}

TEST(RingWrite, SilenceZeroesTheFramesAtTheOffsetAcrossTheEnd) {
    auto ring = makeRing(2, 50);
    std::fill(std::begin(ring->mSamples), std::begin(ring->mSamples) + 100, 3);
    ring->mWritePos = 40;
    ring->writeSilence(20, 5); // frames 45..49 and 0..14
    std::vector<LONG> expected(100, 3);
    std::fill(expected.begin(), expected.begin() + 30, 0);
    std::fill(expected.begin() + 90, expected.end(), 0);
    EXPECT_EQ(ringFrames(*ring, 0, 50), expected);
    EXPECT_EQ(ring->mWritePos, 60u);
}

TEST(RingWrite, PeriodLongerThanTheRing) {
    auto ring = makeRing(1, 8);
    std::fill(std::begin(ring->mSamples), std::begin(ring->mSamples) + 12, 9);
    auto data = pattern(20, 1, 1);
    // Data that would overwrite itself is refused outright.
    ring->writeFrames(data.data(), 20, 0);
    EXPECT_EQ(ring->mWritePos, 0u);
    EXPECT_EQ(ring->mSamples[0], 9);
    // Silence that long silences the whole ring and still advances.
    ring->writeSilence(20, 0);
    EXPECT_EQ(ring->mWritePos, 20u);
    // Samples 8..11 lie beyond the ring.
    EXPECT_EQ(std::vector<LONG>(ring->mSamples, ring->mSamples + 12),
              (std::vector<LONG>{0, 0, 0, 0, 0, 0, 0, 0, 9, 9, 9, 9}));
}

TEST(RingRead, CopiesOneOrTwoPiecesAndAdvancesThePosition) {
    auto ring = makeRing(4, 32);
    auto data = pattern(32, 4, 100);
    std::copy(data.begin(), data.end(), ring->mSamples);
    std::vector<LONG> out(12 * 4, -1);
    ULONG pos = 32 * 5 + 26; // index 26: 6 frames to the end, 6 from the start
    ring->readFrames(pos, out.data(), 12, copySamples);
    EXPECT_EQ(pos, 32u * 5 + 38);
    std::vector<LONG> expected(data.begin() + 26 * 4, data.end());
    expected.insert(expected.end(), data.begin(), data.begin() + 6 * 4);
    EXPECT_EQ(out, expected);
}

TEST(RingRead, SkippedWithoutDestinationOrCopyRoutineAndSilencedByZeroSamples) {
    auto ring = makeRing(2, 16);
    auto data = pattern(16, 2, 1);
    std::copy(data.begin(), data.end(), ring->mSamples);
    std::vector<LONG> out(10 * 2 + 1, -1);
    ULONG pos = 10;
    ring->readFrames(pos, nullptr, 4, copySamples);
    EXPECT_EQ(pos, 14u);
    ring->readFrames(pos, out.data(), 4, nullptr);
    EXPECT_EQ(pos, 18u);
    EXPECT_EQ(out, std::vector<LONG>(21, -1));
    // Skipping does not need the frames to fit the ring.
    ring->readFrames(pos, nullptr, 1000, nullptr);
    EXPECT_EQ(pos, 1018u);

    // zeroSamples delivers silence for the frames read, across the end, and
    // advances like a copy.
    pos = 12;
    ring->readFrames(pos, out.data(), 10, zeroSamples);
    EXPECT_EQ(pos, 22u);
    std::vector<LONG> expected(21, 0);
    expected[20] = -1; // guard after the frames read
    EXPECT_EQ(out, expected);
    EXPECT_EQ(ringFrames(*ring, 0, 16), data); // the ring itself is untouched
}

TEST(RingPositions, AvailableFramesAreUnsignedModulo2To32) {
    auto ring = makeRing(2, 1024);
    ring->mWritePos = 500;
    ring->mWriteOffset = 0;
    EXPECT_EQ(ring->framesAvailable(510), 4294967286u);
    EXPECT_EQ(ring->framesAvailable(244), 256u);
    ring->mWritePos = 0x00000010;
    ring->mWriteOffset = 0;
    EXPECT_EQ(ring->framesAvailable(0xFFFFFFF0u), 0x20u);
    ring->mWritePos = 0xFFFFFF00u;
    ring->mWriteOffset = 0x200;
    EXPECT_EQ(ring->framesAvailable(0xFFFFFF00u), 0x200u);
}

TEST(RingPositions, IndexComesFromTheWrappedPosition) {
    auto ring = makeRing(1, 1000); // does not divide 2^32
    ring->mWritePos = 0xFFFFFFFFu;
    LONG a = 11, b = 22;
    ring->writeFrames(&a, 1, 0); // index 0xFFFFFFFF % 1000 = 295
    EXPECT_EQ(ring->mSamples[295], 11);
    EXPECT_EQ(ring->mWritePos, 0u);
    ring->writeFrames(&b, 1, 0); // position 0 maps to index 0: the index jumps
    EXPECT_EQ(ring->mSamples[0], 22);
    EXPECT_EQ(ring->mSamples[296], 0);
}

// A writer and a reader that move the same chunks agree across the 2^32
// wrap for any ring size; with a ring size that divides 2^32 they agree
// whatever chunks each side uses.
void roundTrip(ULONG maxFrames, ULONG writeChunk, ULONG readChunk, ULONG start) {
    auto ring = makeRing(3, maxFrames);
    ring->mWritePos = start;
    ULONG readPos = start;
    std::mt19937 rng(maxFrames ^ writeChunk ^ readChunk);
    std::vector<LONG> sent, received;
    for (int round = 0; round < 40; ++round) {
        auto data = pattern(writeChunk, 3, LONG(rng() & 0xFFFFFF));
        ring->writeFrames(data.data(), writeChunk, 0);
        sent.insert(sent.end(), data.begin(), data.end());
        while (ring->framesAvailable(readPos) >= readChunk) {
            std::vector<LONG> out(size_t(readChunk) * 3);
            ring->readFrames(readPos, out.data(), readChunk, copySamples);
            received.insert(received.end(), out.begin(), out.end());
        }
    }
    ASSERT_GT(received.size(), 0u);
    EXPECT_TRUE(std::equal(received.begin(), received.end(), sent.begin()));
    EXPECT_EQ(readPos - start, ULONG(received.size() / 3));
}

TEST(RingPositions, DataSurvivesTheWrapOfPositionsAt2To32) {
    roundTrip(1000, 256, 256, 0xFFFFF000u);
    roundTrip(1024, 256, 100, 0xFFFFF010u);
    roundTrip(4096, 300, 256, 0xFFFFFE00u);
}

TEST(RingHeader, BrokenInvariantsAreRefusedByEveryOperation) {
    struct Case {
        ULONG channels, frames;
    } bad[] = {{0, 100}, {2, 0}, {2, 65537}, {131073, 1}, {0x10000, 0x10000}};
    for (const Case& c : bad) {
        SCOPED_TRACE(testing::Message() << c.channels << "x" << c.frames);
        auto ring = makeRing(c.channels, c.frames);
        EXPECT_FALSE(ring->isUsable());
        ring->mWritePos = 10;
        ring->mWriteOffset = 3;
        LONG src[4] = {1, 2, 3, 4};
        LONG dst[4] = {9, 9, 9, 9};
        ring->writeFrames(src, 1, 7);
        ring->writeSilence(1, 7);
        ULONG pos = 5;
        ring->readFrames(pos, dst, 1, copySamples);
        EXPECT_EQ(ring->mWritePos, 10u);
        EXPECT_EQ(ring->mWriteOffset, 3u);
        EXPECT_EQ(pos, 5u);
        EXPECT_EQ(dst[0], 9);
    }
    EXPECT_TRUE(makeRing(1, 131072)->isUsable());
    EXPECT_TRUE(makeRing(32, 4096)->isUsable());
    EXPECT_FALSE(makeRing(32, 4097)->isUsable());
}

TEST(RingHeader, ACallerSizedForAnotherChannelCountIsRefused) {
    auto ring = makeRing(4, 64);
    ULONG channels = 0, frames = 0;
    ASSERT_TRUE(ring->shape(&channels, &frames));
    EXPECT_EQ(channels, 4u);
    EXPECT_EQ(frames, 64u);

    // A caller that sized its buffers for 2 channels must not get 4.
    std::vector<LONG> small(2 * 2, 5);
    ring->writeFrames(small.data(), 2, 0, 2);
    ring->writeSilence(2, 0, 2);
    ULONG pos = 0;
    ring->readFrames(pos, small.data(), 2, copySamples, 2);
    EXPECT_EQ(ring->mWritePos, 0u);
    EXPECT_EQ(pos, 0u);
    EXPECT_EQ(small, std::vector<LONG>(4, 5));

    auto data = pattern(2, 4, 1);
    ring->writeFrames(data.data(), 2, 0, 4);
    std::vector<LONG> out(8);
    ring->readFrames(pos, out.data(), 2, copySamples, 4);
    EXPECT_EQ(out, data);
    EXPECT_EQ(pos, 2u);

    ring->mChannelsPerFrame = 0;
    channels = 77;
    EXPECT_FALSE(ring->shape(&channels, &frames));
    EXPECT_EQ(channels, 77u);
}

TEST(RingClock, MapsPositionsThroughTheSelectedBlock) {
    auto ring = makeRing(2, 1024);
    ring->mClockA = {100, 0, 5000, 0, 10, 3};
    ring->mClockB = {0, 0, 777, 0, 1, 0}; // no mapping
    ring->mClockSelect = 1;
    const AudioSMClock& a = ring->currentClock();
    EXPECT_EQ(&a, &ring->mClockA);
    EXPECT_EQ(a.stampOf(97), 4990); // -3 * 10 / 3 = -10
    EXPECT_EQ(a.stampOf(130), 5100);
    EXPECT_EQ(a.stampOf(101), 5003); // 10 / 3 truncates
    EXPECT_EQ(a.stampOf(99), 4997);  // -10 / 3 truncates toward zero
    ring->mClockSelect = 0;
    const AudioSMClock& b = ring->currentClock();
    EXPECT_EQ(&b, &ring->mClockB);
    EXPECT_EQ(b.stampOf(0), 0);
    EXPECT_EQ(b.stampOf(123456), 0);
}

TEST(RingClock, WidenedSignedArithmeticThatNeverTraps) {
    AudioSMClock c = {0xFFFFFFF0u, 0, 1000, 0, 1, 1};
    // Positions are widened before the signed subtraction: no wrap-around
    // folding, position 0x10 is far below framePos.
    EXPECT_EQ(c.stampOf(0x10), 1000 + 0x10 - int64_t(0xFFFFFFF0u));
    EXPECT_EQ(c.stampOf(0xFFFFFFFFu), 1015);
    c = {0, 0, 0, 0, INT64_MIN, -1};
    EXPECT_EQ(c.stampOf(1), INT64_MIN); // INT64_MIN / -1 wraps instead of faulting
    c = {0, 0, 0, 0, INT64_MAX, 1};
    EXPECT_EQ(c.stampOf(1), INT64_MAX);
    c = {0, 0, 5, 0, 7, -1};
    EXPECT_EQ(c.stampOf(3), 5 - 21);
}

} // namespace
