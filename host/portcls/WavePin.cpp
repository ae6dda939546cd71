// Client pins of the host wave-cyclic port and the per-port registry that
// closes them when the device goes away. See WavePin.h for the contract.
#include "WavePin.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "host/kernel/HostKernel.h"

namespace hostpc::detail {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<PUNKNOWN, std::vector<WavePin*>> pins; // by the port's canonical unknown
};

Registry& registry() {
    static Registry r;
    return r;
}

void registerPin(PUNKNOWN port, WavePin* pin) {
    pin->AddRef();
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().pins[port].push_back(pin);
}

// Drops the registry's reference when the pin is still listed.
void unregisterPin(PUNKNOWN port, WavePin* pin) {
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        auto it = registry().pins.find(port);
        if (it != registry().pins.end()) {
            auto& list = it->second;
            auto at = std::find(list.begin(), list.end(), pin);
            if (at != list.end()) {
                list.erase(at);
                found = true;
            }
            if (list.empty())
                registry().pins.erase(it);
        }
    }
    if (found)
        pin->Release();
}

class SpinGuard {
public:
    explicit SpinGuard(KSPIN_LOCK* lock) : mLock(lock) { KeAcquireSpinLock(mLock, &mOld); }
    ~SpinGuard() { KeReleaseSpinLock(mLock, mOld); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    KSPIN_LOCK* mLock;
    KIRQL mOld = PASSIVE_LEVEL;
};

// The port's canonical unknown of a wave-cyclic port, with a reference, or null.
PUNKNOWN canonicalWavePort(PUNKNOWN unknown) {
    HostPort* host = hostPortOf(unknown);
    if (!host)
        return nullptr;
    if (!host->isWaveCyclic()) {
        host->unknown()->Release();
        return nullptr;
    }
    return host->unknown();
}

} // namespace

std::vector<WavePin*> referencePins(PUNKNOWN port) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    std::vector<WavePin*> pins;
    auto it = registry().pins.find(port);
    if (it != registry().pins.end())
        for (WavePin* pin : it->second) {
            pin->AddRef();
            pins.push_back(pin);
        }
    return pins;
}

void closePins(PUNKNOWN port) {
    std::vector<WavePin*> pins;
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        auto it = registry().pins.find(port);
        if (it == registry().pins.end())
            return;
        pins.swap(it->second);
        registry().pins.erase(it);
    }
    for (WavePin* pin : pins) {
        pin->close(true);
        pin->Release();
    }
}

WavePin::WavePin(PUNKNOWN port, bool capture, ULONG blockAlign)
    : mPort(port), mCapture(capture), mBlockAlign(blockAlign) {
    KeInitializeSpinLock(&mLock);
}

WavePin::~WavePin() = default;

