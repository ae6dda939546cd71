// The ALSA external PCM "mme" (ioplug): each open PCM loads the driver above
// the model USB driver running in real time, opens the wave filter's render
// or capture pin with the program's format, walks the KS states with the
// program's prepare/start/stop/pause/drain and moves audio through a client
// queue that the port's service routine empties or fills every period.
//
// Pointers: the hardware pointer is the stream's position (frames the driver
// moved since the pin last left STOP), so avail and delay follow what the
// driver reports. The port counting a glitch (render) or an overrun
// (capture) is an xrun for the program.
//
// Threads: ALSA calls the callbacks from the program's threads; the port's
// service routine runs on the model's clock thread and only touches the
// queue, whose every look wakes the program's poll through an eventfd.
//
// Unplug: the device's unplug wakes the poll too (no port service runs on a
// device that is gone); from then on the PCM is disconnected, as one of a
// sound card pulled out: every call fails with -ENODEV, poll reports POLLERR,
// and only closing is left. A PCM opened after a replug uses the new device.
#include "MmeDevice.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>
#include <unistd.h>

namespace mmealsa {
namespace {

// The client queue; the port's service routine wakes the program whenever
// it looks for audio or room, that is whenever the position may have moved.
class WakingQueue : public hostpc::ByteQueue {
public:
    WakingQueue(size_t capacity, int fd) : ByteQueue(capacity), mFd(fd) {}
    ULONG map(const UCHAR** where, ULONG bytes) override {
        const ULONG n = ByteQueue::map(where, bytes);
        wake();
        return n;
    }
    ULONG map(UCHAR** where, ULONG bytes) override {
        const ULONG n = ByteQueue::map(where, bytes);
        wake();
        return n;
    }

private:
    void wake() {
        const uint64_t one = 1;
        ssize_t done = ::write(mFd, &one, sizeof one);
        (void)done; // a full counter wakes the reader all the same
    }
    int mFd;
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

    // Only the program's thread changes these.
    std::shared_ptr<StreamShare> share = std::make_shared<StreamShare>();
    std::unique_ptr<hostpc::KsStream> stream;
    std::unique_ptr<WakingQueue> queue;
    unsigned frameBytes = 0;
    snd_pcm_uframes_t availMin = 1;

    // Since the last prepare.
    uint64_t transferred = 0;    // frames written (render) or read (capture)
    hostpc::StreamCounters base; // the pin's counters at the prepare
    bool draining = false;
    bool xrun = false;

    // For the summary.
    std::string streamText;
    uint64_t frames = 0, xruns = 0;
    std::string xrunLines;         // what each xrun cost, as the port counted it
    hostpc::StreamCounters closed; // counters of pins closed before
};

Pcm* pcmOf(snd_pcm_ioplug_t* io) {
    return static_cast<Pcm*>(io->private_data);
}

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

void drainWakes(int fd) {
    uint64_t count;
    while (::read(fd, &count, sizeof count) > 0) {
    }
}

void wake(int fd) {
    const uint64_t one = 1;
    ssize_t done = ::write(fd, &one, sizeof one);
    (void)done;
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

void closeStream(Pcm* p) {
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
}

// Frames the driver has moved since the pin left STOP.
uint64_t position(Pcm* p) {
    if (!p->stream)
        return 0;
    p->device->waitForClock();
    return p->stream->positionFrames();
}

bool xrunNow(Pcm* p, uint64_t pos) {
    if (p->xrun)
        return true;
    if (!p->stream || p->draining)
        return false;
    const hostpc::StreamCounters c = p->stream->counters();
    const bool late = p->capture ? c.overruns > p->base.overruns
                                 : c.glitches > p->base.glitches || pos > p->transferred;
    if (late) {
        p->xrun = true;
        ++p->xruns;
    }
    return late;
}

snd_pcm_uframes_t availNow(Pcm* p, uint64_t pos) {
    const snd_pcm_uframes_t size = p->io.buffer_size;
    if (p->capture)
        return pos > p->transferred ? snd_pcm_uframes_t(pos - p->transferred) : 0;
    const uint64_t held = p->transferred > pos ? p->transferred - pos : 0;
    return held < size ? size - snd_pcm_uframes_t(held) : 0;
}

const char* direction(const Pcm* p) {
    return p->capture ? "capture" : "render";
}

// ---- Callbacks ----

int mmeHwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) {
    Pcm* p = pcmOf(io);
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
    const size_t mark = device.traceMark();

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
    auto queue = std::make_unique<WakingQueue>(size_t(io->buffer_size) * p->frameBytes, p->wakeFd);
    hostpc::StreamOptions options;
    if (p->capture)
        options.sink = queue.get();
    else
        options.source = queue.get();
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
    closeStream(pcmOf(io));
    return 0;
}

int mmeSwParams(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) {
    snd_pcm_uframes_t availMin = 1;
    if (snd_pcm_sw_params_get_avail_min(params, &availMin) == 0)
        pcmOf(io)->availMin = availMin ? availMin : 1;
    return 0;
}

int mmePrepare(snd_pcm_ioplug_t* io) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    const NTSTATUS status = p->stream->setState(KSSTATE_STOP);
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused to stop %s: %s", direction(p),
               hostpc::statusName(status).c_str());
        return lost(p) ? -ENODEV : -EIO;
    }
    p->queue->clear(); // a stopped pin neither takes nor gives audio
    p->frames += p->transferred;
    p->transferred = 0;
    const hostpc::StreamCounters c = p->stream->counters();
    if (p->xrun) {
        char line[128];
        std::snprintf(
            line, sizeof line, "xrun %llu glitches %llu silence_frames %llu overruns %llu\n",
            (unsigned long long)p->xruns, (unsigned long long)(c.glitches - p->base.glitches),
            (unsigned long long)(c.silenceFrames - p->base.silenceFrames),
            (unsigned long long)(c.overruns - p->base.overruns));
        p->xrunLines += line;
    }
    p->base = c;
    p->draining = false;
    p->xrun = false;
    drainWakes(p->wakeFd);
    return 0;
}

