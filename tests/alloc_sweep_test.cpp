// Allocation fault sweep over a device's whole life: load, add, start, a
// capture and a render stream opened and run, the ASIO client coming and
// going (the attach timer fires), new formats, the device unplugged under
// its running streams and closed, replugged and streaming again, remove. The life runs
// once to record every pool allocation, then once per allocation with that
// one failing: every run must leave nothing behind, report no assertion or
// verifier failure, and show the failure as the driver (or the port-class
// library) reports it.
#include "driver/streaming/MMEDMAEmulator.h"
#include "driver/wave/MMEWaveStream.h"
#include "host/portcls/KsClient.h"
#include "support/AdapterHarness.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Allocation {
    std::string step;
    ULONG tag;
    size_t size;
};

// What one life did, step by step, for the checks.
struct Life {
    std::string step; // the step running now
    std::vector<Allocation> allocations;
    size_t failedIndex = 0; // 1-based index of the allocation that failed, 0 none

    NTSTATUS add = STATUS_UNSUCCESSFUL;
    NTSTATUS start = STATUS_UNSUCCESSFUL;
    bool waveRegistered = false;
    bool topologyRegistered = false;
    bool linked = false;    // the linked driver ran, not the Windows image
    bool inspected = false; // the linked driver's adapter was looked at
    bool timer = false;
    bool request = false;
    NTSTATUS open[5] = {STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL,
                        STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL};
    uint64_t frames[5] = {0, 0, 0, 0, 0}; // moved by each stream while running
    size_t registers = 0;                 // USBCall_Register seen during the start
    size_t adapterStarted = 0;            // USBCall_AdapterStarted seen during the start
    size_t startUnregisters = 0;          // USBCall_Unregister seen during the start
    size_t timedStarts = 0;
    size_t unregisters = 0;  // from the removal on
    bool oldRemoved = false; // the unplugged device went with its client's close
    NTSTATUS replugStart = STATUS_UNSUCCESSFUL;
    bool removedByRemoval = false; // gone after the removal, before the driver is unloaded
    bool parked = false;           // a device's physical device object is still parked at the end
    std::vector<std::string> trace;
    std::string problems; // checkClean() at the very end
};

enum : size_t { kCapture = 0, kRender = 1, kCapture2 = 2, kRender2 = 3, kReplugged = 4 };

// Opens a stream, runs it for a while, and notes what moved.
std::unique_ptr<hostpc::KsStream> openAndRun(hostpc::WaveFilter& filter, Life& life, size_t slot,
                                             bool capture, ULONG rate, USHORT channels,
                                             USHORT bits) {
    std::unique_ptr<hostpc::KsStream> stream;
    life.open[slot] = filter.open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                                  hostpc::pcmFormat(rate, channels, bits), {}, &stream);
    if (!stream)
        return stream;
    if (!capture) {
        std::vector<unsigned char> audio(size_t(stream->blockAlign()) * 24000, 0x11);
        stream->write(audio.data(), 24000);
    }
    stream->setState(KSSTATE_RUN);
    return stream;
}

