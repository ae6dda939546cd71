// The ALSA external PCM "mme" (ioplug): each open PCM loads the driver above
// the model USB driver running in real time, opens the wave filter's render
// or capture pin with the program's format, walks the KS states with the
// program's prepare/start/stop/pause/drain and moves audio through a client
// queue (the program's buffer) that the port's service routine empties or
// fills every device period.
//
// Pointers, as a sound card's driver keeps them:
// - Render: the port keeps one device period taken from the queue, which
//   the driver moves into the render ring at the next period; the hardware
//   pointer counts the program's frames the driver has moved. Delay runs to
//   the device's play position. An underrun is the device having played
//   what the program wrote (up to the stop threshold); silence the port had
//   to fill while the program was merely behind is counted, not an xrun.
// - Capture: the hardware pointer counts what the port delivered into the
//   queue; an overrun is a full buffer (the stop threshold).
// An xrun stops the stream as ALSA's core does, so that its timestamp is the
// moment the plugin saw it.
//
// Rates: one sample rate serves both directions, and the driver refuses to
// change it while the other direction's pin is open; a PCM carries its rate
// to the hardware when it sets its parameters, before the other direction
// opens its pin, as a KS client's first stream does.
//
// Threads: ALSA calls the callbacks from any of the program's threads; the
// first call on a thread prepares it for driver code (enterThread), and
// each callback holds the PCM's own lock (Entered). The port's service
// routine runs on the model's clock thread and only touches the queue and
// its log of fills; every look wakes the program's poll through an eventfd.
//
// Unplug: the device's unplug wakes the poll too (no port service runs on a
// device that is gone); from then on the PCM is disconnected, as one of a
// sound card pulled out: every call fails with -ENODEV, poll reports POLLERR,
// and only closing is left. A PCM opened after a replug uses the new device.
#include "MmeDevice.h"

#include "host/kernel/HostKernel.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace mmealsa {
namespace {

using Clock = std::chrono::steady_clock;

// Where the port put the program's frames: one entry per device period it
// filled, at the render ring's write position of that moment. The driver
// moves the period into the ring at the next period, at that position plus
// the write offset, and the device plays it from there; the rest of the
// period is silence the port filled in. Written by the port (its pin lock
// held, so one writer at a time), read by any thread (a sequence lock).
class FillLog {
public:
    struct Totals {
        uint64_t moved = 0;  // frames the driver has moved into the ring
        uint64_t played = 0; // frames the device has played
    };

    void add(uint32_t ring, uint32_t frames) {
        begin();
        uint64_t n = mCount.load(std::memory_order_relaxed);
        Entry* last = n ? &mEntries[(n - 1) % kEntries] : nullptr;
        if (!last || last->ring.load(std::memory_order_relaxed) != ring) {
            Entry& e = mEntries[n % kEntries];
            if (n >= kEntries) // long played: 64 periods back
                mFolded.store(mFolded.load(std::memory_order_relaxed) +
                                  e.frames.load(std::memory_order_relaxed),
                              std::memory_order_relaxed);
            e.ring.store(ring, std::memory_order_relaxed);
            e.frames.store(0, std::memory_order_relaxed);
            mCount.store(++n, std::memory_order_relaxed);
            last = &e;
        }
        last->frames.store(last->frames.load(std::memory_order_relaxed) + frames,
                           std::memory_order_relaxed);
        end();
    }

    void clear() {
        begin();
        mCount.store(0, std::memory_order_relaxed);
        mFolded.store(0, std::memory_order_relaxed);
        end();
    }

