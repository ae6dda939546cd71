// PCM helpers of mme-sim: packing stream samples, the test signal, and the
// conversion rules a loopback must obey, written out on their own so that
// the program checks the driver rather than repeating it.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Cosines at half scale, 997 Hz on the first channel and 498 Hz higher on
// each next one, quantised to the stream's width; never zero at frame 0.
std::vector<uint8_t> testSignal(const Format& format, size_t frames);

struct Comparison {
    size_t samples = 0; // compared
    size_t mismatches = 0;
    size_t firstFrame = 0; // of the first mismatch
    unsigned firstChannel = 0;
    int32_t expected = 0, got = 0;
    bool complete = false; // enough capture frames to compare all of them
};
// Capture must hold `latency` frames of silence, then the render signal
// converted by the rules.
Comparison compareLoopback(const Format& format, const std::vector<uint8_t>& rendered,
                           const std::vector<uint8_t>& captured, size_t latency);
// First frame index with a nonzero sample; npos when all silent.
size_t firstSoundFrame(const Format& format, const std::vector<uint8_t>& pcm);

} // namespace mmesim