void live(Life& life, usbsim::UsbDriverModel& model) {
    life.step = "load";
    hostpc::DriverLoader loader;
    life.linked = !loader.runsImage();
    life.step = "add";
    life.add = loader.addDevice(model.pdo());
    life.step = "start";
    life.start = loader.startDevice(model.pdo());
    PDEVICE_OBJECT fdo = loader.fdo(model.pdo());
    PUNKNOWN wavePort = fdo ? hostpc::subdevice(fdo, u"Wave") : nullptr;
    life.waveRegistered = wavePort != nullptr;
    life.topologyRegistered = fdo && hostpc::subdevice(fdo, u"Topology");
    life.registers = model.callCount(USBCall_Register);
    life.adapterStarted = model.callCount(USBCall_AdapterStarted);
    life.startUnregisters = model.callCount(USBCall_Unregister);
    // Where the failure lets the start succeed, the wave miniport holds the adapter.
    if (PUNKNOWN wave = wavePort && life.linked ? hostpc::portState(wavePort).miniport : nullptr) {
        MMEAdapter* adapter =
            static_cast<MMEWave*>(static_cast<IMiniportWaveCyclic*>(wave))->adapter();
        life.inspected = true;
        life.timer = adapter->attachTimer() != nullptr;
        life.request = adapter->callIrp() != nullptr;
    }

    if (wavePort) {
        hostpc::WaveFilter filter(wavePort);
        std::vector<unsigned char> sink(8 * 4 * 48000);

        life.step = "open and run";
        auto capture = openAndRun(filter, life, kCapture, true, 48000, 2, 24);
        auto render = openAndRun(filter, life, kRender, false, 48000, 2, 16);
        life.step = "periods";
        model.runPeriods(40);
        if (capture)
            capture->read(sink.data(), 48000);

        life.step = "asio";
        model.asioAttach();
        model.asioDetach();
        model.clearCalls();
        model.runPeriods(200); // the attach timer fires after a second
        life.timedStarts = model.callCount(USBCall_TimedStart);
        if (capture) {
            capture->read(sink.data(), 48000);
            life.frames[kCapture] = capture->positionFrames();
        }
        if (render)
            life.frames[kRender] = render->positionFrames();

        life.step = "change formats";
        if (capture)
            capture->close();
        if (render)
            render->close();
        // Render alone brings a new rate; capture follows with other widths.
        render = openAndRun(filter, life, kRender2, false, 96000, 2, 24);
        capture = openAndRun(filter, life, kCapture2, true, 96000, 8, 16);
        model.runPeriods(40);
        if (capture) {
            capture->read(sink.data(), 4096);
            life.frames[kCapture2] = capture->positionFrames();
        }
        if (render)
            life.frames[kRender2] = render->positionFrames();

        life.step = "unplug";
        model.unplug(); // under both running streams
        for (auto* s : {capture.get(), render.get()})
            if (s)
                s->setState(KSSTATE_STOP);

        life.step = "close";
        capture.reset();
        render.reset();
    }
    life.oldRemoved = !fdo || hostpc::pnpState(fdo) == hostpc::PnpState::Removed;

    // The loaded driver adds and starts the new instance by itself.
    life.step = "replug";
    if (!model.present())
        life.replugStart = model.replug();
    if (PDEVICE_OBJECT again = loader.fdo(model.pdo())) {
        hostpc::WaveFilter filter(hostpc::subdevice(again, u"Wave"));
        auto render = openAndRun(filter, life, kReplugged, false, 48000, 2, 16);
        model.runPeriods(20);
        if (render)
            life.frames[kReplugged] = render->positionFrames();
    }

    life.step = "remove";
    model.clearCalls();
    loader.removeDevice(model.pdo());
    life.removedByRemoval = !loader.fdo(model.pdo());
    life.unregisters = model.callCount(USBCall_Unregister);
    life.step = "unload";
}

// One whole life, with the nth allocation failing (0: none).
Life liveWithFailure(size_t nth) {
    hostk::resetForTest();
    hostpc::resetForTest();
    Life life;
    hostk::setPoolObserver([&](ULONG tag, size_t size, bool failed) {
        life.allocations.push_back(Allocation{life.step, tag, size});
        if (failed)
            life.failedIndex = life.allocations.size();
    });
    hostk::failAllocation(nth);
    {
        usbsim::UsbDriverModel model;
        live(life, model);
        if (life.unregisters == 0)
            life.unregisters = model.callCount(USBCall_Unregister); // removed by the loader
    }
    hostk::failAllocation(0);
    hostk::setPoolObserver(nullptr);
    // A device added but never started stays parked until the driver is
    // unloaded; the next life starts from a freshly loaded driver.
    life.parked = life.linked && (_pendingPdo != nullptr || _pdoUseLock != 0);
    ResetPdoHandOver();
    life.trace = tracecap::traceMessages();
    life.problems = hostk::checkClean();
    hostk::clearAssertReports();
    hostk::clearVerifierFailures();
    return life;
}

// Whether the life traced the line (or, for a prefix, a line starting so).
bool traced(const Life& life, const std::string& text, bool prefix = false) {
    for (const auto& line : life.trace)
        if (prefix ? line.compare(0, text.size(), text) == 0 : line == text)
            return true;
    return false;
}