    // writePos and readPos as the ring has them now; readPos read first.
    Totals totals(uint32_t writePos, uint32_t readPos, uint32_t offset) const {
        uint64_t count, folded;
        uint32_t ring[kEntries], frames[kEntries];
        for (;;) {
            const uint32_t seq = mSeq.load(std::memory_order_acquire);
            if (seq & 1) {
                std::this_thread::yield();
                continue;
            }
            count = mCount.load(std::memory_order_relaxed);
            folded = mFolded.load(std::memory_order_relaxed);
            for (uint64_t i = count > kEntries ? count - kEntries : 0; i < count; ++i) {
                ring[i % kEntries] = mEntries[i % kEntries].ring.load(std::memory_order_relaxed);
                frames[i % kEntries] =
                    mEntries[i % kEntries].frames.load(std::memory_order_relaxed);
            }
            std::atomic_thread_fence(std::memory_order_acquire);
            if (mSeq.load(std::memory_order_relaxed) == seq)
                break;
        }
        Totals t;
        t.moved = t.played = folded;
        for (uint64_t i = count > kEntries ? count - kEntries : 0; i < count; ++i) {
            const uint32_t at = ring[i % kEntries], n = frames[i % kEntries];
            if (int32_t(writePos - at) > 0)
                t.moved += n;
            const int32_t into = int32_t(readPos - (at + offset));
            t.played += into <= 0 ? 0 : std::min<uint32_t>(uint32_t(into), n);
        }
        return t;
    }

private:
    static constexpr unsigned kEntries = 64;
    struct Entry {
        std::atomic<uint32_t> ring{0}, frames{0};
    };
    void begin() {
        mSeq.store(mSeq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
    }
    void end() { mSeq.store(mSeq.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    std::atomic<uint32_t> mSeq{0};
    std::atomic<uint64_t> mCount{0}, mFolded{0};
    Entry mEntries[kEntries];
};

// The program's buffer as the port sees it: every look for audio or room
// wakes the program's poll; render logs where the port put what it took.
class ClientQueue : public hostpc::ByteQueue {
public:
    ClientQueue(size_t capacity, int fd, unsigned frameBytes, const Device* render)
        : ByteQueue(capacity), mFd(fd), mFrameBytes(frameBytes), mRender(render) {}
    ULONG map(const UCHAR** where, ULONG bytes) override {
        const ULONG n = ByteQueue::map(where, bytes);
        wake(mFd);
        return n;
    }
    void release(ULONG bytes) override {
        ByteQueue::release(bytes);
        mLog.add(mRender->renderWritePos(), bytes / mFrameBytes);
    }
    ULONG map(UCHAR** where, ULONG bytes) override {
        const ULONG n = ByteQueue::map(where, bytes);
        wake(mFd);
        return n;
    }
    size_t frames() const { return used() / mFrameBytes; }
    FillLog& log() { return mLog; }

private:
    int mFd;
    unsigned mFrameBytes;
    const Device* mRender;
    FillLog mLog;
};

// The render stream as the device's output window sees it from the model's
// clock thread; it may outlive the PCM when another PCM keeps the device.
struct StreamShare {
    std::mutex lock;
    hostpc::KsStream* stream = nullptr;
};

struct Pcm {
    snd_pcm_ioplug_t io{};
    DeviceParams params;
    std::shared_ptr<Device> device;
    uint64_t instance = 0; // the device instance the PCM was opened on
    int wakeFd = -1;
    bool capture = false;
    // Channel positions by channel count, as the driver's ring channels carry them.
    std::vector<std::vector<unsigned>> chmaps;

    // Only the program's threads change these, under this lock.
    std::recursive_mutex lock;
    std::shared_ptr<StreamShare> share = std::make_shared<StreamShare>();
    std::unique_ptr<hostpc::KsStream> stream;
    std::unique_ptr<ClientQueue> queue;
    std::vector<unsigned> positions; // of the stream's channels
    unsigned frameBytes = 0;
    unsigned devicePeriod = 256; // frames the driver moves per period
    snd_pcm_uframes_t availMin = 1;
    snd_pcm_uframes_t stopThreshold = 0; // 0: the buffer size
    snd_pcm_uframes_t boundary = 0;

    // Since the last prepare.
    uint64_t transferred = 0;    // frames written (render) or read (capture)
    hostpc::StreamCounters base; // the pin's counters at the prepare
    bool running = false;        // the pin was put into RUN
    bool deferred = false;       // started for ALSA, the pin waits for audio (startDue)
    Clock::time_point lastWrite; // or the start, while deferred
    bool paused = false;
    bool draining = false;
    bool xrun = false;
    uint64_t xrunAt = 0; // frames the program had moved in all when it came

    // For the summary.
    std::string streamText;
    uint64_t frames = 0, xruns = 0;
    std::string xrunLines;         // what each xrun cost, as the port counted it
    hostpc::StreamCounters closed; // counters of pins closed before
};

Pcm* pcmOf(snd_pcm_ioplug_t* io) {
    return static_cast<Pcm*>(io->private_data);
}

// Driver code (linked or the image) may run on any of the program's threads
// that calls in: each gets what driver code reads from the processor.
void enterThread() {
    thread_local bool entered = false;
    if (!entered) {
        entered = true;
        hostk::enterDriverThread();
    }
}

// Every callback but close starts here, and holds the PCM's lock: ALSA calls
// some (poll, prepare, drain) without its own, from any thread.
class Entered {
public:
    explicit Entered(snd_pcm_ioplug_t* io) : mPcm((enterThread(), pcmOf(io))), mLock(mPcm->lock) {}
    Pcm* operator->() const { return mPcm; }
    operator Pcm*() const { return mPcm; }
    std::unique_lock<std::recursive_mutex>& lock() { return mLock; }

private:
    Pcm* mPcm;
    std::unique_lock<std::recursive_mutex> mLock;
};

unsigned bitsOf(snd_pcm_format_t format) {
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
        return 16;
    case SND_PCM_FORMAT_S24_3LE:
        return 24;
    case SND_PCM_FORMAT_S32_LE:
        return 32;
    default:
        return 0;
    }
}

// A WAVEFORMATEXTENSIBLE speaker mask's bits, in order, as ALSA positions;
// channels past the mask have none.
std::vector<unsigned> positionsOf(uint32_t mask, unsigned channels) {
    static const unsigned kSpeakers[] = {
        SND_CHMAP_FL,  SND_CHMAP_FR,  SND_CHMAP_FC,  SND_CHMAP_LFE, SND_CHMAP_RL,  SND_CHMAP_RR,
        SND_CHMAP_FLC, SND_CHMAP_FRC, SND_CHMAP_RC,  SND_CHMAP_SL,  SND_CHMAP_SR,  SND_CHMAP_TC,
        SND_CHMAP_TFL, SND_CHMAP_TFC, SND_CHMAP_TFR, SND_CHMAP_TRL, SND_CHMAP_TRC, SND_CHMAP_TRR};
    std::vector<unsigned> positions;
    for (unsigned bit = 0; bit < 18 && positions.size() < channels; ++bit)
        if (mask & (1u << bit))
            positions.push_back(kSpeakers[bit]);
    positions.resize(channels, SND_CHMAP_UNKNOWN);
    return positions;
}

std::vector<unsigned> positionsOf(const std::vector<UCHAR>& format) {
    const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
    if (!w)
        return {};
    const bool extensible = w->wFormatTag == WAVE_FORMAT_EXTENSIBLE && w->cbSize >= 22 &&
                            format.size() >= sizeof(KSDATAFORMAT) + sizeof(WAVEFORMATEXTENSIBLE);
    const uint32_t mask = extensible
                              ? reinterpret_cast<const WAVEFORMATEXTENSIBLE*>(w)->dwChannelMask
                              : ~0u; // the first nChannels positions
    return positionsOf(mask, w->nChannels);
}

void drainWakes(int fd) {
    uint64_t count;
    while (::read(fd, &count, sizeof count) > 0) {
    }
}

// The device the PCM was opened on is gone: the PCM is disconnected for
// ALSA too, whose waits and state checks then answer -ENODEV themselves.
bool lost(Pcm* p) {
    if (!p->device->lost(p->instance) && !(p->stream && p->stream->removed()))
        return false;
    if (p->io.state != SND_PCM_STATE_DISCONNECTED)
        snd_pcm_ioplug_set_state(&p->io, SND_PCM_STATE_DISCONNECTED);
    return true;
}

void defer(Pcm* p, bool on) {
    if (p->deferred != on)
        p->device->wantTicks(p->wakeFd, on);
    p->deferred = on;
}

void closeStream(Pcm* p) {
    defer(p, false);
    std::unique_ptr<hostpc::KsStream> stream = std::move(p->stream);
    if (!stream)
        return;
    {
        std::lock_guard<std::mutex> lock(p->share->lock);
        p->share->stream = nullptr;
    }
    const hostpc::StreamCounters c = stream->counters();
    p->closed.glitches += c.glitches;
    p->closed.silenceFrames += c.silenceFrames;
    p->closed.overruns += c.overruns;
    p->closed.droppedFrames += c.droppedFrames;
    stream->close();
    stream.reset();
    p->queue.reset(); // the pin no longer looks at it
    p->running = false;
}

// Render: what the driver has moved and the device has played of the
// program's frames since the prepare, from one look at the device.
FillLog::Totals renderProgress(Pcm* p) {
    Device& device = *p->device;
    device.waitForClock();
    const uint32_t read = device.renderReadPos(); // before the write position
    return p->queue->log().totals(device.renderWritePos(), read, device.renderWriteOffset());
}

// Capture: frames delivered into the queue since the prepare.
uint64_t captured(Pcm* p) {
    p->device->waitForClock();
    p->stream->positionFrames(); // takes in a period not serviced yet
    return p->transferred + p->queue->frames();
}

// Frames the stop threshold leaves the program: an xrun when no more than
// this many are left to play (render) or free (capture). Negative: never.
int64_t stopSlack(const Pcm* p) {
    const snd_pcm_uframes_t size = p->io.buffer_size;
    const snd_pcm_uframes_t stop = p->stopThreshold ? p->stopThreshold : size;
    return stop > size ? -1 : int64_t(size - stop);
}

bool watching(const Pcm* p) {
    return p->running && !p->draining && !p->paused && p->io.state == SND_PCM_STATE_RUNNING;
}

bool underrun(Pcm* p, const FillLog::Totals& t) {
    const int64_t slack = stopSlack(p);
    if (!watching(p) || slack < 0 || int64_t(p->transferred - t.moved) > slack)
        return false; // the device has at least that much still to play
    return int64_t(p->transferred - t.played) <= slack;
}

bool overrun(Pcm* p, uint64_t hw) {
    const int64_t slack = stopSlack(p);
    if (!watching(p) || slack < 0)
        return false;
    const uint64_t dropped = p->stream->counters().droppedFrames - p->base.droppedFrames;
    return dropped > 0 || int64_t(p->io.buffer_size) - int64_t(hw - p->transferred) <= slack;
}

const char* direction(const Pcm* p) {
    return p->capture ? "capture" : "render";
}

int runStream(Pcm* p) {
    if (lost(p))
        return -ENODEV;
    defer(p, false);
    Device& device = *p->device;
    device.model().clearCalls();
    const size_t mark = device.traceMark();
    const NTSTATUS status = p->stream->setState(KSSTATE_RUN);
    if (lost(p))
        return -ENODEV;
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused to start %s: %s", direction(p),
               device.refusal(status, mark).c_str());
        return -EIO;
    }
    p->running = true;
    if (!p->capture)
        device.beginOutput([share = p->share] {
            std::lock_guard<std::mutex> lock(share->lock);
            return share->stream ? share->stream->positionFrames() : 0;
        });
    return 0;
}

// Render: the port takes a device period at the start and one at every
// period after, the first of them at any moment. The pin runs once the
// program has queued four (or filled its buffer), so that a program that is
// slow for a moment at its start (a busy machine) does not leave the port a
// period short; sooner when the program drains, or writes nothing for a
// period's time (it has written what it had).
bool startDue(const Pcm* p) {
    if (p->queue->frames() >= 4 * p->devicePeriod || p->queue->room() < p->frameBytes)
        return true;
    const auto periodTime = std::chrono::nanoseconds(uint64_t(p->devicePeriod) * 1000000000ull /
                                                     (p->io.rate ? p->io.rate : 48000));
    return Clock::now() - p->lastWrite >= periodTime;
}

int startWhenDue(Pcm* p) {
    if (!p->deferred || p->paused || !startDue(p))
        return 0;
    return runStream(p);
}

// As ALSA's core does on an xrun: the stream stops, so that its stop
// timestamp, from which programs measure the xrun, is when the plugin saw
// it, and the program sees XRUN. Called inside pointer, which ALSA calls
// with its (recursive) lock held.
snd_pcm_sframes_t declareXrun(Pcm* p) {
    p->xrun = true;
    ++p->xruns;
    p->xrunAt = p->frames + p->transferred;
    snd_pcm_drop(p->io.pcm);
    return -EPIPE;
}

// ---- Callbacks ----

// The driver takes one sample rate for both directions and changes it only
// for a stream whose partner pin is closed, when the stream first runs or
// sets a format. A PCM opened before the other direction's carries its rate
// now with a format property, so that the other's pin finds the hardware at
// its rate; the port passes a format on only when it differs from the pin's,
// so the same format goes first in its other layout (the driver reads only
// rate, channels, bits and alignment).
NTSTATUS carryRate(hostpc::KsStream& stream, const std::vector<UCHAR>& format) {
    const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
    std::vector<UCHAR> other = hostpc::pcmFormat(w->nSamplesPerSec, w->nChannels, w->wBitsPerSample,
                                                 w->wFormatTag != WAVE_FORMAT_EXTENSIBLE);
    reinterpret_cast<KSDATAFORMAT*>(other.data())->SampleSize =
        reinterpret_cast<const KSDATAFORMAT*>(format.data())->SampleSize;
    NTSTATUS status = stream.setFormat(other);
    if (NT_SUCCESS(status))
        status = stream.setFormat(format);
    return status;
}

int mmeHwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) {
    Entered p(io);
    closeStream(p);
    uint64_t instance = 0;
    const std::shared_ptr<hostpc::WaveFilter> filter = p->device->filter(&instance);
    if (lost(p) || !filter || instance != p->instance) {
        SNDERR("mme: the device was unplugged");
        return -ENODEV;
    }
    const unsigned bits = bitsOf(io->format);
    if (bits == 0) {
        SNDERR("mme: format %s is not offered", snd_pcm_format_name(io->format));
        return -EINVAL;
    }
    const ULONG rate = io->rate;
    const USHORT channels = USHORT(io->channels);
    const ULONG pin = p->capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin;
    Device& device = *p->device;
    device.model().clearCalls();
    size_t mark = device.traceMark();

    // As the audio engine does: the pin's data intersection for exactly this
    // format; when it offers nothing, the format itself, so that the driver's
    // validation says why it refuses.
    std::vector<UCHAR> format;
    NTSTATUS status =
        filter->intersect(pin, hostpc::clientRange(channels, bits, bits, rate, rate), &format);
    const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
    if (!NT_SUCCESS(status) || !w || w->nChannels != channels || w->wBitsPerSample != bits ||
        w->nSamplesPerSec != rate)
        format = hostpc::pcmFormat(rate, channels, USHORT(bits));
    // The driver offers SampleSize 0 ("not fixed"); a client opening the pin
    // states its frame size there, and the stream's framing is built from it.
    auto* header = reinterpret_cast<KSDATAFORMAT*>(format.data());
    if (header->SampleSize == 0)
        header->SampleSize = ULONG(hostpc::waveFormatOf(format)->nBlockAlign);

    p->frameBytes = channels * (bits / 8);
    auto queue = std::make_unique<ClientQueue>(size_t(io->buffer_size) * p->frameBytes, p->wakeFd,
                                               p->frameBytes, &device);
    hostpc::StreamOptions options;
    if (p->capture) {
        options.sink = queue.get();
    } else {
        options.source = queue.get();
        // The least the port keeps written ahead: one device period. The
        // program's buffer is then its whole buffer, as on a sound card.
        options.leadFrames = 1;
    }
    std::unique_ptr<hostpc::KsStream> stream;
    status = filter->open(pin, format, options, &stream);
    char text[64];
    std::snprintf(text, sizeof text, "%u/%u/%u", unsigned(rate), unsigned(channels), bits);
    if (!NT_SUCCESS(status) && lost(p)) {
        SNDERR("mme: the device was unplugged");
        return -ENODEV;
    }
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused %s at %s: %s", direction(p), text,
               device.refusal(status, mark).c_str());
        return -EINVAL;
    }
    const ULONG running = device.model().settings().current.fr;
    if (running != rate) {
        device.model().clearCalls();
        mark = device.traceMark();
        status = carryRate(*stream, format);
        if (!NT_SUCCESS(status)) {
            const std::string why = device.refusal(status, mark);
            stream.reset();
            if (lost(p)) {
                SNDERR("mme: the device was unplugged");
                return -ENODEV;
            }
            SNDERR("mme: %s at %u Hz: the device runs at %u Hz for the other direction, and "
                   "both directions share one rate: the driver refused: %s",
                   direction(p), unsigned(rate), unsigned(running), why.c_str());
            return -EINVAL;
        }
    }
    p->devicePeriod = std::max<unsigned>(1, stream->framingBytes() / p->frameBytes);
    p->positions = positionsOf(format);
    p->queue = std::move(queue);
    p->stream = std::move(stream);
    {
        std::lock_guard<std::mutex> lock(p->share->lock);
        p->share->stream = p->stream.get();
    }
    p->streamText = std::string(direction(p)) + " " + text;
    return 0;
}

