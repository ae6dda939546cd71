// End-to-end rig (header only): the whole driver loaded on the host
// port-class library above the model USB driver, seen by a kernel-streaming
// client (hostpc::WaveFilter / KsStream); the rig removes the device when it
// goes, so a test closes its streams first. Also the PCM packing and the
// conversion rules, written out independently of the driver's kernels.
#pragma once

#include "host/portcls/KsClient.h"
#include "support/AdapterHarness.h"
#include "usbsim/Backends.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace e2e {

class Rig {
public:
    explicit Rig(usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault())
        : harness(true, std::move(profile)) {
        PDEVICE_OBJECT fdo = harness.fdo();
        PUNKNOWN port = fdo ? hostpc::subdevice(fdo, u"Wave") : nullptr;
        filter.reset(new hostpc::WaveFilter(port));
    }
    ~Rig() {
        filter.reset();
        harness.remove();
    }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    usbsim::UsbDriverModel& model() { return harness.model; }
    MMEAdapter* adapter() const { return harness.adapter(); }
    bool started() const { return NT_SUCCESS(harness.startStatus) && filter && filter->valid(); }

    // What the device plays from now on.
    std::shared_ptr<usbsim::MemoryOutput> output() {
        auto out = std::make_shared<usbsim::MemoryOutput>();
        model().setOutput(out);
        return out;
    }

    std::unique_ptr<hostpc::KsStream> open(bool capture, ULONG rate, USHORT channels, USHORT bits,
                                           NTSTATUS* status = nullptr,
                                           const hostpc::StreamOptions& options = {}) {
        std::unique_ptr<hostpc::KsStream> stream;
        NTSTATUS st = filter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                                   hostpc::pcmFormat(rate, channels, bits), options, &stream);
        if (status)
            *status = st;
        return stream;
    }

    adaptertest::DriverHarness harness;
    std::unique_ptr<hostpc::WaveFilter> filter;
};

// Runs the model's periods in virtual time as a client would between them:
// keeps a render stream fed from `signal` (queued as far as it fits from the
// start; end of stream marked once all of it is) and reads a capture stream
// empty. Either may be null.
class Pump {
public:
    Pump(Rig& rig, hostpc::KsStream* render, std::vector<uint8_t> signal, hostpc::KsStream* capture)
        : mRig(rig), mRender(render), mSignal(std::move(signal)), mCapture(capture) {
        feed();
    }

    void feed() {
        if (!mRender)
            return;
        const size_t align = mRender->blockAlign();
        const size_t total = mSignal.size() / align;
        if (written < total)
            written += mRender->write(mSignal.data() + written * align, total - written);
        if (written == total && !mEnded) {
            mRender->endOfStream();
            mEnded = true;
        }
    }
    void drain() {
        if (!mCapture)
            return;
        const size_t align = mCapture->blockAlign();
        std::vector<uint8_t> chunk(4096 * align);
        size_t n;
        while ((n = mCapture->read(chunk.data(), 4096)) > 0)
            captured.insert(captured.end(), chunk.begin(), chunk.begin() + n * align);
    }
    void periods(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            mRig.model().runPeriods(1);
            feed();
            drain();
        }
    }
    size_t capturedFrames() const {
        return mCapture ? captured.size() / mCapture->blockAlign() : 0;
    }

    size_t written = 0; // render frames queued so far
    std::vector<uint8_t> captured;

private:
    Rig& mRig;
    hostpc::KsStream* mRender;
    std::vector<uint8_t> mSignal;
    hostpc::KsStream* mCapture;
    bool mEnded = false;
};

// ---- PCM samples as the stream carries them (signed, little-endian) ----

inline std::vector<int32_t> unpack(const std::vector<uint8_t>& bytes, unsigned bits) {
    const size_t width = bits / 8;
    std::vector<int32_t> out(bytes.size() / width);
    for (size_t i = 0; i < out.size(); ++i) {
        uint32_t u = 0;
        for (size_t k = 0; k < width; ++k)
            u |= uint32_t(bytes[i * width + k]) << (8 * k + 32 - bits);
        out[i] = int32_t(u) >> (32 - bits);
    }
    return out;
}

