// Client side of the host wave-cyclic port: what a kernel-streaming client
// (the audio engine, mme-sim, the end-to-end tests) does with the wave
// filter. It reads the streaming pins' data ranges, asks the port for a data
// intersection (answered by the miniport's DataRangeIntersection, size query
// first), opens a pin with a KSDATAFORMAT (the port's NewStream, then
// SetNotificationFreq with 10 ms), walks the KS states one at a time
// (STOP -> ACQUIRE -> PAUSE -> RUN, and back down on close) and moves audio
// through a client queue that the port's service routine empties into the
// cyclic buffer (render) or fills from it (capture).
//
// Threads: a KsStream is used from one client thread at a time; the port's
// service routine runs on whatever thread calls the port's Notify (the USB
// model's period thread, or the test's) or on the kernel's DPC thread, as
// the device's service mode says (HostPortCls.h). The built-in queue is a
// single-producer single-consumer ring, so write()/read() never wait for
// the service routine.
//
// Removal: after a surprise removal a KsStream answers kStatusDeviceRemoved
// to what would reach the device (a state change above STOP, a format, a
// write), still reads its position, walks down to STOP and closes, and
// hands out captured audio that was already queued. The device's remove
// request waits for the last pin and filter to close (HostPortCls.h).
#pragma once

#include "driver/platform/platform.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hostpc {

constexpr NTSTATUS kStatusDeviceRemoved = (NTSTATUS)0xC00002B6L; // STATUS_DEVICE_REMOVED

// Pin ids of the wave filter's streaming pins.
constexpr ULONG kWaveCapturePin = 0;
constexpr ULONG kWaveRenderPin = 2;

// Where a render pin's audio comes from and a capture pin's audio goes.
// The port's service routine calls these at dispatch level with the pin's
// spin lock held: they must not allocate, wait or call back into the pin.
// Sizes are bytes; the port asks in whole frames.
class RenderSource {
public:
    virtual ~RenderSource() = default;
    // Queued audio: a contiguous piece of at most `bytes` bytes at *where;
    // 0 when nothing is queued.
    virtual ULONG map(const UCHAR** where, ULONG bytes) = 0;
    // The port has taken `bytes` bytes of the piece.
    virtual void release(ULONG bytes) = 0;
};
class CaptureSink {
public:
    virtual ~CaptureSink() = default;
    // Room: a contiguous place of at most `bytes` bytes; 0 when full.
    virtual ULONG map(UCHAR** where, ULONG bytes) = 0;
    // `bytes` bytes of the place now hold audio.
    virtual void commit(ULONG bytes) = 0;
};

// Watches a pin for a timeline of the run. serviced() runs in the service
// routine (dispatch level, the pin's spin lock held): it must not allocate,
// wait or call back into the pin. stateChanged() runs on the client's
// thread after each KS state step the driver took, and once with STOP when
// the client closes a pin that was not stopped.
class ServiceObserver {
public:
    struct Service {
        bool capture = false;
        ULONG position = 0; // bytes into the cyclic buffer, as GetPosition said
        ULONG copied = 0;   // client bytes copied in (render) or out (capture)
        bool glitch = false;
        bool overrun = false;
    };
    virtual ~ServiceObserver() = default;
    virtual void serviced(const Service& service) = 0;
    virtual void stateChanged(bool capture, KSSTATE state) = 0;
};

// Fixed-capacity byte ring, one producer and one consumer, no lock. It is
// the source of a render pin and the sink of a capture pin.
class ByteQueue : public RenderSource, public CaptureSink {
public:
    explicit ByteQueue(size_t capacity);
    size_t capacity() const { return mBuffer.size(); }
    size_t used() const;
    size_t room() const { return capacity() - used(); }
    // Producer: copies up to `bytes` bytes in; returns how many fitted.
    size_t put(const void* data, size_t bytes);
    // Consumer: copies up to `bytes` bytes out; returns how many there were.
    size_t get(void* data, size_t bytes);
    // Consumer: drops everything queued.
    void clear();

    ULONG map(const UCHAR** where, ULONG bytes) override;
    void release(ULONG bytes) override;
    ULONG map(UCHAR** where, ULONG bytes) override;
    void commit(ULONG bytes) override;

private:
    std::vector<UCHAR> mBuffer;
    std::atomic<uint64_t> mHead{0}; // consumer position, bytes
    std::atomic<uint64_t> mTail{0}; // producer position, bytes
};

