// PCM packing, test signal and the loopback rule of mme-sim.
#include "Pcm.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace mmesim {

std::string Format::text() const {
    return std::to_string(rate) + " Hz, " + std::to_string(channels) + " channels, " +
           std::to_string(bits) + "-bit";
}

std::string Format::triple() const {
    return std::to_string(rate) + "/" + std::to_string(channels) + "/" + std::to_string(bits);
}

Format parseFormat(const std::string& text, bool streaming) {
    uint64_t values[3] = {0, 0, 0};
    size_t at = 0;
    for (int i = 0; i < 3; ++i) {
        size_t end = at;
        while (end < text.size() && text[end] >= '0' && text[end] <= '9')
            ++end;
        if (end == at || end - at > 9)
            throw std::invalid_argument("--format \"" + text +
                                        "\": use rate/channels/bits, e.g. 48000/2/24");
        values[i] = std::stoull(text.substr(at, end - at));
        at = end;
        if (i < 2) {
            if (at >= text.size() || text[at] != '/')
                throw std::invalid_argument("--format \"" + text +
                                            "\": use rate/channels/bits, e.g. 48000/2/24");
            ++at;
        }
    }
    if (at != text.size())
        throw std::invalid_argument("--format \"" + text +
                                    "\": use rate/channels/bits, e.g. 48000/2/24");
    if (values[0] == 0 || values[1] == 0 || values[1] > 32)
        throw std::invalid_argument("--format \"" + text +
                                    "\": the rate must be above 0 and the channels 1..32");
    if (!streaming && (values[2] < 1 || values[2] > 32))
        throw std::invalid_argument("--format \"" + text + "\": the bits must be 1..32");
    if (streaming && values[2] != 16 && values[2] != 24 && values[2] != 32)
        throw std::invalid_argument("--format \"" + text +
                                    "\": mme-sim streams 16-, 24- or 32-bit PCM");
    Format f;
    f.rate = uint32_t(values[0]);
    f.channels = uint16_t(values[1]);
    f.bits = uint16_t(values[2]);
    return f;
}

int32_t unpackSample(const uint8_t* p, unsigned bits) {
    switch (bits) {
    case 16:
        return int16_t(uint16_t(p[0] | (p[1] << 8)));
    case 24:
        return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
    default:
        return int32_t(uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 |
                       uint32_t(p[3]) << 24);
    }
}

void packSample(uint8_t* p, unsigned bits, int32_t value) {
    const uint32_t u = uint32_t(value);
    for (unsigned i = 0; i < bits / 8; ++i)
        p[i] = uint8_t(u >> (8 * i));
}

int32_t loopbackExpected(int32_t s, unsigned bits) {
    // Render ring: a 24-bit value; the device plays it left-justified; the
    // capture ring carries that back; capture takes the top bits.
    int32_t ring;
    switch (bits) {
    case 16:
        ring = s * 256;
        break;
    case 24:
        ring = s;
        break;
    default:
        ring = s >> 8;
        break;
    }
    const int32_t working = int32_t(uint32_t(ring) << 8);
    switch (bits) {
    case 16:
        return working >> 16;
    case 24:
        return working >> 8;
    default:
        return working;
    }
}

namespace {
constexpr size_t kChunkFrames = 4096;
}

TestSignal::TestSignal(const Format& format) : mFormat(format), mAlign(format.blockAlign()) {
    if (format.rate == 0 || format.rate > kMaxRate)
        throw std::invalid_argument("the test signal needs a rate of 1.." +
                                    std::to_string(kMaxRate) + " Hz");
    const double full = std::ldexp(1.0, format.bits - 1) - 1.0;
    const double twoPi = 6.283185307179586476925286766559;
    mTable.resize(format.rate);
    mExpected.resize(format.rate);
    bool identical = true;
    for (uint32_t k = 0; k < format.rate; ++k) {
        const double v = std::round(0.5 * full * std::cos(twoPi * double(k) / format.rate));
        mTable[k] = int32_t(int64_t(v));
        mExpected[k] = loopbackExpected(mTable[k], format.bits);
        identical = identical && mExpected[k] == mTable[k];
    }
    for (unsigned c = 0; c < format.channels; ++c) {
        mStep.push_back(uint32_t((997u + 498u * c) % format.rate));
        mPhase.push_back(0);
    }
    const size_t secondBytes = size_t(format.rate) * mAlign;
    if (secondBytes > kMaxSecondBytes) {
        mChunk.resize(kChunkFrames * mAlign);
        return;
    }
    mSecond.resize(secondBytes);
    produce(mSecond.data(), format.rate, mTable);
    if (!identical) {
        std::fill(mPhase.begin(), mPhase.end(), 0);
        mSecondExpected.resize(secondBytes);
        produce(mSecondExpected.data(), format.rate, mExpected);
    }
    mTable.clear();
    mTable.shrink_to_fit();
    mExpected.clear();
    mExpected.shrink_to_fit();
}