std::string describe(const Allocation& a) {
    std::string tag(reinterpret_cast<const char*>(&a.tag), 4);
    for (char& c : tag)
        c = c >= 0x20 && c < 0x7F ? c : '.';
    return "'" + tag + "' " + std::to_string(a.size) + " bytes in step \"" + a.step + "\"";
}

constexpr ULONG tagOf(const char (&text)[5]) {
    return ULONG((unsigned char)text[0]) | ULONG((unsigned char)text[1]) << 8 |
           ULONG((unsigned char)text[2]) << 16 | ULONG((unsigned char)text[3]) << 24;
}

// What an allocation of the reference life is for: "adapter", "pin", ...
struct Role {
    std::string what = "unknown";
    size_t slot = 0; // the stream it belongs to (pins, streams, buffers)
};

// Names every allocation of the reference life from its step, tag, size
// and order; the linked driver's objects must have their own sizes (the
// image's are known by their order alone).
std::vector<Role> rolesOf(const std::vector<Allocation>& allocations, bool bySize) {
    const char* const startObjects[] = {"adapter",           "attach timer", "topology miniport",
                                        "wave miniport",     "descriptor",   "capture DMA channel",
                                        "render DMA channel"};
    const size_t startSizes[] = {
        sizeof(MMEAdapter),          sizeof(MMETimer),       sizeof(MMETopology),   sizeof(MMEWave),
        sizeof(PtGenericDescriptor), sizeof(MMEDMAEmulator), sizeof(MMEDMAEmulator)};
    const size_t slots[] = {kCapture, kRender, kRender2, kCapture2, kReplugged}; // order of opening
    size_t objects = 0, irps = 0, ports = 0, pins = 0;
    std::string step;
    std::vector<Role> roles;
    for (const Allocation& a : allocations) {
        Role r;
        if (a.step != step && a.step == "replug")
            objects = irps = ports = 0; // a second start, with its own objects
        step = a.step;
        const std::string prefix = a.step == "replug" ? "replug " : "";
        if (a.step == "start" || (a.step == "replug" && objects < 7)) {
            if (a.tag == tagOf("Irp "))
                r.what = prefix + (irps++ == 0 ? "start request" : "USB request");
            else if (a.tag == tagOf("PcPt"))
                r.what = prefix + (ports++ == 0 ? "topology port" : "wave port");
            else if (a.tag == tagOf("PcSg"))
                r.what = prefix + "service group";
            else if (objects < 7 && (!bySize || a.size == startSizes[objects]))
                r.what = prefix + startObjects[objects++];
        } else if (a.step == "open and run" || a.step == "change formats" || a.step == "replug") {
            if (a.tag == tagOf("PcPn") && pins < 5) {
                r.what = prefix + "pin";
                r.slot = slots[pins++];
            } else if (pins > 0) {
                // The stream object comes first after its pin, then its buffers.
                const bool first = roles.empty() || roles.back().what == prefix + "pin";
                r.what =
                    prefix + ((bySize ? a.size == sizeof(MMEWaveStream) : first) ? "stream"
                                                                                 : "stream buffer");
                r.slot = slots[pins - 1];
            }
        } else if (a.tag == tagOf("Irp ")) {
            r.what = a.step == "remove"   ? "remove request"
                     : a.step == "unplug" ? "surprise removal request"
                     : a.step == "close"  ? "unplugged device's remove request"
                                          : r.what;
        }
        roles.push_back(r);
    }
    return roles;
}

