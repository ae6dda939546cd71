// Shared pieces of the libFuzzer targets: a reader that turns the input
// bytes into values (running out of bytes gives zeros, never an error), and
// the checks every input must pass: no assertion report, no verifier
// failure, no pool block left behind. A failed check prints what went wrong
// and aborts, which libFuzzer reports as a crash together with the input.
//
// The host kernel is reset once per process, with its debug output dropped
// (the driver traces every step; formatting still runs, so the trace's
// format strings see every fuzzed value). MME_FUZZ_TRACE=1 in the
// environment sends it to stderr instead, to see what an input did.
#pragma once

#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "support/WaveRig.h"
#include "usbsim/UsbDriverModel.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <initializer_list>
#include <string>
#include <vector>

namespace fuzzsupport {

class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    size_t remaining() const { return mSize - mAt; }

    template <class T> T take() {
        T value{};
        const size_t n = remaining() < sizeof(T) ? remaining() : sizeof(T);
        if (n)
            std::memcpy(&value, mData + mAt, n);
        mAt += n;
        return value;
    }
    uint8_t u8() { return take<uint8_t>(); }
    uint16_t u16() { return take<uint16_t>(); }
    uint32_t u32() { return take<uint32_t>(); }
    uint64_t u64() { return take<uint64_t>(); }
    bool flag() { return (u8() & 1) != 0; }
    // A value below n (n > 0).
    uint32_t below(uint32_t n) { return u32() % n; }
    // One of the given values, or (for an index past the list) a raw one.
    uint32_t oneOf(std::initializer_list<uint32_t> values) {
        const uint8_t index = u8();
        if (index < values.size())
            return values.begin()[index];
        return u32();
    }
    std::vector<uint8_t> bytes(size_t n) {
        if (n > remaining())
            n = remaining();
        std::vector<uint8_t> out(mData + mAt, mData + mAt + n);
        mAt += n;
        return out;
    }
    std::vector<uint8_t> rest() { return bytes(remaining()); }

private:
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

// Notes the pool's live blocks when made; check() requires the same number
// again (every block the input's work allocated was given back). Blocks
// that the driver rightly keeps from one input to the next (a DMA channel
// keeps its buffers after its stream closes) are left out of both counts
// through held(), which gives their number at the moment of counting.
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

// The whole driver loaded and started on the host port-class library over
// the model USB driver; streams are opened as the wave port opens them.
// Made once per process by the targets that need it.
class Stack {
public:
    Stack() {
        usb.setAutoAttach(false); // nothing is left pending between inputs
        loader.addDevice(usb.pdo());
        if (loader.startDevice(usb.pdo()) != STATUS_SUCCESS)
            throw std::runtime_error("the driver did not start");
        PDEVICE_OBJECT fdo = loader.fdo(usb.pdo());
        PUNKNOWN port = fdo ? hostpc::subdevice(fdo, u"Wave") : nullptr;
        PUNKNOWN miniport = port ? hostpc::portState(port).miniport : nullptr;
        if (!miniport)
            throw std::runtime_error("no wave miniport");
        wave = static_cast<MMEWave*>(static_cast<IMiniportWaveCyclic*>(miniport));
        adapter = wave->adapter();
    }
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    using Opened = wavetest::OpenedStream;
    Opened open(bool capture, std::vector<UCHAR>& format) {
        return wavetest::openStream(wave, capture, format);
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

    usbsim::UsbDriverModel usb;
    hostpc::DriverLoader loader;
    MMEWave* wave = nullptr;
    MMEAdapter* adapter = nullptr;
};

} // namespace fuzzsupport