void TestSignal::produce(uint8_t* out, size_t frames, const std::vector<int32_t>& table) {
    const unsigned bytes = mFormat.bits / 8;
    const uint32_t rate = mFormat.rate;
    for (unsigned c = 0; c < mFormat.channels; ++c) {
        uint32_t k = mPhase[c];
        const uint32_t step = mStep[c];
        uint8_t* p = out + c * bytes;
        for (size_t f = 0; f < frames; ++f, p += mAlign) {
            packSample(p, mFormat.bits, table[k]);
            k += step;
            if (k >= rate)
                k -= rate;
        }
        mPhase[c] = k;
    }
}

void TestSignal::fill(uint8_t* out, size_t frames) {
    if (mSecond.empty()) {
        produce(out, frames, mTable);
        return;
    }
    while (frames > 0) {
        const size_t n = std::min(frames, size_t(mFormat.rate) - mAt);
        std::memcpy(out, mSecond.data() + mAt * mAlign, n * mAlign);
        out += n * mAlign;
        frames -= n;
        mAt = (mAt + n) % mFormat.rate;
    }
}

void TestSignal::expectedFrame(uint64_t frame, uint8_t* out) const {
    const uint64_t n = frame % mFormat.rate;
    if (!mSecond.empty()) {
        const std::vector<uint8_t>& second = mSecondExpected.empty() ? mSecond : mSecondExpected;
        std::memcpy(out, second.data() + n * mAlign, mAlign);
        return;
    }
    const unsigned bytes = mFormat.bits / 8;
    for (unsigned c = 0; c < mFormat.channels; ++c)
        packSample(out + c * bytes, mFormat.bits, mExpected[size_t(n * mStep[c] % mFormat.rate)]);
}

void TestSignal::seek(uint64_t frame) {
    const uint64_t n = frame % mFormat.rate;
    mAt = size_t(n);
    for (size_t c = 0; c < mPhase.size(); ++c)
        mPhase[c] = uint32_t(n * mStep[c] % mFormat.rate);
}

const uint8_t* TestSignal::expected(size_t* frames) {
    if (mSecond.empty()) {
        *frames = std::min(*frames, kChunkFrames);
        produce(mChunk.data(), *frames, mExpected);
        return mChunk.data();
    }
    *frames = std::min(*frames, size_t(mFormat.rate) - mAt);
    const std::vector<uint8_t>& second = mSecondExpected.empty() ? mSecond : mSecondExpected;
    const uint8_t* where = second.data() + mAt * mAlign;
    mAt = (mAt + *frames) % mFormat.rate;
    return where;
}

LoopbackCheck::LoopbackCheck(const Format& format, uint64_t frames, uint64_t latency)
    : mFormat(format), mFrames(frames), mLatency(latency), mSignal(format),
      mSilence(kChunkFrames * format.blockAlign()) {}

void LoopbackCheck::take(const uint8_t* captured, size_t frames) {
    const size_t align = mFormat.blockAlign();
    while (frames > 0 && !done()) {
        size_t n;
        if (mSeen < mLatency) {
            n = size_t(std::min<uint64_t>({frames, mLatency - mSeen, kChunkFrames}));
            compare(captured, mSilence.data(), n, mSeen);
        } else if (mInGap) {
            n = takeGap(captured, frames);
        } else {
            n = takeSignal(captured, frames);
        }
        if (mFirstSound == uint64_t(-1))
            for (size_t i = 0; i < n * align; ++i)
                if (captured[i] != 0) {
                    mFirstSound = mSeen + i / align;
                    break;
                }
        captured += n * align;
        frames -= n;
        mSeen += n;
    }
}

