// The client API of the host wave-cyclic port: queue, formats, the filter's
// pins and data intersection, and KsStream over the port's WavePin.
#include "KsClient.h"

#include "HostPortCls.h"
#include "WavePin.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hostpc {

// ---- ByteQueue ----

ByteQueue::ByteQueue(size_t capacity) : mBuffer(capacity) {}

size_t ByteQueue::used() const {
    const uint64_t tail = mTail.load(std::memory_order_acquire);
    const uint64_t head = mHead.load(std::memory_order_acquire);
    return size_t(tail - head);
}

size_t ByteQueue::put(const void* data, size_t bytes) {
    const uint64_t head = mHead.load(std::memory_order_acquire);
    const uint64_t tail = mTail.load(std::memory_order_relaxed);
    const size_t cap = capacity();
    const size_t n = std::min(bytes, cap - size_t(tail - head));
    const auto* in = static_cast<const UCHAR*>(data);
    for (size_t done = 0; done < n;) {
        const size_t at = size_t((tail + done) % cap);
        const size_t piece = std::min(n - done, cap - at);
        std::memcpy(mBuffer.data() + at, in + done, piece);
        done += piece;
    }
    mTail.store(tail + n, std::memory_order_release);
    return n;
}

size_t ByteQueue::get(void* data, size_t bytes) {
    const uint64_t tail = mTail.load(std::memory_order_acquire);
    const uint64_t head = mHead.load(std::memory_order_relaxed);
    const size_t cap = capacity();
    const size_t n = std::min(bytes, size_t(tail - head));
    auto* out = static_cast<UCHAR*>(data);
    for (size_t done = 0; done < n;) {
        const size_t at = size_t((head + done) % cap);
        const size_t piece = std::min(n - done, cap - at);
        std::memcpy(out + done, mBuffer.data() + at, piece);
        done += piece;
    }
    mHead.store(head + n, std::memory_order_release);
    return n;
}

void ByteQueue::clear() {
    mHead.store(mTail.load(std::memory_order_acquire), std::memory_order_release);
}

ULONG ByteQueue::map(const UCHAR** where, ULONG bytes) {
    const uint64_t tail = mTail.load(std::memory_order_acquire);
    const uint64_t head = mHead.load(std::memory_order_relaxed);
    const size_t cap = capacity();
    if (cap == 0)
        return 0;
    const size_t at = size_t(head % cap);
    const size_t n = std::min({size_t(bytes), size_t(tail - head), cap - at});
    *where = mBuffer.data() + at;
    return ULONG(n);
}

void ByteQueue::release(ULONG bytes) {
    const uint64_t head = mHead.load(std::memory_order_relaxed);
    const uint64_t tail = mTail.load(std::memory_order_acquire);
    mHead.store(head + std::min<uint64_t>(bytes, tail - head), std::memory_order_release);
}

ULONG ByteQueue::map(UCHAR** where, ULONG bytes) {
    const uint64_t head = mHead.load(std::memory_order_acquire);
    const uint64_t tail = mTail.load(std::memory_order_relaxed);
    const size_t cap = capacity();
    if (cap == 0)
        return 0;
    const size_t at = size_t(tail % cap);
    const size_t n = std::min({size_t(bytes), cap - size_t(tail - head), cap - at});
    *where = mBuffer.data() + at;
    return ULONG(n);
}

void ByteQueue::commit(ULONG bytes) {
    const uint64_t tail = mTail.load(std::memory_order_relaxed);
    const uint64_t head = mHead.load(std::memory_order_acquire);
    const uint64_t room = capacity() - (tail - head);
    mTail.store(tail + std::min<uint64_t>(bytes, room), std::memory_order_release);
}

std::string startWaveFilter(DriverLoader& loader, PDEVICE_OBJECT pdo,
                            std::unique_ptr<WaveFilter>* filter) {
    if (!loader.imageError().empty())
        return "cannot load the driver image " + loader.imageError();
    if (!NT_SUCCESS(loader.entryStatus()))
        return "DriverEntry failed: " + statusName(loader.entryStatus());
    NTSTATUS status = loader.addDevice(pdo);
    if (NT_SUCCESS(status))
        status = loader.startDevice(pdo);
    if (!NT_SUCCESS(status))
        return "the driver did not start: " + statusName(status);
    *filter = WaveFilter::ofDevice(loader.fdo(pdo));
    if (!(*filter)->valid())
        return "the driver registered no wave filter";
    return std::string();
}