// KSDATAFORMAT followed by WAVEFORMATEXTENSIBLE (or a plain WAVEFORMATEX),
// as the audio engine asks for PCM. SampleSize is the block alignment, as
// the audio engine puts it; other clients put 4 whatever the format (the
// open-source DirectSound client) or 0, KS's "variable": sampleSize, when
// given, is written instead.
std::vector<UCHAR> pcmFormat(ULONG rate, USHORT channels, USHORT bits, bool extensible = true,
                             long sampleSize = -1);

// The WAVEFORMATEX of a format buffer; null when the buffer is too short.
const WAVEFORMATEX* waveFormatOf(const std::vector<UCHAR>& format);

struct StreamOptions {
    // Render: frames the port keeps written ahead of the position. 0: about
    // 40 ms in whole framings (at least two), as the real port keeps.
    // Clamped to one period .. buffer less one period.
    ULONG leadFrames = 0;
    // Frames the built-in client queue holds. 0: one second.
    ULONG queueFrames = 0;
    // Replaces the built-in queue (tests starve or flood a pin with these);
    // must outlive the stream's close(). write()/read() then refuse.
    RenderSource* source = nullptr;
    CaptureSink* sink = nullptr;
    // Null: none; must outlive the stream's close().
    ServiceObserver* observer = nullptr;
};

struct StreamCounters {
    uint64_t services = 0;      // service requests handled while running
    uint64_t framesCopied = 0;  // client frames copied in (render) or out (capture)
    uint64_t glitches = 0;      // render: services that had to fill silence
    uint64_t silenceFrames = 0; // render: frames of silence the device played instead
    uint64_t overruns = 0;      // capture: services whose audio the client could not take
    uint64_t droppedFrames = 0; // capture: frames lost that way
    uint64_t lateServices = 0;  // the service group's periods serviced late
};

namespace detail {
class WavePin;
}

// An open pin of the wave filter, as its client holds it.
class KsStream {
public:
    ~KsStream(); // close()
    KsStream(const KsStream&) = delete;
    KsStream& operator=(const KsStream&) = delete;

    bool isCapture() const { return mCapture; }
    ULONG pinId() const { return mPinId; }
    const std::vector<UCHAR>& format() const { return mFormat; }
    ULONG rate() const { return mRate; }
    USHORT channels() const { return mChannels; }
    USHORT bits() const { return mBits; }
    ULONG blockAlign() const { return mBlockAlign; }

    // What the port learned at creation.
    ULONG framingBytes() const;   // SetNotificationFreq's framing size
    ULONG notificationMs() const; // and the interval it answered
    ULONG bufferBytes() const;    // the cyclic buffer, as BufferSize() reports it
    ULONG leadFrames() const;     // render lead in force

    KSSTATE state() const;
    // Walks the KS states one step at a time to `target`; stops at the first
    // refusal and returns it (the pin stays in the last state reached).
    NTSTATUS setState(KSSTATE target);
    // KSPROPERTY_CONNECTION_DATAFORMAT: a new format on the open pin (the
    // stream's SetFormat; the driver refuses it while running). On success
    // the frame fields follow it and the built-in queue is emptied.
    NTSTATUS setFormat(const std::vector<UCHAR>& format);

    // Render: queues whole frames; returns how many fitted. Clears the end
    // of stream mark.
    size_t write(const void* frames, size_t count);
    // The same, with the request's status: kStatusDeviceRemoved once the
    // device is gone, STATUS_INVALID_DEVICE_STATE on a closed or capture pin.
    NTSTATUS write(const void* frames, size_t count, size_t* written);
    // Capture: takes up to `count` whole frames; returns how many.
    size_t read(void* frames, size_t count);
    // Render: frames queued, not yet taken by the port; capture: ready to read.
    size_t queuedFrames() const;
    size_t roomFrames() const;
    // Render: what is queued is the last of the stream; when it runs out the
    // port fills silence without counting glitches.
    void endOfStream();

    // Frames played (render) or recorded (capture) while running since the
    // last STOP, from the driver's position (GetPosition).
    uint64_t positionFrames();
    StreamCounters counters() const;

    bool removed() const; // the device went away (surprise-removed or removed)
    // Walks back to STOP, releases the stream and leaves the service group.
    // Idempotent.
    void close();

private:
    friend class WaveFilter;
    KsStream() = default;

