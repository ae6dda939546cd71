// MMEDMAEmulator: the emulated DMA channel (IDmaChannelSlave) and the
// period transfer between the shared rings and the cyclic buffer.
//
// Buffers: the cyclic buffer holds 4096 frames of the stream's format, the
// scratch buffer 2048 frames of ring samples of the configured channel
// count. Both are replaced only when their size changes. The transfer moves
// each period in one pass between ring and cyclic buffer; the scratch
// buffer's capacity still bounds the periods it accepts.
//
// Locking: mTransferLock (a spin lock, so the transfer may run at dispatch
// level) is held by onInput/onOutput for one whole period, and by every
// operation that replaces, frees, clears or copies into the buffers or moves
// the positions. Allocation and freeing happen outside it; nothing waits or
// allocates while holding it. setStreamFormat detaches the stream before it
// touches sizes or buffers and attaches it only after both are in place.
#include "MMEDMAEmulator.h"
#include "SampleConversion.h"
#include "../wave/MMEWaveStream.h"

namespace {

// Assertion reports of this source carry its name and this line.
constexpr ULONG kObjectAssertLine = 42;

template <typename T> struct RemovePointer;
template <typename T> struct RemovePointer<T*&> { typedef T Type; };

class TransferLock {
public:
    explicit TransferLock(KSPIN_LOCK* lock) : mLock(lock) { KeAcquireSpinLock(mLock, &mIrql); }
    ~TransferLock() { KeReleaseSpinLock(mLock, mIrql); }
    TransferLock(const TransferLock&) = delete;
    TransferLock& operator=(const TransferLock&) = delete;

private:
    KSPIN_LOCK* mLock;
    KIRQL mIrql;
};

} // namespace

MMEDMAEmulator::MMEDMAEmulator(MMEAdapterInfo* link, bool capture) {
    FunctionTrace ft("MMEDMAEmulator::MMEDMAEmulator()", this);
    (void)link;
    mPosition = 0;
    mbCapture = capture;
    mTransferOffset = 0;
    mpStream = nullptr;
    mFirstRingChannel = 0;
    mUSBChannels = 0;
    mWDMChannels = 0;
    mWDMBits = 0;
    mWDMBytesPerSample = 0;
    mWDMBufferSamples = 0;
    mUSBBufferSamples = 0;
    mUSBBufferBytes = 0;
    mpUSBBuffer = nullptr;
    mWDMBufferBytes = 0;
    mpWDMBuffer = nullptr;
    mbRingRefused = false;
    mbPeriodRefused = false;
    KeInitializeSpinLock(&mTransferLock);
}

MMEDMAEmulator::~MMEDMAEmulator() {
    FunctionTrace ft("MMEDMAEmulator::~MMEDMAEmulator", this);
    releaseBuffers();
}

STDMETHODIMP_(NTSTATUS) MMEDMAEmulator::QueryInterface(REFIID riid, PVOID* Object) {
    FunctionTrace ft("MMEDMAEmulator::QueryInterface", this);
    if (!Object) {
        RtlAssert((PVOID) "Object", (PVOID) "MMEDMAEmulator", kObjectAssertLine, nullptr);
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUIDAligned(riid, IID_IUnknown) || IsEqualGUIDAligned(riid, IID_IDmaChannel)) {
        *Object = static_cast<PVOID>(static_cast<IDmaChannelSlave*>(this));
        AddRef();
        return STATUS_SUCCESS;
    }
    *Object = nullptr;
    return STATUS_INVALID_PARAMETER;
}