NTSTATUS WavePin::create(PUNKNOWN wavePort, ULONG pinId, bool capture,
                         const std::vector<UCHAR>& format, const StreamOptions& options,
                         RenderSource* source, CaptureSink* sink, WavePin** out) {
    if (!out)
        return STATUS_INVALID_PARAMETER;
    *out = nullptr;
    const WAVEFORMATEX* wave = waveFormatOf(format);
    if (!wave || wave->nBlockAlign == 0 || (capture ? !sink : !source))
        return STATUS_INVALID_PARAMETER;
    const auto* header = reinterpret_cast<const KSDATAFORMAT*>(format.data());
    if (header->FormatSize > format.size())
        return STATUS_INVALID_PARAMETER;

    PUNKNOWN port = canonicalWavePort(wavePort); // the pin keeps this reference
    if (!port)
        return STATUS_INVALID_PARAMETER;
    // A create is a handle of the device from its start, so that the remove
    // request cannot come while the stream is being made.
    PDEVICE_OBJECT device = portState(port).device;
    NTSTATUS accepted = acquireHandle(device);
    if (!NT_SUCCESS(accepted)) {
        port->Release();
        return accepted;
    }
    HostPort* host = hostPortOf(port);
    PUNKNOWN miniportUnknown = host ? host->referenceMiniport() : nullptr;
    if (host)
        host->unknown()->Release();
    IMiniportWaveCyclic* miniport = nullptr;
    if (miniportUnknown) {
        PVOID object = nullptr;
        if (NT_SUCCESS(miniportUnknown->QueryInterface(IID_IMiniportWaveCyclic, &object)))
            miniport = static_cast<IMiniportWaveCyclic*>(object);
        miniportUnknown->Release();
    }
    if (!miniport) {
        port->Release();
        releaseHandle(device);
        return kStatusDeviceRemoved;
    }

    WavePin* pin = poolNew<WavePin>(kPinTag, port, capture, ULONG(wave->nBlockAlign));
    if (!pin) {
        miniport->Release();
        port->Release();
        releaseHandle(device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pin->AddRef();
    pin->mDevice = device; // released by close() from here on
    pin->mOpenSource = portPersonality(device) == PortPersonality::OpenSource;
    pin->mSource = source;
    pin->mSink = sink;
    pin->mObserver = options.observer;
    pin->mLeadFrames = options.leadFrames;
    pin->mRate = wave->nSamplesPerSec;
    pin->mFormat = format;

    // The port hands the miniport its own copy of the format, as PortCls does.
    std::vector<UCHAR> formatCopy(format);
    NTSTATUS status = miniport->NewStream(
        &pin->mStream, nullptr, NonPagedPool, pinId, capture ? TRUE : FALSE,
        reinterpret_cast<PKSDATAFORMAT>(formatCopy.data()), &pin->mDma, &pin->mGroup);
    miniport->Release();
    if (NT_SUCCESS(status) && (!pin->mStream || !pin->mDma || !pin->mGroup))
        status = STATUS_INVALID_DEVICE_STATE;
    if (NT_SUCCESS(status)) {
        setGroupServiceMode(pin->mGroup, serviceMode(device));
        ULONG framing = 0;
        pin->mIntervalMs = pin->mStream->SetNotificationFreq(10, &framing);
        // The port takes the framing as the most it moves per service
        // (ReactOS pin_wavecyclic.cpp, which asserts it is not 0); 0 moves
        // nothing, which a checked port reports.
        if (framing == 0)
            hostk::reportVerifierFailure(
                "wave port: SetNotificationFreq gave a framing size of 0; the pin moves nothing");
        pin->mFraming = framing;
    }
    if (NT_SUCCESS(status)) {
        status = pin->mGroup->AddMember(pin);
        pin->mJoined = NT_SUCCESS(status);
    }
    if (NT_SUCCESS(status)) {
        SpinGuard lock(&pin->mLock);
        pin->takeBuffer();
        ULONG position = 0;
        if (!pin->mBase) {
            status = STATUS_INSUFFICIENT_RESOURCES; // no cyclic buffer to serve
        } else {
            // ReactOS's CPortPinWaveCyclic::Init silences the whole buffer.
            if (pin->mOpenSource)
                pin->mStream->Silence(pin->mBase, pin->mSize);
            if (pin->readPosition(&position))
                pin->resync(position);
        }
    }
    if (!NT_SUCCESS(status)) {
        pin->close(false);
        pin->Release();
        return status;
    }
    registerPin(port, pin);
    // A removal that began meanwhile gave up the miniport before closing the
    // pins it knew of; then this pin closes itself.
    HostPort* still = hostPortOf(port);
    PUNKNOWN bound = still ? still->referenceMiniport() : nullptr;
    if (still)
        still->unknown()->Release();
    if (!bound) {
        pin->close(false);
        pin->Release();
        return kStatusDeviceRemoved;
    }
    bound->Release();
    *out = pin;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) WavePin::QueryInterface(REFIID iid, PVOID* object) {
    if (!object)
        return STATUS_INVALID_PARAMETER;
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IServiceSink)) {
        *object = static_cast<IServiceSink*>(this);
        AddRef();
        return STATUS_SUCCESS;
    }
    *object = nullptr;
    return STATUS_INVALID_PARAMETER;
}

STDMETHODIMP_(ULONG) WavePin::AddRef() {
    return ULONG(++mReferences);
}

STDMETHODIMP_(ULONG) WavePin::Release() {
    LONG count = --mReferences;
    if (count == 0)
        poolDelete(this, kPinTag);
    return ULONG(count);
}

// ---- Service routine ----