int runStream(Pcm* p) {
    if (lost(p))
        return -ENODEV;
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
    if (!p->capture)
        device.beginOutput([share = p->share] {
            std::lock_guard<std::mutex> lock(share->lock);
            return share->stream ? share->stream->positionFrames() : 0;
        });
    return 0;
}

int mmeStart(snd_pcm_ioplug_t* io) {
    Pcm* p = pcmOf(io);
    return p->stream ? runStream(p) : -EBADFD;
}

int mmeStop(snd_pcm_ioplug_t* io) {
    Pcm* p = pcmOf(io);
    if (!p->stream)
        return 0;
    p->stream->setState(KSSTATE_STOP);
    p->queue->clear();
    return 0;
}

int mmePause(snd_pcm_ioplug_t* io, int enable) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    const NTSTATUS status = p->stream->setState(enable ? KSSTATE_PAUSE : KSSTATE_RUN);
    if (lost(p))
        return -ENODEV;
    if (!NT_SUCCESS(status)) {
        SNDERR("mme: the driver refused to %s %s: %s", enable ? "pause" : "resume", direction(p),
               hostpc::statusName(status).c_str());
        return -EIO;
    }
    return 0;
}

snd_pcm_sframes_t mmePointer(snd_pcm_ioplug_t* io) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    const uint64_t pos = position(p);
    if (xrunNow(p, pos))
        return -EPIPE;
    return snd_pcm_sframes_t(pos % io->buffer_size);
}

snd_pcm_sframes_t mmeTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                              snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->queue)
        return -EBADFD;
    // Interleaved: channel 0's area walks whole frames.
    auto* frames =
        static_cast<char*>(areas[0].addr) + (areas[0].first + areas[0].step * offset) / 8;
    size_t done;
    if (p->capture) {
        const size_t ready = std::min<size_t>(size, p->queue->used() / p->frameBytes);
        done = p->queue->get(frames, ready * p->frameBytes) / p->frameBytes;
    } else {
        const size_t fit = std::min<size_t>(size, p->queue->room() / p->frameBytes);
        done = p->queue->put(frames, fit * p->frameBytes) / p->frameBytes;
    }
    p->transferred += done;
    return snd_pcm_sframes_t(done);
}

int mmeDelay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* delay) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    const uint64_t pos = position(p);
    if (xrunNow(p, pos))
        return -EPIPE;
    if (p->capture) {
        *delay = snd_pcm_sframes_t(pos > p->transferred ? pos - p->transferred : 0);
        return 0;
    }
    const uint64_t held = p->transferred > pos ? p->transferred - pos : 0;
    const bool running = p->stream->state() == KSSTATE_RUN;
    *delay = snd_pcm_sframes_t(held + (running ? p->device->renderRingAhead() : 0));
    return 0;
}

