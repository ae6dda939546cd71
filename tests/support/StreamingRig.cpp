// A started driver on the model USB driver (see StreamingRig.h).
#include "support/StreamingRig.h"

#include <algorithm>
#include <cstring>

namespace streamtest {

PcmFormat::PcmFormat(ULONG channels, ULONG bits, ULONG rate) {
    std::memset(&format, 0, sizeof format);
    format.DataFormat.FormatSize = sizeof(KSDATAFORMAT_WAVEFORMATEX);
    format.DataFormat.SampleSize = channels * (bits / 8);
    format.DataFormat.MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    format.DataFormat.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    format.DataFormat.Specifier = KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;
    WAVEFORMATEX& w = format.WaveFormatEx;
    w.wFormatTag = WAVE_FORMAT_PCM;
    w.nChannels = WORD(channels);
    w.nSamplesPerSec = rate;
    w.wBitsPerSample = WORD(bits);
    w.nBlockAlign = WORD(channels * (bits / 8));
    w.nAvgBytesPerSec = rate * w.nBlockAlign;
    w.cbSize = 0;
}

StreamingRig::StreamingRig(usbsim::DeviceProfile profile)
    : mModel(std::make_unique<usbsim::UsbDriverModel>(std::move(profile))),
      mLoader(std::make_unique<hostpc::DriverLoader>()) {
    if (mLoader->addDevice(mModel->pdo()) != STATUS_SUCCESS)
        return;
    if (mLoader->startDevice(mModel->pdo()) != STATUS_SUCCESS)
        return;
    PUNKNOWN port = hostpc::subdevice(mLoader->fdo(mModel->pdo()), u"Wave");
    if (!port)
        return;
    PUNKNOWN miniport = hostpc::portState(port).miniport;
    if (!miniport)
        return;
    mWave = static_cast<MMEWave*>(static_cast<IMiniportWaveCyclic*>(miniport));
}

StreamingRig::~StreamingRig() {
    while (!mOpen.empty())
        closeStream(mOpen.back().stream);
    mWave = nullptr;
    mLoader.reset(); // removes the device
    mModel.reset();
}

MMEDMAEmulator* StreamingRig::channel(bool capture) const {
    MMEAdapter* a = adapter();
    if (!a)
        return nullptr;
    return capture ? a->getCaptureDMAChannel() : a->getRenderDMAChannel();
}

MMEWaveStream* StreamingRig::openStream(bool capture, ULONG channels, ULONG bits, ULONG rate) {
    if (!mWave)
        return nullptr;
    PcmFormat format(channels, bits, rate);
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL dma = nullptr;
    PSERVICEGROUP group = nullptr;
    NTSTATUS status = mWave->NewStream(&stream, nullptr, NonPagedPool,
                                       capture ? WAVE_PIN_CAPTURE : WAVE_PIN_RENDER,
                                       capture ? TRUE : FALSE, format.get(), &dma, &group);
    if (status != STATUS_SUCCESS || !stream)
        return nullptr;
    auto* s = static_cast<MMEWaveStream*>(stream);
    mOpen.push_back({s, dma, group});
    return s;
}

void StreamingRig::closeStream(MMEWaveStream* stream) {
    auto it =
        std::find_if(mOpen.begin(), mOpen.end(), [&](const Open& o) { return o.stream == stream; });
    if (it == mOpen.end())
        return;
    Open open = *it;
    mOpen.erase(it);
    if (open.group)
        open.group->Release();
    if (open.dma)
        open.dma->Release();
    open.stream->Release();
}

void StreamingRig::setAttachChannels(ULONG inCH, ULONG outCH) {
    if (MMEAdapter* a = adapter()) {
        a->linkInfo().mcAttachChannels.inCH = inCH;
        a->linkInfo().mcAttachChannels.outCH = outCH;
    }
}

} // namespace streamtest
