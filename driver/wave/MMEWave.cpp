// MMEWave: the wave miniport. Holds counted references on the adapter, the
// port, the service group and each open stream; the descriptor record is
// owned and freed with its full size. The stream pointers are read and
// written under mStreamLock (see MMEWave.h).
#include "MMEWave.h"

#include "../streaming/MMEDMAEmulator.h"
#include "MMEWaveStream.h"
#include "WaveAssert.h"

namespace {

const WAVEFORMATEX* waveFormatOf(const KSDATAFORMAT* format) {
    return reinterpret_cast<const WAVEFORMATEX*>(reinterpret_cast<const UCHAR*>(format) +
                                                 sizeof(KSDATAFORMAT));
}

} // namespace

MMEWave::MMEWave() {
    FunctionTrace ft("MMEWave::MMEWave", this);
    mSampleRate = 44100;
    KeInitializeSpinLock(&mStreamLock);
}

MMEWave::~MMEWave() {
    FunctionTrace ft("DESTRUCTOR MMEWave::~MMEWave", this);
    if (mMMEAdapter) {
        mMMEAdapter->setWave(nullptr);
        mMMEAdapter->Release();
        mMMEAdapter = nullptr;
    }
    if (mpPort) {
        mpPort->Release();
        mpPort = nullptr;
    }
    if (mpServiceGroup) {
        mpServiceGroup->Release();
        mpServiceGroup = nullptr;
    }
    if (mpDescriptor) {
        MMEFree(mpDescriptor, sizeof(PtGenericDescriptor));
        mpDescriptor = nullptr;
    }
}

KIRQL MMEWave::acquireStreamLock() {
    KIRQL irql;
    KeAcquireSpinLock(&mStreamLock, &irql);
    return irql;
}

void MMEWave::releaseStreamLock(KIRQL oldIrql) {
    KeReleaseSpinLock(&mStreamLock, oldIrql);
}

void MMEWave::openStreams(bool* captureOpen, bool* renderOpen) {
    KIRQL irql = acquireStreamLock();
    *captureOpen = mpStreamCapture != nullptr;
    *renderOpen = mpStreamRender != nullptr;
    releaseStreamLock(irql);
}

void MMEWave::enterFormatChange() {
    PKTHREAD self = KeGetCurrentThread();
    if (MMELoadOnce(&mFormatChangeOwner) == self) {
        ++mFormatChangeDepth;
        return;
    }
    LARGE_INTEGER interval;
    interval.QuadPart = -10000; // 1 ms, relative
    while (InterlockedCompareExchange(&mFormatChangeBusy, 1, 0) != 0)
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    MMEStoreOnce(&mFormatChangeOwner, self);
    mFormatChangeDepth = 1;
}

void MMEWave::leaveFormatChange() {
    if (--mFormatChangeDepth != 0)
        return;
    MMEStoreOnce(&mFormatChangeOwner, (PKTHREAD) nullptr);
    InterlockedExchange(&mFormatChangeBusy, 0);
}

MMEWaveStream* MMEWave::otherStreamLocked(const MMEWaveStream* stream) const {
    if (!stream)
        return nullptr;
    return stream->isCapture() ? mpStreamRender : mpStreamCapture;
}