STDMETHODIMP_(NTSTATUS)
MMEDMAEmulator::AllocateBuffer(ULONG BufferSize, PPHYSICAL_ADDRESS PhysicalAddressConstraint) {
    FunctionTrace ft("MMEDMAEmulator::AllocateBuffer", BufferSize);
    // The buffers come from setStreamFormat, sized by the stream's format.
    if (PhysicalAddressConstraint)
        ft.pointer("PhysicalAddressConstraint", PhysicalAddressConstraint);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(void) MMEDMAEmulator::FreeBuffer() {
    FunctionTrace ft("MMEDMAEmulator::FreeBuffer", this);
    releaseBuffers();
}

void MMEDMAEmulator::releaseBuffers() {
    LONG* scratch;
    ULONG scratchBytes;
    UCHAR* cyclic;
    ULONG cyclicBytes;
    {
        TransferLock lock(&mTransferLock);
        scratch = mpUSBBuffer;
        scratchBytes = mUSBBufferBytes;
        cyclic = mpWDMBuffer;
        cyclicBytes = mWDMBufferBytes;
        mpUSBBuffer = nullptr;
        mUSBBufferBytes = 0;
        mpWDMBuffer = nullptr;
        mWDMBufferBytes = 0;
        mTransferOffset = 0;
        MMEStoreRelease(&mPosition, 0);
    }
    MMEFree(scratch, scratchBytes);
    MMEFree(cyclic, cyclicBytes);
}

STDMETHODIMP_(ULONG) MMEDMAEmulator::TransferCount() {
    FunctionTrace ft("MMEDMAEmulator::TransferCount", this);
    return 0;
}

STDMETHODIMP_(ULONG) MMEDMAEmulator::MaximumBufferSize() {
    FunctionTrace ft("MMEDMAEmulator::MaximumBufferSize", this);
    return mWDMBufferBytes;
}

STDMETHODIMP_(ULONG) MMEDMAEmulator::AllocatedBufferSize() {
    FunctionTrace ft("MMEDMAEmulator::AllocatedBufferSize", this);
    return mWDMBufferBytes;
}

STDMETHODIMP_(ULONG) MMEDMAEmulator::BufferSize() {
    return mWDMBufferBytes;
}

STDMETHODIMP_(void) MMEDMAEmulator::SetBufferSize(ULONG BufferSize) {
    FunctionTrace ft("MMEDMAEmulator::SetBufferSize", BufferSize);
}

STDMETHODIMP_(PVOID) MMEDMAEmulator::SystemAddress() {
    return mpWDMBuffer;
}

STDMETHODIMP_(PPHYSICAL_ADDRESS) MMEDMAEmulator::PhysicalAddress(PPHYSICAL_ADDRESS Address) {
    FunctionTrace ft("MMEDMAEmulator::PhysicalAddress", this);
    if (Address)
        Address->QuadPart = 0;
    return Address;
}

STDMETHODIMP_(PADAPTER_OBJECT) MMEDMAEmulator::GetAdapterObject() {
    FunctionTrace ft("MMEDMAEmulator::GetAdapterObject", this);
    return nullptr;
}

bool MMEDMAEmulator::inCyclicBuffer(const void* start, ULONG bytes) const {
    if (!mpWDMBuffer || !start)
        return false;
    ULONG_PTR begin = (ULONG_PTR)mpWDMBuffer;
    ULONG_PTR at = (ULONG_PTR)start;
    if (at < begin || at - begin > mWDMBufferBytes)
        return false;
    return bytes <= mWDMBufferBytes - (ULONG)(at - begin);
}

// The port's copies into (render) and out of (capture) the cyclic buffer, up
// to dispatch level. The side in the cyclic buffer must lie inside it.
void MMEDMAEmulator::copyInside(PVOID Destination, const void* Source, ULONG ByteCount,
                                const void* cyclicSide, const char* outsideText) {
    bool outside;
    LONG offset = 0;
    ULONG bufferBytes = 0;
    {
        TransferLock lock(&mTransferLock);
        if (!mpWDMBuffer || ByteCount == 0)
            return;
        outside = !Destination || !Source || !inCyclicBuffer(cyclicSide, ByteCount);
        if (!outside)
            memcpy(Destination, Source, ByteCount);
        offset = (LONG)((ULONG_PTR)cyclicSide - (ULONG_PTR)mpWDMBuffer);
        bufferBytes = mWDMBufferBytes;
    }
    if (outside)
        TraceLine(outsideText, offset, (LONG)ByteCount, (LONG)bufferBytes);
}

STDMETHODIMP_(void) MMEDMAEmulator::CopyTo(PVOID Destination, PVOID Source, ULONG ByteCount) {
    if (mbCapture) {
        TraceLine(" ERROR DMA:CopyTo dest/src/count ON CAPTURE",
                  (LONG)((ULONG_PTR)Destination - (ULONG_PTR)mpWDMBuffer),
                  (LONG)(ULONG)(ULONG_PTR)Source, (LONG)ByteCount);
        return;
    }
    copyInside(Destination, Source, ByteCount, Destination,
               "MMEDMAEmulator::CopyTo range outside the cyclic buffer offset/count/size");
}

STDMETHODIMP_(void) MMEDMAEmulator::CopyFrom(PVOID Destination, PVOID Source, ULONG ByteCount) {
    if (!mbCapture) {
        TraceLine(" ERROR DMA:CopyFrom dest/src/count ON RENDER",
                  (LONG)(ULONG)(ULONG_PTR)Destination,
                  (LONG)((ULONG_PTR)Source - (ULONG_PTR)mpWDMBuffer), (LONG)ByteCount);
        return;
    }
    copyInside(Destination, Source, ByteCount, Source,
               "MMEDMAEmulator::CopyFrom range outside the cyclic buffer offset/count/size");
}

STDMETHODIMP_(NTSTATUS) MMEDMAEmulator::Start(ULONG MapSize, BOOLEAN WriteToDevice) {
    (void)WriteToDevice;
    TransferLock lock(&mTransferLock);
    advance(MapSize);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) MMEDMAEmulator::Stop() {
    FunctionTrace ft("MMEDMAEmulator::Stop", this);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(ULONG) MMEDMAEmulator::ReadCounter() {
    FunctionTrace ft("MMEDMAEmulator::ReadCounter", this);
    return 0;
}

STDMETHODIMP_(NTSTATUS) MMEDMAEmulator::WaitForTC(ULONG Timeout) {
    FunctionTrace ft("MMEDMAEmulator::WaitForTC", Timeout);
    return STATUS_SUCCESS;
}

// Moves both positions on by bytes, wrapping at the cyclic buffer's end.
// Without a buffer they stay at 0.
void MMEDMAEmulator::advance(ULONG bytes) {
    const ULONGLONG size = mWDMBufferBytes;
    if (size == 0) {
        mTransferOffset = 0;
        MMEStoreRelease(&mPosition, 0);
        return;
    }
    ULONGLONG offset = (ULONGLONG)mTransferOffset + bytes;
    if (offset >= size)
        offset -= size;
    if (offset >= size) // only a step longer than the whole buffer gets here
        offset %= size;
    mTransferOffset = (ULONG)offset;

    ULONGLONG position = (ULONGLONG)mPosition + bytes;
    if (position >= size)
        position -= size;
    if (position >= size)
        position %= size;
    MMEStoreRelease(&mPosition, (ULONG)position);
}

// Passive level. Returns false and leaves the channel detached when the
// stream, its format or the buffers cannot be had.
bool MMEDMAEmulator::setStreamFormat(MMEWaveStream* stream, ULONG channels, ULONG bitsPerSample,
                                     ULONG firstRingChannel, bool keepCyclicBuffer) {
    FunctionTrace ft(nullptr, this);
    {
        TransferLock lock(&mTransferLock);
        mFirstRingChannel = firstRingChannel;
        mpStream = nullptr;
    }
    if (!stream || channels == 0 || (LONG)bitsPerSample < 1)
        return false;

    ChannelConfig config;
    if (!stream->getAdapterSettings(&config))
        return false;

    mUSBChannels = mbCapture ? config.inCH : config.outCH;
    mWDMChannels = channels;
    switch (bitsPerSample) {
    case 16:
        mWDMBits = 16;
        mWDMBytesPerSample = 2;
        break;
    case 24:
        mWDMBits = 24;
        mWDMBytesPerSample = 3;
        break;
    case 32:
        mWDMBits = 32;
        mWDMBytesPerSample = 4;
        break;
    default:
        ft.num("ERROR invalid wBitsPerSample", (LONG)bitsPerSample);
        return false;
    }
    ft.num("USB/WDM/BITS ", (LONG)mUSBChannels, (LONG)mWDMChannels, (LONG)mWDMBits);

    // Sizes that do not fit 32 bits cannot be buffers.
    ULONGLONG cyclicBytes = (ULONGLONG)mWDMChannels * MME_CYCLIC_BUFFER_FRAMES * mWDMBytesPerSample;
    if (keepCyclicBuffer && mpWDMBuffer && mWDMBufferBytes != 0 &&
        mWDMBufferBytes % (mWDMChannels * mWDMBytesPerSample) == 0) {
        ft.num("cyclic buffer kept for the port", (LONG)mWDMBufferBytes);
        cyclicBytes = mWDMBufferBytes;
    }
    const ULONGLONG scratchBytes = (ULONGLONG)mUSBChannels * MME_SCRATCH_BUFFER_FRAMES * 4;
    if (cyclicBytes > 0xFFFFFFFFull || scratchBytes > 0xFFFFFFFFull) {
        ft.num("ERROR buffer too large ch/usb", (LONG)mWDMChannels, (LONG)mUSBChannels);
        return false;
    }
    mWDMBufferSamples = (ULONG)(cyclicBytes / mWDMBytesPerSample);
    mUSBBufferSamples = mUSBChannels * MME_SCRATCH_BUFFER_FRAMES;
    const ULONG newWDMBufferBytes = (ULONG)cyclicBytes;
    const ULONG newUSBBufferBytes = (ULONG)scratchBytes;
    ft.num("WDMbs WDMbb USBbs USBbb ", (LONG)mWDMBufferSamples, (LONG)mWDMBufferBytes,
           (LONG)mUSBBufferSamples, (LONG)mUSBBufferBytes);
    ft.num("newUSBBufferBytes newWDMBufferBytes ", (LONG)newUSBBufferBytes,
           (LONG)newWDMBufferBytes);

    if (!reAllocateBuffer(newUSBBufferBytes, newWDMBufferBytes)) {
        ft.text("reAllocateBuffer failed");
        return false;
    }
    TransferLock lock(&mTransferLock);
    mpStream = stream;
    return true;
}

// Passive level. New buffers are allocated before the lock is taken and the
// old ones freed after it is released; under the lock only pointers swap.
bool MMEDMAEmulator::reAllocateBuffer(ULONG newUSBBufferBytes, ULONG newWDMBufferBytes) {
    FunctionTrace ft("MMEDMAEmulator::reAllocateBuffer", this);

    auto replace = [&](auto*& buffer, ULONG& bytes, ULONG newBytes, const char* differs,
                       const char* equal) -> bool {
        if (newBytes == bytes) {
            ft.text(equal);
            return true;
        }
        ft.num(differs, (LONG)bytes, (LONG)newBytes);
        using Element = typename RemovePointer<decltype(buffer)>::Type;
        Element* fresh = nullptr;
        if (newBytes != 0) {
            fresh = static_cast<Element*>(MMEAllocate(newBytes));
            if (!fresh) {
                FreeBuffer();
                ft.text("memAlloc failed");
                return false;
            }
        }
        Element* old;
        ULONG oldBytes;
        {
            TransferLock lock(&mTransferLock);
            old = buffer;
            oldBytes = bytes;
            buffer = fresh;
            bytes = newBytes;
        }
        MMEFree(old, oldBytes);
        return true;
    };
    if (!replace(mpUSBBuffer, mUSBBufferBytes, newUSBBufferBytes,
                 "mUSBBufferBytes differs old/new ", "mUSBBufferBytes equal"))
        return false;
    if (!replace(mpWDMBuffer, mWDMBufferBytes, newWDMBufferBytes,
                 "mWDMBufferBytes differs old/new ", "mWDMBufferBytes equal"))
        return false;
    {
        TransferLock lock(&mTransferLock);
        mTransferOffset = 0;
        MMEStoreRelease(&mPosition, 0);
    }
    clearBuffer();
    return true;
}

void MMEDMAEmulator::clearBuffer() {
    FunctionTrace ft(nullptr, this);
    TransferLock lock(&mTransferLock);
    if (mpWDMBuffer)
        memset(mpWDMBuffer, 0, mWDMBufferBytes);
}

// The port's Silence on a place inside the cyclic buffer; up to dispatch level.
void MMEDMAEmulator::silence(PVOID buffer, ULONG byteCount) {
    FunctionTrace ft("MMEDMAEmulator::silence", buffer);
    bool outside = false;
    {
        TransferLock lock(&mTransferLock);
        if (!buffer || !mpWDMBuffer || byteCount > mWDMBufferBytes)
            return;
        // Only the current cyclic buffer: a port that kept the address of
        // one a format change replaced must not have freed pool zeroed.
        if (!inCyclicBuffer(buffer, byteCount))
            outside = true;
        else
            memset(buffer, 0, byteCount);
    }
    if (outside)
        ft.num("range outside the cyclic buffer count", (LONG)byteCount);
}

void MMEDMAEmulator::resetPosition() {
    FunctionTrace ft(nullptr, this);
    TransferLock lock(&mTransferLock);
    MMEStoreRelease(&mPosition, 0);
}

// ---- Period transfer ----

// A ring whose header breaks the invariants moves nothing; the refusal is
// traced once when it begins.
bool MMEDMAEmulator::ringAccepted(const AudioSM* ring, ULONG* channels, ULONG* maxFrames) {
    if (ring->shape(channels, maxFrames)) {
        mbRingRefused = false;
        return true;
    }
    if (!mbRingRefused) {
        mbRingRefused = true;
        TraceLine(mbCapture ? "MMEDMAEmulator::onInput capture ring header invalid ch/frames"
                            : "MMEDMAEmulator::onOutput render ring header invalid ch/frames",
                  (LONG)MMELoadOnce(&ring->mChannelsPerFrame),
                  (LONG)MMELoadOnce(&ring->mMaxFrames));
    }
    return false;
}

// A period must fit the ring, the scratch buffer (with the render offset of
// firstRingChannel samples) and, from its first ring channel on, the ring's
// channels; one that does not is handled as an overrun. A stream with more
// channels than the ring fits: it moves its positions and no samples.
// Traced once when misfits begin.
bool MMEDMAEmulator::periodFits(ULONG frames, ULONG ringChannels, ULONG ringFrames,
                                ULONG firstRingChannel) {
    const ULONGLONG scratchSamples = mpUSBBuffer ? mUSBBufferBytes / 4 : 0;
    const bool fits = frames <= ringFrames &&
                      (mWDMChannels > ringChannels ||
                       (ULONGLONG)firstRingChannel + mWDMChannels <= ringChannels) &&
                      (ULONGLONG)frames * ringChannels + firstRingChannel <= scratchSamples;
    if (fits) {
        mbPeriodRefused = false;
        return true;
    }
    if (!mbPeriodRefused) {
        mbPeriodRefused = true;
        TraceLine(mbCapture ? "MMEDMAEmulator::onInput period does not fit frames/ringCh/scratch"
                            : "MMEDMAEmulator::onOutput period does not fit frames/ringCh/scratch",
                  (LONG)frames, (LONG)ringChannels, (LONG)scratchSamples);
    }
    return false;
}

// The period's place in the cyclic buffer: one piece, or two when it runs
// past the end (smp1 frames before it, smp2 from the start). An offset off
// the frame grid puts the whole period at the start instead. Caller holds
// the transfer lock and has checked lenMME <= mWDMBufferBytes.
ULONG MMEDMAEmulator::cyclicPieces(ULONG lenMME, ULONG frames, const char* offGridText,
                                   CyclicPiece pieces[2]) const {
    if ((ULONGLONG)mTransferOffset + lenMME <= mWDMBufferBytes) {
        pieces[0] = CyclicPiece{mpWDMBuffer + mTransferOffset, frames};
        return 1;
    }
    const ULONG first = mWDMBufferBytes - mTransferOffset;
    const ULONG second = lenMME - first;
    ULONG smp1 = first / mWDMBytesPerSample / mWDMChannels;
    ULONG smp2 = second / mWDMBytesPerSample / mWDMChannels;
    if (smp1 + smp2 != frames) {
        TraceLine(offGridText, (LONG)smp1, (LONG)smp2, (LONG)frames);
        smp1 = 0;
        smp2 = frames;
    }
    pieces[0] = CyclicPiece{mpWDMBuffer + mTransferOffset, smp1};
    pieces[1] = CyclicPiece{mpWDMBuffer, smp2};
    return 2;
}

namespace {

// Calls run(samples, frames, before) for the frames from ring position
// `position` on, in at most two runs (the second from index 0 when the
// frames reach the ring's end); before counts the frames of the first run.
// frames <= maxFrames.
template <typename Run>
void eachRingRun(LONG* samples, ULONG channels, ULONG maxFrames, ULONG position, ULONG frames,
                 Run run) {
    const ULONG index = position % maxFrames;
    const ULONG room = maxFrames - index;
    const ULONG first = frames <= room ? frames : room;
    if (first)
        run(samples + (SIZE_T)index * channels, first, 0);
    if (frames > first)
        run(samples, frames - first, first);
}

} // namespace

// USB driver's period callback, up to dispatch level: no allocation, no wait.
bool MMEDMAEmulator::onInput(AudioSM* captureRing, AudioSM* renderRing, ULONG frames) {
    if (!captureRing || !renderRing)
        return false;
    TransferLock lock(&mTransferLock);
    return transferInput(captureRing, renderRing, frames);
}

// The kept channels go straight from the capture ring into the cyclic
// buffer: at most two ring runs times two cyclic pieces, no staging.
bool MMEDMAEmulator::transferInput(AudioSM* captureRing, AudioSM* renderRing, ULONG frames) {
    ULONG ringChannels, ringFrames;
    if (!ringAccepted(captureRing, &ringChannels, &ringFrames))
        return false;

    const ULONG readPos = MMELoadAcquire(&renderRing->mMMEReadPos);
    // The frames are consumed whatever happens to them.
    auto consume = [&]() { MMEStoreRelease(&renderRing->mMMEReadPos, readPos + frames); };

    if (!mpStream || mWDMChannels == 0) {
        consume();
        return false;
    }
    const ULONGLONG lenMME64 = (ULONGLONG)frames * mWDMBytesPerSample * mWDMChannels;
    const ULONG lenMME = (ULONG)lenMME64;
    if (lenMME64 > mWDMBufferBytes) {
        TraceLine("MMEDMAEmulator::onInput - lenMME > mWDMBufferBytes", (LONG)lenMME,
                  (LONG)mWDMBufferBytes);
        consume();
        return true;
    }
    if (lenMME != 0) {
        if (!periodFits(frames, ringChannels, ringFrames, 0)) {
            consume();
            return true;
        }
        const bool exclusive = MMELoadAcquire64(&captureRing->mExclInputs) != 0;
        if (exclusive)
            DbgPrint("ExclInputs lenMME:%d mWDMBufferBytes:%d\n", (LONG)lenMME,
                     (LONG)mWDMBufferBytes);
        // A stream wider than the ring receives nothing.
        if (mWDMChannels <= ringChannels) {
            CyclicPiece pieces[2];
            const ULONG count = cyclicPieces(
                lenMME, frames, "MMEDMAEmulator::onInput (smp1+smp2) != mBufferSizeUSB", pieces);
            const ULONG frameBytes = mWDMBytesPerSample * mWDMChannels;
            // Pairs with the writer's release of mWritePos: its samples are visible.
            (void)MMELoadAcquire(&captureRing->mWritePos);
            ULONG done = 0;
            for (ULONG p = 0; p < count; ++p) {
                UCHAR* to = pieces[p].at;
                if (exclusive) {
                    memset(to, 0, (SIZE_T)pieces[p].frames * frameBytes);
                } else {
                    eachRingRun(captureRing->mSamples, ringChannels, ringFrames, readPos + done,
                                pieces[p].frames, [&](LONG* at, ULONG n, ULONG before) {
                                    ringToPcm(n, at, ringChannels, to + (SIZE_T)before * frameBytes,
                                              mWDMChannels, mWDMBits);
                                });
                }
                done += pieces[p].frames;
            }
        }
        consume();
    }
    advance(lenMME);
    return true;
}

// USB driver's period callback, up to dispatch level: no allocation, no wait.
bool MMEDMAEmulator::onOutput(AudioSM* renderRing, ULONG frames, ULONG writeOffset) {
    if (!renderRing)
        return false;
    TransferLock lock(&mTransferLock);
    return transferOutput(renderRing, frames, writeOffset);
}

// The stream's PCM goes straight into the render ring in the ring's format,
// silence of the other ring channels included: one pass, no staging.
bool MMEDMAEmulator::transferOutput(AudioSM* renderRing, ULONG frames, ULONG writeOffset) {
    ULONG ringChannels, ringFrames;
    if (!ringAccepted(renderRing, &ringChannels, &ringFrames))
        return false;

    if (!mpStream || mWDMChannels == 0) {
        renderRing->writeSilence(frames, writeOffset, ringChannels);
        return false;
    }
    const ULONGLONG lenMME64 = (ULONGLONG)frames * mWDMBytesPerSample * mWDMChannels;
    const ULONG lenMME = (ULONG)lenMME64;
    if (lenMME64 > mWDMBufferBytes) {
        TraceLine("MMEDMAEmulator::onOutput - lenMME > mWDMBufferBytes", (LONG)lenMME,
                  (LONG)mWDMBufferBytes);
        renderRing->writeSilence(frames, writeOffset, ringChannels);
        return true;
    }
    if (lenMME != 0) {
        const ULONG firstRing = mFirstRingChannel;
        if (!periodFits(frames, ringChannels, ringFrames, firstRing)) {
            renderRing->writeSilence(frames, writeOffset, ringChannels);
            return true;
        }
        if (mWDMChannels > ringChannels) {
            // Nothing of a stream wider than the ring can be sent; the
            // period goes out as silence rather than as stale samples.
            renderRing->writeSilence(frames, writeOffset, ringChannels);
        } else {
            CyclicPiece pieces[2];
            const ULONG count = cyclicPieces(
                lenMME, frames, "MMEDMAEmulator::onOutput (smp1+smp2) != mBufferSizeUSB", pieces);
            const ULONG frameBytes = mWDMBytesPerSample * mWDMChannels;
            // Writer's order: the offset, then the samples, then the position.
            MMEStoreRelease(&renderRing->mWriteOffset, writeOffset);
            const ULONG writePos = MMELoadOnce(&renderRing->mWritePos);
            ULONG done = 0;
            for (ULONG p = 0; p < count; ++p) {
                const UCHAR* from = pieces[p].at;
                eachRingRun(renderRing->mSamples, ringChannels, ringFrames,
                            writePos + writeOffset + done, pieces[p].frames,
                            [&](LONG* at, ULONG n, ULONG before) {
                                pcmToRing(n, from + (SIZE_T)before * frameBytes, mWDMChannels,
                                          mWDMBits, at, ringChannels, firstRing);
                            });
                done += pieces[p].frames;
            }
            MMEStoreRelease(&renderRing->mWritePos, writePos + frames);
        }
    }
    advance(lenMME);
    return true;
}
