// A whole device's life as a program of events, decoded from fuzz input:
// a client opening, running, reformatting, feeding, reading and closing
// pins; the USB driver's periods, attach and detach, ASIO client, timed
// start, hardware changes reported or refused, exclusive inputs, digital
// lock, unplug, replug and system sleep; the host's timer expiry, allocation
// failures and a port that services on its own DPC thread. After every
// event: no assertion or verifier report, every open stream's position in
// whole periods, the driver's attach flag as the USB driver set it, a
// refused state or format change leaves the pin where it was, no running
// pin takes another format, and a render stream that ran a stretch without
// a glitch or any other event played its frames to the device bit-exact
// and in order. Every program ends with the device removed, no trace
// operation left open and nothing left behind.
//
// The same program runs in the libFuzzer target (linked driver, with the
// fuzz preset's sanitizers) and in device_life_replay (linked or the .sys).
#pragma once

#include "FuzzSupport.h"

#include "host/portcls/KsClient.h"
#include "support/TraceCapture.h"
#include "usbsim/Backends.h"

#include <array>
#include <memory>

namespace devicelife {

using fuzzsupport::Input;
using hostpc::KsStream;

constexpr size_t kMaxEvents = 64;
constexpr size_t kSlots = 3; // capture, render, and one more try of either

enum Event : uint8_t {
    Open,
    State,
    Format,
    Write,
    Read,
    Close,
    Periods,
    MmeAttach,
    MmeDetach,
    AsioAttach,
    AsioDetach,
    TimedStart,
    RateReported,
    RefuseChanges,
    ExclusiveInputs,
    DigitalLock,
    Unplug,
    Replug,
    Sleep,
    TimerExpiry,
    FailAllocation,
    ConcurrentService,
    kEvents
};

inline const char* eventName(Event event) {
    static const char* const kNames[kEvents] = {"open",
                                                "state",
                                                "format",
                                                "write",
                                                "read",
                                                "close",
                                                "periods",
                                                "mme-attach",
                                                "mme-detach",
                                                "asio-attach",
                                                "asio-detach",
                                                "timed-start",
                                                "rate-reported",
                                                "refuse-changes",
                                                "exclusive-inputs",
                                                "digital-lock",
                                                "unplug",
                                                "replug",
                                                "sleep",
                                                "timer-expiry",
                                                "fail-allocation",
                                                "concurrent-service"};
    return event < kEvents ? kNames[event] : "?";
}

struct Offer {
    ULONG rate;
    USHORT channels, bits;
    long sampleSize; // -1: the block alignment
};

// What the pins offer, then near misses the driver must refuse or survive.
inline Offer formatFrom(Input& in) {
    static const Offer kFormats[] = {{48000, 2, 16, -1}, {48000, 2, 24, -1},  {44100, 2, 16, -1},
                                     {96000, 8, 24, -1}, {192000, 2, 24, -1}, {48000, 8, 16, -1},
                                     {48000, 2, 32, -1}, {48000, 1, 16, -1},  {47999, 2, 16, -1},
                                     {48000, 3, 24, -1}, {48000, 2, 24, 0},   {48000, 2, 24, 4},
                                     {8000, 2, 16, -1},  {48000, 12, 16, -1}};
    return kFormats[in.pick(sizeof kFormats / sizeof kFormats[0])];
}

// Render samples that survive every width to the device as (v << 16), v
// odd, counting up by 2 per frame: the device's output names each frame.
inline int32_t patternSample(uint64_t frame, USHORT bits) {
    const int32_t v = int32_t((frame % 16384) * 2 + 1);
    return bits == 16 ? v : bits == 24 ? v << 8 : v << 16;
}

class Life {
public:
    // An empty path: the linked driver; else the .sys image.
    explicit Life(std::string image = std::string()) : mImage(std::move(image)) {}