// A position at or past the buffer's end is the driver's fault, reported
// once, never folded back into the buffer (ReactOS's RequestService takes
// GetPosition as an offset into the common buffer as it is).
bool WavePin::readPosition(ULONG* position) {
    ULONG p = 0;
    if (!mStream || !mBase || !NT_SUCCESS(mStream->GetPosition(&p)))
        return false;
    if (p >= mSize) {
        // The open-source port keeps the size it took at creation: a buffer
        // the driver replaced since may be larger, and nothing checks.
        if (!mBadPositionReported && !mOpenSource) {
            mBadPositionReported = true;
            hostk::reportVerifierFailure("wave port: GetPosition gave " + std::to_string(p) +
                                         ", at or past the cyclic buffer's " +
                                         std::to_string(mSize) + " bytes");
        }
        return false;
    }
    *position = p;
    return true;
}

// The port reads the cyclic buffer at pin creation and, documented, after
// every format change it asked the stream for (the stream may reshape its
// channel whether it takes the format or not); the driver must not move or
// free it otherwise. The open-source port reads it once (ReactOS
// pin_wavecyclic.cpp keeps m_CommonBuffer from Init).
void WavePin::takeBuffer() {
    mBase = nullptr;
    mSize = 0;
    mBroken = false;
    UCHAR* base = mDma ? static_cast<UCHAR*>(mDma->SystemAddress()) : nullptr;
    ULONG size = 0;
    if (mDma && mOpenSource) {
        size = mDma->AllocatedBufferSize(); // ReactOS CPortPinWaveCyclic::Init
    } else if (mDma) {
        // IDmaChannel::SetBufferSize: the port says how much of the buffer it
        // uses (whole frames) and reads BufferSize back, which the channel
        // may answer with its own size.
        size = mDma->BufferSize();
        mDma->SetBufferSize(size - size % mBlockAlign);
        size = mDma->BufferSize();
    }
    if (!base || size == 0 || size % mBlockAlign != 0)
        return; // the pin is not opened (the format change fails)
    mBase = base;
    mSize = size;
    ULONG tag = 0;
    size_t block = 0;
    mPoolBuffer = hostk::poolBlockInfo(base, &tag, &block) && block >= size;
    mTag = tag;
    mFrameBytes = mFraming - mFraming % mBlockAlign;
    // By default the port keeps about 40 ms written ahead of the position,
    // as the documented WaveCyclic port does ("WaveCyclic latency"), in
    // whole framings and never less than two.
    ULONG lead = mLeadFrames * mBlockAlign;
    if (!mLeadFrames && mFrameBytes) {
        const ULONG want = ULONG(uint64_t(mRate) * 40 / 1000) * mBlockAlign;
        lead = std::max(2u, (want + mFrameBytes - 1) / mFrameBytes) * mFrameBytes;
    }
    const ULONG most = mSize > mFrameBytes ? mSize - mFrameBytes : mFrameBytes;
    mLead = std::clamp(lead, mFrameBytes, std::max(mFrameBytes, most));
    mLead -= mLead % mBlockAlign;
}

// The verifier's check that the buffer the port holds is still the
// driver's: same address and size, and still a live pool block.
bool WavePin::bufferIntact() {
    if (!mBase || mBroken)
        return false;
    // The open-source port keeps its buffer and never looks again: what the
    // driver does with the old address is the driver's to make safe.
    if (mOpenSource)
        return true;
    UCHAR* base = static_cast<UCHAR*>(mDma->SystemAddress());
    ULONG size = mDma->BufferSize();
    ULONG tag = 0;
    size_t block = 0;
    const bool freed = mPoolBuffer && !(hostk::poolBlockInfo(mBase, &tag, &block) && tag == mTag &&
                                        block >= mSize);
    if (!freed && base == mBase && size == mSize)
        return true;
    mBroken = true;
    hostk::reportVerifierFailure(
        std::string("wave port: the driver ") + (freed ? "freed" : "moved or resized") +
        " the cyclic buffer behind the port (held " + std::to_string(mSize) + " bytes, now " +
        std::to_string(size) + " bytes at a " + (base == mBase ? "same" : "different") +
        " address)");
    return false;
}

void WavePin::resync(ULONG position) {
    mLast = position;
    mWrite = position;
    mRead = position;
    mPending = 0;
}