int mmeHwFree(snd_pcm_ioplug_t* io) {
    Entered p(io);
    closeStream(p);
    return 0;
}

int mmeSwParams(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) {
    Entered p(io);
    snd_pcm_uframes_t value = 0;
    if (snd_pcm_sw_params_get_avail_min(params, &value) == 0)
        p->availMin = value ? value : 1;
    if (snd_pcm_sw_params_get_stop_threshold(params, &value) == 0)
        p->stopThreshold = value;
    if (snd_pcm_sw_params_get_boundary(params, &value) == 0)
        p->boundary = value;
    return 0;
}

int mmePrepare(snd_pcm_ioplug_t* io) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    defer(p, false);
    const NTSTATUS status = p->stream->setState(KSSTATE_STOP);
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused to stop %s: %s", direction(p),
               hostpc::statusName(status).c_str());
        return lost(p) ? -ENODEV : -EIO;
    }
    // A stopped pin neither takes nor gives audio.
    p->queue->clear();
    p->queue->log().clear();
    p->frames += p->transferred;
    p->transferred = 0;
    const hostpc::StreamCounters c = p->stream->counters();
    if (p->xrun) {
        char line[160];
        std::snprintf(
            line, sizeof line,
            "xrun %llu glitches %llu silence_frames %llu overruns %llu at_frame %llu\n",
            (unsigned long long)p->xruns, (unsigned long long)(c.glitches - p->base.glitches),
            (unsigned long long)(c.silenceFrames - p->base.silenceFrames),
            (unsigned long long)(c.overruns - p->base.overruns), (unsigned long long)p->xrunAt);
        p->xrunLines += line;
    }
    p->base = c;
    p->running = p->paused = p->draining = p->xrun = false;
    drainWakes(p->wakeFd);
    return 0;
}

