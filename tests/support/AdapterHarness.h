// The driver loaded on the host port-class library above the model USB
// driver as the PnP manager would (DriverEntry, AddDevice, StartDevice), and
// removed when the harness goes; failed steps are left to the test. wave(),
// topology() and adapter() reach the linked driver's objects through the
// registered miniports: null without them, or when a Windows image runs.
#pragma once

#include "driver/adapter/MMEAdapter.h"
#include "driver/entry/adapter.h"
#include "driver/topology/MMETopology.h"
#include "driver/wave/MMEWave.h"
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"
#include "usbsim/UsbDriverModel.h"

#include <ostream>

namespace adaptertest {

class DriverHarness {
public:
    // Loads and adds the device; starts it too when start is set.
    explicit DriverHarness(bool start = true,
                           usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault())
        : model(std::move(profile)) {
        addStatus = loader.addDevice(model.pdo());
        if (start)
            startStatus = loader.startDevice(model.pdo());
    }
    ~DriverHarness() { remove(); }
    DriverHarness(const DriverHarness&) = delete;
    DriverHarness& operator=(const DriverHarness&) = delete;

    PDEVICE_OBJECT fdo() const { return loader.fdo(model.pdo()); }

    MMEWave* wave() const {
        PUNKNOWN m = miniport(u"Wave");
        return m ? static_cast<MMEWave*>(static_cast<IMiniportWaveCyclic*>(m)) : nullptr;
    }
    MMETopology* topology() const {
        PUNKNOWN m = miniport(u"Topology");
        return m ? static_cast<MMETopology*>(static_cast<IMiniportTopology*>(m)) : nullptr;
    }
    MMEAdapter* adapter() const {
        if (MMEWave* w = wave())
            return w->adapter();
        if (MMETopology* t = topology())
            return t->adapter();
        return nullptr;
    }

    void remove() { loader.removeDevice(model.pdo()); }
    PUNKNOWN miniport(const char16_t* name) const {
        if (loader.runsImage())
            return nullptr;
        PUNKNOWN port = fdo() ? hostpc::subdevice(fdo(), name) : nullptr;
        return port ? hostpc::portState(port).miniport : nullptr;
    }

    usbsim::UsbDriverModel model; // declared first: outlives the driver's device
    hostpc::DriverLoader loader;
    NTSTATUS addStatus = STATUS_UNSUCCESSFUL;
    NTSTATUS startStatus = STATUS_UNSUCCESSFUL;
};

// An adapter that was never started, on a device object of its own, with no
// USB device unless one is given.
struct BareAdapter {
    explicit BareAdapter(PDEVICE_OBJECT usb = nullptr)
        : fdo(hostk::createDeviceObject(nullptr, 2, 0)), adapter(MMEAdapter::create(fdo, usb)) {}
    ~BareAdapter() {
        if (adapter)
            adapter->Release();
        hostk::deleteDeviceObject(fdo);
    }
    BareAdapter(const BareAdapter&) = delete;
    BareAdapter& operator=(const BareAdapter&) = delete;
    PDEVICE_OBJECT fdo;
    MMEAdapter* adapter;
};

// A ChannelConfig from its six fields, in record order.
inline ChannelConfig config(ULONG fr, ULONG inCH, ULONG outCH, ULONG inRes, ULONG outRes,
                            ULONG word = 0) {
    return ChannelConfig{fr, inCH, outCH, inRes, outRes, word};
}

// For tests that inspect the linked driver's own objects.
#define SKIP_WITH_DRIVER_IMAGE()                                                                   \
    do {                                                                                           \
        if (!hostpc::driverImage().empty())                                                        \
            GTEST_SKIP() << "inspects the linked driver's objects";                                \
    } while (0)

} // namespace adaptertest

// For test failure messages: fr/inCH/outCH/inRes/outRes/config.
inline void PrintTo(const ChannelConfig& c, std::ostream* os) {
    *os << c.fr << "/" << c.inCH << "/" << c.outCH << "/" << c.inRes << "/" << c.outRes << "/"
        << c.config;
}
