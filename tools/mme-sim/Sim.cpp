// The simulated system of mme-sim: profile, model USB driver, driver,
// wave filter, trace tap and clock.
#include "Sim.h"

#include "driver/adapter/MMEAdapter.h"
#include "driver/streaming/MMEDMAEmulator.h"
#include "host/kernel/HostKernel.h"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

namespace mmesim {

namespace {

// The driver's DMA channels as a debugger would read them: through the
// adapter that the link record names. Period thread, after the exchange.
bool probeDma(void* context, uint32_t position[2], uint32_t offset[2], uint32_t blockAlign[2],
              uint32_t bufferBytes[2]) {
    const usbsim::UsbDriverModel* model = static_cast<const usbsim::UsbDriverModel*>(context);
    MMEAdapterInfo* link = model->link();
    const MMEAdapter* adapter = link ? static_cast<const MMEAdapter*>(link->mpContext) : nullptr;
    if (!adapter)
        return false;
    const MMEDMAEmulator* channels[2] = {adapter->getCaptureDMAChannel(),
                                         adapter->getRenderDMAChannel()};
    for (int d = 0; d < 2; ++d) {
        const MMEDMAEmulator* c = channels[d];
        position[d] = c ? c->position() : 0;
        offset[d] = c ? c->transferOffset() : 0;
        blockAlign[d] = c ? c->wdmChannels() * ((c->wdmBits() + 7) / 8) : 0;
        bufferBytes[d] = c ? c->wdmBufferBytes() : 0;
    }
    return true;
}

} // namespace

Sim::Sim(const SimOptions& options) : mOptions(options) {
    if (!options.reportPath.empty()) {
        // Known at once, not after an hour's run.
        const std::string part = options.reportPath + ".part";
        std::ofstream probe(part, std::ios::out | std::ios::app);
        if (!probe)
            throw SimError(options.reportPath + ": cannot write the report");
        probe.close();
        std::remove(part.c_str());
    }
    mTimeline.reset(new Timeline(!options.reportPath.empty()));
    try {
        mTrace.reset(new hostpc::TraceTap(options.tracePath, options.verbose));
    } catch (const std::runtime_error& e) {
        throw SimError(e.what());
    }
    Timeline* timeline = mTimeline.get();
    mTrace->setLineHook([timeline](const std::string& line) { timeline->traceLine(line); });
    hostk::useVirtualTime(!options.realtime);
    // Paced by the clock, the port services on its own DPC thread as on
    // Windows; virtual time keeps the deterministic end-of-period service.
    hostpc::setDefaultServiceMode(concurrentService() ? hostpc::ServiceMode::Concurrent
                                                      : hostpc::ServiceMode::EndOfPeriod);
    hostpc::PortPersonality personality = hostpc::defaultPortPersonality();
    if (!options.port.empty())
        hostpc::parsePortPersonality(options.port, &personality);
    hostpc::setDefaultPortPersonality(personality);

    usbsim::DeviceProfile profile = usbsim::DeviceProfile::builtInDefault();
    if (!options.profilePath.empty()) {
        try {
            profile = usbsim::DeviceProfile::fromJsonFile(options.profilePath);
        } catch (const usbsim::ProfileError& e) {
            throw SimError(std::string("bad profile: ") + e.what());
        }
    }
    try {
        mModel.reset(new usbsim::UsbDriverModel(std::move(profile)));
    } catch (const std::exception& e) {
        throw SimError(std::string("bad profile: ") + e.what());
    }
    mModel->setObserver(timeline);
    mLoader.reset(options.driverPath.empty() ? new hostpc::DriverLoader()
                                             : new hostpc::DriverLoader(options.driverPath));
    mDriverDescription = mLoader->runsImage()
                             ? "Windows image " + mLoader->imagePath() + " (its own code, loaded)"
                             : std::string("host build linked into mme-sim");
    if (personality == hostpc::PortPersonality::OpenSource)
        mDriverDescription += "; the port in the open-source library's ways";
    // The DMA probe reads the linked driver's objects; an image's are its own.
    if (mLoader->imageError().empty() && !mLoader->runsImage())
        timeline->setDmaProbe(&probeDma, mModel.get());
    const std::string failure = hostpc::startWaveFilter(*mLoader, mModel->pdo(), &mFilter);
    if (!failure.empty())
        throw SimError(failure);
    mDevice = hostpc::fdoForPdo(mModel->pdo());
    // What the PnP manager does to the device from now on, on the timeline.
    hostpc::setPnpListener([timeline](PDEVICE_OBJECT, hostpc::PnpState state) {
        if (state == hostpc::PnpState::SurpriseRemoved)
            timeline->lifeEvent("removal", "surprise removal: the pins stay open until closed");
        else if (state == hostpc::PnpState::Removed)
            timeline->lifeEvent("removal", "device removed");
        else if (state == hostpc::PnpState::Started)
            timeline->lifeEvent("replug", "device started");
    });
}

std::string Sim::openReplugged() {
    PDEVICE_OBJECT fdo = mModel->present() ? hostpc::fdoForPdo(mModel->pdo()) : nullptr;
    if (!fdo)
        return "no device was added for it";
    const hostpc::PnpState state = hostpc::pnpState(fdo);
    if (state != hostpc::PnpState::Started)
        return std::string("the device is ") + hostpc::pnpStateName(state);
    // In real time the device may go again on the clock's thread meanwhile.
    std::unique_ptr<hostpc::WaveFilter> filter = hostpc::WaveFilter::ofDevice(fdo);
    if (!filter->valid() || filter->pins().empty())
        return "its wave filter has no pins";
    mFilter = std::move(filter);
    mDevice = fdo;
    return std::string();
}

Sim::~Sim() {
    shutdown();
}

std::string Sim::refusal(NTSTATUS status, size_t mark) {
    return mTrace->refusal(status, mark, mModel->refusedConfigNote());
}

std::unique_ptr<hostpc::KsStream> Sim::open(bool capture, const Format& format,
                                            const hostpc::StreamOptions& options) {
    mModel->clearCalls();
    const size_t mark = mTrace->mark();
    std::unique_ptr<hostpc::KsStream> stream;
    hostpc::StreamOptions watched = options;
    if (!watched.observer)
        watched.observer = mTimeline.get();
    NTSTATUS status = mFilter->open(capture ? hostpc::kWaveCapturePin : hostpc::kWaveRenderPin,
                                    hostpc::pcmFormat(format.rate, format.channels, format.bits),
                                    watched, &stream);
    if (!NT_SUCCESS(status)) {
        const std::string why = refusal(status, mark);
        mTimeline->event("refusal", std::string(capture ? "capture" : "render") + " " +
                                        format.triple() + " refused: " + why);
        throw SimError(std::string("the driver refused ") + (capture ? "capture" : "render") +
                       " at " + format.triple() + ": " + why);
    }
    return stream;
}

void Sim::run(hostpc::KsStream& stream) {
    mModel->clearCalls();
    const size_t mark = mTrace->mark();
    NTSTATUS status = stream.setState(KSSTATE_RUN);
    if (!NT_SUCCESS(status)) {
        Format f;
        f.rate = stream.rate();
        f.channels = stream.channels();
        f.bits = stream.bits();
        throw SimError(std::string("the driver refused to start ") +
                       (stream.isCapture() ? "capture" : "render") + " at " + f.triple() + ": " +
                       refusal(status, mark));
    }
}

void Sim::begin() {
    if (mOptions.realtime && !mClockRunning) {
        mModel->startRealTime();
        mClockRunning = true;
    }
}

void Sim::step() {
    if (!mOptions.realtime) {
        mModel->runPeriods(1);
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const std::string error = mModel->realTimeError();
    if (!error.empty())
        throw SimError("the device stopped: " + error);
}

void Sim::end() {
    if (mClockRunning) {
        mModel->stopRealTime();
        mClockRunning = false;
    }
}

std::string Sim::shutdown() {
    if (!mModel)
        return std::string();
    end();
    hostpc::setPnpListener(nullptr); // the run's own end is no event of it
    mFilter.reset();
    mLoader.reset(); // removes the device
    mModel->setObserver(nullptr);
    mModel.reset();
    std::string problems = hostk::checkClean();
    mTrace.reset();
    return problems;
}

} // namespace mmesim
