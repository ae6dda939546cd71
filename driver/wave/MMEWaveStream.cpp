// MMEWaveStream: one open capture or render stream of the wave filter.
// Created by MMEWave::NewStream with two references (the miniport's and the
// port's); holds one reference on its DMA channel and, from Init to its
// teardown, one on its miniport. When the port lets go (only the miniport's
// reference left), it tears itself down and the miniport drops the last one.
#include "MMEWaveStream.h"

#include "../streaming/MMEDMAEmulator.h"
#include "WaveAssert.h"

namespace {

const WAVEFORMATEX* waveFormatOf(const KSDATAFORMAT* format) {
    return reinterpret_cast<const WAVEFORMATEX*>(reinterpret_cast<const UCHAR*>(format) +
                                                 sizeof(KSDATAFORMAT));
}

// (q * position) / rate with q * position formed without 64-bit overflow:
// position = a * rate + b gives q * a + (q * b) / rate, truncated toward zero.
LONGLONG scalePosition(LONGLONG position, ULONG q, ULONG rate) {
    bool negative = position < 0;
    ULONGLONG magnitude = negative ? (ULONGLONG)0 - (ULONGLONG)position : (ULONGLONG)position;
    ULONGLONG a = magnitude / rate;
    ULONGLONG b = magnitude % rate;
    ULONGLONG result = a * q + (b * q) / rate;
    return negative ? -(LONGLONG)result : (LONGLONG)result;
}

// Holds the miniport's format-change gate for a scope (none without a
// miniport), so the two streams never touch the adapter's wanted
// configuration at once.
class FormatChangeGate {
public:
    explicit FormatChangeGate(MMEWave* wave) : mWave(wave) {
        if (mWave)
            mWave->enterFormatChange();
    }
    ~FormatChangeGate() {
        if (mWave)
            mWave->leaveFormatChange();
    }
    FormatChangeGate(const FormatChangeGate&) = delete;
    FormatChangeGate& operator=(const FormatChangeGate&) = delete;

private:
    MMEWave* mWave;
};

} // namespace

MMEWaveStream::MMEWaveStream(MMEDMAEmulator* pDMAChannel, bool bCapture) {
    FunctionTrace ft("MMEWaveStream::MMEWaveStream(MMEDMAEmulator* pDMAChannel,bool bCapture)",
                     this);
    m_uSampleSize = 4;
    mNotificationInterval = 10;
    mbRunning = false;
    mbSetFormatCalled = false;
    mState = KSSTATE_STOP;
    mpDMAChannel = pDMAChannel;
    if (mpDMAChannel)
        mpDMAChannel->AddRef();
    mbCapture = bCapture;
}

MMEWaveStream::~MMEWaveStream() {
    FunctionTrace ft("DESTRUCTOR MMEWaveStream::~MMEWaveStream", this);
    teardown();
}

STDMETHODIMP_(NTSTATUS) MMEWaveStream::QueryInterface(REFIID riid, PVOID* Object) {
    MME_REPORT_ASSERT(Object, "MMEWaveStream");
    if (!Object)
        return STATUS_INVALID_PARAMETER;
    if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IMiniportWaveCyclicStream))
        *Object = static_cast<IMiniportWaveCyclicStream*>(this);
    else
        *Object = nullptr;
    if (!*Object)
        return STATUS_INVALID_PARAMETER;
    static_cast<IUnknown*>(*Object)->AddRef();
    return STATUS_SUCCESS;
}

STDMETHODIMP_(ULONG) MMEWaveStream::Release() {
    ULONG n = MMEUnknown::Release();
    if (n == 1) {
        // Only the miniport's bookkeeping reference is left: the port has let
        // go. The miniport is kept alive across onFinalRelease, inside which
        // this object is destroyed.
        FunctionTrace ft("MMEWaveStream::Release", this);
        ft.text("NEED TO NOTIFY WAVE STREAM");
        MMEWave* wave = mpMMEWave;
        if (wave)
            wave->AddRef();
        teardown();
        if (wave) {
            wave->onFinalRelease(this);
            wave->Release();
        }
    }
    return n;
}