STDMETHODIMP_(NTSTATUS) MMEWave::QueryInterface(REFIID riid, PVOID* Object) {
    MME_REPORT_ASSERT(Object, "MMEWave");
    if (!Object)
        return STATUS_INVALID_PARAMETER;
    if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IMiniport) ||
        IsEqualGUID(riid, IID_IMiniportWaveCyclic))
        *Object = static_cast<IMiniportWaveCyclic*>(this);
    else
        *Object = nullptr;
    if (!*Object)
        return STATUS_INVALID_PARAMETER;
    static_cast<IUnknown*>(*Object)->AddRef();
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) MMEWave::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor) {
    FunctionTrace ft("MMEWave::GetDescription", this);
    MME_REPORT_ASSERT(OutFilterDescriptor, "MMEWave");
    if (!OutFilterDescriptor)
        return STATUS_INVALID_PARAMETER;

    createDescriptor();
    if (!mpDescriptor)
        return STATUS_INVALID_DEVICE_STATE;
    *OutFilterDescriptor = &mpDescriptor->Filter;

    if (mpDescriptor->FilledRatesCount == 0) {
        DbgPrint("No Inputs or Outputs for system sound found.\n");
        fillDescriptor(44100, 2, 2, 16, 16);
    }
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS)
MMEWave::Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTWAVECYCLIC Port_) {
    FunctionTrace ft("MMEWave::Init", this);
    UNREFERENCED_PARAMETER(ResourceList);
    MME_REPORT_ASSERT(UnknownAdapter, "MMEWave");
    MME_REPORT_ASSERT(Port_, "MMEWave");
    if (!UnknownAdapter || !Port_)
        return STATUS_INVALID_PARAMETER;

    mpPort = Port_;
    mpPort->AddRef();

    IMMEAdapter* adapterInterface = nullptr;
    NTSTATUS status = UnknownAdapter->QueryInterface(IID_IMMEAdapter,
                                                     reinterpret_cast<PVOID*>(&adapterInterface));
    if (NT_SUCCESS(status) && adapterInterface)
        mMMEAdapter = static_cast<MMEAdapter*>(adapterInterface);
    else if (NT_SUCCESS(status))
        status = STATUS_INVALID_PARAMETER;

    if (NT_SUCCESS(status))
        status = PcNewServiceGroup(&mpServiceGroup, nullptr);

    if (NT_SUCCESS(status) && mpServiceGroup) {
        mMMEAdapter->setWave(this);
        return STATUS_SUCCESS;
    }
    if (NT_SUCCESS(status))
        status = STATUS_INSUFFICIENT_RESOURCES;

    if (mMMEAdapter) {
        if (mpServiceGroup) {
            mpServiceGroup->Release();
            mpServiceGroup = nullptr;
        }
        mMMEAdapter->setWave(nullptr);
        mMMEAdapter->Release();
        mMMEAdapter = nullptr;
    }
    mpPort->Release();
    mpPort = nullptr;
    return status;
}