// Takes in what the DMA channel moved since the last look.
void WavePin::account(ULONG position) {
    const ULONG delta = mSize ? (position + mSize - mLast) % mSize : 0;
    mLast = position;
    if (mState != KSSTATE_RUN)
        return;
    mPosition += delta;
    if (mCapture)
        return;
    if (delta <= mPending) {
        mPending -= delta;
        return;
    }
    // The device played bytes no one wrote for it this time round.
    if (!mEndOfStream) {
        ++mCounters.glitches;
        mCounters.silenceFrames += delta - mPending;
    }
    mWrite = position;
    mPending = 0;
}

void WavePin::silenceAt(ULONG offset, ULONG bytes) {
    while (bytes > 0) {
        const ULONG piece = std::min(bytes, mSize - offset);
        mStream->Silence(mBase + offset, piece);
        bytes -= piece;
        offset = (offset + piece) % mSize;
    }
}

// Render: client audio into the cyclic buffer up to the lead; when even
// one framing is missing, silence after it, so that a device reading past
// the audio plays silence, not stale data.
void WavePin::fillRender() {
    while (mPending < mLead) {
        const ULONG want = std::min(mLead - mPending, mSize - mWrite);
        const UCHAR* piece = nullptr;
        ULONG got = mSource->map(&piece, want);
        got = std::min(got, want);
        got -= got % mBlockAlign;
        if (got == 0 || !piece)
            break;
        mDma->CopyTo(mBase + mWrite, const_cast<UCHAR*>(piece), got);
        mSource->release(got);
        mCounters.framesCopied += got;
        mWrite = (mWrite + got) % mSize;
        mPending += got;
    }
    if (mPending >= mFrameBytes)
        return;
    const ULONG missing = padSilence();
    if (!mEndOfStream) {
        ++mCounters.glitches;
        mCounters.silenceFrames += missing;
    }
}

// Silence after what is written, up to one framing ahead; returns how much.
ULONG WavePin::padSilence() {
    if (mPending >= mFrameBytes)
        return 0;
    const ULONG missing = mFrameBytes - mPending;
    silenceAt(mWrite, missing);
    mWrite = (mWrite + missing) % mSize;
    mPending += missing;
    return missing;
}

// Capture: from the last read up to the position into the client's room.
void WavePin::copyCapture(ULONG position) {
    if (mFrameBytes == 0) {
        mRead = position; // a framing of 0 moves nothing
        return;
    }
    ULONG left = (position + mSize - mRead) % mSize;
    while (left > 0) {
        const ULONG want = std::min(left, mSize - mRead);
        UCHAR* room = nullptr;
        ULONG got = mSink->map(&room, want);
        got = std::min(got, want);
        if (got == 0 || !room)
            break;
        mDma->CopyFrom(room, mBase + mRead, got);
        mSink->commit(got);
        mCounters.framesCopied += got;
        mRead = (mRead + got) % mSize;
        left -= got;
    }
    if (left > 0) {
        ++mCounters.overruns;
        mCounters.droppedFrames += left;
        mRead = position;
    }
}

STDMETHODIMP_(void) WavePin::RequestService() {
    SpinGuard lock(&mLock);
    if (mClosed || !bufferIntact())
        return;
    ULONG position = 0;
    if (!readPosition(&position))
        return;
    if (mState != KSSTATE_RUN) {
        // ReactOS's RequestService serves only in RUN.
        if (!mOpenSource)
            idle(position);
        return;
    }
    ++mCounters.services;
    const StreamCounters before = mCounters;
    account(position);
    if (mCapture)
        copyCapture(position);
    else
        fillRender();
    if (mObserver) {
        ServiceObserver::Service seen;
        seen.capture = mCapture;
        seen.position = position;
        seen.copied = ULONG(mCounters.framesCopied - before.framesCopied);
        seen.glitch = mCounters.glitches != before.glitches;
        seen.overrun = mCounters.overruns != before.overruns;
        mObserver->serviced(seen);
    }
}

// Not running under the open-source port: what the channel moved is taken
// in, nothing written; the device played whatever the buffer held.
void WavePin::passed(ULONG position) {
    const ULONG delta = (position + mSize - mLast) % mSize;
    mLast = position;
    if (mCapture) {
        mRead = position;
        return;
    }
    if (delta <= mPending) {
        mPending -= delta;
    } else {
        mWrite = position;
        mPending = 0;
    }
}

