// MMEDMAEmulator: the emulated DMA channel handed to the wave port, one per
// direction. Owns the cyclic buffer the port sees and a scratch buffer of
// ring frames (sized as before, though the period transfer no longer stages
// through it); the period transfer (onInput/onOutput) moves one period
// between the shared rings and the cyclic buffer in one pass and advances
// the position.
#pragma once

#include "../common/AudioSM.h"
#include "../common/MMEAdapterInfo.h"
#include "../common/MMEUnknown.h"
#include "../common/Trace.h"

class MMEWaveStream;

constexpr ULONG MME_CYCLIC_BUFFER_FRAMES = 4096;
constexpr ULONG MME_SCRATCH_BUFFER_FRAMES = 2048;

class MMEDMAEmulator : public IDmaChannelSlave, public MMEUnknown {
public:
    MMEDMAEmulator(MMEAdapterInfo* link, bool capture);
    ~MMEDMAEmulator() override;

    // IDmaChannel, slots 0 to 14
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* Object) override;
    MME_IMPLEMENT_REFCOUNT
    STDMETHODIMP_(NTSTATUS)
    AllocateBuffer(ULONG BufferSize, PPHYSICAL_ADDRESS PhysicalAddressConstraint) override;
    STDMETHODIMP_(void) FreeBuffer() override;
    STDMETHODIMP_(ULONG) TransferCount() override;
    STDMETHODIMP_(ULONG) MaximumBufferSize() override;
    STDMETHODIMP_(ULONG) AllocatedBufferSize() override;
    STDMETHODIMP_(ULONG) BufferSize() override;
    STDMETHODIMP_(void) SetBufferSize(ULONG BufferSize) override;
    STDMETHODIMP_(PVOID) SystemAddress() override;
    STDMETHODIMP_(PPHYSICAL_ADDRESS) PhysicalAddress(PPHYSICAL_ADDRESS Address) override;
    STDMETHODIMP_(PADAPTER_OBJECT) GetAdapterObject() override;
    STDMETHODIMP_(void) CopyTo(PVOID Destination, PVOID Source, ULONG ByteCount) override;
    STDMETHODIMP_(void) CopyFrom(PVOID Destination, PVOID Source, ULONG ByteCount) override;
    // IDmaChannelSlave, slots 15 to 18
    STDMETHODIMP_(NTSTATUS) Start(ULONG MapSize, BOOLEAN WriteToDevice) override;
    STDMETHODIMP_(NTSTATUS) Stop() override;
    STDMETHODIMP_(ULONG) ReadCounter() override;
    STDMETHODIMP_(NTSTATUS) WaitForTC(ULONG Timeout) override;

    // Attaches a stream with its format and sizes both buffers; with no
    // stream and zeros it detaches. keepCyclicBuffer: the port holds the
    // cyclic buffer and will not take it again, so it stays (its frames
    // reshaped) whenever it holds whole frames of the format. Passive level.
    bool setStreamFormat(MMEWaveStream* stream, ULONG channels, ULONG bitsPerSample,
                         ULONG firstRingChannel, bool keepCyclicBuffer = false);
    bool reAllocateBuffer(ULONG newUSBBufferBytes, ULONG newWDMBufferBytes);
    void clearBuffer();
    void silence(PVOID buffer, ULONG byteCount);
    void resetPosition();

    // Period transfer, in the USB driver's period callback: no allocation,
    // no blocking. True when a stream is attached (the port is to be notified).
    bool onInput(AudioSM* captureRing, AudioSM* renderRing, ULONG frames);
    bool onOutput(AudioSM* renderRing, ULONG frames, ULONG writeOffset);

    // Read-only views for the stream, the port and tests.
    ULONG position() const { return MMELoadAcquire(&mPosition); }
    ULONG transferOffset() const { return mTransferOffset; }
    bool isCapture() const { return mbCapture; }
    MMEWaveStream* stream() const { return mpStream; }
    ULONG usbChannels() const { return mUSBChannels; }
    ULONG wdmChannels() const { return mWDMChannels; }
    ULONG wdmBits() const { return mWDMBits; }
    ULONG usbBufferBytes() const { return mUSBBufferBytes; }
    ULONG wdmBufferBytes() const { return mWDMBufferBytes; }
    void setFirstRingChannel(ULONG channel) { mFirstRingChannel = channel; }
    ULONG firstRingChannel() const { return mFirstRingChannel; }

private:
    // All of these run with mTransferLock held.
    void advance(ULONG bytes);
    bool transferInput(AudioSM* captureRing, AudioSM* renderRing, ULONG frames);
    bool transferOutput(AudioSM* renderRing, ULONG frames, ULONG writeOffset);
    bool ringAccepted(const AudioSM* ring, ULONG* channels, ULONG* maxFrames);
    bool periodFits(ULONG frames, ULONG ringChannels, ULONG ringFrames, ULONG firstRingChannel);
    bool inCyclicBuffer(const void* start, ULONG bytes) const;
    struct CyclicPiece {
        UCHAR* at;
        ULONG frames;
    };
    ULONG cyclicPieces(ULONG lenMME, ULONG frames, const char* offGridText,
                       CyclicPiece pieces[2]) const;
    void copyInside(PVOID Destination, const void* Source, ULONG ByteCount, const void* cyclicSide,
                    const char* outsideText);

    // Takes both buffers out under the lock and frees them outside it.
    void releaseBuffers();

    volatile ULONG mPosition;
    bool mbCapture;
    ULONG mTransferOffset;
    MMEWaveStream* mpStream;
    ULONG mFirstRingChannel;
    ULONG mUSBChannels;
    ULONG mWDMChannels;
    ULONG mWDMBits;
    ULONG mWDMBytesPerSample;
    ULONG mWDMBufferSamples;
    ULONG mUSBBufferSamples;
    ULONG mUSBBufferBytes;
    LONG* mpUSBBuffer;
    ULONG mWDMBufferBytes;
    UCHAR* mpWDMBuffer;
    // Excludes a running period transfer from buffer replacement, FreeBuffer
    // and detaching. Held only for the length of one transfer or one swap.
    KSPIN_LOCK mTransferLock;
    // Refusals are traced when they begin, not every period; each flag
    // clears when the condition does.
    bool mbRingRefused;
    bool mbPeriodRefused;
};
