// mme-sim: runs the driver on the host above a simulated USB audio
// interface and streams real audio through it, as a kernel-streaming client
// would. With no command: the demo (formats, then a bit-exact loopback).
#include "Commands.h"
#include "WavFiles.h"

#include "usbsim/Profile.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <string>

namespace {

const char* const kDescription =
    "mme-sim: the MME/KS/WDM USB audio driver on a simulated device.\n"
    "Without a command it runs the demo: prints the formats the wave filter offers,\n"
    "plays a test signal through render while recording capture in loopback, and\n"
    "checks that what came back is bit-exact to the conversion rules.";

const char* const kFooter =
    "Formats are rate/channels/bits, e.g. 48000/2/24; the driver decides what it takes.\n"
    "Time is virtual (as fast as possible) unless --realtime is given.\n"
    "The driver's debug output goes nowhere unless --trace FILE or --verbose asks.\n"
    "An unplug or sleep the command line or the profile asks for is no error.\n"
    "Exit status: 0 done, 1 error (file, profile, refused format, audio stopped),\n"
    "2 command line, 3 loopback not bit-exact, the device's removal or return not as\n"
    "a client may expect, or teardown not clean.";

void fail(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "mme-sim: error: %s\n", message.c_str());
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app(kDescription, "mme-sim");
    app.footer(kFooter);
    app.fallthrough();
    app.require_subcommand(0, 1);
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return std::string("mme-sim: error: ") + e.what() + " (see mme-sim --help)\n";
    });

    mmesim::CommandOptions o;
    app.add_option("--device", o.sim.profilePath, "device profile (JSON); default: built-in")
        ->type_name("PROFILE.json");
    app.add_option("--format", o.format, "stream format rate/channels/bits")->type_name("R/C/B");
    app.add_option("--trace", o.sim.tracePath, "write the driver's debug output to FILE")
        ->type_name("FILE");
    app.add_option("--driver", o.sim.driverPath,
                   "run this Windows build of the driver (.sys) instead of the linked one")
        ->type_name("PATH.sys");
    app.add_flag("--verbose", o.sim.verbose, "print the driver's debug output on stderr");
    app.add_flag("--realtime", o.sim.realtime, "pace the device by its sample clock");
    app.add_option("--port-service", o.sim.portService,
                   "where the port services its pins: concurrent (its own DPC thread; the "
                   "default with --realtime) or end-of-period (drained after each period)")
        ->check(CLI::IsMember({"concurrent", "end-of-period"}));
    app.add_option("--port", o.sim.port,
                   "the wave port's ways where its documentation is silent: documented (the "
                   "default; MME_PORT in the environment chooses otherwise) or open-source "
                   "(those of the open-source port-class library)")
        ->check(CLI::IsMember({"documented", "open-source"}));
    app.add_option("--seconds", o.seconds, "length of the demo, loopback or recording")
        ->type_name("N");
    app.add_option("--report", o.sim.reportPath,
                   "write a timeline of what the driver did to FILE (self-contained HTML)")
        ->type_name("FILE.html");
    std::string stall;
    app.add_option("--stall", stall,
                   "demo and loopback: the client writes and reads nothing for SECONDS from AT "
                   "(a late client, to see its glitches)")
        ->type_name("AT:SECONDS");
    std::string unplug, sleep;
    app.add_option("--unplug", unplug,
                   "streaming commands: the device is unplugged AT seconds into the audio and, "
                   "with REPLUG_AFTER, plugged in again that many seconds later")
        ->type_name("AT[:REPLUG_AFTER]");
    app.add_option("--sleep", sleep,
                   "streaming commands: the system sleeps for SECONDS from AT seconds into the "
                   "audio")
        ->type_name("AT:SECONDS");

    CLI::App* play = app.add_subcommand("play", "play a WAV file through the render pin");
    play->add_option("FILE", o.file, "16-, 24- or 32-bit PCM WAV")->required();
    play->add_option("--out", o.out, "write what reaches the device to this WAV")
        ->type_name("FILE");

    CLI::App* record = app.add_subcommand("record", "record the capture pin into a WAV file");
    record->add_option("FILE", o.file, "WAV file to write")->required();
    auto* input = record->add_option("--input", o.input, "device input from this WAV file")
                      ->type_name("FILE");
    record
        ->add_option("--generator", o.generator,
                     "device input: sine[:HZ[:AMPLITUDE]], sweep[:FROM:TO[:SECONDS]], pattern, "
                     "silence (default sine:997:0.5)")
        ->type_name("KIND[:ARGS]")
        ->excludes(input);

    CLI::App* loopback =
        app.add_subcommand("loopback", "render and capture through the device's loopback");
    CLI::App* formats = app.add_subcommand(
        "formats", "what the capture and render pins offer; with --format, whether it validates");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? mmesim::kExitOk : mmesim::kExitUsage;
    }

    try {
        if (!stall.empty())
            mmesim::parseStall(stall, &o);
        if (!unplug.empty())
            mmesim::parseUnplug(unplug, &o);
        if (!sleep.empty())
            mmesim::parseSleep(sleep, &o);
        if (play->parsed())
            return mmesim::runPlay(o);
        if (record->parsed())
            return mmesim::runRecord(o);
        if (loopback->parsed())
            return mmesim::runLoopback(o);
        if (formats->parsed())
            return mmesim::runFormats(o);
        return mmesim::runDemo(o);
    } catch (const mmesim::SimError& e) {
        fail(e.what());
        return e.exitCode();
    } catch (const mmesim::FileError& e) {
        fail(e.what());
        return mmesim::kExitError;
    } catch (const usbsim::ProfileError& e) {
        fail(std::string("bad profile: ") + e.what());
        return mmesim::kExitError;
    } catch (const std::exception& e) {
        fail(e.what());
        return mmesim::kExitError;
    }
}