// The failure shows the way the driver reports it, and the rest of the life goes on.
void expectReported(const Life& life, const Role& role) {
    const NTSTATUS noMemory = STATUS_INSUFFICIENT_RESOURCES;
    auto is = [&](std::initializer_list<const char*> whats) {
        for (const char* w : whats)
            if (role.what == w)
                return true;
        return false;
    };
    const size_t all[] = {kCapture, kRender, kCapture2, kRender2};
    if (is({"start request", "adapter"})) {
        EXPECT_EQ(life.start, noMemory);
        // Without a start the hand-over keeps the device parked.
        if (life.linked || role.what != "start request") {
            EXPECT_EQ(life.parked, role.what == "start request");
        }
        EXPECT_FALSE(life.topologyRegistered || life.waveRegistered);
        EXPECT_EQ(life.registers, 0u) << "the USB driver was called";
    } else if (is({"attach timer"})) {
        // Nothing is reported; the attach timer's behaviour is skipped.
        EXPECT_EQ(life.start, STATUS_SUCCESS);
        EXPECT_FALSE(life.inspected && life.timer);
        EXPECT_EQ(life.timedStarts, 0u);
        for (size_t s : all) {
            EXPECT_EQ(life.open[s], STATUS_SUCCESS) << "stream " << s;
            EXPECT_GT(life.frames[s], 0u) << "stream " << s;
        }
    } else if (is({"USB request"})) {
        // Every call fails; the device starts without the USB driver's records.
        EXPECT_EQ(life.start, STATUS_SUCCESS);
        EXPECT_FALSE(life.inspected && life.request);
        EXPECT_TRUE(traced(life, "!m_pCallIrp || !mUSBDeviceObject", true));
        EXPECT_EQ(life.registers, 0u);
        EXPECT_EQ(life.open[kCapture], STATUS_INVALID_DEVICE_STATE);
        EXPECT_EQ(life.open[kRender], STATUS_INVALID_DEVICE_STATE);
        EXPECT_EQ(life.unregisters, 1u) << "the replugged device's own";
    } else if (is({"topology port", "topology miniport"})) {
        EXPECT_EQ(life.start, noMemory);
        EXPECT_EQ(traced(life, "InstallSubdevice: PcNewPort failed"), is({"topology port"}));
        EXPECT_FALSE(life.topologyRegistered || life.waveRegistered);
        // The start still announces itself; with no subdevice holding the
        // adapter, the start's own release destroys it and unregisters.
        EXPECT_EQ(life.registers, 1u);
        EXPECT_EQ(life.adapterStarted, 1u);
        EXPECT_EQ(life.startUnregisters, 1u);
    } else if (is({"wave port", "wave miniport", "service group", "descriptor"})) {
        EXPECT_EQ(life.start, is({"descriptor"}) ? STATUS_INVALID_DEVICE_STATE : noMemory);
        EXPECT_EQ(traced(life, "InstallSubdevice: PcNewPort failed"), is({"wave port"}));
        EXPECT_EQ(traced(life, "sizeof(PtGenericDescriptor) is", true), is({"descriptor"}));
        EXPECT_TRUE(life.topologyRegistered);
        EXPECT_FALSE(life.waveRegistered);
        EXPECT_EQ(life.adapterStarted, 1u);
        EXPECT_EQ(life.startUnregisters, 0u);
        EXPECT_EQ(life.unregisters, 1u);
    } else if (is({"capture DMA channel", "render DMA channel"})) {
        EXPECT_EQ(life.start, noMemory);
        EXPECT_TRUE(traced(life, "FAILED m_pcDMAEmulator = new MMEDMAEmulator();"));
        EXPECT_TRUE(traced(life, "No DMA Channel"));
        EXPECT_TRUE(life.topologyRegistered && life.waveRegistered);
        const bool capture = is({"capture DMA channel"});
        for (size_t s : all)
            EXPECT_EQ(life.open[s], (s == kCapture || s == kCapture2) == capture
                                        ? STATUS_INVALID_DEVICE_REQUEST
                                        : STATUS_SUCCESS)
                << "stream " << s;
    } else if (is({"pin", "stream", "stream buffer"})) {
        // A channel left without buffers: the port, which takes the cyclic
        // buffer once at creation, refuses a pin without one.
        EXPECT_EQ(traced(life, "memAlloc failed"), is({"stream buffer"}));
        EXPECT_EQ(life.start, STATUS_SUCCESS);
        for (size_t s : all)
            EXPECT_EQ(life.open[s], s == role.slot ? noMemory : STATUS_SUCCESS) << "stream " << s;
    } else if (role.what.compare(0, 7, "replug ") == 0) {
        // The new instance's start, or its stream, fails as the first one's
        // did; the unplugged device went all the same.
        const std::string base = role.what.substr(7);
        EXPECT_TRUE(life.oldRemoved);
        if (base == "pin" || base == "stream" || base == "stream buffer")
            EXPECT_EQ(life.open[kReplugged], noMemory);
        else if (base == "descriptor")
            EXPECT_EQ(life.replugStart, STATUS_INVALID_DEVICE_STATE);
        else if (base == "attach timer" || base == "USB request")
            EXPECT_EQ(life.replugStart, STATUS_SUCCESS);
        else
            EXPECT_EQ(life.replugStart, noMemory);
    } else if (is({"surprise removal request", "unplugged device's remove request"})) {
        // The PnP manager knows the device is gone without its request, and
        // the port-class library releases the subdevices without its own.
        EXPECT_TRUE(life.oldRemoved);
        EXPECT_EQ(life.replugStart, STATUS_SUCCESS);
        EXPECT_GT(life.frames[kReplugged], 0u);
    } else if (is({"remove request"})) {
        // Without its request the port-class library releases the
        // subdevices itself: the adapter goes all the same.
        EXPECT_TRUE(life.removedByRemoval);
        EXPECT_EQ(life.unregisters, 1u);
    } else {
        ADD_FAILURE() << "an allocation the sweep does not know";
    }
}