int mmeStart(snd_pcm_ioplug_t* io) {
    Entered p(io);
    if (!p->stream)
        return -EBADFD;
    if (lost(p))
        return -ENODEV;
    p->lastWrite = Clock::now();
    if (!p->capture && !startDue(p)) {
        defer(p, true);
        return 0;
    }
    return runStream(p);
}

int mmeStop(snd_pcm_ioplug_t* io) {
    Entered p(io);
    defer(p, false);
    if (!p->stream)
        return 0;
    p->stream->setState(KSSTATE_STOP);
    p->queue->clear();
    p->running = p->paused = false;
    return 0;
}

int mmePause(snd_pcm_ioplug_t* io, int enable) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    if (p->deferred) {
        // Nothing runs yet: a resume waits a period afresh.
        p->paused = enable != 0;
        p->lastWrite = Clock::now();
        return 0;
    }
    const NTSTATUS status = p->stream->setState(enable ? KSSTATE_PAUSE : KSSTATE_RUN);
    if (lost(p))
        return -ENODEV;
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused to %s %s: %s", enable ? "pause" : "resume", direction(p),
               hostpc::statusName(status).c_str());
        return -EIO;
    }
    p->paused = enable != 0;
    return 0;
}

snd_pcm_sframes_t mmePointer(snd_pcm_ioplug_t* io) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    if (p->xrun)
        return -EPIPE;
    const int err = startWhenDue(p);
    if (err < 0)
        return err;
    uint64_t hw;
    if (p->capture) {
        hw = captured(p);
        if (overrun(p, hw))
            return declareXrun(p);
    } else {
        const FillLog::Totals t = renderProgress(p);
        if (underrun(p, t))
            return declareXrun(p);
        hw = t.moved;
    }
    // The whole count, not the buffer position: a stall longer than the
    // buffer still moves ALSA's pointer by what really moved.
    return snd_pcm_sframes_t(p->boundary ? hw % p->boundary : hw % io->buffer_size);
}

