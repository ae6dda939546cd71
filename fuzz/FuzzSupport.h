// Shared pieces of the libFuzzer targets: a reader that turns the input
// bytes into values (running out of bytes gives zeros), and the checks every
// input must pass: no assertion report, no verifier failure, no pool block
// left behind. A failed check prints what went wrong and aborts, which
// libFuzzer reports as a crash with the input. The driver's trace goes
// nowhere (MME_FUZZ_TRACE=1: to stderr), but is still formatted.
#pragma once

#include "support/AdapterHarness.h"
#include "support/WaveRig.h" // the driver's wave objects, the host kernel and port-class library

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace fuzzsupport {

class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    size_t remaining() const { return mSize - mAt; }
    uint8_t u8() { return take<uint8_t>(); }
    uint16_t u16() { return take<uint16_t>(); }
    uint32_t u32() { return take<uint32_t>(); }
    uint32_t below(uint32_t n) { return u32() % n; }
    uint32_t pick(uint8_t n) { return u8() % n; } // one byte, for short programs
    // One of the given values, or (for an index past the list) a raw one.
    uint32_t oneOf(std::initializer_list<uint32_t> values) {
        const uint8_t index = u8();
        return index < values.size() ? values.begin()[index] : u32();
    }
    std::vector<uint8_t> bytes(size_t n) {
        n = n < remaining() ? n : remaining();
        std::vector<uint8_t> out(mData + mAt, mData + mAt + n);
        mAt += n;
        return out;
    }
    std::vector<uint8_t> rest() { return bytes(remaining()); }

private:
    template <class T> T take() {
        T value{};
        const std::vector<uint8_t> raw = bytes(sizeof(T));
        if (!raw.empty())
            std::memcpy(&value, raw.data(), raw.size());
        return value;
    }
    const uint8_t* mData;
    size_t mSize;
    size_t mAt = 0;
};

[[noreturn]] inline void fail(const char* file, int line, const char* what,
                              const std::string& detail) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n%s\n", file, line, what, detail.c_str());
    std::abort();
}

#define FUZZ_CHECK(condition, detail)                                                              \
    do {                                                                                           \
        if (!(condition))                                                                          \
            ::fuzzsupport::fail(__FILE__, __LINE__, #condition, (detail));                         \
    } while (0)

// Once per process, before anything of the driver runs.
inline void initHost() {
    static const bool done = [] {
        hostk::resetForTest();
        if (std::getenv("MME_FUZZ_TRACE"))
            hostk::setSinkStderr();
        else
            hostk::setSinkNull();
        return true;
    }();
    (void)done;
}

// Assertion reports and verifier failures are bugs whatever the input.
inline void requireNoReports() {
    std::string problems;
    for (const auto& a : hostk::assertReports())
        problems += "assertion report: " + a.expression + " (" + a.file + ", line " +
                    std::to_string(a.line) + ")\n";
    for (const auto& v : hostk::verifierFailures())
        problems += "verifier failure: " + v + "\n";
    FUZZ_CHECK(problems.empty(), problems);
}

// The port's view of a format or range: at least the header; FormatSize is
// its length, or (exactSize false) a claimed size up to 4 KiB, zero-padded.
inline std::vector<uint8_t> asPortHandsIt(std::vector<uint8_t> bytes, bool exactSize = true) {
    if (bytes.size() < sizeof(KSDATAFORMAT))
        bytes.resize(sizeof(KSDATAFORMAT), 0);
    ULONG formatSize;
    std::memcpy(&formatSize, bytes.data(), sizeof(formatSize));
    if (exactSize) {
        formatSize = (ULONG)bytes.size();
        std::memcpy(bytes.data(), &formatSize, sizeof(formatSize));
    } else if (formatSize > bytes.size() && formatSize <= 4096) {
        bytes.resize(formatSize, 0);
    }
    return bytes;
}

// Notes the pool's live blocks; check() requires the same number again.
// Blocks the driver rightly keeps from one input to the next (a DMA
// channel's buffers after its stream closes) are counted by held().
class PoolMark {
public:
    explicit PoolMark(std::function<size_t()> held = nullptr)
        : mHeld(std::move(held)), mLive(count()) {}
    void check() const {
        const size_t now = count();
        FUZZ_CHECK(now == mLive, "live pool blocks " + std::to_string(mLive) + " before, " +
                                     std::to_string(now) + " after (besides held ones)\n" +
                                     hostk::leakReport());
    }

private:
    size_t count() const { return hostk::poolStats().liveBlocks - (mHeld ? mHeld() : 0); }
    std::function<size_t()> mHeld;
    size_t mLive;
};

// The whole driver started over the model USB driver, made once per process
// by the targets that need it; streams are opened as the wave port does.
class Stack {
public:
    // The process's one stack, with the hardware and wanted channels it started with.
    static Stack& shared() {
        initHost();
        static Stack* stack = new Stack();
        return *stack;
    }
    Stack() : harness(false) {
        usb.setAutoAttach(false); // nothing is left pending between inputs
        harness.startStatus = harness.loader.startDevice(usb.pdo());
        wave = harness.wave();
        if (!wave)
            throw std::runtime_error("the driver did not start");
        adapter = wave->adapter();
        initialSettings = usb.settings();
        initialWanted = adapter->linkInfo().mcAttachChannels;
    }
    // Back to the start once an input's streams are closed; whatever the
    // driver allocated for the input must be gone by then.
    void restore(const PoolMark& mark) {
        if (usb.settings().current != initialSettings.current)
            usb.changeHardware(initialSettings.current, false);
        usb.settings() = initialSettings;
        adapter->linkInfo().mcAttachChannels = initialWanted;
        FUZZ_CHECK(!wave->captureStream() && !wave->renderStream(),
                   "a closed stream is still held");
        mark.check();
        requireNoReports();
    }
    using Opened = wavetest::OpenedStream;
    Opened open(bool capture, std::vector<UCHAR>& format) {
        return wavetest::openStream(wave, capture, format);
    }
    // A 48 kHz stereo 16-bit stream, which the device always takes.
    Opened openStereo(bool capture) {
        auto format = hostpc::pcmFormat(48000, 2, 16, false);
        Opened opened = open(capture, format);
        FUZZ_CHECK(opened.status == STATUS_SUCCESS, "a stereo stream did not open");
        return opened;
    }
    static void close(Opened& o) { wavetest::closeStream(o); }
    // Buffers the DMA channels keep after their streams close.
    size_t channelBuffers() const {
        size_t n = 0;
        for (MMEDMAEmulator* dma :
             {adapter->getCaptureDMAChannel(), adapter->getRenderDMAChannel()})
            n += (dma->usbBufferBytes() != 0) + (dma->wdmBufferBytes() != 0);
        return n;
    }

    adaptertest::DriverHarness harness;
    usbsim::UsbDriverModel& usb = harness.model;
    MMEWave* wave = nullptr;
    MMEAdapter* adapter = nullptr;
    HardwareSettings initialSettings;
    ChannelConfig initialWanted;
};

} // namespace fuzzsupport
