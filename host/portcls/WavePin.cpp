// Client pins of the host wave-cyclic port and the per-port registry that
// closes them when the device goes away. See WavePin.h for the contract.
#include "WavePin.h"

#include <algorithm>
#include <cstring>
#include <map>

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
        return kStatusDeviceRemoved;
    }

    WavePin* pin = poolNew<WavePin>(kPinTag, port, capture, ULONG(wave->nBlockAlign));
    if (!pin) {
        miniport->Release();
        port->Release();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pin->AddRef();
    pin->mSource = source;
    pin->mSink = sink;
    pin->mObserver = options.observer;
    pin->mLeadFrames = options.leadFrames;

    // The port hands the miniport its own copy of the format, as PortCls does.
    std::vector<UCHAR> formatCopy(format);
    NTSTATUS status = miniport->NewStream(
        &pin->mStream, nullptr, NonPagedPool, pinId, capture ? TRUE : FALSE,
        reinterpret_cast<PKSDATAFORMAT>(formatCopy.data()), &pin->mDma, &pin->mGroup);
    miniport->Release();
    if (NT_SUCCESS(status) && (!pin->mStream || !pin->mDma || !pin->mGroup))
        status = STATUS_INVALID_DEVICE_STATE;
    if (NT_SUCCESS(status)) {
        ULONG framing = 0;
        pin->mIntervalMs = pin->mStream->SetNotificationFreq(10, &framing);
        if (framing == 0 || framing % pin->mBlockAlign != 0) {
            // No usable framing (a format whose SampleSize is 0): plan by the
            // notification interval, a millisecond more for its truncation.
            const ULONG ms = (pin->mIntervalMs ? pin->mIntervalMs : 10) + 1;
            const ULONG frames = ULONG((uint64_t(ms) * wave->nSamplesPerSec + 999) / 1000);
            framing = std::max<ULONG>(frames, 1) * pin->mBlockAlign;
        }
        pin->mFraming = framing;
    }
    if (NT_SUCCESS(status)) {
        status = pin->mGroup->AddMember(pin);
        pin->mJoined = NT_SUCCESS(status);
    }
    if (NT_SUCCESS(status)) {
        pin->mCreatedBufferBytes = pin->mDma->BufferSize();
        if (!capture)
            pin->mCarry.resize(pin->mCreatedBufferBytes);
        SpinGuard lock(&pin->mLock);
        pin->refreshBuffer();
        ULONG position = 0;
        pin->readPosition(&position);
        pin->resync(position);
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

bool WavePin::readPosition(ULONG* position) {
    ULONG p = 0;
    if (!mStream || !NT_SUCCESS(mStream->GetPosition(&p)))
        return false;
    *position = mSize ? p % mSize : 0;
    return true;
}

// Picks up a buffer that the stream's format change replaced.
bool WavePin::refreshBuffer() {
    if (!mDma)
        return false;
    UCHAR* base = static_cast<UCHAR*>(mDma->SystemAddress());
    ULONG size = mDma->BufferSize();
    if (!base || size == 0 || size % mBlockAlign != 0) {
        mBase = nullptr;
        mSize = 0;
        return false;
    }
    if (base != mBase || size != mSize) {
        mBase = base;
        mSize = size;
        ULONG position = 0;
        readPosition(&position);
        resync(position);
        mCarryBegin = mCarryEnd = 0;
    }
    ULONG lead = mLeadFrames ? mLeadFrames * mBlockAlign : 2 * mFraming;
    const ULONG most = mSize > mFraming ? mSize - mFraming : mFraming;
    mLead = std::clamp(lead, mFraming, std::max(mFraming, most));
    mLead -= mLead % mBlockAlign;
    return true;
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
    ++mCounters.glitches;
    mCounters.silenceFrames += delta - mPending;
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

// Render: client audio (first what was taken back at a pause) into the
// cyclic buffer up to the lead; when even one period is missing, silence.
void WavePin::fillRender() {
    while (mPending < mLead) {
        const ULONG want = std::min(mLead - mPending, mSize - mWrite);
        ULONG got = 0;
        if (mCarryBegin < mCarryEnd) {
            got = std::min(want, mCarryEnd - mCarryBegin);
            mDma->CopyTo(mBase + mWrite, mCarry.data() + mCarryBegin, got);
            mCarryBegin += got;
        } else {
            const UCHAR* piece = nullptr;
            got = mSource->map(&piece, want);
            got = std::min(got, want);
            if (got == 0 || !piece)
                break;
            mDma->CopyTo(mBase + mWrite, const_cast<UCHAR*>(piece), got);
            mSource->release(got);
            mCounters.framesCopied += got;
        }
        mWrite = (mWrite + got) % mSize;
        mPending += got;
    }
    if (mPending >= mFraming)
        return;
    const ULONG missing = mFraming - mPending;
    silenceAt(mWrite, missing);
    mWrite = (mWrite + missing) % mSize;
    mPending += missing;
    if (!mEndOfStream) {
        ++mCounters.glitches;
        mCounters.silenceFrames += missing;
    }
}

// Capture: from the last read up to the position into the client's room.
void WavePin::copyCapture(ULONG position) {
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
    if (mClosed || !refreshBuffer())
        return;
    ULONG position = 0;
    if (!readPosition(&position))
        return;
    if (mState != KSSTATE_RUN) {
        // Not running: the device's progress is not the stream's.
        mLast = position;
        mRead = position;
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

// ---- States ----

void WavePin::enterRun() {
    mState = KSSTATE_RUN;
    if (!refreshBuffer())
        return;
    ULONG position = 0;
    readPosition(&position);
    resync(position);
    if (!mCapture)
        fillRender();
}

// Render: what is written but not yet played is taken back and the buffer
// silenced, so a paused device plays silence, not the buffer over again.
void WavePin::leaveRun() {
    if (!refreshBuffer()) {
        mState = KSSTATE_PAUSE;
        return;
    }
    ULONG position = 0;
    readPosition(&position);
    account(position);
    if (mCapture) {
        copyCapture(position);
        mState = KSSTATE_PAUSE;
        return;
    }
    // Anything still carried from the last pause goes after what is taken back.
    const ULONG carried = mCarryEnd - mCarryBegin;
    const ULONG room = ULONG(mCarry.size());
    ULONG taken = std::min(mPending, room > carried ? room - carried : 0);
    std::memmove(mCarry.data() + taken, mCarry.data() + mCarryBegin, carried);
    for (ULONG done = 0; done < taken;) {
        const ULONG at = (position + done) % mSize;
        const ULONG piece = std::min(taken - done, mSize - at);
        std::memcpy(mCarry.data() + done, mBase + at, piece);
        done += piece;
    }
    mCarryBegin = 0;
    mCarryEnd = taken + carried;
    mStream->Silence(mBase, mSize);
    // A period that played meanwhile is not to be played again.
    ULONG now = position;
    readPosition(&now);
    const ULONG played = (now + mSize - position) % mSize;
    if (played > 0) {
        mPosition += played;
        mCarryBegin = std::min(played, mCarryEnd);
    }
    resync(now);
    mState = KSSTATE_PAUSE;
}

NTSTATUS WavePin::setState(KSSTATE next) {
    std::lock_guard<std::mutex> control(mControl);
    KSSTATE current;
    {
        SpinGuard lock(&mLock);
        if (mClosed)
            return mRemoved ? kStatusDeviceRemoved : STATUS_INVALID_DEVICE_STATE;
        current = mState;
    }
    if (next == current)
        return STATUS_SUCCESS;
    const int step = int(next) - int(current);
    if (next < KSSTATE_STOP || next > KSSTATE_RUN || (step != 1 && step != -1))
        return STATUS_INVALID_DEVICE_REQUEST;

    if (current == KSSTATE_RUN) {
        if (!mCapture && mDma && mCarry.size() < mDma->BufferSize())
            mCarry.resize(mDma->BufferSize());
        {
            SpinGuard lock(&mLock);
            leaveRun();
        }
        return mStream->SetState(next);
    }
    NTSTATUS status = mStream->SetState(next);
    if (!NT_SUCCESS(status))
        return status;
    SpinGuard lock(&mLock);
    if (next == KSSTATE_RUN) {
        enterRun();
        return status;
    }
    mState = next;
    if (next == KSSTATE_STOP) {
        mPosition = 0;
        mCarryBegin = mCarryEnd = 0;
        mEndOfStream = false;
    }
    return status;
}

KSSTATE WavePin::state() {
    SpinGuard lock(&mLock);
    return mState;
}

uint64_t WavePin::positionBytes() {
    SpinGuard lock(&mLock);
    if (!mClosed && mState == KSSTATE_RUN && refreshBuffer()) {
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
    SpinGuard lock(&mLock);
    return mCounters;
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
    SpinGuard lock(&mLock);
    return mRemoved;
}

void WavePin::close(bool byPort) {
    std::lock_guard<std::mutex> control(mControl);
    KSSTATE state;
    {
        SpinGuard lock(&mLock);
        if (mClosed)
            return;
        mClosed = true;
        mRemoved = byPort;
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
}

} // namespace hostpc::detail