// ---- Formats ----

std::vector<UCHAR> pcmFormat(ULONG rate, USHORT channels, USHORT bits, bool extensible,
                             long sampleSize) {
    const size_t size =
        extensible ? sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE) : sizeof(KSDATAFORMAT_WAVEFORMATEX);
    std::vector<UCHAR> buffer(size, 0);
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE f;
    std::memset(&f, 0, sizeof f);
    const USHORT align = USHORT(channels * ((bits + 7) / 8));
    f.DataFormat.FormatSize = ULONG(size);
    f.DataFormat.SampleSize = sampleSize < 0 ? align : ULONG(sampleSize);
    f.DataFormat.MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    f.DataFormat.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    f.DataFormat.Specifier = KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;
    WAVEFORMATEX& w = f.WaveFormatExt.Format;
    w.wFormatTag = extensible ? WAVE_FORMAT_EXTENSIBLE : WAVE_FORMAT_PCM;
    w.nChannels = channels;
    w.nSamplesPerSec = rate;
    w.nAvgBytesPerSec = rate * align;
    w.nBlockAlign = align;
    w.wBitsPerSample = bits;
    w.cbSize = extensible ? 22 : 0;
    f.WaveFormatExt.Samples.wValidBitsPerSample = bits;
    f.WaveFormatExt.dwChannelMask = channels >= 32 ? 0xFFFFFFFFu : (1u << channels) - 1;
    f.WaveFormatExt.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    std::memcpy(buffer.data(), &f, size);
    return buffer;
}

const WAVEFORMATEX* waveFormatOf(const std::vector<UCHAR>& format) {
    if (format.size() < sizeof(KSDATAFORMAT_WAVEFORMATEX))
        return nullptr;
    return reinterpret_cast<const WAVEFORMATEX*>(format.data() + sizeof(KSDATAFORMAT));
}

KSDATARANGE_AUDIO clientRange(ULONG maxChannels, ULONG minBits, ULONG maxBits, ULONG minRate,
                              ULONG maxRate) {
    KSDATARANGE_AUDIO r;
    std::memset(&r, 0, sizeof r);
    r.DataRange.FormatSize = sizeof(KSDATARANGE_AUDIO);
    r.DataRange.MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    r.DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    r.DataRange.Specifier = KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;
    r.MaximumChannels = maxChannels;
    r.MinimumBitsPerSample = minBits;
    r.MaximumBitsPerSample = maxBits;
    r.MinimumSampleFrequency = minRate;
    r.MaximumSampleFrequency = maxRate;
    return r;
}

std::vector<UCHAR> rangeItem(const KSDATARANGE_AUDIO& range) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(&range);
    return std::vector<UCHAR>(bytes, bytes + sizeof range);
}

std::vector<UCHAR> rangeItem(const GUID& major, const GUID& sub, const GUID& specifier) {
    KSDATARANGE r;
    std::memset(&r, 0, sizeof r);
    r.FormatSize = sizeof r;
    r.MajorFormat = major;
    r.SubFormat = sub;
    r.Specifier = specifier;
    const auto* bytes = reinterpret_cast<const UCHAR*>(&r);
    return std::vector<UCHAR>(bytes, bytes + sizeof r);
}

std::string statusName(NTSTATUS status) {
    switch (ULONG(status)) {
    case 0x00000000:
        return "STATUS_SUCCESS";
    case 0x80000005:
        return "STATUS_BUFFER_OVERFLOW";
    case 0xC0000001:
        return "STATUS_UNSUCCESSFUL";
    case 0xC0000002:
        return "STATUS_NOT_IMPLEMENTED";
    case 0xC000000D:
        return "STATUS_INVALID_PARAMETER";
    case 0xC0000010:
        return "STATUS_INVALID_DEVICE_REQUEST";
    case 0xC0000023:
        return "STATUS_BUFFER_TOO_SMALL";
    case 0xC000009A:
        return "STATUS_INSUFFICIENT_RESOURCES";
    case 0xC00000BB:
        return "STATUS_NOT_SUPPORTED";
    case 0xC0000184:
        return "STATUS_INVALID_DEVICE_STATE";
    case 0xC0000272:
        return "STATUS_NO_MATCH";
    case 0xC00002B6:
        return "STATUS_DEVICE_REMOVED";
    case 0xC000000E:
        return "STATUS_NO_SUCH_DEVICE";
    case 0xC00000A3:
        return "STATUS_DEVICE_NOT_READY";
    case 0x80000011:
        return "STATUS_DEVICE_BUSY";
    case 0xC0000056:
        return "STATUS_DELETE_PENDING";
    }
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", unsigned(status));
    return text;
}