bool MMEWaveStream::getAdapterSettings(ChannelConfig* out) const {
    if (!out)
        return false;
    MMEWave* wave = mpMMEWave;
    if (!wave)
        return false;
    MMEAdapter* adapter = wave->adapter();
    if (!adapter)
        return false;
    adapter->getAttachChannels(out);
    return true;
}

NTSTATUS MMEWaveStream::Init(MMEWave* pMMEWave, ULONG firstRingChannel, PKSDATAFORMAT DataFormat) {
    FunctionTrace ft("MMEWaveStream::Init", this);
    MME_REPORT_ASSERT(pMMEWave, "MMEWaveStream");
    MME_REPORT_ASSERT(DataFormat, "MMEWaveStream");
    if (!DataFormat || DataFormat->FormatSize > MME_MAX_FORMAT_SIZE || !pMMEWave)
        return STATUS_INVALID_PARAMETER;

    KSDATARANGE_AUDIO matched;
    NTSTATUS status =
        pMMEWave->doValidateFormat(DataFormat, DataFormat->FormatSize, mbCapture, &matched);
    if (status != STATUS_SUCCESS) {
        ft.hex("MMEWaveStream::Init stValidateFormat is ", (ULONG)status);
        return status;
    }
    if (!mpDMAChannel) {
        ft.text("MMEWaveStream::Init no DMAChannel");
        return STATUS_INVALID_DEVICE_STATE;
    }

    mpMMEWave = pMMEWave;
    mpMMEWave->AddRef();
    mFirstRingChannel = firstRingChannel;
    mState = KSSTATE_STOP;
    mpDMAChannel->clearBuffer();
    mbSetFormatCalled = false;
    RtlCopyMemory(mDataFormat, DataFormat, DataFormat->FormatSize);

    // The hardware is asked for the format only when the stream first runs.
    FormatChangeGate gate(mpMMEWave);
    setFormatInternal(DataFormat, false);
    return STATUS_SUCCESS;
}

NTSTATUS MMEWaveStream::setFormatInternal(PKSDATAFORMAT Format, bool bApply) {
    FunctionTrace ft("MMEWaveStream::SetFormat", this);
    MME_REPORT_ASSERT(Format, "MMEWaveStream");
    if (!Format)
        return STATUS_INVALID_PARAMETER;
    ft.num("Format->SampleSize", (LONG)Format->SampleSize);

    NTSTATUS status = STATUS_SUCCESS;
    if (mState == KSSTATE_RUN) {
        status = STATUS_INVALID_DEVICE_REQUEST;
        ft.hex("return ntStatus", (ULONG)status);
        return status;
    }
    // mDataFormat holds at most MME_MAX_FORMAT_SIZE bytes: refused as Init does.
    if (Format->FormatSize > MME_MAX_FORMAT_SIZE) {
        status = STATUS_INVALID_PARAMETER;
        ft.hex("return ntStatus", (ULONG)status);
        return status;
    }

    MMEWave* wave = mpMMEWave;
    KSDATARANGE_AUDIO matched;
    RtlZeroMemory(&matched, sizeof(matched));
    status = wave ? wave->doValidateFormat(Format, Format->FormatSize, mbCapture, &matched)
                  : STATUS_INVALID_DEVICE_STATE;

    // A format too short to hold its WAVEFORMATEX has been refused without
    // being read; nothing past its header is read here either.
    if (Format->FormatSize >= MME_MIN_FORMAT_SIZE) {
        const WAVEFORMATEX* wfx = waveFormatOf(Format);
        const ULONG channels = wfx->nChannels;
        const ULONG bits = wfx->wBitsPerSample;
        ft.num("waveFormat freq/ch/bits/align", (LONG)wfx->nSamplesPerSec, (LONG)channels,
               (LONG)bits, (LONG)wfx->nBlockAlign);

        if (status == STATUS_SUCCESS) {
            // KS allows 0 for "variable": the frame is then what the wave
            // format says, so that framing and time never divide by zero.
            m_uSampleSize = Format->SampleSize ? Format->SampleSize : wfx->nBlockAlign;
            status = wave->onSetFormat(this, wfx, &matched, bApply);
        }

        // The DMA channel always ends up shaped for the format the port
        // asked for, accepted or not. A start carrying the stream's own
        // format is not the port's request: the port keeps the buffer it
        // took after its last format change, which a refused format may
        // have shaped for other frames, and must not find it freed.
        const bool carried = Format == reinterpret_cast<PKSDATAFORMAT>(mDataFormat);
        if (mpDMAChannel) {
            if (status == STATUS_SUCCESS) {
                mpDMAChannel->setStreamFormat(this, channels, bits, mFirstRingChannel, carried);
            } else if (mpDMAChannel->wdmChannels() != channels || mpDMAChannel->wdmBits() != bits) {
                TraceLine("DMA init on failure ch/bits", (LONG)channels, (LONG)bits);
                mpDMAChannel->setStreamFormat(this, channels, bits, mFirstRingChannel, carried);
            }
        }
    }

    ft.hex("return ntStatus", (ULONG)status);
    if (status == STATUS_SUCCESS && Format != reinterpret_cast<PKSDATAFORMAT>(mDataFormat))
        RtlCopyMemory(mDataFormat, Format, Format->FormatSize);
    return status;
}

