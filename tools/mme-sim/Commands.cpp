// The commands of mme-sim: demo, loopback, play, record, formats.
#include "Commands.h"

#include "Progress.h"
#include "Report.h"
#include "WavFiles.h"

#include "host/kernel/HostKernel.h"
#include "usbsim/Backends.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>

namespace mmesim {

namespace {

constexpr size_t kChunkFrames = 4096;
constexpr double kMaxSeconds = 1000000; // eleven and a half days
constexpr uint32_t kWriteAhead = usbsim::kDriverWriteAheadFrames;

// Gives up when audio stops moving: in virtual time after a number of
// periods, in real time after a wall-clock span; both allow twice the job
// plus twenty seconds (an ASIO client's visit and the attach timer fit).
class Watchdog {
public:
    Watchdog(const Sim& sim, uint64_t frames, uint32_t rate, const std::string& what)
        : mWhat(what) {
        const double seconds = double(frames) / (rate ? rate : 48000) * 2 + 20;
        mPeriods = uint64_t(seconds * (rate ? rate : 48000) / 256) + 16;
        mDeadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
        mRealtime = sim.realtime();
    }
    void tick(uint64_t done, uint64_t total) {
        ++mSteps;
        const bool late =
            mRealtime ? std::chrono::steady_clock::now() > mDeadline : mSteps > mPeriods;
        if (late)
            throw SimError("the device stopped moving audio: " + mWhat + " reached " +
                           std::to_string(done) + " of " + std::to_string(total) +
                           " frames (was the MME side ever attached?)");
    }

private:
    std::string mWhat;
    uint64_t mPeriods = 0;
    uint64_t mSteps = 0;
    std::chrono::steady_clock::time_point mDeadline;
    bool mRealtime = false;
};

// Passes on the frames the device plays from `skip` on, `count` of them: the
// device-side picture of one stream.
class WindowOutput : public usbsim::OutputBackend {
public:
    WindowOutput(std::shared_ptr<usbsim::OutputBackend> inner, uint64_t skip, uint64_t count)
        : mInner(std::move(inner)), mSkip(skip), mCount(count) {}
    void configure(uint32_t rate, uint32_t channels) override { mInner->configure(rate, channels); }
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override {
        const uint64_t begin = std::max(mSeen, mSkip);
        const uint64_t end = std::min(mSeen + frames, mSkip + mCount);
        if (begin < end)
            mInner->write(source + (begin - mSeen) * channels, uint32_t(end - begin), channels);
        mSeen += frames;
        if (end > begin)
            mPassed += end - begin;
    }
    void finish() override { mInner->finish(); }
    std::string describe() const override { return mInner->describe(); }
    bool complete() const { return mPassed >= mCount; }

private:
    std::shared_ptr<usbsim::OutputBackend> mInner;
    uint64_t mSkip, mCount;
    uint64_t mSeen = 0;
    uint64_t mPassed = 0;
};

double secondsOr(double seconds, double fallback) {
    if (seconds == 0)
        return fallback;
    // Memory does not grow with the run; the bound only keeps frame counts sane.
    if (!(seconds > 0) || seconds > kMaxSeconds)
        throw SimError("--seconds " + std::to_string(seconds) + ": use more than 0, at most " +
                           std::to_string(int(kMaxSeconds)),
                       kExitUsage);
    return seconds;
}

// ---- Formats ----

std::string channelsText(ULONG most) {
    std::string text = std::to_string(most);
    std::string lower;
    for (ULONG c = 2; c < most; c += 2)
        lower += (lower.empty() ? "" : "/") + std::to_string(c);
    return lower.empty() ? text : text + " (or " + lower + ")";
}

std::string bitsText(ULONG lo, ULONG hi) {
    std::string text;
    for (ULONG b : {16u, 24u, 32u})
        if (b >= lo && b <= hi)
            text += (text.empty() ? "" : ", ") + std::to_string(b);
    return text.empty() ? "none" : text;
}

std::string rateText(ULONG lo, ULONG hi) {
    return lo == hi ? std::to_string(lo) : std::to_string(lo) + "-" + std::to_string(hi);
}

void printDevice(Sim& sim) {
    const usbsim::DeviceProfile& p = sim.profile();
    const ChannelConfig hw = sim.hardware();
    std::printf("Device \"%s\" (USB %04X:%04X): hardware at %u Hz, %u in / %u out, %u/%u-bit",
                p.name.c_str(), p.vendorId, p.productId, unsigned(hw.fr), unsigned(hw.inCH),
                unsigned(hw.outCH), unsigned(hw.inRes), unsigned(hw.outRes));
    if (p.digitalLockHz)
        std::printf(", digital input locked at %u Hz", unsigned(p.digitalLockHz));
    std::printf("\n");
}

void printPin(const hostpc::PinInfo& pin, const char* title) {
    std::printf("%s pin %u offers:\n", title, unsigned(pin.id));
    if (pin.ranges.empty()) {
        std::printf("  nothing\n");
        return;
    }
    std::printf("  %-12s %-20s %s\n", "rate (Hz)", "channels", "bits");
    for (const KSDATARANGE_AUDIO& r : pin.ranges)
        std::printf("  %-12s %-20s %s\n",
                    rateText(r.MinimumSampleFrequency, r.MaximumSampleFrequency).c_str(),
                    channelsText(r.MaximumChannels).c_str(),
                    bitsText(r.MinimumBitsPerSample, r.MaximumBitsPerSample).c_str());
}

void printFormats(Sim& sim) {
    printDevice(sim);
    printPin(sim.filter().pin(hostpc::kWaveCapturePin), "Capture");
    printPin(sim.filter().pin(hostpc::kWaveRenderPin), "Render");
}

// The format a stereo client gets from the render pin's data intersection
// at the hardware's rate.
Format negotiated(Sim& sim, bool announce) {
    const ULONG rate = sim.hardware().fr;
    std::vector<UCHAR> format;
    NTSTATUS status = sim.filter().intersect(hostpc::kWaveRenderPin,
                                             hostpc::clientRange(2, 16, 32, rate, rate), &format);
    const WAVEFORMATEX* w = hostpc::waveFormatOf(format);
    if (!NT_SUCCESS(status) || !w)
        throw SimError("the render pin offers nothing to a stereo client at " +
                       std::to_string(rate) + " Hz: " + hostpc::statusName(status));
    Format f;
    f.rate = w->nSamplesPerSec;
    f.channels = w->nChannels;
    f.bits = w->wBitsPerSample;
    if (announce)
        std::printf("Data intersection on the render pin for a stereo client (2 channels, 16-32 "
                    "bits, %u Hz): %s\n",
                    unsigned(rate), f.text().c_str());
    return f;
}

// ---- Loopback ----

struct LoopbackResult {
    Comparison comparison;
    uint64_t frames = 0;
    uint64_t latency = 0;
    uint64_t measured = 0; // first frame with sound, as captured
    uint64_t renderPeriods = 0, capturePeriods = 0;
    uint64_t glitches = 0, overruns = 0;
};

// Plays the test signal through render while capture records the device's
// loopback; what comes back is checked as it arrives and nothing is kept, so
// memory does not depend on the length of the run.
LoopbackResult loopback(Sim& sim, const Format& format, double seconds,
                        const CommandOptions& options) {
    LoopbackResult result;
    sim.model().setLoopback(kLoopbackFrames);
    result.frames = uint64_t(seconds * format.rate + 0.5);
    result.latency = kWriteAhead + kLoopbackFrames;
    const size_t align = format.blockAlign();

    // Capture starts first and alone, so that it may bring the hardware to
    // its rate; render then opens at that rate. No period runs in between,
    // so both begin with the same one.
    auto capture = sim.open(true, format);
    sim.run(*capture);
    auto render = sim.open(false, format);

    TestSignal signal(format);
    LoopbackCheck check(format, result.frames, result.latency);
    std::vector<uint8_t> pending(kChunkFrames * align);
    size_t pendingFrames = 0, pendingUsed = 0;
    uint64_t generated = 0;
    // Queues what fits; the rest of the chunk waits for the next period.
    auto feed = [&] {
        while (true) {
            if (pendingUsed == pendingFrames) {
                if (generated == result.frames)
                    break;
                pendingFrames = size_t(std::min<uint64_t>(kChunkFrames, result.frames - generated));
                signal.fill(pending.data(), pendingFrames);
                generated += pendingFrames;
                pendingUsed = 0;
            }
            const size_t n =
                render->write(pending.data() + pendingUsed * align, pendingFrames - pendingUsed);
            pendingUsed += n;
            if (n == 0)
                return;
        }
        render->endOfStream();
    };
    feed();
    sim.run(*render);

    const uint64_t wanted = check.wanted();
    std::vector<uint8_t> chunk(kChunkFrames * align);
    // A stalled client: from and to this many periods of the run.
    const double periodsPerSecond = double(format.rate) / sim.model().periodFrames();
    const uint64_t stallFrom = uint64_t(options.stallAt * periodsPerSecond);
    const uint64_t stallTo = uint64_t((options.stallAt + options.stallSeconds) * periodsPerSecond);
    const uint64_t stallFrames = (stallTo - stallFrom) * sim.model().periodFrames();
    Progress progress("loopback", wanted, format.rate);
    Watchdog watchdog(sim, wanted + stallFrames, format.rate, "capture");
    sim.begin();
    while (check.seen() < wanted) {
        sim.step();
        const uint64_t period = sim.periodsRun();
        if (period >= stallFrom && period < stallTo) {
            watchdog.tick(check.seen(), wanted);
            continue;
        }
        feed();
        size_t n;
        while ((n = capture->read(chunk.data(), kChunkFrames)) > 0)
            check.take(chunk.data(), n);
        progress.update(check.seen());
        watchdog.tick(check.seen(), wanted);
    }
    sim.end();
    progress.finish();

    result.renderPeriods = render->positionFrames() / 256;
    result.capturePeriods = capture->positionFrames() / 256;
    result.glitches = render->counters().glitches;
    result.overruns = capture->counters().overruns;
    sim.noteCounters(render->counters());
    sim.noteCounters(capture->counters());
    render->close();
    capture->close();
    result.comparison = check.result();
    result.measured = check.firstSound();
    return result;
}

bool printLoopback(const Format& format, const LoopbackResult& r) {
    const Comparison& c = r.comparison;
    const bool exact = c.complete && c.mismatches == 0 && r.glitches == 0 && r.overruns == 0;
    std::printf("Summary\n");
    std::printf("  periods moved  render %" PRIu64 ", capture %" PRIu64 " (256 frames each)\n",
                r.renderPeriods, r.capturePeriods);
    std::printf("  glitches       %" PRIu64 " render, %" PRIu64 " capture overruns\n", r.glitches,
                r.overruns);
    std::printf("  latency        %" PRIu64
                " frames = %.2f ms at %u Hz (%u render write-ahead + %u "
                "loopback), measured %s\n",
                r.latency, 1000.0 * double(r.latency) / format.rate, unsigned(format.rate),
                unsigned(kWriteAhead), unsigned(kLoopbackFrames),
                r.measured == uint64_t(-1) ? "no sound at all"
                                           : (std::to_string(r.measured) + " frames").c_str());
    if (exact)
        std::printf("  result         PASS: bit-exact, %zu samples as the conversion rules "
                    "promise\n",
                    c.samples);
    else if (c.mismatches)
        std::printf("  result         FAIL: %zu of %zu samples differ; first at frame %zu "
                    "channel %u: expected %d, got %d\n",
                    c.mismatches, c.samples, c.firstFrame, c.firstChannel, c.expected, c.got);
    else
        std::printf("  result         FAIL: %s\n",
                    c.complete ? "glitches or overruns on the way" : "capture came back short");
    return exact;
}

// ---- Soak figures and the report ----

void printSoak(Sim& sim, const Format& format) {
    const SoakFigures f = sim.timeline().figures();
    auto us = [&](uint32_t frames) { return 1e6 * double(frames) / format.rate; };
    std::printf("  position       largest deviation of an update from the period clock: render "
                "%u, capture %u frames (%.1f, %.1f us)\n",
                f.largestDeviation[1], f.largestDeviation[0], us(f.largestDeviation[1]),
                us(f.largestDeviation[0]));
    const std::optional<uint64_t> late = sim.periodsServicedLate();
    std::printf("  serviced late  %s\n",
                late ? (std::to_string(*late) + " periods").c_str()
                     : "n/a (the port's service is drained at the end of each period)");
}

// What the report says besides the timeline; taken before the device goes.
ReportInput reportInput(Sim& sim, const std::string& command, const Format& format) {
    ReportInput in;
    in.command = command;
    in.device = sim.profile().name;
    in.format = format;
    in.periodFrames = sim.model().periodFrames();
    in.rate = sim.hardware().fr;
    in.summary.push_back({"command", command});
    in.summary.push_back({"device", sim.profile().name});
    if (format.rate)
        in.summary.push_back({"format", format.text()});
    return in;
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

// Completes the summary with the run's figures and writes the report when
// one was asked for.
void finishReport(Sim& sim, ReportInput& in) {
    if (sim.options().reportPath.empty())
        return;
    in.figures = sim.timeline().figures();
    in.servicedLate = sim.periodsServicedLate();
    const SoakFigures& f = in.figures;
    const uint32_t rate = in.format.rate ? in.format.rate : (in.rate ? in.rate : 48000);
    std::vector<std::pair<std::string, std::string>> figures = {
        {"periods", std::to_string(f.periods)},
        {"audio", std::to_string(f.periods * in.periodFrames) + " frames of " +
                      std::to_string(in.periodFrames) + " a period (" +
                      secondsText(double(f.periods * in.periodFrames) / rate) + ")"},
        {"glitches",
         std::to_string(f.glitches) +
             (f.glitches ? " (first in period " + std::to_string(f.firstGlitchPeriod) + ")" : "")},
        {"overruns",
         std::to_string(f.overruns) +
             (f.overruns ? " (first in period " + std::to_string(f.firstOverrunPeriod) + ")" : "")},
        {"jitter", "largest position deviation from the period clock: render " +
                       std::to_string(f.largestDeviation[1]) + ", capture " +
                       std::to_string(f.largestDeviation[0]) + " frames"},
        {"serviced late", in.servicedLate ? std::to_string(*in.servicedLate) + " periods" : "n/a"},
    };
    // The figures go after the identity rows and before what the command added.
    in.summary.insert(in.summary.begin() +
                          std::min<size_t>(in.summary.size(), in.format.rate ? 3 : 2),
                      figures.begin(), figures.end());
    writeReport(sim.options().reportPath, in, sim.timeline());
    std::printf("  report         %s: %zu of %" PRIu64 " periods kept, %zu events\n",
                sim.options().reportPath.c_str(), sim.timeline().sample().size(), f.periods,
                sim.timeline().events().size());
}

// Runs a stream to RUN and closes it again; empty when accepted, else why not.
std::string tryFormat(Sim& sim, bool capture, const Format& format) {
    std::unique_ptr<hostpc::KsStream> stream;
    try {
        stream = sim.open(capture, format);
    } catch (const SimError& e) {
        std::string text = e.what();
        size_t colon = text.find(": ");
        return "refused when opened: " +
               (colon == std::string::npos ? text : text.substr(colon + 2));
    }
    try {
        sim.run(*stream);
    } catch (const SimError& e) {
        std::string text = e.what();
        size_t colon = text.find(": ");
        return "refused at start: " + (colon == std::string::npos ? text : text.substr(colon + 2));
    }
    stream->close();
    return std::string();
}

std::string teardown(Sim& sim) {
    std::printf("  driver         %s\n", sim.driverDescription().c_str());
    std::string problems = sim.shutdown();
    if (problems.empty()) {
        std::printf("  teardown       device removed: no pool block, IRP or timer left, no "
                    "assertion\n");
        return problems;
    }
    std::printf("  teardown       NOT CLEAN:\n%s\n", problems.c_str());
    return problems;
}

} // namespace

void parseStall(const std::string& text, CommandOptions* options) {
    const size_t colon = text.find(':');
    double at = -1, seconds = -1;
    try {
        size_t used = 0;
        if (colon != std::string::npos) {
            at = std::stod(text.substr(0, colon), &used);
            if (used != colon)
                at = -1;
            const std::string rest = text.substr(colon + 1);
            seconds = std::stod(rest, &used);
            if (used != rest.size())
                seconds = -1;
        }
    } catch (const std::exception&) {
        at = -1;
    }
    if (!(at >= 0) || !(seconds > 0) || at > kMaxSeconds || seconds > kMaxSeconds)
        throw SimError("--stall \"" + text + "\": use AT:SECONDS, e.g. 0.5:1.5", kExitUsage);
    options->stallAt = at;
    options->stallSeconds = seconds;
}

int runFormats(const CommandOptions& options) {
    Sim sim(options.sim);
    printFormats(sim);
    ReportInput report = reportInput(sim, "formats", Format{0, 0, 0});
    if (options.format.empty()) {
        report.result = "done";
        finishReport(sim, report);
        return kExitOk;
    }
    Format format;
    try {
        format = parseFormat(options.format, false);
    } catch (const std::invalid_argument& e) {
        throw SimError(e.what(), kExitUsage);
    }
    std::printf("%s (%s):\n", format.triple().c_str(), format.text().c_str());
    bool refused = false;
    for (bool capture : {true, false}) {
        std::string why = tryFormat(sim, capture, format);
        refused = refused || !why.empty();
        std::printf("  %-8s %s\n", capture ? "capture" : "render",
                    why.empty() ? "accepted" : why.c_str());
        report.summary.push_back({std::string(capture ? "capture " : "render ") + format.triple(),
                                  why.empty() ? "accepted" : why});
    }
    report.result = refused ? "refused" : "accepted";
    finishReport(sim, report);
    std::fflush(stdout);
    if (refused)
        throw SimError("the driver refuses " + format.triple() + " (see above)");
    return kExitOk;
}

// Loopback at the asked (or negotiated) format, checked and reported; the
// exit code says whether it was bit-exact and the teardown clean.
int loopbackAndReport(Sim& sim, const CommandOptions& options, double seconds,
                      const char* command) {
    Format format;
    if (options.format.empty()) {
        format = negotiated(sim, true);
    } else {
        try {
            format = parseFormat(options.format);
        } catch (const std::invalid_argument& e) {
            throw SimError(e.what(), kExitUsage);
        }
    }
    std::printf("Loopback: render and capture at %s for %.1f s; the device returns what it "
                "plays %u frames later\n",
                format.text().c_str(), seconds, unsigned(kLoopbackFrames));
    std::fflush(stdout);
    LoopbackResult r = loopback(sim, format, seconds, options);
    const bool exact = printLoopback(format, r);
    printSoak(sim, format);
    ReportInput report = reportInput(sim, command, format);
    const bool clean = teardown(sim).empty();

    report.latencyFrames =
        r.measured == uint64_t(-1) ? std::nullopt : std::optional<uint64_t>(r.measured);
    report.result = exact ? "PASS" : "FAIL";
    char latency[128];
    std::snprintf(latency, sizeof latency, "%" PRIu64 " frames = %.2f ms (measured %s)", r.latency,
                  1000.0 * double(r.latency) / format.rate,
                  r.measured == uint64_t(-1) ? "no sound" : std::to_string(r.measured).c_str());
    report.summary.push_back({"latency", latency});
    const Comparison& c = r.comparison;
    std::string result = "PASS: bit-exact";
    if (!exact)
        result = c.mismatches ? "FAIL: " + std::to_string(c.mismatches) + " of " +
                                    std::to_string(c.samples) + " samples differ, first at frame " +
                                    std::to_string(c.firstFrame)
                 : c.complete ? "FAIL: glitches or overruns on the way"
                              : "FAIL: capture came back short";
    report.summary.push_back({"result", result + (clean ? "" : "; teardown NOT CLEAN")});
    finishReport(sim, report);
    return exact && clean ? kExitOk : kExitMismatch;
}

int runLoopback(const CommandOptions& options) {
    Sim sim(options.sim);
    return loopbackAndReport(sim, options, secondsOr(options.seconds, 2), "loopback");
}

int runDemo(const CommandOptions& options) {
    const double seconds = secondsOr(options.seconds, 2);
    Sim sim(options.sim);
    std::printf("mme-sim: the MME/KS/WDM driver on a simulated USB audio interface (%s time)\n\n",
                sim.realtime() ? "real" : "virtual");
    printFormats(sim);
    std::printf("\n");
    return loopbackAndReport(sim, options, seconds, "demo");
}

int runPlay(const CommandOptions& options) {
    WavReader reader(options.file);
    const Format format = reader.format();
    if (!options.format.empty()) {
        Format asked;
        try {
            asked = parseFormat(options.format);
        } catch (const std::invalid_argument& e) {
            throw SimError(e.what(), kExitUsage);
        }
        if (asked.triple() != format.triple())
            throw SimError("--format " + asked.triple() + " does not match " + options.file + " (" +
                           format.triple() + "); play streams the file as it is");
    }
    const uint64_t total = reader.frames();
    Sim sim(options.sim);
    std::printf("Playing %s: %s, %.1f s (%" PRIu64 " frames)\n", options.file.c_str(),
                format.text().c_str(), double(total) / format.rate, total);
    std::fflush(stdout);

    auto render = sim.open(false, format);
    const size_t align = format.blockAlign();
    std::vector<uint8_t> chunk(kChunkFrames * align);
    size_t chunkFrames = 0, chunkUsed = 0;
    uint64_t queued = 0;
    // Queues what fits; keeps the rest of the last chunk read for later.
    auto feed = [&] {
        while (queued < total) {
            if (chunkUsed == chunkFrames) {
                chunkFrames = reader.read(chunk.data(), kChunkFrames);
                chunkUsed = 0;
                if (chunkFrames == 0)
                    throw FileError(options.file + ": ended after " + std::to_string(queued) +
                                    " of " + std::to_string(total) + " frames");
            }
            const size_t n =
                render->write(chunk.data() + chunkUsed * align, chunkFrames - chunkUsed);
            chunkUsed += n;
            queued += n;
            if (n == 0)
                break;
        }
        if (queued == total)
            render->endOfStream();
    };
    feed();
    sim.run(*render);

    std::shared_ptr<WindowOutput> window;
    if (!options.out.empty()) {
        // The device side: what it plays from the stream's first frame on,
        // at the hardware's rate and channel count as the stream runs.
        const ChannelConfig hw = sim.hardware();
        std::shared_ptr<usbsim::WavFileOutput> file;
        try {
            file = std::make_shared<usbsim::WavFileOutput>(options.out, 24);
            file->configure(hw.fr, hw.outCH);
        } catch (const std::exception& e) {
            throw FileError(std::string(e.what()));
        }
        window = std::make_shared<WindowOutput>(file, kWriteAhead, total);
        sim.model().setOutput(window);
    }

    Progress progress("play", total, format.rate);
    Watchdog watchdog(sim, total + kWriteAhead, format.rate, "playback");
    sim.begin();
    while (true) {
        sim.step();
        feed();
        const uint64_t played = render->positionFrames();
        progress.update(played);
        if (window ? window->complete() : played >= total)
            break;
        watchdog.tick(played, total);
    }
    sim.end();
    progress.finish();
    const uint64_t played = std::min<uint64_t>(render->positionFrames(), total);
    const hostpc::StreamCounters counters = render->counters();
    sim.noteCounters(counters);
    render.reset();
    if (window) {
        try {
            sim.model().finishOutput();
        } catch (const std::exception& e) {
            throw FileError(std::string(e.what()));
        }
    }
    const ChannelConfig hw = sim.hardware();
    std::printf("Summary\n");
    std::printf("  played         %" PRIu64 " frames (%" PRIu64 " periods of 256)\n", played,
                (played + 255) / 256);
    std::printf("  glitches       %" PRIu64 "\n", counters.glitches);
    if (window)
        std::printf("  device output  %s: %u channels, 24-bit, %u Hz, %" PRIu64
                    " frames from the stream's first frame\n",
                    options.out.c_str(), unsigned(hw.outCH), unsigned(hw.fr), total);
    printSoak(sim, format);
    ReportInput report = reportInput(sim, "play", format);
    report.summary.push_back({"played", std::to_string(played) + " frames of " + options.file});
    const bool clean = teardown(sim).empty();
    report.result = clean ? "done" : "teardown NOT CLEAN";
    finishReport(sim, report);
    return clean ? kExitOk : kExitMismatch;
}

int runRecord(const CommandOptions& options) {
    const double seconds = secondsOr(options.seconds, 5);
    std::shared_ptr<usbsim::InputBackend> input;
    if (!options.input.empty()) {
        std::string why = unreadableReason(options.input);
        if (!why.empty())
            throw FileError(why);
        try {
            input = std::make_shared<usbsim::WavFileInput>(options.input);
        } catch (const std::exception& e) {
            throw FileError(e.what());
        }
    } else {
        try {
            input =
                usbsim::makeInput(options.generator.empty() ? "sine:997:0.5" : options.generator);
        } catch (const std::invalid_argument& e) {
            throw SimError(std::string("--generator: ") + e.what(), kExitUsage);
        }
    }

    Sim sim(options.sim);
    Format format;
    if (options.format.empty()) {
        format.rate = sim.hardware().fr;
        format.channels = 2;
        format.bits = 24;
    } else {
        try {
            format = parseFormat(options.format);
        } catch (const std::invalid_argument& e) {
            throw SimError(e.what(), kExitUsage);
        }
    }
    const uint64_t total = uint64_t(seconds * format.rate + 0.5);
    sim.model().setInput(input);
    auto capture = sim.open(true, format);
    sim.run(*capture);
    WavWriter writer(options.file, format);
    std::printf("Recording %.1f s at %s from the device's input: %s\n", seconds,
                format.text().c_str(), input->describe().c_str());
    if (auto* file = dynamic_cast<usbsim::WavFileInput*>(input.get()))
        if (file->fileRate() != sim.hardware().fr)
            std::printf("  note: %s runs at %u Hz, the device at %u Hz; it is not resampled\n",
                        options.input.c_str(), unsigned(file->fileRate()),
                        unsigned(sim.hardware().fr));
    std::fflush(stdout);

    const size_t align = format.blockAlign();
    std::vector<uint8_t> chunk(kChunkFrames * align);
    uint64_t recorded = 0;
    Progress progress("record", total, format.rate);
    Watchdog watchdog(sim, total, format.rate, "capture");
    sim.begin();
    while (recorded < total) {
        sim.step();
        size_t n;
        while (recorded < total &&
               (n = capture->read(chunk.data(), size_t(std::min<uint64_t>(
                                                    kChunkFrames, total - recorded)))) > 0) {
            writer.write(chunk.data(), n);
            recorded += n;
        }
        progress.update(recorded);
        watchdog.tick(recorded, total);
    }
    sim.end();
    progress.finish();
    const hostpc::StreamCounters counters = capture->counters();
    sim.noteCounters(counters);
    capture.reset();
    writer.commit();
    std::printf("Summary\n");
    std::printf("  recorded       %" PRIu64 " frames into %s\n", recorded, options.file.c_str());
    std::printf("  overruns       %" PRIu64 "\n", counters.overruns);
    printSoak(sim, format);
    ReportInput report = reportInput(sim, "record", format);
    report.summary.push_back({"recorded", std::to_string(recorded) + " frames into " +
                                              options.file + " from " + input->describe()});
    const bool clean = teardown(sim).empty();
    report.result = clean ? "done" : "teardown NOT CLEAN";
    finishReport(sim, report);
    return clean ? kExitOk : kExitMismatch;
}

} // namespace mmesim
