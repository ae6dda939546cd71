// Shared sample ring: writes and reads around the ring's end and around
// 2^32 against a model of the ring, the available-frame count, the clock
// mapping, and refusal of rings whose header breaks the invariants.
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
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = base + LONG(i / channels * 16 + i % channels);
    return v;
}

enum Kind { Data, Silence, NoSource };

struct WriteCase {
    const char* name;
    Kind kind;
    ULONG channels, maxFrames, writePos, offset, frames;
    int writes;
};

// The writer's frames go to (position + offset) mod maxFrames on; data longer
// than the ring is refused outright, silence that long silences all of it.
const WriteCase kWrites[] = {
    {"EndsExactlyAtTheRingsEnd", Data, 2, 100, 90, 0, 10, 1},
    {"PastTheEndContinuesAtIndexZero", Data, 3, 64, 60, 0, 10, 1},
    {"OffsetPlacesFramesAheadPositionMovesByFrames", Data, 2, 4096, 100, 1700, 256, 2},
    {"IndexComesFromTheWrappedPosition", Data, 1, 1000, 0xFFFFFFFFu, 0, 1, 2},
    {"ExactlyTheRingsSize", Data, 2, 64, 10, 0, 64, 1},
    {"DataLongerThanTheRingIsRefused", Data, 1, 8, 0, 0, 20, 1},
    {"ZeroFramesSetOnlyTheOffset", Data, 2, 128, 5, 3, 0, 1},
    {"SilenceAcrossTheEnd", Silence, 2, 50, 40, 5, 20, 1},
    {"SilenceLongerThanTheRingSilencesAllOfIt", Silence, 1, 8, 3, 0, 20, 1},
    {"ZeroFramesOfSilence", Silence, 2, 128, 5, 9, 0, 1},
    {"NoSourceMovesOnlyPositions", NoSource, 2, 128, 5, 4, 20, 1},
};

class RingWrite : public ::testing::TestWithParam<WriteCase> {};

TEST_P(RingWrite, PlacesFramesAsTheModelDoes) {
    const WriteCase& c = GetParam();
    auto ring = makeRing(c.channels, c.maxFrames);
    const size_t samples = size_t(c.channels) * c.maxFrames + 16; // 16 beyond the ring
    std::fill_n(ring->mSamples, samples, 3);
    std::vector<LONG> model(ring->mSamples, ring->mSamples + samples);
    ring->mWritePos = c.writePos;
    ULONG pos = c.writePos, offset = 0;
    for (int w = 0; w < c.writes; ++w) {
        const auto data = pattern(c.frames, c.channels, 1000 * (w + 1));
        if (c.kind == Silence)
            ring->writeSilence(c.frames, c.offset);
        else
            ring->writeFrames(c.kind == Data ? data.data() : nullptr, c.frames, c.offset);
        if (c.kind == Data && c.frames > c.maxFrames)
            continue;
        offset = c.offset;
        const ULONG fill = c.kind == NoSource ? 0 : std::min(c.frames, c.maxFrames);
        for (ULONG f = 0; f < fill; ++f)
            for (ULONG ch = 0; ch < c.channels; ++ch)
                model[size_t((pos + offset) % c.maxFrames + f) % c.maxFrames * c.channels + ch] =
                    c.kind == Data ? data[size_t(f) * c.channels + ch] : 0;
        pos += c.frames;
    }
    EXPECT_EQ(std::vector<LONG>(ring->mSamples, ring->mSamples + samples), model);
    EXPECT_EQ(ring->mWritePos, pos);
    EXPECT_EQ(ring->mWriteOffset, offset);
}

INSTANTIATE_TEST_SUITE_P(Ring, RingWrite, ::testing::ValuesIn(kWrites),
                         [](const ::testing::TestParamInfo<WriteCase>& info) {
                             return std::string(info.param.name);
                         });

struct ReadCase {
    const char* name;
    ULONG channels, maxFrames, readPos, frames;
    bool destination;
    AudioSMCopy copy;
};

// Copying reads take at most the ring; skips (no destination or no copy
// routine) move the position by any count; zeroSamples reads silence.
const ReadCase kReads[] = {
    {"TwoPiecesAcrossTheEnd", 4, 32, 32 * 5 + 26, 12, true, copySamples},
    {"EndsExactlyAtTheRingsEnd", 4, 32, 20, 12, true, copySamples},
    {"ExactlyTheRingsSize", 2, 16, 7, 16, true, copySamples},
    {"LongerThanTheRingIsRefused", 2, 16, 7, 17, true, copySamples},
    {"NoDestinationSkips", 2, 16, 10, 1000, false, copySamples},
    {"NoCopyRoutineSkips", 2, 16, 10, 4, true, nullptr},
    {"ZeroSamplesAcrossTheEnd", 2, 16, 12, 10, true, zeroSamples},
};

class RingRead : public ::testing::TestWithParam<ReadCase> {};

