// MMEWaveStream: one open capture or render stream of the wave filter
// (IMiniportWaveCyclicStream). Holds its DMA channel and its miniport,
// keeps a copy of its format, runs the KS state machine with the rules
// between the two directions, and reports and normalises positions.
#pragma once

#include "MMEWave.h"

class MMEDMAEmulator;

class MMEWaveStream : public IMiniportWaveCyclicStream, public MMEUnknown {
public:
    MMEWaveStream(MMEDMAEmulator* pDMAChannel, bool bCapture);
    ~MMEWaveStream() override;

    // IMiniportWaveCyclicStream, slots 0 to 8
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* Object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return MMEUnknown::AddRef(); }
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP_(NTSTATUS) SetFormat(PKSDATAFORMAT DataFormat) override;
    STDMETHODIMP_(ULONG) SetNotificationFreq(ULONG Interval, PULONG FramingSize) override;
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE NewState) override;
    STDMETHODIMP_(NTSTATUS) GetPosition(PULONG Position) override;
    STDMETHODIMP_(NTSTATUS) NormalizePhysicalPosition(PLONGLONG PhysicalPosition) override;
    STDMETHODIMP_(void) Silence(PVOID Buffer, ULONG ByteCount) override;

    NTSTATUS Init(MMEWave* pMMEWave, ULONG firstRingChannel, PKSDATAFORMAT DataFormat);
    NTSTATUS setFormatInternal(PKSDATAFORMAT Format, bool bApply);
    bool getAdapterSettings(ChannelConfig* out) const;

    bool isCapture() const { return mbCapture; }
    KSSTATE state() const { return mState; }
    bool isRunning() const { return mbRunning; }
    void setRunning(bool running) { mbRunning = running; }
    bool setFormatCalled() const { return mbSetFormatCalled; }
    void markForReconfiguration() { mbSetFormatCalled = false; }
    ULONG sampleSize() const { return m_uSampleSize; }
    ULONG notificationInterval() const { return mNotificationInterval; }
    const KSDATAFORMAT* dataFormat() const {
        return reinterpret_cast<const KSDATAFORMAT*>(mDataFormat);
    }
    MMEDMAEmulator* dmaChannel() const { return mpDMAChannel; }
    MMEWave* wave() const { return mpMMEWave; }

private:
    void teardown();

    MMEWave* mpMMEWave;
    ULONG mFirstRingChannel;
    bool mbCapture;
    KSSTATE mState;
    MMEDMAEmulator* mpDMAChannel;
    ULONG m_uSampleSize;
    ULONG mNotificationInterval;
    bool mbRunning;
    bool mbSetFormatCalled;
    alignas(8) UCHAR mDataFormat[MME_MAX_FORMAT_SIZE];
};