TEST(AllocationSweep, EveryAllocationOfADevicesLifeFailsCleanly) {
    const Life reference = liveWithFailure(0);
    ASSERT_EQ(reference.problems, "") << "the life itself leaves something behind";
    ASSERT_EQ(reference.start, STATUS_SUCCESS);
    const bool linked = hostpc::driverImage().empty();
    ASSERT_TRUE(!linked || (reference.timer && reference.request));
    ASSERT_EQ(reference.timedStarts, 1u);
    for (size_t s = 0; s < 4; ++s) {
        ASSERT_EQ(reference.open[s], STATUS_SUCCESS) << "stream " << s;
        ASSERT_GT(reference.frames[s], 0u) << "stream " << s;
    }
    ASSERT_TRUE(reference.removedByRemoval);
    ASSERT_TRUE(reference.oldRemoved);
    ASSERT_EQ(reference.replugStart, STATUS_SUCCESS);
    ASSERT_GT(reference.frames[kReplugged], 0u);
    ASSERT_FALSE(reference.parked);
    ASSERT_EQ(reference.unregisters, 1u);

    const size_t count = reference.allocations.size();
    const std::vector<Role> roles = rolesOf(reference.allocations, linked);
    std::map<std::string, size_t> seen;
    for (size_t i = 1; i <= count; ++i) {
        const Allocation& a = reference.allocations[i - 1];
        const Role& role = roles[i - 1];
        SCOPED_TRACE("allocation " + std::to_string(i) + " of " + std::to_string(count) + " (" +
                     role.what + ", " + describe(a) + ")");
        ++seen[role.what];
        const Life life = liveWithFailure(i);
        ASSERT_EQ(life.failedIndex, i);
        ASSERT_GE(life.allocations.size(), i);
        const Allocation& failed = life.allocations[i - 1];
        ASSERT_TRUE(failed.step == a.step && failed.tag == a.tag && failed.size == a.size)
            << "the run diverged before the failure: " << describe(failed);
        EXPECT_EQ(life.problems, "");
        // A start that fails before the adapter exists leaves the hand-over
        // parked until the next device's add.
        const std::string base =
            role.what.compare(0, 7, "replug ") ? role.what : role.what.substr(7);
        if (base != "start request" && base != "adapter") {
            EXPECT_FALSE(life.parked) << "the add/start hand-over was left taken";
        }
        expectReported(life, role);
    }
    // The life reaches every kind of allocation the driver and the port make,
    // in both instances of the device.
    EXPECT_EQ(seen.size(), 33u);
    EXPECT_EQ(seen.count("unknown"), 0u);
    std::printf("allocations swept: %zu\n", count);
    ::testing::Test::RecordProperty("allocations_swept", std::to_string(count));
}

} // namespace