STDMETHODIMP_(NTSTATUS)
MMEWave::NewStream(PMINIPORTWAVECYCLICSTREAM* Stream, PUNKNOWN OuterUnknown, POOL_TYPE PoolType,
                   ULONG Pin, BOOLEAN Capture, PKSDATAFORMAT DataFormat, PDMACHANNEL* DmaChannel,
                   PSERVICEGROUP* ServiceGroup) {
    FunctionTrace ft("MMEWave::NewStream", this);
    UNREFERENCED_PARAMETER(OuterUnknown);
    UNREFERENCED_PARAMETER(PoolType);
    UNREFERENCED_PARAMETER(Pin);
    if (!Stream || !DataFormat || !DmaChannel || !ServiceGroup)
        return STATUS_INVALID_PARAMETER;
    *Stream = nullptr;
    *DmaChannel = nullptr;
    *ServiceGroup = nullptr;

    ChannelConfig hw;
    if (!mMMEAdapter || !mMMEAdapter->getHWConfig(&hw))
        return STATUS_INVALID_DEVICE_STATE;

    const bool bCapture = Capture != FALSE;
    // The port's KSDATAFORMAT says in FormatSize how many bytes it holds.
    const ULONG formatSize = DataFormat->FormatSize;
    NTSTATUS status = STATUS_SUCCESS;
    bool reserved = false;

    if (bCapture && hw.inCH == 0) {
        ft.text("MME DISABLED INPUT");
        return STATUS_NOT_SUPPORTED;
    }
    if (!bCapture && hw.outCH == 0) {
        ft.text("MME DISABLED OUTPUT");
        return STATUS_NOT_SUPPORTED;
    }
    {
        // Check and claim the direction's slot in one step, so two NewStream
        // calls cannot both pass, and a final release cannot interleave.
        KIRQL irql = acquireStreamLock();
        bool& slotReserved = bCapture ? mbCaptureReserved : mbRenderReserved;
        MMEWaveStream* existing = bCapture ? mpStreamCapture : mpStreamRender;
        if (existing || slotReserved) {
            status = STATUS_INVALID_DEVICE_REQUEST;
        } else {
            slotReserved = true;
            reserved = true;
        }
        releaseStreamLock(irql);
    }
    if (status != STATUS_SUCCESS)
        ft.text(bCapture ? "...try to allocate second capture channel"
                         : "...try to allocate second render channel");

    const ULONG lockFrequency = mMMEAdapter->getHWDigitalLockFrequency();
    if (status == STATUS_SUCCESS && lockFrequency != 0) {
        ft.num("doValidateFormat: validate digital lock frequency", (LONG)lockFrequency);
        if (formatSize < MME_MIN_FORMAT_SIZE) {
            status = STATUS_NOT_SUPPORTED;
        } else {
            const ULONG requested = waveFormatOf(DataFormat)->nSamplesPerSec;
            if (requested != lockFrequency) {
                ft.num("samplerate not allowed requested/digital", (LONG)requested,
                       (LONG)lockFrequency);
                status = STATUS_NOT_SUPPORTED;
            }
        }
    }

    if (status == STATUS_SUCCESS) {
        KSDATARANGE_AUDIO unused;
        status = doValidateFormat(DataFormat, formatSize, bCapture, &unused);
    }

    MMEDMAEmulator* dma = nullptr;
    if (status == STATUS_SUCCESS) {
        dma = bCapture ? mMMEAdapter->getCaptureDMAChannel() : mMMEAdapter->getRenderDMAChannel();
        if (!dma) {
            ft.text(" No DMA Channel");
            status = STATUS_INVALID_DEVICE_REQUEST;
        }
    }

    if (status == STATUS_SUCCESS) {
        MMEWaveStream* stream = new MMEWaveStream(dma, bCapture);
        if (!stream) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            stream->AddRef();
            status = stream->Init(this, 0, DataFormat);
            if (status == STATUS_SUCCESS) {
                KIRQL irql = acquireStreamLock();
                if (bCapture) {
                    mpStreamCapture = stream;
                    mbCaptureReserved = false;
                } else {
                    mpStreamRender = stream;
                    mbRenderReserved = false;
                }
                reserved = false;
                stream->AddRef();
                releaseStreamLock(irql);

                *Stream = stream;
                stream->AddRef();
                *DmaChannel = dma;
                dma->AddRef();
                *ServiceGroup = mpServiceGroup;
                if (mpServiceGroup)
                    mpServiceGroup->AddRef();
            }
            // Drops the local reference: a stream whose Init failed goes here.
            stream->Release();
        }
    }

    if (reserved) {
        KIRQL irql = acquireStreamLock();
        if (bCapture)
            mbCaptureReserved = false;
        else
            mbRenderReserved = false;
        releaseStreamLock(irql);
    }

    ft.hex("[exit MMEWave::NewStream] ", (ULONG)status);
    return status;
}

NTSTATUS MMEWave::onSetFormat(MMEWaveStream* stream, const WAVEFORMATEX* waveFormat,
                              const KSDATARANGE_AUDIO* pResultRange, bool bApply) {
    FunctionTrace ft("MMEWave::onSetFormat", this);
    if (!pResultRange) {
        ft.text("pResultRange is NULL");
        return STATUS_INVALID_PARAMETER;
    }
    if (!stream || !mMMEAdapter || !waveFormat)
        return STATUS_INVALID_DEVICE_STATE;

    enterFormatChange();
    NTSTATUS status = applyFormatChange(stream, waveFormat, pResultRange, bApply, ft);
    leaveFormatChange();
    return status;
}