snd_pcm_sframes_t mmeTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                              snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->queue)
        return -EBADFD;
    // Interleaved: channel 0's area walks whole frames.
    auto* frames =
        static_cast<char*>(areas[0].addr) + (areas[0].first + areas[0].step * offset) / 8;
    size_t done;
    if (p->capture) {
        const size_t ready = std::min<size_t>(size, p->queue->frames());
        done = p->queue->get(frames, ready * p->frameBytes) / p->frameBytes;
    } else {
        const size_t fit = std::min<size_t>(size, p->queue->room() / p->frameBytes);
        done = p->queue->put(frames, fit * p->frameBytes) / p->frameBytes;
    }
    p->transferred += done;
    if (done)
        p->lastWrite = Clock::now();
    const int err = startWhenDue(p);
    return err < 0 ? err : snd_pcm_sframes_t(done);
}

int mmeDelay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* delay) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    if (p->xrun || io->state == SND_PCM_STATE_XRUN)
        return -EPIPE;
    if (p->capture) {
        *delay = snd_pcm_sframes_t(captured(p) - p->transferred);
        return 0;
    }
    const int err = startWhenDue(p);
    if (err < 0)
        return err;
    // Everything written and not yet played, wherever it is on its way.
    const FillLog::Totals t = renderProgress(p);
    *delay = snd_pcm_sframes_t(p->transferred - std::min(t.played, p->transferred));
    return 0;
}