inline std::vector<uint8_t> pack(const std::vector<int32_t>& samples, unsigned bits) {
    const size_t width = bits / 8;
    std::vector<uint8_t> out(samples.size() * width);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = uint8_t(uint32_t(samples[i / width]) >> (8 * (i % width)));
    return out;
}

// Full-width pseudo-random samples (every bit exercised, sign included),
// never all zero in a frame, reproducible from the seed.
inline std::vector<int32_t> noise(size_t count, unsigned bits, uint32_t seed) {
    std::vector<int32_t> out(count);
    uint32_t x = seed * 2654435761u + 1;
    for (auto& s : out) {
        x = x * 1664525u + 1013904223u;
        const int32_t v = int32_t(x) >> (32 - bits);
        s = v == 0 ? 1 : v;
    }
    return out;
}

// ---- The conversion rules, end to end ----

// Render: a stream sample to the render ring's sign-extended 24-bit value.
inline int32_t renderRingValue(int32_t s, unsigned bits) {
    switch (bits) {
    case 16:
        return s * 256;
    case 24:
        return s;
    default:
        return s >> 8;
    }
}
// What the device plays, in the working format (left-justified 32-bit).
inline int32_t deviceWorking(int32_t s, unsigned bits) {
    return int32_t(uint32_t(renderRingValue(s, bits)) << 8);
}
// Capture: a capture ring sample (working format) to the stream's sample.
inline int32_t captureValue(int32_t x, unsigned bits) {
    switch (bits) {
    case 16:
        return x >> 16;
    case 24:
        return x >> 8;
    default:
        return x;
    }
}
// Through the device's loopback: render stream sample to capture stream sample.
inline int32_t loopbackValue(int32_t s, unsigned bits) {
    return captureValue(deviceWorking(s, bits), bits);
}

// What the device played, from output frame `from` on (`frames` of them at
// most): how many frames of the stream's channels were all zero, and the
// other frames' samples in order.
struct Played {
    size_t silentFrames = 0;
    std::vector<int32_t> sound;
};
inline Played played(const usbsim::MemoryOutput& out, size_t from, unsigned channels,
                     size_t frames = size_t(-1)) {
    Played p;
    const size_t end = frames == size_t(-1) ? out.frames() : std::min(out.frames(), from + frames);
    for (size_t f = from; f < end; ++f) {
        bool silent = true;
        for (unsigned c = 0; c < channels; ++c)
            silent = silent && out.at(f, c) == 0;
        if (silent) {
            ++p.silentFrames;
            continue;
        }
        for (unsigned c = 0; c < channels; ++c)
            p.sound.push_back(out.at(f, c));
    }
    return p;
}
// The first `samples` stream samples as the device plays them.
inline std::vector<int32_t> asPlayed(const std::vector<int32_t>& sent, unsigned bits,
                                     size_t samples = size_t(-1)) {
    std::vector<int32_t> out(std::min(samples, sent.size()));
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = deviceWorking(sent[i], bits);
    return out;
}

// Index of the first captured trace line containing `text`; npos when none.
inline size_t tracedAt(const std::string& text) {
    const auto lines = hostk::capturedLines();
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(text) != std::string::npos)
            return i;
    return size_t(-1);
}
inline bool traced(const std::string& text) {
    return tracedAt(text) != size_t(-1);
}

// The suites run under both port personalities (MME_PORT): where the
// driver's designed behaviour gives a different result, a test says which.
inline bool openSourcePort() {
    return hostpc::defaultPortPersonality() == hostpc::PortPersonality::OpenSource;
}

// The round trip of the loopback, in frames: the render ring is written
// 1700 frames ahead of the device, then the loopback's own delay.
constexpr uint32_t kRenderWriteAhead = 1700;

} // namespace e2e
