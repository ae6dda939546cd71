// The hardware configuration the adapter follows (the USB driver's settings
// record) and the one it wants (mcAttachChannels): accessors, the change
// request to the USB driver, the hardware check and the stream parameters.
// No lock: both records are plain shared memory; only the call to the USB
// driver is guarded.
#include "../wave/MMEWave.h"
#include "MMEAdapter.h"

bool MMEAdapter::getHWConfig(ChannelConfig* out) const {
    if (!out)
        return false;
    const HardwareSettings* settings = m_cMMEAdapterInfo.mpSettings;
    if (!settings) {
        RtlZeroMemory(out, sizeof(ChannelConfig));
        return false;
    }
    ChannelConfig current;
    RtlCopyMemory(&current, &settings->current, sizeof(ChannelConfig));
    *out = current;
    return true;
}

ChannelConfig MMEAdapter::attachChannels() const {
    KIRQL oldIrql;
    KeAcquireSpinLock(&mAttachChannelsLock, &oldIrql);
    ChannelConfig config = m_cMMEAdapterInfo.mcAttachChannels;
    KeReleaseSpinLock(&mAttachChannelsLock, oldIrql);
    return config;
}

void MMEAdapter::storeAttachChannels(const ChannelConfig& config) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&mAttachChannelsLock, &oldIrql);
    m_cMMEAdapterInfo.mcAttachChannels = config;
    KeReleaseSpinLock(&mAttachChannelsLock, oldIrql);
}

bool MMEAdapter::refreshAttachChannels() {
    ChannelConfig hardware;
    bool result = getHWConfig(&hardware); // zeros without settings
    storeAttachChannels(hardware);
    return result;
}

void MMEAdapter::getAttachChannels(ChannelConfig* out) const {
    if (out)
        *out = attachChannels();
}

ULONG MMEAdapter::getHWSampleRate() const {
    const HardwareSettings* settings = m_cMMEAdapterInfo.mpSettings;
    return settings ? settings->current.fr : 0;
}

ULONG MMEAdapter::getAttachSampleRate() const {
    return attachChannels().fr;
}

MMEDeviceInfo* MMEAdapter::getAPIDeviceInfo() const {
    return m_cMMEAdapterInfo.mpAPIDeviceInfo;
}

ULONG MMEAdapter::getHWDigitalLockFrequency() const {
    FunctionTrace ft("MMEAdapter::getHWDigitalLockFrequency", this);
    const HardwareSettings* settings = m_cMMEAdapterInfo.mpSettings;
    if (!settings)
        return 0;
    ULONG frequency = settings->mDigitalLockFrequency;
    if (frequency != 0) {
        ft.num("digital lock:", (LONG)frequency);
        return frequency;
    }
    ft.text("no digital input available");
    return 0;
}

namespace {

void traceConfig(const FunctionTrace& ft, const char* text, const ChannelConfig& c) {
    ft.num(text, (LONG)c.fr, (LONG)c.inCH, (LONG)c.inRes, (LONG)c.outCH, (LONG)c.outRes);
}

} // namespace

// Passive level (a stream's format change or the attach sequence). Sends
// USBCall_ChangeConfig only when bApply is set and the hardware differs;
// after that call mcAttachChannels mirrors the hardware, refused or not.
bool MMEAdapter::changeConfig(const ChannelConfig* pConfig, bool bApply) {
    FunctionTrace ft("MMEAdapter::changeConfig", this);
    if (!pConfig)
        return false;

    // Copied first: pConfig may be mcAttachChannels itself.
    ChannelConfig wanted =
        pConfig == &m_cMMEAdapterInfo.mcAttachChannels ? attachChannels() : *pConfig;
    storeAttachChannels(wanted);
    if (!bApply)
        return true;

    ChannelConfig hardware;
    if (!getHWConfig(&hardware))
        return false;

    bool result = true;
    traceConfig(ft, "PRE ATTACH sr/in/bits/out/bits ", wanted);
    traceConfig(ft, "PRE HW sr/in/bits/out/bits ", hardware);

    if (hardware != wanted) {
        if (!callUSBDriver(USBCall_ChangeConfig)) {
            ft.text("Configuration change was prevented by usb driver");
            result = false;
        }
        refreshAttachChannels();
        updateStreamParameters();
        getHWConfig(&hardware);
        traceConfig(ft, "POST ATTACH sr/in/bits/out/bits ", attachChannels());
        traceConfig(ft, "POST HW sr/in/bits/out/bits ", hardware);
    }

    ft.num("return", result ? 1 : 0);
    return result;
}

void MMEAdapter::checkHardwareConfig() {
    ChannelConfig hardware;
    if (!getHWConfig(&hardware))
        return;
    ChannelConfig wanted = attachChannels();
    if (hardware != wanted) {
        TraceLine("HARDWARE CONFIG CHANGED");
        changeConfig(&wanted, true);
    }
}

void MMEAdapter::updateStreamParameters() {
    FunctionTrace ft("MMEAdaper::updateStreamParameters", this);
    MMEWave* waveMiniport = wave();
    if (!waveMiniport) {
        ft.text("mMMEWave is NULL");
        return;
    }
    const HardwareSettings* settings = m_cMMEAdapterInfo.mpSettings;
    if (!settings) {
        ft.text("m_cMMEAdapterInfo.mpSetting is NULL");
        return;
    }
    waveMiniport->setSampleRate(settings->current.fr);
}

// The USB driver's context. Follows only the sample rate; mcAttachChannels
// is left as it is.
void MMEAdapter::checkNewConfig() {
    DbgPrint("MMEAdapter::checkNewConfig()\n");
    FunctionTrace ft("MMEAdapter::checkNewConfig()", this);
    const HardwareSettings* settings = m_cMMEAdapterInfo.mpSettings;
    if (!settings) {
        ft.text("m_cMMEAdapterInfo.mpSettings is NULL");
        return;
    }
    ULONG newRate = settings->current.fr;
    MMEWave* waveMiniport = wave();
    if (waveMiniport && waveMiniport->sampleRate() != newRate) {
        ft.num("samplerate change old/new", (LONG)waveMiniport->sampleRate(), (LONG)newRate);
        updateStreamParameters();
    }
}