// Waits for the next look of the port; an error when the device stopped
// moving for a while.
template <class Done> int waitUntil(Entered& p, Done done, const char* what) {
    auto lastMove = Clock::now();
    uint32_t lastRead = p->device->renderReadPos();
    while (!done()) {
        pollfd fd{p->wakeFd, POLLIN, 0};
        p.lock().unlock();
        ::poll(&fd, 1, 100);
        p.lock().lock();
        drainWakes(p->wakeFd);
        if (lost(p))
            return -ENODEV;
        const uint32_t read = p->device->renderReadPos();
        if (read != lastRead) {
            lastRead = read;
            lastMove = Clock::now();
        } else if (Clock::now() - lastMove > std::chrono::seconds(3)) {
            SNDERR("mme: the device stopped moving audio while %s", what);
            return -EIO;
        }
    }
    return 0;
}

int mmeDrain(snd_pcm_ioplug_t* io) {
    Entered p(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    if (p->capture)
        return 0;
    if (!p->draining) {
        if (!p->running && !p->deferred && p->transferred == 0)
            return 0;
        // The port fills silence after the last frames without counting it.
        p->draining = true;
        p->stream->endOfStream();
        if (!p->running) {
            const int err = runStream(p);
            if (err < 0)
                return err;
        }
    }
    auto played = [&p] { return renderProgress(p).played >= p->transferred; };
    if (io->nonblock)
        return played() ? 0 : -EAGAIN;
    return waitUntil(p, played, "draining");
}

int mmePollCount(snd_pcm_ioplug_t* io) {
    Entered p(io);
    return 1;
}

int mmePollDescriptors(snd_pcm_ioplug_t* io, pollfd* pfd, unsigned int space) {
    Entered p(io);
    if (space < 1)
        return 0;
    pfd->fd = p->wakeFd;
    pfd->events = POLLIN;
    pfd->revents = 0;
    return 1;
}

int mmePollRevents(snd_pcm_ioplug_t* io, pollfd*, unsigned int, unsigned short* revents) {
    Entered p(io);
    drainWakes(p->wakeFd);
    *revents = 0;
    if (lost(p)) {
        // As a disconnected sound card's descriptor: ready, with the error, for good.
        *revents = POLLERR;
        wake(p->wakeFd);
        return 0;
    }
    if (!p->stream) {
        *revents = POLLERR;
        return 0;
    }
    if (startWhenDue(p) < 0) {
        *revents = POLLERR;
        return 0;
    }
    bool ready =
        p->xrun || (io->state != SND_PCM_STATE_RUNNING && io->state != SND_PCM_STATE_DRAINING);
    if (!ready && p->capture) {
        const uint64_t hw = captured(p);
        ready = hw - p->transferred >= p->availMin || overrun(p, hw);
    } else if (!ready) {
        const FillLog::Totals t = renderProgress(p);
        const uint64_t held = p->transferred - std::min(t.moved, p->transferred);
        ready = io->buffer_size >= held + p->availMin || underrun(p, t);
    }
    if (ready) {
        *revents = p->capture ? POLLIN : POLLOUT;
        // Level-triggered, as a sound card's descriptor is: it stays ready
        // until the program has taken what is available.
        wake(p->wakeFd);
    }
    return 0;
}

snd_pcm_chmap_query_t** mmeQueryChmaps(snd_pcm_ioplug_t* io) {
    Entered p(io);
    size_t count = 0;
    for (const auto& map : p->chmaps)
        count += !map.empty();
    auto** maps =
        static_cast<snd_pcm_chmap_query_t**>(calloc(count + 1, sizeof(snd_pcm_chmap_query_t*)));
    if (!maps)
        return nullptr;
    size_t i = 0;
    for (const auto& map : p->chmaps) {
        if (map.empty())
            continue;
        auto* q = static_cast<snd_pcm_chmap_query_t*>(
            malloc(sizeof(snd_pcm_chmap_query_t) + map.size() * sizeof(unsigned)));
        if (!q) {
            snd_pcm_free_chmaps(maps);
            return nullptr;
        }
        q->type = SND_CHMAP_TYPE_FIXED;
        q->map.channels = unsigned(map.size());
        std::copy(map.begin(), map.end(), q->map.pos);
        maps[i++] = q;
    }
    return maps;
}

const std::vector<unsigned>* currentChmap(Pcm* p) {
    if (p->stream && p->positions.size() == p->io.channels)
        return &p->positions;
    if (p->io.channels < p->chmaps.size() && !p->chmaps[p->io.channels].empty())
        return &p->chmaps[p->io.channels];
    return nullptr;
}

snd_pcm_chmap_t* mmeGetChmap(snd_pcm_ioplug_t* io) {
    const std::vector<unsigned>* map = currentChmap(Entered(io));
    if (!map)
        return nullptr;
    auto* m = static_cast<snd_pcm_chmap_t*>(
        malloc(sizeof(snd_pcm_chmap_t) + map->size() * sizeof(unsigned)));
    if (!m)
        return nullptr;
    m->channels = unsigned(map->size());
    std::copy(map->begin(), map->end(), m->pos);
    return m;
}

// The ring channels' order is fixed: only that order is accepted.
int mmeSetChmap(snd_pcm_ioplug_t* io, const snd_pcm_chmap_t* map) {
    const std::vector<unsigned>* mine = currentChmap(Entered(io));
    if (!mine || !map || map->channels != mine->size() ||
        !std::equal(mine->begin(), mine->end(), map->pos))
        return -EINVAL;
    return 0;
}

void writeSummary(Pcm* p, const std::string& teardown, bool first) {
    if (p->params.summary.empty())
        return;
    // The PCMs of a process that share the device share the file, one block each.
    std::FILE* f = std::fopen(p->params.summary.c_str(), first ? "w" : "a");
    if (!f) {
        SNDERR("mme: cannot write the summary %s", p->params.summary.c_str());
        return;
    }
    const hostpc::StreamCounters& c = p->closed;
    std::fprintf(f,
                 "%sstream %s\nframes %llu\nglitches %llu\nsilence_frames %llu\noverruns %llu\n"
                 "dropped_frames %llu\nxruns %llu\n%steardown %s\n",
                 first ? "" : "\n", p->streamText.empty() ? "none" : p->streamText.c_str(),
                 (unsigned long long)p->frames, (unsigned long long)c.glitches,
                 (unsigned long long)c.silenceFrames, (unsigned long long)c.overruns,
                 (unsigned long long)c.droppedFrames, (unsigned long long)p->xruns,
                 p->xrunLines.c_str(), teardown.empty() ? "clean" : teardown.c_str());
    std::fclose(f);
}

void destroy(Pcm* p) {
    closeStream(p);
    p->frames += p->transferred;
    p->transferred = 0;
    std::string problems;
    if (p->device) {
        p->device->removeWaiter(p->wakeFd);
        const bool last = p->device.use_count() == 1;
        const bool first = !p->params.summary.empty() && p->device->firstSummary(p->params.summary);
        problems = Device::release(p->device);
        if (!problems.empty())
            SNDERR("mme: the device did not come down cleanly: %s", problems.c_str());
        writeSummary(p, last ? problems : "shared", first);
    }
    if (p->wakeFd >= 0)
        ::close(p->wakeFd);
    delete p;
}

int mmeClose(snd_pcm_ioplug_t* io) {
    enterThread();
    destroy(pcmOf(io));
    return 0;
}

const snd_pcm_ioplug_callback_t kCallbacks = [] {
    snd_pcm_ioplug_callback_t c{};
    c.start = mmeStart;
    c.stop = mmeStop;
    c.pointer = mmePointer;
    c.transfer = mmeTransfer;
    c.close = mmeClose;
    c.hw_params = mmeHwParams;
    c.hw_free = mmeHwFree;
    c.sw_params = mmeSwParams;
    c.prepare = mmePrepare;
    c.drain = mmeDrain;
    c.pause = mmePause;
    c.poll_descriptors_count = mmePollCount;
    c.poll_descriptors = mmePollDescriptors;
    c.poll_revents = mmePollRevents;
    c.delay = mmeDelay;
    c.query_chmaps = mmeQueryChmaps;
    c.get_chmap = mmeGetChmap;
    c.set_chmap = mmeSetChmap;
    return c;
}();

// What the pin offers, as ALSA hardware constraints; the driver judges the
// combination when the program sets its parameters.
int constrain(Pcm* p) {
    const ULONG pin = p->capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin;
    const std::shared_ptr<hostpc::WaveFilter> filter = p->device->filter(&p->instance);
    if (!filter) {
        SNDERR("mme: the device is unplugged");
        return -ENODEV;
    }
    const hostpc::PinInfo info = filter->pin(pin);
    static const unsigned kRates[] = {8000,  11025, 16000,  22050,  32000,  44100, 48000,
                                      88200, 96000, 176400, 192000, 352800, 384000};
    std::set<unsigned> rates, channels, formats;
    unsigned widest = 0;
    for (const KSDATARANGE_AUDIO& r : info.ranges) {
        rates.insert(r.MinimumSampleFrequency);
        rates.insert(r.MaximumSampleFrequency);
        for (unsigned rate : kRates)
            if (rate >= r.MinimumSampleFrequency && rate <= r.MaximumSampleFrequency)
                rates.insert(rate);
        // Fewer channels pass when even; the most always.
        for (unsigned c = 2; c < r.MaximumChannels; c += 2)
            channels.insert(c);
        channels.insert(r.MaximumChannels);
        const struct {
            unsigned bits;
            snd_pcm_format_t format;
        } kFormats[] = {
            {16, SND_PCM_FORMAT_S16_LE}, {24, SND_PCM_FORMAT_S24_3LE}, {32, SND_PCM_FORMAT_S32_LE}};
        for (const auto& f : kFormats)
            if (f.bits >= r.MinimumBitsPerSample && f.bits <= r.MaximumBitsPerSample) {
                formats.insert(unsigned(f.format));
                widest = std::max(widest, unsigned(r.MaximumChannels) * (f.bits / 8));
            }
    }
    channels.erase(0u);
    if (rates.empty() || channels.empty() || formats.empty()) {
        SNDERR("mme: the driver's %s pin offers no format", direction(p));
        return -ENODEV;
    }
    // Channel positions as the driver's intersection states them, at the
    // rate the device runs at (the driver offers no other while a pin is open).
    const ULONG rate = p->device->model().settings().current.fr;
    for (unsigned c : channels) {
        std::vector<UCHAR> format;
        const bool offered =
            NT_SUCCESS(filter->intersect(pin, hostpc::clientRange(c, 16, 32, rate, rate), &format));
        const WAVEFORMATEX* w = offered ? hostpc::waveFormatOf(format) : nullptr;
        if (p->chmaps.size() <= c)
            p->chmaps.resize(c + 1);
        p->chmaps[c] = w && w->nChannels == c ? positionsOf(format) : positionsOf(~0u, c);
    }
    auto list = [](const std::set<unsigned>& s) {
        return std::vector<unsigned>(s.begin(), s.end());
    };
    const std::vector<unsigned> rateList = list(rates), channelList = list(channels),
                                formatList = list(formats);
    const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    int err = snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_ACCESS, 2, access);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_FORMAT,
                                            unsigned(formatList.size()), formatList.data());
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_CHANNELS,
                                            unsigned(channelList.size()), channelList.data());
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_RATE,
                                            unsigned(rateList.size()), rateList.data());
    // The driver moves 256 frames a period and the port takes the next
    // period from the buffer at every period: a period below 256 frames
    // could not move as the program asked, a buffer below two periods would
    // run dry however fast the program is. ALSA's plugin constraints are in
    // bytes, so the frames are the widest the pin offers; narrower formats
    // get longer minimums.
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 256 * widest,
                                              256 << 10);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 512 * widest,
                                              512 << 10);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1024);
    return err;
}