    // The first byte picks the port's personality and service mode; the
    // rest are events, at most kMaxEvents of them.
    void run(Input& in) {
        hostk::resetForTest();
        hostpc::resetForTest();
        ResetPdoHandOver();
        // The image runs under special pool, as its suites do: its overruns
        // and uses after free show, as AddressSanitizer shows the linked one's.
        if (!mImage.empty())
            hostk::setSpecialPool(hostk::SpecialPool::VerifyEnd);
        mEcho = std::getenv("MME_FUZZ_TRACE") != nullptr;
        hostk::setSinkCallback([this](const std::string& text) {
            countTraces(text);
            if (mEcho)
                std::fputs(text.c_str(), stderr);
        });
        const uint8_t setup = in.u8();
        mOpenSource = setup & 1;
        hostpc::setDefaultPortPersonality(mOpenSource ? hostpc::PortPersonality::OpenSource
                                                      : hostpc::PortPersonality::Documented);
        hostpc::setDefaultServiceMode(setup & 2 ? hostpc::ServiceMode::Concurrent
                                                : hostpc::ServiceMode::EndOfPeriod);
        mModel.reset(new usbsim::UsbDriverModel());
        mOut = std::make_shared<usbsim::MemoryOutput>();
        mModel->setOutput(mOut);
        mLoader.reset(mImage.empty() ? new hostpc::DriverLoader()
                                     : new hostpc::DriverLoader(mImage));
        const std::string failure = hostpc::startWaveFilter(*mLoader, mModel->pdo(), &mFilter);
        FUZZ_CHECK(failure.empty(), failure);
        for (size_t n = 0; n < kMaxEvents && in.remaining() > 0; ++n) {
            const Event event = Event(in.u8() % kEvents);
            if (mEcho)
                std::fprintf(stderr, "event %zu: %s\n", n, eventName(event));
            if (event != Periods && event != Write && event != Read)
                endClean();
            step(event, in);
            if (mEcho)
                for (size_t i = 0; i < kSlots; ++i)
                    if (KsStream* s = mSlots[i].stream.get())
                        std::fprintf(stderr, "  pin %zu: %s %s, %u Hz %u ch %u bits, %llu frames\n",
                                     i, s->isCapture() ? "capture" : "render",
                                     hostpc::stateName(s->state()), unsigned(s->rate()),
                                     unsigned(s->channels()), unsigned(s->bits()),
                                     (unsigned long long)s->positionFrames());
            check();
        }
        finish();
    }

private:
    struct Slot {
        std::unique_ptr<KsStream> stream;
        uint64_t written = 0; // pattern frames queued so far
        // The position counts bytes since the last STOP in frames of the
        // format in force: after a format change it moves in whole periods
        // from where the change left it.
        uint64_t positionBase = 0;
        bool faithful = true; // its positions and audio are checked
        bool ran = false;     // it reached RUN since it was opened
    };

