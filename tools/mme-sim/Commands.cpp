// The commands of mme-sim: demo, loopback, play, record, formats.
#include "Commands.h"

#include "Life.h"
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

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

namespace {

constexpr size_t kChunkFrames = 4096;
constexpr double kMaxSeconds = 1000000; // eleven and a half days
constexpr uint32_t kWriteAhead = usbsim::kDriverWriteAheadFrames;

// Gives up when audio stops moving: in virtual time after a number of
// periods, in real time after a wall-clock span; both allow twice the job
// plus twenty seconds (an ASIO client's visit and the attach timer fit).
// Time without the device (unplugged, asleep) does not count: no audio
// could move then. Its error says what the USB driver last told the driver.
class Watchdog {
public:
    Watchdog(Sim& sim, uint64_t frames, uint32_t rate, const std::string& what)
        : mSim(sim), mWhat(what) {
        const double seconds = double(frames) / (rate ? rate : 48000) * 2 + 20;
        mPeriods = uint64_t(seconds * (rate ? rate : 48000) / 256) + 16;
        mLast = std::chrono::steady_clock::now();
        mDeadline = mLast + std::chrono::milliseconds(int64_t(seconds * 1000));
    }
    void tick(uint64_t done, uint64_t total) {
        const auto now = std::chrono::steady_clock::now();
        if (!mSim.model().present() || mSim.model().suspended()) {
            mDeadline += now - mLast;
            mLast = now;
            return;
        }
        mLast = now;
        ++mSteps;
        const bool late = mSim.realtime() ? now > mDeadline : mSteps > mPeriods;
        if (late)
            throw SimError("the device stopped moving audio: " + mWhat + " reached " +
                           std::to_string(done) + " of " + std::to_string(total) + " frames; " +
                           mSim.timeline().whyStopped());
    }

private:
    Sim& mSim;
    std::string mWhat;
    uint64_t mPeriods = 0;
    uint64_t mSteps = 0;
    std::chrono::steady_clock::time_point mLast, mDeadline;
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
        if (end > begin) {
            mPassed += end - begin;
            mWritten += end - begin;
        }
    }
    void finish() override { mInner->finish(); }
    std::string describe() const override { return mInner->describe(); }
    bool complete() const { return mPassed >= mCount; }
    uint64_t written() const { return mWritten; }
    // A new stream (on a replugged device): the frames it plays from
    // `skip` frames on, `count` of them, follow what passed before.
    void restart(uint64_t skip, uint64_t count) {
        mSkip = mSeen + skip;
        mCount = count;
        mPassed = 0;
    }

private:
    std::shared_ptr<usbsim::OutputBackend> mInner;
    uint64_t mSkip, mCount;
    uint64_t mSeen = 0;
    uint64_t mPassed = 0;
    uint64_t mWritten = 0; // over every restart
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
    Comparison comparison;       // from the last start on (after the last replug)
    std::vector<Comparison> cut; // each start that an unplug cut short
    std::vector<Gap> gaps;       // where a sleep broke the signal off
    uint64_t frames = 0;         // signal frames of the last start
    uint64_t latency = 0;
    uint64_t measured = 0; // first frame with sound, as captured
    uint64_t renderPeriods = 0, capturePeriods = 0;
    uint64_t glitches = 0, overruns = 0;
    bool endedEarly = false; // the device went and did not come back in time
};