const char* stateName(KSSTATE state) {
    switch (state) {
    case KSSTATE_STOP:
        return "STOP";
    case KSSTATE_ACQUIRE:
        return "ACQUIRE";
    case KSSTATE_PAUSE:
        return "PAUSE";
    case KSSTATE_RUN:
        return "RUN";
    }
    return "?";
}

// ---- WaveFilter ----

namespace {

// The miniport with a reference, or null once the port has given it up.
IMiniportWaveCyclic* referenceMiniport(PUNKNOWN port) {
    detail::HostPort* host = detail::hostPortOf(port);
    if (!host)
        return nullptr;
    PUNKNOWN unknown = host->referenceMiniport();
    host->unknown()->Release();
    if (!unknown)
        return nullptr;
    PVOID object = nullptr;
    NTSTATUS status = unknown->QueryInterface(IID_IMiniportWaveCyclic, &object);
    unknown->Release();
    return NT_SUCCESS(status) ? static_cast<IMiniportWaveCyclic*>(object) : nullptr;
}

const KSPIN_DESCRIPTOR* pinDescriptor(const PCFILTER_DESCRIPTOR* filter, ULONG id) {
    if (!filter || !filter->Pins || id >= filter->PinCount)
        return nullptr;
    const ULONG stride = filter->PinSize ? filter->PinSize : sizeof(PCPIN_DESCRIPTOR);
    const auto* base = reinterpret_cast<const UCHAR*>(filter->Pins);
    return &reinterpret_cast<const PCPIN_DESCRIPTOR*>(base + size_t(id) * stride)->KsPinDescriptor;
}

bool isAudioRange(const KSDATARANGE* range) {
    return range && range->FormatSize == sizeof(KSDATARANGE_AUDIO) &&
           IsEqualGUID(range->MajorFormat, KSDATAFORMAT_TYPE_AUDIO);
}

PinInfo describePin(const KSPIN_DESCRIPTOR& d, ULONG id) {
    PinInfo info;
    info.id = id;
    info.capture = d.DataFlow == KSPIN_DATAFLOW_OUT;
    info.streaming = d.Communication != KSPIN_COMMUNICATION_NONE &&
                     d.Communication != KSPIN_COMMUNICATION_BRIDGE;
    for (ULONG i = 0; d.DataRanges && i < d.DataRangesCount; ++i) {
        const KSDATARANGE* range = d.DataRanges[i];
        if (isAudioRange(range) && IsEqualGUID(range->SubFormat, KSDATAFORMAT_SUBTYPE_PCM))
            info.ranges.push_back(*reinterpret_cast<const KSDATARANGE_AUDIO*>(range));
    }
    return info;
}

// What an intersection request reaches: the miniport (referenced) and the
// pin's descriptor, or the status the request fails with first.
NTSTATUS intersectionTarget(PUNKNOWN port, PDEVICE_OBJECT device, ULONG pinId,
                            IMiniportWaveCyclic** miniport, const KSPIN_DESCRIPTOR** pin) {
    if (!port)
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS allowed = device ? detail::requestStatus(device, false) : kStatusDeviceRemoved;
    if (!NT_SUCCESS(allowed))
        return allowed;
    *miniport = referenceMiniport(port);
    if (!*miniport)
        return kStatusDeviceRemoved;
    *pin = pinDescriptor(portState(port).descriptor, pinId);
    if (!*pin) {
        (*miniport)->Release();
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

} // namespace

WaveFilter::WaveFilter(PUNKNOWN wavePort) {
    detail::HostPort* host = detail::hostPortOf(wavePort);
    if (!host)
        return;
    if (!host->isWaveCyclic()) {
        host->unknown()->Release();
        return;
    }
    mPort = host->unknown(); // keeps the query's reference
    PDEVICE_OBJECT device = portState(mPort).device;
    if (NT_SUCCESS(detail::acquireHandle(device)))
        mDevice = device;
}

std::unique_ptr<WaveFilter> WaveFilter::ofDevice(PDEVICE_OBJECT fdo) {
    PUNKNOWN port = fdo ? referenceSubdevice(fdo, u"Wave") : nullptr;
    std::unique_ptr<WaveFilter> filter(new WaveFilter(port));
    if (port)
        port->Release();
    return filter;
}

WaveFilter::~WaveFilter() {
    if (mPort)
        mPort->Release();
    if (mDevice)
        detail::releaseHandle(mDevice);
}

std::vector<PinInfo> WaveFilter::pins() const {
    std::vector<PinInfo> result;
    if (!mDevice || !NT_SUCCESS(detail::requestStatus(mDevice, false)))
        return result;
    IMiniportWaveCyclic* miniport = mPort ? referenceMiniport(mPort) : nullptr;
    if (!miniport)
        return result;
    // The descriptor belongs to the miniport, which the reference keeps.
    const PCFILTER_DESCRIPTOR* filter = portState(mPort).descriptor;
    for (ULONG id = 0; filter && id < filter->PinCount; ++id)
        if (const KSPIN_DESCRIPTOR* d = pinDescriptor(filter, id))
            result.push_back(describePin(*d, id));
    miniport->Release();
    return result;
}

PinInfo WaveFilter::pin(ULONG id) const {
    std::vector<PinInfo> all = pins();
    for (const PinInfo& p : all)
        if (p.id == id)
            return p;
    PinInfo none;
    none.id = id;
    return none;
}

NTSTATUS WaveFilter::intersect(ULONG pinId, const KSDATARANGE_AUDIO& client,
                               std::vector<UCHAR>* format, ULONG* rangeIndex) const {
    if (!format)
        return STATUS_INVALID_PARAMETER;
    format->clear();
    IMiniportWaveCyclic* miniport = nullptr;
    const KSPIN_DESCRIPTOR* pin = nullptr;
    const NTSTATUS target = intersectionTarget(mPort, mDevice, pinId, &miniport, &pin);
    if (!NT_SUCCESS(target))
        return target;
    KSDATARANGE_AUDIO clientCopy = client;
    auto* clientRange = reinterpret_cast<PKSDATARANGE>(&clientCopy);
    NTSTATUS result = STATUS_NO_MATCH;
    for (ULONG i = 0; pin->DataRanges && i < pin->DataRangesCount; ++i) {
        PKSDATARANGE mine = pin->DataRanges[i];
        ULONG length = 0;
        NTSTATUS status =
            miniport->DataRangeIntersection(pinId, clientRange, mine, 0, nullptr, &length);
        if (status != STATUS_BUFFER_OVERFLOW || length < sizeof(KSDATAFORMAT))
            continue;
        std::vector<UCHAR> buffer(length, 0);
        ULONG written = 0;
        status = miniport->DataRangeIntersection(pinId, clientRange, mine, length, buffer.data(),
                                                 &written);
        if (!NT_SUCCESS(status) || written < sizeof(KSDATAFORMAT) || written > length)
            continue;
        buffer.resize(written);
        *format = std::move(buffer);
        if (rangeIndex)
            *rangeIndex = i;
        result = STATUS_SUCCESS;
        break;
    }
    miniport->Release();
    return result;
}

NTSTATUS WaveFilter::intersect(ULONG pinId, const std::vector<std::vector<UCHAR>>& clientRanges,
                               ULONG outputBytes, std::vector<UCHAR>* format, ULONG* size) const {
    if (!format || !size)
        return STATUS_INVALID_PARAMETER;
    format->clear();
    *size = 0;
    IMiniportWaveCyclic* miniport = nullptr;
    const KSPIN_DESCRIPTOR* pin = nullptr;
    const NTSTATUS target = intersectionTarget(mPort, mDevice, pinId, &miniport, &pin);
    if (!NT_SUCCESS(target))
        return target;
    // The null GUID is KS's wildcard for the major format, subformat and
    // specifier (KSDATAFORMAT_TYPE_WILDCARD and its kin).
    const GUID wildcard{};
    auto names = [&](const GUID& client, const GUID& mine) {
        return IsEqualGUID(client, wildcard) || IsEqualGUID(client, mine);
    };
    NTSTATUS result = STATUS_NO_MATCH;
    std::vector<UCHAR> buffer(outputBytes);
    for (const auto& item : clientRanges) {
        if (item.size() < sizeof(KSDATARANGE) ||
            reinterpret_cast<const KSDATARANGE*>(item.data())->FormatSize != item.size())
            continue;                    // KS refuses a malformed item before any handler sees it
        std::vector<UCHAR> client(item); // the handler's own copy, as in the request's buffer
        auto* clientRange = reinterpret_cast<PKSDATARANGE>(client.data());
        for (ULONG i = 0; pin->DataRanges && i < pin->DataRangesCount; ++i) {
            PKSDATARANGE mine = pin->DataRanges[i];
            if (!names(clientRange->MajorFormat, mine->MajorFormat) ||
                !names(clientRange->SubFormat, mine->SubFormat) ||
                !names(clientRange->Specifier, mine->Specifier))
                continue;
            ULONG written = 0;
            result =
                miniport->DataRangeIntersection(pinId, clientRange, mine, outputBytes,
                                                outputBytes ? buffer.data() : nullptr, &written);
            if (result == STATUS_NO_MATCH || result == STATUS_NOT_IMPLEMENTED) {
                result = STATUS_NO_MATCH; // the host has no default handler to defer to
                continue;
            }
            *size = written;
            if (result == STATUS_SUCCESS && written <= outputBytes)
                format->assign(buffer.begin(), buffer.begin() + written);
            miniport->Release();
            return result;
        }
    }
    miniport->Release();
    return result;
}

NTSTATUS WaveFilter::open(ULONG pinId, const std::vector<UCHAR>& format,
                          const StreamOptions& options, std::unique_ptr<KsStream>* stream) const {
    if (!stream)
        return STATUS_INVALID_PARAMETER;
    stream->reset();
    if (!mPort)
        return STATUS_INVALID_PARAMETER;
    const WAVEFORMATEX* wave = waveFormatOf(format);
    if (!wave || wave->nBlockAlign == 0 || wave->nSamplesPerSec == 0)
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS allowed = mDevice ? detail::requestStatus(mDevice, false) : kStatusDeviceRemoved;
    if (!NT_SUCCESS(allowed))
        return allowed;
    std::vector<PinInfo> all = pins();
    if (all.empty())
        return kStatusDeviceRemoved;
    auto it = std::find_if(all.begin(), all.end(), [&](const PinInfo& p) { return p.id == pinId; });
    if (it == all.end())
        return STATUS_INVALID_PARAMETER;
    if (!it->streaming)
        return STATUS_INVALID_DEVICE_REQUEST; // a bridge pin has no instances

    std::unique_ptr<KsStream> s(new KsStream());
    s->mCapture = it->capture;
    s->mPinId = pinId;
    s->mFormat = format;
    s->mRate = wave->nSamplesPerSec;
    s->mChannels = wave->nChannels;
    s->mBits = wave->wBitsPerSample;
    s->mBlockAlign = wave->nBlockAlign;
    RenderSource* source = options.source;
    CaptureSink* sink = options.sink;
    if (s->mCapture ? !sink : !source) {
        const size_t frames = options.queueFrames ? options.queueFrames : s->mRate;
        s->mQueue.reset(new ByteQueue(frames * s->mBlockAlign));
        if (!source)
            source = s->mQueue.get();
        if (!sink)
            sink = s->mQueue.get();
    }
    detail::WavePin* pin = nullptr;
    NTSTATUS status =
        detail::WavePin::create(mPort, pinId, s->mCapture, format, options, source, sink, &pin);
    if (!NT_SUCCESS(status))
        return status;
    s->mPin = pin;
    s->mObserver = options.observer;
    *stream = std::move(s);
    return STATUS_SUCCESS;
}

// ---- KsStream ----

KsStream::~KsStream() {
    close();
    if (mPin)
        mPin->Release();
}

ULONG KsStream::framingBytes() const {
    return mPin ? mPin->framingBytes() : 0;
}
ULONG KsStream::notificationMs() const {
    return mPin ? mPin->notificationMs() : 0;
}
ULONG KsStream::bufferBytes() const {
    return mPin ? mPin->bufferBytes() : 0;
}
ULONG KsStream::leadFrames() const {
    return mPin && mBlockAlign ? mPin->leadBytes() / mBlockAlign : 0;
}

KSSTATE KsStream::state() const {
    return mPin ? mPin->state() : KSSTATE_STOP;
}

NTSTATUS KsStream::setState(KSSTATE target) {
    if (!mPin)
        return STATUS_INVALID_DEVICE_STATE;
    if (target < KSSTATE_STOP || target > KSSTATE_RUN)
        return STATUS_INVALID_PARAMETER;
    KSSTATE current = mPin->state();
    while (current != target) {
        const KSSTATE next = KSSTATE(current < target ? current + 1 : current - 1);
        NTSTATUS status = mPin->setState(next);
        if (!NT_SUCCESS(status))
            return status;
        current = next;
        if (mObserver)
            mObserver->stateChanged(mCapture, current);
        if (current == KSSTATE_STOP && !mCapture && mQueue)
            mQueue->clear(); // KS cancels what a stopped render pin had queued
    }
    return STATUS_SUCCESS;
}

NTSTATUS KsStream::setFormat(const std::vector<UCHAR>& format) {
    if (!mPin)
        return STATUS_INVALID_DEVICE_STATE;
    const WAVEFORMATEX* wave = waveFormatOf(format);
    if (!wave || wave->nBlockAlign == 0 || wave->nSamplesPerSec == 0 ||
        reinterpret_cast<const KSDATAFORMAT*>(format.data())->FormatSize > format.size())
        return STATUS_INVALID_PARAMETER;
    NTSTATUS status = mPin->setFormat(format, wave->nBlockAlign);
    if (!NT_SUCCESS(status))
        return status;
    mFormat = format;
    mRate = wave->nSamplesPerSec;
    mChannels = wave->nChannels;
    mBits = wave->wBitsPerSample;
    mBlockAlign = wave->nBlockAlign;
    if (mQueue)
        mQueue->clear();
    return status;
}

size_t KsStream::write(const void* frames, size_t count) {
    if (!mPin || mCapture || !mQueue || mPin->closed() || mPin->removed())
        return 0;
    const size_t fit = std::min(count, mQueue->room() / mBlockAlign);
    const size_t done = mQueue->put(frames, fit * mBlockAlign) / mBlockAlign;
    if (done > 0)
        mPin->setEndOfStream(false);
    return done;
}

NTSTATUS KsStream::write(const void* frames, size_t count, size_t* written) {
    *written = 0;
    if (mPin && !mCapture && mQueue && mPin->removed())
        return kStatusDeviceRemoved;
    if (!mPin || mCapture || !mQueue || mPin->closed())
        return STATUS_INVALID_DEVICE_STATE;
    *written = write(frames, count);
    return STATUS_SUCCESS;
}

size_t KsStream::read(void* frames, size_t count) {
    if (!mCapture || !mQueue)
        return 0;
    const size_t ready = std::min(count, mQueue->used() / mBlockAlign);
    return mQueue->get(frames, ready * mBlockAlign) / mBlockAlign;
}

size_t KsStream::queuedFrames() const {
    return mQueue ? mQueue->used() / mBlockAlign : 0;
}

size_t KsStream::roomFrames() const {
    return mQueue ? mQueue->room() / mBlockAlign : 0;
}

void KsStream::endOfStream() {
    if (mPin)
        mPin->setEndOfStream(true);
}

uint64_t KsStream::positionFrames() {
    return mPin ? mPin->positionBytes() / mBlockAlign : 0;
}

StreamCounters KsStream::counters() const {
    StreamCounters c = mPin ? mPin->countersBytes() : StreamCounters{};
    c.framesCopied /= mBlockAlign;
    c.silenceFrames /= mBlockAlign;
    c.droppedFrames /= mBlockAlign;
    return c;
}

bool KsStream::removed() const {
    return mPin && mPin->removed();
}

void KsStream::close() {
    if (!mPin)
        return;
    const bool wasStopped = mPin->closed() || mPin->state() == KSSTATE_STOP;
    mPin->close(false);
    if (mObserver && !wasStopped)
        mObserver->stateChanged(mCapture, KSSTATE_STOP);
}

} // namespace hostpc
