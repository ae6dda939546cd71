// MMEAdapter: one per device instance. Owns the link to the USB driver (the
// one reusable request, the call guard and the link record), the two
// emulated DMA channels and the attach timer; installs the "Topology" and
// "Wave" subdevices; follows attach state and hardware configuration.
// Lives as long as its two miniports hold their references.
#pragma once

#include "../common/MMEAdapterInfo.h"
#include "../common/MMEUnknown.h"
#include "../common/Trace.h"

class MMEDMAEmulator;
class MMEWave;
class MMETopology;

// {D7C1562E-8F69-449B-9144-1B8B8F0E32C8}
DEFINE_GUID(IID_IMMEAdapter, 0xD7C1562E, 0x8F69, 0x449B, 0x91, 0x44, 0x1B, 0x8B, 0x8F, 0x0E, 0x32,
            0xC8);

// The adapter's own interface: only the three component operations. It is
// the UnknownAdapter handed to the port-class library.
struct IMMEAdapter : IUnknown {};

struct ITimerCallback {
    virtual void onTimer(ULONG iTimerID) = 0;
};

constexpr ULONG ATTACH_TIMER_ID = 3;
constexpr ULONG MME_ATTACH_DELAY_MS = 1000;
constexpr ULONG MME_PERIOD_FRAMES = 256;
constexpr ULONG MME_RENDER_WRITE_OFFSET = 1700;

// One-shot kernel timer whose DPC calls its target's onTimer (dispatch level).
class MMETimer : public MMEPoolObject {
public:
    MMETimer(ITimerCallback* target, ULONG timerId);
    virtual ~MMETimer();
    // Arms once, relative; true when it was already pending (re-armed from now).
    bool set(ULONG milliseconds);
    // True when it was pending.
    bool cancel();

private:
    static void NTAPI timerRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                   PVOID SystemArgument2);

    ITimerCallback* mTarget;
    ULONG mTimerId;
    KTIMER mTimer;
    KDPC mDpc;
};

class MMEAdapter : public IMMEAdapter, public MMEUnknown, public ITimerCallback {
public:
    // New adapter holding one reference for the caller, or null.
    static MMEAdapter* create(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT UsbDeviceObject);

    MMEAdapter(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT UsbDeviceObject);
    ~MMEAdapter() override;

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* Object) override;
    MME_IMPLEMENT_REFCOUNT

    // Passive level, once; a second call returns 1 and does nothing.
    NTSTATUS start(PIRP Irp);
    NTSTATUS InstallSubdevice(ULONG kind, PIRP Irp, PWSTR Name, REFCLSID PortClassId,
                              PUNKNOWN* OutPortUnknown);

    MMEDMAEmulator* getCaptureDMAChannel() const { return mCaptureDMAEmulator; }
    MMEDMAEmulator* getRenderDMAChannel() const { return mRenderDMAEmulator; }

    // ---- USB driver call interface ----
    // True when the USB driver accepted the call. Never waits: a concurrent
    // or nested call fails at once. Passive or dispatch level.
    bool callUSBDriver(ULONG what);
    static void NTAPI notifyEntry(PVOID context, ULONG code, ULONGLONG value);
    static LONG NTAPI stcEntry(PVOID context, ULONG code, ULONG value);
    static void NTAPI exchangeDataEntry(PVOID context, MMEAdapterInfo* info);

    // ---- Notifications, attach state, timers ----
    void onNotify(ULONG code, ULONGLONG value);
    LONG USBDriverStcCallback(ULONG what, ULONG value);
    // Period callback context: no allocation, no blocking.
    void checkExchangeData(MMEAdapterInfo* pcInfo);
    void setWaveRunning(bool bWaveRunning);
    void onTimer(ULONG iTimerID) override;

    // ---- Hardware configuration ----
    bool getHWConfig(ChannelConfig* out) const;
    bool refreshAttachChannels();
    void getAttachChannels(ChannelConfig* out) const;
    ULONG getHWSampleRate() const;
    ULONG getAttachSampleRate() const;
    MMEDeviceInfo* getAPIDeviceInfo() const;
    ULONG getHWDigitalLockFrequency() const;
    bool changeConfig(const ChannelConfig* pConfig, bool bApply);
    void checkHardwareConfig();
    void checkNewConfig();
    void updateStreamParameters();

    // ---- Back pointers, set by the miniports (no reference) ----
    // The wave pointer is read in the USB driver's period context while the
    // miniport sets or clears it, hence the atomic accesses. Clearing it
    // (passive level) waits for a period callback still using the old one.
    void setWave(MMEWave* wave);
    void setTopology(MMETopology* topology) { mMMETopology = topology; }
    MMEWave* wave() const { return MMELoadAcquirePointer(&mMMEWave); }
    MMETopology* topology() const { return mMMETopology; }

    // The link record shared with the USB driver.
    MMEAdapterInfo& linkInfo() { return m_cMMEAdapterInfo; }
    const MMEAdapterInfo& linkInfo() const { return m_cMMEAdapterInfo; }
    bool isStarted() const { return mbStarted; }
    // Flags shared by the USB driver's threads, the timer DPC and the stream
    // threads: single loads and stores, no lock.
    bool isWaveRunning() const { return MMELoadAcquireOf(&mbWaveRunning) != 0; }
    bool isAttached() const { return MMELoadAcquireOf(&m_cMMEAdapterInfo.mbAttached) != 0; }
    PIRP callIrp() const { return m_pCallIrp; }
    MMETimer* attachTimer() const { return mpAttachTimer; }

private:
    void attachSequence(const char* secondLabel);
    // Call guard (mCallsInProgress): taken by an increment that yields 1.
    // Releasing it also carries out a free of the request that
    // MMENotify_PreventFurtherDriverCalls had to defer.
    void releaseCallGuard();
    // Frees m_pCallIrp if a free was requested and no call is under way;
    // otherwise leaves it to whoever releases the guard last.
    void freeCallIrpIfRequested();
    bool ringsUsable(const AudioSM* capture, const AudioSM* render);
    // The wanted configuration is written by stream threads and by the
    // attach sequence (possibly at dispatch level in the USB driver's
    // context): copies in and out of it go through mAttachChannelsLock.
    ChannelConfig attachChannels() const;
    void storeAttachChannels(const ChannelConfig& config);

    bool mbStarted;
    MMEWave* mMMEWave;
    MMETopology* mMMETopology;
    PDEVICE_OBJECT mOwnDeviceObject;
    PDEVICE_OBJECT mUSBDeviceObject;
    MMEDMAEmulator* mCaptureDMAEmulator;
    MMEDMAEmulator* mRenderDMAEmulator;
    PIRP m_pCallIrp;
    volatile LONG mCallsInProgress;
    MMETimer* mpAttachTimer;
    volatile LONG mbWaveRunning;
    MMEAdapterInfo m_cMMEAdapterInfo;

    // Set by MMENotify_PreventFurtherDriverCalls; cleared by the one who
    // frees the request while holding the call guard.
    volatile LONG mCallIrpFreeRequested;
    mutable KSPIN_LOCK mAttachChannelsLock;
    // A refused ring header has been traced; cleared once both rings are
    // usable again, so the refusal is traced once per episode.
    bool mbRingRefusalTraced;
    // Held by a period callback while it notifies through mMMEWave, and by
    // a notification while it arms or cancels mpAttachTimer: the miniport's
    // teardown and the adapter's wait for them before the object goes.
    EX_RUNDOWN_REF mWaveRundown;
    EX_RUNDOWN_REF mTimerRundown;
};
