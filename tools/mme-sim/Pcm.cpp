// PCM packing, test signal and the loopback rule of mme-sim.
#include "Pcm.h"

#include <cmath>
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

std::vector<uint8_t> testSignal(const Format& format, size_t frames) {
    const unsigned bytes = format.bits / 8;
    std::vector<uint8_t> out(frames * format.blockAlign());
    const double full = std::ldexp(1.0, format.bits - 1) - 1.0;
    const double twoPi = 6.283185307179586476925286766559;
    for (unsigned c = 0; c < format.channels; ++c) {
        const double step = twoPi * (997.0 + 498.0 * c) / format.rate;
        for (size_t f = 0; f < frames; ++f) {
            const double v = std::round(0.5 * full * std::cos(step * double(f)));
            packSample(&out[f * format.blockAlign() + c * bytes], format.bits, int32_t(int64_t(v)));
        }
    }
    return out;
}

Comparison compareLoopback(const Format& format, const std::vector<uint8_t>& rendered,
                           const std::vector<uint8_t>& captured, size_t latency) {
    Comparison r;
    const unsigned bytes = format.bits / 8;
    const size_t align = format.blockAlign();
    const size_t renderFrames = rendered.size() / align;
    const size_t captureFrames = captured.size() / align;
    const size_t total = latency + renderFrames;
    r.complete = captureFrames >= total;
    for (size_t f = 0; f < std::min(total, captureFrames); ++f) {
        for (unsigned c = 0; c < format.channels; ++c) {
            const int32_t got = unpackSample(&captured[f * align + c * bytes], format.bits);
            const int32_t want =
                f < latency
                    ? 0
                    : loopbackExpected(
                          unpackSample(&rendered[(f - latency) * align + c * bytes], format.bits),
                          format.bits);
            ++r.samples;
            if (got != want) {
                if (r.mismatches == 0) {
                    r.firstFrame = f;
                    r.firstChannel = c;
                    r.expected = want;
                    r.got = got;
                }
                ++r.mismatches;
            }
        }
    }
    return r;
}

size_t firstSoundFrame(const Format& format, const std::vector<uint8_t>& pcm) {
    const size_t align = format.blockAlign();
    for (size_t f = 0; f < pcm.size() / align; ++f)
        for (size_t b = 0; b < align; ++b)
            if (pcm[f * align + b] != 0)
                return f;
    return size_t(-1);
}

} // namespace mmesim