// Waits for the next look of the port; false when nothing moved for a while.
template <class Done> int waitUntil(Pcm* p, Done done, const char* what) {
    using clock = std::chrono::steady_clock;
    auto lastMove = clock::now();
    uint64_t lastPos = position(p);
    uint32_t lastRead = p->device->model().renderReadPos();
    while (!done()) {
        pollfd fd{p->wakeFd, POLLIN, 0};
        ::poll(&fd, 1, 100);
        drainWakes(p->wakeFd);
        if (lost(p))
            return -ENODEV;
        const uint64_t pos = position(p);
        const uint32_t read = p->device->model().renderReadPos();
        if (pos != lastPos || read != lastRead) {
            lastPos = pos;
            lastRead = read;
            lastMove = clock::now();
        } else if (clock::now() - lastMove > std::chrono::seconds(3)) {
            SNDERR("mme: the device stopped moving audio while %s", what);
            return -EIO;
        }
    }
    return 0;
}

int mmeDrain(snd_pcm_ioplug_t* io) {
    Pcm* p = pcmOf(io);
    if (lost(p))
        return -ENODEV;
    if (!p->stream)
        return -EBADFD;
    if (p->capture)
        return 0;
    if (p->stream->state() != KSSTATE_RUN) {
        if (p->transferred == 0)
            return 0;
        const int err = runStream(p);
        if (err < 0)
            return err;
    }
    p->draining = true;
    p->stream->endOfStream();
    if (io->nonblock) {
        const bool moved = position(p) >= p->transferred;
        return moved && p->device->renderRingPlayed(p->device->renderRingEnd()) ? 0 : -EAGAIN;
    }
    int err = waitUntil(
        p, [p] { return position(p) >= p->transferred; }, "draining into the render ring");
    if (err < 0)
        return err;
    // What the driver wrote ahead into the ring plays out too, so that the
    // device's output holds the whole stream.
    const uint32_t end = p->device->renderRingEnd();
    return waitUntil(
        p, [p, end] { return p->device->renderRingPlayed(end); }, "playing out the render ring");
}

int mmePollCount(snd_pcm_ioplug_t*) {
    return 1;
}

int mmePollDescriptors(snd_pcm_ioplug_t* io, pollfd* pfd, unsigned int space) {
    if (space < 1)
        return 0;
    pfd->fd = pcmOf(io)->wakeFd;
    pfd->events = POLLIN;
    pfd->revents = 0;
    return 1;
}

int mmePollRevents(snd_pcm_ioplug_t* io, pollfd*, unsigned int, unsigned short* revents) {
    Pcm* p = pcmOf(io);
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
    const uint64_t pos = position(p);
    const bool ready = xrunNow(p, pos) || availNow(p, pos) >= p->availMin ||
                       (io->state != SND_PCM_STATE_RUNNING && io->state != SND_PCM_STATE_DRAINING);
    if (ready) {
        *revents = p->capture ? POLLIN : POLLOUT;
        // Level-triggered, as a sound card's descriptor is: it stays ready
        // until the program has taken what is available.
        wake(p->wakeFd);
    }
    return 0;
}

void writeSummary(Pcm* p, const std::string& teardown) {
    if (p->params.summary.empty())
        return;
    std::FILE* f = std::fopen(p->params.summary.c_str(), "w");
    if (!f) {
        SNDERR("mme: cannot write the summary %s", p->params.summary.c_str());
        return;
    }
    const hostpc::StreamCounters& c = p->closed;
    std::fprintf(f,
                 "stream %s\nframes %llu\nglitches %llu\nsilence_frames %llu\noverruns %llu\n"
                 "dropped_frames %llu\nxruns %llu\n%steardown %s\n",
                 p->streamText.empty() ? "none" : p->streamText.c_str(),
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
        problems = Device::release(p->device);
        if (!problems.empty())
            SNDERR("mme: the device did not come down cleanly: %s", problems.c_str());
        writeSummary(p, last ? problems : "shared");
    }
    if (p->wakeFd >= 0)
        ::close(p->wakeFd);
    delete p;
}

int mmeClose(snd_pcm_ioplug_t* io) {
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
    // The port keeps two device periods (256 frames each) written ahead and
    // needs the next one queued at every period: a buffer below 1024 of the
    // widest frames would glitch however fast the program is.
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 256 * 4,
                                              256 << 10);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 1024 * widest,
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
