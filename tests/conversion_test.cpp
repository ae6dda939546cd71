// Sample conversion: the blockwise kernels against a per-sample oracle at
// every length around their block sizes, in buffers that end right before an
// unmapped page; channel dropping and padding; the staged conversions by the
// rules and the period path's single passes against them; refusals.
#include "driver/streaming/SampleConversion.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace {

// Bytes placed so that the byte after the last one is an inaccessible page.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size) {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        mMapped = (size + page - 1) / page * page + page;
        mBase = static_cast<uint8_t*>(
            mmap(nullptr, mMapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (mBase == MAP_FAILED)
            throw std::runtime_error("mmap failed");
        mprotect(mBase + mMapped - page, page, PROT_NONE);
        mData = mBase + mMapped - page - size;
    }
    ~GuardedBytes() { munmap(mBase, mMapped); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    uint8_t* data() { return mData; }
    LONG* samples() { return reinterpret_cast<LONG*>(mData); }

private:
    size_t mMapped;
    uint8_t* mBase;
    uint8_t* mData;
};

template <typename T = uint8_t> std::vector<T> randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<T> v(n);
    for (auto& x : v)
        x = T(rng());
    return v;
}

// Random samples with the corners of the range among them.
std::vector<LONG> randomSamples(size_t n, uint32_t seed) {
    auto v = randomBytes<LONG>(n, seed);
    if (n > 3) {
        v[0] = INT32_MIN;
        v[1] = INT32_MAX;
        v[2] = -1;
    }
    return v;
}

// Per-sample oracles, straight from the rules: a PCM sample of `bits` is the
// top bits of the working sample, little-endian.
std::vector<uint8_t> oraclePack(const std::vector<LONG>& in, ULONG bits) {
    std::vector<uint8_t> out;
    for (LONG s : in)
        for (ULONG shift = 32 - bits; shift < 32; shift += 8)
            out.push_back(uint8_t(uint32_t(s) >> shift));
    return out;
}
std::vector<LONG> oracleUnpack(const uint8_t* b, size_t samples, ULONG bits) {
    std::vector<LONG> out;
    for (size_t i = 0; i < samples; ++i) {
        uint32_t v = 0;
        for (ULONG k = 0; k < bits / 8; ++k)
            v |= uint32_t(b[i * (bits / 8) + k]) << (32 - bits + 8 * k);
        out.push_back(LONG(v));
    }
    return out;
}

// Render ring sample for the WDM sample raw (its width's bytes): the
// working format shifted right arithmetically by 8.
LONG ringFromWdm(uint32_t raw, ULONG bits) {
    int32_t s = bits == 32 ? int32_t(raw) : int32_t(raw << (32 - bits)) >> (32 - bits);
    return bits == 16 ? LONG(s * 256) : bits == 24 ? LONG(s) : LONG(s >> 8);
}

// The kernels run on two paths: the dispatched one (SSSE3 shuffles for 24
// bits where the processor has them) and the x64 baseline. Both must obey
// the same rules.
class KernelPaths : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { setConversionBaselineOnly(GetParam()); }
    void TearDown() override { setConversionBaselineOnly(false); }
};

INSTANTIATE_TEST_SUITE_P(ConversionKernels, KernelPaths, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Baseline" : "Dispatched";
                         });