int open(snd_pcm_t** pcmp, const char* name, snd_config_t* conf, snd_pcm_stream_t stream,
         int mode) {
    auto* p = new Pcm();
    p->capture = stream == SND_PCM_STREAM_CAPTURE;
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf) {
        snd_config_t* n = snd_config_iterator_entry(i);
        const char* id;
        if (snd_config_get_id(n, &id) < 0)
            continue;
        if (!std::strcmp(id, "comment") || !std::strcmp(id, "type") || !std::strcmp(id, "hint"))
            continue;
        std::string* field = !std::strcmp(id, "profile")   ? &p->params.profile
                             : !std::strcmp(id, "input")   ? &p->params.input
                             : !std::strcmp(id, "output")  ? &p->params.output
                             : !std::strcmp(id, "driver")  ? &p->params.driver
                             : !std::strcmp(id, "trace")   ? &p->params.trace
                             : !std::strcmp(id, "summary") ? &p->params.summary
                             : !std::strcmp(id, "unplug")  ? &p->params.unplug
                                                           : nullptr;
        const char* value = nullptr;
        if (!field) {
            SNDERR("mme: unknown field %s (profile, input, output, driver, trace, summary, "
                   "unplug)",
                   id);
            delete p;
            return -EINVAL;
        }
        if (snd_config_get_string(n, &value) < 0) {
            SNDERR("mme: %s must be a string", id);
            delete p;
            return -EINVAL;
        }
        *field = value;
    }
    if (!p->params.unplug.empty()) {
        try {
            parseUnplug(p->params.unplug);
        } catch (const DeviceError& e) {
            SNDERR("mme: %s", e.what());
            delete p;
            return -EINVAL;
        }
    }
    p->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (p->wakeFd < 0) {
        const int err = -errno;
        delete p;
        return err;
    }
    try {
        p->device = Device::acquire(p->params);
        p->device->addWaiter(p->wakeFd);
    } catch (const std::exception& e) {
        SNDERR("mme: %s", e.what());
        ::close(p->wakeFd);
        delete p;
        return -ENODEV;
    }
    p->io.version = SND_PCM_IOPLUG_VERSION;
    p->io.name = "MME/KS/WDM driver on a simulated USB audio interface";
    p->io.callback = &kCallbacks;
    p->io.private_data = p;
    p->io.poll_fd = p->wakeFd;
    p->io.poll_events = POLLIN;
    // The pointer callback gives whole counts (up to ALSA's boundary).
    p->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    int err = snd_pcm_ioplug_create(&p->io, name, stream, mode);
    if (err < 0) {
        destroy(p);
        return err;
    }
    err = constrain(p);
    if (err < 0) {
        snd_pcm_ioplug_delete(&p->io); // closes, which destroys p
        return err;
    }
    *pcmp = p->io.pcm;
    return 0;
}

} // namespace
} // namespace mmealsa

extern "C" SND_PCM_PLUGIN_DEFINE_FUNC(mme) {
    (void)root;
    mmealsa::enterThread();
    try {
        return mmealsa::open(pcmp, name, conf, stream, mode);
    } catch (const std::exception& e) {
        SNDERR("mme: %s", e.what());
        return -EIO;
    }
}

extern "C" {
SND_PCM_PLUGIN_SYMBOL(mme);
}
