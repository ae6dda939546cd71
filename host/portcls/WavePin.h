// A client pin of the host wave-cyclic port: the port's side of an open
// stream. It holds the miniport's stream, its DMA channel and its service
// group (a reference each, as NewStream hands them out), joins the group as
// a service sink, and on every service request reads GetPosition and copies
// between the client's queue and the cyclic buffer: render with CopyTo ahead
// of the position, Silence when the client is late (a glitch); capture with
// CopyFrom from its last read up to the position (an overrun when the client
// has no room). The cyclic buffer (SystemAddress, BufferSize) is taken at
// creation and after a format change the pin carried out; it wraps at
// BufferSize(). The service runs from the service group's DPC. The port's
// personality (HostPortCls.h) changes where the documentation is silent.
//
// References: the port's pin registry holds one until the pin is closed,
// the client's KsStream one, the service group one while the pin is a
// member. The pin holds one on the port until it is closed.
//
// Locks: mControl (passive, client operations and close) before mLock (a
// kernel spin lock shared with the service routine) before the DMA
// channel's own lock. The driver is called for state changes with mControl
// held and mLock free; the service routine calls only GetPosition, CopyTo,
// CopyFrom, Silence, BufferSize and SystemAddress under mLock.
#pragma once

#include "KsClient.h"
#include "PortClsInternal.h"

#include <mutex>

namespace hostpc::detail {

constexpr ULONG kPinTag = 0x6E506350; // 'PcPn'

class WavePin final : public IServiceSink {
public:
    // NewStream, SetNotificationFreq(10 ms), AddMember; the pin comes back
    // with one reference for the caller and one in the port's registry.
    // Passive level.
    static NTSTATUS create(PUNKNOWN wavePort, ULONG pinId, bool capture,
                           const std::vector<UCHAR>& format, const StreamOptions& options,
                           RenderSource* source, CaptureSink* sink, WavePin** pin);

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID* object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // The service routine: dispatch level or below, no allocation.
    STDMETHODIMP_(void) RequestService() override;

    // One KS state step (neighbouring states only), as the client asks for
    // it: refused without reaching the stream while the device takes no
    // requests, except steps down. Passive level.
    NTSTATUS setState(KSSTATE next);
    // The port's own walk to `target` (stop for a rebalance, pause for a
    // power-down); powerPause remembers a pause from RUN for portResume.
    void portWalk(KSSTATE target, bool powerPause);
    // Back in D0: a pin the power-down paused runs again.
    void portResume();
    // KSPROPERTY_CONNECTION_DATAFORMAT (set). Passive level.
    NTSTATUS setFormat(const std::vector<UCHAR>& format, ULONG blockAlign);
    KSSTATE state();
    uint64_t positionBytes();
    StreamCounters countersBytes(); // frame fields in bytes
    void setEndOfStream(bool on);
    // Walks back to STOP, leaves the group, releases the stream, its DMA
    // channel and group, and the port. byPort: the device is going away.
    void close(bool byPort);
    bool closed();
    bool removed();

    ULONG framingBytes() const { return mFraming; }
    ULONG notificationMs() const { return mIntervalMs; }
    ULONG bufferBytes() const { return mSize; }
    ULONG leadBytes() const { return mLead; }

    WavePin(PUNKNOWN port, bool capture, ULONG blockAlign);
    ~WavePin();

private:
    // One step with mControl held and mLock free.
    NTSTATUS step(KSSTATE next);
    // All of these run with mLock held.
    void takeBuffer();
    bool bufferIntact();
    void resync(ULONG position);
    void account(ULONG position);
    void idle(ULONG position);
    void passed(ULONG position);
    void fillRender();
    ULONG padSilence();
    void copyCapture(ULONG position);
    void silenceAt(ULONG offset, ULONG bytes);
    bool readPosition(ULONG* position);

    std::atomic<LONG> mReferences{0};
    PUNKNOWN mPort;                   // counted until close
    PDEVICE_OBJECT mDevice = nullptr; // the device whose handle the pin holds until close
    bool mPowerPaused = false;        // under mControl
    bool mOpenSource = false;         // the open-source port's ways (HostPortCls.h), from creation
    const bool mCapture;
    ULONG mBlockAlign; // changes only with a format, under mControl and mLock
    PMINIPORTWAVECYCLICSTREAM mStream = nullptr; // counted
    PDMACHANNEL mDma = nullptr;                  // counted
    PSERVICEGROUP mGroup = nullptr;              // counted
    bool mJoined = false;
    RenderSource* mSource = nullptr;
    CaptureSink* mSink = nullptr;
    ServiceObserver* mObserver = nullptr;
    ULONG mFraming = 0;
    ULONG mIntervalMs = 0;
    std::vector<UCHAR> mFormat; // as the port last set it, under mControl
    ULONG mLeadFrames = 0;      // asked for; 0 = about 40 ms
    ULONG mRate = 0;            // frames per second of the format
    ULONG mLead = 0;            // bytes in force

    std::mutex mControl;
    KSPIN_LOCK mLock = 0;
    // Under mLock:
    bool mClosed = false;
    bool mRemoved = false;
    KSSTATE mState = KSSTATE_STOP;
    UCHAR* mBase = nullptr;   // cyclic buffer, as SystemAddress() reported it
    ULONG mSize = 0;          // and BufferSize()
    bool mPoolBuffer = false; // a pool block, checked for being freed
    ULONG mTag = 0;
    bool mBroken = false; // the driver took it away; reported
    bool mBadPositionReported = false;
    ULONG mFrameBytes = 0; // the framing in whole frames: the most per service
    ULONG mLast = 0;       // position at the last look
    ULONG mWrite = 0;      // render: where the next client byte goes
    ULONG mPending = 0;    // render: bytes written ahead of the position
    ULONG mRead = 0;       // capture: next byte to hand to the client
    bool mEndOfStream = false;
    uint64_t mPosition = 0; // bytes moved while running since STOP
    StreamCounters mCounters;
};

} // namespace hostpc::detail