    // Every event reads the same bytes whatever the state, so that a
    // program means the same from any point.
    void step(Event event, Input& in) {
        Slot& slot = mSlots[event <= Close ? in.pick(kSlots) : 0];
        switch (event) {
        case Open: {
            const bool capture = in.u8() & 1;
            const Offer f = formatFrom(in);
            const bool extensible = in.u8() & 1;
            if (slot.stream || !mFilter)
                break;
            mFilter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                          hostpc::pcmFormat(f.rate, f.channels, f.bits, extensible, f.sampleSize),
                          {}, &slot.stream);
            slot.written = 0;
            slot.positionBase = 0;
            slot.faithful = true;
            slot.ran = false;
            break;
        }
        case State: {
            const KSSTATE target = KSSTATE(in.pick(4));
            if (!slot.stream)
                break;
            const KSSTATE before = slot.stream->state();
            if (!NT_SUCCESS(slot.stream->setState(target)))
                FUZZ_CHECK(slot.stream->state() <= std::max(before, target) &&
                               slot.stream->state() >= std::min(before, target),
                           "a refused walk left the pin outside its way");
            if (slot.stream->state() == KSSTATE_STOP)
                slot.positionBase = 0;
            slot.ran = slot.ran || slot.stream->state() == KSSTATE_RUN;
            if (!slot.stream->isCapture() && slot.stream->state() == KSSTATE_RUN && slot.faithful)
                beginClean(slot);
            break;
        }
        case Format: {
            const Offer f = formatFrom(in);
            if (!slot.stream)
                break;
            const KSSTATE before = slot.stream->state();
            const std::vector<UCHAR> old = slot.stream->format();
            const ULONG oldFrame = slot.stream->blockAlign();
            const std::vector<UCHAR> format =
                hostpc::pcmFormat(f.rate, f.channels, f.bits, true, f.sampleSize);
            const bool taken = NT_SUCCESS(slot.stream->setFormat(format));
            if (!taken)
                FUZZ_CHECK(slot.stream->format() == old, "a refused format was taken");
            else if (before == KSSTATE_RUN)
                FUZZ_CHECK(format == old, "a running pin took another format");
            FUZZ_CHECK(slot.stream->state() == before, "a format change moved the pin");
            slot.positionBase = slot.stream->positionFrames();
            // The driver shapes its channel for whatever frames were asked,
            // taken or not, and replaces the buffer when they differ. The
            // documented port takes the new buffer after every format
            // request, and a pin's first start carries its own format back
            // into it; the open-source port keeps its first buffer. Else the
            // pin streams through a stale buffer or in frames of another
            // shape (safely, not faithfully): its positions and its audio
            // are not checked again.
            if (format != old && ULONG(f.channels) * (f.bits / 8) != oldFrame &&
                (mOpenSource || (!taken && slot.ran)))
                slot.faithful = false;
            break;
        }
        case Write: {
            const size_t frames = 256 * (1 + in.pick(16));
            if (slot.stream && !slot.stream->isCapture())
                feed(slot, frames);
            break;
        }
        case Read:
            if (slot.stream && slot.stream->isCapture()) {
                std::vector<uint8_t> chunk(4096 * slot.stream->blockAlign());
                while (slot.stream->read(chunk.data(), 4096) > 0) {
                }
            }
            break;
        case Close:
            slot.stream.reset();
            break;
        case Periods:
            mModel->runPeriods(1 + in.pick(8));
            KeFlushQueuedDpcs();
            break;
        case MmeAttach:
            mModel->attachMME(in.pick(2) * 512);
            break;
        case MmeDetach:
            mModel->detachMME();
            break;
        case AsioAttach:
            mModel->asioAttach();
            break;
        case AsioDetach:
            mModel->asioDetach();
            break;
        case TimedStart:
            mModel->timedStart();
            break;
        case RateReported: {
            static const ULONG kRates[] = {44100, 48000, 96000, 192000};
            const ULONG rate = kRates[in.pick(4)];
            if (mModel->present()) {
                ChannelConfig c = mModel->settings().current;
                c.fr = rate;
                mModel->changeHardware(c, true);
            }
            break;
        }
        case RefuseChanges:
            if (in.u8() & 1)
                mModel->setAnswer(USBCall_ChangeConfig, STATUS_NOT_SUPPORTED);
            else
                mModel->clearAnswers();
            break;
        case ExclusiveInputs:
            mModel->setExclusiveInputs(in.u8() & 1);
            break;
        case DigitalLock:
            mModel->setDigitalLock(in.oneOf({0, 44100, 48000, 96000}));
            break;
        case Unplug:
            mModel->unplug();
            break;
        case Replug:
            if (!mModel->present()) {
                mFilter.reset();
                mModel->replug();
                mFilter = hostpc::WaveFilter::ofDevice(mLoader->fdo(mModel->pdo()));
            }
            break;
        case Sleep:
            mModel->sleepSystem(1 + in.pick(200));
            break;
        case TimerExpiry:
            hostk::advanceTime(int64_t(1 + in.u16() % 1500) * 10000);
            break;
        case FailAllocation:
            hostk::failAllocation(1 + in.pick(16));
            break;
        case ConcurrentService: {
            const bool concurrent = in.u8() & 1;
            if (PDEVICE_OBJECT fdo = mLoader->fdo(mModel->pdo()))
                hostpc::setServiceMode(fdo, concurrent ? hostpc::ServiceMode::Concurrent
                                                       : hostpc::ServiceMode::EndOfPeriod);
            break;
        }
        case kEvents:
            break;
        }
    }