// Body of onSetFormat, inside the format-change gate.
NTSTATUS MMEWave::applyFormatChange(MMEWaveStream* stream, const WAVEFORMATEX* waveFormat,
                                    const KSDATARANGE_AUDIO* pResultRange, bool bApply,
                                    const FunctionTrace& ft) {
    if (!mMMEAdapter->refreshAttachChannels())
        return STATUS_INVALID_DEVICE_STATE;
    ChannelConfig request;
    mMMEAdapter->getAttachChannels(&request);

    const ULONG rate = waveFormat->nSamplesPerSec;
    bool captureOpen;
    bool renderOpen;
    openStreams(&captureOpen, &renderOpen);
    const bool callerIsCapture = stream->isCapture();

    if (captureOpen || renderOpen) {
        ft.text("check current state");
        if (request.fr != rate) {
            // One sample rate for both directions: only a stream without an
            // open partner may move it.
            if (captureOpen && !callerIsCapture) {
                ft.text("ERROR: RenderStream want to change the format while mpStreamCapture is "
                        "open ?");
                return STATUS_INVALID_PARAMETER;
            }
            if (renderOpen && callerIsCapture) {
                ft.text("ERROR: Capture Stream want to change the format while mpStreamRender is "
                        "open ?");
                return STATUS_INVALID_PARAMETER;
            }
        }
        ft.text("format change seems to be allowed");
    }

    request.fr = rate;
    if (pResultRange->MaximumChannels < waveFormat->nChannels) {
        ft.text("ERROR pResultRange->MaximumChannels < waveFormat->nChannels");
        return STATUS_INVALID_PARAMETER;
    }
    if (callerIsCapture)
        request.inCH = pResultRange->MaximumChannels;
    else
        request.outCH = pResultRange->MaximumChannels;

    NTSTATUS status;
    if (mMMEAdapter->changeConfig(&request, bApply)) {
        ft.text("mMMEAdapter->changeConfig success");
        status = STATUS_SUCCESS;
    } else {
        ft.text("mMMEAdapter->changeConfig failed");
        status = STATUS_INVALID_DEVICE_STATE;
    }
    ft.num(" SamplingFrequency is now ", (LONG)mMMEAdapter->getHWSampleRate());
    return status;
}

void MMEWave::onFinalRelease(MMEWaveStream* stream) {
    FunctionTrace ft("MMEWave::onFinalRelease", this);
    if (!stream)
        return;
    bool found = false;
    bool capture = false;
    {
        KIRQL irql = acquireStreamLock();
        if (stream == mpStreamCapture) {
            mpStreamCapture = nullptr;
            found = true;
            capture = true;
        } else if (stream == mpStreamRender) {
            mpStreamRender = nullptr;
            found = true;
        }
        releaseStreamLock(irql);
    }
    if (!found)
        return;
    ft.text(capture ? "capture stream" : "render stream");
    // The pointer is cleared first: this drops the last reference.
    stream->Release();
}

void MMEWave::onStreamRunning(MMEWaveStream* stream, bool running) {
    bool anyRunning = false;
    {
        KIRQL irql = acquireStreamLock();
        if (stream && stream == mpStreamCapture)
            mpStreamCapture->setRunning(running);
        else if (stream && stream == mpStreamRender)
            mpStreamRender->setRunning(running);
        if (mpStreamCapture && mpStreamCapture->isRunning())
            anyRunning = true;
        if (mpStreamRender && mpStreamRender->isRunning())
            anyRunning = true;
        releaseStreamLock(irql);
    }
    if (mMMEAdapter)
        mMMEAdapter->setWaveRunning(anyRunning);
}

void MMEWave::notifyPort() {
    if (mpPort && mpServiceGroup)
        mpPort->Notify(mpServiceGroup);
}