// Plays the test signal through render while capture records the device's
// loopback; what comes back is checked as it arrives and nothing is kept, so
// memory does not depend on the length of the run. A device unplugged and
// replugged meanwhile gets a fresh check from its new pins' first frame for
// what is left of the run.
LoopbackResult loopback(Sim& sim, const Format& format, double seconds,
                        const CommandOptions& options, DeviceLife& life) {
    LoopbackResult result;
    sim.model().setLoopback(kLoopbackFrames);
    const uint64_t total = uint64_t(seconds * format.rate + 0.5);
    result.frames = total;
    result.latency = kWriteAhead + kLoopbackFrames;
    const size_t align = format.blockAlign();
    // A stalled client: from and to this many periods of the run.
    const double periodsPerSecond = double(format.rate) / sim.model().periodFrames();
    const uint64_t stallFrom = uint64_t(options.stallAt * periodsPerSecond);
    const uint64_t stallTo = uint64_t((options.stallAt + options.stallSeconds) * periodsPerSecond);
    const uint64_t stallFrames = (stallTo - stallFrom) * sim.model().periodFrames();
    Progress progress("loopback", result.latency + total, format.rate);
    std::vector<uint8_t> pending(kChunkFrames * align), chunk(kChunkFrames * align);
    uint64_t progressBase = 0;

    for (bool first = true;; first = false) {
        // Capture starts first and alone, so that it may bring the hardware to
        // its rate; render then opens at that rate. No period runs in between,
        // so both begin with the same one.
        auto capture = sim.open(true, format);
        sim.run(*capture);
        auto render = sim.open(false, format);

        TestSignal signal(format);
        LoopbackCheck check(format, result.frames, result.latency);
        // One gap for each sleep since these pins began.
        const size_t sleptBefore = life.sleeps();
        check.allowGaps([&life, sleptBefore] { return life.sleeps() - sleptBefore; });
        size_t pendingFrames = 0, pendingUsed = 0;
        uint64_t generated = 0;
        // Queues what fits; the rest of the chunk waits for the next period.
        auto feed = [&] {
            while (true) {
                if (pendingUsed == pendingFrames) {
                    if (generated == result.frames)
                        break;
                    pendingFrames =
                        size_t(std::min<uint64_t>(kChunkFrames, result.frames - generated));
                    signal.fill(pending.data(), pendingFrames);
                    generated += pendingFrames;
                    pendingUsed = 0;
                }
                const size_t n = render->write(pending.data() + pendingUsed * align,
                                               pendingFrames - pendingUsed);
                pendingUsed += n;
                if (n == 0)
                    return;
            }
            render->endOfStream();
        };
        feed();
        sim.run(*render);
        if (first)
            life.start(result.latency + total);

        Watchdog watchdog(sim, check.wanted() + stallFrames, format.rate, "capture");
        sim.begin();
        bool left = false;
        while (!check.done()) {
            sim.step();
            if ((left = DeviceLife::gone({render.get(), capture.get()})))
                break;
            const uint64_t period = sim.periodsRun();
            if (period >= stallFrom && period < stallTo) {
                watchdog.tick(check.seen(), check.wanted());
                continue;
            }
            feed();
            size_t n;
            while ((n = capture->read(chunk.data(), kChunkFrames)) > 0)
                check.take(chunk.data(), n);
            progress.update(progressBase + check.seen());
            watchdog.tick(check.seen(), check.wanted());
        }
        result.renderPeriods += render->positionFrames() / 256;
        result.capturePeriods += capture->positionFrames() / 256;
        result.glitches += render->counters().glitches;
        result.overruns += capture->counters().overruns;
        sim.noteCounters(render->counters());
        sim.noteCounters(capture->counters());
        if (left)
            life.leave(render.get(), capture.get(),
                       [&check](const uint8_t* frames, size_t n) { check.take(frames, n); });
        else
            sim.end();
        render->close();
        capture->close();
        result.gaps.insert(result.gaps.end(), check.gaps().begin(), check.gaps().end());
        result.measured = check.firstSound();
        if (!left) {
            result.comparison = check.result();
            break;
        }
        result.cut.push_back(check.result());
        // What is left of the run, from the new pins' first frame.
        result.endedEarly = !life.comeBack() || life.elapsedFrames() >= total;
        if (result.endedEarly)
            break;
        result.frames = total - life.elapsedFrames();
        progressBase = life.elapsedFrames();
    }
    sim.end();
    progress.finish();
    return result;
}

std::string samplesText(const Comparison& c) {
    return "FAIL: " + std::to_string(c.mismatches) + " of " + std::to_string(c.samples) +
           " samples differ, first at frame " + std::to_string(c.firstFrame);
}

