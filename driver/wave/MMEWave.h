// MMEWave: the wave miniport (IMiniportWaveCyclic). Describes the wave
// filter from the device's capabilities, opens at most one capture and one
// render stream, validates and negotiates formats, carries stream formats to
// the hardware through the adapter and wakes the port after each period.
#pragma once

#include "../adapter/MMEAdapter.h"
#include "PtGenericDescriptor.h"

class MMEWaveStream;

constexpr ULONG MME_MAX_FORMAT_SIZE = 4096;
constexpr ULONG MME_MIN_FORMAT_SIZE = sizeof(KSDATAFORMAT_WAVEFORMATEX); // 82

class MMEWave : public IMiniportWaveCyclic, public MMEUnknown {
public:
    MMEWave();
    ~MMEWave() override;

    // IMiniportWaveCyclic, slots 0 to 6
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* Object) override;
    MME_IMPLEMENT_REFCOUNT
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor) override;
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG PinId, PKSDATARANGE ClientDataRange, PKSDATARANGE MyDataRange,
                          ULONG OutputBufferLength, PVOID ResultantFormat,
                          PULONG ResultantFormatLength) override;
    STDMETHODIMP_(NTSTATUS)
    Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTWAVECYCLIC Port_) override;
    STDMETHODIMP_(NTSTATUS)
    NewStream(PMINIPORTWAVECYCLICSTREAM* Stream, PUNKNOWN OuterUnknown, POOL_TYPE PoolType,
              ULONG Pin, BOOLEAN Capture, PKSDATAFORMAT DataFormat, PDMACHANNEL* DmaChannel,
              PSERVICEGROUP* ServiceGroup) override;

    // ---- Descriptor and pin data ranges ----
    void createDescriptor();
    void fillDescriptor(ULONG uSampleRate, UCHAR nMinChannels, UCHAR nMaxChannels, UCHAR nMinBits,
                        UCHAR nMaxBits);
    PKSPIN_DESCRIPTOR getPinDescriptor(ULONG PinId) const;
    PKSPIN_DESCRIPTOR getStreamPinDescriptor(bool bCapture) const;

    // ---- Format validation ----
    // FormatBufferSize is the number of readable bytes at Format; a buffer
    // shorter than a KSDATAFORMAT_WAVEFORMATEX is refused without reading it.
    NTSTATUS doValidateFormat(const KSDATAFORMAT* Format, ULONG FormatBufferSize, bool bCapture,
                              KSDATARANGE_AUDIO* ResultRange);

    // ---- Stream bookkeeping (called by MMEWaveStream and the adapter) ----
    NTSTATUS onSetFormat(MMEWaveStream* stream, const WAVEFORMATEX* waveFormat,
                         const KSDATARANGE_AUDIO* pResultRange, bool bApply);
    void onFinalRelease(MMEWaveStream* stream);
    void onStreamRunning(MMEWaveStream* stream, bool running);
    void notifyPort();

    MMEAdapter* adapter() const { return mMMEAdapter; }
    MMEWaveStream* captureStream() const { return mpStreamCapture; }
    MMEWaveStream* renderStream() const { return mpStreamRender; }
    PtGenericDescriptor* descriptor() const { return mpDescriptor; }
    ULONG sampleRate() const { return mSampleRate; }
    void setSampleRate(ULONG rate) { mSampleRate = rate; }

    // The stream lock guards the two stream pointers, the slot reservations
    // and the streams' mbSetFormatCalled marks. Raises to dispatch level;
    // hold it only around plain reads and writes.
    KIRQL acquireStreamLock();
    void releaseStreamLock(KIRQL oldIrql);
    // Which streams are open at this moment, read under the lock.
    void openStreams(bool* captureOpen, bool* renderOpen);
    // The stream of the other direction, or null. Caller holds the lock.
    MMEWaveStream* otherStreamLocked(const MMEWaveStream* stream) const;

    // The format-change gate: the streams hold it around every operation
    // that reads or writes the adapter's wanted configuration (Init's
    // format, SetFormat, SetState, SetNotificationFreq), so the two
    // streams never do so at once. Reentrant for the thread holding it.
    // Passive level only: waiting sleeps.
    void enterFormatChange();
    void leaveFormatChange();

private:
    MMEAdapter* mMMEAdapter;
    PPORTWAVECYCLIC mpPort;
    PSERVICEGROUP mpServiceGroup;
    MMEWaveStream* mpStreamCapture;
    MMEWaveStream* mpStreamRender;
    volatile ULONG mSampleRate;
    PtGenericDescriptor* mpDescriptor;
    // Keeps the two stream pointers consistent when NewStream and a final
    // release overlap; held only around pointer reads and writes.
    KSPIN_LOCK mStreamLock;
    // A NewStream in progress holds its direction's slot from the check for
    // a second stream until its stream is stored or has failed.
    bool mbCaptureReserved;
    bool mbRenderReserved;
    // Serialises the two streams' format changes: each reads the adapter's
    // wanted configuration, changes its own direction and writes it back
    // (asking the USB driver), so two at once would lose one direction's
    // change. The owner and depth make the gate reentrant.
    volatile LONG mFormatChangeBusy;
    PKTHREAD mFormatChangeOwner;
    ULONG mFormatChangeDepth;
    NTSTATUS applyFormatChange(MMEWaveStream* stream, const WAVEFORMATEX* waveFormat,
                               const KSDATARANGE_AUDIO* pResultRange, bool bApply,
                               const FunctionTrace& ft);
};

// Range matching of one format against a streaming pin's ranges.
bool pinSupportsSetting(const KSPIN_DESCRIPTOR* pPin, const WAVEFORMATEX* pFormat,
                        bool bAcceptLowerChannels, KSDATARANGE_AUDIO* pResultRange);
bool addModeToDescriptor(KSPIN_DESCRIPTOR* pPin, ULONG channels, ULONG rate);
bool addModeToDescriptor_real(KSPIN_DESCRIPTOR* pPin, ULONG channels, ULONG rate, ULONG bits);
ULONG sampleRateFromIndex(ULONG index);