    void feed(Slot& slot, size_t frames) {
        const USHORT bits = slot.stream->bits();
        const size_t channels = slot.stream->channels();
        const size_t width = bits / 8;
        std::vector<uint8_t> bytes(frames * channels * width);
        for (size_t f = 0; f < frames; ++f) {
            const uint32_t s = uint32_t(patternSample(slot.written + f, bits));
            for (size_t c = 0; c < channels; ++c)
                for (size_t b = 0; b < width; ++b)
                    bytes[(f * channels + c) * width + b] = uint8_t(s >> (8 * b));
        }
        slot.written += slot.stream->write(bytes.data(), frames);
    }

    // A stretch of a running render stream with nothing but periods, writes
    // and reads: what the device plays of it, past the write-ahead and the
    // port's lead, must be the client's frames in order.
    void beginClean(Slot& slot) {
        mClean = true;
        mCleanSlot = &slot;
        mCleanFrom = mOut->frames();
        mCleanGlitches = slot.stream->counters().glitches;
    }
    void endClean() {
        if (!mClean || !mCleanSlot || !mCleanSlot->stream)
            return;
        mClean = false;
        KsStream& s = *mCleanSlot->stream;
        if (s.state() != KSSTATE_RUN || s.counters().glitches != mCleanGlitches ||
            s.channels() > mOut->channels() || s.rate() != mModel->settings().current.fr)
            return;
        const uint64_t skip = usbsim::kDriverWriteAheadFrames + s.leadFrames() + 512;
        int32_t last = 0;
        for (uint64_t f = mCleanFrom + skip; f < mOut->frames(); ++f) {
            const int32_t v = mOut->at(f, 0) >> 16;
            if (last)
                FUZZ_CHECK(v == (last + 2) % 32768,
                           "the device played frame value " + std::to_string(v) + " after " +
                               std::to_string(last) + " in a run without a glitch");
            last = v;
        }
    }

    void check() {
        fuzzsupport::requireNoReports();
        // The driver's answer to "is MME attached?" is what the USB driver did.
        if (mModel->present())
            FUZZ_CHECK((mModel->askState(USBStc_IsMMEAttached, 0) != 0) == mModel->mmeAttached(),
                       "the driver's attach flag disagrees with the USB driver");
        for (Slot& slot : mSlots)
            if (slot.stream && slot.faithful)
                FUZZ_CHECK((slot.stream->positionFrames() - slot.positionBase) % 256 == 0,
                           "a position moved by less than a period: at " +
                               std::to_string(slot.stream->positionFrames()) + " frames from " +
                               std::to_string(slot.positionBase) + ", " +
                               std::to_string(slot.stream->blockAlign()) + "-byte frames");
        if (mClean && mCleanSlot &&
            (!mCleanSlot->stream || mCleanSlot->stream->state() != KSSTATE_RUN))
            mClean = false;
    }

    // The client lets go of everything; the device goes; nothing is left.
    void finish() {
        endClean();
        hostk::failAllocation(0);
        for (Slot& slot : mSlots)
            slot.stream.reset();
        mFilter.reset();
        mLoader.reset();
        mModel.reset();
        fuzzsupport::requireNoReports();
        FUZZ_CHECK(mOpenTraces == 0, std::to_string(mOpenTraces) + " function traces left open");
        const std::string problems = hostk::checkClean();
        FUZZ_CHECK(problems.empty(), problems);
        hostk::setSinkNull();
    }

    // The trace's indentation: operations opened minus closed.
    void countTraces(const std::string& text) {
        if (tracecap::headerLength(text))
            mOpenTraces += tracecap::traceDepthChange(tracecap::message(text));
    }

    std::string mImage;
    std::unique_ptr<usbsim::UsbDriverModel> mModel;
    std::shared_ptr<usbsim::MemoryOutput> mOut;
    std::unique_ptr<hostpc::DriverLoader> mLoader;
    std::unique_ptr<hostpc::WaveFilter> mFilter;
    std::array<Slot, kSlots> mSlots;
    bool mClean = false;
    Slot* mCleanSlot = nullptr;
    uint64_t mCleanFrom = 0;
    uint64_t mCleanGlitches = 0;
    long mOpenTraces = 0;
    bool mOpenSource = false; // the port's personality
    bool mEcho = false;       // MME_FUZZ_TRACE: the events and the driver's trace to stderr
};

} // namespace devicelife