// Every length around the block sizes at every alignment, next to an
// unmapped page.
TEST_P(KernelPaths, MatchThePerSampleRuleInsideTheirBuffers) {
    std::vector<size_t> lengths(71);
    std::iota(lengths.begin(), lengths.end(), 0);
    lengths.insert(lengths.end(), {256, 257, 511});
    for (size_t n : lengths) {
        for (size_t misalign = 0; misalign < 4; ++misalign) {
            SCOPED_TRACE(testing::Message() << n << " samples, offset " << misalign);
            auto in = randomSamples(n, uint32_t(n * 7 + misalign));
            GuardedBytes working(n * 4);
            std::copy(in.begin(), in.end(), working.samples());
            for (ULONG bits : {16u, 24u}) {
                const size_t bytes = n * bits / 8;
                // The offset moves the start's alignment and leaves bytes
                // before the page that must stay as they were.
                GuardedBytes raw(bytes + misalign);
                uint8_t* pcm = raw.data();
                std::memset(pcm, 0xCC, bytes + misalign);
                (bits == 16 ? int32ToPcm16 : int32ToPcm24)(pcm, working.samples(), ULONG(n));
                EXPECT_EQ(std::vector<uint8_t>(pcm, pcm + bytes), oraclePack(in, bits));
                EXPECT_TRUE(std::all_of(pcm + bytes, pcm + bytes + misalign,
                                        [](uint8_t b) { return b == 0xCC; }));

                auto src = randomBytes(bytes, uint32_t(n + 99));
                std::copy(src.begin(), src.end(), pcm);
                GuardedBytes out(n * 4);
                (bits == 16 ? pcm16ToInt32 : pcm24ToInt32)(out.samples(), pcm, ULONG(bytes));
                EXPECT_EQ(std::vector<LONG>(out.samples(), out.samples() + n),
                          oracleUnpack(src.data(), n, bits));
            }
            shiftRight8(working.samples(), ULONG(n));
            for (size_t i = 0; i < n; ++i)
                ASSERT_EQ(working.samples()[i], in[i] >> 8) << i;
        }
    }
    // Byte counts that are not whole samples round down.
    const uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    LONG out[4] = {-1, -1, -1, -1};
    pcm16ToInt32(out, bytes, 5); // two samples
    EXPECT_EQ(out[1], LONG(0x04030000));
    EXPECT_EQ(out[2], -1);
    pcm24ToInt32(out, bytes, 8); // two samples
    EXPECT_EQ(out[1], LONG(0x06050400));
    EXPECT_EQ(out[2], -1);
}

// The period path's single passes against the staged conversions they
// replace (convertInput; convertOutput then shiftRight8), for every width,
// ring shapes with and without their own loops, a later first ring channel
// and lengths around the block sizes; sources and destinations end at an
// unmapped page.
TEST_P(KernelPaths, SinglePassesMatchTheStagedConversions) {
    struct Shape {
        ULONG ring, stream, first;
    };
    const Shape shapes[] = {{2, 2, 0}, {8, 2, 0}, {8, 8, 0}, {32, 2, 0}, {3, 2, 0},
                            {6, 4, 0}, {1, 1, 0}, {8, 3, 2}, {5, 1, 4},  {8, 2, 1}};
    for (ULONG bits : {16u, 24u, 32u}) {
        for (Shape sh : shapes) {
            for (ULONG frames : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 17u, 256u, 257u}) {
                SCOPED_TRACE(testing::Message()
                             << bits << " bits, ring " << sh.ring << " stream " << sh.stream
                             << " first " << sh.first << ", " << frames << " frames");
                const size_t ringSamples = size_t(frames) * sh.ring;
                const size_t pcmBytes = size_t(frames) * sh.stream * bits / 8;
                auto pcm = randomBytes(pcmBytes, frames * bits + sh.ring);
                auto ring = randomSamples(ringSamples, frames + sh.stream);

                std::vector<LONG> staged(ringSamples + sh.first, 0x77777777);
                std::fill_n(staged.begin(), sh.first, 0);
                convertOutput(frames, pcm.data(), sh.stream, bits, staged.data() + sh.first,
                              sh.ring);
                shiftRight8(staged.data(), ULONG(ringSamples));
                GuardedBytes from(pcmBytes), to(ringSamples * 4);
                std::memcpy(from.data(), pcm.data(), pcmBytes);
                std::memset(to.data(), 0xEE, ringSamples * 4);
                pcmToRing(frames, from.data(), sh.stream, bits, to.samples(), sh.ring, sh.first);
                ASSERT_EQ(0, std::memcmp(to.data(), staged.data(), ringSamples * 4));

                if (sh.first != 0)
                    continue;
                auto scratch = ring;
                std::vector<uint8_t> expected(pcmBytes, 0xEE);
                convertInput(frames, scratch.data(), sh.ring, expected.data(), sh.stream, bits);
                GuardedBytes frames32(ringSamples * 4), out(pcmBytes);
                std::memcpy(frames32.data(), ring.data(), ringSamples * 4);
                std::memset(out.data(), 0xEE, pcmBytes);
                ringToPcm(frames, frames32.samples(), sh.ring, out.data(), sh.stream, bits);
                ASSERT_EQ(0, std::memcmp(out.data(), expected.data(), pcmBytes));
                ASSERT_EQ(0, std::memcmp(frames32.data(), ring.data(), ringSamples * 4));
            }
        }
    }
}