STDMETHODIMP_(NTSTATUS) MMEWaveStream::SetFormat(PKSDATAFORMAT DataFormat) {
    FormatChangeGate gate(mpMMEWave);
    return setFormatInternal(DataFormat, true);
}

STDMETHODIMP_(ULONG) MMEWaveStream::SetNotificationFreq(ULONG Interval, PULONG FramingSize) {
    FunctionTrace ft("MMEWaveStream::SetNotificationFreq", this);
    ULONG framing = FramingSize ? *FramingSize : 0;
    ft.num("Interval is", (LONG)Interval, (LONG)framing);
    DbgPrint("MMEWaveStream::SetNotificationFreq interval:%d framingsize:%d m_uSampleSize:%d\n",
             (int)Interval, (int)framing, (int)m_uSampleSize);

    ULONG frequency = 0;
    MMEWave* wave = mpMMEWave;
    if (wave && wave->adapter()) {
        FormatChangeGate gate(wave);
        frequency = wave->adapter()->getAttachSampleRate();
    }
    if (frequency == 0)
        frequency = 44100;

    // Always one notification per 256-frame period, whatever was asked.
    framing = MME_PERIOD_FRAMES * m_uSampleSize;
    ULONG interval = (MME_PERIOD_FRAMES * 1000) / frequency;
    // Rates above 256 kHz would truncate to 0 ms, which no port can honour.
    if (interval == 0)
        interval = 1;
    mNotificationInterval = interval;
    if (FramingSize)
        *FramingSize = framing;

    ft.num("FramingSize/Interval(ms)", (LONG)framing, (LONG)mNotificationInterval);
    DbgPrint("...iFrequency:%d mNotificationInterval:%d framingsize:%d\n", (int)frequency,
             (int)mNotificationInterval, (int)framing);
    return mNotificationInterval;
}