TEST_P(RingRead, DeliversFramesAsTheModelDoes) {
    const ReadCase& c = GetParam();
    auto ring = makeRing(c.channels, c.maxFrames);
    const auto data = pattern(c.maxFrames, c.channels, 100);
    std::copy(data.begin(), data.end(), ring->mSamples);
    std::vector<LONG> out(size_t(c.frames + 1) * c.channels, -1), model = out;
    const bool copying = c.destination && c.copy;
    ULONG pos = c.readPos;
    ring->readFrames(pos, c.destination ? out.data() : nullptr, c.frames, c.copy);
    const bool refused = copying && c.frames > c.maxFrames;
    EXPECT_EQ(pos, refused ? c.readPos : c.readPos + c.frames);
    for (ULONG f = 0; copying && !refused && f < c.frames; ++f)
        for (ULONG ch = 0; ch < c.channels; ++ch)
            model[size_t(f) * c.channels + ch] =
                c.copy == zeroSamples
                    ? 0
                    : data[size_t((c.readPos + f) % c.maxFrames) * c.channels + ch];
    EXPECT_EQ(out, model);
    EXPECT_EQ(std::vector<LONG>(ring->mSamples, ring->mSamples + data.size()), data);
}

INSTANTIATE_TEST_SUITE_P(Ring, RingRead, ::testing::ValuesIn(kReads),
                         [](const ::testing::TestParamInfo<ReadCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(RingPositions, AvailableFramesAreUnsignedModulo2To32) {
    struct {
        ULONG writePos, offset, readPos, available;
    } cases[] = {{500, 0, 510, 4294967286u},
                 {500, 0, 244, 256},
                 {0x10, 0, 0xFFFFFFF0u, 0x20},
                 {0xFFFFFF00u, 0x200, 0xFFFFFF00u, 0x200},
                 {612, 1700, 100, 612 + 1700 - 100}};
    auto ring = makeRing(2, 1024);
    for (const auto& c : cases) {
        ring->mWritePos = c.writePos;
        ring->mWriteOffset = c.offset;
        EXPECT_EQ(ring->framesAvailable(c.readPos), c.available) << c.writePos << "/" << c.readPos;
    }
}

// A writer and a reader that move the same chunks agree across the 2^32
// wrap for any ring size; with a ring size that divides 2^32 they agree
// whatever chunks each side uses.
TEST(RingPositions, DataSurvivesTheWrapOfPositionsAt2To32) {
    struct {
        ULONG maxFrames, writeChunk, readChunk, start;
    } cases[] = {{1000, 256, 256, 0xFFFFF000u},
                 {1024, 256, 100, 0xFFFFF010u},
                 {4096, 300, 256, 0xFFFFFE00u}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.maxFrames);
        auto ring = makeRing(3, c.maxFrames);
        ring->mWritePos = c.start;
        ULONG readPos = c.start;
        std::mt19937 rng(c.maxFrames ^ c.writeChunk ^ c.readChunk);
        std::vector<LONG> sent, received;
        for (int round = 0; round < 40; ++round) {
            auto data = pattern(c.writeChunk, 3, LONG(rng() & 0xFFFFFF));
            ring->writeFrames(data.data(), c.writeChunk, 0);
            sent.insert(sent.end(), data.begin(), data.end());
            while (ring->framesAvailable(readPos) >= c.readChunk) {
                std::vector<LONG> out(size_t(c.readChunk) * 3);
                ring->readFrames(readPos, out.data(), c.readChunk, copySamples);
                received.insert(received.end(), out.begin(), out.end());
            }
        }
        ASSERT_GT(received.size(), 0u);
        EXPECT_TRUE(std::equal(received.begin(), received.end(), sent.begin()));
        EXPECT_EQ(readPos - c.start, ULONG(received.size() / 3));
    }
}

// Also refused: a caller that sized its buffers for another channel count.
TEST(RingHeader, BrokenInvariantsAreRefusedByEveryOperation) {
    struct {
        ULONG channels, frames;
        bool usable;
    } cases[] = {
        {0, 100, false},           {2, 0, false},     {2, 65537, false}, {131073, 1, false},
        {0x10000, 0x10000, false}, {32, 4097, false}, {1, 131072, true}, {32, 4096, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.channels << "x" << c.frames);
        auto ring = makeRing(c.channels, c.frames);
        EXPECT_EQ(ring->isUsable(), c.usable);
        if (c.usable)
            continue;
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
    EXPECT_EQ(&ring->currentClock(), &ring->mClockA);
    ring->mClockSelect = 0;
    EXPECT_EQ(&ring->currentClock(), &ring->mClockB);

    // Positions are widened before the signed subtraction (no folding at
    // 2^32), quotients truncate toward zero, and nothing traps.
    struct {
        AudioSMClock clock;
        ULONG position;
        int64_t stamp;
    } cases[] = {{ring->mClockA, 97, 4990},
                 {ring->mClockA, 130, 5100},
                 {ring->mClockA, 101, 5003},
                 {ring->mClockA, 99, 4997},
                 {ring->mClockB, 123456, 0},
                 {{0xFFFFFFF0u, 0, 1000, 0, 1, 1}, 0x10, 1000 + 0x10 - int64_t(0xFFFFFFF0u)},
                 {{0xFFFFFFF0u, 0, 1000, 0, 1, 1}, 0xFFFFFFFFu, 1015},
                 {{0, 0, 0, 0, INT64_MIN, -1}, 1, INT64_MIN},
                 {{0, 0, 0, 0, INT64_MAX, 1}, 1, INT64_MAX},
                 {{0, 0, 5, 0, 7, -1}, 3, 5 - 21}};
    for (const auto& c : cases)
        EXPECT_EQ(c.clock.stampOf(c.position), c.stamp) << c.position;
}

} // namespace