    detail::WavePin* mPin = nullptr;
    std::unique_ptr<ByteQueue> mQueue;
    ServiceObserver* mObserver = nullptr;
    bool mCapture = false;
    ULONG mPinId = 0;
    std::vector<UCHAR> mFormat;
    ULONG mRate = 0;
    USHORT mChannels = 0;
    USHORT mBits = 0;
    ULONG mBlockAlign = 0;
};

struct PinInfo {
    ULONG id = 0;
    bool streaming = false;                // a pin a client can open (else a bridge pin)
    bool capture = false;                  // data flows out of the filter
    std::vector<KSDATARANGE_AUDIO> ranges; // audio ranges only
};

// The client's view of a registered wave filter (a host wave-cyclic port).
class WaveFilter {
public:
    // Takes a reference on the port; invalid when it is not a host
    // wave-cyclic port. A filter handle of the port's device while that
    // takes handles: the device's remove request waits for its close. On a
    // device that is gone, stopped or powered down the filter answers with
    // the device's refusal.
    explicit WaveFilter(PUNKNOWN wavePort);
    ~WaveFilter();
    WaveFilter(const WaveFilter&) = delete;
    WaveFilter& operator=(const WaveFilter&) = delete;

    // The wave filter of a device ("Wave"), safe against its removal on
    // another thread; never null, invalid when the device has none.
    static std::unique_ptr<WaveFilter> ofDevice(PDEVICE_OBJECT fdo);

    bool valid() const { return mPort != nullptr; }
    PUNKNOWN port() const { return mPort; }

    // The pins as the miniport described them; empty once the miniport is
    // gone.
    std::vector<PinInfo> pins() const;
    PinInfo pin(ULONG id) const;

    // KSPROPERTY_PIN_DATAINTERSECTION as the port answers it: the pin's
    // ranges in order, each asked of the miniport's DataRangeIntersection
    // with a size query first; the first format offered wins. STATUS_NO_MATCH
    // when none is; *rangeIndex gets the index of the range that matched.
    NTSTATUS intersect(ULONG pinId, const KSDATARANGE_AUDIO& clientRange,
                       std::vector<UCHAR>* format, ULONG* rangeIndex = nullptr) const;

    // KSPROPERTY_PIN_DATAINTERSECTION as real clients send it: a
    // multiple-item list of ranges of any kind (each a KSDATARANGE of its
    // FormatSize: audio ranges, wildcards, other major formats) and an
    // output buffer of outputBytes (0: a size query). Walked as the KS
    // library's KsPinDataIntersectionEx does for the port: each client range
    // in order against each pin range whose major format, subformat and
    // specifier it names or leaves as wildcards, asking the miniport with
    // the client's buffer; any answer but STATUS_NO_MATCH ends the walk.
    // *size gets the format's size (also for a size query or a buffer too
    // small).
    NTSTATUS intersect(ULONG pinId, const std::vector<std::vector<UCHAR>>& clientRanges,
                       ULONG outputBytes, std::vector<UCHAR>* format, ULONG* size) const;

    // Opens a pin with this format. On failure *stream stays empty and the
    // driver's status comes back.
    NTSTATUS open(ULONG pinId, const std::vector<UCHAR>& format, const StreamOptions& options,
                  std::unique_ptr<KsStream>* stream) const;

private:
    PUNKNOWN mPort = nullptr;
    PDEVICE_OBJECT mDevice = nullptr; // whose handle this filter holds, when counted
};

class DriverLoader;
// What a program does to have the wave filter of its device: checks that the
// loader's driver loaded and its DriverEntry succeeded, adds and starts the
// device of `pdo` as the plug-and-play manager would, and finds its "Wave"
// subdevice. Empty when all went well (*filter valid), else what failed.
std::string startWaveFilter(DriverLoader& loader, PDEVICE_OBJECT pdo,
                            std::unique_ptr<WaveFilter>* filter);

// A client's data range: what it would take.
KSDATARANGE_AUDIO clientRange(ULONG maxChannels, ULONG minBits, ULONG maxBits, ULONG minRate,
                              ULONG maxRate);
// Ranges as items of a multiple-item intersection request: an audio range
// as it is, and a plain KSDATARANGE naming a major format, subformat and
// specifier (the null GUID is KS's wildcard for each).
std::vector<UCHAR> rangeItem(const KSDATARANGE_AUDIO& range);
std::vector<UCHAR> rangeItem(const GUID& major, const GUID& sub, const GUID& specifier);

// Status names for messages ("STATUS_NOT_SUPPORTED"), hex for unknown ones.
std::string statusName(NTSTATUS status);
const char* stateName(KSSTATE state);

} // namespace hostpc