STDMETHODIMP_(NTSTATUS) MMEWaveStream::SetState(KSSTATE NewState) {
    FunctionTrace ft("MMEWaveStream::SetState", this);
    ft.num("NewState is ", (LONG)NewState);
    NTSTATUS status = STATUS_SUCCESS;
    MMEWave* wave = mpMMEWave;
    FormatChangeGate gate(wave);

    if (NewState != mState) {
        switch (NewState) {
        case KSSTATE_STOP:
            ft.text("WAVE STOP");
            if (wave)
                wave->onStreamRunning(this, false);
            break;
        case KSSTATE_ACQUIRE:
        case KSSTATE_PAUSE:
            if (wave)
                wave->onStreamRunning(this, false);
            if (mState == KSSTATE_RUN && mpDMAChannel)
                mpDMAChannel->Stop();
            break;
        case KSSTATE_RUN: {
            // Marking and claiming happen under the miniport's stream lock,
            // so a concurrent start of the other stream cannot lose a mark.
            // The claim is taken before the format is carried and dropped
            // again when carrying fails.
            int other = 0; // 0 none, 1 stopped and marked, 2 not stopped
            bool carry = false;
            if (wave) {
                KIRQL irql = wave->acquireStreamLock();
                MMEWaveStream* otherStream = wave->otherStreamLocked(this);
                if (otherStream) {
                    if (otherStream->mState == KSSTATE_STOP) {
                        otherStream->mbSetFormatCalled = false;
                        other = 1;
                    } else {
                        other = 2;
                    }
                }
                carry = !mbSetFormatCalled;
                mbSetFormatCalled = true;
                wave->releaseStreamLock(irql);
            } else {
                carry = !mbSetFormatCalled;
            }
            if (other == 1)
                DbgPrint("START STREAM : other stream is not running -> allow change but mark "
                         "other for reconfig\n");
            else if (other == 2)
                DbgPrint("START STREAM : check other stream frequency\n");

            ft.text("WAVE START");
            if (carry) {
                DbgPrint("!mbSetFormatCalled\n");
                status = SetFormat(reinterpret_cast<PKSDATAFORMAT>(mDataFormat));
                DbgPrint("SetFormat returned %08X\n", (unsigned)status);
            }
            if (status == STATUS_SUCCESS) {
                if (wave)
                    wave->onStreamRunning(this, true);
            } else if (wave) {
                KIRQL irql = wave->acquireStreamLock();
                mbSetFormatCalled = false;
                wave->releaseStreamLock(irql);
            } else {
                mbSetFormatCalled = false;
            }
            break;
        }
        default:
            status = STATUS_INVALID_PARAMETER;
            break;
        }
        if (status == STATUS_SUCCESS) {
            // The other stream reads this state under the stream lock.
            if (wave) {
                KIRQL irql = wave->acquireStreamLock();
                mState = NewState;
                wave->releaseStreamLock(irql);
            } else {
                mState = NewState;
            }
        }
    }

    ft.hex("return ntStatus", (ULONG)status);
    return status;
}

STDMETHODIMP_(NTSTATUS) MMEWaveStream::GetPosition(PULONG Position) {
    if (!Position) {
        TraceLine("MMEWaveStream::GetPosition Position is NULL");
        return STATUS_INVALID_PARAMETER;
    }
    *Position = mpDMAChannel ? mpDMAChannel->position() : 0;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) MMEWaveStream::NormalizePhysicalPosition(PLONGLONG PhysicalPosition) {
    FunctionTrace ft("MMEWaveStream::NormalizePhysicalPosition", this);
    if (!PhysicalPosition)
        return STATUS_INVALID_PARAMETER;
    const ULONG rate = mpMMEWave ? mpMMEWave->sampleRate() : 0;
    if (m_uSampleSize == 0 || rate == 0) {
        // No frame size or no rate: no time can be given for the position.
        *PhysicalPosition = 0;
        ft.text("no sample size or sample rate");
        return STATUS_INVALID_DEVICE_STATE;
    }
    const ULONG q = 10000000u / m_uSampleSize;
    *PhysicalPosition = scalePosition(*PhysicalPosition, q, rate);
    ft.num("*PhysicalPosition ", (LONG)(ULONG)(*PhysicalPosition & 0xFFFFFFFF));
    return STATUS_SUCCESS;
}

STDMETHODIMP_(void) MMEWaveStream::Silence(PVOID Buffer, ULONG ByteCount) {
    if (mpDMAChannel)
        mpDMAChannel->silence(Buffer, ByteCount);
}

void MMEWaveStream::teardown() {
    MMEDMAEmulator* dma = mpDMAChannel;
    if (dma) {
        dma->setStreamFormat(nullptr, 0, 0, 0);
        dma->clearBuffer();
        mpDMAChannel = nullptr;
        dma->Release();
    }
    MMEWave* wave = mpMMEWave;
    if (wave) {
        wave->onStreamRunning(this, false);
        mpMMEWave = nullptr;
        wave->Release();
    }
}
