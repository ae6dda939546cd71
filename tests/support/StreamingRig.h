// A started driver on the model USB driver, for tests of the emulated DMA
// channels and the period transfer:
//
//   streamtest::StreamingRig rig;                  // default 8-in/8-out profile
//   MMEWaveStream* s = rig.openStream(true, 2, 24); // NewStream, as the port does
//   MMEDMAEmulator* dma = rig.channel(true);
//   ...
//   rig.closeStream(s);                             // the port lets go
//
// The model's period clock is not run unless a test does so; nothing calls
// the channels behind a test's back. The destructor closes any stream still
// open and removes the device, so a test ends with a clean host kernel.
#pragma once

#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWave.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/portcls/HostPortCls.h"
#include "usbsim/UsbDriverModel.h"

#include <memory>
#include <vector>

namespace streamtest {

// A KSDATAFORMAT followed by a plain WAVEFORMATEX PCM format.
struct PcmFormat {
    KSDATAFORMAT_WAVEFORMATEX format;
    PcmFormat(ULONG channels, ULONG bits, ULONG rate);
    PKSDATAFORMAT get() { return &format.DataFormat; }
};

class StreamingRig {
public:
    explicit StreamingRig(usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault());
    ~StreamingRig();
    StreamingRig(const StreamingRig&) = delete;
    StreamingRig& operator=(const StreamingRig&) = delete;

    bool started() const { return mWave != nullptr; }
    usbsim::UsbDriverModel& model() { return *mModel; }
    MMEAdapter* adapter() const { return mWave ? mWave->adapter() : nullptr; }
    MMEWave* wave() const { return mWave; }
    MMEDMAEmulator* channel(bool capture) const;

    // NewStream through the wave miniport; null when it refuses. The rig
    // holds the references the port would (stream, DMA channel, group).
    MMEWaveStream* openStream(bool capture, ULONG channels, ULONG bits, ULONG rate = 48000);
    // Releases what openStream holds: the stream tears itself down.
    void closeStream(MMEWaveStream* stream);

    // The configuration the channels size their scratch buffers from.
    void setAttachChannels(ULONG inCH, ULONG outCH);

private:
    struct Open {
        MMEWaveStream* stream;
        PDMACHANNEL dma;
        PSERVICEGROUP group;
    };

    std::unique_ptr<usbsim::UsbDriverModel> mModel;
    std::unique_ptr<hostpc::DriverLoader> mLoader;
    MMEWave* mWave = nullptr;
    std::vector<Open> mOpen;
};

} // namespace streamtest
