// Rigs for the wave layer (header only). LightRig: a wave miniport bound to
// an adapter that never started and to a stand-in port; the test writes the
// link record and no stream can open. StackRig: the whole driver started on
// the host port-class library and the model USB driver; streams open through
// NewStream and the rig holds what the port would until closeStream(). The
// model's period clock runs only when a test runs it.
#pragma once

#include "driver/adapter/MMEAdapter.h"
#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "host/portcls/KsClient.h"
#include "usbsim/UsbDriverModel.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace wavetest {

// The IPort slots a stand-in port never serves: the miniports under test
// do not call them.
template <class Port> class PortSlotsNotImplemented : public Port {
public:
    STDMETHODIMP_(NTSTATUS)
    Init(PDEVICE_OBJECT, PIRP, PUNKNOWN, PUNKNOWN, PRESOURCELIST) override {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS)
    GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG) override {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS)
    NewRegistryKey(PREGISTRYKEY*, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG,
                   PULONG) override {
        return STATUS_NOT_IMPLEMENTED;
    }
};

// Stand-in wave port: counts references and Notify calls.
class FakeWavePort : public PortSlotsNotImplemented<IPortWaveCyclic> {
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID riid, PVOID* object) override {
        if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IPort) ||
            IsEqualGUID(riid, IID_IPortWaveCyclic)) {
            *object = this;
            AddRef();
            return STATUS_SUCCESS;
        }
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    STDMETHODIMP_(void) Notify(PSERVICEGROUP group) override {
        ++notifies;
        lastGroup = group;
    }
    STDMETHODIMP_(NTSTATUS)
    NewSlaveDmaChannel(PDMACHANNELSLAVE*, PUNKNOWN, PRESOURCELIST, ULONG, ULONG, BOOLEAN,
                       DMA_SPEED) override {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS)
    NewMasterDmaChannel(PDMACHANNEL*, PUNKNOWN, PRESOURCELIST, ULONG, BOOLEAN, BOOLEAN, DMA_WIDTH,
                        DMA_SPEED) override {
        return STATUS_NOT_IMPLEMENTED;
    }

    std::atomic<LONG> refs{1};
    size_t notifies = 0;
    PSERVICEGROUP lastGroup = nullptr;
};

class LightRig {
public:
    // info may be null: the USB driver never described the device.
    explicit LightRig(MMEDeviceInfo* info = nullptr, bool init = true) {
        fdo = hostk::createDeviceObject(nullptr, 2, 0);
        adapter = MMEAdapter::create(fdo, nullptr);
        if (!adapter)
            throw std::runtime_error("LightRig: no adapter");
        settings.current = ChannelConfig{48000, 8, 8, 24, 24, 0};
        adapter->linkInfo().mpAPIDeviceInfo = info;
        adapter->linkInfo().mpSettings = &settings;
        wave = new MMEWave();
        wave->AddRef();
        if (init)
            initStatus = wave->Init(static_cast<IMMEAdapter*>(adapter), nullptr, &port);
    }
    ~LightRig() {
        if (wave)
            wave->Release();
        adapter->Release();
        hostk::deleteDeviceObject(fdo);
    }
    LightRig(const LightRig&) = delete;
    LightRig& operator=(const LightRig&) = delete;

    NTSTATUS describe() {
        PPCFILTER_DESCRIPTOR filter = nullptr;
        return wave->GetDescription(&filter);
    }
    KSPIN_DESCRIPTOR& pin(ULONG id) { return wave->descriptor()->Pins[id].KsPinDescriptor; }
    const KSDATARANGE_AUDIO& range(ULONG pinId, ULONG index) {
        return *reinterpret_cast<const KSDATARANGE_AUDIO*>(pin(pinId).DataRanges[index]);
    }

    PDEVICE_OBJECT fdo = nullptr;
    MMEAdapter* adapter = nullptr;
    HardwareSettings settings{};
    FakeWavePort port;
    MMEWave* wave = nullptr;
    NTSTATUS initStatus = STATUS_UNSUCCESSFUL;
};

// What NewStream handed out for one pin.
struct OpenedStream {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL dma = nullptr;
    PSERVICEGROUP group = nullptr;
    MMEWaveStream* object() const { return static_cast<MMEWaveStream*>(stream); }
};

// NewStream as the port calls it; release what it gave with closeStream().
inline OpenedStream openStream(MMEWave* wave, bool capture, std::vector<UCHAR>& format) {
    OpenedStream o;
    o.status = wave->NewStream(&o.stream, nullptr, NonPagedPool,
                               capture ? WAVE_PIN_CAPTURE : WAVE_PIN_RENDER, capture,
                               reinterpret_cast<PKSDATAFORMAT>(format.data()), &o.dma, &o.group);
    return o;
}

// Lets go of what openStream() handed out, as the port does when a pin closes.
inline void closeStream(OpenedStream& o) {
    if (o.group)
        o.group->Release();
    if (o.dma)
        o.dma->Release();
    if (o.stream)
        o.stream->Release();
    o = OpenedStream();
}