TEST(Conversions, AbsentBuffersZeroCountsAndShapesThatDoNotFitChangeNothing) {
    LONG ring[16];
    uint8_t pcm[64];
    std::fill_n(ring, 16, 7);
    std::memset(pcm, 0xAB, sizeof pcm);
    int32ToPcm16(nullptr, ring, 4);
    int32ToPcm16(pcm, nullptr, 4);
    int32ToPcm24(pcm, ring, 0);
    pcm16ToInt32(ring, nullptr, 8);
    pcm24ToInt32(nullptr, pcm, 12);
    pcm24ToInt32(ring, pcm, 2); // less than one sample
    shiftRight8(nullptr, 4);
    dropExtraChannels(nullptr, 2, 1, 1);
    padExtraChannels(nullptr, 2, 1, 1);
    ringToPcm(2, ring, 2, pcm, 4, 16); // a stream wider than the ring
    ringToPcm(2, ring, 8, pcm, 2, 20); // no such width
    ringToPcm(0, ring, 8, pcm, 2, 16); // no frames
    ringToPcm(2, nullptr, 8, pcm, 2, 16);
    pcmToRing(2, pcm, 4, 16, ring, 2, 0); // wider than the ring
    pcmToRing(2, pcm, 2, 16, ring, 8, 7); // does not fit behind its first channel
    pcmToRing(2, pcm, 2, 20, ring, 8, 0); // no such width
    pcmToRing(2, pcm, 2, 16, nullptr, 8, 0);
    pcmToRing(2, pcm, 0, 16, ring, 8, 0);
    convertInput(2, ring, 2, pcm, 4, 16); // more stream channels than ring
    convertInput(0, ring, 2, pcm, 2, 16);
    convertInput(2, nullptr, 2, pcm, 2, 16);
    convertInput(2, ring, 0, pcm, 0, 16);
    convertOutput(2, pcm, 4, 16, ring, 2); // more stream channels than ring
    convertOutput(0, pcm, 1, 16, ring, 2);
    convertOutput(2, nullptr, 1, 16, ring, 2);
    convertOutput(2, pcm, 1, 16, nullptr, 2);
    EXPECT_TRUE(std::all_of(pcm, pcm + 64, [](uint8_t b) { return b == 0xAB; }));
    EXPECT_TRUE(std::all_of(ring, ring + 16, [](LONG s) { return s == 7; }));

    std::vector<LONG> src = {1, 2, 3, 4};
    uint8_t dst[16];
    std::memset(dst, 0x77, sizeof dst);
    // convertInput at an unknown width compacts the source but writes nothing.
    convertInput(2, src.data(), 2, dst, 1, 20);
    EXPECT_EQ(std::vector<uint8_t>(dst, dst + 16), std::vector<uint8_t>(16, 0x77));
    EXPECT_EQ(src[0], 1);
    EXPECT_EQ(src[1], 3);

    // 32 bits with source and destination the same buffer.
    std::vector<LONG> buf = {1, 2, 3, 4, 5, 6};
    convertInput(3, buf.data(), 2, buf.data(), 1, 32);
    EXPECT_EQ(std::vector<LONG>(buf.begin(), buf.begin() + 3), (std::vector<LONG>{1, 3, 5}));

    // convertOutput at an unknown width: nothing converted, the frames still padded.
    std::vector<LONG> pre = {7, 8, 9, 10, -1, -1, -1, -1};
    convertOutput(4, dst, 1, 20, pre.data(), 2);
    EXPECT_EQ(pre, (std::vector<LONG>{7, 0, 8, 0, 9, 0, 10, 0}));

    // 32 bits with source and destination the same buffer: only the widening.
    std::vector<LONG> same = {100, 200, 300, 0, 0, 0};
    convertOutput(3, same.data(), 1, 32, same.data(), 2);
    EXPECT_EQ(same, (std::vector<LONG>{100, 0, 200, 0, 300, 0}));
}