// Not running, while the driver's channel keeps moving: the port copies no
// client data (ReactOS services only in RUN), the device plays out what is
// written and then the silence after it; capture is not taken.
void WavePin::idle(ULONG position) {
    passed(position);
    // Silence after the audio, not taken as written: client audio that
    // comes at RUN goes straight after what is left.
    if (!mCapture && mPending < mFrameBytes)
        silenceAt(mWrite, mFrameBytes - mPending);
}

// ---- States ----

NTSTATUS WavePin::setState(KSSTATE next) {
    std::lock_guard<std::mutex> control(mControl);
    KSSTATE current;
    {
        SpinGuard lock(&mLock);
        if (mClosed)
            return mRemoved ? kStatusDeviceRemoved : STATUS_INVALID_DEVICE_STATE;
        current = mState;
    }
    if (next > current) {
        const NTSTATUS allowed = requestStatus(mDevice, false);
        if (!NT_SUCCESS(allowed))
            return allowed;
    }
    mPowerPaused = false; // the client decides from here
    return step(next);
}

void WavePin::portWalk(KSSTATE target, bool powerPause) {
    std::lock_guard<std::mutex> control(mControl);
    while (true) {
        KSSTATE current;
        {
            SpinGuard lock(&mLock);
            if (mClosed)
                return;
            current = mState;
        }
        if (current == target)
            return;
        const KSSTATE next = KSSTATE(current < target ? current + 1 : current - 1);
        if (!NT_SUCCESS(step(next)))
            return;
        if (powerPause && current == KSSTATE_RUN)
            mPowerPaused = true;
    }
}

void WavePin::portResume() {
    std::lock_guard<std::mutex> control(mControl);
    const bool resume = mPowerPaused;
    mPowerPaused = false;
    {
        SpinGuard lock(&mLock);
        if (!resume || mClosed || mState != KSSTATE_PAUSE)
            return;
    }
    step(KSSTATE_RUN);
}

// Each step goes to the stream first, as ReactOS's PinWaveCyclicState does;
// only STOP changes the buffer (silenced whole) and the positions. Leaving
// RUN first takes in what moved while running; entering it primes the
// buffer from the client, as the port does just before playback starts.
NTSTATUS WavePin::step(KSSTATE next) {
    KSSTATE current;
    {
        SpinGuard lock(&mLock);
        current = mState;
    }
    if (next == current)
        return STATUS_SUCCESS;
    const int delta = int(next) - int(current);
    if (next < KSSTATE_STOP || next > KSSTATE_RUN || (delta != 1 && delta != -1))
        return STATUS_INVALID_DEVICE_REQUEST;

    ULONG position = 0;
    if (current == KSSTATE_RUN) {
        SpinGuard lock(&mLock);
        if (bufferIntact() && readPosition(&position)) {
            account(position);
            if (mCapture)
                copyCapture(position);
        }
        mState = next;
    }
    NTSTATUS status = mStream->SetState(next);
    SpinGuard lock(&mLock);
    if (!NT_SUCCESS(status)) {
        mState = current;
        return status;
    }
    mState = next;
    const bool usable = bufferIntact() && readPosition(&position);
    if (next == KSSTATE_RUN && usable) {
        if (mOpenSource)
            passed(position); // it wrote nothing while not running
        else
            idle(position);
        if (!mCapture)
            fillRender();
    } else if (next == KSSTATE_STOP) {
        if (usable) {
            mStream->Silence(mBase, mSize);
            resync(position);
        }
        mPosition = 0;
        mEndOfStream = false;
    }
    return status;
}

