// The adapter's side of the USB driver's notifications, state questions and
// period exchange; the wave side's running state with the attach sequence;
// the attach timer's expiry.
#include "../streaming/MMEDMAEmulator.h"
#include "../wave/MMEWave.h"
#include "MMEAdapter.h"

namespace {

const char kAttachLabel[] = "mChannelsOnAttach: fr/inCH/inRes/outCH/outRes/config";
const char kRunningLabel[] =
    "m_cMMEAdapterInfo.mcAttachChannels: fr/inCH/inRes/outCH/outRes/config";

} // namespace

// Any context of the USB driver, up to dispatch level.
void MMEAdapter::onNotify(ULONG code, ULONGLONG value) {
    UNREFERENCED_PARAMETER(value);
    switch (code) {
    case MMENotify_OnMMEAttached:
        TraceLine("...MME Attached");
        MMEStoreReleaseOf(&m_cMMEAdapterInfo.mbAttached, (UCHAR)1);
        break;
    case MMENotify_OnMMEDetached:
        TraceLine("...MME Detached");
        MMEStoreReleaseOf(&m_cMMEAdapterInfo.mbAttached, (UCHAR)0);
        break;
    case MMENotify_PreventFurtherDriverCalls:
        TraceLine("MMENotify_PreventFurtherDriverCalls");
        InterlockedExchange(&mCallIrpFreeRequested, 1);
        freeCallIrpIfRequested();
        break;
    case MMENotify_OnAsioAttached:
        TraceLine("MMENotify_OnAsioAttached\n");
        if (mpAttachTimer)
            mpAttachTimer->cancel();
        break;
    case MMENotify_OnAsioDetached:
        TraceLine("MMENotify_OnAsioDetached");
        if (mpAttachTimer)
            mpAttachTimer->set(MME_ATTACH_DELAY_MS);
        break;
    case MMENotify_OnTimedStartCallback:
        TraceLine("MMENotify_OnTimedStartCallback");
        if (isWaveRunning() && !isAttached())
            attachSequence(kAttachLabel);
        break;
    default:
        break;
    }
}

LONG MMEAdapter::USBDriverStcCallback(ULONG what, ULONG value) {
    DbgPrint("MMEAdapter::USBDriverStcCallback what:%d value:%d\n", (LONG)what, (LONG)value);
    FunctionTrace ft("MMEAdapter::USBDriverStcCallback", this);
    ft.num("what,value", (LONG)what, (LONG)value);

    switch (what) {
    case USBStc_SampleRate:
        if (value != attachChannels().fr)
            ft.text("notify streams of samplerate change");
        return 0;
    case USBStc_IsMMEAttached:
        return isAttached() ? 1 : 0;
    case USBStc_ConfigChanged:
        checkNewConfig();
        return 0;
    default:
        return 0;
    }
}

void MMEAdapter::attachSequence(const char* secondLabel) {
    TraceLineConfig(kAttachLabel, attachChannels());
    checkHardwareConfig();
    callUSBDriver(USBCall_Attach);
    TraceLineConfig(secondLabel, attachChannels());
    updateStreamParameters();
}

// Passive level, in the stream's state-change thread.
void MMEAdapter::setWaveRunning(bool bWaveRunning) {
    FunctionTrace ft("MMEAdapter::setWaveRunning(bool bWaveRunning)", this);
    ft.num("bWaveRunning is ", bWaveRunning ? 1 : 0);

    bool previous = InterlockedExchange(&mbWaveRunning, bWaveRunning ? 1 : 0) != 0;
    bool changed = previous != bWaveRunning;
    if (!changed)
        ft.text("no change");
    if (bWaveRunning && changed)
        attachSequence(kRunningLabel);
}

// DPC of the attach timer, dispatch level.
void MMEAdapter::onTimer(ULONG iTimerID) {
    FunctionTrace ft("MMEAdapter::onTimer(unsigned long iTimerID)", iTimerID);
    if (iTimerID != ATTACH_TIMER_ID)
        return;
    ft.text("ATTACH TIMER");
    if (isWaveRunning() && !isAttached())
        callUSBDriver(USBCall_TimedStart);
}

// A ring whose header breaks the invariants is refused before anything is
// computed from it; the refusal is traced when it begins, not every period.
bool MMEAdapter::ringsUsable(const AudioSM* capture, const AudioSM* render) {
    bool captureUsable = !capture || capture->isUsable();
    bool renderUsable = render->isUsable();
    if (captureUsable && renderUsable) {
        mbRingRefusalTraced = false;
        return true;
    }
    if (!mbRingRefusalTraced) {
        mbRingRefusalTraced = true;
        if (!captureUsable)
            TraceLine("MMEAdapter::checkExchangeData capture ring refused ch/frames",
                      (LONG)capture->mChannelsPerFrame, (LONG)capture->mMaxFrames);
        if (!renderUsable)
            TraceLine("MMEAdapter::checkExchangeData render ring refused ch/frames",
                      (LONG)render->mChannelsPerFrame, (LONG)render->mMaxFrames);
    }
    return false;
}

// The USB driver's period context, up to dispatch level: allocates nothing,
// takes no lock of its own, moves at most two periods.
void MMEAdapter::checkExchangeData(MMEAdapterInfo* pcInfo) {
    if (!pcInfo) {
        TraceLine("MMEAdapter::checkExchangeData pcInfo is NULL");
        return;
    }
    AudioSM* renderRing = pcInfo->mpSharedMemory;
    if (!renderRing) {
        TraceLine("MMEAdapter::checkExchangeData pcInfo->mpSharedMemory is NULL");
        return;
    }
    MMEDMAEmulator* capture = mCaptureDMAEmulator;
    MMEDMAEmulator* render = mRenderDMAEmulator;
    if (!capture || !render) {
        TraceLine("m_pcDMAEmulator is NULL");
        return;
    }
    if (MMELoadAcquire(&renderRing->mMMEReadPos) == MME_RING_NOT_ATTACHED) {
        DbgPrint("MMEAdapter::checkExchangeData not attached yet\n");
        return;
    }

    AudioSM* captureRing = nullptr;
    if (pcInfo->mpCaptureRing)
        captureRing = reinterpret_cast<AudioSM*>(pcInfo->mpCaptureRing + MME_CAPTURE_RING_PREFIX);
    if (!ringsUsable(captureRing, renderRing))
        return;

    ULONG available = 0;
    if (captureRing)
        available = captureRing->framesAvailable(MMELoadAcquire(&renderRing->mMMEReadPos));

    ULONG passes = 2;
    while (available >= MME_PERIOD_FRAMES && passes > 0) {
        --passes;
        if (passes == 0)
            TraceLine("MMEAdapter::checkExchangeData second round");
        bool moved = capture->onInput(captureRing, renderRing, MME_PERIOD_FRAMES);
        moved = render->onOutput(renderRing, MME_PERIOD_FRAMES, MME_RENDER_WRITE_OFFSET) || moved;
        MMEWave* waveMiniport = wave();
        if (waveMiniport && moved)
            waveMiniport->notifyPort();
        available -= MME_PERIOD_FRAMES;
    }
}