TEST(ChannelMapping, DropKeepsAndPadWidensTheFirstChannelsOfEachFrame) {
    // Equal channel counts: no frame is compacted or widened.
    std::vector<LONG> buf = {1, 2, 3, 4};
    dropExtraChannels(buf.data(), 2, 2, 0);
    padExtraChannels(buf.data(), 2, 2, 0);
    EXPECT_EQ(buf, (std::vector<LONG>{1, 2, 3, 4}));

    // Every keep/extra pair, including the specialised widths.
    const ULONG frames = 37;
    for (ULONG keep = 1; keep <= 9; ++keep) {
        for (ULONG extra = 1; extra <= 9; ++extra) {
            SCOPED_TRACE(testing::Message() << keep << "/" << extra);
            const ULONG n = keep + extra;
            std::vector<LONG> v(frames * n);
            for (ULONG i = 0; i < v.size(); ++i)
                v[i] = LONG(i);
            dropExtraChannels(v.data(), frames, keep, extra);
            for (ULONG f = 0; f < frames; ++f)
                for (ULONG c = 0; c < keep; ++c)
                    ASSERT_EQ(v[f * keep + c], LONG(f * n + c));

            std::fill(v.begin(), v.end(), -1);
            for (ULONG i = 0; i < frames * keep; ++i)
                v[i] = LONG(i + 1);
            padExtraChannels(v.data(), frames, keep, extra);
            for (ULONG f = 0; f < frames; ++f)
                for (ULONG c = 0; c < n; ++c)
                    ASSERT_EQ(v[f * n + c], c < keep ? LONG(f * keep + c + 1) : 0) << f;
        }
    }
}

// The staged conversions by the rules for every width and layout: ring
// frames keep the stream's channels (the scratch compacted to them) and
// become PCM of the width; stream PCM becomes ring frames padded with zeros
// and, through the render shift, the render ring's values. The stream ends
// right before an unmapped page; what convertOutput made comes back whole.
TEST_P(KernelPaths, StagedConversionsFollowTheRulesForEveryLayout) {
    for (ULONG bits : {16u, 24u, 32u})
        for (ULONG wdm : {1u, 2u, 3u})
            for (ULONG ring : {wdm, wdm + 1, 8u, 12u, 32u})
                for (ULONG frames : {1u, 9u, 67u}) {
                    SCOPED_TRACE(testing::Message() << bits << " bits " << wdm << " of " << ring
                                                    << " channels, " << frames << " frames");
                    const ULONG width = bits / 8;
                    const size_t pcmBytes = size_t(frames) * wdm * width;
                    auto ringFrames = randomSamples(size_t(frames) * ring, frames + ring);
                    std::vector<uint8_t> out(pcmBytes + 1, 0xEE);
                    auto scratch = ringFrames;
                    convertInput(frames, scratch.data(), ring, out.data(), wdm, bits);
                    std::vector<LONG> kept;
                    for (ULONG i = 0; i < frames * wdm; ++i)
                        kept.push_back(ringFrames[(i / wdm) * ring + i % wdm]);
                    ASSERT_EQ(std::vector<LONG>(scratch.begin(), scratch.begin() + kept.size()),
                              kept);
                    ASSERT_EQ(std::vector<uint8_t>(out.begin(), out.end() - 1),
                              oraclePack(kept, bits));
                    ASSERT_EQ(out.back(), 0xEE);

                    auto bytes = randomBytes(pcmBytes, bits * wdm * ring);
                    GuardedBytes pcm(pcmBytes);
                    std::memcpy(pcm.data(), bytes.data(), pcmBytes);
                    std::vector<LONG> work(size_t(frames) * ring + 1, 0x3C3C3C3C);
                    std::vector<LONG> expected(work.size(), 0);
                    expected.back() = 0x3C3C3C3C;
                    convertOutput(frames, pcm.data(), wdm, bits, work.data(), ring);
                    std::vector<uint8_t> back(pcmBytes + 1, 0xA5);
                    auto copy = work;
                    convertInput(frames, copy.data(), ring, back.data(), wdm, bits);
                    ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), back.begin()));
                    ASSERT_EQ(back.back(), 0xA5);
                    shiftRight8(work.data(), frames * ring);
                    for (ULONG f = 0; f < frames; ++f)
                        for (ULONG c = 0; c < wdm; ++c) {
                            uint32_t raw = 0;
                            std::memcpy(&raw, bytes.data() + (f * wdm + c) * width, width);
                            expected[f * ring + c] = ringFromWdm(raw, bits);
                        }
                    ASSERT_EQ(work, expected);
                }
}

} // namespace