// KSPROPERTY_CONNECTION_DATAFORMAT set on an open pin, as ReactOS's
// PinWaveCyclicDataFormat: an identical format succeeds untouched; another
// goes to the stream's SetFormat, and on success the port takes the
// (possibly new) cyclic buffer again.
NTSTATUS WavePin::setFormat(const std::vector<UCHAR>& format, ULONG blockAlign) {
    std::lock_guard<std::mutex> control(mControl);
    {
        SpinGuard lock(&mLock);
        if (mClosed)
            return mRemoved ? kStatusDeviceRemoved : STATUS_INVALID_DEVICE_STATE;
    }
    const NTSTATUS allowed = requestStatus(mDevice, false);
    if (!NT_SUCCESS(allowed))
        return allowed;
    if (format.size() == mFormat.size() &&
        std::memcmp(format.data(), mFormat.data(), format.size()) == 0)
        return STATUS_SUCCESS;
    std::vector<UCHAR> copy(format);
    NTSTATUS status = mStream->SetFormat(reinterpret_cast<PKSDATAFORMAT>(copy.data()));
    if (NT_SUCCESS(status))
        mFormat.swap(copy);
    // ReactOS PinWaveCyclicDataFormat stores an accepted format only: the
    // buffer, its size and the framing stay as Init took them.
    if (mOpenSource)
        return status;
    SpinGuard lock(&mLock);
    const UCHAR* oldBase = mBase;
    const ULONG oldSize = mSize;
    if (NT_SUCCESS(status)) {
        mBlockAlign = blockAlign;
        mRate = waveFormatOf(mFormat)->nSamplesPerSec;
    }
    takeBuffer();
    // A stream that took the format has it, buffer or not: failing the
    // request would leave the client believing in a format the stream no
    // longer plays. Without a buffer the pin moves nothing until a later
    // format change gives it one (stricter than a port that looked again).
    if (!mBase)
        return status;
    ULONG position = 0;
    if ((NT_SUCCESS(status) || mBase != oldBase || mSize != oldSize) && readPosition(&position))
        resync(position);
    return status;
}

KSSTATE WavePin::state() {
    SpinGuard lock(&mLock);
    return mState;
}

uint64_t WavePin::positionBytes() {
    SpinGuard lock(&mLock);
    if (!mClosed && mState == KSSTATE_RUN && bufferIntact()) {
        ULONG position = 0;
        if (readPosition(&position)) {
            account(position);
            if (mCapture)
                copyCapture(position);
        }
    }
    return mPosition;
}

StreamCounters WavePin::countersBytes() {
    PSERVICEGROUP group = nullptr;
    StreamCounters counters;
    {
        SpinGuard lock(&mLock);
        counters = mCounters;
        group = mGroup;
        if (group)
            group->AddRef();
    }
    if (group) {
        counters.lateServices = serviceGroupState(group).lateServices;
        group->Release();
    }
    return counters;
}

void WavePin::setEndOfStream(bool on) {
    SpinGuard lock(&mLock);
    mEndOfStream = on;
}

bool WavePin::closed() {
    SpinGuard lock(&mLock);
    return mClosed;
}

bool WavePin::removed() {
    PDEVICE_OBJECT device;
    {
        SpinGuard lock(&mLock);
        if (mRemoved || mClosed)
            return mRemoved;
        device = mDevice;
    }
    return deviceGone(device);
}

void WavePin::close(bool byPort) {
    PDEVICE_OBJECT device = nullptr;
    {
        std::lock_guard<std::mutex> control(mControl);
        KSSTATE state;
        const bool gone = byPort || deviceGone(mDevice);
        {
            SpinGuard lock(&mLock);
            if (mClosed)
                return;
            mClosed = true;
            mRemoved = gone;
            state = mState;
            mState = KSSTATE_STOP;
        }
        // KS walks a closing pin back down one state at a time.
        if (mStream) {
            while (state != KSSTATE_STOP) {
                state = KSSTATE(state - 1);
                mStream->SetState(state);
            }
        }
        if (mJoined)
            mGroup->RemoveMember(this);
        mJoined = false;
        if (mStream)
            mStream->Release();
        if (mDma)
            mDma->Release();
        if (mGroup)
            mGroup->Release();
        {
            SpinGuard lock(&mLock);
            mStream = nullptr;
            mDma = nullptr;
            mGroup = nullptr;
            mBase = nullptr;
            mSize = 0;
        }
        PUNKNOWN port = mPort;
        mPort = nullptr;
        if (port) {
            if (!byPort)
                unregisterPin(port, this);
            port->Release();
        }
        device = mDevice;
    }
    // The handle goes last, with no lock held: it may bring the device's
    // remove request.
    if (device)
        releaseHandle(device);
}

} // namespace hostpc::detail