// The summary's lines after "Summary" and the device's life; the verdict's
// rows (before an unplug, frames lost at a sleep, result) also go into
// *rows for the report. Returns whether everything came back as the rules
// promise.
bool printLoopback(const Format& format, const LoopbackResult& r, size_t sleeps,
                   std::vector<std::pair<std::string, std::string>>* rows) {
    const Comparison& c = r.comparison;
    bool cutExact = true;
    for (const Comparison& before : r.cut)
        cutExact = cutExact && before.mismatches == 0;
    const bool exact = cutExact && r.glitches == 0 && r.overruns == 0 &&
                       (r.endedEarly || (c.complete && c.mismatches == 0));
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
    for (const Comparison& before : r.cut)
        rows->push_back({"before unplug", before.mismatches
                                              ? samplesText(before)
                                              : "bit-exact up to it, " +
                                                    std::to_string(before.samples) + " samples"});
    if (sleeps) {
        uint64_t silence = 0, skipped = 0;
        for (const Gap& g : r.gaps) {
            silence += g.silence;
            skipped += g.skipped;
        }
        rows->push_back({"frames lost", std::to_string(skipped) + " at " +
                                            (sleeps == 1 ? "the sleep: " : "the sleeps: ") +
                                            std::to_string(silence) +
                                            " frames of silence inserted, " +
                                            std::to_string(skipped) + " signal frames skipped"});
    }
    const char* after = r.cut.empty() ? "" : " after the replug";
    std::string text;
    if (r.endedEarly)
        text = exact ? "PASS: bit-exact up to the unplug, where the run ended"
                     : "FAIL: " + std::string(cutExact ? "glitches or overruns on the way"
                                                       : "not bit-exact up to the unplug");
    else if (exact)
        text = "PASS: bit-exact" + std::string(after) + ", " + std::to_string(c.samples) +
               " samples as the conversion rules promise" +
               (r.gaps.empty() ? "" : " (but for the gap at each sleep)");
    else if (c.mismatches)
        text = "FAIL: " + std::to_string(c.mismatches) + " of " + std::to_string(c.samples) +
               " samples differ" + after + "; first at frame " + std::to_string(c.firstFrame) +
               " channel " + std::to_string(c.firstChannel) + ": expected " +
               std::to_string(c.expected) + ", got " + std::to_string(c.got);
    else if (!cutExact)
        text = "FAIL: not bit-exact before the unplug";
    else
        text = std::string("FAIL: ") +
               (c.complete ? "glitches or overruns on the way" : "capture came back short");
    rows->push_back({"result", text});
    for (const auto& [name, line] : *rows)
        std::printf("  %-15s%s\n", name.c_str(), line.c_str());
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

// The report of a command that failed: what ran up to the failure, the
// device's life and the error. The error at hand is what main tells, so a
// report that cannot be written is not another one.
void reportFailure(Sim& sim, const std::string& command, const Format& format,
                   const DeviceLife& life, const std::string& error) {
    if (sim.options().reportPath.empty() || !sim.alive())
        return;
    try {
        sim.end();
        ReportInput in = reportInput(sim, command, format);
        life.report(in);
        in.result = "error";
        in.summary.push_back({"error", error});
        finishReport(sim, in);
    } catch (const std::exception&) {
    }
}

// Runs a streaming command's body; when it fails, its report is written
// before the error goes on to main.
template <class Body>
int reported(Sim& sim, const std::string& command, const Format& format, const DeviceLife& life,
             Body body) {
    try {
        return body();
    } catch (const std::exception& e) {
        reportFailure(sim, command, format, life, e.what());
        throw;
    }
}

// A number of seconds within the bounds, and nothing else in the text.
bool parseSeconds(const std::string& text, double least, double* seconds) {
    try {
        size_t used = 0;
        const double value = std::stod(text, &used);
        if (used != text.size() || text.empty() || text[0] == ' ' || !(value >= least) ||
            value > kMaxSeconds)
            return false;
        *seconds = value;
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

void parseStall(const std::string& text, CommandOptions* options) {
    const size_t colon = text.find(':');
    double at = 0, seconds = 0;
    if (colon == std::string::npos || !parseSeconds(text.substr(0, colon), 0, &at) ||
        !parseSeconds(text.substr(colon + 1), 1e-9, &seconds))
        throw SimError("--stall \"" + text + "\": use AT:SECONDS, e.g. 0.5:1.5", kExitUsage);
    options->stallAt = at;
    options->stallSeconds = seconds;
}

void parseUnplug(const std::string& text, CommandOptions* options) {
    const size_t colon = text.find(':');
    double at = 0, after = 0;
    if (!parseSeconds(text.substr(0, colon), 0, &at) ||
        (colon != std::string::npos && !parseSeconds(text.substr(colon + 1), 0.001, &after)))
        throw SimError("--unplug \"" + text +
                           "\": use AT[:REPLUG_AFTER] in seconds, e.g. 1.5 or 1.5:0.5 "
                           "(REPLUG_AFTER at least 0.001)",
                       kExitUsage);
    options->unplugAt = at;
    options->replugAfter = after;
}

void parseSleep(const std::string& text, CommandOptions* options) {
    const size_t colon = text.find(':');
    double at = 0, seconds = 0;
    if (colon == std::string::npos || !parseSeconds(text.substr(0, colon), 0, &at) ||
        !parseSeconds(text.substr(colon + 1), 0.001, &seconds))
        throw SimError("--sleep \"" + text +
                           "\": use AT:SECONDS, e.g. 1.5:1 (SECONDS at least 0.001)",
                       kExitUsage);
    options->sleepAt = at;
    options->sleepSeconds = seconds;
}

int runFormats(const CommandOptions& options) {
    if (options.unplugAt >= 0 || options.sleepAt >= 0)
        throw SimError("--unplug and --sleep are for the streaming commands (demo, loopback, "
                       "play, record)",
                       kExitUsage);
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

namespace {

// Loopback at the asked (or negotiated) format, checked and reported; the
// exit code says whether it was bit-exact, the device's life went as a
// client may expect and the teardown was clean.
int loopbackAndReport(Sim& sim, const CommandOptions& options, double seconds,
                      const char* command) {
    Format format{0, 0, 0};
    DeviceLife life(sim, options);
    return reported(sim, command, format, life, [&] {
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
        LoopbackResult r = loopback(sim, format, seconds, options, life);
        std::printf("Summary\n");
        life.print();
        std::vector<std::pair<std::string, std::string>> verdict;
        const bool exact = printLoopback(format, r, life.sleeps(), &verdict);
        printSoak(sim, format);
        ReportInput report = reportInput(sim, command, format);
        life.report(report);
        const bool clean = teardown(sim).empty();

        report.latencyFrames =
            r.measured == uint64_t(-1) ? std::nullopt : std::optional<uint64_t>(r.measured);
        const bool passed = exact && life.behaved();
        report.result = passed ? "PASS" : "FAIL";
        char latency[128];
        std::snprintf(latency, sizeof latency, "%" PRIu64 " frames = %.2f ms (measured %s)",
                      r.latency, 1000.0 * double(r.latency) / format.rate,
                      r.measured == uint64_t(-1) ? "no sound" : std::to_string(r.measured).c_str());
        report.summary.push_back({"latency", latency});
        if (!clean)
            verdict.back().second += "; teardown NOT CLEAN";
        report.summary.insert(report.summary.end(), verdict.begin(), verdict.end());
        finishReport(sim, report);
        return passed && clean ? kExitOk : kExitMismatch;
    });
}

} // namespace

int runLoopback(const CommandOptions& options) {
    const double seconds = secondsOr(options.seconds, 2);
    Sim sim(options.sim);
    return loopbackAndReport(sim, options, seconds, "loopback");
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
    DeviceLife life(sim, options);
    return reported(sim, "play", format, life, [&] {
        std::printf("Playing %s: %s, %.1f s (%" PRIu64 " frames)\n", options.file.c_str(),
                    format.text().c_str(), double(total) / format.rate, total);
        std::fflush(stdout);

        const size_t align = format.blockAlign();
        std::vector<uint8_t> chunk(kChunkFrames * align);
        std::shared_ptr<WindowOutput> window;
        Progress progress("play", total, format.rate);
        uint64_t offset = 0; // the file's frame the stream on this device began with
        uint64_t played = 0;
        uint64_t glitches = 0;
        for (bool first = true;; first = false) {
            auto render = sim.open(false, format);
            size_t chunkFrames = 0, chunkUsed = 0;
            uint64_t queued = offset;
            // Queues what fits; keeps the rest of the last chunk read for later.
            auto feed = [&] {
                while (queued < total) {
                    if (chunkUsed == chunkFrames) {
                        chunkFrames = reader.read(chunk.data(), kChunkFrames);
                        chunkUsed = 0;
                        if (chunkFrames == 0)
                            throw FileError(options.file + ": ended after " +
                                            std::to_string(queued) + " of " +
                                            std::to_string(total) + " frames");
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

            if (first && !options.out.empty()) {
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
            } else if (window) {
                window->restart(kWriteAhead, total - offset);
            }
            if (first)
                life.start(total + kWriteAhead);

            Watchdog watchdog(sim, total - offset + kWriteAhead, format.rate, "playback");
            sim.begin();
            bool left = false;
            while (true) {
                sim.step();
                if ((left = DeviceLife::gone({render.get()})))
                    break;
                feed();
                played = offset + render->positionFrames();
                progress.update(played);
                if (window ? window->complete() : played >= total)
                    break;
                watchdog.tick(played, total);
            }
            const uint64_t position = std::min(render->positionFrames(), total - offset);
            const hostpc::StreamCounters counters = render->counters();
            glitches += counters.glitches;
            sim.noteCounters(counters);
            played = offset + position;
            if (!left)
                break;
            life.leave(render.get(), nullptr, nullptr);
            // On from the last frame the old device's position had reached.
            offset = played;
            if (!life.comeBack() || offset >= total)
                break;
            reader.seek(offset);
        }
        sim.end();
        progress.finish();
        if (window) {
            try {
                sim.model().finishOutput();
            } catch (const std::exception& e) {
                throw FileError(std::string(e.what()));
            }
        }
        const ChannelConfig hw = sim.hardware();
        std::printf("Summary\n");
        life.print();
        std::printf("  played         %" PRIu64 " frames (%" PRIu64 " periods of 256)\n", played,
                    (played + 255) / 256);
        std::printf("  glitches       %" PRIu64 "\n", glitches);
        if (window)
            std::printf("  device output  %s: %u channels, 24-bit, %u Hz, %" PRIu64
                        " frames from the stream's first frame%s\n",
                        options.out.c_str(), unsigned(hw.outCH), unsigned(hw.fr), window->written(),
                        life.departures().empty() ? "" : " on each device");
        printSoak(sim, format);
        ReportInput report = reportInput(sim, "play", format);
        life.report(report);
        report.summary.push_back({"played", std::to_string(played) + " frames of " + options.file});
        const bool clean = teardown(sim).empty();
        const bool behaved = life.behaved();
        report.result = !clean ? "teardown NOT CLEAN" : behaved ? "done" : "FAIL";
        finishReport(sim, report);
        return clean && behaved ? kExitOk : kExitMismatch;
    });
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
    Format format{0, 0, 0};
    DeviceLife life(sim, options);
    return reported(sim, "record", format, life, [&] {
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
        uint64_t recorded = 0, lost = 0, target = total, overruns = 0;
        bool replugged = false;
        Progress progress("record", total, format.rate);
        life.start(total);
        while (true) {
            Watchdog watchdog(sim, target - recorded, format.rate, "capture");
            sim.begin();
            bool left = false;
            while (recorded < target) {
                sim.step();
                if ((left = DeviceLife::gone({capture.get()})))
                    break;
                size_t n;
                while (recorded < target &&
                       (n = capture->read(
                            chunk.data(),
                            size_t(std::min<uint64_t>(kChunkFrames, target - recorded)))) > 0) {
                    writer.write(chunk.data(), n);
                    recorded += n;
                }
                progress.update(recorded + lost);
                watchdog.tick(recorded, target);
            }
            const hostpc::StreamCounters counters = capture->counters();
            overruns += counters.overruns;
            sim.noteCounters(counters);
            if (!left)
                break;
            life.leave(nullptr, capture.get(), [&](const uint8_t* frames, size_t n) {
                n = size_t(std::min<uint64_t>(n, target - recorded));
                writer.write(frames, n);
                recorded += n;
            });
            capture.reset();
            if (!life.comeBack())
                break;
            capture = sim.open(true, format);
            sim.run(*capture);
            replugged = true;
            // What the clock ran meanwhile never reached the file.
            const uint64_t elapsed = std::min(total, life.elapsedFrames());
            lost = elapsed - std::min(elapsed, recorded);
            target = recorded + (total - elapsed);
        }
        sim.end();
        progress.finish();
        capture.reset();
        writer.commit();
        std::printf("Summary\n");
        life.print();
        std::printf("  recorded       %" PRIu64 " frames into %s\n", recorded,
                    options.file.c_str());
        if (replugged)
            std::printf("  frames lost    %" PRIu64 " while the device was away\n", lost);
        std::printf("  overruns       %" PRIu64 "\n", overruns);
        printSoak(sim, format);
        ReportInput report = reportInput(sim, "record", format);
        life.report(report);
        report.summary.push_back({"recorded", std::to_string(recorded) + " frames into " +
                                                  options.file + " from " + input->describe()});
        if (replugged)
            report.summary.push_back({"frames lost", std::to_string(lost)});
        const bool clean = teardown(sim).empty();
        const bool behaved = life.behaved();
        report.result = !clean ? "teardown NOT CLEAN" : behaved ? "done" : "FAIL";
        finishReport(sim, report);
        return clean && behaved ? kExitOk : kExitMismatch;
    });
}

} // namespace mmesim