// Compares in place; at the first frame that differs a gap begins instead
// when the run allows one more.
size_t LoopbackCheck::takeSignal(const uint8_t* captured, size_t frames) {
    const size_t align = mFormat.blockAlign();
    size_t n = size_t(std::min<uint64_t>(frames, mFrames - mSignalAt));
    const uint8_t* want = mSignal.expected(&n);
    if (std::memcmp(captured, want, n * align) != 0 && mGapsAllowed &&
        mGaps.size() < mGapsAllowed()) {
        size_t same = 0;
        while (std::memcmp(captured + same * align, want + same * align, align) == 0)
            ++same;
        mResult.samples += same * mFormat.channels;
        mSignalAt += same;
        mSignal.seek(mSignalAt);
        mInGap = true;
        mPending.clear();
        mGaps.push_back(Gap{mSeen + same, 0, 0});
        return same;
    }
    compare(captured, want, n, mSeen);
    mSignalAt += n;
    return n;
}

// Silence first, then enough frames to find where in the signal they belong.
size_t LoopbackCheck::takeGap(const uint8_t* captured, size_t frames) {
    const size_t align = mFormat.blockAlign();
    Gap& gap = mGaps.back();
    size_t used = 0;
    if (mPending.empty()) {
        auto silent = [&](const uint8_t* frame) {
            return std::all_of(frame, frame + align, [](uint8_t b) { return b == 0; });
        };
        while (used < frames && silent(captured + used * align)) {
            ++used;
            ++gap.silence;
            ++mGapSilence;
        }
        if (mGapSilence > mLatency + mFrames) {
            mInGap = false; // the signal never came back: what follows differs
            return used;
        }
    }
    const size_t need = size_t(std::min<uint64_t>(kMatchFrames, mFrames - mSignalAt));
    const size_t fit = std::min(frames - used, need - mPending.size() / align);
    mPending.insert(mPending.end(), captured + used * align, captured + (used + fit) * align);
    used += fit;
    if (mPending.size() / align == need)
        resolveGap(mSeen + used - need);
    return used;
}

void LoopbackCheck::resolveGap(uint64_t capturedAt) {
    const size_t align = mFormat.blockAlign();
    const size_t count = mPending.size() / align;
    const uint64_t left = mFrames - mSignalAt;
    std::vector<uint8_t> want(count * align);
    // The frames due after `skip` of them; past the signal's end the device
    // plays silence.
    auto expect = [&](uint64_t skip) {
        bool same = true;
        for (size_t i = 0; i < count && same; ++i) {
            uint8_t* frame = want.data() + i * align;
            if (skip + i < left)
                mSignal.expectedFrame(mSignalAt + skip + i, frame);
            else
                std::memset(frame, 0, align);
            same = std::memcmp(frame, mPending.data() + i * align, align) == 0;
        }
        return same;
    };
    // The signal repeats every second: a skip of nearly one would be a repeat.
    const uint64_t limit = std::min<uint64_t>(mFormat.rate / 2, left);
    uint64_t skip = 0;
    while (skip < limit && !expect(skip))
        ++skip;
    if (skip < limit) {
        mGaps.back().skipped = skip;
        mGapSkipped += skip;
        mResult.samples += std::min<uint64_t>(count, left - skip) * mFormat.channels;
    } else {
        // What came back was never sent there, or not at all.
        skip = 0;
        for (size_t i = 0; i < count; ++i)
            if (i < left)
                mSignal.expectedFrame(mSignalAt + i, want.data() + i * align);
        compare(mPending.data(), want.data(), size_t(std::min<uint64_t>(count, left)), capturedAt);
    }
    mSignalAt = std::min(mFrames, mSignalAt + skip + count);
    mSignal.seek(mSignalAt);
    mPending.clear();
    mInGap = false;
}

void LoopbackCheck::compare(const uint8_t* got, const uint8_t* want, size_t frames,
                            uint64_t first) {
    const unsigned bytes = mFormat.bits / 8;
    const size_t align = mFormat.blockAlign();
    mResult.samples += frames * mFormat.channels;
    if (std::memcmp(got, want, frames * align) == 0)
        return;
    for (size_t f = 0; f < frames; ++f)
        for (unsigned c = 0; c < mFormat.channels; ++c) {
            const size_t at = f * align + c * bytes;
            if (std::memcmp(got + at, want + at, bytes) == 0)
                continue;
            if (mResult.mismatches == 0) {
                mResult.firstFrame = size_t(first + f);
                mResult.firstChannel = c;
                mResult.expected = unpackSample(want + at, mFormat.bits);
                mResult.got = unpackSample(got + at, mFormat.bits);
            }
            ++mResult.mismatches;
        }
}

Comparison LoopbackCheck::result() const {
    Comparison r = mResult;
    r.complete = done();
    return r;
}

} // namespace mmesim