class StackRig {
public:
    explicit StackRig(usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault())
        : usb(std::move(profile)) {
        loader.addDevice(usb.pdo());
        startStatus = loader.startDevice(usb.pdo());
        PDEVICE_OBJECT fdo = loader.fdo(usb.pdo());
        wavePort = fdo ? hostpc::subdevice(fdo, u"Wave") : nullptr;
        PUNKNOWN miniport = wavePort ? hostpc::portState(wavePort).miniport : nullptr;
        IMiniportWaveCyclic* iface = nullptr;
        if (!miniport || !NT_SUCCESS(miniport->QueryInterface(IID_IMiniportWaveCyclic,
                                                              reinterpret_cast<PVOID*>(&iface))))
            throw std::runtime_error("StackRig: no wave miniport");
        wave = static_cast<MMEWave*>(iface);
        wave->Release(); // the port holds it for the rig's lifetime
        adapter = wave->adapter();
    }
    ~StackRig() {
        while (!held.empty())
            closeStream(held.back().object());
        loader.removeDevice(usb.pdo());
    }
    StackRig(const StackRig&) = delete;
    StackRig& operator=(const StackRig&) = delete;

    using Opened = OpenedStream;
    Opened open(bool capture, std::vector<UCHAR>& format) {
        return wavetest::openStream(wave, capture, format);
    }
    static void close(Opened& o) { wavetest::closeStream(o); }

    bool started() const { return wave != nullptr; }
    MMEDMAEmulator* channel(bool capture) const {
        return capture ? adapter->getCaptureDMAChannel() : adapter->getRenderDMAChannel();
    }
    // The configuration the channels size their scratch buffers from.
    void setAttachChannels(ULONG inCH, ULONG outCH) {
        adapter->linkInfo().mcAttachChannels.inCH = inCH;
        adapter->linkInfo().mcAttachChannels.outCH = outCH;
    }
    // A plain PCM stream held by the rig; null when NewStream refuses.
    MMEWaveStream* openStream(bool capture, ULONG channels, ULONG bits, ULONG rate = 48000);
    void closeStream(MMEWaveStream* stream) {
        for (auto it = held.begin(); it != held.end(); ++it)
            if (it->object() == stream) {
                Opened o = *it;
                held.erase(it);
                close(o);
                return;
            }
    }

    usbsim::UsbDriverModel usb;
    hostpc::DriverLoader loader;
    NTSTATUS startStatus = STATUS_UNSUCCESSFUL;
    PUNKNOWN wavePort = nullptr;
    MMEWave* wave = nullptr;
    MMEAdapter* adapter = nullptr;
    std::vector<Opened> held;
};

struct FormatDesc {
    ULONG rate = 48000;
    USHORT channels = 2;
    USHORT bits = 16;
    USHORT blockAlign = 0; // 0: channels x bytes per sample
    bool extensible = false;
    ULONG formatSize = 0;   // FormatSize field; 0: the natural size
    ULONG bufferSize = 0;   // bytes of the buffer; 0: max(natural size, formatSize)
    ULONG sampleSize = ~0u; // SampleSize field; ~0: blockAlign
    const GUID* major = &KSDATAFORMAT_TYPE_AUDIO;
    const GUID* specifier = &KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;
};

inline std::vector<UCHAR> makeFormat(const FormatDesc& s) {
    const ULONG natural = s.extensible ? sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE)
                                       : sizeof(KSDATAFORMAT_WAVEFORMATEX);
    const ULONG formatSize = s.formatSize ? s.formatSize : natural;
    ULONG bufferSize = s.bufferSize ? s.bufferSize : (formatSize > natural ? formatSize : natural);
    std::vector<UCHAR> buffer(bufferSize, 0);
    KSDATAFORMAT_WAVEFORMATEXTENSIBLE f;
    std::memset(&f, 0, sizeof(f));
    const USHORT align = s.blockAlign ? s.blockAlign : USHORT(s.channels * (s.bits / 8));
    f.DataFormat.FormatSize = formatSize;
    f.DataFormat.SampleSize = s.sampleSize == ~0u ? align : s.sampleSize;
    f.DataFormat.MajorFormat = *s.major;
    f.DataFormat.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    f.DataFormat.Specifier = *s.specifier;
    f.WaveFormatExt.Format.wFormatTag = s.extensible ? WAVE_FORMAT_EXTENSIBLE : WAVE_FORMAT_PCM;
    f.WaveFormatExt.Format.nChannels = s.channels;
    f.WaveFormatExt.Format.nSamplesPerSec = s.rate;
    f.WaveFormatExt.Format.nAvgBytesPerSec = s.rate * align;
    f.WaveFormatExt.Format.nBlockAlign = align;
    f.WaveFormatExt.Format.wBitsPerSample = s.bits;
    f.WaveFormatExt.Format.cbSize = s.extensible ? 22 : 0;
    f.WaveFormatExt.Samples.wValidBitsPerSample = s.bits;
    f.WaveFormatExt.dwChannelMask = (1u << s.channels) - 1;
    f.WaveFormatExt.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    std::memcpy(buffer.data(), &f, std::min<size_t>(bufferSize, natural));
    return buffer;
}

inline MMEWaveStream* StackRig::openStream(bool capture, ULONG channels, ULONG bits, ULONG rate) {
    std::vector<UCHAR> format = makeFormat({rate, USHORT(channels), USHORT(bits)});
    Opened o = open(capture, format);
    if (o.status != STATUS_SUCCESS || !o.stream) {
        close(o);
        return nullptr;
    }
    held.push_back(o);
    return o.object();
}

inline const WAVEFORMATEX* waveOf(const std::vector<UCHAR>& format) {
    return reinterpret_cast<const WAVEFORMATEX*>(format.data() + sizeof(KSDATAFORMAT));
}

} // namespace wavetest
